#pragma once
// The one owner of the ledger database (usage.sqlite): it opens and migrates the file, and every
// read and write of the ledger, checkpoints, settings and price overrides goes through it.
// Shared by all threads: one full-mutex connection, compound operations under one lock; both
// stay in usage_store_internals.hpp, so users of the store need neither SQLite nor that lock.

#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "core/ledger/ledger_query.hpp"
#include "core/ledger/ledger_records.hpp"
#include "core/ledger/store_error.hpp"
#include "core/model/account_snapshot.hpp"
#include "core/model/integration_instance_repository.hpp"
#include "core/model/source_checkpoint.hpp"
#include "core/model/usage_event.hpp"
#include "core/pricing/price_override_source.hpp"
#include "core/sources/agent_catalog.hpp"

namespace kestrel {

struct PriceTable;
struct RepriceOutcome;

// Opening the ledger only to read it, for quick glances (a status line, a panel) that must not
// wait on a scan: no file or folder is created, nothing is migrated or written, and a lock held
// by another process is waited on for `busyTimeoutMs` at most. Queries then use the rollups only
// while they are current and read the events otherwise.
struct ReadOnlyLedger {
    int busyTimeoutMs = 100;
};

// What a privacy setting keeps out of the ledger from the moment it is turned off.
enum class PrivateField { projectName, sessionKey };

class UsageStore : public IntegrationInstanceRepository, public PriceOverrideSource {
  public:
    static constexpr const char* kFileName = "usage.sqlite";
    static constexpr int kBusyTimeoutMs = 5000;
    static constexpr int64_t kSchemaVersion = 5;

    // Opens or creates `directory`/usage.sqlite (creating the directory) and migrates it.
    // Throws StoreError(open) or StoreError(migrate).
    explicit UsageStore(const std::filesystem::path& directory);
    // Opens an existing ledger for reading. Throws StoreError(open) when there is none or it
    // cannot be read, StoreError(migrate) when it is older than this build's schema.
    UsageStore(const std::filesystem::path& directory, ReadOnlyLedger readOnly);
    ~UsageStore();
    UsageStore(const UsageStore&) = delete;
    UsageStore& operator=(const UsageStore&) = delete;

    // The default support directory: $KESTREL_SUPPORT_DIR, else $XDG_DATA_HOME/kestrel, else
    // ~/.local/share/kestrel (~/Library/Application Support/Kestrel on macOS).
    static std::filesystem::path supportDirectoryURL(const EnvironmentLookup& env,
                                                     const std::filesystem::path& home);

    const std::filesystem::path& databasePath() const { return path_; }

    // Closes the connection; every later operation throws StoreError(open).
    void close();
    bool isOpen() const;

    // --- Ledger commit --------------------------------------------------------------------

    // One scan step in one transaction: legacy event rows and file checkpoints (tables `events`
    // and `checkpoints`) and the formal batch. With `replacingSource` the batch is a full rescan
    // of that source and ledger events it no longer proves are removed. The outcome is absent
    // when no batch was given. Throws LedgerStoreError(invalidBatch) before writing anything, or
    // StoreError(sql) with everything rolled back.
    std::optional<LedgerIngestOutcome> ingest(const std::vector<UsageEvent>& legacyEvents,
                                              const std::vector<SourceCheckpoint>& checkpoints,
                                              std::optional<AgentSource> replacingSource,
                                              const std::optional<UsageBatch>& formalBatch);

    // As above, with `mayHold` telling which observation ids the ledger may already hold (a
    // caller that tracks what its earlier commits wrote); the others skip the look-up of a
    // stored row to merge with and the removal of its earlier findings. Absent: every id may.
    std::optional<LedgerIngestOutcome> ingest(const std::vector<UsageEvent>& legacyEvents,
                                              const std::vector<SourceCheckpoint>& checkpoints,
                                              std::optional<AgentSource> replacingSource,
                                              const std::optional<UsageBatch>& formalBatch,
                                              const std::function<bool(std::string_view)>& mayHold);

    // Commits `batch` alone as a full rescan of `source`.
    LedgerIngestOutcome replaceLedgerSource(AgentSource source, const UsageBatch& batch);

    // A ledger without usage is filled much faster without its secondary indexes and the
    // triggers that keep the rollups: beginFirstImport drops them when the ledger holds no
    // observation at all (and says whether it did); finishFirstImport builds them again and
    // then the rollups in one pass. The state is kept in the file, so that a process stopped in
    // between leaves a ledger whose next writable open finishes the job.
    bool beginFirstImport();
    void finishFirstImport();
    // Whether a first import is under way (or was cut short and not yet finished).
    bool firstImportPending();

    // Hears (observations looked at, observations to look at) as a reprice goes, on its thread.
    using RepriceProgress = std::function<void(int64_t done, int64_t total)>;

    // Recomputes the cost of every stored observation and its ledger event; returns how many
    // observations were repriced.
    int64_t repriceLedger(const PriceTable& prices, BillingMode billing,
                          const RepriceProgress& progress = {});

    // As repriceLedger; with `allEvents` false only the observations that have no cost yet
    // (for instance after a price was added for a model that had none).
    int64_t reprice(const PriceTable& prices, BillingMode billing, bool allEvents,
                    const RepriceProgress& progress = {});

    // Reprices only when the stored price fingerprint differs from the current one.
    RepriceOutcome repriceIfFingerprintChanged(const PriceTable& prices, BillingMode billing,
                                               const RepriceProgress& progress = {});

    // --- File checkpoints (table `checkpoints`) ----------------------------------------------

    std::vector<SourceCheckpoint> checkpoints(AgentSource source);

    // Whether the ledger holds any event of `source`.
    bool hasLedgerEvents(AgentSource source);

    // --- Ledger queries (usage_store_queries.cpp) --------------------------------------------
    //
    // Every filter goes through ledgerFilter. Totals over whole quarter hours come from the
    // ledger_rollups table when the filter allows it (time, source, instance, account, provider,
    // model; not project, session or search), with the partial quarter hours at the ends of the
    // range read from the events; the results equal a full aggregation of the events. Local days
    // and hours are whole runs of quarter hours in every time zone in use today. Each throws
    // StoreError(sql) on failure.

    // A page of entries in (occurredAt, id) order, starting after `after`.
    LedgerPage ledgerEvents(const LedgerQuery& query, LedgerSortOrder order,
                            const std::optional<LedgerCursor>& after, int limit);
    int64_t ledgerEventCount(const LedgerQuery& query);
    int64_t ledgerEventCount();
    int64_t usageObservationCount(const std::optional<std::string>& integrationInstanceID = {});
    LedgerSummary ledgerSummary(const LedgerQuery& query);
    // One summary per query, in order, all read from one snapshot of the ledger.
    std::vector<LedgerSummary> ledgerSummaries(const std::vector<LedgerQuery>& queries);
    std::map<AgentSource, LedgerSummary> ledgerSummariesBySource(const LedgerQuery& query);
    // Heaviest known token total first, then the most expensive, then by name.
    std::vector<LedgerModelSummary> ledgerSummariesByModel(const LedgerQuery& query);
    // Per local day (or hour) and source, in time then source order.
    std::vector<LedgerTimeBucket> ledgerTimeBuckets(const LedgerQuery& query,
                                                    LedgerBucketUnit unit);
    // Per local day (or hour) and model, in time then model order: the per-model breakdown of a
    // period report.
    std::vector<LedgerModelTimeBucket> ledgerModelTimeBuckets(const LedgerQuery& query,
                                                              LedgerBucketUnit unit);
    // Per local day in [from, to): the known token total and cost, days without events left out.
    std::vector<LedgerDailyTotal> ledgerDailyTotals(double from, double to);
    std::optional<LedgerDateBounds> ledgerOccurredAtBounds(const LedgerQuery& query);
    LedgerFacets ledgerFacets(const LedgerQuery& query);
    // Per session key (events without one are left out), the latest first.
    std::vector<LedgerSessionSummary> ledgerSummariesBySession(const LedgerQuery& query);
    // Per project (absent: events without a project name), heaviest first.
    std::vector<LedgerProjectSummary> ledgerSummariesByProject(const LedgerQuery& query);
    // Open coverage issues, grouped by code, source and origin; and counted per code.
    std::vector<CoverageIssueGroup> coverageIssueGroups(const LedgerQuery& query);
    std::vector<CoverageIssueCount> coverageIssueCounts(const LedgerQuery& query);
    // Brings ledger_rollups up to date with the events (done by the queries when needed; a
    // caller may do it ahead, for instance at the end of a scan).
    void refreshRollups();

    // --- Privacy ----------------------------------------------------------------------------

    // How many ledger events hold a value of `field`.
    int64_t ledgerEventsHolding(PrivateField field);
    // Removes every stored value of `field` (ledger events, their observations, rows kept by
    // older builds) in one transaction; returns how many ledger events lost one.
    int64_t forget(PrivateField field);

    // --- Settings (table `settings`) ----------------------------------------------------------

    std::optional<std::string> setting(const std::string& key);
    void setSetting(const std::string& key, const std::string& value);

    // --- Integration instances (table `integration_instances`) -------------------------------

    // loadAll is ordered by creation time, then id. A row written by a newer build still loads:
    // capabilities, permissions and hook states it does not know are dropped, and an unknown
    // health state reads as `degraded` with diagnosticCode "unknownHealthState:<name>".
    std::vector<IntegrationInstance> loadAll() override;
    std::optional<IntegrationInstance> activeInstance(const IntegrationPluginID& plugin) override;
    void save(const IntegrationInstance& instance, double now) override;

    // --- Quota of agent sources (table `quota_accounts`, kind 'source') ----------------------

    // Stores the reading as the source's last one. True when it differs from the stored one in
    // more than fetchedAt; the stored reading and its fetch time are replaced either way.
    bool saveQuota(const AccountSnapshot& snapshot);
    bool deleteQuota(AgentSource source);  // false when nothing was stored
    // Absent when nothing is stored or the stored reading no longer decodes.
    std::optional<AccountSnapshot> quota(AgentSource source);
    // Every source's reading, in account-id order; readings that do not decode are left out.
    std::vector<AccountSnapshot> quotas();

    // --- Quota of API plan accounts (table `quota_accounts`, kind 'plan') --------------------

    // Keyed "plan:" + the account id; same change rule as saveQuota.
    bool savePlanQuota(const std::string& accountID, const AccountSnapshot& snapshot);
    std::optional<AccountSnapshot> planQuota(const std::string& accountID);
    // (account id, reading) in account-id order; readings that do not decode are left out.
    std::vector<std::pair<std::string, AccountSnapshot>> planQuotas();

    // --- Price overrides (table `price_overrides`, keyed by match) ---------------------------

    std::vector<PriceRow> priceOverrides() override;
    void savePriceOverride(const PriceRow& row);
    bool deletePriceOverride(const std::string& match);  // false when nothing matched
    bool hasPriceOverride(const std::string& match);

  private:
    struct State;                    // the connection and its locks
    friend struct UsageStoreAccess;  // for core/ledger's own helpers that compound operations

    void migrate();
    void openConnection(int flags, int busyTimeoutMs);

    std::filesystem::path path_;
    std::unique_ptr<State> state_;
};

}  // namespace kestrel
