#include <kelvane/Bytes.hpp>

namespace kelvane {

bool isValidUTF8(std::string_view text) {
    const auto* bytes = reinterpret_cast<const unsigned char*>(text.data());
    std::size_t size = text.size();
    std::size_t i = 0;
    while (i < size) {
        unsigned char lead = bytes[i];
        if (lead < 0x80) {
            ++i;
            continue;
        }
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
            return false;
        }
        if (i + length > size) return false;
        if (bytes[i + 1] < low || bytes[i + 1] > high) return false;
        for (std::size_t k = 2; k < length; ++k) {
            if ((bytes[i + k] & 0xC0) != 0x80) return false;
        }
        i += length;
    }
    return true;
}

}  // namespace kelvane
