#include "velmora/platform/MemoryPressure.h"

#include <gtest/gtest.h>
#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <future>
#include <sstream>
#include <thread>

#include "ScratchEnvironment.h"
#include "velmora/platform/Dispatch.h"

namespace velmora {
namespace {

namespace fs = std::filesystem;
using Kind = MemoryPressureWatch::Kind;

constexpr std::string_view kQuiet = "some avg10=0.00 avg60=0.00 avg300=0.00 total=0\nfull avg10=0.00 total=0\n";
constexpr std::string_view kHigh = "some avg10=42.50 avg60=3.00 avg300=1.00 total=99\nfull avg10=9.00 total=0\n";

Bytes trigger() {
  Bytes out(kPressureTrigger.begin(), kPressureTrigger.end());
  out.push_back(0);
  return out;
}

template <class F>
bool eventually(F condition) {
  for (int i = 0; i < 5000 && !condition(); ++i) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  return condition();
}

std::shared_ptr<LinuxMemoryPressureMonitor> monitorWith(LinuxMemoryPressureOptions options) {
  return std::make_shared<LinuxMemoryPressureMonitor>(std::move(options));
}

class MemoryPressureWatchTest : public ::testing::Test {
 protected:
  void write(const fs::path& relative, std::string_view text) {
    fs::create_directories((root_ / relative).parent_path());
    std::ofstream(root_ / relative, std::ios::binary) << text;
  }
  std::string read(const fs::path& relative) {
    std::ostringstream text;
    text << std::ifstream(root_ / relative, std::ios::binary).rdbuf();
    return text.str();
  }
  const testing::ScratchDirectory scratch_{"memory-pressure"};
  const fs::path root_ = scratch_.path();
};

TEST_F(MemoryPressureWatchTest, CandidatesFollowThePreferenceOrder) {
  const MemoryPressureWatch system{Kind::Trigger, root_ / "proc/pressure/memory", trigger()};
  const MemoryPressureWatch poll{Kind::AveragePoll, root_ / "proc/pressure/memory", {}};
  EXPECT_EQ(memoryPressureWatchCandidates(root_, {}), (std::vector{system, poll}));

  write("proc/self/cgroup", "1:name=systemd:/old\n0::/user.slice/app.scope\n");
  const MemoryPressureWatch group{Kind::Trigger, root_ / "sys/fs/cgroup/user.slice/app.scope/memory.pressure",
                                  trigger()};
  EXPECT_EQ(memoryPressureWatchCandidates(root_, {}), (std::vector{group, system, poll}));
  const MemoryPressureWatch service{Kind::Trigger, root_ / "run/w", {'s', 'o', 'm', 'e'}};
  EXPECT_EQ(memoryPressureWatchCandidates(
                root_, {{"MEMORY_PRESSURE_WATCH", "/run/w"}, {"MEMORY_PRESSURE_WRITE", "c29t\nZQ"}}),
            (std::vector{service, group, system, poll}));
  // A trigger that does not decode disqualifies the service manager's choice only.
  EXPECT_EQ(memoryPressureWatchCandidates(
                root_, {{"MEMORY_PRESSURE_WATCH", "/run/w"}, {"MEMORY_PRESSURE_WRITE", "c29tZQ=x"}}),
            (std::vector{group, system, poll}));
  EXPECT_EQ(memoryPressureWatchCandidates(root_, {{"MEMORY_PRESSURE_WATCH", "/dev/null"}}),
            (std::vector{MemoryPressureWatch{Kind::Disabled, {}, {}}}));
}

TEST_F(MemoryPressureWatchTest, OpeningTakesTheFirstWatchThatAcceptsItsTrigger) {
  write("proc/self/cgroup", "0::/app.scope\n");
  write("proc/pressure/memory", kQuiet);
  const std::vector<MemoryPressureWatch> candidates = memoryPressureWatchCandidates(root_, {});
  // No file for the group: the system-wide file gets the trigger.
  std::optional<OpenedMemoryPressureWatch> opened = openMemoryPressureWatch(candidates);
  ASSERT_TRUE(opened);
  EXPECT_EQ(opened->index, 1u);
  EXPECT_EQ(opened->mode, OpenedMemoryPressureWatch::Mode::Priority);
  ::close(opened->fd);
  EXPECT_EQ(read("proc/pressure/memory").substr(0, trigger().size()), std::string(kPressureTrigger) + '\0');

  write("sys/fs/cgroup/app.scope/memory.pressure", "");
  opened = openMemoryPressureWatch(candidates);
  ASSERT_TRUE(opened);
  EXPECT_EQ(opened->index, 0u);
  ::close(opened->fd);
  EXPECT_EQ(read("sys/fs/cgroup/app.scope/memory.pressure"), std::string(kPressureTrigger) + '\0');

  // A trigger that cannot be written (a directory) leaves the average, which needs its figure.
  const std::vector<MemoryPressureWatch> fallback = {{Kind::Trigger, root_ / "proc", trigger()},
                                                     {Kind::AveragePoll, root_ / "proc/pressure/memory", {}}};
  write("proc/pressure/memory", kQuiet);
  opened = openMemoryPressureWatch(fallback);
  ASSERT_TRUE(opened);
  EXPECT_EQ(opened->mode, OpenedMemoryPressureWatch::Mode::Average);
  ::close(opened->fd);
  write("proc/pressure/memory", "no figures\n");
  EXPECT_EQ(openMemoryPressureWatch(fallback), std::nullopt);
}

TEST(MemoryPressureMonitor, RaisedWarningsReachEachHandlerOnItsQueue) {
  LinuxMemoryPressureOptions options;
  options.watchSystem = false;
  auto monitor = monitorWith(options);
  auto first = DispatchQueue::createSerial("test.pressure.first");
  auto second = DispatchQueue::createSerial("test.pressure.second");
  std::atomic<int> onFirst{0}, onSecond{0}, onCancelled{0};
  MemoryWarningRegistration a(monitor, monitor->addWarningHandler(first, [&] { onFirst += first->isCurrent(); }));
  MemoryWarningRegistration b(monitor, monitor->addWarningHandler(second, [&] { onSecond += second->isCurrent(); }));
  { MemoryWarningRegistration dropped(monitor, monitor->addWarningHandler(first, [&] { ++onCancelled; })); }
  MemoryWarningRegistration cancelled(monitor, monitor->addWarningHandler(second, [&] { ++onCancelled; }));
  cancelled.cancel();
  EXPECT_FALSE(cancelled.isActive());

  monitor->raiseMemoryWarning();
  monitor->raiseMemoryWarning();
  first->sync([] {});
  second->sync([] {});
  EXPECT_EQ(onFirst.load(), 2);
  EXPECT_EQ(onSecond.load(), 2);
  EXPECT_EQ(onCancelled.load(), 0);

  // A warning already queued is not delivered once its handler is removed.
  std::promise<void> go;
  first->async([future = go.get_future().share()] { future.wait(); });
  monitor->raiseMemoryWarning();
  a.cancel();
  go.set_value();
  first->sync([] {});
  EXPECT_EQ(onFirst.load(), 2);

  // The process-wide monitor is replaceable; a registration stays with its own.
  std::shared_ptr<MemoryPressureMonitor> previous = setMemoryPressureMonitor(monitor);
  MemoryWarningRegistration global = observeMemoryWarnings(first, [&] { ++onFirst; });
  setMemoryPressureMonitor(previous);
  monitor->raiseMemoryWarning();
  first->sync([] {});
  EXPECT_EQ(onFirst.load(), 3);
}

TEST(MemoryPressureMonitor, WatchThreadRunsOnlyWhileSomeoneListens) {
  LinuxMemoryPressureOptions options;
  options.watches = std::vector{MemoryPressureWatch{Kind::Disabled, {}, {}}};
  auto monitor = monitorWith(options);
  auto queue = DispatchQueue::createSerial("test.pressure.lifetime");
  EXPECT_FALSE(monitor->isWatching());
  MemoryWarningRegistration one(monitor, monitor->addWarningHandler(queue, [] {}));
  MemoryWarningRegistration two(monitor, monitor->addWarningHandler(queue, [] {}));
  EXPECT_TRUE(eventually([&] { return monitor->activeWatch() == options.watches->front(); }));
  one.cancel();
  EXPECT_TRUE(monitor->isWatching());
  two.cancel();
  EXPECT_FALSE(monitor->isWatching());
}

TEST_F(MemoryPressureWatchTest, ServiceManagerFifoDeliversWarnings) {
  ASSERT_EQ(::mkfifo((root_ / "pressure.fifo").c_str(), 0600), 0);
  LinuxMemoryPressureOptions options;
  options.root = root_;
  options.variables = std::map<std::string, std::string, std::less<>>{{"MEMORY_PRESSURE_WATCH", "/pressure.fifo"}};
  auto monitor = monitorWith(options);
  auto queue = DispatchQueue::createSerial("test.pressure.fifo");
  std::atomic<int> warnings{0};
  MemoryWarningRegistration registration(monitor, monitor->addWarningHandler(queue, [&] { ++warnings; }));
  ASSERT_TRUE(eventually([&] { return monitor->activeWatch().has_value(); }));
  EXPECT_EQ(monitor->activeWatch()->path, root_ / "pressure.fifo");
  const int writer = ::open((root_ / "pressure.fifo").c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
  ASSERT_EQ(::write(writer, "x", 1), 1);
  EXPECT_TRUE(eventually([&] { return warnings.load() >= 1; }));
  ::close(writer);
}

TEST_F(MemoryPressureWatchTest, AveragePollingWarnsAtTheThreshold) {
  write("pressure", kQuiet);
  LinuxMemoryPressureOptions options;
  options.watches = std::vector{MemoryPressureWatch{Kind::AveragePoll, root_ / "pressure", {}}};
  options.pollInterval = std::chrono::milliseconds(5);
  auto monitor = monitorWith(options);
  auto queue = DispatchQueue::createSerial("test.pressure.poll");
  std::atomic<int> warnings{0};
  MemoryWarningRegistration registration(monitor, monitor->addWarningHandler(queue, [&] { ++warnings; }));
  ASSERT_TRUE(eventually([&] { return monitor->activeWatch().has_value(); }));
  std::this_thread::sleep_for(std::chrono::milliseconds(60));  // a dozen quiet polls
  queue->sync([] {});
  EXPECT_EQ(warnings.load(), 0);
  write("pressure", kHigh);
  EXPECT_TRUE(eventually([&] { return warnings.load() >= 1; }));
}

}  // namespace
}  // namespace velmora
