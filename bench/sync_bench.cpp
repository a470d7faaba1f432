// Synchronisation of a preferences source with its daemon. Targets:
// synchronize() with nothing written makes no request and takes under
// 200 ns; handing one dirty key over takes at most 1.5 times one synchronous
// request round trip of the daemon client carrying the same payload,
// measured in the same run. main() starts a private bus daemon and the
// scripted responder (built with the tests), which answers every request
// with its own "userinfo", so a hand-over's reply carries a change count.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "velmora/platform/Environment.h"
#include "velmora/platform/Ipc.h"
#include "velmora/platform/Log.h"
#include "velmora/platform/MemoryPressure.h"
#include "velmora/platform/SystemNotifications.h"
#include "zkv/ZKVClient.h"
#include "zkv/ZKVEncoding.h"
#include "zkv/ZKVRemotePreferencesSource.h"

namespace {

namespace fs = std::filesystem;
using velmora::PropertyList;

// The real clock and variables, with the home directory in a scratch folder.
class ScratchHomeEnvironment : public velmora::Environment {
 public:
  explicit ScratchHomeEnvironment(std::string home) : home_(std::move(home)) {}
  std::optional<std::string> getVariable(std::string_view name) const override { return system_.getVariable(name); }
  std::optional<std::string> homeDirectory() const override { return home_; }
  double absoluteTime() const override { return system_.absoluteTime(); }
  std::optional<std::string> hostApplicationIdentifier() const override { return "bench"; }
  bool isSandboxed() const override { return false; }

 private:
  velmora::SystemEnvironment system_;
  const std::string home_;
};

// Change notifications play no part in what is measured.
class SilentNotificationCenter : public velmora::SystemNotificationCenter {
 public:
  velmora::SystemObserverToken addObserver(std::string, std::shared_ptr<velmora::DispatchQueue>,
                                           std::function<void()>, const void*) override {
    return 1;
  }
  void removeObserver(velmora::SystemObserverToken) override {}
  void removeObservers(const void*) override {}
  bool post(std::string_view) override { return true; }
};

// Drops lines below Default, as a deployed process does.
class QuietSink : public velmora::LogSink {
 public:
  void write(const velmora::LogHandle&, velmora::LogLevel, std::string_view) override {}
  bool accepts(velmora::LogLevel level) const override { return level >= velmora::LogLevel::Default; }
};

// The real transport, counting the connections made: a source that never
// connects has made no request.
class CountingIpcService : public velmora::IpcService {
 public:
  std::shared_ptr<velmora::IpcConnection> connect(std::string serviceName,
                                                  std::shared_ptr<velmora::DispatchQueue> eventQueue) override {
    connections.fetch_add(1, std::memory_order_relaxed);
    return transport_.connect(std::move(serviceName), std::move(eventQueue));
  }
  std::atomic<int> connections{0};

 private:
  velmora::DbusIpcService transport_;
};

std::shared_ptr<CountingIpcService> gIpc;  // set by main() before the benchmarks run

void BM_SynchronizeNothingDirty(benchmark::State& state) {
  auto source = ZKVRemotePreferencesSource::create("bench.clean", std::nullopt, true);
  (void)source->synchronize();  // loads the (absent) store file
  const int before = gIpc->connections.load();
  for (auto _ : state) {
    benchmark::DoNotOptimize(source->synchronize());
  }
  const int made = gIpc->connections.load() - before;
  state.counters["connections"] = made;
  if (made != 0) state.SkipWithError("synchronize with nothing written reached the daemon");
}
BENCHMARK(BM_SynchronizeNothingDirty);

void BM_HandOverOneDirtyKey(benchmark::State& state) {
  auto source = ZKVRemotePreferencesSource::create("bench.dirty", std::nullopt, true);
  (void)source->synchronize();
  std::int64_t value = 0;
  for (auto _ : state) {
    source->setValueForKey(PropertyList::integer(++value), "key");
    if (!source->synchronize()) {
      state.SkipWithError("the responder does not answer");
      break;
    }
  }
}
BENCHMARK(BM_HandOverOneDirtyKey)->UseRealTime();

// The reference: one synchronous request with what a one-key hand-over
// carries, through the same client code and transport.
void BM_ClientRoundTrip(benchmark::State& state) {
  auto client = ZKVClient::create(nullptr, std::string("bench.client"), std::nullopt);
  const PropertyList payload = velmora::makeDictionary(
      {{"changes",
        velmora::makeDictionary(
            {{"key", ZKVCreateStorageForPropertyListAndTimestamp(PropertyList::integer(1), 700'000'000)}})},
       {"changecount", PropertyList::integer(0)}});
  for (auto _ : state) {
    if (client->sendMessageWithNameUserInfo(kZKVMessageSynchronize, payload).isNone()) {
      state.SkipWithError("the responder does not answer");
      break;
    }
  }
  client->shutdown();
}
BENCHMARK(BM_ClientRoundTrip)->UseRealTime();

// Prints the usual table, then the figures the targets are about: medians
// when there are repetitions, else the single runs.
class TargetReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& run : runs) {
      if (run.error_occurred) continue;
      const std::string& name = run.run_name.function_name;
      if (run.run_type == Run::RT_Aggregate && run.aggregate_name == "median") {
        medians_[name] = run.GetAdjustedRealTime();
      } else if (run.run_type == Run::RT_Iteration) {
        singles_[name] = run.GetAdjustedRealTime();
      }
    }
    ConsoleReporter::ReportRuns(runs);
  }
  void Finalize() override {
    ConsoleReporter::Finalize();
    const auto& nanos = medians_.empty() ? singles_ : medians_;
    const char* kind = medians_.empty() ? "" : " (medians)";
    if (auto clean = nanos.find("BM_SynchronizeNothingDirty"); clean != nanos.end()) {
      std::printf("synchronize, nothing written%s: %.1f ns, no request (target < 200 ns)\n", kind, clean->second);
    }
    auto handOver = nanos.find("BM_HandOverOneDirtyKey");
    auto roundTrip = nanos.find("BM_ClientRoundTrip");
    if (handOver != nanos.end() && roundTrip != nanos.end() && roundTrip->second > 0) {
      std::printf("one dirty key%s: hand-over %.1f us, round trip %.1f us, ratio %.2f (target <= 1.50)\n", kind,
                  handOver->second / 1000.0, roundTrip->second / 1000.0, handOver->second / roundTrip->second);
    }
  }

 private:
  std::map<std::string, double> medians_;  // by benchmark function name
  std::map<std::string, double> singles_;  // by benchmark function name
};

struct Child {
  pid_t pid = -1;
  int out = -1;  // read end of its standard output
};

// Starts argv with its standard output on a pipe; it dies with us.
Child spawn(const std::vector<std::string>& argv) {
  int fds[2];
  if (::pipe2(fds, O_CLOEXEC) != 0) return {};
  std::vector<char*> args;
  for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
  args.push_back(nullptr);
  pid_t pid = ::fork();
  if (pid == 0) {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    ::dup2(fds[1], STDOUT_FILENO);
    ::execv(args[0], args.data());
    ::_exit(127);
  }
  ::close(fds[1]);
  return {pid, fds[0]};
}

std::optional<std::string> readLine(int fd) {
  std::string line;
  for (;;) {
    pollfd pfd{fd, POLLIN, 0};
    if (::poll(&pfd, 1, 10000) <= 0) return std::nullopt;
    char c = 0;
    if (::read(fd, &c, 1) != 1) return std::nullopt;
    if (c == '\n') return line;
    line += c;
  }
}

void stop(Child& child) {
  if (child.pid > 0) {
    ::kill(child.pid, SIGKILL);
    ::waitpid(child.pid, nullptr, 0);
  }
}

}  // namespace

int main(int argc, char** argv) {
  const fs::path self = fs::read_symlink("/proc/self/exe");
  const fs::path responder = self.parent_path().parent_path() / "tests" / "velmora_scripted_responder";
  if (!fs::exists(responder)) {
    std::printf("sync_bench: %s is missing (build with the tests); nothing measured\n", responder.c_str());
    return 0;
  }

  char pattern[] = "/tmp/velmora-sync-bench-XXXXXX";
  if (::mkdtemp(pattern) == nullptr) return 1;
  const std::string directory = pattern;
  fs::create_directories(fs::path(directory) / "home" / "Library" / "Quellstore");
  std::ofstream(directory + "/bus.conf")
      << "<!DOCTYPE busconfig PUBLIC \"-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN\"\n"
         " \"http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd\">\n"
         "<busconfig><type>session</type><listen>unix:dir="
      << directory
      << "</listen><auth>EXTERNAL</auth><policy context=\"default\">"
         "<allow send_destination=\"*\" eavesdrop=\"true\"/><allow eavesdrop=\"true\"/><allow own=\"*\"/>"
         "</policy></busconfig>\n";
  Child daemon = spawn({"/usr/bin/dbus-daemon", "--config-file=" + directory + "/bus.conf", "--nofork",
                        "--print-address=1"});
  std::optional<std::string> address = daemon.out >= 0 ? readLine(daemon.out) : std::nullopt;
  std::error_code ignored;
  if (!address) {
    std::fprintf(stderr, "sync_bench: dbus-daemon did not start\n");
    stop(daemon);
    fs::remove_all(directory, ignored);
    return 1;
  }
  ::setenv("DBUS_SESSION_BUS_ADDRESS", address->c_str(), 1);
  Child child = spawn({responder.string(), "--name", std::string(ZKVClient::kServiceName), "--default", "userinfo"});
  std::optional<std::string> ready = child.out >= 0 ? readLine(child.out) : std::nullopt;
  if (!ready || ready->rfind("ready", 0) != 0) {
    std::fprintf(stderr, "sync_bench: the responder did not start\n");
    stop(child);
    stop(daemon);
    fs::remove_all(directory, ignored);
    return 1;
  }

  velmora::setEnvironment(std::make_shared<ScratchHomeEnvironment>(directory + "/home"));
  velmora::setSystemNotificationCenter(std::make_shared<SilentNotificationCenter>());
  velmora::setLogSink(std::make_shared<QuietSink>());
  velmora::LinuxMemoryPressureOptions quiet;
  quiet.watchSystem = false;
  velmora::setMemoryPressureMonitor(std::make_shared<velmora::LinuxMemoryPressureMonitor>(std::move(quiet)));
  gIpc = std::make_shared<CountingIpcService>();
  velmora::setIpcService(gIpc);

  // Without flags: repetitions in random order, so that load from the rest
  // of the machine falls on all sides alike, and the medians.
  std::vector<char*> args(argv, argv + argc);
  std::string repetitions = "--benchmark_repetitions=10";
  std::string interleave = "--benchmark_enable_random_interleaving=true";
  std::string aggregates = "--benchmark_display_aggregates_only=true";
  if (argc == 1) {
    args.push_back(repetitions.data());
    args.push_back(interleave.data());
    args.push_back(aggregates.data());
  }
  int count = static_cast<int>(args.size());
  benchmark::Initialize(&count, args.data());
  TargetReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  benchmark::Shutdown();

  velmora::DbusIpcService::shutdownIoThread();
  stop(child);
  stop(daemon);
  fs::remove_all(directory, ignored);
  return 0;
}
