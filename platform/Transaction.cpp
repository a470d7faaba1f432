#include "velmora/platform/Transaction.h"

#include <atomic>
#include <mutex>

namespace velmora {

namespace {

struct TransactionState {
  // Held across a change and its notification, so notifications arrive in
  // the order the counts changed.
  std::mutex mutex;
  std::atomic<std::size_t> count{0};                // lock-free without an observer, else written under mutex
  std::atomic<bool> observed{false};                // whether observer is set; written under mutex
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
  // The common case has nobody watching: every value operation of a store
  // opens and closes a transaction, so keep it to one atomic operation.
  if (!s.observed.load(std::memory_order_acquire)) {
    if (up) {
      s.count.fetch_add(1, std::memory_order_acq_rel);
    } else {
      s.count.fetch_sub(1, std::memory_order_acq_rel);
    }
    return;
  }
  std::lock_guard lock(s.mutex);
  // Still an atomic update: a change that began before the observer was
  // installed may be finishing on the lock-free path.
  std::size_t now = up ? s.count.fetch_add(1, std::memory_order_acq_rel) + 1
                       : s.count.fetch_sub(1, std::memory_order_acq_rel) - 1;
  if (s.observer) s.observer(now);
}

}  // namespace

KeepAliveTransaction::KeepAliveTransaction(std::string_view name) : name_(name) { change(true); }

KeepAliveTransaction::~KeepAliveTransaction() { change(false); }

std::size_t KeepAliveTransaction::activeCount() noexcept { return state().count.load(std::memory_order_acquire); }

void KeepAliveTransaction::setObserver(std::function<void(std::size_t)> observer) {
  TransactionState& s = state();
  std::lock_guard lock(s.mutex);
  s.observer = std::move(observer);
  s.observed.store(static_cast<bool>(s.observer), std::memory_order_release);
}

}  // namespace velmora
