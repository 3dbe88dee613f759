#include "core/ledger/plan_candidate_store.hpp"

#include <algorithm>
#include <nlohmann/json.hpp>
#include <set>

#include "core/ledger/sqlite_statement.hpp"
#include "core/ledger/usage_store.hpp"
#include "core/ledger/usage_store_internals.hpp"

namespace kestrel::PlanCandidateStore {
namespace {

using sqlite::Statement;

constexpr std::string_view kColumns =
    "candidate_id, revision, binding_key, family, region, endpoint_base_url, tool_id, "
    "source_display_name, source_entry_id, is_current, credential_origin, credential_locator, "
    "credential_fingerprint, credential_resolution, scan_generation, decision, validation_state, "
    "validation_report_json, proposed_account_id, adapter_version, first_seen_at, last_seen_at, "
    "decided_at, is_present";

PlanCandidateRecord readCandidate(const Statement& row) {
    PlanCandidateRecord c;
    c.id = row.text(0);
    c.revision = row.text(1);
    c.bindingKey = row.text(2);
    c.family = row.text(3);
    c.region = row.text(4);
    c.endpointBaseURL = row.optionalText(5);
    c.toolID = row.text(6);
    c.sourceDisplayName = row.text(7);
    c.sourceEntryID = row.text(8);
    c.isCurrent = row.int64(9) != 0;
    c.credentialOrigin = row.optionalText(10);
    c.credentialLocator = row.optionalText(11);
    c.credentialFingerprint = row.optionalText(12);
    c.credentialResolution = row.text(13);
    c.scanGeneration = row.int64(14);
    c.decision = row.text(15);
    c.validationState = row.text(16);
    c.validationReportJSON = row.optionalText(17);
    c.proposedAccountID = row.text(18);
    c.adapterVersion = row.text(19);
    c.firstSeenAt = row.real(20);
    c.lastSeenAt = row.real(21);
    c.decidedAt = row.optionalReal(22);
    c.isPresent = row.int64(23) != 0;
    return c;
}

std::optional<PlanCandidateRecord> selectCandidate(sqlite3* db, const std::string& id) {
    Statement select(db, "SELECT " + std::string(kColumns) +
                             " FROM plan_discovery_candidates WHERE candidate_id=?;");
    select.bind(1, id);
    if (!select.step()) {
        return std::nullopt;
    }
    return readCandidate(select);
}

std::string accountID(const std::string& proposed) {
    return "plan:" + proposed;
}

// The ids of the candidates a review shows now.
std::set<std::string> pendingIDs(sqlite3* db) {
    Statement select(
        db,
        "SELECT candidate_id FROM plan_discovery_candidates\n"
        "WHERE is_present=1 AND decision='pending' AND 'plan:' || proposed_account_id\n"
        "  NOT IN (SELECT account_id FROM removed_subscription_accounts);");
    std::set<std::string> out;
    while (select.step()) {
        out.insert(select.text(0));
    }
    return out;
}

// The fingerprint a stored validation report was made for; absent when it does not read.
std::optional<std::string> reportFingerprint(const std::optional<std::string>& reportJSON) {
    if (!reportJSON) {
        return std::nullopt;
    }
    const auto doc = nlohmann::json::parse(*reportJSON, nullptr, false);
    if (doc.is_discarded() || !doc.is_object() || !doc.contains("credentialFingerprint") ||
        !doc["credentialFingerprint"].is_string()) {
        return std::nullopt;
    }
    return doc["credentialFingerprint"].get<std::string>();
}

}  // namespace

int64_t upsertPlanDiscoveryCandidates(UsageStore& store,
                                      const std::vector<PlanCandidateRecord>& found, double now) {
    auto& state = UsageStoreAccess::state(store);
    std::lock_guard guard(state.lock);
    sqlite3* db = state.connection();
    sqlite::Transaction transaction(db);
    int64_t generation = 1;
    {
        Statement max(db,
                      "SELECT COALESCE(MAX(scan_generation), 0) FROM plan_discovery_candidates;");
        if (max.step()) {
            generation = max.int64(0) + 1;
        }
    }
    // Content columns follow the finding; a new revision sends the candidate back to review.
    Statement upsert(
        db,
        "INSERT INTO plan_discovery_candidates(" + std::string(kColumns) +
            ")\n"
            "VALUES(?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,'pending','unverified',NULL,?,?,?,?,NULL,1)\n"
            "ON CONFLICT(candidate_id) DO UPDATE SET\n"
            "  decision=CASE WHEN revision=excluded.revision THEN decision ELSE 'pending' END,\n"
            "  validation_state=CASE WHEN revision=excluded.revision THEN validation_state\n"
            "    ELSE 'unverified' END,\n"
            "  validation_report_json=CASE WHEN revision=excluded.revision\n"
            "    THEN validation_report_json ELSE NULL END,\n"
            "  decided_at=CASE WHEN revision=excluded.revision THEN decided_at ELSE NULL END,\n"
            "  credential_resolution=CASE WHEN revision=excluded.revision\n"
            "    THEN credential_resolution ELSE excluded.credential_resolution END,\n"
            "  revision=excluded.revision, binding_key=excluded.binding_key,\n"
            "  family=excluded.family, region=excluded.region,\n"
            "  endpoint_base_url=excluded.endpoint_base_url, tool_id=excluded.tool_id,\n"
            "  source_display_name=excluded.source_display_name,\n"
            "  source_entry_id=excluded.source_entry_id, is_current=excluded.is_current,\n"
            "  credential_origin=excluded.credential_origin,\n"
            "  credential_locator=excluded.credential_locator,\n"
            "  credential_fingerprint=excluded.credential_fingerprint,\n"
            "  scan_generation=excluded.scan_generation,\n"
            "  proposed_account_id=excluded.proposed_account_id,\n"
            "  adapter_version=excluded.adapter_version, last_seen_at=excluded.last_seen_at,\n"
            "  is_present=1;");
    for (const auto& c : found) {
        upsert.reset();
        upsert.bind(1, c.id).bind(2, c.revision).bind(3, c.bindingKey).bind(4, c.family);
        upsert.bind(5, c.region).bind(6, c.endpointBaseURL).bind(7, c.toolID);
        upsert.bind(8, c.sourceDisplayName).bind(9, c.sourceEntryID).bind(10, c.isCurrent);
        upsert.bind(11, c.credentialOrigin).bind(12, c.credentialLocator);
        upsert.bind(13, c.credentialFingerprint).bind(14, c.credentialResolution);
        upsert.bind(15, generation).bind(16, c.proposedAccountID).bind(17, c.adapterVersion);
        upsert.bind(18, now).bind(19, now);
        upsert.run();
    }
    Statement vanish(db,
                     "UPDATE plan_discovery_candidates SET is_present=0\n"
                     "WHERE scan_generation<? AND is_present=1;");
    vanish.bind(1, generation);
    vanish.run();
    transaction.commit();
    return generation;
}

std::vector<PlanCandidateRecord> planDiscoveryCandidates(UsageStore& store, bool includeRejected) {
    auto& state = UsageStoreAccess::state(store);
    std::lock_guard guard(state.lock);
    Statement select(state.connection(),
                     "SELECT " + std::string(kColumns) +
                         " FROM plan_discovery_candidates\n"
                         "WHERE is_present=1 AND (? OR decision<>'rejected')\n"
                         "  AND 'plan:' || proposed_account_id NOT IN\n"
                         "    (SELECT account_id FROM removed_subscription_accounts)\n"
                         "ORDER BY is_current DESC, source_display_name, source_entry_id, "
                         "candidate_id;");
    select.bind(1, includeRejected);
    std::vector<PlanCandidateRecord> out;
    while (select.step()) {
        out.push_back(readCandidate(select));
    }
    return out;
}

std::optional<PlanCandidateRecord> planDiscoveryCandidate(UsageStore& store,
                                                          const std::string& id) {
    auto& state = UsageStoreAccess::state(store);
    std::lock_guard guard(state.lock);
    return selectCandidate(state.connection(), id);
}

bool recordPlanValidation(UsageStore& store, const std::string& id, const std::string& revision,
                          const std::string& validationState,
                          const std::optional<std::string>& reportJSON,
                          const std::string& resolution, double now) {
    auto& state = UsageStoreAccess::state(store);
    std::lock_guard guard(state.lock);
    Statement update(
        state.connection(),
        "UPDATE plan_discovery_candidates SET validation_state=?,\n"
        "  validation_report_json=?, credential_resolution=?, last_seen_at=?\n"
        "WHERE candidate_id=? AND revision=? AND is_present=1 AND decision='pending';");
    update.bind(1, validationState)
        .bind(2, reportJSON)
        .bind(3, resolution)
        .bind(4, now)
        .bind(5, id);
    update.bind(6, revision);
    update.run();
    return update.changes() > 0;
}

std::expected<PlanCandidateReviewCommitResult, PlanCandidateStoreError> commitPlanReview(
    UsageStore& store, const std::vector<std::string>& batchCandidateIDs,
    const std::vector<PlanReviewDecision>& decisions, double now) {
    using Kind = PlanCandidateStoreError::Kind;
    auto& state = UsageStoreAccess::state(store);
    std::lock_guard guard(state.lock);
    sqlite3* db = state.connection();
    sqlite::Transaction transaction(db);

    std::vector<PlanCandidateRecord> candidates;
    for (const auto& decision : decisions) {
        auto stored = selectCandidate(db, decision.candidateID);
        if (!stored || !stored->isPresent) {
            return std::unexpected(
                PlanCandidateStoreError{Kind::missingCandidate, decision.candidateID});
        }
        if (stored->revision != decision.revision) {
            return std::unexpected(
                PlanCandidateStoreError{Kind::invalidRevision, decision.candidateID});
        }
        candidates.push_back(std::move(*stored));
    }
    // Something new came up for review (or went) since the batch was loaded.
    const std::set<std::string> batch(batchCandidateIDs.begin(), batchCandidateIDs.end());
    if (pendingIDs(db) != batch) {
        return std::unexpected(PlanCandidateStoreError{Kind::staleBatch, {}});
    }

    PlanCandidateReviewCommitResult result;
    for (std::size_t i = 0; i < decisions.size(); ++i) {
        const auto& decision = decisions[i];
        const auto& candidate = candidates[i];
        if (!decision.keep) {
            Statement reject(db,
                             "UPDATE plan_discovery_candidates SET decision='rejected',\n"
                             "  decided_at=? WHERE candidate_id=?;");
            reject.bind(1, now).bind(2, candidate.id);
            reject.run();
            result.rejectedCandidateIDs.push_back(candidate.id);
            continue;
        }
        if (candidate.validationState != "valid") {
            return std::unexpected(
                PlanCandidateStoreError{Kind::candidateNotValidated, candidate.id});
        }
        const auto validated = reportFingerprint(candidate.validationReportJSON);
        if (!validated || validated != candidate.credentialFingerprint) {
            return std::unexpected(
                PlanCandidateStoreError{Kind::invalidValidationReport, candidate.id});
        }
        if (decision.currentFingerprint != validated) {
            return std::unexpected(
                PlanCandidateStoreError{Kind::invalidCredentialHandle, candidate.id});
        }
        {
            Statement instance(db,
                               "SELECT 1 FROM integration_instances WHERE id=? AND "
                               "archived_at IS NULL;");
            instance.bind(1, decision.integrationInstanceID);
            if (!instance.step()) {
                return std::unexpected(
                    PlanCandidateStoreError{Kind::missingIntegrationInstance, candidate.id});
            }
        }
        const std::string account = accountID(candidate.proposedAccountID);
        Statement upsertAccount(
            db,
            "INSERT INTO subscription_accounts(id, provider, family, region, display_label,\n"
            "  identity_fingerprint, credential_handle, state, created_at, last_seen_at,\n"
            "  archived_at)\n"
            "VALUES(?,?,?,?,?,?,?,'confirmed',?,?,NULL)\n"
            "ON CONFLICT(id) DO UPDATE SET display_label=excluded.display_label,\n"
            "  credential_handle=excluded.credential_handle, state='confirmed',\n"
            "  last_seen_at=excluded.last_seen_at, archived_at=NULL;");
        upsertAccount.bind(1, account).bind(2, candidate.family).bind(3, candidate.family);
        upsertAccount.bind(4, candidate.region).bind(5, decision.displayLabel);
        upsertAccount.bind(6, *validated + "@" + candidate.region);
        upsertAccount.bind(7, candidate.credentialLocator).bind(8, now).bind(9, now);
        upsertAccount.run();

        Statement binding(
            db,
            "INSERT INTO account_bindings(id, integration_instance_id, account_id, binding_key,\n"
            "  state, first_seen_at, last_seen_at, archived_at)\n"
            "VALUES(?,?,?,?,'active',?,?,NULL)\n"
            "ON CONFLICT(id) DO UPDATE SET state='active', last_seen_at=excluded.last_seen_at,\n"
            "  archived_at=NULL;");
        binding.bind(1, "binding:" + candidate.id + ":" + decision.integrationInstanceID);
        binding.bind(2, decision.integrationInstanceID).bind(3, account);
        binding.bind(4, candidate.bindingKey).bind(5, now).bind(6, now);
        binding.run();

        Statement accept(db,
                         "UPDATE plan_discovery_candidates SET decision='accepted', decided_at=?\n"
                         "WHERE candidate_id=?;");
        accept.bind(1, now).bind(2, candidate.id);
        accept.run();
        if (std::ranges::find(result.acceptedAccountIDs, account) ==
            result.acceptedAccountIDs.end()) {
            result.acceptedAccountIDs.push_back(account);
        }
    }
    transaction.commit();
    return result;
}

int64_t resetPlanReview(UsageStore& store, const std::string& proposedAccountID) {
    auto& state = UsageStoreAccess::state(store);
    std::lock_guard guard(state.lock);
    Statement update(state.connection(),
                     "UPDATE plan_discovery_candidates SET decision='pending',\n"
                     "  validation_state='unverified', validation_report_json=NULL,\n"
                     "  decided_at=NULL\n"
                     "WHERE proposed_account_id=? AND decision='accepted' AND is_present=1;");
    update.bind(1, proposedAccountID);
    update.run();
    return update.changes();
}

std::vector<PlanAccountRecord> confirmedPlanAccounts(UsageStore& store) {
    auto& state = UsageStoreAccess::state(store);
    std::lock_guard guard(state.lock);
    Statement select(
        state.connection(),
        "SELECT a.id, COALESCE(a.family, a.provider), COALESCE(a.region, ''),\n"
        "  COALESCE(a.display_label, ''), a.credential_handle, a.identity_fingerprint,\n"
        "  (SELECT GROUP_CONCAT(b.integration_instance_id, char(10)) FROM account_bindings b\n"
        "     WHERE b.account_id=a.id AND b.archived_at IS NULL)\n"
        "FROM subscription_accounts a\n"
        "WHERE a.id LIKE 'plan:%' AND a.state='confirmed' AND a.archived_at IS NULL\n"
        "  AND a.id NOT IN (SELECT account_id FROM removed_subscription_accounts)\n"
        "  AND NOT EXISTS (SELECT 1 FROM plan_discovery_candidates c\n"
        "    WHERE 'plan:' || c.proposed_account_id = a.id AND c.decision='pending'\n"
        "      AND c.is_present=1)\n"
        "ORDER BY a.id;");
    std::vector<PlanAccountRecord> out;
    while (select.step()) {
        PlanAccountRecord r;
        r.id = select.text(0).substr(5);
        r.family = select.text(1);
        r.region = select.text(2);
        r.displayLabel = select.text(3);
        r.credentialHandle = select.optionalText(4);
        r.identityFingerprint = select.optionalText(5);
        std::string instances = select.optionalText(6).value_or("");
        for (std::size_t at = 0; at < instances.size();) {
            const auto end = std::min(instances.find('\n', at), instances.size());
            r.integrationInstanceIDs.push_back(instances.substr(at, end - at));
            at = end + 1;
        }
        out.push_back(std::move(r));
    }
    return out;
}

}  // namespace kestrel::PlanCandidateStore
