// Dispatch: ordering and mutual exclusion, sync on the caller's thread,
// delayed work, the application-driven main queue, the pool's bounds, and
// the aborts on misuse. Waits have deadlines so that lost
// work fails a test instead of hanging it.
#include "velmora/platform/Dispatch.h"
#include "velmora/platform/Transaction.h"

#include <gtest/gtest.h>
#include <poll.h>

#include <atomic>
#include <future>
#include <numeric>
#include <stdexcept>
#include <thread>
#include <vector>

#include "PrivateBus.h"  // waitUntil

namespace velmora {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using testing::waitUntil;

// Four threads each send 500 items, every third one with sync: each thread's
// items run in the order sent, one at a time, and sync ones on the sender.
TEST(DispatchQueueTest, ItemsRunOneAtATimeInOrderAndSyncRunsOnTheCaller) {
  const auto queue = DispatchQueue::createSerial("order");
  constexpr int kItems = 500;
  std::vector<std::vector<int>> seen(4);  // by sending thread; touched only as work of queue
  std::atomic<int> running{0};
  std::atomic<bool> overlapped{false}, syncElsewhere{false};
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < kItems; ++i) {
        const bool sync = i % 3 == 0;
        auto item = [&, t, i, sync, caller = std::this_thread::get_id()] {
          overlapped = overlapped || running.fetch_add(1) != 0;
          syncElsewhere = syncElsewhere || (sync && std::this_thread::get_id() != caller);
          seen[t].push_back(i);
          running.fetch_sub(1);
        };
        if (sync) queue->sync(item);
        else queue->async(item);
      }
    });
  }
  for (auto& thread : threads) thread.join();
  std::vector<int> all(kItems);
  std::iota(all.begin(), all.end(), 0);
  queue->sync([&] {
    for (const auto& one : seen) EXPECT_EQ(one, all);
  });
  EXPECT_FALSE(overlapped);
  EXPECT_FALSE(syncElsewhere);

  // A backlog longer than one batch: the worker hands the queue back between batches.
  std::promise<void> gate;
  queue->async([opened = gate.get_future().share()] { opened.wait(); });
  for (int i = 0; i < 40; ++i) queue->async([&running] { running.fetch_add(1); });
  gate.set_value();
  queue->sync([&] { EXPECT_EQ(running.load(), 40); });
}

TEST(DispatchQueueTest, SyncPassesExceptionsOnAndReleasesTheQueue) {
  const auto queue = DispatchQueue::createSerial("throws");
  EXPECT_THROW(queue->sync([] { throw std::runtime_error("refused"); }), std::runtime_error);
  EXPECT_FALSE(queue->isCurrent());
  std::atomic<bool> ran{false};
  queue->async([&] { ran = true; });
  EXPECT_TRUE(waitUntil([&] { return ran.load(); }, 10s));
}

// Timers fire no sooner than asked, in deadline order, and with work already
// queued even when nobody holds the queue any more.
TEST(DispatchQueueTest, DelayedWorkRunsInDeadlineOrderAfterTheQueueIsDropped) {
  const auto start = Clock::now();
  std::mutex mutex;
  std::string order;  // guarded by mutex; '!' for an item that ran early
  auto record = [&](char tag, std::chrono::milliseconds delay) {
    return [&, tag, delay] {
      std::lock_guard lock(mutex);
      order += Clock::now() - start >= delay ? tag : '!';
    };
  };
  {
    const auto queue = DispatchQueue::createSerial("timer");
    queue->async([] { std::this_thread::sleep_for(20ms); });
    queue->async(record('s', 0ms));
    queue->after(60ms, record('a', 60ms));
    queue->after(20ms, record('b', 20ms));
    queue->after(60ms, record('c', 60ms));
    queue->after(0ns, record('d', 0ms));
  }
  ASSERT_TRUE(waitUntil([&] { std::lock_guard lock(mutex); return order.size() == 5; }, 10s));
  std::lock_guard lock(mutex);
  EXPECT_EQ(order, "sdbac");
}

// Sixty queues share a pool that never passes its bound, whose idle workers
// leave; and workers blocked in sync() let the pool grow, or a queue that
// waits for a worker while every worker waits for it would never drain.
TEST(DispatchQueueTest, ThePoolIsBoundedGivesIdleWorkersBackAndSurvivesBlockedWorkers) {
  DispatchQueue::setWorkerIdleTimeoutForTesting(50ms);
  const std::size_t bound = DispatchQueue::maxWorkerThreadCount();
  std::vector<std::shared_ptr<DispatchQueue>> queues;
  std::atomic<std::size_t> peak{0};
  std::atomic<int> done{0};
  for (int q = 0; q < 60; ++q) {
    queues.push_back(DispatchQueue::createSerial("store-" + std::to_string(q)));
    for (int i = 0; i < 5; ++i) {
      queues.back()->async([&] {
        std::this_thread::sleep_for(1ms);
        for (std::size_t now = DispatchQueue::workerThreadCount(), seen = peak; now > seen;)
          if (peak.compare_exchange_weak(seen, now)) break;
        ++done;
      });
    }
  }
  ASSERT_TRUE(waitUntil([&] { return done == 300; }, 10s));
  EXPECT_GE(peak.load(), 1u);
  EXPECT_LE(peak.load(), bound);
  EXPECT_TRUE(waitUntil([] { return DispatchQueue::workerThreadCount() == 0; }, 10s));
  DispatchQueue::setWorkerIdleTimeoutForTesting(5000ms);

  const auto target = DispatchQueue::createSerial("target");
  std::atomic<std::size_t> started{0};
  std::atomic<bool> go{false};
  done = 0;
  queues.clear();
  for (std::size_t i = 0; i < bound; ++i) {
    queues.push_back(DispatchQueue::createSerial("caller"));
    queues.back()->async([&] {
      ++started;
      while (!go) std::this_thread::sleep_for(1ms);
      target->sync([] {});
      ++done;
    });
  }
  ASSERT_TRUE(waitUntil([&] { return started == bound; }, 10s));
  target->async([] {});
  go = true;
  EXPECT_TRUE(waitUntil([&] { return done == static_cast<int>(bound); }, 10s));
}

// The death tests re-run this binary for each case ("threadsafe"), so the
// child starts without pool threads and with the main queue still unused.
class DispatchDeathTest : public ::testing::Test {
 protected:
  void SetUp() override { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
};

TEST_F(DispatchDeathTest, MisuseAborts) {
  const auto a = DispatchQueue::createSerial("deadlock-a");
  const auto b = DispatchQueue::createSerial("deadlock-b");
  EXPECT_DEATH(a->sync([&] { a->sync([] {}); }), "sync\\(\\) onto dispatch queue 'deadlock-a'");
  EXPECT_DEATH(a->sync([&] { b->sync([&] { a->sync([] {}); }); }), "sync\\(\\) onto dispatch queue 'deadlock-a'");
  EXPECT_DEATH(
      {
        b->async([&] { b->sync([] {}); });
        std::this_thread::sleep_for(10s);
      },
      "sync\\(\\) onto dispatch queue 'deadlock-b'");
  EXPECT_DEATH(a->assertCurrent(), "dispatch queue 'deadlock-a'");
  EXPECT_DEATH(
      {
        a->async([] { throw std::runtime_error("boom"); });
        std::this_thread::sleep_for(10s);
      },
      "dispatch queue 'deadlock-a': boom");
}

// Runs in a fresh child process: returns 0, or the number of the first
// check that failed.
int driveTheMainQueueFromThisThread() {
  DispatchQueue::setMainQueueDrivenByApplication(true);
  const int fd = DispatchQueue::mainQueueFileDescriptor();
  auto readable = [fd] {
    pollfd p{fd, POLLIN, 0};
    return ::poll(&p, 1, 0) == 1;
  };
  if (fd < 0 || readable()) return 1;
  DispatchQueue& main = DispatchQueue::main();
  const auto self = std::this_thread::get_id();
  std::vector<int> order;
  bool onThisThread = true;
  for (int i = 0; i < 3; ++i) {
    main.async([&, i] {
      order.push_back(i);
      onThisThread = onThisThread && std::this_thread::get_id() == self && main.isCurrent();
    });
  }
  std::this_thread::sleep_for(50ms);
  if (!order.empty() || !readable()) return 2;  // something other than this thread ran main-queue work
  if (DispatchQueue::drainMainQueue() != 3 || order != std::vector<int>{0, 1, 2} || !onThisThread) return 3;
  if (readable() || DispatchQueue::drainMainQueue() != 0) return 4;
  // Work queued by running work waits for the next drain and keeps the fd readable.
  main.async([&] { main.async([&] { order.push_back(9); }); });
  if (DispatchQueue::drainMainQueue() != 1 || !readable() || DispatchQueue::drainMainQueue() != 1) return 5;
  // A sync from another thread waits for the application's drain to reach it.
  std::atomic<bool> syncRan{false};
  main.async([] {});
  std::thread other([&] { main.sync([&] { syncRan = true; }); });
  std::this_thread::sleep_for(50ms);
  if (syncRan) return 6;
  const std::size_t ran = DispatchQueue::drainMainQueue();
  other.join();
  return ran == 1 && syncRan && order.back() == 9 ? 0 : 7;
}

TEST_F(DispatchDeathTest, ApplicationDrivenMainQueueRunsOnlyInDrain) {
  EXPECT_EXIT(std::exit(driveTheMainQueueFromThisThread()), ::testing::ExitedWithCode(0), "");
}

// A keep-alive transaction counts while it lives; the observer sees each
// change with the count already updated.
TEST(KeepAliveTransactionTest, CountFollowsLifetimes) {
  const std::size_t base = KeepAliveTransaction::activeCount();
  std::vector<std::size_t> seen;
  KeepAliveTransaction::setObserver([&](std::size_t n) {
    EXPECT_EQ(KeepAliveTransaction::activeCount(), n);
    seen.push_back(n - base);
  });
  {
    KeepAliveTransaction outer("outer");
    const KeepAliveTransaction inner("inner");
    EXPECT_EQ(inner.name(), "inner");
  }
  KeepAliveTransaction::setObserver({});
  EXPECT_EQ(seen, (std::vector<std::size_t>{1, 2, 1, 0}));
}

}  // namespace
}  // namespace velmora
