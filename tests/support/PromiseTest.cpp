#include "FakePlatform.hpp"
#include "ManualQueue.hpp"
#include "support/Promise.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <stdexcept>
#include <thread>

using kelvane::Error;
using kelvane::ManualQueue;
using kelvane::Promise;

namespace {

class PromiseTest : public ::testing::Test {
protected:
    kelvane::fakes::FakePlatform platform;
    ManualQueue& main = *platform.mainQueue;
};

}  // namespace

TEST_F(PromiseTest, WorkRunsLaterOnTheDefaultQueueAndTheFirstResolutionWins) {
    bool ran = false;
    Promise<int> promise([&](auto fulfill, auto reject) {
        ran = true;
        fulfill(1);
        fulfill(2);
        reject(Error{"test", 1, "late"});
    });
    EXPECT_FALSE(ran);
    EXPECT_TRUE(promise.isPending());
    main.runUntilIdle();
    EXPECT_TRUE(ran);
    EXPECT_EQ(promise.value(), 1);
    EXPECT_FALSE(promise.error());
}

TEST_F(PromiseTest, ThenRunsOnALaterTurnEvenWhenAlreadyResolved) {
    auto promise = Promise<int>::pending();
    promise.fulfill(7);
    int seen = 0;
    auto next = promise.then([&](const int& value) { seen = value; });
    EXPECT_EQ(seen, 0);
    main.runUntilIdle();
    EXPECT_EQ(seen, 7);
    EXPECT_EQ(next.value(), 7);
}

TEST_F(PromiseTest, ObserversRunInTheOrderTheyWereAdded) {
    auto promise = Promise<std::string>::pending();
    std::vector<int> order;
    promise.then([&](const std::string&) { order.push_back(1); });
    promise.then([&](const std::string&) { order.push_back(2); });
    promise.then([&](const std::string&) { order.push_back(3); });
    promise.fulfill("x");
    EXPECT_TRUE(order.empty());
    main.runUntilIdle();
    EXPECT_EQ(order, (std::vector<int>{1, 2, 3}));
}

TEST_F(PromiseTest, RejectionSkipsThenBodiesAndTravelsDownTheChain) {
    auto promise = Promise<int>::pending();
    bool ran = false;
    auto last = promise.then([&](const int&) { ran = true; }).then([&](const int&) { ran = true; });
    promise.reject(Error{"test", 5, "no"});
    promise.fulfill(1);
    main.runUntilIdle();
    EXPECT_FALSE(ran);
    ASSERT_TRUE(last.error());
    EXPECT_EQ(last.error()->code, 5);
}

TEST_F(PromiseTest, AThrowingBodyRejectsItsResult) {
    Promise<int> thrown([](auto, auto) { throw std::runtime_error("work failed"); });
    auto promise = Promise<int>::pending();
    auto next = promise.then([](const int&) { throw std::runtime_error("then failed"); });
    promise.fulfill(3);
    main.runUntilIdle();
    ASSERT_TRUE(thrown.error());
    EXPECT_EQ(thrown.error()->message, "work failed");
    ASSERT_TRUE(next.error());
    EXPECT_EQ(next.error()->message, "then failed");
}

TEST_F(PromiseTest, AChainNeedsNoOtherOwner) {
    std::function<void(int)> resolveLater;
    std::vector<int> seen;
    {
        Promise<int> promise([&](auto fulfill, auto) { resolveLater = fulfill; });
        promise.then([&](const int& value) { seen.push_back(value); }).then([&](const int& value) {
            seen.push_back(value * 10);
        });
    }
    main.runUntilIdle();
    ASSERT_TRUE(resolveLater);
    resolveLater(4);
    main.runUntilIdle();
    EXPECT_EQ(seen, (std::vector<int>{4, 40}));
}

TEST_F(PromiseTest, GivenQueuesAndTheSettableDefaultAreUsed) {
    auto other = std::make_shared<ManualQueue>("other");
    kelvane::promises::setDefaultDispatchQueue(other);
    auto promise = Promise<int>::pending();
    int seen = 0;
    promise.then([&](const int& value) { seen = value; });
    promise.fulfill(9);
    main.runUntilIdle();
    EXPECT_EQ(seen, 0);
    other->runUntilIdle();
    EXPECT_EQ(seen, 9);
    kelvane::promises::setDefaultDispatchQueue(nullptr);
    EXPECT_EQ(kelvane::promises::defaultDispatchQueue(), platform.mainQueue);
}

TEST_F(PromiseTest, AnErrorValueCountsAsARejection) {
    auto promise = Promise<Error>::pending();
    promise.fulfill(Error{"test", 2, "as value"});
    EXPECT_TRUE(promise.isRejected());
}

TEST_F(PromiseTest, RacingResolutionsFromManyThreadsSettleOnce) {
    auto serial = kelvane::Queue::makeSerial("promise.observers");
    for (int round = 0; round < 50; ++round) {
        auto promise = Promise<int>::pending();
        std::atomic<int> observed{0};
        promise.then(serial, [&](const int&) { ++observed; });
        std::vector<std::thread> threads;
        for (int i = 0; i < 4; ++i) {
            threads.emplace_back([promise, i] {
                if (i % 2) promise.fulfill(i);
                else promise.reject(Error{"race", i, ""});
            });
        }
        promise.then(serial, [&](const int&) { ++observed; });
        for (auto& thread : threads) thread.join();
        serial->sync([] {});
        EXPECT_EQ(observed.load(), promise.isFulfilled() ? 2 : 0);
        EXPECT_FALSE(promise.isPending());
    }
}
