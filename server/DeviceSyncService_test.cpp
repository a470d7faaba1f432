// The gRPC face of the service, in process over loopback: tokens, accounts
// kept apart, watch streams, limits, shutdown, and the listen rules.
#include "SyncService.h"

#include <gtest/gtest.h>

#include <regex>
#include <set>

#include "Accounts.h"
#include "ScratchEnvironment.h"
#include "Server.h"
#include "ServerTestSupport.h"
#include "SqliteStorage.h"
#include "velmora/platform/Network.h"

namespace velmora::server {
namespace {

using namespace std::chrono_literals;
using testing::OpenWatch;
using testing::openWatch;
using testing::pushOf;
using testing::TokenClient;
using testing::valueRecord;

class DeviceSyncServiceTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string error;
    storage_ = openSqliteStorage(directory_.file("sync.sqlite"), &error);
    ASSERT_NE(storage_, nullptr) << error;
    Result<std::string> alice = addAccount(*storage_, "alice");
    Result<std::string> bob = addAccount(*storage_, "bob");
    ASSERT_TRUE(alice.ok() && bob.ok());
    aliceToken_ = alice.value();
    bobToken_ = bob.value();
    NodeOptions options;
    options.limits.maxKeyCount = 7;
    options.maxWatches = 3;
    options.clock = [] { return testing::kNow; };
    node_ = SyncNode::start(*storage_, options, &error);
    ASSERT_NE(node_, nullptr) << error;
  }

  TokenClient client(const std::string& token) { return TokenClient::plaintext(node_->address(), token); }

  velmora::testing::ScratchDirectory directory_{"velmora-service-test"};
  std::unique_ptr<Storage> storage_;
  std::unique_ptr<SyncNode> node_;
  std::string aliceToken_;
  std::string bobToken_;
};

TEST_F(DeviceSyncServiceTest, EveryCallNeedsItsAccountsToken) {
  // (metadata value or none, expected code) for every method.
  const std::vector<std::pair<std::optional<std::string>, grpc::StatusCode>> cases = {
      {std::nullopt, grpc::StatusCode::UNAUTHENTICATED},
      {"Bearer not-a-token", grpc::StatusCode::UNAUTHENTICATED},
      {"Basic " + aliceToken_, grpc::StatusCode::UNAUTHENTICATED},
      {"Bearer ", grpc::StatusCode::UNAUTHENTICATED},
      {"bearer " + aliceToken_, grpc::StatusCode::OK},
  };
  TokenClient anonymous = client("");
  for (const auto& testCase : cases) {
    const std::optional<std::string>& authorization = testCase.first;
    const grpc::StatusCode expected = testCase.second;
    SCOPED_TRACE(authorization.value_or("(none)"));
    auto context = [&] {
      auto c = anonymous.context();
      if (authorization) c->AddMetadata("authorization", *authorization);
      return c;
    };
    pb::PushReply pushReply;
    EXPECT_EQ(anonymous.stub().Push(context().get(), pushOf("app", "dev", {}), &pushReply).error_code(), expected);
    pb::PullRequest pullRequest;
    pullRequest.set_store("app");
    pb::PullReply pullReply;
    EXPECT_EQ(anonymous.stub().Pull(context().get(), pullRequest, &pullReply).error_code(), expected);
    pb::ListStoresReply listReply;
    EXPECT_EQ(anonymous.stub().ListStores(context().get(), {}, &listReply).error_code(), expected);
    pb::StoreLimits limits;
    EXPECT_EQ(anonymous.stub().GetLimits(context().get(), {}, &limits).error_code(), expected);
    if (expected == grpc::StatusCode::OK) {
      EXPECT_EQ(limits.max_key_count(), 7);
      EXPECT_EQ(limits.max_key_data_sum(), 1048576);
      continue;
    }
    auto watchContext = context();
    auto reader = anonymous.stub().Watch(watchContext.get(), {});
    pb::WatchNotice notice;
    EXPECT_FALSE(reader->Read(&notice));
    EXPECT_EQ(reader->Finish().error_code(), expected);
    // Turned away before its message is read, even one past the size
    // allowed to accounts (which would fail with RESOURCE_EXHAUSTED).
    pb::PushRequest huge = pushOf("app", "dev", {valueRecord("k", std::string(9 << 20, 'h'), 100)});
    EXPECT_EQ(anonymous.stub().Push(context().get(), huge, &pushReply).error_code(), expected);
  }
}

TEST_F(DeviceSyncServiceTest, AReplacedTokenEndsItsWatchesWhichAreCappedPerAccount) {
  TokenClient alice = client(aliceToken_);
  TokenClient bob = client(bobToken_);
  std::vector<OpenWatch> watches;
  for (int i = 0; i < 3; ++i) {
    watches.push_back(openWatch(alice, "dev"));
    ASSERT_TRUE(watches.back().next());
  }
  OpenWatch over = openWatch(alice, "dev");
  EXPECT_FALSE(over.next());
  EXPECT_EQ(over.reader->Finish().error_code(), grpc::StatusCode::RESOURCE_EXHAUSTED);
  OpenWatch bobs = openWatch(bob, "dev");
  ASSERT_TRUE(bobs.next());

  // Replaced by another process, as the command line does: the old token's
  // watches end, its calls fail, the new one works until it is revoked.
  std::string error;
  std::unique_ptr<Storage> tool = openSqliteStorage(directory_.file("sync.sqlite"), &error);
  ASSERT_NE(tool, nullptr) << error;
  Result<std::string> fresh = replaceToken(*tool, "alice");
  ASSERT_TRUE(fresh.ok()) << fresh.error();
  for (OpenWatch& watch : watches) {
    EXPECT_FALSE(watch.next());
    EXPECT_EQ(watch.reader->Finish().error_code(), grpc::StatusCode::UNAUTHENTICATED);
  }
  pb::PushReply reply;
  EXPECT_EQ(alice.push(pushOf("app", "dev", {}), &reply).error_code(), grpc::StatusCode::UNAUTHENTICATED);
  TokenClient renewed = client(fresh.value());
  EXPECT_TRUE(renewed.push(pushOf("app", "dev", {}), &reply).ok());
  ASSERT_TRUE(revokeToken(*tool, "alice").ok());
  EXPECT_EQ(renewed.push(pushOf("app", "dev", {}), &reply).error_code(), grpc::StatusCode::UNAUTHENTICATED);
  ASSERT_TRUE(bob.push(pushOf("app", "dev", {valueRecord("k", "v", 100)}), &reply).ok());
  EXPECT_TRUE(bobs.next()) << "another account's watch ended";
}

TEST_F(DeviceSyncServiceTest, WatchSendsTheRevisionThenEachChangeOfItsOwnAccount) {
  TokenClient alice = client(aliceToken_);
  TokenClient bob = client(bobToken_);
  pb::PushReply reply;
  ASSERT_TRUE(alice.push(pushOf("s0", "dev-a", {valueRecord("k", "v", 100)}), &reply).ok());

  OpenWatch watch = openWatch(alice, "dev-b");
  std::optional<pb::WatchNotice> first = watch.next();
  ASSERT_TRUE(first);
  EXPECT_EQ(first->store(), "");
  EXPECT_EQ(first->revision(), 1);

  // bob's writes, even to a store of the same name, are not alice's business.
  ASSERT_TRUE(bob.push(pushOf("s1", "bob-dev", {valueRecord("k", "bob", 100)}), &reply).ok());
  ASSERT_TRUE(alice.push(pushOf("s1", "dev-a", {valueRecord("a", "v", 100), valueRecord("b", "v", 100)}), &reply).ok());
  std::optional<pb::WatchNotice> change = watch.next();
  ASSERT_TRUE(change);
  EXPECT_EQ(change->store(), "s1");
  EXPECT_EQ(change->revision(), 3);
  EXPECT_EQ(change->origin_device(), "dev-a");

  pb::PullReply pulled;
  ASSERT_TRUE(bob.pull("s1", 0, &pulled).ok());
  ASSERT_EQ(pulled.records_size(), 1);
  EXPECT_EQ(pulled.records(0).value(), valueRecord("k", "bob", 100).value());
  pb::ListStoresReply stores;
  ASSERT_TRUE(bob.stub().ListStores(bob.context().get(), {}, &stores).ok());
  ASSERT_EQ(stores.stores_size(), 1);

  // A burst of writes to several stores: each store is reported, the last
  // notice of each carrying its newest revision.
  for (int i = 0; i < 20; ++i) {
    const std::string store = "burst" + std::to_string(i % 3);
    ASSERT_TRUE(alice.push(pushOf(store, "dev-a", {valueRecord("k", std::to_string(i), 200 + i)}), &reply).ok());
  }
  const std::string lastStore = "burst" + std::to_string(19 % 3);
  std::map<std::string, std::int64_t> newest;
  while (!newest.contains(lastStore) || newest[lastStore] != reply.revision()) {
    std::optional<pb::WatchNotice> notice = watch.next();
    ASSERT_TRUE(notice) << "the watch ended early";
    EXPECT_GT(notice->revision(), newest[notice->store()]) << "notices of a store go backwards";
    newest[notice->store()] = notice->revision();
  }
  EXPECT_EQ(newest.size(), 3u);
}

TEST_F(DeviceSyncServiceTest, ShutdownEndsTheWatchesAndRefusesNewOnes) {
  TokenClient alice = client(aliceToken_);
  std::vector<OpenWatch> watches;
  for (int i = 0; i < 3; ++i) {
    watches.push_back(openWatch(alice, "dev"));
    ASSERT_TRUE(watches.back().next());
  }
  EXPECT_EQ(node_->hub().size(), 3u);
  node_->shutdown();
  for (OpenWatch& watch : watches) {
    EXPECT_FALSE(watch.next());
    EXPECT_EQ(watch.reader->Finish().error_code(), grpc::StatusCode::UNAVAILABLE);
  }
  EXPECT_EQ(node_->hub().size(), 0u);
  // The storage outlives the node and still works.
  EXPECT_TRUE(storage_->accountRevision(1).ok());
}

TEST(ListenAddressTest, PlaintextOnlyOnLoopback) {
  struct Case {
    std::string address;
    std::optional<std::string> host;  // nullopt: malformed
    bool loopback;
  };
  const Case cases[] = {
      {"127.0.0.1:0", "127.0.0.1", true},   {"127.8.9.1:443", "127.8.9.1", true},
      {"localhost:5000", "localhost", true}, {"[::1]:0", "[::1]", true},
      {"0.0.0.0:0", "0.0.0.0", false},       {"[::]:1", "[::]", false},
      {"192.168.1.2:80", "192.168.1.2", false}, {"example.org:1", "example.org", false},
      {"::1:0", std::nullopt, false},        {"127.0.0.1", std::nullopt, false},
      {"127.0.0.1:70000", std::nullopt, false}, {":80", std::nullopt, false},
      {"[::1:0", std::nullopt, false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.address);
    auto parsed = parseListenAddress(c.address);
    ASSERT_EQ(parsed.has_value(), c.host.has_value());
    if (!parsed) continue;
    EXPECT_EQ(parsed->first, *c.host);
    EXPECT_EQ(velmora::isLoopbackHost(parsed->first), c.loopback);
  }

  velmora::testing::ScratchDirectory directory("velmora-listen-test");
  std::string error;
  std::unique_ptr<Storage> storage = openSqliteStorage(directory.file("db"), &error);
  ASSERT_NE(storage, nullptr) << error;
  NodeOptions options;
  options.listen = "0.0.0.0:0";
  EXPECT_EQ(SyncNode::start(*storage, options, &error), nullptr);
  EXPECT_NE(error.find("TLS"), std::string::npos) << error;
}

TEST(AccountsTest, TokensAreRandomAndOnlyTheirHashesAreKept) {
  std::set<std::string> tokens;
  for (int i = 0; i < 50; ++i) {
    Result<std::string> token = generateToken();
    ASSERT_TRUE(token.ok());
    EXPECT_TRUE(std::regex_match(token.value(), std::regex("[A-Za-z0-9_-]{43}"))) << token.value();
    tokens.insert(token.value());
  }
  EXPECT_EQ(tokens.size(), 50u);
  EXPECT_EQ(hashToken("abc"), "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");

  EXPECT_EQ(bearerToken("Bearer abc"), std::optional<std::string_view>("abc"));
  EXPECT_EQ(bearerToken("BEARER abc"), std::optional<std::string_view>("abc"));
  for (const char* bad : {"", "Bearer", "Bearer ", "Bearer a b", "Basic abc", "Bearerabc"}) {
    EXPECT_FALSE(bearerToken(bad)) << bad;
  }

  velmora::testing::ScratchDirectory directory("velmora-accounts-test");
  std::string error;
  std::unique_ptr<Storage> storage = openSqliteStorage(directory.file("db"), &error);
  ASSERT_NE(storage, nullptr) << error;
  Result<std::string> token = addAccount(*storage, "carol");
  ASSERT_TRUE(token.ok()) << token.error();
  EXPECT_FALSE(addAccount(*storage, "carol").ok());
  EXPECT_FALSE(addAccount(*storage, "").ok());
  Result<std::optional<Account>> found = storage->accountForTokenHash(hashToken(token.value()));
  ASSERT_TRUE(found.ok() && found.value());
  EXPECT_EQ(found.value()->name, "carol");
  EXPECT_FALSE(storage->accountForTokenHash(token.value()).value()) << "a token must not work as its own hash";
}

}  // namespace
}  // namespace velmora::server
