// Reads arbitrary bytes as a timestamped serialised value, as is and behind a
// well-formed header so the payload parser gets exercised directly.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <span>

#include "zkv/ZKVEncoding.h"

namespace {

void check(std::span<const std::uint8_t> bytes) {
  std::int64_t timestamp = 0;
  velmora::PropertyList value = ZKVCopyPropertyListAndTimestampFromData(bytes, &timestamp);
  if (value.isNone()) return;
  if (timestamp == 0) std::abort();
  // Anything read back must survive a write and a second read unchanged.
  if (auto again = ZKVCopySerializedDataForPropertyListAndTimestamp(value, timestamp)) {
    std::int64_t timestamp2 = 0;
    if (ZKVCopyPropertyListAndTimestampFromData(*again, &timestamp2) != value || timestamp2 != timestamp) {
      std::abort();
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  check(std::span(data, size));

  velmora::Bytes framed = {0x01, 0, 0, 0, 0x2a, 0, 0, 0, 0, 0, 0, 0};
  framed.insert(framed.end(), data, data + size);
  check(framed);
  return 0;
}
