// The built GIO module under GLib's own gsettings tool and PyGObject
// applications (tests/support/gsettings_client.py), with a schema compiled
// here, against the real velmorad: on a bus of this suite's own, on two
// devices syncing through velmora-server, and in a root that marks a
// process as confined.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <fstream>
#include <regex>
#include <tuple>

#include "SyncDevices.h"

namespace {

using namespace std::chrono_literals;
using namespace velmora::testing;

constexpr auto kPatience = 20s;
constexpr const char* kGsettings = "/usr/bin/gsettings";
constexpr const char* kTool = VELMORA_BINARY_DIR "/tools/velmora";
constexpr const char* kApp = "org.example.Velmora";
constexpr const char* kProfile = "org.example.Velmora.Profile:/org/example/Velmora/profiles:/:b1dcc9dd-5262/";

// GLib's tools and Python are not instrumented: in an ASan build they load
// the runtime the instrumented module needs first, checking no leaks of
// their own (the velmora tool links its runtime itself). Other sanitizer
// builds skip these tests.
#if defined(VELMORA_SANITIZER_RUNTIME)
constexpr bool kRunnable = true;
#elif defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kRunnable = false;
#elif defined(__has_feature)
constexpr bool kRunnable = !__has_feature(address_sanitizer) && !__has_feature(thread_sanitizer);
#else
constexpr bool kRunnable = true;
#endif

std::unique_ptr<ChildProcess> start(std::vector<std::string> argv, const std::vector<std::string>& env) {
#ifdef VELMORA_SANITIZER_RUNTIME
  if (argv.front() != kTool) {
    const char* options = std::getenv("ASAN_OPTIONS");
    argv.insert(argv.begin(), {"/usr/bin/env", "LD_PRELOAD=" VELMORA_SANITIZER_RUNTIME,
                               std::string("ASAN_OPTIONS=") + (options != nullptr ? options : "") + ":detect_leaks=0"});
  }
#endif
  return ChildProcess::start(argv, env);
}

struct Row {
  const char* key;
  const char* type;     // a type string, or "enum" / "flags"
  const char* initial;  // the schema's default, as gsettings prints it
  const char* value;    // what is set, as gsettings prints it
  const char* json;     // what `velmora get` prints (lines joined) for the natural forms; null: kept exactly
};

const Row kRows[] = {
    {"flag", "b", "false", "true", "true"},
    {"small", "n", "int16 0", "int16 -5", "-5"},
    {"word", "q", "uint16 0", "uint16 65535", "65535"},
    {"count", "i", "0", "7", "7"},
    {"wide", "u", "uint32 0", "uint32 4294967295", "4294967295"},
    {"big", "x", "int64 0", "int64 -9000000000", "-9000000000"},
    {"ratio", "d", "0.0", "2.5", "2.5"},
    {"name", "s", "''", "'hi there'", "\"hi there\""},
    {"names", "as", "@as []", "['a', 'b']", "[\"a\",\"b\"]"},
    {"props", "a{sv}", "@a{sv} {}", "{'a': <1>, 'b': <'x'>}", "{\"a\": 1,\"b\": \"x\"}"},
    {"mode", "enum", "'light'", "'dark'", "\"dark\""},
    {"parts", "flags", "@as []", "['top', 'bottom']", "[\"top\",\"bottom\"]"},
    {"byte", "y", "byte 0x00", "byte 0xff", nullptr},
    {"huge", "t", "uint64 0", "uint64 18446744073709551615", nullptr},
    {"object", "o", "objectpath '/'", "objectpath '/org/example/x'", nullptr},
    {"pair", "(ii)", "(0, 0)", "(3, 4)", nullptr},
    {"maybe", "ms", "@ms nothing", "@ms 'x'", nullptr},
    {"blob", "ay", "@ay []", "b'bytes'", nullptr},
    {"nested", "a{sa{sv}}", "@a{sa{sv}} {}", "{'k': {'n': <(1, 'a')>}}", nullptr},
    {"negzero", "d", "0.0", "-0.0", "-0.0"},
    {"text", "s", "''", "'h\xc3\xa9llo \"q\"'", "\"h\xc3\xa9llo \\\"q\\\"\""},
    {"none", "as", "['x']", "@as []", "[]"},
    // Natural dictionaries keep what has no natural form exactly, entry by entry.
    {"deep", "a{sv}", "@a{sv} {}", "{'a': <1>, 'c': <[<true>]>, 'd': <{'e': <2.5>}>, 'f': <int64 5000000000>}",
     "{\"a\": 1,\"c\": {\"gvariant\": {\"data\": \"AQBiAw==\"},\"gvariant-type\": \"av\"},\"d\": {\"e\": 2.5},"
     "\"f\": 5000000000}"},
    {"sized", "a{sv}", "@a{sv} {}", "{'a': <byte 0x01>, 'b': <int64 5>, 'c': <@ms nothing>}",
     "{\"a\": {\"gvariant\": {\"data\": \"AQ==\"},\"gvariant-type\": \"y\"},"
     "\"b\": {\"gvariant\": {\"data\": \"BQAAAAAAAAA=\"},\"gvariant-type\": \"x\"},"
     "\"c\": {\"gvariant\": {\"data\": \"\"},\"gvariant-type\": \"ms\"}}"},
    {"unsorted", "a{sv}", "@a{sv} {}", "{'b': <1>, 'a': <2>}", nullptr},
    {"twice", "a{sv}", "@a{sv} {}", "{'a': <1>, 'a': <2>}", nullptr},
    {"sig", "g", "signature ''", "signature 'a{sv}'", nullptr},
    {"absent", "ms", "@ms 'x'", "@ms nothing", nullptr},
    {"nothing", "mmb", "@mmb nothing", "@mmb just nothing", nullptr},
    {"strings", "a{ss}", "@a{ss} {}", "{'k': 'v'}", nullptr},
    {"dicts", "aa{sv}", "@aa{sv} []", "[{'position': <1>}]", nullptr},
    {"mixed", "(sa{sv}av)", "('', @a{sv} {}, @av [])", "('s', {'k': <(1, 2)>}, [<'x'>, <@mi 7>])", nullptr},
    {"variant", "v", "<0>", "<(1, 'a')>", nullptr},
    {"unit", "()", "()", "()", nullptr},
};

// The schema: every row, the three keys the tree test writes together, and
// a relocatable schema.
std::string schemaText() {
  std::string keys;
  for (const Row& row : kRows) {
    const std::string kind = row.type;
    const std::string typeAttribute = kind == "enum"    ? "enum=\"org.example.Velmora.Mode\""
                                      : kind == "flags" ? "flags=\"org.example.Velmora.Parts\""
                                                        : "type=\"" + kind + "\"";
    keys += "<key name=\"" + std::string(row.key) + "\" " + typeAttribute + "><default>" +
            std::regex_replace(row.initial, std::regex("<"), "&lt;") + "</default></key>\n";
  }
  return R"(<schemalist>
<enum id="org.example.Velmora.Mode"><value nick="light" value="0"/><value nick="dark" value="1"/></enum>
<flags id="org.example.Velmora.Parts"><value nick="top" value="1"/><value nick="bottom" value="2"/></flags>
<schema id="org.example.Velmora" path="/org/example/Velmora/">
)" + keys +
         R"(<key name="t1" type="i"><default>0</default></key>
<key name="t2" type="s"><default>'0'</default></key>
<key name="t3" type="x"><default>0</default></key>
</schema>
<schema id="org.example.Velmora.Profile"><key name="font" type="s"><default>'Monospace 10'</default></key></schema>
</schemalist>
)";
}

struct Outcome {
  int status = -1;
  std::string out;  // lines joined, each without its leading blanks
};

class GSettingsBackendTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    scratch_ = new ScratchDirectory("velmora-gsettings");
    std::filesystem::create_directories(scratch_->path() / "schemas");
    std::ofstream(scratch_->file("schemas/org.example.Velmora.gschema.xml")) << schemaText();
    bus_ = BusDaemon::start().release();
    if (bus_ != nullptr) {
      bus_->installService(SyncDevice::kService, {"/usr/bin/env", "HOME=" + scratch_->path().string(),
                                                  VELMORA_BINARY_DIR "/daemon/velmorad"});
    }
  }
  static void TearDownTestSuite() {
    delete bus_;
    delete scratch_;
  }
  void SetUp() override {
    if (!kRunnable) GTEST_SKIP() << "the instrumented module needs a sanitizer runtime GLib's tools do not load";
    ASSERT_NE(bus_, nullptr);
    ASSERT_EQ(run({"/usr/bin/glib-compile-schemas", scratch_->file("schemas")}).status, 0);
  }

  // What the processes of a device see: its bus and home, the module, the schema.
  static std::vector<std::string> environment(std::vector<std::string> device = {}) {
    if (device.empty()) device = {"HOME=" + scratch_->path().string(), "DBUS_SESSION_BUS_ADDRESS=" + bus_->address()};
    device.insert(device.end(), {"GSETTINGS_BACKEND=velmora", "GIO_EXTRA_MODULES=" VELMORA_BINARY_DIR "/gsettings",
                                 "GSETTINGS_SCHEMA_DIR=" + scratch_->file("schemas")});
    return device;
  }
  static Outcome run(const std::vector<std::string>& argv, const std::vector<std::string>& env = environment()) {
    Outcome outcome;
    std::unique_ptr<ChildProcess> child = start(argv, env);
    while (child) {
      std::optional<std::string> line = child->readLine(kPatience);
      if (!line) break;
      outcome.out += line->substr(std::min(line->find_first_not_of(' '), line->size()));
    }
    const std::optional<int> status = child ? child->waitForExit(kPatience) : std::nullopt;
    if (status && WIFEXITED(*status)) outcome.status = WEXITSTATUS(*status);
    return outcome;
  }
  // A client of tests/support/gsettings_client.py, once it says it is ready.
  static std::unique_ptr<ChildProcess> client(const std::vector<std::string>& args,
                                              const std::vector<std::string>& env = environment()) {
    std::vector<std::string> argv{"/usr/bin/python3", VELMORA_SOURCE_DIR "/tests/support/gsettings_client.py"};
    argv.insert(argv.end(), args.begin(), args.end());
    std::unique_ptr<ChildProcess> child = start(argv, env);
    if (!child || child->readLine(kPatience) != "ready") ADD_FAILURE() << "the client did not start";
    return child;
  }

  static ScratchDirectory* scratch_;
  static BusDaemon* bus_;
};

ScratchDirectory* GSettingsBackendTest::scratch_ = nullptr;
BusDaemon* GSettingsBackendTest::bus_ = nullptr;

TEST_F(GSettingsBackendTest, EachTypeReachesAWatcherReadsBackExactlyAndResets) {
  std::unique_ptr<ChildProcess> watcher = client({"watch", kApp});
  ASSERT_TRUE(watcher);
  for (const Row& row : kRows) {
    ASSERT_EQ(run({kGsettings, "set", kApp, row.key, row.value}).status, 0) << row.key;
    EXPECT_EQ(watcher->readLine(kPatience), std::string(row.key) + " " + row.value);
    EXPECT_EQ(run({kGsettings, "get", kApp, row.key}).out, row.value);
    // The natural forms as other applications read them; the rest kept exactly.
    const std::string stored = run({kTool, "--app", kApp, "get", row.key}).out;
    EXPECT_EQ(row.json != nullptr ? stored : std::string(), row.json != nullptr ? row.json : "") << row.key;
    EXPECT_EQ(stored.ends_with("\"gvariant-type\": \"" + std::string(row.type) + "\"}"), row.json == nullptr)
        << row.key << ": " << stored;
  }
  for (const Row& row : kRows) {
    ASSERT_EQ(run({kGsettings, "reset", kApp, row.key}).status, 0);
    EXPECT_EQ(watcher->readLine(kPatience), std::string(row.key) + " " + row.initial);
    EXPECT_EQ(run({kTool, "--app", kApp, "get", row.key}).status, 1) << row.key;
  }

  // What another application wrote reads where it fits the schema's type
  // exactly, and as the default otherwise: (key, JSON set, what gsettings prints).
  const std::vector<std::tuple<const char*, std::string, const char*>> foreign = {
      {"ratio", "2", "2.0"},
      {"ratio", "9007199254740993", "0.0"},  // no double holds it
      {"small", "70000", "int16 0"},
      {"wide", "-1", "uint32 0"},
      {"count", "\"1\"", "0"},
      {"flag", "1", "false"},
      {"name", "{\"date\":\"2001-01-01T00:00:00Z\"}", "''"},
      {"name", "\"a\\u0000b\"", "''"},
      {"names", "[1]", "@as []"},
      {"props", "{\"k\":{\"date\":\"2001-01-01T00:00:00Z\"}}", "@a{sv} {}"},
      {"pair", "{\"gvariant-type\":\"(uu)\",\"gvariant\":{\"data\":\"AQAAAAIAAAA=\"}}", "(0, 0)"},
      {"pair", "{\"gvariant-type\":\"(ii)\",\"gvariant\":{\"data\":\"AQID\"}}", "(0, 0)"},  // damaged
  };
  for (const auto& [key, json, printed] : foreign) {
    ASSERT_EQ(run({kTool, "--app", kApp, "set", key, json}).status, 0) << json;
    EXPECT_EQ(run({kGsettings, "get", kApp, key}).out, printed) << json;
  }

  // A relocatable schema deep below the application: an additional store.
  ASSERT_EQ(run({kGsettings, "set", kProfile, "font", "'Mono 12'"}).status, 0);
  EXPECT_EQ(run({kGsettings, "get", kProfile, "font"}).out, "'Mono 12'");
  EXPECT_EQ(run({kTool, "--app", kApp, "--store", "@profiles%3A.%3Ab1dcc9dd-5262", "get",
                 "font"})
                .out,
            "\"Mono 12\"");
  // A directory whose store name would be too long is refused, not shortened.
  const std::string tooLong = "org.example.Velmora.Profile:/org/example/" + std::string(240, 'x') + "/";
  EXPECT_EQ(run({kGsettings, "writable", tooLong, "font"}).out, "false");
  EXPECT_NE(run({kGsettings, "set", tooLong, "font", "'x'"}).status, 0);
}

TEST_F(GSettingsBackendTest, KeysWrittenTogetherAreSeenTogetherAndEachChangeOnce) {
  constexpr int kRounds = 25;
  std::unique_ptr<ChildProcess> poller = client({"poll", kApp, std::to_string(kRounds)});
  ASSERT_TRUE(poller);
  std::unique_ptr<ChildProcess> writer =
      start({"/usr/bin/python3", VELMORA_SOURCE_DIR "/tests/support/gsettings_client.py", "tree", kApp,
                           std::to_string(kRounds)},
                          environment());
  const std::string last = std::to_string(kRounds) + "," + std::to_string(kRounds) + "," + std::to_string(kRounds);
  std::optional<std::string> seen;
  while ((seen = poller->readLine(kPatience)) && *seen != last) {
    const std::string first = seen->substr(0, seen->find(','));
    EXPECT_EQ(*seen, first + "," + first + "," + first) << "keys written together were seen apart";
  }
  EXPECT_EQ(seen, last);
  // The writer's own changes were signalled to it once each, not again when velmorad passed them on.
  EXPECT_EQ(writer->readLine(kPatience), std::to_string(kRounds));
}

TEST_F(GSettingsBackendTest, ASetOnOneDeviceIsAChangeOnTheOther) {
  SyncServer server({"--sqlite", scratch_->file("sync.db")});
  ASSERT_TRUE(server.start());
  const std::string token = server.addAccount("user");
  SyncDevice a("gsettings-a");
  SyncDevice b("gsettings-b");
  ASSERT_TRUE(a.ok() && b.ok());
  ASSERT_NE(a.login(server, token).find("userinfo"), nullptr);
  ASSERT_NE(b.login(server, token).find("userinfo"), nullptr);
  std::unique_ptr<ChildProcess> watcher = client({"watch", kApp}, environment(b.environment()));
  ASSERT_TRUE(watcher);
  ASSERT_EQ(run({kGsettings, "set", kApp, "name", "'from a'"}, environment(a.environment())).status, 0);
  EXPECT_EQ(watcher->readLine(kPatience), "name 'from a'");
  EXPECT_EQ(run({kGsettings, "get", kApp, "name"}, environment(b.environment())).out, "'from a'");
}

// In a root holding /.flatpak-info (a mount namespace of its own), the
// process is confined to its application's stores, as velmorad sees it.
TEST_F(GSettingsBackendTest, AConfinedProcessWritesOnlyItsOwnApplicationsKeys) {
  const std::string root = scratch_->file("root");
  std::filesystem::create_directories(root);
  // The root: a tmpfs holding the system, the build and the scratch files.
  const std::string binds =
      "/usr /etc /proc /dev " + std::filesystem::temp_directory_path().string() + " " VELMORA_BINARY_DIR;
  const std::string script = "set -e; R=" + root + "; mount -t tmpfs tmpfs $R; for d in " + binds +
                             "; do mkdir -p $R$d; mount --rbind $d $R$d; done; "
                             "for d in bin lib lib64 sbin; do ln -s usr/$d $R/$d; done; "
                             "printf '[Application]\\nname=%s\\n' " + std::string(kApp) + " > $R/.flatpak-info; "
                             "exec chroot $R /usr/bin/gsettings \"$@\"";
  const auto confined = [&](const std::vector<std::string>& args) {
    std::vector<std::string> argv{"/usr/bin/unshare", "--mount", "--propagation", "private",
                                  "/bin/sh",          "-c",      script,          "sh"};
    argv.insert(argv.end(), args.begin(), args.end());
    return run(argv);
  };
  if (confined({"writable", kApp, "name"}).status != 0) GTEST_SKIP() << "no mount namespace here";
  const std::string other = "org.example.Velmora.Profile:/org/example/Other/";
  const std::vector<std::pair<std::vector<std::string>, std::string>> expectations = {
      {{"writable", kApp, "name"}, "true"},
      {{"writable", other, "font"}, "false"},
      {{"set", kApp, "name", "'confined'"}, ""},
      {{"get", kApp, "name"}, "'confined'"},
  };
  for (const auto& [args, out] : expectations) EXPECT_EQ(confined(args).out, out) << args.front();
  EXPECT_NE(confined({"set", other, "font", "'x'"}).status, 0);
  EXPECT_EQ(run({kTool, "--app", kApp, "get", "name"}).out, "\"confined\"");
}

}  // namespace
