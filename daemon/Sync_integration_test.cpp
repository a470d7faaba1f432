// Two (or three) devices of one user on one machine, synchronising through a
// real velmora-server on loopback (tests/support/SyncDevices.h): each device
// is a scratch home, a private bus and a real velmorad on it. On one device
// this process's libzkv (NimbrelStore, the account calls) is the
// application, so its observers see what an application would; the other
// devices get raw requests, or the velmora tool. The server keeps its data in
// SQLite, or in PostgreSQL on a throwaway cluster.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <algorithm>
#include <map>
#include <mutex>
#include <set>

#include "PostgresCluster.h"
#include "SyncDevices.h"
#include "zkv/NimbrelStore.h"
#include "zkv/ZKVAccount.h"
#include "zkv/ZKVEncoding.h"

namespace {

using namespace std::chrono_literals;
using velmora::makeDictionary;
using velmora::PlistDictionary;
using velmora::PropertyList;
using namespace velmora::testing;

constexpr auto kPatience = 20s;  // how long other processes get to converge
const std::string kToolPath = VELMORA_BINARY_DIR "/tools/velmora";

PropertyList str(std::string text) { return PropertyList::string(std::move(text)); }
std::int64_t now2001() { return recordTimestampNow(); }

// Runs the velmora tool on device with args; its output (a failure when it fails).
std::string runTool(const SyncDevice& device, const std::vector<std::string>& args) {
  std::vector<std::string> argv = {kToolPath};
  argv.insert(argv.end(), args.begin(), args.end());
  std::unique_ptr<ChildProcess> tool = ChildProcess::start(argv, device.environment());
  std::string output;
  while (tool) {
    std::optional<std::string> line = tool->readLine(kPatience);
    if (!line) break;
    output += *line + "\n";
  }
  const std::optional<int> status = tool ? tool->waitForExit(kPatience) : std::nullopt;
  EXPECT_TRUE(status && WIFEXITED(*status) && WEXITSTATUS(*status) == 0) << "velmora " << args.front() << ": " << output;
  return output;
}

// What a store's observer heard, by reason.
class Heard {
 public:
  void attach(NimbrelStore& store) {
    store.addObserver([this](const NimbrelChange& change) {
      std::lock_guard lock(mutex_);
      for (const std::string& key : change.keys) keys_[change.reason].insert(key);
    });
  }
  std::set<std::string> keys(NimbrelChangeReason reason) {
    std::lock_guard lock(mutex_);
    return keys_[reason];
  }
  bool waitFor(NimbrelChangeReason reason, const std::set<std::string>& wanted) {
    return waitUntil(
        [&] {
          const std::set<std::string> got = keys(reason);
          return std::includes(got.begin(), got.end(), wanted.begin(), wanted.end());
        },
        kPatience);
  }
  void clear() {
    std::lock_guard lock(mutex_);
    keys_.clear();
  }

 private:
  std::mutex mutex_;
  std::map<NimbrelChangeReason, std::set<std::string>> keys_;  // guarded by mutex_
};

enum class Backend { Sqlite, Postgres };
void PrintTo(Backend backend, std::ostream* out) { *out << (backend == Backend::Sqlite ? "SQLite" : "PostgreSQL"); }

class SyncTest : public ::testing::TestWithParam<Backend> {
 protected:
  // The server's storage option, or nothing (the test is then skipped).
  std::vector<std::string> storage() {
    if (GetParam() == Backend::Sqlite) return {"--sqlite", scratch_.file("sync.db")};
    if (!PostgresCluster::binDirectory()) return {};
    std::string error;
    PostgresCluster* cluster = PostgresCluster::shared(&error);
    EXPECT_NE(cluster, nullptr) << error;
    if (cluster == nullptr) return {};
    const std::string conninfo = cluster->createDatabase(&error);
    EXPECT_FALSE(conninfo.empty()) << error;
    return {"--postgres", conninfo};
  }

  ScratchDirectory scratch_{"velmora-sync-server"};
};

// A write on one device reaches an application on the other with reason 0
// (after the store's first arrival, reason 1 for every key); the watch
// survives a server restart; changes made on both devices while the server
// is away converge when it returns, the later write winning; a value the
// server refuses over its limit falls back on the writer with reason 2.
TEST_P(SyncTest, ChangesTravelBetweenDevicesWithTheirReasons) {
  const std::vector<std::string> options = storage();
  if (options.empty()) GTEST_SKIP() << "no PostgreSQL server binaries (install postgresql)";
  SyncServer server(options, {"--max-key-data-len", "2000"});
  ASSERT_TRUE(server.start());
  const std::string token = server.addAccount("user");

  SyncDevice writer("a");
  SyncDevice reader("b");
  ASSERT_TRUE(writer.ok() && reader.ok());
  LibraryOn library(reader);
  const std::string app = "com.example.sync.notes";
  std::shared_ptr<NimbrelStore> store = NimbrelStore::storeForApplication(app);
  Heard heard;
  heard.attach(*store);
  EXPECT_FALSE(store->getString("x"));  // loaded: later changes are changes

  ASSERT_NE(writer.login(server, token).find("userinfo"), nullptr);
  ZKVAccountResult login = ZKVAccountLogin(server.url(), token);
  ASSERT_TRUE(login.ok()) << login.error->description();
  ASSERT_NE(login.info.find("device"), nullptr);
  EXPECT_FALSE(login.info.find("device")->getString()->empty());

  // First arrival of the store on the reader: its initial sync.
  ASSERT_TRUE(writer.write(app, {{"x", str("1")}, {"y", str("2")}}, now2001() - 100));
  ASSERT_TRUE(heard.waitFor(kNimbrelChangeReasonInitialSync, {"x", "y"}))
      << reader.request("printDebugDescription", {}, app).description();
  EXPECT_EQ(store->getString("y"), "2");

  // From then on, a change made elsewhere.
  ASSERT_TRUE(writer.write(app, {{"x", str("3")}}, now2001() - 90));
  ASSERT_TRUE(heard.waitFor(kNimbrelChangeReasonServerChange, {"x"}));
  EXPECT_EQ(store->getString("x"), "3");
  // A removal travels too.
  ASSERT_TRUE(writer.write(app, {{"y", PropertyList()}}, now2001()));
  ASSERT_TRUE(heard.waitFor(kNimbrelChangeReasonServerChange, {"y"}));
  EXPECT_FALSE(store->getString("y"));
  EXPECT_TRUE(heard.keys(kNimbrelChangeReasonInitialSync) == (std::set<std::string>{"x", "y"}));

  // The server goes away and comes back: the watch is opened again.
  server.stop();
  ASSERT_TRUE(server.start());
  ASSERT_TRUE(writer.write(app, {{"z", str("after restart")}}, now2001() - 80));
  ASSERT_TRUE(heard.waitFor(kNimbrelChangeReasonServerChange, {"z"}));

  // Offline on both sides: each writes one key the other writes too.
  server.stop();
  EXPECT_FALSE(writer.trackSynchronize());  // the server cannot be reached: an error, at once
  ASSERT_TRUE(writer.write(app, {{"k", str("writer, earlier")}}, now2001() - 20));
  ASSERT_TRUE(store->setString("k", "reader, later"));
  ASSERT_TRUE(store->setString("m", "reader, earlier"));
  ASSERT_TRUE(store->synchronize());
  ASSERT_TRUE(writer.write(app, {{"m", str("writer, later")}}, now2001() + 2));
  ASSERT_TRUE(server.start());
  auto converged = [&] {
    const PropertyList w = writer.storeFile(app);
    return storedValue(w, "k") == str("reader, later") && storedValue(w, "m") == str("writer, later") &&
           store->getString("k") == "reader, later" && store->getString("m") == "writer, later";
  };
  EXPECT_TRUE(waitUntil(converged, kPatience)) << writer.storeFile(app).description();
  EXPECT_TRUE(heard.waitFor(kNimbrelChangeReasonServerChange, {"m"}));
  EXPECT_TRUE(writer.trackSynchronize());

  // Over the server's per-value limit (the device's own is larger): the
  // daemon takes it, the server refuses it, the writer falls back.
  ASSERT_TRUE(store->setString("big", std::string(3000, 'b')));
  ASSERT_TRUE(store->synchronize());
  ASSERT_TRUE(heard.waitFor(kNimbrelChangeReasonQuotaViolation, {"big"}));
  EXPECT_FALSE(store->getString("big"));
  ZKVAccountResult status = ZKVCopyAccountStatus();
  ASSERT_TRUE(status.ok());
  EXPECT_TRUE(status.info.find("connected")->booleanValue());
  const std::string description = *status.info.find("description")->getString();
  EXPECT_NE(description.find(server.url()), std::string::npos) << description;
  EXPECT_NE(description.find("Store " + app + ": last sync 20"), std::string::npos) << description;
  EXPECT_NE(description.find("0 pending changes"), std::string::npos) << description;
  EXPECT_EQ(storedValue(writer.storeFile(app), "big"), PropertyList());
}

// A device that logs in late gets every key with reason 1; logging into
// another account then replaces the store's values, every key that changed
// with reason 5.
TEST_P(SyncTest, AFreshDeviceAndAnAccountSwitch) {
  const std::vector<std::string> options = storage();
  if (options.empty()) GTEST_SKIP() << "no PostgreSQL server binaries (install postgresql)";
  SyncServer server(options);
  ASSERT_TRUE(server.start());
  const std::string first = server.addAccount("first");
  const std::string second = server.addAccount("second");
  const std::string app = "com.example.sync.prefs";

  // Both accounts' data, written from another device.
  SyncDevice other("other");
  ASSERT_TRUE(other.ok());
  // The first login through the command-line tool.
  EXPECT_EQ(runTool(other, {"account", "login", server.url(), first}).rfind("Logged into " + server.url(), 0), 0u);
  ASSERT_TRUE(other.write(app, {{"a", str("first a")}, {"b", str("first b")}}, now2001() - 50));
  ASSERT_TRUE(other.trackSynchronize());
  ASSERT_NE(other.login(server, second).find("userinfo"), nullptr);
  // Its store was the first account's: reset, then the second's (empty) sync.
  EXPECT_EQ(storedValue(other.storeFile(app), "a"), PropertyList());
  ASSERT_TRUE(other.write(app, {{"a", str("second a")}, {"c", str("second c")}}, now2001() - 40));
  ASSERT_TRUE(other.trackSynchronize());

  const std::string status = runTool(other, {"account", "status"});
  EXPECT_NE(status.find("Store " + app + ": last sync 20"), std::string::npos) << status;
  EXPECT_NE(status.find("0 pending changes"), std::string::npos) << status;

  SyncDevice fresh("fresh");
  ASSERT_TRUE(fresh.ok());
  LibraryOn library(fresh);
  std::shared_ptr<NimbrelStore> store = NimbrelStore::storeForApplication(app);
  Heard heard;
  heard.attach(*store);
  EXPECT_FALSE(store->getString("a"));

  ZKVAccountResult login = ZKVAccountLogin(server.url(), first);
  ASSERT_TRUE(login.ok()) << login.error->description();
  ASSERT_TRUE(heard.waitFor(kNimbrelChangeReasonInitialSync, {"a", "b"}));
  EXPECT_EQ(store->getString("b"), "first b");
  const PropertyList file = fresh.storeFile(app);
  EXPECT_NE(file.find("versionid"), nullptr);
  EXPECT_NE(file.find("initialsync"), nullptr);

  heard.clear();
  login = ZKVAccountLogin(server.url(), second);
  ASSERT_TRUE(login.ok()) << login.error->description();
  ASSERT_TRUE(heard.waitFor(kNimbrelChangeReasonAccountChange, {"a", "b", "c"}));
  EXPECT_TRUE(waitUntil([&] { return store->getString("a") == "second a"; }, kPatience));
  EXPECT_EQ(store->getString("c"), "second c");
  EXPECT_FALSE(store->getString("b"));
  EXPECT_TRUE(heard.keys(kNimbrelChangeReasonInitialSync).empty());

  // A wrong token changes nothing.
  login = ZKVAccountLogin(server.url(), "not-a-token");
  ASSERT_FALSE(login.ok());
  EXPECT_EQ(login.error->code, 7);
  EXPECT_EQ(store->getString("a"), "second a");
  EXPECT_TRUE(ZKVAccountLogout().ok());
  EXPECT_FALSE(ZKVCopyAccountStatus().info.find("loggedIn")->booleanValue());
}

INSTANTIATE_TEST_SUITE_P(Backends, SyncTest, ::testing::Values(Backend::Sqlite, Backend::Postgres),
                         [](const ::testing::TestParamInfo<Backend>& info) {
                           return info.param == Backend::Sqlite ? "SQLite" : "PostgreSQL";
                         });

}  // namespace
