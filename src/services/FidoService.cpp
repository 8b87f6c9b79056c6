#include "services/FidoService.hpp"

#include "support/Base64.hpp"
#include "support/Fatal.hpp"

#include <kelvane/Log.hpp>
#include <kelvane/Queue.hpp>
#include <kelvane/Status.hpp>

#include <charconv>
#include <limits>

namespace kelvane {
namespace {

// The page's options are trusted: what is required and absent, or of another type, stops.
const Json& requiredObject(const Json& object, std::string_view key) {
    const Json* value = json::getObject(object, key);
    if (!value) fatalStop(kUnwrapNil);
    return *value;
}

std::string requiredString(const Json& object, std::string_view key) {
    auto value = json::getString(object, key);
    if (!value) fatalStop(kUnwrapNil);
    return *value;
}

const Json& requiredArray(const Json& object, std::string_view key) {
    const Json* value = json::getArray(object, key);
    if (!value) fatalStop(kUnwrapNil);
    return *value;
}

const Json& processArgs(const JsHandler& jsHandler, const Json& data, std::optional<Json>& args) {
    args = jsHandler.processArgs({data});
    return forceUnwrap(args);
}

std::string statusText(Status status) { return std::string(errorName(status)); }

// A decimal signed 64-bit integer with an optional sign and nothing else.
std::optional<std::int64_t> parseInt64(std::string_view text) {
    if (!text.empty() && text.front() == '+') {
        text.remove_prefix(1);
        if (!text.empty() && text.front() == '-') return std::nullopt;
    }
    std::int64_t value = 0;
    auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size() || text.empty()) return std::nullopt;
    return value;
}

std::optional<std::vector<std::string>> getStringList(const Json& object, std::string_view key) {
    const Json* list = json::getArray(object, key);
    if (!list) return std::nullopt;
    std::vector<std::string> strings;
    for (const auto& item : *list) {
        if (!item.is_string()) return std::nullopt;
        strings.push_back(item.get<std::string>());
    }
    return strings;
}

// Strips every `")` and reads the rest as a JSON object. A text that does not parse is logged;
// a value that is not an object ends quietly.
std::optional<Json> cleanedObject(const std::string& data, bool logCleaned) {
    std::string cleaned;
    cleaned.reserve(data.size());
    for (std::size_t at = 0; at < data.size(); ++at) {
        if (data[at] == '"' && at + 1 < data.size() && data[at + 1] == ')') {
            ++at;
            continue;
        }
        cleaned.push_back(data[at]);
    }
    if (logCleaned) logLine("Cleaned json string : " + cleaned);
    auto parsed = json::parse(cleaned);
    // Only an object or an array is a JSON document here; a bare scalar fails like bad text.
    if (!parsed || !(parsed->is_object() || parsed->is_array())) {
        Error error{"NSCocoaErrorDomain", 3840,
                    "The data couldn\u2019t be read because it isn\u2019t in the correct format."};
        logLine("Error parsing JSON: " + error.localizedDescription());
        return std::nullopt;
    }
    if (!parsed->is_object()) return std::nullopt;
    return parsed;
}

template <class Record, class Completion>
void deliver(Record record, const Completion& completion) {
    Queue::main()->async([record = std::move(record), completion] { completion(record); });
}

template <class Record>
Record failureRecord(const std::optional<std::string>& message, std::optional<bool> success, Status status,
                     const JsHandler& jsHandler) {
    Record record;
    record.success = success;
    record.message = message;
    record.device = jsHandler.getDeviceInfo();
    record.errorCodes = std::vector<std::string>{statusText(status)};
    return record;
}

}  // namespace

FidoService::FidoService() : fido_(std::make_shared<FidoController>()) {}

void FidoService::isJsFidoSupported(const std::function<void(const FidoSupportModel&)>& completion) const {
    FidoSupportModel record;
    record.success = true;
    record.message = "";
    record.isSupported = false;
    record.device = jsHandler.getDeviceInfo();
    completion(record);
}

void FidoService::registerFido(const Json& data, RegisterCompletion completion) {
    std::optional<Json> holder;
    const Json& args = processArgs(jsHandler, data, holder);
    const Json& params = requiredObject(args, "params");
    const Json& publicKey = requiredObject(params, "publicKey");
    const Json& challenge = requiredObject(publicKey, "challenge");
    const Json& rp = requiredObject(publicKey, "rp");
    const Json& user = requiredObject(publicKey, "user");
    const Json& userId = requiredObject(user, "id");
    const Json* pubKeyCredParams = json::get(publicKey, "pubKeyCredParams");

    if (!jsHandler.validateRequiredFields(publicKey, {"challenge", "rp", "user", "pubKeyCredParams"}).empty()) {
        completion(failureRecord<FidoRegisterResultModel>("Verification Failed. Missing required fields", false,
                                                          Status::jsMissingFields, jsHandler));
        // No return: the answer stands, and the missing list below stops the call.
    }

    FidoRegRequestModel request;
    request.challenge = _convertAlgToUInt(challenge);
    request.rpEntityID = requiredString(rp, "id");
    request.rpEntityName = requiredString(rp, "name");
    request.userID = _convertAlgToUInt(userId);
    request.userName = requiredString(user, "name");
    request.userDisplayName = requiredString(user, "displayName");

    if (!pubKeyCredParams || !pubKeyCredParams->is_array()) fatalStop(kUnwrapNil);
    std::vector<Json> entries;
    for (const auto& entry : *pubKeyCredParams) {
        if (!entry.is_object()) fatalStop(kUnwrapNil);
        entries.push_back(entry);
    }
    for (auto algorithm : _getAlgValues(entries)) request.pubKeyIds.emplace_back(algorithm);
    request.pubKeyCredParams = *pubKeyCredParams;

    fido_->registrationFido(request, [completion = std::move(completion)](Result<FidoRegResponseModel> result) {
        registrationResult(result, completion);
    });
}

void FidoService::signFido(const Json& data, VerifyCompletion completion) {
    std::optional<Json> holder;
    const Json& args = processArgs(jsHandler, data, holder);
    const Json& params = requiredObject(args, "params");
    const Json& publicKey = requiredObject(params, "publicKey");
    const Json& challenge = requiredObject(publicKey, "challenge");
    std::string rpId = requiredString(publicKey, "rpId");
    const Json& allowCredentials = requiredArray(publicKey, "allowCredentials");

    if (!jsHandler.validateRequiredFields(publicKey, {"challenge", "rpId"}).empty()) {
        completion(failureRecord<FidoVerifyResultModel>("Verification Failed. Missing required fields", false,
                                                        Status::jsMissingFields, jsHandler));
    }

    FidoVerifyRequestModel request;
    request.rpID = std::move(rpId);
    for (const auto& entry : allowCredentials) {
        if (!entry.is_object()) fatalStop(kUnwrapNil);
        const Json* id = json::getObject(entry, "id");
        auto type = json::getString(entry, "type");
        if (!id || !type) continue;
        AllowCredential credential;
        credential.rawId = _convertAlgToUInt(*id);
        credential.id = base64::encode(credential.rawId);
        credential.type = *type;
        request.allowCredentials.push_back(std::move(credential));
    }
    request.challenge = _convertAlgToUInt(challenge);

    fido_->verifyFido(request, [completion = std::move(completion)](Result<FidoRegResponseModel> result) {
        verificationResult(result, completion);
    });
}

void FidoService::registrationResult(const Result<FidoRegResponseModel>& result,
                                     const RegisterCompletion& completion) {
    const JsHandler jsHandler;
    if (!result) {
        logLine("Registration failed: " + result.error().text());
        return;
    }
    const auto& model = *result;
    if (!model.data) {
        deliver(failureRecord<FidoRegisterResultModel>(model.message, model.success, Status::fidoRegFailed, jsHandler),
                completion);
        return;
    }
    auto object = cleanedObject(*model.data, false);
    if (!object) return;

    auto id = json::getString(*object, "id");
    if (!id) return;
    auto type = json::getString(*object, "type");
    if (!type) return;
    auto rawId = json::getString(*object, "rawId");
    if (!rawId) return;
    auto authenticatorAttachment = json::getString(*object, "authenticatorAttachment");
    if (!authenticatorAttachment) return;
    const Json* response = json::getObject(*object, "response");
    if (!response) return;
    const Json* extensions = json::getObject(*object, "clientExtensionResults");
    if (!extensions) return;
    const Json* credProps = json::getObject(*extensions, "credProps");
    if (!credProps) return;
    auto rk = json::getBool(*credProps, "rk");
    if (!rk) return;
    auto clientDataJSON = json::getString(*response, "clientDataJSON");
    if (!clientDataJSON) return;
    auto attestationObject = json::getString(*response, "attestationObject");
    if (!attestationObject) return;
    auto transports = getStringList(*response, "transports");
    if (!transports) return;

    DataRegisterResult data;
    data.response = RegisterResponse{{}, clientDataJSON, attestationObject, transports};
    data.authenticatorAttachment = authenticatorAttachment;
    data.clientExtensionResults = ClientExtensionResults{{}, CredProps{{}, rk}};
    data.id = id;
    data.rawID = rawId;
    data.type = type;

    FidoRegisterResultModel record;
    record.success = model.success;
    record.message = model.message;
    record.data = std::move(data);
    record.device = jsHandler.getDeviceInfo();
    record.errorCodes = std::vector<std::string>{model.errorCode.value_or("")};
    deliver(std::move(record), completion);
}

void FidoService::verificationResult(const Result<FidoRegResponseModel>& result, const VerifyCompletion& completion) {
    const JsHandler jsHandler;
    if (!result) {
        logLine("Verification failed: " + result.error().text());
        return;
    }
    const auto& model = *result;
    if (!model.data) {
        deliver(
            failureRecord<FidoVerifyResultModel>(model.message, model.success, Status::fidoVerifyFailed, jsHandler),
            completion);
        return;
    }
    auto object = cleanedObject(*model.data, true);
    if (!object) return;

    auto id = json::getString(*object, "id");
    if (!id) return;
    auto type = json::getString(*object, "type");
    if (!type) return;
    auto rawId = json::getString(*object, "rawId");
    if (!rawId) return;
    const Json* response = json::getObject(*object, "response");
    if (!response) return;
    auto clientDataJSON = json::getString(*response, "clientDataJSON");
    if (!clientDataJSON) return;
    auto authenticatorData = json::getString(*response, "authenticatorData");
    if (!authenticatorData) return;
    auto signature = json::getString(*response, "signature");
    if (!signature) return;
    auto userHandle = json::getString(*response, "userHandle");
    if (!userHandle) return;

    DataVerifyResult data;
    data.id = id;
    data.type = type;
    data.rawID = rawId;
    data.response = Response{{}, clientDataJSON, authenticatorData, signature, userHandle};

    FidoVerifyResultModel record;
    record.success = model.success;
    record.message = model.message;
    record.data = std::move(data);
    record.device = jsHandler.getDeviceInfo();
    record.errorCodes = std::vector<std::string>{model.errorCode.value_or("")};
    logLine("User Handle: " + *userHandle);
    logLine(json::dump(record.toJson()));
    deliver(std::move(record), completion);
}

Bytes FidoService::_convertAlgToUInt(const Json& input) {
    Bytes bytes;
    if (!input.is_object()) return bytes;
    const std::size_t count = input.size();
    bytes.reserve(count);
    for (std::size_t index = 0; index < count; ++index) {
        auto value = json::getInt(input, std::to_string(index));
        bool isByte = value && *value >= 0 && *value <= std::numeric_limits<std::uint8_t>::max();
        bytes.push_back(isByte ? static_cast<std::uint8_t>(*value) : 0);
    }
    return bytes;
}

std::vector<std::int64_t> FidoService::_getAlgValues(const std::vector<Json>& from) {
    std::vector<std::int64_t> algorithms;
    for (const auto& entry : from) {
        auto text = json::getString(entry, "alg");
        if (!text) continue;
        if (auto algorithm = parseInt64(*text)) algorithms.push_back(*algorithm);
    }
    return algorithms;
}

}  // namespace kelvane
