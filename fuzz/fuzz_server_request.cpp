// Runs a short sequence of device requests through the sync server's rules
// (SyncCore) against a fresh in-memory SQLite store, as a device could send
// them, and checks what every reply promises.
//
// Input: up to kMaxRequests chunks of [kind][length: 2 bytes LE][bytes];
// kind bit 0: 0 a PushRequest, 1 a PullRequest; bit 1: the tight limits
// (3 keys, 8-byte names, 64-byte values, 128 in all) instead of the daemon's.
// The bytes are decoded as that message; undecodable ones are skipped.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <map>
#include <memory>
#include <string>

#include "Accounts.h"
#include "SqliteStorage.h"
#include "SyncService.h"

namespace {

namespace pb = ::velmora::sync::v1;
using velmora::server::Limits;

constexpr int kMaxRequests = 8;
constexpr std::int64_t kNow = 725846400;  // a fixed clock: 2024-01-01

void check(bool condition) {
  if (!condition) std::abort();
}

// Pulls every record of store; aborts when the pages break their promises.
void checkStore(velmora::server::SyncCore& core, const velmora::server::Account& account, const std::string& store,
                const Limits& limits) {
  std::int64_t since = 0;
  std::map<std::string, std::int64_t> revisions;
  for (int page = 0; page < 10000; ++page) {
    pb::PullRequest request;
    request.set_store(store);
    request.set_since_revision(since);
    request.set_limit(7);
    pb::PullReply reply;
    check(core.pull(account, request, &reply).ok());
    std::int64_t last = since;
    for (const pb::Record& record : reply.records()) {
      check(record.revision() > last);
      last = record.revision();
      check(record.revision() <= reply.revision());
      check(revisions.emplace(record.key(), record.revision()).second);  // each key once
      check(!record.deleted() || record.value().empty());
    }
    if (reply.complete()) break;
    check(reply.revision() > since);  // an incomplete page always moves on
    since = reply.revision();
  }
  // Fetched again from 0 in one page: the live keys stay within the count.
  pb::PullRequest all;
  all.set_store(store);
  all.set_limit(1000);
  pb::PullReply reply;
  check(core.pull(account, all, &reply).ok());
  std::int64_t live = 0;
  for (const pb::Record& record : reply.records()) live += record.deleted() ? 0 : 1;
  check(live <= limits.maxKeyCount);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::string error;
  std::unique_ptr<velmora::server::Storage> storage = velmora::server::openSqliteStorage(":memory:", &error);
  if (!storage) std::abort();
  velmora::server::Result<velmora::server::Account> account = storage->addAccount("fuzz", "hash");
  if (!account) std::abort();
  velmora::server::WatchHub hub;
  Limits tight;
  tight.maxKeyCount = 3;
  tight.maxKeyNameLen = 8;
  tight.maxKeyDataLen = 64;
  tight.maxKeyDataSum = 128;
  velmora::server::SyncCore normalCore(*storage, hub, Limits{}, [] { return kNow; });
  velmora::server::SyncCore tightCore(*storage, hub, tight, [] { return kNow; });

  std::int64_t revision = 0;
  for (int n = 0; n < kMaxRequests && size >= 3; ++n) {
    const std::uint8_t kind = data[0];
    const std::size_t length = std::min<std::size_t>(data[1] | (data[2] << 8), size - 3);
    const std::string bytes(reinterpret_cast<const char*>(data + 3), length);
    data += 3 + length;
    size -= 3 + length;
    velmora::server::SyncCore& core = (kind & 2) ? tightCore : normalCore;
    const Limits limits = (kind & 2) ? tight : Limits{};

    if (kind & 1) {
      pb::PullRequest request;
      if (!request.ParseFromString(bytes)) continue;
      pb::PullReply reply;
      if (core.pull(account.value(), request, &reply).ok()) {
        for (const pb::Record& record : reply.records()) check(record.revision() > request.since_revision());
      }
      continue;
    }
    pb::PushRequest request;
    if (!request.ParseFromString(bytes)) continue;
    pb::PushReply reply;
    if (!core.push(account.value(), request, &reply).ok()) continue;
    check(reply.results_size() == request.records_size());
    check(reply.revision() >= revision);
    for (int i = 0; i < reply.results_size(); ++i) {
      const pb::PushResult& result = reply.results(i);
      check(result.key() == request.records(i).key());
      if (result.status() == pb::PushResult::ACCEPTED) {
        check(result.winner().revision() > 0 && result.winner().revision() <= reply.revision());
        check(result.winner().timestamp() == request.records(i).timestamp());
      }
      if (result.status() == pb::PushResult::SUPERSEDED) {
        check(result.winner().timestamp() > request.records(i).timestamp());
      }
    }
    revision = reply.revision();
    checkStore(core, account.value(), request.store(), limits);
  }
  return 0;
}
