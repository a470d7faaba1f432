// The GSettings path mapping: where each path lands, what is refused, and
// that no two directories share a store. The value mapping is tested through
// the built module (VelmoraSettingsBackend_integration_test).
#include <gtest/gtest.h>

#include <set>

#include "SettingsPath.h"

namespace velmora::gsettings {
namespace {


struct PathCase {
  std::string directory;
  std::optional<StoreAddress> expected;  // nullopt: refused
};

const std::string kLongest = std::string(kMaxStoreNameBytes - 7, 'x');  // after "org.ex.": the limit

TEST(SettingsPathTest, PathsMapToTheDocumentedStoresAndNeverShareOne) {
  const std::vector<PathCase> cases = {
      {"/org/gnome/TextEditor/", StoreAddress{"org.gnome.TextEditor", {}}},
      {"/org/gnome/terminal/legacy/profiles:/:b1dcc9dd-5262-4d8d-a863-c897e6d979b9/",
       StoreAddress{"org.gnome.terminal", "@legacy.profiles%3A.%3Ab1dcc9dd-5262-4d8d-a863-c897e6d979b9"}},
      {"/io/github/user/App/", StoreAddress{"io.github.user.App", {}}},
      {"/io/github/user/App/sub/", StoreAddress{"io.github.user.App", "@sub"}},
      {"/org/gtk/Settings/FileChooser/", StoreAddress{"org.gtk.Settings", "@FileChooser"}},
      {"/org/gnome/foo-bar/", StoreAddress{"org.gnome.foo-bar", {}}},
      {"/org/gnome/foo/bar/", StoreAddress{"org.gnome.foo", "@bar"}},
      {"/org/gnome/foo/bar.baz/", StoreAddress{"org.gnome.foo", "@bar%2Ebaz"}},
      {"/org/gnome/foo/bar/baz/", StoreAddress{"org.gnome.foo", "@bar.baz"}},
      {"/org.gnome/foo/", StoreAddress{"org%2Egnome.foo", {}}},
      {"/a b/%40/@/", StoreAddress{"a%20b.%2540.%40", {}}},
      {"/apps/caf\xc3\xa9/", StoreAddress{"apps.caf%C3%A9", {}}},
      {"/org/ex/" + kLongest + "/", StoreAddress{"org.ex." + kLongest, {}}},
      {"/org/ex/" + kLongest + "x/", std::nullopt},
      {"/", std::nullopt},
      {"//", std::nullopt},
      {"/org//x/", std::nullopt},
      {"org/x/", std::nullopt},
  };
  EXPECT_EQ(keyNameRefusal(std::string(kMaxKeyBytes, 'k')), "");
  for (const std::string& name : {std::string(), std::string(kMaxKeyBytes + 1, 'k'), std::string("a\xff")}) {
    EXPECT_NE(keyNameRefusal(name), "") << name;
  }
  std::set<std::string> names;
  for (const PathCase& c : cases) {
    const DirectoryMapping mapping = mapDirectory(c.directory);
    EXPECT_EQ(mapping.address, c.expected) << c.directory;
    EXPECT_EQ(mapping.refusal.empty(), mapping.address.has_value()) << c.directory;
    if (mapping.address) {
      EXPECT_LE(mapping.address->storeName().size(), kMaxStoreNameBytes);
      EXPECT_TRUE(names.insert(mapping.address->storeName()).second) << "shared store: " << c.directory;
    }
  }
}

}  // namespace
}  // namespace velmora::gsettings
