// ZKVClient over the real transport: a private bus daemon and scripted
// responder processes standing in for the daemon. What the daemon received is
// read back from the responder's own records.
#include "zkv/ZKVClient.h"

#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>
#include <condition_variable>
#include <filesystem>
#include <future>
#include <mutex>
#include <thread>
#include <vector>

#include "PrivateBus.h"
#include "RedirectingIpc.h"
#include "ScratchEnvironment.h"
#include "velmora/platform/Dispatch.h"
#include "velmora/platform/Ipc.h"
#include "velmora/platform/Log.h"
#include "velmora/platform/PlistCodec.h"

namespace {

using namespace std::chrono_literals;
using velmora::DispatchQueue;
using velmora::LogLevel;
using velmora::makeDictionary;
using velmora::PropertyList;
using namespace velmora::testing;  // the shared fixtures of tests/support

constexpr auto kPatience = 10s;  // how long to wait for other processes

// The responder behaviour that answers {"userinfo": the request's "userinfo"}.
constexpr const char* kUserInfoBehaviour = "userinfo";

// Waits for a reply handler's calls.
class HandlerProbe {
 public:
  ZKVReplyHandler handler() {
    return [this](const ZKVReply& r) {
      std::lock_guard lock(mutex_);
      ++calls_;
      onMain_ = onMain_ && DispatchQueue::main().isCurrent();
      reply_ = r;
      done_.notify_all();
    };
  }

  ZKVReply wait() {
    std::unique_lock lock(mutex_);
    EXPECT_TRUE(done_.wait_for(lock, kPatience, [&] { return calls_ > 0; })) << "the reply handler never ran";
    EXPECT_TRUE(onMain_) << "the reply handler ran off the main queue";
    return reply_;
  }

  int calls() {
    std::lock_guard lock(mutex_);
    return calls_;
  }

 private:
  std::mutex mutex_;
  std::condition_variable done_;
  int calls_ = 0;
  bool onMain_ = true;
  ZKVReply reply_;
};

void drainMainQueue() {
  std::promise<void> done;
  DispatchQueue::main().async([&] { done.set_value(); });
  ASSERT_EQ(done.get_future().wait_for(kPatience), std::future_status::ready);
}

class ZKVClientBusTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { PrivateBus::instance(); }

  void SetUp() override {
    std::filesystem::create_directory(plistDirectory());
    useCallTimeout(kPatience);
    services_.install(velmora::setLogSink, log_);
  }

  void TearDown() override {
    for (std::weak_ptr<ZKVClient>& weak : clients_) {
      if (auto client = weak.lock()) client->shutdown();
    }
    for (std::weak_ptr<ZKVClient>& weak : clients_) {
      EXPECT_TRUE(waitUntil([&] { return weak.expired(); }, kPatience)) << "a client outlived its shutdown";
    }
  }

  // The real session-bus transport, with the daemon's well-known name
  // swapped for the test's own: every test meets a fresh responder, and a
  // short call timeout keeps the silent-daemon case quick.
  void useCallTimeout(std::chrono::milliseconds timeout) {
    velmora::DbusIpcOptions options;
    options.callTimeout = timeout;
    service_ = std::make_shared<RedirectingIpcService>(name_, std::move(options));
    services_.install(velmora::setIpcService, service_);
  }

  std::shared_ptr<ZKVClient> makeClient(std::optional<std::string> bundle = "com.example.app",
                                        std::optional<std::string> store = std::nullopt, bool additional = false) {
    auto client = ZKVClient::create(nullptr, std::move(bundle), std::move(store), additional);
    clients_.push_back(client);
    return client;
  }

  // A responder owning this test's name that records what it receives.
  std::unique_ptr<ChildProcess> startDaemon(std::vector<std::string> arguments = {}) {
    arguments.insert(arguments.begin(), {"--record", recordPath(), "--record-plists", plistDirectory()});
    return startResponder(name_, arguments);
  }

  std::string recordPath() const { return PrivateBus::instance().directory() + "/" + name_ + ".record"; }
  std::string plistDirectory() const { return PrivateBus::instance().directory() + "/" + name_ + ".plists"; }

  // The responder's record, one line per request received.
  std::vector<std::string> recorded() const {
    std::vector<std::string> lines;
    std::string text = readFile(recordPath()).value_or("");
    for (std::size_t start = 0, end; (end = text.find('\n', start)) != std::string::npos; start = end + 1) {
      lines.push_back(text.substr(start, end - start));
    }
    return lines;
  }

  // The n-th request (from 1) exactly as the responder received it.
  PropertyList receivedRequest(int n) const {
    const std::string path = plistDirectory() + "/request-" + std::to_string(n) + ".bplist";
    EXPECT_TRUE(waitUntil([&] { return std::filesystem::exists(path); }, kPatience)) << path;
    std::string bytes = readFile(path).value_or("");
    return velmora::decodeBinaryPlist({reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size()});
  }

  // Waits for a line of the client's channel with level and message.
  bool logged(LogLevel level, const std::string& message) {
    return waitUntil([&] { return loggedOnDefaultChannel(*log_, level, message); }, kPatience);
  }

  const std::string name_ = uniqueBusName("com.vantrel.test.ZKVClient");
  std::shared_ptr<RedirectingIpcService> service_;
  std::shared_ptr<velmora::CapturingLogSink> log_ = std::make_shared<velmora::CapturingLogSink>();
  std::vector<std::weak_ptr<ZKVClient>> clients_;

 private:
  ScopedServices services_;
};


// ---------------------------------------------------------------------------

TEST_F(ZKVClientBusTest, DaemonReceivesTheEnvelopeAsBuilt) {
  auto daemon = startDaemon({"--default", "neither"});
  ASSERT_TRUE(daemon);
  auto store = makeClient("com.example.app", "com.example.app.extra", true);
  store->sendMessageWithName("synchronizeRemote");
  auto management = makeClient(std::nullopt, std::nullopt, false);
  EXPECT_TRUE(management->sendMessageWithNameUserInfo("printDebugDescription", {}).isNone());
  EXPECT_TRUE(management->sendMessageWithNameUserInfo("discardJournalEntries", PropertyList::integer(17)).isNone());

  EXPECT_EQ(receivedRequest(1), makeDictionary({{"message", PropertyList::string("synchronizeRemote")},
                                                {"userinfo", makeDictionary({})},
                                                {"bundleIdentifier", PropertyList::string("com.example.app")},
                                                {"storeIdentifier", PropertyList::string("com.example.app.extra")},
                                                {"additionalStore", PropertyList::boolean(true)}}));
  EXPECT_EQ(receivedRequest(2), makeDictionary({{"message", PropertyList::string("printDebugDescription")},
                                                {"userinfo", makeDictionary({})}}));
  EXPECT_EQ(receivedRequest(3), makeDictionary({{"message", PropertyList::string("discardJournalEntries")},
                                                {"userinfo", PropertyList::integer(17)}}));
  const auto lines = recorded();
  ASSERT_EQ(lines.size(), 3u);
  const std::string route = "path=/com/vantrel/velmorad interface=com.vantrel.velmorad member=Request destination=" +
                            name_ + " signature=a{sv} ";
  EXPECT_TRUE(lines[0].starts_with(route + "expect_reply=0")) << lines[0];
  EXPECT_TRUE(lines[1].starts_with(route + "expect_reply=1")) << lines[1];
  EXPECT_EQ(service_->requested(), (std::vector<std::string>{"com.vantrel.velmorad-sim", "com.vantrel.velmorad-sim"}));
}

TEST_F(ZKVClientBusTest, RepliesWithoutUserInfo) {
  auto daemon = startDaemon({"--on", "register=error", "--on", "trackSynchronizeRemote=both"});
  ASSERT_TRUE(daemon);
  auto client = makeClient();

  HandlerProbe error;
  client->sendMessageWithNameReplyHandler("register", error.handler());
  EXPECT_EQ(error.wait(), ZKVReply(ZKVError{"scripted", 1, {}}));
  HandlerProbe both;
  client->sendMessageWithNameReplyHandler("trackSynchronizeRemote", both.handler());
  EXPECT_EQ(both.wait(), ZKVReply(ZKVError{"scripted", 1, {}}));
  HandlerProbe neither;
  client->sendMessageWithNameReplyHandler("neither", neither.handler());
  EXPECT_EQ(neither.wait(), ZKVReply(std::monostate{}));

  // The synchronous path sees a daemon-side error only as no "userinfo";
  // it is a reply, so nothing is retried.
  EXPECT_TRUE(client->sendMessageWithNameUserInfo("register", {}).isNone());
  EXPECT_EQ(recorded().size(), 4u);
  EXPECT_EQ(service_->requested().size(), 1u);
  drainMainQueue();
  EXPECT_EQ(error.calls() + both.calls() + neither.calls(), 3);
}

TEST_F(ZKVClientBusTest, BusErrorIsRetriedOnceSynchronouslyAndIsEinvalAsynchronously) {
  auto daemon = startDaemon({"--on", "synchronize=dbus-error", "--on", "register=dbus-error"});
  ASSERT_TRUE(daemon);
  auto client = makeClient();
  EXPECT_TRUE(client->sendMessageWithNameUserInfo("synchronize", makeDictionary({})).isNone());
  EXPECT_EQ(recorded().size(), 2u);
  EXPECT_EQ(service_->requested().size(), 2u);
  EXPECT_TRUE(logged(LogLevel::Debug, "error sending message synchronize to ZKV server"));

  HandlerProbe probe;
  client->sendMessageWithNameReplyHandler("register", probe.handler());
  const ZKVReply r = probe.wait();
  ASSERT_TRUE(std::holds_alternative<ZKVError>(r));
  const ZKVError& e = std::get<ZKVError>(r);
  EXPECT_EQ(e.domain, kZKVPOSIXErrorDomain);
  EXPECT_EQ(e.code, 22);
  EXPECT_EQ(e.userInfo, (velmora::PlistDictionary{{std::string(kZKVErrorDescriptionKey),
                                                   PropertyList::string("remote-error com.vantrel.velmorad.Error."
                                                                        "Scripted: scripted error")}}));
  EXPECT_EQ(recorded().size(), 3u);
  EXPECT_EQ(service_->requested().size(), 2u);
}

// Only a synchronous request gives up after the call timeout; an
// asynchronous one waits for its reply.
TEST_F(ZKVClientBusTest, SilentDaemonTimesOutOnlySynchronousRequests) {
  useCallTimeout(300ms);
  auto daemon = startDaemon({"--default", "silent", "--on", "getConfiguration=delay"});
  ASSERT_TRUE(daemon);
  auto client = makeClient();
  EXPECT_TRUE(client->sendMessageWithNameUserInfo("synchronize", {}).isNone());
  EXPECT_EQ(recorded().size(), 1u);
  EXPECT_EQ(service_->requested().size(), 1u);
  EXPECT_TRUE(logged(LogLevel::Debug, "no reply sending message synchronize to ZKV server"));

  // Answered well after the call timeout (a daemon that vanishes instead
  // ends it with an error: IpcTest.ResponderKilledMidCall...).
  HandlerProbe late;
  const PropertyList delay = makeDictionary({{"delayMs", PropertyList::integer(1500)}});
  client->sendMessageWithNameUserInfoReplyHandler("getConfiguration", delay, late.handler());
  EXPECT_TRUE(std::holds_alternative<std::monostate>(late.wait()));  // {"reply": ...}: no "userinfo"
  drainMainQueue();
  EXPECT_EQ(late.calls(), 1);
}

TEST_F(ZKVClientBusTest, DaemonDyingMidCallIsRetriedOnTheActivatedDaemon) {
  PrivateBus::instance().installService(name_, {responderPath(), "--name", name_, "--record", recordPath(),
                                                "--default", kUserInfoBehaviour, "--exit-after", "1"});
  auto daemon = startDaemon({"--on", "synchronize=exit"});
  ASSERT_TRUE(daemon);
  auto client = makeClient();
  const PropertyList payload = makeDictionary({{"changecount", PropertyList::integer(3)}});
  EXPECT_EQ(client->sendMessageWithNameUserInfo("synchronize", payload), payload);
  // The first copy reached the dying daemon, the second the activated one.
  EXPECT_EQ(recorded().size(), 2u);
  EXPECT_EQ(service_->requested().size(), 2u);
  EXPECT_FALSE(log_->contains("error sending message"));
}

TEST_F(ZKVClientBusTest, DaemonDyingMidCallWithNoneToActivateGivesNone) {
  auto daemon = startDaemon({"--on", "synchronize=exit"});
  ASSERT_TRUE(daemon);
  auto client = makeClient();
  EXPECT_TRUE(client->sendMessageWithNameUserInfo("synchronize", {}).isNone());
  EXPECT_EQ(recorded().size(), 1u);
  EXPECT_EQ(service_->requested().size(), 2u);
  EXPECT_TRUE(logged(LogLevel::Debug, "error sending message synchronize to ZKV server"));
  EXPECT_TRUE(logged(LogLevel::Debug, "connection to ZKV service interrupted"));
}

TEST_F(ZKVClientBusTest, RestartedDaemonIsReachedOnTheSameConnection) {
  auto first = startDaemon({"--default", "neither"});
  ASSERT_TRUE(first);
  auto client = makeClient();
  client->sendMessageWithNameUserInfo("ping", {});
  first->signal(SIGKILL);
  ASSERT_TRUE(first->waitForExit(kPatience));
  ASSERT_TRUE(logged(LogLevel::Debug, "connection to ZKV service interrupted"));

  auto second = startDaemon({"--default", "neither"});
  ASSERT_TRUE(second);
  client->sendMessageWithNameUserInfo("ping", {});
  EXPECT_EQ(recorded().size(), 2u);
  EXPECT_EQ(service_->requested().size(), 1u);
}

TEST_F(ZKVClientBusTest, UnsolicitedMessageIsLoggedAndIgnored) {
  auto daemon = startDaemon({"--on", "ping=unsolicited", "--default", "neither"});
  ASSERT_TRUE(daemon);
  auto client = makeClient();
  client->sendMessageWithNameUserInfo("ping", {});
  EXPECT_TRUE(logged(LogLevel::Default, "unexpected event connecting to ZKV service"));
  client->sendMessageWithNameUserInfo("other", {});
  EXPECT_EQ(recorded().size(), 2u);
  EXPECT_EQ(service_->requested().size(), 1u);
}

TEST_F(ZKVClientBusTest, ShutdownWithAnOutstandingRequestCallsTheHandlerOnce) {
  auto daemon = startDaemon({"--on", "resetapps=delay"});
  ASSERT_TRUE(daemon);
  auto client = makeClient(std::nullopt);
  HandlerProbe probe;
  client->sendMessageWithNameReplyHandler("resetapps", probe.handler());
  ASSERT_TRUE(waitUntil([&] { return recorded().size() == 1; }, kPatience));
  client->shutdown();
  const ZKVReply r = probe.wait();
  // The cancel normally wins; a reply that beat it is as good.
  if (std::holds_alternative<ZKVError>(r)) {
    EXPECT_EQ(std::get<ZKVError>(r).code, 22);
  }
  std::this_thread::sleep_for(400ms);  // past the daemon's 200 ms delay
  drainMainQueue();
  EXPECT_EQ(probe.calls(), 1);
}

TEST_F(ZKVClientBusTest, UserInfoRoundTrips) {
  auto daemon = startDaemon({"--default", kUserInfoBehaviour});
  ASSERT_TRUE(daemon);
  auto client = makeClient();
  const PropertyList payload = makeDictionary({{"k", PropertyList::integer(5)}});
  EXPECT_EQ(client->sendMessageWithNameUserInfo("synchronize", payload), payload);
  HandlerProbe probe;
  client->sendMessageWithNameUserInfoReplyHandler("register", payload, probe.handler());
  EXPECT_EQ(probe.wait(), ZKVReply(payload));
}

}  // namespace
