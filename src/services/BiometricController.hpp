#pragma once

#include <functional>
#include <string>

namespace kelvane {

// The device owner's authentication: biometry, or the passcode as fallback.
class BiometricController {
public:
    // Authenticates the device owner. `completion` gets true with "Registration Success", or
    // false with the words for the platform's error code. It runs on the platform's reply
    // thread, or at once on the caller's when authentication cannot start; it never runs when
    // the platform reports a failure without an error. Main queue.
    void authenticationWithTouchID(std::function<void(bool, std::string)> completion) const;

    // Words for an LAError code; codes of this table's own go to the biometry table.
    static std::string evaluateAuthenticationPolicyMessageForLA(int errorCode);
    // Words for the biometry LAError codes; a fixed sentence for any other code.
    static std::string evaluatePolicyFailErrorMessageForLA(int errorCode);
};

}  // namespace kelvane
