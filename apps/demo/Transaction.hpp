#pragma once

// Where the demo's transaction comes from: a push file, a link, a QR code, or one minted at the
// sandbox.

#include "Options.hpp"

#include <kelvane/Json.hpp>

#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace demo {

struct Transaction {
    // How the summary names it.
    std::string description;
    // A push message ({"payload": "<payload text>"}), a link to resolve, or a PNG whose QR code
    // the scanner reads.
    std::optional<kelvane::Json> message;
    std::optional<std::string> deeplink;
    std::optional<std::string> qrImage;
    std::optional<std::string> key;
    // Where the sandbox shows what it recorded of a transaction it minted.
    std::optional<std::string> sandboxRecord;
};

struct LoadResult {
    std::optional<Transaction> transaction;
    int exitCode = kCompleted;  // when there is no transaction
    std::string reason;
};

// Reads the push file or takes the link; with neither, mints one at the sandbox on a thread of
// its own (writing its QR code to the --qr file, when one is named), or else takes the --qr
// file as it is. `done` runs once, on the main queue.
void loadTransaction(const Options& options, std::function<void(LoadResult)> done);

// What the sandbox checked of the device's answers ("passkey assertion verified, counter 0 -> 1",
// ...), read from its record of the transaction; nothing when it cannot be read. Blocks for at
// most a few seconds.
std::vector<std::string> sandboxChecks(const std::string& recordURL);

}  // namespace demo
