// libzkv end to end on private buses, with store files in scratch homes and
// a clock of the test's own. SourceTest talks to the scripted responder,
// which answers as each test tells it and records what it received, and
// when: it gives what the real daemon cannot show on demand (the exact
// requests with their order and timing, refusals, dropped or missing
// replies, replies of odd shapes, a daemon that dies mid-call, journals
// another implementation might write). NimbrelStoreTest talks to the real
// velmorad, on a device of its own, where another client's writes come from
// the device's own bus connection.
#include "zkv/NimbrelStore.h"

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <filesystem>
#include <fstream>
#include <future>
#include <map>
#include <mutex>
#include <thread>

#include "PrivateBus.h"
#include "RedirectingIpc.h"
#include "ScratchEnvironment.h"
#include "StoreFixtures.h"
#include "SyncDevices.h"
#include "velmora/platform/Dispatch.h"
#include "velmora/platform/Environment.h"
#include "velmora/platform/Log.h"
#include "velmora/platform/MemoryPressure.h"
#include "velmora/platform/NotificationCenter.h"
#include "velmora/platform/PlistCodec.h"
#include "velmora/platform/SystemNotifications.h"
#include "zkv/ZKVClient.h"
#include "zkv/ZKVEncoding.h"
#include "zkv/ZKVRemotePreferencesSource.h"

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
using Messages = std::vector<std::string>;

constexpr auto kPatience = 10s;  // how long to wait for other processes
constexpr double kNow = 800'000'000.25;

PropertyList str(std::string text) { return PropertyList::string(std::move(text)); }
PropertyList integer(std::int64_t value) { return PropertyList::integer(value); }
PropertyList dict(PlistDictionary entries = {}) { return PropertyList::dictionary(std::move(entries)); }
PropertyList daemonError(const char* domain, std::int64_t code) {
  return makeDictionary({{"domain", str(domain)}, {"code", integer(code)}});
}

// A home directory, QXFIXED_USER_HOME, a host application and a clock of the test's choosing.
struct TestEnvironment final : velmora::Environment {
  std::optional<std::string> getVariable(std::string_view name) const override {
    return name == "QXFIXED_USER_HOME" ? contained : std::nullopt;
  }
  std::optional<std::string> homeDirectory() const override { return home; }
  double absoluteTime() const override { return now.load(); }
  std::optional<std::string> hostApplicationIdentifier() const override { return host; }
  bool isSandboxed() const override { return false; }
  std::optional<std::string> home, contained, host;  // set on the test's thread before the code under test reads them
  std::atomic<double> now{kNow};
};

// Sends through send and waits for the reply handler, which must run once, on the main queue.
ZKVReply awaitReply(const std::function<void(ZKVReplyHandler)>& send) {
  auto promise = std::make_shared<std::promise<ZKVReply>>();
  std::future<ZKVReply> future = promise->get_future();
  send([promise](const ZKVReply& reply) {
    EXPECT_TRUE(DispatchQueue::main().isCurrent());
    promise->set_value(reply);  // a second call throws
  });
  if (future.wait_for(kPatience) == std::future_status::ready) return future.get();
  ADD_FAILURE() << "the reply handler never ran";
  return str("<no reply>");
}

void drainMainQueue() {
  std::promise<void> done;
  DispatchQueue::main().async([&] { done.set_value(); });
  ASSERT_EQ(done.get_future().wait_for(kPatience), std::future_status::ready);
}

class SourceTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { PrivateBus::instance(); }
  void SetUp() override {
    env_->home = home_.string();
    fs::create_directories(storeDirectory(home_));
    services_.install(velmora::setEnvironment, env_);
    services_.install(velmora::setLogSink, log_);
    services_.quietMemoryPressure();  // warnings come from raiseMemoryWarning() only
    useCallTimeout(kPatience);
  }
  void TearDown() override {
    // Deferred work keeps a source alive for up to two seconds; a client
    // holds itself until its connection is gone.
    for (const auto& weak : sources_) EXPECT_TRUE(waitUntil([&] { return weak.expired(); }, kPatience));
    for (const auto& weak : clients_) {
      if (auto client = weak.lock()) client->shutdown();
    }
    for (const auto& weak : clients_) EXPECT_TRUE(waitUntil([&] { return weak.expired(); }, kPatience)) << "a client leaked";
  }

  // The real transport with the daemon's name swapped for the test's own;
  // until a responder owns it, requests fail at once. A fresh one counts its
  // connections from 0.
  void useCallTimeout(std::chrono::milliseconds timeout) {
    ipc_ = std::make_shared<RedirectingIpcService>(busName_, velmora::DbusIpcOptions{.busAddress = {}, .callTimeout = timeout});
    services_.install(velmora::setIpcService, ipc_);
  }
  std::shared_ptr<ZKVClient> makeClient(std::optional<std::string> bundle = "com.example.app",
                                        std::optional<std::string> store = std::nullopt, bool additional = false) {
    auto client = ZKVClient::create(nullptr, std::move(bundle), std::move(store), additional);
    clients_.push_back(client);
    return client;
  }
  // A shared store, so that its requests carry application as "bundleIdentifier".
  std::shared_ptr<Source> makeSource(const std::string& application, bool shared = true) {
    auto source = Source::create(application, std::nullopt, shared);
    sources_.push_back(source);
    return source;
  }
  std::string storePath(const std::string& application = "A") const { return storeFilePath(home_, application).string(); }
  void writeStore(const std::string& application, const PropertyList& store) {
    ASSERT_TRUE(writePlistFile(storePath(application), store));
  }
  // What the daemon does, by message name (see the responder's --script).
  void script(PlistDictionary steps) { ASSERT_TRUE(writePlistFile((root_ / "script.plist").string(), dict(std::move(steps)))); }
  // A fresh responder; it answers unscripted messages with {"userinfo": the
  // request's "userinfo"} unless arguments say otherwise.
  void startDaemon(std::vector<std::string> arguments = {}) {
    daemon_.reset();  // the name is free for the new one
    recordDirectory_ = (root_ / ("requests-" + std::to_string(++daemons_))).string();
    fs::create_directories(recordDirectory_);
    arguments.insert(arguments.begin(), {"--default", "userinfo", "--script", (root_ / "script.plist").string(),
                                         "--timeline", (root_ / "timeline").string(), "--record-plists", recordDirectory_});
    daemon_ = startResponder(busName_, arguments);
    ASSERT_NE(daemon_, nullptr);
  }
  // The requests the current responder received, in order.
  std::vector<PropertyList> requests() const { return readRecordedRequests(recordDirectory_); }
  // The "userinfo" of each of them with this message name, in order.
  std::vector<PropertyList> payloadsOf(const std::string& message) const {
    std::vector<PropertyList> payloads;
    for (const PropertyList& request : requests()) {
      if (*request.find("message") == str(message)) payloads.push_back(*request.find("userinfo"));
    }
    return payloads;
  }
  Messages messagesFrom(const std::string& application) const {
    Messages messages;
    for (const ResponderArrival& arrival : readTimeline((root_ / "timeline").string())) {
      if (arrival.bundleIdentifier == application) messages.push_back(arrival.message);
    }
    return messages;
  }
  // Waits for every source made so far to be released (their deferred tasks
  // have run), then for a request of a fresh store to be answered: all share
  // one bus connection, so everything sent before has arrived.
  void settle() {
    for (const auto& weak : sources_) ASSERT_TRUE(waitUntil([&] { return weak.expired(); }, kPatience));
    (void)makeSource("fence")->serverSideDebugDescription();
  }
  // Returns once the reply handlers queued for source before it have run.
  static void fence(Source& source) {
    (void)awaitReply([&](ZKVReplyHandler handler) { source.synchronizationWithCompletionHandler(handler); });
  }
  bool logged(LogLevel level, const std::string& message) const {
    return waitUntil([&] { return loggedOnDefaultChannel(*log_, level, message); }, kPatience);
  }
  // Raises a memory warning and waits for the source's handler to have run.
  static void warn(Source& source) {
    velmora::raiseMemoryWarning();
    source.protectionQueue()->sync([] {});
  }

  const ScratchDirectory scratch_{"zkv-source"};
  const fs::path root_ = scratch_.path();
  const fs::path home_ = root_ / "home";
  const std::string busName_ = uniqueBusName("com.vantrel.test.source");
  std::string recordDirectory_ = (root_ / "none").string();
  int daemons_ = 0;
  std::unique_ptr<ChildProcess> daemon_;
  std::vector<std::weak_ptr<Source>> sources_;
  std::vector<std::weak_ptr<ZKVClient>> clients_;
  std::shared_ptr<RedirectingIpcService> ipc_;
  std::shared_ptr<TestEnvironment> env_ = std::make_shared<TestEnvironment>();
  std::shared_ptr<velmora::CapturingLogSink> log_ = std::make_shared<velmora::CapturingLogSink>();
  ScopedServices services_;  // put back before the scratch directory goes
};

// ---------------------------------------------------------------------------
// The source on its own (no daemon answers).

TEST_F(SourceTest, StoreFileLocation) {
  const fs::path plain = storePath();
  // The store identifier, shared, additional, the container, QXFIXED_USER_HOME set, and where the file lies.
  using Case = std::tuple<std::optional<std::string>, bool, bool, std::optional<std::string>, bool, std::optional<fs::path>>;
  // The identifier names the file only when additional; a container, never for a shared store.
  for (const auto& [storeID, shared, additional, container, contained, location] :
       {Case{"S", false, false, std::nullopt, false, plain},
        Case{"S", false, true, std::nullopt, false, storePath("A-S")},
        Case{std::nullopt, false, false, "/c", false, plain},
        Case{std::nullopt, false, false, "/c", true, "/c/Library/Quellstore/A.plist"},
        Case{std::nullopt, false, false, "c", true, fs::current_path() / "c/Library/Quellstore/A.plist"},
        Case{std::nullopt, true, false, "/c", true, plain}}) {
    env_->contained = contained ? std::optional<std::string>("") : std::nullopt;
    EXPECT_EQ(Source::create("A", storeID, shared, additional, container)->urlOnDisk(), location) << container.value_or("-");
  }
  env_->home.reset();
  EXPECT_EQ(Source::create("A", false)->urlOnDisk(), std::nullopt);
  // Without an application the values live in memory only.
  auto memory = Source::create(std::nullopt, false);
  memory->setValueForKey(str("v"), "k");
  EXPECT_EQ(memory->getValueForKey("k"), str("v"));
  EXPECT_EQ(loadState(*memory).storageChangeCount, -1);  // nothing was read
}

TEST_F(SourceTest, WritesAreValidatedStampedAndCountedOnlyWhenTheyChangeSomething) {
  const std::string longKey(100, 'L'), key64(64, 'a'), tooLong(65, 'b');
  writeStore("A", storeWith({{longKey, record(str("old"))}, {"broken", makeDictionary({{"value", str("x")}})}}, 1));
  auto source = makeSource("A", false);
  EXPECT_EQ(source->copyKeyList().size(), 2u);  // an undecodable record is listed but has no value
  EXPECT_EQ(source->copyDictionary(), (PlistDictionary{{longKey, str("old")}}));
  source->setValueForKey(str("v"), "");
  EXPECT_TRUE(logged(LogLevel::Default, "NimbrelStore does not support empty keys"));
  source->setValueForKey(PropertyList(), "absent");
  EXPECT_FALSE(dirtyKeys(*source));

  env_->now = 1000.9;
  source->setValueForKey(str("v"), key64);
  source->setValueForKey(str("v"), key64);       // unchanged: no write
  source->setValueForKey(str("new"), longKey);  // keys in the cache are never measured
  std::int64_t stamp = 0;
  ZKVGetPropertyListAndTimestampFromStorage(loadState(*source).cache->at(key64), &stamp);
  EXPECT_EQ(stamp, 1000);  // whole seconds
  // Refused, behind the store's own checks, with a key's bytes counted and a batch refused whole.
  std::string euros;
  for (int i = 0; i < 22; ++i) euros += "\u20ac";
  EXPECT_THROW(source->setValueForKey(str("v"), euros), ZKVAssertionFailure);
  EXPECT_THROW(source->setValuesForKeys({{"k", str("v")}, {tooLong, str("v")}}), ZKVAssertionFailure);
  EXPECT_THROW(source->setValuesForKeys({{"k", makeArray({PropertyList()})}}), ZKVAssertionFailure);
  try {  // a single write checks the value on its own path, naming what refused it
    source->setValueForKey(makeArray({PropertyList()}), "k");
    ADD_FAILURE() << "a value holding nothing was stored";
  } catch (const ZKVAssertionFailure& failure) {
    EXPECT_EQ(std::tuple(std::string(failure.description()), failure.operation(), failure.object(), failure.file()),
              std::tuple("NimbrelStore: value is not property-list compatible: " + makeArray({PropertyList()}).description(),
                         std::string("ZKVRemotePreferencesSource::setValueForKey"),
                         static_cast<const void*>(source.get()), std::string("framework/ZKVRemotePreferencesSource")));
  }
  EXPECT_EQ(source->generationCount(), 2);
  EXPECT_EQ(dirtyKeys(*source), (Source::KeySet{key64, longKey}));
  source->setValuesForKeys({{key64, PropertyList()}, {"", str("ignored")}, {"b", str("w")}});
  EXPECT_EQ(source->generationCount(), 4);
  EXPECT_EQ(source->getValueForKey(key64), PropertyList());
}

TEST_F(SourceTest, ReadsStoreFilesWrittenByPythonAndSurvivesUnusableOnes) {
  for (std::string format : {"FMT_XML", "FMT_BINARY"}) {
    std::ofstream(root_ / "w.py")
        << "import plistlib\n"
           "v = {'s': {'timestamp': 700000000, 'value': 'h\\u00e9'},\n"
           "     'd': {'timestamp': 700000001, 'value': {'b': b'\\x00\\x01', 'l': [1, 2.5, True]}}}\n"
           "with open('" << storePath() << "', 'wb') as f:\n"
           "    plistlib.dump({'values': v, 'changecount': 4, 'versionid': 'x'}, f, fmt=plistlib." << format << ")\n";
    const int status = std::system(("python3 " + (root_ / "w.py").string()).c_str());
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "python3 failed";
    auto source = Source::create("A", false);
    EXPECT_EQ(source->getValueForKey("s"), str("h\u00e9")) << format;
    EXPECT_EQ(source->getValueForKey("d"),
              makeDictionary({{"b", PropertyList::data(velmora::Bytes{0, 1})},
                              {"l", makeArray({integer(1), PropertyList::real(2.5), PropertyList::boolean(true)})}}));
    const ZKVStoreLoadState state = loadState(*source);
    EXPECT_EQ(std::tuple(state.storageChangeCount, state.initialSyncChangeCount, state.isInitialSync), std::tuple(4, 4, false));
  }
  // A damaged or oversized file, or a directory in its place, reads as an empty store.
  const std::string full = readFile(storePath()).value();
  for (const std::string& bytes : {full.substr(0, full.size() / 2), std::string(50u << 20, '\xA5'), std::string()}) {
    fs::remove(storePath());
    if (bytes.empty()) fs::create_directories(storePath());
    else std::ofstream(storePath(), std::ios::binary) << bytes;
    auto source = Source::create("A", false);
    EXPECT_EQ(source->getValueForKey("s"), PropertyList()) << bytes.size();
    EXPECT_EQ(std::tuple(loadState(*source).storageChangeCount, loadState(*source).initialSyncChangeCount), std::tuple(0, -1));
  }
}

TEST_F(SourceTest, OnlyAnIdleCleanCacheIsEvictedUnderMemoryPressure) {
  auto source = makeSource("A", false);
  writeStore("A", storeWith({{"a", record("from disk")}}, 5));
  EXPECT_EQ(source->getValueForKey("a"), str("from disk"));
  env_->now = kNow + 299;
  warn(*source);
  EXPECT_TRUE(loadState(*source).cache);
  env_->now = kNow + 300;
  warn(*source);
  EXPECT_FALSE(loadState(*source).cache);
  EXPECT_EQ(loadState(*source).storageChangeCount, 5);
  source->setValueForKey(str("unsent"), "k");
  env_->now = kNow + 86'400;
  warn(*source);
  EXPECT_EQ(source->getValueForKey("k"), str("unsent"));
  // Loaded only by listing and synchronising: never used, so evicted at once.
  auto listed = makeSource("B", false);
  (void)listed->copyDictionary();
  warn(*listed);
  EXPECT_FALSE(loadState(*listed).cache);
  warn(*listed);  // nothing left to evict, nothing reloaded
  EXPECT_TRUE(logged(LogLevel::Debug, "Cache already empty"));
  EXPECT_FALSE(loadState(*listed).cache);
}

// A warning handler holding the last reference tears the source down on the
// protection queue itself, where teardown must not wait for that queue; the
// write not handed over goes with it, unsent.
TEST_F(SourceTest, TeardownInsideAWarningHandler) {
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
  source->setValueForKey(str("unsent"), "k");
  std::weak_ptr<DispatchQueue> queue = source->protectionQueue();
  services_.install(velmora::setLogSink, gate);
  velmora::raiseMemoryWarning();
  gate->entered.get_future().wait();
  source.reset();
  gate->release.set_value();
  EXPECT_TRUE(waitUntil([&] { return queue.expired(); }, kPatience));
  EXPECT_EQ(ipc_->connectionCount(), 0u);
}

// ---------------------------------------------------------------------------
// The daemon client.

TEST_F(SourceTest, ClientEnvelopesAndReplyShapes) {
  const PropertyList full =
      makeDictionary({{"domain", str("d")}, {"code", integer(-5)}, {"userinfo", makeDictionary({{"a", integer(1)}})}});
  const std::vector<std::pair<PropertyList, ZKVReply>> shapes = {
      {makeDictionary({{"userinfo", integer(4)}, {"error", full}}), integer(4)},
      {makeDictionary({{"other", integer(1)}}), std::monostate{}},
      {makeDictionary({{"error", full}}), ZKVError{"d", -5, {{"a", integer(1)}}}},
      {makeDictionary({{"error", makeDictionary({{"domain", integer(1)}, {"code", str("12")}, {"userinfo", makeArray({})}})}}),
       ZKVError{"", 0, {}}},
      {makeDictionary({{"error", makeDictionary({{"code", PropertyList::real(7.9)}})}}), ZKVError{"", 7, {}}},
      {makeDictionary({{"error", str("not a dictionary")}}), std::monostate{}}};
  velmora::PlistArray steps;
  for (const auto& [reply, expected] : shapes) steps.push_back(makeDictionary({{"reply", reply}}));
  script({{"register", PropertyList::array(steps)}});
  startDaemon({"--on", "ping=unsolicited"});
  auto store = makeClient("com.example.app", "com.example.app.extra", true);
  auto management = makeClient(std::nullopt);
  EXPECT_TRUE(ipc_->requested().empty());  // connections are made lazily
  store->sendMessageWithName("synchronizeRemote");
  EXPECT_EQ(management->sendMessageWithNameUserInfo("discardJournalEntries", integer(17)), integer(17));
  EXPECT_EQ(requests(), (std::vector<PropertyList>{
                            makeDictionary({{"message", str("synchronizeRemote")}, {"userinfo", dict()},
                                            {"bundleIdentifier", str("com.example.app")},
                                            {"storeIdentifier", str("com.example.app.extra")},
                                            {"additionalStore", PropertyList::boolean(true)}}),
                            makeDictionary({{"message", str("discardJournalEntries")}, {"userinfo", integer(17)}})}));
  for (const auto& [reply, expected] : shapes) {
    EXPECT_EQ(awaitReply([&](ZKVReplyHandler h) { management->sendMessageWithNameReplyHandler("register", h); }), expected)
        << reply.description();
  }
  // A request the transport cannot carry is never sent; a handler still hears of it.
  const PropertyList bad = makeDictionary({{"k", str("\xff\xfe")}});
  EXPECT_TRUE(management->sendMessageWithNameUserInfo("synchronize", bad).isNone());
  management->sendMessageWithName("\xff");
  EXPECT_TRUE(std::holds_alternative<ZKVError>(
      awaitReply([&](ZKVReplyHandler h) { management->sendMessageWithNameUserInfoReplyHandler("register", bad, h); })));
  EXPECT_EQ(requests().size(), 2u + shapes.size());
  // After a shutdown the next request connects again.
  management->shutdown();
  management->queue()->sync([] {});
  management->sendMessageWithName("ping");
  EXPECT_EQ(ipc_->requested().size(), 3u);
  // A message nobody asked for is logged and ignored: the connection stays.
  EXPECT_TRUE(logged(LogLevel::Default, "unexpected event connecting to ZKV service"));
  management->sendMessageWithName("ping");
  EXPECT_EQ(ipc_->requested().size(), 3u);
}

// The daemon's description of a store, or word that there is none, as one console line.
TEST_F(SourceTest, DebugDescriptionIsOneConsoleLineWithOrWithoutADaemon) {
  auto console = std::make_shared<velmora::CapturingConsoleSink>();
  services_.install(velmora::setConsoleSink, console);
  const std::shared_ptr<NimbrelStore> store = NimbrelStore::storeForApplication("A", "S");
  store->printDebugDescription();
  startDaemon();
  store->printDebugDescription();
  NimbrelStore::storeForApplication("B")->printDebugDescription();
  EXPECT_EQ(console->lines(), (std::vector<std::string>{"Can't get information on <NimbrelStore app=A store=S>",
                                                        "<NimbrelStore app=A store=S>: {}", "<NimbrelStore app=B>: {}"}));
}

// Two senders fail on one connection: the first to retry replaces it, and
// the second retries on that replacement instead of cancelling it in turn.
// (Which failures earn a retry is the unit tier's table.)
TEST_F(SourceTest, ARetryKeepsAConnectionAnotherSenderAlreadyReplaced) {
  script({{"held", makeArray({makeDictionary({{"silent", PropertyList::boolean(true)}}),
                              makeDictionary({{"userinfo", str("held")}})})}});
  startDaemon({"--on", "x=dbus-error"});
  auto client = makeClient();
  auto held = std::async(std::launch::async, [&] { return client->sendMessageWithNameUserInfo("held", {}); });
  ASSERT_TRUE(waitUntil([&] { return requests().size() == 1; }, kPatience));
  EXPECT_TRUE(client->sendMessageWithNameUserInfo("x", {}).isNone());
  EXPECT_EQ(held.get(), str("held"));
  EXPECT_EQ(ipc_->connectionCount(), 2u);
}

// Only a synchronous request gives up after the call timeout; an
// asynchronous one waits for its reply, and a shutdown ends it once.
TEST_F(SourceTest, AsynchronousRequestsWaitForTheirReplyAndEndOnce) {
  useCallTimeout(300ms);
  startDaemon({"--on", "getConfiguration=delay", "--on", "resetapps=silent"});
  auto client = makeClient();
  EXPECT_TRUE(std::holds_alternative<std::monostate>(awaitReply([&](ZKVReplyHandler h) {
    client->sendMessageWithNameUserInfoReplyHandler("getConfiguration", makeDictionary({{"delayMs", integer(1500)}}), h);
  })));  // {"reply": ...}: no "userinfo"
  EXPECT_TRUE(std::holds_alternative<ZKVError>(awaitReply([&](ZKVReplyHandler h) {
    client->sendMessageWithNameReplyHandler("resetapps", h);
    ASSERT_TRUE(waitUntil([&] { return requests().size() == 2; }, kPatience));
    client->shutdown();
  })));
  drainMainQueue();  // a second call would have thrown there
}

// ---------------------------------------------------------------------------
// The source's requests.

TEST_F(SourceTest, RequestsThatNeedTheStoreSendItsRegistrationFirst) {
  startDaemon();
  const PropertyList defaults = makeDictionary({{"maxKeyNameLen", integer(5)}, {"note", str("as given")}});
  using Step = std::function<void(Source&)>;
  const std::vector<std::tuple<std::string, Step, Messages>> cases = {
      // Deferred: registrations pending are one, each remote synchronisation goes on its own.
      {"deferred.register", [](Source& s) { s.registerForCorvane(); }, {"register"}},
      {"deferred.remote", [](Source& s) { s.scheduleRemoteSynchronization(); s.scheduleRemoteSynchronization(); },
       {"register", "synchronizeRemote", "synchronizeRemote"}},
      {"deferred.defaults", [&](Source& s) { s.setDefaultsConfiguration(defaults); }, {"register", "setDefaultsConfig"}},
      {"reg.configuration",
       [](Source& s) {
         s.updateConfiguration();
         s.registerForCorvane();  // a new registration: sent by its own deferred task
       },
       {"register", "getConfiguration", "register"}},
      {"reg.unregister", [](Source& s) { s.unregisterForCorvane(); }, {"register", "unregister"}},
      {"reg.track", [](Source& s) { s.synchronizationWithCompletionHandler(nullptr); }, {"register", "trackSynchronizeRemote"}},
      {"reg.synchronize",
       [](Source& s) {
         s.setValueForKey(str("v"), "k");
         EXPECT_TRUE(s.synchronize());
       },
       {"register", "synchronize"}},
      {"reg.discard", [](Source& s) { s.discardExternalChangesForChangeCount(3); }, {"register", "discardJournalEntries"}},
      // Neither "ping" nor "printDebugDescription" needs the store known.
      {"reg.plain",
       [](Source& s) {
         s.ping();
         EXPECT_TRUE(s.serverSideDebugDescription());
       },
       {"ping", "printDebugDescription", "register"}}};
  std::map<std::string, std::chrono::steady_clock::time_point> calledAt;
  for (const auto& [application, step, expected] : cases) {
    auto source = makeSource(application);
    calledAt[application] = std::chrono::steady_clock::now();
    source->registerForCorvane();
    step(*source);
  }
  makeSource("reg.never")->unregisterForCorvane();
  settle();
  EXPECT_EQ(payloadsOf("setDefaultsConfig"), std::vector<PropertyList>{defaults});  // as given
  for (const auto& [application, step, expected] : cases) EXPECT_EQ(messagesFrom(application), expected) << application;
  // Two seconds, not merely the code's own constant: a deferred request leaves 2.0 to 3.0 s after its call.
  for (const ResponderArrival& arrival : readTimeline((root_ / "timeline").string())) {
    if (arrival.bundleIdentifier.rfind("deferred.", 0) != 0) continue;
    const auto after = arrival.at - calledAt[arrival.bundleIdentifier];
    EXPECT_TRUE(after >= 2000ms && after <= 3000ms) << arrival.message << " from " << arrival.bundleIdentifier;
  }
  EXPECT_EQ(messagesFrom("reg.never"), Messages{"unregister"});
  EXPECT_EQ(payloadsOf("discardJournalEntries"), std::vector<PropertyList>{integer(3)});  // the bare number
}

TEST_F(SourceTest, AFailedHandOverLosesNothingAndIsRepeatedWithTheSameRecords) {
  writeStore("handover", storeWith({{"old", record("o")}, {"kept", record("k")}}, 5));
  auto source = makeSource("handover");
  EXPECT_TRUE(source->synchronize());  // only loads the file
  source->setValueForKey(str("first"), "a");
  source->setValueForKey(str("latest"), "a");
  source->setValueForKey(str("short-lived"), "b");
  source->setValueForKey(PropertyList(), "b");
  source->setValueForKey(PropertyList(), "old");
  // No daemon at all, then one that dies while handling it.
  EXPECT_FALSE(source->synchronize());
  script({{"synchronize", makeDictionary({{"exit", PropertyList::boolean(true)}})}});
  startDaemon();
  EXPECT_FALSE(source->synchronize());
  ASSERT_TRUE(daemon_->waitForExit(kPatience));
  // Each dirty key goes once with its latest record, a removed one as {}.
  const PlistDictionary changes{{"a", loadState(*source).cache->at("a")}, {"b", dict()}, {"old", dict()}};
  const PropertyList sent = makeDictionary({{"changes", dict(changes)}, {"changecount", integer(5)}});
  EXPECT_EQ(payloadsOf("synchronize"), std::vector<PropertyList>{sent});
  // Once a daemon answers, the same go again.
  script({{"synchronize", makeArray({makeDictionary({{"userinfo", makeDictionary({{"changecount", integer(9)}})}}),
                                     makeDictionary({{"userinfo", dict()}})})}});
  startDaemon();
  EXPECT_TRUE(source->synchronize());
  EXPECT_EQ(payloadsOf("synchronize"), std::vector<PropertyList>{sent});
  EXPECT_EQ(loadState(*source).storageChangeCount, 9);
  EXPECT_EQ(dirtyKeys(*source), Source::KeySet{});
  EXPECT_TRUE(source->synchronize());  // nothing written since: nothing sent
}

TEST_F(SourceTest, RepliesOfEveryShapeAreReadAsDocumented) {
  const PropertyList errorEntry = daemonError("remote", 3);
  const PropertyList empty = makeDictionary({{"reply", dict()}});
  const PropertyList success = makeDictionary({{"userinfo", dict()}});
  const PropertyList configuration = makeDictionary({{"maxKeyNameLen", integer(20)}, {"maxKeyCount", integer(0)},
                                                     {"maxKeyDataSum", integer(-1)}, {"maxKeyDataLen", PropertyList::real(9.5)}});
  script({{"trackSynchronizeRemote", makeArray({makeDictionary({{"userinfo", makeDictionary({{"error", errorEntry}})}}),
                                                makeDictionary({{"error", daemonError("daemon", 4)}}), empty, success, empty})},
          {"register", makeArray({makeDictionary({{"userinfo", configuration}}),
                                  makeDictionary({{"error", daemonError("daemon", 5)}}),
                                  makeDictionary({{"userinfo", str("not a dictionary")}})})},
          {"getConfiguration", makeArray({makeDictionary({{"userinfo", makeDictionary({{"maxKeyCount", integer(7)}})}}),
                                          makeDictionary({{"error", daemonError("daemon", 6)}})})}});
  writeStore("shapes", storeWith({{"a", record("before")}}, 5));
  startDaemon();
  auto source = makeSource("shapes");
  EXPECT_EQ(source->getValueForKey("a"), str("before"));
  auto track = [&] { return awaitReply([&](ZKVReplyHandler h) { source->synchronizationWithCompletionHandler(h); }); };
  EXPECT_EQ(track(), ZKVReply(errorEntry));  // the entry as it stands
  EXPECT_EQ(track(), ZKVReply(ZKVError{"daemon", 4, {}}));
  source->synchronizationWithCompletionHandler(nullptr);  // without a handler an empty reply marks nothing
  EXPECT_EQ(track(), ZKVReply());
  writeStore("shapes", storeWith({{"a", record("after")}}, 6));
  EXPECT_TRUE(source->synchronize());
  EXPECT_EQ(source->getValueForKey("a"), str("before"));  // successes force nothing
  // An empty reply is a success that makes the next synchronisation re-read
  // the file, once, without sending anything.
  EXPECT_EQ(track(), ZKVReply());
  EXPECT_TRUE(source->synchronize());
  EXPECT_EQ(source->getValueForKey("a"), str("after"));
  EXPECT_TRUE(payloadsOf("synchronize").empty());

  // The registration's reply is the configuration (odd values read as a
  // number can, absent or unusable ones as the default); a fetched one
  // replaces it whole; other replies leave it, silently for a fetch, logged
  // for a registration.
  auto limits = [&] {
    return std::vector<std::uint64_t>{source->maximumKeyCount(), source->maximumKeyLength(),
                                      source->maximumDataLengthPerKey(), source->maximumTotalDataLength()};
  };
  EXPECT_EQ(limits(), (std::vector<std::uint64_t>{1024, 64, 1048576, 1048576}));
  source->registerForCorvane();
  source->unregisterForCorvane();
  ASSERT_TRUE(waitUntil([&] { return source->maximumKeyLength() == 20; }, kPatience));
  EXPECT_EQ(limits(), (std::vector<std::uint64_t>{1024, 20, 9, UINT64_MAX}));
  source->updateConfiguration();
  ASSERT_TRUE(waitUntil([&] { return source->maximumKeyCount() == 7; }, kPatience));
  EXPECT_EQ(source->maximumKeyLength(), 64u);
  source->updateConfiguration();
  fence(*source);
  EXPECT_FALSE(log_->contains("NimbrelStore error"));
  for (const std::string& refused : {ZKVError{"daemon", 5, {}}.description(), str("not a dictionary").description()}) {
    source->registerForCorvane();
    source->unregisterForCorvane();
    fence(*source);
    EXPECT_TRUE(log_->contains("NimbrelStore error: " + refused)) << refused;
  }
  EXPECT_EQ(source->maximumKeyCount(), 7u);
  // A system-wide configuration change is relayed, not fetched.
  std::atomic<int> relayed{0};
  auto& center = velmora::NotificationCenter::defaultCenter();
  const auto token = center.addObserver(Source::ZKVRemotePreferencesSourceConfigurationDidChangeNotification(), source.get(),
                                        [&](const velmora::Notification&) { ++relayed; });
  ASSERT_TRUE(velmora::postSystemNotification(Source::kConfigurationDidChangeSystemNotification));
  ASSERT_TRUE(waitUntil([&] { return relayed == 1; }, kPatience));
  center.removeObserver(token);
  const Messages sent = messagesFrom("shapes");
  EXPECT_EQ(std::count(sent.begin(), sent.end(), "getConfiguration"), 2);
}

// ---------------------------------------------------------------------------
// The account-wide operations.

TEST_F(SourceTest, AccountWideOperationsCompleteWhateverTheDaemonDoes) {
  // The reset shuts its client down at once: even a daemon that never
  // answers gets the completion called, once, on the main queue.
  std::atomic<int> completions{0};
  for (const char* behaviour : {"silent", "error", ""}) {
    if (*behaviour != '\0') {
      startDaemon({"--on", std::string("resetapps=") + behaviour});
    } else {
      daemon_.reset();
    }
    Source::resetAllApplicationsWithCompletionHandler([&] { completions += DispatchQueue::main().isCurrent() ? 1 : 100; });
    EXPECT_TRUE(waitUntil([&] { return completions >= 1; }, kPatience)) << behaviour;
    drainMainQueue();
    EXPECT_EQ(completions.exchange(0), 1) << behaviour;
  }
  startDaemon();
  Source::resetAllApplicationsWithCompletionHandler(nullptr);
  Source::noteAccountChanges(nullptr);
  Source::migrateVelmoraForBundleIdentifier(nullptr);  // logged; nothing is sent
  EXPECT_TRUE(log_->contains("Error sending request to velmora daemon to migrate (null) nimbrel store: "));
  Source::migrateVelmoraForBundleIdentifier("com.example.moved");
  const PropertyList parameter = makeDictionary({{"parameter", str("com.example.moved")}});
  ASSERT_TRUE(waitUntil([&] { return requests().size() == 3; }, kPatience));
  std::map<std::string, PropertyList> received;  // no store identity on account-wide requests
  for (const PropertyList& request : requests()) received.emplace(*request.find("message")->getString(), request);
  EXPECT_EQ(received, (std::map<std::string, PropertyList>{
                          {"migrate", makeDictionary({{"message", str("migrate")}, {"userinfo", parameter}})},
                          {"ping", makeDictionary({{"message", str("ping")}, {"userinfo", dict()}})},
                          {"resetapps", makeDictionary({{"message", str("resetapps")}, {"userinfo", dict()}})}}));
  daemon_.reset();
  Source::migrateVelmoraForBundleIdentifier("com.example.stranded");
  EXPECT_TRUE(waitUntil([&] { return log_->contains("migrate com.example.stranded nimbrel store: com.vantrel.posix error 22"); },
                        kPatience));
}

// ---------------------------------------------------------------------------
// NimbrelStore against the real daemon.

class NimbrelStoreTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(device_.ok());
    services_.captureLog();  // debug lines on, as they would be when asked for
  }
  // Another client of the daemon writes values of app_ (none removes a key).
  void writeElsewhere(const PlistDictionary& values) { ASSERT_TRUE(device_.write(app_, values, recordTimestampNow())); }
  std::int64_t fileChangeCount() { return device_.storeFile(app_).find("changecount")->integerBits(); }

  SyncDevice device_{"nimbrel-store"};
  LibraryOn library_{device_};
  const std::string app_ = "com.example.notes";
  ScopedServices services_;
};

TEST_F(NimbrelStoreTest, OneStorePerIdentityAndTypedValuesThatReachTheStoreFile) {
  std::shared_ptr<NimbrelStore> store = NimbrelStore::storeForApplication(app_);
  std::shared_ptr<NimbrelStore> extra = NimbrelStore::storeForApplication(app_, "S");
  EXPECT_EQ(store, NimbrelStore::storeForApplication(app_, ""));
  EXPECT_EQ(extra, NimbrelStore::storeForApplication(app_, "S"));
  // Shared or not is part of the identity, though both read one file.
  EXPECT_NE(NimbrelStore::defaultStore(), NimbrelStore::storeForApplication("com.example.tests"));
  EXPECT_NE(store, extra);
  for (const char* bad : {"..", "a/b", "."}) EXPECT_EQ(NimbrelStore::storeWithIdentifier(bad), nullptr) << bad;
  EXPECT_EQ(NimbrelStore::storeForApplication(""), nullptr);
  EXPECT_EQ(NimbrelStore::storeForApplication("x", "../y"), nullptr);

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

  EXPECT_EQ(std::tuple(store->getString("s"), store->getBool("b"), store->getData("data")), std::tuple("text", true, bytes));
  EXPECT_EQ(std::tuple(store->getArray("array"), store->getDictionary("dict")), std::tuple(array, dictionary));
  EXPECT_EQ(store->getInteger("whole"), 3);  // a real that is exactly an integer
  EXPECT_EQ(store->getDouble("i"), -42.0);
  for (const char* key : {"d", "absent"}) EXPECT_EQ(store->getInteger(key), std::nullopt) << key;
  EXPECT_FALSE(store->getBool("i") || store->getString("i") || store->getData("i") || store->getArray("i") ||
               store->getDictionary("i") || store->getDouble("s") || store->getObject("gone"));

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
  store->useSourceSyncWithBlock([&](ZKVRemotePreferencesSource& source) {
    source.storeConfiguration(makeDictionary({{"maxKeyCount", PropertyList::integer(4)},
                                              {"maxKeyNameLen", PropertyList::integer(8)},
                                              {"maxKeyDataLen", PropertyList::integer(sizeOf(30))},
                                              {"maxKeyDataSum", PropertyList::integer(total)}}));
  });
  ASSERT_TRUE(store->setString("legacy-long-key", "").ok());
  ASSERT_TRUE(store->setString("a", std::string(30, 'x')).ok());
  const PlistDictionary before = store->dictionaryRepresentation();

  // The result, and the code, key, size and limit its error names.
  using Case = std::tuple<NimbrelResult, NimbrelErrorCode, std::string, std::uint64_t, std::uint64_t>;
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
  for (const auto& [result, code, key, size, limit] : cases) {
    ASSERT_FALSE(result.ok()) << key;
    EXPECT_EQ(std::tuple(result.error().code, result.error().key, result.error().size, result.error().limit),
              std::tuple(code, key, size, limit));
  }
  PlistDictionary expected = before;
  expected["b"] = str("y");
  EXPECT_EQ(store->dictionaryRepresentation(), expected);

  // Removing makes room again, for keys and for bytes.
  ASSERT_TRUE(store->removeObject("b").ok());
  EXPECT_TRUE(store->setString("c", "z").ok());
  EXPECT_TRUE(store->setObjects({{"c", PropertyList()}, {"d", str("w")}}).ok());
  EXPECT_EQ(store->getString("d"), "w");
  ASSERT_TRUE(store->synchronize());
}

// Observers hear another client's changes on the main queue, before the
// daemon is let to drop their journal entries; a new store hears only what
// changes after it appeared, not the journal's history.
TEST_F(NimbrelStoreTest, ObserversHearOnlyNewChangesOnTheMainQueueBeforeTheJournalIsDiscarded) {
  writeElsewhere({{"a", str("1")}, {"gone", str("x")}});
  writeElsewhere({{"gone", PropertyList()}});
  std::shared_ptr<NimbrelStore> store = NimbrelStore::storeForApplication(app_);
  ASSERT_EQ(store->getString("a"), "1");
  std::mutex mutex;
  std::vector<NimbrelChange> heard;  // guarded by mutex, as are the two below
  bool onMain = true, journaled = true;
  (void)store->addObserver([&](const NimbrelChange& change) {
    const PropertyList file = device_.storeFile(app_);  // held: find() lends into it
    const PropertyList* journal = file.find("journal");
    std::lock_guard lock(mutex);
    heard.push_back(change);
    onMain = onMain && velmora::DispatchQueue::main().isCurrent();
    journaled = journaled && journal != nullptr && journal->find("b") != nullptr;
  });
  std::atomic<int> removedCalls{0};
  store->removeObserver(store->addObserver([&](const NimbrelChange&) { ++removedCalls; }));
  // A notice while the file stands at the store's own count: nothing is news.
  ASSERT_TRUE(velmora::postSystemNotification(ZKVRemotePreferencesSource::kSourceDidChangeExternallySystemNotification));
  writeElsewhere({{"b", str("2")}});
  ASSERT_TRUE(waitUntil([&] { std::lock_guard lock(mutex); return !heard.empty(); }, kPatience));
  drainMainQueue();
  {
    std::lock_guard lock(mutex);
    EXPECT_EQ(heard, (std::vector<NimbrelChange>{{kNimbrelChangeReasonServerChange, {"b"}}}));
    EXPECT_TRUE(onMain && journaled);
  }
  EXPECT_EQ(store->getString("b"), "2");
  EXPECT_EQ(removedCalls, 0);
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
  EXPECT_TRUE(source->hasExternalChanges());
  EXPECT_EQ(source->copyExternalChangesWithChangeCount(nullptr), (std::map<std::int64_t, std::vector<std::string>>{{0, {"a"}}}));
  EXPECT_FALSE(source->hasExternalChanges());  // handed out once
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
