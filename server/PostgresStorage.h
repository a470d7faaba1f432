// PostgresStorage: the storage backend several server nodes share.
//
// Design note
// - Connections. A fixed pool of connections, each used by one caller at a
//   time (poolMutex_ guards the free list; callers wait on poolReady_). A
//   connection found broken is reset before its next use, its prepared
//   statements made again.
// - Revisions. updateStore() locks the account's row (SELECT ... FOR UPDATE)
//   first, so pushes to one account through any number of nodes run one
//   after another and commit in revision order.
// - Nodes. Each commit that wrote rows sends NOTIFY on the channel
//   velmora_sync inside its transaction (delivered only if it commits); the
//   payload carries this node's random id, so a node skips its own. One
//   listener thread with its own connection LISTENs and hands each foreign
//   notice to the change listener. When the listening connection breaks it
//   reconnects with backoff and then calls the reset callback: notices sent
//   in between are lost, and watchers must pull again.
// - Waiting order: a pool connection, then (inside PostgreSQL) the account's
//   row lock. The listener thread takes no lock of ours while it calls out.
#pragma once

#include <memory>
#include <string>

#include "Storage.h"

namespace velmora::server {

// Connects to PostgreSQL with conninfo (a libpq connection string), creating
// the schema when missing (serialised between nodes by an advisory lock),
// with poolSize connections for requests and one that listens. nullptr with
// *error set when it cannot connect or the database holds a newer schema.
// Blocks on the network.
std::unique_ptr<Storage> openPostgresStorage(const std::string& conninfo, std::string* error, int poolSize = 4);

}  // namespace velmora::server
