// The IPC transport against a real bus daemon (a private one per test
// process) and real responder processes.
#include "velmora/platform/Ipc.h"

#include <gtest/gtest.h>
#include <signal.h>

#include <atomic>
#include <cmath>
#include <condition_variable>
#include <filesystem>
#include <limits>
#include <mutex>
#include <thread>

#include "PrivateBus.h"
#include "velmora/platform/Dispatch.h"
#include "velmora/platform/PlistCodec.h"

namespace velmora {
namespace {

using testing::PrivateBus;
using testing::readFile;
using testing::startResponder;
using testing::uniqueBusName;
using testing::waitUntil;
using namespace std::chrono_literals;

constexpr auto kPatience = 10s;  // how long to wait for other processes

PropertyList str(const char* s) { return PropertyList::string(s); }

IpcObject request(std::initializer_list<std::pair<const std::string, PropertyList>> entries) {
  return *ipcObjectFromPropertyList(makeDictionary(entries));
}

// What arrived on the test's queue, in order: "event:<kind>" and
// "reply:<tag>:<ok|error kind>".
class Journal {
 public:
  void note(std::string line, std::optional<IpcEvent> event = std::nullopt) {
    std::lock_guard lock(mutex_);
    lines_.push_back(std::move(line));
    if (event) events_.push_back(std::move(*event));
    changed_.notify_all();
  }
  std::vector<IpcEvent> events() {
    std::lock_guard lock(mutex_);
    return events_;
  }
  std::size_t count(const std::string& line) {
    std::lock_guard lock(mutex_);
    return static_cast<std::size_t>(std::count(lines_.begin(), lines_.end(), line));
  }
  bool waitForCount(const std::string& line, std::size_t n) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, kPatience, [&] {
      return static_cast<std::size_t>(std::count(lines_.begin(), lines_.end(), line)) >= n;
    });
  }
  std::vector<std::string> lines() {
    std::lock_guard lock(mutex_);
    return lines_;
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<std::string> lines_;  // guarded by mutex_
  std::vector<IpcEvent> events_;    // guarded by mutex_
};

std::string outcome(const IpcReply& reply) {
  return reply.ok() ? "ok" : std::string(ipcErrorKindName(reply.error->kind));
}

class IpcTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { PrivateBus::instance(); }

  // Handlers capture the journal and queue, not the fixture: a completion
  // may still be queued when the fixture is gone.
  std::shared_ptr<IpcConnection> connectTo(const std::string& name, DbusIpcOptions options = {}) {
    auto connection = DbusIpcService(std::move(options)).connect(name, queue_);
    connection->setEventHandler([journal = journal_](const IpcEvent& event) {
      journal->note("event:" + std::string(ipcEventKindName(event.kind)), event);
    });
    connection->resume();
    return connection;
  }

  // Sends with a reply to queue_, noting "reply:<tag>:<outcome>".
  void sendNoted(IpcConnection& connection, const IpcObject& req, const std::string& tag) {
    connection.sendWithReply(req, queue_, [journal = journal_, queue = queue_, tag](IpcReply reply) {
      EXPECT_TRUE(queue->isCurrent());
      journal->note("reply:" + tag + ":" + outcome(reply));
    });
  }

  std::vector<IpcEvent> events() { return journal_->events(); }

  std::string recordPath() const { return PrivateBus::instance().directory() + "/" + name_ + ".record"; }
  std::size_t recordedLines() const {
    std::string text = readFile(recordPath()).value_or("");
    return static_cast<std::size_t>(std::count(text.begin(), text.end(), '\n'));
  }

  const std::string name_ = uniqueBusName("com.vantrel.test.Ipc");
  const std::shared_ptr<DispatchQueue> queue_ = DispatchQueue::createSerial("ipc-test");
  const std::shared_ptr<Journal> journal_ = std::make_shared<Journal>();
};

PropertyList everyType() {
  const PropertyList nul = PropertyList::string(std::string("a\0b", 3));
  PropertyList deep = PropertyList::data(Bytes{1});  // as deep as the echo {"reply": request} can still be
  for (int i = 2; i < PropertyList::kMaxDepth; ++i) deep = i % 2 ? makeArray({deep}) : makeDictionary({{"k", deep}});
  return makeDictionary({
      {"message", str("echo")},
      {"bool", PropertyList::boolean(true)},
      {"int", PropertyList::integer(std::numeric_limits<std::int64_t>::min())},
      {"unsigned", PropertyList::unsignedInteger(std::numeric_limits<std::uint64_t>::max() - 1)},
      {"real", PropertyList::real(1.0 / 3.0)},
      {"date", PropertyList::date(789.125)},
      {"string", str("\xE2\x9C\x93 ok")},
      {"data", PropertyList::data(Bytes{0, 0, 7, 255})},
      {"array", makeArray({PropertyList::integer(1), makeArray({}), makeDictionary({{"d", PropertyList::date(-1)}})})},
      {"dict", makeDictionary({{"nested", makeDictionary({{"deeper", PropertyList::boolean(false)}})}})},
      // What the bus cannot hold as it is (NUL, nesting past its 64
      // containers, for which it would drop us) travels encoded.
      {"nul", nul},
      {"nul key", makeDictionary({{*nul.getString(), nul}})},
      {"deep", deep},
  });
}

TEST_F(IpcTest, SyncRequestTravelsLosslesslyWithTheAgreedEnvelope) {
  const std::string plists = PrivateBus::instance().directory() + "/" + name_;
  std::filesystem::create_directory(plists);
  auto responder = startResponder(name_, {"--record", recordPath(), "--record-plists", plists});
  ASSERT_TRUE(responder);
  auto connection = connectTo(name_);

  const PropertyList sent = everyType();
  IpcReply reply = connection->sendAndWait(*ipcObjectFromPropertyList(sent));
  ASSERT_TRUE(reply.ok()) << reply.error->message;
  // The echo proves the way back; the daemon's own copy the way there.
  EXPECT_EQ(*reply.dictionary.find("reply"), sent);
  std::string received = readFile(plists + "/request-1.bplist").value_or("");
  EXPECT_EQ(decodeBinaryPlist({reinterpret_cast<const std::uint8_t*>(received.data()), received.size()}), sent);

  std::string record = readFile(recordPath()).value_or("");
  EXPECT_NE(record.find("path=/com/vantrel/velmorad interface=com.vantrel.velmorad member=Request destination=" +
                        name_ + " signature=a{sv} expect_reply=1 auto_start=1"),
            std::string::npos)
      << record;
}

TEST_F(IpcTest, AsyncRepliesRunOnceOnTheReplyQueueAndNoReplySendsArriveInOrder) {
  auto responder = startResponder(name_, {"--record", recordPath()});
  ASSERT_TRUE(responder);
  auto connection = connectTo(name_);
  connection->send(request({{"message", str("echo")}, {"n", PropertyList::integer(0)}}));
  for (int i = 1; i <= 20; ++i) {
    sendNoted(*connection, request({{"message", str("echo")}, {"n", PropertyList::integer(i)}}), "echo");
  }
  ASSERT_TRUE(journal_->waitForCount("reply:echo:ok", 20));
  queue_->sync([] {});
  EXPECT_EQ(journal_->count("reply:echo:ok"), 20u);

  std::string record = readFile(recordPath()).value_or("");
  auto first = record.find("expect_reply=0");
  ASSERT_NE(first, std::string::npos) << record;
  EXPECT_LT(first, record.find("expect_reply=1"));
  EXPECT_LT(record.find("\"n\" = 0"), record.find("\"n\" = 1;"));
}

TEST_F(IpcTest, ReplyShapesAndRemoteErrors) {
  auto responder = startResponder(name_);
  ASSERT_TRUE(responder);
  auto connection = connectTo(name_);

  IpcReply both = connection->sendAndWait(request({{"message", str("both")}}));
  ASSERT_TRUE(both.ok());
  EXPECT_TRUE(both.dictionary.find("reply") && both.dictionary.find("error"));
  IpcReply neither = connection->sendAndWait(request({{"message", str("neither")}}));
  ASSERT_TRUE(neither.ok());
  EXPECT_EQ(neither.dictionary, PropertyList::dictionary({}));

  IpcReply remote = connection->sendAndWait(request({{"message", str("dbus-error")},
                                                     {"errorName", str("com.vantrel.test.Error.Nope")},
                                                     {"errorMessage", str("nope")}}));
  ASSERT_FALSE(remote.ok());
  EXPECT_EQ(remote.error->kind, IpcErrorKind::RemoteError);
  EXPECT_EQ(remote.error->name, "com.vantrel.test.Error.Nope");
  EXPECT_EQ(remote.error->message, "nope");

  for (const char* shape : {"u", "none", "dict-int-keys"}) {
    IpcReply odd = connection->sendAndWait(request({{"message", str("odd")}, {"shape", str(shape)}}));
    ASSERT_FALSE(odd.ok()) << shape;
    EXPECT_EQ(odd.error->kind, IpcErrorKind::MalformedReply) << shape;
  }
  for (const char* shape : {"variant-dict", "dict-su", "extra-args"}) {
    EXPECT_TRUE(connection->sendAndWait(request({{"message", str("odd")}, {"shape", str(shape)}})).ok()) << shape;
  }

  IpcReply wide = connection->sendAndWait(request({{"message", str("odd")}, {"shape", str("wide")}}));
  ASSERT_TRUE(wide.ok());
  const PropertyList& d = wide.dictionary;
  EXPECT_EQ(*d.find("u"), PropertyList::integer(4000000000));
  EXPECT_EQ(*d.find("t-big"), PropertyList::unsignedInteger(std::numeric_limits<std::uint64_t>::max()));
  EXPECT_EQ(*d.find("o"), str("/a/b"));
  EXPECT_EQ(d.find("h"), nullptr);
  EXPECT_EQ(*d.find("fds"), PropertyList::array({}));
  EXPECT_EQ(*d.find("dict-o"), makeDictionary({{"/p", PropertyList::integer(3)}}));
  EXPECT_EQ(*d.find("nested-variant"), PropertyList::integer(9));

  // The connection is still fine after all that.
  EXPECT_TRUE(connection->sendAndWait(request({{"message", str("echo")}})).ok());
}

// Only a synchronous request times out: an asynchronous one waits for its
// reply however long the call timeout is.
TEST_F(IpcTest, OnlySynchronousRequestsTimeOut) {
  auto responder = startResponder(name_);
  ASSERT_TRUE(responder);
  auto connection = connectTo(name_);
  connection->setCallTimeout(200ms);

  IpcReply silent = connection->sendAndWait(request({{"message", str("silent")}}));
  ASSERT_FALSE(silent.ok());
  EXPECT_EQ(silent.error->kind, IpcErrorKind::Timeout);

  sendNoted(*connection, request({{"message", str("delay")}, {"delayMs", PropertyList::integer(1000)}}), "late");
  ASSERT_TRUE(journal_->waitForCount("reply:late:ok", 1));
  EXPECT_TRUE(connection->sendAndWait(request({{"message", str("echo")}})).ok());
  queue_->sync([] {});
  EXPECT_EQ(journal_->lines(), std::vector<std::string>{"reply:late:ok"});
}

TEST_F(IpcTest, ResponderKilledMidCallCompletesEachCallOnceThenReportsTheInterruption) {
  auto responder = startResponder(name_, {"--record", recordPath()});
  ASSERT_TRUE(responder);
  auto connection = connectTo(name_);
  for (int i = 0; i < 3; ++i) sendNoted(*connection, request({{"message", str("silent")}}), "async");
  std::optional<IpcReply> syncReply;
  std::thread waiter([&] { syncReply = connection->sendAndWait(request({{"message", str("silent")}})); });
  ASSERT_TRUE(waitUntil([&] { return recordedLines() == 4; }, kPatience));

  responder->signal(SIGKILL);
  waiter.join();
  ASSERT_TRUE(syncReply.has_value());
  EXPECT_EQ(outcome(*syncReply), "connection-interrupted");
  ASSERT_TRUE(journal_->waitForCount("event:connection-interrupted", 1));
  queue_->sync([] {});
  EXPECT_EQ(journal_->lines(),
            (std::vector<std::string>{"reply:async:connection-interrupted", "reply:async:connection-interrupted",
                                      "reply:async:connection-interrupted", "event:connection-interrupted"}));

  // Interrupted is not dead: with nobody to start, the bus itself answers.
  IpcReply after = connection->sendAndWait(request({{"message", str("echo")}}));
  ASSERT_FALSE(after.ok());
  EXPECT_EQ(after.error->kind, IpcErrorKind::RemoteError);
  EXPECT_EQ(after.error->name, "org.freedesktop.DBus.Error.ServiceUnknown");
}

TEST_F(IpcTest, ResponderExitingInsideTheCallInterruptsIt) {
  auto responder = startResponder(name_);
  ASSERT_TRUE(responder);
  auto connection = connectTo(name_);
  EXPECT_EQ(outcome(connection->sendAndWait(request({{"message", str("exit")}}))), "connection-interrupted");
  EXPECT_TRUE(journal_->waitForCount("event:connection-interrupted", 1));
}

TEST_F(IpcTest, CancelCompletesOutstandingCallsOnceAndKillsTheConnection) {
  auto responder = startResponder(name_, {"--record", recordPath()});
  ASSERT_TRUE(responder);
  auto connection = connectTo(name_);
  // A second connection on the same shared bus must not notice.
  auto bystander = connectTo(name_);
  for (int i = 0; i < 5; ++i) sendNoted(*connection, request({{"message", str("silent")}}), "cancelled");
  sendNoted(*bystander, request({{"message", str("delay")}, {"delayMs", PropertyList::integer(300)}}), "bystander");
  ASSERT_TRUE(waitUntil([&] { return recordedLines() == 6; }, kPatience));

  connection->cancel();
  connection->cancel();
  ASSERT_TRUE(journal_->waitForCount("reply:cancelled:connection-invalid", 5));
  ASSERT_TRUE(journal_->waitForCount("reply:bystander:ok", 1));
  EXPECT_EQ(journal_->count("event:connection-invalid"), 1u);

  // Dead: further sends fail at once, without reaching the daemon.
  EXPECT_EQ(outcome(connection->sendAndWait(request({{"message", str("echo")}}))), "connection-invalid");
  sendNoted(*connection, request({{"message", str("echo")}}), "late");
  connection->send(request({{"message", str("echo")}}));
  ASSERT_TRUE(journal_->waitForCount("reply:late:connection-invalid", 1));
  EXPECT_TRUE(bystander->sendAndWait(request({{"message", str("echo")}})).ok());
  queue_->sync([] {});
  EXPECT_EQ(journal_->count("reply:cancelled:connection-invalid"), 5u);
  EXPECT_EQ(journal_->count("event:connection-invalid"), 1u);
  EXPECT_EQ(recordedLines(), 7u);
}

TEST_F(IpcTest, DroppingTheLastReferenceCancels) {
  auto responder = startResponder(name_);
  ASSERT_TRUE(responder);
  auto connection = connectTo(name_);
  sendNoted(*connection, request({{"message", str("silent")}}), "dropped");
  connection.reset();
  EXPECT_TRUE(journal_->waitForCount("reply:dropped:connection-invalid", 1));
}

TEST_F(IpcTest, RequestActivatesAnInstalledService) {
  PrivateBus::instance().installService(
      name_, {testing::responderPath(), "--name", name_, "--record", recordPath()});
  auto connection = connectTo(name_);
  IpcReply reply = connection->sendAndWait(request({{"message", str("echo")}, {"hello", str("activated")}}));
  ASSERT_TRUE(reply.ok()) << reply.error->message;
  EXPECT_EQ(*reply.dictionary.find("reply")->find("hello"), str("activated"));
  EXPECT_EQ(recordedLines(), 1u);
  // Starting it is not an interruption; stopping it is.
  connection->send(request({{"message", str("exit")}}));
  EXPECT_TRUE(journal_->waitForCount("event:connection-interrupted", 1));
  EXPECT_EQ(journal_->lines(), std::vector<std::string>{"event:connection-interrupted"});
}

TEST_F(IpcTest, UnsolicitedMessagesFromTheServiceReachTheEventHandler) {
  auto responder = startResponder(name_);
  ASSERT_TRUE(responder);
  auto connection = connectTo(name_);
  ASSERT_TRUE(connection->sendAndWait(request({{"message", str("unsolicited")}})).ok());
  ASSERT_TRUE(journal_->waitForCount("event:unsolicited-message", 1));
  IpcEvent event = events().back();
  EXPECT_EQ(event.description, "com.vantrel.velmorad.Unsolicited");
  EXPECT_EQ(event.message, makeDictionary({{"note", str("unsolicited")}}));
}

TEST_F(IpcTest, EventsWaitForResumeAndBadNamesGiveADeadConnection) {
  auto connection = DbusIpcService().connect("not a bus name", queue_);
  EXPECT_EQ(outcome(connection->sendAndWait(request({{"message", str("echo")}}))), "connection-invalid");
  connection->setEventHandler(
      [journal = journal_](const IpcEvent& e) { journal->note("event:" + std::string(ipcEventKindName(e.kind))); });
  std::this_thread::sleep_for(50ms);
  queue_->sync([] {});
  EXPECT_TRUE(journal_->lines().empty()) << "delivered before resume()";
  connection->resume();
  EXPECT_TRUE(journal_->waitForCount("event:connection-invalid", 1));
}

TEST_F(IpcTest, OptionsChooseTheObjectPathInterfaceAndMember) {
  auto responder = startResponder(
      name_, {"--path", "/com/vantrel/other", "--interface", "com.vantrel.Other", "--member", "Ask"});
  ASSERT_TRUE(responder);
  DbusIpcOptions options;
  options.objectPath = "/com/vantrel/other";
  options.interfaceName = "com.vantrel.Other";
  options.member = "Ask";
  EXPECT_TRUE(connectTo(name_, options)->sendAndWait(request({{"message", str("echo")}})).ok());
  IpcReply wrong = connectTo(name_)->sendAndWait(request({{"message", str("echo")}}));
  ASSERT_FALSE(wrong.ok());
  EXPECT_EQ(wrong.error->kind, IpcErrorKind::RemoteError);
}

TEST_F(IpcTest, ConcurrentSynchronousCallersGetTheirOwnReplies) {
  auto responder = startResponder(name_);
  ASSERT_TRUE(responder);
  auto connection = connectTo(name_);
  std::atomic<int> mismatches{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < 50; ++i) {
        const std::int64_t n = t * 1000 + i;
        IpcReply reply = connection->sendAndWait(request({{"message", str("echo")}, {"n", PropertyList::integer(n)}}));
        const PropertyList* echoed = reply.ok() ? reply.dictionary.find("reply") : nullptr;
        if (echoed == nullptr || *echoed->find("n") != PropertyList::integer(n)) ++mismatches;
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(mismatches.load(), 0);
}

TEST_F(IpcTest, ShutdownOfTheIoThreadCompletesEverythingAndANewConnectionWorks) {
  auto responder = startResponder(name_, {"--record", recordPath()});
  ASSERT_TRUE(responder);
  auto connection = connectTo(name_);
  for (int i = 0; i < 3; ++i) sendNoted(*connection, request({{"message", str("silent")}}), "pending");
  ASSERT_TRUE(waitUntil([&] { return recordedLines() == 3; }, kPatience));

  DbusIpcService::shutdownIoThread();
  ASSERT_TRUE(journal_->waitForCount("reply:pending:connection-invalid", 3));
  ASSERT_TRUE(journal_->waitForCount("event:connection-invalid", 1));
  EXPECT_EQ(outcome(connection->sendAndWait(request({{"message", str("echo")}}))), "connection-invalid");

  EXPECT_TRUE(connectTo(name_)->sendAndWait(request({{"message", str("echo")}})).ok());
}

TEST_F(IpcTest, BusLossKillsConnectionsAndTheNextConnectionOpensAFreshBus) {
  auto responder = startResponder(name_, {"--record", recordPath()});
  ASSERT_TRUE(responder);
  auto connection = connectTo(name_);
  sendNoted(*connection, request({{"message", str("silent")}}), "pending");
  ASSERT_TRUE(waitUntil([&] { return recordedLines() == 1; }, kPatience));

  PrivateBus::instance().restart();
  ASSERT_TRUE(journal_->waitForCount("event:connection-invalid", 1));
  queue_->sync([] {});
  EXPECT_EQ(journal_->lines(), (std::vector<std::string>{"reply:pending:connection-invalid", "event:connection-invalid"}));
  EXPECT_EQ(outcome(connection->sendAndWait(request({{"message", str("echo")}}))), "connection-invalid");

  auto newResponder = startResponder(name_);
  ASSERT_TRUE(newResponder);
  EXPECT_TRUE(connectTo(name_)->sendAndWait(request({{"message", str("echo")}})).ok());
}

TEST_F(IpcTest, ConnectionsToAnotherBusAddressAreIndependent) {
  auto other = testing::BusDaemon::start();
  ASSERT_TRUE(other);
  auto responder = startResponder(name_, {}, other->address());
  ASSERT_TRUE(responder);
  DbusIpcOptions options;
  options.busAddress = other->address();
  auto onOther = connectTo(name_, options);
  ASSERT_TRUE(onOther->sendAndWait(request({{"message", str("echo")}})).ok());
  auto onSession = connectTo(name_);
  EXPECT_EQ(onSession->sendAndWait(request({{"message", str("echo")}})).error->name,
            "org.freedesktop.DBus.Error.ServiceUnknown");

  other.reset();
  ASSERT_TRUE(journal_->waitForCount("event:connection-invalid", 1));
  EXPECT_EQ(onSession->sendAndWait(request({{"message", str("echo")}})).error->name,
            "org.freedesktop.DBus.Error.ServiceUnknown");
}

}  // namespace
}  // namespace velmora
