// Dispatch: ordering, sync on the caller's thread, current-queue tracking,
// delayed work, the main queue in both modes, and the pool's bounds.
// Waits have deadlines so that lost work fails a test instead of hanging it.
#include "velmora/platform/Dispatch.h"

#include <gtest/gtest.h>
#include <poll.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstdlib>
#include <stdexcept>
#include <thread>
#include <vector>

namespace velmora {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

// Counts events from any thread; the test waits for a number of them.
class EventCount {
 public:
  void add() {
    std::lock_guard lock(mutex_);
    ++count_;
    changed_.notify_all();
  }
  bool waitFor(std::size_t count, std::chrono::milliseconds timeout = 10s) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, timeout, [&] { return count_ >= count; });
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;  // used with mutex_
  std::size_t count_ = 0;            // guarded by mutex_
};

template <class Predicate>
bool eventually(Predicate predicate, std::chrono::milliseconds timeout = 10s) {
  const auto deadline = Clock::now() + timeout;
  while (!predicate()) {
    if (Clock::now() > deadline) return false;
    std::this_thread::sleep_for(1ms);
  }
  return true;
}

TEST(DispatchQueueTest, AsyncItemsRunInOrderOneAtATime) {
  const auto queue = DispatchQueue::createSerial("order");
  constexpr int kItems = 2000;
  std::vector<int> seen;
  std::atomic<int> running{0};
  std::atomic<bool> overlapped{false};
  EventCount done;
  for (int i = 0; i < kItems; ++i) {
    queue->async([&, i] {
      overlapped = overlapped || running.fetch_add(1) != 0;
      seen.push_back(i);
      running.fetch_sub(1);
      done.add();
    });
  }
  ASSERT_TRUE(done.waitFor(kItems));
  EXPECT_FALSE(overlapped);
  ASSERT_EQ(seen.size(), static_cast<std::size_t>(kItems));
  EXPECT_TRUE(std::is_sorted(seen.begin(), seen.end()));
}

TEST(DispatchQueueTest, SyncRunsOnTheCallerAfterEarlierAndBeforeLaterItems) {
  const auto queue = DispatchQueue::createSerial("sync-order");
  std::atomic<bool> earlierDone{false};
  std::atomic<bool> syncDone{false};
  std::atomic<bool> laterSawSyncDone{false};
  EventCount laterRan;
  queue->async([&] {
    std::this_thread::sleep_for(50ms);
    earlierDone = true;
  });
  std::thread::id ranOn;
  bool sawEarlierDone = false;
  queue->sync([&] {
    ranOn = std::this_thread::get_id();
    sawEarlierDone = earlierDone;
    queue->async([&] {
      laterSawSyncDone = syncDone.load();
      laterRan.add();
    });
    std::this_thread::sleep_for(30ms);
    syncDone = true;
  });
  EXPECT_EQ(ranOn, std::this_thread::get_id());
  EXPECT_TRUE(sawEarlierDone);
  ASSERT_TRUE(laterRan.waitFor(1));
  EXPECT_TRUE(laterSawSyncDone);
}

TEST(DispatchQueueTest, SyncAndAsyncFromManyThreadsNeverOverlap) {
  const auto queue = DispatchQueue::createSerial("mixed");
  constexpr int kThreads = 4;
  constexpr int kRounds = 500;
  int counter = 0;  // touched only as work of queue
  std::atomic<int> running{0};
  std::atomic<bool> overlapped{false};
  auto increment = [&] {
    overlapped = overlapped || running.fetch_add(1) != 0;
    ++counter;
    running.fetch_sub(1);
  };
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < kRounds; ++i) {
        if (i % 2 == 0) {
          queue->sync(increment);
        } else {
          queue->async(increment);
        }
      }
    });
  }
  for (auto& thread : threads) thread.join();
  int total = 0;
  queue->sync([&] { total = counter; });
  EXPECT_EQ(total, kThreads * kRounds);
  EXPECT_FALSE(overlapped);
}

TEST(DispatchQueueTest, SyncPassesExceptionsOnAndReleasesTheQueue) {
  const auto queue = DispatchQueue::createSerial("throws");
  EXPECT_THROW(queue->sync([] { throw std::runtime_error("refused"); }), std::runtime_error);
  EXPECT_FALSE(queue->isCurrent());
  EventCount ran;
  queue->async([&] { ran.add(); });
  EXPECT_TRUE(ran.waitFor(1));
  bool syncRan = false;
  queue->sync([&] { syncRan = true; });
  EXPECT_TRUE(syncRan);
}

TEST(DispatchQueueTest, IsCurrentFollowsNestedWork) {
  const auto a = DispatchQueue::createSerial("a");
  const auto b = DispatchQueue::createSerial("b");
  EXPECT_FALSE(a->isCurrent());

  a->sync([&] {
    EXPECT_TRUE(a->isCurrent());
    EXPECT_FALSE(b->isCurrent());
    b->sync([&] {
      EXPECT_TRUE(a->isCurrent());
      EXPECT_TRUE(b->isCurrent());
    });
    EXPECT_FALSE(b->isCurrent());
  });
  EXPECT_FALSE(a->isCurrent());

  std::atomic<bool> onA{false}, notOnB{false}, nestedOnBoth{false}, leftB{false}, notOnMain{false};
  EventCount done;
  a->async([&] {
    onA = a->isCurrent();
    notOnB = !b->isCurrent();
    notOnMain = !DispatchQueue::main().isCurrent();
    b->sync([&] { nestedOnBoth = a->isCurrent() && b->isCurrent(); });
    leftB = !b->isCurrent();
    a->assertCurrent();
    done.add();
  });
  ASSERT_TRUE(done.waitFor(1));
  EXPECT_TRUE(onA);
  EXPECT_TRUE(notOnB);
  EXPECT_TRUE(notOnMain);
  EXPECT_TRUE(nestedOnBoth);
  EXPECT_TRUE(leftB);
}

TEST(DispatchQueueTest, AfterFiresNoSoonerThanItsDelayInDeadlineOrder) {
  const auto queue = DispatchQueue::createSerial("timer");
  struct Fired {
    char tag;
    Clock::duration elapsed;
  };
  std::vector<Fired> fired;  // touched only as work of queue
  EventCount done;
  const auto start = Clock::now();
  auto record = [&](char tag) {
    return [&, tag] {
      fired.push_back({tag, Clock::now() - start});
      done.add();
    };
  };
  queue->after(60ms, record('a'));
  queue->after(20ms, record('b'));
  queue->after(60ms, record('c'));
  queue->after(0ns, record('d'));
  ASSERT_TRUE(done.waitFor(4));
  std::string order;
  queue->sync([&] {
    for (const Fired& f : fired) {
      order += f.tag;
      const auto delay = f.tag == 'b' ? 20ms : f.tag == 'd' ? 0ms : 60ms;
      EXPECT_GE(f.elapsed, delay) << f.tag;
    }
  });
  EXPECT_EQ(order, "dbac");
}

TEST(DispatchQueueTest, PendingWorkRunsAfterTheLastReferenceIsDropped) {
  EventCount done;
  {
    const auto queue = DispatchQueue::createSerial("orphan");
    queue->async([] { std::this_thread::sleep_for(20ms); });
    for (int i = 0; i < 5; ++i) {
      queue->async([&] { done.add(); });
    }
    queue->after(30ms, [&] { done.add(); });
  }
  EXPECT_TRUE(done.waitFor(6));
}

TEST(DispatchQueueTest, MainQueueIsServedByALibraryThreadByDefault) {
  DispatchQueue& main = DispatchQueue::main();
  EXPECT_EQ(DispatchQueue::mainQueueFileDescriptor(), -1);
  EXPECT_EQ(DispatchQueue::drainMainQueue(), 0u);

  std::thread::id ranOn;
  bool current = false;
  EventCount done;
  main.async([&] {
    ranOn = std::this_thread::get_id();
    current = main.isCurrent();
    done.add();
  });
  ASSERT_TRUE(done.waitFor(1));
  EXPECT_NE(ranOn, std::this_thread::get_id());
  EXPECT_TRUE(current);

  std::atomic<bool> earlierDone{false};
  main.async([&] {
    std::this_thread::sleep_for(20ms);
    earlierDone = true;
  });
  bool sawEarlierDone = false;
  main.sync([&] { sawEarlierDone = earlierDone && main.isCurrent(); });
  EXPECT_TRUE(sawEarlierDone);
}

TEST(DispatchQueueTest, SixtyQueuesShareABoundedPool) {
  constexpr int kQueues = 60;
  constexpr int kItemsPerQueue = 5;
  const std::size_t bound = DispatchQueue::maxWorkerThreadCount();
  std::vector<std::shared_ptr<DispatchQueue>> queues;
  std::atomic<std::size_t> peak{0};
  EventCount done;
  for (int q = 0; q < kQueues; ++q) {
    queues.push_back(DispatchQueue::createSerial("store-" + std::to_string(q)));
    for (int i = 0; i < kItemsPerQueue; ++i) {
      queues.back()->async([&] {
        std::this_thread::sleep_for(1ms);
        const std::size_t now = DispatchQueue::workerThreadCount();
        std::size_t seen = peak.load();
        while (now > seen && !peak.compare_exchange_weak(seen, now)) {
        }
        done.add();
      });
    }
  }
  ASSERT_TRUE(done.waitFor(kQueues * kItemsPerQueue));
  EXPECT_GE(peak.load(), 1u);
  EXPECT_LE(peak.load(), bound);
  EXPECT_LE(DispatchQueue::workerThreadCount(), bound);
}

TEST(DispatchQueueTest, IdleWorkersLeave) {
  DispatchQueue::setWorkerIdleTimeoutForTesting(50ms);
  EventCount done;
  std::vector<std::shared_ptr<DispatchQueue>> queues;
  for (int q = 0; q < 4; ++q) {
    queues.push_back(DispatchQueue::createSerial("short-lived"));
    queues.back()->async([&] { done.add(); });
  }
  ASSERT_TRUE(done.waitFor(4));
  EXPECT_TRUE(eventually([] { return DispatchQueue::workerThreadCount() == 0; }));
  DispatchQueue::setWorkerIdleTimeoutForTesting(5000ms);
}

// Every worker is busy with an item about to sync onto a queue that is itself
// waiting for a worker. Unless blocked workers let the pool grow, nobody ever
// drains that queue.
TEST(DispatchQueueTest, WorkersBlockedInSyncDoNotStarveThePool) {
  const std::size_t workers = DispatchQueue::maxWorkerThreadCount();
  const auto target = DispatchQueue::createSerial("target");
  std::vector<std::shared_ptr<DispatchQueue>> callers;
  std::atomic<std::size_t> started{0};
  std::atomic<bool> go{false};
  EventCount done;
  for (std::size_t i = 0; i < workers; ++i) {
    callers.push_back(DispatchQueue::createSerial("caller"));
    callers.back()->async([&] {
      ++started;
      while (!go) {
        std::this_thread::sleep_for(1ms);
      }
      target->sync([] {});
      done.add();
    });
  }
  ASSERT_TRUE(eventually([&] { return started == workers; }));
  target->async([] {});
  go = true;
  EXPECT_TRUE(done.waitFor(workers));
}

TEST(DispatchOnceTest, RunsOnceAndOthersWaitForIt) {
  OnceFlag flag;
  std::atomic<int> runs{0};
  std::atomic<int> returnedEarly{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 8; ++t) {
    threads.emplace_back([&] {
      dispatchOnce(flag, [&] {
        std::this_thread::sleep_for(20ms);
        ++runs;
      });
      returnedEarly += runs.load() == 1 ? 0 : 1;
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(runs.load(), 1);
  EXPECT_EQ(returnedEarly.load(), 0);
}

// The death tests re-run this binary for each case ("threadsafe"), so the
// child starts without pool threads and with the main queue still unused.
class DispatchDeathTest : public ::testing::Test {
 protected:
  void SetUp() override { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
};

TEST_F(DispatchDeathTest, SyncOntoTheCurrentQueueAborts) {
  const auto a = DispatchQueue::createSerial("deadlock-a");
  const auto b = DispatchQueue::createSerial("deadlock-b");
  EXPECT_DEATH(a->sync([&] { a->sync([] {}); }), "sync\\(\\) onto dispatch queue 'deadlock-a'");
  EXPECT_DEATH(a->sync([&] { b->sync([&] { a->sync([] {}); }); }),
               "sync\\(\\) onto dispatch queue 'deadlock-a'");
  EXPECT_DEATH(
      {
        b->async([&] { b->sync([] {}); });
        std::this_thread::sleep_for(10s);
      },
      "sync\\(\\) onto dispatch queue 'deadlock-b'");
}

TEST_F(DispatchDeathTest, AssertCurrentOffTheQueueAborts) {
  const auto queue = DispatchQueue::createSerial("owner");
  EXPECT_DEATH(queue->assertCurrent(), "dispatch queue 'owner'");
}

TEST_F(DispatchDeathTest, ExceptionEscapingAsyncWorkTerminates) {
  const auto queue = DispatchQueue::createSerial("thrower");
  EXPECT_DEATH(
      {
        queue->async([] { throw std::runtime_error("boom"); });
        std::this_thread::sleep_for(10s);
      },
      "dispatch queue 'thrower': boom");
}

TEST_F(DispatchDeathTest, ChoosingTheMainQueueModeAfterFirstUseAborts) {
  EXPECT_DEATH(
      {
        DispatchQueue::main();
        DispatchQueue::setMainQueueDrivenByApplication(true);
      },
      "after the main queue was first used");
}

// Runs in a fresh child process: returns 0, or the number of the first
// check that failed.
int driveTheMainQueueFromThisThread() {
  DispatchQueue::setMainQueueDrivenByApplication(true);
  const int fd = DispatchQueue::mainQueueFileDescriptor();
  if (fd < 0) return 1;
  auto readable = [fd] {
    pollfd p{fd, POLLIN, 0};
    return ::poll(&p, 1, 0) == 1;
  };
  if (readable()) return 2;
  DispatchQueue& main = DispatchQueue::main();
  const auto self = std::this_thread::get_id();
  std::vector<int> order;
  bool onThisThread = true;
  bool current = true;
  for (int i = 0; i < 3; ++i) {
    main.async([&, i] {
      order.push_back(i);
      onThisThread = onThisThread && std::this_thread::get_id() == self;
      current = current && main.isCurrent();
    });
  }
  std::this_thread::sleep_for(50ms);
  if (!order.empty() || !readable()) return 3;  // something other than this thread ran main-queue work
  if (DispatchQueue::drainMainQueue() != 3 || order != std::vector<int>{0, 1, 2} || !onThisThread ||
      !current) {
    return 4;
  }
  if (readable() || DispatchQueue::drainMainQueue() != 0) return 5;
  // Work queued by running work waits for the next drain and keeps the fd readable.
  main.async([&] { main.async([&] { order.push_back(9); }); });
  if (DispatchQueue::drainMainQueue() != 1 || !readable() || DispatchQueue::drainMainQueue() != 1 ||
      order.back() != 9) {
    return 6;
  }
  // A sync from another thread waits for the application's drain to reach it.
  std::atomic<bool> syncRan{false};
  main.async([] {});
  std::thread other([&] { main.sync([&] { syncRan = true; }); });
  std::this_thread::sleep_for(50ms);
  if (syncRan) return 7;
  const std::size_t ran = DispatchQueue::drainMainQueue();
  other.join();
  if (ran != 1 || !syncRan) return 8;
  return 0;
}

TEST_F(DispatchDeathTest, ApplicationDrivenMainQueueRunsOnlyInDrain) {
  EXPECT_EXIT(std::exit(driveTheMainQueueFromThisThread()), ::testing::ExitedWithCode(0), "");
}

}  // namespace
}  // namespace velmora
