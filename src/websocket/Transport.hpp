#pragma once

#include "websocket/Security.hpp"
#include "websocket/WSError.hpp"

#include <kelvane/Bytes.hpp>
#include <kelvane/URL.hpp>

#include <functional>
#include <memory>
#include <optional>

namespace kelvane::websocket {

// What happened to a connection.
struct ConnectionState {
    enum class Kind { connected, waiting, cancelled, failed, viability, shouldReconnect, receive, peerClosed };
    ConnectionState(Kind kind = Kind::connected) : kind(kind) {}

    Kind kind;
    std::optional<Failure> error;  // failed
    bool flag = false;             // viability, shouldReconnect
    Bytes data;                    // receive
};

class TransportEventClient {
public:
    virtual ~TransportEventClient() = default;
    // On the transport's queue, in the order things happened.
    virtual void connectionChanged(ConnectionState state) = 0;
};

// Moves bytes for the engine. All members may be called from any thread.
class Transport {
public:
    using WriteCompletion = std::function<void(std::optional<Failure>)>;

    virtual ~Transport() = default;
    virtual void registerDelegate(std::weak_ptr<TransportEventClient> delegate) = 0;
    // `timeout` in seconds bounds the connect, TLS included. With a pinner, the pinner decides
    // on the server's certificate; without one, the system's store and the host name do.
    virtual void connect(const URL& url, double timeout = 10,
                         std::shared_ptr<CertificatePinning> certificatePinning = nullptr) = 0;
    // Cuts the connection; a connection that existed (failed ones included) then reports
    // `cancelled`. Twice is harmless.
    virtual void disconnect() = 0;
    // Writes in call order. The completion runs on the transport's queue once the bytes are
    // out or failed. After the connection has failed, every write still queued and every
    // later one completes with that failure; with no connection at all it never runs.
    virtual void write(Bytes data, WriteCompletion completion) = 0;
    virtual bool usingTLS() const = 0;
};

// TCP, with TLS for "wss" and "https", on the library's network thread. Reads are of at most
// 4096 bytes, each one `receive` report. Never reports viability or better paths.
class TCPTransport final : public Transport, public std::enable_shared_from_this<TCPTransport> {
public:
    TCPTransport();
    ~TCPTransport() override;

    void registerDelegate(std::weak_ptr<TransportEventClient> delegate) override;
    void connect(const URL& url, double timeout = 10,
                 std::shared_ptr<CertificatePinning> certificatePinning = nullptr) override;
    void disconnect() override;
    void write(Bytes data, WriteCompletion completion) override;
    bool usingTLS() const override;

    // The whole seconds the connect may take: the timeout rounded up.
    static long connectionTimeoutSeconds(double timeout);

    struct Connection;

private:
    struct Shared;
    std::shared_ptr<Shared> shared_;
};

}  // namespace kelvane::websocket
