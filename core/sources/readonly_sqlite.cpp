#include "core/sources/readonly_sqlite.hpp"

#include <charconv>
#include <cmath>
#include <limits>

namespace kestrel {
namespace {

const SQLiteCell& nullCell() {
    static const SQLiteCell cell;
    return cell;
}

std::string quotedIdentifier(std::string_view name) {
    std::string out = "\"";
    for (char c : name) {
        out += c == '"' ? std::string("\"\"") : std::string(1, c);
    }
    return out + "\"";
}

SQLiteCell cellAt(sqlite3_stmt* statement, int column) {
    SQLiteCell cell;
    switch (sqlite3_column_type(statement, column)) {
        case SQLITE_INTEGER:
            cell.value = static_cast<int64_t>(sqlite3_column_int64(statement, column));
            break;
        case SQLITE_FLOAT:
            cell.value = sqlite3_column_double(statement, column);
            break;
        case SQLITE_TEXT: {
            const auto* text = sqlite3_column_text(statement, column);
            const int size = sqlite3_column_bytes(statement, column);
            cell.value =
                std::string(reinterpret_cast<const char*>(text), static_cast<size_t>(size));
            break;
        }
        case SQLITE_BLOB: {
            const auto* bytes =
                static_cast<const unsigned char*>(sqlite3_column_blob(statement, column));
            const int size = sqlite3_column_bytes(statement, column);
            cell.value = std::vector<unsigned char>(bytes, bytes + size);
            break;
        }
        default:
            break;
    }
    return cell;
}

}  // namespace

std::optional<int64_t> SQLiteCell::integer() const {
    if (const auto* i = std::get_if<int64_t>(&value)) {
        return *i;
    }
    if (const auto* d = std::get_if<double>(&value)) {
        // Only whole numbers inside the range convert; a count of 1e300 is not a count.
        if (std::isfinite(*d) && std::trunc(*d) == *d && std::fabs(*d) < 9.0e15) {
            return static_cast<int64_t>(*d);
        }
        return std::nullopt;
    }
    if (const auto* s = std::get_if<std::string>(&value)) {
        int64_t out = 0;
        const auto [end, error] = std::from_chars(s->data(), s->data() + s->size(), out);
        if (error == std::errc() && end == s->data() + s->size() && !s->empty()) {
            return out;
        }
    }
    return std::nullopt;
}

std::optional<double> SQLiteCell::real() const {
    if (const auto* i = std::get_if<int64_t>(&value)) {
        return static_cast<double>(*i);
    }
    if (const auto* d = std::get_if<double>(&value)) {
        return std::isfinite(*d) ? std::optional<double>(*d) : std::nullopt;
    }
    if (const auto* s = std::get_if<std::string>(&value)) {
        double out = 0;
        const auto [end, error] = std::from_chars(s->data(), s->data() + s->size(), out);
        if (error == std::errc() && end == s->data() + s->size() && !s->empty() &&
            std::isfinite(out)) {
            return out;
        }
    }
    return std::nullopt;
}

std::optional<std::string> SQLiteCell::text() const {
    if (const auto* s = std::get_if<std::string>(&value)) {
        return *s;
    }
    if (const auto* b = std::get_if<std::vector<unsigned char>>(&value)) {
        return std::string(b->begin(), b->end());
    }
    return std::nullopt;
}

std::optional<std::vector<unsigned char>> SQLiteCell::data() const {
    if (const auto* b = std::get_if<std::vector<unsigned char>>(&value)) {
        return *b;
    }
    if (const auto* s = std::get_if<std::string>(&value)) {
        return std::vector<unsigned char>(s->begin(), s->end());
    }
    return std::nullopt;
}

const SQLiteCell& SQLiteRow::operator[](std::string_view column) const {
    const auto it = values.find(column);
    return it == values.end() ? nullCell() : it->second;
}

FileError storeError(const std::filesystem::path& database, const SQLiteUsageError& error) {
    FileError out;
    out.path = database.string();
    out.operation = error.kind() == SQLiteUsageError::Kind::open ? "open" : "query";
    out.detail = error.detail();
    out.sqliteCode = error.code();
    return out;
}

ReadonlySQLite::ReadonlySQLite(const std::filesystem::path& path) {
    const auto fail = [&](int rc, std::string message) {
        close();
        const std::string what = "open failed: " + path.string() + ": " + message;
        throw SQLiteUsageError(SQLiteUsageError::Kind::open, rc & 0xff, std::move(message), what);
    };
    const int rc = sqlite3_open_v2(path.c_str(), &db_, kOpenFlags, nullptr);
    if (rc != SQLITE_OK) {
        fail(rc, db_ ? sqlite3_errmsg(db_) : sqlite3_errstr(rc));
    }
    sqlite3_busy_timeout(db_, kBusyTimeoutMs);
    char* error = nullptr;
    if (const int pragma = sqlite3_exec(db_, "PRAGMA query_only=ON;", nullptr, nullptr, &error);
        pragma != SQLITE_OK) {
        std::string message = error ? error : "PRAGMA query_only failed";
        sqlite3_free(error);
        fail(pragma, std::move(message));
    }
}

ReadonlySQLite::~ReadonlySQLite() {
    close();
}

void ReadonlySQLite::close() {
    if (db_ != nullptr) {
        sqlite3_close_v2(db_);
        db_ = nullptr;
    }
}

bool ReadonlySQLite::hasTable(std::string_view table) {
    bool found = false;
    forEach("SELECT name FROM sqlite_master WHERE type='table' AND name=? LIMIT 1",
            {std::string(table)}, [&](const SQLiteRow&) {
                found = true;
                return false;
            });
    return found;
}

std::set<std::string, std::less<>> ReadonlySQLite::columns(std::string_view table) {
    std::set<std::string, std::less<>> out;
    forEach("PRAGMA table_info(" + quotedIdentifier(table) + ")", {}, [&](const SQLiteRow& row) {
        if (auto name = row["name"].text()) {
            out.insert(*name);
        }
        return true;
    });
    return out;
}

std::string ReadonlySQLite::columnOrNull(const std::set<std::string, std::less<>>& present,
                                         std::string_view column, std::string_view qualified,
                                         std::string_view alias) const {
    const std::string name(alias.empty() ? column : alias);
    if (present.contains(column)) {
        const std::string expression(qualified.empty() ? column : qualified);
        return expression == name ? expression : expression + " AS " + name;
    }
    return "NULL AS " + name;
}

void ReadonlySQLite::forEach(std::string_view sql, const std::vector<Binding>& bindings,
                             const std::function<bool(const SQLiteRow&)>& onRow) {
    const auto fail = [](int rc, std::string message) {
        const std::string what = message;
        throw SQLiteUsageError(SQLiteUsageError::Kind::query, rc & 0xff, std::move(message), what);
    };
    if (db_ == nullptr) {
        fail(SQLITE_MISUSE, "the database is closed");
    }
    sqlite3_stmt* statement = nullptr;
    if (const int rc =
            sqlite3_prepare_v2(db_, sql.data(), static_cast<int>(sql.size()), &statement, nullptr);
        rc != SQLITE_OK) {
        std::string message = sqlite3_errmsg(db_);
        sqlite3_finalize(statement);
        fail(rc, std::move(message));
    }
    struct Finalize {
        sqlite3_stmt* s;
        ~Finalize() { sqlite3_finalize(s); }
    } finalize{statement};

    for (std::size_t i = 0; i < bindings.size(); ++i) {
        const int index = static_cast<int>(i) + 1;
        if (const auto* v = std::get_if<int64_t>(&bindings[i])) {
            sqlite3_bind_int64(statement, index, *v);
        } else if (const auto* d = std::get_if<double>(&bindings[i])) {
            sqlite3_bind_double(statement, index, *d);
        } else {
            const auto& s = std::get<std::string>(bindings[i]);
            sqlite3_bind_text(statement, index, s.data(), static_cast<int>(s.size()),
                              SQLITE_TRANSIENT);
        }
    }
    const int count = sqlite3_column_count(statement);
    std::vector<std::string> names;
    for (int c = 0; c < count; ++c) {
        const char* name = sqlite3_column_name(statement, c);
        names.emplace_back(name ? name : "");
    }
    SQLiteRow row;
    while (true) {
        const int rc = sqlite3_step(statement);
        if (rc == SQLITE_DONE) {
            return;
        }
        if (rc != SQLITE_ROW) {
            fail(rc, sqlite3_errmsg(db_));
        }
        row.values.clear();
        for (int c = 0; c < count; ++c) {
            row.values.insert_or_assign(names[static_cast<size_t>(c)], cellAt(statement, c));
        }
        if (!onRow(row)) {
            return;
        }
    }
}

std::vector<SQLiteRow> ReadonlySQLite::query(std::string_view sql,
                                             const std::vector<Binding>& bindings) {
    std::vector<SQLiteRow> rows;
    forEach(sql, bindings, [&](const SQLiteRow& row) {
        rows.push_back(row);
        return true;
    });
    return rows;
}

}  // namespace kestrel
