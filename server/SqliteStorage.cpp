// SqliteStorage (see SqliteStorage.h for the design note).
#include "SqliteStorage.h"

#include <fcntl.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <map>
#include <mutex>
#include <string_view>

#include "StorageSupport.h"

namespace velmora::server {
namespace {

constexpr const char* kSchema = R"sql(
CREATE TABLE IF NOT EXISTS accounts (
  id INTEGER PRIMARY KEY,
  name TEXT NOT NULL UNIQUE,
  token_hash TEXT NOT NULL UNIQUE,
  revision INTEGER NOT NULL DEFAULT 0);
CREATE TABLE IF NOT EXISTS stores (
  account_id INTEGER NOT NULL REFERENCES accounts (id),
  store TEXT NOT NULL,
  revision INTEGER NOT NULL,
  live_keys INTEGER NOT NULL,
  data_sum INTEGER NOT NULL,
  PRIMARY KEY (account_id, store)) WITHOUT ROWID;
CREATE TABLE IF NOT EXISTS records (
  account_id INTEGER NOT NULL,
  store TEXT NOT NULL,
  key TEXT NOT NULL,
  value BLOB NOT NULL,
  gzipped INTEGER NOT NULL,
  timestamp INTEGER NOT NULL,
  deleted INTEGER NOT NULL,
  origin_device TEXT NOT NULL,
  revision INTEGER NOT NULL,
  size INTEGER NOT NULL,
  written_at INTEGER NOT NULL DEFAULT 0,
  PRIMARY KEY (account_id, store, key)) WITHOUT ROWID;
CREATE INDEX IF NOT EXISTS records_by_revision ON records (account_id, store, revision);
CREATE INDEX IF NOT EXISTS records_deleted ON records (account_id, store, revision) WHERE deleted;
CREATE TABLE IF NOT EXISTS server_state (token_generation INTEGER NOT NULL);
INSERT INTO server_state SELECT 0 WHERE NOT EXISTS (SELECT 1 FROM server_state);
)sql";

// Brings a version 1 database up to version 2 (before kSchema runs): its
// deletion records count as written now.
constexpr const char* kMigrateFrom1 = R"sql(
ALTER TABLE records ADD COLUMN written_at INTEGER NOT NULL DEFAULT 0;
UPDATE records SET written_at = strftime('%s', 'now') - 978307200 WHERE deleted;
)sql";

constexpr const char* kRecordColumns =
    "key, value, gzipped, timestamp, deleted, origin_device, revision, size, written_at";

// A prepared statement borrowed from the connection's cache; reset and
// unbound when it goes out of scope.
class Statement {
 public:
  explicit Statement(sqlite3_stmt* stmt) : stmt_(stmt) {}
  ~Statement() {
    if (stmt_ != nullptr) {
      sqlite3_reset(stmt_);
      sqlite3_clear_bindings(stmt_);
    }
  }
  Statement(const Statement&) = delete;
  Statement& operator=(const Statement&) = delete;

  bool valid() const { return stmt_ != nullptr; }
  Statement& bind(int index, std::int64_t value) {
    sqlite3_bind_int64(stmt_, index, value);
    return *this;
  }
  Statement& bind(int index, std::string_view text) {
    sqlite3_bind_text(stmt_, index, text.data(), static_cast<int>(text.size()), SQLITE_TRANSIENT);
    return *this;
  }
  Statement& bindBlob(int index, std::string_view bytes) {
    sqlite3_bind_blob(stmt_, index, bytes.data(), static_cast<int>(bytes.size()), SQLITE_TRANSIENT);
    return *this;
  }
  // SQLITE_ROW, SQLITE_DONE or an error code.
  int step() { return sqlite3_step(stmt_); }
  std::int64_t integer(int column) const { return sqlite3_column_int64(stmt_, column); }
  std::string text(int column) const {
    const void* data = sqlite3_column_blob(stmt_, column);
    const int size = sqlite3_column_bytes(stmt_, column);
    return data == nullptr ? std::string() : std::string(static_cast<const char*>(data), static_cast<std::size_t>(size));
  }
  // The row's columns in kRecordColumns order, from column first.
  RecordRow recordRow(int first = 0) const {
    RecordRow row;
    row.key = text(first);
    row.value = text(first + 1);
    row.gzipped = integer(first + 2) != 0;
    row.timestamp = integer(first + 3);
    row.deleted = integer(first + 4) != 0;
    row.originDevice = text(first + 5);
    row.revision = integer(first + 6);
    row.size = integer(first + 7);
    row.writtenAt = integer(first + 8);
    return row;
  }

 private:
  sqlite3_stmt* stmt_;
};

class SqliteStorage final : public Storage {
 public:
  explicit SqliteStorage(sqlite3* db) : db_(db) {}
  ~SqliteStorage() override { close(); }

  // Applies the pragmas and the schema. Called once, before sharing.
  bool initialise(std::string* error) {
    std::lock_guard lock(mutex_);
    if (!exec("PRAGMA journal_mode=WAL") || !exec("PRAGMA synchronous=NORMAL") || !exec("PRAGMA foreign_keys=ON")) {
      *error = lastError();
      return false;
    }
    sqlite3_busy_timeout(db_, 10000);
    // The version is read inside the write transaction: two processes
    // opening an old file at once migrate it once.
    if (!exec("BEGIN IMMEDIATE")) {
      *error = lastError();
      return false;
    }
    std::int64_t version = -1;
    {
      Statement select(prepare("PRAGMA user_version"));
      if (select.valid() && select.step() == SQLITE_ROW) version = select.integer(0);
    }
    if (version < 0 || version > kSchemaVersion) {
      *error = version < 0 ? lastError() : "the database holds a newer schema (" + std::to_string(version) + ")";
      exec("ROLLBACK");
      return false;
    }
    const std::string setVersion = "PRAGMA user_version=" + std::to_string(kSchemaVersion);
    if ((version == 1 && !exec(kMigrateFrom1)) || !exec(kSchema) || !exec(setVersion.c_str()) || !exec("COMMIT")) {
      *error = lastError();
      exec("ROLLBACK");
      return false;
    }
    return true;
  }

  Result<Account> addAccount(const std::string& name, const std::string& tokenHash) override {
    std::lock_guard lock(mutex_);
    Statement insert(prepare("INSERT INTO accounts (name, token_hash) VALUES (?, ?)"));
    if (!insert.valid()) return Result<Account>::failure(lastError());
    insert.bind(1, name).bind(2, tokenHash);
    const int rc = insert.step();
    if (rc == SQLITE_CONSTRAINT) return Result<Account>::failure("an account named \"" + name + "\" exists");
    if (rc != SQLITE_DONE) return Result<Account>::failure(lastError());
    return Account{sqlite3_last_insert_rowid(db_), name};
  }

  Result<std::optional<Account>> accountForTokenHash(const std::string& tokenHash) override {
    using R = Result<std::optional<Account>>;
    std::lock_guard lock(mutex_);
    Statement select(prepare("SELECT id, name FROM accounts WHERE token_hash = ?"));
    if (!select.valid()) return R::failure(lastError());
    select.bind(1, tokenHash);
    const int rc = select.step();
    if (rc == SQLITE_DONE) return std::optional<Account>();
    if (rc != SQLITE_ROW) return R::failure(lastError());
    return std::optional<Account>(Account{select.integer(0), select.text(1)});
  }

  Result<Done> replaceTokenHash(const std::string& name, const std::string& tokenHash) override {
    std::lock_guard lock(mutex_);
    if (!exec("BEGIN IMMEDIATE")) return Result<Done>::failure(lastError());
    Statement update(prepare("UPDATE accounts SET token_hash = ? WHERE name = ?"));
    std::string error;
    if (!update.valid() || update.bind(1, tokenHash).bind(2, name).step() != SQLITE_DONE) {
      error = lastError();
    } else if (sqlite3_changes(db_) == 0) {
      error = "no account named \"" + name + "\"";
    } else if (!exec("UPDATE server_state SET token_generation = token_generation + 1") || !exec("COMMIT")) {
      error = lastError();
    }
    if (error.empty()) return Done{};
    exec("ROLLBACK");
    return Result<Done>::failure(error);
  }

  Result<std::int64_t> tokenGeneration() override {
    std::lock_guard lock(mutex_);
    Statement select(prepare("SELECT token_generation FROM server_state"));
    if (!select.valid() || select.step() != SQLITE_ROW) return Result<std::int64_t>::failure(lastError());
    return select.integer(0);
  }

  Result<std::int64_t> pruneDeletions(std::int64_t writtenBefore) override {
    using R = Result<std::int64_t>;
    std::vector<std::int64_t> accounts;
    {
      std::lock_guard lock(mutex_);
      Statement select(prepare("SELECT DISTINCT account_id FROM records WHERE deleted AND written_at < ?"));
      if (!select.valid()) return R::failure(lastError());
      select.bind(1, writtenBefore);
      int rc;
      while ((rc = select.step()) == SQLITE_ROW) accounts.push_back(select.integer(0));
      if (rc != SQLITE_DONE) return R::failure(lastError());
    }
    std::int64_t pruned = 0;
    for (std::int64_t account : accounts) {
      // One account per transaction, so that pushes wait for no more than that.
      std::lock_guard lock(mutex_);
      if (!exec("BEGIN IMMEDIATE")) return R::failure(lastError());
      Statement records(prepare("DELETE FROM records WHERE account_id = ? AND deleted AND written_at < ?"));
      Statement stores(prepare(
          "DELETE FROM stores WHERE account_id = ? AND live_keys = 0 AND NOT EXISTS (SELECT 1 FROM records r"
          " WHERE r.account_id = stores.account_id AND r.store = stores.store)"));
      if (!records.valid() || records.bind(1, account).bind(2, writtenBefore).step() != SQLITE_DONE) {
        const std::string error = lastError();
        exec("ROLLBACK");
        return R::failure(error);
      }
      const int removed = sqlite3_changes(db_);
      if (!stores.valid() || stores.bind(1, account).step() != SQLITE_DONE || !exec("COMMIT")) {
        const std::string error = lastError();
        exec("ROLLBACK");
        return R::failure(error);
      }
      pruned += removed;
    }
    return pruned;
  }

  Result<UpdateOutcome> updateStore(std::int64_t accountId, const std::string& store, const std::string& device,
                                    const std::function<bool(StoreTransaction&)>& body) override {
    (void)device;  // no other node to tell
    using R = Result<UpdateOutcome>;
    std::lock_guard lock(mutex_);
    if (!exec("BEGIN IMMEDIATE")) return R::failure(lastError());
    R outcome = updateInTransaction(accountId, store, body);
    if (outcome && exec("COMMIT")) return outcome;
    const std::string error = outcome ? lastError() : outcome.error();
    exec("ROLLBACK");
    return R::failure(error);
  }

  Result<PullPage> pull(std::int64_t accountId, const std::string& store, std::int64_t since, int limit) override {
    using R = Result<PullPage>;
    std::lock_guard lock(mutex_);
    Result<std::int64_t> accountRevision = revisionLocked(accountId);
    if (!accountRevision) return R::failure(accountRevision.error());
    static const std::string sql = std::string("SELECT ") + kRecordColumns +
                                   " FROM records WHERE account_id = ? AND store = ? AND revision > ?"
                                   " ORDER BY revision LIMIT ?";
    Statement select(prepare(sql.c_str()));
    if (!select.valid()) return R::failure(lastError());
    select.bind(1, accountId).bind(2, store).bind(3, since).bind(4, static_cast<std::int64_t>(limit) + 1);
    PullPage page;
    int rc;
    while ((rc = select.step()) == SQLITE_ROW) page.records.push_back(select.recordRow());
    if (rc != SQLITE_DONE) return R::failure(lastError());
    if (page.records.size() > static_cast<std::size_t>(limit)) {
      page.records.pop_back();
      page.complete = false;
      page.cursor = page.records.empty() ? since : page.records.back().revision;
    } else {
      page.cursor = std::max(accountRevision.value(), page.records.empty() ? 0 : page.records.back().revision);
    }
    return page;
  }

  Result<std::vector<StoreRevision>> listStores(std::int64_t accountId) override {
    using R = Result<std::vector<StoreRevision>>;
    std::lock_guard lock(mutex_);
    Statement select(prepare("SELECT store, revision FROM stores WHERE account_id = ? ORDER BY store"));
    if (!select.valid()) return R::failure(lastError());
    select.bind(1, accountId);
    std::vector<StoreRevision> stores;
    int rc;
    while ((rc = select.step()) == SQLITE_ROW) stores.push_back({select.text(0), select.integer(1)});
    if (rc != SQLITE_DONE) return R::failure(lastError());
    return stores;
  }

  Result<std::int64_t> accountRevision(std::int64_t accountId) override {
    std::lock_guard lock(mutex_);
    return revisionLocked(accountId);
  }

  void setChangeListener(std::function<void(const ChangeNotice&)>, std::function<void()>) override {}

  void close() override {
    std::lock_guard lock(mutex_);
    if (db_ == nullptr) return;
    for (auto& [sql, stmt] : statements_) sqlite3_finalize(stmt);
    statements_.clear();
    sqlite3_close(db_);
    db_ = nullptr;
  }

 private:
  // The transaction body's view: reads and writes go straight to the
  // connection, which the enclosing updateStore() holds locked.
  class Transaction final : public BasicStoreTransaction {
   public:
    Transaction(SqliteStorage& owner, std::int64_t accountId, const std::string& store, std::int64_t revision,
                StoreUsage usage, bool exists)
        : BasicStoreTransaction(revision, usage, exists), owner_(owner), accountId_(accountId), store_(store) {}

    Result<std::int64_t> storeCount() override {
      return owner_.count("SELECT count(*) FROM stores WHERE account_id = ?", accountId_, nullptr);
    }

   protected:
    Result<std::optional<RecordRow>> loadRecord(const std::string& key) override {
      using R = Result<std::optional<RecordRow>>;
      static const std::string sql =
          std::string("SELECT ") + kRecordColumns + " FROM records WHERE account_id = ? AND store = ? AND key = ?";
      Statement select(owner_.prepare(sql.c_str()));
      if (!select.valid()) return R::failure(owner_.lastError());
      select.bind(1, accountId_).bind(2, store_).bind(3, key);
      const int rc = select.step();
      if (rc == SQLITE_DONE) return std::optional<RecordRow>();
      if (rc != SQLITE_ROW) return R::failure(owner_.lastError());
      return std::optional<RecordRow>(select.recordRow());
    }

    Result<Done> writeRecord(const RecordRow& row) override {
      Statement upsert(owner_.prepare(
          "INSERT INTO records (account_id, store, key, value, gzipped, timestamp, deleted, origin_device,"
          " revision, size, written_at) VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?)"
          " ON CONFLICT (account_id, store, key) DO UPDATE SET value = excluded.value,"
          " gzipped = excluded.gzipped, timestamp = excluded.timestamp, deleted = excluded.deleted,"
          " origin_device = excluded.origin_device, revision = excluded.revision, size = excluded.size,"
          " written_at = excluded.written_at"));
      if (!upsert.valid()) return Result<Done>::failure(owner_.lastError());
      upsert.bind(1, accountId_).bind(2, store_).bind(3, row.key).bindBlob(4, row.value);
      upsert.bind(5, std::int64_t{row.gzipped}).bind(6, row.timestamp).bind(7, std::int64_t{row.deleted});
      upsert.bind(8, row.originDevice).bind(9, row.revision).bind(10, row.size).bind(11, row.writtenAt);
      if (upsert.step() != SQLITE_DONE) return Result<Done>::failure(owner_.lastError());
      return Done{};
    }

    Result<std::int64_t> countDeletedRecords() override {
      return owner_.count("SELECT count(*) FROM records WHERE account_id = ? AND store = ? AND deleted", accountId_,
                          &store_);
    }

    Result<std::optional<std::string>> deleteOldestDeletedRecord() override {
      using R = Result<std::optional<std::string>>;
      Statement remove(owner_.prepare(
          "DELETE FROM records WHERE account_id = ?1 AND store = ?2 AND key = (SELECT key FROM records"
          " WHERE account_id = ?1 AND store = ?2 AND deleted ORDER BY revision LIMIT 1) RETURNING key"));
      if (!remove.valid()) return R::failure(owner_.lastError());
      remove.bind(1, accountId_).bind(2, store_);
      const int rc = remove.step();
      if (rc == SQLITE_DONE) return std::optional<std::string>();
      if (rc != SQLITE_ROW) return R::failure(owner_.lastError());
      std::optional<std::string> key = remove.text(0);
      if (remove.step() != SQLITE_DONE) return R::failure(owner_.lastError());
      return key;
    }

   private:
    SqliteStorage& owner_;
    const std::int64_t accountId_;
    const std::string& store_;
  };

  // updateStore() after BEGIN, mutex_ held.
  Result<UpdateOutcome> updateInTransaction(std::int64_t accountId, const std::string& store,
                                            const std::function<bool(StoreTransaction&)>& body) {
    using R = Result<UpdateOutcome>;
    Result<std::int64_t> revision = revisionLocked(accountId);
    if (!revision) return R::failure(revision.error());
    StoreUsage usage;
    bool exists = false;
    {
      Statement select(prepare("SELECT live_keys, data_sum FROM stores WHERE account_id = ? AND store = ?"));
      if (!select.valid()) return R::failure(lastError());
      select.bind(1, accountId).bind(2, store);
      const int rc = select.step();
      if (rc == SQLITE_ROW) usage = {select.integer(0), select.integer(1)};
      else if (rc != SQLITE_DONE) return R::failure(lastError());
      exists = rc == SQLITE_ROW;
    }
    Transaction transaction(*this, accountId, store, revision.value(), usage, exists);
    if (!body(transaction)) return R::failure("aborted");
    if (transaction.writes() == 0) return UpdateOutcome{revision.value(), 0};

    const StoreUsage after = transaction.usage();
    Statement upsert(prepare(
        "INSERT INTO stores (account_id, store, revision, live_keys, data_sum) VALUES (?, ?, ?, ?, ?)"
        " ON CONFLICT (account_id, store) DO UPDATE SET revision = excluded.revision,"
        " live_keys = excluded.live_keys, data_sum = excluded.data_sum"));
    if (!upsert.valid()) return R::failure(lastError());
    upsert.bind(1, accountId).bind(2, store).bind(3, transaction.revision()).bind(4, after.liveKeys);
    upsert.bind(5, after.dataSum);
    if (upsert.step() != SQLITE_DONE) return R::failure(lastError());
    Statement account(prepare("UPDATE accounts SET revision = ? WHERE id = ?"));
    if (!account.valid()) return R::failure(lastError());
    account.bind(1, transaction.revision()).bind(2, accountId);
    if (account.step() != SQLITE_DONE) return R::failure(lastError());
    return UpdateOutcome{transaction.revision(), transaction.revision()};
  }

  // The account's revision; failure for an unknown account. mutex_ held.
  Result<std::int64_t> revisionLocked(std::int64_t accountId) {
    Statement select(prepare("SELECT revision FROM accounts WHERE id = ?"));
    if (!select.valid()) return Result<std::int64_t>::failure(lastError());
    select.bind(1, accountId);
    const int rc = select.step();
    if (rc == SQLITE_DONE) return Result<std::int64_t>::failure("no account " + std::to_string(accountId));
    if (rc != SQLITE_ROW) return Result<std::int64_t>::failure(lastError());
    return select.integer(0);
  }

  // The cached statement for sql (a string that lives as long as the
  // process); nullptr when it does not compile. mutex_ held.
  sqlite3_stmt* prepare(const char* sql) {
    auto found = statements_.find(sql);
    if (found != statements_.end()) return found->second;
    sqlite3_stmt* stmt = nullptr;
    if (sqlite3_prepare_v3(db_, sql, -1, SQLITE_PREPARE_PERSISTENT, &stmt, nullptr) != SQLITE_OK) return nullptr;
    statements_.emplace(sql, stmt);
    return stmt;
  }

  // The single integer sql yields with the account (and store) bound. mutex_ held.
  Result<std::int64_t> count(const char* sql, std::int64_t accountId, const std::string* store) {
    Statement select(prepare(sql));
    if (!select.valid()) return Result<std::int64_t>::failure(lastError());
    select.bind(1, accountId);
    if (store != nullptr) select.bind(2, *store);
    if (select.step() != SQLITE_ROW) return Result<std::int64_t>::failure(lastError());
    return select.integer(0);
  }

  bool exec(const char* sql) { return sqlite3_exec(db_, sql, nullptr, nullptr, nullptr) == SQLITE_OK; }
  std::string lastError() const { return std::string("sqlite: ") + sqlite3_errmsg(db_); }

  std::mutex mutex_;
  sqlite3* db_;                                            // guarded by mutex_; null once closed
  std::map<const char*, sqlite3_stmt*> statements_;        // guarded by mutex_, keyed by the SQL's address
};

// Creates path 0600 when missing and takes the group and other bits from it
// and from a -wal, -shm or -journal beside it (left by an older server):
// they hold every account's data and token hashes. SQLite gives the files
// it makes later the main file's mode, whatever the umask. False with
// *error when a file cannot be opened or restricted.
bool restrictToOwner(const std::string& path, std::string* error) {
  if (path.empty() || path == ":memory:" || path.rfind("file:", 0) == 0) return true;
  for (const char* suffix : {"", "-wal", "-shm", "-journal"}) {
    const std::string file = path + suffix;
    const bool main = suffix[0] == '\0';
    const int fd = ::open(file.c_str(), O_RDONLY | O_CLOEXEC | (main ? O_CREAT : 0), 0600);
    if (fd < 0 && !main && errno == ENOENT) continue;
    struct stat status {};
    const bool ok = fd >= 0 && ::fstat(fd, &status) == 0 &&
                    ((status.st_mode & 077) == 0 || ::fchmod(fd, status.st_mode & 0700) == 0);
    const int saved = errno;
    if (fd >= 0) ::close(fd);
    if (!ok) {
      *error = "cannot make " + file + " readable by its owner only: " + std::strerror(saved);
      return false;
    }
  }
  return true;
}

}  // namespace

std::unique_ptr<Storage> openSqliteStorage(const std::string& path, std::string* error) {
  if (!restrictToOwner(path, error)) return nullptr;
  sqlite3* db = nullptr;
  const int rc = sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX,
                                 nullptr);
  if (rc != SQLITE_OK) {
    *error = "cannot open " + path + ": " + (db != nullptr ? sqlite3_errmsg(db) : sqlite3_errstr(rc));
    sqlite3_close(db);
    return nullptr;
  }
  auto storage = std::make_unique<SqliteStorage>(db);
  if (!storage->initialise(error)) {
    *error = path + ": " + *error;
    return nullptr;
  }
  return storage;
}

}  // namespace velmora::server
