// Synchronous request round trip through the IPC transport, against a bare
// sd_bus_call from the benchmark thread to the same responder, in one run.
// main() starts a private bus daemon and the scripted responder (built with
// the tests) so the figures do not depend on the session's own bus. Target:
// the transport's round trip at most 1.5 times the bare one.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "velmora/platform/Dispatch.h"
#include "velmora/platform/Ipc.h"

namespace {

constexpr const char* kServiceName = "com.vantrel.bench.Responder";

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

velmora::IpcObject echoRequest() {
  return *velmora::ipcObjectFromPropertyList(
      velmora::makeDictionary({{"message", velmora::PropertyList::string("echo")}}));
}

void BM_IpcSendAndWait(benchmark::State& state) {
  auto queue = velmora::DispatchQueue::createSerial("bench-events");
  auto connection = velmora::DbusIpcService().connect(kServiceName, queue);
  connection->resume();
  const velmora::IpcObject request = echoRequest();
  if (!connection->sendAndWait(request).ok()) {
    state.SkipWithError("the responder does not answer");
    return;
  }
  for (auto _ : state) {
    velmora::IpcReply reply = connection->sendAndWait(request);
    benchmark::DoNotOptimize(reply);
  }
}
BENCHMARK(BM_IpcSendAndWait)->UseRealTime();

void BM_BareSdBusCall(benchmark::State& state) {
  sd_bus* bus = nullptr;
  if (sd_bus_open_user(&bus) < 0) {
    state.SkipWithError("cannot open the bus");
    return;
  }
  for (auto _ : state) {
    sd_bus_message* m = nullptr;
    sd_bus_message* reply = nullptr;
    sd_bus_error error = SD_BUS_ERROR_NULL;
    sd_bus_message_new_method_call(bus, &m, kServiceName, "/com/vantrel/velmorad", "com.vantrel.velmorad",
                                   "Request");
    sd_bus_message_append(m, "a{sv}", 1, "message", "s", "echo");
    if (sd_bus_call(bus, m, 0, &error, &reply) < 0) state.SkipWithError("call failed");
    sd_bus_error_free(&error);
    sd_bus_message_unref(reply);
    sd_bus_message_unref(m);
  }
  sd_bus_flush_close_unref(bus);
}
BENCHMARK(BM_BareSdBusCall)->UseRealTime();

// Prints the usual table, then the ratio the target is about: of the
// medians when there are repetitions, else of the single runs.
class RatioReporter : public benchmark::ConsoleReporter {
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
    auto ours = nanos.find("BM_IpcSendAndWait");
    auto bare = nanos.find("BM_BareSdBusCall");
    if (ours != nanos.end() && bare != nanos.end() && bare->second > 0) {
      std::printf("round trip%s: transport %.1f us, bare sd_bus_call %.1f us, ratio %.2f (target <= 1.50)\n",
                  medians_.empty() ? "" : " (medians)", ours->second / 1000.0, bare->second / 1000.0,
                  ours->second / bare->second);
    }
  }

 private:
  std::map<std::string, double> medians_;  // by benchmark function name
  std::map<std::string, double> singles_;  // by benchmark function name
};

}  // namespace

int main(int argc, char** argv) {
  const std::filesystem::path self = std::filesystem::read_symlink("/proc/self/exe");
  const std::filesystem::path responder = self.parent_path().parent_path() / "tests" / "velmora_scripted_responder";
  if (!std::filesystem::exists(responder)) {
    std::printf("ipc_bench: %s is missing (build with the tests); nothing measured\n", responder.c_str());
    return 0;
  }

  char pattern[] = "/tmp/velmora-bench-XXXXXX";
  if (::mkdtemp(pattern) == nullptr) return 1;
  const std::string directory = pattern;
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
    std::fprintf(stderr, "ipc_bench: dbus-daemon did not start\n");
    stop(daemon);
    std::filesystem::remove_all(directory, ignored);
    return 1;
  }
  ::setenv("DBUS_SESSION_BUS_ADDRESS", address->c_str(), 1);
  Child child = spawn({responder.string(), "--name", kServiceName, "--default", "echo"});
  std::optional<std::string> ready = child.out >= 0 ? readLine(child.out) : std::nullopt;
  if (!ready || ready->rfind("ready", 0) != 0) {
    std::fprintf(stderr, "ipc_bench: the responder did not start\n");
    stop(child);
    stop(daemon);
    std::filesystem::remove_all(directory, ignored);
    return 1;
  }

  // Without flags: repetitions in random order, so that load from the rest
  // of the machine falls on both sides alike, and the ratio of the medians.
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
  RatioReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  benchmark::Shutdown();

  velmora::DbusIpcService::shutdownIoThread();
  stop(child);
  stop(daemon);
  std::filesystem::remove_all(directory, ignored);
  return 0;
}
