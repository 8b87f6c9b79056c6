// The Socket.IO packet codec: the cursor, packet text both ways, and attachments.
#include "socketio/SocketLogger.hpp"
#include "socketio/SocketPacket.hpp"
#include "socketio/SocketStringReader.hpp"
#include "support/Utf8.hpp"

#include <gtest/gtest.h>

using namespace kelvane;
using namespace kelvane::socketio;

namespace {

const std::string kEmoji = "\xF0\x9F\x98\x80";      // U+1F600, two UTF-16 units
const std::string kReplacement = "\xEF\xBF\xBD";  // U+FFFD

class RecordingLogger : public SocketLogger {
public:
    std::vector<std::string> lines;
    void write(std::string_view level, std::string_view type, std::string_view message) override {
        lines.push_back(std::string(level) + " " + std::string(type) + ": " + std::string(message));
    }
};

class SocketCodec : public ::testing::Test {
protected:
    void SetUp() override {
        logger->setLog(true);
        setDefaultLogger(logger);
    }
    void TearDown() override { setDefaultLogger(previous); }

    SocketPacket parse(std::string_view text) {
        auto packet = parser.parseSocketMessage(text);
        if (!packet) ADD_FAILURE() << "no packet for " << text;
        return packet ? *packet : SocketPacket(PacketType::error);
    }

    std::shared_ptr<SocketLogger> previous = defaultLogger();
    std::shared_ptr<RecordingLogger> logger = std::make_shared<RecordingLogger>();
    SocketParsable parser;
};

Json bytes(std::initializer_list<std::uint8_t> values) { return Json::binary(Bytes(values)); }

}  // namespace

TEST(SocketStringReader, CountsInUTF16Units) {
    SocketStringReader reader("ab" + kEmoji + "-c,d");
    EXPECT_EQ(reader.readUntilOccurence("-"), "ab" + kEmoji);
    EXPECT_EQ(reader.currentIndex(), 5);  // a, b, two halves, then one past the "-"
    EXPECT_EQ(reader.currentCharacter(), "c");
    EXPECT_EQ(reader.readUntilOccurence("x"), "c,d");
    EXPECT_FALSE(reader.hasNext());

    // A read that cuts the pair gives a replacement for each half; a whole read gives it back.
    SocketStringReader split(kEmoji + "z");
    EXPECT_EQ(split.read(1), kReplacement);
    EXPECT_EQ(split.read(1), kReplacement);
    EXPECT_EQ(split.advance(-2), 0);
    EXPECT_EQ(split.read(2), kEmoji);
    EXPECT_EQ(split.readUntilEnd(), "z");
    EXPECT_EQ(split.readUntilEnd(), "");

    // Ill-formed input counts one unit for each replaced piece.
    SocketStringReader broken("\xFF" "a\xE2\x82" "b");
    EXPECT_EQ(broken.read(4), kReplacement + "a" + kReplacement + "b");
    EXPECT_FALSE(broken.hasNext());
}

TEST_F(SocketCodec, ParsesPacketTexts) {
    auto bare = parse("2");
    EXPECT_EQ(bare.type(), PacketType::event);
    EXPECT_EQ(bare.nsp(), "/");
    EXPECT_TRUE(bare.data.empty());
    EXPECT_EQ(bare.id(), -1);
    EXPECT_EQ(bare.placeholders(), 0);

    auto leave = parse("1/chat,");
    EXPECT_EQ(leave.type(), PacketType::disconnect);
    EXPECT_EQ(leave.nsp(), "/chat");
    EXPECT_EQ(leave.placeholders(), -1);
    EXPECT_EQ(parse("0/chat").nsp(), "/chat");

    auto acked = parse("2/chat,7[\"a\"]");
    EXPECT_EQ(acked.nsp(), "/chat");
    EXPECT_EQ(acked.id(), 7);
    EXPECT_EQ(acked.data, std::vector<Json>{"a"});
    EXPECT_EQ(parse("2[\"a\"]").id(), -1);
    EXPECT_EQ(parse("399999999999999999999[1]").id(), -1);  // too long for an id

    EXPECT_EQ(parse("0{\"sid\":\"abc\"}").data, (std::vector<Json>{Json{{"sid", "abc"}}}));
    EXPECT_EQ(parse("4\"not allowed\"").data, std::vector<Json>{"not allowed"});
    EXPECT_EQ(parse("4{\"message\":\"x\"}").data.at(0)["message"], "x");

    // The namespace's emoji takes two units, and the ack digits still follow the comma.
    auto wide = parse("2/r" + kEmoji + "m,12[\"" + kEmoji + "\",{\"n\":1.5}]");
    EXPECT_EQ(wide.nsp(), "/r" + kEmoji + "m");
    EXPECT_EQ(wide.id(), 12);
    EXPECT_EQ(wide.event(), kEmoji);
    EXPECT_EQ(wide.args(), (std::vector<Json>{Json{{"n", 1.5}}}));

    auto binary = parse("51-[\"a\",{\"_placeholder\":true,\"num\":0}]");
    EXPECT_EQ(binary.type(), PacketType::binaryEvent);
    EXPECT_EQ(binary.placeholders(), 1);
    EXPECT_TRUE(binary.binary.empty());
    EXPECT_EQ(binary.data.at(1)["_placeholder"], true);
    EXPECT_EQ(parse("6+2-/x,3[]").placeholders(), 2);

    EXPECT_EQ(logger->lines.at(0), "LOG SocketParser: Parsing 2");
    EXPECT_EQ(logger->lines.at(1),
              "LOG SocketParser: Decoded packet as: SocketPacket {type: 2; data: []; id: -1; placeholders: 0; nsp: /}");
}

TEST_F(SocketCodec, DropsMalformedTextsWithALog) {
    EXPECT_FALSE(parser.parseSocketMessage(""));
    EXPECT_TRUE(logger->lines.empty());

    const std::vector<std::pair<std::string, std::string>> cases = {
        {"7[]", "invalidPacketType"},
        {"x", "invalidPacketType"},
        {"-1", "invalidPacketType"},
        {"5-[]", "invalidPacket"},
        {"5a-[]", "invalidPacket"},
        {"2[\"a\"", "invalidDataArray"},
        {"2{\"a\":1}", "invalidDataArray"},
        {"44{\"message\":\"x\"}", "invalidDataArray"},  // one 4 is the type, the other no ack
        {"0{\"a\":1}]", "invalidDataArray"},            // one bracket: not wrapped
    };
    for (const auto& [text, error] : cases) {
        logger->lines.clear();
        EXPECT_FALSE(parser.parseSocketMessage(text)) << text;
        EXPECT_EQ(logger->lines.back(), "ERROR SocketParser: " + error + ": " + text);
    }
}

TEST_F(SocketCodec, WritesPacketTexts) {
    EXPECT_EQ(SocketPacket(PacketType::event, {"name", 1}).packetString(), "2[\"name\",1]");
    EXPECT_EQ(SocketPacket(PacketType::event, {"name", 1}, 7).packetString(), "27[\"name\",1]");
    EXPECT_EQ(SocketPacket::packetFromEmit({}, -1, "/", false).packetString(), "2[]");
    EXPECT_EQ(SocketPacket(PacketType::connect, {}, -1, "/chat").packetString(), "0/chat,[]");
    EXPECT_EQ(SocketPacket::packetFromEmit({"name", bytes({1})}, -1, "/x", false).packetString(),
              "51-/x,[\"name\",{\"_placeholder\":true,\"num\":0}]");
    EXPECT_EQ(SocketPacket::packetFromEmit({"u", "a/b"}, 3, "/", true).packetString(), "33[\"u\",\"a\\/b\"]");
    EXPECT_TRUE(logger->lines.empty());

    // What the serialiser refuses still goes out, with an empty payload.
    auto raw = SocketPacket::packetFromEmit({"name", bytes({1})}, -1, "/", false, false);
    EXPECT_EQ(raw.type(), PacketType::event);
    EXPECT_EQ(raw.packetString(), "2[]");
    EXPECT_EQ(SocketPacket(PacketType::event, {std::string("\xC3")}).packetString(), "2[]");
    EXPECT_EQ(SocketPacket(PacketType::event, {std::nan("")}).packetString(), "2[]");
    ASSERT_EQ(logger->lines.size(), 3u);
    EXPECT_EQ(logger->lines[0], "ERROR SocketPacket: Error creating JSON object in SocketPacket.completeMessage");

    auto packet = SocketPacket(PacketType::binaryEvent, {"e", Json::array({1, true}), bytes({1, 2, 3})}, 4, "/n", 1);
    EXPECT_EQ(packet.description(),
              "SocketPacket {type: 5; data: [\"e\",[1,true],3 bytes]; id: 4; placeholders: 1; nsp: /n}");
    EXPECT_EQ(SocketPacket(PacketType::event, {3, "x"}).event(), "3");
    EXPECT_EQ(SocketPacket(PacketType::ack, {"a", "b"}).args().size(), 2u);
    EXPECT_TRUE(SocketPacket(PacketType::binaryEvent).args().empty());
}

TEST_F(SocketCodec, AttachmentsRoundTripThroughPlaceholders) {
    const std::vector<Json> items = {
        "upload",
        Json{{"a", bytes({1})}, {"b", Json::array({bytes({2, 2}), Json{{"deep", bytes({3})}}, 5})}},
        Json::array({bytes({}), "text"}),
    };
    auto outgoing = SocketPacket::packetFromEmit(items, 9, "/up", true);
    EXPECT_EQ(outgoing.type(), PacketType::binaryAck);
    EXPECT_EQ(outgoing.placeholders(), 0);
    ASSERT_EQ(outgoing.binary.size(), 4u);  // numbered in key order, depth first
    EXPECT_EQ(outgoing.binary[1], Bytes({2, 2}));
    EXPECT_EQ(outgoing.data[1]["b"][1]["deep"], (Json{{"_placeholder", true}, {"num", 2}}));

    auto text = outgoing.packetString();
    EXPECT_TRUE(text.starts_with("64-/up,9[")) << text;
    parser.waitingPackets.push_back(parse(text));
    for (std::size_t i = 0; i + 1 < outgoing.binary.size(); ++i) {
        EXPECT_FALSE(parser.parseBinaryData(outgoing.binary[i]));
    }
    auto incoming = parser.parseBinaryData(outgoing.binary.back());
    ASSERT_TRUE(incoming);
    EXPECT_TRUE(parser.waitingPackets.empty());
    EXPECT_EQ(incoming->data, items);
    EXPECT_EQ(incoming->id(), 9);

    // Only a boolean true marks a placeholder.
    auto lookalike = parse("51-[{\"_placeholder\":1,\"num\":0},{\"_placeholder\":false}]");
    EXPECT_TRUE(lookalike.addData({7}));
    EXPECT_EQ(lookalike.data[0]["num"], 0);
}

TEST_F(SocketCodec, WaitingPacketsAreAStack) {
    EXPECT_FALSE(parser.parseBinaryData({1}));
    EXPECT_EQ(logger->lines.back(), "ERROR SocketParser: Got data when not remaking packet");

    parser.waitingPackets.push_back(parse("51-[\"first\",{\"_placeholder\":true,\"num\":0}]"));
    parser.waitingPackets.push_back(parse("51-[\"second\",{\"_placeholder\":true,\"num\":0}]"));
    auto done = parser.parseBinaryData({2});
    ASSERT_TRUE(done);
    EXPECT_EQ(done->event(), "second");
    EXPECT_EQ(done->args(), std::vector<Json>{bytes({2})});
    ASSERT_EQ(parser.waitingPackets.size(), 1u);
    EXPECT_EQ(parser.parseBinaryData({3})->args(), std::vector<Json>{bytes({3})});

    // A packet announcing none is completed by the first blob, which it ignores.
    parser.waitingPackets.push_back(parse("50-[\"none\",{\"_placeholder\":true,\"num\":0}]"));
    auto none = parser.parseBinaryData({4});
    ASSERT_TRUE(none);
    EXPECT_TRUE(none->binary.empty());
    EXPECT_EQ(none->data[1]["_placeholder"], true);
}

TEST(SocketJSON, Conversions) {
    EXPECT_EQ(std::get<std::vector<Json>>(toArray("[1,\"a\"]")), (std::vector<Json>{1, "a"}));
    EXPECT_TRUE(std::get<std::vector<Json>>(toArray("[\"\xFF\"]")).empty());  // cannot be encoded
    EXPECT_EQ(std::get<JSONError>(toArray("{}")), JSONError::notArray);
    EXPECT_EQ(std::get<Json>(toDictionary("{\"sid\":\"x\",\"pingInterval\":25000}"))["pingInterval"], 25000);
    EXPECT_EQ(std::get<JSONError>(toDictionary("[]")), JSONError::notNSDictionary);
    EXPECT_EQ(toJSON({Json::object(), nullptr}), "[{},null]");
    EXPECT_FALSE(toJSON({Json::array({bytes({1})})}));
}

namespace {
// Equal values of equal types all the way down (the library's == takes 1 and 1.0 as equal).
bool same(const Json& a, const Json& b) {
    if (a.type() != b.type()) return false;
    if (a.is_array()) return std::equal(a.begin(), a.end(), b.begin(), b.end(), same);
    if (a.is_object()) {
        auto sameMember = [](const auto& x, const auto& y) { return x.key() == y.key() && same(x.value(), y.value()); };
        return std::equal(a.items().begin(), a.items().end(), b.items().begin(), b.items().end(), sameMember);
    }
    return a == b;
}
}  // namespace

// The codec's own reader must build exactly what the JSON library builds.

TEST(SocketJSON, ReadsAsTheJSONLibraryDoes) {
    const std::vector<std::string> texts = {
        R"([0,-0,1,-1,18446744073709551615,18446744073709551616,-9223372036854775808,-9223372036854775809])",
        R"([1.5,-0.0,1e2,1E-2,2.5e+3,1e-400,123456789012345678901234567890,0.1])",
        " [ {\"b\" : [ true , false , null ] , \"a\":{}} ,[],\"\" ]\r\n\t",
        R"([{"k":1,"k":2},"a\"b\\c\/d\b\f\n\r\t","\u00e9\ud83d\ude00"])",
        "[\"" + kEmoji + "\xC3\xA9\"]",
        "\xEF\xBB\xBF[1]",
        std::string(100, '[') + std::string(100, ']'),
        // Refused by both.
        "[1,]", "[01]", "[1.]", "[.5]", "[+1]", "[1e]", "[-]", "[1e999]", "[\"\x01\"]", "[\"\\x\"]", "[\"\\ud800\"]",
        "[\"\xED\xA0\x80\"]", "[\"\xC0\xAF\"]", "[tru]", "[nul]", "{\"a\" 1}", "[1] [2]", "", " ", "[\"abc",
    };
    for (const auto& text : texts) {
        auto ours = toArray(text);
        Json library = Json::parse(text, nullptr, false);
        if (library.is_array()) {
            ASSERT_TRUE(std::holds_alternative<std::vector<Json>>(ours)) << text;
            EXPECT_TRUE(same(Json(std::get<std::vector<Json>>(ours)), library)) << text;
        } else if (isValidUTF8(text)) {
            EXPECT_TRUE(std::holds_alternative<JSONError>(ours)) << text;
        }
    }
}

TEST(SocketCodecDeathTest, StopsWhereTheCodecTrustsItsInput) {
    SocketParsable parser;
    EXPECT_DEATH(parser.parseSocketMessage("21"), "Fatal error: String index is out of bounds");
    EXPECT_DEATH(parser.parseSocketMessage("2/chat,7"), "Fatal error: String index is out of bounds");
    EXPECT_DEATH(parser.parseSocketMessage("51-"), "Fatal error: String index is out of bounds");
    EXPECT_DEATH(parser.parseSocketMessage("2" + kEmoji), "Fatal error: Unexpectedly found nil while unwrapping");
    EXPECT_DEATH(SocketStringReader("ab").read(3), "Fatal error: String index is out of bounds");

    auto fill = [](const std::string& placeholder) {
        auto packet = std::get<SocketPacket>(SocketParsable::parseString("51-[" + placeholder + "]"));
        packet.addData({1});
    };
    EXPECT_DEATH(fill("{\"_placeholder\":true}"), "Fatal error: Unexpectedly found nil while unwrapping");
    EXPECT_DEATH(fill("{\"_placeholder\":true,\"num\":\"0\"}"),
                 "Fatal error: Could not cast value of type 'String' to 'Int'");
    EXPECT_DEATH(fill("{\"_placeholder\":true,\"num\":true}"),
                 "Fatal error: Could not cast value of type 'Bool' to 'Int'");
    EXPECT_DEATH(fill("{\"_placeholder\":true,\"num\":1}"), "Fatal error: Index out of range");
    EXPECT_DEATH(fill("{\"_placeholder\":true,\"num\":-1}"), "Fatal error: Index out of range");
}
