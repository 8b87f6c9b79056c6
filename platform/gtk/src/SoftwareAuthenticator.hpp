#pragma once

#include <kelvane/Bytes.hpp>
#include <kelvane/Error.hpp>
#include <kelvane/platform/PasskeyAuthorization.hpp>

#include <cstdint>
#include <string>
#include <string_view>

namespace kelvane::gtk {

// The errors of the desktop's passkey ports, in this domain.
inline constexpr const char* kPasskeyErrorDomain = "com.kelvane.passkeys";
enum PasskeyErrorCode : std::int64_t {
    passkeyCryptoFailed = 1,
    passkeyNoCredential = 2,
    passkeyStoreUnavailable = 3,
    passkeyStoreLocked = 4,
    passkeyStoreFailed = 5,
    passkeyNoSecurityKey = 6,
    passkeySecurityKeyFailed = 7,
    passkeyNoRequest = 8,
    passkeyRelyingPartyNotAllowed = 9,
};
Error passkeyError(PasskeyErrorCode code, std::string message);

// What the software authenticator keeps of one credential; it lives in the Secret Service.
struct StoredPasskey {
    std::string relyingPartyIdentifier;
    Bytes credentialID;
    Bytes userHandle;
    Bytes privateKey;  // PKCS#8 DER of the P-256 key
    std::uint32_t signCount = 0;
};

// The few CBOR items WebAuthn's structures need, in their canonical (shortest) form.
class Cbor {
public:
    Cbor& head(std::uint8_t major, std::uint64_t value);
    Cbor& integer(std::int64_t value);
    Cbor& bytes(ByteView value);
    Cbor& text(std::string_view value);
    Cbor& map(std::size_t entries) { return head(5, entries); }
    // An item encoded elsewhere, as it is.
    Cbor& raw(ByteView encoded);

    Bytes out;
};

// URL-safe base64 without padding, as WebAuthn writes binary values.
std::string base64url(ByteView data);
std::optional<Bytes> fromBase64url(std::string_view text);

// The client data a browser writes for a ceremony of `type` ("webauthn.create" or
// "webauthn.get") at https://<relying party id>.
Bytes clientDataJSON(std::string_view type, ByteView challenge, const std::string& relyingPartyIdentifier);

// A WebAuthn authenticator in software: P-256 keys (ES256), attestation "none", AAGUID zero.
// It stores nothing; the caller keeps the passkey it returns. Pure computation, any thread.
class SoftwareAuthenticator {
public:
    struct Registration {
        platform::PlatformCredentialRegistration credential;
        StoredPasskey passkey;  // sign count 0
    };
    static Result<Registration> makeCredential(const platform::PlatformRegistrationRequest& request);

    // Signs authenticator data || SHA-256(client data) with the passkey's key, counting one
    // more signature into `passkey.signCount`.
    static Result<platform::PlatformCredentialAssertion> getAssertion(const platform::PlatformAssertionRequest& request,
                                                                      StoredPasskey& passkey);
};

}  // namespace kelvane::gtk
