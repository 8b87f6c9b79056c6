// The desktop's location port on GeoClue's D-Bus interface: against no GeoClue at all, and
// against a stand-in service on a private bus that grants, refuses or stays silent.
#include "BrowserHarness.hpp"
#include "GeoClueLocation.hpp"

#include <gtest/gtest.h>

#include <gio/gio.h>

#include <csignal>
#include <sys/prctl.h>
#include <sys/wait.h>

using namespace kelvane;
using namespace kelvane::browser;
using Status = platform::LocationAuthorizationStatus;

namespace {

constexpr const char* kDesktopId = "com.kelvane.browsertest";
constexpr const char* kClientPath = "/org/freedesktop/GeoClue2/Client/1";
constexpr const char* kLocationPath = "/org/freedesktop/GeoClue2/Location/1";

// A message bus of the test's own, gone with the test process at the latest.
class PrivateBus {
public:
    PrivateBus() {
        const char* argv[] = {"dbus-daemon", "--session", "--nofork", "--print-address", nullptr};
        int out = -1;
        GError* error = nullptr;
        g_spawn_async_with_pipes(
            nullptr, const_cast<char**>(argv), nullptr,
            static_cast<GSpawnFlags>(G_SPAWN_SEARCH_PATH | G_SPAWN_DO_NOT_REAP_CHILD),
            +[](gpointer) { prctl(PR_SET_PDEATHSIG, SIGTERM); }, nullptr, &pid_, nullptr, &out, nullptr, &error);
        if (error) {
            ADD_FAILURE() << "no dbus-daemon: " << error->message;
            g_error_free(error);
            return;
        }
        GIOChannel* channel = g_io_channel_unix_new(out);
        g_io_channel_set_close_on_unref(channel, TRUE);
        gchar* line = nullptr;
        if (g_io_channel_read_line(channel, &line, nullptr, nullptr, nullptr) == G_IO_STATUS_NORMAL && line) {
            address_ = g_strstrip(line);
        }
        g_free(line);
        g_io_channel_unref(channel);
    }
    ~PrivateBus() {
        if (pid_ <= 0) return;
        kill(pid_, SIGTERM);
        waitpid(pid_, nullptr, 0);
    }
    const std::string& address() const { return address_; }

private:
    GPid pid_ = 0;
    std::string address_;
};

const char* const kInterfaces = R"(<node>
  <interface name='org.freedesktop.GeoClue2.Manager'>
    <method name='GetClient'><arg name='client' type='o' direction='out'/></method>
  </interface>
  <interface name='org.freedesktop.GeoClue2.Client'>
    <property name='Location' type='o' access='read'/>
    <property name='DesktopId' type='s' access='readwrite'/>
    <property name='RequestedAccuracyLevel' type='u' access='readwrite'/>
    <method name='Start'/>
    <method name='Stop'/>
    <signal name='LocationUpdated'><arg name='old' type='o'/><arg name='new' type='o'/></signal>
  </interface>
  <interface name='org.freedesktop.GeoClue2.Location'>
    <property name='Latitude' type='d' access='read'/>
    <property name='Longitude' type='d' access='read'/>
  </interface>
</node>)";

// GeoClue as its clients see it: one client, which on Start grants a position, refuses the
// desktop id as the agent does, or never answers.
class StandInGeoClue {
public:
    enum class Answer { position, refusal, silence };

    StandInGeoClue(const std::string& address, Answer answer) : answer_(answer) {
        connection_ = g_dbus_connection_new_for_address_sync(
            address.c_str(),
            static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                              G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
            nullptr, nullptr, nullptr);
        if (!connection_) {
            ADD_FAILURE() << "the stand-in cannot reach the private bus";
            return;
        }
        node_ = g_dbus_node_info_new_for_xml(kInterfaces, nullptr);
        static const GDBusInterfaceVTable vtable{&StandInGeoClue::method, &StandInGeoClue::property,
                                                 &StandInGeoClue::setProperty, {}};
        std::pair<const char*, const char*> objects[] = {
            {"/org/freedesktop/GeoClue2/Manager", "org.freedesktop.GeoClue2.Manager"},
            {kClientPath, "org.freedesktop.GeoClue2.Client"},
            {kLocationPath, "org.freedesktop.GeoClue2.Location"}};
        for (auto [path, name] : objects) {
            registrations_.push_back(g_dbus_connection_register_object(
                connection_, path, g_dbus_node_info_lookup_interface(node_, name), &vtable, this, nullptr, nullptr));
        }
        GVariant* reply = g_dbus_connection_call_sync(
            connection_, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", "RequestName",
            g_variant_new("(su)", "org.freedesktop.GeoClue2", 0u), G_VARIANT_TYPE("(u)"), G_DBUS_CALL_FLAGS_NONE,
            5000, nullptr, nullptr);
        EXPECT_NE(reply, nullptr);
        if (reply) g_variant_unref(reply);
    }
    ~StandInGeoClue() {
        for (auto* waiting : silent_) {
            g_dbus_method_invocation_return_dbus_error(waiting, "org.freedesktop.DBus.Error.Failed", "test over");
        }
        if (!connection_) return;
        for (auto id : registrations_) g_dbus_connection_unregister_object(connection_, id);
        g_dbus_node_info_unref(node_);
        g_dbus_connection_close_sync(connection_, nullptr, nullptr);
        g_object_unref(connection_);
    }

    std::vector<std::string> calls;
    std::string desktopId;
    double latitude = 24.4539, longitude = 54.3773;

private:
    static void method(GDBusConnection* connection, const gchar*, const gchar*, const gchar*, const gchar* name,
                       GVariant*, GDBusMethodInvocation* invocation, gpointer data) {
        auto* self = static_cast<StandInGeoClue*>(data);
        std::string method = name;
        self->calls.push_back(method);
        if (method == "GetClient") {
            g_dbus_method_invocation_return_value(invocation, g_variant_new("(o)", kClientPath));
        } else if (method == "Stop") {
            g_dbus_method_invocation_return_value(invocation, nullptr);
        } else if (self->answer_ == Answer::refusal) {
            std::string refusal = "\"" + self->desktopId + "\" disallowed, no agent for UID 0";
            g_dbus_method_invocation_return_dbus_error(invocation, "org.freedesktop.DBus.Error.AccessDenied",
                                                       refusal.c_str());
        } else if (self->answer_ == Answer::silence) {
            self->silent_.push_back(invocation);
        } else {
            g_dbus_method_invocation_return_value(invocation, nullptr);
            const char* previous = self->location_.c_str();
            g_dbus_connection_emit_signal(connection, nullptr, kClientPath, "org.freedesktop.GeoClue2.Client",
                                          "LocationUpdated", g_variant_new("(oo)", previous, kLocationPath), nullptr);
            self->location_ = kLocationPath;
        }
    }

    static GVariant* property(GDBusConnection*, const gchar*, const gchar*, const gchar*, const gchar* name,
                              GError**, gpointer data) {
        auto* self = static_cast<StandInGeoClue*>(data);
        std::string property = name;
        if (property == "Location") return g_variant_new_object_path(self->location_.c_str());
        if (property == "DesktopId") return g_variant_new_string(self->desktopId.c_str());
        if (property == "RequestedAccuracyLevel") return g_variant_new_uint32(8);
        if (property == "Latitude") return g_variant_new_double(self->latitude);
        if (property == "Longitude") return g_variant_new_double(self->longitude);
        return nullptr;
    }

    static gboolean setProperty(GDBusConnection*, const gchar*, const gchar*, const gchar*, const gchar* name,
                                GVariant* value, GError**, gpointer data) {
        auto* self = static_cast<StandInGeoClue*>(data);
        if (std::string(name) == "DesktopId") self->desktopId = g_variant_get_string(value, nullptr);
        return TRUE;
    }

    Answer answer_;
    GDBusConnection* connection_ = nullptr;
    GDBusNodeInfo* node_ = nullptr;
    std::vector<guint> registrations_;
    std::vector<GDBusMethodInvocation*> silent_;
    std::string location_ = "/";
};

// Follows the authorization as the library's flow does, stopping at the first reading.
class RecordingDelegate : public platform::LocationDelegate {
public:
    explicit RecordingDelegate(std::shared_ptr<platform::LocationManager> manager) : manager_(std::move(manager)) {}

    std::vector<Status> changes;
    std::vector<platform::Coordinate> readings;
    std::vector<Error> errors;

    void didChangeAuthorization(Status status) override {
        changes.push_back(status);
        if (status == Status::authorizedWhenInUse) manager_->startUpdatingLocation();
    }
    void didUpdateLocations(const std::vector<platform::Coordinate>& locations) override {
        manager_->stopUpdatingLocation();
        readings.insert(readings.end(), locations.begin(), locations.end());
    }
    void didFailWithError(const Error& error) override {
        manager_->stopUpdatingLocation();
        errors.push_back(error);
    }
    std::size_t outcomes() const { return readings.size() + errors.size(); }

private:
    std::shared_ptr<platform::LocationManager> manager_;
};

struct Road {
    Road(const std::string& address, gtk::GeoClueBounds bounds = {})
        : location(kDesktopId, address, bounds), manager(location.makeManager()),
          delegate(std::make_shared<RecordingDelegate>(manager)) {
        manager->setDelegate(delegate);
    }
    gtk::GeoClueLocation location;
    std::shared_ptr<platform::LocationManager> manager;
    std::shared_ptr<RecordingDelegate> delegate;
};

}  // namespace

TEST(GeoClueLocation, WithoutGeoClueARequestFailsSoonWithTheReason) {
    PrivateBus bus;
    for (auto [address, reason] : {std::pair{std::string("unix:path=/nonexistent/kelvane-bus"),
                                             "the bus of the GeoClue service cannot be reached"},
                                   {bus.address(), "no GeoClue service answers on this system"}}) {
        Road road(address);
        auto started = std::chrono::steady_clock::now();
        road.manager->requestWhenInUseAuthorization();
        ASSERT_TRUE(runUntil([&] { return road.delegate->outcomes() > 0; }, std::chrono::seconds(10))) << address;
        EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(5));
        ASSERT_EQ(road.delegate->errors.size(), 1u);
        EXPECT_NE(road.delegate->errors[0].localizedDescription().find(reason), std::string::npos)
            << road.delegate->errors[0].localizedDescription();
        EXPECT_EQ(road.manager->authorizationStatus(), static_cast<int>(Status::notDetermined));
        EXPECT_TRUE(road.delegate->changes.empty());
    }
}

TEST(GeoClueLocation, AGrantingGeoClueGivesOneReadingPerRequestForTheDesktopId) {
    PrivateBus bus;
    StandInGeoClue geoclue(bus.address(), StandInGeoClue::Answer::position);
    Road road(bus.address());
    EXPECT_EQ(road.manager->authorizationStatus(), static_cast<int>(Status::notDetermined));

    road.manager->requestWhenInUseAuthorization();
    ASSERT_TRUE(runUntil([&] { return road.delegate->outcomes() > 0; }));
    EXPECT_EQ(road.delegate->changes, std::vector<Status>{Status::authorizedWhenInUse});
    EXPECT_EQ(road.manager->authorizationStatus(), static_cast<int>(Status::authorizedWhenInUse));
    ASSERT_EQ(road.delegate->readings.size(), 1u);
    EXPECT_EQ(road.delegate->readings[0].latitude, 24.4539);
    EXPECT_EQ(road.delegate->readings[0].longitude, 54.3773);
    EXPECT_EQ(geoclue.desktopId, kDesktopId);

    // The next request reads again, and the client is stopped after each reading.
    geoclue.latitude = -33.5;
    road.manager->startUpdatingLocation();
    ASSERT_TRUE(runUntil([&] { return road.delegate->outcomes() > 1; }));
    ASSERT_EQ(road.delegate->readings.size(), 2u);
    EXPECT_EQ(road.delegate->readings[1].latitude, -33.5);
    EXPECT_TRUE(runUntil([&] { return std::count(geoclue.calls.begin(), geoclue.calls.end(), "Stop") == 2; }))
        << ::testing::PrintToString(geoclue.calls);
    EXPECT_EQ(std::count(geoclue.calls.begin(), geoclue.calls.end(), "Start"), 2);
    EXPECT_TRUE(road.delegate->errors.empty());
}

TEST(GeoClueLocation, ARefusalIsDeniedAndSilenceEndsAtTheBound) {
    PrivateBus bus;
    {
        StandInGeoClue geoclue(bus.address(), StandInGeoClue::Answer::refusal);
        Road road(bus.address());
        road.manager->requestWhenInUseAuthorization();
        ASSERT_TRUE(runUntil([&] { return !road.delegate->changes.empty(); }));
        EXPECT_EQ(road.delegate->changes, std::vector<Status>{Status::denied});
        EXPECT_EQ(road.manager->authorizationStatus(), static_cast<int>(Status::denied));

        // Asked again while denied, as after a visit to the settings: the refusal is the failure,
        // its description free of the quotation marks that would break the page's answer.
        road.manager->startUpdatingLocation();
        ASSERT_TRUE(runUntil([&] { return road.delegate->outcomes() > 0; }));
        ASSERT_EQ(road.delegate->errors.size(), 1u);
        EXPECT_EQ(road.delegate->errors[0].localizedDescription(),
                  "Location access denied: 'com.kelvane.browsertest' disallowed, no agent for UID 0");
        EXPECT_EQ(road.delegate->changes.size(), 1u);
    }
    StandInGeoClue geoclue(bus.address(), StandInGeoClue::Answer::silence);
    Road road(bus.address(), {std::chrono::milliseconds(300), std::chrono::milliseconds(2000)});
    auto started = std::chrono::steady_clock::now();
    road.manager->requestWhenInUseAuthorization();
    ASSERT_TRUE(runUntil([&] { return road.delegate->outcomes() > 0; }));
    EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(4));
    ASSERT_EQ(road.delegate->errors.size(), 1u);
    EXPECT_EQ(road.delegate->errors[0].localizedDescription(),
              "Location is unknown: GeoClue gave no position within 2 seconds");
    EXPECT_EQ(road.manager->authorizationStatus(), static_cast<int>(Status::notDetermined));
}
