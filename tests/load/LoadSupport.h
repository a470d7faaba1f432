// LoadSupport: the parts of simulated devices that the load driver and the
// fault tests share: a device (a scratch home and a session bus at a fixed
// socket path, with velmorad activatable, that can be killed and started
// again), the faults a store directory can suffer, reading a store file the
// way the daemon wrote it, and a proxy that cuts the route to the sync
// server (the server itself is the test library's SyncServer).
//
// Design note
// - Processes are the test library's ChildProcess (parent-death signal, so
//   none outlives a crashed driver or test: start them from the thread that
//   lives longest); spawn() sends a child's standard error to a log file.
// - Threads. Only PausableProxy starts a thread (its relay loop); its
//   methods are thread-safe. Every other
//   object is used from one thread at a time; the free functions are
//   thread-safe.
// - Mounts. Faults that need mount(2) (a read-only bind mount when running
//   as root, a tmpfs for a full disk) fail with errno EPERM or EACCES when
//   the process may not mount; callers skip such a fault.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "PrivateBus.h"  // ChildProcess
#include "velmora/platform/PropertyList.h"

namespace velmora::load {

using velmora::testing::ChildProcess;

// Starts argv with extraEnvironment ("NAME=value") added and, when log is
// not empty, its standard error appended to log. nullptr when it cannot fork.
std::unique_ptr<ChildProcess> spawn(const std::vector<std::string>& argv,
                                    const std::vector<std::string>& extraEnvironment, const std::string& log);

// The processes named comm with entry among their environment variables or
// arguments ("HOME=/x" finds a device's processes, a database path its
// server), in ascending order. A process already gone (a zombie) has neither.
std::vector<pid_t> processesWith(const std::string& entry, const std::string& comm = "");

// One machine: directory/home with its store directory (and its account
// file under .config), and a dbus-daemon (the standard session
// configuration) listening on directory/bus with velmorad activatable.
// Clients use address, which names the socket path and no bus GUID, so that
// a bus started again at the same path is the same bus to them, as a login
// session's clients find theirs at $XDG_RUNTIME_DIR/bus. The bus is killed
// on destruction; the directory is left to the caller.
class Device {
 public:
  // Makes the directories and starts the bus; nullptr (with *error) when it
  // does not come up within 10 s. Blocks.
  static std::unique_ptr<Device> start(const std::string& directory, const std::string& serviceFile,
                                       std::string* error);

  std::string directory, home, storeDirectory, address;
  // HOME, XDG_CONFIG_HOME, XDG_DATA_HOME (the activation files) and
  // DBUS_SESSION_BUS_ADDRESS of a process on this device.
  std::vector<std::string> environment() const;
  // The daemon serving it now (the newest when an old one is still leaving); 0 when none.
  pid_t daemonPid() const;
  // SIGTERM to the daemon; waits (up to 10 s) for it to leave.
  void stopDaemon() const;
  // SIGKILL, the way a crash takes it: every connection sees the bus close.
  void killBus() { bus_.reset(); }
  // Starts the bus (again) at the same socket path; false with *error.
  bool startBus(std::string* error);

 private:
  std::unique_ptr<ChildProcess> bus_;  // null while down
};

// Makes a store directory read-only (on) or writable again (mode 0700): a
// read-only bind mount over itself when running as root (permission bits
// do not stop root), its permission bits otherwise. 0, or the errno.
int setReadOnly(const std::string& directory, bool on);

// Mounts a tmpfs of bytes on directory (a store directory, before anything
// writes there); 0, or the errno. The caller unmounts it (umount2).
int mountSmallDisk(const std::string& directory, std::uint64_t bytes);
// Fills the file system of directory with a filler file until not even a
// byte fits (true), or removes the filler (full false). Sets errno on failure.
bool fillDisk(const std::string& directory, bool full);

// A TCP relay on 127.0.0.1 to a port on loopback, standing in for the
// network between devices and a server. cut(Hold): nothing moves; open
// connections stay open with their bytes waiting (as over a dead link TCP
// keeps retrying), new ones wait in the listen queue; all of it goes through
// on resume(), late. cut(Drop): every open connection is reset and each new
// one as soon as it arrives, as when a route's state is lost. Stopped on
// destruction.
class PausableProxy {
 public:
  enum class Cut { None, Hold, Drop };

  // Listens on a free port of 127.0.0.1; nullptr when it cannot.
  static std::unique_ptr<PausableProxy> start(int targetPort);
  ~PausableProxy();

  std::string url() const { return "http://127.0.0.1:" + std::to_string(port_); }
  void cut(Cut how) { mode_ = how; }
  void resume() { mode_ = Cut::None; }
  // Connections reset by Drop cuts so far.
  std::uint64_t connectionsReset() const { return resets_; }

 private:
  // The relay loop, on thread_: accepts, connects, copies, cuts.
  void relay();

  int listenFd_ = -1, port_ = 0, targetPort_ = 0;  // immutable once thread_ runs
  std::atomic<Cut> mode_{Cut::None};
  std::atomic<bool> stopping_{false};
  std::atomic<std::uint64_t> resets_{0};
  std::thread thread_;
};

// The values of the store file at path, each decoded from its storage
// record (none when the record does not decode); nullopt when the file is
// missing or not a store dictionary. Blocks on file I/O.
std::optional<PlistDictionary> storeValues(const std::string& path);

// Files in directory that are not store files ("*.plist"), their lock files,
// the file a write just replaced or fillDisk's filler: left-over temporaries
// of an interrupted write, or files set aside as damaged. Sorted.
std::vector<std::string> strayFiles(const std::string& directory);

}  // namespace velmora::load
