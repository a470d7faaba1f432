// ZKVClient: the library's one road to the daemon. It owns one IPC connection
// to the daemon's named service, wraps every request in the common envelope
// and offers three ways of sending: fire-and-forget, a synchronous exchange
// and an asynchronous exchange whose reply runs on the main queue.
//
// Design note
// - Queues. queue_ (serial, the client's own unless one is given) guards
//   connection_: creating, resetting and dropping it, and the connection's
//   events, all run there. Sends convert and wait on the caller's thread,
//   so a slow daemon never holds queue_. Asynchronous replies run on the
//   main queue (velmora::DispatchQueue::main()), never on queue_.
// - Waiting order. A sender hops synchronously onto queue_ only to take its
//   own reference to the connection, then leaves it before sending. Nothing
//   on queue_ waits for anything, so queue_ is always a leaf: any thread may
//   wait for it except code already running on it (the dispatch layer aborts
//   on that sync).
// - Lifetime. The connection's event handler holds the client and that
//   connection strongly, so a client with a live connection lives until the
//   connection is cancelled (shutdown()) or goes invalid; the handler lets go
//   of both when it sees the invalid event.
// - Transport outcomes. An IpcReply is read as one of three cases:
//   a reply (a dictionary arrived); no reply object at all (Timeout: the
//   daemon never answered a synchronous request within the call timeout;
//   MalformedReply: it answered with something that is not a dictionary);
//   or an error event
//   (ConnectionInvalid, ConnectionInterrupted, SendFailed, RemoteError: the
//   road to the daemon failed, e.g. the daemon exited or its name has no
//   owner and cannot be started, which a fresh connection may mend). Only an
//   error event earns the synchronous path its one reconnect-and-retry: a
//   timed-out request would double the caller's wait and a delivered one
//   would run twice. The retry replaces the connection only if it is still
//   the one that failed, so concurrent retries do not cancel each other's.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <variant>

#include "velmora/platform/Ipc.h"
#include "velmora/platform/PropertyList.h"
#include "zkv/ZKVBase.h"

namespace velmora {
class DispatchQueue;
}

// The daemon's messages. Senders pass these as the message name; the daemon
// answers each as its sender expects (payloads and replies are described
// where each is sent).
inline constexpr const char* kZKVMessageRegister = "register";
inline constexpr const char* kZKVMessageUnregister = "unregister";
inline constexpr const char* kZKVMessageGetConfiguration = "getConfiguration";
inline constexpr const char* kZKVMessageSetDefaultsConfig = "setDefaultsConfig";
inline constexpr const char* kZKVMessageSynchronizeRemote = "synchronizeRemote";
inline constexpr const char* kZKVMessageTrackSynchronizeRemote = "trackSynchronizeRemote";
inline constexpr const char* kZKVMessageSynchronize = "synchronize";
inline constexpr const char* kZKVMessageDiscardJournalEntries = "discardJournalEntries";
inline constexpr const char* kZKVMessagePing = "ping";
inline constexpr const char* kZKVMessagePrintDebugDescription = "printDebugDescription";
inline constexpr const char* kZKVMessageResetApps = "resetapps";
inline constexpr const char* kZKVMessageMigrate = "migrate";
// The user's sync account (see ZKVAccount.h): log in with {"server": URL,
// "token": TOKEN}, log out, and the sync status of the account and stores.
inline constexpr const char* kZKVMessageAccountLogin = "accountLogin";
inline constexpr const char* kZKVMessageAccountLogout = "accountLogout";
inline constexpr const char* kZKVMessageAccountStatus = "accountStatus";

// Keys of the request envelope and of the reply.
inline constexpr std::string_view kZKVRequestMessageKey = "message";
inline constexpr std::string_view kZKVRequestUserInfoKey = "userinfo";
inline constexpr std::string_view kZKVRequestBundleIdentifierKey = "bundleIdentifier";
inline constexpr std::string_view kZKVRequestStoreIdentifierKey = "storeIdentifier";
inline constexpr std::string_view kZKVRequestAdditionalStoreKey = "additionalStore";
inline constexpr std::string_view kZKVReplyUserInfoKey = "userinfo";
inline constexpr std::string_view kZKVReplyErrorKey = "error";

// The domain of ZKVErrors that carry a POSIX errno value as their code; the
// client uses it (code 22, EINVAL) for every transport failure of an
// asynchronous request.
inline constexpr std::string_view kZKVPOSIXErrorDomain = "com.vantrel.posix";

// The ZKVError userInfo key whose string value is a human-readable text of
// the failure.
inline constexpr std::string_view kZKVErrorDescriptionKey = "description";

// An error handed to a reply handler: from the daemon's "error" reply
// dictionary, or from the transport (kZKVPOSIXErrorDomain, code 22). A value
// type; the receiver owns it.
struct ZKV_EXPORT ZKVError {
  std::string domain;
  std::int64_t code = 0;
  velmora::PlistDictionary userInfo;  // may be empty

  // "<domain> error <code>", followed by the userInfo dictionary's text when
  // it has entries. Pure; any thread.
  std::string description() const;

  bool operator==(const ZKVError&) const = default;
};

// A reply handler's one argument: nothing, the reply's "userinfo" value, or
// a ZKVError.
using ZKVReply = std::variant<std::monostate, velmora::PropertyList, ZKVError>;

// Called exactly once, on the main queue, with the outcome of an
// asynchronous request.
using ZKVReplyHandler = std::function<void(const ZKVReply&)>;

class ZKV_EXPORT ZKVClient : public std::enable_shared_from_this<ZKVClient> {
  struct PrivateTag {
    explicit PrivateTag() = default;
  };

 public:
  // The daemon's IPC service name.
  static constexpr std::string_view kServiceName = "com.vantrel.velmorad-sim";
  // The label of the serial queue made when create() is given none.
  static constexpr std::string_view kQueueLabel = "com.vantrel.zkvclient";

  // A new client with no connection yet. queue becomes queue_ (its events and
  // connection bookkeeping run there); null makes a fresh serial queue labelled
  // kQueueLabel. The identifiers (copied) and additionalSource mark every
  // request's envelope. Never fails or blocks; the caller owns the client.
  static std::shared_ptr<ZKVClient> create(std::shared_ptr<velmora::DispatchQueue> queue,
                                           std::optional<std::string> bundleIdentifier,
                                           std::optional<std::string> storeIdentifier,
                                           bool additionalSource = false);

  // Use create(); the tag keeps construction inside this class.
  ZKVClient(PrivateTag, std::shared_ptr<velmora::DispatchQueue> queue, std::optional<std::string> bundleIdentifier,
            std::optional<std::string> storeIdentifier, bool additionalSource);
  ZKVClient(const ZKVClient&) = delete;
  ZKVClient& operator=(const ZKVClient&) = delete;

  // Sends the message name with an empty payload and asks for no reply. The
  // sender learns nothing, failure included. Hops synchronously onto queue_
  // (to connect if needed), then sends from the caller's thread without
  // blocking. A null name is a fatal assertion; calling from queue_ aborts.
  void sendMessageWithName(const char* name);

  // Sends the message name with userInfo (none: an empty dictionary) and
  // blocks the caller until the daemon answers. Returns the reply's
  // "userinfo" value as the daemon sent it (any type), or none on every
  // failure: no reply, a reply without "userinfo", a second transport error
  // after one reconnect-and-retry. Never throws. Hops synchronously onto
  // queue_; waits on the caller's thread (at most about two call timeouts).
  // A null name is a fatal assertion; calling from queue_ aborts.
  velmora::PropertyList sendMessageWithNameUserInfo(const char* name, const velmora::PropertyList& userInfo);

  // sendMessageWithNameUserInfoReplyHandler with an empty payload.
  void sendMessageWithNameReplyHandler(const char* name, ZKVReplyHandler replyHandler);

  // Sends the message name with userInfo (none: an empty dictionary) and
  // returns without waiting. replyHandler (required; the client keeps it
  // until it has run) later runs exactly once on the main queue with: the
  // reply's "userinfo" value; else a ZKVError built from the reply's "error"
  // dictionary; else nothing. The request waits for its reply however long
  // the daemon takes; every transport failure (the connection lost or shut
  // down, the daemon gone, a reply that is no dictionary, a request the
  // transport cannot carry) gives a ZKVError in kZKVPOSIXErrorDomain with
  // code 22. No retry. Hops synchronously onto queue_; a null name is a
  // fatal assertion; calling from queue_ aborts.
  void sendMessageWithNameUserInfoReplyHandler(const char* name, const velmora::PropertyList& userInfo,
                                               ZKVReplyHandler replyHandler);

  // Queues a reset of the connection on queue_ and returns at once: the
  // connection is cancelled and dropped, and its outstanding requests fail
  // as transport errors. A later send makes a new connection. Never blocks;
  // safe from any thread, queue_ included.
  void shutdown();

  // The queue that guards the connection. Immutable; shared with the caller.
  const std::shared_ptr<velmora::DispatchQueue>& queue() const noexcept { return queue_; }
  // The identifiers and flag given at creation. Immutable; borrowed.
  const std::optional<std::string>& bundleIdentifier() const noexcept { return bundleIdentifier_; }
  const std::optional<std::string>& storeIdentifier() const noexcept { return storeIdentifier_; }
  bool additionalSource() const noexcept { return additionalSource_; }

 private:
  // How the client reads one transport outcome (see the design note).
  enum class Outcome : std::uint8_t { Reply, NoReply, ErrorEvent };
  static Outcome classify(const velmora::IpcReply& reply) noexcept;

  // On queue_: cancels and drops the connection; nothing when there is none.
  void resetConnection();
  // On queue_: makes, hooks up and resumes a connection when there is none.
  void createConnectionIfNecessary();
  // Any thread: the request envelope. Aborts with the assertion message when
  // name is null.
  velmora::PropertyList newMessageWithNameUserInfo(const char* name, const velmora::PropertyList& userInfo) const;
  // Caller's thread (never queue_): the three sending paths, given the envelope.
  void sendMessageNoReply(const velmora::PropertyList& message);
  velmora::PropertyList sendMessageWithReplySync(const velmora::PropertyList& message);
  void sendMessageReplyHandler(const velmora::PropertyList& message, ZKVReplyHandler replyHandler);

  // Caller's thread: hops onto queue_, connects if needed and returns the
  // connection (shared with connection_).
  std::shared_ptr<velmora::IpcConnection> currentConnection();
  // On queue_: the event handler's body for an event of connection.
  void handleConnectionEvent(std::shared_ptr<velmora::IpcConnection> connection, const velmora::IpcEvent& event);
  // On the main queue: hands one asynchronous outcome to replyHandler.
  static void deliverReply(const velmora::PropertyList& message, const ZKVReplyHandler& replyHandler,
                           const velmora::IpcReply& reply);

  const std::shared_ptr<velmora::DispatchQueue> queue_;      // immutable
  std::shared_ptr<velmora::IpcConnection> connection_;       // guarded by queue_
  const std::optional<std::string> bundleIdentifier_;        // immutable
  const std::optional<std::string> storeIdentifier_;         // immutable
  const bool additionalSource_;                              // immutable
};

// Checks value and wraps it in the IPC dictionary form; nullopt when the IPC
// service cannot carry it (not a dictionary, bad UTF-8, a none inside, too
// deep). Pure; any thread; the caller owns the result.
ZKV_EXPORT std::optional<velmora::IpcObject> ZKVCreateIPCObjectFromPropertyList(const velmora::PropertyList& value);

// The dictionary inside object, as a PropertyList. Never fails. Pure; any
// thread; the caller owns the result (a copy sharing the payload).
ZKV_EXPORT velmora::PropertyList ZKVCreatePropertyListFromIPCObject(const velmora::IpcObject& object);
