// The session-bus IPC transport.

#include "InstalledSlot.h"
//
// Design note
// - Threads. A DbusIpcConnection (the caller's handle) only queues commands
//   for the shared I/O thread (DbusIoThread.h). Everything that touches the
//   bus, the pending-call table and the per-connection routing state (IpcIo)
//   runs there. Replies go to the caller's reply queue (or wake the
//   sendAndWait() caller); events go to the connection's event queue.
// - Locks. ConnectionCore::mutex_ guards the event handler, the resumed flag
//   and the event backlog; SyncWaiter::mutex guards one synchronous call's
//   result. Each is held only for a few instructions and never while user
//   code runs; no path takes two of them.
// - Exactly once. A pending call leaves the table (IpcIo::finish) before its
//   completion runs, and every way a call can end (reply, timeout, owner
//   lost, cancel, bus lost, shutdown) goes through finish, so a second ending
//   finds nothing to complete. Only synchronous calls have a timeout; an
//   asynchronous one ends by one of the others. The table stays bounded
//   while a daemon sits on calls: the bus caps the replies one connection
//   may await and refuses calls beyond it with an error.
#include "velmora/platform/Ipc.h"

#include <systemd/sd-bus.h>

#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "DbusIoThread.h"
#include "velmora/platform/DbusValue.h"
#include "velmora/platform/Dispatch.h"
#include "velmora/platform/Log.h"

namespace velmora {

std::string_view ipcErrorKindName(IpcErrorKind kind) noexcept {
  switch (kind) {
    case IpcErrorKind::ConnectionInvalid:
      return "connection-invalid";
    case IpcErrorKind::ConnectionInterrupted:
      return "connection-interrupted";
    case IpcErrorKind::Timeout:
      return "timeout";
    case IpcErrorKind::RemoteError:
      return "remote-error";
    case IpcErrorKind::MalformedReply:
      return "malformed-reply";
    case IpcErrorKind::SendFailed:
      return "send-failed";
  }
  return "unknown";
}

std::string_view ipcEventKindName(IpcEventKind kind) noexcept {
  switch (kind) {
    case IpcEventKind::ConnectionInvalid:
      return "connection-invalid";
    case IpcEventKind::ConnectionInterrupted:
      return "connection-interrupted";
    case IpcEventKind::OtherError:
      return "other-error";
    case IpcEventKind::UnsolicitedMessage:
      return "unsolicited-message";
  }
  return "unknown";
}

IpcReply IpcReply::success(PropertyList dictionary) {
  IpcReply reply;
  reply.dictionary = std::move(dictionary);
  return reply;
}

IpcReply IpcReply::failure(IpcErrorKind kind, std::string message, std::string name) {
  IpcReply reply;
  reply.error = IpcError{kind, std::move(name), std::move(message)};
  return reply;
}

namespace {

using dbusio::IoThread;

constexpr const char* kBusName = "org.freedesktop.DBus";
constexpr const char* kNoReplyError = "org.freedesktop.DBus.Error.NoReply";
// sd-bus's own timeout stays behind ours so that ours, with its precise
// error kind, always fires first.
constexpr std::chrono::seconds kBackstopTimeout{5};
// Longer timeouts are clamped; nobody waits a day for a reply.
constexpr std::chrono::milliseconds kMaxCallTimeout{24 * 3600 * 1000};

const char* orEmpty(const char* s) { return s != nullptr ? s : ""; }

const LogHandle& ipcLog() {
  static const LogHandle* handle = new LogHandle("com.vantrel.velmora.platform", "ipc");
  return *handle;
}

// State shared by the caller's handle, the I/O thread and queued events.
class ConnectionCore : public std::enable_shared_from_this<ConnectionCore> {
 public:
  ConnectionCore(std::uint64_t id, std::string serviceName, DbusIpcOptions options,
                 std::shared_ptr<DispatchQueue> eventQueue)
      : id_(id),
        serviceName_(std::move(serviceName)),
        options_(std::move(options)),
        eventQueue_(std::move(eventQueue)),
        timeoutMs_(clampTimeout(options_.callTimeout).count()) {}

  static std::chrono::milliseconds clampTimeout(std::chrono::milliseconds t) {
    if (t.count() <= 0) return kDefaultIpcCallTimeout;
    return std::min(t, kMaxCallTimeout);
  }

  std::uint64_t id() const noexcept { return id_; }
  const std::string& serviceName() const noexcept { return serviceName_; }
  const DbusIpcOptions& options() const noexcept { return options_; }

  bool dead() const noexcept { return dead_.load(std::memory_order_acquire); }
  void markDead() noexcept { dead_.store(true, std::memory_order_release); }

  std::chrono::milliseconds timeout() const noexcept {
    return std::chrono::milliseconds(timeoutMs_.load(std::memory_order_relaxed));
  }
  void setTimeout(std::chrono::milliseconds t) noexcept {
    timeoutMs_.store(clampTimeout(t).count(), std::memory_order_relaxed);
  }

  void setHandler(IpcEventHandler handler) {
    {
      std::lock_guard lock(mutex_);
      handler_.swap(handler);
    }
    // The old handler (and what it captured) goes here, outside the lock.
  }

  void resume() {
    std::vector<IpcEvent> backlog;
    std::lock_guard lock(mutex_);
    if (resumed_) return;
    resumed_ = true;
    backlog.swap(backlog_);
    // Queued under the lock so that an event delivered meanwhile cannot
    // overtake the backlog.
    for (IpcEvent& event : backlog) {
      queueEventLocked(std::move(event));
    }
  }

  // Any thread (the I/O thread in practice). Never blocks.
  void deliver(IpcEvent event) {
    std::lock_guard lock(mutex_);
    if (!resumed_) {
      backlog_.push_back(std::move(event));
      return;
    }
    queueEventLocked(std::move(event));
  }

 private:
  void queueEventLocked(IpcEvent event) {
    if (!eventQueue_) return;
    eventQueue_->async([self = shared_from_this(), event = std::move(event)] {
      IpcEventHandler handler;
      {
        std::lock_guard lock(self->mutex_);
        handler = self->handler_;
      }
      if (handler) handler(event);
    });
  }

  const std::uint64_t id_;                            // immutable
  const std::string serviceName_;                     // immutable
  const DbusIpcOptions options_;                      // immutable
  const std::shared_ptr<DispatchQueue> eventQueue_;   // immutable
  std::atomic<std::int64_t> timeoutMs_;               // atomic
  std::atomic<bool> dead_{false};                     // atomic; set by cancel() or the I/O thread
  std::mutex mutex_;                                  // guards the three fields below
  IpcEventHandler handler_;                           // guarded by mutex_
  bool resumed_ = false;                              // guarded by mutex_
  std::vector<IpcEvent> backlog_;                     // guarded by mutex_
};

using Completion = std::function<void(IpcReply)>;

// One request waiting for its reply. Every field belongs to the I/O thread.
struct PendingCall {
  std::uint64_t id = 0;
  std::uint64_t connectionId = 0;
  sd_bus_slot* slot = nullptr;  // owned; unref cancels the call at the bus library
  IoThread::TimerId timer = 0;  // 0: none (the call waits for its reply)
  Completion complete;
};

// The I/O thread's side of one connection. Every field belongs to the I/O
// thread.
struct ConnectionIo {
  std::shared_ptr<ConnectionCore> core;
  std::uint64_t busId = 0;
  sd_bus_slot* ownerWatch = nullptr;  // owned: the NameOwnerChanged match
  sd_bus_slot* ownerQuery = nullptr;  // owned: the initial GetNameOwner call
  std::string owner;                  // the name's unique owner as last seen; "" = none or unknown
  std::unordered_set<std::uint64_t> calls;
};

// This module's state on one bus. Every field belongs to the I/O thread.
struct BusIo {
  std::uint64_t busId = 0;
  sd_bus_slot* filter = nullptr;  // owned
  std::unordered_set<std::uint64_t> connections;
};

// Everything here runs on the I/O thread only.
class IpcIo {
 public:
  static IpcIo& instance() {
    static IpcIo* io = new IpcIo();
    return *io;
  }

  void open(const std::shared_ptr<ConnectionCore>& core);
  // timeout: how long a synchronous caller waits; nullopt waits for the
  // reply or for the loss of the connection, the owner or the bus.
  void send(std::uint64_t connectionId, const IpcObject& request,
            std::optional<std::chrono::milliseconds> timeout, Completion complete);
  void cancel(std::uint64_t connectionId) { invalidate(connectionId, "the connection was cancelled"); }

 private:
  IpcIo() {
    IoThread::instance().addBusLostListener(
        [this](dbusio::Bus& bus, bool shuttingDown) { busLost(bus, shuttingDown); });
  }

  void finish(std::uint64_t callId, IpcReply reply);
  void failCalls(ConnectionIo& connection, IpcErrorKind kind, const std::string& why);
  void invalidate(std::uint64_t connectionId, const std::string& why);
  void busLost(dbusio::Bus& bus, bool shuttingDown);

  static int onReply(sd_bus_message* m, void* userdata, sd_bus_error* error);
  static int onOwnerChanged(sd_bus_message* m, void* userdata, sd_bus_error* error);
  static int onOwnerWatchInstalled(sd_bus_message* m, void* userdata, sd_bus_error* error);
  static int onOwnerQueried(sd_bus_message* m, void* userdata, sd_bus_error* error);
  static int onFilter(sd_bus_message* m, void* userdata, sd_bus_error* error);

  // Node-based maps: the bus library keeps raw pointers to the values as
  // slot userdata until the slot is dropped.
  std::unordered_map<std::uint64_t, ConnectionIo> connections_;          // I/O thread
  std::unordered_map<std::uint64_t, std::unique_ptr<PendingCall>> calls_;  // I/O thread
  std::unordered_map<std::uint64_t, BusIo> buses_;                       // I/O thread; by bus id
  std::uint64_t nextCallId_ = 1;                                         // I/O thread
};

bool namesValid(const std::string& service, const DbusIpcOptions& o, std::string* why) {
  if (sd_bus_service_name_is_valid(service.c_str()) <= 0 || service.front() == ':') {
    *why = "invalid service name '" + service + "'";
  } else if (sd_bus_object_path_is_valid(o.objectPath.c_str()) <= 0) {
    *why = "invalid object path '" + o.objectPath + "'";
  } else if (sd_bus_interface_name_is_valid(o.interfaceName.c_str()) <= 0) {
    *why = "invalid interface name '" + o.interfaceName + "'";
  } else if (sd_bus_member_name_is_valid(o.member.c_str()) <= 0) {
    *why = "invalid member name '" + o.member + "'";
  } else {
    return true;
  }
  return false;
}

void IpcIo::open(const std::shared_ptr<ConnectionCore>& core) {
  ConnectionIo& connection = connections_[core->id()];
  connection.core = core;
  std::string why;
  if (!namesValid(core->serviceName(), core->options(), &why)) {
    invalidate(core->id(), why);
    return;
  }
  dbusio::Bus* bus = IoThread::instance().bus(core->options().busAddress, &why);
  if (bus == nullptr) {
    invalidate(core->id(), why);
    return;
  }
  connection.busId = bus->id;
  BusIo& busIo = buses_[bus->id];
  busIo.busId = bus->id;
  if (busIo.filter == nullptr) {
    int r = sd_bus_add_filter(bus->bus, &busIo.filter, onFilter, &busIo);
    if (r < 0) {
      ipcLog().logf(LogLevel::Error, "cannot add the message filter: %s", std::strerror(-r));
    }
  }
  busIo.connections.insert(core->id());

  // Added before any request of this connection goes out, so the bus has the
  // watch in place by the time it routes the first request.
  std::string rule =
      "type='signal',sender='org.freedesktop.DBus',interface='org.freedesktop.DBus',"
      "member='NameOwnerChanged',arg0='" +
      core->serviceName() + "'";
  int r = sd_bus_add_match_async(bus->bus, &connection.ownerWatch, rule.c_str(), onOwnerChanged,
                                 onOwnerWatchInstalled, &connection);
  if (r < 0) {
    core->deliver({IpcEventKind::OtherError, std::string("cannot watch the service's owner: ") + std::strerror(-r), {}});
  }
  r = sd_bus_call_method_async(bus->bus, &connection.ownerQuery, kBusName, "/org/freedesktop/DBus", kBusName,
                               "GetNameOwner", onOwnerQueried, &connection, "s", core->serviceName().c_str());
  if (r < 0) {
    connection.ownerQuery = nullptr;
  }
}

void IpcIo::send(std::uint64_t connectionId, const IpcObject& request,
                 std::optional<std::chrono::milliseconds> timeout, Completion complete) {
  auto found = connections_.find(connectionId);
  dbusio::Bus* bus = found == connections_.end() ? nullptr : IoThread::instance().findBus(found->second.busId);
  if (bus == nullptr) {
    if (complete) complete(IpcReply::failure(IpcErrorKind::ConnectionInvalid, "the connection is invalid"));
    return;
  }
  ConnectionIo& connection = found->second;
  const ConnectionCore& core = *connection.core;
  sd_bus_message* m = nullptr;
  int r = sd_bus_message_new_method_call(bus->bus, &m, core.serviceName().c_str(), core.options().objectPath.c_str(),
                                         core.options().interfaceName.c_str(), core.options().member.c_str());
  if (r >= 0) r = appendIpcObject(m, request);
  if (r >= 0 && !complete) r = sd_bus_message_set_expect_reply(m, 0);
  if (r < 0) {
    sd_bus_message_unref(m);
    ipcLog().logf(LogLevel::Error, "cannot build a request to %s: %s", core.serviceName().c_str(), std::strerror(-r));
    if (complete) complete(IpcReply::failure(IpcErrorKind::SendFailed, std::strerror(-r)));
    return;
  }
  if (!complete) {
    r = sd_bus_send(bus->bus, m, nullptr);
    sd_bus_message_unref(m);
    if (r < 0) {
      ipcLog().logf(LogLevel::Error, "cannot send to %s: %s", core.serviceName().c_str(), std::strerror(-r));
    }
    return;
  }
  auto call = std::make_unique<PendingCall>();
  call->id = nextCallId_++;
  call->connectionId = connectionId;
  call->complete = std::move(complete);
  // Without a timeout of ours, sd-bus's is infinite too (UINT64_MAX; 0
  // would mean its own 25 s default).
  const std::uint64_t busTimeout =
      timeout ? static_cast<std::uint64_t>(
                    std::chrono::duration_cast<std::chrono::microseconds>(*timeout + kBackstopTimeout).count())
              : UINT64_MAX;
  r = sd_bus_call_async(bus->bus, &call->slot, m, onReply, call.get(), busTimeout);
  sd_bus_message_unref(m);
  if (r < 0) {
    call->complete(IpcReply::failure(r == -ENOTCONN || r == -ECONNRESET ? IpcErrorKind::ConnectionInvalid
                                                                         : IpcErrorKind::SendFailed,
                                     std::strerror(-r)));
    return;
  }
  const std::uint64_t callId = call->id;
  if (timeout) {
    call->timer = IoThread::instance().addTimer(IoThread::Clock::now() + *timeout, [this, callId, ms = *timeout] {
      finish(callId, IpcReply::failure(IpcErrorKind::Timeout, "no reply within " + std::to_string(ms.count()) + " ms"));
    });
  }
  connection.calls.insert(callId);
  calls_.emplace(callId, std::move(call));
}

void IpcIo::finish(std::uint64_t callId, IpcReply reply) {
  auto found = calls_.find(callId);
  if (found == calls_.end()) return;
  std::unique_ptr<PendingCall> call = std::move(found->second);
  calls_.erase(found);
  // Safe inside the call's own reply callback: the bus library holds its own
  // reference to the slot while the callback runs.
  sd_bus_slot_unref(call->slot);
  IoThread::instance().cancelTimer(call->timer);
  auto connection = connections_.find(call->connectionId);
  if (connection != connections_.end()) connection->second.calls.erase(callId);
  call->complete(std::move(reply));
}

void IpcIo::failCalls(ConnectionIo& connection, IpcErrorKind kind, const std::string& why) {
  std::vector<std::uint64_t> ids(connection.calls.begin(), connection.calls.end());
  for (std::uint64_t id : ids) {
    finish(id, IpcReply::failure(kind, why));
  }
}

void IpcIo::invalidate(std::uint64_t connectionId, const std::string& why) {
  auto found = connections_.find(connectionId);
  if (found == connections_.end()) return;
  ConnectionIo& connection = found->second;
  std::shared_ptr<ConnectionCore> core = connection.core;
  core->markDead();
  failCalls(connection, IpcErrorKind::ConnectionInvalid, why);
  sd_bus_slot_unref(connection.ownerWatch);
  sd_bus_slot_unref(connection.ownerQuery);
  auto busIo = buses_.find(connection.busId);
  if (busIo != buses_.end()) busIo->second.connections.erase(connectionId);
  connections_.erase(found);
  core->deliver({IpcEventKind::ConnectionInvalid, why, {}});
}

void IpcIo::busLost(dbusio::Bus& bus, bool shuttingDown) {
  auto found = buses_.find(bus.id);
  if (found == buses_.end()) return;
  std::vector<std::uint64_t> ids(found->second.connections.begin(), found->second.connections.end());
  const std::string why = shuttingDown ? "the bus I/O thread shut down" : "the bus connection closed";
  for (std::uint64_t id : ids) {
    invalidate(id, why);
  }
  sd_bus_slot_unref(found->second.filter);
  buses_.erase(found);
}

int IpcIo::onReply(sd_bus_message* m, void* userdata, sd_bus_error*) {
  IpcIo& io = instance();
  auto* call = static_cast<PendingCall*>(userdata);
  const char* sender = sd_bus_message_get_sender(m);
  IpcReply reply;
  if (sd_bus_message_is_method_error(m, nullptr)) {
    const sd_bus_error* error = sd_bus_message_get_error(m);
    const char* name = error != nullptr && error->name != nullptr ? error->name : "";
    const char* text = error != nullptr && error->message != nullptr ? error->message : "";
    if (sd_bus_is_open(sd_bus_message_get_bus(m)) <= 0) {
      reply = IpcReply::failure(IpcErrorKind::ConnectionInvalid, "the bus connection closed");
    } else if (std::strcmp(name, kNoReplyError) == 0 && sender != nullptr && std::strcmp(sender, kBusName) == 0) {
      // The bus answers for a service that left without replying.
      reply = IpcReply::failure(IpcErrorKind::ConnectionInterrupted, text);
    } else {
      reply = IpcReply::failure(IpcErrorKind::RemoteError, text, name);
    }
  } else {
    auto connection = io.connections_.find(call->connectionId);
    if (connection != io.connections_.end() && sender != nullptr && sender[0] == ':') {
      connection->second.owner = sender;
    }
    std::optional<PropertyList> dictionary = readDbusDictionary(m);
    reply = dictionary ? IpcReply::success(std::move(*dictionary))
                       : IpcReply::failure(IpcErrorKind::MalformedReply,
                                           std::string("reply has signature '") +
                                               orEmpty(sd_bus_message_get_signature(m, 1)) + "'");
  }
  io.finish(call->id, std::move(reply));
  return 1;
}

int IpcIo::onOwnerChanged(sd_bus_message* m, void* userdata, sd_bus_error*) {
  IpcIo& io = instance();
  auto* connection = static_cast<ConnectionIo*>(userdata);
  const char* name = nullptr;
  const char* oldOwner = nullptr;
  const char* newOwner = nullptr;
  if (sd_bus_message_read(m, "sss", &name, &oldOwner, &newOwner) < 0 ||
      connection->core->serviceName() != name) {
    return 0;
  }
  connection->owner = newOwner;
  if (oldOwner[0] != '\0') {
    // Whatever the old owner had not answered, it never will; the new owner
    // (if any) has not seen those requests.
    std::shared_ptr<ConnectionCore> core = connection->core;
    io.failCalls(*connection, IpcErrorKind::ConnectionInterrupted, "the service's owner went away");
    core->deliver({IpcEventKind::ConnectionInterrupted, "the service's owner went away", {}});
  }
  return 0;
}

int IpcIo::onOwnerWatchInstalled(sd_bus_message* m, void* userdata, sd_bus_error*) {
  auto* connection = static_cast<ConnectionIo*>(userdata);
  if (sd_bus_message_is_method_error(m, nullptr)) {
    const sd_bus_error* error = sd_bus_message_get_error(m);
    std::string text = "cannot watch the service's owner";
    if (error != nullptr && error->message != nullptr) text += std::string(": ") + error->message;
    connection->core->deliver({IpcEventKind::OtherError, text, {}});
  }
  return 1;
}

int IpcIo::onOwnerQueried(sd_bus_message* m, void* userdata, sd_bus_error*) {
  auto* connection = static_cast<ConnectionIo*>(userdata);
  const char* owner = nullptr;
  if (!sd_bus_message_is_method_error(m, nullptr) && sd_bus_message_read(m, "s", &owner) >= 0 && owner != nullptr) {
    connection->owner = owner;
  }
  connection->ownerQuery = sd_bus_slot_unref(connection->ownerQuery);
  return 1;
}

int IpcIo::onFilter(sd_bus_message* m, void* userdata, sd_bus_error*) {
  IpcIo& io = instance();
  auto* busIo = static_cast<BusIo*>(userdata);
  std::uint8_t type = 0;
  if (sd_bus_message_get_type(m, &type) < 0 ||
      (type != SD_BUS_MESSAGE_SIGNAL && type != SD_BUS_MESSAGE_METHOD_CALL)) {
    return 0;
  }
  const char* sender = sd_bus_message_get_sender(m);
  const char* destination = sd_bus_message_get_destination(m);
  const char* self = nullptr;
  // Broadcasts, the bus's own messages and the library's local ones are not
  // addressed to a connection.
  if (sender == nullptr || sender[0] != ':' || destination == nullptr ||
      sd_bus_get_unique_name(sd_bus_message_get_bus(m), &self) < 0 || std::strcmp(destination, self) != 0) {
    return 0;
  }
  std::string description = std::string(orEmpty(sd_bus_message_get_interface(m))) + "." +
                            orEmpty(sd_bus_message_get_member(m));
  PropertyList first = readDbusValue(m).value_or(PropertyList());
  (void)sd_bus_message_rewind(m, 1);
  for (std::uint64_t id : busIo->connections) {
    auto connection = io.connections_.find(id);
    if (connection != io.connections_.end() && connection->second.owner == sender) {
      connection->second.core->deliver({IpcEventKind::UnsolicitedMessage, description, first});
    }
  }
  return 0;
}

// ---------------------------------------------------------------------------

struct SyncWaiter {
  std::mutex mutex;
  std::condition_variable done;
  bool finished = false;  // guarded by mutex
  IpcReply reply;         // guarded by mutex
};

class DbusIpcConnection final : public IpcConnection {
 public:
  explicit DbusIpcConnection(std::shared_ptr<ConnectionCore> core) : core_(std::move(core)) {}
  ~DbusIpcConnection() override {
    // Nobody is left to hear events, and the handler may well point into the
    // owner being destroyed.
    core_->setHandler(nullptr);
    cancel();
  }

  const std::string& serviceName() const noexcept override { return core_->serviceName(); }

  void setEventHandler(IpcEventHandler handler) override { core_->setHandler(std::move(handler)); }

  void resume() override { core_->resume(); }

  void send(const IpcObject& request) override {
    if (core_->dead()) return;
    IoThread::instance().post([id = core_->id(), request, timeout = core_->timeout()] {
      IpcIo::instance().send(id, request, timeout, nullptr);
    });
  }

  void sendWithReply(const IpcObject& request, std::shared_ptr<DispatchQueue> replyQueue,
                     IpcReplyHandler handler) override {
    Completion complete = [replyQueue = std::move(replyQueue), handler = std::move(handler)](IpcReply reply) {
      auto run = [handler, reply = std::move(reply)]() mutable { handler(std::move(reply)); };
      if (replyQueue) {
        replyQueue->async(std::move(run));
      } else {
        DispatchQueue::main().async(std::move(run));
      }
    };
    if (core_->dead()) {
      complete(IpcReply::failure(IpcErrorKind::ConnectionInvalid, "the connection is invalid"));
      return;
    }
    IoThread::instance().post([id = core_->id(), request, complete = std::move(complete)]() mutable {
      IpcIo::instance().send(id, request, std::nullopt, std::move(complete));
    });
  }

  IpcReply sendAndWait(const IpcObject& request) override {
    if (core_->dead()) {
      return IpcReply::failure(IpcErrorKind::ConnectionInvalid, "the connection is invalid");
    }
    auto waiter = std::make_shared<SyncWaiter>();
    Completion complete = [waiter](IpcReply reply) {
      std::lock_guard lock(waiter->mutex);
      waiter->reply = std::move(reply);
      waiter->finished = true;
      waiter->done.notify_one();
    };
    IoThread::instance().post(
        [id = core_->id(), request, timeout = core_->timeout(), complete = std::move(complete)]() mutable {
          IpcIo::instance().send(id, request, timeout, std::move(complete));
        });
    std::unique_lock lock(waiter->mutex);
    waiter->done.wait(lock, [&] { return waiter->finished; });
    return std::move(waiter->reply);
  }

  void cancel() override {
    if (cancelled_.exchange(true)) return;
    core_->markDead();
    IoThread::instance().post([id = core_->id()] { IpcIo::instance().cancel(id); });
  }

  void setCallTimeout(std::chrono::milliseconds timeout) override { core_->setTimeout(timeout); }

 private:
  const std::shared_ptr<ConnectionCore> core_;  // immutable pointer; see ConnectionCore for its fields
  std::atomic<bool> cancelled_{false};          // atomic
};

std::atomic<std::uint64_t> nextConnectionId{1};

// Never destroyed: services handed out stay valid until exit.
InstalledSlot<IpcService>& serviceSlot() {
  static auto* slot = new InstalledSlot<IpcService>([] { return std::make_shared<DbusIpcService>(); });
  return *slot;
}

}  // namespace

DbusIpcService::DbusIpcService(DbusIpcOptions options) : options_(std::move(options)) {}

std::shared_ptr<IpcConnection> DbusIpcService::connect(std::string serviceName,
                                                       std::shared_ptr<DispatchQueue> eventQueue) {
  auto core = std::make_shared<ConnectionCore>(nextConnectionId.fetch_add(1, std::memory_order_relaxed),
                                               std::move(serviceName), options_, std::move(eventQueue));
  IoThread::instance().post([core] { IpcIo::instance().open(core); });
  return std::make_shared<DbusIpcConnection>(std::move(core));
}

void DbusIpcService::shutdownIoThread() { IoThread::instance().shutdown(); }

IpcService& currentIpcService() { return serviceSlot().get(); }

std::shared_ptr<IpcService> setIpcService(std::shared_ptr<IpcService> service) {
  return serviceSlot().exchange(std::move(service));
}

}  // namespace velmora
