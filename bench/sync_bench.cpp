// Synchronisation of a preferences source with its daemon. Targets:
// synchronize() with nothing written makes no request and takes under
// 200 ns; handing one dirty key over takes at most 1.5 times one synchronous
// request round trip of the daemon client carrying the same payload,
// measured in the same run. main() starts a private bus daemon and the
// scripted responder (built with the tests), which answers every request
// with its own "userinfo", so a hand-over's reply carries a change count.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstdio>
#include <memory>
#include <optional>
#include <string>

#include "BenchSupport.h"
#include "RedirectingIpc.h"
#include "zkv/ZKVClient.h"
#include "zkv/ZKVEncoding.h"
#include "zkv/ZKVRemotePreferencesSource.h"

namespace {

using velmora::PropertyList;

// The real transport, counting the connections made: a source that never
// connects has made no request. Set by main() before the benchmarks run.
std::shared_ptr<velmora::testing::RedirectingIpcService> gIpc;

void BM_SynchronizeNothingDirty(benchmark::State& state) {
  auto source = ZKVRemotePreferencesSource::create("bench.clean", std::nullopt, true);
  (void)source->synchronize();  // loads the (absent) store file
  const std::size_t before = gIpc->connectionCount();
  for (auto _ : state) {
    benchmark::DoNotOptimize(source->synchronize());
  }
  const std::size_t made = gIpc->connectionCount() - before;
  state.counters["connections"] = static_cast<double>(made);
  if (made != 0) state.SkipWithError("synchronize with nothing written reached the daemon");
}
BENCHMARK(BM_SynchronizeNothingDirty);

void BM_HandOverOneDirtyKey(benchmark::State& state) {
  auto source = ZKVRemotePreferencesSource::create("bench.dirty", std::nullopt, true);
  (void)source->synchronize();
  std::int64_t value = 0;
  for (auto _ : state) {
    source->setValueForKey(PropertyList::integer(++value), "key");
    if (!source->synchronize()) {
      state.SkipWithError("the responder does not answer");
      break;
    }
  }
}
BENCHMARK(BM_HandOverOneDirtyKey)->UseRealTime();

// The reference: one synchronous request with what a one-key hand-over
// carries, through the same client code and transport.
void BM_ClientRoundTrip(benchmark::State& state) {
  auto client = ZKVClient::create(nullptr, std::string("bench.client"), std::nullopt);
  const PropertyList payload = velmora::makeDictionary(
      {{"changes", velmora::makeDictionary({{"key", velmora::testing::record(PropertyList::integer(1))}})},
       {"changecount", PropertyList::integer(0)}});
  for (auto _ : state) {
    if (client->sendMessageWithNameUserInfo(kZKVMessageSynchronize, payload).isNone()) {
      state.SkipWithError("the responder does not answer");
      break;
    }
  }
  client->shutdown();
}
BENCHMARK(BM_ClientRoundTrip)->UseRealTime();

}  // namespace

int main(int argc, char** argv) {
  const std::string daemonName(ZKVClient::kServiceName);
  return velmora::bench::runWithResponder("sync_bench", daemonName, {"--default", "userinfo"}, [&] {
    gIpc = std::make_shared<velmora::testing::RedirectingIpcService>("");
    velmora::bench::BenchScratch scratch("velmora-sync-bench", "bench", gIpc);
    // The figures the targets are about: medians when there are
    // repetitions, else the single runs.
    velmora::bench::runBenchmarks(argc, argv, true, [](const velmora::bench::Figures& nanos, const char* kind) {
      if (auto clean = nanos.find("BM_SynchronizeNothingDirty"); clean != nanos.end()) {
        std::printf("synchronize, nothing written%s: %.1f ns, no request (target < 200 ns)\n", kind, clean->second);
      }
      auto handOver = nanos.find("BM_HandOverOneDirtyKey");
      auto roundTrip = nanos.find("BM_ClientRoundTrip");
      if (handOver != nanos.end() && roundTrip != nanos.end() && roundTrip->second > 0) {
        std::printf("one dirty key%s: hand-over %.1f us, round trip %.1f us, ratio %.2f (target <= 1.50)\n", kind,
                    handOver->second / 1000.0, roundTrip->second / 1000.0, handOver->second / roundTrip->second);
      }
    });
  });
}
