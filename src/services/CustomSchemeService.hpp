#pragma once

#include <kelvane/URL.hpp>

#include "support/Subject.hpp"

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace kelvane {

// A hand-off to the UAE PASS app, rewritten to come back through the host's own scheme.
struct CustomSchemeModel {
    URL initialUri;
    std::string successLink;
    std::string failureLink;
    URL appToAppUri;
    std::string scheme;
};

// The URL's query as a dictionary: nothing without a query, "" for a value-less item. A name
// that appears twice is a fatal stop.
std::optional<std::map<std::string, std::string>> queryParameters(const URL& url);

// The URL arithmetic of app-to-app links. Stateless; any thread.
class CustomSchemeService {
public:
    const std::vector<std::string> allowedSchemesInWebview{"uaepass", "uaepassstg"};

    // The hand-off a navigation asks for, or nothing for an ordinary navigation.
    std::optional<CustomSchemeModel> preprocessUri(const std::optional<URL>& url) const;
    // The page's URL wrapped in a return link, or nothing.
    std::optional<URL> postProcessUri(std::string_view url) const;
    // The host's bundle identifier, which is also its custom scheme; "" without one.
    std::string getPackageInfo() const;
};

// Carries a returned URL from the deep-link road to the open flow.
class CustomSchemeSingleton {
public:
    static CustomSchemeSingleton& shared();

    // The stream of returned URL texts. Values arrive on the sender's thread.
    Subject<std::string>& streamPublisher() { return streamFutureSubject_; }
    // Sends the text unless it equals the last one sent, however long ago. Any thread.
    void sendData(const std::string& text);

private:
    CustomSchemeSingleton() = default;
    Subject<std::string> streamFutureSubject_;
    std::mutex mutex_;
    std::optional<std::string> lastSentData_;
};

}  // namespace kelvane
