// SyncRecords: what the sync engine decides about one store, as pure
// functions over the store file's contents: which records the server has
// not acknowledged, how they travel, and what received records and push
// results do to the store (a ServerEdit for Store::applyServerEdit).
//
// The rules
// - A record is acknowledged ("in sync") when its remote value, the last
//   value known from the server, reads back as the record's own value and
//   timestamp. Everything else, and every deletion noted in "syncstate", is
//   pending. So a record just received is never pushed back, and a crash
//   between a write and its push loses nothing: the file says what is pending.
// - A received record beats an acknowledged local one always (the server
//   has already ordered them) and a pending one when its timestamp is newer;
//   on equal timestamps the pending local record wins, since the server
//   orders ties by arrival and its push arrives later. A record that wins
//   here keeps the server's value as its remote value.
// - A record that wins from the server becomes
//   ZKVCreateLocalStorageFromRemoteValueInStorage of the received value and
//   is journaled with the caller's code (changed elsewhere, initial sync,
//   account change); a record the server refused over a limit falls back to
//   the server's value (or goes) and is journaled as a quota violation.
//
// Every function is pure and thread-safe; the engine calls them on the
// store's queue with the store's current contents.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "Store.h"
#include "velmora/platform/PropertyList.h"
#include "velmora_sync.pb.h"

namespace velmorad {

namespace syncpb = ::velmora::sync::v1;

// A server record, decoded. A value type.
struct RemoteRecord {
  std::string key;
  bool deleted = false;
  std::int64_t timestamp = 0;      // the value's own (from its serialised form), or the deletion's
  velmora::PropertyList serialized;  // data: the timestamped serialised form, ungzipped; none when deleted
  velmora::PropertyList value;       // the value read from it; none when deleted
  std::int64_t revision = 0;
};

// Decodes a wire record (gunzipping when flagged, never past the value
// limit). nullopt with *error set when it is not a readable record or its
// key or value is over limits.
std::optional<RemoteRecord> decodeRemoteRecord(const syncpb::Record& record, std::string* error,
                                               const StoreLimits& limits = {});

// The wire record for a value: its timestamped serialised form, gzipped when
// that is smaller. nullopt when the value cannot be serialised.
std::optional<syncpb::Record> encodeValueRecord(const std::string& key, const velmora::PropertyList& value,
                                                std::int64_t timestamp, const std::string& device,
                                                velmora::Bytes* serialized);

// Whether record's remote value reads back as its own value and timestamp.
// A record that does not decode counts as in sync (there is nothing to send).
bool recordInSync(const velmora::PropertyList& record);

// One push: the request and, per key, what it said.
struct PushBatch {
  struct Item {
    bool deleted = false;
    std::int64_t timestamp = 0;
    velmora::PropertyList serialized;  // data; none for a deletion
  };
  syncpb::PushRequest request;
  std::map<std::string, Item> items;

  bool empty() const noexcept { return items.empty(); }
};

// The pending records and deletions of contents (see the rules), at most
// maxRecords of them, leaving out the keys in skip, in key order.
PushBatch collectPending(const velmora::PlistDictionary& contents, const std::string& store, const std::string& device,
                         std::size_t maxRecords, const std::set<std::string>& skip = {});

// How many records and deletions of contents are pending.
std::size_t countPending(const velmora::PlistDictionary& contents);

// What received records do to contents; each value that changes is
// journaled with code. Later records of a key win over earlier ones in the
// list. A value that would take the store past limits' key count or size
// sum is left out. The edit's syncState is set when the noted deletions
// changed. *problems gets one line per record that could not be used.
ServerEdit mergeRemoteRecords(const velmora::PlistDictionary& contents, const std::vector<RemoteRecord>& records,
                              std::int32_t code, std::vector<std::string>* problems, const StoreLimits& limits = {});

// What the server's answer to batch does to contents, which may have
// changed since the batch was collected. *problems gets one line per record
// the server refused or answered in a way that could not be used.
ServerEdit applyPushResults(const velmora::PlistDictionary& contents, const PushBatch& batch,
                            const syncpb::PushReply& reply, std::vector<std::string>* problems);

// The edit that empties contents for another account: every key goes,
// journaled as an account change, the version and initial-sync marks go, and
// the sync state is left saying that the next initial sync is an account
// change's.
ServerEdit accountResetEdit(const velmora::PlistDictionary& contents);

}  // namespace velmorad
