// Decodes arbitrary bytes as a store, queries a read-only journal over it,
// then drives a writable journal over a mutable copy with edits taken from
// the input.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <span>
#include <stdexcept>
#include <string>

#include "velmora/platform/PlistCodec.h"
#include "zkv/ZKVJournal.h"

using velmora::PlistDictionary;
using velmora::PropertyList;

namespace {

void query(const ZKVJournal& journal, std::int64_t count) {
  (void)journal.maximumChangeCount();
  (void)journal.changeSinceChangeCount(count, "a");
  (void)journal.description();
  try {
    (void)journal.changesSinceChangeCount(count);
  } catch (const std::invalid_argument&) {
    // A qualifying entry without a change: malformed journal, reported by design.
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  PropertyList store = velmora::decodePlist(std::span(data, size));
  std::int64_t count = size > 0 ? static_cast<std::int8_t>(data[0]) : 0;
  query(ZKVJournal::withStore(store), count);

  auto mutableStore = std::make_shared<PlistDictionary>();
  if (const PlistDictionary* dict = store.getDictionary()) *mutableStore = *dict;
  ZKVJournal journal = ZKVJournal::withMutableStore(mutableStore);
  // Each 3-byte group: an op, a key and a signed count.
  for (std::size_t i = 0; i + 3 <= size && i < 96; i += 3) {
    std::string key(1, static_cast<char>('a' + data[i + 1] % 4));
    auto at = static_cast<std::int8_t>(data[i + 2]);
    if (data[i] % 4 == 3) {
      bool removed = journal.removeChangesUntilChangeCount(at);
      if (journal.maximumChangeCount() != -1 && journal.maximumChangeCount() <= at) std::abort();
      (void)removed;
    } else {
      std::int32_t change = data[i] % 4;  // 0 forgets the key
      journal.addChange(change, key, at);
      if (journal.changeSinceChangeCount(static_cast<std::int64_t>(at) - 1, key) != change) std::abort();
    }
    query(journal, at);
  }
  if (journal.journal().isNone() != (mutableStore->count("journal") == 0)) std::abort();
  return 0;
}
