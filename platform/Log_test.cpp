#include "velmora/platform/Log.h"

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <map>
#include <regex>
#include <thread>
#include <vector>

#include "ScratchEnvironment.h"
#include "velmora/platform/Environment.h"

namespace velmora {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using std::chrono::system_clock;

class FakeEnvironment : public Environment {
 public:
  explicit FakeEnvironment(std::map<std::string, std::string> vars) : vars_(std::move(vars)) {}
  std::optional<std::string> getVariable(std::string_view name) const override {
    auto it = vars_.find(std::string(name));
    if (it == vars_.end()) return std::nullopt;
    return it->second;
  }
  std::optional<std::string> homeDirectory() const override { return std::nullopt; }
  double absoluteTime() const override { return 0; }
  std::optional<std::string> hostApplicationIdentifier() const override { return std::nullopt; }
  bool isSandboxed() const override { return false; }

 private:
  std::map<std::string, std::string> vars_;
};

// An in-memory file standing in for stderr.
class MemoryFd {
 public:
  MemoryFd() : fd_(::memfd_create("log-test", 0)) {}
  ~MemoryFd() { ::close(fd_); }
  int fd() const { return fd_; }
  std::string contents() const {
    std::string out;
    char buf[4096];
    ssize_t n;
    off_t off = 0;
    while ((n = ::pread(fd_, buf, sizeof buf, off)) > 0) {
      out.append(buf, static_cast<std::size_t>(n));
      off += n;
    }
    return out;
  }

 private:
  int fd_;
};

class ThresholdSink : public LogSink {
 public:
  explicit ThresholdSink(LogLevel threshold) : threshold_(threshold) {}
  void write(const LogHandle& h, LogLevel l, std::string_view m) override { capture.write(h, l, m); }
  bool accepts(LogLevel level) const override { return level >= threshold_; }
  CapturingLogSink capture;

 private:
  LogLevel threshold_;
};

// The default sink's options with ZKV_LOG_LEVEL set to level (or unset).
SystemLogSink::Options optionsWith(std::optional<std::string> level, bool journal) {
  std::map<std::string, std::string> vars;
  if (level) vars["ZKV_LOG_LEVEL"] = *level;
  return systemLogSinkOptions(FakeEnvironment(std::move(vars)), journal);
}

system_clock::time_point at(double secondsSince1970) {
  return system_clock::time_point(std::chrono::duration_cast<system_clock::duration>(
      std::chrono::duration<double>(secondsSince1970)));
}

TEST(LogLevelTest, PrioritiesNamesAndParsing) {
  EXPECT_EQ(journalPriority(LogLevel::Debug), 7);
  EXPECT_EQ(journalPriority(LogLevel::Info), 6);
  EXPECT_EQ(journalPriority(LogLevel::Default), 5);
  EXPECT_EQ(journalPriority(LogLevel::Error), 3);
  EXPECT_EQ(journalPriority(LogLevel::Fault), 2);
  for (LogLevel level : {LogLevel::Debug, LogLevel::Info, LogLevel::Default, LogLevel::Error, LogLevel::Fault}) {
    EXPECT_EQ(parseLogLevel(logLevelName(level)), level);
  }
  EXPECT_EQ(parseLogLevel("DeBuG"), LogLevel::Debug);
  EXPECT_EQ(parseLogLevel(""), std::nullopt);
  EXPECT_EQ(parseLogLevel("debug "), std::nullopt);
  EXPECT_EQ(parseLogLevel("warning"), std::nullopt);
  EXPECT_EQ(parseLogLevel("faul"), std::nullopt);
}

TEST(LogFormatTest, TimestampIsUtcWithTruncatedMilliseconds) {
  EXPECT_EQ(formatLogTimestamp(at(978307200.0)), "2001-01-01T00:00:00.000Z");
  EXPECT_EQ(formatLogTimestamp(at(978307201.9996)), "2001-01-01T00:00:01.999Z");
  EXPECT_EQ(formatLogTimestamp(system_clock::time_point(seconds(1709251199) + milliseconds(5))),
            "2024-02-29T23:59:59.005Z");
  // Before 1970 the millisecond part still counts forward within the second.
  EXPECT_EQ(formatLogTimestamp(system_clock::time_point(milliseconds(-1))), "1969-12-31T23:59:59.999Z");
}

TEST(LogFormatTest, StreamAndConsoleLineLayout) {
  LogHandle handle("com.example.sub", "Cat");
  auto t = system_clock::time_point(seconds(978307200) + milliseconds(42));
  EXPECT_EQ(formatStreamLogLine(t, handle, LogLevel::Error, "disk full"),
            "2001-01-01T00:00:00.042Z error com.example.sub/Cat disk full\n");
  EXPECT_EQ(formatConsoleLine(t, "tool", 1234, "hello"), "2001-01-01T00:00:00.042Z tool[1234] hello\n");
}

TEST(LogStreamSinkTest, DefaultThresholdHidesDebugAndInfo) {
  MemoryFd out;
  auto options = optionsWith(std::nullopt, false);
  ASSERT_EQ(options.backend, SystemLogSink::Backend::Stream);
  EXPECT_EQ(options.threshold, LogLevel::Default);
  options.streamFd = out.fd();
  velmora::testing::ScopedServices scoped;
  scoped.install(setLogSink, std::make_shared<SystemLogSink>(options));

  LogHandle handle("com.example.sub", "Cat");
  EXPECT_FALSE(handle.isEnabled(LogLevel::Debug));
  EXPECT_FALSE(handle.isEnabled(LogLevel::Info));
  handle.log(LogLevel::Debug, "hidden debug");
  handle.logf(LogLevel::Info, "hidden %s", "info");
  handle.log(LogLevel::Default, "shown");
  handle.logf(LogLevel::Fault, "code %d", 7);

  std::string text = out.contents();
  EXPECT_EQ(text.find("hidden"), std::string::npos);
  std::regex layout(
      "\\d{4}-\\d\\d-\\d\\dT\\d\\d:\\d\\d:\\d\\d\\.\\d{3}Z default com\\.example\\.sub/Cat shown\n"
      "\\d{4}-\\d\\d-\\d\\dT\\d\\d:\\d\\d:\\d\\d\\.\\d{3}Z fault com\\.example\\.sub/Cat code 7\n");
  EXPECT_TRUE(std::regex_match(text, layout)) << text;
}

TEST(LogStreamSinkTest, LevelVariableSetsThresholdForBothBackends) {
  EXPECT_EQ(optionsWith("debug", false).threshold, LogLevel::Debug);
  EXPECT_EQ(optionsWith("ERROR", false).threshold, LogLevel::Error);
  EXPECT_EQ(optionsWith("loud", false).threshold, LogLevel::Default);

  auto journal = optionsWith(std::nullopt, true);
  EXPECT_EQ(journal.backend, SystemLogSink::Backend::Journal);
  EXPECT_EQ(journal.threshold, LogLevel::Default);
  EXPECT_FALSE(journal.identifier.empty());
  EXPECT_EQ(optionsWith("info", true).threshold, LogLevel::Info);
}

TEST(LogSinkTest, SetLogSinkReturnsPreviousAndNullReinstatesDefault) {
  auto a = std::make_shared<CapturingLogSink>();
  auto b = std::make_shared<CapturingLogSink>();
  auto original = setLogSink(a);
  ASSERT_NE(original, nullptr);
  EXPECT_EQ(setLogSink(b), a);
  EXPECT_EQ(&currentLogSink(), b.get());
  EXPECT_EQ(setLogSink(nullptr), b);
  EXPECT_NE(dynamic_cast<SystemLogSink*>(&currentLogSink()), nullptr);
  setLogSink(original);
}

TEST(LogSinkTest, HandleConsultsSinkBeforeWriting) {
  auto sink = std::make_shared<ThresholdSink>(LogLevel::Error);
  velmora::testing::ScopedServices scoped;
  scoped.install(setLogSink, sink);
  LogHandle handle("com.example.sub", "Cat");

  EXPECT_FALSE(handle.isEnabled(LogLevel::Default));
  EXPECT_TRUE(handle.isEnabled(LogLevel::Error));
  handle.log(LogLevel::Default, "dropped");
  handle.logf(LogLevel::Info, "dropped %d", 1);
  handle.log(LogLevel::Error, "kept");
  // Longer than logf's stack buffer, so it must take the heap path intact.
  std::string longText(3000, 'x');
  handle.logf(LogLevel::Fault, "[%s]", longText.c_str());

  auto lines = sink->capture.lines();
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(lines[0], (CapturedLogLine{"com.example.sub", "Cat", LogLevel::Error, "kept"}));
  EXPECT_EQ(lines[1].message, "[" + longText + "]");
  EXPECT_EQ(lines[1].level, LogLevel::Fault);
  EXPECT_FALSE(sink->capture.contains("dropped"));
}

TEST(LogSinkTest, SwappingSinksWhileLoggingLosesNoLines) {
  constexpr int kThreads = 4;
  constexpr int kLinesPerThread = 2000;
  auto a = std::make_shared<CapturingLogSink>();
  auto b = std::make_shared<CapturingLogSink>();
  velmora::testing::ScopedServices scoped;
  scoped.install(setLogSink, a);

  std::atomic<bool> done{false};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([t] {
      LogHandle handle("s", "thread" + std::to_string(t));
      for (int i = 0; i < kLinesPerThread; ++i) handle.logf(LogLevel::Default, "%d", i);
    });
  }
  std::thread swapper([&] {
    for (int i = 0; !done.load(); ++i) setLogSink(i % 2 ? a : b);
  });
  for (auto& th : threads) th.join();
  done = true;
  swapper.join();

  EXPECT_EQ(a->lines().size() + b->lines().size(), std::size_t{kThreads * kLinesPerThread});
}

TEST(LogConsoleTest, ConsoleLinesReachInstalledSinkThenTheTerminal) {
  auto capture = std::make_shared<CapturingConsoleSink>();
  auto previous = setConsoleSink(capture);
  consoleLog("first line");
  consoleLog("second");
  EXPECT_EQ(setConsoleSink(previous), capture);
  EXPECT_EQ(capture->lines(), (std::vector<std::string>{"first line", "second"}));

  MemoryFd out;
  SystemConsoleSink terminal(out.fd(), false, "tool");
  terminal.writeLine("ready");
  std::regex layout("\\d{4}-\\d\\d-\\d\\dT\\d\\d:\\d\\d:\\d\\d\\.\\d{3}Z tool\\[" +
                    std::to_string(::getpid()) + "\\] ready\n");
  std::string text = out.contents();
  EXPECT_TRUE(std::regex_match(text, layout)) << text;
}

}  // namespace
}  // namespace velmora
