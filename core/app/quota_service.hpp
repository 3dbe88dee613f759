#pragma once
// The quota side of a session: refreshes the probes the user switched on and lists every stored
// reading, agent subscriptions first, then API plan accounts.

#include <chrono>
#include <expected>
#include <optional>
#include <string>
#include <vector>

#include "core/app/app_session.hpp"
#include "core/model/account_snapshot.hpp"
#include "core/plans/live_quota.hpp"
#include "core/plans/quota_refresher.hpp"

namespace kestrel {

// Why an agent's probe did not run.
enum class QuotaSkipReason {
    quotaOff,  // the integration's quota capability is off (or its permissions not granted)
    noProbe,   // the agent has a quota capability but no usage endpoint Kestrel knows
};

struct QuotaAccountRow {
    std::string accountID;                       // "source:<agent>" or "plan:<account>"
    std::optional<AgentSource> source;           // agent subscriptions only
    std::optional<AccountSnapshot> snapshot;     // the stored reading after any refresh
    std::optional<QuotaRefreshOutcome> refresh;  // when this call probed the account
    std::optional<QuotaSkipReason> skipped;      // when a refresh was asked and not made
    // An agent's sign-in that a plan review confirmed: the account ("plan:oauth-...") this
    // reading belongs to. The reading stays the agent's own; the account adds no second row.
    std::optional<std::string> confirmedAccountID;

    bool operator==(const QuotaAccountRow&) const = default;
};

struct QuotaReport {
    std::vector<QuotaAccountRow> rows;
    double now = 0;
};

class KeyStore;

struct QuotaRequest {
    bool refresh = false;
    std::chrono::milliseconds timeout{15000};
    // The user's API keys: each stored key is asked for its balance or plan on a refresh.
    KeyStore* keys = nullptr;
};

// The agents whose subscription quota Kestrel can probe, in plug-in order.
std::vector<AgentSource> liveQuotaSources();

// With `request.refresh`, probes every agent whose quota capability may run (others say why they
// were skipped), every plan account confirmed in a review whose tool's quota may run, and every
// key in `request.keys`, and stores the readings; then lists what is stored. `refresher` carries
// request numbers and back-off between calls (the desktop app keeps one for its life).
QuotaReport quotaReport(AppSession& session, const QuotaRequest& request, QuotaRefresher& refresher,
                        TokenCache& tokens);

struct QuotaSwitch {
    IntegrationInstance instance;  // as it is now
    bool changed = false;
};

enum class QuotaSwitchError {
    noInstance,    // reconciling made none for the agent
    notSupported,  // the agent has no subscription quota
    instanceGone,  // removed from the ledger meanwhile
};

// Switches the agent's quota capability with the network and credential permissions it needs
// (`on`), or off. Switching it on enables the integration when it was disabled.
std::expected<QuotaSwitch, QuotaSwitchError> setQuotaCapability(AppSession& session,
                                                                const IntegrationPlugin& plugin,
                                                                bool on);

}  // namespace kestrel
