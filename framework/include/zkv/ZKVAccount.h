// ZKVAccount: the user's sync account, which the daemon keeps (in the
// user's configuration directory) and syncs every store with. These calls
// ask the daemon; none of them talks to the sync server itself.
//
// Each request makes a temporary daemon client and sends one message. The
// ...WithCompletionHandler forms return at once; their handler runs exactly
// once on the main queue, with the answer or, when none comes within the
// IPC call timeout and a few seconds, with ETIMEDOUT. The plain forms wait
// for that handler on the calling thread: they need the main queue served
// by someone else (the library's own thread, the default), so called from
// the main queue they fail at once with EDEADLK. An application that drives
// the main queue itself uses the handler forms.
#pragma once

#include <functional>
#include <optional>
#include <string>

#include "velmora/platform/PropertyList.h"
#include "zkv/ZKVBase.h"
#include "zkv/ZKVClient.h"

// The daemon's answer. A value type the caller owns.
struct ZKV_EXPORT ZKVAccountResult {
  // Set on failure: the daemon's error (domain "com.vantrel.velmorad"; code
  // 1 bad request, 4 the account file could not be written, 5 not permitted
  // in a sandbox, 6 the sync server cannot be reached, 7 the server refused
  // the token), or a transport error in kZKVPOSIXErrorDomain (22: the daemon
  // cannot be reached; ETIMEDOUT: no answer in time; EDEADLK: a plain form
  // called from the main queue).
  std::optional<ZKVError> error;
  // The reply's user information on success (see each call).
  velmora::PropertyList info;

  bool ok() const noexcept { return !error.has_value(); }
};

// Receives the answer of an account request, on the main queue.
using ZKVAccountHandler = std::function<void(ZKVAccountResult)>;

// Logs the daemon into the sync server at url ("https://host:port",
// "http://host:port" for plaintext, or "host:port": TLS unless on loopback)
// with the account's token. The daemon checks the token with the server
// first and changes nothing when that fails. When the stores last synced
// with another account they are reset and synced anew. On success info is
// {"account": identifier, "server": url, "device": this machine's identifier}.
ZKV_EXPORT ZKVAccountResult ZKVAccountLogin(const std::string& url, const std::string& token);
ZKV_EXPORT void ZKVAccountLoginWithCompletionHandler(const std::string& url, const std::string& token,
                                                     ZKVAccountHandler handler);

// Logs the daemon out: it stops syncing and forgets server and token; the
// stores stay as they are. Succeeds when already logged out; info is empty.
ZKV_EXPORT ZKVAccountResult ZKVAccountLogout();
ZKV_EXPORT void ZKVAccountLogoutWithCompletionHandler(ZKVAccountHandler handler);

// The daemon's sync status. info is {"loggedIn": bool, "connected": bool
// (a watch on the server is open), "server", "account", "device",
// "lastError" (when there is one), "stores": [{"store": name, "lastSync":
// date (absent: never), "pending": changes the server has not acknowledged,
// "revision": server revision pulled up to}], "description": the same as
// readable lines}.
ZKV_EXPORT ZKVAccountResult ZKVCopyAccountStatus();
ZKV_EXPORT void ZKVCopyAccountStatusWithCompletionHandler(ZKVAccountHandler handler);
