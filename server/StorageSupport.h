// What both storage backends share: the bookkeeping of one updateStore()
// transaction (rows read so far, usage, the next revision), with the
// database work left to the backend. Internal to server/.
#pragma once

#include <map>
#include <optional>
#include <string>

#include "Storage.h"

namespace velmora::server {

// Schema version both backends write; a database with a newer one is refused.
// Version 2 added records.written_at, the partial index of deletion records
// and the token generation; both backends bring a version 1 database up.
inline constexpr int kSchemaVersion = 2;

// A StoreTransaction that caches rows and keeps usage and the revision
// counter in memory; the backend supplies loadRecord and writeRecord. Lives
// on the transaction's thread only, for one transaction.
class BasicStoreTransaction : public StoreTransaction {
 public:
  BasicStoreTransaction(std::int64_t accountRevision, StoreUsage usage, bool exists)
      : revision_(accountRevision), usage_(usage), exists_(exists) {}

  Result<std::optional<RecordRow>> record(const std::string& key) final {
    auto cached = rows_.find(key);
    if (cached != rows_.end()) return cached->second;
    Result<std::optional<RecordRow>> loaded = loadRecord(key);
    if (loaded) rows_.emplace(key, loaded.value());
    return loaded;
  }

  StoreUsage usage() const final { return usage_; }
  bool storeExists() const final { return exists_; }

  Result<std::int64_t> deletedKeys() final {
    if (!deleted_) {
      Result<std::int64_t> counted = countDeletedRecords();
      if (!counted) return counted;
      deleted_ = counted.value();
    }
    return *deleted_;
  }

  Result<Done> dropOldestDeletion() final {
    Result<std::optional<std::string>> dropped = deleteOldestDeletedRecord();
    if (!dropped) return Result<Done>::failure(dropped.error());
    if (dropped.value()) {
      rows_[*dropped.value()] = std::nullopt;
      if (deleted_) *deleted_ -= 1;
    }
    return Done{};
  }

  Result<std::int64_t> put(const RecordRow& row) final {
    Result<std::optional<RecordRow>> previous = record(row.key);
    if (!previous) return Result<std::int64_t>::failure(previous.error());
    RecordRow written = row;
    written.revision = revision_ + 1;
    if (written.deleted) {
      written.value.clear();
      written.size = 0;
    }
    Result<Done> stored = writeRecord(written);
    if (!stored) return Result<std::int64_t>::failure(stored.error());
    revision_ = written.revision;
    ++writes_;
    const std::optional<RecordRow>& old = previous.value();
    if (old && !old->deleted) {
      usage_.liveKeys -= 1;
      usage_.dataSum -= old->size;
    }
    if (!written.deleted) {
      usage_.liveKeys += 1;
      usage_.dataSum += written.size;
    }
    if (deleted_) *deleted_ += (written.deleted ? 1 : 0) - (old && old->deleted ? 1 : 0);
    rows_[row.key] = std::move(written);
    return revision_;
  }

  // The account revision after the puts so far.
  std::int64_t revision() const noexcept { return revision_; }
  // How many rows were put.
  int writes() const noexcept { return writes_; }

 protected:
  // The key's stored row, read inside the backend's transaction.
  virtual Result<std::optional<RecordRow>> loadRecord(const std::string& key) = 0;
  // Inserts or replaces the key's row (revision and size already set).
  virtual Result<Done> writeRecord(const RecordRow& row) = 0;
  // The store's deletion records, counted inside the backend's transaction.
  virtual Result<std::int64_t> countDeletedRecords() = 0;
  // Deletes the store's deletion record with the lowest revision; its key,
  // nullopt when there was none.
  virtual Result<std::optional<std::string>> deleteOldestDeletedRecord() = 0;

 private:
  std::int64_t revision_;                                  // account revision so far
  StoreUsage usage_;                                       // store usage so far
  const bool exists_;                                      // the store had a row before
  std::optional<std::int64_t> deleted_;                    // deletion records so far, once counted
  int writes_ = 0;                                         // rows put so far
  std::map<std::string, std::optional<RecordRow>> rows_;   // rows read or put so far
};

}  // namespace velmora::server
