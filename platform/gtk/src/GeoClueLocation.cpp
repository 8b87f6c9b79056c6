#include "GeoClueLocation.hpp"

#include "MainContextQueue.hpp"

#include <kelvane/Log.hpp>

#include <gio/gio.h>

#include <functional>
#include <optional>

namespace kelvane::gtk {

namespace {

using Status = platform::LocationAuthorizationStatus;

constexpr const char* kService = "org.freedesktop.GeoClue2";
constexpr const char* kManagerPath = "/org/freedesktop/GeoClue2/Manager";
constexpr const char* kManagerInterface = "org.freedesktop.GeoClue2.Manager";
constexpr const char* kClientInterface = "org.freedesktop.GeoClue2.Client";
constexpr const char* kLocationInterface = "org.freedesktop.GeoClue2.Location";
constexpr const char* kProperties = "org.freedesktop.DBus.Properties";
constexpr const char* kErrorDomain = "kCLErrorDomain";
constexpr int kLocationUnknown = 0;
constexpr int kDenied = 1;
constexpr guint kAccuracyExact = 8;

using Reply = std::function<void(GVariant* result, GError* error)>;

void finishCall(GObject* source, GAsyncResult* result, gpointer data) {
    std::unique_ptr<Reply> reply(static_cast<Reply*>(data));
    GError* error = nullptr;
    GVariant* value = g_dbus_connection_call_finish(G_DBUS_CONNECTION(source), result, &error);
    (*reply)(value, error);
    if (value) g_variant_unref(value);
    if (error) g_error_free(error);
}

bool cancelled(const GError* error) { return error && g_error_matches(error, G_IO_ERROR, G_IO_ERROR_CANCELLED); }

// The page receives the description inside its answer without any escaping, so it carries
// nothing that would end or break a JSON string there.
std::string description(std::string text) {
    for (char& c : text) {
        if (c == '"') c = '\'';
        if (c == '\\') c = '/';
        if (static_cast<unsigned char>(c) < 0x20) c = ' ';
    }
    return text;
}

// The error's message without the D-Bus error name that GDBus puts before a remote one.
std::string messageOf(const GError* error) {
    if (!error) return "no reason given";
    GError* copy = g_error_copy(error);
    g_dbus_error_strip_remote_error(copy);
    std::string text = copy->message;
    g_error_free(copy);
    return text;
}

// Runs `task` on the main thread at its next iteration, never at once: the delegate is not
// called back from inside the operation that caused the callback.
void later(std::function<void()> task) {
    g_idle_add_full(
        G_PRIORITY_DEFAULT,
        +[](gpointer data) -> gboolean {
            (*static_cast<std::function<void()>*>(data))();
            return G_SOURCE_REMOVE;
        },
        new std::function<void()>(std::move(task)),
        +[](gpointer data) { delete static_cast<std::function<void()>*>(data); });
}

bool accessDenied(const GError* error) {
    gchar* name = g_dbus_error_get_remote_error(error);
    bool denied = name && std::string(name) == "org.freedesktop.DBus.Error.AccessDenied";
    g_free(name);
    return denied;
}

class GeoClueManager final : public platform::LocationManager, public std::enable_shared_from_this<GeoClueManager> {
public:
    explicit GeoClueManager(std::shared_ptr<GeoClueLocation::Settings> settings) : settings_(std::move(settings)) {}
    ~GeoClueManager() override { close(); }

    void setDelegate(std::weak_ptr<platform::LocationDelegate> delegate) override {
        onMainThread([weak = weak_from_this(), delegate = std::move(delegate)] {
            if (auto self = weak.lock()) self->delegate_ = delegate;
        });
    }

    int authorizationStatus() const override { return settings_->status.load(); }

    void requestWhenInUseAuthorization() override {
        onMainThread([weak = weak_from_this()] {
            if (auto self = weak.lock()) self->begin();
        });
    }

    void startUpdatingLocation() override {
        onMainThread([weak = weak_from_this()] {
            auto self = weak.lock();
            if (!self) return;
            self->wantsReading_ = true;
            if (!self->cancellable_) {
                self->begin();
            } else if (self->started_) {
                self->readCurrentLocation();
            }
        });
    }

    void stopUpdatingLocation() override {
        onMainThread([weak = weak_from_this()] {
            if (auto self = weak.lock()) {
                self->wantsReading_ = false;
                self->close();
            }
        });
    }

private:
    // Calls `method` on GeoClue with the bound of one call; the reply comes on the main
    // thread, unless the session has ended by then.
    void call(const std::string& path, const char* interface, const char* method, GVariant* parameters,
              const char* replyType, std::function<void(GVariant*)> then,
              std::optional<std::chrono::milliseconds> bound = {}) {
        std::weak_ptr<GeoClueManager> weak = weak_from_this();
        auto* reply = new Reply([weak, then = std::move(then), what = std::string(method)](GVariant* result,
                                                                                          GError* error) {
            auto self = weak.lock();
            if (!self || cancelled(error)) return;
            if (error) {
                self->failed(what, error);
                return;
            }
            then(result);
        });
        g_dbus_connection_call(connection_, kService, path.c_str(), interface, method, parameters,
                               replyType ? G_VARIANT_TYPE(replyType) : nullptr, G_DBUS_CALL_FLAGS_NONE,
                               static_cast<int>(bound.value_or(settings_->bounds.call).count()), cancellable_,
                               finishCall, reply);
    }

    void begin() {
        if (cancellable_) return;  // already asking
        ++session_;
        cancellable_ = g_cancellable_new();
        started_ = false;
        auto bound = static_cast<guint>(settings_->bounds.reading.count());
        timer_ = g_timeout_add_full(
            G_PRIORITY_DEFAULT, bound,
            +[](gpointer data) -> gboolean {
                auto* self = static_cast<GeoClueManager*>(data);
                self->timer_ = 0;
                auto seconds =
                    std::chrono::duration_cast<std::chrono::seconds>(self->settings_->bounds.reading).count();
                self->fail(kLocationUnknown, "Location is unknown: GeoClue gave no position within " +
                                                 std::to_string(seconds) + (seconds == 1 ? " second" : " seconds"));
                return G_SOURCE_REMOVE;
            },
            this, nullptr);

        std::string address = settings_->busAddress;
        if (address.empty()) {
            GError* error = nullptr;
            gchar* system = g_dbus_address_get_for_bus_sync(G_BUS_TYPE_SYSTEM, nullptr, &error);
            if (!system) {
                std::string text = "Location services are unavailable: no system bus (" + messageOf(error) + ")";
                g_clear_error(&error);
                later([weak = weak_from_this(), text] {
                    if (auto self = weak.lock()) self->fail(kLocationUnknown, text);
                });
                return;
            }
            address = system;
            g_free(system);
        }
        std::weak_ptr<GeoClueManager> weak = weak_from_this();
        auto* connected = new std::function<void(GDBusConnection*, GError*)>([weak](GDBusConnection* connection,
                                                                                     GError* error) {
            auto self = weak.lock();
            if (!self || cancelled(error)) {
                if (connection) g_object_unref(connection);
                return;
            }
            if (!connection) {
                self->fail(kLocationUnknown, "Location services are unavailable: the bus of the GeoClue service "
                                             "cannot be reached (" + messageOf(error) + ")");
                return;
            }
            self->connection_ = connection;
            self->getClient();
        });
        g_dbus_connection_new_for_address(
            address.c_str(),
            static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                              G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
            nullptr, cancellable_,
            +[](GObject*, GAsyncResult* result, gpointer data) {
                std::unique_ptr<std::function<void(GDBusConnection*, GError*)>> then(
                    static_cast<std::function<void(GDBusConnection*, GError*)>*>(data));
                GError* error = nullptr;
                GDBusConnection* connection = g_dbus_connection_new_for_address_finish(result, &error);
                (*then)(connection, error);
                g_clear_error(&error);
            },
            connected);
    }

    void getClient() {
        call(kManagerPath, kManagerInterface, "GetClient", nullptr, "(o)", [this](GVariant* result) {
            const gchar* path = nullptr;
            g_variant_get(result, "(&o)", &path);
            client_ = path;
            setDesktopId();
        });
    }

    void setDesktopId() {
        call(client_, kProperties, "Set",
             g_variant_new("(ssv)", kClientInterface, "DesktopId", g_variant_new_string(settings_->desktopId.c_str())),
             nullptr, [this](GVariant*) {
                 call(client_, kProperties, "Set",
                      g_variant_new("(ssv)", kClientInterface, "RequestedAccuracyLevel",
                                    g_variant_new_uint32(kAccuracyExact)),
                      nullptr, [this](GVariant*) { start(); });
             });
    }

    void start() {
        // Subscribed before Start, so that a position sent at once is not missed.
        subscription_ = g_dbus_connection_signal_subscribe(
            connection_, nullptr, kClientInterface, "LocationUpdated", client_.c_str(), nullptr,
            G_DBUS_SIGNAL_FLAGS_NONE,
            +[](GDBusConnection*, const gchar*, const gchar*, const gchar*, const gchar*, GVariant* parameters,
                gpointer data) {
                auto* self = static_cast<GeoClueManager*>(data);
                const gchar* newer = nullptr;
                g_variant_get(parameters, "(&o&o)", nullptr, &newer);
                if (self->started_ && self->wantsReading_ && !self->reading_) self->readLocation(newer);
            },
            this, nullptr);
        // GeoClue answers Start once its agent has asked the user, who may take a while: the
        // whole request's bound applies, and that one's timer fires first.
        call(client_, kClientInterface, "Start", nullptr, nullptr, [this](GVariant*) { authorized(); },
             settings_->bounds.reading);
    }

    void authorized() {
        started_ = true;
        if (settings_->status.exchange(static_cast<int>(Status::authorizedWhenInUse)) !=
            static_cast<int>(Status::authorizedWhenInUse)) {
            // The delegate may start updates from here, or stop them.
            auto keep = shared_from_this();
            if (auto delegate = delegate_.lock()) delegate->didChangeAuthorization(Status::authorizedWhenInUse);
            if (!connection_) return;
        }
        if (!wantsReading_) {
            // Only the authorization was asked for, unless updates were started on the way
            // here: they may be waiting in the main queue, and would take this client on.
            later([weak = weak_from_this(), session = session_] {
                auto self = weak.lock();
                if (self && self->session_ == session && !self->wantsReading_) self->close();
            });
            return;
        }
        readCurrentLocation();
    }

    // The client's position when it has one already; otherwise the next LocationUpdated brings it.
    void readCurrentLocation() {
        if (reading_) return;
        reading_ = true;
        call(client_, kProperties, "Get", g_variant_new("(ss)", kClientInterface, "Location"), "(v)",
             [this](GVariant* result) {
                 reading_ = false;
                 GVariant* value = nullptr;
                 g_variant_get(result, "(v)", &value);
                 std::string path = g_variant_is_of_type(value, G_VARIANT_TYPE_OBJECT_PATH)
                                        ? g_variant_get_string(value, nullptr)
                                        : "/";
                 g_variant_unref(value);
                 if (path != "/" && wantsReading_ && !reading_) readLocation(path);
             });
    }

    void readLocation(const std::string& path) {
        reading_ = true;
        auto parameters = g_variant_new("(s)", kLocationInterface);
        call(path, kProperties, "GetAll", parameters, "(a{sv})", [this](GVariant* result) {
            reading_ = false;
            GVariant* properties = g_variant_get_child_value(result, 0);
            double latitude = 0, longitude = 0;
            bool complete = g_variant_lookup(properties, "Latitude", "d", &latitude) &&
                            g_variant_lookup(properties, "Longitude", "d", &longitude);
            g_variant_unref(properties);
            if (!complete) {
                fail(kLocationUnknown, "Location is unknown: GeoClue gave a position without coordinates");
                return;
            }
            // One reading per request.
            wantsReading_ = false;
            auto keep = shared_from_this();
            close();
            if (auto delegate = delegate_.lock()) {
                delegate->didUpdateLocations({platform::Coordinate{latitude, longitude}});
            }
        });
    }

    void failed(const std::string& method, GError* error) {
        if (accessDenied(error)) {
            denied(messageOf(error));
            return;
        }
        std::string reason = messageOf(error);
        if (method == "GetClient") {
            fail(kLocationUnknown, "Location services are unavailable: no GeoClue service answers on this system (" +
                                       reason + ")");
        } else {
            fail(kLocationUnknown, "Location is unknown: GeoClue failed at " + method + " (" + reason + ")");
        }
    }

    void denied(const std::string& reason) {
        auto keep = shared_from_this();
        close();
        auto before = settings_->status.exchange(static_cast<int>(Status::denied));
        auto delegate = delegate_.lock();
        if (!delegate) return;
        if (before != static_cast<int>(Status::denied)) {
            delegate->didChangeAuthorization(Status::denied);
        } else {
            delegate->didFailWithError(Error{kErrorDomain, kDenied, description("Location access denied: " + reason)});
        }
    }

    void fail(int code, const std::string& text) {
        logLine("GeoClue: " + text);
        auto keep = shared_from_this();
        close();
        if (auto delegate = delegate_.lock()) delegate->didFailWithError(Error{kErrorDomain, code, description(text)});
    }

    void close() {
        if (timer_) g_source_remove(timer_);
        timer_ = 0;
        if (cancellable_) {
            g_cancellable_cancel(cancellable_);
            g_clear_object(&cancellable_);
        }
        if (connection_) {
            if (subscription_) g_dbus_connection_signal_unsubscribe(connection_, subscription_);
            // GeoClue also drops a client whose connection has gone, but a Stop says so at once.
            // A close would overtake the messages waiting to go, so they are flushed first.
            if (started_) {
                g_dbus_connection_call(connection_, kService, client_.c_str(), kClientInterface, "Stop", nullptr,
                                       nullptr, G_DBUS_CALL_FLAGS_NONE, -1, nullptr, nullptr, nullptr);
            }
            g_dbus_connection_flush(
                connection_, nullptr,
                +[](GObject* source, GAsyncResult* result, gpointer) {
                    auto* connection = G_DBUS_CONNECTION(source);
                    g_dbus_connection_flush_finish(connection, result, nullptr);
                    g_dbus_connection_close(connection, nullptr, nullptr, nullptr);
                    g_object_unref(connection);
                },
                nullptr);
            connection_ = nullptr;  // the flush holds it until it is closed
        }
        subscription_ = 0;
        started_ = false;
        reading_ = false;
        client_.clear();
    }

    std::shared_ptr<GeoClueLocation::Settings> settings_;
    std::weak_ptr<platform::LocationDelegate> delegate_;
    // One session with GeoClue at a time, on the main thread.
    GCancellable* cancellable_ = nullptr;
    GDBusConnection* connection_ = nullptr;
    std::string client_;
    guint subscription_ = 0;
    guint timer_ = 0;
    unsigned session_ = 0;
    bool started_ = false;
    bool reading_ = false;
    bool wantsReading_ = false;
};

}  // namespace

GeoClueLocation::GeoClueLocation(std::string desktopId, std::string busAddress, Bounds bounds)
    : settings_(std::make_shared<Settings>()) {
    settings_->desktopId = std::move(desktopId);
    settings_->busAddress = std::move(busAddress);
    settings_->bounds = bounds;
}

std::shared_ptr<platform::LocationManager> GeoClueLocation::makeManager() {
    return std::make_shared<GeoClueManager>(settings_);
}

}  // namespace kelvane::gtk
