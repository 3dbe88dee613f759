#include "core/sources/stores/goose_reader.hpp"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <nlohmann/json.hpp>

#include "core/model/timestamp.hpp"
#include "core/sources/cumulative_meter.hpp"
#include "core/sources/file_discovery.hpp"
#include "core/sources/readonly_sqlite.hpp"

namespace kestrel::GooseReader {
namespace {

constexpr AgentSource kSource = AgentSource::goose;
// The metadata line of a legacy session file is small; a longer first line is not one.
constexpr std::size_t kMaxMetadataBytes = std::size_t{4} << 20;

std::string lower(std::string s) {
    std::ranges::transform(s, s.begin(),
                           [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return s;
}

std::string modelFromConfig(const std::optional<std::string>& configJSON) {
    if (!configJSON) {
        return {};
    }
    const auto config = nlohmann::json::parse(*configJSON, nullptr, false);
    return config.is_object() ? CumulativeMeter::jsonText(config, "model_name") : std::string();
}

// goose's provider is the route (anthropic, aws_bedrock, openrouter, ...), not always the model's
// vendor: it is kept for audit, and the vendor comes from the model. Anthropic and Bedrock report
// input with the cache reads and writes inside and goose keeps no split: the figure stays input,
// and the event says so.
std::optional<std::string> extrasFor(const std::string& providerName, const std::string& model) {
    nlohmann::json extras = nlohmann::json::object();
    if (!providerName.empty()) {
        extras["providerName"] = providerName;
    }
    const auto provider = lower(providerName);
    if (provider.find("anthropic") != std::string::npos ||
        provider.find("bedrock") != std::string::npos ||
        (provider.empty() && lower(model).find("claude") != std::string::npos)) {
        extras["inputIncludesCache"] = true;
        extras["cacheSplit"] = "unknown";
    }
    if (extras.empty()) {
        return std::nullopt;
    }
    return extras.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

struct Totals {
    std::optional<int64_t> total, input, output;
};

// Fills a reading's counters; false when no counter is set at all.
bool fill(CumulativeMeter::Reading& r, const Totals& t) {
    if (!t.total && !t.input && !t.output) {
        return false;
    }
    r.totals.input = t.input.value_or(0);
    r.totals.output = t.output.value_or(0);
    r.hasProviderTotal = t.total.has_value();
    r.totals.providerTotal = t.total.value_or(0);
    return true;
}

IngestResult readDatabase(const std::filesystem::path& file,
                          const std::optional<SourceCheckpoint>& checkpoint,
                          const SourceEventSink& sink) {
    auto state = SQLiteCumulativeContext::decode(checkpoint ? checkpoint->parserContext : "");
    IngestResult result;
    ReadonlySQLite db(file);
    const auto present = db.columns("sessions");
    const bool shaped = present.contains("id") && present.contains("accumulated_total_tokens") &&
                        present.contains("accumulated_input_tokens") &&
                        present.contains("accumulated_output_tokens");
    if (!shaped) {
        result.formatChanged = true;
        result.checkpoint = CumulativeMeter::checkpoint(kSource, parserVersion, file, state);
        return result;
    }
    const double fallbackTime = CumulativeMeter::storeTime(file);
    const std::string sql =
        "SELECT id, " + db.columnOrNull(present, "model_config_json") + ", rowid AS row_id, " +
        db.columnOrNull(present, "working_dir") + ", " + db.columnOrNull(present, "updated_at") +
        ", " + db.columnOrNull(present, "provider_name") +
        ", accumulated_total_tokens, accumulated_input_tokens, accumulated_output_tokens "
        "FROM sessions ORDER BY rowid";
    db.forEach(sql, {}, [&](const SQLiteRow& row) {
        ++result.stats.lines;
        const std::string id = CumulativeMeter::cellText(row["id"]);
        bool ok = !id.empty();
        Totals t;
        t.total = CumulativeMeter::cellCount(row["accumulated_total_tokens"], ok);
        t.input = CumulativeMeter::cellCount(row["accumulated_input_tokens"], ok);
        t.output = CumulativeMeter::cellCount(row["accumulated_output_tokens"], ok);
        if (!ok) {
            ++result.stats.malformed;
            return true;
        }
        CumulativeMeter::Reading r;
        if (!fill(r, t)) {
            ++result.stats.withoutUsage;
            return true;
        }
        r.key = "session:" + id;
        r.sequence = row["row_id"].integer().value_or(0);
        r.sessionID = id;
        r.model = modelFromConfig(row["model_config_json"].text());
        r.cwd = row["working_dir"].text().value_or("");
        if (const auto updated = row["updated_at"].text()) {
            r.updatedAt = parseISO8601(*updated);
        }
        r.rawExtras = extrasFor(row["provider_name"].text().value_or(""), r.model);
        CumulativeMeter::meter(kSource, state, r, fallbackTime, sink);
        return true;
    });
    result.checkpoint = CumulativeMeter::checkpoint(kSource, parserVersion, file, state);
    return result;
}

// The first line of a legacy session file, or an error; absent when it is longer than the
// metadata limit.
std::expected<std::optional<std::string>, FileError> firstLine(const std::filesystem::path& file) {
    const int fd = ::open(file.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) {
        return std::unexpected(fileErrorFromErrno(file.string(), "open"));
    }
    struct Close {
        int fd;
        ~Close() { ::close(fd); }
    } closer{fd};
    std::string text;
    char buffer[65536];
    while (text.size() <= kMaxMetadataBytes) {
        const ssize_t n = ::read(fd, buffer, sizeof buffer);
        if (n < 0) {
            if (errno == EINTR) {
                continue;
            }
            return std::unexpected(fileErrorFromErrno(file.string(), "read"));
        }
        if (n == 0) {
            return std::optional<std::string>(text);  // the whole file is one line
        }
        text.append(buffer, static_cast<size_t>(n));
        if (const auto newline = text.find('\n'); newline != std::string::npos) {
            text.resize(newline);
            return std::optional<std::string>(text);
        }
    }
    return std::optional<std::string>();
}

// Whether goose's database already holds `sessionID` (it imported the file).
bool inDatabase(const std::filesystem::path& sessionsFolder, const std::string& sessionID) {
    const auto database = sessionsFolder / "sessions.db";
    std::error_code ec;
    if (!std::filesystem::is_regular_file(database, ec)) {
        return false;
    }
    ReadonlySQLite db(database);
    if (!db.hasTable("sessions")) {
        return false;
    }
    bool found = false;
    db.forEach("SELECT 1 AS present FROM sessions WHERE id = ? LIMIT 1", {sessionID},
               [&](const SQLiteRow&) {
                   found = true;
                   return false;
               });
    return found;
}

std::expected<IngestResult, FileError> readLegacyFile(
    const std::filesystem::path& file, const std::optional<SourceCheckpoint>& checkpoint,
    const SourceEventSink& sink) {
    auto state = SQLiteCumulativeContext::decode(checkpoint ? checkpoint->parserContext : "");
    IngestResult result;
    const auto line = firstLine(file);
    if (!line) {
        return std::unexpected(line.error());
    }
    result.checkpoint = CumulativeMeter::checkpoint(kSource, parserVersion, file, state);
    if (!*line || (*line)->empty()) {
        ++result.stats.malformed;
        result.formatChanged = !line->has_value();  // a first line too long to be metadata
        return result;
    }
    result.stats.lines = 1;
    result.stats.bytes = static_cast<int64_t>((*line)->size());
    const auto meta = nlohmann::json::parse(**line, nullptr, false);
    if (!meta.is_object()) {
        ++result.stats.malformed;
        result.formatChanged = true;
        return result;
    }
    bool ok = true;
    Totals t;
    t.total = CumulativeMeter::jsonCount(meta, "accumulated_total_tokens", ok);
    t.input = CumulativeMeter::jsonCount(meta, "accumulated_input_tokens", ok);
    t.output = CumulativeMeter::jsonCount(meta, "accumulated_output_tokens", ok);
    if (!ok) {
        ++result.stats.malformed;
        return result;
    }
    CumulativeMeter::Reading r;
    if (!fill(r, t)) {
        ++result.stats.withoutUsage;
        return result;
    }
    const std::string fromMeta = CumulativeMeter::jsonText(meta, "id");
    r.sessionID = fromMeta.empty() ? file.stem().string() : fromMeta;
    // goose imported this file: the database row is the session's record.
    if (inDatabase(file.parent_path(), r.sessionID)) {
        ++result.stats.withoutUsage;
        return result;
    }
    r.key = "session:" + r.sessionID;
    r.cwd = CumulativeMeter::jsonText(meta, "working_dir");
    if (const auto config = meta.find("model_config");
        config != meta.end() && config->is_object()) {
        r.model = CumulativeMeter::jsonText(*config, "model_name");
    }
    r.rawExtras = extrasFor(CumulativeMeter::jsonText(meta, "provider_name"), r.model);
    CumulativeMeter::meter(kSource, state, r, CumulativeMeter::storeTime(file), sink);
    result.checkpoint.parserContext = state.encode();
    return result;
}

}  // namespace

std::vector<std::filesystem::path> discover(const std::filesystem::path& root,
                                            std::vector<FileError>* errors) {
    std::vector<std::filesystem::path> found;
    // The data folder itself, or a GOOSE_PATH_ROOT, under which goose keeps its data in "data".
    for (const auto& sessions : {root / "sessions", root / "data" / "sessions"}) {
        DiscoveryOptions options;
        options.errors = errors;
        options.accept = [&](const std::filesystem::path& p) {
            return p.parent_path() == sessions &&
                   (p.filename() == "sessions.db" || p.extension() == ".jsonl");
        };
        auto files = discoverFiles(sessions, options);
        found.insert(found.end(), files.begin(), files.end());
    }
    return found;
}

std::expected<IngestResult, FileError> ingest(const SourceReadContext& context) {
    const auto& file = context.file;
    // A legacy file is looked up in the database too, which may refuse as well.
    return guardStoreRead(file, [&]() -> std::expected<IngestResult, FileError> {
        if (file.extension() == ".jsonl") {
            return readLegacyFile(file, context.checkpoint, context.sink);
        }
        return readDatabase(file, context.checkpoint, context.sink);
    });
}

SourceReader reader() {
    return {SourceReaderKind::store, parserVersion, discover, ingest};
}

}  // namespace kestrel::GooseReader
