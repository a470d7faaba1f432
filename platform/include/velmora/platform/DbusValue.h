// DbusValue: property-list values in bus messages, for the transport, the
// daemon and the test tools that speak the same wire.
//
// Writing (lossless): dictionary a{sv}, array av, string s, data ay,
// boolean b, integer x (an unsigned integer above INT64_MAX: t), real d,
// date (d) holding seconds since 2001-01-01 UTC. A value this natural form
// cannot hold travels encoded, as (ay) holding its binary property list: a
// string or dictionary key with NUL, a container that would nest deeper than
// the bus allows (kMaxIpcContainerDepth), and a tree whose natural form
// would outweigh a few MiB (a small value whose parts share subtrees can
// stand for a huge tree). So every value valid for the binary format
// arrives unchanged; writing fails only for limits of the message itself
// (size).
//
// Reading (tolerant, since a reply may come from anyone): the types above map
// back exactly; other basic types map sensibly: y n q i u x -> integer,
// t -> integer (flagged unsigned above INT64_MAX), o g -> string; a unix fd
// (h) is skipped inside containers and fails at the top; arrays of other
// types -> array; dictionaries with string, path or signature keys and any
// value type -> dictionary (the first of duplicate keys wins); dictionaries
// with other keys -> array of [key, value] pairs; (d) -> date; (ay) -> the
// value its bytes hold as a binary property list, and the read fails when
// they do not decode or when the value would nest deeper than
// PropertyList::kMaxDepth counted from the argument's top; other structs
// -> array of their members; variants are unwrapped. Bus containers are
// capped at kMaxDbusReadDepth, so what is read is bounded in nesting, and in
// size by the message.
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

// Appends value wrapped in a variant of its natural signature, or encoded
// (see the mapping above). value must be valid for the binary format;
// returns -EINVAL otherwise, or a negative errno from the bus library.
int appendDbusVariant(sd_bus_message* message, const PropertyList& value);

// Reads the next argument as a dictionary, tolerantly. Variants around it are
// unwrapped. Returns nullopt when there is no next argument, when it is not a
// dictionary with string-like keys (or an encoded dictionary), or when the
// message is malformed or too deep; the read position is then unspecified.
std::optional<PropertyList> readDbusDictionary(sd_bus_message* message);

// Reads the next argument of any type, tolerantly. Returns nullopt when
// there is none, when it is a unix fd, or when the message is malformed or
// too deep.
std::optional<PropertyList> readDbusValue(sd_bus_message* message);

}  // namespace velmora
