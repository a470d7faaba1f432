// Dispatch latency: the sync() fast path on an idle queue (target < 100 ns)
// and a round trip through the worker pool (target < 20 us).
#include <benchmark/benchmark.h>

#include <atomic>
#include <cstdint>

#include "velmora/platform/Dispatch.h"

namespace {

using velmora::DispatchQueue;

void BM_SyncIdleQueue(benchmark::State& state) {
  const auto queue = DispatchQueue::createSerial("bench.sync");
  for (auto _ : state) {
    queue->sync([] {});
  }
}
BENCHMARK(BM_SyncIdleQueue);

// The bench thread hands an item to the queue and sleeps until the item,
// running on a pool worker, wakes it: the cost a caller pays to hop onto a
// queue and hear back.
void BM_AsyncHopAndBack(benchmark::State& state) {
  const auto queue = DispatchQueue::createSerial("bench.hop");
  std::atomic<std::uint32_t> replies{0};
  std::uint32_t expected = 0;
  for (auto _ : state) {
    ++expected;
    queue->async([&replies] {
      replies.fetch_add(1, std::memory_order_release);
      replies.notify_one();
    });
    for (std::uint32_t seen = replies.load(std::memory_order_acquire); seen != expected;
         seen = replies.load(std::memory_order_acquire)) {
      replies.wait(seen, std::memory_order_acquire);
    }
  }
}
BENCHMARK(BM_AsyncHopAndBack)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
