#include "support/Base64.hpp"

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
    while (padding < text.size() && padding < 3 && text[text.size() - 1 - padding] == '=') ++padding;
    if (padding > 2) return std::nullopt;
    const auto* in = reinterpret_cast<const unsigned char*>(text.data());
    const std::size_t groups = text.size() / 4;
    Bytes out(groups * 3 - padding);
    std::uint8_t* cursor = out.data();
    // Whole groups first; the last group may hold padding.
    for (std::size_t g = 0; g + 1 < groups; ++g, in += 4) {
        int a = kTable[in[0]], b = kTable[in[1]], c = kTable[in[2]], d = kTable[in[3]];
        if ((a | b | c | d) < 0) return std::nullopt;
        std::uint32_t group = (std::uint32_t(a) << 18) | (std::uint32_t(b) << 12) | (std::uint32_t(c) << 6) | std::uint32_t(d);
        cursor[0] = static_cast<std::uint8_t>(group >> 16);
        cursor[1] = static_cast<std::uint8_t>(group >> 8);
        cursor[2] = static_cast<std::uint8_t>(group);
        cursor += 3;
    }
    if (groups == 0) return out;
    int values[4];
    for (int i = 0; i < 4; ++i) {
        values[i] = i < 4 - static_cast<int>(padding) ? kTable[in[i]] : 0;
        if (values[i] < 0) return std::nullopt;
    }
    std::uint32_t group = (std::uint32_t(values[0]) << 18) | (std::uint32_t(values[1]) << 12) |
                          (std::uint32_t(values[2]) << 6) | std::uint32_t(values[3]);
    const std::uint8_t last[3] = {static_cast<std::uint8_t>(group >> 16), static_cast<std::uint8_t>(group >> 8),
                                  static_cast<std::uint8_t>(group)};
    for (std::size_t i = 0; i < 3 - padding; ++i) cursor[i] = last[i];
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
