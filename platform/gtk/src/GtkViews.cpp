#include "GtkViews.hpp"

#include "MainContextQueue.hpp"

#include <gtk/gtk.h>

#include <algorithm>
#include <cstdio>

namespace kelvane::gtk {

void releaseOnMain(void* object) {
    if (!object) return;
    onMainThread([object] { g_object_unref(object); });
}

WidgetView::WidgetView(GtkWidget* content, platform::Rect frame)
    : overlay_(GTK_WIDGET(g_object_ref_sink(gtk_overlay_new()))),
      content_(content ? GTK_WIDGET(g_object_ref_sink(content)) : nullptr),
      frame_(frame) {
    gtk_widget_set_hexpand(overlay_, TRUE);
    gtk_widget_set_vexpand(overlay_, TRUE);
    if (content_) gtk_overlay_set_child(GTK_OVERLAY(overlay_), content_);
}

WidgetView::~WidgetView() {
    releaseOnMain(content_);
    releaseOnMain(overlay_);
}

platform::Rect WidgetView::bounds() const {
    int width = gtk_widget_get_width(overlay_);
    int height = gtk_widget_get_height(overlay_);
    // Before its first layout a view has the frame it was made with.
    if (width <= 0 || height <= 0) return {0, 0, frame_.width, frame_.height};
    return {0, 0, static_cast<double>(width), static_cast<double>(height)};
}

platform::Point WidgetView::center() const {
    if (center_) return *center_;
    return {frame_.x + bounds().width / 2, frame_.y + bounds().height / 2};
}

void WidgetView::setCenter(platform::Point center) {
    center_ = center;
    int width = 0, height = 0;
    gtk_widget_measure(overlay_, GTK_ORIENTATION_HORIZONTAL, -1, nullptr, &width, nullptr, nullptr);
    gtk_widget_measure(overlay_, GTK_ORIENTATION_VERTICAL, -1, nullptr, &height, nullptr, nullptr);
    // Placed by its top-left corner inside the superview, as UIKit places by frame.
    gtk_widget_set_hexpand(overlay_, FALSE);
    gtk_widget_set_vexpand(overlay_, FALSE);
    gtk_widget_set_halign(overlay_, GTK_ALIGN_START);
    gtk_widget_set_valign(overlay_, GTK_ALIGN_START);
    gtk_widget_set_margin_start(overlay_, std::max(0, static_cast<int>(center.x) - width / 2));
    gtk_widget_set_margin_top(overlay_, std::max(0, static_cast<int>(center.y) - height / 2));
}

void WidgetView::addSubview(std::shared_ptr<platform::View> subview) {
    GtkWidget* child = subview ? widgetOf(*subview) : nullptr;
    if (!child) return;
    if (GtkWidget* parent = gtk_widget_get_parent(child); parent != overlay_) {
        if (parent) gtk_widget_unparent(child);
        gtk_overlay_add_overlay(GTK_OVERLAY(overlay_), child);
    }
    // UIKit moves a view added again to the front; the overlay keeps its first place, which
    // is all the library ever asks of it.
    if (std::find(subviews_.begin(), subviews_.end(), subview) == subviews_.end()) subviews_.push_back(subview);
}

IndicatorView::IndicatorView(platform::ActivityIndicatorStyle style)
    : spinner_(gtk_spinner_new()),
      view_(spinner_, {0, 0, style == platform::ActivityIndicatorStyle::large ? 37.0 : 20.0,
                       style == platform::ActivityIndicatorStyle::large ? 37.0 : 20.0}) {
    int side = style == platform::ActivityIndicatorStyle::large ? 37 : 20;
    gtk_widget_set_size_request(spinner_, side, side);
    // An indicator never takes clicks meant for the page under it.
    gtk_widget_set_can_target(view_.widget(), FALSE);
    updateVisibility();
}

IndicatorView::~IndicatorView() { releaseOnMain(style_); }

void IndicatorView::startAnimating() {
    animating_ = true;
    gtk_spinner_start(GTK_SPINNER(spinner_));
    updateVisibility();
}

void IndicatorView::stopAnimating() {
    animating_ = false;
    gtk_spinner_stop(GTK_SPINNER(spinner_));
    updateVisibility();
}

void IndicatorView::setHidesWhenStopped(bool hides) {
    hidesWhenStopped_ = hides;
    updateVisibility();
}

void IndicatorView::updateVisibility() { gtk_widget_set_visible(view_.widget(), animating_ || !hidesWhenStopped_); }

void IndicatorView::setColor(platform::Color color) {
    if (!style_) {
        style_ = gtk_css_provider_new();
        G_GNUC_BEGIN_IGNORE_DEPRECATIONS
        gtk_style_context_add_provider(gtk_widget_get_style_context(spinner_), GTK_STYLE_PROVIDER(style_),
                                       GTK_STYLE_PROVIDER_PRIORITY_APPLICATION);
        G_GNUC_END_IGNORE_DEPRECATIONS
    }
    char css[128];
    std::snprintf(css, sizeof css, "spinner { color: rgba(%d,%d,%d,%.3f); }", static_cast<int>(color.red * 255),
                  static_cast<int>(color.green * 255), static_cast<int>(color.blue * 255), color.alpha);
    gtk_css_provider_load_from_data(GTK_CSS_PROVIDER(style_), css, -1);
}

GtkWidget* widgetOf(const platform::View& view) {
    if (auto* widgetView = dynamic_cast<const WidgetView*>(&view)) return widgetView->widget();
    if (auto* indicator = dynamic_cast<const IndicatorView*>(&view)) return indicator->widget();
    return nullptr;
}

}  // namespace kelvane::gtk
