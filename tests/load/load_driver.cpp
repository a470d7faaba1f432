// velmora_load: load and fault runs against the real daemon on a private
// session bus. One binary, three roles:
//
//   velmora_load run [options]     the orchestrator: starts a device (a home
//                                  directory, a bus with velmorad activatable),
//                                  the application and watcher processes,
//                                  injects faults, checks and reports
//   velmora_load writer ...        one application: one store, one key
//                                  written per synchronize
//   velmora_load watcher ...       one application observing other
//                                  applications' stores on its main queue
//   velmora_load account ...       logs a device's daemon into the sync
//                                  server, or prints its sync status
//
// Design note
// - Processes. The orchestrator's main thread starts every child (their
//   parent-death signal follows it), talks to them over pipes ("ready", "go",
//   "stop") and reads what they did from their result files once they are
//   done. A watchdog thread ends the whole run loudly when the global
//   deadline passes: that is how a deadlock shows. It shares only the table
//   of processes (trackedMutex) with the main thread.
// - Clocks. Every timestamp is CLOCK_MONOTONIC in nanoseconds, comparable
//   across the processes of one machine: the notification latency is a
//   watcher's observer time minus the writer's synchronize return.
// - Keys. Writer sequence number s writes key "k<s mod cycle>" with the text
//   "<application>#<s>", so every write is checkable in the final file: a
//   key must hold the last acknowledged write to it or a later one. A load
//   run writes every key once (warm-up), then again (the run), so the
//   daemon's memory is compared at equal store sizes. Each application's
//   store has one writer, so any change its writer hears of is an echo of
//   its own writes.
// - Devices. Everything that belongs to one machine (home, store directory,
//   bus, daemon) is a Device; a run has one or two. With two, a
//   velmora-server on loopback (a scratch SQLite database) serves one
//   account both daemons are logged into; application a writes on device
//   a mod 2 only, and each watcher sits on the device that does not write
//   the stores it watches, so every change it hears of came through the
//   server. A write counts once its synchronize returned on its own device;
//   the run then waits for both devices' files to agree (convergence) and
//   checks them both. The server's faults: killed and started again on its
//   port and database, and the route to it cut by a pausable proxy on
//   loopback (PausableProxy) that the daemons log in through.
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cinttypes>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "LoadSupport.h"
#include "velmora/platform/Dispatch.h"
#include "zkv/NimbrelStore.h"
#include "zkv/ZKVAccount.h"
#include "zkv/ZKVRemotePreferencesSource.h"

#ifndef VELMORAD_SERVICE_FILE
#error "VELMORAD_SERVICE_FILE must name the daemon's configured activation file"
#endif
#ifndef VELMORA_SERVER_PATH
#error "VELMORA_SERVER_PATH must name the velmora-server binary"
#endif

namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using velmora::load::Child;
using velmora::load::monotonicNanos;
using velmora::load::SessionBus;

constexpr const char* kServiceName = "com.vantrel.velmorad-sim";
constexpr const char* kAppPrefix = "com.example.load.app";
constexpr std::int64_t kNanosPerMilli = 1'000'000;

double millis(std::int64_t nanos) { return static_cast<double>(nanos) / 1e6; }
double seconds(std::int64_t nanos) { return static_cast<double>(nanos) / 1e9; }

std::string appName(int index) { return kAppPrefix + std::to_string(index); }

std::string keyFor(std::int64_t seq, int cycle) {
  char key[32];
  std::snprintf(key, sizeof key, "k%04" PRId64, seq % cycle);
  return key;
}

std::string valueFor(const std::string& app, std::int64_t seq) { return app + "#" + std::to_string(seq); }

// The argument after flag i, or exits with usage help.
const char* argumentAfter(int& i, int argc, char** argv) {
  if (i + 1 >= argc) {
    std::fprintf(stderr, "velmora_load: %s needs a value\n", argv[i]);
    std::exit(2);
  }
  return argv[++i];
}

long numberAfter(int& i, int argc, char** argv) {
  const char* text = argumentAfter(i, argc, argv);
  char* end = nullptr;
  const long value = std::strtol(text, &end, 10);
  if (end == text || *end != '\0' || value < 0) {
    std::fprintf(stderr, "velmora_load: %s wants a number, not '%s'\n", argv[i - 1], text);
    std::exit(2);
  }
  return value;
}

// Whether a "stop" line (or the end of input) is waiting on standard input.
// Never blocks.
bool stopRequested() {
  pollfd pfd{STDIN_FILENO, POLLIN, 0};
  if (::poll(&pfd, 1, 0) <= 0) return false;
  char buffer[64];
  const ssize_t n = ::read(STDIN_FILENO, buffer, sizeof buffer);
  return n <= 0 || std::string_view(buffer, static_cast<std::size_t>(n)).find("stop") != std::string_view::npos;
}

// Blocks until a "go" line (true) or the end of input (false).
bool waitForGo() {
  std::string line;
  char c = 0;
  while (::read(STDIN_FILENO, &c, 1) == 1) {
    if (c != '\n') {
      line += c;
      continue;
    }
    if (line == "go") return true;
    line.clear();
  }
  return false;
}

// ===========================================================================
// The writer: one application process.

struct WriterOptions {
  std::string app;
  std::int64_t first = 0;      // first sequence number
  std::int64_t count = 1000;   // writes; with untilStopped, the most it makes
  int cycle = 1000;            // distinct keys
  bool untilStopped = false;   // write until "stop" on standard input
  int backoffMs = 20;          // pause after a failed synchronize
  bool releaseJournal = false;  // at the end, let the daemon drop the journal entries seen
  std::string out;
};

// The result file: "echoes <n>" (own writes reported back as changes from
// elsewhere), then per synchronize "<seq> <start> <end> <ok>", seq -1 for a
// synchronize with no new write (the retries at the end).
int runWriter(const WriterOptions& options) {
  std::shared_ptr<NimbrelStore> store = NimbrelStore::storeForApplication(options.app);
  if (!store) {
    std::fprintf(stderr, "writer: no store for %s\n", options.app.c_str());
    return 1;
  }
  (void)store->getString("-");  // the first read loads the file, outside the timed loop
  // Nobody else writes this store: any change it reports is this process's
  // own write coming back as a change from elsewhere.
  auto echoes = std::make_shared<std::atomic<std::int64_t>>(0);
  const NimbrelObserverToken echoToken = store->addObserver(
      [echoes](const NimbrelChange& change) { echoes->fetch_add(static_cast<std::int64_t>(change.keys.size())); });
  std::printf("ready\n");
  std::fflush(stdout);
  if (!waitForGo()) return 1;

  struct Record {
    std::int64_t seq, start, end;
    bool ok;
  };
  std::vector<Record> records;
  records.reserve(static_cast<std::size_t>(std::min<std::int64_t>(options.count, 100000)) + 64);
  bool pending = false;  // a write not yet acknowledged
  int status = 0;
  for (std::int64_t n = 0; n < options.count; ++n) {
    if (options.untilStopped && stopRequested()) break;
    const std::int64_t seq = options.first + n;
    const NimbrelResult written = store->setString(keyFor(seq, options.cycle), valueFor(options.app, seq));
    if (!written.ok()) {
      std::fprintf(stderr, "writer %s: write %" PRId64 " refused: %s\n", options.app.c_str(), seq,
                   written.error().message.c_str());
      status = 1;
      break;
    }
    const std::int64_t start = monotonicNanos();
    const bool ok = store->synchronize();
    const std::int64_t end = monotonicNanos();
    records.push_back({seq, start, end, ok});
    pending = !ok;
    // An application that could not save waits a moment before trying again
    // instead of spinning on a daemon or bus that is down.
    if (!ok) std::this_thread::sleep_for(std::chrono::milliseconds(options.backoffMs));
  }
  // What failed is kept by the library and goes with the next synchronize:
  // try until it is taken, as an application would before quitting.
  const std::int64_t giveUp = monotonicNanos() + 60'000 * kNanosPerMilli;
  while (pending && monotonicNanos() < giveUp) {
    std::this_thread::sleep_for(100ms);
    const std::int64_t start = monotonicNanos();
    pending = !store->synchronize();
    records.push_back({-1, start, monotonicNanos(), !pending});
  }
  if (pending) {
    std::fprintf(stderr, "writer %s: the last writes were never acknowledged\n", options.app.c_str());
    status = 1;
  }
  // Late notices of the last writes have a moment to arrive.
  std::this_thread::sleep_for(300ms);
  store->removeObserver(echoToken);
  if (options.releaseJournal && !pending) {
    // As an application does once it has seen the changes: the next
    // process to load the store then finds no journal entries pending
    // (a fresh load reports the entries still in the journal).
    store->useSourceSyncWithBlock([](ZKVRemotePreferencesSource& source) {
      std::int64_t count = 0;
      source.protectionQueue()->sync([&] { count = source.lockedLoadState().storageChangeCount; });
      source.discardExternalChangesForChangeCount(count);
    });
  }
  std::FILE* out = std::fopen(options.out.c_str(), "w");
  if (out == nullptr) {
    std::perror(options.out.c_str());
    return 1;
  }
  std::fprintf(out, "echoes %" PRId64 "\n", echoes->load());
  for (const Record& r : records) {
    std::fprintf(out, "%" PRId64 " %" PRId64 " %" PRId64 " %d\n", r.seq, r.start, r.end, r.ok ? 1 : 0);
  }
  std::fclose(out);
  return status;
}

// ===========================================================================
// The watcher: observers of several stores on an application-driven main queue.

int runWatcher(const std::vector<std::string>& apps, const std::string& outPath) {
  // The watcher drives its main queue from its own loop, as a GUI
  // application's event loop would.
  velmora::DispatchQueue::setMainQueueDrivenByApplication(true);
  std::FILE* out = std::fopen(outPath.c_str(), "w");
  if (out == nullptr) {
    std::perror(outPath.c_str());
    return 1;
  }
  std::vector<std::pair<std::shared_ptr<NimbrelStore>, NimbrelObserverToken>> stores;
  for (const std::string& app : apps) {
    std::shared_ptr<NimbrelStore> store = NimbrelStore::storeForApplication(app);
    if (!store) {
      std::fprintf(stderr, "watcher: no store for %s\n", app.c_str());
      return 1;
    }
    (void)store->getString("-");  // loads the file: later changes are changes from elsewhere
    // Main queue only, so out needs no lock.
    const NimbrelObserverToken token = store->addObserver([out, app](const NimbrelChange& change) {
      const std::int64_t now = monotonicNanos();
      for (const std::string& key : change.keys) {
        std::fprintf(out, "%" PRId64 " %s %s %" PRId64 "\n", now, app.c_str(), key.c_str(), change.reason);
      }
      std::fflush(out);  // the orchestrator reads the file while the run goes on
    });
    stores.emplace_back(store, token);
  }
  std::printf("ready\n");
  std::fflush(stdout);

  const int mainFd = velmora::DispatchQueue::mainQueueFileDescriptor();
  for (;;) {
    pollfd fds[2] = {{mainFd, POLLIN, 0}, {STDIN_FILENO, POLLIN, 0}};
    if (::poll(fds, 2, 1000) < 0 && errno != EINTR) break;
    if ((fds[0].revents & POLLIN) != 0) velmora::DispatchQueue::drainMainQueue();
    if ((fds[1].revents & (POLLIN | POLLHUP)) != 0 && stopRequested()) break;
  }
  velmora::DispatchQueue::drainMainQueue();
  for (auto& [store, token] : stores) store->removeObserver(token);
  std::fclose(out);
  return 0;
}

// ===========================================================================
// The account role: what an application (or the settings panel) does to
// point its device at the server, through the library.

int runAccount(const std::string& what, const std::string& url, const std::string& token) {
  if (what == "login") {
    const ZKVAccountResult result = ZKVAccountLogin(url, token);
    if (!result.ok()) {
      std::fprintf(stderr, "velmora_load account login %s: %s\n", url.c_str(), result.error->description().c_str());
      return 1;
    }
    std::printf("logged in\n");
    return 0;
  }
  const ZKVAccountResult status = ZKVCopyAccountStatus();
  if (!status.ok()) {
    std::fprintf(stderr, "velmora_load account status: %s\n", status.error->description().c_str());
    return 1;
  }
  const velmora::PropertyList* text = status.info.find("description");
  std::printf("%s", text != nullptr && text->getString() != nullptr ? text->getString()->c_str() : "?\n");
  return 0;
}

// ===========================================================================
// The orchestrator.

enum class Fault { None, DaemonKill, BusRestart, ReadOnly, DiskFull, ServerKill, ServerCut };

const char* faultName(Fault fault) {
  switch (fault) {
    case Fault::None: return "none";
    case Fault::DaemonKill: return "daemon-kill";
    case Fault::BusRestart: return "bus-restart";
    case Fault::ReadOnly: return "read-only";
    case Fault::DiskFull: return "disk-full";
    case Fault::ServerKill: return "server-kill";
    case Fault::ServerCut: return "server-cut";
  }
  return "?";
}

// Faults of the server and the route to it: two-device runs only.
bool isServerFault(Fault fault) { return fault == Fault::ServerKill || fault == Fault::ServerCut; }

struct RunOptions {
  int apps = 8;
  int writes = 1000;
  int watchers = 4;
  int watch = 3;  // stores each watcher observes
  int passes = 1;  // load runs: times the run rewrites every key
  int busDownMs = 500;  // bus-restart: how long the bus stays down
  Fault fault = Fault::None;
  int faults = -1;  // -1: the fault's default count
  int timeoutSeconds = 600;
  double rssTolerancePercent = 10.0;
  std::uint64_t rssToleranceBytes = 2ull << 20;
  std::uint64_t diskBytes = 32ull << 20;
  int devices = 1;
  int serverDownMs = 1000;  // server-kill: how long the server stays down
  int holdMs = 12000;       // server-cut, held connections: longer than a sync call's deadline
  int dropMs = 4000;        // server-cut, reset connections
  int convergeSeconds = 120;  // two devices: how long their files get to agree after the writers
  int catchUpSeconds = 30;    // server faults: the longest catch-up allowed after each (backoffs, a call deadline, load)
  std::string serverBinary = VELMORA_SERVER_PATH;
  std::string work;  // empty: a fresh temporary directory, removed after a passing run
  std::string serviceFile = VELMORAD_SERVICE_FILE;
  std::string self;  // this executable, for the children
};

// One machine: a home with its store directory (and its account file under
// .config), a session bus with velmorad activatable. A second device gets
// its own of each.
struct Device {
  std::string name;
  std::string directory;
  std::string home;
  std::string storeDirectory;
  std::unique_ptr<velmora::load::SmallFilesystem> smallDisk;  // disk-full runs only
  std::unique_ptr<SessionBus> bus;

  std::vector<std::string> environment() const {
    return {"HOME=" + home, "XDG_CONFIG_HOME=" + home + "/.config", "DBUS_SESSION_BUS_ADDRESS=" + bus->address(),
            "ZKV_LOG_LEVEL=error"};
  }
  pid_t daemonPid() const { return bus && bus->running() ? velmora::load::busNameOwnerPid(bus->address(), kServiceName) : 0; }
};

// The run's processes, for the watchdog's report: role and pid, taken when
// each starts (a pid that has gone by the time of the report is left out).
struct TrackedProcess {
  std::string role;
  pid_t pid;
};

std::mutex trackedMutex;               // guards tracked
std::vector<TrackedProcess> tracked;   // guarded by trackedMutex
std::atomic<bool> runFinished{false};  // the watchdog stands down

void trackProcess(const std::string& role, pid_t pid) {
  std::lock_guard lock(trackedMutex);
  tracked.push_back({role, pid});
}

// Ends the run when the deadline passes: a stall anywhere (a deadlock in a
// client, a daemon that stopped answering) must fail loudly, never hang.
// The daemons serving home (found by their environment: they are the bus's
// children, not ours, and a restarted one has a new pid).
std::vector<pid_t> daemonsOf(const std::string& home) {
  std::vector<pid_t> found;
  std::error_code ec;
  for (const auto& entry : fs::directory_iterator("/proc", ec)) {
    const std::string pid = entry.path().filename().string();
    if (pid.find_first_not_of("0123456789") != std::string::npos) continue;
    std::ifstream comm(entry.path() / "comm");
    std::string name;
    if (!std::getline(comm, name) || name != "velmorad") continue;
    std::ifstream environ(entry.path() / "environ");
    for (std::string variable; std::getline(environ, variable, '\0');) {
      if (variable == "HOME=" + home) found.push_back(static_cast<pid_t>(std::stoi(pid)));
    }
  }
  return found;
}

void startWatchdog(int timeoutSeconds, std::string workDirectory, std::vector<std::string> homes) {
  std::thread([=] {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(timeoutSeconds);
    while (std::chrono::steady_clock::now() < deadline) {
      if (runFinished.load()) return;
      std::this_thread::sleep_for(200ms);
    }
    std::fprintf(stderr, "\nvelmora_load: TIMEOUT after %d s: a deadlock or a stall; still running:\n", timeoutSeconds);
    std::vector<pid_t> stuck;
    {
      std::lock_guard lock(trackedMutex);
      for (const TrackedProcess& process : tracked) {
        std::ifstream stat("/proc/" + std::to_string(process.pid) + "/stat");
        std::string pid, command, state;
        if (!(stat >> pid >> command >> state) || state == "Z") continue;
        std::fprintf(stderr, "  %s (pid %d)\n", process.role.c_str(), process.pid);
        stuck.push_back(process.pid);
      }
    }
    for (const std::string& home : homes) {
      for (pid_t pid : daemonsOf(home)) {
        if (std::find(stuck.begin(), stuck.end(), pid) != stuck.end()) continue;
        std::fprintf(stderr, "  velmorad of %s (pid %d)\n", home.c_str(), pid);
        stuck.push_back(pid);
      }
    }
    // Frozen where they are, so the stacks show the stall, not what follows.
    for (pid_t pid : stuck) ::kill(pid, SIGSTOP);
    // Where each one waits, when a debugger is at hand.
    if (::access("/usr/bin/gdb", X_OK) == 0) {
      for (pid_t pid : stuck) {
        const std::string file = workDirectory + "/stacks-" + std::to_string(pid) + ".txt";
        const std::string command = "/usr/bin/gdb -p " + std::to_string(pid) +
                                    " -batch -ex 'thread apply all bt' >" + file + " 2>&1";
        if (std::system(command.c_str()) == 0) std::fprintf(stderr, "  stacks of %d: %s\n", pid, file.c_str());
      }
    }
    std::fprintf(stderr, "velmora_load: FAIL (work directory kept: %s)\n", workDirectory.c_str());
    std::fflush(stderr);
    // All of them are this run's: none may linger, stopped, after it.
    for (pid_t pid : stuck) ::kill(pid, SIGKILL);
    std::_Exit(3);
  }).detach();
}

// What the run checked, printed at the end; any failure fails the run.
struct Checks {
  struct Line {
    std::string what, figure;
    bool ok;
  };
  std::vector<Line> lines;
  void add(std::string what, std::string figure, bool ok) { lines.push_back({std::move(what), std::move(figure), ok}); }
  bool allOk() const {
    return std::all_of(lines.begin(), lines.end(), [](const Line& l) { return l.ok; });
  }
};

std::string format(const char* pattern, ...) __attribute__((format(printf, 1, 2)));
std::string format(const char* pattern, ...) {
  char buffer[512];
  va_list args;
  va_start(args, pattern);
  std::vsnprintf(buffer, sizeof buffer, pattern, args);
  va_end(args);
  return buffer;
}

std::string mebibytes(std::uint64_t bytes) { return format("%.1f MiB", static_cast<double>(bytes) / (1 << 20)); }

// One application's writes as its result file tells them.
struct WriterLog {
  struct Write {
    std::int64_t seq, start, end;
    bool ok;
    std::int64_t acked = -1;  // when a synchronize took it; -1: never
  };
  std::string app;
  std::int64_t echoes = 0;     // own writes it heard of as changes from elsewhere
  std::vector<Write> records;  // in order; seq -1 for bare synchronizes
  std::map<std::int64_t, std::size_t> bySeq;  // seq -> index into records

  static std::optional<WriterLog> read(const std::string& app, const std::string& path) {
    std::ifstream in(path);
    if (!in) return std::nullopt;
    WriterLog log;
    log.app = app;
    std::string tag;
    if (!(in >> tag >> log.echoes) || tag != "echoes") return std::nullopt;
    Write w{};
    int ok = 0;
    while (in >> w.seq >> w.start >> w.end >> ok) {
      w.ok = ok != 0;
      log.records.push_back(w);
    }
    // A failed synchronize keeps its write for the next one: every write
    // since the last success is acknowledged by the next success.
    std::vector<std::size_t> waiting;
    for (std::size_t i = 0; i < log.records.size(); ++i) {
      Write& r = log.records[i];
      if (r.seq >= 0) {
        log.bySeq[r.seq] = i;
        waiting.push_back(i);
      }
      if (r.ok) {
        for (std::size_t j : waiting) log.records[j].acked = r.end;
        waiting.clear();
      }
    }
    return log;
  }
};

// What a watcher's result file says: (app, key) -> observation times, in order.
using Observations = std::map<std::pair<std::string, std::string>, std::vector<std::int64_t>>;

Observations readObservations(const std::string& path) {
  Observations seen;
  std::ifstream in(path);
  std::string line;
  while (std::getline(in, line)) {
    std::istringstream fields(line);
    std::int64_t at = 0;
    std::string app, key;
    if (fields >> at >> app >> key) seen[{app, key}].push_back(at);
  }
  return seen;
}

// How many observations a watcher's result file holds per reason code.
std::map<std::int64_t, std::size_t> readReasons(const std::string& path) {
  std::map<std::int64_t, std::size_t> reasons;
  std::ifstream in(path);
  std::string line;
  while (std::getline(in, line)) {
    std::istringstream fields(line);
    std::int64_t at = 0, reason = 0;
    std::string app, key;
    if (fields >> at >> app >> key >> reason) ++reasons[reason];
  }
  return reasons;
}

// A watcher and what it is to see.
struct WatcherPlan {
  int device = 0;  // index into the run's devices
  std::vector<int> apps;
  std::string out;
  std::unique_ptr<Child> child;
};

// One injected fault, for the report.
struct FaultEvent {
  std::int64_t injected = 0;  // when the fault began
  std::int64_t removed = 0;   // when it ended (the kill itself, for a daemon kill)
  std::string how;            // a variant of the fault ("hold", "drop"); empty when it has none
};

class Run {
 public:
  explicit Run(RunOptions options) : options_(std::move(options)) {}

  int execute();

 private:
  // The work directory and the mount namespace, then the devices and, with
  // two, the server, the account and the logins.
  bool setUp();
  // Makes a device's home and store directory (on a small tmpfs for
  // disk-full runs) and starts its bus with velmorad activatable.
  bool startDevice(Device& device, const std::string& name);
  // Starts velmora-server (and the proxy for server-cut), adds the account
  // and logs every device in through the library. False with a message.
  bool startServer();
  // Runs "velmora_load account WHAT" on device; its exit status (-1 when it
  // could not run) and output.
  int accountCommand(const Device& device, const std::vector<std::string>& args, std::string* output);
  bool startWriters(const char* phase, std::int64_t first, bool untilStopped,
                    std::vector<std::unique_ptr<Child>>& writers);
  bool finishWriters(std::vector<std::unique_ptr<Child>>& writers, const char* phase);
  bool startWatchers();
  void injectFaults();
  bool injectOne(int index);
  std::optional<std::map<int, WriterLog>> readWriterLogs(const char* phase);
  // Two devices: polls until every application's store file holds the same
  // values on both, up to the convergence deadline. (The writer's device
  // holds what it acknowledged; verifyFiles checks that.) The time it took,
  // or nullopt (with the differences and both sync statuses printed) when
  // the deadline passed. The time is counted from since (monotonic
  // nanoseconds: the last acknowledged write).
  std::optional<double> waitForConvergence(const char* phase, std::int64_t since);
  void verifyFiles(const Device& device, const std::map<int, WriterLog>& logs,
                   std::map<int, velmora::load::StoreFile>& files);
  void verifyWatchers(const std::map<int, WriterLog>& logs,
                      const std::vector<std::map<int, velmora::load::StoreFile>>& files, std::int64_t runFirstSeq,
                      std::vector<double>* latencies, int* early);
  void reportFaults(const std::map<int, WriterLog>& logs);
  void reportServerFaults(const std::map<int, WriterLog>& logs);
  // Stops the devices' daemons (SIGTERM) and waits for them to leave.
  void stopDaemons();
  void tearDown(bool passed);
  // Application a writes on this device.
  int deviceOfApp(int a) const { return options_.devices == 1 ? 0 : a % 2; }
  std::string writerOut(int app, const char* phase) const {
    return devices_[deviceOfApp(app)].directory + "/writer-" + std::to_string(app) + "-" + phase + ".txt";
  }
  std::string logPath(const Device& device, const std::string& role) const {
    return device.directory + "/" + role + ".log";
  }
  std::string writerLog(int app) const { return logPath(devices_[deviceOfApp(app)], "writer-" + std::to_string(app)); }
  void noteDaemonPid(pid_t pid) { trackProcess("velmorad", pid); }
  std::vector<std::string> homes() const {
    std::vector<std::string> all;
    for (const Device& device : devices_) all.push_back(device.home);
    return all;
  }

  int faultCount() const {
    if (options_.faults >= 0) return options_.faults;
    switch (options_.fault) {
      case Fault::DaemonKill: return 5;
      case Fault::BusRestart:
      case Fault::ServerKill: return 3;
      case Fault::ServerCut: return 4;
      default: return 2;
    }
  }

  // Main thread only.
  RunOptions options_;
  std::vector<Device> devices_;  // one, or two syncing through server_
  std::unique_ptr<velmora::load::SyncServerProcess> server_;  // two devices only
  std::unique_ptr<velmora::load::PausableProxy> proxy_;       // server-cut only: the daemons' route to server_
  bool keepWork_ = false;  // the caller chose the work directory
  bool skipped_ = false;   // the fault needs what this machine does not permit
  std::vector<WatcherPlan> watchers_;
  std::vector<Observations> observed_;  // per watcher, what it saw (read when it stopped)
  std::int64_t runStart_ = 0;
  std::vector<FaultEvent> faultEvents_;
  std::vector<std::string> faultErrors_;
  Checks checks_;
  std::int64_t acknowledged_ = 0;  // summed over the devices' files
  std::int64_t lost_ = 0;          // summed over the devices' files
  int failedDuringFaults_ = 0;
  double slowestRecoveryMs_ = 0;
};

bool Run::setUp() {
  // Mounts made for faults stay inside this run: in a mount namespace of its
  // own they vanish with its processes, whatever way the run ends.
  if (::geteuid() == 0 && (options_.fault == Fault::ReadOnly || options_.fault == Fault::DiskFull)) {
    if (::unshare(CLONE_NEWNS) == 0) (void)::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr);
  }
  if (options_.work.empty()) {
    std::string pattern = (fs::temp_directory_path() / "velmora-load-XXXXXX").string();
    if (::mkdtemp(pattern.data()) == nullptr) {
      std::perror("mkdtemp");
      return false;
    }
    options_.work = pattern;
  }
  devices_.resize(static_cast<std::size_t>(options_.devices));
  for (int d = 0; d < options_.devices; ++d) {
    if (!startDevice(devices_[d], "device" + std::to_string(d + 1))) return false;
  }
  return options_.devices == 1 || startServer();
}

bool Run::startDevice(Device& device, const std::string& name) {
  device.name = name;
  device.directory = options_.work + "/" + name;
  device.home = device.directory + "/home";
  device.storeDirectory = device.home + "/Library/Quellstore";
  std::error_code ec;
  fs::create_directories(device.storeDirectory, ec);
  if (ec) {
    std::fprintf(stderr, "cannot make %s: %s\n", device.storeDirectory.c_str(), ec.message().c_str());
    return false;
  }
  ::chmod(device.storeDirectory.c_str(), 0700);
  std::string error;
  if (options_.fault == Fault::DiskFull) {
    bool notPermitted = false;
    device.smallDisk =
        velmora::load::SmallFilesystem::mount(device.storeDirectory, options_.diskBytes, &error, &notPermitted);
    if (!device.smallDisk) {
      std::fprintf(stderr, "%s: %s\n", notPermitted ? "SKIP disk-full (mount not permitted)" : "disk-full",
                   error.c_str());
      skipped_ = notPermitted;
      return false;
    }
  }
  // The daemon finds its account file through these (never the user's own).
  device.bus = SessionBus::start(device.directory + "/bus",
                                 {"HOME=" + device.home, "XDG_CONFIG_HOME=" + device.home + "/.config"}, &error);
  if (!device.bus || !device.bus->installServiceFile(options_.serviceFile, &error)) {
    std::fprintf(stderr, "cannot start the bus of %s: %s\n", name.c_str(), error.c_str());
    return false;
  }
  return true;
}

bool Run::startServer() {
  std::string error;
  server_ = std::make_unique<velmora::load::SyncServerProcess>(
      options_.serverBinary, std::vector<std::string>{"--sqlite", options_.work + "/server.db"},
      options_.work + "/server.log");
  if (!server_->start(&error)) {
    std::fprintf(stderr, "cannot start the server: %s\n", error.c_str());
    return false;
  }
  trackProcess("velmora-server", server_->pid());
  const std::string token = server_->addAccount("load", &error);
  if (token.empty()) {
    std::fprintf(stderr, "no account: %s\n", error.c_str());
    return false;
  }
  std::string url = server_->url();
  if (options_.fault == Fault::ServerCut) {
    proxy_ = velmora::load::PausableProxy::start(server_->port(), &error);
    if (!proxy_) {
      std::fprintf(stderr, "cannot start the proxy: %s\n", error.c_str());
      return false;
    }
    url = proxy_->url();
  }
  for (const Device& device : devices_) {
    std::string output;
    const int status = accountCommand(device, {"login", url, token}, &output);
    if (status != 0) {
      std::fprintf(stderr, "%s could not log in to %s (see %s)\n", device.name.c_str(), url.c_str(),
                   logPath(device, "account").c_str());
      return false;
    }
  }
  return true;
}

int Run::accountCommand(const Device& device, const std::vector<std::string>& args, std::string* output) {
  std::vector<std::string> argv{options_.self, "account"};
  argv.insert(argv.end(), args.begin(), args.end());
  Child::Options childOptions;
  childOptions.extraEnvironment = device.environment();
  childOptions.stderrPath = logPath(device, "account");
  std::string error;
  std::unique_ptr<Child> child = Child::start(argv, childOptions, &error);
  if (!child) return -1;
  while (std::optional<std::string> line = child->readLine(60s)) *output += *line + "\n";
  const std::optional<int> status = child->waitForExit(30s);
  return status && WIFEXITED(*status) ? WEXITSTATUS(*status) : -1;
}

bool Run::startWriters(const char* phase, std::int64_t first, bool untilStopped,
                       std::vector<std::unique_ptr<Child>>& writers) {
  for (int a = 0; a < options_.apps; ++a) {
    std::vector<std::string> argv{options_.self, "writer", "--app", appName(a), "--first", std::to_string(first),
                                  "--count",
                                  std::to_string(untilStopped ? 1'000'000'000 : options_.writes * (first == 0 ? 1 : options_.passes)),
                                  "--cycle", std::to_string(options_.writes), "--out", writerOut(a, phase)};
    if (untilStopped) argv.push_back("--until-stopped");
    if (std::string_view(phase) == "warmup") argv.push_back("--release-journal");
    Child::Options childOptions;
    childOptions.extraEnvironment = devices_[deviceOfApp(a)].environment();
    childOptions.stderrPath = writerLog(a);
    childOptions.pipeStdin = true;
    std::string error;
    writers.push_back(Child::start(argv, childOptions, &error));
    if (!writers.back()) {
      std::fprintf(stderr, "cannot start writer %d: %s\n", a, error.c_str());
      return false;
    }
    trackProcess(std::string("writer ") + appName(a) + " (" + phase + ")", writers.back()->pid());
  }
  for (int a = 0; a < options_.apps; ++a) {
    std::optional<std::string> line = writers[a]->readLine(60s);
    if (line != "ready") {
      std::fprintf(stderr, "writer %d did not get ready (see %s)\n", a, writerLog(a).c_str());
      return false;
    }
  }
  for (auto& writer : writers) writer->writeLine("go");
  return true;
}

bool Run::finishWriters(std::vector<std::unique_ptr<Child>>& writers, const char* phase) {
  bool ok = true;
  for (std::size_t a = 0; a < writers.size(); ++a) {
    // The watchdog bounds this wait.
    std::optional<int> status;
    while (!(status = writers[a]->waitForExit(1s))) {
    }
    if (!WIFEXITED(*status) || WEXITSTATUS(*status) != 0) {
      std::fprintf(stderr, "writer %zu (%s) %s (see %s)\n", a, phase, velmora::load::describeStatus(*status).c_str(),
                   writerLog(static_cast<int>(a)).c_str());
      ok = false;
    }
  }
  return ok;
}

bool Run::startWatchers() {
  for (int w = 0; w < options_.watchers; ++w) {
    WatcherPlan plan;
    // With two devices, watcher w sits on device w mod 2 and watches stores
    // written on the other one only.
    std::vector<int> candidates;
    for (int a = 0; a < options_.apps; ++a) {
      if (options_.devices == 1 || deviceOfApp(a) != w % 2) candidates.push_back(a);
    }
    plan.device = options_.devices == 1 ? 0 : w % 2;
    const int offset = options_.devices == 1 ? w * 2 : (w / 2) * 2;
    std::string apps;
    const int count = std::min<int>(options_.watch, static_cast<int>(candidates.size()));
    for (int j = 0; j < count; ++j) {
      const int app = candidates[static_cast<std::size_t>(offset + j) % candidates.size()];
      plan.apps.push_back(app);
      apps += (apps.empty() ? "" : ",") + appName(app);
    }
    const Device& device = devices_[plan.device];
    plan.out = device.directory + "/watcher-" + std::to_string(w) + ".txt";
    Child::Options childOptions;
    childOptions.extraEnvironment = device.environment();
    childOptions.stderrPath = logPath(device, "watcher-" + std::to_string(w));
    childOptions.pipeStdin = true;
    std::string error;
    plan.child = Child::start({options_.self, "watcher", "--apps", apps, "--out", plan.out}, childOptions, &error);
    if (!plan.child) {
      std::fprintf(stderr, "cannot start watcher %d: %s\n", w, error.c_str());
      return false;
    }
    trackProcess("watcher " + std::to_string(w), plan.child->pid());
    watchers_.push_back(std::move(plan));
  }
  for (std::size_t w = 0; w < watchers_.size(); ++w) {
    if (watchers_[w].child->readLine(60s) != "ready") {
      std::fprintf(stderr, "watcher %zu did not get ready\n", w);
      return false;
    }
  }
  return true;
}

// Injects one fault and takes it away again; false when it could not be
// injected (the reason goes to faultErrors_).
bool Run::injectOne(int index) {
  FaultEvent event;
  std::string error;
  Device& device_ = devices_.front();  // the one-device faults strike the first device
  switch (options_.fault) {
    case Fault::None:
      return true;
    case Fault::DaemonKill: {
      // A daemon serving requests: the last one was re-activated by then.
      pid_t pid = 0;
      for (int i = 0; i < 100 && (pid = device_.daemonPid()) <= 0; ++i) std::this_thread::sleep_for(50ms);
      if (pid <= 0) {
        faultErrors_.push_back("no daemon to kill before kill " + std::to_string(index + 1));
        return false;
      }
      noteDaemonPid(pid);
      event.injected = monotonicNanos();
      ::kill(pid, SIGKILL);
      event.removed = event.injected;  // nothing to undo: the next request starts a new one
      break;
    }
    case Fault::BusRestart: {
      event.injected = monotonicNanos();
      device_.bus->kill();
      std::this_thread::sleep_for(std::chrono::milliseconds(options_.busDownMs));
      if (!device_.bus->restart(&error)) {
        faultErrors_.push_back("the bus did not come back: " + error);
        return false;
      }
      event.removed = monotonicNanos();
      break;
    }
    case Fault::ReadOnly: {
      bool notPermitted = false;
      event.injected = monotonicNanos();
      auto readOnly = velmora::load::ReadOnlyDirectory::make(device_.storeDirectory, &error, &notPermitted);
      if (!readOnly) {
        skipped_ = notPermitted;
        faultErrors_.push_back((notPermitted ? "not permitted: " : "") + error);
        return false;
      }
      std::this_thread::sleep_for(1500ms);
      if (!readOnly->restore(&error)) {
        faultErrors_.push_back("could not make the directory writable again: " + error);
        return false;
      }
      event.removed = monotonicNanos();
      break;
    }
    case Fault::DiskFull: {
      event.injected = monotonicNanos();
      if (!device_.smallDisk->fill(&error)) {
        faultErrors_.push_back("could not fill the disk: " + error);
        return false;
      }
      std::this_thread::sleep_for(1500ms);
      device_.smallDisk->release();
      event.removed = monotonicNanos();
      break;
    }
    case Fault::ServerKill: {
      trackProcess("velmora-server", server_->pid());
      event.injected = monotonicNanos();
      server_->kill();
      std::this_thread::sleep_for(std::chrono::milliseconds(options_.serverDownMs));
      if (!server_->start(&error)) {
        faultErrors_.push_back("the server did not come back: " + error);
        return false;
      }
      trackProcess("velmora-server", server_->pid());
      event.removed = monotonicNanos();
      break;
    }
    case Fault::ServerCut: {
      // Held and reset routes take turns: a hold outlasts a sync call's
      // deadline, so calls time out on connections that later come back.
      const bool hold = index % 2 == 0;
      event.how = hold ? "hold" : "drop";
      event.injected = monotonicNanos();
      proxy_->cut(hold ? velmora::load::PausableProxy::Cut::Hold : velmora::load::PausableProxy::Cut::Drop);
      std::this_thread::sleep_for(std::chrono::milliseconds(hold ? options_.holdMs : options_.dropMs));
      proxy_->resume();
      event.removed = monotonicNanos();
      break;
    }
  }
  faultEvents_.push_back(event);
  return true;
}

void Run::injectFaults() {
  const int count = faultCount();
  // After a server fault the devices need a watch reconnect (up to gRPC's
  // 2 s reconnect backoff) and a pass or two (up to the engine's 5 s retry
  // backoff) to catch up: more room between them.
  const auto between = isServerFault(options_.fault) ? 8000ms : 2000ms;
  for (int i = 0; i < count; ++i) {
    std::this_thread::sleep_for(i == 0 ? 1500ms : between);  // load before each fault, recovery after the last
    if (!injectOne(i)) break;
  }
  std::this_thread::sleep_for(between);  // load after the last fault
}

std::optional<std::map<int, WriterLog>> Run::readWriterLogs(const char* phase) {
  std::map<int, WriterLog> logs;
  for (int a = 0; a < options_.apps; ++a) {
    std::optional<WriterLog> log = WriterLog::read(appName(a), writerOut(a, phase));
    if (!log) {
      std::fprintf(stderr, "no result file from writer %d (%s)\n", a, phase);
      return std::nullopt;
    }
    logs.emplace(a, std::move(*log));
  }
  return logs;
}

// Every acknowledged write is in the final files: each key holds the last
// acknowledged write to it, or a later one of its writer.
void Run::verifyFiles(const Device& device, const std::map<int, WriterLog>& logs,
                      std::map<int, velmora::load::StoreFile>& files) {
  std::int64_t acknowledged = 0, lost = 0, notAcknowledged = 0, foreign = 0, unreadable = 0;
  std::vector<std::string> examples;
  for (const auto& [a, log] : logs) {
    std::string error;
    std::optional<velmora::load::StoreFile> file =
        velmora::load::readStoreFile(device.storeDirectory + "/" + log.app + ".plist", &error);
    if (!file) {
      ++unreadable;
      examples.push_back(error);
      file.emplace();
    }
    foreign += static_cast<std::int64_t>(file->badRecords.size());
    // Per key: the sequence numbers of its acknowledged writes.
    std::map<std::string, std::vector<std::int64_t>> ackedByKey;
    for (const WriterLog::Write& w : log.records) {
      if (w.seq < 0) continue;
      if (w.acked >= 0) {
        ++acknowledged;
        ackedByKey[keyFor(w.seq, options_.writes)].push_back(w.seq);
      } else {
        ++notAcknowledged;
      }
    }
    for (const auto& [key, seqs] : ackedByKey) {
      std::int64_t held = -1;
      auto found = file->values.find(key);
      if (found != file->values.end()) {
        const std::string* text = found->second.getString();
        const std::string prefix = log.app + "#";
        if (text != nullptr && text->rfind(prefix, 0) == 0) {
          held = std::strtoll(text->c_str() + prefix.size(), nullptr, 10);
          // It must be a write of this key that this writer made.
          if (keyFor(held, options_.writes) != key || !log.bySeq.contains(held)) {
            ++foreign;
            held = -1;
          }
        } else {
          ++foreign;
        }
      }
      for (std::int64_t seq : seqs) {
        if (held >= seq) continue;
        ++lost;
        if (examples.size() < 5) {
          examples.push_back(log.app + " " + key + ": acknowledged write #" + std::to_string(seq) + " lost (file holds " +
                             (held >= 0 ? "#" + std::to_string(held) : std::string("nothing")) + ")");
        }
      }
    }
    files.emplace(a, std::move(*file));
  }
  // Each device's files must hold every write: the same writes counted on
  // each, the losses added up.
  acknowledged_ = acknowledged;
  lost_ += lost;
  const std::string on = options_.devices == 1 ? "" : " of " + device.name;
  checks_.add("acknowledged writes in the store files" + on,
              format("%" PRId64 " acknowledged, %" PRId64 " lost, %" PRId64 " never acknowledged", acknowledged, lost,
                     notAcknowledged),
              lost == 0 && unreadable == 0 && acknowledged > 0);
  checks_.add("store files whole, values all from their writer" + on,
              format("%" PRId64 " unreadable, %" PRId64 " foreign or undecodable", unreadable, foreign),
              unreadable == 0 && foreign == 0);
  for (const std::string& e : examples) std::fprintf(stderr, "  %s\n", e.c_str());
}

// Every watcher saw every key it should: for each key of a watched store, an
// observation after the write that left the key's final value began. Waits
// (bounded) for the watchers to catch up, then stops them.
void Run::verifyWatchers(const std::map<int, WriterLog>& logs,
                         const std::vector<std::map<int, velmora::load::StoreFile>>& files, std::int64_t runFirstSeq,
                         std::vector<double>* latencies, int* early) {
  struct Expected {
    std::string app, key;
    std::int64_t start, acked;
  };
  std::vector<std::vector<Expected>> expected(watchers_.size());
  for (std::size_t w = 0; w < watchers_.size(); ++w) {
    for (int a : watchers_[w].apps) {
      const WriterLog& log = logs.at(a);
      for (const auto& [key, value] : files[watchers_[w].device].at(a).values) {
        const std::string* text = value.getString();
        if (text == nullptr) continue;
        const std::int64_t seq = std::strtoll(text->c_str() + log.app.size() + 1, nullptr, 10);
        if (seq < runFirstSeq) continue;  // written before the watcher looked
        auto at = log.bySeq.find(seq);
        if (at == log.bySeq.end()) continue;  // counted by verifyFiles
        const WriterLog::Write& write = log.records[at->second];
        expected[w].push_back({log.app, key, write.start, write.acked});
      }
    }
  }
  auto missing = [&](std::size_t w, const Observations& seen) {
    std::size_t count = 0;
    for (const Expected& e : expected[w]) {
      auto found = seen.find({e.app, e.key});
      if (found == seen.end() || found->second.back() < e.start) ++count;
    }
    return count;
  };
  // Changes reach the watchers a little after the writers are done.
  const auto deadline = std::chrono::steady_clock::now() + 30s;
  std::vector<std::size_t> left(watchers_.size(), 0);
  for (;;) {
    bool all = true;
    for (std::size_t w = 0; w < watchers_.size(); ++w) {
      left[w] = missing(w, readObservations(watchers_[w].out));
      all = all && left[w] == 0;
    }
    if (all || std::chrono::steady_clock::now() >= deadline) break;
    std::this_thread::sleep_for(200ms);
  }
  for (WatcherPlan& watcher : watchers_) {
    watcher.child->writeLine("stop");
    watcher.child->closeStdin();
  }
  bool exited = true;
  for (WatcherPlan& watcher : watchers_) {
    std::optional<int> status = watcher.child->waitForExit(10s);
    exited = exited && status && WIFEXITED(*status) && WEXITSTATUS(*status) == 0;
  }
  std::size_t expectedTotal = 0, missingTotal = 0;
  std::map<std::int64_t, std::size_t> reasons;
  observed_.clear();
  for (std::size_t w = 0; w < watchers_.size(); ++w) {
    expectedTotal += expected[w].size();
    missingTotal += left[w];
    observed_.push_back(readObservations(watchers_[w].out));
    for (const auto& [reason, count] : readReasons(watchers_[w].out)) reasons[reason] += count;
    const Observations& seen = observed_.back();
    for (const Expected& e : expected[w]) {
      auto found = seen.find({e.app, e.key});
      if (found == seen.end() || e.acked < 0) continue;
      // The first observation after the write began is the one it caused.
      auto first = std::lower_bound(found->second.begin(), found->second.end(), e.start);
      if (first == found->second.end()) continue;
      const std::int64_t latency = *first - e.acked;
      if (latency < 0) ++*early;
      latencies->push_back(millis(std::max<std::int64_t>(latency, 0)));
    }
  }
  checks_.add("every watcher saw every key it should",
              format("%zu of %zu (watcher, key) pairs seen", expectedTotal - missingTotal, expectedTotal),
              missingTotal == 0 && expectedTotal > 0);
  if (options_.devices > 1) {
    // Changes from the other device come as server changes (0), or as the
    // initial sync (1) when a store first arrives; nothing else.
    std::string tally;
    std::size_t other = 0;
    for (const auto& [reason, count] : reasons) {
      tally += format("%sreason %" PRId64 ": %zu", tally.empty() ? "" : ", ", reason, count);
      if (reason != 0 && reason != 1) other += count;
    }
    checks_.add("watchers heard server changes (reasons 0, 1)", tally.empty() ? "none" : tally, other == 0);
  }
  checks_.add("watchers exited cleanly", exited ? "yes" : "no", exited);
}

void Run::reportFaults(const std::map<int, WriterLog>& logs) {
  // Per fault: the failed synchronizes while it lasted, and the time from its
  // end until every writer had a synchronize succeed again.
  std::vector<double> recoveries;
  int failedDuring = 0, unrecovered = 0;
  for (std::size_t f = 0; f < faultEvents_.size(); ++f) {
    const FaultEvent& event = faultEvents_[f];
    const std::int64_t next = f + 1 < faultEvents_.size() ? faultEvents_[f + 1].injected : INT64_MAX;
    std::int64_t slowest = 0;
    bool recovered = true;
    for (const auto& [a, log] : logs) {
      std::int64_t firstOk = -1;
      for (const WriterLog::Write& w : log.records) {
        if (!w.ok && w.end >= event.injected && w.start <= event.removed + 100 * kNanosPerMilli) ++failedDuring;
        if (w.ok && w.end > event.removed && firstOk < 0) firstOk = w.end;
      }
      if (firstOk < 0 || firstOk > next) {
        recovered = false;
        continue;
      }
      slowest = std::max(slowest, firstOk - event.removed);
    }
    if (!recovered) ++unrecovered;
    recoveries.push_back(millis(slowest));
    const std::string lasted =
        event.removed > event.injected ? format(", lasted %.2f s", seconds(event.removed - event.injected)) : "";
    std::printf("  fault %zu: %s at +%.2f s%s, every writer saving again %.0f ms after it ended%s\n", f + 1,
                faultName(options_.fault), seconds(event.injected - runStart_), lasted.c_str(), millis(slowest),
                recovered ? "" : " (NOT before the next fault)");
  }
  const int wanted = faultCount();
  std::string errors;
  for (const std::string& e : faultErrors_) errors += "; " + e;
  checks_.add("faults injected", format("%zu of %d%s", faultEvents_.size(), wanted, errors.c_str()),
              static_cast<int>(faultEvents_.size()) == wanted && faultErrors_.empty());
  std::vector<double> sorted = recoveries;
  const double worst = sorted.empty() ? 0.0 : *std::max_element(sorted.begin(), sorted.end());
  checks_.add("recovery after each fault",
              format("%d of %zu recovered, slowest %.0f ms, median %.0f ms", static_cast<int>(faultEvents_.size()) - unrecovered,
                     faultEvents_.size(), worst, velmora::load::percentile(sorted, 0.5)),
              unrecovered == 0);
  // A kill may go unnoticed (the library's retry reaches the next daemon);
  // the other faults must show as failed synchronizes, never as success.
  if (options_.fault != Fault::DaemonKill) {
    checks_.add("writes during the fault failed with an error", format("%d failed synchronizes", failedDuring),
                failedDuring > 0);
  }
  failedDuringFaults_ = failedDuring;
  slowestRecoveryMs_ = worst;
}

// A server fault happens away from the applications: every synchronize must
// still succeed (the daemon keeps the writes and pushes them later). Per
// fault: the writes acknowledged while it lasted, and the time from its end
// until the watchers on the other device had seen every one of them (the
// catch-up), which must stay within the limit. A catch-up that runs into
// the next fault is counted in full.
void Run::reportServerFaults(const std::map<int, WriterLog>& logs) {
  std::int64_t failed = 0, ackedDuring = 0;
  for (const auto& [a, log] : logs) {
    for (const WriterLog::Write& w : log.records) failed += w.ok ? 0 : 1;
  }
  std::vector<double> recoveries;
  int unrecovered = 0;
  for (std::size_t f = 0; f < faultEvents_.size(); ++f) {
    const FaultEvent& event = faultEvents_[f];
    const std::int64_t next = f + 1 < faultEvents_.size() ? faultEvents_[f + 1].injected : INT64_MAX;
    const std::int64_t limit = event.removed + static_cast<std::int64_t>(options_.catchUpSeconds) * 1'000'000'000;
    std::int64_t slowest = 0, during = 0, unseen = 0, late = 0;
    for (const auto& [a, log] : logs) {
      std::vector<std::size_t> watching;  // watchers of a on the other device
      for (std::size_t v = 0; v < watchers_.size(); ++v) {
        const std::vector<int>& apps = watchers_[v].apps;
        if (watchers_[v].device != deviceOfApp(a) && std::find(apps.begin(), apps.end(), a) != apps.end()) {
          watching.push_back(v);
        }
      }
      for (const WriterLog::Write& w : log.records) {
        if (w.seq < 0 || w.acked < event.injected || w.acked > event.removed) continue;
        ++during;
        for (std::size_t v : watching) {
          std::int64_t seenAt = -1;
          if (auto found = observed_[v].find({log.app, keyFor(w.seq, options_.writes)}); found != observed_[v].end()) {
            auto first = std::lower_bound(found->second.begin(), found->second.end(), w.start);
            if (first != found->second.end()) seenAt = *first;
          }
          if (seenAt < 0) {
            ++unseen;
            continue;
          }
          if (seenAt > next) ++late;
          slowest = std::max(slowest, seenAt - event.removed);
        }
      }
    }
    ackedDuring += during;
    if (unseen > 0 || event.removed + slowest > limit) ++unrecovered;
    recoveries.push_back(millis(slowest));
    std::printf("  fault %zu: %s%s at +%.2f s, lasted %.2f s; %" PRId64
                " writes acknowledged during it, all seen on the other device %.0f ms after it ended%s%s\n",
                f + 1, faultName(options_.fault), event.how.empty() ? "" : (" (" + event.how + ")").c_str(),
                seconds(event.injected - runStart_), seconds(event.removed - event.injected), during, millis(slowest),
                late == 0 ? "" : format(" (%" PRId64 " after the next fault began)", late).c_str(),
                unseen == 0 ? "" : format(" (%" PRId64 " NEVER seen)", unseen).c_str());
  }
  const int wanted = faultCount();
  std::string errors;
  for (const std::string& e : faultErrors_) errors += "; " + e;
  checks_.add("faults injected", format("%zu of %d%s", faultEvents_.size(), wanted, errors.c_str()),
              static_cast<int>(faultEvents_.size()) == wanted && faultErrors_.empty());
  checks_.add("every synchronize succeeded (devices work on alone)", format("%" PRId64 " failed", failed), failed == 0);
  checks_.add("writes acknowledged while the server was away", format("%" PRId64, ackedDuring), ackedDuring > 0);
  std::vector<double> sorted = recoveries;
  const double worst = sorted.empty() ? 0.0 : *std::max_element(sorted.begin(), sorted.end());
  checks_.add(format("other device caught up within %d s of each fault", options_.catchUpSeconds),
              format("%d of %zu, slowest %.0f ms, median %.0f ms", static_cast<int>(faultEvents_.size()) - unrecovered,
                     faultEvents_.size(), worst, velmora::load::percentile(sorted, 0.5)),
              unrecovered == 0);
  failedDuringFaults_ = static_cast<int>(failed);
  slowestRecoveryMs_ = worst;
}

std::optional<double> Run::waitForConvergence(const char* phase, std::int64_t since) {
  const std::int64_t deadline = monotonicNanos() + static_cast<std::int64_t>(options_.convergeSeconds) * 1'000'000'000;
  std::vector<std::string> differences;
  for (;;) {
    differences.clear();
    for (int a = 0; a < options_.apps; ++a) {
      std::optional<velmora::load::StoreFile> files[2];
      std::string error;
      for (int d = 0; d < 2; ++d) {
        files[d] = velmora::load::readStoreFile(devices_[d].storeDirectory + "/" + appName(a) + ".plist", &error);
      }
      if (!files[0] || !files[1]) {
        differences.push_back(error);
        continue;
      }
      std::size_t onlyFirst = 0, onlySecond = 0, different = 0;
      for (const auto& [key, value] : files[0]->values) {
        auto other = files[1]->values.find(key);
        if (other == files[1]->values.end()) ++onlyFirst;
        else if (!(other->second == value)) ++different;
      }
      for (const auto& [key, value] : files[1]->values) onlySecond += files[0]->values.contains(key) ? 0 : 1;
      if (onlyFirst + onlySecond + different > 0) {
        differences.push_back(format("%s: %zu keys only on %s, %zu only on %s, %zu with different values",
                                     appName(a).c_str(), onlyFirst, devices_[0].name.c_str(), onlySecond,
                                     devices_[1].name.c_str(), different));
      }
    }
    if (differences.empty()) return seconds(std::max<std::int64_t>(monotonicNanos() - since, 0));
    if (monotonicNanos() >= deadline) break;
    std::this_thread::sleep_for(250ms);
  }
  std::fprintf(stderr, "the devices did NOT converge within %d s (%s):\n", options_.convergeSeconds, phase);
  for (const std::string& d : differences) std::fprintf(stderr, "  %s\n", d.c_str());
  for (const Device& device : devices_) {
    std::string status;
    accountCommand(device, {"status"}, &status);
    std::fprintf(stderr, "sync status of %s:\n%s", device.name.c_str(), status.c_str());
  }
  return std::nullopt;
}

void Run::stopDaemons() {
  // SIGTERM: it finishes the work in flight and leaves. It is the bus
  // daemon's child, so it is reaped there; gone means no /proc entry.
  for (Device& device : devices_) {
    if (pid_t pid = device.daemonPid(); pid > 0) {
      ::kill(pid, SIGTERM);
      for (int i = 0; i < 200 && fs::exists("/proc/" + std::to_string(pid)); ++i) std::this_thread::sleep_for(50ms);
    }
  }
}

void Run::tearDown(bool passed) {
  runFinished = true;
  for (WatcherPlan& watcher : watchers_) watcher.child.reset();
  stopDaemons();
  for (Device& device : devices_) {
    device.bus.reset();
    device.smallDisk.reset();
  }
  proxy_.reset();
  if (server_) server_->stop();
  if (passed && !keepWork_) {
    std::error_code ec;
    fs::remove_all(options_.work, ec);
  } else {
    std::printf("work directory kept: %s\n", options_.work.c_str());
  }
}

// The resident set of each long-lived process: the daemons, the server.
struct Resident {
  std::string what;
  pid_t pid = 0;
  std::uint64_t bytes = 0;
};

int Run::execute() {
  if (options_.devices < 1 || options_.devices > 2) {
    std::fprintf(stderr, "velmora_load: --devices is 1 or 2\n");
    return 2;
  }
  const bool serverFault = isServerFault(options_.fault);
  if ((options_.devices == 2) != serverFault && options_.fault != Fault::None) {
    std::fprintf(stderr, "velmora_load: %s is a fault of %s\n", faultName(options_.fault),
                 serverFault ? "two devices (--devices 2)" : "one device");
    return 2;
  }
  const bool two = options_.devices == 2;
  keepWork_ = !options_.work.empty();
  if (!setUp()) {
    tearDown(skipped_);
    return skipped_ ? 77 : 1;
  }
  startWatchdog(options_.timeoutSeconds, options_.work, homes());
  const bool load = options_.fault == Fault::None;
  std::printf("velmora load: %s, %d applications x %s synchronizes%s, %d watchers x %d stores%s, work %s\n",
              load ? "load run" : (std::string("fault ") + faultName(options_.fault)).c_str(), options_.apps,
              load ? std::to_string(options_.writes * options_.passes).c_str() : "(until the faults are done)",
              two ? " split over 2 devices" : "", options_.watchers, std::min(options_.watch, options_.apps),
              two ? format(" on the other device, server %s%s", server_->url().c_str(),
                           proxy_ ? (" behind proxy " + proxy_->url()).c_str() : "")
                        .c_str()
                  : "",
              options_.work.c_str());
  std::fflush(stdout);

  // The long-lived processes whose memory a load run compares.
  auto residents = [&] {
    std::vector<Resident> all;
    for (const Device& device : devices_) {
      const pid_t pid = device.daemonPid();
      noteDaemonPid(pid);
      all.push_back({"velmorad (" + device.name + ")", pid, velmora::load::residentBytes(pid)});
    }
    if (server_) all.push_back({"velmora-server", server_->pid(), velmora::load::residentBytes(server_->pid())});
    return all;
  };

  // Warm-up (load runs): every application writes its keys once, so the run
  // rewrites stores of the same size and the memory before and after
  // compares like with like. Two devices: both hold every store by then.
  std::int64_t runFirstSeq = 0;
  std::vector<Resident> before;
  double warmupSeconds = 0;
  bool ok = true;
  if (load) {
    std::vector<std::unique_ptr<Child>> writers;
    const std::int64_t start = monotonicNanos();
    ok = startWriters("warmup", 0, false, writers) && finishWriters(writers, "warmup");
    warmupSeconds = seconds(monotonicNanos() - start);
    writers.clear();
    runFirstSeq = options_.writes;
    if (ok && two) {
      std::int64_t lastAck = start;
      if (std::optional<std::map<int, WriterLog>> warm = readWriterLogs("warmup")) {
        for (const auto& [a, log] : *warm) lastAck = std::max(lastAck, log.records.empty() ? 0 : log.records.back().end);
      }
      const std::optional<double> converged = waitForConvergence("after the warm-up", lastAck);
      ok = converged.has_value();
      if (!ok) checks_.add("devices converged after the warm-up", "no", false);
      if (ok) std::printf("warm-up converged on both devices %.2f s after the last write\n", *converged);
    }
    std::this_thread::sleep_for(1s);
    before = residents();
    std::printf("warm-up: %d x %d synchronizes in %.1f s;", options_.apps, options_.writes, warmupSeconds);
    for (const Resident& r : before) std::printf(" %s pid %d RSS %s;", r.what.c_str(), r.pid, mebibytes(r.bytes).c_str());
    std::printf("\n");
    std::fflush(stdout);
  }

  std::vector<std::unique_ptr<Child>> writers;
  ok = ok && startWatchers();
  runStart_ = monotonicNanos();
  ok = ok && startWriters("run", runFirstSeq, !load, writers);
  if (ok && !load) {
    injectFaults();
    for (auto& writer : writers) {
      writer->writeLine("stop");
      writer->closeStdin();
    }
  }
  if (ok) ok = finishWriters(writers, "run");
  checks_.add("writers finished cleanly", ok ? "yes" : "no", ok);
  std::optional<std::map<int, WriterLog>> logs;
  if (ok) {
    logs = readWriterLogs("run");
    checks_.add("writers' result files", logs ? "read" : "missing", logs.has_value());
  }
  std::optional<double> convergence;
  if (logs && two) {
    std::int64_t lastAck = runStart_;
    for (const auto& [a, log] : *logs) lastAck = std::max(lastAck, log.records.empty() ? 0 : log.records.back().end);
    convergence = waitForConvergence("after the run", lastAck);
    checks_.add("both devices' files agree (convergence)",
                convergence ? format("%.2f s after the last acknowledged write", *convergence)
                            : format("NOT within %d s", options_.convergeSeconds),
                convergence.has_value());
  }
  std::vector<double> syncLatencies, notifyLatencies;
  int early = 0;
  std::int64_t firstStart = INT64_MAX, lastEnd = 0, synchronizes = 0;
  if (logs) {
    std::vector<std::map<int, velmora::load::StoreFile>> files(devices_.size());
    for (std::size_t d = 0; d < devices_.size(); ++d) verifyFiles(devices_[d], *logs, files[d]);
    std::int64_t echoes = 0;
    for (const auto& [a, log] : *logs) echoes += log.echoes;
    // With faults, a write whose answer was lost with the daemon or the bus
    // may come back legitimately: its writer never learnt its count.
    const bool echoesAllowed = !load && !serverFault;
    checks_.add(echoesAllowed ? "own writes heard back (allowed: answers lost)"
                              : "no writer hears its own writes as changes from elsewhere",
                format("%" PRId64 " own keys reported back", echoes), echoesAllowed || echoes == 0);
    verifyWatchers(*logs, files, runFirstSeq, &notifyLatencies, &early);
    for (const auto& [a, log] : *logs) {
      for (const WriterLog::Write& w : log.records) {
        firstStart = std::min(firstStart, w.start);
        lastEnd = std::max(lastEnd, w.end);
        ++synchronizes;
        if (w.ok) syncLatencies.push_back(millis(w.end - w.start));
      }
    }
    if (!load) {
      std::printf("faults:\n");
      if (serverFault) {
        reportServerFaults(*logs);
      } else {
        reportFaults(*logs);
      }
    }
  }

  // Memory: the same processes as before the run (no crash, no restart),
  // none grown beyond the tolerance.
  std::vector<Resident> after;
  if (load && logs) {
    std::this_thread::sleep_for(1s);
    after = residents();
    for (std::size_t i = 0; i < before.size() && i < after.size(); ++i) {
      const Resident& b = before[i];
      const Resident& r = after[i];
      checks_.add(r.what + " served the whole run", format("pid %d before, %d after", b.pid, r.pid),
                  b.pid > 0 && r.pid == b.pid);
      const std::uint64_t allowed =
          std::max(options_.rssToleranceBytes,
                   static_cast<std::uint64_t>(static_cast<double>(b.bytes) * options_.rssTolerancePercent / 100.0));
      checks_.add(r.what + " RSS did not grow beyond the tolerance",
                  format("%s -> %s (allowed +%s)", mebibytes(b.bytes).c_str(), mebibytes(r.bytes).c_str(),
                         mebibytes(allowed).c_str()),
                  r.bytes > 0 && r.bytes <= b.bytes + allowed);
    }
  }

  // Once the daemons have finished (watchers' journal releases still rewrite
  // files after the writers are done), nothing but store files is left.
  if (logs) {
    stopDaemons();
    for (const Device& device : devices_) {
      const std::vector<std::string> stray = velmora::load::strayFiles(device.storeDirectory);
      std::string strayList;
      for (const std::string& name : stray) strayList += " " + name;
      checks_.add(two ? "no temporary or set-aside files left on " + device.name
                      : "no temporary or set-aside files left",
                  stray.empty() ? "none" : strayList, stray.empty());
    }
  }

  // The table.
  const double runSeconds = lastEnd > firstStart ? seconds(lastEnd - firstStart) : 0.0;
  std::printf("\n%-34s %s\n", "measure", "value");
  std::printf("%-34s %" PRId64 " in %.1f s = %.1f /s%s\n", "synchronizes (run)", synchronizes, runSeconds,
              runSeconds > 0 ? static_cast<double>(synchronizes) / runSeconds : 0.0,
              load ? format(" (warm-up: %.1f s)", warmupSeconds).c_str() : "");
  std::vector<double> sorted = syncLatencies;
  std::sort(sorted.begin(), sorted.end());  // before the arguments below read sorted.back()
  std::printf("%-34s p50 %.2f ms, p99 %.2f ms, max %.2f ms (%zu successful)\n", "synchronize latency",
              velmora::load::percentile(sorted, 0.5), velmora::load::percentile(sorted, 0.99),
              sorted.empty() ? 0.0 : sorted.back(), sorted.size());
  sorted = notifyLatencies;
  std::sort(sorted.begin(), sorted.end());
  std::printf("%-34s p50 %.2f ms, p99 %.2f ms, max %.2f ms (%zu observations, %d before the writer's return)\n",
              two ? "cross-device notification latency" : "change-notification latency",
              velmora::load::percentile(sorted, 0.5), velmora::load::percentile(sorted, 0.99),
              sorted.empty() ? 0.0 : sorted.back(), sorted.size(), early);
  if (two) {
    std::printf("%-34s %s\n", "convergence after the last write",
                convergence ? format("%.2f s", *convergence).c_str() : "none");
  }
  if (load) {
    for (std::size_t i = 0; i < before.size() && i < after.size(); ++i) {
      const double b = static_cast<double>(before[i].bytes);
      std::printf("%-34s before %s, after %s (%+.1f%%)\n", (before[i].what + " RSS").c_str(),
                  mebibytes(before[i].bytes).c_str(), mebibytes(after[i].bytes).c_str(),
                  b > 0 ? 100.0 * (static_cast<double>(after[i].bytes) - b) / b : 0.0);
    }
  } else if (serverFault) {
    std::printf("%-34s injected %zu, writes acknowledged %" PRId64 ", writes lost %" PRId64
                " (both devices), failed synchronizes %d, slowest catch-up %.0f ms, convergence %s%s\n",
                faultName(options_.fault), faultEvents_.size(), acknowledged_, lost_, failedDuringFaults_,
                slowestRecoveryMs_, convergence ? format("%.2f s", *convergence).c_str() : "none",
                proxy_ ? format(", %" PRIu64 " connections reset", proxy_->connectionsReset()).c_str() : "");
  } else {
    std::printf("%-34s injected %zu, writes acknowledged %" PRId64 ", writes lost %" PRId64
                ", failed synchronizes during faults %d, slowest recovery %.0f ms\n",
                faultName(options_.fault), faultEvents_.size(), acknowledged_, lost_, failedDuringFaults_,
                slowestRecoveryMs_);
  }
  std::printf("\n%-52s %-6s %s\n", "check", "result", "figures");
  for (const Checks::Line& line : checks_.lines) {
    std::printf("%-52s %-6s %s\n", line.what.c_str(), line.ok ? "ok" : "FAIL", line.figure.c_str());
  }
  const bool passed = ok && checks_.allOk();
  std::printf("\nRESULT: %s\n", skipped_ ? "SKIP (the fault is not permitted here)" : passed ? "PASS" : "FAIL");
  std::fflush(stdout);
  tearDown(passed || skipped_);
  return skipped_ ? 77 : passed ? 0 : 1;
}

void printUsage(std::FILE* out) {
  std::fprintf(out,
               "Usage: velmora_load run [options]\n"
               "  --apps N            application processes (8)\n"
               "  --writes N          synchronizes per application, one new key each (1000)\n"
               "  --watchers N        watcher processes (4)\n"
               "  --watch N           stores each watcher observes (3)\n"
               "  --passes N          load run: times the run rewrites every key (1)\n"
               "  --fault KIND        none (a load run); one device: daemon-kill, bus-restart, read-only,\n"
               "                      disk-full; two devices: server-kill, server-cut\n"
               "  --faults N          times the fault is injected (5 daemon kills, 3 bus restarts, 3 server\n"
               "                      kills, 4 cuts, 2 otherwise)\n"
               "  --bus-down-ms MS    bus-restart: how long the bus stays down (500)\n"
               "  --devices N         1, or 2: two devices syncing through velmora-server on loopback (1)\n"
               "  --server-down-ms MS server-kill: how long the server stays down (1000)\n"
               "  --hold-ms MS        server-cut: how long a held route lasts (12000)\n"
               "  --drop-ms MS        server-cut: how long a reset route lasts (4000)\n"
               "  --converge S        two devices: how long their files get to agree (120)\n"
               "  --catch-up S        server faults: the longest the other device may take to see the\n"
               "                      writes made during a fault, after it ended (30)\n"
               "  --server-binary F   velmora-server (the build's)\n"
               "  --timeout S         the whole run's deadline; past it the run fails as stalled (600)\n"
               "  --rss-tolerance P   allowed daemon (and server) RSS growth in percent, at least 2 MiB (10)\n"
               "  --disk-size BYTES   the tmpfs of a disk-full run (33554432)\n"
               "  --work DIR          work directory, kept (default: a temporary one, removed on success)\n"
               "  --service-file F    the daemon's activation file (the build's)\n"

               "Exit status: 0 pass, 1 a check failed, 2 usage, 3 stalled, 77 skipped (not permitted here).\n"
               "Internal roles: velmora_load writer ..., velmora_load watcher ...,\n"
               "                velmora_load account login URL TOKEN | status (on $DBUS_SESSION_BUS_ADDRESS)\n");
}

Fault parseFault(const char* text) {
  for (Fault f : {Fault::None, Fault::DaemonKill, Fault::BusRestart, Fault::ReadOnly, Fault::DiskFull,
                  Fault::ServerKill, Fault::ServerCut}) {
    if (std::strcmp(text, faultName(f)) == 0) return f;
  }
  std::fprintf(stderr, "velmora_load: unknown fault '%s'\n", text);
  std::exit(2);
}

std::string selfPath(const char* argv0) {
  std::error_code ec;
  fs::path self = fs::read_symlink("/proc/self/exe", ec);
  return ec ? std::string(argv0) : self.string();
}

}  // namespace

int main(int argc, char** argv) {
  ::signal(SIGPIPE, SIG_IGN);
  if (argc < 2 || std::strcmp(argv[1], "--help") == 0) {
    printUsage(argc < 2 ? stderr : stdout);
    return argc < 2 ? 2 : 0;
  }
  const std::string role = argv[1];
  if (role == "writer") {
    WriterOptions options;
    for (int i = 2; i < argc; ++i) {
      const std::string flag = argv[i];
      if (flag == "--app") options.app = argumentAfter(i, argc, argv);
      else if (flag == "--first") options.first = numberAfter(i, argc, argv);
      else if (flag == "--count") options.count = numberAfter(i, argc, argv);
      else if (flag == "--cycle") options.cycle = static_cast<int>(std::max(1L, numberAfter(i, argc, argv)));
      else if (flag == "--until-stopped") options.untilStopped = true;
      else if (flag == "--release-journal") options.releaseJournal = true;
      else if (flag == "--out") options.out = argumentAfter(i, argc, argv);
      else {
        std::fprintf(stderr, "velmora_load writer: unknown argument %s\n", flag.c_str());
        return 2;
      }
    }
    if (options.app.empty() || options.out.empty()) {
      std::fprintf(stderr, "velmora_load writer: --app and --out are needed\n");
      return 2;
    }
    return runWriter(options);
  }
  if (role == "watcher") {
    std::vector<std::string> apps;
    std::string out;
    for (int i = 2; i < argc; ++i) {
      const std::string flag = argv[i];
      if (flag == "--apps") {
        std::istringstream list(argumentAfter(i, argc, argv));
        for (std::string app; std::getline(list, app, ',');) {
          if (!app.empty()) apps.push_back(app);
        }
      } else if (flag == "--out") {
        out = argumentAfter(i, argc, argv);
      } else {
        std::fprintf(stderr, "velmora_load watcher: unknown argument %s\n", flag.c_str());
        return 2;
      }
    }
    if (apps.empty() || out.empty()) {
      std::fprintf(stderr, "velmora_load watcher: --apps and --out are needed\n");
      return 2;
    }
    return runWatcher(apps, out);
  }
  if (role == "account") {
    if (argc == 5 && std::strcmp(argv[2], "login") == 0) return runAccount("login", argv[3], argv[4]);
    if (argc == 3 && std::strcmp(argv[2], "status") == 0) return runAccount("status", "", "");
    std::fprintf(stderr, "velmora_load account login URL TOKEN | status\n");
    return 2;
  }
  if (role != "run") {
    printUsage(stderr);
    return 2;
  }
  RunOptions options;
  options.self = selfPath(argv[0]);
  for (int i = 2; i < argc; ++i) {
    const std::string flag = argv[i];
    if (flag == "--apps") options.apps = static_cast<int>(std::max(1L, numberAfter(i, argc, argv)));
    else if (flag == "--writes") options.writes = static_cast<int>(std::max(1L, numberAfter(i, argc, argv)));
    else if (flag == "--watchers") options.watchers = static_cast<int>(numberAfter(i, argc, argv));
    else if (flag == "--watch") options.watch = static_cast<int>(std::max(1L, numberAfter(i, argc, argv)));
    else if (flag == "--passes") options.passes = static_cast<int>(std::max(1L, numberAfter(i, argc, argv)));
    else if (flag == "--bus-down-ms") options.busDownMs = static_cast<int>(numberAfter(i, argc, argv));
    else if (flag == "--fault") options.fault = parseFault(argumentAfter(i, argc, argv));
    else if (flag == "--faults") options.faults = static_cast<int>(numberAfter(i, argc, argv));
    else if (flag == "--timeout") options.timeoutSeconds = static_cast<int>(std::max(1L, numberAfter(i, argc, argv)));
    else if (flag == "--rss-tolerance") options.rssTolerancePercent = static_cast<double>(numberAfter(i, argc, argv));
    else if (flag == "--disk-size") options.diskBytes = static_cast<std::uint64_t>(numberAfter(i, argc, argv));
    else if (flag == "--work") options.work = argumentAfter(i, argc, argv);
    else if (flag == "--service-file") options.serviceFile = argumentAfter(i, argc, argv);
    else if (flag == "--devices") options.devices = static_cast<int>(numberAfter(i, argc, argv));
    else if (flag == "--server-down-ms") options.serverDownMs = static_cast<int>(numberAfter(i, argc, argv));
    else if (flag == "--hold-ms") options.holdMs = static_cast<int>(numberAfter(i, argc, argv));
    else if (flag == "--drop-ms") options.dropMs = static_cast<int>(numberAfter(i, argc, argv));
    else if (flag == "--catch-up") options.catchUpSeconds = static_cast<int>(std::max(1L, numberAfter(i, argc, argv)));
    else if (flag == "--converge") options.convergeSeconds = static_cast<int>(std::max(1L, numberAfter(i, argc, argv)));
    else if (flag == "--server-binary") options.serverBinary = argumentAfter(i, argc, argv);
    else {
      std::fprintf(stderr, "velmora_load: unknown argument %s\n", flag.c_str());
      printUsage(stderr);
      return 2;
    }
  }
  Run run(std::move(options));
  return run.execute();
}
