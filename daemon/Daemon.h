// Daemon: velmorad's bus service. It owns the daemon's well-known name,
// serves the one method "Request" (a{sv} -> a{sv}) and routes each request
// to the store it names.
//
// Design note
// - Threads. The bus connection lives on the thread that calls run() (the
//   bus thread): sd-bus objects are single-threaded, so every message is
//   read, referenced, answered and released there. Each open store has a
//   serial queue on StoreWorkers, a bounded pool of threads well above the
//   core count: requests of one store run in arrival order, different stores
//   in parallel, so few stores' fsyncs hold up no other store, and ten
//   thousand stores still make a bounded number of threads. "resetapps"
//   and "migrate" run on one global queue that syncs onto store queues
//   (never the reverse). "ping" and the requests that need no store are
//   answered on the bus thread at once, never behind a disk write.
// - Callers. Each connection is identified once, on its first request, from
//   the bus's credentials for its unique name (CallerIdentity.h); a caller
//   whose identity cannot be established is refused everything, and a
//   confined one reaches only its own application's stores, checked
//   against the owner each store file records. Unique names are never
//   reused, so the decision holds for the connection's life.
// - Bounds. A connection registers for at most kMaxRegistrationsPerConnection
//   stores and has at most kMaxRequestsInFlight requests queued; its
//   registrations end with it. A store no client is registered for and that
//   nobody used for storeIdleTime is closed (its memory released); an idle
//   store with clients gives up its loaded copy. Each store's lock file is
//   open only while its work runs. Defaults configurations are bounded in
//   size and number.
// - Replies. Work on a queue ends by sending the reply itself when the bus
//   thread is polling (busMutex_ free), else by handing (call, reply value)
//   to the outbox and poking an eventfd, for the bus thread to send. Every
//   use of the connection and its messages holds busMutex_, which the bus
//   thread holds except while it polls.
// - Guards. registryMutex_ guards stores_; outboxMutex_ guards outbox_;
//   defaultsMutex_ guards defaultsConfigs_; connections_ is the bus
//   thread's own. Each is a leaf: no queue work,
//   bus call or other lock runs while one is held. busMutex_ guards bus_ and
//   the messages on it; queue threads only try it (never wait for it), so
//   holding it while dispatching requests waits for no queue. A Store is
//   touched only from its entry's queue.
// - Waiting order: global queue -> store queues; sync thread -> store
//   queues. The bus thread waits for the engine and the queues only at
//   shutdown, when it no longer reads requests; it then drains the store
//   workers.
// - Sync. The sync engine (SyncEngine.h) has threads of its own; the daemon
//   tells it of each written client change and hands it the account and
//   sync requests, whose replies it posts to the outbox like the queues do.
//   The engine reaches stores only through their queues (SyncHost below).
// - Shutdown. SIGTERM (or the bus going away) stops reading requests; the
//   sync engine stops (its calls in flight are cancelled), the queues are
//   drained, so writes in flight finish and their replies go out, then the
//   connection is flushed and closed.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <map>
#include <set>
#include <thread>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "CallerIdentity.h"
#include "Store.h"
#include "StoreWorkers.h"
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
inline constexpr std::int64_t kErrorStoreUnreadable = 8;    // the store file exists but cannot be read; left as it is
inline constexpr std::int64_t kErrorLimitReached = 9;       // a per-connection or size bound; nothing was done

// Per-connection and per-request bounds.
inline constexpr std::size_t kMaxRegistrationsPerConnection = 256;
inline constexpr std::size_t kMaxRequestsInFlight = 64;
inline constexpr std::size_t kMaxDefaultsConfigBytes = 256 * 1024;  // serialised
inline constexpr std::size_t kMaxDefaultsConfigs = 64;
// An application or store identifier, as a file name part.
inline constexpr std::size_t kMaxIdentifierBytes = 200;

// Tunables of one daemon. A value type.
struct DaemonOptions {
  std::chrono::milliseconds storeIdleTime{std::chrono::seconds(60)};  // before an unused store is closed
  std::size_t maxStoreThreads = 16;
  StoreWorkers::ThreadStarter threadStarter;  // empty: std::thread (tests make it fail)
};

// The "error" reply {"error": {"domain", "code", "userinfo": {"description"}}}.
// Pure; caller owns it.
velmora::PropertyList makeErrorReply(std::int64_t code, const std::string& description);

class Daemon {
 public:
  // busAddress empty: the user's session bus. Connects to nothing yet;
  // never fails or blocks. syncClients makes the sync engine's server
  // clients (the gRPC client when empty).
  explicit Daemon(std::string busAddress, SyncClientFactory syncClients = {}, DaemonOptions options = {});
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
  // unregister, synchronize, discardJournalEntries, printDebugDescription),
  // as from an unconfined caller. A malformed envelope or any other message
  // gets an error reply. Posts no notification. Only while run() is not
  // serving; blocks on file I/O; caller owns the reply. The request fuzzer
  // drives the daemon through it.
  velmora::PropertyList answerStoreRequest(const std::filesystem::path& storePath, const velmora::PropertyList& envelope,
                                           const std::string& sender);

  // Open store entries and the store workers' live threads now. For tests
  // and the daemon's own description. Any thread; never blocks long.
  std::size_t openStoreCount();
  std::size_t storeThreadCount() { return workers_.threadCount(); }

 private:
  struct StoreEntry;
  struct Request;
  class Host;  // the engine's SyncHost

  friend struct BusCallbacks;  // the sd-bus callbacks (Daemon.cpp)

  // What the bus thread keeps of one client connection.
  struct Connection {
    std::optional<CallerIdentity> identity;  // decided on its first request
    std::uint64_t appearedAt = 0;            // CLOCK_BOOTTIME ns when it was seen to join; 0 when before us
    std::set<std::string> registered;        // store paths it registered for
    std::shared_ptr<std::atomic<std::size_t>> inFlight = std::make_shared<std::atomic<std::size_t>>(0);
  };

  // Bus thread: parses call and answers it at once or hands it to a queue
  // (with its own reference to call). Never blocks on disk.
  void handleRequest(sd_bus_message* call);
  // Bus thread: the identity of the connection call came from, decided on
  // its first request (a bus round trip and small /proc reads) and kept.
  const CallerIdentity& callerOf(sd_bus_message* call);
  // Bus thread: sends reply to call (a failure is logged); call stays the caller's.
  void sendNow(sd_bus_message* call, const velmora::PropertyList& reply);
  // Bus thread: sends every queued reply and drops their call references.
  void drainOutbox();
  // Bus thread: a unique name joined the bus, or left it (each store it
  // registered for forgets it on its own queue).
  void clientAppeared(const std::string& name);
  void clientGone(const std::string& name);
  // Bus thread: closes the stores nobody used for storeIdleTime and that no
  // client holds; idle stores with clients drop their loaded copy.
  void closeIdleStores();
  // Under registryMutex_: moves the closable entries into closed.
  void closeIdleStoresLocked(std::int64_t idleSince, std::vector<std::shared_ptr<StoreEntry>>& closed);
  // Any thread: sends the reply (takes over call's reference) now when this
  // thread may use the bus, else queues it for the bus thread. With
  // announceChange, a reply sent now is followed on the same connection by
  // the store change notice; returns whether that notice went out (false:
  // the caller posts it). Never waits for the bus thread.
  bool postReply(sd_bus_message* call, velmora::PropertyList reply, bool announceChange = false);

  // Any thread: the entry for a store file, made on first use (shared with
  // the registry). Takes registryMutex_ briefly; never fails.
  std::shared_ptr<StoreEntry> storeFor(const std::string& path);
  // Any thread: the open entry for a path; null when the store is not open.
  std::shared_ptr<StoreEntry> openStore(const std::string& path);
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
  // Only the stores of applicationID; for a confined caller only those whose
  // file says they are its own.
  velmora::PropertyList migrate(const std::string& applicationID, bool confined);
  // Held by whatever carries a request to its reply; the last copy going
  // releases the connection's in-flight count.
  using InFlightSlot = std::shared_ptr<void>;

  // Bus thread: "accountLogin", "accountLogout", "accountStatus" and
  // "trackSynchronizeRemote", handed to the engine (or the global queue);
  // the reply goes out later through the outbox. Never blocks.
  void handleAccountRequest(sd_bus_message* call, const Request& request, const InFlightSlot& slot);

  const std::string busAddress_;                               // immutable
  const DaemonOptions options_;                                // immutable
  StoreWorkers workers_;                                       // thread-safe; outlives every StoreEntry's work
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

  std::map<std::string, Connection> connections_;  // bus thread only; unique name -> what we know of it
  std::uint64_t startedAt_ = 0;                    // bus thread only; CLOCK_BOOTTIME ns when run() began
  std::chrono::steady_clock::time_point nextSweep_;  // bus thread only; next closeIdleStores()

  std::mutex defaultsMutex_;
  // Oldest first; guarded by defaultsMutex_. Application -> its configuration.
  std::vector<std::pair<std::string, velmora::PropertyList>> defaultsConfigs_;

  // Declared last: destroyed first, while everything it may call still exists.
  const std::unique_ptr<Host> syncHost_;      // immutable
  const std::unique_ptr<SyncEngine> engine_;  // immutable; thread-safe
};

}  // namespace velmorad
