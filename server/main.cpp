// velmora-server: the cross-device sync server. "serve" runs a node in the
// foreground until SIGTERM or SIGINT; "account add", "account token" and
// "account revoke" create an account and replace or withdraw its token.
#include <signal.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "Accounts.h"
#include "PostgresStorage.h"
#include "Server.h"
#include "SqliteStorage.h"
#include "velmora/platform/Network.h"

namespace {

using velmora::server::Limits;

void printUsage(std::FILE* out) {
  std::fprintf(out,
               "Usage:\n"
               "  velmora-server serve --listen HOST:PORT (--sqlite PATH | --postgres CONNINFO)\n"
               "                       [--tls-cert FILE --tls-key FILE]\n"
               "                       [--max-key-count N] [--max-key-name-len N]\n"
               "                       [--max-key-data-len N] [--max-key-data-sum N]\n"
               "                       [--max-stores N] [--max-watches N] [--keep-deletions DAYS]\n"
               "  velmora-server account (add | token | revoke) NAME (--sqlite PATH | --postgres CONNINFO)\n"
               "\n"
               "serve      serves devices on HOST:PORT (port 0 picks a free one) and prints\n"
               "           \"listening on HOST:PORT\" once ready. Plaintext only on a loopback\n"
               "           host; any other host needs --tls-cert and --tls-key (PEM files).\n"
               "           The limits apply to every store (defaults 1024 keys, 64-byte key\n"
               "           names, 1048576 bytes per value and in all; a value and its key\n"
               "           must fit in 3 MiB). An account holds at most --max-stores stores\n"
               "           (default 256) and --max-watches open watches on this node (default\n"
               "           64); deletion records are kept --keep-deletions days (default 30),\n"
               "           and at most max-key-count per store. SIGTERM or SIGINT ends the\n"
               "           watches, finishes the requests in flight and exits.\n"
               "account add  creates the account NAME and prints its token; only a hash of\n"
               "           the token is kept, so it cannot be shown again.\n"
               "account token  gives NAME a new token and prints it; the old one stops\n"
               "           working at once, and its open watches end within a second.\n"
               "account revoke  withdraws NAME's token (as account token, printing none).\n"
               "\n"
               "--sqlite PATH      keep everything in the SQLite file PATH (one node)\n"
               "--postgres CONNINFO  keep everything in PostgreSQL (a libpq connection\n"
               "                   string); any number of nodes may share it\n");
}

int usageError(const std::string& message) {
  std::fprintf(stderr, "velmora-server: %s\n", message.c_str());
  printUsage(stderr);
  return 2;
}

// The options after the command words: "--name value" pairs; false (with
// *error) for an unknown name or a missing value.
bool parseOptions(const std::vector<std::string>& args, const std::vector<std::string>& known,
                  std::map<std::string, std::string>* options, std::string* error) {
  for (std::size_t i = 0; i < args.size(); i += 2) {
    if (std::find(known.begin(), known.end(), args[i]) == known.end()) {
      *error = "unknown argument " + args[i];
      return false;
    }
    if (i + 1 == args.size()) {
      *error = args[i] + " needs a value";
      return false;
    }
    (*options)[args[i]] = args[i + 1];
  }
  return true;
}

std::unique_ptr<velmora::server::Storage> openStorage(const std::map<std::string, std::string>& options,
                                                      std::string* error) {
  if (options.contains("--sqlite")) return velmora::server::openSqliteStorage(options.at("--sqlite"), error);
  return velmora::server::openPostgresStorage(options.at("--postgres"), error);
}

// Exactly one storage option; otherwise a usage message in *error.
bool checkStorageChoice(const std::map<std::string, std::string>& options, std::string* error) {
  if (options.contains("--sqlite") == options.contains("--postgres")) {
    *error = "give exactly one of --sqlite PATH and --postgres CONNINFO";
    return false;
  }
  return true;
}

bool readFile(const std::string& path, std::string* contents) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return false;
  std::ostringstream buffer;
  buffer << in.rdbuf();
  *contents = buffer.str();
  return static_cast<bool>(in) || in.eof();
}

// "account add|token|revoke NAME --sqlite PATH | --postgres CONNINFO".
int account(const std::string& command, const std::vector<std::string>& args) {
  if (args.empty() || args[0].starts_with("--")) return usageError("account " + command + " needs a NAME");
  std::map<std::string, std::string> options;
  std::string error;
  if (!parseOptions({args.begin() + 1, args.end()}, {"--sqlite", "--postgres"}, &options, &error) ||
      !checkStorageChoice(options, &error)) {
    return usageError(error);
  }
  std::unique_ptr<velmora::server::Storage> storage = openStorage(options, &error);
  if (!storage) {
    std::fprintf(stderr, "velmora-server: %s\n", error.c_str());
    return 1;
  }
  velmora::server::Result<std::string> token = std::string();
  if (command == "add") {
    token = velmora::server::addAccount(*storage, args[0]);
  } else if (command == "token") {
    token = velmora::server::replaceToken(*storage, args[0]);
  } else if (velmora::server::Result<velmora::server::Done> revoked = velmora::server::revokeToken(*storage, args[0]);
             !revoked) {
    token = velmora::server::Result<std::string>::failure(revoked.error());
  }
  if (!token) {
    std::fprintf(stderr, "velmora-server: %s\n", token.error().c_str());
    return 1;
  }
  if (command != "revoke") std::printf("%s\n", token.value().c_str());
  return 0;
}

// The value of a numeric option as a positive integer; false when malformed.
bool positiveOption(const std::string& text, std::int64_t* value) {
  auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), *value);
  return ec == std::errc() && end == text.data() + text.size() && *value > 0;
}

int serve(const std::vector<std::string>& args) {
  std::map<std::string, std::string> options;
  std::string error;
  const std::vector<std::string> known = {
      "--listen",           "--sqlite",           "--postgres",          "--tls-cert",   "--tls-key",
      "--max-key-count",    "--max-key-name-len", "--max-key-data-len",  "--max-key-data-sum",
      "--max-stores",       "--max-watches",      "--keep-deletions"};
  if (!parseOptions(args, known, &options, &error) || !checkStorageChoice(options, &error)) return usageError(error);
  if (!options.contains("--listen")) return usageError("serve needs --listen HOST:PORT");

  velmora::server::NodeOptions nodeOptions;
  nodeOptions.listen = options["--listen"];
  const std::pair<const char*, std::int64_t Limits::*> limitOptions[] = {
      {"--max-key-count", &Limits::maxKeyCount},
      {"--max-key-name-len", &Limits::maxKeyNameLen},
      {"--max-key-data-len", &Limits::maxKeyDataLen},
      {"--max-key-data-sum", &Limits::maxKeyDataSum}};
  for (const auto& [name, field] : limitOptions) {
    auto found = options.find(name);
    if (found == options.end()) continue;
    if (!positiveOption(found->second, &(nodeOptions.limits.*field))) {
      return usageError(std::string(name) + " needs a positive integer");
    }
  }
  std::int64_t watches = static_cast<std::int64_t>(nodeOptions.maxWatches);
  std::int64_t days = nodeOptions.deletionRetention / 86400;
  const std::pair<const char*, std::int64_t*> accountOptions[] = {
      {"--max-stores", &nodeOptions.maxStores}, {"--max-watches", &watches}, {"--keep-deletions", &days}};
  for (const auto& [name, field] : accountOptions) {
    auto found = options.find(name);
    if (found != options.end() && !positiveOption(found->second, field)) {
      return usageError(std::string(name) + " needs a positive integer");
    }
  }
  if (days > 36500) return usageError("--keep-deletions is at most 36500 days");
  nodeOptions.maxWatches = static_cast<std::size_t>(watches);
  nodeOptions.deletionRetention = days * 86400;
  const bool hasCert = options.contains("--tls-cert");
  if (hasCert != options.contains("--tls-key")) return usageError("--tls-cert and --tls-key go together");
  std::optional<std::pair<std::string, int>> listen = velmora::server::parseListenAddress(nodeOptions.listen);
  if (!listen) return usageError("malformed --listen " + nodeOptions.listen + " (expected HOST:PORT)");
  if (!hasCert && !velmora::isLoopbackHost(listen->first)) {
    std::fprintf(stderr, "velmora-server: listening on %s needs --tls-cert and --tls-key; plaintext only on loopback\n",
                 listen->first.c_str());
    return 2;
  }
  if (hasCert) {
    if (!readFile(options["--tls-cert"], &nodeOptions.tlsCertificate) || nodeOptions.tlsCertificate.empty()) {
      std::fprintf(stderr, "velmora-server: cannot read %s\n", options["--tls-cert"].c_str());
      return 2;
    }
    if (!readFile(options["--tls-key"], &nodeOptions.tlsKey) || nodeOptions.tlsKey.empty()) {
      std::fprintf(stderr, "velmora-server: cannot read %s\n", options["--tls-key"].c_str());
      return 2;
    }
  }

  std::unique_ptr<velmora::server::Storage> storage = openStorage(options, &error);
  if (!storage) {
    std::fprintf(stderr, "velmora-server: %s\n", error.c_str());
    return 1;
  }
  std::unique_ptr<velmora::server::SyncNode> node = velmora::server::SyncNode::start(*storage, nodeOptions, &error);
  if (!node) {
    std::fprintf(stderr, "velmora-server: %s\n", error.c_str());
    return 1;
  }
  std::printf("listening on %s\n", node->address().c_str());
  std::fflush(stdout);

  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGTERM);
  sigaddset(&signals, SIGINT);
  int received = 0;
  while (sigwait(&signals, &received) != 0) {
  }
  std::fprintf(stderr, "velmora-server: signal %d, shutting down\n", received);
  node->shutdown();
  node.reset();
  storage->close();
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  // Blocked before any thread starts, so every thread inherits the mask and
  // only sigwait() in serve() takes them.
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGTERM);
  sigaddset(&signals, SIGINT);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  signal(SIGPIPE, SIG_IGN);

  std::vector<std::string> args(argv + 1, argv + argc);
  if (args.empty()) return usageError("no command");
  if (args[0] == "--help" || args[0] == "-h" || args[0] == "help") {
    printUsage(stdout);
    return 0;
  }
  if (args[0] == "serve") return serve({args.begin() + 1, args.end()});
  if (args[0] == "account" && args.size() >= 2 && (args[1] == "add" || args[1] == "token" || args[1] == "revoke")) {
    return account(args[1], {args.begin() + 2, args.end()});
  }
  return usageError("unknown command " + args[0]);
}
