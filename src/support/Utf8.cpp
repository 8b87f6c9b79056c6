#include "support/Utf8.hpp"

namespace kelvane {

UTF8Sequence nextUTF8Sequence(std::string_view text) {
    const auto* bytes = reinterpret_cast<const unsigned char*>(text.data());
    const unsigned char lead = bytes[0];
    if (lead < 0x80) return {1, true};
    std::size_t length;
    unsigned char low = 0x80, high = 0xBF;
    if (lead >= 0xC2 && lead <= 0xDF) {
        length = 2;
    } else if (lead >= 0xE0 && lead <= 0xEF) {
        length = 3;
        if (lead == 0xE0) low = 0xA0;
        if (lead == 0xED) high = 0x9F;  // no surrogates
    } else if (lead >= 0xF0 && lead <= 0xF4) {
        length = 4;
        if (lead == 0xF0) low = 0x90;
        if (lead == 0xF4) high = 0x8F;
    } else {
        return {1, false};
    }
    std::size_t k = 1;
    for (; k < length && k < text.size(); ++k) {
        const unsigned char next = bytes[k];
        if (next < (k == 1 ? low : 0x80) || next > (k == 1 ? high : 0xBF)) break;
    }
    return {k, k == length};
}

bool isValidUTF8(std::string_view text) {
    std::size_t i = 0;
    while (i < text.size()) {
        if (static_cast<unsigned char>(text[i]) < 0x80) {
            ++i;
            continue;
        }
        auto sequence = nextUTF8Sequence(text.substr(i));
        if (!sequence.valid) return false;
        i += sequence.length;
    }
    return true;
}

namespace {
// Longest first is not needed: no entry is a prefix of another.
constexpr std::string_view kWhiteSpace[] = {
    " ", "\t", "\n", "\v", "\f", "\r", "\xC2\x85", "\xC2\xA0", "\xE1\x9A\x80",
    "\xE2\x80\x80", "\xE2\x80\x81", "\xE2\x80\x82", "\xE2\x80\x83", "\xE2\x80\x84", "\xE2\x80\x85",
    "\xE2\x80\x86", "\xE2\x80\x87", "\xE2\x80\x88", "\xE2\x80\x89", "\xE2\x80\x8A", "\xE2\x80\xA8",
    "\xE2\x80\xA9", "\xE2\x80\xAF", "\xE2\x81\x9F", "\xE3\x80\x80",
};

std::size_t whiteSpaceAt(std::string_view text, bool atEnd) {
    for (auto space : kWhiteSpace) {
        if (atEnd ? text.ends_with(space) : text.starts_with(space)) return space.size();
    }
    return 0;
}
}  // namespace

std::string_view trimmingWhitespacesAndNewlines(std::string_view text) {
    while (auto length = whiteSpaceAt(text, false)) text.remove_prefix(length);
    while (auto length = whiteSpaceAt(text, true)) text.remove_suffix(length);
    return text;
}

}  // namespace kelvane
