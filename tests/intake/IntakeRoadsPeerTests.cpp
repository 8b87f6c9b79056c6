// The deep-link fetch and the store lookup over libcurl against the scripted backend peer on
// 127.0.0.1.
#include "FlowFixture.hpp"
#include "PeerProcess.hpp"

#include <kelvane/AlertController.hpp>

using namespace kelvane;

namespace {

class IntakeRoadsPeer : public kelvane::testing::FlowFixture {
protected:
    IntakeRoadsPeer() {
        platform.http = nullptr;
        platform.install();
        setStoreLookupHost("127.0.0.1:" + std::to_string(peer.port()));
    }
    ~IntakeRoadsPeer() override { setStoreLookupHost(previousHost); }

    // The peer takes its lines in order: once a fence of its own is scripted, so is the rest.
    void script(const std::vector<std::string>& lines) {
        for (const auto& line : lines) peer.writeLine(line);
        std::string fence = "/fence-" + std::to_string(++fences);
        peer.writeLine("answer GET " + fence + " 200 {}");
        ASSERT_TRUE(peer.waitForLine("SCRIPTED GET " + fence));
    }
    void waitForCalls(std::size_t count) {
        ASSERT_TRUE(platform.mainQueue->runUntil([&] { return delegate->calls().size() == count; }));
    }
    std::vector<std::shared_ptr<AlertController>> dialogs() {
        std::vector<std::shared_ptr<AlertController>> found;
        for (const auto& shown : platform.viewSystem->shown) {
            if (auto alert = std::dynamic_pointer_cast<AlertController>(shown.controller)) found.push_back(alert);
        }
        return found;
    }
    std::size_t requests(const std::string& path) {
        auto lines = peer.lines();
        return std::count_if(lines.begin(), lines.end(), [&](auto& line) {
            return line.starts_with("REQUEST ") && json::parse(line.substr(8))->at("path") == path;
        });
    }

    kelvane::testing::PeerProcess peer{"backend-server.js", {R"({"lifetime":60})"}};
    std::string previousHost = storeLookupHost();
    int fences = 0;
};

}  // namespace

TEST_F(IntakeRoadsPeer, ADeepLinkFetchesThePayloadThatTheHostThenPushes) {
    ASSERT_NE(peer.port(), 0);
    std::string base = "base_url=http%3A%2F%2F127.0.0.1%3A" + std::to_string(peer.port()) + "&action_token=tok-1";
    script({"answer GET /tx-1/realm-1 200 " + plainPayload().dump(), "answer GET /tx-2/realm-1 500 {}"});

    app->onDeeplinkRequest(delegate, "https://l.test/deeplink?" + base + "&id=tx-1&realm_id=realm-1");
    waitForCalls(1);
    auto line = peer.waitForLine("REQUEST ");
    ASSERT_TRUE(line);
    EXPECT_EQ(json::parse(line->substr(8))->at("headers").at("authorization"), "Bearer tok-1");
    const std::string prefix = "onTransactionRequest:";
    ASSERT_TRUE(delegate->calls()[0].starts_with(prefix));
    Json message = *json::parse(delegate->calls()[0].substr(prefix.size()));
    EXPECT_EQ(json::parse(message.at("payload").get<std::string>()), plainPayload());

    push(message);
    ASSERT_EQ(controllers.size(), 1u);
    EXPECT_EQ(controllers[0]->loadedPages, std::vector<std::string>{"https://page.test/t/1"});

    app->onDeeplinkRequest(delegate, "https://l.test/deeplink?" + base + "&id=tx-2&realm_id=realm-1");
    waitForCalls(2);
    EXPECT_EQ(delegate->calls().back(), R"(onError:Error Domain= Code=500 "HTTP error 500")");
}

TEST_F(IntakeRoadsPeer, TheStoreLookupClosesTheGateOnAnyDifferenceOfVersions) {
    ASSERT_NE(peer.port(), 0);
    struct Case {
        std::string answer;  // empty: the connection drops
        std::string local;
        bool closed;
        std::size_t dialogs;
    };
    const std::vector<Case> cases{
        {"", "1.2.0", false, 0},
        {R"({"results":[{"version":"1.2.0","trackId":42}]})", "1.2.0", false, 0},
        {R"({"results":[{"version":"1.2","trackId":42}]})", "1.2.0", true, 1},
        {R"({"results":[{"version":"1.2.0","trackId":42}]})", "1.3.0", true, 2},
        {R"({"results":[]})", "1.2.0", false, 2},
        {R"({"results":[{"version":"1.3.0"}]})", "1.2.0", true, 2},
    };
    // The drop comes first, on a fresh connection: libcurl would send again over a reused one.
    std::vector<std::string> answers;
    for (const auto& each : cases) {
        answers.push_back(each.answer.empty() ? "drop GET /lookup" : "answer GET /lookup 200 " + each.answer);
    }
    script(answers);
    std::vector<std::shared_ptr<KelvaneApp>> apps;
    for (const auto& each : cases) {
        platform.bundle->version = each.local;
        apps.push_back(std::make_shared<KelvaneApp>());
        apps.back()->sdkInit(delegate, true);
        EXPECT_EQ(apps.back()->updateAvailable(), each.closed) << each.answer << " " << each.local;
        EXPECT_EQ(dialogs().size(), each.dialogs) << each.answer << " " << each.local;
    }
    auto lines = log.lines();
    EXPECT_EQ(std::count_if(lines.begin(), lines.end(), [](auto& line) {
                  return line.starts_with("Error checking for updates: Error Domain=NSURLErrorDomain");
              }), 1) << lines[0];
    EXPECT_TRUE(log.contains("App store version -> 1.2") && log.contains("current version -> 1.2.0"));
    auto first = json::parse(peer.waitForLine("REQUEST ")->substr(8));
    EXPECT_EQ(first->at("query"), (Json{{"bundleId", "com.test.app"}}));

    // A closed gate turns pushes away; the failed lookup left its gate open.
    platform.bundle->version = "1.2.0";
    app = apps.back();
    push(message(plainPayload()));
    app = apps.front();
    push(message(plainPayload()));
    EXPECT_EQ(delegate->calls(), std::vector<std::string>{"onError:appUpdateRequired"});
    EXPECT_EQ(controllers.size(), 1u);

    // "Update Now" opens the store, reads the clipboard again and repeats the lookup: the
    // store still differs, so the dialog comes back.
    script({R"(answer GET /lookup 200 {"results":[{"version":"9.0","trackId":7}]})"});
    platform.pasteboard->text = "no link";
    auto dialog = dialogs()[0];
    ASSERT_EQ(dialog->actions.size(), 1u);
    EXPECT_EQ(dialog->title, "Update Available");
    EXPECT_EQ(dialog->message, "A new version of the app is available. Please update to continue using.");
    EXPECT_EQ(dialog->actions[0].title, "Update Now");
    dialog->tap(0);
    EXPECT_EQ(platform.urlOpener->opened, std::vector<std::string>{"itms-apps://apps.apple.com/app/id1440000000"});
    EXPECT_TRUE(log.contains("Clipboard data: no link"));
    EXPECT_EQ(dialogs().size(), 3u);
    EXPECT_TRUE(platform.mainQueue->runUntil([&] { return requests("/lookup") == cases.size() + 1; }));
}
