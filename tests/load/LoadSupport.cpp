// The load driver's and fault tests' device parts. See LoadSupport.h.
#include "LoadSupport.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/wait.h>
#include <systemd/sd-bus.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <sstream>
#include <string_view>
#include <thread>

#include "velmora/platform/PlistCodec.h"
#include "zkv/ZKVEncoding.h"

extern char** environ;

namespace velmora::load {
namespace {

std::string errnoText(const std::string& what) { return what + ": " + std::strerror(errno); }

bool mountRefused(int error) { return error == EPERM || error == EACCES; }

}  // namespace

std::int64_t monotonicNanos() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<std::int64_t>(now.tv_sec) * 1'000'000'000 + now.tv_nsec;
}

// ---------------------------------------------------------------------------
// Child processes.

std::unique_ptr<Child> Child::start(const std::vector<std::string>& argv, const Options& options,
                                    std::string* error) {
  if (argv.empty()) {
    *error = "nothing to run";
    return nullptr;
  }
  // Everything the child needs is made before fork: after it, only
  // async-signal-safe calls are allowed.
  std::vector<char*> args;
  for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
  args.push_back(nullptr);
  std::vector<std::string> envStrings;
  for (char** e = environ; *e != nullptr; ++e) {
    std::string_view entry(*e);
    bool replaced = false;
    for (const std::string& extra : options.extraEnvironment) {
      std::string_view name = std::string_view(extra).substr(0, extra.find('=') + 1);
      replaced = replaced || entry.substr(0, name.size()) == name;
    }
    if (!replaced) envStrings.emplace_back(entry);
  }
  for (const std::string& e : options.extraEnvironment) envStrings.push_back(e);
  std::vector<char*> env;
  for (const std::string& e : envStrings) env.push_back(const_cast<char*>(e.c_str()));
  env.push_back(nullptr);

  int out[2] = {-1, -1};
  int in[2] = {-1, -1};
  if (::pipe2(out, O_CLOEXEC) != 0 || (options.pipeStdin && ::pipe2(in, O_CLOEXEC) != 0)) {
    *error = errnoText("pipe");
    for (int fd : {out[0], out[1], in[0], in[1]}) {
      if (fd >= 0) ::close(fd);
    }
    return nullptr;
  }
  const int errFd = options.stderrPath.empty()
                        ? -1
                        : ::open(options.stderrPath.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
  const int nullFd = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
  const pid_t parent = ::getpid();
  const pid_t pid = ::fork();
  if (pid < 0) {
    *error = errnoText("fork");
    for (int fd : {out[0], out[1], in[0], in[1], errFd, nullFd}) {
      if (fd >= 0) ::close(fd);
    }
    return nullptr;
  }
  if (pid == 0) {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (::getppid() != parent) ::_exit(126);  // the parent is already gone
    ::dup2(options.pipeStdin ? in[0] : nullFd, STDIN_FILENO);
    ::dup2(out[1], STDOUT_FILENO);
    if (errFd >= 0) ::dup2(errFd, STDERR_FILENO);
    ::execve(args[0], args.data(), env.data());
    ::_exit(127);
  }
  ::close(out[1]);
  if (in[0] >= 0) ::close(in[0]);
  if (errFd >= 0) ::close(errFd);
  if (nullFd >= 0) ::close(nullFd);
  std::unique_ptr<Child> child(new Child());
  child->pid_ = pid;
  child->stdoutFd_ = out[0];
  child->stdinFd_ = in[1];
  return child;
}

Child::~Child() {
  closeStdin();
  if (pid_ > 0) {
    ::kill(pid_, SIGKILL);
    int status = 0;
    ::waitpid(pid_, &status, 0);
  }
  if (stdoutFd_ >= 0) ::close(stdoutFd_);
}

bool Child::running() { return pid_ > 0 && !waitForExit(std::chrono::milliseconds(0)); }

std::optional<std::string> Child::readLine(std::chrono::milliseconds timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  for (;;) {
    if (auto newline = buffered_.find('\n'); newline != std::string::npos) {
      std::string line = buffered_.substr(0, newline);
      buffered_.erase(0, newline + 1);
      return line;
    }
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    if (left.count() < 0) return std::nullopt;
    pollfd pfd{stdoutFd_, POLLIN, 0};
    const int r = ::poll(&pfd, 1, static_cast<int>(left.count()));
    if (r < 0 && errno == EINTR) continue;
    if (r <= 0) return std::nullopt;
    char chunk[512];
    const ssize_t n = ::read(stdoutFd_, chunk, sizeof chunk);
    if (n <= 0) return std::nullopt;
    buffered_.append(chunk, static_cast<std::size_t>(n));
  }
}

bool Child::writeLine(const std::string& line) {
  if (stdinFd_ < 0) return false;
  const std::string text = line + "\n";
  // A child that died leaves a broken pipe: the write fails (SIGPIPE is
  // ignored by the driver and the tests' harness alike).
  return ::write(stdinFd_, text.data(), text.size()) == static_cast<ssize_t>(text.size());
}

void Child::closeStdin() {
  if (stdinFd_ >= 0) ::close(stdinFd_);
  stdinFd_ = -1;
}

void Child::signal(int sig) {
  if (pid_ > 0) ::kill(pid_, sig);
}

std::optional<int> Child::waitForExit(std::chrono::milliseconds timeout) {
  if (pid_ <= 0) return status_;
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  for (;;) {
    int status = 0;
    if (::waitpid(pid_, &status, WNOHANG) == pid_) {
      pid_ = -1;
      status_ = status;
      return status;
    }
    if (std::chrono::steady_clock::now() >= deadline) return std::nullopt;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
}

std::string describeStatus(int status) {
  if (WIFEXITED(status)) return "exited " + std::to_string(WEXITSTATUS(status));
  if (WIFSIGNALED(status)) return "killed by signal " + std::to_string(WTERMSIG(status));
  return "status " + std::to_string(status);
}

// ---------------------------------------------------------------------------
// The session bus.

std::unique_ptr<SessionBus> SessionBus::start(const std::string& directory, std::vector<std::string> environment,
                                              std::string* error) {
  std::unique_ptr<SessionBus> bus(new SessionBus());
  bus->directory_ = directory;
  bus->address_ = "unix:path=" + bus->socketPath();
  bus->environment_ = std::move(environment);
  // Activated services reach the bus through this variable too.
  bus->environment_.push_back("DBUS_SESSION_BUS_ADDRESS=" + bus->address_);
  std::error_code ec;
  std::filesystem::create_directories(bus->serviceDirectory(), ec);
  if (ec) {
    *error = "cannot make " + bus->serviceDirectory() + ": " + ec.message();
    return nullptr;
  }
  std::ofstream(directory + "/bus.conf")
      << "<!DOCTYPE busconfig PUBLIC \"-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN\"\n"
         " \"http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd\">\n"
         "<busconfig>\n"
         "  <type>session</type>\n"
         "  <keep_umask/>\n"
         "  <listen>unix:path="
      << bus->socketPath()
      << "</listen>\n"
         "  <auth>EXTERNAL</auth>\n"
         "  <servicedir>"
      << bus->serviceDirectory()
      << "</servicedir>\n"
         "  <policy context=\"default\">\n"
         "    <allow send_destination=\"*\" eavesdrop=\"true\"/>\n"
         "    <allow eavesdrop=\"true\"/>\n"
         "    <allow own=\"*\"/>\n"
         "  </policy>\n"
         "</busconfig>\n";
  if (!bus->launch(error)) return nullptr;
  return bus;
}

bool SessionBus::launch(std::string* error) {
  Child::Options options;
  options.extraEnvironment = environment_;
  options.stderrPath = directory_ + "/dbus-daemon.log";
  process_ = Child::start({"/usr/bin/dbus-daemon", "--config-file=" + directory_ + "/bus.conf", "--nofork",
                           "--print-address=1"},
                          options, error);
  if (!process_) return false;
  // It prints its address once it listens.
  std::optional<std::string> line = process_->readLine(std::chrono::seconds(10));
  if (!line || line->rfind("unix:path=" + socketPath(), 0) != 0) {
    *error = "dbus-daemon did not come up (said '" + line.value_or("") + "'; see " + options.stderrPath + ")";
    process_.reset();
    return false;
  }
  return true;
}

SessionBus::~SessionBus() { kill(); }

bool SessionBus::installServiceFile(const std::string& path, std::string* error) {
  std::error_code ec;
  std::filesystem::copy_file(path, serviceDirectory() + "/" + std::filesystem::path(path).filename().string(),
                             std::filesystem::copy_options::overwrite_existing, ec);
  if (ec) *error = "cannot install " + path + ": " + ec.message();
  return !ec;
}

void SessionBus::kill() { process_.reset(); }  // the child's destructor kills and reaps

bool SessionBus::restart(std::string* error) {
  kill();
  return launch(error);  // the daemon replaces the stale socket file itself
}

pid_t busNameOwnerPid(const std::string& address, const std::string& name) {
  sd_bus* bus = nullptr;
  int r = sd_bus_new(&bus);
  if (r >= 0) r = sd_bus_set_address(bus, address.c_str());
  if (r >= 0) r = sd_bus_set_bus_client(bus, 1);
  if (r >= 0) r = sd_bus_start(bus);
  std::uint32_t pid = 0;
  if (r >= 0) {
    sd_bus_message* reply = nullptr;
    if (sd_bus_call_method(bus, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
                           "GetConnectionUnixProcessID", nullptr, &reply, "s", name.c_str()) >= 0) {
      (void)sd_bus_message_read(reply, "u", &pid);
    }
    sd_bus_message_unref(reply);
  }
  sd_bus_flush_close_unref(bus);
  return static_cast<pid_t>(pid);
}

// ---------------------------------------------------------------------------
// The sync server and the route to it.

bool SyncServerProcess::start(std::string* error) {
  kill();
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  for (;;) {
    std::vector<std::string> argv{binary_, "serve", "--listen", "127.0.0.1:" + std::to_string(port_)};
    argv.insert(argv.end(), storage_.begin(), storage_.end());
    Child::Options options;
    options.stderrPath = logPath_;
    process_ = Child::start(argv, options, error);
    if (!process_) return false;
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    const std::optional<std::string> line = process_->readLine(std::max(left, std::chrono::milliseconds(1000)));
    const std::string prefix = "listening on 127.0.0.1:";
    if (line && line->rfind(prefix, 0) == 0) {
      port_ = std::stoi(line->substr(prefix.size()));
      return true;
    }
    // Gone without listening: after a kill the port may take a moment to be
    // let go. Anything else is reported once the time is up.
    kill();
    if (std::chrono::steady_clock::now() >= deadline) {
      *error = "velmora-server did not come up (said '" + line.value_or("") + "'; see " + logPath_ + ")";
      return false;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
  }
}

void SyncServerProcess::kill() {
  if (!process_) return;
  process_->signal(SIGKILL);
  (void)process_->waitForExit(std::chrono::seconds(10));
  process_.reset();
}

void SyncServerProcess::stop() {
  if (!process_) return;
  process_->signal(SIGTERM);
  if (!process_->waitForExit(std::chrono::seconds(10))) kill();
  process_.reset();
}

std::string SyncServerProcess::addAccount(const std::string& name, std::string* error) {
  std::vector<std::string> argv{binary_, "account", "add", name};
  argv.insert(argv.end(), storage_.begin(), storage_.end());
  Child::Options options;
  options.stderrPath = logPath_;
  std::unique_ptr<Child> tool = Child::start(argv, options, error);
  if (!tool) return {};
  const std::optional<std::string> token = tool->readLine(std::chrono::seconds(15));
  const std::optional<int> status = tool->waitForExit(std::chrono::seconds(15));
  if (!token || token->empty() || !status || !WIFEXITED(*status) || WEXITSTATUS(*status) != 0) {
    *error = "velmora-server account add gave no token (see " + logPath_ + ")";
    return {};
  }
  return *token;
}

namespace {

// Closes a socket with a reset instead of an orderly close.
void resetAndClose(int fd) {
  linger hard{1, 0};
  (void)::setsockopt(fd, SOL_SOCKET, SO_LINGER, &hard, sizeof hard);
  ::close(fd);
}

void noDelay(int fd) {
  int on = 1;
  (void)::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
}

// A connected non-blocking socket to 127.0.0.1:port; -1 when refused.
int connectLoopback(int port) {
  const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return -1;
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<std::uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
    ::close(fd);
    return -1;
  }
  noDelay(fd);
  ::fcntl(fd, F_SETFL, ::fcntl(fd, F_GETFL) | O_NONBLOCK);
  return fd;
}

// One relayed connection: fd[0] the client's, fd[1] the server's; out[i]
// the bytes read from the other side, still to be written to fd[i].
struct Relayed {
  int fd[2];
  std::string out[2];
};

}  // namespace

struct PausableProxy::Shared {
  enum class Mode { Relay, Hold, Drop };
  std::mutex mutex;          // leaf
  Mode mode = Mode::Relay;   // guarded by mutex
  bool stopping = false;     // guarded by mutex
  std::uint64_t resets = 0;  // guarded by mutex
  int wakeFd = -1;           // an eventfd; immutable until the relay thread is joined
  int listenFd = -1;         // used by the relay thread only
  int targetPort = 0;        // immutable

  void wake() const {
    const std::uint64_t one = 1;
    (void)!::write(wakeFd, &one, sizeof one);
  }
};

namespace {

// The relay thread: one poll loop over the listening socket, the wake-up
// descriptor and every relayed connection.
void relayLoop(const std::shared_ptr<PausableProxy::Shared>& shared);

}  // namespace

std::unique_ptr<PausableProxy> PausableProxy::start(int targetPort, std::string* error) {
  auto shared = std::make_shared<Shared>();
  shared->targetPort = targetPort;
  shared->listenFd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  shared->wakeFd = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  if (shared->listenFd < 0 || shared->wakeFd < 0 ||
      ::bind(shared->listenFd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
      ::listen(shared->listenFd, 128) != 0 ||
      ::getsockname(shared->listenFd, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
    *error = errnoText("proxy socket");
    if (shared->listenFd >= 0) ::close(shared->listenFd);
    if (shared->wakeFd >= 0) ::close(shared->wakeFd);
    return nullptr;
  }
  std::unique_ptr<PausableProxy> proxy(new PausableProxy());
  proxy->port_ = ntohs(address.sin_port);
  proxy->shared_ = shared;
  proxy->relay_ = std::thread([shared] { relayLoop(shared); });
  return proxy;
}

PausableProxy::~PausableProxy() {
  {
    std::lock_guard lock(shared_->mutex);
    shared_->stopping = true;
  }
  shared_->wake();
  if (relay_.joinable()) relay_.join();
  ::close(shared_->listenFd);
  ::close(shared_->wakeFd);
}

void PausableProxy::cut(Cut how) {
  {
    std::lock_guard lock(shared_->mutex);
    shared_->mode = how == Cut::Hold ? Shared::Mode::Hold : Shared::Mode::Drop;
  }
  shared_->wake();
}

void PausableProxy::resume() {
  {
    std::lock_guard lock(shared_->mutex);
    shared_->mode = Shared::Mode::Relay;
  }
  shared_->wake();
}

std::uint64_t PausableProxy::connectionsReset() const {
  std::lock_guard lock(shared_->mutex);
  return shared_->resets;
}

namespace {

void relayLoop(const std::shared_ptr<PausableProxy::Shared>& shared) {
  using Mode = PausableProxy::Shared::Mode;
  std::vector<Relayed> connections;
  std::vector<char> chunk(64 * 1024);
  // Writes what waits for side i; false when the socket failed.
  auto flush = [](Relayed& c, int i) {
    while (!c.out[i].empty()) {
      const ssize_t n = ::send(c.fd[i], c.out[i].data(), c.out[i].size(), MSG_NOSIGNAL);
      if (n > 0) {
        c.out[i].erase(0, static_cast<std::size_t>(n));
        continue;
      }
      return n < 0 && (errno == EAGAIN || errno == EINTR);
    }
    return true;
  };
  for (;;) {
    Mode mode;
    {
      std::lock_guard lock(shared->mutex);
      if (shared->stopping) break;
      mode = shared->mode;
      if (mode == Mode::Drop) shared->resets += connections.size();
    }
    if (mode == Mode::Drop) {
      for (Relayed& c : connections) {
        resetAndClose(c.fd[0]);
        resetAndClose(c.fd[1]);
      }
      connections.clear();
    }
    std::vector<pollfd> fds{{shared->wakeFd, POLLIN, 0}};
    // Held: the listening socket is left alone too, so new connections wait
    // in its queue.
    if (mode != Mode::Hold) fds.push_back({shared->listenFd, POLLIN, 0});
    const std::size_t base = fds.size();
    const std::size_t polled = mode == Mode::Relay ? connections.size() : 0;
    for (std::size_t k = 0; k < polled; ++k) {
      for (int i = 0; i < 2; ++i) {
        short events = 0;
        if (connections[k].out[1 - i].empty()) events |= POLLIN;  // read only what the other side took
        if (!connections[k].out[i].empty()) events |= POLLOUT;
        fds.push_back({connections[k].fd[i], events, 0});
      }
    }
    if (::poll(fds.data(), fds.size(), 1000) < 0) {
      if (errno == EINTR) continue;
      break;
    }
    if ((fds[0].revents & POLLIN) != 0) {
      std::uint64_t count = 0;
      (void)!::read(shared->wakeFd, &count, sizeof count);
    }
    std::vector<bool> dead(polled, false);
    for (std::size_t k = 0; k < polled; ++k) {
      Relayed& c = connections[k];
      for (int i = 0; i < 2 && !dead[k]; ++i) {
        const short revents = fds[base + 2 * k + static_cast<std::size_t>(i)].revents;
        if ((revents & POLLOUT) != 0 && !flush(c, i)) dead[k] = true;
        if ((revents & (POLLIN | POLLHUP | POLLERR)) != 0 && !dead[k]) {
          const ssize_t n = ::recv(c.fd[i], chunk.data(), chunk.size(), 0);
          if (n > 0) {
            c.out[1 - i].append(chunk.data(), static_cast<std::size_t>(n));
            if (!flush(c, 1 - i)) dead[k] = true;
          } else if (n == 0 || (errno != EAGAIN && errno != EINTR)) {
            dead[k] = true;  // one side closed or failed: the other goes too
          }
        }
      }
    }
    for (std::size_t k = polled; k-- > 0;) {
      if (!dead[k]) continue;
      (void)flush(connections[k], 0);
      (void)flush(connections[k], 1);
      ::close(connections[k].fd[0]);
      ::close(connections[k].fd[1]);
      connections.erase(connections.begin() + static_cast<std::ptrdiff_t>(k));
    }
    if (mode != Mode::Hold && (fds[1].revents & POLLIN) != 0) {
      const int client = ::accept4(shared->listenFd, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
      if (client >= 0 && mode == Mode::Drop) {
        resetAndClose(client);
        std::lock_guard lock(shared->mutex);
        ++shared->resets;
      } else if (client >= 0) {
        noDelay(client);
        const int server = connectLoopback(shared->targetPort);
        if (server < 0) {
          resetAndClose(client);  // the server is down: refused, as it would be
        } else {
          connections.push_back({{client, server}, {}});
        }
      }
    }
  }
  for (Relayed& c : connections) {
    ::close(c.fd[0]);
    ::close(c.fd[1]);
  }
}

}  // namespace

std::uint64_t residentBytes(pid_t pid) {
  std::ifstream status("/proc/" + std::to_string(pid) + "/status");
  std::string line;
  while (std::getline(status, line)) {
    if (line.rfind("VmRSS:", 0) == 0) {
      std::istringstream fields(line.substr(6));
      std::uint64_t kib = 0;
      fields >> kib;
      return kib * 1024;
    }
  }
  return 0;
}

// ---------------------------------------------------------------------------
// Store-directory faults.

std::unique_ptr<ReadOnlyDirectory> ReadOnlyDirectory::make(const std::string& directory, std::string* error,
                                                           bool* notPermitted) {
  *notPermitted = false;
  std::unique_ptr<ReadOnlyDirectory> fault(new ReadOnlyDirectory());
  fault->directory_ = directory;
  if (::geteuid() == 0) {
    // Root writes through permission bits: only a read-only mount stops it.
    if (::mount(directory.c_str(), directory.c_str(), nullptr, MS_BIND, nullptr) != 0) {
      *notPermitted = mountRefused(errno);
      *error = errnoText("bind mount " + directory);
      return nullptr;
    }
    fault->mounted_ = true;
    // The kernel refuses (EBUSY) while a file there is open for writing: the
    // daemon's writes are short, so one of the next tries falls between two.
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    int r = 0;
    while ((r = ::mount(nullptr, directory.c_str(), nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr)) != 0 &&
           errno == EBUSY && std::chrono::steady_clock::now() < deadline) {
      std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
    if (r != 0) {
      *notPermitted = mountRefused(errno);
      *error = errnoText("remount read-only " + directory);
      return nullptr;  // the destructor takes the bind mount away
    }
    return fault;
  }
  struct stat info{};
  if (::stat(directory.c_str(), &info) != 0) {
    *error = errnoText("stat " + directory);
    return nullptr;
  }
  fault->oldMode_ = info.st_mode & 07777;
  if (::chmod(directory.c_str(), fault->oldMode_ & ~mode_t{0222}) != 0) {
    *error = errnoText("chmod " + directory);
    return nullptr;
  }
  fault->chmodded_ = true;
  return fault;
}

ReadOnlyDirectory::~ReadOnlyDirectory() {
  std::string ignored;
  (void)restore(&ignored);
}

bool ReadOnlyDirectory::restore(std::string* error) {
  if (mounted_) {
    if (::umount2(directory_.c_str(), MNT_DETACH) != 0) {
      *error = errnoText("unmount " + directory_);
      return false;
    }
    mounted_ = false;
  }
  if (chmodded_) {
    if (::chmod(directory_.c_str(), oldMode_) != 0) {
      *error = errnoText("chmod " + directory_);
      return false;
    }
    chmodded_ = false;
  }
  return true;
}

std::unique_ptr<SmallFilesystem> SmallFilesystem::mount(const std::string& directory, std::uint64_t bytes,
                                                        std::string* error, bool* notPermitted) {
  *notPermitted = false;
  std::error_code ec;
  std::filesystem::create_directories(directory, ec);
  const std::string options = "size=" + std::to_string(bytes) + ",mode=0700";
  if (::mount("velmora-load", directory.c_str(), "tmpfs", MS_NOSUID | MS_NODEV, options.c_str()) != 0) {
    *notPermitted = mountRefused(errno);
    *error = errnoText("mount tmpfs on " + directory);
    return nullptr;
  }
  std::unique_ptr<SmallFilesystem> fs(new SmallFilesystem());
  fs->directory_ = directory;
  // A name the daemon never takes for a store or a temporary of one.
  fs->filler_ = directory + "/filler.load";
  return fs;
}

SmallFilesystem::~SmallFilesystem() {
  release();
  (void)::umount2(directory_.c_str(), MNT_DETACH);
}

bool SmallFilesystem::fill(std::string* error) {
  const int fd = ::open(filler_.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
  if (fd < 0) {
    *error = errnoText("open " + filler_);
    return false;
  }
  static const std::vector<char> block(64 * 1024, 'x');
  bool ok = true;
  std::size_t size = block.size();
  // Down to single bytes, so that not even a small write fits afterwards.
  while (size > 0) {
    const ssize_t n = ::write(fd, block.data(), size);
    if (n >= 0) continue;
    if (errno == EINTR) continue;
    if (errno != ENOSPC) {
      *error = errnoText("write " + filler_);
      ok = false;
      break;
    }
    size /= 2;
  }
  ::close(fd);
  return ok;
}

void SmallFilesystem::release() {
  if (!filler_.empty()) ::unlink(filler_.c_str());
}

std::uint64_t SmallFilesystem::freeBytes() const {
  struct statvfs info{};
  if (::statvfs(directory_.c_str(), &info) != 0) return 0;
  return static_cast<std::uint64_t>(info.f_bavail) * info.f_frsize;
}

// ---------------------------------------------------------------------------
// Store files.

std::optional<StoreFile> readStoreFile(const std::string& path, std::string* error) {
  const PropertyList file = velmora::readPlistFile(path);
  if (!file.isDictionary()) {
    std::error_code ec;
    *error = std::filesystem::exists(path, ec) ? path + " is not a property-list dictionary" : path + " is missing";
    return std::nullopt;
  }
  StoreFile store;
  if (const PropertyList* count = file.find("changecount")) (void)count->getInt64(store.changeCount);
  const PropertyList* values = file.find("values");
  if (values == nullptr) return store;  // no value written yet
  const PlistDictionary* records = values->getDictionary();
  if (records == nullptr) {
    *error = path + ": \"values\" is not a dictionary";
    return std::nullopt;
  }
  for (const auto& [key, record] : *records) {
    std::int64_t timestamp = 0;
    if (const PropertyList* value = ZKVGetPropertyListAndTimestampFromStorage(record, &timestamp)) {
      store.values.emplace(key, *value);
    } else {
      store.badRecords.push_back(key);
    }
  }
  return store;
}

std::vector<std::string> strayFiles(const std::string& directory) {
  std::vector<std::string> stray;
  std::error_code ec;
  for (const auto& item : std::filesystem::directory_iterator(directory, ec)) {
    const std::string name = item.path().filename().string();
    // Stores, their lock files (".<store>.plist.lock", kept on purpose) and the filler.
    const bool lockFile = name.starts_with('.') && name.ends_with(".plist.lock");
    // The file a write just replaced, which the daemon unlinks after its reply.
    const bool replaced = name.size() > 13 && name.compare(name.size() - 13, 8, ".plist.r") == 0;
    if (item.path().extension() != ".plist" && !lockFile && !replaced && name != "filler.load") stray.push_back(name);
  }
  std::sort(stray.begin(), stray.end());
  return stray;
}

double percentile(std::vector<double>& values, double p) {
  if (values.empty()) return 0.0;
  std::sort(values.begin(), values.end());
  const double rank = std::ceil(p * static_cast<double>(values.size()));
  const std::size_t index = rank < 1.0 ? 0 : static_cast<std::size_t>(rank) - 1;
  return values[std::min(index, values.size() - 1)];
}

}  // namespace velmora::load
