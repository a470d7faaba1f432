#include "velmora/platform/Environment.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>

#include "ScratchEnvironment.h"

namespace velmora {
namespace {

namespace fs = std::filesystem;
using namespace std::string_view_literals;

constexpr const char* kFlatpakInfo =
    "[Runtime]\n"
    "name=org.example.Platform\n"
    "\n"
    "# the app itself\n"
    "[Application]\n"
    "runtime=runtime/org.example.Platform/x86_64/1\n"
    "  name = org.example.Notes  \n"
    "[Instance]\n"
    "name=ignored\n";

// Sets or unsets one variable for a test and restores it afterwards.
class ScopedVariable {
 public:
  ScopedVariable(const char* name, const char* value) : name_(name) {
    if (const char* old = std::getenv(name)) old_ = old;
    if (value) ::setenv(name, value, 1);
    else ::unsetenv(name);
  }
  ~ScopedVariable() {
    if (old_) ::setenv(name_, old_->c_str(), 1);
    else ::unsetenv(name_);
  }

 private:
  const char* name_;
  std::optional<std::string> old_;
};

// A fake /proc in a temporary directory.
class FakeProcTree {
 public:
  std::string root() const { return directory_.path().string(); }

  fs::path process(int pid) {
    fs::path dir = directory_.path() / std::to_string(pid);
    fs::create_directories(dir / "root");
    return dir;
  }
  static void write(const fs::path& path, std::string_view contents) {
    std::ofstream(path, std::ios::binary) << contents;
  }

 private:
  const testing::ScratchDirectory directory_{"velmora-proc"};
};

TEST(EnvironmentIdentityTest, RulePrecedence) {
  ApplicationIdentityInputs in;
  EXPECT_EQ(resolveApplicationIdentifier(in), std::nullopt);

  in.executablePath = "/usr/bin/notes-app";
  EXPECT_EQ(resolveApplicationIdentifier(in), "notes-app");
  in.variables["FLATPAK_ID"] = "org.example.FromVariable";
  EXPECT_EQ(resolveApplicationIdentifier(in), "org.example.FromVariable");
  in.variables["ZKV_APPLICATION_ID"] = "com.example.explicit";
  EXPECT_EQ(resolveApplicationIdentifier(in), "com.example.explicit");
  // Inside a sandbox the sandbox's own record beats anything the process sets.
  in.flatpakInfo = kFlatpakInfo;
  EXPECT_EQ(resolveApplicationIdentifier(in), "org.example.Notes");
}

TEST(EnvironmentIdentityTest, EmptyOrUnusableInputsFallThrough) {
  ApplicationIdentityInputs in;
  in.variables["ZKV_APPLICATION_ID"] = "";
  in.variables["FLATPAK_ID"] = "";
  in.flatpakInfo = "[Runtime]\nname=org.example.Platform\n";
  in.executablePath = "/opt/tool/bin/helper (deleted)";
  EXPECT_EQ(resolveApplicationIdentifier(in), "helper");
  in.executablePath = "/";
  EXPECT_EQ(resolveApplicationIdentifier(in), std::nullopt);
}

TEST(EnvironmentIdentityTest, FlatpakInfoParsing) {
  EXPECT_EQ(flatpakApplicationName(kFlatpakInfo), "org.example.Notes");
  EXPECT_EQ(flatpakApplicationName("[Application]\r\nname=org.example.Crlf\r\n"), "org.example.Crlf");
  EXPECT_EQ(flatpakApplicationName("[Application]\nname=\n"), std::nullopt);
  EXPECT_EQ(flatpakApplicationName("[Application]\nnames=org.x\n"), std::nullopt);
  EXPECT_EQ(flatpakApplicationName("name=org.outside.Section\n"), std::nullopt);
  EXPECT_EQ(flatpakApplicationName(""), std::nullopt);
}

TEST(EnvironmentIdentityTest, PeerProcessFromProcTree) {
  FakeProcTree proc;

  fs::path plain = proc.process(100);
  FakeProcTree::write(plain / "environ",
                      "PATH=/bin\0ZKV_APPLICATION_ID=com.example.first\0ZKV_APPLICATION_ID=com.example.second\0"
                      "BROKEN\0=novalue\0"sv);
  fs::create_symlink("/usr/bin/ignored", plain / "exe");
  EXPECT_EQ(applicationIdentifierOfProcess(100, proc.root()), "com.example.first");

  fs::path sandboxed = proc.process(200);
  FakeProcTree::write(sandboxed / "environ", "FLATPAK_ID=com.example.spoof\0ZKV_APPLICATION_ID=com.example.spoof\0"sv);
  FakeProcTree::write(sandboxed / "root" / ".flatpak-info", kFlatpakInfo);
  EXPECT_EQ(applicationIdentifierOfProcess(200, proc.root()), "org.example.Notes");

  fs::path bare = proc.process(300);  // environ unreadable (absent): falls back to exe
  fs::create_symlink("/usr/lib/app/bin/viewer", bare / "exe");
  EXPECT_EQ(applicationIdentifierOfProcess(300, proc.root()), "viewer");

  EXPECT_EQ(applicationIdentifierOfProcess(400, proc.root()), std::nullopt);
}

TEST(EnvironmentIdentityTest, OwnProcessThroughRealProc) {
  ScopedVariable id("ZKV_APPLICATION_ID", nullptr);
  ScopedVariable flatpak("FLATPAK_ID", nullptr);
  SystemEnvironment env;
  if (env.isSandboxed()) GTEST_SKIP() << "running inside a sandbox";
  char exe[4096];
  ssize_t n = ::readlink("/proc/self/exe", exe, sizeof exe - 1);
  ASSERT_GT(n, 0);
  std::string expected = fs::path(std::string(exe, static_cast<std::size_t>(n))).filename();
  EXPECT_EQ(env.hostApplicationIdentifier(), expected);
  // The live environment counts, not the one the process started with.
  ScopedVariable set("ZKV_APPLICATION_ID", "com.example.live");
  EXPECT_EQ(env.hostApplicationIdentifier(), "com.example.live");
}

TEST(EnvironmentTest, HomeDirectoryPrefersNonEmptyHome) {
  SystemEnvironment env;
  {
    ScopedVariable home("HOME", "/srv/home-for-test");
    EXPECT_EQ(env.homeDirectory(), "/srv/home-for-test");
  }
  std::optional<std::string> fromDatabase;
  {
    ScopedVariable home("HOME", nullptr);
    fromDatabase = env.homeDirectory();
  }
  ScopedVariable home("HOME", "");
  EXPECT_EQ(env.homeDirectory(), fromDatabase);
  if (fromDatabase) {
    EXPECT_FALSE(fromDatabase->empty());
  }
}

TEST(EnvironmentTest, AbsoluteTimeCountsFrom2001) {
  SystemEnvironment env;
  double before = static_cast<double>(std::time(nullptr)) - 978307200.0;
  double now = env.absoluteTime();
  double after = static_cast<double>(std::time(nullptr)) - 978307200.0;
  EXPECT_GE(now, before);
  EXPECT_LT(now, after + 1.0);
}

TEST(EnvironmentTest, VariablesAndReplacement) {
  ScopedVariable var("VELMORA_ENV_TEST", "value=with=equals");
  EXPECT_EQ(currentEnvironment().getVariable("VELMORA_ENV_TEST"), "value=with=equals");
  EXPECT_EQ(currentEnvironment().getVariable("VELMORA_ENV_TEST_UNSET"), std::nullopt);

  class Fixed : public Environment {
    std::optional<std::string> getVariable(std::string_view) const override { return "fixed"; }
    std::optional<std::string> homeDirectory() const override { return std::nullopt; }
    double absoluteTime() const override { return 0; }
    std::optional<std::string> hostApplicationIdentifier() const override { return std::nullopt; }
    bool isSandboxed() const override { return false; }
  };
  auto fake = std::make_shared<Fixed>();
  auto original = setEnvironment(fake);
  ASSERT_NE(original, nullptr);
  EXPECT_EQ(currentEnvironment().getVariable("VELMORA_ENV_TEST_UNSET"), "fixed");
  EXPECT_EQ(setEnvironment(nullptr), fake);
  EXPECT_NE(dynamic_cast<SystemEnvironment*>(&currentEnvironment()), nullptr);
  setEnvironment(original);
}

TEST(EnvironmentTest, LinkedRelease) {
  EXPECT_EQ(parseLinkedRelease("7"), 7);
  EXPECT_EQ(parseLinkedRelease("0012"), 12);
  for (const char* bad : {"0", "-8", "8 ", "10000", ""}) EXPECT_EQ(parseLinkedRelease(bad), std::nullopt) << bad;

  setLinkedRelease(7);
  EXPECT_EQ(linkedRelease(), 7);
  EXPECT_FALSE(linkedOnOrAfterRelease8());
  setLinkedRelease(8);
  EXPECT_TRUE(linkedOnOrAfterRelease8());
  setLinkedRelease(0);  // back to the variable or the default
  if (std::getenv("ZKV_LINKED_RELEASE") == nullptr) {
    EXPECT_EQ(linkedRelease(), kDefaultLinkedRelease);
  }
}

}  // namespace
}  // namespace velmora
