// ZKVRemotePreferencesSource: the per-store object of the library. It caches
// the store's values (each wrapped in a storage record), validates writes,
// hands the locally changed keys to the daemon (which alone writes the store
// file), reads that file back and tells the application what changed
// elsewhere, registers the store with the daemon, holds the daemon-given
// limits and gives its cache up under memory pressure when it is clean and
// idle.
//
// Design note
// - Queues. protectionQueue_ ("com.vantrel.zkvprotection") guards the cache
//   and everything loaded with it (store_), dirtyKeys_, the generation
//   counts and the keep-alive transaction. Value operations and
//   synchronisation enter it by sync() from the caller's thread; memory-
//   pressure warnings are delivered on it. Code on it never enters it again:
//   loading runs inside the operation that needs it. The hand-over of dirty
//   keys ("synchronize") is a synchronous request made while the queue is
//   held, so every read and write of the store waits for the daemon's
//   answer; with nothing written since the last hand-over no request is made.
//   registrationQueue_ ("com.vantrel.zkvregistration") runs the registration
//   closure and the requests deferred by kDeferral ("register",
//   "setDefaultsConfig", "synchronizeRemote"). The protection queue may wait
//   for it (forceRegistrationNow), never the reverse: nothing on it enters
//   the protection queue, and sending "register" does not wait for the reply.
// - Registration. registerForCorvane stores a closure and schedules a
//   deferred task that keeps the source alive; the closure sends "register"
//   once, whichever runs it first: that task or forceRegistrationNow, which
//   every request needing the daemon to know the store calls first. Both
//   travel on the one connection of client_, so the daemon sees "register"
//   first. registrationLock_ guards only the closure's slot, because
//   registerForCorvane fills it from the caller's thread.
// - Locks. configurationLock_ (recursive) guards only
//   configurationDictionary_, so the key-length limit can be read from work
//   on the protection queue. It and registrationLock_ are leaves: nothing is
//   waited for and nothing is sent while either is held.
// - Outside the queues. forceNextSynchronization_ is an atomic set by the
//   "trackSynchronizeRemote" reply on the main queue and consumed by the
//   next hand-over. The external-change operations (hasExternalChanges,
//   copyExternalChangesWithChangeCount, discardExternalChangesForChangeCount)
//   and isInitialSync read store_ on the caller's thread without either
//   queue, so the caller must not overlap them with other operations on the
//   same source. lastAccess_ is an atomic written after a read leaves the
//   queue; environment_, preferenceID_, urlOnDisk_ and client_ are set once
//   at creation and read from any thread.
// - Replies to asynchronous requests ("register", "getConfiguration",
//   "trackSynchronizeRemote") run on the main queue; the registration and
//   configuration replies hold the source weakly, the tracking reply
//   strongly (its handler must run).
// - Waiting order: caller -> protection queue -> registration queue ->
//   (registration lock, configuration lock, the client's own queue). Never
//   the reverse.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "velmora/platform/MemoryPressure.h"
#include "velmora/platform/PropertyList.h"
#include "velmora/platform/Transaction.h"
#include "zkv/ZKVBase.h"
#include "zkv/ZKVClient.h"

class ZKVClient;

// In-process notification names, posted on the default NotificationCenter
// with the source as object: the store changed elsewhere, and the daemon's
// configuration changed. Each is also a class method of the same name.
ZKV_EXPORT extern const char* const ZKVRemotePreferencesSourceDidChangeNotification;
ZKV_EXPORT extern const char* const ZKVRemotePreferencesSourceConfigurationDidChangeNotification;

namespace velmora {
class DispatchQueue;
class Environment;
class SystemNotificationCenter;
}  // namespace velmora

// A programming error detected by the library (a value outside the
// property-list family, an over-long new key, a failed copy), raised to the
// caller of the operation that found it. The operation leaves the source's
// state as it was. what() is the description.
class ZKV_EXPORT ZKVAssertionFailure : public std::logic_error {
 public:
  ZKVAssertionFailure(const std::string& description, std::string operation, const void* object, std::string file,
                      int line);

  // The condition's text, e.g. "NimbrelStore: key 'k' is too long.".
  const char* description() const noexcept { return what(); }
  // The operation that raised it, e.g. "ZKVRemotePreferencesSource::setValueForKey".
  const std::string& operation() const noexcept { return operation_; }
  // The object it was raised on; an identity, never dereferenced.
  const void* object() const noexcept { return object_; }
  // The source file that raised it, e.g. "framework/ZKVRemotePreferencesSource".
  const std::string& file() const noexcept { return file_; }
  int line() const noexcept { return line_; }

 private:
  std::string operation_;  // immutable
  const void* object_;     // immutable
  std::string file_;       // immutable
  int line_;               // immutable
};

// The store file of application applicationID: <base>/Library/Quellstore/
// <applicationID>.plist, or <applicationID>-<storeID>.plist when storeID is
// given. The base is containerPath when contained is true and a containerPath
// is given (a relative one resolved against the working directory now),
// otherwise the user's home directory. Returns nullopt when the home directory
// is needed and cannot be had, and when the container path is empty or the
// working directory cannot be had. Neither creates nor tests anything; logs
// the directory at debug level. Any thread; may block on the user database.
// The caller owns the result.
ZKV_EXPORT std::optional<std::filesystem::path> ZKVRemotePreferencesCreateURLForStorage(
    const std::string& applicationID, const std::optional<std::string>& storeID,
    const std::optional<std::string>& containerPath, bool contained);

// What one load of the store file rebuilds. A value type; whoever holds it
// guards it (a source: its protection queue).
struct ZKV_EXPORT ZKVStoreLoadState {
  // Key -> storage record; nullopt while not loaded (never loaded, or evicted).
  std::optional<velmora::PlistDictionary> cache;
  // The store's change count as last read or answered; -1 = never loaded.
  std::int64_t storageChangeCount = -1;
  // Change count of the initial synchronisation from the server; -2 = never
  // loaded, -1 = none known.
  std::int64_t initialSyncChangeCount = -2;
  // Set by the load that saw the initial synchronisation arrive.
  bool isInitialSync = false;
  // Key -> change code (integer) of changes made elsewhere and not yet taken;
  // nullopt when none are pending.
  std::optional<velmora::PlistDictionary> externalChanges;
};

// Applies one read of a store file to state, as a load does: contents is what
// the file held (none when it was missing, unreadable or no property list),
// location the text its log lines name the file by. Never fails: malformed
// parts count as absent, and the cache is never nullopt afterwards. Logs at
// debug level (and a journal ahead of the change count at default level).
// Takes contents by value so that an unshared decode is moved, not copied,
// into the cache. Pure apart from logging; any thread.
ZKV_EXPORT void ZKVApplyStoreFileContents(ZKVStoreLoadState& state, velmora::PropertyList contents,
                                          std::string_view location);

class ZKV_EXPORT ZKVRemotePreferencesSource : public std::enable_shared_from_this<ZKVRemotePreferencesSource> {
  struct PrivateTag {
    explicit PrivateTag() = default;
  };

 public:
  using KeySet = std::set<std::string, std::less<>>;

  // Labels of the two queues and the name of the keep-alive transaction.
  static constexpr std::string_view kProtectionQueueLabel = "com.vantrel.zkvprotection";
  static constexpr std::string_view kRegistrationQueueLabel = "com.vantrel.zkvregistration";
  static constexpr std::string_view kTransactionName = "com.vantrel.zkv-remote-prefs.transaction";
  // The system-wide notifications every source observes.
  static constexpr std::string_view kConfigurationDidChangeSystemNotification =
      "ZKVRemotePreferencesConfigurationDidChangeNotification";
  static constexpr std::string_view kSourceDidChangeExternallySystemNotification =
      "ZKVRemotePreferencesSourceDidChangeExternally";
  // A source unused for this long gives its clean cache up under memory pressure.
  static constexpr double kIdleEvictionSeconds = 300.0;
  // The deepest a value may nest (container levels below it): what still
  // fits within PropertyList::kMaxDepth inside the store file (its top,
  // "values", the key's record) and inside a hand-over request (the
  // envelope, "userinfo", "changes", the record), with room to spare.
  static constexpr int kMaximumValueDepth = velmora::PropertyList::kMaxDepth - 8;

  // --- Creation (the four initialisers). Each returns a new source that the
  // caller owns. The source reads nothing from disk and sends nothing to the
  // daemon; it makes its client (unconnected), its queues and its
  // memory-warning registration, and observes the two system-wide
  // notifications (waiting for the bus subscription, see
  // SystemNotificationCenter::addObserver). It keeps the environment, the
  // notification centre and the memory-pressure monitor installed at
  // creation for its whole life. Never fails. Any thread.

  // initWithApplicationID:shared:
  static std::shared_ptr<ZKVRemotePreferencesSource> create(std::optional<std::string> applicationID, bool shared);
  // initWithApplicationID:storeID:shared:
  static std::shared_ptr<ZKVRemotePreferencesSource> create(std::optional<std::string> applicationID,
                                                            std::optional<std::string> storeID, bool shared);
  // initWithApplicationID:storeID:shared:additionalSource:
  static std::shared_ptr<ZKVRemotePreferencesSource> create(std::optional<std::string> applicationID,
                                                            std::optional<std::string> storeID, bool shared,
                                                            bool additionalSource);
  // initWithApplicationID:storeID:shared:additionalSource:containerPath: the
  // designated one. storeID names the file only for an additional source;
  // containerPath is used only for a non-shared store while
  // QXFIXED_USER_HOME is set; shared hands applicationID to the client as
  // its bundle identifier.
  static std::shared_ptr<ZKVRemotePreferencesSource> create(std::optional<std::string> applicationID,
                                                            std::optional<std::string> storeID, bool shared,
                                                            bool additionalSource,
                                                            std::optional<std::string> containerPath);

  // Use create(); the tag keeps construction inside this class.
  ZKVRemotePreferencesSource(PrivateTag, std::optional<std::string> applicationID,
                             const std::optional<std::string>& storeID, bool shared, bool additionalSource,
                             const std::optional<std::string>& containerPath);
  // Teardown: stops the notification observation, cancels the memory-warning
  // registration, releases cache and dirty keys on the protection queue
  // (directly when the last reference dies on it) and shuts the client down.
  // Unsent dirty keys are dropped. Blocks for the protection queue.
  ~ZKVRemotePreferencesSource();
  ZKVRemotePreferencesSource(const ZKVRemotePreferencesSource&) = delete;
  ZKVRemotePreferencesSource& operator=(const ZKVRemotePreferencesSource&) = delete;

  // --- Identity. Immutable; any thread; borrowed.

  // The application identifier given at creation, if any.
  const std::optional<std::string>& preferenceID() const noexcept { return preferenceID_; }
  // The store file's location; nullopt without an application identifier or
  // a home directory (such a source keeps its values in memory only).
  const std::optional<std::filesystem::path>& urlOnDisk() const noexcept { return urlOnDisk_; }
  // This store's connection to the daemon (shared with the caller).
  const std::shared_ptr<ZKVClient>& client() const noexcept { return client_; }

  // --- Values. Each enters the protection queue by sync() from the caller's
  // thread and blocks until done; calling one from that queue aborts. The
  // four data operations load the store file first when the cache is not
  // loaded, and hold the keep-alive transaction while they work.

  // getValueForKey: the value stored under key, or none when absent. The
  // result shares the cached value (values are immutable); the caller owns
  // its handle. Stamps the last-access time.
  velmora::PropertyList getValueForKey(std::string_view key);

  // setValue:forKey: stores value under key, or removes the key when value is
  // none; only the in-memory cache changes, and an effective change marks the
  // key dirty and raises the generation count. An empty key is ignored and
  // logged. Throws ZKVAssertionFailure, leaving everything as it was, for a
  // value not valid for the binary property-list format or nested deeper
  // than kMaximumValueDepth, a key new to the cache longer than
  // maximumKeyLength() UTF-8 bytes, or a failed copy.
  // Stamps the last-access time (unless the key is empty).
  void setValueForKey(const velmora::PropertyList& value, std::string_view key);

  // setValue:forKey: for every entry of values (none removes the key), in key
  // order, as one protection-queue item: no hand-over to the daemon, and no
  // reader, sees some of them without the others. Throws as setValueForKey
  // does, before changing anything; empty keys are skipped and logged.
  void setValuesForKeys(const velmora::PlistDictionary& values);

  // copyKeyList: the cache's keys (never absent, maybe empty). Caller owns it.
  std::vector<std::string> copyKeyList();

  // copyDictionary: a new dictionary key -> value of every record that
  // decodes. Caller owns it; changing it does not change the store.
  velmora::PlistDictionary copyDictionary();

  // generationCount: the number of effective writes and removals so far.
  // Neither loads nor holds the transaction.
  std::int64_t generationCount();

  // --- Synchronisation.

  // How long deferred requests wait: registration, "setDefaultsConfig" and
  // "synchronizeRemote" leave this long after the call that asks for them.
  static constexpr std::chrono::nanoseconds kDeferral{2'000'000'000};

  // synchronizeForced: on the protection queue, with the transaction held,
  // runs lockedSynchronizeForced(forced) and returns its result: true when
  // nothing had to be handed over or the daemon took the dirty keys, false
  // when the hand-over got no reply (everything is kept for the next call).
  // Blocks for the queue, the file read and, with dirty keys, one
  // synchronous round trip to the daemon. Calling it from the protection
  // queue aborts.
  bool synchronizeForced(bool forced);

  // synchronize: synchronizeForced(false). With nothing written since the
  // last hand-over it makes no request at all.
  bool synchronize();

  // scheduleRemoteSynchronization: sends "synchronizeRemote" (no reply) from
  // the registration queue kDeferral from now; the pending task keeps the
  // source alive. Each call sends its own. Neither forces the registration
  // nor hands dirty keys over. Returns at once.
  void scheduleRemoteSynchronization();

  // synchronizationWithCompletionHandler: forces the pending registration,
  // then asks the daemon ("trackSynchronizeRemote") to synchronise with the
  // server now. handler (may be empty: the reply is then dropped) runs
  // exactly once on the main queue, however long the pass takes, with the
  // reply's "error" entry as it stands (a PropertyList), a ZKVError (also
  // when the daemon or the bus goes away first), or nothing (success). An
  // empty reply also makes the next hand-over a forced one. The pending
  // reply keeps the source alive. Blocks only for the registration queue;
  // returns after the send.
  void synchronizationWithCompletionHandler(ZKVReplyHandler handler);

  // isInitialSync: whether the last load saw the initial synchronisation
  // from the server arrive. No locking, no loading: the caller's thread.
  bool isInitialSync() const;

  // --- Configuration requests.

  // updateConfiguration: forces the pending registration and asks the daemon
  // for the configuration ("getConfiguration"); a dictionary reply replaces
  // the held one on the main queue, anything else is ignored silently.
  // Blocks only for the registration queue; returns after the send.
  void updateConfiguration();
  // setDefaultsConfiguration: sends configuration as it stands to the daemon
  // ("setDefaultsConfig", synchronous, reply ignored) from the registration
  // queue kDeferral from now; the pending task keeps the source and the
  // value alive. Nothing is stored locally. Returns at once.
  void setDefaultsConfiguration(const velmora::PropertyList& configuration);

  // --- External changes. Run on the caller's thread without either queue:
  // don't overlap them with other operations on the same source.

  // hasExternalChanges: whether changes made elsewhere are pending (loaded
  // from the store file and not yet taken). Logs the answer at debug level.
  bool hasExternalChanges();
  // copyExternalChangesWithChangeCount: takes the pending changes, grouped
  // as change reason -> keys (in key order); nullopt when none were pending.
  // Applications linked before release 8 see reason 5 as 1. A key whose
  // reason is not a number with an exact 64-bit integer value (a foreign
  // journal's string, 2.5) is left out, with a debug line, and dropped with
  // the rest; it is never put under another reason. Always writes
  // the source's change count to outChangeCount (when not null): hand it to
  // discardExternalChangesForChangeCount once the changes are dealt with.
  // The pending set is emptied: each change is handed out once. The caller
  // owns the result.
  std::optional<std::map<std::int64_t, std::vector<std::string>>> copyExternalChangesWithChangeCount(
      std::int64_t* outChangeCount);
  // discardExternalChangesForChangeCount: forces the pending registration and
  // asks the daemon ("discardJournalEntries", with the bare number as
  // payload) to drop journal entries up to changeCount; the reply is
  // ignored and nothing local changes. Blocks until the daemon answers or
  // the request fails.
  void discardExternalChangesForChangeCount(std::int64_t changeCount);

  // --- Registration.

  // registerForCorvane: registers the store with the daemon kDeferral from
  // now, unless a request that needs it pulls it forward; "register" goes
  // out once per call either way, and its dictionary reply becomes the
  // configuration (anything else is logged as "NimbrelStore error: ...").
  // The pending task keeps the source alive. Returns at once.
  void registerForCorvane();
  // unregisterForCorvane: sends any pending registration, then "unregister"
  // (no reply). Blocks only for the registration queue.
  void unregisterForCorvane();
  // ping: sends "ping" without reply; no registration is forced. Never blocks.
  void ping();
  // serverSideDebugDescription: the daemon's description of its state
  // ("printDebugDescription"): a text reply as it stands, any other reply
  // as its description, nullopt when no reply came. Blocks for the
  // synchronous request; no registration is forced. The caller owns it.
  std::optional<std::string> serverSideDebugDescription();

  // The notification names as class methods (static strings).
  static const char* ZKVRemotePreferencesSourceDidChangeNotification();
  static const char* ZKVRemotePreferencesSourceConfigurationDidChangeNotification();

  // --- ZKVManagement (ZKVManagement.cpp): account-wide operations, each
  // through a temporary client of its own that carries no store identity.
  // All return at once, never block on the daemon and report nothing to the
  // caller; any thread.

  // resetAllApplicationsWithCompletionHandler: sends "resetapps" and shuts
  // the temporary client down right after the send; completion (may be
  // empty) is queued on the main queue once the reply, or the error of the
  // cancelled request, has arrived.
  static void resetAllApplicationsWithCompletionHandler(std::function<void()> completion);
  // noteAccountChanges: logs "ZKVRemotePreferencesSource notes accounts
  // changed" and sends "ping"; the client is shut down when the reply comes.
  // The argument is accepted and ignored.
  static void noteAccountChanges(const void* ignored);
  // migrateVelmoraForBundleIdentifier: asks the daemon ("migrate") to
  // migrate one application's store; the reply is only logged, then the
  // client is shut down. nullptr is logged as an error and nothing is sent.
  static void migrateVelmoraForBundleIdentifier(const char* bundleIdentifier);

  // --- Configuration and limits. Guarded by the source's recursive
  // configuration lock, never the protection queue, so they may be called
  // from any thread, that queue included. Never fail.

  // _storeConfiguration: replaces the held configuration with configuration
  // (kept as given, shared; none clears it). Logs it at debug level.
  void storeConfiguration(velmora::PropertyList configuration);
  // The configuration last stored (the same payload), or none. Caller owns
  // the handle.
  velmora::PropertyList copyConfigurationDictionary() const;
  // The effective value of a configuration key: the configured integer when
  // it is not 0 (a negative one reads as a huge unsigned value), otherwise
  // the built-in default for the key, otherwise 0.
  std::uint64_t configurationValueForKey(std::string_view key) const;
  // "maxKeyCount" (default 1024), "maxKeyNameLen" (64, in UTF-8 bytes),
  // "maxKeyDataLen" (1048576 bytes), "maxKeyDataSum" (1048576 bytes).
  std::uint64_t maximumKeyCount() const;
  std::uint64_t maximumKeyLength() const;
  std::uint64_t maximumDataLengthPerKey() const;
  std::uint64_t maximumTotalDataLength() const;

  // --- Internal: for the layers above within the library and for tests.

  // The protection queue (shared with the caller). Immutable.
  const std::shared_ptr<velmora::DispatchQueue>& protectionQueue() const noexcept { return protectionQueue_; }
  // The registration queue (shared with the caller). Immutable.
  const std::shared_ptr<velmora::DispatchQueue>& registrationQueue() const noexcept { return registrationQueue_; }

  // _forceRegistrationNow: enters the registration queue by sync() and, if a
  // registration is pending, sends "register" there; returns once it is
  // sent (not answered). Any thread except the registration queue (aborts).
  void forceRegistrationNow();

  // _locked_zkv_start_transaction / _locked_zkv_end_transaction: open the
  // keep-alive transaction if none is held / close it if one is. Calls do not
  // nest. Protection queue only (asserted).
  void lockedZkvStartTransaction();
  void lockedZkvEndTransaction();
  // Whether the transaction is held. Protection queue only (asserted).
  bool lockedIsExecutingForClient() const;

  // _synchronizeForced: the central step. Without a file location: makes an
  // empty cache if none is loaded. With the cache not loaded: loads the
  // store file. Otherwise, with an empty "trackSynchronizeRemote" reply
  // pending, counts as forced; with nothing written since the last
  // hand-over, re-reads the file when forced; else forces the pending
  // registration and sends "synchronize" {"changes", "changecount"}
  // synchronously. A reply empties the dirty keys and either re-reads the
  // file (forced; the keys just handed over, journaled there at the count
  // the reply names, are this process's own writes and not taken for
  // changes made elsewhere) or takes the reply's change count (except in one
  // host application); no reply keeps keys and counts for the next attempt.
  // Returns false only when the hand-over got no reply. Protection queue
  // only (asserted); blocks on file I/O and the round trip.
  bool lockedSynchronizeForced(bool forced);
  // _cachePlistFromDisk: reads the store file and applies it
  // (ZKVApplyStoreFileContents). Protection queue only (asserted); blocks on
  // file I/O.
  void lockedCachePlistFromDisk();

  // The cache, the change counts and the pending external changes, borrowed
  // for the current queue item. Protection queue only (asserted).
  const ZKVStoreLoadState& lockedLoadState() const;
  // The dirty-key set (nullopt before the first write), the generation count
  // at the last hand-over. Protection queue only (asserted).
  const std::optional<KeySet>& lockedDirtyKeys() const;
  std::int64_t lockedLastGenerationFromDisk() const;

  // _didReceiveMemoryWarning: gives the cache up when it is loaded, idle for
  // kIdleEvictionSeconds or more and holds no dirty key; logs the decision at
  // debug level. Protection queue only (asserted).
  void lockedDidReceiveMemoryWarning();
  // _warningSource: the memory-warning registration, or null once torn down.
  // Protection queue only (asserted); borrowed.
  const velmora::MemoryWarningRegistration* lockedWarningSource() const;
  // The time of the last getValueForKey/setValueForKey (absolute seconds),
  // 0 before the first. Any thread; lock-free.
  double lastAccess() const noexcept { return lastAccess_.load(std::memory_order_relaxed); }

 private:
  // Creation steps that need the source to be shared already (the handlers
  // hold weak references).
  void observeSystemNotifications();
  // _createMemoryWarningSource: registers for memory-pressure warnings on the
  // protection queue, replacing any earlier registration.
  void createMemoryWarningSource();
  // Formats the dirty-key set for log lines. Protection queue only.
  static std::string describeKeySet(const KeySet& keys);
  // The body of setValue:forKey: for a non-empty key, the cache loaded and
  // the write stamped with now. Protection queue only.
  void lockedSetValueForKey(const velmora::PropertyList& value, std::string_view key, double now);
  // Class initialisation: fixes the process-wide account-switch flag on the
  // first call from any thread; later calls cost one atomic load.
  static void initializeClass();
  // Whether applications of this process are told reason 5 as 1 (linked
  // before release 8). Calls initializeClass(). Any thread.
  static bool forgetsAccountSwitchReason();
  // The closure registerForCorvane stores: sends "register" once.
  // Registration queue only (asserted).
  std::function<void()> makeRegistrationBlock();
  // Runs the pending registration closure, if any. Registration queue only.
  void runPendingRegistration();
  // Whether a hand-over's reply sets the change count: false only in the
  // one host application that keeps its own. Looked up once per source.
  // Protection queue only.
  bool lockedTakesReplyChangeCount();

  // Field order matters: C++ destroys fields in reverse, which releases the
  // strong references after the destructor body in the order the design
  // wants: transaction, warning registration, queues, registration closure,
  // client, pending external changes (inside store_).
  std::int64_t generationCount_ = 0;                   // protection queue
  std::int64_t lastGenerationFromDisk_ = 0;            // protection queue
  // The environment installed at creation: the location came from it, and
  // the clock is read from it without the process-wide lookup. Immutable.
  velmora::Environment& environment_;
  const std::optional<std::string> preferenceID_;      // immutable
  const std::optional<std::filesystem::path> urlOnDisk_;  // immutable
  ZKVStoreLoadState store_;                            // protection queue
  std::optional<KeySet> dirtyKeys_;                    // protection queue
  mutable std::recursive_mutex configurationLock_;     // guards configurationDictionary_
  velmora::PropertyList configurationDictionary_;      // guarded by configurationLock_
  std::shared_ptr<ZKVClient> client_;                  // immutable after construction
  // The pending registration; filled from the caller's thread by
  // registerForCorvane, read and cleared on the registration queue.
  std::mutex registrationLock_;                        // guards registrationBlock_
  std::function<void()> registrationBlock_;            // guarded by registrationLock_
  std::shared_ptr<velmora::DispatchQueue> registrationQueue_;  // immutable after construction
  std::shared_ptr<velmora::DispatchQueue> protectionQueue_;    // immutable after construction
  // Written on the protection queue at creation; dropped by the destructor,
  // when no handler can hold the source any more.
  std::unique_ptr<velmora::MemoryWarningRegistration> memoryWarningSource_;
  std::atomic<double> lastAccess_{0.0};                // atomic: written outside the queue
  // Set by an empty "trackSynchronizeRemote" reply on the main queue,
  // consumed by the next hand-over on the protection queue; atomic.
  std::atomic<bool> forceNextSynchronization_{false};
  // Whether hand-over replies set the change count; unknown until the first
  // reply. Protection queue.
  std::optional<bool> takesReplyChangeCount_;
  std::optional<velmora::KeepAliveTransaction> isExecutingForClient_;  // protection queue
  // The centre the two observations were made with (centres live until
  // exit). Written once by create() before the source is handed out.
  velmora::SystemNotificationCenter* notificationCenter_ = nullptr;
};
