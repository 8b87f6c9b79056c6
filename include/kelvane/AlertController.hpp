#pragma once

#include <kelvane/Export.hpp>
#include <kelvane/ViewController.hpp>

#include <functional>
#include <string>
#include <vector>

namespace kelvane {

// A dialog, shown by presenting it like any screen. The view system shows its actions in
// order; a tap dismisses the dialog and then runs the action's handler, on the main queue.
class KELVANE_EXPORT AlertController : public ViewController {
public:
    enum class Style { actionSheet = 0, alert = 1 };
    enum class ActionStyle { defaultStyle = 0, cancel = 1, destructive = 2 };

    struct Action {
        std::string title;
        ActionStyle style = ActionStyle::defaultStyle;
        std::function<void()> handler;
    };

    AlertController(std::string title, std::string message, Style style)
        : title(std::move(title)), message(std::move(message)), preferredStyle(style) {}
    ~AlertController() override;

    void addAction(Action action) { actions.push_back(std::move(action)); }
    // What the view system calls when the user picks action `index`.
    void tap(std::size_t index);

    std::string className() const override { return "UIAlertController"; }

    std::string title;
    std::string message;
    Style preferredStyle;
    std::vector<Action> actions;
};

}  // namespace kelvane
