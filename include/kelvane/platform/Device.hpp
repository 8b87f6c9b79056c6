#pragma once

#include <kelvane/Export.hpp>

#include <optional>
#include <string>

namespace kelvane::platform {

// Facts of the device and of the build. Any thread.
class KELVANE_EXPORT Device {
public:
    virtual ~Device();
    virtual std::string model() const = 0;
    virtual std::string systemName() const = 0;
    virtual std::string systemVersion() const = 0;
    // A stable identifier of this app's vendor on this device, when there is one.
    virtual std::optional<std::string> identifierForVendor() const = 0;
    // A build for a simulator rather than a device.
    virtual bool isSimulator() const = 0;
    // Whether the system offers passkeys (the platform's version gate).
    virtual bool supportsPasskeys() const = 0;
};

// The host app's bundle. Any thread.
class KELVANE_EXPORT Bundle {
public:
    virtual ~Bundle();
    virtual std::optional<std::string> bundleIdentifier() const = 0;
    // "CFBundleShortVersionString", when the bundle states it.
    virtual std::optional<std::string> shortVersion() const = 0;
};

}  // namespace kelvane::platform
