// Decodes arbitrary bytes as a store file's contents and applies them the way
// a source's loads do: as a first load, as the load after a no-content load
// (every key compared against an empty cache), as a reload over an older
// change count with a cache and with pending changes, and after an
// eviction. Checks what every load promises: a cache afterwards, the
// no-content state for anything that is no dictionary, and pending changes
// never recorded as an empty dictionary by a load that started with none.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <span>

#include "velmora/platform/Log.h"
#include "velmora/platform/PlistCodec.h"
#include "zkv/ZKVRemotePreferencesSource.h"

using velmora::PropertyList;

namespace {

// Accepts every level, so the debug lines are formatted too, then drops them.
class DiscardingSink : public velmora::LogSink {
 public:
  void write(const velmora::LogHandle&, velmora::LogLevel, std::string_view) override {}
  bool accepts(velmora::LogLevel) const override { return true; }
};

void check(const ZKVStoreLoadState& state, const PropertyList& contents, bool hadPending) {
  if (!state.cache) std::abort();
  if (!contents.isDictionary() && (state.storageChangeCount != 0 || state.initialSyncChangeCount != -1 ||
                                   state.isInitialSync || !state.cache->empty())) {
    std::abort();
  }
  if (!hadPending && state.externalChanges && state.externalChanges->empty()) std::abort();
}

void load(ZKVStoreLoadState& state, const PropertyList& contents) {
  const bool hadPending = state.externalChanges.has_value();
  ZKVApplyStoreFileContents(state, contents, "fuzz");
  check(state, contents, hadPending);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const bool quiet = (velmora::setLogSink(std::make_shared<DiscardingSink>()), true);
  (void)quiet;
  const PropertyList contents = velmora::decodePlist(std::span(data, size));

  ZKVStoreLoadState state;
  load(state, contents);

  ZKVStoreLoadState afterNoContent;
  load(afterNoContent, PropertyList());
  load(afterNoContent, contents);

  // An older count over the cache just loaded, with and without pending
  // changes, then with the cache evicted.
  const std::int64_t older = size > 0 ? static_cast<std::int8_t>(data[0]) : -1;
  state.storageChangeCount = older;
  state.externalChanges.reset();
  load(state, contents);
  state.storageChangeCount = older;
  load(state, contents);
  state.cache.reset();
  state.externalChanges.reset();
  state.storageChangeCount = older;
  // An unshared decode is taken over instead of copied.
  PropertyList owned = velmora::decodePlist(std::span(data, size));
  const bool hadPending = state.externalChanges.has_value();
  ZKVApplyStoreFileContents(state, std::move(owned), "fuzz");
  check(state, contents, hadPending);
  return 0;
}
