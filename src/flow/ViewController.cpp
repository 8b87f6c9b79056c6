#include <kelvane/AlertController.hpp>
#include <kelvane/ViewController.hpp>

#include "support/Ports.hpp"

namespace kelvane {

ViewController::~ViewController() = default;
NavigationController::~NavigationController() = default;
AlertController::~AlertController() = default;

std::shared_ptr<platform::View> ViewController::view() {
    loadViewIfNeeded();
    return view_;
}

void ViewController::loadViewIfNeeded() {
    if (view_) return;
    view_ = ports::viewSystem()->loadView(*this);
    viewDidLoad();
}

std::shared_ptr<ViewController> ViewController::presentedViewController() const {
    return ports::viewSystem()->presentedViewController(*this);
}

std::shared_ptr<NavigationController> ViewController::navigationController() const {
    return ports::viewSystem()->navigationController(*this);
}

void ViewController::present(std::shared_ptr<ViewController> controller, bool animated,
                             std::function<void()> completion) {
    ports::viewSystem()->present(*this, std::move(controller), animated, std::move(completion));
}

void ViewController::dismiss(bool animated, std::function<void()> completion) {
    ports::viewSystem()->dismiss(*this, animated, std::move(completion));
}

void NavigationController::pushViewController(std::shared_ptr<ViewController> controller, bool animated) {
    ports::viewSystem()->push(*this, std::move(controller), animated);
}

void AlertController::tap(std::size_t index) {
    if (index >= actions.size()) return;
    auto handler = actions[index].handler;
    dismiss(true);
    if (handler) handler();
}

}  // namespace kelvane
