#include "Screen.hpp"

#include <gtk/gtk.h>

namespace demo {

namespace {
GtkWidget* label(const std::string& text, const char* cssClass) {
    GtkWidget* widget = gtk_label_new(text.c_str());
    gtk_label_set_wrap(GTK_LABEL(widget), TRUE);
    gtk_label_set_wrap_mode(GTK_LABEL(widget), PANGO_WRAP_WORD_CHAR);
    gtk_label_set_xalign(GTK_LABEL(widget), 0);
    if (cssClass) gtk_widget_add_css_class(widget, cssClass);
    return widget;
}
}  // namespace

Screen::Screen(const std::string& source, std::function<void()> onStart) : onStart_(std::move(onStart)) {
    root_ = GTK_WIDGET(g_object_ref_sink(gtk_box_new(GTK_ORIENTATION_VERTICAL, 12)));
    for (auto side : {&gtk_widget_set_margin_start, &gtk_widget_set_margin_end, &gtk_widget_set_margin_top,
                      &gtk_widget_set_margin_bottom}) {
        side(root_, 16);
    }
    gtk_box_append(GTK_BOX(root_), label("Kelvane demo", "title-1"));
    gtk_box_append(GTK_BOX(root_), label(source, "dim-label"));

    button_ = gtk_button_new_with_label("Start verification");
    gtk_widget_add_css_class(button_, "suggested-action");
    g_signal_connect(button_, "clicked", G_CALLBACK(+[](GtkButton*, gpointer data) {
                         auto* self = static_cast<Screen*>(data);
                         if (self->onStart_) self->onStart_();
                     }),
                     this);
    gtk_box_append(GTK_BOX(root_), button_);

    gtk_box_append(GTK_BOX(root_), label("Delegate calls", "heading"));
    list_ = gtk_box_new(GTK_ORIENTATION_VERTICAL, 4);
    GtkWidget* scroller = gtk_scrolled_window_new();
    gtk_scrolled_window_set_child(GTK_SCROLLED_WINDOW(scroller), list_);
    gtk_scrolled_window_set_policy(GTK_SCROLLED_WINDOW(scroller), GTK_POLICY_NEVER, GTK_POLICY_AUTOMATIC);
    gtk_widget_set_vexpand(scroller, TRUE);
    gtk_box_append(GTK_BOX(root_), scroller);

    verdict_ = label("", "title-4");
    gtk_box_append(GTK_BOX(root_), verdict_);
}

Screen::~Screen() {
    g_signal_handlers_disconnect_by_data(button_, this);
    if (GtkRoot* window = gtk_widget_get_root(root_)) g_signal_handlers_disconnect_by_data(window, this);
    g_object_unref(root_);
}

void Screen::setStarted() {
    gtk_widget_set_sensitive(button_, FALSE);
    gtk_button_set_label(GTK_BUTTON(button_), "Verification started");
}

void Screen::addLine(const std::string& line) { gtk_box_append(GTK_BOX(list_), label(line, "monospace")); }

void Screen::setVerdict(const std::string& verdict, bool completed) {
    gtk_widget_set_sensitive(button_, FALSE);
    gtk_label_set_text(GTK_LABEL(verdict_), verdict.c_str());
    gtk_widget_add_css_class(verdict_, completed ? "success" : "error");
}

void Screen::onWindowClose(std::function<void()> onClose) {
    onClose_ = std::move(onClose);
    GtkRoot* window = gtk_widget_get_root(root_);
    if (!window) return;
    g_signal_connect(window, "close-request", G_CALLBACK(+[](GtkWindow*, gpointer data) -> gboolean {
                         auto* self = static_cast<Screen*>(data);
                         if (self->onClose_) self->onClose_();
                         return FALSE;
                     }),
                     this);
}

void Screen::afterNextFrame(std::function<void()> then) {
    struct Pending {
        std::function<void()> then;
        GdkFrameClock* clock = nullptr;
        gulong painted = 0;
        guint fallback = 0;
        // Runs once, from whichever comes first.
        static void run(Pending* pending) {
            if (pending->painted) g_signal_handler_disconnect(pending->clock, pending->painted);
            if (pending->fallback) g_source_remove(pending->fallback);
            auto then = std::move(pending->then);
            delete pending;
            then();
        }
    };
    auto* pending = new Pending{std::move(then)};
    GtkWidget* window = GTK_WIDGET(gtk_widget_get_root(root_));
    pending->clock = window ? gtk_widget_get_frame_clock(window) : nullptr;
    if (pending->clock) {
        pending->painted = g_signal_connect_swapped(pending->clock, "after-paint", G_CALLBACK(+[](Pending* p) {
                                                        Pending::run(p);
                                                    }),
                                                    pending);
        gtk_widget_queue_draw(window);
    }
    pending->fallback = g_timeout_add(500, +[](gpointer data) -> gboolean {
        auto* p = static_cast<Pending*>(data);
        p->fallback = 0;
        Pending::run(p);
        return G_SOURCE_REMOVE;
    }, pending);
}

std::string Screen::saveScreenshot(const std::string& path) const {
    auto* window = GTK_WIDGET(gtk_widget_get_root(root_));
    if (!window) return "the screen is in no window";
    // The window's content as it was last drawn (a widget paintable has nothing before its
    // next frame, and the window itself none).
    GtkWidget* content = gtk_window_get_child(GTK_WINDOW(window));
    if (!content) return "the window is empty";
    int width = gtk_widget_get_width(content), height = gtk_widget_get_height(content);
    if (width <= 0 || height <= 0) return "the window has not been drawn yet";
    GtkSnapshot* snapshot = gtk_snapshot_new();
    gtk_widget_snapshot_child(window, content, snapshot);
    GskRenderNode* node = gtk_snapshot_free_to_node(snapshot);
    if (!node) return "the window drew nothing";
    GskRenderer* renderer = gtk_native_get_renderer(GTK_NATIVE(window));
    graphene_rect_t bounds = GRAPHENE_RECT_INIT(0, 0, static_cast<float>(width), static_cast<float>(height));
    GdkTexture* texture = gsk_renderer_render_texture(renderer, node, &bounds);
    gsk_render_node_unref(node);
    bool saved = texture && gdk_texture_save_to_png(texture, path.c_str());
    if (texture) g_object_unref(texture);
    return saved ? "" : "the PNG could not be written";
}

}  // namespace demo
