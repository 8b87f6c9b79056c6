#include "FlowFixture.hpp"

#include <thread>

using namespace kelvane;
using kelvane::testing::FlowFixture;
using platform::NavigationActionPolicy;
using Policy = platform::NavigationActionPolicy;

namespace {

const std::string kHandOff = "uaepass://digitalid/auth?successurl=https://a.test/ok&failureurl=https://a.test/no";
const std::string kPlain = "https://page.test/next";

class NavigationPolicy : public FlowFixture {
protected:
    // The decisions for one navigation, none of them made inside the delegate call.
    std::vector<Policy> decide(std::optional<std::string> url, bool hasTargetFrame) {
        auto decisions = std::make_shared<std::vector<Policy>>();
        platform::NavigationAction action{url ? URL::make(*url) : std::nullopt, hasTargetFrame};
        controller->decidePolicy(*webView, action, [decisions](Policy policy) { decisions->push_back(policy); });
        EXPECT_TRUE(decisions->empty());
        platform.mainQueue->runUntilIdle();
        return *decisions;
    }

    std::shared_ptr<kelvane::testing::ObservedWebViewController> controller = show();
    std::shared_ptr<fakes::FakeWebView> webView = webViewOf(controller);
    std::string appToAppUri = CustomSchemeService().preprocessUri(URL::make(kHandOff))->appToAppUri.absoluteString();
};

using Opened = std::vector<std::string>;

}  // namespace

TEST_F(NavigationPolicy, OrdinaryNavigationsStayUnlessTheyWantANewWindow) {
    EXPECT_EQ(decide(std::nullopt, true), std::vector{Policy::allow});
    EXPECT_EQ(decide(std::nullopt, false), std::vector{Policy::allow});
    EXPECT_EQ(decide(kPlain, true), std::vector{Policy::allow});
    EXPECT_EQ(decide("ftp://odd.test/x.pdf", true), std::vector{Policy::allow});
    EXPECT_TRUE(platform.urlOpener->asked.empty());
    EXPECT_TRUE(platform.urlOpener->opened.empty());

    EXPECT_EQ(decide(kPlain, false), std::vector{Policy::cancel});
    EXPECT_EQ(platform.urlOpener->opened, Opened{kPlain});
    EXPECT_TRUE(platform.urlOpener->asked.empty());
}

TEST_F(NavigationPolicy, AHandOffAnAppTakesIsCancelledOnlyWhenItOpened) {
    platform.urlOpener->openable = {appToAppUri};
    EXPECT_EQ(decide(kHandOff, true), std::vector{Policy::cancel});
    EXPECT_TRUE(log.contains("custom url is called " + kHandOff));
    platform.urlOpener->opens = false;
    EXPECT_EQ(decide(kHandOff, false), std::vector{Policy::allow});
    EXPECT_EQ(platform.urlOpener->asked, (Opened{appToAppUri, appToAppUri}));
    EXPECT_EQ(platform.urlOpener->opened, (Opened{appToAppUri, appToAppUri}));
}

TEST_F(NavigationPolicy, AHandOffNoAppTakesGoesOnAsAnOrdinaryNavigation) {
    EXPECT_EQ(decide(kHandOff, true), std::vector{Policy::allow});
    EXPECT_TRUE(platform.urlOpener->opened.empty());
    EXPECT_EQ(decide(kHandOff, false), std::vector{Policy::cancel});
    EXPECT_EQ(platform.urlOpener->opened, Opened{kHandOff});
    EXPECT_EQ(platform.urlOpener->asked, (Opened{appToAppUri, appToAppUri}));
}

TEST_F(NavigationPolicy, TheOpenersCompletionDecidesOnceFromItsOwnThread) {
    platform.urlOpener->openable = {appToAppUri};
    platform.urlOpener->holdOpens = true;
    EXPECT_TRUE(decide(kHandOff, true).empty());
    auto decisions = std::make_shared<std::vector<Policy>>();
    platform::NavigationAction action{URL::make(kHandOff), true};
    controller->decidePolicy(*webView, action, [decisions](Policy policy) { decisions->push_back(policy); });
    platform.mainQueue->runUntilIdle();
    ASSERT_EQ(platform.urlOpener->heldCompletions.size(), 2u);
    std::thread([&] { platform.urlOpener->heldCompletions[1](true); }).join();
    EXPECT_EQ(*decisions, std::vector{Policy::cancel});
    EXPECT_EQ(platform.mainQueue->pendingCount(), 0u);
}

TEST_F(NavigationPolicy, TheIndicatorFollowsNavigationsAndALateFailureClosesNothing) {
    auto indicator = std::static_pointer_cast<fakes::FakeActivityIndicator>(controller->loadingIndicator);
    controller->didStartProvisionalNavigation(*webView);
    EXPECT_TRUE(indicator->animating);
    EXPECT_TRUE(log.contains("-----------New web View open-----------------"));
    controller->didFinishNavigation(*webView);
    EXPECT_FALSE(indicator->animating);
    controller->didStartProvisionalNavigation(*webView);
    controller->didFailNavigation(*webView, Error{platform::kURLErrorDomain, -1001, "timed out"});
    EXPECT_FALSE(indicator->animating);
    EXPECT_TRUE(delegate->calls().empty());
}

TEST_F(NavigationPolicy, AFailedLoadOfURLLoadingEndsTheTransactionErrorFirst) {
    controller->didFailProvisionalNavigation(*webView, Error{platform::kURLErrorDomain, -999, "cancelled"});
    EXPECT_EQ(delegate->calls(), (std::vector<std::string>{"onError:ConnectionError", "onClosed:TranscationCompleted"}));
    EXPECT_EQ(webView->stopLoadingCount, 1);
    EXPECT_EQ(platform.viewSystem->dismissals.size(), 1u);
    EXPECT_TRUE(log.contains(R"(NsError : Error Domain=NSURLErrorDomain Code=-999 "cancelled")"));
    // The custom-scheme subscription ended with the flow.
    CustomSchemeSingleton::shared().sendData(freshReturnURL());
    EXPECT_TRUE(webView->loads.empty());
}

TEST_F(NavigationPolicy, AFailureOfAnotherDomainLeavesTheFlowRunning) {
    auto indicator = std::static_pointer_cast<fakes::FakeActivityIndicator>(controller->loadingIndicator);
    controller->didStartProvisionalNavigation(*webView);
    controller->didFailProvisionalNavigation(*webView, Error{"WebKitErrorDomain", 102, "Frame load interrupted"});
    EXPECT_TRUE(delegate->calls().empty());
    EXPECT_TRUE(indicator->animating);
    EXPECT_TRUE(platform.viewSystem->dismissals.empty());
}

TEST_F(NavigationPolicy, ARedirectLogsTheConnectionsTrustWhenThereIsOne) {
    controller->didReceiveServerRedirectForProvisionalNavigation(*webView);
    webView->trust = "trust of page.test";
    controller->didReceiveServerRedirectForProvisionalNavigation(*webView);
    auto lines = log.lines();
    EXPECT_EQ(std::count_if(lines.begin(), lines.end(), [](const auto& l) { return l.starts_with("Server Trust"); }),
              1);
    EXPECT_TRUE(log.contains("Server Trust : trust of page.test"));
}
