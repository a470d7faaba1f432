// PostgresCluster: a private, throwaway PostgreSQL cluster for tests and
// benchmarks, started for real from the installed server binaries.
//
// Design note
// - Where. A fresh directory under /tmp holds the data directory, the log
//   and the socket. The server listens on that Unix socket only (no TCP),
//   with fsync off: nothing here needs to survive a crash. The database
//   superuser is "velmora", trusted without a password on the socket.
// - Who. initdb and postgres refuse to run as root, so when the test runs as
//   root (CI) both run as the "postgres" system user (else "nobody"), which
//   is given the directory; as any other user they run as that user. Root
//   still reaches the socket; nothing else in the test changes user.
// - Lifetime. postgres runs in the foreground as a child of the thread that
//   started it, with a parent-death signal (SIGQUIT, immediate shutdown), so
//   no cluster outlives a crashed test; start it from the test's main
//   thread. The destructor stops it and removes the directory.
// - Cost. initdb and start take about half a second; a fresh database for
//   each test (createDatabase) takes a few tens of milliseconds. ctest runs
//   each test in its own process, so share() starts one cluster per process.
//
// Typical use in a test:
//
//   std::string conninfo;
//   VELMORA_REQUIRE_POSTGRES(conninfo);   // skips without PostgreSQL, fails when it cannot start
//   auto storage = openPostgresStorage(conninfo, &error);
//
// Not thread-safe: use a cluster from one thread at a time (the servers
// that connect to it may of course be anywhere).
#pragma once

#include <sys/types.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace velmora::testing {

class ChildProcess;

class PostgresCluster {
 public:
  // The directory of the installed server binaries (initdb, postgres):
  // $VELMORA_PG_BINDIR when set, else the highest version under
  // /usr/lib/postgresql/*/bin. nullopt when there is none.
  static std::optional<std::string> binDirectory();

  // Creates and starts a new cluster; nullptr with *error set (including the
  // end of the server's log) when initdb or the server fails or the server
  // is not ready within 30 s. Blocks.
  static std::unique_ptr<PostgresCluster> start(std::string* error);

  // The process's shared cluster, started on first call and stopped at
  // exit; nullptr with *error set when it cannot start (the error is kept,
  // so later calls fail the same way at once). Blocks on the first call.
  static PostgresCluster* shared(std::string* error);

  ~PostgresCluster();
  PostgresCluster(const PostgresCluster&) = delete;
  PostgresCluster& operator=(const PostgresCluster&) = delete;

  // A libpq connection string for database on this cluster's socket
  // ("host=DIR port=5432 user=velmora dbname=DATABASE").
  std::string conninfo(const std::string& database = "postgres") const;

  // Creates a new, empty database (UTF8) with a unique name and returns its
  // connection string; empty with *error set on failure. Blocks.
  std::string createDatabase(std::string* error);

  // Stops the server (fast shutdown: clients are disconnected), keeping the
  // data; start it again with resume(). Both return false (with *error set)
  // on failure. Block until done (resume: until ready).
  bool pause(std::string* error);
  bool resume(std::string* error);

 private:
  PostgresCluster() = default;
  std::unique_ptr<ChildProcess> spawn(const std::vector<std::string>& argv) const;
  bool launch(std::string* error);
  std::string logTail() const;  // the last 4 KiB of the log

  std::string binDirectory_;  // where initdb and postgres are
  std::string directory_;     // the scratch directory, removed on destruction
  uid_t runUid_ = 0;          // the user the server runs as
  gid_t runGid_ = 0;
  bool dropPrivileges_ = false;  // running as root: switch to runUid_/runGid_
  std::unique_ptr<ChildProcess> server_;  // the postmaster, null when stopped
  int databases_ = 0;            // databases made by createDatabase
};

}  // namespace velmora::testing

// In a gtest body: sets conninfoVar to a fresh database on the shared
// cluster; skips the test when no PostgreSQL is installed and fails it when
// the cluster or database cannot be made.
#define VELMORA_REQUIRE_POSTGRES(conninfoVar)                                               \
  do {                                                                                     \
    if (!::velmora::testing::PostgresCluster::binDirectory()) GTEST_SKIP() << "no PostgreSQL (install postgresql)"; \
    std::string velmoraPgError_;                                                           \
    auto* velmoraPgCluster_ = ::velmora::testing::PostgresCluster::shared(&velmoraPgError_); \
    conninfoVar = velmoraPgCluster_ ? velmoraPgCluster_->createDatabase(&velmoraPgError_) : ""; \
    ASSERT_FALSE(conninfoVar.empty()) << velmoraPgError_;                                  \
  } while (false)
