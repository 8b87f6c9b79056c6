#include "support/CurlHTTP.hpp"

#include "support/HTTPSession.hpp"
#include "support/TLSTrust.hpp"

#include <curl/curl.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <pthread.h>
#include <string_view>
#include <unistd.h>
#include <unordered_map>

namespace kelvane {
namespace {

const char* const urlErrorDomain = "NSURLErrorDomain";

// The one place where libcurl's results become the errors a URL session reports. `refusal` is
// what the trust check said, `detail` libcurl's own words.
Error urlLoadingError(CURLcode code, const std::string& refusal = {}, const std::string& detail = {}) {
    switch (code) {
    case CURLE_PEER_FAILED_VERIFICATION:
        return {urlErrorDomain, -1202, !refusal.empty() ? refusal : "certificate refused: " + detail};
    case CURLE_SSL_CONNECT_ERROR:
        return {urlErrorDomain, -1200,
                "An SSL error has occurred and a secure connection to the server cannot be made." +
                    (detail.empty() ? std::string() : " (" + detail + ")")};
    case CURLE_COULDNT_CONNECT:
        return {urlErrorDomain, -1004, "Could not connect to the server."};
    case CURLE_COULDNT_RESOLVE_HOST:
        return {urlErrorDomain, -1003, "A server with the specified hostname could not be found."};
    case CURLE_OPERATION_TIMEDOUT:
        return {urlErrorDomain, -1001, "The request timed out."};
    case CURLE_ABORTED_BY_CALLBACK:
        return {urlErrorDomain, -999, "cancelled"};
    default:
        return {urlErrorDomain, -1, "unknown error"};
    }
}

void initializeCurlOnce() {
    static std::once_flag once;
    std::call_once(once, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
}

std::string trimmed(std::string_view text) {
    const auto blank = [](char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; };
    while (!text.empty() && blank(text.front())) text.remove_prefix(1);
    while (!text.empty() && blank(text.back())) text.remove_suffix(1);
    return std::string(text);
}

std::string lowercased(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return std::tolower(c); });
    return text;
}

}  // namespace

struct CurlHTTP::Transfer {
    using Finish = std::function<void(Transfer&, CURLcode)>;

    Transfer() : easy(curl_easy_init()) {}
    ~Transfer() {
        if (file) std::fclose(file);
        curl_slist_free_all(headers);
        curl_easy_cleanup(easy);
    }
    Transfer(const Transfer&) = delete;
    Transfer& operator=(const Transfer&) = delete;

    // Starts the idle clock; the transfer is about to run.
    void begin() { lastActivity = std::chrono::steady_clock::now(); }
    // What a finished transfer's result means: an abort by the idle watch is a timeout.
    CURLcode outcome(CURLcode result) const {
        return result == CURLE_ABORTED_BY_CALLBACK && timedOut ? CURLE_OPERATION_TIMEDOUT : result;
    }

    Error error(CURLcode result) const { return urlLoadingError(result, *trustRefusal, errorBuffer); }

    // The response, once the transfer went through over HTTP.
    std::optional<platform::HTTPResponse> response() const {
        if (status <= 0) return std::nullopt;
        return platform::HTTPResponse{static_cast<int>(status), responseHeaders};
    }

    CURL* easy;
    curl_slist* headers = nullptr;
    std::string requestBody;
    std::string body;
    std::FILE* file = nullptr;
    std::filesystem::path filePath;
    long status = 0;
    std::chrono::steady_clock::duration idleLimit{};
    std::chrono::steady_clock::time_point lastActivity{};
    curl_off_t bytesMoved = -1;
    bool timedOut = false;
    std::vector<std::pair<std::string, std::string>> responseHeaders;
    std::shared_ptr<const ServerTrustCheck> trustCheck;
    // Why the check refused the server, written during the handshake of a connection this
    // transfer opened; shared with that connection, which may outlive the transfer.
    std::shared_ptr<std::string> trustRefusal = std::make_shared<std::string>();
    char errorBuffer[CURL_ERROR_SIZE] = {};
    // Set when the transfer cannot start; it then finishes at once with this.
    CURLcode setupFailure = CURLE_OK;
    // Runs once, on the loop's thread (or the caller's, for contentsOf).
    Finish finish;
};

namespace {

std::size_t appendToBody(char* data, std::size_t size, std::size_t count, void* target) {
    static_cast<CurlHTTP::Transfer*>(target)->body.append(data, size * count);
    return size * count;
}

std::size_t writeToFile(char* data, std::size_t size, std::size_t count, void* target) {
    return std::fwrite(data, 1, size * count, static_cast<CurlHTTP::Transfer*>(target)->file);
}

std::size_t collectHeader(char* data, std::size_t size, std::size_t count, void* target) {
    auto& transfer = *static_cast<CurlHTTP::Transfer*>(target);
    transfer.lastActivity = std::chrono::steady_clock::now();
    std::string_view line(data, size * count);
    if (line.starts_with("HTTP/")) {
        // A new status line: an interim response or a redirect came before; only the last counts.
        transfer.responseHeaders.clear();
    } else if (auto colon = line.find(':'); colon != std::string_view::npos && colon > 0) {
        transfer.responseHeaders.emplace_back(trimmed(line.substr(0, colon)), trimmed(line.substr(colon + 1)));
    }
    return size * count;
}

platform::HTTPRequest getRequest(const URL& url) {
    return {url, "GET", {}, std::nullopt, 60.0};
}

// libcurl calls this at least about once a second, also while nothing moves. Its own low-speed
// check averages over a window sampled once a second and can fire while bytes still trickle in;
// watching the byte counts bounds silence itself.
int watchIdle(void* target, curl_off_t, curl_off_t downloaded, curl_off_t, curl_off_t uploaded) {
    auto& transfer = *static_cast<CurlHTTP::Transfer*>(target);
    auto now = std::chrono::steady_clock::now();
    if (downloaded + uploaded != transfer.bytesMoved) {
        transfer.bytesMoved = downloaded + uploaded;
        transfer.lastActivity = now;
        return 0;
    }
    if (now - transfer.lastActivity < transfer.idleLimit) return 0;
    transfer.timedOut = true;
    return 1;
}

// What judges the server of one TLS connection. libcurl makes an SSL_CTX per connection; this
// belongs to it and goes with it, since a connection may outlive the transfer that opened it.
struct ConnectionTrust {
    std::shared_ptr<const ServerTrustCheck> check;
    std::string host;
    std::shared_ptr<std::string> refusal;
};

int connectionTrustIndex() {
    static const int index = SSL_CTX_get_ex_new_index(
        0, nullptr, nullptr, nullptr,
        [](void*, void* trust, CRYPTO_EX_DATA*, int, long, void*) { delete static_cast<ConnectionTrust*>(trust); });
    return index;
}

std::vector<Bytes> peerChain(X509_STORE_CTX* context) {
    std::vector<Bytes> chain;
    const auto add = [&chain](X509* certificate) {
        unsigned char* der = nullptr;
        int length = i2d_X509(certificate, &der);
        if (length <= 0) return;
        chain.emplace_back(der, der + length);
        OPENSSL_free(der);
    };
    X509* leaf = X509_STORE_CTX_get0_cert(context);
    if (leaf) add(leaf);
    if (STACK_OF(X509)* sent = X509_STORE_CTX_get0_untrusted(context)) {
        for (int i = 0; i < sk_X509_num(sent); ++i) {
            X509* certificate = sk_X509_value(sent, i);
            if (leaf && X509_cmp(certificate, leaf) == 0) continue;
            add(certificate);
        }
    }
    return chain;
}

// Stands in for OpenSSL's own verification of the chain, so that the check alone decides.
int judgeChain(X509_STORE_CTX* context, void* argument) {
    auto& trust = *static_cast<ConnectionTrust*>(argument);
    auto refusal = (*trust.check)(peerChain(context), trust.host);
    if (!refusal) return 1;
    *trust.refusal = *refusal;
    X509_STORE_CTX_set_error(context, X509_V_ERR_APPLICATION_VERIFICATION);
    return 0;
}

CURLcode installTrust(CURL* easy, void* sslContext, void* target) {
    auto& transfer = *static_cast<CurlHTTP::Transfer*>(target);
    // The URL being fetched now, a redirect's target included.
    char* current = nullptr;
    curl_easy_getinfo(easy, CURLINFO_EFFECTIVE_URL, &current);
    std::string host;
    if (auto url = current ? URL::make(current) : std::nullopt) host = url->host().value_or("");
    if (host.size() >= 2 && host.front() == '[' && host.back() == ']') host = host.substr(1, host.size() - 2);

    auto* context = static_cast<SSL_CTX*>(sslContext);
    auto* trust = new ConnectionTrust{transfer.trustCheck, std::move(host), transfer.trustRefusal};
    if (SSL_CTX_set_ex_data(context, connectionTrustIndex(), trust) != 1) {
        delete trust;
        return CURLE_OUT_OF_MEMORY;
    }
    SSL_CTX_set_cert_verify_callback(context, judgeChain, trust);
    return CURLE_OK;
}

void configure(CurlHTTP::Transfer& transfer, const platform::HTTPRequest& request,
               std::shared_ptr<const ServerTrustCheck> check) {
    CURL* easy = transfer.easy;
    curl_easy_setopt(easy, CURLOPT_URL, request.url.absoluteString().c_str());
    curl_easy_setopt(easy, CURLOPT_PRIVATE, &transfer);
    // Signals for resolver timeouts would hit whatever thread the process is running.
    curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(easy, CURLOPT_FOLLOWLOCATION, 1L);
    curl_easy_setopt(easy, CURLOPT_MAXREDIRS, 16L);
    curl_easy_setopt(easy, CURLOPT_REDIR_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(easy, CURLOPT_ACCEPT_ENCODING, "");
    curl_easy_setopt(easy, CURLOPT_HEADERFUNCTION, collectHeader);
    curl_easy_setopt(easy, CURLOPT_HEADERDATA, &transfer);
    curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, appendToBody);
    curl_easy_setopt(easy, CURLOPT_WRITEDATA, &transfer);
    curl_easy_setopt(easy, CURLOPT_ERRORBUFFER, transfer.errorBuffer);

    // The check judges every TLS server, the host name included (a pinner may accept a
    // certificate that names another host); libcurl's own store and name check stay out.
    transfer.trustCheck = std::move(check);
    curl_easy_setopt(easy, CURLOPT_SSL_VERIFYPEER, 1L);
    curl_easy_setopt(easy, CURLOPT_SSL_VERIFYHOST, 0L);
    curl_easy_setopt(easy, CURLOPT_CAINFO, nullptr);
    curl_easy_setopt(easy, CURLOPT_CAPATH, nullptr);
    curl_easy_setopt(easy, CURLOPT_SSL_CTX_FUNCTION, installTrust);
    curl_easy_setopt(easy, CURLOPT_SSL_CTX_DATA, &transfer);

    // An idle timeout, as a URL session's request timeout is: a long poll may outlast it as
    // long as it is not silent for that long.
    double timeout = request.timeoutInterval > 0 ? request.timeoutInterval : 60.0;
    long timeoutMilliseconds = std::max(1L, std::lround(timeout * 1000));
    curl_easy_setopt(easy, CURLOPT_CONNECTTIMEOUT_MS, timeoutMilliseconds);
    transfer.idleLimit = std::chrono::milliseconds(timeoutMilliseconds);
    curl_easy_setopt(easy, CURLOPT_NOPROGRESS, 0L);
    curl_easy_setopt(easy, CURLOPT_XFERINFOFUNCTION, watchIdle);
    curl_easy_setopt(easy, CURLOPT_XFERINFODATA, &transfer);

    const auto& method = request.method;
    if (request.body) {
        transfer.requestBody = *request.body;
        curl_easy_setopt(easy, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(transfer.requestBody.size()));
        curl_easy_setopt(easy, CURLOPT_POSTFIELDS, transfer.requestBody.data());
        if (method != "POST") curl_easy_setopt(easy, CURLOPT_CUSTOMREQUEST, method.c_str());
    } else if (method == "GET") {
        curl_easy_setopt(easy, CURLOPT_HTTPGET, 1L);
    } else if (method == "HEAD") {
        curl_easy_setopt(easy, CURLOPT_NOBODY, 1L);
    } else if (method == "POST") {
        curl_easy_setopt(easy, CURLOPT_POSTFIELDSIZE_LARGE, curl_off_t{0});
        curl_easy_setopt(easy, CURLOPT_POSTFIELDS, "");
    } else {
        curl_easy_setopt(easy, CURLOPT_CUSTOMREQUEST, method.c_str());
    }

    bool hasExpect = false;
    for (const auto& [name, value] : request.headers) {
        // libcurl reads "Name:" as "remove this header"; "Name;" sends it empty.
        auto line = value.empty() ? name + ";" : name + ": " + value;
        transfer.headers = curl_slist_append(transfer.headers, line.c_str());
        hasExpect = hasExpect || lowercased(trimmed(name)) == "expect";
    }
    // A URL session sends larger bodies straight away, without waiting for "100 Continue".
    if (!hasExpect) transfer.headers = curl_slist_append(transfer.headers, "Expect:");
    curl_easy_setopt(easy, CURLOPT_HTTPHEADER, transfer.headers);
}

}  // namespace

// Owned jointly by the CurlHTTP and its thread, so that a CurlHTTP released from one of its
// own completions can leave the thread to wind down by itself.
struct CurlHTTP::Loop {
    Loop() : multi(curl_multi_init()) {}
    ~Loop() { curl_multi_cleanup(multi); }

    void add(std::unique_ptr<Transfer> transfer) {
        {
            std::lock_guard lock(mutex);
            if (!drained) {
                incoming.push_back(std::move(transfer));
                transfer = nullptr;
            }
        }
        if (transfer) {
            // The thread has wound down; nothing would ever run the task.
            transfer->finish(*transfer, CURLE_ABORTED_BY_CALLBACK);
            return;
        }
        curl_multi_wakeup(multi);
    }

    void stop() {
        {
            std::lock_guard lock(mutex);
            stopping = true;
        }
        curl_multi_wakeup(multi);
    }

    void run() {
        pthread_setname_np(pthread_self(), "kelvane-http");
        for (;;) {
            std::vector<std::unique_ptr<Transfer>> added;
            {
                std::lock_guard lock(mutex);
                if (stopping) break;
                added.swap(incoming);
            }
            for (auto& transfer : added) start(std::move(transfer));

            int active = 0;
            curl_multi_perform(multi, &active);
            int queued = 0;
            while (CURLMsg* message = curl_multi_info_read(multi, &queued)) {
                if (message->msg != CURLMSG_DONE) continue;
                CURL* easy = message->easy_handle;
                CURLcode result = message->data.result;
                complete(easy, result);
            }
            // Short waits while transfers run, so that the idle watch sees them often enough.
            curl_multi_poll(multi, nullptr, 0, running.empty() ? 1000 : 250, nullptr);
        }
        cancelEverything();
    }

private:
    void start(std::unique_ptr<Transfer> transfer) {
        if (transfer->setupFailure == CURLE_OK && curl_multi_add_handle(multi, transfer->easy) != CURLM_OK) {
            transfer->setupFailure = CURLE_FAILED_INIT;
        }
        if (transfer->setupFailure != CURLE_OK) {
            transfer->finish(*transfer, transfer->setupFailure);
            return;
        }
        transfer->begin();
        CURL* easy = transfer->easy;
        running.emplace(easy, std::move(transfer));
    }

    void complete(CURL* easy, CURLcode result) {
        auto found = running.find(easy);
        if (found == running.end()) return;
        auto transfer = std::move(found->second);
        running.erase(found);
        curl_multi_remove_handle(multi, easy);
        if (result == CURLE_OK) curl_easy_getinfo(easy, CURLINFO_RESPONSE_CODE, &transfer->status);
        transfer->finish(*transfer, transfer->outcome(result));
    }

    // Completions may start tasks of their own; those are cancelled as well, until none is left.
    void cancelEverything() {
        for (;;) {
            std::vector<std::unique_ptr<Transfer>> left;
            {
                std::lock_guard lock(mutex);
                left.swap(incoming);
                if (left.empty() && running.empty()) {
                    drained = true;
                    return;
                }
            }
            for (auto& [easy, transfer] : running) {
                curl_multi_remove_handle(multi, easy);
                left.push_back(std::move(transfer));
            }
            running.clear();
            for (auto& transfer : left) transfer->finish(*transfer, CURLE_ABORTED_BY_CALLBACK);
        }
    }

    CURLM* multi;
    std::mutex mutex;
    std::vector<std::unique_ptr<Transfer>> incoming;
    bool stopping = false;
    bool drained = false;
    // The loop's thread only.
    std::unordered_map<CURL*, std::unique_ptr<Transfer>> running;
};

CurlHTTP::CurlHTTP()
    : CurlHTTP([](const std::vector<Bytes>& chain, const std::string& host) -> std::optional<std::string> {
          if (auto reason = verifyServerChain(chain, host)) return certificateRefusal(host, *reason);
          return std::nullopt;
      }) {}

CurlHTTP::CurlHTTP(ServerTrustCheck check) : check_(std::make_shared<const ServerTrustCheck>(std::move(check))) {
    initializeCurlOnce();
    loop_ = std::make_shared<Loop>();
    thread_ = std::thread([loop = loop_] { loop->run(); });
}

CurlHTTP::~CurlHTTP() {
    loop_->stop();
    if (thread_.get_id() == std::this_thread::get_id()) {
        thread_.detach();
    } else {
        thread_.join();
    }
}

void CurlHTTP::dataTask(const platform::HTTPRequest& request,
                        std::function<void(std::optional<std::string>, std::optional<platform::HTTPResponse>,
                                           std::optional<Error>)>
                            completion) {
    auto transfer = std::make_unique<Transfer>();
    configure(*transfer, request, check_);
    transfer->finish = [completion = std::move(completion)](Transfer& transfer, CURLcode result) {
        if (result != CURLE_OK) {
            completion(std::nullopt, std::nullopt, transfer.error(result));
            return;
        }
        completion(std::move(transfer.body), transfer.response(), std::nullopt);
    };
    loop_->add(std::move(transfer));
}

void CurlHTTP::downloadTask(const URL& url,
                            std::function<void(std::optional<std::filesystem::path>,
                                               std::optional<platform::HTTPResponse>, std::optional<Error>)>
                                completion) {
    auto transfer = std::make_unique<Transfer>();
    configure(*transfer, getRequest(url), check_);

    std::error_code error;
    auto pattern = (std::filesystem::temp_directory_path(error) / "kelvane-download-XXXXXX").string();
    int fd = error ? -1 : mkstemp(pattern.data());
    if (fd >= 0) transfer->file = fdopen(fd, "wb");
    if (transfer->file) {
        transfer->filePath = pattern;
        curl_easy_setopt(transfer->easy, CURLOPT_WRITEFUNCTION, writeToFile);
    } else {
        if (fd >= 0) {
            close(fd);
            unlink(pattern.c_str());
        }
        transfer->setupFailure = CURLE_WRITE_ERROR;
    }

    transfer->finish = [completion = std::move(completion)](Transfer& transfer, CURLcode result) {
        if (transfer.file && std::fclose(transfer.file) != 0 && result == CURLE_OK) result = CURLE_WRITE_ERROR;
        transfer.file = nullptr;
        if (result != CURLE_OK) {
            completion(std::nullopt, std::nullopt, transfer.error(result));
        } else {
            completion(transfer.filePath, transfer.response(), std::nullopt);
        }
        if (!transfer.filePath.empty()) {
            std::error_code ignored;
            std::filesystem::remove(transfer.filePath, ignored);
        }
    };
    loop_->add(std::move(transfer));
}

Result<std::string> CurlHTTP::contentsOf(const URL& url) {
    Transfer transfer;
    configure(transfer, getRequest(url), check_);
    transfer.begin();
    CURLcode result = transfer.outcome(curl_easy_perform(transfer.easy));
    if (result != CURLE_OK) return transfer.error(result);
    return std::move(transfer.body);
}

std::shared_ptr<platform::HTTP> defaultHTTP() {
    // Never destroyed: completions and callers may outlive static destruction.
    static auto* http = new std::shared_ptr<platform::HTTP>(std::make_shared<CurlHTTP>());
    return *http;
}

}  // namespace kelvane
