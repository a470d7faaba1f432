// Synchronous round trip through ZKVClient::sendMessageWithNameUserInfo,
// beside the transport's own sendAndWait and a bare sd_bus_call carrying the
// same envelope to the same responder, in one run. main() starts a private
// bus daemon and the scripted responder (built with the tests) under the
// daemon's service name, so the figures do not depend on the session's bus.
// The client's own share is the first figure minus the second.
#include <benchmark/benchmark.h>
#include <systemd/sd-bus.h>

#include <cstdio>
#include <optional>
#include <string>

#include "BenchSupport.h"
#include "velmora/platform/Ipc.h"
#include "zkv/ZKVClient.h"

namespace {

const std::string kServiceName(ZKVClient::kServiceName);

// The envelope the client builds for "ping" with no payload.
velmora::PropertyList pingEnvelope() {
  return velmora::makeDictionary({{"message", velmora::PropertyList::string("ping")},
                                  {"userinfo", velmora::makeDictionary({})},
                                  {"bundleIdentifier", velmora::PropertyList::string("com.example.bench")}});
}

void BM_ClientSendMessageWithNameUserInfo(benchmark::State& state) {
  auto client = ZKVClient::create(nullptr, "com.example.bench", std::nullopt);
  if (client->sendMessageWithNameUserInfo("ping", {}).isNone()) {  // connects
    state.SkipWithError("the responder does not answer with \"userinfo\"");
    client->shutdown();
    return;
  }
  for (auto _ : state) {
    velmora::PropertyList reply = client->sendMessageWithNameUserInfo("ping", {});
    benchmark::DoNotOptimize(reply);
  }
  client->shutdown();
}
BENCHMARK(BM_ClientSendMessageWithNameUserInfo)->UseRealTime();

void BM_TransportSendAndWait(benchmark::State& state) {
  velmora::bench::timeTransportCalls(state, kServiceName, pingEnvelope());
}
BENCHMARK(BM_TransportSendAndWait)->UseRealTime();

void BM_BareSdBusCall(benchmark::State& state) {
  velmora::bench::timeBareCalls(state, kServiceName.c_str(), [](sd_bus_message* m) {
    sd_bus_message_append(m, "a{sv}", 3, "bundleIdentifier", "s", "com.example.bench", "message", "s", "ping",
                          "userinfo", "a{sv}", 0);
  });
}
BENCHMARK(BM_BareSdBusCall)->UseRealTime();

}  // namespace

int main(int argc, char** argv) {
  // "userinfo" answers {"userinfo": {}}: the same small reply for all three.
  return velmora::bench::runWithResponder("client_bench", kServiceName, {"--default", "userinfo"}, [&] {
    // The three figures side by side.
    velmora::bench::runBenchmarks(argc, argv, false, [](const velmora::bench::Figures& nanos, const char* kind) {
      auto client = nanos.find("BM_ClientSendMessageWithNameUserInfo");
      auto transport = nanos.find("BM_TransportSendAndWait");
      auto bare = nanos.find("BM_BareSdBusCall");
      if (client != nanos.end() && transport != nanos.end() && bare != nanos.end() && bare->second > 0) {
        std::printf("round trip%s: client %.1f us, transport %.1f us, bare sd_bus_call %.1f us; client/bare %.2f\n",
                    kind, client->second / 1000.0, transport->second / 1000.0, bare->second / 1000.0,
                    client->second / bare->second);
      }
    });
  });
}
