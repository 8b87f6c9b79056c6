// Every vector here is made at test time by the openssl command line.
#include "services/EncryptService.hpp"
#include "support/Base64.hpp"

#include "FakePlatform.hpp"
#include "TestTools.hpp"

#include <gtest/gtest.h>

using namespace kelvane;
using kelvane::testing::readFile;
using kelvane::testing::run;
using kelvane::testing::TempDir;
using kelvane::testing::writeFile;

namespace {

std::string stripPadding(std::string text) {
    while (!text.empty() && text.back() == '=') text.pop_back();
    return text;
}

class EncryptServiceTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        dir = new TempDir();
        for (const char* bits : {"2048", "1024"}) {
            std::string name = std::string("rsa") + bits;
            run("openssl genrsa -out " + *dir / (name + ".pem") + " " + bits + " 2>/dev/null");
            run("openssl rsa -in " + *dir / (name + ".pem") + " -outform DER -traditional -out " +
                *dir / (name + "-private.der") + " 2>/dev/null");
            run("openssl rsa -in " + *dir / (name + ".pem") + " -RSAPublicKey_out -outform DER -out " +
                *dir / (name + "-public.der") + " 2>/dev/null");
        }
        run("openssl rsa -in " + *dir / "rsa2048.pem" + " -pubout -outform DER -out " + *dir / "spki.der" +
            " 2>/dev/null");
    }
    static void TearDownTestSuite() {
        delete dir;
        dir = nullptr;
    }

    static std::string keyText(const std::string& file) { return base64::encode(readFile(*dir / file)); }

    // AES-ECB with OpenSSL's own PKCS#7 padding, or none, as base64.
    static std::string aesEncrypt(const std::string& cipher, const std::string& keyHex, const std::string& plain,
                                  bool pad = true) {
        writeFile(*dir / "plain.bin", plain);
        return run("openssl enc -" + cipher + " -K " + keyHex + " -nosalt " + (pad ? "" : "-nopad ") + "-in " +
                   *dir / "plain.bin" + " | openssl base64 -A");
    }

    static std::string keyFromHex(const std::string& hex) {
        return run("printf '%s' " + hex + " | xxd -r -p | openssl base64 -A");
    }

    static std::string oaepDecrypt(const std::string& sealedBase64) {
        writeFile(*dir / "sealed.bin", std::string(asText(*base64::decode(sealedBase64))));
        return run("openssl pkeyutl -decrypt -inkey " + *dir / "rsa2048.pem" +
                   " -pkeyopt rsa_padding_mode:oaep -pkeyopt rsa_oaep_md:sha1 -pkeyopt rsa_mgf1_md:sha1 -in " +
                   *dir / "sealed.bin");
    }

    static std::string oaepEncrypt(const std::string& pem, const std::string& plain) {
        writeFile(*dir / "plain.bin", plain);
        return run("openssl pkeyutl -encrypt -inkey " + *dir / pem +
                   " -pkeyopt rsa_padding_mode:oaep -pkeyopt rsa_oaep_md:sha1 -pkeyopt rsa_mgf1_md:sha1 -in " +
                   *dir / "plain.bin" + " | openssl base64 -A");
    }

    static inline TempDir* dir = nullptr;
    fakes::LogCapture log;
    EncryptService service;
};

const std::string kKey128 = "000102030405060708090a0b0c0d0e0f";
const std::string kKey192 = "000102030405060708090a0b0c0d0e0f1011121314151617";
const std::string kKey256 = "000102030405060708090a0b0c0d0e0f101112131415161718191a1b1c1d1e1f";
const std::string kTransaction = R"({"action":"https://page.test/a","socket":{"url":"wss://s.test","requestId":"r1"}})";

}  // namespace

TEST_F(EncryptServiceTest, AesOpensWithUnpaddedKeysOf16And32BytesOnly) {
    auto sealed128 = aesEncrypt("aes-128-ecb", kKey128, kTransaction);
    std::string key128 = keyFromHex(kKey128);
    ASSERT_EQ(key128.size(), 24u);
    EXPECT_EQ(service.decryptPushWithAes(stripPadding(key128), sealed128), kTransaction);
    EXPECT_FALSE(service.decryptPushWithAes(key128, sealed128));

    auto sealed256 = aesEncrypt("aes-256-ecb", kKey256, kTransaction);
    std::string key256 = keyFromHex(kKey256);
    ASSERT_EQ(stripPadding(key256).size(), 43u);
    EXPECT_EQ(service.decryptPushWithAes(stripPadding(key256), sealed256), kTransaction);
    EXPECT_FALSE(service.decryptPushWithAes(key256, sealed256));

    // 24-byte keys have a length of 32 characters either way, which the repair rule empties.
    auto sealed192 = aesEncrypt("aes-192-ecb", kKey192, kTransaction);
    EXPECT_FALSE(service.decryptPushWithAes(keyFromHex(kKey192), sealed192));
    EXPECT_TRUE(log.contains("Decryption failed: invalidKeySize"));
}

TEST_F(EncryptServiceTest, AesRefusesEmptyKeysAndPartialBlocksWithALogLine) {
    EXPECT_FALSE(service.decryptPushWithAes("", aesEncrypt("aes-128-ecb", kKey128, "x")));
    EXPECT_EQ(log.lines(), std::vector<std::string>{"Decryption failed: invalidKeySize"});

    auto whole = *base64::decode(aesEncrypt("aes-128-ecb", kKey128, "x"));
    auto partial = base64::encode(ByteView(whole.data(), 15));
    EXPECT_FALSE(service.decryptPushWithAes(stripPadding(keyFromHex(kKey128)), partial));
    EXPECT_FALSE(service.decryptPushWithAes(stripPadding(keyFromHex(kKey128)), ""));
    EXPECT_EQ(log.lines().size(), 3u);
    EXPECT_EQ(log.lines()[1], "Decryption failed: dataPaddingRequired");

    log.lines();
    EXPECT_FALSE(service.decryptPushWithAes("%%%%%%", partial));
    EXPECT_FALSE(service.decryptPushWithAes(stripPadding(keyFromHex(kKey128)), "not base64!"));
    EXPECT_EQ(log.lines().size(), 3u) << "bad base64 is refused without a word";
}

TEST_F(EncryptServiceTest, AesPaddingRemovalIsLenient) {
    std::string key = stripPadding(keyFromHex(kKey128));
    // The last byte says how much to cut, whatever the bytes before it are.
    EXPECT_EQ(service.decryptPushWithAes(key, aesEncrypt("aes-128-ecb", kKey128, "abcdefghijklmXY\x03", false)),
              "abcdefghijklm");
    std::string zeroEnd("abcdefghijklmno\0", 16);
    EXPECT_EQ(service.decryptPushWithAes(key, aesEncrypt("aes-128-ecb", kKey128, zeroEnd, false)), zeroEnd);
    std::string tooLong = "abcdefghijklmno\x11";
    EXPECT_EQ(service.decryptPushWithAes(key, aesEncrypt("aes-128-ecb", kKey128, tooLong, false)), tooLong);
    std::string whole(16, '\x10');
    EXPECT_EQ(service.decryptPushWithAes(key, aesEncrypt("aes-128-ecb", kKey128, whole, false)), "");
}

TEST_F(EncryptServiceTest, AesUnderAWrongKeyGivesNothingForNonUtf8Garbage) {
    auto sealed = aesEncrypt("aes-128-ecb", kKey128, kTransaction);
    std::string otherKey = stripPadding(keyFromHex("ffeeddccbbaa99887766554433221100"));
    EXPECT_FALSE(service.decryptPushWithAes(otherKey, sealed));
}

TEST_F(EncryptServiceTest, RsaSealsWithOaepSha1ForTheOpensslCommandLine) {
    std::string key = keyText("rsa2048-public.der");
    auto first = service.encryptWithRsa(key, base64::encode(std::string_view("device secret")));
    auto second = service.encryptWithRsa(key, base64::encode(std::string_view("device secret")));
    ASSERT_TRUE(first);
    ASSERT_TRUE(second);
    EXPECT_EQ(first->size(), 344u);
    EXPECT_NE(*first, *second);
    EXPECT_EQ(oaepDecrypt(*first), "device secret");
    EXPECT_EQ(oaepDecrypt(*second), "device secret");
    EXPECT_TRUE(log.contains("result -> " + *first));

    std::string longest(214, 'a');
    ASSERT_TRUE(service.encryptWithRsa(key, base64::encode(longest)));
    EXPECT_FALSE(service.encryptWithRsa(key, base64::encode(longest + "a")));
    EXPECT_EQ(log.lines().back().rfind("Error encrypting data: ", 0), 0u);
}

TEST_F(EncryptServiceTest, RsaRefusesBadInputsBeforeTouchingTheKey) {
    EXPECT_FALSE(service.encryptWithRsa("AAAA", "not base64"));
    EXPECT_EQ(log.lines(), std::vector<std::string>{"Invalid base64 input"});
    EXPECT_FALSE(service.encryptWithRsa("AAAA", "AAAA"));
    EXPECT_EQ(log.lines().back().rfind("Error creating SecKey: ", 0), 0u);
}

TEST_F(EncryptServiceTest, RsaTakesOnlyPkcs1KeysAndOnly2048BitPublicOnes) {
    std::string challenge = base64::encode(std::string_view("x"));
    EXPECT_FALSE(service.encryptWithRsa(keyText("spki.der"), challenge));
    EXPECT_FALSE(service.encryptWithRsa(keyText("rsa1024-public.der"), challenge));
    EXPECT_FALSE(service.encryptWithRsa(keyText("rsa2048-private.der"), challenge));
    for (const auto& line : log.lines()) EXPECT_EQ(line.rfind("Error creating SecKey: ", 0), 0u) << line;
    EXPECT_EQ(log.lines().size(), 3u);
}

TEST_F(EncryptServiceTest, RsaOpensWhatTheCommandLineSealedUnderKeysOfAnySize) {
    EXPECT_EQ(service.decryptWithRsa(keyText("rsa2048-private.der"), oaepEncrypt("rsa2048.pem", "hello page")),
              "hello page");
    EXPECT_EQ(service.decryptWithRsa(keyText("rsa1024-private.der"), oaepEncrypt("rsa1024.pem", "small key")),
              "small key");
    EXPECT_FALSE(service.decryptWithRsa(keyText("rsa2048-private.der"), oaepEncrypt("rsa2048.pem", "\xff\xfe")));
    EXPECT_EQ(log.lines().back(), "Error converting decrypted data to string");
    EXPECT_FALSE(service.decryptWithRsa(keyText("rsa1024-private.der"), oaepEncrypt("rsa2048.pem", "other key")));
    EXPECT_EQ(log.lines().back().rfind("Error decrypting data: ", 0), 0u);
}

TEST_F(EncryptServiceTest, DigestsMatchTheCommandLine) {
    std::string data = "challenge bytes";
    std::string salt = "salt";
    writeFile(*dir / "data.bin", data);
    writeFile(*dir / "salt.bin", salt);
    auto digest = [](const std::string& shell) { return run(shell + " | openssl base64 -A"); };

    EXPECT_EQ(service.toSha256Hash(asBytes(data)), digest("openssl dgst -sha256 -binary " + *dir / "data.bin"));
    EXPECT_EQ(service.toSha512(asBytes(data)), digest("openssl dgst -sha512 -binary " + *dir / "data.bin"));
    EXPECT_EQ(service.toSha256HashFirst6(asBytes(data)),
              digest("openssl dgst -sha256 -binary " + *dir / "data.bin" + " | head -c 6"));
    EXPECT_EQ(service.toSha256HashFirst6(asBytes(data)).size(), 8u);
    EXPECT_EQ(service.toSha256HashCombined(asBytes(data), asBytes(salt)),
              digest("cat " + *dir / "data.bin" + " " + *dir / "salt.bin" + " | openssl dgst -sha256 -binary"));
    EXPECT_NE(service.toSha256HashCombined(asBytes(data), asBytes(salt)),
              service.toSha256HashCombined(asBytes(salt), asBytes(data)));
}
