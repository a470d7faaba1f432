// The IPC transport against a real bus daemon (a private one per test
// process) and real responder processes: values on the way there and back,
// and the ways a call ends (reply, odd reply, timeout, the responder's death,
// cancel, the loss of the bus), each exactly once on the reply queue.
#include "velmora/platform/Ipc.h"

#include <gtest/gtest.h>
#include <signal.h>


#include "PrivateBus.h"
#include "velmora/platform/Dispatch.h"

namespace velmora {
namespace {

using testing::PrivateBus;
using testing::readFile;
using testing::startResponder;
using testing::waitUntil;
using namespace std::chrono_literals;
using Lines = std::vector<std::string>;

constexpr auto kPatience = 10s;  // how long to wait for other processes

PropertyList str(const char* s) { return PropertyList::string(s); }

IpcObject request(const char* message, std::initializer_list<std::pair<const std::string, PropertyList>> more = {}) {
  PlistDictionary d(more);
  d.emplace("message", str(message));
  return *ipcObjectFromPropertyList(PropertyList::dictionary(std::move(d)));
}

std::string outcome(const IpcReply& reply) {
  return reply.ok() ? "ok" : std::string(ipcErrorKindName(reply.error->kind));
}

class IpcTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { PrivateBus::instance(); }

  // Handlers capture the journal and queue, not the fixture: a completion
  // may still be queued when the fixture is gone.
  std::shared_ptr<IpcConnection> connectTo() {
    auto connection = DbusIpcService().connect(name_, queue_);
    connection->setEventHandler([journal = journal_](const IpcEvent& event) {
      journal->push_back("event:" + std::string(ipcEventKindName(event.kind)));
    });
    connection->resume();
    return connection;
  }
  // Sends with a reply to queue_, noting "<tag>:<outcome>".
  void send(IpcConnection& connection, const IpcObject& req, const std::string& tag) {
    connection.sendWithReply(req, queue_, [journal = journal_, queue = queue_, tag](IpcReply reply) {
      EXPECT_TRUE(queue->isCurrent());
      journal->push_back(tag + ":" + outcome(reply));
    });
  }
  // The journal once every completion so far has run.
  Lines settled() {
    Lines lines;
    queue_->sync([&] { lines = *journal_; });
    return lines;
  }
  std::size_t count(const std::string& line) {
    const Lines all = settled();
    return static_cast<std::size_t>(std::count(all.begin(), all.end(), line));
  }
  bool waitFor(const std::string& line, std::size_t n = 1) {
    return waitUntil([&] { return count(line) >= n; }, kPatience);
  }
  std::unique_ptr<testing::ChildProcess> recordingResponder() { return startResponder(name_, {"--record", record_}); }
  std::size_t recorded() const {
    const std::string text = readFile(record_).value_or("");
    return static_cast<std::size_t>(std::count(text.begin(), text.end(), '\n'));
  }

  const std::string name_ = testing::uniqueBusName("com.vantrel.test.Ipc");
  const std::string record_ = PrivateBus::instance().directory() + "/" + name_ + ".record";
  const std::shared_ptr<DispatchQueue> queue_ = DispatchQueue::createSerial("ipc-test");
  // What arrived on queue_, in order: "event:<kind>" and "<tag>:<outcome>".
  std::shared_ptr<Lines> journal_ = std::make_shared<Lines>();  // contents touched only on queue_
};

// A reply that is no dictionary is malformed, no reply times out, a signal
// from the service is an event, and a bad name gives a dead connection.
TEST_F(IpcTest, OddRepliesTimeoutsSignalsAndBadNames) {
  auto responder = startResponder(name_);
  ASSERT_TRUE(responder);
  auto connection = connectTo();
  for (const char* shape : {"u", "none", "dict-int-keys"})
    EXPECT_EQ(outcome(connection->sendAndWait(request("odd", {{"shape", str(shape)}}))), "malformed-reply") << shape;
  connection->setCallTimeout(200ms);
  EXPECT_EQ(outcome(connection->sendAndWait(request("silent"))), "timeout");
  ASSERT_TRUE(connection->sendAndWait(request("unsolicited")).ok());
  EXPECT_TRUE(waitFor("event:unsolicited-message"));
  EXPECT_EQ(outcome(DbusIpcService().connect("not a bus name", queue_)->sendAndWait(request("echo"))),
            "connection-invalid");
}

// (The synchronous caller's side, and the connection living on, are checked
// by ZKVClientBusTest.DaemonDyingMidCall* and RestartedDaemonIsReached...)
TEST_F(IpcTest, ResponderKilledMidCallCompletesEachCallOnceThenReportsTheInterruption) {
  auto responder = recordingResponder();
  ASSERT_TRUE(responder);
  auto connection = connectTo();
  for (int i = 0; i < 3; ++i) send(*connection, request("silent"), "async");
  ASSERT_TRUE(waitUntil([&] { return recorded() == 3; }, kPatience));
  responder->signal(SIGKILL);
  ASSERT_TRUE(waitFor("event:connection-interrupted"));
  EXPECT_EQ(settled(), (Lines{"async:connection-interrupted", "async:connection-interrupted",
                              "async:connection-interrupted", "event:connection-interrupted"}));
}

// Cancelling (or dropping the last reference) completes outstanding calls
// once and kills the connection, and nothing else on the shared bus.
TEST_F(IpcTest, CancelCompletesOutstandingCallsOnceAndKillsTheConnection) {
  auto responder = recordingResponder();
  ASSERT_TRUE(responder);
  auto connection = connectTo();
  auto bystander = connectTo();
  auto dropped = DbusIpcService().connect(name_, queue_);
  for (int i = 0; i < 5; ++i) send(*connection, request("silent"), "cancelled");
  send(*bystander, request("delay", {{"delayMs", PropertyList::integer(300)}}), "bystander");
  send(*dropped, request("silent"), "dropped");
  ASSERT_TRUE(waitUntil([&] { return recorded() == 7; }, kPatience));
  connection->cancel();
  connection->cancel();
  dropped.reset();
  ASSERT_TRUE(waitFor("cancelled:connection-invalid", 5));
  ASSERT_TRUE(waitFor("dropped:connection-invalid"));
  ASSERT_TRUE(waitFor("bystander:ok"));
  // Dead: further sends fail at once, without reaching the daemon.
  EXPECT_EQ(outcome(connection->sendAndWait(request("echo"))), "connection-invalid");
  send(*connection, request("echo"), "late");
  connection->send(request("echo"));
  ASSERT_TRUE(waitFor("late:connection-invalid"));
  settled();
  EXPECT_EQ(count("cancelled:connection-invalid"), 5u);
  EXPECT_EQ(count("event:connection-invalid"), 1u);
  EXPECT_EQ(recorded(), 7u);
}

// The shared I/O thread shut down, or the bus lost: every pending call and
// connection ends as invalid, and the next connection opens a fresh bus.
TEST_F(IpcTest, LossOfTheIoThreadOrTheBusKillsConnectionsAndTheNextOneWorks) {
  auto responder = recordingResponder();
  ASSERT_TRUE(responder);
  for (const bool restartBus : {false, true}) {
    auto connection = connectTo();
    const std::size_t before = recorded();
    send(*connection, request("silent"), "pending");
    ASSERT_TRUE(waitUntil([&] { return recorded() == before + 1; }, kPatience));
    if (restartBus) PrivateBus::instance().restart();
    else DbusIpcService::shutdownIoThread();
    ASSERT_TRUE(waitFor("event:connection-invalid"));
    EXPECT_EQ(settled(), (Lines{"pending:connection-invalid", "event:connection-invalid"})) << restartBus;
    EXPECT_EQ(outcome(connection->sendAndWait(request("echo"))), "connection-invalid");
    if (restartBus) responder = startResponder(name_);  // the old one left with its bus
    EXPECT_TRUE(connectTo()->sendAndWait(request("echo")).ok());
    journal_ = std::make_shared<Lines>();
  }
}

}  // namespace
}  // namespace velmora
