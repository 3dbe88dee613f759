#include "core/sources/stores/opencode_reader.hpp"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>

#include "core/model/timestamp.hpp"
#include "core/sources/file_discovery.hpp"
#include "core/sources/readonly_sqlite.hpp"

namespace kestrel::OpencodeFamily {

namespace fs = std::filesystem;

double modificationTime(const fs::path& file) {
    struct stat st {};
    if (::stat(file.c_str(), &st) != 0) {
        return epochNow();
    }
    return static_cast<double>(st.st_mtim.tv_sec) + static_cast<double>(st.st_mtim.tv_nsec) / 1e9;
}

Flavor flavor(AgentSource source) {
    switch (source) {
        case AgentSource::kiloCLI:
            return {AgentSource::kiloCLI, "kilo", false, false, true};
        case AgentSource::mimo:
            // The database's name is only reported, so any database with the tables is read.
            return {AgentSource::mimo, "mimocode", true, true, false};
        default:
            return {AgentSource::opencode, "opencode", false, false, false};
    }
}

std::vector<fs::path> discover(const Flavor& flavor, const fs::path& root,
                               std::vector<FileError>* errors) {
    std::error_code ec;
    if (fs::is_regular_file(root, ec)) {
        return {root};  // OPENCODE_DB / KILO_DB name the database itself
    }
    std::vector<fs::path> out;
    if (!fs::is_directory(root, ec)) {
        return out;
    }
    fs::directory_iterator entries(root, ec);
    if (ec) {
        if (errors != nullptr) {
            errors->push_back(FileError{root.string(), "list", ec.value(), {}});
        }
        return out;
    }
    for (auto it = entries; it != fs::directory_iterator(); it.increment(ec)) {
        if (ec) {
            if (errors != nullptr) {
                errors->push_back(FileError{root.string(), "list", ec.value(), {}});
            }
            break;
        }
        const auto name = it->path().filename().string();
        if (!name.ends_with(".db") ||
            (!flavor.anyDatabase && !name.starts_with(flavor.databasePrefix))) {
            continue;
        }
        std::error_code typeError;
        if (fs::is_regular_file(it->path(), typeError)) {
            out.push_back(it->path());
        }
    }
    auto legacy = discoverFilesWithSuffix(root / "storage" / "message", ".json", errors);
    out.insert(out.end(), std::make_move_iterator(legacy.begin()),
               std::make_move_iterator(legacy.end()));
    std::ranges::sort(out);
    return out;
}

std::expected<IngestResult, FileError> ingest(const SourceReadContext& context) {
    const auto& file = context.file;
    const Flavor flavour = flavor(context.source);
    if (file.extension() == ".json") {
        return readLegacyMessage(flavour, file, context.sink);
    }
    std::error_code ec;
    if (!fs::exists(file, ec)) {
        // Opening a missing database read-only fails anyway; saying so lets the scan count it
        // as vanished rather than unreadable.
        return std::unexpected(FileError{file.string(), "open", ENOENT, {}});
    }
    return guardStoreRead(
        file, [&] { return readDatabase(flavour, file, context.checkpoint, context.sink); });
}

namespace {

SourceReader readerFor(AgentSource source) {
    SourceReader r;
    r.kind = SourceReaderKind::store;
    r.parserVersion = parserVersion;
    const auto f = flavor(source);
    // The discovery rule differs per flavour; the reading one follows the context's source.
    r.discover = [f](const fs::path& root, std::vector<FileError>* errors) {
        return discover(f, root, errors);
    };
    r.ingest = ingest;
    return r;
}

}  // namespace
}  // namespace kestrel::OpencodeFamily

namespace kestrel::OpencodeReader {
SourceReader reader() {
    return OpencodeFamily::readerFor(AgentSource::opencode);
}
}  // namespace kestrel::OpencodeReader

namespace kestrel::KiloCLIReader {
SourceReader reader() {
    return OpencodeFamily::readerFor(AgentSource::kiloCLI);
}
}  // namespace kestrel::KiloCLIReader

namespace kestrel::MimoReader {
SourceReader reader() {
    return OpencodeFamily::readerFor(AgentSource::mimo);
}
}  // namespace kestrel::MimoReader
