#include "core/sources/transcripts/grok_reader.hpp"

#include <array>
#include <map>

#include "core/model/event_id.hpp"
#include "core/model/timestamp.hpp"
#include "core/sources/event_draft.hpp"
#include "core/sources/file_discovery.hpp"
#include "core/sources/json_fields.hpp"
#include "core/sources/jsonl.hpp"
#include "core/sources/line_source.hpp"
#include "core/sources/transcripts/transcript_lines.hpp"

namespace kestrel::GrokReader {
namespace {

namespace dom = simdjson::dom;
using LineSource::LineKind;
using TranscriptLines::CountRead;

constexpr std::string_view kUnknownModel = "grok-unknown";
constexpr std::uintmax_t kMaxSummaryBytes = std::uintmax_t{4} << 20;

bool isUsageObject(dom::object o) {
    return TranscriptLines::member(o, "inputTokens") && TranscriptLines::member(o, "outputTokens");
}

std::optional<dom::object> findUsage(dom::element value, int depth);

// The first object with the usage keys: an envelope carries one turn's usage.
std::optional<dom::object> findUsageIn(dom::object object, int depth) {
    if (isUsageObject(object)) {
        return object;
    }
    for (auto [key, child] : object) {
        if (auto found = findUsage(child, depth + 1)) {
            return found;
        }
    }
    return std::nullopt;
}

std::optional<dom::object> findUsage(dom::element value, int depth) {
    if (depth > kMaxUsageDepth) {
        return std::nullopt;
    }
    dom::object object;
    if (!value.get_object().get(object)) {
        return findUsageIn(object, depth);
    }
    dom::array array;
    if (!value.get_array().get(array)) {
        for (auto child : array) {
            if (auto found = findUsage(child, depth + 1)) {
                return found;
            }
        }
    }
    return std::nullopt;
}

// The prompt the turn answers, under any of the spellings seen; absent when none.
std::optional<std::string> findPromptID(dom::object object, int depth) {
    if (depth > kMaxUsageDepth) {
        return std::nullopt;
    }
    for (auto key : {"prompt_index", "promptIndex", "promptId", "prompt_id"}) {
        if (auto v = TranscriptLines::member(object, key)) {
            int64_t index = 0;
            if (JsonFields::readCount(*v, index)) {
                return std::to_string(index);
            }
            std::string text;
            if (JsonFields::readString(*v, text) && !text.empty()) {
                return text;
            }
        }
    }
    for (auto [key, child] : object) {
        dom::object inner;
        if (!child.get_object().get(inner)) {
            if (auto found = findPromptID(inner, depth + 1)) {
                return found;
            }
        }
    }
    return std::nullopt;
}

// The session's models: per prompt from chat_history.jsonl, else the last one named there or
// in summary.json.
struct Models {
    std::map<std::string, std::string> byPrompt;
    std::string fallback;

    const std::string& forPrompt(const std::optional<std::string>& prompt) const {
        if (prompt) {
            if (auto it = byPrompt.find(*prompt); it != byPrompt.end()) {
                return it->second;
            }
        }
        return fallback;
    }
};

Models modelsOf(const std::filesystem::path& sessionDir, const std::string& defaultModel) {
    Models models;
    TranscriptLines::ObjectParser parser;
    (void)JSONL::forEachCompleteLine(
        sessionDir / "chat_history.jsonl", 0, [&](std::string_view line, int64_t) {
            if (!JsonFields::mentions(line, "model_id")) {
                return;
            }
            auto row = parser.parse(line);
            if (!row) {
                return;
            }
            auto model = TranscriptLines::stringMember(*row, "model_id");
            if (!model) {
                return;
            }
            models.fallback = *model;
            if (auto prompt = findPromptID(*row, kMaxUsageDepth)) {
                models.byPrompt[*prompt] = *model;
            }
        });
    if (models.fallback.empty()) {
        if (auto text = LineSource::readSmallFile(sessionDir / "summary.json", kMaxSummaryBytes)) {
            if (auto summary = parser.parse(*text)) {
                models.fallback =
                    TranscriptLines::stringMember(*summary, "model_id")
                        .value_or(TranscriptLines::stringMember(*summary, "modelId").value_or(""));
            }
        }
    }
    if (models.fallback.empty()) {
        models.fallback = defaultModel.empty() ? std::string(kUnknownModel) : defaultModel;
    }
    return models;
}

std::optional<double> envelopeTime(dom::object envelope) {
    for (auto key : {"timestamp", "time", "created_at", "createdAt"}) {
        if (auto v = TranscriptLines::member(envelope, key)) {
            std::string text;
            if (JsonFields::readString(*v, text)) {
                if (auto t = parseISO8601(text)) {
                    return t;
                }
            } else if (auto n = JsonFields::readNumber(*v)) {
                // Milliseconds or seconds since the epoch.
                return *n > 1e11 ? *n / 1000.0 : *n;
            }
        }
    }
    return std::nullopt;
}

}  // namespace

std::string percentDecoded(std::string_view text) {
    auto hex = [](char c) -> int {
        if (c >= '0' && c <= '9')
            return c - '0';
        if (c >= 'a' && c <= 'f')
            return c - 'a' + 10;
        if (c >= 'A' && c <= 'F')
            return c - 'A' + 10;
        return -1;
    };
    std::string out;
    out.reserve(text.size());
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '%' && i + 2 < text.size() && hex(text[i + 1]) >= 0 &&
            hex(text[i + 2]) >= 0) {
            out += static_cast<char>(hex(text[i + 1]) * 16 + hex(text[i + 2]));
            i += 2;
        } else {
            out += text[i];
        }
    }
    return out;
}

std::vector<std::filesystem::path> discover(const std::filesystem::path& root,
                                            std::vector<FileError>* errors) {
    DiscoveryOptions options;
    options.errors = errors;
    options.maxDepth = 4;
    options.accept = [](const std::filesystem::path& file) {
        return file.filename() == "updates.jsonl";
    };
    return discoverFiles(root / "sessions", options);
}

std::expected<IngestResult, FileError> ingest(const SourceReadContext& context) {
    const auto& file = context.file;
    const auto& checkpoint = context.checkpoint;
    const auto& defaultModel = context.defaultModel;
    const auto& sink = context.sink;
    const auto sessionDir = file.parent_path();
    const std::string sessionID = sessionDir.filename().string();
    const std::string cwd = percentDecoded(sessionDir.parent_path().filename().string());
    const Models models = modelsOf(sessionDir, defaultModel);
    const double mtime = TranscriptLines::modificationTime(file);
    int64_t objects = 0, usable = 0;
    TranscriptLines::ObjectParser parser;
    auto result = LineSource::read(
        AgentSource::grok, parserVersion, file, checkpoint,
        [&](std::string_view line, int64_t offset) {
            if (JsonFields::isBlank(line)) {
                return LineKind::blank;
            }
            auto envelope = parser.parse(line);
            if (!envelope) {
                return LineKind::malformed;
            }
            ++objects;
            if (!JsonFields::mentions(line, "inputTokens")) {
                return LineKind::noUsage;
            }
            auto usage = findUsageIn(*envelope, 0);
            if (!usage) {
                return LineKind::noUsage;
            }
            int64_t input = 0, output = 0, total = 0, cacheRead = 0, cacheWrite = 0, thoughts = 0;
            bool hasTotal = false;
            const std::array<std::pair<std::string_view, int64_t*>, 6> fields{{
                {"inputTokens", &input},
                {"outputTokens", &output},
                {"totalTokens", &total},
                {"cachedReadTokens", &cacheRead},
                {"cachedWriteTokens", &cacheWrite},
                {"thoughtTokens", &thoughts},
            }};
            for (const auto& [key, out] : fields) {
                const auto read = TranscriptLines::readCountMember(*usage, key, *out);
                if (read == CountRead::invalid) {
                    return LineKind::unreadableUsage;
                }
                hasTotal = hasTotal || (read == CountRead::present && key == "totalTokens");
            }
            ++usable;
            if (input == 0 && output == 0) {
                return LineKind::usage;  // a turn cancelled before any request
            }
            // Output holds the thoughts when the total says so; a total that counts them
            // beside output means they come on top.
            if (hasTotal && thoughts > 0 && total == input + output + thoughts) {
                output += thoughts;
            }
            const auto prompt = findPromptID(*envelope, 0);
            EventDraft d;
            d.source = AgentSource::grok;
            d.provider = "xai";
            d.model = models.forPrompt(prompt);
            d.id = EventID::grok(sessionID, prompt.value_or("@" + std::to_string(offset)), d.model);
            d.sessionID = sessionID;
            d.cwd = cwd;
            const auto when = envelopeTime(*envelope);
            d.occurredAt = when.value_or(mtime);
            d.timeQuality =
                when ? ObservationTimeQuality::trusted : ObservationTimeQuality::inferred;
            d.input = input;  // includes both cache counts
            d.cachedInput = cacheRead;
            d.cacheWrite = cacheWrite;
            d.output = output;
            d.reasoning = thoughts;
            // A total that disagrees with its parts would make the whole record untrustworthy;
            // the parts are what the buckets are built from.
            if (hasTotal && total == input + output) {
                d.providerTotal = total;
            }
            sink(buildEvent(d));
            return LineKind::usage;
        },
        {.context = &context});
    if (result) {
        const int64_t start = checkpoint && checkpoint->byteOffset ? *checkpoint->byteOffset : 0;
        // A whole file of envelopes none of which carries usage: the usage moved elsewhere.
        result->formatChanged = result->formatChanged || (start == 0 && objects > 0 && usable == 0);
    }
    return result;
}

SourceReader reader() {
    return {SourceReaderKind::jsonLines, parserVersion, discover, ingest};
}

}  // namespace kestrel::GrokReader
