// The sync engine's decisions about one store (SyncRecords) and the store
// file edits they make (Store::applyServerEdit, deletions noted by
// applyChanges), over real store files in a scratch directory.
#include "SyncRecords.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <random>

#include "Store.h"
#include "velmora/platform/PlistCodec.h"
#include "zkv/ZKVEncoding.h"

namespace {

namespace fs = std::filesystem;
using velmora::makeDictionary;
using velmora::PlistDictionary;
using velmora::PropertyList;
using namespace velmorad;

PropertyList text(const std::string& value) { return PropertyList::string(value); }

// A server record of value at timestamp, as the wire carries it.
RemoteRecord remote(const std::string& key, const std::string& value, std::int64_t timestamp,
                    std::int64_t revision = 1) {
  velmora::Bytes bytes;
  std::optional<syncpb::Record> wire = encodeValueRecord(key, text(value), timestamp, "other-device", &bytes);
  wire->set_revision(revision);
  std::string error;
  std::optional<RemoteRecord> decoded = decodeRemoteRecord(*wire, &error);
  EXPECT_TRUE(decoded) << error;
  return *decoded;
}
RemoteRecord remoteDeletion(const std::string& key, std::int64_t timestamp) {
  RemoteRecord r;
  r.key = key;
  r.deleted = true;
  r.timestamp = timestamp;
  r.revision = 1;
  return r;
}

// A record written here and never sent.
PropertyList localRecord(const std::string& value, std::int64_t timestamp) {
  return ZKVCreateStorageForPropertyListAndTimestamp(text(value), timestamp);
}
// A record the server has acknowledged.
PropertyList syncedRecord(const std::string& value, std::int64_t timestamp) {
  return ZKVCreateStorageForPropertyListTimestampAndRemoteValue(
      text(value), timestamp, PropertyList::data(*ZKVCopySerializedDataForPropertyListAndTimestamp(text(value), timestamp)));
}

PlistDictionary contentsWith(PlistDictionary values, StoreSyncState state = {}) {
  PlistDictionary contents{{"values", PropertyList::dictionary(std::move(values))},
                           {"changecount", PropertyList::integer(3)}};
  if (PropertyList entry = state.entry(); !entry.isNone()) contents.emplace("syncstate", entry);
  return contents;
}

std::string valueOf(const PropertyList& record) {
  std::int64_t timestamp = 0;
  const PropertyList* value = ZKVGetPropertyListAndTimestampFromStorage(record, &timestamp);
  return value != nullptr && value->isString() ? *value->getString() : "(none)";
}

TEST(SyncRecords, ReceivedRecordsWinOrLoseByTheRules) {
  StoreSyncState state;
  state.deleted = {{"gone-newer", 500}, {"gone-older", 100}};
  const PlistDictionary contents = contentsWith(
      {{"synced", syncedRecord("old", 100)},           // acknowledged: the server's newer record wins
       {"synced-newer", syncedRecord("mine", 900)},    // acknowledged: the server's record wins even when older
       {"pending-newer", localRecord("mine", 300)},    // not sent, newer than the server's: stays
       {"pending-tie", localRecord("mine", 200)},      // not sent, same second: stays (its push arrives later)
       {"pending-older", localRecord("mine", 100)},    // not sent, older: the server's wins
       {"same", localRecord("same", 200)},             // the server has exactly this: now acknowledged
       {"deleted-there", syncedRecord("x", 100)}},     // the server removed it
      state);
  std::vector<std::string> problems;
  ServerEdit merged = mergeRemoteRecords(
      contents,
      {remote("synced", "new", 200), remote("synced-newer", "theirs", 800), remote("pending-newer", "theirs", 200),
       remote("pending-tie", "theirs", 200), remote("pending-older", "theirs", 200), remote("same", "same", 200),
       remoteDeletion("deleted-there", 150), remote("gone-newer", "theirs", 400), remote("gone-older", "theirs", 400),
       remote("new", "theirs", 50)},
      kJournalInitialSync, &problems);
  EXPECT_TRUE(problems.empty());

  // Visible changes, all with the caller's code.
  EXPECT_EQ(merged.journal, (std::map<std::string, std::int32_t>{{"deleted-there", 1},
                                                                 {"gone-older", 1},
                                                                 {"new", 1},
                                                                 {"pending-older", 1},
                                                                 {"synced", 1},
                                                                 {"synced-newer", 1}}));
  EXPECT_EQ(valueOf(merged.records.at("synced")), "new");
  EXPECT_EQ(valueOf(merged.records.at("synced-newer")), "theirs");
  EXPECT_EQ(valueOf(merged.records.at("pending-older")), "theirs");
  EXPECT_EQ(merged.records.at("deleted-there").count(), 0u);
  EXPECT_EQ(valueOf(merged.records.at("gone-older")), "theirs");
  // The adopted record is exactly the one made from the received remote value.
  EXPECT_EQ(merged.records.at("new"),
            ZKVCreateLocalStorageFromRemoteValueInStorage(makeDictionary({{"remotevalue", remote("new", "theirs", 50).serialized}})));

  // Local winners keep their value and now carry the server's as remote value: still pending.
  for (const char* key : {"pending-newer", "pending-tie"}) {
    const PropertyList& record = merged.records.at(key);
    EXPECT_EQ(valueOf(record), "mine") << key;
    EXPECT_FALSE(recordInSync(record)) << key;
    const PropertyList* remoteValue = record.find("remotevalue");
    ASSERT_NE(remoteValue, nullptr) << key;
    std::int64_t timestamp = 0;
    EXPECT_EQ(ZKVCopyPropertyListAndTimestampFromData(*remoteValue->getData(), &timestamp), text("theirs"));
  }
  // The identical one is acknowledged quietly.
  EXPECT_TRUE(recordInSync(merged.records.at("same")));
  // A newer local deletion stands; an older one gave way and is forgotten.
  EXPECT_FALSE(merged.records.contains("gone-newer"));
  ASSERT_TRUE(merged.syncState.has_value());
  EXPECT_EQ(merged.syncState->deleted, (std::map<std::string, std::int64_t>{{"gone-newer", 500}}));

  // Applied, nothing received is pending any more: the engine never pushes it back.
  PlistDictionary after = contents;
  PlistDictionary& values = *after["values"].editDictionary();
  for (const auto& [key, record] : merged.records) {
    if (record.count() == 0) {
      values.erase(key);
    } else {
      values[key] = record;
    }
  }
  after["syncstate"] = merged.syncState->entry();
  const PushBatch batch = collectPending(after, "store", "me", 100);
  std::vector<std::string> pushed;
  for (const auto& [key, item] : batch.items) pushed.push_back(key);
  EXPECT_EQ(pushed, (std::vector<std::string>{"gone-newer", "pending-newer", "pending-tie"}));
  EXPECT_TRUE(batch.items.at("gone-newer").deleted);
  EXPECT_EQ(countPending(after), 3u);
}

TEST(SyncRecords, ValuesTravelGzippedOnlyWhenThatIsSmaller) {
  velmora::Bytes serialized;
  const PropertyList big = text(std::string(4000, 'a'));
  std::optional<syncpb::Record> wire = encodeValueRecord("k", big, 77, "dev", &serialized);
  ASSERT_TRUE(wire);
  EXPECT_TRUE(wire->gzipped());
  EXPECT_LT(wire->value().size(), serialized.size());
  std::string error;
  std::optional<RemoteRecord> back = decodeRemoteRecord(*wire, &error);
  ASSERT_TRUE(back) << error;
  EXPECT_EQ(back->value, big);
  EXPECT_EQ(back->timestamp, 77);
  EXPECT_EQ(*back->serialized.getData(), serialized);

  // Random bytes do not shrink: they travel as they are.
  std::mt19937 random(7);
  velmora::Bytes noise(4096);
  for (std::uint8_t& byte : noise) byte = static_cast<std::uint8_t>(random());
  wire = encodeValueRecord("k", PropertyList::data(noise), 77, "dev", &serialized);
  EXPECT_FALSE(wire->gzipped());
  EXPECT_EQ(wire->value(), std::string(serialized.begin(), serialized.end()));

  // Damage is refused, not adopted.
  wire->set_gzipped(true);
  EXPECT_FALSE(decodeRemoteRecord(*wire, &error));
  wire->set_gzipped(false);
  wire->set_value("\x01garbage");
  EXPECT_FALSE(decodeRemoteRecord(*wire, &error));
}

// What a server (or anyone between) sends is held to the store's limits:
// nothing is inflated or kept past them, and one bad record costs only itself.
TEST(SyncRecords, RecordsOverTheStoreLimitsAreLeftOut) {
  StoreLimits limits;
  limits.maxKeyCount = 3;
  limits.maxKeyNameLen = 8;
  limits.maxKeyDataLen = 1000;
  limits.maxKeyDataSum = 1500;
  velmora::Bytes serialized;
  auto wire = [&](const std::string& key, std::size_t size) {
    return *encodeValueRecord(key, text(std::string(size, 'z')), 77, "dev", &serialized);
  };
  syncpb::Record bomb = wire("k", 5'000'000);  // a few KiB of gzip
  syncpb::Record trailing = wire("k", 500);
  trailing.mutable_value()->append(std::string(100'000, 'j'));
  syncpb::Record deletion;
  deletion.set_key(std::string(5000, 'd'));
  deletion.set_deleted(true);
  deletion.set_timestamp(77);
  std::string error;
  for (const syncpb::Record& bad : {bomb, trailing, wire("long-key-name", 10), deletion, wire("plain", 2000)}) {
    EXPECT_FALSE(decodeRemoteRecord(bad, &error, limits)) << bad.key().substr(0, 20);
    EXPECT_LT(error.size(), 200u) << error;
  }
  ASSERT_TRUE(bomb.gzipped() && trailing.gzipped());

  // The key count and the size sum, against what the store holds.
  std::vector<std::string> problems;
  const ServerEdit edit = mergeRemoteRecords(
      contentsWith({{"a", localRecord(std::string(600, 'a'), 100)}}),
      {remote("b", std::string(600, 'b'), 50), remote("c", std::string(600, 'c'), 50), remote("d", "d", 50),
       remote("e", "e", 50)},
      kJournalChangedElsewhere, &problems, limits);
  EXPECT_EQ(edit.records.size(), 2u);  // "b" fits; "c" would pass the sum, "e" the count
  EXPECT_TRUE(edit.records.contains("b") && edit.records.contains("d"));
  EXPECT_EQ(problems.size(), 2u);
}

// One push answered: what the store should look like afterwards.
TEST(SyncRecords, PushResultsAcknowledgeSupersedeOrRevert) {
  StoreSyncState state;
  state.deleted = {{"removed", 400}};
  const PlistDictionary contents = contentsWith({{"accepted", localRecord("a", 300)},
                                                 {"lost", localRecord("b", 300)},
                                                 {"too-big", localRecord("huge", 300)},
                                                 {"too-big-new", localRecord("huge", 300)},
                                                 {"future", localRecord("f", 300)}},
                                                state);
  const PushBatch batch = collectPending(contents, "store", "me", 100);
  ASSERT_EQ(batch.items.size(), 6u);

  syncpb::PushReply reply;
  auto result = [&](const std::string& key, syncpb::PushResult::Status status,
                    std::optional<RemoteRecord> winner = std::nullopt) {
    syncpb::PushResult* r = reply.add_results();
    r->set_key(key);
    r->set_status(status);
    if (winner) {
      velmora::Bytes ignored;
      *r->mutable_winner() = *encodeValueRecord(key, winner->value, winner->timestamp, "other", &ignored);
    }
  };
  result("accepted", syncpb::PushResult::ACCEPTED);
  result("lost", syncpb::PushResult::SUPERSEDED, remote("lost", "newer", 350));
  result("too-big", syncpb::PushResult::REFUSED_LIMIT, remote("too-big", "small", 100));
  result("too-big-new", syncpb::PushResult::REFUSED_LIMIT);
  result("future", syncpb::PushResult::REFUSED_FUTURE);
  result("removed", syncpb::PushResult::ACCEPTED);

  // "accepted" was written again while the push was under way.
  PlistDictionary now = contents;
  (*now["values"].editDictionary())["accepted"] = localRecord("a2", 310);
  std::vector<std::string> problems;
  const ServerEdit edit = applyPushResults(now, batch, reply, &problems);
  EXPECT_EQ(problems.size(), 3u);  // two refusals over limits, one from the future

  EXPECT_EQ(edit.journal, (std::map<std::string, std::int32_t>{
                              {"lost", kJournalChangedElsewhere},
                              {"too-big", kJournalQuotaViolation},
                              {"too-big-new", kJournalQuotaViolation}}));
  // The newer local value stays pending, now knowing the server holds "a".
  EXPECT_EQ(valueOf(edit.records.at("accepted")), "a2");
  EXPECT_FALSE(recordInSync(edit.records.at("accepted")));
  EXPECT_EQ(valueOf(edit.records.at("lost")), "newer");
  EXPECT_TRUE(recordInSync(edit.records.at("lost")));
  EXPECT_EQ(valueOf(edit.records.at("too-big")), "small");
  EXPECT_EQ(edit.records.at("too-big-new").count(), 0u);  // the server has nothing: the key goes
  EXPECT_FALSE(edit.records.contains("future"));          // stays pending as it is
  ASSERT_TRUE(edit.syncState);
  EXPECT_TRUE(edit.syncState->deleted.empty());

  // Without the concurrent write, an accepted record is simply acknowledged.
  problems.clear();
  const ServerEdit plain = applyPushResults(contents, batch, reply, &problems);
  EXPECT_TRUE(recordInSync(plain.records.at("accepted")));
  EXPECT_EQ(valueOf(plain.records.at("accepted")), "a");
}

class StoreSyncTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/velmorad-storesync-XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    root_ = pattern;
    path_ = root_ / "com.example.app.plist";
  }
  void TearDown() override { fs::remove_all(root_); }

  PlistDictionary onDisk() const { return *velmora::readPlistFile(path_.string()).getDictionary(); }
  static std::int64_t integer(const PlistDictionary& dict, std::string_view key) {
    std::int64_t value = -99;
    if (auto it = dict.find(key); it != dict.end()) (void)it->second.getInt64(value);
    return value;
  }
  static std::int64_t journalCode(const PlistDictionary& file, const std::string& key) {
    const PropertyList* entry = file.at("journal").find(key);
    return entry != nullptr ? integer(*entry->getDictionary(), "change") : -1;
  }

  fs::path root_;
  fs::path path_;
};

TEST_F(StoreSyncTest, ServerEditsJournalWithTheirCodesAndBookkeepingKeepsTheCount) {
  Store store(path_);
  ASSERT_TRUE(store.applyChanges({{"a", localRecord("1", 100)}, {"b", localRecord("2", 100)}}, ChangeOrigin::Client, {})
                  .written);
  ASSERT_EQ(store.changeCount(), 1);

  // Acknowledging "a" rewrites the file but tells no reader anything.
  ServerEdit ack;
  ack.records["a"] = syncedRecord("1", 100);
  ApplyOutcome outcome = store.applyServerEdit(ack);
  EXPECT_TRUE(outcome.rewrittenQuietly);
  EXPECT_FALSE(outcome.written);
  EXPECT_EQ(integer(onDisk(), "changecount"), 1);

  // The initial sync: received keys journaled with 1 at the new count, marked.
  ServerEdit initial;
  initial.records["c"] = syncedRecord("3", 100);
  initial.journal["c"] = kJournalInitialSync;
  initial.versionId = "account-x";
  initial.markInitialSync = true;
  StoreSyncState state;
  state.revision = 42;
  initial.syncState = state;
  outcome = store.applyServerEdit(initial);
  EXPECT_TRUE(outcome.written);
  PlistDictionary file = onDisk();
  EXPECT_EQ(integer(file, "changecount"), 2);
  EXPECT_EQ(integer(file, "initialsync"), 2);
  EXPECT_EQ(*file.at("versionid").getString(), "account-x");
  EXPECT_EQ(journalCode(file, "c"), kJournalInitialSync);
  EXPECT_EQ(StoreSyncState::of(file).revision, 42);

  // An edit that changes nothing writes nothing.
  ServerEdit nothing;
  outcome = store.applyServerEdit(nothing);
  EXPECT_FALSE(outcome.written || outcome.rewrittenQuietly);

  // Another account: every key goes with code 5, marks gone, reset noted.
  outcome = store.applyServerEdit(accountResetEdit(onDisk()));
  EXPECT_TRUE(outcome.written);
  file = onDisk();
  EXPECT_EQ(integer(file, "changecount"), 3);
  for (const char* key : {"a", "b", "c"}) EXPECT_EQ(journalCode(file, key), kJournalAccountChange) << key;
  EXPECT_FALSE(file.contains("versionid"));
  EXPECT_FALSE(file.contains("initialsync"));
  EXPECT_TRUE(file.at("values").getDictionary()->empty());
  EXPECT_TRUE(StoreSyncState::of(file).accountChange);
  EXPECT_EQ(StoreSyncState::of(file).revision, 0);
}

TEST_F(StoreSyncTest, RemovingAKeyTheServerKnowsNotesTheDeletionUntilItIsWrittenAgain) {
  Store store(path_);
  ServerEdit received;
  received.records = {{"known", syncedRecord("1", 100)}};
  received.journal = {{"known", kJournalChangedElsewhere}};
  ASSERT_TRUE(store.applyServerEdit(received).written);
  ASSERT_TRUE(store.applyChanges({{"local", localRecord("2", 100)}}, ChangeOrigin::Client, {}).written);

  const std::int64_t before = currentRecordTimestamp();
  ASSERT_TRUE(store.applyChanges({{"known", PropertyList::dictionary({})}, {"local", PropertyList::dictionary({})}},
                                 ChangeOrigin::Client, {})
                  .written);
  StoreSyncState state = StoreSyncState::of(onDisk());
  // Only the key the server had: the other never left this machine.
  ASSERT_EQ(state.deleted.size(), 1u);
  EXPECT_GE(state.deleted.at("known"), before);
  EXPECT_EQ(countPending(onDisk()), 1u);

  // Written again, the value is what is pending, not the deletion.
  ASSERT_TRUE(store.applyChanges({{"known", localRecord("3", 200)}}, ChangeOrigin::Client, {}).written);
  EXPECT_FALSE(onDisk().contains("syncstate"));
  const PushBatch batch = collectPending(onDisk(), "s", "me", 10);
  ASSERT_EQ(batch.items.size(), 1u);
  EXPECT_FALSE(batch.items.at("known").deleted);

  // A client write keeps the remote value the record had.
  ASSERT_TRUE(store.applyServerEdit(ServerEdit{{{"k", syncedRecord("v", 100)}}, {{"k", 0}}, {}, {}, false, false})
                  .written);
  ASSERT_TRUE(store.applyChanges({{"k", localRecord("w", 200)}}, ChangeOrigin::Client, {}).written);
  const PropertyList* kept = onDisk().at("values").find("k")->find("remotevalue");
  ASSERT_NE(kept, nullptr);
}

TEST_F(StoreSyncTest, ServerOriginChangesTakeRecordsAsTheyAreWithoutLimits) {
  Store store(path_);
  StoreLimits tiny;
  tiny.maxKeyDataLen = 1;
  const ApplyOutcome outcome =
      store.applyChanges({{"a", syncedRecord("larger than one byte", 100)}}, ChangeOrigin::Server, tiny);
  EXPECT_TRUE(outcome.written);
  EXPECT_TRUE(outcome.refusedKeys.empty());
  EXPECT_EQ(journalCode(onDisk(), "a"), kJournalChangedElsewhere);
  EXPECT_TRUE(recordInSync(*onDisk().at("values").find("a")));
}

}  // namespace
