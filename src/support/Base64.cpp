#include <kelvane/Base64.hpp>

#include <array>

namespace kelvane::base64 {
namespace {

constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr std::int8_t kPad = -2;
constexpr std::int8_t kInvalid = -1;

constexpr std::array<std::int8_t, 256> makeTable() {
    std::array<std::int8_t, 256> table{};
    for (auto& entry : table) entry = kInvalid;
    for (int i = 0; i < 64; ++i) table[static_cast<unsigned char>(kAlphabet[i])] = static_cast<std::int8_t>(i);
    table['='] = kPad;
    return table;
}
constexpr auto kTable = makeTable();

// Decodes sextets already stripped of anything but the alphabet and trailing padding.
std::optional<Bytes> decodeClean(std::string_view text) {
    if (text.size() % 4 != 0) return std::nullopt;
    std::size_t padding = 0;
    while (padding < text.size() && text[text.size() - 1 - padding] == '=') ++padding;
    if (padding > 2) return std::nullopt;
    Bytes out;
    out.reserve(text.size() / 4 * 3);
    std::uint32_t accumulator = 0;
    int bits = 0;
    for (std::size_t i = 0; i < text.size() - padding; ++i) {
        auto value = kTable[static_cast<unsigned char>(text[i])];
        if (value < 0) return std::nullopt;
        accumulator = (accumulator << 6) | static_cast<std::uint32_t>(value);
        bits += 6;
        if (bits >= 8) {
            bits -= 8;
            out.push_back(static_cast<std::uint8_t>(accumulator >> bits));
            accumulator &= (1u << bits) - 1;
        }
    }
    return out;
}

}  // namespace

std::string encode(ByteView bytes) {
    std::string out;
    out.reserve((bytes.size() + 2) / 3 * 4);
    std::size_t i = 0;
    for (; i + 3 <= bytes.size(); i += 3) {
        std::uint32_t group = (bytes[i] << 16) | (bytes[i + 1] << 8) | bytes[i + 2];
        out += kAlphabet[(group >> 18) & 63];
        out += kAlphabet[(group >> 12) & 63];
        out += kAlphabet[(group >> 6) & 63];
        out += kAlphabet[group & 63];
    }
    if (std::size_t rest = bytes.size() - i; rest > 0) {
        std::uint32_t group = bytes[i] << 16;
        if (rest == 2) group |= bytes[i + 1] << 8;
        out += kAlphabet[(group >> 18) & 63];
        out += kAlphabet[(group >> 12) & 63];
        out += rest == 2 ? kAlphabet[(group >> 6) & 63] : '=';
        out += '=';
    }
    return out;
}

std::optional<Bytes> decode(std::string_view text) { return decodeClean(text); }

std::optional<Bytes> decodeIgnoringUnknown(std::string_view text) {
    std::string kept;
    kept.reserve(text.size());
    for (char c : text) {
        auto value = kTable[static_cast<unsigned char>(c)];
        if (value == kInvalid) continue;
        // Data after padding is no longer base64.
        if (value >= 0 && !kept.empty() && kept.back() == '=') return std::nullopt;
        kept += c;
    }
    return decodeClean(kept);
}

}  // namespace kelvane::base64
