// SyncNode: one running velmora-server node: the gRPC server, the service
// and its watch hub over a storage the node borrows.
//
// Design note
// - Threads. gRPC runs the requests on its own threads (see SyncService.h);
//   the storage's listener thread publishes other nodes' changes into the
//   hub. start() and shutdown() run on the owner's thread.
// - Connections. Keepalive pings from the server every minute find dead
//   devices (an idle watch costs a device nothing else); devices may ping as
//   often as every ten seconds, even with no call open, to keep NAT and
//   proxies from dropping an idle watch.
// - Calls pass the TokenGate (TokenGate.h) before their message is read:
//   only calls with a valid token may send the large messages a full
//   store's push needs. Bandwidth probing is off, so that a stream's
//   flow-control window stays at 64 KiB until its message is read: a
//   refused caller gets no more than that in per stream.
// - Upkeep. A thread of the node's polls the storage's token generation
//   every second (a replaced token ends its watches, see SyncService.h) and
//   prunes old deletion records every hour, the first time at start.
// - Shutdown ends every watch with UNAVAILABLE first (they would otherwise
//   hold the server open forever), lets the requests in flight finish for up
//   to five seconds, then closes every connection.
#pragma once

#include <grpcpp/grpcpp.h>

#include <condition_variable>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include "Storage.h"
#include "SyncService.h"
#include "TokenGate.h"

namespace velmora::server {

struct NodeOptions {
  std::string listen = "127.0.0.1:0";  // HOST:PORT; port 0 picks a free one
  std::string tlsCertificate;          // PEM certificate chain; empty: plaintext
  std::string tlsKey;                  // PEM private key, with tlsCertificate
  Limits limits;                       // must let a record fit in a pull page (recordFitsPullPage)
  std::int64_t maxStores = kDefaultMaxStores;      // stores per account
  std::size_t maxWatches = kDefaultMaxWatches;     // open watches per account on this node
  std::int64_t deletionRetention = kDefaultDeletionRetention;  // seconds a deletion record is kept
  Clock clock;                         // empty: the system clock
};

// HOST and PORT of "HOST:PORT" ("[v6]:PORT" for IPv6); nullopt when
// malformed. The host keeps its brackets. Pure.
std::optional<std::pair<std::string, int>> parseListenAddress(const std::string& address);

class SyncNode {
 public:
  // Serves storage on options.listen, wires the storage's notices from
  // other nodes into the watch hub and starts the upkeep thread. nullptr
  // with *error set when the address is malformed, plaintext is asked for
  // on a non-loopback host, the limits let a record outgrow a pull page, or
  // the port cannot be bound. Borrows storage, which must outlive the node.
  // Blocks until the port is bound.
  static std::unique_ptr<SyncNode> start(Storage& storage, const NodeOptions& options, std::string* error);
  ~SyncNode();  // shutdown()
  SyncNode(const SyncNode&) = delete;
  SyncNode& operator=(const SyncNode&) = delete;

  // The port bound; "HOST:PORT" with it. Immutable.
  int port() const noexcept { return port_; }
  const std::string& address() const noexcept { return address_; }

  // The hub, to count open watches (tests, benchmarks). Thread-safe.
  WatchHub& hub() noexcept { return hub_; }

  // Ends the watches and stops serving (see the design note). Idempotent;
  // blocks up to about five seconds.
  void shutdown();

 private:
  SyncNode(Storage& storage, const NodeOptions& options);
  // The upkeep thread's loop (see the design note).
  void upkeep();

  Storage& storage_;                           // borrowed
  const std::int64_t deletionRetention_;       // immutable
  WatchHub hub_;                               // thread-safe
  SyncCore core_;                              // thread-safe
  DeviceSyncService service_;                  // thread-safe
  TokenGate gate_;                             // thread-safe; outlives server_
  std::unique_ptr<grpc::Server> server_;       // owner's thread; null once shut down
  int port_ = 0;
  std::string address_;
  std::mutex upkeepMutex_;
  std::condition_variable upkeepWake_;         // signalled when stopping_ is set
  bool stopping_ = false;                      // guarded by upkeepMutex_
  std::thread upkeep_;                         // owner's thread starts and joins it
};

}  // namespace velmora::server
