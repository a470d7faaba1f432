#include "AccountConfig.h"

#include <sys/random.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "Store.h"
#include "velmora/platform/Environment.h"
#include "velmora/platform/Network.h"
#include "velmora/platform/PlistCodec.h"
#include "velmora/platform/PropertyList.h"

namespace velmorad {

using velmora::PropertyList;

namespace {

constexpr std::string_view kServerKey = "server";
constexpr std::string_view kTokenKey = "token";
constexpr std::string_view kDeviceKey = "device";

std::string hex(const std::uint8_t* bytes, std::size_t count) {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string out;
  out.reserve(count * 2);
  for (std::size_t i = 0; i < count; ++i) {
    out.push_back(kDigits[bytes[i] >> 4]);
    out.push_back(kDigits[bytes[i] & 0xf]);
  }
  return out;
}

std::string stringEntry(const velmora::PlistDictionary& dict, std::string_view key) {
  auto it = dict.find(key);
  const std::string* text = it != dict.end() ? it->second.getString() : nullptr;
  return text != nullptr ? *text : std::string();
}

}  // namespace

std::optional<ServerAddress> parseServerUrl(const std::string& url, std::string* error) {
  std::string rest = url;
  std::optional<bool> tls;
  if (rest.rfind("https://", 0) == 0) {
    tls = true;
    rest.erase(0, 8);
  } else if (rest.rfind("http://", 0) == 0) {
    tls = false;
    rest.erase(0, 7);
  } else if (rest.find("://") != std::string::npos) {
    *error = "unsupported scheme in \"" + url + "\" (use http:// or https://)";
    return std::nullopt;
  }
  if (!rest.empty() && rest.back() == '/') rest.pop_back();
  const std::size_t colon = rest.rfind(':');
  if (rest.empty() || rest.find('/') != std::string::npos || colon == std::string::npos || colon == 0 ||
      colon + 1 == rest.size() || rest.find_first_not_of("0123456789", colon + 1) != std::string::npos) {
    *error = "\"" + url + "\" is not a server address like https://host:port";
    return std::nullopt;
  }
  // The token travels with every call: in plaintext only to this machine.
  const bool loopback = velmora::isLoopbackHost(std::string_view(rest).substr(0, colon));
  if (tls == false && !loopback) {
    *error = "plaintext (http://) only to a loopback address (127.0.0.0/8, ::1, localhost); use https://";
    return std::nullopt;
  }
  return ServerAddress{rest, tls.value_or(!loopback)};
}

std::string AccountConfig::accountIdentifier() const {
  if (!loggedIn()) return {};
  // FNV-1a, 64 bits, twice with different offsets: an identifier, not a
  // secret; it only has to tell accounts apart.
  std::uint64_t a = 0xcbf29ce484222325ULL;
  std::uint64_t b = 0x84222325cbf29ce4ULL;
  for (unsigned char c : token) {
    a = (a ^ c) * 0x100000001b3ULL;
    b = (b ^ c) * 0x100000001b3ULL;
  }
  std::uint8_t bytes[16];
  for (int i = 0; i < 8; ++i) {
    bytes[i] = static_cast<std::uint8_t>(a >> (56 - 8 * i));
    bytes[8 + i] = static_cast<std::uint8_t>(b >> (56 - 8 * i));
  }
  return "account-" + hex(bytes, sizeof bytes);
}

std::optional<std::filesystem::path> accountConfigPath(const velmora::Environment& environment) {
  if (std::optional<std::string> config = environment.getVariable("XDG_CONFIG_HOME");
      config && !config->empty() && (*config)[0] == '/') {
    return std::filesystem::path(*config) / "velmora" / "account.plist";
  }
  std::optional<std::string> home = environment.homeDirectory();
  if (!home) return std::nullopt;
  return std::filesystem::path(*home) / ".config" / "velmora" / "account.plist";
}

std::optional<AccountConfig> loadAccountConfig(const std::filesystem::path& path, std::string* error) {
  struct stat info{};
  if (::stat(path.c_str(), &info) != 0) {
    if (errno == ENOENT) return AccountConfig{};
    *error = "cannot read " + path.string() + ": " + std::strerror(errno);
    return std::nullopt;
  }
  const PropertyList file = velmora::readPlistFile(path.string());
  const velmora::PlistDictionary* dict = file.getDictionary();
  if (dict == nullptr) {
    *error = path.string() + " is not an account file";
    return std::nullopt;
  }
  AccountConfig config;
  config.server = stringEntry(*dict, kServerKey);
  config.token = stringEntry(*dict, kTokenKey);
  config.device = stringEntry(*dict, kDeviceKey);
  return config;
}

bool saveAccountConfig(const std::filesystem::path& path, const AccountConfig& config, std::string* error) {
  velmora::PlistDictionary dict;
  if (!config.device.empty()) dict.emplace(kDeviceKey, PropertyList::string(config.device));
  if (config.loggedIn()) {
    dict.emplace(kServerKey, PropertyList::string(config.server));
    dict.emplace(kTokenKey, PropertyList::string(config.token));
  }
  std::optional<velmora::Bytes> bytes = velmora::encodeBinaryPlist(PropertyList::dictionary(std::move(dict)));
  if (!bytes) {
    *error = "the account cannot be encoded";
    return false;
  }
  return writeFileAtomically(path, *bytes, error);
}

std::string newDeviceIdentifier() {
  std::uint8_t bytes[16];
  std::size_t filled = 0;
  while (filled < sizeof bytes) {
    const ssize_t n = ::getrandom(bytes + filled, sizeof bytes - filled, 0);
    if (n < 0) {
      if (errno == EINTR) continue;
      std::abort();  // getrandom cannot otherwise fail with these arguments
    }
    filled += static_cast<std::size_t>(n);
  }
  return hex(bytes, sizeof bytes);
}

}  // namespace velmorad
