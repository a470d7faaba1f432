// DbusValue: property-list values in bus messages, for the transport, the
// daemon and the test tools that speak the same wire.
//
// Writing (lossless): dictionary a{sv}, array av, string s, data ay,
// boolean b, integer x (an unsigned integer above INT64_MAX: t), real d,
// date (d) holding seconds since 2001-01-01 UTC. Only checked values
// (IpcObject) are written, so writing fails only for limits of the message
// itself (size).
//
// Reading (tolerant, since a reply may come from anyone): the types above map
// back exactly; other basic types map sensibly: y n q i u x -> integer,
// t -> integer (flagged unsigned above INT64_MAX), o g -> string; a unix fd
// (h) is skipped inside containers and fails at the top; arrays of other
// types -> array; dictionaries with string, path or signature keys and any
// value type -> dictionary (the first of duplicate keys wins); dictionaries
// with other keys -> array of [key, value] pairs; (d) -> date; other structs
// -> array of their members; variants are unwrapped. Nesting is capped at
// kMaxDbusReadDepth containers.
//
// Threads: these functions touch only the message given; like every bus
// object, a message must be used by one thread at a time (the thread that
// owns its bus connection).
#pragma once

#include <optional>

#include "velmora/platform/Ipc.h"
#include "velmora/platform/PropertyList.h"

struct sd_bus_message;

namespace velmora {

// Containers deeper than this are refused when reading, whatever the
// transport allowed.
inline constexpr int kMaxDbusReadDepth = 128;

// Appends object as one a{sv} argument. Returns 0, or a negative errno from
// the bus library (the message is then unusable and must be dropped).
int appendIpcObject(sd_bus_message* message, const IpcObject& object);

// Appends value wrapped in a variant of its natural signature (see the
// mapping above). value must be valid for IPC (as checked by
// ipcObjectFromPropertyList, except that it need not be a dictionary);
// returns -EINVAL otherwise, or a negative errno from the bus library.
int appendDbusVariant(sd_bus_message* message, const PropertyList& value);

// Reads the next argument as a dictionary, tolerantly. Variants around it are
// unwrapped. Returns nullopt when there is no next argument, when it is not a
// dictionary with string-like keys, or when the message is malformed or too
// deep; the read position is then unspecified.
std::optional<PropertyList> readDbusDictionary(sd_bus_message* message);

// Reads the next argument of any type, tolerantly. Returns nullopt when
// there is none, when it is a unix fd, or when the message is malformed or
// too deep.
std::optional<PropertyList> readDbusValue(sd_bus_message* message);

}  // namespace velmora
