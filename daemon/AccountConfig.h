// AccountConfig: the sync account velmorad is logged into, kept in the
// user's configuration directory as a small property list (mode 0600 in a
// 0700 directory), and the device identifier that names this machine to the
// server. The identifier is made once and outlives logouts, so the server
// sees one device however often the user logs in again.
//
// Nothing here is shared between threads: the sync engine owns the one copy
// it works with (see SyncEngine.h for its guard).
#pragma once

#include <filesystem>
#include <optional>
#include <string>

namespace velmora {
class Environment;
}

namespace velmorad {

// Where the server is and how to talk to it, from the URL given at login.
struct ServerAddress {
  std::string target;  // "host:port", as the transport dials it
  bool tls = true;     // false: plaintext (http://, or a loopback host given bare)
};

// Parses "http://host:port", "https://host:port" or "host:port" (TLS unless
// the host is loopback: 127.0.0.0/8, ::1 or localhost). http:// is refused
// for any other host. A trailing "/" is allowed, any other path is not.
// nullopt with *error set for anything else.
// Pure; any thread.
std::optional<ServerAddress> parseServerUrl(const std::string& url, std::string* error);

struct AccountConfig {
  std::string server;  // the URL given at login; empty when logged out
  std::string token;   // the account's token; empty when logged out
  std::string device;  // this machine's identifier; made once (newDeviceIdentifier)

  bool loggedIn() const noexcept { return !server.empty() && !token.empty(); }

  // A stable name for the account behind the token (a hash of it, so that
  // the token itself is never written into store files); what a store's
  // "versionid" holds once it has synced with this account. Empty when
  // logged out. Pure.
  std::string accountIdentifier() const;

  bool operator==(const AccountConfig&) const = default;
};

// $XDG_CONFIG_HOME/velmora/account.plist, else ~/.config/velmora/account.plist;
// nullopt without a home directory. Any thread.
std::optional<std::filesystem::path> accountConfigPath(const velmora::Environment& environment);

// Reads the file at path. A missing file gives an empty config (logged out,
// no device yet); a file that exists but does not decode gives nullopt with
// *error set. Blocks on file I/O.
std::optional<AccountConfig> loadAccountConfig(const std::filesystem::path& path, std::string* error);

// Writes config durably (mode 0600; missing directories made with 0700).
// False with *error set when it could not be written; the old file then
// stays. Blocks on file I/O.
bool saveAccountConfig(const std::filesystem::path& path, const AccountConfig& config, std::string* error);

// 32 hex digits of fresh randomness (getrandom). Blocks only while the
// kernel's pool is not yet initialised at boot.
std::string newDeviceIdentifier();

}  // namespace velmorad
