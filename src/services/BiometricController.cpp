#include "services/BiometricController.hpp"

#include <kelvane/Log.hpp>

#include "support/Ports.hpp"

namespace kelvane {

void BiometricController::authenticationWithTouchID(std::function<void(bool, std::string)> completion) const {
    using platform::LAPolicy;
    auto context = ports::localAuthentication()->makeContext();
    context->setLocalizedFallbackTitle("Use Passcode");
    auto can = context->canEvaluatePolicy(LAPolicy::deviceOwnerAuthentication);
    if (!can.can) {
        logLine("Local Authentication Error");
        if (can.errorCode) completion(false, evaluateAuthenticationPolicyMessageForLA(*can.errorCode));
        return;
    }
    logLine("Local authentication " + context->description());
    // The reply keeps the context alive until the platform has answered.
    context->evaluatePolicy(LAPolicy::deviceOwnerAuthentication, "To access the secure data",
                            [context, completion = std::move(completion)](bool success, std::optional<int> errorCode) {
                                logLine(std::string("Error : ") + (success ? "true" : "false"));
                                if (success) {
                                    // Verification reports the same words.
                                    completion(true, "Registration Success");
                                } else if (errorCode) {
                                    completion(false, evaluateAuthenticationPolicyMessageForLA(*errorCode));
                                }
                            });
}

std::string BiometricController::evaluateAuthenticationPolicyMessageForLA(int errorCode) {
    switch (errorCode) {
        case -1: return "The user failed to provide valid credentials";
        case -9: return "Authentication was cancelled by application";
        case -10: return "The context is invalid";
        case -1004: return "Not interactive";
        case -5: return "Passcode is not set on the device";
        case -4: return "Authentication was cancelled by the system";
        case -2: return "The user did cancel";
        case -3: return "The user chose to use the fallback";
        default: return evaluatePolicyFailErrorMessageForLA(errorCode);
    }
}

std::string BiometricController::evaluatePolicyFailErrorMessageForLA(int errorCode) {
    switch (errorCode) {
        case -6:
            return "Authentication could not start because the device does not support biometric authentication.";
        case -8:
            return "Authentication could not continue because the user has been locked out of biometric "
                   "authentication, due to failing authentication too many times.";
        case -7:
            return "Authentication could not start because the user has not enrolled in biometric authentication.";
        default: return "Did not find error code on LAError object";
    }
}

}  // namespace kelvane
