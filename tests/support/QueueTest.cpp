#include "ManualQueue.hpp"
#include "support/Fifo.hpp"
#include "support/Inbox.hpp"

#include <kelvane/Queue.hpp>

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

using namespace std::chrono_literals;
using kelvane::ManualQueue;
using kelvane::Queue;

TEST(ManualQueue, RunsDueTasksInPostingOrderAndDelayedOnesByTime) {
    ManualQueue queue;
    std::vector<std::string> order;
    queue.asyncAfter(2s, [&] { order.push_back("late"); });
    queue.asyncAfter(1s, [&] { order.push_back("early"); });
    queue.async([&] { order.push_back("a"); });
    queue.async([&] {
        order.push_back("b");
        queue.async([&] { order.push_back("posted by b"); });
    });

    EXPECT_EQ(queue.runUntilIdle(), 3u);
    EXPECT_EQ(order, (std::vector<std::string>{"a", "b", "posted by b"}));
    EXPECT_TRUE(queue.hasDelayedTasks());

    queue.advance(999ms);
    EXPECT_EQ(order.size(), 3u);
    queue.advance(1ms);
    EXPECT_EQ(order.back(), "early");
    queue.advance(1s);
    EXPECT_EQ(order.back(), "late");
    EXPECT_EQ(queue.now(), 2s);
    EXPECT_EQ(queue.pendingCount(), 0u);
}

TEST(ManualQueue, DelayedWorkSeesTheClockAtItsDueTime) {
    ManualQueue queue;
    std::vector<ManualQueue::Duration> seen;
    queue.asyncAfter(500ms, [&] {
        seen.push_back(queue.now());
        queue.asyncAfter(500ms, [&] { seen.push_back(queue.now()); });
    });
    queue.advance(3s);
    EXPECT_EQ(seen, (std::vector<ManualQueue::Duration>{500ms, 1000ms}));
    EXPECT_EQ(queue.now(), 3s);
}

TEST(ManualQueue, IsCurrentOnItsDriverThreadOnly) {
    ManualQueue queue;
    EXPECT_TRUE(queue.isCurrent());
    bool elsewhere = true;
    std::thread([&] { elsewhere = queue.isCurrent(); }).join();
    EXPECT_FALSE(elsewhere);
}

TEST(ManualQueue, RunUntilPicksUpTasksPostedFromOtherThreads) {
    ManualQueue queue;
    std::atomic<int> ran{0};
    std::thread poster([&] {
        for (int i = 0; i < 100; ++i) queue.async([&] { ++ran; });
    });
    EXPECT_TRUE(queue.runUntil([&] { return ran.load() == 100; }));
    poster.join();
}

TEST(SerialQueue, RunsTasksOneAtATimeInOrder) {
    auto queue = Queue::makeSerial("test.serial");
    std::vector<int> order;
    std::atomic<int> inside{0};
    bool overlapped = false;
    for (int i = 0; i < 200; ++i) {
        queue->async([&, i] {
            if (inside.fetch_add(1) != 0) overlapped = true;
            order.push_back(i);
            inside.fetch_sub(1);
        });
    }
    queue->sync([] {});
    EXPECT_FALSE(overlapped);
    ASSERT_EQ(order.size(), 200u);
    for (int i = 0; i < 200; ++i) EXPECT_EQ(order[static_cast<std::size_t>(i)], i);
}

// Pops interleaved with pushes, so that the list compacts as it grows, keep the order; what is
// left comes out whole.
TEST(Fifo, KeepsOrderThroughCompactionAndGivesTheRestBack) {
    kelvane::Fifo<std::string> fifo;
    std::vector<std::string> popped;
    int next = 0;
    for (int round = 0; round < 50; ++round) {
        for (int i = 0; i < 3; ++i) fifo.push_back(std::to_string(next++));
        popped.push_back(std::move(fifo.front()));
        fifo.pop_front();
    }
    EXPECT_EQ(fifo.size(), 100u);
    EXPECT_EQ(fifo[0], "50");
    auto rest = fifo.takeAll();
    EXPECT_TRUE(fifo.empty());
    popped.insert(popped.end(), rest.begin(), rest.end());
    ASSERT_EQ(popped.size(), 150u);
    for (int i = 0; i < 150; ++i) EXPECT_EQ(popped[static_cast<std::size_t>(i)], std::to_string(i));
}

// Items put from another thread while deliveries run: each run of puts schedules one delivery,
// and every item arrives once, in order.
TEST(Inbox, DeliversEveryItemOnceInOrderAcrossDeliveries) {
    auto queue = Queue::makeSerial("test.inbox");
    kelvane::Inbox<int> inbox;
    std::vector<int> delivered;
    constexpr int kItems = 10000;
    std::thread producer([&] {
        for (int i = 0; i < kItems; ++i) {
            if (!inbox.put(i)) continue;
            queue->async([&] { inbox.deliver([&](int& item) { delivered.push_back(item); }); });
        }
    });
    producer.join();
    queue->sync([] {});
    std::vector<int> expected(kItems);
    for (int i = 0; i < kItems; ++i) expected[static_cast<std::size_t>(i)] = i;
    EXPECT_EQ(delivered, expected);
}

TEST(SerialQueue, KnowsWhenCodeRunsOnIt) {
    auto queue = Queue::makeSerial("test.current");
    auto other = Queue::makeSerial("test.other");
    EXPECT_FALSE(queue->isCurrent());
    bool onIt = false;
    bool onOther = true;
    queue->sync([&] {
        onIt = queue->isCurrent();
        onOther = other->isCurrent();
    });
    EXPECT_TRUE(onIt);
    EXPECT_FALSE(onOther);
}

TEST(SerialQueue, SyncFromTheSameQueueRunsInPlace) {
    auto queue = Queue::makeSerial("test.reentrant");
    bool ran = false;
    queue->sync([&] { queue->sync([&] { ran = true; }); });
    EXPECT_TRUE(ran);
}

// Every serial queue runs on the one network thread, so a hop from one onto another used to
// wait for a thread that was the waiter itself.
TEST(SerialQueue, SyncFromAnotherSerialQueueRunsAfterWhatWasPostedThere) {
    auto caller = Queue::makeSerial("test.caller");
    auto target = Queue::makeSerial("test.target");
    auto order = std::make_shared<std::vector<std::string>>();
    auto done = std::make_shared<std::promise<void>>();
    auto finished = done->get_future();
    caller->async([caller, target, order, done] {
        target->async([order] { order->push_back("posted before"); });
        target->sync([&] {
            order->push_back(target->isCurrent() && !caller->isCurrent() ? "on target" : "elsewhere");
            // A hop back onto the waiting queue runs in place, as from the queue itself.
            caller->sync([&] { order->push_back("back on caller"); });
        });
        order->push_back("after");
        done->set_value();
    });
    ASSERT_EQ(finished.wait_for(10s), std::future_status::ready) << "the hop deadlocked the network thread";
    EXPECT_EQ(*order, (std::vector<std::string>{"posted before", "on target", "back on caller", "after"}));
}

TEST(SerialQueue, DelayedTasksRunAfterImmediateOnesOnTheSameQueue) {
    auto queue = Queue::makeSerial("test.timer");
    std::promise<std::vector<std::string>> done;
    auto order = std::make_shared<std::vector<std::string>>();
    queue->asyncAfter(20ms, [&, order] {
        order->push_back("delayed");
        done.set_value(*order);
    });
    queue->async([order] { order->push_back("now"); });
    auto result = done.get_future();
    ASSERT_EQ(result.wait_for(10s), std::future_status::ready);
    EXPECT_EQ(result.get(), (std::vector<std::string>{"now", "delayed"}));
}

TEST(GlobalQueue, RunsWorkConcurrentlyWithTheSerialQueues) {
    auto serial = Queue::makeSerial("test.blocked");
    std::promise<void> release;
    auto released = release.get_future().share();
    serial->async([released] { released.wait(); });
    // Blocking work on the global queue must not need the serial queues' thread.
    std::promise<bool> ranOnGlobal;
    Queue::global()->async([&] { ranOnGlobal.set_value(Queue::global()->isCurrent()); });
    auto result = ranOnGlobal.get_future();
    ASSERT_EQ(result.wait_for(10s), std::future_status::ready);
    EXPECT_TRUE(result.get());
    release.set_value();
    serial->sync([] {});
}
