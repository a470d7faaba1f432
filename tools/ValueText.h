// ValueText: property-list values as the command-line tool reads and prints
// them. JSON for the values JSON has; the two it lacks as one-entry objects:
// data as {"data": "<base64>"}, dates as {"date": "<ISO 8601 UTC>"}; and
// reals JSON cannot write (NaN, infinities) as {"real": "nan" | "inf" |
// "-inf"}. Reading accepts the same forms back, so what `get` prints `set`
// takes. Base64 and date texts are those of the XML property-list codec, so
// `get` and `dump` spell a value alike; dates are whole seconds in UTC.
//
// Every function here is pure, thread-safe and never throws; failures come
// back as a value holding a message for the user.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "velmora/platform/PropertyList.h"

namespace velmora::tool {

// A value read from text, or why it could not be: value is none exactly when
// error holds the message (one line, naming what was wrong).
struct ParsedValue {
  velmora::PropertyList value;
  std::string error;

  bool ok() const noexcept { return !value.isNone(); }
};

// What `set --type` reads VALUE as, instead of JSON.
enum class ValueType : std::uint8_t { kString, kInteger, kReal, kBoolean, kData, kDate };

// The type named string|integer|real|boolean|data|date; nullopt otherwise.
std::optional<ValueType> parseValueType(std::string_view name) noexcept;

// Reads text as JSON (one value, surrounding whitespace allowed). Refuses
// null, malformed JSON (naming the byte where it went wrong), bad base64 or
// dates in the one-entry forms, and nesting deeper than
// PropertyList::kMaxDepth.
ParsedValue parseJsonValue(std::string_view text);

// Reads text as one value of type: a string as it stands; an integer in
// decimal (up to the unsigned 64-bit range); a real in decimal or scientific
// notation, or nan / inf / -inf; a boolean as true/false, yes/no or 1/0; data
// as base64; a date as ISO 8601 UTC ("2024-05-01T12:00:00Z", shorter forms
// such as "2024-05-01Z" too).
ParsedValue parseTypedValue(ValueType type, std::string_view text);

// value as JSON text in the forms above: indented over several lines when
// pretty, else on one line; no trailing newline. The none value prints as
// null. Never fails: a date outside what ISO 8601 text can carry prints as
// its seconds since 2001-01-01 in {"date": seconds}.
std::string formatJson(const velmora::PropertyList& value, bool pretty);

// Base64 (standard alphabet, padded, one line) of bytes.
std::string encodeBase64(const velmora::Bytes& bytes);
// The bytes of base64 text (whitespace allowed, padding optional); nullopt
// when it is not base64.
std::optional<velmora::Bytes> decodeBase64(std::string_view text);

// A date (seconds since 2001-01-01 UTC) as "YYYY-MM-DDTHH:MM:SSZ", the
// fraction of a second dropped; nullopt for dates ISO 8601 text cannot
// carry (not finite, or beyond years +-99999999999).
std::optional<std::string> formatIsoDate(double secondsSince2001);
// The date of ISO 8601 UTC text "YYYY[-MM[-DD[THH[:MM[:SS]]]]]Z"; nullopt
// for anything else.
std::optional<double> parseIsoDate(std::string_view text);

}  // namespace velmora::tool
