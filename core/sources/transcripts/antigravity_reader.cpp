#include "core/sources/transcripts/antigravity_reader.hpp"

#include <array>
#include <cctype>

#include "core/model/event_id.hpp"
#include "core/model/timestamp.hpp"
#include "core/sources/event_draft.hpp"
#include "core/sources/file_discovery.hpp"
#include "core/sources/json_fields.hpp"
#include "core/sources/line_source.hpp"
#include "core/sources/transcripts/transcript_lines.hpp"

namespace kestrel::AntigravityReader {
namespace {

namespace dom = simdjson::dom;

constexpr std::string_view kUnknownModel = "antigravity-unknown";

bool isTranscript(const std::filesystem::path& file) {
    const auto logs = file.parent_path();
    return file.filename() == "transcript.jsonl" && logs.filename() == "logs" &&
           logs.parent_path().filename() == ".system_generated";
}

// The conversation folder: brain/<conversation>/.system_generated/logs/transcript.jsonl.
std::string conversationOf(const std::filesystem::path& file) {
    return file.parent_path().parent_path().parent_path().filename().string();
}

std::string textOf(dom::object record, std::string_view key) {
    std::string_view s;
    if (record.at_key(key).get_string().get(s)) {
        return {};
    }
    return std::string(s);
}

}  // namespace

std::optional<std::string> selectedModel(std::string_view text) {
    constexpr std::string_view marker = "Model Selection from ";
    const auto at = text.rfind(marker);
    if (at == std::string_view::npos) {
        return std::nullopt;
    }
    const auto to = text.find(" to ", at + marker.size());
    if (to == std::string_view::npos) {
        return std::nullopt;
    }
    auto name = text.substr(to + 4);
    // The display name ends the line (or the markup around it); an effort level in
    // parentheses is not part of the model.
    name = name.substr(0, name.find_first_of("\n(<\""));
    std::string id;
    for (unsigned char c : name) {
        if (std::isalnum(c) || c == '.') {
            id += static_cast<char>(std::tolower(c));
        } else if (!id.empty() && id.back() != '-') {
            id += '-';
        }
    }
    while (!id.empty() && id.back() == '-') {
        id.pop_back();
    }
    if (id.empty() || id == "none") {
        return std::nullopt;
    }
    constexpr std::array<std::string_view, 4> families{"gemini-", "claude-", "gpt-",
                                                       "antigravity-"};
    for (auto family : families) {
        if (id.starts_with(family)) {
            return id;
        }
    }
    return "antigravity-" + id;
}

int64_t estimatedTokens(std::size_t bytes) {
    return static_cast<int64_t>((bytes + kBytesPerToken - 1) / kBytesPerToken);
}

std::expected<IngestResult, FileError> ingest(const SourceReadContext& context) {
    const auto& file = context.file;
    const auto& checkpoint = context.checkpoint;
    const auto& sink = context.sink;
    // The model chosen earlier in the conversation applies to the replies appended later.
    auto state = TranscriptLines::decodeContext(checkpoint ? checkpoint->parserContext : "");
    std::string model = TranscriptLines::contextString(state, "model", std::string(kUnknownModel));
    const std::string conversation = conversationOf(file);
    const double mtime = TranscriptLines::modificationTime(file);
    TranscriptLines::ObjectParser parser;
    auto result = LineSource::read(
        AgentSource::antigravity, parserVersion, file, checkpoint,
        [&](std::string_view line, int64_t offset) {
            if (JsonFields::isBlank(line)) {
                return LineSource::LineKind::blank;
            }
            auto record = parser.parse(line);
            if (!record) {
                return LineSource::LineKind::malformed;
            }
            const auto type = TranscriptLines::stringMember(*record, "type").value_or("");
            if (type == "USER_INPUT") {
                if (auto selected = selectedModel(textOf(*record, "content"))) {
                    model = *selected;
                }
                return LineSource::LineKind::noUsage;
            }
            if (TranscriptLines::stringMember(*record, "source").value_or("") != "MODEL") {
                return LineSource::LineKind::noUsage;
            }
            const std::string content = textOf(*record, "content");
            const std::string thinking = textOf(*record, "thinking");
            if (content.empty() && thinking.empty()) {
                return LineSource::LineKind::noUsage;  // a tool call alone, a status step
            }
            // The step's own id, else its index, else where the line sits in the file: all
            // stable across re-reads of an append-only file.
            std::string recordID;
            if (auto id = TranscriptLines::stringMember(*record, "id")) {
                recordID = *id;
            } else if (int64_t step = 0;
                       TranscriptLines::readCountMember(*record, "step_index", step) ==
                       TranscriptLines::CountRead::present) {
                recordID = "step-" + std::to_string(step);
            } else {
                recordID = "@" + std::to_string(offset);
            }
            EventDraft d;
            d.source = AgentSource::antigravity;
            d.id = EventID::local(AgentSource::antigravity, conversation, recordID, model);
            d.provider = "google";
            d.model = model;
            d.sessionID = conversation;
            d.precision = UsagePrecision::estimateOnly;
            std::optional<double> when;
            if (auto ts = TranscriptLines::stringMember(*record, "created_at")) {
                when = parseISO8601(*ts);
            }
            d.occurredAt = when.value_or(mtime);
            d.timeQuality =
                when ? ObservationTimeQuality::trusted : ObservationTimeQuality::inferred;
            d.output = estimatedTokens(content.size());
            d.reasoning = estimatedTokens(thinking.size());
            d.rawExtras =
                "{\"estimate\":\"textBytes\",\"bytesPerToken\":" + std::to_string(kBytesPerToken) +
                "}";
            sink(buildEvent(d));
            return LineSource::LineKind::usage;
        },
        {.context = &context,
         .state = [&] { return TranscriptLines::contextWith(state, "model", model); }});
    if (result) {
        result->checkpoint.parserContext = TranscriptLines::contextWith(state, "model", model);
    }
    return result;
}

std::vector<std::filesystem::path> discover(const std::filesystem::path& root,
                                            std::vector<FileError>* errors) {
    DiscoveryOptions options;
    options.errors = errors;
    options.maxDepth = 8;
    options.accept = isTranscript;
    return discoverFiles(root, options);
}

SourceReader reader() {
    return {SourceReaderKind::jsonLines, parserVersion, discover, ingest};
}

}  // namespace kestrel::AntigravityReader
