// Ungzips arbitrary bytes, and checks that whatever gzips also round-trips.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <span>

#include "FuzzSupport.h"
#include "zkv/ZKVEncoding.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::span<const std::uint8_t> input(data, size);
  (void)ZKVCopyUngzippedDataForData(input);
  if (auto gz = ZKVCopyGzippedDataForData(input)) {
    // Only a smaller form is worth keeping; it must give back the input.
    auto back = ZKVCopyUngzippedDataForData(*gz);
    fuzz::check(gz->size() <= size && back && std::ranges::equal(*back, input));
  }
  return 0;
}
