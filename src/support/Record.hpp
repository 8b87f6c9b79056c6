#pragma once

#include <kelvane/Error.hpp>
#include <kelvane/Json.hpp>
#include <kelvane/URL.hpp>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace kelvane {

enum class StringEncoding { utf8, ascii };

namespace record {

// The encoder every record uses: compact, "/" written as "\/", as the platform's encoder
// writes it. Fails on text that is not UTF-8 and on numbers that are not finite.
Result<std::string> encode(const Json& value);
// The record's JSON text in an encoding; nothing when the text does not fit it.
std::optional<std::string> decodeText(std::string_view bytes, StringEncoding encoding);
// A text as bytes of an encoding; the "JSONDecoding" error (code 0) when it does not fit.
Result<std::string> encodeText(std::string_view text, StringEncoding encoding);
// Parses bytes for a record.
Result<Json> parse(std::string_view bytes);
// Reads the contents of a file URL (or a plain path).
Result<std::string> read(const URL& url);

// Reads the fields of one JSON object for a record, remembering the first failure: a missing
// key, or a value of another type.
class Decoder {
public:
    explicit Decoder(const Json& object);

    std::string string(std::string_view key);
    std::int64_t integer(std::string_view key);
    bool boolean(std::string_view key);
    const Json& object(std::string_view key);
    std::optional<std::string> optionalString(std::string_view key);

    const std::optional<Error>& error() const { return error_; }
    void fail(Error error);

private:
    const Json* field(std::string_view key, bool required);
    void typeMismatch(std::string_view key, std::string_view expected);

    const Json& object_;
    std::optional<Error> error_;
    static const Json kEmpty;
};

}  // namespace record

// What every record offers on top of its own toJson() and fromJson(): encoding to bytes and
// text, and decoding from bytes, text and a file.
template <class Derived>
struct JsonRecord {
    Result<std::string> jsonData() const { return record::encode(static_cast<const Derived&>(*this).toJson()); }

    std::optional<std::string> jsonString(StringEncoding encoding = StringEncoding::utf8) const {
        auto data = jsonData();
        if (!data) return std::nullopt;
        return record::decodeText(*data, encoding);
    }

    static Result<Derived> fromData(std::string_view bytes) {
        auto parsed = record::parse(bytes);
        if (!parsed) return parsed.error();
        return Derived::fromJson(*parsed);
    }

    static Result<Derived> fromString(std::string_view text, StringEncoding encoding = StringEncoding::utf8) {
        auto bytes = record::encodeText(text, encoding);
        if (!bytes) return bytes.error();
        return fromData(*bytes);
    }

    static Result<Derived> fromURL(const URL& url) {
        auto contents = record::read(url);
        if (!contents) return contents.error();
        return fromData(*contents);
    }

    bool operator==(const JsonRecord&) const = default;
};

}  // namespace kelvane
