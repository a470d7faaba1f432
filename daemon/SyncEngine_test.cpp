// The sync engine against faults the real server cannot produce on demand:
// a push the server stored but whose answer was lost, and a daemon restart
// while changes wait to go out. The server here is a small in-memory stand-in
// (last writer wins, revisions per account) with switches for those faults;
// the stores are real files, changed through the real Store.
#include "SyncEngine.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <atomic>
#include <condition_variable>
#include <filesystem>
#include <future>
#include <map>
#include <mutex>

#include "Store.h"
#include "SyncRecords.h"
#include "velmora/platform/PlistCodec.h"
#include "zkv/ZKVEncoding.h"

namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using velmora::PlistDictionary;
using velmora::PropertyList;
using namespace velmorad;

// The server's side, shared by every client made for it.
class FakeServer {
 public:
  // While down every call fails as unreachable.
  void setDown(bool down) {
    std::lock_guard lock(mutex_);
    down_ = down;
    changed_.notify_all();
  }
  // The next push is stored, but its caller hears the server went away.
  void loseNextPushReply() {
    std::lock_guard lock(mutex_);
    loseNextReply_ = true;
  }
  int pushes() {
    std::lock_guard lock(mutex_);
    return pushes_;
  }
  // The value the server holds for key of store, or none.
  PropertyList value(const std::string& store, const std::string& key) {
    std::lock_guard lock(mutex_);
    auto it = stores_[store].find(key);
    if (it == stores_[store].end() || it->second.deleted()) return {};
    std::string error;
    return decodeRemoteRecord(it->second, &error)->value;
  }

  SyncCallResult push(const syncpb::PushRequest& request, syncpb::PushReply* reply) {
    std::lock_guard lock(mutex_);
    if (down_) return {SyncCallStatus::Unreachable, "down"};
    ++pushes_;
    auto& records = stores_[request.store()];
    for (const syncpb::Record& pushed : request.records()) {
      syncpb::PushResult* result = reply->add_results();
      result->set_key(pushed.key());
      auto it = records.find(pushed.key());
      if (it != records.end() && it->second.timestamp() > pushed.timestamp()) {
        result->set_status(syncpb::PushResult::SUPERSEDED);
        *result->mutable_winner() = it->second;
        continue;
      }
      syncpb::Record stored = pushed;
      stored.set_revision(++revision_);
      records[pushed.key()] = stored;
      result->set_status(syncpb::PushResult::ACCEPTED);
      *result->mutable_winner() = stored;
    }
    reply->set_revision(revision_);
    changed_.notify_all();
    if (loseNextReply_) {
      loseNextReply_ = false;
      return {SyncCallStatus::Unreachable, "the answer was lost"};
    }
    return {};
  }

  SyncCallResult pull(const syncpb::PullRequest& request, syncpb::PullReply* reply) {
    std::lock_guard lock(mutex_);
    if (down_) return {SyncCallStatus::Unreachable, "down"};
    for (const auto& [key, record] : stores_[request.store()]) {
      if (record.revision() > request.since_revision()) *reply->add_records() = record;
    }
    reply->set_revision(revision_);
    reply->set_complete(true);
    return {};
  }

  SyncCallResult listStores(syncpb::ListStoresReply* reply) {
    std::lock_guard lock(mutex_);
    if (down_) return {SyncCallStatus::Unreachable, "down"};
    for (const auto& [name, records] : stores_) {
      syncpb::StoreState* state = reply->add_stores();
      state->set_store(name);
      for (const auto& [key, record] : records) state->set_revision(std::max(state->revision(), record.revision()));
    }
    return {};
  }

  // Sends the opening notice, then waits until cancelled or down.
  SyncCallResult watch(const std::function<void(const syncpb::WatchNotice&)>& onNotice,
                       const std::atomic<bool>& cancelled) {
    std::unique_lock lock(mutex_);
    if (down_) return {SyncCallStatus::Unreachable, "down"};
    syncpb::WatchNotice first;
    first.set_revision(revision_);
    lock.unlock();
    onNotice(first);
    lock.lock();
    changed_.wait(lock, [&] { return down_ || cancelled; });
    return cancelled ? SyncCallResult{SyncCallStatus::Cancelled, "cancelled"} : SyncCallResult{SyncCallStatus::Unreachable, "down"};
  }

  void wakeWatches() {
    std::lock_guard lock(mutex_);
    changed_.notify_all();
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  bool down_ = false;
  bool loseNextReply_ = false;
  int pushes_ = 0;
  std::int64_t revision_ = 0;
  std::map<std::string, std::map<std::string, syncpb::Record>> stores_;
};

class FakeClient final : public SyncClient {
 public:
  explicit FakeClient(FakeServer& server) : server_(server) {}
  SyncCallResult push(const syncpb::PushRequest& request, syncpb::PushReply* reply) override {
    return cancelled_ ? cancelledResult() : server_.push(request, reply);
  }
  SyncCallResult pull(const syncpb::PullRequest& request, syncpb::PullReply* reply) override {
    return cancelled_ ? cancelledResult() : server_.pull(request, reply);
  }
  SyncCallResult listStores(syncpb::ListStoresReply* reply) override {
    return cancelled_ ? cancelledResult() : server_.listStores(reply);
  }
  SyncCallResult watch(const syncpb::WatchRequest&,
                       const std::function<void(const syncpb::WatchNotice&)>& onNotice) override {
    return cancelled_ ? cancelledResult() : server_.watch(onNotice, cancelled_);
  }
  void cancel() override {
    cancelled_ = true;
    server_.wakeWatches();
  }

 private:
  static SyncCallResult cancelledResult() { return {SyncCallStatus::Cancelled, "cancelled"}; }
  FakeServer& server_;
  std::atomic<bool> cancelled_{false};  // set before the watch's wait is woken
};

// Stores as files in one directory, each behind a mutex standing in for its queue.
class FileHost final : public SyncHost {
 public:
  explicit FileHost(fs::path dir) : dir_(std::move(dir)) {}
  void withStore(const std::string& name, const std::function<void(Store&)>& work) override {
    std::unique_lock lock(mutex_);
    auto& slot = stores_[name];
    if (!slot) slot = std::make_unique<Store>(dir_ / (name + ".plist"));
    work(*slot);
  }
  std::vector<std::string> localStoreNames() override {
    std::vector<std::string> names;
    std::error_code ec;
    for (const auto& item : fs::directory_iterator(dir_, ec)) {
      if (item.path().extension() == ".plist") names.push_back(item.path().stem().string());
    }
    return names;
  }
  void notifyStoresChanged() override {}

 private:
  const fs::path dir_;
  std::mutex mutex_;
  std::map<std::string, std::unique_ptr<Store>> stores_;
};

class SyncEngineTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/velmorad-engine-XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    root_ = pattern;
    fs::create_directories(root_ / "stores");
  }
  void TearDown() override { fs::remove_all(root_); }

  std::unique_ptr<SyncEngine> makeEngine(FileHost& host) {
    SyncEngineOptions options;
    options.minBackoff = 20ms;
    options.maxBackoff = 100ms;
    return std::make_unique<SyncEngine>(host, root_ / "config" / "account.plist",
                                        [this](const AccountConfig&, std::string*) -> std::unique_ptr<SyncClient> {
                                          return std::make_unique<FakeClient>(server_);
                                        },
                                        options);
  }
  static SyncReply wait(const std::function<void(SyncReplyHandler)>& request) {
    auto promise = std::make_shared<std::promise<SyncReply>>();
    std::future<SyncReply> future = promise->get_future();
    request([promise](SyncReply reply) { promise->set_value(std::move(reply)); });
    EXPECT_EQ(future.wait_for(10s), std::future_status::ready);
    return future.get();
  }
  static void write(FileHost& host, SyncEngine& engine, const std::string& key, const std::string& value,
                    std::int64_t timestamp) {
    host.withStore("app", [&](Store& store) {
      ASSERT_TRUE(store.applyChanges({{key, ZKVCreateStorageForPropertyListAndTimestamp(PropertyList::string(value),
                                                                                        timestamp)}},
                                     ChangeOrigin::Client, {})
                      .written);
    });
    engine.noteLocalChange("app");
  }
  static std::size_t pending(FileHost& host) {
    std::size_t count = 0;
    host.withStore("app", [&](Store& store) { count = countPending(*store.contents().getDictionary()); });
    return count;
  }
  static bool eventually(const std::function<bool()>& condition) {
    for (int i = 0; i < 500; ++i) {
      if (condition()) return true;
      std::this_thread::sleep_for(10ms);
    }
    return condition();
  }

  FakeServer server_;
  fs::path root_;
};

TEST_F(SyncEngineTest, NothingIsDroppedWhenAnswersAreLostOrTheDaemonRestartsOffline) {
  const std::int64_t now = currentRecordTimestamp();
  {
    FileHost host(root_ / "stores");
    auto engine = makeEngine(host);
    engine->start();
    ASSERT_TRUE(wait([&](SyncReplyHandler done) { engine->login("http://127.0.0.1:1", "token", std::move(done)); })
                    .ok());
    EXPECT_EQ(fs::status(root_ / "config" / "account.plist").permissions() & fs::perms::all,
              fs::perms::owner_read | fs::perms::owner_write);

    // The server stores the first push but its answer never arrives: the
    // record stays pending until it is acknowledged, by a second push or by
    // a pull that brings the stored record back (whichever comes first).
    server_.loseNextPushReply();
    write(host, *engine, "a", "1", now - 10);
    EXPECT_TRUE(eventually([&] { return pending(host) == 0; }));
    EXPECT_EQ(server_.value("app", "a"), PropertyList::string("1"));

    // Offline: a tracked synchronisation reports it, and the change waits.
    server_.setDown(true);
    const SyncReply offline = wait([&](SyncReplyHandler done) { engine->synchronize(std::move(done)); });
    EXPECT_EQ(offline.failure, SyncFailure::Unreachable);
    write(host, *engine, "b", "2", now - 5);
    EXPECT_EQ(pending(host), 1u);
    engine->stop();  // the daemon exits with the change unsent
  }
  EXPECT_EQ(server_.value("app", "b"), PropertyList());

  // A new daemon over the same files: the change is still pending and goes
  // out once the server is back, without anything written meanwhile.
  FileHost host(root_ / "stores");
  auto engine = makeEngine(host);
  engine->start();
  EXPECT_EQ(pending(host), 1u);
  server_.setDown(false);
  EXPECT_TRUE(eventually([&] { return pending(host) == 0; }));
  EXPECT_EQ(server_.value("app", "b"), PropertyList::string("2"));
  EXPECT_TRUE(wait([&](SyncReplyHandler done) { engine->synchronize(std::move(done)); }).ok());

  // Logging out stops the syncing; synchronising then has nothing to do.
  EXPECT_TRUE(wait([&](SyncReplyHandler done) { engine->logout(std::move(done)); }).ok());
  write(host, *engine, "c", "3", now);
  EXPECT_TRUE(wait([&](SyncReplyHandler done) { engine->synchronize(std::move(done)); }).ok());
  std::this_thread::sleep_for(100ms);
  EXPECT_EQ(server_.value("app", "c"), PropertyList());
  std::string error;
  std::optional<AccountConfig> saved = loadAccountConfig(root_ / "config" / "account.plist", &error);
  ASSERT_TRUE(saved) << error;
  EXPECT_FALSE(saved->loggedIn());
  EXPECT_EQ(saved->device.size(), 32u);  // the device identifier outlives the logout
}

TEST(SyncAccount, ServerUrlsAndAccountIdentifiers) {
  std::string error;
  auto plain = parseServerUrl("http://127.0.0.1:4000/", &error);
  ASSERT_TRUE(plain);
  EXPECT_EQ(plain->target, "127.0.0.1:4000");
  EXPECT_FALSE(plain->tls);
  EXPECT_FALSE(parseServerUrl("localhost:4000", &error)->tls);
  EXPECT_TRUE(parseServerUrl("sync.example.org:443", &error)->tls);
  EXPECT_TRUE(parseServerUrl("https://127.0.0.1:4000", &error)->tls);
  EXPECT_FALSE(parseServerUrl("http://[::1]:4000", &error)->tls);
  // A name that only looks like loopback gets TLS or nothing: the token must
  // not travel in plaintext to it.
  EXPECT_TRUE(parseServerUrl("127.evil.example:443", &error)->tls);
  for (const char* bad : {"ftp://h:1", "h", "h:", ":1", "http://h:1/path", "h:12x", "http://127.evil.example:443",
                          "http://sync.example.org:80"}) {
    EXPECT_FALSE(parseServerUrl(bad, &error)) << bad;
  }
  AccountConfig a{"http://h:1", "secret-token", "dev"};
  AccountConfig b{"https://elsewhere:2", "secret-token", "dev2"};
  AccountConfig c{"http://h:1", "other-token", "dev"};
  EXPECT_EQ(a.accountIdentifier(), b.accountIdentifier());  // the account is the token's, wherever the server moved
  EXPECT_NE(a.accountIdentifier(), c.accountIdentifier());
  EXPECT_EQ(a.accountIdentifier().find("secret"), std::string::npos);
  EXPECT_EQ(AccountConfig{}.accountIdentifier(), "");
  EXPECT_NE(newDeviceIdentifier(), newDeviceIdentifier());
}

}  // namespace
