// The service's rules against both storage backends: the conflict rule,
// refusals, limits, paging, accounts kept apart, revisions under concurrent
// pushes through several nodes.
#include "SyncService.h"

#include <fcntl.h>
#include <google/protobuf/text_format.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <map>
#include <mutex>
#include <set>
#include <thread>
#include <tuple>

#include "Accounts.h"
#include "PostgresCluster.h"
#include "PostgresStorage.h"
#include "ScratchEnvironment.h"
#include "Server.h"
#include "ServerTestSupport.h"
#include "SqliteStorage.h"

namespace velmora::server {
namespace {

using testing::deletion;
using testing::kNow;
using testing::pushOf;
using testing::valueRecord;
using Status = pb::PushResult::Status;
constexpr Status kAccepted = pb::PushResult::ACCEPTED, kSuperseded = pb::PushResult::SUPERSEDED,
                 kInvalid = pb::PushResult::REFUSED_INVALID, kLimit = pb::PushResult::REFUSED_LIMIT;

// Checks each result's status against expected, in order.
void expectStatuses(const pb::PushReply& reply, const std::vector<Status>& expected) {
  std::vector<Status> statuses;
  for (const pb::PushResult& result : reply.results()) statuses.push_back(result.status());
  EXPECT_EQ(statuses, expected);
}

// The keys of a pull's records in order; with deletedOnly, of its deletions only.
std::vector<std::string> keysOf(const pb::PullReply& reply, bool deletedOnly = false) {
  std::vector<std::string> keys;
  for (const pb::Record& record : reply.records()) {
    if (!deletedOnly || record.deleted()) keys.push_back(record.key());
  }
  return keys;
}


// A pull's keys, cursor and completeness, to compare pages in one go.
using Page = std::tuple<std::vector<std::string>, std::int64_t, bool>;
Page pageOf(const pb::PullReply& reply) { return {keysOf(reply), reply.revision(), reply.complete()}; }

// The parameter names the backend: "Sqlite" or "Postgres".
class SyncServiceTest : public ::testing::TestWithParam<std::string> {
 protected:
  void SetUp() override {
    if (GetParam() == "Postgres") {
      VELMORA_REQUIRE_POSTGRES(conninfo_);
    } else {
      directory_ = std::make_unique<velmora::testing::ScratchDirectory>("velmora-server-test");
    }
    storage_ = openAnother();
    ASSERT_NE(storage_, nullptr);
    for (auto [account, name] : {std::pair{&alice_, "alice"}, std::pair{&bob_, "bob"}}) {
      Result<Account> added = storage_->addAccount(name, hashToken(name + std::string("-token")));
      ASSERT_TRUE(added.ok()) << added.error();
      *account = added.value();
    }
    core_ = makeCore({});
  }

  // Another connection to the same database: for PostgreSQL another node.
  std::unique_ptr<Storage> openAnother() {
    std::string error;
    std::unique_ptr<Storage> storage = GetParam() == "Postgres"
                                           ? openPostgresStorage(conninfo_, &error, 2)
                                           : openSqliteStorage(directory_->file("sync.sqlite"), &error);
    EXPECT_NE(storage, nullptr) << error;
    return storage;
  }

  // A core on storage (the fixture's by default) whose clock reads now.
  std::unique_ptr<SyncCore> makeCore(Limits limits, Storage* storage = nullptr, std::int64_t maxStores = kDefaultMaxStores,
                                     std::int64_t now = kNow) {
    return std::make_unique<SyncCore>(storage ? *storage : *storage_, hub_, limits, [now] { return now; }, maxStores);
  }

  // Pushes and returns the reply, failing the test on a non-OK status.
  pb::PushReply push(const pb::PushRequest& request, const Account& account, SyncCore* core = nullptr) {
    pb::PushReply reply;
    grpc::Status status = (core ? core : core_.get())->push(account, request, &reply);
    EXPECT_TRUE(status.ok()) << status.error_message();
    return reply;
  }
  pb::PushReply push(const pb::PushRequest& request, SyncCore* core = nullptr) { return push(request, alice_, core); }
  // The status code of alice's push through core (the fixture's by default).
  grpc::StatusCode pushCode(const pb::PushRequest& request, SyncCore* core = nullptr) {
    pb::PushReply ignored;
    return (core ? core : core_.get())->push(alice_, request, &ignored).error_code();
  }

  pb::PullReply pull(const std::string& store, std::int64_t since = 0, int limit = 0, const Account* account = nullptr) {
    pb::PullRequest request;
    request.set_store(store);
    request.set_since_revision(since);
    request.set_limit(limit);
    pb::PullReply reply;
    grpc::Status status = core_->pull(account ? *account : alice_, request, &reply);
    EXPECT_TRUE(status.ok()) << status.error_message();
    return reply;
  }

  std::string conninfo_;
  std::unique_ptr<velmora::testing::ScratchDirectory> directory_;
  WatchHub hub_;
  std::unique_ptr<Storage> storage_;
  std::unique_ptr<SyncCore> core_;
  Account alice_, bob_;
};

TEST_P(SyncServiceTest, LastWriterWinsByTimestampAndTiesGoToTheLaterArrival) {
  const pb::Record tie = valueRecord("k", "two", 100, true);
  // Pushes in order: device, record, its status, and the winner's revision and device.
  const std::vector<std::tuple<std::string, pb::Record, Status, std::int64_t, std::string>> steps = {
      {"dev-a", valueRecord("other", "x", 100), kAccepted, 1, "dev-a"},
      {"dev-a", valueRecord("k", "one", 100), kAccepted, 2, "dev-a"},
      {"dev-b", valueRecord("k", "zero", 99), kSuperseded, 2, "dev-a"},  // older: the device learns what won
      {"dev-b", tie, kAccepted, 3, "dev-b"},                             // same time, later arrival: wins
      {"dev-b", tie, kAccepted, 3, "dev-b"},                             // a retry changes nothing
      {"dev-a", deletion("k", 101), kAccepted, 4, "dev-a"},              // a deletion wins by time too
      {"dev-c", valueRecord("k", "three", 100), kSuperseded, 4, "dev-a"},
  };
  std::map<std::string, pb::Record> winners;
  for (const auto& [device, record, status, revision, winnerDevice] : steps) {
    SCOPED_TRACE(record.key() + " from " + device);
    if (status == kAccepted) winners[record.key()] = record;
    winners[record.key()].set_revision(revision);  // as the server keeps it
    winners[record.key()].set_origin_device(winnerDevice);
    pb::PushReply reply = push(pushOf("app", device, {record}));
    ASSERT_EQ(reply.results_size(), 1);
    EXPECT_EQ(reply.results(0).status(), status);
    EXPECT_EQ(reply.revision(), revision);
    EXPECT_EQ(reply.results(0).winner().ShortDebugString(), winners[record.key()].ShortDebugString());
  }
  // The whole records, the deletion's without a value.
  const pb::PullReply all = pull("app");
  EXPECT_EQ(pageOf(all), Page({"other", "k"}, 4, true));
  EXPECT_EQ(all.records(1).ShortDebugString(), winners["k"].ShortDebugString());
}

TEST_P(SyncServiceTest, RefusesMalformedFutureAndOverLimitRecords) {
  // A good record of key with the fields text gives changed.
  const auto changed = [](const std::string& key, const std::string& text) {
    pb::Record record = valueRecord(key, "v", 100);
    EXPECT_TRUE(google::protobuf::TextFormat::MergeFromString(text, &record)) << text;
    return record;
  };
  pb::Record trailing = valueRecord("trailing", "v", 100, true);  // stored whole, measured by its first member
  trailing.mutable_value()->append(std::string(4 << 20, 'j'));
  pb::PushReply reply = push(pushOf(
      "app", "dev",
      {changed("", ""), changed("zero", "timestamp: 0"), changed("garbage", "value: 'not a value'"),
       changed("falsegzip", "gzipped: true"), changed("mismatch", "timestamp: 101"), changed(std::string("a\0b", 3), ""),
       trailing, valueRecord("soon", "v", kNow + kMaxFutureSeconds), valueRecord("later", "v", kNow + kMaxFutureSeconds + 1)}));
  expectStatuses(reply, {kInvalid, kInvalid, kInvalid, kInvalid, kInvalid, kInvalid, kInvalid, kAccepted,
                         pb::PushResult::REFUSED_FUTURE});
  EXPECT_FALSE(reply.results(8).reason().empty());

  // A future write to a key the server has comes back with the stored record.
  pb::PushReply future = push(pushOf("app", "dev", {valueRecord("soon", "v2", kNow + kMaxFutureSeconds + 60)}));
  EXPECT_EQ(future.results(0).status(), pb::PushResult::REFUSED_FUTURE);
  EXPECT_EQ(future.results(0).winner().timestamp(), kNow + kMaxFutureSeconds);

  EXPECT_EQ(keysOf(pull("app")), std::vector<std::string>{"soon"});

  // Bad names, and a key given twice, refuse the whole call.
  for (const std::string& store : {std::string(), std::string("a\0b", 3), std::string(kMaxNameBytes + 1, 's')}) {
    EXPECT_EQ(pushCode(pushOf(store, "dev", {valueRecord("k", "v", 100)})), grpc::StatusCode::INVALID_ARGUMENT);
  }
  EXPECT_EQ(pushCode(pushOf("app", "dev", {deletion("k", 100), deletion("k", 101)})), grpc::StatusCode::INVALID_ARGUMENT);

  // Keys over the store's limits are refused one by one, here in a store of their own.
  const auto size = [](const std::string& text) { return std::int64_t(testing::serialised(text, 1).size()); };
  const std::string hundred(100, 'h');
  const std::string ten(10, 't');
  Limits limits{.maxKeyCount = 3, .maxKeyNameLen = 8, .maxKeyDataLen = size(hundred),
                .maxKeyDataSum = 2 * size(hundred) + size(ten) + 5};

  std::unique_ptr<SyncCore> core = makeCore(limits);
  const auto pushTo = [&](std::initializer_list<pb::Record> records, SyncCore* to = nullptr) {
    return push(pushOf("limited", "dev", records), to ? to : core.get());
  };

  // Sizes count the uncompressed value: a value that gzips small is still too long.
  pb::PushReply first = pushTo({valueRecord("a", hundred, 100), valueRecord("longername", ten, 100),
                                valueRecord("big", hundred + "h", 100), valueRecord("zipped", std::string(4000, 'z'), 100, true),
                                valueRecord("b", hundred, 100), valueRecord("c", hundred, 100)});
  *first.add_results() = pushTo({valueRecord("c", ten, 101)}).results(0);
  expectStatuses(first, {kAccepted, kLimit, kLimit, kLimit, kAccepted, kLimit, kAccepted});
  EXPECT_FALSE(first.results(1).has_winner());  // the server has no record of a refused new key

  // A fourth key breaks the count; deleting one makes room. Deletions of
  // keys the store does not hold meet the name limit like writes, and the
  // store keeps max_key_count of them, the oldest going first.
  expectStatuses(pushTo({valueRecord("d", "x", 100), deletion(std::string(5000, 'n'), 100), deletion("x1", 100),
                         deletion("x2", 100), deletion("x3", 100), deletion("x4", 100)}),
                 {kLimit, kLimit, kAccepted, kAccepted, kAccepted, kAccepted});
  EXPECT_EQ(keysOf(pull("limited"), true), (std::vector<std::string>{"x2", "x3", "x4"}));
  expectStatuses(pushTo({deletion("a", 102), valueRecord("d", "x", 100)}), {kAccepted, kAccepted});

  // Growing past the sum is refused with the stored record; shrinking a
  // store that is over the sum (after the limit dropped) is not.
  pb::PushReply grow = pushTo({valueRecord("d", hundred, 103), valueRecord("c", ten + ten, 103)});
  expectStatuses(grow, {kAccepted, kLimit});  // the first up to 5 bytes under the sum
  EXPECT_EQ(grow.results(1).winner().value(), valueRecord("c", ten, 101).value());
  limits.maxKeyDataSum = size(ten);
  expectStatuses(pushTo({valueRecord("b", ten, 104)}, makeCore(limits).get()), {kAccepted});

  // A gzip stream that inflates far past the value limit is stopped early.
  pb::PushReply bomb = pushTo({valueRecord("b", std::string(8 << 20, 'b'), 105, true)});
  EXPECT_EQ(bomb.results(0).status(), kLimit);
  EXPECT_EQ(bomb.results(0).winner().timestamp(), 104);
}

TEST_P(SyncServiceTest, PullPagesTheNewestVersionOfEachKeyByRevisionPerAccount) {
  push(pushOf("s1", "dev", {valueRecord("k1", "a", 100), valueRecord("k2", "a", 100), valueRecord("k3", "a", 100)}));
  push(pushOf("s2", "dev", {valueRecord("x", "a", 100)}));
  push(pushOf("s1", "dev", {valueRecord("k1", "b", 101)}));

  pb::Record k1 = valueRecord("k1", "b", 101);
  k1.set_revision(5);
  k1.set_origin_device("dev");
  const pb::PullReply all = pull("s1");
  EXPECT_EQ(pageOf(all), Page({"k2", "k3", "k1"}, 5, true));
  EXPECT_EQ(all.records(2).ShortDebugString(), k1.ShortDebugString());
  EXPECT_EQ(pageOf(pull("s1", 0, 2)), Page({"k2", "k3"}, 3, false));
  EXPECT_EQ(pageOf(pull("s1", 3, 2)), Page({"k1"}, 5, true));
  // The cursor of a complete pull is the account's revision.
  EXPECT_EQ(pageOf(pull("s2")), Page({"x"}, 5, true));
  EXPECT_EQ(pageOf(pull("s2", 5)), Page({}, 5, true));

  pb::ListStoresReply stores;
  ASSERT_TRUE(core_->listStores(alice_, &stores).ok());
  EXPECT_EQ(stores.ShortDebugString(), R"(stores { store: "s1" revision: 5 } stores { store: "s2" revision: 4 })");

  // Another account: its own revisions, and none of alice's records.
  EXPECT_EQ(pageOf(pull("s1", 0, 0, &bob_)), Page({}, 0, true));
  pb::PushReply bobs = push(pushOf("s1", "bob-dev", {valueRecord("k1", "bob", 90)}), bob_);
  EXPECT_EQ(std::make_pair(bobs.results(0).status(), bobs.revision()), std::make_pair(kAccepted, std::int64_t{1}));
  EXPECT_EQ(pull("s1").records(2).ShortDebugString(), k1.ShortDebugString());
}

// What one account may keep, and its token, are bounded alike on both backends.
TEST_P(SyncServiceTest, AccountsAreBoundedInStoresDeletionsPagesAndTokens) {
  // Stores: a push that would start a third fails whole; the others go on.
  std::unique_ptr<SyncCore> two = makeCore({}, nullptr, 2);
  for (const std::string store : {"s1", "s2", "s3", "s1"}) {
    EXPECT_EQ(pushCode(pushOf(store, "dev", {deletion(store + "k", 100)}), two.get()),
              store == "s3" ? grpc::StatusCode::FAILED_PRECONDITION : grpc::StatusCode::OK) << store;
  }
  // Deletion records outlive the retention by no more than a prune; a
  // store left without records goes, making room for another.
  push(pushOf("s1", "dev", {valueRecord("live", "v", 100)}));
  std::unique_ptr<SyncCore> later = makeCore({}, nullptr, 2, kNow + 31 * 86400);
  push(pushOf("s1", "dev", {deletion("fresh", 100)}), later.get());
  Result<std::int64_t> pruned = later->pruneDeletions(kDefaultDeletionRetention);
  ASSERT_TRUE(pruned.ok()) << pruned.error();
  EXPECT_EQ(pruned.value(), 2);
  EXPECT_EQ(keysOf(pull("s1")), (std::vector<std::string>{"live", "fresh"}));
  EXPECT_EQ(pushCode(pushOf("s4", "dev", {deletion("k", 100)}), two.get()), grpc::StatusCode::OK);

  // Pages stop short of the bytes a device receives, and skip a record no
  // device could receive at all.
  Limits large;
  large.maxKeyDataLen = large.maxKeyDataSum = 8 << 20;
  push(pushOf("big", "dev", {valueRecord("a", std::string(1200 << 10, 'a'), 100),
                             valueRecord("b", std::string(1200 << 10, 'b'), 100),
                             valueRecord("c", std::string(3500 << 10, 'c'), 100),
                             valueRecord("d", std::string(1200 << 10, 'd'), 100)}),
       makeCore(large).get());
  const pb::PullReply first = pull("big");
  const pb::PullReply second = pull("big", first.revision());
  EXPECT_EQ(pageOf(first), Page({"a", "b"}, first.revision(), false));
  EXPECT_EQ(pageOf(second), Page({"d"}, second.revision(), true)) << "c fits no page";
  EXPECT_LE(std::max(first.ByteSizeLong(), second.ByteSizeLong()), kPullByteBudget);

  // A replaced token names nobody, and the generation tells every node.
  Result<std::int64_t> before = storage_->tokenGeneration();
  ASSERT_TRUE(before.ok()) << before.error();
  ASSERT_TRUE(storage_->replaceTokenHash("alice", hashToken("new")).ok());
  EXPECT_FALSE(storage_->replaceTokenHash("nobody", hashToken("other")).ok());
  EXPECT_FALSE(storage_->accountForTokenHash(hashToken("alice-token")).value());
  EXPECT_EQ(storage_->accountForTokenHash(hashToken("new")).value()->id, alice_.id);
  EXPECT_GT(storage_->tokenGeneration().value(), before.value());
}

TEST_P(SyncServiceTest, ConcurrentPushesThroughSeveralNodesGetDistinctRevisions) {
  constexpr int kNodes = 4, kPushes = 25;
  std::vector<std::unique_ptr<Storage>> storages;
  std::vector<std::unique_ptr<SyncCore>> cores;
  for (int i = 0; i < kNodes; ++i) {
    storages.push_back(openAnother());
    ASSERT_NE(storages.back(), nullptr);
    cores.push_back(makeCore({}, storages.back().get()));
  }
  std::mutex mutex;
  std::vector<std::int64_t> revisions;
  std::vector<std::thread> threads;
  for (int node = 0; node < kNodes; ++node) {
    threads.emplace_back([&, node] {
      for (int i = 0; i < kPushes; ++i) {
        // Each node's own key, and one key every node fights over with
        // distinct timestamps: the highest must end up stored.
        const std::int64_t timestamp = 1000 + i * kNodes + node;
        const pb::PushReply reply =
            push(pushOf("app", "node" + std::to_string(node),
                        {valueRecord("own" + std::to_string(node) + "-" + std::to_string(i), "v", timestamp),
                         valueRecord("shared", "from " + std::to_string(node), timestamp)}),
                 cores[static_cast<std::size_t>(node)].get());
        std::lock_guard lock(mutex);
        for (const pb::PushResult& result : reply.results()) {
          if (result.status() == kAccepted) revisions.push_back(result.winner().revision());
        }
      }
    });
  }
  for (std::thread& thread : threads) thread.join();

  std::set<std::int64_t> distinct(revisions.begin(), revisions.end());
  EXPECT_EQ(distinct.size(), revisions.size()) << "a revision was handed out twice";
  EXPECT_EQ(*distinct.begin(), 1);
  EXPECT_EQ(*distinct.rbegin(), static_cast<std::int64_t>(revisions.size())) << "revisions have gaps";
  pb::PullReply all = pull("app", 0, kMaxPullLimit);
  ASSERT_EQ(all.records_size(), kNodes * kPushes + 1);
  EXPECT_EQ(all.revision(), static_cast<std::int64_t>(revisions.size()));
  EXPECT_EQ(std::count_if(all.records().begin(), all.records().end(),
                          [](const pb::Record& r) { return r.key() == "shared" && r.timestamp() == 999 + kPushes * kNodes; }),
            1);
}

INSTANTIATE_TEST_SUITE_P(Backends, SyncServiceTest, ::testing::Values("Sqlite", "Postgres"),
                         [](const ::testing::TestParamInfo<std::string>& info) { return info.param; });

// The database holds every account's data and token hashes: its files are
// the owner's only, also those of a file an older server left readable.
TEST(SqliteStorageTest, FilesAreOwnerOnlyAndTheNodeRefusesPlaintextOffLoopback) {
  velmora::testing::ScratchDirectory directory("velmora-sqlite-modes");
  const std::string old = directory.file("old.sqlite");
  ASSERT_EQ(::close(::open(old.c_str(), O_CREAT | O_WRONLY, 0644)), 0);
  ASSERT_EQ(::chmod(old.c_str(), 0644), 0);
  for (const std::string& path : {directory.file("new.sqlite"), old}) {
    std::string error;
    std::unique_ptr<Storage> storage = openSqliteStorage(path, &error);
    ASSERT_NE(storage, nullptr) << error;
    ASSERT_TRUE(storage->addAccount("a", "h").ok());  // the -wal and -shm exist from here
    for (const char* suffix : {"", "-wal", "-shm"}) {
      struct stat status {};
      ASSERT_EQ(::stat((path + suffix).c_str(), &status), 0) << path << suffix;
      EXPECT_EQ(status.st_mode & 0777, 0600u) << path << suffix;
    }
    // The node itself refuses plaintext off loopback, whatever its caller checked.
    NodeOptions options;
    options.listen = "0.0.0.0:0";
    EXPECT_EQ(SyncNode::start(*storage, options, &error), nullptr);
    EXPECT_NE(error.find("TLS"), std::string::npos) << error;
  }
}

}  // namespace
}  // namespace velmora::server
