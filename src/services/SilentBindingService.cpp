#include "services/SilentBindingService.hpp"

#include <kelvane/Bytes.hpp>

#include "services/BridgeArgs.hpp"
#include "services/EncryptService.hpp"
#include "support/Base64.hpp"
#include "support/Ports.hpp"
#include "support/Utf8.hpp"

namespace kelvane {

namespace {

constexpr const char* kNoBindingId = "Unable to generate binding ID";
constexpr const char* kNotData = "Failed to convert uniqueId to data";

Json deviceJson(const std::optional<DeviceModel>& device) { return device ? device->toJson() : Json(); }

// The device's vendor identifier as text, or nothing once `failure` has answered. With no
// identifier at all, the failure answers and the forced read then stops the process.
std::optional<std::string> bindingIdentifier(const std::function<void(const char*)>& failure) {
    auto uniqueId = ports::device()->identifierForVendor();
    if (!uniqueId) failure(kNoBindingId);
    const std::string& id = forceUnwrap(uniqueId);
    if (!isValidUTF8(id)) {
        failure(kNotData);
        return std::nullopt;
    }
    return id;
}

}  // namespace

Json RegisterSilentBindingModel::toJson() const {
    Json json = Json::object();
    args::put(json, "success", success);
    args::put(json, "message", message);
    args::put(json, "encryptedDeviceId", encryptedDeviceID);
    if (device) json["device"] = deviceJson(device);
    return json;
}

Json VerifySilentBindingModel::toJson() const {
    Json json = Json::object();
    args::put(json, "success", success);
    args::put(json, "message", message);
    args::put(json, "challengeHash", challengeHash);
    args::put(json, "keyHashFirst6", keyHashFirst6);
    if (device) json["device"] = deviceJson(device);
    return json;
}

void SilentBindingService::registerBinding(const Json& data,
                                           std::function<void(RegisterSilentBindingModel)> completion) const {
    Json body = args::processedDictionary(jsHandler, data);
    std::string remotePublicKey = args::string(body, "remotePublicKey");
    auto device = jsHandler.getDeviceInfo();
    auto failure = [&](const char* message) {
        RegisterSilentBindingModel record;
        record.success = false;
        record.message = message;
        record.encryptedDeviceID = "";
        record.device = device;
        completion(std::move(record));
    };
    auto boundId = bindingIdentifier(failure);
    if (!boundId) return;
    const std::string& id = *boundId;

    EncryptService crypto;
    // The digest's base64 text is what gets sealed, so it is encoded once more for the cipher.
    std::string hash = crypto.toSha256Hash(asBytes(id));
    auto sealed = crypto.encryptWithRsa(remotePublicKey, base64::encode(hash));

    RegisterSilentBindingModel record;
    record.success = true;
    record.message = "";
    record.encryptedDeviceID = forceUnwrap(sealed);
    record.device = device;
    completion(std::move(record));
}

void SilentBindingService::verify(const Json& data, std::function<void(VerifySilentBindingModel)> completion) const {
    Json body = args::processedDictionary(jsHandler, data);
    std::string challenge = args::string(body, "challenge");
    auto device = jsHandler.getDeviceInfo();
    auto failure = [&](const char* message) {
        VerifySilentBindingModel record;
        record.success = false;
        record.message = message;
        record.challengeHash = "";
        record.keyHashFirst6 = "";
        record.device = device;
        completion(std::move(record));
    };
    auto boundId = bindingIdentifier(failure);
    if (!boundId) return;
    const std::string& id = *boundId;

    EncryptService crypto;
    std::string hash = crypto.toSha256Hash(asBytes(id));
    auto challengeBytes = base64::decode(challenge);
    if (!challengeBytes) return failure("Failed to convert base64 encoded string to Data");
    auto digest = base64::decode(hash);

    VerifySilentBindingModel record;
    record.success = true;
    record.message = "";
    record.challengeHash = crypto.toSha256HashCombined(*challengeBytes, forceUnwrap(digest));
    record.keyHashFirst6 = crypto.toSha256HashFirst6(asBytes(id));
    record.device = device;
    completion(std::move(record));
}

}  // namespace kelvane
