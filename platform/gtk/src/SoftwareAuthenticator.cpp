#include "SoftwareAuthenticator.hpp"

#include <nlohmann/json.hpp>

#include <openssl/core_names.h>
#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/rand.h>
#include <openssl/sha.h>
#include <openssl/x509.h>

#include <array>
#include <memory>

namespace kelvane::gtk {

using namespace platform;

Error passkeyError(PasskeyErrorCode code, std::string message) {
    return Error{kPasskeyErrorDomain, code, std::move(message)};
}

namespace {

struct KeyFree {
    void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
    void operator()(EVP_MD_CTX* context) const { EVP_MD_CTX_free(context); }
    void operator()(PKCS8_PRIV_KEY_INFO* info) const { PKCS8_PRIV_KEY_INFO_free(info); }
};
using Key = std::unique_ptr<EVP_PKEY, KeyFree>;

void appendBigEndian(Bytes& out, std::uint64_t value, int width) {
    for (int shift = (width - 1) * 8; shift >= 0; shift -= 8) out.push_back(static_cast<std::uint8_t>(value >> shift));
}

Bytes sha256(ByteView data) {
    Bytes digest(SHA256_DIGEST_LENGTH);
    SHA256(data.data(), data.size(), digest.data());
    return digest;
}

constexpr std::uint8_t kUserPresent = 0x01, kAttestedCredential = 0x40;

Bytes authenticatorData(const std::string& relyingPartyIdentifier, std::uint8_t flags, std::uint32_t signCount) {
    Bytes data = sha256(asBytes(relyingPartyIdentifier));
    data.push_back(flags);
    appendBigEndian(data, signCount, 4);
    return data;
}

Error cryptoError(const char* what) {
    return passkeyError(passkeyCryptoFailed, std::string("Passkey: ") + what + " failed");
}

}  // namespace

Cbor& Cbor::head(std::uint8_t major, std::uint64_t value) {
    major <<= 5;
    if (value < 24) {
        out.push_back(major | static_cast<std::uint8_t>(value));
    } else if (value <= 0xFF) {
        out.insert(out.end(), {static_cast<std::uint8_t>(major | 24), static_cast<std::uint8_t>(value)});
    } else if (value <= 0xFFFF) {
        out.insert(out.end(), {static_cast<std::uint8_t>(major | 25), static_cast<std::uint8_t>(value >> 8),
                               static_cast<std::uint8_t>(value)});
    } else {
        out.push_back(major | 26);
        for (int shift = 24; shift >= 0; shift -= 8) out.push_back(static_cast<std::uint8_t>(value >> shift));
    }
    return *this;
}

Cbor& Cbor::integer(std::int64_t value) {
    return value >= 0 ? head(0, static_cast<std::uint64_t>(value)) : head(1, static_cast<std::uint64_t>(-1 - value));
}

Cbor& Cbor::bytes(ByteView value) {
    head(2, value.size());
    out.insert(out.end(), value.begin(), value.end());
    return *this;
}

Cbor& Cbor::text(std::string_view value) {
    head(3, value.size());
    out.insert(out.end(), value.begin(), value.end());
    return *this;
}

Cbor& Cbor::raw(ByteView encoded) {
    out.insert(out.end(), encoded.begin(), encoded.end());
    return *this;
}

std::string base64url(ByteView data) {
    std::string text(4 * ((data.size() + 2) / 3) + 1, '\0');
    int length =
        EVP_EncodeBlock(reinterpret_cast<unsigned char*>(text.data()), data.data(), static_cast<int>(data.size()));
    text.resize(static_cast<std::size_t>(length));
    while (!text.empty() && text.back() == '=') text.pop_back();
    for (auto& character : text) {
        if (character == '+') character = '-';
        if (character == '/') character = '_';
    }
    return text;
}

std::optional<Bytes> fromBase64url(std::string_view text) {
    std::string standard(text);
    for (auto& character : standard) {
        if (character == '-')
            character = '+';
        else if (character == '_')
            character = '/';
        else if (character == '+' || character == '/' || character == '=')
            return std::nullopt;
    }
    std::size_t padding = (4 - standard.size() % 4) % 4;
    if (padding == 3) return std::nullopt;
    standard.append(padding, '=');
    Bytes out(standard.size() / 4 * 3);
    int length = EVP_DecodeBlock(out.data(), reinterpret_cast<const unsigned char*>(standard.data()),
                                 static_cast<int>(standard.size()));
    if (length < 0) return std::nullopt;
    out.resize(static_cast<std::size_t>(length) - padding);
    return out;
}

Bytes clientDataJSON(std::string_view type, ByteView challenge, const std::string& relyingPartyIdentifier) {
    // Members in a browser's order; the relying party reads them by name.
    nlohmann::ordered_json data{{"type", type},
                                {"challenge", base64url(challenge)},
                                {"origin", "https://" + relyingPartyIdentifier},
                                {"crossOrigin", false}};
    auto text = data.dump();
    return Bytes(text.begin(), text.end());
}

Result<SoftwareAuthenticator::Registration> SoftwareAuthenticator::makeCredential(
    const PlatformRegistrationRequest& request) {
    Key key(EVP_PKEY_Q_keygen(nullptr, nullptr, "EC", "P-256"));
    if (!key) return cryptoError("key generation");
    std::array<std::uint8_t, 65> point{};
    std::size_t pointLength = 0;
    if (EVP_PKEY_get_octet_string_param(key.get(), OSSL_PKEY_PARAM_PUB_KEY, point.data(), point.size(), &pointLength) !=
            1 ||
        pointLength != point.size() || point[0] != 0x04) {
        return cryptoError("public key export");
    }
    std::unique_ptr<PKCS8_PRIV_KEY_INFO, KeyFree> info(EVP_PKEY2PKCS8(key.get()));
    unsigned char* der = nullptr;
    int derLength = info ? i2d_PKCS8_PRIV_KEY_INFO(info.get(), &der) : -1;
    if (derLength <= 0) return cryptoError("private key export");
    StoredPasskey passkey{request.relyingPartyIdentifier, Bytes(32), request.userID, Bytes(der, der + derLength), 0};
    OPENSSL_clear_free(der, static_cast<std::size_t>(derLength));
    if (RAND_bytes(passkey.credentialID.data(), static_cast<int>(passkey.credentialID.size())) != 1) {
        return cryptoError("credential id generation");
    }

    // COSE_Key of an ES256 key on P-256: kty EC2, alg -7, crv 1, x, y.
    Cbor coseKey;
    coseKey.map(5).integer(1).integer(2).integer(3).integer(-7).integer(-1).integer(1);
    coseKey.integer(-2).bytes(ByteView(point).subspan(1, 32)).integer(-3).bytes(ByteView(point).subspan(33, 32));

    // Presence is the user's own action in the app that started the ceremony. No password or
    // other proof is asked for here, so the user-verified flag stays clear: a relying party that
    // requires verification refuses these credentials rather than trusting a claim.
    Bytes authData = authenticatorData(request.relyingPartyIdentifier, kUserPresent | kAttestedCredential, 0);
    authData.insert(authData.end(), 16, 0);  // AAGUID: none claimed
    appendBigEndian(authData, passkey.credentialID.size(), 2);
    authData.insert(authData.end(), passkey.credentialID.begin(), passkey.credentialID.end());
    authData.insert(authData.end(), coseKey.out.begin(), coseKey.out.end());

    Cbor attestation;
    attestation.map(3).text("fmt").text("none").text("attStmt").map(0).text("authData").bytes(authData);

    Registration registration;
    registration.credential.credentialID = passkey.credentialID;
    registration.credential.rawClientDataJSON =
        clientDataJSON("webauthn.create", request.challenge, request.relyingPartyIdentifier);
    registration.credential.rawAttestationObject = std::move(attestation.out);
    registration.passkey = std::move(passkey);
    return registration;
}

Result<PlatformCredentialAssertion> SoftwareAuthenticator::getAssertion(const PlatformAssertionRequest& request,
                                                                        StoredPasskey& passkey) {
    const unsigned char* der = passkey.privateKey.data();
    Key key(d2i_AutoPrivateKey(nullptr, &der, static_cast<long>(passkey.privateKey.size())));
    if (!key) return cryptoError("reading the stored key");

    PlatformCredentialAssertion assertion;
    assertion.credentialID = passkey.credentialID;
    assertion.rawClientDataJSON = clientDataJSON("webauthn.get", request.challenge, request.relyingPartyIdentifier);
    assertion.userID = passkey.userHandle;
    const std::uint32_t count = passkey.signCount + 1;
    Bytes authData = authenticatorData(request.relyingPartyIdentifier, kUserPresent, count);

    Bytes signed_ = authData;
    auto clientHash = sha256(assertion.rawClientDataJSON);
    signed_.insert(signed_.end(), clientHash.begin(), clientHash.end());
    std::unique_ptr<EVP_MD_CTX, KeyFree> context(EVP_MD_CTX_new());
    std::size_t length = 0;
    if (!context || EVP_DigestSignInit(context.get(), nullptr, EVP_sha256(), nullptr, key.get()) != 1 ||
        EVP_DigestSign(context.get(), nullptr, &length, signed_.data(), signed_.size()) != 1) {
        return cryptoError("signing");
    }
    Bytes signature(length);
    if (EVP_DigestSign(context.get(), signature.data(), &length, signed_.data(), signed_.size()) != 1) {
        return cryptoError("signing");
    }
    signature.resize(length);  // DER: its length varies
    assertion.rawAuthenticatorData = std::move(authData);
    assertion.signature = std::move(signature);
    passkey.signCount = count;
    return assertion;
}

}  // namespace kelvane::gtk
