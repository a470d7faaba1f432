// NimbrelStore over the real parts: store files in a scratch home directory,
// a private bus, and a scripted responder standing in for the daemon, whose
// record tells what the daemon received.
#include "zkv/NimbrelStore.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <thread>

#include "PrivateBus.h"
#include "RedirectingIpc.h"
#include "ScratchEnvironment.h"
#include "StoreFixtures.h"
#include "SyncDevices.h"
#include "velmora/platform/Dispatch.h"
#include "velmora/platform/Environment.h"
#include "velmora/platform/Ipc.h"
#include "velmora/platform/Log.h"
#include "velmora/platform/PlistCodec.h"
#include "velmora/platform/SystemNotifications.h"
#include "zkv/ZKVEncoding.h"
#include "zkv/ZKVRemotePreferencesSource.h"

namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using velmora::makeDictionary;
using velmora::PlistDictionary;
using velmora::PropertyList;
using namespace velmora::testing;  // the shared fixtures of tests/support

constexpr auto kPatience = 10s;  // how long to wait for other processes

PropertyList str(std::string text) { return PropertyList::string(std::move(text)); }

class NimbrelStoreTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { PrivateBus::instance(); }

  void SetUp() override {
    // A fresh application per test, so no test meets another's store.
    static std::atomic<int> counter{0};
    app_ = "com.example.notes" + std::to_string(counter.fetch_add(1));
    services_.install(velmora::setEnvironment, std::make_shared<ScratchHomeEnvironment>(root_.string(), app_));
    services_.install(velmora::setConsoleSink, console_);
    services_.install(velmora::setIpcService, std::make_shared<RedirectingIpcService>(busName_));
  }

  void TearDown() override {
    // A source outlives its store until its deferred registration has gone
    // out; sending it now keeps it from reaching a later test's daemon.
    for (const auto& source : sources_) source->forceRegistrationNow();
    sources_.clear();
  }

  std::shared_ptr<NimbrelStore> keep(std::shared_ptr<NimbrelStore> store) {
    store->useSourceSyncWithBlock(
        [&](ZKVRemotePreferencesSource& source) { sources_.push_back(source.shared_from_this()); });
    return store;
  }

  void startDaemon() {
    daemon_ = startResponder(busName_, {"--record", (root_ / "record").string(), "--on", "synchronize=userinfo", "--on",
                                        "printDebugDescription=userinfo"});
    ASSERT_NE(daemon_, nullptr);
  }
  // Whether the daemon's record holds text (the requests' bodies, one a line).
  bool recorded(const std::string& text) const {
    return readFile((root_ / "record").string()).value_or("").find(text) != std::string::npos;
  }

  // Writes a store file as the daemon does: each value in a storage record.
  void writeStoreFile(const std::string& name, const PlistDictionary& values, std::int64_t changeCount,
                      PlistDictionary journal = {}) {
    PlistDictionary extra;
    if (!journal.empty()) extra.emplace("journal", PropertyList::dictionary(std::move(journal)));
    ASSERT_TRUE(
        writePlistFile(storeFilePath(root_, name).string(), storeWith(records(values), changeCount, std::move(extra))));
  }
  static bool announceChange() {
    return velmora::postSystemNotification(ZKVRemotePreferencesSource::kSourceDidChangeExternallySystemNotification);
  }

  const ScratchDirectory scratch_{"nimbrel-store"};
  const fs::path root_ = scratch_.path();
  std::string app_;
  const std::string busName_ = uniqueBusName("com.vantrel.test.store");
  std::unique_ptr<ChildProcess> daemon_;
  std::shared_ptr<velmora::CapturingConsoleSink> console_ = std::make_shared<velmora::CapturingConsoleSink>();

 private:
  ScopedServices services_;  // put back before the scratch directory goes
  std::vector<std::shared_ptr<ZKVRemotePreferencesSource>> sources_;
};

// Collects observer calls, and whether each ran on the main queue.
struct ObserverLog {
  std::mutex mutex;
  std::vector<NimbrelChange> changes;  // guarded by mutex
  bool allOnMain = true;               // guarded by mutex
  std::size_t size() {
    std::lock_guard lock(mutex);
    return changes.size();
  }
};

TEST_F(NimbrelStoreTest, OneStorePerIdentityEachReadingItsOwnFile) {
  startDaemon();
  writeStoreFile(app_, {{"where", str("main")}}, 1);
  writeStoreFile(app_ + "-S", {{"where", str("additional")}}, 1);
  writeStoreFile("com.example.other", {{"where", str("other")}}, 1);

  std::shared_ptr<NimbrelStore> main = keep(NimbrelStore::defaultStore());
  std::shared_ptr<NimbrelStore> extra = keep(NimbrelStore::storeWithIdentifier("S"));
  std::shared_ptr<NimbrelStore> other = keep(NimbrelStore::storeForApplication("com.example.other"));
  EXPECT_EQ(main, NimbrelStore::defaultStore());
  EXPECT_EQ(main, NimbrelStore::storeWithIdentifier(""));
  EXPECT_EQ(extra, NimbrelStore::storeWithIdentifier("S"));
  EXPECT_EQ(other, NimbrelStore::storeForApplication("com.example.other", ""));
  // Shared or not is part of the identity, though both read one file.
  std::shared_ptr<NimbrelStore> mainShared = keep(NimbrelStore::storeForApplication(app_));
  EXPECT_NE(main, mainShared);
  EXPECT_NE(main, extra);

  EXPECT_EQ(main->getString("where"), "main");
  EXPECT_EQ(mainShared->getString("where"), "main");
  EXPECT_EQ(extra->getString("where"), "additional");
  EXPECT_EQ(other->getString("where"), "other");
  EXPECT_EQ(extra->description(), "<NimbrelStore app=" + app_ + " store=S>");

  for (const char* bad : {"..", "a/b", "."}) EXPECT_EQ(NimbrelStore::storeWithIdentifier(bad), nullptr) << bad;
  EXPECT_EQ(NimbrelStore::storeForApplication(""), nullptr);
  EXPECT_EQ(NimbrelStore::storeForApplication("x", "../y"), nullptr);

  // A shared store's requests name its application; an additional one's its store.
  ASSERT_TRUE(other->setString("k", "v").ok());
  ASSERT_TRUE(extra->setString("k", "v").ok());
  EXPECT_TRUE(other->synchronize());
  EXPECT_TRUE(extra->synchronize());
  EXPECT_TRUE(recorded("\"bundleIdentifier\" = \"com.example.other\"; \"message\" = \"synchronize\";"));
  EXPECT_TRUE(recorded("\"additionalStore\" = true; \"message\" = \"synchronize\"; \"storeIdentifier\" = \"S\";"));

  // A released store is not handed out again: its unsynchronised writes go with it.
  ASSERT_TRUE(main->setString("draft", "unsaved").ok());
  std::weak_ptr<NimbrelStore> released = main;
  main.reset();
  ASSERT_TRUE(released.expired());
  EXPECT_EQ(keep(NimbrelStore::defaultStore())->getString("draft"), std::nullopt);
}

TEST_F(NimbrelStoreTest, TypedValuesRoundTripWithTheDocumentedConversions) {
  std::shared_ptr<NimbrelStore> store = keep(NimbrelStore::defaultStore());
  const velmora::Bytes bytes{0, 1, 0xff};
  const velmora::PlistArray array{str("x"), PropertyList::integer(2)};
  const PlistDictionary dictionary{{"nested", PropertyList::boolean(false)}};
  for (const NimbrelResult& result :
       {store->setString("s", "text"), store->setInteger("i", -42), store->setDouble("d", 2.5),
        store->setDouble("whole", 3.0), store->setBool("b", true), store->setData("data", bytes),
        store->setArray("array", array), store->setDictionary("dict", dictionary),
        store->setObject("date", PropertyList::date(12.0))}) {
    ASSERT_TRUE(result.ok());
  }

  EXPECT_EQ(store->getString("s"), "text");
  EXPECT_EQ(store->getInteger("i"), -42);
  EXPECT_EQ(store->getDouble("d"), 2.5);
  EXPECT_EQ(store->getBool("b"), true);
  EXPECT_EQ(store->getData("data"), bytes);
  EXPECT_EQ(store->getArray("array"), array);
  EXPECT_EQ(store->getDictionary("dict"), dictionary);
  EXPECT_EQ(store->getObject("date"), PropertyList::date(12.0));

  EXPECT_EQ(store->getInteger("whole"), 3);  // a real that is exactly an integer
  EXPECT_EQ(store->getInteger("d"), std::nullopt);
  EXPECT_EQ(store->getDouble("i"), -42.0);
  EXPECT_EQ(store->getBool("i"), std::nullopt);
  EXPECT_EQ(store->getString("i"), std::nullopt);
  EXPECT_EQ(store->getObject("absent"), std::nullopt);

  ASSERT_TRUE(store->removeObject("s").ok());
  ASSERT_TRUE(store->removeObject("s").ok());  // already gone
  ASSERT_TRUE(store->setObject("whole", PropertyList()).ok());
  PlistDictionary all = store->dictionaryRepresentation();
  EXPECT_EQ(all.size(), 7u);
  EXPECT_FALSE(all.contains("s") || all.contains("whole"));
  EXPECT_EQ(all["array"], PropertyList::array(array));
}

TEST_F(NimbrelStoreTest, WritesBreakingALimitAreRefusedNamingItAndChangeNothing) {
  startDaemon();
  auto sizeOf = [](std::size_t length) {
    return static_cast<std::uint64_t>(ZKVGetSerializedLengthForPropertyList(str(std::string(length, 'x'))));
  };
  // Sizes already in the file count towards the total; a key over the
  // length limit that exists already stays writable.
  writeStoreFile(app_, {{"seed", str(std::string(10, 'x'))}, {"legacy-long-key", str("")}}, 1);
  std::shared_ptr<NimbrelStore> store = keep(NimbrelStore::defaultStore());
  const std::uint64_t total = sizeOf(0) + sizeOf(10) + sizeOf(30) + sizeOf(5);
  store->useSourceSyncWithBlock([&](ZKVRemotePreferencesSource& source) {
    source.storeConfiguration(makeDictionary({{"maxKeyCount", PropertyList::integer(4)},
                                              {"maxKeyNameLen", PropertyList::integer(8)},
                                              {"maxKeyDataLen", PropertyList::integer(sizeOf(30))},
                                              {"maxKeyDataSum", PropertyList::integer(total)}}));
  });
  ASSERT_TRUE(store->setString("legacy-long-key", "").ok());
  ASSERT_TRUE(store->setString("a", std::string(30, 'x')).ok());

  const PlistDictionary before = store->dictionaryRepresentation();
  std::int64_t generation = 0;
  auto refused = [&](NimbrelResult result, NimbrelErrorCode code, std::string_view key, std::uint64_t size,
                     std::uint64_t limit) {
    ASSERT_FALSE(result.ok());
    const NimbrelError& error = result.error();
    EXPECT_EQ(error.code, code);
    EXPECT_EQ(error.key, key);
    EXPECT_EQ(error.size, size);
    EXPECT_EQ(error.limit, limit);
    if (limit != 0) {
      EXPECT_NE(error.message.find(std::to_string(size)), std::string::npos) << error.message;
      EXPECT_NE(error.message.find(std::to_string(limit)), std::string::npos) << error.message;
    }
    if (!key.empty() && velmora::isValidUtf8(key)) {
      EXPECT_NE(error.message.find(key), std::string::npos) << error.message;
    }
  };
  store->useSourceSyncWithBlock([&](ZKVRemotePreferencesSource& source) { generation = source.generationCount(); });

  refused(store->setString("123456789", "v"), NimbrelErrorCode::kKeyTooLong, "123456789", 9, 8);
  refused(store->setString("", "v"), NimbrelErrorCode::kInvalidKey, "", 0, 0);
  refused(store->setString("k\xff", "v"), NimbrelErrorCode::kInvalidKey, "k\xff", 0, 0);
  refused(store->setString("u", "caf\xc3"), NimbrelErrorCode::kInvalidValue, "u", 0, 0);
  refused(store->setArray("u", {str("fine"), PropertyList()}), NimbrelErrorCode::kInvalidValue, "u", 0, 0);
  refused(store->setString("big", std::string(31, 'x')), NimbrelErrorCode::kValueTooLarge, "big", sizeOf(31),
          sizeOf(30));
  refused(store->setString("b", std::string(30, 'x')), NimbrelErrorCode::kTotalTooLarge, "b",
          sizeOf(0) + sizeOf(10) + 2 * sizeOf(30), total);
  ASSERT_TRUE(store->setString("b", "y").ok());  // the fourth key
  refused(store->setString("c", "z"), NimbrelErrorCode::kTooManyKeys, "c", 5, 4);
  EXPECT_NE(store->setString("u", "caf\xc3").error().message.find("UTF-8"), std::string::npos);
  // A batch is refused whole, at the first key over a limit as if written in key order.
  refused(store->setObjects({{"b", PropertyList()}, {"c", str("z")}, {"d", str("w")}}), NimbrelErrorCode::kTooManyKeys,
          "d", 5, 4);

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
  EXPECT_FALSE(store->getObject("c"));
  ASSERT_TRUE(store->synchronize());

  // A reload after a change elsewhere counts the sizes afresh.
  ObserverLog log;
  store->addObserver([&](const NimbrelChange& change) {
    std::lock_guard lock(log.mutex);
    log.changes.push_back(change);
  });
  writeStoreFile(app_, {{"c", str("z")}}, 5, {{"seed", journalEntry(5, 0)}, {"a", journalEntry(5, 0)}});
  ASSERT_TRUE(announceChange());
  ASSERT_TRUE(waitUntil([&] { return log.size() > 0; }, kPatience));
  EXPECT_TRUE(store->setString("b", std::string(30, 'x')).ok());
}

TEST_F(NimbrelStoreTest, ConcurrentWritersTogetherStayWithinTheTotal) {
  std::shared_ptr<NimbrelStore> store = keep(NimbrelStore::defaultStore());
  const std::string value(20, 'x');
  const auto size = static_cast<std::int64_t>(ZKVGetSerializedLengthForPropertyList(str(value)));
  store->useSourceSyncWithBlock([&](ZKVRemotePreferencesSource& source) {
    source.storeConfiguration(makeDictionary({{"maxKeyDataSum", PropertyList::integer(10 * size)}}));
  });
  std::atomic<int> accepted{0};
  std::vector<std::thread> writers;
  for (int t = 0; t < 4; ++t) {
    writers.emplace_back([&, t] {
      for (int i = 0; i < 10; ++i) {
        if (store->setString("t" + std::to_string(t) + "-" + std::to_string(i), value).ok()) ++accepted;
      }
    });
  }
  for (std::thread& writer : writers) writer.join();
  EXPECT_EQ(accepted, 10);
  EXPECT_EQ(store->dictionaryRepresentation().size(), 10u);
}

TEST_F(NimbrelStoreTest, ObserversHearChangesOnTheMainQueueBeforeTheJournalIsDiscarded) {
  startDaemon();
  writeStoreFile(app_, {{"a", str("1")}}, 1);
  std::shared_ptr<NimbrelStore> store = keep(NimbrelStore::defaultStore());
  ASSERT_EQ(store->getString("a"), "1");

  ObserverLog log;
  std::atomic<bool> discardedEarly{false};
  store->addObserver([&](const NimbrelChange& change) {
    if (recorded("discardJournalEntries")) discardedEarly = true;
    std::lock_guard lock(log.mutex);
    log.changes.push_back(change);
    log.allOnMain = log.allOnMain && velmora::DispatchQueue::main().isCurrent();
  });
  std::atomic<int> removedCalls{0};
  store->removeObserver(store->addObserver([&](const NimbrelChange&) { ++removedCalls; }));

  writeStoreFile(app_, {{"a", str("2")}, {"b", str("x")}, {"c", str("y")}, {"d", str("w")}}, 3,
                 {{"a", journalEntry(2, 0)},
                  {"b", journalEntry(3, 0)},
                  {"c", journalEntry(3, 2)},
                  {"d", journalEntry(3, 7)},
                  {"old", journalEntry(1, 0)}});
  ASSERT_TRUE(announceChange());
  ASSERT_TRUE(waitUntil([&] { return log.size() >= 3; }, kPatience));
  ASSERT_TRUE(waitUntil([&] { return recorded("discardJournalEntries"); }, kPatience));

  {
    std::lock_guard lock(log.mutex);
    EXPECT_EQ(log.changes, (std::vector<NimbrelChange>{{kNimbrelChangeReasonServerChange, {"a", "b"}},
                                                       {kNimbrelChangeReasonQuotaViolation, {"c"}},
                                                       {7, {"d"}}}));
    EXPECT_TRUE(log.allOnMain);
  }
  EXPECT_FALSE(discardedEarly);
  EXPECT_EQ(removedCalls, 0);
  EXPECT_TRUE(recorded("\"message\" = \"discardJournalEntries\"; \"userinfo\" = 3;"));
  EXPECT_EQ(store->getString("a"), "2");
}

TEST_F(NimbrelStoreTest, ANewStoreHearsOnlyWhatChangesAfterItAppears) {
  startDaemon();
  // History: entries a process that starts now has nothing to learn from.
  writeStoreFile(app_, {{"a", str("1")}, {"gone", str("x")}}, 5, {{"a", journalEntry(4, 0)}, {"gone", journalEntry(5, 2)}});
  std::shared_ptr<NimbrelStore> store = keep(NimbrelStore::defaultStore());
  ObserverLog log;
  store->addObserver([&](const NimbrelChange& change) {
    std::lock_guard lock(log.mutex);
    log.changes.push_back(change);
  });

  // A notice while the file stands at the store's own count (its own
  // hand-over coming back, say): nothing is news.
  ASSERT_TRUE(announceChange());
  // Then a real change; notices are handled in order, so a report of the
  // history would come first.
  writeStoreFile(app_, {{"a", str("1")}, {"b", str("2")}}, 6, {{"a", journalEntry(4, 0)}, {"b", journalEntry(6, 0)}});
  ASSERT_TRUE(announceChange());
  ASSERT_TRUE(waitUntil([&] { return log.size() >= 1; }, kPatience));
  {
    std::lock_guard lock(log.mutex);
    EXPECT_EQ(log.changes, (std::vector<NimbrelChange>{{kNimbrelChangeReasonServerChange, {"b"}}}));
  }
  EXPECT_EQ(store->getString("b"), "2");
  EXPECT_EQ(store->getString("a"), "1");
}

TEST_F(NimbrelStoreTest, AHandOverAnsweredPastAnotherWriterStillRereadsTheFile) {
  // The daemon stored another process's "b" at 6 between this store's load
  // (at 5) and its hand-over, which it answers with 7.
  const fs::path script = root_ / "script.plist";
  const PropertyList file = storeWith(records({{"a", str("1")}, {"b", str("other")}, {"c", str("mine")}}), 7,
                                      {{"journal", PropertyList::dictionary({{"b", journalEntry(6, 0)},
                                                                             {"c", journalEntry(7, 0)}})}});
  ASSERT_TRUE(writePlistFile(
      script.string(),
      PropertyList::dictionary({{"synchronize", makeDictionary({{"writeFile", str(storeFilePath(root_, app_).string())},
                                                                {"fileContents", file},
                                                                {"userinfo", makeDictionary({{"changecount",
                                                                                           PropertyList::integer(7)}})}})}})));
  daemon_ = startResponder(busName_, {"--default", "userinfo", "--script", script.string()});
  ASSERT_NE(daemon_, nullptr);
  writeStoreFile(app_, {{"a", str("1")}}, 5);
  std::shared_ptr<NimbrelStore> store = keep(NimbrelStore::defaultStore());
  ASSERT_TRUE(store->setString("c", "mine").ok());
  ASSERT_TRUE(store->synchronize());
  ASSERT_EQ(store->getObject("b"), std::nullopt);

  // The count matches the file's, but the cache never saw "b".
  ASSERT_TRUE(announceChange());
  EXPECT_TRUE(waitUntil([&] { return store->getString("b") == "other"; }, kPatience));
  EXPECT_EQ(store->getString("c"), "mine");
}

TEST_F(NimbrelStoreTest, DebugDescriptionIsOneConsoleLineWithOrWithoutADaemon) {
  std::shared_ptr<NimbrelStore> store = keep(NimbrelStore::storeWithIdentifier("S"));
  const std::string description = "<NimbrelStore app=" + app_ + " store=S>";
  store->printDebugDescription();
  EXPECT_EQ(console_->lines(), std::vector<std::string>{"Can't get information on " + description});

  console_->clear();
  startDaemon();
  store->printDebugDescription();
  // The responder answers with the request's own (empty) user info.
  EXPECT_EQ(console_->lines(), std::vector<std::string>{description + ": {}"});
}

// Against the real daemon: a value the bus's natural form cannot hold is
// handed over as it is and holds up no other key; one the store file could
// not hold is refused when written.
TEST(NimbrelStoreDaemonTest, AwkwardValuesReachTheDaemonAndHoldUpNoOtherKey) {
  SyncDevice device("awkward-values");
  ASSERT_TRUE(device.ok());
  LibraryOn library(device);
  std::shared_ptr<NimbrelStore> store = NimbrelStore::storeForApplication("com.example.awkward");
  PropertyList deepest = str("innermost");  // arrays and dictionaries, as deep as a value may nest
  for (int i = 0; i < ZKVRemotePreferencesSource::kMaximumValueDepth; ++i) {
    deepest = i % 2 ? velmora::makeArray({deepest}) : makeDictionary({{"k", deepest}});
  }
  const PlistDictionary values = {{"nul", str(std::string("a\0b", 3))}, {std::string("k\0ey", 4), str("v")},
                                  {"deepest", deepest}, {"good", str("g")}};
  for (const auto& [key, value] : values) ASSERT_TRUE(store->setObject(key, value).ok()) << key;
  ASSERT_TRUE(store->synchronize());
  const PropertyList file = device.storeFile("com.example.awkward");
  for (const auto& [key, value] : values) EXPECT_EQ(storedValue(file, key), value) << key;
  EXPECT_FALSE(store->setObject("too deep", velmora::makeArray({deepest})).ok());
}

}  // namespace
