// Decodes arbitrary bytes as a property list and runs every storage-record
// reader over it: a readable record rebuilds, the two readers agree, and an
// adopted remote value reads back.
#include <cstddef>
#include <cstdint>
#include <span>

#include "FuzzSupport.h"
#include "velmora/platform/PlistCodec.h"
#include "zkv/ZKVEncoding.h"

using velmora::PropertyList;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const PropertyList record = velmora::decodePlist(std::span(data, size));
  std::int64_t timestamp = 0, timestamp2 = 0;
  const PropertyList* remote = nullptr;
  const PropertyList* value = ZKVGetPropertyListAndTimestampAndRemoteValueFromStorage(record, &timestamp, &remote);
  if (value != nullptr) {
    fuzz::check(timestamp != 0 && value == record.find("value") && remote == record.find("remotevalue"));
    const PropertyList rebuilt = ZKVCreateStorageForPropertyListTimestampAndRemoteValue(
        *value, timestamp, remote != nullptr ? *remote : PropertyList());
    fuzz::check(value->isNone() == rebuilt.isNone());
  }
  fuzz::check(ZKVGetPropertyListAndTimestampFromStorage(record, &timestamp2) == value);
  const PropertyList adopted = ZKVCreateLocalStorageFromRemoteValueInStorage(record);
  fuzz::check(adopted.isNone() || ZKVGetPropertyListAndTimestampFromStorage(adopted, &timestamp2) != nullptr);
  (void)ZKVCreateStorageForPropertyListAndTimestampKeepRemoteValue(PropertyList::integer(1), 1, record);
  return 0;
}
