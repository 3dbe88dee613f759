#pragma once
// A page of the main window (overview, events, accounts, prices, integrations, settings) and what
// it may ask of the application around it. Pages read the ledger through PageHost::readLedger
// (a worker with a connection of its own, so a read neither blocks the window nor waits behind a
// scan's writes); anything else slow — a scan, a reprice, a network request, a hook install —
// goes through PageHost::runInBackground. The main thread only builds widgets.

#include <QString>
#include <QWidget>
#include <functional>

class QObject;

namespace kestrel {
class AppSession;
class UsageStore;
}

namespace kestrel::desktop {

class UiText;

enum class ReadLane { glance, page };

class PageHost {
  public:
    virtual ~PageHost() = default;

    virtual AppSession& session() = 0;
    virtual const UiText& text() const = 0;

    // Runs `work` off the main thread (after any scan under way, never two at once), then `done`
    // on the main thread. A page that may be gone by then guards `done` with a QPointer.
    virtual void runInBackground(std::function<void()> work, std::function<void()> done) = 0;

    // Runs `read` on a reading worker with a read-only connection to the ledger (reads of one
    // lane run one after another there, beside any scan), then `done` on the main thread,
    // unless `receiver` is gone by then. `read` may throw StoreError; `done` runs all the same.
    // The glance lane (the overview, the tray) never waits behind a page's long read.
    virtual void readLedger(QObject* receiver, ReadLane lane, std::function<void(UsageStore&)> read,
                            std::function<void()> done) = 0;

    // A scan of every source and a refresh of the quota readings, as the "Refresh" command.
    virtual void requestRefresh() = 0;
};

class Page : public QWidget {
    Q_OBJECT

  public:
    explicit Page(PageHost& host, QWidget* parent = nullptr) : QWidget(parent), host_(host) {}

    // A stable name: "overview", "events", "accounts", "prices", "integrations", "settings";
    // also the screenshot's file name.
    virtual QString pageId() const = 0;
    // The page's title in the current language (the navigation list shows it).
    virtual QString title() const = 0;

    // Reads the page's figures again (after a commit, a settings change or a new reading).
    virtual void reload() = 0;
    // Sets every text again in the current language.
    virtual void retranslate() = 0;

  protected:
    PageHost& host() { return host_; }

  private:
    PageHost& host_;
};

}  // namespace kestrel::desktop
