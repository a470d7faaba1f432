// Decodes arbitrary bytes as a property list and runs every storage-record
// reader over it.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <span>

#include "velmora/platform/PlistCodec.h"
#include "zkv/ZKVEncoding.h"

using velmora::PropertyList;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  PropertyList record = velmora::decodePlist(std::span(data, size));

  std::int64_t timestamp = 0;
  const PropertyList* remote = nullptr;
  const PropertyList* value = ZKVGetPropertyListAndTimestampAndRemoteValueFromStorage(record, &timestamp, &remote);
  if (value != nullptr) {
    if (timestamp == 0 || value != record.find("value") || remote != record.find("remotevalue")) std::abort();
    // A readable record must rebuild into an equal one.
    PropertyList rebuilt = ZKVCreateStorageForPropertyListTimestampAndRemoteValue(
        *value, timestamp, remote != nullptr ? *remote : PropertyList());
    if (value->isNone() ? !rebuilt.isNone() : rebuilt.isNone()) std::abort();
  }
  std::int64_t timestamp2 = 0;
  if (ZKVGetPropertyListAndTimestampFromStorage(record, &timestamp2) != value) std::abort();

  PropertyList adopted = ZKVCreateLocalStorageFromRemoteValueInStorage(record);
  if (!adopted.isNone() && ZKVGetPropertyListAndTimestampFromStorage(adopted, &timestamp2) == nullptr) std::abort();

  (void)ZKVCreateStorageForPropertyListAndTimestampKeepRemoteValue(PropertyList::integer(1), 1, record);
  return 0;
}
