// Opening push payloads. The first byte chooses whether key and ciphertext are raw text or
// base64 of the bytes that follow, so that most inputs reach the cipher.
#include <kelvane/Log.hpp>

#include "services/EncryptService.hpp"
#include "support/Base64.hpp"
#include "support/Utf8.hpp"

#include <cstdint>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const bool quiet = (kelvane::setLogSink([](std::string_view) {}), true);
    (void)quiet;
    if (size < 2) return 0;
    const std::uint8_t mode = data[0];
    const std::size_t keyLength = std::min<std::size_t>(data[1] % 48, size - 2);
    kelvane::ByteView keyBytes(data + 2, keyLength);
    kelvane::ByteView rest(data + 2 + keyLength, size - 2 - keyLength);

    std::string key = (mode & 1) ? kelvane::base64::encode(keyBytes) : std::string(kelvane::asText(keyBytes));
    if ((mode & 4) && !key.empty() && key.back() == '=') {
        while (!key.empty() && key.back() == '=') key.pop_back();
    }
    std::string sealed = (mode & 2) ? kelvane::base64::encode(rest) : std::string(kelvane::asText(rest));

    kelvane::EncryptService service;
    if (auto plain = service.decryptPushWithAes(key, sealed)) {
        if (!kelvane::isValidUTF8(*plain)) __builtin_trap();
    }
    return 0;
}
