// The accounts page: stored quota readings as the command line shows them, the plan review's
// choices reaching the plan service (and its refusals in both languages), and API keys that
// are stored but never shown.
#include <QLabel>
#include <QLineEdit>
#include <QProgressBar>
#include <QTableWidget>
#include <nlohmann/json.hpp>

#include <QApplication>
#include <QElapsedTimer>
#include <mutex>
#include <thread>

#include "app/background_queue.hpp"
#include "app/pages/accounts_page.hpp"
#include "core/plans/key_store.hpp"
#include "core/app/plan_service.hpp"
#include "core/model/timestamp.hpp"
#include "tests/ui/page_fixture.hpp"

namespace kestrel::desktop::test {
namespace {

constexpr const char* kGlmKey = "GLM-SECRET-IN-SETTINGS-QQQQ";
constexpr const char* kTypedKey = "DEEPSEEK-TYPED-SECRET-ZZZZ";

class AccountsPageTest : public PageFixture {
  protected:
    void SetUp() override {
        home.write(".claude/settings.json",
                   std::string(R"({"env": {"ANTHROPIC_BASE_URL": "https://open.bigmodel.cn/api/anthropic",
                       "ANTHROPIC_AUTH_TOKEN": ")") + kGlmKey + "\"}}");
        PageFixture::SetUp();
    }

    void storeReading() {
        const double now = epochNow();
        AccountSnapshot snapshot;
        snapshot.identity.source = AgentSource::claude;
        snapshot.identity.planLabel = "Max";
        snapshot.fetchedAt = now - 3 * 3600;
        snapshot.stale = true;
        QuotaWindow session5h;
        session5h.kind = QuotaWindowKind::session5h;
        session5h.usedPercent = 40;
        session5h.resetsAt = now + 2 * 3600 + 30;
        QuotaWindow weekly;
        weekly.kind = QuotaWindowKind::weekly;
        weekly.usedPercent = 85;
        weekly.resetsAt = now - 600;
        snapshot.windows = {session5h, weekly};
        ASSERT_TRUE(session->store().saveQuota(snapshot));
    }

    // Every text the page shows anywhere: labels, line edits and table cells.
    static QString allText(const QWidget& page) {
        QStringList texts;
        for (const auto* label : page.findChildren<QLabel*>()) {
            texts << label->text();
        }
        for (const auto* edit : page.findChildren<QLineEdit*>()) {
            texts << edit->text();
        }
        for (const auto* table : page.findChildren<QTableWidget*>()) {
            for (int r = 0; r < table->rowCount(); ++r) {
                for (int c = 0; c < table->columnCount(); ++c) {
                    if (const auto* item = table->item(r, c)) {
                        texts << item->text();
                    }
                }
            }
        }
        return texts.join('\n');
    }
};

TEST_F(AccountsPageTest, QuotaWindowsShowTheCommandLinesFigures) {
    AccountsPage empty(*host);
    EXPECT_NE(empty.findChild<QLabel*>("noQuota"), nullptr);

    storeReading();
    AccountsPage page(*host);
    const auto bars = page.findChildren<QProgressBar*>("window");
    ASSERT_EQ(bars.size(), 2);
    EXPECT_EQ(bars[0]->value(), 40);
    EXPECT_EQ(bars[1]->value(), 85);
    const auto facts = page.findChildren<QLabel*>("windowFacts");
    ASSERT_EQ(facts.size(), 2);
    EXPECT_TRUE(facts[0]->text().contains("resets in 2h 0m")) << facts[0]->text().toStdString();
    EXPECT_TRUE(facts[1]->text().contains("has reset (10m ago)")) << facts[1]->text().toStdString();
    const auto title = page.findChild<QLabel*>("accountTitle")->text();
    EXPECT_TRUE(title.contains("stale"));
    EXPECT_TRUE(title.contains("read 3h 0m ago")) << title.toStdString();

    const auto cli = kestrel({"quota"});
    ASSERT_EQ(cli.code, 0) << cli.err;
    for (const char* figure : {"40%", "85%", "resets in 2h 0m", "read 3h 0m ago", "stale"}) {
        EXPECT_NE(cli.out.find(figure), std::string::npos) << figure << "\n" << cli.out;
    }
}

TEST_F(AccountsPageTest, KeepAndRejectReachThePlanService) {
    AccountsPage page(*host);
    SignalLog messages(&page, &AccountsPage::planMessage);
    ASSERT_EQ(page.review().rows.size(), 1u);
    const std::string id = page.review().rows[0].candidate.id;
    EXPECT_EQ(page.findChild<QTableWidget*>("candidates")->item(0, 0)->text().toStdString(), id);

    // Nothing decided yet: the commit is refused with the quoted message.
    page.commit();
    ASSERT_EQ(messages.count(), 1);
    // The message names the first candidate without a choice, as the command line does.
    EXPECT_EQ(messages.takeFirst()[0].toString(),
              host->text()("plans.review.undecided") + " (" + QString::fromStdString(id) + ")");

    // Keeping needs validation, which needs the tool's quota switch: refused, nothing asked.
    page.choose({id}, true);
    ASSERT_EQ(messages.count(), 1);
    EXPECT_TRUE(messages.takeFirst()[0].toString().contains("quota is off"));
    EXPECT_FALSE(page.review().rows[0].keep.has_value());

    page.choose({id}, false);
    ASSERT_EQ(messages.count(), 1);
    EXPECT_EQ(messages.takeFirst()[0].toString().toStdString(), id + ": rejected.");
    EXPECT_EQ(page.review().rows[0].keep, false);
    // The choice is the plan service's, so the command line sees it too.
    const auto listed = nlohmann::json::parse(kestrel({"plans", "--json"}).out);
    EXPECT_EQ(listed.at("pending").at(0).at("choice"), "reject");

    page.commit();
    ASSERT_EQ(messages.count(), 1);
    EXPECT_EQ(messages.takeFirst()[0].toString(),
              "Review saved: 0 account(s) kept, 1 candidate(s) rejected.");
    EXPECT_TRUE(page.review().rows.empty());
    EXPECT_EQ(page.findChild<QTableWidget*>("candidates")->rowCount(), 0);
}

TEST_F(AccountsPageTest, RefusalsAreQuotedInEitherLanguage) {
    for (auto language : {AppLanguage::en, AppLanguage::zhHans}) {
        host->mutableText().setLanguage(language);
        AccountsPage page(*host);
        SignalLog messages(&page, &AccountsPage::planMessage);
        page.commit();
        ASSERT_EQ(messages.count(), 1);
        const QString quoted = QString::fromStdString(
            Messages::bundled().text("plans.review.undecided", language));
        EXPECT_TRUE(messages[0][0].toString().startsWith(quoted + " ("));
        EXPECT_EQ(page.findChild<QLabel*>("planStatus")->text(), messages[0][0].toString());
    }
}

TEST_F(AccountsPageTest, KeysAreStoredWithTheirFingerprintAndNeverShown) {
    AccountsPage page(*host);
    SignalLog messages(&page, &AccountsPage::keyMessage);
    auto* secret = page.findChild<QLineEdit*>("secret");
    EXPECT_EQ(secret->echoMode(), QLineEdit::Password);

    secret->setText(kTypedKey);
    page.storeKey("deepseek", secret->text());
    EXPECT_TRUE(secret->text().isEmpty());
    const auto listed = nlohmann::json::parse(kestrel({"keys", "list", "--json"}).out);
    ASSERT_EQ(listed.at("keys").size(), 1u);
    const auto fingerprint = listed.at("keys").at(0).at("fingerprint").get<std::string>();
    auto* table = page.findChild<QTableWidget*>("keys");
    ASSERT_EQ(table->rowCount(), 1);
    EXPECT_EQ(table->item(0, 0)->text(), "deepseek");
    EXPECT_EQ(table->item(0, 1)->text().toStdString(), fingerprint);
    EXPECT_TRUE(messages.last()[0].toString().contains(QString::fromStdString(fingerprint)));
    for (const char* key : {kTypedKey, kGlmKey}) {
        EXPECT_FALSE(allText(page).contains(key)) << key;
    }

    // Refused: an empty key and a provider Kestrel takes no key for; nothing more is stored.
    page.storeKey("deepseek", "  ");
    EXPECT_EQ(messages.last()[0].toString(), host->text()("keys.empty"));
    page.storeKey("acme", "x");
    EXPECT_TRUE(messages.last()[0].toString().contains("acme"));
    EXPECT_EQ(table->rowCount(), 1);

    page.removeKey("deepseek");
    EXPECT_EQ(table->rowCount(), 0);
    EXPECT_TRUE(nlohmann::json::parse(kestrel({"keys", "list", "--json"}).out).at("keys").empty());
    page.removeKey("deepseek");
    EXPECT_EQ(messages.last()[0].toString(), "deepseek: no key stored.");
}

// Runs background work on a real worker thread, as the app does.
class ThreadedHost : public TestHost {
  public:
    using TestHost::TestHost;
    void runInBackground(std::function<void()> work, std::function<void()> done) override {
        worker_.post([this, work = std::move(work), done = std::move(done)] {
            work();
            if (done) {
                QMetaObject::invokeMethod(&context_, done, Qt::QueuedConnection);
            }
        });
    }
    void stop() { worker_.stop(); }

  private:
    QObject context_;
    BackgroundQueue worker_{QStringLiteral("test-worker")};
};

// The file store, noting the thread of every call (and of its opening).
class ThreadNotingKeyStore : public KeyStore {
  public:
    ThreadNotingKeyStore(std::unique_ptr<KeyStore> inner, std::function<void()> note)
        : inner_(std::move(inner)), note_(std::move(note)) {}
    std::string_view backend() const override { return inner_->backend(); }
    std::expected<void, KeyStoreError> set(std::string_view n, std::string_view s) override {
        note_();
        return inner_->set(n, s);
    }
    std::expected<bool, KeyStoreError> remove(std::string_view n) override {
        note_();
        return inner_->remove(n);
    }
    std::expected<std::optional<std::string>, KeyStoreError> get(std::string_view n) override {
        note_();
        return inner_->get(n);
    }
    std::expected<std::vector<std::string>, KeyStoreError> names() override {
        note_();
        return inner_->names();
    }

  private:
    std::unique_ptr<KeyStore> inner_;
    std::function<void()> note_;
};

TEST_F(AccountsPageTest, TheKeyStoreIsOpenedAndUsedOffTheMainThreadOnly) {
    std::mutex lock;
    std::vector<std::thread::id> threads;
    const auto note = [&] {
        std::lock_guard guard(lock);
        threads.push_back(std::this_thread::get_id());
    };
    ThreadedHost threaded(*session, AppLanguage::en);
    {
        AccountsPage page(threaded, nullptr,
                          [&](const std::filesystem::path& dir, const EnvironmentLookup&) {
                              note();
                              return std::make_unique<ThreadNotingKeyStore>(makeFileKeyStore(dir), note);
                          });
        SignalLog messages(&page, &AccountsPage::keyMessage);
        auto* table = page.findChild<QTableWidget*>("keys");
        const auto waitForMessage = [&](qsizetype count) {
            QElapsedTimer timer;
            timer.start();
            while (messages.size() < count && timer.elapsed() < 10'000) {
                QApplication::processEvents(QEventLoop::AllEvents, 20);
            }
            return messages.size() >= count;
        };

        page.storeKey("deepseek", kTypedKey);
        ASSERT_TRUE(waitForMessage(1));
        EXPECT_TRUE(messages.last()[0].toString().contains("deepseek"));
        EXPECT_EQ(table->rowCount(), 1);
        page.removeKey("deepseek");
        ASSERT_TRUE(waitForMessage(2));
        EXPECT_EQ(table->rowCount(), 0);
        threaded.stop();
    }
    std::lock_guard guard(lock);
    // Opened, then set, listed (names, get), removed and listed again.
    EXPECT_GE(threads.size(), 5u);
    for (const auto& id : threads) {
        EXPECT_NE(id, std::this_thread::get_id()) << "a key store call on the main thread";
    }
}

TEST_F(AccountsPageTest, PicturesInBothLanguages) {
    storeReading();
    for (auto language : {AppLanguage::en, AppLanguage::zhHans}) {
        host->mutableText().setLanguage(language);
        AccountsPage page(*host);
        savePicture(page, page.pageId(), host->text());
    }
}

}  // namespace
}  // namespace kestrel::desktop::test
