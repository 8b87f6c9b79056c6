#pragma once

#include "SoftwareAuthenticator.hpp"

#include <string>
#include <vector>

namespace kelvane::gtk {

// Roaming security keys through libfido2: USB HID keys that the system lets this user open.
// Every call blocks (a ceremony waits for the user's touch): worker threads only.
class SecurityKeys {
public:
    // The device paths of the keys plugged in now; empty when there are none or they cannot
    // be listed.
    static std::vector<std::string> plugged();

    // A credential on the key at `path` for the request's relying party and user, with the
    // first of the request's algorithms that libfido2 knows (ES256 when it names none), and
    // the client data of a browser at https://<relying party id>. The attestation object is
    // the key's own (format, statement and authenticator data). No PIN is asked for.
    static Result<platform::SecurityKeyCredentialRegistration> makeCredential(
        const std::string& path, const platform::SecurityKeyRegistrationRequest& request);
    static Result<platform::SecurityKeyCredentialAssertion> getAssertion(
        const std::string& path, const platform::SecurityKeyAssertionRequest& request);
};

}  // namespace kelvane::gtk
