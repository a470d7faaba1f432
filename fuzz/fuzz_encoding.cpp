// Reads arbitrary bytes through the value encodings a store keeps:
// - gzip: ungzipped, and whatever gzips (to no more than the input) must
//   ungzip back to the input;
// - the timestamped serialised value, as is and behind a well-formed header
//   so the payload parser gets exercised directly: anything read back must
//   survive a write and a second read unchanged;
// - a storage record (the bytes decoded as a property list) through every
//   record reader: a readable record rebuilds, the two readers agree, and an
//   adopted remote value reads back.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <span>

#include "FuzzSupport.h"
#include "velmora/platform/PlistCodec.h"
#include "zkv/ZKVEncoding.h"

using velmora::PropertyList;
using fuzz::check;
using Span = std::span<const std::uint8_t>;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const Span input(data, size);
  (void)ZKVCopyUngzippedDataForData(input);
  const auto gz = ZKVCopyGzippedDataForData(input);
  check(!gz || (gz->size() <= size && ZKVCopyUngzippedDataForData(*gz) == velmora::Bytes(data, data + size)));

  velmora::Bytes framed = {0x01, 0, 0, 0, 0x2a, 0, 0, 0, 0, 0, 0, 0};
  framed.insert(framed.end(), data, data + size);
  for (const Span bytes : {input, Span(framed)}) {
    std::int64_t timestamp = 0, again = 0;
    const PropertyList value = ZKVCopyPropertyListAndTimestampFromData(bytes, &timestamp);
    if (value.isNone()) continue;
    check(timestamp != 0);
    const auto written = ZKVCopySerializedDataForPropertyListAndTimestamp(value, timestamp);
    check(!written || (ZKVCopyPropertyListAndTimestampFromData(*written, &again) == value && again == timestamp));
  }

  const PropertyList record = velmora::decodePlist(input);
  std::int64_t timestamp = 0, timestamp2 = 0;
  const PropertyList* remote = nullptr;
  const PropertyList* value = ZKVGetPropertyListAndTimestampAndRemoteValueFromStorage(record, &timestamp, &remote);
  if (value != nullptr) {
    check(timestamp != 0 && value == record.find("value") && remote == record.find("remotevalue"));
    const PropertyList rebuilt = ZKVCreateStorageForPropertyListTimestampAndRemoteValue(
        *value, timestamp, remote != nullptr ? *remote : PropertyList());
    check(value->isNone() == rebuilt.isNone());
  }
  check(ZKVGetPropertyListAndTimestampFromStorage(record, &timestamp2) == value);
  const PropertyList adopted = ZKVCreateLocalStorageFromRemoteValueInStorage(record);
  check(adopted.isNone() || ZKVGetPropertyListAndTimestampFromStorage(adopted, &timestamp2) != nullptr);
  (void)ZKVCreateStorageForPropertyListAndTimestampKeepRemoteValue(PropertyList::integer(1), 1, record);
  return 0;
}
