// What the server's tests share: records built the way a device builds
// them, and a client that carries an account's token. Header-only; tests only.
#pragma once

#include <grpcpp/grpcpp.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "velmora/platform/PropertyList.h"
#include "velmora_sync.grpc.pb.h"
#include "zkv/ZKVEncoding.h"

namespace velmora::server::testing {

namespace pb = ::velmora::sync::v1;

// A fixed "now" for the tests' clocks: 2024-01-01 00:00:00 UTC in seconds since 2001.
inline constexpr std::int64_t kNow = 725846400;

// The timestamped serialised form of a string value.
inline std::string serialised(const std::string& text, std::int64_t timestamp) {
  std::optional<velmora::Bytes> bytes =
      ZKVCopySerializedDataForPropertyListAndTimestamp(velmora::PropertyList::string(text), timestamp);
  return bytes ? std::string(bytes->begin(), bytes->end()) : std::string();
}

// A record of key holding the string text at timestamp, gzipped when asked
// (and when that makes it smaller, as devices do).
inline pb::Record valueRecord(const std::string& key, const std::string& text, std::int64_t timestamp,
                              bool gzip = false) {
  pb::Record record;
  record.set_key(key);
  record.set_timestamp(timestamp);
  std::string plain = serialised(text, timestamp);
  if (gzip) {
    const auto* bytes = reinterpret_cast<const std::uint8_t*>(plain.data());
    if (std::optional<velmora::Bytes> packed = ZKVCopyGzippedDataForData({bytes, plain.size()})) {
      plain.assign(packed->begin(), packed->end());
      record.set_gzipped(true);
    }
  }
  record.set_value(plain);
  return record;
}

// A deletion of key made at timestamp.
inline pb::Record deletion(const std::string& key, std::int64_t timestamp) {
  pb::Record record;
  record.set_key(key);
  record.set_timestamp(timestamp);
  record.set_deleted(true);
  return record;
}

inline pb::PushRequest pushOf(const std::string& store, const std::string& device,
                              std::initializer_list<pb::Record> records) {
  pb::PushRequest request;
  request.set_store(store);
  request.set_device(device);
  for (const pb::Record& record : records) *request.add_records() = record;
  return request;
}

// A stub and the token it sends with every call.
class TokenClient {
 public:
  TokenClient(std::shared_ptr<grpc::Channel> channel, std::string token)
      : channel_(std::move(channel)), stub_(pb::DeviceSync::NewStub(channel_)), token_(std::move(token)) {}

  // A plaintext client of address ("HOST:PORT").
  static TokenClient plaintext(const std::string& address, std::string token) {
    return TokenClient(grpc::CreateChannel(address, grpc::InsecureChannelCredentials()), std::move(token));
  }

  // A context with the token and a deadline timeout ahead.
  std::unique_ptr<grpc::ClientContext> context(std::chrono::milliseconds timeout = std::chrono::seconds(10)) const {
    auto context = std::make_unique<grpc::ClientContext>();
    if (!token_.empty()) context->AddMetadata("authorization", "Bearer " + token_);
    context->set_deadline(std::chrono::system_clock::now() + timeout);
    return context;
  }

  grpc::Status push(const pb::PushRequest& request, pb::PushReply* reply) const {
    return stub_->Push(context().get(), request, reply);
  }
  grpc::Status pull(const std::string& store, std::int64_t since, pb::PullReply* reply, int limit = 0) const {
    pb::PullRequest request;
    request.set_store(store);
    request.set_since_revision(since);
    request.set_limit(limit);
    return stub_->Pull(context().get(), request, reply);
  }

  pb::DeviceSync::Stub& stub() { return *stub_; }
  grpc::Channel& channel() { return *channel_; }

 private:
  std::shared_ptr<grpc::Channel> channel_;
  std::unique_ptr<pb::DeviceSync::Stub> stub_;
  std::string token_;
};

// An open watch: its context and reader. Read() blocks until a notice or
// the end of the stream; the context's deadline bounds the whole watch.
struct OpenWatch {
  std::unique_ptr<grpc::ClientContext> context;
  std::unique_ptr<grpc::ClientReader<pb::WatchNotice>> reader;

  // The next notice, or nullopt when the stream ended.
  std::optional<pb::WatchNotice> next() {
    pb::WatchNotice notice;
    if (!reader->Read(&notice)) return std::nullopt;
    return notice;
  }
};

inline OpenWatch openWatch(TokenClient& client, const std::string& device,
                           std::chrono::milliseconds timeout = std::chrono::seconds(20)) {
  OpenWatch watch;
  watch.context = client.context(timeout);
  pb::WatchRequest request;
  request.set_device(device);
  watch.reader = client.stub().Watch(watch.context.get(), request);
  return watch;
}

}  // namespace velmora::server::testing
