// NotificationCenter: matching and order, changes made during a post, and
// removal racing posts on other threads.
#include "velmora/platform/NotificationCenter.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

namespace velmora {
namespace {

using namespace std::chrono_literals;

void waitUntil(const std::atomic<bool>& flag) {
  const auto deadline = std::chrono::steady_clock::now() + 10s;
  while (!flag && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(1ms);
  }
}

TEST(NotificationCenterTest, CallsObserversOfTheNameInAddOrder) {
  NotificationCenter center;
  std::vector<std::string> calls;
  const int sender = 0;
  const PropertyList info = makeDictionary({{"count", PropertyList::integer(7)}});
  center.addObserver("changed", nullptr, [&](const Notification& n) {
    EXPECT_EQ(n.name, "changed");
    EXPECT_EQ(n.object, &sender);
    EXPECT_EQ(n.userInfo, info);
    calls.push_back("1");
  });
  center.addObserver("other", nullptr, [&](const Notification&) { calls.push_back("other"); });
  center.addObserver("changed", nullptr, [&](const Notification&) { calls.push_back("2"); });
  center.addObserver("changed", nullptr, [&](const Notification&) { calls.push_back("3"); });

  center.post("changed", &sender, info);
  EXPECT_EQ(calls, (std::vector<std::string>{"1", "2", "3"}));
  calls.clear();
  center.post("unobserved", &sender);
  EXPECT_TRUE(calls.empty());
}

TEST(NotificationCenterTest, ObserverWithAnObjectHearsOnlyThatObject) {
  NotificationCenter center;
  std::vector<std::string> calls;
  const int x = 0;
  const int y = 0;
  center.addObserver("changed", &x, [&](const Notification&) { calls.push_back("x"); });
  center.addObserver("changed", nullptr, [&](const Notification&) { calls.push_back("any"); });

  center.post("changed", &x);
  EXPECT_EQ(calls, (std::vector<std::string>{"x", "any"}));
  calls.clear();
  center.post("changed", &y);
  EXPECT_EQ(calls, (std::vector<std::string>{"any"}));
  calls.clear();
  center.post("changed", nullptr);
  EXPECT_EQ(calls, (std::vector<std::string>{"any"}));
}

TEST(NotificationCenterTest, ChangesMadeByCallbacksDuringAPost) {
  NotificationCenter center;
  std::vector<std::string> calls;
  ObserverToken second = kNoObserverToken;
  ObserverToken third = kNoObserverToken;
  bool added = false;
  center.addObserver("changed", nullptr, [&](const Notification&) {
    calls.push_back("1");
    center.removeObserver(second);
    if (!added) {
      added = true;
      center.addObserver("changed", nullptr, [&](const Notification&) { calls.push_back("4"); });
    }
  });
  second = center.addObserver("changed", nullptr, [&](const Notification&) { calls.push_back("2"); });
  third = center.addObserver("changed", nullptr, [&](const Notification&) {
    calls.push_back("3");
    center.removeObserver(third);  // must not wait for itself
  });

  center.post("changed", nullptr);
  EXPECT_EQ(calls, (std::vector<std::string>{"1", "3"}));
  calls.clear();
  center.post("changed", nullptr);
  EXPECT_EQ(calls, (std::vector<std::string>{"1", "4"}));
}

TEST(NotificationCenterTest, RemovalWaitsForACallRunningOnAnotherThread) {
  NotificationCenter center;
  std::atomic<bool> entered{false};
  std::atomic<bool> finished{false};
  const ObserverToken token = center.addObserver("slow", nullptr, [&](const Notification&) {
    entered = true;
    std::this_thread::sleep_for(100ms);
    finished = true;
  });
  std::thread poster([&] { center.post("slow", nullptr); });
  waitUntil(entered);
  center.removeObserver(token);
  EXPECT_TRUE(finished);
  poster.join();

  entered = false;
  center.post("slow", nullptr);
  EXPECT_FALSE(entered);
}

// Removing itself from inside its callback, the observer must still wait for
// its call on the other thread, but not for its own.
TEST(NotificationCenterTest, SelfRemovalWaitsOnlyForOtherThreadsCalls) {
  NotificationCenter center;
  std::atomic<int> entered{0};
  std::atomic<bool> bothIn{false};
  std::atomic<bool> otherFinished{false};
  std::atomic<bool> removerSawOtherFinished{false};
  ObserverToken token = kNoObserverToken;
  token = center.addObserver("x", nullptr, [&](const Notification&) {
    if (++entered == 1) {
      waitUntil(bothIn);
      center.removeObserver(token);
      removerSawOtherFinished = otherFinished.load();
    } else {
      bothIn = true;
      std::this_thread::sleep_for(50ms);
      otherFinished = true;
    }
  });
  std::thread first([&] { center.post("x", nullptr); });
  std::thread second([&] { center.post("x", nullptr); });
  first.join();
  second.join();
  EXPECT_TRUE(removerSawOtherFinished);
}

TEST(NotificationCenterTest, ConcurrentPostsWithObserversComingAndGoing) {
  NotificationCenter center;
  constexpr int kPosters = 4;
  constexpr int kPosts = 2000;
  std::atomic<int> steadyCalls{0};
  std::atomic<int> callsAfterRemoval{0};
  std::atomic<int> removedUpTo{0};
  std::atomic<bool> stop{false};
  center.addObserver("tick", nullptr, [&](const Notification&) { ++steadyCalls; });

  std::thread churn([&] {
    for (int generation = 1; !stop; ++generation) {
      const ObserverToken token = center.addObserver("tick", nullptr, [&, generation](const Notification&) {
        if (removedUpTo.load() >= generation) {
          ++callsAfterRemoval;
        }
      });
      std::this_thread::yield();
      center.removeObserver(token);
      removedUpTo = generation;
    }
  });
  std::vector<std::thread> posters;
  for (int p = 0; p < kPosters; ++p) {
    posters.emplace_back([&] {
      for (int i = 0; i < kPosts; ++i) {
        center.post("tick", nullptr);
      }
    });
  }
  for (auto& poster : posters) {
    poster.join();
  }
  stop = true;
  churn.join();
  EXPECT_EQ(steadyCalls.load(), kPosters * kPosts);
  EXPECT_EQ(callsAfterRemoval.load(), 0);
}

}  // namespace
}  // namespace velmora
