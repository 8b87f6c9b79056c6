// The demo host end to end: real WebKit under one Xvfb, the real sandbox backend, and the
// library inside kelvane-demo, run as a child process per transaction. Each case reads what a
// host developer would: the exit status, the delegate calls in order, the summary, and what the
// sandbox recorded.

#include "PeerProcess.hpp"
#include "TestTools.hpp"
#include "XvfbDisplay.hpp"

#include <kelvane/Json.hpp>
#include <kelvane/URL.hpp>

#include "support/CurlHTTP.hpp"

#include <gtest/gtest.h>

#include <csignal>
#include <fcntl.h>
#include <future>
#include <map>
#include <poll.h>
#include <regex>
#include <spawn.h>
#include <sstream>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

using kelvane::Json;
using kelvane::testing::PeerProcess;
using kelvane::testing::TempDir;
using Calls = std::vector<std::string>;

namespace {

constexpr const char* kStoreVersion = "3.1.4";

// One display and one sandbox for the whole program.
class Desktop : public ::testing::Environment {
public:
    void SetUp() override {
        display = std::make_unique<kelvane::testing::XvfbDisplay>();
        ASSERT_FALSE(display->name().empty()) << "Xvfb did not start";
        folder = kelvane::testing::useDesktopEnvironment(display->name());
        sandbox = std::make_unique<PeerProcess>(
            std::string(KELVANE_SOURCE_DIR) + "/sandbox/server.js",
            std::vector<std::string>{"--port", "0", "--lifetime", "900", "--quiet"}, std::chrono::seconds(20),
            "Kelvane sandbox listening on ");
        ASSERT_NE(sandbox->port(), 0) << "the sandbox did not start";
    }
    void TearDown() override {
        if (sandbox) sandbox->signal(SIGTERM);
        sandbox.reset();
        std::error_code ignored;
        if (!folder.empty()) std::filesystem::remove_all(folder, ignored);
    }

    std::unique_ptr<kelvane::testing::XvfbDisplay> display;
    std::string folder;
    std::unique_ptr<PeerProcess> sandbox;
};
Desktop* desktop = nullptr;

struct DemoRun {
    int status = -1;
    std::string out, err;

    // The delegate's calls, in order: `onClosed("ByUser")`; without the push token requests,
    // which the page's own steps make.
    Calls calls() const {
        Calls found = linesAfter("] delegate ");
        std::erase_if(found, [](const std::string& call) { return call.starts_with("onPushTokenRequest"); });
        return found;
    }
    // What the demo printed after its time stamp, for lines that start so.
    Calls linesAfter(const std::string& marker) const {
        Calls found;
        std::istringstream lines(out);
        for (std::string line; std::getline(lines, line);) {
            if (auto at = line.find(marker); at != std::string::npos) found.push_back(line.substr(at + marker.size()));
        }
        return found;
    }
    std::string summary(const std::string& field) const {
        auto found = linesAfter("  " + field + ":");
        if (found.empty()) return {};
        return found.front().substr(found.front().find_first_not_of(' '));
    }
};

class EndToEnd : public ::testing::Test {
protected:
    std::string sandboxURL() const { return "http://127.0.0.1:" + std::to_string(desktop->sandbox->port()); }

    Json post(const std::string& path, const Json& body) const {
        kelvane::platform::HTTPRequest request{*kelvane::URL::make(sandboxURL() + path), "POST",
                                               {{"Content-Type", "application/json"}}, body.dump(), 10.0};
        std::promise<std::string> answer;
        http_->dataTask(request, [&](std::optional<std::string> data, auto, auto) { answer.set_value(data.value_or("")); });
        return kelvane::json::parse(answer.get_future().get()).value_or(Json());
    }
    Json get(const std::string& path) const {
        auto answer = http_->contentsOf(*kelvane::URL::make(sandboxURL() + path));
        return answer ? kelvane::json::parse(*answer).value_or(Json()) : Json();
    }

    Json mint(Json options = Json::object()) const {
        options["auto"] = true;
        Json minted = post("/api/transactions", options);
        EXPECT_TRUE(minted.contains("id")) << minted.dump();
        return minted;
    }
    Json record(const Json& minted) const { return get("/api/transactions/" + minted.value("id", "")); }
    static Calls statusNames(const Json& record) {
        Calls names;
        for (const auto& status : record.value("statuses", Json::array())) names.push_back(status.value("name", ""));
        return names;
    }

    // A push file for a minted transaction's plain or encrypted message.
    std::string pushFile(const Json& minted, const char* which) const {
        auto path = folder_ / (std::string(which) + ".json");
        kelvane::testing::writeFile(path, Json{{"payload", minted[which]["payload"]}}.dump());
        return path;
    }

    // kelvane-demo with `args`, unattended, its library log apart; killed past the bound.
    DemoRun demo(std::vector<std::string> args) const {
        std::vector<std::string> words{KELVANE_DEMO, "--auto", "--timeout", "60", "--log", folder_ / "library.log"};
        words.insert(words.end(), args.begin(), args.end());
        std::vector<char*> argv;
        for (auto& word : words) argv.push_back(word.data());
        argv.push_back(nullptr);
        int out[2], err[2];
        if (pipe2(out, O_CLOEXEC) != 0 || pipe2(err, O_CLOEXEC) != 0) return {};
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
        posix_spawn_file_actions_adddup2(&actions, out[1], 1);
        posix_spawn_file_actions_adddup2(&actions, err[1], 2);
        posix_spawnattr_t attributes;
        posix_spawnattr_init(&attributes);
        // Its own group, so that a run past the bound goes with its web processes.
        posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETPGROUP);
        pid_t pid = -1;
        int spawned = posix_spawn(&pid, argv[0], &actions, &attributes, argv.data(), environ);
        posix_spawn_file_actions_destroy(&actions);
        posix_spawnattr_destroy(&attributes);
        close(out[1]);
        close(err[1]);
        DemoRun run;
        if (spawned == 0) {
            pollfd streams[2] = {{out[0], POLLIN, 0}, {err[0], POLLIN, 0}};
            std::string* into[2] = {&run.out, &run.err};
            auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(120);
            int open = 2;
            while (open > 0 && std::chrono::steady_clock::now() < deadline) {
                if (poll(streams, 2, 500) <= 0) continue;
                for (int i = 0; i < 2; ++i) {
                    if (streams[i].fd < 0 || !(streams[i].revents & (POLLIN | POLLHUP))) continue;
                    char chunk[4096];
                    ssize_t count = read(streams[i].fd, chunk, sizeof chunk);
                    if (count > 0) {
                        into[i]->append(chunk, static_cast<std::size_t>(count));
                    } else {
                        streams[i].fd = -1;
                        --open;
                    }
                }
            }
            if (open > 0) kill(-pid, SIGKILL);
            int status = 0;
            waitpid(pid, &status, 0);
            run.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        }
        close(out[0]);
        close(err[0]);
        return run;
    }

    TempDir folder_;

private:
    std::unique_ptr<kelvane::CurlHTTP> http_ = std::make_unique<kelvane::CurlHTTP>();
};

// Exit 0 with the verdict "completed", no error, and the calls ending with the backend's result
// and the close, in either order: they race each other.
::testing::AssertionResult completed(const DemoRun& run, const Json& minted) {
    Calls ending{"onResult(\"" + minted.value("requestId", "") + "\", \"" + minted.value("authReqId", "") + "\")",
                 "onClosed(\"TranscationCompleted\")"};
    Calls calls = run.calls();
    if (calls.size() >= 2) {
        Calls last(calls.end() - 2, calls.end());
        if (last[0] == ending[1]) std::swap(last[0], last[1]);
        bool errors = std::any_of(calls.begin(), calls.end(), [](const auto& call) { return call.starts_with("onError"); });
        if (run.status == 0 && last == ending && !errors && run.summary("verdict") == "completed") {
            return ::testing::AssertionSuccess();
        }
    }
    return ::testing::AssertionFailure() << "status " << run.status << "\n" << run.out << run.err;
}

TEST_F(EndToEnd, PlainAndEncryptedPushesCompleteWithTheBackendsResult) {
    auto plain = mint();
    auto run = demo({"--push", pushFile(plain, "push")});
    EXPECT_TRUE(completed(run, plain));
    EXPECT_EQ(statusNames(record(plain)), (Calls{"started", "completed"}));

    // The demo mints this one itself, and decrypts with the key the sandbox gave.
    auto screenshot = folder_ / "end.png";
    run = demo({"--sandbox", sandboxURL(), "--screenshot", screenshot});
    std::smatch id;
    auto transaction = run.summary("transaction");
    ASSERT_TRUE(std::regex_search(transaction, id, std::regex("^(\\S+) \\(request id (\\S+), encrypted push\\)")))
        << run.out;
    auto encrypted = record(Json{{"id", id[1].str()}});
    EXPECT_TRUE(completed(run, {{"requestId", id[2].str()}, {"authReqId", encrypted.value("authReqId", "")}}));
    EXPECT_EQ(statusNames(encrypted), (Calls{"started", "completed"}));
    EXPECT_TRUE(kelvane::testing::readFile(screenshot).starts_with("\x89PNG\r\n\x1a\n")) << run.out;
    // The device's answers, checked by the sandbox: the challenge sealed after the owner's
    // (scripted) approval, and the passkey verified as a relying party verifies it.
    EXPECT_EQ(run.linesAfter("] device owner: scripted approval").size(), 2u) << run.out;
    EXPECT_TRUE(encrypted["biometric"].value("verified", false)) << encrypted.dump();
    const Json& fido = encrypted["fido"];
    EXPECT_TRUE(fido["registration"].value("verified", false)) << fido.dump();
    EXPECT_TRUE(fido["authentication"].value("verified", false)) << fido.dump();
    EXPECT_GT(fido["authentication"].value("counter", 0), fido["authentication"].value("counterBefore", 0)) << fido.dump();
    EXPECT_EQ(run.linesAfter("] face session: ").back(), "success") << run.out;
}

TEST_F(EndToEnd, AQrCodeInAnImageIsScannedIntoATransaction) {
    auto code = folder_ / "transaction.png";
    auto run = demo({"--sandbox", sandboxURL(), "--plain", "--qr", code});
    std::smatch id;
    auto transaction = run.summary("transaction");
    ASSERT_TRUE(std::regex_search(transaction, id, std::regex("^(\\S+) \\(request id (\\S+), plain QR code\\)")))
        << run.out << run.err;
    auto scanned = record(Json{{"id", id[1].str()}});
    EXPECT_TRUE(completed(run, {{"requestId", id[2].str()}, {"authReqId", scanned.value("authReqId", "")}}));
    EXPECT_TRUE(kelvane::testing::readFile(code).starts_with("\x89PNG\r\n\x1a\n"));
}

TEST_F(EndToEnd, ADeepLinkIsResolvedByTheBackendAndFedBack) {
    auto minted = mint();
    auto run = demo({"--deeplink", minted["deeplink"]});
    EXPECT_TRUE(completed(run, minted));
    ASSERT_EQ(run.calls().size(), 3u) << run.out;
    EXPECT_TRUE(run.calls()[0].starts_with("onTransactionRequest({\"payload\":")) << run.out;
}

TEST_F(EndToEnd, TheUpdateGatePassesTheStoresVersionOnlyAndClosesThePushRoadOtherwise) {
    post("/api/store", {{"version", kStoreVersion}});
    auto same = mint();
    auto run = demo({"--force-update", "--store-host", "127.0.0.1:" + std::to_string(desktop->sandbox->port()),
                     "--app-version", kStoreVersion, "--push", pushFile(same, "push")});
    EXPECT_TRUE(completed(run, same));

    auto other = mint();
    run = demo({"--force-update", "--sandbox", sandboxURL(), "--app-version", "3.1.3", "--push", pushFile(other, "push")});
    post("/api/store", {{"version", nullptr}});
    EXPECT_EQ(run.status, 1) << run.out << run.err;
    EXPECT_EQ(run.linesAfter("] dialog "), Calls{"\"Update Available\" (left open)"}) << run.out;
    EXPECT_EQ(run.calls(), Calls{"onError(\"appUpdateRequired\")"});
    EXPECT_TRUE(record(other)["statuses"].empty());
}

TEST_F(EndToEnd, AFlowThatCannotStartClosesWithItsError) {
    auto refused = mint({{"refuseSocket", true}});
    auto run = demo({"--push", pushFile(refused, "push")});
    EXPECT_EQ(run.status, 1) << run.out << run.err;
    EXPECT_EQ(run.calls(), (Calls{"onClosed(\"TranscationCompleted\")", "onError(\"WebSocketConnectionFailed\")"}));
    EXPECT_EQ(run.summary("verdict"), "failed: the status socket did not connect (WebSocketConnectionFailed)");
    EXPECT_TRUE(record(refused)["statuses"].empty());

    auto unreachable = mint({{"action", "http://127.0.0.1:" + std::to_string(kelvane::testing::closedPort()) + "/"}});
    run = demo({"--push", pushFile(unreachable, "push")});
    EXPECT_EQ(run.status, 1) << run.out << run.err;
    EXPECT_EQ(run.calls(), (Calls{"onError(\"ConnectionError\")", "onClosed(\"TranscationCompleted\")"}));
    EXPECT_EQ(statusNames(record(unreachable)), Calls{"started"});
}

TEST_F(EndToEnd, TheUserOrThePageCanEndTheFlowWithoutAResult) {
    auto left = mint();
    auto run = demo({"--cancel", "--push", pushFile(left, "push")});
    EXPECT_EQ(run.status, 1) << run.out << run.err;
    EXPECT_EQ(run.linesAfter("] dialog "), Calls{"\"Cancel Transaction\" -> OK"}) << run.out;
    EXPECT_EQ(run.calls(), Calls{"onClosed(\"ByUser\")"});
    EXPECT_EQ(statusNames(record(left)), (Calls{"started", "userClosed"}));

    auto failing = mint({{"fail", true}});
    run = demo({"--push", pushFile(failing, "push")});
    EXPECT_EQ(run.status, 1) << run.out << run.err;
    EXPECT_EQ(run.calls(), Calls{"onClosed(\"TranscationCompleted\")"});
    EXPECT_EQ(run.summary("verdict"), "failed: the page reported a failure");
    auto failed = record(failing);
    EXPECT_EQ(statusNames(failed), (Calls{"started", "userClosed"}));
    EXPECT_EQ(failed["outcome"].value("outcome", ""), "failure");
}

TEST_F(EndToEnd, TheAppToAppHandOffReturnsToThePageOnce) {
    auto minted = mint({{"mode", "appToApp"}});
    auto run = demo({"--push", pushFile(minted, "push")});
    EXPECT_TRUE(completed(run, minted));
    auto handOff = run.linesAfter("] hand-off to the partner app: ");
    ASSERT_EQ(handOff.size(), 1u) << run.out;
    EXPECT_TRUE(handOff[0].starts_with("uaepass")) << handOff[0];
    auto back = run.linesAfter("] the partner app returns: ");
    ASSERT_EQ(back.size(), 1u) << run.out;
    EXPECT_TRUE(back[0].starts_with("io.kelvane.demo:/uaepass/success?url=")) << back[0];
    auto done = record(minted);
    EXPECT_EQ(done.value("returnLoads", -1), 1);
    EXPECT_EQ(statusNames(done), (Calls{"started", "completed"}));
}

TEST_F(EndToEnd, ThePlaygroundCallsEachAnsweringEventOnceAndShowsItsAnswer) {
    auto minted = mint({{"mode", "playground"}});
    auto run = demo({"--push", pushFile(minted, "push")});
    EXPECT_TRUE(completed(run, minted));
    std::map<std::string, std::vector<std::string>> outcomes;
    for (const auto& line : run.linesAfter("  event:          ")) {
        auto arrow = line.find(" -> ");
        outcomes[line.substr(0, arrow)].push_back(line.substr(arrow + 4));
    }
    for (const char* event : {"isEventSupported", "checkBiometric", "registerBiometric", "verifyBiometric",
                              "registerAshield", "authenticateAshield", "registerFido", "signFido", "getFcmToken",
                              "isJsFidoSupported", "registerSilentBinding", "verifySilentBinding", "readDeviceDetails",
                              "copyToClipboard", "registerIproov", "verifyIproov", "getCurrentNetwork",
                              "loadSekuraSessionUrl", "isCustomSchemeRegisteredOnApp"}) {
        ASSERT_EQ(outcomes[event].size(), 1u) << event << "\n" << run.out;
        EXPECT_NE(outcomes[event][0], "no answer") << event;
    }
    // No GeoClue here: the location port's failure, with its reason, and no dialog.
    EXPECT_TRUE(outcomes["readDeviceDetails"][0].starts_with("success:false (Location services are unavailable"))
        << outcomes["readDeviceDetails"][0];
    EXPECT_EQ(run.linesAfter("] delegate onPushTokenRequest() -> "), Calls{"\"demo-push-token\""});
    EXPECT_TRUE(run.linesAfter("] dialog ").empty()) << run.out;
}

}  // namespace

int main(int argc, char** argv) {
    ::testing::InitGoogleTest(&argc, argv);
    desktop = new Desktop;
    ::testing::AddGlobalTestEnvironment(desktop);
    return RUN_ALL_TESTS();
}
