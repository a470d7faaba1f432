// SyncService: the rules of the device sync service (authentication, the
// conflict rule, limits, paging) in SyncCore, and the gRPC service that
// serves them (DeviceSyncService), with watch streams fanned out by WatchHub.
//
// Design note
// - Threads. Push, Pull, ListStores and GetLimits are synchronous gRPC
//   methods: they run on the server's pool of request threads and block on
//   the storage. Watch is a callback (reactor) method, so an idle watch
//   holds no thread: only its reactor (a few hundred bytes) and gRPC's
//   stream state. Its authentication and first revision are read on the
//   gRPC thread that opens it.
// - Conflict rule (SyncCore::push, per record, inside one storage
//   transaction that holds the account's lock): a record whose timestamp is
//   older than the stored one loses (SUPERSEDED, with the stored record); an
//   equal or newer one wins, an equal timestamp because it arrived later. A
//   record identical to the stored one is acknowledged without a new
//   revision, so a retried push changes nothing.
// - Limits, checked only for records that would win: a value over
//   max_key_data_len, a new live key over max_key_name_len or
//   max_key_count, or a growth past max_key_data_sum is refused
//   (REFUSED_LIMIT, with the stored record). A value's size is the larger of
//   its uncompressed timestamped serialised length and the bytes stored, so
//   a gzip stream cannot carry more than the limits allow; anything after
//   the stream is refused. Deletions count nothing, but a deletion of a key
//   the store does not hold passes the key checks like a write, and a store
//   keeps at most max_key_count deletion records (the oldest go first);
//   older ones than the retention are pruned by the node.
// - Accounts hold at most maxStores stores: a push that would start one more
//   fails whole with FAILED_PRECONDITION (which devices take as one store's
//   trouble, not as the server being away).
// - Pull pages carry at most kPullByteBudget bytes of encoded records, below
//   the 4 MiB a device's channel receives, and always make progress: a
//   record too large for any page (stored by an older server) is skipped.
// - Watch fan-out. WatchHub maps accounts to their open streams (mutex_).
//   publish() copies the account's streams under the mutex and delivers
//   outside it: a delivery may start a write whose completion gRPC runs on
//   the same thread, and that completion may end the stream and unregister
//   it. Each stream keeps at most one write in flight and coalesces waiting
//   notices per store (the newest revision wins), so a slow reader costs at
//   most one notice per store.
// - Tokens. Every unary call looks its token up. A watch looks it up again
//   once registered, and when any token is replaced the node asks
//   revalidateWatches() to end the streams whose token no longer names
//   their account (UNAUTHENTICATED). An account has at most maxWatches open
//   watches on a node (RESOURCE_EXHAUSTED beyond).
// - Waiting order: WatchHub::mutex_, then a stream's mutex, never the
//   reverse; no gRPC call is made while either is held.
#pragma once

#include <grpcpp/grpcpp.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "Storage.h"
#include "velmora_sync.grpc.pb.h"

namespace velmora::server {

namespace pb = ::velmora::sync::v1;

// The per-store limits; the defaults are the daemon's.
struct Limits {
  std::int64_t maxKeyCount = 1024;
  std::int64_t maxKeyNameLen = 64;
  std::int64_t maxKeyDataLen = 1048576;
  std::int64_t maxKeyDataSum = 1048576;
};

// Timestamps more than this far ahead of the server's clock are refused.
inline constexpr std::int64_t kMaxFutureSeconds = 300;
// Names of stores and devices are at most this long (bytes).
inline constexpr std::size_t kMaxNameBytes = 255;
// At most this many records in one push.
inline constexpr int kMaxRecordsPerPush = 4096;
// Pull pages: the default and largest record counts, and the encoded bytes
// a page carries at most (always at least one record), which keeps replies
// under the devices' 4 MiB receive limit (gRPC's default, which velmorad
// keeps).
inline constexpr int kDefaultPullLimit = 500;
inline constexpr int kMaxPullLimit = 1000;
inline constexpr std::size_t kPullByteBudget = 3u << 20;
// The per-account bounds' defaults: stores, open watches per node, and how
// long deletion records are kept (seconds).
inline constexpr std::int64_t kDefaultMaxStores = 256;
inline constexpr std::size_t kDefaultMaxWatches = 64;
inline constexpr std::int64_t kDefaultDeletionRetention = 30 * 86400;

// Whether a record at the limits (value, key name, device name) fits in one
// pull page; a node refuses limits that do not. Pure.
bool recordFitsPullPage(const Limits& limits);

// Wall-clock whole seconds since 2001-01-01 00:00:00 UTC. Must be callable
// from any thread.
using Clock = std::function<std::int64_t()>;

// The process's clock (velmora::currentEnvironment()).
Clock systemClock();

// Fans change notices out to the watch streams of each account. Thread-safe.
class WatchHub {
 public:
  // One open watch stream, as the hub sees it.
  class Subscriber {
   public:
    virtual ~Subscriber() = default;
    // Queues notice for the stream; never blocks on the network.
    virtual void deliver(const pb::WatchNotice& notice) = 0;
    // Ends the stream with status; later deliveries are dropped.
    virtual void close(const grpc::Status& status) = 0;
  };

  enum class Added { kYes, kClosed, kFull };

  // At most maxPerAccount streams per account.
  explicit WatchHub(std::size_t maxPerAccount = kDefaultMaxWatches) : maxPerAccount_(maxPerAccount) {}

  // Registers subscriber for accountId's notices, opened with the token
  // whose hash is tokenHash. Registers nothing and returns kClosed once
  // closeAll(…, true) has run, kFull when the account has maxPerAccount.
  Added add(std::int64_t accountId, const std::string& tokenHash, std::shared_ptr<Subscriber> subscriber);
  // Unregisters subscriber; unknown ones are ignored.
  void remove(std::int64_t accountId, const Subscriber* subscriber);
  // Delivers notice to every stream of accountId (see the design note).
  void publish(std::int64_t accountId, const pb::WatchNotice& notice);
  // Closes every open stream with status; with refuseNew, later add() calls
  // fail too (shutdown).
  void closeAll(const grpc::Status& status, bool refuseNew);
  // The distinct (account, token hash) pairs of the open streams.
  std::vector<std::pair<std::int64_t, std::string>> tokens() const;
  // Closes accountId's streams opened with tokenHash.
  void closeToken(std::int64_t accountId, const std::string& tokenHash, const grpc::Status& status);
  // Open streams, for tests and benchmarks.
  std::size_t size() const;

 private:
  struct Stream {
    std::shared_ptr<Subscriber> subscriber;
    std::string tokenHash;
  };
  // The streams of accountId opened with tokenHash (all when it is null).
  std::vector<std::shared_ptr<Subscriber>> select(const std::int64_t* accountId, const std::string* tokenHash) const;

  const std::size_t maxPerAccount_;
  mutable std::mutex mutex_;
  std::unordered_map<std::int64_t, std::vector<Stream>> streams_;  // guarded by mutex_
  std::size_t count_ = 0;                                                               // guarded by mutex_
  bool closed_ = false;                                                                 // guarded by mutex_
};

// The service's rules, free of transport. Thread-safe: every method may run
// on any thread and blocks on the storage. Borrows storage and hub, which
// must outlive it.
class SyncCore {
 public:
  SyncCore(Storage& storage, WatchHub& hub, Limits limits, Clock clock,
           std::int64_t maxStores = kDefaultMaxStores);

  // The account an "authorization" metadata value names, and the hash of
  // its token when tokenHash is given. UNAUTHENTICATED when it is missing,
  // malformed or unknown; UNAVAILABLE when the storage failed.
  grpc::Status authenticate(std::string_view authorization, Account* account, std::string* tokenHash = nullptr);

  // Applies a push (see the design note) and fills reply with one result per
  // record in request order. INVALID_ARGUMENT for a bad store or device name,
  // too many records or a key given twice; FAILED_PRECONDITION when the push
  // would start a store past maxStores; UNAVAILABLE when the storage failed
  // (nothing was stored). Publishes a watch notice when anything was written.
  grpc::Status push(const Account& account, const pb::PushRequest& request, pb::PushReply* reply);

  // One page of the store's records changed after request.since_revision.
  // INVALID_ARGUMENT for a bad store name; UNAVAILABLE when the storage failed.
  grpc::Status pull(const Account& account, const pb::PullRequest& request, pb::PullReply* reply);

  // The account's stores and their revisions. UNAVAILABLE when the storage failed.
  grpc::Status listStores(const Account& account, pb::ListStoresReply* reply);

  // The account's current revision, for a watch's first notice.
  grpc::Status accountRevision(const Account& account, std::int64_t* revision);

  // Ends the watches whose token no longer names their account
  // (UNAUTHENTICATED), or every watch of a token that could not be looked
  // up (UNAVAILABLE: the device comes back and is checked again).
  void revalidateWatches();

  // Removes the deletion records written more than retention seconds ago;
  // how many went, or the storage's failure.
  Result<std::int64_t> pruneDeletions(std::int64_t retention);

  const Limits& limits() const noexcept { return limits_; }
  WatchHub& hub() noexcept { return hub_; }

 private:
  // The result for one pushed record inside the store's transaction;
  // false when the storage failed (the push is abandoned).
  bool decide(StoreTransaction& transaction, const pb::Record& record, const std::string& device,
              std::int64_t now, pb::PushResult* result);

  Storage& storage_;       // borrowed; thread-safe
  WatchHub& hub_;          // borrowed; thread-safe
  const Limits limits_;    // immutable
  const Clock clock_;      // immutable
  const std::int64_t maxStores_;  // immutable
};

// The gRPC service for devices over a SyncCore it borrows. Thread-safe.
class DeviceSyncService final : public pb::DeviceSync::WithCallbackMethod_Watch<pb::DeviceSync::Service> {
 public:
  explicit DeviceSyncService(SyncCore& core) : core_(core) {}

  grpc::Status Push(grpc::ServerContext* context, const pb::PushRequest* request, pb::PushReply* reply) override;
  grpc::Status Pull(grpc::ServerContext* context, const pb::PullRequest* request, pb::PullReply* reply) override;
  grpc::Status ListStores(grpc::ServerContext* context, const pb::ListStoresRequest* request,
                          pb::ListStoresReply* reply) override;
  grpc::Status GetLimits(grpc::ServerContext* context, const pb::LimitsRequest* request,
                         pb::StoreLimits* reply) override;
  grpc::ServerWriteReactor<pb::WatchNotice>* Watch(grpc::CallbackServerContext* context,
                                                   const pb::WatchRequest* request) override;

  // Waits until no Push, Pull, ListStores or GetLimits call is running, or
  // until deadline; returns whether it got idle. Any thread; blocks.
  bool waitUntilIdle(std::chrono::steady_clock::time_point deadline);

 private:
  // Counts a unary call for waitUntilIdle() while it lives.
  class CallScope;

  // The call's account; its "authorization" value and token hash too when asked.
  grpc::Status authenticate(const grpc::ServerContextBase& context, Account* account,
                            std::string* authorization = nullptr, std::string* tokenHash = nullptr);

  SyncCore& core_;  // borrowed; thread-safe
  std::mutex callsMutex_;
  std::condition_variable callsIdle_;  // signalled when calls_ drops to 0
  int calls_ = 0;                      // guarded by callsMutex_: unary calls running
};

}  // namespace velmora::server
