// LoadSupport: the parts of simulated devices that the load driver and the
// fault tests share: a session bus at a fixed socket path that can be killed
// and started again, child processes, bus queries that survive a restarted
// bus, the faults a store directory can suffer, reading a store file the way
// the daemon wrote it, and between devices the sync server as a process that
// can be killed and started again and a proxy that cuts the route to it.
//
// Design note
// - Threads. Only PausableProxy starts a thread (its relay, which owns every
//   socket of the proxy); its methods are thread-safe. Every other object is
//   used from one thread at a time; the free functions are thread-safe.
// - Children get a parent-death signal, so none outlives a crashed driver or
//   test; start them from the thread that lives longest (the signal follows
//   the starting thread).
// - Mounts. Faults that need mount(2) (a read-only bind mount when running
//   as root, a tmpfs for a full disk) report "not permitted" instead of
//   failing when the process may not mount; callers skip such a fault.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "velmora/platform/PropertyList.h"

namespace velmora::load {

// CLOCK_MONOTONIC in nanoseconds: comparable between processes of one
// machine, so a writer's and a watcher's timestamps can be subtracted.
std::int64_t monotonicNanos();

// A child process: standard input on a pipe (when asked), standard output on
// a pipe readLine() reads, standard error appended to a file (or inherited).
// Killed (SIGKILL) and reaped on destruction if still running.
class Child {
 public:
  struct Options {
    std::vector<std::string> extraEnvironment;  // "NAME=value", replacing inherited ones of that name
    std::string stderrPath;                     // empty: inherit
    bool pipeStdin = false;                     // false: /dev/null
  };
  // Forks and execs argv (argv[0] is a path). nullptr when fork or a pipe
  // fails (*error says why); an exec failure shows as exit status 127.
  static std::unique_ptr<Child> start(const std::vector<std::string>& argv, const Options& options,
                                      std::string* error);
  ~Child();
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;

  pid_t pid() const noexcept { return pid_; }
  bool running();
  // The next line of standard output (without the newline); nullopt at end of
  // output or after timeout. Blocks up to timeout.
  std::optional<std::string> readLine(std::chrono::milliseconds timeout);
  // Writes line and a newline to standard input; false when it is closed.
  bool writeLine(const std::string& line);
  void closeStdin();
  void signal(int sig);
  // Waits up to timeout; the wait status, or nullopt while it still runs.
  std::optional<int> waitForExit(std::chrono::milliseconds timeout);
  // The wait status once reaped; nullopt before.
  std::optional<int> status() const noexcept { return status_; }

 private:
  Child() = default;

  pid_t pid_ = -1;             // -1 once reaped
  int stdinFd_ = -1;           // write end, owned; -1 when closed
  int stdoutFd_ = -1;          // read end, owned
  std::string buffered_;       // output read past the last line returned
  std::optional<int> status_;  // set when reaped
};

// "exited 0", "killed by signal 9", ...: a wait status for messages.
std::string describeStatus(int status);

// A dbus-daemon with a session configuration, listening on <directory>/bus
// and activating services from <directory>/services. Clients use address(),
// which names the socket path and no bus GUID, so that a bus started again at
// the same path is the same bus to them: that is how a client finds the new
// bus after a restart, as a login session's clients find theirs at
// $XDG_RUNTIME_DIR/bus. The daemon's environment is the caller's with
// environment added: activated services inherit it (HOME, for the store
// daemon). Killed on destruction; the directory is left to the caller.
class SessionBus {
 public:
  // Writes the configuration and starts the daemon; nullptr (with *error)
  // when it does not come up within 10 s. Blocks.
  static std::unique_ptr<SessionBus> start(const std::string& directory, std::vector<std::string> environment,
                                           std::string* error);
  ~SessionBus();
  SessionBus(const SessionBus&) = delete;
  SessionBus& operator=(const SessionBus&) = delete;

  const std::string& address() const noexcept { return address_; }
  std::string socketPath() const { return directory_ + "/bus"; }
  std::string serviceDirectory() const { return directory_ + "/services"; }
  // The daemon's pid; -1 while it is down.
  pid_t pid() const noexcept { return process_ ? process_->pid() : -1; }
  bool running() const noexcept { return process_ != nullptr; }

  // Copies an activation file (a "[D-BUS Service]" file) into the activation
  // directory. False (with *error) when it cannot be read or written.
  bool installServiceFile(const std::string& path, std::string* error);

  // SIGKILL, the way a crash takes it: every connection sees the bus close.
  // Waits for it to be reaped. Idempotent.
  void kill();
  // Starts the daemon again at the same socket path (after kill()); false
  // with *error when it does not come up. Blocks.
  bool restart(std::string* error);

 private:
  SessionBus() = default;
  bool launch(std::string* error);

  std::string directory_;
  std::string address_;
  std::vector<std::string> environment_;
  std::unique_ptr<Child> process_;  // null while down
};

// Through a connection of its own made for the one call, so that it works
// across bus restarts. The pid owning name on the bus at address; 0 when
// nobody owns it or the bus cannot be reached. Blocks for one round trip.
pid_t busNameOwnerPid(const std::string& address, const std::string& name);

// velmora-server serving on loopback over the storage given ({"--sqlite",
// PATH} or {"--postgres", CONNINFO}), its standard error appended to a log
// file. The first start picks a free port; later ones reuse it, so that
// devices find the server where it was, and the storage, so that it is the
// same server. Killed on destruction.
class SyncServerProcess {
 public:
  SyncServerProcess(std::string binary, std::vector<std::string> storage, std::string logPath)
      : binary_(std::move(binary)), storage_(std::move(storage)), logPath_(std::move(logPath)) {}
  ~SyncServerProcess() { kill(); }
  SyncServerProcess(const SyncServerProcess&) = delete;
  SyncServerProcess& operator=(const SyncServerProcess&) = delete;

  // Starts it and waits (up to 20 s, retrying while the old port is still
  // being let go) for its "listening on" line. False with *error when it
  // did not come up. Blocks.
  bool start(std::string* error);
  // SIGKILL, the way a crash or a power cut takes it; reaped. Idempotent.
  void kill();
  // SIGTERM (it finishes the requests in flight), SIGKILL after 10 s.
  void stop();
  // A new account's token, from "velmora-server account add"; empty with
  // *error when none came. Blocks for the tool.
  std::string addAccount(const std::string& name, std::string* error);

  int port() const noexcept { return port_; }
  std::string url() const { return "http://127.0.0.1:" + std::to_string(port_); }
  pid_t pid() const noexcept { return process_ ? process_->pid() : -1; }
  bool running() const noexcept { return process_ != nullptr; }

 private:
  const std::string binary_;
  const std::vector<std::string> storage_;
  const std::string logPath_;
  int port_ = 0;
  std::unique_ptr<Child> process_;  // null while down
};

// A TCP relay on 127.0.0.1 to a port on loopback, standing in for the
// network between devices and a server: cut() takes the route away, resume()
// gives it back. Two ways to cut it:
// - Hold: nothing moves. Open connections stay open with their bytes waiting
//   (as over a dead link TCP keeps retrying), new ones wait in the listen
//   queue; all of it goes through on resume(), late.
// - Drop: every open connection is reset and each new one is reset as soon as
//   it arrives, as when a route's state is lost.
// One relay thread owns every socket; the methods only post to it and never
// wait for the network. Stopped (all sockets closed) on destruction.
class PausableProxy {
 public:
  enum class Cut { Hold, Drop };

  // Listens on a free port of 127.0.0.1 and relays each connection to
  // 127.0.0.1:targetPort. nullptr with *error when it cannot listen.
  static std::unique_ptr<PausableProxy> start(int targetPort, std::string* error);
  ~PausableProxy();
  PausableProxy(const PausableProxy&) = delete;
  PausableProxy& operator=(const PausableProxy&) = delete;

  int port() const noexcept { return port_; }
  std::string url() const { return "http://127.0.0.1:" + std::to_string(port_); }
  // Cuts the route (see Cut); takes effect on the relay thread at once.
  void cut(Cut how);
  // Relays again.
  void resume();
  // Connections reset by Drop cuts so far.
  std::uint64_t connectionsReset() const;

  struct Shared;  // the relay thread's state (LoadSupport.cpp only)

 private:
  PausableProxy() = default;

  int port_ = 0;
  std::shared_ptr<Shared> shared_;  // the state the relay thread shares with the methods
  std::thread relay_;
};

// The resident set size of pid in bytes (VmRSS); 0 when it is gone.
std::uint64_t residentBytes(pid_t pid);

// The store directory made read-only: a read-only bind mount over itself
// when the process runs as root (permission bits do not stop root), its
// permission bits otherwise. The directory must exist. Undone by restore()
// or destruction.
class ReadOnlyDirectory {
 public:
  // nullptr with *error, and *notPermitted set when mounting is refused.
  static std::unique_ptr<ReadOnlyDirectory> make(const std::string& directory, std::string* error,
                                                 bool* notPermitted);
  ~ReadOnlyDirectory();
  ReadOnlyDirectory(const ReadOnlyDirectory&) = delete;
  ReadOnlyDirectory& operator=(const ReadOnlyDirectory&) = delete;

  // Makes it writable again; idempotent. False with *error on failure.
  bool restore(std::string* error);

 private:
  ReadOnlyDirectory() = default;

  std::string directory_;
  bool mounted_ = false;   // a bind mount is in place
  mode_t oldMode_ = 0;     // the bits to put back (permission-bit mode)
  bool chmodded_ = false;  // the bits are changed
};

// A small tmpfs mounted on a directory (the store directory, made before
// anything writes there), whose space fill() uses up and release() gives
// back. Unmounted on destruction (lazily: a process may still hold it).
class SmallFilesystem {
 public:
  // nullptr with *error, and *notPermitted set when mounting is refused.
  static std::unique_ptr<SmallFilesystem> mount(const std::string& directory, std::uint64_t bytes,
                                                std::string* error, bool* notPermitted);
  ~SmallFilesystem();
  SmallFilesystem(const SmallFilesystem&) = delete;
  SmallFilesystem& operator=(const SmallFilesystem&) = delete;

  // Writes a filler file until the file system refuses more (ENOSPC).
  // False with *error when it fails for another reason.
  bool fill(std::string* error);
  // Removes the filler; idempotent.
  void release();
  // Bytes still free.
  std::uint64_t freeBytes() const;

 private:
  SmallFilesystem() = default;

  std::string directory_;
  std::string filler_;  // the filler file's path
};

// A store file as the daemon wrote it.
struct StoreFile {
  std::int64_t changeCount = 0;
  std::map<std::string, velmora::PropertyList> values;  // key -> the value inside its storage record
  std::vector<std::string> badRecords;                  // keys whose record does not decode
};

// Reads and decodes the store file at path with the platform's property-list
// reader and the storage-record toolkit. nullopt (with *error) when it is
// missing or not a store dictionary. Blocks on file I/O.
std::optional<StoreFile> readStoreFile(const std::string& path, std::string* error);

// Files in directory that are not store files ("*.plist"): left-over
// temporaries of an interrupted write, or files set aside as damaged.
std::vector<std::string> strayFiles(const std::string& directory);

// The value at fraction p (0..1) of values by nearest rank; 0 when empty.
// Sorts values.
double percentile(std::vector<double>& values, double p);

}  // namespace velmora::load
