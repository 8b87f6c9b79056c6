#pragma once

#include <kelvane/Bytes.hpp>
#include <kelvane/Error.hpp>
#include <kelvane/Export.hpp>
#include <kelvane/platform/ViewSystem.hpp>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <variant>
#include <vector>

namespace kelvane::platform {

enum class SecurityKeyTransport { bluetooth, nfc, usb };

// A passkey of the platform's own authenticator (synced or device-bound) for a relying party.
struct PlatformRegistrationRequest {
    std::string relyingPartyIdentifier;
    Bytes challenge;
    std::string name;
    Bytes userID;
};
// A credential on a roaming security key. An empty `credentialParameters` leaves the choice of
// algorithms to the authenticator's defaults.
struct SecurityKeyRegistrationRequest {
    std::string relyingPartyIdentifier;
    Bytes challenge;
    std::string displayName;
    std::string name;
    Bytes userID;
    std::vector<std::int64_t> credentialParameters;  // COSE algorithm identifiers, in preference order
};
// An empty allow list lets the user pick any credential of the relying party.
struct PlatformAssertionRequest {
    std::string relyingPartyIdentifier;
    Bytes challenge;
    std::vector<Bytes> allowedCredentials;  // credential IDs
};
struct SecurityKeyAssertionRequest {
    std::string relyingPartyIdentifier;
    Bytes challenge;
    struct Descriptor {
        Bytes credentialID;
        std::vector<SecurityKeyTransport> transports;
        bool operator==(const Descriptor&) const = default;
    };
    std::vector<Descriptor> allowedCredentials;
};
using AuthorizationRequest = std::variant<PlatformRegistrationRequest, SecurityKeyRegistrationRequest,
                                          PlatformAssertionRequest, SecurityKeyAssertionRequest>;

// What an authenticator returns for a new credential: the raw WebAuthn values, unencoded.
struct CredentialRegistration {
    Bytes credentialID;
    Bytes rawClientDataJSON;
    // The CBOR attestation object; some authenticators leave it out.
    std::optional<Bytes> rawAttestationObject;
};
// What an authenticator returns for an assertion.
struct CredentialAssertion {
    Bytes credentialID;
    Bytes rawClientDataJSON;
    // The user handle stored with the credential, when the authenticator keeps one.
    std::optional<Bytes> userID;
    std::optional<Bytes> rawAuthenticatorData;
    std::optional<Bytes> signature;
};
// The four classes a ceremony can give, told apart by type.
struct SecurityKeyCredentialRegistration : CredentialRegistration {};
struct PlatformCredentialRegistration : CredentialRegistration {};
struct PlatformCredentialAssertion : CredentialAssertion {};
struct SecurityKeyCredentialAssertion : CredentialAssertion {};
// What a ceremony gives back; `std::monostate` for a credential of another kind (a password,
// say, when the platform offers one).
using AuthorizationCredential =
    std::variant<std::monostate, SecurityKeyCredentialRegistration, PlatformCredentialRegistration,
                 PlatformCredentialAssertion, SecurityKeyCredentialAssertion>;

// The side of a ceremony that hears its outcome and says where its sheet goes. The platform
// holds it weakly: once it is gone, the ceremony's outcome goes nowhere.
class KELVANE_EXPORT PasskeyAuthorizationDelegate {
public:
    virtual ~PasskeyAuthorizationDelegate();
    // One of the two ends a ceremony, once. Any thread, of the platform's choice. A user who
    // cancels the sheet ends it with an error like any other.
    virtual void didCompleteWithAuthorization(AuthorizationCredential credential) = 0;
    virtual void didCompleteWithError(Error error) = 0;
    // The window that anchors the ceremony's sheet. Main queue, during the ceremony.
    virtual std::shared_ptr<Window> presentationAnchor() = 0;
};

// The platform's passkey and security-key authenticators.
class KELVANE_EXPORT PasskeyAuthorization {
public:
    virtual ~PasskeyAuthorization();
    // Offers the requests together, in the given order of preference: the user answers one of
    // them with one authenticator. Returns at once; the outcome reaches `delegate` later. Main
    // queue.
    virtual void performRequests(std::vector<AuthorizationRequest> requests,
                                 std::weak_ptr<PasskeyAuthorizationDelegate> delegate) = 0;
};

}  // namespace kelvane::platform
