#pragma once
// Small RAII wrappers over the SQLite C API: a prepared statement that is finalised when it goes
// away, and a write transaction that rolls back unless committed. Failures throw StoreError(sql)
// with SQLite's message and the statement text.

#include <sqlite3.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "core/ledger/store_error.hpp"

namespace kestrel::sqlite {

// Runs one or more statements that return no rows.
void exec(sqlite3* db, std::string_view sql);

// PRAGMA user_version; 0 when it cannot be read.
int64_t userVersion(sqlite3* db);

class Statement {
  public:
    Statement(sqlite3* db, std::string_view sql);
    ~Statement();
    Statement(Statement&& other) noexcept;
    Statement& operator=(Statement&&) = delete;
    Statement(const Statement&) = delete;

    // Parameters are 1-based, as in SQLite. An absent optional binds NULL.
    Statement& bind(int index, std::string_view text);
    Statement& bind(int index, const char* text) { return bind(index, std::string_view(text)); }
    Statement& bind(int index, int64_t value);
    Statement& bind(int index, int value) { return bind(index, int64_t{value}); }
    Statement& bind(int index, double value);
    Statement& bind(int index, bool value) { return bind(index, int64_t{value ? 1 : 0}); }
    Statement& bindNull(int index);
    // Binds `text` without copying it: the caller keeps it alive and unchanged until the
    // statement has run or been reset. For bulk writes, where the copies cost more than a
    // tenth of the commit.
    Statement& bindKept(int index, std::string_view text);
    Statement& bindKept(int index, const std::string& text) {
        return bindKept(index, std::string_view(text));
    }
    Statement& bindKept(int index, const std::optional<std::string>& text) {
        return text ? bindKept(index, std::string_view(*text)) : bindNull(index);
    }
    template <class T>
    Statement& bind(int index, const std::optional<T>& value) {
        return value ? bind(index, *value) : bindNull(index);
    }

    // Advances to the next row: true when a row is available, false when done.
    bool step();
    // Steps a statement that must not return rows (INSERT, UPDATE, DELETE).
    void run();
    // Clears bindings and rewinds, for reuse.
    void reset();

    // Columns are 0-based. NULL reads as an absent optional.
    bool isNull(int column) const;
    int64_t int64(int column) const;
    double real(int column) const;
    std::string text(int column) const;
    std::optional<int64_t> optionalInt64(int column) const;
    std::optional<double> optionalReal(int column) const;
    std::optional<std::string> optionalText(int column) const;

    // Rows changed by the last run() (sqlite3_changes).
    int64_t changes() const;
    sqlite3_stmt* handle() const { return stmt_; }

  private:
    [[noreturn]] void fail(const char* what) const;
    sqlite3* db_;
    sqlite3_stmt* stmt_ = nullptr;
    std::string sql_;
};

// BEGIN IMMEDIATE on construction: the write lock is taken at the start, so a concurrent writer
// waits (up to the busy timeout) instead of failing halfway. Rolls back unless commit() ran.
class Transaction {
  public:
    explicit Transaction(sqlite3* db);
    ~Transaction();
    Transaction(const Transaction&) = delete;
    Transaction& operator=(const Transaction&) = delete;

    void commit();

  private:
    sqlite3* db_;
    bool done_ = false;
};

}  // namespace kestrel::sqlite
