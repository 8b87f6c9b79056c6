#pragma once

#include <kelvane/Json.hpp>
#include <kelvane/KelvaneService.hpp>
#include <kelvane/ViewController.hpp>

#include <memory>
#include <optional>
#include <string>

namespace kelvane {

class CustomSchemeService;

// The one class a host calls. It shows nothing of its own and keeps no delegate: every
// operation takes the host's delegate. Make it with std::make_shared and keep it. Main queue
// only: call it on the main thread, after installing the platform.
class KelvaneApp : public ViewController {
public:
    KelvaneApp();
    ~KelvaneApp() override;

    // Kept for the host; nothing in the library reads or writes it.
    virtual bool isShowing() const { return isShowing_; }
    virtual void setIsShowing(bool value) { isShowing_ = value; }
    // Once true, the push road is closed for the life of this object.
    virtual bool updateAvailable() const { return updateAvailable_; }
    virtual void setUpdateAvailable(bool value) { updateAvailable_ = value; }

    // A transaction message: a dictionary whose "payload" holds the payload's JSON text. Opens
    // the transaction's flow, or tells `with` why not.
    virtual void onPushReceived(const Json& data, std::shared_ptr<KelvaneService> with,
                                std::optional<std::string> encryptionKey);
    // Makes and shows the flow for a parsed payload object.
    virtual void newHandle(const Json& data, std::shared_ptr<KelvaneService> with,
                           std::optional<std::string> encryptionKey);
    // The screen on top, to present on: the first scene's first window's root and what it
    // presents, or else the key window's root.
    virtual std::shared_ptr<ViewController> customView();

    const std::shared_ptr<CustomSchemeService> customSchemeService;

    std::string className() const override { return "KelvaneApp"; }

private:
    bool isShowing_ = false;
    bool updateAvailable_ = false;
};

}  // namespace kelvane
