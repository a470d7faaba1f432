// Daemon: velmorad's bus service. It owns the daemon's well-known name,
// serves the one method "Request" (a{sv} -> a{sv}) and routes each request
// to the store it names.
//
// Design note
// - Threads. The bus connection lives on the thread that calls run() (the
//   bus thread): sd-bus objects are single-threaded, so every message is
//   read, referenced, answered and released there. Each store has its own
//   serial executor with a thread of its own (started on demand, gone when
//   idle): requests of one store run in arrival order, different stores in
//   parallel, so no store's request waits for another store's fsync (the
//   shared pool is bounded by the core count). "resetapps" and
//   "migrate" run on one global queue that syncs onto store queues (never the
//   reverse). "ping" and the requests that need no store are answered on the
//   bus thread at once, never behind a disk write.
// - Replies. Work on a queue ends by sending the reply itself when the bus
//   thread is polling (busMutex_ free), else by handing (call, reply value)
//   to the outbox and poking an eventfd, for the bus thread to send. Every
//   use of the connection and its messages holds busMutex_, which the bus
//   thread holds except while it polls.
// - Guards. registryMutex_ guards stores_; outboxMutex_ guards outbox_;
//   defaultsMutex_ guards defaultsConfigs_. Each is a leaf: no queue work,
//   bus call or other lock runs while one is held. busMutex_ guards bus_ and
//   the messages on it; queue threads only try it (never wait for it), so
//   holding it while dispatching requests waits for no queue. A Store is
//   touched only from its entry's queue.
// - Waiting order: global queue -> store queues; sync thread -> store
//   queues. The bus thread waits for the engine and the queues only at
//   shutdown, when it no longer reads requests; it then stops
//   each store's thread, so that no thread drops the last reference to the
//   store entry that owns it.
// - Sync. The sync engine (SyncEngine.h) has threads of its own; the daemon
//   tells it of each written client change and hands it the account and
//   sync requests, whose replies it posts to the outbox like the queues do.
//   The engine reaches stores only through their queues (SyncHost below).
// - Shutdown. SIGTERM (or the bus going away) stops reading requests; the
//   sync engine stops (its calls in flight are cancelled), the queues are
//   drained, so writes in flight finish and their replies go out, then the
//   connection is flushed and closed.
#pragma once

#include <cstdint>
#include <thread>
#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "Store.h"
#include "SyncEngine.h"
#include "velmora/platform/PropertyList.h"

struct sd_bus;
struct sd_bus_message;

namespace velmora {
class DispatchQueue;
}

namespace velmorad {

inline constexpr const char* kServiceName = "com.vantrel.velmorad-sim";
inline constexpr const char* kObjectPath = "/com/vantrel/velmorad";
inline constexpr const char* kInterfaceName = "com.vantrel.velmorad";
inline constexpr const char* kErrorDomain = "com.vantrel.velmorad";

// Error codes of "error" replies.
inline constexpr std::int64_t kErrorMalformedRequest = 1;
inline constexpr std::int64_t kErrorUnknownMessage = 2;
inline constexpr std::int64_t kErrorNoStore = 3;
inline constexpr std::int64_t kErrorWriteFailed = 4;
inline constexpr std::int64_t kErrorNotPermitted = 5;
inline constexpr std::int64_t kErrorServerUnreachable = 6;  // the sync server did not answer
inline constexpr std::int64_t kErrorNotAuthorized = 7;      // the sync server refused the account's token

// The "error" reply {"error": {"domain", "code", "userinfo": {"description"}}}.
// Pure; caller owns it.
velmora::PropertyList makeErrorReply(std::int64_t code, const std::string& description);

class Daemon {
 public:
  // busAddress empty: the user's session bus. Connects to nothing yet;
  // never fails or blocks. syncClients makes the sync engine's server
  // clients (the gRPC client when empty).
  explicit Daemon(std::string busAddress, SyncClientFactory syncClients = {});
  // Closes the connection (after run() has returned). Bus thread.
  ~Daemon();
  Daemon(const Daemon&) = delete;
  Daemon& operator=(const Daemon&) = delete;

  // Connects, takes the name and serves until SIGTERM/SIGINT or the bus goes
  // away; SIGTERM and SIGINT must already be blocked in every thread (main()
  // does it before any thread starts). Returns the process exit status: 0
  // after an orderly stop, 1 when the bus or the name cannot be had. Blocks
  // the calling thread, which becomes the bus thread.
  int run();

  // Answers one request envelope from sender for the store file at
  // storePath, on the calling thread, with the same parsing and store work
  // run() does once a request reaches that store's queue (register,
  // unregister, synchronize, discardJournalEntries, printDebugDescription).
  // A malformed envelope or any other message gets an error reply. Posts no
  // notification. Only while run() is not serving; blocks on file I/O;
  // caller owns the reply. The request fuzzer drives the daemon through it.
  velmora::PropertyList answerStoreRequest(const std::filesystem::path& storePath, const velmora::PropertyList& envelope,
                                           const std::string& sender);

 private:
  struct StoreEntry;
  struct Request;
  class Host;  // the engine's SyncHost

  friend struct BusCallbacks;  // the sd-bus callbacks (Daemon.cpp)

  // Bus thread: parses call and answers it at once or hands it to a queue
  // (with its own reference to call). Never blocks on disk.
  void handleRequest(sd_bus_message* call);
  // The sender's application (nullopt with *why set when unknown) and
  // whether it runs in a sandbox. Blocks for a bus round trip when the
  // message carries no credentials, and on small /proc reads.
  std::optional<std::string> senderApplication(sd_bus_message* call, bool* sandboxed, std::string* why);
  // Bus thread: sends reply to call (a failure is logged); call stays the caller's.
  void sendNow(sd_bus_message* call, const velmora::PropertyList& reply);
  // Bus thread: sends every queued reply and drops their call references.
  void drainOutbox();
  // Bus thread: name left the bus; each store forgets it on its own queue.
  void clientGone(const std::string& name);
  // Any thread: sends the reply (takes over call's reference) now when this
  // thread may use the bus, else queues it for the bus thread. With
  // announceChange, a reply sent now is followed on the same connection by
  // the store change notice; returns whether that notice went out (false:
  // the caller posts it). Never waits for the bus thread.
  bool postReply(sd_bus_message* call, velmora::PropertyList reply, bool announceChange = false);

  // Any thread: the entry for a store file, made on first use (shared with
  // the registry). Takes registryMutex_ briefly; never fails.
  std::shared_ptr<StoreEntry> storeFor(const std::string& path);
  // Any thread: a snapshot of every entry, registry order.
  std::vector<std::shared_ptr<StoreEntry>> allStores();

  // On entry's queue: the reply dictionary for one store request (register,
  // unregister, synchronize, discardJournalEntries, printDebugDescription).
  // Blocks on file I/O; errors become "error" replies. *changed is set when
  // the store changed and its observers must hear of it.
  velmora::PropertyList perform(StoreEntry& entry, const Request& request, bool* changed);
  // On the global queue: the replies of "resetapps" and "migrate". Sync onto
  // store queues; block on file I/O.
  velmora::PropertyList resetApps();
  velmora::PropertyList migrate(const std::string& applicationID);
  // Bus thread: "accountLogin", "accountLogout", "accountStatus" and
  // "trackSynchronizeRemote", handed to the engine (or the global queue);
  // the reply goes out later through the outbox. Never blocks.
  void handleAccountRequest(sd_bus_message* call, const Request& request);

  const std::string busAddress_;                               // immutable
  std::mutex busMutex_;  // guards bus_ and its messages; the bus thread's except while it polls
  std::atomic<std::thread::id> busThread_{};  // atomic; the thread in run(), which holds busMutex_
  sd_bus* bus_ = nullptr;                                      // set by run(); used under busMutex_
  int wakeFd_ = -1;                                            // eventfd; set by run() before any queue work
  const std::shared_ptr<velmora::DispatchQueue> globalQueue_;  // immutable
  const StoreLimits limits_;                                   // immutable

  std::mutex registryMutex_;
  std::map<std::string, std::shared_ptr<StoreEntry>> stores_;  // guarded by registryMutex_

  std::mutex outboxMutex_;
  std::vector<std::pair<sd_bus_message*, velmora::PropertyList>> outbox_;  // guarded by outboxMutex_

  // What senderApplication() learnt about one sender.
  struct SenderIdentity {
    std::optional<std::string> application;
    bool sandboxed = false;
  };
  std::map<std::string, SenderIdentity> senders_;  // bus thread only; unique name -> identity

  std::mutex defaultsMutex_;
  std::map<std::string, velmora::PropertyList> defaultsConfigs_;  // guarded by defaultsMutex_

  // Declared last: destroyed first, while everything it may call still exists.
  const std::unique_ptr<Host> syncHost_;      // immutable
  const std::unique_ptr<SyncEngine> engine_;  // immutable; thread-safe
};

}  // namespace velmorad
