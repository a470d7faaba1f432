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
// - Shutdown ends every watch with UNAVAILABLE first (they would otherwise
//   hold the server open forever), lets the requests in flight finish for up
//   to five seconds, then closes every connection.
#pragma once

#include <grpcpp/grpcpp.h>

#include <memory>
#include <optional>
#include <string>

#include "Storage.h"
#include "SyncService.h"

namespace velmora::server {

struct NodeOptions {
  std::string listen = "127.0.0.1:0";  // HOST:PORT; port 0 picks a free one
  std::string tlsCertificate;          // PEM certificate chain; empty: plaintext
  std::string tlsKey;                  // PEM private key, with tlsCertificate
  Limits limits;
  Clock clock;                         // empty: the system clock
};

// HOST and PORT of "HOST:PORT" ("[v6]:PORT" for IPv6); nullopt when
// malformed. The host keeps its brackets. Pure.
std::optional<std::pair<std::string, int>> parseListenAddress(const std::string& address);

// Whether host (as parseListenAddress returns it) is a loopback address:
// localhost, 127.0.0.0/8 or ::1. Pure.
bool isLoopbackHost(const std::string& host);

class SyncNode {
 public:
  // Serves storage on options.listen and wires the storage's notices from
  // other nodes into the watch hub. nullptr with *error set when the address
  // is malformed, plaintext is asked for on a non-loopback host, or the port
  // cannot be bound. Borrows storage, which must outlive the node. Blocks
  // until the port is bound.
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

  Storage& storage_;                           // borrowed
  WatchHub hub_;                               // thread-safe
  SyncCore core_;                              // thread-safe
  DeviceSyncService service_;                  // thread-safe
  std::unique_ptr<grpc::Server> server_;       // owner's thread; null once shut down
  int port_ = 0;
  std::string address_;
};

}  // namespace velmora::server
