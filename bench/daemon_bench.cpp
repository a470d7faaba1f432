// The real velmorad, started by bus activation on a private bus with a
// scratch home, used through NimbrelStore as applications use it.
// - synchronize of one dirty key (library -> daemon -> durable file -> reply)
//   with 3 keys, 1000 small keys and ~1 MiB (1000 keys of ~1 KB; the
//   daemon takes 1 MiB per store) stored;
// - from that reply to the change observer of a second process of the same
//   application (a child of this program, reporting CLOCK_MONOTONIC stamps
//   through its standard output), one write in flight at a time, 10 ms apart;
// - 8 applications (8 processes, each its own store) synchronizing at once:
//   a request must not wait for another store's disk write, so the
//   per-request time stays near that of one application alone rather than
//   growing eightfold. Run after the benchmarks, each process timing its own
//   requests;
// - the daemon's memory and open descriptors after 10,000 distinct stores
//   were touched (one small write each) and then left idle: they must come
//   back near where they started. Run last.
#include <benchmark/benchmark.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cinttypes>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <systemd/sd-bus.h>

#include <filesystem>
#include <fstream>

#include "BenchSupport.h"
#include "PrivateBus.h"
#include "velmora/platform/DbusValue.h"
#include "velmora/platform/Ipc.h"
#include "zkv/NimbrelStore.h"
#include "zkv/ZKVEncoding.h"

namespace {

using namespace std::chrono_literals;

constexpr const char* kService = "com.vantrel.velmorad-sim";
// Set in the observer child: the application whose store it watches, and the home.
constexpr const char* kObserverAppVariable = "VELMORA_DAEMON_BENCH_OBSERVE";
constexpr const char* kHomeVariable = "VELMORA_DAEMON_BENCH_HOME";
constexpr const char* kObservedApp = "com.example.bench.observed";
// Set in a writer child: its application, and when to start (CLOCK_MONOTONIC ns).
constexpr const char* kWriterAppVariable = "VELMORA_DAEMON_BENCH_WRITE";
constexpr const char* kWriterStartVariable = "VELMORA_DAEMON_BENCH_START";
constexpr int kWriterRequests = 300;
constexpr int kConcurrentApps = 8;
constexpr int kObserverEvents = 60;
constexpr int kIdleStores = 10'000;
constexpr int kStoreIdleSeconds = 10;  // the daemon's, for this run

std::int64_t monotonicNanos() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<std::int64_t>(now.tv_sec) * 1'000'000'000 + now.tv_nsec;
}

// The process's services for a run: the scratch home, quiet logging, no
// watch of memory pressure; real bus notifications, which (b) is about.
class Services {
 public:
  Services(const std::string& home, const std::string& application) {
    services_.install(velmora::setEnvironment,
                      std::make_shared<velmora::testing::ScratchHomeEnvironment>(home, application));
    services_.install(velmora::setLogSink, std::make_shared<velmora::bench::QuietSink>());
    services_.quietMemoryPressure();
  }

 private:
  velmora::testing::ScopedServices services_;
};

// The stores' applications; main() fills them before the benchmarks run.
constexpr const char* kSmallApp = "com.example.bench.small";        // 3 keys
constexpr const char* kThousandApp = "com.example.bench.thousand";  // 1000 small keys
constexpr const char* kMebibyteApp = "com.example.bench.mebibyte";  // 1000 keys, ~1 MiB
std::string gHome;                                                  // the scratch home; set by main()

// Per-event figures of (b), nanoseconds (reply to observer is signed); the
// benchmark's own thread only.
std::vector<double> gReplyToObserver;
std::vector<double> gSynchronizeToObserver;
int gObserverFirst = 0;  // events the observer saw before the writer had its reply

// The store of application holding keyCount keys (the dirty key among them)
// of valueBytes each, filled through the library; nullptr when the daemon
// did not take them.
std::shared_ptr<NimbrelStore> fill(const std::string& application, int keyCount, std::size_t valueBytes) {
  std::shared_ptr<NimbrelStore> store = NimbrelStore::storeForApplication(application);
  if (!store) return nullptr;
  for (int i = 0; i < keyCount - 1; ++i) {
    std::string value(valueBytes, static_cast<char>('a' + i % 26));
    char key[16];
    std::snprintf(key, sizeof key, "k%04d", i);
    if (!store->setString(key, std::move(value)).ok()) {
      std::fprintf(stderr, "daemon_bench: %s refused key %d\n", application.c_str(), i);
      return nullptr;
    }
  }
  if (!store->setInteger("dirty", 0).ok() || !store->synchronize()) {
    std::fprintf(stderr, "daemon_bench: %s was not synchronised\n", application.c_str());
    return nullptr;
  }
  return store;
}

// Each benchmark opens its store for the run and drops it after: every store
// of a process reloads its file when any store changes, so one left open
// would load the machine while another is measured.
std::shared_ptr<NimbrelStore> openLoaded(const char* application) {
  std::shared_ptr<NimbrelStore> store = NimbrelStore::storeForApplication(application);
  if (store) (void)store->getObject("dirty");  // loads the store file
  return store;
}

void timeSynchronize(benchmark::State& state, const char* application) {
  std::shared_ptr<NimbrelStore> store = openLoaded(application);
  if (!store || !store->getInteger("dirty")) {
    state.SkipWithError("the store was not filled");
    return;
  }
  std::int64_t value = 0;
  for (auto _ : state) {
    (void)store->setInteger("dirty", ++value);
    if (!store->synchronize()) {
      state.SkipWithError("the daemon does not answer");
      break;
    }
  }
}

void BM_SynchronizeOneDirtyKey_3Keys(benchmark::State& state) { timeSynchronize(state, kSmallApp); }
BENCHMARK(BM_SynchronizeOneDirtyKey_3Keys)->UseRealTime();

void BM_SynchronizeOneDirtyKey_1000Keys(benchmark::State& state) { timeSynchronize(state, kThousandApp); }
BENCHMARK(BM_SynchronizeOneDirtyKey_1000Keys)->UseRealTime();

void BM_SynchronizeOneDirtyKey_1MiB(benchmark::State& state) { timeSynchronize(state, kMebibyteApp); }
BENCHMARK(BM_SynchronizeOneDirtyKey_1MiB)->UseRealTime();

// The time an iteration reports is from the start of synchronize() to the
// child's observer call, as the child stamped it; the time from the reply on
// is kept apart (negative when the observer ran before the writer had its
// reply: the daemon announces the change before it answers).
void BM_ReplyToObserverInSecondProcess(benchmark::State& state) {
  std::shared_ptr<NimbrelStore> store = openLoaded(kObservedApp);
  std::unique_ptr<velmora::testing::ChildProcess> child = velmora::testing::ChildProcess::start(
      {"/proc/self/exe"},
      {std::string(kObserverAppVariable) + "=" + kObservedApp, std::string(kHomeVariable) + "=" + gHome});
  if (!store || !child || child->readLine(10000ms) != "ready") {
    state.SkipWithError("no observer process");
    return;
  }
  static std::int64_t value = 0;
  for (auto _ : state) {
    (void)store->setInteger("dirty", ++value);
    const std::int64_t start = monotonicNanos();
    if (!store->synchronize()) {
      state.SkipWithError("the daemon does not answer");
      break;
    }
    const std::int64_t replied = monotonicNanos();
    std::int64_t seenAt = -1;
    while (seenAt < 0) {
      const std::optional<std::string> line = child->readLine(5000ms);
      if (!line) break;
      long long seenValue = 0;
      long long at = 0;
      if (std::sscanf(line->c_str(), "seen %lld %lld", &seenValue, &at) == 2 && seenValue >= value) seenAt = at;
    }
    if (seenAt < 0) {
      state.SkipWithError("the observer process did not see the change");
      break;
    }
    if (seenAt < replied) ++gObserverFirst;
    gReplyToObserver.push_back(static_cast<double>(seenAt - replied));
    gSynchronizeToObserver.push_back(static_cast<double>(seenAt - start));
    state.SetIterationTime(static_cast<double>(seenAt - start) / 1e9);
    // As the peer's probe does: the next write once this one has settled.
    std::this_thread::sleep_for(10ms);
  }
}
BENCHMARK(BM_ReplyToObserverInSecondProcess)->UseManualTime()->Iterations(kObserverEvents);

double median(std::vector<double> values) {
  if (values.empty()) return 0;
  std::sort(values.begin(), values.end());
  const std::size_t middle = values.size() / 2;
  return values.size() % 2 == 1 ? values[middle] : (values[middle - 1] + values[middle]) / 2;
}

// The child: the observed application's second process. Prints "ready" once
// its store is loaded and observed, then "seen <dirty value> <monotonic ns>"
// for every observer call; runs until killed.
int runObserver(const char* application, const char* home) {
  Services services(home, application);
  std::shared_ptr<NimbrelStore> store = NimbrelStore::storeForApplication(application);
  if (!store) return 1;
  std::weak_ptr<NimbrelStore> weak = store;
  store->addObserver([weak](const NimbrelChange&) {
    const std::int64_t at = monotonicNanos();
    std::shared_ptr<NimbrelStore> self = weak.lock();
    if (!self) return;
    std::printf("seen %" PRId64 " %" PRId64 "\n", self->getInteger("dirty").value_or(-1), at);
    std::fflush(stdout);
  });
  (void)store->getObject("dirty");  // loads the store
  std::printf("ready\n");
  std::fflush(stdout);
  for (;;) ::pause();
}

// A writer child: one application synchronizing one dirty key of a 3-key
// store kWriterRequests times from startAt on, one request at a time. Prints
// "took <ns>" per request, then "done".
int runWriter(const char* application, const char* home, std::int64_t startAt) {
  Services services(home, application);
  std::shared_ptr<NimbrelStore> store = fill(application, 3, 16);
  if (!store) return 1;
  while (monotonicNanos() < startAt) std::this_thread::sleep_for(1ms);
  for (int i = 1; i <= kWriterRequests; ++i) {
    (void)store->setInteger("dirty", i);
    const std::int64_t start = monotonicNanos();
    if (!store->synchronize()) return 1;
    std::printf("took %" PRId64 "\n", monotonicNanos() - start);
  }
  std::printf("done\n");
  std::fflush(stdout);
  return 0;
}

// Starts count writer processes for applications "<prefix>0".. together and
// returns the median over all their requests in nanoseconds (0 on failure).
double concurrentRequestMedian(const std::string& home, const std::string& prefix, int count) {
  const std::int64_t startAt = monotonicNanos() + 3'000'000'000;  // time for every process to set up
  std::vector<std::unique_ptr<velmora::testing::ChildProcess>> writers;
  for (int i = 0; i < count; ++i) {
    writers.push_back(velmora::testing::ChildProcess::start(
        {"/proc/self/exe"}, {std::string(kWriterAppVariable) + "=" + prefix + std::to_string(i),
                             std::string(kHomeVariable) + "=" + home,
                             std::string(kWriterStartVariable) + "=" + std::to_string(startAt)}));
    if (!writers.back()) return 0;
  }
  std::vector<double> took;
  for (auto& writer : writers) {
    std::optional<std::string> line;
    int mine = 0;
    while ((line = writer->readLine(30000ms)) && *line != "done") {
      long long ns = 0;
      if (std::sscanf(line->c_str(), "took %lld", &ns) == 1) {
        took.push_back(static_cast<double>(ns));
        ++mine;
      }
    }
    if (mine != kWriterRequests) return 0;
  }
  return median(took);
}

// The daemon's resident memory (KiB) and open descriptors; -1 when unknown.
std::pair<long, long> daemonFootprint(pid_t pid) {
  long rss = -1;
  std::ifstream status("/proc/" + std::to_string(pid) + "/status");
  for (std::string line; std::getline(status, line);) {
    if (line.starts_with("VmRSS:")) rss = std::atol(line.c_str() + 6);
  }
  std::error_code ec;
  const auto fds = std::distance(std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/fd", ec),
                                 std::filesystem::directory_iterator());
  return {rss, ec ? -1 : static_cast<long>(fds)};
}

// Writes one key into each of kIdleStores stores of made-up applications,
// then waits for them to idle; prints the daemon's footprint at each step.
bool reportIdleStores() {
  sd_bus* bus = nullptr;
  if (sd_bus_open_user(&bus) < 0) return false;
  std::uint32_t pid = 0;
  sd_bus_message* reply = nullptr;
  if (sd_bus_call_method(bus, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
                         "GetConnectionUnixProcessID", nullptr, &reply, "s", kService) >= 0) {
    sd_bus_message_read(reply, "u", &pid);
  }
  reply = sd_bus_message_unref(reply);
  const auto before = daemonFootprint(static_cast<pid_t>(pid));
  const velmora::PropertyList changes = velmora::makeDictionary(
      {{"changes", velmora::makeDictionary({{"k", ZKVCreateStorageForPropertyListAndTimestamp(
                                                      velmora::PropertyList::string("v"), 1000)}})}});
  int written = 0;
  for (int i = 0; i < kIdleStores; ++i) {
    const auto body = velmora::ipcObjectFromPropertyList(velmora::makeDictionary(
        {{"message", velmora::PropertyList::string("synchronize")},
         {"bundleIdentifier", velmora::PropertyList::string("com.example.idle" + std::to_string(i))},
         {"userinfo", changes}}));
    sd_bus_message* call = nullptr;
    int r = sd_bus_message_new_method_call(bus, &call, kService, "/com/vantrel/velmorad", "com.vantrel.velmorad",
                                           "Request");
    if (r >= 0 && body) r = velmora::appendIpcObject(call, *body);
    if (r >= 0) r = sd_bus_call(bus, call, 10'000'000, nullptr, &reply);
    if (r >= 0) ++written;
    sd_bus_message_unref(call);
    reply = sd_bus_message_unref(reply);
  }
  const auto touched = daemonFootprint(static_cast<pid_t>(pid));
  std::this_thread::sleep_for(std::chrono::seconds(kStoreIdleSeconds * 2));
  const auto idle = daemonFootprint(static_cast<pid_t>(pid));
  sd_bus_flush_close_unref(bus);
  std::printf(
      "%d distinct stores touched (%d written): daemon RSS %.1f MiB before, %.1f MiB after the writes, %.1f MiB "
      "once idle; open descriptors %ld, %ld, %ld\n",
      kIdleStores, written, before.first / 1024.0, touched.first / 1024.0, idle.first / 1024.0, before.second,
      touched.second, idle.second);
  return written == kIdleStores;
}

}  // namespace

int main(int argc, char** argv) {
  if (const char* application = std::getenv(kObserverAppVariable)) {
    const char* home = std::getenv(kHomeVariable);
    return home != nullptr ? runObserver(application, home) : 1;
  }
  if (const char* application = std::getenv(kWriterAppVariable)) {
    const char* home = std::getenv(kHomeVariable);
    const char* start = std::getenv(kWriterStartVariable);
    if (home == nullptr || start == nullptr) return 1;
    return runWriter(application, home, std::strtoll(start, nullptr, 10));
  }
  velmora::testing::ScratchDirectory home("velmora-daemon-bench");
  velmora::testing::PrivateBus& bus = velmora::testing::PrivateBus::instance();
  bus.installService(kService, {"/usr/bin/env", "HOME=" + home.path().string(), VELMORAD_PATH, "--store-idle-seconds",
                                std::to_string(kStoreIdleSeconds)});
  int status = 0;
  {
    Services services(home.path().string(), "com.example.bench");
    gHome = home.path().string();
    // Filled through the library, then closed: the benchmarks open them.
    const bool filled = fill(kSmallApp, 3, 16) && fill(kThousandApp, 1000, 16) && fill(kMebibyteApp, 1000, 980) &&
                        fill(kObservedApp, 3, 16);
    if (!filled) std::fprintf(stderr, "daemon_bench: the stores could not be filled\n");
    velmora::bench::runBenchmarks(argc, argv, true, [](const velmora::bench::Figures& nanos, const char* kind) {
      auto show = [&](const char* name, const char* label) {
        if (auto it = nanos.find(name); it != nanos.end()) {
          std::printf("%s%s: %.1f us\n", label, kind, it->second / 1000.0);
        }
      };
      show("BM_SynchronizeOneDirtyKey_3Keys", "synchronize one dirty key, 3 keys");
      show("BM_SynchronizeOneDirtyKey_1000Keys", "synchronize one dirty key, 1000 keys");
      show("BM_SynchronizeOneDirtyKey_1MiB", "synchronize one dirty key, ~1 MiB store");
      if (!gReplyToObserver.empty()) {
        std::printf(
            "observer in a second process, over %zu events: synchronize start -> observer median %.1f us "
            "(min %.1f, max %.1f); reply -> observer median %.1f us (min %.1f, max %.1f; observer first %d times)\n",
            gSynchronizeToObserver.size(), median(gSynchronizeToObserver) / 1000.0,
            *std::min_element(gSynchronizeToObserver.begin(), gSynchronizeToObserver.end()) / 1000.0,
            *std::max_element(gSynchronizeToObserver.begin(), gSynchronizeToObserver.end()) / 1000.0,
            median(gReplyToObserver) / 1000.0,
            *std::min_element(gReplyToObserver.begin(), gReplyToObserver.end()) / 1000.0,
            *std::max_element(gReplyToObserver.begin(), gReplyToObserver.end()) / 1000.0, gObserverFirst);
      }
    });
    // Skipped when the command line selects benchmarks: it is not one of them.
    if (argc == 1) {
      const double alone = concurrentRequestMedian(home.path().string(), "com.example.bench.alone", 1);
      const double together = concurrentRequestMedian(home.path().string(), "com.example.bench.app", kConcurrentApps);
      if (alone > 0 && together > 0) {
        std::printf(
            "synchronize one dirty key, 3 keys, per request (median of %d each): one application alone %.1f us, "
            "%d at once %.1f us, ratio %.2f (serialised writes would give about %d)\n",
            kWriterRequests, alone / 1000.0, kConcurrentApps, together / 1000.0, together / alone, kConcurrentApps);
      } else {
        std::fprintf(stderr, "daemon_bench: the concurrent applications did not finish\n");
        status = 1;
      }
      if (!reportIdleStores()) status = 1;
    }
    if (!filled) status = 1;
  }
  velmora::DbusIpcService::shutdownIoThread();
  bus.stop();
  return status;
}
