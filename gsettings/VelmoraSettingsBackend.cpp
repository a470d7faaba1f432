// VelmoraSettingsBackend: the GIO module libvelmora-gsettings.so, which makes
// Velmora a GSettings backend: "velmora" on the extension point
// "gsettings-backend", chosen with GSETTINGS_BACKEND=velmora.
//
// Design note
// - Stores. A GSettings directory maps to one NimbrelStore (SettingsPath.h);
//   its StoreState, made on first use and kept for the backend's life (at
//   most kMaxStores of them), holds the store and the values this process
//   sees: the store's values with this process's writes not yet applied on
//   top. Reads never call into the NimbrelStore: they copy a value out under
//   mutex_, converted once (SettingsValue.h) and shared by later reads, so
//   that a hand-over in flight never stalls a caller's main loop.
// - Writes. write, write_tree and reset change the visible values, signal
//   the change with the caller's origin tag before returning, and queue a
//   unit (the keys of that one call) for the flusher: one thread, started on
//   demand, that leaves after kFlusherIdle without work. It applies each
//   unit with NimbrelStore::setObjects, so that the keys of a tree reach
//   velmorad together or not at all, then hands them over with
//   synchronize(). A refused unit is logged and its keys change back (a
//   second signal, origin tag NULL), as GIO suggests for a failed write; a
//   hand-over without answer is tried again with backoff. sync() flushes on
//   the caller's thread and returns once velmorad has answered, which it
//   does after the store file is durable.
// - Changes elsewhere. A store's observer runs on libzkv's main-queue
//   thread and moves the work to GLib's main context (refreshInMainContext):
//   one snapshot of the store (so that keys written together are seen
//   together) and a signal, origin tag NULL, for every key
//   whose value differs from what this process sees and that has no write of
//   this process pending. This process's own writes come back equal, so each
//   is signalled once. GIO hands each signal to the main context of every
//   GSettings object watching.
// - Locks. mutex_ guards the store table, the flusher's queue and state, and
//   each StoreState's visible values, pending counts and units; it is held
//   for map work and value conversion only, never across a NimbrelStore
//   call or a signal. A StoreState's storeMutex serialises the calls into
//   its NimbrelStore (load, flush, snapshot), so that a snapshot and a flush
//   never interleave; it is taken before mutex_ and never held while a
//   signal is sent (a handler may call g_settings_sync(), which takes it).
// - Confinement. A process whose root holds /.flatpak-info may use only its
//   own application's stores, as velmorad allows: other directories read as
//   unset and are not writable.
#define G_SETTINGS_ENABLE_BACKEND
#include <gio/gio.h>
#include <gio/gsettingsbackend.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "SettingsPath.h"
#include "SettingsValue.h"
#include "zkv/NimbrelStore.h"
#include "zkv/ZKVLog.h"

namespace velmora::gsettings {
namespace {

using velmora::LogLevel;
using velmora::PlistDictionary;
using velmora::PropertyList;
using Clock = std::chrono::steady_clock;

// Below GLib's own backends (10) and the standard one (100), so that only
// GSETTINGS_BACKEND=velmora selects it.
constexpr gint kExtensionPriority = 5;
// Directories one process may use; beyond, a directory reads as unset and
// is not writable.
constexpr std::size_t kMaxStores = 1024;
// The store limit on keys, checked before a write is taken; NimbrelStore
// checks every limit again when the flusher applies it.
constexpr std::size_t kMaxKeys = 1024;
constexpr auto kFlusherIdle = std::chrono::seconds(10);
constexpr auto kFirstRetry = std::chrono::milliseconds(250);
constexpr auto kLastRetry = std::chrono::seconds(30);

const velmora::LogHandle& log() {
  static const velmora::LogHandle handle(LoggingSubsystem, "GSettings");
  return handle;
}

// Runs body, turning an exception (a failed allocation, a programming error
// libzkv reports) into a log line and fallback: none may cross into C.
template <class Result, class Body>
Result guarded(Result fallback, Body&& body) noexcept {
  try {
    return body();
  } catch (const std::exception& e) {
    log().log(LogLevel::Error, std::string("GSettings backend: ") + e.what());
  } catch (...) {
    log().log(LogLevel::Error, "GSettings backend: an unknown exception");
  }
  return fallback;
}

// One key's value as this process sees it, with the GVariant last read
// from it, so that repeated reads of a key share one GVariant. Guarded by
// SettingsStores::mutex_ like the map holding it.
class Entry {
 public:
  explicit Entry(PropertyList value) : value_(std::move(value)) {}
  Entry(Entry&& other) noexcept : value_(std::move(other.value_)), read_(std::exchange(other.read_, nullptr)) {}
  Entry& operator=(Entry&& other) noexcept {
    std::swap(value_, other.value_);
    std::swap(read_, other.read_);
    return *this;
  }
  ~Entry() {
    if (read_ != nullptr) g_variant_unref(read_);
  }

  const PropertyList& value() const noexcept { return value_; }
  // The value as a GVariant of the expected type: a new reference, or
  // nullptr when it has another type. Converts once per type asked.
  GVariant* read(const GVariantType* expected) {
    if (read_ == nullptr || !g_variant_is_of_type(read_, expected)) {
      GVariant* fresh = toVariant(value_, expected);
      if (fresh == nullptr) return nullptr;
      if (read_ != nullptr) g_variant_unref(read_);
      read_ = fresh;
    }
    return g_variant_ref(read_);
  }

 private:
  PropertyList value_;
  GVariant* read_ = nullptr;  // owned; nullptr until read
};

using Values = std::map<std::string, Entry, std::less<>>;

// Sets name to value in values, or removes it for none.
void assign(Values& values, std::string_view name, const PropertyList& value) {
  if (value.isNone()) {
    if (auto found = values.find(name); found != values.end()) values.erase(found);
  } else {
    values.insert_or_assign(std::string(name), Entry(value));
  }
}

// One GSettings directory and its store.
struct StoreState {
  StoreState(std::string directoryPath, DirectoryMapping directoryMapping)
      : directory(std::move(directoryPath)), mapping(std::move(directoryMapping)) {}

  const std::string directory;     // immutable
  const DirectoryMapping mapping;  // immutable
  std::mutex storeMutex;           // serialises calls into store (design note)
  // Set under storeMutex before loaded, immutable after.
  std::shared_ptr<NimbrelStore> store;
  NimbrelObserverToken observer = kNoNimbrelObserverToken;

  // Guarded by SettingsStores::mutex_.
  bool loaded = false;                              // store, observer and values are set
  bool writable = false;                            // mapped, reachable, and the store was made
  Values values;                                    // what this process sees
  std::map<std::string, int, std::less<>> pending;  // key -> units holding it, not yet applied
  std::vector<PlistDictionary> units;               // writes waiting for the flusher; none removes
  bool queued = false;                              // in the flusher's queue
  Clock::time_point dueAt;                          // when the flusher takes it
  Clock::duration retryDelay{0};                    // after a hand-over without answer
};

// A writable key: its store and its name.
struct Target {
  std::shared_ptr<StoreState> state;
  std::string_view name;  // borrows the caller's key path
};

class SettingsStores : public std::enable_shared_from_this<SettingsStores> {
 public:
  // owner: the GObject that owns this and sends the signals; borrowed.
  explicit SettingsStores(GSettingsBackend* owner) : owner_(owner), confined_(::access("/.flatpak-info", F_OK) == 0) {
    // velmorad knows a confined process by its sandbox's application name,
    // the host application identifier libzkv reads too.
    if (confined_) ownApplication_ = NimbrelStore::defaultStore()->applicationIdentifier();
  }

  // The vfuncs, with GIO's semantics; any thread. read and write never wait
  // for velmorad; the first use of a directory waits for its store to be
  // made (one bus round trip); sync() waits for velmorad's answers.
  GVariant* read(const char* key, const GVariantType* expected);
  bool write(const char* key, GVariant* value, gpointer originTag);
  bool writeTree(GTree* tree, gpointer originTag);
  void reset(const char* key, gpointer originTag);
  bool writable(const char* name);
  void subscribe(const char* name);
  void sync();

  // Hands everything over, stops the flusher and the observers. Once, from
  // the owner's finalize; blocks for the hand-overs.
  void shutdown();

 private:
  // The state of directory, made, opened and loaded on first use (its
  // NimbrelStore made and observed, one bus round trip); a second caller
  // waits for the first one's load. Never null.
  std::shared_ptr<StoreState> stateFor(std::string_view directory);
  // Makes state's store, observes it and loads its values; logs why a
  // directory has none. storeMutex held by the caller.
  void open(const std::shared_ptr<StoreState>& state);
  // The store and name of key when it can be written; nullopt (logged for
  // a key name no store takes) otherwise.
  std::optional<Target> writableTarget(const char* key);
  // Visible values and the flusher's queue: mutex_ held.
  void lockedQueueUnit(const std::shared_ptr<StoreState>& state, PlistDictionary unit);
  void lockedSchedule(const std::shared_ptr<StoreState>& state, Clock::time_point when);
  // Applies state's units and hands them over; false when velmorad did not
  // answer. Takes storeMutex; signals the keys it changed back.
  bool flush(StoreState& state);
  // The observer's work: see the design note. Takes storeMutex.
  void refresh(StoreState& state);
  // Runs refresh on GLib's global default main context; any thread.
  static void refreshInMainContext(std::weak_ptr<SettingsStores> stores, std::weak_ptr<StoreState> state);
  void flusherLoop();
  // Signals names of directory; no lock held.
  void signalKeys(const std::string& directory, std::vector<std::string> names, gpointer originTag);

  GSettingsBackend* const owner_;              // immutable; borrowed
  const bool confined_;                        // immutable
  std::optional<std::string> ownApplication_;  // immutable after construction

  std::mutex mutex_;              // guards the fields below and StoreState's guarded fields
  std::condition_variable wake_;  // wakes the flusher; with mutex_
  std::map<std::string, std::shared_ptr<StoreState>, std::less<>> stores_;  // directory -> state
  std::vector<std::shared_ptr<StoreState>> queue_;                          // states waiting for the flusher
  std::thread flusher_;          // the last flusher started; joined before the next starts
  bool flusherRunning_ = false;  // flusher_ is in its loop
  bool stopping_ = false;        // shutdown() has begun
};

GVariant* SettingsStores::read(const char* key, const GVariantType* expected) {
  const std::optional<KeyPath> path = splitKeyPath(key);
  if (!path || path->name.empty()) return nullptr;
  {
    std::lock_guard lock(mutex_);
    if (auto found = stores_.find(path->directory); found != stores_.end() && found->second->loaded) {
      Values& values = found->second->values;
      auto entry = values.find(path->name);
      return entry != values.end() ? entry->second.read(expected) : nullptr;
    }
  }
  const std::shared_ptr<StoreState> state = stateFor(path->directory);
  std::lock_guard lock(mutex_);
  auto entry = state->values.find(path->name);
  return entry != state->values.end() ? entry->second.read(expected) : nullptr;
}

bool SettingsStores::write(const char* key, GVariant* value, gpointer originTag) {
  std::optional<Target> target = writableTarget(key);
  if (!target) return false;
  PropertyList stored = toPropertyList(value);
  {
    std::lock_guard lock(mutex_);
    Values& values = target->state->values;
    if (!values.contains(target->name) && values.size() >= kMaxKeys) {
      log().log(LogLevel::Default,
                std::string(key) + ": the store holds " + std::to_string(kMaxKeys) + " keys already; not written");
      return false;
    }
    assign(values, target->name, stored);
    PlistDictionary unit;
    unit.emplace(std::string(target->name), std::move(stored));
    lockedQueueUnit(target->state, std::move(unit));
  }
  g_settings_backend_changed(owner_, key, originTag);
  return true;
}

bool SettingsStores::writeTree(GTree* tree, gpointer originTag) {
  std::vector<std::pair<const char*, GVariant*>> entries;
  g_tree_foreach(
      tree,
      [](gpointer key, gpointer value, gpointer into) -> gboolean {
        static_cast<decltype(entries)*>(into)->emplace_back(static_cast<const char*>(key),
                                                            static_cast<GVariant*>(value));
        return FALSE;
      },
      &entries);
  if (entries.empty()) return true;
  // One directory is one store, the unit in which keys land together.
  std::shared_ptr<StoreState> state;
  PlistDictionary unit;
  for (const auto& [key, value] : entries) {
    std::optional<Target> target = writableTarget(key);
    if (!target) return false;
    if (state && target->state != state) {
      log().log(LogLevel::Default, std::string("GSettings: a change of keys in ") + state->directory + " and " +
                                       target->state->directory + " cannot land together; not written");
      return false;
    }
    state = target->state;
    unit.insert_or_assign(std::string(target->name), value != nullptr ? toPropertyList(value) : PropertyList());
  }
  {
    std::lock_guard lock(mutex_);
    std::size_t count = state->values.size();
    for (const auto& [name, value] : unit) {
      const bool exists = state->values.contains(name);
      if (value.isNone() && exists) --count;
      if (!value.isNone() && !exists) ++count;
    }
    if (count > kMaxKeys && count > state->values.size()) {
      log().log(LogLevel::Default, state->directory + ": the change would make " + std::to_string(count) +
                                       " keys, over the store limit of " + std::to_string(kMaxKeys) + "; not written");
      return false;
    }
    for (const auto& [name, value] : unit) assign(state->values, name, value);
    lockedQueueUnit(state, std::move(unit));
  }
  g_settings_backend_changed_tree(owner_, tree, originTag);
  return true;
}

void SettingsStores::reset(const char* key, gpointer originTag) {
  std::optional<Target> target = writableTarget(key);
  if (!target) return;
  {
    std::lock_guard lock(mutex_);
    assign(target->state->values, target->name, PropertyList());
    PlistDictionary unit;
    unit.emplace(std::string(target->name), PropertyList());
    lockedQueueUnit(target->state, std::move(unit));
  }
  g_settings_backend_changed(owner_, key, originTag);
}

bool SettingsStores::writable(const char* name) {
  const std::optional<KeyPath> path = splitKeyPath(name);
  if (!path) return false;
  if (!path->name.empty()) return writableTarget(name).has_value();
  const std::shared_ptr<StoreState> state = stateFor(path->directory);
  std::lock_guard lock(mutex_);
  return state->writable;
}

void SettingsStores::subscribe(const char* name) {
  // Made now, the store's observer hears changes before the first read.
  if (const std::optional<KeyPath> path = splitKeyPath(name)) (void)stateFor(path->directory);
}

void SettingsStores::sync() {
  std::vector<std::shared_ptr<StoreState>> states;
  {
    std::lock_guard lock(mutex_);
    for (const auto& [directory, state] : stores_) {
      if (state->loaded && state->store) states.push_back(state);
    }
  }
  for (const std::shared_ptr<StoreState>& state : states) flush(*state);
}

void SettingsStores::shutdown() {
  sync();
  std::thread flusher;
  {
    std::lock_guard lock(mutex_);
    stopping_ = true;
    flusher.swap(flusher_);
  }
  wake_.notify_all();
  if (flusher.joinable()) flusher.join();
  std::vector<std::shared_ptr<StoreState>> states;
  {
    std::lock_guard lock(mutex_);
    for (const auto& [directory, state] : stores_) states.push_back(state);
  }
  for (const std::shared_ptr<StoreState>& state : states) {
    std::lock_guard storeLock(state->storeMutex);
    if (state->store) state->store->removeObserver(state->observer);
  }
}

std::shared_ptr<StoreState> SettingsStores::stateFor(std::string_view directory) {
  std::shared_ptr<StoreState> state;
  std::unique_lock<std::mutex> opening;
  {
    std::lock_guard lock(mutex_);
    if (auto found = stores_.find(directory); found != stores_.end()) {
      state = found->second;
      if (state->loaded) return state;
    } else if (stores_.size() >= kMaxStores) {
      state = std::make_shared<StoreState>(
          std::string(directory),
          DirectoryMapping{std::nullopt, "GSettings directory \"" + std::string(directory) +
                                             "\" is one more than the " + std::to_string(kMaxStores) +
                                             " one process may use"});
      state->loaded = true;
      log().log(LogLevel::Default, state->mapping.refusal + "; not writable");
      return state;
    } else {
      state = std::make_shared<StoreState>(std::string(directory), mapDirectory(directory));
      // Nobody else can hold it yet; others wait for it until it is loaded.
      opening = std::unique_lock(state->storeMutex);
      stores_.emplace(std::string(directory), state);
    }
  }
  if (opening.owns_lock()) {
    open(state);
  } else {
    std::lock_guard wait(state->storeMutex);
  }
  return state;
}

void SettingsStores::refreshInMainContext(std::weak_ptr<SettingsStores> stores, std::weak_ptr<StoreState> state) {
  struct Pending {
    std::weak_ptr<SettingsStores> stores;
    std::weak_ptr<StoreState> state;
  };
  // On the main context, when a loop runs it: the application's code there
  // then sees the values change between its own steps, all keys of a change
  // at once, together with their signals. When no loop runs it, GLib lets
  // this thread take the context and the values change at once.
  g_main_context_invoke_full(
      nullptr, G_PRIORITY_DEFAULT,
      [](gpointer data) -> gboolean {
        const auto* pending = static_cast<const Pending*>(data);
        const std::shared_ptr<SettingsStores> self = pending->stores.lock();
        const std::shared_ptr<StoreState> changed = pending->state.lock();
        if (!self || !changed) return G_SOURCE_REMOVE;
        try {
          self->refresh(*changed);
        } catch (const std::exception& e) {
          log().log(LogLevel::Error, changed->directory + ": a change from elsewhere was lost: " + e.what());
        }
        return G_SOURCE_REMOVE;
      },
      new Pending{std::move(stores), std::move(state)}, [](gpointer data) { delete static_cast<Pending*>(data); });
}

void SettingsStores::open(const std::shared_ptr<StoreState>& state) {
  PlistDictionary values;
  bool made = false;
  const std::optional<StoreAddress>& address = state->mapping.address;
  if (!address) {
    log().log(LogLevel::Default, state->mapping.refusal + "; not writable");
  } else if (!storeReachable(*address, confined_, ownApplication_)) {
    log().log(LogLevel::Default, "GSettings directory \"" + state->directory + "\" is in the store of " +
                                     address->application + ", which a confined " +
                                     ownApplication_.value_or("application") + " may not use; not writable");
  } else {
    try {
      state->store = NimbrelStore::storeForApplication(address->application, address->store);
      if (state->store) {
        state->observer = state->store->addObserver(
            [weakSelf = weak_from_this(), weakState = std::weak_ptr<StoreState>(state)](const NimbrelChange&) {
              refreshInMainContext(weakSelf, weakState);
            });
        values = state->store->dictionaryRepresentation();
        made = true;
      }
    } catch (const std::exception& e) {
      log().log(LogLevel::Error, "GSettings directory \"" + state->directory + "\": no store: " + e.what());
    }
  }
  std::lock_guard lock(mutex_);
  for (const auto& [name, value] : values) state->values.emplace_hint(state->values.end(), name, Entry(value));
  state->writable = made;
  state->loaded = true;
}

std::optional<Target> SettingsStores::writableTarget(const char* key) {
  const std::optional<KeyPath> path = splitKeyPath(key);
  if (!path) return std::nullopt;
  if (const std::string refusal = keyNameRefusal(path->name); !refusal.empty()) {
    log().log(LogLevel::Default, std::string(key) + ": " + refusal + "; not writable");
    return std::nullopt;
  }
  std::shared_ptr<StoreState> state = stateFor(path->directory);
  std::lock_guard lock(mutex_);
  if (!state->writable) return std::nullopt;
  return Target{std::move(state), path->name};
}

void SettingsStores::lockedQueueUnit(const std::shared_ptr<StoreState>& state, PlistDictionary unit) {
  for (const auto& entry : unit) ++state->pending[entry.first];
  state->units.push_back(std::move(unit));
  lockedSchedule(state, Clock::now());
}

void SettingsStores::lockedSchedule(const std::shared_ptr<StoreState>& state, Clock::time_point when) {
  if (!state->queued) {
    state->queued = true;
    state->dueAt = when;
    queue_.push_back(state);
  } else {
    state->dueAt = std::min(state->dueAt, when);
  }
  if (!flusherRunning_ && !stopping_) {
    // The previous flusher has left its loop and given mutex_ back.
    if (flusher_.joinable()) flusher_.join();
    try {
      flusher_ = std::thread([this] { flusherLoop(); });
      flusherRunning_ = true;
    } catch (const std::system_error& e) {
      // The writes wait for the next write or sync().
      log().log(LogLevel::Error, std::string("GSettings: no thread to hand writes to velmorad: ") + e.what());
    }
  }
  wake_.notify_one();
}

void SettingsStores::flusherLoop() {
  std::unique_lock lock(mutex_);
  while (!stopping_) {
    if (queue_.empty()) {
      if (wake_.wait_for(lock, kFlusherIdle) == std::cv_status::timeout && queue_.empty()) break;
      continue;
    }
    auto next = std::min_element(queue_.begin(), queue_.end(),
                                 [](const auto& a, const auto& b) { return a->dueAt < b->dueAt; });
    if ((*next)->dueAt > Clock::now()) {
      wake_.wait_until(lock, (*next)->dueAt);
      continue;
    }
    std::shared_ptr<StoreState> state = *next;
    queue_.erase(next);
    state->queued = false;
    lock.unlock();
    const bool answered = guarded(false, [&] { return flush(*state); });
    lock.lock();
    if (answered) {
      state->retryDelay = Clock::duration::zero();
    } else {
      state->retryDelay = std::clamp<Clock::duration>(state->retryDelay * 2, kFirstRetry, kLastRetry);
      lockedSchedule(state, Clock::now() + state->retryDelay);
    }
  }
  flusherRunning_ = false;
}

bool SettingsStores::flush(StoreState& state) {
  std::vector<std::string> reverted;
  bool answered = true;
  {
    std::lock_guard storeLock(state.storeMutex);
    if (!state.store) return true;
    std::vector<PlistDictionary> units;
    {
      std::lock_guard lock(mutex_);
      units.swap(state.units);
    }
    std::vector<bool> refused(units.size(), false);
    for (std::size_t i = 0; i < units.size(); ++i) {
      std::string why;
      try {
        if (NimbrelResult result = state.store->setObjects(units[i]); !result) why = result.error().message;
      } catch (const std::exception& e) {
        why = e.what();
      }
      if (!why.empty()) {
        refused[i] = true;
        log().log(LogLevel::Default, state.directory + ": " + why + "; the change is undone");
      }
    }
    try {
      answered = state.store->synchronize();
    } catch (const std::exception& e) {
      answered = false;
      log().log(LogLevel::Error, state.directory + ": the hand-over to velmorad failed: " + e.what());
    }
    // What the store holds for keys whose change was refused.
    PlistDictionary held;
    for (std::size_t i = 0; i < units.size(); ++i) {
      if (!refused[i]) continue;
      for (const auto& entry : units[i])
        held.insert_or_assign(entry.first, state.store->getObject(entry.first).value_or(PropertyList()));
    }
    std::lock_guard lock(mutex_);
    for (std::size_t i = 0; i < units.size(); ++i) {
      for (const auto& entry : units[i]) {
        const std::string& name = entry.first;
        if (auto count = state.pending.find(name); count != state.pending.end() && --count->second == 0) {
          state.pending.erase(count);
        }
        if (!refused[i] || state.pending.contains(name)) continue;
        assign(state.values, name, held[name]);
        reverted.push_back(name);
      }
    }
  }
  signalKeys(state.directory, std::move(reverted), nullptr);
  return answered;
}

void SettingsStores::refresh(StoreState& state) {
  std::vector<std::string> changed;
  {
    std::lock_guard storeLock(state.storeMutex);
    if (!state.store) return;
    const PlistDictionary snapshot = state.store->dictionaryRepresentation();
    std::lock_guard lock(mutex_);
    for (auto it = state.values.begin(); it != state.values.end();) {
      if (!snapshot.contains(it->first) && !state.pending.contains(it->first)) {
        changed.push_back(it->first);
        it = state.values.erase(it);
      } else {
        ++it;
      }
    }
    for (const auto& [name, value] : snapshot) {
      if (state.pending.contains(name)) continue;
      auto seen = state.values.find(name);
      if (seen != state.values.end() && (seen->second.value().isSameObject(value) || seen->second.value() == value)) {
        continue;
      }
      assign(state.values, name, value);
      changed.push_back(name);
    }
  }
  signalKeys(state.directory, std::move(changed), nullptr);
}

void SettingsStores::signalKeys(const std::string& directory, std::vector<std::string> names, gpointer originTag) {
  // Keys other applications wrote that no GSettings key can name.
  std::erase_if(names, [](const std::string& name) {
    return !keyNameRefusal(name).empty() || name.find('/') != std::string::npos;
  });
  if (names.empty()) return;
  if (names.size() == 1) {
    g_settings_backend_changed(owner_, (directory + names.front()).c_str(), originTag);
    return;
  }
  std::vector<const char*> items;
  items.reserve(names.size() + 1);
  for (const std::string& name : names) items.push_back(name.c_str());
  items.push_back(nullptr);
  g_settings_backend_keys_changed(owner_, directory.c_str(), items.data(), originTag);
}


}  // namespace
}  // namespace velmora::gsettings

// --- The GObject.

namespace {

using velmora::gsettings::guarded;
using velmora::gsettings::SettingsStores;

struct VelmoraSettingsBackend {
  GSettingsBackend parent_instance;
  // Made in init, shut down and released in finalize. Shared so that an
  // observer call in flight keeps it alive.
  std::shared_ptr<SettingsStores>* stores;
};

struct VelmoraSettingsBackendClass {
  GSettingsBackendClass parent_class;
};

G_DEFINE_TYPE(VelmoraSettingsBackend, velmora_settings_backend, G_TYPE_SETTINGS_BACKEND)

SettingsStores& storesOf(GSettingsBackend* backend) {
  return **reinterpret_cast<VelmoraSettingsBackend*>(backend)->stores;
}

GVariant* readValue(GSettingsBackend* backend, const gchar* key, const GVariantType* expected, gboolean defaultValue) {
  // No defaults of its own: without a user value the schema's default holds.
  if (defaultValue) return nullptr;
  return guarded<GVariant*>(nullptr, [&] { return storesOf(backend).read(key, expected); });
}

GVariant* readUserValue(GSettingsBackend* backend, const gchar* key, const GVariantType* expected) {
  return readValue(backend, key, expected, FALSE);
}

gboolean writeValue(GSettingsBackend* backend, const gchar* key, GVariant* value, gpointer originTag) {
  return guarded(false, [&] { return storesOf(backend).write(key, value, originTag); }) ? TRUE : FALSE;
}

gboolean writeTree(GSettingsBackend* backend, GTree* tree, gpointer originTag) {
  return guarded(false, [&] { return storesOf(backend).writeTree(tree, originTag); }) ? TRUE : FALSE;
}

void resetValue(GSettingsBackend* backend, const gchar* key, gpointer originTag) {
  guarded(0, [&] {
    storesOf(backend).reset(key, originTag);
    return 0;
  });
}

gboolean getWritable(GSettingsBackend* backend, const gchar* name) {
  return guarded(false, [&] { return storesOf(backend).writable(name); }) ? TRUE : FALSE;
}

GPermission* getPermission(GSettingsBackend* backend, const gchar* path) {
  return g_simple_permission_new(getWritable(backend, path));
}

void subscribe(GSettingsBackend* backend, const gchar* name) {
  guarded(0, [&] {
    storesOf(backend).subscribe(name);
    return 0;
  });
}

void unsubscribe(GSettingsBackend*, const gchar*) {
  // Stores stay open for the backend's life (bounded by kMaxStores).
}

void syncAll(GSettingsBackend* backend) {
  guarded(0, [&] {
    storesOf(backend).sync();
    return 0;
  });
}

void velmora_settings_backend_init(VelmoraSettingsBackend* self) {
  self->stores = new std::shared_ptr<SettingsStores>(std::make_shared<SettingsStores>(G_SETTINGS_BACKEND(self)));
}

void finalize(GObject* object) {
  auto* self = reinterpret_cast<VelmoraSettingsBackend*>(object);
  guarded(0, [&] {
    (*self->stores)->shutdown();
    return 0;
  });
  delete self->stores;
  self->stores = nullptr;
  G_OBJECT_CLASS(velmora_settings_backend_parent_class)->finalize(object);
}

void velmora_settings_backend_class_init(VelmoraSettingsBackendClass* klass) {
  G_OBJECT_CLASS(klass)->finalize = finalize;
  GSettingsBackendClass* backend = G_SETTINGS_BACKEND_CLASS(klass);
  backend->read = readValue;
  backend->read_user_value = readUserValue;
  backend->write = writeValue;
  backend->write_tree = writeTree;
  backend->reset = resetValue;
  backend->get_writable = getWritable;
  backend->get_permission = getPermission;
  backend->subscribe = subscribe;
  backend->unsubscribe = unsubscribe;
  backend->sync = syncAll;
}

}  // namespace

// --- The module's entry points, which GIO looks up by name.

extern "C" G_MODULE_EXPORT void g_io_module_load(GIOModule* module) {
  // The type is registered statically, so the module must stay loaded.
  g_type_module_use(G_TYPE_MODULE(module));
  g_io_extension_point_implement(G_SETTINGS_BACKEND_EXTENSION_POINT_NAME, velmora_settings_backend_get_type(),
                                 "velmora", velmora::gsettings::kExtensionPriority);
}

extern "C" G_MODULE_EXPORT void g_io_module_unload(GIOModule*) {}

extern "C" G_MODULE_EXPORT char** g_io_module_query() {
  return g_strsplit(G_SETTINGS_BACKEND_EXTENSION_POINT_NAME, "!", 0);
}
