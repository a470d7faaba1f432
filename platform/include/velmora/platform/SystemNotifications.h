// SystemNotifications: named, payload-free notifications between processes
// of one user, behind a small interface with one session-bus implementation.
//
// Design note
// - Wire. A posting is the broadcast signal Posted(s name) on object path
//   "/com/vantrel/Notify", interface "com.vantrel.Notify". An observer of a
//   name subscribes with a match rule on that signal and arg0='<name>', so
//   the bus wakes only processes that observe the name. The poster's own
//   observers hear it through the bus like everyone else.
// - Threads. Subscriptions and postings run on the shared bus I/O thread
//   (see Ipc.h); callbacks run on the queue each observer gave.
// - Coalescing. Each observer has a pending flag: postings that arrive while
//   a relay is queued but has not started give no further relay, so a burst
//   gives one callback (or a few), never one per posting. The flag is cleared
//   just before the callback runs, so a posting during the callback gives one
//   more.
// - Locks. The centre's mutex_ guards its token table; each observer's own
//   mutex guards its active/pending/running state, and removal waits on its
//   condition variable for a callback running on another thread. The centre
//   lock is never held while waiting or while a callback runs; no path holds
//   both.
// - Bus loss. When the bus connection closes, subscriptions are renewed on a
//   fresh connection (retried every second while it cannot be opened), and
//   every observer then gets one relay, since postings may have been missed
//   in between.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

namespace velmora {

class DispatchQueue;

// Identifies one observation. Never 0 for a live one, never reused within a
// process.
using SystemObserverToken = std::uint64_t;
inline constexpr SystemObserverToken kNoSystemObserverToken = 0;

// Whether name can be posted and observed: non-empty valid UTF-8 without NUL,
// apostrophe or backslash (the bus daemon and the bus library disagree on
// how to escape those two in a match rule, so no quoting reaches both).
// Pure; any thread.
bool isValidSystemNotificationName(std::string_view name) noexcept;

class SystemNotificationCenter {
 public:
  virtual ~SystemNotificationCenter() = default;

  // Calls callback on queue (the main queue when null) after name is posted
  // by any process of the session, coalescing bursts. owner tags the
  // observation for removeObservers(); it is never dereferenced. Blocks until
  // the subscription is in place at the bus (one round trip, or none when the
  // name is already observed here), so a posting made after this returns is
  // seen. Returns kNoSystemObserverToken, registering nothing, when name is
  // not valid (isValidSystemNotificationName). When the bus cannot be reached
  // the observation is kept and subscribed once it can. The centre owns
  // callback until removal. Any thread except from inside a callback that
  // the bus I/O thread waits for (there is none: it never waits for
  // callbacks).
  virtual SystemObserverToken addObserver(std::string name, std::shared_ptr<DispatchQueue> queue,
                                          std::function<void()> callback, const void* owner = nullptr) = 0;

  // Ends one observation; unknown or already removed tokens are ignored.
  // On return its callback is not running on another thread and will not
  // start; called from inside that callback, the running call finishes after
  // this returns, without a self-wait. Blocks only for a callback in flight on
  // another thread: don't call it while holding what the callback needs, nor
  // from a queue the callback waits on. Destroys the callback before
  // returning (unless it is the one running). Any thread.
  virtual void removeObserver(SystemObserverToken token) = 0;

  // removeObserver() for every observation added with this owner. Same
  // blocking and thread rules. owner == nullptr removes those added without
  // an owner.
  virtual void removeObservers(const void* owner) = 0;

  // Broadcasts name to every observer of it in the session, this process's
  // included. Blocks until the signal has been written to the bus socket
  // (about one queue hop), so a process may exit right after. Returns false
  // when name is not valid or the bus cannot be reached.
  // Any thread.
  virtual bool post(std::string_view name) = 0;
};

// The session-bus implementation. Observers of different centres are
// independent, but all share the process's bus I/O thread and connection.
class DbusSystemNotificationCenter final : public SystemNotificationCenter {
 public:
  // busAddress empty: the user's session bus (as for DbusIpcOptions).
  explicit DbusSystemNotificationCenter(std::string busAddress = {});
  ~DbusSystemNotificationCenter() override;
  DbusSystemNotificationCenter(const DbusSystemNotificationCenter&) = delete;
  DbusSystemNotificationCenter& operator=(const DbusSystemNotificationCenter&) = delete;

  SystemObserverToken addObserver(std::string name, std::shared_ptr<DispatchQueue> queue,
                                  std::function<void()> callback, const void* owner = nullptr) override;
  void removeObserver(SystemObserverToken token) override;
  void removeObservers(const void* owner) override;
  bool post(std::string_view name) override;

 private:
  struct State;
  std::shared_ptr<State> state_;  // immutable pointer; State documents its own guards
};

// The process-wide centre (a DbusSystemNotificationCenter on the session bus
// until one is installed). Any thread; the reference stays valid for the
// life of the process.
SystemNotificationCenter& currentSystemNotificationCenter();

// Installs the process-wide centre and returns the previous one (never null);
// nullptr reinstates the default. Every centre ever installed is kept alive
// until exit. Any thread.
std::shared_ptr<SystemNotificationCenter> setSystemNotificationCenter(
    std::shared_ptr<SystemNotificationCenter> center);

// currentSystemNotificationCenter().post(name): for the daemon and command
// line tools. Same result and blocking as post().
bool postSystemNotification(std::string_view name);

}  // namespace velmora
