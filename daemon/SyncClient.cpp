#include "SyncClient.h"

#include <grpcpp/grpcpp.h>

#include <mutex>
#include <set>

#include "velmora_sync.grpc.pb.h"

namespace velmorad {

namespace {

SyncCallResult resultOf(const grpc::Status& status, bool cancelled) {
  if (status.ok()) return {};
  SyncCallResult result;
  result.message = status.error_message();
  switch (status.error_code()) {
    case grpc::StatusCode::UNAVAILABLE:
    case grpc::StatusCode::DEADLINE_EXCEEDED:
    case grpc::StatusCode::ABORTED:
    case grpc::StatusCode::RESOURCE_EXHAUSTED:
      result.status = SyncCallStatus::Unreachable;
      break;
    case grpc::StatusCode::UNAUTHENTICATED:
    case grpc::StatusCode::PERMISSION_DENIED:
      result.status = SyncCallStatus::Unauthenticated;
      break;
    case grpc::StatusCode::CANCELLED:
      // A server shutting down cancels streams too; only our own cancel is final.
      result.status = cancelled ? SyncCallStatus::Cancelled : SyncCallStatus::Unreachable;
      break;
    default:
      result.status = SyncCallStatus::Failed;
      break;
  }
  if (result.message.empty()) result.message = "status " + std::to_string(static_cast<int>(status.error_code()));
  return result;
}

class GrpcSyncClient final : public SyncClient {
 public:
  GrpcSyncClient(std::shared_ptr<grpc::Channel> channel, std::string token, std::chrono::milliseconds deadline)
      : stub_(syncpb::DeviceSync::NewStub(channel)), token_(std::move(token)), deadline_(deadline) {}

  SyncCallResult push(const syncpb::PushRequest& request, syncpb::PushReply* reply) override {
    return unary([&](grpc::ClientContext* context) { return stub_->Push(context, request, reply); });
  }
  SyncCallResult pull(const syncpb::PullRequest& request, syncpb::PullReply* reply) override {
    return unary([&](grpc::ClientContext* context) { return stub_->Pull(context, request, reply); });
  }
  SyncCallResult listStores(syncpb::ListStoresReply* reply) override {
    return unary(
        [&](grpc::ClientContext* context) { return stub_->ListStores(context, syncpb::ListStoresRequest(), reply); });
  }

  SyncCallResult watch(const syncpb::WatchRequest& request,
                       const std::function<void(const syncpb::WatchNotice&)>& onNotice) override {
    grpc::ClientContext context;
    context.AddMetadata("authorization", "Bearer " + token_);
    // While the server is away the watch waits for it instead of failing:
    // the waiting call is what drives the channel's reconnection (a channel
    // nobody waits on is only polled every few seconds), and the watch's
    // first notice then tells the engine at once that the server is back.
    context.set_wait_for_ready(true);
    if (!enter(&context)) return cancelledResult();
    std::unique_ptr<grpc::ClientReader<syncpb::WatchNotice>> reader = stub_->Watch(&context, request);
    syncpb::WatchNotice notice;
    while (reader->Read(&notice)) onNotice(notice);
    const grpc::Status status = reader->Finish();
    return leave(&context, status);
  }

  void cancel() override {
    std::lock_guard lock(mutex_);
    cancelled_ = true;
    for (grpc::ClientContext* context : inFlight_) context->TryCancel();
  }

 private:
  template <class Call>
  SyncCallResult unary(const Call& call) {
    grpc::ClientContext context;
    context.AddMetadata("authorization", "Bearer " + token_);
    context.set_deadline(std::chrono::system_clock::now() + deadline_);
    if (!enter(&context)) return cancelledResult();
    const grpc::Status status = call(&context);
    return leave(&context, status);
  }

  static SyncCallResult cancelledResult() { return {SyncCallStatus::Cancelled, "the client was stopped"}; }

  // Registers context for cancel(); false when already cancelled.
  bool enter(grpc::ClientContext* context) {
    std::lock_guard lock(mutex_);
    if (cancelled_) return false;
    inFlight_.insert(context);
    return true;
  }
  SyncCallResult leave(grpc::ClientContext* context, const grpc::Status& status) {
    bool cancelled = false;
    {
      std::lock_guard lock(mutex_);
      inFlight_.erase(context);
      cancelled = cancelled_;
    }
    return resultOf(status, cancelled);
  }

  const std::unique_ptr<syncpb::DeviceSync::Stub> stub_;  // thread-safe
  const std::string token_;                               // immutable
  const std::chrono::milliseconds deadline_;              // immutable
  std::mutex mutex_;                                      // leaf
  bool cancelled_ = false;                                // guarded by mutex_
  std::set<grpc::ClientContext*> inFlight_;               // guarded by mutex_; owned by the calling frames
};

}  // namespace

std::unique_ptr<SyncClient> makeGrpcSyncClient(const AccountConfig& account, std::chrono::milliseconds deadline,
                                               std::string* error) {
  std::optional<ServerAddress> address = parseServerUrl(account.server, error);
  if (!address) return nullptr;
  grpc::ChannelArguments arguments;
  // gRPC's own reconnect backoff grows to two minutes; a server that comes
  // back should be seen within a couple of seconds. (The minimum, which
  // gRPC also takes as the connect timeout, stays at its default.)
  arguments.SetInt(GRPC_ARG_INITIAL_RECONNECT_BACKOFF_MS, 250);
  arguments.SetInt(GRPC_ARG_MAX_RECONNECT_BACKOFF_MS, 2000);
  // A watch that sits idle behind a dead route is noticed by keepalive; five
  // minutes is the least a server accepts by default.
  arguments.SetInt(GRPC_ARG_KEEPALIVE_TIME_MS, 300'000);
  arguments.SetInt(GRPC_ARG_KEEPALIVE_TIMEOUT_MS, 20'000);
  std::shared_ptr<grpc::ChannelCredentials> credentials =
      address->tls ? grpc::SslCredentials(grpc::SslCredentialsOptions()) : grpc::InsecureChannelCredentials();
  std::shared_ptr<grpc::Channel> channel = grpc::CreateCustomChannel(address->target, credentials, arguments);
  return std::make_unique<GrpcSyncClient>(std::move(channel), account.token, deadline);
}

}  // namespace velmorad
