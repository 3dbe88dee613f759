// The single write path of usage into the ledger: one batch, one transaction, all or nothing.

#include <chrono>
#include <nlohmann/json.hpp>

#include "core/ledger/ledger_validator.hpp"
#include "core/ledger/sqlite_statement.hpp"
#include "core/ledger/usage_batch_builder.hpp"
#include "core/ledger/usage_store.hpp"

namespace kestrel {
namespace {

using sqlite::Statement;

double wallClock() {
    return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch())
        .count();
}

// Checkpoints that belong to no integration instance share one fixed key.
constexpr const char* kNoInstanceKey = "-";

template <class Domain>
std::optional<std::string> idText(const std::optional<IntegrationID<Domain>>& id) {
    return id ? std::optional<std::string>(id->value) : std::nullopt;
}

std::string_view raw(auto value) {
    return rawValue(value);
}

void checkBatch(const UsageBatch& batch, std::optional<AgentSource> replacing) {
    auto refuse = [](const std::string& why) {
        throw LedgerStoreError(LedgerStoreErrorCode::invalidBatch, "invalid batch: " + why);
    };
    if (batch.id.empty()) {
        refuse("the run id is empty");
    }
    if (batch.adapterID.empty()) {
        refuse("the adapter id is empty");
    }
    if (batch.checkpoint) {
        if (batch.checkpoint->adapterID != batch.adapterID) {
            refuse("the checkpoint belongs to adapter \"" + batch.checkpoint->adapterID +
                   "\", the batch to \"" + batch.adapterID + "\"");
        }
        if (batch.checkpoint->integrationInstanceID && batch.integrationInstanceID &&
            *batch.checkpoint->integrationInstanceID != *batch.integrationInstanceID) {
            refuse("the checkpoint and the batch name different integration instances");
        }
    }
    if (replacing) {
        if (batch.source != *replacing) {
            refuse("a full rescan of " + std::string(rawValue(*replacing)) +
                   " carries a batch of " + std::string(rawValue(batch.source)));
        }
        for (const auto& o : batch.observations) {
            if (o.source != *replacing) {
                refuse("observation " + o.id + " is not from " + std::string(rawValue(*replacing)));
            }
        }
    }
}

// The prepared statements of one commit, reused for every row.
struct CommitStatements {
    explicit CommitStatements(sqlite3* db)
        : findRun(db,
                  "SELECT observation_count, ledger_event_count, issue_count\n"
                  "FROM ingest_runs WHERE id=?;"),
          startRun(db,
                   "INSERT INTO ingest_runs(\n"
                   "  id, integration_instance_id, adapter_id, source, started_at, status,\n"
                   "  observation_count, ledger_event_count, issue_count\n"
                   ") VALUES(?,?,?,?,?,'running',0,0,0);"),
          upsertObservation(
              db,
              "INSERT INTO usage_observations(\n"
              "  id, run_id, integration_instance_id, account_id, source, provider, model,\n"
              "  occurred_at, observed_at, time_quality, precision, session_key,\n"
              "  project_display_name, evidence_fingerprint, input_uncached, cache_read,\n"
              "  cache_write, output_visible, reasoning, provider_input_total,\n"
              "  provider_output_total, provider_total, breakdown_trusted,\n"
              "  usage_semantics_version, cost_usd_micros, cost_completeness, cost_source,\n"
              "  price_version, fx_version, billing_mode, granularity\n"
              ") VALUES(?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?)\n"
              "ON CONFLICT(id) DO UPDATE SET\n"
              "  run_id=excluded.run_id,\n"
              "  integration_instance_id=excluded.integration_instance_id,\n"
              "  account_id=excluded.account_id, source=excluded.source,\n"
              "  provider=excluded.provider, model=excluded.model,\n"
              "  occurred_at=excluded.occurred_at, observed_at=excluded.observed_at,\n"
              "  time_quality=excluded.time_quality, precision=excluded.precision,\n"
              "  session_key=excluded.session_key,\n"
              "  project_display_name=excluded.project_display_name,\n"
              "  evidence_fingerprint=excluded.evidence_fingerprint,\n"
              "  input_uncached=excluded.input_uncached, cache_read=excluded.cache_read,\n"
              "  cache_write=excluded.cache_write, output_visible=excluded.output_visible,\n"
              "  reasoning=excluded.reasoning,\n"
              "  provider_input_total=excluded.provider_input_total,\n"
              "  provider_output_total=excluded.provider_output_total,\n"
              "  provider_total=excluded.provider_total,\n"
              "  breakdown_trusted=excluded.breakdown_trusted,\n"
              "  usage_semantics_version=excluded.usage_semantics_version,\n"
              "  cost_usd_micros=excluded.cost_usd_micros,\n"
              "  cost_completeness=excluded.cost_completeness,\n"
              "  cost_source=excluded.cost_source, price_version=excluded.price_version,\n"
              "  fx_version=excluded.fx_version, billing_mode=excluded.billing_mode,\n"
              "  granularity=excluded.granularity;"),
          deleteFindings(db,
                         "DELETE FROM coverage_issues WHERE observation_id=? AND "
                         "origin='validation';"),
          upsertIssue(db,
                      "INSERT INTO coverage_issues(\n"
                      "  id, run_id, observation_id, integration_instance_id, source, code,\n"
                      "  severity, origin, diagnostic_code, detected_at, resolved_at\n"
                      ") VALUES(?,?,?,?,?,?,?,?,?,?,?)\n"
                      "ON CONFLICT(id) DO UPDATE SET\n"
                      "  run_id=excluded.run_id, observation_id=excluded.observation_id,\n"
                      "  integration_instance_id=excluded.integration_instance_id,\n"
                      "  source=excluded.source, code=excluded.code,\n"
                      "  severity=excluded.severity, origin=excluded.origin,\n"
                      "  diagnostic_code=excluded.diagnostic_code,\n"
                      "  detected_at=excluded.detected_at, resolved_at=excluded.resolved_at;"),
          deleteEvent(db, "DELETE FROM ledger_events WHERE observation_id=?;"),
          upsertEvent(db,
                      "INSERT INTO ledger_events(\n"
                      "  id, observation_id, integration_instance_id, account_id, occurred_at,\n"
                      "  source, provider, model, session_key, project_display_name,\n"
                      "  input_uncached, cache_read, cache_write, output_visible, reasoning,\n"
                      "  provider_input_total, provider_output_total, provider_total,\n"
                      "  usage_semantics_version, created_at, updated_at\n"
                      ") VALUES(?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?)\n"
                      "ON CONFLICT(id) DO UPDATE SET\n"
                      "  observation_id=excluded.observation_id,\n"
                      "  integration_instance_id=excluded.integration_instance_id,\n"
                      "  account_id=excluded.account_id, occurred_at=excluded.occurred_at,\n"
                      "  source=excluded.source, provider=excluded.provider,\n"
                      "  model=excluded.model, session_key=excluded.session_key,\n"
                      "  project_display_name=excluded.project_display_name,\n"
                      "  input_uncached=excluded.input_uncached,\n"
                      "  cache_read=excluded.cache_read, cache_write=excluded.cache_write,\n"
                      "  output_visible=excluded.output_visible,\n"
                      "  reasoning=excluded.reasoning,\n"
                      "  provider_input_total=excluded.provider_input_total,\n"
                      "  provider_output_total=excluded.provider_output_total,\n"
                      "  provider_total=excluded.provider_total,\n"
                      "  usage_semantics_version=excluded.usage_semantics_version,\n"
                      "  updated_at=excluded.updated_at;"),
          upsertCost(db,
                     "INSERT INTO ledger_costs(\n"
                     "  ledger_event_id, amount_usd_micros, completeness, cost_source,\n"
                     "  price_version, fx_version, billing_mode, updated_at\n"
                     ") VALUES(?,?,?,?,?,?,?,?)\n"
                     "ON CONFLICT(ledger_event_id) DO UPDATE SET\n"
                     "  amount_usd_micros=excluded.amount_usd_micros,\n"
                     "  completeness=excluded.completeness, cost_source=excluded.cost_source,\n"
                     "  price_version=excluded.price_version, fx_version=excluded.fx_version,\n"
                     "  billing_mode=excluded.billing_mode, updated_at=excluded.updated_at;"),
          upsertCheckpoint(db,
                           "INSERT INTO adapter_checkpoints(\n"
                           "  instance_key, integration_instance_id, adapter_id, opaque_cursor,\n"
                           "  parser_version, updated_at\n"
                           ") VALUES(?,?,?,?,?,?)\n"
                           "ON CONFLICT(instance_key, adapter_id) DO UPDATE SET\n"
                           "  integration_instance_id=excluded.integration_instance_id,\n"
                           "  opaque_cursor=excluded.opaque_cursor,\n"
                           "  parser_version=excluded.parser_version,\n"
                           "  updated_at=excluded.updated_at;"),
          replaceStale(db,
                       "DELETE FROM ledger_events\n"
                       "WHERE source=?\n"
                       "  AND observation_id NOT IN (\n"
                       "    SELECT id FROM usage_observations WHERE run_id=?\n"
                       "  );"),
          finishRun(db,
                    "UPDATE ingest_runs\n"
                    "SET completed_at=?, status='completed', observation_count=?,\n"
                    "    ledger_event_count=?, issue_count=?, error_code=NULL\n"
                    "WHERE id=?;") {}

    Statement findRun, startRun, upsertObservation, deleteFindings, upsertIssue, deleteEvent,
        upsertEvent, upsertCost, upsertCheckpoint, replaceStale, finishRun;
};

void bindTokens(Statement& s, int first, const ObservedTokenUsage& t) {
    s.bind(first, t.inputUncached)
        .bind(first + 1, t.cacheRead)
        .bind(first + 2, t.cacheWrite)
        .bind(first + 3, t.outputVisible)
        .bind(first + 4, t.reasoning)
        .bind(first + 5, t.providerInputTotal)
        .bind(first + 6, t.providerOutputTotal)
        .bind(first + 7, t.providerTotal);
}

void writeObservation(Statement& s, const UsageObservation& o, const std::string& runID,
                      const ObservedCost& cost) {
    s.reset();
    s.bind(1, o.id)
        .bind(2, runID)
        .bind(3, idText(o.integrationInstanceID))
        .bind(4, idText(o.accountID))
        .bind(5, raw(o.source))
        .bind(6, o.provider)
        .bind(7, o.model)
        .bind(8, o.occurredAt)
        .bind(9, o.observedAt)
        .bind(10, raw(o.timeQuality))
        .bind(11, raw(o.precision))
        .bind(12, o.sessionKey)
        .bind(13, o.projectDisplayName)
        .bind(14, o.evidenceFingerprint);
    bindTokens(s, 15, o.tokens);
    s.bind(23, o.tokens.breakdownTrusted)
        .bind(24, o.usageSemanticsVersion)
        .bind(25, cost.amountUSDMicros)
        .bind(26, raw(cost.completeness))
        .bind(27, raw(cost.source))
        .bind(28, cost.priceVersion)
        .bind(29, cost.fxVersion)
        .bind(30, raw(cost.billingMode))
        .bind(31, raw(o.granularity));
    s.run();
}

void writeIssue(Statement& s, const CoverageIssue& issue) {
    s.reset();
    s.bind(1, issue.id)
        .bind(2, issue.runID)
        .bind(3, issue.observationID)
        .bind(4, idText(issue.integrationInstanceID))
        .bind(5, issue.source ? std::optional<std::string_view>(rawValue(*issue.source))
                              : std::nullopt)
        .bind(6, raw(issue.code))
        .bind(7, raw(issue.severity))
        .bind(8, raw(issue.origin))
        .bind(9, issue.diagnosticCode)
        .bind(10, issue.detectedAt)
        .bind(11, issue.resolvedAt);
    s.run();
}

}  // namespace

// The commit proper; the caller holds the lock and has checked the batch. Returns the outcome
// and leaves the transaction committed, or throws with it rolled back.
static LedgerIngestOutcome commitLocked(sqlite3* db, const std::vector<UsageEvent>& legacyEvents,
                                        const std::vector<SourceCheckpoint>& checkpoints,
                                        std::optional<AgentSource> replacing,
                                        const UsageBatch* batch, bool& wroteBatch) {
    sqlite::Transaction transaction(db);
    LedgerIngestOutcome outcome;
    wroteBatch = false;

    if (batch) {
        Statement findRun(db,
                          "SELECT observation_count, ledger_event_count, issue_count\n"
                          "FROM ingest_runs WHERE id=?;");
        findRun.bind(1, batch->id);
        if (findRun.step()) {
            // Committed before: write nothing at all, the first run's counts stand.
            return {true, findRun.int64(0), findRun.int64(1), findRun.int64(2)};
        }
    }

    if (!legacyEvents.empty()) {
        Statement upsertLegacy(db,
                               "INSERT INTO events(id, occurred_at, source, json) "
                               "VALUES(?,?,?,?)\n"
                               "ON CONFLICT(id) DO UPDATE SET occurred_at=excluded.occurred_at,\n"
                               "  source=excluded.source, json=excluded.json;");
        for (const auto& e : legacyEvents) {
            upsertLegacy.reset();
            upsertLegacy.bind(1, e.id)
                .bind(2, e.occurredAt)
                .bind(3, raw(e.source))
                .bind(4, nlohmann::json(e).dump(-1, ' ', false,
                                                nlohmann::json::error_handler_t::replace));
            upsertLegacy.run();
        }
    }
    if (!checkpoints.empty()) {
        Statement saveCheckpoint(
            db, "INSERT OR REPLACE INTO checkpoints(source, stable_id, json) VALUES(?,?,?);");
        for (const auto& c : checkpoints) {
            saveCheckpoint.reset();
            saveCheckpoint.bind(1, raw(c.source))
                .bind(2, c.stableID)
                .bind(3, nlohmann::json(c).dump(-1, ' ', false,
                                                nlohmann::json::error_handler_t::replace));
            saveCheckpoint.run();
        }
    }

    if (batch) {
        CommitStatements s(db);
        s.startRun.bind(1, batch->id)
            .bind(2, idText(batch->integrationInstanceID))
            .bind(3, batch->adapterID)
            .bind(4, raw(batch->source))
            .bind(5, batch->startedAt);
        s.startRun.run();

        const double now = wallClock();
        for (const auto& o : batch->observations) {
            const auto verdict = LedgerValidator::validate(o);
            writeObservation(s.upsertObservation, o, batch->id, verdict.normalizedCost);
            ++outcome.observationCount;

            s.deleteFindings.reset();
            s.deleteFindings.bind(1, o.id);
            s.deleteFindings.run();
            for (const auto& finding : verdict.findings) {
                CoverageIssue issue;
                issue.id = UsageBatchBuilder::validationIssueID(o.id, finding.code);
                issue.runID = batch->id;
                issue.observationID = o.id;
                issue.integrationInstanceID = o.integrationInstanceID;
                issue.source = o.source;
                issue.code = finding.code;
                issue.severity = finding.severity;
                issue.origin = CoverageIssueOrigin::validation;
                issue.detectedAt = now;
                writeIssue(s.upsertIssue, issue);
                ++outcome.coverageIssueCount;
            }

            if (!verdict.isLedgerEligible) {
                // Accepted once, rejected now: it leaves the ledger (its cost goes by cascade).
                s.deleteEvent.reset();
                s.deleteEvent.bind(1, o.id);
                s.deleteEvent.run();
                continue;
            }
            const std::string eventID = UsageBatchBuilder::ledgerEventID(o.id);
            auto& ev = s.upsertEvent;
            ev.reset();
            ev.bind(1, eventID)
                .bind(2, o.id)
                .bind(3, idText(o.integrationInstanceID))
                .bind(4, idText(o.accountID))
                .bind(5, *o.occurredAt)
                .bind(6, raw(o.source))
                .bind(7, o.provider)
                .bind(8, o.model)
                .bind(9, o.sessionKey)
                .bind(10, o.projectDisplayName);
            bindTokens(ev, 11, o.tokens);
            ev.bind(19, o.usageSemanticsVersion).bind(20, now).bind(21, now);
            ev.run();

            const ObservedCost& cost = verdict.normalizedCost;
            auto& c = s.upsertCost;
            c.reset();
            c.bind(1, eventID)
                .bind(2, cost.amountUSDMicros)
                .bind(3, raw(cost.completeness))
                .bind(4, raw(cost.source))
                .bind(5, cost.priceVersion)
                .bind(6, cost.fxVersion)
                .bind(7, raw(cost.billingMode))
                .bind(8, now);
            c.run();
            ++outcome.ledgerEventCount;
        }

        for (auto issue : batch->coverageIssues) {
            issue.runID = issue.runID.value_or(batch->id);
            issue.origin = CoverageIssueOrigin::adapter;
            writeIssue(s.upsertIssue, issue);
            ++outcome.coverageIssueCount;
        }

        if (batch->checkpoint) {
            const auto& cp = *batch->checkpoint;
            const auto instance =
                cp.integrationInstanceID ? cp.integrationInstanceID : batch->integrationInstanceID;
            s.upsertCheckpoint.bind(1, instance ? instance->value : std::string(kNoInstanceKey))
                .bind(2, idText(instance))
                .bind(3, cp.adapterID)
                .bind(4, cp.opaqueCursor)
                .bind(5, cp.parserVersion)
                .bind(6, cp.updatedAt);
            s.upsertCheckpoint.run();
        }

        if (replacing) {
            s.replaceStale.bind(1, raw(*replacing)).bind(2, batch->id);
            s.replaceStale.run();
        }

        s.finishRun.bind(1, batch->completedAt)
            .bind(2, outcome.observationCount)
            .bind(3, outcome.ledgerEventCount)
            .bind(4, outcome.coverageIssueCount)
            .bind(5, batch->id);
        s.finishRun.run();
        wroteBatch = true;
    }
    transaction.commit();
    return outcome;
}

std::optional<LedgerIngestOutcome> UsageStore::ingest(
    const std::vector<UsageEvent>& legacyEvents, const std::vector<SourceCheckpoint>& checkpoints,
    std::optional<AgentSource> replacingSource, const std::optional<UsageBatch>& formalBatch) {
    if (formalBatch) {
        checkBatch(*formalBatch, replacingSource);
    }
    std::lock_guard guard(lock_);
    bool wroteBatch = false;
    auto outcome = commitLocked(connection(), legacyEvents, checkpoints, replacingSource,
                                formalBatch ? &*formalBatch : nullptr, wroteBatch);
    if (!formalBatch) {
        return std::nullopt;
    }
    return outcome;
}

LedgerIngestOutcome UsageStore::replaceLedgerSource(AgentSource source, const UsageBatch& batch) {
    return *ingest({}, {}, source, batch);
}

}  // namespace kestrel
