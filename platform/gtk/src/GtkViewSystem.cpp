#include "GtkViewSystem.hpp"

#include "GtkViews.hpp"

#include <kelvane/AlertController.hpp>
#include <kelvane/Log.hpp>
#include <kelvane/Queue.hpp>

#include <gtk/gtk.h>

#include <algorithm>

namespace kelvane::gtk {

namespace {
// A phone's screen in points: pages lay out as they do on the devices they were made for.
constexpr platform::Rect kScreen{0, 0, 390, 844};

template <class T>
void deleteBoxed(gpointer data, GClosure*) {
    delete static_cast<T*>(data);
}

using WeakController = std::weak_ptr<ViewController>;

struct Tap {
    std::weak_ptr<AlertController> alert;
    std::size_t index;
};

GtkWidget* label(const std::string& text, const char* cssClass) {
    GtkWidget* widget = gtk_label_new(text.c_str());
    gtk_label_set_wrap(GTK_LABEL(widget), TRUE);
    gtk_label_set_justify(GTK_LABEL(widget), GTK_JUSTIFY_CENTER);
    if (cssClass) gtk_widget_add_css_class(widget, cssClass);
    return widget;
}

// The card of an alert over a layer that takes every click meant for the screen below.
GtkWidget* alertContent(AlertController& alert) {
    GtkWidget* layer = gtk_box_new(GTK_ORIENTATION_VERTICAL, 0);
    GtkWidget* card = gtk_box_new(GTK_ORIENTATION_VERTICAL, 12);
    gtk_widget_add_css_class(card, "background");
    gtk_widget_add_css_class(card, "alert");
    gtk_widget_set_halign(card, GTK_ALIGN_CENTER);
    gtk_widget_set_valign(card, GTK_ALIGN_CENTER);
    gtk_widget_set_hexpand(card, TRUE);
    gtk_widget_set_vexpand(card, TRUE);
    for (auto side : {&gtk_widget_set_margin_start, &gtk_widget_set_margin_end}) side(card, 24);
    if (!alert.title.empty()) gtk_box_append(GTK_BOX(card), label(alert.title, "title-4"));
    if (!alert.message.empty()) gtk_box_append(GTK_BOX(card), label(alert.message, nullptr));
    GtkWidget* buttons = gtk_box_new(alert.actions.size() > 2 ? GTK_ORIENTATION_VERTICAL : GTK_ORIENTATION_HORIZONTAL, 6);
    gtk_box_set_homogeneous(GTK_BOX(buttons), TRUE);
    auto self = std::static_pointer_cast<AlertController>(alert.shared_from_this());
    for (std::size_t index = 0; index < alert.actions.size(); ++index) {
        GtkWidget* button = gtk_button_new_with_label(alert.actions[index].title.c_str());
        g_signal_connect_data(button, "clicked", G_CALLBACK(+[](GtkButton*, gpointer data) {
                                  auto* tap = static_cast<Tap*>(data);
                                  if (auto target = tap->alert.lock()) target->tap(tap->index);
                              }),
                              new Tap{self, index}, deleteBoxed<Tap>, GConnectFlags(0));
        gtk_box_append(GTK_BOX(buttons), button);
    }
    gtk_box_append(GTK_BOX(card), buttons);
    gtk_box_append(GTK_BOX(layer), card);
    return layer;
}

}  // namespace

// A window showing one root screen, with the presented layers stacked over it.
class DesktopWindow final : public platform::Window {
public:
    DesktopWindow(std::weak_ptr<DesktopViewSystem> system, std::shared_ptr<ViewController> root,
                  const std::string& title)
        : system_(std::move(system)), root_(std::move(root)) {
        window_ = GTK_WIDGET(g_object_ref(gtk_window_new()));
        gtk_window_set_title(GTK_WINDOW(window_), title.c_str());
        gtk_window_set_default_size(GTK_WINDOW(window_), static_cast<int>(kScreen.width),
                                    static_cast<int>(kScreen.height));
        stage_ = gtk_overlay_new();
        gtk_window_set_child(GTK_WINDOW(window_), stage_);
        if (GtkWidget* content = widgetOf(*root_->view())) gtk_overlay_set_child(GTK_OVERLAY(stage_), content);
        g_signal_connect(window_, "close-request", G_CALLBACK(+[](GtkWindow*, gpointer data) -> gboolean {
                             auto* self = static_cast<DesktopWindow*>(data);
                             if (auto system = self->system_.lock()) system->windowClosed(self);
                             return FALSE;
                         }),
                         this);
    }
    ~DesktopWindow() override {
        g_signal_handlers_disconnect_by_data(window_, this);
        gtk_window_destroy(GTK_WINDOW(window_));
        releaseOnMain(window_);
    }

    bool isKeyWindow() const override {
        auto system = system_.lock();
        return system && system->isKey(this);
    }
    std::shared_ptr<ViewController> rootViewController() const override { return root_; }

    GtkWidget* window() const { return window_; }
    GtkWidget* stage() const { return stage_; }
    const ViewController* root() const { return root_.get(); }

private:
    std::weak_ptr<DesktopViewSystem> system_;
    std::shared_ptr<ViewController> root_;
    GtkWidget* window_;
    GtkWidget* stage_;
};

namespace {

// The app: one window scene, active while one of its windows has the focus.
class DesktopScene final : public platform::Scene {
public:
    explicit DesktopScene(std::weak_ptr<DesktopViewSystem> system) : system_(std::move(system)) {}
    bool isWindowScene() const override { return true; }
    platform::ActivationState activationState() const override {
        auto system = system_.lock();
        if (!system) return platform::ActivationState::unattached;
        auto windows = system->windows();
        if (windows.empty()) return platform::ActivationState::background;
        for (const auto& window : windows) {
            if (gtk_window_is_active(GTK_WINDOW(static_cast<DesktopWindow&>(*window).window()))) {
                return platform::ActivationState::foregroundActive;
            }
        }
        return platform::ActivationState::foregroundInactive;
    }
    std::vector<std::shared_ptr<platform::Window>> windows() const override {
        auto system = system_.lock();
        return system ? system->windows() : std::vector<std::shared_ptr<platform::Window>>{};
    }

private:
    std::weak_ptr<DesktopViewSystem> system_;
};

}  // namespace

DesktopViewSystem::DesktopViewSystem() = default;

DesktopViewSystem::~DesktopViewSystem() {
    for (const auto& [root, content] : hostContent_) releaseOnMain(content);
}

void DesktopViewSystem::openWindow(const std::shared_ptr<ViewController>& root, const std::string& title,
                                   GtkWidget* content) {
    if (!root) return;
    if (content && !root->isViewLoaded()) hostContent_[root.get()] = GTK_WIDGET(g_object_ref_sink(content));
    if (!scene_) scene_ = std::make_shared<DesktopScene>(weak_from_this());
    auto window = std::make_shared<DesktopWindow>(weak_from_this(), root, title);
    windows_.push_back(window);
    gtk_window_present(GTK_WINDOW(window->window()));
    appear(root, false, {});
}

std::vector<std::shared_ptr<platform::Scene>> DesktopViewSystem::connectedScenes() const {
    if (!scene_) return {};
    return {scene_};
}

std::vector<std::shared_ptr<platform::Window>> DesktopViewSystem::windows() const {
    return {windows_.begin(), windows_.end()};
}

bool DesktopViewSystem::isKey(const DesktopWindow* window) const {
    for (const auto& candidate : windows_) {
        if (gtk_window_is_active(GTK_WINDOW(candidate->window()))) return candidate.get() == window;
    }
    return !windows_.empty() && windows_.back().get() == window;
}

void DesktopViewSystem::windowClosed(DesktopWindow* window) {
    std::vector<const ViewController*> presenters;
    for (const auto& [presenter, presentation] : presented_) {
        if (presentation.window == window) presenters.push_back(presenter);
    }
    for (const auto* presenter : presenters) takeDown(*presenter, false);
    auto found = std::find_if(windows_.begin(), windows_.end(), [&](const auto& w) { return w.get() == window; });
    if (found == windows_.end()) return;
    // The window object goes once GTK is done with the signal that closed it.
    auto closing = *found;
    windows_.erase(found);
    Queue::main()->async([closing] {});
}

std::shared_ptr<ViewController> DesktopViewSystem::presentedViewController(const ViewController& controller) const {
    auto found = presented_.find(&controller);
    return found == presented_.end() ? nullptr : found->second.controller;
}

std::shared_ptr<NavigationController> DesktopViewSystem::navigationController(const ViewController& controller) const {
    auto found = navigation_.find(&controller);
    return found == navigation_.end() ? nullptr : found->second;
}

DesktopWindow* DesktopViewSystem::windowOf(const ViewController& controller) const {
    for (const auto& window : windows_) {
        if (window->root() == &controller) return window.get();
    }
    if (auto by = presenter_.find(&controller); by != presenter_.end()) {
        auto presentation = presented_.find(by->second);
        if (presentation != presented_.end()) return presentation->second.window;
    }
    if (auto stack = navigation_.find(&controller); stack != navigation_.end()) return windowOf(*stack->second);
    return nullptr;
}

std::shared_ptr<platform::View> DesktopViewSystem::loadView(ViewController& controller) {
    if (dynamic_cast<NavigationController*>(&controller)) {
        return std::make_shared<WidgetView>(gtk_stack_new(), kScreen);
    }
    if (auto* alert = dynamic_cast<AlertController*>(&controller)) {
        return std::make_shared<WidgetView>(alertContent(*alert), kScreen);
    }
    if (auto host = hostContent_.find(&controller); host != hostContent_.end()) {
        auto view = std::make_shared<WidgetView>(host->second, kScreen);
        g_object_unref(host->second);
        hostContent_.erase(host);
        return view;
    }
    // The storyboard's two scenes: a content view under its outlet, and the exit button.
    const char* outlet = controller.storyboardIdentifier == "WebViewController"     ? "appWeb"
                         : controller.storyboardIdentifier == "QRScannerController" ? "yourCameraView"
                                                                                    : nullptr;
    if (!outlet) return std::make_shared<WidgetView>(nullptr, kScreen);

    GtkWidget* column = gtk_box_new(GTK_ORIENTATION_VERTICAL, 0);
    GtkWidget* bar = gtk_box_new(GTK_ORIENTATION_HORIZONTAL, 0);
    GtkWidget* exit = gtk_button_new_with_label("Exit");
    gtk_widget_set_name(exit, "exit");
    gtk_widget_set_hexpand(exit, TRUE);
    gtk_widget_set_halign(exit, GTK_ALIGN_END);
    gtk_widget_set_margin_end(exit, 8);
    gtk_widget_set_margin_top(exit, 4);
    gtk_widget_set_margin_bottom(exit, 4);
    g_signal_connect_data(exit, "clicked", G_CALLBACK(+[](GtkButton*, gpointer data) {
                              if (auto target = static_cast<WeakController*>(data)->lock()) {
                                  target->performAction("exit");
                              }
                          }),
                          new WeakController(controller.weak_from_this()), deleteBoxed<WeakController>,
                          GConnectFlags(0));
    gtk_box_append(GTK_BOX(bar), exit);
    gtk_box_append(GTK_BOX(column), bar);
    auto content = std::make_shared<WidgetView>(nullptr, kScreen);
    gtk_widget_set_name(content->widget(), outlet);
    gtk_box_append(GTK_BOX(column), content->widget());
    auto root = std::make_shared<WidgetView>(column, kScreen);
    root->retain(content);
    controller.connectOutlet(outlet, content);
    return root;
}

void DesktopViewSystem::appear(const std::shared_ptr<ViewController>& controller, bool animated,
                               std::function<void()> completion) {
    std::weak_ptr<ViewController> weak = controller;
    Queue::main()->async([weak, animated, completion = std::move(completion)] {
        if (auto shown = weak.lock()) {
            shown->loadViewIfNeeded();
            shown->viewWillAppear(animated);
            shown->viewDidAppear(animated);
        }
        if (completion) completion();
    });
}

GtkWidget* DesktopViewSystem::makeLayer(ViewController& presenter, const std::shared_ptr<ViewController>& presented) {
    GtkWidget* layer = widgetOf(*presented->view());
    if (dynamic_cast<AlertController*>(presented.get())) return layer;
    gtk_widget_add_css_class(layer, "background");
    // Escape is the desktop's interactive dismissal, which a modal screen refuses.
    struct Escape {
        std::weak_ptr<DesktopViewSystem> system;
        WeakController presenter, presented;
    };
    GtkEventController* keys = gtk_event_controller_key_new();
    g_signal_connect_data(keys, "key-pressed",
                          G_CALLBACK(+[](GtkEventControllerKey*, guint key, guint, GdkModifierType, gpointer data) -> gboolean {
                              if (key != GDK_KEY_Escape) return FALSE;
                              auto* escape = static_cast<Escape*>(data);
                              auto system = escape->system.lock();
                              auto presenter = escape->presenter.lock();
                              auto presented = escape->presented.lock();
                              if (!system || !presenter || !presented || presented->isModalInPresentation) {
                                  return TRUE;
                              }
                              system->dismiss(*presenter, true, {});
                              return TRUE;
                          }),
                          new Escape{weak_from_this(), presenter.weak_from_this(), presented},
                          deleteBoxed<Escape>, GConnectFlags(0));
    gtk_widget_add_controller(layer, keys);
    return layer;
}

void DesktopViewSystem::present(ViewController& presenter, std::shared_ptr<ViewController> presented, bool animated,
                                std::function<void()> completion) {
    if (!presented) return;
    DesktopWindow* window = windowOf(presenter);
    if (!window || presented_.count(&presenter)) {
        logLine("Attempt to present " + presented->className() + " on " + presenter.className() +
                (window ? " which is already presenting" : " whose view is not in the window hierarchy."));
        return;
    }
    GtkWidget* layer = makeLayer(presenter, presented);
    if (gtk_widget_get_parent(layer)) gtk_widget_unparent(layer);
    gtk_overlay_add_overlay(GTK_OVERLAY(window->stage()), layer);
    gtk_widget_grab_focus(layer);
    presented_[&presenter] = {presented, layer, window};
    presenter_[presented.get()] = &presenter;
    appear(presented, animated, std::move(completion));
}

void DesktopViewSystem::push(NavigationController& navigation, std::shared_ptr<ViewController> controller,
                             bool animated) {
    if (!controller) return;
    auto* stackView = dynamic_cast<WidgetView*>(navigation.view().get());
    if (!stackView || !GTK_IS_STACK(stackView->content())) return;
    GtkWidget* page = widgetOf(*controller->view());
    if (gtk_widget_get_parent(page)) gtk_widget_unparent(page);
    gtk_stack_add_child(GTK_STACK(stackView->content()), page);
    gtk_stack_set_visible_child(GTK_STACK(stackView->content()), page);
    navigation_[controller.get()] = std::static_pointer_cast<NavigationController>(navigation.shared_from_this());
    stacks_[&navigation].push_back(controller);
    appear(controller, animated, {});
}

void DesktopViewSystem::takeDown(const ViewController& presenter, bool animated) {
    auto found = presented_.find(&presenter);
    if (found == presented_.end()) return;
    Presentation presentation = found->second;
    // What the presented screen presents goes first, as UIKit takes a stack down.
    takeDown(*presentation.controller, animated);
    presentation.controller->viewWillDisappear(animated);
    gtk_overlay_remove_overlay(GTK_OVERLAY(presentation.window->stage()), presentation.layer);
    presented_.erase(&presenter);
    presenter_.erase(presentation.controller.get());
    presentation.controller->viewDidDisappear(animated);
}

void DesktopViewSystem::dismiss(ViewController& controller, bool animated, std::function<void()> completion) {
    const ViewController* presenter = nullptr;
    if (presented_.count(&controller)) {
        presenter = &controller;
    } else if (auto by = presenter_.find(&controller); by != presenter_.end()) {
        presenter = by->second;
    }
    if (presenter) takeDown(*presenter, animated);
    if (completion) Queue::main()->async(std::move(completion));
}

std::shared_ptr<platform::ActivityIndicator> DesktopViewSystem::makeActivityIndicator(
    platform::ActivityIndicatorStyle style) {
    return std::make_shared<IndicatorView>(style);
}

}  // namespace kelvane::gtk
