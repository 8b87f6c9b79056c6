#pragma once

#include <kelvane/Export.hpp>
#include <kelvane/Json.hpp>

#include <optional>
#include <string>

namespace kelvane {

// The host's side of a transaction: the only way the library talks back. Each method runs on
// whatever thread raised it (see each one), never hopping to the main thread by itself.
class KELVANE_EXPORT KelvaneService {
public:
    virtual ~KelvaneService();

    // The page asked for the push token. Answer synchronously and promptly: the caller is the
    // main thread. A host that may be asked must return a token.
    virtual std::optional<std::string> onPushTokenRequest() = 0;
    // The backend's result for a transaction: its request id and the "auth_req_id".
    virtual void onResult(const std::string& reqId, const std::string& authReqId) = 0;
    // A transaction failed: a Status text, or on the deep-link road the failure's own text.
    virtual void onError(const std::string& error) = 0;
    // A flow closed, or the QR scanner was left: a CloseReason text.
    virtual void onClosed(const std::string& reason) = 0;
    // A deep link was resolved into a transaction message; pass it to onPushReceived.
    virtual void onTransactionRequest(const Json& payload) = 0;
};

}  // namespace kelvane
