// ZKVJournal: which change last happened to each key of a store, and at which
// change count. The journal lives inside the store dictionary (the contents
// of a store file) under "journal": a dictionary key -> {"count": int64,
// "change": int32 change code, never 0}. Recording a change replaces the
// key's whole entry. A missing "count" or "change" reads as 0; a "journal"
// entry that is not a dictionary reads as an empty journal.
//
// Nothing here blocks or does I/O. Not thread-safe: use one journal, and the
// store under it, from one thread at a time.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "velmora/platform/PropertyList.h"
#include "zkv/ZKVBase.h"


class ZKV_EXPORT ZKVJournal {
 public:
  // The store entry that holds the journal.
  static constexpr std::string_view kStoreKey = "journal";

  // An empty, writable journal attached to no store: its changes stay in the
  // object.
  ZKVJournal();

  // A read-only journal over a store dictionary: takes a snapshot of its
  // "journal" entry (none when absent or when store is not a dictionary).
  // Writing to it is a fatal error.
  static ZKVJournal withStore(const velmora::PropertyList& store);
  static ZKVJournal withStore(const velmora::PlistDictionary& store);

  // A writable journal over a mutable store, or over a new empty store when
  // store is null. The journal is read from and written to the store's
  // "journal" entry on every call, so changes made through the journal are
  // changes to the store. The store is shared with the caller.
  static ZKVJournal withMutableStore(std::shared_ptr<velmora::PlistDictionary> store);

  // The mutable store this journal writes to; null for a read-only or detached
  // journal. Shared: copies of a journal write to the same store.
  const std::shared_ptr<velmora::PlistDictionary>& store() const noexcept { return store_; }

  // The journal dictionary as it stands (none when there is none yet): an
  // immutable snapshot the caller owns; later changes do not reach it.
  velmora::PropertyList journal() const;

  bool isReadOnly() const noexcept { return readOnly_; }

  // The change code recorded for key when its entry is newer than count
  // ("count" > count); 0 when it is not, or there is no such entry.
  std::int32_t changeSinceChangeCount(std::int64_t count, std::string_view key) const;

  // A new dictionary (caller owns it) key -> "change" value, as stored, for
  // every entry newer than count; none when no entry qualifies, never empty.
  // Throws std::invalid_argument when a qualifying entry has no "change" (a
  // malformed journal).
  velmora::PropertyList changesSinceChangeCount(std::int64_t count) const;

  // The largest "count" in the journal, never less than -1: -1 when the journal
  // is absent or empty, or when all its counts are lower.
  std::int64_t maximumChangeCount() const;

  // Records change for key at changeCount, replacing any earlier entry even
  // one with a higher count; creates the journal (and the store's "journal"
  // entry) on first use. A change of 0 removes the key's entry instead, and
  // leaves an emptied journal in place. Aborts when the journal is read-only.
  void addChange(std::int32_t change, std::string_view key, std::int64_t changeCount);

  // Removes every entry whose "count" <= count and returns whether any was
  // removed; false when there is no journal. A journal left empty is removed
  // from the store. Aborts when the journal is read-only.
  bool removeChangesUntilChangeCount(std::int64_t count);

  // "Journal: " followed by the journal dictionary's description.
  std::string description() const;

 private:
  explicit ZKVJournal(bool readOnly) : readOnly_(readOnly) {}

  // The journal value, or nullptr when there is none.
  const velmora::PropertyList* journalValue() const;
  // The slot holding the journal; when create is set, makes it an empty
  // dictionary if it is absent or not a dictionary. nullptr when absent.
  velmora::PropertyList* journalSlot(bool create);
  // Removes the journal from the store (or drops the detached one).
  void dropJournal();

  std::shared_ptr<velmora::PlistDictionary> store_;
  velmora::PropertyList detached_;  // the journal when there is no mutable store
  bool readOnly_ = false;
};
