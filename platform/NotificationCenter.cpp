// NotificationCenter: observers are shared between the centre's tables and
// the posts delivering to them. A post copies the matching observers under
// mutex_, then calls each one whose removed flag is still clear, counting the
// call as in flight for the duration so that removeObserver() can wait for it.
// A thread-local stack of the callbacks this thread is inside lets
// removeObserver() skip waiting for its own caller.
#include "velmora/platform/NotificationCenter.h"

#include <algorithm>
#include <utility>

namespace velmora {
namespace {

struct CallbackFrame {
  const void* observer;
  CallbackFrame* outer;
};
thread_local CallbackFrame* tCallbacks = nullptr;

std::size_t callsOnThisThread(const void* observer) noexcept {
  std::size_t calls = 0;
  for (const CallbackFrame* frame = tCallbacks; frame != nullptr; frame = frame->outer) {
    calls += frame->observer == observer ? 1 : 0;
  }
  return calls;
}

}  // namespace

struct NotificationCenter::Observer {
  const ObserverToken token;  // immutable
  const std::string name;     // immutable
  const void* const object;   // immutable; nullptr = any object
  std::function<void(const Notification&)> callback;  // immutable until destroyed with the observer
  bool removed = false;     // guarded by NotificationCenter::mutex_
  std::size_t inFlight = 0; // guarded by NotificationCenter::mutex_
};

NotificationCenter::NotificationCenter() = default;

NotificationCenter::~NotificationCenter() = default;

NotificationCenter& NotificationCenter::defaultCenter() {
  static NotificationCenter* const center = new NotificationCenter();
  return *center;
}

ObserverToken NotificationCenter::addObserver(std::string name, const void* object,
                                              std::function<void(const Notification&)> callback) {
  std::lock_guard lock(mutex_);
  const ObserverToken token = nextToken_++;
  std::shared_ptr<Observer> observer(new Observer{token, name, object, std::move(callback)});
  byName_[std::move(name)].push_back(observer);
  byToken_.emplace(token, std::move(observer));
  return token;
}

void NotificationCenter::removeObserver(ObserverToken token) {
  std::shared_ptr<Observer> observer;
  {
    std::unique_lock lock(mutex_);
    const auto found = byToken_.find(token);
    if (found == byToken_.end()) {
      return;
    }
    observer = std::move(found->second);
    byToken_.erase(found);
    const auto list = byName_.find(observer->name);
    std::erase(list->second, observer);
    if (list->second.empty()) {
      byName_.erase(list);
    }
    observer->removed = true;
    const std::size_t mine = callsOnThisThread(observer.get());
    idle_.wait(lock, [&] { return observer->inFlight == mine; });
  }
  // The callback (and whatever it captured) is destroyed here, outside the
  // lock, unless a post on this thread still holds the observer.
}

void NotificationCenter::post(std::string_view name, const void* object, const PropertyList& userInfo) {
  ObserverList matches;
  {
    std::lock_guard lock(mutex_);
    const auto list = byName_.find(name);
    if (list == byName_.end()) {
      return;
    }
    for (const auto& observer : list->second) {
      if (observer->object == nullptr || observer->object == object) {
        matches.push_back(observer);
      }
    }
  }
  if (matches.empty()) {
    return;
  }
  const Notification notification{std::string(name), object, userInfo};
  for (const auto& observer : matches) {
    {
      std::lock_guard lock(mutex_);
      if (observer->removed) {
        continue;
      }
      ++observer->inFlight;
    }
    // Ends the in-flight call even when the callback throws.
    struct CallScope {
      NotificationCenter* center;
      Observer* observer;
      CallbackFrame frame;
      CallScope(NotificationCenter* c, Observer* o) : center(c), observer(o), frame{o, tCallbacks} {
        tCallbacks = &frame;
      }
      ~CallScope() {
        tCallbacks = frame.outer;
        std::lock_guard lock(center->mutex_);
        --observer->inFlight;
        if (observer->removed) {
          center->idle_.notify_all();  // a remover may be waiting for this call
        }
      }
      CallScope(const CallScope&) = delete;
      CallScope& operator=(const CallScope&) = delete;
    } scope(this, observer.get());
    observer->callback(notification);
  }
}

}  // namespace velmora
