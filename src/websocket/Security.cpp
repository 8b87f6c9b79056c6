#include "websocket/Security.hpp"

#include "support/Base64.hpp"
#include "support/TLSTrust.hpp"

#include <openssl/sha.h>

namespace kelvane::websocket {

std::optional<std::string> ServerTrust::evaluate(std::string_view domain,
                                                 const std::vector<std::string>& anchorFiles) const {
    return verifyServerChain(chain_, domain, anchorFiles);
}

void FoundationSecurity::evaluateTrust(const ServerTrust& trust, const std::string& domain,
                                       std::function<void(PinningState)> completion) {
    if (allowSelfSigned_) {
        completion(PinningState{true, std::nullopt});
        return;
    }
    if (auto refusal = trust.evaluate(domain)) {
        completion(PinningState{false, Error{"kelvane.tls", static_cast<int>(SecurityErrorCode::pinningFailed),
                                             certificateRefusal(domain, *refusal)}});
        return;
    }
    completion(PinningState{true, std::nullopt});
}

std::string acceptValue(const std::string& key) {
    std::string input = key + "258EAFA5-E914-47DA-95CA-C5AB0DC85B11";
    unsigned char digest[SHA_DIGEST_LENGTH];
    SHA1(reinterpret_cast<const unsigned char*>(input.data()), input.size(), digest);
    return base64::encode(ByteView(digest, sizeof digest));
}

std::optional<WSError> FoundationSecurity::validate(const Headers& headers, const std::string& key) {
    auto accept = headers.find("Sec-WebSocket-Accept");
    if (accept == headers.end()) return std::nullopt;
    if (accept->second == acceptValue(key)) return std::nullopt;
    return WSError{ErrorType::securityError, "accept header doesn't match",
                   static_cast<std::uint16_t>(SecurityErrorCode::acceptFailed)};
}

}  // namespace kelvane::websocket
