#pragma once

#include <kelvane/Json.hpp>

#include "flow/JsHandler.hpp"
#include "services/BiometricController.hpp"
#include "services/DeviceInfoService.hpp"
#include "support/Record.hpp"

#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace kelvane {

// The answer to "checkBiometric".
struct RegisteredBiometricModel : JsonRecord<RegisteredBiometricModel> {
    bool registered = false;
    std::optional<std::vector<std::string>> credentialIds;
    DeviceModel device;
    std::optional<std::vector<std::string>> error;

    Json toJson() const;
};

// The answer to "registerBiometric".
struct RegisterBiometricModel : JsonRecord<RegisterBiometricModel> {
    bool success = false;
    std::string message;
    DeviceModel device;
    std::optional<std::vector<std::string>> errorCodes;

    Json toJson() const;
};

// The answer to "verifyBiometric".
struct VerifyBiometricModel : JsonRecord<VerifyBiometricModel> {
    bool success = false;
    std::string message;
    DeviceModel device;
    std::optional<std::string> encryptedChallenge;
    std::optional<std::string> credentialId;
    std::optional<std::vector<std::string>> errorCodes;

    Json toJson() const;
};

// A page's challenge behind the device owner's authentication. Registration keeps the page's
// public key and credential identifier under "biometricKey"; verification seals the challenge
// under that key once the owner has authenticated. Events arrive on the main queue;
// completions run there or on the authentication's reply thread, and may run twice for one
// call (a missing-fields answer first).
class BiometricService {
public:
    void checkBiometric(std::function<void(RegisteredBiometricModel)> completion) const;
    void registerBiometric(const Json& data, std::function<void(RegisterBiometricModel)> completion) const;
    void verifyBiometric(const Json& data, std::function<void(VerifyBiometricModel)> completion) const;

    const JsHandler jsHandler{};
    const BiometricController biometricController{};
};

}  // namespace kelvane
