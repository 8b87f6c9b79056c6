#pragma once

#include <kelvane/Bytes.hpp>
#include <kelvane/Json.hpp>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace kelvane::socketio {

enum class PacketType { connect = 0, disconnect = 1, event = 2, ack = 3, error = 4, binaryEvent = 5, binaryAck = 6 };

inline bool isBinary(PacketType type) { return type == PacketType::binaryEvent || type == PacketType::binaryAck; }

enum class SocketParsableError { invalidDataArray, invalidPacket, invalidPacketType };
// "invalidDataArray", "invalidPacket", "invalidPacketType".
std::string_view errorName(SocketParsableError error);

enum class JSONError { notArray, notNSDictionary };

// The printed form of a value in log lines and descriptions: compact JSON, with a byte
// buffer shown as "<n> bytes".
std::string printed(const Json& value);
std::string printed(const std::vector<Json>& values);

// One Socket.IO packet. Byte buffers inside `data` are binary JSON values. A plain value; no
// queue of its own.
class SocketPacket {
public:
    SocketPacket(PacketType type, std::vector<Json> data = {}, std::int64_t id = -1, std::string nsp = "/",
                 std::int64_t placeholders = 0, std::vector<Bytes> binary = {});

    const std::string& nsp() const { return nsp_; }
    std::int64_t id() const { return id_; }
    PacketType type() const { return type_; }
    std::int64_t placeholders() const { return placeholders_; }

    // Attachments, in placeholder order.
    std::vector<Bytes> binary;
    // The payload array; for events element 0 is the event name.
    std::vector<Json> data;

    // `data` without the event name for events (and non-empty binary events), else all of it.
    std::vector<Json> args() const;
    // The event name: data[0] as text, or its printed form when it is no text.
    std::string event() const;
    // The outgoing text, built anew on each call.
    std::string packetString() const;
    std::string description() const;

    // Takes one attachment; true when the packet is complete (placeholders then filled in).
    bool addData(Bytes blob);

    // An outgoing packet: byte buffers in `items` are taken out as attachments and replaced by
    // placeholders, unless `checkForBinary` is false.
    static SocketPacket packetFromEmit(std::vector<Json> items, std::int64_t id, std::string nsp, bool ack,
                                       bool checkForBinary = true);

private:
    void fillInPlaceholders();

    std::string nsp_;
    std::int64_t id_;
    PacketType type_;
    std::int64_t placeholders_;
};

// The parsing side of the connection: turns Engine.IO message texts and binary blobs into
// packets, and keeps the binary packets that still wait for attachments. Not thread-safe; its
// owner keeps it on one queue.
class SocketParsable {
public:
    virtual ~SocketParsable() = default;

    // A stack: the most recently announced binary packet receives the next blob.
    std::vector<SocketPacket> waitingPackets;

    // The packet, or nothing when the text is empty or does not parse (logged).
    std::optional<SocketPacket> parseSocketMessage(std::string_view message);
    // The packet that this blob completes, or nothing.
    std::optional<SocketPacket> parseBinaryData(Bytes data);

    // The parse itself, without logging.
    static std::variant<SocketPacket, SocketParsableError> parseString(std::string_view message);
    static std::variant<std::vector<Json>, SocketParsableError> parseData(std::string_view text);
};

// JSON conversions. toJSON: the list as compact UTF-8 JSON, or nothing where the serialiser
// fails (a byte buffer, invalid UTF-8 in a text). toArray / toDictionary: the parsed root, an
// empty list for text that cannot be encoded, or the error for another root.
std::optional<std::string> toJSON(const std::vector<Json>& values);
std::variant<std::vector<Json>, JSONError> toArray(std::string_view text);
std::variant<Json, JSONError> toDictionary(std::string_view text);

}  // namespace kelvane::socketio
