// The real velmorad, started by D-Bus activation on the private bus, with
// store files in a scratch home: raw bus clients for the wire contract, the
// real library for the end-to-end change path.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/file.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <sched.h>
#include <unistd.h>
#include <systemd/sd-bus.h>

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstring>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <map>
#include <mutex>
#include <random>
#include <set>
#include <thread>

#include "PrivateBus.h"
#include "velmora/platform/DbusValue.h"
#include "velmora/platform/Environment.h"
#include "velmora/platform/Ipc.h"
#include "velmora/platform/PlistCodec.h"
#include "zkv/NimbrelStore.h"
#include "zkv/ZKVClient.h"
#include "zkv/ZKVEncoding.h"
#include "zkv/ZKVRemotePreferencesSource.h"

namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using velmora::makeDictionary;
using velmora::PlistDictionary;
using velmora::PropertyList;
using velmora::testing::waitUntil;

constexpr auto kPatience = 10s;
constexpr const char* kService = "com.vantrel.velmorad-sim";

PropertyList str(std::string text) { return PropertyList::string(std::move(text)); }
PropertyList record(const std::string& text) {
  return ZKVCreateStorageForPropertyListAndTimestamp(PropertyList::string(text), 1000);
}

// The real environment with the scratch home the daemon was started with.
class DaemonHomeEnvironment final : public velmora::Environment {
 public:
  explicit DaemonHomeEnvironment(std::string home) : home_(std::move(home)) {}
  std::optional<std::string> getVariable(std::string_view name) const override { return system_.getVariable(name); }
  std::optional<std::string> homeDirectory() const override { return home_; }
  double absoluteTime() const override { return system_.absoluteTime(); }
  std::optional<std::string> hostApplicationIdentifier() const override { return "com.example.velmorad-test"; }
  bool isSandboxed() const override { return false; }

 private:
  velmora::SystemEnvironment system_;
  const std::string home_;
};

// The scratch home, removed at exit (a plain buffer: it must outlive the
// static strings destroyed before atexit handlers registered earlier run).
char gHomeToRemove[64];

// One scratch home per test process: the daemon is activated once per bus
// and keeps the home it was started with.
const std::string& scratchHome() {
  static const std::string home = [] {
    char pattern[] = "/tmp/velmorad-home-XXXXXX";
    if (mkdtemp(pattern) == nullptr) std::abort();
    velmora::testing::PrivateBus::instance().installService(
        kService, {"/usr/bin/env", std::string("HOME=") + pattern, VELMORA_BINARY_DIR "/daemon/velmorad",
                   "--store-idle-seconds", "1"});
    velmora::setEnvironment(std::make_shared<DaemonHomeEnvironment>(pattern));
    std::snprintf(gHomeToRemove, sizeof gHomeToRemove, "%s", pattern);
    std::atexit([] {
      std::error_code ignored;
      fs::remove_all(gHomeToRemove, ignored);
    });
    return std::string(pattern);
  }();
  return home;
}

fs::path storePath(const std::string& app) { return fs::path(scratchHome()) / "Library/Quellstore" / (app + ".plist"); }

// Sends body to the daemon's method on bus and waits up to timeout for the
// reply dictionary; nullopt when the call failed.
std::optional<PropertyList> callDaemon(sd_bus* bus, const PropertyList& body, std::chrono::microseconds timeout) {
  std::optional<velmora::IpcObject> object = velmora::ipcObjectFromPropertyList(body);
  if (!object) return std::nullopt;
  sd_bus_message* call = nullptr;
  sd_bus_message* reply = nullptr;
  int r = sd_bus_message_new_method_call(bus, &call, kService, "/com/vantrel/velmorad", "com.vantrel.velmorad",
                                         "Request");
  if (r >= 0) r = velmora::appendIpcObject(call, *object);
  if (r >= 0) r = sd_bus_call(bus, call, static_cast<std::uint64_t>(timeout.count()), nullptr, &reply);
  std::optional<PropertyList> result;
  if (r >= 0) result = velmora::readDbusDictionary(reply);
  sd_bus_message_unref(call);
  sd_bus_message_unref(reply);
  return result;
}

// A request envelope; storeID makes it an additional store's.
PropertyList envelope(std::string message, PropertyList userInfo, std::optional<std::string> bundle,
                      std::optional<std::string> storeID = std::nullopt) {
  PlistDictionary body{{"message", str(std::move(message))}};
  if (!userInfo.isNone()) body.emplace("userinfo", std::move(userInfo));
  if (bundle) body.emplace("bundleIdentifier", str(*bundle));
  if (storeID) {
    body.emplace("storeIdentifier", str(*storeID));
    body.emplace("additionalStore", PropertyList::boolean(true));
  }
  return PropertyList::dictionary(std::move(body));
}

// The error code of an error reply, 0 for any other reply, -1 for none.
std::int64_t errorCode(const std::optional<PropertyList>& reply) {
  if (!reply) return -1;
  const PropertyList* code = reply->find("error") != nullptr ? reply->find("error")->find("code") : nullptr;
  std::int64_t value = 0;
  return code != nullptr && code->getInt64(value) ? value : 0;
}

// A bus connection of its own (its own unique name) speaking the daemon's
// method directly.
class RawClient {
 public:
  RawClient() {
    scratchHome();
    EXPECT_GE(sd_bus_open_user(&bus_), 0);
  }
  ~RawClient() { close(); }
  RawClient(const RawClient&) = delete;
  RawClient& operator=(const RawClient&) = delete;

  void close() {
    if (bus_ != nullptr) bus_ = sd_bus_flush_close_unref(bus_);
  }
  sd_bus* bus() const { return bus_; }
  std::string uniqueName() const {
    const char* name = nullptr;
    sd_bus_get_unique_name(bus_, &name);
    return name != nullptr ? name : "";
  }

  // Sends body as the one a{sv} argument; the reply dictionary, or none
  // (with a test failure) when no such reply came.
  PropertyList request(const PropertyList& body) {
    sd_bus_message* call = nullptr;
    sd_bus_message* reply = nullptr;
    sd_bus_error error = SD_BUS_ERROR_NULL;
    std::optional<velmora::IpcObject> object = velmora::ipcObjectFromPropertyList(body);
    EXPECT_TRUE(object.has_value());
    if (!object) return {};
    int r = sd_bus_message_new_method_call(bus_, &call, kService, "/com/vantrel/velmorad", "com.vantrel.velmorad",
                                           "Request");
    if (r >= 0) r = velmora::appendIpcObject(call, *object);
    if (r >= 0) r = sd_bus_call(bus_, call, 20'000'000, &error, &reply);
    EXPECT_GE(r, 0) << "call failed: " << (error.message != nullptr ? error.message : strerror(-r));
    std::optional<PropertyList> result;
    if (r >= 0) result = velmora::readDbusDictionary(reply);
    sd_bus_error_free(&error);
    sd_bus_message_unref(call);
    sd_bus_message_unref(reply);
    return result.value_or(PropertyList());
  }

  // Sends body and waits up to timeout for the reply dictionary; nullopt
  // when the call failed (no failure is reported: the caller expects some).
  std::optional<PropertyList> tryRequest(const PropertyList& body, std::chrono::microseconds timeout) {
    return callDaemon(bus_, body, timeout);
  }

  // Sends body flagged as wanting no reply; false when it could not be sent.
  bool sendWithoutReply(const PropertyList& body) {
    sd_bus_message* call = nullptr;
    int r = sd_bus_message_new_method_call(bus_, &call, kService, "/com/vantrel/velmorad", "com.vantrel.velmorad",
                                           "Request");
    if (r >= 0) r = sd_bus_message_set_expect_reply(call, 0);
    if (r >= 0) r = velmora::appendIpcObject(call, *velmora::ipcObjectFromPropertyList(body));
    if (r >= 0) r = sd_bus_send(bus_, call, nullptr);
    sd_bus_message_unref(call);
    return r >= 0;
  }

  PropertyList request(std::string message, PropertyList userInfo, std::optional<std::string> bundle) {
    return request(envelope(std::move(message), std::move(userInfo), std::move(bundle)));
  }

  // The daemon's pid through the bus, or 0.
  pid_t daemonPid() {
    sd_bus_message* reply = nullptr;
    sd_bus_error error = SD_BUS_ERROR_NULL;
    std::uint32_t pid = 0;
    if (sd_bus_call_method(bus_, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
                           "GetConnectionUnixProcessID", &error, &reply, "s", kService) >= 0) {
      sd_bus_message_read(reply, "u", &pid);
    }
    sd_bus_error_free(&error);
    sd_bus_message_unref(reply);
    return static_cast<pid_t>(pid);
  }
  bool daemonHasOwner() {
    sd_bus_message* reply = nullptr;
    int has = 0;
    if (sd_bus_call_method(bus_, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
                           "NameHasOwner", nullptr, &reply, "s", kService) >= 0) {
      sd_bus_message_read(reply, "b", &has);
    }
    sd_bus_message_unref(reply);
    return has != 0;
  }
  std::string introspect() {
    sd_bus_message* reply = nullptr;
    const char* xml = nullptr;
    std::string text;
    if (sd_bus_call_method(bus_, kService, "/com/vantrel/velmorad", "org.freedesktop.DBus.Introspectable",
                           "Introspect", nullptr, &reply, "") >= 0 &&
        sd_bus_message_read(reply, "s", &xml) >= 0) {
      text = xml;
    }
    sd_bus_message_unref(reply);
    return text;
  }

 private:
  sd_bus* bus_ = nullptr;
};

std::int64_t integerAt(const PropertyList& dict, std::initializer_list<std::string_view> keys) {
  const PropertyList* at = &dict;
  for (std::string_view key : keys) {
    at = at->find(key);
    if (at == nullptr) return -99;
  }
  std::int64_t value = -99;
  (void)at->getInt64(value);
  return value;
}

bool isErrorReply(const PropertyList& reply) {
  const PropertyList* error = reply.find("error");
  return error != nullptr && error->find("domain") != nullptr && error->find("domain")->isString() &&
         error->find("code") != nullptr && error->find("code")->isInteger() &&
         error->find("userinfo") != nullptr && error->find("userinfo")->find("description") != nullptr &&
         reply.find("userinfo") == nullptr;
}

TEST(VelmoradBus, ActivatedAndIntrospectable) {
  RawClient client;
  EXPECT_EQ(client.request("ping", {}, std::nullopt), makeDictionary({{"userinfo", PropertyList::dictionary({})}}));
  const std::string xml = client.introspect();
  EXPECT_NE(xml.find("com.vantrel.velmorad"), std::string::npos);
  EXPECT_NE(xml.find("\"Request\""), std::string::npos);
  EXPECT_GT(client.daemonPid(), 0);

  const PropertyList configuration = client.request("getConfiguration", {}, std::nullopt);
  EXPECT_EQ(integerAt(configuration, {"userinfo", "maxKeyCount"}), 1024);
  EXPECT_EQ(integerAt(configuration, {"userinfo", "maxKeyNameLen"}), 64);
  EXPECT_EQ(integerAt(configuration, {"userinfo", "maxKeyDataLen"}), 1048576);
  EXPECT_EQ(integerAt(configuration, {"userinfo", "maxKeyDataSum"}), 1048576);
  for (const char* message : {"synchronizeRemote", "trackSynchronizeRemote"}) {
    EXPECT_EQ(client.request(message, {}, "com.example.idle"),
              makeDictionary({{"userinfo", PropertyList::dictionary({})}}));
  }
}

TEST(VelmoradBus, MalformedRequestsGetErrorRepliesAndChangeNothing) {
  RawClient client;
  const std::string app = "com.example.malformed";
  const std::vector<PropertyList> bodies = {
      PropertyList::dictionary({}),                                               // no message
      makeDictionary({{"message", PropertyList::integer(3)}}),                    // message not a string
      makeDictionary({{"message", str("fly")}, {"bundleIdentifier", str(app)}}),  // unknown message
      makeDictionary({{"message", str("synchronize")}, {"bundleIdentifier", PropertyList::integer(1)}}),
      makeDictionary({{"message", str("synchronize")}, {"bundleIdentifier", str("../escape")}}),
      makeDictionary({{"message", str("synchronize")},
                      {"bundleIdentifier", str(app)},
                      {"additionalStore", PropertyList::integer(1)}}),
      makeDictionary({{"message", str("synchronize")}, {"bundleIdentifier", str(app)}, {"additionalStore",
                      PropertyList::boolean(true)}}),  // additional store without a storeIdentifier
      makeDictionary({{"message", str("synchronize")}, {"bundleIdentifier", str(app)}}),  // no userinfo
      makeDictionary({{"message", str("synchronize")},
                      {"bundleIdentifier", str(app)},
                      {"userinfo", makeDictionary({{"changes", str("k")}})}}),
      makeDictionary({{"message", str("synchronize")},
                      {"bundleIdentifier", str(app)},
                      {"userinfo", makeDictionary({{"changes", makeDictionary({{"good", record("1")},
                                                                               {"bad", makeDictionary({{"value", str("x")}})}})},
                                                   {"changecount", PropertyList::integer(0)}})}}),
      makeDictionary({{"message", str("discardJournalEntries")},
                      {"bundleIdentifier", str(app)},
                      {"userinfo", str("three")}}),
      makeDictionary({{"message", str("migrate")}, {"userinfo", makeDictionary({{"parameter", str("a/b")}})}}),
  };
  for (const PropertyList& body : bodies) {
    EXPECT_TRUE(isErrorReply(client.request(body))) << body.description();
  }
  EXPECT_FALSE(fs::exists(storePath(app)));
  EXPECT_EQ(client.request("ping", {}, std::nullopt), makeDictionary({{"userinfo", PropertyList::dictionary({})}}));
}

TEST(VelmoradBus, SynchronizeIsDurableBeforeTheReply) {
  RawClient client;
  const std::string app = "com.example.durable";
  const PropertyList changes = makeDictionary({{"a", record("1")}, {"b", record("2")}});
  PropertyList reply = client.request(
      "synchronize", makeDictionary({{"changes", changes}, {"changecount", PropertyList::integer(0)}}), app);
  EXPECT_EQ(integerAt(reply, {"userinfo", "changecount"}), 1);
  // No waiting: the reply comes only once the file is in place.
  const PropertyList file = velmora::readPlistFile(storePath(app).string());
  EXPECT_EQ(integerAt(file, {"changecount"}), 1);
  ASSERT_NE(file.find("values"), nullptr);
  EXPECT_EQ(*file.find("values"), changes);
  struct stat info{};
  ASSERT_EQ(::stat(storePath(app).c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 0777, 0600u);
  const ino_t inode = info.st_ino;

  // The same again changes nothing and writes nothing.
  reply = client.request("synchronize",
                         makeDictionary({{"changes", changes}, {"changecount", PropertyList::integer(1)}}), app);
  EXPECT_EQ(integerAt(reply, {"userinfo", "changecount"}), 1);
  ASSERT_EQ(::stat(storePath(app).c_str(), &info), 0);
  EXPECT_EQ(info.st_ino, inode);

  // Removal through an empty dictionary.
  reply = client.request(
      "synchronize",
      makeDictionary({{"changes", makeDictionary({{"a", PropertyList::dictionary({})}})},
                      {"changecount", PropertyList::integer(1)}}),
      app);
  EXPECT_EQ(integerAt(reply, {"userinfo", "changecount"}), 2);
  EXPECT_EQ(velmora::readPlistFile(storePath(app).string()).find("values")->find("a"), nullptr);

  const PropertyList debug = client.request("printDebugDescription", {}, app);
  const PropertyList* text = debug.find("userinfo");
  ASSERT_TRUE(text != nullptr && text->isString());
  EXPECT_NE(text->getString()->find("Change count: 2"), std::string::npos) << *text->getString();
  EXPECT_NE(text->getString()->find("no server configured"), std::string::npos);
}

TEST(VelmoradBus, JournalEntriesStayUntilEveryRegisteredClientReleasedThem) {
  const std::string app = "com.example.prune";
  RawClient first;
  RawClient second;
  for (RawClient* client : {&first, &second}) {
    EXPECT_EQ(integerAt(client->request("register", {}, app), {"userinfo", "maxKeyCount"}), 1024);
  }
  const PropertyList reply = first.request(
      "synchronize",
      makeDictionary({{"changes", makeDictionary({{"k", record("v")}})}, {"changecount", PropertyList::integer(0)}}),
      app);
  ASSERT_EQ(integerAt(reply, {"userinfo", "changecount"}), 1);
  auto journal = [&] { return velmora::readPlistFile(storePath(app).string()).find("journal") != nullptr; };
  ASSERT_TRUE(journal());

  first.request("discardJournalEntries", PropertyList::integer(1), app);
  EXPECT_TRUE(journal());  // the second still holds it
  // The second leaves the bus without a word: it holds nothing any more.
  second.close();
  EXPECT_TRUE(waitUntil([&] { return !journal(); }, kPatience));
  EXPECT_EQ(integerAt(velmora::readPlistFile(storePath(app).string()), {"changecount"}), 1);
}

// A refused key leaves no trace: not in the file, not in its journal, and
// its log line quotes only the start of it.
TEST(VelmoradBus, KeysOverTheLimitsAreRefusedAndLeaveTheStoreAsItWas) {
  RawClient client;
  const std::string app = "com.example.quota";
  auto synchronize = [&](const std::string& key) {
    return client.request("synchronize",
                          makeDictionary({{"changes", makeDictionary({{key, record("v")}})},
                                          {"changecount", PropertyList::integer(0)}}),
                          app);
  };
  EXPECT_EQ(integerAt(synchronize("fine"), {"userinfo", "changecount"}), 1);
  struct stat before{};
  ASSERT_EQ(::stat(storePath(app).c_str(), &before), 0);
  for (int i = 0; i < 300; ++i) {
    ASSERT_EQ(integerAt(synchronize(std::string(4000, 'k') + std::to_string(i)), {"userinfo", "changecount"}), 1);
  }
  struct stat after{};
  ASSERT_EQ(::stat(storePath(app).c_str(), &after), 0);
  EXPECT_EQ(after.st_ino, before.st_ino);
  EXPECT_EQ(after.st_size, before.st_size);
}

// Stores a connection registered for end with it, a connection cannot pin
// more than a bounded number, and the daemon gives back what idle stores
// held: no lock file stays open, the store entries close.
TEST(VelmoradBus, IdleStoresAreClosedAndRegistrationsAreBounded) {
  RawClient probe;
  probe.request("ping", {}, {});  // started by this request when it is not running yet
  const pid_t daemon = probe.daemonPid();
  ASSERT_GT(daemon, 0);
  auto count = [](const std::string& dir) {
    std::error_code ec;
    return std::distance(fs::directory_iterator(dir, ec), fs::directory_iterator());
  };
  auto openStores = [&] {
    const PropertyList reply = probe.request("printDebugDescription", {}, "com.example.probe");
    const std::string* text = reply.find("userinfo") != nullptr ? reply.find("userinfo")->getString() : nullptr;
    const std::size_t at = text != nullptr ? text->find("Open stores: ") : std::string::npos;
    return at == std::string::npos ? -1L : std::atol(text->c_str() + at + 13);
  };
  const auto descriptors = count("/proc/" + std::to_string(daemon) + "/fd");
  {
    RawClient greedy;
    for (int i = 0; i < 300; ++i) {
      const PropertyList reply = greedy.request("register", {}, "org.madeup.app" + std::to_string(i));
      ASSERT_EQ(errorCode(reply), i < 256 ? 0 : 9) << i;
    }
    EXPECT_LE(count("/proc/" + std::to_string(daemon) + "/fd"), descriptors + 8);
    EXPECT_GE(openStores(), 256);
    // Defaults configurations are bounded in size too.
    const PropertyList big = makeDictionary({{"blob", PropertyList::data(velmora::Bytes(2 << 20))}});
    EXPECT_EQ(errorCode(greedy.request("setDefaultsConfig", big, "org.madeup.app1")), 9);
  }
  EXPECT_TRUE(waitUntil([&] { return openStores() <= 2; }, kPatience)) << openStores();
  EXPECT_LE(count("/proc/" + std::to_string(daemon) + "/fd"), descriptors + 2);
}

// A second daemon of the same home (one that lost its bus and is finishing
// its writes) holds the store's lock and replaces the file meanwhile: the
// write waits for the lock and then builds on the other's file.
TEST(VelmoradBus, AWriteWaitsForTheStoreLockAndKeepsTheOtherWritersChange) {
  RawClient client;
  const std::string app = "com.example.locked";
  const auto changesOf = [](const char* key) {
    return makeDictionary({{"changes", makeDictionary({{key, record("v")}})}, {"changecount", PropertyList::integer(0)}});
  };
  ASSERT_EQ(integerAt(client.request("synchronize", changesOf("ours1"), app), {"userinfo", "changecount"}), 1);

  const fs::path lockPath = storePath(app).parent_path() / ("." + app + ".plist.lock");
  const int lockFd = ::open(lockPath.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);  // as the other daemon would
  ASSERT_GE(lockFd, 0);
  ASSERT_EQ(::flock(lockFd, LOCK_EX), 0);

  std::atomic<std::int64_t> answered{-1};
  std::thread writer([&] { answered = integerAt(client.request("synchronize", changesOf("ours2"), app), {"userinfo", "changecount"}); });
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  EXPECT_EQ(answered.load(), -1) << "answered while another writer held the store";

  // The other writer's file: its own key at a higher count.
  PropertyList file = velmora::readPlistFile(storePath(app).string());
  PlistDictionary contents = *file.getDictionary();
  PlistDictionary values = *contents.at("values").getDictionary();
  values.emplace("theirs", record("t"));
  contents["values"] = PropertyList::dictionary(std::move(values));
  contents["changecount"] = PropertyList::integer(5);
  const fs::path temporary = storePath(app).string() + ".theirs";
  {
    const auto bytes = velmora::encodeBinaryPlist(PropertyList::dictionary(std::move(contents)));
    ASSERT_TRUE(bytes.has_value());
    std::ofstream out(temporary, std::ios::binary);
    out.write(reinterpret_cast<const char*>(bytes->data()), static_cast<std::streamsize>(bytes->size()));
  }
  fs::rename(temporary, storePath(app));
  ASSERT_EQ(::flock(lockFd, LOCK_UN), 0);
  writer.join();
  ::close(lockFd);

  EXPECT_EQ(answered.load(), 6);
  const PropertyList after = velmora::readPlistFile(storePath(app).string());
  for (const char* key : {"ours1", "ours2", "theirs"}) EXPECT_NE(after.find("values")->find(key), nullptr) << key;
}

TEST(VelmoradBus, AFireAndForgetRequestIsStillCarriedOut) {
  RawClient client;
  const std::string app = "com.example.noreply";
  ASSERT_TRUE(client.sendWithoutReply(makeDictionary(
      {{"message", str("synchronize")},
       {"bundleIdentifier", str(app)},
       {"userinfo", makeDictionary({{"changes", makeDictionary({{"k", record("v")}})},
                                    {"changecount", PropertyList::integer(0)}})}})));
  // Requests of one store run in order: the answer to this one comes after.
  const PropertyList debug = client.request("printDebugDescription", {}, app);
  ASSERT_TRUE(debug.find("userinfo") != nullptr && debug.find("userinfo")->isString());
  EXPECT_NE(debug.find("userinfo")->getString()->find("Change count: 1"), std::string::npos);
  EXPECT_EQ(integerAt(velmora::readPlistFile(storePath(app).string()), {"changecount"}), 1);
}

TEST(VelmoradBus, TheStoreIsTheSendersOwnUnlessOneIsNamed) {
  RawClient client;
  const PropertyList changes =
      makeDictionary({{"changes", makeDictionary({{"k", record("v")}})}, {"changecount", PropertyList::integer(0)}});
  // No bundleIdentifier: the daemon asks the bus who we are.
  const std::optional<std::string> self = velmora::applicationIdentifierOfProcess(getpid());
  ASSERT_TRUE(self.has_value());
  EXPECT_EQ(integerAt(client.request("synchronize", changes, std::nullopt), {"userinfo", "changecount"}), 1);
  EXPECT_TRUE(fs::exists(storePath(*self)));

  // An additional store of a named application has a file of its own.
  const PropertyList reply = client.request(makeDictionary({{"message", str("synchronize")},
                                                            {"bundleIdentifier", str("com.example.extra")},
                                                            {"storeIdentifier", str("second")},
                                                            {"additionalStore", PropertyList::boolean(true)},
                                                            {"userinfo", changes}}));
  EXPECT_EQ(integerAt(reply, {"userinfo", "changecount"}), 1);
  EXPECT_TRUE(fs::exists(storePath("com.example.extra-second")));
  EXPECT_FALSE(fs::exists(storePath("com.example.extra")));
}

TEST(VelmoradBus, ManySendersToOneStoreAreServedInOrder) {
  scratchHome();  // the bus dies with the thread that started it: start it here
  const std::string app = "com.example.busy";
  constexpr int kSenders = 4;
  constexpr int kEach = 15;
  std::vector<std::vector<std::int64_t>> counts(kSenders);
  std::vector<std::thread> threads;
  for (int t = 0; t < kSenders; ++t) {
    threads.emplace_back([&, t] {
      RawClient client;
      for (int i = 0; i < kEach; ++i) {
        const std::string key = "k" + std::to_string(t) + "-" + std::to_string(i);
        const PropertyList reply = client.request(
            "synchronize",
            makeDictionary({{"changes", makeDictionary({{key, record("v")}})}, {"changecount", PropertyList::integer(0)}}),
            app);
        counts[t].push_back(integerAt(reply, {"userinfo", "changecount"}));
        // Pings from the same senders are answered in between.
        (void)client.request("ping", {}, std::nullopt);
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  std::set<std::int64_t> all;
  for (const auto& mine : counts) {
    EXPECT_TRUE(std::is_sorted(mine.begin(), mine.end()));
    all.insert(mine.begin(), mine.end());
  }
  // Every write got a count of its own: none lost, none merged.
  EXPECT_EQ(all.size(), static_cast<std::size_t>(kSenders * kEach));
  EXPECT_EQ(*all.begin(), 1);
  EXPECT_EQ(*all.rbegin(), kSenders * kEach);
  const PropertyList file = velmora::readPlistFile(storePath(app).string());
  EXPECT_EQ(integerAt(file, {"changecount"}), kSenders * kEach);
  EXPECT_EQ(file.find("values")->count(), static_cast<std::size_t>(kSenders * kEach));
}

TEST(VelmoradBus, ManagementMessages) {
  RawClient client;
  const PropertyList empty = makeDictionary({{"userinfo", PropertyList::dictionary({})}});
  const PropertyList changes =
      makeDictionary({{"changes", makeDictionary({{"k", record("v")}})}, {"changecount", PropertyList::integer(0)}});
  for (const char* app : {"com.example.m1", "com.example.m2"}) {
    EXPECT_EQ(integerAt(client.request("synchronize", changes, app), {"userinfo", "changecount"}), 1);
  }
  EXPECT_EQ(client.request("setDefaultsConfig", makeDictionary({{"a", PropertyList::integer(1)}}), "com.example.m1"),
            empty);
  const PropertyList debug = client.request("printDebugDescription", {}, "com.example.m1");
  ASSERT_TRUE(debug.find("userinfo") != nullptr && debug.find("userinfo")->isString());
  EXPECT_NE(debug.find("userinfo")->getString()->find("Defaults configuration: {"), std::string::npos);
  auto listsMe = [&] {
    const PropertyList text = client.request("printDebugDescription", {}, "com.example.m1");
    return text.find("userinfo")->getString()->find(client.uniqueName()) != std::string::npos;
  };
  EXPECT_FALSE(listsMe());
  EXPECT_EQ(integerAt(client.request("register", {}, "com.example.m1"), {"userinfo", "maxKeyNameLen"}), 64);
  EXPECT_TRUE(listsMe());
  EXPECT_EQ(client.request("unregister", {}, "com.example.m1"), empty);
  EXPECT_FALSE(listsMe());

  // migrate rewrites the named application's files only.
  struct stat info{};
  ASSERT_EQ(::stat(storePath("com.example.m2").c_str(), &info), 0);
  const ino_t m2 = info.st_ino;
  EXPECT_EQ(client.request("migrate", makeDictionary({{"parameter", str("com.example.m1")}}), std::nullopt),
            makeDictionary({{"userinfo", makeDictionary({{"migrated", PropertyList::boolean(true)}})}}));
  ASSERT_EQ(::stat(storePath("com.example.m2").c_str(), &info), 0);
  EXPECT_EQ(info.st_ino, m2);
  EXPECT_EQ(integerAt(velmora::readPlistFile(storePath("com.example.m1").string()), {"changecount"}), 1);
  EXPECT_EQ(client.request("migrate", makeDictionary({{"parameter", str("com.example.none")}}), std::nullopt),
            makeDictionary({{"userinfo", makeDictionary({{"migrated", PropertyList::boolean(false)}})}}));

  // resetapps removes every store and the daemon forgets what it held.
  EXPECT_EQ(client.request("resetapps", {}, std::nullopt), empty);
  EXPECT_FALSE(fs::exists(storePath("com.example.m1")));
  EXPECT_FALSE(fs::exists(storePath("com.example.m2")));
  EXPECT_EQ(integerAt(client.request("synchronize", changes, "com.example.m1"), {"userinfo", "changecount"}), 1);
}

// Set in the children the tests below start: the parent's scratch home.
constexpr const char* kChildHomeVariable = "VELMORAD_TEST_CHILD_HOME";
constexpr const char* kSharedApp = "com.example.shared";
constexpr const char* kNewcomerApp = "com.example.newcomer";

// In a child: the store of application in the parent's scratch home, on the
// parent's bus (inherited through DBUS_SESSION_BUS_ADDRESS).
std::shared_ptr<NimbrelStore> childStore(const char* application) {
  velmora::setEnvironment(std::make_shared<DaemonHomeEnvironment>(getenv(kChildHomeVariable)));
  return NimbrelStore::storeForApplication(application);
}

// In the parent: runs this binary's test VelmoradLibrary.<test> as a child
// and reads its output until it printed marker; null when it did not.
std::unique_ptr<velmora::testing::ChildProcess> startChild(const std::string& test, const std::string& marker) {
  std::unique_ptr<velmora::testing::ChildProcess> child = velmora::testing::ChildProcess::start(
      {"/proc/self/exe", "--gtest_filter=VelmoradLibrary." + test},
      {std::string(kChildHomeVariable) + "=" + scratchHome()});
  if (!child) return nullptr;
  std::optional<std::string> line;
  while ((line = child->readLine(kPatience)) && *line != marker) {
  }
  return line ? std::move(child) : nullptr;
}

// Runs only as the child of AWriteInOneProcessReachesAnotherAsAnExternalChange:
// the application's second process, writing through the real library.
TEST(VelmoradLibrary, WriterChild) {
  if (getenv(kChildHomeVariable) == nullptr) GTEST_SKIP() << "runs only as a child of the test below";
  std::shared_ptr<NimbrelStore> writer = childStore(kSharedApp);
  ASSERT_NE(writer, nullptr);
  ASSERT_TRUE(writer->setObject("greeting", str("hello")).ok());
  ASSERT_TRUE(writer->synchronize());
  std::printf("written\n");
  std::fflush(stdout);
}

TEST(VelmoradLibrary, AWriteInOneProcessReachesAnotherAsAnExternalChange) {
  scratchHome();
  std::shared_ptr<NimbrelStore> reader = NimbrelStore::storeForApplication(kSharedApp);
  ASSERT_NE(reader, nullptr);
  auto mutex = std::make_shared<std::mutex>();
  auto seen = std::make_shared<std::vector<NimbrelChange>>();  // guarded by *mutex
  const NimbrelObserverToken token = reader->addObserver([mutex, seen](const NimbrelChange& change) {
    std::lock_guard lock(*mutex);
    seen->push_back(change);
  });
  EXPECT_FALSE(reader->getString("greeting").has_value());  // loads the (absent) store

  std::unique_ptr<velmora::testing::ChildProcess> child = startChild("WriterChild", "written");
  ASSERT_NE(child, nullptr);
  const std::optional<int> status = child->waitForExit(kPatience);
  ASSERT_TRUE(status.has_value());
  EXPECT_TRUE(WIFEXITED(*status) && WEXITSTATUS(*status) == 0);
  EXPECT_EQ(integerAt(velmora::readPlistFile(storePath(kSharedApp).string()), {"changecount"}), 1);

  ASSERT_TRUE(waitUntil(
      [&] {
        std::lock_guard lock(*mutex);
        return !seen->empty();
      },
      kPatience));
  {
    std::lock_guard lock(*mutex);
    ASSERT_EQ(seen->size(), 1u);
    EXPECT_EQ((*seen)[0].reason, kNimbrelChangeReasonServerChange);
    EXPECT_EQ((*seen)[0].keys, std::vector<std::string>{"greeting"});
  }
  EXPECT_EQ(reader->getString("greeting"), "hello");
  reader->removeObserver(token);
}

// Runs only as the child of ANewProcessHearsOfEveryChangeMadeAfterItOpened:
// opens the store, says "opened", then prints "change <reason> <key>" for
// each key of each change it hears of, until killed.
TEST(VelmoradLibrary, NewcomerChild) {
  if (getenv(kChildHomeVariable) == nullptr) GTEST_SKIP() << "runs only as a child of the test below";
  std::shared_ptr<NimbrelStore> store = childStore(kNewcomerApp);
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
  RawClient writer;
  writer.request("register", {}, app);
  auto write = [&](const char* key, std::int64_t count) {
    const PropertyList changes = makeDictionary(
        {{"changes", makeDictionary({{key, record(key)}})}, {"changecount", PropertyList::integer(count)}});
    return integerAt(writer.request("synchronize", changes, app), {"userinfo", "changecount"});
  };
  ASSERT_EQ(write("first", 0), 1);

  std::unique_ptr<velmora::testing::ChildProcess> child = startChild("NewcomerChild", "opened");
  ASSERT_NE(child, nullptr);
  // Its registration arrives while it starts, not two seconds later.
  auto registered = [&] {
    const PropertyList debug = writer.request("printDebugDescription", {}, app);
    const PropertyList* text = debug.find("userinfo");
    return text != nullptr && text->isString() &&
           text->getString()->find("Registered clients (2)") != std::string::npos;
  };
  ASSERT_TRUE(waitUntil(registered, 1500ms));
  child->signal(SIGSTOP);
  ASSERT_EQ(write("second", 1), 2);
  ASSERT_EQ(write("third", 2), 3);
  writer.request("discardJournalEntries", PropertyList::integer(2), app);
  child->signal(SIGCONT);

  std::set<std::string> heard;
  std::optional<std::string> line;
  const std::string madeElsewhere = "change 0 ";
  while (heard.size() < 2 && (line = child->readLine(kPatience))) {
    EXPECT_EQ(line->rfind(madeElsewhere, 0), 0u) << *line;
    heard.insert(line->substr(std::min(madeElsewhere.size(), line->size())));
  }
  EXPECT_EQ(heard, (std::set<std::string>{"second", "third"}));
  child->signal(SIGKILL);
}

// Several stores of one process writing at once, while every write's change
// notice makes each of them reload: the reloads run on shared pool workers,
// and none of them may wait for a writer that in turn needs a free worker.
TEST(VelmoradLibrary, ManyStoresOfOneProcessWriteAtOnce) {
  scratchHome();
  constexpr int kStores = 8;
  constexpr int kWrites = 6;
  std::vector<std::shared_ptr<NimbrelStore>> stores;
  for (int i = 0; i < kStores; ++i) {
    stores.push_back(NimbrelStore::storeForApplication("com.example.many." + std::to_string(i)));
    ASSERT_NE(stores.back(), nullptr);
  }
  std::atomic<int> finished{0};
  std::vector<std::thread> writers;
  for (int i = 0; i < kStores; ++i) {
    writers.emplace_back([&, i] {
      for (int n = 0; n < kWrites; ++n) {
        EXPECT_TRUE(stores[i]->setString("k" + std::to_string(n), "v" + std::to_string(n)).ok());
        EXPECT_TRUE(stores[i]->synchronize());
      }
      finished.fetch_add(1);
    });
  }
  const bool done = waitUntil([&] { return finished.load() == kStores; }, 6 * kPatience);
  if (!done) {
    // Stuck threads cannot be joined; end the process so the failure shows
    // instead of a hang.
    ADD_FAILURE() << "writers stalled: " << finished.load() << " of " << kStores << " finished";
    std::fflush(nullptr);
    std::_Exit(1);
  }
  for (std::thread& writer : writers) writer.join();
  for (int i = 0; i < kStores; ++i) {
    const PropertyList file = velmora::readPlistFile(storePath("com.example.many." + std::to_string(i)).string());
    EXPECT_EQ(integerAt(file, {"changecount"}), kWrites) << "store " << i;
  }
}

// Replies of a burst of asynchronous calls, by call index.
struct Burst {
  std::map<int, PropertyList> replies;  // none for an error reply
};

int onBurstReply(sd_bus_message* reply, void* userdata, sd_bus_error*) {
  auto* slot = static_cast<std::pair<Burst*, int>*>(userdata);
  std::optional<PropertyList> value;
  if (!sd_bus_message_is_method_error(reply, nullptr)) value = velmora::readDbusDictionary(reply);
  slot->first->replies[slot->second] = value.value_or(PropertyList());
  return 0;
}

TEST(VelmoradProcess, SigtermFinishesTheWritesInFlight) {
  RawClient client;
  const std::string app = "com.example.sigterm";
  ASSERT_FALSE(client.request("ping", {}, std::nullopt).isNone());
  const pid_t pid = client.daemonPid();
  ASSERT_GT(pid, 0);
  constexpr int kCalls = 20;
  Burst burst;
  std::vector<std::pair<Burst*, int>> slots;
  for (int i = 0; i < kCalls; ++i) slots.emplace_back(&burst, i);
  for (int i = 0; i < kCalls; ++i) {
    sd_bus_message* call = nullptr;
    ASSERT_GE(sd_bus_message_new_method_call(client.bus(), &call, kService, "/com/vantrel/velmorad",
                                             "com.vantrel.velmorad", "Request"),
              0);
    const PropertyList body = makeDictionary(
        {{"message", str("synchronize")},
         {"bundleIdentifier", str(app)},
         {"userinfo", makeDictionary({{"changes", makeDictionary({{"k" + std::to_string(i), record("v")}})},
                                      {"changecount", PropertyList::integer(0)}})}});
    ASSERT_GE(velmora::appendIpcObject(call, *velmora::ipcObjectFromPropertyList(body)), 0);
    ASSERT_GE(sd_bus_call_async(client.bus(), nullptr, call, onBurstReply, &slots[i], 20'000'000), 0);
    sd_bus_message_unref(call);
  }
  const auto deadline = std::chrono::steady_clock::now() + kPatience;
  auto pumpUntil = [&](std::size_t replies) {
    while (burst.replies.size() < replies && std::chrono::steady_clock::now() < deadline) {
      if (sd_bus_process(client.bus(), nullptr) == 0) sd_bus_wait(client.bus(), 100'000);
    }
  };
  // Stop it while it works through the burst: after the first answer.
  pumpUntil(1);
  ASSERT_EQ(::kill(pid, SIGTERM), 0);
  pumpUntil(kCalls);
  ASSERT_EQ(burst.replies.size(), static_cast<std::size_t>(kCalls));
  // Every write that was answered is on disk.
  const PropertyList file = velmora::readPlistFile(storePath(app).string());
  int answered = 0;
  for (const auto& [i, reply] : burst.replies) {
    if (reply.isNone()) continue;
    ++answered;
    const std::int64_t count = integerAt(reply, {"userinfo", "changecount"});
    EXPECT_GE(integerAt(file, {"changecount"}), count);
    ASSERT_NE(file.find("values"), nullptr);
    EXPECT_NE(file.find("values")->find("k" + std::to_string(i)), nullptr) << i;
  }
  // The bus thread reads on while the first write goes to disk, so more than
  // the first request was in flight when the signal came; all of those must
  // have been answered rather than dropped.
  EXPECT_GT(answered, 1);
}

TEST(VelmoradProcess, SigtermEndsItAndTheNextRequestStartsItAgain) {
  RawClient client;
  ASSERT_FALSE(client.request("ping", {}, std::nullopt).isNone());  // activates it
  const pid_t pid = client.daemonPid();
  ASSERT_GT(pid, 0);
  ASSERT_EQ(::kill(pid, SIGTERM), 0);
  EXPECT_TRUE(waitUntil([&] { return !client.daemonHasOwner(); }, kPatience));
  EXPECT_EQ(client.request("ping", {}, std::nullopt), makeDictionary({{"userinfo", PropertyList::dictionary({})}}));
  EXPECT_NE(client.daemonPid(), pid);
}

TEST(VelmoradProcess, AcknowledgedWritesSurviveKillsAtRandomMoments) {
  scratchHome();  // the bus dies with the thread that started it: start it here
  // A failing run is repeated with VELMORAD_KILL_SEED set to the seed it printed.
  const char* seedText = getenv("VELMORAD_KILL_SEED");
  const std::uint32_t seed = seedText != nullptr ? static_cast<std::uint32_t>(std::strtoul(seedText, nullptr, 10))
                                                 : std::random_device{}();
  std::printf("kill seed %u\n", seed);
  RecordProperty("kill_seed", std::to_string(seed));
  constexpr int kMaxKills = 10;
  constexpr auto kKillingTime = 8s;
  // Every write adds a key; a store takes 1024 at most, so the stream moves
  // on to a new store before that.
  constexpr int kKeysPerStore = 1000;
  auto appOf = [](int i) { return "com.example.killed" + std::to_string(i / kKeysPerStore); };
  auto synchronize = [](const std::string& app, const std::string& key, const std::string& value) {
    return makeDictionary({{"message", str("synchronize")},
                           {"bundleIdentifier", str(app)},
                           {"userinfo", makeDictionary({{"changes", makeDictionary({{key, record(value)}})},
                                                        {"changecount", PropertyList::integer(0)}})}});
  };

  // What one store answered, in request order.
  struct Acknowledged {
    std::map<std::string, std::string> values;
    std::vector<std::int64_t> counts;
  };
  std::atomic<bool> stop{false};
  // Written by the writer thread only; read after it is joined.
  std::map<std::string, Acknowledged> acknowledged;  // by application
  int written = 0;
  int unanswered = 0;
  std::atomic<std::size_t> answeredSoFar{0};
  std::thread writer([&] {
    RawClient client;
    for (int i = 0; !stop.load(); ++i) {
      const std::string app = appOf(i);
      const std::string key = "k" + std::to_string(i);
      const std::string value = "v" + std::to_string(i) + "-" + std::to_string(seed);
      const std::optional<PropertyList> reply = client.tryRequest(synchronize(app, key, value), 5s);
      const std::int64_t count = reply ? integerAt(*reply, {"userinfo", "changecount"}) : -99;
      ++written;
      if (count > 0) {
        acknowledged[app].values[key] = value;
        acknowledged[app].counts.push_back(count);
        ++answeredSoFar;
      } else {
        ++unanswered;  // killed before it answered: the write may or may not be there
      }
    }
  });
  // Stops and joins the writer on every way out, failed assertions included.
  struct StopWriter {
    std::atomic<bool>& stop;
    std::thread& thread;
    ~StopWriter() {
      stop = true;
      if (thread.joinable()) thread.join();
    }
  } stopWriter{stop, writer};

  int kills = 0;
  {
    RawClient killer;
    std::mt19937 random(seed);
    std::uniform_int_distribution<int> interval(20, 150);
    pid_t lastKilled = 0;
    const auto deadline = std::chrono::steady_clock::now() + kKillingTime;
    while (kills < kMaxKills && std::chrono::steady_clock::now() < deadline) {
      // Each new daemon serves for a random while once it owns the name.
      pid_t pid = 0;
      (void)waitUntil(
          [&] {
            pid = killer.daemonPid();
            return pid > 0 && pid != lastKilled;
          },
          kPatience);
      ASSERT_GT(pid, 0) << "the daemon was not started again";
      ASSERT_NE(pid, lastKilled) << "the daemon was not started again";
      const int wait = interval(random);
      std::this_thread::sleep_for(std::chrono::milliseconds(wait));
      ASSERT_EQ(::kill(pid, SIGKILL), 0);
      lastKilled = pid;
      ++kills;
      std::printf("kill %d: pid %d after %d ms\n", kills, static_cast<int>(pid), wait);
    }
    // Until the bus has seen it go, requests still reach the killed one.
    EXPECT_TRUE(waitUntil([&] { return killer.daemonPid() != lastKilled; }, kPatience));
  }
  // The last daemon lives: a slow build (a sanitizer) may have answered
  // little between kills, but every kill is behind at least one answer.
  EXPECT_TRUE(waitUntil([&] { return answeredSoFar.load() > static_cast<std::size_t>(kills); }, kPatience));
  stop = true;
  writer.join();
  std::size_t answered = 0;
  for (const auto& [app, store] : acknowledged) answered += store.values.size();
  std::printf("%d kills, %d writes, %zu acknowledged, %d unanswered, %zu stores\n", kills, written, answered,
              unanswered, acknowledged.size());
  EXPECT_EQ(kills, kMaxKills);
  ASSERT_GT(answered, static_cast<std::size_t>(kills));

  RawClient client;
  for (const auto& [app, store] : acknowledged) {
    // One writer, one request at a time: each answered count is above the
    // last, so no daemon forgot what the one before it had acknowledged.
    for (std::size_t i = 1; i < store.counts.size(); ++i) {
      EXPECT_GT(store.counts[i], store.counts[i - 1]) << app << " " << i;
    }
    // One more write to each store, by a new daemon that loads it after the kills.
    std::optional<PropertyList> last;
    for (int attempt = 0; attempt < 3 && !last; ++attempt) {
      last = client.tryRequest(synchronize(app, "last", "after"), kPatience);
    }
    ASSERT_TRUE(last.has_value());
    EXPECT_GT(integerAt(*last, {"userinfo", "changecount"}), store.counts.back()) << app;
  }

  // Only whole store files: nothing set aside as damaged, no unfinished write.
  int stores = 0;
  for (const auto& item : fs::directory_iterator(storePath("x").parent_path())) {
    const std::string name = item.path().filename().string();
    if (name.starts_with('.') && name.ends_with(".plist.lock")) continue;  // a store's lock file
    // The file a write just replaced, which the daemon unlinks after its reply.
    if (name.size() > 13 && name.compare(name.size() - 13, 8, ".plist.r") == 0) continue;
    EXPECT_EQ(item.path().extension(), ".plist") << name;
    const PropertyList file = velmora::readPlistFile(item.path().string());
    EXPECT_TRUE(file.isDictionary()) << name;
    EXPECT_TRUE(file.find("values") != nullptr && file.find("values")->isDictionary()) << name;
    EXPECT_GE(integerAt(file, {"changecount"}), 1) << name;
    ++stores;
  }
  EXPECT_GE(stores, static_cast<int>(acknowledged.size()));

  int missing = 0;
  for (const auto& [app, store] : acknowledged) {
    const PropertyList file = velmora::readPlistFile(storePath(app).string());
    const PropertyList* values = file.find("values");
    ASSERT_NE(values, nullptr) << app;
    for (const auto& [key, value] : store.values) {
      const PropertyList* stored = values->find(key);
      if (stored == nullptr || *stored != record(value)) {
        ++missing;
        ADD_FAILURE() << "acknowledged write " << key << " of " << app
                      << " lost: " << (stored != nullptr ? stored->description() : "absent");
      }
    }
  }
  EXPECT_EQ(missing, 0);
}

TEST(VelmoradProcess, AStoreStuckOnItsFileHoldsUpNoOtherStore) {
  RawClient client;
  ASSERT_FALSE(client.request("ping", {}, std::nullopt).isNone());
  auto synchronize = [](const std::string& app) {
    return makeDictionary({{"message", str("synchronize")},
                           {"bundleIdentifier", str(app)},
                           {"userinfo", makeDictionary({{"changes", makeDictionary({{"k", record("v")}})},
                                                        {"changecount", PropertyList::integer(0)}})}});
  };
  // Store files that are FIFOs: reading one blocks until we let it go. More
  // of them than a worker pool sized by the core count has workers.
  const int stuck = static_cast<int>(std::max(2u, std::thread::hardware_concurrency())) + 1;
  fs::create_directories(storePath("x").parent_path());
  std::vector<fs::path> fifos;
  std::vector<int> holds;  // write ends, opened once the daemon reads each
  for (int i = 0; i < stuck; ++i) {
    const std::string app = "com.example.stuck" + std::to_string(i);
    fifos.push_back(storePath(app));
    ASSERT_EQ(::mkfifo(fifos.back().c_str(), 0600), 0);
    ASSERT_TRUE(client.sendWithoutReply(synchronize(app)));
  }
  for (const fs::path& fifo : fifos) {
    int fd = -1;
    // Opening the write end without blocking works once there is a reader.
    EXPECT_TRUE(waitUntil(
        [&] {
          fd = ::open(fifo.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
          return fd >= 0;
        },
        kPatience));
    if (fd >= 0) holds.push_back(fd);
  }
  ASSERT_EQ(holds.size(), fifos.size()) << "the daemon did not read every stuck store";

  // Every stuck store's thread waits on its file; another store is served.
  const PropertyList reply = client.request(synchronize("com.example.unstuck"));
  EXPECT_EQ(integerAt(reply, {"userinfo", "changecount"}), 1);

  // Let them go: each reads an empty file, sets it aside and writes its change.
  for (int fd : holds) ::close(fd);
  for (int i = 0; i < stuck; ++i) {
    const PropertyList debug = client.request("printDebugDescription", {}, "com.example.stuck" + std::to_string(i));
    ASSERT_TRUE(debug.find("userinfo") != nullptr && debug.find("userinfo")->isString());
    EXPECT_NE(debug.find("userinfo")->getString()->find("Change count: 1"), std::string::npos);
  }
  // Other tests of this process look at the directory: leave no stuck store behind.
  for (const auto& item : fs::directory_iterator(storePath("x").parent_path())) {
    if (item.path().filename().string().starts_with("com.example.stuck")) fs::remove(item.path());
  }
}

// ---------------------------------------------------------------------------
// A confined caller: a child in a mount namespace of its own whose root (a
// scratch directory holding the sandbox's marker file, with the system's
// directories bound in) says it is org.sandboxed.App.

constexpr const char* kSandboxRootVariable = "VELMORAD_TEST_SANDBOX_ROOT";
constexpr const char* kSandboxModeVariable = "VELMORAD_TEST_SANDBOX_MODE";
constexpr const char* kSandboxedApp = "org.sandboxed.App";

// Moves this process into root; the reason when it cannot.
std::string enterSandbox(const fs::path& root) {
  if (::unshare(CLONE_NEWNS) != 0) return std::string("unshare: ") + strerror(errno);
  if (::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) return std::string("mount: ") + strerror(errno);
  for (const char* dir : {"/usr", "/bin", "/lib", "/lib64", "/etc", "/proc", "/dev", "/tmp"}) {
    if (!fs::exists(dir) || fs::is_symlink(dir)) continue;
    fs::create_directories(root / (dir + 1));
    if (::mount(dir, (root / (dir + 1)).c_str(), nullptr, MS_BIND | MS_REC, nullptr) != 0) {
      return std::string("bind ") + dir + ": " + strerror(errno);
    }
  }
  for (const char* link : {"/bin", "/lib", "/lib64"}) {
    if (fs::is_symlink(link)) fs::create_symlink(fs::read_symlink(link), root / (link + 1));
  }
  if (::chroot(root.c_str()) != 0 || ::chdir("/") != 0) return std::string("chroot: ") + strerror(errno);
  return {};
}

// A socket connected to the bus (the address's path= or abstract=), not
// yet authenticated: whoever uses it later is not who connected.
int connectToBus() {
  const std::string address = getenv("DBUS_SESSION_BUS_ADDRESS");
  sockaddr_un where{};
  where.sun_family = AF_UNIX;
  socklen_t length = sizeof where;
  for (const char* key : {"path=", "abstract="}) {
    const std::size_t at = address.find(key);
    if (at == std::string::npos) continue;
    const std::string name = address.substr(at + strlen(key), address.find(',', at) - at - strlen(key));
    const bool abstract = key[0] == 'a';
    std::memcpy(where.sun_path + (abstract ? 1 : 0), name.data(), std::min(name.size(), sizeof where.sun_path - 2));
    length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size() + (abstract ? 1 : 0));
  }
  const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  return fd >= 0 && ::connect(fd, reinterpret_cast<sockaddr*>(&where), length) == 0 ? fd : -1;
}

// Prints "tried <name> <error code>" for each request the confined caller
// tries (0: answered, -1: no answer), then "done".
void tryEach(sd_bus* bus) {
  const PropertyList changes = makeDictionary({{"changes", makeDictionary({{"k", record("sandboxed")}})},
                                               {"changecount", PropertyList::integer(0)}});
  const std::vector<std::pair<const char*, PropertyList>> attempts = {
      {"own", envelope("synchronize", changes, kSandboxedApp)},
      {"own-additional", envelope("synchronize", changes, kSandboxedApp, "Prefs")},
      {"other-app", envelope("synchronize", changes, "org.victim.App")},
      {"collision", envelope("synchronize", changes, kSandboxedApp, "Secrets")},
      {"debug-other", envelope("printDebugDescription", {}, "org.victim.App")},
      {"defaults-other", envelope("setDefaultsConfig", makeDictionary({}), "org.victim.App")},
      {"migrate-other", envelope("migrate", makeDictionary({{"parameter", str("org.victim.App")}}), {})},
      {"account", envelope("accountLogin", makeDictionary({{"server", str("http://127.0.0.1:1")},
                                                           {"token", str("t")}}), {})},
      {"reset", envelope("resetapps", {}, {})}};
  for (const auto& [name, body] : attempts) std::printf("tried %s %lld\n", name, (long long)errorCode(callDaemon(bus, body, 10s)));
  std::printf("done\n");
  std::fflush(stdout);
}

// Runs only as the child of the tests below, inside the sandbox. Mode
// "direct": tries each request on a connection of its own. Mode "orphan":
// connects, forks and exits; the orphan, which did not connect, tries them.
TEST(VelmoradSandbox, ConfinedChild) {
  const char* root = getenv(kSandboxRootVariable);
  if (root == nullptr) GTEST_SKIP() << "runs only as a child of the tests below";
  if (const std::string why = enterSandbox(root); !why.empty()) {
    std::printf("no-sandbox %s\n", why.c_str());
    return;
  }
  sd_bus* bus = nullptr;
  if (std::string(getenv(kSandboxModeVariable)) == "direct") {
    ASSERT_GE(sd_bus_open_user(&bus), 0);
    tryEach(bus);
    sd_bus_flush_close_unref(bus);
    return;
  }
  const int fd = connectToBus();
  ASSERT_GE(fd, 0);
  const pid_t connector = getpid();
  if (::fork() != 0) _exit(0);
  while (getppid() == connector) std::this_thread::sleep_for(1ms);
  if (sd_bus_new(&bus) < 0 || sd_bus_set_fd(bus, fd, fd) < 0 || sd_bus_set_bus_client(bus, 1) < 0 ||
      sd_bus_start(bus) < 0) {
    std::printf("no-connection\n");
    _exit(1);
  }
  tryEach(bus);
  _exit(0);
}

// What the confined caller's attempts got, by name; skips the test (with
// the reason) where this machine cannot make a sandbox.
std::map<std::string, std::int64_t> runConfined(const std::string& mode) {
  char pattern[] = "/tmp/velmorad-sandbox-XXXXXX";
  EXPECT_NE(mkdtemp(pattern), nullptr);
  std::ofstream(fs::path(pattern) / ".flatpak-info") << "[Application]\nname=" << kSandboxedApp << "\n";
  std::map<std::string, std::int64_t> results;
  auto child = velmora::testing::ChildProcess::start(
      {"/proc/self/exe", "--gtest_filter=VelmoradSandbox.ConfinedChild"},
      {std::string(kSandboxRootVariable) + "=" + pattern, std::string(kSandboxModeVariable) + "=" + mode});
  while (std::optional<std::string> line = child ? child->readLine(kPatience) : std::nullopt) {
    if (*line == "done") break;
    if (line->starts_with("no-sandbox")) results["no-sandbox"] = 0;
    if (const std::size_t space = line->rfind(' '); line->starts_with("tried ")) {
      results[line->substr(6, space - 6)] = std::atoll(line->c_str() + space + 1);
    }
  }
  if (child) child->waitForExit(kPatience);
  std::error_code ignored;
  fs::remove_all(pattern, ignored);
  return results;
}

// A confined caller reaches its own stores and nothing else: not another
// application's store, not the main store of "org.sandboxed.App-Secrets"
// (whose file name is also that of its own store "Secrets"), not the
// account or the other applications' housekeeping.
TEST(VelmoradSandbox, AConfinedCallerReachesOnlyItsOwnStores) {
  RawClient outside;
  const PropertyList mine = makeDictionary({{"changes", makeDictionary({{"secret", record("theirs")}})},
                                            {"changecount", PropertyList::integer(0)}});
  for (const char* app : {"org.victim.App", "org.sandboxed.App-Secrets"}) {
    ASSERT_EQ(errorCode(outside.request("synchronize", mine, app)), 0);
  }
  const std::map<std::string, std::int64_t> results = runConfined("direct");
  if (results.contains("no-sandbox")) GTEST_SKIP() << "no mount namespaces here";
  EXPECT_EQ(results, (std::map<std::string, std::int64_t>{
                         {"own", 0}, {"own-additional", 0}, {"other-app", 5}, {"collision", 5}, {"debug-other", 5},
                         {"defaults-other", 5}, {"migrate-other", 5}, {"account", 5}, {"reset", 5}}));
  for (const char* app : {"org.victim.App", "org.sandboxed.App-Secrets"}) {
    const PropertyList file = velmora::readPlistFile(storePath(app).string());
    EXPECT_EQ(file.find("values")->count(), 1u) << app;
    EXPECT_EQ(integerAt(file, {"changecount"}), 1) << app;
  }
}

// The process that opened the connection is gone and another uses it: who
// is asking cannot be established, so everything is refused.
TEST(VelmoradSandbox, AConnectionWhoseOpenerIsGoneIsRefusedEverything) {
  scratchHome();
  const PropertyList before = velmora::readPlistFile(storePath("org.victim.App").string());
  const std::map<std::string, std::int64_t> results = runConfined("orphan");
  if (results.contains("no-sandbox")) GTEST_SKIP() << "no mount namespaces here";
  ASSERT_EQ(results.size(), 9u);
  for (const auto& [name, code] : results) EXPECT_EQ(code, 5) << name;
  EXPECT_EQ(velmora::readPlistFile(storePath("org.victim.App").string()), before);
}

}  // namespace
