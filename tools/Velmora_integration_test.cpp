// The built `velmora` tool end to end: each command run as its own process
// against the real velmorad, activated on a bus of this test's own, with the
// store files in a scratch home. A scripted responder stands in for the
// daemon only where a fault must be produced on demand (a refused or a
// dropped write).
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <regex>
#include <tuple>

#include "PrivateBus.h"
#include "ScratchEnvironment.h"
#include "StoreFixtures.h"
#include "velmora/platform/Dispatch.h"
#include "velmora/platform/PlistCodec.h"
#include "velmora/platform/SystemNotifications.h"

extern char** environ;

namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using velmora::PropertyList;
using velmora::testing::BusDaemon;
using velmora::testing::ChildProcess;
using velmora::testing::ScratchDirectory;

constexpr const char* kService = "com.vantrel.velmorad-sim";
constexpr const char* kTool = VELMORA_BINARY_DIR "/tools/velmora";
constexpr const char* kExample = VELMORA_BINARY_DIR "/tools/velmora_readme_example";
constexpr auto kPatience = 10s;

// One finished run of a program.
struct Outcome {
  int status = -1;  // exit status; -1 when it did not exit normally in time
  std::string out;
  std::string err;
};

std::ostream& operator<<(std::ostream& os, const Outcome& run) {
  return os << "status " << run.status << "\n--- stdout\n" << run.out << "--- stderr\n" << run.err;
}

bool contains(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

// A bus of the test suite's own with velmorad activatable on it, and a
// scratch home for the daemon and every process the tests start.
class VelmoraToolTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    home_ = new ScratchDirectory("velmora-tool-home");
    bus_ = BusDaemon::start().release();
    ASSERT_NE(bus_, nullptr);
    bus_->installService(kService, {"/usr/bin/env", "HOME=" + home_->path().string(),
                                    VELMORA_BINARY_DIR "/daemon/velmorad"});
  }
  void SetUp() override { ASSERT_NE(bus_, nullptr) << "no bus for the tests"; }

  static void TearDownTestSuite() {
    delete bus_;  // the daemon leaves with its bus
    bus_ = nullptr;
    delete home_;
    home_ = nullptr;
  }

  // The environment of the processes started: this process's, with the
  // test's bus and home.
  static std::vector<std::string> environment(const std::string& busAddress, std::vector<std::string> extra = {}) {
    extra.push_back("DBUS_SESSION_BUS_ADDRESS=" + busAddress);
    extra.push_back("HOME=" + home_->path().string());
    std::vector<std::string> all;
    for (char** e = environ; *e != nullptr; ++e) {
      const std::string_view entry(*e);
      bool replaced = entry.rfind("ZKV_", 0) == 0;  // the tests choose identities and log levels
      for (const std::string& mine : extra) replaced = replaced || entry.rfind(mine.substr(0, mine.find('=') + 1), 0) == 0;
      if (!replaced) all.emplace_back(entry);
    }
    all.insert(all.end(), extra.begin(), extra.end());
    return all;
  }

  // Starts program with args through a shell (for the redirections), with
  // exactly environment(busAddress, extra) as its environment.
  static std::unique_ptr<ChildProcess> startProgram(const std::string& program, const std::vector<std::string>& args,
                                                    const std::string& redirections, const std::string& busAddress,
                                                    const std::vector<std::string>& extra = {}) {
    std::string command = "exec '" + program + "'";
    for (const std::string& arg : args) command += " '" + std::regex_replace(arg, std::regex("'"), "'\\''") + "'";
    std::vector<std::string> argv = environment(busAddress, extra);
    argv.insert(argv.begin(), {"/usr/bin/env", "-i"});
    argv.insert(argv.end(), {"/bin/sh", "-c", command + " " + redirections});
    return ChildProcess::start(argv);
  }

  // Runs program with args, input on its standard input, and waits (up to
  // kPatience) for it to exit.
  static Outcome runProgram(const std::string& program, const std::vector<std::string>& args, const std::string& input,
                            const std::string& busAddress, const std::vector<std::string>& extra = {}) {
    ScratchDirectory io("velmora-tool-run");
    std::ofstream(io.file("in")) << input;
    const std::string redirections = "<'" + io.file("in") + "' >'" + io.file("out") + "' 2>'" + io.file("err") + "'";
    std::unique_ptr<ChildProcess> child = startProgram(program, args, redirections, busAddress, extra);
    std::optional<int> status = child ? child->waitForExit(kPatience) : std::nullopt;
    Outcome run;
    if (!status) {
      ADD_FAILURE() << program << " did not finish in time";
      return run;  // the child is killed as it goes
    }
    if (WIFEXITED(*status)) run.status = WEXITSTATUS(*status);
    run.out = velmora::testing::readFile(io.file("out")).value_or("");
    run.err = velmora::testing::readFile(io.file("err")).value_or("");
    return run;
  }

  // Runs the tool on the test's bus.
  static Outcome velmora(const std::vector<std::string>& args, const std::string& input = {}) {
    return runProgram(kTool, args, input, bus_->address());
  }
  // Runs the tool on the bus at busAddress.
  static Outcome velmoraOn(const std::string& busAddress, const std::vector<std::string>& args) {
    return runProgram(kTool, args, {}, busAddress);
  }

  static fs::path storeFile(const std::string& name) { return velmora::testing::storeFilePath(home_->path(), name); }

  // The values of a store file (storage records unwrapped aside), or none.
  static PropertyList storedValues(const std::string& name) {
    const PropertyList file = velmora::readPlistFile(storeFile(name).string());
    const PropertyList* values = file.find("values");
    return values != nullptr ? *values : PropertyList();
  }

  // Runs the tool's watch on the test's bus, with stderr joined to stdout,
  // and waits until it says it is watching. nullptr (with a failure) when it
  // does not.
  static std::unique_ptr<ChildProcess> startWatch(const std::vector<std::string>& args) {
    std::unique_ptr<ChildProcess> watch = startProgram(kTool, args, "2>&1", bus_->address());
    if (!watch) {
      ADD_FAILURE() << "cannot start watch";
      return nullptr;
    }
    const std::optional<std::string> ready = watch->readLine(kPatience);
    if (!ready || !contains(*ready, "watching")) {
      ADD_FAILURE() << "watch did not start: " << ready.value_or("(nothing)");
      return nullptr;
    }
    return watch;
  }

  static ScratchDirectory* home_;
  static BusDaemon* bus_;
};

ScratchDirectory* VelmoraToolTest::home_ = nullptr;
BusDaemon* VelmoraToolTest::bus_ = nullptr;

// Every value form set on the command line reads back as the same JSON and
// reaches the store file; every refusal exits with its code, says why and
// writes nothing.
TEST_F(VelmoraToolTest, ValuesReadBackAndRefusalsSayWhy) {
  const std::string app = "com.example.values";
  // key, the arguments after "set KEY", and what get prints.
  const std::vector<std::tuple<std::string, std::vector<std::string>, std::string>> values = {
      {"count", {"42"}, "42"},
      {"ratio", {"1.5"}, "1.5"},
      {"whole", {"3.0"}, "3.0"},  // stays a real
      {"flag", {"true"}, "true"},
      {"title", {"\"Groceries\""}, "\"Groceries\""},
      {"list", {"[1,[],{}]"}, "[\n  1,\n  [],\n  {}\n]"},
      {"blob", {"{\"data\":\"AAEC\"}"}, "{\n  \"data\": \"AAEC\"\n}"},
      {"empty", {"{\"data\":\"\"}"}, "{\n  \"data\": \"\"\n}"},
      {"nan", {"{\"real\":\"nan\"}"}, "{\n  \"real\": \"nan\"\n}"},
      {"old", {"{\"date\":\"1999-12-31T00:00:00Z\"}"}, "{\n  \"date\": \"1999-12-31T00:00:00Z\"\n}"},
      {"nested", {"{\"data\":1}"}, "{\n  \"data\": 1\n}"},  // not the data form
      {"typedString", {"--type", "string", "42"}, "\"42\""},
      {"typedU64", {"--type", "integer", "18446744073709551615"}, "18446744073709551615"},
      {"typedData", {"AAECAw", "--type=data"}, "{\n  \"data\": \"AAECAw==\"\n}"},
      {"typedDate", {"--type", "date", "2024-05-01Z"}, "{\n  \"date\": \"2024-05-01T00:00:00Z\"\n}"},
      {"typedBool", {"--type", "boolean", "no"}, "false"},
      {"typedReal", {"--type", "real", "--", "-2"}, "-2.0"},
  };
  for (const auto& [key, set, printed] : values) {
    std::vector<std::string> args{"--app", app, "set", key};
    args.insert(args.end(), set.begin(), set.end());
    const Outcome run = velmora(args);
    EXPECT_EQ(run.status, 0) << key << "\n" << run;
    EXPECT_EQ(run.out, "");
    EXPECT_EQ(velmora({"--app", app, "get", key}).out, printed + "\n") << key;
  }
  // list is in byte order; every key is in the file the daemon wrote.
  EXPECT_EQ(velmora({"--app", app, "list"}).out,
            "blob\ncount\nempty\nflag\nlist\nnan\nnested\nold\nratio\ntitle\ntypedBool\ntypedData\ntypedDate\n"
            "typedReal\ntypedString\ntypedU64\nwhole\n");
  EXPECT_EQ(storedValues(app).count(), values.size());

  // (arguments, exit status, a part of stderr); the store is left as it was.
  const std::string longKey(65, 'k');
  const std::vector<std::tuple<std::vector<std::string>, int, std::string>> refusals = {
      {{"--app", app, "get", "absent"}, 1, "no key \"absent\" in the store of " + app},
      {{"--app", app, "rm", "absent"}, 1, "no key \"absent\""},
      {{"--app", app, "set", "count", "hello"}, 2, "value for \"count\": not valid JSON (at byte 1 of 5)"},
      {{"--app", app, "set", "count", "1 2"}, 2, "not valid JSON"},
      {{"--app", app, "set", "count", "[1, null]"}, 2, "value for \"count\": null has no property-list form"},
      {{"--app", app, "set", "count", "{\"date\":\"soon\"}"}, 2, "holds no ISO 8601 UTC date"},
      {{"--app", app, "set", "count", "{\"data\":\"</data>\"}"}, 2, "no valid base64"},
      {{"--app", app, "set", "count", "{\"real\":\"1.5\"}"}, 2, "takes \"nan\""},
      {{"--app", app, "set", "count", std::string(600, '[') + std::string(600, ']')}, 2, "nested more than 512"},
      {{"--app", app, "set", "count", "x", "--type", "integer"}, 2, "value for \"count\": \"x\" is not an integer"},
      {{"--app", app, "set", "count", "18446744073709551616", "--type", "integer"}, 2, "18446744073709551616"},
      {{"--app", app, "set", "count", "A", "--type", "data"}, 2, "\"A\""},
      {{"--app", app, "set", "count", "2023-02-29T00:00:00Z", "--type", "date"}, 2, "2023-02-29"},
      {{"--app", app, "set", "count", "1", "--type", "number"}, 2, "unknown type \"number\""},
      {{"--app", app, "set", longKey, "1"}, 2, "refused: key '" + longKey + "' is 65 bytes long, over the limit of 64"},
      {{"--app", app, "set", "count"}, 2, "set takes 2 arguments, not 1"},
      {{"--app", app, "get", "count", "--json"}, 2, "unknown option --json for get"},
      {{"--app", app, "load", "/nonexistent.plist"}, 2, "cannot read /nonexistent.plist"},
      {{"--app", "", "get", "count"}, 2, "\"\" does not name a store"},
      {{"--app", app, "--store", "../x", "get", "count"}, 2, "with store \"../x\" does not name a store"},
      {{"--app"}, 2, "--app needs a value"},
      {{"frobnicate"}, 2, "unknown command \"frobnicate\""},
      {{"--verbose", "list"}, 2, "unknown option --verbose"},
      {{}, 2, "no command given"},
      {{"notify", "it's"}, 2, "\"it's\" cannot be a notification name"},
  };
  for (const auto& [args, status, message] : refusals) {
    const Outcome run = velmora(args);
    EXPECT_EQ(run.status, status) << run;
    EXPECT_EQ(run.err.rfind("velmora: ", 0), 0u) << run;
    EXPECT_TRUE(contains(run.err, message)) << run;
    EXPECT_EQ(run.out, "") << run;
  }
  EXPECT_EQ(velmora({"--app", app, "get", "count"}).out, "42\n");
  EXPECT_EQ(storedValues(app).count(), values.size());
  // Help, the tool's or one command's, asked for either way round.
  for (const auto& [args, usage] : std::vector<std::pair<std::vector<std::string>, std::string>>{
           {{"--help"}, "COMMAND"}, {{"help"}, "COMMAND"}, {{"help", "get"}, "get KEY"}, {{"get", "-h"}, "get KEY"}}) {
    const Outcome run = velmora(args);
    EXPECT_EQ(run.status, 0) << run;
    EXPECT_EQ(run.out.rfind("usage: velmora [--app ID] [--store NAME] " + usage, 0), 0u) << run;
  }

  // A refused key in a file to load: nothing of the file is written.
  ScratchDirectory scratch("velmora-tool-load");
  const std::string file = scratch.file("refused.plist");
  ASSERT_TRUE(velmora::testing::writePlistFile(
      file, velmora::makeDictionary({{"fine", PropertyList::integer(1)}, {longKey, PropertyList::integer(2)}})));
  const Outcome load = velmora({"--app", app, "load", file});
  EXPECT_EQ(load.status, 2) << load;
  EXPECT_TRUE(contains(load.err, "nothing was loaded")) << load;
  EXPECT_EQ(velmora({"--app", app, "get", "fine"}).status, 1);

  // Overwrite and remove reach the file too.
  EXPECT_EQ(velmora({"--app", app, "set", "count", "43"}).status, 0);
  EXPECT_EQ(velmora({"--app", app, "get", "count"}).out, "43\n");
  EXPECT_EQ(velmora({"--app", app, "rm", "count"}).status, 0);
  EXPECT_EQ(storedValues(app).find("count"), nullptr);

  // The tool's own store without --app; an additional store with --store.
  EXPECT_EQ(velmora({"set", "mine", "1"}).status, 0);
  EXPECT_NE(storedValues("velmora").find("mine"), nullptr);
  EXPECT_EQ(velmora({"--store", "extra", "set", "k", "2"}).status, 0);
  EXPECT_NE(storedValues("velmora-extra").find("k"), nullptr);
  EXPECT_EQ(velmora({"--app", app, "--store=extra", "set", "k", "3"}).status, 0);
  EXPECT_NE(storedValues(app + "-extra").find("k"), nullptr);
  EXPECT_EQ(velmora({"--store", "extra", "get", "k"}).out, "2\n");
}

TEST_F(VelmoraToolTest, DumpAndLoadRoundTripThroughPlistlib) {
  ScratchDirectory scratch("velmora-tool-dump");
  // Every property-list type, written by Python's plistlib as a binary file.
  const std::string xml = R"(<?xml version="1.0" encoding="UTF-8"?>
<!DOCTYPE plist>
<plist version="1.0"><dict>
  <key>bool</key><true/>
  <key>int</key><integer>-9223372036854775808</integer>
  <key>big</key><integer>9223372036854775807</integer>
  <key>real</key><real>0.1</real>
  <key>text</key><string>caf&#xe9; &amp; "quotes"</string>
  <key>data</key><data>AAEC/w==</data>
  <key>date</key><date>2024-05-01T12:00:00Z</date>
  <key>list</key><array><integer>1</integer><array/><dict><key>in</key><string>side</string></dict></array>
  <key>empty</key><dict/>
</dict></plist>
)";
  std::ofstream(scratch.file("source.xml")) << xml;
  const std::string oracle = "python3 " VELMORA_SOURCE_DIR "/tests/plist_oracle.py ";
  ASSERT_EQ(std::system((oracle + "convert " + scratch.file("source.xml") + " " + scratch.file("source.bplist") +
                         " binary")
                            .c_str()),
            0);

  const Outcome load = velmora({"--app", "com.example.source", "load", scratch.file("source.bplist")});
  ASSERT_EQ(load.status, 0) << load;
  const Outcome dump = velmora({"--app", "com.example.source", "dump"});
  ASSERT_EQ(dump.status, 0) << dump;
  std::ofstream(scratch.file("dump.xml")) << dump.out;

  // The dump, read by plistlib, describes the same values as the source.
  auto describe = [&](const std::string& name) {
    const std::string out = scratch.file(name + ".description");
    EXPECT_EQ(std::system((oracle + "describe " + scratch.file(name) + " " + out).c_str()), 0) << name;
    return velmora::testing::readFile(out).value_or("(none)");
  };
  const std::string wanted = describe("source.xml");
  EXPECT_EQ(describe("dump.xml"), wanted);

  // The XML dump loads back from standard input into another store, whose
  // dump is the same text.
  const Outcome again = velmora({"--app", "com.example.copy", "load", "-"}, dump.out);
  ASSERT_EQ(again.status, 0) << again;
  EXPECT_EQ(velmora({"--app", "com.example.copy", "dump"}).out, dump.out);

  // A file that is no property list, or holds no dictionary, is refused.
  std::ofstream(scratch.file("junk")) << "junk";
  EXPECT_EQ(velmora({"--app", "com.example.copy", "load", scratch.file("junk")}).status, 2);
  const Outcome notDictionary = velmora({"--app", "com.example.copy", "load", "-"},
                                    *velmora::encodeXmlPlist(velmora::makeArray({PropertyList::integer(1)})));
  EXPECT_EQ(notDictionary.status, 2);
  EXPECT_TRUE(contains(notDictionary.err, "standard input holds no dictionary")) << notDictionary;
}

TEST_F(VelmoraToolTest, WatchPrintsAnotherProcessesWritesUntilInterrupted) {
  const std::string app = "com.example.watched";
  // A change made before the watch starts is not reported.
  ASSERT_EQ(velmora({"--app", app, "set", "before", "0"}).status, 0);
  std::unique_ptr<ChildProcess> plain = startWatch({"--app", app, "watch"});
  std::unique_ptr<ChildProcess> json = startWatch({"--app", app, "watch", "--json"});
  ASSERT_TRUE(plain && json);

  ASSERT_EQ(velmora({"--app", app, "set", "title", "\"Groceries\""}).status, 0);
  EXPECT_EQ(plain->readLine(kPatience), "server-change title");
  EXPECT_EQ(json->readLine(kPatience), R"({"reason":"server-change","code":0,"keys":["title"]})");
  // Several keys of one write come as one line; a removal is a change too.
  ScratchDirectory scratch("velmora-tool-watch");
  ASSERT_TRUE(velmora::testing::writePlistFile(
      scratch.file("two.plist"),
      velmora::makeDictionary({{"a", PropertyList::integer(1)}, {"b", PropertyList::integer(2)}})));
  ASSERT_EQ(velmora({"--app", app, "load", scratch.file("two.plist")}).status, 0);
  EXPECT_EQ(plain->readLine(kPatience), "server-change a b");
  ASSERT_EQ(velmora({"--app", app, "rm", "title"}).status, 0);
  EXPECT_EQ(plain->readLine(kPatience), "server-change title");
  // Another store of the same application is not this store.
  ASSERT_EQ(velmora({"--app", app, "--store", "other", "set", "x", "1"}).status, 0);

  plain->signal(SIGINT);
  json->signal(SIGTERM);
  for (ChildProcess* watch : {plain.get(), json.get()}) {
    const std::optional<int> status = watch->waitForExit(kPatience);
    ASSERT_TRUE(status.has_value());
    EXPECT_TRUE(WIFEXITED(*status) && WEXITSTATUS(*status) == 0) << *status;
  }
  EXPECT_EQ(plain->readLine(1s), std::nullopt);  // nothing after the last change
  EXPECT_EQ(json->readLine(1s), R"({"reason":"server-change","code":0,"keys":["a","b"]})");
}

TEST_F(VelmoraToolTest, StatusSyncNotifyAndResetAllReachTheDaemon) {
  const std::string app = "com.example.daemon";
  ASSERT_EQ(velmora({"--app", app, "set", "k", "1"}).status, 0);

  const Outcome status = velmora({"--app", app, "status"});
  EXPECT_EQ(status.status, 0) << status;
  EXPECT_TRUE(contains(status.out, "Store: the store of " + app + "\n")) << status;
  EXPECT_TRUE(contains(status.out, "Store file: " + storeFile(app).string())) << status;
  EXPECT_TRUE(contains(status.out, "Key count: 1")) << status;

  const Outcome sync = velmora({"--app", app, "sync"});
  EXPECT_EQ(sync.status, 0) << sync;

  // notify reaches an observer of the name on the bus.
  velmora::DbusSystemNotificationCenter center(bus_->address());
  std::atomic<int> heard{0};
  const velmora::SystemObserverToken token =
      center.addObserver("com.example.tool-test.ping", velmora::DispatchQueue::createSerial("tool-test.notify"),
                         [&] { ++heard; });
  const Outcome notify = velmora({"notify", "com.example.tool-test.ping"});
  EXPECT_EQ(notify.status, 0) << notify;
  EXPECT_TRUE(velmora::testing::waitUntil([&] { return heard.load() > 0; }, kPatience));
  center.removeObserver(token);

  // reset-all returns once the daemon has removed every store.
  ASSERT_TRUE(fs::exists(storeFile(app)));
  const Outcome reset = velmora({"reset-all"});
  EXPECT_EQ(reset.status, 0) << reset;
  EXPECT_FALSE(fs::exists(storeFile(app)));
  EXPECT_EQ(velmora({"--app", app, "get", "k"}).status, 1);
}

TEST_F(VelmoraToolTest, AnUnreachableOrRefusingDaemonIsNeverASilentSuccess) {
  // No bus at all: every command that needs the daemon or the bus exits 3;
  // reading the store file needs neither.
  ASSERT_EQ(velmora({"--app", "com.example.offline", "set", "k", "1"}).status, 0);
  const std::string noBus = "unix:path=/nonexistent/velmora-test-bus";
  for (const std::vector<std::string>& args :
       std::vector<std::vector<std::string>>{{"set", "k", "2"},
                                             {"rm", "k"},
                                             {"status"},
                                             {"sync"},
                                             {"watch"},
                                             {"reset-all"},
                                             {"notify", "com.example.x"}}) {
    std::vector<std::string> full{"--app", "com.example.offline"};
    full.insert(full.end(), args.begin(), args.end());
    const Outcome run = velmoraOn(noBus, full);
    EXPECT_EQ(run.status, 3) << args[0] << "\n" << run;
    EXPECT_TRUE(contains(run.err, "could not be reached")) << run;
  }
  EXPECT_EQ(velmoraOn(noBus, {"--app", "com.example.offline", "get", "k"}).out, "1\n");

  // A daemon that refuses the hand-over, then one that answers it without
  // writing the file, then one that fails the synchronisation request.
  std::unique_ptr<BusDaemon> bus = BusDaemon::start();
  ASSERT_NE(bus, nullptr);
  ScratchDirectory scratch("velmora-tool-refusing");
  const std::string script = scratch.file("script.plist");
  const PropertyList refusal = velmora::makeDictionary(
      {{"domain", PropertyList::string("com.vantrel.velmorad")},
       {"code", PropertyList::integer(5)},
       {"userinfo", velmora::makeDictionary({{"description", PropertyList::string("not today")}})}});
  ASSERT_TRUE(velmora::testing::writePlistFile(
      script, velmora::makeDictionary(
                  {{"synchronize", velmora::makeArray({velmora::makeDictionary({{"error", refusal}}),
                                                       velmora::makeDictionary({{"userinfo", velmora::makeDictionary({
                                                                                     {"changecount",
                                                                                      PropertyList::integer(7)}})}})})},
                   {"trackSynchronizeRemote", velmora::makeDictionary({{"error", refusal}})}})));
  bus->installService(kService, {velmora::testing::responderPath(), "--name", kService, "--script", script, "--on",
                                 "printDebugDescription=userinfo"});

  const Outcome refused = velmoraOn(bus->address(), {"--app", "com.example.offline", "set", "k", "3"});
  EXPECT_EQ(refused.status, 3) << refused;
  EXPECT_TRUE(contains(refused.err, "velmorad refused the change (nothing was written)")) << refused;
  const Outcome dropped = velmoraOn(bus->address(), {"--app", "com.example.offline", "set", "k", "4"});
  EXPECT_EQ(dropped.status, 3) << dropped;
  EXPECT_TRUE(contains(dropped.err, "velmorad did not keep \"k\"")) << dropped;
  const Outcome sync = velmoraOn(bus->address(), {"--app", "com.example.offline", "sync"});
  EXPECT_EQ(sync.status, 3) << sync;
  EXPECT_TRUE(contains(sync.err, "not today")) << sync;
  EXPECT_EQ(velmora({"--app", "com.example.offline", "get", "k"}).out, "1\n");
}

TEST_F(VelmoraToolTest, TheReadmeExampleIsQuotedWholeAndRuns) {
  const std::optional<std::string> example = velmora::testing::readFile(VELMORA_SOURCE_DIR "/tools/ReadmeExample.cpp");
  const std::optional<std::string> readme = velmora::testing::readFile(VELMORA_SOURCE_DIR "/README.md");
  ASSERT_TRUE(example && readme);
  EXPECT_TRUE(contains(*readme, "```cpp\n" + *example + "```\n"))
      << "README.md must quote tools/ReadmeExample.cpp whole, in a ```cpp block";

  const std::vector<std::string> id = {"ZKV_APPLICATION_ID=com.example.readme"};
  EXPECT_EQ(runProgram(kExample, {}, {}, bus_->address(), id).out, "run 1\n");
  EXPECT_EQ(runProgram(kExample, {}, {}, bus_->address(), id).out, "run 2\n");
  EXPECT_EQ(velmora({"--app", "com.example.readme", "get", "runs"}).out, "2\n");
}

}  // namespace
