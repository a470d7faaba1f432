// SqliteStorage: the default storage backend, one SQLite file.
//
// Design note
// - One connection, guarded by mutex_: every call holds it for its whole
//   transaction, so calls of this process run one at a time and a read sees
//   a consistent state without its own transaction.
// - Other processes (velmora-server account add) may use the same file at
//   the same time: the file runs in WAL mode, writes take the write lock up
//   front (BEGIN IMMEDIATE) and a busy database is retried for up to ten
//   seconds. One server process serves a file: there is no cross-process
//   watch notification, so the change listener is never called.
// - Durability: synchronous=NORMAL in WAL mode. A crash of the server process
//   loses nothing it acknowledged; a power loss of the host may lose the last
//   transactions before the WAL is synced, never the file's integrity. A sync
//   per push would cap pushes at the disk's sync rate.
#pragma once

#include <memory>
#include <string>

#include "Storage.h"

namespace velmora::server {

// Opens the SQLite database at path (":memory:" for a private in-memory one),
// creating the file (mode 0600, whatever the umask) and the schema when
// missing, and taking the group and other bits from the file and its -wal
// and -shm. nullptr with *error set when it cannot be opened or restricted,
// or holds a newer schema. Blocks on file I/O.
std::unique_ptr<Storage> openSqliteStorage(const std::string& path, std::string* error);

}  // namespace velmora::server
