// TokenGate (see TokenGate.h for the design note).
#include "TokenGate.h"

#include <grpc/grpc.h>
#include <grpc/grpc_security.h>

#include <optional>
#include <string_view>
#include <utility>
#include <vector>

#include "Accounts.h"

namespace velmora::server {

// A call waiting for its token to be looked up.
struct TokenGate::Waiting {
  std::string tokenHash;
  grpc_process_auth_metadata_done_cb done;
  void* call;
};

namespace {

constexpr const char* kExpected = "expected \"authorization: Bearer <token>\"";

void answer(grpc_process_auth_metadata_done_cb done, void* call, grpc_status_code status, const char* details) {
  done(call, nullptr, 0, nullptr, 0, status, details);
}

}  // namespace

// C core credentials with the gate's processor, in the C++ server's terms.
// Binding a port is all the C++ server asks of its credentials.
class TokenGate::Credentials final : public grpc::ServerCredentials {
 public:
  Credentials(TokenGate* gate, const std::string& certificate, const std::string& key) {
    if (certificate.empty() || key.empty()) {
      credentials_ = grpc_insecure_server_credentials_create();
    } else {
      grpc_ssl_pem_key_cert_pair pair = {key.c_str(), certificate.c_str()};
      credentials_ =
          grpc_ssl_server_credentials_create_ex(nullptr, &pair, 1, GRPC_SSL_DONT_REQUEST_CLIENT_CERTIFICATE, nullptr);
    }
    // No destroy callback: the gate outlives the server (see ~TokenGate).
    if (credentials_ != nullptr) {
      grpc_server_credentials_set_auth_metadata_processor(credentials_, {&TokenGate::process, nullptr, gate});
    }
  }
  ~Credentials() override {
    if (credentials_ != nullptr) grpc_server_credentials_release(credentials_);
  }

  // The gate is the processor; another would bypass it.
  void SetAuthMetadataProcessor(const std::shared_ptr<grpc::AuthMetadataProcessor>&) override {}

 private:
  int AddPortToServer(const std::string& address, grpc_server* server) override {
    return credentials_ == nullptr ? 0 : grpc_server_add_http2_port(server, address.c_str(), credentials_);
  }

  grpc_server_credentials* credentials_ = nullptr;  // owned; null when the certificate or key is unusable
};

TokenGate::TokenGate(Storage& storage) : storage_(storage), thread_([this] { lookUp(); }) {}

TokenGate::~TokenGate() {
  std::deque<Waiting> left;
  {
    std::lock_guard lock(mutex_);
    stopping_ = true;
    left.swap(waiting_);
  }
  wake_.notify_all();
  thread_.join();
  for (const Waiting& waiting : left) {
    answer(waiting.done, waiting.call, GRPC_STATUS_UNAVAILABLE, "the server is shutting down");
  }
}

std::shared_ptr<grpc::ServerCredentials> TokenGate::credentials(const std::string& certificate,
                                                                const std::string& key) {
  return std::make_shared<Credentials>(this, certificate, key);
}

void TokenGate::forget() {
  std::lock_guard lock(mutex_);
  remembered_.clear();
  ++generation_;
}

void TokenGate::process(void* state, grpc_auth_context*, const grpc_metadata* metadata, std::size_t count,
                        grpc_process_auth_metadata_done_cb done, void* call) {
  auto* gate = static_cast<TokenGate*>(state);
  std::optional<std::string_view> token;
  for (std::size_t i = 0; i < count && !token; ++i) {
    const grpc_slice& key = metadata[i].key;
    const grpc_slice& value = metadata[i].value;
    const std::string_view name(reinterpret_cast<const char*>(GRPC_SLICE_START_PTR(key)), GRPC_SLICE_LENGTH(key));
    if (name != "authorization") continue;
    token = bearerToken({reinterpret_cast<const char*>(GRPC_SLICE_START_PTR(value)), GRPC_SLICE_LENGTH(value)});
    if (!token) break;
  }
  if (!token) {
    answer(done, call, GRPC_STATUS_UNAUTHENTICATED, kExpected);
    return;
  }
  std::string tokenHash = hashToken(*token);
  bool remembered = false;
  {
    std::lock_guard lock(gate->mutex_);
    remembered = gate->remembered_.contains(tokenHash);
    if (!remembered && !gate->stopping_ && gate->waiting_.size() < kMaxWaiting) {
      gate->waiting_.push_back({std::move(tokenHash), done, call});
      gate->wake_.notify_one();
      return;
    }
  }
  if (remembered) {
    answer(done, call, GRPC_STATUS_OK, nullptr);
  } else {
    answer(done, call, GRPC_STATUS_UNAVAILABLE, "too many calls are waiting for their token to be checked");
  }
}

void TokenGate::lookUp() {
  std::unique_lock lock(mutex_);
  while (true) {
    wake_.wait(lock, [this] { return stopping_ || !waiting_.empty(); });
    if (stopping_) return;
    Waiting waiting = std::move(waiting_.front());
    waiting_.pop_front();
    const std::uint64_t generation = generation_;
    lock.unlock();
    Result<std::optional<Account>> found = storage_.accountForTokenHash(waiting.tokenHash);
    lock.lock();
    if (found && found.value() && generation == generation_) {
      if (remembered_.size() >= kRemembered) remembered_.clear();
      remembered_.insert(waiting.tokenHash);
    }
    lock.unlock();
    if (!found) {
      answer(waiting.done, waiting.call, GRPC_STATUS_UNAVAILABLE, "storage failed, try again");
    } else if (!found.value()) {
      answer(waiting.done, waiting.call, GRPC_STATUS_UNAUTHENTICATED, "unknown token");
    } else {
      answer(waiting.done, waiting.call, GRPC_STATUS_OK, nullptr);
    }
    lock.lock();
  }
}

}  // namespace velmora::server
