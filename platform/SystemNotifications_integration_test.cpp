// System notifications between processes, on a private bus daemon.
#include "velmora/platform/SystemNotifications.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <thread>

#include "PrivateBus.h"
#include "velmora/platform/Dispatch.h"

namespace velmora {
namespace {

using testing::ChildProcess;
using testing::PrivateBus;
using testing::uniqueBusName;
using testing::waitUntil;
using namespace std::chrono_literals;

constexpr auto kPatience = 10s;

// Posts names from another process (the responder's post-only mode), in
// order, and waits for it to finish.
void postFromAnotherProcess(const std::vector<std::string>& posts) {
  std::vector<std::string> argv{testing::responderPath()};
  for (const std::string& p : posts) {
    argv.push_back("--post");
    argv.push_back(p);
  }
  auto poster = ChildProcess::start(argv);
  ASSERT_TRUE(poster);
  auto status = poster->waitForExit(kPatience);
  ASSERT_TRUE(status.has_value());
  EXPECT_EQ(*status, 0);
}

// Counts callbacks; waitFor() blocks until a count is reached.
class Counter {
 public:
  void bump() {
    std::lock_guard lock(mutex_);
    ++count_;
    changed_.notify_all();
  }
  int value() {
    std::lock_guard lock(mutex_);
    return count_;
  }
  bool waitFor(int n) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, kPatience, [&] { return count_ >= n; });
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  int count_ = 0;  // guarded by mutex_
};

class SystemNotificationsTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { PrivateBus::instance(); }

  // Observes name on queue_, counting into counter.
  SystemObserverToken observe(const std::string& name, const std::shared_ptr<Counter>& counter,
                              const void* owner = nullptr) {
    return center_.addObserver(
        name, queue_,
        [counter, queue = queue_] {
          EXPECT_TRUE(queue->isCurrent());
          counter->bump();
        },
        owner);
  }

  // Posts through postBarrier a name observed on the main queue and waits
  // for its callback. The bus keeps one sender's signals in order, so by then
  // the postings that sender made before have reached this process and
  // their relays are queued (on queue_: sync it to let them run).
  void barrier(const std::function<void(const std::string&)>& postBarrier) {
    auto counter = std::make_shared<Counter>();
    SystemObserverToken token = center_.addObserver(barrierName_, nullptr, [counter] { counter->bump(); });
    ASSERT_NE(token, kNoSystemObserverToken);
    postBarrier(barrierName_);
    ASSERT_TRUE(counter->waitFor(1));
    center_.removeObserver(token);
  }

  const std::string name_ = uniqueBusName("com.vantrel.test.Note");
  const std::string barrierName_ = uniqueBusName("com.vantrel.test.Barrier");
  const std::shared_ptr<DispatchQueue> queue_ = DispatchQueue::createSerial("notify-test");
  DbusSystemNotificationCenter center_;
};

TEST_F(SystemNotificationsTest, PostingsFromAnotherProcessAndFromThisOneWakeTheObserver) {
  auto counter = std::make_shared<Counter>();
  ASSERT_NE(observe(name_, counter), kNoSystemObserverToken);
  postFromAnotherProcess({name_});
  ASSERT_TRUE(counter->waitFor(1));

  ASSERT_TRUE(center_.post(name_));
  ASSERT_TRUE(counter->waitFor(2));
  ASSERT_TRUE(postSystemNotification(name_));
  ASSERT_TRUE(counter->waitFor(3));
}

TEST_F(SystemNotificationsTest, BusctlEmitWakesTheObserver) {
  if (::access("/usr/bin/busctl", X_OK) != 0) GTEST_SKIP() << "no busctl";
  auto counter = std::make_shared<Counter>();
  ASSERT_NE(observe(name_, counter), kNoSystemObserverToken);
  auto busctl = ChildProcess::start(
      {"/usr/bin/busctl", "--user", "emit", "/com/vantrel/Notify", "com.vantrel.Notify", "Posted", "s", name_});
  ASSERT_TRUE(busctl);
  ASSERT_TRUE(busctl->waitForExit(kPatience).has_value());
  EXPECT_TRUE(counter->waitFor(1));
}

TEST_F(SystemNotificationsTest, ABurstWhileTheRelayWaitsGivesOneCallback) {
  auto counter = std::make_shared<Counter>();
  ASSERT_NE(observe(name_, counter), kNoSystemObserverToken);
  // Hold the observer's queue so the first relay cannot start.
  std::mutex gate;
  gate.lock();
  queue_->async([&gate] { std::lock_guard hold(gate); });
  barrier([&](const std::string& barrierName) { postFromAnotherProcess({name_ + ":50", barrierName}); });
  EXPECT_EQ(counter->value(), 0);
  gate.unlock();
  queue_->sync([] {});
  EXPECT_EQ(counter->value(), 1);

  // A posting after the relay ran gives another one.
  postFromAnotherProcess({name_});
  EXPECT_TRUE(counter->waitFor(2));
}

TEST_F(SystemNotificationsTest, OnlyTheObservedNameWakes) {
  // Match-rule quoting: commas, spaces, an equals sign, non-ASCII.
  const std::string odd = name_ + " a, b=c \xC3\xA9";
  auto exact = std::make_shared<Counter>();
  auto oddOne = std::make_shared<Counter>();
  ASSERT_NE(observe(name_, exact), kNoSystemObserverToken);
  ASSERT_NE(observe(odd, oddOne), kNoSystemObserverToken);
  barrier([&](const std::string& barrierName) {
    postFromAnotherProcess({name_ + ".other", name_.substr(0, name_.size() - 1), odd, barrierName});
  });
  queue_->sync([] {});
  EXPECT_EQ(exact->value(), 0);
  EXPECT_EQ(oddOne->value(), 1);
}

TEST_F(SystemNotificationsTest, InvalidNamesAreRefused) {
  auto counter = std::make_shared<Counter>();
  EXPECT_EQ(observe("", counter), kNoSystemObserverToken);
  EXPECT_EQ(observe(std::string("a\0b", 3), counter), kNoSystemObserverToken);
  EXPECT_EQ(observe("\xC3\x28", counter), kNoSystemObserverToken);
  EXPECT_EQ(observe("it's", counter), kNoSystemObserverToken);
  EXPECT_EQ(observe("a\\b", counter), kNoSystemObserverToken);
  EXPECT_FALSE(center_.post(std::string("a\0b", 3)));
  EXPECT_FALSE(center_.post(""));
}

TEST_F(SystemNotificationsTest, RemovedObserversStayQuiet) {
  auto removed = std::make_shared<Counter>();
  auto kept = std::make_shared<Counter>();
  int ownerA = 0;
  int ownerB = 0;
  SystemObserverToken token = observe(name_, removed);
  observe(name_, removed, &ownerA);
  observe(name_ + ".2", removed, &ownerA);
  observe(name_, kept, &ownerB);
  center_.removeObserver(token);
  center_.removeObserver(token);  // twice is harmless
  center_.removeObservers(&ownerA);
  barrier([&](const std::string& barrierName) { postFromAnotherProcess({name_, name_ + ".2", barrierName}); });
  queue_->sync([] {});
  EXPECT_EQ(removed->value(), 0);
  EXPECT_EQ(kept->value(), 1);
}

TEST_F(SystemNotificationsTest, RemoveWaitsForARunningCallbackButNotForItself) {
  std::mutex gate;
  gate.lock();
  std::atomic<bool> entered{false};
  std::atomic<bool> finished{false};
  SystemObserverToken token = center_.addObserver(name_, queue_, [&] {
    entered = true;
    std::lock_guard hold(gate);
    finished = true;
  });
  ASSERT_TRUE(center_.post(name_));
  ASSERT_TRUE(waitUntil([&] { return entered.load(); }, kPatience));
  std::atomic<bool> removed{false};
  std::thread remover([&] {
    center_.removeObserver(token);
    removed = true;
    EXPECT_TRUE(finished.load()) << "returned while the callback ran";
  });
  std::this_thread::sleep_for(50ms);
  EXPECT_FALSE(removed.load());
  gate.unlock();
  remover.join();

  // From inside its own callback: no self-wait, and no second call.
  auto calls = std::make_shared<Counter>();
  auto self = std::make_shared<SystemObserverToken>(kNoSystemObserverToken);
  std::mutex tokenMutex;
  tokenMutex.lock();
  *self = center_.addObserver(name_, queue_, [this, calls, self, &tokenMutex] {
    { std::lock_guard wait(tokenMutex); }
    center_.removeObserver(*self);
    calls->bump();
  });
  tokenMutex.unlock();
  ASSERT_TRUE(center_.post(name_));
  ASSERT_TRUE(calls->waitFor(1));
  barrier([&](const std::string& barrierName) {
    ASSERT_TRUE(center_.post(name_));
    ASSERT_TRUE(center_.post(barrierName));
  });
  queue_->sync([] {});
  EXPECT_EQ(calls->value(), 1);
}

TEST_F(SystemNotificationsTest, ObserversSurviveTheBusRestartingAndHearOfPossibleMisses) {
  auto counter = std::make_shared<Counter>();
  ASSERT_NE(observe(name_, counter), kNoSystemObserverToken);
  PrivateBus::instance().restart();
  // The renewed subscription relays once: postings may have been missed.
  ASSERT_TRUE(counter->waitFor(1));
  postFromAnotherProcess({name_});
  EXPECT_TRUE(counter->waitFor(2));
}

}  // namespace
}  // namespace velmora
