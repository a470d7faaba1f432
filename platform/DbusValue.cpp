// Conversion between property lists and bus message values.
//
// Design note: pure functions over one message at a time; no threads, no
// locks, no state. Recursion is bounded by the depth checks (the IPC check
// on the way out, kMaxDbusReadDepth on the way in), so no input can exhaust
// the stack.
#include "velmora/platform/DbusValue.h"

#include <systemd/sd-bus.h>

#include <cerrno>
#include <cstring>
#include <string_view>

namespace velmora {
namespace {

// Whether v, held in a variant at container depth `depth`, stays within the
// bus's depth limit; also checks strings and keys.
bool isCarriable(const PropertyList& v, int depth) {
  switch (v.type()) {
    case PlistType::None:
      return false;
    case PlistType::Boolean:
    case PlistType::Integer:
    case PlistType::Real:
      return true;
    case PlistType::Data:  // ay: the array costs one level
    case PlistType::Date:  // (d): the struct costs one level
      return depth + 1 <= kMaxIpcContainerDepth;
    case PlistType::String: {
      const std::string* s = v.getString();
      return s->find('\0') == std::string::npos && isValidUtf8(*s);
    }
    case PlistType::Array: {
      // av: the array, then a variant per element.
      if (depth + 2 > kMaxIpcContainerDepth) {
        return false;
      }
      for (const PropertyList& item : *v.getArray()) {
        if (!isCarriable(item, depth + 2)) {
          return false;
        }
      }
      return true;
    }
    case PlistType::Dictionary: {
      // a{sv}: the array, the entry, then the variant holding each value.
      if (depth + 3 > kMaxIpcContainerDepth) {
        return false;
      }
      for (const auto& [key, value] : *v.getDictionary()) {
        if (key.find('\0') != std::string::npos || !isValidUtf8(key)) {
          return false;
        }
        if (!isCarriable(value, depth + 3)) {
          return false;
        }
      }
      return true;
    }
  }
  return false;
}

const char* variantSignature(const PropertyList& v) {
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

int appendValue(sd_bus_message* m, const PropertyList& v);

int appendVariant(sd_bus_message* m, const PropertyList& v) {
  const char* signature = variantSignature(v);
  if (signature == nullptr) {
    return -EINVAL;
  }
  int r = sd_bus_message_open_container(m, SD_BUS_TYPE_VARIANT, signature);
  if (r < 0) {
    return r;
  }
  r = appendValue(m, v);
  if (r < 0) {
    return r;
  }
  return sd_bus_message_close_container(m);
}

int appendDictionary(sd_bus_message* m, const PlistDictionary& dict) {
  int r = sd_bus_message_open_container(m, SD_BUS_TYPE_ARRAY, "{sv}");
  if (r < 0) {
    return r;
  }
  for (const auto& [key, value] : dict) {
    r = sd_bus_message_open_container(m, SD_BUS_TYPE_DICT_ENTRY, "sv");
    if (r < 0) {
      return r;
    }
    r = sd_bus_message_append_basic(m, SD_BUS_TYPE_STRING, key.c_str());
    if (r < 0) {
      return r;
    }
    r = appendVariant(m, value);
    if (r < 0) {
      return r;
    }
    r = sd_bus_message_close_container(m);
    if (r < 0) {
      return r;
    }
  }
  return sd_bus_message_close_container(m);
}

int appendValue(sd_bus_message* m, const PropertyList& v) {
  switch (v.type()) {
    case PlistType::Boolean: {
      int b = v.booleanValue() ? 1 : 0;
      return sd_bus_message_append_basic(m, SD_BUS_TYPE_BOOLEAN, &b);
    }
    case PlistType::Integer: {
      if (v.isUnsignedInteger()) {
        std::uint64_t u = v.unsignedValue();
        return sd_bus_message_append_basic(m, SD_BUS_TYPE_UINT64, &u);
      }
      std::int64_t i = v.integerBits();
      return sd_bus_message_append_basic(m, SD_BUS_TYPE_INT64, &i);
    }
    case PlistType::Real: {
      double d = v.realValue();
      return sd_bus_message_append_basic(m, SD_BUS_TYPE_DOUBLE, &d);
    }
    case PlistType::Date: {
      int r = sd_bus_message_open_container(m, SD_BUS_TYPE_STRUCT, "d");
      if (r < 0) {
        return r;
      }
      double d = v.dateValue();
      r = sd_bus_message_append_basic(m, SD_BUS_TYPE_DOUBLE, &d);
      if (r < 0) {
        return r;
      }
      return sd_bus_message_close_container(m);
    }
    case PlistType::String:
      return sd_bus_message_append_basic(m, SD_BUS_TYPE_STRING, v.getString()->c_str());
    case PlistType::Data: {
      const Bytes* bytes = v.getData();
      return sd_bus_message_append_array(m, SD_BUS_TYPE_BYTE, bytes->data(), bytes->size());
    }
    case PlistType::Array: {
      int r = sd_bus_message_open_container(m, SD_BUS_TYPE_ARRAY, "v");
      if (r < 0) {
        return r;
      }
      for (const PropertyList& item : *v.getArray()) {
        r = appendVariant(m, item);
        if (r < 0) {
          return r;
        }
      }
      return sd_bus_message_close_container(m);
    }
    case PlistType::Dictionary:
      return appendDictionary(m, *v.getDictionary());
    case PlistType::None:
      break;
  }
  return -EINVAL;
}

// ---------------------------------------------------------------------------
// Reading.

bool isStringLike(char type) {
  return type == SD_BUS_TYPE_STRING || type == SD_BUS_TYPE_OBJECT_PATH || type == SD_BUS_TYPE_SIGNATURE;
}

bool isBasic(char type) {
  return std::strchr("ybnqiuxtdsogh", type) != nullptr && type != '\0';
}

enum class ReadResult { Value, Skipped, Failed };

ReadResult readValue(sd_bus_message* m, char type, const char* contents, int depth, PropertyList& out);

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
bool readMembers(sd_bus_message* m, int depth, PlistArray& items) {
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
    switch (readValue(m, type, contents, depth, item)) {
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
ReadResult readDictionaryArray(sd_bus_message* m, const char* arrayContents, int depth, PropertyList& out) {
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
    ReadResult valueResult = readValue(m, valueType, valueContents, depth + 2, value);
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

ReadResult readValue(sd_bus_message* m, char type, const char* contents, int depth, PropertyList& out) {
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
      ReadResult result = readValue(m, innerType, innerContents, depth + 1, out);
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
        return readDictionaryArray(m, contents, depth, out);
      }
      if (sd_bus_message_enter_container(m, SD_BUS_TYPE_ARRAY, contents) <= 0) {
        return ReadResult::Failed;
      }
      PlistArray items;
      if (!readMembers(m, depth + 1, items) || sd_bus_message_exit_container(m) < 0) {
        return ReadResult::Failed;
      }
      out = PropertyList::array(std::move(items));
      return ReadResult::Value;
    }
    case SD_BUS_TYPE_STRUCT: {
      if (sd_bus_message_enter_container(m, SD_BUS_TYPE_STRUCT, contents) <= 0) {
        return ReadResult::Failed;
      }
      PlistArray members;
      if (!readMembers(m, depth + 1, members) || sd_bus_message_exit_container(m) < 0) {
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
  // The top-level dictionary is the message argument itself: no variant
  // around it, so its values sit at depth 3.
  if (!value.isDictionary() || !isCarriable(value, 0)) {
    return std::nullopt;
  }
  return IpcObject(value);
}

PropertyList propertyListFromIpcObject(const IpcObject& object) { return object.dictionary(); }

int appendIpcObject(sd_bus_message* message, const IpcObject& object) {
  return appendDictionary(message, *object.dictionary().getDictionary());
}

int appendDbusVariant(sd_bus_message* message, const PropertyList& value) {
  // The variant itself is at least one level deep wherever it goes.
  if (!isCarriable(value, 1)) {
    return -EINVAL;
  }
  return appendVariant(message, value);
}

std::optional<PropertyList> readDbusValue(sd_bus_message* message) {
  char type = 0;
  const char* contents = nullptr;
  if (sd_bus_message_peek_type(message, &type, &contents) <= 0) {
    return std::nullopt;
  }
  PropertyList value;
  if (readValue(message, type, contents, 0, value) != ReadResult::Value) {
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
  // Unwrap variants around the dictionary, then insist on string-like keys.
  int entered = 0;
  while (type == SD_BUS_TYPE_VARIANT) {
    if (++depth > kMaxDbusReadDepth || sd_bus_message_enter_container(message, SD_BUS_TYPE_VARIANT, contents) <= 0 ||
        sd_bus_message_peek_type(message, &type, &contents) <= 0) {
      return std::nullopt;
    }
    ++entered;
  }
  if (type != SD_BUS_TYPE_ARRAY || contents == nullptr || contents[0] != SD_BUS_TYPE_DICT_ENTRY_BEGIN ||
      !isStringLike(contents[1])) {
    return std::nullopt;
  }
  PropertyList value;
  if (readValue(message, type, contents, depth, value) != ReadResult::Value) {
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
