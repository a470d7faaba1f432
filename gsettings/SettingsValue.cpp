#include "SettingsValue.h"

#include <cstdint>
#include <cstring>
#include <limits>
#include <optional>
#include <span>

namespace velmora::gsettings {
namespace {

using velmora::PlistDictionary;
using velmora::PropertyList;

constexpr const char* kTypeKey = "gvariant-type";
constexpr const char* kDataKey = "gvariant";
// Nesting of natural a{sv} forms beyond this is refused (GVariant itself
// nests at most 128 deep); the exact form carries anything deeper.
constexpr int kMaxNaturalDepth = 64;
// The integers a double holds exactly.
constexpr std::int64_t kMaxExactDouble = std::int64_t{1} << 53;

bool sameType(const char* typeString, const char* wanted) { return std::strcmp(typeString, wanted) == 0; }

// A GVariant reference made floating values own sunk, so that every path
// below can drop a value the same way.
void drop(GVariant* value) { g_variant_unref(g_variant_ref_sink(value)); }

PropertyList exactForm(GVariant* value) {
  GVariant* normal = g_variant_get_normal_form(value);
  if constexpr (G_BYTE_ORDER == G_BIG_ENDIAN) {
    GVariant* swapped = g_variant_take_ref(g_variant_byteswap(normal));
    g_variant_unref(normal);
    normal = swapped;
  }
  const auto* bytes = static_cast<const std::uint8_t*>(g_variant_get_data(normal));
  PropertyList data =
      PropertyList::data(std::span<const std::uint8_t>(bytes, bytes != nullptr ? g_variant_get_size(normal) : 0));
  PropertyList form = velmora::makeDictionary(
      {{kTypeKey, PropertyList::string(g_variant_get_type_string(value))}, {kDataKey, std::move(data)}});
  g_variant_unref(normal);
  return form;
}

bool isExactForm(const PropertyList& stored) {
  const PropertyList* type = stored.find(kTypeKey);
  const PropertyList* data = stored.find(kDataKey);
  return stored.count() == 2 && type != nullptr && type->isString() && data != nullptr && data->isData();
}

// A floating reference, or nullptr when the form is damaged or not in normal form.
GVariant* fromExactForm(const PropertyList& stored) {
  const std::string& typeString = *stored.find(kTypeKey)->getString();
  if (typeString.find('\0') != std::string::npos || !g_variant_type_string_is_valid(typeString.c_str())) return nullptr;
  GVariantType* type = g_variant_type_new(typeString.c_str());
  if (!g_variant_type_is_definite(type)) {
    g_variant_type_free(type);
    return nullptr;
  }
  const velmora::Bytes& data = *stored.find(kDataKey)->getData();
  GBytes* bytes = g_bytes_new(data.data(), data.size());
  GVariant* value = g_variant_new_from_bytes(type, bytes, FALSE);
  g_bytes_unref(bytes);
  g_variant_type_free(type);
  if constexpr (G_BYTE_ORDER == G_BIG_ENDIAN) {
    GVariant* swapped = g_variant_byteswap(value);
    drop(value);
    value = swapped;
  }
  // Untrusted bytes read as a default wherever they do not parse; only the
  // normal form is the value that was written.
  if (!g_variant_is_normal_form(value)) {
    drop(value);
    return nullptr;
  }
  return value;
}

PropertyList stringArray(GVariant* value) {
  velmora::PlistArray items;
  items.reserve(g_variant_n_children(value));
  GVariantIter iter;
  g_variant_iter_init(&iter, value);
  const gchar* item = nullptr;
  while (g_variant_iter_next(&iter, "&s", &item)) items.push_back(PropertyList::string(item));
  return PropertyList::array(std::move(items));
}

std::optional<PropertyList> naturalDictionary(GVariant* value, int depth);

// The form of a variant's content inside a natural a{sv}.
PropertyList contentForm(GVariant* content, int depth) {
  const char* type = g_variant_get_type_string(content);
  if (sameType(type, "b")) return PropertyList::boolean(g_variant_get_boolean(content) != FALSE);
  if (sameType(type, "i")) return PropertyList::integer(g_variant_get_int32(content));
  if (sameType(type, "x")) {
    // Inside int32 it would read back as an i.
    const std::int64_t x = g_variant_get_int64(content);
    if (x < std::numeric_limits<std::int32_t>::min() || x > std::numeric_limits<std::int32_t>::max()) {
      return PropertyList::integer(x);
    }
  }
  if (sameType(type, "d")) return PropertyList::real(g_variant_get_double(content));
  if (sameType(type, "s")) return PropertyList::string(g_variant_get_string(content, nullptr));
  if (sameType(type, "as")) return stringArray(content);
  if (sameType(type, "a{sv}")) {
    if (std::optional<PropertyList> dictionary = naturalDictionary(content, depth + 1)) return *dictionary;
  }
  return exactForm(content);
}

// An a{sv} as a dictionary, when its keys ascend strictly in byte order (a
// dictionary would reorder or merge them otherwise).
std::optional<PropertyList> naturalDictionary(GVariant* value, int depth) {
  if (depth > kMaxNaturalDepth) return std::nullopt;
  PlistDictionary entries;
  GVariantIter iter;
  g_variant_iter_init(&iter, value);
  const gchar* key = nullptr;
  const gchar* previous = nullptr;
  GVariant* content = nullptr;
  while (g_variant_iter_next(&iter, "{&sv}", &key, &content)) {
    const bool ascending = previous == nullptr || std::strcmp(previous, key) < 0;
    if (ascending) entries.emplace_hint(entries.end(), key, contentForm(content, depth));
    g_variant_unref(content);
    if (!ascending) return std::nullopt;
    previous = key;
  }
  return PropertyList::dictionary(std::move(entries));
}

// --- Reading: each returns a floating reference or nullptr.

GVariant* stringVariant(const PropertyList& stored) {
  const std::string* text = stored.getString();
  if (text == nullptr || !g_utf8_validate_len(text->data(), text->size(), nullptr)) return nullptr;
  return g_variant_new_string(text->c_str());
}

GVariant* stringArrayVariant(const PropertyList& stored) {
  const velmora::PlistArray* items = stored.getArray();
  if (items == nullptr) return nullptr;
  GVariantBuilder builder;
  g_variant_builder_init(&builder, G_VARIANT_TYPE_STRING_ARRAY);
  for (const PropertyList& item : *items) {
    GVariant* text = stringVariant(item);
    if (text == nullptr) {
      g_variant_builder_clear(&builder);
      return nullptr;
    }
    g_variant_builder_add_value(&builder, text);
  }
  return g_variant_builder_end(&builder);
}

GVariant* dictionaryVariant(const PropertyList& stored, int depth);

GVariant* contentVariant(const PropertyList& stored, int depth) {
  if (isExactForm(stored)) return fromExactForm(stored);
  switch (stored.type()) {
    case velmora::PlistType::Boolean:
      return g_variant_new_boolean(stored.booleanValue());
    case velmora::PlistType::Integer: {
      if (stored.isUnsignedInteger()) return nullptr;
      const std::int64_t x = stored.integerBits();
      if (x >= std::numeric_limits<std::int32_t>::min() && x <= std::numeric_limits<std::int32_t>::max()) {
        return g_variant_new_int32(static_cast<std::int32_t>(x));
      }
      return g_variant_new_int64(x);
    }
    case velmora::PlistType::Real:
      return g_variant_new_double(stored.realValue());
    case velmora::PlistType::String:
      return stringVariant(stored);
    case velmora::PlistType::Array:
      return stringArrayVariant(stored);
    case velmora::PlistType::Dictionary:
      return dictionaryVariant(stored, depth + 1);
    default:
      return nullptr;
  }
}

GVariant* dictionaryVariant(const PropertyList& stored, int depth) {
  const PlistDictionary* entries = stored.getDictionary();
  if (entries == nullptr || depth > kMaxNaturalDepth) return nullptr;
  GVariantBuilder builder;
  g_variant_builder_init(&builder, G_VARIANT_TYPE_VARDICT);
  for (const auto& [key, item] : *entries) {
    GVariant* content = g_utf8_validate_len(key.data(), key.size(), nullptr) ? contentVariant(item, depth) : nullptr;
    if (content == nullptr) {
      g_variant_builder_clear(&builder);
      return nullptr;
    }
    g_variant_builder_add(&builder, "{sv}", key.c_str(), content);
  }
  return g_variant_builder_end(&builder);
}

// An integer of the expected type, when the stored integer fits it.
GVariant* integerVariant(const PropertyList& stored, const GVariantType* expected) {
  if (!stored.isInteger() || stored.isUnsignedInteger()) return nullptr;
  const std::int64_t x = stored.integerBits();
  const auto within = [x](auto lowest, auto highest) { return x >= lowest && x <= highest; };
  if (g_variant_type_equal(expected, G_VARIANT_TYPE_INT16)) {
    return within(INT16_MIN, INT16_MAX) ? g_variant_new_int16(static_cast<gint16>(x)) : nullptr;
  }
  if (g_variant_type_equal(expected, G_VARIANT_TYPE_UINT16)) {
    return within(0, UINT16_MAX) ? g_variant_new_uint16(static_cast<guint16>(x)) : nullptr;
  }
  if (g_variant_type_equal(expected, G_VARIANT_TYPE_INT32)) {
    return within(INT32_MIN, INT32_MAX) ? g_variant_new_int32(static_cast<gint32>(x)) : nullptr;
  }
  if (g_variant_type_equal(expected, G_VARIANT_TYPE_UINT32)) {
    return within(0, static_cast<std::int64_t>(UINT32_MAX)) ? g_variant_new_uint32(static_cast<guint32>(x)) : nullptr;
  }
  return g_variant_new_int64(x);
}

GVariant* naturalVariant(const PropertyList& stored, const GVariantType* expected) {
  if (g_variant_type_equal(expected, G_VARIANT_TYPE_BOOLEAN)) {
    return stored.isBoolean() ? g_variant_new_boolean(stored.booleanValue()) : nullptr;
  }
  for (const GVariantType* integer : {G_VARIANT_TYPE_INT16, G_VARIANT_TYPE_UINT16, G_VARIANT_TYPE_INT32,
                                      G_VARIANT_TYPE_UINT32, G_VARIANT_TYPE_INT64}) {
    if (g_variant_type_equal(expected, integer)) return integerVariant(stored, expected);
  }
  if (g_variant_type_equal(expected, G_VARIANT_TYPE_DOUBLE)) {
    if (stored.isReal()) return g_variant_new_double(stored.realValue());
    // An integer another application wrote for a real, when exact.
    const std::int64_t x = stored.integerBits();
    const bool exact =
        stored.isInteger() && !stored.isUnsignedInteger() && x >= -kMaxExactDouble && x <= kMaxExactDouble;
    return exact ? g_variant_new_double(static_cast<double>(x)) : nullptr;
  }
  if (g_variant_type_equal(expected, G_VARIANT_TYPE_STRING)) return stringVariant(stored);
  if (g_variant_type_equal(expected, G_VARIANT_TYPE_STRING_ARRAY)) return stringArrayVariant(stored);
  if (g_variant_type_equal(expected, G_VARIANT_TYPE_VARDICT)) return dictionaryVariant(stored, 0);
  return nullptr;
}

}  // namespace

PropertyList toPropertyList(GVariant* value) {
  const char* type = g_variant_get_type_string(value);
  if (type[0] != '\0' && type[1] == '\0') {
    switch (type[0]) {
      case 'b':
        return PropertyList::boolean(g_variant_get_boolean(value) != FALSE);
      case 'n':
        return PropertyList::integer(g_variant_get_int16(value));
      case 'q':
        return PropertyList::integer(g_variant_get_uint16(value));
      case 'i':
        return PropertyList::integer(g_variant_get_int32(value));
      case 'u':
        return PropertyList::integer(g_variant_get_uint32(value));
      case 'x':
        return PropertyList::integer(g_variant_get_int64(value));
      case 'd':
        return PropertyList::real(g_variant_get_double(value));
      case 's':
        return PropertyList::string(g_variant_get_string(value, nullptr));
      default:
        break;
    }
  }
  if (sameType(type, "as")) return stringArray(value);
  if (sameType(type, "a{sv}")) {
    if (std::optional<PropertyList> dictionary = naturalDictionary(value, 0)) return *dictionary;
  }
  return exactForm(value);
}

GVariant* toVariant(const PropertyList& stored, const GVariantType* expected) {
  if (stored.isNone()) return nullptr;
  GVariant* value = isExactForm(stored) ? fromExactForm(stored) : naturalVariant(stored, expected);
  if (value == nullptr) return nullptr;
  g_variant_ref_sink(value);
  if (!g_variant_is_of_type(value, expected)) {
    g_variant_unref(value);
    return nullptr;
  }
  return value;
}

}  // namespace velmora::gsettings
