#pragma once

#include <kelvane/Export.hpp>

#include <cstdint>
#include <string>
#include <utility>
#include <variant>

namespace kelvane {

// An error that crosses the library: where it comes from, its number there, and what went
// wrong in words.
struct KELVANE_EXPORT Error {
    std::string domain;
    std::int64_t code = 0;
    std::string message;

    // The text form: Error Domain=<domain> Code=<code> "<message>".
    std::string text() const;
    // Words for a person: the message, or a generic sentence naming domain and code.
    std::string localizedDescription() const;

    bool operator==(const Error&) const = default;
};

// A value or the error that stood in its way.
template <class T>
class Result {
public:
    Result(T value) : content_(std::move(value)) {}
    Result(Error error) : content_(std::move(error)) {}

    bool ok() const { return content_.index() == 0; }
    explicit operator bool() const { return ok(); }
    T& value() { return std::get<0>(content_); }
    const T& value() const { return std::get<0>(content_); }
    T& operator*() { return value(); }
    const T& operator*() const { return value(); }
    T* operator->() { return &value(); }
    const T* operator->() const { return &value(); }
    const Error& error() const { return std::get<1>(content_); }

private:
    std::variant<T, Error> content_;
};

}  // namespace kelvane
