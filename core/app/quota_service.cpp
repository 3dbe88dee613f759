#include "core/app/quota_service.hpp"

#include <algorithm>

#include "core/app/integration_status.hpp"
#include "core/ledger/plan_candidate_store.hpp"
#include "core/model/timestamp.hpp"
#include "core/plans/key_store.hpp"
#include "core/plans/plan_discovery.hpp"
#include "core/plans/plan_quota.hpp"
#include "core/plans/plan_salt.hpp"

namespace kestrel {
namespace {

// Plan accounts confirmed in a review: each asked only while a tool it is bound to may run its
// quota; the key is read again through the account's locator for the one request.
void refreshPlanAccounts(AppSession& session, const QuotaRequest& request,
                         QuotaRefresher& refresher, const PlanDiscoveryInputs& inputs, double now,
                         std::vector<QuotaAccountRow>& rows) {
    auto& store = session.store();
    auto& coordinator = session.integrations();
    const KeyProbeContext context{session.paths().env, request.timeout};
    for (const auto& record : PlanCandidateStore::confirmedPlanAccounts(store)) {
        if (record.family == PlanDiscovery::kOAuthFamily) {
            continue;  // read by its agent's probe, under the agent's row
        }
        QuotaAccountRow row;
        row.accountID = "plan:" + record.id;
        const auto family = planFamilyFromRaw(record.family);
        const auto region = planRegionFromRaw(record.region);
        const bool allowed = std::ranges::any_of(
            record.integrationInstanceIDs,
            [&](const auto& id) { return coordinator.canRefreshQuota(IntegrationInstanceID(id)); });
        if (!allowed) {
            row.skipped = QuotaSkipReason::quotaOff;
        } else if (!family || !region) {
            row.skipped = QuotaSkipReason::noProbe;
        } else {
            const PlanAccount account{record.id, *family, *region, record.displayLabel};
            const PlanKeyLookup keys = [&](const std::string&) -> std::optional<std::string> {
                if (!record.credentialHandle) {
                    return std::nullopt;
                }
                return PlanDiscovery::resolve(*record.credentialHandle, inputs).secret;
            };
            row.refresh = PlanQuota::refresh(account, store, keys, refresher, context, now);
        }
        rows.push_back(std::move(row));
    }
}

// Keys the user stored with `kestrel keys set`: storing one is asking for its balance or plan.
void refreshStoredKeys(AppSession& session, const QuotaRequest& request, QuotaRefresher& refresher,
                       double now, std::vector<QuotaAccountRow>& rows) {
    if (!request.keys) {
        return;
    }
    const auto names = request.keys->names();
    if (!names) {
        return;
    }
    auto& store = session.store();
    const KeyProbeContext context{session.paths().env, request.timeout};
    const auto read = [&](const std::string& name) -> std::optional<std::string> {
        auto key = request.keys->get(name);
        return key ? *key : std::nullopt;
    };
    for (const auto& name : *names) {
        QuotaAccountRow row;
        const std::string id = "key-" + name;
        row.accountID = "plan:" + id;
        if (name == "deepseek" || name == "openrouter") {
            const QuotaSlot slot{
                [&] { return store.planQuota(id); },
                [&](const AccountSnapshot& s) { return store.savePlanQuota(id, s); }};
            row.refresh = refresher.refresh(
                id, slot,
                [&] {
                    ProbeAnswer answer;
                    answer.absentStatus = QuotaRefreshOutcome::Status::noKey;
                    const auto key = read(name);
                    if (!key) {
                        return answer;
                    }
                    auto result = name == "deepseek" ? ApiBalance::deepSeek(*key, context, now)
                                                     : ApiBalance::openRouter(*key, context, now);
                    if (result) {
                        answer.snapshot = std::move(*result);
                    } else {
                        answer.error = result.error();
                    }
                    return answer;
                },
                now);
        } else {
            const auto dash = name.find('-');
            const auto family = planFamilyFromRaw(name.substr(0, dash));
            const auto region =
                dash == std::string::npos ? std::nullopt : planRegionFromRaw(name.substr(dash + 1));
            if (!family || !region) {
                row.skipped = QuotaSkipReason::noProbe;
            } else {
                const PlanAccount account{id, *family, *region, name};
                row.refresh = PlanQuota::refresh(
                    account, store, [&](const std::string&) { return read(name); }, refresher,
                    context, now);
            }
        }
        rows.push_back(std::move(row));
    }
}

}  // namespace

std::vector<AgentSource> liveQuotaSources() {
    return {AgentSource::claude, AgentSource::codex, AgentSource::kimi, AgentSource::grok};
}

QuotaReport quotaReport(AppSession& session, const QuotaRequest& request, QuotaRefresher& refresher,
                        TokenCache& tokens) {
    QuotaReport report;
    report.now = epochNow();
    auto& store = session.store();
    std::vector<QuotaAccountRow> rows;

    if (request.refresh) {
        auto& coordinator = session.integrations();
        const ProbeContext context{session.paths().home, session.paths().env, request.timeout,
                                   &tokens};
        for (const auto& plugin : coordinator.registry().plugins()) {
            const AgentSource source = plugin.descriptor.legacySource;
            if (!plugin.descriptor.capabilities().contains(IntegrationCapability::quota)) {
                continue;
            }
            QuotaAccountRow row;
            row.accountID = "source:" + std::string(rawValue(source));
            row.source = source;
            const auto probe = LiveQuota::probeFor(source);
            if (!coordinator.canRun(IntegrationCapability::quota, source)) {
                row.skipped = QuotaSkipReason::quotaOff;
            } else if (!probe) {
                row.skipped = QuotaSkipReason::noProbe;
            } else {
                const QuotaSlot slot{[&] { return store.quota(source); },
                                     [&](const AccountSnapshot& s) { return store.saveQuota(s); }};
                row.refresh = refresher.refresh(
                    row.accountID, slot,
                    [&] {
                        ProbeAnswer answer;
                        auto result = probe(context, report.now);
                        if (!result) {
                            answer.error = result.error();
                        } else {
                            answer.snapshot = std::move(*result);
                        }
                        return answer;
                    },
                    report.now);
            }
            rows.push_back(std::move(row));
        }
        const auto salt = PlanSalt::loadOrCreate(session.paths().supportDir);
        const PlanDiscoveryInputs inputs{session.paths().home, session.paths().env,
                                         salt.value_or(std::string()), request.keys};
        refreshPlanAccounts(session, request, refresher, inputs, report.now, rows);
        refreshStoredKeys(session, request, refresher, report.now, rows);
    }

    for (auto& snapshot : store.quotas()) {
        const std::string id = "source:" + std::string(rawValue(snapshot.identity.source));
        auto it = std::find_if(rows.begin(), rows.end(),
                               [&](const QuotaAccountRow& r) { return r.accountID == id; });
        if (it == rows.end()) {
            QuotaAccountRow row;
            row.accountID = id;
            row.source = snapshot.identity.source;
            rows.push_back(std::move(row));
            it = rows.end() - 1;
        }
        it->snapshot = std::move(snapshot);
    }
    for (auto& [accountID, snapshot] : store.planQuotas()) {
        if (accountID.starts_with(std::string(PlanDiscovery::kOAuthFamily) + "-")) {
            continue;  // a sign-in's account reads as its agent's row
        }
        const std::string id = "plan:" + accountID;
        auto it = std::ranges::find(rows, id, &QuotaAccountRow::accountID);
        if (it == rows.end()) {
            rows.push_back(QuotaAccountRow{id, {}, {}, {}, {}, {}});
            it = rows.end() - 1;
        }
        it->snapshot = std::move(snapshot);
    }
    // A confirmed sign-in and the agent's direct reading are one account: the agent's row.
    for (const auto& record : PlanCandidateStore::confirmedPlanAccounts(store)) {
        const auto agent =
            record.credentialHandle ? PlanDiscovery::signInAgent(*record.credentialHandle)
                                    : std::nullopt;
        if (record.family != PlanDiscovery::kOAuthFamily || !agent) {
            continue;
        }
        const std::string id = "source:" + std::string(rawValue(*agent));
        if (const auto it = std::ranges::find(rows, id, &QuotaAccountRow::accountID);
            it != rows.end()) {
            it->confirmedAccountID = "plan:" + record.id;
        }
    }
    report.rows = std::move(rows);
    return report;
}

std::expected<QuotaSwitch, QuotaSwitchError> setQuotaCapability(AppSession& session,
                                                                const IntegrationPlugin& plugin,
                                                                bool on) {
    if (!plugin.descriptor.capabilities().contains(IntegrationCapability::quota)) {
        return std::unexpected(QuotaSwitchError::notSupported);
    }
    auto& coordinator = session.integrations();
    const double now = epochNow();
    const auto current = reconciledInstance(session, plugin, now);
    if (!current) {
        return std::unexpected(QuotaSwitchError::noInstance);
    }
    IntegrationInstance instance = *current;
    if (on && !instance.isEnabled()) {
        auto enabled = coordinator.setInstanceEnabled(true, instance.id, now);
        if (!enabled) {
            return std::unexpected(QuotaSwitchError::instanceGone);
        }
        instance = *enabled;
    }
    const bool wasRunnable =
        coordinator.canRun(IntegrationCapability::quota, plugin.descriptor.legacySource);
    const bool wasOn = instance.enabledCapabilities.contains(IntegrationCapability::quota);
    auto result =
        coordinator.setCapabilityAuthorization(IntegrationCapability::quota, on, instance.id, now);
    if (!result) {
        return std::unexpected(QuotaSwitchError::instanceGone);
    }
    QuotaSwitch out;
    out.changed = on ? !wasRunnable || *result != *current : wasOn;
    out.instance = std::move(*result);
    return out;
}

}  // namespace kestrel
