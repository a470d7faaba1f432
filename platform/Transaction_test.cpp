#include "velmora/platform/Transaction.h"

#include <gtest/gtest.h>

#include <memory>
#include <mutex>
#include <thread>
#include <vector>

namespace velmora {
namespace {

constexpr const char* kName = "com.vantrel.zkv-remote-prefs.transaction";

class TransactionTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(KeepAliveTransaction::activeCount(), 0u);
    KeepAliveTransaction::setObserver([this](std::size_t n) {
      // The count is already updated, and reading it here must not deadlock.
      EXPECT_EQ(KeepAliveTransaction::activeCount(), n);
      std::lock_guard lock(mutex_);
      seen_.push_back(n);
    });
  }
  void TearDown() override { KeepAliveTransaction::setObserver({}); }

  std::vector<std::size_t> seen() {
    std::lock_guard lock(mutex_);
    return seen_;
  }

 private:
  std::mutex mutex_;
  std::vector<std::size_t> seen_;  // guarded by mutex_
};

TEST_F(TransactionTest, CountFollowsLifetimesAndObserverSeesEachChange) {
  auto outer = std::make_unique<KeepAliveTransaction>(kName);
  EXPECT_EQ(outer->name(), kName);
  EXPECT_EQ(KeepAliveTransaction::activeCount(), 1u);
  {
    KeepAliveTransaction inner("inner");
    EXPECT_EQ(KeepAliveTransaction::activeCount(), 2u);
  }
  outer.reset();
  EXPECT_EQ(KeepAliveTransaction::activeCount(), 0u);
  EXPECT_EQ(seen(), (std::vector<std::size_t>{1, 2, 1, 0}));
}

TEST_F(TransactionTest, ConcurrentTransactionsNotifyInOrder) {
  constexpr int kThreads = 8;
  constexpr int kRounds = 500;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([] {
      for (int i = 0; i < kRounds; ++i) {
        auto shared = std::make_shared<KeepAliveTransaction>(kName);
      }
    });
  }
  for (auto& th : threads) th.join();

  EXPECT_EQ(KeepAliveTransaction::activeCount(), 0u);
  auto counts = seen();
  ASSERT_EQ(counts.size(), std::size_t{2 * kThreads * kRounds});
  // Serialised notifications: every step moves the count by exactly one.
  std::size_t previous = 0;
  for (std::size_t c : counts) {
    EXPECT_EQ(c > previous ? c - previous : previous - c, 1u);
    previous = c;
  }
  EXPECT_EQ(previous, 0u);
}

}  // namespace
}  // namespace velmora
