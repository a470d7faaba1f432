// Decodes arbitrary bytes as a store, queries a read-only journal over it,
// then drives a writable journal over a mutable copy with edits taken from
// the input: each 3-byte group an op, a key and a signed count.
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <stdexcept>
#include <string>

#include "FuzzSupport.h"
#include "velmora/platform/PlistCodec.h"
#include "zkv/ZKVJournal.h"

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
  const velmora::PropertyList store = velmora::decodePlist(std::span(data, size));
  query(ZKVJournal::withStore(store), size > 0 ? static_cast<std::int8_t>(data[0]) : 0);

  auto mutableStore = std::make_shared<velmora::PlistDictionary>();
  if (const velmora::PlistDictionary* dict = store.getDictionary()) *mutableStore = *dict;
  ZKVJournal journal = ZKVJournal::withMutableStore(mutableStore);
  for (std::size_t i = 0; i + 3 <= size && i < 96; i += 3) {
    const std::string key(1, static_cast<char>('a' + data[i + 1] % 4));
    const auto at = static_cast<std::int8_t>(data[i + 2]);
    if (const std::int32_t change = data[i] % 4; change == 3) {
      (void)journal.removeChangesUntilChangeCount(at);
      fuzz::check(journal.maximumChangeCount() == -1 || journal.maximumChangeCount() > at);
    } else {  // change 0 forgets the key
      journal.addChange(change, key, at);
      fuzz::check(journal.changeSinceChangeCount(static_cast<std::int64_t>(at) - 1, key) == change);
    }
    query(journal, at);
  }
  fuzz::check(journal.journal().isNone() == (mutableStore->count("journal") == 0));
  return 0;
}
