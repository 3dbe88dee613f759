#pragma once
// Plan discovery: finds coding-plan endpoints and their keys where the user's tools keep them
// (Claude Code's settings, Codex's config.toml, the environment, a provider switcher's
// database) and the agents' own OAuth sign-ins, and turns each finding into a plan discovery
// candidate for the user's review.
//
// Keys are read to fingerprint them and are then dropped: a candidate holds the salted
// fingerprint and a locator that says where to read the key again, never the key. A sign-in's
// candidate fingerprints what identifies the sign-in (LiveQuota::signInIdentity), never a token.

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "core/ledger/plan_candidate_records.hpp"
#include "core/model/agent_source.hpp"
#include "core/plans/plan_probes.hpp"
#include "core/sources/agent_catalog.hpp"

namespace kestrel {

class KeyStore;

enum class CredentialOrigin { ccswitch, harnessFile, env, oauth, userPaste };
enum class CredentialResolution {
    available,
    missing,
    encryptedUnreadable,
    placeholder,
    permissionDenied,
    sourceChanged,
};

std::string_view rawValue(CredentialOrigin origin);
std::string_view rawValue(CredentialResolution resolution);
std::optional<PlanFamily> planFamilyFromRaw(std::string_view raw);
std::optional<PlanRegion> planRegionFromRaw(std::string_view raw);

// One endpoint with its key, as found in one place.
struct PlanFinding {
    AgentSource tool = AgentSource::claude;  // whose configuration it serves
    std::string sourceDisplayName;           // "~/.claude/settings.json", "CC Switch: GLM", ...
    std::string sourceEntryID;               // the entry inside that place
    bool isCurrent = false;                  // the tool uses this entry now
    std::string baseURL;
    CredentialOrigin origin = CredentialOrigin::harnessFile;
    std::optional<std::string> locator;  // where the key is read again
    CredentialResolution resolution = CredentialResolution::missing;
    std::optional<std::string> fingerprint;  // of the key, when it was available
    bool codingPlanKey = false;              // the key has a coding-plan prefix ("sk-cp-")

    bool operator==(const PlanFinding&) const = default;
};

// What discovery and credential resolution read.
struct PlanDiscoveryInputs {
    std::filesystem::path home;
    EnvironmentLookup env;  // the process's variables (empty for a demo or test home)
    std::string salt;       // PlanSalt
    KeyStore* keys = nullptr;
};

// A key read again through its locator, for one request.
struct ResolvedCredential {
    CredentialResolution resolution = CredentialResolution::missing;
    std::optional<std::string> secret;  // present only when available
};

namespace PlanDiscovery {

inline constexpr std::string_view kAdapterVersion = "plans-1";

// Each place on its own (for tests), then all of them.
std::vector<PlanFinding> claudeSettings(const PlanDiscoveryInputs& inputs);
std::vector<PlanFinding> codexConfig(const PlanDiscoveryInputs& inputs);
std::vector<PlanFinding> environment(const PlanDiscoveryInputs& inputs);
std::vector<PlanFinding> ccSwitch(const PlanDiscoveryInputs& inputs);
// The sign-ins of the agents with a live quota probe (Claude Code, Codex, Kimi Code, Grok).
std::vector<PlanFinding> oauthSignIns(const PlanDiscoveryInputs& inputs);
std::vector<PlanFinding> findAll(const PlanDiscoveryInputs& inputs);

// Findings that point at a plan family's endpoint (its coding plan or its pay-as-you-go API,
// which often serves the plan too) become candidates; others, such as an official API or a
// relay, are no plan to review. Every sign-in becomes one (family "oauth", the agent as its
// tool, proposed account "oauth-<agent>-<fingerprint>"). Ids, binding keys, revisions and
// proposed accounts are salted digests, stable across scans while the finding stays the same.
std::vector<PlanCandidateRecord> candidates(const std::vector<PlanFinding>& findings,
                                            std::string_view salt, double now);

inline constexpr std::string_view kOAuthFamily = "oauth";

// Reads the key behind `locator` again ("env:NAME", "file:REL#/json/pointer",
// "toml:REL#dotted.key", "ccswitch:APP/ID#/json/pointer", "keystore:NAME"), or for "oauth:AGENT"
// the sign-in's identity.
ResolvedCredential resolve(std::string_view locator, const PlanDiscoveryInputs& inputs);

// The agent of an "oauth:AGENT" locator; absent for every other locator.
std::optional<AgentSource> signInAgent(std::string_view locator);

// True for values people leave in templates ("", "${KEY}", "<your key>", "sk-xxxx").
bool isPlaceholder(std::string_view value);

}  // namespace PlanDiscovery
}  // namespace kestrel
