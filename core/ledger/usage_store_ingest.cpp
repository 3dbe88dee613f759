// The single write path of usage into the ledger: one batch, one transaction, all or nothing.

#include <algorithm>
#include <deque>
#include <map>
#include <nlohmann/json.hpp>
#include <unordered_map>
#include <unordered_set>

#include "core/ledger/ledger_upserts.hpp"
#include "core/ledger/ledger_validator.hpp"
#include "core/ledger/sqlite_statement.hpp"
#include "core/ledger/usage_batch_builder.hpp"
#include "core/ledger/usage_merge.hpp"
#include "core/ledger/usage_store.hpp"
#include "core/ledger/usage_store_internals.hpp"
#include "core/model/timestamp.hpp"

namespace kestrel {
namespace {

using sqlite::Statement;

// Checkpoints that belong to no integration instance share one fixed key.
constexpr const char* kNoInstanceKey = "-";

template <class Domain>
std::optional<std::string> idText(const std::optional<IntegrationID<Domain>>& id) {
    return id ? std::optional<std::string>(id->rawValue) : std::nullopt;
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

    Statement findRun, startRun, upsertIssue, upsertCheckpoint, replaceStale, finishRun;
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

// Binds one observation as the row starting at parameter `base` + 1. Its texts are bound
// without copies: the rows and the batch outlive the statement's run.
void bindObservation(Statement& s, int base, const UsageObservation& o, const std::string& runID,
                     const ObservedCost& cost) {
    s.bindKept(base + 1, o.id)
        .bindKept(base + 2, runID)
        .bind(base + 3, idText(o.integrationInstanceID))
        .bind(base + 4, idText(o.accountID))
        .bindKept(base + 5, raw(o.source))
        .bindKept(base + 6, o.provider)
        .bindKept(base + 7, o.model)
        .bind(base + 8, o.occurredAt)
        .bind(base + 9, o.observedAt)
        .bindKept(base + 10, raw(o.timeQuality))
        .bindKept(base + 11, raw(o.precision))
        .bindKept(base + 12, o.sessionKey)
        .bindKept(base + 13, o.projectDisplayName)
        .bindKept(base + 14, o.evidenceFingerprint);
    bindTokens(s, base + 15, o.tokens);
    s.bind(base + 23, o.tokens.breakdownTrusted)
        .bind(base + 24, o.usageSemanticsVersion)
        .bind(base + 25, cost.amountUSDMicros)
        .bindKept(base + 26, raw(cost.completeness))
        .bindKept(base + 27, raw(cost.source))
        .bind(base + 28, cost.priceVersion)
        .bind(base + 29, cost.fxVersion)
        .bindKept(base + 30, raw(cost.billingMode))
        .bindKept(base + 31, raw(o.granularity));
}

void bindEvent(Statement& s, int base, const UsageObservation& o, const std::string& eventID,
               double now) {
    s.bindKept(base + 1, eventID)
        .bindKept(base + 2, o.id)
        .bind(base + 3, idText(o.integrationInstanceID))
        .bind(base + 4, idText(o.accountID))
        .bind(base + 5, *o.occurredAt)
        .bindKept(base + 6, raw(o.source))
        .bindKept(base + 7, o.provider)
        .bindKept(base + 8, o.model)
        .bindKept(base + 9, o.sessionKey)
        .bindKept(base + 10, o.projectDisplayName);
    bindTokens(s, base + 11, o.tokens);
    s.bind(base + 19, o.usageSemanticsVersion).bind(base + 20, now).bind(base + 21, now);
}

void bindCost(Statement& s, int base, const std::string& eventID, const ObservedCost& cost,
              double now) {
    s.bindKept(base + 1, eventID)
        .bind(base + 2, cost.amountUSDMicros)
        .bindKept(base + 3, raw(cost.completeness))
        .bindKept(base + 4, raw(cost.source))
        .bind(base + 5, cost.priceVersion)
        .bind(base + 6, cost.fxVersion)
        .bindKept(base + 7, raw(cost.billingMode))
        .bind(base + 8, now);
}

// Multi-row statements by row count, prepared once per commit and reused.
class StatementCache {
  public:
    StatementCache(sqlite3* db, std::string (*sql)(int)) : db_(db), sql_(sql) {}
    Statement& get(int rows) {
        auto it = cache_.find(rows);
        if (it == cache_.end()) {
            it = cache_.emplace(rows, Statement(db_, sql_(rows))).first;
        }
        it->second.reset();
        return it->second;
    }

  private:
    sqlite3* db_;
    std::string (*sql_)(int);
    std::map<int, Statement> cache_;
};

// Rows per statement: large enough that statement overhead vanishes, small enough to stay far
// below SQLite's limit on parameters.
constexpr std::size_t kRowsPerStatement = 64;

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

template <class E>
E enumOr(const std::string& text, E fallback) {
    return fromRawValue<E>(text).value_or(fallback);
}

// What the ledger holds of one observation in the columns UsageMerge weighs (see
// LedgerUpserts::storedObservations); the rest is left as it is in `o`.
void readStored(const Statement& s, UsageObservation& o) {
    o.occurredAt = s.optionalReal(1);
    o.timeQuality = enumOr(s.text(2), ObservationTimeQuality::missing);
    o.sessionKey = s.optionalText(3);
    o.projectDisplayName = s.optionalText(4);
    o.provider = s.text(5);
    o.model = s.text(6);
    o.precision = enumOr(s.text(7), UsagePrecision::unsupported);
    o.granularity = enumOr(s.text(8), UsageGranularity::unknown);
    o.evidenceFingerprint = s.optionalText(9);
    auto& t = o.tokens;
    t.inputUncached = s.optionalInt64(10);
    t.cacheRead = s.optionalInt64(11);
    t.cacheWrite = s.optionalInt64(12);
    t.outputVisible = s.optionalInt64(13);
    t.reasoning = s.optionalInt64(14);
    t.providerInputTotal = s.optionalInt64(15);
    t.providerOutputTotal = s.optionalInt64(16);
    t.providerTotal = s.optionalInt64(17);
    t.breakdownTrusted = s.int64(18) != 0;
    o.usageSemanticsVersion = s.int64(19);
    o.cost.amountUSDMicros = s.optionalInt64(20);
    o.cost.completeness = enumOr(s.text(21), CostCompleteness::none);
    o.cost.source = enumOr(s.text(22), CostSource::unknown);
    o.cost.priceVersion = s.optionalInt64(23);
    o.cost.fxVersion = s.optionalInt64(24);
    o.cost.billingMode = enumOr(s.text(25), BillingMode::apiEquivalent);
}

// The rows to write, one per id: the batch's own observation, or a merge owned here, with its
// verdict.
struct Rows {
    std::vector<const UsageObservation*> observation;
    std::vector<const LedgerValidationResult*> verdict;
    std::vector<UsageObservation*> owned;  // null while the row is the batch's own
    std::deque<UsageObservation> merges;
    std::deque<LedgerValidationResult> mergedVerdicts;

    void add(const UsageObservation& o, const LedgerValidationResult& v) {
        observation.push_back(&o);
        verdict.push_back(&v);
        owned.push_back(nullptr);
    }
    // Row `k` as a copy it may change.
    UsageObservation& own(std::size_t k) {
        if (!owned[k]) {
            owned[k] = &merges.emplace_back(*observation[k]);
            observation[k] = owned[k];
        }
        return *owned[k];
    }
    void revalidate(std::size_t k) {
        verdict[k] = &mergedVerdicts.emplace_back(LedgerValidator::validate(*observation[k]));
    }
    // In key order, each table's id index takes the rows of a statement into neighbouring
    // leaves instead of one random leaf per row: about a third less b-tree work per commit.
    void sortByID() {
        std::vector<std::size_t> order(observation.size());
        for (std::size_t k = 0; k < order.size(); ++k) {
            order[k] = k;
        }
        std::ranges::sort(order, [this](std::size_t a, std::size_t b) {
            return observation[a]->id < observation[b]->id;
        });
        const auto permuted = [&order](const auto& v) {
            std::remove_cvref_t<decltype(v)> out;
            out.reserve(v.size());
            for (auto k : order) {
                out.push_back(v[k]);
            }
            return out;
        };
        observation = permuted(observation);
        verdict = permuted(verdict);
        owned = permuted(owned);
    }
};

// Merges the rows `which` with what the ledger holds of them (`select` is
// LedgerUpserts::storedObservations for that many rows): a later scan weighs its records against
// the stored row as one scan weighs them among themselves, without reading old files again.
void mergeWithStored(Statement& select, Rows& rows, const std::vector<std::size_t>& which) {
    for (std::size_t r = 0; r < which.size(); ++r) {
        select.bind(static_cast<int>(r) + 1, rows.observation[which[r]]->id);
    }
    while (select.step()) {
        const std::string id = select.text(0);
        auto it = std::ranges::find_if(
            which, [&](std::size_t k) { return rows.observation[k]->id == id; });
        if (it == which.end()) {
            continue;
        }
        const std::size_t k = *it;
        UsageObservation merged = *rows.observation[k];
        readStored(select, merged);
        UsageMerge::merge(merged, *rows.observation[k]);
        if (merged != *rows.observation[k]) {
            rows.own(k) = std::move(merged);
            rows.revalidate(k);
        }
    }
}

}  // namespace

// Whether the ledger may hold an observation of the batch: a source's first import has nothing
// to merge with and skips the look-ups.
static bool holdsObservationsOf(sqlite3* db, const UsageBatch& batch) {
    for (const auto& o : batch.observations) {
        if (o.source != batch.source) {
            return true;  // not the ingestor's kind of batch: look every row up
        }
    }
    Statement any(db, "SELECT EXISTS(SELECT 1 FROM usage_observations WHERE source=?);");
    any.bind(1, raw(batch.source));
    return any.step() && any.int64(0) != 0;
}

// Validates and writes the batch's observations with their findings, ledger events and costs.
// Observations that share an id are folded into one by UsageMerge and, with `mergeStored`, that
// one is merged with the row the ledger holds, so the ledger ends as if every record had been
// merged in turn. The outcome still counts every observation of the batch, as a commit of each in
// turn would. Rows `mayHold` rules out (none when `anyStored` is false) cannot have a stored
// row, findings or event, so they skip looking for them.
static void writeObservations(sqlite3* db, const UsageBatch& batch, double now, bool mergeStored,
                              bool anyStored, const std::function<bool(std::string_view)>& mayHold,
                              Statement& upsertIssue, LedgerIngestOutcome& outcome) {
    const auto& all = batch.observations;
    std::vector<LedgerValidationResult> verdicts;
    verdicts.reserve(all.size());  // rows point into it
    std::unordered_map<std::string_view, std::size_t> rowOf;
    rowOf.reserve(all.size());
    Rows rows;
    std::vector<std::size_t> folded;
    for (std::size_t i = 0; i < all.size(); ++i) {
        verdicts.push_back(LedgerValidator::validate(all[i]));
        ++outcome.observationCount;
        outcome.coverageIssueCount += static_cast<int64_t>(verdicts.back().findings.size());
        outcome.ledgerEventCount += verdicts.back().isLedgerEligible ? 1 : 0;
        auto [it, added] = rowOf.try_emplace(all[i].id, rows.observation.size());
        if (added) {
            rows.add(all[i], verdicts.back());
            continue;
        }
        // A batch from the ingestor has one observation per id already; other callers may not.
        const std::size_t k = it->second;
        if (!rows.owned[k]) {
            folded.push_back(k);
        }
        UsageMerge::merge(rows.own(k), all[i]);
    }
    for (auto k : folded) {
        rows.revalidate(k);
    }
    rows.sortByID();
    StatementCache observations(db, LedgerUpserts::observations);
    StatementCache stored(db, LedgerUpserts::storedObservations);
    StatementCache deleteFindings(db, LedgerUpserts::deleteFindings);
    StatementCache deleteEvents(db, LedgerUpserts::deleteEvents);
    StatementCache deleteCosts(db, LedgerUpserts::deleteEventCosts);
    StatementCache events(db, LedgerUpserts::events);
    StatementCache costs(db, LedgerUpserts::costs);
    std::vector<std::string> eventIDs;
    std::vector<std::size_t> held;  // rows of the chunk the ledger may hold already
    const std::size_t count = rows.observation.size();
    for (std::size_t from = 0; from < count; from += kRowsPerStatement) {
        const std::size_t to = std::min(count, from + kRowsPerStatement);
        const int n = static_cast<int>(to - from);

        held.clear();
        for (std::size_t k = from; anyStored && k < to; ++k) {
            if (!mayHold || mayHold(rows.observation[k]->id)) {
                held.push_back(k);
            }
        }
        if (mergeStored && !held.empty()) {
            mergeWithStored(stored.get(static_cast<int>(held.size())), rows, held);
        }
        auto& obs = observations.get(n);
        for (std::size_t k = from; k < to; ++k) {
            const auto& o = *rows.observation[k];
            const int row = static_cast<int>(k - from);
            bindObservation(obs, row * LedgerUpserts::kObservationColumns, o, batch.id,
                            rows.verdict[k]->normalizedCost);
        }
        obs.run();
        if (!held.empty()) {
            // Findings always reflect the latest validation only.
            auto& findings = deleteFindings.get(static_cast<int>(held.size()));
            for (std::size_t r = 0; r < held.size(); ++r) {
                findings.bind(static_cast<int>(r) + 1, rows.observation[held[r]]->id);
            }
            findings.run();
        }

        std::vector<std::size_t> eligible, rejected;
        for (std::size_t k = from; k < to; ++k) {
            const auto& verdict = *rows.verdict[k];
            const auto& o = *rows.observation[k];
            for (const auto& finding : verdict.findings) {
                CoverageIssue issue;
                issue.id = UsageBatchBuilder::validationIssueID(o.id, finding.code);
                issue.runID = batch.id;
                issue.observationID = o.id;
                issue.integrationInstanceID = o.integrationInstanceID;
                issue.source = o.source;
                issue.code = finding.code;
                issue.severity = finding.severity;
                issue.origin = CoverageIssueOrigin::validation;
                issue.detectedAt = now;
                writeIssue(upsertIssue, issue);
            }
            if (verdict.isLedgerEligible) {
                eligible.push_back(k);
            } else if (std::ranges::binary_search(held, k)) {
                rejected.push_back(k);
            }
        }
        if (!rejected.empty()) {
            // Accepted once, rejected now: it leaves the ledger with its cost. The cost goes
            // first and explicitly, since the commit may run without the cascade.
            for (auto* make : {&deleteCosts, &deleteEvents}) {
                auto& del = make->get(static_cast<int>(rejected.size()));
                for (std::size_t r = 0; r < rejected.size(); ++r) {
                    del.bind(static_cast<int>(r) + 1, rows.observation[rejected[r]]->id);
                }
                del.run();
            }
        }
        if (!eligible.empty()) {
            const int n = static_cast<int>(eligible.size());
            eventIDs.clear();
            for (auto k : eligible) {
                eventIDs.push_back(UsageBatchBuilder::ledgerEventID(rows.observation[k]->id));
            }
            auto& ev = events.get(n);
            auto& cost = costs.get(n);
            for (int r = 0; r < n; ++r) {
                const auto k = eligible[static_cast<std::size_t>(r)];
                bindEvent(ev, r * LedgerUpserts::kEventColumns, *rows.observation[k], eventIDs[r],
                          now);
                bindCost(cost, r * LedgerUpserts::kCostColumns, eventIDs[r],
                         rows.verdict[k]->normalizedCost, now);
            }
            ev.run();
            cost.run();
        }
    }
}

// The commit proper; the caller holds the lock and has checked the batch. Returns the outcome
// and leaves the transaction committed, or throws with it rolled back.
static LedgerIngestOutcome commitLocked(sqlite3* db, const std::vector<UsageEvent>& legacyEvents,
                                        const std::vector<SourceCheckpoint>& checkpoints,
                                        std::optional<AgentSource> replacing,
                                        const UsageBatch* batch,
                                        const std::function<bool(std::string_view)>& mayHold,
                                        bool& wroteBatch) {
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

        const double now = epochNow();
        // A full rescan stands for everything the files hold now, merged in memory; rows kept
        // from files since gone must not outweigh it.
        const bool anyStored = replacing || holdsObservationsOf(db, *batch);
        const bool mergeStored = !replacing && anyStored;
        writeObservations(db, *batch, now, mergeStored, anyStored,
                          replacing ? std::function<bool(std::string_view)>() : mayHold,
                          s.upsertIssue, outcome);

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
            s.upsertCheckpoint.bind(1, instance ? instance->rawValue : std::string(kNoInstanceKey))
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
    return ingest(legacyEvents, checkpoints, replacingSource, formalBatch, {});
}

// Whether every reference the batch's rows make points at a row the same commit writes: the
// run, its observations, their events. Such a commit cannot break a foreign key; a batch naming
// an integration instance, an account or another run's rows leaves the checks to SQLite.
static bool referencesOnlyItself(const UsageBatch& batch) {
    const auto ownCheckpoint =
        !batch.checkpoint || !batch.checkpoint->integrationInstanceID;
    if (batch.integrationInstanceID || !ownCheckpoint) {
        return false;
    }
    for (const auto& o : batch.observations) {
        if (o.integrationInstanceID || o.accountID) {
            return false;
        }
    }
    std::unordered_set<std::string_view> ids;
    for (const auto& issue : batch.coverageIssues) {
        if (issue.integrationInstanceID || (issue.runID && *issue.runID != batch.id)) {
            return false;
        }
        if (issue.observationID) {
            if (ids.empty()) {
                for (const auto& o : batch.observations) {
                    ids.insert(o.id);
                }
            }
            if (!ids.contains(*issue.observationID)) {
                return false;
            }
        }
    }
    return true;
}

// Foreign keys off for one commit, on again after it however it ends. Each row of a commit
// checks its parents otherwise: two more index searches per usage, a sixth of a first import.
// The one cascade a commit relies on (costs of removed events) it performs itself.
class ForeignKeysOff {
  public:
    ForeignKeysOff(sqlite3* db, bool off) : db_(off ? db : nullptr) {
        if (db_) {
            sqlite::exec(db_, "PRAGMA foreign_keys=OFF;");
        }
    }
    ~ForeignKeysOff() {
        if (db_) {
            try {
                sqlite::exec(db_, "PRAGMA foreign_keys=ON;");
            } catch (const std::exception&) {
                // only with the connection already broken; the next open sets it again
            }
        }
    }
    ForeignKeysOff(const ForeignKeysOff&) = delete;
    ForeignKeysOff& operator=(const ForeignKeysOff&) = delete;

  private:
    sqlite3* db_;
};

std::optional<LedgerIngestOutcome> UsageStore::ingest(
    const std::vector<UsageEvent>& legacyEvents, const std::vector<SourceCheckpoint>& checkpoints,
    std::optional<AgentSource> replacingSource, const std::optional<UsageBatch>& formalBatch,
    const std::function<bool(std::string_view)>& mayHold) {
    if (formalBatch) {
        checkBatch(*formalBatch, replacingSource);
    }
    std::lock_guard guard(state_->lock);
    // A full rescan's removals need the cascades.
    ForeignKeysOff unchecked(state_->connection(), formalBatch && !replacingSource &&
                                                       referencesOnlyItself(*formalBatch));
    bool wroteBatch = false;
    auto outcome = commitLocked(state_->connection(), legacyEvents, checkpoints, replacingSource,
                                formalBatch ? &*formalBatch : nullptr, mayHold, wroteBatch);
    if (!formalBatch) {
        return std::nullopt;
    }
    return outcome;
}

LedgerIngestOutcome UsageStore::replaceLedgerSource(AgentSource source, const UsageBatch& batch) {
    return *ingest({}, {}, source, batch);
}

}  // namespace kestrel
