#pragma once

#include "SoftwareAuthenticator.hpp"

#include <memory>
#include <vector>

namespace kelvane::gtk {

// The software authenticator's passkeys in the default keyring of the session's Secret
// Service, one item each under the schema "com.kelvane.Passkey" with the attributes "rp"
// (relying party id), "credential" and "user" (URL-safe base64 of the credential id and the
// user handle). The secret is JSON: {"privateKey": PKCS#8 DER in URL-safe base64,
// "signCount": n}. Every call blocks on D-Bus: worker threads only.
class PasskeyVault {
public:
    // Opens the Secret Service on the process's session bus, the one DBUS_SESSION_BUS_ADDRESS
    // (or $XDG_RUNTIME_DIR/bus) names; never one launched on the fly. An error when there is no bus, no
    // Secret Service on it, no default keyring, or a locked one: nothing here asks the user to
    // unlock it.
    static Result<std::unique_ptr<PasskeyVault>> open();
    ~PasskeyVault();
    PasskeyVault(const PasskeyVault&) = delete;
    PasskeyVault& operator=(const PasskeyVault&) = delete;

    // Adds the passkey, or replaces the one with the same relying party, credential and user.
    std::optional<Error> store(const StoredPasskey& passkey);
    // The relying party's passkeys whose credential id is in `allowed` (any, when it is
    // empty), newest first.
    Result<std::vector<StoredPasskey>> find(const std::string& relyingPartyIdentifier,
                                            const std::vector<Bytes>& allowed);

    static constexpr const char* kSchemaName = "com.kelvane.Passkey";

private:
    struct Handles;
    explicit PasskeyVault(std::unique_ptr<Handles> handles);
    std::unique_ptr<Handles> handles_;
};

}  // namespace kelvane::gtk
