#include "services/BiometricService.hpp"

#include "services/BridgeArgs.hpp"
#include "services/EncryptService.hpp"
#include "support/Ports.hpp"

namespace kelvane {

namespace {

constexpr const char* kBiometricKey = "biometricKey";

Json storedRecord() { return ports::keyValueStore()->dictionary(kBiometricKey).value_or(Json::object()); }

}  // namespace

Json RegisteredBiometricModel::toJson() const {
    Json json{{"registered", registered}, {"device", device.toJson()}};
    args::put(json, "credentialIds", credentialIds);
    args::put(json, "error", error);
    return json;
}

Json RegisterBiometricModel::toJson() const {
    Json json{{"success", success}, {"message", message}, {"device", device.toJson()}};
    args::put(json, "errorCodes", errorCodes);
    return json;
}

Json VerifyBiometricModel::toJson() const {
    Json json{{"success", success}, {"message", message}, {"device", device.toJson()}};
    args::put(json, "encryptedChallenge", encryptedChallenge);
    args::put(json, "credentialId", credentialId);
    args::put(json, "errorCodes", errorCodes);
    return json;
}

void BiometricService::checkBiometric(std::function<void(RegisteredBiometricModel)> completion) const {
    RegisteredBiometricModel record;
    Json stored = storedRecord();
    if (const Json* credentialId = json::get(stored, "credentialId")) {
        record.registered = true;
        if (credentialId->is_string()) record.credentialIds = std::vector{credentialId->get<std::string>()};
        record.error = std::vector<std::string>{};
    } else {
        record.error = std::vector<std::string>{"bioNoCredIds"};
    }
    record.device = jsHandler.getDeviceInfo();
    completion(std::move(record));
}

void BiometricService::registerBiometric(const Json& data, std::function<void(RegisterBiometricModel)> completion) const {
    const Json& body = args::dictionary(data);
    if (!jsHandler.validateRequiredFields(body, {"publicKey", "credentialId"}).empty()) {
        RegisterBiometricModel missing;
        missing.message = "Registration Failed. Missing required fields";
        missing.device = jsHandler.getDeviceInfo();
        missing.errorCodes = std::vector<std::string>{"jsMissingFields"};
        completion(std::move(missing));
        // The registration goes on all the same: the page gets a second answer.
    }
    // Kept before the owner authenticates, and not undone by a refusal.
    ports::keyValueStore()->setDictionary(body, kBiometricKey);
    biometricController.authenticationWithTouchID(
        [jsHandler = jsHandler, completion = std::move(completion)](bool success, std::string message) {
            RegisterBiometricModel record;
            record.success = success;
            record.message = std::move(message);
            record.device = jsHandler.getDeviceInfo();
            record.errorCodes = success ? std::vector<std::string>{} : std::vector<std::string>{"bioAuthFailed"};
            completion(std::move(record));
        });
}

void BiometricService::verifyBiometric(const Json& data, std::function<void(VerifyBiometricModel)> completion) const {
    const Json& body = args::dictionary(data);
    if (!jsHandler.validateRequiredFields(body, {"challenge"}).empty()) {
        VerifyBiometricModel missing;
        missing.message = "Verification Failed. Missing required fields";
        missing.device = jsHandler.getDeviceInfo();
        missing.errorCodes = std::vector<std::string>{"jsMissingFields"};
        completion(std::move(missing));
    }
    biometricController.authenticationWithTouchID(
        [jsHandler = jsHandler, body, completion = std::move(completion)](bool success, std::string message) {
            VerifyBiometricModel record;
            record.success = success;
            record.message = std::move(message);
            if (!success) {
                record.device = jsHandler.getDeviceInfo();
                record.errorCodes = std::vector<std::string>{"bioAuthFailed"};
                completion(std::move(record));
                return;
            }
            Json stored = storedRecord();
            std::string publicKey = args::string(stored, "publicKey");
            std::string challenge = args::string(body, "challenge");
            record.encryptedChallenge = EncryptService().encryptWithRsa(publicKey, challenge);
            record.device = jsHandler.getDeviceInfo();
            if (const Json* credentialId = json::get(stored, "credentialId")) {
                if (credentialId->is_string()) record.credentialId = credentialId->get<std::string>();
                record.errorCodes = std::vector<std::string>{};
            } else {
                // The code names the key, not the missing credential; pages rely on it.
                record.success = false;
                record.errorCodes = std::vector<std::string>{"bioPublicKeyNotFound"};
            }
            completion(std::move(record));
        });
}

}  // namespace kelvane
