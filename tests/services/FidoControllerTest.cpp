#include "services/FidoController.hpp"

#include "FakeCeremonies.hpp"
#include "FakePlatform.hpp"

#include <gtest/gtest.h>

using namespace kelvane;
using namespace kelvane::platform;

namespace {

const Bytes kCredentialID{0xFB, 0xFF};    // "-_8"
const Bytes kClientData{'{', '}'};        // "e30"
const Bytes kAttestation{1, 2, 3};        // "AQID"
const Bytes kAuthenticatorData{0xA0};     // "oA"
const Bytes kSignature{0x30, 0x44};       // "MEQ"

const char* const kRegistrationText = R"({
   "response": {
     "clientDataJSON": "e30",
     "attestationObject": "AQID",
     "transports": ["internal", "hybrid"]
    },
    "authenticatorAttachment": "platform",
    "clientExtensionResults": {
        "credProps": {
            "rk": true
        }
    },
    "id": "-_8",
    "rawId": "-_8",
    "type": "public-key"
        })";

const char* const kAssertionText = R"(            {
            "id": "-_8",
            "type": "public-key",
            "rawId": "-_8",
            "response": {
              "clientDataJSON": "e30",
              "authenticatorData": "oA",
              "signature": "MEQ",
              "userHandle": ""
            }
          })";

class Fido : public ::testing::Test {
protected:
    Fido() {
        platform.viewSystem->installRoot();
        platform.passkeys = passkeys;
        platform.install();
    }

    // Starts a registration whose outcome lands in `answers`.
    void startRegistration(std::vector<std::optional<std::int64_t>> algorithms = {-7}) {
        FidoRegRequestModel request;
        request.rpEntityID = "rp.test";
        request.challenge = {9, 9};
        request.userName = "ann";
        request.userDisplayName = "Ann A.";
        request.userID = {'u', '1'};
        request.pubKeyIds = std::move(algorithms);
        controller->registrationFido(request, collect());
    }
    void startAssertion() {
        FidoVerifyRequestModel request;
        request.rpID = "rp.test";
        request.challenge = {7};
        request.allowCredentials = {AllowCredential{{}, "+/8=", "public-key", kCredentialID}};
        controller->verifyFido(request, collect());
    }
    FidoController::FinalRegResult collect() {
        return [this](Result<FidoRegResponseModel> result) { answers.push_back(*result); };
    }

    fakes::FakePlatform platform;
    fakes::LogCapture quiet;
    std::shared_ptr<fakes::FakePasskeys> passkeys = std::make_shared<fakes::FakePasskeys>();
    std::shared_ptr<FidoController> controller = std::make_shared<FidoController>();
    std::vector<FidoRegResponseModel> answers;
};

}  // namespace

TEST(FidoBinaryEncoding, UrlSafeWithoutPaddingAndBack) {
    EXPECT_EQ(FidoController::encodeBinary(Bytes{0xFB, 0xFF}), "-_8");
    EXPECT_EQ(FidoController::encodeBinary(Bytes{}), "");
    EXPECT_EQ(FidoController::toggleBase64URLSafe("-_8", false), "+/8=");
    EXPECT_EQ(FidoController::toggleBase64URLSafe("AQ", false), "AQ==");
    EXPECT_EQ(FidoController::toggleBase64URLSafe("-_8A", false), "+/8A");
    EXPECT_EQ(FidoController::convert(Bytes{0xC3, 0x28}), "");
}

TEST_F(Fido, RegistrationOffersBothAuthenticatorsAndWritesTheTextByteForByte) {
    startRegistration({-7, -257});
    const auto& requests = passkeys->ceremonies.at(0).requests;
    ASSERT_EQ(requests.size(), 2u);
    const auto& platformRequest = std::get<PlatformRegistrationRequest>(requests[0]);
    const auto& keyRequest = std::get<SecurityKeyRegistrationRequest>(requests[1]);
    EXPECT_EQ(platformRequest.name, "ann");
    EXPECT_EQ(platformRequest.userID, (Bytes{'u', '1'}));
    EXPECT_EQ(keyRequest.displayName, "ann");
    EXPECT_EQ(keyRequest.challenge, (Bytes{9, 9}));
    EXPECT_EQ(keyRequest.credentialParameters, (std::vector<std::int64_t>{-7, -257}));
    EXPECT_EQ(controller->presentationAnchor(), platform.viewSystem->allWindows.front());

    // A security key still reads as "platform", with the fixed transports.
    passkeys->complete(SecurityKeyCredentialRegistration{{kCredentialID, kClientData, kAttestation}});
    ASSERT_EQ(answers.size(), 1u);
    EXPECT_EQ(answers[0], FidoRegResponseModel(true, "Registration Success", kRegistrationText, std::nullopt));
}

TEST_F(Fido, AssertionAllowsTheCredentialsOnBothAndWritesTheTextByteForByte) {
    startAssertion();
    const auto& requests = passkeys->ceremonies.at(0).requests;
    EXPECT_EQ(std::get<PlatformAssertionRequest>(requests.at(0)).allowedCredentials, std::vector<Bytes>{kCredentialID});
    EXPECT_EQ(std::get<SecurityKeyAssertionRequest>(requests.at(1)).allowedCredentials,
              (std::vector<SecurityKeyAssertionRequest::Descriptor>{
                  {kCredentialID,
                   {SecurityKeyTransport::bluetooth, SecurityKeyTransport::nfc, SecurityKeyTransport::usb}}}));

    // No user id: an empty handle.
    passkeys->complete(
        SecurityKeyCredentialAssertion{{kCredentialID, kClientData, std::nullopt, kAuthenticatorData, kSignature}});
    ASSERT_EQ(answers.size(), 1u);
    EXPECT_EQ(answers[0], FidoRegResponseModel(true, "Verify Success", kAssertionText, std::nullopt));
}

TEST_F(Fido, OtherOutcomesAreModelsOrNothing) {
    // Errors, a cancel among them, come back as failed models.
    startRegistration();
    passkeys->fail(Error{"com.apple.AuthenticationServices.AuthorizationError", 1001, "The operation was canceled."});
    ASSERT_EQ(answers.size(), 1u);
    EXPECT_EQ(answers[0], FidoRegResponseModel(false, "The operation was canceled.", std::nullopt, "fidoFailed"));

    // A credential of another kind is never answered.
    passkeys->complete(std::monostate{});
    EXPECT_EQ(answers.size(), 1u);

    // A second request replaces the pending completion; the first caller never hears back.
    std::vector<FidoRegResponseModel> firstCaller;
    controller->setFinalRegResult([&](Result<FidoRegResponseModel> result) { firstCaller.push_back(*result); });
    startRegistration({});
    EXPECT_TRUE(std::get<SecurityKeyRegistrationRequest>(passkeys->ceremonies.back().requests[1])
                    .credentialParameters.empty());
    passkeys->complete(PlatformCredentialRegistration{{kCredentialID, kClientData, kAttestation}});
    EXPECT_TRUE(firstCaller.empty());
    EXPECT_EQ(answers.at(1).data, kRegistrationText);

    // Without passkeys, at request time and at the platform's answer.
    platform.device->passkeys = false;
    startRegistration();
    startAssertion();
    passkeys->complete(PlatformCredentialRegistration{{kCredentialID, kClientData, kAttestation}});
    EXPECT_EQ(passkeys->ceremonies.size(), 2u);
    ASSERT_EQ(answers.size(), 5u);
    for (std::size_t index = 2; index < 5; ++index) EXPECT_EQ(answers[index], controller->failedRegResponse);

    // The stand-in for a platform without authenticators fails every ceremony, later.
    platform.passkeys.reset();
    platform.device->passkeys = true;
    platform.install();
    startRegistration();
    platform.mainQueue->runUntilIdle();
    EXPECT_EQ(answers.back(), FidoRegResponseModel(false, "No authenticator", std::nullopt, "fidoFailed"));
}

using FidoDeathTest = Fido;

TEST_F(FidoDeathTest, TheControllersFatalStops) {
    const std::string nil = "Fatal error: Unexpectedly found nil while unwrapping an Optional value";
    startRegistration();
    EXPECT_DEATH(passkeys->complete(PlatformCredentialRegistration{{kCredentialID, kClientData, std::nullopt}}), nil);
    EXPECT_DEATH(passkeys->complete(PlatformCredentialAssertion{{kCredentialID, kClientData, {}, {}, kSignature}}),
                 nil);
    EXPECT_DEATH(
        passkeys->complete(SecurityKeyCredentialAssertion{{kCredentialID, kClientData, {}, kAuthenticatorData, {}}}),
        nil);
    EXPECT_DEATH(startRegistration({-7, std::nullopt}), nil);

    auto idle = std::make_shared<FidoController>();
    EXPECT_DEATH(idle->registrationSuccess(kCredentialID, kClientData, kAttestation, "platform"), nil);
    platform.device->passkeys = false;
    EXPECT_DEATH(idle->registerFido("rp.test", {}, "", "", {}, {}), nil);

    platform.viewSystem->allWindows.clear();
    EXPECT_DEATH(controller->presentationAnchor(), nil);
}
