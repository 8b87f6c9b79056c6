#include "services/EncryptService.hpp"

#include "support/Base64.hpp"
#include "support/Utf8.hpp"

#include <kelvane/Log.hpp>

#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/rsa.h>

#include <algorithm>
#include <memory>

namespace kelvane {
namespace {

struct PkeyFree {
    void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
};
struct PkeyCtxFree {
    void operator()(EVP_PKEY_CTX* context) const { EVP_PKEY_CTX_free(context); }
};
struct CipherCtxFree {
    void operator()(EVP_CIPHER_CTX* context) const { EVP_CIPHER_CTX_free(context); }
};
using Pkey = std::unique_ptr<EVP_PKEY, PkeyFree>;
using PkeyCtx = std::unique_ptr<EVP_PKEY_CTX, PkeyCtxFree>;

// OpenSSL's queue of errors, drained, as one text.
std::string opensslError(std::string_view fallback) {
    std::string text;
    while (unsigned long code = ERR_get_error()) {
        char buffer[256];
        ERR_error_string_n(code, buffer, sizeof buffer);
        if (!text.empty()) text += "; ";
        text += buffer;
    }
    return text.empty() ? std::string(fallback) : text;
}

// A PKCS#1 key, exactly as given: the bytes must be what the key encodes back to, so another
// structure (SubjectPublicKeyInfo, PKCS#8) or trailing bytes refuse it.
Pkey decodeRsaKey(const Bytes& der, bool isPrivate, std::string& error) {
    const unsigned char* cursor = der.data();
    auto length = static_cast<long>(der.size());
    Pkey key(isPrivate ? d2i_PrivateKey(EVP_PKEY_RSA, nullptr, &cursor, length)
                       : d2i_PublicKey(EVP_PKEY_RSA, nullptr, &cursor, length));
    bool exact = false;
    if (key) {
        unsigned char* encoded = nullptr;
        int size = isPrivate ? i2d_PrivateKey(key.get(), &encoded) : i2d_PublicKey(key.get(), &encoded);
        exact = size == length && std::equal(der.begin(), der.end(), encoded);
        OPENSSL_free(encoded);
    }
    ERR_clear_error();
    if (!exact) {
        error = isPrivate ? "the data is not a PKCS#1 RSA private key" : "the data is not a PKCS#1 RSA public key";
        return nullptr;
    }
    return key;
}

PkeyCtx oaepContext(EVP_PKEY* key, bool encrypt) {
    PkeyCtx context(EVP_PKEY_CTX_new_from_pkey(nullptr, key, nullptr));
    if (!context) return nullptr;
    int ready = encrypt ? EVP_PKEY_encrypt_init(context.get()) : EVP_PKEY_decrypt_init(context.get());
    if (ready != 1 || EVP_PKEY_CTX_set_rsa_padding(context.get(), RSA_PKCS1_OAEP_PADDING) != 1 ||
        EVP_PKEY_CTX_set_rsa_oaep_md(context.get(), EVP_sha1()) != 1 ||
        EVP_PKEY_CTX_set_rsa_mgf1_md(context.get(), EVP_sha1()) != 1) {
        return nullptr;
    }
    return context;
}

std::string digest(const EVP_MD* type, ByteView first, ByteView second = {}, std::size_t keep = 0) {
    unsigned char out[EVP_MAX_MD_SIZE];
    unsigned int size = 0;
    std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> context(EVP_MD_CTX_new(), &EVP_MD_CTX_free);
    EVP_DigestInit_ex(context.get(), type, nullptr);
    EVP_DigestUpdate(context.get(), first.data(), first.size());
    if (!second.empty()) EVP_DigestUpdate(context.get(), second.data(), second.size());
    EVP_DigestFinal_ex(context.get(), out, &size);
    if (keep > 0 && keep < size) size = static_cast<unsigned int>(keep);
    return base64::encode(ByteView(out, size));
}

}  // namespace

namespace {

// RSA-OAEP one way or the other over base64 inputs, with the log line of each failure.
std::optional<Bytes> rsaOaep(std::string_view keyText, std::string_view dataText, bool isPrivate) {
    auto keyBytes = base64::decode(keyText);
    auto input = keyBytes ? base64::decode(dataText) : std::nullopt;
    if (!input) {
        logLine("Invalid base64 input");
        return std::nullopt;
    }
    std::string error;
    Pkey key = decodeRsaKey(*keyBytes, isPrivate, error);
    // Only the public side states a size: a private key of any size is taken.
    if (key && !isPrivate && EVP_PKEY_get_bits(key.get()) != 2048) {
        error = "the key has " + std::to_string(EVP_PKEY_get_bits(key.get())) + " bits, not 2048";
        key.reset();
    }
    if (!key) {
        logLine("Error creating SecKey: " + error);
        return std::nullopt;
    }
    auto run = isPrivate ? EVP_PKEY_decrypt : EVP_PKEY_encrypt;
    const char* failure = isPrivate ? "Error decrypting data: " : "Error encrypting data: ";
    PkeyCtx context = oaepContext(key.get(), !isPrivate);
    std::size_t size = 0;
    Bytes output;
    if (context && run(context.get(), nullptr, &size, input->data(), input->size()) == 1) {
        output.resize(size);
        if (run(context.get(), output.data(), &size, input->data(), input->size()) == 1) {
            output.resize(size);
            return output;
        }
    }
    logLine(failure + opensslError("the cipher failed"));
    return std::nullopt;
}

}  // namespace

std::optional<std::string> EncryptService::encryptWithRsa(std::string_view publicKey, std::string_view challenge) const {
    auto sealed = rsaOaep(publicKey, challenge, false);
    if (!sealed) return std::nullopt;
    std::string result = base64::encode(*sealed);
    logLine("result -> " + result);
    return result;
}

std::optional<std::string> EncryptService::decryptWithRsa(std::string_view privateKey,
                                                          std::string_view encryptedData) const {
    auto plain = rsaOaep(privateKey, encryptedData, true);
    if (!plain) return std::nullopt;
    std::string text(asText(*plain));
    if (!isValidUTF8(text)) {
        logLine("Error converting decrypted data to string");
        return std::nullopt;
    }
    return text;
}

std::optional<std::string> EncryptService::decryptPushWithAes(std::string_view key,
                                                              std::string_view encryptedData) const {
    // Keys travel as unpadded base64. A length that is already a multiple of 4 empties the
    // key, so a padded or 24-byte key fails on its size below; hosts rely on this rule.
    std::size_t padding = 4 - key.size() % 4;
    std::string repaired = padding == 4 ? std::string() : std::string(key) + std::string(padding, '=');
    auto keyBytes = base64::decode(repaired);
    if (!keyBytes) return std::nullopt;
    auto sealed = base64::decode(encryptedData);
    if (!sealed) return std::nullopt;

    const EVP_CIPHER* cipher = nullptr;
    switch (keyBytes->size()) {
        case 16: cipher = EVP_aes_128_ecb(); break;
        case 24: cipher = EVP_aes_192_ecb(); break;
        case 32: cipher = EVP_aes_256_ecb(); break;
        default:
            logLine("Decryption failed: invalidKeySize");
            return std::nullopt;
    }
    if (sealed->empty() || sealed->size() % 16 != 0) {
        logLine("Decryption failed: dataPaddingRequired");
        return std::nullopt;
    }
    std::unique_ptr<EVP_CIPHER_CTX, CipherCtxFree> context(EVP_CIPHER_CTX_new());
    Bytes plain(sealed->size() + 16);
    int written = 0;
    int last = 0;
    // Padding is removed below, more leniently than PKCS#7 asks.
    if (!context || EVP_DecryptInit_ex(context.get(), cipher, nullptr, keyBytes->data(), nullptr) != 1 ||
        EVP_CIPHER_CTX_set_padding(context.get(), 0) != 1 ||
        EVP_DecryptUpdate(context.get(), plain.data(), &written, sealed->data(), static_cast<int>(sealed->size())) != 1 ||
        EVP_DecryptFinal_ex(context.get(), plain.data() + written, &last) != 1) {
        logLine("Decryption failed: " + opensslError("cipher failure"));
        return std::nullopt;
    }
    plain.resize(static_cast<std::size_t>(written + last));
    if (!plain.empty()) {
        std::size_t cut = plain.back();
        if (cut >= 1 && cut <= plain.size()) plain.resize(plain.size() - cut);
    }
    std::string text(asText(plain));
    if (!isValidUTF8(text)) return std::nullopt;
    return text;
}

std::string EncryptService::toSha256Hash(ByteView dataToDigest) const { return digest(EVP_sha256(), dataToDigest); }

std::string EncryptService::toSha256HashFirst6(ByteView dataToDigest) const {
    return digest(EVP_sha256(), dataToDigest, {}, 6);
}

std::string EncryptService::toSha256HashCombined(ByteView dataToDigest, ByteView salt) const {
    return digest(EVP_sha256(), dataToDigest, salt);
}

std::string EncryptService::toSha512(ByteView dataToDigest) const { return digest(EVP_sha512(), dataToDigest); }

}  // namespace kelvane
