#include "SyncEngine.h"

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <set>
#include <sstream>
#include <unordered_map>

#include "Store.h"
#include "SyncRecords.h"
#include "velmora/platform/Log.h"
#include "zkv/ZKVLog.h"

namespace velmorad {

using velmora::LogLevel;
using velmora::PlistDictionary;
using velmora::PropertyList;
using Clock = std::chrono::steady_clock;

namespace {

const velmora::LogHandle& log() { return *ZKVGetDefaultLog(); }

// Enough rounds for a store at the largest key count in the default batch
// size; a round that pushes nothing new ends the loop earlier.
constexpr int kMaxPushRounds = 8;

SyncFailure failureOf(const SyncCallResult& result) {
  switch (result.status) {
    case SyncCallStatus::Ok:
      return SyncFailure::None;
    case SyncCallStatus::Unauthenticated:
      return SyncFailure::Unauthenticated;
    case SyncCallStatus::Cancelled:
      return SyncFailure::Stopped;
    case SyncCallStatus::Unreachable:
    case SyncCallStatus::Failed:
      break;
  }
  return SyncFailure::Unreachable;
}

std::string isoTime(std::chrono::system_clock::time_point when) {
  const std::time_t seconds = std::chrono::system_clock::to_time_t(when);
  std::tm utc{};
  gmtime_r(&seconds, &utc);
  char text[32];
  std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &utc);
  return text;
}

double secondsSince2001(std::chrono::system_clock::time_point when) {
  return std::chrono::duration<double>(when.time_since_epoch()).count() - velmora::kAbsoluteTimeIntervalSince1970;
}

// The "versionid" of contents as text; nullopt when absent.
std::optional<std::string> versionOf(const PlistDictionary& contents) {
  auto it = contents.find(kStoreVersionIdKey);
  if (it == contents.end()) return std::nullopt;
  if (const std::string* text = it->second.getString()) return *text;
  return it->second.description();  // some other writer's mark: another account either way
}

const PlistDictionary& dictionaryOf(const PropertyList& value) {
  static const PlistDictionary kEmpty;
  const PlistDictionary* dict = value.getDictionary();
  return dict != nullptr ? *dict : kEmpty;
}

// A few lines a pass: a server that sends thousands of bad records must not
// flood the log.
void logProblems(const std::string& store, const std::vector<std::string>& problems) {
  constexpr std::size_t kMaxLines = 10;
  for (std::size_t i = 0; i < problems.size() && i < kMaxLines; ++i) {
    log().log(LogLevel::Default, "velmorad sync: " + store + ": " + problems[i]);
  }
  if (problems.size() > kMaxLines) {
    log().logf(LogLevel::Default, "velmorad sync: %s: %zu more problems", store.c_str(), problems.size() - kMaxLines);
  }
}

}  // namespace

// A serial worker with a thread of its own, started on first use, that runs
// items when they are due (in due order, then submission order). Blocking
// server calls run here, never on the shared pool.
class SyncEngine::Worker {
 public:
  ~Worker() { stop(); }

  // Queues work to run once delay has passed. Ignored after stop().
  void after(Clock::duration delay, std::function<void()> work) {
    std::lock_guard lock(mutex_);
    if (stopping_) return;
    items_.emplace(std::make_pair(Clock::now() + std::max(delay, Clock::duration::zero()), nextSequence_++),
                   std::move(work));
    if (!thread_.joinable()) thread_ = std::thread([this] { run(); });
    wake_.notify_one();
  }
  void async(std::function<void()> work) { after(Clock::duration::zero(), std::move(work)); }

  // Lets the running item finish, drops the rest and joins the thread.
  // Never from the worker's own thread.
  void stop() {
    std::map<std::pair<Clock::time_point, std::uint64_t>, std::function<void()>> dropped;
    std::thread thread;
    {
      std::lock_guard lock(mutex_);
      stopping_ = true;
      wake_.notify_all();
      thread.swap(thread_);
    }
    if (thread.joinable()) thread.join();
    std::lock_guard lock(mutex_);
    dropped.swap(items_);  // destroyed outside the lock, after the thread
  }

 private:
  void run() {
    std::unique_lock lock(mutex_);
    while (!stopping_) {
      if (items_.empty()) {
        wake_.wait(lock);
        continue;
      }
      auto first = items_.begin();
      if (first->first.first > Clock::now()) {
        wake_.wait_until(lock, first->first.first);
        continue;
      }
      std::function<void()> work = std::move(first->second);
      items_.erase(first);
      lock.unlock();
      work();
      work = nullptr;
      lock.lock();
    }
  }

  std::mutex mutex_;
  std::condition_variable wake_;
  std::map<std::pair<Clock::time_point, std::uint64_t>, std::function<void()>> items_;  // guarded by mutex_
  std::uint64_t nextSequence_ = 0;                                                      // guarded by mutex_
  bool stopping_ = false;                                                               // guarded by mutex_
  std::thread thread_;                                                                  // guarded by mutex_
};

SyncEngine::SyncEngine(SyncHost& host, std::optional<std::filesystem::path> configPath, SyncClientFactory factory,
                       SyncEngineOptions options)
    : host_(host),
      configPath_(std::move(configPath)),
      factory_(std::move(factory)),
      options_(options),
      worker_(std::make_unique<Worker>()),
      backoff_(options.minBackoff) {}

SyncEngine::~SyncEngine() { stop(); }

void SyncEngine::start() {
  if (!configPath_) return;
  std::string error;
  std::optional<AccountConfig> account = loadAccountConfig(*configPath_, &error);
  if (!account) {
    log().log(LogLevel::Error, "velmorad sync: " + error + "; not syncing");
    return;
  }
  {
    std::lock_guard lock(mutex_);
    account_ = *account;
  }
  if (!account->loggedIn()) return;
  worker_->async([this, account = *account] {
    std::string why;
    std::unique_ptr<SyncClient> client = factory_(account, &why);
    if (!client) {
      log().log(LogLevel::Error, "velmorad sync: cannot use the account's server: " + why);
      std::lock_guard lock(mutex_);
      lastError_ = why;
      return;
    }
    resetForeignStores(account.accountIdentifier());
    beginSession(account, std::move(client));
  });
}

void SyncEngine::stop() {
  {
    std::lock_guard lock(mutex_);
    if (stopping_) return;
    stopping_ = true;
    watchStop_ = true;
    if (activeClient_ != nullptr) activeClient_->cancel();
    watchWake_.notify_all();
  }
  worker_->stop();
  // The sync thread is gone: the session is ours now.
  if (watchThread_.joinable()) watchThread_.join();
  client_.reset();
  std::vector<SyncReplyHandler> waiters;
  {
    std::lock_guard lock(mutex_);
    activeClient_ = nullptr;
    accountId_.clear();
    waiters.swap(waiters_);
  }
  for (SyncReplyHandler& done : waiters) done(SyncReply{SyncFailure::Stopped, "the daemon is exiting", {}});
}

void SyncEngine::beginSession(const AccountConfig& account, std::unique_ptr<SyncClient> client) {
  client_ = std::move(client);
  {
    std::lock_guard lock(mutex_);
    if (stopping_) {
      client_->cancel();
      return;
    }
    accountId_ = account.accountIdentifier();
    activeClient_ = client_.get();
    watchStop_ = false;
    offline_ = false;
    connected_ = false;
    lastError_.clear();
    backoff_ = options_.minBackoff;
    stores_.clear();
    fullPassWanted_ = true;
    schedulePassLocked(Clock::now());
  }
  watchThread_ = std::thread([this, client = client_.get(), device = account.device] { watchLoop(client, device); });
  log().log(LogLevel::Default, "velmorad sync: syncing with " + account.server + " as device " + account.device);
}

void SyncEngine::endSession() {
  std::vector<SyncReplyHandler> waiters;
  {
    std::lock_guard lock(mutex_);
    watchStop_ = true;
    if (activeClient_ != nullptr) activeClient_->cancel();
    activeClient_ = nullptr;
    accountId_.clear();
    connected_ = false;
    offline_ = false;
    stores_.clear();
    fullPassWanted_ = false;
    ++passTicket_;  // a scheduled pass finds nothing to do
    passScheduled_ = false;
    waiters.swap(waiters_);
    watchWake_.notify_all();
  }
  if (watchThread_.joinable()) watchThread_.join();
  client_.reset();
  // Nothing left to synchronise with: those who waited are done.
  for (SyncReplyHandler& done : waiters) done(SyncReply{});
}

void SyncEngine::watchLoop(SyncClient* client, std::string device) {
  syncpb::WatchRequest request;
  request.set_device(device);
  std::chrono::milliseconds backoff = options_.minBackoff;
  for (;;) {
    bool opened = false;
    const SyncCallResult result = client->watch(request, [&](const syncpb::WatchNotice& notice) {
      std::lock_guard lock(mutex_);
      if (!opened) {
        // The first notice opens the stream: whatever changed while no watch
        // was open is fetched by a full pass.
        opened = true;
        connected_ = true;
        backoff = options_.minBackoff;
        fullPassWanted_ = true;
        schedulePassLocked(Clock::now());
      }
      if (notice.store().empty()) return;
      StoreState& state = stores_[notice.store()];
      if (notice.revision() > state.revision || state.revision < 0) {
        state.wantPull = true;
        schedulePassLocked(Clock::now());
      }
    });
    std::unique_lock lock(mutex_);
    connected_ = false;
    if (watchStop_) return;
    if (!result.ok()) {
      lastError_ = "watch: " + result.message;
      log().log(LogLevel::Debug, "velmorad sync: the watch ended: " + result.message);
    }
    // An Unauthenticated watch keeps trying at the slowest pace: the token
    // may be valid again after the server's accounts were restored.
    const std::chrono::milliseconds wait =
        result.status == SyncCallStatus::Unauthenticated ? options_.maxBackoff : backoff;
    watchRetryNow_ = false;
    watchWake_.wait_for(lock, wait, [&] { return watchStop_ || watchRetryNow_; });
    if (watchStop_) return;
    backoff = watchRetryNow_ ? options_.minBackoff : std::min(backoff * 2, options_.maxBackoff);
  }
}

void SyncEngine::schedulePassLocked(Clock::time_point due) {
  if (stopping_) return;
  if (passScheduled_ && passDue_ <= due) return;
  passScheduled_ = true;
  passDue_ = due;
  const std::uint64_t ticket = ++passTicket_;
  worker_->after(due - Clock::now(), [this, ticket] {
    {
      std::lock_guard lock(mutex_);
      if (ticket != passTicket_) return;  // superseded by an earlier one, or the session ended
      passScheduled_ = false;
    }
    runPass();
  });
}

void SyncEngine::noteLocalChange(const std::string& store) {
  std::lock_guard lock(mutex_);
  if (accountId_.empty()) return;
  stores_[store].wantPush = true;
  // While offline, a local change waits for the retry instead of trying again at once.
  schedulePassLocked(offline_ && passScheduled_ ? passDue_ : Clock::now());
}

void SyncEngine::synchronize(SyncReplyHandler done) {
  {
    std::lock_guard lock(mutex_);
    if (!accountId_.empty()) {
      if (done) waiters_.push_back(std::move(done));
      fullPassWanted_ = true;
      schedulePassLocked(Clock::now());
      return;
    }
  }
  if (done) done(SyncReply{});  // no account: nothing to do, done
}

void SyncEngine::storesReset() {
  std::lock_guard lock(mutex_);
  if (accountId_.empty()) return;
  stores_.clear();
  fullPassWanted_ = true;
  schedulePassLocked(Clock::now());
}

void SyncEngine::runPass() {
  bool full = false;
  std::vector<SyncReplyHandler> waiters;
  std::map<std::string, std::pair<bool, bool>> work;  // store -> (pull, push)
  {
    std::lock_guard lock(mutex_);
    if (accountId_.empty() || client_ == nullptr) return;
    full = fullPassWanted_;
    fullPassWanted_ = false;
    waiters.swap(waiters_);
    for (auto& [name, state] : stores_) {
      if (state.wantPull || state.wantPush) work[name] = {state.wantPull, state.wantPush};
      state.wantPull = state.wantPush = false;
    }
  }

  SyncCallResult failure;
  if (full) {
    syncpb::ListStoresReply list;
    failure = client_->listStores(&list);
    if (failure.ok()) {
      std::map<std::string, std::int64_t> known;
      {
        std::lock_guard lock(mutex_);
        for (const auto& [name, state] : stores_) known[name] = state.revision;
      }
      for (const std::string& name : host_.localStoreNames()) work[name].second = true;
      for (const syncpb::StoreState& server : list.stores()) {
        auto it = known.find(server.store());
        const bool behind = it == known.end() || it->second < 0 || server.revision() > it->second;
        std::pair<bool, bool>& wanted = work[server.store()];
        wanted.first = wanted.first || behind;
        wanted.second = true;
      }
    }
  }

  std::vector<std::string> remaining;
  for (const auto& [name, wanted] : work) remaining.push_back(name);
  std::size_t done = 0;
  if (failure.ok()) {
    for (; done < remaining.size(); ++done) {
      const std::string& name = remaining[done];
      const SyncCallResult result = syncStore(name, work[name].first);
      if (result.status == SyncCallStatus::Unreachable || result.status == SyncCallStatus::Unauthenticated ||
          result.status == SyncCallStatus::Cancelled) {
        failure = result;
        break;
      }
      if (!result.ok()) {
        // One store's trouble (a write failure, a server bug) holds up no other.
        log().log(LogLevel::Error, "velmorad sync: " + name + ": " + result.message);
        std::lock_guard lock(mutex_);
        stores_[name].lastError = result.message;
      }
    }
  }

  {
    std::lock_guard lock(mutex_);
    if (failure.ok()) {
      if (offline_) log().log(LogLevel::Default, "velmorad sync: the server is reachable again");
      if (!connected_) {
        // The server answers: the watch need not sit out its backoff.
        watchRetryNow_ = true;
        watchWake_.notify_all();
      }
      offline_ = false;
      backoff_ = options_.minBackoff;
      lastError_.clear();
    } else if (failure.status != SyncCallStatus::Cancelled && !accountId_.empty()) {
      if (!offline_) log().log(LogLevel::Default, "velmorad sync: cannot reach the server: " + failure.message);
      offline_ = true;
      lastError_ = failure.message;
      // Put the unfinished work back and try again later.
      if (full) fullPassWanted_ = true;
      for (std::size_t i = done; i < remaining.size(); ++i) {
        StoreState& state = stores_[remaining[i]];
        state.wantPull = state.wantPull || work[remaining[i]].first;
        state.wantPush = state.wantPush || work[remaining[i]].second;
      }
      const std::chrono::milliseconds delay = backoff_;
      backoff_ = std::min(backoff_ * 2, options_.maxBackoff);
      schedulePassLocked(Clock::now() + delay);
    }
  }
  const SyncReply reply = failure.ok() ? SyncReply{} : SyncReply{failureOf(failure), failure.message, {}};
  for (SyncReplyHandler& handler : waiters) handler(reply);
}

SyncCallResult SyncEngine::syncStore(const std::string& name, bool pull) {
  std::string accountId;
  std::string device;
  std::int64_t knownRevision = -1;
  {
    std::lock_guard lock(mutex_);
    accountId = accountId_;
    device = account_.device;
    knownRevision = stores_[name].revision;
  }

  // A look at the store: does it still need its initial sync with this
  // account, and from which revision on do we pull?
  bool initial = false;
  bool accountChange = false;
  bool exists = false;
  std::int64_t fileRevision = 0;
  bool notify = false;
  host_.withStore(name, [&](Store& store) {
    PropertyList contents = store.contents();
    const PlistDictionary* dict = &dictionaryOf(contents);
    exists = std::filesystem::exists(store.path());
    std::optional<std::string> version = versionOf(*dict);
    if (version && *version != accountId) {
      notify = store.applyServerEdit(accountResetEdit(*dict)).written;
      contents = store.contents();
      dict = &dictionaryOf(contents);
      version.reset();
    }
    initial = !version;
    const StoreSyncState state = StoreSyncState::of(*dict);
    accountChange = state.accountChange;
    fileRevision = state.revision;
  });
  if (notify) host_.notifyStoresChanged();
  if (!exists && !pull) return {};  // nothing here, nothing asked from there

  if (pull || initial) {
    std::int64_t cursor = initial ? 0 : std::max(knownRevision, fileRevision);
    std::vector<RemoteRecord> records;
    std::vector<std::string> problems;
    // One record per key, the latest; a pull that brings more keys than a
    // store could ever hold is cut short rather than kept whole in memory.
    std::unordered_map<std::string, std::size_t> slots;
    const StoreLimits limits;
    const std::size_t maxKeys = static_cast<std::size_t>(std::max<std::int64_t>(limits.maxKeyCount, 0)) * 2;
    bool overflowed = false;
    for (;;) {
      syncpb::PullRequest request;
      request.set_store(name);
      request.set_since_revision(cursor);
      syncpb::PullReply reply;
      const SyncCallResult result = client_->pull(request, &reply);
      if (!result.ok()) return result;
      for (const syncpb::Record& record : reply.records()) {
        std::string error;
        std::optional<RemoteRecord> remote = decodeRemoteRecord(record, &error, limits);
        if (!remote) {
          problems.push_back(error);
          continue;
        }
        auto [slot, added] = slots.try_emplace(remote->key, records.size());
        if (!added) {
          if (remote->revision >= records[slot->second].revision) records[slot->second] = std::move(*remote);
        } else if (records.size() < maxKeys) {
          records.push_back(std::move(*remote));
        } else {
          slots.erase(slot);
          overflowed = true;
        }
      }
      const bool progressed = reply.revision() > cursor;
      cursor = std::max(cursor, reply.revision());
      if (reply.complete() || !progressed) break;
    }
    if (overflowed) problems.push_back("the server sent more keys than the store can hold; the rest were left out");
    logProblems(name, problems);
    problems.clear();

    ApplyOutcome outcome;
    bool skipped = false;
    host_.withStore(name, [&](Store& store) {
      const PropertyList contents = store.contents();
      const PlistDictionary& dict = dictionaryOf(contents);
      // Logout and login run on this thread, so the account cannot have
      // changed since the look above; a client may have written meanwhile,
      // which the merge sees.
      // After a reset for another account, the values its initial sync
      // brings are that switch's doing too: applications hear of them as an
      // account change, like the keys the reset removed.
      const std::int32_t code = !initial ? kJournalChangedElsewhere
                                : accountChange ? kJournalAccountChange
                                                : kJournalInitialSync;
      ServerEdit edit = mergeRemoteRecords(dict, records, code, &problems, limits);
      if (initial) {
        if (edit.records.empty() && !std::filesystem::exists(store.path())) {
          skipped = true;  // the server holds nothing for a store that has no file here
          return;
        }
        StoreSyncState state = edit.syncState.value_or(StoreSyncState::of(dict));
        state.accountChange = false;
        state.revision = cursor;
        edit.syncState = state;
        edit.versionId = accountId;
        edit.markInitialSync = true;
      } else if (!edit.records.empty() || edit.syncState) {
        // The revision is saved only with a write that happens anyway: pulling
        // again from an older one after a restart changes nothing.
        StoreSyncState state = edit.syncState.value_or(StoreSyncState::of(dict));
        state.revision = cursor;
        edit.syncState = state;
      }
      outcome = store.applyServerEdit(edit);
    });
    logProblems(name, problems);
    if (!skipped && !outcome.accepted) return {SyncCallStatus::Failed, outcome.error};
    if (outcome.written) host_.notifyStoresChanged();
    {
      std::lock_guard lock(mutex_);
      StoreState& state = stores_[name];
      state.revision = std::max(state.revision, cursor);
      state.lastSync = std::chrono::system_clock::now();
      state.lastError.clear();
    }
    if (initial) {
      log().logf(LogLevel::Default, "velmorad sync: initial sync of %s: %zu records", name.c_str(), records.size());
    }
  }
  return pushPending(name);
}

SyncCallResult SyncEngine::pushPending(const std::string& name) {
  std::string device;
  {
    std::lock_guard lock(mutex_);
    device = account_.device;
  }
  std::set<std::string> attempted;  // each key once per pass; a later change asks for another
  for (int round = 0; round < kMaxPushRounds; ++round) {
    PushBatch batch;
    host_.withStore(name, [&](Store& store) {
      const PropertyList contents = store.contents();
      batch = collectPending(dictionaryOf(contents), name, device, options_.pushBatchSize, attempted);
    });
    if (batch.empty()) break;
    syncpb::PushReply reply;
    const SyncCallResult result = client_->push(batch.request, &reply);
    if (!result.ok()) return result;
    for (const auto& [key, item] : batch.items) attempted.insert(key);

    std::vector<std::string> problems;
    ApplyOutcome outcome;
    host_.withStore(name, [&](Store& store) {
      const PropertyList contents = store.contents();
      outcome = store.applyServerEdit(applyPushResults(dictionaryOf(contents), batch, reply, &problems));
    });
    logProblems(name, problems);
    if (!outcome.accepted) return {SyncCallStatus::Failed, outcome.error};
    if (outcome.written) host_.notifyStoresChanged();
  }
  std::lock_guard lock(mutex_);
  StoreState& state = stores_[name];
  state.lastSync = std::chrono::system_clock::now();
  state.lastError.clear();
  return {};
}

void SyncEngine::resetForeignStores(const std::string& accountId) {
  bool notify = false;
  for (const std::string& name : host_.localStoreNames()) {
    host_.withStore(name, [&](Store& store) {
      const PropertyList contents = store.contents();
      const PlistDictionary& dict = dictionaryOf(contents);
      std::optional<std::string> version = versionOf(dict);
      if (!version || *version == accountId) return;
      const ApplyOutcome outcome = store.applyServerEdit(accountResetEdit(dict));
      notify = notify || outcome.written;
      if (!outcome.accepted) log().log(LogLevel::Error, "velmorad sync: resetting " + name + ": " + outcome.error);
    });
  }
  if (notify) host_.notifyStoresChanged();
}

void SyncEngine::login(std::string server, std::string token, SyncReplyHandler done) {
  worker_->async([this, server = std::move(server), token = std::move(token), done = std::move(done)] {
    std::string error;
    if (server.empty() || token.empty() || !parseServerUrl(server, &error)) {
      done(SyncReply{SyncFailure::BadRequest, error.empty() ? "login needs a server and a token" : error, {}});
      return;
    }
    AccountConfig account;
    {
      std::lock_guard lock(mutex_);
      account = account_;
    }
    if (account.device.empty()) account.device = newDeviceIdentifier();
    account.server = server;
    account.token = token;
    std::unique_ptr<SyncClient> client = factory_(account, &error);
    if (!client) {
      done(SyncReply{SyncFailure::BadRequest, error, {}});
      return;
    }
    // The token is checked before anything changes here.
    syncpb::ListStoresReply ignored;
    const SyncCallResult check = client->listStores(&ignored);
    if (!check.ok()) {
      done(SyncReply{failureOf(check), "the server refused the login: " + check.message, {}});
      return;
    }
    if (!configPath_ || !saveAccountConfig(*configPath_, account, &error)) {
      done(SyncReply{SyncFailure::WriteFailed, configPath_ ? error : "no home directory for the account file", {}});
      return;
    }
    endSession();
    {
      std::lock_guard lock(mutex_);
      account_ = account;
    }
    const std::string accountId = account.accountIdentifier();
    resetForeignStores(accountId);
    beginSession(account, std::move(client));
    log().log(LogLevel::Default, "velmorad sync: logged into " + server + " (" + accountId + ")");
    done(SyncReply{SyncFailure::None, {},
                   velmora::makeDictionary({{"account", PropertyList::string(accountId)},
                                            {"server", PropertyList::string(server)},
                                            {"device", PropertyList::string(account.device)}})});
  });
}

void SyncEngine::logout(SyncReplyHandler done) {
  worker_->async([this, done = std::move(done)] {
    endSession();
    AccountConfig account;
    {
      std::lock_guard lock(mutex_);
      account = account_;
    }
    if (account.loggedIn()) {
      account.server.clear();
      account.token.clear();
      std::string error;
      if (!configPath_ || !saveAccountConfig(*configPath_, account, &error)) {
        done(SyncReply{SyncFailure::WriteFailed, error, {}});
        return;
      }
      log().log(LogLevel::Default, "velmorad sync: logged out");
    }
    {
      std::lock_guard lock(mutex_);
      account_ = account;
    }
    done(SyncReply{});
  });
}

std::string SyncEngine::describe(const std::string& store) {
  std::lock_guard lock(mutex_);
  std::ostringstream out;
  if (!account_.loggedIn()) {
    out << "Account: none (no server configured)\n";
    return out.str();
  }
  out << "Account: " << account_.accountIdentifier() << " on " << account_.server << ", device " << account_.device
      << "\n";
  out << "Connection: " << (connected_ ? "watching" : offline_ ? "offline" : "not watching")
      << (lastError_.empty() ? "" : " (" + lastError_ + ")") << "\n";
  auto it = stores_.find(store);
  out << "Last sync: "
      << (it != stores_.end() && it->second.lastSync ? isoTime(*it->second.lastSync) : std::string("never"))
      << "\n";
  return out.str();
}

PropertyList SyncEngine::status() {
  AccountConfig account;
  bool connected = false;
  bool offline = false;
  std::string lastError;
  std::map<std::string, StoreState> stores;
  {
    std::lock_guard lock(mutex_);
    account = account_;
    connected = connected_;
    offline = offline_;
    lastError = lastError_;
    stores = stores_;
  }
  std::set<std::string> names;
  for (const std::string& name : host_.localStoreNames()) names.insert(name);
  for (const auto& [name, state] : stores) names.insert(name);

  std::ostringstream text;
  if (account.loggedIn()) {
    text << "Account: " << account.accountIdentifier() << "\nServer: " << account.server
         << "\nDevice: " << account.device << "\nConnection: "
         << (connected ? "watching" : offline ? "offline" : "not watching")
         << (lastError.empty() ? "" : " (" + lastError + ")") << "\n";
  } else {
    text << "Account: none (not logged in)\n";
  }
  velmora::PlistArray storeList;
  for (const std::string& name : names) {
    std::size_t pending = 0;
    std::int64_t revision = 0;
    host_.withStore(name, [&](Store& store) {
      const PropertyList contents = store.contents();
      pending = countPending(dictionaryOf(contents));
      revision = StoreSyncState::of(dictionaryOf(contents)).revision;
    });
    PlistDictionary entry{{"store", PropertyList::string(name)},
                          {"pending", PropertyList::integer(static_cast<std::int64_t>(pending))}};
    std::string lastSyncText = "never";
    if (auto it = stores.find(name); it != stores.end()) {
      revision = std::max(revision, it->second.revision);
      if (it->second.lastSync) {
        entry.emplace("lastSync", PropertyList::date(secondsSince2001(*it->second.lastSync)));
        lastSyncText = isoTime(*it->second.lastSync);
      }
    }
    entry.emplace("revision", PropertyList::integer(revision));
    storeList.push_back(PropertyList::dictionary(std::move(entry)));
    text << "Store " << name << ": last sync " << lastSyncText << ", " << pending << " pending change"
         << (pending == 1 ? "" : "s") << "\n";
  }

  PlistDictionary result{{"loggedIn", PropertyList::boolean(account.loggedIn())},
                         {"connected", PropertyList::boolean(connected)},
                         {"stores", PropertyList::array(std::move(storeList))},
                         {"description", PropertyList::string(text.str())}};
  if (!account.device.empty()) result.emplace("device", PropertyList::string(account.device));
  if (account.loggedIn()) {
    result.emplace("server", PropertyList::string(account.server));
    result.emplace("account", PropertyList::string(account.accountIdentifier()));
  }
  if (!lastError.empty()) result.emplace("lastError", PropertyList::string(lastError));
  return PropertyList::dictionary(std::move(result));
}

}  // namespace velmorad
