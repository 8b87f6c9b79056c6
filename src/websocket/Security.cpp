#include "websocket/Security.hpp"

#include "support/Base64.hpp"
#include "support/CurlHTTP.hpp"
#include "support/TLSTrust.hpp"

#include <openssl/sha.h>

#include <chrono>
#include <condition_variable>
#include <mutex>

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

std::shared_ptr<platform::HTTP> httpTrusting(std::shared_ptr<CertificatePinning> pinner,
                                             std::chrono::milliseconds bound) {
    return std::make_shared<CurlHTTP>([pinner = std::move(pinner), bound](const std::vector<Bytes>& chain,
                                                                          const std::string& host) {
        struct Answer {
            std::mutex mutex;
            std::condition_variable arrived;
            std::optional<PinningState> state;
        };
        auto answer = std::make_shared<Answer>();
        pinner->evaluateTrust(ServerTrust(chain), host, [answer](PinningState state) {
            std::lock_guard lock(answer->mutex);
            if (!answer->state) answer->state = std::move(state);
            answer->arrived.notify_all();
        });
        std::unique_lock lock(answer->mutex);
        if (!answer->arrived.wait_for(lock, bound, [&] { return answer->state.has_value(); })) {
            return std::optional<std::string>(certificateRefusal(host, "the pinner gave no answer in time"));
        }
        if (answer->state->success) return std::optional<std::string>();
        // The same words as on the WebSocket.
        if (answer->state->error) return std::optional<std::string>(answer->state->error->localizedDescription());
        return std::optional<std::string>("certificate refused for " + host);
    });
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
