#include "core/sources/transcripts/gemini_reader.hpp"

#include <algorithm>
#include <cctype>

#include "core/model/event_id.hpp"
#include "core/model/timestamp.hpp"
#include "core/sources/event_draft.hpp"
#include "core/sources/file_discovery.hpp"
#include "core/sources/json_fields.hpp"
#include "core/sources/line_source.hpp"
#include "core/sources/transcripts/transcript_lines.hpp"

namespace kestrel::GeminiReader {
namespace {

namespace dom = simdjson::dom;
using TranscriptLines::CountRead;

// Legacy sessions grow with the conversation; beyond this a file is not one the agent wrote.
constexpr std::uintmax_t kMaxLegacyBytes = std::uintmax_t{512} << 20;
constexpr std::uintmax_t kMaxProjectFileBytes = std::uintmax_t{4} << 20;

bool isUnderChats(const std::filesystem::path& file) {
    const auto parent = file.parent_path();
    return parent.filename() == "chats" || parent.parent_path().filename() == "chats";
}

std::filesystem::path jsonlTwin(const std::filesystem::path& legacy) {
    auto twin = legacy;
    twin.replace_extension(".jsonl");
    return twin;
}

bool isLegacy(const std::filesystem::path& file) {
    return file.extension() == ".json";
}

std::string trimmed(std::string text) {
    const auto first = text.find_first_not_of(" \t\r\n");
    if (first == std::string::npos) {
        return {};
    }
    const auto last = text.find_last_not_of(" \t\r\n");
    return text.substr(first, last - first + 1);
}

bool isHexDigest(std::string_view id) {
    return id.size() == 64 && std::ranges::all_of(id, [](unsigned char c) {
               return std::isdigit(c) || (c >= 'a' && c <= 'f');
           });
}

// Where the session's project lives: the folder's ".project_root" marker, else the reverse of
// the projects.json slug registry; else only a label (a slug names the folder; a digest of the
// path names nothing a person would recognise).
struct Project {
    std::string cwd;
    std::string label;
};

Project projectOf(const std::filesystem::path& file) {
    Project project;
    auto chats = file.parent_path();
    if (chats.filename() != "chats") {
        chats = chats.parent_path();
    }
    const auto projectDir = chats.parent_path();
    const std::string projectID = projectDir.filename().string();
    if (auto marker =
            LineSource::readSmallFile(projectDir / ".project_root", kMaxProjectFileBytes)) {
        project.cwd = trimmed(std::move(*marker));
        if (!project.cwd.empty()) {
            return project;
        }
    }
    const auto root = projectDir.parent_path().parent_path();  // <root>/tmp/<projectId>
    if (auto registry = LineSource::readSmallFile(root / "projects.json", kMaxProjectFileBytes)) {
        TranscriptLines::ObjectParser parser;
        if (auto doc = parser.parse(*registry)) {
            if (auto projects = TranscriptLines::objectMember(*doc, "projects")) {
                for (auto [path, slug] : *projects) {
                    std::string_view s;
                    if (!slug.get_string().get(s) && s == projectID) {
                        project.cwd = std::string(path);
                        return project;
                    }
                }
            }
        }
    }
    if (!isHexDigest(projectID)) {
        project.label = projectID;
    }
    return project;
}

struct SessionFacts {
    std::string sessionID;
    Project project;
    double mtime = 0;
};

enum class MessageRead { usage, noUsage, unreadable };

// One message record: an event when it is a model reply with token counts.
MessageRead readMessage(dom::object message, const SessionFacts& facts,
                        const SourceEventSink& sink) {
    auto type = TranscriptLines::stringMember(message, "type");
    auto tokensValue = TranscriptLines::member(message, "tokens");
    if (!type || *type != "gemini" || !tokensValue || tokensValue->is_null()) {
        return MessageRead::noUsage;  // user turns, info lines, replies still streaming
    }
    dom::object tokens;
    auto id = TranscriptLines::stringMember(message, "id");
    if (tokensValue->get_object().get(tokens) || !id) {
        return MessageRead::unreadable;
    }
    int64_t input = 0, output = 0, cached = 0, thoughts = 0, tool = 0, total = 0;
    bool hasTotal = false;
    for (auto [key, out] :
         {std::pair{"input", &input}, std::pair{"output", &output}, std::pair{"cached", &cached},
          std::pair{"thoughts", &thoughts}, std::pair{"tool", &tool}, std::pair{"total", &total}}) {
        const auto read = TranscriptLines::readCountMember(tokens, key, *out);
        if (read == CountRead::invalid) {
            return MessageRead::unreadable;
        }
        if (read == CountRead::present && std::string_view(key) == "total") {
            hasTotal = true;
        }
    }
    EventDraft d;
    d.source = AgentSource::gemini;
    d.model = TranscriptLines::stringMember(message, "model").value_or("gemini-unknown");
    d.provider = "google";
    d.id = EventID::local(AgentSource::gemini, facts.sessionID, *id, d.model);
    d.sessionID = facts.sessionID;
    d.cwd = facts.project.cwd;
    d.projectName = facts.project.label;
    std::optional<double> when;
    if (auto ts = TranscriptLines::stringMember(message, "timestamp")) {
        when = parseISO8601(*ts);
    }
    d.occurredAt = when.value_or(facts.mtime);
    d.timeQuality = when ? ObservationTimeQuality::trusted : ObservationTimeQuality::inferred;
    // `input` is the whole prompt including the cached part; tool-use prompt tokens and
    // thoughts are counted beside it, and all of them make up `total`.
    d.input = std::max<int64_t>(input - cached, 0) + tool;
    d.cachedInput = cached;
    d.output = output;
    d.reasoning = thoughts;
    // The agent's own total also counts the cached part and the thoughts, which the ledger
    // keeps in buckets of their own: kept for audit rather than as the provider total.
    if (hasTotal) {
        d.rawExtras = "{\"total\":" + std::to_string(total) + "}";
    }
    sink(buildEvent(d));
    return MessageRead::usage;
}

std::string fallbackSessionID(const std::filesystem::path& file) {
    return file.stem().string();
}

std::expected<IngestResult, FileError> ingestLegacy(const std::filesystem::path& file,
                                                    const SourceEventSink& sink) {
    IngestResult result;
    result.checkpoint = LineSource::wholeFileCheckpoint(AgentSource::gemini, parserVersion, file);
    std::error_code ec;
    if (std::filesystem::exists(jsonlTwin(file), ec)) {
        return result;  // resumed into the JSON-lines copy, which holds every message again
    }
    auto text = LineSource::readSmallFile(file, kMaxLegacyBytes);
    if (!text) {
        return std::unexpected(text.error());
    }
    result.stats.bytes = static_cast<int64_t>(text->size());
    TranscriptLines::ObjectParser parser;
    auto doc = parser.parse(trimmed(std::move(*text)));
    if (!doc) {
        // Caught mid-rewrite, or damaged: the next change brings it back.
        result.stats.malformed = 1;
        return result;
    }
    dom::array messages;
    if (doc->at_key("messages").get_array().get(messages)) {
        result.formatChanged = true;
        return result;
    }
    SessionFacts facts;
    facts.sessionID =
        TranscriptLines::stringMember(*doc, "sessionId").value_or(fallbackSessionID(file));
    facts.project = projectOf(file);
    facts.mtime = TranscriptLines::modificationTime(file);
    int64_t usable = 0, unreadable = 0;
    for (auto value : messages) {
        ++result.stats.lines;
        dom::object message;
        if (value.get_object().get(message)) {
            ++result.stats.malformed;
            continue;
        }
        switch (readMessage(message, facts, sink)) {
            case MessageRead::usage:
                ++usable;
                break;
            case MessageRead::noUsage:
                ++result.stats.withoutUsage;
                break;
            case MessageRead::unreadable:
                ++unreadable;
                ++result.stats.malformed;
                break;
        }
    }
    result.formatChanged = unreadable > 0 && usable == 0;
    return result;
}

std::expected<IngestResult, FileError> ingestLines(const SourceReadContext& context) {
    const auto& file = context.file;
    const auto& checkpoint = context.checkpoint;
    const auto& sink = context.sink;
    // The session id is on the first line only; later reads find it in the context.
    auto state = TranscriptLines::decodeContext(checkpoint ? checkpoint->parserContext : "");
    SessionFacts facts;
    facts.sessionID = TranscriptLines::contextString(state, "sessionId", fallbackSessionID(file));
    facts.project = projectOf(file);
    facts.mtime = TranscriptLines::modificationTime(file);
    TranscriptLines::ObjectParser parser;
    auto result = LineSource::read(
        AgentSource::gemini, parserVersion, file, checkpoint,
        [&](std::string_view line, int64_t) {
            if (JsonFields::isBlank(line)) {
                return LineSource::LineKind::blank;
            }
            auto record = parser.parse(line);
            if (!record) {
                return LineSource::LineKind::malformed;
            }
            if (auto set = TranscriptLines::objectMember(*record, "$set")) {
                if (auto id = TranscriptLines::stringMember(*set, "sessionId")) {
                    facts.sessionID = *id;
                }
                return LineSource::LineKind::noUsage;
            }
            // A rewind hides later messages from the conversation, but they were paid for:
            // nothing already counted is taken back.
            if (TranscriptLines::member(*record, "$rewindTo")) {
                return LineSource::LineKind::noUsage;
            }
            if (!TranscriptLines::member(*record, "type")) {
                if (auto id = TranscriptLines::stringMember(*record, "sessionId")) {
                    facts.sessionID = *id;  // the metadata line
                }
                return LineSource::LineKind::noUsage;
            }
            switch (readMessage(*record, facts, sink)) {
                case MessageRead::usage:
                    return LineSource::LineKind::usage;
                case MessageRead::noUsage:
                    return LineSource::LineKind::noUsage;
                case MessageRead::unreadable:
                    break;
            }
            return LineSource::LineKind::unreadableUsage;
        },
        {.context = &context, .state = [&] {
             return TranscriptLines::contextWith(state, "sessionId", facts.sessionID);
         }});
    if (result) {
        result->checkpoint.parserContext =
            TranscriptLines::contextWith(state, "sessionId", facts.sessionID);
    }
    return result;
}

}  // namespace

std::vector<std::filesystem::path> discover(const std::filesystem::path& root,
                                            std::vector<FileError>* errors) {
    DiscoveryOptions options;
    options.errors = errors;
    options.maxDepth = 6;
    options.accept = [](const std::filesystem::path& file) {
        if (!isUnderChats(file)) {
            return false;
        }
        if (file.extension() == ".jsonl") {
            return true;
        }
        std::error_code ec;
        return isLegacy(file) && file.filename().string().starts_with("session-") &&
               !std::filesystem::exists(jsonlTwin(file), ec);
    };
    return discoverFiles(root / "tmp", options);
}

std::expected<IngestResult, FileError> ingest(const SourceReadContext& context) {
    if (isLegacy(context.file)) {
        return ingestLegacy(context.file, context.sink);
    }
    return ingestLines(context);
}

SourceReader reader() {
    // Both shapes run as JSON lines: a legacy file's checkpoint holds no offset, so every
    // change reads it whole again, while the large append-only files resume where they were.
    return {SourceReaderKind::jsonLines, parserVersion, discover, ingest};
}

}  // namespace kestrel::GeminiReader
