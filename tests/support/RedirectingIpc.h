// RedirectingIpcService: the real session-bus transport, with the daemon's
// well-known name swapped for a bus name of the caller's own, so that every
// test meets its own responder. The transport's options (bus address, call
// timeout) are the caller's too, each connection can be wrapped (to watch
// what goes over it), and the names asked for are remembered.
#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "velmora/platform/Ipc.h"

namespace velmora::testing {

class RedirectingIpcService final : public velmora::IpcService {
 public:
  // Makes what a caller of connect() gets from the transport's connection.
  using ConnectionWrapper =
      std::function<std::shared_ptr<velmora::IpcConnection>(std::shared_ptr<velmora::IpcConnection>)>;

  // Connections go to busName; an empty busName leaves the name asked for
  // (for a transport that only differs in its options).
  explicit RedirectingIpcService(std::string busName, velmora::DbusIpcOptions options = {},
                                 ConnectionWrapper wrap = {});

  // The transport's connection to busName (see above), wrapped when a
  // wrapper was given. Any thread; does not block.
  std::shared_ptr<velmora::IpcConnection> connect(std::string serviceName,
                                                  std::shared_ptr<velmora::DispatchQueue> eventQueue) override;

  // The service names asked for, one per connection made, oldest first. Any thread.
  std::vector<std::string> requested() const;
  // How many connections have been made. Any thread.
  std::size_t connectionCount() const;

 private:
  const std::string busName_;
  const ConnectionWrapper wrap_;
  velmora::DbusIpcService transport_;
  mutable std::mutex mutex_;
  std::vector<std::string> requested_;  // guarded by mutex_
};

}  // namespace velmora::testing
