// velmora_load: load and fault runs against the real daemon on private
// session buses. One binary, two roles:
//
//   velmora_load run [options]   the orchestrator: starts the devices (a home
//                                directory, a bus with velmorad activatable)
//                                and with two the server, the application
//                                processes, injects faults, checks, reports
//   velmora_load app OUT APP FIRST COUNT CYCLE UNTIL_STOPPED
//                                one application process: writes the store
//                                of APP, one key per synchronize
//
// What the integration tests check at a small size (a failed synchronize
// while a fault lasts, change notices, no stray files after one fault) the
// driver only measures at full size: throughput, latency, that nothing
// acknowledged is lost, and how soon writing (or, on two devices, the other
// device) recovers from each fault.
//
// Design note
// - Processes. The orchestrator's main thread starts every child (their
//   parent-death signal follows it). A child says "ready" on its standard
//   output; SIGUSR1 tells a writer to go, SIGTERM tells it to stop (both
//   blocked in the children and taken with sigtimedwait, so that no library
//   call is interrupted). The orchestrator reads what they did from their
//   result files: OUT, "<seq> <start> <end> <ok>" per synchronize (seq -1 for
//   the retries at the end). A watchdog thread ends the whole run loudly
//   when the global deadline passes: that is how a deadlock shows.
// - Clocks. Every timestamp is CLOCK_MONOTONIC in nanoseconds (steady_clock),
//   comparable across the processes of one machine.
// - Keys. Writer sequence number s writes key "k<s mod cycle>" with the text
//   "<application>#<s>", so every write is checkable in the final file: a
//   key must hold the last acknowledged write to it or a later one.
// - Faults. One table (Run::kFaults): what strikes each fault and takes it
//   away, how long it lasts, how often it strikes; one loop injects them.
// - Devices. A run has one or two (LoadSupport's Device); one code path
//   serves both. With two, a velmora-server on loopback (a scratch SQLite
//   database) serves one account both daemons are logged into (with the
//   command-line tool); application a writes on device a mod 2 only. A write
//   counts once its synchronize returned on its own device; the run then
//   waits for both devices' files to agree (convergence) and checks them
//   both. The server's faults: killed and started again on its port and
//   database, and the route to it cut by a pausable proxy on loopback that
//   the daemons log in through.
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cinttypes>
#include <cmath>
#include <cstdarg>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>

#include "LoadSupport.h"
#include "SyncDevices.h"
#include "velmora/platform/Dispatch.h"
#include "zkv/NimbrelStore.h"

namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using velmora::PlistDictionary;
using velmora::load::ChildProcess;
using velmora::load::Device;

constexpr std::int64_t kMs = 1'000'000;  // nanoseconds

std::int64_t now() {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now().time_since_epoch())
      .count();
}
double ms(std::int64_t nanos) { return static_cast<double>(nanos) / 1e6; }
double sec(std::int64_t nanos) { return static_cast<double>(nanos) / 1e9; }
std::string appName(int a) { return "com.example.load.app" + std::to_string(a); }
std::string keyFor(std::int64_t seq, std::int64_t cycle) {
  char key[32];
  std::snprintf(key, sizeof key, "k%04" PRId64, seq % cycle);
  return key;
}
// The sequence number of a value app's writer wrote; -1 for anything else.
std::int64_t seqOf(const velmora::PropertyList& value, const std::string& app) {
  const std::string* text = value.getString();
  return text != nullptr && text->starts_with(app + "#") ? std::strtoll(text->c_str() + app.size() + 1, nullptr, 10)
                                                         : -1;
}

std::string format(const char* pattern, ...) __attribute__((format(printf, 1, 2)));
std::string format(const char* pattern, ...) {
  char buffer[512];
  va_list args;
  va_start(args, pattern);
  std::vsnprintf(buffer, sizeof buffer, pattern, args);
  va_end(args);
  return buffer;
}
double percentile(std::vector<double> values, double p) {
  std::sort(values.begin(), values.end());
  const auto rank = static_cast<std::size_t>(std::ceil(p * static_cast<double>(values.size())));
  return values.empty() ? 0.0 : values[std::clamp<std::size_t>(rank, 1, values.size()) - 1];
}

// Takes a pending sig (blocked in the children); with wait, waits for it.
bool signalled(int sig, bool wait = false) {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, sig);
  const timespec zero{};
  return (wait ? sigwaitinfo(&set, nullptr) : sigtimedwait(&set, nullptr, &zero)) == sig;
}

// ===========================================================================
// An application process (see the top): a writer of one store.

int runApplication(char** argv) {
  std::shared_ptr<NimbrelStore> store = NimbrelStore::storeForApplication(argv[3]);
  if (!store) return std::fprintf(stderr, "no store for %s\n", argv[3]), 1;
  std::printf("ready\n");
  std::fflush(stdout);
  if (!signalled(SIGUSR1, true)) return 1;
  const std::int64_t first = std::stoll(argv[4]), end = first + std::stoll(argv[5]), cycle = std::stoll(argv[6]);
  std::vector<std::array<std::int64_t, 4>> records;
  bool pending = false;  // a write not yet acknowledged
  int status = 0;
  for (std::int64_t seq = first; seq < end && !(argv[7][0] == '1' && signalled(SIGTERM)); ++seq) {
    const NimbrelResult written = store->setString(keyFor(seq, cycle), std::string(argv[3]) + "#" + std::to_string(seq));
    if (!written.ok()) {
      std::fprintf(stderr, "write %" PRId64 " refused: %s\n", seq, written.error().message.c_str());
      status = 1;
      break;
    }
    const std::int64_t start = now();
    pending = !store->synchronize();
    records.push_back({seq, start, now(), pending ? 0 : 1});
    // An application that could not save waits a moment before trying again.
    if (pending) std::this_thread::sleep_for(20ms);
  }
  // What failed is kept by the library and goes with the next synchronize:
  // try until it is taken, as an application would before quitting.
  for (const std::int64_t giveUp = now() + 60'000 * kMs; pending && now() < giveUp;) {
    std::this_thread::sleep_for(100ms);
    const std::int64_t start = now();
    pending = !store->synchronize();
    records.push_back({-1, start, now(), pending ? 0 : 1});
  }
  if (pending) std::fprintf(stderr, "the last writes were never acknowledged\n"), status = 1;
  std::ofstream out(argv[2]);
  for (const auto& r : records) out << r[0] << ' ' << r[1] << ' ' << r[2] << ' ' << r[3] << "\n";
  return out ? status : 1;
}

// ===========================================================================
// The orchestrator.

// Every option with its default; numbers are checked when parsed.
struct Option {
  const char* name;
  std::string value;
  const char* help;
};
std::vector<Option> gOptions = {
    {"apps", "8", "application processes"},
    {"writes", "1000", "synchronizes per application, one new key each"},
    {"devices", "1", "1, or 2: two devices syncing through velmora-server on loopback"},
    {"fault", "none", "none (a load run); one device: daemon-kill, bus-restart, read-only, disk-full; two: server-kill, "
                      "server-cut"},
    {"faults", "0", "times the fault is injected (0: 5 daemon kills, 3 bus restarts or server kills, 4 cuts, 2 else)"},
    {"converge", "120", "two devices: seconds their files get to agree"},
    {"catch-up", "30", "server faults: seconds the other device may take to see the writes made during a fault"},
    {"timeout", "600", "the whole run's deadline in seconds; past it the run fails as stalled"},
    {"disk-size", "33554432", "the tmpfs of a disk-full run in bytes"},
    {"work", "", "work directory, kept (default: a temporary one, removed on success)"},
};
const std::string& opt(std::string_view name) {
  return std::ranges::find(gOptions, name, &Option::name)->value;
}
std::int64_t num(std::string_view name) { return std::stoll(opt(name)); }

struct Write {
  std::int64_t seq, start, end;
  bool ok;
  std::int64_t acked = -1;  // when a synchronize took it; -1: never
};

// An application process and what its result files say.
struct Application {
  std::string out;
  std::unique_ptr<ChildProcess> child;
  std::vector<Write> writes;                                               // in order
  std::map<std::int64_t, std::size_t> bySeq;                               // seq -> index into writes

  void read() {
    std::ifstream results(out);
    writes.clear(), bySeq.clear();
    // A failed synchronize keeps its write for the next one: every write
    // since the last success is acknowledged by the next success.
    std::vector<std::size_t> waiting;
    for (Write w{}; results >> w.seq >> w.start >> w.end >> w.ok;) {
      if (w.seq >= 0) bySeq[w.seq] = writes.size(), waiting.push_back(writes.size());
      writes.push_back(w);
      if (!w.ok) continue;
      for (std::size_t j : waiting) writes[j].acked = w.end;
      waiting.clear();
    }
  }
};

std::uint64_t residentBytes(pid_t pid) {
  std::ifstream status("/proc/" + std::to_string(pid) + "/status");
  for (std::string line; std::getline(status, line);) {
    if (line.starts_with("VmRSS:")) return std::stoull(line.substr(6)) * 1024;
  }
  return 0;
}

std::atomic<bool> gRunFinished{false};

// Ends the run when the deadline passes: a stall anywhere (a deadlock in a
// client, a daemon that stopped answering) must fail loudly, never hang.
// Every process of the devices (found by their home: the daemons are the
// buses' children) and the server (by its database) is named and killed.
void startWatchdog(std::int64_t seconds, std::string work, std::vector<std::string> entries) {
  std::thread([=] {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    while (!gRunFinished && std::chrono::steady_clock::now() < deadline) std::this_thread::sleep_for(200ms);
    if (gRunFinished) return;
    std::fprintf(stderr, "\nvelmora_load: TIMEOUT after %" PRId64 " s: a deadlock or a stall; killed:", seconds);
    for (const std::string& entry : entries) {
      for (pid_t pid : velmora::load::processesWith(entry)) std::fprintf(stderr, " %d", pid), ::kill(pid, SIGKILL);
    }
    std::fprintf(stderr, "\nvelmora_load: FAIL (work directory kept: %s)\n", work.c_str());
    std::_Exit(3);
  }).detach();
}

class Run {
 public:
  explicit Run(std::string self) : self_(std::move(self)) {}

  int execute() {
    kind_ = std::ranges::find(kFaults, fault_, &FaultKind::name);
    const auto kind = kind_;
    if (kind == std::end(kFaults) || num("devices") < 1 || num("devices") > 2 ||
        (kind->devices != 0 && kind->devices != num("devices"))) {
      std::fprintf(stderr, "velmora_load: --devices is 1 or 2; server-kill and server-cut need 2, the others 1\n");
      return 2;
    }
    serverFault_ = kind->devices == 2;
    faultCount_ = num("faults") > 0 ? static_cast<std::size_t>(num("faults")) : kind->count;
    if (!setUp()) return skipped_ ? 77 : 1;
    const bool two = devices_.size() == 2;
    std::vector<std::string> entries{work_ + "/server.db"};
    for (const auto& device : devices_) entries.push_back("HOME=" + device->home);
    startWatchdog(num("timeout"), work_, entries);
    std::string server = two ? " on the other device, server " + server_->url() : "";
    if (proxy_) server += " behind proxy " + proxy_->url();
    std::printf("velmora load: %s, %d applications x %s synchronizes%s%s, work %s\n",
                load_ ? "load run" : ("fault " + fault_).c_str(), apps_,
                load_ ? std::to_string(writes_).c_str() : "(until the faults are done)",
                two ? " split over 2 devices" : "", server.c_str(), work_.c_str());
    std::fflush(stdout);

    bool ok = true;
    runStart_ = now();
    ok = writePhase();

    std::vector<double> latencies;
    std::int64_t firstStart = INT64_MAX, lastEnd = 0, synchronizes = 0;
    for (const Application& writer : writers_) {
      for (const Write& w : writer.writes) {
        firstStart = std::min(firstStart, w.start), lastEnd = std::max(lastEnd, w.end), ++synchronizes;
        if (w.ok) latencies.push_back(ms(w.end - w.start));
      }
    }
    const std::optional<double> convergence = ok && two ? waitForConvergence(lastEnd) : std::nullopt;
    const std::string converged = convergence ? format("%.2f s", *convergence) : "none";
    if (ok && two) check("both devices' files agree (convergence)", converged + " after the last write", convergence.has_value());
    if (ok) {
      for (std::size_t d = 0; d < devices_.size(); ++d) verifyFiles(d);
      if (!load_) reportFaults();
    }
    // Memory after the run: the daemons (the last one, after faults) and the server.
    std::string memory;
    for (std::size_t d = 0; d < devices_.size(); ++d) {
      memory += format(", velmorad%s %.1f MiB", on(d).c_str(), static_cast<double>(residentBytes(devices_[d]->daemonPid())) / (1 << 20));
    }
    // Once the daemons have finished, nothing but store files is left.
    for (std::size_t d = 0; ok && d < devices_.size(); ++d) {
      devices_[d]->stopDaemon();
      std::string stray;
      for (const std::string& name : velmora::load::strayFiles(devices_[d]->storeDirectory)) stray += " " + name;
      check("no temporary or set-aside files left" + on(d, " on "), stray.empty() ? "none" : stray, stray.empty());
    }

    const double runSeconds = lastEnd > firstStart ? sec(lastEnd - firstStart) : 0.0;
    std::printf("\n%-34s %s\n", "measure", "value");
    std::printf("%-34s %" PRId64 " in %.1f s = %.1f /s\n", "synchronizes (run)", synchronizes, runSeconds,
                runSeconds > 0 ? static_cast<double>(synchronizes) / runSeconds : 0.0);
    std::printf("%-34s p50 %.2f ms, p99 %.2f ms, max %.2f ms (%zu successful)\n", "synchronize latency",
                percentile(latencies, 0.5), percentile(latencies, 0.99), percentile(latencies, 1), latencies.size());
    if (two) std::printf("%-34s %s\n", "convergence after the last write", converged.c_str());
    std::printf("%-34s %s\n", "resident memory after the run", memory.substr(2).c_str());
    if (!load_) {
      std::printf("%-34s injected %zu, writes acknowledged %" PRId64 ", writes lost %" PRId64
                  "%s, failed synchronizes%s %" PRId64 ", slowest %s %.0f ms%s%s\n",
                  fault_.c_str(), faultEvents_.size(), acknowledged_, lost_, two ? " (both devices)" : "",
                  two ? "" : " during faults", failedDuringFaults_, two ? "catch-up" : "recovery", slowestRecoveryMs_,
                  two ? (", convergence " + converged).c_str() : "",
                  proxy_ ? format(", %" PRIu64 " connections reset", proxy_->connectionsReset()).c_str() : "");
    }
    std::printf("\n%-56s %-6s %s\n", "check", "result", "figures");
    for (const auto& [what, figure, fine] : checks_) {
      std::printf("%-56s %-6s %s\n", what.c_str(), fine ? "ok" : "FAIL", figure.c_str());
    }
    passed_ = ok && std::ranges::all_of(checks_, [](const auto& c) { return std::get<2>(c); });
    std::printf("\nRESULT: %s\n", skipped_ ? "SKIP (the fault is not permitted here)" : passed_ ? "PASS" : "FAIL");
    return skipped_ ? 77 : passed_ ? 0 : 1;
  }

  ~Run() {
    gRunFinished = true;
    for (auto& device : devices_) device->stopDaemon();
    devices_.clear();
    if (disk_) ::umount2(disk_->c_str(), MNT_DETACH);
    proxy_.reset();
    if (server_) server_->stop();
    if ((passed_ || skipped_) && opt("work").empty()) fs::remove_all(work_);
    else if (!work_.empty()) std::printf("work directory kept: %s\n", work_.c_str());
  }

 private:
  struct FaultEvent {
    std::int64_t injected = 0, removed = 0;  // removed: the kill itself, for a daemon kill
    std::int64_t caughtUp = -1;              // server faults: see injectFault; -1 never
    std::string how;                         // the variant: " (hold)", " (drop)"
  };

  // The work directory and the mount namespace, the devices and, with two,
  // the server, the account and the logins. False (with a message) on failure.
  bool setUp() {
    // Mounts made for faults stay inside this run: in a mount namespace of
    // its own they vanish with its processes, whatever way the run ends.
    if (::geteuid() == 0 && (fault_ == "read-only" || fault_ == "disk-full") && ::unshare(CLONE_NEWNS) == 0) {
      (void)::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr);
    }
    if (work_.empty()) {
      work_ = (fs::temp_directory_path() / "velmora-load-XXXXXX").string();
      if (::mkdtemp(work_.data()) == nullptr) return std::perror("mkdtemp"), false;
    }
    std::string error;
    for (int d = 0; d < num("devices"); ++d) {
      devices_.push_back(Device::start(work_ + "/device" + std::to_string(d + 1), VELMORAD_SERVICE_FILE, &error));
      if (!devices_.back()) return std::fprintf(stderr, "cannot start device%d: %s\n", d + 1, error.c_str()), false;
    }
    if (fault_ == "disk-full") {
      const int error = velmora::load::mountSmallDisk(devices_[0]->storeDirectory, num("disk-size"));
      if (error == 0) disk_ = devices_[0]->storeDirectory;
      skipped_ = error == EPERM || error == EACCES;
      if (error != 0) return std::fprintf(stderr, "disk-full: cannot mount a tmpfs: %s\n", std::strerror(error)), false;
    }
    if (devices_.size() == 1) return true;
    server_ = std::make_unique<velmora::testing::SyncServer>(std::vector<std::string>{"--sqlite", work_ + "/server.db"});
    const std::string token = server_->start() ? server_->addAccount("load") : "";
    if (token.empty()) return std::fprintf(stderr, "the server did not start or gave no token\n"), false;
    if (fault_ == "server-cut" && !(proxy_ = velmora::load::PausableProxy::start(std::stoi(server_->url().substr(server_->url().rfind(':') + 1))))) {
      return std::fprintf(stderr, "cannot start the proxy\n"), false;
    }
    for (std::size_t d = 0; d < 2; ++d) {
      // Logged in with the command-line tool, as a user would.
      std::string command = "env";
      for (const std::string& variable : devices_[d]->environment()) command += " '" + variable + "'";
      command += " " VELMORA_TOOL_PATH " account login " + (proxy_ ? proxy_->url() : server_->url()) + " " + token;
      if (std::system((command + " >>" + devices_[d]->directory + "/account.log 2>&1").c_str()) != 0) {
        return std::fprintf(stderr, "device%zu could not log in (see its account.log)\n", d + 1), false;
      }
    }
    return true;
  }

  // Runs every application's writer, with the faults injected meanwhile.
  // False when a writer failed.
  bool writePhase() {
    writers_.clear();
    writers_.resize(static_cast<std::size_t>(apps_));
    for (int a = 0; a < apps_; ++a) {
      Application& writer = writers_[a];
      const Device& device = *devices_[deviceOf(a)];
      writer.out = device.directory + "/writer-" + std::to_string(a) + ".txt";
      const std::string log = device.directory + "/writer-" + std::to_string(a) + ".log";
      writer.child = velmora::load::spawn({self_, "app", writer.out, appName(a), "0",
                                           load_ ? std::to_string(writes_) : "1000000000", std::to_string(writes_),
                                           load_ ? "0" : "1"},
                                          device.environment(), log);
      if (!writer.child || writer.child->readLine(60s) != "ready") {
        return std::fprintf(stderr, "writer %d did not get ready (see %s)\n", a, log.c_str()), false;
      }
    }
    for (Application& writer : writers_) writer.child->signal(SIGUSR1);
    if (!load_) {
      // After a server fault the devices need a watch reconnect (up to
      // gRPC's 2 s reconnect backoff) and a pass or two (up to the engine's
      // 5 s retry backoff) to catch up: more room between them.
      const auto between = serverFault_ ? 8000ms : 2000ms;
      for (std::size_t i = 0; i < faultCount_; ++i) {
        std::this_thread::sleep_for(i == 0 ? 1500ms : between);  // load before each fault
        if (!injectFault(i)) break;
      }
      std::this_thread::sleep_for(between);  // recovery after the last
      for (Application& writer : writers_) writer.child->signal(SIGTERM);
    }
    bool ok = true;
    for (int a = 0; a < apps_; ++a) {
      std::optional<int> status;
      while (!(status = writers_[a].child->waitForExit(1s))) {  // the watchdog bounds this wait
      }
      if (!WIFEXITED(*status) || WEXITSTATUS(*status) != 0) {
        std::fprintf(stderr, "writer %d ended with status %d (see writer-%d.log)\n", a, *status, a);
        ok = false;
      }
      writers_[a].read();
    }
    check("writers finished cleanly", ok ? "yes" : "no", ok);
    return ok;
  }

  // Injects fault number index and takes it away again; false (the reason
  // in faultErrors_) when it could not be injected.
  bool injectFault(std::size_t index) {
    FaultEvent event{now(), 0, -1, kind_->name != "server-cut" ? "" : index % 2 == 0 ? " (hold)" : " (drop)"};
    auto failed = [&](std::string why) { return faultErrors_.push_back(std::move(why)), false; };
    if (const int error = kind_->strike(*this, true, index); error != 0) {
      skipped_ = error == EPERM || error == EACCES;
      return failed(std::string(skipped_ ? "not permitted: " : "") + std::strerror(error));
    }
    event.injected = kind_->name == "daemon-kill" ? now() : event.injected;
    std::this_thread::sleep_for(std::chrono::milliseconds(kind_->name == "server-cut" && index % 2 ? 4000 : kind_->lastsMs));
    if (const int error = kind_->strike(*this, false, index); error != 0) {
      return failed("could not take it away: " + std::string(std::strerror(error)));
    }
    event.removed = fault_ == "daemon-kill" ? event.injected : now();
    // The catch-up: until the other device holds, in every store, a write
    // at least as late as the newest its writing device held as the fault
    // ended (so every write acknowledged during it, as the pushes go in order).
    std::vector<std::int64_t> wanted;
    for (int a = 0; serverFault_ && a < apps_; ++a) wanted.push_back(newest(deviceOf(a), a));
    for (int a = 0; serverFault_ && now() < event.removed + num("catch-up") * 1000 * kMs;) {
      if (a == apps_) {
        event.caughtUp = now();
        break;
      }
      if (newest(1 - deviceOf(a), a) >= wanted[a]) ++a;
      else std::this_thread::sleep_for(20ms);
    }
    faultEvents_.push_back(event);
    return true;
  }

  // Every acknowledged write is in device d's files: each key holds the
  // last acknowledged write to it, or a later one of its writer; and every
  // value there is a write of its key by its store's writer.
  void verifyFiles(std::size_t d) {
    std::int64_t acknowledged = 0, lost = 0, never = 0, foreign = 0, unreadable = 0;
    for (int a = 0; a < apps_; ++a) {
      const Application& writer = writers_[a];
      std::optional<PlistDictionary> file =
          velmora::load::storeValues(devices_[d]->storeDirectory + "/" + appName(a) + ".plist");
      unreadable += file ? 0 : 1;
      const PlistDictionary values = file.value_or(PlistDictionary{});
      for (const auto& [key, value] : values) {
        const std::int64_t seq = seqOf(value, appName(a));
        foreign += seq < 0 || keyFor(seq, writes_) != key || !writer.bySeq.contains(seq) ? 1 : 0;
      }
      for (const Write& w : writer.writes) {
        if (w.seq < 0) continue;
        never += w.acked < 0 ? 1 : 0;
        acknowledged += w.acked < 0 ? 0 : 1;
        auto held = values.find(keyFor(w.seq, writes_));
        const std::int64_t heldSeq = held == values.end() ? -1 : seqOf(held->second, appName(a));
        if (w.acked >= 0 && heldSeq < w.seq && ++lost <= 5) {
          std::fprintf(stderr, "  %s %s: acknowledged write #%" PRId64 " lost (file holds #%" PRId64 ")\n",
                       appName(a).c_str(), keyFor(w.seq, writes_).c_str(), w.seq, heldSeq);
        }
      }
    }
    acknowledged_ = acknowledged;  // the same writes on each device, the losses added up
    lost_ += lost;
    check("acknowledged writes all in whole store files" + on(d),
          format("%" PRId64 " acknowledged, %" PRId64 " lost, %" PRId64 " never acknowledged; %" PRId64
                 " files unreadable, %" PRId64 " values foreign or undecodable", acknowledged, lost, never, unreadable, foreign),
          lost == 0 && acknowledged > 0 && unreadable == 0 && foreign == 0);
  }

  // On one device, per fault: the time from its end until every writer had
  // a synchronize succeed again. A server fault happens away from the
  // applications: every synchronize must still succeed (the daemon keeps the
  // writes and pushes them later); per fault, the writes acknowledged while
  // it lasted, and the catch-up (see injectFault), within the limit. A
  // recovery that runs into the next fault is counted in full.
  void reportFaults() {
    std::printf("faults:\n");
    std::vector<double> recoveries;
    std::int64_t failed = 0, failedDuring = 0, ackedDuring = 0;
    std::size_t unrecovered = 0;
    for (const Application& writer : writers_) failed += std::ranges::count(writer.writes, false, &Write::ok);
    for (std::size_t f = 0; f < faultEvents_.size(); ++f) {
      const FaultEvent& event = faultEvents_[f];
      const std::int64_t next = f + 1 < faultEvents_.size() ? faultEvents_[f + 1].injected : INT64_MAX;
      std::int64_t slowest = serverFault_ ? event.caughtUp - event.removed : 0, during = 0;
      bool recovered = true;
      for (int a = 0; a < apps_; ++a) {
        std::int64_t firstOk = -1;
        for (const Write& w : writers_[a].writes) {
          if (!w.ok && w.end >= event.injected && w.start <= event.removed + 100 * kMs) ++failedDuring;
          if (w.ok && w.end > event.removed && firstOk < 0) firstOk = w.end;
          if (!serverFault_ || w.seq < 0 || w.acked < event.injected || w.acked > event.removed) continue;
          ++during;
        }
        recovered = recovered && (serverFault_ || (firstOk >= 0 && firstOk <= next));
        slowest = serverFault_ ? slowest : std::max(slowest, firstOk < 0 ? 0 : firstOk - event.removed);
      }
      if (serverFault_) recovered = event.caughtUp > 0;
      ackedDuring += during;
      unrecovered += recovered ? 0 : 1;
      recoveries.push_back(ms(slowest));
      const std::string what = serverFault_ ? format("%" PRId64 " writes acknowledged during it, the other device caught up", during)
                                            : "every writer saving again";
      std::printf("  fault %zu: %s%s at +%.2f s, lasted %.2f s; %s %s after it ended\n", f + 1, fault_.c_str(),
                  event.how.c_str(), sec(event.injected - runStart_), sec(event.removed - event.injected), what.c_str(),
                  recovered ? format("%.0f ms", ms(slowest)).c_str() : "NOT (before the next fault or the limit)");
    }
    std::string errors;
    for (const std::string& e : faultErrors_) errors += "; " + e;
    check("faults injected", format("%zu of %zu%s", faultEvents_.size(), faultCount_, errors.c_str()),
          faultEvents_.size() == faultCount_ && faultErrors_.empty());
    slowestRecoveryMs_ = percentile(recoveries, 1);
    check(serverFault_ ? format("other device caught up within %" PRId64 " s of each fault", num("catch-up"))
                       : "recovery after each fault",
          format("%zu of %zu recovered, slowest %.0f ms, median %.0f ms", faultEvents_.size() - unrecovered,
                 faultEvents_.size(), slowestRecoveryMs_, percentile(recoveries, 0.5)),
          unrecovered == 0);
    if (serverFault_) {
      check("every synchronize succeeded (devices work on alone)", format("%" PRId64 " failed", failed), failed == 0);
      check("writes acknowledged while the server was away", format("%" PRId64, ackedDuring), ackedDuring > 0);
    }
    failedDuringFaults_ = serverFault_ ? failed : failedDuring;
  }

  // Two devices: polls until every store holds the same values on both, up
  // to the deadline; the seconds since `since`, or nullopt (the stores that
  // differ printed).
  std::optional<double> waitForConvergence(std::int64_t since) {
    for (const std::int64_t deadline = now() + num("converge") * 1000 * kMs;; std::this_thread::sleep_for(250ms)) {
      std::string differences;
      for (int a = 0; a < apps_; ++a) {
        const std::string file = "/" + appName(a) + ".plist";
        if (velmora::load::storeValues(devices_[0]->storeDirectory + file) !=
            velmora::load::storeValues(devices_[1]->storeDirectory + file)) {
          differences += " " + appName(a);
        }
      }
      if (differences.empty()) return sec(std::max<std::int64_t>(now() - since, 0));
      if (now() >= deadline) {
        std::fprintf(stderr, "the devices did NOT converge; stores that differ:%s\n", differences.c_str());
        return std::nullopt;
      }
    }
  }

  // The sequence number of the newest write of application a in device d's file; -1 when none.
  std::int64_t newest(int d, int a) const {
    std::int64_t seq = -1;
    const std::string file = devices_[d]->storeDirectory + "/" + appName(a) + ".plist";
    for (const auto& [key, value] : velmora::load::storeValues(file).value_or(PlistDictionary{})) {
      seq = std::max(seq, seqOf(value, appName(a)));
    }
    return seq;
  }
  void check(std::string what, std::string figure, bool ok) { checks_.emplace_back(std::move(what), std::move(figure), ok); }
  std::string on(std::size_t d, const char* word = " of ") const {
    return devices_.size() == 1 ? "" : word + ("device" + std::to_string(d + 1));
  }
  // Application a writes on this device.
  int deviceOf(int a) const { return a % static_cast<int>(devices_.size()); }

  // The faults: the devices they need (0: either), how often they strike by
  // default, how long each lasts (a server-cut's drop: 4 s), and what
  // strikes (on) and takes them away (off): 0, or an errno.
  struct FaultKind {
    std::string_view name;
    int devices;
    std::size_t count;
    int lastsMs;
    int (*strike)(Run& run, bool on, std::size_t index);
  };
  static int daemonKill(Run& run, bool on, std::size_t) {
    // A daemon serving requests: the last one was re-activated by then.
    pid_t pid = 0;
    for (int i = 0; on && i < 100 && (pid = run.devices_[0]->daemonPid()) <= 0; ++i) std::this_thread::sleep_for(50ms);
    return !on ? 0 : pid > 0 ? ::kill(pid, SIGKILL) : ESRCH;
  }
  static int busRestart(Run& run, bool on, std::size_t) {
    std::string error;
    if (on) run.devices_[0]->killBus();
    return on || run.devices_[0]->startBus(&error) ? 0 : (std::fprintf(stderr, "%s\n", error.c_str()), EIO);
  }
  static int readOnly(Run& run, bool on, std::size_t) {
    return velmora::load::setReadOnly(run.devices_[0]->storeDirectory, on);
  }
  static int diskFull(Run& run, bool on, std::size_t) {
    return velmora::load::fillDisk(run.devices_[0]->storeDirectory, on) ? 0 : errno;
  }
  static int serverKill(Run& run, bool on, std::size_t) {
    for (pid_t pid : velmora::load::processesWith(run.work_ + "/server.db", "velmora-server")) ::kill(pid, on ? SIGKILL : 0);
    return on || run.server_->start() ? 0 : EIO;
  }
  static int serverCut(Run& run, bool on, std::size_t index) {
    // Held and reset routes take turns: a hold outlasts a sync call's
    // deadline, so calls time out on connections that later come back.
    using Cut = velmora::load::PausableProxy::Cut;
    run.proxy_->cut(!on ? Cut::None : index % 2 == 0 ? Cut::Hold : Cut::Drop);
    return 0;
  }
  static constexpr FaultKind kFaults[] = {
      {"none", 0, 0, 0, nullptr},           {"daemon-kill", 1, 5, 0, daemonKill}, {"bus-restart", 1, 3, 500, busRestart},
      {"read-only", 1, 2, 1500, readOnly},  {"disk-full", 1, 2, 1500, diskFull},  {"server-kill", 2, 3, 1000, serverKill},
      {"server-cut", 2, 4, 12000, serverCut}};

  // Main thread only.
  const std::string self_;
  const FaultKind* kind_ = nullptr;
  std::string work_ = opt("work"), fault_ = opt("fault");
  const bool load_ = fault_ == "none";
  const int apps_ = static_cast<int>(std::max<std::int64_t>(num("apps"), 1));
  const std::int64_t writes_ = std::max<std::int64_t>(num("writes"), 1);
  bool serverFault_ = false, skipped_ = false, passed_ = false;
  std::size_t faultCount_ = 0;
  std::int64_t runStart_ = 0;
  std::vector<std::unique_ptr<Device>> devices_;
  std::optional<std::string> disk_;                       // disk-full: the store directory on a small tmpfs
  std::unique_ptr<velmora::testing::SyncServer> server_;  // two devices only
  std::unique_ptr<velmora::load::PausableProxy> proxy_;   // server-cut only: the daemons' route to server_
  std::vector<Application> writers_;                      // of the last phase, one per application
  std::vector<FaultEvent> faultEvents_;
  std::vector<std::string> faultErrors_;
  std::vector<std::tuple<std::string, std::string, bool>> checks_;  // what, figures, ok
  std::int64_t acknowledged_ = 0, lost_ = 0, failedDuringFaults_ = 0;
  double slowestRecoveryMs_ = 0;
};

void printUsage(std::FILE* out) {
  std::fprintf(out, "Usage: velmora_load run [--OPTION VALUE]...\n");
  for (const Option& o : gOptions) std::fprintf(out, "  --%-15s %s (%s)\n", o.name, o.help, o.value.c_str());
  std::fprintf(out, "Exit status: 0 pass, 1 a check failed, 2 usage, 3 stalled, 77 skipped (not permitted here).\n");
}

}  // namespace

int main(int argc, char** argv) {
  ::signal(SIGPIPE, SIG_IGN);
  const std::string role = argc > 1 ? argv[1] : "";
  if (role == "app" && argc == 8) {
    // Go (SIGUSR1) and stop (SIGTERM) stay pending for signalled(), in
    // every thread the library starts too.
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGUSR1);
    sigaddset(&set, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
    return runApplication(argv);
  }
  if (role == "--help") return printUsage(stdout), 0;
  for (int i = 2; role == "run" && i < argc; i += 2) {
    auto o = std::ranges::find_if(gOptions, [&](const Option& o) { return "--" + std::string(o.name) == argv[i]; });
    const bool number = o != gOptions.end() && std::isdigit(o->value[0]) != 0;
    if (o == gOptions.end() || i + 1 >= argc ||
        (number && std::string(argv[i + 1]).find_first_not_of("0123456789") != std::string::npos)) {
      std::fprintf(stderr, "velmora_load: unknown option, or no or a wrong value: %s\n", argv[i]);
      return printUsage(stderr), 2;
    }
    o->value = argv[i + 1];
  }
  if (role != "run") return printUsage(stderr), 2;
  ::setenv("ZKV_LOG_LEVEL", "error", 0);  // every process of the run logs its errors only
  return Run(fs::read_symlink("/proc/self/exe").string()).execute();
}
