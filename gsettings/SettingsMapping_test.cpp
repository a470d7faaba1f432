// The GSettings path and value mappings: where each path lands, what is
// refused, that no two directories share a store, and that every type a
// schema may declare reads back as written (natural where promised).
#include <gtest/gtest.h>

#include <set>

#include "SettingsPath.h"
#include "SettingsValue.h"

namespace velmora::gsettings {
namespace {

using velmora::PropertyList;

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

struct ValueCase {
  const char* type;
  const char* text;  // GVariant text
  bool natural;      // stored as anything but the exact form
};

bool isExactForm(const PropertyList& stored) { return stored.find("gvariant-type") != nullptr; }

GVariant* parse(const char* type, const char* text) {
  GError* error = nullptr;
  GVariant* value = g_variant_parse(G_VARIANT_TYPE(type), text, nullptr, nullptr, &error);
  EXPECT_NE(value, nullptr) << text << ": " << (error != nullptr ? error->message : "");
  g_clear_error(&error);
  return value != nullptr ? g_variant_ref_sink(value) : nullptr;
}

TEST(SettingsValueTest, EveryTypeReadsBackAsWrittenInItsPromisedForm) {
  // The scalar types, arrays of strings and simple dictionaries also run
  // through the real module in the integration tier; these are the rest.
  const std::vector<ValueCase> cases = {
      {"d", "-0.0", true}, {"s", "'h\xc3\xa9llo \"q\"'", true}, {"as", "@as []", true},
      {"a{sv}", "{'a': <1>, 'b': <'x'>, 'c': <[<true>]>, 'd': <{'e': <2.5>}>, 'f': <int64 5000000000>}", true},
      {"a{sv}", "{'a': <byte 1>, 'b': <int64 5>, 'c': <@ms nothing>}", true},
      {"a{sv}", "{'b': <1>, 'a': <2>}", false}, {"a{sv}", "{'a': <1>, 'a': <2>}", false}, {"g", "'a{sv}'", false},
      {"ms", "@ms nothing", false}, {"ms", "just 'x'", false}, {"mmb", "just nothing", false},
      {"a{ss}", "{'k': 'v'}", false},
      {"aa{sv}", "[{'position': <1>}]", false}, {"(sa{sv}av)", "('s', {'k': <(1, 2)>}, [<'x'>, <@mi 7>])", false},
      {"v", "<(1, 'a')>", false}, {"()", "()", false}};
  for (const ValueCase& c : cases) {
    GVariant* written = parse(c.type, c.text);
    if (written == nullptr) continue;
    const PropertyList stored = toPropertyList(written);
    EXPECT_TRUE(stored.isValidForBinaryFormat()) << c.text;
    EXPECT_EQ(!isExactForm(stored), c.natural) << c.text << " -> " << stored.description();
    GVariant* read = toVariant(stored, G_VARIANT_TYPE(c.type));
    ASSERT_NE(read, nullptr) << c.text;
    EXPECT_TRUE(g_variant_equal(read, written) && !g_variant_is_floating(read))
        << c.text << " read back as " << g_variant_print(read, TRUE);
    g_variant_unref(read);
    g_variant_unref(written);
  }
}

}  // namespace
}  // namespace velmora::gsettings
