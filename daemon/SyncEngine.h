// SyncEngine: velmorad's half of cross-device sync. It carries each store's
// local changes to velmora-server, keeps a watch open for the changes made
// on the user's other devices, pulls them and applies them through the
// store's own change path, and keeps the account the daemon is logged into.
// With no account it does nothing: no thread, no file, no connection.
//
// Design note
// - Threads. The sync thread (a serial worker of the engine's own) makes
//   every unary call to the server, runs login and logout, and decides and
//   applies each store's changes: it reads and edits a store only inside
//   host.withStore(), that is on the store's own serial queue, and only for
//   the time a decision and a write take; it never holds a store's queue
//   while talking to the server. The watch thread sits in the server's watch
//   stream and turns each notice into work for the sync thread. Callers
//   (the bus thread, store queues, the global queue) only post work and read
//   snapshots: nothing they call waits for the network.
// - Passes. Work is coalesced per store (pull wanted, push wanted) plus one
//   "full" flag (list the server's stores and go over every store); one pass
//   on the sync thread does all that is wanted. A pass that cannot reach the
//   server puts its work back and is retried after a backoff (250 ms
//   doubling to 5 s). Meanwhile the watch waits for the server to come back
//   (SyncClient::watch); its first notice asks for a full pass at once, so
//   changes made on either side while offline go through as soon as the
//   server answers. Pending local changes are never held in memory only: the store
//   file says what the server has not acknowledged (see SyncRecords.h), so a
//   restart loses nothing.
// - Guards. mutex_ guards everything marked so below; it is a leaf: no call
//   to the host, the server or a reply handler is made while it is held.
//   The session (client, watch thread) belongs to the sync thread; stop()
//   touches it only after the sync thread has ended.
// - Waiting order: sync thread -> store queues (host.withStore) and the
//   server (with a deadline); global queue -> store queues (status());
//   stop() (bus thread, at exit) -> sync thread and watch thread, which
//   never wait for the bus thread. No store queue ever waits for the engine.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "AccountConfig.h"
#include "SyncClient.h"
#include "velmora/platform/PropertyList.h"

namespace velmorad {

class Store;

// What the engine needs of the daemon. Implementations are thread-safe.
class SyncHost {
 public:
  virtual ~SyncHost() = default;
  // Runs work on the queue of the store whose file is named name + ".plist"
  // (made on first use) and waits for it. Never from a store queue.
  virtual void withStore(const std::string& name, const std::function<void(Store&)>& work) = 0;
  // The names of the stores that have a file now. Blocks on a directory read.
  virtual std::vector<std::string> localStoreNames() = 0;
  // Tells the applications that store files changed. Never blocks for long.
  virtual void notifyStoresChanged() = 0;
};

// Why an engine request failed.
enum class SyncFailure : std::uint8_t {
  None,
  BadRequest,       // a server URL that cannot be used
  Unreachable,      // the server did not answer
  Unauthenticated,  // the server refused the token
  WriteFailed,      // the account file could not be written
  Stopped,          // the daemon is exiting
};

// The outcome of a request, to be turned into a bus reply. A value type.
struct SyncReply {
  SyncFailure failure = SyncFailure::None;
  std::string message;         // readable, on failure
  velmora::PropertyList info;  // the reply's user information on success (may be none)
  bool ok() const noexcept { return failure == SyncFailure::None; }
};

// Called once with the outcome, on the sync thread, or on the caller's own
// thread when the engine can answer at once.
using SyncReplyHandler = std::function<void(SyncReply)>;

struct SyncEngineOptions {
  std::chrono::milliseconds callDeadline{10'000};  // each unary call
  std::chrono::milliseconds minBackoff{250};
  std::chrono::milliseconds maxBackoff{5'000};
  std::size_t pushBatchSize = 256;                 // records per push
};

class SyncEngine {
 public:
  // configPath: the account file (accountConfigPath()); nullopt keeps the
  // engine logged out for good (no home directory). factory makes the
  // client for an account (makeGrpcSyncClient in the daemon). Never blocks.
  SyncEngine(SyncHost& host, std::optional<std::filesystem::path> configPath, SyncClientFactory factory,
             SyncEngineOptions options = {});
  // Calls stop().
  ~SyncEngine();
  SyncEngine(const SyncEngine&) = delete;
  SyncEngine& operator=(const SyncEngine&) = delete;

  // Reads the account file; when it names an account, starts syncing (a
  // full pass and the watch). A damaged file is logged and leaves the
  // engine logged out. Blocks on the file read. Call once.
  void start();

  // Ends the session: calls in flight are cancelled, the sync thread and the
  // watch thread are joined, waiting requests get Stopped. Afterwards every
  // method answers as if logged out. Blocks until the threads are gone (a
  // store write in progress finishes first). Idempotent; not from the sync
  // thread.
  void stop();

  // A client's change was written to store's file: push it. Any thread;
  // never blocks.
  void noteLocalChange(const std::string& store);

  // Asks for a pull-and-push pass over every store; done (optional) gets
  // the outcome: success when it went through (at once when logged out),
  // Unreachable when the server could not be reached. Any thread; never
  // blocks.
  void synchronize(SyncReplyHandler done);

  // Checks the token against the server, then saves the account (the
  // device identifier is made on first login) and syncs with it. Stores
  // that last synced with another account are reset first (their keys
  // journaled as an account change) and then get a new initial sync. On
  // failure nothing changes. Any thread; done runs on the sync thread.
  void login(std::string server, std::string token, SyncReplyHandler done);

  // Stops syncing and forgets the server and token (the stores and the
  // device identifier stay). Succeeds when already logged out. Any thread;
  // done runs on the sync thread.
  void logout(SyncReplyHandler done);

  // The account, the connection and, per store, the last sync time and the
  // pending changes: {"loggedIn", "server", "account", "device",
  // "connected", "lastError", "stores": [{"store", "lastSync" (date),
  // "pending", "revision"}], "description": text}. Reads each store on its
  // queue. Never from a store queue or the sync thread; blocks on store I/O.
  velmora::PropertyList status();

  // Lines for the store's debug description: account, connection, last
  // sync. Any thread (store queues included); never blocks.
  std::string describe(const std::string& store);

  // The store files were removed behind the engine (resetapps): forget what
  // was known about them and sync every store again. Any thread; never blocks.
  void storesReset();

 private:
  // Per-store bookkeeping (guarded by mutex_).
  struct StoreState {
    std::int64_t revision = -1;  // server revision pulled up to; -1 unknown (read the file)
    bool wantPull = false;
    bool wantPush = false;
    std::optional<std::chrono::system_clock::time_point> lastSync;
    std::string lastError;
  };
  class Worker;

  // Sync thread: session lifecycle.
  void beginSession(const AccountConfig& account, std::unique_ptr<SyncClient> client);
  void endSession();
  // Watch thread body.
  void watchLoop(SyncClient* client, std::string device);
  // mutex_ held: makes sure a pass runs at due (or earlier).
  void schedulePassLocked(std::chrono::steady_clock::time_point due);
  // Sync thread: one pass over the wanted work.
  void runPass();
  // Sync thread: pull one store (when asked, or for its initial sync), then
  // push what it has pending.
  SyncCallResult syncStore(const std::string& name, bool pull);
  SyncCallResult pushPending(const std::string& name);
  // Sync thread: resets every local store that last synced with another account.
  void resetForeignStores(const std::string& accountId);

  SyncHost& host_;
  const std::optional<std::filesystem::path> configPath_;  // immutable
  const SyncClientFactory factory_;                          // immutable
  const SyncEngineOptions options_;                          // immutable
  const std::unique_ptr<Worker> worker_;                     // thread-safe

  // The session: sync thread only (and stop() after that thread ended).
  std::unique_ptr<SyncClient> client_;
  std::thread watchThread_;

  std::mutex mutex_;
  std::condition_variable watchWake_;            // the watch thread's backoff sleep; with mutex_
  AccountConfig account_;                        // guarded by mutex_
  std::string accountId_;                        // guarded by mutex_; empty when not syncing
  SyncClient* activeClient_ = nullptr;           // guarded by mutex_; client_ while a session runs, for cancel
  bool stopping_ = false;                        // guarded by mutex_
  bool watchStop_ = false;                       // guarded by mutex_; ends the watch loop
  bool watchRetryNow_ = false;                   // guarded by mutex_; cuts the watch's backoff short
  bool connected_ = false;                       // guarded by mutex_; a watch stream is open
  bool offline_ = false;                         // guarded by mutex_; the last pass could not reach the server
  std::string lastError_;                        // guarded by mutex_
  std::chrono::milliseconds backoff_;            // guarded by mutex_; the next retry delay
  std::map<std::string, StoreState> stores_;     // guarded by mutex_
  bool fullPassWanted_ = false;                  // guarded by mutex_
  std::vector<SyncReplyHandler> waiters_;        // guarded by mutex_; synchronize() calls for the next pass
  bool passScheduled_ = false;                   // guarded by mutex_
  std::chrono::steady_clock::time_point passDue_;  // guarded by mutex_
  std::uint64_t passTicket_ = 0;                 // guarded by mutex_; the scheduled pass that may run
};

}  // namespace velmorad
