// Synchronous request round trip through the IPC transport, against a bare
// sd_bus_call from the benchmark thread to the same responder, in one run.
// main() starts a private bus daemon and the scripted responder (built with
// the tests) so the figures do not depend on the session's own bus. Target:
// the transport's round trip at most 1.5 times the bare one.
#include <benchmark/benchmark.h>
#include <systemd/sd-bus.h>

#include <cstdio>
#include <string>

#include "BenchSupport.h"
#include "velmora/platform/PropertyList.h"

namespace {

constexpr const char* kServiceName = "com.vantrel.bench.Responder";

void BM_IpcSendAndWait(benchmark::State& state) {
  velmora::bench::timeTransportCalls(state, kServiceName,
                                     velmora::makeDictionary({{"message", velmora::PropertyList::string("echo")}}));
}
BENCHMARK(BM_IpcSendAndWait)->UseRealTime();

void BM_BareSdBusCall(benchmark::State& state) {
  velmora::bench::timeBareCalls(state, kServiceName, [](sd_bus_message* m) {
    sd_bus_message_append(m, "a{sv}", 1, "message", "s", "echo");
  });
}
BENCHMARK(BM_BareSdBusCall)->UseRealTime();

}  // namespace

int main(int argc, char** argv) {
  return velmora::bench::runWithResponder("ipc_bench", kServiceName, {"--default", "echo"}, [&] {
    // The ratio the target is about: of the medians when there are
    // repetitions, else of the single runs.
    velmora::bench::runBenchmarks(argc, argv, true, [](const velmora::bench::Figures& nanos, const char* kind) {
      auto ours = nanos.find("BM_IpcSendAndWait");
      auto bare = nanos.find("BM_BareSdBusCall");
      if (ours != nanos.end() && bare != nanos.end() && bare->second > 0) {
        std::printf("round trip%s: transport %.1f us, bare sd_bus_call %.1f us, ratio %.2f (target <= 1.50)\n", kind,
                    ours->second / 1000.0, bare->second / 1000.0, ours->second / bare->second);
      }
    });
  });
}
