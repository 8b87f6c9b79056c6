#include "websocket/Security.hpp"

#include "support/Base64.hpp"

#include <openssl/sha.h>
#include <openssl/x509.h>
#include <openssl/x509_vfy.h>
#include <openssl/x509v3.h>

#include <memory>

namespace kelvane::websocket {
namespace {

template <class T, void (*Free)(T*)>
struct Deleter {
    void operator()(T* p) const { Free(p); }
};
using X509Ptr = std::unique_ptr<X509, Deleter<X509, X509_free>>;
using StorePtr = std::unique_ptr<X509_STORE, Deleter<X509_STORE, X509_STORE_free>>;
using StoreContextPtr = std::unique_ptr<X509_STORE_CTX, Deleter<X509_STORE_CTX, X509_STORE_CTX_free>>;

void freeChain(STACK_OF(X509) * stack) { sk_X509_pop_free(stack, X509_free); }
using ChainPtr = std::unique_ptr<STACK_OF(X509), Deleter<STACK_OF(X509), freeChain>>;

X509Ptr parse(const Bytes& der) {
    const unsigned char* p = der.data();
    return X509Ptr(d2i_X509(nullptr, &p, static_cast<long>(der.size())));
}

bool isIPAddress(std::string_view domain) {
    auto* parsed = a2i_IPADDRESS(std::string(domain).c_str());
    if (!parsed) return false;
    ASN1_OCTET_STRING_free(parsed);
    return true;
}

}  // namespace

std::optional<std::string> ServerTrust::evaluate(std::string_view domain,
                                                 const std::vector<std::string>& anchorFiles) const {
    if (chain_.empty()) return "the server showed no certificate";
    auto leaf = parse(chain_.front());
    if (!leaf) return "the server's certificate is unreadable";
    ChainPtr intermediates(sk_X509_new_null());
    for (std::size_t i = 1; i < chain_.size(); ++i) {
        auto certificate = parse(chain_[i]);
        if (!certificate) return "a certificate of the chain is unreadable";
        sk_X509_push(intermediates.get(), certificate.release());
    }

    StorePtr store(X509_STORE_new());
    if (anchorFiles.empty()) {
        X509_STORE_set_default_paths(store.get());
    } else {
        for (const auto& file : anchorFiles) {
            if (X509_STORE_load_file(store.get(), file.c_str()) != 1) return "cannot read the anchor " + file;
        }
    }
    StoreContextPtr context(X509_STORE_CTX_new());
    if (!context || X509_STORE_CTX_init(context.get(), store.get(), leaf.get(), intermediates.get()) != 1) {
        return "cannot set up the verification";
    }
    X509_VERIFY_PARAM* param = X509_STORE_CTX_get0_param(context.get());
    X509_VERIFY_PARAM_set_purpose(param, X509_PURPOSE_SSL_SERVER);
    std::string name(domain);
    if (isIPAddress(name)) {
        X509_VERIFY_PARAM_set1_ip_asc(param, name.c_str());
    } else {
        X509_VERIFY_PARAM_set1_host(param, name.c_str(), name.size());
    }
    if (X509_verify_cert(context.get()) == 1) return std::nullopt;
    return X509_verify_cert_error_string(X509_STORE_CTX_get_error(context.get()));
}

void FoundationSecurity::evaluateTrust(const ServerTrust& trust, const std::string& domain,
                                       std::function<void(PinningState)> completion) {
    if (allowSelfSigned_) {
        completion(PinningState{true, std::nullopt});
        return;
    }
    if (auto refusal = trust.evaluate(domain)) {
        completion(PinningState{false, Error{"kelvane.tls", static_cast<int>(SecurityErrorCode::pinningFailed),
                                             "certificate refused for " + domain + ": " + *refusal}});
        return;
    }
    completion(PinningState{true, std::nullopt});
}

std::string acceptValue(const std::string& key) {
    std::string input = key + "258EAFA5-E914-47DA-95CA-C5AB0DC85B11";
    unsigned char digest[SHA_DIGEST_LENGTH];
    SHA1(reinterpret_cast<const unsigned char*>(input.data()), input.size(), digest);
    return base64::encode(ByteView(digest, sizeof digest));
}

std::optional<WSError> FoundationSecurity::validate(const Headers& headers, const std::string& key) {
    auto accept = headers.find("Sec-WebSocket-Accept");
    if (accept == headers.end()) return std::nullopt;
    if (accept->second == acceptValue(key)) return std::nullopt;
    return WSError{ErrorType::securityError, "accept header doesn't match",
                   static_cast<std::uint16_t>(SecurityErrorCode::acceptFailed)};
}

}  // namespace kelvane::websocket
