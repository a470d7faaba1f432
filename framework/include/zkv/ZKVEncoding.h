// Value encodings used by the library: gzip compression, the timestamped
// serialised form a value travels in, and the per-key storage record that the
// store file holds for each key.
//
// Timestamps are signed 64-bit whole seconds since 2001-01-01 00:00:00 UTC;
// 0 means "no timestamp" and is refused by every function here.
//
// Every function is pure, thread-safe and non-blocking (CPU work only). None
// of them logs or throws: every failure is a null result (nullopt, the none
// PropertyList, nullptr or 0). Returned buffers and values belong to the
// caller; returned pointers are borrowed, as noted.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

#include "velmora/platform/PropertyList.h"
#include "zkv/ZKVBase.h"


// ---------------------------------------------------------------------------
// Internal helpers (not exported).

// Compresses input into a single gzip member in one pass, into a buffer no
// larger than the input. Returns nullopt for empty input and whenever the gzip
// stream does not fit in input.size() bytes (short or incompressible data:
// the header and trailer alone take 18 bytes) or input is 4 GiB or more.
// Caller owns the result.
std::optional<velmora::Bytes> ZKVCopyGzippedDataForData(std::span<const std::uint8_t> input);

// Decompresses the first gzip member of input (bytes after it are ignored).
// Returns the content, which may be empty, or nullopt when input is not a
// complete, intact gzip member (zlib-wrapped and raw deflate are refused).
// Caller owns the result.
std::optional<velmora::Bytes> ZKVCopyUngzippedDataForData(std::span<const std::uint8_t> input);

// Decompresses input, which must be exactly one gzip member (bytes after it
// refuse it), giving up once the content passes limit bytes: a small stream
// may inflate a thousandfold. nullopt when refused, with *tooLarge (when
// given) telling a content over limit from a malformed input. Caller owns
// the result.
std::optional<velmora::Bytes> ZKVCopyUngzippedDataForDataWithLimit(std::span<const std::uint8_t> input,
                                                                   std::size_t limit, bool* tooLarge);

// Length of the timestamped serialised form of value (header included), or 0
// when the value cannot be written as a binary property list.
std::ptrdiff_t ZKVGetSerializedLengthForPropertyList(const velmora::PropertyList& value);

// The timestamped serialised form of value: a 12-byte header (format tag 0x01,
// three reserved zero bytes, the timestamp as little-endian int64) followed by
// value as a binary property list. Returns nullopt for a none value, a zero
// timestamp or a value the binary format cannot hold. Caller owns the result.
std::optional<velmora::Bytes> ZKVCopySerializedDataForPropertyListAndTimestamp(
    const velmora::PropertyList& value, std::int64_t timestamp);

// ---------------------------------------------------------------------------
// Exported.

// Reads a value and its timestamp from the timestamped serialised form (its
// payload in either property-list encoding), or from the older dictionary form
// (a binary property list {"timestamp", "value"}).
// Returns the value (caller owns the handle) and stores the timestamp into
// *outTimestamp; returns none for anything malformed or a zero timestamp.
// On some failures *outTimestamp has already been written (a damaged payload
// after a good header; a lossy or zero legacy timestamp). outTimestamp may be
// nullptr.
ZKV_EXPORT velmora::PropertyList ZKVCopyPropertyListAndTimestampFromData(
    std::span<const std::uint8_t> data, std::int64_t* outTimestamp);

// Storage records: the dictionary {"timestamp": int64 (never 0), "value": any,
// "remotevalue": serialised bytes (only when there is one)}.

// Builds a record (a new value the caller owns). Returns none for a none value
// or a zero timestamp. A none remoteValue leaves the "remotevalue" entry out;
// any other is stored as given.
ZKV_EXPORT velmora::PropertyList ZKVCreateStorageForPropertyListTimestampAndRemoteValue(
    const velmora::PropertyList& value, std::int64_t timestamp, const velmora::PropertyList& remoteValue);

// Builds a record without a remote value (what a local write produces).
// Returns none for a none value or a zero timestamp.
ZKV_EXPORT velmora::PropertyList ZKVCreateStorageForPropertyListAndTimestamp(
    const velmora::PropertyList& value, std::int64_t timestamp);

// Builds a record that carries over previousRecord's "remotevalue" (when
// previousRecord is a dictionary that has one). Returns none for a none value
// or a zero timestamp.
ZKV_EXPORT velmora::PropertyList ZKVCreateStorageForPropertyListAndTimestampKeepRemoteValue(
    const velmora::PropertyList& value, std::int64_t timestamp, const velmora::PropertyList& previousRecord);

// Reads a record. Returns a pointer to the value inside record, borrowed: valid
// as long as record (or a copy of it) lives. Stores the timestamp into
// *outTimestamp and, when outRemoteValue is given, a borrowed pointer to the
// "remotevalue" entry (nullptr when absent) into *outRemoteValue. Returns
// nullptr when record is not a valid record; a lossy or zero timestamp may
// still have been written. outTimestamp may be nullptr.
ZKV_EXPORT const velmora::PropertyList* ZKVGetPropertyListAndTimestampAndRemoteValueFromStorage(
    const velmora::PropertyList& record, std::int64_t* outTimestamp,
    const velmora::PropertyList** outRemoteValue = nullptr);

// As above, without the remote value.
ZKV_EXPORT const velmora::PropertyList* ZKVGetPropertyListAndTimestampFromStorage(
    const velmora::PropertyList& record, std::int64_t* outTimestamp);

// Builds the record that adopts record's remote value locally: the value and
// timestamp read from its "remotevalue" bytes, with those very bytes (the same
// handle) kept as the new record's remote value. Returns none when record has
// no readable remote value.
ZKV_EXPORT velmora::PropertyList ZKVCreateLocalStorageFromRemoteValueInStorage(const velmora::PropertyList& record);
