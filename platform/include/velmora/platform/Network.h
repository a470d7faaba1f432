// Network addresses as the daemon and the sync server judge them.
#pragma once

#include <string_view>

namespace velmora {

// Whether host names this machine's loopback: "localhost", or an IP literal
// in 127.0.0.0/8 or ::1 (bracketed or not). A name that merely starts like
// one ("127.evil.example") is not. Pure; any thread.
bool isLoopbackHost(std::string_view host);

}  // namespace velmora
