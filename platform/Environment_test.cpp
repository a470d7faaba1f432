#include "velmora/platform/Environment.h"

#include <gtest/gtest.h>
#include <pwd.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "ScratchEnvironment.h"

namespace velmora {
namespace {

namespace fs = std::filesystem;
using namespace std::string_view_literals;

constexpr const char* kFlatpakInfo =
    "[Runtime]\nname=org.example.Platform\n\n# the app itself\n[Application]\n"
    "runtime=runtime/org.example.Platform/x86_64/1\n  name = org.example.Notes  \n[Instance]\nname=ignored\n";

// Each rule beats the ones before it; inside a sandbox the sandbox's own
// record beats anything the process sets. Empty or unusable inputs fall through.
TEST(EnvironmentIdentityTest, RulePrecedence) {
  ApplicationIdentityInputs in;
  EXPECT_EQ(resolveApplicationIdentifier(in), std::nullopt);
  in.executablePath = "/usr/bin/notes-app";
  EXPECT_EQ(resolveApplicationIdentifier(in), "notes-app");
  in.variables["FLATPAK_ID"] = "org.example.FromVariable";
  EXPECT_EQ(resolveApplicationIdentifier(in), "org.example.FromVariable");
  in.variables["ZKV_APPLICATION_ID"] = "com.example.explicit";
  EXPECT_EQ(resolveApplicationIdentifier(in), "com.example.explicit");
  in.flatpakInfo = kFlatpakInfo;
  EXPECT_EQ(resolveApplicationIdentifier(in), "org.example.Notes");

  in = {{{"ZKV_APPLICATION_ID", ""}, {"FLATPAK_ID", ""}}, "[Runtime]\nname=org.example.Platform\n",
        "/opt/tool/bin/helper (deleted)"};
  EXPECT_EQ(resolveApplicationIdentifier(in), "helper");
  in.executablePath = "/";
  EXPECT_EQ(resolveApplicationIdentifier(in), std::nullopt);

  EXPECT_EQ(flatpakApplicationName("[Application]\r\nname=org.example.Crlf\r\n"), "org.example.Crlf");
  for (const char* info : {"[Application]\nname=\n", "[Application]\nnames=org.x\n", "name=org.outside.Section\n", ""})
    EXPECT_EQ(flatpakApplicationName(info), std::nullopt) << info;
  EXPECT_EQ(parseLinkedRelease("0012"), 12);
  for (const char* bad : {"0", "-8", "8 ", "10000", ""}) EXPECT_EQ(parseLinkedRelease(bad), std::nullopt) << bad;
}

// Another process, read through a fake /proc: a sandboxed one cannot choose
// its name with variables.
TEST(EnvironmentIdentityTest, PeerProcessFromProcTree) {
  const testing::ScratchDirectory proc("velmora-proc");
  auto process = [&](int pid, std::string_view environ, const char* exe, const char* flatpakInfo = nullptr) {
    const fs::path dir = proc.path() / std::to_string(pid);
    fs::create_directories(dir / "root");
    if (!environ.empty()) std::ofstream(dir / "environ", std::ios::binary) << environ;
    if (exe) fs::create_symlink(exe, dir / "exe");
    if (flatpakInfo) std::ofstream(dir / "root" / ".flatpak-info") << flatpakInfo;
    return applicationIdentifierOfProcess(pid, proc.path().string());
  };
  EXPECT_EQ(process(100, "PATH=/bin\0ZKV_APPLICATION_ID=com.example.first\0ZKV_APPLICATION_ID=com.example.second\0"
                         "BROKEN\0=novalue\0"sv, "/usr/bin/ignored"),
            "com.example.first");
  EXPECT_EQ(process(200, "FLATPAK_ID=com.example.spoof\0ZKV_APPLICATION_ID=com.example.spoof\0"sv, nullptr,
                    kFlatpakInfo),
            "org.example.Notes");
  EXPECT_EQ(process(300, "", "/usr/lib/app/bin/viewer"), "viewer");  // environ unreadable: the executable
  EXPECT_EQ(applicationIdentifierOfProcess(400, proc.path().string()), std::nullopt);
}

// An empty or unset HOME falls back to the user database.
TEST(EnvironmentTest, HomeFallsBackToTheUserDatabase) {
  const char* const old = std::getenv("HOME");
  const std::string saved = old ? old : "";
  for (const char* home : {"", static_cast<const char*>(nullptr)}) {
    if (home) ::setenv("HOME", home, 1);
    else ::unsetenv("HOME");
    const passwd* entry = ::getpwuid(::getuid());
    ASSERT_TRUE(entry != nullptr && entry->pw_dir != nullptr);
    EXPECT_EQ(SystemEnvironment().homeDirectory().value_or(""), entry->pw_dir);
  }
  if (old) ::setenv("HOME", saved.c_str(), 1);
  EXPECT_FALSE(SystemEnvironment().isSandboxed());
}

}  // namespace
}  // namespace velmora
