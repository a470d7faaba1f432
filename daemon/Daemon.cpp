#include "Daemon.h"

#include <fcntl.h>
#include <malloc.h>
#include <poll.h>
#include <sys/file.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <condition_variable>
#include <deque>
#include <functional>
#include <thread>
#include <cstring>
#include <filesystem>
#include <system_error>

#include "AccountConfig.h"
#include "SyncRecords.h"
#include "velmora/platform/DbusNotify.h"
#include "velmora/platform/DbusValue.h"
#include "velmora/platform/Dispatch.h"
#include "velmora/platform/Environment.h"
#include "velmora/platform/Ipc.h"
#include "velmora/platform/Log.h"
#include "velmora/platform/SystemNotifications.h"
#include "zkv/ZKVEncoding.h"
#include "zkv/ZKVClient.h"
#include "zkv/ZKVLog.h"
#include "zkv/ZKVRemotePreferencesSource.h"

namespace velmorad {

using velmora::LogLevel;
using velmora::PlistDictionary;
using velmora::PropertyList;

namespace {

const velmora::LogHandle& log() { return *ZKVGetDefaultLog(); }

constexpr std::string_view kChangesKey = "changes";
constexpr std::string_view kChangeCountKey = "changecount";
constexpr std::string_view kParameterKey = "parameter";
constexpr std::string_view kServerKey = "server";
constexpr std::string_view kTokenKey = "token";
constexpr std::chrono::milliseconds kSyncCallDeadline{10'000};

// Identifiers that name a file: non-empty, no '/' or NUL, not "." or "..".
bool isFileSafeIdentifier(const std::string& id) {
  return !id.empty() && id != "." && id != ".." && id.find('/') == std::string::npos &&
         id.find('\0') == std::string::npos;
}

std::optional<std::string> stringEntry(const PlistDictionary& dict, std::string_view key, bool* wrongType) {
  auto it = dict.find(key);
  if (it == dict.end()) return std::nullopt;
  if (const std::string* s = it->second.getString()) return *s;
  *wrongType = true;
  return std::nullopt;
}

constexpr const char* kMalformedEnvelope = "the request has no message or a field of the wrong type";

// A request envelope's fields, as the bus thread reads them.
struct Envelope {
  std::string message;
  std::optional<std::string> bundle;
  std::optional<std::string> storeID;
  bool additional = false;
  PropertyList userInfo;  // none when absent
};

// The envelope's fields; nullopt when it has no message or a field of the
// wrong type. Pure.
std::optional<Envelope> readEnvelope(const PlistDictionary& dict) {
  bool wrongType = false;
  Envelope envelope;
  const std::optional<std::string> message = stringEntry(dict, kZKVRequestMessageKey, &wrongType);
  envelope.bundle = stringEntry(dict, kZKVRequestBundleIdentifierKey, &wrongType);
  envelope.storeID = stringEntry(dict, kZKVRequestStoreIdentifierKey, &wrongType);
  if (auto it = dict.find(kZKVRequestAdditionalStoreKey); it != dict.end()) {
    if (!it->second.isBoolean()) wrongType = true;
    envelope.additional = it->second.booleanValue();
  }
  if (!message || wrongType) return std::nullopt;
  envelope.message = *message;
  if (auto it = dict.find(kZKVRequestUserInfoKey); it != dict.end()) envelope.userInfo = it->second;
  return envelope;
}

// The messages perform() answers on a store's queue.
bool isStoreMessage(const std::string& message) {
  return message == kZKVMessageRegister || message == kZKVMessageUnregister || message == kZKVMessageSynchronize ||
         message == kZKVMessageDiscardJournalEntries || message == kZKVMessagePrintDebugDescription;
}

void postChangeNotification() {
  if (!velmora::postSystemNotification(ZKVRemotePreferencesSource::kSourceDidChangeExternallySystemNotification)) {
    log().log(LogLevel::Error, "Could not post the store change notification");
  }
}

std::optional<std::filesystem::path> storeDirectory() {
  auto any = ZKVRemotePreferencesCreateURLForStorage("x", std::nullopt, std::nullopt, false);
  if (!any) return std::nullopt;
  return any->parent_path();
}

// Where replaced store files are unlinked, off every store's queue.
const std::shared_ptr<velmora::DispatchQueue>& janitorQueue() {
  static const std::shared_ptr<velmora::DispatchQueue> queue = velmora::DispatchQueue::createSerial("velmorad.janitor");
  return queue;
}

// The lock file of a store file: hidden, beside it, and not a ".plist", so
// that the operations over every store file pass it by.
std::filesystem::path lockPathFor(const std::filesystem::path& storeFile) {
  return storeFile.parent_path() / ("." + storeFile.filename().string() + ".lock");
}

}  // namespace

// One request, parsed on the bus thread and carried to a queue by value.
struct Daemon::Request {
  std::string message;
  PropertyList userInfo;
  std::string sender;  // the caller's unique bus name
  StoreOwner owner;    // the store's application and (additional stores) identifier, once resolved
  bool confined = false;  // the caller runs in a sandbox: only its own stores
};

// One open store: its file's contents and clients, and the queue its work
// runs on.
struct Daemon::StoreEntry : std::enable_shared_from_this<StoreEntry> {
  StoreEntry(const std::string& path, StoreWorkers& workers)
      : queue(workers.makeQueue()), store(path), name(std::filesystem::path(path).stem().string()),
        lockPath(lockPathFor(path)) {
    store.setKeepReplacedFile(true);
  }

  // Runs work on the store's queue (sync: and waits for it), each item
  // under the store's file lock. Work that cannot write the store (reads,
  // registrations) makes no lock file when there is none.
  void async(std::function<void()> work, bool mayWrite = true) {
    queue->async([self = shared_from_this(), work = std::move(work), mayWrite] { self->locked(work, mayWrite); });
  }
  void sync(const std::function<void()>& work) {
    queue->sync([&] { locked(work); });
  }

  const std::shared_ptr<StoreWorkers::SerialQueue> queue;  // immutable
  Store store;                                             // guarded by queue
  const std::string name;                                  // immutable; the store's name on the sync server
  const std::filesystem::path lockPath;                    // immutable
  std::atomic<bool> hasClients{false};                     // written on queue after each item; read by the sweep
  std::atomic<std::int64_t> lastUsed{nowTicks()};          // steady-clock ns of the last item; ditto
  std::atomic<bool> contentsDropped{false};                // set by the sweep, cleared by each item

  static std::int64_t nowTicks() { return std::chrono::steady_clock::now().time_since_epoch().count(); }

 private:
  // On the queue. A daemon that lost its bus may still be finishing writes
  // while its successor already serves the same home; without the lock one
  // of them could rewrite the file from a copy that misses the other's
  // change (under it the Store notices the other's file and reads it
  // again). The lock file is open only while work runs, so idle stores hold
  // no descriptor. When it cannot be had (no directory yet, read-only), the
  // work runs unlocked rather than not at all.
  //
  // Each rewrite keeps the replaced file under a second name; once the item
  // (its reply included) is done, a background queue unlinks it: freeing
  // its blocks costs about as much as an fsync here, and neither this reply
  // nor the store's next request should wait for it.
  void locked(const std::function<void()>& work, bool mayWrite = true) {
    const int fd = ::open(lockPath.c_str(), O_RDWR | O_CLOEXEC | (mayWrite ? O_CREAT : 0), 0600);
    bool held = fd >= 0;
    while (held && ::flock(fd, LOCK_EX) != 0) held = errno == EINTR;
    work();
    if (std::filesystem::path kept = store.takeReplacedFile(); !kept.empty()) {
      janitorQueue()->async([kept = std::move(kept)] { ::unlink(kept.c_str()); });
    }
    hasClients.store(store.hasClients(), std::memory_order_relaxed);
    lastUsed.store(nowTicks(), std::memory_order_relaxed);
    contentsDropped.store(false, std::memory_order_relaxed);
    if (fd >= 0) ::close(fd);  // lets go of the lock
  }
};

// The sync engine's view of the daemon: stores by name, on their queues.
class Daemon::Host final : public SyncHost {
 public:
  explicit Host(Daemon& daemon) : daemon_(daemon) {}

  void withStore(const std::string& name, const std::function<void(Store&)>& work) override {
    const std::optional<std::filesystem::path> dir = storeDirectory();
    if (!dir || !isFileSafeIdentifier(name)) return;
    std::shared_ptr<StoreEntry> entry = daemon_.storeFor((*dir / (name + ".plist")).string());
    entry->sync([&] { work(entry->store); });
  }

  std::vector<std::string> localStoreNames() override {
    std::vector<std::string> names;
    const std::optional<std::filesystem::path> dir = storeDirectory();
    std::error_code ec;
    if (!dir) return names;
    for (const auto& item : std::filesystem::directory_iterator(*dir, ec)) {
      if (item.path().extension() == ".plist" && item.is_regular_file(ec)) names.push_back(item.path().stem().string());
    }
    return names;
  }

  void notifyStoresChanged() override { postChangeNotification(); }

 private:
  Daemon& daemon_;
};

struct BusCallbacks {
  static int onRequest(sd_bus_message* message, void* userdata, sd_bus_error*) {
    static_cast<Daemon*>(userdata)->handleRequest(message);
    return 1;
  }
  static int onNameOwnerChanged(sd_bus_message* message, void* userdata, sd_bus_error*) {
    const char* name = nullptr;
    const char* oldOwner = nullptr;
    const char* newOwner = nullptr;
    if (sd_bus_message_read(message, "sss", &name, &oldOwner, &newOwner) < 0) return 0;
    if (name[0] != ':') return 0;  // unique names only: those are connections
    if (newOwner[0] == '\0') {
      static_cast<Daemon*>(userdata)->clientGone(name);
    } else if (oldOwner[0] == '\0') {
      static_cast<Daemon*>(userdata)->clientAppeared(name);
    }
    return 0;
  }
};

namespace {

const sd_bus_vtable kVtable[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_METHOD("Request", "a{sv}", "a{sv}", BusCallbacks::onRequest, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_VTABLE_END,
};

}  // namespace

PropertyList makeErrorReply(std::int64_t code, const std::string& description) {
  return velmora::makeDictionary(
      {{std::string(kZKVReplyErrorKey),
        velmora::makeDictionary({{"domain", PropertyList::string(kErrorDomain)},
                                 {"code", PropertyList::integer(code)},
                                 {"userinfo", velmora::makeDictionary({{std::string(kZKVErrorDescriptionKey),
                                                                        PropertyList::string(description)}})}})}});
}

namespace {
PropertyList successReply(PropertyList userInfo) {
  return velmora::makeDictionary({{std::string(kZKVReplyUserInfoKey), std::move(userInfo)}});
}
}  // namespace

namespace {

PropertyList replyFor(const SyncReply& outcome) {
  switch (outcome.failure) {
    case SyncFailure::None:
      return successReply(outcome.info.isNone() ? PropertyList::dictionary({}) : outcome.info);
    case SyncFailure::BadRequest:
      return makeErrorReply(kErrorMalformedRequest, outcome.message);
    case SyncFailure::Unauthenticated:
      return makeErrorReply(kErrorNotAuthorized, outcome.message);
    case SyncFailure::WriteFailed:
      return makeErrorReply(kErrorWriteFailed, outcome.message);
    case SyncFailure::Unreachable:
    case SyncFailure::Stopped:
      break;
  }
  return makeErrorReply(kErrorServerUnreachable, outcome.message);
}

}  // namespace

Daemon::Daemon(std::string busAddress, SyncClientFactory syncClients, DaemonOptions options)
    : busAddress_(std::move(busAddress)),
      options_(std::move(options)),
      workers_(options_.maxStoreThreads, std::chrono::seconds(10), options_.threadStarter),
      globalQueue_(velmora::DispatchQueue::createSerial("com.vantrel.velmorad")),
      syncHost_(std::make_unique<Host>(*this)),
      engine_(std::make_unique<SyncEngine>(
          *syncHost_, accountConfigPath(velmora::currentEnvironment()),
          syncClients ? std::move(syncClients) : [](const AccountConfig& account, std::string* error) {
            return makeGrpcSyncClient(account, kSyncCallDeadline, error);
          })) {}

Daemon::~Daemon() {
  if (bus_ != nullptr) sd_bus_flush_close_unref(bus_);
  if (wakeFd_ >= 0) ::close(wakeFd_);
}

int Daemon::run() {
  int r = 0;
  if (busAddress_.empty()) {
    r = sd_bus_open_user(&bus_);
  } else {
    r = sd_bus_new(&bus_);
    if (r >= 0) r = sd_bus_set_address(bus_, busAddress_.c_str());
    if (r >= 0) r = sd_bus_set_bus_client(bus_, 1);
    if (r >= 0) r = sd_bus_start(bus_);
  }
  if (r < 0) {
    log().log(LogLevel::Error, std::string("velmorad: cannot connect to the session bus: ") + std::strerror(-r));
    return 1;
  }
  wakeFd_ = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGTERM);
  sigaddset(&signals, SIGINT);
  const int signalFd = ::signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK);
  if (wakeFd_ < 0 || signalFd < 0) {
    log().log(LogLevel::Error, std::string("velmorad: eventfd/signalfd: ") + std::strerror(errno));
    return 1;
  }

  r = sd_bus_add_object_vtable(bus_, nullptr, kObjectPath, kInterfaceName, kVtable, this);
  if (r >= 0) {
    r = sd_bus_match_signal(bus_, nullptr, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
                            "NameOwnerChanged", BusCallbacks::onNameOwnerChanged, this);
  }
  if (r >= 0) r = sd_bus_request_name(bus_, kServiceName, 0);
  if (r < 0) {
    log().log(LogLevel::Error, std::string("velmorad: cannot own ") + kServiceName + ": " + std::strerror(-r));
    ::close(signalFd);
    return 1;
  }
  log().log(LogLevel::Default, std::string("velmorad: serving ") + kServiceName);
  startedAt_ = bootTimeNow();
  // Often enough that a store closes within half its idle time of becoming closable.
  const auto sweepInterval =
      std::max<std::chrono::steady_clock::duration>(options_.storeIdleTime / 2, std::chrono::milliseconds(100));
  nextSweep_ = std::chrono::steady_clock::now() + sweepInterval;
  engine_->start();

  bool running = true;
  std::unique_lock busLock(busMutex_);
  busThread_.store(std::this_thread::get_id(), std::memory_order_relaxed);
  while (running) {
    for (;;) {
      r = sd_bus_process(bus_, nullptr);
      if (r < 0) {
        log().log(LogLevel::Default, std::string("velmorad: the bus went away: ") + std::strerror(-r));
        running = false;
        break;
      }
      if (r == 0) break;
      drainOutbox();  // replies need not wait for a burst of requests to end
    }
    if (!running) break;
    drainOutbox();
    if (const auto now = std::chrono::steady_clock::now(); now >= nextSweep_) {
      closeIdleStores();
      nextSweep_ = now + sweepInterval;
    }

    const int events = sd_bus_get_events(bus_);
    std::uint64_t usec = 0;
    int timeout = static_cast<int>(std::chrono::ceil<std::chrono::milliseconds>(
                                       nextSweep_ - std::chrono::steady_clock::now())
                                       .count());
    timeout = std::clamp(timeout, 0, 60000);
    if (sd_bus_get_timeout(bus_, &usec) > 0 && usec != UINT64_MAX) {
      timespec now{};
      clock_gettime(CLOCK_MONOTONIC, &now);
      const std::uint64_t nowUsec = static_cast<std::uint64_t>(now.tv_sec) * 1000000 + now.tv_nsec / 1000;
      timeout = usec <= nowUsec ? 0 : std::min(timeout, static_cast<int>(std::min<std::uint64_t>((usec - nowUsec + 999) / 1000, 60000)));
    }
    pollfd fds[3] = {{sd_bus_get_fd(bus_), static_cast<short>(events < 0 ? POLLIN : events), 0},
                     {wakeFd_, POLLIN, 0},
                     {signalFd, POLLIN, 0}};
    // Queue threads answer on the bus themselves while it is not in use.
    busLock.unlock();
    const int polled = ::poll(fds, 3, timeout);
    busLock.lock();
    if (polled < 0 && errno != EINTR) break;
    if ((fds[1].revents & POLLIN) != 0) {
      std::uint64_t ignored = 0;
      (void)!::read(wakeFd_, &ignored, sizeof ignored);
    }
    if ((fds[2].revents & POLLIN) != 0) {
      signalfd_siginfo info{};
      (void)!::read(signalFd, &info, sizeof info);
      log().logf(LogLevel::Default, "velmorad: signal %u, finishing the work in flight", info.ssi_signo);
      running = false;
      // Requests that reached us before the signal are in flight too: the
      // poll may have woken for both at once. (Bounded: a client that keeps
      // sending must not hold the exit off.)
      for (int i = 0; i < 1024 && sd_bus_process(bus_, nullptr) > 0; ++i) {
      }
    }
  }
  ::close(signalFd);

  // No request is read any more: stop syncing (the engine waits on store
  // queues, so it goes first), let every queue finish, then answer.
  engine_->stop();
  globalQueue_->sync([] {});
  workers_.drain();
  drainOutbox();
  // Letting the name go is a round trip behind the last reply: the bus
  // handles a connection's messages in order, so once it answers, every
  // reply has reached it. Exiting right after a flush can leave the bus to
  // see the hang-up first and tell the callers no reply came.
  const int released = sd_bus_release_name(bus_, kServiceName);
  if (released < 0) sd_bus_flush(bus_);
  log().log(LogLevel::Default, "velmorad: exiting");
  return 0;
}

std::shared_ptr<Daemon::StoreEntry> Daemon::storeFor(const std::string& path) {
  std::lock_guard lock(registryMutex_);
  std::shared_ptr<StoreEntry>& slot = stores_[path];
  if (!slot) slot = std::make_shared<StoreEntry>(path, workers_);
  return slot;
}

std::shared_ptr<Daemon::StoreEntry> Daemon::openStore(const std::string& path) {
  std::lock_guard lock(registryMutex_);
  auto it = stores_.find(path);
  return it != stores_.end() ? it->second : nullptr;
}

std::size_t Daemon::openStoreCount() {
  std::lock_guard lock(registryMutex_);
  return stores_.size();
}

void Daemon::closeIdleStores() {
  const std::int64_t idleSince =
      StoreEntry::nowTicks() - std::chrono::duration_cast<std::chrono::steady_clock::duration>(options_.storeIdleTime).count();
  std::vector<std::shared_ptr<StoreEntry>> closed;
  {
    std::lock_guard lock(registryMutex_);
    closeIdleStoresLocked(idleSince, closed);
  }
  if (closed.empty()) return;
  closed.clear();
  // Hand what they held back to the system, not only to the allocator.
  ::malloc_trim(0);
}

void Daemon::closeIdleStoresLocked(std::int64_t idleSince, std::vector<std::shared_ptr<StoreEntry>>& closed) {
  for (auto it = stores_.begin(); it != stores_.end();) {
    StoreEntry& entry = *it->second;
    // Only the registry holds it (no work queued, nobody about to use it),
    // and it has been a while: the file keeps everything but the clients.
    if (it->second.use_count() != 1 || entry.lastUsed.load(std::memory_order_relaxed) > idleSince ||
        !entry.queue->idle()) {
      ++it;
      continue;
    }
    if (!entry.hasClients.load(std::memory_order_relaxed)) {
      closed.push_back(std::move(it->second));
      it = stores_.erase(it);
      continue;
    }
    // Clients keep it open; its copy of the file can go until it is used again.
    if (!entry.contentsDropped.exchange(true, std::memory_order_relaxed)) {
      entry.queue->async([held = it->second] { held->store.forgetContents(); });
    }
    ++it;
  }
}

std::vector<std::shared_ptr<Daemon::StoreEntry>> Daemon::allStores() {
  std::lock_guard lock(registryMutex_);
  std::vector<std::shared_ptr<StoreEntry>> entries;
  for (const auto& [path, entry] : stores_) entries.push_back(entry);
  return entries;
}

bool Daemon::postReply(sd_bus_message* call, PropertyList reply, bool announceChange) {
  auto sendWithNotice = [&] {
    sendNow(call, reply);
    sd_bus_message_unref(call);
    if (!announceChange) return true;
    const int r = velmora::emitSystemNotification(
        bus_, ZKVRemotePreferencesSource::kSourceDidChangeExternallySystemNotification);
    return r >= 0;
  };
  // On the bus thread (which holds busMutex_) the reply goes out at once.
  if (std::this_thread::get_id() == busThread_.load(std::memory_order_relaxed)) return sendWithNotice();
  // Straight onto the bus when the bus thread is polling: a hand-over to it
  // costs two thread wake-ups on the path of every reply.
  if (std::unique_lock busLock(busMutex_, std::try_to_lock); busLock.owns_lock() && bus_ != nullptr) {
    const bool announced = sendWithNotice();
    // What the socket did not take waits in the connection's queue for the
    // bus thread to poll for room.
    const int events = sd_bus_get_events(bus_);
    if (events >= 0 && (events & POLLOUT) != 0) {
      const std::uint64_t one = 1;
      (void)!::write(wakeFd_, &one, sizeof one);
    }
    return announced;
  }
  {
    std::lock_guard lock(outboxMutex_);
    outbox_.emplace_back(call, std::move(reply));
  }
  const std::uint64_t one = 1;
  (void)!::write(wakeFd_, &one, sizeof one);
  return false;
}

void Daemon::drainOutbox() {
  std::vector<std::pair<sd_bus_message*, PropertyList>> ready;
  {
    std::lock_guard lock(outboxMutex_);
    ready.swap(outbox_);
  }
  for (auto& [call, reply] : ready) {
    sendNow(call, reply);
    sd_bus_message_unref(call);
  }
}

void Daemon::sendNow(sd_bus_message* call, const PropertyList& reply) {
  if (sd_bus_message_get_expect_reply(call) == 0) return;  // fire-and-forget: the work is done, nobody listens
  std::optional<velmora::IpcObject> object = velmora::ipcObjectFromPropertyList(reply);
  if (!object) object = velmora::ipcObjectFromPropertyList(makeErrorReply(kErrorMalformedRequest, "unsendable reply"));
  sd_bus_message* message = nullptr;
  int r = sd_bus_message_new_method_return(call, &message);
  if (r >= 0) r = velmora::appendIpcObject(message, *object);
  if (r >= 0) r = sd_bus_send(bus_, message, nullptr);
  if (r < 0) log().log(LogLevel::Error, std::string("velmorad: sending a reply failed: ") + std::strerror(-r));
  sd_bus_message_unref(message);
}

void Daemon::clientAppeared(const std::string& name) { connections_[name].appearedAt = bootTimeNow(); }

const CallerIdentity& Daemon::callerOf(sd_bus_message* call) {
  static const CallerIdentity kNoSender = [] {
    CallerIdentity identity;
    identity.why = "the request names no sender";
    return identity;
  }();
  const char* sender = sd_bus_message_get_sender(call);
  if (sender == nullptr) return kNoSender;
  Connection& connection = connections_[sender];
  if (connection.identity) return *connection.identity;
  // The bus's record of who opened the connection, not what the message
  // says: the process may have forked, or be about to exit.
  sd_bus_creds* creds = nullptr;
  pid_t pid = 0;
  uid_t uid = 0;
  int r = sd_bus_get_name_creds(bus_, sender, SD_BUS_CREDS_PID | SD_BUS_CREDS_UID | SD_BUS_CREDS_EUID, &creds);
  if (r >= 0) r = sd_bus_creds_get_pid(creds, &pid);
  if (r >= 0 && sd_bus_creds_get_euid(creds, &uid) < 0) r = sd_bus_creds_get_uid(creds, &uid);
  sd_bus_creds_unref(creds);
  if (r < 0) {
    connection.identity = CallerIdentity{};
    connection.identity->why = std::string("the bus does not tell who the caller is: ") + std::strerror(-r);
  } else {
    // A connection that joined before this daemon started did so before startedAt_.
    connection.identity = identifyProcess(pid, uid, connection.appearedAt != 0 ? connection.appearedAt : startedAt_);
  }
  if (!connection.identity->known) {
    log().log(LogLevel::Default, std::string("velmorad: refusing every request of ") + sender + ": " +
                                     connection.identity->why);
  }
  return *connection.identity;
}

void Daemon::handleRequest(sd_bus_message* call) {
  const CallerIdentity& caller = callerOf(call);
  if (!caller.known) {
    sendNow(call, makeErrorReply(kErrorNotPermitted, "not permitted: " + caller.why));
    return;
  }
  std::optional<PropertyList> body = velmora::readDbusDictionary(call);
  if (!body) {
    sendNow(call, makeErrorReply(kErrorMalformedRequest, "the request is not a dictionary"));
    return;
  }
  const std::optional<Envelope> envelope = readEnvelope(*body->getDictionary());
  if (!envelope) {
    sendNow(call, makeErrorReply(kErrorMalformedRequest, kMalformedEnvelope));
    return;
  }
  const std::optional<std::string>& bundle = envelope->bundle;
  const std::optional<std::string>& storeID = envelope->storeID;
  const bool additional = envelope->additional;
  Request request;
  request.message = envelope->message;
  request.userInfo = envelope->userInfo;
  request.confined = caller.confined;
  if (const char* sender = sd_bus_message_get_sender(call)) request.sender = sender;
  auto refuse = [&](const char* what) {
    sendNow(call, makeErrorReply(kErrorNotPermitted, std::string("not permitted: a sandboxed application ") + what));
  };

  // Answered here at once: nothing of a store is needed.
  if (request.message == kZKVMessagePing || request.message == kZKVMessageSynchronizeRemote) {
    if (request.message == kZKVMessageSynchronizeRemote) engine_->synchronize(nullptr);
    sendNow(call, successReply(PropertyList::dictionary({})));
    return;
  }
  // What waits for a queue or the sync engine counts against the
  // connection's bound until its reply has gone (the slot's last copy goes).
  Connection& connection = connections_[request.sender];
  if (connection.inFlight->load(std::memory_order_relaxed) >= kMaxRequestsInFlight) {
    sendNow(call, makeErrorReply(kErrorLimitReached, "too many requests of this connection are waiting; retry later"));
    return;
  }
  connection.inFlight->fetch_add(1, std::memory_order_relaxed);
  const InFlightSlot slot(nullptr, [counter = connection.inFlight](void*) {
    counter->fetch_sub(1, std::memory_order_relaxed);
  });

  if (request.message == kZKVMessageTrackSynchronizeRemote || request.message == kZKVMessageAccountLogin ||
      request.message == kZKVMessageAccountLogout || request.message == kZKVMessageAccountStatus) {
    // The account is the user's, not an application's.
    if (request.message != kZKVMessageTrackSynchronizeRemote && caller.confined) {
      return refuse("may not manage the account");
    }
    handleAccountRequest(call, request, slot);
    return;
  }
  if (request.message == kZKVMessageGetConfiguration) {
    sendNow(call, successReply(limits_.dictionary()));
    return;
  }
  if (request.message == kZKVMessageResetApps || request.message == kZKVMessageMigrate) {
    std::string target;
    if (request.message == kZKVMessageMigrate) {
      const PropertyList* parameter = request.userInfo.find(kParameterKey);
      if (parameter == nullptr || !parameter->isString() || !isFileSafeIdentifier(*parameter->getString())) {
        sendNow(call, makeErrorReply(kErrorMalformedRequest, "migrate needs a \"parameter\" application identifier"));
        return;
      }
      target = *parameter->getString();
    }
    if (caller.confined && (request.message == kZKVMessageResetApps || caller.application != target)) {
      return refuse("may use only its own stores");
    }
    sd_bus_message_ref(call);
    globalQueue_->async([this, call, reset = request.message == kZKVMessageResetApps, target, confined = caller.confined,
                         slot] {
      postReply(call, reset ? resetApps() : migrate(target, confined));
    });
    return;
  }
  if (!isStoreMessage(request.message) && request.message != kZKVMessageSetDefaultsConfig) {
    sendNow(call, makeErrorReply(kErrorUnknownMessage, "unknown message " + velmora::quoteForLog(request.message)));
    return;
  }

  // The store: the named application's, else the sender's own.
  if (bundle && caller.confined && caller.application != bundle) return refuse("may use only its own stores");
  const std::optional<std::string> app = bundle ? bundle : caller.application;
  auto validIdentifier = [](const std::optional<std::string>& id) {
    return id && isFileSafeIdentifier(*id) && id->size() <= kMaxIdentifierBytes;
  };
  if (!validIdentifier(app) || (additional && !validIdentifier(storeID))) {
    sendNow(call, makeErrorReply(kErrorNoStore, app ? "no valid store identifier" : "the sender's application is unknown"));
    return;
  }
  if (request.message == kZKVMessageSetDefaultsConfig) {
    const std::ptrdiff_t size = ZKVGetSerializedLengthForPropertyList(request.userInfo);
    if (size <= 0 || static_cast<std::size_t>(size) > kMaxDefaultsConfigBytes) {
      sendNow(call, makeErrorReply(kErrorLimitReached, "a defaults configuration must be a property list of at most " +
                                                           std::to_string(kMaxDefaultsConfigBytes) + " bytes"));
      return;
    }
    {
      std::lock_guard lock(defaultsMutex_);
      std::erase_if(defaultsConfigs_, [&](const auto& kept) { return kept.first == *app; });
      if (defaultsConfigs_.size() >= kMaxDefaultsConfigs) defaultsConfigs_.erase(defaultsConfigs_.begin());
      defaultsConfigs_.emplace_back(*app, request.userInfo);
    }
    sendNow(call, successReply(PropertyList::dictionary({})));
    return;
  }
  request.owner = StoreOwner{*app, additional ? storeID : std::nullopt};
  const std::optional<std::filesystem::path> path =
      ZKVRemotePreferencesCreateURLForStorage(*app, request.owner.store, std::nullopt, false);
  if (!path) {
    sendNow(call, makeErrorReply(kErrorNoStore, "no home directory"));
    return;
  }

  if (request.message == kZKVMessageRegister && !connection.registered.contains(path->string())) {
    if (connection.registered.size() >= kMaxRegistrationsPerConnection) {
      sendNow(call, makeErrorReply(kErrorLimitReached, "a connection may register for at most " +
                                                           std::to_string(kMaxRegistrationsPerConnection) + " stores"));
      return;
    }
    connection.registered.insert(path->string());
  }
  if (request.message == kZKVMessageUnregister) connection.registered.erase(path->string());

  const bool mayWrite = request.message != kZKVMessageRegister && request.message != kZKVMessagePrintDebugDescription;
  std::shared_ptr<StoreEntry> entry = storeFor(path->string());
  sd_bus_message_ref(call);
  entry->async([this, call, entry = entry.get(), slot, request = std::move(request)] {
    bool changed = false;
    // The reply goes first, and the change notice right behind it on the
    // same connection when this thread may send; otherwise through the
    // notification connection, which waits for that connection's thread.
    PropertyList reply = perform(*entry, request, &changed);
    const bool announced = postReply(call, std::move(reply), changed);
    if (changed) {
      engine_->noteLocalChange(entry->name);
      if (!announced) postChangeNotification();
    }
  }, mayWrite);
}

PropertyList Daemon::answerStoreRequest(const std::filesystem::path& storePath, const PropertyList& body,
                                        const std::string& sender) {
  if (!body.isDictionary()) return makeErrorReply(kErrorMalformedRequest, "the request is not a dictionary");
  const std::optional<Envelope> envelope = readEnvelope(*body.getDictionary());
  if (!envelope) return makeErrorReply(kErrorMalformedRequest, kMalformedEnvelope);
  if (!isStoreMessage(envelope->message)) {
    return makeErrorReply(kErrorUnknownMessage, "\"" + envelope->message + "\" is no store message");
  }
  Request request;
  request.message = envelope->message;
  request.userInfo = envelope->userInfo;
  request.sender = sender;
  request.owner = StoreOwner{envelope->bundle.value_or(std::string()),
                             envelope->additional ? envelope->storeID : std::nullopt};
  bool changed = false;
  return perform(*storeFor(storePath.string()), request, &changed);
}

namespace {

// Whether a confined caller with this (application, store) may use store.
// A file without a recorded owner (written before owners were) is its own
// only when its name cannot be another application's store: "A.plist" with
// no '-' in A.
bool ownedBy(Store& store, const StoreOwner& owner) {
  if (std::optional<StoreOwner> recorded = store.owner()) return *recorded == owner;
  if (!store.hasFile()) return true;
  return !owner.store && owner.application.find('-') == std::string::npos &&
         store.path().stem().string() == owner.application;
}

}  // namespace

PropertyList Daemon::perform(StoreEntry& entry, const Request& request, bool* changed) {
  Store& store = entry.store;
  if (request.confined) {
    if (std::string error; !store.load(&error)) return makeErrorReply(kErrorStoreUnreadable, error);
    if (!ownedBy(store, request.owner)) {
      return makeErrorReply(kErrorNotPermitted, "not permitted: the store file belongs to another application");
    }
  }
  if (request.message == kZKVMessageRegister) {
    if (!request.sender.empty()) store.addClient(request.sender);
    return successReply(limits_.dictionary());
  }
  if (request.message == kZKVMessageUnregister) {
    if (!store.removeClient(request.sender)) return makeErrorReply(kErrorWriteFailed, "updating the store failed");
    return successReply(PropertyList::dictionary({}));
  }
  if (request.message == kZKVMessageDiscardJournalEntries) {
    std::int64_t count = 0;
    if (!request.userInfo.getInt64(count)) {
      return makeErrorReply(kErrorMalformedRequest, "discardJournalEntries needs an integer");
    }
    if (!store.releaseJournal(request.sender, count)) {
      return makeErrorReply(kErrorWriteFailed, "updating the store failed");
    }
    return successReply(PropertyList::dictionary({}));
  }
  if (request.message == kZKVMessagePrintDebugDescription) {
    std::string text = store.debugDescription();
    text += engine_->describe(entry.name);
    const PropertyList contents = store.contents();
    text += "Pending changes: " +
            (contents.isDictionary() ? std::to_string(countPending(*contents.getDictionary())) : std::string("?")) + "\n";
    text += "Open stores: " + std::to_string(openStoreCount()) + ", store threads: " +
            std::to_string(workers_.threadCount()) + "\n";
    std::lock_guard lock(defaultsMutex_);
    auto defaults = std::find_if(defaultsConfigs_.begin(), defaultsConfigs_.end(),
                                 [&](const auto& kept) { return kept.first == request.owner.application; });
    text += "Defaults configuration: " +
            (defaults != defaultsConfigs_.end() ? defaults->second.description() : std::string("(none)")) + "\n";
    return successReply(PropertyList::string(text));
  }
  // synchronize
  const PropertyList* changes = request.userInfo.find(kChangesKey);
  if (changes == nullptr || !changes->isDictionary()) {
    return makeErrorReply(kErrorMalformedRequest, "synchronize needs a \"changes\" dictionary");
  }
  const ApplyOutcome outcome = store.applyChanges(*changes->getDictionary(), limits_, &request.owner);
  if (!outcome.accepted) {
    return makeErrorReply(outcome.readFailed    ? kErrorStoreUnreadable
                          : outcome.writeFailed ? kErrorWriteFailed
                                                : kErrorMalformedRequest,
                          outcome.error);
  }
  if (outcome.written) {
    log().log(LogLevel::Debug, "velmorad: " + store.path().string() + " now at change count " +
                                   std::to_string(outcome.changeCount));
    *changed = true;
  }
  if (!outcome.refusedKeys.empty()) {
    // One line, naming a few keys, each cut short: the request may hold thousands.
    std::string keys;
    for (std::size_t i = 0; i < outcome.refusedKeys.size() && i < 3; ++i) {
      keys += (i > 0 ? ", " : "") + velmora::quoteForLog(outcome.refusedKeys[i]);
    }
    log().logf(LogLevel::Default, "velmorad: %zu keys of %s are over a limit and were not stored: %s%s",
               outcome.refusedKeys.size(), store.path().c_str(), keys.c_str(),
               outcome.refusedKeys.size() > 3 ? ", ..." : "");
  }
  return successReply(
      velmora::makeDictionary({{std::string(kChangeCountKey), PropertyList::integer(outcome.changeCount)}}));
}

void Daemon::clientGone(const std::string& name) {
  auto it = connections_.find(name);
  if (it == connections_.end()) return;
  // Only the stores it registered for can know it (a store that was closed had no clients).
  for (const std::string& path : it->second.registered) {
    if (std::shared_ptr<StoreEntry> entry = openStore(path)) {
      entry->async([store = &entry->store, name] { (void)store->removeClient(name); });
    }
  }
  connections_.erase(it);
}

PropertyList Daemon::resetApps() {
  const std::optional<std::filesystem::path> dir = storeDirectory();
  if (!dir) return makeErrorReply(kErrorNoStore, "no home directory");
  // Each loaded store drops its file and its copy in one turn of its queue,
  // so no write of that store can fall between the two.
  auto resetStore = [](StoreEntry& entry) {
    entry.sync([&] {
      std::error_code ignored;
      std::filesystem::remove(entry.store.path(), ignored);
      entry.store.forgetContents();
    });
  };
  std::vector<std::shared_ptr<StoreEntry>> before = allStores();
  for (const std::shared_ptr<StoreEntry>& entry : before) resetStore(*entry);
  std::error_code ec;
  for (const auto& item : std::filesystem::directory_iterator(*dir, ec)) {
    if (item.path().extension() == ".plist") {
      std::error_code removeError;
      std::filesystem::remove(item.path(), removeError);
    }
  }
  // Stores first used meanwhile may have read a file removed above.
  for (const std::shared_ptr<StoreEntry>& entry : allStores()) {
    if (std::find(before.begin(), before.end(), entry) == before.end()) resetStore(*entry);
  }
  log().log(LogLevel::Default, "velmorad: removed every store of " + dir->string());
  postChangeNotification();
  engine_->storesReset();
  return successReply(PropertyList::dictionary({}));
}

void Daemon::handleAccountRequest(sd_bus_message* call, const Request& request, const InFlightSlot& slot) {
  sd_bus_message_ref(call);
  auto reply = [this, call, slot](SyncReply outcome) { postReply(call, replyFor(outcome)); };
  if (request.message == kZKVMessageTrackSynchronizeRemote) {
    engine_->synchronize(std::move(reply));
  } else if (request.message == kZKVMessageAccountLogout) {
    engine_->logout(std::move(reply));
  } else if (request.message == kZKVMessageAccountStatus) {
    // It reads every store on its queue: the global queue may wait for those.
    globalQueue_->async([this, call, slot] { postReply(call, successReply(engine_->status())); });
  } else {
    const PropertyList* server = request.userInfo.find(kServerKey);
    const PropertyList* token = request.userInfo.find(kTokenKey);
    if (server == nullptr || !server->isString() || token == nullptr || !token->isString()) {
      postReply(call, makeErrorReply(kErrorMalformedRequest, "accountLogin needs \"server\" and \"token\" strings"));
      return;
    }
    engine_->login(*server->getString(), *token->getString(), std::move(reply));
  }
}

PropertyList Daemon::migrate(const std::string& applicationID, bool confined) {
  bool migrated = false;
  const std::optional<std::filesystem::path> dir = storeDirectory();
  std::error_code ec;
  if (dir) {
    for (const auto& item : std::filesystem::directory_iterator(*dir, ec)) {
      const std::string name = item.path().filename().string();
      if (item.path().extension() != ".plist") continue;
      const std::string stem = item.path().stem().string();
      if (stem != applicationID && stem.rfind(applicationID + "-", 0) != 0) continue;
      std::shared_ptr<StoreEntry> entry = storeFor(item.path().string());
      entry->sync([&] {
        // A confined caller's only if the file says so ("A-x.plist" may be application A-x's).
        if (confined) {
          std::optional<StoreOwner> owner = entry->store.owner();
          const bool own = owner ? owner->application == applicationID : ownedBy(entry->store, {applicationID, {}});
          if (!own) return;
        }
        migrated = entry->store.rewrite() || migrated;
      });
    }
  }
  return successReply(velmora::makeDictionary({{"migrated", PropertyList::boolean(migrated)}}));
}

}  // namespace velmorad
