#pragma once

// The demo's own screen, the root of its window: a title, the "Start verification" button and
// the delegate calls as they arrive. GTK, main thread only.

#include <functional>
#include <string>

typedef struct _GtkWidget GtkWidget;

namespace demo {

class Screen {
public:
    Screen(const std::string& source, std::function<void()> onStart);
    ~Screen();
    Screen(const Screen&) = delete;
    Screen& operator=(const Screen&) = delete;

    // The content to put in the window.
    GtkWidget* widget() const { return root_; }

    void setStarted();
    void addLine(const std::string& line);
    void setVerdict(const std::string& verdict, bool completed);
    // Runs `onClose` when the user closes the window that shows this screen.
    void onWindowClose(std::function<void()> onClose);

    // Runs `then` once the window has drawn its next frame (or, when no frame comes, a little
    // later), so that a screenshot shows what is on the screen now.
    void afterNextFrame(std::function<void()> then);
    // A PNG of the whole window as it was last drawn, by GTK's own renderer; the reason when it
    // failed.
    std::string saveScreenshot(const std::string& path) const;

private:
    GtkWidget* root_;
    GtkWidget* button_;
    GtkWidget* list_;
    GtkWidget* verdict_;
    std::function<void()> onStart_;
    std::function<void()> onClose_;
};

}  // namespace demo
