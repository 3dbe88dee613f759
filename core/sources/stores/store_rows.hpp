#pragma once
// Pieces shared by the readers of agents' per-message databases: tolerant reads of the JSON and
// the times held in cells, the checkpoint of a store and its typed row cursor.

#include <cstdint>
#include <filesystem>
#include <initializer_list>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "core/model/agent_source.hpp"
#include "core/model/source_checkpoint.hpp"
#include "core/sources/line_source.hpp"
#include "core/sources/readonly_sqlite.hpp"

namespace kestrel::StoreRows {

// No single request comes near a trillion tokens; a larger count is damage, not usage.
inline constexpr int64_t kMaxTokenCount = 1'000'000'000'000;

enum class CountRead {
    absent,   // none of the keys holds a value (null counts as absent)
    count,    // a whole number in [0, kMaxTokenCount]
    invalid,  // a value of the wrong type or out of range: the record is malformed
};

// The first of `keys` present in `object` (and not null), read as a token count into `out`.
CountRead readCount(const nlohmann::json& object, std::initializer_list<std::string_view> keys,
                    int64_t& out);

// A token count held in a cell: NULL is absent; an integer (or whole real, or text holding one)
// in [0, kMaxTokenCount] is a count; anything else is invalid.
CountRead cellCount(const SQLiteCell& cell, int64_t& out);

// A cell as identifier text: text as is, an integer in decimal; empty for anything else.
std::string cellText(const SQLiteCell& cell);

// The first of `keys` holding a non-empty string; empty when none does.
std::string stringField(const nlohmann::json& object, std::initializer_list<std::string_view> keys);

// A JSON object held in a text or blob cell; absent for anything else (not JSON, an array, ...).
std::optional<nlohmann::json> objectIn(const SQLiteCell& cell);
std::optional<nlohmann::json> objectIn(std::string_view text);

// Seconds since the epoch from a number (seconds, or milliseconds when it is too large to be
// seconds) or from text (such a number, or an ISO-8601 date-time). Absent for anything else and
// for times before 2000 or after 2200, which no agent record carries.
std::optional<double> epochSeconds(const SQLiteCell& cell);
std::optional<double> epochSeconds(const nlohmann::json& value);

// `root / relative` when it is a regular file: the one database a store reader reads below a
// root.
std::vector<std::filesystem::path> databaseAt(const std::filesystem::path& root,
                                              const std::filesystem::path& relative);

// The shared file-time helper, under the name this family's readers use.
using LineSource::modificationTime;

// The file a connection reads (its main database).
std::filesystem::path databasePath(const ReadonlySQLite& db);

// The checkpoint a read of `database` starts from: source, identity and parser version, with the
// previous checkpoint's cursor and parser context carried over when that checkpoint was written
// by the same parser version for the same store.
SourceCheckpoint startCheckpoint(AgentSource source, int64_t parserVersion,
                                 const std::filesystem::path& database,
                                 const std::optional<SourceCheckpoint>& previous);

// A cursor over one or more columns of the last row consumed, kept as JSON text in
// `logicalHighWater` with each value's type, so that it compares against the column as the
// database stores it (SQLite orders every number before every text).
std::string encodeCursor(const std::vector<SQLiteCell>& key);
// Absent for empty or foreign text, or a cursor of another width.
std::optional<std::vector<ReadonlySQLite::Binding>> decodeCursor(
    const std::optional<std::string>& text, std::size_t width);

// Compares two cells in SQLite's order (NULL < numbers < text < blobs): -1, 0 or 1.
int compareCells(const SQLiteCell& a, const SQLiteCell& b);

// The integer row key kept as plain decimal text; absent when there is none or it is not one.
std::optional<int64_t> rowCursor(const std::optional<std::string>& text);

}  // namespace kestrel::StoreRows
