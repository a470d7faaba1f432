#include "velmora/platform/Environment.h"

#include "InstalledSlot.h"

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <ctime>
#include <fcntl.h>
#include <mutex>
#include <pwd.h>
#include <unistd.h>
#include <vector>

#include "velmora/platform/PropertyList.h"

namespace velmora {

namespace {

constexpr const char* kFlatpakInfoPath = "/.flatpak-info";
constexpr std::string_view kDeletedSuffix = " (deleted)";
// Larger files are not what we are looking for; refusing them bounds the read.
constexpr std::size_t kMaxSmallFile = 1 << 20;

// The whole of a small file, or nullopt when missing, unreadable or too big.
std::optional<std::string> readSmallFile(const std::string& path) {
  int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return std::nullopt;
  std::string out;
  char buf[4096];
  for (;;) {
    ssize_t n = ::read(fd, buf, sizeof buf);
    if (n < 0) {
      if (errno == EINTR) continue;
      ::close(fd);
      return std::nullopt;
    }
    if (n == 0) break;
    out.append(buf, static_cast<std::size_t>(n));
    if (out.size() > kMaxSmallFile) {
      ::close(fd);
      return std::nullopt;
    }
  }
  ::close(fd);
  return out;
}

std::optional<std::string> readLink(const std::string& path) {
  std::string buf(256, '\0');
  for (;;) {
    ssize_t n = ::readlink(path.c_str(), buf.data(), buf.size());
    if (n < 0) return std::nullopt;
    if (static_cast<std::size_t>(n) < buf.size()) {
      buf.resize(static_cast<std::size_t>(n));
      return buf;
    }
    if (buf.size() >= 65536) return std::nullopt;
    buf.resize(buf.size() * 2);
  }
}

std::string_view trim(std::string_view s) {
  while (!s.empty() && (s.front() == ' ' || s.front() == '\t' || s.front() == '\r')) s.remove_prefix(1);
  while (!s.empty() && (s.back() == ' ' || s.back() == '\t' || s.back() == '\r')) s.remove_suffix(1);
  return s;
}

std::optional<std::string> nonEmptyVariable(const ApplicationIdentityInputs& inputs, std::string_view name) {
  auto it = inputs.variables.find(name);
  if (it == inputs.variables.end() || it->second.empty()) return std::nullopt;
  return it->second;
}

// NUL-separated NAME=value entries, as in /proc/<pid>/environ. The first
// entry of a name wins, as it does for getenv.
std::map<std::string, std::string, std::less<>> parseEnviron(std::string_view block) {
  std::map<std::string, std::string, std::less<>> vars;
  while (!block.empty()) {
    std::size_t end = block.find('\0');
    std::string_view entry = block.substr(0, end);
    block.remove_prefix(end == std::string_view::npos ? block.size() : end + 1);
    std::size_t eq = entry.find('=');
    if (eq == std::string_view::npos || eq == 0) continue;
    vars.emplace(std::string(entry.substr(0, eq)), std::string(entry.substr(eq + 1)));
  }
  return vars;
}

// Never destroyed, so static destructors elsewhere may still ask.
InstalledSlot<Environment>& environmentSlot() {
  static auto* slot = new InstalledSlot<Environment>([] { return std::make_shared<SystemEnvironment>(); });
  return *slot;
}

std::atomic<int> explicitLinkedRelease{0};  // 0: no setLinkedRelease call in force

}  // namespace

// ---------------------------------------------------------------------------

std::optional<std::string> SystemEnvironment::getVariable(std::string_view name) const {
  const char* value = std::getenv(std::string(name).c_str());
  if (value == nullptr) return std::nullopt;
  return std::string(value);
}

std::optional<std::string> SystemEnvironment::homeDirectory() const {
  if (auto home = getVariable("HOME"); home && !home->empty()) return home;

  long hint = ::sysconf(_SC_GETPW_R_SIZE_MAX);
  std::vector<char> buf(hint > 0 ? static_cast<std::size_t>(hint) : 1024);
  for (;;) {
    passwd entry{};
    passwd* result = nullptr;
    int rc = ::getpwuid_r(::getuid(), &entry, buf.data(), buf.size(), &result);
    if (rc == ERANGE && buf.size() < (1u << 20)) {
      buf.resize(buf.size() * 2);
      continue;
    }
    if (rc != 0 || result == nullptr || result->pw_dir == nullptr || result->pw_dir[0] == '\0') {
      return std::nullopt;
    }
    return std::string(result->pw_dir);
  }
}

double SystemEnvironment::absoluteTime() const {
  timespec ts{};
  ::clock_gettime(CLOCK_REALTIME, &ts);
  return static_cast<double>(ts.tv_sec) - kAbsoluteTimeIntervalSince1970 + static_cast<double>(ts.tv_nsec) * 1e-9;
}

std::optional<std::string> SystemEnvironment::hostApplicationIdentifier() const {
  ApplicationIdentityInputs inputs;
  for (const char* name : {"ZKV_APPLICATION_ID", "FLATPAK_ID"}) {
    if (auto value = getVariable(name)) inputs.variables.emplace(name, std::move(*value));
  }
  inputs.flatpakInfo = readSmallFile(kFlatpakInfoPath);
  inputs.executablePath = readLink("/proc/self/exe");
  return resolveApplicationIdentifier(inputs);
}

bool SystemEnvironment::isSandboxed() const { return ::access(kFlatpakInfoPath, F_OK) == 0; }

Environment& currentEnvironment() { return environmentSlot().get(); }

std::shared_ptr<Environment> setEnvironment(std::shared_ptr<Environment> env) {
  return environmentSlot().exchange(std::move(env));
}

// ---------------------------------------------------------------------------

std::optional<std::string> flatpakApplicationName(std::string_view info) {
  bool inApplication = false;
  while (!info.empty()) {
    std::size_t end = info.find('\n');
    std::string_view line = trim(info.substr(0, end));
    info.remove_prefix(end == std::string_view::npos ? info.size() : end + 1);
    if (line.empty() || line.front() == '#') continue;
    if (line.front() == '[') {
      inApplication = line == "[Application]";
      continue;
    }
    if (!inApplication) continue;
    std::size_t eq = line.find('=');
    if (eq == std::string_view::npos || trim(line.substr(0, eq)) != "name") continue;
    std::string_view value = trim(line.substr(eq + 1));
    if (value.empty()) return std::nullopt;
    return std::string(value);
  }
  return std::nullopt;
}

std::optional<std::string> resolveApplicationIdentifier(const ApplicationIdentityInputs& inputs) {
  if (inputs.flatpakInfo) {
    if (auto name = flatpakApplicationName(*inputs.flatpakInfo)) return name;
  }
  if (auto id = nonEmptyVariable(inputs, "ZKV_APPLICATION_ID")) return id;
  if (auto id = nonEmptyVariable(inputs, "FLATPAK_ID")) return id;
  if (inputs.executablePath) {
    std::string_view path = *inputs.executablePath;
    if (path.ends_with(kDeletedSuffix)) path.remove_suffix(kDeletedSuffix.size());
    std::size_t slash = path.rfind('/');
    std::string_view base = slash == std::string_view::npos ? path : path.substr(slash + 1);
    if (!base.empty()) return std::string(base);
  }
  return std::nullopt;
}

std::optional<std::string> applicationIdentifierOfProcess(pid_t pid, const std::string& procRoot) {
  const std::string dir = procRoot + "/" + std::to_string(pid);
  ApplicationIdentityInputs inputs;
  if (auto block = readSmallFile(dir + "/environ")) inputs.variables = parseEnviron(*block);
  inputs.flatpakInfo = readSmallFile(dir + "/root/.flatpak-info");
  inputs.executablePath = readLink(dir + "/exe");
  return resolveApplicationIdentifier(inputs);
}

// ---------------------------------------------------------------------------

std::optional<int> parseLinkedRelease(std::string_view text) {
  if (text.empty() || text.size() > 4) return std::nullopt;
  int value = 0;
  for (char c : text) {
    if (c < '0' || c > '9') return std::nullopt;
    value = value * 10 + (c - '0');
  }
  if (value <= 0) return std::nullopt;
  return value;
}

void setLinkedRelease(int release) {
  explicitLinkedRelease.store(release > 0 ? release : 0, std::memory_order_relaxed);
}

int linkedRelease() {
  if (int release = explicitLinkedRelease.load(std::memory_order_relaxed); release > 0) return release;
  static const int fromEnvironment = [] {
    auto text = currentEnvironment().getVariable("ZKV_LINKED_RELEASE");
    auto parsed = text ? parseLinkedRelease(*text) : std::nullopt;
    return parsed.value_or(kDefaultLinkedRelease);
  }();
  return fromEnvironment;
}

bool linkedOnOrAfterRelease8() { return linkedRelease() >= 8; }

}  // namespace velmora
