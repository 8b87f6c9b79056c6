#pragma once

#include "socketio/SocketEngineSpec.hpp"
#include "socketio/SocketIOClient.hpp"
#include "socketio/SocketIOClientOption.hpp"
#include "socketio/SocketManagerSpec.hpp"
#include "socketio/SocketPacket.hpp"
#include "support/Inbox.hpp"

#include <kelvane/Json.hpp>
#include <kelvane/Queue.hpp>
#include <kelvane/URL.hpp>

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace kelvane::socketio {

// One connection to one server: its engine, the namespaces that share it, the reconnect loop
// and the binary packets waiting for attachments. Make it with std::make_shared. Everything
// belongs to handleQueue (the main queue unless an option says otherwise): call it from there.
// Engine reports may come from any queue; they hop to handleQueue.
//
// The binary packets waiting for their attachments (waitingPackets) hold together at most the
// `limits` option's maxMessageSize: their texts, plus each attachment so far (an empty one
// counted as one byte). A server that makes them hold more broke the protocol: they are
// forgotten and the engine closes as for any protocol failure ("message too big", 1009).
class SocketManager final : public SocketManagerSpec,
                            public SocketEngineClient,
                            public SocketParsable,
                            public std::enable_shared_from_this<SocketManager> {
public:
    SocketManager(URL socketURL, SocketIOClientConfiguration config = {});
    SocketManager(URL socketURL, const std::map<std::string, SocketIOClientOption::Value>& options);
    ~SocketManager() override;
    SocketManager(const SocketManager&) = delete;
    SocketManager& operator=(const SocketManager&) = delete;

    const URL& socketURL() const { return socketURL_; }
    bool forceNew = false;
    std::map<std::string, std::shared_ptr<SocketIOClient>> nsps;
    bool reconnects = true;
    std::int64_t reconnectWait = 10;
    std::int64_t reconnectWaitMax = 30;
    double randomizationFactor = 0.5;
    std::int64_t reconnectAttempts = -1;
    std::int64_t currentReconnectAttempt = 0;
    bool reconnecting = false;
    // A uniform draw from [0, 1) for the reconnect jitter; replaceable for tests.
    std::function<double()> random;
    // Makes the engine in addEngine(); a SocketEngine unless replaced (tests put fakes here).
    std::function<std::shared_ptr<SocketEngineSpec>(SocketManager&)> engineFactory;

    // SocketManagerSpec.
    void connectSocket(SocketIOClient& socket, const std::optional<Json>& payload) override;
    void disconnectSocket(SocketIOClient& socket) override;
    void reconnect() override;
    std::shared_ptr<SocketEngineSpec> engine() const override { return engine_; }
    std::shared_ptr<Queue> handleQueue() const override { return handleQueue_; }
    SocketIOStatus status() const override { return status_; }
    SocketIOVersion version() const override { return version_; }

    // Connecting also clears the reconnect state.
    void setStatus(SocketIOStatus status);
    void setEngine(std::shared_ptr<SocketEngineSpec> engine) { engine_ = std::move(engine); }

    const SocketIOClientConfiguration& config() const { return config_; }
    // Logs when the manager is active; some options only apply at the next connect.
    void setConfig(const SocketIOClientConfiguration& config);
    void setConfigs(const SocketIOClientConfiguration& config);

    std::shared_ptr<SocketIOClient> defaultSocket() { return socket("/"); }
    std::shared_ptr<SocketIOClient> socket(const std::string& forNamespace);
    std::shared_ptr<SocketIOClient> removeSocket(const SocketIOClient& socket);

    void addEngine();
    void connect();
    void disconnect();
    void disconnectSocket(const std::string& forNamespace);
    void didDisconnect(const std::string& reason);
    void emitAll(SocketClientEvent event, const std::vector<Json>& data);
    void emitAll(const std::string& event, const std::vector<SocketItem>& items);
    void forAll(const std::function<void(SocketIOClient&)>& action);

    // Engine reports: any queue; each hops to handleQueue.
    void engineDidClose(std::string reason) override;
    void engineDidError(std::string reason) override;
    void engineDidOpen(std::string reason) override;
    void engineDidReceivePing() override;
    void engineDidSendPing() override;
    void engineDidReceivePong() override;
    void engineDidSendPong() override;
    void parseEngineMessage(std::string message) override;
    void parseEngineBinaryData(Bytes data) override;
    void engineDidWebsocketUpgrade(websocket::Headers headers) override;

    // The same on handleQueue.
    void _engineDidClose(const std::string& reason);
    void _engineDidError(const std::string& reason);
    void _engineDidOpen(const std::string& reason);
    void _engineDidReceivePing();
    void _engineDidSendPing();
    void _engineDidReceivePong();
    void _engineDidSendPong();
    void _parseEngineMessage(const std::string& message);
    void _parseEngineBinaryData(Bytes data);
    void _engineDidWebsocketUpgrade(const websocket::Headers& headers);

    // The reconnect loop. At most one runs at a time: a close while it runs starts no other,
    // and a round scheduled by a loop that has ended (the engine opened, disconnect() was
    // called, a later close started a new loop) does nothing. A round never starts an engine
    // connect while one is under way, or while the session of one runs; it waits, without
    // counting an attempt.
    void tryReconnect(const std::string& reason);
    void _tryReconnect();
    // Seconds before the next attempt.
    double reconnectInterval(std::int64_t attempts) const;

private:
    // What the engine hands over reaches the handle queue through one inbox, in order: a text
    // packet as its text, anything else as work.
    struct FromEngine {
        std::string message;
        std::function<void(SocketManager&)> work;
    };
    void onHandleQueue(FromEngine item);
    void endReconnectLoop();
    void scheduleReconnect(double seconds);
    // Counts bytes into what the waiting binary packets hold; false (and the engine closing
    // as for a protocol failure) once that passes the limit.
    bool holdWaiting(std::size_t bytes);
    void forgetWaitingPackets();

    URL socketURL_;
    std::shared_ptr<SocketEngineSpec> engine_;
    std::shared_ptr<Queue> handleQueue_;
    Inbox<FromEngine> fromEngine_;
    SocketIOStatus status_ = SocketIOStatus::notConnected;
    SocketIOVersion version_ = SocketIOVersion::three;
    SocketIOClientConfiguration config_;
    // Which loop a scheduled round belongs to.
    std::uint64_t reconnectLoop_ = 0;
    websocket::Limits limits_;
    // What each waiting binary packet holds (its text, and each attachment so far plus one),
    // and their sum.
    std::vector<std::size_t> waitingCosts_;
    std::size_t waitingBytes_ = 0;
};

}  // namespace kelvane::socketio
