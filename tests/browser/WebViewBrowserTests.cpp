// The web view port on a real WebKitWebView: loads and their failures, navigation decisions,
// scripts, and the website data store.

#include "DesktopFixture.hpp"

#include <thread>

using namespace kelvane;
using namespace kelvane::browser;
using Policy = platform::NavigationActionPolicy;
using Events = std::vector<std::string>;

namespace {

class WebViewTest : public DesktopTest {
protected:
    WebViewTest() {
        webView = ports()->webViews->makeWebView({0, 0, 390, 844}, {});
        webView->setNavigationDelegate(navigation);
    }

    struct Evaluated {
        bool done = false;
        std::optional<Json> result;
        std::optional<Error> error;
    };
    Evaluated evaluate(const std::string& script) {
        auto outcome = std::make_shared<Evaluated>();
        webView->evaluateJavaScript(script, [outcome](std::optional<Json> result, std::optional<Error> error) {
            *outcome = {true, std::move(result), std::move(error)};
        });
        EXPECT_TRUE(runUntil([&] { return outcome->done; })) << script;
        return *outcome;
    }

    bool loadAndFinish(const std::string& path) {
        navigation->events.clear();
        webView->load(request(path));
        return runUntil([&] { return navigation->saw("finish") || navigation->saw("fail provisional"); }) &&
               navigation->saw("finish");
    }

    std::shared_ptr<RecordingNavigation> navigation = std::make_shared<RecordingNavigation>();
    std::shared_ptr<platform::WebView> webView;
};

}  // namespace

TEST_F(WebViewTest, LoadsRedirectsAndProvisionalFailuresWithURLLoadingCodes) {
    ASSERT_TRUE(loadAndFinish("/redirect"));
    EXPECT_EQ(navigation->events, (Events{"decide /redirect", "start", "decide /check", "redirect", "finish"}));
    EXPECT_TRUE(printed("REQUEST GET /check"));

    // Nothing listens: the connection is refused.
    navigation->events.clear();
    auto refused = "http://127.0.0.1:" + std::to_string(closedPort()) + "/";
    webView->load({*URL::make(refused), platform::URLRequest::CachePolicy::useProtocolCachePolicy, 60.0});
    ASSERT_TRUE(runUntil([&] { return navigation->saw("fail provisional"); }));
    EXPECT_EQ(navigation->errors.back(),
              (Error{platform::kURLErrorDomain, -1004, "Could not connect to the server."}));

    // No answer within the request's time-out.
    navigation->events.clear();
    webView->load(request("/hang", 0.5));
    ASSERT_TRUE(runUntil([&] { return navigation->saw("fail provisional"); }));
    EXPECT_EQ(navigation->errors.back(), (Error{platform::kURLErrorDomain, -1001, "The request timed out."}));

    // Stopped by the host before an answer.
    navigation->events.clear();
    webView->load(request("/hang"));
    ASSERT_TRUE(runUntil([&] { return navigation->saw("start"); }));
    webView->stopLoading();
    ASSERT_TRUE(runUntil([&] { return navigation->saw("fail provisional"); }));
    EXPECT_EQ(navigation->errors.back(), (Error{platform::kURLErrorDomain, -999, "cancelled"}));
    EXPECT_FALSE(navigation->saw("finish"));
    // Plain HTTP has no trust to show.
    EXPECT_FALSE(webView->serverTrust());
}

TEST_F(WebViewTest, DecisionsComeOnceWithTheTargetFrameAndMayBeGivenFromAnyThread) {
    std::vector<std::function<void(Policy)>> held;
    navigation->decide = [&](const platform::NavigationAction& action, std::function<void(Policy)> handler) {
        if (action.url && action.url->path() == "/nav") {
            handler(Policy::allow);
        } else {
            held.push_back(std::move(handler));
        }
    };
    ASSERT_TRUE(loadAndFinish("/nav"));

    // A link to a new window is an action without a target frame; cancelled, it never loads.
    navigation->events.clear();
    evaluate("document.getElementById('blank').click()");
    ASSERT_TRUE(runUntil([&] { return held.size() == 1; }));
    EXPECT_EQ(navigation->events, Events{"decide new window /blank-target"});
    held[0](Policy::cancel);
    held[0](Policy::allow);  // a second answer is ignored

    // A hand-off to another app stays in the frame; cancelled, the page stays.
    evaluate("document.getElementById('handoff').click()");
    ASSERT_TRUE(runUntil([&] { return held.size() == 2; }));
    ASSERT_TRUE(navigation->actions.back().url);
    EXPECT_EQ(navigation->actions.back().url->scheme(), "uaepass");
    EXPECT_TRUE(navigation->actions.back().hasTargetFrame);
    held[1](Policy::cancel);

    // Allowed from another thread, as an opener's completion may.
    evaluate("location.href = '/check'");
    ASSERT_TRUE(runUntil([&] { return held.size() == 3; }));
    std::thread([handler = held[2]] { handler(Policy::allow); }).join();
    ASSERT_TRUE(runUntil([&] { return navigation->saw("finish"); }));
    EXPECT_TRUE(printed("REQUEST GET /check"));
    EXPECT_FALSE(printed("REQUEST GET /blank-target"));
    EXPECT_EQ(evaluate("location.pathname").result, Json("/check"));
}

TEST_F(WebViewTest, ScriptsGiveTheirValueOrTheirError) {
    ASSERT_TRUE(loadAndFinish("/check"));
    EXPECT_EQ(evaluate("1 + 1").result, Json(2));
    EXPECT_EQ(evaluate("({a: [1, 'b', null], c: {d: true}})").result, Json::parse(R"({"a":[1,"b",null],"c":{"d":true}})"));
    EXPECT_EQ(evaluate("null").result, Json(nullptr));

    auto nothing = evaluate("window.noSuchFunction = undefined; undefined");
    EXPECT_FALSE(nothing.result);
    EXPECT_FALSE(nothing.error);

    auto thrown = evaluate("iosCallback(\"copyToClipboard\" ,{\"success\":true})");
    EXPECT_FALSE(thrown.result);
    ASSERT_TRUE(thrown.error);
    EXPECT_EQ(thrown.error->domain, "WKErrorDomain");
    EXPECT_EQ(thrown.error->code, 4);
    EXPECT_NE(thrown.error->message.find("iosCallback"), std::string::npos) << thrown.error->message;
}

TEST_F(WebViewTest, TheWipeRemovesTheCookiesTheServerSet) {
    auto webViews = ports()->webViews;
    ASSERT_TRUE(loadAndFinish("/set-cookie"));
    ASSERT_TRUE(loadAndFinish("/check"));
    EXPECT_TRUE(printed(R"(REQUEST GET /check "wipe=me")"));

    std::optional<std::vector<platform::WebsiteDataRecord>> records;
    webViews->fetchDataRecords([&](auto fetched) { records = std::move(fetched); });
    ASSERT_TRUE(runUntil([&] { return records.has_value(); }));
    auto local = std::find_if(records->begin(), records->end(), [](const auto& r) { return r.displayName == "127.0.0.1"; });
    ASSERT_NE(local, records->end());
    EXPECT_NE(std::find(local->dataTypes.begin(), local->dataTypes.end(), "WKWebsiteDataTypeCookies"),
              local->dataTypes.end());

    // The flow's wipe: the shared cookies, then every record's own types.
    webViews->removeCookies(std::chrono::system_clock::time_point::min());
    std::size_t removed = 0;
    std::optional<std::size_t> wanted;
    webViews->fetchDataRecords([&](auto fetched) {
        wanted = fetched.size();
        for (const auto& record : fetched) webViews->removeData(record.dataTypes, record, [&] { ++removed; });
    });
    ASSERT_TRUE(runUntil([&] { return wanted && removed == *wanted; }));

    records.reset();
    webViews->fetchDataRecords([&](auto fetched) { records = std::move(fetched); });
    ASSERT_TRUE(runUntil([&] { return records.has_value(); }));
    for (const auto& record : *records) {
        EXPECT_EQ(std::count(record.dataTypes.begin(), record.dataTypes.end(), "WKWebsiteDataTypeCookies"), 0)
            << record.displayName;
    }
    auto requests = pages.lines().size();
    ASSERT_TRUE(loadAndFinish("/check"));
    auto lines = pages.lines();
    ASSERT_GT(lines.size(), requests);
    EXPECT_EQ(lines[requests], "REQUEST GET /check null");
}
