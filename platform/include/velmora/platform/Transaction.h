// Keep-alive transactions: while any exists, the process has work in flight
// and should not exit or be suspended. The application learns of changes
// through one observer and decides what to do with them.
#pragma once

#include <cstddef>
#include <functional>
#include <string_view>

#include "velmora/platform/Export.h"

namespace velmora {

class VELMORA_EXPORT KeepAliveTransaction {
 public:
  // Opens a transaction: the active count goes up by one and the observer is
  // told the new count, on this thread, before the constructor returns.
  // name says what the work is (e.g. "com.vantrel.zkv-remote-prefs.transaction");
  // it is borrowed, so it must outlive the transaction (a literal does).
  // Any thread. With no observer installed it is one atomic increment; with
  // one, it blocks only while another thread is notifying the observer.
  explicit KeepAliveTransaction(std::string_view name);
  // Closes it: the count goes down by one and the observer is told, on the
  // destroying thread.
  ~KeepAliveTransaction();

  KeepAliveTransaction(const KeepAliveTransaction&) = delete;
  KeepAliveTransaction& operator=(const KeepAliveTransaction&) = delete;

  std::string_view name() const noexcept { return name_; }

  // Transactions alive right now. Any thread; lock-free, so an observer may
  // call it.
  static std::size_t activeCount() noexcept;

  // Installs the observer (an empty function removes it). Changes and their
  // notifications are serialised, so the observer sees every count in order;
  // it must therefore not open or close a transaction itself (that would
  // deadlock). Changes racing with the installation itself may go unreported.
  // Any thread; waits for a notification in progress.
  static void setObserver(std::function<void(std::size_t newCount)> observer);

 private:
  const std::string_view name_;  // immutable; borrowed
};

}  // namespace velmora
