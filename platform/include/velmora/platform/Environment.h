// Environment: what the library asks of the process around it (variables,
// home directory, wall clock, the application's identity), behind one
// interface so a test can replace it.
//
// Application identity rule (resolveApplicationIdentifier), first match wins:
//   1. the `name=` under `[Application]` in the sandbox's .flatpak-info: a
//      sandboxed process cannot change that file but can set any variable, so
//      inside a sandbox nothing else may override it;
//   2. $ZKV_APPLICATION_ID, when non-empty;
//   3. $FLATPAK_ID, when non-empty;
//   4. the base name of the executable (a " (deleted)" suffix dropped);
//   otherwise there is no identifier.
// The same rule serves this process and, in the daemon, a peer process read
// through /proc.
#pragma once

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <sys/types.h>

namespace velmora {

class Environment {
 public:
  virtual ~Environment() = default;

  // The value of an environment variable, or nullopt when unset. Any thread,
  // as long as nothing in the process changes its environment concurrently.
  virtual std::optional<std::string> getVariable(std::string_view name) const = 0;

  // $HOME when set and non-empty, else the password-database entry of the
  // real user; nullopt when neither gives one. Any thread; may block on the
  // user database (NSS).
  virtual std::optional<std::string> homeDirectory() const = 0;

  // Wall-clock seconds since 2001-01-01 00:00:00 UTC. Any thread; never fails.
  virtual double absoluteTime() const = 0;

  // This application's identifier by the rule at the top of this file;
  // nullopt when none. Any thread; reads small files.
  virtual std::optional<std::string> hostApplicationIdentifier() const = 0;

  // Whether this process runs inside a Flatpak sandbox (/.flatpak-info
  // exists). Any thread.
  virtual bool isSandboxed() const = 0;
};

// The real process environment.
class SystemEnvironment final : public Environment {
 public:
  std::optional<std::string> getVariable(std::string_view name) const override;
  std::optional<std::string> homeDirectory() const override;
  double absoluteTime() const override;
  std::optional<std::string> hostApplicationIdentifier() const override;
  bool isSandboxed() const override;
};

// The process-wide environment (a SystemEnvironment until one is installed).
// Any thread; the reference stays valid for the life of the process.
Environment& currentEnvironment();

// Installs the process-wide environment and returns the previous one (never
// null); nullptr reinstates the system environment. Every environment ever
// installed is kept alive until exit, so references handed out earlier stay
// valid. Any thread.
std::shared_ptr<Environment> setEnvironment(std::shared_ptr<Environment> env);

// ---------------------------------------------------------------------------
// Application identity.

struct ApplicationIdentityInputs {
  // The process's environment variables (only the rule's names are read).
  std::map<std::string, std::string, std::less<>> variables;
  // The contents of its .flatpak-info, when it has one.
  std::optional<std::string> flatpakInfo;
  // The target of its executable link, when readable.
  std::optional<std::string> executablePath;
};

// Applies the identity rule to the inputs. Pure; any thread.
std::optional<std::string> resolveApplicationIdentifier(const ApplicationIdentityInputs& inputs);

// The `name=` value under `[Application]` in .flatpak-info text (a runtime's
// `[Runtime]` section does not count); nullopt when absent or empty. Pure.
std::optional<std::string> flatpakApplicationName(std::string_view flatpakInfo);

// The identifier of another process, read from <procRoot>/<pid>/environ,
// <procRoot>/<pid>/root/.flatpak-info and the link <procRoot>/<pid>/exe.
// Unreadable parts count as absent; nullopt when the rule finds nothing. The
// caller must make sure pid still names the process it means (e.g. by
// holding a pidfd across the call). Any thread; blocks on file reads.
std::optional<std::string> applicationIdentifierOfProcess(pid_t pid, const std::string& procRoot = "/proc");

// ---------------------------------------------------------------------------
// Linked release: the library release the application was built against,
// which selects between old and new behaviour where they differ.
//
// An application's setLinkedRelease() call wins; without one,
// ZKV_LINKED_RELEASE (decimal, read once on the first query); without
// either, release 8.

// The default when nothing says otherwise.
inline constexpr int kDefaultLinkedRelease = 8;

// Sets the linked release; call once at start-up, before the library is
// used. A value of 0 or below withdraws the call (back to the variable or
// the default). Any thread; queries after the call see it.
void setLinkedRelease(int release);

// The effective linked release, per the rule above. Any thread; the first
// call may read the environment.
int linkedRelease();

// linkedRelease() >= 8. Any thread.
bool linkedOnOrAfterRelease8();

// Parses ZKV_LINKED_RELEASE text: a positive decimal number up to 9999,
// nothing else around it. nullopt otherwise. Pure.
std::optional<int> parseLinkedRelease(std::string_view text);

}  // namespace velmora
