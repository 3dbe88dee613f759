#pragma once
// The SQL that builds usage.sqlite, one constant per migration step. UsageStore::migrate runs
// them in order; each script is safe to run on a file that already has its objects.

#include <array>
#include <string>
#include <string_view>
#include <utility>

namespace kestrel::ledger_schema {

// The older key/JSON tables (events, checkpoints, quota, settings, price_overrides) and the two
// events indexes. Run on every open.
extern const std::string_view kBaseScript;

// Version 1: quota_accounts and plan_accounts, then every quota row copied into quota_accounts.
extern const std::string_view kVersion1Script;
extern const std::string_view kCopyQuotaIntoAccounts;

// Version 2: agent-source keys renamed in every older table, (old, new) in the order applied.
inline constexpr std::array<std::pair<std::string_view, std::string_view>, 4> kSourceKeyRenames{{
    {"kilo-code", "kilocode"},
    {"roo-code", "roocode"},
    {"deepseek-harness", "dsh"},
    {"trae-work-cn", "trae-cn"},
}};

// The script renaming `oldKey` to `newKey` in events (id prefix, source, $.source), checkpoints,
// quota and quota_accounts. A row whose new key is already taken is deleted instead.
std::string sourceRenameScript(std::string_view oldKey, std::string_view newKey);

// Version 3: the ten ledger tables and their indexes.
extern const std::string_view kLedgerScript;

// Repairs of a file already at version 3 or later.
extern const std::string_view kAddGranularityColumn;
extern const std::string_view kAccountBindingsIndexRepair;

// Run on every open after version 3.
extern const std::string_view kRemovedSubscriptionAccountsScript;
inline constexpr std::array<std::string_view, 2> kQuotaSnapshotWindowColumns{"window_label",
                                                                             "window_key"};

// Version 4: the plan tables and the plan-discovery candidates with their indexes.
extern const std::string_view kVersion4Script;

// Version 5: totals of the ledger per quarter hour, hour and UTC day (ledger_rollups,
// ledger_rollups_hour, ledger_rollups_day), kept current from the quarter hours that triggers on
// ledger_events and ledger_costs mark dirty (ledger_rollup_dirty); every quarter hour that holds
// events is marked dirty once, so the first query fills the totals.
extern const std::string_view kVersion5Script;

// A first import into an empty ledger runs without the secondary indexes that its commits do
// not read and without the rollup triggers: kFirstImportDrop removes them, kFirstImportRebuild
// (with kLedgerScript and kSessionIndex, which recreate the indexes) puts the triggers back. The
// settings row kFirstImportKey says the ledger is in that state.
extern const std::string_view kFirstImportDrop;
extern const std::string_view kFirstImportRebuild;
inline constexpr std::string_view kFirstImportKey = "ledger_first_import";

// The index behind one session's totals (a status line asks for them every few seconds), and the
// query that finds it; a row when it exists.
extern const std::string_view kSessionIndex;
extern const std::string_view kHasSessionIndex;

// Backfill of window labels and keys of quota snapshots.
extern const std::string_view kAccountsMissingWindowKeys;
extern const std::string_view kSnapshotsMissingWindowKey;
extern const std::string_view kSetWindowLabelAndKey;

}  // namespace kestrel::ledger_schema
