#include "PasskeyVault.hpp"

#include <libsecret/secret.h>
#include <nlohmann/json.hpp>
#include <openssl/crypto.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>

namespace kelvane::gtk {

namespace {

const SecretSchema kSchema = {PasskeyVault::kSchemaName,
                              SECRET_SCHEMA_NONE,
                              {{"rp", SECRET_SCHEMA_ATTRIBUTE_STRING},
                               {"credential", SECRET_SCHEMA_ATTRIBUTE_STRING},
                               {"user", SECRET_SCHEMA_ATTRIBUTE_STRING},
                               {nullptr, SECRET_SCHEMA_ATTRIBUTE_STRING}},
                              0,
                              nullptr,
                              nullptr,
                              nullptr,
                              nullptr,
                              nullptr,
                              nullptr,
                              nullptr};

std::string describe(const char* what, GError* error) {
    std::string text = std::string(what) + (error ? std::string(": ") + error->message : std::string());
    g_clear_error(&error);
    return text;
}

// Whether a session bus is there to be had, without D-Bus's fallback of launching one for an X
// display: a bus that lives and dies with this process would keep no passkey.
std::optional<std::string> sessionBusAddress() {
    if (const char* address = std::getenv("DBUS_SESSION_BUS_ADDRESS"); address && *address) return address;
    if (const char* runtime = std::getenv("XDG_RUNTIME_DIR"); runtime && *runtime) {
        std::error_code ignored;
        auto socket = std::filesystem::path(runtime) / "bus";
        if (std::filesystem::is_socket(socket, ignored)) return "unix:path=" + socket.string();
    }
    return std::nullopt;
}

struct Attributes {
    GHashTable* table = g_hash_table_new_full(g_str_hash, g_str_equal, g_free, g_free);
    ~Attributes() { g_hash_table_unref(table); }
    Attributes& set(const char* name, const std::string& value) {
        g_hash_table_insert(table, g_strdup(name), g_strdup(value.c_str()));
        return *this;
    }
};

}  // namespace

struct PasskeyVault::Handles {
    SecretService* service = nullptr;
    ~Handles() { g_clear_object(&service); }
};

PasskeyVault::PasskeyVault(std::unique_ptr<Handles> handles) : handles_(std::move(handles)) {}
PasskeyVault::~PasskeyVault() = default;

Result<std::unique_ptr<PasskeyVault>> PasskeyVault::open() {
    if (!sessionBusAddress()) {
        return passkeyError(passkeyStoreUnavailable,
                            "The Secret Service cannot be reached: no D-Bus session bus (DBUS_SESSION_BUS_ADDRESS is "
                            "not set)");
    }
    auto handles = std::make_unique<Handles>();
    GError* error = nullptr;
    // A service object of its own (not libsecret's shared one, which keeps its first bus for
    // good), on the process's session bus connection.
    handles->service =
        secret_service_open_sync(SECRET_TYPE_SERVICE, nullptr, SECRET_SERVICE_OPEN_SESSION, nullptr, &error);
    if (!handles->service) {
        return passkeyError(passkeyStoreUnavailable, describe("The Secret Service is not available", error));
    }
    SecretCollection* collection = secret_collection_for_alias_sync(handles->service, SECRET_COLLECTION_DEFAULT,
                                                                    SECRET_COLLECTION_NONE, nullptr, &error);
    if (!collection) {
        return passkeyError(passkeyStoreUnavailable, describe("The Secret Service has no default keyring", error));
    }
    const bool locked = secret_collection_get_locked(collection);
    g_object_unref(collection);
    if (locked) {
        return passkeyError(passkeyStoreLocked,
                            "The Secret Service's default keyring is locked: unlock it to use passkeys");
    }
    return std::unique_ptr<PasskeyVault>(new PasskeyVault(std::move(handles)));
}

std::optional<Error> PasskeyVault::store(const StoredPasskey& passkey) {
    std::string secret =
        nlohmann::json{{"privateKey", base64url(passkey.privateKey)}, {"signCount", passkey.signCount}}.dump();
    SecretValue* value = secret_value_new(secret.c_str(), static_cast<gssize>(secret.size()), "application/json");
    OPENSSL_cleanse(secret.data(), secret.size());
    Attributes attributes;
    attributes.set("rp", passkey.relyingPartyIdentifier)
        .set("credential", base64url(passkey.credentialID))
        .set("user", base64url(passkey.userHandle));
    const std::string label = "Passkey for " + passkey.relyingPartyIdentifier;
    GError* error = nullptr;
    const bool stored = secret_service_store_sync(handles_->service, &kSchema, attributes.table,
                                                  SECRET_COLLECTION_DEFAULT, label.c_str(), value, nullptr, &error);
    secret_value_unref(value);
    if (!stored) return passkeyError(passkeyStoreFailed, describe("The passkey could not be stored", error));
    return std::nullopt;
}

Result<std::vector<StoredPasskey>> PasskeyVault::find(const std::string& relyingPartyIdentifier,
                                                      const std::vector<Bytes>& allowed) {
    Attributes attributes;
    attributes.set("rp", relyingPartyIdentifier);
    GError* error = nullptr;
    GList* items =
        secret_service_search_sync(handles_->service, &kSchema, attributes.table,
                                   SecretSearchFlags(SECRET_SEARCH_ALL | SECRET_SEARCH_LOAD_SECRETS), nullptr, &error);
    if (error) return passkeyError(passkeyStoreFailed, describe("The passkeys could not be read", error));

    std::vector<std::pair<guint64, StoredPasskey>> found;
    for (GList* entry = items; entry; entry = entry->next) {
        auto* item = SECRET_ITEM(entry->data);
        GHashTable* itemAttributes = secret_item_get_attributes(item);
        auto attribute = [&](const char* name) {
            auto* text = static_cast<const char*>(g_hash_table_lookup(itemAttributes, name));
            return fromBase64url(text ? text : "");
        };
        auto credential = attribute("credential");
        auto user = attribute("user");
        g_hash_table_unref(itemAttributes);
        if (!credential || !user) continue;
        if (!allowed.empty() && std::find(allowed.begin(), allowed.end(), *credential) == allowed.end()) continue;
        SecretValue* value = secret_item_get_secret(item);
        if (!value) continue;
        gsize length = 0;
        const gchar* text = secret_value_get(value, &length);
        auto secret = nlohmann::json::parse(text, text + length, nullptr, false);
        secret_value_unref(value);
        if (!secret.is_object() || !secret["privateKey"].is_string() || !secret["signCount"].is_number_unsigned()) {
            continue;
        }
        auto key = fromBase64url(secret["privateKey"].get_ref<const std::string&>());
        if (!key) continue;
        found.push_back(
            {secret_item_get_created(item), StoredPasskey{relyingPartyIdentifier, *credential, *user, std::move(*key),
                                                          secret["signCount"].get<std::uint32_t>()}});
    }
    g_list_free_full(items, g_object_unref);
    std::stable_sort(found.begin(), found.end(), [](const auto& a, const auto& b) { return a.first > b.first; });
    std::vector<StoredPasskey> passkeys;
    for (auto& [created, passkey] : found) passkeys.push_back(std::move(passkey));
    return passkeys;
}

}  // namespace kelvane::gtk
