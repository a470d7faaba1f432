// Reads arbitrary bytes as a timestamped serialised value, as is and behind a
// well-formed header so the payload parser gets exercised directly. Anything
// read back must survive a write and a second read unchanged.
#include <cstddef>
#include <cstdint>
#include <span>

#include "FuzzSupport.h"
#include "zkv/ZKVEncoding.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  velmora::Bytes framed = {0x01, 0, 0, 0, 0x2a, 0, 0, 0, 0, 0, 0, 0};
  framed.insert(framed.end(), data, data + size);
  using Span = std::span<const std::uint8_t>;
  for (const Span bytes : {Span(data, size), Span(framed)}) {
    std::int64_t timestamp = 0, again = 0;
    const velmora::PropertyList value = ZKVCopyPropertyListAndTimestampFromData(bytes, &timestamp);
    if (value.isNone()) continue;
    fuzz::check(timestamp != 0);
    if (auto written = ZKVCopySerializedDataForPropertyListAndTimestamp(value, timestamp)) {
      fuzz::check(ZKVCopyPropertyListAndTimestampFromData(*written, &again) == value && again == timestamp);
    }
  }
  return 0;
}
