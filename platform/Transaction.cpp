#include "velmora/platform/Transaction.h"

#include <atomic>
#include <mutex>

namespace velmora {

namespace {

struct TransactionState {
  // Held across a change and its notification, so notifications arrive in
  // the order the counts changed.
  std::mutex mutex;
  std::atomic<std::size_t> count{0};                // written under mutex, read lock-free
  std::function<void(std::size_t)> observer;        // guarded by mutex
};

// Never destroyed: a transaction held by a static object may close after
// ordinary statics are gone.
TransactionState& state() {
  static auto* s = new TransactionState;
  return *s;
}

void change(bool up) {
  TransactionState& s = state();
  std::lock_guard lock(s.mutex);
  std::size_t now = up ? s.count.load(std::memory_order_relaxed) + 1 : s.count.load(std::memory_order_relaxed) - 1;
  s.count.store(now, std::memory_order_release);
  if (s.observer) s.observer(now);
}

}  // namespace

KeepAliveTransaction::KeepAliveTransaction(std::string name) : name_(std::move(name)) { change(true); }

KeepAliveTransaction::~KeepAliveTransaction() { change(false); }

std::size_t KeepAliveTransaction::activeCount() noexcept { return state().count.load(std::memory_order_acquire); }

void KeepAliveTransaction::setObserver(std::function<void(std::size_t)> observer) {
  TransactionState& s = state();
  std::lock_guard lock(s.mutex);
  s.observer = std::move(observer);
}

}  // namespace velmora
