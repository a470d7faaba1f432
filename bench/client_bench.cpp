// Synchronous round trip through ZKVClient::sendMessageWithNameUserInfo,
// beside the transport's own sendAndWait and a bare sd_bus_call carrying the
// same envelope to the same responder, in one run. main() starts a private
// bus daemon and the scripted responder (built with the tests) under the
// daemon's service name, so the figures do not depend on the session's bus.
// The client's own share is the first figure minus the second.
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
#include "zkv/ZKVClient.h"

namespace {

const std::string kServiceName(ZKVClient::kServiceName);

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

// The envelope the client builds for "ping" with no payload.
velmora::PropertyList pingEnvelope() {
  return velmora::makeDictionary({{"message", velmora::PropertyList::string("ping")},
                                  {"userinfo", velmora::makeDictionary({})},
                                  {"bundleIdentifier", velmora::PropertyList::string("com.example.bench")}});
}

void BM_ClientSendMessageWithNameUserInfo(benchmark::State& state) {
  auto client = ZKVClient::create(nullptr, "com.example.bench", std::nullopt);
  if (client->sendMessageWithNameUserInfo("ping", {}).isNone()) {  // connects
    state.SkipWithError("the responder does not answer with \"userinfo\"");
    client->shutdown();
    return;
  }
  for (auto _ : state) {
    velmora::PropertyList reply = client->sendMessageWithNameUserInfo("ping", {});
    benchmark::DoNotOptimize(reply);
  }
  client->shutdown();
}
BENCHMARK(BM_ClientSendMessageWithNameUserInfo)->UseRealTime();

void BM_TransportSendAndWait(benchmark::State& state) {
  auto queue = velmora::DispatchQueue::createSerial("bench-events");
  auto connection = velmora::DbusIpcService().connect(kServiceName, queue);
  connection->resume();
  const velmora::IpcObject request = *velmora::ipcObjectFromPropertyList(pingEnvelope());
  if (!connection->sendAndWait(request).ok()) {
    state.SkipWithError("the responder does not answer");
    return;
  }
  for (auto _ : state) {
    velmora::IpcReply reply = connection->sendAndWait(request);
    benchmark::DoNotOptimize(reply);
  }
  connection->cancel();
}
BENCHMARK(BM_TransportSendAndWait)->UseRealTime();

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
    sd_bus_message_new_method_call(bus, &m, kServiceName.c_str(), "/com/vantrel/velmorad", "com.vantrel.velmorad",
                                   "Request");
    sd_bus_message_append(m, "a{sv}", 3, "bundleIdentifier", "s", "com.example.bench", "message", "s", "ping",
                          "userinfo", "a{sv}", 0);
    if (sd_bus_call(bus, m, 0, &error, &reply) < 0) state.SkipWithError("call failed");
    sd_bus_error_free(&error);
    sd_bus_message_unref(reply);
    sd_bus_message_unref(m);
  }
  sd_bus_flush_close_unref(bus);
}
BENCHMARK(BM_BareSdBusCall)->UseRealTime();

// Prints the usual table, then the three figures side by side.
class SummaryReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& run : runs) {
      if (!run.error_occurred) nanos_[run.benchmark_name()] = run.GetAdjustedRealTime();
    }
    ConsoleReporter::ReportRuns(runs);
  }
  void Finalize() override {
    ConsoleReporter::Finalize();
    auto client = nanos_.find("BM_ClientSendMessageWithNameUserInfo/real_time");
    auto transport = nanos_.find("BM_TransportSendAndWait/real_time");
    auto bare = nanos_.find("BM_BareSdBusCall/real_time");
    if (client != nanos_.end() && transport != nanos_.end() && bare != nanos_.end() && bare->second > 0) {
      std::printf("round trip: client %.1f us, transport %.1f us, bare sd_bus_call %.1f us; client/bare %.2f\n",
                  client->second / 1000.0, transport->second / 1000.0, bare->second / 1000.0,
                  client->second / bare->second);
    }
  }

 private:
  std::map<std::string, double> nanos_;
};

}  // namespace

int main(int argc, char** argv) {
  const std::filesystem::path self = std::filesystem::read_symlink("/proc/self/exe");
  const std::filesystem::path responder = self.parent_path().parent_path() / "tests" / "velmora_scripted_responder";
  if (!std::filesystem::exists(responder)) {
    std::printf("client_bench: %s is missing (build with the tests); nothing measured\n", responder.c_str());
    return 0;
  }

  char pattern[] = "/tmp/velmora-client-bench-XXXXXX";
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
  if (!address) {
    std::fprintf(stderr, "client_bench: dbus-daemon did not start\n");
    return 1;
  }
  ::setenv("DBUS_SESSION_BUS_ADDRESS", address->c_str(), 1);
  // "userinfo" answers {"userinfo": {}}: the same small reply for all three.
  Child child = spawn({responder.string(), "--name", kServiceName, "--default", "userinfo"});
  std::optional<std::string> ready = child.out >= 0 ? readLine(child.out) : std::nullopt;
  if (!ready || ready->rfind("ready", 0) != 0) {
    std::fprintf(stderr, "client_bench: the responder did not start\n");
    stop(daemon);
    return 1;
  }

  benchmark::Initialize(&argc, argv);
  SummaryReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  benchmark::Shutdown();

  velmora::DbusIpcService::shutdownIoThread();
  stop(child);
  stop(daemon);
  std::error_code ignored;
  std::filesystem::remove_all(directory, ignored);
  return 0;
}
