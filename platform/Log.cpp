#include "velmora/platform/Log.h"

#include "InstalledSlot.h"

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <ctime>
#include <functional>
#include <sys/uio.h>
#include <systemd/sd-journal.h>
#include <unistd.h>

#include "velmora/platform/Environment.h"

namespace velmora {

namespace {

constexpr const char* kJournalSocketPath = "/run/systemd/journal/socket";

std::string programShortName() {
  const char* name = program_invocation_short_name;
  return (name != nullptr && *name != '\0') ? std::string(name) : std::string("velmora");
}

// Never destroyed: lines logged from other objects' static destructors must
// still find a sink.
InstalledSlot<LogSink>& logSlot() {
  static auto* slot = new InstalledSlot<LogSink>([] {
    return std::make_shared<SystemLogSink>(systemLogSinkOptions(currentEnvironment(), journalAvailable()));
  });
  return *slot;
}

InstalledSlot<ConsoleSink>& consoleSlot() {
  static auto* slot = new InstalledSlot<ConsoleSink>([] {
    return std::make_shared<SystemConsoleSink>(STDERR_FILENO, journalAvailable(), programShortName());
  });
  return *slot;
}

// Writes all of text, retrying short writes and EINTR; gives up silently on
// any other error since a log line has nowhere else to go.
void writeAll(int fd, std::string_view text) {
  while (!text.empty()) {
    ssize_t n = ::write(fd, text.data(), text.size());
    if (n < 0) {
      if (errno == EINTR) continue;
      return;
    }
    text.remove_prefix(static_cast<std::size_t>(n));
  }
}

void sendToJournal(std::initializer_list<std::string> fields) {
  std::vector<iovec> iov;
  iov.reserve(fields.size());
  for (const std::string& f : fields) {
    iov.push_back(iovec{const_cast<char*>(f.data()), f.size()});
  }
  (void)sd_journal_sendv(iov.data(), static_cast<int>(iov.size()));
}

char asciiLower(char c) { return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c; }

}  // namespace

std::string quoteForLog(std::string_view text, std::size_t maxBytes) {
  if (text.size() <= maxBytes) return "\"" + std::string(text) + "\"";
  std::size_t cut = maxBytes;
  // Back up over UTF-8 continuation bytes so no character is split.
  while (cut > 0 && (static_cast<unsigned char>(text[cut]) & 0xC0) == 0x80) --cut;
  return "\"" + std::string(text.substr(0, cut)) + "\"... (" + std::to_string(text.size()) + " bytes)";
}

int journalPriority(LogLevel level) noexcept {
  switch (level) {
    case LogLevel::Debug: return 7;
    case LogLevel::Info: return 6;
    case LogLevel::Default: return 5;
    case LogLevel::Error: return 3;
    case LogLevel::Fault: return 2;
  }
  return 5;
}

std::string_view logLevelName(LogLevel level) noexcept {
  switch (level) {
    case LogLevel::Debug: return "debug";
    case LogLevel::Info: return "info";
    case LogLevel::Default: return "default";
    case LogLevel::Error: return "error";
    case LogLevel::Fault: return "fault";
  }
  return "default";
}

std::optional<LogLevel> parseLogLevel(std::string_view word) noexcept {
  for (LogLevel level : {LogLevel::Debug, LogLevel::Info, LogLevel::Default, LogLevel::Error, LogLevel::Fault}) {
    std::string_view name = logLevelName(level);
    if (name.size() != word.size()) continue;
    bool same = true;
    for (std::size_t i = 0; i < name.size() && same; ++i) same = asciiLower(word[i]) == name[i];
    if (same) return level;
  }
  return std::nullopt;
}

std::shared_ptr<LogSink> setLogSink(std::shared_ptr<LogSink> sink) { return logSlot().exchange(std::move(sink)); }

LogSink& currentLogSink() { return logSlot().get(); }

// ---------------------------------------------------------------------------

LogHandle::LogHandle(std::string subsystem, std::string category)
    : subsystem_(std::move(subsystem)), category_(std::move(category)) {}

void LogHandle::log(LogLevel level, std::string_view message) const {
  LogSink& sink = currentLogSink();
  if (sink.accepts(level)) sink.write(*this, level, message);
}

bool LogHandle::isEnabled(LogLevel level) const { return currentLogSink().accepts(level); }

void LogHandle::logf(LogLevel level, const char* format, ...) const {
  // Load the sink once so the check and the write see the same one.
  LogSink& sink = currentLogSink();
  if (!sink.accepts(level)) return;

  char small[512];
  va_list args;
  va_start(args, format);
  int n = std::vsnprintf(small, sizeof small, format, args);
  va_end(args);
  if (n < 0) return;
  if (static_cast<std::size_t>(n) < sizeof small) {
    sink.write(*this, level, std::string_view(small, static_cast<std::size_t>(n)));
    return;
  }
  std::string big(static_cast<std::size_t>(n) + 1, '\0');
  va_start(args, format);
  n = std::vsnprintf(big.data(), big.size(), format, args);
  va_end(args);
  if (n < 0) return;
  big.resize(static_cast<std::size_t>(n));
  sink.write(*this, level, big);
}

// ---------------------------------------------------------------------------

void CapturingLogSink::write(const LogHandle& handle, LogLevel level, std::string_view message) {
  CapturedLogLine line{handle.subsystem(), handle.category(), level, std::string(message)};
  std::lock_guard lock(mutex_);
  lines_.push_back(std::move(line));
}

std::vector<CapturedLogLine> CapturingLogSink::lines() const {
  std::lock_guard lock(mutex_);
  return lines_;
}

void CapturingLogSink::clear() {
  std::lock_guard lock(mutex_);
  lines_.clear();
}

bool CapturingLogSink::contains(std::string_view text) const {
  std::lock_guard lock(mutex_);
  for (const auto& line : lines_) {
    if (line.message.find(text) != std::string::npos) return true;
  }
  return false;
}

// ---------------------------------------------------------------------------

SystemLogSink::SystemLogSink(Options options) : options_(std::move(options)) {}

void SystemLogSink::write(const LogHandle& handle, LogLevel level, std::string_view message) {
  if (options_.backend == Backend::Journal) {
    std::string text("MESSAGE=");
    text.append(message);
    sendToJournal({std::move(text), "PRIORITY=" + std::to_string(journalPriority(level)),
                   "ZKV_SUBSYSTEM=" + handle.subsystem(), "ZKV_CATEGORY=" + handle.category(),
                   "SYSLOG_IDENTIFIER=" + options_.identifier});
    return;
  }
  writeAll(options_.streamFd, formatStreamLogLine(std::chrono::system_clock::now(), handle, level, message));
}

SystemLogSink::Options systemLogSinkOptions(const Environment& env, bool journal) {
  SystemLogSink::Options options;
  options.backend = journal ? SystemLogSink::Backend::Journal : SystemLogSink::Backend::Stream;
  options.streamFd = STDERR_FILENO;
  options.identifier = programShortName();
  if (auto word = env.getVariable("ZKV_LOG_LEVEL")) {
    if (auto level = parseLogLevel(*word)) options.threshold = *level;
  }
  return options;
}

bool journalAvailable() {
  static const bool available = ::access(kJournalSocketPath, F_OK) == 0;
  return available;
}

std::string formatLogTimestamp(std::chrono::system_clock::time_point time) {
  using namespace std::chrono;
  auto ms = floor<milliseconds>(time.time_since_epoch()).count();
  std::time_t seconds = static_cast<std::time_t>(ms >= 0 ? ms / 1000 : (ms - 999) / 1000);
  int millis = static_cast<int>(ms - static_cast<long long>(seconds) * 1000);
  std::tm tm{};
  gmtime_r(&seconds, &tm);
  char buf[48];
  std::snprintf(buf, sizeof buf, "%04d-%02d-%02dT%02d:%02d:%02d.%03dZ", tm.tm_year + 1900, tm.tm_mon + 1,
                tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec, millis);
  return buf;
}

std::string formatStreamLogLine(std::chrono::system_clock::time_point time, const LogHandle& handle,
                                LogLevel level, std::string_view message) {
  std::string line = formatLogTimestamp(time);
  line += ' ';
  line += logLevelName(level);
  line += ' ';
  line += handle.subsystem();
  line += '/';
  line += handle.category();
  line += ' ';
  line += message;
  line += '\n';
  return line;
}

// ---------------------------------------------------------------------------

SystemConsoleSink::SystemConsoleSink(int fd, bool toJournal, std::string program)
    : fd_(fd), toJournal_(toJournal), program_(std::move(program)) {}

void SystemConsoleSink::writeLine(std::string_view line) {
  writeAll(fd_, formatConsoleLine(std::chrono::system_clock::now(), program_, ::getpid(), line));
  if (toJournal_) {
    std::string text("MESSAGE=");
    text.append(line);
    sendToJournal({std::move(text), "PRIORITY=" + std::to_string(journalPriority(LogLevel::Default)),
                   "SYSLOG_IDENTIFIER=" + program_});
  }
}

void CapturingConsoleSink::writeLine(std::string_view line) {
  std::lock_guard lock(mutex_);
  lines_.emplace_back(line);
}

std::vector<std::string> CapturingConsoleSink::lines() const {
  std::lock_guard lock(mutex_);
  return lines_;
}

void CapturingConsoleSink::clear() {
  std::lock_guard lock(mutex_);
  lines_.clear();
}

bool CapturingConsoleSink::contains(std::string_view text) const {
  std::lock_guard lock(mutex_);
  for (const auto& line : lines_) {
    if (line.find(text) != std::string::npos) return true;
  }
  return false;
}

std::string formatConsoleLine(std::chrono::system_clock::time_point time, std::string_view program, pid_t pid,
                              std::string_view line) {
  std::string out = formatLogTimestamp(time);
  out += ' ';
  out += program;
  out += '[';
  out += std::to_string(pid);
  out += "] ";
  out += line;
  out += '\n';
  return out;
}

std::shared_ptr<ConsoleSink> setConsoleSink(std::shared_ptr<ConsoleSink> sink) {
  return consoleSlot().exchange(std::move(sink));
}

void consoleLog(std::string_view line) { consoleSlot().get().writeLine(line); }

}  // namespace velmora
