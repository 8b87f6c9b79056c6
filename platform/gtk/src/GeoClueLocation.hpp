#pragma once

#include <kelvane/platform/Sensors.hpp>

#include <atomic>
#include <chrono>
#include <memory>
#include <string>

namespace kelvane::gtk {

// How long GeoClue may take: each D-Bus call, and everything from a request to its position.
struct GeoClueBounds {
    std::chrono::milliseconds call{5000};
    std::chrono::milliseconds reading{30000};
};

// Positions from GeoClue 2 over D-Bus, each manager on its own connection to GeoClue's bus.
//
// GeoClue decides whether an app may be located only when the app starts a client, so the
// status is notDetermined until GeoClue has been asked once. Asking starts a client: started
// means authorizedWhenInUse; AccessDenied (the configuration or the user's agent refused the
// desktop id) means denied. Where GeoClue cannot be reached the status stays as it was and the
// delegate gets didFailWithError, so that the caller answers with the reason.
//
// startUpdatingLocation gives one reading, then stops the client. Every D-Bus call and the
// wait for a position are bounded; a bound that passes is a failure too. Callbacks come on
// the main thread; the operations may be called on any thread, and their work runs there.
class GeoClueLocation final : public platform::Location {
public:
    using Bounds = GeoClueBounds;

    // `desktopId` names the app to GeoClue's configuration and agent (the name of its .desktop
    // file without the suffix). `busAddress` is the bus GeoClue runs on: the system bus when
    // empty.
    explicit GeoClueLocation(std::string desktopId, std::string busAddress = {}, Bounds bounds = {});

    std::shared_ptr<platform::LocationManager> makeManager() override;

    struct Settings {
        std::string desktopId;
        std::string busAddress;
        Bounds bounds;
        // What GeoClue last said about this app, for all managers: the answer of a class-wide
        // status query.
        std::atomic<int> status{static_cast<int>(platform::LocationAuthorizationStatus::notDetermined)};
    };

private:
    std::shared_ptr<Settings> settings_;
};

}  // namespace kelvane::gtk
