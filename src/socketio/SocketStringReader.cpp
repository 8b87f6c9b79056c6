#include "socketio/SocketStringReader.hpp"

#include <kelvane/Fatal.hpp>

#include <algorithm>

namespace kelvane::socketio {
namespace {

constexpr std::string_view kOutOfBounds = "String index is out of bounds";
constexpr char16_t kReplacement = 0xFFFD;

bool isASCII(std::string_view text) {
    unsigned char any = 0;
    for (char c : text) any |= static_cast<unsigned char>(c);
    return any < 0x80;
}

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
        std::size_t length;
        unsigned char low = 0x80, high = 0xBF;
        char32_t point;
        if (lead >= 0xC2 && lead <= 0xDF) {
            length = 2;
            point = lead & 0x1F;
        } else if (lead >= 0xE0 && lead <= 0xEF) {
            length = 3;
            point = lead & 0x0F;
            if (lead == 0xE0) low = 0xA0;
            if (lead == 0xED) high = 0x9F;
        } else if (lead >= 0xF0 && lead <= 0xF4) {
            length = 4;
            point = lead & 0x07;
            if (lead == 0xF0) low = 0x90;
            if (lead == 0xF4) high = 0x8F;
        } else {
            out.push_back(kReplacement);
            ++i;
            continue;
        }
        std::size_t k = 1;
        for (; k < length && i + k < size; ++k) {
            unsigned char next = bytes[i + k];
            if (next < (k == 1 ? low : 0x80) || next > (k == 1 ? high : 0xBF)) break;
            point = (point << 6) | (next & 0x3F);
        }
        if (k < length) {
            out.push_back(kReplacement);
            i += k;
            continue;
        }
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

SocketStringReader::SocketStringReader(std::string_view message) : isASCII_(isASCII(message)) {
    if (isASCII_) {
        ascii_.assign(message);
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
    if (isASCII_) return ascii_.substr(static_cast<std::size_t>(from), count);
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
