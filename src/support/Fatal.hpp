#pragma once

#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

namespace kelvane {

// The platform's words for a forced read of a missing value.
inline constexpr std::string_view kUnwrapNil = "Unexpectedly found nil while unwrapping an Optional value";
inline constexpr std::string_view kImplicitUnwrapNil =
    "Unexpectedly found nil while implicitly unwrapping an Optional value";

// How the platform words an error that code assumed could not happen; the error's text follows.
inline constexpr std::string_view kUnexpectedError = "'try!' expression unexpectedly raised an error: ";

// A forced cast of a value of type `actual` to `target` failed.
[[noreturn]] void castFailure(std::string_view actual, std::string_view target);

// Ends the process: writes "Fatal error: <message>" to standard error and aborts. The only
// way the library ends the process, used exactly where the behaviour calls for it.
[[noreturn]] void fatalStop(std::string_view message);

// Fuzz builds throw this instead of aborting, so that only unplanned crashes are findings.
struct FatalStop : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// A forced read: the value, or a fatal stop with the platform's text.
template <class T>
T& forceUnwrap(std::optional<T>& value, std::string_view message = kUnwrapNil) {
    if (!value) fatalStop(message);
    return *value;
}
template <class T>
const T& forceUnwrap(const std::optional<T>& value, std::string_view message = kUnwrapNil) {
    if (!value) fatalStop(message);
    return *value;
}
template <class T>
T& forceUnwrap(const std::shared_ptr<T>& value, std::string_view message = kUnwrapNil) {
    if (!value) fatalStop(message);
    return *value;
}

}  // namespace kelvane
