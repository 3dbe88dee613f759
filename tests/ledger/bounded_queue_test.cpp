#include "core/ledger/bounded_queue.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

namespace kestrel {
namespace {

using namespace std::chrono_literals;

TEST(BoundedQueue, HandsItemsOverInOrderAndDrainsAfterClose) {
    BoundedQueue<int> queue(3);
    std::vector<int> received;
    std::thread consumer([&] {
        while (auto item = queue.pop()) {
            received.push_back(*item);
        }
    });
    for (int i = 0; i < 100; ++i) {
        ASSERT_TRUE(queue.push(i));
    }
    queue.close();
    consumer.join();
    ASSERT_EQ(received.size(), 100u);
    for (int i = 0; i < 100; ++i) {
        EXPECT_EQ(received[static_cast<std::size_t>(i)], i);
    }
    EXPECT_FALSE(queue.push(100)) << "a closed queue takes nothing more";
}

TEST(BoundedQueue, AProducerWaitsWhileTheQueueIsFull) {
    BoundedQueue<int> queue(2);
    ASSERT_TRUE(queue.push(1));
    ASSERT_TRUE(queue.push(2));
    std::atomic<bool> pushed{false};
    std::thread producer([&] {
        queue.push(3);
        pushed = true;
    });
    std::this_thread::sleep_for(50ms);
    EXPECT_FALSE(pushed) << "a third item went into a queue of two";
    EXPECT_EQ(queue.pop(), 1);
    producer.join();
    EXPECT_TRUE(pushed);
    EXPECT_EQ(queue.pop(), 2);
    EXPECT_EQ(queue.pop(), 3);
}

TEST(BoundedQueue, AbandoningDropsWhatIsQueuedAndReleasesAWaitingProducer) {
    BoundedQueue<int> queue(1);
    ASSERT_TRUE(queue.push(1));
    std::atomic<int> result{-1};
    std::thread producer([&] { result = queue.push(2) ? 1 : 0; });
    std::this_thread::sleep_for(20ms);
    queue.abandon();
    producer.join();
    EXPECT_EQ(result, 0) << "the waiting push must fail, not land after the consumer gave up";
    EXPECT_EQ(queue.pop(), std::nullopt) << "the queued item must be dropped";
}

TEST(BoundedQueue, AConsumerWaitingOnAnEmptyQueueEndsWhenItCloses) {
    BoundedQueue<int> queue(4);
    std::atomic<bool> ended{false};
    std::thread consumer([&] {
        EXPECT_EQ(queue.pop(), std::nullopt);
        ended = true;
    });
    std::this_thread::sleep_for(20ms);
    EXPECT_FALSE(ended);
    queue.close();
    consumer.join();
    EXPECT_TRUE(ended);
}

}  // namespace
}  // namespace kestrel
