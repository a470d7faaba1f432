// System notifications between processes, on a private bus daemon.
#include "velmora/platform/SystemNotifications.h"

#include <gtest/gtest.h>

#include <atomic>
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
using Count = std::shared_ptr<std::atomic<int>>;

constexpr auto kPatience = 10s;

// Runs argv and waits for it to exit with status 0.
void run(const std::vector<std::string>& argv) {
  auto child = ChildProcess::start(argv);
  ASSERT_TRUE(child);
  EXPECT_EQ(child->waitForExit(kPatience), std::optional<int>(0)) << argv[0];
}

bool reaches(const Count& count, int n) { return waitUntil([&] { return count->load() >= n; }, kPatience); }

class SystemNotificationsTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { PrivateBus::instance(); }

  // Observes name on queue_; the callback counts.
  Count observe(const std::string& name) {
    auto count = std::make_shared<std::atomic<int>>(0);
    const SystemObserverToken t = center_.addObserver(name, queue_, [count, queue = queue_] {
      EXPECT_TRUE(queue->isCurrent());
      ++*count;
    });
    EXPECT_NE(t, kNoSystemObserverToken) << name;
    return count;
  }

  // Posts from another process (the responder's post-only mode) the names,
  // then one observed here, and waits for that one's callback. The bus keeps one sender's signals in order, so
  // by then the names before have reached this process and their relays are
  // queued (on queue_: sync it to let them run).
  void postWithBarrier(const std::vector<std::string>& names) {
    const std::string barrier = uniqueBusName("com.vantrel.test.Barrier");
    auto count = std::make_shared<std::atomic<int>>(0);
    const SystemObserverToken token = center_.addObserver(barrier, nullptr, [count] { ++*count; });
    std::vector<std::string> argv{testing::responderPath()};
    for (const std::string& p : names) argv.insert(argv.end(), {"--post", p});
    argv.insert(argv.end(), {"--post", barrier});
    run(argv);
    EXPECT_TRUE(reaches(count, 1));
    center_.removeObserver(token);
  }

  const std::string name_ = uniqueBusName("com.vantrel.test.Note");
  const std::shared_ptr<DispatchQueue> queue_ = DispatchQueue::createSerial("notify-test");
  DbusSystemNotificationCenter center_;
};

// Only the observed name wakes (match-rule quoting: commas, spaces, an
// equals sign, non-ASCII); names a match rule could not hold are refused.
TEST_F(SystemNotificationsTest, OnlyTheObservedNameWakes) {
  const std::string odd = name_ + " a, b=c \xC3\xA9";
  const Count exact = observe(name_), oddOne = observe(odd);
  postWithBarrier({name_ + ".other", name_.substr(0, name_.size() - 1), odd});
  queue_->sync([] {});
  EXPECT_EQ(exact->load(), 0);
  EXPECT_EQ(oddOne->load(), 1);
  for (const std::string& bad : {std::string(), std::string("a\0b", 3), std::string("\xC3\x28"), std::string("it's"),
                                std::string("a\\b")}) {
    EXPECT_EQ(center_.addObserver(bad, queue_, [] {}), kNoSystemObserverToken) << bad;
    EXPECT_FALSE(center_.post(bad)) << bad;
  }
}

// A burst while the relay waits for its queue gives one callback.
TEST_F(SystemNotificationsTest, BurstsCoalesce) {
  const Count count = observe(name_);
  std::mutex gate;
  gate.lock();
  queue_->async([&gate] { std::lock_guard hold(gate); });  // the first relay cannot start
  postWithBarrier({name_ + ":50"});
  EXPECT_EQ(count->load(), 0);
  gate.unlock();
  queue_->sync([] {});
  EXPECT_EQ(count->load(), 1);
}

// removeObserver() waits for a running callback, but not from inside it.
TEST_F(SystemNotificationsTest, RemoveWaitsForARunningCallbackButNotForItself) {
  std::mutex gate;
  gate.lock();
  std::atomic<bool> entered{false}, finished{false}, removed{false};
  SystemObserverToken token = center_.addObserver(name_, queue_, [&] {
    entered = true;
    std::lock_guard hold(gate);
    finished = true;
  });
  ASSERT_TRUE(center_.post(name_));
  ASSERT_TRUE(waitUntil([&] { return entered.load(); }, kPatience));
  std::thread remover([&] {
    center_.removeObserver(token);
    removed = true;
    EXPECT_TRUE(finished.load()) << "returned while the callback ran";
  });
  std::this_thread::sleep_for(50ms);
  EXPECT_FALSE(removed.load());
  gate.unlock();
  remover.join();

  auto calls = std::make_shared<std::atomic<int>>(0);
  token = center_.addObserver(name_, queue_, [&, calls] {
    center_.removeObserver(token);
    ++*calls;
  });
  ASSERT_TRUE(center_.post(name_));
  ASSERT_TRUE(reaches(calls, 1));
  postWithBarrier({name_});
  queue_->sync([] {});
  EXPECT_EQ(calls->load(), 1);
}

// The renewed subscription after the bus restarts relays once: postings may
// have been missed. Then any bus client with the signal's documented path,
// interface and member wakes the observer.
TEST_F(SystemNotificationsTest, ObserversSurviveTheBusRestartingAndHearOfPossibleMisses) {
  const Count count = observe(name_);
  PrivateBus::instance().restart();
  ASSERT_TRUE(reaches(count, 1));
  run({"/usr/bin/busctl", "--user", "emit", "/com/vantrel/Notify", "com.vantrel.Notify", "Posted", "s", name_});
  EXPECT_TRUE(reaches(count, 2));
}

}  // namespace
}  // namespace velmora
