// PropertyList: the immutable value of the property-list family that the
// library stores, the store file holds and the daemon's messages carry.
//
// Design: a PropertyList is a 32-byte handle. Scalars (boolean, integer, real,
// date) live inline; strings, data, arrays and dictionaries live in a
// reference-counted payload that is never changed once shared, so a copy is
// one atomic increment and a PropertyList may be read from any thread at
// once. The one exception is the copy-on-write editors (editArray,
// editDictionary): they change a payload in place only while this handle is
// its sole owner, and clone it first otherwise.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "velmora/platform/Export.h"

namespace velmora {

// A byte buffer. Data values share one immutable Bytes payload.
using Bytes = std::vector<std::uint8_t>;

class PropertyList;

// Arrays are plain vectors; dictionaries are ordered by key (byte order), which
// makes iteration, equality and text descriptions deterministic. Both are also
// the mutable forms: build one, then wrap it with PropertyList::array() /
// PropertyList::dictionary().
using PlistArray = std::vector<PropertyList>;
using PlistDictionary = std::map<std::string, PropertyList, std::less<>>;

enum class PlistType : std::uint8_t {
  None,  // no value: what every decoder returns for malformed input
  Boolean,
  Integer,
  Real,
  Date,
  String,
  Data,
  Array,
  Dictionary,
};

// Seconds between 1970-01-01 and 2001-01-01, the epoch of dates and of the
// absolute clock.
inline constexpr double kAbsoluteTimeIntervalSince1970 = 978307200.0;

class VELMORA_EXPORT PropertyList {
 public:
  // The none value. Containers may hold none only transiently: a value that
  // holds none anywhere is not valid for the binary format.
  PropertyList() noexcept : type_(PlistType::None), unsigned_(false), i_(0) {}

  // Factories. Each returns a new value; none of them fails.
  static PropertyList boolean(bool v);
  static PropertyList integer(std::int64_t v);
  // Values up to INT64_MAX become ordinary (signed) integers; values above it
  // are kept as unsigned 64-bit integers.
  static PropertyList unsignedInteger(std::uint64_t v);
  static PropertyList real(double v);
  // Seconds since 2001-01-01 00:00:00 UTC; any finite or infinite double.
  static PropertyList date(double secondsSince2001);
  // UTF-8 text; may hold NUL bytes.
  static PropertyList string(std::string v);
  static PropertyList data(Bytes v);
  static PropertyList data(std::span<const std::uint8_t> v);
  static PropertyList array(PlistArray v);
  static PropertyList dictionary(PlistDictionary v);
  // Shares an existing payload instead of copying it.
  static PropertyList data(std::shared_ptr<const Bytes> v);

  PlistType type() const noexcept { return type_; }
  bool isNone() const noexcept { return type_ == PlistType::None; }
  explicit operator bool() const noexcept { return type_ != PlistType::None; }
  bool isBoolean() const noexcept { return type_ == PlistType::Boolean; }
  bool isInteger() const noexcept { return type_ == PlistType::Integer; }
  bool isReal() const noexcept { return type_ == PlistType::Real; }
  // A number is an integer or a real (booleans are not numbers).
  bool isNumber() const noexcept { return isInteger() || isReal(); }
  bool isDate() const noexcept { return type_ == PlistType::Date; }
  bool isString() const noexcept { return type_ == PlistType::String; }
  bool isData() const noexcept { return type_ == PlistType::Data; }
  bool isArray() const noexcept { return type_ == PlistType::Array; }
  bool isDictionary() const noexcept { return type_ == PlistType::Dictionary; }

  // Scalar accessors: the value when the type matches, otherwise a zero value.
  bool booleanValue() const noexcept { return type_ == PlistType::Boolean && b_; }
  // True for an integer above INT64_MAX (stored unsigned).
  bool isUnsignedInteger() const noexcept { return type_ == PlistType::Integer && unsigned_; }
  // Raw integer bits; read as unsigned when isUnsignedInteger().
  std::int64_t integerBits() const noexcept { return type_ == PlistType::Integer ? i_ : 0; }
  std::uint64_t unsignedValue() const noexcept {
    return type_ == PlistType::Integer ? static_cast<std::uint64_t>(i_) : 0;
  }
  double realValue() const noexcept { return type_ == PlistType::Real ? d_ : 0.0; }
  double dateValue() const noexcept { return type_ == PlistType::Date ? d_ : 0.0; }

  // Number conversion. Writes the converted value to out (when this is a
  // number) and returns true only when the conversion was exact: a real with a
  // fraction, out of range or NaN, and an unsigned integer above INT64_MAX, are
  // lossy. Returns false without touching out when this is not a number.
  bool getInt64(std::int64_t& out) const noexcept;
  // As getInt64, into a signed 32-bit integer.
  bool getInt32(std::int32_t& out) const noexcept;
  // The number as a double (integers converted); false when not a number.
  bool getDouble(double& out) const noexcept;

  // Borrowed views of the payload, or nullptr when the type differs. They stay
  // valid as long as this value (or any copy of it) lives.
  const std::string* getString() const noexcept;
  const Bytes* getData() const noexcept;
  const PlistArray* getArray() const noexcept;
  const PlistDictionary* getDictionary() const noexcept;
  // The shared data payload itself, or nullptr when this is not data.
  std::shared_ptr<const Bytes> sharedData() const noexcept;

  // Dictionary lookup: the entry's value, or nullptr when this is not a
  // dictionary or has no such key.
  const PropertyList* find(std::string_view key) const noexcept;
  // Number of entries of an array or dictionary, bytes of data, bytes of a
  // string; 0 for anything else.
  std::size_t count() const noexcept;

  // Copy-on-write editors for arrays and dictionaries: return the payload for
  // in-place change, cloning it first when it is shared with another handle.
  // Return nullptr when the type differs. Not safe against concurrent readers
  // of this very handle.
  PlistArray* editArray();
  PlistDictionary* editDictionary();

  // Deep equality: same type and same content, recursively. Integers compare
  // by value (signed and unsigned ranges do not overlap); reals and dates
  // compare by value, with NaN equal to NaN. A real is never equal to an
  // integer.
  bool operator==(const PropertyList& other) const noexcept;
  bool operator!=(const PropertyList& other) const noexcept { return !(*this == other); }

  // Identity: true when both handles share one payload (strings, data,
  // arrays, dictionaries), or are the same scalar.
  bool isSameObject(const PropertyList& other) const noexcept;

  // The validity test for the binary format: not none, no none anywhere
  // inside, every string and key valid UTF-8, depth at most kMaxDepth.
  bool isValidForBinaryFormat() const;
  // The same test for the value placed `depth` containers deep inside
  // another one (0: at the top), so that the whole stays within kMaxDepth.
  // False for a negative depth.
  bool isValidForBinaryFormat(int depth) const;

  // Readable, deterministic text: dictionaries with keys sorted, strings
  // quoted, data in hex (long data shortened), dates in UTC. Used by log
  // lines and debug descriptions.
  std::string description() const;

  // Containers nested deeper than this are refused by the codecs and by the
  // validity test, so that no recursion can exhaust the stack.
  static constexpr int kMaxDepth = 512;

 private:
  PlistType type_;
  bool unsigned_;  // Integer only: the bits are an unsigned value above INT64_MAX
  union {
    bool b_;
    std::int64_t i_;
    double d_;
  };
  // String: std::string; Data: Bytes; Array: PlistArray; Dictionary: PlistDictionary.
  std::shared_ptr<const void> payload_;
};

// Dictionary building helpers for readable call sites and tests.
VELMORA_EXPORT PropertyList makeDictionary(std::initializer_list<std::pair<const std::string, PropertyList>> entries);
VELMORA_EXPORT PropertyList makeArray(std::initializer_list<PropertyList> items);

// Is this byte range valid UTF-8 (NUL allowed, no overlongs, no surrogates)?
VELMORA_EXPORT bool isValidUtf8(std::string_view s) noexcept;

}  // namespace velmora
