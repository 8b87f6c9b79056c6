#include "DesktopFaceVerification.hpp"

#include "GtkViews.hpp"

#include <kelvane/Queue.hpp>
#include <kelvane/platform/Platform.hpp>
#include <kelvane/platform/ViewSystem.hpp>

#include <gtk/gtk.h>

#include <chrono>
#include <vector>

namespace kelvane::gtk {
namespace {

using Status = platform::FaceVerificationStatus;
using namespace std::chrono_literals;

constexpr auto kStep = 250ms;
constexpr platform::Rect kDefaultScreen{0, 0, 390, 844};

const char* const kNoLibrary =
    "Face verification is not available on this desktop: no face-verification library is installed";

Status status(Status::Kind kind) {
    Status made;
    made.kind = kind;
    return made;
}

Status processing(double progress, std::string message) {
    Status made = status(Status::Kind::processing);
    made.progress = progress;
    made.message = std::move(message);
    return made;
}

std::vector<Status> scriptedStatuses() {
    Status success = status(Status::Kind::success);
    success.description = "SuccessResult(scripted session)";
    return {status(Status::Kind::connecting), status(Status::Kind::connected), processing(0.25, "Looking for a face"),
            processing(0.5, "Hold still"), processing(0.75, "Checking"), processing(1.0, "Done"), success};
}

std::vector<Status> missingLibrary() {
    Status error = status(Status::Kind::error);
    error.failureReason = kNoLibrary;
    return {error};
}

// What the scripted session shows: where it is, in words and as a bar.
class ScriptScreen final : public ViewController {
public:
    void viewDidLoad() override {
        GtkWidget* column = gtk_box_new(GTK_ORIENTATION_VERTICAL, 12);
        gtk_widget_set_halign(column, GTK_ALIGN_CENTER);
        gtk_widget_set_valign(column, GTK_ALIGN_CENTER);
        gtk_widget_add_css_class(column, "background");
        GtkWidget* title = gtk_label_new("Face verification (scripted)");
        gtk_widget_add_css_class(title, "title-2");
        label_ = gtk_label_new("");
        bar_ = gtk_progress_bar_new();
        gtk_box_append(GTK_BOX(column), title);
        gtk_box_append(GTK_BOX(column), label_);
        gtk_box_append(GTK_BOX(column), bar_);
        view()->addSubview(std::make_shared<WidgetView>(column, view()->bounds()));
    }

    void show(const Status& status) {
        if (!label_) return;
        const char* words = status.kind == Status::Kind::connecting  ? "Connecting"
                            : status.kind == Status::Kind::connected ? "Connected"
                            : status.kind == Status::Kind::success   ? "Verified"
                                                                     : nullptr;
        gtk_label_set_text(GTK_LABEL(label_), words ? words : status.message.c_str());
        double fraction = status.kind == Status::Kind::success ? 1.0 : status.progress;
        gtk_progress_bar_set_fraction(GTK_PROGRESS_BAR(bar_), fraction);
    }

    std::string className() const override { return "ScriptedFaceVerificationController"; }

private:
    // Owned by the view's widgets, which live as long as this screen's view.
    GtkWidget* label_ = nullptr;
    GtkWidget* bar_ = nullptr;
};

// A session's statuses, played one step apart. The steps keep it alive until its end, as a
// library keeps its session running whoever holds the handle.
class Script : public std::enable_shared_from_this<Script> {
public:
    Script(std::vector<Status> statuses, std::weak_ptr<platform::FaceVerificationPresentationDelegate> delegate,
           std::function<void(const Status&)> onStatus, bool withScreen)
        : statuses_(std::move(statuses)), delegate_(std::move(delegate)), onStatus_(std::move(onStatus)),
          withScreen_(withScreen) {}

    void start() {
        Queue::main()->async([self = shared_from_this()] { self->play(); });
    }

    // Whether it was still running.
    bool end() {
        bool was = running_;
        running_ = false;
        // The callback goes with the session, as a library lets it go.
        onStatus_ = nullptr;
        if (screen_) {
            if (auto delegate = delegate_.lock()) delegate->dismiss(screen_, {});
            screen_.reset();
        }
        return was;
    }

private:
    void play() {
        if (!running_) return;
        if (withScreen_ && !screen_) {
            screen_ = std::make_shared<ScriptScreen>();
            if (auto delegate = delegate_.lock()) delegate->present(screen_, {});
        }
        const Status& current = statuses_[next_++];
        if (screen_) screen_->show(current);
        auto onStatus = onStatus_;
        bool last = next_ == statuses_.size();
        if (last) end();
        if (onStatus) onStatus(current);
        if (!last && running_) {
            Queue::main()->asyncAfter(kStep, [self = shared_from_this()] { self->play(); });
        }
    }

    std::vector<Status> statuses_;
    std::weak_ptr<platform::FaceVerificationPresentationDelegate> delegate_;
    std::function<void(const Status&)> onStatus_;
    bool withScreen_;
    std::shared_ptr<ScriptScreen> screen_;
    bool running_ = true;
    std::size_t next_ = 0;
};

class ScriptSession final : public platform::FaceVerificationSession {
public:
    explicit ScriptSession(std::shared_ptr<Script> script) : script_(std::move(script)) {}
    bool cancel() override { return script_->end(); }

private:
    std::shared_ptr<Script> script_;
};

}  // namespace

std::shared_ptr<platform::FaceVerificationSession> DesktopFaceVerification::launch(
    const URL&, const std::string&, std::weak_ptr<platform::FaceVerificationPresentationDelegate> presentationDelegate,
    std::function<void(const platform::FaceVerificationStatus&)> onStatus) {
    auto script = std::make_shared<Script>(scripted_ ? scriptedStatuses() : missingLibrary(),
                                           std::move(presentationDelegate), std::move(onStatus), scripted_);
    // Statuses come later, as a library's do, so the caller holds its session first.
    script->start();
    return std::make_shared<ScriptSession>(script);
}

platform::Rect DesktopFaceVerification::screenBounds() const {
    auto ports = platform::current();
    if (!ports->viewSystem) return kDefaultScreen;
    for (const auto& window : ports->viewSystem->windows()) {
        if (!window->isKeyWindow()) continue;
        auto root = window->rootViewController();
        if (root && root->isViewLoaded()) return root->view()->bounds();
    }
    return kDefaultScreen;
}

}  // namespace kelvane::gtk
