#include "core/sources/transcripts/droid_reader.hpp"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <nlohmann/json.hpp>

#include "core/sources/cumulative_meter.hpp"
#include "core/sources/file_discovery.hpp"
#include "core/sources/line_source.hpp"

namespace kestrel::DroidReader {
namespace {

constexpr AgentSource kSource = AgentSource::droid;
constexpr std::string_view kSuffix = ".settings.json";
// The session_start line opens a transcript; it is short, but the first read is bounded anyway.
constexpr std::size_t kMaxFirstLineBytes = std::size_t{1} << 20;

std::string sessionIDOf(const std::filesystem::path& settings) {
    const auto name = settings.filename().string();
    return name.substr(0, name.size() - kSuffix.size());
}

// The first line of the sibling transcript, when it can be read cheaply.
std::string transcriptHead(const std::filesystem::path& transcript) {
    const int fd = ::open(transcript.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) {
        return {};
    }
    std::string text(kMaxFirstLineBytes, '\0');
    ssize_t n = 0;
    do {
        n = ::read(fd, text.data(), text.size());
    } while (n < 0 && errno == EINTR);
    ::close(fd);
    text.resize(n > 0 ? static_cast<size_t>(n) : 0);
    const auto newline = text.find('\n');
    return newline == std::string::npos ? std::string() : text.substr(0, newline);
}

// The session's working directory: from its transcript's session_start line, else decoded from
// the folder name ("-home-u-app" for /home/u/app; a dash inside a folder name cannot be told
// from a separator, so this is a best guess).
std::string cwdOf(const std::filesystem::path& settings, const std::string& sessionID) {
    const auto head = transcriptHead(settings.parent_path() / (sessionID + ".jsonl"));
    if (!head.empty()) {
        const auto start = nlohmann::json::parse(head, nullptr, false);
        if (start.is_object() && CumulativeMeter::jsonText(start, "type") == "session_start") {
            if (auto cwd = CumulativeMeter::jsonText(start, "cwd"); !cwd.empty()) {
                return cwd;
            }
        }
    }
    std::string folder = settings.parent_path().filename().string();
    if (folder.size() < 2 || !folder.starts_with('-')) {
        return {};  // the legacy flat layout names no folder
    }
    std::ranges::replace(folder, '-', '/');
    return folder;
}

}  // namespace

std::vector<std::filesystem::path> discover(const std::filesystem::path& root,
                                            std::vector<FileError>* errors) {
    return discoverFilesWithSuffix(root / "sessions", kSuffix, errors);
}

std::expected<IngestResult, FileError> ingest(const SourceReadContext& context) {
    const auto& settings = context.file;
    const auto& checkpoint = context.checkpoint;
    auto state = SQLiteCumulativeContext::decode(checkpoint ? checkpoint->parserContext : "");
    const auto text = LineSource::readSmallFile(settings, kMaxSettingsBytes);
    if (!text) {
        return std::unexpected(text.error());
    }
    IngestResult result;
    result.checkpoint = CumulativeMeter::checkpoint(kSource, parserVersion, settings, state);
    result.stats.bytes = static_cast<int64_t>(text->size());
    result.stats.lines = 1;
    const auto doc = nlohmann::json::parse(*text, nullptr, false);
    if (!doc.is_object()) {
        // Caught mid-rewrite, or not a settings document at all; the next change reads it again.
        ++result.stats.malformed;
        return result;
    }
    const auto usage = doc.find("tokenUsage");
    if (usage == doc.end() || usage->is_null()) {
        ++result.stats.withoutUsage;
        return result;
    }
    bool ok = usage->is_object();
    CumulativeMeter::Reading r;
    if (ok) {
        // How droid's counters overlap is not known: each is taken as its own bucket.
        r.totals.input = CumulativeMeter::jsonCount(*usage, "inputTokens", ok).value_or(0);
        r.totals.output = CumulativeMeter::jsonCount(*usage, "outputTokens", ok).value_or(0);
        r.totals.cacheCreate =
            CumulativeMeter::jsonCount(*usage, "cacheCreationTokens", ok).value_or(0);
        r.totals.cachedInput =
            CumulativeMeter::jsonCount(*usage, "cacheReadTokens", ok).value_or(0);
        r.totals.reasoning = CumulativeMeter::jsonCount(*usage, "thinkingTokens", ok).value_or(0);
    }
    if (!ok) {
        ++result.stats.malformed;
        result.formatChanged = true;
        return result;
    }
    r.sessionID = sessionIDOf(settings);
    r.key = "session:" + r.sessionID;
    const auto previous = state.entries.find(r.key);
    r.sequence = previous == state.entries.end() ? 1 : previous->second.sequence + 1;
    r.model = CumulativeMeter::jsonText(doc, "model");
    r.cwd = cwdOf(settings, r.sessionID);
    // The document holds nothing but the totals and is rewritten when they grow, so its own
    // modification time is when the new usage was written.
    r.updatedAt = CumulativeMeter::storeTime(settings);
    CumulativeMeter::meter(kSource, state, r, *r.updatedAt, context.sink);
    result.checkpoint.parserContext = state.encode();
    return result;
}

SourceReader reader() {
    return {SourceReaderKind::store, parserVersion, discover, ingest};
}

}  // namespace kestrel::DroidReader
