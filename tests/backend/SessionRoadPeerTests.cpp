// A transaction's road from the push to its close, with the web view faked and the backend real:
// one node server on 127.0.0.1 serving both the status socket and the HTTP calls.

#include "FakePlatform.hpp"
#include "PeerProcess.hpp"

#include <kelvane/KelvaneApp.hpp>

#include "backend/WebSocketService.hpp"
#include "flow/Storyboard.hpp"

#include <gtest/gtest.h>

using namespace kelvane;
using kelvane::testing::PeerProcess;
using Calls = std::vector<std::string>;

namespace {

// The flow's screen, with every bridge service answering the posted body.
class EchoingWebViewController : public WebViewController {
public:
    struct EchoRecord : JsonRecord<EchoRecord> {
        Json body;
        Json toJson() const { return Json{{"echo", body}}; }
    };
    void runService(Events, const platform::ScriptMessage& message) override {
        EchoRecord record;
        record.body = message.body;
        answer(message.name, record);
    }
};

class SessionRoad : public ::testing::Test {
protected:
    SessionRoad() {
        platform.viewSystem->installRoot();
        previousScene = Storyboard::replaceScene("WebViewController", [this] {
            auto controller = std::make_shared<EchoingWebViewController>();
            controllers.push_back(controller);
            return controller;
        });
    }
    ~SessionRoad() override {
        WebSocketService().dispose();
        platform.mainQueue->runUntilIdle();
        Storyboard::replaceScene("WebViewController", previousScene);
    }

    std::string origin(int port) const { return "http://127.0.0.1:" + std::to_string(port); }

    void pushTransaction(int socketPort, const std::string& requestId = "req-7") {
        Json transaction{{"action", origin(backend.port()) + "/page"},
                         {"socket", {{"url", origin(socketPort)}, {"requestId", requestId}}}};
        Json payload{{"id", "kn_auth"}, {"isEncrypted", 0}, {"data", transaction}};
        app->onPushReceived(Json{{"payload", payload.dump()}}, delegate, std::nullopt);
    }

    // Sends a script line and waits until the server has taken it.
    void script(const std::string& line) {
        backend.writeLine(line);
        int wanted = ++scripts;
        int seen = 0;
        // Each pass over the lines starts again at the PORT line.
        ASSERT_TRUE(backend.waitForLine([&](const std::string& text) {
            if (text.starts_with("PORT ")) seen = 0;
            seen += text.starts_with("SCRIPTED ");
            return seen >= wanted;
        }));
    }

    bool printed(const std::string& prefix) const {
        auto lines = backend.lines();
        return std::any_of(lines.begin(), lines.end(), [&](const auto& line) { return line.starts_with(prefix); });
    }

    bool waitFor(const std::function<bool()>& done) { return platform.mainQueue->runUntil(done); }

    std::shared_ptr<fakes::FakeWebView> webView() const {
        return platform.webViews->made.empty() ? nullptr : platform.webViews->made.back();
    }
    bool pageRequested() const { return webView() && !webView()->loads.empty(); }

    // The recorded request of the first REQUEST line that satisfies `match`.
    Json request(const std::function<bool(const Json&)>& match) {
        auto line = backend.waitForLine([&](const std::string& text) {
            return text.starts_with("REQUEST ") && match(Json::parse(text.substr(8)));
        });
        return line ? Json::parse(line->substr(8)) : Json();
    }
    static bool statusPost(const Json& request, const std::string& status) {
        return request["method"] == "POST" && request["path"] == "/status" &&
               request["body"] == R"({"status":")" + status + R"("})";
    }

    fakes::FakePlatform platform;
    fakes::LogCapture log;
    PeerProcess backend{"backend-server.js", {R"({"lifetime":60,"socketio":true})"}};
    std::shared_ptr<fakes::RecordingDelegate> delegate = std::make_shared<fakes::RecordingDelegate>();
    std::shared_ptr<KelvaneApp> app = std::make_shared<KelvaneApp>();
    std::vector<std::shared_ptr<EchoingWebViewController>> controllers;
    Storyboard::Factory previousScene;
    int scripts = 0;
};

}  // namespace

TEST_F(SessionRoad, FromPushToResultAndTheStartReportBeforeThePage) {
    script("hold POST /status");
    pushTransaction(backend.port());

    // Socket up, start reported, page still waiting for the report's answer.
    ASSERT_TRUE(waitFor([&] { return printed("HELD /status"); }));
    auto connect = backend.waitForLine("CONNECT ");
    ASSERT_TRUE(connect);
    EXPECT_EQ(Json::parse(connect->substr(8))["chatcode"], "req-7");
    auto started = request([](const Json& r) { return statusPost(r, "201"); });
    EXPECT_EQ(started["query"]["key"], "req-7");
    EXPECT_EQ(started["headers"]["content-type"], "application/json");
    platform.mainQueue->runUntilIdle();
    ASSERT_TRUE(webView());
    EXPECT_FALSE(pageRequested());
    auto flowWebView = webView();
    std::optional<std::size_t> storeCallsAtLoad;
    flowWebView->onLoad = [&] { storeCallsAtLoad = platform.webViews->storeCalls.size(); };

    backend.writeLine("release");
    ASSERT_TRUE(waitFor([&] { return pageRequested(); }));
    EXPECT_EQ(flowWebView->loads[0].url.absoluteString(), origin(backend.port()) + "/page");
    EXPECT_EQ(flowWebView->loads[0].timeoutInterval, 60.0);
    EXPECT_EQ(storeCallsAtLoad, 0u) << "cookies are wiped after the load is requested";
    EXPECT_EQ(platform.webViews->storeCalls, (Calls{"removeCookies since ever", "fetchDataRecords"}));

    // A bridge event answered in the page.
    controllers.back()->userContentController({"copyToClipboard", Json{{"text", "abc"}}});
    ASSERT_TRUE(waitFor([&] { return !flowWebView->scripts.empty(); }));
    EXPECT_EQ(flowWebView->scripts[0], R"(iosCallback("copyToClipboard" ,{"echo":{"text":"abc"}}))");

    // The backend's result.
    backend.writeLine(R"(emit req-7 [{"auth_req_id":"auth-1","status":"201"}])");
    ASSERT_TRUE(waitFor([&] { return !delegate->calls().empty(); }));
    EXPECT_EQ(delegate->calls(), Calls{"onResult:req-7,auth-1"});
    EXPECT_TRUE(request([](const Json& r) { return statusPost(r, "200"); })["query"]["key"] == "req-7");
    EXPECT_TRUE(backend.waitForLine("DISCONNECT "));
    EXPECT_FALSE(WebSocketService::socketManager);

    // The page stays until it says it is done.
    controllers.back()->userContentController({"success", Json::object()});
    EXPECT_EQ(delegate->calls(), (Calls{"onResult:req-7,auth-1", "onClosed:TranscationCompleted"}));
    EXPECT_EQ(flowWebView->loads.size(), 1u);
}

TEST_F(SessionRoad, ARefusedSocketClosesThenErrorsAndNeverLoads) {
    pushTransaction(backend.port(), "refused");
    ASSERT_TRUE(waitFor([&] { return delegate->calls().size() >= 2; }));
    platform.mainQueue->runUntilIdle();
    EXPECT_TRUE(printed("REFUSED refused"));
    EXPECT_EQ(delegate->calls(), (Calls{"onClosed:TranscationCompleted", "onError:WebSocketConnectionFailed"}));
    EXPECT_FALSE(pageRequested());
    EXPECT_FALSE(WebSocketService::socketManager);
    EXPECT_FALSE(controllers.back()->loadingIndicator->isAnimating());
    EXPECT_FALSE(printed("REQUEST "));
}

TEST_F(SessionRoad, AFailedStartReportStillLoadsThePageOnce) {
    for (const char* line : {"answer POST /status 500 {}", "drop POST /status"}) {
        script(line);
        platform.webViews->made.clear();
        pushTransaction(backend.port());
        ASSERT_TRUE(waitFor([&] { return pageRequested(); })) << line;
        platform.mainQueue->runUntilIdle();
        EXPECT_EQ(webView()->loads.size(), 1u) << line;
        EXPECT_TRUE(delegate->calls().empty()) << line;
    }
}

TEST_F(SessionRoad, TheRequestIdIsTrimmedForTheHeaderAndTheEventName) {
    auto service = std::make_shared<WebSocketService>();
    auto connected = service->tryConnect({" \t" + origin(backend.port()) + "\n", "\u00a0req-8 \r\n"}, delegate);
    ASSERT_TRUE(waitFor([&] { return !connected.isPending(); }));
    EXPECT_EQ(connected.value(), true);
    EXPECT_EQ(service->requestId, "req-8");
    EXPECT_EQ(Json::parse(backend.waitForLine("CONNECT ")->substr(8))["chatcode"], "req-8");
    backend.writeLine(R"(emit req-8 [{"auth_req_id":"auth-8"}])");
    ASSERT_TRUE(waitFor([&] { return !delegate->calls().empty(); }));
    EXPECT_EQ(delegate->calls(), Calls{"onResult:req-8,auth-8"});
    // After a good connect, a later disconnect only drops the socket.
    EXPECT_FALSE(WebSocketService::socketManager);
}
