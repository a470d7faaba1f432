// SettingsValue: GSettings values (GVariant) as property-list values and
// back, without loss: what is written reads back with the same type and the
// same value.
//
// The forms
// - Natural, so that `velmora get` and NimbrelStore applications read them
//   as such: b as a boolean; n q i u x as an integer; d as a real; s as a
//   string (enums reach a backend as strings); as as an array of strings
//   (flags reach it as string arrays); a{sv} as a dictionary whose keys are
//   in ascending byte order without repeats, each variant's content natural
//   when it is b, i, an x outside the int32 range, d, s, as or such an a{sv},
//   and in the exact form otherwise. Read back, an integer in a variant is
//   an i when it fits 32 bits and an x otherwise.
// - Exact, for every other type (tuples, maybes, y, t, h, o, g, ay, nested
//   containers, a{sv} out of order): a dictionary of two entries,
//   "gvariant-type" (the type string) and "gvariant" (data: the value
//   serialised in normal form, little-endian). The natural forms never
//   produce data, so this shape is never mistaken for a natural a{sv}.
// - Reading is told the type the schema expects; a stored value of another
//   type (a natural form that does not fit, or an exact form of another
//   type, or not in normal form) reads as no value, so that GSettings uses
//   the schema's default.
#pragma once

#include <gio/gio.h>

#include "velmora/platform/PropertyList.h"

namespace velmora::gsettings {

// The stored form of value (non-null, any type). Never fails. Pure; any
// thread; the caller owns the result and keeps its reference to value.
velmora::PropertyList toPropertyList(GVariant* value);

// The value stored as stored, when it has the expected type: a new,
// non-floating reference the caller owns. nullptr for none and for a value
// of another type. Pure; any thread.
GVariant* toVariant(const velmora::PropertyList& stored, const GVariantType* expected);

}  // namespace velmora::gsettings
