#include "zkv/ZKVEncoding.h"

#include <zlib.h>

#include <array>
#include <limits>
#include <string_view>

#include "velmora/platform/PlistCodec.h"

using velmora::Bytes;
using velmora::PropertyList;

namespace {

// The format tag of the timestamped serialised form, and its header size.
constexpr std::uint8_t kSerializedFormatTag = 0x01;
constexpr std::size_t kSerializedHeaderLength = 12;
constexpr std::size_t kSerializedTimestampOffset = 4;
// The shortest form read: header plus 7 bytes of payload.
constexpr std::size_t kSerializedMinimumLength = 19;
// First byte of the older dictionary form ("bplist00...").
constexpr std::uint8_t kLegacyFormatTag = 0x62;

// The zlib interface level we ask for; zlib only checks the major version.
constexpr const char* kZlibVersion = "1.2.8";
// windowBits 15 (32 KiB) + 16: gzip wrapper only.
constexpr int kGzipWindowBits = 31;
constexpr std::size_t kInflateChunk = 16384;

constexpr std::string_view kTimestampKey = "timestamp";
constexpr std::string_view kValueKey = "value";
constexpr std::string_view kRemoteValueKey = "remotevalue";

std::int64_t readInt64LittleEndian(const std::uint8_t* p) {
  std::uint64_t v = 0;
  for (int i = 7; i >= 0; --i) v = (v << 8) | p[i];
  return static_cast<std::int64_t>(v);
}

void appendInt64LittleEndian(Bytes& out, std::int64_t value) {
  auto v = static_cast<std::uint64_t>(value);
  for (int i = 0; i < 8; ++i) out.push_back(static_cast<std::uint8_t>(v >> (8 * i)));
}

PropertyList readLegacyForm(std::span<const std::uint8_t> data, std::int64_t& outTimestamp) {
  PropertyList dict = velmora::decodePlist(data);
  const PropertyList* timestamp = dict.find(kTimestampKey);
  const PropertyList* value = dict.find(kValueKey);
  if (timestamp == nullptr || value == nullptr || !timestamp->isNumber()) return {};
  if (!timestamp->getInt64(outTimestamp) || outTimestamp == 0) return {};
  return *value;
}

PropertyList readSerializedForm(std::span<const std::uint8_t> data, std::int64_t& outTimestamp) {
  if (data.size() < kSerializedMinimumLength) return {};
  std::int64_t timestamp = readInt64LittleEndian(data.data() + kSerializedTimestampOffset);
  if (timestamp == 0) return {};
  outTimestamp = timestamp;
  // Written in the binary encoding, but read in any: a peer may send XML.
  return velmora::decodePlist(data.subspan(kSerializedHeaderLength));
}

}  // namespace

std::optional<Bytes> ZKVCopyGzippedDataForData(std::span<const std::uint8_t> input) {
  if (input.empty() || input.data() == nullptr) return std::nullopt;
  // The output may not grow past the input: callers only want the compressed
  // form when it actually saves space.
  Bytes output(input.size());
  z_stream strm{};
  strm.next_in = const_cast<Bytef*>(input.data());
  strm.avail_in = static_cast<uInt>(input.size());
  strm.next_out = output.data();
  strm.avail_out = static_cast<uInt>(output.size());
  if (deflateInit2_(&strm, Z_DEFAULT_COMPRESSION, Z_DEFLATED, kGzipWindowBits, 8, Z_DEFAULT_STRATEGY,
                    kZlibVersion, static_cast<int>(sizeof(z_stream))) != Z_OK) {
    return std::nullopt;
  }
  int result = deflate(&strm, Z_FINISH);
  int endResult = deflateEnd(&strm);
  // A length that overflowed the 32-bit avail_in shows up as a short total_in.
  if (result != Z_STREAM_END || endResult != Z_OK ||
      static_cast<std::uint64_t>(strm.total_in) != static_cast<std::uint64_t>(input.size())) {
    return std::nullopt;
  }
  output.resize(strm.total_out);
  return output;
}

namespace {

// The first gzip member of input, stopping with nullopt (and *tooLarge set)
// once the output passes limit; with wholeInput, bytes after the member
// refuse it too.
std::optional<Bytes> ungzip(std::span<const std::uint8_t> input, std::size_t limit, bool wholeInput, bool* tooLarge) {
  z_stream strm{};
  strm.next_in = const_cast<Bytef*>(input.data());
  strm.avail_in = static_cast<uInt>(input.size());
  if (inflateInit2_(&strm, kGzipWindowBits, kZlibVersion, static_cast<int>(sizeof(z_stream))) != Z_OK) {
    return std::nullopt;
  }
  Bytes output;
  std::array<std::uint8_t, kInflateChunk> chunk;
  int result;
  // inflate returns Z_OK only after making progress; once the input runs out
  // with room left in the chunk it returns Z_BUF_ERROR, so this loop ends.
  do {
    strm.next_out = chunk.data();
    strm.avail_out = static_cast<uInt>(chunk.size());
    result = inflate(&strm, Z_NO_FLUSH);
    if (result != Z_OK && result != Z_STREAM_END) break;
    std::size_t produced = chunk.size() - strm.avail_out;
    if (output.size() + produced > limit) {
      if (tooLarge != nullptr) *tooLarge = true;
      result = Z_BUF_ERROR;
      break;
    }
    if (produced > 0) output.insert(output.end(), chunk.data(), chunk.data() + produced);
  } while (result == Z_OK);
  inflateEnd(&strm);
  if (result != Z_STREAM_END) return std::nullopt;
  if (wholeInput && static_cast<std::uint64_t>(strm.total_in) != static_cast<std::uint64_t>(input.size())) {
    return std::nullopt;
  }
  return output;
}

}  // namespace

std::optional<Bytes> ZKVCopyUngzippedDataForData(std::span<const std::uint8_t> input) {
  return ungzip(input, std::numeric_limits<std::size_t>::max(), false, nullptr);
}

std::optional<Bytes> ZKVCopyUngzippedDataForDataWithLimit(std::span<const std::uint8_t> input, std::size_t limit,
                                                          bool* tooLarge) {
  if (tooLarge != nullptr) *tooLarge = false;
  // The input length must fit zlib's 32-bit counter for the whole-input check.
  if (input.size() > std::numeric_limits<uInt>::max()) return std::nullopt;
  return ungzip(input, limit, true, tooLarge);
}

std::ptrdiff_t ZKVGetSerializedLengthForPropertyList(const PropertyList& value) {
  std::optional<Bytes> encoded = velmora::encodeBinaryPlist(value);
  if (!encoded) return 0;
  return static_cast<std::ptrdiff_t>(encoded->size() + kSerializedHeaderLength);
}

std::optional<Bytes> ZKVCopySerializedDataForPropertyListAndTimestamp(const PropertyList& value,
                                                                      std::int64_t timestamp) {
  if (value.isNone() || timestamp == 0) return std::nullopt;
  Bytes out;
  out.reserve(256);
  out.push_back(kSerializedFormatTag);
  out.insert(out.end(), 3, std::uint8_t{0});  // reserved
  appendInt64LittleEndian(out, timestamp);
  if (velmora::appendBinaryPlist(value, out) == 0) return std::nullopt;
  return out;
}

PropertyList ZKVCopyPropertyListAndTimestampFromData(std::span<const std::uint8_t> data,
                                                     std::int64_t* outTimestamp) {
  if (data.empty()) return {};
  std::int64_t scratch = 0;
  std::int64_t& timestamp = outTimestamp != nullptr ? *outTimestamp : scratch;
  switch (data[0]) {
    case kLegacyFormatTag: return readLegacyForm(data, timestamp);
    case kSerializedFormatTag: return readSerializedForm(data, timestamp);
    default: return {};
  }
}

PropertyList ZKVCreateStorageForPropertyListTimestampAndRemoteValue(const PropertyList& value,
                                                                    std::int64_t timestamp,
                                                                    const PropertyList& remoteValue) {
  if (value.isNone() || timestamp == 0) return {};
  velmora::PlistDictionary record;
  record.emplace(kTimestampKey, PropertyList::integer(timestamp));
  record.emplace(kValueKey, value);
  if (!remoteValue.isNone()) record.emplace(kRemoteValueKey, remoteValue);
  return PropertyList::dictionary(std::move(record));
}

PropertyList ZKVCreateStorageForPropertyListAndTimestamp(const PropertyList& value, std::int64_t timestamp) {
  return ZKVCreateStorageForPropertyListTimestampAndRemoteValue(value, timestamp, PropertyList());
}

PropertyList ZKVCreateStorageForPropertyListAndTimestampKeepRemoteValue(const PropertyList& value,
                                                                        std::int64_t timestamp,
                                                                        const PropertyList& previousRecord) {
  const PropertyList* remote = previousRecord.find(kRemoteValueKey);
  return ZKVCreateStorageForPropertyListTimestampAndRemoteValue(value, timestamp,
                                                                remote != nullptr ? *remote : PropertyList());
}

const PropertyList* ZKVGetPropertyListAndTimestampAndRemoteValueFromStorage(const PropertyList& record,
                                                                            std::int64_t* outTimestamp,
                                                                            const PropertyList** outRemoteValue) {
  if (!record.isDictionary()) return nullptr;
  const PropertyList* timestamp = record.find(kTimestampKey);
  const PropertyList* value = record.find(kValueKey);
  if (timestamp == nullptr || value == nullptr || !timestamp->isNumber()) return nullptr;
  std::int64_t scratch = 0;
  std::int64_t& out = outTimestamp != nullptr ? *outTimestamp : scratch;
  if (!timestamp->getInt64(out) || out == 0) return nullptr;
  if (outRemoteValue != nullptr) *outRemoteValue = record.find(kRemoteValueKey);
  return value;
}

const PropertyList* ZKVGetPropertyListAndTimestampFromStorage(const PropertyList& record,
                                                              std::int64_t* outTimestamp) {
  return ZKVGetPropertyListAndTimestampAndRemoteValueFromStorage(record, outTimestamp, nullptr);
}

PropertyList ZKVCreateLocalStorageFromRemoteValueInStorage(const PropertyList& record) {
  const PropertyList* remote = record.find(kRemoteValueKey);
  if (remote == nullptr || !remote->isData()) return {};
  std::int64_t timestamp = 0;
  PropertyList value = ZKVCopyPropertyListAndTimestampFromData(*remote->getData(), &timestamp);
  if (value.isNone()) return {};
  // Keep the very buffer as the remote value: it is what the peer sent, and
  // sharing it costs nothing.
  return ZKVCreateStorageForPropertyListTimestampAndRemoteValue(value, timestamp, *remote);
}
