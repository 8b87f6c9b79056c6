#pragma once

#include <kelvane/platform/ViewSystem.hpp>

#include <map>
#include <memory>
#include <string>
#include <vector>

typedef struct _GtkWidget GtkWidget;

namespace kelvane::gtk {

class DesktopWindow;

// Screens in GTK windows. A window shows its root screen; a presented screen covers its
// presenter's window (a modal layer that takes all input, as a full-screen presentation does),
// an alert is a card over such a layer, and a pushed screen becomes the visible page of its
// navigation stack. The app is one window scene whose windows are the opened ones, the last
// opened being the key window. Main thread only.
class DesktopViewSystem final : public platform::ViewSystem,
                                public std::enable_shared_from_this<DesktopViewSystem> {
public:
    DesktopViewSystem();
    ~DesktopViewSystem() override;

    // `content`, when given, is the root's view.
    void openWindow(const std::shared_ptr<ViewController>& root, const std::string& title, GtkWidget* content);

    std::vector<std::shared_ptr<platform::Scene>> connectedScenes() const override;
    std::vector<std::shared_ptr<platform::Window>> windows() const override;
    std::shared_ptr<ViewController> presentedViewController(const ViewController& controller) const override;
    std::shared_ptr<NavigationController> navigationController(const ViewController& controller) const override;
    std::shared_ptr<platform::View> loadView(ViewController& controller) override;
    void present(ViewController& presenter, std::shared_ptr<ViewController> presented, bool animated,
                 std::function<void()> completion) override;
    void push(NavigationController& navigation, std::shared_ptr<ViewController> controller, bool animated) override;
    void dismiss(ViewController& controller, bool animated, std::function<void()> completion) override;
    std::shared_ptr<platform::ActivityIndicator> makeActivityIndicator(platform::ActivityIndicatorStyle style) override;

    // Called by a window when the user closed it.
    void windowClosed(DesktopWindow* window);
    bool isKey(const DesktopWindow* window) const;

private:
    struct Presentation {
        std::shared_ptr<ViewController> controller;
        GtkWidget* layer = nullptr;
        DesktopWindow* window = nullptr;
    };

    DesktopWindow* windowOf(const ViewController& controller) const;
    GtkWidget* makeLayer(ViewController& presenter, const std::shared_ptr<ViewController>& presented);
    void takeDown(const ViewController& presenter, bool animated);
    void appear(const std::shared_ptr<ViewController>& controller, bool animated, std::function<void()> completion);

    std::shared_ptr<platform::Scene> scene_;
    std::vector<std::shared_ptr<DesktopWindow>> windows_;
    std::map<const ViewController*, Presentation> presented_;
    std::map<const ViewController*, const ViewController*> presenter_;
    std::map<const ViewController*, std::shared_ptr<NavigationController>> navigation_;
    // Host content waiting for its root screen's view to load, with a reference each.
    std::map<const ViewController*, GtkWidget*> hostContent_;
    // Pushed screens, kept by their stack.
    std::map<const ViewController*, std::vector<std::shared_ptr<ViewController>>> stacks_;
};

}  // namespace kelvane::gtk
