// Preferences source: the read and write hot paths on a loaded cache
// (targets: getValueForKey <= 100 ns, setValueForKey <= 1 us) and the first
// load of a 1 MiB store file against the codec's own decode of that file
// (target: load <= 1.2 x decode).
#include <benchmark/benchmark.h>
#include <stdlib.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>

#include "velmora/platform/Environment.h"
#include "velmora/platform/Log.h"
#include "velmora/platform/MemoryPressure.h"
#include "velmora/platform/PlistCodec.h"
#include "velmora/platform/SystemNotifications.h"
#include "zkv/ZKVEncoding.h"
#include "zkv/ZKVRemotePreferencesSource.h"

namespace {

namespace fs = std::filesystem;
using velmora::PlistDictionary;
using velmora::PropertyList;

// The real clock and variables, with the home directory in a scratch folder.
class ScratchHomeEnvironment : public velmora::Environment {
 public:
  explicit ScratchHomeEnvironment(std::string home) : home_(std::move(home)) {}
  std::optional<std::string> getVariable(std::string_view name) const override { return system_.getVariable(name); }
  std::optional<std::string> homeDirectory() const override { return home_; }
  double absoluteTime() const override { return system_.absoluteTime(); }
  std::optional<std::string> hostApplicationIdentifier() const override { return "bench"; }
  bool isSandboxed() const override { return false; }

 private:
  velmora::SystemEnvironment system_;
  const std::string home_;
};

// The bus plays no part in what is measured.
class SilentNotificationCenter : public velmora::SystemNotificationCenter {
 public:
  velmora::SystemObserverToken addObserver(std::string, std::shared_ptr<velmora::DispatchQueue>,
                                           std::function<void()>, const void*) override {
    return 1;
  }
  void removeObserver(velmora::SystemObserverToken) override {}
  void removeObservers(const void*) override {}
  bool post(std::string_view) override { return true; }
};

// Drops lines below Default, as a deployed process does.
class QuietSink : public velmora::LogSink {
 public:
  void write(const velmora::LogHandle&, velmora::LogLevel, std::string_view) override {}
  bool accepts(velmora::LogLevel level) const override { return level >= velmora::LogLevel::Default; }
};

struct Scratch {
  Scratch() {
    std::string pattern = (fs::temp_directory_path() / "zkv-source-bench-XXXXXX").string();
    if (::mkdtemp(pattern.data()) == nullptr) std::abort();
    root = pattern;
    fs::create_directories(root / "Library" / "Quellstore");
    velmora::setEnvironment(std::make_shared<ScratchHomeEnvironment>(root.string()));
    velmora::setSystemNotificationCenter(std::make_shared<SilentNotificationCenter>());
    velmora::setLogSink(std::make_shared<QuietSink>());
    velmora::LinuxMemoryPressureOptions quiet;
    quiet.watchSystem = false;
    velmora::setMemoryPressureMonitor(std::make_shared<velmora::LinuxMemoryPressureMonitor>(std::move(quiet)));

    // Small: 100 short strings. Large: about 1 MiB of 240-byte strings.
    writeStore("Small", 100, 8);
    writeStore("Large", 4096, 240);
  }
  ~Scratch() {
    std::error_code ignored;
    fs::remove_all(root, ignored);
  }

  fs::path storePath(const std::string& name) const { return root / "Library" / "Quellstore" / (name + ".plist"); }

  void writeStore(const std::string& name, int keys, std::size_t valueLength) {
    PlistDictionary values;
    for (int i = 0; i < keys; ++i) {
      std::string value(valueLength, 'a' + static_cast<char>(i % 26));
      value.replace(0, std::min(value.size(), std::to_string(i).size()), std::to_string(i));
      values.emplace("key" + std::to_string(i),
                     ZKVCreateStorageForPropertyListAndTimestamp(PropertyList::string(value), 700'000'000 + i));
    }
    PropertyList store = velmora::makeDictionary({{"values", PropertyList::dictionary(std::move(values))},
                                                  {"changecount", PropertyList::integer(keys)},
                                                  {"versionid", PropertyList::string("bench")}});
    std::optional<velmora::Bytes> bytes = velmora::encodeBinaryPlist(store);
    if (!bytes) std::abort();
    std::ofstream(storePath(name), std::ios::binary)
        .write(reinterpret_cast<const char*>(bytes->data()), static_cast<std::streamsize>(bytes->size()));
  }

  fs::path root;
};

Scratch& scratch() {
  static Scratch* instance = new Scratch;  // lives for the whole run
  return *instance;
}

void BM_GetValueForKey(benchmark::State& state) {
  scratch();
  auto source = ZKVRemotePreferencesSource::create("Small", false);
  if (source->getValueForKey("key42").isNone()) state.SkipWithError("store not loaded");
  for (auto _ : state) {
    benchmark::DoNotOptimize(source->getValueForKey("key42"));
  }
}
BENCHMARK(BM_GetValueForKey);

void BM_GetValueForKeyLargeStore(benchmark::State& state) {
  scratch();
  auto source = ZKVRemotePreferencesSource::create("Large", false);
  if (source->getValueForKey("key4000").isNone()) state.SkipWithError("store not loaded");
  for (auto _ : state) {
    benchmark::DoNotOptimize(source->getValueForKey("key4000"));
  }
}
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
