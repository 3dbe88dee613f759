#include "cli/quota_command.hpp"

#include <fmt/format.h>

#include <cmath>
#include <nlohmann/json.hpp>

#include "cli/cli.hpp"
#include "cli/session_access.hpp"
#include "core/app/integration_status.hpp"
#include "core/app/quota_service.hpp"
#include "core/model/timestamp.hpp"
#include "core/plans/key_store.hpp"
#include "core/plans/quota_state_store.hpp"

namespace kestrel::cli {
namespace {

using ojson = nlohmann::ordered_json;

std::string_view kindKey(QuotaWindowKind kind) {
    switch (kind) {
        case QuotaWindowKind::session5h:
            return "quota.window.session5h";
        case QuotaWindowKind::weekly:
            return "quota.window.weekly";
        case QuotaWindowKind::weeklyModelScoped:
            return "quota.window.weeklyModelScoped";
        case QuotaWindowKind::monthly:
            return "quota.window.monthly";
        case QuotaWindowKind::extraCredits:
            return "quota.window.extraCredits";
        case QuotaWindowKind::apiPrepaid:
            return "quota.window.apiPrepaid";
    }
    return "quota.window.weekly";
}

std::string_view provenanceKey(QuotaProvenance provenance) {
    switch (provenance) {
        case QuotaProvenance::localSession:
            return "quota.provenance.localSession";
        case QuotaProvenance::localCache:
            return "quota.provenance.localCache";
        case QuotaProvenance::liveOAuth:
            return "quota.provenance.liveOAuth";
        case QuotaProvenance::liveAPIKey:
            return "quota.provenance.liveAPIKey";
        case QuotaProvenance::relay:
            return "quota.provenance.relay";
    }
    return "quota.provenance.localCache";
}

// "2d 4h", "3h 12m", "8m", "<1m".
std::string duration(double seconds) {
    const auto total = static_cast<long long>(std::max(0.0, seconds));
    const long long days = total / 86400, hours = total % 86400 / 3600, minutes = total % 3600 / 60;
    if (days > 0) {
        return fmt::format("{}d {}h", days, hours);
    }
    if (hours > 0) {
        return fmt::format("{}h {}m", hours, minutes);
    }
    return minutes > 0 ? fmt::format("{}m", minutes) : std::string("<1m");
}

std::string bar(double percent) {
    constexpr int width = 20;
    const int filled = static_cast<int>(std::lround(std::clamp(percent, 0.0, 100.0) / 100 * width));
    return "[" + std::string(static_cast<std::size_t>(filled), '#') +
           std::string(static_cast<std::size_t>(width - filled), '.') + "]";
}

std::string amount(double value) {
    return std::fabs(value - std::round(value)) < 1e-9 ? fmt::format("{:.0f}", value)
                                                       : fmt::format("{:.2f}", value);
}

std::string accountTitle(const QuotaAccountRow& row) {
    if (row.source) {
        // A sign-in confirmed in a plan review names its account; the reading stays one row.
        return std::string(displayName(*row.source)) +
               (row.confirmedAccountID ? " (" + *row.confirmedAccountID + ")" : std::string());
    }
    if (row.snapshot && row.snapshot->identity.displayName) {
        return *row.snapshot->identity.displayName + " (" + row.accountID + ")";
    }
    return row.accountID;
}

std::string skipText(const Texts& t, const QuotaAccountRow& row) {
    const std::string agent = row.source ? std::string(rawValue(*row.source)) : row.accountID;
    if (row.skipped == QuotaSkipReason::quotaOff && !row.source) {
        return t("quota.skip.planQuotaOff");
    }
    if (row.skipped == QuotaSkipReason::quotaOff) {
        return t("quota.skip.quotaOff", {{"agent", agent}});
    }
    return t("quota.skip.noProbe");
}

std::string refreshText(const Texts& t, const QuotaRefreshOutcome& outcome, double now) {
    using S = QuotaRefreshOutcome::Status;
    switch (outcome.status) {
        case S::refreshed:
            return {};
        case S::notSignedIn:
            return t("quota.refresh.notSignedIn");
        case S::noKey:
            return t("quota.refresh.noKey");
        case S::unsupported:
            return t("quota.skip.noProbe");
        case S::superseded:
            return {};
        case S::backingOff:
            return t("quota.refresh.backingOff",
                     {{"wait", duration(outcome.retryAt.value_or(now) - now)}});
        case S::failed:
            break;
    }
    const auto& error = *outcome.error;
    std::string text =
        t(std::string("quota.error.") + std::string(ProbeErrors::kindName(error.kind)),
          {{"detail", error.detail}});
    if (outcome.retryAt) {
        text += " " + t("quota.refresh.retryIn", {{"wait", duration(*outcome.retryAt - now)}});
    }
    return text;
}

void printWindow(CommandContext& ctx, const Texts& t, const QuotaWindow& w, double now) {
    std::string name = t(kindKey(w.kind));
    if (w.scopeKey) {
        name += " " + *w.scopeKey;
    } else if (w.kind == QuotaWindowKind::apiPrepaid && w.label) {
        name += " " + *w.label;
    }
    std::string line = fmt::format("  {:<22} ", name);
    if (w.usedPercent) {
        line += fmt::format("{} {:>3.0f}%", bar(*w.usedPercent), *w.usedPercent);
    } else {
        line += std::string(27, ' ');
    }
    if (w.usedValue && w.limitValue) {
        line += fmt::format("  {} / {}{}", amount(*w.usedValue), amount(*w.limitValue),
                            w.currency ? " " + *w.currency : std::string());
    }
    if (w.remainingLabel) {
        line += "  " + t("quota.remaining", {{"amount", *w.remainingLabel}});
    }
    if (w.resetsAt && *w.resetsAt > now) {
        line += "  " + t("quota.resetsIn", {{"wait", duration(*w.resetsAt - now)}});
    } else if (w.resetsAt) {
        // The window this reading measured is over: its figures say nothing of the new one.
        line += "  " + t("quota.resetPassed", {{"wait", duration(now - *w.resetsAt)}});
    }
    while (!line.empty() && line.back() == ' ') {
        line.pop_back();
    }
    ctx.out << line << '\n';
}

ojson optionalJSON(const auto& value) {
    return value ? ojson(*value) : ojson(nullptr);
}

ojson windowJSON(const QuotaWindow& w) {
    return {{"kind", std::string(rawValue(w.kind))},
            {"scope", optionalJSON(w.scopeKey)},
            {"label", optionalJSON(w.label)},
            {"usedPercent", optionalJSON(w.usedPercent)},
            {"usedValue", optionalJSON(w.usedValue)},
            {"limitValue", optionalJSON(w.limitValue)},
            {"currency", optionalJSON(w.currency)},
            {"remainingLabel", optionalJSON(w.remainingLabel)},
            {"resetsAt", w.resetsAt ? ojson(formatISO8601UTC(*w.resetsAt)) : ojson(nullptr)}};
}

ojson rowJSON(const QuotaAccountRow& row) {
    ojson doc;
    doc["account"] = row.accountID;
    doc["agent"] = row.source ? ojson(std::string(rawValue(*row.source))) : ojson(nullptr);
    doc["confirmedAccount"] = optionalJSON(row.confirmedAccountID);
    if (row.skipped) {
        doc["skipped"] = row.skipped == QuotaSkipReason::quotaOff ? "quotaOff" : "noProbe";
    }
    if (row.refresh) {
        static constexpr const char* names[] = {"refreshed",  "notSignedIn", "noKey",
                                                "backingOff", "unsupported", "failed",
                                                "superseded"};
        ojson refresh;
        refresh["status"] = names[static_cast<int>(row.refresh->status)];
        refresh["error"] = row.refresh->error
                               ? ojson(std::string(ProbeErrors::kindName(row.refresh->error->kind)))
                               : ojson(nullptr);
        refresh["retryAt"] =
            row.refresh->retryAt ? ojson(formatISO8601UTC(*row.refresh->retryAt)) : ojson(nullptr);
        doc["refresh"] = refresh;
    }
    if (row.snapshot) {
        const auto& s = *row.snapshot;
        doc["plan"] = s.identity.planLabel;
        doc["displayName"] = optionalJSON(s.identity.displayName);
        doc["email"] = optionalJSON(s.identity.emailMasked);
        doc["provenance"] = std::string(rawValue(s.provenance));
        doc["fetchedAt"] = formatISO8601UTC(s.fetchedAt);
        doc["stale"] = s.stale;
        auto windows = ojson::array();
        for (const auto& w : s.windows) {
            windows.push_back(windowJSON(w));
        }
        doc["windows"] = windows;
    } else {
        doc["windows"] = ojson::array();
    }
    return doc;
}

}  // namespace

int runQuota(CommandContext& ctx, const QuotaOptions& options) {
    auto session = openSession(ctx);
    if (!session) {
        return kExitFailure;
    }
    const Texts t = textsOf(*session);
    QuotaRefresher refresher;
    TokenCache tokens;
    // Only a refresh reads keys; a listing leaves the Secret Service alone.
    const auto keys = options.refresh ? openKeyStore(ctx.supportDir, ctx.env) : nullptr;
    // Back-offs and refreshed tokens outlive the process: a command run right after a throttled
    // one waits as the provider asked, and a refreshed sign-in is not refreshed again.
    QuotaStateStore::load(ctx.supportDir, refresher, tokens, epochNow());
    const auto report =
        quotaReport(*session, {options.refresh, options.timeout, keys.get()}, refresher, tokens);
    if (options.refresh) {
        QuotaStateStore::save(ctx.supportDir, refresher, tokens, report.now);
    }

    if (options.json) {
        ojson doc;
        doc["now"] = formatISO8601UTC(report.now);
        auto rows = ojson::array();
        for (const auto& row : report.rows) {
            rows.push_back(rowJSON(row));
        }
        doc["accounts"] = rows;
        ctx.out << doc.dump(2) << '\n';
        return kExitOK;
    }

    if (report.rows.empty()) {
        ctx.out << t(options.refresh ? "quota.none" : "quota.noneStored") << '\n';
        return kExitOK;
    }
    for (const auto& row : report.rows) {
        std::string head = accountTitle(row);
        if (row.snapshot) {
            const auto& s = *row.snapshot;
            if (!s.identity.planLabel.empty()) {
                head += " · " + s.identity.planLabel;
            }
            if (s.identity.emailMasked) {
                head += " · " + *s.identity.emailMasked;
            }
            head += " · " + t(provenanceKey(s.provenance)) + " · " +
                    t("quota.fetchedAgo", {{"wait", duration(report.now - s.fetchedAt)}});
            if (s.stale) {
                head += " · " + t("quota.stale");
            }
        }
        ctx.out << head << '\n';
        if (row.skipped) {
            ctx.out << "  " << skipText(t, row) << '\n';
        } else if (row.refresh) {
            if (const auto note = refreshText(t, *row.refresh, report.now); !note.empty()) {
                ctx.out << "  " << note << '\n';
            }
        }
        if (row.snapshot) {
            for (const auto& w : row.snapshot->windows) {
                printWindow(ctx, t, w, report.now);
            }
        }
    }
    return kExitOK;
}

int runIntegrationsQuota(CommandContext& ctx, const std::string& source, bool on, bool json) {
    const auto plugin = integrationPluginNamed(source);
    if (!plugin) {
        ctx.err << "kestrel: unknown agent \"" << source
                << "\" (known: " << sourceNames(integrationSources()) << ")\n";
        return kExitUsage;
    }
    const auto& descriptor = (*plugin)->descriptor;
    auto session = openSession(ctx);
    if (!session) {
        return kExitFailure;
    }
    const Texts t = textsOf(*session);
    const auto result = setQuotaCapability(*session, **plugin, on);
    if (!result) {
        if (result.error() == QuotaSwitchError::notSupported) {
            ctx.err << "kestrel: "
                    << t("quota.switch.notSupported", {{"agent", descriptor.displayName}}) << '\n';
            return kExitUsage;
        }
        ctx.err << "kestrel: " << descriptor.displayName << " has no integration instance\n";
        return kExitFailure;
    }
    if (json) {
        ojson doc;
        doc["agent"] = std::string(rawValue(descriptor.legacySource));
        doc["quota"] = on;
        doc["changed"] = result->changed;
        ctx.out << doc.dump(2) << '\n';
        return kExitOK;
    }
    const std::string key = on ? (result->changed ? "quota.switch.on" : "quota.switch.alreadyOn")
                               : (result->changed ? "quota.switch.off" : "quota.switch.alreadyOff");
    ctx.out << t(key, {{"agent", descriptor.displayName}}) << '\n';
    return kExitOK;
}

}  // namespace kestrel::cli
