#pragma once

#include "socketio/SocketEngineSpec.hpp"
#include "socketio/SocketIOClientOption.hpp"
#include "support/HTTPSession.hpp"
#include "websocket/Limits.hpp"
#include "websocket/WebSocket.hpp"

#include <kelvane/Json.hpp>
#include <kelvane/URL.hpp>
#include <kelvane/platform/Network.hpp>

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <variant>
#include <vector>

namespace kelvane::socketio {

// The reason the engine closes with when a server breaks a size limit: the same words as a
// WebSocket that closed with 1009.
std::string messageTooBig();

// One Engine.IO session over a WebSocket, long polling, or polling upgraded to a WebSocket.
// Make it with std::make_shared. All state belongs to engineQueue; the members marked "any
// thread" queue their work there.
class SocketEngine final : public SocketEngineSpec,
                           public websocket::WebSocketDelegate,
                           public HTTPSessionDelegate,
                           public std::enable_shared_from_this<SocketEngine> {
public:
    using Clock = std::chrono::steady_clock;

    SocketEngine(std::weak_ptr<SocketEngineClient> client, URL url, const SocketIOClientConfiguration& config);
    SocketEngine(std::weak_ptr<SocketEngineClient> client, URL url,
                 const std::map<std::string, SocketIOClientOption::Value>& options);
    ~SocketEngine() override;
    SocketEngine(const SocketEngine&) = delete;
    SocketEngine& operator=(const SocketEngine&) = delete;

    // SocketEngineSpec.
    const std::shared_ptr<Queue>& engineQueue() const override { return engineQueue_; }
    void setClient(std::weak_ptr<SocketEngineClient> client) override { client_ = std::move(client); }
    bool setConfigs(const SocketIOClientConfiguration& config) override;
    bool underWay() const override;
    void connect() override;
    void disconnect(std::string reason) override;
    void send(std::string text, std::vector<Bytes> data, Completion completion = {}) override;
    void write(std::string text, SocketEnginePacketType type, std::vector<Bytes> data,
               Completion completion = {}) override;
    void didError(std::string reason) override;
    void doFastUpgrade() override;
    void flushWaitingForPostToWebSocket() override;
    void parseEngineData(Bytes data) override;
    void parseEngineMessage(std::string message) override;

    // The WebSocket's events, on engineQueue.
    void didReceive(const websocket::WebSocketEvent& event, websocket::WebSocket& client) override;
    // Takes the text of a message rather than copying it.
    void didReceive(websocket::WebSocketEvent&& event, websocket::WebSocket& client) override;
    // The polling session's end, on engineQueue.
    void didBecomeInvalid(const std::optional<Error>& error) override;

    // Long polling (engine queue only).
    void doPoll();
    void doLongPoll(platform::HTTPRequest request);
    void doRequest(const platform::HTTPRequest& request, HTTPSession::Completion callback);
    void parsePollingMessage(const std::string& text);
    void sendPollMessage(const std::string& text, SocketEnginePacketType type, const std::vector<Bytes>& data,
                         Completion completion);
    void stopPolling();
    void flushWaitingForPost();
    platform::HTTPRequest createRequestForPostWithPostWait();

    // The URLs of this session (engine queue only, after construction).
    const URL& urlPolling() const { return urlPolling_; }
    const URL& urlWebSocket() const { return urlWebSocket_; }
    URL urlPollingWithSid() const;
    URL urlWebSocketWithSid() const;

    // Read on engineQueue (tests sync onto it).
    bool connected() const { return connected_; }
    bool closed() const { return closed_; }
    bool polling() const { return polling_; }
    bool probing() const { return probing_; }
    bool fastUpgrade() const { return fastUpgrade_; }
    bool wsConnected() const { return wsConnected_; }
    bool waitingForPoll() const { return waitingForPoll_; }
    bool waitingForPost() const { return waitingForPost_; }
    const std::string& sid() const { return sid_; }
    std::optional<std::int64_t> pingInterval() const { return pingInterval_; }
    std::int64_t pingTimeout() const { return pingTimeout_; }
    std::int64_t pongsMissedMax() const { return pongsMissedMax_; }
    const std::string& socketPath() const { return socketPath_; }
    SocketIOVersion version() const { return version_; }
    std::size_t postWaitCount() const { return postWait_.size(); }
    std::size_t probeWaitCount() const { return probeWait_.size(); }
    const std::shared_ptr<websocket::WebSocket>& ws() const { return ws_; }

    // Where polling requests go; the library's libcurl client unless replaced before connect().
    // With a pinner, that client becomes one of the engine's own that asks the pinner.
    std::shared_ptr<platform::HTTP> http;

private:
    struct Post {
        std::string msg;
        Completion completion;
    };
    struct Probe {
        std::string msg;
        SocketEnginePacketType type;
        std::vector<Bytes> data;
        Completion completion;
    };

    void _connect(std::uint64_t number);
    // Engine queue: the session of the current connect ended, or that connect opened none.
    void sessionEnded();
    void writeNow(std::string text, SocketEnginePacketType type, std::vector<Bytes> data, Completion completion);
    void _disconnect(const std::string& reason);
    void resetEngine();
    void createURLs();
    // The query with the revision's EIO parameter, unless something in it already spells EIO.
    std::string withEngineParam(std::string query) const;
    void addHeaders(platform::HTTPRequest& request, const std::vector<HTTPCookie>& extraCookies = {}) const;
    void createWebSocketAndConnect();
    void websocketDidConnect();
    void websocketDidDisconnect(const std::optional<std::variant<websocket::WSError, Error>>& error);
    void probeWebSocket();
    void upgradeTransport();
    void flushProbeWait();
    void sendWebSocketMessage(std::string text, SocketEnginePacketType type, const std::vector<Bytes>& data,
                              Completion completion);
    std::variant<std::monostate, Bytes, std::string> createBinaryDataForSend(const Bytes& data) const;
    void handleBase64(const std::string& message);
    void checkAndHandleEngineError(const std::string& message);
    void handleOpen(const std::string& openData);
    void handlePing(const std::string& message);
    void handlePong(const std::string& message);
    void checkPings();
    void sendPing();
    void closeOutEngine(const std::string& reason);
    void disconnectPolling(const std::string& reason);
    void setPingTimeout(std::int64_t timeout);
    std::shared_ptr<SocketEngineClient> client() const { return client_.lock(); }

    std::shared_ptr<Queue> engineQueue_;
    std::optional<Json> connectParams_;
    std::optional<std::map<std::string, std::string>> extraHeaders_;
    std::vector<Post> postWait_;
    bool waitingForPoll_ = false;
    bool waitingForPost_ = false;
    bool closed_ = false;
    bool compress_ = false;
    bool connected_ = false;
    std::optional<std::vector<HTTPCookie>> cookies_;
    bool fastUpgrade_ = false;
    bool forcePolling_ = false;
    bool forceWebsockets_ = false;
    bool invalidated_ = false;
    bool polling_ = true;
    bool probing_ = false;
    std::shared_ptr<HTTPSession> session_;
    std::string sid_;
    std::string socketPath_ = "/engine.io/";
    URL urlPolling_;
    URL urlWebSocket_;
    bool useCustomEngine_ = true;
    SocketIOVersion version_ = SocketIOVersion::three;
    bool enableSOCKSProxy_ = false;
    std::shared_ptr<websocket::WebSocket> ws_;
    bool wsConnected_ = false;
    // The protocol error that made the WebSocket cut its connection.
    std::optional<websocket::WSError> wsFailure_;
    std::weak_ptr<SocketEngineClient> client_;
    std::weak_ptr<HTTPSessionDelegate> sessionDelegate_;  // empty: the engine itself
    bool ownSessionDelegate_ = true;
    URL url_;
    std::optional<Clock::time_point> lastCommunication_;
    std::optional<std::int64_t> pingInterval_;
    std::int64_t pingTimeout_ = 0;
    std::int64_t pongsMissed_ = 0;
    std::int64_t pongsMissedMax_ = 0;
    std::vector<Probe> probeWait_;
    bool secure_ = false;
    std::shared_ptr<websocket::CertificatePinning> certPinner_;
    std::shared_ptr<platform::HTTP> pinnedHTTP_;  // made for certPinner_ on the first connect
    bool selfSigned_ = false;
    // The WebSocket's limits; a polling answer larger than maxMessageSize is a protocol failure.
    websocket::Limits limits_;
    // Counts the sessions begun, so that answers to an earlier session's requests are dropped.
    std::uint64_t sessionGeneration_ = 0;
    // The connect whose session runs or is being opened (engine queue).
    std::uint64_t currentConnect_ = 0;
    // Connects asked for, and those whose session (or attempt) ended: read from any thread.
    mutable std::mutex connectMutex_;
    std::uint64_t connectsAsked_ = 0;
    std::uint64_t connectsSettled_ = 0;
};

}  // namespace kelvane::socketio
