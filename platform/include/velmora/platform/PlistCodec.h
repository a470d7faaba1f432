// Property-list codecs: binary (bplist00, version 1.0) and XML.
//
// All functions are pure and thread-safe. Decoders take any bytes: malformed,
// truncated, cyclic or too deeply nested input yields the none value (or
// nullopt), never a crash, a hang or a read out of bounds.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string_view>
#include <string>

#include "velmora/platform/PropertyList.h"

namespace velmora {

// Binary property list, version 1.0. Equal strings and numbers are written
// once and shared by reference, as are data, arrays and dictionaries that
// several parents share. Returns nullopt when the value is not valid for the
// binary format (PropertyList::isValidForBinaryFormat). Caller owns the bytes.
std::optional<Bytes> encodeBinaryPlist(const PropertyList& value);

// As encodeBinaryPlist, appending to out (an in-memory stream). Returns the
// number of bytes appended, 0 on failure (out is then left as it was).
std::size_t appendBinaryPlist(const PropertyList& value, Bytes& out);

// Decodes one binary property list that spans exactly the given bytes.
// Returns none for anything malformed, which includes cycles, overlapping
// objects, nesting beyond PropertyList::kMaxDepth and non-string keys. An
// object reached through several references is decoded once and shared.
// Of repeated dictionary keys the last entry wins (earlier values are not
// decoded). Also none when the decoded value would not fit in memory.
PropertyList decodeBinaryPlist(std::span<const std::uint8_t> bytes);

// The value under key in a binary property list whose top object is a
// dictionary, decoding only what it needs (a large file's other entries are
// not touched). None when the key is absent or the bytes are malformed on
// the way to it. Caller owns the result.
PropertyList decodeBinaryPlistEntry(std::span<const std::uint8_t> bytes, std::string_view key);

// XML property list (UTF-8, with a plist DOCTYPE). Returns nullopt when the
// value is not valid for the binary format (the same rules apply), and also
// for what XML cannot carry: strings or keys holding NUL or other control
// characters than tab, newline and carriage return, or U+FFFE / U+FFFF; dates
// that are not finite or fall outside years -99999999999..99999999999.
// Dates are written in whole seconds (any fraction is dropped, rounding
// down); sub-values shared by several parents are written out at each place.
std::optional<std::string> encodeXmlPlist(const PropertyList& value);

// Decodes an XML property list through libxml2 (no network, no DTD loading,
// documents that declare entities are refused). Returns none for anything
// malformed. Integers are decimal or 0x-hex; reals include nan and inf; dates
// are "YYYY[-MM[-DD[THH[:MM[:SS]]]]]Z" in UTC.
PropertyList decodeXmlPlist(std::span<const std::uint8_t> bytes);

// Decodes either encoding, told apart by the leading "bplist00" magic.
PropertyList decodePlist(std::span<const std::uint8_t> bytes);

// The whole file at path, read to its end. nullopt when it cannot be opened
// or read, with *error (when given) set to the errno, or to EFBIG when it
// holds more than maxBytes. Blocks on file I/O; the caller owns the bytes.
std::optional<Bytes> readFileContents(const std::string& path, std::size_t maxBytes, int* error);

// Reads a whole property-list file (binary or XML). Returns none when the
// file is missing, unreadable or malformed. Blocks on file I/O.
PropertyList readPlistFile(const std::string& path);

// The top dictionary's value for key in a binary property-list file
// (decodeBinaryPlistEntry); none when the file is missing, unreadable, not
// binary, or has no such entry. Blocks on file I/O.
PropertyList readPlistFileEntry(const std::string& path, std::string_view key);

}  // namespace velmora
