#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace kelvane::socketio {

// The platform's Int(text): an optional sign, then at least one ASCII digit, within 64 bits.
std::optional<std::int64_t> parseInteger(std::string_view text);
bool isASCII(std::string_view text);
// Length of a well-formed UTF-8 text in UTF-16 code units.
std::size_t utf16Length(std::string_view text);

// A cursor over a message, counted in UTF-16 code units. An all-ASCII message is read where it
// stands, so the message must outlive the reader.
class SocketStringReader {
public:
    explicit SocketStringReader(std::string_view message);

    bool hasNext() const;
    // The one UTF-16 unit at the cursor, as UTF-8 text; a lone surrogate is a fatal stop.
    std::string currentCharacter() const;
    std::ptrdiff_t currentIndex() const { return currentIndex_; }
    std::ptrdiff_t advance(std::ptrdiff_t by);
    // The next `count` units; reading past the end is a fatal stop.
    std::string read(std::ptrdiff_t count);
    // Up to the first occurrence of `string` (not included); the cursor then stands one unit
    // past the start of that occurrence. Without one, the rest.
    std::string readUntilOccurence(std::string_view string);
    std::string readUntilEnd();

private:
    std::ptrdiff_t size() const;
    void checkIndex(std::ptrdiff_t end) const;
    std::string units(std::ptrdiff_t from, std::ptrdiff_t to) const;

    std::u16string message_;
    // An all-ASCII message as it came: there a unit index is a byte index, so no conversion is
    // needed either way.
    std::string_view ascii_;
    bool isASCII_ = false;
    std::ptrdiff_t currentIndex_ = 0;
};

}  // namespace kelvane::socketio
