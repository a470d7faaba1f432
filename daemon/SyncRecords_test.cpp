// The sync engine's decisions about one store (SyncRecords): who wins, what
// is pending, how records travel and what is kept of them. The store file
// edits they make are checked end to end by Sync_integration_test.
#include "SyncRecords.h"

#include <gtest/gtest.h>

#include <tuple>

#include "velmora/platform/PlistCodec.h"
#include "zkv/ZKVEncoding.h"

namespace {

using velmora::makeDictionary;
using velmora::PlistDictionary;
using velmora::PropertyList;
using namespace velmorad;

PropertyList text(const std::string& value) { return PropertyList::string(value); }

// A server record of value at timestamp, as the wire carries it ("" a deletion).
syncpb::Record wire(const std::string& key, const std::string& value, std::int64_t timestamp) {
  velmora::Bytes ignored;
  syncpb::Record record = *encodeValueRecord(key, text(value), timestamp, "other-device", &ignored);
  record.set_deleted(value.empty());
  if (value.empty()) record.clear_value();
  record.set_revision(1);
  return record;
}
RemoteRecord remote(const std::string& key, const std::string& value, std::int64_t timestamp) {
  std::string error;
  std::optional<RemoteRecord> decoded = decodeRemoteRecord(wire(key, value, timestamp), &error);
  EXPECT_TRUE(decoded) << error;
  return decoded.value_or(RemoteRecord());
}
// A record written here and never sent, and one the server has acknowledged.
PropertyList localRecord(const std::string& value, std::int64_t timestamp) {
  return ZKVCreateStorageForPropertyListAndTimestamp(text(value), timestamp);
}
PropertyList syncedRecord(const std::string& value, std::int64_t timestamp) {
  return ZKVCreateStorageForPropertyListTimestampAndRemoteValue(
      text(value), timestamp, PropertyList::data(*ZKVCopySerializedDataForPropertyListAndTimestamp(text(value), timestamp)));
}
std::string valueOf(const PropertyList* record) {
  std::int64_t timestamp = 0;
  const PropertyList* value = record != nullptr ? ZKVGetPropertyListAndTimestampFromStorage(*record, &timestamp) : nullptr;
  return value != nullptr ? *value->getString() : "(none)";
}
// contents with edit applied, as Store::applyServerEdit does.
void applyEdit(PlistDictionary& contents, const ServerEdit& edit) {
  PlistDictionary& values = *contents["values"].editDictionary();
  for (const auto& [key, record] : edit.records) {
    if (record.count() == 0) values.erase(key);
    if (record.count() != 0) values[key] = record;
  }
  if (edit.syncState) contents["syncstate"] = edit.syncState->entry();
}

constexpr int kPull = -1;
// A rule: the key; what is here ('s' acknowledged "mine", 'p' pending "mine",
// 'd' a noted deletion, '-' nothing) and its time; how the server's record
// comes (kPull: by a pull; else the push's result status); the server's value
// (received, or the push's winner; "" a deletion, nullptr none) and its time;
// the value afterwards ("(none)" when the key is absent); the journal code
// the change gets (-1 not journaled); whether the key is still to be pushed.
using Rule = std::tuple<const char*, char, std::int64_t, int, const char*, std::int64_t, const char*, int, bool>;

// The rules, received by a pull (journaled with the caller's code, 1 here)
// and as a push's results.
TEST(SyncRecords, WhoWins) {
  using R = syncpb::PushResult;
  const Rule rules[] = {
      {"synced", 's', 100, kPull, "theirs", 200, "theirs", 1, false},
      {"synced-newer", 's', 900, kPull, "theirs", 800, "theirs", 1, false},  // the server ordered them
      {"pending-newer", 'p', 300, kPull, "theirs", 200, "mine", -1, true},
      {"pending-tie", 'p', 200, kPull, "theirs", 200, "mine", -1, true},  // its push arrives later
      {"pending-older", 'p', 100, kPull, "theirs", 200, "theirs", 1, false},
      {"same", 'p', 200, kPull, "mine", 200, "mine", -1, false},  // acknowledged quietly
      {"deleted-there", 's', 100, kPull, "", 150, "(none)", 1, false},
      {"gone-newer", 'd', 500, kPull, "theirs", 400, "(none)", -1, true},
      {"gone-older", 'd', 100, kPull, "theirs", 400, "theirs", 1, false},
      {"new", '-', 0, kPull, "theirs", 50, "theirs", 1, false},
      {"accepted", 'p', 300, R::ACCEPTED, nullptr, 0, "mine", -1, false},
      {"rewritten", 'p', 300, R::ACCEPTED, nullptr, 0, "again", -1, true},  // written again meanwhile
      {"lost", 'p', 300, R::SUPERSEDED, "theirs", 350, "theirs", kJournalChangedElsewhere, false},
      {"too-big", 'p', 300, R::REFUSED_LIMIT, "theirs", 100, "theirs", kJournalQuotaViolation, false},
      {"too-big-new", 'p', 300, R::REFUSED_LIMIT, nullptr, 0, "(none)", kJournalQuotaViolation, false},
      {"future", 'p', 300, R::REFUSED_FUTURE, nullptr, 0, "mine", -1, true},
      {"removed", 'd', 400, R::ACCEPTED, nullptr, 0, "(none)", -1, false},
  };
  PlistDictionary pulled{{"values", PropertyList::dictionary({})}, {"changecount", PropertyList::integer(3)}};
  PlistDictionary pushed = pulled;
  StoreSyncState pulledState;
  StoreSyncState pushedState;
  std::vector<RemoteRecord> received;
  syncpb::PushReply reply;
  for (const auto& [key, local, localTime, how, theirs, theirTime, after, journal, pending] : rules) {
    PlistDictionary& contents = how == kPull ? pulled : pushed;
    if (local == 's' || local == 'p') {
      (*contents["values"].editDictionary())[key] =
          local == 's' ? syncedRecord("mine", localTime) : localRecord("mine", localTime);
    }
    if (local == 'd') (how == kPull ? pulledState : pushedState).deleted[key] = localTime;
    if (how == kPull) {
      received.push_back(remote(key, theirs, theirTime));
      continue;
    }
    R* result = reply.add_results();
    result->set_key(key);
    result->set_status(static_cast<R::Status>(how));
    if (theirs != nullptr) *result->mutable_winner() = wire(key, theirs, theirTime);
  }
  pulled["syncstate"] = pulledState.entry();
  pushed["syncstate"] = pushedState.entry();

  std::vector<std::string> problems;
  const ServerEdit merged = mergeRemoteRecords(pulled, received, kJournalInitialSync, &problems);
  EXPECT_TRUE(problems.empty());
  const PushBatch batch = collectPending(pushed, "store", "me", 100);
  EXPECT_EQ(batch.items.size(), 7u);
  (*pushed["values"].editDictionary())["rewritten"] = localRecord("again", 310);
  const ServerEdit answered = applyPushResults(pushed, batch, reply, &problems);
  EXPECT_EQ(problems.size(), 3u);  // two refusals over limits, one from the future
  applyEdit(pulled, merged);
  applyEdit(pushed, answered);

  for (const auto& [key, local, localTime, how, theirs, theirTime, value, journal, pending] : rules) {
    const PlistDictionary& after = how == kPull ? pulled : pushed;
    const ServerEdit& edit = how == kPull ? merged : answered;
    EXPECT_EQ(valueOf(after.at("values").find(key)), value) << key;
    EXPECT_EQ(edit.journal.contains(key) ? edit.journal.at(key) : -1, journal) << key;
    EXPECT_EQ(collectPending(after, "store", "me", 100).items.contains(key), pending) << key;
  }
  // An adopted record is exactly the one made from the received remote value.
  EXPECT_EQ(*pulled.at("values").find("new"), ZKVCreateLocalStorageFromRemoteValueInStorage(makeDictionary(
                                                   {{"remotevalue", remote("new", "theirs", 50).serialized}})));
  EXPECT_EQ(countPending(pulled), 3u);
}

// What a server (or anyone between) sends is held to the store's limits:
// nothing is inflated or kept past them, damage is refused, and one bad
// record costs only itself. (A good gzipped record travels in the two-device
// test.)
TEST(SyncRecords, ReceivedRecordsAreHeldToTheLimits) {
  std::string error;
  const StoreLimits limits{3, 8, 1000, 1500};  // keys, name length, value size, size sum
  syncpb::Record falseGzip = wire("k", "z", 77);
  falseGzip.set_gzipped(!falseGzip.gzipped());
  syncpb::Record garbage = falseGzip;
  garbage.set_value("\x01garbage");
  syncpb::Record bomb = wire("k", std::string(5'000'000, 'z'), 77);  // a few KiB of gzip
  syncpb::Record trailing = wire("k", std::string(500, 'z'), 77);
  trailing.mutable_value()->append(std::string(100'000, 'j'));
  ASSERT_TRUE(bomb.gzipped() && trailing.gzipped());
  for (const syncpb::Record& bad : {falseGzip, garbage, bomb, trailing, wire("long-key-name", "z", 77),
                                    wire(std::string(5000, 'd'), "", 77), wire("plain", std::string(2000, 'z'), 77)}) {
    EXPECT_FALSE(decodeRemoteRecord(bad, &error, limits)) << bad.key().substr(0, 20);
    EXPECT_LT(error.size(), 200u) << error;
  }
  // The key count and the size sum, against what the store holds: "b"
  // fits, "c" would pass the sum, "e" the count.
  std::vector<std::string> problems;
  const ServerEdit edit = mergeRemoteRecords(
      {{"values", makeDictionary({{"a", localRecord(std::string(600, 'a'), 100)}})}},
      {remote("b", std::string(600, 'b'), 50), remote("c", std::string(600, 'c'), 50), remote("d", "d", 50),
       remote("e", "e", 50)},
      kJournalChangedElsewhere, &problems, limits);
  EXPECT_EQ(edit.records.size(), 2u);
  EXPECT_TRUE(edit.records.contains("b") && edit.records.contains("d"));
  EXPECT_EQ(problems.size(), 2u);
}

}  // namespace
