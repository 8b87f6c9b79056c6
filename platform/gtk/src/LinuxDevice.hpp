#pragma once

#include <kelvane/platform/Device.hpp>

#include <string>

namespace kelvane::gtk {

// The machine: its model from DMI, the system from os-release, and a vendor identifier made
// from /etc/machine-id and the bundle identifier, so that it is stable across runs and
// differs per app. Read once. Any thread.
class LinuxDevice final : public platform::Device {
public:
    explicit LinuxDevice(const std::string& bundleIdentifier);

    std::string model() const override { return model_; }
    std::string systemName() const override { return systemName_; }
    std::string systemVersion() const override { return systemVersion_; }
    std::optional<std::string> identifierForVendor() const override { return vendor_; }
    bool isSimulator() const override { return false; }
    // The software platform authenticator and libfido2 are always there.
    bool supportsPasskeys() const override { return true; }

private:
    std::string model_;
    std::string systemName_;
    std::string systemVersion_;
    std::optional<std::string> vendor_;
};

class FixedBundle final : public platform::Bundle {
public:
    FixedBundle(std::string identifier, std::string version)
        : identifier_(std::move(identifier)), version_(std::move(version)) {}
    std::optional<std::string> bundleIdentifier() const override { return identifier_; }
    std::optional<std::string> shortVersion() const override { return version_; }

private:
    std::string identifier_;
    std::string version_;
};

// The vendor identifier for a machine id and a bundle identifier: a name-based UUID
// (version 5 layout over SHA-256), upper case as the phones write it.
std::string vendorIdentifier(const std::string& machineId, const std::string& bundleIdentifier);

}  // namespace kelvane::gtk
