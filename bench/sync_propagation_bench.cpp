// Propagation of one change between two devices of one user through the
// sync server on loopback (SQLite), from "synchronize" returning on device A
// to the change observer running on device B. Targets: p50 at most 100 ms,
// p99 at most 500 ms. main() starts the server and the two devices (each a
// bus and a real velmorad, tests/support/SyncDevices.h); device A gets raw
// "synchronize" requests, and this process is the application on device B.
// Each iteration's time is the measured latency; the percentiles are
// printed after the table.
#include <benchmark/benchmark.h>
#include <stdlib.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "BenchSupport.h"
#include "SyncDevices.h"
#include "velmora/platform/Dispatch.h"
#include "zkv/NimbrelStore.h"

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using velmora::PropertyList;
using velmora::testing::SyncDevice;

constexpr const char* kApp = "com.example.propagation";
constexpr auto kPatience = 10s;

// Set by main() before the benchmarks run.
SyncDevice* gWriter = nullptr;
std::shared_ptr<NimbrelStore> gStore;  // the application's store on device B
std::vector<double> gLatencies;        // milliseconds, every measured iteration

void BM_PropagationToObserver(benchmark::State& state) {
  std::mutex mutex;
  std::condition_variable arrived;
  std::string expected;           // guarded by mutex
  std::optional<Clock::time_point> seen;  // guarded by mutex
  const NimbrelObserverToken token = gStore->addObserver([&](const NimbrelChange& change) {
    if (std::find(change.keys.begin(), change.keys.end(), "k") == change.keys.end()) return;
    const std::optional<std::string> value = gStore->getString("k");
    const Clock::time_point now = Clock::now();
    std::lock_guard lock(mutex);
    if (value == expected && !seen) {
      seen = now;
      arrived.notify_all();
    }
  });
  std::int64_t round = 0;
  for (auto _ : state) {
    const std::string value = "value " + std::to_string(++round) + " of " + std::to_string(state.iterations());
    {
      std::lock_guard lock(mutex);
      expected = value;
      seen.reset();
    }
    if (!gWriter->write(kApp, {{"k", PropertyList::string(value)}}, velmora::testing::recordTimestampNow())) {
      state.SkipWithError("device A's daemon refused the write");
      break;
    }
    const Clock::time_point handedOver = Clock::now();
    std::unique_lock lock(mutex);
    if (!arrived.wait_for(lock, kPatience, [&] { return seen.has_value(); })) {
      state.SkipWithError("the change did not reach device B");
      break;
    }
    const double seconds = std::chrono::duration<double>(*seen - handedOver).count();
    state.SetIterationTime(seconds);
    gLatencies.push_back(seconds * 1000);
  }
  gStore->removeObserver(token);
}
BENCHMARK(BM_PropagationToObserver)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(300);

double percentile(std::vector<double> values, double fraction) {
  if (values.empty()) return 0;
  std::sort(values.begin(), values.end());
  const std::size_t index =
      std::min(values.size() - 1, static_cast<std::size_t>(fraction * static_cast<double>(values.size())));
  return values[index];
}

}  // namespace

int main(int argc, char** argv) {
  // The daemons and the server inherit this: only their errors on stderr.
  ::setenv("ZKV_LOG_LEVEL", "error", 1);
  velmora::testing::ScratchDirectory scratch("velmora-propagation");
  velmora::testing::SyncServer server({"--sqlite", scratch.file("sync.db")});
  if (!server.start()) {
    std::fprintf(stderr, "%s: velmora-server did not start\n", argv[0]);
    return 1;
  }
  const std::string token = server.addAccount("bench");
  SyncDevice writer("a");
  SyncDevice reader("b");
  if (token.empty() || !writer.ok() || !reader.ok() || writer.login(server, token).find("userinfo") == nullptr ||
      reader.login(server, token).find("userinfo") == nullptr) {
    std::fprintf(stderr, "%s: the devices did not come up or log in\n", argv[0]);
    return 1;
  }
  int status = 0;
  {
    velmora::testing::LibraryOn library(reader);
    velmora::testing::ScopedServices quiet;
    quiet.install(velmora::setLogSink, std::make_shared<velmora::bench::QuietSink>());
    gWriter = &writer;
    gStore = NimbrelStore::storeForApplication(kApp);
    (void)gStore->getString("k");  // loaded: later changes are changes
    // The store's first arrival on B is its initial sync; measure the steady state after it.
    writer.write(kApp, {{"k", PropertyList::string("warm-up")}}, velmora::testing::recordTimestampNow());
    if (!velmora::testing::waitUntil([] { return gStore->getString("k") == "warm-up"; }, kPatience)) {
      std::fprintf(stderr, "%s: the first change did not reach device B\n", argv[0]);
      status = 1;
    } else {
      velmora::bench::runBenchmarks(argc, argv, false, [](const velmora::bench::Figures&, const char*) {
        std::printf("\nPropagation A -> server -> B observer over %zu changes: p50 %.1f ms (target <= 100), "
                    "p99 %.1f ms (target <= 500), min %.1f ms, max %.1f ms\n",
                    gLatencies.size(), percentile(gLatencies, 0.50), percentile(gLatencies, 0.99),
                    percentile(gLatencies, 0.0), percentile(gLatencies, 1.0));
      });
    }
    gStore.reset();
  }
  velmora::DbusIpcService::shutdownIoThread();
  return status;
}
