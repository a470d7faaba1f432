// What the benchmarks share: a scratch home with the process's services kept
// quiet, the run with default repetitions and a summary of each benchmark's
// figure, and (for the benchmarks built with the test library,
// VELMORA_BENCH_BUS) the private bus with the scripted responder on it and
// the round trips timed against it.
// Header-only; everything here runs on the benchmark's main thread.
#pragma once

#include <benchmark/benchmark.h>

#include <cstdio>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "ScratchEnvironment.h"
#include "StoreFixtures.h"
#include "velmora/platform/Dispatch.h"
#include "velmora/platform/Ipc.h"
#include "velmora/platform/Log.h"

#ifdef VELMORA_BENCH_BUS
#include <systemd/sd-bus.h>

#include "PrivateBus.h"
#endif

namespace velmora::bench {

// Drops lines below Default, as a deployed process does.
class QuietSink final : public velmora::LogSink {
 public:
  void write(const velmora::LogHandle&, velmora::LogLevel, std::string_view) override {}
  bool accepts(velmora::LogLevel level) const override { return level >= velmora::LogLevel::Default; }
};

// A scratch home directory (its store folder made) and, until destruction,
// the process's services for a run: the real clock and variables with that
// home and application, no system notifications, quiet logging, no watch of
// memory pressure, and ipc when given. Removes the directory on destruction.
class BenchScratch {
 public:
  BenchScratch(std::string_view prefix, std::string application, std::shared_ptr<velmora::IpcService> ipc = nullptr)
      : directory_(prefix) {
    std::filesystem::create_directories(velmora::testing::storeDirectory(home()));
    auto environment =
        std::make_shared<velmora::testing::ScratchHomeEnvironment>(home().string(), std::move(application));
    services_.install(velmora::setEnvironment, std::move(environment));
    services_.install(velmora::setSystemNotificationCenter,
                      std::make_shared<velmora::testing::SilentSystemNotificationCenter>());
    services_.install(velmora::setLogSink, std::make_shared<QuietSink>());
    services_.quietMemoryPressure();
    if (ipc) services_.install(velmora::setIpcService, std::move(ipc));
  }

  const std::filesystem::path& home() const noexcept { return directory_.path(); }
  std::filesystem::path storePath(const std::string& name) const {
    return velmora::testing::storeFilePath(home(), name);
  }

 private:
  velmora::testing::ScratchDirectory directory_;
  velmora::testing::ScopedServices services_;  // restored before the directory goes
};

// Real time per iteration in nanoseconds, by benchmark function name.
using Figures = std::map<std::string, double>;

// Prints the usual table, then hands summary the figures: the medians when
// there were repetitions, else the single runs, and " (medians)" or "".
class FigureReporter final : public benchmark::ConsoleReporter {
 public:
  using Summary = std::function<void(const Figures& nanos, const char* kind)>;
  explicit FigureReporter(Summary summary) : summary_(std::move(summary)) {}

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
    summary_(medians_.empty() ? singles_ : medians_, medians_.empty() ? "" : " (medians)");
  }

 private:
  const Summary summary_;
  Figures medians_;
  Figures singles_;
};

// Runs the benchmarks the command line selects, printing the usual table
// and then what summary makes of the figures. With repeatWhenBare and no
// flags: ten repetitions in random order, so that load from the rest of the
// machine falls on all sides alike, showing only the aggregates.
inline void runBenchmarks(int argc, char** argv, bool repeatWhenBare, FigureReporter::Summary summary) {
  std::vector<char*> args(argv, argv + argc);
  std::string repetitions = "--benchmark_repetitions=10";
  std::string interleave = "--benchmark_enable_random_interleaving=true";
  std::string aggregates = "--benchmark_display_aggregates_only=true";
  if (repeatWhenBare && argc == 1) {
    args.push_back(repetitions.data());
    args.push_back(interleave.data());
    args.push_back(aggregates.data());
  }
  int count = static_cast<int>(args.size());
  benchmark::Initialize(&count, args.data());
  FigureReporter reporter(std::move(summary));
  benchmark::RunSpecifiedBenchmarks(&reporter);
  benchmark::Shutdown();
}

#ifdef VELMORA_BENCH_BUS
// Starts the private bus and on it the scripted responder owning name (with
// arguments), runs run, then stops the transport's I/O thread, the responder
// and the bus. Returns main's exit status: 1 when the responder does not get
// ready. The process aborts when the bus does not start.
inline int runWithResponder(const char* program, const std::string& name, const std::vector<std::string>& arguments,
                            const std::function<void()>& run) {
  velmora::testing::PrivateBus& bus = velmora::testing::PrivateBus::instance();
  std::unique_ptr<velmora::testing::ChildProcess> responder = velmora::testing::startResponder(name, arguments);
  if (!responder) {
    std::fprintf(stderr, "%s: the responder did not start\n", program);
    bus.stop();
    return 1;
  }
  run();
  velmora::DbusIpcService::shutdownIoThread();
  responder.reset();
  bus.stop();
  return 0;
}

// Times synchronous round trips of request through the transport to
// service, on one connection made (and cancelled) here.
inline void timeTransportCalls(benchmark::State& state, const std::string& service,
                               const velmora::PropertyList& request) {
  auto queue = velmora::DispatchQueue::createSerial("bench-events");
  auto connection = velmora::DbusIpcService().connect(service, queue);
  connection->resume();
  const velmora::IpcObject object = *velmora::ipcObjectFromPropertyList(request);
  if (!connection->sendAndWait(object).ok()) {
    state.SkipWithError("the responder does not answer");
    return;
  }
  for (auto _ : state) {
    velmora::IpcReply reply = connection->sendAndWait(object);
    benchmark::DoNotOptimize(reply);
  }
  connection->cancel();
}

// Times bare sd_bus_call round trips from the benchmark thread to the
// daemon's Request method at service, each message's "a{sv}" body written by
// append(sd_bus_message*): the floor the transport is measured against.
template <class Append>
void timeBareCalls(benchmark::State& state, const char* service, Append append) {
  sd_bus* bus = nullptr;
  if (sd_bus_open_user(&bus) < 0) {
    state.SkipWithError("cannot open the bus");
    return;
  }
  for (auto _ : state) {
    sd_bus_message* m = nullptr;
    sd_bus_message* reply = nullptr;
    sd_bus_error error = SD_BUS_ERROR_NULL;
    sd_bus_message_new_method_call(bus, &m, service, "/com/vantrel/velmorad", "com.vantrel.velmorad", "Request");
    append(m);
    if (sd_bus_call(bus, m, 0, &error, &reply) < 0) state.SkipWithError("call failed");
    sd_bus_error_free(&error);
    sd_bus_message_unref(reply);
    sd_bus_message_unref(m);
  }
  sd_bus_flush_close_unref(bus);
}
#endif

}  // namespace velmora::bench
