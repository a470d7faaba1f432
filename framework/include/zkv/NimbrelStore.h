// NimbrelStore: the synchronised key-value store an application uses. One
// store per application (or per additional store of it); the values are
// property-list values, kept in step with the application's other devices by
// the per-user daemon. The store drives one ZKVRemotePreferencesSource and
// adds what an application needs on top of it: typed access, limits refused
// as error values, and change observers.
//
// Design note
// - Identity. A process holds at most one live store per store identity
//   (kind, application identifier, store identifier): the registry (a
//   process-wide mutex-guarded map of weak references) hands out the same
//   store while someone holds it, and a new one afterwards.
// - Threads. Every method may be called from any thread. Reads and writes
//   enter the source's protection queue synchronously from the caller's
//   thread and make no IPC of their own (the first one reads the store
//   file); they do wait while a hand-over to the daemon holds that queue.
//   synchronize() may wait for one round trip to the daemon, when there are
//   changes to hand over. printDebugDescription() always waits for one.
// - Changes elsewhere. The source relays the daemon's notice; the store
//   then, on changeQueue_, reloads the store file (handing its own pending
//   changes over first, as synchronize() does), takes the changes, calls the
//   observers on the main queue (velmora::DispatchQueue::main()) and, after
//   them, lets the daemon drop the journal entries. In application-driven
//   main-queue mode observers run only while the application drains it.
//   The creation of a store reads the store file once and forgets what its
//   journal tells: changes made before the store existed are not news to
//   it. A notice that finds the file's change count where the store already
//   stands, with the cache known to match that file (apart from keys not
//   yet handed over), needs no reload: it is this process's own hand-over,
//   or another store's change, coming back.
// - Don't. Call the store from the source's protection queue or its client's
//   queue (the dispatch layer aborts on that). Calling synchronize() or
//   printDebugDescription() from the main queue is allowed but stalls
//   observer delivery, and everything else on that queue, for the round
//   trip (up to the IPC call timeout when the daemon hangs).
// - Locks and queues. writeMutex_ makes each write's limit check and the
//   write itself one step; it guards the per-key size table. The reload
//   after a change elsewhere does not take it (it runs on a pool worker,
//   which must not wait for a writer): it marks the table stale instead. observersMutex_ guards the
//   observer table; it is a leaf and never held while an observer runs.
//   changeQueue_ (serial, "com.vantrel.nimbrelstore.changes") handles change
//   notifications, so the thread that posts them never waits for the store.
// - Waiting order: caller -> writeMutex_ -> the source's protection queue
//   (and what it waits for); changeQueue_ -> the protection queue. The registry mutex is held
//   while a store is created (the source waits for its bus subscription) and
//   nothing that waits for it is ever called under it.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "velmora/platform/NotificationCenter.h"
#include "velmora/platform/PropertyList.h"
#include "zkv/ZKVBase.h"

class ZKVRemotePreferencesSource;

namespace velmora {
class DispatchQueue;
}

// Why values changed without this process writing them: the change codes of
// the daemon's journal. Codes not named here reach observers as their number.
using NimbrelChangeReason = std::int64_t;
// Another device (or process) changed the values.
inline constexpr NimbrelChangeReason kNimbrelChangeReasonServerChange = 0;
// The first synchronisation with the server brought values in.
inline constexpr NimbrelChangeReason kNimbrelChangeReasonInitialSync = 1;
// The server refused values over its quota and the store fell back.
inline constexpr NimbrelChangeReason kNimbrelChangeReasonQuotaViolation = 2;
// The user's account changed and the store now holds the new account's
// values. Applications linked before release 8 get it as InitialSync.
inline constexpr NimbrelChangeReason kNimbrelChangeReasonAccountChange = 5;

// One observer call: the keys that changed elsewhere for one reason, in byte
// order of the keys. A value type; the observer borrows it for the call.
struct ZKV_EXPORT NimbrelChange {
  NimbrelChangeReason reason = kNimbrelChangeReasonServerChange;
  std::vector<std::string> keys;

  bool operator==(const NimbrelChange&) const = default;
};

// Identifies one observer of one store. Never 0 for a live one, never reused
// within a store.
using NimbrelObserverToken = std::uint64_t;
inline constexpr NimbrelObserverToken kNoNimbrelObserverToken = 0;

// What a refused write got wrong.
enum class NimbrelErrorCode : std::uint8_t {
  kInvalidKey,     // empty, or not valid UTF-8
  kKeyTooLong,     // a new key longer than maximumKeyLength() UTF-8 bytes
  kInvalidValue,   // not a property-list value: invalid UTF-8 text, none inside, or nested deeper than
                   // ZKVRemotePreferencesSource::kMaximumValueDepth
  kTooManyKeys,    // a new key while the store holds maximumKeyCount() keys
  kValueTooLarge,  // the value, serialised, over maximumDataLengthPerKey() bytes
  kTotalTooLarge,  // all values, serialised, over maximumTotalDataLength() bytes
};

// A refused write. size and limit are the measured quantity and the limit it
// broke (key bytes, key count, serialised bytes of the value, serialised bytes
// of all values); both 0 for kInvalidKey and kInvalidValue. A value type.
struct ZKV_EXPORT NimbrelError {
  NimbrelErrorCode code = NimbrelErrorCode::kInvalidKey;
  std::string key;
  std::uint64_t size = 0;
  std::uint64_t limit = 0;
  // One line naming the key, the size and the limit, for logs and users.
  std::string message;
};

// The outcome of a write: success, or the error that refused it (the store
// is then unchanged). A value type. (The visibility attribute is ZKV_EXPORT,
// spelled so that it can share the list with [[nodiscard]].)
class [[nodiscard, gnu::visibility("default")]] NimbrelResult {
 public:
  static NimbrelResult success() noexcept { return NimbrelResult(); }
  static NimbrelResult failure(NimbrelError error) { return NimbrelResult(std::move(error)); }

  bool ok() const noexcept { return !error_.has_value(); }
  explicit operator bool() const noexcept { return ok(); }
  // The error; only when !ok() (checked: aborts otherwise). Borrowed.
  const NimbrelError& error() const;

 private:
  NimbrelResult() noexcept = default;
  explicit NimbrelResult(NimbrelError error) : error_(std::move(error)) {}

  std::optional<NimbrelError> error_;  // immutable after construction
};

class ZKV_EXPORT NimbrelStore : public std::enable_shared_from_this<NimbrelStore> {
  struct PrivateTag {
    explicit PrivateTag() = default;
  };

 public:
  using Observer = std::function<void(const NimbrelChange&)>;

  // Which of the three store families a store belongs to (part of its identity).
  enum class Kind : std::uint8_t {
    kDefault,      // the host application's own store
    kAdditional,   // an additional store of the host application
    kApplication,  // a store of a named application, shared with it
  };

  // The label of the queue that handles changes made elsewhere.
  static constexpr std::string_view kChangeQueueLabel = "com.vantrel.nimbrelstore.changes";

  // --- Getting a store. Each returns the live store of that identity, or
  // makes one: the store makes its source, registers it with the daemon
  // (sent, not awaited) and then loads its file. The caller shares
  // ownership. Any thread; making a store waits for one bus round trip (the
  // source's notification subscription) with the registry lock held.

  // The store of the host application (velmora::currentEnvironment()
  // .hostApplicationIdentifier()). Without an identifier the store lives in
  // memory only (no file, nothing synchronised). Never null.
  static std::shared_ptr<NimbrelStore> defaultStore();

  // An additional store of the host application, file <app>-<storeID>.plist.
  // An empty storeID means the default store. Returns nullptr when storeID
  // holds '/' or NUL, or is "." or "..".
  static std::shared_ptr<NimbrelStore> storeWithIdentifier(std::string storeID);

  // The store of applicationID, or its additional store storeID, shared with
  // that application: its requests name applicationID, as a command-line
  // tool's must. An empty storeID means the application's main store.
  // Returns nullptr when an identifier is empty (applicationID only), holds
  // '/' or NUL, or is "." or "..".
  static std::shared_ptr<NimbrelStore> storeForApplication(std::string applicationID,
                                                           std::optional<std::string> storeID = {});

  // Use the factories; the tag keeps construction inside this class.
  NimbrelStore(PrivateTag, Kind kind, std::optional<std::string> applicationID, std::optional<std::string> storeID);
  // Stops observing change notifications and leaves the registry. Changes
  // not yet synchronised are dropped (call synchronize() first). Blocks while
  // a change notification is being relayed to this store, and for the
  // source's teardown when the store held its last reference.
  ~NimbrelStore();
  NimbrelStore(const NimbrelStore&) = delete;
  NimbrelStore& operator=(const NimbrelStore&) = delete;

  // --- Identity. Immutable; any thread; borrowed.

  Kind kind() const noexcept { return kind_; }
  const std::optional<std::string>& applicationIdentifier() const noexcept { return applicationID_; }
  const std::optional<std::string>& storeIdentifier() const noexcept { return storeID_; }
  // "<NimbrelStore app=A store=S>" ("store=" left out for a main store,
  // "app=(null)" without an identifier). A new string the caller owns.
  std::string description() const;

  // --- Reads. Each enters the source's protection queue synchronously and
  // returns a value the caller owns (sharing the stored payload, which never
  // changes). No IPC; the first access reads the store file. nullopt when
  // the key is absent or its value has another type; an empty key is absent.

  std::optional<velmora::PropertyList> getObject(std::string_view key);
  // Text values only.
  std::optional<std::string> getString(std::string_view key);
  std::optional<velmora::PlistArray> getArray(std::string_view key);
  std::optional<velmora::PlistDictionary> getDictionary(std::string_view key);
  std::optional<velmora::Bytes> getData(std::string_view key);
  // An integer that fits int64, or a real that is one exactly (3.0 -> 3;
  // 3.5, NaN and out-of-range reals -> nullopt). Never a boolean.
  std::optional<std::int64_t> getInteger(std::string_view key);
  // A real, or an integer converted to the nearest double. Never a boolean.
  std::optional<double> getDouble(std::string_view key);
  // Boolean values only (numbers are not read as booleans).
  std::optional<bool> getBool(std::string_view key);

  // All values, key -> value. A new dictionary the caller owns; changing it
  // does not change the store. Same blocking as the reads.
  velmora::PlistDictionary dictionaryRepresentation();

  // --- Writes. Each checks the key and the value against the limits the
  // daemon gave the source (maximumKeyLength() and maximumKeyCount() for a
  // key new to the store, maximumDataLengthPerKey() for the value serialised,
  // maximumTotalDataLength() for all values together when the write makes
  // them larger), then stores the value in memory only: synchronize() hands
  // it to the daemon. On refusal returns the error and changes nothing.
  // Blocks for writeMutex_ and the source's protection queue; no IPC. A
  // ZKVAssertionFailure from the source passes through: it means the source
  // found a programming error the checks could not foresee (a failed copy
  // when memory runs out, or a key over the limit that a reload from
  // elsewhere removed between the check and the write).

  // Any property-list value; none removes the key (as removeObject).
  NimbrelResult setObject(std::string_view key, const velmora::PropertyList& value);
  // value must be valid UTF-8 (kInvalidValue otherwise).
  NimbrelResult setString(std::string_view key, std::string value);
  NimbrelResult setArray(std::string_view key, velmora::PlistArray value);
  NimbrelResult setDictionary(std::string_view key, velmora::PlistDictionary value);
  NimbrelResult setData(std::string_view key, velmora::Bytes value);
  NimbrelResult setInteger(std::string_view key, std::int64_t value);
  NimbrelResult setDouble(std::string_view key, double value);
  NimbrelResult setBool(std::string_view key, bool value);
  // Removes key; success when it was absent too. kInvalidKey for an empty
  // or non-UTF-8 key.
  NimbrelResult removeObject(std::string_view key);

  // Writes every entry of values (none removes the key) as one step: checks
  // them all against the limits as if written one after another in key
  // order, and on refusal returns the first error and changes nothing;
  // otherwise stores them together, so that no hand-over to the daemon (and
  // no other process) ever sees some of them without the others. Blocks as
  // the single writes do; no IPC.
  NimbrelResult setObjects(const velmora::PlistDictionary& values);

  // Hands the changes made since the last hand-over to the daemon and waits
  // for its answer; with nothing changed it returns at once without IPC.
  // Returns true when nothing needed handing over or the daemon took the
  // changes, false when no answer came (they are kept for the next call).
  // Caller's thread; may block for the daemon round trip.
  bool synchronize();

  // --- Changes made elsewhere.

  // Registers observer: for each batch of changes made elsewhere, it is
  // called on the main queue once per reason, with that reason's keys. It
  // must not throw (the main queue ends the process on an exception).
  // Thread-safe, never blocks on observers. The store owns
  // observer until removal (an observer that holds the store keeps it alive).
  NimbrelObserverToken addObserver(Observer observer);

  // Unregisters the observer; unknown tokens are ignored. Once it returns no
  // new call starts; a call already running on the main queue (when this is
  // called from another thread) finishes. Never blocks.
  void removeObserver(NimbrelObserverToken token);

  // --- Source access and diagnostics.

  // Runs block on the calling thread with the store's source, and returns
  // after it. The source is borrowed for the call. Writes made through it
  // bypass the store's limit checks; the store recounts sizes afterwards.
  // Blocks for as long as block does; an exception from block propagates.
  void useSourceSyncWithBlock(const std::function<void(ZKVRemotePreferencesSource&)>& block);

  // Asks the daemon for its description of this store and prints one console
  // line (velmora::consoleLog): "<description>: <daemon's description>", or
  // "Can't get information on <description>" when the daemon gives none.
  // Reports nothing to the caller. Blocks for the daemon round trip; must not
  // be called from the source's client queue.
  void printDebugDescription();

 private:
  // A key's serialised size, per key, as the size limits count it.
  using SizeTable = std::map<std::string, std::uint64_t, std::less<>>;

  // Makes and starts a store; called by the registry with its lock held.
  static std::shared_ptr<NimbrelStore> make(Kind kind, const std::optional<std::string>& applicationID,
                                            const std::optional<std::string>& storeID);
  // Creation steps that need the store to be shared already.
  void start();
  // Checks one write of value (none = removal) under key and performs it.
  NimbrelResult write(std::string_view key, const velmora::PropertyList& value);
  // Recounts the sizes when they may be stale and returns the loaded cache.
  // Protection queue and writeMutex_ held.
  const velmora::PlistDictionary& lockedPrepareSizes();
  // The key's counted size (0 when absent), and the table's update after a
  // write. writeMutex_ held.
  std::uint64_t sizeOf(std::string_view key) const;
  void noteSize(std::string_view key, bool removal, std::uint64_t newSize);
  // Rebuilds sizes_ and totalSize_ from the source's cache. Protection queue
  // and writeMutex_ held; loads the cache when it is not loaded.
  void lockedRecountSizes();
  // changeQueue_: reload, take the changes, hand them to the observers.
  void handleExternalChange();
  // Whether the store file still is the one the cache matches (cleanCount_),
  // so that a notice needs no reload. Protection queue only; reads the
  // file's change count, decoding nothing else.
  bool lockedFileUnchanged() const;
  // Whether the store file's change count is count. Any thread; reads the
  // file's change count, decoding nothing else.
  bool fileChangeCountIs(std::int64_t count) const;
  // Main queue: calls the observers for one batch, then has changeQueue_
  // tell the daemon that the batch's journal entries may go.
  void deliverChanges(const std::map<std::int64_t, std::vector<std::string>>& changes, std::int64_t changeCount);

  const Kind kind_;                                            // immutable
  const std::optional<std::string> applicationID_;             // immutable
  const std::optional<std::string> storeID_;                   // immutable
  const std::shared_ptr<ZKVRemotePreferencesSource> source_;   // immutable; the source is thread-safe
  const std::shared_ptr<velmora::DispatchQueue> changeQueue_;  // immutable
  // The in-process change relay's registration; written by start() before the
  // store is handed out, read by the destructor.
  velmora::ObserverToken relayToken_ = velmora::kNoObserverToken;
  // Set while a change notification waits on changeQueue_, so that a burst
  // gives one reload. Atomic.
  std::atomic<bool> changePending_{false};
  // Written on the source's protection queue only; atomic, so that a change
  // notice can look at it first. The change count at which the source's
  // cache is known to equal the store file (apart from keys still to be
  // handed over): set by a load of the whole file, carried forward by a
  // hand-over the daemon answered with the next count; -1 when unknown.
  std::atomic<std::int64_t> cleanCount_{-1};

  std::mutex writeMutex_;        // guards the three fields below
  SizeTable sizes_;              // guarded by writeMutex_
  std::uint64_t totalSize_ = 0;  // guarded by writeMutex_; the sum of sizes_
  // Guarded by writeMutex_; false until counted, and after a reload or
  // useSourceSyncWithBlock, which may have changed the cache behind sizes_.
  bool sizesValid_ = false;
  // Set (lock-free) by a reload after a change from elsewhere, so the change
  // handler never waits for a writer; the next write recounts. A write
  // checked just before such a reload may pass a limit the reloaded store
  // breaks; the daemon enforces the limits again when it stores the value.
  std::atomic<bool> sizesStale_{false};

  mutable std::mutex observersMutex_;                                          // guards the two fields below
  std::map<NimbrelObserverToken, std::shared_ptr<const Observer>> observers_;  // guarded by observersMutex_
  NimbrelObserverToken nextObserverToken_ = 1;                                 // guarded by observersMutex_
};
