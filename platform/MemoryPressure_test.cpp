#include "velmora/platform/MemoryPressure.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <fstream>

#include "PrivateBus.h"  // waitUntil, readFile
#include "velmora/platform/Dispatch.h"

namespace velmora {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using Kind = MemoryPressureWatch::Kind;
using testing::waitUntil;

constexpr std::string_view kQuiet = "some avg10=0.00 avg60=0.00 avg300=0.00 total=0\nfull avg10=0.00 total=0\n";

Bytes trigger() {
  Bytes out(kPressureTrigger.begin(), kPressureTrigger.end());
  out.push_back(0);
  return out;
}

class MemoryPressureTest : public ::testing::Test {
 protected:
  void write(const fs::path& relative, std::string_view text) {
    fs::create_directories((root_ / relative).parent_path());
    std::ofstream(root_ / relative, std::ios::binary) << text;
  }
  std::string read(const fs::path& relative) { return testing::readFile(root_ / relative).value_or(""); }

  const testing::ScratchDirectory scratch_{"memory-pressure"};
  const fs::path root_ = scratch_.path();
};

// The service manager's choice, then the cgroup's file, then the system's
// with a trigger, then the system's average.
TEST_F(MemoryPressureTest, CandidatesFollowThePreferenceOrder) {
  const MemoryPressureWatch system{Kind::Trigger, root_ / "proc/pressure/memory", trigger()};
  const MemoryPressureWatch poll{Kind::AveragePoll, root_ / "proc/pressure/memory", {}};
  EXPECT_EQ(memoryPressureWatchCandidates(root_, {}), (std::vector{system, poll}));
  write("proc/self/cgroup", "1:name=systemd:/old\n0::/user.slice/app.scope\n");
  const MemoryPressureWatch group{Kind::Trigger, root_ / "sys/fs/cgroup/user.slice/app.scope/memory.pressure",
                                  trigger()};
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

TEST_F(MemoryPressureTest, OpeningTakesTheFirstWatchThatAcceptsItsTrigger) {
  write("proc/self/cgroup", "0::/app.scope\n");
  write("proc/pressure/memory", kQuiet);
  const std::vector<MemoryPressureWatch> candidates = memoryPressureWatchCandidates(root_, {});
  std::optional<OpenedMemoryPressureWatch> opened = openMemoryPressureWatch(candidates);  // no file for the group
  ASSERT_TRUE(opened);
  ::close(opened->fd);
  EXPECT_EQ(std::pair(opened->index, opened->mode), std::pair(std::size_t{1}, OpenedMemoryPressureWatch::Mode::Priority));
  EXPECT_EQ(read("proc/pressure/memory").substr(0, trigger().size()), std::string(kPressureTrigger) + '\0');
  write("sys/fs/cgroup/app.scope/memory.pressure", "");
  opened = openMemoryPressureWatch(candidates);
  ASSERT_TRUE(opened);
  ::close(opened->fd);
  EXPECT_EQ(opened->index, 0u);
  EXPECT_EQ(read("sys/fs/cgroup/app.scope/memory.pressure"), std::string(kPressureTrigger) + '\0');

  // A trigger that cannot be written (a directory) leaves the average, which needs its figure.
  const std::vector<MemoryPressureWatch> fallback = {{Kind::Trigger, root_ / "proc", trigger()},
                                                     {Kind::AveragePoll, root_ / "proc/pressure/memory", {}}};
  write("proc/pressure/memory", kQuiet);
  opened = openMemoryPressureWatch(fallback);
  ASSERT_TRUE(opened);
  ::close(opened->fd);
  EXPECT_EQ(opened->mode, OpenedMemoryPressureWatch::Mode::Average);
  write("proc/pressure/memory", "no figures\n");
  EXPECT_EQ(openMemoryPressureWatch(fallback), std::nullopt);
  EXPECT_EQ(openMemoryPressureWatch({MemoryPressureWatch{}})->mode, OpenedMemoryPressureWatch::Mode::None);  // disabled
}

// The watch thread runs only while a handler is registered, and turns what
// it watches into warnings: a service manager's FIFO, or the average passing
// its threshold.
TEST_F(MemoryPressureTest, WatchedFilesWarnWhileSomeoneListens) {
  ASSERT_EQ(::mkfifo((root_ / "pressure.fifo").c_str(), 0600), 0);
  write("pressure", kQuiet);
  for (const bool fifo : {true, false}) {
    LinuxMemoryPressureOptions options;
    options.root = root_;
    options.pollInterval = 5ms;
    if (fifo) options.variables = std::map<std::string, std::string, std::less<>>{{"MEMORY_PRESSURE_WATCH", "/pressure.fifo"}};
    else options.watches = std::vector{MemoryPressureWatch{Kind::AveragePoll, root_ / "pressure", {}}};
    auto monitor = std::make_shared<LinuxMemoryPressureMonitor>(options);
    auto queue = DispatchQueue::createSerial("test.pressure.watch");
    std::atomic<int> warnings{0};
    EXPECT_FALSE(monitor->isWatching());
    MemoryWarningRegistration registration(monitor, monitor->addWarningHandler(queue, [&] { ++warnings; }));
    ASSERT_TRUE(waitUntil([&] { return monitor->activeWatch().has_value(); }, 10s));
    EXPECT_EQ(monitor->activeWatch()->path, root_ / (fifo ? "pressure.fifo" : "pressure"));
    std::this_thread::sleep_for(60ms);  // a dozen quiet polls
    queue->sync([] {});
    EXPECT_EQ(warnings.load(), 0);
    const int writer = fifo ? ::open((root_ / "pressure.fifo").c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC) : -1;
    if (fifo) EXPECT_EQ(::write(writer, "x", 1), 1);
    else write("pressure", "some avg10=42.50 avg60=3.00 avg300=1.00 total=99\nfull avg10=9.00 total=0\n");
    EXPECT_TRUE(waitUntil([&] { return warnings.load() >= 1; }, 10s)) << fifo;
    if (fifo) ::close(writer);
    registration.cancel();
    EXPECT_FALSE(monitor->isWatching());
  }
}

}  // namespace
}  // namespace velmora
