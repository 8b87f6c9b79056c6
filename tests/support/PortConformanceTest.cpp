// The contracts every implementation of a port keeps: the fakes and the library's own
// stand-ins in the unit suite, and the desktop adapters in the browser suite, where a display
// exists (built there with KELVANE_CONFORMANCE_DESKTOP).
#include <kelvane/platform/Platform.hpp>

#include "FakePlatform.hpp"
#include "ManualQueue.hpp"
#include "support/Ports.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <thread>

#ifdef KELVANE_CONFORMANCE_DESKTOP
#include "BrowserHarness.hpp"

#include <kelvane/gtk/GtkPlatform.hpp>
#endif

using namespace kelvane;

namespace {

struct StoreFactory {
    std::string name;
    std::function<std::shared_ptr<platform::KeyValueStore>()> make;
};

std::vector<StoreFactory> stores() {
#ifdef KELVANE_CONFORMANCE_DESKTOP
    return {{"desktop", [] {
                 std::filesystem::remove_all(gtk::keyValueStoreFile("com.kelvane.conformance").parent_path());
                 return gtk::makePlatform("com.kelvane.conformance", "1.0").keyValueStore;
             }}};
#endif
    return {
        {"fake", [] { return std::make_shared<fakes::FakeKeyValueStore>(); }},
        // The stand-in for a platform without a store is process-wide; each case uses fresh keys.
        {"standIn",
         [] {
             platform::install(platform::Platform{});
             return ports::keyValueStore();
         }},
    };
}

// Test names show the factory's name, not its bytes.
void PrintTo(const StoreFactory& factory, std::ostream* out) { *out << factory.name; }

class KeyValueStoreConformance : public ::testing::TestWithParam<StoreFactory> {
protected:
    void SetUp() override {
        previous = platform::current();
        store = GetParam().make();
        prefix = ::testing::UnitTest::GetInstance()->current_test_info()->name();
    }
    void TearDown() override { platform::install(*previous); }

    std::string key(const std::string& name) const { return prefix + "." + name; }

    std::shared_ptr<const platform::Platform> previous;
    std::shared_ptr<platform::KeyValueStore> store;
    std::string prefix;
};

}  // namespace

TEST_P(KeyValueStoreConformance, KeepsStringsAndDictionariesApart) {
    EXPECT_FALSE(store->string(key("s")));
    store->setString("value", key("s"));
    store->setDictionary(Json{{"credentialId", "c"}}, key("d"));
    EXPECT_EQ(store->string(key("s")), "value");
    EXPECT_EQ(store->dictionary(key("d")), (Json{{"credentialId", "c"}}));
    EXPECT_FALSE(store->dictionary(key("s")));
    EXPECT_FALSE(store->string(key("d")));
    store->setString("", key("s"));
    EXPECT_EQ(store->string(key("s")), "");
    store->removeObject(key("s"));
    EXPECT_FALSE(store->string(key("s")));
    EXPECT_TRUE(store->dictionary(key("d")));
}

TEST_P(KeyValueStoreConformance, TakesWritesFromManyThreads) {
    std::vector<std::thread> writers;
    for (int t = 0; t < 4; ++t) {
        writers.emplace_back([&, t] {
            for (int i = 0; i < 100; ++i) {
                store->setString(std::to_string(i), key(std::to_string(t)));
                (void)store->string(key(std::to_string((t + 1) % 4)));
            }
        });
    }
    for (auto& writer : writers) writer.join();
    for (int t = 0; t < 4; ++t) EXPECT_EQ(store->string(key(std::to_string(t))), "99");
}

INSTANTIATE_TEST_SUITE_P(Stores, KeyValueStoreConformance, ::testing::ValuesIn(stores()),
                         [](const auto& info) { return info.param.name; });

namespace {

// A main queue and the way its driver lets it run until a condition holds (time included).
struct MainQueueFactory {
    std::string name;
    std::function<std::pair<std::shared_ptr<Queue>, std::function<bool(const std::function<bool()>&)>>()> make;
};

std::vector<MainQueueFactory> mainQueues() {
#ifdef KELVANE_CONFORMANCE_DESKTOP
    return {{"desktop", [] {
                 auto queue = gtk::makePlatform("com.kelvane.conformance", "1.0").mainQueue;
                 return std::pair{queue, std::function<bool(const std::function<bool()>&)>(
                                             [](const std::function<bool()>& done) { return browser::runUntil(done); })};
             }}};
#endif
    return {{"manual", [] {
                 auto queue = std::make_shared<ManualQueue>("main");
                 return std::pair{std::static_pointer_cast<Queue>(queue),
                                  std::function<bool(const std::function<bool()>&)>(
                                      [queue](const std::function<bool()>& done) {
                                          for (int step = 0; step < 10000 && !done(); ++step) {
                                              queue->runUntilIdle();
                                              queue->advance(std::chrono::milliseconds(1));
                                          }
                                          return done();
                                      })};
             }}};
}

void PrintTo(const MainQueueFactory& factory, std::ostream* out) { *out << factory.name; }

class MainQueueConformance : public ::testing::TestWithParam<MainQueueFactory> {};

}  // namespace

TEST_P(MainQueueConformance, RunsTasksLaterInOrderAndOnlyOnItself) {
    auto [queue, runUntil] = GetParam().make();
    std::vector<int> order;
    bool insideCall = true;
    queue->async([&] { order.push_back(insideCall ? -1 : 0); });
    insideCall = false;
    EXPECT_TRUE(queue->isCurrent()) << "the thread that drives it counts as the queue";
    std::atomic<bool> elsewhere{true};
    std::thread([&] { elsewhere = queue->isCurrent(); }).join();
    EXPECT_FALSE(elsewhere);
    // Later delays run later, whatever the posting order; plain tasks, including those posted
    // from tasks and from other threads, keep their order.
    queue->asyncAfter(std::chrono::milliseconds(60), [&] { order.push_back(100); });
    queue->asyncAfter(std::chrono::milliseconds(20), [&] { order.push_back(50); });
    for (int i = 1; i <= 3; ++i) {
        queue->async([&, i] {
            EXPECT_TRUE(queue->isCurrent());
            order.push_back(i);
            if (i == 1) queue->async([&] { order.push_back(4); });
        });
    }
    std::thread([&] { queue->async([&] { order.push_back(5); }); }).join();
    ASSERT_TRUE(runUntil([&] { return order.size() == 8; }));
    EXPECT_EQ(order, (std::vector<int>{0, 1, 2, 3, 5, 4, 50, 100}));
}

INSTANTIATE_TEST_SUITE_P(MainQueues, MainQueueConformance, ::testing::ValuesIn(mainQueues()),
                         [](const auto& info) { return info.param.name; });

namespace {

struct PasteboardFactory {
    std::string name;
    std::function<std::shared_ptr<platform::Pasteboard>()> make;
};

std::vector<PasteboardFactory> pasteboards() {
#ifdef KELVANE_CONFORMANCE_DESKTOP
    return {{"desktop", [] { return gtk::makePlatform("com.kelvane.conformance", "1.0").pasteboard; }}};
#endif
    return {{"fake", [] { return std::make_shared<fakes::FakePasteboard>(); }}};
}

void PrintTo(const PasteboardFactory& factory, std::ostream* out) { *out << factory.name; }

class PasteboardConformance : public ::testing::TestWithParam<PasteboardFactory> {};

}  // namespace

TEST_P(PasteboardConformance, GivesBackTheTextLastSet) {
    auto pasteboard = GetParam().make();
    for (const std::string text : {"abc", "t\u00e9xt \"with\" lines\nand tabs\t", ""}) {
        pasteboard->setString(text);
        EXPECT_EQ(pasteboard->string(), text);
    }
}

INSTANTIATE_TEST_SUITE_P(Pasteboards, PasteboardConformance, ::testing::ValuesIn(pasteboards()),
                         [](const auto& info) { return info.param.name; });
