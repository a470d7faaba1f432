#include "velmora/platform/PropertyList.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <limits>
#include <unordered_map>

namespace velmora {

namespace {

template <typename T>
const T* payloadAs(const std::shared_ptr<const void>& p) noexcept {
  return static_cast<const T*>(p.get());
}

bool sameReal(double a, double b) noexcept {
  return a == b || (std::isnan(a) && std::isnan(b));
}

}  // namespace

PropertyList PropertyList::boolean(bool v) {
  PropertyList p;
  p.type_ = PlistType::Boolean;
  p.i_ = 0;
  p.b_ = v;
  return p;
}

PropertyList PropertyList::integer(std::int64_t v) {
  PropertyList p;
  p.type_ = PlistType::Integer;
  p.i_ = v;
  return p;
}

PropertyList PropertyList::unsignedInteger(std::uint64_t v) {
  PropertyList p;
  p.type_ = PlistType::Integer;
  p.i_ = static_cast<std::int64_t>(v);
  p.unsigned_ = v > static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max());
  return p;
}

PropertyList PropertyList::real(double v) {
  PropertyList p;
  p.type_ = PlistType::Real;
  p.d_ = v;
  return p;
}

PropertyList PropertyList::date(double secondsSince2001) {
  PropertyList p;
  p.type_ = PlistType::Date;
  p.d_ = secondsSince2001;
  return p;
}

PropertyList PropertyList::string(std::string v) {
  PropertyList p;
  p.type_ = PlistType::String;
  p.payload_ = std::make_shared<const std::string>(std::move(v));
  return p;
}

PropertyList PropertyList::data(Bytes v) {
  PropertyList p;
  p.type_ = PlistType::Data;
  p.payload_ = std::make_shared<const Bytes>(std::move(v));
  return p;
}

PropertyList PropertyList::data(std::span<const std::uint8_t> v) {
  return data(Bytes(v.begin(), v.end()));
}

PropertyList PropertyList::data(std::shared_ptr<const Bytes> v) {
  if (!v) return data(Bytes{});
  PropertyList p;
  p.type_ = PlistType::Data;
  p.payload_ = std::move(v);
  return p;
}

PropertyList PropertyList::array(PlistArray v) {
  PropertyList p;
  p.type_ = PlistType::Array;
  p.payload_ = std::make_shared<const PlistArray>(std::move(v));
  return p;
}

PropertyList PropertyList::dictionary(PlistDictionary v) {
  PropertyList p;
  p.type_ = PlistType::Dictionary;
  p.payload_ = std::make_shared<const PlistDictionary>(std::move(v));
  return p;
}

bool PropertyList::getInt64(std::int64_t& out) const noexcept {
  if (type_ == PlistType::Integer) {
    out = i_;
    return !unsigned_;
  }
  if (type_ == PlistType::Real) {
    // 2^63 is exactly representable; anything at or above it does not fit.
    constexpr double kLimit = 9223372036854775808.0;
    if (std::isnan(d_)) {
      out = 0;
      return false;
    }
    if (d_ >= kLimit) {
      out = std::numeric_limits<std::int64_t>::max();
      return false;
    }
    if (d_ < -kLimit) {
      out = std::numeric_limits<std::int64_t>::min();
      return false;
    }
    out = static_cast<std::int64_t>(d_);
    return static_cast<double>(out) == d_;
  }
  return false;
}

bool PropertyList::getInt32(std::int32_t& out) const noexcept {
  std::int64_t wide = 0;
  if (!isNumber()) return false;
  bool exact = getInt64(wide);
  out = static_cast<std::int32_t>(wide);
  return exact && wide >= std::numeric_limits<std::int32_t>::min() &&
         wide <= std::numeric_limits<std::int32_t>::max();
}

bool PropertyList::getDouble(double& out) const noexcept {
  if (type_ == PlistType::Real) {
    out = d_;
    return true;
  }
  if (type_ == PlistType::Integer) {
    out = unsigned_ ? static_cast<double>(static_cast<std::uint64_t>(i_)) : static_cast<double>(i_);
    return true;
  }
  return false;
}

const std::string* PropertyList::getString() const noexcept {
  return type_ == PlistType::String ? payloadAs<std::string>(payload_) : nullptr;
}

const Bytes* PropertyList::getData() const noexcept {
  return type_ == PlistType::Data ? payloadAs<Bytes>(payload_) : nullptr;
}

const PlistArray* PropertyList::getArray() const noexcept {
  return type_ == PlistType::Array ? payloadAs<PlistArray>(payload_) : nullptr;
}

const PlistDictionary* PropertyList::getDictionary() const noexcept {
  return type_ == PlistType::Dictionary ? payloadAs<PlistDictionary>(payload_) : nullptr;
}

std::shared_ptr<const Bytes> PropertyList::sharedData() const noexcept {
  if (type_ != PlistType::Data) return nullptr;
  return std::static_pointer_cast<const Bytes>(payload_);
}

const PropertyList* PropertyList::find(std::string_view key) const noexcept {
  const PlistDictionary* d = getDictionary();
  if (!d) return nullptr;
  auto it = d->find(key);
  return it == d->end() ? nullptr : &it->second;
}

std::size_t PropertyList::count() const noexcept {
  switch (type_) {
    case PlistType::String: return getString()->size();
    case PlistType::Data: return getData()->size();
    case PlistType::Array: return getArray()->size();
    case PlistType::Dictionary: return getDictionary()->size();
    default: return 0;
  }
}

PlistArray* PropertyList::editArray() {
  if (type_ != PlistType::Array) return nullptr;
  if (payload_.use_count() != 1) payload_ = std::make_shared<const PlistArray>(*getArray());
  return const_cast<PlistArray*>(getArray());
}

PlistDictionary* PropertyList::editDictionary() {
  if (type_ != PlistType::Dictionary) return nullptr;
  if (payload_.use_count() != 1) payload_ = std::make_shared<const PlistDictionary>(*getDictionary());
  return const_cast<PlistDictionary*>(getDictionary());
}

bool PropertyList::operator==(const PropertyList& other) const noexcept {
  if (type_ != other.type_) return false;
  switch (type_) {
    case PlistType::None: return true;
    case PlistType::Boolean: return b_ == other.b_;
    case PlistType::Integer: return i_ == other.i_ && unsigned_ == other.unsigned_;
    case PlistType::Real:
    case PlistType::Date: return sameReal(d_, other.d_);
    default: break;
  }
  if (payload_ == other.payload_) return true;
  switch (type_) {
    case PlistType::String: return *getString() == *other.getString();
    case PlistType::Data: return *getData() == *other.getData();
    case PlistType::Array: return *getArray() == *other.getArray();
    case PlistType::Dictionary: return *getDictionary() == *other.getDictionary();
    default: return false;
  }
}

bool PropertyList::isSameObject(const PropertyList& other) const noexcept {
  if (type_ != other.type_) return false;
  if (payload_ || other.payload_) return payload_ == other.payload_;
  return *this == other;
}

namespace {

// The height of v (container levels below it), or -1 when v is not valid at
// `depth`. Each container payload is checked once: values decoded from the
// binary format may share subtrees so heavily that walking them as a tree
// would never finish. Later visits re-check only the depth.
int validHeight(const PropertyList& v, int depth, std::unordered_map<const void*, int>& seen) {
  constexpr int kVisiting = -1;
  if (depth > PropertyList::kMaxDepth) return -1;
  const void* payload = nullptr;
  switch (v.type()) {
    case PlistType::None: return -1;
    case PlistType::String: return isValidUtf8(*v.getString()) ? 0 : -1;
    case PlistType::Array: payload = v.getArray(); break;
    case PlistType::Dictionary: payload = v.getDictionary(); break;
    default: return 0;
  }
  auto [it, fresh] = seen.try_emplace(payload, kVisiting);
  int& known = it->second;  // references survive rehashing
  if (!fresh) return known != kVisiting && depth + known <= PropertyList::kMaxDepth ? known : -1;
  int height = 0;
  auto visit = [&](const PropertyList& item) {
    const int h = validHeight(item, depth + 1, seen);
    height = std::max(height, h + 1);
    return h >= 0;
  };
  if (const PlistArray* a = v.getArray()) {
    for (const auto& item : *a)
      if (!visit(item)) return -1;
  } else {
    for (const auto& [key, item] : *v.getDictionary())
      if (!isValidUtf8(key) || !visit(item)) return -1;
  }
  known = height;
  return height;
}

void appendQuoted(std::string& out, std::string_view s) {
  out.push_back('"');
  for (unsigned char c : s) {
    switch (c) {
      case '"': out += "\\\""; break;
      case '\\': out += "\\\\"; break;
      case '\n': out += "\\n"; break;
      case '\t': out += "\\t"; break;
      case '\r': out += "\\r"; break;
      default:
        if (c < 0x20 || c == 0x7f) {
          char buf[8];
          std::snprintf(buf, sizeof buf, "\\x%02x", c);
          out += buf;
        } else {
          out.push_back(static_cast<char>(c));
        }
    }
  }
  out.push_back('"');
}

void appendReal(std::string& out, double d) {
  if (std::isnan(d)) {
    out += "nan";
  } else if (std::isinf(d)) {
    out += d > 0 ? "+infinity" : "-infinity";
  } else {
    char buf[32];
    std::snprintf(buf, sizeof buf, "%.17g", d);
    // Prefer the shortest text that reads back to the same double.
    for (int precision = 1; precision < 17; ++precision) {
      char shorter[32];
      std::snprintf(shorter, sizeof shorter, "%.*g", precision, d);
      if (std::strtod(shorter, nullptr) == d) {
        std::snprintf(buf, sizeof buf, "%s", shorter);
        break;
      }
    }
    out += buf;
  }
}

void appendDate(std::string& out, double secondsSince2001) {
  double unix = secondsSince2001 + kAbsoluteTimeIntervalSince1970;
  if (!std::isfinite(unix) || unix > 253402300799.0 || unix < -62135596800.0) {
    // Outside years 1-9999: show the raw offset rather than a made-up date.
    out += "date(";
    appendReal(out, secondsSince2001);
    out += ")";
    return;
  }
  std::time_t t = static_cast<std::time_t>(std::floor(unix));
  std::tm tm{};
  gmtime_r(&t, &tm);
  char buf[48];
  std::strftime(buf, sizeof buf, "%Y-%m-%d %H:%M:%S +0000", &tm);
  out += buf;
}

void describe(std::string& out, const PropertyList& v, int indent) {
  const std::string pad(static_cast<std::size_t>(indent) * 4, ' ');
  switch (v.type()) {
    case PlistType::None: out += "(none)"; return;
    case PlistType::Boolean: out += v.booleanValue() ? "true" : "false"; return;
    case PlistType::Integer:
      out += v.isUnsignedInteger() ? std::to_string(v.unsignedValue()) : std::to_string(v.integerBits());
      return;
    case PlistType::Real: appendReal(out, v.realValue()); return;
    case PlistType::Date: appendDate(out, v.dateValue()); return;
    case PlistType::String: appendQuoted(out, *v.getString()); return;
    case PlistType::Data: {
      constexpr std::size_t kShown = 64;
      const Bytes& d = *v.getData();
      out.push_back('<');
      char hex[3];
      for (std::size_t i = 0; i < d.size() && i < kShown; ++i) {
        if (i && i % 4 == 0) out.push_back(' ');
        std::snprintf(hex, sizeof hex, "%02x", d[i]);
        out += hex;
      }
      if (d.size() > kShown) out += " ... " + std::to_string(d.size()) + " bytes";
      out.push_back('>');
      return;
    }
    case PlistType::Array: {
      const PlistArray& a = *v.getArray();
      if (a.empty()) {
        out += "()";
        return;
      }
      out += "(\n";
      for (std::size_t i = 0; i < a.size(); ++i) {
        out += pad + "    ";
        describe(out, a[i], indent + 1);
        out += i + 1 < a.size() ? ",\n" : "\n";
      }
      out += pad + ")";
      return;
    }
    case PlistType::Dictionary: {
      const PlistDictionary& d = *v.getDictionary();
      if (d.empty()) {
        out += "{}";
        return;
      }
      out += "{\n";
      for (const auto& [key, item] : d) {
        out += pad + "    ";
        appendQuoted(out, key);
        out += " = ";
        describe(out, item, indent + 1);
        out += ";\n";
      }
      out += pad + "}";
      return;
    }
  }
}

}  // namespace

bool PropertyList::isValidForBinaryFormat() const { return isValidForBinaryFormat(0); }

bool PropertyList::isValidForBinaryFormat(int depth) const {
  if (depth < 0) return false;
  std::unordered_map<const void*, int> seen;
  return validHeight(*this, depth, seen) >= 0;
}

std::string PropertyList::description() const {
  std::string out;
  describe(out, *this, 0);
  return out;
}

PropertyList makeDictionary(std::initializer_list<std::pair<const std::string, PropertyList>> entries) {
  return PropertyList::dictionary(PlistDictionary(entries));
}

PropertyList makeArray(std::initializer_list<PropertyList> items) {
  return PropertyList::array(PlistArray(items));
}

bool isValidUtf8(std::string_view s) noexcept {
  const auto* p = reinterpret_cast<const unsigned char*>(s.data());
  const auto* end = p + s.size();
  while (p < end) {
    unsigned char c = *p;
    if (c < 0x80) {
      ++p;
      continue;
    }
    int extra;
    std::uint32_t cp;
    if ((c & 0xE0) == 0xC0) {
      extra = 1;
      cp = c & 0x1F;
    } else if ((c & 0xF0) == 0xE0) {
      extra = 2;
      cp = c & 0x0F;
    } else if ((c & 0xF8) == 0xF0) {
      extra = 3;
      cp = c & 0x07;
    } else {
      return false;
    }
    if (end - p <= extra) return false;
    for (int i = 1; i <= extra; ++i) {
      if ((p[i] & 0xC0) != 0x80) return false;
      cp = (cp << 6) | (p[i] & 0x3F);
    }
    static constexpr std::uint32_t kMin[] = {0, 0x80, 0x800, 0x10000};
    if (cp < kMin[extra] || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) return false;
    p += extra + 1;
  }
  return true;
}

}  // namespace velmora
