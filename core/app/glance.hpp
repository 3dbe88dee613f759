#pragma once
// The figures of a quick glance, for a status line or a desktop panel: this session's totals,
// today's, the last hour's (the burn rate) and the quota window closest to its limit. Read from
// the ledger and the stored quota readings only, never the network or the agents' files, and
// without waiting on a scan that holds the ledger: what cannot be read is left out.

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "core/ledger/ledger_query.hpp"
#include "core/ledger/usage_store.hpp"
#include "core/model/account_snapshot.hpp"
#include "core/model/app_settings.hpp"
#include "core/model/enum_cases.hpp"

namespace kestrel {

// How close the tightest window is to its limit, for a panel's colour.
enum class GlanceLevel { normal, warning, critical };

inline constexpr double kGlanceWarningPercent = 50;
inline constexpr double kGlanceCriticalPercent = 80;

template <>
struct EnumCases<GlanceLevel> {
    using E = GlanceLevel;
    static constexpr std::array<std::pair<E, std::string_view>, 3> cases{{
        KESTREL_ENUM_CASE(E, normal),
        KESTREL_ENUM_CASE(E, warning),
        KESTREL_ENUM_CASE(E, critical),
    }};
};

// Levels go by the whole percent the glance shows (rounded to the nearest, halves up, as every
// text of it prints the share), so that a panel never shows "50%" in the normal colour: warning
// from 50 % shown, critical from 80 %; normal below, and without a window.
GlanceLevel glanceLevel(std::optional<double> usedPercent);

// The whole percent shown for `usedPercent`, held to 0..100 (a gauge's range); 0 for NaN.
int glancePercent(double usedPercent);

// One quota window with the account it belongs to.
struct GlanceWindow {
    std::string accountID;              // "source:<agent>" or "plan:<account>"
    AgentSource source = AgentSource::claude;
    std::string planLabel;
    QuotaWindow window;                 // usedPercent is always present
    double fetchedAt = 0;
    bool stale = false;                 // the reading is not current (a failed refresh kept it)

    bool operator==(const GlanceWindow&) const = default;
};

// An account's stored reading, as the store lists them.
struct StoredQuota {
    std::string accountID;
    AccountSnapshot snapshot;
};

// The window with the highest used share among readings whose window has not reset yet (a
// window whose reset time has passed belongs to a period that is over). When `prefer` has such
// windows, only those are considered: an agent's status line shows its own plan first. Ties go
// to the window that resets later (one without a reset time counts as the latest), then to the
// listing order.
std::optional<GlanceWindow> tightestWindow(const std::vector<StoredQuota>& quotas, double now,
                                           std::optional<AgentSource> prefer = std::nullopt);

struct GlanceRequest {
    double now = 0;
    std::optional<std::string> sessionKey;   // the agent's session id, when there is one
    std::optional<AgentSource> preferSource;  // see tightestWindow
};

struct Glance {
    double now = 0;
    // False when the ledger is missing, locked past the short wait, or unreadable; the totals
    // are then zero and `ledgerProblem` says why (for --json and logs, never a status line).
    bool ledgerRead = false;
    std::string ledgerProblem;
    std::optional<LedgerSummary> session;  // absent: no session asked, or none of its events kept
    LedgerSummary today;                   // since local midnight
    LedgerSummary lastHour;                // the hour before `now`: the burn rate per hour
    std::optional<GlanceWindow> tightest;
    AppSettings settings;                  // the stored ones, or the defaults
};

// Reads the glance from the ledger in `supportDir`, opened read-only.
Glance readGlance(const std::filesystem::path& supportDir, const GlanceRequest& request);

// The same over an open store (tests; the desktop app keeps one open).
Glance readGlance(UsageStore& store, const GlanceRequest& request);

}  // namespace kestrel
