// account: logs the daemon into the sync server, out of it, or shows the
// sync status. The library's account calls (ZKVAccount.h) carry the request;
// their answers arrive on the main queue, which waitOnMainQueue() runs; the
// state they write is shared with the handler, which may outlive a
// timed-out wait.
#include <memory>
#include <optional>
#include <string>

#include "Command.h"
#include "zkv/ZKVAccount.h"

namespace velmora::tool {

namespace {

using namespace std::chrono_literals;

// Longer than the library's own patience, which answers with ETIMEDOUT.
constexpr auto kAnswerPatience = 90s;

// Sends one account request through start and waits for its answer;
// nullopt (with the reason printed) when none came.
std::optional<ZKVAccountResult> ask(const std::function<void(ZKVAccountHandler)>& start) {
  auto answer = std::make_shared<std::optional<ZKVAccountResult>>();
  start([answer](ZKVAccountResult result) { *answer = std::move(result); });
  if (!waitOnMainQueue([&] { return answer->has_value(); }, kAnswerPatience)) {
    printError("velmorad did not answer the account request in time");
    return std::nullopt;
  }
  return std::move(**answer);
}

// The readable part of a failed answer.
std::string describe(const ZKVError& error) {
  auto text = error.userInfo.find(kZKVErrorDescriptionKey);
  if (text != error.userInfo.end() && text->second.isString()) return *text->second.getString();
  return error.description();
}

std::string entry(const ZKVAccountResult& result, std::string_view key) {
  const velmora::PropertyList* value = result.info.find(key);
  return value != nullptr && value->isString() ? *value->getString() : std::string();
}

int runAccount(Invocation& invocation) {
  const std::string& action = invocation.positional(0);
  const std::size_t count = invocation.arguments().positional.size();
  std::optional<ZKVAccountResult> result;
  if (action == "login") {
    if (count != 3) return usageError(invocation.command(), "login needs the server's URL and the account's token");
    result = ask([&](ZKVAccountHandler done) {
      ZKVAccountLoginWithCompletionHandler(invocation.positional(1), invocation.positional(2), std::move(done));
    });
  } else if (action == "logout" || action == "status") {
    if (count != 1) return usageError(invocation.command(), action + " takes no arguments");
    result = ask([&](ZKVAccountHandler done) {
      if (action == "logout") {
        ZKVAccountLogoutWithCompletionHandler(std::move(done));
      } else {
        ZKVCopyAccountStatusWithCompletionHandler(std::move(done));
      }
    });
  } else {
    return usageError(invocation.command(), "unknown action \"" + action + "\" (login, logout or status)");
  }
  if (!result) return kExitDaemon;
  if (!result->ok()) {
    if (result->error->domain == kZKVPOSIXErrorDomain) return invocation.reportDaemonFailure("the account request");
    printError("velmorad refused: " + describe(*result->error));
    return kExitDaemon;
  }
  std::string text;
  if (action == "login") {
    text = "Logged into " + entry(*result, "server") + " as " + entry(*result, "account") + " (this device: " +
           entry(*result, "device") + ")\n";
  } else if (action == "logout") {
    text = "Logged out\n";
  } else {
    text = entry(*result, "description");
    if (text.empty() || text.back() != '\n') text += '\n';
  }
  return writeOut(text) ? kExitOk : kExitUsage;
}

}  // namespace

extern const Command kAccountCommand{
    "account",
    "login URL TOKEN | logout | status",
    "log the daemon into the sync server, out of it, or show the sync status",
    "login URL TOKEN  has the daemon check TOKEN with the sync server at URL\n"
    "                 (https://HOST:PORT; http:// for plaintext; HOST:PORT alone is\n"
    "                 TLS except on loopback), keep the account in the user's\n"
    "                 configuration directory and sync every store with it. Stores\n"
    "                 that last synced with another account are reset first.\n"
    "logout           stops syncing and forgets the server and token; the stores stay.\n"
    "status           prints the account, the server, the connection and, per store,\n"
    "                 the last sync time and the changes not yet on the server.\n"
    "Exits 3 when the daemon cannot be reached or refuses (a wrong token, a server\n"
    "it cannot reach).\n",
    {},
    {},
    1,
    3,
    runAccount,
};

}  // namespace velmora::tool
