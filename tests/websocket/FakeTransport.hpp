#pragma once

#include "websocket/Framer.hpp"
#include "websocket/Transport.hpp"

#include <condition_variable>
#include <mutex>
#include <vector>

namespace kelvane::testing {

// A transport whose network is the test: connects are recorded, states are delivered by the
// test on its own thread, and writes wait until the test completes them (or complete at once).
class FakeTransport final : public websocket::Transport {
public:
    struct Connect {
        std::string url;
        double timeout = 0;
        std::shared_ptr<websocket::CertificatePinning> pinner;
    };
    struct Write {
        Bytes data;
        WriteCompletion completion;
    };

    bool completeWritesAtOnce = true;

    void registerDelegate(std::weak_ptr<websocket::TransportEventClient> delegate) override { delegate_ = delegate; }
    void connect(const URL& url, double timeout, std::shared_ptr<websocket::CertificatePinning> pinner) override {
        std::lock_guard lock(mutex_);
        connects.push_back({url.absoluteString(), timeout, std::move(pinner)});
    }
    void disconnect() override {
        std::lock_guard lock(mutex_);
        ++disconnects;
        changed_.notify_all();
    }
    void write(Bytes data, WriteCompletion completion) override {
        std::unique_lock lock(mutex_);
        writes.push_back({std::move(data), nullptr});
        if (!completeWritesAtOnce) {
            writes.back().completion = std::move(completion);
            changed_.notify_all();
            return;
        }
        changed_.notify_all();
        lock.unlock();
        if (completion) completion(std::nullopt);
    }
    bool usingTLS() const override { return false; }

    void deliver(websocket::ConnectionState state) {
        if (auto delegate = delegate_.lock()) delegate->connectionChanged(std::move(state));
    }
    void deliverBytes(Bytes data) {
        websocket::ConnectionState state{websocket::ConnectionState::Kind::receive};
        state.data = std::move(data);
        deliver(std::move(state));
    }

    bool waitFor(const std::function<bool()>& done, std::chrono::milliseconds bound = std::chrono::seconds(10)) {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, bound, done);
    }
    // Runs the stored completion of write `index` (when writes are not completed at once).
    void completeWrite(std::size_t index, std::optional<websocket::Failure> error = std::nullopt) {
        WriteCompletion completion;
        {
            std::lock_guard lock(mutex_);
            completion = std::move(writes.at(index).completion);
        }
        if (completion) completion(std::move(error));
    }

    // Frames written after the upgrade request, cut as a server would cut them.
    std::vector<struct WrittenFrame> framesWritten();

    std::mutex mutex_;
    std::vector<Connect> connects;
    std::vector<Write> writes;
    int disconnects = 0;

private:
    std::condition_variable changed_;
    std::weak_ptr<websocket::TransportEventClient> delegate_;
};

// A frame the client wrote, read independently of the library's own framer.
struct WrittenFrame {
    bool fin = false;
    bool rsv1 = false;
    websocket::FrameOpCode opcode = websocket::FrameOpCode::unknown;
    bool masked = false;
    Bytes payload;
    std::uint16_t closeCode() const { return payload.size() >= 2 ? (payload[0] << 8 | payload[1]) : 0; }
};

inline std::vector<WrittenFrame> FakeTransport::framesWritten() {
    std::vector<WrittenFrame> frames;
    std::lock_guard lock(mutex_);
    for (std::size_t i = 1; i < writes.size(); ++i) {
        const Bytes& b = writes[i].data;
        WrittenFrame frame;
        frame.fin = b.at(0) & 0x80;
        frame.rsv1 = b.at(0) & 0x40;
        frame.opcode = websocket::frameOpCode(b.at(0) & 0x0F);
        frame.masked = b.at(1) & 0x80;
        std::uint64_t length = b.at(1) & 0x7F;
        std::size_t offset = 2;
        int extra = length == 126 ? 2 : length == 127 ? 8 : 0;
        if (extra) {
            length = 0;
            for (int k = 0; k < extra; ++k) length = length << 8 | b.at(offset++);
        }
        std::uint8_t mask[4] = {0, 0, 0, 0};
        if (frame.masked) {
            for (auto& m : mask) m = b.at(offset++);
        }
        for (std::uint64_t k = 0; k < length; ++k) frame.payload.push_back(b.at(offset + k) ^ mask[k % 4]);
        frames.push_back(std::move(frame));
    }
    return frames;
}

}  // namespace kelvane::testing
