#include "StoreWorkers.h"

#include <system_error>
#include <thread>
#include <utility>

#include "velmora/platform/Log.h"
#include "zkv/ZKVLog.h"

namespace velmorad {

void StoreWorkers::SerialQueue::async(std::function<void()> work) {
  bool schedule = false;
  {
    std::lock_guard lock(mutex_);
    work_.push_back(std::move(work));
    schedule = !std::exchange(scheduled_, true);
  }
  if (schedule) pool_.submit(shared_from_this());
}

void StoreWorkers::SerialQueue::sync(const std::function<void()>& work) {
  std::mutex doneMutex;
  std::condition_variable doneSignal;
  bool done = false;
  async([&] {
    work();
    std::lock_guard lock(doneMutex);
    done = true;
    doneSignal.notify_one();
  });
  std::unique_lock lock(doneMutex);
  doneSignal.wait(lock, [&] { return done; });
}

bool StoreWorkers::SerialQueue::idle() {
  std::lock_guard lock(mutex_);
  return !scheduled_;
}

bool StoreWorkers::SerialQueue::runBatch(std::size_t limit) {
  for (std::size_t ran = 0; ran < limit; ++ran) {
    std::function<void()> item;
    {
      std::lock_guard lock(mutex_);
      if (work_.empty()) {
        scheduled_ = false;
        return false;
      }
      item = std::move(work_.front());
      work_.pop_front();
    }
    item();
  }
  std::lock_guard lock(mutex_);
  if (work_.empty()) scheduled_ = false;
  return scheduled_;
}

StoreWorkers::StoreWorkers(std::size_t maxThreads, std::chrono::milliseconds idleTimeout, ThreadStarter starter)
    : max_(maxThreads > 0 ? maxThreads : 1),
      idleTimeout_(idleTimeout),
      starter_(starter ? std::move(starter) : [](std::function<void()> body) { std::thread(std::move(body)).detach(); }) {}

StoreWorkers::~StoreWorkers() { drain(); }

void StoreWorkers::drain() {
  std::unique_lock lock(mutex_);
  stopping_ = true;
  wake_.notify_all();
  gone_.wait(lock, [&] { return threads_ == 0; });
  stopping_ = false;
  lock.unlock();
  runReadyHere();  // what a failed thread start left behind
}

std::size_t StoreWorkers::threadCount() {
  std::lock_guard lock(mutex_);
  return threads_;
}

void StoreWorkers::submit(std::shared_ptr<SerialQueue> queue) {
  bool start = false;
  bool wake = false;
  {
    std::lock_guard lock(mutex_);
    ready_.push_back(std::move(queue));
    wake = waiting_ > 0;
    if (ready_.size() > waiting_ && threads_ < max_) {
      ++threads_;
      start = true;
    }
  }
  if (wake) wake_.notify_one();
  if (!start) return;
  try {
    starter_([this] { workerMain(); });
    return;
  } catch (const std::system_error& e) {
    ZKVGetDefaultLog()->log(velmora::LogLevel::Error,
                            std::string("velmorad: cannot start a store worker: ") + e.what());
  }
  bool alone = false;
  {
    std::lock_guard lock(mutex_);
    alone = --threads_ == 0;
  }
  gone_.notify_all();
  // With a worker alive the work waits for it; with none, nobody else would
  // ever run it.
  if (alone) runReadyHere();
}

void StoreWorkers::runReadyHere() {
  for (;;) {
    std::shared_ptr<SerialQueue> queue;
    {
      std::lock_guard lock(mutex_);
      if (ready_.empty()) return;
      queue = std::move(ready_.front());
      ready_.pop_front();
    }
    while (queue->runBatch(kBatchSize)) {
    }
  }
}

void StoreWorkers::workerMain() {
  std::unique_lock lock(mutex_);
  for (;;) {
    if (ready_.empty()) {
      if (stopping_) break;
      ++waiting_;
      const bool woken = wake_.wait_for(lock, idleTimeout_, [&] { return !ready_.empty() || stopping_; });
      --waiting_;
      if (!woken) break;  // idle too long
      continue;
    }
    std::shared_ptr<SerialQueue> queue = std::move(ready_.front());
    ready_.pop_front();
    lock.unlock();
    const bool more = queue->runBatch(kBatchSize);
    lock.lock();
    if (more) ready_.push_back(std::move(queue));
  }
  --threads_;
  gone_.notify_all();
}

}  // namespace velmorad
