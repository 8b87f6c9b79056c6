// The desktop's passkeys: the page's "registerFido" and "signFido" through the library's FIDO
// service and controller to the software authenticator, whose answers an independent relying
// party (@simplewebauthn/server in node) verifies; its keys in the Secret Service of a private
// D-Bus session; and the failures that have no authenticator to answer.

#include "BrowserHarness.hpp"
#include "FakePlatform.hpp"
#include "PeerProcess.hpp"

#include <kelvane/gtk/GtkPlatform.hpp>

#include "flow/WebViewController.hpp"
#include "services/FidoController.hpp"
#include "support/Base64.hpp"

#include <gtest/gtest.h>

#include <gio/gio.h>
#include <libsecret/secret.h>
#include <openssl/core_names.h>
#include <openssl/evp.h>
#include <openssl/rand.h>
#include <openssl/x509.h>

#include <sys/prctl.h>

#include <csignal>
#include <cstdlib>
#include <fstream>

using namespace kelvane;
using namespace kelvane::browser;
using namespace std::chrono_literals;

namespace {

constexpr const char* kRelyingParty = "kelvane.test";
constexpr const char* kBundle = "com.kelvane.passkeytest";

std::string base64url(ByteView bytes) { return FidoController::encodeBinary(bytes); }
Bytes fromBase64url(const std::string& text) {
    return base64::decode(FidoController::toggleBase64URLSafe(text, false)).value_or(Bytes{});
}
Bytes randomBytes(std::size_t count) {
    Bytes bytes(count);
    RAND_bytes(bytes.data(), static_cast<int>(count));
    return bytes;
}
Json byteArray(const Bytes& bytes) {
    Json object = Json::object();
    for (std::size_t index = 0; index < bytes.size(); ++index) object[std::to_string(index)] = bytes[index];
    return object;
}

// A flag that a GLib callback raises; it outlives a waiter that gave up.
using Flag = std::shared_ptr<bool>;
gpointer hold(const Flag& flag) { return new Flag(flag); }
void raise(gpointer held) {
    auto* flag = static_cast<Flag*>(held);
    **flag = true;
    delete flag;
}

// A D-Bus session of this test's own with gnome-keyring's Secret Service on it, its login
// keyring made and unlocked with a password, under the run's fresh XDG folders. The bus's
// address is this process's DBUS_SESSION_BUS_ADDRESS while it lives; both daemons are
// stopped at the end, and die with this process should it die first.
class PrivateSecretService {
public:
    PrivateSecretService(const PrivateSecretService&) = delete;
    PrivateSecretService& operator=(const PrivateSecretService&) = delete;
    PrivateSecretService() {
        bus_ = spawn(G_SUBPROCESS_FLAGS_STDOUT_PIPE,
                     {"dbus-daemon", "--session", "--nofork", "--nopidfile", "--print-address=1"});
        if (!bus_) return;
        auto address = std::make_shared<std::string>();
        auto* lines = g_data_input_stream_new(g_subprocess_get_stdout_pipe(bus_));
        g_data_input_stream_read_line_async(
            lines, G_PRIORITY_DEFAULT, nullptr,
            +[](GObject* stream, GAsyncResult* result, gpointer held) {
                auto* target = static_cast<std::shared_ptr<std::string>*>(held);
                char* line =
                    g_data_input_stream_read_line_finish(G_DATA_INPUT_STREAM(stream), result, nullptr, nullptr);
                **target = line ? line : "-";
                g_free(line);
                delete target;
            },
            new std::shared_ptr<std::string>(address));
        bool printed = runUntil([&] { return !address->empty(); }, 20s);
        g_object_unref(lines);
        if (!printed || *address == "-") {
            ADD_FAILURE() << "dbus-daemon printed no address";
            return;
        }
        setenv("DBUS_SESSION_BUS_ADDRESS", address->c_str(), 1);
        watcher_ =
            g_dbus_connection_new_for_address_sync(address->c_str(),
                                                   GDBusConnectionFlags(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                                                        G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
                                                   nullptr, nullptr, nullptr);
        if (!watcher_) {
            ADD_FAILURE() << "cannot connect to " << *address;
            return;
        }

        auto appeared = std::make_shared<bool>(false);
        guint watch = g_bus_watch_name_on_connection(
            watcher_, "org.freedesktop.secrets", G_BUS_NAME_WATCHER_FLAGS_NONE,
            +[](GDBusConnection*, const char*, const char*, gpointer flag) { *static_cast<bool*>(flag) = true; },
            nullptr, appeared.get(), nullptr);
        // Its password comes on standard input; the keyring is open once its name is on the bus.
        keyring_ = spawn(G_SUBPROCESS_FLAGS_STDIN_PIPE,
                         {"gnome-keyring-daemon", "--foreground", "--unlock", "--components=secrets"});
        if (keyring_) {
            GOutputStream* input = g_subprocess_get_stdin_pipe(keyring_);
            const std::string password = "keyring password";
            g_output_stream_write_all(input, password.data(), password.size(), nullptr, nullptr, nullptr);
            g_output_stream_close(input, nullptr, nullptr);
            runUntil([&] { return *appeared; }, 20s);
        }
        g_bus_unwatch_name(watch);
        EXPECT_TRUE(*appeared) << "no Secret Service on the private bus";
        // The process's shared connection, which libsecret uses, must be on this bus and not on
        // one the process met before: a test must never write to a user's keyring.
        GDBusConnection* shared = g_bus_get_sync(G_BUS_TYPE_SESSION, nullptr, nullptr);
        GVariant* onThisBus =
            shared ? g_dbus_connection_call_sync(watcher_, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                                                 "org.freedesktop.DBus", "NameHasOwner",
                                                 g_variant_new("(s)", g_dbus_connection_get_unique_name(shared)),
                                                 G_VARIANT_TYPE("(b)"), G_DBUS_CALL_FLAGS_NONE, 5000, nullptr, nullptr)
                   : nullptr;
        gboolean same = FALSE;
        if (onThisBus) {
            g_variant_get(onThisBus, "(b)", &same);
            g_variant_unref(onThisBus);
        }
        if (shared) g_object_unref(shared);
        EXPECT_TRUE(same) << "the process's session bus is another one";
        ready_ = *appeared && same;
    }

    ~PrivateSecretService() {
        g_clear_object(&service_);
        // The process's shared connection to this bus, if any, must not end the process when
        // the bus goes.
        if (watcher_) {
            if (GDBusConnection* shared = g_bus_get_sync(G_BUS_TYPE_SESSION, nullptr, nullptr)) {
                g_dbus_connection_set_exit_on_close(shared, FALSE);
                g_object_unref(shared);
            }
        }
        stop(keyring_);
        if (watcher_) {
            g_dbus_connection_close_sync(watcher_, nullptr, nullptr);
            g_object_unref(watcher_);
        }
        stop(bus_);
        unsetenv("DBUS_SESSION_BUS_ADDRESS");
    }

    bool ready() const { return ready_; }

    // The Secret Service on a connection of the test's own.
    // The Secret Service, asked by the test itself.
    SecretService* service() {
        if (!service_) {
            service_ =
                secret_service_open_sync(SECRET_TYPE_SERVICE, nullptr, SECRET_SERVICE_OPEN_SESSION, nullptr, nullptr);
        }
        return service_;
    }

    // The secret of each item that has the attribute, whatever its schema.
    std::vector<std::string> secretsWith(const char* attribute, const std::string& value) {
        GHashTable* attributes = g_hash_table_new(g_str_hash, g_str_equal);
        g_hash_table_insert(attributes, const_cast<char*>(attribute), const_cast<char*>(value.c_str()));
        GList* items = secret_service_search_sync(service(), nullptr, attributes,
                                                  SecretSearchFlags(SECRET_SEARCH_ALL | SECRET_SEARCH_LOAD_SECRETS),
                                                  nullptr, nullptr);
        g_hash_table_unref(attributes);
        std::vector<std::string> secrets;
        for (GList* entry = items; entry; entry = entry->next) {
            if (SecretValue* secret = secret_item_get_secret(SECRET_ITEM(entry->data))) {
                gsize length = 0;
                const char* text = secret_value_get(secret, &length);
                secrets.emplace_back(text, length);
                secret_value_unref(secret);
            }
        }
        g_list_free_full(items, g_object_unref);
        return secrets;
    }

    bool lockDefaultKeyring() {
        SecretCollection* collection = secret_collection_for_alias_sync(service(), SECRET_COLLECTION_DEFAULT,
                                                                        SECRET_COLLECTION_NONE, nullptr, nullptr);
        if (!collection) return false;
        GList* objects = g_list_append(nullptr, collection);
        bool locked = secret_service_lock_sync(service(), objects, nullptr, nullptr, nullptr) == 1;
        g_list_free_full(objects, g_object_unref);
        return locked;
    }

private:
    // A daemon that dies with this process, its error output silenced.
    static GSubprocess* spawn(GSubprocessFlags flags, std::vector<const char*> argv) {
        GSubprocessLauncher* launcher =
            g_subprocess_launcher_new(GSubprocessFlags(flags | G_SUBPROCESS_FLAGS_STDERR_SILENCE));
        g_subprocess_launcher_set_child_setup(
            launcher, +[](gpointer) { prctl(PR_SET_PDEATHSIG, SIGTERM); }, nullptr, nullptr);
        argv.push_back(nullptr);
        GError* error = nullptr;
        GSubprocess* process = g_subprocess_launcher_spawnv(launcher, argv.data(), &error);
        g_object_unref(launcher);
        if (!process) {
            ADD_FAILURE() << argv[0] << ": " << error->message;
            g_clear_error(&error);
        }
        return process;
    }
    static void stop(GSubprocess*& process) {
        if (!process) return;
        g_subprocess_send_signal(process, SIGTERM);
        auto ended = std::make_shared<bool>(false);
        g_subprocess_wait_async(
            process, nullptr, +[](GObject*, GAsyncResult*, gpointer held) { raise(held); }, hold(ended));
        if (!runUntil([&] { return *ended; }, 10s)) g_subprocess_force_exit(process);
        g_clear_object(&process);
    }

    GSubprocess* bus_ = nullptr;
    GSubprocess* keyring_ = nullptr;
    GDBusConnection* watcher_ = nullptr;
    SecretService* service_ = nullptr;
    bool ready_ = false;
};

// The public point 04||x||y of a PKCS#8 P-256 key.
std::optional<Bytes> publicPointOf(const Bytes& pkcs8) {
    const unsigned char* der = pkcs8.data();
    EVP_PKEY* key = d2i_AutoPrivateKey(nullptr, &der, static_cast<long>(pkcs8.size()));
    if (!key) return std::nullopt;
    Bytes point(65);
    std::size_t length = 0;
    bool read = EVP_PKEY_get_octet_string_param(key, OSSL_PKEY_PARAM_PUB_KEY, point.data(), point.size(), &length) == 1;
    EVP_PKEY_free(key);
    if (!read) return std::nullopt;
    point.resize(length);
    return point;
}

class RecordingPasskeyDelegate : public platform::PasskeyAuthorizationDelegate {
public:
    std::vector<Error> errors;
    std::vector<platform::AuthorizationCredential> credentials;
    void didCompleteWithAuthorization(platform::AuthorizationCredential credential) override {
        credentials.push_back(std::move(credential));
    }
    void didCompleteWithError(Error error) override { errors.push_back(std::move(error)); }
    std::shared_ptr<platform::Window> presentationAnchor() override { return nullptr; }
};

class Passkeys : public ::testing::Test {
protected:
    Passkeys() : previous_(platform::current()) {
        gtk::DesktopOptions options;
        options.passkeyRelyingParties = {kRelyingParty};
        auto ports = gtk::makePlatform(kBundle, "1.0", options);
        // The page's side is a recording web view: the answers it is sent are what is checked.
        ports.webViews = webViews;
        platform::install(ports);
        flow->kelvaneService = std::make_shared<fakes::RecordingDelegate>();
        flow->webView = webViews->makeWebView({}, {});
    }
    ~Passkeys() override {
        drain();
        platform::install(*previous_);
    }

    // Posts the event as the page does and returns the answer's record.
    Json post(const std::string& event, Json options) {
        auto& scripts = webViews->made.back()->scripts;
        const auto before = scripts.size();
        flow->userContentController({event, std::move(options)});
        if (!runUntil([&] { return scripts.size() > before; }, 20s)) return nullptr;
        const std::string& script = scripts.back();
        const std::string prefix = "iosCallback(\"" + event + "\" ,";
        EXPECT_EQ(script.rfind(prefix, 0), 0u) << script;
        return Json::parse(script.substr(prefix.size(), script.size() - prefix.size() - 1), nullptr, false);
    }
    Json registerFido(const Bytes& challenge) {
        Json publicKey{{"challenge", byteArray(challenge)},
                       {"rp", {{"id", kRelyingParty}, {"name", "Kelvane test"}}},
                       {"user", {{"id", byteArray(userID)}, {"name", "ann"}, {"displayName", "Ann A."}}},
                       {"pubKeyCredParams", Json::array({{{"type", "public-key"}, {"alg", "-7"}}})}};
        return post("registerFido", Json{{"params", {{"publicKey", publicKey}}}});
    }
    Json signFido(const Bytes& challenge, const Json& allowCredentials) {
        Json publicKey{
            {"challenge", byteArray(challenge)}, {"rpId", kRelyingParty}, {"allowCredentials", allowCredentials}};
        return post("signFido", Json{{"params", {{"publicKey", publicKey}}}});
    }

    // Asks the relying party and returns its verdict line: "<WORD> <JSON or message>".
    std::string verify(Json request) {
        const std::string tag = std::to_string(++requests_);
        request["rpId"] = kRelyingParty;
        request["tag"] = tag;
        relyingParty.writeLine(request.dump());
        auto line = relyingParty.waitForLine(tag + " ", 10s);
        return line ? line->substr(tag.size() + 1) : "no answer";
    }
    static Json verdict(const std::string& line, const std::string& word) {
        if (line.rfind(word + " ", 0) != 0) {
            ADD_FAILURE() << line;
            return Json::object();
        }
        return Json::parse(line.substr(word.size() + 1));
    }

    void performRequests(std::vector<platform::AuthorizationRequest> requests) {
        const auto before = delegate->errors.size() + delegate->credentials.size();
        platform::current()->passkeys->performRequests(std::move(requests), delegate);
        EXPECT_TRUE(runUntil([&] { return delegate->errors.size() + delegate->credentials.size() > before; }, 20s));
    }

    std::shared_ptr<fakes::FakeWebViews> webViews = std::make_shared<fakes::FakeWebViews>();
    std::shared_ptr<WebViewController> flow = std::make_shared<WebViewController>();
    std::shared_ptr<RecordingPasskeyDelegate> delegate = std::make_shared<RecordingPasskeyDelegate>();
    kelvane::testing::PeerProcess relyingParty{"webauthn-verifier.js", {}, 20s, "READY"};
    const Bytes userID = randomBytes(16);

private:
    std::shared_ptr<const platform::Platform> previous_;
    int requests_ = 0;
};

}  // namespace

TEST_F(Passkeys, ARelyingPartyVerifiesTheRegistrationAndEachAssertionWithARisingCounter) {
    PrivateSecretService secrets;
    ASSERT_TRUE(secrets.ready());

    const Bytes challenge = randomBytes(32);
    Json registered = registerFido(challenge);
    ASSERT_EQ(registered["success"], true) << registered;
    EXPECT_EQ(registered["errorCodes"], Json::array({""}));
    auto result =
        verdict(verify({{"op", "register"}, {"challenge", base64url(challenge)}, {"response", registered["data"]}}),
                "REGISTERED");
    ASSERT_EQ(result["verified"], true) << result;
    EXPECT_EQ(result["userVerified"], false) << "nothing here verifies the user";
    EXPECT_EQ(result["fmt"], "none");
    Json credential = result["credential"];
    EXPECT_EQ(credential["id"], registered["data"]["id"]);
    EXPECT_EQ(credential["counter"], 0);

    // The private key is in the keyring, and it is the key the relying party registered; the
    // key-value store's file holds neither it nor its text.
    auto stored = secrets.secretsWith("credential", credential["id"].get<std::string>());
    ASSERT_EQ(stored.size(), 1u);
    auto privateKey = fromBase64url(Json::parse(stored[0])["privateKey"].get<std::string>());
    EXPECT_EQ(publicPointOf(privateKey), fromBase64url(credential["point"].get<std::string>()));
    std::ifstream storeFile(gtk::keyValueStoreFile(kBundle));
    std::string storeText((std::istreambuf_iterator<char>(storeFile)), std::istreambuf_iterator<char>());
    EXPECT_NE(storeText.find("device_id"), std::string::npos) << "the page's answers wrote no store";
    EXPECT_EQ(storeText.find(base64url(privateKey)), std::string::npos);
    EXPECT_EQ(storeText.find(base64::encode(privateKey)), std::string::npos);

    // Signed twice, by the allow list and then without one; each counter is above the last.
    Json allowed =
        Json::array({{{"id", byteArray(fromBase64url(credential["id"].get<std::string>()))}, {"type", "public-key"}}});
    Json lastAssertion;
    for (const Json& allowList : {allowed, Json::array()}) {
        const Bytes assertionChallenge = randomBytes(32);
        Json signed_ = signFido(assertionChallenge, allowList);
        ASSERT_EQ(signed_["success"], true) << signed_;
        EXPECT_EQ(signed_["data"]["response"]["userHandle"], base64url(userID));
        auto outcome = verdict(verify({{"op", "authenticate"},
                                       {"challenge", base64url(assertionChallenge)},
                                       {"response", signed_["data"]},
                                       {"credential", credential}}),
                               "AUTHENTICATED");
        ASSERT_EQ(outcome["verified"], true) << outcome;
        EXPECT_EQ(outcome["userVerified"], false);
        EXPECT_GT(outcome["newCounter"].get<int>(), credential["counter"].get<int>());
        credential["counter"] = outcome["newCounter"];
        lastAssertion =
            Json{{"op", "authenticate"}, {"challenge", base64url(assertionChallenge)}, {"response", signed_["data"]}};
    }
    EXPECT_EQ(credential["counter"], 2);

    // A signature changed in one byte is refused: verified no longer.
    auto signature = fromBase64url(lastAssertion["response"]["response"]["signature"].get<std::string>());
    signature[signature.size() / 2] ^= 0x01;
    lastAssertion["response"]["response"]["signature"] = base64url(signature);
    credential["counter"] = 1;
    lastAssertion["credential"] = credential;
    EXPECT_EQ(verdict(verify(lastAssertion), "AUTHENTICATED")["verified"], false);
}

TEST_F(Passkeys, WhatNoAuthenticatorHereCanAnswerEndsWithAClearError) {
    using namespace platform;
    const Bytes challenge = randomBytes(32);
    const Bytes unknown = randomBytes(32);
    auto lastMessage = [&] { return delegate->errors.empty() ? std::string() : delegate->errors.back().message; };

    // No session bus: the Secret Service cannot be asked, and no bus is launched for it.
    unsetenv("DBUS_SESSION_BUS_ADDRESS");
    performRequests({PlatformRegistrationRequest{kRelyingParty, challenge, "ann", userID}});
    EXPECT_EQ(lastMessage(),
              "The Secret Service cannot be reached: no D-Bus session bus (DBUS_SESSION_BUS_ADDRESS is not set)");
    // No security key is plugged in here.
    performRequests({SecurityKeyRegistrationRequest{kRelyingParty, challenge, "ann", "ann", userID, {-7}}});
    EXPECT_EQ(lastMessage(), "No security key is connected");
    // A site the host did not name.
    performRequests({PlatformRegistrationRequest{"elsewhere.test", challenge, "ann", userID}});
    EXPECT_EQ(lastMessage(), "Passkeys of elsewhere.test are not allowed for this app");

    PrivateSecretService secrets;
    ASSERT_TRUE(secrets.ready());
    // Neither the keyring nor a key has the credential: both reasons, and the page hears them.
    performRequests({PlatformAssertionRequest{kRelyingParty, challenge, {unknown}},
                     SecurityKeyAssertionRequest{kRelyingParty, challenge, {{unknown, {SecurityKeyTransport::usb}}}}});
    EXPECT_EQ(
        lastMessage(),
        "No passkey of kelvane.test in this keyring matches the allowed credentials; No security key is connected");
    Json refused = signFido(challenge, Json::array({{{"id", byteArray(unknown)}, {"type", "public-key"}}}));
    EXPECT_EQ(refused["success"], false);
    EXPECT_EQ(refused["message"], lastMessage());
    EXPECT_EQ(refused["errorCodes"], Json::array({"fidoVerifyFailed"}));

    // A locked keyring is not unlocked behind the user's back.
    ASSERT_TRUE(secrets.lockDefaultKeyring());
    performRequests({PlatformRegistrationRequest{kRelyingParty, challenge, "ann", userID}});
    EXPECT_EQ(lastMessage(), "The Secret Service's default keyring is locked: unlock it to use passkeys");
    EXPECT_TRUE(delegate->credentials.empty());
    EXPECT_EQ(delegate->errors.size(), 5u);
}
