#include "SettingsPath.h"

#include <vector>

#include "velmora/platform/PropertyList.h"  // isValidUtf8

namespace velmora::gsettings {
namespace {

constexpr std::size_t kApplicationComponents = 3;

bool isAsciiCapital(char c) { return c >= 'A' && c <= 'Z'; }

bool isLiteral(unsigned char c) {
  return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '_' || c == '-';
}

void appendEscaped(std::string& out, std::string_view component) {
  static constexpr char kHex[] = "0123456789ABCDEF";
  for (unsigned char c : component) {
    if (isLiteral(c)) {
      out += static_cast<char>(c);
    } else {
      out += '%';
      out += kHex[c >> 4];
      out += kHex[c & 0xF];
    }
  }
}

// components[from, to) escaped and joined by '.'.
std::string joinEscaped(const std::vector<std::string_view>& components, std::size_t from, std::size_t to) {
  std::string out;
  for (std::size_t i = from; i < to; ++i) {
    if (i > from) out += '.';
    appendEscaped(out, components[i]);
  }
  return out;
}

DirectoryMapping refused(std::string_view directory, std::string_view why) {
  return DirectoryMapping{std::nullopt, "GSettings directory \"" + std::string(directory) + "\" " + std::string(why)};
}

}  // namespace

std::optional<KeyPath> splitKeyPath(std::string_view path) {
  if (path.empty() || path.front() != '/') return std::nullopt;
  const std::size_t slash = path.rfind('/');
  return KeyPath{path.substr(0, slash + 1), path.substr(slash + 1)};
}

DirectoryMapping mapDirectory(std::string_view directory) {
  if (directory.size() < 2 || directory.front() != '/' || directory.back() != '/') {
    return refused(directory, "has no application: keys must lie below a directory such as /org/example/App/");
  }
  std::vector<std::string_view> components;
  const std::string_view inner = directory.substr(1, directory.size() - 2);
  for (std::size_t start = 0;;) {
    const std::size_t end = inner.find('/', start);
    components.push_back(inner.substr(start, end == std::string_view::npos ? std::string_view::npos : end - start));
    if (components.back().empty()) return refused(directory, "holds an empty component");
    if (end == std::string_view::npos) break;
    start = end + 1;
  }
  std::size_t appCount = std::min(kApplicationComponents, components.size());
  if (components.size() > kApplicationComponents && isAsciiCapital(components[3].front())) {
    bool thirdHasCapital = false;
    for (char c : components[2]) thirdHasCapital = thirdHasCapital || isAsciiCapital(c);
    if (!thirdHasCapital) appCount = kApplicationComponents + 1;
  }
  StoreAddress address{joinEscaped(components, 0, appCount), std::nullopt};
  if (appCount < components.size()) address.store = "@" + joinEscaped(components, appCount, components.size());
  const std::size_t nameBytes = address.storeName().size();
  if (nameBytes > kMaxStoreNameBytes) {
    return refused(directory, "would need a store name of " + std::to_string(nameBytes) + " bytes, over the limit of " +
                                  std::to_string(kMaxStoreNameBytes));
  }
  return DirectoryMapping{std::move(address), {}};
}

std::string keyNameRefusal(std::string_view name) {
  if (name.empty()) return "a key needs a name after the last '/'";
  if (!velmora::isValidUtf8(name) || name.find('\0') != std::string_view::npos) return "the key name is not UTF-8 text";
  if (name.size() > kMaxKeyBytes) {
    return "the key name \"" + std::string(name) + "\" is " + std::to_string(name.size()) +
           " bytes long, over the store limit of " + std::to_string(kMaxKeyBytes);
  }
  return {};
}

bool storeReachable(const StoreAddress& address, bool confined, const std::optional<std::string>& ownApplication) {
  return !confined || (ownApplication && *ownApplication == address.application);
}

}  // namespace velmora::gsettings
