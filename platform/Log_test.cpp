// The log's documented faces: ZKV_LOG_LEVEL and the stderr line
// `time level subsystem/category message`.
#include "velmora/platform/Log.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <regex>

#include "ScratchEnvironment.h"

namespace velmora {
namespace {

TEST(LogTest, LevelVariable) {
  const char* const old = std::getenv("ZKV_LOG_LEVEL");
  const std::string saved = old ? old : "";
  const std::pair<const char*, LogLevel> thresholds[] = {
      {nullptr, LogLevel::Default}, {"DeBuG", LogLevel::Debug}, {"info", LogLevel::Info}, {"ERROR", LogLevel::Error},
      {"fault", LogLevel::Fault}, {"", LogLevel::Default}, {"debug ", LogLevel::Default}, {"faul", LogLevel::Default}};
  for (const auto& [word, level] : thresholds) {
    if (word) ::setenv("ZKV_LOG_LEVEL", word, 1);
    else ::unsetenv("ZKV_LOG_LEVEL");
    EXPECT_EQ(systemLogSinkOptions(SystemEnvironment(), false).threshold, level) << (word ? word : "unset");
  }
  if (old) ::setenv("ZKV_LOG_LEVEL", saved.c_str(), 1);
  else ::unsetenv("ZKV_LOG_LEVEL");
}

TEST(LogTest, StreamAndConsoleLines) {
  const testing::ScratchDirectory dir("log");
  const int fd = ::open(dir.file("stderr").c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
  ASSERT_GE(fd, 0);
  testing::ScopedServices scoped;
  SystemLogSink::Options options;
  options.streamFd = fd;
  scoped.install(setLogSink, std::make_shared<SystemLogSink>(options));
  LogHandle handle("com.example.sub", "Cat");
  EXPECT_FALSE(handle.isEnabled(LogLevel::Info));
  handle.log(LogLevel::Debug, "hidden debug");
  handle.logf(LogLevel::Info, "hidden %s", "info");
  handle.log(LogLevel::Default, "shown");
  const std::string longText(3000, 'x');  // past logf's stack buffer
  handle.logf(LogLevel::Fault, "code %d [%s]", 7, longText.c_str());
  const std::string time = "\\d{4}-\\d\\d-\\d\\dT\\d\\d:\\d\\d:\\d\\d\\.\\d{3}Z ";
  std::string text = testing::readFile(dir.file("stderr")).value_or("");
  const std::string last = "fault com.example.sub/Cat code 7 [" + longText + "]\n";
  ASSERT_TRUE(text.ends_with(last)) << text;
  text.resize(text.size() - last.size());
  EXPECT_TRUE(std::regex_match(text, std::regex(time + "default com\\.example\\.sub/Cat shown\n" + time))) << text;

  ASSERT_EQ(::ftruncate(fd, 0), 0);
  SystemConsoleSink(fd, false, "tool").writeLine("ready");
  text = testing::readFile(dir.file("stderr")).value_or("");
  EXPECT_TRUE(std::regex_match(text, std::regex(time + "tool\\[" + std::to_string(::getpid()) + "\\] ready\n")))
      << text;
  ::close(fd);

  // consoleLog goes to the installed console sink, one line per call.
  auto console = std::make_shared<CapturingConsoleSink>();
  scoped.install(setConsoleSink, console);
  consoleLog("to the console");
  EXPECT_EQ(console->lines(), std::vector<std::string>{"to the console"});
  console->clear();
  EXPECT_TRUE(console->lines().empty());
}

// The journal's PRIORITY field: syslog's numbers.
TEST(LogTest, JournalPriorities) {
  const std::pair<LogLevel, int> priorities[] = {
      {LogLevel::Debug, 7}, {LogLevel::Info, 6}, {LogLevel::Default, 5}, {LogLevel::Error, 3}, {LogLevel::Fault, 2}};
  for (const auto& [level, priority] : priorities) EXPECT_EQ(journalPriority(level), priority) << priority;
}

}  // namespace
}  // namespace velmora
