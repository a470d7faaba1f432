#include "velmora/platform/Transaction.h"

#include <gtest/gtest.h>

#include <memory>
#include <mutex>
#include <thread>
#include <vector>

namespace velmora {
namespace {

// Transactions opened and closed on eight threads at once: the observer sees
// every count, in order (each step moves it by exactly one), and may read
// the count itself without deadlocking.
TEST(TransactionTest, ObserverSeesEveryCountInOrder) {
  ASSERT_EQ(KeepAliveTransaction::activeCount(), 0u);
  std::mutex mutex;
  std::vector<std::size_t> seen;  // guarded by mutex
  KeepAliveTransaction::setObserver([&](std::size_t n) {
    EXPECT_EQ(KeepAliveTransaction::activeCount(), n);
    std::lock_guard lock(mutex);
    seen.push_back(n);
  });
  std::vector<std::thread> threads;
  for (int t = 0; t < 8; ++t) {
    threads.emplace_back([] {
      for (int i = 0; i < 500; ++i) KeepAliveTransaction outer("com.vantrel.zkv-remote-prefs.transaction");
    });
  }
  for (auto& th : threads) th.join();
  KeepAliveTransaction::setObserver({});
  EXPECT_EQ(KeepAliveTransaction::activeCount(), 0u);
  ASSERT_EQ(seen.size(), 2u * 8 * 500);
  std::size_t previous = 0;
  for (std::size_t c : seen) {
    EXPECT_EQ(c > previous ? c - previous : previous - c, 1u);
    previous = c;
  }
  EXPECT_EQ(previous, 0u);
}

}  // namespace
}  // namespace velmora
