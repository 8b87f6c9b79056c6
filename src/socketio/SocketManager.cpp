#include "socketio/SocketManager.hpp"

#include "socketio/SocketEngine.hpp"
#include "socketio/SocketLogger.hpp"
#include "support/Fatal.hpp"
#include "support/Utf8.hpp"

#include <algorithm>
#include <cmath>
#include <random>

namespace kelvane::socketio {
namespace {

constexpr std::string_view kLogType = "SocketManager";
// How soon a round that found a connect under way looks again, when the wait is shorter.
constexpr double kMinimumRecheck = 0.01;

double uniformDraw() {
    thread_local std::mt19937_64 generator{std::random_device{}()};
    return std::uniform_real_distribution<double>(0.0, 1.0)(generator);
}

}  // namespace

SocketManager::SocketManager(URL socketURL, SocketIOClientConfiguration config)
    : random(uniformDraw), socketURL_(std::move(socketURL)), handleQueue_(Queue::main()) {
    setConfigs(config);
}

SocketManager::SocketManager(URL socketURL, const std::map<std::string, SocketIOClientOption::Value>& options)
    : SocketManager(std::move(socketURL), SocketIOClientConfiguration::fromObject(options)) {}

SocketManager::~SocketManager() {
    socketLog(kLogType, [] { return "Manager is being released"; });
    if (engine_) engine_->disconnect("Manager Deinit");
}

void SocketManager::setStatus(SocketIOStatus status) {
    status_ = status;
    if (status == SocketIOStatus::connected) endReconnectLoop();
}

void SocketManager::endReconnectLoop() {
    reconnecting = false;
    currentReconnectAttempt = 0;
    ++reconnectLoop_;
}

void SocketManager::setConfig(const SocketIOClientConfiguration& config) {
    if (active(status_)) {
        socketLog(kLogType, [] {
            return "Setting configs on active manager. Some configs may not be applied until reconnect";
        });
    }
    setConfigs(config);
}

void SocketManager::setConfigs(const SocketIOClientConfiguration& config) {
    using Kind = SocketIOClientOption::Kind;
    for (const auto& option : config) {
        switch (option.kind()) {
        case Kind::forceNew: forceNew = *option.get<bool>(); break;
        case Kind::handleQueue:
            if (auto queue = *option.get<std::shared_ptr<Queue>>()) handleQueue_ = queue;
            break;
        case Kind::reconnects: reconnects = *option.get<bool>(); break;
        case Kind::reconnectAttempts: reconnectAttempts = *option.get<std::int64_t>(); break;
        case Kind::reconnectWait: reconnectWait = std::abs(*option.get<std::int64_t>()); break;
        case Kind::reconnectWaitMax: reconnectWaitMax = std::abs(*option.get<std::int64_t>()); break;
        case Kind::randomizationFactor: randomizationFactor = *option.get<double>(); break;
        case Kind::version: version_ = *option.get<SocketIOVersion>(); break;
        case Kind::limits: limits_ = *option.get<websocket::Limits>(); break;
        case Kind::log: defaultLogger()->setLog(*option.get<bool>()); break;
        case Kind::logger:
            if (auto logger = *option.get<std::shared_ptr<SocketLogger>>()) setDefaultLogger(logger);
            break;
        default: break;
        }
    }
    config_ = config;
    if (socketURL_.absoluteString().starts_with("https://")) config_.insert(SocketIOClientOption::secure(true));
    config_.insert(SocketIOClientOption::path("/socket.io/"), false);
    if (auto engine = engine_) {
        engine->engineQueue()->sync([&] { engine->setConfigs(config_); });
    }
}

std::shared_ptr<SocketIOClient> SocketManager::socket(const std::string& forNamespace) {
#ifndef NDEBUG
    if (!forNamespace.starts_with("/")) fatalStop("forNamespace must have a leading /");
#endif
    if (auto found = nsps.find(forNamespace); found != nsps.end()) return found->second;
    auto client = std::make_shared<SocketIOClient>(std::weak_ptr<SocketManagerSpec>(shared_from_this()), forNamespace);
    nsps[forNamespace] = client;
    return client;
}

std::shared_ptr<SocketIOClient> SocketManager::removeSocket(const SocketIOClient& socket) {
    auto found = nsps.find(socket.nsp());
    if (found == nsps.end()) return nullptr;
    auto removed = found->second;
    nsps.erase(found);
    return removed;
}

void SocketManager::forAll(const std::function<void(SocketIOClient&)>& action) {
    // A handler may add or remove namespaces while we walk.
    std::vector<std::shared_ptr<SocketIOClient>> clients;
    clients.reserve(nsps.size());
    for (const auto& [nsp, client] : nsps) clients.push_back(client);
    for (const auto& client : clients) action(*client);
}

void SocketManager::emitAll(SocketClientEvent event, const std::vector<Json>& data) {
    forAll([&](SocketIOClient& client) { client.handleClientEvent(event, data); });
}

void SocketManager::emitAll(const std::string& event, const std::vector<SocketItem>& items) {
    std::vector<Json> data{Json(event)};
    for (const auto& item : items) {
        auto representation = item.socketRepresentation();
        if (!representation) {
            socketError(kLogType, [&] {
                std::vector<Json> shown;
                for (const auto& each : items) {
                    auto value = each.socketRepresentation();
                    shown.push_back(value ? *value : Json(value.error().text()));
                }
                return "Error creating socketRepresentation for emit: " + event + ", " + printed(shown);
            });
            return;
        }
        data.push_back(std::move(*representation));
    }
    forAll([&](SocketIOClient& client) { client.emit(data); });
}

void SocketManager::connect() {
    if (status_ == SocketIOStatus::connected ||
        (status_ == SocketIOStatus::connecting && currentReconnectAttempt == 0)) {
        socketLog(kLogType, [] { return "Tried connecting an already active socket"; });
        return;
    }
    if (!engine_ || forceNew) addEngine();
    setStatus(SocketIOStatus::connecting);
    engine_->connect();
}

void SocketManager::addEngine() {
    socketLog(kLogType, [] { return "Adding engine"; });
    if (auto old = engine_) {
        // Cut the old engine off before it closes, so that its close reaches nobody.
        old->engineQueue()->sync([&] {
            old->setClient({});
            old->disconnect("Adding new engine");
        });
    }
    if (engineFactory) {
        engine_ = engineFactory(*this);
    } else {
        engine_ = std::make_shared<SocketEngine>(weak_from_this(), socketURL_, config_);
    }
}

void SocketManager::connectSocket(SocketIOClient& socket, const std::optional<Json>& payload) {
    if (status_ != SocketIOStatus::connected) {
        socketLog(kLogType, [] { return "Tried connecting socket when engine isn't open. Connecting"; });
        connect();
        return;
    }
    std::string payloadText;
    if (static_cast<int>(version_) >= 3 && payload) {
        try {
            auto text = payload->dump();
            if (isValidUTF8(text)) payloadText = std::move(text);
        } catch (const Json::exception&) {
            // Not serialisable (invalid UTF-8 in a text): the connect goes out without a payload.
        }
    }
    if (engine_) engine_->send("0" + socket.nsp() + "," + payloadText, {});
}

void SocketManager::disconnect() {
    socketLog(kLogType, [] { return "Manager closing"; });
    setStatus(SocketIOStatus::disconnected);
    // A later connect that fails starts a loop of its own.
    endReconnectLoop();
    if (engine_) engine_->disconnect("Disconnect");
}

void SocketManager::disconnectSocket(SocketIOClient& socket) {
    if (engine_) engine_->send("1" + socket.nsp() + ",", {});
    socket.didDisconnect("Namespace leave");
}

void SocketManager::disconnectSocket(const std::string& forNamespace) {
    auto found = nsps.find(forNamespace);
    if (found == nsps.end()) {
        socketLog(kLogType, [&] { return "Could not find socket for " + forNamespace + " to disconnect"; });
        return;
    }
    auto client = found->second;
    nsps.erase(found);
    disconnectSocket(*client);
}

void SocketManager::didDisconnect(const std::string& reason) {
    forAll([&](SocketIOClient& client) { client.didDisconnect(reason); });
}

void SocketManager::reconnect() {
    if (reconnecting) return;
    if (engine_) engine_->disconnect("manual reconnect");
}

void SocketManager::onHandleQueue(FromEngine item) {
    if (!fromEngine_.put(std::move(item))) return;
    handleQueue_->async([weak = weak_from_this()] {
        auto self = weak.lock();
        if (!self) return;
        self->fromEngine_.deliver([&](FromEngine& item) {
            if (item.work) return item.work(*self);
            self->_parseEngineMessage(item.message);
        });
    });
}

void SocketManager::engineDidClose(std::string reason) {
    onHandleQueue({{}, [reason = std::move(reason)](SocketManager& self) { self._engineDidClose(reason); }});
}
void SocketManager::engineDidError(std::string reason) {
    onHandleQueue({{}, [reason = std::move(reason)](SocketManager& self) { self._engineDidError(reason); }});
}
void SocketManager::engineDidOpen(std::string reason) {
    onHandleQueue({{}, [reason = std::move(reason)](SocketManager& self) { self._engineDidOpen(reason); }});
}
void SocketManager::engineDidReceivePing() {
    onHandleQueue({{}, [](SocketManager& self) { self._engineDidReceivePing(); }});
}
void SocketManager::engineDidSendPing() {
    onHandleQueue({{}, [](SocketManager& self) { self._engineDidSendPing(); }});
}
void SocketManager::engineDidReceivePong() {
    onHandleQueue({{}, [](SocketManager& self) { self._engineDidReceivePong(); }});
}
void SocketManager::engineDidSendPong() {
    onHandleQueue({{}, [](SocketManager& self) { self._engineDidSendPong(); }});
}
void SocketManager::parseEngineMessage(std::string message) { onHandleQueue({std::move(message), nullptr}); }
void SocketManager::parseEngineBinaryData(Bytes data) {
    onHandleQueue(
        {{}, [data = std::move(data)](SocketManager& self) mutable { self._parseEngineBinaryData(std::move(data)); }});
}
void SocketManager::engineDidWebsocketUpgrade(websocket::Headers headers) {
    onHandleQueue(
        {{}, [headers = std::move(headers)](SocketManager& self) { self._engineDidWebsocketUpgrade(headers); }});
}

void SocketManager::_engineDidClose(const std::string& reason) {
    forgetWaitingPackets();
    if (status_ != SocketIOStatus::disconnected) setStatus(SocketIOStatus::notConnected);
    if (status_ == SocketIOStatus::disconnected || !reconnects) {
        didDisconnect(reason);
    } else if (!reconnecting) {
        reconnecting = true;
        ++reconnectLoop_;
        tryReconnect(reason);
    }
}

void SocketManager::_engineDidError(const std::string& reason) {
    socketError(kLogType, [&] { return reason; });
    emitAll(SocketClientEvent::error, {Json(reason)});
}

void SocketManager::_engineDidOpen(const std::string& reason) {
    socketLog(kLogType, [&] { return "Engine opened " + reason; });
    setStatus(SocketIOStatus::connected);
    const bool oldRevision = static_cast<int>(version_) < 3;
    if (oldRevision) {
        if (auto found = nsps.find("/"); found != nsps.end()) found->second->didConnect("/", std::nullopt);
    }
    std::vector<std::shared_ptr<SocketIOClient>> joining;
    for (const auto& [nsp, client] : nsps) {
        if (client->status() != SocketIOStatus::connecting) continue;
        if (oldRevision && nsp == "/") continue;
        joining.push_back(client);
    }
    for (const auto& client : joining) connectSocket(*client, client->connectPayload);
}

void SocketManager::_engineDidReceivePing() { emitAll(SocketClientEvent::ping, {}); }
void SocketManager::_engineDidSendPing() { emitAll(SocketClientEvent::ping, {}); }
void SocketManager::_engineDidReceivePong() { emitAll(SocketClientEvent::pong, {}); }
void SocketManager::_engineDidSendPong() { emitAll(SocketClientEvent::pong, {}); }

void SocketManager::_engineDidWebsocketUpgrade(const websocket::Headers& headers) {
    Json object = Json::object();
    for (const auto& [name, value] : headers) object[name] = value;
    emitAll(SocketClientEvent::websocketUpgrade, {object});
}

void SocketManager::_parseEngineMessage(const std::string& message) {
    auto packet = parseSocketMessage(message);
    if (!packet) return;
    if (isBinary(packet->type())) {
        waitingPackets.push_back(std::move(*packet));
        waitingCosts_.push_back(message.size());
        holdWaiting(message.size());
        return;
    }
    if (auto found = nsps.find(packet->nsp()); found != nsps.end()) {
        auto client = found->second;
        client->handlePacket(std::move(*packet));
    }
}

void SocketManager::_parseEngineBinaryData(Bytes data) {
    const bool awaited = !waitingPackets.empty();
    if (awaited) {
        // An empty attachment still costs its place.
        waitingCosts_.back() += data.size() + 1;
        if (!holdWaiting(data.size() + 1)) return;
    }
    auto packet = parseBinaryData(std::move(data));
    if (awaited && packet) {
        waitingBytes_ -= waitingCosts_.back();
        waitingCosts_.pop_back();
    }
    if (!packet) return;
    if (auto found = nsps.find(packet->nsp()); found != nsps.end()) {
        auto client = found->second;
        client->handlePacket(std::move(*packet));
    }
}

bool SocketManager::holdWaiting(std::size_t bytes) {
    waitingBytes_ += bytes;
    if (waitingBytes_ <= limits_.maxMessageSize) return true;
    socketError(kLogType, [] { return "Binary packets waiting for attachments passed the message size limit"; });
    forgetWaitingPackets();
    if (auto engine = engine_) {
        engine->engineQueue()->async([engine] { engine->didError(messageTooBig()); });
    }
    return false;
}

void SocketManager::forgetWaitingPackets() {
    waitingPackets.clear();
    waitingCosts_.clear();
    waitingBytes_ = 0;
}

void SocketManager::tryReconnect(const std::string& reason) {
    if (!reconnecting) return;
    socketLog(kLogType, [] { return "Starting reconnect"; });
    forAll([&](SocketIOClient& client) { client.setReconnecting(reason); });
    _tryReconnect();
}

void SocketManager::_tryReconnect() {
    if (!reconnects || !reconnecting || status_ == SocketIOStatus::disconnected) return;
    if (reconnectAttempts != -1 && currentReconnectAttempt + 1 > reconnectAttempts) {
        didDisconnect("Reconnect Failed");
        return;
    }
    if (engine_ && engine_->underWay()) {
        // One engine connect at a time: this round waits for the one under way to end, or
        // for the open the engine has not reported yet.
        socketLog(kLogType, [] { return "Waiting for the engine's connect under way"; });
        scheduleReconnect(std::max(reconnectInterval(currentReconnectAttempt), kMinimumRecheck));
        return;
    }
    socketLog(kLogType, [] { return "Trying to reconnect"; });
    const Json remaining = reconnectAttempts - currentReconnectAttempt;
    forAll([&](SocketIOClient& client) {
        if (client.status() == SocketIOStatus::connecting) {
            client.handleClientEvent(SocketClientEvent::reconnectAttempt, {remaining});
        }
    });
    ++currentReconnectAttempt;
    connect();
    const double interval = reconnectInterval(currentReconnectAttempt);
    socketLog(kLogType, [&] { return "Scheduling reconnect in " + Json(interval).dump() + "s"; });
    scheduleReconnect(interval);
}

void SocketManager::scheduleReconnect(double seconds) {
    // The round belongs to this loop; once the loop has ended it does nothing.
    handleQueue_->asyncAfter(std::chrono::duration_cast<Queue::Duration>(std::chrono::duration<double>(seconds)),
                             [weak = weak_from_this(), loop = reconnectLoop_] {
                                 auto self = weak.lock();
                                 if (self && self->reconnectLoop_ == loop) self->_tryReconnect();
                             });
}

double SocketManager::reconnectInterval(std::int64_t attempts) const {
    // 1.5^n is exact in binary for every attempt count that can matter here.
    const double factor = std::pow(1.5, static_cast<double>(attempts));
    const double wait = static_cast<double>(reconnectWait);
    const double interval = wait * factor;
    const double rand = random ? random() : uniformDraw();
    const double combined = interval + rand * randomizationFactor * interval;
    return std::max(wait, std::min(combined, static_cast<double>(reconnectWaitMax)));
}

}  // namespace kelvane::socketio
