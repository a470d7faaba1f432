// The built velmora-server as devices meet it: its command line, tokens
// and watch limits, TLS off loopback, a restart under an open watch, and two nodes over one
// PostgreSQL waking each other's watchers and surviving its outage.
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <map>
#include <regex>
#include <sstream>

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
  return std::chrono::duration_cast<std::chrono::seconds>(std::chrono::system_clock::now().time_since_epoch()).count() -
         978307200;
}

// Runs velmora-server with args and then more to the end; its exit status and first line of output.
std::pair<int, std::string> runToEnd(const std::vector<std::string>& args, const std::vector<std::string>& more = {}) {
  std::vector<std::string> argv = {kServer};
  argv.insert(argv.end(), args.begin(), args.end());
  argv.insert(argv.end(), more.begin(), more.end());
  std::unique_ptr<ChildProcess> child = ChildProcess::start(argv);
  std::string line = child ? child->readLine(10s).value_or("") : "";
  std::optional<int> status = child ? child->waitForExit(10s) : std::nullopt;
  return {status && WIFEXITED(*status) ? WEXITSTATUS(*status) : -1, line};
}

// The token a successful "account add" or "account token" printed.
std::string newToken(const std::pair<int, std::string>& result) {
  EXPECT_EQ(result.first, 0);
  EXPECT_TRUE(std::regex_match(result.second, std::regex("[A-Za-z0-9_-]{43}"))) << result.second;
  return result.second;
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
  std::unique_ptr<ChildProcess> process = ChildProcess::start(argv);
  std::optional<std::string> line = process ? process->readLine(20s) : std::nullopt;
  std::smatch match;
  if (line && std::regex_match(*line, match, std::regex("listening on (.*):([0-9]+)"))) {
    return {std::move(process), match[1].str() + ":" + match[2].str(), std::stoi(match[2])};
  }
  ADD_FAILURE() << "no \"listening on\" line, got: " << line.value_or("(nothing)");
  return {};
}

// Sends SIGTERM and expects a clean exit.
void stopCleanly(RunningServer& server) {
  server.process->signal(SIGTERM);
  EXPECT_EQ(server.process->waitForExit(15s), std::optional<int>(0)) << "wait status: 0 is a clean exit";
}

// The next notice of watch as text ("" for a first notice of revision 0), or "ended".
std::string nextText(OpenWatch& watch) {
  std::optional<pb::WatchNotice> notice = watch.next();
  return notice ? notice->ShortDebugString() : "ended";
}

// The code watch ends with, expecting no more notices.
grpc::StatusCode endOf(OpenWatch& watch) {
  EXPECT_EQ(nextText(watch), "ended");
  return watch.reader->Finish().error_code();
}

// The command line refuses what it cannot serve safely. Every call needs
// its account's token, checked before the message is read; a token replaced
// by the command line ends its watches, which are capped per account.
TEST(VelmoraServerTest, CommandLineAndTokensGateEveryCallAndAReplacedTokenEndsItsWatches) {
  velmora::testing::ScratchDirectory directory("velmora-server-tokens");
  const std::string db = directory.file("sync.sqlite");
  const std::vector<std::string> storage = {"--sqlite", db};
  // Plaintext off loopback, and malformed command lines: exit 2 before serving.
  const std::string local = "serve --listen 127.0.0.1:0 --sqlite DB ";
  const std::vector<std::string> badCommands = {
      "serve --listen 0.0.0.0:0 --sqlite DB", "serve --listen [::]:0 --sqlite DB",
      "serve --listen 192.168.1.2:80 --sqlite DB", "serve --listen 127.0.0.1:70000 --sqlite DB",
      "serve --listen [::1:0 --sqlite DB", "serve --sqlite DB", local + "--postgres dbname=x",
      local + "--max-key-count 0", local + "--tls-cert DB", local + "--max-stores 0", local + "--keep-deletions 1d",
      "frobnicate", "account add --sqlite DB", "account token --sqlite DB"};
  for (const std::string& command : badCommands) {
    std::vector<std::string> args;
    std::istringstream words(command);
    for (std::string word; words >> word;) args.push_back(word == "DB" ? db : word);
    auto [status, line] = runToEnd(args);
    EXPECT_EQ(status, 2) << command;
    EXPECT_EQ(line.find("listening"), std::string::npos);
  }
  const std::string token = newToken(runToEnd({"account", "add", "alice"}, storage));
  const std::string bobToken = newToken(runToEnd({"account", "add", "bob"}, storage));
  EXPECT_EQ(runToEnd({"account", "add", "alice"}, storage).first, 1) << "a second alice";
  EXPECT_EQ(runToEnd({"account", "token", "nobody"}, storage).first, 1);
  // Limits that let one record outgrow a pull page are refused.
  EXPECT_EQ(runToEnd({"serve", "--listen", "127.0.0.1:0", "--max-key-data-len", "4194304"}, storage).first, 1);
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
  const pb::PushRequest huge = pushOf("app", "dev", {valueRecord("k", std::string(9 << 20, 'h'), now())});
  for (const auto& [authorization, expected] : cases) {
    SCOPED_TRACE(authorization.value_or("(none)"));
    auto context = [&anonymous, &authorization = authorization] {
      auto c = anonymous.context();
      if (authorization) c->AddMetadata("authorization", *authorization);
      return c;
    };
    // Refused before its message is read, even one past the size allowed to
    // accounts (which would fail with RESOURCE_EXHAUSTED).
    pb::PushReply pushReply;
    const pb::PushRequest request = expected == grpc::StatusCode::OK ? pushOf("app", "dev", {}) : huge;
    EXPECT_EQ(anonymous.stub().Push(context().get(), request, &pushReply).error_code(), expected);
    pb::PullRequest pullRequest;
    pullRequest.set_store("app");
    pb::PullReply pullReply;
    EXPECT_EQ(anonymous.stub().Pull(context().get(), pullRequest, &pullReply).error_code(), expected);
    pb::ListStoresReply listReply;
    EXPECT_EQ(anonymous.stub().ListStores(context().get(), {}, &listReply).error_code(), expected);
    pb::StoreLimits limits;
    EXPECT_EQ(anonymous.stub().GetLimits(context().get(), {}, &limits).error_code(), expected);
    if (expected == grpc::StatusCode::OK) {
      EXPECT_EQ(limits.ShortDebugString(),
                "max_key_count: 7 max_key_name_len: 64 max_key_data_len: 1048576 max_key_data_sum: 1048576");
      continue;
    }
    OpenWatch watch{context(), nullptr};
    watch.reader = anonymous.stub().Watch(watch.context.get(), {});
    EXPECT_EQ(endOf(watch), expected);
  }

  TokenClient alice = TokenClient::plaintext(server.address, token);
  TokenClient bob = TokenClient::plaintext(server.address, bobToken);
  std::vector<OpenWatch> watches(3);
  for (OpenWatch& watch : watches) {
    watch = openWatch(alice, "dev");
    ASSERT_EQ(nextText(watch), "");  // the account's revision, 0
  }
  OpenWatch over = openWatch(alice, "dev");
  EXPECT_EQ(endOf(over), grpc::StatusCode::RESOURCE_EXHAUSTED);
  OpenWatch bobs = openWatch(bob, "dev");
  ASSERT_TRUE(bobs.next());
  // bob's writes, even to a store of the same name, are not alice's business.
  pb::PushReply reply;
  ASSERT_TRUE(bob.push(pushOf("s1", "bob-dev", {valueRecord("k", "bob", now())}), &reply).ok());
  ASSERT_TRUE(alice.push(pushOf("s1", "dev-a", {valueRecord("a", "v", now())}), &reply).ok());
  for (OpenWatch& watch : watches) EXPECT_EQ(nextText(watch), R"(store: "s1" revision: 1 origin_device: "dev-a")");
  EXPECT_EQ(nextText(bobs), R"(store: "s1" revision: 1 origin_device: "bob-dev")");

  // The old token's watches end and its calls fail; the new one works until revoked.
  const std::string fresh = newToken(runToEnd({"account", "token", "alice"}, storage));
  for (OpenWatch& watch : watches) EXPECT_EQ(endOf(watch), grpc::StatusCode::UNAUTHENTICATED);
  EXPECT_EQ(alice.push(pushOf("app", "dev", {}), &reply).error_code(), grpc::StatusCode::UNAUTHENTICATED);
  TokenClient renewed = TokenClient::plaintext(server.address, fresh);
  EXPECT_TRUE(renewed.push(pushOf("app", "dev", {}), &reply).ok());
  EXPECT_EQ(runToEnd({"account", "revoke", "alice"}, storage), std::make_pair(0, std::string()));
  EXPECT_EQ(renewed.push(pushOf("app", "dev", {}), &reply).error_code(), grpc::StatusCode::UNAUTHENTICATED);
  ASSERT_TRUE(bob.push(pushOf("app", "dev", {valueRecord("k", "v", now())}), &reply).ok());
  EXPECT_TRUE(bobs.next()) << "another account's watch ended";
  bobs.context->TryCancel();
  stopCleanly(server);
}

// A device over TLS off loopback, the certificate's name checked, keeps
// watching across a server restart and loses nothing.
TEST(VelmoraServerTest, ServesTlsOffLoopbackAndAWatchingDeviceSurvivesARestart) {
  velmora::testing::ScratchDirectory directory("velmora-server-tls");
  const std::string cert = directory.file("cert.pem");
  const std::string key = directory.file("key.pem");
  const std::string make = "/usr/bin/openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes"
                           " -keyout " + key + " -out " + cert +
                           " -days 2 -subj /CN=localhost -addext subjectAltName=DNS:localhost 2>/dev/null";
  ASSERT_EQ(std::system(make.c_str()), 0);
  const std::string db = directory.file("sync.sqlite");
  const std::string token = newToken(runToEnd({"account", "add", "alice"}, {"--sqlite", db}));
  const std::vector<std::string> options = {"--sqlite", db, "--tls-cert", cert, "--tls-key", key};
  RunningServer server = serve("0.0.0.0:0", options);
  ASSERT_TRUE(server.process);
  // By address: resolving "localhost" would bring in the DNS resolver, which leaks at exit.
  const std::string target = "127.0.0.1:" + std::to_string(server.port);
  grpc::SslCredentialsOptions ssl;
  ssl.pem_root_certs = velmora::testing::readFile(cert).value_or("");
  grpc::ChannelArguments args;
  args.SetSslTargetNameOverride("localhost");
  TokenClient device(grpc::CreateCustomChannel(target, grpc::SslCredentials(ssl), args), token);
  pb::PushReply reply;
  EXPECT_FALSE(TokenClient::plaintext(target, token).push(pushOf("app", "dev", {}), &reply).ok());

  const pb::Record k1 = valueRecord("k1", "v", now());
  grpc::Status status = device.push(pushOf("app", "dev-a", {k1}), &reply);
  ASSERT_TRUE(status.ok()) << status.error_message();
  OpenWatch watch = openWatch(device, "dev-b", 60s);
  ASSERT_TRUE(watch.next());

  stopCleanly(server);
  EXPECT_EQ(endOf(watch), grpc::StatusCode::UNAVAILABLE);

  // Back on the same port: the same channel reconnects, and nothing was lost.
  RunningServer again = serve("0.0.0.0:" + std::to_string(server.port), options);
  ASSERT_TRUE(again.process);
  OpenWatch rewatch = openWatch(device, "dev-b", 60s);
  rewatch.context->set_wait_for_ready(true);
  ASSERT_EQ(nextText(rewatch), "revision: 1") << rewatch.reader->Finish().error_message();
  // A retried push writes nothing and wakes nobody: the next notice is k2's.
  ASSERT_TRUE(device.push(pushOf("app", "dev-a", {k1}), &reply).ok());
  ASSERT_TRUE(device.push(pushOf("app", "dev-a", {valueRecord("k2", "v", now())}), &reply).ok());
  EXPECT_EQ(nextText(rewatch), R"(store: "app" revision: 2 origin_device: "dev-a")");
  pb::PullReply pulled;
  ASSERT_TRUE(device.pull("app", 0, &pulled).ok());
  EXPECT_EQ(pulled.records_size(), 2);

  // A burst of writes to several stores: each store is reported, the last
  // notice of each carrying its newest revision.
  for (int i = 0; i < 20; ++i) {
    const pb::Record record = valueRecord("k", std::to_string(i), now() + i);
    ASSERT_TRUE(device.push(pushOf("burst" + std::to_string(i % 3), "dev-a", {record}), &reply).ok());
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
  const std::string token = newToken(runToEnd({"account", "add", "alice"}, storage));
  RunningServer nodeA = serve("127.0.0.1:0", storage);
  RunningServer nodeB = serve("127.0.0.1:0", storage);
  ASSERT_TRUE(nodeA.process && nodeB.process);
  TokenClient viaA = TokenClient::plaintext(nodeA.address, token);
  TokenClient viaB = TokenClient::plaintext(nodeB.address, token);

  OpenWatch watch = openWatch(viaB, "dev-b", 60s);
  EXPECT_EQ(nextText(watch), "");  // the account's revision, 0
  OpenWatch watchA = openWatch(viaA, "dev-a", 60s);
  EXPECT_EQ(nextText(watchA), "");
  pb::PushReply reply;
  ASSERT_TRUE(viaA.push(pushOf("org.example.App", "dev-a", {valueRecord("k", "v", now())}), &reply).ok());
  const std::string fromA = R"(store: "org.example.App" revision: 1 origin_device: "dev-a")";
  EXPECT_EQ(nextText(watch), fromA) << "a write through node A did not wake the watcher on node B";
  // A node hears the other's writes, and its own only once.
  ASSERT_TRUE(viaB.push(pushOf("org.example.App", "dev-b", {valueRecord("j", "v", now())}), &reply).ok());
  const std::string fromB = R"(store: "org.example.App" revision: 2 origin_device: "dev-b")";
  EXPECT_EQ(nextText(watch), fromB);
  EXPECT_EQ(nextText(watchA), fromA);
  EXPECT_EQ(nextText(watchA), fromB) << "node A heard its own write again";

  // The database goes away and comes back: node B may have missed notices,
  // so its watchers are told to start over; node A reconnects on its next request.
  std::string error;
  velmora::testing::PostgresCluster* cluster = velmora::testing::PostgresCluster::shared(&error);
  ASSERT_TRUE(cluster->pause(&error)) << error;
  ASSERT_TRUE(cluster->resume(&error)) << error;
  EXPECT_EQ(endOf(watch), grpc::StatusCode::UNAVAILABLE);
  ASSERT_TRUE(viaA.push(pushOf("org.example.App", "dev-a", {valueRecord("k", "w", now() + 1)}), &reply).ok());
  EXPECT_EQ(std::make_pair(reply.results(0).status(), reply.results(0).winner().revision()),
            std::make_pair(pb::PushResult::ACCEPTED, std::int64_t{3}));
  watchA.context->TryCancel();
  stopCleanly(nodeA);
  stopCleanly(nodeB);
}

}  // namespace
}  // namespace velmora::server
