#include "services/FidoController.hpp"

#include <kelvane/Log.hpp>

#include "support/Base64.hpp"
#include "support/Fatal.hpp"
#include "support/Ports.hpp"
#include "support/Utf8.hpp"

#include <type_traits>

namespace kelvane {
namespace {

using namespace platform;

void replaceAll(std::string& text, std::string_view from, std::string_view to) {
    for (auto at = text.find(from); at != std::string::npos; at = text.find(from, at + to.size())) {
        text.replace(at, from.size(), to);
    }
}

std::string describe(const FidoRegResponseModel& model) { return json::dump(model.toJson()); }

}  // namespace

FidoController::FinalRegResult FidoController::finalRegResult() const {
    std::lock_guard lock(mutex_);
    return finalRegResult_;
}

void FidoController::setFinalRegResult(FinalRegResult completion) {
    std::lock_guard lock(mutex_);
    finalRegResult_ = std::move(completion);
}

void FidoController::answer(const FidoRegResponseModel& model) {
    auto completion = finalRegResult();
    if (!completion) fatalStop(kUnwrapNil);
    completion(model);
}

void FidoController::registrationFido(const FidoRegRequestModel& request, FinalRegResult completion) {
    setFinalRegResult(std::move(completion));
    logLine("Registration fido success");
    registerFido(request.rpEntityID, request.challenge, request.userDisplayName, request.userName, request.userID,
                 request.pubKeyIds);
}

void FidoController::verifyFido(const FidoVerifyRequestModel& request, FinalRegResult completion) {
    setFinalRegResult(std::move(completion));
    std::vector<std::optional<AllowCredential>> allowCreds(request.allowCredentials.begin(),
                                                           request.allowCredentials.end());
    signFido(request.rpID, request.challenge, allowCreds);
}

void FidoController::registerFido(const std::string& rpEntityId, const Bytes& challenge,
                                  const std::string& userDisplayName, const std::string& userName, const Bytes& userId,
                                  const std::vector<std::optional<std::int64_t>>& publicCredentials) {
    if (!ports::device()->supportsPasskeys()) {
        answer(failedRegResponse);
        return;
    }
    logLine("Ios more than 15");
    logLine(std::to_string(challenge.size()) + " bytes");
    logLine(userDisplayName);

    PlatformRegistrationRequest platformRequest{rpEntityId, challenge, userName, userId};
    // The display name the page gave is not what either authenticator shows: both get the user name.
    SecurityKeyRegistrationRequest securityKeyRequest{rpEntityId, challenge, userName, userName, userId, {}};
    for (const auto& algorithm : publicCredentials) {
        securityKeyRequest.credentialParameters.push_back(forceUnwrap(algorithm));
    }
    perform({std::move(platformRequest), std::move(securityKeyRequest)});
}

void FidoController::signFido(const std::string& rpEntityId, const Bytes& challenge,
                              const std::vector<std::optional<AllowCredential>>& allowCreds) {
    if (!ports::device()->supportsPasskeys()) {
        answer(failedRegResponse);
        return;
    }
    logLine("Ios more than 15");

    PlatformAssertionRequest platformRequest{rpEntityId, challenge, {}};
    SecurityKeyAssertionRequest securityKeyRequest{rpEntityId, challenge, {}};
    for (const auto& credential : allowCreds) {
        const auto& allowed = forceUnwrap(credential);
        platformRequest.allowedCredentials.push_back(allowed.rawId);
        securityKeyRequest.allowedCredentials.push_back(
            {allowed.rawId, {SecurityKeyTransport::bluetooth, SecurityKeyTransport::nfc, SecurityKeyTransport::usb}});
    }
    perform({std::move(platformRequest), std::move(securityKeyRequest)});
}

void FidoController::perform(std::vector<AuthorizationRequest> requests) {
    ports::passkeys()->performRequests(std::move(requests), weak_from_this());
}

std::shared_ptr<Window> FidoController::presentationAnchor() {
    auto windows = ports::viewSystem()->windows();
    if (windows.empty()) fatalStop(kUnwrapNil);
    return windows.front();
}

void FidoController::didCompleteWithAuthorization(AuthorizationCredential credential) {
    if (!ports::device()->supportsPasskeys()) {
        answer(failedRegResponse);
        return;
    }
    logLine("authoriation in");
    std::visit(
        [this](const auto& value) {
            using Credential = std::decay_t<decltype(value)>;
            if constexpr (std::is_same_v<Credential, SecurityKeyCredentialRegistration>) {
                registrationSuccess(value.credentialID, value.rawClientDataJSON, value.rawAttestationObject,
                                    "cross-platform");
            } else if constexpr (std::is_same_v<Credential, PlatformCredentialRegistration>) {
                registrationSuccess(value.credentialID, value.rawClientDataJSON, value.rawAttestationObject,
                                    "platform");
            } else if constexpr (std::is_base_of_v<CredentialAssertion, Credential>) {
                verifySuccess(value.credentialID, value.rawClientDataJSON, value.userID,
                              forceUnwrap(value.rawAuthenticatorData), forceUnwrap(value.signature));
            }
            // A credential of another kind leaves the page's call unanswered.
        },
        credential);
}

void FidoController::didCompleteWithError(Error error) {
    logLine("***********AUTHORIZATION CONTROLLER FAILE TO LOAD*************");
    FidoRegResponseModel model(false, error.localizedDescription(), std::nullopt, "fidoFailed");
    // Unlike every other answer, a missing completion here is no stop.
    if (auto completion = finalRegResult()) completion(model);
}

void FidoController::registrationSuccess(const Bytes& credentialID, const Bytes& rawClientDataJSON,
                                         const std::optional<Bytes>& rawAttestationObject,
                                         const std::string& /*authenticatorAttachment*/) {
    const auto& attestationObject = forceUnwrap(rawAttestationObject);
    FidoRegResponseModel model(
        true, "Registration Success",
        registrationText(encodeBinary(rawClientDataJSON), encodeBinary(attestationObject), encodeBinary(credentialID)),
        std::nullopt);
    logLine(describe(model));
    answer(model);
}

void FidoController::verifySuccess(const Bytes& credentialID, const Bytes& rawClientDataJSON,
                                   const std::optional<Bytes>& userID, const Bytes& rawAuthenticatorData,
                                   const Bytes& signature) {
    FidoRegResponseModel model(true, "Verify Success",
                               assertionText(encodeBinary(credentialID), encodeBinary(rawClientDataJSON),
                                             encodeBinary(rawAuthenticatorData), encodeBinary(signature),
                                             encodeBinary(userID.value_or(Bytes{}))),
                               std::nullopt);
    logLine(describe(model));
    answer(model);
}

std::string FidoController::convert(ByteView data) {
    auto text = asText(data);
    return isValidUTF8(text) ? std::string(text) : std::string();
}

std::string FidoController::toggleBase64URLSafe(std::string text, bool on) {
    if (on) {
        replaceAll(text, "/", "_");
        replaceAll(text, "+", "-");
        replaceAll(text, "=", "");
    } else {
        replaceAll(text, "_", "/");
        replaceAll(text, "-", "+");
        // Padding goes by characters, not bytes.
        std::size_t characters = 0;
        for (unsigned char byte : text) characters += (byte & 0xC0) != 0x80;
        if (auto remainder = characters % 4; remainder != 0) text.append(4 - remainder, '=');
    }
    return text;
}

std::string FidoController::encodeBinary(ByteView data) {
    return toggleBase64URLSafe(convert(asBytes(base64::encode(data))), true);
}

std::string FidoController::registrationText(const std::string& clientDataJSON, const std::string& attestationObject,
                                             const std::string& credentialID) {
    return "{\n   \"response\": {\n     \"clientDataJSON\": \"" + clientDataJSON +
           "\",\n     \"attestationObject\": \"" + attestationObject +
           "\",\n     \"transports\": [\"internal\", \"hybrid\"]\n    },\n    \"authenticatorAttachment\": "
           "\"platform\",\n    \"clientExtensionResults\": {\n        \"credProps\": {\n            \"rk\": true\n"
           "        }\n    },\n    \"id\": \"" +
           credentialID + "\",\n    \"rawId\": \"" + credentialID + "\",\n    \"type\": \"public-key\"\n        }";
}

std::string FidoController::assertionText(const std::string& credentialID, const std::string& clientDataJSON,
                                          const std::string& authenticatorData, const std::string& signature,
                                          const std::string& userHandle) {
    return "            {\n            \"id\": \"" + credentialID +
           "\",\n            \"type\": \"public-key\",\n            \"rawId\": \"" + credentialID +
           "\",\n            \"response\": {\n              \"clientDataJSON\": \"" + clientDataJSON +
           "\",\n              \"authenticatorData\": \"" + authenticatorData +
           "\",\n              \"signature\": \"" + signature + "\",\n              \"userHandle\": \"" + userHandle +
           "\"\n            }\n          }";
}

}  // namespace kelvane
