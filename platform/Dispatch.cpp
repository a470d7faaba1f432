// Dispatch: serial queues drained by a shared worker pool, the main-queue
// driver and the delayed-work timer.
//
// Design note
// - Threads: pool workers (velmora-worker, detached, leave after an idle
//   timeout), the main-queue thread (velmora-main, only in the default mode)
//   and the timer thread (velmora-timer, from the first after()). The pool,
//   the driver and the timer are created on first use and never destroyed, so
//   work still running at process exit never meets a destroyed singleton.
// - Locks, none ever held together and none held while work runs:
//   DispatchQueue::mutex_ guards a queue's item list; Pool::mutex_ the ready
//   list and thread counts; DelayedWorkTimer::mutex_ the deadline heap;
//   gMainModeMutex the main-queue mode; SyncWaiter::mutex its hand-off flag.
// - Ownership protocol: every change of a queue's state word is an atomic
//   read-modify-write, so they form one total order. A submitter adds to the
//   pending count and takes the owned bit if it was free; an owner drops the
//   bit and takes it back if the count it dropped it with was non-zero. Either
//   way the party that ends up with the bit schedules the queue, so no item is
//   ever left waiting with nobody to run it.
#include "velmora/platform/Dispatch.h"

#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <condition_variable>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <system_error>
#include <thread>
#include <vector>

namespace velmora {
namespace {

// Items a worker runs from one queue before letting other queues in.
constexpr std::size_t kBatchSize = 16;
constexpr std::chrono::milliseconds kDefaultWorkerIdleTimeout{5000};

[[noreturn]] __attribute__((format(printf, 1, 2))) void fatal(const char* format, ...) {
  std::va_list args;
  va_start(args, format);
  std::fputs("velmora: ", stderr);
  std::vfprintf(stderr, format, args);
  std::fputc('\n', stderr);
  va_end(args);
  std::fflush(stderr);
  std::abort();
}

// The queues whose work this thread is running, innermost first. Frames live
// on the stack of the code that runs the work.
struct CurrentQueueFrame {
  const DispatchQueue* queue;
  CurrentQueueFrame* outer;
};
thread_local CurrentQueueFrame* tCurrentQueue = nullptr;
// Set on pool workers, so that a worker blocking in sync() lets the pool grow.
thread_local bool tIsPoolWorker = false;

class CurrentQueueScope {
 public:
  explicit CurrentQueueScope(const DispatchQueue* queue) noexcept : frame_{queue, tCurrentQueue} {
    tCurrentQueue = &frame_;
  }
  ~CurrentQueueScope() { tCurrentQueue = frame_.outer; }
  CurrentQueueScope(const CurrentQueueScope&) = delete;
  CurrentQueueScope& operator=(const CurrentQueueScope&) = delete;

 private:
  CurrentQueueFrame frame_;
};

void nameThisThread(const char* name) { pthread_setname_np(pthread_self(), name); }

// Async work has nobody to report an error to: say where it came from, then
// stop, rather than let a half-done item leave its owner's state inconsistent.
void runAsyncItem(std::function<void()>& work, const std::string& label) noexcept {
  try {
    work();
  } catch (const std::exception& e) {
    std::fprintf(stderr, "velmora: uncaught exception in work on dispatch queue '%s': %s\n",
                 label.c_str(), e.what());
    std::terminate();
  } catch (...) {
    std::fprintf(stderr, "velmora: uncaught non-standard exception in work on dispatch queue '%s'\n",
                 label.c_str());
    std::terminate();
  }
}

std::mutex gMainModeMutex;             // guards the two fields below
bool gMainStarted = false;             // guarded by gMainModeMutex
bool gMainApplicationDriven = false;   // guarded by gMainModeMutex

// Fires after() work. One thread for the whole process.
class DelayedWorkTimer {
 public:
  static DelayedWorkTimer& instance() {
    static DelayedWorkTimer* const timer = new DelayedWorkTimer();
    return *timer;
  }

  // Queues work on queue at deadline. Called on any thread; never blocks for long.
  void add(std::chrono::steady_clock::time_point deadline, std::shared_ptr<DispatchQueue> queue,
           std::function<void()> work) {
    std::lock_guard lock(mutex_);
    heap_.push_back(Entry{deadline, nextSeq_++, std::move(queue), std::move(work)});
    std::push_heap(heap_.begin(), heap_.end(), later);
    if (heap_.front().seq == nextSeq_ - 1) {
      wake_.notify_one();  // the new entry is now the earliest
    }
  }

 private:
  struct Entry {
    std::chrono::steady_clock::time_point deadline;
    std::uint64_t seq;  // breaks deadline ties in call order
    std::shared_ptr<DispatchQueue> queue;
    std::function<void()> work;
  };

  static bool later(const Entry& a, const Entry& b) {
    return a.deadline != b.deadline ? a.deadline > b.deadline : a.seq > b.seq;
  }

  DelayedWorkTimer() {
    std::thread([this] { run(); }).detach();
  }

  void run() {
    nameThisThread("velmora-timer");
    std::unique_lock lock(mutex_);
    for (;;) {
      if (heap_.empty()) {
        wake_.wait(lock);
        continue;
      }
      const auto deadline = heap_.front().deadline;
      if (std::chrono::steady_clock::now() < deadline) {
        wake_.wait_until(lock, deadline);
        continue;
      }
      std::pop_heap(heap_.begin(), heap_.end(), later);
      Entry due = std::move(heap_.back());
      heap_.pop_back();
      lock.unlock();
      due.queue->async(std::move(due.work));
      due = Entry{};  // drop the queue reference outside the lock
      lock.lock();
    }
  }

  std::mutex mutex_;               // guards heap_ and nextSeq_
  std::condition_variable wake_;   // used with mutex_
  std::vector<Entry> heap_;        // guarded by mutex_; min-heap on (deadline, seq)
  std::uint64_t nextSeq_ = 0;      // guarded by mutex_
};

}  // namespace

// A sync() caller parked at its marker until the drainer hands it the queue.
// The drainer notifies under the mutex, so the caller cannot return and
// destroy the waiter while the drainer still touches it.
struct DispatchQueue::SyncWaiter {
  std::mutex mutex;                         // guards handedOff
  std::condition_variable handedOffSignal;  // used with mutex
  bool handedOff = false;                   // guarded by mutex

  void handOff() {
    std::lock_guard lock(mutex);
    handedOff = true;
    handedOffSignal.notify_one();
  }

  void wait() {
    std::unique_lock lock(mutex);
    handedOffSignal.wait(lock, [this] { return handedOff; });
  }
};

// The shared worker pool. Workers take queues from the ready list, drain a
// batch, and put the queue back at the tail when it still has work.
class DispatchQueue::Pool {
 public:
  static Pool& instance() {
    static Pool* const pool = new Pool();
    return *pool;
  }

  // Adds a queue whose owned bit the caller has taken on the pool's behalf.
  void submit(std::shared_ptr<DispatchQueue> queue) {
    bool start = false;
    bool wake = false;
    {
      std::lock_guard lock(mutex_);
      ready_.push_back(std::move(queue));
      wake = waiting_ > 0;
      start = reserveThreadLocked();
    }
    // Woken outside the lock, the worker does not go straight back to
    // sleep on the mutex: two system calls fewer on every hand-off.
    if (wake) {
      wake_.notify_one();
    }
    if (start) {
      startWorker();
    }
  }

  // A worker is about to block in sync(): it no longer counts against the
  // bound, and a replacement starts when ready queues would otherwise wait.
  void workerBlocked() {
    bool start = false;
    {
      std::lock_guard lock(mutex_);
      ++blocked_;
      start = reserveThreadLocked();
    }
    if (start) {
      startWorker();
    }
  }

  void workerUnblocked() {
    std::lock_guard lock(mutex_);
    --blocked_;
  }

  std::size_t threadCount() {
    std::lock_guard lock(mutex_);
    return threads_;
  }

  std::size_t maxThreads() const noexcept { return max_; }

  void setIdleTimeout(std::chrono::milliseconds timeout) {
    std::lock_guard lock(mutex_);
    idleTimeout_ = timeout;
    ++idleTimeoutGeneration_;
    wake_.notify_all();  // sleeping workers restart their wait with the new timeout
  }

 private:
  Pool() : max_(std::max<std::size_t>(2, std::thread::hardware_concurrency())) {}

  // True, with the new thread already counted, when ready queues outnumber
  // the sleeping workers and the bound allows one more.
  bool reserveThreadLocked() {
    if (ready_.size() > waiting_ && threads_ - blocked_ < max_) {
      ++threads_;
      return true;
    }
    return false;
  }

  void startWorker() {
    try {
      std::thread([this] { workerMain(); }).detach();
    } catch (const std::system_error& e) {
      std::lock_guard lock(mutex_);
      if (--threads_ == 0) {
        fatal("cannot start a dispatch worker thread: %s", e.what());
      }
    }
  }

  void workerMain() {
    tIsPoolWorker = true;
    nameThisThread("velmora-worker");
    std::unique_lock lock(mutex_);
    for (;;) {
      if (threads_ - blocked_ > max_) {
        break;  // started while others were blocked; they are back
      }
      if (ready_.empty()) {
        ++waiting_;
        const auto deadline = std::chrono::steady_clock::now() + idleTimeout_;
        const auto generation = idleTimeoutGeneration_;
        bool idleTooLong = false;
        while (ready_.empty() && generation == idleTimeoutGeneration_) {
          if (wake_.wait_until(lock, deadline) == std::cv_status::timeout) {
            idleTooLong = ready_.empty();
            break;
          }
        }
        --waiting_;
        if (idleTooLong) {
          break;
        }
        continue;
      }
      std::shared_ptr<DispatchQueue> queue = std::move(ready_.front());
      ready_.pop_front();
      lock.unlock();
      std::size_t ran = 0;
      const bool more = queue->drain(kBatchSize, &ran) == DrainEnd::StillOwned;
      if (!more) {
        queue.reset();  // may destroy the queue: do it outside the lock
      }
      lock.lock();
      if (more) {
        ready_.push_back(std::move(queue));
      }
    }
    --threads_;
    if (!ready_.empty() && waiting_ > 0) {
      wake_.notify_one();
    }
  }

  const std::size_t max_;                              // immutable: the bound on unblocked workers
  std::mutex mutex_;                                   // guards the fields below
  std::condition_variable wake_;                       // used with mutex_
  std::deque<std::shared_ptr<DispatchQueue>> ready_;   // guarded by mutex_
  std::size_t threads_ = 0;                            // guarded by mutex_: live workers
  std::size_t waiting_ = 0;                            // guarded by mutex_: workers asleep on wake_
  std::size_t blocked_ = 0;                            // guarded by mutex_: workers blocked in sync()
  std::chrono::milliseconds idleTimeout_ = kDefaultWorkerIdleTimeout;  // guarded by mutex_
  std::uint64_t idleTimeoutGeneration_ = 0;            // guarded by mutex_
};

// Serves the main queue: an eventfd that is readable while the queue is
// scheduled, drained by the library thread or by the application.
class DispatchQueue::MainDriver {
 public:
  static MainDriver& instance() {
    static MainDriver* const driver = new MainDriver();
    return *driver;
  }

  DispatchQueue& queue() noexcept { return *queue_; }
  bool applicationDriven() const noexcept { return applicationDriven_; }
  int fileDescriptor() const noexcept { return eventFd_; }

  // Called by whoever took the main queue's owned bit for the driver.
  void signal() noexcept {
    scheduled_.store(true, std::memory_order_release);
    const std::uint64_t one = 1;
    const ssize_t written = ::write(eventFd_, &one, sizeof one);
    (void)written;  // only fails when the counter is saturated, i.e. already readable
  }

  // Runs the items pending now if the queue is scheduled. The descriptor is
  // reset before the flag is taken, so a signal arriving in between leaves it
  // readable instead of being lost.
  std::size_t drainPending() {
    std::uint64_t count = 0;
    const ssize_t got = ::read(eventFd_, &count, sizeof count);
    (void)got;  // EAGAIN: nothing was signalled
    if (!scheduled_.exchange(false, std::memory_order_acq_rel)) {
      return 0;
    }
    std::size_t ran = 0;
    const std::size_t limit = pendingCount(queue_->state_.load(std::memory_order_acquire));
    if (queue_->drain(limit, &ran) == DrainEnd::StillOwned) {
      signal();
    }
    return ran;
  }

 private:
  static bool fixMode() {
    std::lock_guard lock(gMainModeMutex);
    gMainStarted = true;
    return gMainApplicationDriven;
  }

  MainDriver()
      : applicationDriven_(fixMode()),
        eventFd_(::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)),
        queue_(std::make_shared<DispatchQueue>(PrivateTag{}, "main", Target::MainThread)) {
    if (eventFd_ < 0) {
      fatal("cannot create the main queue's eventfd: %s", std::strerror(errno));
    }
    if (!applicationDriven_) {
      std::thread([this] { serve(); }).detach();
    }
  }

  void serve() {
    nameThisThread("velmora-main");
    for (;;) {
      pollfd readable{eventFd_, POLLIN, 0};
      if (::poll(&readable, 1, -1) < 0 && errno != EINTR) {
        fatal("polling the main queue failed: %s", std::strerror(errno));
      }
      drainPending();
    }
  }

  const bool applicationDriven_;                 // immutable
  const int eventFd_;                            // immutable; never closed
  std::atomic<bool> scheduled_{false};           // atomic; true while a drain is owed
  const std::shared_ptr<DispatchQueue> queue_;   // immutable
};

std::shared_ptr<DispatchQueue> DispatchQueue::createSerial(std::string label) {
  return std::make_shared<DispatchQueue>(PrivateTag{}, std::move(label), Target::SharedPool);
}

DispatchQueue::DispatchQueue(PrivateTag, std::string label, Target target)
    : label_(std::move(label)), target_(target) {}

DispatchQueue::~DispatchQueue() = default;

void DispatchQueue::async(std::function<void()> work) {
  if (!work) {
    return;
  }
  std::uint64_t before;
  {
    std::lock_guard lock(mutex_);
    items_.push_back(Item{std::move(work), nullptr});
    before = state_.fetch_add(kPendingUnit, std::memory_order_acq_rel);
  }
  if ((before & kOwnedBit) == 0) {
    trySchedule();
  }
}

void DispatchQueue::sync(WorkRef work) {
  if (isCurrent()) {
    fatal("sync() onto dispatch queue '%s' from work already running on it would deadlock",
          label_.c_str());
  }
  std::uint64_t idle = 0;
  if (!state_.compare_exchange_strong(idle, kOwnedBit, std::memory_order_acquire,
                                      std::memory_order_relaxed)) {
    waitForTurn();
  }
  struct Releaser {
    DispatchQueue* queue;
    ~Releaser() { queue->release(); }
  } releaser{this};
  CurrentQueueScope scope(this);
  work();
}

void DispatchQueue::after(std::chrono::nanoseconds delay, std::function<void()> work) {
  if (!work) {
    return;
  }
  if (delay <= std::chrono::nanoseconds::zero()) {
    async(std::move(work));
    return;
  }
  DelayedWorkTimer::instance().add(std::chrono::steady_clock::now() + delay, shared_from_this(),
                                   std::move(work));
}

bool DispatchQueue::isCurrent() const noexcept {
  for (const CurrentQueueFrame* frame = tCurrentQueue; frame != nullptr; frame = frame->outer) {
    if (frame->queue == this) {
      return true;
    }
  }
  return false;
}

void DispatchQueue::assertCurrent() const noexcept {
  if (!isCurrent()) {
    fatal("expected to run on dispatch queue '%s', but running elsewhere", label_.c_str());
  }
}

DispatchQueue::DrainEnd DispatchQueue::drain(std::size_t limit, std::size_t* ran) {
  CurrentQueueScope scope(this);
  for (std::size_t i = 0; i < limit; ++i) {
    Item item;
    {
      std::lock_guard lock(mutex_);
      if (items_.empty()) {
        break;
      }
      item = std::move(items_.front());
      items_.pop_front();
      state_.fetch_sub(kPendingUnit, std::memory_order_acq_rel);
    }
    if (item.waiter != nullptr) {
      item.waiter->handOff();  // the owned bit now belongs to the sync() caller
      return DrainEnd::HandedOff;
    }
    runAsyncItem(item.work, label_);
    ++*ran;
  }
  if (pendingCount(state_.load(std::memory_order_acquire)) > 0) {
    return DrainEnd::StillOwned;
  }
  release();
  return DrainEnd::Released;
}

void DispatchQueue::trySchedule() {
  const std::uint64_t before = state_.fetch_or(kOwnedBit, std::memory_order_acq_rel);
  if ((before & kOwnedBit) == 0) {
    schedule();
  }
}

void DispatchQueue::schedule() {
  if (target_ == Target::MainThread) {
    MainDriver::instance().signal();
  } else {
    Pool::instance().submit(shared_from_this());
  }
}

void DispatchQueue::release() {
  std::uint64_t ownedIdle = kOwnedBit;
  if (state_.compare_exchange_strong(ownedIdle, 0, std::memory_order_release,
                                     std::memory_order_relaxed)) {
    return;
  }
  const std::uint64_t before = state_.fetch_and(~kOwnedBit, std::memory_order_acq_rel);
  if (pendingCount(before) > 0) {
    trySchedule();
  }
}

void DispatchQueue::waitForTurn() {
  SyncWaiter waiter;
  std::uint64_t before;
  {
    std::lock_guard lock(mutex_);
    items_.push_back(Item{{}, &waiter});
    before = state_.fetch_add(kPendingUnit, std::memory_order_acq_rel);
  }
  if ((before & kOwnedBit) == 0) {
    trySchedule();
  }
  const bool onWorker = tIsPoolWorker;
  if (onWorker) {
    Pool::instance().workerBlocked();
  }
  waiter.wait();
  if (onWorker) {
    Pool::instance().workerUnblocked();
  }
}

DispatchQueue& DispatchQueue::main() { return MainDriver::instance().queue(); }

void DispatchQueue::setMainQueueDrivenByApplication(bool applicationDriven) {
  std::lock_guard lock(gMainModeMutex);
  if (gMainStarted && applicationDriven != gMainApplicationDriven) {
    fatal("setMainQueueDrivenByApplication(%s) called after the main queue was first used",
          applicationDriven ? "true" : "false");
  }
  gMainApplicationDriven = applicationDriven;
}

int DispatchQueue::mainQueueFileDescriptor() {
  MainDriver& driver = MainDriver::instance();
  return driver.applicationDriven() ? driver.fileDescriptor() : -1;
}

std::size_t DispatchQueue::drainMainQueue() {
  MainDriver& driver = MainDriver::instance();
  return driver.applicationDriven() ? driver.drainPending() : 0;
}

std::size_t DispatchQueue::workerThreadCount() { return Pool::instance().threadCount(); }

std::size_t DispatchQueue::maxWorkerThreadCount() { return Pool::instance().maxThreads(); }

void DispatchQueue::setWorkerIdleTimeoutForTesting(std::chrono::milliseconds timeout) {
  Pool::instance().setIdleTimeout(timeout);
}

}  // namespace velmora
