// RedirectingIpcService: the real session-bus transport, with the daemon's
// well-known name swapped for a bus name of the caller's own, so that every
// test meets its own responder. The transport's options (bus address, call
// timeout) are the caller's too, and the names asked for are remembered.
#pragma once

#include <cstddef>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "velmora/platform/Ipc.h"

namespace velmora::testing {

class RedirectingIpcService final : public velmora::IpcService {
 public:
  // Connections go to busName; an empty busName leaves the name asked for
  // (for a transport that only differs in its options).
  explicit RedirectingIpcService(std::string busName, velmora::DbusIpcOptions options = {})
      : busName_(std::move(busName)), transport_(std::move(options)) {}

  // The transport's connection to busName (see above). Any thread; does not block.
  std::shared_ptr<velmora::IpcConnection> connect(std::string serviceName,
                                                  std::shared_ptr<velmora::DispatchQueue> eventQueue) override {
    std::string destination = busName_.empty() ? serviceName : busName_;
    {
      std::lock_guard lock(mutex_);
      requested_.push_back(std::move(serviceName));
    }
    return transport_.connect(std::move(destination), std::move(eventQueue));
  }

  // The service names asked for, one per connection made, oldest first. Any thread.
  std::vector<std::string> requested() const {
    std::lock_guard lock(mutex_);
    return requested_;
  }
  // How many connections have been made. Any thread.
  std::size_t connectionCount() const { return requested().size(); }

 private:
  const std::string busName_;
  velmora::DbusIpcService transport_;
  mutable std::mutex mutex_;
  std::vector<std::string> requested_;  // guarded by mutex_
};

}  // namespace velmora::testing
