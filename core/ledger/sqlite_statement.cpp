#include "core/ledger/sqlite_statement.hpp"

#include <algorithm>
#include <utility>

namespace kestrel::sqlite {
namespace {

// Statement texts can be long scripts; the first line is enough to tell which one failed.
// Bound values never appear here, only the SQL itself.
std::string shortened(std::string_view sql) {
    constexpr std::size_t kMax = 120;
    const auto start = sql.find_first_not_of(" \t\r\n");
    sql.remove_prefix(start == std::string_view::npos ? sql.size() : start);
    auto end = sql.find('\n');
    if (end == std::string_view::npos) {
        end = sql.size();
    }
    std::string out(sql.substr(0, std::min(end, kMax)));
    if (out.size() < sql.size()) {
        out += " ...";
    }
    return out;
}

std::string errorText(sqlite3* db) {
    return db ? sqlite3_errmsg(db) : "no database connection";
}

}  // namespace

void exec(sqlite3* db, std::string_view sql) {
    const std::string text(sql);  // sqlite3_exec wants a terminated string
    char* message = nullptr;
    const int rc = sqlite3_exec(db, text.c_str(), nullptr, nullptr, &message);
    if (rc != SQLITE_OK) {
        std::string why = message ? message : sqlite3_errstr(rc);
        sqlite3_free(message);
        throw StoreError(StoreErrorCode::sql, "SQL \"" + shortened(sql) + "\" failed: " + why);
    }
}

int64_t userVersion(sqlite3* db) {
    sqlite3_stmt* stmt = nullptr;
    int64_t version = 0;
    if (sqlite3_prepare_v2(db, "PRAGMA user_version;", -1, &stmt, nullptr) == SQLITE_OK &&
        sqlite3_step(stmt) == SQLITE_ROW) {
        version = sqlite3_column_int64(stmt, 0);
    }
    sqlite3_finalize(stmt);
    return version;
}

Statement::Statement(sqlite3* db, std::string_view sql) : db_(db), sql_(sql) {
    if (sqlite3_prepare_v2(db_, sql_.data(), static_cast<int>(sql_.size()), &stmt_, nullptr) !=
        SQLITE_OK) {
        const std::string why = errorText(db_);
        sqlite3_finalize(stmt_);
        stmt_ = nullptr;
        throw StoreError(StoreErrorCode::sql, "cannot prepare \"" + shortened(sql_) + "\": " + why);
    }
}

Statement::~Statement() {
    sqlite3_finalize(stmt_);
}

Statement::Statement(Statement&& other) noexcept
    : db_(other.db_), stmt_(std::exchange(other.stmt_, nullptr)), sql_(std::move(other.sql_)) {}

void Statement::fail(const char* what) const {
    const std::string why = errorText(db_);
    // Ends the statement's read, so that a caller's ROLLBACK is not held up by it.
    sqlite3_reset(stmt_);
    throw StoreError(StoreErrorCode::sql,
                     std::string(what) + " of \"" + shortened(sql_) + "\" failed: " + why);
}

Statement& Statement::bind(int index, std::string_view text) {
    // A null data pointer would bind NULL, but an empty view is an empty text.
    const char* data = text.data() ? text.data() : "";
    if (sqlite3_bind_text64(stmt_, index, data, text.size(), SQLITE_TRANSIENT, SQLITE_UTF8) !=
        SQLITE_OK) {
        fail("binding a parameter");
    }
    return *this;
}

Statement& Statement::bindKept(int index, std::string_view text) {
    const char* data = text.data() ? text.data() : "";
    if (sqlite3_bind_text64(stmt_, index, data, text.size(), SQLITE_STATIC, SQLITE_UTF8) !=
        SQLITE_OK) {
        fail("binding a parameter");
    }
    return *this;
}

Statement& Statement::bind(int index, int64_t value) {
    if (sqlite3_bind_int64(stmt_, index, value) != SQLITE_OK) {
        fail("binding a parameter");
    }
    return *this;
}

Statement& Statement::bind(int index, double value) {
    if (sqlite3_bind_double(stmt_, index, value) != SQLITE_OK) {
        fail("binding a parameter");
    }
    return *this;
}

Statement& Statement::bindNull(int index) {
    if (sqlite3_bind_null(stmt_, index) != SQLITE_OK) {
        fail("binding a parameter");
    }
    return *this;
}

bool Statement::step() {
    switch (sqlite3_step(stmt_)) {
        case SQLITE_ROW:
            return true;
        case SQLITE_DONE:
            return false;
        default:
            fail("step");
    }
}

void Statement::run() {
    if (step()) {
        sqlite3_reset(stmt_);
        throw StoreError(StoreErrorCode::sql,
                         "\"" + shortened(sql_) + "\" returned rows where none were expected");
    }
}

void Statement::reset() {
    // The result code repeats the last step's failure, which was already reported.
    sqlite3_reset(stmt_);
    sqlite3_clear_bindings(stmt_);
}

bool Statement::isNull(int column) const {
    return sqlite3_column_type(stmt_, column) == SQLITE_NULL;
}

int64_t Statement::int64(int column) const {
    return sqlite3_column_int64(stmt_, column);
}

double Statement::real(int column) const {
    return sqlite3_column_double(stmt_, column);
}

std::string Statement::text(int column) const {
    const auto* data = reinterpret_cast<const char*>(sqlite3_column_text(stmt_, column));
    if (!data) {
        return {};
    }
    return std::string(data, static_cast<std::size_t>(sqlite3_column_bytes(stmt_, column)));
}

std::optional<int64_t> Statement::optionalInt64(int column) const {
    return isNull(column) ? std::nullopt : std::optional<int64_t>(int64(column));
}

std::optional<double> Statement::optionalReal(int column) const {
    return isNull(column) ? std::nullopt : std::optional<double>(real(column));
}

std::optional<std::string> Statement::optionalText(int column) const {
    return isNull(column) ? std::nullopt : std::optional<std::string>(text(column));
}

int64_t Statement::changes() const {
    return sqlite3_changes64(db_);
}

Transaction::Transaction(sqlite3* db) : db_(db) {
    exec(db_, "BEGIN IMMEDIATE;");
}

Transaction::~Transaction() {
    // Some failures (a full disk, an interrupt) already rolled the transaction back; a second
    // ROLLBACK would only fail.
    if (!done_ && !sqlite3_get_autocommit(db_)) {
        sqlite3_exec(db_, "ROLLBACK;", nullptr, nullptr, nullptr);
    }
}

void Transaction::commit() {
    exec(db_, "COMMIT;");
    done_ = true;
}

}  // namespace kestrel::sqlite
