#pragma once

#include <kelvane/Export.hpp>
#include <kelvane/Json.hpp>

#include <optional>
#include <string>

namespace kelvane {

// The host's side of a transaction: the only way the library talks back. The library never
// hops to the main thread for these calls: each method arrives on the thread named below.
// Where that is not the main thread, a host that touches its screens or calls KelvaneApp (main
// queue only) hops first: kelvane::Queue::main()->async([=] { ... }). Return promptly.
class KELVANE_EXPORT KelvaneService {
public:
    virtual ~KelvaneService();

    // The page asked for the push token. Main thread, synchronously: answer at once, never
    // waiting for the main thread. Returning nothing ends the process, so a host that may be
    // asked must return a token.
    virtual std::optional<std::string> onPushTokenRequest() = 0;
    // The backend's result for a transaction: its request id and the "auth_req_id" of the
    // status message. Main thread. The page stays open; onClosed comes when it ends.
    virtual void onResult(const std::string& reqId, const std::string& authReqId) = 0;
    // A transaction failed: a Status text, or on the deep-link road the failure's own text.
    // Main thread, except on the deep-link road, where it arrives on the HTTP thread. When a
    // flow was open it also closes with onClosed("TranscationCompleted"), before or after this
    // call depending on the failure: only this call tells a failure from a success.
    virtual void onError(const std::string& error) = 0;
    // A flow closed, or the QR scanner was left: a CloseReason text. Main thread.
    virtual void onClosed(const std::string& reason) = 0;
    // A deep link was resolved into a transaction message, {"payload": "<JSON text>"}. Arrives
    // on the HTTP thread, but onPushReceived is main queue only (a debug build stops when it is
    // called from here): hop, then pass the message on with the host's key:
    //     kelvane::Queue::main()->async([=] { app->onPushReceived(payload, delegate, key); });
    virtual void onTransactionRequest(const Json& payload) = 0;
};

}  // namespace kelvane
