#pragma once

// The records of the passkey ceremonies: what the page asks for, what the controller answers,
// and what the page receives.

#include <kelvane/Bytes.hpp>

#include "services/DeviceInfoService.hpp"
#include "support/Record.hpp"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace kelvane {

// Requests live in memory only; their JSON (bytes as standard base64) is for logs and tests.

struct FidoRegRequestModel : JsonRecord<FidoRegRequestModel> {
    Bytes challenge;
    std::string rpEntityID;  // "rpEntityId"
    std::string rpEntityName;
    Bytes userID;  // "userId"
    std::string userName;
    std::string userDisplayName;
    Json pubKeyCredParams;  // the page's raw list
    std::vector<std::optional<std::int64_t>> pubKeyIds;

    Json toJson() const;
};

struct AllowCredential : JsonRecord<AllowCredential> {
    std::string id;  // standard base64 of rawId
    std::string type;
    Bytes rawId;

    Json toJson() const;
    bool operator==(const AllowCredential&) const = default;
};

struct FidoVerifyRequestModel : JsonRecord<FidoVerifyRequestModel> {
    std::string rpID;  // "rpId"
    Bytes challenge;
    std::vector<AllowCredential> allowCredentials;

    Json toJson() const;
};

// The shape of one "pubKeyCredParams" entry.
struct PubCredModel : JsonRecord<PubCredModel> {
    std::string type;
    std::int64_t alg = 0;

    Json toJson() const;
};

// The controller's answer: `data` holds the credential as a JSON text.
struct FidoRegResponseModel : JsonRecord<FidoRegResponseModel> {
    bool success = false;
    std::optional<std::string> message;
    std::optional<std::string> data;
    std::optional<std::string> errorCode;

    FidoRegResponseModel() = default;
    FidoRegResponseModel(bool success, std::optional<std::string> message, std::optional<std::string> data,
                         std::optional<std::string> errorCode)
        : success(success), message(std::move(message)), data(std::move(data)), errorCode(std::move(errorCode)) {}

    Json toJson() const;
    bool operator==(const FidoRegResponseModel&) const = default;
};

// What the page receives. Every member is optional and left out when absent.

struct CredProps : JsonRecord<CredProps> {
    std::optional<bool> rk;
    Json toJson() const;
};

struct ClientExtensionResults : JsonRecord<ClientExtensionResults> {
    std::optional<CredProps> credProps;
    Json toJson() const;
};

struct RegisterResponse : JsonRecord<RegisterResponse> {
    std::optional<std::string> clientDataJSON;
    std::optional<std::string> attestationObject;
    std::optional<std::vector<std::string>> transports;
    Json toJson() const;
};

struct DataRegisterResult : JsonRecord<DataRegisterResult> {
    std::optional<RegisterResponse> response;
    std::optional<std::string> authenticatorAttachment;
    std::optional<ClientExtensionResults> clientExtensionResults;
    std::optional<std::string> id;
    std::optional<std::string> rawID;  // "rawId"
    std::optional<std::string> type;
    Json toJson() const;
};

struct FidoRegisterResultModel : JsonRecord<FidoRegisterResultModel> {
    std::optional<bool> success;
    std::optional<std::string> message;
    std::optional<DataRegisterResult> data;
    std::optional<DeviceModel> device;
    std::optional<std::vector<std::string>> errorCodes;
    Json toJson() const;
};

struct Response : JsonRecord<Response> {
    std::optional<std::string> clientDataJSON;
    std::optional<std::string> authenticatorData;
    std::optional<std::string> signature;
    std::optional<std::string> userHandle;
    Json toJson() const;
};

struct DataVerifyResult : JsonRecord<DataVerifyResult> {
    std::optional<std::string> id;
    std::optional<std::string> type;
    std::optional<std::string> rawID;  // "rawId"
    std::optional<Response> response;
    Json toJson() const;
};

struct FidoVerifyResultModel : JsonRecord<FidoVerifyResultModel> {
    std::optional<bool> success;
    std::optional<std::string> message;
    std::optional<DataVerifyResult> data;
    std::optional<DeviceModel> device;
    std::optional<std::vector<std::string>> errorCodes;
    Json toJson() const;
};

struct FidoSupportModel : JsonRecord<FidoSupportModel> {
    std::optional<bool> success;
    std::optional<std::string> message;
    std::optional<bool> isSupported;
    std::optional<DeviceModel> device;
    Json toJson() const;
};

}  // namespace kelvane
