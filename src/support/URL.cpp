#include <kelvane/URL.hpp>

#include "support/Utf8.hpp"

#include <boost/url/parse.hpp>
#include <boost/url/url_view.hpp>

#include <array>
#include <cstring>

namespace kelvane {
namespace {

using Table = std::array<bool, 128>;

constexpr Table makeSet(const char* extra) {
    Table table{};
    for (const char* c = extra; *c; ++c) table[static_cast<unsigned char>(*c)] = true;
    for (char c = 'a'; c <= 'z'; ++c) table[static_cast<unsigned char>(c)] = true;
    for (char c = 'A'; c <= 'Z'; ++c) table[static_cast<unsigned char>(c)] = true;
    for (char c = '0'; c <= '9'; ++c) table[static_cast<unsigned char>(c)] = true;
    return table;
}

constexpr Table kHost = makeSet("!$&'()*+,-.:;=[]_~");
constexpr Table kQuery = makeSet("!$&'()*+,-./:;=?@_~");
constexpr Table kPath = makeSet("!$&'()*+,-./:=@_~");
constexpr Table kFragment = kQuery;
constexpr Table kUser = makeSet("!$&'()*+,-.;=_~");
constexpr Table kPassword = kUser;
constexpr Table kAlphanumerics = makeSet("");

const Table& tableFor(URLCharacterSet set) {
    switch (set) {
        case URLCharacterSet::urlHostAllowed: return kHost;
        case URLCharacterSet::urlQueryAllowed: return kQuery;
        case URLCharacterSet::urlPathAllowed: return kPath;
        case URLCharacterSet::urlFragmentAllowed: return kFragment;
        case URLCharacterSet::urlUserAllowed: return kUser;
        case URLCharacterSet::urlPasswordAllowed: return kPassword;
        case URLCharacterSet::alphanumerics: return kAlphanumerics;
    }
    return kAlphanumerics;
}

std::string encodeWith(std::string_view text, const Table& allowed, std::string_view alsoEncode = {}) {
    static constexpr char kHex[] = "0123456789ABCDEF";
    std::string out;
    out.reserve(text.size());
    for (char c : text) {
        auto byte = static_cast<unsigned char>(c);
        if (byte < 128 && allowed[byte] && alsoEncode.find(c) == std::string_view::npos) {
            out += c;
        } else {
            out += '%';
            out += kHex[byte >> 4];
            out += kHex[byte & 15];
        }
    }
    return out;
}

int hexValue(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

// Decodes what can be decoded; used where the text came from a parsed URL and is sound.
std::string decodeLoosely(std::string_view text) {
    if (auto decoded = removingPercentEncoding(text)) return *decoded;
    return std::string(text);
}

}  // namespace

std::optional<std::string> addingPercentEncoding(std::string_view text, URLCharacterSet allowed) {
    if (!isValidUTF8(text)) return std::nullopt;
    return encodeWith(text, tableFor(allowed));
}

std::optional<std::string> removingPercentEncoding(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '%') {
            out += text[i];
            continue;
        }
        if (i + 2 >= text.size()) return std::nullopt;
        int high = hexValue(text[i + 1]);
        int low = hexValue(text[i + 2]);
        if (high < 0 || low < 0) return std::nullopt;
        out += static_cast<char>(high * 16 + low);
        i += 2;
    }
    if (!isValidUTF8(out)) return std::nullopt;
    return out;
}

std::optional<URL> URL::make(std::string_view text) {
    if (text.empty() || !URLComponents::isURIReference(text)) return std::nullopt;
    return URL(std::string(text));
}

std::optional<std::string> URL::scheme() const { return URLComponents::make(*this).scheme(); }

std::optional<std::string> URL::host() const { return URLComponents::make(*this).host(); }

std::string URL::path() const { return URLComponents::make(*this).path(); }

std::optional<std::string> URL::query() const { return URLComponents::make(*this).percentEncodedQuery(); }

std::string URL::lastPathComponent() const {
    std::string full = path();
    while (full.size() > 1 && full.back() == '/') full.pop_back();
    if (full == "/") return full;
    auto slash = full.rfind('/');
    return slash == std::string::npos ? full : full.substr(slash + 1);
}

std::string URL::pathExtension() const {
    std::string last = lastPathComponent();
    auto dot = last.rfind('.');
    if (dot == std::string::npos || dot == 0 || dot + 1 == last.size()) return {};
    return last.substr(dot + 1);
}

std::optional<URLComponents> URLComponents::parse(std::string_view text) {
    auto parsed = boost::urls::parse_uri_reference(text);
    if (!parsed) return std::nullopt;
    const boost::urls::url_view& view = *parsed;
    URLComponents parts;
    if (view.has_scheme()) parts.scheme_ = std::string(view.scheme());
    if (view.has_authority()) {
        if (view.has_userinfo()) parts.userInfo_ = std::string(view.encoded_userinfo());
        parts.host_ = std::string(view.encoded_host());
        if (view.has_port()) parts.port_ = std::string(view.port());
    }
    parts.path_ = std::string(view.encoded_path());
    if (view.has_query()) parts.query_ = std::string(view.encoded_query());
    if (view.has_fragment()) parts.fragment_ = std::string(view.encoded_fragment());
    return parts;
}

bool URLComponents::isURIReference(std::string_view text) {
    // The parser lets "http://host:rest/path" through with "rest/path" as the path after an
    // authority, which no URI has; the parts must put the text back together.
    auto parts = parse(text);
    return parts && parts->assemble() == text;
}

std::optional<URLComponents> URLComponents::make(std::string_view text) {
    if (!URL::make(text)) return std::nullopt;
    return parse(text);
}

URLComponents URLComponents::make(const URL& url) {
    // The text was checked when the URL was made.
    return *parse(url.absoluteString());
}

std::optional<std::string> URLComponents::host() const {
    if (!host_) return std::nullopt;
    return decodeLoosely(*host_);
}

std::optional<std::uint64_t> URLComponents::port() const {
    if (!port_ || port_->empty() || port_->size() > 19) return std::nullopt;
    std::uint64_t value = 0;
    for (char c : *port_) {
        if (c < '0' || c > '9') return std::nullopt;
        value = value * 10 + static_cast<std::uint64_t>(c - '0');
    }
    return value;
}

void URLComponents::setHost(const std::optional<std::string>& host) {
    if (!host) {
        host_.reset();
        return;
    }
    host_ = encodeWith(*host, kHost);
}

std::string URLComponents::path() const { return decodeLoosely(path_); }

void URLComponents::setPath(std::string_view path) { path_ = encodeWith(path, kPath); }

std::optional<std::vector<URLQueryItem>> URLComponents::queryItems() const {
    if (!query_) return std::nullopt;
    std::vector<URLQueryItem> items;
    if (query_->empty()) return items;
    std::string_view rest = *query_;
    for (;;) {
        auto amp = rest.find('&');
        std::string_view piece = rest.substr(0, amp);
        auto eq = piece.find('=');
        if (eq == std::string_view::npos) {
            items.push_back({decodeLoosely(piece), std::nullopt});
        } else {
            items.push_back({decodeLoosely(piece.substr(0, eq)), decodeLoosely(piece.substr(eq + 1))});
        }
        if (amp == std::string_view::npos) break;
        rest.remove_prefix(amp + 1);
    }
    return items;
}

void URLComponents::setQueryItems(const std::optional<std::vector<URLQueryItem>>& items) {
    if (!items) {
        query_.reset();
        return;
    }
    std::string query;
    for (std::size_t i = 0; i < items->size(); ++i) {
        const auto& item = (*items)[i];
        if (i > 0) query += '&';
        query += encodeWith(item.name, kQuery, "&=");
        if (item.value) {
            query += '=';
            query += encodeWith(*item.value, kQuery, "&");
        }
    }
    query_ = std::move(query);
}

std::optional<std::string> URLComponents::assemble() const {
    std::string text;
    if (scheme_) {
        if (scheme_->empty()) return std::nullopt;
        text += *scheme_;
        text += ':';
    }
    bool hasAuthority = host_ || userInfo_ || port_;
    if (hasAuthority) {
        if (!path_.empty() && path_.front() != '/') return std::nullopt;
        text += "//";
        if (userInfo_) {
            text += *userInfo_;
            text += '@';
        }
        if (host_) text += *host_;
        if (port_) {
            text += ':';
            text += *port_;
        }
    } else if (path_.rfind("//", 0) == 0) {
        return std::nullopt;
    }
    text += path_;
    if (query_) {
        text += '?';
        text += *query_;
    }
    if (fragment_) {
        text += '#';
        text += *fragment_;
    }
    return text;
}

std::optional<std::string> URLComponents::string() const {
    auto text = assemble();
    // What does not parse back, such as a scheme with a forbidden character, makes no URL.
    if (text && !text->empty() && !isURIReference(*text)) return std::nullopt;
    return text;
}

std::optional<URL> URLComponents::url() const {
    auto text = string();
    if (!text) return std::nullopt;
    if (text->empty()) return std::nullopt;
    return URL(std::move(*text));
}

}  // namespace kelvane
