#pragma once

#include <kelvane/Json.hpp>

#include "flow/JsHandler.hpp"
#include "services/BiometricController.hpp"
#include "services/DeviceInfoService.hpp"
#include "support/Record.hpp"

#include <functional>
#include <optional>
#include <string>

namespace kelvane {

// The answer to "registerSilentBinding".
struct RegisterSilentBindingModel : JsonRecord<RegisterSilentBindingModel> {
    std::optional<bool> success;
    std::optional<std::string> message;
    std::optional<std::string> encryptedDeviceID;  // key "encryptedDeviceId"
    std::optional<DeviceModel> device;

    Json toJson() const;
};

// The answer to "verifySilentBinding".
struct VerifySilentBindingModel : JsonRecord<VerifySilentBindingModel> {
    std::optional<bool> success;
    std::optional<std::string> message;
    std::optional<std::string> challengeHash;
    std::optional<std::string> keyHashFirst6;
    std::optional<DeviceModel> device;

    Json toJson() const;
};

// Binds the installation to the SHA-256 of the vendor identifier, without asking anyone.
// Registration seals that digest's base64 text under the page's public key; verification
// salts the page's challenge with the digest and adds the digest's first six bytes. Nothing
// is kept. Both run to their end on the caller's thread (the main queue).
class SilentBindingService {
public:
    // "register" is a keyword here.
    void registerBinding(const Json& data, std::function<void(RegisterSilentBindingModel)> completion) const;
    void verify(const Json& data, std::function<void(VerifySilentBindingModel)> completion) const;

    const JsHandler jsHandler{};
    // Held, never called.
    const BiometricController biometricController{};
};

}  // namespace kelvane
