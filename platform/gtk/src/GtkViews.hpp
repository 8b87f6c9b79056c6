#pragma once

#include <kelvane/platform/View.hpp>

#include <memory>
#include <optional>
#include <vector>

typedef struct _GtkWidget GtkWidget;

namespace kelvane::gtk {

// A platform view on a GtkOverlay: its content (if any) is the overlay's child, and subviews
// are stacked over it in the order they were added, filling it unless given a center. Main
// thread only.
class WidgetView : public platform::View {
public:
    // Takes a reference to `content`, which may be null.
    WidgetView(GtkWidget* content, platform::Rect frame);
    ~WidgetView() override;
    WidgetView(const WidgetView&) = delete;
    WidgetView& operator=(const WidgetView&) = delete;

    // The widget that goes into a parent.
    GtkWidget* widget() const { return overlay_; }
    GtkWidget* content() const { return content_; }

    platform::Rect bounds() const override;
    platform::Point center() const override;
    void setCenter(platform::Point center) override;
    void addSubview(std::shared_ptr<platform::View> subview) override;
    // Keeps a view that lies inside this one's content, as a superview keeps its subviews.
    void retain(std::shared_ptr<platform::View> view) { subviews_.push_back(std::move(view)); }

private:
    GtkWidget* overlay_;
    GtkWidget* content_;
    platform::Rect frame_;
    std::optional<platform::Point> center_;
    // A superview keeps its subviews.
    std::vector<std::shared_ptr<platform::View>> subviews_;
};

// The spinner over a page, on a GtkSpinner.
class IndicatorView final : public platform::ActivityIndicator {
public:
    explicit IndicatorView(platform::ActivityIndicatorStyle style);
    ~IndicatorView() override;

    GtkWidget* widget() const { return view_.widget(); }

    platform::Rect bounds() const override { return view_.bounds(); }
    platform::Point center() const override { return view_.center(); }
    void setCenter(platform::Point center) override { view_.setCenter(center); }
    void addSubview(std::shared_ptr<platform::View> subview) override { view_.addSubview(std::move(subview)); }
    void startAnimating() override;
    void stopAnimating() override;
    bool isAnimating() const override { return animating_; }
    void setHidesWhenStopped(bool hides) override;
    void setColor(platform::Color color) override;

private:
    void updateVisibility();

    GtkWidget* spinner_;
    WidgetView view_;
    bool animating_ = false;
    bool hidesWhenStopped_ = true;
    void* style_ = nullptr;  // the GtkCssProvider of the colour
};

// The GTK widget behind a view of this platform, or null for a view of another.
GtkWidget* widgetOf(const platform::View& view);

// Drops a reference to a GObject on the main thread, where GTK objects must die. Any thread.
void releaseOnMain(void* object);

}  // namespace kelvane::gtk
