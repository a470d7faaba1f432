// The run's verdict must include what sanitizers report in the processes a
// test starts: their standard error is nobody's, and velmorad's exit status
// goes to the bus daemon.
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "PrivateBus.h"

namespace velmora::testing {
namespace {

constexpr const char* kMisbehaveVariable = "VELMORA_TEST_MISBEHAVE";

// Run as a child by the test below: makes the error its build's sanitizer
// looks for, once.
TEST(ChildSanitizerReports, MisbehavingChild) {
  if (std::getenv(kMisbehaveVariable) == nullptr) GTEST_SKIP() << "the child half of the test below";
#if defined(__SANITIZE_THREAD__)
#define VELMORA_CHILD_TSAN 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define VELMORA_CHILD_TSAN 1
#endif
#endif
#if defined(VELMORA_CHILD_TSAN)
  int shared = 0;
  std::thread other([&] { ++shared; });
  ++shared;  // unordered with the other thread's write
  other.join();
#else
  int* volatile freed = new int(1);
  delete freed;
  EXPECT_EQ(*freed, 1);  // use after free
#endif
}

TEST(ChildSanitizerReports, AChildsReportLandsWhereTheRunLooks) {
  const std::string& directory = childSanitizerReportDirectory();
  if (directory.empty()) GTEST_SKIP() << "not a sanitizer build";
  const std::string self = std::filesystem::read_symlink("/proc/self/exe").string();
  auto child = ChildProcess::start({self, "--gtest_filter=ChildSanitizerReports.MisbehavingChild"},
                                   {std::string(kMisbehaveVariable) + "=1"});
  ASSERT_TRUE(child);
  const pid_t pid = child->pid();
  const std::optional<int> status = child->waitForExit(std::chrono::seconds(60));
  ASSERT_TRUE(status.has_value());
  EXPECT_FALSE(WIFEXITED(*status) && WEXITSTATUS(*status) == 0);

  const std::filesystem::path report = std::filesystem::path(directory) / ("report." + std::to_string(pid));
  const std::string text = readFile(report.string()).value_or("");
  EXPECT_TRUE(text.find("ERROR: AddressSanitizer") != std::string::npos ||
              text.find("WARNING: ThreadSanitizer: data race") != std::string::npos)
      << "report: " << text;
  // Handled here, so the run does not fail for it.
  std::filesystem::remove(report);
}

}  // namespace
}  // namespace velmora::testing
