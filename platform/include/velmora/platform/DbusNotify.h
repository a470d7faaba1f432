// DbusNotify: the system-wide notification's wire form, for a process that
// owns a bus connection of its own and posts on it (the daemon, which sends
// a change notice right after the reply it belongs to, from the same
// thread). Not installed.
#pragma once

#include <string_view>

struct sd_bus;

namespace velmora {

// Queues the broadcast that postSystemNotification(name) sends, on bus, and
// writes it out as far as the socket takes it. Returns 0 or a negative errno.
// The caller must be the only user of bus meanwhile; never blocks.
int emitSystemNotification(sd_bus* bus, std::string_view name);

}  // namespace velmora
