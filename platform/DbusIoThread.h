// DbusIoThread: the process's one bus I/O thread and the bus connections it
// owns. Internal to the platform layer (Ipc and SystemNotifications share
// it); not installed.
//
// Design note
// - Threads. One thread, started on the first post() and again after a
//   shutdown(), runs every bus object of the process: bus objects are
//   single-threaded, so nothing else may touch them. Its loop runs queued
//   commands, lets each bus dispatch what it has read, runs due timers, then
//   polls an eventfd (wake-ups from post()) and each bus's socket.
// - Locks. mutex_ guards the command queue and the run/stop state;
//   shutdownMutex_ serialises shutdown() callers and is taken before mutex_.
//   Everything else here (buses, timers, listeners, flush waiters) belongs to
//   the I/O thread alone and needs no lock.
// - Loss. A bus that closes, or every bus at shutdown, is reported to the
//   bus-lost listeners before it is freed, so each module can complete what
//   it has outstanding on it and drop its slots.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <unordered_map>
#include <utility>
#include <vector>

struct sd_bus;

namespace velmora::dbusio {

// One open bus connection. Owned by the I/O thread, and every field belongs
// to it; a pointer stays valid until the bus-lost listeners for it have
// returned.
struct Bus {
  std::uint64_t id = 0;  // never reused within the process
  std::string address;   // the key it was opened for; "" = the user's session bus
  sd_bus* bus = nullptr;  // owned
  // Run with true once the write queue is empty, with false if the bus is
  // lost first.
  std::vector<std::function<void(bool)>> flushWaiters;
};

class IoThread {
 public:
  using Clock = std::chrono::steady_clock;
  using TimerId = std::uint64_t;
  // Called on the I/O thread for a bus being lost; shuttingDown tells a
  // shutdown() from the bus closing.
  using BusLostListener = std::function<void(Bus& bus, bool shuttingDown)>;

  // The process-wide instance, made on first use and never destroyed (so no
  // exit-time destructor can race a late completion). Any thread.
  static IoThread& instance();

  // Queues fn to run on the I/O thread after everything queued before it,
  // starting the thread when it is not running. Never blocks; takes
  // ownership of fn. Any thread.
  void post(std::function<void()> fn);

  // True on the I/O thread. Any thread.
  bool isCurrent() const noexcept;

  // Runs the commands queued so far, reports every bus as lost (shutting
  // down), closes them and stops the thread; commands queued meanwhile start
  // a fresh thread. Blocks until the thread has exited. Any thread but the
  // I/O thread (aborts there).
  void shutdown();

  // ---- I/O thread only ----

  // The open bus for address, opening one when there is none. Returns
  // nullptr and fills *error when it cannot be opened.
  Bus* bus(const std::string& address, std::string* error);
  // The bus with this id, or nullptr when it is gone.
  Bus* findBus(std::uint64_t id);
  // Registers a listener for lost buses; kept for the life of the process.
  void addBusLostListener(BusLostListener listener);
  // Runs fn at (or soon after) when, on the I/O thread. Survives a shutdown:
  // a due timer runs once the thread runs again.
  TimerId addTimer(Clock::time_point when, std::function<void()> fn);
  // Forgets a timer that has not run yet; unknown ids are ignored.
  void cancelTimer(TimerId id);
  // Runs fn(true) once the bus has written out everything queued so far,
  // fn(false) when the bus is lost first.
  void whenFlushed(Bus& bus, std::function<void(bool)> fn);

 private:
  IoThread();
  void run();
  void processBuses();
  void lose(std::uint64_t busId, bool shuttingDown);
  void runDueTimers();
  void pollOnce();
  void startThreadLocked();  // mutex_ held

  const int wakeFd_;  // eventfd, immutable, never closed

  std::mutex shutdownMutex_;  // serialises shutdown(); taken before mutex_
  std::mutex mutex_;          // guards commands_, running_, stopRequested_, thread_
  std::deque<std::function<void()>> commands_;  // guarded by mutex_
  bool running_ = false;                        // guarded by mutex_
  bool stopRequested_ = false;                  // guarded by mutex_
  std::thread thread_;                          // guarded by mutex_
  std::atomic<std::thread::id> ioThreadId_{};   // atomic; the running I/O thread, or none

  // I/O thread only. Timers survive restarts because the thread that owns
  // them is gone while none runs.
  std::map<std::string, std::unique_ptr<Bus>> buses_;  // I/O thread
  std::uint64_t nextBusId_ = 1;                        // I/O thread
  std::vector<BusLostListener> lostListeners_;         // I/O thread
  std::map<std::pair<Clock::time_point, TimerId>, std::function<void()>> timers_;  // I/O thread
  std::unordered_map<TimerId, Clock::time_point> timerDue_;                        // I/O thread
  TimerId nextTimerId_ = 1;                                                        // I/O thread
};

}  // namespace velmora::dbusio
