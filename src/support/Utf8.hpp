#pragma once

#include <cstddef>
#include <string_view>

namespace kelvane {

// Whether the bytes are well-formed UTF-8 (no overlongs, no surrogates, nothing above U+10FFFF).
bool isValidUTF8(std::string_view text);

// The UTF-8 sequence at the start of a non-empty text: a well-formed one and its length, or an
// ill-formed one and the length of its maximal subpart (at least 1), which a decoder replaces
// with one U+FFFD.
struct UTF8Sequence {
    std::size_t length;
    bool valid;
};
UTF8Sequence nextUTF8Sequence(std::string_view text);

// The text without white space and line ends (Unicode's White_Space characters) at either end.
std::string_view trimmingWhitespacesAndNewlines(std::string_view text);

}  // namespace kelvane
