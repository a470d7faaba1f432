#include "zkv/ZKVRemotePreferencesSource.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/wait.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <future>
#include <map>
#include <mutex>
#include <thread>

#include "RedirectingIpc.h"
#include "ScratchEnvironment.h"
#include "StoreFixtures.h"
#include "velmora/platform/Dispatch.h"
#include "velmora/platform/Environment.h"
#include "velmora/platform/Ipc.h"
#include "velmora/platform/Log.h"
#include "velmora/platform/PlistCodec.h"
#include "velmora/platform/SystemNotifications.h"
#include "zkv/ZKVClient.h"
#include "zkv/ZKVEncoding.h"

namespace {

namespace fs = std::filesystem;
using velmora::LogLevel;
using velmora::makeArray;
using velmora::makeDictionary;
using velmora::PlistDictionary;
using velmora::PropertyList;
using namespace velmora::testing;  // the shared fixtures of tests/support
using Source = ZKVRemotePreferencesSource;

constexpr double kNow = 800'000'000.25;

class FakeEnvironment : public velmora::Environment {
 public:
  std::optional<std::string> getVariable(std::string_view name) const override {
    std::lock_guard lock(mutex_);
    auto found = variables_.find(name);
    return found == variables_.end() ? std::nullopt : std::optional(found->second);
  }
  std::optional<std::string> homeDirectory() const override {
    std::lock_guard lock(mutex_);
    return home_;
  }
  double absoluteTime() const override { return now.load(); }
  std::optional<std::string> hostApplicationIdentifier() const override { return std::nullopt; }
  bool isSandboxed() const override { return false; }
  void set(std::string name, std::string value) {
    std::lock_guard lock(mutex_);
    variables_[std::move(name)] = std::move(value);
  }
  void setHome(std::optional<std::string> home) {
    std::lock_guard lock(mutex_);
    home_ = std::move(home);
  }
  std::atomic<double> now{kNow};

 private:
  mutable std::mutex mutex_;
  std::map<std::string, std::string, std::less<>> variables_;  // guarded by mutex_
  std::optional<std::string> home_;                           // guarded by mutex_
};

// Records observations instead of subscribing on the bus.
class RecordingCenter : public velmora::SystemNotificationCenter {
 public:
  velmora::SystemObserverToken addObserver(std::string name, std::shared_ptr<velmora::DispatchQueue>,
                                           std::function<void()>, const void* owner) override {
    std::lock_guard lock(mutex_);
    observed_.emplace_back(std::move(name), owner);
    return observed_.size();
  }
  void removeObserver(velmora::SystemObserverToken) override {}
  void removeObservers(const void* owner) override {
    std::lock_guard lock(mutex_);
    std::erase_if(observed_, [&](const auto& entry) { return entry.second == owner; });
  }
  bool post(std::string_view) override { return true; }
  std::vector<std::string> namesObservedBy(const void* owner) const {
    std::lock_guard lock(mutex_);
    std::vector<std::string> names;
    for (const auto& [name, who] : observed_) {
      if (who == owner) names.push_back(name);
    }
    return names;
  }

 private:
  mutable std::mutex mutex_;
  std::vector<std::pair<std::string, const void*>> observed_;  // guarded by mutex_
};

PropertyList str(std::string text) { return PropertyList::string(std::move(text)); }
PropertyList integer(std::int64_t v) { return PropertyList::integer(v); }

class ZKVRemotePreferencesSourceTest : public ::testing::Test {
 protected:
  void SetUp() override {
    env_->setHome(home_.string());
    services_.install(velmora::setEnvironment, env_);
    services_.install(velmora::setLogSink, log_);
    services_.install(velmora::setSystemNotificationCenter, center_);
    services_.install(velmora::setIpcService, ipc_);
    services_.quietMemoryPressure();  // warnings come from raiseMemoryWarning() only
  }

  fs::path storePath(const std::string& name = "A") const { return storeFilePath(home_, name); }
  void writeBytes(std::string_view bytes) {
    fs::create_directories(storePath().parent_path());
    std::ofstream(storePath(), std::ios::binary).write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  }
  void writeStore(const PropertyList& store) {
    ASSERT_TRUE(writePlistFile(storePath().string(), store));
  }
  bool logged(LogLevel level, const std::string& message) const {
    return loggedOnDefaultChannel(*log_, level, message);
  }
  // Raises a warning and waits for the source's handler to have run.
  static void warn(Source& source) {
    velmora::raiseMemoryWarning();
    source.protectionQueue()->sync([] {});
  }

  const ScratchDirectory scratch_{"zkv-source"};
  const fs::path root_ = scratch_.path();
  const fs::path home_ = root_ / "home";
  std::shared_ptr<FakeEnvironment> env_ = std::make_shared<FakeEnvironment>();
  std::shared_ptr<velmora::CapturingLogSink> log_ = std::make_shared<velmora::CapturingLogSink>();
  std::shared_ptr<RecordingCenter> center_ = std::make_shared<RecordingCenter>();
  // Real connections to a bus that does not exist: any request fails at once
  // instead of reaching a daemon, and the connections made are counted.
  std::shared_ptr<RedirectingIpcService> ipc_ = std::make_shared<RedirectingIpcService>(
      "", velmora::DbusIpcOptions{.busAddress = "unix:path=/nonexistent/velmora-test-bus"});
  ScopedServices services_;  // put back before the scratch directory goes
};

// ---------------------------------------------------------------------------
// Identity and storage location.

TEST_F(ZKVRemotePreferencesSourceTest, StoreFileLocation) {
  const fs::path plain = storePath();
  EXPECT_EQ(ZKVRemotePreferencesCreateURLForStorage("A", std::nullopt, std::nullopt, false), plain);
  EXPECT_TRUE(logged(LogLevel::Debug, "ZKVRemotePreferencesCreateURLForStorage " + home_.string() +
                                          "/Library/Quellstore/ - " + home_.string() + "/"));
  EXPECT_EQ(ZKVRemotePreferencesCreateURLForStorage("A", "S", std::nullopt, false), storePath("A-S"));
  EXPECT_EQ(ZKVRemotePreferencesCreateURLForStorage("A", std::nullopt, "/c", true), "/c/Library/Quellstore/A.plist");
  EXPECT_EQ(ZKVRemotePreferencesCreateURLForStorage("A", std::nullopt, "/c", false), plain);

  // Through the initialisers: the store identifier names the file only for an additional source.
  auto source = Source::create("A", "S", false);
  EXPECT_EQ(source->urlOnDisk(), plain);
  EXPECT_TRUE(logged(LogLevel::Debug, "URL for A (shared: NO - contained: NO - storeID: S - additionalSource: NO) is " +
                                          plain.string()));
  EXPECT_EQ(source->client()->storeIdentifier(), "S");
  EXPECT_EQ(source->client()->bundleIdentifier(), std::nullopt);
  EXPECT_EQ(Source::create("A", "S", false, true)->urlOnDisk(), storePath("A-S"));

  // QXFIXED_USER_HOME (any value) sends a non-shared store into its container, if it has one.
  env_->set("QXFIXED_USER_HOME", "");
  EXPECT_EQ(Source::create("A", std::nullopt, false, false, "/c")->urlOnDisk(), "/c/Library/Quellstore/A.plist");
  EXPECT_TRUE(logged(LogLevel::Debug, "URL for A (shared: NO - contained: YES - storeID: (null) - additionalSource: NO)"
                                      " is /c/Library/Quellstore/A.plist"));
  EXPECT_EQ(Source::create("A", std::nullopt, false, false, std::nullopt)->urlOnDisk(), plain);
  // A relative container is resolved once, against the working directory of the moment.
  EXPECT_EQ(Source::create("A", std::nullopt, false, false, "c")->urlOnDisk(),
            fs::current_path() / "c/Library/Quellstore/A.plist");
  auto shared = Source::create("A", std::nullopt, true, false, "/c");
  EXPECT_EQ(shared->urlOnDisk(), plain);
  EXPECT_EQ(shared->client()->bundleIdentifier(), "A");

  env_->setHome(std::nullopt);
  EXPECT_EQ(ZKVRemotePreferencesCreateURLForStorage("A", std::nullopt, std::nullopt, false), std::nullopt);
  EXPECT_EQ(Source::create("A", false)->urlOnDisk(), std::nullopt);
}

TEST_F(ZKVRemotePreferencesSourceTest, NoApplicationIdKeepsValuesInMemory) {
  log_->clear();
  auto source = Source::create(std::nullopt, false);
  EXPECT_EQ(source->preferenceID(), std::nullopt);
  EXPECT_EQ(source->urlOnDisk(), std::nullopt);
  EXPECT_NE(source->client(), nullptr);
  EXPECT_FALSE(log_->contains("URL for"));
  EXPECT_EQ(loadState(*source).initialSyncChangeCount, -2);
  EXPECT_TRUE(source->copyKeyList().empty());
  source->setValueForKey(str("v"), "k");
  EXPECT_EQ(source->getValueForKey("k"), str("v"));
  EXPECT_EQ(loadState(*source).storageChangeCount, -1);  // nothing was read
}

TEST_F(ZKVRemotePreferencesSourceTest, TransactionIsHeldOnlyDuringWork) {
  auto source = Source::create("A", false);
  const std::size_t baseline = velmora::KeepAliveTransaction::activeCount();
  source->protectionQueue()->sync([&] {
    source->lockedZkvStartTransaction();
    source->lockedZkvStartTransaction();
    EXPECT_EQ(velmora::KeepAliveTransaction::activeCount(), baseline + 1);
    source->lockedZkvEndTransaction();
  });
  source->setValueForKey(str("v"), "k");
  source->setValueForKey(str("v"), "");
  (void)source->getValueForKey("k");
  (void)source->copyDictionary();
  (void)source->synchronizeForced(true);
  EXPECT_THROW(source->setValueForKey(str("v"), std::string(65, 'x')), ZKVAssertionFailure);
  EXPECT_EQ(velmora::KeepAliveTransaction::activeCount(), baseline);
}

TEST_F(ZKVRemotePreferencesSourceTest, TeardownEndsObservationsAndDropsDirtyKeys) {
  auto source = Source::create("A", false);
  const void* identity = source.get();
  EXPECT_EQ(center_->namesObservedBy(identity),
            (std::vector<std::string>{"ZKVRemotePreferencesConfigurationDidChangeNotification",
                                      "ZKVRemotePreferencesSourceDidChangeExternally"}));
  source->setValueForKey(str("unsent"), "k");
  std::weak_ptr<Source> weak = source;
  source.reset();
  EXPECT_TRUE(weak.expired());  // the warning handler does not keep it
  EXPECT_TRUE(center_->namesObservedBy(identity).empty());
  EXPECT_EQ(ipc_->connectionCount(), 0);
}

// A warning handler holding the last reference tears the source down on the
// protection queue itself, where teardown must not wait for that queue.
TEST_F(ZKVRemotePreferencesSourceTest, TeardownInsideWarningHandler) {
  struct GateSink : velmora::LogSink {
    void write(const velmora::LogHandle&, LogLevel, std::string_view message) override {
      if (message == "Received memory warning for KVS" && !fired.exchange(true)) {
        entered.set_value();
        release.get_future().wait();
      }
    }
    std::atomic<bool> fired{false};
    std::promise<void> entered, release;
  };
  auto gate = std::make_shared<GateSink>();
  auto source = Source::create("A", false);
  std::weak_ptr<velmora::DispatchQueue> queue = source->protectionQueue();
  velmora::setLogSink(gate);
  velmora::raiseMemoryWarning();
  gate->entered.get_future().wait();
  source.reset();
  gate->release.set_value();
  for (int i = 0; i < 5000 && !queue.expired(); ++i) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  EXPECT_TRUE(queue.expired());
}

// ---------------------------------------------------------------------------
// Value access and validation.

TEST_F(ZKVRemotePreferencesSourceTest, IneffectiveWritesChangeNothing) {
  auto source = Source::create("A", false);
  source->setValueForKey(str("v"), "");
  EXPECT_TRUE(logged(LogLevel::Default, "NimbrelStore does not support empty keys"));
  source->setValueForKey(PropertyList(), "absent");
  EXPECT_TRUE(logged(LogLevel::Debug, "Bailing out for key in cache to absent"));
  EXPECT_EQ(source->generationCount(), 0);
  EXPECT_FALSE(dirtyKeys(*source));

  source->setValueForKey(str("v"), "k");
  source->setValueForKey(str("v"), "k");
  EXPECT_TRUE(logged(LogLevel::Debug, "New dirtyKeys {()}"));
  EXPECT_TRUE(logged(LogLevel::Debug, "Adding dirty key to k : {(\n    \"k\"\n)}"));
  EXPECT_EQ(source->generationCount(), 1);
  source->setValueForKey(PropertyList(), "k");
  EXPECT_EQ(source->generationCount(), 2);
  EXPECT_EQ(source->getValueForKey("k"), PropertyList());
  EXPECT_EQ(dirtyKeys(*source), Source::KeySet{"k"});
}

TEST_F(ZKVRemotePreferencesSourceTest, ValidationFailuresLeaveStateAsItWas) {
  writeStore(storeWith({{std::string(100, 'L'), record(str("old"))}}, 1));
  auto source = Source::create("A", false);
  source->setValueForKey(str("v"), std::string(64, 'a'));
  source->setValueForKey(str("new"), std::string(100, 'L'));  // keys in the cache are never measured
  try {
    source->setValueForKey(str("v"), std::string(65, 'b'));
    ADD_FAILURE() << "accepted";
  } catch (const ZKVAssertionFailure& failure) {
    EXPECT_EQ(std::string(failure.description()), "NimbrelStore: key '" + std::string(65, 'b') + "' is too long.");
    EXPECT_EQ(failure.file(), "framework/ZKVRemotePreferencesSource");
    EXPECT_EQ(failure.operation(), "ZKVRemotePreferencesSource::setValueForKey");
    EXPECT_EQ(failure.object(), source.get());
  }
  std::string euros;
  for (int i = 0; i < 22; ++i) euros += "\u20ac";  // 22 characters, 66 bytes
  EXPECT_THROW(source->setValueForKey(str("v"), euros), ZKVAssertionFailure);
  // The value is tested before the key.
  const PropertyList bad = makeArray({str("fine"), PropertyList()});
  try {
    source->setValueForKey(bad, euros);
    ADD_FAILURE() << "accepted";
  } catch (const ZKVAssertionFailure& failure) {
    EXPECT_EQ(std::string(failure.what()), "NimbrelStore: value is not property-list compatible: " + bad.description());
  }
  EXPECT_THROW(source->setValueForKey(str("bad \xff"), std::string(64, 'a')), ZKVAssertionFailure);

  EXPECT_EQ(source->generationCount(), 2);
  EXPECT_EQ(source->getValueForKey(std::string(64, 'a')), str("v"));
  EXPECT_EQ(source->copyKeyList().size(), 2u);
  EXPECT_EQ(dirtyKeys(*source)->size(), 2u);
}

TEST_F(ZKVRemotePreferencesSourceTest, WritesAreStampedInWholeSeconds) {
  auto source = Source::create("A", false);
  env_->now = 1000.9;
  source->setValueForKey(str("x"), "a");
  EXPECT_EQ(source->lastAccess(), 1000.9);
  source->protectionQueue()->sync([&] {
    std::int64_t timestamp = 0;
    ZKVGetPropertyListAndTimestampFromStorage(source->lockedLoadState().cache->at("a"), &timestamp);
    EXPECT_EQ(timestamp, 1000);
  });
  env_->now = 2000.5;
  EXPECT_EQ(source->getValueForKey("a"), str("x"));
  EXPECT_EQ(source->lastAccess(), 2000.5);
}

TEST_F(ZKVRemotePreferencesSourceTest, ListingsAreFreshCopiesOfDecodableRecords) {
  writeStore(storeWith({{"good", record(str("g"))}, {"broken", makeDictionary({{"value", str("unstamped")}})}}, 2));
  auto source = Source::create("A", false);
  std::vector<std::string> keys = source->copyKeyList();
  std::sort(keys.begin(), keys.end());
  EXPECT_EQ(keys, (std::vector<std::string>{"broken", "good"}));
  PlistDictionary copy = source->copyDictionary();
  EXPECT_EQ(copy, (PlistDictionary{{"good", str("g")}}));
  copy["good"] = str("changed");
  EXPECT_EQ(source->copyDictionary(), (PlistDictionary{{"good", str("g")}}));
  EXPECT_EQ(source->lastAccess(), 0.0);  // listing is not use
}

TEST_F(ZKVRemotePreferencesSourceTest, ReadsStoreFilesWrittenByPython) {
  fs::create_directories(storePath().parent_path());
  for (std::string format : {"FMT_XML", "FMT_BINARY"}) {
    std::ofstream(root_ / "w.py")
        << "import plistlib\n"
           "v = {'s': {'timestamp': 700000000, 'value': 'h\\u00e9'},\n"
           "     'd': {'timestamp': 700000001, 'value': {'b': b'\\x00\\x01', 'l': [1, 2.5, True]}}}\n"
           "with open('" << storePath().string() << "', 'wb') as f:\n"
           "    plistlib.dump({'values': v, 'changecount': 4, 'versionid': 'x'}, f, fmt=plistlib." << format << ")\n";
    const int status = std::system(("python3 " + (root_ / "w.py").string()).c_str());
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "python3 failed";
    auto source = Source::create("A", false);
    EXPECT_EQ(source->getValueForKey("s"), str("h\u00e9")) << format;
    EXPECT_EQ(source->getValueForKey("d"),
              makeDictionary({{"b", PropertyList::data(velmora::Bytes{0, 1})},
                              {"l", makeArray({integer(1), PropertyList::real(2.5), PropertyList::boolean(true)})}}));
    ZKVStoreLoadState state = loadState(*source);
    EXPECT_EQ(state.storageChangeCount, 4);
    EXPECT_EQ(state.initialSyncChangeCount, 4);
    EXPECT_FALSE(state.isInitialSync);  // never on a source's first load
  }
}

// ---------------------------------------------------------------------------
// Loading the store file.

TEST_F(ZKVRemotePreferencesSourceTest, UnusableStoreFilesGiveTheNoContentState) {
  std::optional<velmora::Bytes> good = velmora::encodeBinaryPlist(storeWith({{"a", record(str("x"))}}, 5));
  const std::string full(good->begin(), good->end());
  const std::optional<std::string> cases[] = {std::nullopt,  // no file at all
                                              full.substr(0, full.size() / 2), "not a plist",
                                              "<?xml version=\"1.0\"?><plist><dict><key>values</key>",
                                              std::string(50u << 20, '\xA5')};
  for (const std::optional<std::string>& bytes : cases) {
    if (bytes) writeBytes(*bytes);
    auto source = Source::create("A", false);
    EXPECT_TRUE(source->synchronizeForced(false));
    ZKVStoreLoadState state = loadState(*source);
    EXPECT_EQ(state.cache, PlistDictionary{}) << (bytes ? bytes->size() : 0);
    EXPECT_EQ(state.storageChangeCount, 0);
    EXPECT_EQ(state.initialSyncChangeCount, -1);
    EXPECT_TRUE(logged(LogLevel::Debug, "urlOnDisk:" + storePath().string() + ", hasDict:0"));
    EXPECT_TRUE(logged(LogLevel::Debug, "No content for " + storePath().string()));
    log_->clear();
  }
  fs::remove(storePath());
  fs::create_directories(storePath());  // a directory in the file's place
  EXPECT_EQ(Source::create("A", false)->getValueForKey("a"), PropertyList());
}

TEST(ZKVStoreFileLoad, EntriesOfTheWrongTypeCountAsAbsent) {
  ZKVStoreLoadState state;
  ZKVApplyStoreFileContents(state, makeArray({str("values")}), "f");
  EXPECT_EQ(state.initialSyncChangeCount, -1);
  ZKVApplyStoreFileContents(
      state,
      makeDictionary({{"values", str("no")}, {"changecount", str("7")}, {"initialsync", str("x")},
                      {"journal", makeDictionary({{"k", makeDictionary({{"count", integer(3)}})}})}}),
      "f");
  EXPECT_EQ(state.cache, PlistDictionary{});
  EXPECT_EQ(state.storageChangeCount, 0);
  EXPECT_EQ(state.initialSyncChangeCount, -1);
  EXPECT_FALSE(state.externalChanges);  // a journal entry without a change code says nothing

  // A decode the caller still holds is not changed by being loaded.
  const PropertyList held = storeWith({{"b", record(str("y"))}}, 6);
  const PropertyList before = held;
  ZKVApplyStoreFileContents(state, held, "f");
  EXPECT_EQ(held, before);
  EXPECT_EQ(state.cache->size(), 1u);
}

TEST(ZKVStoreFileLoad, InitialSyncIsReportedOnlyAfterALoadThatKnewNone) {
  ScopedServices services;
  auto sink = services.captureLog();
  ZKVStoreLoadState state;
  ZKVApplyStoreFileContents(state, storeWith({{"a", record(str("x"))}}, 5, {{"versionid", str("v")}}), "f");
  EXPECT_FALSE(state.isInitialSync);  // first load
  EXPECT_FALSE(state.externalChanges);

  state = ZKVStoreLoadState();
  ZKVApplyStoreFileContents(state, PropertyList(), "f");
  ZKVApplyStoreFileContents(state, storeWith({{"a", record(str("x"))}, {"b", record(str("y"))}}, 3,
                                             {{"versionid", str("v")}}),
                            "f");
  EXPECT_EQ(state.externalChanges, (PlistDictionary{{"a", integer(1)}, {"b", integer(1)}}));
  EXPECT_EQ(state.initialSyncChangeCount, 3);
  EXPECT_TRUE(state.isInitialSync);
  EXPECT_TRUE(sink->contains("Detecting initial sync from server"));
  ZKVApplyStoreFileContents(state, storeWith({}, 4, {{"initialsync", integer(3)}}), "f");
  EXPECT_FALSE(state.isInitialSync);
  ZKVApplyStoreFileContents(state, storeWith({}, 4, {{"initialsync", integer(-1)}}), "f");
  EXPECT_EQ(state.initialSyncChangeCount, -1);
}

TEST(ZKVStoreFileLoad, ComparisonFindsChangesWhenTheJournalIsSilent) {
  ZKVStoreLoadState state;
  ZKVApplyStoreFileContents(state, storeWith({{"a", record(str("x"))}, {"b", record(str("y"))}}, 5), "f");
  ZKVApplyStoreFileContents(state, storeWith({{"a", record(str("changed"))}}, 5), "f");
  EXPECT_FALSE(state.externalChanges);  // same count: nothing compared

  // A restamped record and a new key are changes; so is a vanished key.
  ZKVApplyStoreFileContents(state, storeWith({{"a", record(str("changed"), 9)}, {"c", record(str("z"))}}, 6), "f");
  EXPECT_EQ(state.externalChanges, (PlistDictionary{{"a", integer(1)}, {"c", integer(1)}}));
  state.externalChanges.reset();
  ZKVApplyStoreFileContents(state, storeWith({{"a", record(str("changed"), 9)}}, 7), "f");
  EXPECT_EQ(state.externalChanges, (PlistDictionary{{"c", integer(1)}}));
  EXPECT_FALSE(state.cache->contains("c"));
  // Pending changes stop the comparison.
  ZKVApplyStoreFileContents(state, storeWith({{"d", record(str("new"))}}, 8), "f");
  EXPECT_EQ(state.externalChanges, (PlistDictionary{{"c", integer(1)}}));
  // After an eviction every key of the file counts and vanished keys are unknown.
  state.externalChanges.reset();
  state.cache.reset();
  ZKVApplyStoreFileContents(state, storeWith({{"e", record(str("e"))}}, 9), "f");
  EXPECT_EQ(state.externalChanges, (PlistDictionary{{"e", integer(1)}}));
}

TEST(ZKVStoreFileLoad, JournalChangesMergeAndAreCheckedAgainstTheCount) {
  ScopedServices services;
  auto sink = services.captureLog();
  ZKVStoreLoadState state;
  ZKVApplyStoreFileContents(state, storeWith({{"a", record(str("x"))}}, 2), "f");
  state.externalChanges = PlistDictionary{{"old", integer(1)}, {"a", integer(1)}};
  ZKVApplyStoreFileContents(
      state,
      storeWith({{"a", record(str("x"))}}, 7,
                {{"journal", makeDictionary({{"a", journalEntry(3, 2)}, {"b", journalEntry(9, 3)},
                                             {"stale", journalEntry(2, 1)}})}}),
      "f");
  EXPECT_EQ(state.externalChanges, (PlistDictionary{{"old", integer(1)}, {"a", integer(2)}, {"b", integer(3)}}));
  EXPECT_EQ(state.storageChangeCount, 7);
  EXPECT_EQ(sink->lines().back(),
            (velmora::CapturedLogLine{"com.vantrel.velmora", "Default", LogLevel::Default,
                                      "Incorrect NimbrelStore journal change count: 7 - should be at least 9"}));
}

// ---------------------------------------------------------------------------
// Configuration.

TEST_F(ZKVRemotePreferencesSourceTest, LimitsFallBackToDefaults) {
  auto source = Source::create("A", false);
  auto limits = [&] {
    return std::vector<std::uint64_t>{source->maximumKeyCount(), source->maximumKeyLength(),
                                      source->maximumDataLengthPerKey(), source->maximumTotalDataLength()};
  };
  EXPECT_EQ(limits(), (std::vector<std::uint64_t>{1024, 64, 1048576, 1048576}));
  EXPECT_TRUE(source->copyConfigurationDictionary().isNone());
  const PropertyList configuration =
      makeDictionary({{"maxKeyNameLen", integer(10)}, {"maxKeyCount", integer(0)}, {"maxKeyDataSum", integer(-1)}});
  source->storeConfiguration(configuration);
  EXPECT_TRUE(source->copyConfigurationDictionary().isSameObject(configuration));
  EXPECT_EQ(limits(), (std::vector<std::uint64_t>{1024, 10, 1048576, UINT64_MAX}));
  EXPECT_EQ(source->configurationValueForKey("unknown"), 0u);
  // The key-length check compares signed, so a negative limit refuses every new key.
  source->storeConfiguration(makeDictionary({{"maxKeyNameLen", integer(-1)}}));
  EXPECT_THROW(source->setValueForKey(str("v"), "k"), ZKVAssertionFailure);
  source->storeConfiguration(PropertyList());
  EXPECT_EQ(limits(), (std::vector<std::uint64_t>{1024, 64, 1048576, 1048576}));
}

// ---------------------------------------------------------------------------
// Memory-pressure eviction.

TEST_F(ZKVRemotePreferencesSourceTest, IdleCleanCacheIsEvictedAndReloaded) {
  auto source = Source::create("A", false);
  warn(*source);
  EXPECT_TRUE(logged(LogLevel::Debug, "Received memory warning for KVS"));
  EXPECT_TRUE(logged(LogLevel::Debug, "Cache already empty"));

  writeStore(storeWith({{"a", record(str("from disk"))}}, 5));
  EXPECT_EQ(source->getValueForKey("a"), str("from disk"));
  env_->now = kNow + 299;
  warn(*source);
  EXPECT_TRUE(logged(LogLevel::Debug, "Recent KVS use, aborting 299.000000"));
  EXPECT_TRUE(loadState(*source).cache);
  env_->now = kNow + 300;
  warn(*source);
  EXPECT_TRUE(logged(LogLevel::Debug, "Clearing cache"));
  EXPECT_FALSE(loadState(*source).cache);
  EXPECT_EQ(loadState(*source).storageChangeCount, 5);

  writeStore(storeWith({{"a", record(str("rewritten"))}}, 6));
  EXPECT_EQ(source->getValueForKey("a"), str("rewritten"));
  EXPECT_EQ(loadState(*source).externalChanges, (PlistDictionary{{"a", integer(1)}}));
}

TEST_F(ZKVRemotePreferencesSourceTest, DirtyOrNeverReadCaches) {
  auto dirty = Source::create("A", false);
  dirty->setValueForKey(str("unsent"), "k");
  env_->now = kNow + 86'400;
  warn(*dirty);
  EXPECT_TRUE(logged(LogLevel::Debug, "Dirty keys {(\n    \"k\"\n)}"));
  EXPECT_EQ(dirty->getValueForKey("k"), str("unsent"));

  // Loaded only by listing and synchronising: never used, so evicted at once.
  auto listed = Source::create("B", false);
  (void)listed->copyDictionary();
  (void)listed->synchronizeForced(false);
  warn(*listed);
  EXPECT_FALSE(loadState(*listed).cache);
}

TEST_F(ZKVRemotePreferencesSourceTest, WarningsQueuedBeforeTeardownReachNobody) {
  auto source = Source::create("A", false);
  std::shared_ptr<velmora::DispatchQueue> queue = source->protectionQueue();
  std::promise<void> go;
  queue->async([future = go.get_future().share()] { future.wait(); });
  velmora::raiseMemoryWarning();  // queued behind the blocker
  const void* identity = source.get();
  std::thread destroyer([&] { source.reset(); });
  while (!center_->namesObservedBy(identity).empty()) std::this_thread::yield();  // teardown has begun
  go.set_value();
  destroyer.join();
  queue->sync([] {});
  EXPECT_FALSE(log_->contains("Received memory warning for KVS"));
}

}  // namespace
