#pragma once

#include <kelvane/Export.hpp>

#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace kelvane::platform {

enum class LAPolicy { deviceOwnerAuthenticationWithBiometrics = 1, deviceOwnerAuthentication = 2 };

// One authentication of the device owner. The reply may come on any thread.
class KELVANE_EXPORT LAContext {
public:
    virtual ~LAContext();
    virtual void setLocalizedFallbackTitle(const std::string& title) = 0;
    // Nothing when the policy can be evaluated, else the LAError code (absent when the
    // platform gave no error object).
    struct CanEvaluate {
        bool can = false;
        std::optional<int> errorCode;
    };
    virtual CanEvaluate canEvaluatePolicy(LAPolicy policy) = 0;
    virtual void evaluatePolicy(LAPolicy policy, const std::string& localizedReason,
                                std::function<void(bool success, std::optional<int> errorCode)> reply) = 0;
    virtual std::string description() const = 0;
};

class KELVANE_EXPORT LocalAuthentication {
public:
    virtual ~LocalAuthentication();
    virtual std::shared_ptr<LAContext> makeContext() = 0;
};

}  // namespace kelvane::platform
