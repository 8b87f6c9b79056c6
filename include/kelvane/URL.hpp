#pragma once

#include <kelvane/Export.hpp>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kelvane {

// Sets of characters that stay as they are under percent-encoding, named as the platform
// names them. Everything else, every non-ASCII byte included, becomes %XX.
enum class URLCharacterSet {
    urlHostAllowed,
    urlQueryAllowed,
    urlPathAllowed,
    urlFragmentAllowed,
    urlUserAllowed,
    urlPasswordAllowed,
    alphanumerics,  // ASCII letters and digits
};

// Nothing when the text is not valid UTF-8.
KELVANE_EXPORT std::optional<std::string> addingPercentEncoding(std::string_view text, URLCharacterSet allowed);
// Nothing when a "%" is not followed by two hex digits, or the result is not valid UTF-8.
KELVANE_EXPORT std::optional<std::string> removingPercentEncoding(std::string_view text);

class URLComponents;

// An absolute or relative reference in the syntax of RFC 3986, kept as its text.
class KELVANE_EXPORT URL {
public:
    // Nothing for an empty text or one that is no URI reference (a blank, a bare "%", a
    // non-ASCII character, a bracket in the query...).
    static std::optional<URL> make(std::string_view text);

    const std::string& absoluteString() const { return text_; }
    // As written, case kept.
    std::optional<std::string> scheme() const;
    // Decoded; for an IP literal, with its brackets.
    std::optional<std::string> host() const;
    // Decoded.
    std::string path() const;
    // Percent-encoded, as written.
    std::optional<std::string> query() const;
    // The last component of the path ("" for an empty path or "/").
    std::string lastPathComponent() const;
    // What follows the last "." of the last component, if that dot is not its first character.
    std::string pathExtension() const;

    bool operator==(const URL&) const = default;

private:
    friend class URLComponents;
    explicit URL(std::string text) : text_(std::move(text)) {}
    std::string text_;
};

struct URLQueryItem {
    std::string name;
    std::optional<std::string> value;
    bool operator==(const URLQueryItem&) const = default;
};

// A URL taken apart, without resolving against a base. Components are kept percent-encoded
// as written; the plain accessors decode, the plain setters encode.
class KELVANE_EXPORT URLComponents {
public:
    URLComponents() = default;
    static std::optional<URLComponents> make(std::string_view text);
    static URLComponents make(const URL& url);

    const std::optional<std::string>& scheme() const { return scheme_; }
    void setScheme(std::optional<std::string> scheme) { scheme_ = std::move(scheme); }
    std::optional<std::string> host() const;
    void setHost(const std::optional<std::string>& host);
    // The port as written, when it is a decimal number (of any size).
    std::optional<std::uint64_t> port() const;
    std::string path() const;
    void setPath(std::string_view path);
    const std::optional<std::string>& percentEncodedQuery() const { return query_; }
    void setPercentEncodedQuery(std::optional<std::string> query) { query_ = std::move(query); }

    // Items in their order. "a" has no value, "a=" an empty one; names and values decoded.
    // Nothing when there is no query at all.
    std::optional<std::vector<URLQueryItem>> queryItems() const;
    // Encodes what the query does not allow, plus "&" (and "=" in names). Nothing removes
    // the query, an empty list leaves an empty one.
    void setQueryItems(const std::optional<std::vector<URLQueryItem>>& items);

    // The text of the parts put together, or nothing when they do not make a URL (an empty
    // scheme, for one).
    std::optional<std::string> string() const;
    std::optional<URL> url() const;

private:
    friend class URL;
    // One parse of the text into its parts; nothing when it is no URI reference.
    static std::optional<URLComponents> parse(std::string_view text);
    static bool isURIReference(std::string_view text);
    // The parts put together without checking the result.
    std::optional<std::string> assemble() const;

    std::optional<std::string> scheme_;
    std::optional<std::string> userInfo_;
    std::optional<std::string> host_;
    std::optional<std::string> port_;
    std::string path_;
    std::optional<std::string> query_;
    std::optional<std::string> fragment_;
};

}  // namespace kelvane
