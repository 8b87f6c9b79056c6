// The push road from the host's call to the page address, through the public operations.
#include "FlowFixture.hpp"
#include "TestTools.hpp"
#include "support/Base64.hpp"

using namespace kelvane;
using kelvane::testing::FlowFixture;

namespace {

const std::string kKeyHex = "2b7e151628aed2a6abf7158809cf4f3c";
const std::vector<std::string> kNothing;

// The AES key as hosts hold it (unpadded base64) and a payload sealed by the command line.
const std::string& hostKey() {
    static const std::string key = [] {
        std::string text = kelvane::testing::run("printf '%s' " + kKeyHex + " | xxd -r -p | openssl base64 -A");
        while (!text.empty() && text.back() == '=') text.pop_back();
        return text;
    }();
    return key;
}

std::string seal(const std::string& plain) {
    kelvane::testing::TempDir dir;
    kelvane::testing::writeFile(dir / "plain", plain);
    return kelvane::testing::run("openssl enc -aes-128-ecb -K " + kKeyHex + " -nosalt -in " + dir / "plain" +
                                 " | openssl base64 -A");
}

Json changed(Json value, const std::string& key, const Json& replacement) {
    value[key] = replacement;
    return value;
}

Json encryptedPayload(int isEncrypted, const Json& data) {
    return Json{{"version", 1}, {"id", "kn_auth"}, {"isEncrypted", isEncrypted}, {"data", data}};
}

class PushRoad : public FlowFixture {
protected:
    std::vector<std::string> closedThenError(const std::string& status) {
        return {"onClosed:TranscationCompleted", "onError:" + status};
    }

    // Whether the flow still listens for a custom-scheme return: the first value loads.
    bool stillListening(const std::shared_ptr<WebViewController>& controller) {
        auto webView = std::static_pointer_cast<fakes::FakeWebView>(controller->webView);
        auto before = webView->loads.size();
        CustomSchemeSingleton::shared().sendData(freshReturnURL());
        return webView->loads.size() == before + 1;
    }

    void expectClosedFlow(const std::shared_ptr<WebViewController>& controller) {
        auto webView = std::static_pointer_cast<fakes::FakeWebView>(controller->webView);
        EXPECT_EQ(webView->stopLoadingCount, 1);
        ASSERT_EQ(platform.viewSystem->dismissals.size(), 1u);
        EXPECT_EQ(platform.viewSystem->dismissals[0].controller, root.get());
        EXPECT_TRUE(controllers.back()->loadedPages.empty());
    }
};

}  // namespace

TEST_F(PushRoad, APlainTransactionReachesThePageAddressWithItsSocket) {
    push(message(plainPayload()));
    ASSERT_EQ(controllers.size(), 1u);
    auto& controller = controllers[0];
    EXPECT_EQ(controller->loadedPages, std::vector<std::string>{"https://page.test/t/1"});
    EXPECT_EQ(controller->socketData, (SocketData{"wss://socket.test", "req-1"}));
    EXPECT_EQ(controller->kelvaneService, delegate);
    EXPECT_EQ(delegate->calls(), kNothing);
    EXPECT_EQ(connection->disconnects, 1);
    ASSERT_EQ(platform.viewSystem->shown.size(), 1u);
    EXPECT_EQ(platform.viewSystem->shown[0].how, "present");
    EXPECT_EQ(platform.viewSystem->shown[0].on, root.get());
    EXPECT_TRUE(platform.viewSystem->shown[0].animated);
    EXPECT_TRUE(controller->isModalInPresentation);
    EXPECT_TRUE(controller->loadingIndicator->isAnimating());
}

TEST_F(PushRoad, EncryptedTransactionsOpenWithTheHostKeyForAnyNonZeroFlag) {
    std::string sealed = seal(transaction("https://page.test/sealed").dump());
    push(message(encryptedPayload(1, sealed)), hostKey());
    push(message(encryptedPayload(2, sealed)), hostKey());
    ASSERT_EQ(controllers.size(), 2u);
    for (auto& controller : controllers) {
        EXPECT_EQ(controller->loadedPages, std::vector<std::string>{"https://page.test/sealed"});
        EXPECT_EQ(controller->encryptionKey, hostKey());
    }
    EXPECT_EQ(delegate->calls(), kNothing);
}

TEST_F(PushRoad, TheUpdateGateAnswersAloneAndLeavesTheSocket) {
    app->setUpdateAvailable(true);
    push(message(plainPayload()));
    EXPECT_EQ(delegate->calls(), std::vector<std::string>{"onError:appUpdateRequired"});
    EXPECT_EQ(connection->disconnects, 0);
    EXPECT_TRUE(platform.viewSystem->shown.empty());
}

TEST_F(PushRoad, MalformedMessagesAreOnlyLoggedButStillEndTheSocket) {
    std::vector<Json> messages{
        Json::object(),
        Json{{"payload", plainPayload()}},  // an object, not its text
        Json{{"payload", "{not json"}},
        Json{{"payload", "[1,2]"}},
        message(Json{{"id", 7}}),
        message(Json{{"version", 1}}),
        Json::array({"payload"}),
    };
    int expectedDisconnects = 0;
    for (const auto& data : messages) {
        connection->install();
        push(data);
        EXPECT_EQ(connection->disconnects, ++expectedDisconnects) << data.dump();
        EXPECT_EQ(log.lines().back(), "Error parsing JSON") << data.dump();
    }
    EXPECT_EQ(delegate->calls(), kNothing);
    EXPECT_TRUE(platform.viewSystem->shown.empty());
}

TEST_F(PushRoad, AnotherIdIsAMismatchWithoutAFlow) {
    push(message(changed(plainPayload(), "id", "KN_AUTH")));
    EXPECT_EQ(delegate->calls(), std::vector<std::string>{"onError:IdMismatch"});
    EXPECT_TRUE(platform.viewSystem->shown.empty());
    EXPECT_EQ(connection->disconnects, 1);
}

TEST_F(PushRoad, RowOneNoPayloadClosesThenErrorsAndStopsListening) {
    auto controller = std::make_shared<WebViewController>();
    controller->storyboardIdentifier = "WebViewController";
    controller->kelvaneService = delegate;
    root->present(controller, true);
    platform.mainQueue->runUntilIdle();
    EXPECT_EQ(delegate->calls(), closedThenError("InvalidPayload"));
    EXPECT_FALSE(stillListening(controller));
}

TEST_F(PushRoad, RowTwoAMissingOrTextualFlagKeepsListening) {
    push(message(changed(plainPayload(), "isEncrypted", "0")));
    EXPECT_EQ(delegate->calls(), closedThenError("MissingEncryptionKey"));
    expectClosedFlow(controllers.back());
    EXPECT_TRUE(stillListening(controllers.back()));

    Json noFlag = plainPayload();
    noFlag.erase("isEncrypted");
    push(message(noFlag));
    EXPECT_EQ(delegate->calls().size(), 4u);
    EXPECT_TRUE(stillListening(controllers.back()));
}

TEST_F(PushRoad, RowThreePlainDataThatIsNoObject) {
    push(message(plainPayload("a text")));
    EXPECT_EQ(delegate->calls(), closedThenError("MissingEncryptionKey"));
    expectClosedFlow(controllers.back());
    EXPECT_TRUE(stillListening(controllers.back()));
}

TEST_F(PushRoad, RowFourEncryptedWithoutAKeyStopsListening) {
    push(message(encryptedPayload(1, seal(transaction().dump()))));
    EXPECT_EQ(delegate->calls(), closedThenError("MissingEncryptionKey"));
    expectClosedFlow(controllers.back());
    EXPECT_FALSE(stillListening(controllers.back()));
}

TEST_F(PushRoad, RowFiveEveryDecryptionFailureReadsAsAMissingKey) {
    std::vector<std::pair<Json, std::string>> cases{
        {encryptedPayload(1, transaction()), hostKey()},                        // data is an object
        {encryptedPayload(1, "not base64!"), hostKey()},                        // bad ciphertext
        {encryptedPayload(1, seal(transaction().dump())), ""},                  // empty key: not row four
        {encryptedPayload(1, seal("[1,2]")), hostKey()},                        // not an object
        {encryptedPayload(1, seal(transaction().dump())), hostKey() + "AA"},    // wrong key size
    };
    for (const auto& [payload, key] : cases) {
        push(message(payload), key);
        EXPECT_TRUE(stillListening(controllers.back())) << payload.dump();
    }
    auto calls = delegate->calls();
    ASSERT_EQ(calls.size(), 2 * cases.size());
    for (std::size_t i = 0; i < calls.size(); i += 2) {
        EXPECT_EQ(calls[i], "onClosed:TranscationCompleted");
        EXPECT_EQ(calls[i + 1], "onError:MissingEncryptionKey");
    }
}

TEST_F(PushRoad, IncompleteTransactionsEndSilentlyWithTheIndicatorRunning) {
    Json noAction = transaction();
    noAction.erase("action");
    Json noSocket = transaction();
    noSocket.erase("socket");
    Json socketNotObject = changed(transaction(), "socket", "wss://socket.test");
    Json noURL = transaction();
    noURL["socket"].erase("url");
    for (const auto& data : {noAction, noSocket, socketNotObject, noURL}) {
        push(message(plainPayload(data)));
        auto& controller = controllers.back();
        EXPECT_TRUE(controller->loadedPages.empty());
        EXPECT_FALSE(controller->socketData);
        EXPECT_TRUE(controller->loadingIndicator->isAnimating());
    }
    EXPECT_EQ(delegate->calls(), kNothing);
    EXPECT_TRUE(platform.viewSystem->dismissals.empty());
}

TEST_F(PushRoad, TheSameMessageTwiceOpensTwoFlows) {
    push(message(plainPayload()));
    push(message(plainPayload()));
    EXPECT_EQ(controllers.size(), 2u);
    EXPECT_EQ(platform.viewSystem->shown.size(), 2u);
    EXPECT_EQ(connection->disconnects, 1) << "the second dispose finds no connection";
}

TEST_F(PushRoad, AFlowOnANavigationStackIsPushedOrElseNothingIsShown) {
    auto navigation = std::make_shared<NavigationController>();
    platform.viewSystem->setNavigation(*app, navigation);
    push(message(plainPayload()));
    ASSERT_EQ(platform.viewSystem->shown.size(), 1u);
    EXPECT_EQ(platform.viewSystem->shown[0].how, "push");
    EXPECT_EQ(platform.viewSystem->shown[0].on, navigation.get());

    platform.viewSystem->setNavigation(*app, nullptr);
    platform.viewSystem->scenes.clear();
    platform.viewSystem->allWindows.clear();
    push(message(plainPayload()));
    EXPECT_EQ(platform.viewSystem->shown.size(), 1u);
    EXPECT_EQ(delegate->calls(), kNothing);
}

using PushRoadDeathTest = PushRoad;

TEST_F(PushRoadDeathTest, ASocketWithoutRequestIdStopsTheProcess) {
    Json noRequestId = transaction();
    noRequestId["socket"].erase("requestId");
    EXPECT_DEATH(push(message(plainPayload(noRequestId))),
                 "Fatal error: Unexpectedly found nil while unwrapping an Optional value");
}

TEST_F(PushRoadDeathTest, AFlowSceneOfAnotherClassStopsTheProcess) {
    Storyboard::replaceScene("WebViewController", [] { return std::make_shared<ViewController>(); });
    EXPECT_DEATH(push(message(plainPayload())),
                 "Fatal error: Could not cast value of type 'UIViewController' to 'WebViewController'");
}
