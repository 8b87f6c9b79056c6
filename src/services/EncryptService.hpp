#pragma once

#include <kelvane/Bytes.hpp>

#include <optional>
#include <string>
#include <string_view>

namespace kelvane {

// Sealing, opening and hashing. Binary values cross as standard base64 text; nothing is
// kept between calls, and no call throws: failures give nothing, after a log line where the
// failure has one. Any thread.
class EncryptService {
public:
    // RSA-OAEP (SHA-1, MGF1 with SHA-1, empty label) under a 2048-bit PKCS#1 RSAPublicKey.
    // `challenge` is the base64 of the bytes to seal; the result is base64 too.
    std::optional<std::string> encryptWithRsa(std::string_view publicKey, std::string_view challenge) const;
    // The reverse, under a PKCS#1 RSAPrivateKey of any size; the plain bytes must be UTF-8.
    std::optional<std::string> decryptWithRsa(std::string_view privateKey, std::string_view encryptedData) const;
    // Opens a push payload: AES in ECB mode, the key given as unpadded base64 of 16 or 32
    // bytes, lenient padding removal; the plain bytes must be UTF-8.
    std::optional<std::string> decryptPushWithAes(std::string_view key, std::string_view encryptedData) const;

    std::string toSha256Hash(ByteView dataToDigest) const;
    // The first 6 bytes of the SHA-256 digest: 8 characters.
    std::string toSha256HashFirst6(ByteView dataToDigest) const;
    // SHA-256 of `dataToDigest` followed by `salt`.
    std::string toSha256HashCombined(ByteView dataToDigest, ByteView salt) const;
    std::string toSha512(ByteView dataToDigest) const;
};

}  // namespace kelvane
