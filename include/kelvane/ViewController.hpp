#pragma once

#include <kelvane/Export.hpp>

#include <functional>
#include <memory>
#include <string>
#include <string_view>

namespace kelvane {

namespace platform {
class View;
}

class NavigationController;

// A screen. The view system (a platform port) keeps what the platform keeps: which screen
// presents which, which navigation stack holds a screen, and the views on display. It runs
// the lifecycle on the main queue: loadViewIfNeeded (which calls viewDidLoad once), then
// viewWillAppear and viewDidAppear at each appearance. Main queue only.
class KELVANE_EXPORT ViewController : public std::enable_shared_from_this<ViewController> {
public:
    virtual ~ViewController();

    virtual void viewDidLoad() {}
    virtual void viewWillAppear(bool /*animated*/) {}
    virtual void viewDidAppear(bool /*animated*/) {}
    virtual void viewWillDisappear(bool /*animated*/) {}
    virtual void viewDidDisappear(bool /*animated*/) {}

    // The connections of a storyboard scene: while loading the view, the view system hands
    // over the scene's views by outlet name and wires its buttons to actions by name.
    virtual void connectOutlet(std::string_view /*name*/, const std::shared_ptr<platform::View>& /*view*/) {}
    virtual void performAction(std::string_view /*name*/) {}

    // The root view; loads it through the view system on first use.
    std::shared_ptr<platform::View> view();
    bool isViewLoaded() const { return view_ != nullptr; }
    void loadViewIfNeeded();

    std::shared_ptr<ViewController> presentedViewController() const;
    std::shared_ptr<NavigationController> navigationController() const;
    void present(std::shared_ptr<ViewController> controller, bool animated, std::function<void()> completion = {});
    void dismiss(bool animated, std::function<void()> completion = {});

    // Stops interactive dismissal of a presented screen.
    bool isModalInPresentation = false;
    // The scene identifier it was made from, empty for screens made in code.
    std::string storyboardIdentifier;

    // The class's name, as a failed cast reports it.
    virtual std::string className() const { return "UIViewController"; }

private:
    std::shared_ptr<platform::View> view_;
};

class KELVANE_EXPORT NavigationController : public ViewController {
public:
    ~NavigationController() override;
    void pushViewController(std::shared_ptr<ViewController> controller, bool animated);
    std::string className() const override { return "UINavigationController"; }
};

}  // namespace kelvane
