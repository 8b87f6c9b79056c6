#include "websocket/HTTPWSHeader.hpp"

#include "support/Base64.hpp"
#include "websocket/Text.hpp"

#include <openssl/rand.h>

#include <array>
#include <random>

namespace kelvane::websocket {
namespace {

std::optional<URLParts> partsOf(const URLComponents& components) {
    auto host = components.host();
    if (!host) return std::nullopt;
    URLParts parts;
    parts.host = std::move(*host);
    auto scheme = asciiLowercased(components.scheme().value_or(""));
    parts.isTLS = scheme == "wss" || scheme == "https";
    parts.port = components.port().value_or(parts.isTLS ? 443 : 80);
    return parts;
}

}  // namespace

std::optional<URLParts> getParts(const URL& url) { return partsOf(URLComponents::make(url)); }

namespace HTTPWSHeader {

std::string generateWebSocketKey() {
    std::array<std::uint8_t, 16> bytes{};
    if (RAND_bytes(bytes.data(), static_cast<int>(bytes.size())) != 1) {
        // OpenSSL without entropy is unheard of; the key only has to differ between handshakes.
        std::random_device device;
        std::uniform_int_distribution<int> byte(0, 255);
        for (auto& b : bytes) b = static_cast<std::uint8_t>(byte(device));
    }
    return base64::encode(ByteView(bytes.data(), bytes.size()));
}

Request createUpgrade(const Request& request, bool supportsCompression, const std::string& secKeyValue) {
    Request upgrade = request;
    if (!request.url) return upgrade;
    auto components = URLComponents::make(*request.url);
    auto parts = partsOf(components);
    if (!parts) return upgrade;

    if (!upgrade.value(originName)) {
        std::string origin = components.scheme().value_or("") + "://" + parts->host;
        if (auto port = components.port()) origin += ":" + std::to_string(*port);
        upgrade.setValue(std::move(origin), originName);
    }
    upgrade.setValue(upgradeValue, upgradeName);
    upgrade.setValue(connectionValue, connectionName);
    upgrade.setValue(versionValue, versionName);
    upgrade.setValue(secKeyValue, keyName);
    if (supportsCompression) upgrade.setValue(compressionOffer, extensionName);
    if (!upgrade.value(hostName)) upgrade.setValue(parts->host + ":" + std::to_string(parts->port), hostName);
    return upgrade;
}

}  // namespace HTTPWSHeader
}  // namespace kelvane::websocket
