#pragma once

#include <kelvane/Error.hpp>
#include <kelvane/Export.hpp>
#include <kelvane/Queue.hpp>
#include <kelvane/platform/View.hpp>

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace kelvane::platform {

enum class AuthorizationStatus { notDetermined = 0, restricted = 1, denied = 2, authorized = 3 };

// A camera session that reads QR codes. Any thread.
class KELVANE_EXPORT CaptureSession {
public:
    virtual ~CaptureSession();
    // Makes an input of the default video device and adds it; the error when the input cannot
    // be made (the device is busy or refused).
    virtual std::optional<Error> addDefaultVideoInput() = 0;
    virtual bool canAddMetadataOutput() const = 0;
    // Adds the output for QR codes only. Each detection delivers, on `queue`, one entry per
    // object seen, in order: the code's string value, or nothing for an object without one.
    // The session keeps `onCodes` until it goes away.
    virtual void addMetadataOutput(std::shared_ptr<Queue> queue,
                                   std::function<void(std::vector<std::optional<std::string>>)> onCodes) = 0;
    virtual bool isRunning() const = 0;
    // Blocks until the camera runs; call it off the main queue.
    virtual void startRunning() = 0;
    virtual void stopRunning() = 0;
    // Shows the session's picture, aspect-filled, in `view` over `frame`. Main queue only.
    virtual void attachPreview(std::shared_ptr<View> view, Rect frame) = 0;
};

// The device's camera for video. Any thread.
class KELVANE_EXPORT Camera {
public:
    virtual ~Camera();
    virtual AuthorizationStatus authorizationStatus() const = 0;
    // Asks the user when the answer is not known yet; the answer may come on any thread.
    virtual void requestAccess(std::function<void(bool granted)> completion) = 0;
    // Whether the device has a default video camera at all.
    virtual bool hasDefaultVideoDevice() const = 0;
    virtual std::shared_ptr<CaptureSession> makeSession() = 0;
};

enum class LocationAuthorizationStatus {
    notDetermined = 0,
    restricted = 1,
    denied = 2,
    authorizedAlways = 3,
    authorizedWhenInUse = 4,
};

struct Coordinate {
    double latitude = 0;
    double longitude = 0;
};

// Callbacks of the location manager, on the main queue.
class KELVANE_EXPORT LocationDelegate {
public:
    virtual ~LocationDelegate();
    virtual void didChangeAuthorization(LocationAuthorizationStatus status) = 0;
    virtual void didUpdateLocations(const std::vector<Coordinate>& locations) = 0;
    virtual void didFailWithError(const Error& error) = 0;
};

class KELVANE_EXPORT LocationManager {
public:
    virtual ~LocationManager();
    virtual void setDelegate(std::weak_ptr<LocationDelegate> delegate) = 0;
    // The raw value, so that a value outside the known ones can be told.
    virtual int authorizationStatus() const = 0;
    virtual void requestWhenInUseAuthorization() = 0;
    virtual void startUpdatingLocation() = 0;
    virtual void stopUpdatingLocation() = 0;
};

class KELVANE_EXPORT Location {
public:
    virtual ~Location();
    virtual std::shared_ptr<LocationManager> makeManager() = 0;
};

struct NetworkPath {
    enum class Status { satisfied, unsatisfied, requiresConnection };
    Status status = Status::unsatisfied;
    bool usesWifi = false;
    bool usesCellular = false;
    bool usesWiredEthernet = false;
};

// Watches the device's network path; the handler runs on the queue given to start().
class KELVANE_EXPORT NetworkPathMonitor {
public:
    virtual ~NetworkPathMonitor();
    virtual void setPathUpdateHandler(std::function<void(const NetworkPath&)> handler) = 0;
    virtual void start(std::shared_ptr<Queue> queue) = 0;
    virtual void cancel() = 0;
};

class KELVANE_EXPORT NetworkPaths {
public:
    virtual ~NetworkPaths();
    virtual std::shared_ptr<NetworkPathMonitor> makeMonitor() = 0;
};

}  // namespace kelvane::platform
