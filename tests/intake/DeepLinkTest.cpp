// The link roads: the clipboard at start-up, the query walk and the fetch's outcomes over
// FakeHTTP, and a return link in the host's scheme.
#include "FlowFixture.hpp"

using namespace kelvane;
using kelvane::testing::FlowFixture;

namespace {

const std::string kMissing = "One or more required parameters mislsing";

class DeepLink : public FlowFixture {
protected:
    long logged(const std::string& line) {
        auto lines = log.lines();
        return std::count(lines.begin(), lines.end(), line);
    }
    // The addresses fetched so far.
    std::vector<std::string> fetched() {
        std::vector<std::string> urls;
        for (const auto& request : http->requests()) urls.push_back(request.url.absoluteString());
        return urls;
    }

    const std::string keys = "base_url=https%3A%2F%2Fapi.test&action_token=tok&realm_id=r";
};

}  // namespace

TEST_F(DeepLink, TheClipboardGivesOnlyHttpsLinksWithTheWordAndOnlyOnce) {
    app->sdkInit(delegate, false);
    EXPECT_TRUE(log.lines().empty());
    for (std::string text :
         {"http://l.test/deeplink?id=1", "HTTPS://l.test/deeplink?id=1", "https://l.test/Deeplink"}) {
        platform.pasteboard->text = text;
        app->sdkInit(delegate, false);
        EXPECT_EQ(platform.pasteboard->text, text);
        EXPECT_EQ(log.lines().back(), "Clipboard data: " + text);
    }
    platform.pasteboard->text = "https://l.test/deeplink?id=1";
    app->sdkInit(delegate, false);
    EXPECT_EQ(platform.pasteboard->text, "");
    EXPECT_EQ(log.lines().back(), kMissing);
    EXPECT_TRUE(fetched().empty());
    EXPECT_TRUE(delegate->calls().empty());
}

TEST_F(DeepLink, TheQueryWalkNamesTheTransactionAndTheFetchAnswersTheHost) {
    http->data = R"({"b":"x/y"})";
    for (const auto& link : {"https://l.test/deeplink?id=1&" + keys + "&extra=x",
                             "https://l.test/deeplink?id=1&" + keys + "&id=2",
                             "https://l.test/deeplink?id=&" + keys,
                             "https://l.test/deeplink?id=1&id&" + keys,
                             "https://l.test/deeplink?ID=1&" + keys,
                             std::string("https://l.test/deeplink"), std::string("no link at all")}) {
        app->onDeeplinkRequest(delegate, link);
    }
    EXPECT_EQ(fetched(),
              (std::vector<std::string>{"https://api.test/1/r", "https://api.test/2/r", "https://api.test//r"}));
    EXPECT_EQ(logged(kMissing), 2);
    EXPECT_EQ(http->requests()[0].headers[1], (std::pair<std::string, std::string>{"Authorization", "Bearer tok"}));
    const std::string answer = R"(onTransactionRequest:{"payload":"{\n  \"b\" : \"x\\/y\"\n}"})";
    EXPECT_EQ(delegate->calls(), std::vector<std::string>(3, answer));
    EXPECT_EQ(logged(R"(Payload: {"payload":"{\n  \"b\" : \"x\\/y\"\n}"})"), 3);

    http->error = Error{"NSURLErrorDomain", -1004, "Could not connect to the server."};
    app->onDeeplinkRequest(delegate, "https://l.test/deeplink?id=1&" + keys);
    EXPECT_EQ(delegate->calls().back(),
              R"(onError:Error Domain=NSURLErrorDomain Code=-1004 "Could not connect to the server.")");
    EXPECT_EQ(log.lines().back(), "Error: Could not connect to the server.");
}

TEST_F(DeepLink, AReturnLinkInTheHostsSchemeReachesTheOpenFlowOnce) {
    auto controller = show();
    std::string page = freshReturnURL();
    std::string link =
        "com.test.app://uaepass/success?url=" + *addingPercentEncoding(page, URLCharacterSet::alphanumerics);
    for (const auto& text : {"com.test.apps://uaepass/success?url=https%3A%2F%2Fother.test",
                             "com.test.app://uaepass/success", link.c_str(), link.c_str()}) {
        app->onDeeplinkRequest(delegate, text);
    }
    auto loads = webViewOf(controller)->loads;
    ASSERT_EQ(loads.size(), 1u);
    EXPECT_EQ(loads[0].url.absoluteString(), page);
    EXPECT_EQ(logged(kMissing), 3);
    EXPECT_TRUE(fetched().empty());
}
