// The shared bus I/O thread. Threads, locks and loss handling: see
// DbusIoThread.h.
#include "DbusIoThread.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <systemd/sd-bus.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "velmora/platform/Log.h"

namespace velmora::dbusio {
namespace {

const LogHandle& ioLog() {
  static const LogHandle* handle = new LogHandle("com.vantrel.velmora.platform", "bus");
  return *handle;
}

std::uint64_t monotonicMicros() {
  timespec ts{};
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<std::uint64_t>(ts.tv_sec) * 1'000'000u + static_cast<std::uint64_t>(ts.tv_nsec) / 1000u;
}

}  // namespace

IoThread& IoThread::instance() {
  static IoThread* thread = new IoThread();
  return *thread;
}

IoThread::IoThread() : wakeFd_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
  if (wakeFd_ < 0) {
    std::fprintf(stderr, "velmora: cannot make the bus thread's eventfd: %s\n", std::strerror(errno));
    std::abort();
  }
}

bool IoThread::isCurrent() const noexcept {
  return ioThreadId_.load(std::memory_order_acquire) == std::this_thread::get_id();
}

void IoThread::startThreadLocked() {
  running_ = true;
  thread_ = std::thread([this] { run(); });
}

void IoThread::post(std::function<void()> fn) {
  {
    std::lock_guard lock(mutex_);
    commands_.push_back(std::move(fn));
    if (!running_) {
      startThreadLocked();
    }
  }
  const std::uint64_t one = 1;
  // A full counter still reads as readable, so a failed write loses nothing.
  (void)::write(wakeFd_, &one, sizeof one);
}

void IoThread::shutdown() {
  if (isCurrent()) {
    std::fprintf(stderr, "velmora: the bus I/O thread cannot shut itself down\n");
    std::abort();
  }
  std::lock_guard serial(shutdownMutex_);
  std::thread finishing;
  {
    std::lock_guard lock(mutex_);
    if (!running_) {
      return;
    }
    stopRequested_ = true;
    finishing = std::move(thread_);
  }
  const std::uint64_t one = 1;
  (void)::write(wakeFd_, &one, sizeof one);
  finishing.join();
  std::lock_guard lock(mutex_);
  running_ = false;
  stopRequested_ = false;
  if (!commands_.empty()) {
    startThreadLocked();
  }
}

Bus* IoThread::bus(const std::string& address, std::string* error) {
  auto found = buses_.find(address);
  if (found != buses_.end()) {
    return found->second.get();
  }
  sd_bus* raw = nullptr;
  int r = 0;
  if (address.empty()) {
    r = sd_bus_open_user(&raw);
  } else {
    r = sd_bus_new(&raw);
    if (r >= 0) r = sd_bus_set_address(raw, address.c_str());
    if (r >= 0) r = sd_bus_set_bus_client(raw, 1);
    if (r >= 0) r = sd_bus_start(raw);
  }
  if (r < 0) {
    if (raw != nullptr) {
      sd_bus_unref(raw);
    }
    if (error != nullptr) {
      *error = std::string("cannot open the bus: ") + std::strerror(-r);
    }
    ioLog().logf(LogLevel::Error, "cannot open the bus %s: %s", address.empty() ? "(session)" : address.c_str(),
                 std::strerror(-r));
    return nullptr;
  }
  (void)sd_bus_set_description(raw, "velmora");
  auto entry = std::make_unique<Bus>();
  entry->id = nextBusId_++;
  entry->address = address;
  entry->bus = raw;
  Bus* result = entry.get();
  buses_.emplace(address, std::move(entry));
  return result;
}

Bus* IoThread::findBus(std::uint64_t id) {
  for (auto& [address, entry] : buses_) {
    if (entry->id == id) {
      return entry.get();
    }
  }
  return nullptr;
}

void IoThread::addBusLostListener(BusLostListener listener) { lostListeners_.push_back(std::move(listener)); }

IoThread::TimerId IoThread::addTimer(Clock::time_point when, std::function<void()> fn) {
  TimerId id = nextTimerId_++;
  timers_.emplace(std::make_pair(when, id), std::move(fn));
  timerDue_.emplace(id, when);
  return id;
}

void IoThread::cancelTimer(TimerId id) {
  auto found = timerDue_.find(id);
  if (found == timerDue_.end()) {
    return;
  }
  timers_.erase(std::make_pair(found->second, id));
  timerDue_.erase(found);
}

void IoThread::whenFlushed(Bus& bus, std::function<void(bool)> fn) { bus.flushWaiters.push_back(std::move(fn)); }

void IoThread::lose(std::uint64_t busId, bool shuttingDown) {
  Bus* entry = findBus(busId);
  if (entry == nullptr) {
    return;
  }
  if (!shuttingDown) {
    ioLog().logf(LogLevel::Default, "bus connection %s closed",
                 entry->address.empty() ? "(session)" : entry->address.c_str());
  }
  for (const BusLostListener& listener : lostListeners_) {
    listener(*entry, shuttingDown);
  }
  std::vector<std::function<void(bool)>> waiters = std::move(entry->flushWaiters);
  entry->flushWaiters.clear();
  for (auto& waiter : waiters) {
    waiter(false);
  }
  // Listeners have dropped their slots; nothing is left to flush on a closed
  // bus, and at shutdown queued writes are abandoned along with their callers.
  sd_bus_close_unref(entry->bus);
  buses_.erase(entry->address);
}

void IoThread::processBuses() {
  std::vector<std::uint64_t> ids;
  ids.reserve(buses_.size());
  for (auto& [address, entry] : buses_) {
    ids.push_back(entry->id);
  }
  for (std::uint64_t id : ids) {
    Bus* entry = findBus(id);
    if (entry == nullptr) {
      continue;
    }
    bool lost = false;
    for (;;) {
      int r = sd_bus_process(entry->bus, nullptr);
      if (r < 0) {
        lost = true;
        break;
      }
      if (r == 0) {
        break;
      }
    }
    if (lost || sd_bus_is_open(entry->bus) <= 0) {
      lose(id, false);
      continue;
    }
    if (!entry->flushWaiters.empty()) {
      std::uint64_t queued = 0;
      if (sd_bus_get_n_queued_write(entry->bus, &queued) >= 0 && queued == 0) {
        std::vector<std::function<void(bool)>> waiters = std::move(entry->flushWaiters);
        entry->flushWaiters.clear();
        for (auto& waiter : waiters) {
          waiter(true);
        }
      }
    }
  }
}

void IoThread::runDueTimers() {
  const Clock::time_point now = Clock::now();
  while (!timers_.empty() && timers_.begin()->first.first <= now) {
    auto first = timers_.begin();
    TimerId id = first->first.second;
    std::function<void()> fn = std::move(first->second);
    timers_.erase(first);
    timerDue_.erase(id);
    fn();
  }
}

void IoThread::pollOnce() {
  std::vector<pollfd> fds;
  fds.reserve(buses_.size() + 1);
  fds.push_back(pollfd{wakeFd_, POLLIN, 0});
  std::uint64_t deadline = UINT64_MAX;  // CLOCK_MONOTONIC microseconds
  std::vector<std::uint64_t> lost;
  for (auto& [address, entry] : buses_) {
    int fd = sd_bus_get_fd(entry->bus);
    int events = sd_bus_get_events(entry->bus);
    if (fd < 0 || events < 0) {
      lost.push_back(entry->id);
      continue;
    }
    fds.push_back(pollfd{fd, static_cast<short>(events), 0});
    std::uint64_t busDeadline = UINT64_MAX;
    if (sd_bus_get_timeout(entry->bus, &busDeadline) >= 0 && busDeadline < deadline) {
      deadline = busDeadline;
    }
  }
  for (std::uint64_t id : lost) {
    lose(id, false);
  }
  if (!lost.empty()) {
    return;  // the loop comes round again with the remaining buses
  }
  const std::uint64_t now = monotonicMicros();
  if (!timers_.empty()) {
    auto untilTimer = std::chrono::duration_cast<std::chrono::microseconds>(timers_.begin()->first.first - Clock::now());
    std::uint64_t timerDeadline = now + static_cast<std::uint64_t>(std::max<std::int64_t>(0, untilTimer.count()));
    deadline = std::min(deadline, timerDeadline);
  }
  timespec timeout{};
  timespec* timeoutPtr = nullptr;
  if (deadline != UINT64_MAX) {
    std::uint64_t wait = deadline > now ? deadline - now : 0;
    timeout.tv_sec = static_cast<time_t>(wait / 1'000'000u);
    timeout.tv_nsec = static_cast<long>((wait % 1'000'000u) * 1000u);
    timeoutPtr = &timeout;
  }
  int r = ::ppoll(fds.data(), fds.size(), timeoutPtr, nullptr);
  if (r < 0 && errno != EINTR) {
    ioLog().logf(LogLevel::Error, "ppoll failed: %s", std::strerror(errno));
  }
  if (fds[0].revents & POLLIN) {
    std::uint64_t count = 0;
    (void)::read(wakeFd_, &count, sizeof count);
  }
}

void IoThread::run() {
  ioThreadId_.store(std::this_thread::get_id(), std::memory_order_release);
  for (;;) {
    std::deque<std::function<void()>> batch;
    bool stop = false;
    {
      std::lock_guard lock(mutex_);
      batch.swap(commands_);
      stop = stopRequested_;
    }
    for (auto& command : batch) {
      command();
    }
    batch.clear();
    if (stop) {
      std::vector<std::uint64_t> ids;
      for (auto& [address, entry] : buses_) {
        ids.push_back(entry->id);
      }
      for (std::uint64_t id : ids) {
        lose(id, true);
      }
      break;
    }
    processBuses();
    runDueTimers();
    {
      // Commands queued while we dispatched are run before sleeping.
      std::lock_guard lock(mutex_);
      if (!commands_.empty() || stopRequested_) {
        continue;
      }
    }
    pollOnce();
  }
  ioThreadId_.store(std::thread::id(), std::memory_order_release);
}

}  // namespace velmora::dbusio
