#include "services/FidoRecords.hpp"

#include "support/Base64.hpp"

namespace kelvane {
namespace {

template <class T>
Json jsonOf(const T& value) {
    if constexpr (requires { value.toJson(); }) {
        return value.toJson();
    } else {
        return Json(value);
    }
}

// Absent members are left out, never written as null.
template <class T>
void put(Json& object, const char* key, const std::optional<T>& value) {
    if (value) object[key] = jsonOf(*value);
}

Json optionalIntegers(const std::vector<std::optional<std::int64_t>>& values) {
    Json list = Json::array();
    for (const auto& value : values) list.push_back(value ? Json(*value) : Json());
    return list;
}

}  // namespace

Json FidoRegRequestModel::toJson() const {
    return Json{{"challenge", base64::encode(challenge)},
                {"rpEntityId", rpEntityID},
                {"rpEntityName", rpEntityName},
                {"userId", base64::encode(userID)},
                {"userName", userName},
                {"userDisplayName", userDisplayName},
                {"pubKeyCredParams", pubKeyCredParams},
                {"pubKeyIds", optionalIntegers(pubKeyIds)}};
}

Json AllowCredential::toJson() const {
    return Json{{"id", id}, {"type", type}, {"rawId", base64::encode(rawId)}};
}

Json FidoVerifyRequestModel::toJson() const {
    Json credentials = Json::array();
    for (const auto& credential : allowCredentials) credentials.push_back(credential.toJson());
    return Json{{"rpId", rpID}, {"challenge", base64::encode(challenge)}, {"allowCredentials", credentials}};
}

Json PubCredModel::toJson() const { return Json{{"type", type}, {"alg", alg}}; }

Json FidoRegResponseModel::toJson() const {
    Json object{{"success", success}};
    put(object, "message", message);
    put(object, "data", data);
    put(object, "errorCode", errorCode);
    return object;
}

Json CredProps::toJson() const {
    Json object = Json::object();
    put(object, "rk", rk);
    return object;
}

Json ClientExtensionResults::toJson() const {
    Json object = Json::object();
    put(object, "credProps", credProps);
    return object;
}

Json RegisterResponse::toJson() const {
    Json object = Json::object();
    put(object, "clientDataJSON", clientDataJSON);
    put(object, "attestationObject", attestationObject);
    put(object, "transports", transports);
    return object;
}

Json DataRegisterResult::toJson() const {
    Json object = Json::object();
    put(object, "response", response);
    put(object, "authenticatorAttachment", authenticatorAttachment);
    put(object, "clientExtensionResults", clientExtensionResults);
    put(object, "id", id);
    put(object, "rawId", rawID);
    put(object, "type", type);
    return object;
}

Json FidoRegisterResultModel::toJson() const {
    Json object = Json::object();
    put(object, "success", success);
    put(object, "message", message);
    put(object, "data", data);
    put(object, "device", device);
    put(object, "errorCodes", errorCodes);
    return object;
}

Json Response::toJson() const {
    Json object = Json::object();
    put(object, "clientDataJSON", clientDataJSON);
    put(object, "authenticatorData", authenticatorData);
    put(object, "signature", signature);
    put(object, "userHandle", userHandle);
    return object;
}

Json DataVerifyResult::toJson() const {
    Json object = Json::object();
    put(object, "id", id);
    put(object, "type", type);
    put(object, "rawId", rawID);
    put(object, "response", response);
    return object;
}

Json FidoVerifyResultModel::toJson() const {
    Json object = Json::object();
    put(object, "success", success);
    put(object, "message", message);
    put(object, "data", data);
    put(object, "device", device);
    put(object, "errorCodes", errorCodes);
    return object;
}

Json FidoSupportModel::toJson() const {
    Json object = Json::object();
    put(object, "success", success);
    put(object, "message", message);
    put(object, "isSupported", isSupported);
    put(object, "device", device);
    return object;
}

}  // namespace kelvane
