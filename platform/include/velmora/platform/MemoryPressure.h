// MemoryPressure: a process-wide memory-pressure warning that parts of the
// process (each cache that can give its memory up) receive on their own
// queues, behind a small interface with one Linux implementation.
//
// Design note
// - Signal. The Linux monitor watches the first of these that works:
//   1. $MEMORY_PRESSURE_WATCH, the service manager's choice: a pressure-stall
//      file (the base64-decoded $MEMORY_PRESSURE_WRITE, when set, is written
//      to it as the trigger, then POLLPRI reports events) or a FIFO (POLLIN;
//      whatever arrives is read and dropped). "/dev/null" turns watching off.
//   2. the memory.pressure file of the process's own cgroup (the "0::" line
//      of /proc/self/cgroup, under /sys/fs/cgroup), with kPressureTrigger;
//   3. /proc/pressure/memory with kPressureTrigger;
//   4. /proc/pressure/memory read every pollInterval (5 s by default), for
//      kernels that refuse unprivileged triggers: a warning whenever the
//      "some avg10" figure is at or above averageThreshold (10.0 percent by
//      default, i.e. tasks stalled on memory a tenth of the last ten
//      seconds; a quiet desktop stays well under 1).
//   raiseMemoryWarning() raises the same warning from the caller (tests, an
//   application reacting to its own signal).
// - Threads. One watch thread per monitor (so one for the process-wide
//   monitor), started when the first handler registers and stopped when the
//   last one is removed. It only queues work: each warning becomes one async
//   item per handler on that handler's queue, so no handler code runs on the
//   watch thread and the thread never waits for a handler.
// - Locks. A monitor's mutex_ guards its handler table and its watch thread
//   object; it is never held while a thread is joined or a handler runs.
//   Each handler's active flag is atomic: removal clears it, and a warning
//   already queued for the handler checks it before calling, so after
//   removal returns no new call starts (one already running finishes).
#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "velmora/platform/PropertyList.h"

namespace velmora {

class DispatchQueue;

// Identifies one handler registered with a monitor. Never 0 for a live one,
// never reused by that monitor.
using MemoryWarningToken = std::uint64_t;
inline constexpr MemoryWarningToken kNoMemoryWarningToken = 0;

class MemoryPressureMonitor {
 public:
  virtual ~MemoryPressureMonitor() = default;

  // Registers onWarning to run on queue (the main queue when null), once per
  // warning, until removed. The monitor owns onWarning until removal and the
  // last queued call have finished. Returns the token for
  // removeWarningHandler(); an empty onWarning registers nothing and returns
  // kNoMemoryWarningToken. May start the watch thread; never waits for
  // handlers. Any thread.
  virtual MemoryWarningToken addWarningHandler(std::shared_ptr<DispatchQueue> queue,
                                               std::function<void()> onWarning) = 0;

  // Ends deliveries to the handler: on return no call of it will start,
  // even for a warning already queued (a call running now finishes). Unknown
  // tokens are ignored. Removing the last handler stops the watch thread and
  // waits for it to leave (briefly: it never runs handler code). Any thread,
  // including from inside a handler.
  virtual void removeWarningHandler(MemoryWarningToken token) = 0;

  // Queues one call of every registered handler on its queue, as a warning
  // from the system would. Never blocks on handlers. Any thread.
  virtual void raiseMemoryWarning() = 0;
};

// A registration held by its owner: move-only; cancel() or destruction
// removes the handler from the monitor it was registered with (even when
// another monitor has been installed since).
class MemoryWarningRegistration {
 public:
  // An empty registration: cancel() does nothing, isActive() is false.
  MemoryWarningRegistration() = default;
  // Takes over token, registered with monitor (shared with the caller).
  MemoryWarningRegistration(std::shared_ptr<MemoryPressureMonitor> monitor, MemoryWarningToken token) noexcept;
  ~MemoryWarningRegistration();
  MemoryWarningRegistration(MemoryWarningRegistration&& other) noexcept;
  MemoryWarningRegistration& operator=(MemoryWarningRegistration&& other) noexcept;
  MemoryWarningRegistration(const MemoryWarningRegistration&) = delete;
  MemoryWarningRegistration& operator=(const MemoryWarningRegistration&) = delete;

  // removeWarningHandler() on the registering monitor, once; later calls do
  // nothing. Same blocking rules. Not to be called concurrently on one
  // registration.
  void cancel();

  // Whether the registration still stands (not empty, not cancelled).
  bool isActive() const noexcept { return token_ != kNoMemoryWarningToken; }

 private:
  std::shared_ptr<MemoryPressureMonitor> monitor_;  // owner's thread; null once cancelled
  MemoryWarningToken token_ = kNoMemoryWarningToken;  // owner's thread
};

// ---------------------------------------------------------------------------
// Where the Linux monitor looks.

// The trigger written to pressure-stall files: report when tasks stall on
// memory for 100 ms within a 2 s window. The window is a multiple of 2 s so
// that the kernel accepts the trigger from an unprivileged process.
inline constexpr std::string_view kPressureTrigger = "some 100000 2000000";

// One place a warning can come from.
struct MemoryPressureWatch {
  enum class Kind : std::uint8_t {
    Disabled,     // watching is turned off ($MEMORY_PRESSURE_WATCH=/dev/null)
    Trigger,      // write trigger (when not empty), then POLLPRI; a FIFO: POLLIN
    AveragePoll,  // read the file's "some avg10" every pollInterval
  };
  Kind kind = Kind::Disabled;
  std::filesystem::path path;  // the file as seen from the real root
  Bytes trigger;               // Trigger only: written once after opening

  bool operator==(const MemoryPressureWatch&) const = default;
};

// The candidates in order of preference, by the rule in the design note,
// for a file system whose root is root (normally "/") and the given
// environment variables (only MEMORY_PRESSURE_WATCH and
// MEMORY_PRESSURE_WRITE are read). Absolute paths from the variables and
// from the cgroup file are taken below root. Reads root/proc/self/cgroup
// only; does not test the other paths. A MEMORY_PRESSURE_WRITE that is not
// valid base64 drops the variable's candidate. Any thread.
std::vector<MemoryPressureWatch> memoryPressureWatchCandidates(
    const std::filesystem::path& root, const std::map<std::string, std::string, std::less<>>& variables);

// An opened watch: the descriptor to poll (owned by the holder) and how.
struct OpenedMemoryPressureWatch {
  enum class Mode : std::uint8_t {
    None,      // nothing to watch (Disabled): only raiseMemoryWarning() warns
    Priority,  // poll for POLLPRI
    Readable,  // poll for POLLIN, then drain
    Average,   // reread on a timer
  };
  int fd = -1;
  Mode mode = Mode::None;
  std::size_t index = 0;  // which candidate it is
};

// Opens the first candidate, from index first on, that works: a Disabled
// one; a Trigger file that opens read-write and takes its trigger whole (a
// FIFO needs no trigger); an AveragePoll file whose text holds a "some
// avg10" figure. nullopt when none works. The caller owns the descriptor.
// Blocks on file I/O only. Any thread.
std::optional<OpenedMemoryPressureWatch> openMemoryPressureWatch(const std::vector<MemoryPressureWatch>& candidates,
                                                                 std::size_t first = 0);

// The "some avg10=" figure of pressure-stall text (percent), or nullopt.
// Pure.
std::optional<double> parsePressureAverage10(std::string_view text);

// Standard base64 (padding optional, ASCII whitespace ignored); nullopt for
// anything else. Pure.
std::optional<Bytes> decodeBase64(std::string_view text);

// ---------------------------------------------------------------------------
// The Linux monitor.

struct LinuxMemoryPressureOptions {
  // Whether the watch thread watches the kernel at all; false leaves only
  // raiseMemoryWarning() (tests that must not see real pressure).
  bool watchSystem = true;
  // The root and variables candidates are discovered under; variables
  // default to the process environment, read when the thread starts.
  std::filesystem::path root = "/";
  std::optional<std::map<std::string, std::string, std::less<>>> variables;
  // Replaces discovery when set.
  std::optional<std::vector<MemoryPressureWatch>> watches;
  // How long the watch thread waits before it arms a kernel trigger. The
  // process-wide monitor waits a few seconds: a short-lived process (a
  // command-line tool) then never arms one, and so never pays the kernel's
  // slow trigger removal at exit; its caches are too young to give up anyway.
  std::chrono::milliseconds armDelay{0};
  // AveragePoll only.
  std::chrono::milliseconds pollInterval{5000};
  double averageThreshold = 10.0;
};

class LinuxMemoryPressureMonitor final : public MemoryPressureMonitor {
 public:
  explicit LinuxMemoryPressureMonitor(LinuxMemoryPressureOptions options = {});
  // Stops the watch thread if it runs. Queued calls of handlers may still run
  // afterwards (they do not touch the monitor).
  ~LinuxMemoryPressureMonitor() override;
  LinuxMemoryPressureMonitor(const LinuxMemoryPressureMonitor&) = delete;
  LinuxMemoryPressureMonitor& operator=(const LinuxMemoryPressureMonitor&) = delete;

  MemoryWarningToken addWarningHandler(std::shared_ptr<DispatchQueue> queue, std::function<void()> onWarning) override;
  void removeWarningHandler(MemoryWarningToken token) override;
  void raiseMemoryWarning() override;

  // Whether the watch thread exists now. Any thread.
  bool isWatching() const;
  // The candidate the watch thread is watching, once it has opened one;
  // nullopt before, when none works, and when no thread runs. Any thread.
  std::optional<MemoryPressureWatch> activeWatch() const;

 private:
  struct Handler;
  struct WatchThread;

  // The watch thread's body.
  void watch(WatchThread& thread);

  const LinuxMemoryPressureOptions options_;  // immutable
  mutable std::mutex mutex_;  // guards the three fields below
  std::map<MemoryWarningToken, std::shared_ptr<Handler>> handlers_;  // guarded by mutex_
  MemoryWarningToken nextToken_ = 1;                                 // guarded by mutex_
  std::shared_ptr<WatchThread> thread_;  // guarded by mutex_; null when nobody listens
};

// The process-wide monitor (a LinuxMemoryPressureMonitor with default options
// until one is installed). Any thread; monitors are kept alive until exit.
std::shared_ptr<MemoryPressureMonitor> currentMemoryPressureMonitor();

// Installs the process-wide monitor and returns the previous one (never
// null); nullptr reinstates the default. Registrations made earlier stay with
// the monitor they were made with. Any thread.
std::shared_ptr<MemoryPressureMonitor> setMemoryPressureMonitor(std::shared_ptr<MemoryPressureMonitor> monitor);

// Registers onWarning with the current monitor (see addWarningHandler). The
// caller owns the registration; an empty onWarning gives an empty one.
MemoryWarningRegistration observeMemoryWarnings(std::shared_ptr<DispatchQueue> queue, std::function<void()> onWarning);

// currentMemoryPressureMonitor()->raiseMemoryWarning(). Any thread.
void raiseMemoryWarning();

}  // namespace velmora
