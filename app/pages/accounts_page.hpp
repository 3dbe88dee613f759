#pragma once
// The accounts behind the usage: quota windows with their bars and reset countdowns, balances
// and stale marks; the review of API plans found in the agents' configurations (keep, reject,
// commit); and the user's API keys, of which only fingerprints are ever shown.

#include <QPointer>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "app/page.hpp"
#include "core/app/plan_service.hpp"
#include "core/app/quota_service.hpp"
#include "core/sources/agent_catalog.hpp"

class QComboBox;
class QGroupBox;
class QLabel;
class QLineEdit;
class QPushButton;
class QTableWidget;
class QVBoxLayout;

namespace kestrel {
class AppSession;
class KeyStore;
}

namespace kestrel::desktop {

// Opens the key store; called once, on a worker (the Secret Service answers over D-Bus).
using KeyStoreOpener =
    std::function<std::unique_ptr<KeyStore>(const std::filesystem::path&, const EnvironmentLookup&)>;

class AccountsPage : public Page {
    Q_OBJECT

  public:
    // Every use of the key store, its opening included, runs through PageHost::runInBackground.
    explicit AccountsPage(PageHost& host, QWidget* parent = nullptr, KeyStoreOpener openKeys = {});
    ~AccountsPage() override;

    QString pageId() const override { return QStringLiteral("accounts"); }
    QString title() const override;
    void reload() override;
    void retranslate() override;

    const QuotaReport& quota() const { return quota_; }
    const PlanReviewState& review() const { return review_; }

    // Asks every switched-on probe and every stored key for a new reading (in the background).
    void refreshQuota();
    // Looks for plans again (in the background) and shows what awaits review.
    void discover();
    // Keep or reject the candidates `ids` (validation may ask the provider: in the background).
    void choose(const std::vector<std::string>& ids, bool keep);
    void commit();

    // Stores `secret` for `provider` and forgets the typed text; the key is never shown again.
    void storeKey(const QString& provider, const QString& secret);
    void removeKey(const QString& provider);

  signals:
    // What a plan action or a key action said, as the page shows it.
    void planMessage(const QString& message);
    void keyMessage(const QString& message);

  private:
    // The key store as the worker holds it; the main thread never touches `store`.
    struct Keys {
        std::unique_ptr<KeyStore> store;
    };
    // The stored keys as the table lists them, read on the worker.
    struct KeyRows {
        std::vector<std::pair<std::string, std::string>> nameAndFingerprint;
        std::string backend;
        std::string problem;  // the store could not list them
    };
    // What a plan action leaves to do on the main thread once it and the new review are in.
    using PlanFinish = std::function<void(AccountsPage&)>;

    void showQuota();
    void showReview();
    void listKeys();
    void showKeys(const KeyRows& rows);
    static KeyRows readKeyRows(KeyStore* keys, const std::filesystem::path& supportDir,
                               const std::string& unreadable);
    void planAction(std::function<PlanFinish(AppSession&, KeyStore*)> action);
    QStringList selectedCandidates() const;
    void setPlanStatus(const QString& message);
    void setKeyStatus(const QString& message);

    const UiText& text_;
    std::shared_ptr<Keys> keys_;
    // Carry request numbers and back-off between refreshes, for the life of the page.
    std::unique_ptr<QuotaRefresher> refresher_;
    std::unique_ptr<TokenCache> tokens_;
    QuotaReport quota_;
    PlanReviewState review_;

    QGroupBox* quotaBox_ = nullptr;
    QVBoxLayout* quotaList_ = nullptr;
    QPushButton* refresh_ = nullptr;

    QGroupBox* plansBox_ = nullptr;
    QLabel* plansHeader_ = nullptr;
    QTableWidget* candidates_ = nullptr;
    QPushButton* discover_ = nullptr;
    QPushButton* keep_ = nullptr;
    QPushButton* reject_ = nullptr;
    QPushButton* commit_ = nullptr;
    QLabel* planStatus_ = nullptr;

    QGroupBox* keysBox_ = nullptr;
    QComboBox* provider_ = nullptr;
    QLineEdit* secret_ = nullptr;
    QPushButton* storeKey_ = nullptr;
    QPushButton* removeKey_ = nullptr;
    QTableWidget* keyTable_ = nullptr;
    QLabel* keyStatus_ = nullptr;
};

}  // namespace kestrel::desktop
