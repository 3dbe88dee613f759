// Opening, migrating and closing the ledger database, plus the small key/JSON reads and writes.
// The ledger commit, repricing and price overrides live in their own files.

#include "core/ledger/usage_store.hpp"

#include <map>
#include <nlohmann/json.hpp>
#include <set>
#include <system_error>
#include <utility>

#include "core/ledger/ledger_schema.hpp"
#include "core/ledger/sqlite_statement.hpp"
#include "core/ledger/usage_store_internals.hpp"
#include "core/model/account_snapshot_json.hpp"

namespace kestrel {
namespace {

namespace fs = std::filesystem;
using sqlite::Statement;

// One migration step: runs `body` in a write transaction unless the file is already at
// `version` or later (steps without a version always run). The version is read again once the
// write lock is held, since another process may have migrated the file meanwhile. Any failure
// rolls the step back and is reported as StoreError(migrate).
template <class Body>
void migrationStep(sqlite3* db, const char* name, std::optional<int64_t> version, Body&& body) {
    if (version && sqlite::userVersion(db) >= *version) {
        return;
    }
    try {
        sqlite::Transaction transaction(db);
        if (version && sqlite::userVersion(db) >= *version) {
            transaction.commit();
            return;
        }
        body();
        transaction.commit();
    } catch (const std::exception& e) {
        throw StoreError(StoreErrorCode::migrate,
                         std::string("migration step \"") + name + "\" failed: " + e.what());
    }
}

void setUserVersion(sqlite3* db, int64_t version) {
    sqlite::exec(db, "PRAGMA user_version = " + std::to_string(version) + ";");
}

std::set<std::string> columnNames(sqlite3* db, const std::string& table) {
    std::set<std::string> names;
    Statement info(db, "PRAGMA table_info(" + table + ");");
    while (info.step()) {
        names.insert(info.text(1));  // columns: cid, name, type, notnull, dflt_value, pk
    }
    return names;
}

std::string windowKey(const QuotaWindow& w) {
    std::string key(rawValue(w.kind));
    if (w.scopeKey) {
        key += ":" + *w.scopeKey;
    }
    return key;
}

// The window of `snapshot` that a stored snapshot row of kind `kind` most likely came from:
// rows captured at one instant and of one kind are matched, in id order, to the windows of
// that kind in the snapshot's order (`ordinal`); when the snapshot has fewer such windows than
// there are rows, its first one is taken. Absent when the snapshot has no window of that kind.
const QuotaWindow* matchingWindow(const AccountSnapshot& snapshot, std::string_view kind,
                                  std::size_t ordinal) {
    const QuotaWindow* first = nullptr;
    std::size_t seen = 0;
    for (const auto& w : snapshot.windows) {
        if (rawValue(w.kind) != kind) {
            continue;
        }
        if (!first) {
            first = &w;
        }
        if (seen++ == ordinal) {
            return &w;
        }
    }
    return first;
}

// Step 7: window labels and keys of snapshots stored before those columns existed, taken from
// the account's last stored reading. A reading that does not decode is passed over.
void backfillWindowKeys(sqlite3* db) {
    std::vector<std::pair<std::string, std::string>> accounts;  // account id, json
    {
        Statement select(db, ledger_schema::kAccountsMissingWindowKeys);
        while (select.step()) {
            accounts.emplace_back(select.text(0), select.text(2));
        }
    }
    if (accounts.empty()) {
        return;
    }

    struct Row {
        std::string id;
        std::string kind;
        double capturedAt;
    };
    Statement rowsOf(db, ledger_schema::kSnapshotsMissingWindowKey);
    Statement update(db, ledger_schema::kSetWindowLabelAndKey);
    for (const auto& [accountID, json] : accounts) {
        AccountSnapshot snapshot;
        try {
            snapshot = nlohmann::json::parse(json).get<AccountSnapshot>();
        } catch (const nlohmann::json::exception&) {
            continue;
        }

        std::vector<Row> rows;
        rowsOf.reset();
        rowsOf.bind(1, accountID);
        while (rowsOf.step()) {
            rows.push_back({rowsOf.text(0), rowsOf.text(1), rowsOf.real(2)});
        }

        std::map<std::pair<double, std::string>, std::size_t> ordinals;  // (instant, kind)
        for (const auto& row : rows) {
            const std::size_t ordinal = ordinals[{row.capturedAt, row.kind}]++;
            const QuotaWindow* window = matchingWindow(snapshot, row.kind, ordinal);
            if (!window) {
                continue;
            }
            update.reset();
            update.bind(1, window->label).bind(2, windowKey(*window)).bind(3, row.id);
            update.run();
        }
    }
}

}  // namespace

UsageStore::UsageStore(const fs::path& directory)
    : path_(directory / kFileName), state_(std::make_unique<State>()) {
    std::error_code ec;
    fs::create_directories(directory, ec);
    if (ec) {
        throw StoreError(StoreErrorCode::open,
                         "cannot create " + directory.string() + ": " + ec.message());
    }
    openConnection(SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_FULLMUTEX,
                   kBusyTimeoutMs);
    try {
        migrate();
    } catch (...) {
        close();
        throw;
    }
}

UsageStore::UsageStore(const fs::path& directory, ReadOnlyLedger readOnly)
    : path_(directory / kFileName), state_(std::make_unique<State>()) {
    state_->readOnly = true;
    openConnection(SQLITE_OPEN_READONLY | SQLITE_OPEN_FULLMUTEX, readOnly.busyTimeoutMs);
    int64_t version = 0;
    try {
        version = sqlite::userVersion(state_->db);
    } catch (const StoreError& e) {
        close();
        throw StoreError(StoreErrorCode::open, "cannot read " + path_.string() + ": " + e.what());
    }
    // An older file lacks tables the queries read; only a writer may bring it up to date.
    if (version < kSchemaVersion) {
        close();
        throw StoreError(StoreErrorCode::migrate,
                         path_.string() + " needs migrating before it can be read");
    }
}

void UsageStore::openConnection(int flags, int busyTimeoutMs) {
    const bool writing = (flags & SQLITE_OPEN_READWRITE) != 0;
    sqlite3* db = nullptr;
    const int rc = sqlite3_open_v2(path_.c_str(), &db, flags, nullptr);
    if (rc != SQLITE_OK) {
        const std::string why = db ? sqlite3_errmsg(db) : sqlite3_errstr(rc);
        sqlite3_close_v2(db);
        throw StoreError(StoreErrorCode::open, "cannot open " + path_.string() + ": " + why);
    }
    // SQLite quietly falls back to read-only when the file cannot be opened for writing; the
    // ledger would then fail at its first write, long after the cause is clear.
    if (writing && sqlite3_db_readonly(db, "main") == 1) {
        sqlite3_close_v2(db);
        throw StoreError(StoreErrorCode::open,
                         "cannot open " + path_.string() + ": the file is read-only");
    }
    sqlite3_busy_timeout(db, busyTimeoutMs);
    try {
        if (writing) {
            // The first statements that read the file: a file that is not a database, or one
            // held locked by another process, fails here.
            sqlite::exec(db, "PRAGMA journal_mode=WAL;");
            sqlite::exec(db, "PRAGMA foreign_keys=ON;");
            // With a write-ahead log a commit is atomic either way; NORMAL syncs at checkpoints
            // only, so a power cut can lose the last commits (and their checkpoints with them,
            // so the next scan reads those records again) but never leaves the ledger
            // half-written.
            sqlite::exec(db, "PRAGMA synchronous=NORMAL;");
            // A scan commits thousands of rows with random keys per transaction; the default
            // 2 MB page cache would spill to the log over and over. 16 MB holds the pages one
            // commit of a scan's share writes, and keeps a first scan of a large home within its
            // memory budget.
            sqlite::exec(db, "PRAGMA cache_size=-16384;");
        }
        // Every upsert opens a statement journal; in a temporary file that costs dozens of
        // writes per observation.
        sqlite::exec(db, "PRAGMA temp_store=MEMORY;");
    } catch (const StoreError& e) {
        sqlite3_close_v2(db);
        throw StoreError(StoreErrorCode::open, "cannot open " + path_.string() + ": " + e.what());
    }
    state_->db = db;
}

UsageStore::~UsageStore() {
    close();
}

fs::path UsageStore::supportDirectoryURL(const EnvironmentLookup& env, const fs::path& home) {
    if (auto dir = env("KESTREL_SUPPORT_DIR"); dir && !dir->empty()) {
        return fs::path(*dir);
    }
#ifdef __APPLE__
    return home / "Library" / "Application Support" / "Kestrel";
#else
    // A relative XDG_DATA_HOME is invalid by the XDG rules and is ignored.
    if (auto data = env("XDG_DATA_HOME"); data && fs::path(*data).is_absolute()) {
        return fs::path(*data) / "kestrel";
    }
    return home / ".local" / "share" / "kestrel";
#endif
}

void UsageStore::close() {
    std::lock_guard guard(state_->lock);
    if (state_->db) {
        // _v2: statements still alive elsewhere do not keep the handle open by failing here.
        sqlite3_close_v2(state_->db);
        state_->db = nullptr;
    }
}

bool UsageStore::isOpen() const {
    std::lock_guard guard(state_->lock);
    return state_->db != nullptr;
}

sqlite3* UsageStore::State::connection() const {
    std::lock_guard guard(lock);
    if (!db) {
        throw StoreError(StoreErrorCode::open, "the ledger database is closed");
    }
    return db;
}

void UsageStore::migrate() {
    sqlite3* db = state_->connection();

    migrationStep(db, "base tables", std::nullopt,
                  [&] { sqlite::exec(db, ledger_schema::kBaseScript); });

    migrationStep(db, "version 1", 1, [&] {
        sqlite::exec(db, ledger_schema::kVersion1Script);
        sqlite::exec(db, ledger_schema::kCopyQuotaIntoAccounts);
        setUserVersion(db, 1);
    });

    migrationStep(db, "version 2", 2, [&] {
        for (const auto& [oldKey, newKey] : ledger_schema::kSourceKeyRenames) {
            sqlite::exec(db, ledger_schema::sourceRenameScript(oldKey, newKey));
        }
        setUserVersion(db, 2);
    });

    {
        std::lock_guard guard(state_->lock);
        if (sqlite::userVersion(db) < 3) {
            migrationStep(db, "version 3", 3, [&] {
                sqlite::exec(db, ledger_schema::kLedgerScript);
                setUserVersion(db, 3);
            });
        } else {
            // Files made by earlier builds of version 3.
            migrationStep(db, "version 3 repairs", std::nullopt, [&] {
                if (!columnNames(db, "usage_observations").contains("granularity")) {
                    sqlite::exec(db, ledger_schema::kAddGranularityColumn);
                }
                sqlite::exec(db, ledger_schema::kAccountBindingsIndexRepair);
            });
        }
    }

    {
        std::lock_guard guard(state_->lock);
        migrationStep(db, "removed accounts and window columns", std::nullopt, [&] {
            sqlite::exec(db, ledger_schema::kRemovedSubscriptionAccountsScript);
            const auto columns = columnNames(db, "quota_snapshots");
            for (const auto name : ledger_schema::kQuotaSnapshotWindowColumns) {
                if (!columns.contains(std::string(name))) {
                    sqlite::exec(db, "ALTER TABLE quota_snapshots ADD COLUMN " + std::string(name) +
                                         " TEXT;");
                }
            }
        });
    }

    migrationStep(db, "version 4", 4, [&] {
        sqlite::exec(db, ledger_schema::kVersion4Script);
        setUserVersion(db, 4);
    });

    migrationStep(db, "version 5", 5, [&] {
        sqlite::exec(db, ledger_schema::kVersion5Script);
        setUserVersion(db, 5);
    });

    // Not a numbered step: any build may add it to a file of any version, and the write lock
    // is taken only when the index is missing.
    if (!sqlite::Statement(db, ledger_schema::kHasSessionIndex).step()) {
        std::lock_guard guard(state_->lock);
        migrationStep(db, "session index", std::nullopt,
                      [&] { sqlite::exec(db, ledger_schema::kSessionIndex); });
    }

    {
        std::lock_guard guard(state_->lock);
        migrationStep(db, "window key backfill", std::nullopt, [&] { backfillWindowKeys(db); });
    }

    {
        std::lock_guard guard(state_->lock);
        try {
            finishInterruptedFirstImport(db);
        } catch (const std::exception& e) {
            throw StoreError(
                StoreErrorCode::migrate,
                std::string("finishing an interrupted first import failed: ") + e.what());
        }
    }
}

std::vector<SourceCheckpoint> UsageStore::checkpoints(AgentSource source) {
    std::lock_guard guard(state_->lock);
    Statement select(state_->connection(), "SELECT json FROM checkpoints WHERE source=?;");
    select.bind(1, rawValue(source));
    std::vector<SourceCheckpoint> out;
    while (select.step()) {
        try {
            out.push_back(nlohmann::json::parse(select.text(0)).get<SourceCheckpoint>());
        } catch (const nlohmann::json::exception&) {
            // A checkpoint that no longer decodes only costs a re-read of its file.
        }
    }
    return out;
}

bool UsageStore::hasLedgerEvents(AgentSource source) {
    std::lock_guard guard(state_->lock);
    Statement select(state_->connection(), "SELECT 1 FROM ledger_events WHERE source=? LIMIT 1;");
    select.bind(1, rawValue(source));
    return select.step();
}

std::optional<std::string> UsageStore::setting(const std::string& key) {
    std::lock_guard guard(state_->lock);
    Statement select(state_->connection(), "SELECT value FROM settings WHERE key=?;");
    select.bind(1, key);
    if (!select.step()) {
        return std::nullopt;
    }
    return select.text(0);
}

void UsageStore::setSetting(const std::string& key, const std::string& value) {
    std::lock_guard guard(state_->lock);
    Statement upsert(state_->connection(),
                     "INSERT OR REPLACE INTO settings(key, value) VALUES(?,?);");
    upsert.bind(1, key).bind(2, value);
    upsert.run();
}

}  // namespace kestrel
