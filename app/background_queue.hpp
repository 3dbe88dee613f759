#pragma once
// A worker thread that runs jobs one after another in the order they were posted: scans, quota
// requests and pulse reading happen here, never on the window's thread.

#include <QObject>
#include <QThread>
#include <atomic>
#include <functional>

namespace kestrel::desktop {

class BackgroundQueue {
  public:
    explicit BackgroundQueue(const QString& name);
    ~BackgroundQueue();
    BackgroundQueue(const BackgroundQueue&) = delete;
    BackgroundQueue& operator=(const BackgroundQueue&) = delete;

    // Queues `job`; after stop() it is dropped.
    void post(std::function<void()> job);
    // Lets the running job finish, drops the queued ones and ends the thread. Idempotent.
    void stop();

    bool stopping() const { return stopping_.load(); }

  private:
    QThread thread_;
    QObject* context_;  // lives on thread_; the jobs are delivered to it
    std::atomic<bool> stopping_{false};
};

}  // namespace kestrel::desktop
