// The load and fault runs' decisive checks at a size for the integration
// tier, under the real library, real daemons and a real velmora-server.
// One device (LoadSupport's Device: a scratch home, a bus at a fixed socket
// path, velmorad activated on it): the store directory read-only, the disk
// full, the bus killed with a write in flight; in every case a write that could not be made durable fails its
// synchronize, no acknowledged write is lost, and writing works again once
// the fault is gone. And what the load run found: a process's own write
// must not come back to it as a change made elsewhere. Two devices
// (SyncDevices.h) syncing through a server on SQLite that is killed with
// pushes in flight, or whose route is cut by the load driver's proxy: the
// writing device keeps taking writes and the other ends with every one of
// them. The load driver (scripts/load) runs all of it at full size, and the
// daemon killed during writes through the library (the daemon's tests kill
// it under raw requests).
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "LoadSupport.h"
#include "SyncDevices.h"
#include "velmora/platform/Environment.h"
#include "velmora/platform/Ipc.h"
#include "velmora/platform/NotificationCenter.h"
#include "velmora/platform/SystemNotifications.h"
#include "zkv/NimbrelStore.h"
#include "zkv/ZKVRemotePreferencesSource.h"

namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using velmora::PropertyList;
using velmora::load::PausableProxy;
using velmora::testing::waitUntil;
using Texts = std::map<std::string, std::string>;

// One simulated device: the library of this process talks to a daemon of its
// own on a bus of its own, with store files under a scratch home.
class OneDevice : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string error;
    device_ = velmora::load::Device::start(root_.file("device"),
                                           VELMORA_BINARY_DIR "/daemon/com.vantrel.velmorad-sim.service", &error);
    ASSERT_NE(device_, nullptr) << error;
    services_.install(velmora::setEnvironment,
                      std::make_shared<velmora::testing::ScratchHomeEnvironment>(device_->home));
    velmora::DbusIpcOptions ipc;
    ipc.busAddress = device_->address;
    services_.install(velmora::setIpcService, std::make_shared<velmora::DbusIpcService>(ipc));
    // Change notices between processes play no part here (the load driver
    // checks them); a test that needs one posts it in-process.
    services_.install(velmora::setSystemNotificationCenter,
                      std::make_shared<velmora::testing::SilentSystemNotificationCenter>());
  }

  void TearDown() override {
    // Daemons a test stopped or left behind on a killed bus go too; then what a fault mounted.
    if (device_) {
      for (pid_t pid : velmora::load::processesWith("HOME=" + device_->home, "velmorad")) ::kill(pid, SIGKILL);
    }
    if (undo_) undo_();
    device_.reset();
    services_.restore();
  }

  // The text values of app's store file (key -> text); each record must decode.
  Texts texts(const std::string& app) {
    Texts values;
    const auto file = velmora::load::storeValues(device_->storeDirectory + "/" + app + ".plist");
    EXPECT_TRUE(file.has_value()) << app;
    for (const auto& [key, value] : file.value_or(velmora::PlistDictionary{})) {
      const std::string* text = value.getString();
      EXPECT_NE(text, nullptr) << "record of " << key << " does not decode";
      if (text != nullptr) values[key] = *text;
    }
    return values;
  }

  velmora::testing::ScratchDirectory root_{"velmora-faults"};
  std::unique_ptr<velmora::load::Device> device_;
  velmora::testing::ScopedServices services_;
  std::function<void()> undo_;  // takes a fault's mount away
};

// Read-only and full: the daemon answers the synchronize with an error, the
// library keeps the changes and hands them over again once the directory
// takes writes; the daemon itself stays up throughout.
class StoreDirectoryFault : public OneDevice, public ::testing::WithParamInterface<std::string> {};

TEST_P(StoreDirectoryFault, FailsTheSynchronizeAndLosesNothing) {
  const bool full = GetParam() == "disk-full";
  const std::string directory = device_->storeDirectory;
  if (full) {
    // Mounted before the daemon first writes there (it starts on the first request).
    const int error = velmora::load::mountSmallDisk(directory, 1 << 20);
    if (error == EPERM || error == EACCES) GTEST_SKIP() << "cannot mount a tmpfs here";
    ASSERT_EQ(error, 0) << std::strerror(error);
    undo_ = [directory] { ::umount2(directory.c_str(), MNT_DETACH); };
  }
  // 0, or the errno; on false takes the fault away.
  auto fault = [&](bool on) {
    return full ? (velmora::load::fillDisk(directory, on) ? 0 : errno) : velmora::load::setReadOnly(directory, on);
  };
  const std::string app = "com.example.faults." + GetParam();
  std::shared_ptr<NimbrelStore> store = NimbrelStore::storeForApplication(app);
  ASSERT_TRUE(store->setString("before", "1").ok());
  ASSERT_TRUE(store->synchronize());
  const pid_t daemon = device_->daemonPid();
  ASSERT_GT(daemon, 0);

  const int error = fault(true);
  if (error == EPERM || error == EACCES) GTEST_SKIP() << GetParam() << " not permitted here";
  ASSERT_EQ(error, 0) << std::strerror(error);
  if (!full) undo_ = [directory] { velmora::load::setReadOnly(directory, false); };
  const std::string big(4096, 'x');
  ASSERT_TRUE(store->setString("during", big).ok());
  EXPECT_FALSE(store->synchronize());
  ASSERT_TRUE(store->setString("before", "changed").ok());
  EXPECT_FALSE(store->synchronize());  // still failing: still an error, never a success
  EXPECT_EQ(texts(app), (Texts{{"before", "1"}}));
  struct statvfs disk {};
  // The failed writes took nothing: what was free stays free.
  EXPECT_TRUE(!full || (::statvfs(directory.c_str(), &disk) == 0 && disk.f_bavail * disk.f_frsize < 4096u));

  ASSERT_EQ(fault(false), 0);
  EXPECT_TRUE(store->synchronize());
  EXPECT_EQ(texts(app), (Texts{{"before", "changed"}, {"during", big}}));
  EXPECT_EQ(device_->daemonPid(), daemon);
  EXPECT_EQ(velmora::load::strayFiles(directory), std::vector<std::string>{});
}

INSTANTIATE_TEST_SUITE_P(Faults, StoreDirectoryFault, ::testing::Values("read-only", "disk-full"),
                         [](const auto& info) { return info.param == "read-only" ? "ReadOnly" : "DiskFull"; });

// The bus dies while a synchronize waits for the daemon (stopped, so the
// request cannot be answered): the synchronize fails at once instead of
// passing for a success, writes fail while no bus is up, and everything goes
// through once a bus is back at the same socket path, which is where the
// library finds it again.
TEST_F(OneDevice, AWriteInFlightWhenTheBusDiesFailsAndGoesThroughOnTheNextBus) {
  const std::string app = "com.example.faults.bus";
  std::shared_ptr<NimbrelStore> store = NimbrelStore::storeForApplication(app);
  ASSERT_TRUE(store->setString("before", "1").ok());
  ASSERT_TRUE(store->synchronize());
  const pid_t daemon = device_->daemonPid();
  ASSERT_GT(daemon, 0);
  ASSERT_EQ(::kill(daemon, SIGSTOP), 0);

  std::atomic<int> inFlight{-1};  // -1 running, then 0 or 1: the synchronize's result
  ASSERT_TRUE(store->setString("inflight", "2").ok());
  std::thread writer([&] { inFlight = store->synchronize() ? 1 : 0; });
  std::this_thread::sleep_for(300ms);  // the request is sent and waits for its answer
  EXPECT_EQ(inFlight.load(), -1) << "answered by a stopped daemon?";
  const auto killed = std::chrono::steady_clock::now();
  device_->killBus();
  writer.join();
  EXPECT_EQ(inFlight.load(), 0);
  // Well within the call timeout: the closed bus fails the request at once.
  EXPECT_LT(std::chrono::steady_clock::now() - killed, 5s);

  // The old daemon leaves once it sees its bus gone.
  ::kill(daemon, SIGCONT);
  EXPECT_TRUE(waitUntil([&] { return !fs::exists("/proc/" + std::to_string(daemon)); }, 10s));
  ASSERT_TRUE(store->setString("busdown", "3").ok());
  EXPECT_FALSE(store->synchronize());

  std::string error;
  ASSERT_TRUE(device_->startBus(&error)) << error;
  EXPECT_TRUE(store->synchronize());
  EXPECT_EQ(texts(app), (Texts{{"before", "1"}, {"busdown", "3"}, {"inflight", "2"}}));
  EXPECT_GT(device_->daemonPid(), 0);
}

// A change notice that finds a write of this process not yet handed over
// hands it over and re-reads the file, where the write is journaled at the
// count the daemon answered with: it is reported to nobody, while the change
// made elsewhere is. (The load run found writers hearing their own keys.)
TEST_F(OneDevice, AWriteHandedOverOnAChangeNoticeIsNotReportedBackAsAChangeFromElsewhere) {
  const std::string app = "com.example.load.echo";
  std::shared_ptr<NimbrelStore> store = NimbrelStore::storeForApplication(app);
  ASSERT_TRUE(store->setString("first", "0").ok());
  ASSERT_TRUE(store->synchronize());
  auto mutex = std::make_shared<std::mutex>();
  auto heard = std::make_shared<std::vector<std::string>>();  // guarded by *mutex
  const NimbrelObserverToken token = store->addObserver([mutex, heard](const NimbrelChange& change) {
    std::lock_guard lock(*mutex);
    heard->insert(heard->end(), change.keys.begin(), change.keys.end());
  });
  auto heardKeys = [&] {
    std::lock_guard lock(*mutex);
    return *heard;
  };

  ASSERT_TRUE(store->setString("mine", "1").ok());  // not handed over yet
  // Another process of the application writes the same store.
  std::shared_ptr<ZKVRemotePreferencesSource> elsewhere = ZKVRemotePreferencesSource::create(app, true);
  elsewhere->setValueForKey(PropertyList::string("2"), "theirs");
  ASSERT_TRUE(elsewhere->synchronize());
  // Its notice reaches this process's store (posted in-process here: the
  // device's change notices are silenced).
  store->useSourceSyncWithBlock([](ZKVRemotePreferencesSource& source) {
    velmora::NotificationCenter::defaultCenter().post(ZKVRemotePreferencesSourceDidChangeNotification, &source);
  });
  ASSERT_TRUE(waitUntil([&] { return !heardKeys().empty(); }, 10s));
  std::this_thread::sleep_for(200ms);  // room for a wrong second call
  EXPECT_EQ(heardKeys(), std::vector<std::string>{"theirs"});
  EXPECT_EQ(texts(app), (Texts{{"first", "0"}, {"mine", "1"}, {"theirs", "2"}}));
  store->removeObserver(token);
}

// Two devices syncing one account through velmora-server on SQLite.
class SyncFaults : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(a_.ok() && b_.ok());
    ASSERT_TRUE(server_.start());
    token_ = server_.addAccount("faults");
    ASSERT_FALSE(token_.empty());
  }

  // Logs both devices in through url; fails the test when one is refused.
  void logIn(const std::string& url) {
    for (velmora::testing::SyncDevice* device : {&a_, &b_}) {
      const PropertyList reply = device->request(
          "accountLogin", velmora::makeDictionary({{"server", PropertyList::string(url)},
                                                   {"token", PropertyList::string(token_)}}));
      ASSERT_NE(reply.find("userinfo"), nullptr) << reply.description();
    }
  }

  // Writes key = value on device, stamped a second after the previous write
  // of this test (so the last write of a key wins everywhere), and records it.
  void write(velmora::testing::SyncDevice& device, const std::string& key, const std::string& value) {
    ASSERT_TRUE(device.write(kApp, {{key, PropertyList::string(value)}}, stamp_++)) << key;
    written_[key] = value;
  }

  // The keys of written_ whose value is missing or different on device.
  std::string missing(const velmora::testing::SyncDevice& device) {
    const PropertyList file = device.storeFile(kApp);
    std::string out;
    for (const auto& [key, value] : written_) {
      if (!(velmora::testing::storedValue(file, key) == PropertyList::string(value))) out += " " + key;
    }
    return out;
  }
  // Waits (20 s at most) for both devices to hold every value written so far.
  bool converged() { return waitUntil([&] { return missing(a_).empty() && missing(b_).empty(); }, 20s); }

  static constexpr const char* kApp = "com.example.load.faults";
  velmora::testing::ScratchDirectory scratch_{"velmora-sync-faults"};
  velmora::testing::SyncDevice a_{"fault-a"}, b_{"fault-b"};
  velmora::testing::SyncServer server_{{"--sqlite", scratch_.file("sync.db")}};
  std::string token_;
  std::int64_t stamp_ = velmora::testing::recordTimestampNow() - 100'000;
  Texts written_;  // key -> the last value written
};

// Killed (SIGKILL) with pushes in flight (the server may have stored a batch
// whose answer never left), twice, started again on its port and database:
// every write acknowledged on A, before, during and after, reaches B.
TEST_F(SyncFaults, ServerKilledDuringPushesLosesNoAcknowledgedWrite) {
  logIn(server_.url());
  for (int i = 0; i < 400; ++i) {
    write(a_, "k" + std::to_string(i % 60), "v" + std::to_string(i));
    if (i != 120 && i != 260) continue;
    for (pid_t pid : velmora::load::processesWith(scratch_.file("sync.db"), "velmora-server")) ::kill(pid, SIGKILL);
    // The device works on alone: writes are taken while the server is down.
    for (int j = 0; j < 20; ++j) write(a_, "down" + std::to_string(i) + "-" + std::to_string(j), "offline");
    ASSERT_TRUE(server_.start());
  }
  EXPECT_TRUE(converged()) << "missing on A:" << missing(a_) << "\nmissing on B:" << missing(b_);
  EXPECT_TRUE(a_.trackSynchronize());
  EXPECT_TRUE(b_.trackSynchronize());
}

// The route cut two ways. Held past the call deadline: calls time out on
// connections that carry their stale requests through later, and an
// explicit sync fails with an error instead of hanging. Reset: every
// connection is refused, a sync fails at once. Writes on either side during
// a cut arrive on the other once the route is back.
TEST_F(SyncFaults, CutRouteHeldThenResetConvergesOnceItIsBack) {
  const std::string url = server_.url();
  std::unique_ptr<PausableProxy> proxy = PausableProxy::start(std::stoi(url.substr(url.rfind(':') + 1)));
  ASSERT_NE(proxy, nullptr);
  logIn(proxy->url());
  for (int i = 0; i < 20; ++i) write(a_, "before" + std::to_string(i), "v" + std::to_string(i));
  ASSERT_TRUE(converged()) << "missing on B:" << missing(b_);

  proxy->cut(PausableProxy::Cut::Hold);
  for (int i = 0; i < 20; ++i) write(a_, "held" + std::to_string(i), "a" + std::to_string(i));
  const auto started = std::chrono::steady_clock::now();
  EXPECT_FALSE(b_.trackSynchronize());  // after the call deadline, not never
  EXPECT_LT(std::chrono::steady_clock::now() - started, 25s);
  EXPECT_EQ(velmora::testing::storedValue(b_.storeFile(kApp), "held0"), PropertyList());  // nothing got through
  proxy->resume();
  EXPECT_TRUE(converged()) << "missing on B:" << missing(b_);

  proxy->cut(PausableProxy::Cut::Drop);
  for (int i = 0; i < 20; ++i) {
    write(a_, "dropped-a" + std::to_string(i), "a" + std::to_string(i));
    write(b_, "dropped-b" + std::to_string(i), "b" + std::to_string(i));
  }
  EXPECT_FALSE(a_.trackSynchronize());
  EXPECT_GT(proxy->connectionsReset(), 0u);
  proxy->resume();
  EXPECT_TRUE(converged()) << "missing on A:" << missing(a_) << "\nmissing on B:" << missing(b_);
  EXPECT_TRUE(a_.trackSynchronize());
  EXPECT_TRUE(b_.trackSynchronize());
}

}  // namespace
