// The tool's value texts: what `get` prints reads back through `set` as the
// same value, and every refusal names what was wrong.
#include "ValueText.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

namespace {

using velmora::makeArray;
using velmora::makeDictionary;
using velmora::PropertyList;
using namespace velmora::tool;

PropertyList bytes(std::initializer_list<std::uint8_t> list) { return PropertyList::data(velmora::Bytes(list)); }

TEST(ToolValueText, EveryPropertyListTypeRoundTripsThroughJson) {
  const PropertyList all = makeDictionary({
      {"bool", PropertyList::boolean(false)},
      {"int", PropertyList::integer(-42)},
      {"int64max", PropertyList::integer(std::numeric_limits<std::int64_t>::max())},
      {"uint64max", PropertyList::unsignedInteger(std::numeric_limits<std::uint64_t>::max())},
      {"real", PropertyList::real(0.1)},
      {"wholeReal", PropertyList::real(3.0)},  // stays a real, not an integer
      {"nan", PropertyList::real(std::numeric_limits<double>::quiet_NaN())},
      {"-inf", PropertyList::real(-std::numeric_limits<double>::infinity())},
      {"text", PropertyList::string("caf\xc3\xa9 \"quoted\"\n")},
      {"data", bytes({0, 1, 2, 0xff})},
      {"emptyData", bytes({})},
      {"date", PropertyList::date(736'257'600)},
      {"before2001", PropertyList::date(-86'400)},
      {"list", makeArray({PropertyList::integer(1), makeArray({}), makeDictionary({})})},
      {"nested", makeDictionary({{"data", PropertyList::integer(1)}})},  // not the data form: no string
  });
  for (bool pretty : {false, true}) {
    const std::string text = formatJson(all, pretty);
    EXPECT_EQ(text.find('\n') != std::string::npos, pretty);
    const ParsedValue back = parseJsonValue(text);
    ASSERT_TRUE(back.ok()) << back.error << "\n" << text;
    EXPECT_EQ(back.value, all) << text;
  }
}

TEST(ToolValueText, ValuesJsonLacksPrintInTheirOneEntryForms) {
  EXPECT_EQ(formatJson(bytes({0, 1, 2, 3}), false), R"({"data":"AAECAw=="})");
  EXPECT_EQ(formatJson(PropertyList::date(0), false), R"({"date":"2001-01-01T00:00:00Z"})");
  // Whole seconds, as the XML dump writes them.
  EXPECT_EQ(formatJson(PropertyList::date(736'257'600.75), false), R"({"date":"2024-05-01T12:00:00Z"})");
  EXPECT_EQ(formatJson(PropertyList::real(std::numeric_limits<double>::infinity()), false), R"({"real":"inf"})");
  EXPECT_EQ(formatJson(PropertyList::real(2.5), false), "2.5");
  EXPECT_EQ(formatJson(PropertyList::string("x"), false), R"("x")");
  // A one-entry object that is not one of the forms stays a dictionary.
  const ParsedValue twoEntries = parseJsonValue(R"({"data": "AA==", "more": 1})");
  ASSERT_TRUE(twoEntries.ok());
  EXPECT_TRUE(twoEntries.value.isDictionary());
}

TEST(ToolValueText, RefusalsNameWhatWasWrong) {
  struct Case {
    const char* json;
    const char* wanted;  // a part of the message
  };
  const Case cases[] = {
      {"null", "null has no property-list form"},
      {"[1, null]", "null has no property-list form"},
      {"hello", "not valid JSON (at byte 1 of 5)"},
      {"{\"a\": 1,}", "not valid JSON"},
      {"", "not valid JSON"},
      {"1 2", "not valid JSON"},
      {R"({"data": "not base64!"})", "no valid base64"},
      {R"({"data": "</data><string>x"})", "no valid base64"},
      {R"({"date": "2024-13-01T00:00:00Z"})", "no ISO 8601 UTC date"},
      {R"({"date": "yesterday"})", "no ISO 8601 UTC date"},
      {R"({"real": "1.5"})", "takes \"nan\""},
  };
  for (const Case& c : cases) {
    const ParsedValue parsed = parseJsonValue(c.json);
    EXPECT_FALSE(parsed.ok()) << c.json;
    EXPECT_NE(parsed.error.find(c.wanted), std::string::npos) << c.json << " -> " << parsed.error;
  }
  const std::string deep = std::string(600, '[') + std::string(600, ']');
  const ParsedValue tooDeep = parseJsonValue(deep);
  EXPECT_FALSE(tooDeep.ok());
  EXPECT_NE(tooDeep.error.find("nested more than 512"), std::string::npos);
  const std::string fine = std::string(500, '[') + std::string(500, ']');
  EXPECT_TRUE(parseJsonValue(fine).ok());
}

TEST(ToolValueText, TypedValuesReadAsTheirTypeOrAreRefused) {
  struct Case {
    ValueType type;
    const char* text;
    PropertyList wanted;  // none: refused
  };
  const Case cases[] = {
      {ValueType::kString, "42", PropertyList::string("42")},
      {ValueType::kString, "", PropertyList::string("")},
      {ValueType::kInteger, "-7", PropertyList::integer(-7)},
      {ValueType::kInteger, "18446744073709551615", PropertyList::unsignedInteger(18446744073709551615u)},
      {ValueType::kInteger, "18446744073709551616", {}},
      {ValueType::kInteger, "4.2", {}},
      {ValueType::kInteger, "12a", {}},
      {ValueType::kInteger, "", {}},
      {ValueType::kReal, "1e3", PropertyList::real(1000)},
      {ValueType::kReal, "-0.5", PropertyList::real(-0.5)},
      {ValueType::kReal, "-inf", PropertyList::real(-std::numeric_limits<double>::infinity())},
      {ValueType::kReal, "one", {}},
      {ValueType::kBoolean, "yes", PropertyList::boolean(true)},
      {ValueType::kBoolean, "0", PropertyList::boolean(false)},
      {ValueType::kBoolean, "maybe", {}},
      {ValueType::kData, "AAEC/w==", bytes({0, 1, 2, 0xff})},
      {ValueType::kData, "AAEC/w", bytes({0, 1, 2, 0xff})},
      {ValueType::kData, "A", {}},
      {ValueType::kData, "<x>", {}},
      {ValueType::kDate, "2001-01-01T00:01:00Z", PropertyList::date(60)},
      {ValueType::kDate, "2024-05-01Z", PropertyList::date(736'214'400)},
      {ValueType::kDate, "2024-05-01T12:00:00+02:00", {}},
      {ValueType::kDate, "2023-02-29T00:00:00Z", {}},
  };
  for (const Case& c : cases) {
    const ParsedValue parsed = parseTypedValue(c.type, c.text);
    if (c.wanted.isNone()) {
      EXPECT_FALSE(parsed.ok()) << c.text;
      EXPECT_NE(parsed.error.find(c.text), std::string::npos) << parsed.error;
    } else {
      EXPECT_EQ(parsed.value, c.wanted) << c.text << ": " << parsed.error;
    }
  }
  const ParsedValue nan = parseTypedValue(ValueType::kReal, "nan");
  ASSERT_TRUE(nan.value.isReal());
  EXPECT_TRUE(std::isnan(nan.value.realValue()));
  EXPECT_EQ(parseValueType("boolean"), ValueType::kBoolean);
  EXPECT_EQ(parseValueType("bool"), std::nullopt);
}

}  // namespace
