// NotificationCenter: changes made during a post, and removal racing a post
// on another thread.
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

// Removing a later observer during a post spares it that call, one added
// then waits for the next post, and an observer may remove itself. (Matching
// by name and object is exercised by every framework notification test.)
TEST(NotificationCenterTest, ChangesDuringAPost) {
  NotificationCenter changing;
  std::string calls;
  ObserverToken later = kNoObserverToken, self = kNoObserverToken;
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
// have returned.
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
}

}  // namespace
}  // namespace velmora
