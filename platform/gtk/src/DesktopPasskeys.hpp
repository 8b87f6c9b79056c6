#pragma once

#include <kelvane/platform/PasskeyAuthorization.hpp>

#include <string>
#include <vector>

namespace kelvane::gtk {

// Passkeys on the desktop: a software platform authenticator whose private keys live in the
// Secret Service (see PasskeyVault), and security keys through libfido2.
//
// Of the offered requests, the first in their order that an authenticator here can answer is
// answered: a platform registration always (the software authenticator), a platform
// assertion when the keyring holds a passkey of the relying party that the allow list
// admits (the newest, when several are), a security-key request only when a key is plugged
// in (the first libfido2 lists). So a registration offered both ways goes to the software
// authenticator, and an assertion goes to a key only for a credential the keyring lacks.
// When none can, the ceremony ends with an error that joins each request's reason; a failure
// of another kind (the Secret Service unreachable or locked, a key that refuses) ends it with
// that failure. A relying party that is not in `relyingParties` gets an error: as an app's
// associated domains do, the host names the sites whose passkeys its pages may make and use.
//
// No dialog is shown and no gesture asked for: the flags of the software authenticator claim
// user presence and verification on the strength of the unlocked desktop session.
//
// The work runs on a worker thread; the delegate hears the outcome on the main context.
// performRequests on the main thread.
class DesktopPasskeys final : public platform::PasskeyAuthorization {
public:
    explicit DesktopPasskeys(std::vector<std::string> relyingParties);
    void performRequests(std::vector<platform::AuthorizationRequest> requests,
                         std::weak_ptr<platform::PasskeyAuthorizationDelegate> delegate) override;

private:
    std::vector<std::string> relyingParties_;
};

}  // namespace kelvane::gtk
