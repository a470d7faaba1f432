// The account-wide management operations against the scripted responder on
// a private bus. The real transport is wrapped by a recorder that notes, per
// connection, the sends, the cancel and the replies in the order they
// happen, so that the shutdown ordering of each operation can be seen.
#include <gtest/gtest.h>

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
#include "velmora/platform/Dispatch.h"
#include "velmora/platform/Ipc.h"
#include "velmora/platform/Log.h"
#include "zkv/ZKVClient.h"
#include "zkv/ZKVRemotePreferencesSource.h"

namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using velmora::DispatchQueue;
using velmora::IpcConnection;
using velmora::IpcObject;
using velmora::IpcReply;
using velmora::LogLevel;
using velmora::makeDictionary;
using velmora::PropertyList;
using namespace velmora::testing;  // the shared fixtures of tests/support
using Source = ZKVRemotePreferencesSource;
using Steps = std::vector<std::string>;

constexpr auto kPatience = 10s;

PropertyList str(std::string text) { return PropertyList::string(std::move(text)); }

// What happened on each connection made so far, in order: "send <message>",
// "cancel", "reply ok" or "reply <error kind>".
class ConnectionDiary {
 public:
  std::size_t open() {
    std::lock_guard lock(mutex_);
    entries_.emplace_back();
    return entries_.size() - 1;
  }
  void note(std::size_t connection, std::string step) {
    std::lock_guard lock(mutex_);
    entries_[connection].push_back(std::move(step));
  }
  std::vector<Steps> entries() const {
    std::lock_guard lock(mutex_);
    return entries_;
  }

 private:
  mutable std::mutex mutex_;
  std::vector<Steps> entries_;  // guarded by mutex_; one per connection
};

// Forwards to a real connection and notes each step in the diary.
class RecordedConnection final : public IpcConnection {
 public:
  RecordedConnection(std::shared_ptr<IpcConnection> inner, std::shared_ptr<ConnectionDiary> diary)
      : inner_(std::move(inner)), diary_(std::move(diary)), index_(diary_->open()) {}

  const std::string& serviceName() const noexcept override { return inner_->serviceName(); }
  void setEventHandler(velmora::IpcEventHandler handler) override { inner_->setEventHandler(std::move(handler)); }
  void resume() override { inner_->resume(); }
  void send(const IpcObject& request) override {
    diary_->note(index_, "send " + messageOf(request));
    inner_->send(request);
  }
  void sendWithReply(const IpcObject& request, std::shared_ptr<DispatchQueue> replyQueue,
                     velmora::IpcReplyHandler handler) override {
    diary_->note(index_, "send " + messageOf(request));
    inner_->sendWithReply(request, std::move(replyQueue),
                          [diary = diary_, index = index_, handler = std::move(handler)](IpcReply reply) {
                            diary->note(index, reply.ok() ? std::string("reply ok")
                                                          : "reply " + std::string(velmora::ipcErrorKindName(
                                                                           reply.error->kind)));
                            handler(std::move(reply));
                          });
  }
  IpcReply sendAndWait(const IpcObject& request) override {
    diary_->note(index_, "send " + messageOf(request));
    return inner_->sendAndWait(request);
  }
  void cancel() override {
    diary_->note(index_, "cancel");
    inner_->cancel();
  }
  void setCallTimeout(std::chrono::milliseconds timeout) override { inner_->setCallTimeout(timeout); }

 private:
  static std::string messageOf(const IpcObject& request) {
    const PropertyList* message = request.dictionary().find("message");
    return message != nullptr && message->isString() ? *message->getString() : "?";
  }

  const std::shared_ptr<IpcConnection> inner_;
  const std::shared_ptr<ConnectionDiary> diary_;
  const std::size_t index_;
};

class ManagementTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { PrivateBus::instance(); }

  void SetUp() override {
    // The real transport, redirected to the test's own bus name and recorded.
    auto recorded = [diary = diary_](std::shared_ptr<IpcConnection> inner) {
      return std::make_shared<RecordedConnection>(std::move(inner), diary);
    };
    services_.install(velmora::setIpcService,
                      std::make_shared<RedirectingIpcService>(busName_, velmora::DbusIpcOptions{}, std::move(recorded)));
    services_.install(velmora::setLogSink, log_);
  }
  void TearDown() override { daemon_.reset(); }

  void startDaemon(std::vector<std::string> arguments = {}) {
    arguments.insert(arguments.end(), {"--default", "userinfo", "--record-plists", root_.string(), "--timeline",
                                       (root_ / "timeline").string()});
    daemon_ = startResponder(busName_, arguments);
    ASSERT_NE(daemon_, nullptr);
  }
  std::vector<std::string> arrivedMessages() const {
    std::vector<std::string> messages;
    for (const auto& arrival : readTimeline((root_ / "timeline").string())) {
      messages.push_back(arrival.message);
    }
    return messages;
  }
  bool waitForSteps(std::size_t connection, std::size_t count) {
    return waitUntil(
        [&] {
          auto entries = diary_->entries();
          return entries.size() > connection && entries[connection].size() >= count;
        },
        kPatience);
  }
  bool logged(LogLevel level, const std::string& message) const {
    return loggedOnDefaultChannel(*log_, level, message);
  }
  bool waitForLog(LogLevel level, const std::string& message) const {
    return waitUntil([&] { return logged(level, message); }, kPatience);
  }

  const ScratchDirectory scratch_{"zkv-management"};
  const fs::path root_ = scratch_.path();
  const std::string busName_ = uniqueBusName("com.vantrel.test.management");
  std::unique_ptr<ChildProcess> daemon_;
  std::shared_ptr<ConnectionDiary> diary_ = std::make_shared<ConnectionDiary>();
  std::shared_ptr<velmora::CapturingLogSink> log_ = std::make_shared<velmora::CapturingLogSink>();
  ScopedServices services_;  // put back before the scratch directory goes
};

// Counts completions and where they ran.
class Completions {
 public:
  std::function<void()> handler() {
    return [this] {
      std::lock_guard lock(mutex_);
      ++calls_;
      onMain_ = onMain_ && DispatchQueue::main().isCurrent();
    };
  }
  int calls() const {
    std::lock_guard lock(mutex_);
    return calls_;
  }
  bool onMain() const {
    std::lock_guard lock(mutex_);
    return onMain_;
  }

 private:
  mutable std::mutex mutex_;
  int calls_ = 0;       // guarded by mutex_
  bool onMain_ = true;  // guarded by mutex_
};

// Runs everything the main queue holds now, so a second completion queued
// by mistake would have shown.
void drainMainQueue() {
  std::mutex mutex;
  std::condition_variable done;
  bool ran = false;
  DispatchQueue::main().async([&] {
    std::lock_guard lock(mutex);
    ran = true;
    done.notify_all();
  });
  std::unique_lock lock(mutex);
  ASSERT_TRUE(done.wait_for(lock, kPatience, [&] { return ran; }));
}

TEST_F(ManagementTest, ResetShutsDownAtOnceAndCompletesWhateverTheDaemonDoes) {
  // A daemon slow to answer: the client is cancelled before the reply could
  // come, and the cancelled request still completes.
  startDaemon({"--on", "resetapps=delay"});
  Completions slow;
  Source::resetAllApplicationsWithCompletionHandler(slow.handler());
  ASSERT_TRUE(waitUntil([&] { return slow.calls() == 1; }, kPatience));
  EXPECT_EQ(diary_->entries()[0], (Steps{"send resetapps", "cancel", "reply connection-invalid"}));
  daemon_.reset();

  // A daemon answering with an error, and no daemon at all.
  startDaemon({"--on", "resetapps=error"});
  Completions refused;
  Source::resetAllApplicationsWithCompletionHandler(refused.handler());
  ASSERT_TRUE(waitUntil([&] { return refused.calls() == 1; }, kPatience));
  daemon_.reset();
  Completions absent;
  Source::resetAllApplicationsWithCompletionHandler(absent.handler());
  ASSERT_TRUE(waitUntil([&] { return absent.calls() == 1; }, kPatience));

  drainMainQueue();
  for (const Completions* completions : {&slow, &refused, &absent}) {
    EXPECT_EQ(completions->calls(), 1);
    EXPECT_TRUE(completions->onMain());
  }
  // With a prompt answer the cancel races the reply; either way it is sent.
  for (const Steps& steps : diary_->entries()) {
    ASSERT_FALSE(steps.empty());
    EXPECT_EQ(steps[0], "send resetapps");
    EXPECT_EQ(std::count(steps.begin(), steps.end(), "cancel"), 1);
  }
}

TEST_F(ManagementTest, ResetWithoutCompletionStillSendsAndShutsDown) {
  startDaemon();
  Source::resetAllApplicationsWithCompletionHandler(nullptr);
  ASSERT_TRUE(waitForSteps(0, 3));
  const Steps steps = diary_->entries()[0];
  EXPECT_EQ(std::count(steps.begin(), steps.end(), "cancel"), 1);
  ASSERT_TRUE(waitUntil([&] { return !arrivedMessages().empty(); }, kPatience));
  const auto requests = readRecordedRequests(root_.string());
  ASSERT_EQ(requests.size(), 1u);
  // No store identity on account-wide requests.
  EXPECT_EQ(requests[0], makeDictionary({{"message", str("resetapps")}, {"userinfo", PropertyList::dictionary({})}}));
}

TEST_F(ManagementTest, AccountChangesAreNotedWithAPing) {
  startDaemon();
  Source::noteAccountChanges(nullptr);
  Source::noteAccountChanges(&busName_);  // the argument plays no part
  const velmora::CapturedLogLine noted{"com.vantrel.velmora", "Default", LogLevel::Default,
                                      "ZKVRemotePreferencesSource notes accounts changed"};
  const auto lines = log_->lines();
  EXPECT_EQ(std::count(lines.begin(), lines.end(), noted), 2);
  // Each temporary client is shut down by the reply.
  ASSERT_TRUE(waitForSteps(0, 3));
  ASSERT_TRUE(waitForSteps(1, 3));
  for (const Steps& steps : diary_->entries()) EXPECT_EQ(steps, (Steps{"send ping", "reply ok", "cancel"}));
  const PropertyList ping = makeDictionary({{"message", str("ping")}, {"userinfo", PropertyList::dictionary({})}});
  EXPECT_EQ(readRecordedRequests(root_.string()), (std::vector<PropertyList>{ping, ping}));
}

TEST_F(ManagementTest, MigrationSendsTheIdentifierAndLogsTheOutcome) {
  startDaemon();
  Source::migrateVelmoraForBundleIdentifier("com.example.moved");
  const std::string done = makeDictionary({{"parameter", str("com.example.moved")}}).description();
  ASSERT_TRUE(waitForLog(LogLevel::Default, "Reply from request to migrate com.example.moved nimbrel store: " + done));
  ASSERT_TRUE(waitForSteps(0, 3));
  EXPECT_EQ(diary_->entries()[0], (Steps{"send migrate", "reply ok", "cancel"}));
  EXPECT_EQ(
      readRecordedRequests(root_.string()),
      std::vector<PropertyList>{makeDictionary(
          {{"message", str("migrate")}, {"userinfo", makeDictionary({{"parameter", str("com.example.moved")}})}})});

  auto loggedStartingWith = [&](const std::string& prefix) {
    const auto lines = log_->lines();
    return std::any_of(lines.begin(), lines.end(), [&](const auto& line) {
      return line.level == LogLevel::Default && line.message.starts_with(prefix);
    });
  };
  // Without an identifier: logged, and nothing is sent or even connected.
  Source::migrateVelmoraForBundleIdentifier(nullptr);
  EXPECT_TRUE(loggedStartingWith("Error sending request to velmora daemon to migrate (null) nimbrel store: "));
  EXPECT_EQ(diary_->entries().size(), 1u);

  // Without a daemon the transport's error is what gets logged.
  daemon_.reset();
  Source::migrateVelmoraForBundleIdentifier("com.example.stranded");
  ASSERT_TRUE(waitUntil([&] { return loggedStartingWith("Reply from request to migrate com.example.stranded nimbrel "
                                                        "store: " + std::string(kZKVPOSIXErrorDomain) + " error 22"); },
                        kPatience));
}

}  // namespace
