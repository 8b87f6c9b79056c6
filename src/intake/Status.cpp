#include <kelvane/Status.hpp>

#include <array>

namespace kelvane {

std::string_view errorName(Status status) {
    static constexpr std::array<std::string_view, kStatusCount> kNames = {
        "success",           "MissingEncryptionKey", "IdMismatch",         "EncryptionKeyMismatch",
        "InvalidPayload",    "WebSocketConnectionFailed", "ConnectionError", "appUpdateRequired",
        "osSmsPermission",   "osPhonePermission",    "osCameraPermission", "osMicPermission",
        "osOtherPermission", "platformNotSupported", "jsMissingFields",    "bioNoCredIds",
        "bioNotAvailable",   "bioAuthFailed",        "bioPublicKeyNotFound", "fidoRegFailed",
        "fidoVerifyFailed",
    };
    return kNames.at(static_cast<std::size_t>(status));
}

std::string_view errorName(CloseReason reason) {
    static constexpr std::array<std::string_view, 3> kNames = {"ByUser", "ByNewTransaction", "TranscationCompleted"};
    return kNames.at(static_cast<std::size_t>(reason));
}

}  // namespace kelvane
