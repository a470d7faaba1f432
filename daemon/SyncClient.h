// SyncClient: the sync engine's road to velmora-server, behind a small
// interface so that a test can put faults on it. The one real
// implementation speaks the DeviceSync service over gRPC, with the account's
// token on every call.
//
// Threads. Every method may be called from any thread, concurrently: the
// engine makes unary calls on its sync thread while its watch thread sits in
// watch(). Calls block the calling thread for at most their deadline; a
// watch blocks until the stream ends. cancel() ends every call in flight and
// makes later ones fail at once: the engine uses it to stop.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>

#include "AccountConfig.h"
#include "velmora_sync.pb.h"

namespace velmorad {

namespace syncpb = ::velmora::sync::v1;

enum class SyncCallStatus : std::uint8_t {
  Ok,
  Unreachable,      // no connection, deadline passed, server going away: try again later
  Unauthenticated,  // the token was refused
  Cancelled,        // cancel() was called
  Failed,           // anything else the server said (a bug on one side)
};

// One call's outcome. A value type.
struct SyncCallResult {
  SyncCallStatus status = SyncCallStatus::Ok;
  std::string message;  // readable, when not Ok
  bool ok() const noexcept { return status == SyncCallStatus::Ok; }
};

class SyncClient {
 public:
  virtual ~SyncClient() = default;

  // The four unary calls of the service. On Ok the reply is filled in;
  // otherwise it is left unspecified.
  virtual SyncCallResult push(const syncpb::PushRequest& request, syncpb::PushReply* reply) = 0;
  virtual SyncCallResult pull(const syncpb::PullRequest& request, syncpb::PullReply* reply) = 0;
  virtual SyncCallResult listStores(syncpb::ListStoresReply* reply) = 0;

  // Opens a watch and calls onNotice on the calling thread for every notice
  // until the stream ends; then returns why (Unreachable when the server
  // went away, Cancelled after cancel()). While the server cannot be
  // reached it waits for it rather than failing. Blocks for the stream's life.
  virtual SyncCallResult watch(const syncpb::WatchRequest& request,
                               const std::function<void(const syncpb::WatchNotice&)>& onNotice) = 0;

  // Ends every call in flight (they return Cancelled) and fails every later
  // call at once. Idempotent; never blocks for the server.
  virtual void cancel() = 0;
};

// Makes a client for a logged-in account; nullptr with *error set when the
// account's server address is not usable. Never blocks for the network
// (connections are made on the first call).
using SyncClientFactory =
    std::function<std::unique_ptr<SyncClient>(const AccountConfig& account, std::string* error)>;

// The gRPC client: TLS or plaintext by the account's URL (parseServerUrl),
// unary calls with the given deadline, reconnecting after at most about
// two seconds once the server is back.
std::unique_ptr<SyncClient> makeGrpcSyncClient(const AccountConfig& account, std::chrono::milliseconds deadline,
                                               std::string* error);

}  // namespace velmorad
