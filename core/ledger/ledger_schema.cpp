#include "core/ledger/ledger_schema.hpp"

namespace kestrel::ledger_schema {

const std::string_view kBaseScript = R"sql(
CREATE TABLE IF NOT EXISTS events (
  id TEXT PRIMARY KEY,
  occurred_at REAL NOT NULL,
  source TEXT NOT NULL,
  json TEXT NOT NULL
);
CREATE INDEX IF NOT EXISTS idx_events_time ON events(occurred_at);
CREATE INDEX IF NOT EXISTS idx_events_source_time ON events(source, occurred_at);
CREATE TABLE IF NOT EXISTS checkpoints (
  source TEXT NOT NULL,
  stable_id TEXT NOT NULL,
  json TEXT NOT NULL,
  PRIMARY KEY(source, stable_id)
);
CREATE TABLE IF NOT EXISTS quota (
  source TEXT PRIMARY KEY,
  json TEXT NOT NULL,
  fetched_at REAL NOT NULL
);
CREATE TABLE IF NOT EXISTS settings (
  key TEXT PRIMARY KEY,
  value TEXT NOT NULL
);
CREATE TABLE IF NOT EXISTS price_overrides (
  match TEXT PRIMARY KEY,
  json TEXT NOT NULL
);
)sql";

const std::string_view kVersion1Script = R"sql(
CREATE TABLE IF NOT EXISTS quota_accounts (
  account_id TEXT PRIMARY KEY,
  kind TEXT NOT NULL,
  json TEXT NOT NULL,
  fetched_at REAL NOT NULL
);
CREATE TABLE IF NOT EXISTS plan_accounts (
  account_id TEXT PRIMARY KEY,
  json TEXT NOT NULL,
  updated_at REAL NOT NULL
);
)sql";

const std::string_view kCopyQuotaIntoAccounts =
    "INSERT OR IGNORE INTO quota_accounts(account_id, kind, json, fetched_at)\n"
    "  SELECT 'source:' || source, 'source', json, fetched_at FROM quota;";

std::string sourceRenameScript(std::string_view oldKey, std::string_view newKey) {
    // The keys are fixed identifiers of ours (no quotes), so they can sit in the text as
    // literals. json_set is guarded because one malformed legacy row must not block the rename
    // of all the others.
    const std::string o = "'" + std::string(oldKey) + "'";
    const std::string n = "'" + std::string(newKey) + "'";
    const std::string prefixLength = std::to_string(oldKey.size() + 1);
    const std::string oldPrefix = "'" + std::string(oldKey) + ":'";
    const auto setJSON = [&](const char* path) {
        return "CASE WHEN json_valid(json) THEN json_set(json, '" + std::string(path) + "', " + n +
               ") ELSE json END";
    };

    std::string s;
    s += "UPDATE OR IGNORE events SET\n  id = CASE WHEN substr(id, 1, " + prefixLength +
         ") = " + oldPrefix + " THEN " + n + " || substr(id, " + prefixLength +
         ") ELSE id END,\n  source = " + n + ",\n  json = " + setJSON("$.source") +
         "\nWHERE source = " + o + ";\n";
    s += "DELETE FROM events WHERE source = " + o + ";\n";
    // The stored checkpoint names its source too; left old, it would no longer decode.
    s += "UPDATE OR IGNORE checkpoints SET source = " + n + ", json = " + setJSON("$.source") +
         "\nWHERE source = " + o + ";\n";
    s += "DELETE FROM checkpoints WHERE source = " + o + ";\n";
    s += "UPDATE OR IGNORE quota SET source = " + n + ", json = " + setJSON("$.identity.source") +
         "\nWHERE source = " + o + ";\n";
    s += "DELETE FROM quota WHERE source = " + o + ";\n";
    s += "UPDATE OR IGNORE quota_accounts SET account_id = 'source:' || " + n +
         ", json = " + setJSON("$.identity.source") + "\nWHERE account_id = 'source:' || " + o +
         ";\n";
    s += "DELETE FROM quota_accounts WHERE account_id = 'source:' || " + o + ";\n";
    return s;
}

const std::string_view kLedgerScript = R"sql(
CREATE TABLE IF NOT EXISTS integration_instances (
  id TEXT PRIMARY KEY,
  plugin_id TEXT NOT NULL,
  enabled_capabilities TEXT NOT NULL,
  granted_permissions TEXT NOT NULL,
  health_state TEXT NOT NULL,
  hook_health TEXT,
  diagnostic_code TEXT,
  last_scan_at REAL,
  installed_root_count INTEGER,
  accepted_observation_count INTEGER,
  rejected_observation_count INTEGER,
  conflict_count INTEGER,
  coverage_issue_count INTEGER,
  archived_at REAL,
  created_at REAL NOT NULL,
  updated_at REAL NOT NULL
);
CREATE INDEX IF NOT EXISTS idx_integration_instances_plugin_active
  ON integration_instances(plugin_id, archived_at);

CREATE TABLE IF NOT EXISTS subscription_accounts (
  id TEXT PRIMARY KEY,
  provider TEXT NOT NULL,
  family TEXT,
  region TEXT,
  display_label TEXT,
  identity_fingerprint TEXT,
  credential_handle TEXT,
  state TEXT NOT NULL,
  created_at REAL NOT NULL,
  last_seen_at REAL NOT NULL,
  archived_at REAL
);
CREATE INDEX IF NOT EXISTS idx_subscription_accounts_provider_state
  ON subscription_accounts(provider, state);
CREATE UNIQUE INDEX IF NOT EXISTS idx_subscription_accounts_fingerprint
  ON subscription_accounts(provider, identity_fingerprint)
  WHERE identity_fingerprint IS NOT NULL;

CREATE TABLE IF NOT EXISTS account_bindings (
  id TEXT PRIMARY KEY,
  integration_instance_id TEXT NOT NULL REFERENCES integration_instances(id),
  account_id TEXT NOT NULL REFERENCES subscription_accounts(id),
  binding_key TEXT NOT NULL,
  state TEXT NOT NULL,
  first_seen_at REAL NOT NULL,
  last_seen_at REAL NOT NULL,
  archived_at REAL
);
CREATE UNIQUE INDEX IF NOT EXISTS idx_account_bindings_active_identity
  ON account_bindings(integration_instance_id, account_id, binding_key)
  WHERE archived_at IS NULL;
CREATE INDEX IF NOT EXISTS idx_account_bindings_account
  ON account_bindings(account_id, state);

CREATE TABLE IF NOT EXISTS quota_snapshots (
  id TEXT PRIMARY KEY,
  account_id TEXT NOT NULL REFERENCES subscription_accounts(id),
  window_kind TEXT NOT NULL,
  captured_at REAL NOT NULL,
  used_value REAL,
  limit_value REAL,
  used_percent REAL,
  resets_at REAL,
  remaining_label TEXT,
  currency TEXT,
  provenance TEXT NOT NULL,
  is_stale INTEGER NOT NULL CHECK(is_stale IN (0,1))
);
CREATE INDEX IF NOT EXISTS idx_quota_snapshots_account_time
  ON quota_snapshots(account_id, captured_at DESC);

CREATE TABLE IF NOT EXISTS ingest_runs (
  id TEXT PRIMARY KEY,
  integration_instance_id TEXT REFERENCES integration_instances(id),
  adapter_id TEXT NOT NULL,
  source TEXT NOT NULL,
  started_at REAL NOT NULL,
  completed_at REAL,
  status TEXT NOT NULL,
  observation_count INTEGER NOT NULL DEFAULT 0,
  ledger_event_count INTEGER NOT NULL DEFAULT 0,
  issue_count INTEGER NOT NULL DEFAULT 0,
  error_code TEXT
);
CREATE INDEX IF NOT EXISTS idx_ingest_runs_source_time ON ingest_runs(source, started_at DESC);
CREATE INDEX IF NOT EXISTS idx_ingest_runs_status ON ingest_runs(status, started_at DESC);

CREATE TABLE IF NOT EXISTS usage_observations (
  id TEXT PRIMARY KEY,
  run_id TEXT NOT NULL REFERENCES ingest_runs(id),
  integration_instance_id TEXT REFERENCES integration_instances(id),
  account_id TEXT REFERENCES subscription_accounts(id),
  source TEXT NOT NULL,
  provider TEXT NOT NULL,
  model TEXT NOT NULL,
  occurred_at REAL,
  observed_at REAL NOT NULL,
  time_quality TEXT NOT NULL,
  precision TEXT NOT NULL,
  session_key TEXT,
  project_display_name TEXT,
  evidence_fingerprint TEXT,
  input_uncached INTEGER,
  cache_read INTEGER,
  cache_write INTEGER,
  output_visible INTEGER,
  reasoning INTEGER,
  provider_input_total INTEGER,
  provider_output_total INTEGER,
  provider_total INTEGER,
  breakdown_trusted INTEGER NOT NULL CHECK(breakdown_trusted IN (0,1)),
  usage_semantics_version INTEGER NOT NULL,
  cost_usd_micros INTEGER,
  cost_completeness TEXT NOT NULL,
  cost_source TEXT NOT NULL,
  price_version INTEGER,
  fx_version INTEGER,
  billing_mode TEXT NOT NULL,
  granularity TEXT NOT NULL DEFAULT 'unknown'
);
CREATE INDEX IF NOT EXISTS idx_usage_observations_source_time
  ON usage_observations(source, occurred_at);
CREATE INDEX IF NOT EXISTS idx_usage_observations_run ON usage_observations(run_id);
CREATE INDEX IF NOT EXISTS idx_usage_observations_account_time
  ON usage_observations(account_id, occurred_at);

CREATE TABLE IF NOT EXISTS ledger_events (
  id TEXT PRIMARY KEY,
  observation_id TEXT NOT NULL UNIQUE REFERENCES usage_observations(id) ON DELETE CASCADE,
  integration_instance_id TEXT REFERENCES integration_instances(id),
  account_id TEXT REFERENCES subscription_accounts(id),
  occurred_at REAL NOT NULL,
  source TEXT NOT NULL,
  provider TEXT NOT NULL,
  model TEXT NOT NULL,
  session_key TEXT,
  project_display_name TEXT,
  input_uncached INTEGER,
  cache_read INTEGER,
  cache_write INTEGER,
  output_visible INTEGER,
  reasoning INTEGER,
  provider_input_total INTEGER,
  provider_output_total INTEGER,
  provider_total INTEGER,
  usage_semantics_version INTEGER NOT NULL,
  created_at REAL NOT NULL,
  updated_at REAL NOT NULL
);
CREATE INDEX IF NOT EXISTS idx_ledger_events_time_id ON ledger_events(occurred_at, id);
CREATE INDEX IF NOT EXISTS idx_ledger_events_source_time ON ledger_events(source, occurred_at);
CREATE INDEX IF NOT EXISTS idx_ledger_events_account_time
  ON ledger_events(account_id, occurred_at);
CREATE INDEX IF NOT EXISTS idx_ledger_events_instance_time
  ON ledger_events(integration_instance_id, occurred_at);

CREATE TABLE IF NOT EXISTS ledger_costs (
  ledger_event_id TEXT PRIMARY KEY REFERENCES ledger_events(id) ON DELETE CASCADE,
  amount_usd_micros INTEGER,
  completeness TEXT NOT NULL,
  cost_source TEXT NOT NULL,
  price_version INTEGER,
  fx_version INTEGER,
  billing_mode TEXT NOT NULL,
  updated_at REAL NOT NULL
);
CREATE INDEX IF NOT EXISTS idx_ledger_costs_known_amount
  ON ledger_costs(amount_usd_micros)
  WHERE amount_usd_micros IS NOT NULL;

CREATE TABLE IF NOT EXISTS adapter_checkpoints (
  instance_key TEXT NOT NULL,
  integration_instance_id TEXT REFERENCES integration_instances(id),
  adapter_id TEXT NOT NULL,
  opaque_cursor TEXT,
  parser_version INTEGER NOT NULL,
  updated_at REAL NOT NULL,
  PRIMARY KEY(instance_key, adapter_id)
);
CREATE INDEX IF NOT EXISTS idx_adapter_checkpoints_updated
  ON adapter_checkpoints(updated_at DESC);

CREATE TABLE IF NOT EXISTS coverage_issues (
  id TEXT PRIMARY KEY,
  run_id TEXT REFERENCES ingest_runs(id) ON DELETE CASCADE,
  observation_id TEXT REFERENCES usage_observations(id) ON DELETE CASCADE,
  integration_instance_id TEXT REFERENCES integration_instances(id),
  source TEXT,
  code TEXT NOT NULL,
  severity TEXT NOT NULL,
  origin TEXT NOT NULL,
  diagnostic_code TEXT,
  detected_at REAL NOT NULL,
  resolved_at REAL
);
CREATE INDEX IF NOT EXISTS idx_coverage_issues_open
  ON coverage_issues(resolved_at, severity, detected_at DESC);
CREATE INDEX IF NOT EXISTS idx_coverage_issues_observation ON coverage_issues(observation_id);
CREATE INDEX IF NOT EXISTS idx_coverage_issues_run ON coverage_issues(run_id);
)sql";

const std::string_view kAddGranularityColumn =
    "ALTER TABLE usage_observations ADD COLUMN granularity TEXT NOT NULL DEFAULT 'unknown';";

const std::string_view kAccountBindingsIndexRepair =
    "DROP INDEX IF EXISTS idx_account_bindings_identity;\n"
    "CREATE UNIQUE INDEX IF NOT EXISTS idx_account_bindings_active_identity\n"
    "  ON account_bindings(integration_instance_id, account_id, binding_key)\n"
    "  WHERE archived_at IS NULL;";

const std::string_view kRemovedSubscriptionAccountsScript = R"sql(
CREATE TABLE IF NOT EXISTS removed_subscription_accounts (
  account_id TEXT PRIMARY KEY,
  removed_at REAL NOT NULL,
  display_label TEXT NOT NULL
);
)sql";

const std::string_view kVersion4Script = R"sql(
CREATE TABLE IF NOT EXISTS quota_accounts (
  account_id TEXT PRIMARY KEY,
  kind TEXT NOT NULL,
  json TEXT NOT NULL,
  fetched_at REAL NOT NULL
);
CREATE TABLE IF NOT EXISTS plan_accounts (
  account_id TEXT PRIMARY KEY,
  json TEXT NOT NULL,
  updated_at REAL NOT NULL
);
CREATE TABLE IF NOT EXISTS plan_discovery_candidates (
  candidate_id TEXT PRIMARY KEY,
  revision TEXT NOT NULL,
  binding_key TEXT NOT NULL,
  family TEXT NOT NULL,
  region TEXT NOT NULL,
  endpoint_base_url TEXT,
  tool_id TEXT NOT NULL,
  source_display_name TEXT NOT NULL,
  source_entry_id TEXT NOT NULL,
  is_current INTEGER NOT NULL CHECK(is_current IN (0,1)),
  credential_origin TEXT,
  credential_locator TEXT,
  credential_fingerprint TEXT,
  credential_resolution TEXT NOT NULL,
  scan_generation INTEGER NOT NULL,
  decision TEXT NOT NULL,
  validation_state TEXT NOT NULL,
  validation_report_json TEXT,
  proposed_account_id TEXT NOT NULL,
  adapter_version TEXT NOT NULL,
  first_seen_at REAL NOT NULL,
  last_seen_at REAL NOT NULL,
  decided_at REAL,
  is_present INTEGER NOT NULL DEFAULT 1 CHECK(is_present IN (0,1))
);
CREATE INDEX IF NOT EXISTS idx_plan_candidates_pending
  ON plan_discovery_candidates(decision, is_present, scan_generation);
CREATE INDEX IF NOT EXISTS idx_plan_candidates_account
  ON plan_discovery_candidates(proposed_account_id, decision);
)sql";

// A bucket is a quarter of an hour: every time zone in use today is offset from UTC by whole
// quarter hours, so local days and hours are whole runs of buckets. The bucket of t is
// floor(t / 900), corrected for the rounding of the division so that bucket b holds exactly the
// instants b*900 <= t < (b+1)*900 that the range queries select.
#define KESTREL_BUCKET_OF(t)                                                          \
    "(CAST((" t ") / 900 AS INTEGER) - (CAST((" t ") / 900 AS INTEGER) * 900.0 > (" t \
    ")) + ((CAST((" t ") / 900 AS INTEGER) + 1) * 900.0 <= (" t ")))"

// Marks the quarter hour of the instant `t` dirty. Repeats are fine (the refresh reads each
// once), and cheaper than keeping the marks unique on every write of the ledger.
#define KESTREL_MARK_DIRTY(t) \
    "INSERT INTO ledger_rollup_dirty(bucket) VALUES(" KESTREL_BUCKET_OF(t) ");"

// One table of totals per level: quarter hours (bucket = floor(t / 900)), hours (t / 3600) and UTC
// days (t / 86400), each row the totals of one combination of the kept dimensions.
#define KESTREL_ROLLUP_TABLE(name)                                                          \
    "CREATE TABLE IF NOT EXISTS " name                                                      \
    " (\n"                                                                                  \
    "  bucket INTEGER NOT NULL,\n"                                                          \
    "  source TEXT NOT NULL,\n"                                                             \
    "  model TEXT NOT NULL,\n"                                                              \
    "  provider TEXT NOT NULL,\n"                                                           \
    "  account_id TEXT NOT NULL,\n"                                                         \
    "  integration_instance_id TEXT NOT NULL,\n"                                            \
    "  event_count INTEGER NOT NULL,\n"                                                     \
    "  input_uncached INTEGER, input_uncached_n INTEGER NOT NULL,\n"                        \
    "  cache_read INTEGER, cache_read_n INTEGER NOT NULL,\n"                                \
    "  cache_write INTEGER, cache_write_n INTEGER NOT NULL,\n"                              \
    "  output_visible INTEGER, output_visible_n INTEGER NOT NULL,\n"                        \
    "  reasoning INTEGER, reasoning_n INTEGER NOT NULL,\n"                                  \
    "  fully_known INTEGER, fully_known_n INTEGER NOT NULL,\n"                              \
    "  provider_known INTEGER, provider_known_n INTEGER NOT NULL,\n"                        \
    "  cost_usd_micros INTEGER, cost_n INTEGER NOT NULL,\n"                                 \
    "  PRIMARY KEY(bucket, source, model, provider, account_id, integration_instance_id)\n" \
    ") WITHOUT ROWID;\n"

// Costs change under their events only when the ledger is repriced, which marks everything;
// every other write of a cost writes its event too.
#define KESTREL_ROLLUP_TRIGGERS \
    "CREATE TRIGGER IF NOT EXISTS ledger_events_rollup_insert AFTER INSERT ON ledger_events\n" \
    "BEGIN " KESTREL_MARK_DIRTY("NEW.occurred_at") " END;\n"                                  \
    "CREATE TRIGGER IF NOT EXISTS ledger_events_rollup_delete AFTER DELETE ON ledger_events\n" \
    "BEGIN " KESTREL_MARK_DIRTY("OLD.occurred_at") " END;\n"                                  \
    "CREATE TRIGGER IF NOT EXISTS ledger_events_rollup_update AFTER UPDATE ON ledger_events\n" \
    "BEGIN\n"                                                                                  \
    "  " KESTREL_MARK_DIRTY("OLD.occurred_at") "\n"                                            \
    "  " KESTREL_MARK_DIRTY("NEW.occurred_at") "\n"                                            \
    "END;\n"

const std::string_view kVersion5Script =
    KESTREL_ROLLUP_TABLE("ledger_rollups")
    KESTREL_ROLLUP_TABLE("ledger_rollups_hour")
    KESTREL_ROLLUP_TABLE("ledger_rollups_day")
    "CREATE TABLE IF NOT EXISTS ledger_rollup_dirty (bucket INTEGER NOT NULL);\n"
    KESTREL_ROLLUP_TRIGGERS
    "INSERT INTO ledger_rollup_dirty(bucket) SELECT DISTINCT " KESTREL_BUCKET_OF(
        "occurred_at") " FROM ledger_events;\n";

// Kept while the ledger is empty: the commit's own look-ups (observations of a source, findings
// of an observation) and the primary keys and unique columns the upserts resolve on.
const std::string_view kFirstImportDrop =
    "DROP TRIGGER IF EXISTS ledger_events_rollup_insert;\n"
    "DROP TRIGGER IF EXISTS ledger_events_rollup_delete;\n"
    "DROP TRIGGER IF EXISTS ledger_events_rollup_update;\n"
    "DROP INDEX IF EXISTS idx_usage_observations_run;\n"
    "DROP INDEX IF EXISTS idx_usage_observations_account_time;\n"
    "DROP INDEX IF EXISTS idx_ledger_events_time_id;\n"
    "DROP INDEX IF EXISTS idx_ledger_events_source_time;\n"
    "DROP INDEX IF EXISTS idx_ledger_events_account_time;\n"
    "DROP INDEX IF EXISTS idx_ledger_events_instance_time;\n"
    "DROP INDEX IF EXISTS idx_ledger_events_session;\n"
    "DROP INDEX IF EXISTS idx_ledger_costs_known_amount;\n"
    "DROP INDEX IF EXISTS idx_coverage_issues_open;\n"
    "DROP INDEX IF EXISTS idx_coverage_issues_run;\n";

const std::string_view kFirstImportRebuild = KESTREL_ROLLUP_TRIGGERS;

#undef KESTREL_ROLLUP_TRIGGERS
#undef KESTREL_MARK_DIRTY
#undef KESTREL_ROLLUP_TABLE
#undef KESTREL_BUCKET_OF

// Partial: most events of agents that keep no session, or of users who keep none, have no key.
const std::string_view kSessionIndex =
    "CREATE INDEX IF NOT EXISTS idx_ledger_events_session\n"
    "  ON ledger_events(session_key, occurred_at) WHERE session_key IS NOT NULL;";

const std::string_view kHasSessionIndex =
    "SELECT 1 FROM sqlite_master WHERE type='index' AND name='idx_ledger_events_session';";

const std::string_view kAccountsMissingWindowKeys =
    "SELECT account_id, kind, json FROM quota_accounts WHERE account_id IN (SELECT account_id "
    "FROM quota_snapshots WHERE window_key IS NULL);";

const std::string_view kSnapshotsMissingWindowKey =
    "SELECT id, window_kind, captured_at FROM quota_snapshots\n"
    "WHERE account_id=? AND window_key IS NULL\n"
    "ORDER BY captured_at, id;";

const std::string_view kSetWindowLabelAndKey =
    "UPDATE quota_snapshots SET window_label=?, window_key=? WHERE id=? AND window_key IS NULL;";

}  // namespace kestrel::ledger_schema
