#pragma once
// An agent's own SQLite database, opened so that Kestrel can never change it: read-only,
// query-only, waiting at most 200 ms for a writer. Rows come back as column-name maps of tagged
// cells, since every agent's schema differs and optional columns come and go between versions.

#include <sqlite3.h>

#include <cstdint>
#include <expected>
#include <filesystem>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "core/sources/file_error.hpp"
#include "core/sources/ingest_result.hpp"

namespace kestrel {

struct SQLiteNull {
    bool operator==(const SQLiteNull&) const = default;
};

// One column value as the database holds it.
struct SQLiteCell {
    std::variant<SQLiteNull, int64_t, double, std::string, std::vector<unsigned char>> value;

    bool isNull() const { return std::holds_alternative<SQLiteNull>(value); }
    // An integer, or a real or text that holds a whole number; absent otherwise.
    std::optional<int64_t> integer() const;
    // A number of either kind, or text that parses as one.
    std::optional<double> real() const;
    // Text, or bytes taken as text; absent for numbers and NULL.
    std::optional<std::string> text() const;
    // The bytes of a blob or a text.
    std::optional<std::vector<unsigned char>> data() const;

    bool operator==(const SQLiteCell&) const = default;
};

struct SQLiteRow {
    std::map<std::string, SQLiteCell, std::less<>> values;

    // The cell of `column`; a NULL cell when the row has no such column.
    const SQLiteCell& operator[](std::string_view column) const;
};

// Why a store could not be read. Thrown inside the store readers only: each reader's entry
// point turns it into a FileError (see guardStoreRead), so a scan sees an error value.
class SQLiteUsageError : public std::runtime_error {
  public:
    enum class Kind { open, query };
    // `code`: the primary SQLite result code (SQLITE_BUSY, SQLITE_NOTADB, ...); `detail`: the
    // engine's message.
    SQLiteUsageError(Kind kind, int code, std::string detail, const std::string& message)
        : std::runtime_error(message), kind_(kind), code_(code), detail_(std::move(detail)) {}
    Kind kind() const { return kind_; }
    int code() const { return code_; }
    const std::string& detail() const { return detail_; }

  private:
    Kind kind_;
    int code_;
    std::string detail_;
};

// The FileError of a store reader that met `error` while reading `database`: the operation
// ("open" or "query"), the engine's message and its result code.
FileError storeError(const std::filesystem::path& database, const SQLiteUsageError& error);

// Runs `read` (returning an IngestResult, or an expected one) and returns what it returns, or
// the store's FileError when the database refused.
template <class Read>
std::expected<IngestResult, FileError> guardStoreRead(const std::filesystem::path& database,
                                                      Read&& read) {
    try {
        return read();
    } catch (const SQLiteUsageError& error) {
        return std::unexpected(storeError(database, error));
    }
}

class ReadonlySQLite {
  public:
    static constexpr int kOpenFlags = SQLITE_OPEN_READONLY | SQLITE_OPEN_FULLMUTEX;  // 65537
    static constexpr int kBusyTimeoutMs = 200;

    // Throws SQLiteUsageError(open) with a message beginning "open failed".
    explicit ReadonlySQLite(const std::filesystem::path& path);
    ~ReadonlySQLite();
    ReadonlySQLite(const ReadonlySQLite&) = delete;
    ReadonlySQLite& operator=(const ReadonlySQLite&) = delete;

    sqlite3* handle() const { return db_; }
    void close();

    bool hasTable(std::string_view table);
    // The column names of `table` (empty when it does not exist).
    std::set<std::string, std::less<>> columns(std::string_view table);
    // `column` when the table has it, else "NULL AS <alias>" (alias defaults to the column's
    // last name part): lets one statement serve old and new schemas.
    std::string columnOrNull(const std::set<std::string, std::less<>>& present,
                             std::string_view column, std::string_view qualified = {},
                             std::string_view alias = {}) const;

    using Binding = std::variant<int64_t, double, std::string>;
    // Runs `sql` and hands each row to `onRow` in order; stops early when it returns false.
    // Throws SQLiteUsageError(query) with the engine's message.
    void forEach(std::string_view sql, const std::vector<Binding>& bindings,
                 const std::function<bool(const SQLiteRow&)>& onRow);
    std::vector<SQLiteRow> query(std::string_view sql, const std::vector<Binding>& bindings = {});

  private:
    sqlite3* db_ = nullptr;
};

}  // namespace kestrel
