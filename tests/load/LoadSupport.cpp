// The load driver's and fault tests' device parts. See LoadSupport.h.
#include "LoadSupport.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <filesystem>
#include <fstream>

#include "velmora/platform/PlistCodec.h"
#include "zkv/ZKVEncoding.h"

namespace velmora::load {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

std::unique_ptr<ChildProcess> spawn(const std::vector<std::string>& argv,
                                    const std::vector<std::string>& extraEnvironment, const std::string& log) {
  std::vector<std::string> wrapped{"/bin/sh", "-c", "exec \"$@\" 2>>\"$0\"", log};
  wrapped.insert(wrapped.end(), argv.begin(), argv.end());
  return ChildProcess::start(log.empty() ? argv : wrapped, extraEnvironment);
}

std::vector<pid_t> processesWith(const std::string& entry, const std::string& comm) {
  std::vector<pid_t> found;
  std::error_code ec;
  for (const auto& process : fs::directory_iterator("/proc", ec)) {
    const std::string pid = process.path().filename().string();
    std::string name, item;
    if (pid.find_first_not_of("0123456789") != std::string::npos ||
        (!comm.empty() && (!std::getline(std::ifstream(process.path() / "comm"), name) || name != comm))) {
      continue;
    }
    std::ifstream environment(process.path() / "environ"), arguments(process.path() / "cmdline");
    bool match = false;
    while (!match && (std::getline(environment, item, '\0') || std::getline(arguments, item, '\0'))) {
      match = item == entry;
    }
    if (match) found.push_back(std::stoi(pid));
  }
  std::sort(found.begin(), found.end());
  return found;
}

// ---------------------------------------------------------------------------
// Devices.

std::unique_ptr<Device> Device::start(const std::string& directory, const std::string& serviceFile,
                                      std::string* error) {
  auto device = std::make_unique<Device>();
  device->directory = directory;
  device->home = directory + "/home";
  device->storeDirectory = device->home + "/Library/Quellstore";
  device->address = "unix:path=" + directory + "/bus";
  const std::string services = directory + "/share/dbus-1/services/";
  std::error_code ec;
  fs::create_directories(device->storeDirectory, ec);
  fs::create_directories(services, ec);
  fs::copy_file(serviceFile, services + fs::path(serviceFile).filename().string(), ec);
  if (ec || ::chmod(device->storeDirectory.c_str(), 0700) != 0) {
    *error = "cannot set up " + directory + ": " + ec.message();
    return nullptr;
  }
  return device->startBus(error) ? std::move(device) : nullptr;
}

std::vector<std::string> Device::environment() const {
  return {"HOME=" + home, "XDG_CONFIG_HOME=" + home + "/.config", "XDG_DATA_HOME=" + directory + "/share",
          "DBUS_SESSION_BUS_ADDRESS=" + address};
}

bool Device::startBus(std::string* error) {
  // The daemon replaces a stale socket file itself, and prints its address once it listens.
  bus_ = spawn({"/usr/bin/dbus-daemon", "--session", "--address=" + address, "--nofork", "--print-address=1"},
               environment(), directory + "/dbus-daemon.log");
  const std::optional<std::string> line = bus_ ? bus_->readLine(10s) : std::nullopt;
  if (line && line->starts_with(address)) return true;
  *error = "dbus-daemon did not come up (said '" + line.value_or("") + "'; see " + directory + "/dbus-daemon.log)";
  bus_.reset();
  return false;
}

pid_t Device::daemonPid() const {
  const std::vector<pid_t> daemons = processesWith("HOME=" + home, "velmorad");
  return daemons.empty() ? 0 : daemons.back();
}

void Device::stopDaemon() const {
  // The bus daemon's child, so it is reaped there: gone means no /proc entry.
  if (const pid_t pid = daemonPid(); pid > 0) {
    ::kill(pid, SIGTERM);
    for (int i = 0; i < 200 && fs::exists("/proc/" + std::to_string(pid)); ++i) std::this_thread::sleep_for(50ms);
  }
}

// ---------------------------------------------------------------------------
// Store-directory faults.

int setReadOnly(const std::string& directory, bool on) {
  const char* path = directory.c_str();
  if (::geteuid() != 0) return ::chmod(path, on ? 0500 : 0700) == 0 ? 0 : errno;
  if (!on) return ::umount2(path, MNT_DETACH) == 0 ? 0 : errno;
  // Root writes through permission bits: only a read-only mount stops it.
  if (::mount(path, path, nullptr, MS_BIND, nullptr) != 0) return errno;
  // The kernel refuses (EBUSY) while a file there is open for writing: the
  // daemon's writes are short, so one of the next tries falls between two.
  const auto deadline = std::chrono::steady_clock::now() + 5s;
  while (::mount(nullptr, path, nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr) != 0) {
    const int error = errno;
    if (error != EBUSY || std::chrono::steady_clock::now() > deadline) return ::umount2(path, MNT_DETACH), error;
    std::this_thread::sleep_for(200us);
  }
  return 0;
}

int mountSmallDisk(const std::string& directory, std::uint64_t bytes) {
  const std::string options = "size=" + std::to_string(bytes) + ",mode=0700";
  return ::mount("velmora-load", directory.c_str(), "tmpfs", MS_NOSUID | MS_NODEV, options.c_str()) == 0 ? 0 : errno;
}

bool fillDisk(const std::string& directory, bool full) {
  const std::string filler = directory + "/filler.load";  // a name the daemon never takes
  if (!full) return ::unlink(filler.c_str()) == 0;
  const int fd = ::open(filler.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
  static const std::vector<char> block(64 * 1024, 'x');
  // Down to single bytes, so that not even a small write fits afterwards.
  for (std::size_t size = block.size(); fd >= 0 && size > 0;) {
    if (::write(fd, block.data(), size) >= 0 || errno == EINTR) continue;
    if (errno != ENOSPC) break;
    size /= 2;
  }
  const bool filled = fd >= 0 && errno == ENOSPC;
  if (fd >= 0) ::close(fd);
  return filled;
}

// ---------------------------------------------------------------------------
// The route to the server.

namespace {

sockaddr_in loopback(int port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<std::uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return address;
}

// Makes the next close of fd a reset instead of an orderly close.
void abortOnClose(int fd) {
  linger hard{1, 0};
  (void)::setsockopt(fd, SOL_SOCKET, SO_LINGER, &hard, sizeof hard);
}

}  // namespace

std::unique_ptr<PausableProxy> PausableProxy::start(int targetPort) {
  auto proxy = std::make_unique<PausableProxy>();
  proxy->targetPort_ = targetPort;
  proxy->listenFd_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address = loopback(0);
  socklen_t length = sizeof address;
  if (proxy->listenFd_ < 0 || ::bind(proxy->listenFd_, reinterpret_cast<sockaddr*>(&address), length) != 0 ||
      ::listen(proxy->listenFd_, 128) != 0 ||
      ::getsockname(proxy->listenFd_, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
    return nullptr;  // the destructor closes the socket
  }
  proxy->port_ = ntohs(address.sin_port);
  proxy->thread_ = std::thread([p = proxy.get()] { p->relay(); });
  return proxy;
}

PausableProxy::~PausableProxy() {
  stopping_ = true;
  if (thread_.joinable()) thread_.join();
  if (listenFd_ >= 0) ::close(listenFd_);
}

void PausableProxy::relay() {
  std::vector<std::array<int, 2>> links;  // {client, server} of each relayed connection
  // Closes link i, reset (no lingering) when dropped.
  auto close = [&](std::size_t i, bool reset) {
    for (int fd : links[i]) {
      if (reset) abortOnClose(fd);
      ::close(fd);
    }
    links.erase(links.begin() + static_cast<std::ptrdiff_t>(i));
    resets_ += reset ? 1 : 0;
  };
  std::vector<char> chunk(64 * 1024);
  while (!stopping_) {
    const Cut mode = mode_;
    while (mode == Cut::Drop && !links.empty()) close(links.size() - 1, true);
    // Held: nothing is read or accepted, so bytes and new connections wait in the kernel's queues.
    std::vector<pollfd> fds{{listenFd_, POLLIN, 0}};
    for (const auto& link : links) fds.push_back({link[0], POLLIN, 0}), fds.push_back({link[1], POLLIN, 0});
    if (mode == Cut::Hold || ::poll(fds.data(), fds.size(), 20) <= 0) {
      if (mode == Cut::Hold) std::this_thread::sleep_for(10ms);
      continue;
    }
    // Last to first, so that closing a link leaves the earlier indices alone.
    for (std::size_t i = links.size(); i-- > 0;) {
      for (int side : {0, 1}) {
        if (fds[1 + 2 * i + side].revents == 0) continue;
        const ssize_t n = ::recv(links[i][side], chunk.data(), chunk.size(), 0);
        // One side closed or failed: the other goes too.
        if (n <= 0 || ::send(links[i][1 - side], chunk.data(), static_cast<std::size_t>(n), MSG_NOSIGNAL) != n) {
          close(i, false);
          break;
        }
      }
    }
    if (fds[0].revents == 0) continue;
    const int client = ::accept4(listenFd_, nullptr, nullptr, SOCK_CLOEXEC);
    const int server = client < 0 || mode == Cut::Drop ? -1 : ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const sockaddr_in target = loopback(targetPort_);
    if (server >= 0 && ::connect(server, reinterpret_cast<const sockaddr*>(&target), sizeof target) == 0) {
      links.push_back({client, server});
      continue;
    }
    // Dropped, or the server is down: refused, as it would be.
    resets_ += client >= 0 && mode == Cut::Drop ? 1 : 0;
    if (client >= 0) abortOnClose(client), ::close(client);
    if (server >= 0) ::close(server);
  }
  while (!links.empty()) close(links.size() - 1, false);
}

// ---------------------------------------------------------------------------
// Store files.

std::optional<PlistDictionary> storeValues(const std::string& path) {
  const PropertyList file = velmora::readPlistFile(path);
  const PropertyList* values = file.find("values");
  if (!file.isDictionary() || (values != nullptr && !values->isDictionary())) return std::nullopt;
  PlistDictionary decoded;
  if (values == nullptr) return decoded;  // nothing written yet
  for (const auto& [key, record] : *values->getDictionary()) {
    std::int64_t timestamp = 0;
    const PropertyList* value = ZKVGetPropertyListAndTimestampFromStorage(record, &timestamp);
    decoded.emplace(key, value != nullptr ? *value : PropertyList());
  }
  return decoded;
}

std::vector<std::string> strayFiles(const std::string& directory) {
  std::vector<std::string> stray;
  std::error_code ec;
  for (const auto& item : fs::directory_iterator(directory, ec)) {
    const std::string name = item.path().filename().string();
    // Lock files (".<store>.plist.lock") are kept on purpose; the file a
    // write just replaced is unlinked by the daemon after its reply.
    const bool lockFile = name.starts_with('.') && name.ends_with(".plist.lock");
    const bool replaced = name.size() > 13 && name.compare(name.size() - 13, 8, ".plist.r") == 0;
    if (!name.ends_with(".plist") && !lockFile && !replaced && name != "filler.load") stray.push_back(name);
  }
  std::sort(stray.begin(), stray.end());
  return stray;
}

}  // namespace velmora::load
