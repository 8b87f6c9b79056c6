// The contracts every implementation of a storage port keeps: the fakes, the library's own
// stand-ins, and (where they run) the platform adapters.
#include <kelvane/platform/Platform.hpp>

#include "FakePlatform.hpp"
#include "support/Ports.hpp"

#include <gtest/gtest.h>

#include <functional>
#include <thread>

using namespace kelvane;

namespace {

struct StoreFactory {
    std::string name;
    std::function<std::shared_ptr<platform::KeyValueStore>()> make;
};

std::vector<StoreFactory> stores() {
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
