// The two-device fault runs' decisive checks at a size for the integration
// tier: two real daemons (tests/support/SyncDevices.h) syncing through a real
// velmora-server on SQLite, which is killed (SIGKILL) while pushes are in
// flight, or whose route is cut by the load driver's proxy (LoadSupport's
// PausableProxy): held past a sync call's deadline, then reset. In every
// case the writing device keeps taking writes, the other device ends with
// every one of them, and an explicit sync says it failed while the server
// was away. (A graceful server restart during a watch is covered by the
// daemon's sync tests.) scripts/load --devices 2 runs all of it at full size.
#include <gtest/gtest.h>

#include <chrono>
#include <map>
#include <string>

#include "LoadSupport.h"
#include "SyncDevices.h"

namespace {

using namespace std::chrono_literals;
using velmora::PropertyList;
using velmora::load::PausableProxy;
using velmora::load::SyncServerProcess;
using velmora::testing::recordTimestampNow;
using velmora::testing::ScratchDirectory;
using velmora::testing::storedValue;
using velmora::testing::SyncDevice;
using velmora::testing::waitUntil;

constexpr auto kPatience = 20s;  // for the devices to converge once the server is back

class SyncFaults : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(a_.ok() && b_.ok());
    std::string error;
    ASSERT_TRUE(server_.start(&error)) << error;
    token_ = server_.addAccount("faults", &error);
    ASSERT_FALSE(token_.empty()) << error;
  }

  // Logs both devices in through url; fails the test when one is refused.
  void logIn(const std::string& url) {
    for (SyncDevice* device : {&a_, &b_}) {
      const PropertyList reply = device->request(
          "accountLogin", velmora::makeDictionary({{"server", PropertyList::string(url)},
                                                   {"token", PropertyList::string(token_)}}));
      ASSERT_NE(reply.find("userinfo"), nullptr) << reply.description();
    }
  }

  // Writes key = value on device, stamped a second after the previous write
  // of this test (so the last write of a key wins everywhere), and records it.
  void write(SyncDevice& device, const std::string& key, const std::string& value) {
    ASSERT_TRUE(device.write(kApp, {{key, PropertyList::string(value)}}, stamp_++)) << key;
    written_[key] = value;
  }

  // Whether both devices' files hold every value written so far.
  bool converged() {
    const PropertyList fileA = a_.storeFile(kApp);
    const PropertyList fileB = b_.storeFile(kApp);
    for (const auto& [key, value] : written_) {
      const PropertyList wanted = PropertyList::string(value);
      if (!(storedValue(fileA, key) == wanted) || !(storedValue(fileB, key) == wanted)) return false;
    }
    return true;
  }

  // The keys of written_ whose value is missing or different on device.
  std::string differences(const SyncDevice& device) {
    const PropertyList file = device.storeFile(kApp);
    std::string out;
    for (const auto& [key, value] : written_) {
      if (!(storedValue(file, key) == PropertyList::string(value))) out += " " + key;
    }
    return out;
  }

  static constexpr const char* kApp = "com.example.load.faults";
  ScratchDirectory scratch_{"velmora-sync-faults"};
  SyncDevice a_{"fault-a"};
  SyncDevice b_{"fault-b"};
  SyncServerProcess server_{VELMORA_BINARY_DIR "/server/velmora-server",
                            {"--sqlite", scratch_.file("sync.db")},
                            scratch_.file("server.log")};
  std::string token_;
  std::int64_t stamp_ = recordTimestampNow() - 100'000;
  std::map<std::string, std::string> written_;  // key -> the last value written
};

// Killed with pushes in flight (the server may have stored a batch whose
// answer never left), twice, started again on its port and database: every
// write acknowledged on A, before, during and after, reaches B.
TEST_F(SyncFaults, ServerKilledDuringPushesLosesNoAcknowledgedWrite) {
  logIn(server_.url());
  std::string error;
  for (int i = 0; i < 400; ++i) {
    write(a_, "k" + std::to_string(i % 60), "v" + std::to_string(i));
    if (i == 120 || i == 260) {
      server_.kill();
      // The device works on alone: writes are taken while the server is down.
      for (int j = 0; j < 20; ++j) write(a_, "down" + std::to_string(i) + "-" + std::to_string(j), "offline");
      ASSERT_TRUE(server_.start(&error)) << error;
    }
  }
  EXPECT_TRUE(waitUntil([&] { return converged(); }, kPatience))
      << "missing on A:" << differences(a_) << "\nmissing on B:" << differences(b_);
  EXPECT_TRUE(a_.trackSynchronize());
  EXPECT_TRUE(b_.trackSynchronize());
}

// The route cut two ways. Held past the call deadline: calls time out on
// connections that carry their stale requests through later, and an
// explicit sync fails with an error instead of hanging. Reset: every
// connection is refused, a sync fails at once. Writes on either side during
// a cut arrive on the other once the route is back.
TEST_F(SyncFaults, CutRouteHeldThenResetConvergesOnceItIsBack) {
  std::string error;
  std::unique_ptr<PausableProxy> proxy = PausableProxy::start(server_.port(), &error);
  ASSERT_NE(proxy, nullptr) << error;
  logIn(proxy->url());
  for (int i = 0; i < 20; ++i) write(a_, "before" + std::to_string(i), "v" + std::to_string(i));
  ASSERT_TRUE(waitUntil([&] { return converged(); }, kPatience)) << "missing on B:" << differences(b_);

  proxy->cut(PausableProxy::Cut::Hold);
  for (int i = 0; i < 20; ++i) write(a_, "held" + std::to_string(i), "a" + std::to_string(i));
  const auto started = std::chrono::steady_clock::now();
  EXPECT_FALSE(b_.trackSynchronize());  // after the call deadline, not never
  EXPECT_LT(std::chrono::steady_clock::now() - started, 25s);
  EXPECT_EQ(storedValue(b_.storeFile(kApp), "held0"), PropertyList());  // nothing got through
  proxy->resume();
  EXPECT_TRUE(waitUntil([&] { return converged(); }, kPatience)) << "missing on B:" << differences(b_);

  proxy->cut(PausableProxy::Cut::Drop);
  for (int i = 0; i < 20; ++i) {
    write(a_, "dropped-a" + std::to_string(i), "a" + std::to_string(i));
    write(b_, "dropped-b" + std::to_string(i), "b" + std::to_string(i));
  }
  EXPECT_FALSE(a_.trackSynchronize());
  EXPECT_GT(proxy->connectionsReset(), 0u);
  proxy->resume();
  EXPECT_TRUE(waitUntil([&] { return converged(); }, kPatience))
      << "missing on A:" << differences(a_) << "\nmissing on B:" << differences(b_);
  EXPECT_TRUE(a_.trackSynchronize());
  EXPECT_TRUE(b_.trackSynchronize());
}

}  // namespace
