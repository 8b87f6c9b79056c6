#pragma once

#include "support/Record.hpp"

#include <cstdint>
#include <optional>
#include <string>

namespace kelvane {

// The typed form of a transaction message's payload. The push road itself reads the raw
// dictionary key by key; these records are for code that builds or checks a whole payload.
// Every field is required.

struct Socket : JsonRecord<Socket> {
    std::string requestID;  // key "requestId"
    std::string url;

    Socket() = default;
    Socket(std::string requestID, std::string url) : requestID(std::move(requestID)), url(std::move(url)) {}

    Json toJson() const;
    static Result<Socket> fromJson(const Json& json);
    Socket with(std::optional<std::string> requestID = {}, std::optional<std::string> url = {}) const;
    bool operator==(const Socket&) const = default;
};

struct DataClass : JsonRecord<DataClass> {
    std::string action;
    Socket socket;
    std::string type;

    DataClass() = default;
    DataClass(std::string action, Socket socket, std::string type)
        : action(std::move(action)), socket(std::move(socket)), type(std::move(type)) {}

    Json toJson() const;
    static Result<DataClass> fromJson(const Json& json);
    DataClass with(std::optional<std::string> action = {}, std::optional<Socket> socket = {},
                   std::optional<std::string> type = {}) const;
    bool operator==(const DataClass&) const = default;
};

// Holds a plain payload only: "data" must be an object.
struct PayloadDataModel : JsonRecord<PayloadDataModel> {
    std::int64_t version = 0;
    std::string id;
    std::int64_t isEncrypted = 0;
    DataClass data;

    PayloadDataModel() = default;
    PayloadDataModel(std::int64_t version, std::string id, std::int64_t isEncrypted, DataClass data)
        : version(version), id(std::move(id)), isEncrypted(isEncrypted), data(std::move(data)) {}

    Json toJson() const;
    static Result<PayloadDataModel> fromJson(const Json& json);
    PayloadDataModel with(std::optional<std::int64_t> version = {}, std::optional<std::string> id = {},
                          std::optional<std::int64_t> isEncrypted = {}, std::optional<DataClass> data = {}) const;
    bool operator==(const PayloadDataModel&) const = default;
};

}  // namespace kelvane
