#include "services/CustomSchemeService.hpp"

#include <kelvane/Log.hpp>

#include "support/Fatal.hpp"
#include "support/Ports.hpp"

namespace kelvane {

std::optional<std::map<std::string, std::string>> queryParameters(const URL& url) {
    auto items = URLComponents::make(url).queryItems();
    if (!items) return std::nullopt;
    std::map<std::string, std::string> parameters;
    for (const auto& item : *items) {
        if (!parameters.emplace(item.name, item.value.value_or("")).second) {
            fatalStop("Duplicate values for key: '" + item.name + "'");
        }
    }
    return parameters;
}

std::string CustomSchemeService::getPackageInfo() const { return ports::bundle()->bundleIdentifier().value_or(""); }

std::optional<CustomSchemeModel> CustomSchemeService::preprocessUri(const std::optional<URL>& url) const {
    logLine("Pre process url called");
    if (!url) return std::nullopt;
    const std::string& text = url->absoluteString();
    // A prefix test only: "uaepassx:" passes here and is turned away by the exact test below.
    bool allowed = false;
    for (const auto& scheme : allowedSchemesInWebview) {
        if (text.rfind(scheme, 0) == 0) allowed = true;
    }
    if (!allowed) return std::nullopt;
    std::string scheme = url->scheme().value_or("");
    std::string package = getPackageInfo();
    if (scheme != "uaepass" && scheme != "uaepassstg") return std::nullopt;

    auto parameters = queryParameters(*url);
    if (!parameters) return std::nullopt;
    auto success = parameters->find("successurl");
    auto failure = parameters->find("failureurl");
    if (success == parameters->end() || failure == parameters->end()) return std::nullopt;
    std::string successLink = success->second;
    std::string failureLink = failure->second;

    URLComponents callback;
    callback.setScheme(package);
    callback.setPath("/uaepass");
    auto callbackURL = callback.url();
    if (!callbackURL) return std::nullopt;
    const std::string& callbackText = callbackURL->absoluteString();

    auto hostEncoded = addingPercentEncoding(successLink, URLCharacterSet::urlHostAllowed);
    logLine("Success link -> " + forceUnwrap(hostEncoded));

    // Only letters and digits stay, so the nested URL survives one decoding by the other app.
    auto successEncoded = addingPercentEncoding(successLink, URLCharacterSet::alphanumerics);
    auto failureEncoded = addingPercentEncoding(failureLink, URLCharacterSet::alphanumerics);
    (*parameters)["successurl"] = callbackText + "/success?url=" + forceUnwrap(successEncoded);
    (*parameters)["failureurl"] = callbackText + "/failure?url=" + forceUnwrap(failureEncoded);

    URLComponents outgoing = URLComponents::make(*url);
    outgoing.setScheme(text.find("relyingParty%3Dsandbox_stage") != std::string::npos ? "uaepassstg" : "uaepass");
    std::vector<URLQueryItem> items;
    for (const auto& [name, value] : *parameters) items.push_back({name, value});
    outgoing.setQueryItems(items);
    auto appToAppUri = outgoing.url();

    return CustomSchemeModel{*url, successLink, failureLink, forceUnwrap(appToAppUri), scheme};
}

std::optional<URL> CustomSchemeService::postProcessUri(std::string_view url) const {
    auto parsed = URL::make(url);
    if (!parsed) return std::nullopt;
    auto items = URLComponents::make(*parsed).queryItems();
    if (!items) return std::nullopt;
    for (const auto& item : *items) {
        if (item.name != "url") continue;
        if (!item.value) return std::nullopt;
        return URL::make(*item.value);
    }
    return std::nullopt;
}

CustomSchemeSingleton& CustomSchemeSingleton::shared() {
    static auto* instance = new CustomSchemeSingleton();
    return *instance;
}

void CustomSchemeSingleton::sendData(const std::string& text) {
    {
        std::lock_guard lock(mutex_);
        if (lastSentData_ == text) return;
        lastSentData_ = text;
    }
    streamFutureSubject_.send(text);
}

}  // namespace kelvane
