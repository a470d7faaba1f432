// Ipc: request/reply messaging between the library and its per-user daemon,
// behind a small interface with one Linux implementation on the session bus.
//
// Design note
// - Wire. Every request is one method call (default: member "Request",
//   object path "/com/vantrel/velmorad", interface "com.vantrel.velmorad") to
//   the service's bus name, with one a{sv} argument: the request dictionary.
//   The reply carries one a{sv} argument: the reply dictionary. A send without
//   reply is the same call flagged no-reply-expected. Auto-start is left on,
//   so a request to a name nobody owns starts the daemon where its activation
//   file is installed. Value mapping: see DbusValue.h.
// - Threads. All bus traffic of the process runs on one shared I/O thread,
//   which owns one bus connection per bus address and multiplexes every
//   IpcConnection (and every system-notification observer) over it. Public
//   methods only queue work for that thread; completions are handed to the
//   caller's queues, so no user code ever runs on the I/O thread and nothing
//   in it blocks on user code.
// - Completion. The I/O thread keeps its own table of pending calls and
//   completes each one exactly once: with its reply, or with an error when it
//   times out (synchronous calls only: an asynchronous one waits as long as
//   its reply takes), when the connection is cancelled, when the service's
//   owner goes away, when the bus connection closes or when the I/O thread
//   is shut down.
// - Processes. The I/O thread and its bus connections belong to the process
//   that started them: a forked child must exec before it uses IPC.
// - Locks. Each connection has one mutex for its event handler, its resumed
//   flag and its backlog of events held until resume(); sendAndWait() waits
//   on a per-call mutex and condition variable. The I/O thread's command
//   queue has its own mutex. None is held while user code runs, and no path
//   holds two at once.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "velmora/platform/PropertyList.h"

namespace velmora {

class DispatchQueue;

// ---------------------------------------------------------------------------
// The IPC dictionary form.

// A request or reply dictionary that the bus can carry: a dictionary valid
// for the binary format (PropertyList::isValidForBinaryFormat) whose own
// keys hold no NUL. What the bus's natural form cannot hold below them (NUL
// in strings or keys, nesting beyond kMaxIpcContainerDepth) travels encoded
// and arrives unchanged (DbusValue.h). Immutable and cheap to copy (it
// shares the PropertyList payload); safe to read from any thread. Only
// ipcObjectFromPropertyList() makes one, so holding one proves the check
// passed.
class IpcObject {
 public:
  // The checked dictionary. Borrowed; valid as long as this object.
  const PropertyList& dictionary() const noexcept { return value_; }

 private:
  explicit IpcObject(PropertyList value) : value_(std::move(value)) {}
  friend std::optional<IpcObject> ipcObjectFromPropertyList(const PropertyList& value);

  PropertyList value_;  // immutable
};

// The bus refuses (and drops the sender's whole connection for) a message
// nested deeper than 64 containers. Every dictionary level costs three (the
// array, its entry, the variant holding each value), an array two and a date
// one; the writer counts them exactly and encodes what would go deeper.
inline constexpr int kMaxIpcContainerDepth = 64;

// Checks value and wraps it. Returns nullopt when value is not a dictionary,
// is not valid for the binary format (invalid UTF-8, a none inside, nesting
// beyond PropertyList::kMaxDepth), or has a top-level key with NUL. Pure;
// any thread; O(size of value). The caller owns the result.
std::optional<IpcObject> ipcObjectFromPropertyList(const PropertyList& value);

// The dictionary inside object (a copy sharing its payload). Never fails.
// Pure; any thread.
PropertyList propertyListFromIpcObject(const IpcObject& object);

// ---------------------------------------------------------------------------
// Replies and events.

enum class IpcErrorKind : std::uint8_t {
  ConnectionInvalid,      // the connection is cancelled or its bus connection closed
  ConnectionInterrupted,  // the service's owner went away before replying
  Timeout,                // no reply within the call timeout (sendAndWait() only)
  RemoteError,            // the service answered with an error (name, message)
  MalformedReply,         // the reply's first argument is not a dictionary
  SendFailed,             // the request could not be sent (e.g. too large for the bus)
};

// The lowercase name of a kind ("connection-invalid", ...), a static string.
// Pure; any thread.
std::string_view ipcErrorKindName(IpcErrorKind kind) noexcept;

struct IpcError {
  IpcErrorKind kind = IpcErrorKind::ConnectionInvalid;
  std::string name;     // RemoteError: the bus error name; otherwise empty
  std::string message;  // human-readable detail; may be empty
};

// The outcome of one request: the reply dictionary, or an error. A value
// type; the receiver owns it.
struct IpcReply {
  PropertyList dictionary;       // the reply dictionary when ok(); none otherwise
  std::optional<IpcError> error;  // set exactly when the request failed

  bool ok() const noexcept { return !error.has_value(); }

  static IpcReply success(PropertyList dictionary);
  static IpcReply failure(IpcErrorKind kind, std::string message, std::string name = {});
};

enum class IpcEventKind : std::uint8_t {
  // The connection is dead: its bus connection closed, it was cancelled, or
  // it could not be set up. Delivered once; later sends fail at once.
  ConnectionInvalid,
  // The service name lost its owner (the daemon exited or was replaced).
  // Calls outstanding at that moment have completed with
  // ConnectionInterrupted before this event; the connection stays usable and
  // the next request starts or reaches the new owner.
  ConnectionInterrupted,
  // Something else failed (e.g. the owner watch could not be installed).
  OtherError,
  // The service's current owner sent a message to this process that is not a
  // reply: a signal or method call addressed to our bus connection.
  UnsolicitedMessage,
};

// The lowercase name of a kind, a static string. Pure; any thread.
std::string_view ipcEventKindName(IpcEventKind kind) noexcept;

struct IpcEvent {
  IpcEventKind kind = IpcEventKind::OtherError;
  std::string description;  // why, or for UnsolicitedMessage "interface.member"
  PropertyList message;     // UnsolicitedMessage: its first argument read tolerantly; else none
};

using IpcEventHandler = std::function<void(const IpcEvent&)>;
using IpcReplyHandler = std::function<void(IpcReply)>;

// How long a synchronous request waits for its reply by default: 25 s, the
// customary method-call timeout of the bus. It covers activating the daemon
// and a slow disk flush behind the request, and still turns a wedged daemon
// into an error the application sees within half a minute.
inline constexpr std::chrono::milliseconds kDefaultIpcCallTimeout{25'000};

// ---------------------------------------------------------------------------
// Connections.

// A client connection to one named service. Always held by std::shared_ptr;
// every method is safe from any thread and none runs user code inline.
// Dropping the last reference cancels the connection: outstanding requests
// complete as for cancel(), but the event handler is released and hears
// nothing more (an event it is already running finishes; to be sure none
// runs, drop the connection on the event queue).
class IpcConnection {
 public:
  virtual ~IpcConnection() = default;

  // The bus name this connection sends to. Immutable.
  virtual const std::string& serviceName() const noexcept = 0;

  // Sets the function that receives connection events on the event queue
  // given at creation. Set it before resume(); events found with no handler
  // are dropped. Never blocks; the connection owns handler.
  virtual void setEventHandler(IpcEventHandler handler) = 0;

  // Starts delivering events: those that happened since creation, in order,
  // then later ones as they happen. Sends work before resume() too. Idempotent;
  // never blocks.
  virtual void resume() = 0;

  // Sends request flagged no-reply-expected. Nothing reports delivery; on a
  // dead connection it is dropped. Never blocks (the I/O thread sends it, in
  // order with this connection's other requests).
  virtual void send(const IpcObject& request) = 0;

  // Sends request; handler runs exactly once on replyQueue (the main queue
  // when null) with the reply or an error. No timeout applies: the request
  // waits for its reply, or fails when the connection dies or is cancelled
  // or the service's owner goes away. On a dead connection the error is
  // queued at once. Never blocks; the connection owns handler until it has
  // run.
  virtual void sendWithReply(const IpcObject& request, std::shared_ptr<DispatchQueue> replyQueue,
                             IpcReplyHandler handler) = 0;

  // Sends request and blocks the calling thread until the reply or an error
  // (at most about the call timeout). Must not be called from a queue whose
  // work the reply depends on. On a dead connection returns an error at once.
  virtual IpcReply sendAndWait(const IpcObject& request) = 0;

  // Kills the connection: every outstanding request completes once with
  // ConnectionInvalid, the event handler gets ConnectionInvalid (after
  // resume()), and later sends fail at once. Idempotent; never blocks.
  virtual void cancel() = 0;

  // Sets the call timeout of sendAndWait() requests sent from now on; a
  // non-positive value restores kDefaultIpcCallTimeout. Never blocks.
  virtual void setCallTimeout(std::chrono::milliseconds timeout) = 0;
};

// Makes connections. Implementations are thread-safe.
class IpcService {
 public:
  virtual ~IpcService() = default;

  // A new, not yet resumed connection to serviceName whose events go to
  // eventQueue. Never returns null and never blocks: a connection that cannot
  // be set up (no bus, bad name) reports ConnectionInvalid once resumed and
  // fails every send. The caller owns the connection.
  virtual std::shared_ptr<IpcConnection> connect(std::string serviceName,
                                                 std::shared_ptr<DispatchQueue> eventQueue) = 0;
};

// Where and how a DbusIpcService's connections talk. The defaults are the
// daemon's; the daemon's own tests reuse the transport with other values.
struct DbusIpcOptions {
  std::string objectPath = "/com/vantrel/velmorad";
  std::string interfaceName = "com.vantrel.velmorad";
  std::string member = "Request";
  // Empty: the user's session bus ($DBUS_SESSION_BUS_ADDRESS, else the
  // per-user socket), resolved when the bus is first opened.
  std::string busAddress;
  std::chrono::milliseconds callTimeout = kDefaultIpcCallTimeout;  // of sendAndWait() only
};

// The session-bus implementation. Cheap to make; all of them share the
// process's I/O thread and bus connections.
class DbusIpcService final : public IpcService {
 public:
  explicit DbusIpcService(DbusIpcOptions options = {});

  std::shared_ptr<IpcConnection> connect(std::string serviceName,
                                         std::shared_ptr<DispatchQueue> eventQueue) override;

  // The options this service was made with. Immutable.
  const DbusIpcOptions& options() const noexcept { return options_; }

  // Stops the shared I/O thread: every outstanding request of every
  // connection completes with ConnectionInvalid, every connection reports
  // ConnectionInvalid, the bus connections close, and observers of system
  // notifications lose their subscriptions until the thread runs again. The
  // next use starts a fresh thread and bus. Blocks until the thread has
  // exited; must not be called from a queue that a pending completion waits
  // on. For orderly shutdown and tests.
  static void shutdownIoThread();

 private:
  const DbusIpcOptions options_;  // immutable
};

// The process-wide service (a default DbusIpcService until one is
// installed). Any thread; the reference stays valid for the life of the
// process.
IpcService& currentIpcService();

// Installs the process-wide service and returns the previous one (never
// null); nullptr reinstates the default. Every service ever installed is kept
// alive until exit, so references handed out earlier stay valid. Any thread.
std::shared_ptr<IpcService> setIpcService(std::shared_ptr<IpcService> service);

}  // namespace velmora
