// ZKVManagement: the account-wide operations of ZKVRemotePreferencesSource.
// Each makes a temporary client without store identity, sends one message
// and lets the client go; nothing is cached between calls, so calls may
// overlap freely. Replies and the reset's completion run on the main queue.
#include <exception>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <variant>

#include "velmora/platform/Dispatch.h"
#include "velmora/platform/Log.h"
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

}  // namespace

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
