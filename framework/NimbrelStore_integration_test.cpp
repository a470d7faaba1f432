// NimbrelStore against the real velmorad: each test gets a device of its own
// (a scratch home, a private bus, the daemon on it), this process's libzkv is
// an application there, and another client's writes come from the device's
// own bus connection.
#include "zkv/NimbrelStore.h"

#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <thread>

#include "StoreFixtures.h"
#include "SyncDevices.h"
#include "velmora/platform/Dispatch.h"
#include "velmora/platform/Log.h"
#include "velmora/platform/NotificationCenter.h"
#include "velmora/platform/SystemNotifications.h"
#include "zkv/ZKVEncoding.h"
#include "zkv/ZKVRemotePreferencesSource.h"

namespace {

using namespace std::chrono_literals;
using velmora::makeArray;
using velmora::makeDictionary;
using velmora::PlistDictionary;
using velmora::PropertyList;
using namespace velmora::testing;  // the shared fixtures of tests/support

constexpr auto kPatience = 10s;  // how long to wait for other processes

PropertyList str(std::string text) { return PropertyList::string(std::move(text)); }

// Collects observer calls, and whether each ran on the main queue.
struct ObserverLog {
  std::mutex mutex;
  std::vector<NimbrelChange> changes;  // guarded by mutex
  bool allOnMain = true;               // guarded by mutex
  NimbrelObserverToken observe(NimbrelStore& store, std::function<void()> also = {}) {
    return store.addObserver([this, also](const NimbrelChange& change) {
      if (also) also();
      std::lock_guard lock(mutex);
      changes.push_back(change);
      allOnMain = allOnMain && velmora::DispatchQueue::main().isCurrent();
    });
  }
  std::vector<NimbrelChange> wait(std::size_t count) {
    EXPECT_TRUE(waitUntil([&] {
      std::lock_guard lock(mutex);
      return changes.size() >= count;
    }, kPatience));
    std::lock_guard lock(mutex);
    return changes;
  }
};

class NimbrelStoreTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(device_.ok());
    services_.captureLog();  // debug lines on, as they would be when asked for
    services_.install(velmora::setConsoleSink, console_);
  }
  // Another client of the daemon writes values of app_ (none removes a key).
  void writeElsewhere(const PlistDictionary& values) { ASSERT_TRUE(device_.write(app_, values, recordTimestampNow())); }
  std::int64_t fileChangeCount() { return device_.storeFile(app_).find("changecount")->integerBits(); }

  SyncDevice device_{"nimbrel-store"};
  LibraryOn library_{device_};
  const std::string app_ = "com.example.notes";
  std::shared_ptr<velmora::CapturingConsoleSink> console_ = std::make_shared<velmora::CapturingConsoleSink>();
  ScopedServices services_;
};

TEST_F(NimbrelStoreTest, OneStorePerIdentityAndTypedValuesThatReachTheStoreFile) {
  std::shared_ptr<NimbrelStore> store = NimbrelStore::storeForApplication(app_);
  std::shared_ptr<NimbrelStore> extra = NimbrelStore::storeForApplication(app_, "S");
  EXPECT_EQ(store, NimbrelStore::storeForApplication(app_, ""));
  EXPECT_EQ(extra, NimbrelStore::storeForApplication(app_, "S"));
  EXPECT_EQ(NimbrelStore::defaultStore(), NimbrelStore::storeWithIdentifier(""));
  EXPECT_EQ(NimbrelStore::storeWithIdentifier("S"), NimbrelStore::storeWithIdentifier("S"));
  // Shared or not is part of the identity, though both read one file.
  EXPECT_NE(NimbrelStore::defaultStore(), NimbrelStore::storeForApplication("com.example.tests"));
  EXPECT_NE(store, extra);
  for (const char* bad : {"..", "a/b", "."}) EXPECT_EQ(NimbrelStore::storeWithIdentifier(bad), nullptr) << bad;
  EXPECT_EQ(NimbrelStore::storeForApplication(""), nullptr);
  EXPECT_EQ(NimbrelStore::storeForApplication("x", "../y"), nullptr);
  EXPECT_EQ(extra->description(), "<NimbrelStore app=" + app_ + " store=S>");

  const velmora::Bytes bytes{0, 1, 0xff};
  const velmora::PlistArray array{str("x"), PropertyList::integer(2)};
  const PlistDictionary dictionary{{"nested", PropertyList::boolean(false)}};
  for (const NimbrelResult& result :
       {store->setString("s", "text"), store->setInteger("i", -42), store->setDouble("d", 2.5),
        store->setDouble("whole", 3.0), store->setBool("b", true), store->setData("data", bytes),
        store->setArray("array", array), store->setDictionary("dict", dictionary),
        store->setObject("date", PropertyList::date(12.0)), store->setString("gone", "x"), extra->setString("k", "v")}) {
    ASSERT_TRUE(result.ok());
  }
  ASSERT_TRUE(store->removeObject("gone").ok());
  ASSERT_TRUE(store->removeObject("gone").ok());  // already gone
  ASSERT_TRUE(store->synchronize() && extra->synchronize());
  const PropertyList file = device_.storeFile(app_);
  for (const auto& [key, value] : store->dictionaryRepresentation()) EXPECT_EQ(storedValue(file, key), value) << key;
  EXPECT_EQ(file.find("values")->count(), 9u);
  EXPECT_EQ(storedValue(device_.storeFile(app_ + "-S"), "k"), str("v"));

  EXPECT_EQ(store->getString("s"), "text");
  EXPECT_EQ(store->getInteger("i"), -42);
  EXPECT_EQ(store->getDouble("d"), 2.5);
  EXPECT_EQ(store->getBool("b"), true);
  EXPECT_EQ(store->getData("data"), bytes);
  EXPECT_EQ(store->getArray("array"), array);
  EXPECT_EQ(store->getDictionary("dict"), dictionary);
  EXPECT_EQ(store->getObject("date"), PropertyList::date(12.0));
  EXPECT_EQ(store->getInteger("whole"), 3);  // a real that is exactly an integer
  EXPECT_EQ(store->getDouble("i"), -42.0);
  for (const char* key : {"d", "absent"}) EXPECT_EQ(store->getInteger(key), std::nullopt) << key;
  EXPECT_EQ(store->getBool("i"), std::nullopt);
  EXPECT_EQ(store->getString("i"), std::nullopt);
  EXPECT_EQ(store->getData("i"), std::nullopt);
  EXPECT_EQ(store->getArray("i"), std::nullopt);
  EXPECT_EQ(store->getDictionary("i"), std::nullopt);
  EXPECT_EQ(store->getDouble("s"), std::nullopt);
  EXPECT_EQ(store->getObject("gone"), std::nullopt);

  // A released store is not handed out again: its unsynchronised writes go with it.
  ASSERT_TRUE(store->setString("draft", "unsaved").ok());
  std::weak_ptr<NimbrelStore> released = store;
  store.reset();
  ASSERT_TRUE(released.expired());
  EXPECT_EQ(NimbrelStore::storeForApplication(app_)->getString("draft"), std::nullopt);
}

TEST_F(NimbrelStoreTest, WritesBreakingALimitAreRefusedNamingItAndChangeNothing) {
  auto sizeOf = [](std::size_t length) {
    return static_cast<std::uint64_t>(ZKVGetSerializedLengthForPropertyList(str(std::string(length, 'x'))));
  };
  // Sizes already in the file count towards the total; a key over the
  // length limit that exists already stays writable.
  writeElsewhere({{"seed", str(std::string(10, 'x'))}, {"legacy-long-key", str("")}});
  std::shared_ptr<NimbrelStore> store = NimbrelStore::storeForApplication(app_);
  const std::uint64_t total = sizeOf(0) + sizeOf(10) + sizeOf(30) + sizeOf(5);
  std::int64_t generation = 0;
  store->useSourceSyncWithBlock([&](ZKVRemotePreferencesSource& source) {
    source.storeConfiguration(makeDictionary({{"maxKeyCount", PropertyList::integer(4)},
                                              {"maxKeyNameLen", PropertyList::integer(8)},
                                              {"maxKeyDataLen", PropertyList::integer(sizeOf(30))},
                                              {"maxKeyDataSum", PropertyList::integer(total)}}));
  });
  ASSERT_TRUE(store->setString("legacy-long-key", "").ok());
  ASSERT_TRUE(store->setString("a", std::string(30, 'x')).ok());
  const PlistDictionary before = store->dictionaryRepresentation();
  store->useSourceSyncWithBlock([&](ZKVRemotePreferencesSource& source) { generation = source.generationCount(); });

  struct Case {
    NimbrelResult result;
    NimbrelErrorCode code;
    std::string key;
    std::uint64_t size, limit;
  };
  const Case cases[] = {
      {store->setString("123456789", "v"), NimbrelErrorCode::kKeyTooLong, "123456789", 9, 8},
      {store->setString("", "v"), NimbrelErrorCode::kInvalidKey, "", 0, 0},
      {store->setString("k\xff", "v"), NimbrelErrorCode::kInvalidKey, "k\xff", 0, 0},
      {store->setString("u", "caf\xc3"), NimbrelErrorCode::kInvalidValue, "u", 0, 0},
      {store->setArray("u", {str("fine"), PropertyList()}), NimbrelErrorCode::kInvalidValue, "u", 0, 0},
      {store->setString("big", std::string(31, 'x')), NimbrelErrorCode::kValueTooLarge, "big", sizeOf(31), sizeOf(30)},
      {store->setString("b", std::string(30, 'x')), NimbrelErrorCode::kTotalTooLarge, "b",
       sizeOf(0) + sizeOf(10) + 2 * sizeOf(30), total},
      {[&] {
         EXPECT_TRUE(store->setString("b", "y").ok());  // the fourth key
         return store->setString("c", "z");
       }(),
       NimbrelErrorCode::kTooManyKeys, "c", 5, 4},
      // A batch is refused whole, at the first key over a limit as if written in key order.
      {store->setObjects({{"b", PropertyList()}, {"c", str("z")}, {"d", str("w")}}), NimbrelErrorCode::kTooManyKeys, "d", 5, 4}};
  for (const Case& c : cases) {
    ASSERT_FALSE(c.result.ok()) << c.key;
    const NimbrelError& error = c.result.error();
    EXPECT_EQ(std::tuple(error.code, error.key, error.size, error.limit), std::tuple(c.code, c.key, c.size, c.limit));
    for (const std::string& part : {std::to_string(c.size), std::to_string(c.limit), c.key}) {
      if ((c.limit != 0 || part == c.key) && velmora::isValidUtf8(part)) {
        EXPECT_NE(error.message.find(part), std::string::npos) << error.message;
      }
    }
  }
  EXPECT_NE(store->setString("u", "caf\xc3").error().message.find("UTF-8"), std::string::npos);
  PlistDictionary expected = before;
  expected["b"] = str("y");
  EXPECT_EQ(store->dictionaryRepresentation(), expected);
  std::int64_t after = 0;
  store->useSourceSyncWithBlock([&](ZKVRemotePreferencesSource& source) { after = source.generationCount(); });
  EXPECT_EQ(after, generation + 1);

  // Removing makes room again, for keys and for bytes.
  ASSERT_TRUE(store->removeObject("b").ok());
  EXPECT_TRUE(store->setString("c", "z").ok());
  EXPECT_TRUE(store->setObjects({{"c", PropertyList()}, {"d", str("w")}}).ok());
  EXPECT_EQ(store->getString("d"), "w");
  ASSERT_TRUE(store->synchronize());
  // A reload after a change elsewhere counts the sizes afresh.
  ObserverLog log;
  log.observe(*store);
  writeElsewhere({{"seed", PropertyList()}, {"a", PropertyList()}});
  log.wait(1);
  EXPECT_TRUE(store->setString("b", std::string(30, 'x')).ok());

  // Writers on several threads together stay within the total.
  std::shared_ptr<NimbrelStore> shared = NimbrelStore::storeForApplication(app_ + ".threads");
  const auto size = static_cast<std::int64_t>(sizeOf(20));
  shared->useSourceSyncWithBlock([&](ZKVRemotePreferencesSource& source) {
    source.storeConfiguration(makeDictionary({{"maxKeyDataSum", PropertyList::integer(10 * size)}}));
  });
  std::atomic<int> accepted{0};
  std::vector<std::thread> writers;
  for (int t = 0; t < 4; ++t) {
    writers.emplace_back([&, t] {
      for (int i = 0; i < 10; ++i) accepted += shared->setString("t" + std::to_string(t) + "-" + std::to_string(i), std::string(20, 'x')).ok();
    });
  }
  for (std::thread& writer : writers) writer.join();
  EXPECT_EQ(accepted, 10);
  EXPECT_EQ(shared->dictionaryRepresentation().size(), 10u);
}

// Observers hear another client's changes on the main queue, before the
// daemon is let to drop their journal entries; a new store hears only what
// changes after it appeared, not the journal's history.
TEST_F(NimbrelStoreTest, ObserversHearOnlyNewChangesOnTheMainQueueBeforeTheJournalIsDiscarded) {
  writeElsewhere({{"a", str("1")}, {"gone", str("x")}});
  writeElsewhere({{"gone", PropertyList()}});
  std::shared_ptr<NimbrelStore> store = NimbrelStore::storeForApplication(app_);
  ASSERT_EQ(store->getString("a"), "1");
  ObserverLog log;
  std::atomic<bool> journaled{true};
  log.observe(*store, [&] {
    const PropertyList* journal = device_.storeFile(app_).find("journal");
    journaled = journaled && journal != nullptr && journal->find("b") != nullptr;
  });
  std::atomic<int> removedCalls{0};
  store->removeObserver(store->addObserver([&](const NimbrelChange&) { ++removedCalls; }));
  // A notice while the file stands at the store's own count: nothing is news.
  ASSERT_TRUE(velmora::postSystemNotification(ZKVRemotePreferencesSource::kSourceDidChangeExternallySystemNotification));
  writeElsewhere({{"b", str("2")}});
  EXPECT_EQ(log.wait(1), (std::vector<NimbrelChange>{{kNimbrelChangeReasonServerChange, {"b"}}}));
  EXPECT_TRUE(log.allOnMain);
  EXPECT_TRUE(journaled);
  EXPECT_EQ(removedCalls, 0);
  EXPECT_EQ(store->getString("b"), "2");
  // Once heard, the entries are released and the daemon drops them.
  EXPECT_TRUE(waitUntil([&] { return device_.storeFile(app_).find("journal") == nullptr; }, kPatience));
}

// The daemon stored another client's "b" between this store's load and its
// hand-over, and answered the hand-over past it; the notice of "b" comes
// only after that answer. The store must read the file again though the
// file's count is the one the answer named.
TEST_F(NimbrelStoreTest, AHandOverAnsweredPastAnotherWriterStillRereadsTheFile) {
  services_.install(velmora::setSystemNotificationCenter, std::make_shared<SilentSystemNotificationCenter>());
  writeElsewhere({{"a", str("1")}});
  std::shared_ptr<NimbrelStore> store = NimbrelStore::storeForApplication(app_);
  ASSERT_EQ(store->getString("a"), "1");
  writeElsewhere({{"b", str("other")}});
  ASSERT_TRUE(store->setString("c", "mine").ok());
  ASSERT_TRUE(store->synchronize());
  ASSERT_EQ(fileChangeCount(), 3);
  ASSERT_EQ(store->getObject("b"), std::nullopt);
  store->useSourceSyncWithBlock([](ZKVRemotePreferencesSource& source) {
    velmora::NotificationCenter::defaultCenter().post(ZKVRemotePreferencesSourceDidChangeNotification, &source);
  });
  EXPECT_TRUE(waitUntil([&] { return store->getString("b") == "other"; }, kPatience));
  EXPECT_EQ(store->getString("c"), "mine");
}

// A forced hand-over reads the file back: the count is the file's, and the
// keys just handed over are this process's own writes, not news.
TEST_F(NimbrelStoreTest, AForcedHandOverReadsTheFileBackWithoutReportingItsOwnWrites) {
  writeElsewhere({{"a", str("theirs")}});
  auto source = ZKVRemotePreferencesSource::create(app_, true);
  source->setValueForKey(str("mine"), "b");
  EXPECT_TRUE(source->synchronizeForced(true));
  EXPECT_EQ(loadState(*source).storageChangeCount, fileChangeCount());
  EXPECT_EQ(source->getValueForKey("a"), str("theirs"));
  EXPECT_EQ(source->copyExternalChangesWithChangeCount(nullptr), (std::map<std::int64_t, std::vector<std::string>>{{0, {"a"}}}));
}

TEST_F(NimbrelStoreTest, DebugDescriptionIsOneConsoleLineWithOrWithoutTheDaemon) {
  std::shared_ptr<NimbrelStore> store = NimbrelStore::storeForApplication(app_, "S");
  const std::string description = "<NimbrelStore app=" + app_ + " store=S>";
  store->printDebugDescription();
  ASSERT_EQ(console_->lines().size(), 1u);
  EXPECT_TRUE(console_->lines()[0].starts_with(description + ": ")) << console_->lines()[0];
  console_->clear();
  device_.stopDaemon();
  store->printDebugDescription();
  EXPECT_EQ(console_->lines(), std::vector<std::string>{"Can't get information on " + description});
}

// A value the bus's natural form cannot hold is handed over as it is and
// holds up no other key; one the store file could not hold is refused when written.
TEST_F(NimbrelStoreTest, AwkwardValuesReachTheDaemonAndHoldUpNoOtherKey) {
  std::shared_ptr<NimbrelStore> store = NimbrelStore::storeForApplication(app_);
  PropertyList deepest = str("innermost");  // arrays and dictionaries, as deep as a value may nest
  for (int i = 0; i < ZKVRemotePreferencesSource::kMaximumValueDepth; ++i) {
    deepest = i % 2 ? makeArray({deepest}) : makeDictionary({{"k", deepest}});
  }
  const PlistDictionary values = {{"nul", str(std::string("a\0b", 3))}, {std::string("k\0ey", 4), str("v")},
                                  {"deepest", deepest}, {"good", str("g")}};
  for (const auto& [key, value] : values) ASSERT_TRUE(store->setObject(key, value).ok()) << key;
  ASSERT_TRUE(store->synchronize());
  const PropertyList file = device_.storeFile(app_);
  for (const auto& [key, value] : values) EXPECT_EQ(storedValue(file, key), value) << key;
  EXPECT_FALSE(store->setObject("too deep", makeArray({deepest})).ok());
}

}  // namespace
