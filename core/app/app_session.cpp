#include "core/app/app_session.hpp"

#include "core/app/usage_watch.hpp"
#include "core/ledger/settings_store.hpp"
#include "core/model/timestamp.hpp"

namespace kestrel {

AppSession::AppSession(AppPaths paths) : paths_(std::move(paths)) {}

AppSession::~AppSession() {
    // The watcher feeds the ingestor, which writes to the store: it goes first.
    watch_.reset();
    ingestor_.reset();
    coordinator_.reset();
    store_.reset();
}

std::expected<std::unique_ptr<AppSession>, AppOpenError> AppSession::open(AppPaths paths) {
    std::unique_ptr<AppSession> session(new AppSession(std::move(paths)));
    auto& s = *session;
    try {
        s.store_ = std::make_unique<UsageStore>(s.paths_.supportDir);
    } catch (const StoreError& e) {
        return std::unexpected(AppOpenError{
            AppOpenError::Kind::ledger,
            "cannot open the ledger in " + s.paths_.supportDir.string() + ": " + e.what()});
    }
    try {
        s.settings_ = SettingsStore::load(*s.store_).settings;
    } catch (const std::exception& e) {
        return std::unexpected(
            AppOpenError{AppOpenError::Kind::settings,
                         std::string("cannot read the settings: ") + e.what()});
    }
    s.prices_ = PriceTable::resolved(*s.store_);
    try {
        // Stored usage is repriced before anything new arrives, under the stored billing mode,
        // so that old and new usage are priced alike.
        s.repricedAtOpen_ =
            s.store_->repriceIfFingerprintChanged(s.prices_, s.settings_.billingMode);
    } catch (const StoreError& e) {
        return std::unexpected(AppOpenError{
            AppOpenError::Kind::ledger,
            "cannot reprice the ledger in " + s.paths_.supportDir.string() + ": " + e.what()});
    }
    s.coordinator_ =
        std::make_unique<IntegrationInstanceCoordinator>(PluginRegistry::builtIn(), *s.store_);
    s.coordinator_->reconcileInstallations(s.paths_.home, epochNow(), s.paths_.env);
    s.ingestor_ =
        std::make_unique<Ingestor>(*s.store_, s.prices_, s.coordinator_.get(), s.paths_.env);
    return session;
}

AppSettings AppSession::settings() const {
    std::lock_guard guard(mutex_);
    return settings_;
}

PriceTable AppSession::prices() const {
    std::lock_guard guard(mutex_);
    return prices_;
}

SettingsChange AppSession::updateSettings(const AppSettings& settings) {
    SettingsChange change;
    std::vector<SettingsListener> listeners;
    PriceTable prices;
    {
        std::lock_guard guard(mutex_);
        if (settings == settings_) {
            return change;
        }
        SettingsStore::save(*store_, settings);
        settings_ = settings;
        change.changed = true;
        listeners = listeners_;
        prices = prices_;
    }
    // The fingerprint holds the billing mode: only a new mode reprices.
    change.repriced = store_->repriceIfFingerprintChanged(prices, settings.billingMode);
    for (const auto& listener : listeners) {
        listener(settings);
    }
    return change;
}

void AppSession::onSettingsChanged(SettingsListener listener) {
    std::lock_guard guard(mutex_);
    listeners_.push_back(std::move(listener));
}

RepriceOutcome AppSession::reloadPrices(const UsageStore::RepriceProgress& progress) {
    auto prices = PriceTable::resolved(*store_);
    BillingMode billing;
    {
        std::lock_guard guard(mutex_);
        prices_ = prices;
        billing = settings_.billingMode;
    }
    ingestor_->setPrices(prices);
    return store_->repriceIfFingerprintChanged(prices, billing, progress);
}

UsageWatch& AppSession::watch(const WatchOptions& options, WatchCallbacks callbacks) {
    watch_.reset();
    watch_ = std::make_unique<UsageWatch>(*this, options, std::move(callbacks));
    return *watch_;
}

void AppSession::stopWatching() {
    watch_.reset();
}

}  // namespace kestrel
