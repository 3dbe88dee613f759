#include "core/sources/file_error.hpp"

#include <cerrno>
#include <cstring>

namespace kestrel {

std::string FileError::description() const {
    std::string out = "cannot " + operation + " " + path;
    if (!detail.empty()) {
        out += ": " + detail;
    } else if (errorNumber != 0) {
        out += ": ";
        out += std::strerror(errorNumber);
    }
    return out;
}

FileError fileErrorFromErrno(std::string path, std::string operation) {
    return FileError{std::move(path), std::move(operation), errno, {}};
}

}  // namespace kestrel
