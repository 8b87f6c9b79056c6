#include "backend/WebSocketService.hpp"

#include <kelvane/Log.hpp>

#include "backend/ApiService.hpp"
#include "socketio/SocketIOClient.hpp"
#include "socketio/SocketManager.hpp"
#include "support/Fatal.hpp"
#include "support/Utf8.hpp"

namespace kelvane {

std::shared_ptr<socketio::SocketManager> WebSocketService::socketManager;

Promise<bool> WebSocketService::tryConnect(const SocketData& socketData, std::shared_ptr<KelvaneService> with) {
    logLine("Data payload url -> " + socketData.url);
    logLine("Data payload con -> " + socketData.requestId);
    std::string url(trimmingWhitespacesAndNewlines(socketData.url));
    requestId = std::string(trimmingWhitespacesAndNewlines(socketData.requestId));
    auto self = std::static_pointer_cast<WebSocketService>(shared_from_this());
    return Promise<bool>([self, url, delegate = std::move(with)](auto fulfill, auto) {
        const std::string& id = self->requestId;
        if (id.empty() || url.empty()) return;
        logLine("Request id and url is not empty");
        auto socketURL = forceUnwrap(URL::make(url));
        using socketio::SocketIOClientOption;
        socketManager = std::make_shared<socketio::SocketManager>(
            socketURL, socketio::SocketIOClientConfiguration{
                           SocketIOClientOption::log(true),
                           SocketIOClientOption::compress(),
                           SocketIOClientOption::forceWebsockets(true),
                           SocketIOClientOption::extraHeaders({{"chatcode", id}}),
                       });
        auto socket = socketManager->defaultSocket();
        socket->on(socketio::SocketClientEvent::connect, [fulfill](const auto&, auto&) { fulfill(true); });
        auto failed = [self, fulfill](const auto&, auto&) {
            fulfill(false);
            self->dispose();
        };
        socket->on(socketio::SocketClientEvent::error, failed);
        socket->on(socketio::SocketClientEvent::disconnect, failed);
        socket->on(id, [self, url, delegate](const std::vector<Json>& data, auto&) {
            self->handleResult(data, url, delegate);
        });
        socket->connect();
    });
}

void WebSocketService::dispose() {
    // Forgotten first: the disconnect below runs this socket's own disconnect handler, which
    // disposes again.
    if (auto manager = std::exchange(socketManager, nullptr)) manager->defaultSocket()->disconnect();
}

void WebSocketService::handleResult(const std::vector<Json>& data, const std::string& url,
                                    const std::shared_ptr<KelvaneService>& delegate) {
    logLine("Data json : " + json::dump(Json(data)));
    for (const auto& element : data) {
        if (!element.is_object()) {
            logLine("JSON is not in the expected format");
            return;
        }
    }
    auto status = data.empty() ? std::nullopt : json::getString(data.front(), "status");
    if (!status) {
        logLine("status is missing or not a string");
    } else if (*status == std::to_string(connection(ConnectionStatus::connectionReset))) {
        dispose();
        // This object is never shown, so the dismissal ends the process once the host has heard
        // of the close.
        customDismiss(CloseReason::TranscationCompleted, delegate);
        return;
    }
    auto authReqId = data.empty() ? std::nullopt : json::getString(data.front(), "auth_req_id");
    if (!authReqId) {
        logLine("authReqId is missing or not a string");
        return;
    }
    logLine("auth_req_id: " + *authReqId);
    dispose();
    ApiService().sendConnectionStatus(ConnectionStatus::completed, url, requestId, [](bool) {});
    forceUnwrap(delegate, kImplicitUnwrapNil).onResult(requestId, *authReqId);
}

}  // namespace kelvane
