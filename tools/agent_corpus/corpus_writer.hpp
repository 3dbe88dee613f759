#pragma once
// Helpers for writing synthetic agent records: files below a home folder, SQLite stores created
// through the SQLite API, and zstd frames. Shared by the tests of each reader and by the
// benchmark that scans a home holding every agent's data.

#include <sqlite3.h>

#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace kestrel::corpus {

// Writes `text` to `home / relative`, creating folders; replaces the file.
void writeFile(const std::filesystem::path& home, const std::filesystem::path& relative,
               std::string_view text);
// Appends `text` to `home / relative`, creating folders.
void appendFile(const std::filesystem::path& home, const std::filesystem::path& relative,
                std::string_view text);

// `text` as one zstd frame (level 3).
std::vector<unsigned char> zstdFrame(std::string_view text);

// A writable SQLite database for building fixtures; closed when destroyed. Throws
// std::runtime_error with SQLite's message when a statement fails.
class FixtureDB {
  public:
    explicit FixtureDB(const std::filesystem::path& path);
    ~FixtureDB();
    FixtureDB(const FixtureDB&) = delete;
    FixtureDB& operator=(const FixtureDB&) = delete;

    void exec(std::string_view sql);
    // Runs one statement with `values` bound in order: each is an int64, a double, text, or
    // bytes (std::vector<unsigned char>), or std::monostate for NULL.
    using Value =
        std::variant<std::monostate, int64_t, double, std::string, std::vector<unsigned char>>;
    void run(std::string_view sql, const std::vector<Value>& values);
    sqlite3* handle() const { return db_; }

  private:
    sqlite3* db_ = nullptr;
};

}  // namespace kestrel::corpus
