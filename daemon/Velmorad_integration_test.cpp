// The real velmorad, started by D-Bus activation on the private bus, with
// store files in a scratch home: raw bus clients for the wire contract and
// the failure paths, the real library where the daemon serves it.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <random>
#include <set>
#include <thread>

#include "PrivateBus.h"
#include "StoreFixtures.h"
#include "velmora/platform/DbusValue.h"
#include "velmora/platform/Environment.h"
#include "velmora/platform/Ipc.h"
#include "velmora/platform/PlistCodec.h"
#include "zkv/NimbrelStore.h"

namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using velmora::makeDictionary;
using velmora::PlistDictionary;
using velmora::PropertyList;
using velmora::testing::record;
using velmora::testing::waitUntil;

constexpr auto kPatience = 10s;
constexpr const char* kService = "com.vantrel.velmorad-sim";
const PropertyList kEmptyReply = makeDictionary({{"userinfo", PropertyList::dictionary({})}});

PropertyList str(std::string text) { return PropertyList::string(std::move(text)); }

// One scratch home per test process: the daemon is activated once per bus
// and keeps the home it was started with.
const fs::path& scratchHome() {
  static const velmora::testing::ScratchDirectory home("velmorad-home");
  static const auto installed = (velmora::testing::PrivateBus::instance().installService(
                                     kService, {"/usr/bin/env", "HOME=" + home.path().string(),
                                                VELMORA_BINARY_DIR "/daemon/velmorad", "--store-idle-seconds", "1"}),
                                 velmora::setEnvironment(std::make_shared<velmora::testing::ScratchHomeEnvironment>(
                                     home.path().string())));
  (void)installed;
  return home.path();
}

fs::path storePath(const std::string& app) { return velmora::testing::storeFilePath(scratchHome(), app); }

// A request envelope; storeID makes it an additional store's.
PropertyList envelope(std::string message, PropertyList userInfo = {}, std::optional<std::string> bundle = {},
                      std::optional<std::string> storeID = {}) {
  PlistDictionary body{{"message", str(std::move(message))}};
  if (!userInfo.isNone()) body.emplace("userinfo", std::move(userInfo));
  if (bundle) body.emplace("bundleIdentifier", str(*bundle));
  if (storeID) body.insert({{"storeIdentifier", str(*storeID)}, {"additionalStore", PropertyList::boolean(true)}});
  return PropertyList::dictionary(std::move(body));
}

// A "synchronize" handing changes (storage records; an empty dictionary
// removes its key) to a store.
PropertyList synchronize(std::optional<std::string> app, PlistDictionary changes,
                         std::optional<std::string> storeID = {}) {
  return envelope("synchronize",
                  makeDictionary({{"changes", PropertyList::dictionary(std::move(changes))},
                                  {"changecount", PropertyList::integer(0)}}),
                  std::move(app), std::move(storeID));
}

std::int64_t integerAt(const PropertyList& dict, std::initializer_list<std::string_view> keys) {
  const PropertyList* at = &dict;
  for (std::string_view key : keys) at = at != nullptr ? at->find(key) : nullptr;
  std::int64_t value = -99;
  return at != nullptr && at->getInt64(value) ? value : -99;
}
std::int64_t changeCount(const PropertyList& reply) { return integerAt(reply, {"userinfo", "changecount"}); }
// The error code of an error reply, 0 for any other reply, -1 for none.
std::int64_t errorCode(const std::optional<PropertyList>& reply) {
  return !reply ? -1 : reply->find("error") == nullptr ? 0 : integerAt(*reply, {"error", "code"});
}

// A Request call carrying body, or null. Caller unrefs it.
sd_bus_message* newRequest(sd_bus* bus, const PropertyList& body) {
  std::optional<velmora::IpcObject> object = velmora::ipcObjectFromPropertyList(body);
  sd_bus_message* call = nullptr;
  if (!object || sd_bus_message_new_method_call(bus, &call, kService, "/com/vantrel/velmorad", "com.vantrel.velmorad",
                                                "Request") < 0) {
    return nullptr;
  }
  return velmora::appendIpcObject(call, *object) >= 0 ? call : sd_bus_message_unref(call);
}

// The reply dictionary to body, or none when no reply came within timeout.
std::optional<PropertyList> call(sd_bus* bus, const PropertyList& body, std::chrono::microseconds timeout = 20s) {
  sd_bus_message* request = newRequest(bus, body);
  sd_bus_message* reply = nullptr;
  std::optional<PropertyList> result;
  if (request != nullptr && sd_bus_call(bus, request, static_cast<std::uint64_t>(timeout.count()), nullptr, &reply) >= 0) {
    result = velmora::readDbusDictionary(reply);
  }
  sd_bus_message_unref(request);
  sd_bus_message_unref(reply);
  return result;
}

// A bus connection of its own (its own unique name) speaking to the daemon.
struct Client {
  Client() {
    scratchHome();
    EXPECT_GE(sd_bus_open_user(&bus), 0);
  }
  ~Client() { sd_bus_flush_close_unref(bus); }
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;

  // The reply dictionary; none (and a test failure) when no reply came.
  PropertyList request(const PropertyList& body) {
    std::optional<PropertyList> reply = call(bus, body);
    EXPECT_TRUE(reply.has_value()) << body.description();
    return reply.value_or(PropertyList());
  }
  PropertyList request(std::string message, PropertyList userInfo = {}, std::optional<std::string> bundle = {}) {
    return request(envelope(std::move(message), std::move(userInfo), std::move(bundle)));
  }
  std::string debug(const std::string& app) {
    const PropertyList reply = request("printDebugDescription", {}, app);
    const std::string* text = reply.find("userinfo") != nullptr ? reply.find("userinfo")->getString() : nullptr;
    return text != nullptr ? *text : "";
  }
  // Sends body flagged as wanting no reply; false when it could not be sent.
  bool send(const PropertyList& body) {
    sd_bus_message* request = newRequest(bus, body);
    const bool sent = request != nullptr && sd_bus_message_set_expect_reply(request, 0) >= 0 &&
                      sd_bus_send(bus, request, nullptr) >= 0;
    sd_bus_message_unref(request);
    return sent;
  }
  // The daemon's pid through the bus; 0 while nobody owns its name.
  pid_t daemonPid() {
    sd_bus_message* reply = nullptr;
    std::uint32_t pid = 0;
    if (sd_bus_call_method(bus, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
                           "GetConnectionUnixProcessID", nullptr, &reply, "s", kService) >= 0) {
      sd_bus_message_read(reply, "u", &pid);
    }
    sd_bus_message_unref(reply);
    return static_cast<pid_t>(pid);
  }

  sd_bus* bus = nullptr;
};

// Each message's reply; malformed requests refused with an error reply that
// changes nothing; the store a request names, or the sender's own; a write
// on disk before its reply, and built on the file as another writer left it.
TEST(VelmoradBus, RepliesAndRefusalsOfTheWire) {
  Client client;
  EXPECT_EQ(client.request("ping"), kEmptyReply);
  EXPECT_EQ(client.request("getConfiguration"),
            makeDictionary({{"userinfo", makeDictionary({{"maxKeyCount", PropertyList::integer(1024)},
                                                         {"maxKeyNameLen", PropertyList::integer(64)},
                                                         {"maxKeyDataLen", PropertyList::integer(1 << 20)},
                                                         {"maxKeyDataSum", PropertyList::integer(1 << 20)}})}}));

  const std::string app = "com.example.wire";
  const PropertyList good = makeDictionary(
      {{"changes", makeDictionary({{"k", record("1")}})}, {"changecount", PropertyList::integer(0)}});
  auto with = [&](PlistDictionary body) {
    body.emplace("message", str("synchronize"));
    body.emplace("userinfo", good);
    return PropertyList::dictionary(std::move(body));
  };
  for (const PropertyList& body : {
           PropertyList::dictionary({}), makeDictionary({{"message", PropertyList::integer(3)}}), envelope("fly", {}, app),
           with({{"bundleIdentifier", PropertyList::integer(1)}}), with({{"bundleIdentifier", str("../escape")}}),
           with({{"bundleIdentifier", str(app)}, {"additionalStore", PropertyList::integer(1)}}),
           with({{"bundleIdentifier", str(app)}, {"additionalStore", PropertyList::boolean(true)}}),  // no storeIdentifier
           envelope("synchronize", {}, app), envelope("synchronize", makeDictionary({{"changes", str("k")}}), app),
           synchronize(app, {{"good", record("1")}, {"bad", makeDictionary({{"value", str("x")}})}}),
           envelope("discardJournalEntries", str("three"), app),
           envelope("migrate", makeDictionary({{"parameter", str("a/b")}}))}) {
    // {"error": {"domain", "code", "userinfo": {"description"}}} and nothing else.
    const PropertyList reply = client.request(body);
    const PropertyList* error = reply.find("error");
    EXPECT_TRUE(errorCode(reply) > 0 && reply.count() == 1 && error->find("domain")->isString() &&
                error->find("userinfo")->find("description")->isString())
        << body.description();
  }
  EXPECT_FALSE(fs::exists(storePath(app)));

  // No bundleIdentifier: the daemon asks the bus who we are. An additional
  // store has a file of its own.
  const std::optional<std::string> self = velmora::applicationIdentifierOfProcess(getpid());
  ASSERT_TRUE(self.has_value());
  EXPECT_EQ(changeCount(client.request(synchronize(std::nullopt, {{"k", record("v")}}))), 1);
  EXPECT_TRUE(fs::exists(storePath(*self)));
  EXPECT_EQ(changeCount(client.request(synchronize("com.example.extra", {{"k", record("v")}}, "second"))), 1);
  EXPECT_TRUE(fs::exists(storePath("com.example.extra-second")));
  EXPECT_FALSE(fs::exists(storePath("com.example.extra")));

  // The reply comes only once the file is in place; a key over the name
  // limit is left out of it.
  EXPECT_EQ(changeCount(client.request(synchronize(app, {{"a", record("1")}, {"b", record("2")}}))), 1);
  EXPECT_EQ(changeCount(client.request(synchronize(
                app, {{"a", PropertyList::dictionary({})}, {std::string(65, 'k'), record("3")}}))),
            2);
  const PropertyList file = velmora::readPlistFile(storePath(app).string());
  EXPECT_EQ(*file.find("values"), makeDictionary({{"b", record("2")}}));
  EXPECT_EQ(integerAt(file, {"changecount"}), 2);
  // migrate rewrites the named application's files, when it has any.
  for (const auto& [named, migrated] : {std::pair{app, true}, std::pair{std::string("com.example.none"), false}}) {
    EXPECT_EQ(client.request("migrate", makeDictionary({{"parameter", str(named)}})),
              makeDictionary({{"userinfo", makeDictionary({{"migrated", PropertyList::boolean(migrated)}})}}));
  }
  EXPECT_EQ(integerAt(velmora::readPlistFile(storePath(app).string()), {"changecount"}), 2);
  // Another writer's file (a daemon that lost its bus, finishing its writes):
  // the next write builds on it, not on the copy this daemon loaded.
  ASSERT_TRUE(velmora::testing::writePlistFile(storePath(app).string(),
                                               velmora::testing::storeWith({{"theirs", record("t")}}, 5)));
  EXPECT_EQ(changeCount(client.request(synchronize(app, {{"ours", record("v")}}))), 6);
  EXPECT_EQ(velmora::readPlistFile(storePath(app).string()).find("values")->count(), 2u);
}

// Stores a connection registered for end with it, a connection cannot pin
// more than a bounded number, and the daemon gives back what idle stores
// held: no lock file stays open, the store entries close.
TEST(VelmoradBus, IdleStoresAreClosedAndRegistrationsAreBounded) {
  Client probe;
  probe.request("ping");  // started by this request when it is not running yet
  ASSERT_GT(probe.daemonPid(), 0);
  const std::string fds = "/proc/" + std::to_string(probe.daemonPid()) + "/fd";
  auto descriptors = [&] {
    std::error_code ec;
    return std::distance(fs::directory_iterator(fds, ec), fs::directory_iterator());
  };
  auto openStores = [&] {
    const std::string text = probe.debug("com.example.probe");
    const std::size_t at = text.find("Open stores: ");
    return at == std::string::npos ? -1L : std::atol(text.c_str() + at + 13);
  };
  const auto before = descriptors();
  {
    Client greedy;
    for (int i = 0; i < 300; ++i) {
      ASSERT_EQ(errorCode(greedy.request("register", {}, "org.madeup.app" + std::to_string(i))), i < 256 ? 0 : 9) << i;
    }
    EXPECT_LE(descriptors(), before + 8);
    EXPECT_GE(openStores(), 256);
    // Defaults configurations are bounded in size too; one kept shows in
    // the store's description. A client can let go of a store.
    const PropertyList big = makeDictionary({{"blob", PropertyList::data(velmora::Bytes(2 << 20))}});
    EXPECT_EQ(errorCode(greedy.request("setDefaultsConfig", big, "org.madeup.app1")), 9);
    const PropertyList small = makeDictionary({{"a", PropertyList::integer(1)}});
    EXPECT_EQ(greedy.request("setDefaultsConfig", small, "org.madeup.app1"), kEmptyReply);
    EXPECT_NE(greedy.debug("org.madeup.app1").find("Defaults configuration: {"), std::string::npos);
    EXPECT_EQ(greedy.request("unregister", {}, "org.madeup.app1"), kEmptyReply);
  }
  EXPECT_TRUE(waitUntil([&] { return openStores() <= 2; }, kPatience)) << openStores();
  EXPECT_LE(descriptors(), before + 2);
}

constexpr const char* kNewcomerApp = "com.example.newcomer";

// Runs only as the child of the test below: opens the store in the parent's
// scratch home, says "opened", then prints "change <reason> <key>" for each
// key of each change it hears of, until killed.
TEST(VelmoradLibrary, NewcomerChild) {
  const char* home = getenv("VELMORAD_TEST_CHILD_HOME");
  if (home == nullptr) GTEST_SKIP() << "runs only as a child of the test below";
  velmora::setEnvironment(std::make_shared<velmora::testing::ScratchHomeEnvironment>(home));
  std::shared_ptr<NimbrelStore> store = NimbrelStore::storeForApplication(kNewcomerApp);
  ASSERT_NE(store, nullptr);
  store->addObserver([](const NimbrelChange& change) {
    for (const std::string& key : change.keys) {
      std::printf("change %lld %s\n", static_cast<long long>(change.reason), key.c_str());
    }
    std::fflush(stdout);
  });
  std::printf("opened\n");
  std::fflush(stdout);
  std::this_thread::sleep_for(std::chrono::hours(1));
}

// A process that opened a store holds the journal entries written after it
// opened, even before its deferred registration would have gone out: here
// the only other client releases them while the newcomer is stopped, and
// the newcomer still hears of both changes as made elsewhere.
TEST(VelmoradLibrary, ANewProcessHearsOfEveryChangeMadeAfterItOpened) {
  const std::string app = kNewcomerApp;
  Client writer;
  EXPECT_EQ(integerAt(writer.request("register", {}, app), {"userinfo", "maxKeyCount"}), 1024);
  ASSERT_EQ(changeCount(writer.request(synchronize(app, {{"first", record("first")}}))), 1);
  auto child = velmora::testing::ChildProcess::start({"/proc/self/exe", "--gtest_filter=VelmoradLibrary.NewcomerChild"},
                                                     {"VELMORAD_TEST_CHILD_HOME=" + scratchHome().string()});
  std::optional<std::string> line;
  while (child && (line = child->readLine(kPatience)) && *line != "opened") {
  }
  ASSERT_TRUE(line.has_value()) << "the child did not open its store";
  // Its registration arrives while it starts, not two seconds later.
  ASSERT_TRUE(waitUntil([&] { return writer.debug(app).find("Registered clients (2)") != std::string::npos; }, 1500ms));
  child->signal(SIGSTOP);
  ASSERT_EQ(changeCount(writer.request(synchronize(app, {{"second", record("second")}}))), 2);
  ASSERT_EQ(changeCount(writer.request(synchronize(app, {{"third", record("third")}}))), 3);
  writer.request("discardJournalEntries", PropertyList::integer(2), app);
  child->signal(SIGCONT);

  std::set<std::string> heard;
  while (heard.size() < 2 && (line = child->readLine(kPatience))) {
    EXPECT_TRUE(line->starts_with("change 0 ")) << *line;  // made elsewhere
    heard.insert(line->substr(std::min<std::size_t>(9, line->size())));
  }
  EXPECT_EQ(heard, (std::set<std::string>{"second", "third"}));
  child->signal(SIGKILL);
}

// SIGTERM while a burst of writes is under way: every request that reached
// the daemon before the signal is answered, every answered write is on
// disk, and the daemon then exits. A ping behind the first half, answered at
// once by the bus thread, proves those reached it; the second half races the
// signal and may be refused, but never left unanswered.
TEST(VelmoradProcess, SigtermFinishesTheWritesInFlight) {
  Client client;
  static int runs = 0;  // a store of its own each run: rewriting the same values would add no counts
  const std::string app = "com.example.sigterm" + std::to_string(++runs);
  ASSERT_FALSE(client.request("ping").isNone());
  const pid_t pid = client.daemonPid();
  ASSERT_GT(pid, 0);
  constexpr std::size_t kHalf = 20;
  std::vector<std::optional<PropertyList>> replies(2 * kHalf + 1);  // none for an error reply; [kHalf] is the ping
  auto onReply = [](sd_bus_message* reply, void* slot, sd_bus_error*) {
    *static_cast<std::optional<PropertyList>*>(slot) =
        sd_bus_message_is_method_error(reply, nullptr) ? PropertyList() : *velmora::readDbusDictionary(reply);
    return 0;
  };
  for (std::size_t i = 0; i < replies.size(); ++i) {
    sd_bus_message* request = newRequest(client.bus, i == kHalf ? envelope("ping", PropertyList::dictionary({}), app)
                                                                : synchronize(app, {{"k" + std::to_string(i), record("v")}}));
    ASSERT_GE(sd_bus_call_async(client.bus, nullptr, request, onReply, &replies[i], 20'000'000), 0);
    sd_bus_message_unref(request);
  }
  const auto deadline = std::chrono::steady_clock::now() + kPatience;
  auto pumpUntil = [&](auto done) {
    while (!done() && std::chrono::steady_clock::now() < deadline) {
      if (sd_bus_process(client.bus, nullptr) == 0) sd_bus_wait(client.bus, 100'000);
    }
  };
  pumpUntil([&] { return replies[kHalf].has_value(); });
  ASSERT_EQ(::kill(pid, SIGTERM), 0);
  pumpUntil([&] { return std::ranges::all_of(replies, [](const auto& r) { return r.has_value(); }); });
  // Every request got a reply; every answered write is on disk with a count
  // of its own (none lost, none merged); the first half were all answered.
  const PropertyList file = velmora::readPlistFile(storePath(app).string());
  std::set<std::int64_t> counts;
  for (std::size_t i = 0; i < replies.size(); ++i) {
    ASSERT_TRUE(replies[i].has_value()) << i;
    if (i == kHalf) continue;
    EXPECT_TRUE(i > kHalf || !replies[i]->isNone()) << i << " reached the daemon before the signal";
    if (replies[i]->isNone()) continue;
    EXPECT_TRUE(counts.insert(changeCount(*replies[i])).second) << i;
    EXPECT_GE(integerAt(file, {"changecount"}), changeCount(*replies[i]));
    EXPECT_NE(file.find("values")->find("k" + std::to_string(i)), nullptr) << i;
  }
  EXPECT_TRUE(waitUntil([&] { return client.daemonPid() == 0; }, kPatience));
}

// Writes while the daemon is killed (SIGKILL) at random moments: every
// acknowledged write is in the files and no daemon forgot what the one
// before it acknowledged.
TEST(VelmoradProcess, AcknowledgedWritesSurviveKillsAtRandomMoments) {
  scratchHome();  // the bus dies with the thread that started it: start it here
  const std::uint32_t seed = std::random_device{}();
  std::printf("kill seed %u\n", seed);  // the kill moments of a failing run
  constexpr int kKills = 10;
  // What each store answered: the last count, values by key. A store takes
  // 1024 keys at most, so the stream moves on to a new one.
  std::map<std::string, std::pair<std::int64_t, std::map<std::string, std::string>>> acknowledged;
  std::atomic<bool> stop{false};
  std::atomic<int> answered{0};
  std::thread writer([&] {  // acknowledged is its own until it is joined
    Client client;
    for (int i = 0; !stop; ++i) {
      const std::string app = "com.example.killed" + std::to_string(i / 1000);
      const std::string key = "k" + std::to_string(i);
      const std::string value = std::to_string(seed) + "-" + key;
      const std::optional<PropertyList> reply = call(client.bus, synchronize(app, {{key, record(value)}}), 5s);
      if (reply && changeCount(*reply) > 0) {  // else killed before it answered: the write may be there or not
        auto& [count, values] = acknowledged[app];
        EXPECT_GT(changeCount(*reply), count) << "a daemon forgot what the one before it acknowledged";
        count = changeCount(*reply);
        values[key] = value;
        ++answered;
      }
    }
  });
  Client killer;
  std::mt19937 random(seed);
  pid_t last = 0;
  for (int kill = 0; kill < kKills; ++kill) {
    // Each new daemon, once it owns the name and every kill is behind an
    // answer, serves for a random while.
    pid_t pid = 0;
    if (!waitUntil([&] { return (pid = killer.daemonPid()) > 0 && pid != last && answered > kill; }, kPatience)) {
      ADD_FAILURE() << "no new daemon answered after kill " << kill;
      break;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(std::uniform_int_distribution<int>(20, 150)(random)));
    EXPECT_EQ(::kill(pid, SIGKILL), 0);
    last = pid;
  }
  EXPECT_TRUE(waitUntil([&] { return killer.daemonPid() != last; }, kPatience));  // until the bus saw it go
  stop = true;
  writer.join();

  for (const auto& [app, answer] : acknowledged) {
    const auto& [count, values] = answer;
    // One more write, by a daemon that loads the store (and sweeps what the kills left) after them.
    EXPECT_GT(changeCount(killer.request(synchronize(app, {{"last", record("after")}}))), count) << app;
    const PropertyList file = velmora::readPlistFile(storePath(app).string());
    ASSERT_NE(file.find("values"), nullptr) << app;
    for (const auto& [key, value] : values) {
      const PropertyList* stored = file.find("values")->find(key);
      EXPECT_TRUE(stored != nullptr && *stored == record(value)) << "acknowledged write " << key << " of " << app << " lost";
    }
  }
}

// Store files that are FIFOs, reading each blocks until we let it go: more
// of them than the worker pool (sized by the core count) has threads. A
// request to another store is still served, and each stuck one, a request
// that wanted no reply, is carried out once let go.
TEST(VelmoradProcess, AStoreStuckOnItsFileHoldsUpNoOtherStore) {
  Client client;
  ASSERT_FALSE(client.request("ping").isNone());
  const int stuck = static_cast<int>(std::max(2u, std::thread::hardware_concurrency())) + 1;
  fs::create_directories(storePath("x").parent_path());
  std::vector<int> holds;  // write ends, opened once the daemon reads each
  for (int i = 0; i < stuck; ++i) {
    const fs::path fifo = storePath("com.example.stuck" + std::to_string(i));
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    ASSERT_TRUE(client.send(synchronize("com.example.stuck" + std::to_string(i), {{"k", record("v")}})));
    int fd = -1;
    // Opening the write end without blocking works once there is a reader.
    EXPECT_TRUE(waitUntil([&] { return (fd = ::open(fifo.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC)) >= 0; }, kPatience));
    if (fd >= 0) holds.push_back(fd);
  }
  ASSERT_EQ(holds.size(), static_cast<std::size_t>(stuck)) << "the daemon did not read every stuck store";
  EXPECT_EQ(changeCount(client.request(synchronize("com.example.unstuck", {{"k", record("v")}}))), 1);

  // Let them go: each reads an empty file, sets it aside and writes its change.
  for (int fd : holds) ::close(fd);
  for (int i = 0; i < stuck; ++i) {
    EXPECT_NE(client.debug("com.example.stuck" + std::to_string(i)).find("Change count: 1"), std::string::npos) << i;
  }
}

// ---------------------------------------------------------------------------
// A confined caller: a child in a mount namespace of its own whose root (a
// scratch directory holding the sandbox's marker file, with the system's
// directories bound in) says it is org.sandboxed.App.

constexpr const char* kSandboxedApp = "org.sandboxed.App";

// Moves this process into root; the reason when it cannot.
std::string enterSandbox(const fs::path& root) {
  if (::unshare(CLONE_NEWNS) != 0 || ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
    return strerror(errno);
  }
  for (const char* dir : {"/usr", "/bin", "/lib", "/lib64", "/etc", "/proc", "/dev", "/tmp"}) {
    const fs::path inside = root / (dir + 1);
    if (fs::is_symlink(dir)) {
      fs::create_symlink(fs::read_symlink(dir), inside);
    } else if (fs::exists(dir)) {
      fs::create_directories(inside);
      if (::mount(dir, inside.c_str(), nullptr, MS_BIND | MS_REC, nullptr) != 0) return strerror(errno);
    }
  }
  return ::chroot(root.c_str()) == 0 && ::chdir("/") == 0 ? "" : strerror(errno);
}

// A socket connected to the bus ("unix:path=...,guid=..."), not yet
// authenticated: whoever uses it later is not who connected.
int connectToBus() {
  const std::string address = getenv("DBUS_SESSION_BUS_ADDRESS");
  sockaddr_un where{};
  where.sun_family = AF_UNIX;
  address.copy(where.sun_path, std::min(address.find(',') - 10, sizeof where.sun_path - 1), 10);
  const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  return fd >= 0 && ::connect(fd, reinterpret_cast<sockaddr*>(&where), sizeof where) == 0 ? fd : -1;
}

// Prints "tried <name> <error code>" for each request the confined caller
// tries (0: answered, -1: no answer), then "done".
void tryEach(sd_bus* bus) {
  const PlistDictionary changes{{"k", record("sandboxed")}};
  const std::pair<const char*, PropertyList> attempts[] = {
      {"own", synchronize(kSandboxedApp, changes)},
      {"own-additional", synchronize(kSandboxedApp, changes, "Prefs")},
      {"other-app", synchronize("org.victim.App", changes)},
      {"collision", synchronize(kSandboxedApp, changes, "Secrets")},
      {"debug-other", envelope("printDebugDescription", {}, "org.victim.App")},
      {"defaults-other", envelope("setDefaultsConfig", PropertyList::dictionary({}), "org.victim.App")},
      {"migrate-other", envelope("migrate", makeDictionary({{"parameter", str("org.victim.App")}}))},
      {"account", envelope("accountLogin", makeDictionary({{"server", str("http://127.0.0.1:1")}, {"token", str("t")}}))},
      {"reset", envelope("resetapps")}};
  for (const auto& [name, body] : attempts) {
    std::printf("tried %s %lld\n", name, static_cast<long long>(errorCode(call(bus, body, 10s))));
  }
  std::printf("done\n");
  std::fflush(stdout);
}

// Runs only as the child of the test below, inside the sandbox: tries each
// request on a connection of its own, or (orphan) connects, forks and exits,
// and the orphan, which did not connect, tries them. Ends with _exit: the
// parent reads only the lines.
TEST(VelmoradSandbox, ConfinedChild) {
  const char* root = getenv("VELMORAD_TEST_SANDBOX_ROOT");
  if (root == nullptr) GTEST_SKIP() << "runs only as a child of the test below";
  if (const std::string why = enterSandbox(root); !why.empty()) {
    std::printf("no-sandbox %s\n", why.c_str());
    return;
  }
  const int fd = connectToBus();
  const pid_t connector = getpid();
  if (getenv("VELMORAD_TEST_SANDBOX_ORPHAN") != nullptr && ::fork() != 0) _exit(0);
  while (getppid() == connector) std::this_thread::sleep_for(1ms);  // the orphan: until its parent is gone
  sd_bus* bus = nullptr;
  if (fd < 0 || sd_bus_new(&bus) < 0 || sd_bus_set_fd(bus, fd, fd) < 0 || sd_bus_set_bus_client(bus, 1) < 0 ||
      sd_bus_start(bus) < 0) {
    _exit(1);
  }
  tryEach(bus);
  _exit(0);
}

// What the confined caller's attempts got, by name; "no-sandbox" where this
// machine cannot make one.
std::map<std::string, std::int64_t> runConfined(bool orphan) {
  velmora::testing::ScratchDirectory root("velmorad-sandbox");
  std::ofstream(root.file(".flatpak-info")) << "[Application]\nname=" << kSandboxedApp << "\n";
  std::vector<std::string> environment = {"VELMORAD_TEST_SANDBOX_ROOT=" + root.path().string()};
  if (orphan) environment.push_back("VELMORAD_TEST_SANDBOX_ORPHAN=1");
  auto child = velmora::testing::ChildProcess::start({"/proc/self/exe", "--gtest_filter=VelmoradSandbox.ConfinedChild"},
                                                     environment);
  std::map<std::string, std::int64_t> results;
  while (std::optional<std::string> line = child ? child->readLine(kPatience) : std::nullopt) {
    if (*line == "done") break;
    if (line->starts_with("no-sandbox")) results["no-sandbox"] = 0;
    if (const std::size_t space = line->rfind(' '); line->starts_with("tried ")) {
      results[line->substr(6, space - 6)] = std::atoll(line->c_str() + space + 1);
    }
  }
  if (child) child->waitForExit(kPatience);
  return results;
}

// A confined caller reaches its own stores and nothing else: not another
// application's store, not the main store of "org.sandboxed.App-Secrets"
// (whose file name is also that of its own store "Secrets"), not the
// account or the other applications' housekeeping. A connection whose
// opener is gone and another process uses: who is asking cannot be
// established, so everything is refused.
TEST(VelmoradSandbox, AConfinedCallerReachesOnlyItsOwnStores) {
  Client outside;
  for (const char* app : {"org.victim.App", "org.sandboxed.App-Secrets"}) {
    ASSERT_EQ(changeCount(outside.request(synchronize(app, {{"secret", record("theirs")}}))), 1);
  }
  std::map<std::string, std::int64_t> expected = {
      {"own", 0},         {"own-additional", 0}, {"other-app", 5}, {"collision", 5}, {"debug-other", 5},
      {"defaults-other", 5}, {"migrate-other", 5}, {"account", 5},   {"reset", 5}};
  const std::map<std::string, std::int64_t> direct = runConfined(false);
  if (direct.contains("no-sandbox")) GTEST_SKIP() << "no mount namespaces here";
  EXPECT_EQ(direct, expected);
  for (auto& [name, code] : expected) code = 5;
  EXPECT_EQ(runConfined(true), expected);
  for (const char* app : {"org.victim.App", "org.sandboxed.App-Secrets"}) {
    const PropertyList file = velmora::readPlistFile(storePath(app).string());
    EXPECT_EQ(file.find("values")->count(), 1u) << app;
    EXPECT_EQ(integerAt(file, {"changecount"}), 1) << app;
  }
}

}  // namespace
