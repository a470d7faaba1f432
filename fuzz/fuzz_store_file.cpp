// Decodes arbitrary bytes as a store file and drives the two readers of one:
//
// - the loads: applies the contents the way a source's loads do, as a first
//   load, as the load after a no-content load (every key compared against an
//   empty cache), as a reload over an older change count with a cache and
//   with pending changes, and after an eviction (with an unshared decode,
//   which is taken over instead of copied). Each load promises a cache
//   afterwards, the no-content state for anything that is no dictionary, and
//   pending changes never recorded as an empty dictionary by a load that
//   started with none;
// - the journal: queried read-only over the store, then edited over a mutable
//   copy with edits taken from the input (each 3-byte group an op, a key and
//   a signed count); an added change reads back, a removal leaves no count at
//   or below its bound.
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <stdexcept>
#include <string>
#include <utility>

#include "FuzzSupport.h"
#include "velmora/platform/PlistCodec.h"
#include "zkv/ZKVJournal.h"
#include "zkv/ZKVRemotePreferencesSource.h"

using velmora::PropertyList;

namespace {

void load(ZKVStoreLoadState& state, PropertyList contents) {
  const bool hadPending = state.externalChanges.has_value();
  const bool dictionary = contents.isDictionary();
  ZKVApplyStoreFileContents(state, std::move(contents), "fuzz");
  fuzz::check(state.cache && (dictionary || (state.storageChangeCount == 0 && state.initialSyncChangeCount == -1 &&
                                              !state.isInitialSync && state.cache->empty())));
  fuzz::check(hadPending || !state.externalChanges || !state.externalChanges->empty());
}

void query(const ZKVJournal& journal, std::int64_t count) {
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
  const PropertyList contents = velmora::decodePlist(std::span(data, size));
  const std::int8_t first = size > 0 ? static_cast<std::int8_t>(data[0]) : -1;
  ZKVStoreLoadState state, afterNoContent;
  load(state, contents);
  load(afterNoContent, PropertyList());
  load(afterNoContent, contents);
  for (int round = 0; round < 3; ++round) {  // without pending changes, with them, then evicted
    state.storageChangeCount = first;
    if (round != 1) state.externalChanges.reset();
    if (round == 2) state.cache.reset();
    load(state, round < 2 ? contents : velmora::decodePlist(std::span(data, size)));
  }

  query(ZKVJournal::withStore(contents), size > 0 ? first : 0);
  auto mutableStore = std::make_shared<velmora::PlistDictionary>();
  if (const velmora::PlistDictionary* dict = contents.getDictionary()) *mutableStore = *dict;
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
  return 0;
}
