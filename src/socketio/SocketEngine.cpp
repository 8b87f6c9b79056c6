#include "socketio/SocketEngine.hpp"

#include "socketio/SocketLogger.hpp"
#include "socketio/SocketPacket.hpp"
#include "socketio/SocketStringReader.hpp"
#include "support/Base64.hpp"
#include "support/Fatal.hpp"
#include "support/Utf8.hpp"
#include "websocket/Compression.hpp"
#include "websocket/Text.hpp"

#include <algorithm>
#include <charconv>

namespace kelvane::socketio {
namespace {

constexpr std::string_view kLogType = "SocketEngine";
constexpr std::string_view kPollingLogType = "SocketEnginePolling";
constexpr std::string_view kWebSocketLogType = "SocketEngineWebSocket";
constexpr char kRecordSeparator = '\x1e';

URL makeURL(std::string_view text) { return forceUnwrap(URL::make(text)); }

platform::HTTPRequest makeRequest(URL url) {
    platform::HTTPRequest request{std::move(url), "GET", {}, std::nullopt, 60.0};
    return request;
}

// Encodes the characters that delimit or quote parts of a URL: !*'();:@&=+$,/?%#[]" {}^|.
// Past those, only what no URL can carry is encoded, as the URL itself would: other ASCII
// controls and punctuation a query never holds (<>\`), and every byte beyond ASCII.
std::string urlEncode(std::string_view text) {
    static constexpr char hex[] = "0123456789ABCDEF";
    static constexpr std::string_view delimiters = "!*'();:@&=+$,/?%#[]\" {}^|";
    static constexpr std::string_view neverInAURL = "<>\\`";
    std::string out;
    out.reserve(text.size());
    for (unsigned char c : text) {
        const char ch = static_cast<char>(c);
        const bool kept = c > 0x20 && c < 0x7F && delimiters.find(ch) == std::string_view::npos &&
                          neverInAURL.find(ch) == std::string_view::npos;
        if (kept) {
            out += ch;
        } else {
            out += '%';
            out += hex[c >> 4];
            out += hex[c & 0xF];
        }
    }
    return out;
}

std::string printedParam(const Json& value) { return value.is_string() ? value.get<std::string>() : printed(value); }

char typeDigit(SocketEnginePacketType type) { return static_cast<char>('0' + static_cast<int>(type)); }

void setHeader(platform::HTTPRequest& request, const std::string& name, const std::string& value) {
    for (auto& [field, existing] : request.headers) {
        if (websocket::equalsIgnoringASCIICase(field, name)) {
            existing = value;
            return;
        }
    }
    request.headers.emplace_back(name, value);
}

}  // namespace

std::string messageTooBig() {
    return websocket::describe(websocket::WSError{websocket::ErrorType::protocolError, "message too big",
                                                  static_cast<std::uint16_t>(websocket::CloseCode::messageTooBig)});
}

SocketEngine::SocketEngine(std::weak_ptr<SocketEngineClient> client, URL url, const SocketIOClientConfiguration& config)
    : engineQueue_(Queue::makeSerial("com.kelvane.socketio.engine")),
      urlPolling_(makeURL("http://localhost/")),
      urlWebSocket_(makeURL("http://localhost/")),
      client_(std::move(client)),
      url_(std::move(url)) {
    http = defaultHTTP();
    setConfigs(config);
    createURLs();
}

SocketEngine::SocketEngine(std::weak_ptr<SocketEngineClient> client, URL url,
                           const std::map<std::string, SocketIOClientOption::Value>& options)
    : SocketEngine(std::move(client), std::move(url), SocketIOClientConfiguration::fromObject(options)) {}

SocketEngine::~SocketEngine() {
    socketLog(kLogType, [] { return "Engine is being released"; });
    closed_ = true;
    waitingForPoll_ = false;
    waitingForPost_ = false;
    if (session_) session_->finishTasksAndInvalidate();
}

bool SocketEngine::setConfigs(const SocketIOClientConfiguration& config) {
    using Kind = SocketIOClientOption::Kind;
    for (const auto& option : config) {
        switch (option.kind()) {
        case Kind::connectParams: connectParams_ = *option.get<Json>(); break;
        case Kind::cookies: cookies_ = *option.get<std::vector<HTTPCookie>>(); break;
        case Kind::extraHeaders: extraHeaders_ = *option.get<std::map<std::string, std::string>>(); break;
        case Kind::sessionDelegate:
            sessionDelegate_ = *option.get<std::weak_ptr<HTTPSessionDelegate>>();
            ownSessionDelegate_ = false;
            break;
        case Kind::forcePolling: forcePolling_ = *option.get<bool>(); break;
        case Kind::forceWebsockets: forceWebsockets_ = *option.get<bool>(); break;
        case Kind::path:
            socketPath_ = *option.get<std::string>();
            if (!socketPath_.ends_with("/")) socketPath_ += "/";
            break;
        case Kind::secure: secure_ = *option.get<bool>(); break;
        case Kind::selfSigned: selfSigned_ = *option.get<bool>(); break;
        case Kind::security:
            certPinner_ = *option.get<std::shared_ptr<websocket::CertificatePinning>>();
            pinnedHTTP_.reset();
            break;
        case Kind::compress: compress_ = true; break;
        case Kind::enableSOCKSProxy: enableSOCKSProxy_ = *option.get<bool>(); break;
        case Kind::useCustomEngine: useCustomEngine_ = *option.get<bool>(); break;
        case Kind::version: version_ = *option.get<SocketIOVersion>(); break;
        case Kind::limits: limits_ = *option.get<websocket::Limits>(); break;
        default: break;
        }
    }
    return true;
}

// MARK: URLs

void SocketEngine::createURLs() {
    if (!client()) {
        urlPolling_ = makeURL("http://localhost/");
        urlWebSocket_ = makeURL("http://localhost/");
        return;
    }
    auto polling = URLComponents::make(url_);
    polling.setPath(socketPath_);
    auto webSocket = polling;
    polling.setScheme(secure_ ? "https" : "http");
    webSocket.setScheme(secure_ ? "wss" : "ws");

    std::string tail;
    if (connectParams_ && connectParams_->is_object()) {
        for (const auto& [key, value] : connectParams_->items()) {
            tail += "&" + urlEncode(key) + "=" + urlEncode(printedParam(value));
        }
    }
    webSocket.setPercentEncodedQuery(withEngineParam("transport=websocket" + tail));
    polling.setPercentEncodedQuery(withEngineParam("transport=polling&b64=1" + tail));
    if (auto made = polling.url()) urlPolling_ = *made;
    if (auto made = webSocket.url()) urlWebSocket_ = *made;
}

std::string SocketEngine::withEngineParam(std::string query) const {
    if (query.find("EIO") == std::string::npos) query += version_ == SocketIOVersion::two ? "&EIO=3" : "&EIO=4";
    return query;
}

URL SocketEngine::urlPollingWithSid() const {
    auto components = URLComponents::make(urlPolling_);
    components.setPercentEncodedQuery(
        withEngineParam(components.percentEncodedQuery().value_or("") + "&sid=" + urlEncode(sid_)));
    return components.url().value_or(urlPolling_);
}

URL SocketEngine::urlWebSocketWithSid() const {
    auto components = URLComponents::make(urlWebSocket_);
    auto query = components.percentEncodedQuery().value_or("");
    if (!sid_.empty()) query += "&sid=" + urlEncode(sid_);
    components.setPercentEncodedQuery(withEngineParam(std::move(query)));
    return components.url().value_or(urlWebSocket_);
}

void SocketEngine::addHeaders(platform::HTTPRequest& request, const std::vector<HTTPCookie>& extraCookies) const {
    std::vector<HTTPCookie> all = cookies_.value_or(std::vector<HTTPCookie>{});
    all.insert(all.end(), extraCookies.begin(), extraCookies.end());
    if (!all.empty()) {
        request.headers.clear();
        for (const auto& [name, value] : requestHeaderFields(all)) request.headers.emplace_back(name, value);
    }
    if (extraHeaders_) {
        for (const auto& [name, value] : *extraHeaders_) setHeader(request, name, value);
    }
}

// MARK: Entry points (any thread)

bool SocketEngine::underWay() const {
    std::lock_guard lock(connectMutex_);
    return connectsSettled_ < connectsAsked_;
}

void SocketEngine::connect() {
    std::uint64_t number = 0;
    {
        std::lock_guard lock(connectMutex_);
        number = ++connectsAsked_;
    }
    engineQueue_->async([self = shared_from_this(), number] { self->_connect(number); });
}

void SocketEngine::sessionEnded() {
    std::lock_guard lock(connectMutex_);
    connectsSettled_ = std::max(connectsSettled_, currentConnect_);
}

void SocketEngine::disconnect(std::string reason) {
    engineQueue_->async([self = shared_from_this(), reason = std::move(reason)] { self->_disconnect(reason); });
}

void SocketEngine::send(std::string text, std::vector<Bytes> data, Completion completion) {
    write(std::move(text), SocketEnginePacketType::message, std::move(data), std::move(completion));
}

void SocketEngine::write(std::string text, SocketEnginePacketType type, std::vector<Bytes> data,
                         Completion completion) {
    engineQueue_->async([self = shared_from_this(), text = std::move(text), type, data = std::move(data),
                         completion = std::move(completion)]() mutable {
        self->writeNow(std::move(text), type, std::move(data), std::move(completion));
    });
}

void SocketEngine::writeNow(std::string text, SocketEnginePacketType type, std::vector<Bytes> data,
                            Completion completion) {
    if (!connected_) {
        if (completion) completion();
        return;
    }
    if (probing_) {
        probeWait_.push_back({std::move(text), type, std::move(data), std::move(completion)});
        return;
    }
    if (polling_) {
        socketLog(kLogType, [&] { return "Writing poll: " + text + " has data: " + (data.empty() ? "false" : "true"); });
        sendPollMessage(text, type, data, std::move(completion));
    } else {
        socketLog(kLogType, [&] { return "Writing ws: " + text + " has data: " + (data.empty() ? "false" : "true"); });
        sendWebSocketMessage(std::move(text), type, data, std::move(completion));
    }
}

// MARK: Session

void SocketEngine::_connect(std::uint64_t number) {
    KELVANE_ASSERT_ON_QUEUE(*engineQueue_);
    if (connected_) {
        socketError(kLogType, [] { return "Engine tried opening while connected. Assuming this was a reconnect"; });
        _disconnect("reconnect");
    }
    currentConnect_ = number;
    socketLog(kLogType, [&] { return "Starting engine. Server: " + url_.absoluteString(); });
    socketLog(kLogType, [] { return "Handshaking"; });
    resetEngine();
    if (forceWebsockets_) {
        polling_ = false;
        createWebSocketAndConnect();
        return;
    }
    auto request = makeRequest(urlPolling_);
    request.timeoutInterval = 60.0;
    addHeaders(request);
    doLongPoll(std::move(request));
}

void SocketEngine::resetEngine() {
    // What an earlier session's requests and socket still report belongs to that session.
    ++sessionGeneration_;
    if (ws_) ws_->delegate = {};
    wsConnected_ = false;
    closed_ = false;
    connected_ = false;
    fastUpgrade_ = false;
    probing_ = false;
    invalidated_ = false;
    polling_ = true;
    std::weak_ptr<HTTPSessionDelegate> delegate = sessionDelegate_;
    if (ownSessionDelegate_) delegate = std::weak_ptr<SocketEngine>(shared_from_this());
    // Polling trusts whom the WebSocket trusts: the pinner when there is one, else the system's store.
    auto pollingHTTP = http;
    if (certPinner_ && http == defaultHTTP()) {
        if (!pinnedHTTP_) pinnedHTTP_ = websocket::httpTrusting(certPinner_);
        pollingHTTP = pinnedHTTP_;
    }
    session_ = std::make_shared<HTTPSession>(pollingHTTP, engineQueue_, delegate);
    sid_.clear();
    waitingForPoll_ = false;
    waitingForPost_ = false;
}

void SocketEngine::didBecomeInvalid(const std::optional<Error>& error) {
    if (!error) return;
    socketError(kLogType, [] { return "Engine URLSession became invalid"; });
    didError("Engine URLSession became invalid");
}

void SocketEngine::createWebSocketAndConnect() {
    websocket::Request request{urlWebSocketWithSid()};
    // The polling session keeps no cookie store of its own, so only the configured cookies go.
    auto headers = makeRequest(urlWebSocketWithSid());
    addHeaders(headers);
    for (const auto& [name, value] : headers.headers) request.setValue(value, name);

    std::shared_ptr<websocket::CompressionHandler> compression;
    if (compress_) compression = std::make_shared<websocket::WSCompression>();
    ws_ = std::make_shared<websocket::WebSocket>(std::move(request), certPinner_, compression, useCustomEngine_);
    ws_->setLimits(limits_);
    wsFailure_.reset();
    ws_->callbackQueue = engineQueue_;
    ws_->delegate = std::weak_ptr<websocket::WebSocketDelegate>(shared_from_this());
    ws_->connect();
}

void SocketEngine::didReceive(websocket::WebSocketEvent&& event, websocket::WebSocket& client) {
    if (event.kind == websocket::WebSocketEvent::Kind::text) return parseEngineMessage(std::move(event.text));
    didReceive(std::as_const(event), client);
}

void SocketEngine::didReceive(const websocket::WebSocketEvent& event, websocket::WebSocket&) {
    using Kind = websocket::WebSocketEvent::Kind;
    switch (event.kind) {
    case Kind::connected:
        wsConnected_ = true;
        if (auto owner = client()) owner->engineDidWebsocketUpgrade(event.headers);
        websocketDidConnect();
        break;
    case Kind::disconnected:
    case Kind::peerClosed:
        wsConnected_ = false;
        websocketDidDisconnect(std::nullopt);
        break;
    case Kind::text: parseEngineMessage(event.text); break;
    case Kind::binary: parseEngineData(event.data); break;
    case Kind::viabilityChanged:
        if (!event.flag) {
            wsConnected_ = false;
            websocketDidDisconnect(std::nullopt);
        }
        break;
    case Kind::cancelled:
        wsConnected_ = false;
        if (wsFailure_) {
            websocketDidDisconnect(*wsFailure_);
        } else {
            websocketDidDisconnect(Error{"SocketIO.SocketEngine.EngineError", 0, ""});
        }
        break;
    case Kind::error:
        // After the upgrade the cut of the connection follows and ends the session, reported
        // with the protocol's own error if there was one. Before it, nothing follows: the
        // connect just ended.
        if (event.error) {
            if (const auto* failure = std::get_if<websocket::WSError>(&*event.error)) wsFailure_ = *failure;
        }
        if (!connected_) sessionEnded();
        break;
    default: break;
    }
}

void SocketEngine::websocketDidConnect() {
    if (!forceWebsockets_) {
        probing_ = true;
        probeWebSocket();
    } else {
        connected_ = true;
        probing_ = false;
        polling_ = false;
    }
}

void SocketEngine::websocketDidDisconnect(const std::optional<std::variant<websocket::WSError, Error>>& error) {
    probing_ = false;
    if (closed_) {
        if (auto owner = client()) owner->engineDidClose("Disconnect");
        return;
    }
    if (polling_) {
        // Only a probe: polling goes on, with what waited for the switch, in order.
        fastUpgrade_ = false;
        if (!waitingForPost_) flushWaitingForPost();
        flushProbeWait();
        doPoll();
        return;
    }
    sessionEnded();
    connected_ = false;
    polling_ = true;
    if (error) {
        if (const auto* wsError = std::get_if<websocket::WSError>(&*error)) {
            didError(wsError->message + ". code=" + std::to_string(wsError->code) +
                     ", type=" + std::string(websocket::errorTypeName(wsError->type)));
        } else {
            didError(std::get<Error>(*error).localizedDescription());
        }
        return;
    }
    if (auto owner = client()) owner->engineDidClose("Socket Disconnected");
}

void SocketEngine::probeWebSocket() {
    if (wsConnected_) sendWebSocketMessage("probe", SocketEnginePacketType::ping, {}, {});
}

void SocketEngine::upgradeTransport() {
    if (!wsConnected_) return;
    socketLog(kLogType, [] { return "Upgrading transport to WebSockets"; });
    fastUpgrade_ = true;
    // No polling request starts from now on: the noop waits with the rest for the WebSocket.
    postWait_.push_back({std::string(1, typeDigit(SocketEnginePacketType::noop)), {}});
    if (!waitingForPoll_ && !waitingForPost_) doFastUpgrade();
}

void SocketEngine::doFastUpgrade() {
    if (waitingForPoll_) {
        socketError(kLogType, [] {
            return "Outstanding poll when switched to WebSockets,"
                   "we'll probably disconnect soon. You should report this.";
        });
    }
    socketLog(kLogType, [] { return "Switching to WebSockets"; });
    sendWebSocketMessage("", SocketEnginePacketType::upgrade, {}, {});
    polling_ = false;
    fastUpgrade_ = false;
    probing_ = false;
    // Oldest first: what waited for a POST, then what was written during the probe. Both go
    // out here and now, before any write queued behind this task.
    if (!postWait_.empty()) flushWaitingForPostToWebSocket();
    flushProbeWait();
}

void SocketEngine::flushProbeWait() {
    socketLog(kLogType, [] { return "Flushing probe wait"; });
    auto waiting = std::move(probeWait_);
    probeWait_.clear();
    for (auto& each : waiting) {
        writeNow(std::move(each.msg), each.type, std::move(each.data), std::move(each.completion));
    }
}

void SocketEngine::flushWaitingForPostToWebSocket() {
    if (!ws_) return;
    for (auto& post : postWait_) ws_->write(std::move(post.msg), std::move(post.completion));
    postWait_.clear();
}

void SocketEngine::sendWebSocketMessage(std::string text, SocketEnginePacketType type, const std::vector<Bytes>& data,
                                        Completion completion) {
    socketLog(kWebSocketLogType,
              [&] { return "Sending ws: " + text + " as type: " + std::to_string(static_cast<int>(type)); });
    if (ws_) {
        // The packet's text usually has room for the type digit in front (see packetString).
        text.insert(text.begin(), typeDigit(type));
        ws_->write(std::move(text));
    }
    if (data.empty()) {
        if (completion) completion();
        return;
    }
    for (const auto& buffer : data) {
        auto converted = createBinaryDataForSend(buffer);
        if (auto* bytes = std::get_if<Bytes>(&converted); bytes && ws_) ws_->write(std::move(*bytes), completion);
    }
}

std::variant<std::monostate, Bytes, std::string> SocketEngine::createBinaryDataForSend(const Bytes& data) const {
    if (polling_) return std::string(version_ == SocketIOVersion::two ? "b4" : "b") + base64::encode(data);
    if (version_ == SocketIOVersion::three) return data;
    Bytes framed;
    framed.reserve(data.size() + 1);
    framed.push_back(0x04);
    framed.insert(framed.end(), data.begin(), data.end());
    return framed;
}

// MARK: Incoming

void SocketEngine::parseEngineMessage(std::string message) {
    lastCommunication_ = Clock::now();
    socketLog(kLogType, [&] { return "Got message: " + message; });
    if (message.starts_with(version_ == SocketIOVersion::two ? "b4" : "b")) {
        handleBase64(message);
        return;
    }
    const int digit = !message.empty() && message[0] >= '0' && message[0] <= '9' ? message[0] - '0' : -1;
    if (digit < 0 || digit > static_cast<int>(SocketEnginePacketType::noop)) {
        checkAndHandleEngineError(message);
        return;
    }
    auto owner = client();
    switch (static_cast<SocketEnginePacketType>(digit)) {
    case SocketEnginePacketType::open: handleOpen(message.substr(1)); break;
    case SocketEnginePacketType::close:
        // The server ended the session; the client reconnects as it sees fit.
        sessionEnded();
        if (owner) owner->engineDidClose(message);
        break;
    case SocketEnginePacketType::ping: handlePing(message); break;
    case SocketEnginePacketType::pong: handlePong(message); break;
    case SocketEnginePacketType::message:
        if (owner) {
            message.erase(0, 1);
            owner->parseEngineMessage(std::move(message));
        }
        break;
    case SocketEnginePacketType::noop: doPoll(); break;
    case SocketEnginePacketType::upgrade: socketLog(kLogType, [] { return "Got unknown packet type"; }); break;
    }
}

void SocketEngine::parseEngineData(Bytes data) {
    socketLog(kLogType, [&] { return "Got binary data: " + std::to_string(data.size()) + " bytes"; });
    lastCommunication_ = Clock::now();
    auto owner = client();
    if (!owner) return;
    if (version_ == SocketIOVersion::three) {
        owner->parseEngineBinaryData(std::move(data));
    } else {
        owner->parseEngineBinaryData(data.empty() ? Bytes{} : Bytes(data.begin() + 1, data.end()));
    }
}

void SocketEngine::handleBase64(const std::string& message) {
    const std::size_t prefix = version_ == SocketIOVersion::two ? 2 : 1;
    auto decoded = base64::decodeIgnoringUnknown(std::string_view(message).substr(prefix));
    if (!decoded) return;
    if (auto owner = client()) owner->parseEngineBinaryData(std::move(*decoded));
}

void SocketEngine::checkAndHandleEngineError(const std::string& message) {
    auto parsed = toDictionary(message);
    if (std::holds_alternative<JSONError>(parsed)) {
        if (auto owner = client()) owner->engineDidError("Got unknown error from server " + message);
        return;
    }
    if (auto text = json::getString(std::get<Json>(parsed), "message")) didError(*text);
}

void SocketEngine::handleOpen(const std::string& openData) {
    auto parsed = json::parse(openData);
    if (!parsed || !parsed->is_object()) {
        didError("Error parsing open packet");
        return;
    }
    auto sid = json::getString(*parsed, "sid");
    if (!sid) {
        didError("Open packet contained no sid");
        return;
    }
    sid_ = *sid;
    connected_ = true;
    pongsMissed_ = 0;

    bool upgrade = false;
    if (const Json* upgrades = json::getArray(*parsed, "upgrades")) {
        bool allTexts = true;
        for (const auto& each : *upgrades) {
            if (!each.is_string()) allTexts = false;
            else if (each.get<std::string>() == "websocket") upgrade = true;
        }
        upgrade = upgrade && allTexts;
    }
    auto interval = json::getInt(*parsed, "pingInterval");
    auto timeout = json::getInt(*parsed, "pingTimeout");
    if (interval && timeout) {
        pingInterval_ = *interval;
        setPingTimeout(*timeout);
    }
    if (!forcePolling_ && !forceWebsockets_ && upgrade) createWebSocketAndConnect();
    if (static_cast<int>(version_) >= 3) {
        checkPings();
    } else {
        sendPing();
    }
    if (!forceWebsockets_) doPoll();
    if (auto owner = client()) owner->engineDidOpen("Connect");
}

void SocketEngine::setPingTimeout(std::int64_t timeout) {
    pingTimeout_ = timeout;
    const std::int64_t interval = pingInterval_.value_or(25000);
    pongsMissedMax_ = interval == 0 ? 0 : timeout / interval;
}

void SocketEngine::handlePing(const std::string&) {
    write("", SocketEnginePacketType::pong, {});
    if (auto owner = client()) owner->engineDidReceivePing();
}

void SocketEngine::handlePong(const std::string& message) {
    pongsMissed_ = 0;
    if (message == "3probe") {
        socketLog(kLogType, [] { return "Received probe response, should upgrade to WebSockets"; });
        upgradeTransport();
    }
    if (auto owner = client()) owner->engineDidReceivePong();
}

void SocketEngine::checkPings() {
    const std::int64_t deadline = pingInterval_.value_or(0) + pingTimeout_;
    engineQueue_->asyncAfter(std::chrono::milliseconds(deadline),
                             [weak = weak_from_this(), sid = sid_, deadline] {
                                 auto self = weak.lock();
                                 if (!self || self->sid_ != sid) return;
                                 const double limit = static_cast<double>(deadline) / 1000.0;
                                 double silence = limit;
                                 if (self->lastCommunication_) {
                                     silence = std::abs(std::chrono::duration<double>(Clock::now() -
                                                                                      *self->lastCommunication_)
                                                            .count());
                                 }
                                 if (silence < limit) {
                                     self->checkPings();
                                 } else {
                                     self->closeOutEngine("Ping timeout");
                                 }
                             });
}

void SocketEngine::sendPing() {
    if (!connected_ || !pingInterval_) return;
    if (pongsMissed_ > pongsMissedMax_) {
        closeOutEngine("Ping timeout");
        return;
    }
    ++pongsMissed_;
    write("", SocketEnginePacketType::ping, {});
    engineQueue_->asyncAfter(std::chrono::milliseconds(*pingInterval_), [weak = weak_from_this(), sid = sid_] {
        auto self = weak.lock();
        if (self && self->sid_ == sid) self->sendPing();
    });
    if (auto owner = client()) owner->engineDidSendPing();
}

// MARK: Closing

void SocketEngine::_disconnect(const std::string& reason) {
    if (!connected_ || closed_) {
        closeOutEngine(reason);
        return;
    }
    socketLog(kLogType, [] { return "Engine is being closed."; });
    if (polling_) {
        disconnectPolling(reason);
    } else {
        sendWebSocketMessage("", SocketEnginePacketType::close, {}, {});
        closeOutEngine(reason);
    }
}

void SocketEngine::disconnectPolling(const std::string& reason) {
    postWait_.push_back({"1", [] {}});
    doRequest(createRequestForPostWithPostWait(), [](auto, auto, auto) {});
    closeOutEngine(reason);
}

void SocketEngine::closeOutEngine(const std::string& reason) {
    sessionEnded();
    sid_.clear();
    closed_ = true;
    invalidated_ = true;
    connected_ = false;
    if (ws_) ws_->disconnect();
    stopPolling();
    if (auto owner = client()) owner->engineDidClose(reason);
}

void SocketEngine::didError(std::string reason) {
    socketError(kLogType, [&] { return reason; });
    if (auto owner = client()) owner->engineDidError(reason);
    _disconnect(reason);
}

// MARK: Long polling

void SocketEngine::doPoll() {
    if (!polling_ || waitingForPoll_ || !connected_ || closed_) return;
    auto request = makeRequest(urlPollingWithSid());
    addHeaders(request);
    doLongPoll(std::move(request));
}

void SocketEngine::doLongPoll(platform::HTTPRequest request) {
    waitingForPoll_ = true;
    doRequest(request, [weak = weak_from_this()](std::optional<std::string> data,
                                                 std::optional<platform::HTTPResponse> response,
                                                 std::optional<Error> error) {
        auto self = weak.lock();
        if (!self || !self->polling_) return;
        if (!data || !response || response->statusCode != 200) {
            socketError(kPollingLogType,
                        [&] { return error ? error->localizedDescription() : "Error during long poll request"; });
            if (self->polling_) self->didError(error ? error->localizedDescription() : "Error");
            return;
        }
        if (data->size() > self->limits_.maxMessageSize) {
            self->waitingForPoll_ = false;
            self->didError(messageTooBig());
            return;
        }
        socketLog(kPollingLogType, [] { return "Got polling response"; });
        if (isValidUTF8(*data)) self->parsePollingMessage(*data);
        self->waitingForPoll_ = false;
        // A first answer that opened nothing ends the connect, without a word.
        if (!self->connected_) self->sessionEnded();
        if (self->closed_) return;
        if (self->fastUpgrade_) {
            // The switch waits for a POST under way: sent by polling, it must arrive while
            // the server still polls.
            if (!self->waitingForPost_) self->doFastUpgrade();
        } else if (self->polling_) {
            self->doPoll();
        }
    });
}

void SocketEngine::doRequest(const platform::HTTPRequest& request, HTTPSession::Completion callback) {
    if (!polling_ || closed_ || invalidated_ || fastUpgrade_) return;
    socketLog(kPollingLogType, [&] { return "Doing polling " + request.method + " " + request.url.absoluteString(); });
    if (!session_) return;
    session_->dataTask(request, [weak = weak_from_this(), generation = sessionGeneration_,
                                 callback = std::move(callback)](auto data, auto response, auto error) {
        auto self = weak.lock();
        // An answer to an earlier session's request: that session is gone.
        if (!self || self->sessionGeneration_ != generation) return;
        callback(std::move(data), std::move(response), std::move(error));
    });
}

void SocketEngine::parsePollingMessage(const std::string& text) {
    if (text.empty()) return;
    socketLog(kPollingLogType, [&] { return "Got poll message: " + text; });
    if (version_ == SocketIOVersion::three) {
        std::size_t start = 0;
        while (true) {
            const auto end = text.find(kRecordSeparator, start);
            parseEngineMessage(text.substr(start, end == std::string::npos ? std::string::npos : end - start));
            if (end == std::string::npos) break;
            start = end + 1;
        }
        return;
    }
    if (utf16Length(text) == 1) {
        parseEngineMessage(text);
        return;
    }
    SocketStringReader reader(text);
    while (reader.hasNext()) {
        auto count = parseInteger(reader.readUntilOccurence(":"));
        if (!count) {
            parseEngineMessage(text);
            return;
        }
        parseEngineMessage(reader.read(*count));
    }
}

void SocketEngine::sendPollMessage(const std::string& text, SocketEnginePacketType type,
                                   const std::vector<Bytes>& data, Completion completion) {
    socketLog(kPollingLogType,
              [&] { return "Sending poll: " + text + " as type: " + std::to_string(static_cast<int>(type)); });
    postWait_.push_back({typeDigit(type) + text, std::move(completion)});
    for (const auto& buffer : data) {
        auto converted = createBinaryDataForSend(buffer);
        if (auto* encoded = std::get_if<std::string>(&converted)) postWait_.push_back({std::move(*encoded), [] {}});
    }
    if (!waitingForPost_) flushWaitingForPost();
}

void SocketEngine::flushWaitingForPost() {
    if (postWait_.empty() || !connected_) return;
    if (!polling_) {
        flushWaitingForPostToWebSocket();
        return;
    }
    auto request = createRequestForPostWithPostWait();
    waitingForPost_ = true;
    socketLog(kPollingLogType, [] { return "POSTing"; });
    doRequest(request, [weak = weak_from_this()](std::optional<std::string>,
                                                 std::optional<platform::HTTPResponse> response,
                                                 std::optional<Error> error) {
        auto self = weak.lock();
        if (!self) return;
        if (!response || response->statusCode != 200) {
            socketError(kPollingLogType,
                        [&] { return error ? error->localizedDescription() : "Error flushing waiting posts"; });
            if (self->polling_) self->didError(error ? error->localizedDescription() : "Error");
            return;
        }
        self->waitingForPost_ = false;
        if (self->fastUpgrade_) {
            if (!self->waitingForPoll_) self->doFastUpgrade();
        } else {
            self->flushWaitingForPost();
            self->doPoll();
        }
    });
}

platform::HTTPRequest SocketEngine::createRequestForPostWithPostWait() {
    std::string body;
    if (version_ == SocketIOVersion::three) {
        for (std::size_t i = 0; i < postWait_.size(); ++i) {
            if (i > 0) body += kRecordSeparator;
            body += postWait_[i].msg;
        }
    } else {
        for (const auto& post : postWait_) body += std::to_string(utf16Length(post.msg)) + ":" + post.msg;
    }
    socketLog(kPollingLogType, [&] { return "Created POST string: " + body; });
    auto request = makeRequest(urlPollingWithSid());
    addHeaders(request);
    request.method = "POST";
    setHeader(request, "Content-Type", "text/plain; charset=UTF-8");
    setHeader(request, "Content-Length", std::to_string(body.size()));
    request.body = std::move(body);
    // Completions of polling writes run when the body is built, not when it is answered.
    auto waiting = std::move(postWait_);
    postWait_.clear();
    postWait_.reserve(waiting.capacity());
    for (auto& post : waiting) {
        if (post.completion) post.completion();
    }
    return request;
}

void SocketEngine::stopPolling() {
    waitingForPoll_ = false;
    waitingForPost_ = false;
    if (session_) session_->finishTasksAndInvalidate();
}

}  // namespace kelvane::socketio
