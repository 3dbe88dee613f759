// The per-message JSON files older opencode builds kept under storage/ (left in place after the
// move into the database): storage/message/<sessionID>/<messageID>.json, its parts under
// storage/part/<messageID>/ and the session under storage/session/<projectID>/<sessionID>.json.
// A message found here and in the database makes the same event id, so it is counted once.

#include <simdjson.h>

#include "core/model/timestamp.hpp"
#include "core/sources/json_fields.hpp"
#include "core/sources/line_source.hpp"
#include "core/sources/stores/opencode_message.hpp"
#include "core/sources/stores/opencode_reader.hpp"

namespace kestrel::OpencodeFamily {
namespace {

namespace fs = std::filesystem;

constexpr std::uintmax_t kMaxMessageBytes = 8 << 20;
constexpr std::uintmax_t kMaxPartBytes = 4 << 20;
constexpr std::uintmax_t kMaxSessionBytes = 1 << 20;

struct LegacySession {
    std::string directory;
    bool importMarked = false;
};

// The session file of `sessionID`, in whichever project folder holds it.
std::optional<LegacySession> findSession(const fs::path& storage, const std::string& sessionID) {
    std::error_code ec;
    fs::directory_iterator projects(storage / "session", ec);
    if (ec) {
        return std::nullopt;
    }
    for (const auto& project : projects) {
        const auto file = project.path() / (sessionID + ".json");
        if (!fs::is_regular_file(file, ec)) {
            continue;
        }
        const auto text = LineSource::readSmallFile(file, kMaxSessionBytes);
        if (!text) {
            return std::nullopt;
        }
        simdjson::dom::parser parser;
        simdjson::dom::element doc;
        simdjson::dom::object o;
        if (parser.parse(*text).get(doc) || doc.get(o)) {
            return std::nullopt;
        }
        LegacySession s;
        simdjson::dom::element v;
        if (!o["directory"].get(v)) {
            JsonFields::readString(v, s.directory);
        }
        for (auto key : {"slug", "importedFrom", "importSource", "origin", "source"}) {
            std::string value;
            if (!o[key].get(v) && JsonFields::readString(v, value) &&
                OpencodeMessage::namesImportOrigin(value)) {
                s.importMarked = true;
            }
        }
        return s;
    }
    return std::nullopt;
}

// The summed step-finish parts below storage/part/<messageID>; absent when it has none.
std::optional<OpencodeMessage::Usage> stepSum(const fs::path& storage, const std::string& messageID,
                                              ReadStats& stats) {
    std::error_code ec;
    fs::directory_iterator parts(storage / "part" / messageID, ec);
    if (ec) {
        return std::nullopt;
    }
    std::optional<OpencodeMessage::Usage> sum;
    for (const auto& entry : parts) {
        if (entry.path().extension() != ".json") {
            continue;
        }
        const auto text = LineSource::readSmallFile(entry.path(), kMaxPartBytes);
        if (!text) {
            continue;
        }
        bool malformed = false;
        const auto usage = OpencodeMessage::parseStepFinish(*text, malformed);
        if (malformed) {
            ++stats.malformed;
        } else if (usage) {
            if (!sum) {
                sum = OpencodeMessage::Usage{};
            }
            sum->add(*usage);
        }
    }
    return sum;
}

}  // namespace

std::expected<IngestResult, FileError> readLegacyMessage(const Flavor& flavor, const fs::path& file,
                                                         const SourceEventSink& sink) {
    auto text = LineSource::readSmallFile(file, kMaxMessageBytes);
    if (!text) {
        return std::unexpected(text.error());
    }
    IngestResult result;
    result.checkpoint = LineSource::wholeFileCheckpoint(flavor.source, parserVersion, file);
    result.stats.lines = 1;
    result.stats.bytes = static_cast<int64_t>(text->size());
    auto parsed = OpencodeMessage::parseMessage(*text);
    if (parsed.status != OpencodeMessage::ParseStatus::ok) {
        ++result.stats.malformed;
        return result;
    }
    auto& m = parsed.message;
    if (m.role != "assistant") {
        ++result.stats.withoutUsage;
        return result;
    }
    if (m.id.empty()) {
        m.id = file.stem().string();
    }
    const std::string sessionID =
        m.sessionID.empty() ? file.parent_path().filename().string() : m.sessionID;
    // A file still being written is read again when it changes (it is a store read whole).
    const bool abandoned =
        m.createdMs && epochNow() - *m.createdMs / 1000.0 > kUnfinishedGiveUpSeconds;
    if (!m.completed && m.createdMs && !abandoned) {
        return result;
    }
    const auto storage = file.parent_path().parent_path().parent_path();
    // The session's directory wins over the message's path.cwd, as in the database, so that the
    // same message read from either place lands in the same project.
    const auto session = findSession(storage, sessionID);
    if (flavor.skipImported &&
        OpencodeMessage::isImported(m, session && session->importMarked, sessionID)) {
        ++result.stats.withoutUsage;
        return result;
    }
    auto steps = stepSum(storage, m.id, result.stats);
    const auto counted = OpencodeMessage::countedUsage(m, steps);
    if (!counted) {
        ++result.stats.withoutUsage;
        return result;
    }
    // The files do not say which sessions spawned others, so Kilo's folded costs cannot be told
    // apart here; its builds with this layout are not known to exist.
    const auto draft =
        OpencodeMessage::draftFor(flavor.source, m, *counted, sessionID,
                                  session ? session->directory : "", false, modificationTime(file));
    auto event = buildEvent(draft);
    if (sink) {
        sink(std::move(event));
    } else {
        result.events.push_back(std::move(event));
    }
    return result;
}

}  // namespace kestrel::OpencodeFamily
