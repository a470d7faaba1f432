// The store workers: serial order, a bound on threads, and work that still
// runs when no thread can be started.
#include "StoreWorkers.h"

#include <gtest/gtest.h>

#include <atomic>
#include <system_error>
#include <thread>
#include <vector>

#include "PrivateBus.h"

namespace {

using namespace std::chrono_literals;
using velmorad::StoreWorkers;

TEST(StoreWorkers, BoundedThreadsServeEveryQueueInOrderEvenWhenNoneCanStart) {
  StoreWorkers failing(4, 50ms, [](std::function<void()>) { throw std::system_error(EAGAIN, std::generic_category()); });
  std::vector<int> order;
  auto first = failing.makeQueue();
  for (int i = 0; i < 5; ++i) first->async([&order, i] { order.push_back(i); });
  failing.makeQueue()->sync([&] { order.push_back(99); });
  EXPECT_EQ(order, (std::vector<int>{0, 1, 2, 3, 4, 99}));
  EXPECT_EQ(failing.threadCount(), 0u);

  StoreWorkers pool(2, 50ms);
  std::vector<std::shared_ptr<StoreWorkers::SerialQueue>> queues;
  std::vector<std::vector<int>> seen(20);
  std::atomic<std::size_t> mostThreads{0};
  for (std::size_t q = 0; q < seen.size(); ++q) {
    queues.push_back(pool.makeQueue());
    for (int i = 0; i < 3; ++i) {
      queues.back()->async([&, q, i] {
        mostThreads = std::max(mostThreads.load(), pool.threadCount());
        std::this_thread::sleep_for(1ms);
        seen[q].push_back(i);
      });
    }
  }
  for (auto& queue : queues) queue->sync([] {});
  for (const auto& items : seen) EXPECT_EQ(items, (std::vector<int>{0, 1, 2}));
  EXPECT_LE(mostThreads.load(), 2u);
  EXPECT_TRUE(velmora::testing::waitUntil([&] { return pool.threadCount() == 0; }, 5s));  // idle threads leave
}

}  // namespace
