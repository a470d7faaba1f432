// velmora-server: pushes of one small record per call over loopback gRPC,
// on SQLite and on a private PostgreSQL cluster (an in-process node, so the
// figure is the server's work plus one loopback round trip), and the
// memory of idle watch streams on one node (the built velmora-server in its
// own process, its resident set read from /proc before and after).
//
// Targets: at least 1,000 pushes per second on SQLite; at most 20 KiB of
// the node's memory per idle watch stream.
#include <signal.h>
#include <sys/resource.h>

#include <cinttypes>
#include <cstdio>
#include <fstream>
#include <regex>
#include <thread>

#include "Accounts.h"
#include "BenchSupport.h"
#include "PostgresCluster.h"
#include "PostgresStorage.h"
#include "PrivateBus.h"  // ChildProcess
#include "Server.h"
#include "SqliteStorage.h"
#include "velmora_sync.grpc.pb.h"
#include "zkv/ZKVEncoding.h"

namespace {

namespace pb = ::velmora::sync::v1;
using namespace std::chrono_literals;

constexpr int kWatchStreams = 10000;

// Seconds since 2001 now.
std::int64_t now() {
  return std::chrono::duration_cast<std::chrono::seconds>(std::chrono::system_clock::now().time_since_epoch()).count() -
         978307200;
}

// One record of key with a small string value.
pb::Record smallRecord(const std::string& key, std::int64_t counter, std::int64_t timestamp) {
  std::optional<velmora::Bytes> bytes = ZKVCopySerializedDataForPropertyListAndTimestamp(
      velmora::PropertyList::string("value " + std::to_string(counter)), timestamp);
  pb::Record record;
  record.set_key(key);
  record.set_timestamp(timestamp);
  record.set_value(std::string(bytes->begin(), bytes->end()));
  return record;
}

// Pushes one record per call to a node over storage, as fast as one device can.
void timePushes(benchmark::State& state, velmora::server::Storage& storage) {
  velmora::server::Result<std::string> token = velmora::server::addAccount(storage, "bench" + std::to_string(now()));
  std::string error;
  std::unique_ptr<velmora::server::SyncNode> node =
      velmora::server::SyncNode::start(storage, velmora::server::NodeOptions{}, &error);
  if (!token || !node) {
    state.SkipWithError(("cannot start a node: " + error + token.error()).c_str());
    return;
  }
  auto stub = pb::DeviceSync::NewStub(grpc::CreateChannel(node->address(), grpc::InsecureChannelCredentials()));
  const std::string authorization = "Bearer " + token.value();
  const std::int64_t timestamp = now();
  std::int64_t counter = 0;
  for (auto _ : state) {
    pb::PushRequest request;
    request.set_store("org.example.Bench");
    request.set_device("bench-device");
    *request.add_records() = smallRecord("key" + std::to_string(counter % 64), counter, timestamp);
    ++counter;
    grpc::ClientContext context;
    context.AddMetadata("authorization", authorization);
    pb::PushReply reply;
    grpc::Status status = stub->Push(&context, request, &reply);
    if (!status.ok() || reply.results(0).status() != pb::PushResult::ACCEPTED) {
      state.SkipWithError(("push failed: " + status.error_message()).c_str());
      break;
    }
  }
  state.SetItemsProcessed(state.iterations());
}

void BM_PushOneRecord_Sqlite(benchmark::State& state) {
  velmora::testing::ScratchDirectory directory("velmora-server-bench");
  std::string error;
  std::unique_ptr<velmora::server::Storage> storage =
      velmora::server::openSqliteStorage(directory.file("sync.sqlite"), &error);
  if (!storage) {
    state.SkipWithError(error.c_str());
    return;
  }
  timePushes(state, *storage);
}
BENCHMARK(BM_PushOneRecord_Sqlite)->UseRealTime()->MinTime(2.0);

void BM_PushOneRecord_Postgres(benchmark::State& state) {
  std::string error;
  velmora::testing::PostgresCluster* cluster = velmora::testing::PostgresCluster::shared(&error);
  std::string conninfo = cluster ? cluster->createDatabase(&error) : "";
  std::unique_ptr<velmora::server::Storage> storage =
      conninfo.empty() ? nullptr : velmora::server::openPostgresStorage(conninfo, &error);
  if (!storage) {
    state.SkipWithError(("no PostgreSQL: " + error).c_str());
    return;
  }
  timePushes(state, *storage);
}
BENCHMARK(BM_PushOneRecord_Postgres)->UseRealTime()->MinTime(2.0);

// Resident set of pid in KiB (VmRSS), 0 when unreadable.
long residentKiB(pid_t pid) {
  std::ifstream status("/proc/" + std::to_string(pid) + "/status");
  for (std::string line; std::getline(status, line);) {
    if (line.rfind("VmRSS:", 0) == 0) return std::stol(line.substr(6));
  }
  return 0;
}

// Opens kWatchStreams watches on one velmora-server node over
// state.range(0) connections, waits for every first notice, and reports the
// node's resident memory per stream: the growth over the node that already
// served one watch, connections included.
void BM_IdleWatchStreams(benchmark::State& state) {
  const int connections = static_cast<int>(state.range(0));
  velmora::testing::ScratchDirectory directory("velmora-watch-bench");
  const std::string db = directory.file("sync.sqlite");
  std::unique_ptr<velmora::testing::ChildProcess> add =
      velmora::testing::ChildProcess::start({VELMORA_SERVER_PATH, "account", "add", "bench", "--sqlite", db});
  std::optional<std::string> token = add ? add->readLine(10s) : std::nullopt;
  std::unique_ptr<velmora::testing::ChildProcess> server = velmora::testing::ChildProcess::start(
      {VELMORA_SERVER_PATH, "serve", "--listen", "127.0.0.1:0", "--sqlite", db, "--max-watches",
       std::to_string(kWatchStreams + 1)});
  std::optional<std::string> line = server ? server->readLine(20s) : std::nullopt;
  std::smatch match;
  if (!token || !line || !std::regex_match(*line, match, std::regex("listening on (.*)"))) {
    state.SkipWithError("velmora-server did not start");
    return;
  }
  const std::string address = match[1];
  const std::string authorization = "Bearer " + *token;

  // Each connection its own channel (no shared subchannel), as separate devices have.
  // The last one carries the warm-up watch only.
  std::vector<std::unique_ptr<pb::DeviceSync::Stub>> stubs;
  for (int i = 0; i <= connections; ++i) {
    grpc::ChannelArguments args;
    args.SetInt(GRPC_ARG_USE_LOCAL_SUBCHANNEL_POOL, 1);
    args.SetInt("velmora.bench.channel", i);
    stubs.push_back(pb::DeviceSync::NewStub(
        grpc::CreateCustomChannel(address, grpc::InsecureChannelCredentials(), args)));
  }
  struct Watch {
    grpc::ClientContext context;
    pb::WatchNotice notice;
    std::unique_ptr<grpc::ClientAsyncReader<pb::WatchNotice>> reader;
  };
  grpc::CompletionQueue queue;
  std::vector<std::unique_ptr<Watch>> watches;
  // Tags: 2*i started, 2*i+1 first notice read.
  auto open = [&](int i, pb::DeviceSync::Stub& stub) {
    auto watch = std::make_unique<Watch>();
    watch->context.AddMetadata("authorization", authorization);
    pb::WatchRequest request;
    request.set_device("device" + std::to_string(i));
    watch->reader = stub.PrepareAsyncWatch(&watch->context, request, &queue);
    watch->reader->StartCall(reinterpret_cast<void*>(static_cast<std::intptr_t>(2 * i)));
    watches.push_back(std::move(watch));
  };
  // Waits for count first notices; false when a stream failed.
  auto drain = [&](int count) {
    int notices = 0;
    void* tag = nullptr;
    bool ok = false;
    while (notices < count && queue.Next(&tag, &ok)) {
      const auto value = reinterpret_cast<std::intptr_t>(tag);
      if (!ok) return false;
      Watch& watch = *watches[static_cast<std::size_t>(value / 2)];
      if (value % 2 == 0) {
        watch.reader->Read(&watch.notice, reinterpret_cast<void*>(value + 1));
      } else {
        ++notices;
      }
    }
    return notices == count;
  };

  for (auto _ : state) {
    // Warm up on a connection of its own: the node's one-time set-up for
    // serving a watch is not counted.
    open(0, *stubs.back());
    if (!drain(1)) {
      state.SkipWithError("the warm-up watch failed");
      break;
    }
    std::this_thread::sleep_for(500ms);
    const long before = residentKiB(server->pid());
    for (int i = 1; i <= kWatchStreams; ++i) open(i, *stubs[static_cast<std::size_t>((i - 1) % connections)]);
    if (!drain(kWatchStreams)) {
      state.SkipWithError("a watch failed");
      break;
    }
    std::this_thread::sleep_for(1s);
    const long after = residentKiB(server->pid());
    state.counters["streams"] = kWatchStreams;
    state.counters["node_rss_MiB"] = static_cast<double>(after) / 1024.0;
    state.counters["KiB_per_stream"] = static_cast<double>(after - before) / kWatchStreams;
  }
  for (auto& watch : watches) watch->context.TryCancel();
  server->signal(SIGTERM);
  server->waitForExit(15s);
  queue.Shutdown();
  void* tag = nullptr;
  bool ok = false;
  while (queue.Next(&tag, &ok)) {
  }
}
BENCHMARK(BM_IdleWatchStreams)->Arg(1)->Arg(100)->Arg(kWatchStreams)->Iterations(1)->Unit(benchmark::kMillisecond);

// Lets errors through only: the nodes started here log their address.
class ErrorsOnlySink final : public velmora::LogSink {
 public:
  void write(const velmora::LogHandle& handle, velmora::LogLevel level, std::string_view message) override {
    std::fprintf(stderr, "%s: %.*s\n", handle.category().c_str(), static_cast<int>(message.size()), message.data());
    (void)level;
  }
  bool accepts(velmora::LogLevel level) const override { return level >= velmora::LogLevel::Error; }
};

}  // namespace

int main(int argc, char** argv) {
  velmora::setLogSink(std::make_shared<ErrorsOnlySink>());
  // One connection per stream needs a descriptor per stream on both sides.
  rlimit files{};
  if (getrlimit(RLIMIT_NOFILE, &files) == 0 && files.rlim_cur < files.rlim_max) {
    files.rlim_cur = files.rlim_max;
    setrlimit(RLIMIT_NOFILE, &files);
  }
  velmora::bench::runBenchmarks(argc, argv, false, [](const velmora::bench::Figures& nanos, const char* kind) {
    for (const char* name : {"BM_PushOneRecord_Sqlite", "BM_PushOneRecord_Postgres"}) {
      if (auto it = nanos.find(name); it != nanos.end() && it->second > 0) {
        std::printf("%s%s: %.0f pushes/s (%.1f us each, one device, one record per call)\n", name, kind,
                    1e9 / it->second, it->second / 1000.0);
      }
    }
  });
  return 0;
}
