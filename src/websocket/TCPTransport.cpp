#include "support/Fatal.hpp"
#include "support/Fifo.hpp"
#include "websocket/HTTPWSHeader.hpp"
#include "websocket/Transport.hpp"

#include "support/NetworkContext.hpp"

#include <asio/connect.hpp>
#include <asio/io_context.hpp>
#include <asio/ip/tcp.hpp>
#include <asio/post.hpp>
#include <asio/ssl.hpp>
#include <asio/steady_timer.hpp>
#include <asio/strand.hpp>
#include <asio/write.hpp>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <mutex>
#include <utility>

namespace kelvane::websocket {

using asio::ip::tcp;
using Strand = asio::strand<asio::io_context::executor_type>;

namespace {

// A frame's header at its largest: two bytes, eight of length, four of mask.
constexpr std::size_t kLargestFrameHeader = 14;

Error networkError(const asio::error_code& error) {
    return Error{error.category().name(), error.value(), error.message()};
}

std::string unbracketed(std::string host) {
    if (host.size() >= 2 && host.front() == '[' && host.back() == ']') return host.substr(1, host.size() - 2);
    return host;
}

}  // namespace

// One attempt at a connection. Its handlers keep it alive while they are pending; everything
// in it runs on the transport's strand.
struct TCPTransport::Connection {
    enum class Phase { connecting, ready, ended };

    Connection(Strand strand, bool tls) : resolver(strand), timer(strand), socket(strand) {
        if (tls) {
            context.emplace(asio::ssl::context::tls_client);
            // The certificate is judged after the handshake, by the pinner or by our own
            // evaluation, so that a pinner may answer later.
            context->set_verify_mode(asio::ssl::verify_none);
            stream.emplace(socket, *context);
        }
    }

    void close() {
        phase = Phase::ended;
        asio::error_code ignored;
        resolver.cancel();
        timer.cancel();
        socket.shutdown(tcp::socket::shutdown_both, ignored);
        socket.close(ignored);
    }

    template <class Handler>
    void readSome(Handler&& handler) {
        if (stream) {
            stream->async_read_some(asio::buffer(readBuffer), std::forward<Handler>(handler));
        } else {
            socket.async_read_some(asio::buffer(readBuffer), std::forward<Handler>(handler));
        }
    }

    void fitReadBuffer(std::size_t count, std::size_t limit) {
        // What the buffer held has been handed on: a new one need not keep it.
        const std::size_t size = nextReadSize(readBuffer.size(), count, kInitialReadBuffer, limit);
        if (size != readBuffer.size()) Bytes(size).swap(readBuffer);
    }

    // Every write waiting leaves in one go: one gathering send on plain TCP, one buffer through
    // TLS (a record train from one SSL_write). Returns how many writes went.
    template <class Handler>
    std::size_t writeWaiting(Handler&& handler) {
        const std::size_t count = std::min(writes.size(), kMaxWritesAtOnce);
        if (count == 1) {
            writeBuffer(asio::buffer(writes.front().first), std::forward<Handler>(handler));
        } else if (stream) {
            gathered.clear();
            for (std::size_t i = 0; i < count; ++i) gathered.insert(gathered.end(), writes[i].first.begin(), writes[i].first.end());
            writeBuffer(asio::buffer(gathered), std::forward<Handler>(handler));
        } else {
            buffers.clear();
            for (std::size_t i = 0; i < count; ++i) buffers.push_back(asio::buffer(writes[i].first));
            asio::async_write(socket, buffers, std::forward<Handler>(handler));
        }
        return count;
    }

    template <class Handler>
    void writeBuffer(asio::const_buffer bytes, Handler&& handler) {
        if (stream) {
            asio::async_write(*stream, bytes, std::forward<Handler>(handler));
        } else {
            asio::async_write(socket, bytes, std::forward<Handler>(handler));
        }
    }

    static constexpr std::size_t kInitialReadBuffer = 4096;
    // As many as one writev takes on Linux before asio splits the call.
    static constexpr std::size_t kMaxWritesAtOnce = 64;

    tcp::resolver resolver;
    asio::steady_timer timer;
    tcp::socket socket;
    std::optional<asio::ssl::context> context;
    std::optional<asio::ssl::stream<tcp::socket&>> stream;
    Bytes readBuffer = Bytes(kInitialReadBuffer);
    Fifo<std::pair<Bytes, WriteCompletion>> writes;
    std::vector<asio::const_buffer> buffers;  // plain TCP: the writes leaving together
    Bytes gathered;                           // TLS: the same, in one buffer
    bool writing = false;
    bool sendAtTurnEnd = false;  // the writes wait for the end of the turn that made them
    std::size_t inFlight = 0;    // writes carried by the send under way
    Phase phase = Phase::connecting;
    std::optional<Failure> endedWith;  // what the writes still queued end with
};

struct TCPTransport::Shared : std::enable_shared_from_this<Shared>, NetworkTurn::Listener {
    Shared() : strand(asio::make_strand(networkContext())) {}

    Strand strand;
    std::mutex delegateMutex;
    std::weak_ptr<TransportEventClient> delegate;
    std::atomic<bool> isRunning{false};
    std::atomic<bool> isTLS{false};
    std::atomic<std::size_t> readLimit{Limits{}.maxFrameSize + kLargestFrameHeader};
    // Calls of ours posted to the strand and not yet run: while there are any, a write from
    // the network thread queues behind them.
    std::atomic<int> waiting{0};
    std::shared_ptr<Connection> connection;  // strand only
    std::optional<Failure> failure;          // strand only: the last connection failed, and how

    template <class Call>
    void onStrand(Call call) {
        ++waiting;
        asio::post(strand, [this, call = std::move(call)]() mutable {
            --waiting;
            call();
        });
    }

    std::shared_ptr<TransportEventClient> currentDelegate() {
        std::lock_guard lock(delegateMutex);
        return delegate.lock();
    }

    void report(ConnectionState state) {
        if (auto client = currentDelegate()) client->connectionChanged(std::move(state));
    }

    static ConnectionState failed(Failure error) {
        ConnectionState state{ConnectionState::Kind::failed};
        state.error = std::move(error);
        return state;
    }

    bool current(const std::shared_ptr<Connection>& candidate) const {
        return connection == candidate && candidate->phase != Connection::Phase::ended;
    }

    // A failed connection is dropped at once: its writes, queued and later, end with the
    // failure instead of waiting on a socket that will never take them.
    void fail(const std::shared_ptr<Connection>& candidate, Failure error) {
        if (!current(candidate)) return;
        connection.reset();
        failure = error;
        end(candidate, error);
        report(failed(std::move(error)));
    }

    // Closes the connection; the write in flight ends by itself, aborted, and the ones behind
    // it end with `reason`.
    void end(const std::shared_ptr<Connection>& ended, const Failure& reason) {
        ended->close();
        ended->endedWith = reason;
        if (!ended->writing) flushWrites(ended);
    }

    void flushWrites(const std::shared_ptr<Connection>& ended) {
        for (auto& write : ended->writes.takeAll()) {
            if (!write.second) continue;
            asio::post(strand, [done = std::move(write.second), reason = *ended->endedWith] { done(reason); });
        }
    }

    void start(const std::shared_ptr<Connection>& candidate, std::string host, std::uint16_t port, long timeoutSeconds,
               std::shared_ptr<CertificatePinning> pinner) {
        std::weak_ptr<Shared> weak = weak_from_this();
        if (timeoutSeconds > 0) {
            candidate->timer.expires_after(std::chrono::seconds(timeoutSeconds));
            candidate->timer.async_wait([weak, candidate](const asio::error_code& error) {
                auto self = weak.lock();
                if (error || !self || candidate->phase != Connection::Phase::connecting) return;
                self->fail(candidate, Error{"kelvane.transport", ETIMEDOUT, "The operation timed out."});
            });
        }
        candidate->resolver.async_resolve(
            host, std::to_string(port),
            [weak, candidate, host, pinner](const asio::error_code& error, const tcp::resolver::results_type& results) {
                auto self = weak.lock();
                if (!self || !self->current(candidate)) return;
                if (error) return self->fail(candidate, networkError(error));
                asio::async_connect(candidate->socket, results,
                                    [weak, candidate, host, pinner](const asio::error_code& error, const tcp::endpoint&) {
                                        auto self = weak.lock();
                                        if (!self || !self->current(candidate)) return;
                                        if (error) return self->fail(candidate, networkError(error));
                                        asio::error_code ignored;
                                        candidate->socket.set_option(tcp::no_delay(true), ignored);
                                        if (candidate->stream) {
                                            self->handshake(candidate, host, pinner);
                                        } else {
                                            self->ready(candidate);
                                        }
                                    });
            });
    }

    void handshake(const std::shared_ptr<Connection>& candidate, const std::string& host,
                   std::shared_ptr<CertificatePinning> pinner) {
        asio::error_code notAnAddress;
        asio::ip::make_address(host, notAnAddress);
        if (notAnAddress) SSL_set_tlsext_host_name(candidate->stream->native_handle(), host.c_str());
        std::weak_ptr<Shared> weak = weak_from_this();
        candidate->stream->async_handshake(
            asio::ssl::stream_base::client, [weak, candidate, host, pinner](const asio::error_code& error) {
                auto self = weak.lock();
                if (!self || !self->current(candidate)) return;
                if (error) return self->fail(candidate, networkError(error));
                self->judge(candidate, host, pinner);
            });
    }

    void judge(const std::shared_ptr<Connection>& candidate, const std::string& host,
               const std::shared_ptr<CertificatePinning>& pinner) {
        std::vector<Bytes> chain;
        if (STACK_OF(X509)* certificates = SSL_get_peer_cert_chain(candidate->stream->native_handle())) {
            for (int i = 0; i < sk_X509_num(certificates); ++i) {
                unsigned char* der = nullptr;
                int length = i2d_X509(sk_X509_value(certificates, i), &der);
                if (length <= 0) continue;
                chain.emplace_back(der, der + length);
                OPENSSL_free(der);
            }
        }
        ServerTrust trust(std::move(chain));
        // Without a pinner the system's store and the host name decide, as the default pinner does.
        // Never destroyed: the network thread may still judge during exit.
        static const auto& systemTrust =
            *new std::shared_ptr<CertificatePinning>(std::make_shared<FoundationSecurity>(false));
        const auto& decider = pinner ? pinner : systemTrust;
        std::weak_ptr<Shared> weak = weak_from_this();
        decider->evaluateTrust(trust, host, [weak, candidate, host](PinningState state) {
            auto self = weak.lock();
            if (!self) return;
            asio::post(self->strand, [weak, candidate, host, state = std::move(state)] {
                auto self = weak.lock();
                if (!self || !self->current(candidate)) return;
                if (state.success) return self->ready(candidate);
                self->fail(candidate, state.error.value_or(Error{"kelvane.tls",
                                                                 static_cast<int>(SecurityErrorCode::pinningFailed),
                                                                 "certificate refused for " + host}));
            });
        });
    }

    void ready(const std::shared_ptr<Connection>& candidate) {
        candidate->phase = Connection::Phase::ready;
        candidate->timer.cancel();
        report(ConnectionState{ConnectionState::Kind::connected});
        readLoop(candidate);
    }

    void readLoop(const std::shared_ptr<Connection>& candidate) {
        if (!isRunning) return;
        std::weak_ptr<Shared> weak = weak_from_this();
        candidate->readSome([weak, candidate](const asio::error_code& error, std::size_t count) {
            auto self = weak.lock();
            if (!self || !self->current(candidate)) return;
            if (count > 0) {
                ConnectionState state{ConnectionState::Kind::receive};
                state.data.assign(candidate->readBuffer.begin(), candidate->readBuffer.begin() + count);
                candidate->fitReadBuffer(count, self->readLimit.load());
                // What the bytes set off (framing, the engine, the handlers, their answers) runs
                // before the next read, which then finds more of what the peer sent meanwhile.
                NetworkTurn turn;
                self->report(std::move(state));
            }
            if (error == asio::error::eof || error == asio::ssl::error::stream_truncated) {
                if (self->currentDelegate()) {
                    self->report(ConnectionState{ConnectionState::Kind::peerClosed});
                } else {
                    self->cut();
                }
                return;
            }
            if (error) {
                if (self->isRunning) self->fail(candidate, networkError(error));
                return;
            }
            self->readLoop(candidate);
        });
    }

    void cut() {
        isRunning = false;
        auto ended = std::move(connection);
        // A connection that failed was already dropped; it existed all the same.
        const bool existed = ended || failure;
        failure.reset();
        if (ended) end(ended, Error{"kelvane.transport", ECANCELED, "Operation canceled"});
        if (existed) report(ConnectionState{ConnectionState::Kind::cancelled});
    }

    void write(Bytes data, WriteCompletion completion) {
        if (!connection) {
            if (failure && completion) completion(*failure);
            return;
        }
        connection->writes.emplace_back(std::move(data), std::move(completion));
        startWriting(connection);
    }

    // Writes made during a turn of the network thread leave together when it ends, so that the
    // answers to a read's messages go out in one send.
    void startWriting(const std::shared_ptr<Connection>& candidate) {
        if (candidate->writing || candidate->sendAtTurnEnd) return;
        if (candidate->phase != Connection::Phase::ended && !candidate->writes.empty() &&
            NetworkTurn::joinEnd(shared_from_this())) {
            candidate->sendAtTurnEnd = true;
            return;
        }
        writeNext(candidate);
    }

    void turnEnded() override {
        if (!connection || !connection->sendAtTurnEnd) return;
        connection->sendAtTurnEnd = false;
        startWriting(connection);
    }

    // Only while no send is under way.
    void writeNext(const std::shared_ptr<Connection>& candidate) {
        if (candidate->phase == Connection::Phase::ended) {
            if (candidate->endedWith) flushWrites(candidate);
            return;
        }
        if (candidate->writes.empty()) return;
        candidate->writing = true;
        std::weak_ptr<Shared> weak = weak_from_this();
        candidate->inFlight = candidate->writeWaiting([weak, candidate](const asio::error_code& error, std::size_t) {
            NetworkTurn turn;
            const std::optional<Failure> outcome =
                error ? std::optional<Failure>(networkError(error)) : std::nullopt;
            // In order, each with the outcome of the send that carried it. Still writing: a write
            // a completion makes waits behind these.
            const std::size_t carried = std::exchange(candidate->inFlight, 0);
            for (std::size_t i = 0; i < carried && !candidate->writes.empty(); ++i) {
                auto completion = std::move(candidate->writes.front().second);
                candidate->writes.pop_front();
                if (completion) completion(outcome);
            }
            candidate->writing = false;
            if (auto self = weak.lock()) self->startWriting(candidate);
        });
    }
};

TCPTransport::TCPTransport() : shared_(std::make_shared<Shared>()) {}

TCPTransport::~TCPTransport() {
    shared_->isRunning = false;
    asio::post(shared_->strand, [shared = shared_] {
        if (shared->connection) shared->connection->close();
        shared->connection.reset();
    });
}

void TCPTransport::registerDelegate(std::weak_ptr<TransportEventClient> delegate) {
    std::lock_guard lock(shared_->delegateMutex);
    shared_->delegate = std::move(delegate);
}

long TCPTransport::connectionTimeoutSeconds(double timeout) {
    if (!(timeout > 0)) return 0;
    return static_cast<long>(std::ceil(timeout));
}

void TCPTransport::connect(const URL& url, double timeout, std::shared_ptr<CertificatePinning> certificatePinning) {
    auto parts = getParts(url);
    if (!parts) {
        shared_->onStrand([shared = shared_] { shared->report(Shared::failed(TCPTransportError::invalidRequest)); });
        return;
    }
    shared_->isTLS = parts->isTLS;
    if (parts->port > 0xFFFF) fatalStop("Not enough bits to represent the passed value");
    auto port = static_cast<std::uint16_t>(parts->port);
    auto seconds = connectionTimeoutSeconds(timeout);
    shared_->isRunning = true;
    shared_->onStrand([shared = shared_, host = unbracketed(parts->host), port, seconds, tls = parts->isTLS,
                       pinner = std::move(certificatePinning)] {
        if (shared->connection) shared->connection->close();
        shared->failure.reset();
        shared->connection = std::make_shared<Connection>(shared->strand, tls);
        shared->start(shared->connection, host, port, seconds, pinner);
    });
}

void TCPTransport::disconnect() {
    shared_->isRunning = false;
    shared_->onStrand([shared = shared_] { shared->cut(); });
}

void TCPTransport::write(Bytes data, WriteCompletion completion) {
    // On the network thread, with no call of ours waiting for the strand, the write starts here:
    // the order of calls holds and the strand could run nothing else meanwhile.
    if (onNetworkThread() && shared_->waiting.load() == 0) {
        shared_->write(std::move(data), std::move(completion));
        return;
    }
    shared_->onStrand([shared = shared_, data = std::move(data), completion = std::move(completion)]() mutable {
        shared->write(std::move(data), std::move(completion));
    });
}

bool TCPTransport::usingTLS() const { return shared_->isTLS; }

void TCPTransport::setLimits(const Limits& limits) { shared_->readLimit = limits.maxFrameSize + kLargestFrameHeader; }

}  // namespace kelvane::websocket
