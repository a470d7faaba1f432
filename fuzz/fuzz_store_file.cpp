// Decodes arbitrary bytes as a store file's contents and applies them the way
// a source's loads do: as a first load, as the load after a no-content load
// (every key compared against an empty cache), as a reload over an older
// change count with a cache and with pending changes, and after an eviction
// (with an unshared decode, which is taken over instead of copied). Checks
// what every load promises: a cache afterwards, the no-content state for
// anything that is no dictionary, and pending changes never recorded as an
// empty dictionary by a load that started with none.
#include <cstddef>
#include <cstdint>
#include <span>
#include <utility>

#include "FuzzSupport.h"
#include "velmora/platform/PlistCodec.h"
#include "zkv/ZKVRemotePreferencesSource.h"

using velmora::PropertyList;

namespace {

void load(ZKVStoreLoadState& state, PropertyList contents) {
  const bool hadPending = state.externalChanges.has_value();
  const bool dictionary = contents.isDictionary();
  ZKVApplyStoreFileContents(state, std::move(contents), "fuzz");
  fuzz::check(state.cache.has_value());
  fuzz::check(dictionary || (state.storageChangeCount == 0 && state.initialSyncChangeCount == -1 &&
                             !state.isInitialSync && state.cache->empty()));
  fuzz::check(hadPending || !state.externalChanges || !state.externalChanges->empty());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::quietLogs();
  const PropertyList contents = velmora::decodePlist(std::span(data, size));
  ZKVStoreLoadState state, afterNoContent;
  load(state, contents);
  load(afterNoContent, PropertyList());
  load(afterNoContent, contents);

  const std::int64_t older = size > 0 ? static_cast<std::int8_t>(data[0]) : -1;
  state.storageChangeCount = older;
  state.externalChanges.reset();
  load(state, contents);
  state.storageChangeCount = older;
  load(state, contents);
  state.cache.reset();
  state.externalChanges.reset();
  state.storageChangeCount = older;
  load(state, velmora::decodePlist(std::span(data, size)));
  return 0;
}
