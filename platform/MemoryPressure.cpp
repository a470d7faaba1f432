#include "velmora/platform/MemoryPressure.h"

#include "InstalledSlot.h"

#include <atomic>
#include <cerrno>
#include <charconv>
#include <fcntl.h>
#include <fstream>
#include <poll.h>
#include <sstream>
#include <sys/eventfd.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>
#include <utility>

#include "velmora/platform/Dispatch.h"
#include "velmora/platform/Environment.h"

namespace velmora {

// ---------------------------------------------------------------------------
// Registration handle.

MemoryWarningRegistration::MemoryWarningRegistration(std::shared_ptr<MemoryPressureMonitor> monitor,
                                                     MemoryWarningToken token) noexcept
    : monitor_(std::move(monitor)), token_(monitor_ ? token : kNoMemoryWarningToken) {}

MemoryWarningRegistration::~MemoryWarningRegistration() { cancel(); }

MemoryWarningRegistration::MemoryWarningRegistration(MemoryWarningRegistration&& other) noexcept
    : monitor_(std::move(other.monitor_)), token_(std::exchange(other.token_, kNoMemoryWarningToken)) {}

MemoryWarningRegistration& MemoryWarningRegistration::operator=(MemoryWarningRegistration&& other) noexcept {
  if (this != &other) {
    cancel();
    monitor_ = std::move(other.monitor_);
    token_ = std::exchange(other.token_, kNoMemoryWarningToken);
  }
  return *this;
}

void MemoryWarningRegistration::cancel() {
  MemoryWarningToken token = std::exchange(token_, kNoMemoryWarningToken);
  std::shared_ptr<MemoryPressureMonitor> monitor = std::move(monitor_);
  if (monitor && token != kNoMemoryWarningToken) monitor->removeWarningHandler(token);
}

// ---------------------------------------------------------------------------
// Discovery.

namespace {

std::filesystem::path underRoot(const std::filesystem::path& root, const std::filesystem::path& path) {
  return (root / path.relative_path()).lexically_normal();
}

Bytes nulTerminated(std::string_view text) {
  Bytes out(text.begin(), text.end());
  // The kernel overwrites the last byte written with NUL, so the trigger
  // text must carry its own terminator.
  out.push_back(0);
  return out;
}

std::optional<std::string> readSmallFile(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return std::nullopt;
  std::ostringstream text;
  text << in.rdbuf();
  return std::move(text).str();
}

// Reads up to 4 KiB from the start of fd (pressure files are a few lines).
std::optional<std::string> rereadFromStart(int fd) {
  if (::lseek(fd, 0, SEEK_SET) < 0) return std::nullopt;
  char buffer[4096];
  std::size_t used = 0;
  while (used < sizeof buffer) {
    ssize_t n = ::read(fd, buffer + used, sizeof buffer - used);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return std::nullopt;
    if (n == 0) break;
    used += static_cast<std::size_t>(n);
  }
  return std::string(buffer, used);
}

int base64Value(char c) {
  if (c >= 'A' && c <= 'Z') return c - 'A';
  if (c >= 'a' && c <= 'z') return c - 'a' + 26;
  if (c >= '0' && c <= '9') return c - '0' + 52;
  if (c == '+') return 62;
  if (c == '/') return 63;
  return -1;
}

}  // namespace

std::optional<Bytes> decodeBase64(std::string_view text) {
  Bytes out;
  std::uint32_t accumulator = 0;
  int bits = 0;
  int padding = 0;
  std::size_t symbols = 0;
  for (char c : text) {
    if (c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\f' || c == '\v') continue;
    if (c == '=') {
      ++padding;
      continue;
    }
    int v = base64Value(c);
    if (v < 0 || padding > 0) return std::nullopt;  // a symbol after padding
    ++symbols;
    accumulator = (accumulator << 6) | static_cast<std::uint32_t>(v);
    bits += 6;
    if (bits >= 8) {
      bits -= 8;
      out.push_back(static_cast<std::uint8_t>(accumulator >> bits));
    }
  }
  // One lone symbol in the last group cannot encode a byte; padding, when
  // present, must complete the group.
  if (symbols % 4 == 1) return std::nullopt;
  if (padding > 0 && (symbols + static_cast<std::size_t>(padding)) % 4 != 0) return std::nullopt;
  if (padding > 2) return std::nullopt;
  return out;
}

std::optional<double> parsePressureAverage10(std::string_view text) {
  std::size_t line = 0;
  while (line < text.size()) {
    std::size_t end = text.find('\n', line);
    if (end == std::string_view::npos) end = text.size();
    std::string_view current = text.substr(line, end - line);
    line = end + 1;
    if (!current.starts_with("some ")) continue;
    std::size_t at = current.find("avg10=");
    if (at == std::string_view::npos) return std::nullopt;
    std::string_view number = current.substr(at + 6);
    double value = 0.0;
    // from_chars: the kernel writes '.' whatever the process's locale.
    auto [stop, error] = std::from_chars(number.data(), number.data() + number.size(), value);
    if (error != std::errc() || stop == number.data() || !(value >= 0.0)) return std::nullopt;
    return value;
  }
  return std::nullopt;
}

std::vector<MemoryPressureWatch> memoryPressureWatchCandidates(
    const std::filesystem::path& root, const std::map<std::string, std::string, std::less<>>& variables) {
  std::vector<MemoryPressureWatch> out;
  auto watch = variables.find("MEMORY_PRESSURE_WATCH");
  if (watch != variables.end() && !watch->second.empty()) {
    if (watch->second == "/dev/null") return {MemoryPressureWatch{MemoryPressureWatch::Kind::Disabled, {}, {}}};
    std::optional<Bytes> trigger = Bytes{};
    auto write = variables.find("MEMORY_PRESSURE_WRITE");
    if (write != variables.end() && !write->second.empty()) trigger = decodeBase64(write->second);
    if (trigger) {
      out.push_back({MemoryPressureWatch::Kind::Trigger, underRoot(root, watch->second), std::move(*trigger)});
    }
  }
  if (std::optional<std::string> cgroups = readSmallFile(root / "proc/self/cgroup")) {
    std::istringstream lines(*cgroups);
    for (std::string line; std::getline(lines, line);) {
      if (!line.starts_with("0::/") || line.ends_with(" (deleted)")) continue;
      std::filesystem::path group = std::filesystem::path(line.substr(3)).relative_path();
      out.push_back({MemoryPressureWatch::Kind::Trigger,
                     underRoot(root, std::filesystem::path("/sys/fs/cgroup") / group / "memory.pressure"),
                     nulTerminated(kPressureTrigger)});
      break;
    }
  }
  const std::filesystem::path system = underRoot(root, "/proc/pressure/memory");
  out.push_back({MemoryPressureWatch::Kind::Trigger, system, nulTerminated(kPressureTrigger)});
  out.push_back({MemoryPressureWatch::Kind::AveragePoll, system, {}});
  return out;
}

std::optional<OpenedMemoryPressureWatch> openMemoryPressureWatch(const std::vector<MemoryPressureWatch>& candidates,
                                                                 std::size_t first) {
  using Mode = OpenedMemoryPressureWatch::Mode;
  for (std::size_t i = first; i < candidates.size(); ++i) {
    const MemoryPressureWatch& candidate = candidates[i];
    switch (candidate.kind) {
      case MemoryPressureWatch::Kind::Disabled:
        return OpenedMemoryPressureWatch{-1, Mode::None, i};
      case MemoryPressureWatch::Kind::Trigger: {
        int fd = ::open(candidate.path.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
        if (fd < 0) continue;
        struct stat info {};
        if (::fstat(fd, &info) != 0) {
          ::close(fd);
          continue;
        }
        if (S_ISFIFO(info.st_mode)) return OpenedMemoryPressureWatch{fd, Mode::Readable, i};
        if (!candidate.trigger.empty()) {
          ssize_t n;
          do {
            n = ::write(fd, candidate.trigger.data(), candidate.trigger.size());
          } while (n < 0 && errno == EINTR);
          if (n != static_cast<ssize_t>(candidate.trigger.size())) {
            ::close(fd);
            continue;
          }
        }
        return OpenedMemoryPressureWatch{fd, Mode::Priority, i};
      }
      case MemoryPressureWatch::Kind::AveragePoll: {
        int fd = ::open(candidate.path.c_str(), O_RDONLY | O_CLOEXEC);
        if (fd < 0) continue;
        std::optional<std::string> text = rereadFromStart(fd);
        if (!text || !parsePressureAverage10(*text)) {
          ::close(fd);
          continue;
        }
        return OpenedMemoryPressureWatch{fd, Mode::Average, i};
      }
    }
  }
  return std::nullopt;
}

// ---------------------------------------------------------------------------
// The Linux monitor.

struct LinuxMemoryPressureMonitor::Handler {
  std::shared_ptr<DispatchQueue> queue;  // immutable; null = main queue
  std::function<void()> onWarning;       // immutable
  std::atomic<bool> active{true};        // atomic; cleared once by removal
};

struct LinuxMemoryPressureMonitor::WatchThread {
  int stopFd = -1;     // immutable eventfd; readable once the thread must leave
  std::thread thread;  // started and joined under the monitor's rules (see removeWarningHandler)
  std::mutex mutex;    // guards active
  std::optional<MemoryPressureWatch> active;  // guarded by mutex
};

LinuxMemoryPressureMonitor::LinuxMemoryPressureMonitor(LinuxMemoryPressureOptions options)
    : options_(std::move(options)) {}

LinuxMemoryPressureMonitor::~LinuxMemoryPressureMonitor() {
  std::shared_ptr<WatchThread> thread;
  {
    std::lock_guard lock(mutex_);
    thread = std::move(thread_);
  }
  if (thread) {
    std::uint64_t one = 1;
    (void)!::write(thread->stopFd, &one, sizeof one);
    thread->thread.join();
    ::close(thread->stopFd);
  }
}

MemoryWarningToken LinuxMemoryPressureMonitor::addWarningHandler(std::shared_ptr<DispatchQueue> queue,
                                                                 std::function<void()> onWarning) {
  if (!onWarning) return kNoMemoryWarningToken;
  auto handler = std::make_shared<Handler>();
  handler->queue = std::move(queue);
  handler->onWarning = std::move(onWarning);
  std::lock_guard lock(mutex_);
  MemoryWarningToken token = nextToken_++;
  handlers_.emplace(token, std::move(handler));
  if (!thread_ && options_.watchSystem) {
    auto thread = std::make_shared<WatchThread>();
    thread->stopFd = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (thread->stopFd >= 0) {
      // Whoever takes thread_ out joins it before letting it go, so the
      // thread may use the object by plain pointer.
      WatchThread* raw = thread.get();
      thread->thread = std::thread([this, raw] { watch(*raw); });
      thread_ = std::move(thread);
    }
  }
  return token;
}

void LinuxMemoryPressureMonitor::removeWarningHandler(MemoryWarningToken token) {
  std::shared_ptr<WatchThread> stopping;
  {
    std::lock_guard lock(mutex_);
    auto found = handlers_.find(token);
    if (found == handlers_.end()) return;
    found->second->active.store(false, std::memory_order_release);
    handlers_.erase(found);
    if (handlers_.empty()) stopping = std::move(thread_);
  }
  if (stopping) {
    std::uint64_t one = 1;
    (void)!::write(stopping->stopFd, &one, sizeof one);
    stopping->thread.join();
    ::close(stopping->stopFd);
  }
}

void LinuxMemoryPressureMonitor::raiseMemoryWarning() {
  std::vector<std::shared_ptr<Handler>> targets;
  {
    std::lock_guard lock(mutex_);
    targets.reserve(handlers_.size());
    for (const auto& [token, handler] : handlers_) targets.push_back(handler);
  }
  for (std::shared_ptr<Handler>& handler : targets) {
    DispatchQueue& queue = handler->queue ? *handler->queue : DispatchQueue::main();
    queue.async([handler = std::move(handler)] {
      if (handler->active.load(std::memory_order_acquire)) handler->onWarning();
    });
  }
}

bool LinuxMemoryPressureMonitor::isWatching() const {
  std::lock_guard lock(mutex_);
  return thread_ != nullptr;
}

std::optional<MemoryPressureWatch> LinuxMemoryPressureMonitor::activeWatch() const {
  std::shared_ptr<WatchThread> thread;
  {
    std::lock_guard lock(mutex_);
    thread = thread_;
  }
  if (!thread) return std::nullopt;
  std::lock_guard lock(thread->mutex);
  return thread->active;
}

void LinuxMemoryPressureMonitor::watch(WatchThread& thread) {
  using Mode = OpenedMemoryPressureWatch::Mode;
  if (options_.armDelay.count() > 0) {
    pollfd stop{thread.stopFd, POLLIN, 0};
    int ready = 0;
    while ((ready = ::poll(&stop, 1, static_cast<int>(options_.armDelay.count()))) < 0 && errno == EINTR) {
    }
    if (ready != 0) return;  // stopped before arming anything
  }
  std::vector<MemoryPressureWatch> candidates;
  if (options_.watches) {
    candidates = *options_.watches;
  } else {
    std::map<std::string, std::string, std::less<>> variables;
    if (options_.variables) {
      variables = *options_.variables;
    } else {
      Environment& env = currentEnvironment();
      for (const char* name : {"MEMORY_PRESSURE_WATCH", "MEMORY_PRESSURE_WRITE"}) {
        if (std::optional<std::string> value = env.getVariable(name)) variables.emplace(name, std::move(*value));
      }
    }
    candidates = memoryPressureWatchCandidates(options_.root, variables);
  }

  std::size_t next = 0;
  for (;;) {
    std::optional<OpenedMemoryPressureWatch> opened = openMemoryPressureWatch(candidates, next);
    {
      std::lock_guard lock(thread.mutex);
      thread.active = opened ? std::optional(candidates[opened->index]) : std::nullopt;
    }
    const Mode mode = opened ? opened->mode : Mode::None;
    pollfd fds[2] = {{thread.stopFd, POLLIN, 0}, {-1, 0, 0}};
    nfds_t count = 1;
    if (mode == Mode::Priority || mode == Mode::Readable) {
      fds[1] = {opened->fd, static_cast<short>(mode == Mode::Priority ? POLLPRI : POLLIN), 0};
      count = 2;
    }
    const int timeout = mode == Mode::Average ? static_cast<int>(options_.pollInterval.count()) : -1;

    bool failed = false;
    while (!failed) {
      int ready = ::poll(fds, count, timeout);
      if (ready < 0 && errno == EINTR) continue;
      if (ready < 0 || (fds[0].revents & POLLIN) != 0) {
        if (opened && opened->fd >= 0) ::close(opened->fd);
        return;
      }
      if (mode == Mode::Average) {
        std::optional<std::string> text = rereadFromStart(opened->fd);
        std::optional<double> average = text ? parsePressureAverage10(*text) : std::nullopt;
        if (!average) {
          failed = true;
        } else if (*average >= options_.averageThreshold) {
          raiseMemoryWarning();
        }
        continue;
      }
      const short events = fds[1].revents;
      // POLLERR on a pressure file means the trigger is gone (its cgroup was
      // removed, or nothing was written to arm it).
      if ((events & (POLLERR | POLLNVAL | POLLHUP)) != 0) {
        failed = true;
      } else if (mode == Mode::Priority && (events & POLLPRI) != 0) {
        raiseMemoryWarning();
      } else if (mode == Mode::Readable && (events & POLLIN) != 0) {
        char sink[256];
        while (::read(opened->fd, sink, sizeof sink) > 0) {
        }
        raiseMemoryWarning();
      }
    }
    ::close(opened->fd);
    next = opened->index + 1;
  }
}

// ---------------------------------------------------------------------------
// Process-wide monitor.

namespace {

// Never destroyed: registrations held by static objects may be cancelled
// after ordinary statics are gone.
InstalledSlot<MemoryPressureMonitor>& monitorSlot() {
  static auto* slot = new InstalledSlot<MemoryPressureMonitor>(
      [] {
        LinuxMemoryPressureOptions options;
        options.armDelay = std::chrono::seconds(3);
        return std::make_shared<LinuxMemoryPressureMonitor>(options);
      });
  return *slot;
}

}  // namespace

std::shared_ptr<MemoryPressureMonitor> currentMemoryPressureMonitor() { return monitorSlot().shared(); }

std::shared_ptr<MemoryPressureMonitor> setMemoryPressureMonitor(std::shared_ptr<MemoryPressureMonitor> monitor) {
  return monitorSlot().exchange(std::move(monitor));
}

MemoryWarningRegistration observeMemoryWarnings(std::shared_ptr<DispatchQueue> queue,
                                                std::function<void()> onWarning) {
  std::shared_ptr<MemoryPressureMonitor> monitor = currentMemoryPressureMonitor();
  MemoryWarningToken token = monitor->addWarningHandler(std::move(queue), std::move(onWarning));
  if (token == kNoMemoryWarningToken) return {};
  return MemoryWarningRegistration(std::move(monitor), token);
}

void raiseMemoryWarning() { currentMemoryPressureMonitor()->raiseMemoryWarning(); }

}  // namespace velmora
