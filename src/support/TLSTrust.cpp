#include "support/TLSTrust.hpp"

#include <openssl/x509.h>
#include <openssl/x509_vfy.h>
#include <openssl/x509v3.h>

#include <memory>

namespace kelvane {
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

bool isIPAddress(const std::string& host) {
    auto* parsed = a2i_IPADDRESS(host.c_str());
    if (!parsed) return false;
    ASN1_OCTET_STRING_free(parsed);
    return true;
}

}  // namespace

std::optional<std::string> verifyServerChain(const std::vector<Bytes>& chain, std::string_view host,
                                             const std::vector<std::string>& anchorFiles) {
    if (chain.empty()) return "the server showed no certificate";
    auto leaf = parse(chain.front());
    if (!leaf) return "the server's certificate is unreadable";
    ChainPtr intermediates(sk_X509_new_null());
    for (std::size_t i = 1; i < chain.size(); ++i) {
        auto certificate = parse(chain[i]);
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
    std::string name(host);
    if (isIPAddress(name)) {
        X509_VERIFY_PARAM_set1_ip_asc(param, name.c_str());
    } else {
        X509_VERIFY_PARAM_set1_host(param, name.c_str(), name.size());
    }
    if (X509_verify_cert(context.get()) == 1) return std::nullopt;
    return X509_verify_cert_error_string(X509_STORE_CTX_get_error(context.get()));
}

std::string certificateRefusal(std::string_view host, std::string_view reason) {
    return "certificate refused for " + std::string(host) + ": " + std::string(reason);
}

}  // namespace kelvane
