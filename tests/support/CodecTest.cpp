// Base64, JSON reads and record encoding.
#include "intake/PayloadDataModel.hpp"
#include "support/Base64.hpp"
#include "support/Record.hpp"
#include "support/UUID.hpp"

#include <kelvane/Error.hpp>
#include <kelvane/Json.hpp>

#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <regex>
#include <set>

using namespace kelvane;

namespace {
std::string text(const std::optional<Bytes>& bytes) { return bytes ? std::string(asText(*bytes)) : "<none>"; }
}  // namespace

TEST(Base64, EncodesWithPadding) {
    EXPECT_EQ(base64::encode(std::string_view("")), "");
    EXPECT_EQ(base64::encode(std::string_view("f")), "Zg==");
    EXPECT_EQ(base64::encode(std::string_view("fo")), "Zm8=");
    EXPECT_EQ(base64::encode(std::string_view("foo")), "Zm9v");
    const Bytes high{0xFB, 0xFF};
    EXPECT_EQ(base64::encode(high), "+/8=");
}

TEST(Base64, StrictDecodingAcceptsOnlyWholePaddedGroups) {
    EXPECT_EQ(text(base64::decode("")), "");
    EXPECT_EQ(text(base64::decode("Zm9vYmFy")), "foobar");
    EXPECT_EQ(text(base64::decode("Zg==")), "f");
    for (const char* bad : {"Zg", "Zg=", "Zm9v\n", " Zm9v", "Zm-v", "Zm_v", "Z===", "Zg==Zg==", "=Zg=", "Zm9vY"}) {
        EXPECT_FALSE(base64::decode(bad)) << bad;
    }
}

TEST(Base64, LenientDecodingSkipsUnknownCharacters) {
    EXPECT_EQ(text(base64::decodeIgnoringUnknown("Zm9v\nYmFy")), "foobar");
    EXPECT_EQ(text(base64::decodeIgnoringUnknown("Z m 9 v !")), "foo");
    EXPECT_EQ(text(base64::decodeIgnoringUnknown("Zg==")), "f");
    EXPECT_FALSE(base64::decodeIgnoringUnknown("Zm9"));
    EXPECT_FALSE(base64::decodeIgnoringUnknown("Zg==Zg=="));
}

TEST(JsonReads, AWrongTypeCountsAsAbsent) {
    auto object = *json::parse(R"({"s":"1","i":1,"f":1.0,"h":1.5,"b":true,"o":{},"a":[],"n":null,"big":18446744073709551615})");
    EXPECT_EQ(json::getString(object, "s"), "1");
    EXPECT_FALSE(json::getString(object, "i"));
    EXPECT_EQ(json::getInt(object, "i"), 1);
    EXPECT_EQ(json::getInt(object, "f"), 1);
    EXPECT_FALSE(json::getInt(object, "h"));
    EXPECT_FALSE(json::getInt(object, "s"));
    EXPECT_FALSE(json::getInt(object, "b"));
    EXPECT_FALSE(json::getInt(object, "big"));
    EXPECT_EQ(json::getBool(object, "b"), true);
    EXPECT_FALSE(json::getBool(object, "i"));
    EXPECT_TRUE(json::getObject(object, "o"));
    EXPECT_FALSE(json::getObject(object, "a"));
    EXPECT_TRUE(json::getArray(object, "a"));
    EXPECT_TRUE(json::get(object, "n"));
    EXPECT_FALSE(json::get(object, "missing"));
    EXPECT_FALSE(json::getString(Json::array({"s"}), "s"));
}

TEST(JsonReads, ParseNeverThrows) {
    EXPECT_FALSE(json::parse("{"));
    EXPECT_FALSE(json::parse("\"\xff\""));
    EXPECT_FALSE(json::parse(""));
    EXPECT_EQ(json::parse("3")->get<int>(), 3);
    Json badText = std::string("\xff");
    EXPECT_EQ(json::dump(badText), "\"\xEF\xBF\xBD\"");
}

TEST(Records, EncodeCompactlyWithEscapedSlashesAndRefuseWhatCannotBeEncoded) {
    EXPECT_EQ(*record::encode(Json{{"url", "https://a.test/x"}}), R"({"url":"https:\/\/a.test\/x"})");
    auto badText = record::encode(Json{{"k", std::string("\xC3")}});
    ASSERT_FALSE(badText);
    EXPECT_EQ(badText.error().domain, "EncodingError");
    EXPECT_FALSE(record::encode(Json{{"k", std::nan("")}}));
}

TEST(Records, PayloadRoundTripsThroughItsConveniences) {
    PayloadDataModel model(1, "kn_auth", 0, DataClass("https://page.test/a", Socket("req-1", "wss://s.test"), "push"));
    auto text = model.jsonString();
    ASSERT_TRUE(text);
    auto parsed = json::parse(*text);
    ASSERT_TRUE(parsed);
    EXPECT_EQ((*parsed)["data"]["socket"]["requestId"], "req-1");
    EXPECT_FALSE((*parsed)["data"]["socket"].contains("requestID"));
    auto back = PayloadDataModel::fromString(*text);
    ASSERT_TRUE(back) << back.error().text();
    EXPECT_EQ(*back, model);

    auto changed = model.with(std::nullopt, "other");
    EXPECT_EQ(changed.id, "other");
    EXPECT_EQ(changed.data, model.data);
    EXPECT_EQ(model.data.socket.with(std::nullopt, "wss://t").requestID, "req-1");

    char path[] = "/tmp/kelvane-record-XXXXXX";
    int fd = mkstemp(path);
    ASSERT_GE(fd, 0);
    close(fd);
    std::ofstream(path) << *text;
    auto fromFile = PayloadDataModel::fromURL(*URL::make(std::string("file://") + path));
    std::remove(path);
    ASSERT_TRUE(fromFile) << fromFile.error().text();
    EXPECT_EQ(*fromFile, model);
}

TEST(Records, DecodingNamesTheFirstProblem) {
    auto missing = Socket::fromString(R"({"url":"u"})");
    ASSERT_FALSE(missing);
    EXPECT_NE(missing.error().message.find("\"requestId\""), std::string::npos);

    auto wrongType = PayloadDataModel::fromString(
        R"({"version":1,"id":"kn_auth","isEncrypted":1,"data":"ciphertext"})");
    ASSERT_FALSE(wrongType);
    EXPECT_NE(wrongType.error().message.find("\"data\""), std::string::npos);

    auto notAscii = Socket::fromString("{\"requestId\":\"\xC3\xA9\",\"url\":\"u\"}", StringEncoding::ascii);
    ASSERT_FALSE(notAscii);
    EXPECT_EQ(notAscii.error().domain, "JSONDecoding");
    EXPECT_EQ(notAscii.error().code, 0);
    EXPECT_FALSE(Socket("\xC3\xA9", "u").jsonString(StringEncoding::ascii));
}

TEST(Errors, HaveATextFormAndADescription) {
    Error error{"NSURLErrorDomain", -1004, "Could not connect to the server."};
    EXPECT_EQ(error.text(), "Error Domain=NSURLErrorDomain Code=-1004 \"Could not connect to the server.\"");
    EXPECT_EQ(error.localizedDescription(), "Could not connect to the server.");
    Error bare{"D", 3, ""};
    EXPECT_NE(bare.localizedDescription().find("D error 3"), std::string::npos);
}

TEST(UUIDs, AreRandomUpperCaseVersion4Texts) {
    std::regex form("[0-9A-F]{8}-[0-9A-F]{4}-4[0-9A-F]{3}-[89AB][0-9A-F]{3}-[0-9A-F]{12}");
    std::set<std::string> seen;
    for (int i = 0; i < 100; ++i) {
        auto uuid = makeUUIDString();
        EXPECT_TRUE(std::regex_match(uuid, form)) << uuid;
        seen.insert(uuid);
    }
    EXPECT_EQ(seen.size(), 100u);
}
