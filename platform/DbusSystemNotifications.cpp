// Session-bus system notifications.

#include "InstalledSlot.h"
//
// Design note
// - Threads. The caller's thread registers an Observation in the centre's
//   table, then the bus I/O thread (NotifyIo) files it under its name
//   group: one bus match per (bus address, name), shared by every observer
//   of that name in the process. A received posting marks each observer of
//   the group pending and queues one relay on the observer's queue.
// - Locks. State::mutex guards the centre's token table; Observation::mutex
//   guards one observer's active/pending/running state and its callback's
//   destruction. Neither is held while a callback runs or while waiting for
//   the I/O thread; no path holds both. NotifyIo's fields belong to the I/O
//   thread.
// - Waiting. addObserver() and post() wait for the I/O thread, which never
//   waits for anyone. removeObserver() waits on Observation::idle for a
//   callback running on another thread, never for one running on its own.
#include "velmora/platform/DbusNotify.h"
#include "velmora/platform/SystemNotifications.h"

#include <systemd/sd-bus.h>

#include <atomic>
#include <condition_variable>
#include <cstring>
#include <future>
#include <map>
#include <mutex>
#include <thread>
#include <unordered_map>
#include <vector>

#include "DbusIoThread.h"
#include "velmora/platform/Dispatch.h"
#include "velmora/platform/Log.h"
#include "velmora/platform/PropertyList.h"

namespace velmora {
namespace {

using dbusio::IoThread;

constexpr const char* kNotifyPath = "/com/vantrel/Notify";
constexpr const char* kNotifyInterface = "com.vantrel.Notify";
constexpr const char* kNotifyMember = "Posted";
constexpr std::chrono::seconds kResubscribeDelay{1};

const LogHandle& notifyLog() {
  static const LogHandle* handle = new LogHandle("com.vantrel.velmora.platform", "notify");
  return *handle;
}


std::atomic<SystemObserverToken> nextToken{1};

// One observation, shared by the centre's table, the I/O thread's name group
// and relays queued for it.
class Observation : public std::enable_shared_from_this<Observation> {
 public:
  Observation(SystemObserverToken token, std::string name, const void* owner, std::shared_ptr<DispatchQueue> queue,
              std::function<void()> callback)
      : token_(token), name_(std::move(name)), owner_(owner), queue_(std::move(queue)), callback_(std::move(callback)) {}

  SystemObserverToken token() const noexcept { return token_; }
  const std::string& name() const noexcept { return name_; }
  const void* owner() const noexcept { return owner_; }

  // I/O thread: queues one relay unless one is queued already.
  void relay() {
    {
      std::lock_guard lock(mutex_);
      if (!active_ || pending_) return;
      pending_ = true;
    }
    auto work = [self = shared_from_this()] { self->run(); };
    if (queue_) {
      queue_->async(std::move(work));
    } else {
      DispatchQueue::main().async(std::move(work));
    }
  }

  // Any thread: no callback starts after this returns, and one running on
  // another thread has finished.
  void deactivate() {
    std::function<void()> doomed;
    {
      std::unique_lock lock(mutex_);
      active_ = false;
      const auto me = std::this_thread::get_id();
      idle_.wait(lock, [&] { return !running_ || runningOn_ == me; });
      if (!running_) doomed = std::move(callback_);
    }
    // The callback and what it captured go here, outside the lock.
  }

 private:
  // On the observer's queue.
  void run() {
    {
      std::lock_guard lock(mutex_);
      pending_ = false;
      if (!active_) return;
      running_ = true;
      runningOn_ = std::this_thread::get_id();
    }
    // Unlocked: callback_ changes only when inactive and not running.
    callback_();
    std::function<void()> doomed;
    {
      std::lock_guard lock(mutex_);
      running_ = false;
      runningOn_ = std::thread::id();
      if (!active_) doomed = std::move(callback_);  // removed from inside its own callback
    }
    idle_.notify_all();
  }

  const SystemObserverToken token_;              // immutable
  const std::string name_;                       // immutable
  const void* const owner_;                      // immutable; never dereferenced
  const std::shared_ptr<DispatchQueue> queue_;   // immutable
  std::mutex mutex_;                             // guards the fields below
  std::condition_variable idle_;                 // with mutex_: a running callback returned
  std::function<void()> callback_;               // guarded by mutex_ for destruction; called unlocked while running_
  bool active_ = true;                           // guarded by mutex_
  bool pending_ = false;                         // guarded by mutex_
  bool running_ = false;                         // guarded by mutex_
  std::thread::id runningOn_;                    // guarded by mutex_
};

// The observers of one name on one bus address, and their shared
// subscription. Every field belongs to the I/O thread.
struct NameGroup {
  std::string address;
  std::string name;
  std::uint64_t busId = 0;
  sd_bus_slot* match = nullptr;  // owned; null while unsubscribed
  bool installed = false;        // the bus confirmed the match
  bool relayOnInstall = false;   // resubscribing after a loss: postings may have been missed
  std::vector<std::shared_ptr<Observation>> observers;
  std::vector<std::function<void()>> waiters;  // addObserver() callers waiting for the match
};

// Everything here runs on the I/O thread only.
class NotifyIo {
 public:
  static NotifyIo& instance() {
    static NotifyIo* io = new NotifyIo();
    return *io;
  }

  void add(const std::string& address, std::shared_ptr<Observation> observation, std::function<void()> done) {
    NameGroup& group = groups_[{address, observation->name()}];
    group.address = address;
    group.name = observation->name();
    group.observers.push_back(std::move(observation));
    if (group.installed) {
      done();
      return;
    }
    group.waiters.push_back(std::move(done));
    if (group.match == nullptr) subscribe(group);
  }

  void remove(const std::string& address, const std::shared_ptr<Observation>& observation) {
    auto found = groups_.find({address, observation->name()});
    if (found == groups_.end()) return;
    NameGroup& group = found->second;
    std::erase(group.observers, observation);
    if (!group.observers.empty()) return;
    sd_bus_slot_unref(group.match);
    releaseWaiters(group);
    groups_.erase(found);
  }

  void post(const std::string& address, const std::string& name, std::function<void(bool)> done) {
    std::string why;
    dbusio::Bus* bus = IoThread::instance().bus(address, &why);
    if (bus == nullptr) {
      done(false);
      return;
    }
    int r = emitSystemNotification(bus->bus, name);
    if (r < 0) {
      notifyLog().logf(LogLevel::Error, "cannot post %s: %s", name.c_str(), std::strerror(-r));
      done(false);
      return;
    }
    IoThread::instance().whenFlushed(*bus, std::move(done));
  }

 private:
  NotifyIo() {
    IoThread::instance().addBusLostListener([this](dbusio::Bus& bus, bool) { busLost(bus); });
  }

  static void releaseWaiters(NameGroup& group) {
    std::vector<std::function<void()>> waiters = std::move(group.waiters);
    group.waiters.clear();
    for (auto& waiter : waiters) waiter();
  }

  void subscribe(NameGroup& group) {
    std::string why;
    dbusio::Bus* bus = IoThread::instance().bus(group.address, &why);
    if (bus == nullptr) {
      releaseWaiters(group);
      scheduleResubscribe();
      return;
    }
    std::string rule = std::string("type='signal',path='") + kNotifyPath + "',interface='" + kNotifyInterface +
                       "',member='" + kNotifyMember + "',arg0='" + group.name + "'";
    int r = sd_bus_add_match_async(bus->bus, &group.match, rule.c_str(), onPosted, onInstalled, &group);
    if (r < 0) {
      notifyLog().logf(LogLevel::Error, "cannot observe %s: %s", group.name.c_str(), std::strerror(-r));
      group.match = nullptr;
      releaseWaiters(group);
      return;
    }
    group.busId = bus->id;
  }

  void scheduleResubscribe() {
    if (resubscribeScheduled_) return;
    resubscribeScheduled_ = true;
    IoThread::instance().addTimer(IoThread::Clock::now() + kResubscribeDelay, [this] {
      resubscribeScheduled_ = false;
      for (auto& [key, group] : groups_) {
        if (group.match == nullptr) subscribe(group);
      }
    });
  }

  void busLost(dbusio::Bus& bus) {
    bool any = false;
    for (auto& [key, group] : groups_) {
      if (group.busId != bus.id || group.match == nullptr) continue;
      group.match = sd_bus_slot_unref(group.match);
      group.installed = false;
      group.busId = 0;
      group.relayOnInstall = true;
      releaseWaiters(group);
      any = true;
    }
    if (any) scheduleResubscribe();
  }

  static int onInstalled(sd_bus_message* m, void* userdata, sd_bus_error*) {
    auto* group = static_cast<NameGroup*>(userdata);
    if (sd_bus_message_is_method_error(m, nullptr)) {
      const sd_bus_error* error = sd_bus_message_get_error(m);
      notifyLog().logf(LogLevel::Error, "the bus refused to watch %s: %s", group->name.c_str(),
                       error != nullptr && error->message != nullptr ? error->message : "unknown error");
    } else {
      group->installed = true;
      if (group->relayOnInstall) {
        group->relayOnInstall = false;
        for (auto& observation : group->observers) observation->relay();
      }
    }
    releaseWaiters(*group);
    return 1;
  }

  static int onPosted(sd_bus_message* m, void* userdata, sd_bus_error*) {
    auto* group = static_cast<NameGroup*>(userdata);
    const char* name = nullptr;
    if (sd_bus_message_read(m, "s", &name) < 0 || group->name != name) return 0;
    for (auto& observation : group->observers) observation->relay();
    return 0;
  }

  // std::map: node-based, so the groups' addresses (slot userdata) are stable.
  std::map<std::pair<std::string, std::string>, NameGroup> groups_;  // I/O thread; by (address, name)
  bool resubscribeScheduled_ = false;                                 // I/O thread
};

// Never destroyed: centres handed out stay valid until exit.
InstalledSlot<SystemNotificationCenter>& centerSlot() {
  static auto* slot = new InstalledSlot<SystemNotificationCenter>(
      [] { return std::make_shared<DbusSystemNotificationCenter>(); });
  return *slot;
}

}  // namespace

struct DbusSystemNotificationCenter::State {
  explicit State(std::string address) : busAddress(std::move(address)) {}

  const std::string busAddress;  // immutable
  std::mutex mutex;              // guards observations
  std::unordered_map<SystemObserverToken, std::shared_ptr<Observation>> observations;  // guarded by mutex

  // Deactivates and unfiles observations already taken out of the table.
  void retire(const std::vector<std::shared_ptr<Observation>>& retired) {
    for (const auto& observation : retired) {
      observation->deactivate();
      IoThread::instance().post(
          [address = busAddress, observation] { NotifyIo::instance().remove(address, observation); });
    }
  }
};

DbusSystemNotificationCenter::DbusSystemNotificationCenter(std::string busAddress)
    : state_(std::make_shared<State>(std::move(busAddress))) {}

DbusSystemNotificationCenter::~DbusSystemNotificationCenter() {
  std::vector<std::shared_ptr<Observation>> retired;
  {
    std::lock_guard lock(state_->mutex);
    for (auto& [token, observation] : state_->observations) retired.push_back(std::move(observation));
    state_->observations.clear();
  }
  state_->retire(retired);
}

SystemObserverToken DbusSystemNotificationCenter::addObserver(std::string name, std::shared_ptr<DispatchQueue> queue,
                                                              std::function<void()> callback, const void* owner) {
  if (!isValidSystemNotificationName(name) || !callback) return kNoSystemObserverToken;
  const SystemObserverToken token = nextToken.fetch_add(1, std::memory_order_relaxed);
  auto observation =
      std::make_shared<Observation>(token, std::move(name), owner, std::move(queue), std::move(callback));
  {
    std::lock_guard lock(state_->mutex);
    state_->observations.emplace(token, observation);
  }
  auto subscribed = std::make_shared<std::promise<void>>();
  std::future<void> done = subscribed->get_future();
  IoThread::instance().post([address = state_->busAddress, observation, subscribed] {
    NotifyIo::instance().add(address, observation, [subscribed] { subscribed->set_value(); });
  });
  done.wait();
  return token;
}

void DbusSystemNotificationCenter::removeObserver(SystemObserverToken token) {
  std::vector<std::shared_ptr<Observation>> retired;
  {
    std::lock_guard lock(state_->mutex);
    auto found = state_->observations.find(token);
    if (found == state_->observations.end()) return;
    retired.push_back(std::move(found->second));
    state_->observations.erase(found);
  }
  state_->retire(retired);
}

void DbusSystemNotificationCenter::removeObservers(const void* owner) {
  std::vector<std::shared_ptr<Observation>> retired;
  {
    std::lock_guard lock(state_->mutex);
    for (auto it = state_->observations.begin(); it != state_->observations.end();) {
      if (it->second->owner() == owner) {
        retired.push_back(std::move(it->second));
        it = state_->observations.erase(it);
      } else {
        ++it;
      }
    }
  }
  state_->retire(retired);
}

bool DbusSystemNotificationCenter::post(std::string_view name) {
  if (!isValidSystemNotificationName(name)) return false;
  auto sent = std::make_shared<std::promise<bool>>();
  std::future<bool> result = sent->get_future();
  IoThread::instance().post([address = state_->busAddress, name = std::string(name), sent] {
    NotifyIo::instance().post(address, name, [sent](bool ok) { sent->set_value(ok); });
  });
  return result.get();
}

bool isValidSystemNotificationName(std::string_view name) noexcept {
  return !name.empty() && name.find_first_of(std::string_view("\0'\\", 3)) == std::string_view::npos &&
         isValidUtf8(name);
}

SystemNotificationCenter& currentSystemNotificationCenter() { return centerSlot().get(); }

std::shared_ptr<SystemNotificationCenter> setSystemNotificationCenter(std::shared_ptr<SystemNotificationCenter> center) {
  return centerSlot().exchange(std::move(center));
}

bool postSystemNotification(std::string_view name) { return currentSystemNotificationCenter().post(name); }

int emitSystemNotification(sd_bus* bus, std::string_view name) {
  const std::string text(name);
  return sd_bus_emit_signal(bus, kNotifyPath, kNotifyInterface, kNotifyMember, "s", text.c_str());
}

}  // namespace velmora
