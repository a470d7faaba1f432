// The built velmora-server as devices meet it: its command line, tokens
// and watch limits, TLS off loopback, a restart under an open watch, and two nodes over one
// PostgreSQL waking each other's watchers and surviving its outage.
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <map>
#include <regex>

#include "PostgresCluster.h"
#include "PrivateBus.h"  // ChildProcess, waitUntil
#include "ScratchEnvironment.h"
#include "Accounts.h"
#include "ServerTestSupport.h"

namespace velmora::server {
namespace {

using namespace std::chrono_literals;
using testing::OpenWatch;
using testing::openWatch;
using testing::pushOf;
using testing::TokenClient;
using testing::valueRecord;
using velmora::testing::ChildProcess;
namespace pb = ::velmora::sync::v1;

const std::string kServer = std::string(VELMORA_BINARY_DIR) + "/server/velmora-server";

// Timestamps near the real clock: the server refuses the far future.
std::int64_t now() {
  return static_cast<std::int64_t>(std::chrono::duration_cast<std::chrono::seconds>(
                                       std::chrono::system_clock::now().time_since_epoch())
                                       .count()) -
         978307200;
}

// Runs velmora-server with args to the end; its exit status and first line of output.
std::pair<int, std::string> runToEnd(const std::vector<std::string>& args) {
  std::vector<std::string> argv = {kServer};
  argv.insert(argv.end(), args.begin(), args.end());
  std::unique_ptr<ChildProcess> child = ChildProcess::start(argv);
  if (!child) return {-1, ""};
  std::string line = child->readLine(10s).value_or("");
  std::optional<int> status = child->waitForExit(10s);
  if (!status || !WIFEXITED(*status)) return {-1, line};
  return {WEXITSTATUS(*status), line};
}

// A new account's token, or "" (after a test failure).
std::string addAccount(const std::string& name, const std::vector<std::string>& storage) {
  std::vector<std::string> args = {"account", "add", name};
  args.insert(args.end(), storage.begin(), storage.end());
  auto [status, token] = runToEnd(args);
  EXPECT_EQ(status, 0);
  EXPECT_TRUE(std::regex_match(token, std::regex("[A-Za-z0-9_-]{43}"))) << token;
  return token;
}

// A running server node.
struct RunningServer {
  std::unique_ptr<ChildProcess> process;
  std::string address;  // HOST:PORT it reported
  int port = 0;
};

// Starts "velmora-server serve --listen listen <extra>" and waits for its
// "listening on" line; process null (after a test failure) when it does not come.
RunningServer serve(const std::string& listen, const std::vector<std::string>& extra) {
  std::vector<std::string> argv = {kServer, "serve", "--listen", listen};
  argv.insert(argv.end(), extra.begin(), extra.end());
  RunningServer server;
  server.process = ChildProcess::start(argv);
  if (!server.process) {
    ADD_FAILURE() << "cannot start " << kServer;
    return server;
  }
  std::optional<std::string> line = server.process->readLine(20s);
  std::smatch match;
  if (!line || !std::regex_match(*line, match, std::regex("listening on (.*):([0-9]+)"))) {
    ADD_FAILURE() << "no \"listening on\" line, got: " << line.value_or("(nothing)");
    server.process.reset();
    return server;
  }
  server.port = std::stoi(match[2]);
  server.address = match[1].str() + ":" + match[2].str();
  return server;
}

// Sends SIGTERM and expects a clean exit.
void stopCleanly(RunningServer& server) {
  server.process->signal(SIGTERM);
  std::optional<int> status = server.process->waitForExit(15s);
  ASSERT_TRUE(status) << "the server did not stop";
  EXPECT_TRUE(WIFEXITED(*status) && WEXITSTATUS(*status) == 0) << "wait status " << *status;
}

TEST(VelmoraServerTest, CommandLineRefusesWhatItCannotServeSafely) {
  velmora::testing::ScratchDirectory directory("velmora-server-cli");
  const std::string db = directory.file("sync.sqlite");
  // Plaintext off loopback, and malformed command lines: exit 2 before serving.
  const std::vector<std::vector<std::string>> refused = {
      {"serve", "--listen", "0.0.0.0:0", "--sqlite", db},
      {"serve", "--listen", "[::]:0", "--sqlite", db},
      {"serve", "--listen", "192.168.1.2:80", "--sqlite", db},
      {"serve", "--listen", "127.0.0.1:70000", "--sqlite", db},
      {"serve", "--listen", "[::1:0", "--sqlite", db},
      {"serve", "--sqlite", db},
      {"serve", "--listen", "127.0.0.1:0", "--sqlite", db, "--postgres", "dbname=x"},
      {"serve", "--listen", "127.0.0.1:0", "--sqlite", db, "--max-key-count", "0"},
      {"serve", "--listen", "127.0.0.1:0", "--sqlite", db, "--tls-cert", db},
      {"serve", "--listen", "127.0.0.1:0", "--sqlite", db, "--max-stores", "0"},
      {"serve", "--listen", "127.0.0.1:0", "--sqlite", db, "--keep-deletions", "1d"},
      {"frobnicate"},
      {"account", "add", "--sqlite", db},
      {"account", "token", "--sqlite", db},
  };
  for (const auto& args : refused) {
    auto [status, line] = runToEnd(args);
    EXPECT_EQ(status, 2) << args[0] << " " << (args.size() > 2 ? args[2] : "");
    EXPECT_EQ(line.find("listening"), std::string::npos);
  }
  const std::string token = addAccount("alice", {"--sqlite", db});
  EXPECT_EQ(runToEnd({"account", "add", "alice", "--sqlite", db}).first, 1) << "a second alice";
  EXPECT_EQ(runToEnd({"account", "token", "nobody", "--sqlite", db}).first, 1);
  // Limits that let one record outgrow a pull page are refused.
  EXPECT_EQ(runToEnd({"serve", "--listen", "127.0.0.1:0", "--sqlite", db, "--max-key-data-len", "4194304"}).first, 1);
}

// Every call needs its account's token, checked before the message is read;
// a token replaced by the command line ends its watches, which are capped
// per account.
TEST(VelmoraServerTest, TokensGateEveryCallAndAReplacedOneEndsItsWatches) {
  velmora::testing::ScratchDirectory directory("velmora-server-tokens");
  const std::vector<std::string> storage = {"--sqlite", directory.file("sync.sqlite")};
  const std::string token = addAccount("alice", storage);
  const std::string bobToken = addAccount("bob", storage);
  EXPECT_NE(bobToken, token);
  RunningServer server = serve("127.0.0.1:0", {storage[0], storage[1], "--max-key-count", "7", "--max-watches", "3"});
  ASSERT_TRUE(server.process);

  // (authorization metadata or none, expected code) for every method. The
  // stored hash is SHA-256 of the token, and is no token itself.
  EXPECT_EQ(hashToken("abc"), "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
  const grpc::StatusCode refused = grpc::StatusCode::UNAUTHENTICATED;
  const std::vector<std::pair<std::optional<std::string>, grpc::StatusCode>> cases = {
      {std::nullopt, refused},           {"Bearer not-a-token", refused},       {"Basic " + token, refused},
      {"Bearer ", refused},              {"Bearer " + token + " x", refused},   {"Bearer" + token, refused},
      {"Bearer " + hashToken(token), refused}, {"bearer " + token, grpc::StatusCode::OK},
  };
  TokenClient anonymous = TokenClient::plaintext(server.address, "");
  for (const auto& testCase : cases) {
    const std::optional<std::string>& authorization = testCase.first;  // a lambda cannot capture a binding
    const grpc::StatusCode expected = testCase.second;
    SCOPED_TRACE(authorization.value_or("(none)"));
    auto context = [&] {
      auto c = anonymous.context();
      if (authorization) c->AddMetadata("authorization", *authorization);
      return c;
    };
    pb::PushReply pushReply;
    EXPECT_EQ(anonymous.stub().Push(context().get(), pushOf("app", "dev", {}), &pushReply).error_code(), expected);
    pb::PullRequest pullRequest;
    pullRequest.set_store("app");
    pb::PullReply pullReply;
    EXPECT_EQ(anonymous.stub().Pull(context().get(), pullRequest, &pullReply).error_code(), expected);
    pb::ListStoresReply listReply;
    EXPECT_EQ(anonymous.stub().ListStores(context().get(), {}, &listReply).error_code(), expected);
    pb::StoreLimits limits;
    EXPECT_EQ(anonymous.stub().GetLimits(context().get(), {}, &limits).error_code(), expected);
    if (expected == grpc::StatusCode::OK) {
      EXPECT_EQ(limits.max_key_count(), 7);
      EXPECT_EQ(limits.max_key_data_sum(), 1048576);
      continue;
    }
    auto watchContext = context();
    auto reader = anonymous.stub().Watch(watchContext.get(), {});
    pb::WatchNotice notice;
    EXPECT_FALSE(reader->Read(&notice));
    EXPECT_EQ(reader->Finish().error_code(), expected);
    // Turned away before its message is read, even one past the size
    // allowed to accounts (which would fail with RESOURCE_EXHAUSTED).
    pb::PushRequest huge = pushOf("app", "dev", {valueRecord("k", std::string(9 << 20, 'h'), now())});
    EXPECT_EQ(anonymous.stub().Push(context().get(), huge, &pushReply).error_code(), expected);
  }

  TokenClient alice = TokenClient::plaintext(server.address, token);
  TokenClient bob = TokenClient::plaintext(server.address, bobToken);
  std::vector<OpenWatch> watches;
  for (int i = 0; i < 3; ++i) {
    watches.push_back(openWatch(alice, "dev"));
    ASSERT_TRUE(watches.back().next());
  }
  OpenWatch over = openWatch(alice, "dev");
  EXPECT_FALSE(over.next());
  EXPECT_EQ(over.reader->Finish().error_code(), grpc::StatusCode::RESOURCE_EXHAUSTED);
  OpenWatch bobs = openWatch(bob, "dev");
  ASSERT_TRUE(bobs.next());
  // bob's writes, even to a store of the same name, are not alice's business.
  pb::PushReply reply;
  ASSERT_TRUE(bob.push(pushOf("s1", "bob-dev", {valueRecord("k", "bob", now())}), &reply).ok());
  ASSERT_TRUE(alice.push(pushOf("s1", "dev-a", {valueRecord("a", "v", now())}), &reply).ok());
  for (OpenWatch& watch : watches) {
    std::optional<pb::WatchNotice> change = watch.next();
    ASSERT_TRUE(change);
    EXPECT_EQ(change->origin_device(), "dev-a");
  }
  EXPECT_EQ(bobs.next()->origin_device(), "bob-dev");

  // The old token's watches end and its calls fail; the new one works until revoked.
  auto [status, fresh] = runToEnd({"account", "token", "alice", storage[0], storage[1]});
  EXPECT_EQ(status, 0);
  EXPECT_TRUE(std::regex_match(fresh, std::regex("[A-Za-z0-9_-]{43}"))) << fresh;
  for (OpenWatch& watch : watches) {
    EXPECT_FALSE(watch.next());
    EXPECT_EQ(watch.reader->Finish().error_code(), grpc::StatusCode::UNAUTHENTICATED);
  }
  EXPECT_EQ(alice.push(pushOf("app", "dev", {}), &reply).error_code(), grpc::StatusCode::UNAUTHENTICATED);
  TokenClient renewed = TokenClient::plaintext(server.address, fresh);
  EXPECT_TRUE(renewed.push(pushOf("app", "dev", {}), &reply).ok());
  EXPECT_EQ(runToEnd({"account", "revoke", "alice", storage[0], storage[1]}), std::make_pair(0, std::string()));
  EXPECT_EQ(renewed.push(pushOf("app", "dev", {}), &reply).error_code(), grpc::StatusCode::UNAUTHENTICATED);
  ASSERT_TRUE(bob.push(pushOf("app", "dev", {valueRecord("k", "v", now())}), &reply).ok());
  EXPECT_TRUE(bobs.next()) << "another account's watch ended";
  bobs.context->TryCancel();
  stopCleanly(server);
}

TEST(VelmoraServerTest, ServesTlsOffLoopbackWithTheGivenCertificate) {
  if (access("/usr/bin/openssl", X_OK) != 0) GTEST_SKIP() << "no openssl command to make a certificate";
  velmora::testing::ScratchDirectory directory("velmora-server-tls");
  const std::string cert = directory.file("cert.pem");
  const std::string key = directory.file("key.pem");
  const std::string make = "/usr/bin/openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes"
                           " -keyout " + key + " -out " + cert +
                           " -days 2 -subj /CN=localhost -addext subjectAltName=DNS:localhost 2>/dev/null";
  ASSERT_EQ(std::system(make.c_str()), 0);
  const std::string db = directory.file("sync.sqlite");
  const std::string token = addAccount("alice", {"--sqlite", db});

  RunningServer server = serve("0.0.0.0:0", {"--sqlite", db, "--tls-cert", cert, "--tls-key", key});
  ASSERT_TRUE(server.process);
  // By address, with the certificate's name checked: resolving "localhost"
  // would bring in the DNS resolver, which leaks at exit.
  const std::string target = "127.0.0.1:" + std::to_string(server.port);
  grpc::SslCredentialsOptions ssl;
  ssl.pem_root_certs = velmora::testing::readFile(cert).value_or("");
  grpc::ChannelArguments args;
  args.SetSslTargetNameOverride("localhost");
  TokenClient secure(grpc::CreateCustomChannel(target, grpc::SslCredentials(ssl), args), token);
  pb::PushReply reply;
  grpc::Status status = secure.push(pushOf("app", "dev", {valueRecord("k", "v", now())}), &reply);
  EXPECT_TRUE(status.ok()) << status.error_message();

  TokenClient plain = TokenClient::plaintext(target, token);
  EXPECT_FALSE(plain.push(pushOf("app", "dev", {valueRecord("k", "v", now())}), &reply).ok());
  stopCleanly(server);
}

TEST(VelmoraServerTest, AWatchingDeviceSurvivesAServerRestart) {
  velmora::testing::ScratchDirectory directory("velmora-server-restart");
  const std::string db = directory.file("sync.sqlite");
  const std::string token = addAccount("alice", {"--sqlite", db});
  RunningServer server = serve("127.0.0.1:0", {"--sqlite", db});
  ASSERT_TRUE(server.process);

  TokenClient device = TokenClient::plaintext(server.address, token);
  pb::PushReply reply;
  const pb::Record k1 = valueRecord("k1", "v", now());
  ASSERT_TRUE(device.push(pushOf("app", "dev-a", {k1}), &reply).ok());
  OpenWatch watch = openWatch(device, "dev-b", 60s);
  ASSERT_TRUE(watch.next());

  stopCleanly(server);
  EXPECT_FALSE(watch.next());
  EXPECT_EQ(watch.reader->Finish().error_code(), grpc::StatusCode::UNAVAILABLE);

  // Back on the same port: the same channel reconnects, and nothing was lost.
  RunningServer again = serve("127.0.0.1:" + std::to_string(server.port), {"--sqlite", db});
  ASSERT_TRUE(again.process);
  OpenWatch rewatch = openWatch(device, "dev-b", 60s);
  rewatch.context->set_wait_for_ready(true);
  std::optional<pb::WatchNotice> first = rewatch.next();
  ASSERT_TRUE(first) << rewatch.reader->Finish().error_message();
  EXPECT_EQ(first->revision(), 1);
  // A retried push writes nothing and wakes nobody: the next notice is k2's.
  ASSERT_TRUE(device.push(pushOf("app", "dev-a", {k1}), &reply).ok());
  ASSERT_TRUE(device.push(pushOf("app", "dev-a", {valueRecord("k2", "v", now())}), &reply).ok());
  std::optional<pb::WatchNotice> change = rewatch.next();
  ASSERT_TRUE(change);
  EXPECT_EQ(change->store(), "app");
  EXPECT_EQ(change->revision(), 2);
  pb::PullReply pulled;
  ASSERT_TRUE(device.pull("app", 0, &pulled).ok());
  EXPECT_EQ(pulled.records_size(), 2);

  // A burst of writes to several stores: each store is reported, the last
  // notice of each carrying its newest revision.
  for (int i = 0; i < 20; ++i) {
    const std::string store = "burst" + std::to_string(i % 3);
    ASSERT_TRUE(device.push(pushOf(store, "dev-a", {valueRecord("k", std::to_string(i), now() + i)}), &reply).ok());
  }
  std::map<std::string, std::int64_t> newest;
  while (newest["burst1"] != reply.revision()) {
    std::optional<pb::WatchNotice> notice = rewatch.next();
    ASSERT_TRUE(notice) << "the watch ended early";
    EXPECT_GT(notice->revision(), newest[notice->store()]) << "notices of a store go backwards";
    newest[notice->store()] = notice->revision();
  }
  EXPECT_EQ(newest.size(), 3u);
  rewatch.context->TryCancel();
  stopCleanly(again);
}

TEST(VelmoraServerTest, TwoNodesOverOnePostgresServeOneAccount) {
  std::string conninfo;
  VELMORA_REQUIRE_POSTGRES(conninfo);
  const std::vector<std::string> storage = {"--postgres", conninfo};
  const std::string token = addAccount("alice", storage);
  RunningServer nodeA = serve("127.0.0.1:0", storage);
  RunningServer nodeB = serve("127.0.0.1:0", storage);
  ASSERT_TRUE(nodeA.process && nodeB.process);
  TokenClient viaA = TokenClient::plaintext(nodeA.address, token);
  TokenClient viaB = TokenClient::plaintext(nodeB.address, token);

  OpenWatch watch = openWatch(viaB, "dev-b", 60s);
  std::optional<pb::WatchNotice> first = watch.next();
  ASSERT_TRUE(first);
  EXPECT_EQ(first->revision(), 0);
  OpenWatch watchA = openWatch(viaA, "dev-a", 60s);
  ASSERT_TRUE(watchA.next());
  pb::PushReply reply;
  ASSERT_TRUE(viaA.push(pushOf("org.example.App", "dev-a", {valueRecord("k", "v", now())}), &reply).ok());
  std::optional<pb::WatchNotice> woken = watch.next();
  ASSERT_TRUE(woken) << "a write through node A did not wake the watcher on node B";
  EXPECT_EQ(woken->store(), "org.example.App");
  EXPECT_EQ(woken->revision(), 1);
  EXPECT_EQ(woken->origin_device(), "dev-a");
  // A node hears the other's writes, and its own only once.
  ASSERT_TRUE(viaB.push(pushOf("org.example.App", "dev-b", {valueRecord("j", "v", now())}), &reply).ok());
  EXPECT_EQ(watch.next().value_or(pb::WatchNotice()).revision(), 2);
  EXPECT_EQ(watchA.next().value_or(pb::WatchNotice()).revision(), 1);
  EXPECT_EQ(watchA.next().value_or(pb::WatchNotice()).revision(), 2) << "node A heard its own write again";

  // The database goes away and comes back: node B may have missed notices,
  // so its watchers are told to start over; node A reconnects on its next request.
  std::string error;
  velmora::testing::PostgresCluster* cluster = velmora::testing::PostgresCluster::shared(&error);
  ASSERT_TRUE(cluster->pause(&error)) << error;
  ASSERT_TRUE(cluster->resume(&error)) << error;
  EXPECT_FALSE(watch.next());
  EXPECT_EQ(watch.reader->Finish().error_code(), grpc::StatusCode::UNAVAILABLE);
  ASSERT_TRUE(viaA.push(pushOf("org.example.App", "dev-a", {valueRecord("k", "w", now() + 1)}), &reply).ok());
  EXPECT_EQ(reply.results(0).winner().revision(), 3);
  EXPECT_EQ(reply.results(0).status(), pb::PushResult::ACCEPTED);
  watchA.context->TryCancel();
  stopCleanly(nodeA);
  stopCleanly(nodeB);
}

}  // namespace
}  // namespace velmora::server
