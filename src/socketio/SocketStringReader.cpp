#include "socketio/SocketStringReader.hpp"

#include "support/Fatal.hpp"
#include "support/Utf8.hpp"

#include <algorithm>
#include <limits>

namespace kelvane::socketio {
namespace {

constexpr std::string_view kOutOfBounds = "String index is out of bounds";
constexpr char16_t kReplacement = 0xFFFD;

bool isSurrogate(char16_t unit) { return unit >= 0xD800 && unit <= 0xDFFF; }

// Ill-formed sequences become U+FFFD, one for each maximal subpart, as the platform decodes
// them, so that unit positions match what the peer's text would give there.
std::u16string utf16(std::string_view text) {
    std::u16string out;
    out.reserve(text.size());
    const auto* bytes = reinterpret_cast<const unsigned char*>(text.data());
    const std::size_t size = text.size();
    std::size_t i = 0;
    while (i < size) {
        unsigned char lead = bytes[i];
        if (lead < 0x80) {
            out.push_back(lead);
            ++i;
            continue;
        }
        auto sequence = nextUTF8Sequence(text.substr(i));
        if (!sequence.valid) {
            out.push_back(kReplacement);
            i += sequence.length;
            continue;
        }
        const std::size_t length = sequence.length;
        char32_t point = lead & (length == 2 ? 0x1F : length == 3 ? 0x0F : 0x07);
        for (std::size_t k = 1; k < length; ++k) point = (point << 6) | (bytes[i + k] & 0x3F);
        if (point >= 0x10000) {
            point -= 0x10000;
            out.push_back(static_cast<char16_t>(0xD800 + (point >> 10)));
            out.push_back(static_cast<char16_t>(0xDC00 + (point & 0x3FF)));
        } else {
            out.push_back(static_cast<char16_t>(point));
        }
        i += length;
    }
    return out;
}

void appendUTF8(std::string& out, char32_t point) {
    if (point < 0x80) {
        out.push_back(static_cast<char>(point));
    } else if (point < 0x800) {
        out.push_back(static_cast<char>(0xC0 | (point >> 6)));
        out.push_back(static_cast<char>(0x80 | (point & 0x3F)));
    } else if (point < 0x10000) {
        out.push_back(static_cast<char>(0xE0 | (point >> 12)));
        out.push_back(static_cast<char>(0x80 | ((point >> 6) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | (point & 0x3F)));
    } else {
        out.push_back(static_cast<char>(0xF0 | (point >> 18)));
        out.push_back(static_cast<char>(0x80 | ((point >> 12) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | ((point >> 6) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | (point & 0x3F)));
    }
}

// A surrogate without its partner inside the range, as when a read cuts a pair, becomes U+FFFD.
std::string utf8(std::u16string_view units) {
    std::string out;
    out.reserve(units.size());
    for (std::size_t i = 0; i < units.size(); ++i) {
        char16_t unit = units[i];
        if (!isSurrogate(unit)) {
            appendUTF8(out, unit);
        } else if (unit <= 0xDBFF && i + 1 < units.size() && units[i + 1] >= 0xDC00 && units[i + 1] <= 0xDFFF) {
            appendUTF8(out, 0x10000 + ((static_cast<char32_t>(unit) - 0xD800) << 10) + (units[i + 1] - 0xDC00));
            ++i;
        } else {
            appendUTF8(out, kReplacement);
        }
    }
    return out;
}

}  // namespace

std::optional<std::int64_t> parseInteger(std::string_view text) {
    std::size_t i = 0;
    bool negative = false;
    if (!text.empty() && (text[0] == '+' || text[0] == '-')) {
        negative = text[0] == '-';
        i = 1;
    }
    if (i == text.size()) return std::nullopt;
    const std::uint64_t limit =
        static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max()) + (negative ? 1 : 0);
    std::uint64_t value = 0;
    for (; i < text.size(); ++i) {
        if (text[i] < '0' || text[i] > '9') return std::nullopt;
        auto digit = static_cast<std::uint64_t>(text[i] - '0');
        if (value > (limit - digit) / 10) return std::nullopt;
        value = value * 10 + digit;
    }
    return negative ? static_cast<std::int64_t>(0 - value) : static_cast<std::int64_t>(value);
}

bool isASCII(std::string_view text) {
    unsigned char any = 0;
    for (char c : text) any |= static_cast<unsigned char>(c);
    return any < 0x80;
}

std::size_t utf16Length(std::string_view text) {
    std::size_t units = 0;
    for (unsigned char c : text) {
        if ((c & 0xC0) != 0x80) units += (c >= 0xF0) ? 2 : 1;
    }
    return units;
}

SocketStringReader::SocketStringReader(std::string_view message) : isASCII_(isASCII(message)) {
    if (isASCII_) {
        ascii_ = message;
    } else {
        message_ = utf16(message);
    }
}

std::ptrdiff_t SocketStringReader::size() const {
    return static_cast<std::ptrdiff_t>(isASCII_ ? ascii_.size() : message_.size());
}

void SocketStringReader::checkIndex(std::ptrdiff_t end) const {
    if (currentIndex_ < 0 || end < currentIndex_ || end > size()) fatalStop(kOutOfBounds);
}

std::string SocketStringReader::units(std::ptrdiff_t from, std::ptrdiff_t to) const {
    auto count = static_cast<std::size_t>(to - from);
    if (isASCII_) return std::string(ascii_.substr(static_cast<std::size_t>(from), count));
    return utf8(std::u16string_view(message_).substr(static_cast<std::size_t>(from), count));
}

bool SocketStringReader::hasNext() const { return currentIndex_ != size(); }

std::string SocketStringReader::currentCharacter() const {
    if (currentIndex_ < 0 || currentIndex_ >= size()) fatalStop(kOutOfBounds);
    if (isASCII_) return std::string(1, ascii_[static_cast<std::size_t>(currentIndex_)]);
    char16_t unit = message_[static_cast<std::size_t>(currentIndex_)];
    // Half of a pair is no character of its own.
    if (isSurrogate(unit)) fatalStop(kUnwrapNil);
    std::string out;
    appendUTF8(out, unit);
    return out;
}

std::ptrdiff_t SocketStringReader::advance(std::ptrdiff_t by) {
    currentIndex_ += by;
    return currentIndex_;
}

std::string SocketStringReader::read(std::ptrdiff_t count) {
    checkIndex(currentIndex_ + count);
    std::string out = units(currentIndex_, currentIndex_ + count);
    currentIndex_ += count;
    return out;
}

std::string SocketStringReader::readUntilOccurence(std::string_view string) {
    checkIndex(currentIndex_);
    const auto from = static_cast<std::size_t>(currentIndex_);
    std::size_t found = std::string::npos;
    if (!string.empty()) {
        if (isASCII_) {
            found = ascii_.find(string, from);
        } else {
            found = message_.find(utf16(string), from);
        }
    }
    if (found == std::string::npos) return readUntilEnd();
    std::string out = units(currentIndex_, static_cast<std::ptrdiff_t>(found));
    currentIndex_ = static_cast<std::ptrdiff_t>(found) + 1;
    return out;
}

std::string SocketStringReader::readUntilEnd() {
    checkIndex(size());
    std::string out = units(currentIndex_, size());
    currentIndex_ = size();
    return out;
}

}  // namespace kelvane::socketio
