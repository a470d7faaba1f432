// SettingsPath: where a GSettings key lives in Velmora. A pure, deterministic
// mapping from a GSettings path to (application identifier, additional
// store, key), and the rule by which velmorad lets a confined process reach
// a store. README.md ("GSettings backend") shows examples.
//
// The mapping
// - A key path "/c1/.../cn/name" splits at its last '/' into the directory
//   "/c1/.../cn/" and the key name, which is the Velmora key unchanged.
// - The directory's first three components name the application, joined by
//   '.' (/org/gnome/TextEditor/ -> org.gnome.TextEditor); the first four do
//   when the fourth starts with an ASCII capital and the third holds none,
//   as four-part reverse-DNS names do (/io/github/user/App/ ->
//   io.github.user.App); a shorter directory is the application whole.
// - The components after those name an additional store of the application:
//   '@' and the components joined by '.'. Without any, the key lives in the
//   application's main store, where `velmora --app ID get KEY` finds it.
// - Inside a component every byte but A-Z a-z 0-9 '_' '-' is written %XX
//   (capital hex). So '.', '@' and '%' never stand for themselves, no two
//   directories share a store, and no store file "<application>-@<store>"
//   reads as another split of the same name.
// - Refused, never shortened or hashed: the top directory "/", a key name
//   that is empty, not UTF-8 or over kMaxKeyBytes, and a directory whose
//   store name ("<application>[-<store>]") is over kMaxStoreNameBytes.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace velmora::gsettings {

// The store limit on key names (the daemon's default).
inline constexpr std::size_t kMaxKeyBytes = 64;
// The longest store name, the file name without ".plist": the daemon puts
// files of up to 25 more bytes beside a store file, within the 255 bytes a
// file name may have.
inline constexpr std::size_t kMaxStoreNameBytes = 230;

// A directory's store. A value type.
struct StoreAddress {
  std::string application;
  std::optional<std::string> store;  // nullopt: the application's main store

  // "<application>" or "<application>-<store>": the store file's name
  // without ".plist". A new string the caller owns.
  std::string storeName() const { return store ? application + "-" + *store : application; }
  bool operator==(const StoreAddress&) const = default;
};

// The store of a directory, or why it has none.
struct DirectoryMapping {
  std::optional<StoreAddress> address;  // nullopt when refused
  std::string refusal;                  // one sentence naming the directory; empty when mapped
};

// A key path split at its last '/'. Both views borrow the caller's path.
struct KeyPath {
  std::string_view directory;  // with its leading and trailing '/'
  std::string_view name;       // may be empty for a path that ends in '/'
};

// Splits path at its last '/'; nullopt unless it starts with '/'. Pure.
std::optional<KeyPath> splitKeyPath(std::string_view path);

// The store of directory ("/", or '/'-separated components between a
// leading and a trailing '/'); a refusal for "/", for a directory that is
// not of that form (an empty component), and for a store name over the
// limit. Pure; any thread.
DirectoryMapping mapDirectory(std::string_view directory);

// Why name cannot be a key of a store (one sentence), or an empty string
// when it can. Pure; any thread.
std::string keyNameRefusal(std::string_view name);

// Whether velmorad serves address to a process: a confined process reaches
// only its own application's stores, and nothing when its identity is
// unknown. Pure; any thread.
bool storeReachable(const StoreAddress& address, bool confined, const std::optional<std::string>& ownApplication);

}  // namespace velmora::gsettings
