#pragma once

#include <kelvane/Bytes.hpp>

#include <optional>
#include <string>
#include <string_view>

namespace kelvane::base64 {

// Standard alphabet, with padding, no line breaks.
std::string encode(ByteView bytes);
inline std::string encode(std::string_view text) { return encode(asBytes(text)); }

// Strict standard decoding, as the crypto needs it: only the alphabet, a length that is a
// multiple of 4, at most two "=" and only at the end. No white space.
std::optional<Bytes> decode(std::string_view text);

// Lenient decoding: characters outside the alphabet are skipped, then the rest must form
// whole groups of four (padding included).
std::optional<Bytes> decodeIgnoringUnknown(std::string_view text);

}  // namespace kelvane::base64
