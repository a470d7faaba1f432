#include "zkv/ZKVJournal.h"

#include <gtest/gtest.h>

#include <stdexcept>

using velmora::makeDictionary;
using velmora::PlistDictionary;
using velmora::PropertyList;

namespace {

PropertyList entry(std::int64_t count, std::int32_t change) {
  return makeDictionary({{"count", PropertyList::integer(count)}, {"change", PropertyList::integer(change)}});
}

// A store {"journal": {a: count 5 change 1, b: count 7 change 2}, "other": 1}.
std::shared_ptr<PlistDictionary> storeWithAB() {
  return std::make_shared<PlistDictionary>(PlistDictionary{
      {"journal", makeDictionary({{"a", entry(5, 1)}, {"b", entry(7, 2)}})},
      {"other", PropertyList::integer(1)},
  });
}

}  // namespace

TEST(ZKVJournal, StoreWithoutJournalHasNoChanges) {
  auto store = std::make_shared<PlistDictionary>(PlistDictionary{{"other", PropertyList::integer(1)}});
  const PlistDictionary before = *store;
  for (const ZKVJournal& j : {ZKVJournal::withStore(*store), ZKVJournal::withMutableStore(store), ZKVJournal()}) {
    EXPECT_EQ(j.maximumChangeCount(), -1);
    EXPECT_TRUE(j.changesSinceChangeCount(-100).isNone());
    EXPECT_EQ(j.changeSinceChangeCount(-100, "a"), 0);
  }
  ZKVJournal writable = ZKVJournal::withMutableStore(store);
  EXPECT_FALSE(writable.removeChangesUntilChangeCount(100));
  EXPECT_EQ(*store, before);
  EXPECT_EQ(ZKVJournal().description(), "Journal: (none)");
}

TEST(ZKVJournal, QueriesCompareCountsStrictly) {
  ZKVJournal j = ZKVJournal::withStore(PropertyList::dictionary(*storeWithAB()));
  EXPECT_EQ(j.changesSinceChangeCount(5), makeDictionary({{"b", PropertyList::integer(2)}}));
  EXPECT_EQ(j.changesSinceChangeCount(4),
            makeDictionary({{"a", PropertyList::integer(1)}, {"b", PropertyList::integer(2)}}));
  EXPECT_TRUE(j.changesSinceChangeCount(7).isNone());
  EXPECT_EQ(j.maximumChangeCount(), 7);
  EXPECT_EQ(j.changeSinceChangeCount(4, "a"), 1);
  EXPECT_EQ(j.changeSinceChangeCount(5, "a"), 0);
  EXPECT_EQ(j.changeSinceChangeCount(0, "missing"), 0);
}

TEST(ZKVJournal, MalformedEntries) {
  ZKVJournal j = ZKVJournal::withStore(makeDictionary({{"journal", makeDictionary({
      {"nochange", makeDictionary({{"count", PropertyList::integer(9)}})},
      {"nocount", makeDictionary({{"change", PropertyList::integer(3)}})},
  })}}));
  EXPECT_EQ(j.changeSinceChangeCount(-1, "nocount"), 3);  // missing count reads 0
  EXPECT_EQ(j.changeSinceChangeCount(0, "nocount"), 0);
  EXPECT_EQ(j.changeSinceChangeCount(1, "nochange"), 0);
  EXPECT_EQ(j.maximumChangeCount(), 9);
  EXPECT_THROW(j.changesSinceChangeCount(1), std::invalid_argument);

  // A journal that is not a dictionary reads as empty and is replaced by the first write.
  auto store = std::make_shared<PlistDictionary>(PlistDictionary{{"journal", PropertyList::string("junk")}});
  ZKVJournal w = ZKVJournal::withMutableStore(store);
  EXPECT_EQ(w.maximumChangeCount(), -1);
  EXPECT_TRUE(w.changesSinceChangeCount(0).isNone());
  w.addChange(4, "k", 1);
  EXPECT_EQ(store->at("journal"), makeDictionary({{"k", entry(1, 4)}}));
}

TEST(ZKVJournal, AddingWritesThroughToTheStore) {
  auto store = std::make_shared<PlistDictionary>();
  ZKVJournal j = ZKVJournal::withMutableStore(store);
  EXPECT_EQ(j.store(), store);
  j.addChange(2, "k", 9);
  EXPECT_EQ(store->at("journal"), makeDictionary({{"k", entry(9, 2)}}));
  j.addChange(3, "k", 3);  // the last call wins even with a lower count
  EXPECT_EQ(j.maximumChangeCount(), 3);
  EXPECT_EQ(j.changeSinceChangeCount(2, "k"), 3);

  ZKVJournal fresh = ZKVJournal::withMutableStore(nullptr);
  ASSERT_NE(fresh.store(), nullptr);
  fresh.addChange(1, "x", 1);
  EXPECT_EQ(fresh.store()->count("journal"), 1u);
}

TEST(ZKVJournal, WritesDoNotReachEarlierSnapshots) {
  auto store = storeWithAB();
  const PropertyList snapshot = store->at("journal");
  ZKVJournal readOnly = ZKVJournal::withStore(*store);
  ZKVJournal j = ZKVJournal::withMutableStore(store);
  j.addChange(5, "c", 10);
  j.addChange(0, "a", 11);
  EXPECT_EQ(snapshot, makeDictionary({{"a", entry(5, 1)}, {"b", entry(7, 2)}}));
  EXPECT_EQ(readOnly.maximumChangeCount(), 7);
  EXPECT_EQ(store->at("journal"), makeDictionary({{"b", entry(7, 2)}, {"c", entry(10, 5)}}));
}

TEST(ZKVJournal, ZeroChangeForgetsTheKeyButKeepsTheJournal) {
  auto store = std::make_shared<PlistDictionary>();
  ZKVJournal j = ZKVJournal::withMutableStore(store);
  j.addChange(0, "k", 1);  // nothing to forget: no journal is made
  EXPECT_EQ(store->count("journal"), 0u);
  j.addChange(1, "k", 1);
  j.addChange(0, "k", 2);
  EXPECT_EQ(store->at("journal"), PropertyList::dictionary({}));
  EXPECT_FALSE(j.removeChangesUntilChangeCount(0));
  EXPECT_EQ(store->count("journal"), 0u);
}

TEST(ZKVJournal, RemovingPrunesUpToTheCountAndDropsAnEmptyJournal) {
  auto store = storeWithAB();
  ZKVJournal j = ZKVJournal::withMutableStore(store);
  EXPECT_FALSE(j.removeChangesUntilChangeCount(4));
  EXPECT_TRUE(j.removeChangesUntilChangeCount(5));
  EXPECT_EQ(store->at("journal"), makeDictionary({{"b", entry(7, 2)}}));
  EXPECT_TRUE(j.removeChangesUntilChangeCount(7));
  EXPECT_EQ(store->count("journal"), 0u);
  EXPECT_EQ(store->count("other"), 1u);
  EXPECT_FALSE(j.removeChangesUntilChangeCount(7));

  ZKVJournal detached;
  detached.addChange(1, "n", -4);
  detached.addChange(2, "m", -3);
  EXPECT_EQ(detached.changesSinceChangeCount(-4), makeDictionary({{"m", PropertyList::integer(2)}}));
  EXPECT_TRUE(detached.removeChangesUntilChangeCount(-4));
  EXPECT_EQ(detached.maximumChangeCount(), -1);  // -1 is the floor, even over negative counts
  EXPECT_TRUE(detached.removeChangesUntilChangeCount(-3));
  EXPECT_TRUE(detached.journal().isNone());
}

TEST(ZKVJournalDeathTest, WritingToAReadOnlyJournalIsFatal) {
  ZKVJournal j = ZKVJournal::withStore(PropertyList::dictionary(*storeWithAB()));
  EXPECT_DEATH(j.addChange(1, "k", 1), "Assertion failed: \\(!readonly\\), function -\\[ZKVJournal addChange");
  EXPECT_DEATH(j.removeChangesUntilChangeCount(1), "!readonly.*removeChangesUntilChangeCount:\\], .*line 121");
}
