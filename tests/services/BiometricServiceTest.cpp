// The biometric events through the bridge: the device owner's answer comes from the test, the
// sealed challenge is opened by the openssl command line.
#include "FakeDeviceServices.hpp"

using namespace kelvane;

namespace {

using Answer = std::pair<std::string, Json>;

class Biometric : public fakes::DeviceServiceFixture {
protected:
    static void SetUpTestSuite() { key = new fakes::OpenSSLKey(); }
    static void TearDownTestSuite() { delete key; }

    void answer(bool success, std::optional<int> errorCode = std::nullopt) {
        authentication->reply(success, errorCode);
        platform.mainQueue->runUntilIdle();
    }
    Json outcome(bool success, const std::string& message, std::vector<std::string> codes) const {
        return withDevice({{"success", success}, {"message", message}, {"errorCodes", codes}});
    }
    // The last record, its ciphertext opened and taken out.
    std::pair<std::string, Json> unsealed() const {
        Json record = lastRecord();
        std::string plain = key->decrypt(record["encryptedChallenge"].get<std::string>());
        record.erase("encryptedChallenge");
        return {plain, record};
    }

    static inline fakes::OpenSSLKey* key = nullptr;
    const std::string plain = "nonce\x01\x02";
    const Json challenge{{"challenge", base64::encode(plain)}};
};

TEST_F(Biometric, RegistrationThenVerificationSealsTheChallengeUnderTheStoredKey) {
    post("checkBiometric");
    EXPECT_EQ(lastRecord(), withDevice({{"registered", false}, {"error", {"bioNoCredIds"}}}));

    const Json body{{"publicKey", key->publicKey}, {"credentialId", "cred-1"}, {"extra", {1, 2}}};
    post("registerBiometric", body);
    // Kept whole before the owner has answered.
    EXPECT_EQ(platform.keyValueStore->dictionary("biometricKey"), body);
    EXPECT_EQ(webView->scripts.size(), 1u);
    EXPECT_EQ(authentication->contexts[0]->fallbackTitle, "Use Passcode");
    EXPECT_EQ(authentication->contexts[0]->reason, "To access the secure data");
    answer(true);
    EXPECT_EQ(last(), Answer("registerBiometric", outcome(true, "Registration Success", {})));

    post("checkBiometric");
    EXPECT_EQ(lastRecord(), withDevice({{"registered", true}, {"credentialIds", {"cred-1"}}, {"error", Json::array()}}));

    std::vector<std::string> sealed;
    for (int i = 0; i < 2; ++i) {
        post("verifyBiometric", challenge);
        answer(true);
        sealed.push_back(lastRecord()["encryptedChallenge"].get<std::string>());
        Json expected = outcome(true, "Registration Success", {});
        expected["credentialId"] = "cred-1";
        EXPECT_EQ(unsealed(), Answer(plain, expected));
    }
    EXPECT_NE(sealed[0], sealed[1]);
}

TEST_F(Biometric, MissingFieldsAnswerTwiceAndAPartialRecordStays) {
    post("registerBiometric", Json{{"publicKey", key->publicKey}});
    EXPECT_EQ(lastRecord(), outcome(false, "Registration Failed. Missing required fields", {"jsMissingFields"}));
    answer(false, -2);
    EXPECT_EQ(lastRecord(), outcome(false, "The user did cancel", {"bioAuthFailed"}));
    post("checkBiometric");
    EXPECT_EQ(lastRecord()["registered"], false);

    post("verifyBiometric");
    EXPECT_EQ(lastRecord(), outcome(false, "Verification Failed. Missing required fields", {"jsMissingFields"}));
    answer(false, -1);
    EXPECT_EQ(lastRecord(), outcome(false, "The user failed to provide valid credentials", {"bioAuthFailed"}));

    // The key seals, but without a credential the page hears of a missing key.
    post("verifyBiometric", challenge);
    answer(true);
    EXPECT_EQ(unsealed(), Answer(plain, outcome(false, "Registration Success", {"bioPublicKeyNotFound"})));
    EXPECT_EQ(webView->scripts.size(), 6u);
}

TEST_F(Biometric, OddRecordsAndAuthenticationsThatCannotRun) {
    platform.keyValueStore->setDictionary(Json{{"credentialId", 5}}, "biometricKey");
    post("checkBiometric");
    EXPECT_EQ(lastRecord(), withDevice({{"registered", true}, {"error", Json::array()}}));

    // A key the cipher refuses leaves the ciphertext out and the outcome as it is.
    platform.keyValueStore->setDictionary(Json{{"credentialId", "c"}, {"publicKey", "AAAA"}}, "biometricKey");
    post("verifyBiometric", challenge);
    answer(true);
    Json expected = outcome(true, "Registration Success", {});
    expected["credentialId"] = "c";
    EXPECT_EQ(lastRecord(), expected);

    authentication->can = {false, -8};
    post("registerBiometric", Json{{"publicKey", "k"}, {"credentialId", "c"}});
    EXPECT_EQ(lastRecord(), outcome(false, "Authentication could not continue because the user has been locked out "
                                           "of biometric authentication, due to failing authentication too many times.",
                                    {"bioAuthFailed"}));

    // Without an error object the page never hears back.
    std::size_t before = webView->scripts.size();
    authentication->can = {false, std::nullopt};
    post("registerBiometric", Json{{"publicKey", "k"}, {"credentialId", "c"}});
    authentication->can = {true, std::nullopt};
    post("verifyBiometric", challenge);
    answer(false);
    EXPECT_EQ(webView->scripts.size(), before);

    post("verifyBiometric", challenge);
    answer(false, 42);
    EXPECT_EQ(lastRecord(), outcome(false, "Did not find error code on LAError object", {"bioAuthFailed"}));
}

using BiometricDeathTest = Biometric;

TEST_F(BiometricDeathTest, NoStoredKeyOrABodyOfAnotherTypeStops) {
    EXPECT_DEATH(post("registerBiometric", Json("text")),
                 "Fatal error: Could not cast value of type 'String' to 'Dictionary<String, Any>'");
    post("verifyBiometric", challenge);
    EXPECT_DEATH(answer(true), "Fatal error: Unexpectedly found nil while unwrapping an Optional value");
    answer(false);
    platform.keyValueStore->setDictionary(Json{{"publicKey", key->publicKey}}, "biometricKey");
    post("verifyBiometric", Json{{"challenge", 12}});
    EXPECT_DEATH(answer(true), "Fatal error: Could not cast value of type 'Int' to 'String'");
    answer(false);
}

}  // namespace
