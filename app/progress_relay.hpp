#pragma once
// Progress of a long job (an export, a reprice) from its worker to the main thread: at most one
// update per interval crosses over (a queued call each), the last one always does, so that the
// bar ends where the job ended and the window's event loop is not flooded.

#include <QCoreApplication>
#include <QObject>
#include <QPointer>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>

namespace kestrel::desktop {

// Decides which updates pass: the first, one per `every` after it, and the one that reaches the
// total. For one worker (no locking).
class ProgressThrottle {
  public:
    using Clock = std::chrono::steady_clock;

    explicit ProgressThrottle(std::chrono::milliseconds every = std::chrono::milliseconds(50))
        : every_(every) {}

    bool pass(Clock::time_point now, int64_t done, int64_t total) {
        const bool last = total > 0 && done >= total;
        if (!last && passed_ && now - last_ < every_) {
            return false;
        }
        passed_ = true;
        last_ = now;
        return true;
    }

  private:
    std::chrono::milliseconds every_;
    bool passed_ = false;
    Clock::time_point last_{};
};

// Called on the worker with (done, total); `show` runs on the main thread with the updates the
// throttle lets through, unless `receiver` is gone by then.
inline std::function<void(int64_t, int64_t)> relayProgress(
    QObject* receiver, std::function<void(int64_t done, int64_t total)> show,
    std::chrono::milliseconds every = std::chrono::milliseconds(50)) {
    auto throttle = std::make_shared<ProgressThrottle>(every);
    return [throttle, receiver = QPointer<QObject>(receiver), show = std::move(show)](int64_t done,
                                                                                    int64_t total) {
        if (!throttle->pass(ProgressThrottle::Clock::now(), done, total) || !receiver) {
            return;
        }
        // Delivered through the application object, which outlives any page, and dropped there
        // when the page has gone meanwhile.
        QMetaObject::invokeMethod(
            QCoreApplication::instance(),
            [receiver, show, done, total] {
                if (receiver) {
                    show(done, total);
                }
            },
            Qt::QueuedConnection);
    };
}

}  // namespace kestrel::desktop
