#include "core/plans/plan_discovery.hpp"

#include <sqlite3.h>
#include <toml++/toml.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <expected>
#include <iterator>
#include <nlohmann/json.hpp>
#include <span>

#include "core/plans/crypto_internals.hpp"
#include "core/plans/endpoint_classifier.hpp"
#include "core/plans/key_store.hpp"
#include "core/plans/live_quota.hpp"
#include "core/plans/plan_salt.hpp"

namespace kestrel {

std::string_view rawValue(CredentialOrigin origin) {
    switch (origin) {
        case CredentialOrigin::ccswitch:
            return "ccswitch";
        case CredentialOrigin::harnessFile:
            return "harnessFile";
        case CredentialOrigin::env:
            return "env";
        case CredentialOrigin::oauth:
            return "oauth";
        case CredentialOrigin::userPaste:
            return "userPaste";
    }
    return "harnessFile";
}

std::string_view rawValue(CredentialResolution resolution) {
    switch (resolution) {
        case CredentialResolution::available:
            return "available";
        case CredentialResolution::missing:
            return "missing";
        case CredentialResolution::encryptedUnreadable:
            return "encryptedUnreadable";
        case CredentialResolution::placeholder:
            return "placeholder";
        case CredentialResolution::permissionDenied:
            return "permissionDenied";
        case CredentialResolution::sourceChanged:
            return "sourceChanged";
    }
    return "missing";
}

std::optional<PlanFamily> planFamilyFromRaw(std::string_view raw) {
    for (auto f : {PlanFamily::glm, PlanFamily::kimi, PlanFamily::minimax, PlanFamily::ark,
                   PlanFamily::alibaba, PlanFamily::mimo}) {
        if (rawValue(f) == raw) {
            return f;
        }
    }
    return std::nullopt;
}

std::optional<PlanRegion> planRegionFromRaw(std::string_view raw) {
    if (raw == "cn")
        return PlanRegion::cn;
    if (raw == "global")
        return PlanRegion::global;
    return std::nullopt;
}

namespace PlanDiscovery {
namespace {

using json = nlohmann::json;

constexpr std::string_view kClaudeSettings = ".claude/settings.json";
constexpr std::string_view kCodexConfig = ".codex/config.toml";
constexpr std::string_view kSwitcherDatabase = ".cc-switch/cc-switch.db";

// The environment-variable names under which Claude Code takes a gateway's URL and key.
constexpr std::string_view kAnthropicBase = "ANTHROPIC_BASE_URL";
constexpr std::array<std::string_view, 2> kAnthropicKeys = {"ANTHROPIC_AUTH_TOKEN",
                                                            "ANTHROPIC_API_KEY"};

std::optional<json> readJSON(const std::filesystem::path& path) {
    const auto text = crypto::readWholeFile(path);
    if (!text) {
        return std::nullopt;
    }
    auto doc = json::parse(*text, nullptr, false);
    if (doc.is_discarded()) {
        return std::nullopt;
    }
    return doc;
}

// Absent for text that is not TOML.
std::optional<toml::table> parseTOML(std::string_view text) {
    try {
        return toml::parse(text);
    } catch (const toml::parse_error&) {
        return std::nullopt;
    }
}

bool unreadableButPresent(const std::filesystem::path& path) {
    std::error_code ec;
    return std::filesystem::exists(path, ec) && !crypto::readWholeFile(path);
}

std::string stringAt(const json& doc, std::string_view pointer) {
    try {
        const auto& value = doc.at(json::json_pointer(std::string(pointer)));
        return value.is_string() ? value.get<std::string>() : std::string();
    } catch (const json::exception&) {
        return {};
    }
}

// A key's value as found: missing when empty, placeholder for a template value.
ResolvedCredential credentialFrom(std::optional<std::string> value) {
    ResolvedCredential out;
    if (!value || value->empty()) {
        out.resolution = CredentialResolution::missing;
    } else if (isPlaceholder(*value)) {
        out.resolution = CredentialResolution::placeholder;
    } else {
        out.resolution = CredentialResolution::available;
        out.secret = std::move(value);
    }
    return out;
}

// Fills resolution, fingerprint and the key's coding-plan mark from the key's value.
void takeKey(PlanFinding& finding, std::optional<std::string> secret, std::string_view salt) {
    const auto key = credentialFrom(std::move(secret));
    finding.resolution = key.resolution;
    if (key.secret) {
        finding.fingerprint = credentialFingerprint(salt, *key.secret);
        finding.codingPlanKey = key.secret->starts_with("sk-cp-");
    }
}

// Points `finding` at the first of `names` that `lookUp` has a value for, and takes that key;
// without any, the key is missing.
template <typename LookUp>
void takeFirstKey(PlanFinding& finding, std::span<const std::string_view> names,
                  std::string_view locatorPrefix, std::string_view salt, const LookUp& lookUp) {
    for (const auto name : names) {
        if (std::optional<std::string> value = lookUp(name)) {
            finding.locator = std::string(locatorPrefix) + std::string(name);
            takeKey(finding, std::move(value), salt);
            return;
        }
    }
    takeKey(finding, std::nullopt, salt);
}

std::optional<std::string> envValue(const PlanDiscoveryInputs& inputs, std::string_view name) {
    if (!inputs.env) {
        return std::nullopt;
    }
    auto value = inputs.env(name);
    if (value && value->empty()) {
        return std::nullopt;
    }
    return value;
}

// A Claude-style `env` object: the gateway URL and the first key variable present.
std::optional<PlanFinding> fromEnvObject(const json& env, std::string_view pointerPrefix,
                                         std::string_view salt) {
    const std::string base(kAnthropicBase);
    if (!env.is_object() || !env.contains(base) || !env.at(base).is_string()) {
        return std::nullopt;
    }
    PlanFinding finding;
    finding.baseURL = env.at(base).get<std::string>();
    takeFirstKey(finding, kAnthropicKeys, pointerPrefix, salt,
                 [&](std::string_view keyName) -> std::optional<std::string> {
                     const std::string name(keyName);
                     if (env.contains(name) && env.at(name).is_string()) {
                         return env.at(name).get<std::string>();
                     }
                     return std::nullopt;
                 });
    return finding;
}

// The base URL and key location of a Codex config's provider: `model_provider` chosen, or the
// one named.
struct CodexProvider {
    std::string name;
    std::string baseURL;
    std::optional<std::string> envKey;
    bool hasBearer = false;
};

std::vector<CodexProvider> codexProviders(const toml::table& config, std::string* current) {
    std::vector<CodexProvider> out;
    if (current) {
        *current = config["model_provider"].value_or(std::string());
    }
    const auto* providers = config["model_providers"].as_table();
    if (!providers) {
        return out;
    }
    for (const auto& [key, node] : *providers) {
        const auto* table = node.as_table();
        if (!table) {
            continue;
        }
        CodexProvider p;
        p.name = std::string(key.str());
        p.baseURL = (*table)["base_url"].value_or(std::string());
        if (auto envKey = (*table)["env_key"].value<std::string>()) {
            p.envKey = *envKey;
        }
        p.hasBearer = (*table)["experimental_bearer_token"].is_string();
        if (!p.baseURL.empty()) {
            out.push_back(std::move(p));
        }
    }
    return out;
}

std::optional<AgentSource> switcherTool(std::string_view appType) {
    if (appType == "claude")
        return AgentSource::claude;
    if (appType == "codex")
        return AgentSource::codex;
    if (appType == "gemini")
        return AgentSource::gemini;
    return std::nullopt;
}

// Reads the switcher's provider rows read-only; each row is (app, id, name, settings, current).
struct SwitcherRow {
    std::string app, id, name, settings;
    bool current = false;
};

std::vector<SwitcherRow> switcherRows(const std::filesystem::path& path, bool* denied) {
    std::vector<SwitcherRow> out;
    std::error_code ec;
    if (!std::filesystem::exists(path, ec)) {
        return out;
    }
    sqlite3* db = nullptr;
    const std::string uri = "file:" + path.string() + "?mode=ro";
    if (sqlite3_open_v2(uri.c_str(), &db, SQLITE_OPEN_READONLY | SQLITE_OPEN_URI, nullptr) !=
        SQLITE_OK) {
        sqlite3_close(db);
        *denied = true;
        return out;
    }
    sqlite3_busy_timeout(db, 200);
    sqlite3_exec(db, "PRAGMA query_only=1;", nullptr, nullptr, nullptr);
    bool hasCurrent = false;
    {
        sqlite3_stmt* info = nullptr;
        if (sqlite3_prepare_v2(db, "PRAGMA table_info(providers);", -1, &info, nullptr) ==
            SQLITE_OK) {
            while (sqlite3_step(info) == SQLITE_ROW) {
                const auto* name = reinterpret_cast<const char*>(sqlite3_column_text(info, 1));
                hasCurrent = hasCurrent || (name && std::string_view(name) == "is_current");
            }
        }
        sqlite3_finalize(info);
    }
    const std::string sql = std::string("SELECT app_type, id, name, settings_config, ") +
                            (hasCurrent ? "is_current" : "0") + " FROM providers;";
    sqlite3_stmt* select = nullptr;
    if (sqlite3_prepare_v2(db, sql.c_str(), -1, &select, nullptr) != SQLITE_OK) {
        sqlite3_finalize(select);
        sqlite3_close(db);
        return out;
    }
    const auto column = [&](int i) {
        const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(select, i));
        return text ? std::string(text) : std::string();
    };
    while (sqlite3_step(select) == SQLITE_ROW) {
        out.push_back(
            {column(0), column(1), column(2), column(3), sqlite3_column_int64(select, 4) != 0});
    }
    sqlite3_finalize(select);
    sqlite3_close(db);
    return out;
}

std::string joined(std::initializer_list<std::string_view> parts) {
    std::string out;
    for (const auto part : parts) {
        out += part;
        out += '\x1f';
    }
    return out;
}

// What every candidate takes from its finding: where it was found, its key, its id.
PlanCandidateRecord candidateOf(const PlanFinding& finding, std::string family, std::string region,
                                std::string_view salt, double now) {
    PlanCandidateRecord c;
    c.family = std::move(family);
    c.region = std::move(region);
    c.toolID = std::string(rawValue(finding.tool));
    c.bindingKey = c.toolID + "|" + finding.sourceEntryID;
    c.id = "pc-" + saltedDigest(salt, joined({c.bindingKey, c.family, c.region}));
    c.sourceDisplayName = finding.sourceDisplayName;
    c.sourceEntryID = finding.sourceEntryID;
    c.isCurrent = finding.isCurrent;
    c.credentialOrigin = std::string(rawValue(finding.origin));
    c.credentialLocator = finding.locator;
    c.credentialFingerprint = finding.fingerprint;
    c.credentialResolution = std::string(rawValue(finding.resolution));
    c.adapterVersion = std::string(kAdapterVersion);
    c.firstSeenAt = now;
    c.lastSeenAt = now;
    return c;
}

// A sign-in's candidate: its account is the agent's subscription, probed with the agent's own
// sign-in; its revision changes with the sign-in (another account signed in), not with tokens.
std::optional<PlanCandidateRecord> signInCandidate(const PlanFinding& finding,
                                                   std::string_view salt, double now) {
    if (!finding.fingerprint || !finding.locator) {
        return std::nullopt;
    }
    auto c = candidateOf(finding, std::string(kOAuthFamily), "global", salt, now);
    c.revision = saltedDigest(
        salt, joined({*finding.locator, *finding.fingerprint, c.credentialResolution}));
    c.proposedAccountID = "oauth-" + c.toolID + "-" + finding.fingerprint->substr(3);
    return c;
}

}  // namespace

std::optional<AgentSource> signInAgent(std::string_view locator) {
    if (!locator.starts_with("oauth:")) {
        return std::nullopt;
    }
    const auto agent = fromRawValue<AgentSource>(locator.substr(6));
    if (!agent || !LiveQuota::probeFor(*agent)) {
        return std::nullopt;
    }
    return agent;
}

bool isPlaceholder(std::string_view value) {
    std::string lower(value);
    std::ranges::transform(lower, lower.begin(),
                           [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return lower.empty() || lower.find("${") != std::string::npos || lower.starts_with("<") ||
           lower.find("your") != std::string::npos || lower.find("xxxx") != std::string::npos ||
           lower == "sk-" || lower.find("placeholder") != std::string::npos;
}

std::vector<PlanFinding> claudeSettings(const PlanDiscoveryInputs& inputs) {
    const auto path = inputs.home / kClaudeSettings;
    std::vector<PlanFinding> out;
    const auto doc = readJSON(path);
    if (!doc || !doc->is_object() || !doc->contains("env")) {
        return out;
    }
    auto finding = fromEnvObject((*doc)["env"], "file:" + std::string(kClaudeSettings) + "#/env/",
                                 inputs.salt);
    if (finding) {
        finding->tool = AgentSource::claude;
        finding->sourceDisplayName = "~/" + std::string(kClaudeSettings);
        finding->sourceEntryID = "settings.env";
        finding->isCurrent = true;
        finding->origin = CredentialOrigin::harnessFile;
        out.push_back(std::move(*finding));
    }
    return out;
}

std::vector<PlanFinding> codexConfig(const PlanDiscoveryInputs& inputs) {
    std::vector<PlanFinding> out;
    const auto text = crypto::readWholeFile(inputs.home / kCodexConfig);
    if (!text) {
        return out;
    }
    const auto parsed = parseTOML(*text);
    if (!parsed) {
        return out;
    }
    std::string current;
    for (const auto& provider : codexProviders(*parsed, &current)) {
        PlanFinding finding;
        finding.tool = AgentSource::codex;
        finding.sourceDisplayName = "~/" + std::string(kCodexConfig);
        finding.sourceEntryID = "model_providers." + provider.name;
        finding.isCurrent = provider.name == current;
        finding.baseURL = provider.baseURL;
        if (provider.hasBearer) {
            finding.origin = CredentialOrigin::harnessFile;
            finding.locator = "toml:" + std::string(kCodexConfig) + "#model_providers." +
                              provider.name + ".experimental_bearer_token";
            takeKey(finding, resolve(*finding.locator, inputs).secret, inputs.salt);
        } else if (provider.envKey) {
            finding.origin = CredentialOrigin::env;
            finding.locator = "env:" + *provider.envKey;
            takeKey(finding, envValue(inputs, *provider.envKey), inputs.salt);
        } else {
            takeKey(finding, std::nullopt, inputs.salt);
        }
        out.push_back(std::move(finding));
    }
    return out;
}

std::vector<PlanFinding> environment(const PlanDiscoveryInputs& inputs) {
    std::vector<PlanFinding> out;
    const auto pair = [&](AgentSource tool, std::string_view base,
                          std::span<const std::string_view> keys) {
        const auto url = envValue(inputs, base);
        if (!url) {
            return;
        }
        PlanFinding finding;
        finding.tool = tool;
        finding.sourceDisplayName = "environment";
        finding.sourceEntryID = "env:" + std::string(base);
        finding.isCurrent = true;
        finding.baseURL = *url;
        finding.origin = CredentialOrigin::env;
        takeFirstKey(finding, keys, "env:", inputs.salt,
                     [&](std::string_view key) { return envValue(inputs, key); });
        out.push_back(std::move(finding));
    };
    constexpr std::array<std::string_view, 1> openAIKeys = {"OPENAI_API_KEY"};
    pair(AgentSource::claude, kAnthropicBase, kAnthropicKeys);
    pair(AgentSource::codex, "OPENAI_BASE_URL", openAIKeys);
    return out;
}

std::vector<PlanFinding> ccSwitch(const PlanDiscoveryInputs& inputs) {
    std::vector<PlanFinding> out;
    bool denied = false;
    for (const auto& row : switcherRows(inputs.home / kSwitcherDatabase, &denied)) {
        const auto tool = switcherTool(row.app);
        const auto settings = json::parse(row.settings, nullptr, false);
        if (!tool || settings.is_discarded() || !settings.is_object()) {
            continue;
        }
        const std::string prefix = "ccswitch:" + row.app + "/" + row.id + "#";
        std::optional<PlanFinding> finding;
        if (*tool == AgentSource::codex) {
            // Codex entries keep auth.json's object and config.toml's text side by side.
            const auto config = parseTOML(settings.value("config", std::string()));
            if (!config) {
                continue;
            }
            std::string current;
            const auto providers = codexProviders(*config, &current);
            const auto chosen = std::ranges::find(providers, current, &CodexProvider::name);
            std::string baseURL = chosen != providers.end() ? chosen->baseURL : std::string();
            if (baseURL.empty()) {
                baseURL = (*config)["base_url"].value_or(std::string());
            }
            if (baseURL.empty()) {
                continue;
            }
            finding = PlanFinding{};
            finding->baseURL = baseURL;
            finding->locator = prefix + "/auth/OPENAI_API_KEY";
            takeKey(*finding, stringAt(settings, "/auth/OPENAI_API_KEY"), inputs.salt);
        } else {
            finding =
                fromEnvObject(settings.value("env", json::object()), prefix + "/env/", inputs.salt);
        }
        if (!finding) {
            continue;
        }
        finding->tool = *tool;
        finding->sourceDisplayName = "CC Switch: " + (row.name.empty() ? row.id : row.name);
        finding->sourceEntryID = "ccswitch:" + row.app + "/" + row.id;
        finding->isCurrent = row.current;
        finding->origin = CredentialOrigin::ccswitch;
        out.push_back(std::move(*finding));
    }
    return out;
}

std::vector<PlanFinding> oauthSignIns(const PlanDiscoveryInputs& inputs) {
    std::vector<PlanFinding> out;
    for (const auto agent :
         {AgentSource::claude, AgentSource::codex, AgentSource::kimi, AgentSource::grok}) {
        const auto identity = LiveQuota::signInIdentity(agent, inputs.home);
        if (!identity) {
            continue;
        }
        PlanFinding finding;
        finding.tool = agent;
        std::error_code ec;
        const auto file = LiveQuota::signInFile(agent, inputs.home);
        finding.sourceDisplayName =
            "~/" + std::filesystem::relative(file, inputs.home, ec).generic_string();
        finding.sourceEntryID = "oauth";
        finding.isCurrent = true;
        finding.origin = CredentialOrigin::oauth;
        finding.locator = "oauth:" + std::string(rawValue(agent));
        // An identity is no template value: an account may well be named "your-team".
        finding.resolution = CredentialResolution::available;
        finding.fingerprint = credentialFingerprint(inputs.salt, *identity);
        out.push_back(std::move(finding));
    }
    return out;
}

std::vector<PlanFinding> findAll(const PlanDiscoveryInputs& inputs) {
    using Place = std::vector<PlanFinding> (*)(const PlanDiscoveryInputs&);
    constexpr std::array<Place, 5> places = {claudeSettings, codexConfig, environment, ccSwitch,
                                             oauthSignIns};
    std::vector<PlanFinding> out;
    for (const auto place : places) {
        std::ranges::move(place(inputs), std::back_inserter(out));
    }
    return out;
}

std::vector<PlanCandidateRecord> candidates(const std::vector<PlanFinding>& findings,
                                            std::string_view salt, double now) {
    std::vector<PlanCandidateRecord> out;
    for (const auto& finding : findings) {
        if (finding.origin == CredentialOrigin::oauth) {
            if (auto c = signInCandidate(finding, salt, now)) {
                out.push_back(std::move(*c));
            }
            continue;
        }
        const auto kind = EndpointClassifier::classify(
            finding.baseURL, finding.codingPlanKey ? "sk-cp-" : "", false);
        // A plan family's pay-as-you-go endpoint often serves its plan too (GLM's Anthropic
        // gateway does both): validation asks the quota endpoint and tells them apart.
        const bool planFamily =
            kind.kind == EndpointKind::Kind::codingPlan || kind.kind == EndpointKind::Kind::payg;
        if (!planFamily || !kind.family || !kind.region) {
            continue;
        }
        auto c = candidateOf(finding, std::string(rawValue(*kind.family)),
                             std::string(rawValue(*kind.region)), salt, now);
        c.endpointBaseURL = EndpointClassifier::sanitizedURL(finding.baseURL);
        c.revision =
            saltedDigest(salt, joined({*c.endpointBaseURL, finding.locator.value_or(""),
                                       finding.fingerprint.value_or(""), c.credentialResolution}));
        // One key is one account, whichever tools use it.
        const std::string identity = finding.fingerprint
                                         ? finding.fingerprint->substr(3)
                                         : saltedDigest(salt, c.bindingKey).substr(0, 12);
        c.proposedAccountID = c.family + "-" + c.region + "-" + identity;
        out.push_back(std::move(c));
    }
    return out;
}

ResolvedCredential resolve(std::string_view locator, const PlanDiscoveryInputs& inputs) {
    const auto split = [&](std::string_view prefix) -> std::pair<std::string, std::string> {
        const auto rest = locator.substr(prefix.size());
        const auto hash = rest.find('#');
        if (hash == std::string_view::npos) {
            return {std::string(rest), {}};
        }
        return {std::string(rest.substr(0, hash)), std::string(rest.substr(hash + 1))};
    };
    // The text of a file below the home folder, or why there is none: a locator from a damaged
    // row cannot point out of home.
    const auto fileText =
        [&](const std::string& relative) -> std::expected<std::string, ResolvedCredential> {
        const std::filesystem::path rel(relative);
        if (rel.is_absolute() || relative.find("..") != std::string::npos) {
            return std::unexpected(credentialFrom(std::nullopt));
        }
        const auto path = inputs.home / rel;
        if (unreadableButPresent(path)) {
            return std::unexpected(
                ResolvedCredential{CredentialResolution::permissionDenied, std::nullopt});
        }
        auto text = crypto::readWholeFile(path);
        if (!text) {
            return std::unexpected(credentialFrom(std::nullopt));
        }
        return std::move(*text);
    };

    if (locator.starts_with("env:")) {
        return credentialFrom(envValue(inputs, locator.substr(4)));
    }
    if (locator.starts_with("oauth:")) {
        const auto agent = signInAgent(locator);
        if (!agent) {
            return credentialFrom(std::nullopt);
        }
        if (unreadableButPresent(LiveQuota::signInFile(*agent, inputs.home))) {
            return {CredentialResolution::permissionDenied, std::nullopt};
        }
        auto identity = LiveQuota::signInIdentity(*agent, inputs.home);
        if (!identity) {
            return credentialFrom(std::nullopt);
        }
        return {CredentialResolution::available, std::move(identity)};
    }
    if (locator.starts_with("keystore:")) {
        if (!inputs.keys) {
            return credentialFrom(std::nullopt);
        }
        auto value = inputs.keys->get(locator.substr(9));
        if (!value) {
            return {CredentialResolution::encryptedUnreadable, std::nullopt};
        }
        return credentialFrom(*value);
    }
    if (locator.starts_with("file:")) {
        const auto [relative, pointer] = split("file:");
        const auto text = fileText(relative);
        if (!text) {
            return text.error();
        }
        const auto doc = json::parse(*text, nullptr, false);
        return credentialFrom(doc.is_discarded() ? std::nullopt
                                                 : std::optional(stringAt(doc, pointer)));
    }
    if (locator.starts_with("toml:")) {
        const auto [relative, dotted] = split("toml:");
        const auto text = fileText(relative);
        if (!text) {
            return text.error();
        }
        const auto parsed = parseTOML(*text);
        if (!parsed) {
            return credentialFrom(std::nullopt);
        }
        return credentialFrom(parsed->at_path(dotted).value<std::string>());
    }
    if (locator.starts_with("ccswitch:")) {
        const auto [entry, pointer] = split("ccswitch:");
        const auto slash = entry.find('/');
        if (slash == std::string::npos) {
            return credentialFrom(std::nullopt);
        }
        bool denied = false;
        for (const auto& row : switcherRows(inputs.home / kSwitcherDatabase, &denied)) {
            if (row.app == entry.substr(0, slash) && row.id == entry.substr(slash + 1)) {
                const auto settings = json::parse(row.settings, nullptr, false);
                return credentialFrom(settings.is_discarded()
                                          ? std::nullopt
                                          : std::optional(stringAt(settings, pointer)));
            }
        }
        return denied ? ResolvedCredential{CredentialResolution::permissionDenied, std::nullopt}
                      : credentialFrom(std::nullopt);
    }
    return credentialFrom(std::nullopt);
}

}  // namespace PlanDiscovery
}  // namespace kestrel
