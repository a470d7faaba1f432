// Storage: where velmora-server keeps accounts and records, behind one
// interface with two backends (SqliteStorage, PostgresStorage).
//
// Design note
// - Model. Each account has a revision counter. A store of an account holds
//   one row per key: the key's newest version (a deletion stays as a
//   tombstone), stamped with the account revision it was written at. Every
//   written row takes the next revision, so revisions are unique per account
//   and a pull by revision never splits one write.
// - Atomicity. updateStore() runs the caller's decision (conflict rule,
//   limits) inside one transaction that holds the account's lock: in
//   PostgreSQL a row lock on the account, so pushes through several nodes
//   serialise per account and commit in revision order; in SQLite an
//   immediate (write-locking) transaction. Because commits happen in
//   revision order, a reader that sees revision R has seen every revision
//   below it, which is what makes pull cursors safe.
// - Threads. Every method may be called from any thread and blocks on the
//   database; each backend serialises or pools its connections itself.
// - Nodes. A backend shared by several server processes reports the changes
//   the others commit through the change listener (PostgreSQL LISTEN/NOTIFY);
//   a backend that serves one process (SQLite) never calls it.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace velmora::server {

// A value or the reason there is none. Errors are values, never exceptions.
template <typename T>
class Result {
 public:
  Result(T value) : value_(std::move(value)) {}  // NOLINT: implicit on purpose, like optional
  static Result failure(std::string error) {
    Result result;
    result.error_ = std::move(error);
    return result;
  }

  bool ok() const noexcept { return value_.has_value(); }
  explicit operator bool() const noexcept { return ok(); }
  // The value; only when ok().
  T& value() { return *value_; }
  const T& value() const { return *value_; }
  T* operator->() { return &*value_; }
  const T* operator->() const { return &*value_; }
  // Why there is no value; empty when ok().
  const std::string& error() const noexcept { return error_; }

 private:
  Result() = default;
  std::optional<T> value_;
  std::string error_;
};

// Unit result for operations that return nothing but may fail.
struct Done {};

// One key's newest version in a store, as stored.
struct RecordRow {
  std::string key;
  std::string value;           // the bytes as pushed (gzipped when gzipped); empty for a deletion
  bool gzipped = false;
  std::int64_t timestamp = 0;  // whole seconds since 2001-01-01 UTC, never 0
  bool deleted = false;
  std::string originDevice;
  std::int64_t revision = 0;   // assigned by put()
  std::int64_t size = 0;       // length the limits count (see SyncCore); 0 for a deletion
  std::int64_t writtenAt = 0;  // server clock when written, whole seconds since 2001

  bool operator==(const RecordRow&) const = default;
};

// Live keys and the sum of their sizes in one store.
struct StoreUsage {
  std::int64_t liveKeys = 0;
  std::int64_t dataSum = 0;
};

struct Account {
  std::int64_t id = 0;
  std::string name;
};

// One store of an account and the highest revision of any of its records.
struct StoreRevision {
  std::string store;
  std::int64_t revision = 0;
};

// A page of pull results.
struct PullPage {
  std::vector<RecordRow> records;  // by revision, ascending
  std::int64_t cursor = 0;         // the revision to pull from next
  bool complete = true;            // false: more records are waiting after cursor
};

// What updateStore() committed.
struct UpdateOutcome {
  std::int64_t accountRevision = 0;  // the account's revision after the transaction
  std::int64_t lastWritten = 0;      // revision of the last row put, 0 when nothing was written
};

// A store changed through another node.
struct ChangeNotice {
  std::int64_t accountId = 0;
  std::string store;
  std::int64_t revision = 0;
  std::string originDevice;
};

// The view of one store inside updateStore()'s transaction. Used only on the
// thread that runs the transaction body, only during the body.
class StoreTransaction {
 public:
  virtual ~StoreTransaction() = default;

  // The key's current row, nullopt when the store has none; failure when the
  // database failed (the body should then return false). Reflects earlier
  // put() calls of this transaction. Blocks on the database.
  virtual Result<std::optional<RecordRow>> record(const std::string& key) = 0;

  // Live keys and data sum of the store, including this transaction's puts.
  // Never blocks.
  virtual StoreUsage usage() const = 0;

  // Whether the store had a row before this transaction. Never blocks.
  virtual bool storeExists() const = 0;

  // How many stores the account has. Failure when the database failed.
  // Blocks on the database.
  virtual Result<std::int64_t> storeCount() = 0;

  // How many deletion records the store holds, including this transaction's
  // puts. Failure when the database failed. Blocks on the database (once).
  virtual Result<std::int64_t> deletedKeys() = 0;

  // Removes the store's deletion record with the lowest revision, if any.
  // Failure when the database failed. Blocks on the database.
  virtual Result<Done> dropOldestDeletion() = 0;

  // Writes row (its revision ignored) as the key's newest version at the
  // account's next revision and returns that revision; failure when the
  // database failed. Blocks on the database.
  virtual Result<std::int64_t> put(const RecordRow& row) = 0;
};

class Storage {
 public:
  virtual ~Storage() = default;

  // Creates an account with a unique name and the SHA-256 hex of its token.
  // Failure when the name is taken or the database failed. Blocks.
  virtual Result<Account> addAccount(const std::string& name, const std::string& tokenHash) = 0;

  // The account whose token hashes to tokenHash; nullopt when none. Failure
  // only when the database failed. Blocks.
  virtual Result<std::optional<Account>> accountForTokenHash(const std::string& tokenHash) = 0;

  // Gives the account name the token hashing to tokenHash in place of its
  // old one and bumps the token generation, in one transaction. Failure when
  // there is no such account or the database failed. Blocks.
  virtual Result<Done> replaceTokenHash(const std::string& name, const std::string& tokenHash) = 0;

  // A number that changes whenever any account's token was replaced. Blocks.
  virtual Result<std::int64_t> tokenGeneration() = 0;

  // Removes every deletion record written before writtenBefore (server
  // clock), and the stores left without any record, one account per
  // transaction under the account's lock. Returns how many records went;
  // failure when the database failed (what was pruned stays pruned). Blocks.
  virtual Result<std::int64_t> pruneDeletions(std::int64_t writtenBefore) = 0;

  // Runs body in one transaction on store of account accountId, holding the
  // account's lock (see the design note). Commits when body returns true,
  // rolls back when it returns false (then failure "aborted") or when a
  // database call failed. When rows were put, other nodes hear of it with
  // device as the origin. body may run a second time, from scratch, when the
  // database connection broke during the first. Blocks on the database and
  // the lock.
  virtual Result<UpdateOutcome> updateStore(std::int64_t accountId, const std::string& store,
                                            const std::string& device,
                                            const std::function<bool(StoreTransaction&)>& body) = 0;

  // Up to limit rows of store with a revision above since, by revision; see
  // PullPage for the cursor. Failure when the database failed. Blocks.
  virtual Result<PullPage> pull(std::int64_t accountId, const std::string& store, std::int64_t since,
                                int limit) = 0;

  // Every store of the account that has a record, by name. Blocks.
  virtual Result<std::vector<StoreRevision>> listStores(std::int64_t accountId) = 0;

  // The account's current revision (0 before its first write). Blocks.
  virtual Result<std::int64_t> accountRevision(std::int64_t accountId) = 0;

  // Installs the callbacks for changes committed by other nodes; they run on
  // a thread of the backend's, one at a time, and must not block or call
  // the storage. A backend that lost contact with the other nodes calls
  // onReset instead (notices may have been missed). Empty callbacks detach;
  // the call returns after any callback in progress. Backends of one
  // process never call either. Any thread; blocks on the first connection.
  virtual void setChangeListener(std::function<void(const ChangeNotice&)> onChange,
                                 std::function<void()> onReset) = 0;

  // Stops background work (the listener thread). Idempotent; blocks until it
  // has stopped. The destructor calls it.
  virtual void close() = 0;
};

}  // namespace velmora::server
