// sync, status, reset-all, notify: the commands that ask the daemon (or the
// session bus) for something other than a value. Replies of asynchronous
// requests arrive on the main queue, which waitOnMainQueue() runs; the state
// they write is shared with the handler, which may outlive a timed-out wait.
#include <memory>
#include <string>
#include <variant>

#include "Command.h"
#include "velmora/platform/SystemNotifications.h"
#include "zkv/NimbrelStore.h"
#include "zkv/ZKVClient.h"
#include "zkv/ZKVRemotePreferencesSource.h"

namespace velmora::tool {

namespace {

using namespace std::chrono_literals;

// The library waits for an asynchronous reply as long as the daemon is
// there; a person at the terminal waits this long for a sync pass.
constexpr auto kReplyPatience = 60s;
// How long reset-all waits for the daemon to announce that it is done.
constexpr auto kResetPatience = 15s;

// The daemon's status text for the invocation's store; nullopt when no
// answer came. Blocks for one round trip.
std::optional<std::string> daemonStatus(NimbrelStore& store) {
  std::optional<std::string> status;
  store.useSourceSyncWithBlock(
      [&](ZKVRemotePreferencesSource& source) { status = source.serverSideDebugDescription(); });
  return status;
}

// The readable part of an error the daemon or the transport reported.
std::string describeError(const ZKVReply& reply) {
  if (const ZKVError* error = std::get_if<ZKVError>(&reply)) {
    auto text = error->userInfo.find(kZKVErrorDescriptionKey);
    if (text != error->userInfo.end() && text->second.isString()) return *text->second.getString();
    return error->description();
  }
  if (const velmora::PropertyList* error = std::get_if<velmora::PropertyList>(&reply)) {
    const velmora::PropertyList* info = error->find("userinfo");
    const velmora::PropertyList* text = info != nullptr ? info->find("description") : nullptr;
    if (text != nullptr && text->isString()) return *text->getString();
    return error->description();
  }
  return "no error";
}

int runSync(Invocation& invocation) {
  std::shared_ptr<NimbrelStore> store = invocation.openStore();
  if (!store) return kExitUsage;
  if (!store->synchronize()) return invocation.reportDaemonFailure("the hand-over of pending changes");
  struct Outcome {
    bool done = false;
    ZKVReply reply;
  };
  auto outcome = std::make_shared<Outcome>();
  store->useSourceSyncWithBlock([&](ZKVRemotePreferencesSource& source) {
    source.synchronizationWithCompletionHandler([outcome](const ZKVReply& reply) {
      outcome->reply = reply;
      outcome->done = true;
    });
  });
  if (!waitOnMainQueue([&] { return outcome->done; }, kReplyPatience)) {
    printError("velmorad did not answer the synchronisation request in time");
    return kExitDaemon;
  }
  if (std::holds_alternative<ZKVError>(outcome->reply) &&
      std::get<ZKVError>(outcome->reply).domain == kZKVPOSIXErrorDomain) {
    return invocation.reportDaemonFailure("the synchronisation request");
  }
  if (!std::holds_alternative<std::monostate>(outcome->reply)) {
    printError("velmorad could not synchronise " + invocation.storeLabel() + ": " + describeError(outcome->reply));
    return kExitDaemon;
  }
  return kExitOk;
}

int runStatus(Invocation& invocation) {
  std::shared_ptr<NimbrelStore> store = invocation.openStore();
  if (!store) return kExitUsage;
  std::optional<std::string> status = daemonStatus(*store);
  if (!status) return invocation.reportDaemonFailure("the status request");
  std::string text = "Store: " + invocation.storeLabel() + "\n" + *status;
  if (text.back() != '\n') text += '\n';
  return writeOut(text) ? kExitOk : kExitUsage;
}

int runResetAll(Invocation& invocation) {
  std::shared_ptr<NimbrelStore> store = invocation.openStore();
  if (!store) return kExitUsage;
  // The reset's completion comes whether or not the daemon got the request,
  // so first make sure it answers, then wait for its change announcement.
  if (!daemonStatus(*store)) return invocation.reportDaemonFailure("the reset");
  struct Progress {
    bool completed = false;
    bool announced = false;
  };
  auto progress = std::make_shared<Progress>();
  velmora::SystemNotificationCenter& center = velmora::currentSystemNotificationCenter();
  const velmora::SystemObserverToken observation =
      center.addObserver(std::string(ZKVRemotePreferencesSource::kSourceDidChangeExternallySystemNotification),
                         nullptr, [progress] { progress->announced = true; });
  ZKVRemotePreferencesSource::resetAllApplicationsWithCompletionHandler([progress] { progress->completed = true; });
  const bool confirmed =
      waitOnMainQueue([&] { return progress->completed && progress->announced; }, kResetPatience);
  center.removeObserver(observation);
  if (!confirmed) {
    printError("velmorad did not confirm the reset (a sandboxed caller may not reset)");
    return kExitDaemon;
  }
  return kExitOk;
}

int runNotify(Invocation& invocation) {
  const std::string& name = invocation.positional(0);
  if (!velmora::isValidSystemNotificationName(name)) {
    return usageError(invocation.command(),
                      "\"" + name + "\" cannot be a notification name (non-empty UTF-8 without NUL, ' or \\)");
  }
  if (!velmora::postSystemNotification(name)) {
    printError("could not post \"" + name + "\": the session bus could not be reached");
    return kExitDaemon;
  }
  return kExitOk;
}

}  // namespace

extern const Command kSyncCommand{
    "sync",
    "",
    "have the daemon synchronise the store now, and wait",
    "Hands any pending changes to the daemon, then asks it to synchronise the\n"
    "store with the server now and waits for its answer. Exits 3 when the daemon\n"
    "cannot be reached or reports an error.\n",
    {},
    {},
    0,
    0,
    runSync,
};

extern const Command kStatusCommand{
    "status",
    "",
    "print the daemon's description of the store",
    "Prints the daemon's debug description of the store: its file, change\n"
    "count, keys, registered clients, journal and synchronisation state.\n"
    "Exits 3 when the daemon cannot be reached.\n",
    {},
    {},
    0,
    0,
    runStatus,
};

extern const Command kResetAllCommand{
    "reset-all",
    "",
    "remove every store of every application of this user",
    "Asks the daemon to remove the store files of all applications of this\n"
    "user, and waits until it announces that it is done. There is no undo.\n"
    "Exits 3 when the daemon cannot be reached or does not confirm.\n",
    {},
    {},
    0,
    0,
    runResetAll,
};

extern const Command kNotifyCommand{
    "notify",
    "NAME",
    "post the system-wide notification NAME",
    "Posts NAME to every process of this user's session that observes it.\n"
    "Exits 2 for a name that cannot be posted, 3 when the session bus cannot\n"
    "be reached.\n",
    {},
    {},
    1,
    1,
    runNotify,
};

}  // namespace velmora::tool
