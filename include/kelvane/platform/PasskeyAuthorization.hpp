#pragma once

#include <kelvane/Bytes.hpp>
#include <kelvane/Error.hpp>

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <variant>
#include <vector>

namespace kelvane::platform {

enum class SecurityKeyTransport { bluetooth, nfc, usb };

struct PlatformRegistrationRequest {
    std::string relyingPartyIdentifier;
    Bytes challenge;
    std::string name;
    Bytes userID;
};
struct SecurityKeyRegistrationRequest {
    std::string relyingPartyIdentifier;
    Bytes challenge;
    std::string displayName;
    std::string name;
    Bytes userID;
    std::vector<std::int64_t> credentialParameters;  // COSE algorithm identifiers
};
struct PlatformAssertionRequest {
    std::string relyingPartyIdentifier;
    Bytes challenge;
    std::vector<Bytes> allowedCredentials;
};
struct SecurityKeyAssertionRequest {
    std::string relyingPartyIdentifier;
    Bytes challenge;
    struct Descriptor {
        Bytes credentialID;
        std::vector<SecurityKeyTransport> transports;
    };
    std::vector<Descriptor> allowedCredentials;
};
using AuthorizationRequest = std::variant<PlatformRegistrationRequest, SecurityKeyRegistrationRequest,
                                          PlatformAssertionRequest, SecurityKeyAssertionRequest>;

struct CredentialRegistration {
    Bytes credentialID;
    Bytes rawClientDataJSON;
    std::optional<Bytes> rawAttestationObject;
};
struct CredentialAssertion {
    Bytes credentialID;
    Bytes rawClientDataJSON;
    std::optional<Bytes> userID;
    std::optional<Bytes> rawAuthenticatorData;
    std::optional<Bytes> signature;
};
// The four classes a ceremony can give, told apart by type.
struct SecurityKeyCredentialRegistration : CredentialRegistration {};
struct PlatformCredentialRegistration : CredentialRegistration {};
struct PlatformCredentialAssertion : CredentialAssertion {};
struct SecurityKeyCredentialAssertion : CredentialAssertion {};
// What a ceremony gives back; `std::monostate` for a credential of another kind.
using AuthorizationCredential =
    std::variant<std::monostate, SecurityKeyCredentialRegistration, PlatformCredentialRegistration,
                 PlatformCredentialAssertion, SecurityKeyCredentialAssertion>;

// Runs one passkey or security-key ceremony over the given requests, in order, and answers
// once with the credential the user produced or with an error. Main queue.
class PasskeyAuthorization {
public:
    virtual ~PasskeyAuthorization() = default;
    virtual void performRequests(std::vector<AuthorizationRequest> requests,
                                 std::function<void(AuthorizationCredential)> didComplete,
                                 std::function<void(Error)> didFail) = 0;
    // Whether a window exists to anchor the ceremony's sheet.
    virtual bool hasPresentationAnchor() const = 0;
};

}  // namespace kelvane::platform
