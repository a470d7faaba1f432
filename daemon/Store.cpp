#include "Store.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <limits>
#include <memory>
#include <new>
#include <sstream>

#include "velmora/platform/Log.h"
#include "velmora/platform/PlistCodec.h"
#include "zkv/ZKVEncoding.h"
#include "zkv/ZKVJournal.h"
#include "zkv/ZKVLog.h"

namespace velmorad {

using velmora::LogLevel;
using velmora::PlistDictionary;
using velmora::PropertyList;

namespace {

const velmora::LogHandle& log() { return *ZKVGetDefaultLog(); }

std::string errnoText(const char* what, const std::filesystem::path& path) {
  return std::string(what) + " " + path.string() + ": " + std::strerror(errno);
}

// Creates each missing directory of dir with mode 0700.
bool makeDirectories(const std::filesystem::path& dir, std::string* error) {
  struct stat info{};
  if (::stat(dir.c_str(), &info) == 0) return S_ISDIR(info.st_mode);
  if (dir.has_parent_path() && dir.parent_path() != dir && !makeDirectories(dir.parent_path(), error)) return false;
  if (::mkdir(dir.c_str(), 0700) != 0 && errno != EEXIST) {
    if (error != nullptr) *error = errnoText("mkdir", dir);
    return false;
  }
  return true;
}

bool writeAll(int fd, std::span<const std::uint8_t> bytes) {
  while (!bytes.empty()) {
    const ssize_t n = ::write(fd, bytes.data(), bytes.size());
    if (n < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    bytes = bytes.subspan(static_cast<std::size_t>(n));
  }
  return true;
}

// The journal entry {"count", "change"} written directly: ZKVJournal treats
// change 0 as "forget the key", but readers need code 0 to report a change
// made elsewhere.
void journalEntry(PlistDictionary& store, const std::string& key, std::int32_t change, std::int64_t count) {
  PropertyList& journal = store[std::string(kStoreJournalKey)];
  if (!journal.isDictionary()) journal = PropertyList::dictionary({});
  (*journal.editDictionary())[key] = velmora::makeDictionary(
      {{"count", PropertyList::integer(count)}, {"change", PropertyList::integer(change)}});
}

// Removes the journal entries of keys not in contents' values: each one at
// or below upTo, then the oldest until at most keep remain. Returns whether
// any went; an emptied journal goes too.
bool pruneAbsentKeyEntries(PlistDictionary& contents, std::int64_t upTo, std::size_t keep) {
  auto journalIt = contents.find(kStoreJournalKey);
  if (journalIt == contents.end() || !journalIt->second.isDictionary()) return false;
  auto valuesIt = contents.find(kStoreValuesKey);
  const PlistDictionary* values = valuesIt != contents.end() ? valuesIt->second.getDictionary() : nullptr;
  std::vector<std::pair<std::int64_t, std::string>> absent;  // (count, key)
  for (const auto& [key, entry] : *journalIt->second.getDictionary()) {
    if (values != nullptr && values->contains(key)) continue;
    std::int64_t count = 0;
    if (const PropertyList* at = entry.find("count")) (void)at->getInt64(count);
    absent.emplace_back(count, key);
  }
  std::sort(absent.begin(), absent.end());
  std::size_t drop = 0;
  while (drop < absent.size() && (absent[drop].first <= upTo || absent.size() - drop > keep)) ++drop;
  if (drop == 0) return false;
  PlistDictionary& journal = *journalIt->second.editDictionary();
  for (std::size_t i = 0; i < drop; ++i) journal.erase(absent[i].second);
  if (journal.empty()) contents.erase(journalIt);
  return true;
}

// How many journal entries may belong to keys no longer in the store: a
// cheap bound checked on every write, before any pass over the journal.
bool mayHoldTooManyAbsentEntries(const PlistDictionary& contents) {
  auto journalIt = contents.find(kStoreJournalKey);
  auto valuesIt = contents.find(kStoreValuesKey);
  const std::size_t entries = journalIt != contents.end() ? journalIt->second.count() : 0;
  const std::size_t keys = valuesIt != contents.end() ? valuesIt->second.count() : 0;
  return entries > keys + kMaxAbsentKeyEntries;
}

// The loaded values, taken out of the loaded contents for one client edit so
// that the edit changes them in place: a copy would cost an allocation per
// key on every write. Unless committed, the edits are undone and the values
// go back where they came from, so a refused or failed write leaves memory
// as it was.
class ValuesEdit {
 public:
  // next: a copy of loaded, whose values the edit changes.
  ValuesEdit(PlistDictionary& loaded, PlistDictionary& next) : loaded_(loaded), next_(next) {
    if (auto it = loaded.find(kStoreValuesKey); it != loaded.end()) {
      hadValues_ = true;
      it->second = PropertyList();  // next's handle is now the only one
    }
    PropertyList& slot = next[std::string(kStoreValuesKey)];
    if (!slot.isDictionary()) slot = PropertyList::dictionary({});
    values_ = slot.editDictionary();
  }
  ~ValuesEdit() {
    if (!committed_) rollBack();
  }
  ValuesEdit(const ValuesEdit&) = delete;
  ValuesEdit& operator=(const ValuesEdit&) = delete;

  const PlistDictionary& values() const { return *values_; }
  void erase(const std::string& key) {
    auto it = values_->find(key);
    if (it == values_->end()) return;
    undo_.emplace_back(key, std::move(it->second));
    values_->erase(it);
  }
  void assign(const std::string& key, PropertyList record) {
    auto [it, inserted] = values_->try_emplace(key);
    undo_.emplace_back(key, inserted ? PropertyList() : std::move(it->second));
    it->second = std::move(record);
  }
  // The edited copy became the loaded contents.
  void commit() { committed_ = true; }

 private:
  void rollBack() {
    for (auto it = undo_.rbegin(); it != undo_.rend(); ++it) {
      if (it->second.isNone()) {
        values_->erase(it->first);
      } else {
        (*values_)[it->first] = std::move(it->second);
      }
    }
    if (hadValues_) loaded_.find(kStoreValuesKey)->second = std::move(next_.find(kStoreValuesKey)->second);
  }

  PlistDictionary& loaded_;
  PlistDictionary& next_;
  PlistDictionary* values_ = nullptr;
  bool hadValues_ = false;
  bool committed_ = false;
  std::vector<std::pair<std::string, PropertyList>> undo_;  // each edit's previous record, none when absent
};

}  // namespace

std::uint64_t valueSize(const PropertyList& value) {
  const std::ptrdiff_t length = ZKVGetSerializedLengthForPropertyList(value);
  return length > 0 ? static_cast<std::uint64_t>(length) : 0;
}

std::uint64_t recordSize(const PropertyList& record) {
  std::int64_t timestamp = 0;
  const PropertyList* value = ZKVGetPropertyListAndTimestampFromStorage(record, &timestamp);
  return value != nullptr ? valueSize(*value) : 0;
}

std::int64_t currentRecordTimestamp() {
  return static_cast<std::int64_t>(std::time(nullptr)) - static_cast<std::int64_t>(velmora::kAbsoluteTimeIntervalSince1970);
}

StoreSyncState StoreSyncState::of(const PlistDictionary& contents) {
  StoreSyncState state;
  auto it = contents.find(kStoreSyncStateKey);
  const PlistDictionary* dict = it != contents.end() ? it->second.getDictionary() : nullptr;
  if (dict == nullptr) return state;
  if (auto r = dict->find("revision"); r != dict->end()) {
    std::int64_t revision = 0;
    if (r->second.getInt64(revision) && revision >= 0) state.revision = revision;
  }
  if (auto d = dict->find("deleted"); d != dict->end() && d->second.isDictionary()) {
    for (const auto& [key, when] : *d->second.getDictionary()) {
      std::int64_t timestamp = 0;
      if (when.getInt64(timestamp) && timestamp != 0) state.deleted.emplace(key, timestamp);
    }
  }
  if (auto a = dict->find("accountchange"); a != dict->end()) state.accountChange = a->second.booleanValue();
  return state;
}

PropertyList StoreSyncState::entry() const {
  if (*this == StoreSyncState{}) return {};
  PlistDictionary dict;
  if (revision != 0) dict.emplace("revision", PropertyList::integer(revision));
  if (!deleted.empty()) {
    PlistDictionary removed;
    for (const auto& [key, when] : deleted) removed.emplace(key, PropertyList::integer(when));
    dict.emplace("deleted", PropertyList::dictionary(std::move(removed)));
  }
  if (accountChange) dict.emplace("accountchange", PropertyList::boolean(true));
  return PropertyList::dictionary(std::move(dict));
}

std::optional<StoreOwner> StoreOwner::of(const PlistDictionary& contents) {
  auto it = contents.find(kStoreOwnerKey);
  if (it == contents.end()) return std::nullopt;
  const PropertyList* application = it->second.find("application");
  const PropertyList* store = it->second.find("store");
  if (application == nullptr || !application->isString() || (store != nullptr && !store->isString())) {
    return std::nullopt;
  }
  StoreOwner owner{*application->getString(), std::nullopt};
  if (store != nullptr) owner.store = *store->getString();
  return owner;
}

PropertyList StoreOwner::entry() const {
  PlistDictionary dict{{"application", PropertyList::string(application)}};
  if (store) dict.emplace("store", PropertyList::string(*store));
  return PropertyList::dictionary(std::move(dict));
}

PropertyList StoreLimits::dictionary() const {
  return velmora::makeDictionary({{"maxKeyCount", PropertyList::integer(maxKeyCount)},
                                  {"maxKeyNameLen", PropertyList::integer(maxKeyNameLen)},
                                  {"maxKeyDataLen", PropertyList::integer(maxKeyDataLen)},
                                  {"maxKeyDataSum", PropertyList::integer(maxKeyDataSum)}});
}

bool writeFileAtomically(const std::filesystem::path& path, std::span<const std::uint8_t> bytes, std::string* error,
                         struct stat* written, std::filesystem::path* replaced) {
  if (replaced != nullptr) replaced->clear();
  const std::filesystem::path dir = path.parent_path().empty() ? std::filesystem::path(".") : path.parent_path();
  // The directory is made only when the temporary cannot be: the usual write
  // spends no system call on it. mkstemp creates the file 0600 whatever the
  // umask.
  std::string temp = path.string() + ".XXXXXX";
  int fd = ::mkstemp(temp.data());
  if (fd < 0 && errno == ENOENT) {
    if (!makeDirectories(dir, error)) {
      if (error != nullptr && error->empty()) *error = "not a directory: " + dir.string();
      return false;
    }
    temp = path.string() + ".XXXXXX";
    fd = ::mkstemp(temp.data());
  }
  if (fd < 0) {
    if (error != nullptr) *error = errnoText("mkstemp", temp);
    return false;
  }
  bool ok = writeAll(fd, bytes) && ::fsync(fd) == 0;
  // The rename keeps inode, size and mtime: this is the stat the file will have.
  if (ok && written != nullptr) ok = ::fstat(fd, written) == 0;
  if (!ok && error != nullptr) *error = errnoText("write", temp);
  if (::close(fd) != 0 && ok) {
    ok = false;
    if (error != nullptr) *error = errnoText("close", temp);
  }
  // A second name for the file being replaced ("<file>.r" and the
  // temporary's last five characters: the shape the sweep looks for). A name
  // that cannot be had only means the rename frees the old file itself.
  std::string keptName;
  if (ok && replaced != nullptr) {
    keptName = path.string() + ".r" + temp.substr(temp.size() - 5);
    if (::link(path.c_str(), keptName.c_str()) != 0) keptName.clear();
  }
  if (ok && ::rename(temp.c_str(), path.c_str()) != 0) {
    ok = false;
    if (error != nullptr) *error = errnoText("rename", path);
  }
  if (!ok) {
    ::unlink(temp.c_str());
    if (!keptName.empty()) ::unlink(keptName.c_str());
    return false;
  }
  if (replaced != nullptr) *replaced = keptName;
  // The rename is durable only once the directory entry is.
  const int dirFd = ::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (dirFd < 0 || ::fsync(dirFd) != 0) {
    if (error != nullptr) *error = errnoText("fsync", dir);
    if (dirFd >= 0) ::close(dirFd);
    return false;
  }
  ::close(dirFd);
  return true;
}

Store::Store(std::filesystem::path path) : path_(std::move(path)) {}

void Store::dropReplacedFile() {
  if (replaced_.empty()) return;
  ::unlink(replaced_.c_str());
  replaced_.clear();
}

Store::FileStamp Store::FileStamp::of(const struct stat& info) {
  return FileStamp{info.st_dev, info.st_ino, info.st_size, info.st_mtim};
}

bool Store::FileStamp::operator==(const FileStamp& other) const {
  return device == other.device && inode == other.inode && size == other.size &&
         mtime.tv_sec == other.mtime.tv_sec && mtime.tv_nsec == other.mtime.tv_nsec;
}

bool Store::changedOnDisk() const {
  struct stat info{};
  if (::stat(path_.c_str(), &info) != 0) return stamp_.has_value();  // removed behind us (or still absent)
  return !stamp_ || !(FileStamp::of(info) == *stamp_);
}

void Store::removeStaleTemporaries() {
  // writeFileAtomically's temporaries are "<file>.XXXXXX"; a writer killed
  // between mkstemp and rename leaves one behind.
  const std::string prefix = path_.filename().string() + ".";
  std::error_code ec;
  for (const auto& item : std::filesystem::directory_iterator(path_.parent_path(), ec)) {
    const std::string name = item.path().filename().string();
    if (name.size() != prefix.size() + 6 || name.compare(0, prefix.size(), prefix) != 0) continue;
    if (!std::all_of(name.begin() + static_cast<std::ptrdiff_t>(prefix.size()), name.end(),
                     [](unsigned char c) { return std::isalnum(c) != 0; })) {
      continue;
    }
    std::error_code removeError;
    if (std::filesystem::remove(item.path(), removeError)) {
      log().log(LogLevel::Default, "Removed the unfinished write " + item.path().string());
    }
  }
}

bool Store::load(std::string* error) {
  if (contents_) {
    if (!changedOnDisk()) return true;
    log().log(LogLevel::Default, "Store file " + path_.string() + " changed on disk; reading it again");
    forgetContents();
  }
  if (!sweptTemporaries_) {
    sweptTemporaries_ = true;
    removeStaleTemporaries();
  }
  auto fail = [&](int code, const char* what) {
    std::string text = std::string(what) + " " + path_.string() + ": " + std::strerror(code);
    log().log(LogLevel::Error, "Store " + text + "; left where it is");
    if (error != nullptr) *error = std::move(text);
    return false;
  };
  struct stat info{};
  if (::stat(path_.c_str(), &info) != 0) {
    if (errno != ENOENT) return fail(errno, "cannot look at");
    contents_.emplace();  // no file yet: an empty store
    return true;
  }
  int readError = 0;
  std::optional<velmora::Bytes> bytes = velmora::readFileContents(path_.string(), kMaxStoreFileBytes, &readError);
  if (!bytes) return fail(readError, "cannot read");
  ++fileReads_;
  PropertyList file;
  try {
    file = velmora::decodePlist(*bytes);
  } catch (const std::bad_alloc&) {
    return fail(ENOMEM, "cannot decode");
  }
  contents_.emplace();
  if (!file.isDictionary()) {
    // Read whole and still not a store: damaged, not merely unreadable.
    setAside();
    return true;
  }
  // The stat taken before reading: a change during the read shows next time.
  stamp_ = FileStamp::of(info);
  *contents_ = *file.getDictionary();
  // Damaged parts read as absent, so every later step sees the usual shape.
  PlistDictionary& c = *contents_;
  if (auto it = c.find(kStoreValuesKey); it != c.end() && !it->second.isDictionary()) c.erase(it);
  if (auto it = c.find(kStoreJournalKey); it != c.end() && !it->second.isDictionary()) c.erase(it);
  if (auto it = c.find(kStoreChangeCountKey); it != c.end()) {
    std::int64_t count = 0;
    if (!it->second.getInt64(count) || count < 0) c.erase(it);
  }
  return true;
}

void Store::setAside() {
  const std::string prefix = path_.filename().string() + ".corrupt-";
  timespec now{};
  ::clock_gettime(CLOCK_REALTIME, &now);
  const std::string aside = path_.string() + ".corrupt-" + std::to_string(now.tv_sec) + "." + std::to_string(now.tv_nsec);
  if (::rename(path_.c_str(), aside.c_str()) != 0) {
    log().log(LogLevel::Error, "Store file " + path_.string() + " is damaged and could not be moved aside: " +
                                   std::strerror(errno));
    return;
  }
  log().log(LogLevel::Error, "Store file " + path_.string() + " is damaged; moved aside to " + aside);
  // The newest few copies are enough to look into; older ones go.
  std::vector<std::filesystem::path> copies;
  std::error_code ec;
  for (const auto& item : std::filesystem::directory_iterator(path_.parent_path(), ec)) {
    if (item.path().filename().string().starts_with(prefix)) copies.push_back(item.path());
  }
  if (copies.size() <= kKeptCorruptCopies) return;
  auto modified = [](const std::filesystem::path& p) {
    std::error_code ignored;
    return std::filesystem::last_write_time(p, ignored);
  };
  std::sort(copies.begin(), copies.end(), [&](const auto& a, const auto& b) { return modified(a) > modified(b); });
  for (std::size_t i = kKeptCorruptCopies; i < copies.size(); ++i) std::filesystem::remove(copies[i], ec);
}

std::int64_t Store::loadedChangeCount() const {
  std::int64_t count = 0;
  if (auto it = contents_->find(kStoreChangeCountKey); it != contents_->end()) (void)it->second.getInt64(count);
  return count;
}

bool Store::hasFile() { return load() && stamp_.has_value(); }

std::int64_t Store::changeCount() { return load() ? loadedChangeCount() : 0; }

std::size_t Store::keyCount() {
  if (!load()) return 0;
  auto it = contents_->find(kStoreValuesKey);
  return it != contents_->end() ? it->second.count() : 0;
}

PropertyList Store::contents() { return load() ? PropertyList::dictionary(*contents_) : PropertyList(); }

std::optional<StoreOwner> Store::owner() { return load() ? StoreOwner::of(*contents_) : std::nullopt; }

bool Store::writeContents(const PlistDictionary& contents, std::string* error) {
  std::optional<velmora::Bytes> bytes = velmora::encodeBinaryPlist(PropertyList::dictionary(contents));
  if (!bytes) {
    if (error != nullptr) *error = "the store cannot be encoded";
    return false;
  }
  struct stat written{};
  dropReplacedFile();
  if (!writeFileAtomically(path_, *bytes, error, &written, keepReplaced_ ? &replaced_ : nullptr)) {
    // A write cut off between its temporary and the rename (the directory
    // turned read-only) cannot remove that temporary either: sweep once a
    // write succeeds again.
    sweptTemporaries_ = false;
    return false;
  }
  stamp_ = FileStamp::of(written);
  if (!sweptTemporaries_) {
    sweptTemporaries_ = true;
    removeStaleTemporaries();
  }
  return true;
}

namespace {
// The refusal of a request whose store file could not be read.
ApplyOutcome unreadable(const std::string& error) {
  ApplyOutcome outcome;
  outcome.readFailed = true;
  outcome.error = "reading the store failed: " + error;
  return outcome;
}
}  // namespace

ApplyOutcome Store::applyChanges(const PlistDictionary& changes, const StoreLimits& limits, const StoreOwner* owner) {
  ApplyOutcome outcome;
  // Validate everything before touching anything: one bad record refuses all.
  for (const auto& [key, record] : changes) {
    if (key.empty()) {
      outcome.error = "empty key";
      return outcome;
    }
    const PlistDictionary* dict = record.getDictionary();
    if (dict == nullptr) {
      outcome.error = "the record for key " + velmora::quoteForLog(key) + " is not a dictionary";
      return outcome;
    }
    if (dict->empty()) continue;
    std::int64_t timestamp = 0;
    if (ZKVGetPropertyListAndTimestampFromStorage(record, &timestamp) == nullptr) {
      outcome.error = "the record for key " + velmora::quoteForLog(key) + " does not decode";
      return outcome;
    }
  }

  std::string error;
  if (!load(&error)) return unreadable(error);

  PlistDictionary next = *contents_;
  ValuesEdit edit(*contents_, next);
  const PlistDictionary& values = edit.values();
  StoreSyncState syncState = StoreSyncState::of(next);
  const StoreSyncState oldSyncState = syncState;

  ensureSizesCounted();
  std::uint64_t total = sizes_->total;
  auto sizeOf = [this](const std::string& key) -> std::uint64_t {
    auto found = sizes_->sizes.find(key);
    return found != sizes_->sizes.end() ? found->second : 0;
  };
  SizeUpdates sizeUpdates;
  std::vector<std::string> changed;
  // Removals first, so that they make room for the values that follow.
  for (const auto& [key, record] : changes) {
    if (record.count() != 0) continue;
    auto existing = values.find(key);
    if (existing == values.end()) continue;
    // The server knows a key whose record has a remote value: it must hear
    // of the removal. Not before the removed value's own time.
    std::int64_t timestamp = 0;
    const PropertyList* remote = nullptr;
    if (ZKVGetPropertyListAndTimestampAndRemoteValueFromStorage(existing->second, &timestamp, &remote) != nullptr &&
        remote != nullptr) {
      syncState.deleted[key] = std::max(currentRecordTimestamp(), timestamp);
    }
    edit.erase(key);
    changed.push_back(key);
    total -= sizeOf(key);
    sizeUpdates.emplace_back(key, std::nullopt);
  }
  for (const auto& [key, record] : changes) {
    if (record.count() == 0) continue;
    auto existing = values.find(key);
    const PropertyList previous = existing != values.end() ? existing->second : PropertyList();
    std::int64_t timestamp = 0;
    const PropertyList* value = ZKVGetPropertyListAndTimestampFromStorage(record, &timestamp);
    PropertyList merged = ZKVCreateStorageForPropertyListAndTimestampKeepRemoteValue(*value, timestamp, previous);
    if (merged == previous) continue;

    const std::uint64_t oldSize = previous.isNone() ? 0 : sizeOf(key);
    const std::uint64_t newSize = recordSize(merged);
    bool fits = true;
    if (previous.isNone()) {
      fits = static_cast<std::int64_t>(key.size()) <= limits.maxKeyNameLen &&
             static_cast<std::int64_t>(values.size()) < limits.maxKeyCount;
    }
    if (newSize > static_cast<std::uint64_t>(std::max<std::int64_t>(limits.maxKeyDataLen, 0))) fits = false;
    // A store already over the sum (filled elsewhere) may still shrink.
    if (newSize > oldSize && total - oldSize + newSize > static_cast<std::uint64_t>(std::max<std::int64_t>(limits.maxKeyDataSum, 0))) {
      fits = false;
    }
    if (!fits) {
      outcome.refusedKeys.push_back(key);
      continue;
    }
    total = total - oldSize + newSize;
    sizeUpdates.emplace_back(key, newSize);
    edit.assign(key, std::move(merged));
    syncState.deleted.erase(key);
    changed.push_back(key);
  }
  if (!(syncState == oldSyncState)) {
    if (PropertyList entry = syncState.entry(); entry.isNone()) {
      next.erase(std::string(kStoreSyncStateKey));
    } else {
      next[std::string(kStoreSyncStateKey)] = std::move(entry);
    }
  }

  const std::int64_t oldCount = loadedChangeCount();
  outcome.accepted = true;
  outcome.changeCount = oldCount;
  // A refused key is not written anywhere, not even in the journal: a
  // request of refused keys alone leaves the file as it was.
  if (changed.empty()) return outcome;

  const std::int64_t count = oldCount + 1;
  for (const std::string& key : changed) journalEntry(next, key, kJournalChangedElsewhere, count);
  outcome.changeCount = count;
  next[std::string(kStoreChangeCountKey)] = PropertyList::integer(count);
  if (owner != nullptr && !next.contains(kStoreOwnerKey)) next[std::string(kStoreOwnerKey)] = owner->entry();
  if (mayHoldTooManyAbsentEntries(next)) {
    (void)pruneAbsentKeyEntries(next, clients_.empty() ? count - kUnheldJournalWindow : -1, kMaxAbsentKeyEntries * 3 / 4);
  }

  if (!commitContents(next, outcome, &sizeUpdates)) return outcome;
  edit.commit();
  outcome.written = true;
  return outcome;
}

void Store::ensureSizesCounted() {
  if (sizes_) return;
  sizes_.emplace();
  auto valuesIt = contents_->find(kStoreValuesKey);
  const PlistDictionary* values = valuesIt != contents_->end() ? valuesIt->second.getDictionary() : nullptr;
  if (values == nullptr) return;
  sizes_->sizes.reserve(values->size());
  for (const auto& [key, record] : *values) {
    const std::uint64_t size = recordSize(record);
    sizes_->sizes.emplace(key, size);
    sizes_->total += size;
  }
}

bool Store::commitContents(PlistDictionary& next, ApplyOutcome& outcome, const SizeUpdates* sizeUpdates) {
  std::string error;
  if (!writeContents(next, &error)) {
    outcome = ApplyOutcome{};
    outcome.writeFailed = true;
    outcome.error = "writing the store failed: " + error;
    log().log(LogLevel::Error, "Store " + path_.string() + ": " + outcome.error);
    return false;
  }
  contents_ = std::move(next);
  if (sizeUpdates == nullptr || !sizes_) {
    sizes_.reset();
    return true;
  }
  for (const auto& [key, size] : *sizeUpdates) {
    auto found = sizes_->sizes.find(key);
    if (found != sizes_->sizes.end()) {
      sizes_->total -= found->second;
      if (!size) sizes_->sizes.erase(found);
    }
    if (size) {
      sizes_->sizes[key] = *size;
      sizes_->total += *size;
    }
  }
  return true;
}

ApplyOutcome Store::applyServerEdit(const ServerEdit& edit) {
  std::string error;
  if (!load(&error)) return unreadable(error);
  ApplyOutcome outcome;
  outcome.accepted = true;
  PlistDictionary next = *contents_;
  const bool hadValues = next.contains(kStoreValuesKey);
  PropertyList& valuesSlot = next[std::string(kStoreValuesKey)];
  if (!valuesSlot.isDictionary()) valuesSlot = PropertyList::dictionary({});
  PlistDictionary& values = *valuesSlot.editDictionary();
  for (const auto& [key, record] : edit.records) {
    if (record.count() == 0) {
      values.erase(key);
    } else {
      values[key] = record;
    }
  }
  if (values.empty() && !hadValues) next.erase(std::string(kStoreValuesKey));

  std::int64_t count = loadedChangeCount();
  if (!edit.journal.empty()) {
    ++count;
    for (const auto& [key, code] : edit.journal) journalEntry(next, key, code, count);
    next[std::string(kStoreChangeCountKey)] = PropertyList::integer(count);
  }
  outcome.changeCount = count;
  if (edit.clearVersion) {
    next.erase(std::string(kStoreVersionIdKey));
    next.erase(std::string(kStoreInitialSyncKey));
  }
  if (edit.versionId) next[std::string(kStoreVersionIdKey)] = PropertyList::string(*edit.versionId);
  if (edit.markInitialSync) next[std::string(kStoreInitialSyncKey)] = PropertyList::integer(count);
  if (edit.syncState) {
    if (PropertyList entry = edit.syncState->entry(); entry.isNone()) {
      next.erase(std::string(kStoreSyncStateKey));
    } else {
      next[std::string(kStoreSyncStateKey)] = std::move(entry);
    }
  }
  if (next == *contents_) return outcome;  // nothing to write

  if (!commitContents(next, outcome)) return outcome;
  outcome.written = !edit.journal.empty();
  outcome.rewrittenQuietly = !outcome.written;
  return outcome;
}

void Store::addClient(const std::string& name) { clients_.try_emplace(name, -1); }

bool Store::removeClient(const std::string& name) {
  if (clients_.erase(name) == 0) return true;
  return pruneJournal();
}

bool Store::releaseJournal(const std::string& name, std::int64_t count) {
  auto it = clients_.find(name);
  if (it == clients_.end()) return true;  // an unregistered client holds nothing
  it->second = std::max(it->second, count);
  return pruneJournal();
}

bool Store::pruneJournal() {
  std::string error;
  if (!load(&error)) return false;
  auto shared = std::make_shared<PlistDictionary>(*contents_);
  bool pruned = false;
  if (!clients_.empty()) {
    std::int64_t released = std::numeric_limits<std::int64_t>::max();
    for (const auto& [name, count] : clients_) released = std::min(released, count);
    ZKVJournal journal = ZKVJournal::withMutableStore(shared);
    if (released >= 0) pruned = journal.removeChangesUntilChangeCount(released);
  }
  // With nobody registered nobody holds entries; those of keys that went are
  // kept only for a while, for a client that is about to come back.
  const std::int64_t upTo = clients_.empty() ? loadedChangeCount() - kUnheldJournalWindow : -1;
  pruned = pruneAbsentKeyEntries(*shared, upTo, kMaxAbsentKeyEntries) || pruned;
  if (!pruned) return true;
  if (!writeContents(*shared, &error)) {
    log().log(LogLevel::Error, "Store " + path_.string() + ": pruning the journal failed: " + error);
    return false;
  }
  contents_ = std::move(*shared);
  return true;
}

bool Store::rewrite() {
  struct stat info{};
  if (::stat(path_.c_str(), &info) != 0) return false;
  forgetContents();
  std::string error;
  if (!load(&error)) return false;
  if (!writeContents(*contents_, &error)) {
    log().log(LogLevel::Error, "Store " + path_.string() + ": rewrite failed: " + error);
    return false;
  }
  return true;
}

void Store::forgetContents() {
  contents_.reset();
  sizes_.reset();
  stamp_.reset();
}

std::string Store::debugDescription() {
  std::ostringstream out;
  out << "Store file: " << path_.string() << "\n";
  if (std::string error; !load(&error)) return out.str() + "Unreadable: " + error + "\n";
  out << "Change count: " << changeCount() << "\n";
  out << "Key count: " << keyCount() << "\n";
  out << "Registered clients (" << clients_.size() << "):";
  for (const auto& [name, released] : clients_) out << " " << name << " (released " << released << ")";
  out << "\n";
  const ZKVJournal journal = ZKVJournal::withStore(*contents_);
  out << journal.description() << "\n";
  const StoreSyncState sync = StoreSyncState::of(*contents_);
  auto version = contents_->find(kStoreVersionIdKey);
  auto initial = contents_->find(kStoreInitialSyncKey);
  out << "Sync: version " << (version != contents_->end() ? version->second.description() : std::string("(none)"))
      << ", initial sync at " << (initial != contents_->end() ? initial->second.description() : std::string("(none)"))
      << ", server revision " << sync.revision << ", deletions not yet sent " << sync.deleted.size()
      << (sync.accountChange ? ", reset for another account" : "") << "\n";
  return out.str();
}

}  // namespace velmorad
