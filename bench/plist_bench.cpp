// Binary property-list codec on a store-sized document: 1000 records of
// {"timestamp": integer, "value": {a few strings and integers, 600 bytes of
// data}}, about 1 MiB encoded. Targets: decode in at most half of libplist's
// time on the same bytes, encode in at most libplist's time.
//
// Decoding includes freeing the value (plist_free for libplist), so both
// sides run on memory the allocator just got back.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "velmora/platform/PlistCodec.h"

#ifdef VELMORA_HAVE_LIBPLIST
#include <plist/plist.h>
#endif

namespace {

using velmora::Bytes;
using velmora::PlistDictionary;
using velmora::PropertyList;

constexpr int kRecords = 1000;
constexpr std::size_t kPayloadBytes = 600;

// Deterministic filler text: `length` characters drawn from `seed`.
std::string text(std::uint32_t seed, std::size_t length) {
  static constexpr char kAlphabet[] = "abcdefghijklmnopqrstuvwxyz0123456789-._/";
  std::string s(length, ' ');
  for (char& c : s) {
    seed = seed * 1664525u + 1013904223u;
    c = kAlphabet[(seed >> 24) % (sizeof kAlphabet - 1)];
  }
  return s;
}

PropertyList makeStore() {
  PlistDictionary store;
  for (int i = 0; i < kRecords; ++i) {
    Bytes payload(kPayloadBytes);
    for (std::size_t j = 0; j < payload.size(); ++j) payload[j] = static_cast<std::uint8_t>(i * 31 + j * 7);
    char key[40];
    std::snprintf(key, sizeof key, "com.example.settings.%04d", i);
    PlistDictionary value = {
        {"name", PropertyList::string(text(i, 48))},
        {"owner", PropertyList::string(text(i + 7919, 64))},
        {"path", PropertyList::string("/var/lib/velmora/" + text(i + 104729, 180))},
        {"count", PropertyList::integer(i * 37)},
        {"generation", PropertyList::integer(100000 + i)},
        {"payload", PropertyList::data(std::move(payload))},
    };
    store.emplace(key, velmora::makeDictionary({{"timestamp", PropertyList::integer(1700000000000 + i * 1000)},
                                                {"value", PropertyList::dictionary(std::move(value))}}));
  }
  return PropertyList::dictionary(std::move(store));
}

const PropertyList& store() {
  static const PropertyList s = makeStore();
  return s;
}

const Bytes& storeBytes() {
  static const Bytes b = velmora::encodeBinaryPlist(store()).value();
  return b;
}

void BM_DecodeStore_Velmora(benchmark::State& state) {
  const Bytes& bytes = storeBytes();
  for (auto _ : state) {
    PropertyList v = velmora::decodeBinaryPlist(bytes);
    if (v.count() != kRecords) state.SkipWithError("decode failed");
    benchmark::DoNotOptimize(v);
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * bytes.size()));
  state.counters["bytes"] = static_cast<double>(bytes.size());
}
BENCHMARK(BM_DecodeStore_Velmora)->Unit(benchmark::kMicrosecond);

void BM_EncodeStore_Velmora(benchmark::State& state) {
  const PropertyList& value = store();
  for (auto _ : state) {
    auto bytes = velmora::encodeBinaryPlist(value);
    if (!bytes) state.SkipWithError("encode failed");
    benchmark::DoNotOptimize(bytes);
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * storeBytes().size()));
}
BENCHMARK(BM_EncodeStore_Velmora)->Unit(benchmark::kMicrosecond);

#ifdef VELMORA_HAVE_LIBPLIST

plist_t toLibplist(const PropertyList& v) {
  switch (v.type()) {
    case velmora::PlistType::Integer: return plist_new_uint(v.unsignedValue());
    case velmora::PlistType::String: return plist_new_string(v.getString()->c_str());
    case velmora::PlistType::Data:
      return plist_new_data(reinterpret_cast<const char*>(v.getData()->data()), v.getData()->size());
    case velmora::PlistType::Dictionary: {
      plist_t d = plist_new_dict();
      for (const auto& [key, item] : *v.getDictionary()) plist_dict_set_item(d, key.c_str(), toLibplist(item));
      return d;
    }
    default: std::abort();  // the store holds nothing else
  }
}

void BM_DecodeStore_Libplist(benchmark::State& state) {
  const Bytes& bytes = storeBytes();
  for (auto _ : state) {
    plist_t root = nullptr;
    plist_from_bin(reinterpret_cast<const char*>(bytes.data()), static_cast<std::uint32_t>(bytes.size()), &root);
    if (root == nullptr) state.SkipWithError("decode failed");
    benchmark::DoNotOptimize(root);
    plist_free(root);
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * bytes.size()));
}
BENCHMARK(BM_DecodeStore_Libplist)->Unit(benchmark::kMicrosecond);

void BM_EncodeStore_Libplist(benchmark::State& state) {
  plist_t root = toLibplist(store());
  for (auto _ : state) {
    char* bin = nullptr;
    std::uint32_t length = 0;
    plist_to_bin(root, &bin, &length);
    if (bin == nullptr) state.SkipWithError("encode failed");
    benchmark::DoNotOptimize(bin);
    plist_to_bin_free(bin);
  }
  plist_free(root);
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * storeBytes().size()));
}
BENCHMARK(BM_EncodeStore_Libplist)->Unit(benchmark::kMicrosecond);

#endif

}  // namespace

BENCHMARK_MAIN();
