#include "zkv/ZKVLog.h"

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <latch>
#include <thread>
#include <vector>

#include "ScratchEnvironment.h"

namespace {

using velmora::LogLevel;

// Runs in a re-executed copy of the test binary, where no channel exists yet,
// so the threads really race to make it. Exits 0 when they all agree.
void raceToFirstCall() {
  constexpr int kThreads = 8;
  std::latch start(kThreads);
  std::vector<const velmora::LogHandle*> got(kThreads * 3);
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      start.arrive_and_wait();
      got[t * 3] = ZKVGetDefaultLog();
      got[t * 3 + 1] = ZKVGetTraceLog();
      got[t * 3 + 2] = ZKVGetSchedulerLog();
    });
  }
  for (auto& th : threads) th.join();
  for (int t = 0; t < kThreads * 3; ++t) {
    if (got[t] == nullptr || got[t] != got[t % 3]) std::_Exit(1);
  }
  std::_Exit(0);
}

TEST(ZKVLogTest, ConcurrentFirstCallsYieldOneHandle) {
  // "threadsafe" re-executes the binary, so the child starts with no channels.
  const std::string style = GTEST_FLAG_GET(death_test_style);
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(raceToFirstCall(), ::testing::ExitedWithCode(0), "");
  GTEST_FLAG_SET(death_test_style, style);
}

TEST(ZKVLogTest, ThreeDistinctChannelsUnderOneSubsystem) {
  EXPECT_STREQ(LoggingSubsystem, "com.vantrel.velmora");
  const velmora::LogHandle* def = ZKVGetDefaultLog();
  const velmora::LogHandle* sched = ZKVGetSchedulerLog();
  const velmora::LogHandle* trace = ZKVGetTraceLog();
  EXPECT_NE(def, sched);
  EXPECT_NE(def, trace);
  EXPECT_NE(sched, trace);
  EXPECT_EQ(def, ZKVGetDefaultLog());
  for (const auto* h : {def, sched, trace}) EXPECT_EQ(h->subsystem(), "com.vantrel.velmora");
  EXPECT_EQ(def->category(), "Default");
  EXPECT_EQ(sched->category(), "Scheduler");
  EXPECT_EQ(trace->category(), "Trace");
}

TEST(ZKVLogTest, LinesReachTheInstalledSink) {
  velmora::testing::ScopedServices scoped;
  auto capture = scoped.captureLog();
  ZKVGetDefaultLog()->log(LogLevel::Error, "write failed");
  ZKVGetTraceLog()->logf(LogLevel::Debug, "step %d", 3);
  EXPECT_EQ(capture->lines(),
            (std::vector<velmora::CapturedLogLine>{
                {"com.vantrel.velmora", "Default", LogLevel::Error, "write failed"},
                {"com.vantrel.velmora", "Trace", LogLevel::Debug, "step 3"},
            }));
}

TEST(ZKVLogTest, DebugHiddenOnStderrBackendAtDefaultThreshold) {
  int fd = ::memfd_create("zkv-log-test", 0);
  ASSERT_GE(fd, 0);
  velmora::SystemLogSink::Options options;  // Stream backend, Default threshold
  options.streamFd = fd;
  {
    velmora::testing::ScopedServices scoped;
    scoped.install(velmora::setLogSink, std::make_shared<velmora::SystemLogSink>(options));
    EXPECT_FALSE(ZKVGetSchedulerLog()->isEnabled(LogLevel::Debug));
    ZKVGetSchedulerLog()->log(LogLevel::Debug, "tick");
    ZKVGetSchedulerLog()->log(LogLevel::Info, "tock");
    ZKVGetSchedulerLog()->log(LogLevel::Default, "sync scheduled");
  }
  char buf[512] = {};
  ssize_t n = ::pread(fd, buf, sizeof buf - 1, 0);
  ::close(fd);
  ASSERT_GT(n, 0);
  std::string text(buf, static_cast<std::size_t>(n));
  EXPECT_EQ(text.find("tick"), std::string::npos);
  EXPECT_EQ(text.find("tock"), std::string::npos);
  EXPECT_NE(text.find(" default com.vantrel.velmora/Scheduler sync scheduled\n"), std::string::npos) << text;
  EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 1);
}

}  // namespace
