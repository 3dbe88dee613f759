#include "core/integrations/hook_installer.hpp"

#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <nlohmann/json.hpp>
#include <random>
#include <sstream>

#include "core/integrations/config_file.hpp"
#include "core/integrations/hook_json_config.hpp"
#include "core/integrations/hook_toml_config.hpp"

namespace kestrel {

namespace fs = std::filesystem;
using Json = nlohmann::ordered_json;

namespace {

constexpr std::string_view kGrokMarker = "_kestrel_grok";
constexpr std::uintmax_t kMaxPulseFileBytes = 64 * 1024;

enum class ConfigForm { claudeJson, cursorJson, grokJson, kimiToml, codexToml };

struct ConfigSlot {
    fs::path path;
    ConfigForm form;
};

std::vector<ConfigSlot> configSlots(HookAgent agent, const fs::path& home) {
    switch (agent) {
        case HookAgent::claude:
            return {{home / ".claude/settings.json", ConfigForm::claudeJson}};
        case HookAgent::codex:
            return {{home / ".codex/hooks.json", ConfigForm::claudeJson},
                    {home / ".codex/config.toml", ConfigForm::codexToml}};
        case HookAgent::grok:
            return {{home / ".grok/hooks/kestrel.json", ConfigForm::grokJson}};
        case HookAgent::kimi:
            return {{home / ".kimi-code/config.toml", ConfigForm::kimiToml}};
        case HookAgent::cursor:
            return {{home / ".cursor/hooks.json", ConfigForm::cursorJson}};
        case HookAgent::opencode:
            return {};
        case HookAgent::pi:
            return {};
        case HookAgent::omp:
            return {};
    }
    return {};
}

// Where the plug-in agents load a file of ours from, and the resource it is made from.
std::optional<std::pair<fs::path, fs::path>> pluginFile(HookAgent agent, const fs::path& home) {
    switch (agent) {
        case HookAgent::opencode:
            return std::pair{home / ".config/opencode/plugins/kestrel.js",
                             fs::path("hooks/opencode-plugin.js")};
        case HookAgent::pi:
            return std::pair{home / ".pi/agent/extensions/kestrel.ts",
                             fs::path("hooks/pi-extension.ts")};
        case HookAgent::omp:
            return std::pair{home / ".omp/agent/extensions/kestrel.ts",
                             fs::path("hooks/omp-extension.ts")};
        default:
            return std::nullopt;
    }
}

std::vector<std::string> cliNames(HookAgent agent) {
    switch (agent) {
        case HookAgent::cursor:
            return {"cursor-agent", "cursor"};
        default:
            return {std::string(rawValue(agent))};
    }
}

HookInstallError unreadable(const fs::path& path, std::string detail) {
    return {HookInstallErrorCode::configUnreadable, path, std::move(detail)};
}

// An absent or empty JSON file reads as an empty object.
std::expected<Json, HookInstallError> parseJson(const ConfigFile& file) {
    if (!file.exists || file.bytes.find_first_not_of(" \t\r\n") == std::string::npos) {
        return Json::object();
    }
    try {
        Json value = Json::parse(file.bytes);
        if (!value.is_object()) {
            return std::unexpected(unreadable(file.path, "the top level is not a JSON object"));
        }
        return value;
    } catch (const Json::parse_error& e) {
        return std::unexpected(unreadable(file.path, e.what()));
    }
}

std::expected<void, HookInstallError> checkToml(const ConfigFile& file) {
    if (auto error = tomlParseError(file.bytes)) {
        return std::unexpected(unreadable(file.path, *error));
    }
    return {};
}

std::string jsonText(const Json& value) {
    return value.dump(2) + "\n";
}

// What we did to files beyond our own entries, so that uninstall can take exactly that back.
struct InstallRecord {
    std::set<std::string> created;  // config files that did not exist before
    CodexFeaturesEdit codexFeatures = CodexFeaturesEdit::none;
    bool cursorVersionAdded = false;
};

InstallRecord loadRecord(const fs::path& path) {
    InstallRecord record;
    std::ifstream in(path);
    if (!in) {
        return record;
    }
    try {
        const Json j = Json::parse(in);
        for (const auto& p : j.value("created", Json::array())) {
            record.created.insert(p.get<std::string>());
        }
        const auto features = j.value("codexFeatures", std::string());
        record.codexFeatures = features == "block"  ? CodexFeaturesEdit::block
                               : features == "line" ? CodexFeaturesEdit::line
                                                    : CodexFeaturesEdit::none;
        record.cursorVersionAdded = j.value("cursorVersionAdded", false);
    } catch (const Json::exception&) {
        // A damaged record only costs the exact undo of the feature switch and created files.
    }
    return record;
}

std::expected<void, HookInstallError> saveRecord(const fs::path& path,
                                                 const InstallRecord& record) {
    Json j = Json::object();
    j["created"] = Json(record.created);
    j["codexFeatures"] = record.codexFeatures == CodexFeaturesEdit::block  ? "block"
                         : record.codexFeatures == CodexFeaturesEdit::line ? "line"
                                                                           : "none";
    j["cursorVersionAdded"] = record.cursorVersionAdded;
    return replaceFileAtomically(path, jsonText(j), 0600);
}

// One file's planned new content; `remove` deletes it instead.
struct PlannedWrite {
    ConfigFile file;
    std::string bytes;
    bool remove = false;
};

std::expected<std::vector<HookFileChange>, HookInstallError> applyWrites(
    const std::vector<PlannedWrite>& writes, const fs::path& backupDir) {
    std::vector<HookFileChange> changes;
    for (const auto& w : writes) {
        if (!w.remove && w.file.exists && w.bytes == w.file.bytes) {
            continue;
        }
        if (w.remove && !w.file.exists) {
            continue;
        }
        auto backup = backupOnce(w.file, backupDir);
        if (!backup) {
            return std::unexpected(backup.error());
        }
        if (w.remove) {
            std::error_code ec;
            fs::remove(w.file.target, ec);
            if (ec) {
                return std::unexpected(
                    HookInstallError{HookInstallErrorCode::writeFailed, w.file.path, ec.message()});
            }
        } else if (auto written = replaceFileAtomically(w.file.target, w.bytes, w.file.mode);
                   !written) {
            return std::unexpected(written.error());
        }
        changes.push_back({w.file.path, *backup, w.remove});
    }
    return changes;
}

std::string randomSalt() {
    std::random_device device;
    std::string out;
    static constexpr char hex[] = "0123456789abcdef";
    for (int i = 0; i < 32; ++i) {
        const auto byte = device() & 0xff;
        out += hex[byte >> 4];
        out += hex[byte & 0xf];
    }
    return out + "\n";
}

std::optional<std::string> readWhole(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        return std::nullopt;
    }
    std::ostringstream buffer;
    buffer << in.rdbuf();
    return buffer.str();
}

}  // namespace

std::vector<HookPulseStamp> readHookPulseStamps(const fs::path& liveDir) {
    std::vector<HookPulseStamp> out;
    std::error_code ec;
    for (fs::directory_iterator it(liveDir, ec), end; !ec && it != end; it.increment(ec)) {
        const auto& path = it->path();
        std::error_code sizeError;
        if (path.extension() != ".json" || !it->is_regular_file(sizeError) ||
            it->file_size(sizeError) > kMaxPulseFileBytes || sizeError) {
            continue;
        }
        const auto text = readWhole(path);
        if (!text) {
            continue;  // vanished between listing and reading
        }
        if (auto stamp = parseHookPulse(*text)) {
            out.push_back(*stamp);
        }
    }
    return out;
}

std::optional<HookPulseStamp> parseHookPulse(std::string_view text) {
    const auto j = nlohmann::json::parse(text, nullptr, false);
    if (!j.is_object() || !j.contains("source") || !j["source"].is_string() || !j.contains("at") ||
        !j["at"].is_number()) {
        return std::nullopt;
    }
    const auto agent = fromRawValue<HookAgent>(j["source"].get<std::string>());
    if (!agent) {
        return std::nullopt;
    }
    return HookPulseStamp{*agent, j["at"].get<double>()};
}

HookInstaller::HookInstaller(fs::path home, fs::path support, bool includesProjectNames,
                             std::optional<fs::path> resources, EnvironmentLookup env)
    : home_(std::move(home)),
      support_(std::move(support)),
      includesProjectNames_(includesProjectNames),
      resources_(std::move(resources)),
      env_(std::move(env)) {}

fs::path HookInstaller::hookScript() const {
    return support_ / "hooks" / "ks-hook.sh";
}
fs::path HookInstaller::sessionSaltFile() const {
    return support_ / "hooks" / "session-salt";
}
fs::path HookInstaller::authorizationDirectory() const {
    return support_ / "hooks" / "enabled";
}
fs::path HookInstaller::authorizationURL(HookAgent agent) const {
    return authorizationDirectory() / std::string(rawValue(agent));
}
fs::path HookInstaller::liveDirectory() const {
    return support_ / "live";
}
fs::path HookInstaller::backupDirectory(HookAgent agent) const {
    return support_ / "hooks" / "backups" / std::string(rawValue(agent));
}
fs::path HookInstaller::recordFile(HookAgent agent) const {
    return support_ / "hooks" / "records" / (std::string(rawValue(agent)) + ".json");
}

HookPaths HookInstaller::hookPaths(HookAgent agent) const {
    return {hookScript(), sessionSaltFile(), authorizationURL(agent), liveDirectory()};
}

std::vector<fs::path> HookInstaller::configFiles(HookAgent agent) const {
    std::vector<fs::path> out;
    for (const auto& slot : configSlots(agent, home_)) {
        out.push_back(slot.path);
    }
    if (auto plugin = pluginFile(agent, home_)) {
        out.push_back(plugin->first);
    }
    return out;
}

std::expected<void, HookInstallError> HookInstaller::authorize(HookAgent agent) const {
    const auto gate = authorizationURL(agent);
    if (fs::exists(gate)) {
        return {};
    }
    return replaceFileAtomically(gate, "", 0644);
}

void HookInstaller::deauthorize(HookAgent agent) const {
    std::error_code ec;
    fs::remove(authorizationURL(agent), ec);
}

void HookInstaller::deauthorizeAll() const {
    for (auto agent : allCases<HookAgent>()) {
        deauthorize(agent);
    }
}

bool HookInstaller::isAuthorized(HookAgent agent) const {
    std::error_code ec;
    return fs::exists(authorizationURL(agent), ec);
}

std::expected<void, HookInstallError> HookInstaller::shipScriptAndSalt() const {
    const fs::path source = resources_ ? *resources_ / "hooks" / "ks-hook.sh" : fs::path();
    const auto script = resources_ ? readWhole(source) : std::nullopt;
    if (!script) {
        return std::unexpected(
            HookInstallError{HookInstallErrorCode::missingResource, source, "ks-hook.sh"});
    }
    if (readWhole(hookScript()) != script) {
        if (auto written = replaceFileAtomically(hookScript(), *script, 0755); !written) {
            return written;
        }
    }
    std::error_code ec;
    if (!fs::exists(sessionSaltFile(), ec)) {
        if (auto written = replaceFileAtomically(sessionSaltFile(), randomSalt(), 0600); !written) {
            return written;
        }
    }
    fs::create_directories(liveDirectory(), ec);
    if (ec) {
        return std::unexpected(
            HookInstallError{HookInstallErrorCode::writeFailed, liveDirectory(), ec.message()});
    }
    return {};
}

std::expected<HookChangeReport, HookInstallError> HookInstaller::install(HookAgent agent) const {
    std::error_code ec;
    if (!fs::is_directory(home_, ec)) {
        return std::unexpected(
            HookInstallError{HookInstallErrorCode::homeUnavailable, home_, "not a folder"});
    }
    if (auto plugin = pluginFile(agent, home_)) {
        // The plug-in files are not among the resources yet.
        const fs::path resource = resources_ ? *resources_ / plugin->second : plugin->second;
        return std::unexpected(HookInstallError{HookInstallErrorCode::missingResource, resource,
                                                plugin->second.filename().string()});
    }

    // Every file is read and checked before anything is written, so that one file that does
    // not parse leaves all of them as they were.
    InstallRecord record = loadRecord(recordFile(agent));
    const auto paths = hookPaths(agent);
    const auto rows = hookEventRows(agent);
    std::vector<PlannedWrite> writes;
    for (const auto& slot : configSlots(agent, home_)) {
        auto file = readConfigFile(slot.path);
        if (!file) {
            return std::unexpected(file.error());
        }
        PlannedWrite write{*file, {}, false};
        if (!file->exists) {
            record.created.insert(slot.path.string());
        }
        switch (slot.form) {
            case ConfigForm::claudeJson:
            case ConfigForm::cursorJson: {
                auto root = parseJson(*file);
                if (!root) {
                    return std::unexpected(root.error());
                }
                const Json before = *root;
                if (slot.form == ConfigForm::cursorJson && !root->contains("version")) {
                    (*root)["version"] = 1;
                    if (file->exists) {
                        record.cursorVersionAdded = true;
                    }
                }
                if (auto added = addOurJsonHooks(*root, agent, rows, paths, includesProjectNames_);
                    !added) {
                    return std::unexpected(unreadable(slot.path, added.error()));
                }
                write.bytes = (*root == before && file->exists) ? file->bytes : jsonText(*root);
                break;
            }
            case ConfigForm::grokJson: {
                auto root = parseJson(*file);
                if (!root) {
                    return std::unexpected(root.error());
                }
                if (file->exists && !root->contains(kGrokMarker)) {
                    return std::unexpected(unreadable(slot.path, "the file is not Kestrel's"));
                }
                Json own = Json::object();
                own[std::string(kGrokMarker)] = 1;
                if (auto added = addOurJsonHooks(own, agent, rows, paths, includesProjectNames_);
                    !added) {
                    return std::unexpected(unreadable(slot.path, added.error()));
                }
                write.bytes = (own == *root && file->exists) ? file->bytes : jsonText(own);
                break;
            }
            case ConfigForm::kimiToml: {
                if (auto ok = checkToml(*file); !ok) {
                    return std::unexpected(ok.error());
                }
                write.bytes = appendKimiHookTables(file->bytes, rows, paths, includesProjectNames_);
                break;
            }
            case ConfigForm::codexToml: {
                if (auto ok = checkToml(*file); !ok) {
                    return std::unexpected(ok.error());
                }
                auto enabled = enableCodexHooksFeature(file->bytes);
                if (enabled.edit != CodexFeaturesEdit::none) {
                    record.codexFeatures = enabled.edit;
                }
                write.bytes = std::move(enabled.text);
                break;
            }
        }
        if (slot.form == ConfigForm::kimiToml || slot.form == ConfigForm::codexToml) {
            // Our own text must not be what breaks the file.
            if (auto error = tomlParseError(write.bytes)) {
                return std::unexpected(unreadable(slot.path, "after the edit: " + *error));
            }
        }
        writes.push_back(std::move(write));
    }

    if (auto shipped = shipScriptAndSalt(); !shipped) {
        return std::unexpected(shipped.error());
    }
    if (auto saved = saveRecord(recordFile(agent), record); !saved) {
        return std::unexpected(saved.error());
    }
    auto changes = applyWrites(writes, backupDirectory(agent));
    if (!changes) {
        return std::unexpected(changes.error());
    }
    if (auto gate = authorize(agent); !gate) {
        return std::unexpected(gate.error());
    }
    return HookChangeReport{agent, std::move(*changes)};
}

std::expected<HookChangeReport, HookInstallError> HookInstaller::uninstall(HookAgent agent) const {
    std::error_code ec;
    if (!fs::is_directory(home_, ec)) {
        return std::unexpected(
            HookInstallError{HookInstallErrorCode::homeUnavailable, home_, "not a folder"});
    }
    const InstallRecord record = loadRecord(recordFile(agent));
    // The plug-in agents' files are never installed yet, so a file at their place is not ours.
    std::vector<PlannedWrite> writes;
    for (const auto& slot : configSlots(agent, home_)) {
        auto file = readConfigFile(slot.path);
        if (!file) {
            return std::unexpected(file.error());
        }
        if (!file->exists) {
            continue;
        }
        const bool created = record.created.contains(slot.path.string());
        PlannedWrite write{*file, file->bytes, false};
        switch (slot.form) {
            case ConfigForm::claudeJson:
            case ConfigForm::cursorJson: {
                auto root = parseJson(*file);
                if (!root) {
                    return std::unexpected(root.error());
                }
                if (!removeOurJsonHooks(*root, agent)) {
                    break;
                }
                const bool cursor = slot.form == ConfigForm::cursorJson;
                const bool versionOne =
                    cursor && root->contains("version") && (*root)["version"] == 1;
                // A file we created goes again when nothing but what we put there is left.
                if (created && (root->empty() || (versionOne && root->size() == 1))) {
                    write.remove = true;
                    break;
                }
                if (versionOne && record.cursorVersionAdded) {
                    root->erase("version");
                }
                write.bytes = jsonText(*root);
                break;
            }
            case ConfigForm::grokJson: {
                auto root = parseJson(*file);
                if (root && root->contains(kGrokMarker)) {
                    write.remove = true;
                }
                break;
            }
            case ConfigForm::kimiToml: {
                if (auto ok = checkToml(*file); !ok) {
                    return std::unexpected(ok.error());
                }
                write.bytes = removeKimiHookTables(file->bytes);
                write.remove = created && write.bytes.empty();
                break;
            }
            case ConfigForm::codexToml: {
                if (auto ok = checkToml(*file); !ok) {
                    return std::unexpected(ok.error());
                }
                write.bytes = revertCodexHooksFeature(file->bytes, record.codexFeatures);
                write.remove = created && write.bytes.empty();
                break;
            }
        }
        writes.push_back(std::move(write));
    }
    auto changes = applyWrites(writes, backupDirectory(agent));
    if (!changes) {
        return std::unexpected(changes.error());
    }
    fs::remove(recordFile(agent), ec);
    deauthorize(agent);
    return HookChangeReport{agent, std::move(*changes)};
}

std::expected<bool, HookInstallError> HookInstaller::status(HookAgent agent) const {
    if (auto plugin = pluginFile(agent, home_)) {
        std::error_code ec;
        return fs::exists(plugin->first, ec);
    }
    for (const auto& slot : configSlots(agent, home_)) {
        auto file = readConfigFile(slot.path);
        if (!file) {
            return std::unexpected(file.error());
        }
        if (slot.form == ConfigForm::codexToml) {
            continue;  // the feature switch alone is not a hook
        }
        if (slot.form == ConfigForm::kimiToml) {
            if (auto ok = checkToml(*file); !ok) {
                return std::unexpected(ok.error());
            }
            return !kimiHookCommands(file->bytes).empty();
        }
        auto root = parseJson(*file);
        if (!root) {
            return std::unexpected(root.error());
        }
        return !ourJsonHooks(*root, agent).empty();
    }
    return false;
}

std::expected<bool, HookInstallError> HookInstaller::differsFromCurrent(HookAgent agent) const {
    if (!isCommandHookAgent(agent)) {
        return false;
    }
    auto expected = expectedHooks(agent, hookPaths(agent), includesProjectNames_);
    for (const auto& slot : configSlots(agent, home_)) {
        if (slot.form == ConfigForm::codexToml) {
            continue;
        }
        auto file = readConfigFile(slot.path);
        if (!file) {
            return std::unexpected(file.error());
        }
        if (slot.form == ConfigForm::kimiToml) {
            std::vector<std::string> want;
            for (const auto& e : expected) {
                want.push_back(std::get<2>(e));
            }
            auto have = kimiHookCommands(file->bytes);
            std::sort(want.begin(), want.end());
            std::sort(have.begin(), have.end());
            return have != want;
        }
        auto root = parseJson(*file);
        if (!root) {
            return std::unexpected(root.error());
        }
        auto have = ourJsonHooks(*root, agent);
        std::sort(have.begin(), have.end());
        std::sort(expected.begin(), expected.end());
        return have != expected;
    }
    return false;
}

std::set<HookAgent> HookInstaller::installed() const {
    std::set<HookAgent> out;
    for (auto agent : allCases<HookAgent>()) {
        if (auto s = status(agent); s && *s) {
            out.insert(agent);
        }
    }
    return out;
}

bool HookInstaller::cliPresent(HookAgent agent, bool searchSystem) const {
    std::vector<fs::path> dirs;
    if (auto path = env_("PATH")) {
        std::string_view rest = *path;
        while (true) {
            const auto colon = rest.find(':');
            const auto part = rest.substr(0, colon);
            if (!part.empty()) {
                dirs.emplace_back(part);
            }
            if (colon == std::string_view::npos) {
                break;
            }
            rest.remove_prefix(colon + 1);
        }
    }
    if (searchSystem) {
        dirs.emplace_back("/opt/homebrew/bin");
        dirs.emplace_back("/usr/bin");
    }
    for (const auto& name : cliNames(agent)) {
        for (const auto& dir : dirs) {
            const auto candidate = dir / name;
            std::error_code ec;
            if (fs::is_regular_file(candidate, ec) && ::access(candidate.c_str(), X_OK) == 0) {
                return true;
            }
        }
    }
    return false;
}

HookHealth HookInstaller::health(HookAgent agent, std::span<const HookPulseStamp> pulses,
                                 double now, double staleAfter,
                                 const std::optional<HookInstallError>& lastError) const {
    HookHealth h;
    h.agent = agent;
    for (const auto& p : pulses) {
        if (p.agent == agent && (!h.lastEmissionAt || p.at > *h.lastEmissionAt)) {
            h.lastEmissionAt = p.at;
        }
    }
    // A pulse can only come from a hook the agent ran, so it has been approved.
    h.trust = h.lastEmissionAt ? HookTrustState::trusted : HookTrustState::unknown;
    if (lastError) {
        h.state = HookHealthState::failed;
        h.detail = lastError->detail;
        return h;
    }
    const auto installedNow = status(agent);
    if (!installedNow) {
        h.state = HookHealthState::failed;
        h.detail = installedNow.error().detail;
        return h;
    }
    if (!*installedNow) {
        h.state = HookHealthState::notConfigured;
        return h;
    }
    if (auto differs = differsFromCurrent(agent); differs && *differs) {
        h.state = HookHealthState::versionMismatch;
        return h;
    }
    if (!isAuthorized(agent)) {
        h.detail = "gate closed";
    }
    if (!h.lastEmissionAt) {
        h.state = HookHealthState::configured;
    } else if (now - *h.lastEmissionAt > staleAfter) {
        h.state = HookHealthState::stale;
    } else {
        h.state = HookHealthState::emitting;
    }
    return h;
}

std::expected<std::vector<HookChangeReport>, HookInstallError> HookInstaller::repair(
    const std::optional<std::set<HookAgent>>& allowed) const {
    std::vector<HookChangeReport> out;
    for (auto agent : allCases<HookAgent>()) {
        if (allowed && !allowed->contains(agent)) {
            continue;
        }
        auto installedNow = status(agent);
        if (!installedNow) {
            return std::unexpected(installedNow.error());
        }
        if (!*installedNow) {
            continue;
        }
        // The script ships with every install, so a newer one is a reason to re-install too.
        const bool scriptOld = resources_ && readWhole(hookScript()) !=
                                                 readWhole(*resources_ / "hooks" / "ks-hook.sh");
        auto differs = differsFromCurrent(agent);
        if (!differs) {
            return std::unexpected(differs.error());
        }
        if (*differs || scriptOld) {
            auto report = install(agent);
            if (!report) {
                return std::unexpected(report.error());
            }
            out.push_back(std::move(*report));
        }
    }
    return out;
}

HookInstallAllOutcome HookInstaller::installAll(bool searchSystem) const {
    HookInstallAllOutcome outcome;
    for (auto agent : allCases<HookAgent>()) {
        if (!isCommandHookAgent(agent)) {
            continue;  // their plug-in files are not shipped yet
        }
        if (!cliPresent(agent, searchSystem)) {
            outcome.skipped.push_back(agent);
            continue;
        }
        if (auto report = install(agent)) {
            outcome.installed.push_back(std::move(*report));
        } else {
            outcome.failed.emplace_back(agent, report.error());
        }
    }
    return outcome;
}

std::size_t HookInstaller::clearPulses(HookAgent agent) const {
    const std::string prefix = std::string(rawValue(agent)) + "-";
    std::size_t removed = 0;
    std::error_code ec;
    for (fs::directory_iterator it(liveDirectory(), ec), end; !ec && it != end; it.increment(ec)) {
        const auto name = it->path().filename().string();
        std::error_code rm;
        if (name.starts_with(prefix) && name.ends_with(".json") && fs::remove(it->path(), rm)) {
            ++removed;
        }
    }
    return removed;
}

std::size_t HookInstaller::clearAllPulses() const {
    std::size_t removed = 0;
    std::error_code ec;
    for (fs::directory_iterator it(liveDirectory(), ec), end; !ec && it != end; it.increment(ec)) {
        std::error_code rm;
        if (it->path().extension() == ".json" && fs::remove(it->path(), rm)) {
            ++removed;
        }
    }
    return removed;
}

}  // namespace kestrel
