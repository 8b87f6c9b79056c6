// The page kit's contract table (sandbox/public/kelvane-bridge.js), read through node, against
// the bridge's real services; and the sandbox's transactions against the library's own roads.

#include "FakeDeviceServices.hpp"
#include "FakeHTTP.hpp"
#include "PeerProcess.hpp"

#include <kelvane/KelvaneApp.hpp>

#include "backend/WebSocketService.hpp"
#include "services/EncryptService.hpp"
#include "support/Ports.hpp"

#include <csignal>

namespace kelvane {
// Test names and failures show the event's name.
void PrintTo(Events event, std::ostream* out) { *out << eventName(event); }
}  // namespace kelvane

using namespace kelvane;
using kelvane::testing::PeerProcess;
using kelvane::testing::run;

namespace {

const std::string kSandbox = std::string(KELVANE_SOURCE_DIR) + "/sandbox";

// The kit's table, its sample bodies and each sample broken in one place, as the kit's own
// contract tool prints them.
const Json& kitEvent(const std::string& name) {
    static const Json described =
        json::parse(run("node " + kSandbox + "/tools/contract.js")).value_or(Json{{"events", Json::array()}});
    for (const Json& entry : described["events"]) {
        if (entry["name"] == name) return entry;
    }
    static const Json none;
    return none;
}

class BridgeContract : public fakes::DeviceServiceFixture, public ::testing::WithParamInterface<Events> {
protected:
    BridgeContract() {
        // The device answers the network check by itself; the Sekura page answers 200.
        platform.networkPaths = nullptr;
        http->response = platform::HTTPResponse{200, {}};
        http->data = "{}";
        platform.http = http;
        platform.install();
    }

    std::size_t answers(const std::string& name) const {
        const std::string start = "iosCallback(\"" + name + "\" ,";
        return std::count_if(webView->scripts.begin(), webView->scripts.end(),
                             [&](const std::string& script) { return script.starts_with(start); });
    }

    // Plays the owner's and the device's part once: authenticates, and gives a position to a
    // location manager that is waiting for one.
    void playDevice() {
        platform.mainQueue->runUntilIdle();
        if (!authentication->contexts.empty() && authentication->contexts.back()->pending) authentication->reply(true);
        for (const auto& manager : location->managers) {
            if (manager->starts > manager->stops) controller->didUpdateLocations({{24.4539, 54.3773}});
        }
    }

    // Posts, plays the device, and waits for `count` answers of `name` in all.
    bool postAndAwait(const std::string& name, const Json& body, std::size_t count) {
        post(name, body);
        playDevice();
        bool arrived = platform.mainQueue->runUntil([&] { return answers(name) >= count; });
        platform.mainQueue->runUntilIdle();
        return arrived && answers(name) == count;
    }

    // What the event needs stored on the device before it runs.
    void prepare(const Json& entry) {
        if (entry["needs"].is_null()) return;
        const std::string needed = entry["needs"];
        ASSERT_TRUE(postAndAwait(needed, kitEvent(needed)["sample"], answers(needed) + 1));
    }

    std::shared_ptr<fakes::FakeHTTP> http = std::make_shared<fakes::FakeHTTP>();
};

TEST_P(BridgeContract, SampleIsAnsweredOnceAndEachBrokenBodyEndsAsTheTableSays) {
    const Events event = GetParam();
    const std::string name(eventName(event));
    const Json& entry = kitEvent(name);
    ASSERT_TRUE(entry.is_object()) << name << " is not in the kit's table";
    EXPECT_EQ(entry["index"], static_cast<int>(event));
    EXPECT_TRUE(entry["sampleError"].is_null()) << entry["sampleError"];
    const bool answered = event != Events::success && event != Events::failure;
    EXPECT_EQ(entry["answers"], answered);

    prepare(entry);
    // An ignored body may be anything, an object or not.
    std::vector<Json> good{entry["sample"]};
    if (entry["body"] == "ignored") good.push_back(Json("not an object"));
    for (const Json& body : good) {
        if (answered) {
            EXPECT_TRUE(postAndAwait(name, body, answers(name) + 1)) << body;
        } else {
            post(name, body);
            ASSERT_FALSE(delegate->calls().empty());
            EXPECT_EQ(delegate->calls().back(), "onClosed:TranscationCompleted");
        }
    }

    const std::string verifySample = kitEvent("verifyBiometric")["sample"].dump();
    for (const Json& violation : entry["violations"]) {
        const std::string expect = violation["expect"];
        const Json& body = violation["body"];
        SCOPED_TRACE(violation["kind"].get<std::string>() + " " + violation["path"].get<std::string>() + " -> " + expect);
        EXPECT_TRUE(violation["kitError"].is_string()) << "the kit lets this body through";
        if (expect == "fatal") {
            EXPECT_DEATH(post(name, body), "Fatal error: ");
        } else if (expect == "fatalAfterAuthentication") {
            EXPECT_DEATH({ post(name, body); playDevice(); }, "Fatal error: ");
        } else if (expect == "fatalAtVerifyBiometric") {
            ASSERT_TRUE(postAndAwait(name, body, answers(name) + 1));
            EXPECT_DEATH({ post("verifyBiometric", Json::parse(verifySample)); playDevice(); }, "Fatal error: ");
        } else if (expect == "twoAnswers") {
            const std::size_t before = answers(name);
            ASSERT_TRUE(postAndAwait(name, body, before + 2));
            auto first = webView->scripts[webView->scripts.size() - 2];
            EXPECT_NE(first.find(R"("errorCodes":["jsMissingFields"])"), std::string::npos) << first;
        } else if (expect == "accepted") {
            EXPECT_TRUE(postAndAwait(name, body, answers(name) + 1));
        } else {
            ADD_FAILURE() << "the kit's table names no known outcome: " << expect;
        }
    }
}

INSTANTIATE_TEST_SUITE_P(BridgeContract, BridgeContract, ::testing::ValuesIn(allValues()),
                         [](const auto& info) { return std::string(eventName(info.param)); });

// ---- The sandbox against the library's roads ----

class BridgeContractSandbox : public ::testing::Test {
protected:
    BridgeContractSandbox() {
        platform.viewSystem->installRoot();
        auto line = sandbox.waitForLine("Kelvane sandbox listening on http://");
        if (line) origin = line->substr(line->find("http://"));
    }
    ~BridgeContractSandbox() override {
        WebSocketService().dispose();
        platform.mainQueue->runUntilIdle();
        sandbox.signal(SIGTERM);
    }

    Json mint(const std::string& options) {
        return json::parse(run("node " + kSandbox + "/mint.js --sandbox " + origin + " " + options)).value_or(Json());
    }

    // A request to the sandbox through the library's own HTTP; the answer's status and JSON.
    std::pair<int, Json> request(const std::string& method, const std::string& path, std::optional<std::string> body = {}) {
        struct Answer {
            std::mutex mutex;
            std::optional<std::pair<int, Json>> value;
        };
        auto answer = std::make_shared<Answer>();
        ports::http()->dataTask(
            {*URL::make(origin + path), method, {{"Content-Type", "application/json"}}, std::move(body), 10.0},
            [answer](std::optional<std::string> data, std::optional<platform::HTTPResponse> response, auto) {
                std::lock_guard lock(answer->mutex);
                answer->value = std::pair{response ? response->statusCode : 0, json::parse(data.value_or("")).value_or(Json())};
            });
        auto taken = [answer] {
            std::lock_guard lock(answer->mutex);
            return answer->value;
        };
        platform.mainQueue->runUntil([&] { return taken().has_value(); });
        return taken().value_or(std::pair{0, Json()});
    }
    Json record(const std::string& id) { return request("GET", "/api/transactions/" + id).second; }

    std::shared_ptr<fakes::FakeWebView> webView() const {
        return platform.webViews->made.empty() ? nullptr : platform.webViews->made.back();
    }
    bool waitFor(const std::function<bool()>& done) { return platform.mainQueue->runUntil(done); }
    bool delegateHeard(const std::string& call) {
        auto calls = delegate->calls();
        return std::find(calls.begin(), calls.end(), call) != calls.end();
    }
    // A line of the sandbox's log holding every one of `parts`.
    bool logged(std::initializer_list<std::string> parts) {
        return sandbox
            .waitForLine([&](const std::string& line) {
                return std::all_of(parts.begin(), parts.end(), [&](const auto& part) { return line.find(part) != std::string::npos; });
            })
            .has_value();
    }

    fakes::FakePlatform platform;
    fakes::LogCapture log;
    PeerProcess sandbox{"../../sandbox/server.js", {"--port", "0", "--lifetime", "60"}, std::chrono::milliseconds(0)};
    std::string origin;
    std::shared_ptr<fakes::RecordingDelegate> delegate = std::make_shared<fakes::RecordingDelegate>();
    std::shared_ptr<KelvaneApp> app = std::make_shared<KelvaneApp>();
};

TEST_F(BridgeContractSandbox, TheSealedPushOpensAndThePagesOutcomeReachesTheHostOnTheStatusSocket) {
    ASSERT_FALSE(origin.empty());
    Json minted = mint("--auto");
    const std::string id = minted["id"], requestId = minted["requestId"], authReqId = minted["authReqId"];
    const std::string key = minted["encryptionKey"];
    Json sealed = Json::parse(minted["pushEncrypted"]["payload"].get<std::string>());
    EXPECT_EQ(sealed["isEncrypted"], 1);
    auto opened = EncryptService().decryptPushWithAes(key, sealed["data"].get<std::string>());
    ASSERT_TRUE(opened);
    EXPECT_EQ(Json::parse(*opened), minted["transaction"]);

    // The library's whole road: decrypt, connect with the chatcode, report the start, load.
    app->onPushReceived(minted["pushEncrypted"], delegate, key);
    ASSERT_TRUE(waitFor([&] { return webView() && !webView()->loads.empty(); }));
    EXPECT_EQ(webView()->loads[0].url.absoluteString(), minted["transaction"]["action"]);
    Json started = record(id);
    ASSERT_EQ(started["statuses"].size(), 1u);
    EXPECT_EQ(started["statuses"][0]["name"], "started");
    ASSERT_EQ(started["sockets"].size(), 1u);
    EXPECT_EQ(started["sockets"][0]["chatcode"], requestId);
    EXPECT_EQ(started["sockets"][0]["transport"], "websocket");

    // The page's report: the sandbox emits the result, the library tells the host and reports.
    auto [status, answer] = request("POST", "/api/transactions/" + id + "/outcome", R"({"outcome":"success","steps":[]})");
    EXPECT_EQ(status, 200);
    EXPECT_EQ(answer["data"], (Json::array({{{"status", "201"}, {"auth_req_id", authReqId}}})));
    ASSERT_TRUE(waitFor([&] { return delegateHeard("onResult:" + requestId + "," + authReqId); }));
    EXPECT_TRUE(logged({"POST /status?key=" + requestId, R"({"status":"200"})"}));
    Json done = record(id);
    EXPECT_EQ(done["statuses"].back()["name"], "completed");
    EXPECT_EQ(done["resultEmitted"], true);
    EXPECT_EQ(request("POST", "/api/transactions/" + id + "/outcome", R"({"outcome":"success"})").first, 409);
}

TEST_F(BridgeContractSandbox, ARefusedSocketFailsTheFlowAndTheDeepLinkFetchesThePlainPayload) {
    ASSERT_FALSE(origin.empty());
    Json refused = mint("--refuse-socket");
    app->onPushReceived(refused["push"], delegate, std::nullopt);
    ASSERT_TRUE(waitFor([&] { return delegateHeard("onError:WebSocketConnectionFailed"); }));
    Json sockets = record(refused["id"])["sockets"];
    ASSERT_FALSE(sockets.empty());
    EXPECT_EQ(sockets[0]["refused"], true);
    EXPECT_EQ(sockets[0]["chatcode"], refused["requestId"]);

    Json linked = mint("");
    app->onDeeplinkRequest(delegate, linked["deeplink"]);
    ASSERT_TRUE(waitFor([&] {
        auto calls = delegate->calls();
        return std::any_of(calls.begin(), calls.end(), [](const auto& call) { return call.starts_with("onTransactionRequest:"); });
    }));
    auto calls = delegate->calls();
    auto fetched = std::find_if(calls.begin(), calls.end(), [](const auto& call) { return call.starts_with("onTransactionRequest:"); });
    Json payload = Json::parse(fetched->substr(std::string("onTransactionRequest:").size()));
    EXPECT_EQ(Json::parse(payload["payload"].get<std::string>()), Json::parse(linked["push"]["payload"].get<std::string>()));
    EXPECT_TRUE(logged({"GET /payload/" + linked["id"].get<std::string>() + "/sandbox", "-> 200", "Bearer at_"}));
}

}  // namespace
