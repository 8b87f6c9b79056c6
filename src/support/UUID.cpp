#include "support/UUID.hpp"

#include <array>
#include <cstdint>
#include <random>

#include <openssl/rand.h>

namespace kelvane {

std::string makeUUIDString() {
    std::array<std::uint8_t, 16> bytes{};
    if (RAND_bytes(bytes.data(), static_cast<int>(bytes.size())) != 1) {
        // The system generator is the fallback when OpenSSL's pool cannot be seeded.
        std::random_device device;
        for (auto& byte : bytes) byte = static_cast<std::uint8_t>(device());
    }
    bytes[6] = static_cast<std::uint8_t>((bytes[6] & 0x0F) | 0x40);
    bytes[8] = static_cast<std::uint8_t>((bytes[8] & 0x3F) | 0x80);
    static constexpr char kHex[] = "0123456789ABCDEF";
    std::string text;
    text.reserve(36);
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        if (i == 4 || i == 6 || i == 8 || i == 10) text += '-';
        text += kHex[bytes[i] >> 4];
        text += kHex[bytes[i] & 15];
    }
    return text;
}

}  // namespace kelvane
