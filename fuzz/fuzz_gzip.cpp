// Ungzips arbitrary bytes, and checks that whatever gzips also round-trips.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <span>

#include "zkv/ZKVEncoding.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::span<const std::uint8_t> input(data, size);
  (void)ZKVCopyUngzippedDataForData(input);

  if (auto gz = ZKVCopyGzippedDataForData(input)) {
    if (gz->size() > size) std::abort();
    auto back = ZKVCopyUngzippedDataForData(*gz);
    if (!back || !std::equal(back->begin(), back->end(), input.begin(), input.end())) std::abort();
  }
  return 0;
}
