#include "zkv/ZKVClient.h"

#include <cstdio>
#include <cstdlib>
#include <utility>

#include "velmora/platform/Dispatch.h"
#include "velmora/platform/Log.h"
#include "zkv/ZKVLog.h"

using velmora::DispatchQueue;
using velmora::IpcConnection;
using velmora::IpcErrorKind;
using velmora::IpcEvent;
using velmora::IpcEventKind;
using velmora::IpcReply;
using velmora::LogLevel;
using velmora::PlistDictionary;
using velmora::PropertyList;

namespace {

constexpr std::string_view kMessageKey = kZKVRequestMessageKey;
constexpr std::string_view kUserInfoKey = kZKVRequestUserInfoKey;
constexpr std::string_view kBundleIdentifierKey = kZKVRequestBundleIdentifierKey;
constexpr std::string_view kStoreIdentifierKey = kZKVRequestStoreIdentifierKey;
constexpr std::string_view kAdditionalStoreKey = kZKVRequestAdditionalStoreKey;
constexpr std::string_view kErrorKey = kZKVReplyErrorKey;
constexpr std::string_view kErrorDomainKey = "domain";
constexpr std::string_view kErrorCodeKey = "code";

// EINVAL: the code of every transport failure handed to a reply handler,
// whatever the failure was.
constexpr std::int64_t kTransportErrorCode = 22;

const velmora::LogHandle& defaultLog() { return *ZKVGetDefaultLog(); }

bool debugEnabled() { return defaultLog().isEnabled(LogLevel::Debug); }

// How a value reads in a log line: strings bare, anything else as its
// description (so none shows as "(none)").
std::string logText(const PropertyList& value) {
  if (const std::string* s = value.getString()) return *s;
  return value.description();
}

// The envelope's message name, for log lines.
std::string messageName(const PropertyList& message) {
  const PropertyList* name = message.find(kMessageKey);
  return name != nullptr ? logText(*name) : std::string("(none)");
}

// The transport's own text for a failure: its kind, then the bus error name
// and the detail when there are any.
std::string describeIpcError(const velmora::IpcError& error) {
  std::string text(velmora::ipcErrorKindName(error.kind));
  if (!error.name.empty()) text += " " + error.name;
  if (!error.message.empty()) text += ": " + error.message;
  return text;
}

ZKVError transportError(std::string description) {
  return ZKVError{std::string(kZKVPOSIXErrorDomain),
                  kTransportErrorCode,
                  {{std::string(kZKVErrorDescriptionKey), PropertyList::string(std::move(description))}}};
}

// The daemon's "error" dictionary, read tolerantly: a field of the wrong type
// reads as empty or zero.
ZKVError errorFromReply(const PropertyList& error) {
  ZKVError result;
  if (const PropertyList* domain = error.find(kErrorDomainKey)) {
    if (const std::string* s = domain->getString()) result.domain = *s;
  }
  if (const PropertyList* code = error.find(kErrorCodeKey)) {
    std::int64_t value = 0;
    (void)code->getInt64(value);  // an inexact conversion still gives its truncated value
    result.code = value;
  }
  if (const PropertyList* info = error.find(kUserInfoKey)) {
    if (const PlistDictionary* d = info->getDictionary()) result.userInfo = *d;
  }
  return result;
}

void logDebug(const char* format, const std::string& argument) {
  defaultLog().logf(LogLevel::Debug, format, argument.c_str());
}

}  // namespace

std::string ZKVError::description() const {
  std::string text = domain + " error " + std::to_string(code);
  if (!userInfo.empty()) text += " " + PropertyList::dictionary(userInfo).description();
  return text;
}

std::shared_ptr<ZKVClient> ZKVClient::create(std::shared_ptr<DispatchQueue> queue,
                                             std::optional<std::string> bundleIdentifier,
                                             std::optional<std::string> storeIdentifier, bool additionalSource) {
  return std::make_shared<ZKVClient>(PrivateTag{}, std::move(queue), std::move(bundleIdentifier),
                                     std::move(storeIdentifier), additionalSource);
}

ZKVClient::ZKVClient(PrivateTag, std::shared_ptr<DispatchQueue> queue, std::optional<std::string> bundleIdentifier,
                     std::optional<std::string> storeIdentifier, bool additionalSource)
    : queue_(queue ? std::move(queue) : DispatchQueue::createSerial(std::string(kQueueLabel))),
      bundleIdentifier_(std::move(bundleIdentifier)),
      storeIdentifier_(std::move(storeIdentifier)),
      additionalSource_(additionalSource) {}

// ---------------------------------------------------------------------------
// Public sending.

void ZKVClient::sendMessageWithName(const char* name) {
  sendMessageNoReply(newMessageWithNameUserInfo(name, PropertyList()));
}

PropertyList ZKVClient::sendMessageWithNameUserInfo(const char* name, const PropertyList& userInfo) {
  PropertyList reply = sendMessageWithReplySync(newMessageWithNameUserInfo(name, userInfo));
  const PropertyList* result = reply.find(kUserInfoKey);
  return result != nullptr ? *result : PropertyList();
}

void ZKVClient::sendMessageWithNameReplyHandler(const char* name, ZKVReplyHandler replyHandler) {
  sendMessageReplyHandler(newMessageWithNameUserInfo(name, PropertyList()), std::move(replyHandler));
}

void ZKVClient::sendMessageWithNameUserInfoReplyHandler(const char* name, const PropertyList& userInfo,
                                                        ZKVReplyHandler replyHandler) {
  sendMessageReplyHandler(newMessageWithNameUserInfo(name, userInfo), std::move(replyHandler));
}

void ZKVClient::shutdown() {
  queue_->async([self = shared_from_this()] { self->resetConnection(); });
}

// ---------------------------------------------------------------------------
// The connection, on queue_.

void ZKVClient::resetConnection() {
  queue_->assertCurrent();
  if (!connection_) return;
  connection_->cancel();
  connection_.reset();
}

void ZKVClient::createConnectionIfNecessary() {
  queue_->assertCurrent();
  if (connection_) return;
  std::shared_ptr<IpcConnection> connection =
      velmora::currentIpcService().connect(std::string(kServiceName), queue_);
  // The handler keeps the client and this very connection alive until the
  // connection's invalid event, so it can tell whether connection_ has moved on.
  connection->setEventHandler([self = shared_from_this(), connection](const IpcEvent& event) {
    std::shared_ptr<ZKVClient> client = self;  // the handler may be dropped while it runs
    client->handleConnectionEvent(connection, event);
  });
  connection->resume();
  connection_ = std::move(connection);
}

void ZKVClient::handleConnectionEvent(std::shared_ptr<IpcConnection> connection, const IpcEvent& event) {
  queue_->assertCurrent();
  switch (event.kind) {
    case IpcEventKind::ConnectionInvalid:
      defaultLog().log(LogLevel::Debug, "connection to ZKV service went invalid");
      if (connection_ == connection) connection_.reset();
      // The connection is dead for good: let go of the handler, and with it
      // the references it holds to this client and the connection.
      connection->setEventHandler(nullptr);
      break;
    case IpcEventKind::ConnectionInterrupted:
      defaultLog().log(LogLevel::Debug, "connection to ZKV service interrupted");
      break;
    case IpcEventKind::OtherError:
      defaultLog().log(LogLevel::Default, "unexpected error connecting to ZKV service");
      break;
    case IpcEventKind::UnsolicitedMessage:
      defaultLog().log(LogLevel::Default, "unexpected event connecting to ZKV service");
      break;
  }
}

std::shared_ptr<IpcConnection> ZKVClient::currentConnection() {
  std::shared_ptr<IpcConnection> connection;
  queue_->sync([&] {
    createConnectionIfNecessary();
    connection = connection_;
  });
  return connection;
}

// ---------------------------------------------------------------------------
// The envelope and the three sending paths, on the caller's thread.

PropertyList ZKVClient::newMessageWithNameUserInfo(const char* name, const PropertyList& userInfo) const {
  if (name == nullptr) {
    std::fputs(
        "Assertion failed: (name), function -[ZKVClient _newMessageWithName:userInfo:], file framework/ZKVClient, "
        "line 109.\n",
        stderr);
    std::abort();
  }
  PlistDictionary message;
  message.emplace(kMessageKey, PropertyList::string(name));
  message.emplace(kUserInfoKey, userInfo.isNone() ? PropertyList::dictionary({}) : userInfo);
  if (bundleIdentifier_) message.emplace(kBundleIdentifierKey, PropertyList::string(*bundleIdentifier_));
  if (storeIdentifier_) message.emplace(kStoreIdentifierKey, PropertyList::string(*storeIdentifier_));
  if (additionalSource_) message.emplace(kAdditionalStoreKey, PropertyList::boolean(true));
  return PropertyList::dictionary(std::move(message));
}

ZKVClient::Outcome ZKVClient::classify(const IpcReply& reply) noexcept {
  if (reply.ok()) return Outcome::Reply;
  switch (reply.error->kind) {
    case IpcErrorKind::Timeout:
    case IpcErrorKind::MalformedReply:
      return Outcome::NoReply;
    case IpcErrorKind::ConnectionInvalid:
    case IpcErrorKind::ConnectionInterrupted:
    case IpcErrorKind::RemoteError:
    case IpcErrorKind::SendFailed:
      return Outcome::ErrorEvent;
  }
  return Outcome::ErrorEvent;
}

void ZKVClient::sendMessageNoReply(const PropertyList& message) {
  std::shared_ptr<IpcConnection> connection = currentConnection();
  // The envelope is built from property-list values; one the transport cannot
  // carry is dropped like any other undeliverable fire-and-forget request.
  if (std::optional<velmora::IpcObject> request = velmora::ipcObjectFromPropertyList(message)) {
    connection->send(*request);
  }
}

PropertyList ZKVClient::sendMessageWithReplySync(const PropertyList& message) {
  std::shared_ptr<IpcConnection> connection = currentConnection();
  PropertyList result;
  std::optional<velmora::IpcObject> request = velmora::ipcObjectFromPropertyList(message);
  if (!request) {
    if (debugEnabled()) logDebug("error unable to construct message from %s", message.description());
  } else {
    for (bool retried = false;; retried = true) {
      IpcReply reply = connection->sendAndWait(*request);
      const Outcome outcome = classify(reply);
      if (outcome == Outcome::Reply) {
        result = std::move(reply.dictionary);
        break;
      }
      if (outcome == Outcome::NoReply) {
        if (debugEnabled()) logDebug("no reply sending message %s to ZKV server", messageName(message));
        break;
      }
      if (retried) {
        if (debugEnabled()) logDebug("error sending message %s to ZKV server", messageName(message));
        break;
      }
      queue_->sync([&] {
        // Another sender's retry may already have replaced the failed
        // connection; cancelling that newer one would fail its requests too.
        if (connection_ == connection) resetConnection();
        createConnectionIfNecessary();
        connection = connection_;
      });
    }
  }
  if (debugEnabled()) {
    defaultLog().logf(LogLevel::Debug, "got a reply from the ZKV daemon,\nmessage:%s,\nreply:%s",
                      message.description().c_str(), result.description().c_str());
  }
  return result;
}

void ZKVClient::sendMessageReplyHandler(const PropertyList& message, ZKVReplyHandler replyHandler) {
  std::shared_ptr<IpcConnection> connection = currentConnection();
  std::optional<velmora::IpcObject> request = velmora::ipcObjectFromPropertyList(message);
  if (!request) {
    // The transport would refuse it the same way; the handler still hears
    // about it, on the main queue like every other outcome.
    IpcReply refused = IpcReply::failure(IpcErrorKind::SendFailed, "the request cannot be carried over IPC");
    DispatchQueue::main().async([message, replyHandler = std::move(replyHandler), refused = std::move(refused)] {
      deliverReply(message, replyHandler, refused);
    });
    return;
  }
  // A null reply queue means the main queue.
  connection->sendWithReply(*request, nullptr,
                            [message, replyHandler = std::move(replyHandler)](IpcReply reply) {
                              deliverReply(message, replyHandler, reply);
                            });
}

void ZKVClient::deliverReply(const PropertyList& message, const ZKVReplyHandler& replyHandler,
                             const IpcReply& reply) {
  // Whatever the outcome, the handler runs: a caller waiting for it (a
  // completion handler, a registration) must never be left hanging.
  switch (classify(reply)) {
    case Outcome::NoReply:
      if (debugEnabled()) logDebug("no reply sending message %s to ZKV server", messageName(message));
      replyHandler(transportError(describeIpcError(*reply.error)));
      return;
    case Outcome::ErrorEvent:
      if (debugEnabled()) logDebug("error sending message %s to ZKV server", messageName(message));
      replyHandler(transportError(describeIpcError(*reply.error)));
      return;
    case Outcome::Reply:
      break;
  }
  if (const PropertyList* userInfo = reply.dictionary.find(kUserInfoKey)) {
    replyHandler(*userInfo);
  } else if (const PropertyList* error = reply.dictionary.find(kErrorKey); error != nullptr && error->isDictionary()) {
    replyHandler(errorFromReply(*error));
  } else {
    replyHandler(std::monostate{});
  }
}

// ---------------------------------------------------------------------------

std::optional<velmora::IpcObject> ZKVCreateIPCObjectFromPropertyList(const PropertyList& value) {
  return velmora::ipcObjectFromPropertyList(value);
}

PropertyList ZKVCreatePropertyListFromIPCObject(const velmora::IpcObject& object) {
  return velmora::propertyListFromIpcObject(object);
}
