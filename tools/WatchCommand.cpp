// watch: prints the changes made elsewhere to the store until SIGINT or
// SIGTERM. The main thread polls two descriptors: a signalfd for the two
// signals (blocked before the library starts any thread, so every thread
// inherits the mask and none of them takes the signal) and the main queue's
// eventfd, whose work includes the store's observer calls.
#include <poll.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <cerrno>
#include <nlohmann/json.hpp>
#include <string>

#include "Command.h"
#include "velmora/platform/Dispatch.h"
#include "zkv/NimbrelStore.h"
#include "zkv/ZKVRemotePreferencesSource.h"

namespace velmora::tool {

namespace {

// The reason's name as watch prints it; "reason-<n>" for codes without one.
std::string reasonName(NimbrelChangeReason reason) {
  switch (reason) {
    case kNimbrelChangeReasonServerChange:
      return "server-change";
    case kNimbrelChangeReasonInitialSync:
      return "initial-sync";
    case kNimbrelChangeReasonQuotaViolation:
      return "quota-violation";
    case kNimbrelChangeReasonAccountChange:
      return "account-change";
    default:
      return "reason-" + std::to_string(reason);
  }
}

std::string changeLine(const NimbrelChange& change, bool json) {
  if (json) {
    nlohmann::ordered_json object = {{"reason", reasonName(change.reason)}, {"code", change.reason}, {"keys", change.keys}};
    return object.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace) + "\n";
  }
  std::string line = reasonName(change.reason);
  for (const std::string& key : change.keys) line += " " + key;
  return line + "\n";
}

int runWatch(Invocation& invocation) {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  const int signalFd = ::signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK);
  if (signalFd < 0) {
    printError("cannot watch for signals");
    return kExitUsage;
  }

  std::shared_ptr<NimbrelStore> store = invocation.openStore();
  if (!store) {
    ::close(signalFd);
    return kExitUsage;
  }
  const bool json = invocation.hasFlag("--json");
  bool outputFailed = false;  // main thread: set by the observer, read by the loop
  const NimbrelObserverToken token = store->addObserver([json, &outputFailed](const NimbrelChange& change) {
    if (!outputFailed && !writeOut(changeLine(change, json))) outputFailed = true;
  });
  // Registered before anything is printed, and the daemon's answer on the
  // same connection awaited, so that the daemon keeps the journal entries of
  // a change made after the message below until this process has read them.
  std::optional<std::string> status;
  store->useSourceSyncWithBlock([&](ZKVRemotePreferencesSource& source) {
    source.forceRegistrationNow();
    status = source.serverSideDebugDescription();
  });
  // The values as they are now: what changes after this is reported. A first
  // load counts every journal entry still kept as a change made elsewhere;
  // those came before the watch, so they are taken and dropped, on the
  // protection queue as the store takes its own, to order it with a reload.
  (void)store->dictionaryRepresentation();
  store->useSourceSyncWithBlock([](ZKVRemotePreferencesSource& source) {
    source.protectionQueue()->sync([&] { (void)source.copyExternalChangesWithChangeCount(nullptr); });
  });
  int result = kExitOk;
  if (!status) {
    result = invocation.reportDaemonFailure("the watch");
  } else {
    printNote("watching " + invocation.storeLabel() + " until interrupted");
    const int mainFd = velmora::DispatchQueue::mainQueueFileDescriptor();
    while (!outputFailed) {
      pollfd fds[2] = {{signalFd, POLLIN, 0}, {mainFd, POLLIN, 0}};
      if (::poll(fds, 2, -1) < 0) {
        if (errno == EINTR) continue;
        break;
      }
      if ((fds[0].revents & POLLIN) != 0) break;
      if ((fds[1].revents & POLLIN) != 0) velmora::DispatchQueue::drainMainQueue();
    }
    if (outputFailed) result = kExitUsage;
  }
  store->removeObserver(token);
  ::close(signalFd);
  return result;
}

constexpr std::string_view kWatchFlags[] = {"--json"};

}  // namespace

extern const Command kWatchCommand{
    "watch",
    "[--json]",
    "print each change made elsewhere, until interrupted",
    "Prints one line per change that another process or device makes to the\n"
    "store: the reason (server-change, initial-sync, quota-violation,\n"
    "account-change) and the keys, separated by spaces. Runs until SIGINT or\n"
    "SIGTERM, then exits 0. Each line is flushed as it is printed.\n"
    "\n"
    "  --json  one JSON object per line instead:\n"
    "          {\"reason\": \"server-change\", \"code\": 0, \"keys\": [\"k\"]}\n"
    "\n"
    "Exits 3 at once when the daemon cannot be reached.\n",
    {},
    kWatchFlags,
    0,
    0,
    runWatch,
};

}  // namespace velmora::tool
