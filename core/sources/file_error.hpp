#pragma once
// A file or an agent's database that could not be opened or read, named by its path. Readers
// return it and the scan goes on with the next file.

#include <string>

namespace kestrel {

struct FileError {
    std::string path;
    std::string operation;  // "open", "read", "stat", ...
    int errorNumber = 0;    // errno at the failure
    std::string detail;     // the cause in words where errno has none (a damaged frame, ...)
    // The SQLite result code when an agent's database refused (SQLITE_BUSY for a lock held too
    // long, SQLITE_NOTADB, SQLITE_CORRUPT, ...); 0 for plain files.
    int sqliteCode = 0;

    // "cannot read /x/y.jsonl: Permission denied"; the detail, when there is one, stands for
    // the errno text.
    std::string description() const;

    bool operator==(const FileError&) const = default;
};

// Builds a FileError from the current errno.
FileError fileErrorFromErrno(std::string path, std::string operation);

}  // namespace kestrel
