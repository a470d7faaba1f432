// Structured log: handles that carry a subsystem and a category, and the
// process-wide sink their lines go to.
//
// The sink is installable so a test can capture exact log lines. The default
// sink (SystemLogSink) picks its backend once per process: the system journal
// when its socket exists, otherwise one text line per message on stderr.
//
// Threshold: both backends drop lines below the level named by ZKV_LOG_LEVEL
// (debug|info|default|error|fault), read once when the default sink is made;
// without it (or with an unknown word) the threshold is Default, so debug and
// info lines are hidden. The journal gets no more than stderr would: a
// developer lowers the threshold for both with one variable.
#pragma once

#include <chrono>
#include <cstddef>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <sys/types.h>
#include <vector>

#include "velmora/platform/Export.h"

namespace velmora {

class Environment;

// Severity, lowest first (the order is used for thresholds).
enum class LogLevel { Debug, Info, Default, Error, Fault };

// The journal priority of a level: Debug 7, Info 6, Default 5 (notice),
// Error 3, Fault 2. Pure; any thread.
int journalPriority(LogLevel level) noexcept;

// The lowercase word for a level ("debug", "info", "default", "error",
// "fault"), a static string. Pure; any thread.
std::string_view logLevelName(LogLevel level) noexcept;

// Parses one of the lowercase words above (ASCII case ignored); nullopt for
// anything else. Pure; any thread.
std::optional<LogLevel> parseLogLevel(std::string_view word) noexcept;

// text in double quotes for a log line or an error message, cut to its
// first maxBytes bytes (at a character boundary) with the full length
// noted, so that a hostile key or value cannot flood the log. Pure; any thread.
std::string quoteForLog(std::string_view text, std::size_t maxBytes = 80);

class LogHandle;

// Where log lines go. Implementations must be safe to call from any number of
// threads at once; write() may block on I/O.
class LogSink {
 public:
  virtual ~LogSink() = default;
  // Records one line. Called only for levels accepts() returned true for.
  virtual void write(const LogHandle& handle, LogLevel level, std::string_view message) = 0;
  // Cheap check whether a line at this level would be recorded; callers use it
  // to skip formatting. The default accepts everything.
  virtual bool accepts(LogLevel level) const { (void)level; return true; }
};

// Installs the process-wide sink and returns the previous one (never null).
// nullptr reinstates the system default sink. Any thread; does not block on
// logging threads. Every sink ever installed is kept alive until the process
// exits, so a thread still writing to the old sink finishes safely; the caller
// shares ownership of the returned sink.
std::shared_ptr<LogSink> setLogSink(std::shared_ptr<LogSink> sink);

// The sink lines go to now (the system default until one is installed).
// Any thread; the reference stays valid for the life of the process.
LogSink& currentLogSink();

// A named log channel: a subsystem (reverse-DNS text) and a category. Cheap to
// copy; immutable, so one handle may be used from any thread.
class VELMORA_EXPORT LogHandle {
 public:
  LogHandle(std::string subsystem, std::string category);

  const std::string& subsystem() const noexcept { return subsystem_; }
  const std::string& category() const noexcept { return category_; }

  // Sends message to the current sink when it accepts the level; otherwise
  // does nothing. Any thread; may block on the sink's I/O.
  void log(LogLevel level, std::string_view message) const;

  // Whether a line at this level would be recorded: one atomic load and one
  // virtual call, so callers can skip building debug text. Any thread.
  bool isEnabled(LogLevel level) const;

  // printf-style log(): formats only when the level is enabled. A format
  // error logs nothing. Any thread.
  void logf(LogLevel level, const char* format, ...) const __attribute__((format(printf, 3, 4)));

 private:
  std::string subsystem_;  // immutable after construction
  std::string category_;   // immutable after construction
};

// One captured line.
struct CapturedLogLine {
  std::string subsystem;
  std::string category;
  LogLevel level;
  std::string message;

  bool operator==(const CapturedLogLine&) const = default;
};

// A sink that keeps every line in memory, for tests. Accepts every level.
// Thread-safe.
class CapturingLogSink final : public LogSink {
 public:
  void write(const LogHandle& handle, LogLevel level, std::string_view message) override;
  bool accepts(LogLevel) const override { return true; }

  // A copy of the lines so far, oldest first.
  std::vector<CapturedLogLine> lines() const;
  // Forgets the lines so far.
  void clear();
  // Whether any captured message contains text.
  bool contains(std::string_view text) const;

 private:
  mutable std::mutex mutex_;
  std::vector<CapturedLogLine> lines_;  // guarded by mutex_
};

// The system sink. Backend and threshold are fixed at construction; use
// systemLogSinkOptions() for the process's own choice.
class SystemLogSink final : public LogSink {
 public:
  enum class Backend {
    Journal,  // one journal entry per line, with the handle's fields
    Stream,   // one text line per message, written to streamFd
  };

  struct Options {
    Backend backend = Backend::Stream;
    LogLevel threshold = LogLevel::Default;
    int streamFd = 2;          // Stream only; not owned, must outlive the sink
    std::string identifier;    // Journal only: the program name it is filed under
  };

  explicit SystemLogSink(Options options);

  // Journal: sends MESSAGE, PRIORITY, ZKV_SUBSYSTEM, ZKV_CATEGORY and
  // SYSLOG_IDENTIFIER; a failed send is dropped (there is nowhere to report
  // it). Stream: writes formatStreamLogLine() with one write(2) call so lines
  // from different threads do not interleave. Any thread; blocks on I/O.
  void write(const LogHandle& handle, LogLevel level, std::string_view message) override;
  bool accepts(LogLevel level) const override { return level >= options_.threshold; }

  const Options& options() const noexcept { return options_; }

 private:
  const Options options_;  // immutable
};

// The options the default sink is made with: Journal when journalAvailable,
// Stream to stderr otherwise; threshold from ZKV_LOG_LEVEL in env (Default
// when unset or unknown); identifier = the program's short name. Pure apart
// from reading env; any thread.
SystemLogSink::Options systemLogSinkOptions(const Environment& env, bool journalAvailable);

// Whether the journal socket (/run/systemd/journal/socket) exists. Checked
// once per process, then cached. Any thread.
bool journalAvailable();

// "YYYY-MM-DDTHH:MM:SS.mmmZ" in UTC, milliseconds truncated. Pure.
std::string formatLogTimestamp(std::chrono::system_clock::time_point time);

// The Stream backend's line: "time level subsystem/category message\n".
// Pure.
std::string formatStreamLogLine(std::chrono::system_clock::time_point time, const LogHandle& handle,
                                LogLevel level, std::string_view message);

// ---------------------------------------------------------------------------
// Console log: free-form lines meant for a developer watching the terminal.

// Where console lines go. Implementations must be thread-safe.
class ConsoleSink {
 public:
  virtual ~ConsoleSink() = default;
  // Records one unformatted line. Any thread; may block on I/O.
  virtual void writeLine(std::string_view line) = 0;
};

// Writes "time program[pid] line\n" to a file descriptor and, when
// toJournal, sends the bare line to the journal at Default priority.
class SystemConsoleSink final : public ConsoleSink {
 public:
  // fd is not owned and must outlive the sink; program is the name shown.
  SystemConsoleSink(int fd, bool toJournal, std::string program);
  void writeLine(std::string_view line) override;

 private:
  const int fd_;                // immutable
  const bool toJournal_;        // immutable
  const std::string program_;   // immutable
};

// Keeps console lines in memory, for tests. Thread-safe.
class CapturingConsoleSink final : public ConsoleSink {
 public:
  void writeLine(std::string_view line) override;
  std::vector<std::string> lines() const;
  void clear();
  bool contains(std::string_view text) const;

 private:
  mutable std::mutex mutex_;
  std::vector<std::string> lines_;  // guarded by mutex_
};

// The console line as written to the terminal: "time program[pid] line\n".
// Pure.
std::string formatConsoleLine(std::chrono::system_clock::time_point time, std::string_view program,
                              pid_t pid, std::string_view line);

// Installs the process-wide console sink, returning the previous one (never
// null); nullptr reinstates the default (stderr, plus the journal when it is
// available). Same lifetime rule as setLogSink. Any thread.
std::shared_ptr<ConsoleSink> setConsoleSink(std::shared_ptr<ConsoleSink> sink);

// Sends one line to the current console sink. Any thread; may block on I/O.
void consoleLog(std::string_view line);

}  // namespace velmora
