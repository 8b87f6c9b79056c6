#include "services/FidoService.hpp"

#include "FakeCeremonies.hpp"
#include "FakePlatform.hpp"
#include "flow/WebViewController.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <iostream>
#include <limits>

using namespace kelvane;
using namespace kelvane::platform;

namespace {

Json byteArray(const Bytes& bytes) {
    Json object = Json::object();
    for (std::size_t index = 0; index < bytes.size(); ++index) object[std::to_string(index)] = bytes[index];
    return object;
}

Json registrationOptions() {
    Json publicKey{{"challenge", byteArray({1, 2, 3})},
                   {"rp", {{"id", "rp.test"}, {"name", "RP"}}},
                   {"user", {{"id", byteArray({'u', '1'})}, {"name", "ann"}, {"displayName", "Ann A."}}},
                   {"pubKeyCredParams", Json::array({{{"type", "public-key"}, {"alg", "-7"}},
                                                     {{"type", "public-key"}, {"alg", -257}}})}};
    return Json{{"params", {{"publicKey", publicKey}}}};
}

Json assertionOptions(Json allowCredentials = Json::array({{{"id", byteArray({0xFB, 0xFF})}, {"type", "public-key"}}})) {
    Json publicKey{{"challenge", byteArray({7})}, {"rpId", "rp.test"}, {"allowCredentials", allowCredentials}};
    return Json{{"params", {{"publicKey", publicKey}}}};
}

// A credential's answer as the page parses it, without the device, which is checked apart.
template <class Record>
Json withoutDevice(const Record& record) {
    Json json = record.toJson();
    EXPECT_EQ(json.at("device"), JsHandler().getDeviceInfo().toJson());
    json.erase("device");
    return json;
}

class FidoPage : public ::testing::Test {
protected:
    FidoPage() {
        platform.viewSystem->installRoot();
        platform.passkeys = passkeys;
        platform.install();
    }

    FidoService::RegisterCompletion registered() {
        return [this](const FidoRegisterResultModel& record) { registrations.push_back(record); };
    }
    FidoService::VerifyCompletion verified() {
        return [this](const FidoVerifyResultModel& record) { verifications.push_back(record); };
    }

    fakes::FakePlatform platform;
    fakes::LogCapture log;
    std::shared_ptr<fakes::FakePasskeys> passkeys = std::make_shared<fakes::FakePasskeys>();
    FidoService service;
    std::shared_ptr<fakes::ScriptedFidoController> scripted = std::make_shared<fakes::ScriptedFidoController>();
    std::vector<FidoRegisterResultModel> registrations;
    std::vector<FidoVerifyResultModel> verifications;
};

const Bytes kCredentialID{0xFB, 0xFF};
const Bytes kClientData{'{', '}'};

}  // namespace

TEST(FidoDecoding, TypedByteArraysAndStringAlgorithms) {
    EXPECT_EQ(FidoService::_convertAlgToUInt(Json{{"0", 1}, {"1", 2}, {"2", 3}}), (Bytes{1, 2, 3}));
    // Two entries: index 2 is never asked for.
    EXPECT_EQ(FidoService::_convertAlgToUInt(Json{{"0", 1}, {"2", 3}}), (Bytes{1, 0}));
    EXPECT_EQ(FidoService::_convertAlgToUInt(Json{{"0", 300}, {"1", 2}}), (Bytes{0, 2}));
    EXPECT_EQ(FidoService::_convertAlgToUInt(Json{{"0", -1}, {"1", "7"}, {"2", true}, {"3", 255.0}}),
              (Bytes{0, 0, 0, 255}));
    EXPECT_TRUE(FidoService::_convertAlgToUInt(Json::object()).empty());

    std::vector<Json> params{Json{{"alg", "-7"}}, Json{{"alg", -257}}, Json{{"type", "public-key"}},
                             Json{{"alg", "+8"}}, Json{{"alg", "7x"}}, Json{{"alg", ""}},
                             Json{{"alg", "+-1"}}, Json{{"alg", "9223372036854775808"}},
                             Json{{"alg", "-9223372036854775808"}}};
    EXPECT_EQ(FidoService::_getAlgValues(params),
              (std::vector<std::int64_t>{-7, 8, std::numeric_limits<std::int64_t>::min()}));
}

TEST_F(FidoPage, OptionsBecomeRequests) {
    service.setFido(scripted);
    service.registerFido(registrationOptions(), registered());
    Json expected{{"challenge", "AQID"},   {"rpEntityId", "rp.test"}, {"rpEntityName", "RP"},
                  {"userId", "dTE="},      {"userName", "ann"},       {"userDisplayName", "Ann A."},
                  {"pubKeyIds", {-7}},
                  {"pubKeyCredParams", registrationOptions()["params"]["publicKey"]["pubKeyCredParams"]}};
    EXPECT_EQ(scripted->registrations.at(0).toJson(), expected);

    // Entries without a "type" or with an "id" that is no byte array are dropped.
    Json allow = Json::array({{{"id", byteArray({0xFB, 0xFF})}, {"type", "public-key"}},
                              {{"id", byteArray({1})}},
                              {{"id", "AQ"}, {"type", "public-key"}}});
    service.signFido(assertionOptions(allow), verified());
    service.signFido(assertionOptions(Json::array()), verified());
    EXPECT_EQ(scripted->verifications.at(0).toJson(), Json::parse(R"({"rpId":"rp.test","challenge":"Bw==",
        "allowCredentials":[{"id":"+/8=","type":"public-key","rawId":"+/8="}]})"));
    EXPECT_TRUE(scripted->verifications.at(1).allowCredentials.empty());
    EXPECT_TRUE(registrations.empty() && verifications.empty());
}

TEST_F(FidoPage, CeremoniesAnswerLaterOnTheMainQueueWithTheParsedCredential) {
    service.registerFido(registrationOptions(), registered());
    passkeys->complete(PlatformCredentialRegistration{{kCredentialID, kClientData, Bytes{1, 2, 3}}});
    EXPECT_TRUE(registrations.empty());
    platform.mainQueue->runUntilIdle();
    ASSERT_EQ(registrations.size(), 1u);
    EXPECT_EQ(withoutDevice(registrations[0]), Json::parse(R"({"success":true,"message":"Registration Success",
        "data":{"response":{"clientDataJSON":"e30","attestationObject":"AQID","transports":["internal","hybrid"]},
                "authenticatorAttachment":"platform","clientExtensionResults":{"credProps":{"rk":true}},
                "id":"-_8","rawId":"-_8","type":"public-key"},
        "errorCodes":[""]})"));

    service.signFido(assertionOptions(), verified());
    passkeys->complete(PlatformCredentialAssertion{{kCredentialID, kClientData, std::nullopt, Bytes{0xA0}, Bytes{1}}});
    platform.mainQueue->runUntilIdle();
    ASSERT_EQ(verifications.size(), 1u);
    EXPECT_EQ(withoutDevice(verifications[0]), Json::parse(R"({"success":true,"message":"Verify Success",
        "data":{"id":"-_8","type":"public-key","rawId":"-_8",
                "response":{"clientDataJSON":"e30","authenticatorData":"oA","signature":"AQ","userHandle":""}},
        "errorCodes":[""]})"));
    EXPECT_TRUE(log.contains("User Handle: "));
}

TEST_F(FidoPage, ControllerTextsAreReadStrictlyAndAnsweredOnlyWhenWhole) {
    service.setFido(scripted);
    const std::string registration = FidoController::registrationText("c", "a", "i");
    const std::string assertion = FidoController::assertionText("i", "c", "d", "s", "u");
    auto registerWith = [&](Result<FidoRegResponseModel> result) {
        service.registerFido(registrationOptions(), registered());
        scripted->respond(std::move(result));
        platform.mainQueue->runUntilIdle();
    };
    auto signWith = [&](Result<FidoRegResponseModel> result) {
        service.signFido(assertionOptions(), verified());
        scripted->respond(std::move(result));
        platform.mainQueue->runUntilIdle();
    };

    // No data: the model's words, the operation's code, and not the controller's own code.
    registerWith(FidoRegResponseModel(false, "Use IOS Version more than 15!", std::nullopt, "platformNotSupported"));
    signWith(FidoRegResponseModel(false, "x", std::nullopt, "fidoFailed"));
    ASSERT_EQ(registrations.size(), 1u);
    EXPECT_EQ(withoutDevice(registrations[0]), Json::parse(R"({"success":false,
        "message":"Use IOS Version more than 15!","errorCodes":["fidoRegFailed"]})"));
    EXPECT_EQ(verifications.at(0).errorCodes, std::vector<std::string>{"fidoVerifyFailed"});

    // A failed model with data goes through the parse; `")` is taken out before it.
    std::string quoted = assertion;
    quoted.insert(quoted.find(R"("public-key")") + 12, "\")");
    signWith(FidoRegResponseModel(false, "odd", quoted, "code"));
    ASSERT_EQ(verifications.size(), 2u);
    EXPECT_EQ(verifications[1].success, false);
    EXPECT_EQ(verifications[1].data->response->userHandle, "u");
    EXPECT_EQ(verifications[1].errorCodes, std::vector<std::string>{"code"});
    EXPECT_TRUE(log.contains("Cleaned json string : " + assertion));

    // Texts that do not read, or lack or mistype a member, go unanswered.
    auto changed = [](std::string text, const std::string& from, const std::string& to) {
        return text.replace(text.find(from), from.size(), to);
    };
    for (const auto& text : {changed(assertion, "userHandle", "userHandIe"), std::string("[1,2]")}) {
        signWith(FidoRegResponseModel(true, "m", text, std::nullopt));
    }
    for (const auto& text : {changed(registration, "true", "\"true\""), changed(registration, "\"hybrid\"", "3"),
                             std::string("{\"id\":"), std::string("17")}) {
        registerWith(FidoRegResponseModel(true, "m", text, std::nullopt));
    }
    registerWith(Error{"d", 1, "m"});
    signWith(Error{"d", 2, "m"});
    EXPECT_EQ(registrations.size(), 1u);
    EXPECT_EQ(verifications.size(), 2u);
    auto lines = log.lines();
    EXPECT_EQ(std::count(lines.begin(), lines.end(),
                         "Error parsing JSON: The data couldn\u2019t be read because it isn\u2019t in the correct format."),
              2);
    EXPECT_TRUE(log.contains(R"(Registration failed: Error Domain=d Code=1 "m")"));
    EXPECT_TRUE(log.contains(R"(Verification failed: Error Domain=d Code=2 "m")"));

    registerWith(FidoRegResponseModel(true, "m", registration, std::nullopt));
    ASSERT_EQ(registrations.size(), 2u);
    EXPECT_EQ(registrations[1].data->response->transports, (std::vector<std::string>{"internal", "hybrid"}));
}

TEST_F(FidoPage, TheBridgeEventsAnswerUnderTheirPostedNames) {
    auto controller = std::make_shared<WebViewController>();
    controller->kelvaneService = std::make_shared<fakes::RecordingDelegate>();
    controller->webView = platform.webViews->makeWebView({}, {});
    auto& scripts = platform.webViews->made.back()->scripts;

    controller->userContentController({"isJsFidoSupported", Json("ignored")});
    controller->userContentController({"signFido", assertionOptions()});
    passkeys->complete(PlatformCredentialAssertion{{kCredentialID, kClientData, Bytes{'u'}, Bytes{1}, Bytes{2}}});
    controller->userContentController({"registerFido", registrationOptions()});
    passkeys->fail(Error{"d", 1, "No."});
    platform.mainQueue->runUntilIdle();

    ASSERT_EQ(scripts.size(), 3u);
    const std::string device = JsHandler().getDeviceInfo().jsonString().value();
    EXPECT_EQ(scripts[0], R"(iosCallback("isJsFidoSupported" ,{"device":)" + device +
                              R"(,"isSupported":false,"message":"","success":true}))");
    EXPECT_EQ(scripts[1].rfind(R"(iosCallback("signFido" ,{"data":{"id":"-_8")", 0), 0u);
    EXPECT_EQ(scripts[2], R"(iosCallback("registerFido" ,{"device":)" + device +
                              R"(,"errorCodes":["fidoRegFailed"],"message":"No.","success":false}))");
}

using FidoPageDeathTest = FidoPage;

TEST_F(FidoPageDeathTest, MalformedOptionsStopAfterAnyMissingFieldsAnswer) {
    service.setFido(scripted);
    // The missing-fields answer goes out at once, then the call stops.
    Json noParams = registrationOptions();
    noParams["params"]["publicKey"].erase("pubKeyCredParams");
    auto printAnswer = [](const FidoRegisterResultModel& record) { std::cerr << *record.jsonString() << std::endl; };
    EXPECT_DEATH(service.registerFido(noParams, printAnswer),
                 "\"errorCodes\":\\[\"jsMissingFields\"\\],\"message\":\"Verification Failed. Missing required "
                 "fields\",\"success\":false}.*Fatal error: Unexpectedly found nil while unwrapping");

    const std::string nil = "Fatal error: Unexpectedly found nil while unwrapping an Optional value";
    auto broken = [](Json options, const std::function<void(Json&)>& change) {
        change(options["params"]["publicKey"]);
        return options;
    };
    for (const auto& options :
         std::vector<Json>{Json::array({registrationOptions()}), Json{{"params", "x"}},
                           broken(registrationOptions(), [](Json& key) { key["challenge"] = "AQ"; }),
                           broken(registrationOptions(), [](Json& key) { key["rp"].erase("name"); }),
                           broken(registrationOptions(), [](Json& key) { key["pubKeyCredParams"].push_back(1); })}) {
        EXPECT_DEATH(service.registerFido(options, registered()), nil) << options;
    }
    for (const auto& options : std::vector<Json>{broken(assertionOptions(), [](Json& key) { key.erase("rpId"); }),
                                                 assertionOptions(Json::array({1}))}) {
        EXPECT_DEATH(service.signFido(options, verified()), nil) << options;
    }
}
