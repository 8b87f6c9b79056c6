// A connection's incoming traffic as the manager feeds it to the parser: texts and binary
// blobs in the order the input gives them. Each record is one byte whose low bit says text (1)
// or blob (0), one length byte, then that many bytes. Binary packets wait as the manager keeps
// them. A completed packet holds its attachments, and what it carries, emitted again, comes
// back the same through text and blobs. Planned stops: the reader's, and a placeholder whose
// "num" is missing, no integer or out of range.
#include <kelvane/Log.hpp>

#include "socketio/SocketLogger.hpp"
#include "socketio/SocketPacket.hpp"
#include "support/Fatal.hpp"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <string>

using namespace kelvane;
using namespace kelvane::socketio;

namespace {

void check(bool holds) {
    if (!holds) std::abort();
}

bool plannedStop(const std::string& message) {
    return message == "String index is out of bounds" || message == kUnwrapNil || message == "Index out of range" ||
           (message.starts_with("Could not cast value of type '") && message.ends_with("' to 'Int'"));
}

bool hasPlaceholder(const Json& value) {
    if (value.is_object()) {
        auto marker = value.find("_placeholder");
        if (marker != value.end() && marker->is_boolean() && marker->get<bool>()) return true;
    }
    if (value.is_structured()) {
        for (const auto& element : value) {
            if (hasPlaceholder(element)) return true;
        }
    }
    return false;
}

bool hasPlaceholder(const std::vector<Json>& values) {
    for (const auto& value : values) {
        if (hasPlaceholder(value)) return true;
    }
    return false;
}

void roundTrip(const SocketPacket& packet) {
    if (hasPlaceholder(packet.data)) return;  // a stale marker would be taken for a real one
    bool ack = packet.type() == PacketType::ack || packet.type() == PacketType::binaryAck;
    auto outgoing = SocketPacket::packetFromEmit(packet.data, packet.id(), packet.nsp(), ack);
    SocketParsable other;
    auto announced = other.parseSocketMessage(outgoing.packetString());
    check(announced.has_value());
    check(isBinary(announced->type()) == !outgoing.binary.empty());
    if (outgoing.binary.empty()) {
        check(announced->data == packet.data);
        return;
    }
    check(announced->placeholders() == static_cast<std::int64_t>(outgoing.binary.size()));
    other.waitingPackets.push_back(std::move(*announced));
    std::optional<SocketPacket> complete;
    for (auto& blob : outgoing.binary) {
        check(!complete);
        complete = other.parseBinaryData(blob);
    }
    check(complete && other.waitingPackets.empty());
    check(complete->data == packet.data);
    check(complete->binary == outgoing.binary);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const bool quiet = (setLogSink([](std::string_view) {}), defaultLogger()->setLog(true), true);
    (void)quiet;
    SocketParsable parser;
    std::size_t at = 0;
    try {
        while (at < size) {
            const bool isText = data[at++] & 1;
            std::size_t length = at < size ? data[at++] : 0;
            length = std::min(length, size - at);
            const std::uint8_t* chunk = data + at;
            at += length;
            std::optional<SocketPacket> packet;
            if (isText) {
                packet = parser.parseSocketMessage(std::string(reinterpret_cast<const char*>(chunk), length));
                if (packet && isBinary(packet->type())) {
                    parser.waitingPackets.push_back(std::move(*packet));
                    continue;
                }
            } else {
                const std::size_t waiting = parser.waitingPackets.size();
                packet = parser.parseBinaryData(Bytes(chunk, chunk + length));
                check(packet ? parser.waitingPackets.size() + 1 == waiting : parser.waitingPackets.size() == waiting);
                if (packet) check(packet->placeholders() == static_cast<std::int64_t>(packet->binary.size()));
            }
            if (!packet) continue;
            (void)packet->description();
            (void)packet->packetString();
            roundTrip(*packet);
        }
    } catch (const FatalStop& stop) {
        check(plannedStop(stop.what()));
    }
    return 0;
}
