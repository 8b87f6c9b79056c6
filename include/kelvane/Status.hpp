#pragma once

#include <kelvane/Export.hpp>

#include <string_view>

namespace kelvane {

// Why a transaction failed, as the host hears it: the case's name is the text. Several
// cases are never raised and stay for hosts that match on them.
enum class Status {
    success,
    MissingEncryptionKey,
    IdMismatch,
    EncryptionKeyMismatch,
    InvalidPayload,
    WebSocketConnectionFailed,
    ConnectionError,
    appUpdateRequired,
    osSmsPermission,
    osPhonePermission,
    osCameraPermission,
    osMicPermission,
    osOtherPermission,
    platformNotSupported,
    jsMissingFields,
    bioNoCredIds,
    bioNotAvailable,
    bioAuthFailed,
    bioPublicKeyNotFound,
    fidoRegFailed,
    fidoVerifyFailed,
};
inline constexpr int kStatusCount = 21;

// Why a flow closed. The third case is spelled as hosts receive it.
enum class CloseReason { ByUser, ByNewTransaction, TranscationCompleted };

KELVANE_EXPORT std::string_view errorName(Status status);
KELVANE_EXPORT std::string_view errorName(CloseReason reason);

}  // namespace kelvane
