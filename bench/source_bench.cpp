// Preferences source: the read and write hot paths on a loaded cache
// (targets: getValueForKey <= 100 ns, setValueForKey <= 1 us) and the first
// load of a 1 MiB store file against the codec's own decode of that file
// (target: load <= 1.2 x decode).
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "BenchSupport.h"
#include "velmora/platform/PlistCodec.h"
#include "zkv/ZKVRemotePreferencesSource.h"

namespace {

namespace fs = std::filesystem;
using velmora::PlistDictionary;
using velmora::PropertyList;

// Writes the store file name with keys strings of valueLength bytes each.
void writeStore(const velmora::bench::BenchScratch& scratch, const std::string& name, int keys,
                std::size_t valueLength) {
  PlistDictionary values;
  for (int i = 0; i < keys; ++i) {
    std::string value(valueLength, 'a' + static_cast<char>(i % 26));
    value.replace(0, std::min(value.size(), std::to_string(i).size()), std::to_string(i));
    values.emplace("key" + std::to_string(i),
                   velmora::testing::record(PropertyList::string(value), velmora::testing::kRecordTimestamp + i));
  }
  const PropertyList store =
      velmora::testing::storeWith(std::move(values), keys, {{"versionid", PropertyList::string("bench")}});
  if (!velmora::testing::writePlistFile(scratch.storePath(name).string(), store)) std::abort();
}

// The process set-up and two store files. Small: 100 short strings. Large:
// about 1 MiB of 240-byte strings.
velmora::bench::BenchScratch& scratch() {
  static velmora::bench::BenchScratch* instance = [] {  // lives for the whole run
    auto* made = new velmora::bench::BenchScratch("zkv-source-bench", "bench");
    writeStore(*made, "Small", 100, 8);
    writeStore(*made, "Large", 4096, 240);
    return made;
  }();
  return *instance;
}

// Reads key of the store name, loaded before the timing starts.
void timeGetValueForKey(benchmark::State& state, const char* name, const char* key) {
  scratch();
  auto source = ZKVRemotePreferencesSource::create(name, false);
  if (source->getValueForKey(key).isNone()) state.SkipWithError("store not loaded");
  for (auto _ : state) {
    benchmark::DoNotOptimize(source->getValueForKey(key));
  }
}

void BM_GetValueForKey(benchmark::State& state) { timeGetValueForKey(state, "Small", "key42"); }
BENCHMARK(BM_GetValueForKey);

void BM_GetValueForKeyLargeStore(benchmark::State& state) { timeGetValueForKey(state, "Large", "key4000"); }
BENCHMARK(BM_GetValueForKeyLargeStore);

// Every iteration is an effective write: the value alternates.
void BM_SetValueForKey(benchmark::State& state) {
  scratch();
  auto source = ZKVRemotePreferencesSource::create("Small", false);
  const PropertyList values[2] = {PropertyList::string("small value one"), PropertyList::string("small value two")};
  std::size_t i = 0;
  for (auto _ : state) {
    source->setValueForKey(values[i++ & 1], "key42");
  }
}
BENCHMARK(BM_SetValueForKey);

// An equal rewrite is cut off before the copy.
void BM_SetValueForKeyUnchanged(benchmark::State& state) {
  scratch();
  auto source = ZKVRemotePreferencesSource::create("Small", false);
  const PropertyList value = PropertyList::string("small value one");
  for (auto _ : state) {
    source->setValueForKey(value, "key42");
  }
}
BENCHMARK(BM_SetValueForKeyUnchanged);

void BM_ReadPlistFile1MiB(benchmark::State& state) {
  const std::string path = scratch().storePath("Large").string();
  for (auto _ : state) {
    benchmark::DoNotOptimize(velmora::readPlistFile(path));
  }
  state.counters["bytes"] = static_cast<double>(fs::file_size(path));
}
BENCHMARK(BM_ReadPlistFile1MiB)->Unit(benchmark::kMicrosecond);

void BM_DecodeBinaryPlist1MiB(benchmark::State& state) {
  const fs::path path = scratch().storePath("Large");
  velmora::Bytes bytes(fs::file_size(path));
  std::ifstream(path, std::ios::binary)
      .read(reinterpret_cast<char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
  for (auto _ : state) {
    benchmark::DoNotOptimize(velmora::decodeBinaryPlist(bytes));
  }
}
BENCHMARK(BM_DecodeBinaryPlist1MiB)->Unit(benchmark::kMicrosecond);

// A fresh source's first read: file read, decode, and the load itself.
// Creating and destroying the source is left out of the timing.
void BM_FirstLoad1MiB(benchmark::State& state) {
  scratch();
  for (auto _ : state) {
    state.PauseTiming();
    auto source = ZKVRemotePreferencesSource::create("Large", false);
    state.ResumeTiming();
    benchmark::DoNotOptimize(source->getValueForKey("key4000"));
    state.PauseTiming();
    source.reset();
    state.ResumeTiming();
  }
}
BENCHMARK(BM_FirstLoad1MiB)->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
