// Runs a short sequence of device requests through the sync server's rules
// (SyncCore) against a fresh in-memory SQLite store, as a device could send
// them, and checks what every reply promises.
//
// Input: up to 8 chunks of [kind][length: 2 bytes LE][bytes]; kind bit 0:
// 0 a PushRequest, 1 a PullRequest; bit 1: the tight limits (3 keys, 8-byte
// names, 64-byte values, 128 in all) instead of the daemon's. The bytes are
// decoded as that message; undecodable ones are skipped.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <set>
#include <string>

#include "Accounts.h"
#include "FuzzSupport.h"
#include "SqliteStorage.h"
#include "SyncService.h"

namespace {

namespace pb = ::velmora::sync::v1;
using velmora::server::Limits;
using fuzz::check;

// Pulls every record of store in small pages: the pages move on and hold
// each key once, in revision order, and the live keys stay within the
// count limit.
void checkStore(velmora::server::SyncCore& core, const velmora::server::Account& account, const std::string& store,
                std::int64_t maxKeyCount) {
  std::set<std::string> keys;
  std::int64_t live = 0;
  for (std::int64_t since = 0, page = 0; page < 10000; ++page) {
    pb::PullRequest request;
    pb::PullReply reply;
    request.set_store(store);
    request.set_since_revision(since);
    request.set_limit(7);
    check(core.pull(account, request, &reply).ok() && (reply.complete() || reply.revision() > since));
    for (const pb::Record& record : reply.records()) {
      check(record.revision() > since && record.revision() <= reply.revision());
      check(keys.insert(record.key()).second && (!record.deleted() || record.value().empty()));
      since = record.revision();
      live += record.deleted() ? 0 : 1;
    }
    if (reply.complete()) break;
    since = reply.revision();
  }
  check(live <= maxKeyCount);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::string error;
  const std::unique_ptr<velmora::server::Storage> storage = velmora::server::openSqliteStorage(":memory:", &error);
  const velmora::server::Result<velmora::server::Account> account = storage->addAccount("fuzz", "hash");
  velmora::server::WatchHub hub;
  const Limits tight{.maxKeyCount = 3, .maxKeyNameLen = 8, .maxKeyDataLen = 64, .maxKeyDataSum = 128};
  const auto now = [] { return std::int64_t{725846400}; };  // a fixed clock: 2024-01-01
  velmora::server::SyncCore normalCore(*storage, hub, Limits{}, now), tightCore(*storage, hub, tight, now);

  std::int64_t revision = 0;
  for (int n = 0; n < 8 && size >= 3; ++n) {
    const std::uint8_t kind = data[0];
    const std::size_t length = std::min<std::size_t>(data[1] | (data[2] << 8), size - 3);
    const std::string bytes(reinterpret_cast<const char*>(data + 3), length);
    data += 3 + length;
    size -= 3 + length;
    velmora::server::SyncCore& core = (kind & 2) ? tightCore : normalCore;
    pb::PullRequest pull;
    pb::PullReply pulled;
    if ((kind & 1) && pull.ParseFromString(bytes) && core.pull(account.value(), pull, &pulled).ok()) {
      for (const pb::Record& record : pulled.records()) check(record.revision() > pull.since_revision());
    }
    pb::PushRequest request;
    pb::PushReply reply;
    if ((kind & 1) || !request.ParseFromString(bytes) || !core.push(account.value(), request, &reply).ok()) continue;
    check(reply.results_size() == request.records_size() && reply.revision() >= revision);
    for (int i = 0; i < reply.results_size(); ++i) {
      const pb::PushResult& result = reply.results(i);
      const pb::Record& sent = request.records(i), &winner = result.winner();
      check(result.key() == sent.key() && (result.status() != pb::PushResult::ACCEPTED ||
                                           (winner.revision() > 0 && winner.revision() <= reply.revision() &&
                                            winner.timestamp() == sent.timestamp())));
      check(result.status() != pb::PushResult::SUPERSEDED || winner.timestamp() > sent.timestamp());
    }
    revision = reply.revision();
    checkStore(core, account.value(), request.store(), ((kind & 2) ? tight : Limits{}).maxKeyCount);
  }
  return 0;
}
