#pragma once

#include "websocket/Limits.hpp"
#include "websocket/Request.hpp"
#include "websocket/WSError.hpp"

#include <kelvane/Bytes.hpp>

#include <cstdint>
#include <memory>
#include <optional>
#include <variant>

namespace kelvane::websocket {

// What the upgrade response came to.
struct HTTPEvent {
    bool success = false;
    Headers headers;         // success
    HTTPUpgradeError error;  // failure
    // failure: the response grew past maxUpgradeResponseSize ("upgrade response too big",
    // 1009); `error` is then left as it is.
    std::optional<WSError> tooBig;
};

class HTTPHandlerDelegate {
public:
    virtual ~HTTPHandlerDelegate() = default;
    // Called inside parse(), on the caller's queue.
    virtual void didReceiveHTTP(const HTTPEvent& event) = 0;
};

// The byte side of the handshake. Not thread-safe: one queue (the transport's) uses it.
class HTTPHandler {
public:
    virtual ~HTTPHandler() = default;
    virtual void registerDelegate(std::weak_ptr<HTTPHandlerDelegate> delegate) = 0;
    // The request as bytes on the wire; empty when it cannot be written.
    virtual Bytes convert(const Request& request) = 0;
    // Takes one read of the response. Returns the offset just past the blank line that ends
    // the header when this read holds it, else -1. Bytes behind the offset are frames.
    virtual std::int64_t parse(ByteView data) = 0;
    // Before the first parse. A response that outgrows maxUpgradeResponseSize before it is
    // understood is refused once, and every byte after is ignored.
    virtual void setLimits(const Limits& limits) = 0;
};

// The index just past the first CR LF CR LF in this read alone, or -1. After a mismatch the
// byte is not looked at again as a possible start.
std::int64_t findEndOfHTTP(ByteView data);

// What both response parsers share: the delegate, the request writer, and the buffer that
// gathers the header across reads until parseContent() has understood it.
class BufferingHTTPHandler : public HTTPHandler {
public:
    void registerDelegate(std::weak_ptr<HTTPHandlerDelegate> delegate) override { delegate_ = std::move(delegate); }
    Bytes convert(const Request& request) override;
    std::int64_t parse(ByteView data) final;
    void setLimits(const Limits& limits) override { limits_ = limits; }

protected:
    // True when the buffer is done with (an event was delivered); false to wait for more.
    virtual bool parseContent(ByteView data) = 0;
    void deliver(const HTTPEvent& event);

private:
    std::weak_ptr<HTTPHandlerDelegate> delegate_;
    Limits limits_;
    Bytes buffer_;
    bool refused_ = false;
};

// Keeps field names as the server spelled them.
class FoundationHTTPHandler final : public BufferingHTTPHandler {
protected:
    bool parseContent(ByteView data) override;
};

// Plain-text parsing; stores field names in lower case.
class StringHTTPHandler final : public BufferingHTTPHandler {
protected:
    bool parseContent(ByteView data) override;
};

}  // namespace kelvane::websocket
