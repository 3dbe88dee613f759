#include "core/sources/agent_catalog.hpp"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <nlohmann/json.hpp>
#include <string>
#include <system_error>
#include <unordered_set>

namespace kestrel {

namespace fs = std::filesystem;

EnvironmentLookup processEnvironment() {
    return [](std::string_view name) -> std::optional<std::string> {
        const std::string key(name);  // getenv needs a terminated name
        const char* value = std::getenv(key.c_str());
        if (value == nullptr) {
            return std::nullopt;
        }
        return std::string(value);
    };
}

EnvironmentLookup emptyEnvironment() {
    return [](std::string_view) -> std::optional<std::string> { return std::nullopt; };
}

namespace AgentCatalog {
namespace {

// Craft's config.json is a short settings file; anything larger is not one.
constexpr std::uintmax_t kCraftConfigMaxBytes = 1024 * 1024;

// Editors built on the VS Code shell whose globalStorage may hold the Roo / Kilo Code
// extensions' task folders.
constexpr std::array<std::string_view, 6> kExtensionHostEditors{
    "Code", "Code - Insiders", "VSCodium", "Cursor", "Windsurf", "Kiro",
};

// "/a/b/" and "/a/./b" name the same folder as "/a/b"; one spelling keeps roots comparable.
fs::path normalised(const fs::path& path) {
    fs::path out = path.lexically_normal();
    if (!out.has_filename() && out.has_relative_path()) {
        out = out.parent_path();
    }
    return out;
}

// A user-written location: "~" and "~/..." name the home folder, a relative path is taken
// below home, an absolute one stands as written.
fs::path resolveAgainstHome(std::string_view text, const fs::path& home) {
    if (text == "~") {
        return home;
    }
    if (text.starts_with("~/")) {
        return home / fs::path(text.substr(2));
    }
    const fs::path path{text};
    return path.is_absolute() ? path : home / path;
}

class Resolver {
  public:
    Resolver(const fs::path& home, const EnvironmentLookup& env)
        : home_(absoluteHome(home)), env_(env) {
        appSupport_ = home_ / "Library" / "Application Support";
        configDirs_.push_back(home_ / ".config");
        dataDirs_.push_back(home_ / ".local" / "share");
        // The XDG rules ignore relative values; the defaults stay because an agent started
        // from another session may still have written there.
        if (auto dir = xdgDir("XDG_CONFIG_HOME")) {
            configDirs_.push_back(*dir);
        }
        if (auto dir = xdgDir("XDG_DATA_HOME")) {
            dataDirs_.push_back(*dir);
        }
    }

    const fs::path& home() const { return home_; }

    void addHome(const fs::path& relative) { add(home_ / relative); }
    void addAppSupport(const fs::path& relative) { add(appSupport_ / relative); }

    // Electron and VS Code-style apps: the macOS application-support folder and the XDG
    // config folders.
    void addApp(const fs::path& relative) {
        addAppSupport(relative);
        addConfig(relative);
    }

    void addConfig(const fs::path& relative) {
        for (const auto& dir : configDirs_) {
            add(dir / relative);
        }
    }

    void addData(const fs::path& relative) {
        for (const auto& dir : dataDirs_) {
            add(dir / relative);
        }
    }

    // A variable naming a folder (or file) that replaces or adds to the default location.
    void addEnv(std::string_view name) {
        if (auto value = lookup(name)) {
            add(resolveAgainstHome(*value, home_));
        }
    }

    // Like addEnv, for variables that name a replacement home folder.
    void addEnvHome(std::string_view name, const fs::path& relative) {
        if (auto value = lookup(name)) {
            add(resolveAgainstHome(*value, home_) / relative);
        }
    }

    void add(const fs::path& path) {
        fs::path root = normalised(path);
        if (std::find(roots_.begin(), roots_.end(), root) == roots_.end()) {
            roots_.push_back(std::move(root));
        }
    }

    std::optional<std::string> lookup(std::string_view name) const {
        if (!env_) {
            return std::nullopt;
        }
        auto value = env_(name);
        if (!value || value->empty()) {
            return std::nullopt;
        }
        return value;
    }

    std::vector<fs::path> take() { return std::move(roots_); }

  private:
    static fs::path absoluteHome(const fs::path& home) {
        if (home.is_absolute()) {
            return home;
        }
        std::error_code ec;
        fs::path out = fs::absolute(home, ec);
        return ec ? home : out;
    }

    std::optional<fs::path> xdgDir(std::string_view name) const {
        auto value = lookup(name);
        if (!value) {
            return std::nullopt;
        }
        fs::path dir{*value};
        if (!dir.is_absolute()) {
            return std::nullopt;
        }
        return dir;
    }

    fs::path home_;
    const EnvironmentLookup& env_;
    fs::path appSupport_;
    std::vector<fs::path> configDirs_;
    std::vector<fs::path> dataDirs_;
    std::vector<fs::path> roots_;
};

// The text of a small regular file, or nothing (missing, not a regular file, too large,
// unreadable). Never opens a FIFO or device, which could block.
std::optional<std::string> readSmallFile(const fs::path& path, std::uintmax_t maxBytes) {
    std::error_code ec;
    if (!fs::is_regular_file(path, ec) || ec) {
        return std::nullopt;
    }
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        return std::nullopt;
    }
    std::string text;
    // One byte more than allowed tells a file that grew past the cap after the check above.
    text.resize(static_cast<std::size_t>(maxBytes) + 1);
    in.read(text.data(), static_cast<std::streamsize>(text.size()));
    const auto got = static_cast<std::size_t>(in.gcount());
    if (in.bad() || got > maxBytes) {
        return std::nullopt;
    }
    text.resize(got);
    return text;
}

// The workspace folders Craft's config.json lists; anything malformed is passed over.
std::vector<fs::path> craftWorkspaces(const fs::path& configDir, const fs::path& home) {
    std::vector<fs::path> out;
    auto text = readSmallFile(configDir / "config.json", kCraftConfigMaxBytes);
    if (!text) {
        return out;
    }
    const auto config = nlohmann::json::parse(*text, nullptr, /*allow_exceptions=*/false);
    if (!config.is_object()) {
        return out;
    }
    const auto workspaces = config.find("workspaces");
    if (workspaces == config.end() || !workspaces->is_array()) {
        return out;
    }
    for (const auto& workspace : *workspaces) {
        if (!workspace.is_object()) {
            continue;
        }
        const auto rootPath = workspace.find("rootPath");
        if (rootPath == workspace.end() || !rootPath->is_string()) {
            continue;
        }
        const auto& value = rootPath->get_ref<const std::string&>();
        if (!value.empty()) {
            out.push_back(resolveAgainstHome(value, home));
        }
    }
    return out;
}

void addEditorExtension(Resolver& r, std::string_view extensionID) {
    for (auto editor : kExtensionHostEditors) {
        r.addApp(fs::path(editor) / "User" / "globalStorage" / extensionID);
    }
}

// Fills the roots of `source`; false for sources that keep nothing on this machine.
bool collectRoots(AgentSource source, Resolver& r) {
    using S = AgentSource;
    switch (source) {
        case S::claude:
            r.addHome(".claude");
            r.addConfig("claude");
            r.addEnv("CLAUDE_CONFIG_DIR");
            return true;
        case S::codex:
            r.addHome(".codex");
            r.addEnv("CODEX_HOME");
            return true;
        case S::cursor:
            r.addHome(".cursor");
            r.addApp("Cursor/User/globalStorage");
            return true;
        case S::gemini:
            r.addHome(".gemini");
            r.addEnvHome("GEMINI_CLI_HOME", ".gemini");
            return true;
        case S::antigravity:
            r.addHome(".gemini/antigravity");
            r.addHome(".gemini/antigravity-ide");
            r.addHome(".gemini/antigravity-cli");
            return true;
        case S::kiro:
            r.addHome(".kiro");
            r.addHome("kiro-cli");
            r.addApp("Kiro/User/globalStorage/kiro.kiroagent");
            // The CLI's database: application support on macOS, XDG data on Linux, where the
            // CLI's former name may still hold it.
            r.addAppSupport("kiro-cli");
            r.addData("kiro-cli");
            r.addData("amazon-q");
            return true;
        case S::opencode:
            r.addData("opencode");
            r.addConfig("opencode");
            r.addEnv("OPENCODE_DB");
            return true;
        case S::openclaw:
            r.addHome(".openclaw");
            return true;
        case S::everyCode:
            r.addHome(".code");
            r.addEnv("CODE_HOME");
            return true;
        case S::hermes:
            r.addHome(".hermes");
            r.addEnv("HERMES_HOME");
            return true;
        case S::copilot:
            r.addHome(".copilot");
            r.addEnv("COPILOT_HOME");
            return true;
        case S::kimi:
            r.addHome(".kimi");
            r.addHome(".kimi-code");
            r.addEnv("KIMI_SHARE_DIR");
            r.addEnv("KIMI_CODE_HOME");
            return true;
        case S::codebuddy:
            r.addHome(".codebuddy");
            return true;
        case S::workbuddy:
            r.addHome(".workbuddy");
            r.addHome(".workbuddy-ai");
            return true;
        case S::grok:
            r.addHome(".grok");
            r.addEnv("GROK_HOME");
            return true;
        case S::omp:
            // Whole folder: profiles keep their own sessions beside agent/.
            r.addHome(".omp");
            r.addEnv("OMP_CODING_AGENT_DIR");
            return true;
        case S::pi:
            r.addHome(".pi/agent");
            r.addEnv("PI_CODING_AGENT_DIR");
            return true;
        case S::dots:
            r.addHome(".dots");
            return true;
        case S::primeAgent:
            r.addHome(".prime");
            r.addEnv("PRIME_AGENT_CODING_AGENT_DIR");
            return true;
        case S::craft: {
            std::vector<fs::path> configDirs{r.home() / ".craft-agent"};
            if (auto dir = r.lookup("CRAFT_CONFIG_DIR")) {
                configDirs.push_back(resolveAgainstHome(*dir, r.home()));
            }
            for (const auto& dir : configDirs) {
                r.add(dir);
            }
            for (const auto& dir : configDirs) {
                for (const auto& workspace : craftWorkspaces(dir, r.home())) {
                    r.add(workspace);
                }
            }
            return true;
        }
        case S::reasonix:
            r.addHome(".reasonix");
            r.addConfig("reasonix");
            return true;
        case S::kiloCLI:
            r.addData("kilo");
            r.addEnv("KILO_DB");
            return true;
        case S::kiloCode:
            addEditorExtension(r, "kilocode.kilo-code");
            return true;
        case S::rooCode:
            addEditorExtension(r, "rooveterinaryinc.roo-cline");
            return true;
        case S::zed:
            r.addAppSupport("Zed/threads");
            r.addData("zed/threads");
            return true;
        case S::goose:
            r.addData("goose");
            r.addData("Block/goose");
            r.addEnv("GOOSE_PATH_ROOT");
            return true;
        case S::droid:
            r.addHome(".factory");
            return true;
        case S::mimo:
            r.addData("mimocode");
            return true;
        case S::zcode:
            r.addHome(".zcode");
            return true;
        case S::qoder:
            r.addApp("Qoder/SharedClientCache/cache/db");
            return true;
        case S::qoderCN:
            r.addApp("QoderCN/SharedClientCache/cache/db");
            return true;
        case S::anythingLLM:
            r.addApp("anythingllm-desktop/storage");
            return true;
        case S::claudeScience:
            r.addHome(".claude-science");
            return true;
        case S::deepseekHarness:
            r.addHome(".dsh");
            r.addEnv("DSH_HOME");
            return true;
        case S::traeWorkCN:
            r.addApp("TRAE SOLO CN");
            return true;
        case S::openrouter:
        case S::deepseek:
            return false;
    }
    return false;
}

AgentDataFormat formatOf(AgentSource source) {
    using S = AgentSource;
    using F = AgentDataFormat;
    switch (source) {
        case S::claude:
            return F::claudeJSONL;
        case S::codex:
        case S::everyCode:
            return F::codexJSONL;
        case S::pi:
        case S::omp:
        case S::primeAgent:
        case S::craft:
            return F::piJSONL;
        case S::gemini:
            return F::geminiSession;
        case S::antigravity:
            return F::antigravityTranscript;
        case S::cursor:
        case S::kiro:
        case S::zed:
        case S::goose:
        case S::hermes:
        case S::qoder:
        case S::qoderCN:
        case S::anythingLLM:
        case S::zcode:
        case S::traeWorkCN:
            return F::sqlite;
        case S::opencode:
        case S::kiloCLI:
        case S::mimo:
            return F::openCode;
        case S::openclaw:
            return F::openClaw;
        case S::copilot:
            return F::copilot;
        case S::deepseekHarness:
            return F::deepseekHarness;
        case S::droid:
            return F::cumulativeJSON;
        case S::kiloCode:
        case S::rooCode:
            return F::editorTasks;
        case S::kimi:
        case S::codebuddy:
        case S::workbuddy:
        case S::grok:
        case S::dots:
        case S::reasonix:
        case S::claudeScience:
            return F::genericJSONL;
        case S::openrouter:
        case S::deepseek:
            return F::accountAPI;
    }
    return F::native;
}

}  // namespace

std::optional<AgentDataSpec> spec(AgentSource source, const fs::path& home,
                                  const EnvironmentLookup& env) {
    Resolver resolver(home, env);
    if (!collectRoots(source, resolver)) {
        return std::nullopt;
    }
    return AgentDataSpec{source, formatOf(source), resolver.take()};
}

std::vector<fs::path> installedRoots(AgentSource source, const fs::path& home,
                                     const EnvironmentLookup& env) {
    std::vector<fs::path> out;
    auto entry = spec(source, home, env);
    if (!entry) {
        return out;
    }
    for (auto& root : entry->roots) {
        std::error_code ec;
        const bool exists = fs::exists(root, ec);
        // A folder we may not enter is still an installed agent: the status shows it as
        // unreadable rather than absent.
        if (exists || ec == std::errc::permission_denied) {
            out.push_back(std::move(root));
        }
    }
    return out;
}

std::vector<std::string> watchPaths(const fs::path& home, const EnvironmentLookup& env) {
    std::vector<std::string> out;
    std::unordered_set<std::string> seen;
    for (auto source : allCases<AgentSource>()) {
        auto entry = spec(source, home, env);
        if (!entry) {
            continue;
        }
        for (const auto& root : entry->roots) {
            std::string text = root.string();
            if (seen.insert(text).second) {
                out.push_back(std::move(text));
            }
        }
    }
    return out;
}

}  // namespace AgentCatalog
}  // namespace kestrel
