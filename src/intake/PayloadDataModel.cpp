#include "intake/PayloadDataModel.hpp"

namespace kelvane {

Json Socket::toJson() const { return Json{{"requestId", requestID}, {"url", url}}; }

Result<Socket> Socket::fromJson(const Json& json) {
    record::Decoder decoder(json);
    Socket socket(decoder.string("requestId"), decoder.string("url"));
    if (decoder.error()) return *decoder.error();
    return socket;
}

Socket Socket::with(std::optional<std::string> newRequestID, std::optional<std::string> newURL) const {
    return Socket(newRequestID.value_or(requestID), newURL.value_or(url));
}

Json DataClass::toJson() const { return Json{{"action", action}, {"socket", socket.toJson()}, {"type", type}}; }

Result<DataClass> DataClass::fromJson(const Json& json) {
    record::Decoder decoder(json);
    std::string action = decoder.string("action");
    auto socket = Socket::fromJson(decoder.object("socket"));
    std::string type = decoder.string("type");
    if (decoder.error()) return *decoder.error();
    if (!socket) return socket.error();
    return DataClass(std::move(action), std::move(*socket), std::move(type));
}

DataClass DataClass::with(std::optional<std::string> newAction, std::optional<Socket> newSocket,
                          std::optional<std::string> newType) const {
    return DataClass(newAction.value_or(action), newSocket.value_or(socket), newType.value_or(type));
}

Json PayloadDataModel::toJson() const {
    return Json{{"version", version}, {"id", id}, {"isEncrypted", isEncrypted}, {"data", data.toJson()}};
}

Result<PayloadDataModel> PayloadDataModel::fromJson(const Json& json) {
    record::Decoder decoder(json);
    auto version = decoder.integer("version");
    auto id = decoder.string("id");
    auto isEncrypted = decoder.integer("isEncrypted");
    auto data = DataClass::fromJson(decoder.object("data"));
    if (decoder.error()) return *decoder.error();
    if (!data) return data.error();
    return PayloadDataModel(version, std::move(id), isEncrypted, std::move(*data));
}

PayloadDataModel PayloadDataModel::with(std::optional<std::int64_t> newVersion, std::optional<std::string> newID,
                                        std::optional<std::int64_t> newIsEncrypted,
                                        std::optional<DataClass> newData) const {
    return PayloadDataModel(newVersion.value_or(version), newID.value_or(id), newIsEncrypted.value_or(isEncrypted),
                            newData.value_or(data));
}

}  // namespace kelvane
