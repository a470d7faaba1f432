#include "Daemon.h"

#include <fcntl.h>
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

// A serial executor with a thread of its own, started on demand and gone
// after a while idle. A store's work blocks on fsync; on the shared pool
// (bounded by the core count) a few stores' disk writes would hold up the
// requests of every other store.
//
// Each work item runs under an exclusive flock of a lock file beside the
// store file: a daemon that lost its bus may still be finishing writes while
// its successor already serves the same home, and without the lock one of
// them could rewrite the file from a copy that misses the other's change.
// Under the lock the Store notices the other's file and reads it again.
class StoreExecutor {
 public:
  // afterEach runs on the executor's thread after every work item, still
  // under the store's lock.
  StoreExecutor(std::filesystem::path lockPath, std::function<void()> afterEach)
      : lockPath_(std::move(lockPath)), afterEach_(std::move(afterEach)) {}
  ~StoreExecutor() {
    stop();
    if (lockFd_ >= 0) ::close(lockFd_);
  }
  StoreExecutor(const StoreExecutor&) = delete;
  StoreExecutor& operator=(const StoreExecutor&) = delete;

  // Runs work after everything queued before it, on the executor's thread.
  void async(std::function<void()> work) {
    {
      std::lock_guard lock(mutex_);
      work_.push_back(std::move(work));
      if (!running_) {
        // A thread that left after idling has only its return left to make.
        if (thread_.joinable()) thread_.join();
        running_ = true;
        thread_ = std::thread([this] { run(); });
        return;
      }
    }
    // Outside the lock, so that the woken thread does not wait for it.
    wake_.notify_one();
  }

  // Runs work as async() does and waits for it. Never from the executor's own work.
  void sync(const std::function<void()>& work) {
    std::mutex doneMutex;
    std::condition_variable doneSignal;
    bool done = false;
    async([&] {
      work();
      std::lock_guard lock(doneMutex);
      done = true;
      doneSignal.notify_one();
    });
    std::unique_lock lock(doneMutex);
    doneSignal.wait(lock, [&] { return done; });
  }

  // Runs what is queued, then ends the thread. Call once nothing queues any more.
  void stop() {
    {
      std::lock_guard lock(mutex_);
      stopping_ = true;
      wake_.notify_all();
    }
    if (thread_.joinable()) thread_.join();
  }

 private:
  static constexpr auto kIdleTime = std::chrono::seconds(10);

  void run() {
    std::unique_lock lock(mutex_);
    for (;;) {
      wake_.wait_for(lock, kIdleTime, [&] { return !work_.empty() || stopping_; });
      if (work_.empty()) {
        running_ = false;
        return;
      }
      std::function<void()> item = std::move(work_.front());
      work_.pop_front();
      lock.unlock();
      const bool locked = lockStoreFile();
      item();
      afterEach_();
      if (locked) ::flock(lockFd_, LOCK_UN);
      item = nullptr;  // its captures go before the next wait
      lock.lock();
    }
  }

  // Executor thread: takes the store's file lock, opening the lock file on
  // first use. False when it cannot be had (no directory yet, read-only):
  // the work then runs unlocked rather than not at all.
  bool lockStoreFile() {
    if (lockFd_ < 0) {
      lockFd_ = ::open(lockPath_.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
      if (lockFd_ < 0) return false;
    }
    while (::flock(lockFd_, LOCK_EX) != 0) {
      if (errno != EINTR) return false;
    }
    return true;
  }

  const std::filesystem::path lockPath_;      // immutable
  const std::function<void()> afterEach_;     // immutable
  int lockFd_ = -1;                       // executor thread only (closed by the destructor after stop())
  std::mutex mutex_;
  std::condition_variable wake_;
  std::deque<std::function<void()>> work_;  // guarded by mutex_
  bool running_ = false;                    // guarded by mutex_: a thread drains work_
  bool stopping_ = false;                   // guarded by mutex_
  std::thread thread_;                      // guarded by mutex_ (joined without it by stop())
};

// One request, parsed on the bus thread and carried to a queue by value.
struct Daemon::Request {
  std::string message;
  PropertyList userInfo;
  std::string sender;       // the caller's unique bus name
  std::string application;  // the store's application, once resolved
};

struct Daemon::StoreEntry {
  // Each rewrite keeps the replaced file under a second name; once the work
  // item that made it (its reply included) is done, a background queue
  // unlinks it. Freeing its blocks costs about as much as an fsync here, and
  // neither this reply nor the store's next request should wait for it.
  explicit StoreEntry(const std::string& path)
      : queue(std::make_unique<StoreExecutor>(lockPathFor(path),
                                              [this] {
                                                std::filesystem::path kept = store.takeReplacedFile();
                                                if (kept.empty()) return;
                                                janitorQueue()->async([kept = std::move(kept)] { ::unlink(kept.c_str()); });
                                              })),
        store(path),
        name(std::filesystem::path(path).stem().string()) {
    store.setKeepReplacedFile(true);
  }
  const std::unique_ptr<StoreExecutor> queue;  // immutable
  Store store;                                 // guarded by queue
  const std::string name;                      // immutable; the store's name on the sync server
};

// The sync engine's view of the daemon: stores by name, on their queues.
class Daemon::Host final : public SyncHost {
 public:
  explicit Host(Daemon& daemon) : daemon_(daemon) {}

  void withStore(const std::string& name, const std::function<void(Store&)>& work) override {
    const std::optional<std::filesystem::path> dir = storeDirectory();
    if (!dir || !isFileSafeIdentifier(name)) return;
    std::shared_ptr<StoreEntry> entry = daemon_.storeFor((*dir / (name + ".plist")).string());
    entry->queue->sync([&] { work(entry->store); });
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
    if (name[0] == ':' && newOwner[0] == '\0') static_cast<Daemon*>(userdata)->clientGone(name);
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

Daemon::Daemon(std::string busAddress, SyncClientFactory syncClients)
    : busAddress_(std::move(busAddress)),
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

    const int events = sd_bus_get_events(bus_);
    std::uint64_t usec = 0;
    int timeout = -1;
    if (sd_bus_get_timeout(bus_, &usec) > 0 && usec != UINT64_MAX) {
      timespec now{};
      clock_gettime(CLOCK_MONOTONIC, &now);
      const std::uint64_t nowUsec = static_cast<std::uint64_t>(now.tv_sec) * 1000000 + now.tv_nsec / 1000;
      timeout = usec <= nowUsec ? 0 : static_cast<int>(std::min<std::uint64_t>((usec - nowUsec + 999) / 1000, 60000));
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
    }
  }
  ::close(signalFd);

  // No request is read any more: stop syncing (the engine waits on store
  // queues, so it goes first), let every queue finish, then answer.
  engine_->stop();
  globalQueue_->sync([] {});
  // Stopping each store's thread here, not in the destructor, so that none
  // can drop the last reference to its own entry.
  for (const std::shared_ptr<StoreEntry>& entry : allStores()) entry->queue->stop();
  drainOutbox();
  sd_bus_flush(bus_);
  log().log(LogLevel::Default, "velmorad: exiting");
  return 0;
}

std::shared_ptr<Daemon::StoreEntry> Daemon::storeFor(const std::string& path) {
  std::lock_guard lock(registryMutex_);
  std::shared_ptr<StoreEntry>& slot = stores_[path];
  if (!slot) slot = std::make_shared<StoreEntry>(path);
  return slot;
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

std::optional<std::string> Daemon::senderApplication(sd_bus_message* call, bool* sandboxed, std::string* why) {
  // A connection's process never changes, so one look per sender serves all
  // its requests (forgotten when it leaves the bus).
  const char* sender = sd_bus_message_get_sender(call);
  if (sender != nullptr) {
    if (auto known = senders_.find(sender); known != senders_.end()) {
      *sandboxed = known->second.sandboxed;
      if (!known->second.application) *why = "the sender's application is unknown";
      return known->second.application;
    }
  }
  sd_bus_creds* creds = nullptr;
  pid_t pid = 0;
  int r = sd_bus_query_sender_creds(call, SD_BUS_CREDS_PID, &creds);
  if (r >= 0) r = sd_bus_creds_get_pid(creds, &pid);
  sd_bus_creds_unref(creds);
  if (r < 0) {
    *why = std::string("cannot learn the sender's process: ") + std::strerror(-r);
    return std::nullopt;
  }
  // The sandbox's own marker file, seen through the peer's root.
  std::error_code ec;
  *sandboxed = std::filesystem::exists("/proc/" + std::to_string(pid) + "/root/.flatpak-info", ec);
  std::optional<std::string> app = velmora::applicationIdentifierOfProcess(pid);
  if (!app) *why = "the sender's application is unknown";
  if (sender != nullptr) senders_[sender] = SenderIdentity{app, *sandboxed};
  return app;
}

void Daemon::handleRequest(sd_bus_message* call) {
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
  if (const char* sender = sd_bus_message_get_sender(call)) request.sender = sender;

  // Answered here at once: nothing of a store is needed.
  if (request.message == kZKVMessagePing || request.message == kZKVMessageSynchronizeRemote) {
    if (request.message == kZKVMessageSynchronizeRemote) engine_->synchronize(nullptr);
    sendNow(call, successReply(PropertyList::dictionary({})));
    return;
  }
  if (request.message == kZKVMessageTrackSynchronizeRemote || request.message == kZKVMessageAccountLogin ||
      request.message == kZKVMessageAccountLogout || request.message == kZKVMessageAccountStatus) {
    if (request.message != kZKVMessageTrackSynchronizeRemote) {
      // The account is the user's, not an application's.
      std::string why;
      bool sandboxed = false;
      (void)senderApplication(call, &sandboxed, &why);
      if (sandboxed) {
        sendNow(call, makeErrorReply(kErrorNotPermitted, "a sandboxed application may not manage the account"));
        return;
      }
    }
    handleAccountRequest(call, request);
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
    // A sandboxed application may not touch other applications' stores.
    std::string why;
    bool sandboxed = false;
    const std::optional<std::string> senderApp = senderApplication(call, &sandboxed, &why);
    if (sandboxed && (request.message == kZKVMessageResetApps || senderApp != target)) {
      sendNow(call, makeErrorReply(kErrorNotPermitted, "a sandboxed application may use only its own store"));
      return;
    }
    sd_bus_message_ref(call);
    globalQueue_->async([this, call, reset = request.message == kZKVMessageResetApps, target] {
      postReply(call, reset ? resetApps() : migrate(target));
    });
    return;
  }
  if (!isStoreMessage(request.message) && request.message != kZKVMessageSetDefaultsConfig) {
    sendNow(call, makeErrorReply(kErrorUnknownMessage, "unknown message \"" + request.message + "\""));
    return;
  }

  // The store: the named application's, else the sender's own.
  std::string why;
  bool sandboxed = false;
  const std::optional<std::string> senderApp = senderApplication(call, &sandboxed, &why);
  if (bundle && sandboxed && senderApp != bundle) {
    sendNow(call, makeErrorReply(kErrorNotPermitted, "a sandboxed application may use only its own store"));
    return;
  }
  std::optional<std::string> app = bundle ? bundle : senderApp;
  if (bundle) why.clear();
  if (!app || !isFileSafeIdentifier(*app) || (additional && (!storeID || !isFileSafeIdentifier(*storeID)))) {
    sendNow(call, makeErrorReply(kErrorNoStore, why.empty() ? "no valid store identifier" : why));
    return;
  }
  if (request.message == kZKVMessageSetDefaultsConfig) {
    {
      std::lock_guard lock(defaultsMutex_);
      defaultsConfigs_[*app] = request.userInfo;
    }
    sendNow(call, successReply(PropertyList::dictionary({})));
    return;
  }
  const std::optional<std::filesystem::path> path =
      ZKVRemotePreferencesCreateURLForStorage(*app, additional ? storeID : std::nullopt, std::nullopt, false);
  if (!path) {
    sendNow(call, makeErrorReply(kErrorNoStore, "no home directory"));
    return;
  }
  request.application = *app;
  std::shared_ptr<StoreEntry> entry = storeFor(path->string());
  sd_bus_message_ref(call);
  entry->queue->async([this, call, entry, request = std::move(request)] {
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
  });
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
  request.application = envelope->bundle.value_or(std::string());
  bool changed = false;
  return perform(*storeFor(storePath.string()), request, &changed);
}

PropertyList Daemon::perform(StoreEntry& entry, const Request& request, bool* changed) {
  Store& store = entry.store;
  if (request.message == kZKVMessageRegister) {
    if (!request.sender.empty()) store.addClient(request.sender);
    return successReply(limits_.dictionary());
  }
  if (request.message == kZKVMessageUnregister) {
    if (!store.removeClient(request.sender)) return makeErrorReply(kErrorWriteFailed, "writing the store failed");
    return successReply(PropertyList::dictionary({}));
  }
  if (request.message == kZKVMessageDiscardJournalEntries) {
    std::int64_t count = 0;
    if (!request.userInfo.getInt64(count)) {
      return makeErrorReply(kErrorMalformedRequest, "discardJournalEntries needs an integer");
    }
    if (!store.releaseJournal(request.sender, count)) {
      return makeErrorReply(kErrorWriteFailed, "writing the store failed");
    }
    return successReply(PropertyList::dictionary({}));
  }
  if (request.message == kZKVMessagePrintDebugDescription) {
    std::string text = store.debugDescription();
    text += engine_->describe(entry.name);
    text += "Pending changes: " + std::to_string(countPending(*store.contents().getDictionary())) + "\n";
    std::lock_guard lock(defaultsMutex_);
    auto defaults = defaultsConfigs_.find(request.application);
    text += "Defaults configuration: " +
            (defaults != defaultsConfigs_.end() ? defaults->second.description() : std::string("(none)")) + "\n";
    return successReply(PropertyList::string(text));
  }
  // synchronize
  const PropertyList* changes = request.userInfo.find(kChangesKey);
  if (changes == nullptr || !changes->isDictionary()) {
    return makeErrorReply(kErrorMalformedRequest, "synchronize needs a \"changes\" dictionary");
  }
  const ApplyOutcome outcome = store.applyChanges(*changes->getDictionary(), ChangeOrigin::Client, limits_);
  if (!outcome.accepted) {
    return makeErrorReply(outcome.writeFailed ? kErrorWriteFailed : kErrorMalformedRequest, outcome.error);
  }
  if (outcome.written) {
    log().log(LogLevel::Debug, "velmorad: " + store.path().string() + " now at change count " +
                                   std::to_string(outcome.changeCount));
    *changed = true;
  }
  for (const std::string& key : outcome.refusedKeys) {
    log().log(LogLevel::Default, "velmorad: key \"" + key + "\" of " + store.path().string() + " is over a limit");
  }
  return successReply(
      velmora::makeDictionary({{std::string(kChangeCountKey), PropertyList::integer(outcome.changeCount)}}));
}

void Daemon::clientGone(const std::string& name) {
  senders_.erase(name);
  for (const std::shared_ptr<StoreEntry>& entry : allStores()) {
    entry->queue->async([entry, name] { (void)entry->store.removeClient(name); });
  }
}

PropertyList Daemon::resetApps() {
  const std::optional<std::filesystem::path> dir = storeDirectory();
  if (!dir) return makeErrorReply(kErrorNoStore, "no home directory");
  // Each loaded store drops its file and its copy in one turn of its queue,
  // so no write of that store can fall between the two.
  auto resetStore = [](StoreEntry& entry) {
    entry.queue->sync([&] {
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

void Daemon::handleAccountRequest(sd_bus_message* call, const Request& request) {
  sd_bus_message_ref(call);
  auto reply = [this, call](SyncReply outcome) { postReply(call, replyFor(outcome)); };
  if (request.message == kZKVMessageTrackSynchronizeRemote) {
    engine_->synchronize(std::move(reply));
  } else if (request.message == kZKVMessageAccountLogout) {
    engine_->logout(std::move(reply));
  } else if (request.message == kZKVMessageAccountStatus) {
    // It reads every store on its queue: the global queue may wait for those.
    globalQueue_->async([this, call] { postReply(call, successReply(engine_->status())); });
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

PropertyList Daemon::migrate(const std::string& applicationID) {
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
      entry->queue->sync([&] { migrated = entry->store.rewrite() || migrated; });
    }
  }
  return successReply(velmora::makeDictionary({{"migrated", PropertyList::boolean(migrated)}}));
}

}  // namespace velmorad
