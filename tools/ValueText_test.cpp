// The tool's value texts where the tool's own runs do not reach: every type
// read back from what `get` prints, and the typed and JSON texts at the edges
// of each form. A refused typed text is named in its message.
#include "ValueText.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

namespace {

using velmora::makeArray;
using velmora::makeDictionary;
using velmora::PropertyList;
using namespace velmora::tool;

constexpr double kInf = std::numeric_limits<double>::infinity();
constexpr std::uint64_t kU64Max = std::numeric_limits<std::uint64_t>::max();

TEST(ToolValueText, EveryTypeReadsBackFromItsJson) {
  const PropertyList all = makeDictionary({
      {"bool", PropertyList::boolean(false)},
      {"int", PropertyList::integer(-42)},
      {"u64", PropertyList::unsignedInteger(kU64Max)},
      {"inf", PropertyList::real(kInf)},
      {"-inf", PropertyList::real(-kInf)},
      {"text", PropertyList::string("caf\xc3\xa9 \"quoted\"\n")},
      {"data", PropertyList::data(velmora::Bytes{0, 1, 2, 0xff})},
      {"date", PropertyList::date(-86'400)},
      {"list", makeArray({PropertyList::integer(1), makeArray({}), makeDictionary({})})},
  });
  for (bool pretty : {false, true}) EXPECT_EQ(parseJsonValue(formatJson(all, pretty)).value, all) << pretty;
  const PropertyList nan = parseJsonValue(formatJson(PropertyList::real(std::nan("")), false)).value;
  EXPECT_TRUE(nan.isReal() && std::isnan(nan.realValue()));
}

TEST(ToolValueText, TextsReadAsTheirValueOrAreRefused) {
  const struct {
    std::optional<ValueType> type;  // nullopt: JSON
    const char* text;
    PropertyList wanted;  // none: refused
  } cases[] = {
      {{}, "-5", PropertyList::integer(-5)},
      {{}, "18446744073709551615", PropertyList::unsignedInteger(kU64Max)},
      {{}, R"({"real": "+inf"})", PropertyList::real(kInf)},
      {{}, R"({"data": "AA==", "more": 1})",
       makeDictionary({{"data", PropertyList::string("AA==")}, {"more", PropertyList::integer(1)}})},
      {{}, "null", {}},
      {{}, "", {}},
      {{}, R"({"a": 1,})", {}},
      {ValueType::kInteger, "-7", PropertyList::integer(-7)},
      {ValueType::kInteger, "-18446744073709551615", {}},
      {ValueType::kInteger, "", {}},
      {ValueType::kReal, "1e3", PropertyList::real(1000)},
      {ValueType::kReal, "inf", PropertyList::real(kInf)},
      {ValueType::kReal, "one", {}},
      {ValueType::kBoolean, "true", PropertyList::boolean(true)},
      {ValueType::kBoolean, "yes", PropertyList::boolean(true)},
      {ValueType::kBoolean, "1", PropertyList::boolean(true)},
      {ValueType::kBoolean, "false", PropertyList::boolean(false)},
      {ValueType::kBoolean, "0", PropertyList::boolean(false)},
      {ValueType::kBoolean, "maybe", {}},
      {ValueType::kData, "<x>", {}},
      {ValueType::kDate, "2024-05-01T12:00:00+02:00", {}},
  };
  for (const auto& c : cases) {
    const ParsedValue parsed = c.type ? parseTypedValue(*c.type, c.text) : parseJsonValue(c.text);
    EXPECT_EQ(parsed.value, c.wanted) << c.text << ": " << parsed.error;
    EXPECT_EQ(parsed.error.empty(), !c.wanted.isNone()) << c.text;
    const bool named = parsed.error.find('"' + std::string(c.text) + '"') != std::string::npos;
    EXPECT_TRUE(named || !c.type || !c.wanted.isNone()) << parsed.error;
  }
}

}  // namespace
