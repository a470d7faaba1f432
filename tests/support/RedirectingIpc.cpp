// The redirecting transport for tests and benchmarks. See RedirectingIpc.h.
#include "RedirectingIpc.h"

namespace velmora::testing {

RedirectingIpcService::RedirectingIpcService(std::string busName, velmora::DbusIpcOptions options,
                                             ConnectionWrapper wrap)
    : busName_(std::move(busName)), wrap_(std::move(wrap)), transport_(std::move(options)) {}

std::shared_ptr<velmora::IpcConnection> RedirectingIpcService::connect(
    std::string serviceName, std::shared_ptr<velmora::DispatchQueue> eventQueue) {
  std::string destination = busName_.empty() ? serviceName : busName_;
  {
    std::lock_guard lock(mutex_);
    requested_.push_back(std::move(serviceName));
  }
  auto connection = transport_.connect(std::move(destination), std::move(eventQueue));
  return wrap_ ? wrap_(std::move(connection)) : connection;
}

std::vector<std::string> RedirectingIpcService::requested() const {
  std::lock_guard lock(mutex_);
  return requested_;
}

std::size_t RedirectingIpcService::connectionCount() const {
  std::lock_guard lock(mutex_);
  return requested_.size();
}

}  // namespace velmora::testing
