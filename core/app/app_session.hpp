#pragma once
// One running Kestrel, whichever front end drives it: the ledger, the user's settings, the price
// table, the integration instances and the ingestor, opened in that order and closed in the
// reverse one. The command line opens one per command; the desktop app keeps one for its life.
//
// Lifetimes: everything reachable from a session (store, coordinator, ingestor, a watch started
// through it) lives exactly as long as the session. References handed out stay valid until it
// is destroyed. Destroying it stops a running watch first, so the file watcher never outlives
// the ledger it feeds.
//
// Threads: the store and the ingestor are safe to share (the ingestor runs one scan at a time,
// the store serialises its writers); settings and prices are read and replaced under the
// session's own lock, so a scan on a worker thread sees either the old or the new values whole.

#include <cstdint>
#include <expected>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <string>

#include "core/integrations/integration_instance_coordinator.hpp"
#include "core/ledger/ingestor.hpp"
#include "core/ledger/usage_store.hpp"
#include "core/model/app_settings.hpp"
#include "core/pricing/price_table.hpp"
#include "core/pricing/reprice_outcome.hpp"
#include "core/sources/agent_catalog.hpp"

namespace kestrel {

class UsageWatch;
struct WatchOptions;
struct WatchCallbacks;

// Where a session reads and writes.
struct AppPaths {
    std::filesystem::path home;        // the folder whose agents' records are read
    std::filesystem::path supportDir;  // Kestrel's own folder, holding the ledger
    // The agents' own folder variables (CLAUDE_CONFIG_DIR, ...); empty for a demo or test home.
    EnvironmentLookup env = emptyEnvironment();
};

// Why a session could not be opened, in words fit for the user.
struct AppOpenError {
    enum class Kind { ledger, settings };
    Kind kind = Kind::ledger;
    std::string message;  // "cannot open the ledger in DIR: ..." or "cannot read the settings: ..."
};

// What a settings change set off.
struct SettingsChange {
    bool changed = false;        // something differed from the stored settings
    RepriceOutcome repriced;     // the ledger repriced because the billing mode moved
};

class AppSession {
  public:
    // Called after every settings change, on the thread that made it, with the new settings.
    using SettingsListener = std::function<void(const AppSettings&)>;

    // Opens the ledger in paths.supportDir (creating or migrating it), loads the stored
    // settings, resolves the prices (built-in rows with the user's overrides) and reprices the
    // ledger if they or the billing mode changed since it was last priced, reconciles the
    // integration instances with what is installed below paths.home, and builds the ingestor.
    // Nothing is scanned.
    static std::expected<std::unique_ptr<AppSession>, AppOpenError> open(AppPaths paths);

    ~AppSession();
    AppSession(const AppSession&) = delete;
    AppSession& operator=(const AppSession&) = delete;

    const AppPaths& paths() const { return paths_; }
    UsageStore& store() { return *store_; }
    IntegrationInstanceCoordinator& integrations() { return *coordinator_; }
    Ingestor& ingestor() { return *ingestor_; }

    // What opening repriced (skipped when nothing that decides costs had changed).
    const RepriceOutcome& repricedAtOpen() const { return repricedAtOpen_; }

    // The settings in force (a copy: another thread may change them meanwhile).
    AppSettings settings() const;
    // The price table in force.
    PriceTable prices() const;

    // Stores `settings` and hands them to every consumer: the next scan reads with them, a new
    // billing mode reprices the ledger, and the listeners hear of it. Throws StoreError when the
    // ledger cannot be written (nothing changes then).
    SettingsChange updateSettings(const AppSettings& settings);
    // Registers `listener`; it stays registered for the life of the session.
    void onSettingsChanged(SettingsListener listener);

    // Resolves the prices again (after the user's overrides changed), hands them to the
    // ingestor and reprices the ledger when they moved.
    RepriceOutcome reloadPrices(const UsageStore::RepriceProgress& progress = {});

    // Starts following the agents' folders (see UsageWatch). The watch belongs to the session:
    // at most one at a time, stopped by stopWatching() or when the session is destroyed.
    UsageWatch& watch(const WatchOptions& options, WatchCallbacks callbacks);
    void stopWatching();

  private:
    explicit AppSession(AppPaths paths);

    AppPaths paths_;
    // Declared in start order; destroyed in the reverse one (the watch first, the store last).
    std::unique_ptr<UsageStore> store_;
    std::unique_ptr<IntegrationInstanceCoordinator> coordinator_;
    std::unique_ptr<Ingestor> ingestor_;
    std::unique_ptr<UsageWatch> watch_;

    mutable std::mutex mutex_;  // settings_, prices_, listeners_
    AppSettings settings_;
    PriceTable prices_;
    std::vector<SettingsListener> listeners_;
    RepriceOutcome repricedAtOpen_;
};

}  // namespace kestrel
