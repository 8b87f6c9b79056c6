// Socket.IO packet texts as the engine hands them up. A packet that parses writes a text that
// parses back to the same packet, and the codec's JSON reader agrees with the JSON library on
// the whole input. The reader's stops (a read past the end, half a surrogate pair under the
// cursor) are planned; any other stop is a finding.
#include <kelvane/Log.hpp>

#include "socketio/SocketLogger.hpp"
#include "socketio/SocketPacket.hpp"
#include "support/Fatal.hpp"
#include "support/Utf8.hpp"

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

bool same(const Json& a, const Json& b) {
    if (a.type() != b.type()) return false;
    if (a.is_array()) return std::equal(a.begin(), a.end(), b.begin(), b.end(), same);
    if (a.is_object()) {
        return std::equal(a.items().begin(), a.items().end(), b.items().begin(), b.items().end(),
                          [](const auto& x, const auto& y) {
                              return x.key() == y.key() && same(x.value(), y.value());
                          });
    }
    return a == b;
}

bool plannedStop(const std::string& message) {
    return message == "String index is out of bounds" || message == kUnwrapNil;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const bool quiet = (setLogSink([](std::string_view) {}), defaultLogger()->setLog(true), true);
    (void)quiet;
    const std::string text(reinterpret_cast<const char*>(data), size);

    auto ours = toArray(text);
    Json library = Json::parse(text, nullptr, false);
    if (!isValidUTF8(text)) {
        check(std::holds_alternative<std::vector<Json>>(ours) && std::get<std::vector<Json>>(ours).empty());
    } else if (library.is_array()) {
        check(std::holds_alternative<std::vector<Json>>(ours) &&
              same(Json(std::get<std::vector<Json>>(ours)), library));
    } else {
        check(std::holds_alternative<JSONError>(ours));
    }

    SocketParsable parser;
    std::optional<SocketPacket> packet;
    try {
        packet = parser.parseSocketMessage(text);
    } catch (const FatalStop& stop) {
        check(plannedStop(stop.what()));
        return 0;
    }
    if (!packet) return 0;
    (void)packet->description();
    (void)packet->args();
    (void)packet->event();

    // Written out again (attachments aside, the count comes from what arrived: none).
    const std::string written = packet->packetString();
    auto again = SocketParsable::parseString(written);
    check(std::holds_alternative<SocketPacket>(again));
    const auto& back = std::get<SocketPacket>(again);
    check(back.type() == packet->type());
    check(back.nsp() == packet->nsp());
    check(back.id() == packet->id());
    check(back.data == packet->data);
    check(back.packetString() == written);

    // The payload is written as the JSON library writes each value, "/" as "\/".
    std::string reference = "[";
    try {
        for (std::size_t i = 0; i < packet->data.size(); ++i) {
            if (i > 0) reference += ',';
            for (char c : packet->data[i].dump()) {
                if (c == '/') reference += '\\';
                reference += c;
            }
        }
        reference += ']';
        if (!packet->data.empty() && !written.ends_with("[]")) check(written.ends_with(reference));
    } catch (const Json::exception&) {
    }
    return 0;
}
