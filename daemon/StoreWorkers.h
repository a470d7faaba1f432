// StoreWorkers: the threads that run velmorad's store work, and the serial
// queues (one per open store) they run it from.
//
// Design note
// - Threads. At most maxThreads workers, started when queues are ready and
//   no worker is free, each leaving after idleTimeout without work. A
//   store's work blocks on fsync, so the bound is well above the core count
//   (a few stores' writes must not hold up every other store), yet it is a
//   bound: ten thousand stores do not make ten thousand threads.
// - A thread that cannot be started is not fatal: while some worker lives,
//   the work waits for it; when none does, the caller that queued the work
//   runs every ready queue itself until none is left, so work is never
//   stranded.
// - Serial execution. A queue is in the pool's ready list, or being run by
//   one worker, exactly while `scheduled_` is set; a worker runs a bounded
//   batch of its items and puts it back at the end of the list when more
//   are waiting, so one busy store cannot starve the others.
// - Locks. StoreWorkers::mutex_ guards the ready list and thread counts;
//   SerialQueue::mutex_ guards its items. Neither is held while work runs;
//   a queue's lock may be taken under the pool's, never the reverse.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>

namespace velmorad {

class StoreWorkers {
 public:
  // Starts a thread running body, detached; throws std::system_error when
  // it cannot. Replaceable so a test can make thread creation fail.
  using ThreadStarter = std::function<void(std::function<void()> body)>;

  // A serial queue of work on the pool. Held by std::shared_ptr; every
  // method is safe from any thread.
  class SerialQueue : public std::enable_shared_from_this<SerialQueue> {
   public:
    explicit SerialQueue(StoreWorkers& pool) : pool_(pool) {}
    // Runs work after everything queued before it, on a worker (or, when no
    // worker can be started, on the calling thread before this returns).
    // Never blocks otherwise; takes ownership of work.
    void async(std::function<void()> work);
    // Runs work as async() does and waits for it. Never from this queue's
    // own work (that would wait for itself).
    void sync(const std::function<void()>& work);
    // Nothing queued or running. A snapshot; never blocks.
    bool idle();

   private:
    friend class StoreWorkers;
    // Runs up to limit items; returns whether more are waiting (the queue
    // then stays scheduled).
    bool runBatch(std::size_t limit);

    StoreWorkers& pool_;
    std::mutex mutex_;
    std::deque<std::function<void()>> work_;  // guarded by mutex_
    bool scheduled_ = false;                  // guarded by mutex_: ready or being run
  };

  // Never fails or blocks; starts no thread yet. starter empty: std::thread.
  explicit StoreWorkers(std::size_t maxThreads, std::chrono::milliseconds idleTimeout = std::chrono::seconds(10),
                        ThreadStarter starter = {});
  // Waits until the last worker has left; queue no work meanwhile.
  ~StoreWorkers();
  StoreWorkers(const StoreWorkers&) = delete;
  StoreWorkers& operator=(const StoreWorkers&) = delete;

  // A new, empty serial queue on this pool; the caller owns it.
  std::shared_ptr<SerialQueue> makeQueue() { return std::make_shared<SerialQueue>(*this); }

  // Waits until every queued item has run and every worker has left. Call
  // once nothing queues any more (at shutdown).
  void drain();

  // Live workers now. Never blocks (beyond a short lock).
  std::size_t threadCount();

 private:
  static constexpr std::size_t kBatchSize = 8;

  // Adds a queue that just became scheduled; starts a worker when needed.
  void submit(std::shared_ptr<SerialQueue> queue);
  // Runs every ready queue on the calling thread until none is left.
  void runReadyHere();
  void workerMain();

  const std::size_t max_;                      // immutable
  const std::chrono::milliseconds idleTimeout_;  // immutable
  const ThreadStarter starter_;                // immutable
  std::mutex mutex_;
  std::condition_variable wake_;  // work arrived, or stopping_
  std::condition_variable gone_;  // a worker left
  std::deque<std::shared_ptr<SerialQueue>> ready_;  // guarded by mutex_
  std::size_t threads_ = 0;                         // guarded by mutex_: started, not yet left
  std::size_t waiting_ = 0;                         // guarded by mutex_: idle workers
  bool stopping_ = false;                           // guarded by mutex_
};

}  // namespace velmorad
