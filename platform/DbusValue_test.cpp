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

namespace velmora {
namespace {

using P = PropertyList;

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
    message_ = sd_bus_message_unref(message_);
    EXPECT_GE(sd_bus_message_new_method_call(bus_, &message_, "com.vantrel.test", "/t", "com.vantrel.test", "M"), 0);
    return message_;
  }
  // Seals the message and moves the read position to its first argument.
  sd_bus_message* sealed() {
    EXPECT_GE(sd_bus_message_seal(message_, 1, 0), 0);
    EXPECT_GE(sd_bus_message_rewind(message_, 1), 0);
    return message_;
  }

  int fds_[2] = {-1, -1};
  sd_bus* bus_ = nullptr;
  sd_bus_message* message_ = nullptr;
};

// Values nested `levels` deep in arrays around leaf.
P nested(int levels, P leaf) {
  for (int i = 0; i < levels; ++i) leaf = makeArray({leaf});
  return leaf;
}

const std::string withNul("a\0b", 3);

// Each type travels in its natural form, and what that form cannot hold (NUL,
// nesting the bus would refuse, a tree far larger than its shared form) as
// its binary property list, (ay); all of it reads back unchanged.
TEST_F(DbusValueTest, EveryTypeRoundTripsWithItsWireSignature) {
  P shared = P::integer(1);  // a tree of 2^20 leaves in 21 payloads
  for (int i = 0; i < 20; ++i) shared = makeArray({shared, shared});
  const std::tuple<const char*, P, const char*> entries[] = {
      {"true", P::boolean(true), "b"}, {"false", P::boolean(false), "b"},
      {"min", P::integer(std::numeric_limits<std::int64_t>::min()), "x"},
      {"big", P::unsignedInteger(std::numeric_limits<std::uint64_t>::max()), "t"}, {"real", P::real(-2.5), "d"},
      {"nan", P::real(std::nan("")), "d"}, {"date", P::date(-978307200.25), "(d)"},
      {"string", P::string("h\xC3\xA9llo \xF0\x9F\x8C\x8D"), "s"}, {"empty string", P::string(""), "s"},
      {"data", P::data(Bytes{0, 1, 0, 255}), "ay"}, {"empty data", P::data(Bytes{}), "ay"},
      {"array", makeArray({P::integer(1), P::string("two"), makeArray({P::date(3)}), P::dictionary({})}), "av"},
      {"empty array", P::array({}), "av"},
      {"dict", makeDictionary({{"inner", makeDictionary({{"x", P::real(0.5)}})}}), "a{sv}"},
      {"", P::string("empty key"), "s"}, {"nul", P::string(withNul), "(ay)"},
      {"nul key", makeDictionary({{withNul, P::integer(1)}}), "(ay)"},
      {"deep", nested(40, P::date(7)), "av"}, {"shared", shared, "(ay)"},
  };
  PlistDictionary all;
  for (const auto& [key, value, signature] : entries) all.emplace(key, value);
  const P original = P::dictionary(all);
  ASSERT_GE(appendIpcObject(newMessage(), *ipcObjectFromPropertyList(original)), 0);
  sd_bus_message* m = sealed();
  EXPECT_EQ(readDbusDictionary(m), original);
  EXPECT_FALSE(readDbusDictionary(m).has_value()) << "no argument left";

  std::map<std::string, std::string> signatures;  // the variant signature each entry travelled as
  ASSERT_GE(sd_bus_message_rewind(m, 1), 0);
  EXPECT_GT(sd_bus_message_enter_container(m, 'a', "{sv}"), 0);
  while (sd_bus_message_enter_container(m, 'e', "sv") > 0) {
    const char* key = nullptr;
    const char* contents = nullptr;
    char type = 0;
    sd_bus_message_read_basic(m, 's', &key);
    sd_bus_message_peek_type(m, &type, &contents);
    signatures[key] = contents;
    sd_bus_message_skip(m, "v");
    sd_bus_message_exit_container(m);
  }
  for (const auto& [key, value, signature] : entries) EXPECT_EQ(signatures[key], signature) << key;
}

// Only what the binary format itself refuses is refused; an encoded value is
// read only where it nests no deeper than that format allows, counted from
// the argument's top.
TEST_F(DbusValueTest, RefusalsAndTheDepthLimit) {
  for (const P& value : {
           makeDictionary({{"k", P::string("\xC3\x28")}}),
           makeDictionary({{"k", makeDictionary({{"\xC3\x28", P::integer(1)}})}}),
           makeDictionary({{withNul, P::integer(1)}}),  // the top's keys are the message's own
           makeDictionary({{"k", makeArray({P::integer(1), P()})}}),
           makeDictionary({{"k", nested(P::kMaxDepth, P::integer(1))}}),
           makeArray({P::integer(1)}),  // the top must be a dictionary
           P(),
       }) {
    EXPECT_FALSE(ipcObjectFromPropertyList(value).has_value()) << value.description().substr(0, 80);
  }
  EXPECT_EQ(appendDbusVariant(newMessage(), P()), -EINVAL);

  // As deep as the format allows, encoded below its natural top: it fits as
  // a dictionary's entry, and not one array further down.
  const P deepest = nested(P::kMaxDepth - 1, P::string(std::string(1, '\0')));
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

// What other senders may put on the bus reads as the nearest value.
TEST_F(DbusValueTest, ForeignTypesAndShapes) {
  sd_bus_message* m = newMessage();
  const int devnull = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
  ASSERT_GE(sd_bus_message_append(m, "a{sv}", 12, "y", "y", 200, "n", "n", -5, "q", "q", 65000, "i", "i", -7, "u", "u",
                                  4000000000u, "t", "t", static_cast<std::uint64_t>(5), "o", "o", "/a/b", "g", "g",
                                  "a{sv}", "h", "h", devnull, "struct", "(is)", 5, "x", "nested", "v", "v", "x",
                                  static_cast<std::int64_t>(9), "matrix", "aai", 2, 2, 1, 2, 1, 3),
            0);
  ASSERT_GE(sd_bus_message_append(m, "a{is}a{ov}va{su}uhas", 2, 1, "one", 2, "two", 1, "/p", "b", 1, "a{sv}", 1, "k",
                                  "s", "v", 2, "a", 1u, "a", 2u, 7u, devnull, 1, "x"),
            0);
  ::close(devnull);
  sd_bus_message* s = sealed();
  EXPECT_EQ(readDbusDictionary(s),
            makeDictionary({{"y", P::integer(200)}, {"n", P::integer(-5)}, {"q", P::integer(65000)},
                            {"i", P::integer(-7)}, {"u", P::integer(4000000000)}, {"t", P::integer(5)},
                            {"o", P::string("/a/b")}, {"g", P::string("a{sv}")},  // "h" is skipped: no value
                            {"struct", makeArray({P::integer(5), P::string("x")})}, {"nested", P::integer(9)},
                            {"matrix", makeArray({makeArray({P::integer(1), P::integer(2)}),
                                                  makeArray({P::integer(3)})})}}));
  // Non-string keys make no dictionary, but [key, value] pairs; path keys do.
  EXPECT_FALSE(readDbusDictionary(s).has_value());
  ASSERT_GE(sd_bus_message_rewind(s, 1), 0);
  ASSERT_GE(sd_bus_message_skip(s, "a{sv}"), 0);
  EXPECT_EQ(readDbusValue(s), makeArray({makeArray({P::integer(1), P::string("one")}),
                                         makeArray({P::integer(2), P::string("two")})}));
  EXPECT_EQ(readDbusDictionary(s), makeDictionary({{"/p", P::boolean(true)}}));
  // A variant around the dictionary is unwrapped; of duplicate keys the first wins.
  EXPECT_EQ(readDbusDictionary(s), makeDictionary({{"k", P::string("v")}}));
  EXPECT_EQ(readDbusDictionary(s), makeDictionary({{"a", P::integer(1)}}));
  // Tops that are no dictionary.
  EXPECT_FALSE(readDbusDictionary(s).has_value());
  ASSERT_GE(sd_bus_message_rewind(s, 1), 0);
  ASSERT_GE(sd_bus_message_skip(s, "a{sv}a{is}a{ov}va{su}"), 0);
  EXPECT_EQ(readDbusValue(s), P::integer(7));
  EXPECT_FALSE(readDbusValue(s).has_value()) << "a descriptor at the top";
  EXPECT_FALSE(readDbusDictionary(s).has_value()) << "an array of strings";
}

}  // namespace
}  // namespace velmora
