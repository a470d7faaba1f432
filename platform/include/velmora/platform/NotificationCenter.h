// NotificationCenter: in-process broadcast of named notifications to the
// observers registered for them.
//
// Design note
// - Threads: post() calls the matching observers synchronously on the
//   poster's thread; any thread may post, add or remove at any time,
//   including from inside a callback.
// - Lock: NotificationCenter::mutex_ guards the observer tables and each
//   observer's removed flag and in-flight count. It is never held while a
//   callback runs; post() takes it briefly before and after each call.
// - Waiting: removeObserver() waits on idle_ (with mutex_) until the
//   observer's calls on other threads have returned. Calls on its own thread
//   (it was called from inside that observer's callback) are not waited for.
//   Two callbacks that remove each other's observers from two threads at once
//   would wait for each other forever; don't do that.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "velmora/platform/Export.h"
#include "velmora/platform/PropertyList.h"

namespace velmora {

// What observers receive. Lives for the duration of the post() call only.
struct Notification {
  std::string name;
  const void* object = nullptr;  // the sender's identity, never dereferenced here
  PropertyList userInfo;
};

// Identifies one registration. Never 0, never reused within one centre.
using ObserverToken = std::uint64_t;
inline constexpr ObserverToken kNoObserverToken = 0;

class VELMORA_EXPORT NotificationCenter {
 public:
  // An empty, private centre. It must outlive every post, add and remove
  // made on it.
  NotificationCenter();
  ~NotificationCenter();
  NotificationCenter(const NotificationCenter&) = delete;
  NotificationCenter& operator=(const NotificationCenter&) = delete;

  // The process-wide centre, created on first use and never destroyed.
  static NotificationCenter& defaultCenter();

  // Registers callback for notifications called name, posted with object
  // (nullptr: posted with any object). Thread-safe, never blocks on
  // callbacks; the centre owns callback until removal. Returns the token to
  // pass to removeObserver(). A post already under way when this returns does
  // not call the new observer.
  ObserverToken addObserver(std::string name, const void* object,
                            std::function<void(const Notification&)> callback);

  // Unregisters the observer; an unknown or already removed token is ignored.
  // On return no call of its callback is running on another thread and none
  // will start. Called from inside that observer's own callback, the running
  // call finishes after it returns (no self-wait). Blocks only for calls in
  // flight; destroys the callback after they end.
  void removeObserver(ObserverToken token);

  // Calls, on this thread and in the order they were added, every observer
  // of name whose object is nullptr or equals object. Blocks until they all
  // return. An exception from a callback propagates to the poster and the
  // remaining observers are skipped.
  void post(std::string_view name, const void* object, const PropertyList& userInfo = {});

 private:
  struct Observer;
  struct NameHash {
    using is_transparent = void;
    std::size_t operator()(std::string_view s) const noexcept { return std::hash<std::string_view>{}(s); }
  };
  using ObserverList = std::vector<std::shared_ptr<Observer>>;

  std::mutex mutex_;              // guards the fields below and every Observer's removed/inFlight
  std::condition_variable idle_;  // used with mutex_: an observer's in-flight calls dropped
  ObserverToken nextToken_ = 1;   // guarded by mutex_
  std::map<ObserverToken, std::shared_ptr<Observer>> byToken_;                      // guarded by mutex_
  std::unordered_map<std::string, ObserverList, NameHash, std::equal_to<>> byName_;  // guarded by mutex_; lists in add order
};

}  // namespace velmora
