#pragma once

#include "websocket/Limits.hpp"
#include "websocket/WSError.hpp"

#include <kelvane/Bytes.hpp>
#include <kelvane/Queue.hpp>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

namespace kelvane::websocket {

enum class FrameOpCode : std::uint8_t {
    continueFrame = 0,
    textFrame = 1,
    binaryFrame = 2,
    connectionClose = 8,
    ping = 9,
    pong = 10,
    unknown = 100,
};

// A raw opcode outside the six known ones reads as unknown.
FrameOpCode frameOpCode(std::uint8_t raw);

struct Frame {
    bool isFin = false;
    bool needsDecompression = false;
    bool isMasked = false;
    FrameOpCode opcode = FrameOpCode::unknown;
    std::uint64_t payloadLength = 0;
    Bytes payload;
    std::uint16_t closeCode = 1000;
};

struct FrameEvent {
    bool isError = false;
    Frame frame;    // when not an error
    WSError error;  // when an error
};

class FramerEventClient {
public:
    virtual ~FramerEventClient() = default;
    // Called on the framer's queue, once per frame, in wire order.
    virtual void frameProcessed(FrameEvent event) = 0;
};

class Framer {
public:
    virtual ~Framer() = default;
    // Any thread: the bytes are cut on the framer's own queue.
    virtual void add(Bytes data) = 0;
    virtual void registerDelegate(std::weak_ptr<FramerEventClient> delegate) = 0;
    // Any thread; pure.
    virtual Bytes createWriteFrame(FrameOpCode opcode, ByteView payload, bool isCompressed) = 0;
    // Set once, before the connection starts.
    virtual void updateCompression(bool supports) = 0;
    virtual bool supportsCompression() const = 0;
    // Set before the connection starts. A frame announcing more than maxFrameSize fails with
    // 1009 ("frame too big"); its payload is then skipped as it arrives, never kept.
    virtual void setLimits(const Limits& limits) = 0;
};

// Cuts RFC 6455 frames out of a byte stream and builds outgoing ones. The buffer keeps only
// the unfinished tail, so a frame that arrives in many reads costs time linear in its size.
class WSFramer final : public Framer, public std::enable_shared_from_this<WSFramer> {
public:
    explicit WSFramer(bool isServer = false);

    void add(Bytes data) override;
    // Runs the cut loop on `data` in place. Call it only on the framer's queue, or where the
    // framer has no other user (tests, benchmarks).
    void addInPlace(ByteView data);

    void registerDelegate(std::weak_ptr<FramerEventClient> delegate) override { delegate_ = std::move(delegate); }
    Bytes createWriteFrame(FrameOpCode opcode, ByteView payload, bool isCompressed) override;
    void updateCompression(bool supports) override { compressionEnabled_ = supports; }
    bool supportsCompression() const override { return compressionEnabled_; }
    void setLimits(const Limits& limits) override { limits_ = limits; }

    const std::shared_ptr<Queue>& queue() const { return queue_; }
    // Bytes waiting for the rest of their frame (for tests).
    std::size_t bufferedBytes() const;

private:
    struct Header;
    // A frame whose header has been read and whose payload is still arriving: the bytes of
    // each read go straight into its payload, which grows with what has come, never with
    // what the header announced. A refused frame is only counted off.
    struct Pending {
        bool active = false;
        bool discard = false;
        Frame frame;
        std::uint64_t remaining = 0;
        std::size_t headerLength = 0;
        std::uint8_t mask[4] = {};
    };

    enum class Cut { needsMoreData, failed, header };
    Cut readHeader(ByteView bytes, Header& header, std::string& failure) const;
    // Takes the payload of a frame whose header was read from what follows it, or refuses a
    // frame over the limit; returns the bytes used.
    std::size_t takePayload(const Header& header, ByteView rest);
    ByteView feedPending(ByteView data);
    void deliver(FrameEvent event);
    void fail(std::string message);

    std::shared_ptr<Queue> queue_;
    std::weak_ptr<FramerEventClient> delegate_;
    Bytes buffer_;  // the start of a header that has not fully arrived (under 14 bytes)
    Pending pending_;
    Limits limits_;
    bool compressionEnabled_ = false;
    bool isServer_;
};

// Joins fragments into messages; answers control frames at once. One queue (the framer's).
// A message that would pass maxMessageSize, joined and inflated, fails with 1009 ("message
// too big") before more than the limit is held; the rest of its fragments are dropped.
class FrameCollector {
public:
    struct Event {
        enum class Kind { text, binary, pong, ping, error, closed };
        Kind kind = Kind::error;
        std::string text;     // text; closed: the reason
        Bytes data;           // binary, pong, ping
        WSError error;        // error
        std::uint16_t code = 0;  // closed
    };

    class Delegate {
    public:
        virtual ~Delegate() = default;
        virtual void didForm(Event event) = 0;
        // Inflated bytes, or nothing to take the payload as it stands. Inflates no further
        // than one byte past `limit`: a longer result means the message is over its limit.
        virtual std::optional<Bytes> decompress(ByteView data, bool isFinal, std::size_t limit) = 0;
    };

    void setDelegate(std::weak_ptr<Delegate> delegate) { delegate_ = std::move(delegate); }
    // Before the first frame.
    void setLimits(const Limits& limits) { limits_ = limits; }
    void add(Frame frame);
    void reset();

private:
    std::weak_ptr<Delegate> delegate_;
    Limits limits_;
    Bytes buffer_;
    int frameCount_ = 0;
    bool isText_ = false;
    bool needsDecompression_ = false;
    bool skipping_ = false;  // the fragments left of a message refused as too big
};

}  // namespace kelvane::websocket
