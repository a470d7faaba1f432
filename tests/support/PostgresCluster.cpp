// PostgresCluster (see PostgresCluster.h for the design note).
#include "PostgresCluster.h"

#include <libpq-fe.h>
#include <pwd.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <map>
#include <thread>
#include <vector>

#include "PrivateBus.h"

namespace velmora::testing {
namespace {

constexpr int kPort = 5432;  // names the socket file only: there is no TCP listener
constexpr const char* kSuperuser = "velmora";

// Whether a child's wait status (nullopt: still running) is a clean exit.
bool exitedCleanly(std::optional<int> status) { return status && WIFEXITED(*status) && WEXITSTATUS(*status) == 0; }

}  // namespace

std::optional<std::string> PostgresCluster::binDirectory() {
  if (const char* bin = getenv("VELMORA_PG_BINDIR"); bin != nullptr && *bin != '\0') return std::string(bin);
  std::error_code ignored;
  std::map<int, std::string> found;  // by version
  for (const auto& entry : std::filesystem::directory_iterator("/usr/lib/postgresql", ignored)) {
    const std::filesystem::path bin = entry.path() / "bin";
    if (std::filesystem::exists(bin / "initdb", ignored) && std::filesystem::exists(bin / "postgres", ignored)) {
      found[std::atoi(entry.path().filename().c_str())] = bin.string();
    }
  }
  return found.empty() ? std::nullopt : std::optional(found.rbegin()->second);
}

std::unique_ptr<PostgresCluster> PostgresCluster::start(std::string* error) {
  auto fail = [error](std::string why) -> std::unique_ptr<PostgresCluster> {
    *error = std::move(why);
    return nullptr;
  };
  std::optional<std::string> bin = binDirectory();
  if (!bin) return fail("no PostgreSQL server binaries");
  std::unique_ptr<PostgresCluster> cluster(new PostgresCluster());
  cluster->binDirectory_ = *bin;
  // Under /tmp: the system user must reach it, and the socket path must stay short.
  cluster->directory_ = "/tmp/velmora-pg-XXXXXX";
  if (mkdtemp(cluster->directory_.data()) == nullptr) return fail(std::string("mkdtemp: ") + std::strerror(errno));
  if (geteuid() == 0) {
    const passwd* user = getpwnam("postgres");
    if (user == nullptr) user = getpwnam("nobody");
    if (user == nullptr || chown(cluster->directory_.c_str(), user->pw_uid, user->pw_gid) != 0) {
      return fail("running as root, and cannot give the cluster to a postgres or nobody user");
    }
    cluster->dropPrivileges_ = true;
    cluster->runUid_ = user->pw_uid;
    cluster->runGid_ = user->pw_gid;
  }
  chmod(cluster->directory_.c_str(), 0755);  // the socket's directory: root and the test user connect
  auto initdb = cluster->spawn({cluster->binDirectory_ + "/initdb", "-D", cluster->directory_ + "/data", "-U",
                                kSuperuser, "--auth=trust", "-E", "UTF8", "--locale=C", "--no-sync"});
  if (!initdb || !exitedCleanly(initdb->waitForExit(std::chrono::minutes(2)))) {
    return fail("initdb failed:\n" + cluster->logTail());
  }
  return cluster->launch(error) ? std::move(cluster) : nullptr;
}

PostgresCluster* PostgresCluster::shared(std::string* error) {
  static std::string failure;  // start() sets it only when it fails
  static const std::unique_ptr<PostgresCluster> cluster = start(&failure);
  if (!cluster) *error = failure;
  return cluster.get();
}

// Starts argv as runUid_/runGid_ when dropping privileges (the change of
// user clears the parent-death signal: setpriv sets SIGQUIT, an immediate
// shutdown, after it), its output appended to the log.
std::unique_ptr<ChildProcess> PostgresCluster::spawn(const std::vector<std::string>& argv) const {
  std::vector<std::string> wrapped{"/bin/sh", "-c", "exec \"$@\" >>\"$0\" 2>&1 </dev/null",
                                   directory_ + "/postgres.log", "/usr/bin/setpriv", "--pdeathsig=SIGQUIT"};
  if (dropPrivileges_) {
    wrapped.insert(wrapped.end(), {"--reuid=" + std::to_string(runUid_), "--regid=" + std::to_string(runGid_),
                                   "--clear-groups"});
  }
  wrapped.push_back("--");
  wrapped.insert(wrapped.end(), argv.begin(), argv.end());
  return ChildProcess::start(wrapped);
}

bool PostgresCluster::launch(std::string* error) {
  server_ = spawn({binDirectory_ + "/postgres", "-D", directory_ + "/data", "-k", directory_, "-p",
                std::to_string(kPort), "-c", "listen_addresses=", "-c", "fsync=off", "-c", "synchronous_commit=off",
                "-c", "full_page_writes=off", "-c", "max_connections=200", "-c", "shared_buffers=16MB"});
  const std::string target = conninfo();
  bool exited = !server_;  // (or never started)
  auto ready = [&] {
    exited = exited || server_->waitForExit(std::chrono::milliseconds(0)).has_value();
    return exited || PQping(target.c_str()) == PQPING_OK;
  };
  if (waitUntil(ready, std::chrono::seconds(30)) && !exited) return true;
  *error = std::string(exited ? "postgres exited at start:\n" : "postgres not ready within 30 s:\n") + logTail();
  server_.reset();
  return false;
}

PostgresCluster::~PostgresCluster() {
  if (server_) server_->signal(SIGQUIT);
  if (server_) server_->waitForExit(std::chrono::seconds(30));
  server_.reset();
  std::error_code ignored;
  if (!directory_.empty()) std::filesystem::remove_all(directory_, ignored);
}

std::string PostgresCluster::conninfo(const std::string& database) const {
  return "host=" + directory_ + " port=" + std::to_string(kPort) + " user=" + kSuperuser + " dbname=" + database;
}

std::string PostgresCluster::createDatabase(std::string* error) {
  const std::string name = "test_" + std::to_string(getpid()) + "_" + std::to_string(++databases_);
  auto tool = ChildProcess::start({binDirectory_ + "/createdb", "-h", directory_, "-p", std::to_string(kPort), "-U",
                                   kSuperuser, "-E", "UTF8", "-T", "template0", name});
  if (tool && exitedCleanly(tool->waitForExit(std::chrono::seconds(30)))) return conninfo(name);
  *error = "createdb " + name + " failed (its message is on standard error)";
  return {};
}

bool PostgresCluster::pause(std::string* error) {
  if (!server_) return true;
  server_->signal(SIGINT);  // fast shutdown
  const bool clean = exitedCleanly(server_->waitForExit(std::chrono::seconds(60)));
  server_.reset();
  if (!clean) *error = "postgres did not stop cleanly:\n" + logTail();
  return clean;
}

bool PostgresCluster::resume(std::string* error) { return server_ || launch(error); }

std::string PostgresCluster::logTail() const {
  const std::string log = readFile(directory_ + "/postgres.log").value_or("");
  return log.substr(log.size() > 4096 ? log.size() - 4096 : 0);
}

}  // namespace velmora::testing
