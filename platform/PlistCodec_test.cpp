// The property-list codecs: both formats against two independent
// implementations (Python's plistlib through tests/plist_oracle.py, and
// libplist), then hand-made input for what no writer produces.
#include "velmora/platform/PlistCodec.h"

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <bit>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <limits>

#ifdef VELMORA_HAVE_LIBPLIST
#include <plist/plist.h>
#endif

#include "ScratchEnvironment.h"

namespace velmora {
namespace {

using P = PropertyList;
using Strings = std::vector<std::string>;

std::span<const std::uint8_t> bytesOf(std::string_view s) {
  return {reinterpret_cast<const std::uint8_t*>(s.data()), s.size()};
}

// ---------------------------------------------------------------------------
// The canonical description shared with tests/plist_oracle.py.

std::string hex(std::span<const std::uint8_t> bytes) {
  std::string out;
  char digits[3];
  for (std::uint8_t b : bytes) out.append(digits, std::snprintf(digits, sizeof digits, "%02x", b));
  return out;
}

std::string doubleHex(double d) {  // the big-endian IEEE double
  char digits[17];
  std::snprintf(digits, sizeof digits, "%016llx", static_cast<unsigned long long>(std::bit_cast<std::uint64_t>(d)));
  return digits;
}

std::string canonical(const P& v);

Strings canonicalEntries(const PlistDictionary& d) {
  Strings out;  // the map is already in UTF-8 byte order
  for (const auto& [key, item] : d) out.push_back(hex(bytesOf(key)) + "=" + canonical(item));
  return out;
}

std::string canonical(const P& v) {
  std::string out;
  switch (v.type()) {
    case PlistType::None: return "none";
    case PlistType::Boolean: return v.booleanValue() ? "b1" : "b0";
    case PlistType::Integer:
      return "i" + (v.isUnsignedInteger() ? std::to_string(v.unsignedValue()) : std::to_string(v.integerBits()));
    case PlistType::Real: return std::isnan(v.realValue()) ? "rnan" : "r" + doubleHex(v.realValue());
    case PlistType::Date: return "t" + doubleHex(v.dateValue());
    case PlistType::String: return "s" + hex(bytesOf(*v.getString()));
    case PlistType::Data: return "d" + hex(*v.getData());
    case PlistType::Array:
      for (const auto& item : *v.getArray()) out += (out.empty() ? "" : ",") + canonical(item);
      return "[" + out + "]";
    case PlistType::Dictionary:
      for (const auto& e : canonicalEntries(*v.getDictionary())) out += (out.empty() ? "" : ",") + e;
      return "{" + out + "}";
  }
  return "?";
}

// One line per entry of a top-level dictionary, as the oracle prints it.
Strings canonicalLines(const P& v) {
  return v.isDictionary() ? canonicalEntries(*v.getDictionary()) : Strings{canonical(v)};
}

// Compares line by line: each starts with its case's name (in hex).
void expectSameLines(const P& expected, const Strings& actual, const std::string& what) {
  const Strings lines = canonicalLines(expected);
  ASSERT_EQ(lines.size(), actual.size()) << what;
  for (std::size_t i = 0; i < lines.size(); ++i) EXPECT_EQ(lines[i], actual[i]) << what;
}

// Runs the oracle on files in a scratch directory. A missing python3 is a
// failure, never a skip: it is a required test dependency (scripts/setup-deps).
bool runOracle(const std::string& arguments) {
  const int status = std::system(("python3 '" VELMORA_SOURCE_DIR "/tests/plist_oracle.py' " + arguments).c_str());
  EXPECT_EQ(status, 0) << "plist_oracle.py " << arguments << (WEXITSTATUS(status) == 127 ? ": no python3?" : "");
  return status == 0;
}

// ---------------------------------------------------------------------------
// Interop cases: each is an entry of one top-level dictionary per run.

struct Case {
  std::string name;
  P value;
  bool xml = true;       // XML has whole-second dates and no control characters
  bool libplist = true;  // libplist 2.2: no unsigned integers, dates in 32-bit seconds, C strings
};

Bytes pattern(std::size_t n) {
  Bytes b(n);
  for (std::size_t i = 0; i < n; ++i) b[i] = static_cast<std::uint8_t>(i * 7 + i / 251);
  return b;
}

P nested(int depth) {
  P v = P::string("bottom");
  for (int i = 0; i < depth; ++i) v = i % 2 ? makeDictionary({{"level", v}}) : P::array({P::integer(i), v});
  return v;
}

P cases(bool (*keep)(const Case&)) {
  using Int64 = std::numeric_limits<std::int64_t>;
  std::vector<Case> c = {
      {"uint 2^63", P::unsignedInteger(std::uint64_t{1} << 63), true, false},
      {"uint max", P::unsignedInteger(~std::uint64_t{0}), true, false},
      {"data empty", P::data(Bytes{})}, {"data 600", P::data(pattern(600))}, {"data 70k", P::data(pattern(70 * 1024))},
      {"bool true", P::boolean(true)}, {"bool false", P::boolean(false)},
      {"keys", makeDictionary({{"cl\xc3\xa9", P::integer(1)}, {"\xe9\x94\xae", P::integer(2)},
                               {"\xf0\x9f\x94\x91", P::integer(3)}, {"", P::integer(4)}, {"<&>", P::integer(5)}})},
      {"array empty", P::array({})}, {"dict empty", P::dictionary({})}, {"nested 100", nested(100)},
  };
  for (std::int64_t i : std::initializer_list<std::int64_t>{0, -1, 255, 256, 65535, 65536, 0xFFFFFFFF, 0x100000000,
                                                            -2147483648, Int64::max(), Int64::min()})
    c.push_back({"int " + std::to_string(i), P::integer(i)});
  for (double r : {0.5, -0.0, 1e300, std::numeric_limits<double>::denorm_min(), -3.141592653589793, std::nan(""),
                   HUGE_VAL, -HUGE_VAL})
    c.push_back({"real " + doubleHex(r), P::real(r)});
  // Years 1, 1900, 1900-03-01, 2000-02-29, 2038, 2100, 9999, 1950, 2060 and
  // fractions. XML has whole seconds; libplist 2.2, 32-bit ones.
  for (double t : {-63113904000.0, -3187296000.0, -3182198400.0, -26524800.0, 1169176448.0, 3124137600.0,
                   252423993599.0, -1595158155.0, 1866934923.0, 1866934923.5, -63113904000.0 + 0.25})
    c.push_back({"date " + std::to_string(t), P::date(t), t == std::floor(t), std::abs(t) < 2147483648.0});
  // NUL is no XML character, and libplist cuts C strings at it.
  for (const std::string& text : {std::string("hello, world"), std::string(), std::string("<a href=\"x\">&amp;</a> ]]> 'q'"),
                                  std::string("  \t\n  "), std::string("caf\xc3\xa9"),
                                  std::string("\xe6\x97\xa5\xe6\x9c\xac\xe8\xaa\x9e"),
                                  std::string("smile \xf0\x9f\x98\x80 and \xf0\x9f\x8c\x8d"),
                                  std::string(1000, 'x') + "\xc3\xa9", std::string("a\0b", 3),
                                  std::string("\xc3\xa9\0\xf0\x9f\x98\x80", 7)}) {
    const bool nul = text.find('\0') != std::string::npos;
    c.push_back({"str " + std::to_string(c.size()), P::string(text), !nul, !nul});
  }
  PlistArray twenty, threeHundred;
  PlistDictionary dict20;
  for (int i = 0; i < 20; ++i) {
    twenty.push_back(P::integer(i * 1000));
    dict20.emplace("k" + std::to_string(100 + i), P::real((i + 1) / 4.0));  // no 0.0: plistlib merges -0 into it
  }
  for (int i = 0; i < 300; ++i) threeHundred.push_back(P::string("item " + std::to_string(i)));
  c.push_back({"array 20", P::array(twenty)});
  c.push_back({"array 300", P::array(threeHundred)});
  c.push_back({"dict 20", P::dictionary(dict20)});
  c.push_back({"shared", P::array({P::array(twenty), P::array(twenty), P::string("item 7")})});
  PlistDictionary d;
  for (Case& one : c)
    if (keep(one)) d.emplace(one.name, one.value);
  return P::dictionary(std::move(d));
}

P allCases() { return cases([](const Case&) { return true; }); }
P xmlCases() { return cases([](const Case& c) { return c.xml; }); }
// Small enough for one-byte offsets and references.
P smallCase() {
  return makeDictionary({{"i", P::integer(-7)}, {"s", P::string("\xc3\xa9t\xc3\xa9")}, {"d", P::date(0.5)},
                         {"r", P::real(2.5)}});
}

// The file's offset and reference sizes, from its trailer.
std::pair<unsigned, unsigned> widthsOf(const Bytes& b) { return {b[b.size() - 26], b[b.size() - 25]}; }

TEST(PlistInterop, PlistlibReadsOursAndWeReadPlistlibsInBothFormats) {
  const testing::ScratchDirectory dir("plist-codec");
  const std::pair<const char*, P> runs[] = {{"binary", smallCase()}, {"binary", allCases()}, {"xml", xmlCases()}};
  for (const auto& [format, value] : runs) {
    const bool xml = format == std::string("xml");
    const Bytes binary = xml ? Bytes() : encodeBinaryPlist(value).value();
    std::ofstream(dir.file("ours"), std::ios::binary)
        << (xml ? encodeXmlPlist(value).value() : std::string(binary.begin(), binary.end()));
    ASSERT_TRUE(runOracle("describe " + dir.file("ours") + " " + dir.file("description")));
    Strings described;
    std::ifstream in(dir.file("description"));
    for (std::string line; std::getline(in, line);) described.push_back(line);
    expectSameLines(value, described, std::string("plistlib reading our ") + format);

    ASSERT_TRUE(runOracle("convert " + dir.file("ours") + " " + dir.file("theirs") + " " + format));
    const P back = decodePlist(bytesOf(testing::readFile(dir.file("theirs")).value_or("")));
    expectSameLines(value, canonicalLines(back), std::string("ours reading plistlib's ") + format);
  }
  // The corpus reaches the wide forms: 3-byte offsets past 64 KiB, 2-byte references past 255 objects.
  EXPECT_EQ(widthsOf(encodeBinaryPlist(smallCase()).value()), std::pair(1u, 1u));
  EXPECT_EQ(widthsOf(encodeBinaryPlist(allCases()).value()), std::pair(3u, 2u));
}

#ifdef VELMORA_HAVE_LIBPLIST

// libplist reads our file and writes what it read in its own layout: a
// misreading shows as a difference in what we read back.
TEST(PlistInterop, LibplistReadsOursAndWeReadLibplists) {
  const P value = cases([](const Case& c) { return c.libplist; });
  const Bytes ours = encodeBinaryPlist(value).value();
  plist_t read = nullptr;
  plist_from_bin(reinterpret_cast<const char*>(ours.data()), static_cast<std::uint32_t>(ours.size()), &read);
  ASSERT_NE(read, nullptr);
  char* theirs = nullptr;
  std::uint32_t length = 0;
  plist_to_bin(read, &theirs, &length);
  plist_free(read);
  ASSERT_NE(theirs, nullptr);
  expectSameLines(value, canonicalLines(decodeBinaryPlist(bytesOf({theirs, length}))), "libplist's copy of ours");
  plist_to_bin_free(theirs);
}

#else

TEST(PlistInterop, LibplistBuilt) {
  FAIL() << "libplist is a required test dependency: build velmora_unit_tests with libplist-2.0 "
            "and VELMORA_HAVE_LIBPLIST=1 (see scripts/setup-deps)";
}

#endif

// ---------------------------------------------------------------------------
// Binary format: hand-built files for what no writer produces.

// One object: its bytes up to the references, then the references (object
// indices), written with the file's reference size.
struct RawObject {
  Bytes head;
  std::vector<std::uint64_t> refs = {};
};

struct Layout {
  unsigned refSize = 1;
  unsigned offsetSize = 1;
  bool reversed = false;  // objects laid out last index first
};

void putBig(Bytes& out, std::uint64_t v, unsigned n) {
  for (unsigned i = n; i-- > 0;) out.push_back(static_cast<std::uint8_t>(v >> (8 * i)));
}

Bytes assemble(const std::vector<RawObject>& objects, Layout layout = {}) {
  Bytes out = {'b', 'p', 'l', 'i', 's', 't', '0', '0'};
  std::vector<std::uint64_t> offsets(objects.size());
  for (std::size_t k = 0; k < objects.size(); ++k) {
    const std::size_t i = layout.reversed ? objects.size() - 1 - k : k;
    offsets[i] = out.size();
    out.insert(out.end(), objects[i].head.begin(), objects[i].head.end());
    for (std::uint64_t r : objects[i].refs) putBig(out, r, layout.refSize);
  }
  const std::uint64_t tableOffset = out.size();
  for (std::uint64_t o : offsets) putBig(out, o, layout.offsetSize);
  out.insert(out.end(), 6, 0);
  out.push_back(static_cast<std::uint8_t>(layout.offsetSize));
  out.push_back(static_cast<std::uint8_t>(layout.refSize));
  putBig(out, objects.size(), 8);
  putBig(out, 0, 8);  // the top object
  putBig(out, tableOffset, 8);
  return out;
}

RawObject ascii(std::string_view s) {
  RawObject o{{static_cast<std::uint8_t>(0x50 | s.size())}};
  for (char c : s) o.head.push_back(static_cast<std::uint8_t>(c));
  return o;
}
RawObject utf16(std::vector<std::uint16_t> units) {
  RawObject o{{static_cast<std::uint8_t>(0x60 | units.size())}};
  for (auto u : units) putBig(o.head, u, 2);
  return o;
}
RawObject int8(std::uint8_t v) { return {{0x10, v}}; }
RawObject array(std::vector<std::uint64_t> refs) { return {{static_cast<std::uint8_t>(0xA0 | refs.size())}, refs}; }
RawObject dict(std::vector<std::uint64_t> keys, std::vector<std::uint64_t> values) {
  RawObject o{{static_cast<std::uint8_t>(0xD0 | keys.size())}, keys};
  o.refs.insert(o.refs.end(), values.begin(), values.end());
  return o;
}
RawObject wideInt(std::uint64_t high, std::uint64_t low) {  // the 128-bit form
  RawObject o{{0x14}};
  putBig(o.head, high, 8);
  putBig(o.head, low, 8);
  return o;
}

TEST(BinaryPlist, ReadsWhatOtherWritersMayWrite) {
  const std::vector<RawObject> objects = {dict({1, 2}, {3, 4}), ascii("a"), utf16({0xE9}), int8(1), array({3, 3})};
  const P expected =
      makeDictionary({{"a", P::integer(1)}, {"\xc3\xa9", makeArray({P::integer(1), P::integer(1)})}});
  for (unsigned refSize : {1u, 2u, 3u, 8u})
    for (unsigned offsetSize : {1u, 3u, 5u, 8u})
      for (bool reversed : {false, true})
        EXPECT_EQ(decodeBinaryPlist(assemble(objects, {refSize, offsetSize, reversed})), expected)
            << refSize << "/" << offsetSize << "/" << reversed;

  const std::pair<std::vector<RawObject>, P> odd[] = {
      {{wideInt(~0ull, static_cast<std::uint64_t>(-2))}, P::integer(-2)},  // the 128-bit form, negative
      {{{{0x22, 0x3F, 0xC0, 0, 0}}}, P::real(1.5)},                         // a 4-byte real
      {{utf16({0xD83D, 0xDE00})}, P::string("\xf0\x9f\x98\x80")},
      // Of repeated keys the last entry wins.
      {{dict({1, 2, 1}, {3, 4, 5}), ascii("b"), ascii("a"), int8(1), int8(2), int8(3)},
       makeDictionary({{"a", P::integer(2)}, {"b", P::integer(3)}})},
  };
  for (const auto& [objects, value] : odd) EXPECT_EQ(decodeBinaryPlist(assemble(objects)), value) << canonical(value);
}

TEST(BinaryPlist, RejectsMalformedFiles) {
  const Bytes good = assemble({array({1, 2}), ascii("ab"), int8(5)});
  ASSERT_TRUE(decodeBinaryPlist(good).isArray());
  const std::size_t t = good.size() - 32;  // the trailer; the offset table is just before it
  const struct {
    std::size_t at;
    std::uint64_t value;
    unsigned width;
    const char* what;
  } patches[] = {
      {t + 6, 0, 1, "offset size 0"}, {t + 6, 9, 1, "offset size 9"}, {t + 7, 0, 1, "ref size 0"},
      {t + 7, 9, 1, "ref size 9"}, {t + 8, 0, 8, "no objects"}, {t + 8, ~0ull, 8, "count beyond the file"},
      {t + 8, 4, 8, "table runs into the trailer"}, {t + 16, 3, 8, "top object out of range"},
      {t + 24, ~0ull, 8, "table offset beyond the file"}, {t + 24, 8, 8, "table offset inside the header"},
      {t - 1, t - 3, 1, "object offset inside the table"}, {t - 1, 2, 1, "object offset inside the header"},
      {t - 2, 9, 1, "object overlapping the one before"}, {9, 7, 1, "reference out of range"},
      {8, 0xAE, 1, "array count beyond the object area"}, {0, 'B', 1, "magic"},
  };
  for (const auto& p : patches) {
    Bytes bad = good;
    for (unsigned i = p.width, k = 0; i-- > 0; ++k) bad[p.at + i] = static_cast<std::uint8_t>(p.value >> (8 * k));
    EXPECT_TRUE(decodeBinaryPlist(bad).isNone()) << p.what;
  }
  // Two table entries for one offset are one object: a cycle all the same.
  Bytes alias = assemble({array({1}), array({})});
  alias[alias.size() - 33] = 8;  // entry 1 -> entry 0's offset
  EXPECT_TRUE(decodeBinaryPlist(alias).isNone());

  std::vector<std::pair<std::vector<RawObject>, const char*>> bad = {
      {{dict({1}, {1}), int8(1)}, "integer key"}, {{dict({1}, {}), ascii("k")}, "key without room for its value"},
      {{{{0x52, 'a', 0xE9}}}, "non-ASCII byte in an ASCII string"}, {{utf16({0xD800})}, "lone high surrogate"},
      {{utf16({0xD800, 0x0041})}, "high surrogate before a non-surrogate"}, {{utf16({0xDC00, 0xD800})}, "swapped"},
      {{{{0x00}}}, "null object"}, {{{{0x80, 0x01}}}, "uid"}, {{wideInt(1, 0)}, "needs 65 bits"},
      {{{{0x13, 0, 0, 0}}}, "integer cut short"}, {{{{0x33, 0, 0, 0, 0}}}, "date cut short"},
      {{array({0})}, "cycle onto itself"}, {{array({1}), array({2}), array({0})}, "cycle of three"},
      {{dict({1}, {0}), ascii("k")}, "cycle through a dictionary"}, {{{{0x21, 0, 0}}}, "2-byte real"},
      {{{{0x22, 0, 0}}}, "real cut short"}, {{{{0x23, 0, 0, 0, 0}}}, "double cut short"},
      {{{{0x15}}}, "32-byte integer"}, {{{{0x5F, 0x50}}}, "count not an integer"}, {{{{0x4F}}}, "count missing"},
      {{{{0x43, 1}}}, "data cut short"}, {{{{0x53, 'a'}}}, "string cut short"},
      {{{{0x62, 0, 0x41}}}, "UTF-16 cut short"}, {{dict({1}, {2}), {{0x51, 0xE9}}, int8(1)}, "non-ASCII key"},
      {{dict({1}, {2}), {{0x5F}}, int8(1)}, "key count missing"},
  };
  for (std::uint64_t count : {~0ull, ~0ull / 2 + 1, ~0ull / 8 + 1}) {  // byte sizes that overflow 64 bits
    RawObject huge{{0xAF, 0x13}};
    putBig(huge.head, count, 8);
    EXPECT_TRUE(decodeBinaryPlist(assemble({huge, int8(0)}, {8, 1})).isNone()) << count;
  }
  for (const auto& [objects, what] : bad) EXPECT_TRUE(decodeBinaryPlist(assemble(objects)).isNone()) << what;
}

// A chain of `n` arrays, each holding the next; the last holds `leafRef`.
std::vector<RawObject> chain(std::size_t first, std::size_t n, std::uint64_t leafRef) {
  std::vector<RawObject> out;
  for (std::size_t i = 0; i < n; ++i) out.push_back(array({i + 1 < n ? first + i + 1 : leafRef}));
  return out;
}

TEST(BinaryPlist, DepthLimit) {
  const std::size_t limit = P::kMaxDepth;
  auto chained = [](std::size_t arrays) {
    std::vector<RawObject> objects = chain(0, arrays, arrays);
    objects.push_back(int8(1));
    return decodeBinaryPlist(assemble(objects, {3, 3}));
  };
  EXPECT_FALSE(chained(limit).isNone());
  EXPECT_TRUE(chained(limit + 1).isNone());
  EXPECT_TRUE(chained(200000).isNone());  // no stack overflow

  // A subtree decoded first near the top and then reached again far deeper:
  // the memoised copy must not smuggle in depth beyond the limit.
  auto reused = [](std::size_t detour) {
    std::vector<RawObject> objects = {array({1, 301})};
    for (auto& o : chain(1, 300, 1000)) objects.push_back(o);   // 1..300
    for (auto& o : chain(301, detour, 1)) objects.push_back(o);  // 301.. -> 1
    objects[300] = array({});
    return decodeBinaryPlist(assemble(objects, {2, 2}));
  };
  EXPECT_FALSE(reused(100).isNone());
  EXPECT_TRUE(reused(300).isNone());

  P atLimit = P::integer(0);
  for (std::size_t i = 0; i < limit; ++i) atLimit = P::array({atLimit});
  const auto encoded = encodeBinaryPlist(atLimit);
  ASSERT_TRUE(encoded);
  EXPECT_EQ(decodeBinaryPlist(*encoded), atLimit);
  EXPECT_FALSE(encodeBinaryPlist(P::array({atLimit})));
}

TEST(BinaryPlist, ReadsOneEntryOfTheTopDictionary) {
  const P inner = makeDictionary({{"k", makeArray({P::string("deep"), P::integer(1 << 20), P::date(3.5)})}});
  const Bytes file = encodeBinaryPlist(makeDictionary({{"changecount", P::integer(41)}, {"values", inner},
                                                       {"blob", P::data(pattern(20))}, {"\xc3\xa9t\xc3\xa9", P::boolean(true)}}))
                         .value();
  EXPECT_EQ(decodeBinaryPlistEntry(file, "changecount"), P::integer(41));
  EXPECT_EQ(decodeBinaryPlistEntry(file, "values"), inner);
  EXPECT_EQ(decodeBinaryPlistEntry(file, "\xc3\xa9t\xc3\xa9"), P::boolean(true));  // a UTF-16 key
  EXPECT_TRUE(decodeBinaryPlistEntry(file, "journal").isNone());
  EXPECT_TRUE(decodeBinaryPlistEntry(encodeBinaryPlist(makeArray({P::integer(1)})).value(), "0").isNone());
  for (std::size_t n = 0; n < file.size(); ++n) {  // no prefix of a file is one
    EXPECT_TRUE(decodeBinaryPlist(std::span(file).first(n)).isNone()) << "prefix " << n;
    EXPECT_TRUE(decodeBinaryPlistEntry(std::span(file).first(n), "changecount").isNone()) << "prefix " << n;
  }
}

// A chain of `levels` arrays that each hold the level below twice: a tree of
// 2^levels leaves sharing one payload per level.
P doublingChain(int levels, P leaf) {
  for (int i = 0; i < levels; ++i) leaf = P::array({leaf, leaf});
  return leaf;
}

TEST(BinaryPlist, EncodeRefusesWhatItCannotWrite) {
  P deep = P::integer(0);  // fine where first met, one level down; a second path reaches it too deep
  for (int i = 0; i < P::kMaxDepth - 1; ++i) deep = P::array({deep});
  EXPECT_TRUE(makeArray({deep, makeArray({P::integer(1)})}).isValidForBinaryFormat());
  EXPECT_TRUE(doublingChain(80, P::integer(1)).isValidForBinaryFormat());  // 2^80 leaves, checked once each
  EXPECT_TRUE(makeDictionary({{std::string("k\0", 2), P::boolean(true)}}).isValidForBinaryFormat());
  const P bad[] = {P(), makeArray({P::integer(1), P()}), P::string("\xc3"),
                   makeDictionary({{"\xed\xa0\x80", P::integer(1)}}), makeDictionary({{"\xc0\x80", P::integer(1)}}),
                   doublingChain(80, P::string("\xff")), doublingChain(80, makeArray({P()})),
                   makeArray({deep, makeArray({deep})}), makeDictionary({{"a", deep}, {"b", makeDictionary({{"c", deep}})}})};
  for (std::size_t i = 0; i < std::size(bad); ++i) {
    EXPECT_FALSE(bad[i].isValidForBinaryFormat()) << i;
    EXPECT_FALSE(encodeBinaryPlist(bad[i])) << i;
  }
  Bytes out = {1, 2, 3};  // a refused append leaves the buffer as it was
  EXPECT_EQ(appendBinaryPlist(P::string("\xff"), out), 0u);
  EXPECT_EQ(out, (Bytes{1, 2, 3}));
  const std::size_t n = appendBinaryPlist(P::integer(7), out);
  ASSERT_GT(n, 0u);
  EXPECT_EQ(out.size(), 3 + n);
  EXPECT_EQ(decodeBinaryPlist(std::span(out).subspan(3)), P::integer(7));

  // Beyond what the oracles take: far dates and 4-byte offsets.
  const P far = makeArray({P::date(-1e300), P::date(std::nan("")), P::date(HUGE_VAL), P::date(1e18 + 0.5),
                           P::data(pattern(17 << 20))});
  const Bytes encoded = encodeBinaryPlist(far).value();
  EXPECT_EQ(widthsOf(encoded).first, 4u);
  EXPECT_EQ(decodeBinaryPlist(encoded), far);
}

// ---------------------------------------------------------------------------
// XML

P xml(std::string_view text) { return decodeXmlPlist(bytesOf(text)); }

std::string inPlist(std::string_view body) {
  return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">" + std::string(body) + "</plist>";
}

TEST(XmlPlist, ReadsWhatHandsWrite) {
  const std::pair<const char*, P> cases[] = {
      {"<string>   </string>", P::string("   ")}, {"<string>\n</string>", P::string("\n")},
      {"<string>&lt;&amp;&gt;&#233;&#x1F600;&#13;</string>", P::string("<&>\xc3\xa9\xf0\x9f\x98\x80\r")},
      {"<!-- note --><string><![CDATA[<raw> & ]]></string>", P::string("<raw> & ")}, {"<string/>", P::string("")},
      {"<integer>0x1F</integer>", P::integer(31)}, {"<integer> -42 </integer>", P::integer(-42)},
      {"<real>+1.5</real>", P::real(1.5)}, {"<real>1e999</real>", P::real(HUGE_VAL)},
      {"<real>nan</real>", P::real(std::nan(""))}, {"<data>\n  AAEC\n  Aw==\n</data>", P::data(Bytes{0, 1, 2, 3})},
      {"<data>AAECAw</data>", P::data(Bytes{0, 1, 2, 3})}, {"<date>2001-02Z</date>", P::date(31 * 86400.0)},
      {"<array><true/> <false/></array>", makeArray({P::boolean(true), P::boolean(false)})},
      {"<dict><key>k</key><integer>1</integer><key>k</key><integer>2</integer></dict>",
       makeDictionary({{"k", P::integer(2)}})},
  };
  for (const auto& [fragment, expected] : cases) EXPECT_EQ(xml(inPlist(fragment)), expected) << fragment;
  EXPECT_TRUE(std::signbit(xml(inPlist("<real>-1e-999</real>")).realValue()));
  EXPECT_EQ(xml("<array><integer>1</integer></array>"), makeArray({P::integer(1)})) << "bare root";
  // An external DTD is never fetched.
  EXPECT_EQ(xml("<!DOCTYPE plist SYSTEM \"http://invalid.invalid/x.dtd\"><plist><true/></plist>"), P::boolean(true));
}

// Refused silently (libxml2 would print to stderr), entities and external
// resources included.
TEST(XmlPlist, RejectsMalformedSilently) {
  std::vector<std::string> documents = {
      "", "not xml", "<plist><array></plist>", "<plist></plist>", "<plist><dict><key>a</key></plist>",
      "<?xml version=\"1.0\" encoding=\"Shift_JIS\"?><plist><string>\x81</string></plist>",
      "<!DOCTYPE plist [<!ENTITY a \"aaaaaaaaaa\"><!ENTITY b \"&a;&a;&a;&a;&a;&a;&a;&a;&a;&a;\">"
      "<!ENTITY c \"&b;&b;&b;&b;&b;&b;&b;&b;&b;&b;\"><!ENTITY d \"&c;&c;&c;&c;&c;&c;&c;&c;&c;&c;\">"
      "<!ENTITY e \"&d;&d;&d;&d;&d;&d;&d;&d;&d;&d;\"><!ENTITY f \"&e;&e;&e;&e;&e;&e;&e;&e;&e;&e;\">]>"
      "<plist><string>&f;&f;&f;&f;&f;&f;&f;&f;&f;&f;</string></plist>",
      "<!DOCTYPE plist [<!ENTITY x SYSTEM \"/etc/hostname\">]><plist><string>&x;</string></plist>",
      "<!DOCTYPE plist SYSTEM \"/etc/hostname\"><plist><string>&x;</string></plist>",
  };
  for (const char* body : {
           "<integer>1</integer><integer>2</integer>", "<dict><key>a</key></dict>", "<dict><integer>1</integer></dict>",
           "<dict><key>a</key><key>b</key><true/></dict>", "<array><key>a</key></array>", "<array>text</array>",
           "<string><b/></string>", "<unknown/>", "<x:string xmlns:x=\"u\">a</x:string>", "<true>yes</true>",
           "<plist><true/></plist>", "<integer>18446744073709551616</integer>",
           "<integer>-9223372036854775809</integer>", "<integer>12abc</integer>", "<integer></integer>",
           "<integer>--1</integer>", "<real>abc</real>", "<real>+-1</real>", "<date>2001-13-01T00:00:00Z</date>",
           "<date>1900-02-29T00:00:00Z</date>", "<date>2001-01-01T24:00:00Z</date>",
           "<date>2001-01-01T00:00:60Z</date>", "<date>2001-01-01T00:00:00</date>",
           "<date>201-01-01T00:00:00Z</date>", "<date>123456789012-01-01T00:00:00Z</date>", "<data>@@@@</data>",
           "<data>A</data>", "<data>AA=A</data>", "<string>\xc3</string>"})
    documents.push_back(inPlist(body));
  ::testing::internal::CaptureStderr();
  for (const std::string& doc : documents) EXPECT_TRUE(xml(doc).isNone()) << doc;
  EXPECT_EQ(::testing::internal::GetCapturedStderr(), "");
}

TEST(XmlPlist, DepthLimit) {
  auto nestedXml = [](std::size_t arrays) {
    std::string s;
    for (std::size_t i = 0; i < arrays; ++i) s += "<array>";
    s += "<true/>";
    for (std::size_t i = 0; i < arrays; ++i) s += "</array>";
    return xml(inPlist(s));
  };
  EXPECT_FALSE(nestedXml(P::kMaxDepth).isNone());
  EXPECT_TRUE(nestedXml(P::kMaxDepth + 1).isNone());
  EXPECT_TRUE(nestedXml(100000).isNone());
  const P deep = nested(P::kMaxDepth);
  EXPECT_EQ(xml(encodeXmlPlist(deep).value()), deep);
}

TEST(XmlPlist, WritesTheUsualLayoutAndOnlyWhatXmlCarries) {
  const auto text = encodeXmlPlist(
      makeDictionary({{"a", makeArray({P::boolean(true), P::dictionary({})})}, {"b&", P::real(1)}}));
  EXPECT_EQ(text.value(),
            "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<!DOCTYPE plist>\n<plist version=\"1.0\">\n<dict>\n"
            "\t<key>a</key>\n\t<array>\n\t\t<true/>\n\t\t<dict/>\n\t</array>\n"
            "\t<key>b&amp;</key>\n\t<real>1</real>\n</dict>\n</plist>\n");
  for (const char* s : {"\x01", "a\x1f", "\xef\xbf\xbe", "\xef\xbf\xbf", "\xc3"}) EXPECT_FALSE(encodeXmlPlist(P::string(s))) << s;
  EXPECT_FALSE(encodeXmlPlist(P::string(std::string(1, '\0'))));
  EXPECT_FALSE(encodeXmlPlist(makeDictionary({{std::string("k\0", 2), P::integer(1)}})));
  const P fine = P::string("tab\there\r\nCR\r end\x7f \xef\xbf\xbd");
  EXPECT_EQ(xml(encodeXmlPlist(fine).value()), fine);
  // Checked-in files carry that bare DOCTYPE too: the public identifier and
  // DTD address other writers put there name their maker. git grep exits 1
  // when none is found.
  const int found = std::system("git -C '" VELMORA_SOURCE_DIR "' grep -lE '<!DOCTYPE[[:space:]]+plist[[:space:]]+PUBLIC'");
  EXPECT_TRUE(WIFEXITED(found) && WEXITSTATUS(found) == 1) << "a public plist DOCTYPE above, or git failed";
}

// Known dates are proven against plistlib above; here what it does not take.
TEST(XmlPlist, Dates) {
  for (const auto& [seconds, text] : {std::pair{0.75, "2001-01-01T00:00:00Z"}, {-0.5, "2000-12-31T23:59:59Z"},
                                      {-63177062400.0, "-0001-01-01T00:00:00Z"}})
    EXPECT_NE(encodeXmlPlist(P::date(seconds)).value().find(text), std::string::npos) << text;
  EXPECT_EQ(xml(inPlist("<date>-0001-01-01T00:00:00Z</date>")), P::date(-63177062400.0));
  for (double far : {-1e15, 1e15, -3.1e18, 3.1e18}) EXPECT_EQ(xml(encodeXmlPlist(P::date(far)).value()), P::date(far));
  for (double bad : {std::nan(""), HUGE_VAL, 3.2e18, 1e19}) EXPECT_FALSE(encodeXmlPlist(P::date(bad))) << bad;
}

}  // namespace
}  // namespace velmora
