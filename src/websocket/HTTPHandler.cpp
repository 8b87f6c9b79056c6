#include "websocket/HTTPHandler.hpp"

#include "support/Utf8.hpp"
#include "websocket/Text.hpp"

#include <kelvane/URL.hpp>

#include <algorithm>
#include <optional>
#include <string_view>
#include <vector>

namespace kelvane::websocket {
namespace {

constexpr std::string_view kEndOfHeader = "\r\n\r\n";

// The header as text up to (not including) its blank line, or nothing while it is incomplete.
std::optional<std::string_view> completeHeader(ByteView buffer) {
    auto text = asText(buffer);
    auto end = text.find(kEndOfHeader);
    if (end == std::string_view::npos) return std::nullopt;
    return text.substr(0, end);
}

std::vector<std::string_view> lines(std::string_view header) {
    std::vector<std::string_view> out;
    for (;;) {
        auto end = header.find("\r\n");
        out.push_back(header.substr(0, end));
        if (end == std::string_view::npos) return out;
        header.remove_prefix(end + 2);
    }
}

std::string percentEncodedPath(const URL& url) {
    std::string_view text = url.absoluteString();
    text = text.substr(0, text.find('#'));
    text = text.substr(0, text.find('?'));
    if (auto scheme = url.scheme()) text.remove_prefix(std::min(text.size(), scheme->size() + 1));
    if (text.substr(0, 2) == "//") {
        auto slash = text.find('/', 2);
        text = slash == std::string_view::npos ? std::string_view() : text.substr(slash);
    }
    return std::string(text);
}

Bytes requestBytes(const Request& request) {
    if (!request.url || request.fieldWithLineBreak()) return {};
    std::string target = percentEncodedPath(*request.url);
    if (target.empty()) target = "/";
    if (auto query = request.url->query()) target += "?" + *query;
    std::string head = (request.method.empty() ? std::string("GET") : request.method) + " " + target + " HTTP/1.1\r\n";
    for (const auto& [name, value] : request.headers) head += name + ": " + value + "\r\n";
    head += "\r\n";
    Bytes out(head.begin(), head.end());
    if (request.body) out.insert(out.end(), request.body->begin(), request.body->end());
    return out;
}

HTTPEvent failure(HTTPUpgradeError error) {
    HTTPEvent event;
    event.error = std::move(error);
    return event;
}

HTTPEvent outcome(int status, Headers headers) {
    if (status != 101) {
        return failure(HTTPUpgradeError{HTTPUpgradeError::Kind::notAnUpgrade, status, std::move(headers)});
    }
    HTTPEvent event;
    event.success = true;
    event.headers = std::move(headers);
    return event;
}

}  // namespace

std::int64_t findEndOfHTTP(ByteView data) {
    std::size_t matched = 0;
    for (std::size_t i = 0; i < data.size(); ++i) {
        if (data[i] == static_cast<std::uint8_t>(kEndOfHeader[matched])) {
            if (++matched == kEndOfHeader.size()) return static_cast<std::int64_t>(i + 1);
        } else {
            matched = 0;
        }
    }
    return -1;
}

Bytes BufferingHTTPHandler::convert(const Request& request) { return requestBytes(request); }

std::int64_t BufferingHTTPHandler::parse(ByteView data) {
    if (refused_) return -1;
    auto offset = findEndOfHTTP(data);
    auto taken = offset > 0 ? data.first(static_cast<std::size_t>(offset)) : data;
    if (taken.size() > limits_.maxUpgradeResponseSize - std::min(buffer_.size(), limits_.maxUpgradeResponseSize)) {
        refused_ = true;
        buffer_ = Bytes();
        HTTPEvent event;
        event.tooBig = WSError{ErrorType::protocolError, "upgrade response too big", 1009};
        deliver(event);
        return -1;
    }
    buffer_.insert(buffer_.end(), taken.begin(), taken.end());
    if (parseContent(ByteView(buffer_))) buffer_.clear();
    return offset;
}

void BufferingHTTPHandler::deliver(const HTTPEvent& event) {
    if (auto delegate = delegate_.lock()) delegate->didReceiveHTTP(event);
}

bool FoundationHTTPHandler::parseContent(ByteView data) {
    constexpr std::string_view kStart = "HTTP/";
    auto text = asText(data);
    if (text.substr(0, kStart.size()) != kStart.substr(0, std::min(text.size(), kStart.size()))) return false;
    auto header = completeHeader(data);
    if (!header) return false;

    auto all = lines(*header);
    // Status line: HTTP/x.y SP three digits [SP reason]
    std::string_view status = all.front();
    auto space = status.find(' ');
    std::optional<int> code;
    if (space != std::string_view::npos) {
        auto rest = status.substr(space + 1);
        while (!rest.empty() && rest.front() == ' ') rest.remove_prefix(1);
        auto digits = rest.substr(0, 3);
        bool numeric = digits.size() == 3 && std::all_of(digits.begin(), digits.end(), [](char c) {
                           return c >= '0' && c <= '9';
                       });
        if (numeric && (rest.size() == 3 || rest[3] == ' ')) code = (digits[0] - '0') * 100 + (digits[1] - '0') * 10 + (digits[2] - '0');
    }
    if (!code) {
        deliver(failure(HTTPUpgradeError{}));
        return true;
    }

    Headers headers;
    for (std::size_t i = 1; i < all.size(); ++i) {
        auto colon = all[i].find(':');
        if (colon == std::string_view::npos) continue;
        std::string name(all[i].substr(0, colon));
        std::string value(trimmed(all[i].substr(colon + 1)));
        auto [field, added] = headers.try_emplace(std::move(name), value);
        if (!added) field->second += ", " + value;
    }
    deliver(outcome(*code, std::move(headers)));
    return true;
}

bool StringHTTPHandler::parseContent(ByteView data) {
    auto text = asText(data);
    if (!isValidUTF8(text)) {
        deliver(failure(HTTPUpgradeError{}));
        return true;
    }
    auto header = completeHeader(data);
    if (!header) return false;

    auto all = lines(*header);
    std::vector<std::string_view> words;
    std::string_view first = all.front();
    while (!first.empty()) {
        auto space = first.find(' ');
        if (space != 0) words.push_back(first.substr(0, space));
        if (space == std::string_view::npos) break;
        first.remove_prefix(space + 1);
    }
    auto code = words.size() > 1 ? decimal<int>(words[1]) : std::nullopt;
    if (!code) {
        deliver(failure(HTTPUpgradeError{}));
        return true;
    }

    Headers headers;
    for (std::size_t i = 1; i < all.size(); ++i) {
        auto colon = all[i].find(':');
        if (colon == std::string_view::npos) break;
        std::string name = asciiLowercased(std::string(trimmed(all[i].substr(0, colon))));
        headers[std::move(name)] = std::string(trimmed(all[i].substr(colon + 1)));
    }
    deliver(outcome(*code, std::move(headers)));
    return true;
}

}  // namespace kelvane::websocket
