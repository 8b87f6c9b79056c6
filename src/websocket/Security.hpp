#pragma once

#include "websocket/WSError.hpp"

#include <kelvane/Bytes.hpp>
#include <kelvane/platform/Network.hpp>

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kelvane::websocket {

enum class SecurityErrorCode : std::uint16_t { acceptFailed = 1, pinningFailed = 2 };

// The certificates a TLS server showed, leaf first, as DER.
class ServerTrust {
public:
    explicit ServerTrust(std::vector<Bytes> chain) : chain_(std::move(chain)) {}
    const std::vector<Bytes>& chain() const { return chain_; }

    // Nothing when the chain leads to a trusted root and the leaf names `domain` (a host name
    // or an IP address); otherwise why not. Roots: the PEM files given, or the system's store
    // (which honours SSL_CERT_FILE and SSL_CERT_DIR) when none are.
    std::optional<std::string> evaluate(std::string_view domain,
                                        const std::vector<std::string>& anchorFiles = {}) const;

private:
    std::vector<Bytes> chain_;
};

struct PinningState {
    bool success = false;
    std::optional<Error> error;  // when failed, maybe why
};

// Decides whether a TLS server may be trusted. The completion may run on any thread, once.
class CertificatePinning {
public:
    virtual ~CertificatePinning() = default;
    virtual void evaluateTrust(const ServerTrust& trust, const std::string& domain,
                               std::function<void(PinningState)> completion) = 0;
};

// Checks the upgrade response.
class HeaderValidator {
public:
    virtual ~HeaderValidator() = default;
    virtual std::optional<WSError> validate(const Headers& headers, const std::string& key) = 0;
};

// The default trust (system store and host name, or anything when self-signed certificates
// are allowed) and the accept-key check.
class FoundationSecurity final : public CertificatePinning, public HeaderValidator {
public:
    explicit FoundationSecurity(bool allowSelfSigned = false) : allowSelfSigned_(allowSelfSigned) {}

    void evaluateTrust(const ServerTrust& trust, const std::string& domain,
                       std::function<void(PinningState)> completion) override;
    // A response without "Sec-WebSocket-Accept" (exact spelling) passes.
    std::optional<WSError> validate(const Headers& headers, const std::string& key) override;

    bool allowSelfSigned() const { return allowSelfSigned_; }

private:
    bool allowSelfSigned_;
};

// An HTTP client whose TLS servers `pinner` judges, as it judges a WebSocket's servers: the
// polling road of an engine that has a pinner. The client keeps its connections to itself. A
// pinner that answers later holds the client's thread until it does, at most `bound`; no
// answer by then is a refusal.
std::shared_ptr<platform::HTTP> httpTrusting(std::shared_ptr<CertificatePinning> pinner,
                                             std::chrono::milliseconds bound = std::chrono::seconds(60));

// base64(SHA-1(key + the protocol's GUID)).
std::string acceptValue(const std::string& key);

}  // namespace kelvane::websocket
