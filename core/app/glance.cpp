#include "core/app/glance.hpp"

#include <algorithm>
#include <cmath>

#include "core/ledger/settings_store.hpp"
#include "core/ledger/store_error.hpp"
#include "core/model/calendar.hpp"

namespace kestrel {

GlanceLevel glanceLevel(std::optional<double> usedPercent) {
    if (!usedPercent || std::isnan(*usedPercent)) {
        return GlanceLevel::normal;
    }
    const double shown = std::round(*usedPercent);
    if (shown >= kGlanceCriticalPercent) {
        return GlanceLevel::critical;
    }
    return shown >= kGlanceWarningPercent ? GlanceLevel::warning : GlanceLevel::normal;
}

int glancePercent(double usedPercent) {
    if (std::isnan(usedPercent)) {
        return 0;
    }
    return static_cast<int>(std::round(std::clamp(usedPercent, 0.0, 100.0)));
}

std::optional<GlanceWindow> tightestWindow(const std::vector<StoredQuota>& quotas, double now,
                                           std::optional<AgentSource> prefer) {
    std::optional<GlanceWindow> best, bestPreferred;
    const auto tighter = [](const GlanceWindow& a, const std::optional<GlanceWindow>& b) {
        if (!b) {
            return true;
        }
        if (*a.window.usedPercent != *b->window.usedPercent) {
            return *a.window.usedPercent > *b->window.usedPercent;
        }
        // The same share used: the one that frees up later binds longer.
        const double ra = a.window.resetsAt.value_or(INFINITY);
        const double rb = b->window.resetsAt.value_or(INFINITY);
        return ra > rb;
    };
    for (const auto& [accountID, snapshot] : quotas) {
        for (const auto& w : snapshot.windows) {
            if (!w.usedPercent || !std::isfinite(*w.usedPercent)) {
                continue;
            }
            if (w.resetsAt && *w.resetsAt <= now) {
                continue;  // its period is over; what it said is no longer true
            }
            GlanceWindow candidate{accountID,          snapshot.identity.source,
                                   snapshot.identity.planLabel, w, snapshot.fetchedAt,
                                   snapshot.stale};
            if (tighter(candidate, best)) {
                best = candidate;
            }
            if (prefer && snapshot.identity.source == *prefer && tighter(candidate, bestPreferred)) {
                bestPreferred = candidate;
            }
        }
    }
    return bestPreferred ? bestPreferred : best;
}

Glance readGlance(UsageStore& store, const GlanceRequest& request) {
    Glance g;
    g.now = request.now;
    try {
        g.settings = SettingsStore::load(store).settings;

        const Calendar calendar = Calendar::current();
        LedgerQuery today;
        today.from = calendar.startOfDay(request.now);
        LedgerQuery lastHour;
        lastHour.from = request.now - 3600;
        lastHour.to = request.now;
        std::vector<LedgerQuery> queries{today, lastHour};
        if (request.sessionKey && !request.sessionKey->empty()) {
            LedgerQuery session;
            session.sessionKey = *request.sessionKey;
            queries.push_back(session);
        }
        const auto summaries = store.ledgerSummaries(queries);
        g.today = summaries.at(0);
        g.lastHour = summaries.at(1);
        if (summaries.size() > 2 && summaries[2].eventCount > 0) {
            g.session = summaries[2];
        }

        std::vector<StoredQuota> quotas;
        for (auto& snapshot : store.quotas()) {
            std::string id = "source:" + std::string(rawValue(snapshot.identity.source));
            quotas.push_back({std::move(id), std::move(snapshot)});
        }
        for (auto& [accountID, snapshot] : store.planQuotas()) {
            quotas.push_back({"plan:" + accountID, std::move(snapshot)});
        }
        g.tightest = tightestWindow(quotas, request.now, request.preferSource);
        g.ledgerRead = true;
    } catch (const std::exception& e) {
        // Locked past the short wait, or damaged: the caller shows what it has.
        g = Glance{};
        g.now = request.now;
        g.ledgerProblem = e.what();
    }
    return g;
}

Glance readGlance(const std::filesystem::path& supportDir, const GlanceRequest& request) {
    std::error_code ec;
    if (!std::filesystem::exists(supportDir / UsageStore::kFileName, ec)) {
        Glance g;
        g.now = request.now;
        g.ledgerProblem = "no ledger yet in " + supportDir.string();
        return g;
    }
    try {
        UsageStore store(supportDir, ReadOnlyLedger{});
        return readGlance(store, request);
    } catch (const std::exception& e) {
        Glance g;
        g.now = request.now;
        g.ledgerProblem = e.what();
        return g;
    }
}

}  // namespace kestrel
