// Dispatch: serial work queues on a shared worker pool, the main queue,
// delayed work and once-only initialisation.
//
// Design note
// - Threads. A queue owns no thread. One process-wide pool of workers (at most
//   max(2, hardware_concurrency) of them, started on demand, each leaving after
//   a few idle seconds) drains whichever queues have work, a bounded batch at a
//   time so that one busy queue cannot starve the others. A worker blocked in
//   sync() does not count against that bound, so queues that sync onto each
//   other cannot starve the pool. One timer thread, started by the first
//   after(), hands delayed work to its queue. The main queue is drained by one
//   library thread, or by the application's own loop when it asks for that.
// - Serial execution. Each queue has an atomic state word: an "owned" bit and
//   the number of waiting items. Exactly one party holds the bit while the
//   queue's work runs: a pool worker, the main-queue driver, or a sync()
//   caller. sync() on an idle queue takes the bit with one compare-and-swap and
//   runs the closure on the caller's thread; on a busy queue it queues a marker
//   and sleeps until the drainer reaches the marker and hands the bit over.
// - Locks. DispatchQueue::mutex_ guards the queue's item list; the pool, the
//   timer and the main-queue driver each have one mutex for their own fields.
//   No lock is held while work runs and no path holds two of them at once.
// - Waiting. A sync() caller sleeps on its own marker holding no lock, so the
//   only waits are the ones the caller's code creates: sync() onto the
//   current queue aborts; a cycle of queues syncing onto each other is the
//   caller's deadlock to avoid.
#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <type_traits>
#include <utility>

namespace velmora {

// A non-owning reference to a callable taking no arguments, so that sync()
// can take any lambda without allocating. The callable must outlive the call.
class WorkRef {
 public:
  template <class F>
    requires(!std::is_same_v<std::remove_cvref_t<F>, WorkRef> && std::is_invocable_v<F&>)
  WorkRef(F&& f) noexcept  // NOLINT(google-explicit-constructor): a lambda converts implicitly
      : callable_(const_cast<void*>(static_cast<const void*>(std::addressof(f)))),
        invoke_([](void* callable) { (*static_cast<std::remove_reference_t<F>*>(callable))(); }) {}

  // Calls the referenced callable on the calling thread.
  void operator()() const { invoke_(callable_); }

 private:
  void* callable_;          // immutable; not owned
  void (*invoke_)(void*);   // immutable
};

// A serial queue: its work items run one at a time, in submission order.
// Always held by std::shared_ptr; all methods are safe from any thread.
class DispatchQueue : public std::enable_shared_from_this<DispatchQueue> {
  struct PrivateTag {
    explicit PrivateTag() = default;
  };
  enum class Target : std::uint8_t { SharedPool, MainThread };

 public:
  // A new, idle serial queue served by the shared worker pool. Never fails
  // (aborts only when memory runs out). The caller owns the queue; work that
  // is still pending keeps it alive until that work has run.
  static std::shared_ptr<DispatchQueue> createSerial(std::string label);

  // Use createSerial(); the tag keeps construction inside this class.
  DispatchQueue(PrivateTag, std::string label, Target target);
  ~DispatchQueue();
  DispatchQueue(const DispatchQueue&) = delete;
  DispatchQueue& operator=(const DispatchQueue&) = delete;

  // The label given at creation; used in diagnostics. Immutable.
  const std::string& label() const noexcept { return label_; }

  // Queues work to run after everything submitted before it, on a pool worker
  // (on the main thread for the main queue). Never blocks; the queue takes
  // ownership of work. An empty function is ignored. An exception escaping
  // work is printed to stderr with the queue label, then std::terminate runs.
  void async(std::function<void()> work);

  // Runs work on the calling thread as an item of this queue: after every item
  // submitted earlier has run, and before any item submitted later starts.
  // Blocks until then; does not copy or allocate for work. An exception from
  // work propagates to the caller after the queue is released. Calling it
  // from code already running on this queue would deadlock, so it aborts
  // with a message naming the queue instead.
  void sync(WorkRef work);

  // Queues work on this queue once delay has passed (measured on the steady
  // clock; a non-positive delay queues it at once). Never blocks. Items due at
  // the same instant are queued in the order after() was called. The pending
  // item keeps this queue alive until it has run.
  void after(std::chrono::nanoseconds delay, std::function<void()> work);

  // True when the calling code runs as work of this queue: inside one of its
  // async items or sync closures, including inside a nested sync() onto
  // another queue made from there. Never blocks.
  bool isCurrent() const noexcept;

  // Aborts with a message naming this queue when !isCurrent(); otherwise does
  // nothing. For methods that must only run on their owner's queue.
  void assertCurrent() const noexcept;

  // The main queue: a serial queue that always exists. By default one
  // library-owned thread, started on first use, runs its work. The first call
  // to main(), mainQueueFileDescriptor() or drainMainQueue() fixes the mode.
  static DispatchQueue& main();

  // Chooses who runs the main queue's work: true = the application, from its
  // own loop, through mainQueueFileDescriptor() and drainMainQueue(); no
  // library thread is started. Must be called before the main queue is first
  // used; a later call asking for a different mode aborts, since work would
  // then run on a thread the application does not expect.
  static void setMainQueueDrivenByApplication(bool applicationDriven);

  // In application-driven mode: a non-blocking eventfd, owned by the library,
  // that polls readable while main-queue work is pending. In the default mode:
  // -1. Never blocks.
  static int mainQueueFileDescriptor();

  // In application-driven mode: runs, on the calling thread, the main-queue
  // work that was pending when it was called, and returns how many items ran.
  // Work submitted meanwhile stays pending and keeps the descriptor readable.
  // Call it from the one thread that drives the loop; sync() onto the main
  // queue from that thread outside a drain would wait for itself when work is
  // pending. In the default mode it does nothing and returns 0.
  static std::size_t drainMainQueue();

  // Testing hooks: live pool workers now, the pool's bound, and how long an
  // idle worker waits before leaving (default 5 s). Thread-safe, non-blocking.
  static std::size_t workerThreadCount();
  static std::size_t maxWorkerThreadCount();
  static void setWorkerIdleTimeoutForTesting(std::chrono::milliseconds timeout);

 private:
  class Pool;        // the shared worker pool (Dispatch.cpp)
  class MainDriver;  // the main queue's eventfd and serving thread
  struct SyncWaiter;
  struct Item {
    std::function<void()> work;    // empty for a sync marker
    SyncWaiter* waiter = nullptr;  // the sync() caller waiting at this marker
  };
  enum class DrainEnd : std::uint8_t { Released, StillOwned, HandedOff };

  // Bits of state_: the owned bit, and the count of waiting items above it.
  static constexpr std::uint64_t kOwnedBit = 1;
  static constexpr std::uint64_t kPendingUnit = 2;

  static std::size_t pendingCount(std::uint64_t state) noexcept {
    return static_cast<std::size_t>(state / kPendingUnit);
  }

  // Runs up to limit items; the caller holds the owned bit. Adds the number
  // of work items run to *ran and says what became of the bit.
  DrainEnd drain(std::size_t limit, std::size_t* ran);
  // Takes the owned bit if it is free and hands the queue to its drainer.
  void trySchedule();
  // Hands the queue, whose owned bit the caller holds, to its drainer.
  void schedule();
  // Drops the owned bit; reschedules when items arrived meanwhile.
  void release();
  // sync() slow path: waits at a marker until the bit is handed over.
  void waitForTurn();

  const std::string label_;   // immutable
  const Target target_;       // immutable
  std::atomic<std::uint64_t> state_{0};  // atomic; pending count kept equal to items_.size() under mutex_
  std::mutex mutex_;          // guards items_
  std::deque<Item> items_;    // guarded by mutex_
};

// Storage for dispatchOnce(). Constant-initialisable, so it may be a static.
class OnceFlag {
 public:
  constexpr OnceFlag() noexcept = default;
  OnceFlag(const OnceFlag&) = delete;
  OnceFlag& operator=(const OnceFlag&) = delete;

 private:
  template <class F>
  friend void dispatchOnce(OnceFlag& flag, F&& fn);
  std::atomic<bool> done_{false};  // atomic; set once fn has returned
  std::once_flag once_;            // serialises the first callers
};

// Runs fn on the calling thread the first time it is called with flag; other
// callers block until that run has returned, later ones return at once (one
// atomic load). If fn throws, the exception propagates and the next call runs
// fn again.
template <class F>
void dispatchOnce(OnceFlag& flag, F&& fn) {
  if (flag.done_.load(std::memory_order_acquire)) {
    return;
  }
  std::call_once(flag.once_, [&] {
    std::forward<F>(fn)();
    flag.done_.store(true, std::memory_order_release);
  });
}

}  // namespace velmora
