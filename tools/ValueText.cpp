// ValueText: JSON through nlohmann/json; base64 and ISO 8601 dates through
// the XML property-list codec, which already reads and writes both (one
// definition of those texts for `get`, `set` and `dump` alike).
#include "ValueText.h"

#include <charconv>
#include <cmath>
#include <limits>
#include <nlohmann/json.hpp>
#include <span>
#include <utility>

#include "velmora/platform/PlistCodec.h"

namespace velmora::tool {

using velmora::PlistArray;
using velmora::PlistDictionary;
using velmora::PropertyList;
using Json = nlohmann::json;

namespace {

// The one-entry object names of the values JSON lacks.
constexpr std::string_view kDataKey = "data";
constexpr std::string_view kDateKey = "date";
constexpr std::string_view kRealKey = "real";

ParsedValue failure(std::string message) { return ParsedValue{PropertyList(), std::move(message)}; }
ParsedValue success(PropertyList value) { return ParsedValue{std::move(value), {}}; }

// The text between <tag> and </tag> in XML the codec wrote for one value,
// whitespace removed.
std::optional<std::string> elementText(const std::optional<std::string>& xml, std::string_view tag) {
  if (!xml) return std::nullopt;
  const std::string open = "<" + std::string(tag) + ">";
  const std::string close = "</" + std::string(tag) + ">";
  const std::size_t begin = xml->find(open);
  const std::size_t end = xml->find(close);
  if (begin == std::string::npos || end == std::string::npos || end < begin) return std::nullopt;
  std::string text;
  for (std::size_t i = begin + open.size(); i < end; ++i) {
    const char c = (*xml)[i];
    if (c != ' ' && c != '\t' && c != '\n' && c != '\r') text += c;
  }
  return text;
}

// Decodes <tag>text</tag> with the XML codec. text must hold only allowed
// characters, so that nothing in it can be markup.
PropertyList decodeElement(std::string_view tag, std::string_view text, std::string_view allowed) {
  for (char c : text) {
    if (allowed.find(c) == std::string_view::npos) return {};
  }
  std::string xml = "<plist version=\"1.0\"><" + std::string(tag) + ">";
  xml += text;
  xml += "</" + std::string(tag) + "></plist>";
  return velmora::decodeXmlPlist(
      std::span<const std::uint8_t>(reinterpret_cast<const std::uint8_t*>(xml.data()), xml.size()));
}

// The special reals by name; nullopt for other text.
std::optional<double> specialReal(std::string_view text) {
  if (text == "nan") return std::numeric_limits<double>::quiet_NaN();
  if (text == "inf" || text == "+inf") return std::numeric_limits<double>::infinity();
  if (text == "-inf") return -std::numeric_limits<double>::infinity();
  return std::nullopt;
}

std::string_view jsonTypeName(const Json& json) {
  return json.type_name();  // "object", "array", ...
}

// One JSON value as a property list; depth counts the containers around it.
ParsedValue fromJson(const Json& json, int depth) {
  if (depth > PropertyList::kMaxDepth) {
    return failure("the value is nested more than " + std::to_string(PropertyList::kMaxDepth) + " levels deep");
  }
  switch (json.type()) {
    case Json::value_t::null:
      return failure("null has no property-list form (use `rm` to remove a key)");
    case Json::value_t::boolean:
      return success(PropertyList::boolean(json.get<bool>()));
    case Json::value_t::number_integer:
      return success(PropertyList::integer(json.get<std::int64_t>()));
    case Json::value_t::number_unsigned: {
      const auto value = json.get<std::uint64_t>();
      return success(value <= static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())
                         ? PropertyList::integer(static_cast<std::int64_t>(value))
                         : PropertyList::unsignedInteger(value));
    }
    case Json::value_t::number_float:
      return success(PropertyList::real(json.get<double>()));
    case Json::value_t::string:
      return success(PropertyList::string(json.get<std::string>()));
    case Json::value_t::array: {
      PlistArray items;
      items.reserve(json.size());
      for (const Json& item : json) {
        ParsedValue converted = fromJson(item, depth + 1);
        if (!converted.ok()) return converted;
        items.push_back(std::move(converted.value));
      }
      return success(PropertyList::array(std::move(items)));
    }
    case Json::value_t::object: {
      if (json.size() == 1 && json.begin().value().is_string()) {
        const std::string& key = json.begin().key();
        const std::string& text = json.begin().value().get_ref<const std::string&>();
        if (key == kDataKey) {
          std::optional<velmora::Bytes> bytes = decodeBase64(text);
          if (!bytes) return failure("{\"data\": ...} holds no valid base64: \"" + text + "\"");
          return success(PropertyList::data(std::move(*bytes)));
        }
        if (key == kDateKey) {
          std::optional<double> date = parseIsoDate(text);
          if (!date) {
            return failure("{\"date\": ...} holds no ISO 8601 UTC date (like 2024-05-01T12:00:00Z): \"" + text + "\"");
          }
          return success(PropertyList::date(*date));
        }
        if (key == kRealKey) {
          std::optional<double> real = specialReal(text);
          if (!real) return failure("{\"real\": ...} takes \"nan\", \"inf\" or \"-inf\", not \"" + text + "\"");
          return success(PropertyList::real(*real));
        }
      }
      PlistDictionary entries;
      for (auto it = json.begin(); it != json.end(); ++it) {
        ParsedValue converted = fromJson(it.value(), depth + 1);
        if (!converted.ok()) return converted;
        entries.insert_or_assign(it.key(), std::move(converted.value));
      }
      return success(PropertyList::dictionary(std::move(entries)));
    }
    default:
      return failure("JSON " + std::string(jsonTypeName(json)) + " values have no property-list form");
  }
}

Json oneEntry(std::string_view key, Json value) {
  Json object = Json::object();
  object[std::string(key)] = std::move(value);
  return object;
}

// A property list as JSON. The codecs and the store never hold values
// deeper than PropertyList::kMaxDepth, which bounds the recursion.
Json toJson(const PropertyList& value) {
  switch (value.type()) {
    case velmora::PlistType::None:
      return nullptr;
    case velmora::PlistType::Boolean:
      return value.booleanValue();
    case velmora::PlistType::Integer:
      if (value.isUnsignedInteger()) return value.unsignedValue();
      return value.integerBits();
    case velmora::PlistType::Real: {
      const double real = value.realValue();
      if (std::isnan(real)) return oneEntry(kRealKey, "nan");
      if (std::isinf(real)) return oneEntry(kRealKey, real > 0 ? "inf" : "-inf");
      return real;
    }
    case velmora::PlistType::Date: {
      std::optional<std::string> text = formatIsoDate(value.dateValue());
      if (text) return oneEntry(kDateKey, *text);
      return oneEntry(kDateKey, value.dateValue());
    }
    case velmora::PlistType::String:
      return *value.getString();
    case velmora::PlistType::Data:
      return oneEntry(kDataKey, encodeBase64(*value.getData()));
    case velmora::PlistType::Array: {
      Json array = Json::array();
      for (const PropertyList& item : *value.getArray()) array.push_back(toJson(item));
      return array;
    }
    case velmora::PlistType::Dictionary: {
      Json object = Json::object();
      for (const auto& [key, item] : *value.getDictionary()) object[key] = toJson(item);
      return object;
    }
  }
  return nullptr;
}

template <class Number>
bool parseWhole(std::string_view text, Number& out) {
  const char* end = text.data() + text.size();
  auto [stop, ec] = std::from_chars(text.data(), end, out);
  return ec == std::errc() && stop == end;
}

}  // namespace

std::optional<ValueType> parseValueType(std::string_view name) noexcept {
  if (name == "string") return ValueType::kString;
  if (name == "integer") return ValueType::kInteger;
  if (name == "real") return ValueType::kReal;
  if (name == "boolean") return ValueType::kBoolean;
  if (name == "data") return ValueType::kData;
  if (name == "date") return ValueType::kDate;
  return std::nullopt;
}

ParsedValue parseJsonValue(std::string_view text) {
  Json json;
  try {
    json = Json::parse(text.begin(), text.end());
  } catch (const Json::parse_error& error) {
    // error.byte counts from 1; the library's what() is long and technical.
    return failure("not valid JSON (at byte " + std::to_string(error.byte) + " of " + std::to_string(text.size()) +
                   "); a string needs quotes, e.g. '\"text\"', or use --type string");
  }
  return fromJson(json, 0);
}

ParsedValue parseTypedValue(ValueType type, std::string_view text) {
  switch (type) {
    case ValueType::kString:
      return success(PropertyList::string(std::string(text)));
    case ValueType::kInteger: {
      std::int64_t value = 0;
      if (parseWhole(text, value)) return success(PropertyList::integer(value));
      std::uint64_t big = 0;
      if (!text.empty() && text.front() != '-' && parseWhole(text, big)) {
        return success(PropertyList::unsignedInteger(big));
      }
      return failure("\"" + std::string(text) + "\" is not an integer (decimal, 64 bits at most)");
    }
    case ValueType::kReal: {
      if (std::optional<double> special = specialReal(text)) return success(PropertyList::real(*special));
      double value = 0;
      if (parseWhole(text, value)) return success(PropertyList::real(value));
      return failure("\"" + std::string(text) + "\" is not a real number");
    }
    case ValueType::kBoolean:
      if (text == "true" || text == "yes" || text == "1") return success(PropertyList::boolean(true));
      if (text == "false" || text == "no" || text == "0") return success(PropertyList::boolean(false));
      return failure("\"" + std::string(text) + "\" is not a boolean (true/false, yes/no, 1/0)");
    case ValueType::kData: {
      std::optional<velmora::Bytes> bytes = decodeBase64(text);
      if (!bytes) return failure("\"" + std::string(text) + "\" is not base64");
      return success(PropertyList::data(std::move(*bytes)));
    }
    case ValueType::kDate: {
      std::optional<double> date = parseIsoDate(text);
      if (!date) {
        return failure("\"" + std::string(text) + "\" is not an ISO 8601 UTC date (like 2024-05-01T12:00:00Z)");
      }
      return success(PropertyList::date(*date));
    }
  }
  return failure("unknown type");
}

std::string formatJson(const PropertyList& value, bool pretty) {
  // Strings of a valid property list are valid UTF-8; replace keeps dump()
  // from throwing should one not be.
  return toJson(value).dump(pretty ? 2 : -1, ' ', false, Json::error_handler_t::replace);
}

std::string encodeBase64(const velmora::Bytes& bytes) {
  if (bytes.empty()) return {};
  return elementText(velmora::encodeXmlPlist(PropertyList::data(bytes)), "data").value_or(std::string());
}

std::optional<velmora::Bytes> decodeBase64(std::string_view text) {
  const PropertyList decoded =
      decodeElement("data", text, "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/= \t\r\n");
  if (const velmora::Bytes* bytes = decoded.getData()) return *bytes;
  return std::nullopt;
}

std::optional<std::string> formatIsoDate(double secondsSince2001) {
  return elementText(velmora::encodeXmlPlist(PropertyList::date(secondsSince2001)), "date");
}

std::optional<double> parseIsoDate(std::string_view text) {
  const PropertyList decoded = decodeElement("date", text, "0123456789-:TZ");
  if (!decoded.isDate()) return std::nullopt;
  return decoded.dateValue();
}

}  // namespace velmora::tool
