#include "app/background_queue.hpp"

namespace kestrel::desktop {

BackgroundQueue::BackgroundQueue(const QString& name) : context_(new QObject) {
    thread_.setObjectName(name);
    context_->moveToThread(&thread_);
    thread_.start();
}

BackgroundQueue::~BackgroundQueue() {
    stop();
    delete context_;  // its thread has ended: nothing runs on it any more
}

void BackgroundQueue::post(std::function<void()> job) {
    if (stopping_) {
        return;
    }
    QMetaObject::invokeMethod(
        context_,
        [this, job = std::move(job)] {
            if (!stopping_) {
                job();
            }
        },
        Qt::QueuedConnection);
}

void BackgroundQueue::stop() {
    stopping_ = true;
    thread_.quit();
    thread_.wait();
}

}  // namespace kestrel::desktop
