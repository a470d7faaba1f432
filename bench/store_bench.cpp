// NimbrelStore: synchronize() with nothing written since the last hand-over
// (target: under 200 ns, no request to the daemon), and the store's read and
// write paths, whose cost over the source's is the typed wrapper and the
// limit checks.
#include <benchmark/benchmark.h>

#include <atomic>
#include <cstdlib>
#include <memory>
#include <string>

#include "BenchSupport.h"
#include "velmora/platform/Dispatch.h"
#include "velmora/platform/Ipc.h"
#include "zkv/NimbrelStore.h"

namespace {

using velmora::PropertyList;

// Requests that reached the daemon stand-in, counted on the sending thread.
std::atomic<long> gRequests{0};

// A daemon stand-in in the process: counts every request and answers at
// once, so that the setup's one hand-over succeeds without a bus.
class CountingConnection : public velmora::IpcConnection {
 public:
  const std::string& serviceName() const noexcept override { return name_; }
  void setEventHandler(velmora::IpcEventHandler) override {}
  void resume() override {}
  void send(const velmora::IpcObject&) override { gRequests.fetch_add(1); }
  void sendWithReply(const velmora::IpcObject& request, std::shared_ptr<velmora::DispatchQueue> replyQueue,
                     velmora::IpcReplyHandler handler) override {
    velmora::IpcReply reply = sendAndWait(request);
    velmora::DispatchQueue& queue = replyQueue ? *replyQueue : velmora::DispatchQueue::main();
    queue.async([handler = std::move(handler), reply = std::move(reply)]() mutable { handler(std::move(reply)); });
  }
  velmora::IpcReply sendAndWait(const velmora::IpcObject&) override {
    gRequests.fetch_add(1);
    return velmora::IpcReply::success(
        velmora::makeDictionary({{"userinfo", velmora::makeDictionary({{"changecount", PropertyList::integer(1)}})}}));
  }
  void cancel() override {}
  void setCallTimeout(std::chrono::milliseconds) override {}

 private:
  const std::string name_ = "bench";
};

class CountingIpc : public velmora::IpcService {
 public:
  std::shared_ptr<velmora::IpcConnection> connect(std::string, std::shared_ptr<velmora::DispatchQueue>) override {
    return std::make_shared<CountingConnection>();
  }
};

// The process set-up and one store, written to and handed over once.
struct Scratch {
  Scratch() : bench("nimbrel-store-bench", "bench.store", std::make_shared<CountingIpc>()) {
    store = NimbrelStore::defaultStore();
    for (int i = 0; i < 100; ++i) {
      if (!store->setString("key" + std::to_string(i), "small value " + std::to_string(i)).ok()) std::abort();
    }
    // The hand-over also sends the pending registration, so none is left to
    // go out during a measurement.
    if (!store->synchronize()) std::abort();
  }

  velmora::bench::BenchScratch bench;
  std::shared_ptr<NimbrelStore> store;
};

Scratch& scratch() {
  static Scratch* instance = new Scratch;  // lives for the whole run
  return *instance;
}

void BM_SynchronizeNothingDirty(benchmark::State& state) {
  NimbrelStore& store = *scratch().store;
  const long before = gRequests.load();
  for (auto _ : state) {
    benchmark::DoNotOptimize(store.synchronize());
  }
  const long requests = gRequests.load() - before;
  state.counters["requests"] = static_cast<double>(requests);
  if (requests != 0) state.SkipWithError("synchronize with nothing dirty reached the daemon");
}
BENCHMARK(BM_SynchronizeNothingDirty);

void BM_GetString(benchmark::State& state) {
  NimbrelStore& store = *scratch().store;
  for (auto _ : state) {
    benchmark::DoNotOptimize(store.getString("key42"));
  }
}
BENCHMARK(BM_GetString);

// Every iteration is an effective write of an existing key: the value
// alternates. Includes the serialised-size measurement and the limit checks.
void BM_SetString(benchmark::State& state) {
  NimbrelStore& store = *scratch().store;
  const std::string values[2] = {"small value one", "small value two"};
  std::size_t i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(store.setString("key42", values[i++ & 1]).ok());
  }
}
BENCHMARK(BM_SetString);

}  // namespace

BENCHMARK_MAIN();
