#pragma once
// A connection of the test's own to a ledger file, for arranging and reading rows the store's
// API does not reach. Foreign keys are on, as on the store's connection; the settings of the
// store's own connection are checked through what the store does, not through this one.

#include <sqlite3.h>

#include <filesystem>
#include <stdexcept>
#include <string>

#include "core/ledger/sqlite_statement.hpp"

namespace kestrel::test_support {

class LedgerConnection {
  public:
    explicit LedgerConnection(const std::filesystem::path& file) {
        if (sqlite3_open_v2(file.c_str(), &db_, SQLITE_OPEN_READWRITE, nullptr) != SQLITE_OK) {
            const std::string why = db_ ? sqlite3_errmsg(db_) : "out of memory";
            sqlite3_close_v2(db_);
            throw std::runtime_error("cannot open " + file.string() + ": " + why);
        }
        sqlite3_busy_timeout(db_, 5000);
        sqlite::exec(db_, "PRAGMA foreign_keys=ON;");
    }
    ~LedgerConnection() { sqlite3_close_v2(db_); }
    LedgerConnection(const LedgerConnection&) = delete;
    LedgerConnection& operator=(const LedgerConnection&) = delete;

    sqlite3* get() const { return db_; }

  private:
    sqlite3* db_ = nullptr;
};

}  // namespace kestrel::test_support
