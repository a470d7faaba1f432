// SyncService (see SyncService.h for the design note).
#include "SyncService.h"

#include <algorithm>
#include <cmath>
#include <map>
#include <optional>
#include <set>

#include "Accounts.h"
#include "velmora/platform/Environment.h"
#include "velmora/platform/Log.h"
#include "zkv/ZKVEncoding.h"

namespace velmora::server {
namespace {

const velmora::LogHandle& log() {
  static const velmora::LogHandle handle("com.vantrel.velmora.server", "Default");
  return handle;
}

grpc::Status storageFailure(const std::string& what, const std::string& error) {
  log().logf(LogLevel::Error, "%s: %s", what.c_str(), error.c_str());
  return grpc::Status(grpc::StatusCode::UNAVAILABLE, "storage failed, try again");
}

// Whether name is usable as a store or device name.
bool validName(const std::string& name, bool mayBeEmpty) {
  if (name.empty()) return mayBeEmpty;
  return name.size() <= kMaxNameBytes && name.find('\0') == std::string::npos;
}

pb::Record toMessage(const RecordRow& row) {
  pb::Record record;
  record.set_key(row.key);
  record.set_value(row.value);
  record.set_gzipped(row.gzipped);
  record.set_timestamp(row.timestamp);
  record.set_deleted(row.deleted);
  record.set_origin_device(row.originDevice);
  record.set_revision(row.revision);
  return record;
}

// What a record adds to a PullReply beyond its own encoding: the field tag
// and the length prefix.
constexpr std::size_t kRecordFraming = 8;

// Whether a pushed record carries exactly what is stored (a retried push).
bool sameContent(const pb::Record& record, const RecordRow& stored) {
  if (record.timestamp() != stored.timestamp || record.deleted() != stored.deleted) return false;
  return record.deleted() || (record.gzipped() == stored.gzipped && record.value() == stored.value);
}

}  // namespace

bool recordFitsPullPage(const Limits& limits) {
  // Besides key, value and device name: the other fields, tags and length
  // prefixes, well within 64 bytes.
  constexpr auto kBudget = static_cast<std::int64_t>(kPullByteBudget - kRecordFraming - kMaxNameBytes - 64);
  return limits.maxKeyNameLen <= kBudget && limits.maxKeyDataLen <= kBudget &&
         limits.maxKeyNameLen + limits.maxKeyDataLen <= kBudget;
}

Clock systemClock() {
  return [] { return static_cast<std::int64_t>(std::floor(velmora::currentEnvironment().absoluteTime())); };
}

// ---------------------------------------------------------------------------
// WatchHub

WatchHub::Added WatchHub::add(std::int64_t accountId, const std::string& tokenHash,
                              std::shared_ptr<Subscriber> subscriber) {
  std::lock_guard lock(mutex_);
  if (closed_) return Added::kClosed;
  std::vector<Stream>& list = streams_[accountId];
  if (list.size() >= maxPerAccount_) {
    if (list.empty()) streams_.erase(accountId);
    return Added::kFull;
  }
  list.push_back({std::move(subscriber), tokenHash});
  ++count_;
  return Added::kYes;
}

void WatchHub::remove(std::int64_t accountId, const Subscriber* subscriber) {
  std::lock_guard lock(mutex_);
  auto found = streams_.find(accountId);
  if (found == streams_.end()) return;
  auto& list = found->second;
  auto it = std::find_if(list.begin(), list.end(),
                         [subscriber](const Stream& s) { return s.subscriber.get() == subscriber; });
  if (it == list.end()) return;
  *it = std::move(list.back());
  list.pop_back();
  --count_;
  if (list.empty()) streams_.erase(found);
}

std::vector<std::shared_ptr<WatchHub::Subscriber>> WatchHub::select(const std::int64_t* accountId,
                                                                     const std::string* tokenHash) const {
  std::vector<std::shared_ptr<Subscriber>> targets;
  auto take = [&](const std::vector<Stream>& list) {
    for (const Stream& stream : list) {
      if (tokenHash == nullptr || stream.tokenHash == *tokenHash) targets.push_back(stream.subscriber);
    }
  };
  std::lock_guard lock(mutex_);
  if (accountId == nullptr) {
    for (const auto& [account, list] : streams_) take(list);
  } else if (auto found = streams_.find(*accountId); found != streams_.end()) {
    take(found->second);
  }
  return targets;
}

void WatchHub::publish(std::int64_t accountId, const pb::WatchNotice& notice) {
  for (const auto& target : select(&accountId, nullptr)) target->deliver(notice);
}

void WatchHub::closeAll(const grpc::Status& status, bool refuseNew) {
  if (refuseNew) {
    std::lock_guard lock(mutex_);
    closed_ = true;
  }
  for (const auto& target : select(nullptr, nullptr)) target->close(status);
}

std::vector<std::pair<std::int64_t, std::string>> WatchHub::tokens() const {
  std::set<std::pair<std::int64_t, std::string>> distinct;
  std::lock_guard lock(mutex_);
  for (const auto& [account, list] : streams_) {
    for (const Stream& stream : list) distinct.emplace(account, stream.tokenHash);
  }
  return {distinct.begin(), distinct.end()};
}

void WatchHub::closeToken(std::int64_t accountId, const std::string& tokenHash, const grpc::Status& status) {
  for (const auto& target : select(&accountId, &tokenHash)) target->close(status);
}

std::size_t WatchHub::size() const {
  std::lock_guard lock(mutex_);
  return count_;
}

// ---------------------------------------------------------------------------
// SyncCore

SyncCore::SyncCore(Storage& storage, WatchHub& hub, Limits limits, Clock clock, std::int64_t maxStores)
    : storage_(storage), hub_(hub), limits_(limits), clock_(std::move(clock)), maxStores_(maxStores) {}

grpc::Status SyncCore::authenticate(std::string_view authorization, Account* account, std::string* tokenHash) {
  std::optional<std::string_view> token = bearerToken(authorization);
  if (!token) return grpc::Status(grpc::StatusCode::UNAUTHENTICATED, "expected \"authorization: Bearer <token>\"");
  std::string hash = hashToken(*token);
  Result<std::optional<Account>> found = storage_.accountForTokenHash(hash);
  if (!found) return storageFailure("account lookup", found.error());
  if (!found.value()) return grpc::Status(grpc::StatusCode::UNAUTHENTICATED, "unknown token");
  *account = *found.value();
  if (tokenHash != nullptr) *tokenHash = std::move(hash);
  return grpc::Status::OK;
}

void SyncCore::revalidateWatches() {
  for (const auto& [accountId, tokenHash] : hub_.tokens()) {
    Result<std::optional<Account>> found = storage_.accountForTokenHash(tokenHash);
    if (!found) {
      storageFailure("account lookup", found.error());
      hub_.closeToken(accountId, tokenHash, grpc::Status(grpc::StatusCode::UNAVAILABLE, "storage failed, try again"));
    } else if (!found.value() || found.value()->id != accountId) {
      hub_.closeToken(accountId, tokenHash,
                      grpc::Status(grpc::StatusCode::UNAUTHENTICATED, "the token was revoked or replaced"));
    }
  }
}

Result<std::int64_t> SyncCore::pruneDeletions(std::int64_t retention) {
  return storage_.pruneDeletions(clock_() - retention);
}

bool SyncCore::decide(StoreTransaction& transaction, const pb::Record& record, const std::string& device,
                      std::int64_t now, pb::PushResult* result) {
  result->set_key(record.key());
  auto refuse = [result](pb::PushResult::Status status, std::string reason) {
    result->set_status(status);
    result->set_reason(std::move(reason));
    return true;
  };
  if (record.key().empty() || record.key().find('\0') != std::string::npos) {
    return refuse(pb::PushResult::REFUSED_INVALID, "the key is empty or holds a NUL");
  }
  if (record.timestamp() == 0) return refuse(pb::PushResult::REFUSED_INVALID, "the timestamp is 0");

  // The value must be a timestamped serialised value of the record's own
  // timestamp; its uncompressed length, or the bytes stored when more, is
  // what the limits count.
  std::int64_t size = 0;
  if (!record.deleted()) {
    std::optional<velmora::Bytes> plain;
    const auto* raw = reinterpret_cast<const std::uint8_t*>(record.value().data());
    std::span<const std::uint8_t> serialised(raw, record.value().size());
    if (record.gzipped()) {
      // Inflated with a cap (a small stream may inflate a thousandfold) and
      // refused with anything after its one member, which would be stored
      // unmeasured.
      bool tooLarge = false;
      plain = ZKVCopyUngzippedDataForDataWithLimit(
          serialised, static_cast<std::size_t>(std::max<std::int64_t>(limits_.maxKeyDataLen, 0)), &tooLarge);
      if (tooLarge) {
        Result<std::optional<RecordRow>> stored = transaction.record(record.key());
        if (!stored) return false;
        if (stored.value()) *result->mutable_winner() = toMessage(*stored.value());
        return refuse(pb::PushResult::REFUSED_LIMIT, "the value is larger than max_key_data_len");
      }
      if (!plain) return refuse(pb::PushResult::REFUSED_INVALID, "the value is not one gzip stream alone");
      serialised = *plain;
    }
    std::int64_t inner = 0;
    if (ZKVCopyPropertyListAndTimestampFromData(serialised, &inner).isNone()) {
      return refuse(pb::PushResult::REFUSED_INVALID, "the value is not a timestamped serialised value");
    }
    if (inner != record.timestamp()) {
      return refuse(pb::PushResult::REFUSED_INVALID, "the record's timestamp differs from its value's");
    }
    size = static_cast<std::int64_t>(std::max(serialised.size(), record.value().size()));
  }

  Result<std::optional<RecordRow>> loaded = transaction.record(record.key());
  if (!loaded) return false;
  const std::optional<RecordRow>& stored = loaded.value();
  if (stored) *result->mutable_winner() = toMessage(*stored);

  if (record.timestamp() - now > kMaxFutureSeconds) {
    return refuse(pb::PushResult::REFUSED_FUTURE, "the timestamp is more than five minutes ahead of the server");
  }
  if (stored && stored->timestamp > record.timestamp()) {
    result->set_status(pb::PushResult::SUPERSEDED);
    return true;
  }
  if (stored && sameContent(record, *stored)) {
    result->set_status(pb::PushResult::ACCEPTED);
    return true;
  }
  const bool live = stored && !stored->deleted;
  // A deletion of a key the store does not hold adds a name like a write.
  if (!live && static_cast<std::int64_t>(record.key().size()) > limits_.maxKeyNameLen) {
    return refuse(pb::PushResult::REFUSED_LIMIT, "the key is longer than max_key_name_len");
  }
  if (!record.deleted()) {
    const StoreUsage usage = transaction.usage();
    const std::int64_t oldSize = live ? stored->size : 0;
    if (size > limits_.maxKeyDataLen) {
      return refuse(pb::PushResult::REFUSED_LIMIT, "the value is larger than max_key_data_len");
    }
    if (!live && usage.liveKeys >= limits_.maxKeyCount) {
      return refuse(pb::PushResult::REFUSED_LIMIT, "the store holds max_key_count keys");
    }
    // A store already over the sum (the limit was lowered) may still shrink.
    if (size > oldSize && usage.dataSum - oldSize + size > limits_.maxKeyDataSum) {
      return refuse(pb::PushResult::REFUSED_LIMIT, "the store would pass max_key_data_sum");
    }
  } else if (!stored || !stored->deleted) {
    // One more deletion record: the store keeps max_key_count of them.
    Result<std::int64_t> deleted = transaction.deletedKeys();
    if (!deleted) return false;
    if (deleted.value() >= limits_.maxKeyCount && !transaction.dropOldestDeletion()) return false;
  }

  RecordRow row;
  row.key = record.key();
  row.deleted = record.deleted();
  if (!row.deleted) {
    row.value = record.value();
    row.gzipped = record.gzipped();
  }
  row.timestamp = record.timestamp();
  row.originDevice = record.origin_device().empty() ? device : record.origin_device();
  row.size = size;
  row.writtenAt = now;
  Result<std::int64_t> revision = transaction.put(row);
  if (!revision) return false;
  row.revision = revision.value();
  result->set_status(pb::PushResult::ACCEPTED);
  result->clear_reason();
  *result->mutable_winner() = toMessage(row);
  return true;
}

grpc::Status SyncCore::push(const Account& account, const pb::PushRequest& request, pb::PushReply* reply) {
  if (!validName(request.store(), false) || !validName(request.device(), true)) {
    return grpc::Status(grpc::StatusCode::INVALID_ARGUMENT, "bad store or device name");
  }
  if (request.records_size() > kMaxRecordsPerPush) {
    return grpc::Status(grpc::StatusCode::INVALID_ARGUMENT,
                        "more than " + std::to_string(kMaxRecordsPerPush) + " records in one push");
  }
  std::set<std::string_view> keys;
  for (const pb::Record& record : request.records()) {
    if (!validName(record.origin_device(), true)) {
      return grpc::Status(grpc::StatusCode::INVALID_ARGUMENT, "bad origin device name");
    }
    // Each result may carry the stored record: a key repeated would repeat
    // up to a whole value in the reply.
    if (!keys.insert(record.key()).second) {
      return grpc::Status(grpc::StatusCode::INVALID_ARGUMENT, "a key appears twice in one push");
    }
  }
  const std::int64_t now = clock_();
  bool tooManyStores = false;
  Result<UpdateOutcome> outcome =
      storage_.updateStore(account.id, request.store(), request.device(), [&](StoreTransaction& transaction) {
        reply->clear_results();
        if (!transaction.storeExists()) {
          Result<std::int64_t> stores = transaction.storeCount();
          if (!stores) return false;
          tooManyStores = stores.value() >= maxStores_;
          if (tooManyStores) return false;
        }
        for (const pb::Record& record : request.records()) {
          if (!decide(transaction, record, request.device(), now, reply->add_results())) return false;
        }
        return true;
      });
  if (!outcome) {
    reply->Clear();
    if (tooManyStores) {
      return grpc::Status(grpc::StatusCode::FAILED_PRECONDITION,
                          "the account holds " + std::to_string(maxStores_) + " stores, the most this server keeps");
    }
    return storageFailure("push to " + request.store(), outcome.error());
  }
  reply->set_revision(outcome->accountRevision);
  if (outcome->lastWritten > 0) {
    pb::WatchNotice notice;
    notice.set_store(request.store());
    notice.set_revision(outcome->lastWritten);
    notice.set_origin_device(request.device());
    hub_.publish(account.id, notice);
  }
  return grpc::Status::OK;
}

grpc::Status SyncCore::pull(const Account& account, const pb::PullRequest& request, pb::PullReply* reply) {
  if (!validName(request.store(), false)) return grpc::Status(grpc::StatusCode::INVALID_ARGUMENT, "bad store name");
  const int limit = request.limit() <= 0 ? kDefaultPullLimit : std::min(request.limit(), kMaxPullLimit);
  Result<PullPage> page = storage_.pull(account.id, request.store(), std::max<std::int64_t>(request.since_revision(), 0),
                                        limit);
  if (!page) return storageFailure("pull from " + request.store(), page.error());
  std::size_t bytes = 0;
  std::int64_t consumed = 0;  // revision of the last record sent or skipped
  for (const RecordRow& row : page->records) {
    pb::Record record = toMessage(row);
    const std::size_t size = record.ByteSizeLong() + kRecordFraming;
    if (size > kPullByteBudget) {
      // Larger than any device receives (stored by an older server, or
      // under larger limits): sending it would stop the store for good.
      log().logf(LogLevel::Error, "pull from %s: skipped the record at revision %lld, %zu bytes",
                 request.store().c_str(), static_cast<long long>(row.revision), size);
      consumed = row.revision;
      continue;
    }
    if (bytes + size > kPullByteBudget) {
      // The rest waits for the next page.
      reply->set_revision(consumed);
      reply->set_complete(false);
      return grpc::Status::OK;
    }
    bytes += size;
    consumed = row.revision;
    *reply->add_records() = std::move(record);
  }
  reply->set_revision(page->cursor);
  reply->set_complete(page->complete);
  return grpc::Status::OK;
}

grpc::Status SyncCore::listStores(const Account& account, pb::ListStoresReply* reply) {
  Result<std::vector<StoreRevision>> stores = storage_.listStores(account.id);
  if (!stores) return storageFailure("list stores", stores.error());
  for (const StoreRevision& store : stores.value()) {
    pb::StoreState* state = reply->add_stores();
    state->set_store(store.store);
    state->set_revision(store.revision);
  }
  return grpc::Status::OK;
}

grpc::Status SyncCore::accountRevision(const Account& account, std::int64_t* revision) {
  Result<std::int64_t> current = storage_.accountRevision(account.id);
  if (!current) return storageFailure("account revision", current.error());
  *revision = current.value();
  return grpc::Status::OK;
}

// ---------------------------------------------------------------------------
// DeviceSyncService

namespace {

// One watch stream. gRPC owns the reactor until OnDone; the hub may still
// hold a reference after that, so it is shared and deletes itself through
// self_ (see the design note for the order of locks).
//
// At most one gRPC operation (a write or the finish) is in flight: whoever
// sets writing_ owns the stream until OnWriteDone clears it, and Finish is
// called only by the owner or while nobody owns it.
class WatchReactor final : public grpc::ServerWriteReactor<pb::WatchNotice>,
                           public WatchHub::Subscriber,
                           public std::enable_shared_from_this<WatchReactor> {
 public:
  WatchReactor(WatchHub& hub, std::int64_t accountId) : hub_(hub), accountId_(accountId) {}

  // Registers with the hub and sends the first notice; ends the stream
  // instead when the hub is closed or full, the token no longer names the
  // account, or the revision cannot be read.
  static void open(const std::shared_ptr<WatchReactor>& self, SyncCore& core, const Account& account,
                   const std::string& authorization, const std::string& tokenHash) {
    self->self_ = self;
    // Registered before the revision is read, so no change in between is
    // lost; notices that arrive before the first one wait behind it.
    switch (core.hub().add(account.id, tokenHash, self)) {
      case WatchHub::Added::kYes:
        break;
      case WatchHub::Added::kClosed:
        self->close(grpc::Status(grpc::StatusCode::UNAVAILABLE, "the server is shutting down"));
        return;
      case WatchHub::Added::kFull:
        self->close(grpc::Status(grpc::StatusCode::RESOURCE_EXHAUSTED,
                                 "the account has as many open watches as this server allows (--max-watches)"));
        return;
    }
    // Checked again now that the stream is registered: a token replaced
    // after this finds the stream through revalidateWatches().
    Account again;
    grpc::Status status = core.authenticate(authorization, &again);
    if (status.ok() && again.id != account.id) {
      status = grpc::Status(grpc::StatusCode::UNAUTHENTICATED, "the token was revoked or replaced");
    }
    if (!status.ok()) {
      self->close(status);
      return;
    }
    std::int64_t revision = 0;
    status = core.accountRevision(account, &revision);
    if (!status.ok()) {
      self->close(status);
      return;
    }
    pb::WatchNotice first;
    first.set_revision(revision);
    self->start(first);
  }

  void deliver(const pb::WatchNotice& notice) override {
    {
      std::lock_guard lock(mutex_);
      if (finishing_) return;
      auto [slot, inserted] = pending_.try_emplace(notice.store(), notice);
      if (!inserted && slot->second.revision() < notice.revision()) slot->second = notice;
      if (!started_ || writing_) return;
      writing_ = true;
      takeNextLocked();
    }
    StartWrite(&current_);
  }

  void close(const grpc::Status& status) override {
    {
      std::lock_guard lock(mutex_);
      if (finishing_) return;
      finishing_ = true;
      status_ = status;
      if (writing_) return;  // OnWriteDone finishes
      writing_ = true;
    }
    Finish(status);
  }

  void OnWriteDone(bool ok) override {
    grpc::Status finishWith;
    bool finish = false;
    {
      std::lock_guard lock(mutex_);
      if (!ok && !finishing_) {
        finishing_ = true;
        status_ = grpc::Status(grpc::StatusCode::CANCELLED, "the stream broke");
      }
      if (finishing_) {
        finish = true;
        finishWith = status_;  // still the owner (writing_): the finish is ours to send
      } else if (!pending_.empty()) {
        takeNextLocked();
      } else {
        writing_ = false;
        return;
      }
    }
    if (finish) {
      Finish(finishWith);
    } else {
      StartWrite(&current_);
    }
  }

  void OnCancel() override { close(grpc::Status::CANCELLED); }

  void OnDone() override {
    hub_.remove(accountId_, this);
    self_.reset();  // may delete this
  }

 private:
  void start(const pb::WatchNotice& first) {
    {
      std::lock_guard lock(mutex_);
      if (finishing_) return;
      started_ = true;
      writing_ = true;
      current_ = first;
    }
    StartWrite(&current_);
  }

  // Moves the notice with the lowest revision from pending_ to current_.
  void takeNextLocked() {
    auto next = std::min_element(pending_.begin(), pending_.end(), [](const auto& a, const auto& b) {
      return a.second.revision() < b.second.revision();
    });
    current_ = std::move(next->second);
    pending_.erase(next);
  }

  WatchHub& hub_;
  const std::int64_t accountId_;
  std::shared_ptr<WatchReactor> self_;  // set once in open(), reset in OnDone (gRPC serialises them)
  std::mutex mutex_;
  std::map<std::string, pb::WatchNotice> pending_;  // guarded by mutex_: waiting notices by store
  pb::WatchNotice current_;                          // owned by the writer (writing_) while a write is in flight
  grpc::Status status_;                              // guarded by mutex_: how the stream ends
  bool started_ = false;                             // guarded by mutex_: the first notice went out
  bool writing_ = false;                             // guarded by mutex_: a write or the finish is in flight
  bool finishing_ = false;                           // guarded by mutex_: the stream is ending
};

// A reactor that only ends the stream, for watches refused before they start.
class RefusedWatch final : public grpc::ServerWriteReactor<pb::WatchNotice> {
 public:
  explicit RefusedWatch(const grpc::Status& status) { Finish(status); }
  void OnDone() override { delete this; }
};

}  // namespace

class DeviceSyncService::CallScope {
 public:
  explicit CallScope(DeviceSyncService& service) : service_(service) {
    std::lock_guard lock(service_.callsMutex_);
    ++service_.calls_;
  }
  ~CallScope() {
    std::lock_guard lock(service_.callsMutex_);
    if (--service_.calls_ == 0) service_.callsIdle_.notify_all();
  }
  CallScope(const CallScope&) = delete;
  CallScope& operator=(const CallScope&) = delete;

 private:
  DeviceSyncService& service_;
};

bool DeviceSyncService::waitUntilIdle(std::chrono::steady_clock::time_point deadline) {
  std::unique_lock lock(callsMutex_);
  return callsIdle_.wait_until(lock, deadline, [this] { return calls_ == 0; });
}

grpc::Status DeviceSyncService::authenticate(const grpc::ServerContextBase& context, Account* account,
                                             std::string* authorization, std::string* tokenHash) {
  const auto& metadata = context.client_metadata();
  auto found = metadata.find("authorization");
  if (found == metadata.end()) {
    return grpc::Status(grpc::StatusCode::UNAUTHENTICATED, "expected \"authorization: Bearer <token>\"");
  }
  const std::string_view value(found->second.data(), found->second.size());
  if (authorization != nullptr) *authorization = value;
  return core_.authenticate(value, account, tokenHash);
}

grpc::Status DeviceSyncService::Push(grpc::ServerContext* context, const pb::PushRequest* request,
                                     pb::PushReply* reply) {
  CallScope scope(*this);
  Account account;
  grpc::Status status = authenticate(*context, &account);
  return status.ok() ? core_.push(account, *request, reply) : status;
}

grpc::Status DeviceSyncService::Pull(grpc::ServerContext* context, const pb::PullRequest* request,
                                     pb::PullReply* reply) {
  CallScope scope(*this);
  Account account;
  grpc::Status status = authenticate(*context, &account);
  return status.ok() ? core_.pull(account, *request, reply) : status;
}

grpc::Status DeviceSyncService::ListStores(grpc::ServerContext* context, const pb::ListStoresRequest*,
                                           pb::ListStoresReply* reply) {
  CallScope scope(*this);
  Account account;
  grpc::Status status = authenticate(*context, &account);
  return status.ok() ? core_.listStores(account, reply) : status;
}

grpc::Status DeviceSyncService::GetLimits(grpc::ServerContext* context, const pb::LimitsRequest*,
                                          pb::StoreLimits* reply) {
  CallScope scope(*this);
  Account account;
  grpc::Status status = authenticate(*context, &account);
  if (!status.ok()) return status;
  reply->set_max_key_count(core_.limits().maxKeyCount);
  reply->set_max_key_name_len(core_.limits().maxKeyNameLen);
  reply->set_max_key_data_len(core_.limits().maxKeyDataLen);
  reply->set_max_key_data_sum(core_.limits().maxKeyDataSum);
  return grpc::Status::OK;
}

grpc::ServerWriteReactor<pb::WatchNotice>* DeviceSyncService::Watch(grpc::CallbackServerContext* context,
                                                                    const pb::WatchRequest*) {
  Account account;
  std::string authorization;
  std::string tokenHash;
  grpc::Status status = authenticate(*context, &account, &authorization, &tokenHash);
  if (!status.ok()) return new RefusedWatch(status);
  auto reactor = std::make_shared<WatchReactor>(core_.hub(), account.id);
  WatchReactor::open(reactor, core_, account, authorization, tokenHash);
  return reactor.get();
}

}  // namespace velmora::server
