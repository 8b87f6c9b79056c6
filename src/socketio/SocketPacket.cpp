#include "socketio/SocketPacket.hpp"

#include "socketio/SocketLogger.hpp"
#include "socketio/SocketStringReader.hpp"
#include "support/Fatal.hpp"
#include "support/Utf8.hpp"

#include <kelvane/Bytes.hpp>

#include <charconv>
#include <cmath>
#include <cstring>
#include <limits>

#include <locale.h>
#include <stdlib.h>

namespace kelvane::socketio {
namespace {

constexpr std::string_view kParserLogType = "SocketParser";
constexpr std::string_view kPacketLogType = "SocketPacket";

bool isDigit(const std::string& unit) { return unit.size() == 1 && unit[0] >= '0' && unit[0] <= '9'; }

// What the platform's serialiser refuses before it writes anything.
bool serialisable(const Json& value) {
    switch (value.type()) {
        case Json::value_t::binary: return false;
        case Json::value_t::number_float: return std::isfinite(value.get<double>());
        case Json::value_t::array:
        case Json::value_t::object:
            for (const auto& element : value) {
                if (!serialisable(element)) return false;
            }
            return true;
        default: return true;
    }
}

// A text as the serialiser writes it (nlohmann's escapes, lower-case \u00xx), with "/" as "\/"
// as the platform's serialiser writes it. False for text that is not UTF-8.
bool appendString(std::string& out, const std::string& text) {
    if (!isValidUTF8(text)) return false;
    static constexpr char kHex[] = "0123456789abcdef";
    out.push_back('"');
    std::size_t from = 0;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const auto c = static_cast<unsigned char>(text[i]);
        if (c >= 0x20 && c != '"' && c != '\\' && c != '/') continue;
        out.append(text, from, i - from);
        from = i + 1;
        switch (c) {
            case '"': out.append("\\\""); break;
            case '\\': out.append("\\\\"); break;
            case '/': out.append("\\/"); break;
            case '\b': out.append("\\b"); break;
            case '\f': out.append("\\f"); break;
            case '\n': out.append("\\n"); break;
            case '\r': out.append("\\r"); break;
            case '\t': out.append("\\t"); break;
            default: {
                const char escape[6] = {'\\', 'u', '0', '0', kHex[c >> 4], kHex[c & 0xF]};
                out.append(escape, sizeof escape);
            }
        }
    }
    out.append(text, from, std::string::npos);
    out.push_back('"');
    return true;
}

template <class Integer>
void appendInteger(std::string& out, Integer value) {
    char digits[24];
    auto end = std::to_chars(digits, digits + sizeof digits, value).ptr;
    out.append(digits, end);
}

// One value, written straight into `out`. False where the serialiser would refuse it.
bool appendValue(std::string& out, const Json& value) {
    switch (value.type()) {
        case Json::value_t::null: out.append("null"); return true;
        case Json::value_t::boolean: out.append(value.get<bool>() ? "true" : "false"); return true;
        case Json::value_t::number_integer: appendInteger(out, value.get<std::int64_t>()); return true;
        case Json::value_t::number_unsigned: appendInteger(out, value.get<std::uint64_t>()); return true;
        // The serialiser's shortest round-trip form; a number never holds a "/".
        case Json::value_t::number_float: out += value.dump(); return true;
        case Json::value_t::string: return appendString(out, value.get_ref<const std::string&>());
        case Json::value_t::array: {
            out.push_back('[');
            bool first = true;
            for (const auto& element : value) {
                if (!first) out.push_back(',');
                first = false;
                if (!appendValue(out, element)) return false;
            }
            out.push_back(']');
            return true;
        }
        case Json::value_t::object: {
            out.push_back('{');
            bool first = true;
            for (const auto& [key, element] : value.items()) {
                if (!first) out.push_back(',');
                first = false;
                if (!appendString(out, key)) return false;
                out.push_back(':');
                if (!appendValue(out, element)) return false;
            }
            out.push_back('}');
            return true;
        }
        default: return false;
    }
}

// Bytes the value will take at least: room reserved once instead of growing as it is written.
std::size_t sizeHint(const Json& value) {
    switch (value.type()) {
        case Json::value_t::string: return value.get_ref<const std::string&>().size() + 2;
        case Json::value_t::array:
        case Json::value_t::object: {
            std::size_t size = 2;
            for (const auto& [key, element] : value.items()) size += key.size() + 4 + sizeHint(element);
            return size;
        }
        default: return 8;
    }
}

// Appends the list as a JSON array. On failure `out` is left as it was.
bool appendJSON(std::string& out, const std::vector<Json>& values) {
    for (const auto& value : values) {
        if (!serialisable(value)) return false;
    }
    std::size_t size = 2;
    for (const auto& value : values) size += sizeHint(value) + 1;
    out.reserve(out.size() + size);
    const std::size_t start = out.size();
    out.push_back('[');
    for (std::size_t i = 0; i < values.size(); ++i) {
        if (i > 0) out.push_back(',');
        if (!appendValue(out, values[i])) {
            out.resize(start);
            return false;
        }
    }
    out.push_back(']');
    return true;
}

void appendPrinted(std::string& out, const Json& value) {
    switch (value.type()) {
        case Json::value_t::binary:
            out += std::to_string(value.get_binary().size());
            out += " bytes";
            return;
        case Json::value_t::array: {
            out.push_back('[');
            bool first = true;
            for (const auto& element : value) {
                if (!first) out.push_back(',');
                first = false;
                appendPrinted(out, element);
            }
            out.push_back(']');
            return;
        }
        case Json::value_t::object: {
            out.push_back('{');
            bool first = true;
            for (const auto& [key, element] : value.items()) {
                if (!first) out.push_back(',');
                first = false;
                out += json::dump(Json(key));
                out.push_back(':');
                appendPrinted(out, element);
            }
            out.push_back('}');
            return;
        }
        default: out += json::dump(value);
    }
}

PacketType findType(std::size_t attachments, bool ack) {
    if (attachments == 0) return ack ? PacketType::ack : PacketType::event;
    return ack ? PacketType::binaryAck : PacketType::binaryEvent;
}

// Byte buffers are taken out where they stand, so the items are walked in place.
void shred(Json& value, std::vector<Bytes>& binary) {
    if (value.is_binary()) {
        Json placeholder = {{"_placeholder", true}, {"num", static_cast<std::int64_t>(binary.size())}};
        binary.push_back(std::move(static_cast<Bytes&>(value.get_binary())));
        value = std::move(placeholder);
    } else if (value.is_structured()) {
        for (auto& element : value) shred(element, binary);
    }
}

void fillIn(Json& value, const std::vector<Bytes>& binary) {
    if (value.is_object()) {
        auto marker = value.find("_placeholder");
        if (marker != value.end() && marker->is_boolean() && marker->get<bool>()) {
            auto num = value.find("num");
            if (num == value.end()) fatalStop(kUnwrapNil);
            auto index = json::asInt(*num);
            if (!index) castFailure(json::castTypeName(*num), "Int");
            if (*index < 0 || static_cast<std::uint64_t>(*index) >= binary.size()) fatalStop("Index out of range");
            value = Json::binary(binary[static_cast<std::size_t>(*index)]);
            return;
        }
        for (auto& element : value) fillIn(element, binary);
    } else if (value.is_array()) {
        for (auto& element : value) fillIn(element, binary);
    }
}

// The JSON library's parser costs about as much per packet as the whole budget of a parse,
// mostly in its per-character lexer. This reader takes the common shapes of peer payloads in one
// pass and builds the same values; on anything else (an error, a \u escape, deep nesting, a BOM)
// it gives up and the library parser decides, so results are the library's either way.
class QuickJSON {
public:
    explicit QuickJSON(std::string_view text) : at_(text.data()), end_(text.data() + text.size()) {}

    std::optional<Json> parse() {
        Json value;
        skipSpace();
        if (!element(value, 0)) return std::nullopt;
        skipSpace();
        if (at_ != end_) return std::nullopt;
        return value;
    }

    // A whole text that is an array, into `out`, without the value around it.
    bool parseArray(Json::array_t& out) {
        skipSpace();
        if (at_ == end_ || *at_ != '[' || !elements(out, 1)) return false;
        skipSpace();
        return at_ == end_;
    }

private:
    static constexpr int kMaxDepth = 64;

    void skipSpace() {
        while (at_ != end_ && (*at_ == ' ' || *at_ == '\n' || *at_ == '\r' || *at_ == '\t')) ++at_;
    }

    bool take(char c) {
        if (at_ == end_ || *at_ != c) return false;
        ++at_;
        return true;
    }

    bool element(Json& out, int depth) {
        if (at_ == end_) return false;
        switch (*at_) {
            case '[': return array(out, depth + 1);
            case '{': return object(out, depth + 1);
            case '"': {
                std::string text;
                if (!string(text)) return false;
                out = std::move(text);
                return true;
            }
            case 't': return literal("true", out, true);
            case 'f': return literal("false", out, false);
            case 'n': return literal("null", out, nullptr);
            default: return number(out);
        }
    }

    bool array(Json& out, int depth) {
        out = Json::array();
        return elements(out.get_ref<Json::array_t&>(), depth);
    }

    // At the opening bracket.
    bool elements(Json::array_t& elements, int depth) {
        if (depth > kMaxDepth) return false;
        ++at_;
        skipSpace();
        if (take(']')) return true;
        // An event's arrays are short: one allocation covers most.
        elements.reserve(4);
        while (true) {
            elements.emplace_back();
            if (!element(elements.back(), depth)) return false;
            skipSpace();
            if (take(']')) return true;
            if (!take(',')) return false;
            skipSpace();
        }
    }

    bool object(Json& out, int depth) {
        if (depth > kMaxDepth) return false;
        ++at_;
        out = Json::object();
        auto& members = out.get_ref<Json::object_t&>();
        skipSpace();
        if (take('}')) return true;
        while (true) {
            std::string key;
            if (at_ == end_ || *at_ != '"' || !string(key)) return false;
            skipSpace();
            if (!take(':')) return false;
            skipSpace();
            Json member;
            if (!element(member, depth)) return false;
            members.insert_or_assign(std::move(key), std::move(member));  // the last of equal keys wins
            skipSpace();
            if (take('}')) return true;
            if (!take(',')) return false;
            skipSpace();
        }
    }

    template <class Value>
    bool literal(std::string_view word, Json& out, Value value) {
        if (static_cast<std::size_t>(end_ - at_) < word.size() || std::string_view(at_, word.size()) != word) {
            return false;
        }
        at_ += word.size();
        out = value;
        return true;
    }

    // At the opening quote. Well-formed UTF-8 only, as the library demands.
    bool string(std::string& out) {
        ++at_;
        const char* run = at_;
        while (at_ != end_) {
            auto c = static_cast<unsigned char>(*at_);
            if (c == '"') {
                out.append(run, at_);
                ++at_;
                return true;
            }
            if (c < 0x20) return false;
            if (c == '\\') {
                out.append(run, at_);
                if (++at_ == end_) return false;
                switch (*at_) {
                    case '"': out.push_back('"'); break;
                    case '\\': out.push_back('\\'); break;
                    case '/': out.push_back('/'); break;
                    case 'b': out.push_back('\b'); break;
                    case 'f': out.push_back('\f'); break;
                    case 'n': out.push_back('\n'); break;
                    case 'r': out.push_back('\r'); break;
                    case 't': out.push_back('\t'); break;
                    default: return false;
                }
                run = ++at_;
            } else if (c < 0x80) {
                ++at_;
            } else if (!multibyte()) {
                return false;
            }
        }
        return false;
    }

    bool multibyte() {
        auto sequence = nextUTF8Sequence(std::string_view(at_, static_cast<std::size_t>(end_ - at_)));
        if (!sequence.valid) return false;
        at_ += sequence.length;
        return true;
    }

    bool digits() {
        const char* start = at_;
        while (at_ != end_ && *at_ >= '0' && *at_ <= '9') ++at_;
        return at_ != start;
    }

    // Integers are unsigned when not negative and fall back to floating point when too large
    // for 64 bits, as the library reads them.
    bool number(Json& out) {
        const char* start = at_;
        const bool negative = take('-');
        if (at_ == end_) return false;
        if (*at_ == '0') {
            ++at_;
        } else if (*at_ < '1' || *at_ > '9' || !digits()) {
            return false;
        }
        bool whole = true;
        if (take('.')) {
            if (!digits()) return false;
            whole = false;
        }
        if (at_ != end_ && (*at_ == 'e' || *at_ == 'E')) {
            ++at_;
            if (!take('+')) take('-');
            if (!digits()) return false;
            whole = false;
        }
        if (whole) {
            std::uint64_t magnitude = 0;
            bool fits = true;
            for (const char* digit = start + (negative ? 1 : 0); digit != at_; ++digit) {
                auto d = static_cast<std::uint64_t>(*digit - '0');
                if (magnitude > (std::numeric_limits<std::uint64_t>::max() - d) / 10) {
                    fits = false;
                    break;
                }
                magnitude = magnitude * 10 + d;
            }
            if (fits && !negative) {
                out = magnitude;
                return true;
            }
            if (fits && magnitude <= static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max()) + 1) {
                out = static_cast<std::int64_t>(0 - magnitude);
                return true;
            }
        }
        char token[64];
        const auto length = static_cast<std::size_t>(at_ - start);
        if (length >= sizeof token) return false;
        std::memcpy(token, start, length);
        token[length] = '\0';
        static const locale_t c = newlocale(LC_ALL_MASK, "C", nullptr);
        double value = strtod_l(token, nullptr, c);
        if (!std::isfinite(value)) return false;
        out = value;
        return true;
    }

    const char* at_;
    const char* end_;
};

// One well-formed UTF-8 text to one value; the discarded value when it is no JSON.
Json parseJSON(std::string_view text) {
    if (auto quick = QuickJSON(text).parse()) return std::move(*quick);
    return Json::parse(text.begin(), text.end(), nullptr, false);
}

}  // namespace

std::string_view errorName(SocketParsableError error) {
    switch (error) {
        case SocketParsableError::invalidDataArray: return "invalidDataArray";
        case SocketParsableError::invalidPacket: return "invalidPacket";
        case SocketParsableError::invalidPacketType: return "invalidPacketType";
    }
    return "invalidPacket";
}

std::string printed(const Json& value) {
    std::string out;
    appendPrinted(out, value);
    return out;
}

std::string printed(const std::vector<Json>& values) {
    std::string out = "[";
    for (std::size_t i = 0; i < values.size(); ++i) {
        if (i > 0) out.push_back(',');
        appendPrinted(out, values[i]);
    }
    out.push_back(']');
    return out;
}

// SocketPacket

SocketPacket::SocketPacket(PacketType type, std::vector<Json> data, std::int64_t id, std::string nsp,
                           std::int64_t placeholders, std::vector<Bytes> binary)
    : binary(std::move(binary)),
      data(std::move(data)),
      nsp_(std::move(nsp)),
      id_(id),
      type_(type),
      placeholders_(placeholders) {}

std::vector<Json> SocketPacket::args() const {
    if (type_ == PacketType::event || (type_ == PacketType::binaryEvent && !data.empty())) {
        if (data.empty()) return {};
        return std::vector<Json>(data.begin() + 1, data.end());
    }
    return data;
}

std::string SocketPacket::event() const {
    // Only events ask, and an event always names itself; an empty one gets no name rather
    // than a read past the end.
    if (data.empty()) return {};
    if (data[0].is_string()) return data[0].get<std::string>();
    return printed(data[0]);
}

std::string SocketPacket::packetString() const {
    std::string out;
    std::size_t size = 48 + nsp_.size();
    for (const auto& value : data) size += sizeHint(value) + 1;
    out.reserve(size);
    out.push_back(static_cast<char>('0' + static_cast<int>(type_)));
    if (isBinary(type_)) {
        appendInteger(out, binary.size());
        out.push_back('-');
    }
    if (nsp_ != "/") {
        out += nsp_;
        out.push_back(',');
    }
    if (id_ != -1) appendInteger(out, id_);
    if (data.empty()) {
        out += "[]";
    } else if (!appendJSON(out, data)) {
        socketError(kPacketLogType, [] { return "Error creating JSON object in SocketPacket.completeMessage"; });
        out += "[]";
    }
    return out;
}

std::string SocketPacket::description() const {
    return "SocketPacket {type: " + std::to_string(static_cast<int>(type_)) + "; data: " + printed(data) +
           "; id: " + std::to_string(id_) + "; placeholders: " + std::to_string(placeholders_) + "; nsp: " + nsp_ +
           "}";
}

bool SocketPacket::addData(Bytes blob) {
    if (placeholders_ == static_cast<std::int64_t>(binary.size())) return true;
    binary.push_back(std::move(blob));
    if (placeholders_ != static_cast<std::int64_t>(binary.size())) return false;
    fillInPlaceholders();
    return true;
}

void SocketPacket::fillInPlaceholders() {
    for (auto& value : data) fillIn(value, binary);
}

SocketPacket SocketPacket::packetFromEmit(std::vector<Json> items, std::int64_t id, std::string nsp, bool ack,
                                          bool checkForBinary) {
    if (!checkForBinary) return SocketPacket(findType(0, ack), std::move(items), id, std::move(nsp));
    std::vector<Bytes> binary;
    for (auto& item : items) shred(item, binary);
    PacketType type = findType(binary.size(), ack);
    return SocketPacket(type, std::move(items), id, std::move(nsp), 0, std::move(binary));
}

// SocketParsable

std::optional<SocketPacket> SocketParsable::parseSocketMessage(std::string_view message) {
    if (message.empty()) return std::nullopt;
    socketLog(kParserLogType, [&] { return "Parsing " + std::string(message); });
    auto parsed = parseString(message);
    if (auto* packet = std::get_if<SocketPacket>(&parsed)) {
        socketLog(kParserLogType, [&] { return "Decoded packet as: " + packet->description(); });
        return std::move(*packet);
    }
    auto error = std::get<SocketParsableError>(parsed);
    socketError(kParserLogType, [&] { return std::string(errorName(error)) + ": " + std::string(message); });
    return std::nullopt;
}

std::optional<SocketPacket> SocketParsable::parseBinaryData(Bytes data) {
    if (waitingPackets.empty()) {
        socketError(kParserLogType, [] { return "Got data when not remaking packet"; });
        return std::nullopt;
    }
    if (!waitingPackets.back().addData(std::move(data))) return std::nullopt;
    SocketPacket packet = std::move(waitingPackets.back());
    waitingPackets.pop_back();
    return packet;
}

std::variant<SocketPacket, SocketParsableError> SocketParsable::parseString(std::string_view message) {
    SocketStringReader reader(message);
    auto typeNumber = parseInteger(reader.read(1));
    if (!typeNumber || *typeNumber < 0 || *typeNumber > 6) return SocketParsableError::invalidPacketType;
    const auto type = static_cast<PacketType>(*typeNumber);
    if (!reader.hasNext()) return SocketPacket(type);

    std::string nsp = "/";
    std::int64_t placeholders = -1;
    if (isBinary(type)) {
        auto holders = parseInteger(reader.readUntilOccurence("-"));
        if (!holders) return SocketParsableError::invalidPacket;
        placeholders = *holders;
    }
    if (reader.currentCharacter() == "/") nsp = reader.readUntilOccurence(",");
    if (!reader.hasNext()) return SocketPacket(type, {}, -1, std::move(nsp), placeholders);

    std::string idText;
    if (type == PacketType::error) {
        reader.advance(-1);
    } else {
        for (std::string unit = reader.read(1); isDigit(unit); unit = reader.read(1)) idText += unit;
        reader.advance(-2);
    }
    reader.advance(1);
    // In an all-ASCII message a unit index is a byte index, so the rest needs no copy.
    std::string dataText;
    std::string_view dataView;
    if (isASCII(message)) {
        dataView = message.substr(static_cast<std::size_t>(reader.currentIndex()));
    } else {
        dataText = reader.readUntilEnd();
        dataView = dataText;
    }
    if ((type == PacketType::error || type == PacketType::connect) && !dataView.starts_with('[') &&
        !dataView.ends_with(']')) {
        dataText = "[" + std::string(dataView) + "]";
        dataView = dataText;
    }
    auto data = parseData(dataView);
    if (!std::holds_alternative<std::vector<Json>>(data)) return SocketParsableError::invalidDataArray;
    std::int64_t id = idText.empty() ? -1 : parseInteger(idText).value_or(-1);
    return SocketPacket(type, std::get<std::vector<Json>>(std::move(data)), id, std::move(nsp), placeholders);
}

std::variant<std::vector<Json>, SocketParsableError> SocketParsable::parseData(std::string_view text) {
    auto values = toArray(text);
    if (auto* array = std::get_if<std::vector<Json>>(&values)) return std::move(*array);
    return SocketParsableError::invalidDataArray;
}

// JSON conversions

std::optional<std::string> toJSON(const std::vector<Json>& values) {
    std::string out;
    if (!appendJSON(out, values)) return std::nullopt;
    return out;
}

std::variant<std::vector<Json>, JSONError> toArray(std::string_view text) {
    // A text the quick reader takes is well-formed UTF-8 throughout.
    if (Json::array_t array; QuickJSON(text).parseArray(array)) return array;
    if (!isValidUTF8(text)) return std::vector<Json>{};
    Json root = Json::parse(text.begin(), text.end(), nullptr, false);
    if (!root.is_array()) return JSONError::notArray;
    return std::move(root.get_ref<Json::array_t&>());
}

std::variant<Json, JSONError> toDictionary(std::string_view text) {
    if (!isValidUTF8(text)) return Json::object();
    Json root = parseJSON(text);
    if (!root.is_object()) return JSONError::notNSDictionary;
    return root;
}

}  // namespace kelvane::socketio
