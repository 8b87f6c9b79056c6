#include "services/CustomSchemeService.hpp"

#include "FakePlatform.hpp"

#include <gtest/gtest.h>

#include <thread>

using namespace kelvane;

namespace {

class CustomScheme : public ::testing::Test {
protected:
    std::optional<CustomSchemeModel> pre(const std::string& text) { return service.preprocessUri(URL::make(text)); }

    static std::map<std::string, std::string> query(const URL& url) { return *queryParameters(url); }

    fakes::FakePlatform platform;
    fakes::LogCapture log;
    CustomSchemeService service;
    const std::string okLink = "uaepass://open?successurl=https%3A%2F%2Fa.test%2Fok&failureurl=https%3A%2F%2Fa.test%2Fno";
};

}  // namespace

TEST_F(CustomScheme, WrapsTheLinksInReturnsThroughTheHostScheme) {
    auto model = pre(okLink + "&keep=me");
    ASSERT_TRUE(model);
    EXPECT_EQ(model->initialUri.absoluteString(), okLink + "&keep=me");
    EXPECT_EQ(model->successLink, "https://a.test/ok");
    EXPECT_EQ(model->failureLink, "https://a.test/no");
    EXPECT_EQ(model->scheme, "uaepass");
    EXPECT_EQ(model->appToAppUri.scheme(), "uaepass");
    EXPECT_EQ(model->appToAppUri.host(), "open");
    auto parameters = query(model->appToAppUri);
    EXPECT_EQ(parameters["successurl"], "com.test.app:/uaepass/success?url=https%3A%2F%2Fa%2Etest%2Fok");
    EXPECT_EQ(parameters["failureurl"], "com.test.app:/uaepass/failure?url=https%3A%2F%2Fa%2Etest%2Fno");
    EXPECT_EQ(parameters["keep"], "me");
    EXPECT_EQ(parameters.size(), 3u);
    EXPECT_EQ(log.lines(), (std::vector<std::string>{"Pre process url called", "Success link -> https:%2F%2Fa.test%2Fok"}));
}

TEST_F(CustomScheme, TheStageMarkerAloneChoosesTheOutgoingScheme) {
    auto toStage = pre(okLink + "&x=relyingParty%3Dsandbox_stage");
    ASSERT_TRUE(toStage);
    EXPECT_EQ(toStage->appToAppUri.scheme(), "uaepassstg");

    std::string stage = okLink;
    stage.replace(0, 7, "uaepassstg");
    auto fromStage = pre(stage);
    ASSERT_TRUE(fromStage);
    EXPECT_EQ(fromStage->scheme, "uaepassstg");
    EXPECT_EQ(fromStage->appToAppUri.scheme(), "uaepass");
}

TEST_F(CustomScheme, OrdinaryNavigationsGiveNothing) {
    EXPECT_FALSE(service.preprocessUri(std::nullopt));
    EXPECT_FALSE(pre("https://a.test/?successurl=x&failureurl=y"));
    EXPECT_FALSE(pre("uaepassx://open?successurl=x&failureurl=y"));
    EXPECT_FALSE(pre("UAEPASS://open?successurl=x&failureurl=y"));
    EXPECT_FALSE(pre("uaepass://open?successurl=x"));
    EXPECT_FALSE(pre("uaepass://open"));
    platform.bundle->identifier.reset();
    EXPECT_FALSE(pre(okLink)) << "no package, no callback URL";
}

TEST_F(CustomScheme, ReturnLinksShrinkBackToThePagesURL) {
    auto model = pre(okLink);
    ASSERT_TRUE(model);
    auto returned = query(model->appToAppUri)["successurl"];
    EXPECT_EQ(service.postProcessUri(returned)->absoluteString(), "https://a.test/ok");
    EXPECT_EQ(service.postProcessUri("com.test.app:/uaepass/success?url=https%3A%2F%2Fa.test%2Fok")->absoluteString(),
              "https://a.test/ok");
    EXPECT_FALSE(service.postProcessUri("com.test.app:/uaepass/success"));
    EXPECT_FALSE(service.postProcessUri("com.test.app:/uaepass/success?url"));
    EXPECT_FALSE(service.postProcessUri("com.test.app:/uaepass/success?url=a%20b"));
    EXPECT_FALSE(service.postProcessUri("not a url"));
}

TEST_F(CustomScheme, QueryParametersGiveEmptyTextForBareNames) {
    EXPECT_FALSE(queryParameters(*URL::make("https://a.test/")));
    EXPECT_EQ(query(*URL::make("https://a.test/?a&b=2")), (std::map<std::string, std::string>{{"a", ""}, {"b", "2"}}));
}

TEST_F(CustomScheme, TheStreamDropsARepeatOfTheLastText) {
    std::vector<std::string> received;
    auto subscription = CustomSchemeSingleton::shared().streamPublisher().sink(
        [&](const std::string& text) { received.push_back(text); });
    auto& stream = CustomSchemeSingleton::shared();
    stream.sendData("https://stream.test/1");
    stream.sendData("https://stream.test/1");
    stream.sendData("https://stream.test/2");
    stream.sendData("https://stream.test/1");
    EXPECT_EQ(received, (std::vector<std::string>{"https://stream.test/1", "https://stream.test/2",
                                                  "https://stream.test/1"}));
    subscription->cancel();
    stream.sendData("https://stream.test/3");
    EXPECT_EQ(received.size(), 3u);
}

TEST(Subject, AFirstValueSubscriptionGetsExactlyOneValueUnderRacingSenders) {
    Subject<int> subject;
    std::atomic<int> deliveries{0};
    auto handle = subject.first([&](const int&) { ++deliveries; });
    std::vector<std::thread> senders;
    for (int i = 0; i < 4; ++i) {
        senders.emplace_back([&, i] {
            for (int k = 0; k < 50; ++k) subject.send(i * 100 + k);
        });
    }
    for (auto& sender : senders) sender.join();
    EXPECT_EQ(deliveries.load(), 1);
}

using CustomSchemeDeathTest = CustomScheme;

TEST_F(CustomSchemeDeathTest, ARepeatedQueryNameStopsTheProcess) {
    EXPECT_DEATH(pre("uaepass://open?successurl=a&successurl=b&failureurl=c"),
                 "Fatal error: Duplicate values for key: 'successurl'");
}
