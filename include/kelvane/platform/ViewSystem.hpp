#pragma once

#include <kelvane/Export.hpp>
#include <kelvane/ViewController.hpp>
#include <kelvane/platform/View.hpp>

#include <functional>
#include <memory>
#include <vector>

namespace kelvane::platform {

enum class ActivationState { unattached = -1, foregroundActive = 0, foregroundInactive = 1, background = 2 };

class KELVANE_EXPORT Window {
public:
    virtual ~Window();
    virtual bool isKeyWindow() const = 0;
    virtual std::shared_ptr<ViewController> rootViewController() const = 0;
};

class KELVANE_EXPORT Scene {
public:
    virtual ~Scene();
    // Only window scenes have windows.
    virtual bool isWindowScene() const = 0;
    virtual ActivationState activationState() const = 0;
    // In order.
    virtual std::vector<std::shared_ptr<Window>> windows() const = 0;
};

// Scenes, windows, and putting screens on display. Main queue only; callbacks and lifecycle
// calls come on the main queue.
class KELVANE_EXPORT ViewSystem {
public:
    virtual ~ViewSystem();

    // The app's connected scenes, in whatever order the platform keeps them.
    virtual std::vector<std::shared_ptr<Scene>> connectedScenes() const = 0;
    // All windows of the app.
    virtual std::vector<std::shared_ptr<Window>> windows() const = 0;

    virtual std::shared_ptr<ViewController> presentedViewController(const ViewController& controller) const = 0;
    virtual std::shared_ptr<NavigationController> navigationController(const ViewController& controller) const = 0;

    // Builds the controller's root view, for a storyboard scene with the scene's views,
    // outlets and actions (ViewController::connectOutlet and performAction).
    virtual std::shared_ptr<View> loadView(ViewController& controller) = 0;

    // Shows `presented` over `presenter`'s screen and runs its lifecycle; an AlertController
    // is shown as a dialog.
    virtual void present(ViewController& presenter, std::shared_ptr<ViewController> presented, bool animated,
                         std::function<void()> completion) = 0;
    virtual void push(NavigationController& navigation, std::shared_ptr<ViewController> controller,
                      bool animated) = 0;
    // Dismisses what `controller` presents, or `controller` itself when it presents nothing.
    virtual void dismiss(ViewController& controller, bool animated, std::function<void()> completion) = 0;

    virtual std::shared_ptr<ActivityIndicator> makeActivityIndicator(ActivityIndicatorStyle style) = 0;
};

}  // namespace kelvane::platform
