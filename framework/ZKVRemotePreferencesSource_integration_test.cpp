// ZKVRemotePreferencesSource in conversation with its daemon: a private bus,
// the scripted responder standing in for the daemon (answers scripted per
// test, arrivals recorded with their time), and real store files in a
// scratch home directory.
#include "zkv/ZKVRemotePreferencesSource.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <algorithm>
#include <condition_variable>
#include <filesystem>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "PrivateBus.h"
#include "RedirectingIpc.h"
#include "ScratchEnvironment.h"
#include "StoreFixtures.h"
#include "velmora/platform/Dispatch.h"
#include "velmora/platform/Environment.h"
#include "velmora/platform/Ipc.h"
#include "velmora/platform/Log.h"
#include "velmora/platform/MemoryPressure.h"
#include "velmora/platform/NotificationCenter.h"
#include "velmora/platform/SystemNotifications.h"
#include "zkv/ZKVClient.h"
#include "zkv/ZKVEncoding.h"

namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using velmora::DispatchQueue;
using velmora::LogLevel;
using velmora::makeArray;
using velmora::makeDictionary;
using velmora::PlistDictionary;
using velmora::PropertyList;
using namespace velmora::testing;  // the shared fixtures of tests/support
using Source = ZKVRemotePreferencesSource;
using Groups = std::map<std::int64_t, std::vector<std::string>>;

constexpr auto kPatience = 10s;  // how long to wait for other processes

PropertyList str(std::string text) { return PropertyList::string(std::move(text)); }
PropertyList integer(std::int64_t value) { return PropertyList::integer(value); }
PropertyList dict(PlistDictionary entries = {}) { return PropertyList::dictionary(std::move(entries)); }
// Collects what reply handlers are given, in order.
class ReplyProbe {
 public:
  ZKVReplyHandler handler() {
    return [this](const ZKVReply& reply) {
      std::lock_guard lock(mutex_);
      onMain_ = onMain_ && DispatchQueue::main().isCurrent();
      replies_.push_back(reply);
      arrived_.notify_all();
    };
  }
  // The next reply not taken yet (waits for it).
  ZKVReply next() {
    std::unique_lock lock(mutex_);
    EXPECT_TRUE(arrived_.wait_for(lock, kPatience, [&] { return replies_.size() > taken_; }))
        << "the reply handler never ran";
    EXPECT_TRUE(onMain_) << "a reply handler ran off the main queue";
    return replies_.size() > taken_ ? replies_[taken_++] : ZKVReply(PropertyList(str("<no reply>")));
  }

 private:
  std::mutex mutex_;
  std::condition_variable arrived_;
  std::vector<ZKVReply> replies_;  // guarded by mutex_
  std::size_t taken_ = 0;          // guarded by mutex_
  bool onMain_ = true;             // guarded by mutex_
};

// Counts one in-process notification posted with one object.
class NotificationProbe {
 public:
  NotificationProbe(const char* name, const void* object) {
    token_ =
        velmora::NotificationCenter::defaultCenter().addObserver(name, object, [this](const velmora::Notification&) {
          std::lock_guard lock(mutex_);
          ++count_;
        });
  }
  ~NotificationProbe() { velmora::NotificationCenter::defaultCenter().removeObserver(token_); }
  int count() {
    std::lock_guard lock(mutex_);
    return count_;
  }
  bool waitForOne() { return waitUntil([&] { return count() >= 1; }, kPatience); }

 private:
  std::mutex mutex_;
  int count_ = 0;  // guarded by mutex_
  velmora::ObserverToken token_ = velmora::kNoObserverToken;
};

class SourceConversationTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { PrivateBus::instance(); }

  void SetUp() override {
    fs::create_directories(storeDirectory(home_));
    services_.install(velmora::setEnvironment, env_);
    services_.install(velmora::setLogSink, log_);
    services_.install(velmora::setIpcService, std::make_shared<RedirectingIpcService>(busName_));
    services_.quietMemoryPressure();
  }

  void TearDown() override {
    // Deferred work keeps a source alive for up to two seconds after the
    // call; waiting for it keeps its sends out of later tests.
    for (const std::weak_ptr<Source>& weak : sources_) {
      EXPECT_TRUE(waitUntil([&] { return weak.expired(); }, kPatience)) << "a source outlived its test";
    }
    daemon_.reset();
  }

  // A shared store, so that its requests carry the identifier as
  // "bundleIdentifier" and the timeline tells the sources apart.
  std::shared_ptr<Source> makeSource(const std::string& application) {
    auto source = Source::create(application, std::nullopt, true);
    sources_.push_back(source);
    return source;
  }
  std::string storePath(const std::string& application) const {
    return storeFilePath(home_, application).string();
  }
  void writeStore(const std::string& application, const PropertyList& store) {
    ASSERT_TRUE(writePlistFile(storePath(application), store));
  }

  // What the daemon does, by message name (see the responder's --script).
  void script(PlistDictionary steps) {
    ASSERT_TRUE(writePlistFile((root_ / "script.plist").string(), dict(std::move(steps))));
  }
  // A responder that answers unscripted messages with {"userinfo": the
  // request's "userinfo"}; its requests go to a fresh record directory.
  void startDaemon() {
    recordDirectory_ = (root_ / ("requests-" + std::to_string(++daemons_))).string();
    fs::create_directories(recordDirectory_);
    daemon_ = startResponder(busName_, {"--default", "userinfo", "--script", (root_ / "script.plist").string(),
                                        "--timeline", (root_ / "timeline").string(), "--record-plists",
                                        recordDirectory_});
    ASSERT_NE(daemon_, nullptr);
  }

  std::vector<ResponderArrival> arrivals() const {
    return readTimeline((root_ / "timeline").string());
  }
  std::vector<std::string> messagesFrom(const std::string& application) const {
    std::vector<std::string> messages;
    for (const ResponderArrival& arrival : arrivals()) {
      if (arrival.bundleIdentifier == application) messages.push_back(arrival.message);
    }
    return messages;
  }
  // The "userinfo" of every request the current responder received with
  // this message name, in order.
  std::vector<PropertyList> payloadsOf(const std::string& message) const {
    std::vector<PropertyList> payloads;
    for (const PropertyList& request : readRecordedRequests(recordDirectory_)) {
      const PropertyList* name = request.find("message");
      const PropertyList* userInfo = request.find("userinfo");
      if (name != nullptr && *name == str(message) && userInfo != nullptr) payloads.push_back(*userInfo);
    }
    return payloads;
  }
  // Waits for every source made so far to be released (their deferred
  // tasks have run), then for a request of a fresh store to be answered:
  // everything those tasks sent has reached the responder by then, since
  // all connections of the process share one bus connection.
  void settle() {
    for (const std::weak_ptr<Source>& weak : sources_) {
      ASSERT_TRUE(waitUntil([&] { return weak.expired(); }, kPatience)) << "a source is still held";
    }
    (void)makeSource("fence")->serverSideDebugDescription();
  }
  // Returns once every reply handler queued on the main queue before it for
  // this source's connection has run.
  static void fence(Source& source) {
    ReplyProbe probe;
    source.synchronizationWithCompletionHandler(probe.handler());
    (void)probe.next();
  }

  bool logged(LogLevel level, const std::string& message) const {
    return loggedOnDefaultChannel(*log_, level, message);
  }
  // Whether the last hand-over took every write so far.
  static bool handedEverythingOver(Source& source) {
    std::int64_t handedOver = -1;
    source.protectionQueue()->sync([&] { handedOver = source.lockedLastGenerationFromDisk(); });
    return handedOver == source.generationCount();
  }

  const ScratchDirectory scratch_{"zkv-conversation"};
  const fs::path root_ = scratch_.path();
  const fs::path home_ = root_ / "home";
  const std::string busName_ = uniqueBusName("com.vantrel.test.conversation");
  std::string recordDirectory_;
  int daemons_ = 0;
  std::unique_ptr<ChildProcess> daemon_;
  std::vector<std::weak_ptr<Source>> sources_;
  std::shared_ptr<ScratchHomeEnvironment> env_ = std::make_shared<ScratchHomeEnvironment>(home_.string());
  std::shared_ptr<velmora::CapturingLogSink> log_ = std::make_shared<velmora::CapturingLogSink>();
  ScopedServices services_;  // put back before the scratch directory goes
};

// ---------------------------------------------------------------------------
// Registration and the order of requests.

TEST_F(SourceConversationTest, RequestsThatNeedTheStoreSendItsRegistrationFirst) {
  startDaemon();
  ReplyProbe tracked;
  {
    auto configuration = makeSource("reg.configuration");
    configuration->registerForCorvane();
    configuration->updateConfiguration();
    configuration->registerForCorvane();  // a new registration: sent by its own deferred task

    auto unregistering = makeSource("reg.unregister");
    unregistering->registerForCorvane();
    unregistering->unregisterForCorvane();

    auto tracking = makeSource("reg.track");
    tracking->registerForCorvane();
    tracking->synchronizationWithCompletionHandler(tracked.handler());

    auto synchronizing = makeSource("reg.synchronize");
    synchronizing->registerForCorvane();
    synchronizing->setValueForKey(str("v"), "k");
    EXPECT_TRUE(synchronizing->synchronize());

    auto discarding = makeSource("reg.discard");
    discarding->registerForCorvane();
    discarding->discardExternalChangesForChangeCount(3);

    makeSource("reg.never")->unregisterForCorvane();

    // Neither "ping" nor "printDebugDescription" needs the store known.
    auto plain = makeSource("reg.plain");
    plain->registerForCorvane();
    plain->ping();
    EXPECT_TRUE(plain->serverSideDebugDescription());
  }
  EXPECT_TRUE(std::holds_alternative<std::monostate>(tracked.next()));
  settle();

  EXPECT_EQ(messagesFrom("reg.configuration"),
            (std::vector<std::string>{"register", "getConfiguration", "register"}));
  EXPECT_EQ(messagesFrom("reg.unregister"), (std::vector<std::string>{"register", "unregister"}));
  EXPECT_EQ(messagesFrom("reg.track"), (std::vector<std::string>{"register", "trackSynchronizeRemote"}));
  EXPECT_EQ(messagesFrom("reg.synchronize"), (std::vector<std::string>{"register", "synchronize"}));
  EXPECT_EQ(messagesFrom("reg.discard"), (std::vector<std::string>{"register", "discardJournalEntries"}));
  EXPECT_EQ(messagesFrom("reg.never"), (std::vector<std::string>{"unregister"}));
  EXPECT_EQ(messagesFrom("reg.plain"), (std::vector<std::string>{"ping", "printDebugDescription", "register"}));
  // The journal request's payload is the bare number.
  EXPECT_EQ(payloadsOf("discardJournalEntries"), (std::vector<PropertyList>{integer(3)}));
}

TEST_F(SourceConversationTest, DeferredRequestsLeaveTwoSecondsAfterTheCall) {
  startDaemon();
  const PropertyList defaults = makeDictionary({{"maxKeyNameLen", integer(5)}, {"note", str("as given")}});
  const auto start = std::chrono::steady_clock::now();
  {
    auto registering = makeSource("deferred.register");
    registering->registerForCorvane();
    registering->registerForCorvane();  // still one registration pending

    auto remote = makeSource("deferred.remote");
    remote->scheduleRemoteSynchronization();
    remote->scheduleRemoteSynchronization();  // each call sends its own

    auto configuring = makeSource("deferred.defaults");
    configuring->setDefaultsConfiguration(defaults);
    EXPECT_EQ(configuring->maximumKeyLength(), 64u);
    ASSERT_TRUE(waitUntil([&] { return !messagesFrom("deferred.defaults").empty(); }, kPatience));
    // The daemon has it now; locally nothing changed.
    EXPECT_EQ(configuring->maximumKeyLength(), 64u);
  }
  settle();

  EXPECT_EQ(messagesFrom("deferred.register"), std::vector<std::string>{"register"});
  EXPECT_EQ(messagesFrom("deferred.remote"), (std::vector<std::string>{"synchronizeRemote", "synchronizeRemote"}));
  EXPECT_EQ(messagesFrom("deferred.defaults"), std::vector<std::string>{"setDefaultsConfig"});
  EXPECT_EQ(payloadsOf("setDefaultsConfig"), std::vector<PropertyList>{defaults});
  // Two seconds, not merely the code's own constant: every call above is made
  // within milliseconds of start, and each request arrives 2.0 to 3.0 s later.
  for (const ResponderArrival& arrival : arrivals()) {
    if (arrival.bundleIdentifier.rfind("deferred.", 0) != 0) continue;
    EXPECT_GE(arrival.at - start, 2000ms) << arrival.message << " from " << arrival.bundleIdentifier;
    EXPECT_LE(arrival.at - start, 3000ms) << arrival.message << " from " << arrival.bundleIdentifier;
  }
}

// ---------------------------------------------------------------------------
// Handing dirty keys over.

TEST_F(SourceConversationTest, HandOverSendsEachDirtyKeyOnceWithItsLatestRecord) {
  writeStore("handover", storeWith({{"old", record("o")}, {"kept", record("k")}}, 5));
  script({{"synchronize", makeArray({makeDictionary({{"userinfo", makeDictionary({{"changecount", integer(9)}})}}),
                                     makeDictionary({{"userinfo", dict()}})})}});
  startDaemon();
  auto source = makeSource("handover");

  EXPECT_TRUE(source->synchronize());  // only loads the file
  source->setValueForKey(str("first"), "a");
  source->setValueForKey(str("latest"), "a");
  source->setValueForKey(str("short-lived"), "b");
  source->setValueForKey(PropertyList(), "b");
  source->setValueForKey(PropertyList(), "old");
  const PlistDictionary cache = *loadState(*source).cache;

  EXPECT_TRUE(source->synchronize());
  EXPECT_EQ(payloadsOf("synchronize"),
            std::vector<PropertyList>{makeDictionary(
                {{"changes", makeDictionary({{"a", cache.at("a")}, {"b", dict()}, {"old", dict()}})},
                 {"changecount", integer(5)}})});
  EXPECT_EQ(loadState(*source).storageChangeCount, 9);
  EXPECT_EQ(dirtyKeys(*source), Source::KeySet{});
  EXPECT_TRUE(handedEverythingOver(*source));
  EXPECT_TRUE(logged(LogLevel::Debug, "Trash dirty keys {(\n    \"a\",\n    \"b\",\n    \"old\"\n)}"));
  EXPECT_TRUE(logged(LogLevel::Debug, "forced:NO, changeCount:9, result:YES"));

  // Nothing written since: nothing sent.
  EXPECT_TRUE(source->synchronize());
  EXPECT_EQ(payloadsOf("synchronize").size(), 1u);

  // A reply without a change count resets it to 0.
  source->setValueForKey(str("c"), "c");
  EXPECT_TRUE(source->synchronize());
  const std::vector<PropertyList> sent = payloadsOf("synchronize");
  ASSERT_EQ(sent.size(), 2u);
  EXPECT_EQ(*sent[1].find("changecount"), integer(9));
  EXPECT_EQ(sent[1].find("changes")->count(), 1u);
  EXPECT_EQ(loadState(*source).storageChangeCount, 0);
  EXPECT_EQ(messagesFrom("handover"), (std::vector<std::string>{"synchronize", "synchronize"}));
}

TEST_F(SourceConversationTest, ForcedHandOverReadsTheStoreFileBack) {
  writeStore("forced", storeWith({{"a", record("a0")}}, 5));
  const PropertyList merged = storeWith(
      {{"a", record("a0")}, {"b", record("merged by the daemon")}, {"elsewhere", record("theirs")}}, 42);
  script({{"synchronize", makeDictionary({{"writeFile", str(storePath("forced"))},
                                          {"fileContents", merged},
                                          {"userinfo", makeDictionary({{"changecount", integer(7)}})}})}});
  startDaemon();
  auto source = makeSource("forced");
  source->setValueForKey(str("mine"), "b");

  EXPECT_TRUE(source->synchronizeForced(true));
  // The file's change count, not the reply's; the file's values.
  EXPECT_EQ(loadState(*source).storageChangeCount, 42);
  EXPECT_EQ(source->getValueForKey("b"), str("merged by the daemon"));
  EXPECT_EQ(source->getValueForKey("elsewhere"), str("theirs"));
  EXPECT_EQ(dirtyKeys(*source), Source::KeySet{});
  EXPECT_TRUE(logged(LogLevel::Debug, "forced:YES, changeCount:42, result:YES"));
}

TEST_F(SourceConversationTest, OneApplicationKeepsItsOwnChangeCount) {
  writeStore("keeper", storeWith({}, 5));
  writeStore("taker", storeWith({}, 5));
  script({{"synchronize", makeDictionary({{"userinfo", makeDictionary({{"changecount", integer(9)}})}})}});
  startDaemon();

  env_->setHostApplicationIdentifier("com.vantrel.security.quarnproxy3");
  auto keeper = makeSource("keeper");
  keeper->setValueForKey(str("v"), "k");
  EXPECT_TRUE(keeper->synchronize());
  EXPECT_EQ(loadState(*keeper).storageChangeCount, 5);
  EXPECT_EQ(dirtyKeys(*keeper), Source::KeySet{});

  // Only that exact identifier.
  env_->setHostApplicationIdentifier("com.vantrel.security.quarnproxy3.helper");
  auto taker = makeSource("taker");
  taker->setValueForKey(str("v"), "k");
  EXPECT_TRUE(taker->synchronize());
  EXPECT_EQ(loadState(*taker).storageChangeCount, 9);
}

TEST_F(SourceConversationTest, FailedHandOverLosesNothingAndIsRepeated) {
  // No daemon at all.
  auto source = makeSource("failure");
  source->setValueForKey(str("v"), "a");
  EXPECT_FALSE(source->synchronize());
  EXPECT_TRUE(logged(LogLevel::Debug, "Write failure for " + storePath("failure")));
  EXPECT_TRUE(logged(LogLevel::Debug, "forced:NO, changeCount:0, result:NO"));
  EXPECT_EQ(dirtyKeys(*source), Source::KeySet{"a"});
  EXPECT_FALSE(handedEverythingOver(*source));

  // A daemon that dies while handling it.
  script({{"synchronize", makeDictionary({{"exit", PropertyList::boolean(true)}})}});
  startDaemon();
  source->setValueForKey(str("w"), "b");
  EXPECT_FALSE(source->synchronize());
  ASSERT_TRUE(daemon_->waitForExit(kPatience));
  const std::vector<PropertyList> lost = payloadsOf("synchronize");
  ASSERT_EQ(lost.size(), 1u);
  EXPECT_EQ(dirtyKeys(*source), (Source::KeySet{"a", "b"}));

  // Once a daemon answers, the same keys go again, with the same records.
  script({{"synchronize", makeDictionary({{"userinfo", makeDictionary({{"changecount", integer(3)}})}})}});
  startDaemon();
  EXPECT_TRUE(source->synchronize());
  EXPECT_EQ(payloadsOf("synchronize"), lost);
  EXPECT_EQ(lost[0].find("changes")->count(), 2u);
  EXPECT_EQ(dirtyKeys(*source), Source::KeySet{});
  EXPECT_EQ(loadState(*source).storageChangeCount, 3);
  EXPECT_TRUE(handedEverythingOver(*source));
}

TEST_F(SourceConversationTest, TrackingRepliesReachTheHandlerAndEmptyOnesForceARead) {
  const PropertyList daemonError = makeDictionary({{"domain", str("daemon")}, {"code", integer(4)}});
  const PropertyList errorEntry = makeDictionary({{"domain", str("remote")}, {"code", integer(3)}});
  const PropertyList empty = makeDictionary({{"reply", dict()}});
  const PropertyList success = makeDictionary({{"userinfo", dict()}});
  script({{"trackSynchronizeRemote",
           makeArray({makeDictionary({{"userinfo", makeDictionary({{"error", errorEntry}})}}), success,
                      makeDictionary({{"error", daemonError}}), empty, success, empty})}});
  writeStore("track", storeWith({{"a", record("before")}}, 5));
  startDaemon();
  auto source = makeSource("track");
  EXPECT_EQ(source->getValueForKey("a"), str("before"));
  ReplyProbe probe;

  source->synchronizationWithCompletionHandler(probe.handler());
  EXPECT_EQ(std::get<PropertyList>(probe.next()), errorEntry);  // the entry as it stands
  source->synchronizationWithCompletionHandler(probe.handler());
  EXPECT_TRUE(std::holds_alternative<std::monostate>(probe.next()));
  source->synchronizationWithCompletionHandler(probe.handler());
  EXPECT_EQ(std::get<ZKVError>(probe.next()), (ZKVError{"daemon", 4, {}}));
  // Without a handler an empty reply is dropped and marks nothing; the next
  // reply's handler runs after it.
  source->synchronizationWithCompletionHandler(nullptr);
  source->synchronizationWithCompletionHandler(probe.handler());
  EXPECT_TRUE(std::holds_alternative<std::monostate>(probe.next()));

  writeStore("track", storeWith({{"a", record("after")}}, 6));
  EXPECT_TRUE(source->synchronize());
  EXPECT_EQ(source->getValueForKey("a"), str("before"));  // successes force nothing

  // An empty reply is reported as success and makes the next synchronisation
  // re-read the file, once, without sending anything.
  source->synchronizationWithCompletionHandler(probe.handler());
  EXPECT_TRUE(std::holds_alternative<std::monostate>(probe.next()));
  EXPECT_TRUE(source->synchronize());
  EXPECT_EQ(source->getValueForKey("a"), str("after"));
  writeStore("track", storeWith({{"a", record("later")}}, 7));
  EXPECT_TRUE(source->synchronize());
  EXPECT_EQ(source->getValueForKey("a"), str("after"));
  EXPECT_TRUE(payloadsOf("synchronize").empty());
}

// ---------------------------------------------------------------------------
// Changes made elsewhere.

TEST_F(SourceConversationTest, JournalChangesAreRelayedLoadedAndHandedOutOnce) {
  startDaemon();
  writeStore("journal", storeWith({{"a", record("a0")}, {"b", record("b0")}}, 5));
  auto source = makeSource("journal");
  auto other = makeSource("journal.other");
  EXPECT_EQ(source->getValueForKey("a"), str("a0"));
  EXPECT_FALSE(source->hasExternalChanges());
  std::int64_t changeCount = -7;
  EXPECT_EQ(source->copyExternalChangesWithChangeCount(&changeCount), std::nullopt);
  EXPECT_EQ(changeCount, 5);

  NotificationProbe relayed(Source::ZKVRemotePreferencesSourceDidChangeNotification(), source.get());
  NotificationProbe relayedByOther(Source::ZKVRemotePreferencesSourceDidChangeNotification(), other.get());
  NotificationProbe configurationRelayed(Source::ZKVRemotePreferencesSourceConfigurationDidChangeNotification(),
                                         source.get());
  // The daemon merged changes from elsewhere: a journal newer than 5 (b's
  // entry is older and not news), and says so system-wide. e's and f's
  // reasons have no integer value: skipped, never folded into 0 or 2.
  auto odd = [](PropertyList change) { return makeDictionary({{"count", integer(8)}, {"change", change}}); };
  writeStore("journal", storeWith({{"a", record("a1")}, {"b", record("b0")}, {"c", record("c1")}}, 8,
                                  {{"journal", makeDictionary({{"a", journalEntry(6, 1)},
                                                               {"b", journalEntry(4, 1)},
                                                               {"c", journalEntry(7, 2)},
                                                               {"d", journalEntry(8, 5)},
                                                               {"e", odd(str("x"))},
                                                               {"f", odd(PropertyList::real(2.5))}})}}));
  ASSERT_TRUE(velmora::postSystemNotification(Source::kSourceDidChangeExternallySystemNotification));
  ASSERT_TRUE(relayed.waitForOne());
  ASSERT_TRUE(relayedByOther.waitForOne());
  EXPECT_EQ(relayed.count(), 1);
  EXPECT_EQ(relayedByOther.count(), 1);
  EXPECT_EQ(configurationRelayed.count(), 0);

  // The relay only tells; the application's forced synchronisation loads.
  EXPECT_FALSE(source->hasExternalChanges());
  EXPECT_TRUE(source->synchronizeForced(true));
  EXPECT_EQ(source->getValueForKey("c"), str("c1"));
  EXPECT_TRUE(source->hasExternalChanges());

  // Discarding is the daemon's business: nothing pending changes here.
  source->discardExternalChangesForChangeCount(8);
  EXPECT_EQ(payloadsOf("discardJournalEntries"), std::vector<PropertyList>{integer(8)});
  EXPECT_TRUE(source->hasExternalChanges());

  const Groups expected = velmora::linkedOnOrAfterRelease8()
                              ? Groups{{1, {"a"}}, {2, {"c"}}, {5, {"d"}}}
                              : Groups{{1, {"a", "d"}}, {2, {"c"}}};
  changeCount = -7;
  EXPECT_EQ(source->copyExternalChangesWithChangeCount(&changeCount), expected);
  EXPECT_EQ(changeCount, 8);
  EXPECT_EQ(source->copyExternalChangesWithChangeCount(&changeCount), std::nullopt);
  EXPECT_FALSE(source->hasExternalChanges());
  // Forced with nothing written: a read, never a hand-over.
  EXPECT_TRUE(payloadsOf("synchronize").empty());
}

// ---------------------------------------------------------------------------
// Configuration and the other requests.

TEST_F(SourceConversationTest, ConfigurationComesFromRegistrationAndRequests) {
  const PropertyList registered = makeDictionary({{"maxKeyNameLen", integer(20)}});
  script({{"register", makeArray({makeDictionary({{"userinfo", registered}}),
                                  makeDictionary({{"error", makeDictionary({{"domain", str("daemon")},
                                                                            {"code", integer(5)}})}}),
                                  makeDictionary({{"userinfo", str("not a dictionary")}})})},
          {"getConfiguration", makeArray({makeDictionary({{"userinfo", makeDictionary({{"maxKeyCount", integer(7)}})}}),
                                          makeDictionary({{"error", makeDictionary({{"domain", str("daemon")}})}})})}});
  startDaemon();
  auto source = makeSource("configuration");
  EXPECT_EQ(source->maximumKeyLength(), 64u);

  // The registration's reply is the configuration, and the limits follow it.
  source->registerForCorvane();
  source->unregisterForCorvane();
  ASSERT_TRUE(waitUntil([&] { return source->maximumKeyLength() == 20; }, kPatience));
  EXPECT_TRUE(logged(LogLevel::Debug, "Storing configuration: " + registered.description()));
  EXPECT_THROW(source->setValueForKey(str("v"), std::string(21, 'k')), ZKVAssertionFailure);
  source->setValueForKey(str("v"), std::string(20, 'k'));

  // A fetched configuration replaces the whole dictionary.
  source->updateConfiguration();
  ASSERT_TRUE(waitUntil([&] { return source->maximumKeyCount() == 7; }, kPatience));
  EXPECT_EQ(source->maximumKeyLength(), 64u);

  // Other replies leave it: silently for a fetch, logged for a registration.
  source->updateConfiguration();
  fence(*source);
  EXPECT_FALSE(log_->contains("NimbrelStore error"));
  source->registerForCorvane();
  source->unregisterForCorvane();
  fence(*source);
  EXPECT_TRUE(logged(LogLevel::Default, "NimbrelStore error: " + ZKVError{"daemon", 5, {}}.description()));
  source->registerForCorvane();
  source->unregisterForCorvane();
  fence(*source);
  EXPECT_TRUE(logged(LogLevel::Default, "NimbrelStore error: " + str("not a dictionary").description()));
  EXPECT_EQ(source->maximumKeyCount(), 7u);

  // A system-wide configuration change is relayed, not fetched.
  NotificationProbe relayed(Source::ZKVRemotePreferencesSourceConfigurationDidChangeNotification(), source.get());
  NotificationProbe changed(Source::ZKVRemotePreferencesSourceDidChangeNotification(), source.get());
  ASSERT_TRUE(velmora::postSystemNotification(Source::kConfigurationDidChangeSystemNotification));
  ASSERT_TRUE(relayed.waitForOne());
  fence(*source);
  EXPECT_EQ(relayed.count(), 1);
  EXPECT_EQ(changed.count(), 0);
  const std::vector<std::string> sent = messagesFrom("configuration");
  EXPECT_EQ(std::count(sent.begin(), sent.end(), "getConfiguration"), 2);
  EXPECT_EQ(source->maximumKeyCount(), 7u);
}

TEST_F(SourceConversationTest, DebugDescriptionIsTheDaemonsTextOrNothing) {
  const PropertyList state = makeDictionary({{"state", str("ok")}});
  script({{"printDebugDescription", makeArray({makeDictionary({{"userinfo", state}}),
                                               makeDictionary({{"userinfo", str("plain text")}}),
                                               makeDictionary({{"reply", dict()}})})}});
  startDaemon();
  auto source = makeSource("debug");
  EXPECT_EQ(source->serverSideDebugDescription(), state.description());
  EXPECT_EQ(source->serverSideDebugDescription(), "plain text");
  EXPECT_EQ(source->serverSideDebugDescription(), std::nullopt);
}

// ---------------------------------------------------------------------------
// Applications linked before release 8. The flag is fixed once per process
// when the class is first used, so this runs in a fresh child process.

// In a process linked against release 7: reads a journal with an account
// switch and reports whether it came out as a plain change.
bool oldApplicationSeesAccountSwitchAsChange() {
  velmora::setLinkedRelease(7);
  const ScratchDirectory home("zkv-release7");
  velmora::setEnvironment(std::make_shared<ScratchHomeEnvironment>(home.path().string()));
  velmora::setSystemNotificationCenter(std::make_shared<SilentSystemNotificationCenter>());
  const PlistDictionary journal{{"a", journalEntry(1, 5)}, {"b", journalEntry(2, 1)}, {"c", journalEntry(3, 2)}};
  const bool written = writePlistFile(storeFilePath(home.path(), "old").string(),
                                      storeWith({}, 3, {{"journal", PropertyList::dictionary(journal)}}));
  auto source = Source::create("old", false);
  (void)source->synchronize();
  std::int64_t changeCount = 0;
  const auto groups = source->copyExternalChangesWithChangeCount(&changeCount);
  return written && groups == Groups{{1, {"a", "b"}}, {2, {"c"}}};
}

TEST(SourceLinkedReleaseTest, ApplicationsBeforeRelease8AreToldAccountSwitchesAsChanges) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(std::exit(oldApplicationSeesAccountSwitchAsChange() ? 0 : 1), ::testing::ExitedWithCode(0), "");
}

}  // namespace
