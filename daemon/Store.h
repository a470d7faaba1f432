// Store: one application store as the daemon keeps it, the in-memory copy of
// one store file plus the clients registered for it.
//
// Design note
// - Threads. A Store is not thread-safe: the daemon gives each store its own
//   serial queue and touches the Store only from there. Nothing here knows
//   about the bus or the server: the sync engine decides on its store's
//   queue what a server change does and hands the result to
//   applyServerEdit(), which shares the journal, count and write path with
//   applyChanges().
// - File. The file is read on first use and rewritten whole after every
//   effective change: temporary file beside it, fsync, rename, fsync of the
//   directory, so a reader sees the old file or the new one, never half. A
//   file that was read whole and does not decode is renamed aside (the last
//   few such copies are kept) and the store starts empty, so one damaged
//   file never takes the daemon down. A file that cannot be read (EMFILE,
//   EACCES, EIO, ...) or is larger than any store could be is left where it
//   is and every request fails until it reads again: a read failure never
//   costs the user data.
// - Memory. The loaded copy stays in memory. Each use compares the file's
//   stat (device, inode, size, mtime) with what was last read or written and
//   reads the file again only when something else replaced, changed or
//   removed it. The daemon closes stores nobody used for a while. Temporary files a killed daemon left beside the store are
//   removed when the store is first loaded, and those of a failed write
//   (which may not remove its own) after the next write that succeeds: only
//   the daemon writes there.
// - Journal. Each changed key is journaled at the new change count (code 0,
//   changed elsewhere), keys refused over a limit one count higher (code 2),
//   Keys refused over a limit change nothing on disk. Entries go once every
//   registered client has released them (discardJournalEntries). Entries of
//   keys no longer in the store are bounded besides: with nobody registered
//   they go once kUnheldJournalWindow counts old, and past
//   kMaxAbsentKeyEntries the oldest go whoever holds them (a reader that
//   misses one compares whole records instead). The count never rises
//   without a journal entry: a reader that finds a higher count and no entry
//   compares whole records, and would report keys whose remote value alone
//   changed.
// - Owner. Store file names do not say where the application identifier
//   ends: "A-S.plist" is application A's store S and application A-S's main
//   store. Each client write records the writer's (application, store) under
//   "owner" when the file has none, so the daemon can keep a confined caller
//   out of a file that belongs to someone else.
// - Sync state. Besides what applications read ("values", "changecount",
//   "journal", "initialsync", "versionid"), the file keeps the sync engine's
//   own state under "syncstate" (readers ignore it): the last pulled server
//   revision and the deletions the server has not yet heard of. It lives in
//   the store file so that one atomic write covers a value and its sync
//   state, and so that removing a store removes its sync state too.
#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <filesystem>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "velmora/platform/PropertyList.h"

namespace velmorad {

// Journal change codes the daemon writes.
inline constexpr std::int32_t kJournalChangedElsewhere = 0;
inline constexpr std::int32_t kJournalInitialSync = 1;
inline constexpr std::int32_t kJournalQuotaViolation = 2;
inline constexpr std::int32_t kJournalAccountChange = 5;

// Store-file keys.
inline constexpr std::string_view kStoreValuesKey = "values";
inline constexpr std::string_view kStoreChangeCountKey = "changecount";
inline constexpr std::string_view kStoreJournalKey = "journal";
inline constexpr std::string_view kStoreInitialSyncKey = "initialsync";
inline constexpr std::string_view kStoreVersionIdKey = "versionid";
inline constexpr std::string_view kStoreSyncStateKey = "syncstate";
inline constexpr std::string_view kStoreOwnerKey = "owner";

// Bounds on what a store keeps besides its values (see the design note).
inline constexpr std::size_t kMaxAbsentKeyEntries = 256;
inline constexpr std::int64_t kUnheldJournalWindow = 64;
// No store the limits allow comes near this; a larger file is not read.
inline constexpr std::size_t kMaxStoreFileBytes = 64u << 20;
// Damaged copies kept beside a store file ("<file>.corrupt-<time>").
inline constexpr std::size_t kKeptCorruptCopies = 3;

// Who a store file belongs to: an application and, for an additional store,
// the store's identifier. A value type.
struct StoreOwner {
  std::string application;
  std::optional<std::string> store;

  // Reads contents' "owner"; nullopt when absent or damaged. Pure.
  static std::optional<StoreOwner> of(const velmora::PlistDictionary& contents);
  // The "owner" entry. Pure; caller owns it.
  velmora::PropertyList entry() const;
  bool operator==(const StoreOwner&) const = default;
};

// Timestamps as storage records hold them: whole seconds since 2001-01-01
// 00:00:00 UTC, now. Any thread.
std::int64_t currentRecordTimestamp();

// The size a store's limits count for a value (its timestamped serialised
// length), and for a storage record's value (0 when the record does not
// decode). Pure; any thread.
std::uint64_t valueSize(const velmora::PropertyList& value);
std::uint64_t recordSize(const velmora::PropertyList& record);

// The sync engine's state kept in a store file under "syncstate". A value type.
struct StoreSyncState {
  std::int64_t revision = 0;                  // server revision pulled up to (0: nothing pulled)
  std::map<std::string, std::int64_t> deleted;  // keys removed here, not yet acknowledged by the server -> when
  bool accountChange = false;                 // reset for another account; its initial sync is still to come

  // Reads contents' "syncstate"; damaged parts read as absent. Pure.
  static StoreSyncState of(const velmora::PlistDictionary& contents);
  // The "syncstate" entry; none when everything is at its default. Pure.
  velmora::PropertyList entry() const;
  bool operator==(const StoreSyncState&) const = default;
};

// A change decided by the sync engine, applied in one write.
struct ServerEdit {
  velmora::PlistDictionary records;             // key -> new record; an empty dictionary removes the key
  std::map<std::string, std::int32_t> journal;  // keys applications should hear of, with the change code
  std::optional<StoreSyncState> syncState;      // replaces "syncstate" when set
  std::optional<std::string> versionId;         // sets "versionid" when set
  bool clearVersion = false;                    // removes "versionid" and "initialsync"
  bool markInitialSync = false;                 // "initialsync" = the change count after this edit
};

// The per-store limits, as "register" and "getConfiguration" hand them out.
struct StoreLimits {
  std::int64_t maxKeyCount = 1024;
  std::int64_t maxKeyNameLen = 64;
  std::int64_t maxKeyDataLen = 1048576;
  std::int64_t maxKeyDataSum = 1048576;

  // The configuration dictionary {"maxKeyCount": n, ...}. Pure; caller owns it.
  velmora::PropertyList dictionary() const;
};

// What applyChanges() and applyServerEdit() did. A value type the caller owns.
struct ApplyOutcome {
  bool accepted = false;                 // false: the request was refused and nothing changed
  std::string error;                     // why, when refused
  bool writeFailed = false;              // refused because the file could not be written
  bool readFailed = false;               // refused because the file could not be read (it stays as it is)
  bool written = false;                  // the file was rewritten and its count rose (observers should hear of it)
  bool rewrittenQuietly = false;         // the file was rewritten, the count stayed (sync bookkeeping only)
  std::int64_t changeCount = 0;          // the count to answer the sender with
  std::vector<std::string> refusedKeys;  // keys left out over a limit, in key order
};

// Writes bytes to path atomically and durably (see the design note), the
// file with mode 0600; creates missing parent directories with mode 0700.
// Returns true once the new file and its directory entry are on disk; false
// (with *error set when given) leaves the old file untouched. Blocks on I/O.
// When written is given, it receives the new file's stat. When replaced is
// given, the file being replaced keeps a second name (*replaced, empty when
// there was none) for the caller to unlink later: freeing its blocks then
// happens off the path to the reply instead of inside the rename. The name
// has the shape of a temporary, so a store's sweep removes one a crash left.
bool writeFileAtomically(const std::filesystem::path& path, std::span<const std::uint8_t> bytes,
                         std::string* error = nullptr, struct stat* written = nullptr,
                         std::filesystem::path* replaced = nullptr);

// Each value's size as a store's limits count it, and their sum, so that a
// write costs the keys it touches rather than a pass over the whole store.
struct StoreSizeIndex {
  std::unordered_map<std::string, std::uint64_t> sizes;
  std::uint64_t total = 0;
};

class Store {
 public:
  // A store for the file at path. Reads nothing yet. Never fails or blocks.
  explicit Store(std::filesystem::path path);

  // The store file's location. Immutable; borrowed.
  const std::filesystem::path& path() const noexcept { return path_; }

  // Every method below runs on the store's queue only (see the design note).

  // Reads the file unless the loaded copy is current. False, with *error
  // set when given, when the file exists but cannot be read: nothing is
  // loaded then and the file stays where it is. Blocks on file I/O.
  bool load(std::string* error = nullptr);
  // Whether a store file exists (as of the last load). Loads like load().
  bool hasFile();

  // Merges changes (key -> storage record, an empty dictionary removes the
  // key) into the store. Every record must decode, or the whole request is
  // refused with nothing changed. These are a client's changes (the
  // server's go through applyServerEdit): keys that would break limits are
  // left out (listed in refusedKeys, nothing written for them), a written
  // key keeps its remote value, removing a key the server knows (its record
  // has a remote value) notes the deletion for the server, and a file
  // without an owner gets owner (when given). When anything changed, the change
  // count rises and the file is written durably before this returns; a read
  // or write failure refuses the request and leaves memory as it was. Loads
  // the file first when needed. Blocks on file I/O.
  ApplyOutcome applyChanges(const velmora::PlistDictionary& changes, const StoreLimits& limits,
                            const StoreOwner* owner = nullptr);

  // Applies what the sync engine decided (see ServerEdit): the count rises
  // once when edit.journal has keys, and they are journaled at the new
  // count; an edit of sync bookkeeping alone rewrites the file with the count
  // unchanged (rewrittenQuietly). An edit that changes nothing writes
  // nothing. Records are not validated: the engine builds them. A write
  // failure leaves memory as it was. Blocks on file I/O.
  ApplyOutcome applyServerEdit(const ServerEdit& edit);

  // The change count and number of keys; 0 for a store with no file or an
  // unreadable one. Load the file first when needed (blocking on file I/O).
  std::int64_t changeCount();
  std::size_t keyCount();
  // The whole store dictionary as it would be written, none when the file
  // cannot be read; caller owns it. Loads like changeCount().
  velmora::PropertyList contents();
  // The recorded owner; nullopt when none is recorded or the file cannot be
  // read. Loads like changeCount().
  std::optional<StoreOwner> owner();

  // Client bookkeeping by bus name. A new client holds every journal entry
  // until it releases them. removeClient and releaseJournal prune the
  // journal (and rewrite the file when that removed entries); they return
  // false only when the file could not be read or written. Block on file
  // I/O.
  // A known name stays as it is. Never blocks.
  void addClient(const std::string& name);
  // An unknown name changes nothing and returns true.
  bool removeClient(const std::string& name);
  // Releases entries up to count (a lower count than before changes nothing);
  // an unknown name changes nothing and returns true.
  bool releaseJournal(const std::string& name, std::int64_t count);
  bool hasClient(const std::string& name) const { return clients_.contains(name); }
  bool hasClients() const noexcept { return !clients_.empty(); }

  // Rewrites the file in the current format (only when it exists). Returns
  // whether a file was written. Blocks on file I/O.
  bool rewrite();

  // With keep set, each rewrite leaves the replaced file under a second name
  // until dropReplacedFile(), so that the caller can answer first and pay for
  // freeing it after. Off by default. Never blocks.
  void setKeepReplacedFile(bool keep) noexcept { keepReplaced_ = keep; }
  // Unlinks the file the last rewrite replaced, if one is kept. Blocks on I/O.
  void dropReplacedFile();
  // Hands the caller the kept name of the replaced file (empty when none),
  // for it to unlink; the store forgets it. Never blocks.
  std::filesystem::path takeReplacedFile() { return std::exchange(replaced_, {}); }

  // Forgets the loaded copy (after the file was removed behind the store);
  // the next use reads the file again. Clients stay registered. Never blocks.
  void forgetContents();

  // How many times the file was read (decoded) so far. For tests. Never blocks.
  std::uint64_t fileReads() const noexcept { return fileReads_; }

  // A readable, multi-line description for printDebugDescription (file,
  // counts, clients, journal, sync state); caller owns it. Loads like
  // changeCount().
  std::string debugDescription();

 private:
  // What identifies one version of the file on disk.
  struct FileStamp {
    dev_t device = 0;
    ino_t inode = 0;
    off_t size = 0;
    timespec mtime{};
    static FileStamp of(const struct stat& info);
    bool operator==(const FileStamp& other) const;
  };

  // Moves a file that was read whole and does not decode aside, keeping the
  // last kKeptCorruptCopies such copies.
  void setAside();
  // Whether the file on disk is no longer the one contents_ came from.
  bool changedOnDisk() const;
  // Removes temporary files of this store left by an interrupted write.
  void removeStaleTemporaries();
  // contents_'s change count; contents_ must be loaded.
  std::int64_t loadedChangeCount() const;
  // Encodes and writes contents durably; false with *error set on failure.
  bool writeContents(const velmora::PlistDictionary& contents, std::string* error);
  // What applyChanges learnt of the sizes: a key's new size, or nullopt for
  // a key that went.
  using SizeUpdates = std::vector<std::pair<std::string, std::optional<std::uint64_t>>>;
  // Writes next and moves it in as the loaded copy; sizes_ then takes
  // sizeUpdates, or is dropped when there are none. On failure leaves next
  // and memory as they were, resets outcome to a refusal saying why, logs,
  // and returns false.
  bool commitContents(velmora::PlistDictionary& next, ApplyOutcome& outcome, const SizeUpdates* sizeUpdates = nullptr);
  // sizes_, counted from contents_'s values when it is not there.
  void ensureSizesCounted();
  // Removes journal entries every client released and bounds those of keys
  // no longer in the store; writes when any went. False only when the file
  // could not be read or written (memory then keeps the entries).
  bool pruneJournal();

  const std::filesystem::path path_;                  // immutable
  std::optional<velmora::PlistDictionary> contents_;  // guarded by the store's queue; nullopt until loaded
  std::optional<FileStamp> stamp_;                    // guarded by the store's queue; the file contents_ matches,
                                                      // nullopt when it came from no file
  bool sweptTemporaries_ = false;                     // guarded by the store's queue
  bool keepReplaced_ = false;                         // guarded by the store's queue
  std::filesystem::path replaced_;                    // guarded by the store's queue; kept name of the
                                                      // replaced file, empty when none
  std::uint64_t fileReads_ = 0;                       // guarded by the store's queue
  std::optional<StoreSizeIndex> sizes_;               // guarded by the store's queue; for contents_'s values,
                                                      // nullopt until counted (dropped whenever contents_ is
                                                      // replaced other than by applyChanges)
  std::map<std::string, std::int64_t> clients_;       // guarded by the store's queue; bus name -> highest
                                                      // count it released (-1: none)
};

}  // namespace velmorad
