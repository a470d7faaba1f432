// The private test bus and child processes. See PrivateBus.h.
#include "PrivateBus.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>
#include <string_view>
#include <thread>

#include <gtest/gtest.h>

#include "velmora/platform/PlistCodec.h"

#ifndef VELMORA_RESPONDER_PATH
#error "VELMORA_RESPONDER_PATH must name the scripted responder executable"
#endif

extern char** environ;

namespace velmora::testing {
namespace {

PrivateBus* gBus = nullptr;  // set once by instance() on the main thread
std::atomic<bool> gStarted{false};

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kSanitized = true;
#elif defined(__has_feature)
constexpr bool kSanitized = __has_feature(address_sanitizer) || __has_feature(thread_sanitizer);
#else
constexpr bool kSanitized = false;
#endif

// In a sanitizer build, the children's sanitizer reports (responders, the
// velmorad the bus starts, test processes run as children) go to files in a
// directory of this process's own: nobody reads a child's standard error,
// and the bus daemon, not the test, sees velmorad's exit status. The
// directory is made, and the option variables the children inherit are set,
// before main() runs, so before any thread or child exists; this process's
// own runtime read its options earlier and keeps reporting on stderr. The
// directory sits in VELMORA_SANITIZER_LOG_DIR when set (the test scripts
// look there again after the run, for reports written after a test ended),
// else in the temporary directory.
class ChildSanitizerReports {
 public:
  ChildSanitizerReports() {
    if (!kSanitized) return;
    const char* parent = std::getenv("VELMORA_SANITIZER_LOG_DIR");
    keep_ = parent != nullptr && *parent != '\0';
    std::string pattern = (keep_ ? std::string(parent) : std::filesystem::temp_directory_path().string()) +
                          "/velmora-children-XXXXXX";
    std::error_code ignored;
    if (keep_) std::filesystem::create_directories(parent, ignored);
    if (::mkdtemp(pattern.data()) == nullptr) return;
    directory_ = pattern;
    for (const char* name : {"ASAN_OPTIONS", "LSAN_OPTIONS", "UBSAN_OPTIONS", "TSAN_OPTIONS"}) {
      const char* old = std::getenv(name);
      std::string value = old != nullptr && *old != '\0' ? std::string(old) + ":" : std::string();
      ::setenv(name, (value + "log_path=" + directory_ + "/report").c_str(), 1);
    }
  }

  const std::string& directory() const noexcept { return directory_; }

  // Fails the run once for every report written so far, printing it on
  // stderr; removes the directory when it is empty and nobody looks again.
  // Main thread, after the last test.
  void check() {
    if (directory_.empty()) return;
    std::error_code ec;
    bool any = false;
    for (const auto& item : std::filesystem::directory_iterator(directory_, ec)) {
      any = true;
      const std::string text = readFile(item.path().string()).value_or("");
      std::fprintf(stderr, "==== sanitizer report of a child process: %s\n%s\n", item.path().c_str(), text.c_str());
      ADD_FAILURE() << "a child process reported a sanitizer error: " << item.path().string();
    }
    if (!any && !keep_) std::filesystem::remove(directory_, ec);
  }

 private:
  std::string directory_;  // main thread only; empty when not sanitized
  bool keep_ = false;      // main thread only
};

ChildSanitizerReports gChildReports;

// Stops the bus after the last test of the run, then looks for the
// children's sanitizer reports.
class PrivateBusEnvironment final : public ::testing::Environment {
 public:
  void TearDown() override {
    if (gBus != nullptr) gBus->stop();
    gChildReports.check();
  }
};

[[maybe_unused]] ::testing::Environment* const kEnvironment =
    ::testing::AddGlobalTestEnvironment(new PrivateBusEnvironment);

std::string busConfig(const std::string& directory, const std::string& services) {
  return "<!DOCTYPE busconfig PUBLIC \"-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN\"\n"
         " \"http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd\">\n"
         "<busconfig>\n"
         "  <type>session</type>\n"
         "  <keep_umask/>\n"
         "  <listen>unix:dir=" + directory + "</listen>\n"
         "  <auth>EXTERNAL</auth>\n"
         "  <servicedir>" + services + "</servicedir>\n"
         "  <policy context=\"default\">\n"
         "    <allow send_destination=\"*\" eavesdrop=\"true\"/>\n"
         "    <allow eavesdrop=\"true\"/>\n"
         "    <allow own=\"*\"/>\n"
         "  </policy>\n"
         "</busconfig>\n";
}

}  // namespace

std::unique_ptr<ChildProcess> ChildProcess::start(const std::vector<std::string>& argv,
                                                  const std::vector<std::string>& extraEnvironment) {
  if (argv.empty()) return nullptr;
  int out[2];
  if (::pipe2(out, O_CLOEXEC) != 0) return nullptr;
  // Everything the child needs is built before fork: after it, only
  // async-signal-safe calls are allowed.
  std::vector<char*> args;
  for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
  args.push_back(nullptr);
  // extraEnvironment replaces inherited variables of the same name.
  std::vector<std::string> envStrings;
  for (char** e = environ; *e != nullptr; ++e) {
    std::string_view entry(*e);
    bool replaced = false;
    for (const std::string& extra : extraEnvironment) {
      std::string_view name = std::string_view(extra).substr(0, extra.find('=') + 1);
      replaced = replaced || entry.substr(0, name.size()) == name;
    }
    if (!replaced) envStrings.emplace_back(entry);
  }
  for (const std::string& e : extraEnvironment) envStrings.push_back(e);
  std::vector<char*> env;
  for (const std::string& e : envStrings) env.push_back(const_cast<char*>(e.c_str()));
  env.push_back(nullptr);
  const pid_t parent = ::getpid();

  pid_t pid = ::fork();
  if (pid < 0) {
    ::close(out[0]);
    ::close(out[1]);
    return nullptr;
  }
  if (pid == 0) {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (::getppid() != parent) ::_exit(126);  // the parent is already gone
    ::dup2(out[1], STDOUT_FILENO);
    ::execve(args[0], args.data(), env.data());
    ::_exit(127);
  }
  ::close(out[1]);
  return std::unique_ptr<ChildProcess>(new ChildProcess(pid, out[0]));
}

ChildProcess::~ChildProcess() {
  if (pid_ > 0) {
    ::kill(pid_, SIGKILL);
    int status = 0;
    ::waitpid(pid_, &status, 0);
  }
  if (stdoutFd_ >= 0) ::close(stdoutFd_);
}

std::optional<std::string> ChildProcess::readLine(std::chrono::milliseconds timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  for (;;) {
    auto newline = buffered_.find('\n');
    if (newline != std::string::npos) {
      std::string line = buffered_.substr(0, newline);
      buffered_.erase(0, newline + 1);
      return line;
    }
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) return std::nullopt;
    pollfd pfd{stdoutFd_, POLLIN, 0};
    int r = ::poll(&pfd, 1, static_cast<int>(left.count()));
    if (r < 0 && errno == EINTR) continue;
    if (r <= 0) return std::nullopt;
    char chunk[512];
    ssize_t n = ::read(stdoutFd_, chunk, sizeof chunk);
    if (n <= 0) return std::nullopt;
    buffered_.append(chunk, static_cast<std::size_t>(n));
  }
}

void ChildProcess::signal(int sig) {
  if (pid_ > 0) ::kill(pid_, sig);
}

std::optional<int> ChildProcess::waitForExit(std::chrono::milliseconds timeout) {
  if (pid_ <= 0) return std::nullopt;
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  for (;;) {
    int status = 0;
    pid_t r = ::waitpid(pid_, &status, WNOHANG);
    if (r == pid_) {
      pid_ = -1;
      return status;
    }
    if (std::chrono::steady_clock::now() >= deadline) return std::nullopt;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
}

// ---------------------------------------------------------------------------

std::unique_ptr<BusDaemon> BusDaemon::start() {
  std::unique_ptr<BusDaemon> daemon(new BusDaemon());
  char pattern[] = "/tmp/velmora-bus-XXXXXX";
  if (::mkdtemp(pattern) == nullptr) return nullptr;
  daemon->directory_ = pattern;
  daemon->serviceDirectory_ = daemon->directory_ + "/services";
  std::filesystem::create_directory(daemon->serviceDirectory_);
  const std::string configPath = daemon->directory_ + "/bus.conf";
  std::ofstream(configPath) << busConfig(daemon->directory_, daemon->serviceDirectory_);
  // The daemon prints its address on its standard output: our pipe.
  daemon->process_ =
      ChildProcess::start({"/usr/bin/dbus-daemon", "--config-file=" + configPath, "--nofork", "--print-address=1"});
  std::optional<std::string> address =
      daemon->process_ ? daemon->process_->readLine(std::chrono::seconds(10)) : std::nullopt;
  if (!address || address->empty()) return nullptr;
  daemon->address_ = *address;
  return daemon;
}

BusDaemon::~BusDaemon() {
  process_.reset();
  if (!directory_.empty()) {
    keepFilesForFuzzSeeds(directory_);
    std::error_code ignored;
    std::filesystem::remove_all(directory_, ignored);
  }
}

void BusDaemon::installService(const std::string& name, const std::vector<std::string>& argv) {
  std::string exec;
  for (const std::string& a : argv) {
    if (!exec.empty()) exec += ' ';
    exec += a;
  }
  std::ofstream(serviceDirectory_ + "/" + name + ".service")
      << "[D-BUS Service]\nName=" << name << "\nExec=" << exec << "\n";
}

// ---------------------------------------------------------------------------

PrivateBus& PrivateBus::instance() {
  if (gBus == nullptr) {
    auto* bus = new PrivateBus();
    bus->startDaemon();
    gBus = bus;
    gStarted.store(true);
  }
  return *gBus;
}

bool PrivateBus::started() { return gStarted.load(); }

void PrivateBus::startDaemon() {
  daemon_ = BusDaemon::start();
  if (!daemon_) {
    std::fprintf(stderr, "PrivateBus: dbus-daemon did not start\n");
    std::abort();
  }
  ::setenv("DBUS_SESSION_BUS_ADDRESS", daemon_->address().c_str(), 1);
  ::unsetenv("DBUS_STARTER_ADDRESS");
  ::unsetenv("DBUS_STARTER_BUS_TYPE");
}

void PrivateBus::restart() {
  daemon_.reset();
  startDaemon();
}

void PrivateBus::stop() { daemon_.reset(); }

std::string responderPath() { return VELMORA_RESPONDER_PATH; }

const std::string& childSanitizerReportDirectory() { return gChildReports.directory(); }

std::unique_ptr<ChildProcess> startResponder(const std::string& name, const std::vector<std::string>& arguments,
                                             const std::string& busAddress) {
  const std::string address = busAddress.empty() ? PrivateBus::instance().address() : busAddress;
  std::vector<std::string> argv{responderPath(), "--name", name};
  argv.insert(argv.end(), arguments.begin(), arguments.end());
  auto child = ChildProcess::start(argv, {"DBUS_SESSION_BUS_ADDRESS=" + address});
  if (!child) {
    ADD_FAILURE() << "cannot start " << argv[0];
    return nullptr;
  }
  std::optional<std::string> line = child->readLine(std::chrono::seconds(10));
  if (!line || line->rfind("ready", 0) != 0) {
    ADD_FAILURE() << "responder for " << name << " did not get ready (got '" << line.value_or("<nothing>") << "')";
    return nullptr;
  }
  return child;
}

std::string uniqueBusName(const std::string& prefix) {
  static std::atomic<int> counter{0};
  return prefix + ".p" + std::to_string(::getpid()) + "n" + std::to_string(counter.fetch_add(1));
}

std::vector<ResponderArrival> readTimeline(const std::string& path) {
  std::vector<ResponderArrival> arrivals;
  std::optional<std::string> text = readFile(path);
  if (!text) return arrivals;
  std::size_t begin = 0;
  // A line still being written has no newline yet: it is left for later.
  for (std::size_t end = text->find('\n'); end != std::string::npos; end = text->find('\n', begin)) {
    std::istringstream line(text->substr(begin, end - begin));
    begin = end + 1;
    long long nanoseconds = 0;
    ResponderArrival arrival;
    if (!(line >> nanoseconds >> arrival.message >> arrival.bundleIdentifier >> arrival.storeIdentifier)) continue;
    arrival.at = std::chrono::steady_clock::time_point(std::chrono::nanoseconds(nanoseconds));
    arrivals.push_back(std::move(arrival));
  }
  return arrivals;
}

std::vector<PropertyList> readRecordedRequests(const std::string& directory) {
  std::vector<PropertyList> requests;
  for (int n = 1;; ++n) {
    std::optional<std::string> bytes = readFile(directory + "/request-" + std::to_string(n) + ".bplist");
    if (!bytes) break;
    requests.push_back(decodeBinaryPlist(
        std::span(reinterpret_cast<const std::uint8_t*>(bytes->data()), bytes->size())));
  }
  return requests;
}

bool waitUntil(const std::function<bool()>& condition, std::chrono::milliseconds timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  while (!condition()) {
    if (std::chrono::steady_clock::now() >= deadline) return condition();
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return true;
}

}  // namespace velmora::testing
