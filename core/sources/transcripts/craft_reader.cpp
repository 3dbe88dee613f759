#include "core/sources/transcripts/craft_reader.hpp"

#include <cmath>
#include <nlohmann/json.hpp>
#include <string>

#include "core/model/event_id.hpp"
#include "core/sources/agent_roots.hpp"
#include "core/sources/event_draft.hpp"
#include "core/sources/file_discovery.hpp"
#include "core/sources/json_fields.hpp"
#include "core/sources/line_source.hpp"
#include "core/sources/pi_session_format.hpp"
#include "core/sources/utf8.hpp"

namespace kestrel::CraftReader {

namespace {

using LineSource::LineKind;

// Craft's config.json is a short settings file; anything larger is not one.
constexpr std::uintmax_t kConfigMaxBytes = 1024 * 1024;

bool isPiTranscript(const std::filesystem::path& p) {
    return p.extension() == ".jsonl" && p.parent_path().filename() == ".pi-sessions";
}

bool isSessionFile(const std::filesystem::path& p) {
    return p.filename() == "session.jsonl" &&
           p.parent_path().parent_path().filename() == "sessions";
}

// The session has per-request data of the pi backend beside its header.
bool hasPiTranscripts(const std::filesystem::path& sessionDir) {
    std::error_code ec;
    for (std::filesystem::directory_iterator it(sessionDir / ".pi-sessions", ec), end;
         !ec && it != end; it.increment(ec)) {
        if (it->path().extension() == ".jsonl") {
            return true;
        }
    }
    return false;
}

// A count from the header; absent for a missing or null field, false for anything unreadable.
bool headerCount(const nlohmann::json& usage, const char* key, int64_t& out) {
    const auto it = usage.find(key);
    if (it == usage.end() || it->is_null()) {
        return true;
    }
    if (!it->is_number()) {
        return false;
    }
    const double value = it->get<double>();
    if (!(value >= 0) || value > static_cast<double>(JsonFields::kMaxTokenCount)) {
        return false;
    }
    out = static_cast<int64_t>(std::llround(value));
    return true;
}

std::string headerString(const nlohmann::json& header, const char* key) {
    const auto it = header.find(key);
    return it != header.end() && it->is_string() ? it->get<std::string>() : std::string();
}

// The header line: one estimate for the whole session, or nothing when per-request data exists.
LineKind readHeader(std::string_view line, const std::filesystem::path& file,
                    const SourceEventSink& sink) {
    const auto header = nlohmann::json::parse(utf8::replaceInvalid(line), nullptr, false);
    if (!header.is_object()) {
        return LineKind::malformed;
    }
    const auto usageIt = header.find("tokenUsage");
    if (usageIt == header.end() || usageIt->is_null()) {
        return LineKind::noUsage;
    }
    if (!usageIt->is_object()) {
        return LineKind::unreadableUsage;
    }
    EventDraft d;
    if (!headerCount(*usageIt, "inputTokens", d.input) ||
        !headerCount(*usageIt, "outputTokens", d.output) ||
        !headerCount(*usageIt, "cacheReadTokens", d.cachedInput) ||
        !headerCount(*usageIt, "cacheCreationTokens", d.cacheWrite)) {
        return LineKind::unreadableUsage;
    }
    std::optional<double> cost;
    if (const auto it = usageIt->find("costUsd"); it != usageIt->end() && !it->is_null()) {
        if (!it->is_number() || it->get<double>() < 0) {
            return LineKind::unreadableUsage;
        }
        cost = it->get<double>();
    }
    // The Claude backend's requests are in its own transcripts (an SDK session id names them),
    // the pi backend's in .pi-sessions: either is exact, and the header would count it again.
    if (!headerString(header, "sdkSessionId").empty() || hasPiTranscripts(file.parent_path())) {
        return LineKind::usage;
    }
    if (d.input == 0 && d.output == 0 && d.cachedInput == 0 && d.cacheWrite == 0) {
        return LineKind::usage;
    }
    std::string session = headerString(header, "id");
    if (session.empty()) {
        session = file.parent_path().filename().string();
    }
    const std::string model = headerString(header, "model");
    d.source = AgentSource::craft;
    d.model = model.empty() ? "unknown" : model;
    // One id per session: the header is rewritten as the session goes on, and the latest
    // reading replaces the earlier one.
    d.id = EventID::local(AgentSource::craft, session, "session-header", d.model);
    d.sessionID = session;
    d.occurredAt = PiSessionFormat::modificationTime(file);
    d.timeQuality = ObservationTimeQuality::inferred;
    d.precision = UsagePrecision::estimateOnly;
    d.granularity = UsageGranularity::sessionAggregate;
    nlohmann::json extras{{"basis", "session header tokenUsage"}};
    if (cost && *cost > 0) {
        extras["costUSD"] = *cost;
    }
    d.rawExtras = extras.dump();
    sink(buildEvent(d));
    return LineKind::usage;
}

}  // namespace

std::vector<std::filesystem::path> discover(const std::filesystem::path& root,
                                            std::vector<FileError>* errors) {
    DiscoveryOptions options;
    options.errors = errors;
    options.accept = [](const std::filesystem::path& p) {
        return isPiTranscript(p) || isSessionFile(p);
    };
    return discoverFiles(root, options);
}

std::expected<IngestResult, FileError> ingest(const SourceReadContext& context) {
    const auto& file = context.file;
    if (isPiTranscript(file)) {
        return PiSessionFormat::ingestLines(AgentSource::craft, parserVersion, context);
    }
    // Only the header matters; the messages after it carry no usage. A header rewritten in
    // place changes the first bytes the checkpoint fingerprints, so it is read again.
    return LineSource::read(AgentSource::craft, parserVersion, file, context.checkpoint,
                            [&](std::string_view line, int64_t offset) {
                                if (offset != 0) {
                                    return LineKind::noUsage;
                                }
                                if (JsonFields::isBlank(line)) {
                                    return LineKind::blank;
                                }
                                return readHeader(line, file, context.sink);
                            },
                            {.context = &context});
}

SourceReader reader() {
    return {SourceReaderKind::jsonLines, parserVersion, discover, ingest};
}

std::vector<std::filesystem::path> workspaceRoots(const std::filesystem::path& configDir,
                                                  const std::filesystem::path& home) {
    std::vector<std::filesystem::path> out;
    const auto text = LineSource::readSmallFile(configDir / "config.json", kConfigMaxBytes);
    if (!text) {
        return out;
    }
    const auto config = nlohmann::json::parse(*text, nullptr, /*allow_exceptions=*/false);
    if (!config.is_object()) {
        return out;
    }
    const auto workspaces = config.find("workspaces");
    if (workspaces == config.end() || !workspaces->is_array()) {
        return out;
    }
    for (const auto& workspace : *workspaces) {
        if (!workspace.is_object()) {
            continue;
        }
        const auto rootPath = workspace.find("rootPath");
        if (rootPath == workspace.end() || !rootPath->is_string()) {
            continue;
        }
        const auto& value = rootPath->get_ref<const std::string&>();
        if (!value.empty()) {
            out.push_back(resolveAgainstHome(value, home));
        }
    }
    return out;
}

}  // namespace kestrel::CraftReader
