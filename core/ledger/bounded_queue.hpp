#pragma once
// A first-in first-out hand-over between one producing and one consuming thread that holds at
// most `capacity` items: a producer that runs ahead waits, so what is in flight stays bounded
// however much there is to hand over.

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <mutex>
#include <optional>

namespace kestrel {

template <class T>
class BoundedQueue {
  public:
    explicit BoundedQueue(std::size_t capacity) : capacity_(capacity == 0 ? 1 : capacity) {}
    BoundedQueue(const BoundedQueue&) = delete;
    BoundedQueue& operator=(const BoundedQueue&) = delete;

    // Appends `item`, waiting while the queue is full. False (and `item` dropped) once the
    // queue is closed.
    bool push(T item) {
        std::unique_lock lock(mutex_);
        notFull_.wait(lock, [&] { return closed_ || items_.size() < capacity_; });
        if (closed_) {
            return false;
        }
        items_.push_back(std::move(item));
        notEmpty_.notify_one();
        return true;
    }

    // The oldest item, waiting while the queue is empty and open; absent once it is closed and
    // nothing is left in it.
    std::optional<T> pop() {
        std::unique_lock lock(mutex_);
        notEmpty_.wait(lock, [&] { return closed_ || !items_.empty(); });
        if (items_.empty()) {
            return std::nullopt;
        }
        std::optional<T> item(std::move(items_.front()));
        items_.pop_front();
        notFull_.notify_one();
        return item;
    }

    // No more pushes; what is queued can still be popped.
    void close() {
        std::lock_guard lock(mutex_);
        closed_ = true;
        notEmpty_.notify_all();
        notFull_.notify_all();
    }

    // Closes the queue and drops what it holds: the consumer gave up.
    void abandon() {
        std::lock_guard lock(mutex_);
        closed_ = true;
        items_.clear();
        notEmpty_.notify_all();
        notFull_.notify_all();
    }

  private:
    const std::size_t capacity_;
    std::mutex mutex_;
    std::condition_variable notFull_, notEmpty_;
    std::deque<T> items_;
    bool closed_ = false;
};

}  // namespace kestrel
