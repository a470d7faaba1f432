// Store files as the daemon writes them, and a look at the state a
// preferences source keeps on its protection queue.
//
// Header-only, so that the benchmarks use it without the test library.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>

#include "velmora/platform/Dispatch.h"
#include "velmora/platform/PropertyList.h"
#include "zkv/ZKVEncoding.h"
#include "zkv/ZKVRemotePreferencesSource.h"

namespace velmora::testing {

// The timestamp the fixtures stamp values with unless told otherwise.
constexpr std::int64_t kRecordTimestamp = 700'000'000;

// Where the store files live under the home directory home.
inline std::filesystem::path storeDirectory(const std::filesystem::path& home) {
  return home / "Library" / "Quellstore";
}

// Where the store file called name lives under the home directory home.
inline std::filesystem::path storeFilePath(const std::filesystem::path& home, const std::string& name) {
  return storeDirectory(home) / (name + ".plist");
}

// value in a storage record stamped with timestamp, as a store file holds it.
inline velmora::PropertyList record(const velmora::PropertyList& value, std::int64_t timestamp = kRecordTimestamp) {
  return ZKVCreateStorageForPropertyListAndTimestamp(value, timestamp);
}

// The string text in a storage record stamped with timestamp.
inline velmora::PropertyList record(const std::string& text, std::int64_t timestamp = kRecordTimestamp) {
  return record(velmora::PropertyList::string(text), timestamp);
}

// A store file's content: values (storage records) under "values", the
// change count under "changecount", and the entries of extra beside them.
inline velmora::PropertyList storeWith(velmora::PlistDictionary values, std::int64_t changeCount,
                                       velmora::PlistDictionary extra = {}) {
  extra.insert_or_assign("values", velmora::PropertyList::dictionary(std::move(values)));
  extra.insert_or_assign("changecount", velmora::PropertyList::integer(changeCount));
  return velmora::PropertyList::dictionary(std::move(extra));
}

// One key's entry in a store file's "journal": the change count it was
// written at and the kind of change.
inline velmora::PropertyList journalEntry(std::int64_t count, std::int32_t change) {
  return velmora::makeDictionary(
      {{"count", velmora::PropertyList::integer(count)}, {"change", velmora::PropertyList::integer(change)}});
}

// A copy of the source's load state, taken on its protection queue. Blocks
// while the queue is busy.
inline ZKVStoreLoadState loadState(ZKVRemotePreferencesSource& source) {
  ZKVStoreLoadState copy;
  source.protectionQueue()->sync([&] { copy = source.lockedLoadState(); });
  return copy;
}

// A copy of the source's dirty keys (nullopt before the first write), taken
// on its protection queue. Blocks while the queue is busy.
inline std::optional<ZKVRemotePreferencesSource::KeySet> dirtyKeys(ZKVRemotePreferencesSource& source) {
  std::optional<ZKVRemotePreferencesSource::KeySet> copy;
  source.protectionQueue()->sync([&] { copy = source.lockedDirtyKeys(); });
  return copy;
}

}  // namespace velmora::testing
