// Two devices of one user on one machine, synchronising through a
// real velmora-server on loopback (tests/support/SyncDevices.h): each device
// is a scratch home, a private bus and a real velmorad on it. On one device
// this process's libzkv (NimbrelStore, the account calls) is the
// application, so its observers see what an application would; the other
// devices get raw requests, or the velmora tool. The server keeps its data in
// SQLite: its PostgreSQL storage has end-to-end tests of its own (server/).
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <mutex>
#include <set>

#include "SyncDevices.h"
#include "zkv/NimbrelStore.h"
#include "zkv/ZKVAccount.h"

namespace {

using namespace std::chrono_literals;
using velmora::PropertyList;
using namespace velmora::testing;

constexpr auto kPatience = 20s;  // how long other processes get to converge

PropertyList str(std::string text) { return PropertyList::string(std::move(text)); }

// Runs the velmora tool on device with args; its output (a failure when it fails).
std::string runTool(const SyncDevice& device, std::vector<std::string> args) {
  args.insert(args.begin(), VELMORA_BINARY_DIR "/tools/velmora");
  std::unique_ptr<ChildProcess> tool = ChildProcess::start(args, device.environment());
  std::string output;
  while (std::optional<std::string> line = tool ? tool->readLine(kPatience) : std::nullopt) output += *line + "\n";
  const std::optional<int> status = tool ? tool->waitForExit(kPatience) : std::nullopt;
  EXPECT_TRUE(status && WIFEXITED(*status) && WEXITSTATUS(*status) == 0) << "velmora " << args[1] << ": " << output;
  return output;
}

// What a store's observer heard, by reason.
struct Heard {
  explicit Heard(NimbrelStore& store) {
    store.addObserver([this](const NimbrelChange& change) {
      std::lock_guard lock(mutex);
      keys[change.reason].insert(change.keys.begin(), change.keys.end());
    });
  }
  std::set<std::string> of(NimbrelChangeReason reason) {
    std::lock_guard lock(mutex);
    return keys[reason];
  }
  bool waitFor(NimbrelChangeReason reason, const std::set<std::string>& wanted) {
    return waitUntil([&] { return std::ranges::includes(of(reason), wanted); }, kPatience);
  }

  std::mutex mutex;
  std::map<NimbrelChangeReason, std::set<std::string>> keys;  // guarded by mutex
};

// A write on one device reaches an application on the other with reason 0
// (after the store's first arrival, reason 1 for every key); the watch
// survives a server restart; changes made on both devices while the server
// is away (one of them restarted meanwhile) converge when it returns, the
// later write winning; a value the server refuses over its limit falls back
// on the writer with reason 2; logging into another account replaces the
// store's values, every key that changed with reason 5.
TEST(Sync, ChangesTravelBetweenDevicesWithTheirReasons) {
  ScratchDirectory scratch("velmora-sync-server");
  SyncServer server({"--sqlite", scratch.file("sync.db")}, {"--max-key-data-len", "2000"});
  ASSERT_TRUE(server.start());
  const std::string token = server.addAccount("user");
  SyncDevice writer("a");
  SyncDevice reader("b");
  ASSERT_TRUE(writer.ok() && reader.ok());
  LibraryOn library(reader);
  const std::string app = "com.example.sync.notes";
  std::shared_ptr<NimbrelStore> store = NimbrelStore::storeForApplication(app);
  Heard heard(*store);
  EXPECT_FALSE(store->getString("x"));  // loaded: later changes are changes

  EXPECT_TRUE(runTool(writer, {"account", "login", server.url(), token}).starts_with("Logged into " + server.url()));
  EXPECT_EQ(std::filesystem::status(writer.home() + "/.config/velmora/account.plist").permissions(),
            std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);  // it holds the token
  const std::string y(1500, 'y');  // travels gzipped
  ASSERT_TRUE(writer.write(app, {{"x", str("1")}, {"y", str(y)}}, recordTimestampNow() - 100));
  ZKVAccountResult login = ZKVAccountLogin(server.url(), token);
  ASSERT_TRUE(login.ok()) << login.error->description();
  ASSERT_TRUE(heard.waitFor(kNimbrelChangeReasonInitialSync, {"x", "y"}));
  EXPECT_EQ(store->getString("y"), y);
  const PropertyList file = reader.storeFile(app);
  EXPECT_TRUE(file.find("versionid") != nullptr && file.find("initialsync") != nullptr);
  ASSERT_TRUE(writer.write(app, {{"x", str("3")}}, recordTimestampNow() - 90));
  ASSERT_TRUE(writer.write(app, {{"y", PropertyList()}}, recordTimestampNow()));  // a removal travels too
  ASSERT_TRUE(heard.waitFor(kNimbrelChangeReasonServerChange, {"x", "y"}));
  EXPECT_EQ(store->getString("x"), "3");
  EXPECT_FALSE(store->getString("y"));
  EXPECT_EQ(heard.of(kNimbrelChangeReasonInitialSync), (std::set<std::string>{"x", "y"}));

  server.stop();
  ASSERT_TRUE(server.start());
  ASSERT_TRUE(writer.write(app, {{"z", str("after restart")}}, recordTimestampNow() - 80));
  ASSERT_TRUE(heard.waitFor(kNimbrelChangeReasonServerChange, {"z"}));

  // Offline on both sides: each writes one key the other writes too, and the
  // writer's daemon is restarted with its changes unsent.
  server.stop();
  EXPECT_FALSE(writer.trackSynchronize());  // the server cannot be reached: an error, at once
  ASSERT_TRUE(writer.write(app, {{"k", str("writer, earlier")}}, recordTimestampNow() - 20));
  ASSERT_TRUE(store->setString("k", "reader, later"));
  ASSERT_TRUE(store->setString("m", "reader, earlier"));
  ASSERT_TRUE(store->synchronize());
  ASSERT_TRUE(writer.write(app, {{"m", str("writer, later")}, {"n", str("new")}}, recordTimestampNow() + 2));
  writer.stopDaemon();
  ASSERT_TRUE(writer.startDaemon());
  ASSERT_TRUE(server.start());
  auto converged = [&] {
    const PropertyList w = writer.storeFile(app);
    return storedValue(w, "k") == str("reader, later") && storedValue(w, "m") == str("writer, later") &&
           store->getString("k") == "reader, later" && store->getString("m") == "writer, later";
  };
  EXPECT_TRUE(waitUntil(converged, kPatience)) << writer.storeFile(app).description();
  EXPECT_TRUE(heard.waitFor(kNimbrelChangeReasonServerChange, {"m", "n"}));
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
  const std::string text = runTool(writer, {"account", "status"});
  EXPECT_NE(text.find("Store " + app + ": last sync 20"), std::string::npos) << text;

  // Another account, with data of its own: a wrong token changes nothing,
  // the right one replaces every key that differs.
  const std::string second = server.addAccount("second");
  ASSERT_NE(writer.login(server, second).find("userinfo"), nullptr);
  EXPECT_EQ(storedValue(writer.storeFile(app), "x"), PropertyList());  // reset, then the second's (empty) sync
  ASSERT_TRUE(writer.write(app, {{"x", str("second x")}, {"c", str("second c")}}, recordTimestampNow() - 40));
  ASSERT_TRUE(writer.trackSynchronize());
  login = ZKVAccountLogin(server.url(), "not-a-token");
  ASSERT_FALSE(login.ok());
  EXPECT_EQ(login.error->code, 7);
  EXPECT_EQ(store->getString("x"), "3");
  login = ZKVAccountLogin(server.url(), second);
  ASSERT_TRUE(login.ok()) << login.error->description();
  ASSERT_TRUE(heard.waitFor(kNimbrelChangeReasonAccountChange, {"x", "c", "k", "m"}));
  EXPECT_TRUE(waitUntil([&] { return store->getString("x") == "second x"; }, kPatience));
  EXPECT_FALSE(store->getString("k"));
  EXPECT_EQ(heard.of(kNimbrelChangeReasonInitialSync), (std::set<std::string>{"x", "y"}));  // none of the switch
  EXPECT_TRUE(ZKVAccountLogout().ok());
  EXPECT_FALSE(ZKVCopyAccountStatus().info.find("loggedIn")->booleanValue());
}

}  // namespace
