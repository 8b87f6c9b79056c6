#pragma once

#include <kelvane/Bytes.hpp>

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kelvane {

// The one judgment of a TLS server's certificate, for every road (WebSocket, polling, the
// backend's calls). `chain` is what the server showed, leaf first, as DER. Nothing when the
// chain leads to a trusted root and the leaf names `host` (a host name or an IP address);
// otherwise why not. Roots: the PEM files given, or the system's store when none are
// (OpenSSL's default paths, so SSL_CERT_FILE and SSL_CERT_DIR apply). Any thread.
std::optional<std::string> verifyServerChain(const std::vector<Bytes>& chain, std::string_view host,
                                             const std::vector<std::string>& anchorFiles = {});

// How a refused certificate reads: "certificate refused for <host>: <reason>".
std::string certificateRefusal(std::string_view host, std::string_view reason);

}  // namespace kelvane
