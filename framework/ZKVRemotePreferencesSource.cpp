// The per-store source: identity and location, value access, loading of the
// store file, configuration, synchronisation with the daemon, external
// changes, registration and notifications, and memory-pressure eviction.
// The queues, the locks and the waiting order are described in the header's
// design note. The account-wide operations live in ZKVManagement.cpp.
#include "zkv/ZKVRemotePreferencesSource.h"

#include <atomic>
#include <cmath>
#include <cstdio>
#include <stdexcept>
#include <utility>
#include <variant>

#include "velmora/platform/Dispatch.h"
#include "velmora/platform/Environment.h"
#include "velmora/platform/Log.h"
#include "velmora/platform/NotificationCenter.h"
#include "velmora/platform/PlistCodec.h"
#include "velmora/platform/SystemNotifications.h"
#include "zkv/ZKVClient.h"
#include "zkv/ZKVEncoding.h"
#include "zkv/ZKVJournal.h"
#include "zkv/ZKVLog.h"

using velmora::LogLevel;
using velmora::PlistDictionary;
using velmora::PropertyList;

namespace {

constexpr const char* kSourceFile = "framework/ZKVRemotePreferencesSource";
constexpr const char* kSetValueOperation = "ZKVRemotePreferencesSource::setValueForKey";
constexpr std::string_view kContainedVariable = "QXFIXED_USER_HOME";
constexpr std::string_view kNullText = "(null)";

// Store-file keys.
constexpr std::string_view kValuesKey = "values";
constexpr std::string_view kChangeCountKey = "changecount";
constexpr std::string_view kInitialSyncKey = "initialsync";
constexpr std::string_view kVersionIdKey = "versionid";

// The change code the library itself records: "changed elsewhere".
constexpr std::int64_t kChangeCodeChanged = 1;
// The journal's code for an account switch, which applications linked
// before release 8 do not know and are told as kChangeCodeChanged.
constexpr std::int64_t kChangeCodeAccountSwitch = 5;

// "synchronize" payload and reply keys.
constexpr std::string_view kChangesKey = "changes";

// The one host application whose change count is not taken from hand-over
// replies: it tracks the store's count by re-reading the file itself.
constexpr std::string_view kChangeCountKeepingApplication = "com.vantrel.security.quarnproxy3";

// Class initialisation state: the flag is written once under the once-flag
// and read by any thread afterwards.
velmora::OnceFlag gClassInitialized;
std::atomic<bool> gForgetAccountSwitchReason{false};

const velmora::LogHandle& defaultLog() { return *ZKVGetDefaultLog(); }

// Builds and sends the line only when the level is enabled, so hot paths pay
// one check when debug logging is off.
template <class MakeLine>
void logLazily(LogLevel level, MakeLine&& makeLine) {
  const velmora::LogHandle& log = defaultLog();
  if (log.isEnabled(level)) log.log(level, std::forward<MakeLine>(makeLine)());
}

std::string cat(std::initializer_list<std::string_view> parts) {
  std::size_t size = 0;
  for (std::string_view part : parts) size += part.size();
  std::string out;
  out.reserve(size);
  for (std::string_view part : parts) out += part;
  return out;
}

std::string_view yesNo(bool value) { return value ? "YES" : "NO"; }

std::string_view orNull(const std::optional<std::string>& text) {
  return text ? std::string_view(*text) : kNullText;
}

std::string_view orNull(const std::optional<std::filesystem::path>& path) {
  return path ? std::string_view(path->native()) : kNullText;
}

// A directory as log lines show it: with its trailing slash.
std::string directoryText(const std::filesystem::path& directory) {
  std::string text = directory.native();
  if (text.empty() || text.back() != '/') text.push_back('/');
  return text;
}

// The integer value of a configuration entry as an unsigned limit: integers
// keep their bits (a negative one reads huge), reals are truncated, booleans
// count 0 or 1, anything else is 0.
std::uint64_t unsignedIntegerValue(const PropertyList& value) {
  if (value.isInteger()) return value.unsignedValue();
  if (value.isReal()) {
    std::int64_t truncated = 0;
    (void)value.getInt64(truncated);
    return static_cast<std::uint64_t>(truncated);
  }
  if (value.isBoolean()) return value.booleanValue() ? 1 : 0;
  return 0;
}

// The keys of handedOver whose journal entry in contents (a store file) is at
// count: the entries the daemon made for the hand-over it answered with that
// count. Reads the entries as stored, since the daemon records "changed
// elsewhere" as code 0, which ZKVJournal's accessors read as no change.
std::vector<std::string> ownJournalEntries(const PropertyList& contents,
                                           const ZKVRemotePreferencesSource::KeySet& handedOver,
                                           std::int64_t count) {
  std::vector<std::string> own;
  const PropertyList* journal = contents.find(ZKVJournal::kStoreKey);
  const PlistDictionary* entries = journal != nullptr ? journal->getDictionary() : nullptr;
  if (entries == nullptr) return own;
  for (const std::string& key : handedOver) {
    auto entry = entries->find(key);
    if (entry == entries->end()) continue;
    std::int64_t at = 0;
    if (const PropertyList* entryCount = entry->second.find("count"); entryCount != nullptr &&
                                                                       entryCount->getInt64(at) && at == count) {
      own.push_back(key);
    }
  }
  return own;
}

// The built-in limits, made once and never freed.
const PlistDictionary& defaultConfiguration() {
  static const PlistDictionary* const table = new PlistDictionary{
      {"maxKeyCount", PropertyList::integer(1024)},
      {"maxKeyNameLen", PropertyList::integer(64)},
      {"maxKeyDataLen", PropertyList::integer(1048576)},
      {"maxKeyDataSum", PropertyList::integer(1048576)},
  };
  return *table;
}

// Absolute time as a record timestamp: whole seconds, truncated toward zero.
// A clock outside the 64-bit range gives 0, which no record accepts.
std::int64_t timestampFromAbsoluteTime(double seconds) {
  if (!(std::fabs(seconds) < 9.0e18)) return 0;
  return static_cast<std::int64_t>(std::trunc(seconds));
}

// Values are immutable and copy-on-write, so sharing the payload is an
// immutable deep copy: a later edit through the caller's handle clones first.
PropertyList deepCopyPropertyList(const PropertyList& value) { return value; }

// What a reply handler was given, as log lines show it.
std::string describeReply(const ZKVReply& reply) {
  if (const PropertyList* value = std::get_if<PropertyList>(&reply)) return value->description();
  if (const ZKVError* error = std::get_if<ZKVError>(&reply)) return error->description();
  return std::string(kNullText);
}

std::string formatInteger(const char* format, std::int64_t value) {
  char line[96];
  std::snprintf(line, sizeof line, format, static_cast<long long>(value));
  return line;
}

// The grouped external changes as log lines show them: reason = (keys).
std::string describeGroupedChanges(const std::map<std::int64_t, std::vector<std::string>>& groups) {
  std::string out = "{\n";
  for (const auto& [reason, keys] : groups) {
    out += "    " + std::to_string(reason) + " = (\n";
    for (std::size_t i = 0; i < keys.size(); ++i) {
      out += "        " + PropertyList::string(keys[i]).description();
      out += i + 1 < keys.size() ? ",\n" : "\n";
    }
    out += "    );\n";
  }
  out += "}";
  return out;
}

[[noreturn]] void raiseAssertion(const std::string& description, const void* object, int line) {
  throw ZKVAssertionFailure(description, kSetValueOperation, object, kSourceFile, line);
}

// Holds the keep-alive transaction for one operation on the protection
// queue; end() closes it early, the destructor on every other path
// (exceptions included).
class TransactionScope {
 public:
  explicit TransactionScope(ZKVRemotePreferencesSource& source) : source_(&source) {
    source.lockedZkvStartTransaction();
  }
  ~TransactionScope() { end(); }
  TransactionScope(const TransactionScope&) = delete;
  TransactionScope& operator=(const TransactionScope&) = delete;

  void end() {
    if (source_ != nullptr) std::exchange(source_, nullptr)->lockedZkvEndTransaction();
  }

 private:
  ZKVRemotePreferencesSource* source_;  // the caller's queue item; null once ended
};

// The store file of a new source, or nullopt; logs where it lies.
std::optional<std::filesystem::path> locateStoreFile(const std::optional<std::string>& applicationID,
                                                     const std::optional<std::string>& storeID, bool shared,
                                                     bool additionalSource,
                                                     const std::optional<std::string>& containerPath) {
  if (!applicationID) return std::nullopt;
  const bool contained = !shared && velmora::currentEnvironment().getVariable(kContainedVariable).has_value();
  std::optional<std::filesystem::path> location = ZKVRemotePreferencesCreateURLForStorage(
      *applicationID, additionalSource ? storeID : std::nullopt, containerPath, contained);
  logLazily(LogLevel::Debug, [&] {
    return cat({"URL for ", *applicationID, " (shared: ", yesNo(shared), " - contained: ", yesNo(contained),
                " - storeID: ", orNull(storeID), " - additionalSource: ", yesNo(additionalSource), ") is ",
                orNull(location)});
  });
  return location;
}

}  // namespace

// ---------------------------------------------------------------------------
// Notification names.

const char* const ZKVRemotePreferencesSourceDidChangeNotification = "ZKVRemotePreferencesSourceDidChangeNotification";
const char* const ZKVRemotePreferencesSourceConfigurationDidChangeNotification =
    "ZKVRemotePreferencesSourceConfigurationDidChangeNotification";

const char* ZKVRemotePreferencesSource::ZKVRemotePreferencesSourceDidChangeNotification() {
  return ::ZKVRemotePreferencesSourceDidChangeNotification;
}

const char* ZKVRemotePreferencesSource::ZKVRemotePreferencesSourceConfigurationDidChangeNotification() {
  return ::ZKVRemotePreferencesSourceConfigurationDidChangeNotification;
}

// ---------------------------------------------------------------------------
// Assertion failures.

ZKVAssertionFailure::ZKVAssertionFailure(const std::string& description, std::string operation, const void* object,
                                         std::string file, int line)
    : std::logic_error(description),
      operation_(std::move(operation)),
      object_(object),
      file_(std::move(file)),
      line_(line) {}

// ---------------------------------------------------------------------------
// Storage location.

std::optional<std::filesystem::path> ZKVRemotePreferencesCreateURLForStorage(
    const std::string& applicationID, const std::optional<std::string>& storeID,
    const std::optional<std::string>& containerPath, bool contained) {
  std::filesystem::path base;
  if (containerPath && contained) {
    // Resolved once, now: a relative container must not follow later changes
    // of the working directory. Without a working directory there is no
    // place to name, so no location rather than a relative one.
    std::error_code error;
    base = std::filesystem::absolute(*containerPath, error);
    if (error) return std::nullopt;
  } else {
    std::optional<std::string> home = velmora::currentEnvironment().homeDirectory();
    if (!home) return std::nullopt;
    base = std::move(*home);
  }
  const std::filesystem::path directory = base / "Library" / "Quellstore";
  std::filesystem::path location =
      directory / (storeID ? cat({applicationID, "-", *storeID, ".plist"}) : cat({applicationID, ".plist"}));
  logLazily(LogLevel::Debug, [&] {
    return cat({"ZKVRemotePreferencesCreateURLForStorage ", directoryText(directory), " - ", directoryText(base)});
  });
  return location;
}

// ---------------------------------------------------------------------------
// Loading the store file.

void ZKVApplyStoreFileContents(ZKVStoreLoadState& state, PropertyList contents, std::string_view location) {
  const std::int64_t oldCount = state.storageChangeCount;
  // Editing an unshared decode does not copy it; a shared one is cloned
  // first, leaving the other holders' value alone.
  PlistDictionary* file = contents.editDictionary();
  logLazily(LogLevel::Debug, [&] {
    return cat({"urlOnDisk:", location, ", hasDict:", file != nullptr ? "1" : "0"});
  });

  if (file == nullptr) {
    state.cache.reset();
    state.initialSyncChangeCount = -1;
    state.storageChangeCount = 0;
    state.isInitialSync = false;
    logLazily(LogLevel::Debug, [&] { return cat({"No content for ", location}); });
    state.cache.emplace();
    return;
  }

  auto valuesEntry = file->find(kValuesKey);
  PropertyList* values =
      valuesEntry != file->end() && valuesEntry->second.isDictionary() ? &valuesEntry->second : nullptr;

  const ZKVJournal journal = ZKVJournal::withStore(*file);
  PropertyList changes;
  try {
    changes = journal.changesSinceChangeCount(oldCount);
  } catch (const std::invalid_argument&) {
    // A journal entry without a change code: the journal tells nothing.
  }
  const std::int64_t maximum = journal.maximumChangeCount();

  if (const PlistDictionary* changed = changes.getDictionary()) {
    if (state.externalChanges) {
      for (const auto& [key, code] : *changed) state.externalChanges->insert_or_assign(key, code);
    } else {
      state.externalChanges = *changed;
    }
  }

  std::int64_t newCount = 0;
  if (auto found = file->find(kChangeCountKey); found != file->end() && found->second.isNumber()) {
    (void)found->second.getInt64(newCount);
  }

  // Without a journal's word, tell what changed by comparing whole records
  // (a new timestamp counts) with the cache held before this load.
  if (!state.externalChanges && oldCount >= 0 && newCount > oldCount) {
    const PlistDictionary* fileValues = values != nullptr ? values->getDictionary() : nullptr;
    const PlistDictionary* oldCache = state.cache ? &*state.cache : nullptr;
    const PropertyList code = PropertyList::integer(kChangeCodeChanged);
    PlistDictionary found;
    if (fileValues != nullptr) {
      for (const auto& [key, record] : *fileValues) {
        auto before = oldCache != nullptr ? oldCache->find(key) : PlistDictionary::const_iterator();
        if (oldCache == nullptr || before == oldCache->end() || before->second != record) {
          found.emplace_hint(found.end(), key, code);
        }
      }
    }
    if (oldCache != nullptr) {
      for (const auto& [key, record] : *oldCache) {
        if (fileValues == nullptr || !fileValues->contains(key)) found.emplace(key, code);
      }
    }
    if (!found.empty()) state.externalChanges = std::move(found);
  }

  if (values != nullptr) {
    state.cache = std::move(*values->editDictionary());
  } else {
    state.cache.reset();
  }
  state.storageChangeCount = newCount;

  if (maximum > newCount) {
    logLazily(LogLevel::Default, [&] {
      char line[128];
      std::snprintf(line, sizeof line, "Incorrect NimbrelStore journal change count: %lld - should be at least %lld",
                    static_cast<long long>(newCount), static_cast<long long>(maximum));
      return std::string(line);
    });
  }

  std::int64_t mark = 0;
  if (auto found = file->find(kInitialSyncKey); found != file->end() && found->second.isNumber()) {
    (void)found->second.getInt64(mark);
  } else if (file->contains(kVersionIdKey)) {
    mark = newCount;
  } else {
    state.initialSyncChangeCount = -1;
    state.isInitialSync = false;
    if (!state.cache) state.cache.emplace();
    return;
  }
  // Only a load that follows one which knew of no initial synchronisation
  // reports it: the first load of a source never does.
  if (mark >= 0 && state.initialSyncChangeCount == -1) {
    logLazily(LogLevel::Debug, [] { return std::string("Detecting initial sync from server"); });
    state.isInitialSync = true;
  } else {
    state.isInitialSync = false;
  }
  state.initialSyncChangeCount = mark;

  if (!state.cache) state.cache.emplace();
}

// ---------------------------------------------------------------------------
// Creation and teardown.

std::shared_ptr<ZKVRemotePreferencesSource> ZKVRemotePreferencesSource::create(
    std::optional<std::string> applicationID, bool shared) {
  return create(std::move(applicationID), std::nullopt, shared, false, std::nullopt);
}

std::shared_ptr<ZKVRemotePreferencesSource> ZKVRemotePreferencesSource::create(
    std::optional<std::string> applicationID, std::optional<std::string> storeID, bool shared) {
  return create(std::move(applicationID), std::move(storeID), shared, false, std::nullopt);
}

std::shared_ptr<ZKVRemotePreferencesSource> ZKVRemotePreferencesSource::create(
    std::optional<std::string> applicationID, std::optional<std::string> storeID, bool shared,
    bool additionalSource) {
  return create(std::move(applicationID), std::move(storeID), shared, additionalSource, std::nullopt);
}

std::shared_ptr<ZKVRemotePreferencesSource> ZKVRemotePreferencesSource::create(
    std::optional<std::string> applicationID, std::optional<std::string> storeID, bool shared,
    bool additionalSource, std::optional<std::string> containerPath) {
  initializeClass();
  auto source = std::make_shared<ZKVRemotePreferencesSource>(PrivateTag{}, std::move(applicationID), storeID, shared,
                                                             additionalSource, containerPath);
  source->observeSystemNotifications();
  source->createMemoryWarningSource();
  return source;
}

ZKVRemotePreferencesSource::ZKVRemotePreferencesSource(PrivateTag, std::optional<std::string> applicationID,
                                                       const std::optional<std::string>& storeID, bool shared,
                                                       bool additionalSource,
                                                       const std::optional<std::string>& containerPath)
    : environment_(velmora::currentEnvironment()),
      preferenceID_(applicationID),
      urlOnDisk_(locateStoreFile(applicationID, storeID, shared, additionalSource, containerPath)) {
  store_.initialSyncChangeCount = -2;
  client_ = ZKVClient::create(nullptr, shared ? std::move(applicationID) : std::nullopt, storeID, additionalSource);
  registrationQueue_ = velmora::DispatchQueue::createSerial(std::string(kRegistrationQueueLabel));
  protectionQueue_ = velmora::DispatchQueue::createSerial(std::string(kProtectionQueueLabel));
  store_.storageChangeCount = -1;
}

void ZKVRemotePreferencesSource::initializeClass() {
  velmora::dispatchOnce(gClassInitialized, [] {
    gForgetAccountSwitchReason.store(!velmora::linkedOnOrAfterRelease8(), std::memory_order_release);
  });
}

bool ZKVRemotePreferencesSource::forgetsAccountSwitchReason() {
  initializeClass();
  return gForgetAccountSwitchReason.load(std::memory_order_acquire);
}

void ZKVRemotePreferencesSource::observeSystemNotifications() {
  notificationCenter_ = &velmora::currentSystemNotificationCenter();
  // The handlers may use this plainly: the destructor removes every
  // observation (waiting for a relay in flight) before anything is torn
  // down. The system-wide postings carry no store identity, so every source
  // relays every one, with itself as object. Neither relay loads or fetches
  // anything: the store and the configuration change only through their own
  // requests.
  notificationCenter_->addObserver(
      std::string(kConfigurationDidChangeSystemNotification), nullptr,
      [this] {
        velmora::NotificationCenter::defaultCenter().post(
            ::ZKVRemotePreferencesSourceConfigurationDidChangeNotification, this);
      },
      this);
  notificationCenter_->addObserver(
      std::string(kSourceDidChangeExternallySystemNotification), nullptr,
      [this] {
        velmora::NotificationCenter::defaultCenter().post(::ZKVRemotePreferencesSourceDidChangeNotification, this);
      },
      this);
}

void ZKVRemotePreferencesSource::createMemoryWarningSource() {
  std::weak_ptr<ZKVRemotePreferencesSource> weak = weak_from_this();
  auto registration = std::make_unique<velmora::MemoryWarningRegistration>(
      velmora::observeMemoryWarnings(protectionQueue_, [weak] {
        // Weak, so that the registration never keeps the source alive; the
        // check of the registration covers a warning queued before teardown.
        if (std::shared_ptr<ZKVRemotePreferencesSource> source = weak.lock()) {
          if (source->memoryWarningSource_) source->lockedDidReceiveMemoryWarning();
        }
      }));
  std::unique_ptr<velmora::MemoryWarningRegistration> previous;
  protectionQueue_->sync([&] {
    previous = std::exchange(memoryWarningSource_, std::move(registration));
  });
  // previous (if any) is cancelled here, off the queue.
}

ZKVRemotePreferencesSource::~ZKVRemotePreferencesSource() {
  if (notificationCenter_ != nullptr) notificationCenter_->removeObservers(this);
  {
    std::lock_guard lock(configurationLock_);
    configurationDictionary_ = PropertyList();
  }
  if (memoryWarningSource_) {
    memoryWarningSource_->cancel();
    memoryWarningSource_.reset();
  }
  // A warning handler may hold the last reference, so teardown can run on
  // the protection queue itself; it must not wait for that queue then.
  auto release = [this] {
    store_.cache.reset();
    dirtyKeys_.reset();
  };
  if (protectionQueue_->isCurrent()) {
    release();
  } else {
    protectionQueue_->sync(release);
  }
  client_->shutdown();
}

// ---------------------------------------------------------------------------
// Keep-alive transaction.

void ZKVRemotePreferencesSource::lockedZkvStartTransaction() {
  protectionQueue_->assertCurrent();
  if (!isExecutingForClient_) isExecutingForClient_.emplace(kTransactionName);
}

void ZKVRemotePreferencesSource::lockedZkvEndTransaction() {
  protectionQueue_->assertCurrent();
  isExecutingForClient_.reset();
}

bool ZKVRemotePreferencesSource::lockedIsExecutingForClient() const {
  protectionQueue_->assertCurrent();
  return isExecutingForClient_.has_value();
}

// ---------------------------------------------------------------------------
// Values.

PropertyList ZKVRemotePreferencesSource::getValueForKey(std::string_view key) {
  PropertyList value;
  protectionQueue_->sync([&] {
    TransactionScope transaction(*this);
    if (!store_.cache) lockedSynchronizeForced(false);
    auto found = store_.cache->find(key);
    // Records are immutable, so reading the value out here is the same as
    // reading it from a copy of the record after leaving the queue, and
    // spares the reference-count traffic of that copy.
    if (found != store_.cache->end()) {
      if (const PropertyList* stored = ZKVGetPropertyListAndTimestampFromStorage(found->second, nullptr)) {
        value = *stored;
      }
    }
  });
  lastAccess_.store(environment_.absoluteTime(), std::memory_order_relaxed);
  return value;
}

void ZKVRemotePreferencesSource::setValueForKey(const PropertyList& value, std::string_view key) {
  protectionQueue_->sync([&] {
    TransactionScope transaction(*this);
    if (key.empty()) {
      transaction.end();
      defaultLog().log(LogLevel::Default, "NimbrelStore does not support empty keys");
      return;
    }
    if (!store_.cache) lockedSynchronizeForced(false);
    const double now = environment_.absoluteTime();
    lastAccess_.store(now, std::memory_order_relaxed);
    lockedSetValueForKey(value, key, now);
  });
}

void ZKVRemotePreferencesSource::setValuesForKeys(const PlistDictionary& values) {
  protectionQueue_->sync([&] {
    TransactionScope transaction(*this);
    if (!store_.cache) lockedSynchronizeForced(false);
    // What a single write would raise for is raised before anything changes.
    for (const auto& [key, value] : values) {
      if (value.isNone()) continue;
      if (!value.isValidForBinaryFormat(PropertyList::kMaxDepth - kMaximumValueDepth)) {
        raiseAssertion("NimbrelStore: value is not property-list compatible: " + value.description(), this,
                       __LINE__);
      }
      if (!store_.cache->contains(key) &&
          static_cast<std::int64_t>(key.size()) > static_cast<std::int64_t>(maximumKeyLength())) {
        raiseAssertion(cat({"NimbrelStore: key '", key, "' is too long."}), this, __LINE__);
      }
    }
    const double now = environment_.absoluteTime();
    lastAccess_.store(now, std::memory_order_relaxed);
    for (const auto& [key, value] : values) {
      if (key.empty()) {
        defaultLog().log(LogLevel::Default, "NimbrelStore does not support empty keys");
      } else {
        lockedSetValueForKey(value, key, now);
      }
    }
  });
}

void ZKVRemotePreferencesSource::lockedSetValueForKey(const PropertyList& value, std::string_view key, double now) {
  PlistDictionary& cache = *store_.cache;

  if (value.isNone()) {
    auto found = cache.find(key);
    if (found == cache.end()) {
      logLazily(LogLevel::Debug, [&] { return cat({"Bailing out for key in cache to ", key}); });
      return;
    }
    cache.erase(found);
  } else {
    // Deeper values could not be written into the store file, nor handed over.
    if (!value.isValidForBinaryFormat(PropertyList::kMaxDepth - kMaximumValueDepth)) {
      raiseAssertion("NimbrelStore: value is not property-list compatible: " + value.description(), this,
                     __LINE__);
    }
    auto found = cache.find(key);
    if (found != cache.end()) {
      // An unchanged value is no write: no new timestamp, nothing dirty.
      const PropertyList* current = ZKVGetPropertyListAndTimestampFromStorage(found->second, nullptr);
      if (current != nullptr && (current->isSameObject(value) || *current == value)) return;
    } else if (static_cast<std::int64_t>(key.size()) > static_cast<std::int64_t>(maximumKeyLength())) {
      // Only keys new to the cache are measured, and the comparison is
      // signed, as the daemon's limit has always been read.
      raiseAssertion(cat({"NimbrelStore: key '", key, "' is too long."}), this, __LINE__);
    }
    PropertyList copy = deepCopyPropertyList(value);
    if (copy.isNone()) {
      raiseAssertion("NimbrelStore: QXPropertyListCreateDeepCopy failed -- out of memory?", this, __LINE__);
    }
    PropertyList record = ZKVCreateStorageForPropertyListAndTimestamp(copy, timestampFromAbsoluteTime(now));
    if (record.isNone()) {
      // Only a clock within a second of 2001-01-01 gets here: a record
      // cannot carry timestamp 0, so the copy into it failed.
      raiseAssertion("NimbrelStore: QXPropertyListCreateDeepCopy failed -- out of memory?", this, __LINE__);
    }
    if (found != cache.end()) {
      found->second = std::move(record);
    } else {
      cache.emplace(std::string(key), std::move(record));
    }
  }

  if (!dirtyKeys_) {
    dirtyKeys_.emplace();
    logLazily(LogLevel::Debug, [&] { return "New dirtyKeys " + describeKeySet(*dirtyKeys_); });
  }
  if (!dirtyKeys_->contains(key)) dirtyKeys_->emplace(key);
  logLazily(LogLevel::Debug, [&] { return cat({"Adding dirty key to ", key, " : ", describeKeySet(*dirtyKeys_)}); });
  ++generationCount_;
}

std::vector<std::string> ZKVRemotePreferencesSource::copyKeyList() {
  std::vector<std::string> keys;
  protectionQueue_->sync([&] {
    TransactionScope transaction(*this);
    if (!store_.cache) lockedSynchronizeForced(false);
    if (!store_.cache || store_.cache->empty()) return;
    keys.reserve(store_.cache->size());
    for (const auto& [key, record] : *store_.cache) keys.push_back(key);
  });
  return keys;
}

PlistDictionary ZKVRemotePreferencesSource::copyDictionary() {
  PlistDictionary result;
  protectionQueue_->sync([&] {
    TransactionScope transaction(*this);
    if (!store_.cache) lockedSynchronizeForced(false);
    for (const auto& [key, record] : *store_.cache) {
      if (const PropertyList* value = ZKVGetPropertyListAndTimestampFromStorage(record, nullptr)) {
        result.emplace_hint(result.end(), key, *value);
      }
    }
  });
  return result;
}

std::int64_t ZKVRemotePreferencesSource::generationCount() {
  std::int64_t count = 0;
  protectionQueue_->sync([&] { count = generationCount_; });
  return count;
}

std::string ZKVRemotePreferencesSource::describeKeySet(const KeySet& keys) {
  if (keys.empty()) return "{()}";
  std::string out = "{(\n";
  std::size_t left = keys.size();
  for (const std::string& key : keys) {
    out += "    ";
    out += PropertyList::string(key).description();
    out += --left > 0 ? ",\n" : "\n";
  }
  out += ")}";
  return out;
}

// ---------------------------------------------------------------------------
// Synchronisation and loading.

bool ZKVRemotePreferencesSource::synchronizeForced(bool forced) {
  bool result = false;
  protectionQueue_->sync([&] {
    TransactionScope transaction(*this);
    result = lockedSynchronizeForced(forced);
  });
  return result;
}

bool ZKVRemotePreferencesSource::synchronize() { return synchronizeForced(false); }

bool ZKVRemotePreferencesSource::lockedSynchronizeForced(bool forced) {
  protectionQueue_->assertCurrent();
  if (!urlOnDisk_) {
    if (!store_.cache) store_.cache.emplace();
    return true;
  }
  if (!store_.cache) {
    lockedCachePlistFromDisk();
    return true;
  }
  // The plain load keeps the common path free of a read-modify-write.
  if (forceNextSynchronization_.load(std::memory_order_relaxed) &&
      forceNextSynchronization_.exchange(false, std::memory_order_relaxed)) {
    forced = true;
  }
  if (lastGenerationFromDisk_ == generationCount_) {
    if (forced) lockedCachePlistFromDisk();
    return true;
  }

  // Each dirty key travels once with its latest record; a removed key as an
  // empty dictionary, so the daemon removes it rather than never hearing.
  PlistDictionary changes;
  if (dirtyKeys_) {
    const PlistDictionary& cache = *store_.cache;
    for (const std::string& key : *dirtyKeys_) {
      auto found = cache.find(key);
      changes.emplace_hint(changes.end(), key, found != cache.end() ? found->second : PropertyList::dictionary({}));
    }
  }
  PlistDictionary userInfo;
  userInfo.emplace(kChangesKey, PropertyList::dictionary(std::move(changes)));
  userInfo.emplace(kChangeCountKey, PropertyList::integer(store_.storageChangeCount));

  forceRegistrationNow();
  const PropertyList reply =
      client_->sendMessageWithNameUserInfo(kZKVMessageSynchronize, PropertyList::dictionary(std::move(userInfo)));
  const bool replied = !reply.isNone();

  if (replied) {
    logLazily(LogLevel::Debug,
              [&] { return "Trash dirty keys " + describeKeySet(dirtyKeys_ ? *dirtyKeys_ : KeySet{}); });
    KeySet handedOver;
    if (dirtyKeys_) handedOver.swap(*dirtyKeys_);
    if (forced) {
      // The keys just handed over come back journaled at the count the
      // daemon answered with: this process's own writes, not changes made
      // elsewhere. Changes pending from an earlier load stay.
      std::int64_t answered = -1;
      if (const PropertyList* count = reply.find(kChangeCountKey)) (void)count->getInt64(answered);
      PropertyList contents = velmora::readPlistFile(urlOnDisk_->native());
      const std::vector<std::string> own =
          answered > 0 ? ownJournalEntries(contents, handedOver, answered) : std::vector<std::string>{};
      const std::optional<PlistDictionary> pending = own.empty() ? std::nullopt : store_.externalChanges;
      ZKVApplyStoreFileContents(store_, std::move(contents), orNull(urlOnDisk_));
      if (store_.externalChanges) {
        for (const std::string& key : own) {
          if (!pending || !pending->contains(key)) store_.externalChanges->erase(key);
        }
        if (store_.externalChanges->empty()) store_.externalChanges.reset();
      }
    } else if (lockedTakesReplyChangeCount()) {
      std::int64_t count = 0;
      if (const PropertyList* answered = reply.find(kChangeCountKey)) (void)answered->getInt64(count);
      store_.storageChangeCount = count;
    }
    lastGenerationFromDisk_ = generationCount_;
  } else {
    // Keys and counts stay as they are: the next call sends the same keys.
    logLazily(LogLevel::Debug, [&] { return cat({"Write failure for ", orNull(urlOnDisk_)}); });
  }
  logLazily(LogLevel::Debug, [&] {
    char line[128];
    std::snprintf(line, sizeof line, "forced:%s, changeCount:%lld, result:%s", yesNo(forced).data(),
                  static_cast<long long>(store_.storageChangeCount), yesNo(replied).data());
    return std::string(line);
  });
  return replied;
}

bool ZKVRemotePreferencesSource::lockedTakesReplyChangeCount() {
  protectionQueue_->assertCurrent();
  if (!takesReplyChangeCount_) {
    takesReplyChangeCount_ = environment_.hostApplicationIdentifier() != kChangeCountKeepingApplication;
  }
  return *takesReplyChangeCount_;
}

void ZKVRemotePreferencesSource::scheduleRemoteSynchronization() {
  registrationQueue_->after(kDeferral, [self = shared_from_this()] {
    self->client_->sendMessageWithName(kZKVMessageSynchronizeRemote);
  });
}

void ZKVRemotePreferencesSource::synchronizationWithCompletionHandler(ZKVReplyHandler handler) {
  forceRegistrationNow();
  client_->sendMessageWithNameReplyHandler(
      kZKVMessageTrackSynchronizeRemote,
      [self = shared_from_this(), handler = std::move(handler)](const ZKVReply& reply) {
        if (!handler) return;
        if (const PropertyList* value = std::get_if<PropertyList>(&reply); value != nullptr && value->isDictionary()) {
          const PropertyList* error = value->find(kZKVReplyErrorKey);
          handler(error != nullptr ? ZKVReply(*error) : ZKVReply());
        } else if (const ZKVError* error = std::get_if<ZKVError>(&reply)) {
          handler(*error);
        } else {
          // Reported as success on purpose; the next hand-over re-reads the
          // store file, in case the daemon did change it.
          self->forceNextSynchronization_.store(true, std::memory_order_relaxed);
          handler(ZKVReply());
        }
      });
}

bool ZKVRemotePreferencesSource::isInitialSync() const { return store_.isInitialSync; }

void ZKVRemotePreferencesSource::lockedCachePlistFromDisk() {
  protectionQueue_->assertCurrent();
  PropertyList contents;
  if (urlOnDisk_) contents = velmora::readPlistFile(urlOnDisk_->native());
  ZKVApplyStoreFileContents(store_, std::move(contents), orNull(urlOnDisk_));
}

const ZKVStoreLoadState& ZKVRemotePreferencesSource::lockedLoadState() const {
  protectionQueue_->assertCurrent();
  return store_;
}

const std::optional<ZKVRemotePreferencesSource::KeySet>& ZKVRemotePreferencesSource::lockedDirtyKeys() const {
  protectionQueue_->assertCurrent();
  return dirtyKeys_;
}

std::int64_t ZKVRemotePreferencesSource::lockedLastGenerationFromDisk() const {
  protectionQueue_->assertCurrent();
  return lastGenerationFromDisk_;
}

// ---------------------------------------------------------------------------
// Configuration.

void ZKVRemotePreferencesSource::storeConfiguration(PropertyList configuration) {
  std::lock_guard lock(configurationLock_);
  logLazily(LogLevel::Debug, [&] { return "Storing configuration: " + configuration.description(); });
  configurationDictionary_ = std::move(configuration);
}

PropertyList ZKVRemotePreferencesSource::copyConfigurationDictionary() const {
  std::lock_guard lock(configurationLock_);
  return configurationDictionary_;
}

std::uint64_t ZKVRemotePreferencesSource::configurationValueForKey(std::string_view key) const {
  std::uint64_t value = 0;
  {
    std::lock_guard lock(configurationLock_);
    if (const PropertyList* configured = configurationDictionary_.find(key)) value = unsignedIntegerValue(*configured);
  }
  // A configured 0 means "no word from the daemon", like a missing entry.
  if (value != 0) return value;
  const PlistDictionary& defaults = defaultConfiguration();
  auto found = defaults.find(key);
  return found != defaults.end() ? unsignedIntegerValue(found->second) : 0;
}

std::uint64_t ZKVRemotePreferencesSource::maximumKeyCount() const { return configurationValueForKey("maxKeyCount"); }

std::uint64_t ZKVRemotePreferencesSource::maximumKeyLength() const {
  return configurationValueForKey("maxKeyNameLen");
}

std::uint64_t ZKVRemotePreferencesSource::maximumDataLengthPerKey() const {
  return configurationValueForKey("maxKeyDataLen");
}

std::uint64_t ZKVRemotePreferencesSource::maximumTotalDataLength() const {
  return configurationValueForKey("maxKeyDataSum");
}

void ZKVRemotePreferencesSource::updateConfiguration() {
  forceRegistrationNow();
  client_->sendMessageWithNameReplyHandler(
      kZKVMessageGetConfiguration, [weak = weak_from_this()](const ZKVReply& reply) {
        // Anything but a dictionary leaves the held configuration, unlogged.
        const PropertyList* value = std::get_if<PropertyList>(&reply);
        if (value == nullptr || !value->isDictionary()) return;
        if (std::shared_ptr<ZKVRemotePreferencesSource> source = weak.lock()) source->storeConfiguration(*value);
      });
}

void ZKVRemotePreferencesSource::setDefaultsConfiguration(const PropertyList& configuration) {
  // From the registration queue, so it stays in order with registration.
  registrationQueue_->after(kDeferral, [self = shared_from_this(), configuration] {
    (void)self->client_->sendMessageWithNameUserInfo(kZKVMessageSetDefaultsConfig, configuration);
  });
}

// ---------------------------------------------------------------------------
// External changes: the caller's thread, neither queue (see the header).

bool ZKVRemotePreferencesSource::hasExternalChanges() {
  const bool pending = store_.externalChanges && !store_.externalChanges->empty();
  logLazily(LogLevel::Debug, [&] { return cat({"hasExternalChanges: ", yesNo(pending)}); });
  return pending;
}

std::optional<std::map<std::int64_t, std::vector<std::string>>>
ZKVRemotePreferencesSource::copyExternalChangesWithChangeCount(std::int64_t* outChangeCount) {
  const std::int64_t changeCount = store_.storageChangeCount;
  if (outChangeCount != nullptr) *outChangeCount = changeCount;
  logLazily(LogLevel::Debug, [&] {
    const bool pending = store_.externalChanges && !store_.externalChanges->empty();
    return formatInteger("changeCount: %lld, hasExternalChanges: ", changeCount) + std::string(yesNo(pending));
  });
  if (!store_.externalChanges) return std::nullopt;

  const bool forgetAccountSwitch = forgetsAccountSwitchReason();
  std::map<std::int64_t, std::vector<std::string>> groups;
  for (const auto& [key, reason] : *store_.externalChanges) {
    std::int64_t code = 0;
    // A reason that is no whole number (a foreign journal's) has no group of
    // its own here; folding it into 0, "changed on the server", or cutting
    // 2.5 down to 2 would tell the application something untrue.
    if (!reason.getInt64(code)) {
      logLazily(LogLevel::Debug, [&key = key, &reason = reason] {
        return cat({"Skipping external change of ", key, ": reason ", reason.description(), " is not an integer"});
      });
      continue;
    }
    if (forgetAccountSwitch && code == kChangeCodeAccountSwitch) code = kChangeCodeChanged;
    groups[code].push_back(key);
  }
  // Handed out exactly once.
  store_.externalChanges.reset();
  logLazily(LogLevel::Debug, [&] {
    return formatInteger("changeCount: %lld, changes: ", changeCount) + describeGroupedChanges(groups);
  });
  return groups;
}

void ZKVRemotePreferencesSource::discardExternalChangesForChangeCount(std::int64_t changeCount) {
  logLazily(LogLevel::Debug, [&] {
    char line[96];
    std::snprintf(line, sizeof line, "changeCount: %lld/%lld", static_cast<long long>(changeCount),
                  static_cast<long long>(store_.storageChangeCount));
    return std::string(line);
  });
  forceRegistrationNow();
  // The payload is the bare number; the journal shrinks when the daemon
  // rewrites the file, so nothing local changes here.
  (void)client_->sendMessageWithNameUserInfo(kZKVMessageDiscardJournalEntries, PropertyList::integer(changeCount));
}

// ---------------------------------------------------------------------------
// Registration and the daemon's other requests.

std::function<void()> ZKVRemotePreferencesSource::makeRegistrationBlock() {
  // Plain this: the source owns the closure, and only the source runs it
  // (from forceRegistrationNow, or from a deferred task holding the source).
  return [this] {
    registrationQueue_->assertCurrent();
    {
      std::lock_guard lock(registrationLock_);
      if (!registrationBlock_) return;
      // Cleared before the send rather than after, so that a
      // registerForCorvane racing the send keeps its own registration. The
      // closure runs from a copy, so dropping the slot here is safe.
      registrationBlock_ = nullptr;
    }
    client_->sendMessageWithNameReplyHandler(kZKVMessageRegister, [weak = weak_from_this()](const ZKVReply& reply) {
      const PropertyList* value = std::get_if<PropertyList>(&reply);
      if (value != nullptr && value->isDictionary()) {
        if (std::shared_ptr<ZKVRemotePreferencesSource> source = weak.lock()) source->storeConfiguration(*value);
        return;
      }
      defaultLog().log(LogLevel::Default, "NimbrelStore error: " + describeReply(reply));
    });
  };
}

void ZKVRemotePreferencesSource::runPendingRegistration() {
  registrationQueue_->assertCurrent();
  std::function<void()> pending;
  {
    std::lock_guard lock(registrationLock_);
    pending = registrationBlock_;
  }
  if (pending) pending();
}

void ZKVRemotePreferencesSource::registerForCorvane() {
  std::function<void()> replaced;
  {
    std::lock_guard lock(registrationLock_);
    replaced = std::exchange(registrationBlock_, makeRegistrationBlock());
  }
  registrationQueue_->after(kDeferral, [self = shared_from_this()] { self->runPendingRegistration(); });
  // replaced is released here, outside the lock.
}

void ZKVRemotePreferencesSource::forceRegistrationNow() {
  registrationQueue_->sync([this] { runPendingRegistration(); });
}

void ZKVRemotePreferencesSource::unregisterForCorvane() {
  forceRegistrationNow();
  client_->sendMessageWithName(kZKVMessageUnregister);
}

void ZKVRemotePreferencesSource::ping() { client_->sendMessageWithName(kZKVMessagePing); }

std::optional<std::string> ZKVRemotePreferencesSource::serverSideDebugDescription() {
  const PropertyList reply = client_->sendMessageWithNameUserInfo(kZKVMessagePrintDebugDescription, PropertyList());
  if (reply.isNone()) return std::nullopt;
  if (const std::string* text = reply.getString()) return *text;
  return reply.description();
}

// ---------------------------------------------------------------------------
// Memory-pressure eviction.

void ZKVRemotePreferencesSource::lockedDidReceiveMemoryWarning() {
  protectionQueue_->assertCurrent();
  logLazily(LogLevel::Debug, [] { return std::string("Received memory warning for KVS"); });
  if (!store_.cache) {
    logLazily(LogLevel::Debug, [] { return std::string("Cache already empty"); });
    return;
  }
  if (environment_.absoluteTime() - lastAccess() < kIdleEvictionSeconds) {
    logLazily(LogLevel::Debug, [&] {
      char line[96];
      std::snprintf(line, sizeof line, "Recent KVS use, aborting %f", environment_.absoluteTime() - lastAccess());
      return std::string(line);
    });
    return;
  }
  if (dirtyKeys_ && !dirtyKeys_->empty()) {
    logLazily(LogLevel::Debug, [&] { return "Dirty keys " + describeKeySet(*dirtyKeys_); });
    return;
  }
  logLazily(LogLevel::Debug, [] { return std::string("Clearing cache"); });
  store_.cache.reset();
}

const velmora::MemoryWarningRegistration* ZKVRemotePreferencesSource::lockedWarningSource() const {
  protectionQueue_->assertCurrent();
  return memoryWarningSource_.get();
}
