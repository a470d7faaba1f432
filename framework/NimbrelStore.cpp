// NimbrelStore: the registry of live stores, typed access, the limit checks
// in front of the source, and the delivery of changes made elsewhere. The
// locks, queues and waiting order are described in the header's design note.
#include "zkv/NimbrelStore.h"

#include <algorithm>
#include <compare>
#include <cstdio>
#include <cstdlib>
#include <utility>

#include "velmora/platform/Dispatch.h"
#include "velmora/platform/Environment.h"
#include "velmora/platform/Log.h"
#include "velmora/platform/PlistCodec.h"
#include "zkv/ZKVEncoding.h"
#include "zkv/ZKVLog.h"
#include "zkv/ZKVRemotePreferencesSource.h"

using velmora::DispatchQueue;
using velmora::LogLevel;
using velmora::PropertyList;

// ---------------------------------------------------------------------------
// Results.

const NimbrelError& NimbrelResult::error() const {
  if (!error_) {
    std::fprintf(stderr, "NimbrelResult::error() called on a success\n");
    std::abort();
  }
  return *error_;
}

namespace {

// The source's keep-alive transaction around a hand-over made from inside
// a protection-queue item, as the source's own synchronize() holds it.
class SourceTransaction {
 public:
  explicit SourceTransaction(ZKVRemotePreferencesSource& source) : source_(source) {
    source_.lockedZkvStartTransaction();
  }
  ~SourceTransaction() { source_.lockedZkvEndTransaction(); }
  SourceTransaction(const SourceTransaction&) = delete;
  SourceTransaction& operator=(const SourceTransaction&) = delete;

 private:
  ZKVRemotePreferencesSource& source_;
};

// ---------------------------------------------------------------------------
// The registry: one live store per identity in the process.

struct RegistryKey {
  NimbrelStore::Kind kind;
  std::optional<std::string> applicationID;
  std::optional<std::string> storeID;

  auto operator<=>(const RegistryKey&) const = default;
};

struct RegistryEntry {
  std::weak_ptr<NimbrelStore> store;
  const NimbrelStore* identity;  // tells a successor's entry from the dying store's own
};

struct Registry {
  std::mutex mutex;                              // guards entries
  std::map<RegistryKey, RegistryEntry> entries;  // guarded by mutex
};

// Never destroyed, so a store released during exit still finds it.
Registry& registry() {
  static Registry* const instance = new Registry();
  return *instance;
}

using MakeStore = std::shared_ptr<NimbrelStore> (*)(NimbrelStore::Kind, const std::optional<std::string>&,
                                                    const std::optional<std::string>&);

// The live store of the identity, or a new one from make, under the lock so
// that racing callers get one store.
std::shared_ptr<NimbrelStore> obtainStore(NimbrelStore::Kind kind, std::optional<std::string> applicationID,
                                          std::optional<std::string> storeID, MakeStore make) {
  RegistryKey key{kind, std::move(applicationID), std::move(storeID)};
  Registry& reg = registry();
  std::lock_guard lock(reg.mutex);
  if (auto found = reg.entries.find(key); found != reg.entries.end()) {
    if (std::shared_ptr<NimbrelStore> live = found->second.store.lock()) return live;
  }
  std::shared_ptr<NimbrelStore> store = make(key.kind, key.applicationID, key.storeID);
  reg.entries.insert_or_assign(std::move(key), RegistryEntry{store, store.get()});
  return store;
}

// An identifier becomes part of a file name: nothing that leaves the store
// directory or that the file system cannot hold.
bool isUsableIdentifier(std::string_view id) {
  return !id.empty() && id != "." && id != ".." && id.find('/') == std::string_view::npos &&
         id.find('\0') == std::string_view::npos;
}

// ---------------------------------------------------------------------------
// Error text.

// The key as shown in messages: printable ASCII and valid UTF-8 as they are,
// anything else as \xNN, so that a bad key cannot garble the line.
std::string printableKey(std::string_view key) {
  if (velmora::isValidUtf8(key)) {
    bool plain = true;
    for (unsigned char c : key) plain = plain && c >= 0x20 && c != 0x7f;
    if (plain) return std::string(key);
  }
  std::string out;
  for (unsigned char c : key) {
    if (c >= 0x20 && c < 0x7f && c != '\\') {
      out += static_cast<char>(c);
    } else {
      char escaped[8];
      std::snprintf(escaped, sizeof escaped, "\\x%02x", c);
      out += escaped;
    }
  }
  return out;
}

NimbrelResult refuse(NimbrelErrorCode code, std::string_view key, std::uint64_t size, std::uint64_t limit,
                     std::string message) {
  const velmora::LogHandle& log = *ZKVGetDefaultLog();
  if (log.isEnabled(LogLevel::Debug)) log.log(LogLevel::Debug, message);
  return NimbrelResult::failure(NimbrelError{code, std::string(key), size, limit, std::move(message)});
}

std::string quoted(std::string_view key) { return "'" + printableKey(key) + "'"; }

// Why value cannot be stored, for a value that failed the validity test.
std::string invalidValueText(std::string_view key, const PropertyList& value) {
  if (const std::string* text = value.getString(); text != nullptr && !velmora::isValidUtf8(*text)) {
    return "NimbrelStore: the value for key " + quoted(key) + " is not valid UTF-8 text";
  }
  const std::string depth = std::to_string(ZKVRemotePreferencesSource::kMaximumValueDepth);
  return "NimbrelStore: the value for key " + quoted(key) + " is not a property-list value (" +
         "text or a key that is not valid UTF-8, a missing value, or nesting deeper than " + depth + " levels)";
}

// The checks a write makes before taking any lock: the key, the value's
// validity and its serialised size (*size; 0 for a removal).
NimbrelResult validateWrite(std::string_view key, const PropertyList& value, std::uint64_t* size) {
  *size = 0;
  if (key.empty()) return refuse(NimbrelErrorCode::kInvalidKey, key, 0, 0, "NimbrelStore: the key is empty");
  if (!velmora::isValidUtf8(key)) {
    return refuse(NimbrelErrorCode::kInvalidKey, key, 0, 0, "NimbrelStore: key " + quoted(key) + " is not valid UTF-8");
  }
  if (value.isNone()) return NimbrelResult::success();
  if (!value.isValidForBinaryFormat(PropertyList::kMaxDepth - ZKVRemotePreferencesSource::kMaximumValueDepth)) {
    return refuse(NimbrelErrorCode::kInvalidValue, key, 0, 0, invalidValueText(key, value));
  }
  const std::ptrdiff_t length = ZKVGetSerializedLengthForPropertyList(value);
  if (length <= 0) return refuse(NimbrelErrorCode::kInvalidValue, key, 0, 0, invalidValueText(key, value));
  *size = static_cast<std::uint64_t>(length);
  return NimbrelResult::success();
}

// Checks a value of newSize bytes under key against source's limits, given
// whether the key exists, the store's key count, the key's present size and
// the total.
NimbrelResult checkLimits(const ZKVRemotePreferencesSource& source, std::string_view key, std::uint64_t newSize,
                          bool exists, std::size_t keyCount, std::uint64_t oldSize, std::uint64_t totalSize) {
  if (!exists) {
    // The source's own rule (signed, in UTF-8 bytes), so that it never
    // has to raise for a key the store let through.
    const auto maxLength = static_cast<std::int64_t>(source.maximumKeyLength());
    if (static_cast<std::int64_t>(key.size()) > maxLength) {
      return refuse(NimbrelErrorCode::kKeyTooLong, key, key.size(), source.maximumKeyLength(),
                    "NimbrelStore: key " + quoted(key) + " is " + std::to_string(key.size()) +
                        " bytes long, over the limit of " + std::to_string(source.maximumKeyLength()) + " bytes");
    }
    const std::uint64_t maxCount = source.maximumKeyCount();
    if (keyCount >= maxCount) {
      return refuse(NimbrelErrorCode::kTooManyKeys, key, keyCount + 1, maxCount,
                    "NimbrelStore: new key " + quoted(key) + " would be key number " + std::to_string(keyCount + 1) +
                        ", over the limit of " + std::to_string(maxCount) + " keys");
    }
  }
  const std::uint64_t maxPerKey = source.maximumDataLengthPerKey();
  if (newSize > maxPerKey) {
    return refuse(NimbrelErrorCode::kValueTooLarge, key, newSize, maxPerKey,
                  "NimbrelStore: the value for key " + quoted(key) + " is " + std::to_string(newSize) +
                      " bytes serialised, over the limit of " + std::to_string(maxPerKey) + " bytes per key");
  }
  const std::uint64_t newTotal = totalSize - oldSize + newSize;
  const std::uint64_t maxTotal = source.maximumTotalDataLength();
  // A store already over the limit (filled elsewhere) may still shrink.
  if (newSize > oldSize && newTotal > maxTotal) {
    return refuse(NimbrelErrorCode::kTotalTooLarge, key, newTotal, maxTotal,
                  "NimbrelStore: with the value for key " + quoted(key) + " (" + std::to_string(newSize) +
                      " bytes serialised) all values would take " + std::to_string(newTotal) +
                      " bytes, over the limit of " + std::to_string(maxTotal) + " bytes");
  }
  return NimbrelResult::success();
}

}  // namespace

// ---------------------------------------------------------------------------
// Getting a store.

std::shared_ptr<NimbrelStore> NimbrelStore::make(Kind kind, const std::optional<std::string>& applicationID,
                                                 const std::optional<std::string>& storeID) {
  auto store = std::make_shared<NimbrelStore>(PrivateTag{}, kind, applicationID, storeID);
  store->start();
  return store;
}

std::shared_ptr<NimbrelStore> NimbrelStore::defaultStore() {
  return obtainStore(Kind::kDefault, velmora::currentEnvironment().hostApplicationIdentifier(), std::nullopt,
                     &NimbrelStore::make);
}

std::shared_ptr<NimbrelStore> NimbrelStore::storeWithIdentifier(std::string storeID) {
  if (storeID.empty()) return defaultStore();
  if (!isUsableIdentifier(storeID)) return nullptr;
  return obtainStore(Kind::kAdditional, velmora::currentEnvironment().hostApplicationIdentifier(), std::move(storeID),
                     &NimbrelStore::make);
}

std::shared_ptr<NimbrelStore> NimbrelStore::storeForApplication(std::string applicationID,
                                                                std::optional<std::string> storeID) {
  if (storeID && storeID->empty()) storeID.reset();
  if (!isUsableIdentifier(applicationID) || (storeID && !isUsableIdentifier(*storeID))) return nullptr;
  return obtainStore(Kind::kApplication, std::move(applicationID), std::move(storeID), &NimbrelStore::make);
}

namespace {

// The source of a store: an additional store is an additional source (its
// file carries the store identifier); a named application's store is shared,
// so its requests carry that application's identifier.
std::shared_ptr<ZKVRemotePreferencesSource> makeSource(NimbrelStore::Kind kind,
                                                       const std::optional<std::string>& applicationID,
                                                       const std::optional<std::string>& storeID) {
  const bool shared = kind == NimbrelStore::Kind::kApplication;
  return ZKVRemotePreferencesSource::create(applicationID, storeID, shared, storeID.has_value());
}

}  // namespace

NimbrelStore::NimbrelStore(PrivateTag, Kind kind, std::optional<std::string> applicationID,
                           std::optional<std::string> storeID)
    : kind_(kind),
      applicationID_(std::move(applicationID)),
      storeID_(std::move(storeID)),
      source_(makeSource(kind_, applicationID_, storeID_)),
      changeQueue_(DispatchQueue::createSerial(std::string(kChangeQueueLabel))) {}

void NimbrelStore::start() {
  std::weak_ptr<NimbrelStore> weak = weak_from_this();
  // The destructor removes this observation before anything else, and removal
  // waits for a call in flight, so the callback may use this without holding
  // the store.
  relayToken_ = velmora::NotificationCenter::defaultCenter().addObserver(
      ZKVRemotePreferencesSourceDidChangeNotification, source_.get(), [this, weak](const velmora::Notification&) {
        // The notice of a write the cache already holds (this process's own
        // hand-over, above all) is settled here by the file's change count,
        // without a trip through the queues that would hold up the writer.
        const std::int64_t clean = cleanCount_.load(std::memory_order_acquire);
        if (clean >= 0 && fileChangeCountIs(clean)) return;
        if (changePending_.exchange(true)) return;  // a reload is already on its way
        changeQueue_->async([weak] {
          if (std::shared_ptr<NimbrelStore> self = weak.lock()) self->handleExternalChange();
        });
      });
  source_->registerForCorvane();
  // Registered before the first load, not two seconds after it: the daemon
  // prunes journal entries once every registered client released them, and
  // an entry written after this load must stay until this process saw it.
  source_->forceRegistrationNow();
  // The first load reports every journal entry as a change made elsewhere;
  // for a store that did not exist yet they are history, not news.
  source_->protectionQueue()->sync([&] {
    if (!source_->lockedLoadState().cache) source_->lockedCachePlistFromDisk();
    (void)source_->copyExternalChangesWithChangeCount(nullptr);
    cleanCount_.store(source_->lockedLoadState().storageChangeCount, std::memory_order_release);
  });
}

NimbrelStore::~NimbrelStore() {
  velmora::NotificationCenter::defaultCenter().removeObserver(relayToken_);
  Registry& reg = registry();
  std::lock_guard lock(reg.mutex);
  auto found = reg.entries.find(RegistryKey{kind_, applicationID_, storeID_});
  if (found != reg.entries.end() && found->second.identity == this) reg.entries.erase(found);
}

std::string NimbrelStore::description() const {
  std::string text = "<NimbrelStore app=";
  text += applicationID_ ? *applicationID_ : std::string("(null)");
  if (storeID_) {
    text += " store=";
    text += *storeID_;
  }
  text += '>';
  return text;
}

// ---------------------------------------------------------------------------
// Reads.

std::optional<PropertyList> NimbrelStore::getObject(std::string_view key) {
  PropertyList value = source_->getValueForKey(key);
  if (value.isNone()) return std::nullopt;
  return value;
}

std::optional<std::string> NimbrelStore::getString(std::string_view key) {
  PropertyList value = source_->getValueForKey(key);
  if (const std::string* text = value.getString()) return *text;
  return std::nullopt;
}

std::optional<velmora::PlistArray> NimbrelStore::getArray(std::string_view key) {
  PropertyList value = source_->getValueForKey(key);
  if (const velmora::PlistArray* items = value.getArray()) return *items;
  return std::nullopt;
}

std::optional<velmora::PlistDictionary> NimbrelStore::getDictionary(std::string_view key) {
  PropertyList value = source_->getValueForKey(key);
  if (const velmora::PlistDictionary* entries = value.getDictionary()) return *entries;
  return std::nullopt;
}

std::optional<velmora::Bytes> NimbrelStore::getData(std::string_view key) {
  PropertyList value = source_->getValueForKey(key);
  if (const velmora::Bytes* bytes = value.getData()) return *bytes;
  return std::nullopt;
}

std::optional<std::int64_t> NimbrelStore::getInteger(std::string_view key) {
  std::int64_t number = 0;
  // getInt64 is true only for an exact conversion, which is the rule here.
  if (source_->getValueForKey(key).getInt64(number)) return number;
  return std::nullopt;
}

std::optional<double> NimbrelStore::getDouble(std::string_view key) {
  double number = 0.0;
  if (source_->getValueForKey(key).getDouble(number)) return number;
  return std::nullopt;
}

std::optional<bool> NimbrelStore::getBool(std::string_view key) {
  PropertyList value = source_->getValueForKey(key);
  if (value.isBoolean()) return value.booleanValue();
  return std::nullopt;
}

velmora::PlistDictionary NimbrelStore::dictionaryRepresentation() { return source_->copyDictionary(); }

// ---------------------------------------------------------------------------
// Writes.

NimbrelResult NimbrelStore::setObject(std::string_view key, const PropertyList& value) { return write(key, value); }

NimbrelResult NimbrelStore::setString(std::string_view key, std::string value) {
  return write(key, PropertyList::string(std::move(value)));
}

NimbrelResult NimbrelStore::setArray(std::string_view key, velmora::PlistArray value) {
  return write(key, PropertyList::array(std::move(value)));
}

NimbrelResult NimbrelStore::setDictionary(std::string_view key, velmora::PlistDictionary value) {
  return write(key, PropertyList::dictionary(std::move(value)));
}

NimbrelResult NimbrelStore::setData(std::string_view key, velmora::Bytes value) {
  return write(key, PropertyList::data(std::move(value)));
}

NimbrelResult NimbrelStore::setInteger(std::string_view key, std::int64_t value) {
  return write(key, PropertyList::integer(value));
}

NimbrelResult NimbrelStore::setDouble(std::string_view key, double value) {
  return write(key, PropertyList::real(value));
}

NimbrelResult NimbrelStore::setBool(std::string_view key, bool value) {
  return write(key, PropertyList::boolean(value));
}

NimbrelResult NimbrelStore::removeObject(std::string_view key) { return write(key, PropertyList()); }

NimbrelResult NimbrelStore::write(std::string_view key, const PropertyList& value) {
  std::uint64_t newSize = 0;
  if (NimbrelResult valid = validateWrite(key, value, &newSize); !valid) return valid;
  const bool removal = value.isNone();

  std::lock_guard lock(writeMutex_);
  bool exists = false;
  std::size_t keyCount = 0;
  source_->protectionQueue()->sync([&] {
    const velmora::PlistDictionary& cache = lockedPrepareSizes();
    exists = cache.find(key) != cache.end();
    keyCount = cache.size();
  });

  if (removal && !exists) return NimbrelResult::success();
  if (!removal) {
    NimbrelResult fits = checkLimits(*source_, key, newSize, exists, keyCount, sizeOf(key), totalSize_);
    if (!fits) return fits;
  }
  source_->setValueForKey(value, key);
  noteSize(key, removal, newSize);
  return NimbrelResult::success();
}

NimbrelResult NimbrelStore::setObjects(const velmora::PlistDictionary& values) {
  std::vector<std::uint64_t> newSizes;
  newSizes.reserve(values.size());
  for (const auto& [key, value] : values) {
    std::uint64_t size = 0;
    if (NimbrelResult valid = validateWrite(key, value, &size); !valid) return valid;
    newSizes.push_back(size);
  }

  std::lock_guard lock(writeMutex_);
  std::vector<bool> exists(values.size(), false);
  std::size_t keyCount = 0;
  source_->protectionQueue()->sync([&] {
    const velmora::PlistDictionary& cache = lockedPrepareSizes();
    keyCount = cache.size();
    std::size_t at = 0;
    for (const auto& entry : values) exists[at++] = cache.find(entry.first) != cache.end();
  });

  // The limits as the writes meet them one after another, in key order.
  std::uint64_t total = totalSize_;
  std::size_t at = 0;
  for (const auto& [key, value] : values) {
    const std::uint64_t oldSize = sizeOf(key);
    const std::uint64_t newSize = newSizes[at];
    const bool existed = exists[at++];
    if (value.isNone()) {
      if (existed) {
        total -= oldSize;
        --keyCount;
      }
      continue;
    }
    if (NimbrelResult fits = checkLimits(*source_, key, newSize, existed, keyCount, oldSize, total); !fits) return fits;
    total = total - oldSize + newSize;
    if (!existed) ++keyCount;
  }

  source_->setValuesForKeys(values);
  at = 0;
  for (const auto& [key, value] : values) noteSize(key, value.isNone(), newSizes[at++]);
  return NimbrelResult::success();
}

const velmora::PlistDictionary& NimbrelStore::lockedPrepareSizes() {
  // An evicted cache is reloaded here, and may hold what others wrote
  // meanwhile, so its sizes are counted afresh.
  if (sizesStale_.exchange(false, std::memory_order_acq_rel) || !sizesValid_ || !source_->lockedLoadState().cache) {
    lockedRecountSizes();
  }
  return *source_->lockedLoadState().cache;
}

std::uint64_t NimbrelStore::sizeOf(std::string_view key) const {
  auto current = sizes_.find(key);
  return current != sizes_.end() ? current->second : 0;
}

void NimbrelStore::noteSize(std::string_view key, bool removal, std::uint64_t newSize) {
  auto current = sizes_.find(key);
  if (current != sizes_.end()) {
    totalSize_ -= current->second;
    if (removal) {
      sizes_.erase(current);
    } else {
      current->second = newSize;
    }
  } else if (!removal) {
    sizes_.emplace(std::string(key), newSize);
  }
  totalSize_ += newSize;
}

void NimbrelStore::lockedRecountSizes() {
  source_->protectionQueue()->assertCurrent();
  // What every value operation of the source does first.
  if (!source_->lockedLoadState().cache) source_->lockedSynchronizeForced(false);
  sizes_.clear();
  totalSize_ = 0;
  for (const auto& [key, record] : *source_->lockedLoadState().cache) {
    std::uint64_t size = 0;
    if (const PropertyList* value = ZKVGetPropertyListAndTimestampFromStorage(record, nullptr)) {
      size = static_cast<std::uint64_t>(std::max<std::ptrdiff_t>(0, ZKVGetSerializedLengthForPropertyList(*value)));
    }
    sizes_.emplace_hint(sizes_.end(), key, size);
    totalSize_ += size;
  }
  sizesValid_ = true;
}

bool NimbrelStore::synchronize() {
  bool replied = false;
  // One queue item, so that the notice of this very hand-over, which may
  // arrive before the reply is handled, finds the clean mark already moved.
  source_->protectionQueue()->sync([&] {
    const SourceTransaction transaction(*source_);
    const std::int64_t before = source_->lockedLoadState().storageChangeCount;
    const std::int64_t clean = cleanCount_.load(std::memory_order_relaxed);
    const bool wasClean = clean >= 0 && clean == before;
    replied = source_->lockedSynchronizeForced(false);
    const std::int64_t after = source_->lockedLoadState().storageChangeCount;
    // Answered with the very next count, the daemon stored exactly what was
    // handed over on top of the file the cache matched; any other count
    // means someone else wrote in between. A load inside the hand-over (of
    // an evicted cache) sets the mark itself only through a notice, so it
    // leaves it unknown here.
    if (wasClean && after == before + 1) {
      cleanCount_.store(after, std::memory_order_release);
    } else if (after != before) {
      cleanCount_.store(-1, std::memory_order_release);
    }
  });
  return replied;
}

bool NimbrelStore::lockedFileUnchanged() const {
  // Keys not yet handed over need no hand-over here: with the file as it
  // was, skipping the reload keeps them in the cache just the same.
  const ZKVStoreLoadState& state = source_->lockedLoadState();
  const std::int64_t clean = cleanCount_.load(std::memory_order_relaxed);
  return state.cache && clean >= 0 && state.storageChangeCount == clean && fileChangeCountIs(clean);
}

bool NimbrelStore::fileChangeCountIs(std::int64_t count) const {
  if (!source_->urlOnDisk()) return false;
  std::int64_t onDiskCount = -1;
  const PropertyList onDisk = velmora::readPlistFileEntry(source_->urlOnDisk()->native(), "changecount");
  return onDisk.isNumber() && onDisk.getInt64(onDiskCount) && onDiskCount == count;
}

// ---------------------------------------------------------------------------
// Changes made elsewhere.

NimbrelObserverToken NimbrelStore::addObserver(Observer observer) {
  auto shared = std::make_shared<const Observer>(std::move(observer));
  std::lock_guard lock(observersMutex_);
  const NimbrelObserverToken token = nextObserverToken_++;
  observers_.emplace(token, std::move(shared));
  return token;
}

void NimbrelStore::removeObserver(NimbrelObserverToken token) {
  std::shared_ptr<const Observer> removed;  // destroyed after the lock is let go
  std::lock_guard lock(observersMutex_);
  if (auto found = observers_.find(token); found != observers_.end()) {
    removed = std::move(found->second);
    observers_.erase(found);
  }
}

void NimbrelStore::handleExternalChange() {
  changePending_.store(false);
  // No writeMutex_ here: this runs on a pool worker, and a writer holding the
  // mutex may be waiting for work that needs a free worker. The next write
  // sees the flag and counts the sizes afresh.
  std::int64_t changeCount = 0;
  std::optional<std::map<std::int64_t, std::vector<std::string>>> changes;
  // One queue item: the reload and the clean mark it sets, with no hand-over
  // of another thread between them. Taking the changes does not enter the
  // queue by itself; doing it here orders it with a load that a read on
  // another thread may start.
  bool reloaded = false;
  source_->protectionQueue()->sync([&] {
    if (!lockedFileUnchanged()) {
      // True when the file was read whole; false when the hand-over before
      // it got no answer, which leaves the cache as it was.
      bool read = false;
      {
        const SourceTransaction transaction(*source_);
        read = source_->lockedSynchronizeForced(true);
      }
      cleanCount_.store(read ? source_->lockedLoadState().storageChangeCount : -1, std::memory_order_release);
      reloaded = read;
    }
    changes = source_->copyExternalChangesWithChangeCount(&changeCount);
  });
  if (reloaded) sizesStale_.store(true, std::memory_order_release);
  if (!changes || changes->empty()) return;
  DispatchQueue::main().async([self = shared_from_this(), batch = std::move(*changes), changeCount] {
    self->deliverChanges(batch, changeCount);
  });
}

void NimbrelStore::deliverChanges(const std::map<std::int64_t, std::vector<std::string>>& changes,
                                  std::int64_t changeCount) {
  std::vector<NimbrelObserverToken> tokens;
  {
    std::lock_guard lock(observersMutex_);
    tokens.reserve(observers_.size());
    for (const auto& [token, observer] : observers_) tokens.push_back(token);
  }
  for (const auto& [reason, keys] : changes) {
    const NimbrelChange change{reason, keys};
    for (NimbrelObserverToken token : tokens) {
      std::shared_ptr<const Observer> observer;
      {
        std::lock_guard lock(observersMutex_);
        if (auto found = observers_.find(token); found != observers_.end()) observer = found->second;
      }
      if (observer && *observer) (*observer)(change);
    }
  }
  // The daemon may drop the journal entries only once the observers have
  // seen them. The request waits for the daemon, so it leaves the main queue;
  // it only sends, so it stays off the protection queue: reads must never
  // wait behind a daemon round trip.
  changeQueue_->async([source = source_, changeCount] { source->discardExternalChangesForChangeCount(changeCount); });
}

// ---------------------------------------------------------------------------
// Source access.

void NimbrelStore::useSourceSyncWithBlock(const std::function<void(ZKVRemotePreferencesSource&)>& block) {
  // The block may write to the source behind the size table's back.
  struct Recount {
    NimbrelStore& store;
    ~Recount() {
      std::lock_guard lock(store.writeMutex_);
      store.sizesValid_ = false;
    }
  } recount{*this};
  block(*source_);
}
