// TokenGate: refuses a call whose bearer token names no account before gRPC
// reads the call's message, so that a caller who has proven nothing cannot
// make the server take in a message of the size allowed to accounts.
//
// Design note
// - gRPC runs the server credentials' auth metadata processor on a call's
//   headers and asks the transport for the message only once it passed; a
//   refused call ends with the processor's status, and of its message the
//   server has read at most what the stream's flow-control window let the
//   caller send meanwhile. The C++ processor interface answers either
//   inline on gRPC's network thread or on a pool that grows a thread per
//   waiting call, so the gate installs a C core processor, which may
//   answer later from any thread, on C core credentials (plaintext or TLS)
//   of its own.
// - Tokens found valid are remembered (their hashes, at most kRemembered;
//   all forgotten when any token is replaced): most calls are answered
//   inline for the price of a SHA-256. Any other token is looked up by the
//   gate's one thread; at most kMaxWaiting calls wait for it, and further
//   ones fail with UNAVAILABLE at once.
// - The gate only decides whether the message may be read: each handler
//   looks the token up again, so a replaced token fails at once even while
//   the gate still remembers it.
#pragma once

#include <grpcpp/security/server_credentials.h>

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <unordered_set>

#include "Storage.h"

namespace velmora::server {

class TokenGate {
 public:
  // Token hashes remembered at most, and calls waiting for a look-up at most.
  static constexpr std::size_t kRemembered = 4096;
  static constexpr std::size_t kMaxWaiting = 256;

  // Borrows storage, which must outlive the gate. Starts the look-up thread.
  explicit TokenGate(Storage& storage);
  // Answers the waiting calls with UNAVAILABLE and stops the thread. The
  // server built with credentials() must have been shut down before.
  ~TokenGate();
  TokenGate(const TokenGate&) = delete;
  TokenGate& operator=(const TokenGate&) = delete;

  // Server credentials whose calls pass through the gate: TLS with the PEM
  // certificate chain and key when both are given, plaintext otherwise. An
  // unusable certificate or key makes binding the port fail. Any thread.
  std::shared_ptr<grpc::ServerCredentials> credentials(const std::string& certificate, const std::string& key);

  // Forgets every remembered token (one was replaced). Any thread.
  void forget();

 private:
  struct Waiting;
  class Credentials;

  // The processor gRPC calls with each call's headers (see grpc_security.h).
  static void process(void* gate, grpc_auth_context* context, const grpc_metadata* metadata, std::size_t count,
                      grpc_process_auth_metadata_done_cb done, void* call);
  // The look-up thread.
  void lookUp();

  Storage& storage_;  // borrowed; thread-safe
  std::mutex mutex_;
  std::condition_variable wake_;                // signalled when waiting_ grows or stopping_ is set
  std::unordered_set<std::string> remembered_;  // guarded by mutex_: hashes of valid tokens
  std::uint64_t generation_ = 0;                // guarded by mutex_: forget() calls so far
  std::deque<Waiting> waiting_;                 // guarded by mutex_
  bool stopping_ = false;                       // guarded by mutex_
  std::thread thread_;                          // started last in the constructor
};

}  // namespace velmora::server
