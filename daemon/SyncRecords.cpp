#include "SyncRecords.h"

#include <algorithm>

#include "velmora/platform/Log.h"
#include "zkv/ZKVEncoding.h"

namespace velmorad {

using velmora::Bytes;
using velmora::PlistDictionary;
using velmora::PropertyList;

namespace {

const PlistDictionary& valuesOf(const PlistDictionary& contents) {
  static const PlistDictionary kEmpty;
  auto it = contents.find(kStoreValuesKey);
  const PlistDictionary* values = it != contents.end() ? it->second.getDictionary() : nullptr;
  return values != nullptr ? *values : kEmpty;
}

// The working state of one decision: the store's values and sync state as
// the edit so far leaves them.
class Working {
 public:
  explicit Working(const PlistDictionary& contents, const StoreLimits& limits = {})
      : values_(valuesOf(contents)), state_(StoreSyncState::of(contents)), original_(state_), limits_(limits) {}

  // Whether key may take value within the store's key count and size sum
  // (a value over its own limit never decodes). A store already over the
  // sum may still shrink.
  bool fits(const std::string& key, const PropertyList& value) {
    const PropertyList* local = record(key);
    if (local == nullptr && static_cast<std::int64_t>(values_.size()) >= limits_.maxKeyCount) return false;
    if (!total_) {
      total_ = 0;
      for (const auto& [name, stored] : values_) *total_ += recordSize(stored);
    }
    const std::uint64_t oldSize = local != nullptr ? recordSize(*local) : 0;
    const std::uint64_t newSize = valueSize(value);
    const std::uint64_t sum = static_cast<std::uint64_t>(std::max<std::int64_t>(limits_.maxKeyDataSum, 0));
    if (newSize > oldSize && *total_ - oldSize + newSize > sum) return false;
    *total_ = *total_ - oldSize + newSize;
    return true;
  }

  const PropertyList* record(const std::string& key) const {
    auto it = values_.find(key);
    return it != values_.end() ? &it->second : nullptr;
  }
  std::optional<std::int64_t> deletion(const std::string& key) const {
    auto it = state_.deleted.find(key);
    return it != state_.deleted.end() ? std::optional(it->second) : std::nullopt;
  }

  void set(const std::string& key, PropertyList record, std::optional<std::int32_t> code) {
    edit_.records[key] = record;
    values_[key] = std::move(record);
    journal(key, code);
  }
  void remove(const std::string& key, std::optional<std::int32_t> code) {
    if (values_.erase(key) == 0) return;
    edit_.records[key] = PropertyList::dictionary({});
    journal(key, code);
  }
  void noteDeletion(const std::string& key, std::int64_t when) { state_.deleted[key] = when; }
  void forgetDeletion(const std::string& key) { state_.deleted.erase(key); }

  ServerEdit finish() {
    if (!(state_ == original_)) edit_.syncState = state_;
    return std::move(edit_);
  }

 private:
  // Bookkeeping (no code) after a visible change of the same key in the
  // same edit leaves that change journaled.
  void journal(const std::string& key, std::optional<std::int32_t> code) {
    if (code) edit_.journal[key] = *code;
  }

  PlistDictionary values_;
  StoreSyncState state_;
  const StoreSyncState original_;
  const StoreLimits limits_;
  std::optional<std::uint64_t> total_;  // the values' size sum, counted on first need
  ServerEdit edit_;
};

// The record that adopts a received value: value and time from its bytes,
// the bytes kept as the remote value.
PropertyList adoptedRecord(const RemoteRecord& remote) {
  return ZKVCreateLocalStorageFromRemoteValueInStorage(velmora::makeDictionary({{"remotevalue", remote.serialized}}));
}

bool sameValue(const PropertyList& record, const RemoteRecord& remote) {
  std::int64_t timestamp = 0;
  const PropertyList* value = ZKVGetPropertyListAndTimestampFromStorage(record, &timestamp);
  return value != nullptr && !remote.deleted && timestamp == remote.timestamp && *value == remote.value;
}

// Whether the record still is what item pushed.
bool stillPushed(const PropertyList* record, std::optional<std::int64_t> deletion, const PushBatch::Item& item) {
  if (item.deleted) return record == nullptr && deletion == item.timestamp;
  if (record == nullptr) return false;
  std::int64_t timestamp = 0;
  const PropertyList* value = ZKVGetPropertyListAndTimestampFromStorage(*record, &timestamp);
  if (value == nullptr || timestamp != item.timestamp) return false;
  std::int64_t pushedTimestamp = 0;
  const PropertyList pushed = ZKVCopyPropertyListAndTimestampFromData(*item.serialized.getData(), &pushedTimestamp);
  return pushed == *value;
}

// The received record against the working state (see the rules in the header).
void decide(Working& w, const RemoteRecord& remote, std::int32_t code, std::vector<std::string>* problems) {
  const std::string& key = remote.key;
  const PropertyList* local = w.record(key);
  const std::optional<std::int64_t> deletion = w.deletion(key);

  if (remote.deleted) {
    if (local == nullptr) {
      if (deletion) w.forgetDeletion(key);  // the server has it gone already
      return;
    }
    std::int64_t timestamp = 0;
    const PropertyList* remoteValue = nullptr;
    const PropertyList* value = ZKVGetPropertyListAndTimestampAndRemoteValueFromStorage(*local, &timestamp, &remoteValue);
    if (recordInSync(*local) || value == nullptr || remote.timestamp > timestamp) {
      w.remove(key, code);
    } else if (remoteValue != nullptr) {
      // The local value wins; the server's own value is now a deletion.
      w.set(key, ZKVCreateStorageForPropertyListAndTimestamp(*value, timestamp), std::nullopt);
    }
    return;
  }

  if (local != nullptr) {
    std::int64_t timestamp = 0;
    const PropertyList* value = ZKVGetPropertyListAndTimestampFromStorage(*local, &timestamp);
    if (sameValue(*local, remote)) {
      if (!recordInSync(*local)) {
        w.set(key, ZKVCreateStorageForPropertyListTimestampAndRemoteValue(*value, timestamp, remote.serialized),
              std::nullopt);
      }
      if (deletion) w.forgetDeletion(key);
      return;
    }
    if (value != nullptr && !recordInSync(*local) && timestamp >= remote.timestamp) {
      PropertyList kept = ZKVCreateStorageForPropertyListTimestampAndRemoteValue(*value, timestamp, remote.serialized);
      if (kept != *local) w.set(key, std::move(kept), std::nullopt);
      return;
    }
  } else if (deletion && *deletion >= remote.timestamp) {
    return;  // the local removal is newer and still to be sent
  }

  PropertyList adopted = adoptedRecord(remote);
  if (adopted.isNone()) {
    problems->push_back("the server's value of " + velmora::quoteForLog(key) + " does not decode");
    return;
  }
  if (!w.fits(key, remote.value)) {
    problems->push_back("the server's value of " + velmora::quoteForLog(key) + " would take the store over its limits");
    return;
  }
  w.set(key, std::move(adopted), code);
  if (deletion) w.forgetDeletion(key);
}

}  // namespace

std::optional<RemoteRecord> decodeRemoteRecord(const syncpb::Record& record, std::string* error,
                                               const StoreLimits& limits) {
  RemoteRecord remote;
  remote.key = record.key();
  remote.revision = record.revision();
  if (remote.key.empty()) {
    *error = "a record without a key";
    return std::nullopt;
  }
  if (static_cast<std::int64_t>(remote.key.size()) > limits.maxKeyNameLen) {
    *error = "the record key " + velmora::quoteForLog(remote.key) + " is over the length limit";
    return std::nullopt;
  }
  if (record.deleted()) {
    remote.deleted = true;
    remote.timestamp = record.timestamp();
    return remote;
  }
  // The serialised form is the value's counted size: nothing over the
  // value limit is worth inflating or keeping.
  const std::size_t maxBytes = static_cast<std::size_t>(std::max<std::int64_t>(limits.maxKeyDataLen, 0));
  const auto* raw = reinterpret_cast<const std::uint8_t*>(record.value().data());
  std::span<const std::uint8_t> bytes(raw, record.value().size());
  std::optional<Bytes> plain;
  if (record.gzipped()) {
    bool tooLarge = false;
    plain = ZKVCopyUngzippedDataForDataWithLimit(bytes, maxBytes, &tooLarge);
    if (!plain) {
      *error = "the value of " + velmora::quoteForLog(remote.key) +
               (tooLarge ? " inflates past the value limit" : " is flagged gzipped but does not gunzip");
      return std::nullopt;
    }
  } else if (bytes.size() > maxBytes) {
    *error = "the value of " + velmora::quoteForLog(remote.key) + " is over the value limit";
    return std::nullopt;
  } else {
    plain.emplace(bytes.begin(), bytes.end());
  }
  std::int64_t timestamp = 0;
  remote.value = ZKVCopyPropertyListAndTimestampFromData(*plain, &timestamp);
  if (remote.value.isNone()) {
    *error = "the value of " + velmora::quoteForLog(remote.key) + " is not in the timestamped serialised form";
    return std::nullopt;
  }
  if (valueSize(remote.value) > maxBytes) {
    *error = "the value of " + velmora::quoteForLog(remote.key) + " is over the value limit";
    return std::nullopt;
  }
  remote.timestamp = timestamp;
  remote.serialized = PropertyList::data(std::move(*plain));
  return remote;
}

std::optional<syncpb::Record> encodeValueRecord(const std::string& key, const PropertyList& value,
                                                std::int64_t timestamp, const std::string& device, Bytes* serialized) {
  std::optional<Bytes> bytes = ZKVCopySerializedDataForPropertyListAndTimestamp(value, timestamp);
  if (!bytes) return std::nullopt;
  syncpb::Record record;
  record.set_key(key);
  record.set_timestamp(timestamp);
  record.set_origin_device(device);
  std::optional<Bytes> gzipped = ZKVCopyGzippedDataForData(*bytes);
  if (gzipped && gzipped->size() < bytes->size()) {
    record.set_value(gzipped->data(), gzipped->size());
    record.set_gzipped(true);
  } else {
    record.set_value(bytes->data(), bytes->size());
  }
  *serialized = std::move(*bytes);
  return record;
}

bool recordInSync(const PropertyList& record) {
  std::int64_t timestamp = 0;
  const PropertyList* remote = nullptr;
  const PropertyList* value = ZKVGetPropertyListAndTimestampAndRemoteValueFromStorage(record, &timestamp, &remote);
  if (value == nullptr) return true;
  if (remote == nullptr || !remote->isData()) return false;
  std::int64_t remoteTimestamp = 0;
  const PropertyList remoteValue = ZKVCopyPropertyListAndTimestampFromData(*remote->getData(), &remoteTimestamp);
  return !remoteValue.isNone() && remoteTimestamp == timestamp && remoteValue == *value;
}

PushBatch collectPending(const PlistDictionary& contents, const std::string& store, const std::string& device,
                         std::size_t maxRecords, const std::set<std::string>& skip) {
  PushBatch batch;
  batch.request.set_store(store);
  batch.request.set_device(device);
  // Values and deletions merged in key order, so that batches are stable.
  std::map<std::string, std::optional<std::int64_t>> pending;
  for (const auto& [key, record] : valuesOf(contents)) {
    if (!recordInSync(record)) pending.emplace(key, std::nullopt);
  }
  for (const auto& [key, when] : StoreSyncState::of(contents).deleted) pending.emplace(key, when);
  const PlistDictionary& values = valuesOf(contents);
  for (const auto& [key, deletion] : pending) {
    if (batch.items.size() >= maxRecords) break;
    if (skip.contains(key)) continue;
    PushBatch::Item item;
    if (deletion) {
      // A noted deletion of a key written again since counts as the value.
      if (values.contains(key)) continue;
      item.deleted = true;
      item.timestamp = *deletion;
      syncpb::Record* record = batch.request.add_records();
      record->set_key(key);
      record->set_deleted(true);
      record->set_timestamp(*deletion);
      record->set_origin_device(device);
    } else {
      std::int64_t timestamp = 0;
      const PropertyList* value = ZKVGetPropertyListAndTimestampFromStorage(values.find(key)->second, &timestamp);
      Bytes serialized;
      std::optional<syncpb::Record> record = encodeValueRecord(key, *value, timestamp, device, &serialized);
      if (!record) continue;
      item.timestamp = timestamp;
      item.serialized = PropertyList::data(std::move(serialized));
      *batch.request.add_records() = std::move(*record);
    }
    batch.items.emplace(key, std::move(item));
  }
  return batch;
}

std::size_t countPending(const PlistDictionary& contents) {
  const PlistDictionary& values = valuesOf(contents);
  std::size_t count = 0;
  for (const auto& [key, record] : values) count += recordInSync(record) ? 0 : 1;
  for (const auto& [key, when] : StoreSyncState::of(contents).deleted) count += values.contains(key) ? 0 : 1;
  return count;
}

ServerEdit mergeRemoteRecords(const PlistDictionary& contents, const std::vector<RemoteRecord>& records,
                              std::int32_t code, std::vector<std::string>* problems, const StoreLimits& limits) {
  // The latest version of each key (pages of one pull may repeat a key).
  std::map<std::string, const RemoteRecord*> latest;
  for (const RemoteRecord& record : records) {
    const RemoteRecord*& slot = latest[record.key];
    if (slot == nullptr || record.revision >= slot->revision) slot = &record;
  }
  Working w(contents, limits);
  for (const auto& [key, record] : latest) decide(w, *record, code, problems);
  return w.finish();
}

ServerEdit applyPushResults(const PlistDictionary& contents, const PushBatch& batch, const syncpb::PushReply& reply,
                            std::vector<std::string>* problems) {
  Working w(contents);
  for (const syncpb::PushResult& result : reply.results()) {
    const std::string& key = result.key();
    auto itemIt = batch.items.find(key);
    if (itemIt == batch.items.end()) {
      problems->push_back("the server answered for " + velmora::quoteForLog(key) + ", which was not pushed");
      continue;
    }
    const PushBatch::Item& item = itemIt->second;
    const PropertyList* local = w.record(key);
    const std::optional<std::int64_t> deletion = w.deletion(key);
    std::optional<RemoteRecord> winner;
    if (result.has_winner()) {
      std::string error;
      winner = decodeRemoteRecord(result.winner(), &error);
      if (!winner && result.status() != syncpb::PushResult::ACCEPTED) problems->push_back(error);
      if (winner) winner->key = key;
    }

    switch (result.status()) {
      case syncpb::PushResult::ACCEPTED:
        if (item.deleted) {
          if (deletion == item.timestamp) w.forgetDeletion(key);
          if (local != nullptr) {
            // Written again since: the server's value is now the deletion.
            std::int64_t timestamp = 0;
            const PropertyList* value = ZKVGetPropertyListAndTimestampFromStorage(*local, &timestamp);
            if (value != nullptr) w.set(key, ZKVCreateStorageForPropertyListAndTimestamp(*value, timestamp), std::nullopt);
          }
        } else if (local != nullptr) {
          std::int64_t timestamp = 0;
          const PropertyList* value = ZKVGetPropertyListAndTimestampFromStorage(*local, &timestamp);
          PropertyList acknowledged =
              ZKVCreateStorageForPropertyListTimestampAndRemoteValue(*value, timestamp, item.serialized);
          if (acknowledged != *local) w.set(key, std::move(acknowledged), std::nullopt);
        } else if (!deletion) {
          // Removed here while the push was under way, before the server knew
          // the key: the server must hear of the removal too.
          w.noteDeletion(key, std::max(currentRecordTimestamp(), item.timestamp));
        }
        break;

      case syncpb::PushResult::SUPERSEDED:
        if (!winner) {
          problems->push_back("the server superseded " + velmora::quoteForLog(key) + " without a usable winner");
        } else if (stillPushed(local, deletion, item)) {
          // What we pushed lost: the winner stands, whatever its time.
          if (winner->deleted) {
            w.remove(key, kJournalChangedElsewhere);
            w.forgetDeletion(key);
          } else if (PropertyList adopted = adoptedRecord(*winner); !adopted.isNone()) {
            w.set(key, std::move(adopted), kJournalChangedElsewhere);
            w.forgetDeletion(key);
          }
        } else {
          decide(w, *winner, kJournalChangedElsewhere, problems);
        }
        break;

      case syncpb::PushResult::REFUSED_LIMIT:
      case syncpb::PushResult::REFUSED_INVALID:
        problems->push_back("the server refused " + velmora::quoteForLog(key) + ": " + velmora::quoteForLog(result.reason(), 200));
        if (!stillPushed(local, deletion, item)) break;  // changed since; the next push tries again
        w.forgetDeletion(key);
        if (winner && !winner->deleted) {
          if (PropertyList adopted = adoptedRecord(*winner); !adopted.isNone()) {
            w.set(key, std::move(adopted), kJournalQuotaViolation);
            break;
          }
        }
        w.remove(key, kJournalQuotaViolation);
        break;

      case syncpb::PushResult::REFUSED_FUTURE:
      default:
        // Stays pending: a clock put right lets a later push through.
        problems->push_back("the server refused " + velmora::quoteForLog(key) + ": " + velmora::quoteForLog(result.reason(), 200));
        break;
    }
  }
  return w.finish();
}

ServerEdit accountResetEdit(const PlistDictionary& contents) {
  ServerEdit edit;
  for (const auto& [key, record] : valuesOf(contents)) {
    edit.records.emplace(key, PropertyList::dictionary({}));
    edit.journal.emplace(key, kJournalAccountChange);
  }
  edit.clearVersion = true;
  StoreSyncState state;
  state.accountChange = true;
  edit.syncState = state;
  return edit;
}

}  // namespace velmorad
