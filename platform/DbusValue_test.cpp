// Conversion between property lists and bus messages, without a bus daemon:
// messages are made on a bus object over a socketpair, sealed and read back.
#include "velmora/platform/DbusValue.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <cmath>
#include <limits>
#include <map>
#include <string>

#include "velmora/platform/Ipc.h"

namespace velmora {
namespace {

class DbusValueTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds_), 0);
    ASSERT_GE(sd_bus_new(&bus_), 0);
    ASSERT_GE(sd_bus_set_fd(bus_, fds_[0], fds_[0]), 0);
    ASSERT_GE(sd_bus_start(bus_), 0);  // message creation wants a started bus
  }
  void TearDown() override {
    sd_bus_message_unref(message_);
    sd_bus_close_unref(bus_);
    ::close(fds_[1]);
  }

  // A fresh method call to append to.
  sd_bus_message* newMessage() {
    sd_bus_message_unref(message_);
    message_ = nullptr;
    EXPECT_GE(sd_bus_message_new_method_call(bus_, &message_, "com.vantrel.test", "/t", "com.vantrel.test", "M"), 0);
    return message_;
  }
  // Seals the message and moves the read position to its first argument.
  sd_bus_message* sealed() {
    EXPECT_GE(sd_bus_message_seal(message_, 1, 0), 0);
    EXPECT_GE(sd_bus_message_rewind(message_, 1), 0);
    return message_;
  }
  PropertyList roundTrip(const PropertyList& dict) {
    auto object = ipcObjectFromPropertyList(dict);
    EXPECT_TRUE(object.has_value());
    if (!object) return {};
    EXPECT_GE(appendIpcObject(newMessage(), *object), 0);
    return readDbusDictionary(sealed()).value_or(PropertyList());
  }
  // The variant signature each top-level entry travelled as.
  std::map<std::string, std::string> entrySignatures() {
    std::map<std::string, std::string> out;
    sd_bus_message* m = sealed();
    EXPECT_GT(sd_bus_message_enter_container(m, 'a', "{sv}"), 0);
    while (sd_bus_message_enter_container(m, 'e', "sv") > 0) {
      const char* key = nullptr;
      char type = 0;
      const char* contents = nullptr;
      sd_bus_message_read_basic(m, 's', &key);
      sd_bus_message_peek_type(m, &type, &contents);
      out[key] = contents;
      sd_bus_message_skip(m, "v");
      sd_bus_message_exit_container(m);
    }
    return out;
  }

  int fds_[2] = {-1, -1};
  sd_bus* bus_ = nullptr;
  sd_bus_message* message_ = nullptr;
};

// Values nested `levels` deep in dictionaries or arrays around leaf.
PropertyList nested(int levels, PropertyList leaf, bool arrays = false) {
  for (int i = 0; i < levels; ++i) leaf = arrays ? makeArray({leaf}) : makeDictionary({{"k", leaf}});
  return leaf;
}

const std::string withNul("a\0b", 3);

PropertyList everyType() {
  PropertyList shared = PropertyList::integer(1);  // a tree of 2^20 leaves in 21 payloads
  for (int i = 0; i < 20; ++i) shared = makeArray({shared, shared});
  return makeDictionary({
      {"true", PropertyList::boolean(true)},
      {"false", PropertyList::boolean(false)},
      {"min", PropertyList::integer(std::numeric_limits<std::int64_t>::min())},
      {"max", PropertyList::integer(std::numeric_limits<std::int64_t>::max())},
      {"big", PropertyList::unsignedInteger(std::numeric_limits<std::uint64_t>::max())},
      {"real", PropertyList::real(-2.5)},
      {"nan", PropertyList::real(std::nan(""))},
      {"date", PropertyList::date(-978307200.25)},
      {"string", PropertyList::string("h\xC3\xA9llo \xF0\x9F\x8C\x8D")},
      {"empty string", PropertyList::string("")},
      {"data", PropertyList::data(Bytes{0, 1, 0, 255})},
      {"empty data", PropertyList::data(Bytes{})},
      {"array", makeArray({PropertyList::integer(1), PropertyList::string("two"),
                           makeArray({PropertyList::date(3)}), PropertyList::dictionary({})})},
      {"empty array", PropertyList::array({})},
      {"dict", makeDictionary({{"inner", makeDictionary({{"x", PropertyList::real(0.5)}})}})},
      {"", PropertyList::string("empty key")},
      // What the natural form cannot hold travels encoded: NUL, nesting the
      // bus would refuse, a tree far larger than its shared form.
      {"nul", PropertyList::string(withNul)},
      {"nul key", makeDictionary({{withNul, PropertyList::integer(1)}})},
      {"deep", nested(40, PropertyList::date(7), true)},
      {"shared", shared},
  });
}

TEST_F(DbusValueTest, EveryTypeRoundTripsWithItsWireSignature) {
  const PropertyList original = everyType();
  EXPECT_EQ(roundTrip(original), original);

  ASSERT_GE(appendIpcObject(newMessage(), *ipcObjectFromPropertyList(original)), 0);
  auto signatures = entrySignatures();
  for (const auto& [key, signature] : {std::pair{"true", "b"}, {"max", "x"}, {"big", "t"}, {"real", "d"},
                                       {"date", "(d)"}, {"string", "s"}, {"data", "ay"}, {"array", "av"},
                                       {"dict", "a{sv}"}, {"nul", "(ay)"}, {"nul key", "(ay)"}, {"deep", "av"},
                                       {"shared", "(ay)"}}) {
    EXPECT_EQ(signatures[key], signature) << key;
  }

  PropertyList back = roundTrip(original);
  EXPECT_TRUE(back.find("big")->isUnsignedInteger());
  EXPECT_FALSE(back.find("max")->isUnsignedInteger());
  EXPECT_TRUE(back.find("date")->isDate());
}

// Only what the binary format itself refuses is refused.
TEST_F(DbusValueTest, ValuesTheBinaryFormatRefusesAreRefused) {
  const std::string badUtf8 = "\xC3\x28";
  for (const PropertyList& value : {
           makeDictionary({{"k", PropertyList::string(badUtf8)}}),
           makeDictionary({{"k", makeDictionary({{badUtf8, PropertyList::integer(1)}})}}),
           makeDictionary({{withNul, PropertyList::integer(1)}}),  // the top's keys are the message's own
           makeDictionary({{"k", makeArray({PropertyList::integer(1), PropertyList()})}}),
           nested(PropertyList::kMaxDepth + 1, PropertyList::integer(1)),
           makeArray({PropertyList::integer(1)}),  // the top must be a dictionary
           PropertyList(),
       }) {
    EXPECT_FALSE(ipcObjectFromPropertyList(value).has_value()) << value.description().substr(0, 80);
  }
  EXPECT_EQ(appendDbusVariant(newMessage(), PropertyList()), -EINVAL);
}

// An encoded value is read only where it nests no deeper than the binary
// format allows, counted from the argument's top.
TEST_F(DbusValueTest, EncodedValuesAreReadWithinTheDepthLimit) {
  // As deep as the format allows, encoded below its natural top: it fits as
  // a dictionary's entry, and not one array further down.
  const PropertyList deepest = nested(PropertyList::kMaxDepth - 1, PropertyList::string(std::string(1, '\0')), true);
  for (const bool inArray : {false, true}) {
    sd_bus_message* m = newMessage();
    ASSERT_GE(sd_bus_message_open_container(m, 'a', "{sv}"), 0);
    ASSERT_GE(sd_bus_message_open_container(m, 'e', "sv"), 0);
    ASSERT_GE(sd_bus_message_append_basic(m, 's', "k"), 0);
    if (inArray) {
      ASSERT_GE(sd_bus_message_open_container(m, 'v', "av"), 0);
      ASSERT_GE(sd_bus_message_open_container(m, 'a', "v"), 0);
    }
    ASSERT_GE(appendDbusVariant(m, deepest), 0);
    for (int open = inArray ? 4 : 2; open > 0; --open) ASSERT_GE(sd_bus_message_close_container(m), 0);
    EXPECT_EQ(readDbusDictionary(sealed()).has_value(), !inArray);
  }
}

TEST_F(DbusValueTest, OtherBasicTypesReadAsTheNearestValue) {
  sd_bus_message* m = newMessage();
  int devnull = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
  ASSERT_GE(sd_bus_message_append(m, "a{sv}", 12,
                                  "y", "y", 200,
                                  "n", "n", -5,
                                  "q", "q", 65000,
                                  "i", "i", -7,
                                  "u", "u", 4000000000u,
                                  "t", "t", static_cast<std::uint64_t>(5),
                                  "o", "o", "/a/b",
                                  "g", "g", "a{sv}",
                                  "h", "h", devnull,
                                  "struct", "(is)", 5, "x",
                                  "nested", "v", "v", "x", static_cast<std::int64_t>(9),
                                  "matrix", "aai", 2, 2, 1, 2, 1, 3),
            0);
  ::close(devnull);
  std::optional<PropertyList> read = readDbusDictionary(sealed());
  ASSERT_TRUE(read.has_value());
  const PropertyList expected = makeDictionary({
      {"y", PropertyList::integer(200)},
      {"n", PropertyList::integer(-5)},
      {"q", PropertyList::integer(65000)},
      {"i", PropertyList::integer(-7)},
      {"u", PropertyList::integer(4000000000)},
      {"t", PropertyList::integer(5)},
      {"o", PropertyList::string("/a/b")},
      {"g", PropertyList::string("a{sv}")},
      // "h" is skipped: a descriptor is no value
      {"struct", makeArray({PropertyList::integer(5), PropertyList::string("x")})},
      {"nested", PropertyList::integer(9)},
      {"matrix", makeArray({makeArray({PropertyList::integer(1), PropertyList::integer(2)}),
                            makeArray({PropertyList::integer(3)})})},
  });
  EXPECT_EQ(*read, expected);
  EXPECT_FALSE(read->find("t")->isUnsignedInteger());
}

TEST_F(DbusValueTest, OddDictionariesAndTopLevels) {
  // Non-string keys become [key, value] pairs; path keys stay a dictionary.
  sd_bus_message* m = newMessage();
  ASSERT_GE(sd_bus_message_append(m, "a{is}a{ov}", 2, 1, "one", 2, "two", 1, "/p", "b", 1), 0);
  sd_bus_message* s = sealed();
  EXPECT_FALSE(readDbusDictionary(s).has_value());
  ASSERT_GE(sd_bus_message_rewind(s, 1), 0);
  EXPECT_EQ(readDbusValue(s),
            makeArray({makeArray({PropertyList::integer(1), PropertyList::string("one")}),
                       makeArray({PropertyList::integer(2), PropertyList::string("two")})}));
  EXPECT_EQ(readDbusDictionary(s), makeDictionary({{"/p", PropertyList::boolean(true)}}));

  // A variant around the dictionary is unwrapped; other value types are fine.
  m = newMessage();
  ASSERT_GE(sd_bus_message_append(m, "va{su}", "a{sv}", 1, "k", "s", "v", 2, "a", 1u, "a", 2u), 0);
  s = sealed();
  EXPECT_EQ(readDbusDictionary(s), makeDictionary({{"k", PropertyList::string("v")}}));
  // Duplicate keys: the first wins.
  EXPECT_EQ(readDbusDictionary(s), makeDictionary({{"a", PropertyList::integer(1)}}));
  EXPECT_FALSE(readDbusDictionary(s).has_value()) << "no argument left";

  // Tops that are no dictionary.
  m = newMessage();
  int devnull = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
  ASSERT_GE(sd_bus_message_append(m, "uhas", 7u, devnull, 1, "x"), 0);
  ::close(devnull);
  s = sealed();
  EXPECT_FALSE(readDbusDictionary(s).has_value());
  ASSERT_GE(sd_bus_message_rewind(s, 1), 0);
  EXPECT_EQ(readDbusValue(s), PropertyList::integer(7));
  EXPECT_FALSE(readDbusValue(s).has_value()) << "a descriptor at the top";
  EXPECT_FALSE(readDbusDictionary(s).has_value()) << "an array of strings";
}

}  // namespace
}  // namespace velmora
