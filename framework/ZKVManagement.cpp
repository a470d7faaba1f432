// ZKVManagement: the account-wide operations of ZKVRemotePreferencesSource,
// and the sync-account calls of ZKVAccount.h. Each makes a temporary client
// without store identity, sends one message and lets the client go; nothing
// is cached between calls, so calls may overlap freely. Replies, the reset's
// completion and the account handlers run on the main queue; the waiting
// account calls wait for their handler on the caller's thread.
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <exception>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <variant>

#include "velmora/platform/Dispatch.h"
#include "velmora/platform/Log.h"
#include "zkv/ZKVAccount.h"
#include "zkv/ZKVClient.h"
#include "zkv/ZKVLog.h"
#include "zkv/ZKVRemotePreferencesSource.h"

using velmora::LogLevel;
using velmora::PropertyList;

namespace {

constexpr std::string_view kClassName = "ZKVRemotePreferencesSource";
constexpr std::string_view kParameterKey = "parameter";
constexpr std::string_view kNullText = "(null)";

const velmora::LogHandle& defaultLog() { return *ZKVGetDefaultLog(); }

std::shared_ptr<ZKVClient> makeTemporaryClient() {
  return ZKVClient::create(nullptr, std::nullopt, std::nullopt);
}

std::string describeReply(const ZKVReply& reply) {
  if (const PropertyList* value = std::get_if<PropertyList>(&reply)) return value->description();
  if (const ZKVError* error = std::get_if<ZKVError>(&reply)) return error->description();
  return std::string(kNullText);
}

// {"parameter": bundleIdentifier}. A dictionary cannot hold a none value, so
// a missing identifier is refused like any failed insertion.
PropertyList migrationPayload(const char* bundleIdentifier) {
  if (bundleIdentifier == nullptr) {
    throw std::invalid_argument("attempt to insert a none value for key \"parameter\"");
  }
  return velmora::makeDictionary({{std::string(kParameterKey), PropertyList::string(bundleIdentifier)}});
}

ZKVError posixError(int code, std::string description) {
  return ZKVError{std::string(kZKVPOSIXErrorDomain), code,
                  {{std::string(kZKVErrorDescriptionKey), PropertyList::string(std::move(description))}}};
}

// How long an account request may take before its handler hears ETIMEDOUT
// (the transport itself waits as long as the daemon takes): the synchronous
// call timeout and a few seconds for the daemon's check with the server.
constexpr auto kAccountPatience = velmora::kDefaultIpcCallTimeout + std::chrono::seconds(5);

// Sends one account message; handler runs once on the main queue with the
// answer, or with ETIMEDOUT when none came (see ZKVAccount.h).
void askDaemon(const char* message, const PropertyList& userInfo, ZKVAccountHandler handler) {
  struct Pending {
    std::mutex mutex;
    ZKVAccountHandler handler;  // guarded by mutex; taken by whoever answers first
    ZKVAccountHandler take() {
      std::lock_guard lock(mutex);
      return std::exchange(handler, nullptr);
    }
  };
  auto pending = std::make_shared<Pending>();
  pending->handler = std::move(handler);
  std::shared_ptr<ZKVClient> client = makeTemporaryClient();
  client->sendMessageWithNameUserInfoReplyHandler(message, userInfo, [pending, client](const ZKVReply& reply) {
    client->shutdown();
    ZKVAccountHandler handler = pending->take();
    if (!handler) return;
    if (const ZKVError* error = std::get_if<ZKVError>(&reply)) {
      handler(ZKVAccountResult{*error, {}});
    } else if (const PropertyList* info = std::get_if<PropertyList>(&reply)) {
      handler(ZKVAccountResult{std::nullopt, *info});
    } else {
      handler(ZKVAccountResult{});
    }
  });
  velmora::DispatchQueue::main().after(kAccountPatience, [pending, client] {
    if (ZKVAccountHandler handler = pending->take()) {
      client->shutdown();
      handler(ZKVAccountResult{posixError(ETIMEDOUT, "the daemon did not answer"), {}});
    }
  });
}

// askDaemon, waited for on the calling thread.
ZKVAccountResult askDaemonAndWait(const char* message, const PropertyList& userInfo) {
  if (velmora::DispatchQueue::main().isCurrent()) {
    return ZKVAccountResult{posixError(EDEADLK, "the answer would come through the main queue, which is waiting"), {}};
  }
  // Shared with the handler, which may run after a timed-out caller left.
  struct Answer {
    std::mutex mutex;
    std::condition_variable ready;
    std::optional<ZKVAccountResult> result;  // guarded by mutex
  };
  auto answer = std::make_shared<Answer>();
  askDaemon(message, userInfo, [answer](ZKVAccountResult result) {
    std::lock_guard lock(answer->mutex);
    answer->result = std::move(result);
    answer->ready.notify_all();
  });
  std::unique_lock lock(answer->mutex);
  // The handler always comes (kAccountPatience); the extra second covers a
  // main queue that is slow to run it.
  if (!answer->ready.wait_for(lock, kAccountPatience + std::chrono::seconds(1),
                              [&] { return answer->result.has_value(); })) {
    return ZKVAccountResult{posixError(ETIMEDOUT, "the daemon's answer did not come through the main queue"), {}};
  }
  return std::move(*answer->result);
}

PropertyList loginPayload(const std::string& url, const std::string& token) {
  return velmora::makeDictionary({{"server", PropertyList::string(url)}, {"token", PropertyList::string(token)}});
}

}  // namespace

void ZKVAccountLoginWithCompletionHandler(const std::string& url, const std::string& token, ZKVAccountHandler handler) {
  askDaemon(kZKVMessageAccountLogin, loginPayload(url, token), std::move(handler));
}

void ZKVAccountLogoutWithCompletionHandler(ZKVAccountHandler handler) {
  askDaemon(kZKVMessageAccountLogout, PropertyList(), std::move(handler));
}

void ZKVCopyAccountStatusWithCompletionHandler(ZKVAccountHandler handler) {
  askDaemon(kZKVMessageAccountStatus, PropertyList(), std::move(handler));
}

ZKVAccountResult ZKVAccountLogin(const std::string& url, const std::string& token) {
  return askDaemonAndWait(kZKVMessageAccountLogin, loginPayload(url, token));
}

ZKVAccountResult ZKVAccountLogout() { return askDaemonAndWait(kZKVMessageAccountLogout, PropertyList()); }

ZKVAccountResult ZKVCopyAccountStatus() { return askDaemonAndWait(kZKVMessageAccountStatus, PropertyList()); }

void ZKVRemotePreferencesSource::resetAllApplicationsWithCompletionHandler(std::function<void()> completion) {
  initializeClass();
  std::shared_ptr<ZKVClient> client = makeTemporaryClient();
  client->sendMessageWithNameReplyHandler(kZKVMessageResetApps,
                                          [completion = std::move(completion)](const ZKVReply&) {
                                            // Already on the main queue, yet queued again: the
                                            // completion runs on a later turn, never inside the
                                            // reply handler.
                                            if (completion) velmora::DispatchQueue::main().async(completion);
                                          });
  // Shut down at once, before any reply can have come: the cancelled
  // request still reaches the reply handler (with its reply or with the
  // transport error), so the completion is called either way.
  client->shutdown();
}

void ZKVRemotePreferencesSource::noteAccountChanges(const void* ignored) {
  (void)ignored;  // the daemon learns nothing about the change itself
  initializeClass();
  defaultLog().log(LogLevel::Default, std::string(kClassName) + " notes accounts changed");
  std::shared_ptr<ZKVClient> client = makeTemporaryClient();
  // The handler keeps the client until the reply, whatever it is.
  client->sendMessageWithNameReplyHandler(kZKVMessagePing, [client](const ZKVReply&) { client->shutdown(); });
}

void ZKVRemotePreferencesSource::migrateVelmoraForBundleIdentifier(const char* bundleIdentifier) {
  initializeClass();
  const std::string identifier = bundleIdentifier != nullptr ? std::string(bundleIdentifier) : std::string(kNullText);
  std::shared_ptr<ZKVClient> client = makeTemporaryClient();
  try {
    PropertyList payload = migrationPayload(bundleIdentifier);
    client->sendMessageWithNameUserInfoReplyHandler(
        kZKVMessageMigrate, payload, [identifier, client](const ZKVReply& reply) {
          defaultLog().log(LogLevel::Default,
                           "Reply from request to migrate " + identifier + " nimbrel store: " + describeReply(reply));
          client->shutdown();
        });
  } catch (const std::exception& error) {
    // The client never connected: releasing it is all the cleanup it needs.
    defaultLog().log(LogLevel::Default, "Error sending request to velmora daemon to migrate " + identifier +
                                            " nimbrel store: " + error.what());
  }
}
