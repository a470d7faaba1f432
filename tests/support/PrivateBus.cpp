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
#include <map>
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

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kSanitized = true;
#elif defined(__has_feature)
constexpr bool kSanitized = __has_feature(address_sanitizer) || __has_feature(thread_sanitizer);
#else
constexpr bool kSanitized = false;
#endif

// In a sanitizer build run by scripts/test (which names a directory in
// VELMORA_SANITIZER_LOG_DIR), the children's sanitizer reports (responders,
// the velmorad the bus starts, test processes run as children) go to files
// there, and the script fails the run on any of them: nobody reads a child's
// standard error, and the bus daemon, not the test, sees velmorad's exit
// status. Set before main() runs, so before any thread or child exists; this
// process's own runtime read its options earlier and reports on stderr.
[[maybe_unused]] const bool kChildReportsToFiles = [] {
  const char* logs = std::getenv("VELMORA_SANITIZER_LOG_DIR");
  if (!kSanitized || logs == nullptr || *logs == '\0') return false;
  for (const char* name : {"ASAN_OPTIONS", "LSAN_OPTIONS", "UBSAN_OPTIONS", "TSAN_OPTIONS"}) {
    const char* old = std::getenv(name);
    const std::string value = old != nullptr && *old != '\0' ? std::string(old) + ":" : std::string();
    ::setenv(name, (value + "log_path=" + logs + "/report").c_str(), 1);
  }
  return true;
}();

// Stops the bus after the last test of the run.
class PrivateBusEnvironment final : public ::testing::Environment {
 public:
  void TearDown() override {
    if (gBus != nullptr) gBus->stop();
  }
};

[[maybe_unused]] ::testing::Environment* const kEnvironment =
    ::testing::AddGlobalTestEnvironment(new PrivateBusEnvironment);

std::string busConfig(const std::string& directory) {
  return "<busconfig><type>session</type><keep_umask/><auth>EXTERNAL</auth>\n"
         "<listen>unix:dir=" + directory + "</listen><servicedir>" + directory + "/services</servicedir>\n"
         "<policy context=\"default\"><allow send_destination=\"*\" eavesdrop=\"true\"/>\n"
         "<allow eavesdrop=\"true\"/><allow own=\"*\"/></policy></busconfig>\n";
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
  // "NAME=" -> "NAME=value": extraEnvironment replaces inherited variables of the same name.
  std::map<std::string, std::string> byName;
  auto nameOf = [](std::string_view entry) { return std::string(entry.substr(0, entry.find('=') + 1)); };
  for (char** e = environ; *e != nullptr; ++e) byName.emplace(nameOf(*e), *e);
  for (const std::string& e : extraEnvironment) byName.insert_or_assign(nameOf(e), e);
  std::vector<char*> env;
  for (auto& [name, entry] : byName) env.push_back(entry.data());
  env.push_back(nullptr);
  const pid_t parent = ::getpid();

  const pid_t pid = ::fork();
  if (pid == 0) {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (::getppid() != parent) ::_exit(126);  // the parent is already gone
    ::dup2(out[1], STDOUT_FILENO);
    ::execve(args[0], args.data(), env.data());
    ::_exit(127);
  }
  ::close(out[1]);
  if (pid < 0) ::close(out[0]);
  return pid < 0 ? nullptr : std::unique_ptr<ChildProcess>(new ChildProcess(pid, out[0]));
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
  // A byte at a time, so that nothing past the line is taken from the pipe.
  for (std::string line;;) {
    using std::chrono::duration_cast, std::chrono::milliseconds;
    const auto left = duration_cast<milliseconds>(deadline - std::chrono::steady_clock::now());
    pollfd pfd{stdoutFd_, POLLIN, 0};
    const int ready = left.count() > 0 ? ::poll(&pfd, 1, static_cast<int>(left.count())) : 0;
    char c = 0;
    if (ready < 0 && errno == EINTR) continue;
    if (ready <= 0 || ::read(stdoutFd_, &c, 1) != 1) return std::nullopt;
    if (c == '\n') return line;
    line += c;
  }
}

void ChildProcess::stop(std::unique_ptr<ChildProcess>& child) {
  if (child) child->signal(SIGTERM);
  if (child && !child->waitForExit(std::chrono::seconds(10))) child->signal(SIGKILL);
  child.reset();
}

std::optional<int> ChildProcess::waitForExit(std::chrono::milliseconds timeout) {
  int status = 0;
  if (pid_ <= 0 || !waitUntil([&] { return ::waitpid(pid_, &status, WNOHANG) == pid_; }, timeout)) return std::nullopt;
  pid_ = -1;
  return status;
}

// ---------------------------------------------------------------------------

std::unique_ptr<BusDaemon> BusDaemon::start() {
  auto daemon = std::make_unique<BusDaemon>();
  std::filesystem::create_directory(daemon->directory_.path() / "services");
  const std::string configPath = daemon->directory_.file("bus.conf");
  std::ofstream(configPath) << busConfig(daemon->directory());
  // The daemon prints its address on its standard output: our pipe.
  daemon->process_ =
      ChildProcess::start({"/usr/bin/dbus-daemon", "--config-file=" + configPath, "--nofork", "--print-address=1"});
  daemon->address_ = daemon->process_ ? daemon->process_->readLine(std::chrono::seconds(10)).value_or("") : "";
  return daemon->address_.empty() ? nullptr : std::move(daemon);
}

void BusDaemon::installService(const std::string& name, const std::vector<std::string>& argv) {
  std::ofstream file(directory_.file("services/" + name + ".service"));
  file << "[D-BUS Service]\nName=" << name << "\nExec=";
  for (std::size_t i = 0; i < argv.size(); ++i) file << (i == 0 ? "" : " ") << argv[i];
  file << "\n";
}

// ---------------------------------------------------------------------------

PrivateBus& PrivateBus::instance() {
  if (gBus == nullptr) (gBus = new PrivateBus())->restart();
  return *gBus;
}

void PrivateBus::restart() {
  daemon_.reset();
  daemon_ = BusDaemon::start();
  if (!daemon_) {
    std::fprintf(stderr, "PrivateBus: dbus-daemon did not start\n");
    std::abort();
  }
  ::setenv("DBUS_SESSION_BUS_ADDRESS", daemon_->address().c_str(), 1);
  ::unsetenv("DBUS_STARTER_ADDRESS");
  ::unsetenv("DBUS_STARTER_BUS_TYPE");
}

std::string responderPath() { return VELMORA_RESPONDER_PATH; }

std::unique_ptr<ChildProcess> startResponder(const std::string& name, const std::vector<std::string>& arguments,
                                             const std::string& busAddress) {
  const std::string address = busAddress.empty() ? PrivateBus::instance().address() : busAddress;
  std::vector<std::string> argv{responderPath(), "--name", name};
  argv.insert(argv.end(), arguments.begin(), arguments.end());
  auto child = ChildProcess::start(argv, {"DBUS_SESSION_BUS_ADDRESS=" + address});
  const std::optional<std::string> line = child ? child->readLine(std::chrono::seconds(10)) : std::nullopt;
  if (line && line->starts_with("ready")) return child;
  ADD_FAILURE() << "responder for " << name << " did not get ready (got '" << line.value_or("<nothing>") << "')";
  return nullptr;
}

std::string uniqueBusName(const std::string& prefix) {
  static std::atomic<int> counter{0};
  return prefix + ".p" + std::to_string(::getpid()) + "n" + std::to_string(counter.fetch_add(1));
}

std::vector<ResponderArrival> readTimeline(const std::string& path) {
  std::vector<ResponderArrival> arrivals;
  std::istringstream text(readFile(path).value_or(""));
  // A line still being written has no newline yet: it is left for later.
  for (std::string line; std::getline(text, line) && !text.eof();) {
    std::istringstream fields(line);
    ResponderArrival arrival;
    std::int64_t ns = 0;
    if (!(fields >> ns >> arrival.message >> arrival.bundleIdentifier)) continue;
    arrival.at = std::chrono::steady_clock::time_point(std::chrono::nanoseconds(ns));
    arrivals.push_back(std::move(arrival));
  }
  return arrivals;
}

std::vector<PropertyList> readRecordedRequests(const std::string& directory) {
  std::vector<PropertyList> requests;
  for (int n = 1;; ++n) {
    const std::string path = directory + "/request-" + std::to_string(n) + ".bplist";
    if (!std::filesystem::exists(path)) return requests;
    requests.push_back(readPlistFile(path));
  }
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
