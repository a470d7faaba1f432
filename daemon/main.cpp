// velmorad: the per-user store daemon. Runs in the foreground until SIGTERM.
#include <signal.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "Daemon.h"

namespace {

void printUsage(std::FILE* out) {
  std::fprintf(out,
               "Usage: velmorad [--address BUS-ADDRESS] [--store-idle-seconds N]\n"
               "\n"
               "Serves %s on the session bus (object %s, interface %s)\n"
               "and keeps the application stores under ~/Library/Quellstore.\n"
               "Runs in the foreground; SIGTERM finishes the writes in flight, then exits.\n"
               "\n"
               "  --address ADDR  use the bus at ADDR instead of the session bus\n"
               "  --store-idle-seconds N\n"
               "                  close a store nobody used for N seconds (default 60)\n"
               "  --help          show this text\n",
               velmorad::kServiceName, velmorad::kObjectPath, velmorad::kInterfaceName);
}

}  // namespace

int main(int argc, char** argv) {
  std::string address;
  velmorad::DaemonOptions options;
  for (int i = 1; i < argc; ++i) {
    if (std::strcmp(argv[i], "--help") == 0 || std::strcmp(argv[i], "-h") == 0) {
      printUsage(stdout);
      return 0;
    }
    if (std::strcmp(argv[i], "--address") == 0 && i + 1 < argc) {
      address = argv[++i];
      continue;
    }
    if (std::strcmp(argv[i], "--store-idle-seconds") == 0 && i + 1 < argc) {
      char* end = nullptr;
      const double seconds = std::strtod(argv[++i], &end);
      if (*end == '\0' && seconds > 0 && seconds < 86400) {
        options.storeIdleTime = std::chrono::milliseconds(static_cast<std::int64_t>(seconds * 1000));
        continue;
      }
    }
    std::fprintf(stderr, "velmorad: unknown argument %s\n", argv[i]);
    printUsage(stderr);
    return 2;
  }
  // The change notifications travel on the same bus as the requests: the
  // platform layer opens its own connection to the session bus address.
  if (!address.empty()) setenv("DBUS_SESSION_BUS_ADDRESS", address.c_str(), 1);
  // Blocked before any thread starts, so every thread inherits the mask and
  // only the bus thread's signalfd sees them.
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGTERM);
  sigaddset(&signals, SIGINT);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  signal(SIGPIPE, SIG_IGN);

  velmorad::Daemon daemon(address, {}, options);
  return daemon.run();
}
