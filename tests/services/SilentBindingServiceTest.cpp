// Silent binding through the bridge; each digest is recomputed by the openssl command line.
#include "FakeDeviceServices.hpp"

#include "services/SilentBindingService.hpp"

#include <cstdio>

using namespace kelvane;
using kelvane::testing::run;

namespace {

class SilentBinding : public fakes::DeviceServiceFixture {
protected:
    static void SetUpTestSuite() { key = new fakes::OpenSSLKey(); }
    static void TearDownTestSuite() { delete key; }

    // The SHA-256 of the vendor identifier, as bytes on a pipe.
    std::string secret() const {
        return "printf '%s' '" + *platform.device->vendorIdentifier + "' | openssl dgst -sha256 -binary";
    }
    Json failed(const std::string& message, const Json& emptyFields) const {
        Json fields = withDevice({{"success", false}, {"message", message}});
        for (const auto& field : emptyFields) fields[field.get<std::string>()] = "";
        return fields;
    }

    static inline fakes::OpenSSLKey* key = nullptr;
};

TEST_F(SilentBinding, RegistrationSealsTheDigestsBase64Text) {
    const std::string digestText = run(secret() + " | openssl base64 -A");
    ASSERT_EQ(digestText.size(), 44u);
    std::vector<std::string> sealed;
    for (int i = 0; i < 2; ++i) {
        post("registerSilentBinding", Json{{"remotePublicKey", key->publicKey}});
        auto [name, record] = last();
        EXPECT_EQ(name, "registerSilentBinding");
        sealed.push_back(record["encryptedDeviceId"].get<std::string>());
        EXPECT_EQ(key->decrypt(sealed.back()), digestText);
        record.erase("encryptedDeviceId");
        EXPECT_EQ(record, withDevice({{"success", true}, {"message", ""}}));
    }
    EXPECT_NE(sealed[0], sealed[1]);
}

TEST_F(SilentBinding, VerificationSaltsTheChallengeWithTheDigest) {
    const Json expected = withDevice({{"success", true}, {"message", ""},
        {"challengeHash", run("(printf 'ch\\377'; " + secret() + ") | openssl dgst -sha256 -binary | openssl base64 -A")},
        {"keyHashFirst6", run(secret() + " | head -c 6 | openssl base64 -A")}});
    for (int i = 0; i < 2; ++i) {
        post("verifySilentBinding", Json{{"challenge", base64::encode(std::string_view("ch\xff"))}});
        EXPECT_EQ(lastRecord(), expected);
    }
    post("verifySilentBinding", Json{{"challenge", ""}});
    EXPECT_EQ(lastRecord()["challengeHash"], run(secret() + " | openssl dgst -sha256 -binary | openssl base64 -A"));
    post("verifySilentBinding", Json{{"challenge", "not*base64"}});
    EXPECT_EQ(lastRecord(), failed("Failed to convert base64 encoded string to Data", {"challengeHash", "keyHashFirst6"}));

    platform.device->vendorIdentifier = std::string("\xc3\x28");
    post("verifySilentBinding", Json{{"challenge", ""}});
    EXPECT_EQ(lastRecord(), failed("Failed to convert uniqueId to data", {"challengeHash", "keyHashFirst6"}));
    post("registerSilentBinding", Json{{"remotePublicKey", key->publicKey}});
    EXPECT_EQ(lastRecord(), failed("Failed to convert uniqueId to data", {"encryptedDeviceId"}));
}

using SilentBindingDeathTest = SilentBinding;

TEST_F(SilentBindingDeathTest, ARefusedKeyOrNoIdentifierStops) {
    auto print = [](const auto& record) { std::fprintf(stderr, "%s\n", record.jsonString()->c_str()); };
    SilentBindingService service;
    EXPECT_DEATH(service.registerBinding(Json{{"remotePublicKey", "AAAA"}}, print),
                 "Fatal error: Unexpectedly found nil while unwrapping");
    EXPECT_DEATH(post("verifySilentBinding", Json{{"nonce", ""}}), "Fatal error: Unexpectedly found nil");
    // The failure record is made, and then the process stops before the page can hear it.
    platform.device->vendorIdentifier.reset();
    EXPECT_DEATH(service.registerBinding(Json{{"remotePublicKey", key->publicKey}}, print),
                 R"("message":"Unable to generate binding ID".*Fatal error: Unexpectedly found nil while unwrapping)");
    EXPECT_DEATH(service.verify(Json{{"challenge", ""}}, print),
                 R"("challengeHash":"".*Fatal error: Unexpectedly found nil while unwrapping)");
}

}  // namespace
