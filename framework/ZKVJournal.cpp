#include "zkv/ZKVJournal.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <stdexcept>
#include <utility>

using velmora::PlistDictionary;
using velmora::PropertyList;

namespace {

constexpr std::string_view kCountKey = "count";
constexpr std::string_view kChangeKey = "change";

// Writing to a read-only journal is a programming error, not a runtime
// condition: stop right there, the way the rest of the system reports one.
[[noreturn]] void failReadOnly(const char* function, int line) {
  std::fprintf(stderr, "Assertion failed: (!readonly), function %s, file framework/ZKVJournal, line %d.\n",
               function, line);
  std::fflush(stderr);
  std::abort();
}

std::int64_t entryCount(const PropertyList& entry) {
  std::int64_t count = 0;
  if (const PropertyList* value = entry.find(kCountKey)) value->getInt64(count);
  return count;
}

std::int32_t entryChange(const PropertyList& entry) {
  std::int32_t change = 0;
  if (const PropertyList* value = entry.find(kChangeKey)) value->getInt32(change);
  return change;
}

}  // namespace

ZKVJournal::ZKVJournal() = default;

ZKVJournal ZKVJournal::withStore(const PropertyList& store) {
  ZKVJournal journal(true);
  if (const PropertyList* entry = store.find(kStoreKey)) journal.detached_ = *entry;
  return journal;
}

ZKVJournal ZKVJournal::withStore(const PlistDictionary& store) {
  ZKVJournal journal(true);
  if (auto it = store.find(kStoreKey); it != store.end()) journal.detached_ = it->second;
  return journal;
}

ZKVJournal ZKVJournal::withMutableStore(std::shared_ptr<PlistDictionary> store) {
  ZKVJournal journal(false);
  journal.store_ = store ? std::move(store) : std::make_shared<PlistDictionary>();
  return journal;
}

const PropertyList* ZKVJournal::journalValue() const {
  const PropertyList* value = &detached_;
  if (store_) {
    auto it = store_->find(kStoreKey);
    value = it == store_->end() ? nullptr : &it->second;
  }
  return value != nullptr && !value->isNone() ? value : nullptr;
}

PropertyList* ZKVJournal::journalSlot(bool create) {
  PropertyList* slot = &detached_;
  if (store_) {
    auto it = store_->find(kStoreKey);
    if (it == store_->end()) {
      if (!create) return nullptr;
      it = store_->emplace(kStoreKey, PropertyList()).first;
    }
    slot = &it->second;
  }
  if (create && !slot->isDictionary()) *slot = PropertyList::dictionary({});
  return slot->isNone() ? nullptr : slot;
}

void ZKVJournal::dropJournal() {
  if (store_) {
    if (auto it = store_->find(kStoreKey); it != store_->end()) store_->erase(it);
  } else {
    detached_ = PropertyList();
  }
}

PropertyList ZKVJournal::journal() const {
  const PropertyList* value = journalValue();
  return value != nullptr ? *value : PropertyList();
}

std::int32_t ZKVJournal::changeSinceChangeCount(std::int64_t count, std::string_view key) const {
  const PropertyList* journal = journalValue();
  const PropertyList* entry = journal != nullptr ? journal->find(key) : nullptr;
  if (entry == nullptr || entryCount(*entry) <= count) return 0;
  return entryChange(*entry);
}

PropertyList ZKVJournal::changesSinceChangeCount(std::int64_t count) const {
  const PropertyList* journal = journalValue();
  const PlistDictionary* entries = journal != nullptr ? journal->getDictionary() : nullptr;
  if (entries == nullptr) return {};
  PlistDictionary changes;
  for (const auto& [key, entry] : *entries) {
    if (entryCount(entry) <= count) continue;
    const PropertyList* change = entry.find(kChangeKey);
    if (change == nullptr || change->isNone()) {
      throw std::invalid_argument("ZKVJournal: entry for key \"" + key + "\" has no change");
    }
    changes.emplace(key, *change);
  }
  if (changes.empty()) return {};
  return PropertyList::dictionary(std::move(changes));
}

std::int64_t ZKVJournal::maximumChangeCount() const {
  const PropertyList* journal = journalValue();
  const PlistDictionary* entries = journal != nullptr ? journal->getDictionary() : nullptr;
  // Starts from -1, so a journal whose counts are all below it answers -1.
  std::int64_t maximum = -1;
  if (entries == nullptr) return maximum;
  for (const auto& item : *entries) maximum = std::max(maximum, entryCount(item.second));
  return maximum;
}

void ZKVJournal::addChange(std::int32_t change, std::string_view key, std::int64_t changeCount) {
  if (readOnly_) failReadOnly("-[ZKVJournal addChange:forKey:changeCount:]", 100);
  if (change != 0) {
    PropertyList entry = velmora::makeDictionary({
        {std::string(kCountKey), PropertyList::integer(changeCount)},
        {std::string(kChangeKey), PropertyList::integer(change)},
    });
    PlistDictionary* entries = journalSlot(true)->editDictionary();
    if (auto it = entries->find(key); it != entries->end()) {
      it->second = std::move(entry);
    } else {
      entries->emplace(key, std::move(entry));
    }
    return;
  }
  // Code 0 means "nothing to remember": forget the key but keep the journal,
  // even when it is left empty.
  PropertyList* slot = journalSlot(false);
  if (slot == nullptr || slot->find(key) == nullptr) return;  // nothing to do: don't clone a shared journal
  PlistDictionary* entries = slot->editDictionary();
  entries->erase(entries->find(key));
}

bool ZKVJournal::removeChangesUntilChangeCount(std::int64_t count) {
  if (readOnly_) failReadOnly("-[ZKVJournal removeChangesUntilChangeCount:]", 121);
  PropertyList* slot = journalSlot(false);
  if (slot == nullptr) return false;
  bool removed = false;
  if (const PlistDictionary* entries = slot->getDictionary()) {
    auto prunable = [count](const auto& item) { return entryCount(item.second) <= count; };
    // Edit (and so possibly clone) only when something actually goes.
    if (std::any_of(entries->begin(), entries->end(), prunable)) {
      removed = std::erase_if(*slot->editDictionary(), prunable) > 0;
    }
  }
  if (!slot->isDictionary() || slot->getDictionary()->empty()) dropJournal();
  return removed;
}

std::string ZKVJournal::description() const { return "Journal: " + journal().description(); }
