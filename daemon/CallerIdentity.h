// CallerIdentity: who is behind a bus connection, as velmorad decides once
// per connection.
//
// The bus tells the process id and user of the process that opened the
// connection. That process may have forked and exited since, and its id may
// even name another process by now, so the process is pinned with a pidfd
// while it is looked at, its start time must not be later than the moment
// the connection was known to exist, and it must still be alive after the
// look. Anything that cannot be decided leaves the identity unknown, and a
// caller of unknown identity is refused everything: the check fails closed.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>

namespace velmorad {

struct CallerIdentity {
  bool known = false;     // false: could not be established (why says why); refuse every request
  bool confined = false;  // runs in a sandbox (its root holds the sandbox's marker file)
  std::optional<std::string> application;  // its application identifier; always set when confined
  std::string why;                         // when unknown: the reason, for the error reply
};

// The marker file a sandbox puts at the root of its processes.
inline constexpr const char* kSandboxMarker = ".flatpak-info";

// Identifies process pid of user uid, which opened its connection no later
// than connectedBy (CLOCK_BOOTTIME nanoseconds; 0 when unknown). Reads
// /proc; blocks on small reads. Any thread.
CallerIdentity identifyProcess(pid_t pid, uid_t uid, std::uint64_t connectedBy);

// CLOCK_BOOTTIME now, in nanoseconds. Any thread.
std::uint64_t bootTimeNow();

}  // namespace velmorad
