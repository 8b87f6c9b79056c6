#pragma once

#include "flow/WebViewController.hpp"
#include "support/Promise.hpp"

#include <memory>
#include <string>

namespace kelvane {

namespace socketio {
class SocketManager;
}

// The status socket of a transaction. Objects are made for each use (with std::make_shared,
// since tryConnect hands the object to the socket's handlers); the connection itself belongs
// to the class, so any object can end it. Never shown: its web view stays absent. Main queue
// only, which is also where the socket's handlers run.
class WebSocketService : public WebViewController {
public:
    // The one connection of the process.
    static std::shared_ptr<socketio::SocketManager> socketManager;

    std::string requestId;

    // Connects to the transaction's socket and listens for its outcome. The promise becomes
    // true once connected, false on an error or a disconnect first; with an empty address or
    // request id (after trimming) it never settles. An address that is no URL is a fatal stop.
    Promise<bool> tryConnect(const SocketData& socketData, std::shared_ptr<KelvaneService> with);

    // Closes the class-level connection, if there is one, and forgets it.
    void dispose();

    // The handler of the event named after the request id: a reset status closes the flow (on
    // this never-shown object, so the close ends in a fatal stop); an "auth_req_id" reports
    // `completed` to `url` and hands the result to the delegate. Anything else is only logged.
    void handleResult(const std::vector<Json>& data, const std::string& url,
                      const std::shared_ptr<KelvaneService>& delegate);

    std::string className() const override { return "WebSocketService"; }
};

}  // namespace kelvane
