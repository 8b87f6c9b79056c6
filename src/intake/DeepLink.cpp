// The link roads of a transaction: the clipboard, the host's deep link and the return of an
// app-to-app hand-off.
#include <kelvane/KelvaneApp.hpp>

#include <kelvane/Log.hpp>
#include <kelvane/Queue.hpp>
#include <kelvane/URL.hpp>

#include "backend/ApiService.hpp"
#include "services/CustomSchemeService.hpp"
#include "support/Ports.hpp"

namespace kelvane {

void KelvaneApp::getCopyData(std::shared_ptr<KelvaneService> with) {
    KELVANE_ASSERT_ON_QUEUE(*Queue::main());
    auto pasteboard = ports::pasteboard();
    auto text = pasteboard->string();
    if (!text) return;
    logLine("Clipboard data: " + *text);
    if (!text->starts_with("https://") || text->find("deeplink") == std::string::npos) return;
    onDeeplinkRequest(std::move(with), *text);
    // Used once; the fetch may still be running.
    pasteboard->setString("");
}

void KelvaneApp::onDeeplinkRequest(std::shared_ptr<KelvaneService> with, const std::string& url) {
    KELVANE_ASSERT_ON_QUEUE(*Queue::main());
    customDeeplink(url);
    auto parsed = URL::make(url);
    if (!parsed) return;
    auto items = URLComponents::make(*parsed).queryItems();
    if (!items) return;

    std::optional<std::string> baseUrl, actionToken, id, realmId;
    for (const auto& item : *items) {
        // The last item of a name wins, and one without a value clears it.
        if (item.name == "base_url") {
            baseUrl = item.value;
        } else if (item.name == "action_token") {
            actionToken = item.value;
        } else if (item.name == "id") {
            id = item.value;
        } else if (item.name == "realm_id") {
            realmId = item.value;
        }
    }
    if (!baseUrl || !actionToken || !id || !realmId) {
        logLine("One or more required parameters mislsing");
        return;
    }
    ApiService().getPayloadFromId(*id, *baseUrl, *actionToken, *realmId, [with](Result<Json> result) {
        if (!result) {
            logLine("Error: " + result.error().localizedDescription());
            if (with) with->onError(result.error().text());
        } else if (!result->is_object()) {
            logLine("No payload received");
        } else {
            logLine("Payload: " + json::dump(*result));
            if (with) with->onTransactionRequest(*result);
        }
    });
}

void KelvaneApp::customDeeplink(const std::string& url) {
    // The first non-empty piece before a ":" is the scheme as written.
    auto start = url.find_first_not_of(':');
    if (start == std::string::npos) return;
    std::string scheme = url.substr(start, url.find(':', start) - start);
    if (scheme != customSchemeService->getPackageInfo()) return;
    if (auto returned = customSchemeService->postProcessUri(url)) {
        CustomSchemeSingleton::shared().sendData(returned->absoluteString());
    }
}

}  // namespace kelvane
