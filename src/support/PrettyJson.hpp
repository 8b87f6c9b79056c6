#pragma once

#include <kelvane/Error.hpp>
#include <kelvane/Json.hpp>

#include <string>

namespace kelvane {

// The value as the platform's pretty-printing JSON writer lays it out: two blanks per level,
// " : " after a key, "/" written "\/", integral numbers without a fraction, an empty container
// as "{\n\n}". Fails, as that writer does, on text that is not UTF-8 and on numbers that are
// not finite. Any thread.
Result<std::string> prettyPrinted(const Json& value);

}  // namespace kelvane
