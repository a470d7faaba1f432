#include "velmora/platform/PlistCodec.h"

#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/wait.h>

#include <atomic>
#include <bit>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <limits>
#include <thread>

#ifdef VELMORA_HAVE_LIBPLIST
#include <plist/plist.h>
#endif

#include "ScratchEnvironment.h"

extern char** environ;

namespace velmora {
namespace {

using Strings = std::vector<std::string>;

// ---------------------------------------------------------------------------
// The canonical description shared with tests/plist_oracle.py.

std::string hex(const void* data, std::size_t n) {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string out;
  for (std::size_t i = 0; i < n; ++i) {
    const auto b = static_cast<const std::uint8_t*>(data)[i];
    out += kDigits[b >> 4];
    out += kDigits[b & 15];
  }
  return out;
}

std::string hex(std::string_view s) { return hex(s.data(), s.size()); }

std::string doubleHex(double d) {
  std::uint8_t be[8];
  auto bits = std::bit_cast<std::uint64_t>(d);
  for (int i = 7; i >= 0; --i, bits >>= 8) be[i] = static_cast<std::uint8_t>(bits);
  return hex(be, 8);
}

std::string canonical(const PropertyList& v);

Strings canonicalEntries(const PlistDictionary& d) {
  Strings out;  // the map is already in UTF-8 byte order
  for (const auto& [key, item] : d) out.push_back(hex(key) + "=" + canonical(item));
  return out;
}

std::string canonical(const PropertyList& v) {
  switch (v.type()) {
    case PlistType::None: return "none";
    case PlistType::Boolean: return v.booleanValue() ? "b1" : "b0";
    case PlistType::Integer:
      return "i" + (v.isUnsignedInteger() ? std::to_string(v.unsignedValue()) : std::to_string(v.integerBits()));
    case PlistType::Real: return std::isnan(v.realValue()) ? "rnan" : "r" + doubleHex(v.realValue());
    case PlistType::Date: return "t" + doubleHex(v.dateValue());
    case PlistType::String: return "s" + hex(*v.getString());
    case PlistType::Data: return "d" + hex(v.getData()->data(), v.getData()->size());
    case PlistType::Array: {
      std::string out = "[";
      for (const auto& item : *v.getArray()) out += (out.size() > 1 ? "," : "") + canonical(item);
      return out + "]";
    }
    case PlistType::Dictionary: {
      std::string out = "{";
      for (const auto& e : canonicalEntries(*v.getDictionary())) out += (out.size() > 1 ? "," : "") + e;
      return out + "}";
    }
  }
  return "?";
}

// One line per entry of a top-level dictionary, as the oracle prints it.
Strings canonicalLines(const PropertyList& v) {
  return v.isDictionary() ? canonicalEntries(*v.getDictionary()) : Strings{canonical(v)};
}

// Compares entry by entry so that a failure names the case.
void expectSameLines(const PropertyList& expected, const Strings& actual, const std::string& what) {
  const Strings lines = canonicalLines(expected);
  ASSERT_EQ(lines.size(), actual.size()) << what;
  auto key = expected.isDictionary() ? expected.getDictionary()->begin() : PlistDictionary::const_iterator();
  for (std::size_t i = 0; i < lines.size(); ++i)
    EXPECT_EQ(lines[i], actual[i]) << what << ", case " << (expected.isDictionary() ? (key++)->first : "");
}

// ---------------------------------------------------------------------------
// The plistlib oracle, run as a separate process on files in a scratch dir.

void writeFile(const std::string& path, std::span<const std::uint8_t> bytes) {
  std::ofstream(path, std::ios::binary).write(reinterpret_cast<const char*>(bytes.data()),
                                              static_cast<std::streamsize>(bytes.size()));
}

std::span<const std::uint8_t> asBytes(const std::string& s) {
  return {reinterpret_cast<const std::uint8_t*>(s.data()), s.size()};
}

// Runs the oracle; a missing python3 is a failure, never a skip.
bool runOracle(const Strings& args) {
  const std::string script = std::string(VELMORA_SOURCE_DIR) + "/tests/plist_oracle.py";
  Strings all = {"python3", script};
  all.insert(all.end(), args.begin(), args.end());
  std::vector<char*> argv;
  for (auto& a : all) argv.push_back(a.data());
  argv.push_back(nullptr);
  pid_t pid;
  const int err = posix_spawnp(&pid, "python3", nullptr, nullptr, argv.data(), environ);
  if (err != 0) {
    ADD_FAILURE() << "cannot run python3 (" << std::strerror(err)
                  << "): it is a required test dependency, see scripts/setup-deps";
    return false;
  }
  int status = 0;
  while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
    ADD_FAILURE() << "plist_oracle.py " << args[0] << " failed with status " << status
                  << (WIFEXITED(status) && WEXITSTATUS(status) == 127 ? " (python3 missing?)" : "");
    return false;
  }
  return true;
}

Strings oracleDescribe(const testing::ScratchDirectory& dir, const std::string& input) {
  const std::string out = dir.file("description.txt");
  if (!runOracle({"describe", input, out})) return {"oracle failed"};
  Strings lines;
  std::ifstream in(out);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

Bytes readAll(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return Bytes(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// ---------------------------------------------------------------------------
// Interop cases. Each is an entry of one top-level dictionary per oracle run.

struct Case {
  std::string name;
  PropertyList value;
  bool xml = true;       // XML has whole-second dates and no control characters
  bool libplist = true;  // see libplistCases()
};

Bytes pattern(std::size_t n) {
  Bytes b(n);
  for (std::size_t i = 0; i < n; ++i) b[i] = static_cast<std::uint8_t>(i * 7 + i / 251);
  return b;
}

PropertyList nested(int depth) {
  PropertyList v = PropertyList::string("bottom");
  for (int i = 0; i < depth; ++i)
    v = i % 2 ? makeDictionary({{"level", v}}) : PropertyList::array({PropertyList::integer(i), v});
  return v;
}

std::vector<Case> interopCases() {
  using P = PropertyList;
  std::vector<Case> c = {
      {"int 0", P::integer(0)}, {"int -1", P::integer(-1)}, {"int 255", P::integer(255)},
      {"int 256", P::integer(256)}, {"int 65535", P::integer(65535)}, {"int 65536", P::integer(65536)},
      {"int 2^32-1", P::integer(0xFFFFFFFFll)}, {"int 2^32", P::integer(0x100000000ll)},
      {"int -2^31", P::integer(-2147483648ll)}, {"int max", P::integer(std::numeric_limits<std::int64_t>::max())},
      {"int min", P::integer(std::numeric_limits<std::int64_t>::min())},
      // libplist 2.2 has no signed/unsigned distinction and writes every
      // integer as signed 64-bit.
      {"uint 2^63", P::unsignedInteger(std::uint64_t{1} << 63), true, false},
      {"uint max", P::unsignedInteger(~std::uint64_t{0}), true, false},
      {"real 0.5", P::real(0.5)}, {"real -0", P::real(-0.0)}, {"real 1e300", P::real(1e300)},
      {"real denormal", P::real(std::numeric_limits<double>::denorm_min())}, {"real -pi", P::real(-3.141592653589793)},
      {"real nan", P::real(std::nan(""))}, {"real inf", P::real(HUGE_VAL)}, {"real -inf", P::real(-HUGE_VAL)},
      // libplist 2.2 keeps dates in 32-bit seconds: about 1933 to 2069 only.
      {"date year 1", P::date(-63113904000.0), true, false}, {"date 1900", P::date(-3187296000.0), true, false},
      {"date 1900-03-01", P::date(-3182198400.0), true, false}, {"date 2000-02-29", P::date(-26524800.0)},
      {"date 2038", P::date(1169176448.0)}, {"date 2100", P::date(3124137600.0), true, false},
      {"date year 9999", P::date(252423993599.0), true, false}, {"date 1950", P::date(-1595158155.0)},
      {"date 2060", P::date(1866934923.0)}, {"date fraction", P::date(1866934923.5), false},
      {"date year 1 fraction", P::date(-63113904000.0 + 0.25), false, false},
      {"data empty", P::data(Bytes{})}, {"data 600", P::data(pattern(600))},
      {"data 70k", P::data(pattern(70 * 1024))}, {"bool true", P::boolean(true)}, {"bool false", P::boolean(false)},
      {"str ascii", P::string("hello, world")}, {"str empty", P::string("")},
      {"str markup", P::string("<a href=\"x\">&amp;</a> ]]> 'q'")}, {"str whitespace", P::string("  \t\n  ")},
      {"str latin", P::string("caf\xc3\xa9")}, {"str cjk", P::string("\xe6\x97\xa5\xe6\x9c\xac\xe8\xaa\x9e")},
      {"str emoji", P::string("smile \xf0\x9f\x98\x80 and \xf0\x9f\x8c\x8d")},
      {"str long", P::string(std::string(1000, 'x') + "\xc3\xa9")},
      // NUL is no XML character, and libplist cuts C strings at it.
      {"str nul", P::string(std::string("a\0b", 3)), false, false},
      {"str nul unicode", P::string(std::string("\xc3\xa9\0\xf0\x9f\x98\x80", 7)), false, false},
      {"keys", makeDictionary({{"cl\xc3\xa9", P::integer(1)}, {"\xe9\x94\xae", P::integer(2)},
                               {"\xf0\x9f\x94\x91", P::integer(3)}, {"", P::integer(4)}, {"<&>", P::integer(5)}})},
      {"array empty", P::array({})}, {"dict empty", P::dictionary({})}, {"nested 100", nested(100)},
  };
  PlistArray twenty, threeHundred;
  PlistDictionary dict20;
  for (int i = 0; i < 20; ++i) {
    twenty.push_back(P::integer(i * 1000));
    // No 0.0 anywhere: plistlib's writer would merge "real -0" into it.
    dict20.emplace("k" + std::to_string(100 + i), P::real((i + 1) / 4.0));
  }
  for (int i = 0; i < 300; ++i) threeHundred.push_back(P::string("item " + std::to_string(i)));
  c.push_back({"array 20", P::array(twenty)});
  c.push_back({"array 300", P::array(threeHundred)});
  c.push_back({"dict 20", P::dictionary(dict20)});
  c.push_back({"shared", P::array({P::array(twenty), P::array(twenty), P::string("item 7")})});
  return c;
}

template <typename Keep>
PropertyList casesDictionary(Keep keep) {
  PlistDictionary d;
  for (const Case& c : interopCases())
    if (keep(c)) d.emplace(c.name, c.value);
  return PropertyList::dictionary(std::move(d));
}

PropertyList allCases() { return casesDictionary([](const Case&) { return true; }); }
PropertyList xmlCases() { return casesDictionary([](const Case& c) { return c.xml; }); }
[[maybe_unused]] PropertyList libplistCases() { return casesDictionary([](const Case& c) { return c.libplist; }); }
// Small enough for one-byte offsets and references.
PropertyList smallCase() {
  return makeDictionary({{"i", PropertyList::integer(-7)}, {"s", PropertyList::string("\xc3\xa9t\xc3\xa9")},
                         {"d", PropertyList::date(0.5)}, {"r", PropertyList::real(2.5)}});
}

struct Trailer {
  unsigned offsetSize, refSize;
  std::uint64_t count;
};

Trailer trailerOf(const Bytes& b) {
  std::uint64_t count = 0;
  for (std::size_t i = b.size() - 24; i < b.size() - 16; ++i) count = (count << 8) | b[i];
  return {b[b.size() - 26], b[b.size() - 25], count};
}

TEST(PlistInteropPlistlib, BinaryBothDirections) {
  const testing::ScratchDirectory dir("plist-codec");
  for (const PropertyList& value : {smallCase(), allCases()}) {
    const Bytes ours = encodeBinaryPlist(value).value();
    writeFile(dir.file("ours.plist"), ours);
    expectSameLines(value, oracleDescribe(dir, dir.file("ours.plist")), "plistlib reading ours");

    ASSERT_TRUE(runOracle({"convert", dir.file("ours.plist"), dir.file("theirs.plist"), "binary"}));
    const PropertyList back = decodeBinaryPlist(readAll(dir.file("theirs.plist")));
    expectSameLines(value, canonicalLines(back), "ours reading plistlib");
  }
}

TEST(PlistInteropPlistlib, XmlBothDirections) {
  const testing::ScratchDirectory dir("plist-codec");
  const PropertyList value = xmlCases();
  const std::string ours = encodeXmlPlist(value).value();
  writeFile(dir.file("ours.xml"), asBytes(ours));
  expectSameLines(value, oracleDescribe(dir, dir.file("ours.xml")), "plistlib reading ours");

  ASSERT_TRUE(runOracle({"convert", dir.file("ours.xml"), dir.file("theirs.xml"), "xml"}));
  const PropertyList back = decodeXmlPlist(readAll(dir.file("theirs.xml")));
  expectSameLines(value, canonicalLines(back), "ours reading plistlib");
}

TEST(PlistInteropPlistlib, CorpusExercisesWideSizes) {
  const Trailer small = trailerOf(encodeBinaryPlist(smallCase()).value());
  EXPECT_EQ(small.offsetSize, 1u);
  EXPECT_EQ(small.refSize, 1u);
  const Trailer all = trailerOf(encodeBinaryPlist(allCases()).value());
  EXPECT_EQ(all.offsetSize, 3u);  // past 64 KiB
  EXPECT_EQ(all.refSize, 2u);     // past 255 objects
}

#ifdef VELMORA_HAVE_LIBPLIST

// libplist 2.2 keeps no sign (integers come back as the 64-bit pattern) and
// keeps dates as seconds plus microseconds.
PropertyList fromLibplist(plist_t node) {
  std::uint8_t b = 0;
  std::uint64_t u = 0;
  double d = 0;
  std::int32_t sec = 0, usec = 0;
  char* p = nullptr;
  auto owned = [&](PropertyList v) {  // frees what libplist handed out
    std::free(p);
    return v;
  };
  switch (plist_get_node_type(node)) {
    case PLIST_BOOLEAN: return plist_get_bool_val(node, &b), PropertyList::boolean(b);
    case PLIST_UINT: return plist_get_uint_val(node, &u), PropertyList::integer(static_cast<std::int64_t>(u));
    case PLIST_REAL: return plist_get_real_val(node, &d), PropertyList::real(d);
    case PLIST_DATE: return plist_get_date_val(node, &sec, &usec), PropertyList::date(sec + usec / 1e6);
    case PLIST_STRING: return plist_get_string_val(node, &p), owned(PropertyList::string(p));
    case PLIST_DATA:
      plist_get_data_val(node, &p, &u);
      return owned(PropertyList::data(std::span(reinterpret_cast<const std::uint8_t*>(p), u)));
    case PLIST_ARRAY: {
      PlistArray a;
      for (std::uint32_t i = 0; i < plist_array_get_size(node); ++i) a.push_back(fromLibplist(plist_array_get_item(node, i)));
      return PropertyList::array(std::move(a));
    }
    case PLIST_DICT: {
      PlistDictionary dict;
      plist_dict_iter it = nullptr;
      plist_dict_new_iter(node, &it);
      for (plist_t item = nullptr; plist_dict_next_item(node, it, &p, &item), item;) {
        std::string key(p);
        std::free(p);
        dict.emplace(std::move(key), fromLibplist(item));
      }
      std::free(it);
      return PropertyList::dictionary(std::move(dict));
    }
    default: return {};
  }
}

plist_t toLibplist(const PropertyList& v) {
  switch (v.type()) {
    case PlistType::Boolean: return plist_new_bool(v.booleanValue());
    case PlistType::Integer: return plist_new_uint(v.unsignedValue());
    case PlistType::Real: return plist_new_real(v.realValue());
    case PlistType::Date: {
      const double whole = std::floor(v.dateValue());
      return plist_new_date(static_cast<std::int32_t>(whole),
                            static_cast<std::int32_t>(std::lround((v.dateValue() - whole) * 1e6)));
    }
    case PlistType::String: return plist_new_string(v.getString()->c_str());
    case PlistType::Data:
      return plist_new_data(reinterpret_cast<const char*>(v.getData()->data()), v.getData()->size());
    case PlistType::Array: {
      plist_t a = plist_new_array();
      for (const auto& item : *v.getArray()) plist_array_append_item(a, toLibplist(item));
      return a;
    }
    case PlistType::Dictionary: {
      plist_t d = plist_new_dict();
      for (const auto& [key, item] : *v.getDictionary()) plist_dict_set_item(d, key.c_str(), toLibplist(item));
      return d;
    }
    default: return nullptr;
  }
}

TEST(PlistInteropLibplist, BinaryBothDirections) {
  const PropertyList value = libplistCases();
  const Bytes ours = encodeBinaryPlist(value).value();
  plist_t read = nullptr;
  plist_from_bin(reinterpret_cast<const char*>(ours.data()), static_cast<std::uint32_t>(ours.size()), &read);
  ASSERT_NE(read, nullptr);
  expectSameLines(value, canonicalLines(fromLibplist(read)), "libplist reading ours");
  plist_free(read);

  plist_t root = toLibplist(value);
  char* bin = nullptr;
  std::uint32_t length = 0;
  plist_to_bin(root, &bin, &length);
  plist_free(root);
  ASSERT_NE(bin, nullptr);
  const PropertyList back = decodeBinaryPlist({reinterpret_cast<const std::uint8_t*>(bin), length});
  plist_to_bin_free(bin);
  expectSameLines(value, canonicalLines(back), "ours reading libplist");
}

#else

TEST(PlistInteropLibplist, Built) {
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
RawObject array(std::vector<std::uint64_t> refs) {
  return {{static_cast<std::uint8_t>(0xA0 | refs.size())}, refs};
}
RawObject dict(std::vector<std::uint64_t> keys, std::vector<std::uint64_t> values) {
  RawObject o{{static_cast<std::uint8_t>(0xD0 | keys.size())}, keys};
  o.refs.insert(o.refs.end(), values.begin(), values.end());
  return o;
}

TEST(BinaryPlist, ReadsAnyRefAndOffsetSizeInAnyOrder) {
  const std::vector<RawObject> objects = {dict({1, 2}, {3, 4}), ascii("a"), utf16({0xE9}), int8(1),
                                          array({3, 3})};
  const PropertyList expected =
      makeDictionary({{"a", PropertyList::integer(1)},
                      {"\xc3\xa9", makeArray({PropertyList::integer(1), PropertyList::integer(1)})}});
  for (unsigned refSize : {1u, 2u, 3u, 8u}) {
    for (unsigned offsetSize : {1u, 3u, 5u, 8u}) {
      for (bool reversed : {false, true}) {
        EXPECT_EQ(decodeBinaryPlist(assemble(objects, {refSize, offsetSize, reversed})), expected)
            << refSize << "/" << offsetSize << "/" << reversed;
      }
    }
  }
}

TEST(BinaryPlist, RejectsMalformedStructure) {
  const Bytes good = assemble({array({1, 2}), ascii("ab"), int8(5)});
  ASSERT_TRUE(decodeBinaryPlist(good).isArray());
  const std::size_t t = good.size() - 32;  // the trailer; the table is just before it
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
  // Counts whose byte size overflows 64 bits.
  for (std::uint64_t count : {~0ull, ~0ull / 2 + 1, ~0ull / 8 + 1}) {
    RawObject huge{{0xAF, 0x13}};
    putBig(huge.head, count, 8);
    EXPECT_TRUE(decodeBinaryPlist(assemble({huge, int8(0)}, {8, 1})).isNone()) << count;
  }
}

TEST(BinaryPlist, RejectsBadObjects) {
  const std::pair<std::vector<RawObject>, const char*> bad[] = {
      {{dict({1}, {1}), int8(1)}, "integer key"},
      {{dict({1}, {}), ascii("k")}, "key without room for its value"},
      {{{{0x52, 'a', 0xE9}}}, "non-ASCII byte in an ASCII string"},
      {{utf16({0xD800})}, "lone high surrogate at the end"},
      {{utf16({0xD800, 0x0041})}, "high surrogate before a non-surrogate"},
      {{utf16({0xDC00, 0xD800})}, "surrogates swapped"},
      {{{{0x00}}}, "null object"},
      {{{{0x80, 0x01}}}, "uid"},
      {{{{0x14, 0, 0, 0, 0, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0}}}, "needs 65 bits"},
      {{{{0x13, 0, 0, 0}}}, "integer cut short"},
      {{{{0x33, 0, 0, 0, 0}}}, "date cut short"},
  };
  for (const auto& [objects, what] : bad) EXPECT_TRUE(decodeBinaryPlist(assemble(objects)).isNone()) << what;

  // The 128-bit form carries negatives too when they fit.
  RawObject minusTwo{{0x14}};
  putBig(minusTwo.head, ~0ull, 8);
  putBig(minusTwo.head, static_cast<std::uint64_t>(-2), 8);
  EXPECT_EQ(decodeBinaryPlist(assemble({minusTwo})), PropertyList::integer(-2));
  EXPECT_EQ(decodeBinaryPlist(assemble({{{0x22, 0x3F, 0xC0, 0, 0}}})), PropertyList::real(1.5));
  EXPECT_EQ(decodeBinaryPlist(assemble({utf16({0xD83D, 0xDE00})})), PropertyList::string("\xf0\x9f\x98\x80"));
  // Of repeated keys the last entry wins.
  EXPECT_EQ(decodeBinaryPlist(assemble({dict({1, 2, 1}, {3, 4, 5}), ascii("b"), ascii("a"), int8(1), int8(2), int8(3)})),
            makeDictionary({{"a", PropertyList::integer(2)}, {"b", PropertyList::integer(3)}}));
}


TEST(BinaryPlist, RejectsCycles) {
  EXPECT_TRUE(decodeBinaryPlist(assemble({array({0})})).isNone());
  EXPECT_TRUE(decodeBinaryPlist(assemble({array({1}), array({2}), array({0})})).isNone());
  EXPECT_TRUE(decodeBinaryPlist(assemble({dict({1}, {0}), ascii("k")})).isNone());
  // Two table entries for one offset are one object: still a cycle.
  Bytes alias = assemble({array({1}), array({})});
  alias[alias.size() - 33] = 8;  // entry 1 -> entry 0's offset
  EXPECT_TRUE(decodeBinaryPlist(alias).isNone());
}

// A chain of `n` arrays, each holding the next; the last holds `leafRef`.
std::vector<RawObject> chain(std::size_t first, std::size_t n, std::uint64_t leafRef) {
  std::vector<RawObject> out;
  for (std::size_t i = 0; i < n; ++i) out.push_back(array({i + 1 < n ? first + i + 1 : leafRef}));
  return out;
}

TEST(BinaryPlist, DepthLimit) {
  const std::size_t limit = PropertyList::kMaxDepth;
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

  PropertyList atLimit = PropertyList::integer(0);
  for (std::size_t i = 0; i < limit; ++i) atLimit = PropertyList::array({atLimit});
  const auto encoded = encodeBinaryPlist(atLimit);
  ASSERT_TRUE(encoded);
  EXPECT_EQ(decodeBinaryPlist(*encoded), atLimit);
  EXPECT_FALSE(encodeBinaryPlist(PropertyList::array({atLimit})));
}

TEST(BinaryPlist, TruncationAndCorruptionNeverYieldBadValues) {
  const Bytes good = encodeBinaryPlist(makeDictionary({{"list", makeArray({PropertyList::integer(1 << 20),
                                                                            PropertyList::string("\xc3\xa9")})},
                                                       {"when", PropertyList::date(3.5)},
                                                       {"blob", PropertyList::data(pattern(20))}}))
                         .value();
  for (std::size_t n = 0; n < good.size(); ++n)
    EXPECT_TRUE(decodeBinaryPlist(std::span(good).first(n)).isNone()) << "prefix " << n;
  // Whatever a corrupted file decodes to must be writable again.
  for (std::size_t i = 0; i < good.size(); ++i) {
    for (std::uint8_t x : {0x01, 0x80, 0xFF}) {
      Bytes bad = good;
      bad[i] ^= x;
      const PropertyList v = decodeBinaryPlist(bad);
      if (!v.isNone()) {
        EXPECT_TRUE(encodeBinaryPlist(v)) << "byte " << i << " ^ " << int{x};
      }
    }
  }
}

TEST(BinaryPlist, ReadsOneEntryOfTheTopDictionary) {
  const PropertyList nested = makeDictionary({{"k", makeArray({PropertyList::string("deep")})}});
  const Bytes file = encodeBinaryPlist(makeDictionary({{"changecount", PropertyList::integer(41)},
                                                       {"values", nested},
                                                       {"\xc3\xa9t\xc3\xa9", PropertyList::boolean(true)}}))
                         .value();
  EXPECT_EQ(decodeBinaryPlistEntry(file, "changecount"), PropertyList::integer(41));
  EXPECT_EQ(decodeBinaryPlistEntry(file, "values"), nested);
  EXPECT_EQ(decodeBinaryPlistEntry(file, "\xc3\xa9t\xc3\xa9"), PropertyList::boolean(true));  // a UTF-16 key
  EXPECT_TRUE(decodeBinaryPlistEntry(file, "journal").isNone());
  EXPECT_TRUE(decodeBinaryPlistEntry(encodeBinaryPlist(makeArray({PropertyList::integer(1)})).value(), "0").isNone());
  for (std::size_t n = 0; n < file.size(); ++n)
    EXPECT_TRUE(decodeBinaryPlistEntry(std::span(file).first(n), "changecount").isNone()) << "prefix " << n;
}

TEST(BinaryPlist, WritesEqualScalarsOnceAndSharesOnRead) {
  PlistArray same(100, PropertyList::string("the same string, written once"));
  for (int i = 0; i < 100; ++i) same.push_back(PropertyList::string("the same string, written once"));
  const Bytes strings = encodeBinaryPlist(PropertyList::array(same)).value();
  EXPECT_LT(strings.size(), 300u);  // 200 copies would take over 6000 bytes
  EXPECT_EQ(trailerOf(strings).count, 2u);

  PlistArray numbers;
  for (int i = 0; i < 50; ++i) {
    numbers.push_back(PropertyList::integer(-5));
    numbers.push_back(PropertyList::real(-0.0));
    numbers.push_back(PropertyList::real(0.0));  // equal by value, not by bits
  }
  EXPECT_EQ(trailerOf(encodeBinaryPlist(PropertyList::array(numbers)).value()).count, 4u);

  const PropertyList back = decodeBinaryPlist(strings);
  ASSERT_EQ(back.count(), 200u);
  EXPECT_TRUE((*back.getArray())[0].isSameObject((*back.getArray())[199]));
}

TEST(BinaryPlist, EncodeRefusesWhatItCannotWrite) {
  EXPECT_FALSE(encodeBinaryPlist(PropertyList()));
  EXPECT_FALSE(encodeBinaryPlist(makeArray({PropertyList::integer(1), PropertyList()})));
  EXPECT_FALSE(encodeBinaryPlist(PropertyList::string("\xc3")));
  EXPECT_FALSE(encodeBinaryPlist(makeDictionary({{"\xed\xa0\x80", PropertyList::integer(1)}})));

  Bytes out = {1, 2, 3};
  EXPECT_EQ(appendBinaryPlist(PropertyList::string("\xff"), out), 0u);
  EXPECT_EQ(out, (Bytes{1, 2, 3}));
  const std::size_t n = appendBinaryPlist(PropertyList::integer(7), out);
  ASSERT_GT(n, 0u);
  EXPECT_EQ(out.size(), 3 + n);
  EXPECT_EQ(decodeBinaryPlist(std::span(out).subspan(3)), PropertyList::integer(7));
}

TEST(BinaryPlist, RoundTripsBeyondOracleRanges) {
  const PropertyList value = makeArray({PropertyList::date(-1e300), PropertyList::date(std::nan("")),
                                        PropertyList::date(HUGE_VAL), PropertyList::date(1e18 + 0.5),
                                        PropertyList::data(pattern(17 << 20))});
  const Bytes encoded = encodeBinaryPlist(value).value();
  EXPECT_EQ(trailerOf(encoded).offsetSize, 4u);
  EXPECT_EQ(decodeBinaryPlist(encoded), value);
}

// ---------------------------------------------------------------------------
// XML

PropertyList xml(std::string_view text) { return decodeXmlPlist(asBytes(std::string(text))); }

std::string inPlist(std::string_view body) {
  return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">" + std::string(body) + "</plist>";
}

TEST(XmlPlist, ReadsWhatHandsWrite) {
  using P = PropertyList;
  const std::pair<const char*, PropertyList> cases[] = {
      {"<string>   </string>", P::string("   ")},
      {"<string>\n</string>", P::string("\n")},
      {"<string>&lt;&amp;&gt;&#233;&#x1F600;&#13;</string>", P::string("<&>\xc3\xa9\xf0\x9f\x98\x80\r")},
      {"<!-- note --><string><![CDATA[<raw> & ]]></string>", P::string("<raw> & ")},
      {"<string/>", P::string("")},
      {"<integer>0x1F</integer>", P::integer(31)},
      {"<integer> -42 </integer>", P::integer(-42)},
      {"<real>+1.5</real>", P::real(1.5)},
      {"<real>1e999</real>", P::real(HUGE_VAL)},
      {"<real>nan</real>", P::real(std::nan(""))},
      {"<data>\n  AAEC\n  Aw==\n</data>", P::data(Bytes{0, 1, 2, 3})},
      {"<data>AAECAw</data>", P::data(Bytes{0, 1, 2, 3})},
      {"<date>2001-02Z</date>", P::date(31 * 86400.0)},
      {"<array><true/> <false/></array>", makeArray({P::boolean(true), P::boolean(false)})},
      {"<dict><key>k</key><integer>1</integer><key>k</key><integer>2</integer></dict>",
       makeDictionary({{"k", P::integer(2)}})},
  };
  for (const auto& [fragment, expected] : cases) EXPECT_EQ(xml(inPlist(fragment)), expected) << fragment;
  EXPECT_TRUE(std::signbit(xml(inPlist("<real>-1e-999</real>")).realValue()));
  EXPECT_EQ(xml("<array><integer>1</integer></array>"), makeArray({P::integer(1)})) << "bare root";
}

TEST(XmlPlist, RejectsMalformed) {
  const char* const documents[] = {"", "not xml", "<plist><array></plist>", "<plist></plist>"};
  for (const char* doc : documents) EXPECT_TRUE(xml(doc).isNone()) << doc;
  const char* const bodies[] = {
      "<integer>1</integer><integer>2</integer>", "<dict><key>a</key></dict>", "<dict><integer>1</integer></dict>",
      "<dict><key>a</key><key>b</key><true/></dict>", "<array><key>a</key></array>", "<array>text</array>",
      "<string><b/></string>", "<unknown/>", "<x:string xmlns:x=\"u\">a</x:string>", "<true>yes</true>",
      "<plist><true/></plist>", "<integer>18446744073709551616</integer>",
      "<integer>-9223372036854775809</integer>", "<integer>12abc</integer>", "<integer></integer>",
      "<integer>--1</integer>", "<real>abc</real>", "<real>+-1</real>", "<date>2001-13-01T00:00:00Z</date>",
      "<date>1900-02-29T00:00:00Z</date>", "<date>2001-01-01T24:00:00Z</date>", "<date>2001-01-01T00:00:60Z</date>",
      "<date>2001-01-01T00:00:00</date>", "<date>201-01-01T00:00:00Z</date>",
      "<date>123456789012-01-01T00:00:00Z</date>", "<data>@@@@</data>", "<data>A</data>", "<data>AA=A</data>",
      "<string>\xc3</string>",
  };
  for (const char* body : bodies) EXPECT_TRUE(xml(inPlist(body)).isNone()) << body;
}

TEST(XmlPlist, ErrorsStaySilent) {
  ::testing::internal::CaptureStderr();
  EXPECT_TRUE(xml("<?xml version=\"1.0\" encoding=\"Shift_JIS\"?><plist><string>\x81</string></plist>").isNone());
  EXPECT_TRUE(xml("<plist><dict><key>a</key></plist>").isNone());
  EXPECT_EQ(::testing::internal::GetCapturedStderr(), "");
}

TEST(XmlPlist, RefusesEntitiesAndExternalResources) {
  EXPECT_TRUE(xml("<!DOCTYPE plist [<!ENTITY a \"aaaaaaaaaa\"><!ENTITY b \"&a;&a;&a;&a;&a;&a;&a;&a;&a;&a;\">"
                  "<!ENTITY c \"&b;&b;&b;&b;&b;&b;&b;&b;&b;&b;\"><!ENTITY d \"&c;&c;&c;&c;&c;&c;&c;&c;&c;&c;\">"
                  "<!ENTITY e \"&d;&d;&d;&d;&d;&d;&d;&d;&d;&d;\"><!ENTITY f \"&e;&e;&e;&e;&e;&e;&e;&e;&e;&e;\">]>"
                  "<plist><string>&f;&f;&f;&f;&f;&f;&f;&f;&f;&f;</string></plist>")
                  .isNone());
  EXPECT_TRUE(xml("<!DOCTYPE plist [<!ENTITY x SYSTEM \"/etc/hostname\">]><plist><string>&x;</string></plist>")
                  .isNone());
  EXPECT_TRUE(xml("<!DOCTYPE plist SYSTEM \"/etc/hostname\"><plist><string>&x;</string></plist>").isNone());
  EXPECT_EQ(xml("<!DOCTYPE plist SYSTEM \"http://invalid.invalid/x.dtd\"><plist><true/></plist>"),
            PropertyList::boolean(true));
}

TEST(XmlPlist, DepthLimit) {
  auto nestedXml = [](std::size_t arrays) {
    std::string s;
    for (std::size_t i = 0; i < arrays; ++i) s += "<array>";
    s += "<true/>";
    for (std::size_t i = 0; i < arrays; ++i) s += "</array>";
    return xml(inPlist(s));
  };
  EXPECT_FALSE(nestedXml(PropertyList::kMaxDepth).isNone());
  EXPECT_TRUE(nestedXml(PropertyList::kMaxDepth + 1).isNone());
  EXPECT_TRUE(nestedXml(100000).isNone());
  const PropertyList deep = nested(PropertyList::kMaxDepth);
  EXPECT_EQ(decodeXmlPlist(asBytes(encodeXmlPlist(deep).value())), deep);
}

TEST(XmlPlist, WritesTheUsualLayout) {
  const auto text = encodeXmlPlist(makeDictionary(
      {{"a", makeArray({PropertyList::boolean(true), PropertyList::dictionary({})})}, {"b&", PropertyList::real(1)}}));
  EXPECT_EQ(text.value(),
            "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<!DOCTYPE plist>\n<plist version=\"1.0\">\n<dict>\n"
            "\t<key>a</key>\n\t<array>\n\t\t<true/>\n\t\t<dict/>\n\t</array>\n"
            "\t<key>b&amp;</key>\n\t<real>1</real>\n</dict>\n</plist>\n");
  // Checked-in files carry that bare DOCTYPE too: the public identifier and
  // DTD address other writers put there name their maker. git grep lists any
  // file that has one and exits 0; 1 is "none found".
  const int found = std::system("git -C '" VELMORA_SOURCE_DIR "' grep -lE "
                                "'<!DOCTYPE[[:space:]]+plist[[:space:]]+PUBLIC'");
  EXPECT_TRUE(WIFEXITED(found) && WEXITSTATUS(found) == 1) << "a public plist DOCTYPE above, or git failed";
}

TEST(XmlPlist, StringsXmlCannotCarry) {
  for (const char* s : {"\x01", "a\x1f", "\xef\xbf\xbe", "\xef\xbf\xbf", "\xc3"})
    EXPECT_FALSE(encodeXmlPlist(PropertyList::string(s))) << s;
  EXPECT_FALSE(encodeXmlPlist(PropertyList::string(std::string(1, '\0'))));
  EXPECT_FALSE(encodeXmlPlist(makeDictionary({{std::string("k\0", 2), PropertyList::integer(1)}})));
  const PropertyList fine = PropertyList::string("tab\there\r\nCR\r end\x7f \xef\xbf\xbd");
  EXPECT_EQ(decodeXmlPlist(asBytes(encodeXmlPlist(fine).value())), fine);
}

TEST(XmlPlist, Dates) {
  const std::pair<double, const char*> known[] = {
      {-63113904000.0, "0001-01-01T00:00:00Z"}, {-3187296000.0, "1900-01-01T00:00:00Z"},
      {-3182198400.0, "1900-03-01T00:00:00Z"},  {-978307200.0, "1970-01-01T00:00:00Z"},
      {-26524800.0, "2000-02-29T00:00:00Z"},    {0.0, "2001-01-01T00:00:00Z"},
      {1169176448.0, "2038-01-19T03:14:08Z"},   {3124137600.0, "2100-01-01T00:00:00Z"},
      {252423993599.0, "9999-12-31T23:59:59Z"}, {-63177062400.0, "-0001-01-01T00:00:00Z"},
      {0.75, "2001-01-01T00:00:00Z"},           {-0.5, "2000-12-31T23:59:59Z"},
  };
  for (const auto& [seconds, text] : known) {
    const std::string element = std::string("<date>") + text + "</date>";
    EXPECT_NE(encodeXmlPlist(PropertyList::date(seconds)).value().find(element), std::string::npos) << text;
    if (seconds == std::floor(seconds)) {
      EXPECT_EQ(xml(inPlist(element)), PropertyList::date(seconds)) << text;
    }
  }
  for (double far : {-1e15, 1e15, -3.1e18, 3.1e18}) {
    const PropertyList d = PropertyList::date(far);
    EXPECT_EQ(decodeXmlPlist(asBytes(encodeXmlPlist(d).value())), d) << far;
  }
  for (double bad : {std::nan(""), HUGE_VAL, 3.2e18, 1e19}) EXPECT_FALSE(encodeXmlPlist(PropertyList::date(bad))) << bad;
}

TEST(PlistCodec, DecodersAreThreadSafe) {
  const PropertyList value = allCases();
  const Bytes binary = encodeBinaryPlist(value).value();
  const PropertyList xmlValue = xmlCases();
  const std::string xmlText = encodeXmlPlist(xmlValue).value();
  const std::string bad = inPlist("<bogus/>");
  std::atomic<int> mismatches{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 20; ++i) {
        if (decodeBinaryPlist(binary) != value) ++mismatches;
        if (decodeXmlPlist(asBytes(xmlText)) != xmlValue) ++mismatches;
        if (!decodeXmlPlist(asBytes(bad)).isNone()) ++mismatches;
      }
    });
  }
  for (auto& t : threads) t.join();
  EXPECT_EQ(mismatches.load(), 0);
}

TEST(PlistCodec, DecodePlistAndReadPlistFile) {
  const testing::ScratchDirectory dir("plist-codec");
  const PropertyList v = makeDictionary({{"k", PropertyList::string("v")}});
  EXPECT_EQ(decodePlist(encodeBinaryPlist(v).value()), v);
  EXPECT_EQ(decodePlist(asBytes(encodeXmlPlist(v).value())), v);
  writeFile(dir.file("b.plist"), encodeBinaryPlist(v).value());
  writeFile(dir.file("x.plist"), asBytes(encodeXmlPlist(v).value()));
  writeFile(dir.file("bad.plist"), Bytes{'b', 'p', 'l', 'i', 's', 't', '0', '0', 1});
  EXPECT_EQ(readPlistFile(dir.file("b.plist")), v);
  EXPECT_EQ(readPlistFile(dir.file("x.plist")), v);
  EXPECT_TRUE(readPlistFile(dir.file("bad.plist")).isNone());
  EXPECT_TRUE(readPlistFile(dir.file("missing.plist")).isNone());
  EXPECT_TRUE(readPlistFile(dir.file("")).isNone());  // the directory itself
}

}  // namespace
}  // namespace velmora
