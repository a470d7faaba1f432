// NotificationCenter: matching and order, changes made during a post, and
// removal racing a post on another thread.
#include "velmora/platform/NotificationCenter.h"

#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>

#include "PrivateBus.h"  // waitUntil

namespace velmora {
namespace {

using namespace std::chrono_literals;
using testing::waitUntil;

// An observer of "changed" with an object hears only that object, one
// without hears every sender, in the order added. Removing a later observer
// during a post spares it that call, one added then waits for the next post,
// and an observer may remove itself.
TEST(NotificationCenterTest, MatchingOrderAndChangesDuringAPost) {
  NotificationCenter center;
  std::string calls;
  const int x = 0, y = 0;
  const PropertyList info = makeDictionary({{"count", PropertyList::integer(7)}});
  ObserverToken later = kNoObserverToken, self = kNoObserverToken;
  center.addObserver("changed", nullptr, [&](const Notification& n) {
    EXPECT_TRUE(n.name == "changed" && n.userInfo == info);
    calls += n.object == &x ? "a" : "A";
  });
  center.addObserver("changed", &x, [&](const Notification&) { calls += "x"; });
  center.addObserver("other", nullptr, [&](const Notification&) { calls += "o"; });
  center.post("changed", &x, info);
  center.post("changed", &y, info);
  center.post("unobserved", &x);
  EXPECT_EQ(calls, "axA");

  NotificationCenter changing;
  calls.clear();
  changing.addObserver("changed", nullptr, [&](const Notification&) {
    calls += "1";
    changing.removeObserver(later);
    if (calls == "1") changing.addObserver("changed", nullptr, [&](const Notification&) { calls += "4"; });
  });
  later = changing.addObserver("changed", nullptr, [&](const Notification&) { calls += "2"; });
  self = changing.addObserver("changed", nullptr, [&](const Notification&) {
    calls += "3";
    changing.removeObserver(self);  // must not wait for itself
  });
  changing.post("changed", nullptr);
  changing.post("changed", nullptr);
  EXPECT_EQ(calls, "1314");
}

// removeObserver() returns only once the observer's calls on other threads
// have returned, also when the observer removes itself from one of them.
TEST(NotificationCenterTest, RemovalWaitsForCallsOnOtherThreads) {
  NotificationCenter center;
  std::atomic<bool> entered{false}, finished{false};
  const ObserverToken token = center.addObserver("slow", nullptr, [&](const Notification&) {
    entered = true;
    std::this_thread::sleep_for(100ms);
    finished = true;
  });
  std::thread poster([&] { center.post("slow", nullptr); });
  ASSERT_TRUE(waitUntil([&] { return entered.load(); }, 10s));
  center.removeObserver(token);
  EXPECT_TRUE(finished);
  poster.join();
  entered = false;
  center.post("slow", nullptr);
  EXPECT_FALSE(entered);

  std::atomic<int> calls{0};
  std::atomic<bool> bothIn{false}, otherFinished{false}, removerSawOtherFinished{false};
  ObserverToken self = kNoObserverToken;
  self = center.addObserver("x", nullptr, [&](const Notification&) {
    if (++calls == 1) {
      ASSERT_TRUE(waitUntil([&] { return bothIn.load(); }, 10s));
      center.removeObserver(self);
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

}  // namespace
}  // namespace velmora
