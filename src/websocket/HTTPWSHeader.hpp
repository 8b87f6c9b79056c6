#pragma once

#include "websocket/Request.hpp"

#include <cstdint>
#include <optional>
#include <string>

namespace kelvane::websocket {

// Where a URL leads: host, port (the URL's own, else 443 with TLS and 80 without) and TLS.
struct URLParts {
    std::uint64_t port = 0;  // as written; the transport refuses what does not fit 16 bits
    std::string host;
    bool isTLS = false;
    bool operator==(const URLParts&) const = default;
};

// Nothing for a URL without a host. TLS for the schemes "wss" and "https".
std::optional<URLParts> getParts(const URL& url);

namespace HTTPWSHeader {
inline constexpr const char* upgradeName = "Upgrade";
inline constexpr const char* upgradeValue = "websocket";
inline constexpr const char* hostName = "Host";
inline constexpr const char* connectionName = "Connection";
inline constexpr const char* connectionValue = "Upgrade";
inline constexpr const char* protocolName = "Sec-WebSocket-Protocol";
inline constexpr const char* versionName = "Sec-WebSocket-Version";
inline constexpr const char* versionValue = "13";
inline constexpr const char* extensionName = "Sec-WebSocket-Extensions";
inline constexpr const char* keyName = "Sec-WebSocket-Key";
inline constexpr const char* originName = "Origin";
inline constexpr const char* acceptName = "Sec-WebSocket-Accept";
inline constexpr int switchProtocolCode = 101;
inline constexpr const char* compressionOffer =
    "permessage-deflate; client_max_window_bits; server_max_window_bits=15";

// 16 random bytes in standard base64. Any thread.
std::string generateWebSocketKey();

// A copy of the request with the upgrade's fields set: Origin (unless set), Upgrade,
// Connection, Version, Key, the deflate offer when asked, and Host (unless set), whose port is
// always written. A request whose URL has no host comes back unchanged.
Request createUpgrade(const Request& request, bool supportsCompression, const std::string& secKeyValue);
}  // namespace HTTPWSHeader

}  // namespace kelvane::websocket
