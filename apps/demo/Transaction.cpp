#include "Transaction.hpp"

#include <kelvane/Queue.hpp>
#include <kelvane/URL.hpp>

#include <curl/curl.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <thread>

namespace demo {

namespace {

using kelvane::Json;

LoadResult failure(int code, std::string reason) { return {std::nullopt, code, std::move(reason)}; }

// The request id of a plain payload text, for the summary.
std::string requestIdOf(const std::string& payloadText) {
    auto payload = kelvane::json::parse(payloadText);
    if (!payload) return {};
    const Json* data = kelvane::json::getObject(*payload, "data");
    const Json* socket = data ? kelvane::json::getObject(*data, "socket") : nullptr;
    return socket ? kelvane::json::getString(*socket, "requestId").value_or("") : "";
}

LoadResult fromFile(const Options& options) {
    auto file = readFile(*options.pushFile);
    if (!file.text) return failure(kBadArguments, "the file " + *options.pushFile + " could not be read: " + file.error);
    auto message = kelvane::json::parse(*file.text);
    if (!message || !message->is_object()) {
        return failure(kBadArguments, "the file " + *options.pushFile +
                                          " could not be read: not a JSON object (a transaction message has \"payload\")");
    }
    Transaction transaction;
    transaction.description = "push from " + *options.pushFile;
    if (auto payload = kelvane::json::getString(*message, "payload")) {
        if (auto id = requestIdOf(*payload); !id.empty()) transaction.description += " (request id " + id + ")";
    }
    transaction.message = std::move(*message);
    transaction.key = options.key;
    return {std::move(transaction), kCompleted, {}};
}

// The transaction a link names, for the summary.
std::string linkedId(const std::string& link) {
    auto parts = kelvane::URLComponents::make(link);
    auto items = parts ? parts->queryItems() : std::nullopt;
    for (const auto& item : items.value_or(std::vector<kelvane::URLQueryItem>{})) {
        if (item.name == "id" && item.value) return *item.value;
    }
    return link;
}

size_t collect(char* data, size_t size, size_t count, void* into) {
    static_cast<std::string*>(into)->append(data, size * count);
    return size * count;
}

// A minting option's value: JSON when it reads as JSON (true, 3, {...}), else the text.
Json optionValue(const std::string& text) {
    if (auto parsed = kelvane::json::parse(text)) return *parsed;
    return text;
}

// A GET of `url`, bounded by `seconds`: the body, or the reason it could not be had.
struct Fetched {
    std::optional<std::string> body;
    std::string problem;
};
Fetched get(const std::string& url, long seconds) {
    CURL* curl = curl_easy_init();
    if (!curl) return {std::nullopt, "no HTTP client"};
    std::string body;
    long status = 0;
    curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, collect);
    curl_easy_setopt(curl, CURLOPT_WRITEDATA, &body);
    curl_easy_setopt(curl, CURLOPT_TIMEOUT, seconds);
    curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
    CURLcode code = curl_easy_perform(curl);
    curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &status);
    curl_easy_cleanup(curl);
    if (code != CURLE_OK) return {std::nullopt, curl_easy_strerror(code)};
    if (status != 200) return {std::nullopt, "the sandbox answered " + std::to_string(status)};
    return {std::move(body), {}};
}

// Saves the QR code of a minted transaction to `path`; the reason when it could not.
std::optional<std::string> saveCode(const std::string& url, const std::string& path) {
    auto code = get(url, 15);
    if (!code.body) return "its QR code could not be fetched (" + code.problem + ")";
    std::ofstream file(path, std::ios::binary);
    if (!file.write(code.body->data(), static_cast<std::streamsize>(code.body->size())).flush()) {
        return "the file " + path + " could not be written: " + std::strerror(errno);
    }
    return std::nullopt;
}

LoadResult mint(const Options& options) {
    Json body = Json::object();
    if (options.autoRun) body["auto"] = true;
    for (const auto& [name, value] : options.mintOptions) body[name] = optionValue(value);
    std::string request = body.dump(), answer, url = *options.sandbox + "/api/transactions";
    const std::string where = "the sandbox at " + *options.sandbox;

    CURL* curl = curl_easy_init();
    if (!curl) return failure(kNoSandbox, where + " could not be reached (no HTTP client)");
    curl_slist* headers = curl_slist_append(nullptr, "Content-Type: application/json");
    curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
    curl_easy_setopt(curl, CURLOPT_HTTPHEADER, headers);
    curl_easy_setopt(curl, CURLOPT_POSTFIELDS, request.c_str());
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, collect);
    curl_easy_setopt(curl, CURLOPT_WRITEDATA, &answer);
    curl_easy_setopt(curl, CURLOPT_CONNECTTIMEOUT, 5L);
    curl_easy_setopt(curl, CURLOPT_TIMEOUT, 15L);
    curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
    CURLcode code = curl_easy_perform(curl);
    long status = 0;
    curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &status);
    curl_slist_free_all(headers);
    curl_easy_cleanup(curl);

    if (code != CURLE_OK) return failure(kNoSandbox, where + " could not be reached (" + curl_easy_strerror(code) + ")");
    auto minted = kelvane::json::parse(answer);
    if (status == 400) {
        auto error = minted ? kelvane::json::getString(*minted, "error") : std::nullopt;
        return failure(kBadArguments, "the sandbox refused the minting options: " + error.value_or(answer));
    }
    if (status != 201 || !minted) return failure(kNoSandbox, where + " answered " + std::to_string(status) + " to the mint");

    auto id = kelvane::json::getString(*minted, "id").value_or("?");
    const Json* push = kelvane::json::getObject(*minted, options.plain ? "push" : "pushEncrypted");
    auto payload = push ? kelvane::json::getString(*push, "payload") : std::nullopt;
    auto key = kelvane::json::getString(*minted, "encryptionKey");
    if (!payload || (!options.plain && !key)) return failure(kNoSandbox, where + " minted " + id + " without a push");

    Transaction transaction;
    transaction.description = id + " (request id " + kelvane::json::getString(*minted, "requestId").value_or("?") +
                              (options.plain ? ", plain " : ", encrypted ") + (options.qrFile ? "QR code)" : "push)");
    transaction.key = options.plain ? options.key : key;
    transaction.sandboxRecord = *options.sandbox + "/api/transactions/" + id;
    if (options.qrFile) {
        auto code = kelvane::json::getString(*minted, "qr");
        if (!code) return failure(kNoSandbox, where + " minted " + id + " without a QR code");
        if (auto problem = saveCode(*code + (options.plain ? "" : "?encrypted=1"), *options.qrFile)) {
            return failure(kNoSandbox, id + ": " + *problem);
        }
        transaction.qrImage = options.qrFile;
    } else {
        transaction.message = Json{{"payload", *payload}};
    }
    return {std::move(transaction), kCompleted, {}};
}

std::string verdictText(const Json& verdict, const std::string& what) {
    if (!verdict.is_object()) return what + " not checked";
    if (!kelvane::json::getBool(verdict, "verified").value_or(false)) {
        return what + " NOT verified (" + kelvane::json::getString(verdict, "reason").value_or("no reason") + ")";
    }
    auto before = kelvane::json::getInt(verdict, "counterBefore");
    auto after = kelvane::json::getInt(verdict, "counter");
    if (before && after) return what + " verified, counter " + std::to_string(*before) + " -> " + std::to_string(*after);
    return what + " verified";
}

}  // namespace

std::vector<std::string> sandboxChecks(const std::string& recordURL) {
    auto answer = get(recordURL, 5);
    auto record = answer.body ? kelvane::json::parse(*answer.body) : std::nullopt;
    if (!record || !record->is_object()) return {};
    const Json none;
    auto member = [&](const Json& object, const char* name) -> const Json& {
        return object.is_object() && object.contains(name) ? object[name] : none;
    };
    const Json& fido = member(*record, "fido");
    return {verdictText(member(*record, "biometric"), "biometric challenge"),
            verdictText(member(*record, "binding"), "silent binding"),
            verdictText(member(fido, "registration"), "passkey registration"),
            verdictText(member(fido, "authentication"), "passkey assertion")};
}

void loadTransaction(const Options& options, std::function<void(LoadResult)> done) {
    auto deliver = [done](LoadResult result) {
        kelvane::Queue::main()->async([done, result = std::move(result)] { done(result); });
    };
    if (options.pushFile) {
        deliver(fromFile(options));
    } else if (options.deeplink) {
        Transaction transaction;
        transaction.description = "link to " + linkedId(*options.deeplink);
        transaction.deeplink = options.deeplink;
        transaction.key = options.key;
        deliver({std::move(transaction), kCompleted, {}});
    } else if (!options.sandbox) {
        if (auto file = readFile(*options.qrFile); !file.text) {
            return deliver(failure(kBadArguments, "the file " + *options.qrFile + " could not be read: " + file.error));
        }
        Transaction transaction;
        transaction.description = "QR code in " + *options.qrFile;
        transaction.qrImage = options.qrFile;
        transaction.key = options.key;
        deliver({std::move(transaction), kCompleted, {}});
    } else {
        curl_global_init(CURL_GLOBAL_DEFAULT);
        std::thread([options, deliver] { deliver(mint(options)); }).detach();
    }
}

}  // namespace demo
