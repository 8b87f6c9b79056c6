#include "LinuxDevice.hpp"

#include <glib.h>

#include <cctype>
#include <fstream>
#include <map>

namespace kelvane::gtk {

namespace {

std::string firstLine(const char* path) {
    std::ifstream in(path);
    std::string line;
    std::getline(in, line);
    while (!line.empty() && std::isspace(static_cast<unsigned char>(line.back()))) line.pop_back();
    return line;
}

std::map<std::string, std::string> osRelease() {
    std::map<std::string, std::string> fields;
    for (const char* path : {"/etc/os-release", "/usr/lib/os-release"}) {
        std::ifstream in(path);
        std::string line;
        while (std::getline(in, line)) {
            auto equals = line.find('=');
            if (equals == std::string::npos || line.starts_with("#")) continue;
            std::string value = line.substr(equals + 1);
            if (value.size() >= 2 && (value.front() == '"' || value.front() == '\'') && value.back() == value.front()) {
                value = value.substr(1, value.size() - 2);
            }
            fields.emplace(line.substr(0, equals), value);
        }
        if (!fields.empty()) break;
    }
    return fields;
}

}  // namespace

std::string vendorIdentifier(const std::string& machineId, const std::string& bundleIdentifier) {
    std::string seed = machineId + "\n" + bundleIdentifier;
    GChecksum* checksum = g_checksum_new(G_CHECKSUM_SHA256);
    g_checksum_update(checksum, reinterpret_cast<const guchar*>(seed.data()), static_cast<gssize>(seed.size()));
    guint8 digest[32];
    gsize length = sizeof digest;
    g_checksum_get_digest(checksum, digest, &length);
    g_checksum_free(checksum);
    digest[6] = static_cast<guint8>((digest[6] & 0x0f) | 0x50);
    digest[8] = static_cast<guint8>((digest[8] & 0x3f) | 0x80);
    static const char* hex = "0123456789ABCDEF";
    std::string text;
    for (int i = 0; i < 16; ++i) {
        if (i == 4 || i == 6 || i == 8 || i == 10) text += '-';
        text += hex[digest[i] >> 4];
        text += hex[digest[i] & 0x0f];
    }
    return text;
}

LinuxDevice::LinuxDevice(const std::string& bundleIdentifier) {
    model_ = firstLine("/sys/class/dmi/id/product_name");
    if (model_.empty() || model_ == "To Be Filled By O.E.M.") model_ = "Linux";
    auto release = osRelease();
    systemName_ = release.count("NAME") ? release["NAME"] : "Linux";
    systemVersion_ = release.count("VERSION_ID") ? release["VERSION_ID"] : "";
    auto machineId = firstLine("/etc/machine-id");
    if (machineId.empty()) machineId = firstLine("/var/lib/dbus/machine-id");
    if (!machineId.empty()) vendor_ = vendorIdentifier(machineId, bundleIdentifier);
}

}  // namespace kelvane::gtk
