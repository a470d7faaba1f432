// PrivateBus: a session-like message bus of the test process's own, and the
// child processes (responders) the tests talk to over it.
//
// Design note
// - One bus per test process, started on first use: a dbus-daemon with a
//   generated configuration (session policy, a socket and an activation
//   directory in a fresh temporary directory). DBUS_SESSION_BUS_ADDRESS is
//   set before anything in the process opens a bus, so the code under test
//   reaches it as "the user's session bus". A gtest global environment stops
//   the daemon at the end of the run, and every child is started with a
//   parent-death signal so that none outlives a crashed test.
// - Threads. Start children and the bus from the test's main thread: the
//   parent-death signal fires when the starting thread ends. Everything else
//   is thread-safe only as far as each method says.
#pragma once

#include <signal.h>
#include <sys/types.h>

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "ScratchEnvironment.h"  // readFile, writePlistFile
#include "velmora/platform/PropertyList.h"

namespace velmora::testing {

// A child process. Killed (SIGKILL) and reaped on destruction if still alive.
// Not thread-safe: use each one from one thread at a time.
class ChildProcess {
 public:
  // Forks and execs argv (argv[0] is the path), with extraEnvironment
  // ("NAME=value") added, standard output on a pipe readLine() reads, and
  // the parent-death signal set. Returns nullptr when fork or the pipe fails;
  // an exec failure shows as exit status 127. Blocks briefly.
  static std::unique_ptr<ChildProcess> start(const std::vector<std::string>& argv,
                                             const std::vector<std::string>& extraEnvironment = {});
  ~ChildProcess();

  pid_t pid() const noexcept { return pid_; }

  // The next line of the child's standard output (without the newline), or
  // nullopt at end of output or after timeout. Blocks up to timeout.
  std::optional<std::string> readLine(std::chrono::milliseconds timeout);

  // Sends sig to the child (if not yet reaped).
  void signal(int sig) { if (pid_ > 0) ::kill(pid_, sig); }

  // Stops child, when there is one, with SIGTERM (SIGKILL after 10 s) and
  // resets it. Blocks until it is gone.
  static void stop(std::unique_ptr<ChildProcess>& child);

  // Waits up to timeout for the child to exit; its wait status, or nullopt
  // when it is still running. Blocks up to timeout.
  std::optional<int> waitForExit(std::chrono::milliseconds timeout);

 private:
  ChildProcess(pid_t pid, int stdoutFd) : pid_(pid), stdoutFd_(stdoutFd) {}

  pid_t pid_;                // the child; -1 once reaped
  int stdoutFd_;             // read end of the child's stdout, owned
};

// One dbus-daemon with a generated session-like configuration (a socket and
// an activation directory in a fresh temporary directory). Killed, and its
// directory removed, on destruction.
class BusDaemon {
 public:
  // Starts a daemon; nullptr when it does not come up within 10 s. Blocks.
  static std::unique_ptr<BusDaemon> start();

  const std::string& address() const noexcept { return address_; }
  // A fresh temporary directory removed with the daemon.
  std::string directory() const { return directory_.path().string(); }

  // Writes an activation file so that a request to name starts argv. The
  // daemon rescans its directory when it meets an unknown name. Blocks on
  // file I/O.
  void installService(const std::string& name, const std::vector<std::string>& argv);

 private:
  ScratchDirectory directory_{"velmora-bus"};  // outlives process_
  std::unique_ptr<ChildProcess> process_;
  std::string address_;
};

// The process's session bus for the tests: a BusDaemon whose address is
// DBUS_SESSION_BUS_ADDRESS.
class PrivateBus {
 public:
  // The process's private bus, started on first call (from the test's main
  // thread). Aborts the process with a message when the daemon cannot be
  // started: no test here can run without it.
  static PrivateBus& instance();

  // The running daemon. Valid until restart() or stop().
  const std::string& address() const noexcept { return daemon_->address(); }
  std::string directory() const { return daemon_->directory(); }
  void installService(const std::string& name, const std::vector<std::string>& argv) {
    daemon_->installService(name, argv);
  }

  // Kills the daemon and starts a new one at a new address, which becomes
  // DBUS_SESSION_BUS_ADDRESS: everyone connected sees the bus close. Blocks.
  void restart();

  // Kills the daemon. Idempotent; the global environment calls it at the end.
  void stop() { daemon_.reset(); }

 private:
  std::unique_ptr<BusDaemon> daemon_;
};

// The scripted responder executable built beside the tests.
std::string responderPath();

// Starts the scripted responder owning name, with extra arguments, on the
// bus at busAddress (the private session bus when empty), and waits (up to
// 10 s) for it to say it owns the name. Returns nullptr (after reporting a
// gtest failure) when it does not get ready.
std::unique_ptr<ChildProcess> startResponder(const std::string& name, const std::vector<std::string>& arguments = {},
                                             const std::string& busAddress = {});

// A bus name unique to this process and counter, under prefix.
std::string uniqueBusName(const std::string& prefix);

// One line of a responder's --timeline file.
struct ResponderArrival {
  std::chrono::steady_clock::time_point at;  // when it arrived
  std::string message;           // "-" when it had none
  std::string bundleIdentifier;  // "-" when it had none
};

// The complete lines of a --timeline file, oldest first; empty when it does
// not exist yet. Blocks on file I/O.
std::vector<ResponderArrival> readTimeline(const std::string& path);

// The requests a responder wrote with --record-plists DIR, decoded, in the
// order received (request-1, request-2, ... up to the first one missing).
// Blocks on file I/O.
std::vector<PropertyList> readRecordedRequests(const std::string& directory);

// Polls condition every few milliseconds until it holds or timeout passes;
// returns its last value. For waiting on other processes, not for timing.
bool waitUntil(const std::function<bool()>& condition, std::chrono::milliseconds timeout);

}  // namespace velmora::testing
