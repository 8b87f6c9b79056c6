// The transport's decisions that need no network; connections themselves are proven against
// the peers.
#include "websocket/Transport.hpp"

#include <gtest/gtest.h>

#include <condition_variable>
#include <mutex>

namespace kelvane::websocket {
namespace {

class StateLog final : public TransportEventClient {
public:
    void connectionChanged(ConnectionState state) override {
        std::lock_guard lock(mutex);
        states.push_back(std::move(state));
        changed.notify_all();
    }
    bool waitForCount(std::size_t count) {
        std::unique_lock lock(mutex);
        return changed.wait_for(lock, std::chrono::seconds(10), [&] { return states.size() >= count; });
    }
    std::mutex mutex;
    std::condition_variable changed;
    std::vector<ConnectionState> states;
};

TEST(TCPTransport, TheConnectDeadlineIsTheTimeoutRoundedUpToWholeSeconds) {
    EXPECT_EQ(TCPTransport::connectionTimeoutSeconds(59.2), 60);
    EXPECT_EQ(TCPTransport::connectionTimeoutSeconds(10), 10);
    EXPECT_EQ(TCPTransport::connectionTimeoutSeconds(0.001), 1);
}

TEST(TCPTransport, AURLWithoutAHostFailsAsAnInvalidRequestAndDisconnectsAreHarmless) {
    auto transport = std::make_shared<TCPTransport>();
    auto log = std::make_shared<StateLog>();
    transport->registerDelegate(log);
    transport->disconnect();
    transport->disconnect();
    transport->connect(*URL::make("ws:/nowhere"));
    ASSERT_TRUE(log->waitForCount(1));
    std::lock_guard lock(log->mutex);
    // No connection existed, so the disconnects reported nothing before the failure.
    ASSERT_EQ(log->states.size(), 1u);
    EXPECT_EQ(log->states[0].kind, ConnectionState::Kind::failed);
    EXPECT_EQ(std::get<TCPTransportError>(*log->states[0].error), TCPTransportError::invalidRequest);
    EXPECT_FALSE(transport->usingTLS());
}

TEST(TCPTransportDeathTest, APortBeyondSixteenBitsIsAFatalStop) {
    auto transport = std::make_shared<TCPTransport>();
    EXPECT_DEATH(transport->connect(*URL::make("wss://example.test:70000/")),
                 "Fatal error: Not enough bits to represent the passed value");
}

}  // namespace
}  // namespace kelvane::websocket
