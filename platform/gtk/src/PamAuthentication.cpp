#include "PamAuthentication.hpp"

#include "MainContextQueue.hpp"

#include <gtk/gtk.h>
#include <security/pam_appl.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <pwd.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace kelvane::gtk {

namespace {

constexpr int kAuthenticationFailed = -1;
constexpr int kUserCancel = -2;
constexpr int kSystemCancel = -4;
constexpr int kPasscodeNotSet = -5;
constexpr int kBiometryNotAvailable = -6;
constexpr int kLockout = -8;
constexpr int kNotInteractive = -1004;

constexpr const char* kDialogName = "kelvane-password-dialog";
constexpr const char* kPromptKey = "kelvane-prompt";

enum class Verdict { accepted, wrongPassword, tooManyTries, noPassword, refused, pamFailed };

std::string loggedInUser() {
    std::vector<char> buffer(16384);
    passwd entry{};
    passwd* found = nullptr;
    if (getpwuid_r(getuid(), &entry, buffer.data(), buffer.size(), &found) == 0 && found) return found->pw_name;
    return g_get_user_name();
}

// Where Linux-PAM looks for a service's file. A test run under pam_wrapper reads its service
// files from the folder it names instead.
bool serviceConfigured(const std::string& service) {
    if (service.empty() || service.find('/') != std::string::npos) return false;
    std::vector<std::filesystem::path> folders{"/etc/pam.d", "/usr/lib/pam.d"};
    const char* wrapped = std::getenv("PAM_WRAPPER");
    const char* wrapperFolder = std::getenv("PAM_WRAPPER_SERVICE_DIR");
    if (wrapped && std::string(wrapped) == "1" && wrapperFolder) folders = {wrapperFolder};
    std::error_code ignored;
    for (const auto& folder : folders) {
        if (std::filesystem::is_regular_file(folder / service, ignored)) return true;
    }
    return false;
}

struct Conversation {
    const std::string* user;
    const std::string* password;
};

int converse(int count, const pam_message** messages, pam_response** responses, void* data) {
    if (count <= 0) return PAM_CONV_ERR;
    const auto* conversation = static_cast<const Conversation*>(data);
    auto* answers = static_cast<pam_response*>(std::calloc(static_cast<std::size_t>(count), sizeof(pam_response)));
    if (!answers) return PAM_BUF_ERR;
    for (int i = 0; i < count; ++i) {
        switch (messages[i]->msg_style) {
            case PAM_PROMPT_ECHO_OFF: answers[i].resp = strdup(conversation->password->c_str()); break;
            // A prompt that echoes asks who is logging in.
            case PAM_PROMPT_ECHO_ON: answers[i].resp = strdup(conversation->user->c_str()); break;
            case PAM_ERROR_MSG:
            case PAM_TEXT_INFO: break;
            default:
                for (int j = 0; j < i; ++j) std::free(answers[j].resp);
                std::free(answers);
                return PAM_CONV_ERR;
        }
    }
    *responses = answers;
    return PAM_SUCCESS;
}

// Blocks while PAM's modules run; never on the main thread.
Verdict checkPassword(const std::string& service, const std::string& user, const std::string& password) {
    Conversation conversation{&user, &password};
    pam_conv conv{converse, &conversation};
    pam_handle_t* handle = nullptr;
    if (pam_start(service.c_str(), user.c_str(), &conv, &handle) != PAM_SUCCESS) return Verdict::pamFailed;
    int result = pam_authenticate(handle, 0);
    Verdict verdict;
    switch (result) {
        case PAM_SUCCESS: {
            result = pam_acct_mgmt(handle, 0);
            switch (result) {
                case PAM_SUCCESS: verdict = Verdict::accepted; break;
                case PAM_NEW_AUTHTOK_REQD: verdict = Verdict::noPassword; break;
                case PAM_ACCT_EXPIRED:
                case PAM_AUTH_ERR:
                case PAM_PERM_DENIED:
                case PAM_USER_UNKNOWN: verdict = Verdict::refused; break;
                default: verdict = Verdict::pamFailed;
            }
            break;
        }
        case PAM_AUTH_ERR:
        case PAM_CRED_INSUFFICIENT:
        case PAM_PERM_DENIED: verdict = Verdict::wrongPassword; break;
        case PAM_MAXTRIES: verdict = Verdict::tooManyTries; break;
        case PAM_USER_UNKNOWN:
        case PAM_AUTHINFO_UNAVAIL: verdict = Verdict::noPassword; break;
        default: verdict = Verdict::pamFailed;
    }
    pam_end(handle, result);
    return verdict;
}

void wipe(std::string& secret) {
    explicit_bzero(secret.data(), secret.size());
    secret.clear();
}

using Reply = std::function<void(bool, std::optional<int>)>;

// One open dialog and its tries; owned by its window.
class Prompt : public std::enable_shared_from_this<Prompt> {
public:
    Prompt(std::shared_ptr<PamAuthentication::Shared> shared, Reply reply)
        : shared_(std::move(shared)), reply_(std::move(reply)), user_(loggedInUser()) {}

    void show(const std::string& reason, const std::string& fallbackTitle) {
        window_ = gtk_window_new();
        gtk_widget_set_name(window_, kDialogName);
        gtk_window_set_title(GTK_WINDOW(window_), "Authentication Required");
        gtk_window_set_modal(GTK_WINDOW(window_), TRUE);
        gtk_window_set_resizable(GTK_WINDOW(window_), FALSE);
        if (GtkWindow* parent = activeWindow()) gtk_window_set_transient_for(GTK_WINDOW(window_), parent);
        g_object_set_data_full(G_OBJECT(window_), kPromptKey, new std::shared_ptr<Prompt>(shared_from_this()),
                               +[](gpointer data) { delete static_cast<std::shared_ptr<Prompt>*>(data); });

        GtkWidget* box = gtk_box_new(GTK_ORIENTATION_VERTICAL, 12);
        for (auto margin : {&gtk_widget_set_margin_top, &gtk_widget_set_margin_bottom, &gtk_widget_set_margin_start,
                            &gtk_widget_set_margin_end}) {
            margin(box, 18);
        }
        GtkWidget* reasonLabel = gtk_label_new(reason.c_str());
        gtk_label_set_wrap(GTK_LABEL(reasonLabel), TRUE);
        gtk_widget_add_css_class(reasonLabel, "title-4");
        gtk_box_append(GTK_BOX(box), reasonLabel);
        gtk_box_append(GTK_BOX(box), gtk_label_new(("Enter the password of " + user_ + ".").c_str()));
        entry_ = gtk_password_entry_new();
        gtk_password_entry_set_show_peek_icon(GTK_PASSWORD_ENTRY(entry_), TRUE);
        g_signal_connect(entry_, "activate", G_CALLBACK(+[](GtkWidget*, gpointer data) {
                             static_cast<Prompt*>(data)->submit();
                         }),
                         this);
        gtk_box_append(GTK_BOX(box), entry_);
        status_ = gtk_label_new("");
        gtk_widget_add_css_class(status_, "error");
        gtk_box_append(GTK_BOX(box), status_);

        GtkWidget* buttons = gtk_box_new(GTK_ORIENTATION_HORIZONTAL, 6);
        gtk_box_set_homogeneous(GTK_BOX(buttons), TRUE);
        gtk_widget_set_halign(buttons, GTK_ALIGN_END);
        cancel_ = gtk_button_new_with_label("Cancel");
        g_signal_connect(cancel_, "clicked", G_CALLBACK(+[](GtkButton*, gpointer data) {
                             static_cast<Prompt*>(data)->finish(false, kUserCancel);
                         }),
                         this);
        confirm_ = gtk_button_new_with_label(fallbackTitle.empty() ? "Authenticate" : fallbackTitle.c_str());
        gtk_widget_add_css_class(confirm_, "suggested-action");
        g_signal_connect(confirm_, "clicked", G_CALLBACK(+[](GtkButton*, gpointer data) {
                             static_cast<Prompt*>(data)->submit();
                         }),
                         this);
        gtk_box_append(GTK_BOX(buttons), cancel_);
        gtk_box_append(GTK_BOX(buttons), confirm_);
        gtk_box_append(GTK_BOX(box), buttons);
        gtk_window_set_child(GTK_WINDOW(window_), box);

        g_signal_connect(window_, "close-request", G_CALLBACK(+[](GtkWindow*, gpointer data) -> gboolean {
                             static_cast<Prompt*>(data)->finish(false, kUserCancel);
                             return TRUE;
                         }),
                         this);
        GtkEventController* keys = gtk_event_controller_key_new();
        auto escape = +[](GtkEventControllerKey*, guint key, guint, GdkModifierType, gpointer data) -> gboolean {
            if (key != GDK_KEY_Escape) return FALSE;
            static_cast<Prompt*>(data)->finish(false, kUserCancel);
            return TRUE;
        };
        g_signal_connect(keys, "key-pressed", G_CALLBACK(escape), this);
        gtk_widget_add_controller(window_, keys);
        gtk_window_present(GTK_WINDOW(window_));
        gtk_widget_grab_focus(entry_);
    }

    bool waitsForInput() const { return !done_ && !checking_; }

    void answer(const std::optional<std::string>& password) {
        if (!password) {
            g_signal_emit_by_name(cancel_, "clicked");
            return;
        }
        gtk_editable_set_text(GTK_EDITABLE(entry_), password->c_str());
        g_signal_emit_by_name(confirm_, "clicked");
    }

private:
    static GtkWindow* activeWindow() {
        GListModel* toplevels = gtk_window_get_toplevels();
        GtkWindow* chosen = nullptr;
        for (guint i = 0; i < g_list_model_get_n_items(toplevels); ++i) {
            auto* window = GTK_WINDOW(g_list_model_get_item(toplevels, i));
            bool visible = gtk_widget_get_visible(GTK_WIDGET(window));
            if (visible && (!chosen || gtk_window_is_active(window))) chosen = window;
            g_object_unref(window);
        }
        return chosen;
    }

    void submit() {
        if (!waitsForInput()) return;
        if (shared_->lockedOut()) {
            finish(false, kLockout);
            return;
        }
        std::string password = gtk_editable_get_text(GTK_EDITABLE(entry_));
        gtk_editable_set_text(GTK_EDITABLE(entry_), "");
        checking_ = true;
        // Not insensitive: the field keeps the focus for the next try.
        gtk_editable_set_editable(GTK_EDITABLE(entry_), FALSE);
        gtk_widget_set_sensitive(confirm_, FALSE);
        gtk_label_set_text(GTK_LABEL(status_), "Checking\u2026");
        std::thread([self = shared_from_this(), service = shared_->service, user = user_,
                     password = std::move(password)]() mutable {
            Verdict verdict = checkPassword(service, user, password);
            wipe(password);
            // The prompt goes on the main thread, with its widgets.
            onMainThread([self = std::move(self), verdict]() mutable {
                self->checked(verdict);
                self.reset();
            });
        }).detach();
    }

    void checked(Verdict verdict) {
        checking_ = false;
        switch (verdict) {
            case Verdict::accepted:
                shared_->succeeded();
                finish(true, std::nullopt);
                return;
            case Verdict::wrongPassword:
                ++tries_;
                if (shared_->failed()) {
                    finish(false, kLockout);
                } else if (tries_ >= shared_->limits.triesPerDialog) {
                    finish(false, kAuthenticationFailed);
                } else if (!done_) {
                    gtk_label_set_text(GTK_LABEL(status_), "Wrong password. Try again.");
                    gtk_editable_set_editable(GTK_EDITABLE(entry_), TRUE);
                    gtk_widget_set_sensitive(confirm_, TRUE);
                }
                return;
            case Verdict::tooManyTries:
                shared_->lockOut();
                finish(false, kLockout);
                return;
            case Verdict::noPassword: finish(false, kPasscodeNotSet); return;
            case Verdict::refused: finish(false, kAuthenticationFailed); return;
            case Verdict::pamFailed: finish(false, kSystemCancel); return;
        }
    }

    // The one reply; then the dialog goes, and with it the window's hold on this prompt.
    void finish(bool success, std::optional<int> code) {
        if (done_) return;
        done_ = true;
        auto keep = shared_from_this();
        Reply reply = std::move(reply_);
        GtkWidget* window = window_;
        window_ = nullptr;
        gtk_window_destroy(GTK_WINDOW(window));
        reply(success, code);
    }

    std::shared_ptr<PamAuthentication::Shared> shared_;
    Reply reply_;
    std::string user_;
    GtkWidget* window_ = nullptr;
    GtkWidget* entry_ = nullptr;
    GtkWidget* status_ = nullptr;
    GtkWidget* cancel_ = nullptr;
    GtkWidget* confirm_ = nullptr;
    int tries_ = 0;
    bool checking_ = false;
    bool done_ = false;
};

class PamContext final : public platform::LAContext {
public:
    explicit PamContext(std::shared_ptr<PamAuthentication::Shared> shared) : shared_(std::move(shared)) {}

    void setLocalizedFallbackTitle(const std::string& title) override { fallbackTitle_ = title; }

    CanEvaluate canEvaluatePolicy(platform::LAPolicy policy) override {
        if (auto code = obstacle(policy)) return {false, code};
        return {true, std::nullopt};
    }

    void evaluatePolicy(platform::LAPolicy policy, const std::string& localizedReason,
                        std::function<void(bool, std::optional<int>)> reply) override {
        onMainThread([shared = shared_, policy, reason = localizedReason, fallback = fallbackTitle_,
                      reply = std::move(reply)]() mutable {
            if (auto code = obstacle(policy, *shared)) {
                reply(false, code);
                return;
            }
            std::make_shared<Prompt>(shared, std::move(reply))->show(reason, fallback);
        });
    }

    std::string description() const override { return "<PamContext service=" + shared_->service + ">"; }

private:
    std::optional<int> obstacle(platform::LAPolicy policy) const { return obstacle(policy, *shared_); }

    static std::optional<int> obstacle(platform::LAPolicy policy, PamAuthentication::Shared& shared) {
        if (policy != platform::LAPolicy::deviceOwnerAuthentication) return kBiometryNotAvailable;
        if (shared.lockedOut()) return kLockout;
        if (!gdk_display_get_default()) return kNotInteractive;
        if (!serviceConfigured(shared.service)) return kPasscodeNotSet;
        return std::nullopt;
    }

    std::shared_ptr<PamAuthentication::Shared> shared_;
    std::string fallbackTitle_;
};

Prompt* openPrompt() {
    GListModel* toplevels = gtk_window_get_toplevels();
    Prompt* found = nullptr;
    for (guint i = 0; i < g_list_model_get_n_items(toplevels) && !found; ++i) {
        auto* window = GTK_WIDGET(g_list_model_get_item(toplevels, i));
        if (auto* held = static_cast<std::shared_ptr<Prompt>*>(g_object_get_data(G_OBJECT(window), kPromptKey))) {
            found = held->get();
        }
        g_object_unref(window);
    }
    return found;
}

}  // namespace

bool PamAuthentication::Shared::lockedOut() {
    std::lock_guard lock(mutex);
    if (!lockedUntil) return false;
    if (std::chrono::steady_clock::now() < *lockedUntil) return true;
    lockedUntil.reset();
    failuresInARow = 0;
    return false;
}

bool PamAuthentication::Shared::failed() {
    std::lock_guard lock(mutex);
    if (++failuresInARow < limits.failuresBeforeLockout) return false;
    lockedUntil = std::chrono::steady_clock::now() + limits.lockout;
    return true;
}

void PamAuthentication::Shared::lockOut() {
    std::lock_guard lock(mutex);
    lockedUntil = std::chrono::steady_clock::now() + limits.lockout;
}

void PamAuthentication::Shared::succeeded() {
    std::lock_guard lock(mutex);
    failuresInARow = 0;
}

PamAuthentication::PamAuthentication(std::string service, Limits limits) : shared_(std::make_shared<Shared>()) {
    shared_->service = std::move(service);
    shared_->limits = limits;
}

std::shared_ptr<platform::LAContext> PamAuthentication::makeContext() { return std::make_shared<PamContext>(shared_); }

bool answerPasswordDialog(const std::optional<std::string>& password) {
    Prompt* prompt = openPrompt();
    if (!prompt || !prompt->waitsForInput()) return false;
    prompt->answer(password);
    return true;
}

}  // namespace kelvane::gtk
