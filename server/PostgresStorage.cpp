// PostgresStorage (see PostgresStorage.h for the design note).
#include "PostgresStorage.h"

#include <endian.h>
#include <libpq-fe.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <atomic>
#include <charconv>
#include <cstdlib>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <random>
#include <thread>
#include <utility>
#include <vector>

#include "StorageSupport.h"
#include "velmora/platform/Log.h"

namespace velmora::server {
namespace {

const velmora::LogHandle& log() {
  static const velmora::LogHandle handle("com.vantrel.velmora.server", "Storage");
  return handle;
}

constexpr const char* kChannel = "velmora_sync";
constexpr std::int64_t kSchemaLockKey = 0x76656c6d6f7261;  // serialises schema creation between nodes

constexpr const char* kSchema = R"sql(
CREATE TABLE IF NOT EXISTS schema_info (version INTEGER NOT NULL);
CREATE TABLE IF NOT EXISTS accounts (
  id BIGINT GENERATED ALWAYS AS IDENTITY PRIMARY KEY,
  name TEXT NOT NULL UNIQUE,
  token_hash TEXT NOT NULL UNIQUE,
  revision BIGINT NOT NULL DEFAULT 0);
CREATE TABLE IF NOT EXISTS stores (
  account_id BIGINT NOT NULL REFERENCES accounts (id),
  store TEXT NOT NULL,
  revision BIGINT NOT NULL,
  live_keys BIGINT NOT NULL,
  data_sum BIGINT NOT NULL,
  PRIMARY KEY (account_id, store));
CREATE TABLE IF NOT EXISTS records (
  account_id BIGINT NOT NULL,
  store TEXT NOT NULL,
  key TEXT NOT NULL,
  value BYTEA NOT NULL,
  gzipped BOOLEAN NOT NULL,
  timestamp BIGINT NOT NULL,
  deleted BOOLEAN NOT NULL,
  origin_device TEXT NOT NULL,
  revision BIGINT NOT NULL,
  size BIGINT NOT NULL,
  written_at BIGINT NOT NULL DEFAULT 0,
  PRIMARY KEY (account_id, store, key));
CREATE INDEX IF NOT EXISTS records_by_revision ON records (account_id, store, revision);
CREATE INDEX IF NOT EXISTS records_deleted ON records (account_id, store, revision) WHERE deleted;
CREATE TABLE IF NOT EXISTS server_state (token_generation BIGINT NOT NULL);
INSERT INTO server_state SELECT 0 WHERE NOT EXISTS (SELECT 1 FROM server_state);
)sql";

// What a version 1 database needs besides kSchema: its deletion records
// count as written now.
constexpr const char* kMigrateFrom1 = R"sql(
ALTER TABLE records ADD COLUMN written_at BIGINT NOT NULL DEFAULT 0;
UPDATE records SET written_at = extract(epoch FROM now())::bigint - 978307200 WHERE deleted;
UPDATE schema_info SET version = 2;
)sql";

#define RECORD_COLUMNS "key, value, gzipped, timestamp, deleted, origin_device, revision, size, written_at"

// The prepared statements every pool connection carries.
struct PreparedSql {
  const char* name;
  const char* sql;
};
constexpr PreparedSql kStatements[] = {
    {"account_add", "INSERT INTO accounts (name, token_hash) VALUES ($1, $2) RETURNING id"},
    {"account_by_hash", "SELECT id, name FROM accounts WHERE token_hash = $1"},
    {"account_revision", "SELECT revision FROM accounts WHERE id = $1"},
    {"account_replace_token",
     "WITH a AS (UPDATE accounts SET token_hash = $2 WHERE name = $1 RETURNING id),"
     " g AS (UPDATE server_state SET token_generation = token_generation + 1 WHERE EXISTS (SELECT 1 FROM a))"
     " SELECT id FROM a"},
    {"token_generation", "SELECT token_generation FROM server_state"},
    {"account_lock",
     "SELECT a.revision, coalesce(s.live_keys, 0), coalesce(s.data_sum, 0), s.store IS NOT NULL FROM accounts a"
     " LEFT JOIN stores s ON s.account_id = a.id AND s.store = $2 WHERE a.id = $1 FOR UPDATE OF a"},
    {"record_get", "SELECT " RECORD_COLUMNS " FROM records WHERE account_id = $1 AND store = $2 AND key = $3"},
    {"record_put",
     "INSERT INTO records (account_id, store, key, value, gzipped, timestamp, deleted, origin_device, revision, size,"
     " written_at) VALUES ($1, $2, $3, $4, $5, $6, $7, $8, $9, $10, $11)"
     " ON CONFLICT (account_id, store, key) DO UPDATE SET value = excluded.value, gzipped = excluded.gzipped,"
     " timestamp = excluded.timestamp, deleted = excluded.deleted, origin_device = excluded.origin_device,"
     " revision = excluded.revision, size = excluded.size, written_at = excluded.written_at"},
    {"store_count", "SELECT count(*) FROM stores WHERE account_id = $1"},
    {"deleted_count", "SELECT count(*) FROM records WHERE account_id = $1 AND store = $2 AND deleted"},
    {"deleted_drop_oldest",
     "DELETE FROM records WHERE account_id = $1 AND store = $2 AND key = (SELECT key FROM records"
     " WHERE account_id = $1 AND store = $2 AND deleted ORDER BY revision LIMIT 1) RETURNING key"},
    {"prune_accounts", "SELECT DISTINCT account_id FROM records WHERE deleted AND written_at < $1"},
    {"prune_lock", "SELECT id FROM accounts WHERE id = $1 FOR UPDATE"},
    {"prune_records", "DELETE FROM records WHERE account_id = $1 AND deleted AND written_at < $2"},
    {"prune_stores",
     "DELETE FROM stores s WHERE s.account_id = $1 AND s.live_keys = 0 AND NOT EXISTS (SELECT 1 FROM records r"
     " WHERE r.account_id = s.account_id AND r.store = s.store)"},
    // The store's usage, the account's revision and the other nodes' notice, in one round trip.
    {"store_finish",
     "WITH s AS (INSERT INTO stores (account_id, store, revision, live_keys, data_sum) VALUES ($1, $2, $3, $4, $5)"
     " ON CONFLICT (account_id, store) DO UPDATE SET revision = excluded.revision,"
     " live_keys = excluded.live_keys, data_sum = excluded.data_sum),"
     " a AS (UPDATE accounts SET revision = $3 WHERE id = $1)"
     " SELECT pg_notify('velmora_sync', $6)"},
    {"pull",
     "SELECT " RECORD_COLUMNS " FROM records WHERE account_id = $1 AND store = $2 AND revision > $3"
     " ORDER BY revision LIMIT $4"},
    {"list_stores", "SELECT store, revision FROM stores WHERE account_id = $1 ORDER BY store"},
};

// One statement parameter: text, or binary bytes (for bytea).
struct Param {
  std::string data;
  bool binary = false;
};
Param param(std::int64_t value) { return {std::to_string(value)}; }
Param param(std::string value) { return {std::move(value)}; }
Param param(bool value) { return {value ? "t" : "f"}; }
Param bytesParam(std::string value) { return {std::move(value), true}; }

// An owned query result (binary format), cleared on destruction.
class PgResult {
 public:
  explicit PgResult(PGresult* result) : result_(result) {}
  ~PgResult() { PQclear(result_); }
  PgResult(PgResult&& other) noexcept : result_(std::exchange(other.result_, nullptr)) {}
  PgResult& operator=(PgResult&&) = delete;

  PGresult* raw() const { return result_; }
  int rows() const { return PQntuples(result_); }
  std::string text(int row, int column) const {
    return std::string(PQgetvalue(result_, row, column), static_cast<std::size_t>(PQgetlength(result_, row, column)));
  }
  std::int64_t integer(int row, int column) const {
    std::uint64_t big = 0;
    if (PQgetlength(result_, row, column) == 8) std::memcpy(&big, PQgetvalue(result_, row, column), 8);
    return static_cast<std::int64_t>(be64toh(big));
  }
  bool boolean(int row, int column) const {
    return PQgetlength(result_, row, column) == 1 && PQgetvalue(result_, row, column)[0] != 0;
  }
  RecordRow recordRow(int row) const {
    RecordRow record;
    record.key = text(row, 0);
    record.value = text(row, 1);
    record.gzipped = boolean(row, 2);
    record.timestamp = integer(row, 3);
    record.deleted = boolean(row, 4);
    record.originDevice = text(row, 5);
    record.revision = integer(row, 6);
    record.size = integer(row, 7);
    record.writtenAt = integer(row, 8);
    return record;
  }

 private:
  PGresult* result_;
};

// The failure text of result on conn ("postgres: ..." without the newline).
std::string errorText(PGconn* conn, PGresult* result) {
  std::string message = result != nullptr ? PQresultErrorMessage(result) : "";
  if (message.empty()) message = PQerrorMessage(conn);
  while (!message.empty() && (message.back() == '\n' || message.back() == ' ')) message.pop_back();
  return "postgres: " + message;
}

// Runs a prepared statement with binary results. Failure carries the
// server's message; *sqlState (when given) receives its SQLSTATE.
Result<PgResult> runPrepared(PGconn* conn, const char* name, const std::vector<Param>& params,
                             std::string* sqlState = nullptr) {
  std::vector<const char*> values;
  std::vector<int> lengths;
  std::vector<int> formats;
  values.reserve(params.size());
  lengths.reserve(params.size());
  formats.reserve(params.size());
  for (const Param& p : params) {
    values.push_back(p.data.data());
    lengths.push_back(static_cast<int>(p.data.size()));
    formats.push_back(p.binary ? 1 : 0);
  }
  PgResult result(PQexecPrepared(conn, name, static_cast<int>(params.size()), values.data(), lengths.data(),
                                 formats.data(), 1));
  const ExecStatusType status = PQresultStatus(result.raw());
  if (status == PGRES_TUPLES_OK || status == PGRES_COMMAND_OK) return result;
  if (sqlState != nullptr) {
    const char* state = PQresultErrorField(result.raw(), PG_DIAG_SQLSTATE);
    *sqlState = state != nullptr ? state : "";
  }
  return Result<PgResult>::failure(errorText(conn, result.raw()));
}

// Runs plain SQL (no parameters, no rows wanted).
Result<Done> runSimple(PGconn* conn, const char* sql) {
  PgResult result(PQexec(conn, sql));
  const ExecStatusType status = PQresultStatus(result.raw());
  if (status == PGRES_COMMAND_OK || status == PGRES_TUPLES_OK) return Done{};
  return Result<Done>::failure(errorText(conn, result.raw()));
}

// Connects and checks the connection; nullptr with *error set on failure.
PGconn* connect(const std::string& conninfo, std::string* error) {
  PGconn* conn = PQconnectdb(conninfo.c_str());
  if (conn != nullptr && PQstatus(conn) == CONNECTION_OK) {
    // Notices ("relation exists, skipping") are not errors and go nowhere.
    PQsetNoticeProcessor(conn, [](void*, const char*) {}, nullptr);
    return conn;
  }
  *error = conn != nullptr ? errorText(conn, nullptr) : "postgres: out of memory";
  PQfinish(conn);
  return nullptr;
}

// Makes the prepared statements on a fresh (or reset) connection.
Result<Done> prepareAll(PGconn* conn) {
  for (const PreparedSql& statement : kStatements) {
    PgResult result(PQprepare(conn, statement.name, statement.sql, 0, nullptr));
    if (PQresultStatus(result.raw()) != PGRES_COMMAND_OK) return Result<Done>::failure(errorText(conn, result.raw()));
  }
  return Done{};
}

// The NOTIFY payload: "node account revision deviceLength device" followed
// by the store, so that neither name needs escaping.
std::string encodePayload(const std::string& node, const ChangeNotice& notice) {
  return node + ' ' + std::to_string(notice.accountId) + ' ' + std::to_string(notice.revision) + ' ' +
         std::to_string(notice.originDevice.size()) + ' ' + notice.originDevice + notice.store;
}

// Reads a payload; nullopt when malformed. *node receives the sender's id.
std::optional<ChangeNotice> decodePayload(std::string_view payload, std::string* node) {
  auto word = [&payload]() -> std::optional<std::string_view> {
    const std::size_t space = payload.find(' ');
    if (space == std::string_view::npos) return std::nullopt;
    std::string_view head = payload.substr(0, space);
    payload.remove_prefix(space + 1);
    return head;
  };
  auto number = [](std::optional<std::string_view> text) -> std::optional<std::int64_t> {
    std::int64_t value = 0;
    if (!text) return std::nullopt;
    auto [end, ec] = std::from_chars(text->data(), text->data() + text->size(), value);
    if (ec != std::errc() || end != text->data() + text->size()) return std::nullopt;
    return value;
  };
  std::optional<std::string_view> sender = word();
  std::optional<std::int64_t> account = number(word());
  std::optional<std::int64_t> revision = number(word());
  std::optional<std::int64_t> deviceLength = number(word());
  if (!sender || !account || !revision || !deviceLength || *deviceLength < 0 ||
      static_cast<std::size_t>(*deviceLength) > payload.size()) {
    return std::nullopt;
  }
  *node = std::string(*sender);
  ChangeNotice notice;
  notice.accountId = *account;
  notice.revision = *revision;
  notice.originDevice = std::string(payload.substr(0, static_cast<std::size_t>(*deviceLength)));
  notice.store = std::string(payload.substr(static_cast<std::size_t>(*deviceLength)));
  return notice;
}

class PostgresStorage final : public Storage {
 public:
  PostgresStorage(std::string conninfo, std::vector<PGconn*> pool)
      : conninfo_(std::move(conninfo)), connections_(std::move(pool)), free_(connections_) {
    std::random_device random;
    const std::uint64_t id = (static_cast<std::uint64_t>(random()) << 32) ^ random();
    char text[17];
    std::snprintf(text, sizeof text, "%016llx", static_cast<unsigned long long>(id));
    nodeId_ = text;
  }
  ~PostgresStorage() override { close(); }

  Result<Account> addAccount(const std::string& name, const std::string& tokenHash) override {
    return withConnection<Account>([&](PGconn* conn) -> Result<Account> {
      std::string state;
      Result<PgResult> inserted = runPrepared(conn, "account_add", {param(name), param(tokenHash)}, &state);
      if (!inserted) {
        if (state == "23505") return Result<Account>::failure("an account named \"" + name + "\" exists");
        return Result<Account>::failure(inserted.error());
      }
      return Account{inserted->integer(0, 0), name};
    });
  }

  Result<std::optional<Account>> accountForTokenHash(const std::string& tokenHash) override {
    using R = Result<std::optional<Account>>;
    return withConnection<std::optional<Account>>([&](PGconn* conn) -> R {
      Result<PgResult> found = runPrepared(conn, "account_by_hash", {param(tokenHash)});
      if (!found) return R::failure(found.error());
      if (found->rows() == 0) return std::optional<Account>();
      return std::optional<Account>(Account{found->integer(0, 0), found->text(0, 1)});
    });
  }

  Result<Done> replaceTokenHash(const std::string& name, const std::string& tokenHash) override {
    return withConnection<Done>([&](PGconn* conn) -> Result<Done> {
      Result<PgResult> replaced = runPrepared(conn, "account_replace_token", {param(name), param(tokenHash)});
      if (!replaced) return Result<Done>::failure(replaced.error());
      if (replaced->rows() == 0) return Result<Done>::failure("no account named \"" + name + "\"");
      return Done{};
    });
  }

  Result<std::int64_t> tokenGeneration() override {
    return withConnection<std::int64_t>([&](PGconn* conn) -> Result<std::int64_t> {
      Result<PgResult> generation = runPrepared(conn, "token_generation", {});
      if (!generation) return Result<std::int64_t>::failure(generation.error());
      if (generation->rows() != 1) return Result<std::int64_t>::failure("postgres: no token generation");
      return generation->integer(0, 0);
    });
  }

  Result<std::int64_t> pruneDeletions(std::int64_t writtenBefore) override {
    using R = Result<std::int64_t>;
    using Ids = std::vector<std::int64_t>;
    Result<Ids> accounts = withConnection<Ids>([&](PGconn* conn) -> Result<Ids> {
      Result<PgResult> rows = runPrepared(conn, "prune_accounts", {param(writtenBefore)});
      if (!rows) return Result<Ids>::failure(rows.error());
      Ids ids;
      for (int i = 0; i < rows->rows(); ++i) ids.push_back(rows->integer(i, 0));
      return ids;
    });
    if (!accounts) return R::failure(accounts.error());
    std::int64_t pruned = 0;
    for (const std::int64_t account : accounts.value()) {
      // Under the account's lock, like a push, one account per transaction.
      Result<std::int64_t> removed = withConnection<std::int64_t>([&](PGconn* conn) -> R {
        if (Result<Done> begun = runSimple(conn, "BEGIN"); !begun) return R::failure(begun.error());
        Result<PgResult> locked = runPrepared(conn, "prune_lock", {param(account)});
        Result<PgResult> records =
            locked ? runPrepared(conn, "prune_records", {param(account), param(writtenBefore)}) : std::move(locked);
        Result<PgResult> stores = records ? runPrepared(conn, "prune_stores", {param(account)}) : std::move(records);
        Result<Done> committed = stores ? runSimple(conn, "COMMIT") : Result<Done>::failure(stores.error());
        if (!committed) {
          runSimple(conn, "ROLLBACK");
          return R::failure(committed.error());
        }
        return std::atoll(PQcmdTuples(records->raw()));
      });
      if (!removed) return removed;
      pruned += removed.value();
    }
    return pruned;
  }

  Result<UpdateOutcome> updateStore(std::int64_t accountId, const std::string& store, const std::string& device,
                                    const std::function<bool(StoreTransaction&)>& body) override {
    using R = Result<UpdateOutcome>;
    return withConnection<UpdateOutcome>([&](PGconn* conn) -> R {
      if (Result<Done> begun = runSimple(conn, "BEGIN"); !begun) return R::failure(begun.error());
      R outcome = updateInTransaction(conn, accountId, store, device, body);
      if (outcome) {
        Result<Done> committed = runSimple(conn, "COMMIT");
        if (committed) return outcome;
        outcome = R::failure(committed.error());
      }
      runSimple(conn, "ROLLBACK");
      return outcome;
    });
  }

  Result<PullPage> pull(std::int64_t accountId, const std::string& store, std::int64_t since, int limit) override {
    using R = Result<PullPage>;
    return withConnection<PullPage>([&](PGconn* conn) -> R {
      // The revision first: every row up to it is visible to the query after
      // it (commits go in revision order), so it is a safe cursor.
      Result<PgResult> account = runPrepared(conn, "account_revision", {param(accountId)});
      if (!account) return R::failure(account.error());
      if (account->rows() == 0) return R::failure("no account " + std::to_string(accountId));
      const std::int64_t accountRevision = account->integer(0, 0);
      Result<PgResult> rows = runPrepared(
          conn, "pull", {param(accountId), param(store), param(since), param(static_cast<std::int64_t>(limit) + 1)});
      if (!rows) return R::failure(rows.error());
      PullPage page;
      const int count = std::min(rows->rows(), limit);
      page.records.reserve(static_cast<std::size_t>(count));
      for (int i = 0; i < count; ++i) page.records.push_back(rows->recordRow(i));
      if (rows->rows() > limit) {
        page.complete = false;
        page.cursor = page.records.empty() ? since : page.records.back().revision;
      } else {
        page.cursor = std::max(accountRevision, page.records.empty() ? 0 : page.records.back().revision);
      }
      return page;
    });
  }

  Result<std::vector<StoreRevision>> listStores(std::int64_t accountId) override {
    using R = Result<std::vector<StoreRevision>>;
    return withConnection<std::vector<StoreRevision>>([&](PGconn* conn) -> R {
      Result<PgResult> rows = runPrepared(conn, "list_stores", {param(accountId)});
      if (!rows) return R::failure(rows.error());
      std::vector<StoreRevision> stores;
      for (int i = 0; i < rows->rows(); ++i) stores.push_back({rows->text(i, 0), rows->integer(i, 1)});
      return stores;
    });
  }

  Result<std::int64_t> accountRevision(std::int64_t accountId) override {
    using R = Result<std::int64_t>;
    return withConnection<std::int64_t>([&](PGconn* conn) -> R {
      Result<PgResult> account = runPrepared(conn, "account_revision", {param(accountId)});
      if (!account) return R::failure(account.error());
      if (account->rows() == 0) return R::failure("no account " + std::to_string(accountId));
      return account->integer(0, 0);
    });
  }

  void setChangeListener(std::function<void(const ChangeNotice&)> onChange, std::function<void()> onReset) override {
    const bool attaching = static_cast<bool>(onChange);
    {
      std::lock_guard lock(listenerMutex_);
      onChange_ = std::move(onChange);
      onReset_ = std::move(onReset);
    }
    if (listener_.joinable() || !attaching) return;
    wakeFd_ = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (wakeFd_ < 0) {
      log().logf(LogLevel::Error, "cannot make an eventfd: %s; watchers will not hear of other nodes' changes",
                 std::strerror(errno));
      return;
    }
    // The first LISTEN before returning, so that a node reporting itself
    // ready already hears the others; later reconnections happen on the
    // listener thread.
    std::string error;
    PGconn* conn = connectListening(&error);
    if (conn == nullptr) log().logf(LogLevel::Error, "cannot listen for other nodes' changes (retrying): %s", error.c_str());
    listener_ = std::thread([this, conn] { listen(conn); });
  }

  void close() override {
    if (listener_.joinable()) {
      stopping_ = true;
      const std::uint64_t one = 1;
      [[maybe_unused]] ssize_t written = ::write(wakeFd_, &one, sizeof one);
      listener_.join();
    }
    if (wakeFd_ >= 0) ::close(wakeFd_);
    wakeFd_ = -1;
    std::lock_guard lock(poolMutex_);
    for (PGconn* conn : connections_) PQfinish(conn);
    connections_.clear();
    free_.clear();
  }

  // Exposed for the factory: prepares every pool connection.
  Result<Done> prepareConnections() {
    for (PGconn* conn : connections_) {
      if (Result<Done> prepared = prepareAll(conn); !prepared) return prepared;
    }
    return Done{};
  }

 private:
  // A pool connection borrowed for one call: reset first when broken, rolled
  // back when a previous user left a transaction open.
  class Lease {
   public:
    explicit Lease(PostgresStorage& owner) : owner_(owner) {
      {
        std::unique_lock lock(owner_.poolMutex_);
        owner_.poolReady_.wait(lock, [this] { return !owner_.free_.empty() || owner_.connections_.empty(); });
        if (owner_.free_.empty()) {
          error_ = "postgres: storage closed";
          return;
        }
        conn_ = owner_.free_.back();
        owner_.free_.pop_back();
      }
      if (PQstatus(conn_) != CONNECTION_OK) {
        reconnect();
      } else if (PQtransactionStatus(conn_) != PQTRANS_IDLE) {
        runSimple(conn_, "ROLLBACK");
      }
    }
    // Resets the connection and makes its statements again; false (with
    // error() set) when that fails.
    bool reconnect() {
      PQreset(conn_);
      if (PQstatus(conn_) != CONNECTION_OK) {
        error_ = errorText(conn_, nullptr);
        return false;
      }
      if (Result<Done> prepared = prepareAll(conn_); !prepared) {
        error_ = prepared.error();
        return false;
      }
      error_.clear();
      log().log(LogLevel::Default, "reconnected to PostgreSQL");
      return true;
    }
    ~Lease() {
      if (conn_ == nullptr) return;
      {
        std::lock_guard lock(owner_.poolMutex_);
        owner_.free_.push_back(conn_);
      }
      owner_.poolReady_.notify_one();
    }
    Lease(const Lease&) = delete;
    Lease& operator=(const Lease&) = delete;

    explicit operator bool() const { return error_.empty(); }
    const std::string& error() const { return error_; }
    PGconn* conn() const { return conn_; }

   private:
    PostgresStorage& owner_;
    PGconn* conn_ = nullptr;
    std::string error_;
  };

  // Runs body on a leased connection. A connection that turns out broken
  // (the server restarted since its last use) is reset and body runs once
  // more: nothing of the first run was committed, or, when the commit itself
  // was lost, the second run finds the same rows already written.
  template <typename T, typename Body>
  Result<T> withConnection(Body&& body) {
    Lease lease(*this);
    if (!lease) return Result<T>::failure(lease.error());
    Result<T> result = body(lease.conn());
    if (!result && PQstatus(lease.conn()) == CONNECTION_BAD) {
      if (!lease.reconnect()) return Result<T>::failure(lease.error());
      result = body(lease.conn());
    }
    return result;
  }

  class Transaction final : public BasicStoreTransaction {
   public:
    Transaction(PGconn* conn, std::int64_t accountId, const std::string& store, std::int64_t revision,
                StoreUsage usage, bool exists)
        : BasicStoreTransaction(revision, usage, exists), conn_(conn), accountId_(accountId), store_(store) {}

    Result<std::int64_t> storeCount() override { return count("store_count", {param(accountId_)}); }

   protected:
    Result<std::optional<RecordRow>> loadRecord(const std::string& key) override {
      using R = Result<std::optional<RecordRow>>;
      Result<PgResult> row = runPrepared(conn_, "record_get", {param(accountId_), param(store_), param(key)});
      if (!row) return R::failure(row.error());
      if (row->rows() == 0) return std::optional<RecordRow>();
      return std::optional<RecordRow>(row->recordRow(0));
    }

    Result<Done> writeRecord(const RecordRow& row) override {
      Result<PgResult> written = runPrepared(
          conn_, "record_put",
          {param(accountId_), param(store_), param(row.key), bytesParam(row.value), param(row.gzipped),
           param(row.timestamp), param(row.deleted), param(row.originDevice), param(row.revision), param(row.size),
           param(row.writtenAt)});
      if (!written) return Result<Done>::failure(written.error());
      return Done{};
    }

    Result<std::int64_t> countDeletedRecords() override {
      return count("deleted_count", {param(accountId_), param(store_)});
    }

    Result<std::optional<std::string>> deleteOldestDeletedRecord() override {
      using R = Result<std::optional<std::string>>;
      Result<PgResult> dropped = runPrepared(conn_, "deleted_drop_oldest", {param(accountId_), param(store_)});
      if (!dropped) return R::failure(dropped.error());
      if (dropped->rows() == 0) return std::optional<std::string>();
      return std::optional<std::string>(dropped->text(0, 0));
    }

   private:
    // The count(*) a prepared statement yields.
    Result<std::int64_t> count(const char* statement, const std::vector<Param>& params) {
      Result<PgResult> counted = runPrepared(conn_, statement, params);
      if (!counted) return Result<std::int64_t>::failure(counted.error());
      if (counted->rows() != 1) return Result<std::int64_t>::failure("postgres: no count");
      return counted->integer(0, 0);
    }

    PGconn* conn_;
    const std::int64_t accountId_;
    const std::string& store_;
  };

  // updateStore() after BEGIN, on a leased connection.
  Result<UpdateOutcome> updateInTransaction(PGconn* conn, std::int64_t accountId, const std::string& store,
                                            const std::string& device,
                                            const std::function<bool(StoreTransaction&)>& body) {
    using R = Result<UpdateOutcome>;
    Result<PgResult> locked = runPrepared(conn, "account_lock", {param(accountId), param(store)});
    if (!locked) return R::failure(locked.error());
    if (locked->rows() == 0) return R::failure("no account " + std::to_string(accountId));
    const std::int64_t revision = locked->integer(0, 0);
    Transaction transaction(conn, accountId, store, revision, {locked->integer(0, 1), locked->integer(0, 2)},
                            locked->boolean(0, 3));
    if (!body(transaction)) return R::failure("aborted");
    if (transaction.writes() == 0) return UpdateOutcome{revision, 0};

    const StoreUsage usage = transaction.usage();
    const std::string payload =
        encodePayload(nodeId_, ChangeNotice{accountId, store, transaction.revision(), device});
    Result<PgResult> finished =
        runPrepared(conn, "store_finish",
                    {param(accountId), param(store), param(transaction.revision()), param(usage.liveKeys),
                     param(usage.dataSum), param(payload)});
    if (!finished) return R::failure(finished.error());
    return UpdateOutcome{transaction.revision(), transaction.revision()};
  }

  // A new connection that LISTENs on the channel; nullptr with *error set.
  PGconn* connectListening(std::string* error) {
    PGconn* conn = connect(conninfo_, error);
    if (conn == nullptr) return nullptr;
    const std::string sql = std::string("LISTEN ") + kChannel;
    if (Result<Done> listening = runSimple(conn, sql.c_str()); !listening) {
      *error = listening.error();
      PQfinish(conn);
      return nullptr;
    }
    return conn;
  }

  // The listener thread: hand over foreign notices, reconnect with backoff
  // when the connection breaks. Owns conn.
  void listen(PGconn* conn) {
    bool missedNotices = conn == nullptr;
    int backoffMs = 100;
    while (!stopping_) {
      if (conn == nullptr) {
        if (!waitForWake(backoffMs)) break;
        std::string error;
        conn = connectListening(&error);
        if (conn == nullptr) {
          log().logf(LogLevel::Error, "cannot listen for other nodes' changes (retrying): %s", error.c_str());
          backoffMs = std::min(backoffMs * 2, 5000);
          continue;
        }
        backoffMs = 100;
        log().log(LogLevel::Default, "listening for other nodes' changes again");
      }
      if (missedNotices) {
        missedNotices = false;
        std::lock_guard lock(listenerMutex_);
        if (onReset_) onReset_();
      }
      pollfd fds[2] = {{PQsocket(conn), POLLIN, 0}, {wakeFd_, POLLIN, 0}};
      if (::poll(fds, 2, -1) < 0) {
        if (errno == EINTR) continue;
        break;
      }
      if (fds[1].revents != 0) break;
      if (PQconsumeInput(conn) == 0) {
        log().logf(LogLevel::Error, "lost the listening connection: %s", errorText(conn, nullptr).c_str());
        PQfinish(conn);
        conn = nullptr;
        missedNotices = true;
        continue;
      }
      while (PGnotify* notify = PQnotifies(conn)) {
        std::string sender;
        std::optional<ChangeNotice> notice =
            std::strcmp(notify->relname, kChannel) == 0 ? decodePayload(notify->extra, &sender) : std::nullopt;
        PQfreemem(notify);
        if (!notice || sender == nodeId_) continue;
        std::lock_guard lock(listenerMutex_);
        if (onChange_) onChange_(*notice);
      }
    }
    PQfinish(conn);
  }

  // Sleeps up to ms; false when woken to stop.
  bool waitForWake(int ms) {
    pollfd fd{wakeFd_, POLLIN, 0};
    return ::poll(&fd, 1, ms) == 0 && !stopping_;
  }

  const std::string conninfo_;
  std::string nodeId_;                              // immutable after construction
  std::mutex poolMutex_;
  std::condition_variable poolReady_;               // signalled when a connection returns to free_
  std::vector<PGconn*> connections_;                // guarded by poolMutex_ (changed only by close())
  std::vector<PGconn*> free_;                       // guarded by poolMutex_
  // Held while a callback runs, so that replacing the callbacks waits for
  // the one in progress.
  std::mutex listenerMutex_;
  std::function<void(const ChangeNotice&)> onChange_;  // guarded by listenerMutex_
  std::function<void()> onReset_;                   // guarded by listenerMutex_
  int wakeFd_ = -1;                                 // set before the listener starts; closed after it stops
  std::atomic<bool> stopping_{false};
  std::thread listener_;
};

// Creates the schema (once, whichever node comes first) and checks its version.
Result<Done> ensureSchema(PGconn* conn) {
  if (Result<Done> begun = runSimple(conn, "BEGIN"); !begun) return begun;
  auto fail = [conn](std::string error) {
    runSimple(conn, "ROLLBACK");
    return Result<Done>::failure(std::move(error));
  };
  const std::string lock = "SELECT pg_advisory_xact_lock(" + std::to_string(kSchemaLockKey) + ")";
  if (Result<Done> locked = runSimple(conn, lock.c_str()); !locked) return fail(locked.error());
  if (Result<Done> created = runSimple(conn, kSchema); !created) return fail(created.error());
  PgResult version(PQexec(conn, "SELECT max(version) FROM schema_info"));
  if (PQresultStatus(version.raw()) != PGRES_TUPLES_OK) return fail(errorText(conn, version.raw()));
  if (PQgetisnull(version.raw(), 0, 0)) {
    const std::string insert = "INSERT INTO schema_info (version) VALUES (" + std::to_string(kSchemaVersion) + ")";
    if (Result<Done> inserted = runSimple(conn, insert.c_str()); !inserted) return fail(inserted.error());
  } else if (std::atoi(PQgetvalue(version.raw(), 0, 0)) > kSchemaVersion) {
    return fail(std::string("the database holds a newer schema (") + PQgetvalue(version.raw(), 0, 0) + ")");
  } else if (std::atoi(PQgetvalue(version.raw(), 0, 0)) == 1) {
    if (Result<Done> migrated = runSimple(conn, kMigrateFrom1); !migrated) return fail(migrated.error());
  }
  return runSimple(conn, "COMMIT");
}

}  // namespace

std::unique_ptr<Storage> openPostgresStorage(const std::string& conninfo, std::string* error, int poolSize) {
  std::vector<PGconn*> pool;
  auto closeAll = [&pool] {
    for (PGconn* conn : pool) PQfinish(conn);
  };
  for (int i = 0; i < std::max(poolSize, 1); ++i) {
    PGconn* conn = connect(conninfo, error);
    if (conn == nullptr) {
      closeAll();
      return nullptr;
    }
    pool.push_back(conn);
  }
  if (Result<Done> schema = ensureSchema(pool.front()); !schema) {
    *error = schema.error();
    closeAll();
    return nullptr;
  }
  auto storage = std::make_unique<PostgresStorage>(conninfo, std::move(pool));
  if (Result<Done> prepared = storage->prepareConnections(); !prepared) {
    *error = prepared.error();
    return nullptr;
  }
  return storage;
}

}  // namespace velmora::server
