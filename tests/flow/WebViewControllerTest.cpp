#include "FlowFixture.hpp"

#include "flow/Events.hpp"

#include <kelvane/AlertController.hpp>

using namespace kelvane;
using kelvane::testing::FlowFixture;
using kelvane::testing::ObservedWebViewController;

using WebViewControllerTest = FlowFixture;

TEST_F(WebViewControllerTest, AppearanceBuildsAWebViewWithOneHandlerPerEvent) {
    auto controller = show();
    auto webView = webViewOf(controller);
    ASSERT_TRUE(webView);
    const auto& configuration = webView->configuration;
    EXPECT_TRUE(configuration.allowsInlineMediaPlayback);
    EXPECT_TRUE(configuration.allowsAirPlayForMediaPlayback);
    EXPECT_TRUE(configuration.allowsPictureInPictureMediaPlayback);
    EXPECT_EQ(configuration.mediaTypesRequiringUserActionForPlayback, platform::WebViewConfiguration::none);
    ASSERT_EQ(configuration.userContentController.handlers.size(), 21u);
    for (std::size_t i = 0; i < 21; ++i) {
        EXPECT_EQ(configuration.userContentController.handlers[i].first, eventName(allValues()[i]));
        EXPECT_EQ(configuration.userContentController.handlers[i].second.lock(), controller);
    }
    EXPECT_EQ(webView->frame, controller->view()->bounds());
    EXPECT_EQ(webView->uiDelegate.lock(), controller);

    auto indicator = std::static_pointer_cast<fakes::FakeActivityIndicator>(controller->loadingIndicator);
    EXPECT_EQ(indicator->style, platform::ActivityIndicatorStyle::medium);
    EXPECT_EQ(indicator->centerPoint, webView->center());
    EXPECT_TRUE(indicator->hidesWhenStopped);
    EXPECT_EQ(indicator->color, platform::Color::black());
    EXPECT_EQ(webView->rootView->subviews.back(), controller->loadingIndicator);
}

TEST_F(WebViewControllerTest, EachAppearanceBuildsAnotherWebViewAndRunsTheIntakeAgain) {
    auto controller = show();
    platform.viewSystem->appearAgain(controller);
    platform.mainQueue->runUntilIdle();
    auto appWeb = platform.viewSystem->appWebOutlets.at(controller.get());
    EXPECT_EQ(appWeb->subviews.size(), 2u);
    EXPECT_EQ(platform.webViews->made.size(), 2u);
    EXPECT_EQ(controller->loadedPages.size(), 2u);
}

TEST_F(WebViewControllerTest, OnlyTheFirstReturnedURLLoadsAndOnlyWhileListening) {
    auto controller = show();
    auto webView = webViewOf(controller);
    std::string first = freshReturnURL();
    CustomSchemeSingleton::shared().sendData(first);
    CustomSchemeSingleton::shared().sendData(freshReturnURL());
    ASSERT_EQ(webView->loads.size(), 1u);
    EXPECT_EQ(webView->loads[0].url.absoluteString(), first);
    EXPECT_EQ(webView->loads[0].timeoutInterval, 60.0);
    EXPECT_EQ(webView->loads[0].cachePolicy, platform::URLRequest::CachePolicy::useProtocolCachePolicy);

    auto other = show();
    other->stopListening();
    CustomSchemeSingleton::shared().sendData(freshReturnURL());
    EXPECT_TRUE(webViewOf(other)->loads.empty());
}

TEST_F(WebViewControllerTest, LoadURLLogsWhatItCannotLoad) {
    auto unshown = std::make_shared<WebViewController>();
    unshown->loadURL("https://a.test/x");
    EXPECT_EQ(log.lines().back(), "Error: webView is nil");
    unshown->loadURL("not a url");
    EXPECT_EQ(log.lines().back(), "Invalid URL: not a url");
}

TEST_F(WebViewControllerTest, CustomDismissClosesThenDismissesTheFirstWindowsRoot) {
    auto controller = show();
    controller->customDismiss(CloseReason::ByUser, delegate);
    EXPECT_EQ(delegate->calls(), std::vector<std::string>{"onClosed:ByUser"});
    EXPECT_EQ(webViewOf(controller)->stopLoadingCount, 1);
    ASSERT_EQ(platform.viewSystem->dismissals.size(), 1u);
    EXPECT_EQ(platform.viewSystem->dismissals[0].controller, root.get());
    EXPECT_TRUE(platform.viewSystem->dismissals[0].animated);
}

TEST_F(WebViewControllerTest, CustomDismissWithoutAWindowSceneDismissesTheFlowItself) {
    auto controller = show();
    platform.viewSystem->scenes.clear();
    controller->customDismiss(CloseReason::TranscationCompleted, delegate);
    ASSERT_EQ(platform.viewSystem->dismissals.size(), 1u);
    EXPECT_EQ(platform.viewSystem->dismissals[0].controller, controller.get());
}

TEST_F(WebViewControllerTest, TheExitButtonAsksAndOnlyOKReportsAndCloses) {
    auto controller = show();
    auto webView = webViewOf(controller);
    connection->disconnects = 0;
    connection->install();
    auto exitAndTap = [&](std::size_t action) {
        controller->performAction("exit");
        auto alert = std::dynamic_pointer_cast<AlertController>(platform.viewSystem->shown.back().controller);
        EXPECT_EQ(platform.viewSystem->shown.back().on, controller.get());
        alert->tap(action);
        return alert;
    };
    auto alert = exitAndTap(1);
    EXPECT_EQ(alert->title, "Cancel Transaction");
    EXPECT_EQ(alert->message, "Do you wish to cancel current transaction");
    EXPECT_EQ(alert->preferredStyle, AlertController::Style::alert);
    ASSERT_EQ(alert->actions.size(), 2u);
    EXPECT_EQ(alert->actions[0].title, "OK");
    EXPECT_EQ(alert->actions[1].title, "CANCEL");
    EXPECT_TRUE(delegate->calls().empty());
    EXPECT_TRUE(http->requests().empty());

    exitAndTap(0);
    EXPECT_EQ(delegate->calls(), std::vector<std::string>{"onClosed:ByUser"});
    auto requests = http->requests();
    ASSERT_EQ(requests.size(), 1u);
    EXPECT_EQ(requests[0].method, "POST");
    EXPECT_EQ(requests[0].url.absoluteString(), "wss://socket.test/status?key=req-1");
    EXPECT_EQ(requests[0].body, R"({"status":"403"})");
    EXPECT_EQ(webView->stopLoadingCount, 1);
    // The socket stays until the next transaction.
    EXPECT_EQ(connection->disconnects, 0);
    CustomSchemeSingleton::shared().sendData(freshReturnURL());
    EXPECT_TRUE(webView->loads.empty());
}

TEST_F(WebViewControllerTest, ExitOfAStalledFlowStillCloses) {
    auto controller = show();
    controller->socketData.reset();
    controller->exit();
    std::dynamic_pointer_cast<AlertController>(platform.viewSystem->shown.back().controller)->tap(0);
    EXPECT_EQ(delegate->calls(), std::vector<std::string>{"onClosed:ByUser"});
    EXPECT_TRUE(http->requests().empty());
}

TEST_F(WebViewControllerTest, CookiesGoFirstThenEachWebsiteRecordWithItsOwnTypes) {
    auto controller = show();
    platform.webViews->records = {{"page.test", {"WKWebsiteDataTypeCookies"}},
                                  {"cdn.test", {"WKWebsiteDataTypeDiskCache", "WKWebsiteDataTypeLocalStorage"}}};
    controller->cleanAllCookies();
    EXPECT_EQ(platform.webViews->storeCalls,
              (std::vector<std::string>{"removeCookies since ever", "fetchDataRecords",
                                        "removeData page.test WKWebsiteDataTypeCookies",
                                        "removeData cdn.test WKWebsiteDataTypeDiskCache WKWebsiteDataTypeLocalStorage"}));
    auto lines = log.lines();
    auto at = [&](const std::string& line) { return std::find(lines.begin(), lines.end(), line) - lines.begin(); };
    EXPECT_LT(at("All cookies deleted"), at("Cookie ::: page.test deleted"));
    EXPECT_LT(at("Cookie ::: page.test deleted"), at("Cookie ::: cdn.test deleted"));
    EXPECT_LT(at("Cookie ::: cdn.test deleted"), static_cast<long>(lines.size()));
}

TEST_F(WebViewControllerTest, DisposeWithoutAConnectionDoesNothing) {
    WebSocketService::socketManager.reset();
    WebSocketService().dispose();
    connection->install();
    WebSocketService().dispose();
    WebSocketService().dispose();
    EXPECT_EQ(connection->disconnects, 1);
}

using WebViewControllerDeathTest = WebViewControllerTest;

namespace {
// Writes its close where a death test can read it.
class StderrDelegate : public fakes::RecordingDelegate {
public:
    void onClosed(const std::string& reason) override { std::fprintf(stderr, "closed %s\n", reason.c_str()); }
};
}  // namespace

TEST_F(WebViewControllerDeathTest, DismissingWithoutAWebViewStopsAfterTellingTheHost) {
    auto service = std::make_shared<WebSocketService>();
    EXPECT_DEATH(service->customDismiss(CloseReason::TranscationCompleted, std::make_shared<StderrDelegate>()),
                 "closed TranscationCompleted\n"
                 "Fatal error: Unexpectedly found nil while implicitly unwrapping an Optional value");
}

TEST_F(WebViewControllerDeathTest, AnAppearanceWithoutTheWebContainerStops) {
    auto controller = std::make_shared<WebViewController>();
    controller->kelvaneService = delegate;
    EXPECT_DEATH(controller->viewWillAppear(false),
                 "Fatal error: Unexpectedly found nil while implicitly unwrapping an Optional value");
}
