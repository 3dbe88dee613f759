#include "tools/agent_corpus/corpus_writer.hpp"

#include <zstd.h>

#include <fstream>
#include <stdexcept>

namespace kestrel::corpus {

namespace fs = std::filesystem;

void writeFile(const fs::path& home, const fs::path& relative, std::string_view text) {
    const fs::path path = home / relative;
    fs::create_directories(path.parent_path());
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(text.data(), static_cast<std::streamsize>(text.size()));
    if (!out) {
        throw std::runtime_error("cannot write " + path.string());
    }
}

void appendFile(const fs::path& home, const fs::path& relative, std::string_view text) {
    const fs::path path = home / relative;
    fs::create_directories(path.parent_path());
    std::ofstream out(path, std::ios::binary | std::ios::app);
    out.write(text.data(), static_cast<std::streamsize>(text.size()));
    if (!out) {
        throw std::runtime_error("cannot append to " + path.string());
    }
}

std::vector<unsigned char> zstdFrame(std::string_view text) {
    std::vector<unsigned char> frame(ZSTD_compressBound(text.size()));
    const size_t size = ZSTD_compress(frame.data(), frame.size(), text.data(), text.size(), 3);
    if (ZSTD_isError(size)) {
        throw std::runtime_error(ZSTD_getErrorName(size));
    }
    frame.resize(size);
    return frame;
}

FixtureDB::FixtureDB(const fs::path& path) {
    fs::create_directories(path.parent_path());
    if (sqlite3_open(path.c_str(), &db_) != SQLITE_OK) {
        const std::string message = db_ ? sqlite3_errmsg(db_) : "out of memory";
        sqlite3_close(db_);
        db_ = nullptr;
        throw std::runtime_error("cannot create " + path.string() + ": " + message);
    }
}

FixtureDB::~FixtureDB() {
    sqlite3_close(db_);
}

void FixtureDB::exec(std::string_view sql) {
    char* error = nullptr;
    const std::string text(sql);
    if (sqlite3_exec(db_, text.c_str(), nullptr, nullptr, &error) != SQLITE_OK) {
        const std::string message = error ? error : "unknown error";
        sqlite3_free(error);
        throw std::runtime_error(message + " in: " + text);
    }
}

void FixtureDB::run(std::string_view sql, const std::vector<Value>& values) {
    sqlite3_stmt* statement = nullptr;
    if (sqlite3_prepare_v2(db_, sql.data(), static_cast<int>(sql.size()), &statement, nullptr) !=
        SQLITE_OK) {
        throw std::runtime_error(std::string(sqlite3_errmsg(db_)) + " in: " + std::string(sql));
    }
    for (size_t i = 0; i < values.size(); ++i) {
        const int index = static_cast<int>(i) + 1;
        const auto& v = values[i];
        if (const auto* n = std::get_if<int64_t>(&v)) {
            sqlite3_bind_int64(statement, index, *n);
        } else if (const auto* d = std::get_if<double>(&v)) {
            sqlite3_bind_double(statement, index, *d);
        } else if (const auto* s = std::get_if<std::string>(&v)) {
            sqlite3_bind_text(statement, index, s->data(), static_cast<int>(s->size()),
                              SQLITE_TRANSIENT);
        } else if (const auto* b = std::get_if<std::vector<unsigned char>>(&v)) {
            sqlite3_bind_blob(statement, index, b->data(), static_cast<int>(b->size()),
                              SQLITE_TRANSIENT);
        } else {
            sqlite3_bind_null(statement, index);
        }
    }
    const int rc = sqlite3_step(statement);
    const std::string message = sqlite3_errmsg(db_);
    sqlite3_finalize(statement);
    if (rc != SQLITE_DONE && rc != SQLITE_ROW) {
        throw std::runtime_error(message + " in: " + std::string(sql));
    }
}

}  // namespace kestrel::corpus
