#pragma once

#include "websocket/Limits.hpp"
#include "websocket/Security.hpp"
#include "websocket/WSError.hpp"

#include <kelvane/Bytes.hpp>
#include <kelvane/URL.hpp>

#include <algorithm>
#include <cstddef>
#include <functional>
#include <memory>
#include <optional>

namespace kelvane::websocket {

// How much the next read of a connection may take, after one that got `got` bytes into a
// buffer of `size`: twice as much while reads come back full (more is waiting), up to `limit`;
// `first` again once a small read comes into a large buffer, which gives the memory back.
constexpr std::size_t nextReadSize(std::size_t size, std::size_t got, std::size_t first, std::size_t limit) {
    if (got >= size && size < limit) return std::min(size * 2, std::max(limit, first));
    if (size > first * 16 && got < first) return first;
    return size;
}

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
    // Bounds what the transport buffers for one read; a transport without a buffer of its own
    // ignores it.
    virtual void setLimits(const Limits&) {}
};

// TCP, with TLS for "wss" and "https", on the library's network thread. Each read is one
// `receive` report; reads start at 4096 bytes and double while they come back full, up to the
// largest frame the limits allow. Writes that wait behind one under way leave together, in
// order, and each completion runs in order once its send is done. Never reports viability or
// better paths.
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
    void setLimits(const Limits& limits) override;

    // The whole seconds the connect may take: the timeout rounded up.
    static long connectionTimeoutSeconds(double timeout);

    struct Connection;

private:
    struct Shared;
    std::shared_ptr<Shared> shared_;
};

}  // namespace kelvane::websocket
