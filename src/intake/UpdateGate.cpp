// The forced update gate: the store's version against the bundle's.
#include <kelvane/KelvaneApp.hpp>

#include <kelvane/AlertController.hpp>
#include <kelvane/Log.hpp>
#include <kelvane/Queue.hpp>
#include <kelvane/URL.hpp>

#include "support/Ports.hpp"

#include <mutex>

namespace kelvane {
namespace {

// The host app's page in the store, fixed by the publisher at build time.
constexpr std::string_view kStoreLink = "itms-apps://apps.apple.com/app/id1440000000";

struct LookupHost {
    std::mutex mutex;
    std::string host = KELVANE_STORE_LOOKUP_HOST;
};

LookupHost& lookupHost() {
    static auto* setting = new LookupHost();
    return *setting;
}

// How the platform's JSON reader words a text it cannot read, top-level scalars included.
Error notJSON() {
    return {"NSCocoaErrorDomain", 3840, "The data couldn\u2019t be read because it isn\u2019t in the correct format."};
}

}  // namespace

std::string storeLookupHost() {
    std::lock_guard lock(lookupHost().mutex);
    return lookupHost().host;
}

void setStoreLookupHost(std::string host) {
    std::lock_guard lock(lookupHost().mutex);
    lookupHost().host = std::move(host);
}

void KelvaneApp::sdkInit(std::shared_ptr<KelvaneService> with, bool forceUpdate) {
    KELVANE_ASSERT_ON_QUEUE(*Queue::main());
    getCopyData(with);
    if (!forceUpdate) return;

    auto bundle = ports::bundle();
    std::string bundleId = bundle->bundleIdentifier().value_or("");
    auto currentVersion = bundle->shortVersion();
    if (!currentVersion) return;
    // The identifier goes in as it is: one that needs escaping makes no URL, and no lookup.
    auto url = URL::make("http://" + storeLookupHost() + "/lookup?bundleId=" + bundleId);
    if (!url) return;

    auto contents = ports::http()->contentsOf(*url);
    if (!contents) {
        logLine("Error checking for updates: " + contents.error().text());
        return;
    }
    auto answer = json::parse(*contents);
    if (!answer || !answer->is_structured()) {
        logLine("Error checking for updates: " + notJSON().text());
        return;
    }
    const Json* results = json::getArray(*answer, "results");
    if (!results || results->empty()) return;
    // A list with anything but objects in it is no list of results.
    for (const auto& result : *results) {
        if (!result.is_object()) return;
    }
    const Json& first = results->front();
    auto storeVersion = json::getString(first, "version");
    if (!storeVersion) return;
    auto trackId = json::getInt(first, "trackId");

    logLine("App store version -> " + *storeVersion);
    logLine("current version -> " + *currentVersion);
    // Any difference counts, a newer local version included.
    if (*storeVersion == *currentVersion) return;
    setUpdateAvailable(true);
    if (trackId) showUpdateAlert(std::move(with), *trackId);
}

void KelvaneApp::showUpdateAlert(std::shared_ptr<KelvaneService> with, std::int64_t /*appId*/) {
    KELVANE_ASSERT_ON_QUEUE(*Queue::main());
    auto presenter = customView();
    auto alert = std::make_shared<AlertController>(
        "Update Available", "A new version of the app is available. Please update to continue using.",
        AlertController::Style::alert);
    auto self = std::static_pointer_cast<KelvaneApp>(shared_from_this());
    // The only way out: the dialog comes back after every lookup that still finds a difference.
    alert->addAction({"Update Now", AlertController::ActionStyle::defaultStyle, [self, with] {
                          if (auto link = URL::make(kStoreLink)) ports::urlOpener()->open(*link, {});
                          self->sdkInit(with, true);
                      }});
    if (auto navigation = navigationController()) {
        navigation->present(alert, true);
    } else if (presenter) {
        presenter->present(alert, true);
    }
}

}  // namespace kelvane
