#pragma once
// A page's (or the tray's) figures, read from the ledger on the reading worker and handed back to
// the main thread as plain data. Asking again while a read is under way does not start a second
// one: it marks one more read, which starts when the running one has been shown. A burst of
// commits thus costs at most two reads, and the last one sees the last commit.

#include <QObject>
#include <expected>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "app/page.hpp"
#include "core/ledger/store_error.hpp"

namespace kestrel::desktop {

template <typename T>
class CoalescedRead {
  public:
    using Read = std::function<T(UsageStore&)>;
    using Result = std::expected<T, std::string>;  // the figures, or why the ledger was unreadable

    // `prepare` runs on the main thread as a read starts and returns the read itself, holding
    // what it needs by value (filters, the clock); `show` gets its result on the main thread.
    // Both belong to `owner`: nothing is shown once it is gone.
    CoalescedRead(PageHost& host, QObject* owner, std::function<Read()> prepare,
                  std::function<void(Result)> show, ReadLane lane = ReadLane::page)
        : host_(host),
          owner_(owner),
          lane_(lane),
          prepare_(std::move(prepare)),
          show_(std::move(show)) {}

    CoalescedRead(const CoalescedRead&) = delete;
    CoalescedRead& operator=(const CoalescedRead&) = delete;

    void request() {
        if (running_) {
            again_ = true;
            return;
        }
        launch();
    }

    // A read is under way (or queued behind one).
    bool busy() const { return running_; }

  private:
    void launch() {
        running_ = true;
        auto result = std::make_shared<std::optional<Result>>();
        host_.readLedger(
            owner_, lane_,
            [read = prepare_(), result](UsageStore& store) {
                try {
                    result->emplace(read(store));
                } catch (const StoreError& e) {
                    result->emplace(std::unexpected(std::string(e.what())));
                }
            },
            [this, result] {
                running_ = false;
                if (*result) {
                    show_(std::move(**result));
                }
                if (std::exchange(again_, false)) {
                    launch();
                }
            });
    }

    PageHost& host_;
    QObject* owner_;
    ReadLane lane_;
    std::function<Read()> prepare_;
    std::function<void(Result)> show_;
    bool running_ = false;
    bool again_ = false;
};

}  // namespace kestrel::desktop
