// The upgrade response, fed to both handlers in reads whose size the first byte sets.
#include <kelvane/Log.hpp>

#include "websocket/HTTPHandler.hpp"
#include "websocket/HTTPWSHeader.hpp"

#include <cstdint>
#include <cstdlib>
#include <memory>

using namespace kelvane;
using namespace kelvane::websocket;

namespace {

void check(bool holds) {
    if (!holds) std::abort();
}

struct Counter : HTTPHandlerDelegate {
    int events = 0;
    void didReceiveHTTP(const HTTPEvent& event) override {
        ++events;
        check(event.success || event.error.kind == HTTPUpgradeError::Kind::invalidData ||
              event.error.code != 101);
    }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const bool quiet = (kelvane::setLogSink([](std::string_view) {}), true);
    (void)quiet;
    if (size == 0) return 0;
    const std::size_t piece = data[0] + 1;
    ByteView stream(data + 1, size - 1);

    FoundationHTTPHandler foundation;
    StringHTTPHandler plain;
    auto counter = std::make_shared<Counter>();
    foundation.registerDelegate(counter);
    plain.registerDelegate(counter);
    for (std::size_t at = 0; at < stream.size(); at += piece) {
        auto read = stream.subspan(at, std::min(piece, stream.size() - at));
        for (HTTPHandler* handler : {static_cast<HTTPHandler*>(&foundation), static_cast<HTTPHandler*>(&plain)}) {
            auto offset = handler->parse(read);
            check(offset == -1 || (offset >= 4 && static_cast<std::size_t>(offset) <= read.size()));
        }
    }

    // The same text as a URL for the request side.
    if (auto url = URL::make(asText(stream))) {
        (void)getParts(*url);
        auto upgrade = HTTPWSHeader::createUpgrade(Request(url), true, "dGhlIHNhbXBsZSBub25jZQ==");
        (void)foundation.convert(upgrade);
        check(plain.convert(upgrade) == foundation.convert(upgrade));
    }
    return 0;
}
