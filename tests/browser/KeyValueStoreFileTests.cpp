// The desktop key-value store's file: owner-only, and whole after concurrent writers and after
// a writer killed between its write and its rename.

#include <kelvane/gtk/GtkPlatform.hpp>

#include <gtest/gtest.h>

#include <csignal>
#include <fstream>
#include <regex>
#include <spawn.h>
#include <sstream>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <poll.h>
#include <thread>
#include <unistd.h>

extern char** environ;

using namespace kelvane;

namespace {

constexpr std::size_t kPadding = 1 << 20;

pid_t startWriter(const std::string& bundle, const std::string& tag, std::size_t padding, long count) {
    std::vector<std::string> words{KELVANE_STORE_WRITER, bundle, "value", tag, std::to_string(padding),
                                   std::to_string(count)};
    std::vector<char*> argv;
    for (auto& word : words) argv.push_back(word.data());
    argv.push_back(nullptr);
    pid_t pid = -1;
    if (posix_spawn(&pid, argv[0], nullptr, nullptr, argv.data(), environ) != 0) return -1;
    return pid;
}

int waitFor(pid_t pid) {
    int status = 0;
    waitpid(pid, &status, 0);
    return status;
}

// The stored value, read straight from the file, when the file is a whole JSON object.
std::optional<std::string> storedValue(const std::filesystem::path& file) {
    std::ifstream in(file);
    std::stringstream text;
    text << in.rdbuf();
    Json parsed = Json::parse(text.str(), nullptr, false);
    if (!parsed.is_object() || !parsed["value"].is_string()) return std::nullopt;
    return parsed["value"].get<std::string>();
}

// Whether `value` is one whole value a writer with one of `tags` wrote.
bool wholeValue(const std::string& value, const std::vector<std::string>& tags, std::size_t padding) {
    for (const auto& tag : tags) {
        std::smatch match;
        std::regex pattern(tag + "-[0-9]+");
        auto end = value.find('x');
        auto head = value.substr(0, end);
        if (std::regex_match(head, match, pattern) && value.size() == head.size() + padding &&
            value.find_first_not_of('x', head.size()) == std::string::npos) {
            return true;
        }
    }
    return false;
}

class KeyValueStoreFile : public ::testing::Test {
protected:
    KeyValueStoreFile() {
        bundle = std::string("com.kelvane.store.") + ::testing::UnitTest::GetInstance()->current_test_info()->name();
        file = gtk::keyValueStoreFile(bundle);
        std::filesystem::remove_all(file.parent_path());
    }
    ~KeyValueStoreFile() override { std::filesystem::remove_all(file.parent_path()); }

    std::string bundle;
    std::filesystem::path file;
};

}  // namespace

TEST_F(KeyValueStoreFile, IsOwnerOnlyAndReadBackByTheNextRun) {
    auto store = gtk::makePlatform(bundle, "1.0").keyValueStore;
    store->setString("A1B2", "device_id");
    store->setDictionary(Json{{"credentialId", "c-1"}}, "biometricKey");
    struct stat info {};
    ASSERT_EQ(stat(file.c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0600u);
    ASSERT_EQ(stat(file.parent_path().c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0077, 0u);

    auto again = gtk::makePlatform(bundle, "1.0").keyValueStore;
    EXPECT_EQ(again->string("device_id"), "A1B2");
    EXPECT_EQ(again->dictionary("biometricKey"), (Json{{"credentialId", "c-1"}}));
    again->removeObject("device_id");
    EXPECT_FALSE(gtk::makePlatform(bundle, "1.0").keyValueStore->string("device_id"));

    // A file that is no JSON object reads as an empty store and is replaced by the next write.
    std::ofstream(file) << "[1,2";
    auto fresh = gtk::makePlatform(bundle, "1.0").keyValueStore;
    EXPECT_FALSE(fresh->dictionary("biometricKey"));
    fresh->setString("v", "k");
    EXPECT_EQ(gtk::makePlatform(bundle, "1.0").keyValueStore->string("k"), "v");
}

TEST_F(KeyValueStoreFile, ConcurrentWritersLeaveOneWholeValue) {
    constexpr std::size_t padding = 64 * 1024;
    std::vector<pid_t> writers{startWriter(bundle, "procA", padding, 60), startWriter(bundle, "procB", padding, 60)};
    auto store = gtk::makePlatform(bundle, "1.0").keyValueStore;
    std::vector<std::thread> threads;
    for (int t = 0; t < 3; ++t) {
        threads.emplace_back([&, t] {
            for (int n = 0; n < 60; ++n) {
                store->setString("thread" + std::to_string(t) + "-" + std::to_string(n) + std::string(padding, 'x'),
                                 "value");
                // Readers in between never see a torn file.
                if (auto seen = storedValue(file)) {
                    EXPECT_TRUE(wholeValue(*seen, {"procA", "procB", "thread0", "thread1", "thread2"}, padding));
                }
            }
        });
    }
    for (auto& thread : threads) thread.join();
    for (auto pid : writers) EXPECT_EQ(waitFor(pid), 0);

    auto last = storedValue(file);
    ASSERT_TRUE(last);
    EXPECT_TRUE(wholeValue(*last, {"procA", "procB", "thread0", "thread1", "thread2"}, padding));
    // No temporary file is left behind by writers that finished.
    for (const auto& entry : std::filesystem::directory_iterator(file.parent_path())) {
        EXPECT_EQ(entry.path(), file);
    }
}

TEST_F(KeyValueStoreFile, AWriterKilledBeforeItsRenameLeavesTheOldOrTheNewContents) {
    gtk::makePlatform(bundle, "1.0").keyValueStore->setString("old-0" + std::string(kPadding, 'x'), "value");
    int watch = inotify_init1(IN_CLOEXEC | IN_NONBLOCK);
    ASSERT_GE(watch, 0);
    ASSERT_GE(inotify_add_watch(watch, file.parent_path().c_str(), IN_CLOSE_WRITE | IN_CREATE), 0);

    std::vector<std::string> tags{"old"};
    int staleSeen = 0;
    for (int round = 0; round < 12; ++round) {
        auto tag = "round" + std::to_string(round);
        tags.push_back(tag);
        pid_t writer = startWriter(bundle, tag, kPadding, 1000);
        ASSERT_GT(writer, 0);
        // Kill it once a temporary file has been created (odd rounds) or fully written (even
        // rounds): both before that write's rename.
        std::uint32_t wanted = round % 2 ? IN_CREATE : IN_CLOSE_WRITE;
        bool seen = false;
        auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        while (!seen && std::chrono::steady_clock::now() < deadline) {
            pollfd ready{watch, POLLIN, 0};
            if (poll(&ready, 1, 1000) <= 0) continue;
            alignas(inotify_event) char buffer[4096];
            ssize_t length = read(watch, buffer, sizeof buffer);
            for (ssize_t offset = 0; offset < length;) {
                auto* event = reinterpret_cast<inotify_event*>(buffer + offset);
                if ((event->mask & wanted) && event->len && std::string(event->name).ends_with(".tmp")) seen = true;
                offset += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
            }
        }
        kill(writer, SIGKILL);
        waitFor(writer);
        ASSERT_TRUE(seen) << "round " << round;

        auto value = storedValue(file);
        ASSERT_TRUE(value) << "round " << round << ": the file is not whole";
        EXPECT_TRUE(wholeValue(*value, tags, kPadding)) << "round " << round;
        bool stale = false;
        for (const auto& entry : std::filesystem::directory_iterator(file.parent_path())) {
            stale = stale || entry.path().filename().string().ends_with(".tmp");
        }
        staleSeen += stale;
        // The next run reads what the file holds and clears what the killed writer left.
        auto next = gtk::makePlatform(bundle, "1.0").keyValueStore;
        EXPECT_EQ(next->string("value"), value) << "round " << round;
        for (const auto& entry : std::filesystem::directory_iterator(file.parent_path())) {
            EXPECT_EQ(entry.path(), file) << "round " << round;
        }
    }
    close(watch);
    EXPECT_GT(staleSeen, 0) << "no kill landed between a write and its rename";
}
