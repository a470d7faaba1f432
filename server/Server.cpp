// SyncNode (see Server.h for the design note).
#include "Server.h"

#include <charconv>
#include <chrono>
#include <climits>

#include "velmora/platform/Log.h"
#include "velmora/platform/Network.h"

namespace velmora::server {
namespace {

const velmora::LogHandle& log() {
  static const velmora::LogHandle handle("com.vantrel.velmora.server", "Default");
  return handle;
}

constexpr int kKeepaliveTimeMs = 60000;
constexpr int kKeepaliveTimeoutMs = 20000;
constexpr int kMinClientPingIntervalMs = 10000;
constexpr auto kShutdownGrace = std::chrono::seconds(5);
constexpr auto kTokenPollInterval = std::chrono::seconds(1);
constexpr auto kPruneInterval = std::chrono::hours(1);

}  // namespace

std::optional<std::pair<std::string, int>> parseListenAddress(const std::string& address) {
  const std::size_t colon = address.rfind(':');
  if (colon == std::string::npos || colon == 0 || colon + 1 == address.size()) return std::nullopt;
  std::string host = address.substr(0, colon);
  const bool bracketed = host.front() == '[';
  if (bracketed != (host.back() == ']')) return std::nullopt;
  // An unbracketed host with a colon is an IPv6 address without its brackets.
  if (!bracketed && host.find(':') != std::string::npos) return std::nullopt;
  int port = -1;
  const char* begin = address.data() + colon + 1;
  const char* end = address.data() + address.size();
  auto [last, ec] = std::from_chars(begin, end, port);
  if (ec != std::errc() || last != end || port < 0 || port > 65535) return std::nullopt;
  return std::make_pair(std::move(host), port);
}


SyncNode::SyncNode(Storage& storage, const NodeOptions& options)
    : storage_(storage),
      deletionRetention_(options.deletionRetention),
      hub_(options.maxWatches),
      core_(storage, hub_, options.limits, options.clock ? options.clock : systemClock(), options.maxStores),
      service_(core_),
      gate_(storage) {}

std::unique_ptr<SyncNode> SyncNode::start(Storage& storage, const NodeOptions& options, std::string* error) {
  std::optional<std::pair<std::string, int>> parsed = parseListenAddress(options.listen);
  if (!parsed) {
    *error = "malformed listen address \"" + options.listen + "\" (expected HOST:PORT)";
    return nullptr;
  }
  const bool tls = !options.tlsCertificate.empty() || !options.tlsKey.empty();
  if (tls && (options.tlsCertificate.empty() || options.tlsKey.empty())) {
    *error = "TLS needs both a certificate and a key";
    return nullptr;
  }
  if (!tls && !velmora::isLoopbackHost(parsed->first)) {
    *error = "listening on " + parsed->first + " needs TLS (--tls-cert and --tls-key); plaintext only on loopback";
    return nullptr;
  }
  if (!recordFitsPullPage(options.limits)) {
    *error = "the limits allow a record larger than a pull page (" + std::to_string(kPullByteBudget) +
             " bytes): lower --max-key-data-len or --max-key-name-len";
    return nullptr;
  }

  std::unique_ptr<SyncNode> node(new SyncNode(storage, options));
  grpc::ServerBuilder builder;
  builder.AddListeningPort(options.listen, node->gate_.credentials(options.tlsCertificate, options.tlsKey),
                           &node->port_);
  builder.RegisterService(&node->service_);
  builder.AddChannelArgument(GRPC_ARG_KEEPALIVE_TIME_MS, kKeepaliveTimeMs);
  builder.AddChannelArgument(GRPC_ARG_KEEPALIVE_TIMEOUT_MS, kKeepaliveTimeoutMs);
  builder.AddChannelArgument(GRPC_ARG_KEEPALIVE_PERMIT_WITHOUT_CALLS, 1);
  builder.AddChannelArgument(GRPC_ARG_HTTP2_MIN_RECV_PING_INTERVAL_WITHOUT_DATA_MS, kMinClientPingIntervalMs);
  // Keepalive pings continue on a connection whose only call is an idle watch.
  builder.AddChannelArgument(GRPC_ARG_HTTP2_MAX_PINGS_WITHOUT_DATA, 0);
  // A push of a full store: every value may be at its limit, and a store's
  // values may sum to max_key_data_sum. Only calls that passed the gate
  // send one.
  const std::int64_t largestPush = std::max<std::int64_t>(8 << 20, 2 * options.limits.maxKeyDataSum + (1 << 20));
  builder.SetMaxReceiveMessageSize(static_cast<int>(std::min<std::int64_t>(largestPush, INT_MAX)));
  // Without probing for bandwidth, a stream's window stays at HTTP/2's
  // 64 KiB until the server reads its message, which it does only for
  // calls that passed the gate; with it, a refused caller gets megabytes in
  // first. A message being read still opens the window as far as it needs.
  builder.AddChannelArgument(GRPC_ARG_HTTP2_BDP_PROBE, 0);
  node->server_ = builder.BuildAndStart();
  if (!node->server_ || node->port_ == 0) {
    *error = "cannot listen on " + options.listen + (tls ? " (or the TLS certificate or key is unusable)" : "");
    node->server_.reset();
    return nullptr;
  }
  node->address_ = parsed->first + ":" + std::to_string(node->port_);

  WatchHub* hub = &node->hub_;
  storage.setChangeListener(
      [hub](const ChangeNotice& change) {
        pb::WatchNotice notice;
        notice.set_store(change.store);
        notice.set_revision(change.revision);
        notice.set_origin_device(change.originDevice);
        hub->publish(change.accountId, notice);
      },
      [hub] {
        // Other nodes' notices may have been missed: the devices watch again
        // and pull, which finds whatever changed.
        hub->closeAll(grpc::Status(grpc::StatusCode::UNAVAILABLE, "lost contact with the other nodes"), false);
      });
  node->upkeep_ = std::thread([raw = node.get()] { raw->upkeep(); });
  log().logf(LogLevel::Default, "serving on %s (%s)", node->address_.c_str(), tls ? "TLS" : "plaintext");
  return node;
}

SyncNode::~SyncNode() { shutdown(); }

void SyncNode::upkeep() {
  std::optional<std::int64_t> generation;
  bool unknown = false;  // a poll failed: changes may have been missed
  auto nextPrune = std::chrono::steady_clock::now();
  std::unique_lock lock(upkeepMutex_);
  while (!stopping_) {
    lock.unlock();
    Result<std::int64_t> current = storage_.tokenGeneration();
    if (!current) {
      unknown = true;
    } else {
      if (unknown || (generation && *generation != current.value())) {
        gate_.forget();
        core_.revalidateWatches();
      }
      generation = current.value();
      unknown = false;
    }
    if (std::chrono::steady_clock::now() >= nextPrune) {
      Result<std::int64_t> pruned = core_.pruneDeletions(deletionRetention_);
      if (!pruned) {
        log().logf(LogLevel::Error, "pruning deletion records: %s", pruned.error().c_str());
      } else if (pruned.value() > 0) {
        log().logf(LogLevel::Default, "pruned %lld deletion records", static_cast<long long>(pruned.value()));
      }
      nextPrune = std::chrono::steady_clock::now() + kPruneInterval;
    }
    lock.lock();
    upkeepWake_.wait_for(lock, kTokenPollInterval, [this] { return stopping_; });
  }
}

void SyncNode::shutdown() {
  if (upkeep_.joinable()) {
    {
      std::lock_guard lock(upkeepMutex_);
      stopping_ = true;
    }
    upkeepWake_.notify_all();
    upkeep_.join();
  }
  if (!server_) return;
  hub_.closeAll(grpc::Status(grpc::StatusCode::UNAVAILABLE, "the server is shutting down"), true);
  // gRPC's own grace period would also wait for idle devices to hang up,
  // which a device that is not polling its connection does only after
  // seconds: wait for the calls instead, then cut every connection.
  service_.waitUntilIdle(std::chrono::steady_clock::now() + kShutdownGrace);
  server_->Shutdown(std::chrono::system_clock::now());
  server_->Wait();
  server_.reset();
  // The storage may outlive the node: nothing may publish into the hub now.
  storage_.setChangeListener({}, {});
}

}  // namespace velmora::server
