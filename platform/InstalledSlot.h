// InstalledSlot: one process-wide service that tests (and applications) may
// replace. Private to the platform layer.
//
// Readers take a plain atomic load, so hot paths (logging, clock reads) never
// contend on a lock; installs swap under a mutex. Every object ever installed
// stays alive until exit, so a reference handed out just before a swap stays
// valid. Slots are meant to be leaked statics, so services are still there
// for other objects' static destructors.
#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

namespace velmora {

template <typename T>
class InstalledSlot {
 public:
  // makeDefault builds the system implementation on first use.
  explicit InstalledSlot(std::function<std::shared_ptr<T>()> makeDefault) : makeDefault_(std::move(makeDefault)) {}

  // The installed service, made on first use. Any thread; lock-free after
  // the first call; borrowed, valid until exit.
  T& get() {
    if (T* p = current_.load(std::memory_order_acquire)) return *p;
    std::lock_guard lock(mutex_);
    ensureDefaultLocked();
    return *current_.load(std::memory_order_relaxed);
  }

  // The installed service as a shared reference. Any thread; takes the mutex.
  std::shared_ptr<T> shared() {
    std::lock_guard lock(mutex_);
    ensureDefaultLocked();
    return installed_;
  }

  // Installs next (nullptr: the default again) and returns the previous one.
  // Any thread.
  std::shared_ptr<T> exchange(std::shared_ptr<T> next) {
    std::lock_guard lock(mutex_);
    ensureDefaultLocked();
    if (!next) next = default_;
    retainLocked(next);
    std::shared_ptr<T> previous = std::move(installed_);
    installed_ = std::move(next);
    current_.store(installed_.get(), std::memory_order_release);
    return previous;
  }

 private:
  void ensureDefaultLocked() {
    if (default_) return;
    default_ = makeDefault_();
    retainLocked(default_);
    installed_ = default_;
    current_.store(installed_.get(), std::memory_order_release);
  }

  void retainLocked(const std::shared_ptr<T>& p) {
    for (const auto& r : retained_) {
      if (r.get() == p.get()) return;
    }
    retained_.push_back(p);
  }

  std::atomic<T*> current_{nullptr};                       // written under mutex_, read lock-free
  std::mutex mutex_;
  const std::function<std::shared_ptr<T>()> makeDefault_;  // immutable
  std::shared_ptr<T> default_;                             // guarded by mutex_
  std::shared_ptr<T> installed_;                           // guarded by mutex_
  std::vector<std::shared_ptr<T>> retained_;               // guarded by mutex_; never shrinks
};

}  // namespace velmora
