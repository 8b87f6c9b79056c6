#pragma once

#include <kelvane/platform/Sensors.hpp>

#include <filesystem>
#include <vector>

namespace kelvane::gtk {

// The camera that reads QR codes: a V4L2 device through GStreamer, or, when images are given,
// those PNG files shown in turn as the camera's picture. Either way each picture goes through
// zbar as greyscale, and a detection is delivered when the codes in the picture change, so a
// code held before the camera is one detection. The permission road follows the device
// node: no node means no camera, a node this user may not read and write means access
// denied, and a node that cannot be opened or streamed fails the input. Any thread.
class QrCamera final : public platform::Camera {
public:
    // `device` empty takes the lowest-numbered /dev/videoN present at each use.
    QrCamera(std::vector<std::filesystem::path> images, std::filesystem::path device);

    platform::AuthorizationStatus authorizationStatus() const override;
    // Answers at once, on the caller's thread: there is nobody to ask on the desktop.
    void requestAccess(std::function<void(bool granted)> completion) override;
    bool hasDefaultVideoDevice() const override;
    // A session of its own; sessions made from images each show them from the first.
    std::shared_ptr<platform::CaptureSession> makeSession() override;

private:
    std::filesystem::path device() const;

    std::vector<std::filesystem::path> images_;
    std::filesystem::path device_;
};

}  // namespace kelvane::gtk
