// ZKVClient against a fake IPC service, for what a real bus cannot produce on
// demand: each transport outcome kind, daemon replies the scripted responder
// cannot shape, events for an old connection, requests held in flight.
// Everything a real bus can show is tested in ZKVClient_integration_test.cpp.
#include "zkv/ZKVClient.h"

#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <future>
#include <mutex>
#include <thread>
#include <vector>

#include "ScratchEnvironment.h"
#include "velmora/platform/Dispatch.h"
#include "velmora/platform/Ipc.h"
#include "velmora/platform/Log.h"

namespace {

using namespace std::chrono_literals;
using velmora::DispatchQueue;
using velmora::IpcErrorKind;
using velmora::IpcEvent;
using velmora::IpcEventKind;
using velmora::IpcReply;
using velmora::LogLevel;
using velmora::makeArray;
using velmora::makeDictionary;
using velmora::PropertyList;

// The answer to one request: a reply, or nullopt to hold it in flight until
// its connection is cancelled. connection counts connections from 0.
using Script = std::function<std::optional<IpcReply>(std::size_t connection, const PropertyList& request)>;

class FakeIpcService;

// Delivers events on its event queue as the real transport does, and on
// cancel fails the held requests and reports itself invalid.
class FakeConnection final : public velmora::IpcConnection, public std::enable_shared_from_this<FakeConnection> {
 public:
  FakeConnection(FakeIpcService& service, std::size_t index, std::shared_ptr<DispatchQueue> eventQueue)
      : service_(service), index_(index), eventQueue_(std::move(eventQueue)) {}

  const std::string& serviceName() const noexcept override { return name_; }
  const std::shared_ptr<DispatchQueue>& eventQueue() const { return eventQueue_; }
  void setEventHandler(velmora::IpcEventHandler handler) override {
    std::lock_guard lock(mutex_);
    handler_ = std::move(handler);
  }
  bool hasHandler() {
    std::lock_guard lock(mutex_);
    return static_cast<bool>(handler_);
  }
  void resume() override { resumed_ = true; }

  void deliver(IpcEvent event) {
    ASSERT_TRUE(resumed_.load());
    eventQueue_->async([self = shared_from_this(), event = std::move(event)] {
      velmora::IpcEventHandler handler;
      {
        std::lock_guard lock(self->mutex_);
        handler = self->handler_;
      }
      if (handler) handler(event);
    });
  }

  void send(const velmora::IpcObject& request) override { (void)answer(request); }
  void sendWithReply(const velmora::IpcObject& request, std::shared_ptr<DispatchQueue> replyQueue,
                     velmora::IpcReplyHandler handler) override {
    IpcReply reply = answer(request);
    (replyQueue ? *replyQueue : DispatchQueue::main()).async([handler, reply] { handler(reply); });
  }
  IpcReply sendAndWait(const velmora::IpcObject& request) override { return answer(request); }

  void cancel() override {
    {
      std::lock_guard lock(mutex_);
      if (cancelled_) return;
      cancelled_ = true;
    }
    cancelledChanged_.notify_all();
    deliver({IpcEventKind::ConnectionInvalid, "the connection was cancelled", {}});
  }
  bool cancelled() {
    std::lock_guard lock(mutex_);
    return cancelled_;
  }
  void setCallTimeout(std::chrono::milliseconds) override {}

 private:
  IpcReply answer(const velmora::IpcObject& request);

  FakeIpcService& service_;
  const std::size_t index_;
  const std::string name_ = "fake";
  const std::shared_ptr<DispatchQueue> eventQueue_;
  std::atomic<bool> resumed_{false};
  std::mutex mutex_;                           // guards handler_ and cancelled_
  std::condition_variable cancelledChanged_;   // with mutex_
  velmora::IpcEventHandler handler_;
  bool cancelled_ = false;
};

class FakeIpcService final : public velmora::IpcService {
 public:
  std::shared_ptr<velmora::IpcConnection> connect(std::string name, std::shared_ptr<DispatchQueue> queue) override {
    std::lock_guard lock(mutex_);
    EXPECT_EQ(name, "com.vantrel.velmorad-sim");
    connections_.push_back(std::make_shared<FakeConnection>(*this, connections_.size(), std::move(queue)));
    return connections_.back();
  }
  void setScript(Script script) {
    std::lock_guard lock(mutex_);
    script_ = std::move(script);
  }
  std::vector<std::shared_ptr<FakeConnection>> connections() {
    std::lock_guard lock(mutex_);
    return connections_;
  }
  std::vector<PropertyList> sent() {
    std::lock_guard lock(mutex_);
    return sent_;
  }
  Script record(const PropertyList& request) {
    std::lock_guard lock(mutex_);
    sent_.push_back(request);
    return script_;
  }

 private:
  std::mutex mutex_;  // guards the fields below
  Script script_;
  std::vector<std::shared_ptr<FakeConnection>> connections_;
  std::vector<PropertyList> sent_;
};

IpcReply FakeConnection::answer(const velmora::IpcObject& request) {
  Script script = service_.record(request.dictionary());
  std::optional<IpcReply> reply = script ? script(index_, request.dictionary()) : IpcReply::success(makeDictionary({}));
  if (reply && !cancelled()) return *reply;
  std::unique_lock lock(mutex_);
  cancelledChanged_.wait(lock, [&] { return cancelled_; });
  return IpcReply::failure(IpcErrorKind::ConnectionInvalid, "the connection was cancelled");
}

Script always(IpcReply reply) {
  return [reply](std::size_t, const PropertyList&) { return std::optional<IpcReply>(reply); };
}

IpcReply ok(PropertyList dictionary) { return IpcReply::success(std::move(dictionary)); }

// The one call of a reply handler, which must come on the main queue.
ZKVReply awaitReply(const std::shared_ptr<ZKVClient>& client, const char* name) {
  std::promise<ZKVReply> promise;
  client->sendMessageWithNameReplyHandler(name, [&](const ZKVReply& r) {
    EXPECT_TRUE(DispatchQueue::main().isCurrent());
    promise.set_value(r);
  });
  auto future = promise.get_future();
  EXPECT_EQ(future.wait_for(5s), std::future_status::ready);
  return future.get();
}

class ZKVClientTest : public ::testing::Test {
 protected:
  void SetUp() override {
    services_.install(velmora::setIpcService, service_);
    services_.install(velmora::setLogSink, log_);
  }

  void TearDown() override {
    for (auto& weak : clients_) {
      if (auto client = weak.lock()) client->shutdown();
    }
    // The invalid event that the shutdown's cancel produces ends the
    // handler's hold on the client.
    for (auto& weak : clients_) {
      for (int i = 0; i < 500 && !weak.expired(); ++i) std::this_thread::sleep_for(10ms);
      EXPECT_TRUE(weak.expired()) << "a client outlived its shutdown";
    }
  }

  std::shared_ptr<ZKVClient> makeClient(std::shared_ptr<DispatchQueue> queue = nullptr) {
    auto client = ZKVClient::create(std::move(queue), "com.example.app", std::nullopt);
    clients_.push_back(client);
    return client;
  }

  // The client channel's lines, without the connection-event lines that the
  // client's queue writes in its own time.
  std::vector<std::pair<LogLevel, std::string>> sendLog() {
    std::vector<std::pair<LogLevel, std::string>> out;
    for (const auto& l : log_->lines()) {
      if (l.subsystem == "com.vantrel.velmora" && !l.message.starts_with("connection to ZKV service")) {
        out.emplace_back(l.level, l.message);
      }
    }
    return out;
  }

  // Runs everything queued on the client's queue so far, its events included.
  static void flush(const std::shared_ptr<ZKVClient>& client) { client->queue()->sync([] {}); }

  std::shared_ptr<FakeIpcService> service_ = std::make_shared<FakeIpcService>();
  std::shared_ptr<velmora::CapturingLogSink> log_ = std::make_shared<velmora::CapturingLogSink>();
  std::vector<std::weak_ptr<ZKVClient>> clients_;

 private:
  velmora::testing::ScopedServices services_;
};

TEST_F(ZKVClientTest, MissingNameIsAFatalAssertion) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  auto client = makeClient();
  const char* expected =
      "Assertion failed: \\(name\\), function -\\[ZKVClient _newMessageWithName:userInfo:\\], "
      "file framework/ZKVClient, line 109\\.";
  EXPECT_DEATH(client->sendMessageWithName(nullptr), expected);
  EXPECT_DEATH(client->sendMessageWithNameUserInfo(nullptr, {}), expected);
  EXPECT_DEATH(client->sendMessageWithNameReplyHandler(nullptr, [](const ZKVReply&) {}), expected);
}

// Which failures earn the synchronous retry, and the lines each path logs.
TEST_F(ZKVClientTest, EachTransportFailureKindIsReadAsDocumented) {
  struct Case {
    IpcErrorKind kind;
    std::size_t attempts;
    const char* line;
  };
  for (const Case& c : {Case{IpcErrorKind::Timeout, 1, "no reply sending message ping to ZKV server"},
                        Case{IpcErrorKind::MalformedReply, 1, "no reply sending message ping to ZKV server"},
                        Case{IpcErrorKind::ConnectionInvalid, 2, "error sending message ping to ZKV server"},
                        Case{IpcErrorKind::ConnectionInterrupted, 2, "error sending message ping to ZKV server"},
                        Case{IpcErrorKind::RemoteError, 2, "error sending message ping to ZKV server"},
                        Case{IpcErrorKind::SendFailed, 2, "error sending message ping to ZKV server"}}) {
    SCOPED_TRACE(std::string(velmora::ipcErrorKindName(c.kind)));
    service_ = std::make_shared<FakeIpcService>();
    velmora::setIpcService(service_);
    log_->clear();
    service_->setScript(always(IpcReply::failure(c.kind, "detail")));
    auto client = makeClient();
    EXPECT_TRUE(client->sendMessageWithNameUserInfo("ping", {}).isNone());
    EXPECT_EQ(service_->sent().size(), c.attempts);
    EXPECT_EQ(service_->connections().size(), c.attempts);
    const std::string closing =
        "got a reply from the ZKV daemon,\nmessage:" + service_->sent()[0].description() + ",\nreply:(none)";
    EXPECT_EQ(sendLog(), (std::vector<std::pair<LogLevel, std::string>>{{LogLevel::Debug, c.line},
                                                                        {LogLevel::Debug, closing}}));
    // Whatever failed, the asynchronous handler hears of it, once, after the same line.
    log_->clear();
    std::vector<ZKVReply> replies;
    std::promise<void> drained;
    client->sendMessageWithNameReplyHandler("ping", [&](const ZKVReply& r) { replies.push_back(r); });
    DispatchQueue::main().async([&] { drained.set_value(); });
    drained.get_future().wait();
    ASSERT_EQ(replies.size(), 1u);
    ASSERT_TRUE(std::holds_alternative<ZKVError>(replies[0]));
    EXPECT_EQ(std::get<ZKVError>(replies[0]).code, 22);
    EXPECT_EQ(sendLog(), (std::vector<std::pair<LogLevel, std::string>>{{LogLevel::Debug, c.line}}));
    client->shutdown();
  }
}

TEST_F(ZKVClientTest, SyncReturnsOnlyTheReplysUserInfo) {
  auto client = makeClient();
  const PropertyList whole = makeDictionary({{"userinfo", PropertyList::string("any type")}, {"x", makeArray({})}});
  service_->setScript(always(ok(whole)));
  EXPECT_EQ(client->sendMessageWithNameUserInfo("ping", {}), PropertyList::string("any type"));
  EXPECT_EQ(sendLog().back().second,
            "got a reply from the ZKV daemon,\nmessage:" + service_->sent()[0].description() + ",\nreply:" +
                whole.description());
}

// The retry cancels the first connection; its invalid event reaches the
// client's queue only after the client has moved to the second one.
TEST_F(ZKVClientTest, RetryMovesToANewConnectionThatTheOldOnesInvalidEventLeavesAlone) {
  auto client = makeClient();
  service_->setScript([](std::size_t connection, const PropertyList&) -> std::optional<IpcReply> {
    if (connection == 0) return IpcReply::failure(IpcErrorKind::ConnectionInterrupted, "owner went away");
    return ok(makeDictionary({{"userinfo", PropertyList::integer(7)}}));
  });
  EXPECT_EQ(client->sendMessageWithNameUserInfo("ping", {}), PropertyList::integer(7));
  flush(client);
  auto connections = service_->connections();
  ASSERT_EQ(connections.size(), 2u);
  EXPECT_TRUE(connections[0]->cancelled());
  EXPECT_FALSE(connections[0]->hasHandler()) << "the dead connection still holds the client";
  EXPECT_TRUE(log_->contains("connection to ZKV service went invalid"));
  client->sendMessageWithName("ping");
  EXPECT_EQ(service_->connections().size(), 2u);
  EXPECT_FALSE(connections[1]->cancelled());
}

// Two senders fail on one connection: the first to retry replaces it, and the
// second retries on that replacement instead of cancelling it in turn.
TEST_F(ZKVClientTest, RetryKeepsAConnectionAnotherSenderAlreadyReplaced) {
  auto client = makeClient();
  std::promise<void> heldSent;
  service_->setScript([&](std::size_t connection, const PropertyList& request) -> std::optional<IpcReply> {
    const PropertyList payload = *request.find("userinfo");
    if (connection == 0 && payload == PropertyList::string("held")) {
      heldSent.set_value();
      return std::nullopt;
    }
    if (connection == 0) return IpcReply::failure(IpcErrorKind::ConnectionInterrupted, "owner went away");
    return ok(makeDictionary({{"userinfo", payload}}));
  });
  auto held = std::async(std::launch::async,
                         [&] { return client->sendMessageWithNameUserInfo("x", PropertyList::string("held")); });
  heldSent.get_future().wait();
  EXPECT_EQ(client->sendMessageWithNameUserInfo("x", PropertyList::string("other")), PropertyList::string("other"));
  EXPECT_EQ(held.get(), PropertyList::string("held"));
  ASSERT_EQ(service_->connections().size(), 2u);
  EXPECT_FALSE(service_->connections()[1]->cancelled());
}

TEST_F(ZKVClientTest, InvalidEventDropsTheCurrentConnectionOthersKeepIt) {
  auto client = makeClient();
  client->sendMessageWithName("ping");
  auto first = service_->connections().at(0);
  first->deliver({IpcEventKind::ConnectionInterrupted, "owner went away", {}});
  first->deliver({IpcEventKind::OtherError, "cannot watch the owner", {}});
  first->deliver({IpcEventKind::UnsolicitedMessage, "com.example.Poke", PropertyList::integer(1)});
  flush(client);
  client->sendMessageWithName("ping");
  EXPECT_EQ(service_->connections().size(), 1u);

  first->deliver({IpcEventKind::ConnectionInvalid, "bus closed", {}});
  flush(client);
  EXPECT_FALSE(first->hasHandler());
  client->sendMessageWithName("ping");
  EXPECT_EQ(service_->connections().size(), 2u);
  std::vector<std::pair<LogLevel, std::string>> lines;
  for (const auto& l : log_->lines()) {
    if (l.subsystem == "com.vantrel.velmora") lines.emplace_back(l.level, l.message);
  }
  EXPECT_EQ(lines, (std::vector<std::pair<LogLevel, std::string>>{
                       {LogLevel::Debug, "connection to ZKV service interrupted"},
                       {LogLevel::Default, "unexpected error connecting to ZKV service"},
                       {LogLevel::Default, "unexpected event connecting to ZKV service"},
                       {LogLevel::Debug, "connection to ZKV service went invalid"}}));
}

TEST_F(ZKVClientTest, AsyncReplyShapes) {
  const PropertyList error = makeDictionary({{"domain", PropertyList::string("com.vantrel.zkv")},
                                             {"code", PropertyList::integer(-5)},
                                             {"userinfo", makeDictionary({{"a", PropertyList::integer(1)}})}});
  const std::vector<std::pair<PropertyList, ZKVReply>> cases = {
      {makeDictionary({{"userinfo", PropertyList::integer(4)}, {"error", error}}), PropertyList::integer(4)},
      {makeDictionary({{"other", PropertyList::integer(1)}}), std::monostate{}},
      {makeDictionary({{"error", error}}), ZKVError{"com.vantrel.zkv", -5, {{"a", PropertyList::integer(1)}}}},
      {makeDictionary({{"error", makeDictionary({{"domain", PropertyList::integer(1)},
                                                 {"code", PropertyList::string("12")},
                                                 {"userinfo", makeArray({})}})}}),
       ZKVError{"", 0, {}}},
      {makeDictionary({{"error", makeDictionary({{"code", PropertyList::real(7.9)}})}}), ZKVError{"", 7, {}}},
      {makeDictionary({{"error", PropertyList::string("not a dictionary")}}), std::monostate{}},
  };
  auto client = makeClient();
  for (const auto& [reply, expected] : cases) {
    SCOPED_TRACE(reply.description());
    service_->setScript(always(ok(reply)));
    EXPECT_EQ(awaitReply(client, "register"), expected);
  }
}

TEST_F(ZKVClientTest, RequestTheTransportCannotCarryIsNeverSent) {
  auto client = makeClient();
  const PropertyList bad = makeDictionary({{"k", PropertyList::string("\xff\xfe")}});
  EXPECT_TRUE(client->sendMessageWithNameUserInfo("synchronize", bad).isNone());
  client->sendMessageWithName("\xff");
  std::promise<ZKVReply> promise;
  client->sendMessageWithNameUserInfoReplyHandler("register", bad, [&](const ZKVReply& r) { promise.set_value(r); });
  const ZKVReply r = promise.get_future().get();
  ASSERT_TRUE(std::holds_alternative<ZKVError>(r));
  EXPECT_EQ(std::get<ZKVError>(r).code, 22);
  EXPECT_TRUE(service_->sent().empty());
  const auto lines = sendLog();
  ASSERT_EQ(lines.size(), 3u);
  EXPECT_TRUE(lines[0].second.starts_with("error unable to construct message from {")) << lines[0].second;
  EXPECT_TRUE(lines[1].second.ends_with(",\nreply:(none)"));
  EXPECT_EQ(lines[2].second, "error sending message register to ZKV server");
}

TEST_F(ZKVClientTest, ConnectionIsMadeLazilyAndAgainAfterShutdown) {
  auto given = DispatchQueue::createSerial("test.given");
  auto client = makeClient(given);
  EXPECT_EQ(client->queue(), given);
  EXPECT_EQ(makeClient()->queue()->label(), "com.vantrel.zkvclient");
  client->shutdown();  // nothing to reset yet
  flush(client);
  EXPECT_TRUE(service_->connections().empty());

  client->sendMessageWithName("ping");
  client->sendMessageWithName("ping");
  ASSERT_EQ(service_->connections().size(), 1u);
  EXPECT_EQ(service_->connections()[0]->eventQueue(), given);
  client->shutdown();
  flush(client);
  EXPECT_TRUE(service_->connections()[0]->cancelled());
  client->sendMessageWithName("ping");
  EXPECT_EQ(service_->connections().size(), 2u);
}

TEST_F(ZKVClientTest, ConcurrentSendersShareOneConnection) {
  auto client = makeClient();
  service_->setScript([](std::size_t, const PropertyList& request) -> std::optional<IpcReply> {
    return ok(makeDictionary({{"userinfo", *request.find("userinfo")}}));
  });
  std::atomic<int> wrong{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 8; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < 50; ++i) {
        const PropertyList payload = PropertyList::integer(t * 1000 + i);
        if (client->sendMessageWithNameUserInfo("x", payload) != payload) ++wrong;
      }
    });
  }
  for (auto& th : threads) th.join();
  EXPECT_EQ(wrong.load(), 0);
  EXPECT_EQ(service_->connections().size(), 1u);
}

}  // namespace
