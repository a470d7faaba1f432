#include "CallerIdentity.h"

#include <poll.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "velmora/platform/Environment.h"
#include "velmora/platform/PlistCodec.h"

namespace velmorad {

namespace {

CallerIdentity unknown(std::string why) {
  CallerIdentity identity;
  identity.why = std::move(why);
  return identity;
}

// The process's start, in nanoseconds since boot, from field 22 of
// /proc/PID/stat (after the parenthesised command name, which may hold
// anything); nullopt when unreadable.
std::optional<std::uint64_t> processStart(const std::string& dir) {
  int error = 0;
  std::optional<velmora::Bytes> bytes = velmora::readFileContents(dir + "/stat", 4096, &error);
  if (!bytes) return std::nullopt;
  const std::string text(bytes->begin(), bytes->end());
  const std::size_t close = text.rfind(')');
  if (close == std::string::npos) return std::nullopt;
  std::size_t at = close + 1;
  for (int field = 3; field <= 22; ++field) {  // field 2 ends at the ')'
    at = text.find_first_not_of(' ', at);
    if (at == std::string::npos) return std::nullopt;
    if (field == 22) break;
    at = text.find(' ', at);
    if (at == std::string::npos) return std::nullopt;
  }
  char* end = nullptr;
  const unsigned long long ticks = std::strtoull(text.c_str() + at, &end, 10);
  if (end == text.c_str() + at) return std::nullopt;
  const long hz = ::sysconf(_SC_CLK_TCK);
  if (hz <= 0) return std::nullopt;
  return static_cast<std::uint64_t>(ticks) * (1'000'000'000ULL / static_cast<std::uint64_t>(hz));
}

}  // namespace

std::uint64_t bootTimeNow() {
  timespec now{};
  ::clock_gettime(CLOCK_BOOTTIME, &now);
  return static_cast<std::uint64_t>(now.tv_sec) * 1'000'000'000ULL + static_cast<std::uint64_t>(now.tv_nsec);
}

CallerIdentity identifyProcess(pid_t pid, uid_t uid, std::uint64_t connectedBy) {
  if (pid <= 0) return unknown("the bus did not tell the caller's process");
  if (uid != ::getuid()) return unknown("the caller belongs to another user");
  // Pinned: its id cannot be given to another process while this is open.
  const int pidfd = static_cast<int>(::syscall(SYS_pidfd_open, pid, 0));
  if (pidfd < 0) return unknown(std::string("the caller's process is gone: ") + std::strerror(errno));
  auto stillAlive = [pidfd] {
    pollfd fd{pidfd, POLLIN, 0};
    return ::poll(&fd, 1, 0) == 0;  // readable once it has exited
  };
  const std::string dir = "/proc/" + std::to_string(pid);
  CallerIdentity identity;
  do {
    // A process that started after its connection existed only took over a
    // freed id: the one that connected is gone. (Ticks are coarse: allow one.)
    const std::optional<std::uint64_t> started = processStart(dir);
    if (!started) {
      identity = unknown("cannot read the caller's process start");
      break;
    }
    const std::uint64_t tick = 1'000'000'000ULL / static_cast<std::uint64_t>(std::max(1L, ::sysconf(_SC_CLK_TCK)));
    if (connectedBy != 0 && *started > connectedBy + tick) {
      identity = unknown("the caller's process id now names another process");
      break;
    }
    struct stat info{};
    const std::string marker = dir + "/root/" + kSandboxMarker;
    if (::stat(marker.c_str(), &info) == 0) {
      identity.confined = true;
      int error = 0;
      std::optional<velmora::Bytes> text = velmora::readFileContents(marker, 64 * 1024, &error);
      if (text) identity.application = velmora::flatpakApplicationName(std::string(text->begin(), text->end()));
      if (!identity.application) {
        identity = unknown("cannot learn the sandboxed caller's application");
        break;
      }
    } else if (errno == ENOENT) {
      identity.application = velmora::applicationIdentifierOfProcess(pid);
    } else {
      identity = unknown(std::string("cannot tell whether the caller is sandboxed: ") + std::strerror(errno));
      break;
    }
    // Everything above was read from the process that connected only if it
    // still lives now.
    if (!stillAlive()) {
      identity = unknown("the caller's process exited while it was identified");
      break;
    }
    identity.known = true;
  } while (false);
  ::close(pidfd);
  return identity;
}

}  // namespace velmorad
