// Conversion between property lists and bus message values.
//
// Design note: pure functions over one message at a time; no threads, no
// locks, no state shared between calls. Recursion is bounded by depth checks
// (the binary format's on the way out, kMaxDbusReadDepth and the binary
// format's on the way in), so no input can exhaust the stack; the weight
// budget bounds the natural part of a message written.
#include "velmora/platform/DbusValue.h"

#include <systemd/sd-bus.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>

#include "velmora/platform/PlistCodec.h"

namespace velmora {
namespace {

// A value that the natural mapping cannot hold travels as "(ay)", a struct
// holding its binary property list: a string or key with NUL, a container
// nested too deep for the bus, or a tree far larger than its shared form
// (a subtree that several parents share is written once in a property list
// but at every place on the bus, so a small value can stand for a huge tree).
constexpr const char* kEncodedSignature = "(ay)";
// Containers an encoded value adds below its variant: the struct, the array.
constexpr int kEncodedDepth = 2;
// What one value, container or dictionary entry weighs on the wire before
// its bytes; the weight of a value is about its size in the natural form.
constexpr std::uint64_t kItemWeight = 16;
// The most that natural values may weigh in one message: what would exceed
// it is encoded instead. Well below the bus's 64 MiB limit for one array.
constexpr std::uint64_t kMaxNaturalWeight = std::uint64_t{16} << 20;

bool isCarriableKey(std::string_view key) { return key.find('\0') == std::string_view::npos && isValidUtf8(key); }

const char* naturalSignature(const PropertyList& v) {
  switch (v.type()) {
    case PlistType::Boolean:
      return "b";
    case PlistType::Integer:
      return v.isUnsignedInteger() ? "t" : "x";
    case PlistType::Real:
      return "d";
    case PlistType::Date:
      return "(d)";
    case PlistType::String:
      return "s";
    case PlistType::Data:
      return "ay";
    case PlistType::Array:
      return "av";
    case PlistType::Dictionary:
      return "a{sv}";
    case PlistType::None:
      break;
  }
  return nullptr;
}

// Whether the tree of v weighs at most `left`, which it reduces; the walk
// stops once it does not, after at most kMaxNaturalWeight / kItemWeight items.
bool fitsWeight(const PropertyList& v, std::uint64_t& left) {
  auto take = [&](std::uint64_t w) { return w <= left ? (left -= w, true) : false; };
  if (!take(kItemWeight + (v.isArray() || v.isDictionary() ? 0 : v.count()))) return false;
  if (const PlistArray* items = v.getArray()) {
    for (const PropertyList& item : *items) {
      if (!fitsWeight(item, left)) return false;
    }
  } else if (const PlistDictionary* entries = v.getDictionary()) {
    for (const auto& [key, item] : *entries) {
      if (!take(kItemWeight + key.size()) || !fitsWeight(item, left)) return false;
    }
  }
  return true;
}

// Writes checked values (valid for the binary format) into one message.
// `depth` is the container depth of the variant that holds a value, the
// variant counted. Every variant is kept at most kEncodedDepth short of the
// bus's limit, so that an encoded value fits wherever a natural one does
// not. A message whose whole tree fits the weight budget (the usual case,
// found by one bounded walk) is written without weighing; otherwise each
// container is weighed before it is written naturally, once per shared
// payload, which bounds the natural walk.
class Writer {
 public:
  Writer(sd_bus_message* m, const PropertyList& whole) : m_(m) {
    std::uint64_t left = kMaxNaturalWeight;
    weigh_ = !fitsWeight(whole, left);
  }

  // dict as a{sv}, its array one level below depth.
  int appendDictionary(const PlistDictionary& dict, int depth) {
    int r = sd_bus_message_open_container(m_, SD_BUS_TYPE_ARRAY, "{sv}");
    for (auto it = dict.begin(); r >= 0 && it != dict.end(); ++it) {
      budget_ -= std::min(budget_, kItemWeight + it->first.size());
      r = sd_bus_message_open_container(m_, SD_BUS_TYPE_DICT_ENTRY, "sv");
      if (r >= 0) r = sd_bus_message_append_basic(m_, SD_BUS_TYPE_STRING, it->first.c_str());
      if (r >= 0) r = appendVariant(it->second, depth + 3);
      if (r >= 0) r = sd_bus_message_close_container(m_);
    }
    return r < 0 ? r : sd_bus_message_close_container(m_);
  }

  int appendVariant(const PropertyList& v, int depth) {
    const bool natural = isNatural(v, depth);
    int r = sd_bus_message_open_container(m_, SD_BUS_TYPE_VARIANT, natural ? naturalSignature(v) : kEncodedSignature);
    if (r >= 0) r = natural ? appendNatural(v, depth) : appendEncoded(v);
    return r < 0 ? r : sd_bus_message_close_container(m_);
  }

 private:
  bool isNatural(const PropertyList& v, int depth) {
    switch (v.type()) {
      case PlistType::String:
        return v.getString()->find('\0') == std::string::npos;
      case PlistType::Array:  // av: the array, then a variant per element
        return depth + 2 + kEncodedDepth <= kMaxIpcContainerDepth && (!weigh_ || weight(v) <= budget_);
      case PlistType::Dictionary: {  // a{sv}: the array, the entry, the variant
        if (depth + 3 + kEncodedDepth > kMaxIpcContainerDepth || (weigh_ && weight(v) > budget_)) return false;
        for (const auto& entry : *v.getDictionary()) {
          if (!isCarriableKey(entry.first)) return false;
        }
        return true;
      }
      default:  // data and dates add one level, within the room kept
        return true;
    }
  }

  // About the bytes of v's natural form, saturating above the budget.
  std::uint64_t weight(const PropertyList& v) {
    const void* payload = v.getArray() != nullptr ? static_cast<const void*>(v.getArray()) : v.getDictionary();
    if (payload == nullptr) return kItemWeight + v.count();
    if (auto known = weights_.find(payload); known != weights_.end()) return known->second;
    std::uint64_t total = kItemWeight;
    auto add = [&](std::uint64_t w) {
      total = std::min(total + w, kMaxNaturalWeight + 1);
      return total <= kMaxNaturalWeight;
    };
    if (const PlistArray* items = v.getArray()) {
      for (auto it = items->begin(); it != items->end() && add(weight(*it)); ++it) {
      }
    } else {
      for (auto it = v.getDictionary()->begin(); it != v.getDictionary()->end() &&
                                                 add(kItemWeight + it->first.size() + weight(it->second));
           ++it) {
      }
    }
    weights_.emplace(payload, total);
    return total;
  }

  int appendNatural(const PropertyList& v, int depth) {
    budget_ -= std::min(budget_, v.isArray() || v.isDictionary() ? kItemWeight : weight(v));
    switch (v.type()) {
      case PlistType::Boolean: {
        int b = v.booleanValue() ? 1 : 0;
        return sd_bus_message_append_basic(m_, SD_BUS_TYPE_BOOLEAN, &b);
      }
      case PlistType::Integer: {
        if (v.isUnsignedInteger()) {
          std::uint64_t u = v.unsignedValue();
          return sd_bus_message_append_basic(m_, SD_BUS_TYPE_UINT64, &u);
        }
        std::int64_t i = v.integerBits();
        return sd_bus_message_append_basic(m_, SD_BUS_TYPE_INT64, &i);
      }
      case PlistType::Real: {
        double d = v.realValue();
        return sd_bus_message_append_basic(m_, SD_BUS_TYPE_DOUBLE, &d);
      }
      case PlistType::Date: {
        double d = v.dateValue();
        int r = sd_bus_message_open_container(m_, SD_BUS_TYPE_STRUCT, "d");
        if (r >= 0) r = sd_bus_message_append_basic(m_, SD_BUS_TYPE_DOUBLE, &d);
        return r < 0 ? r : sd_bus_message_close_container(m_);
      }
      case PlistType::String:
        return sd_bus_message_append_basic(m_, SD_BUS_TYPE_STRING, v.getString()->c_str());
      case PlistType::Data: {
        const Bytes* bytes = v.getData();
        return sd_bus_message_append_array(m_, SD_BUS_TYPE_BYTE, bytes->data(), bytes->size());
      }
      case PlistType::Array: {
        int r = sd_bus_message_open_container(m_, SD_BUS_TYPE_ARRAY, "v");
        for (auto it = v.getArray()->begin(); r >= 0 && it != v.getArray()->end(); ++it) {
          r = appendVariant(*it, depth + 2);
        }
        return r < 0 ? r : sd_bus_message_close_container(m_);
      }
      case PlistType::Dictionary:
        return appendDictionary(*v.getDictionary(), depth);
      case PlistType::None:
        break;
    }
    return -EINVAL;
  }

  int appendEncoded(const PropertyList& v) {
    const std::optional<Bytes> bytes = encodeBinaryPlist(v);
    if (!bytes) return -EINVAL;
    int r = sd_bus_message_open_container(m_, SD_BUS_TYPE_STRUCT, "ay");
    if (r >= 0) r = sd_bus_message_append_array(m_, SD_BUS_TYPE_BYTE, bytes->data(), bytes->size());
    return r < 0 ? r : sd_bus_message_close_container(m_);
  }

  sd_bus_message* const m_;
  bool weigh_ = true;                                        // whether containers are weighed before writing
  std::uint64_t budget_ = kMaxNaturalWeight;                 // natural weight still allowed
  std::unordered_map<const void*, std::uint64_t> weights_;  // by container payload
};

// ---------------------------------------------------------------------------
// Reading.

bool isStringLike(char type) {
  return type == SD_BUS_TYPE_STRING || type == SD_BUS_TYPE_OBJECT_PATH || type == SD_BUS_TYPE_SIGNATURE;
}

bool isBasic(char type) {
  return std::strchr("ybnqiuxtdsogh", type) != nullptr && type != '\0';
}

enum class ReadResult { Value, Skipped, Failed };

// `depth` counts the bus containers around the value, `level` the
// property-list containers (the level at which an encoded value lands).
ReadResult readValue(sd_bus_message* m, char type, const char* contents, int depth, int level, PropertyList& out);

// Reads one basic value of the given type.
ReadResult readBasic(sd_bus_message* m, char type, PropertyList& out) {
  union {
    std::uint8_t y;
    int b;
    std::int16_t n;
    std::uint16_t q;
    std::int32_t i;
    std::uint32_t u;
    std::int64_t x;
    std::uint64_t t;
    double d;
    const char* s;
    int h;
  } storage{};
  if (sd_bus_message_read_basic(m, type, &storage) <= 0) {
    return ReadResult::Failed;
  }
  switch (type) {
    case SD_BUS_TYPE_BYTE:
      out = PropertyList::integer(storage.y);
      return ReadResult::Value;
    case SD_BUS_TYPE_BOOLEAN:
      out = PropertyList::boolean(storage.b != 0);
      return ReadResult::Value;
    case SD_BUS_TYPE_INT16:
      out = PropertyList::integer(storage.n);
      return ReadResult::Value;
    case SD_BUS_TYPE_UINT16:
      out = PropertyList::integer(storage.q);
      return ReadResult::Value;
    case SD_BUS_TYPE_INT32:
      out = PropertyList::integer(storage.i);
      return ReadResult::Value;
    case SD_BUS_TYPE_UINT32:
      out = PropertyList::integer(storage.u);
      return ReadResult::Value;
    case SD_BUS_TYPE_INT64:
      out = PropertyList::integer(storage.x);
      return ReadResult::Value;
    case SD_BUS_TYPE_UINT64:
      out = PropertyList::unsignedInteger(storage.t);
      return ReadResult::Value;
    case SD_BUS_TYPE_DOUBLE:
      out = PropertyList::real(storage.d);
      return ReadResult::Value;
    case SD_BUS_TYPE_STRING:
    case SD_BUS_TYPE_OBJECT_PATH:
    case SD_BUS_TYPE_SIGNATURE:
      out = PropertyList::string(storage.s != nullptr ? std::string(storage.s) : std::string());
      return ReadResult::Value;
    case SD_BUS_TYPE_UNIX_FD:
      // A descriptor means nothing as a value; sd-bus keeps ownership of it.
      return ReadResult::Skipped;
    default:
      return ReadResult::Failed;
  }
}

// Reads the members of the container just entered, in order, skipping fds.
bool readMembers(sd_bus_message* m, int depth, int level, PlistArray& items) {
  for (;;) {
    char type = 0;
    const char* contents = nullptr;
    int r = sd_bus_message_peek_type(m, &type, &contents);
    if (r < 0) {
      return false;
    }
    if (r == 0) {
      return true;
    }
    PropertyList item;
    switch (readValue(m, type, contents, depth, level, item)) {
      case ReadResult::Value:
        items.push_back(std::move(item));
        break;
      case ReadResult::Skipped:
        break;
      case ReadResult::Failed:
        return false;
    }
  }
}

// Reads an array of dictionary entries; arrayContents is its element
// signature, e.g. "{sv}".
ReadResult readDictionaryArray(sd_bus_message* m, const char* arrayContents, int depth, int level,
                               PropertyList& out) {
  // arrayContents is "{KV...}"; the entry container wants "KV...".
  std::string_view inner(arrayContents);
  if (inner.size() < 4 || inner.front() != '{' || inner.back() != '}') {
    return ReadResult::Failed;
  }
  if (depth + 2 > kMaxDbusReadDepth) {
    return ReadResult::Failed;
  }
  std::string entrySignature(inner.substr(1, inner.size() - 2));
  const bool stringKeys = isStringLike(entrySignature[0]);
  if (sd_bus_message_enter_container(m, SD_BUS_TYPE_ARRAY, arrayContents) <= 0) {
    return ReadResult::Failed;
  }
  PlistDictionary dict;
  PlistArray pairs;
  for (;;) {
    int r = sd_bus_message_enter_container(m, SD_BUS_TYPE_DICT_ENTRY, entrySignature.c_str());
    if (r < 0) {
      return ReadResult::Failed;
    }
    if (r == 0) {
      break;
    }
    char keyType = 0;
    const char* keyContents = nullptr;
    if (sd_bus_message_peek_type(m, &keyType, &keyContents) <= 0 || !isBasic(keyType)) {
      return ReadResult::Failed;
    }
    PropertyList key;
    ReadResult keyResult = readBasic(m, keyType, key);
    if (keyResult == ReadResult::Failed) {
      return ReadResult::Failed;
    }
    char valueType = 0;
    const char* valueContents = nullptr;
    if (sd_bus_message_peek_type(m, &valueType, &valueContents) <= 0) {
      return ReadResult::Failed;
    }
    PropertyList value;
    ReadResult valueResult = readValue(m, valueType, valueContents, depth + 2, level + 1, value);
    if (valueResult == ReadResult::Failed) {
      return ReadResult::Failed;
    }
    if (sd_bus_message_exit_container(m) < 0) {
      return ReadResult::Failed;
    }
    if (keyResult == ReadResult::Skipped || valueResult == ReadResult::Skipped) {
      continue;
    }
    if (stringKeys) {
      dict.emplace(*key.getString(), std::move(value));
    } else {
      pairs.push_back(PropertyList::array({std::move(key), std::move(value)}));
    }
  }
  if (sd_bus_message_exit_container(m) < 0) {
    return ReadResult::Failed;
  }
  out = stringKeys ? PropertyList::dictionary(std::move(dict)) : PropertyList::array(std::move(pairs));
  return ReadResult::Value;
}

// An encoded value: the binary property list in the "(ay)" just entered.
ReadResult readEncoded(sd_bus_message* m, int level, PropertyList& out) {
  const void* bytes = nullptr;
  std::size_t size = 0;
  if (sd_bus_message_read_array(m, SD_BUS_TYPE_BYTE, &bytes, &size) < 0) return ReadResult::Failed;
  PropertyList value = decodeBinaryPlist({static_cast<const std::uint8_t*>(bytes), size});
  // The decoder bounds the value's own nesting; where it lands counts too.
  if (!value.isValidForBinaryFormat(level)) return ReadResult::Failed;
  out = std::move(value);
  return ReadResult::Value;
}

ReadResult readValue(sd_bus_message* m, char type, const char* contents, int depth, int level, PropertyList& out) {
  if (isBasic(type)) {
    return readBasic(m, type, out);
  }
  if (depth + 1 > kMaxDbusReadDepth || contents == nullptr) {
    return ReadResult::Failed;
  }
  switch (type) {
    case SD_BUS_TYPE_VARIANT: {
      if (sd_bus_message_enter_container(m, SD_BUS_TYPE_VARIANT, contents) <= 0) {
        return ReadResult::Failed;
      }
      char innerType = 0;
      const char* innerContents = nullptr;
      if (sd_bus_message_peek_type(m, &innerType, &innerContents) <= 0) {
        return ReadResult::Failed;
      }
      ReadResult result = readValue(m, innerType, innerContents, depth + 1, level, out);
      if (result == ReadResult::Failed || sd_bus_message_exit_container(m) < 0) {
        return ReadResult::Failed;
      }
      return result;
    }
    case SD_BUS_TYPE_ARRAY: {
      if (std::strcmp(contents, "y") == 0) {
        const void* bytes = nullptr;
        std::size_t size = 0;
        if (sd_bus_message_read_array(m, SD_BUS_TYPE_BYTE, &bytes, &size) < 0) {
          return ReadResult::Failed;
        }
        const auto* begin = static_cast<const std::uint8_t*>(bytes);
        out = PropertyList::data(Bytes(begin, begin + size));
        return ReadResult::Value;
      }
      if (contents[0] == SD_BUS_TYPE_DICT_ENTRY_BEGIN) {
        return readDictionaryArray(m, contents, depth, level, out);
      }
      if (sd_bus_message_enter_container(m, SD_BUS_TYPE_ARRAY, contents) <= 0) {
        return ReadResult::Failed;
      }
      PlistArray items;
      if (!readMembers(m, depth + 1, level + 1, items) || sd_bus_message_exit_container(m) < 0) {
        return ReadResult::Failed;
      }
      out = PropertyList::array(std::move(items));
      return ReadResult::Value;
    }
    case SD_BUS_TYPE_STRUCT: {
      if (sd_bus_message_enter_container(m, SD_BUS_TYPE_STRUCT, contents) <= 0) {
        return ReadResult::Failed;
      }
      if (std::strcmp(contents, "ay") == 0) {
        ReadResult result = readEncoded(m, level, out);
        return result == ReadResult::Failed || sd_bus_message_exit_container(m) < 0 ? ReadResult::Failed : result;
      }
      PlistArray members;
      if (!readMembers(m, depth + 1, level + 1, members) || sd_bus_message_exit_container(m) < 0) {
        return ReadResult::Failed;
      }
      if (std::strcmp(contents, "d") == 0 && members.size() == 1) {
        out = PropertyList::date(members[0].realValue());
      } else {
        out = PropertyList::array(std::move(members));
      }
      return ReadResult::Value;
    }
    default:
      return ReadResult::Failed;
  }
}

}  // namespace

std::optional<IpcObject> ipcObjectFromPropertyList(const PropertyList& value) {
  // The top-level dictionary is the message argument itself, so its keys
  // cannot be encoded; everything below them can.
  if (!value.isDictionary() || !value.isValidForBinaryFormat()) return std::nullopt;
  for (const auto& entry : *value.getDictionary()) {
    if (!isCarriableKey(entry.first)) return std::nullopt;
  }
  return IpcObject(value);
}

PropertyList propertyListFromIpcObject(const IpcObject& object) { return object.dictionary(); }

int appendIpcObject(sd_bus_message* message, const IpcObject& object) {
  // The argument's array is at depth 1, so its values' variants at 3.
  return Writer(message, object.dictionary()).appendDictionary(*object.dictionary().getDictionary(), 0);
}

int appendDbusVariant(sd_bus_message* message, const PropertyList& value) {
  if (!value.isValidForBinaryFormat()) return -EINVAL;
  // The variant itself is at least one level deep wherever it goes.
  return Writer(message, value).appendVariant(value, 1);
}

std::optional<PropertyList> readDbusValue(sd_bus_message* message) {
  char type = 0;
  const char* contents = nullptr;
  if (sd_bus_message_peek_type(message, &type, &contents) <= 0) {
    return std::nullopt;
  }
  PropertyList value;
  if (readValue(message, type, contents, 0, 0, value) != ReadResult::Value) {
    return std::nullopt;
  }
  return value;
}

std::optional<PropertyList> readDbusDictionary(sd_bus_message* message) {
  char type = 0;
  const char* contents = nullptr;
  int depth = 0;
  if (sd_bus_message_peek_type(message, &type, &contents) <= 0) {
    return std::nullopt;
  }
  // Unwrap variants around the dictionary, then insist on string-like keys
  // (or an encoded value, which must turn out a dictionary).
  int entered = 0;
  while (type == SD_BUS_TYPE_VARIANT) {
    if (++depth > kMaxDbusReadDepth || sd_bus_message_enter_container(message, SD_BUS_TYPE_VARIANT, contents) <= 0 ||
        sd_bus_message_peek_type(message, &type, &contents) <= 0) {
      return std::nullopt;
    }
    ++entered;
  }
  const bool encoded = type == SD_BUS_TYPE_STRUCT && contents != nullptr && std::strcmp(contents, "ay") == 0;
  if (!encoded && (type != SD_BUS_TYPE_ARRAY || contents == nullptr || contents[0] != SD_BUS_TYPE_DICT_ENTRY_BEGIN ||
                   !isStringLike(contents[1]))) {
    return std::nullopt;
  }
  PropertyList value;
  if (readValue(message, type, contents, depth, 0, value) != ReadResult::Value || !value.isDictionary()) {
    return std::nullopt;
  }
  for (; entered > 0; --entered) {
    if (sd_bus_message_exit_container(message) < 0) {
      return std::nullopt;
    }
  }
  return value;
}

}  // namespace velmora
