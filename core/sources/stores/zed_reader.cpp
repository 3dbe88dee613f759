#include "core/sources/stores/zed_reader.hpp"

#include <nlohmann/json.hpp>

#include "core/model/timestamp.hpp"
#include "core/sources/cumulative_meter.hpp"
#include "core/sources/readonly_sqlite.hpp"
#include "core/sources/zstd_reader.hpp"

namespace kestrel::ZedReader {
namespace {

constexpr AgentSource kSource = AgentSource::zed;

// The thread's JSON text, or why there is none.
std::expected<std::string, const char*> threadText(const SQLiteRow& row, std::size_t limit) {
    const auto type = row["data_type"].text().value_or("");
    const auto data = row["data"].data().value_or(std::vector<unsigned char>{});
    if (type == "json") {
        if (data.size() > limit) {
            return std::unexpected(kJSONTooLarge);
        }
        return std::string(data.begin(), data.end());
    }
    if (type == "zstd") {
        auto text = Zstd::decompress(data, limit);
        if (!text) {
            return std::unexpected(
                text.error() == Zstd::DecompressFailure::tooLarge ? kJSONTooLarge : kDamagedZstd);
        }
        return std::move(*text);
    }
    return std::unexpected(kUnsupportedDataType);
}

// The first folder of the thread's workspace: folder_paths holds one path per line.
std::string firstFolder(const std::optional<std::string>& folders) {
    if (!folders) {
        return {};
    }
    const auto end = folders->find('\n');
    std::string first = folders->substr(0, end);
    return first.starts_with('/') ? first : std::string();
}

}  // namespace

std::vector<std::filesystem::path> discover(const std::filesystem::path& root,
                                            std::vector<FileError>*) {
    const auto database = root / "threads.db";
    std::error_code ec;
    if (std::filesystem::is_regular_file(database, ec)) {
        return {database};
    }
    return {};
}

namespace {

Outcome readThreads(const SourceReadContext& context, const Options& options) {
    const auto& database = context.file;
    const auto& checkpoint = context.checkpoint;
    auto state = SQLiteCumulativeContext::decode(checkpoint ? checkpoint->parserContext : "");
    Outcome out;
    auto& result = out.result;
    ReadonlySQLite db(database);
    const auto present = db.columns("threads");
    if (!present.contains("id") || !present.contains("data_type") || !present.contains("data")) {
        result.formatChanged = true;
        result.checkpoint = CumulativeMeter::checkpoint(kSource, parserVersion, database, state);
        return out;
    }
    const double fallbackTime = CumulativeMeter::storeTime(database);
    const std::string sql = "SELECT rowid AS row_id, id, " + db.columnOrNull(present, "summary") +
                            ", " + db.columnOrNull(present, "updated_at") + ", " +
                            db.columnOrNull(present, "folder_paths") + ", " +
                            db.columnOrNull(present, "parent_id") +
                            ", data_type, data FROM threads ORDER BY rowid";
    db.forEach(sql, {}, [&](const SQLiteRow& row) {
        ++result.stats.lines;
        const std::string id = CumulativeMeter::cellText(row["id"]);
        const auto skip = [&](const char* reason) {
            ++result.stats.malformed;
            out.skipped.push_back(std::string(reason) + ": " + id);
            return true;
        };
        auto text = threadText(row, options.maxThreadJSONBytes);
        if (!text) {
            return skip(text.error());
        }
        result.stats.bytes += static_cast<int64_t>(text->size());
        const auto thread = nlohmann::json::parse(*text, nullptr, false);
        if (!thread.is_object()) {
            return skip(kNotThreadJSON);
        }
        // Imported threads carry zeroed usage of a session billed elsewhere.
        if (const auto imported = thread.find("imported");
            imported != thread.end() && imported->is_boolean() && imported->get<bool>()) {
            ++result.stats.withoutUsage;
            return true;
        }
        const auto usage = thread.find("cumulative_token_usage");
        if (usage == thread.end() || usage->is_null()) {
            // Older threads hold only per-request context sizes, which are not billed totals.
            ++result.stats.withoutUsage;
            return true;
        }
        if (!usage->is_object()) {
            return skip(kUnreadableUsage);
        }
        bool ok = !id.empty();
        CumulativeMeter::Reading r;
        r.totals.input = CumulativeMeter::jsonCount(*usage, "input_tokens", ok).value_or(0);
        r.totals.output = CumulativeMeter::jsonCount(*usage, "output_tokens", ok).value_or(0);
        r.totals.cacheCreate =
            CumulativeMeter::jsonCount(*usage, "cache_creation_input_tokens", ok).value_or(0);
        r.totals.cachedInput =
            CumulativeMeter::jsonCount(*usage, "cache_read_input_tokens", ok).value_or(0);
        if (!ok) {
            return skip(kUnreadableUsage);
        }
        r.key = "thread:" + id;
        r.sequence = row["row_id"].integer().value_or(0);
        r.sessionID = id;
        nlohmann::json extras = nlohmann::json::object();
        if (const auto model = thread.find("model"); model != thread.end() && model->is_object()) {
            r.model = CumulativeMeter::jsonText(*model, "model");
            // Zed's provider is the route (zed.dev, copilot_chat, ...): kept for audit, while
            // the vendor comes from the model.
            if (auto provider = CumulativeMeter::jsonText(*model, "provider"); !provider.empty()) {
                extras["zedProvider"] = provider;
            }
        }
        auto updated = row["updated_at"].text();
        if (!updated) {
            updated = CumulativeMeter::jsonText(thread, "updated_at");
        }
        r.updatedAt = parseISO8601(*updated);
        r.cwd = firstFolder(row["folder_paths"].text());
        if (const auto parent = row["parent_id"].text(); parent && !parent->empty()) {
            extras["parentThread"] = *parent;
        }
        if (!extras.empty()) {
            r.rawExtras = extras.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
        }
        CumulativeMeter::meter(kSource, state, r, fallbackTime, context.sink);
        return true;
    });
    result.checkpoint = CumulativeMeter::checkpoint(kSource, parserVersion, database, state);
    return out;
}

}  // namespace

std::expected<Outcome, FileError> read(const SourceReadContext& context, const Options& options) {
    try {
        return readThreads(context, options);
    } catch (const SQLiteUsageError& error) {
        return std::unexpected(storeError(context.file, error));
    }
}

std::expected<IngestResult, FileError> ingest(const SourceReadContext& context) {
    auto out = read(context);
    if (!out) {
        return std::unexpected(std::move(out.error()));
    }
    return std::move(out->result);
}

SourceReader reader() {
    return {SourceReaderKind::store, parserVersion, discover, ingest};
}

}  // namespace kestrel::ZedReader
