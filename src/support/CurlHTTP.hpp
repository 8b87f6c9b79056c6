#pragma once

#include <kelvane/Bytes.hpp>
#include <kelvane/platform/Network.hpp>

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace kelvane {

// Decides whether a TLS server may be trusted, from the chain it showed (leaf first, as DER)
// and the host of the URL (a name, or an address without brackets): nothing to go on, or the
// words of the refusal. Runs during the handshake, on the thread of the transfer, which waits
// for it; may be called on several threads at once.
using ServerTrustCheck =
    std::function<std::optional<std::string>(const std::vector<Bytes>& chain, const std::string& host)>;

// The HTTP port on libcurl's multi interface. One background thread ("kelvane-http") per
// instance runs every transfer; connections are kept alive and reused between tasks.
// Completions run on that thread, exactly once per task.
//
// A request's timeoutInterval bounds the connect and every silence while the transfer runs,
// not the whole transfer, so a long poll may take longer than it. Redirects are followed. A
// status other than 2xx is an answer, not an error. Errors are in "NSURLErrorDomain": -1004 no
// connection, -1003 unknown host, -1001 timed out, -999 cancelled, -1202 the server's
// certificate was refused (the message says why), -1200 another TLS failure, -1 anything else.
//
// Members may be called from any thread, completions included.
class CurlHTTP final : public platform::HTTP {
public:
    // TLS servers are judged by the system's store and the host name, as a WebSocket without a
    // pinner judges them (OpenSSL's default paths, so SSL_CERT_FILE applies).
    CurlHTTP();
    // TLS servers are judged by `check` alone. Connections stay within one client, so a
    // connection judged by another client's check is never reused here.
    explicit CurlHTTP(ServerTrustCheck check);
    // Tasks still running complete with -999 before it returns (unless it runs on its own
    // thread, from a completion; they then complete just after).
    ~CurlHTTP() override;
    CurlHTTP(const CurlHTTP&) = delete;
    CurlHTTP& operator=(const CurlHTTP&) = delete;

    void dataTask(const platform::HTTPRequest& request,
                  std::function<void(std::optional<std::string> data, std::optional<platform::HTTPResponse> response,
                                     std::optional<Error> error)>
                      completion) override;
    void downloadTask(const URL& url,
                      std::function<void(std::optional<std::filesystem::path> location,
                                         std::optional<platform::HTTPResponse> response, std::optional<Error> error)>
                          completion) override;
    // On the caller's thread, with a connection of its own; the body whatever the status.
    Result<std::string> contentsOf(const URL& url) override;

    // The implementation's own; public only for its callbacks.
    struct Transfer;
    struct Loop;

private:
    std::shared_ptr<const ServerTrustCheck> check_;
    std::shared_ptr<Loop> loop_;
    std::thread thread_;
};

}  // namespace kelvane
