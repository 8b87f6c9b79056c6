#include <kelvane/Bytes.hpp>

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

}  // namespace kelvane
