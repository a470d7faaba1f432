// The command-line tool `velmora`: one Command object per command, listed in
// the table in CommandTable.cpp, each defined in a source file of its own
// group; main.cpp reads the global options and runs the command named.
//
// Design note
// - Threads. The tool runs on its main thread. It asks for an
//   application-driven main queue before anything touches the library, so
//   replies and observer calls run only inside waitOnMainQueue() or the
//   watch loop, on that thread, and never while a command is between steps.
// - The store. Invocation::openStore() gets the addressed store once; the
//   library's own threads (bus I/O, queue workers) serve it. A write is held
//   in memory until commitWrites() hands it to the daemon and checks, in the
//   re-read store file, that the daemon kept it.
// - Output. Results go to stdout, diagnostics to stderr, each prefixed
//   "velmora: "; commands flush what they print before they return.
#pragma once

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "velmora/platform/PropertyList.h"

class NimbrelStore;

namespace velmora::tool {

// The tool's exit statuses.
inline constexpr int kExitOk = 0;
inline constexpr int kExitMissingKey = 1;  // the key asked for is not in the store
inline constexpr int kExitUsage = 2;       // bad usage or refused input
inline constexpr int kExitDaemon = 3;      // the daemon (or the bus) could not be reached, or refused

// The options given before the command.
struct GlobalOptions {
  std::optional<std::string> application;  // --app: address this application's store, shared with it
  std::optional<std::string> store;        // --store: an additional store instead of the main one
};

// A command's own arguments, split by parseArguments(): options that take a
// value, flags, and the positional arguments in order.
struct Arguments {
  std::map<std::string, std::string, std::less<>> values;  // "--type" -> "integer"
  std::set<std::string, std::less<>> flags;                 // "--json"
  std::vector<std::string> positional;
};

class Invocation;

// One command of the tool. A plain constant: each is defined in its command
// file and listed once in the table.
struct Command {
  std::string_view name;      // what the user types: "get"
  std::string_view synopsis;  // the arguments after the name: "KEY"
  std::string_view summary;   // one line for the tool's --help
  std::string_view details;   // the command's --help text after its usage line, ending in a newline
  // Options that take a value and flags the command accepts ("--type"; "--json").
  std::span<const std::string_view> valueOptions;
  std::span<const std::string_view> flagOptions;
  // Positional arguments: at least minArguments, at most maxArguments.
  std::size_t minArguments;
  std::size_t maxArguments;
  // Runs the command; returns the exit status. The tool's main thread.
  int (*run)(Invocation& invocation);
};

// Every command, in the order --help lists them. Immutable; any thread.
std::span<const Command* const> commandTable();

// The command called name, or nullptr. Pure.
const Command* findCommand(std::string_view name);

// Splits args by command's options: "--opt VALUE" or "--opt=VALUE" for its
// value options, "--flag" for its flags, "--" ends the options, anything
// else is positional (so "-5" is a value). On an unknown option, a missing
// value or a wrong number of positional arguments returns nullopt with the
// reason in *error. Pure.
std::optional<Arguments> parseArguments(const Command& command, const std::vector<std::string>& args,
                                        std::string* error);

// The tool's --help text (usage, commands, exit statuses). Pure.
std::string toolHelp();
// A command's --help text. Pure.
std::string commandHelp(const Command& command);

// Prints "velmora: <message>" and a newline on stderr. Main thread.
void printError(std::string_view message);
// The same for a note that is no error (e.g. that watch is ready).
void printNote(std::string_view message);
// printError(message), then the command's usage line and a pointer to its
// --help; returns kExitUsage. Main thread.
int usageError(const Command& command, std::string_view message);

// Writes text to stdout and flushes it. False (after printing why on
// stderr) when stdout refuses the bytes, e.g. a closed pipe. Main thread.
bool writeOut(std::string_view text);

// One run of one command: the global options, the command's arguments, and
// the store they address. Main thread only.
class Invocation {
 public:
  Invocation(GlobalOptions options, const Command& command, Arguments arguments);
  ~Invocation();
  Invocation(const Invocation&) = delete;
  Invocation& operator=(const Invocation&) = delete;

  const GlobalOptions& options() const noexcept { return options_; }
  const Command& command() const noexcept { return command_; }
  const Arguments& arguments() const noexcept { return arguments_; }
  const std::string& positional(std::size_t index) const { return arguments_.positional.at(index); }
  bool hasFlag(std::string_view flag) const { return arguments_.flags.contains(flag); }
  std::optional<std::string> value(std::string_view option) const;

  // The addressed store: --app's (shared with it) or the tool's own, its
  // main store or --store's additional one. Made on the first call and kept
  // (the same pointer afterwards); making it waits for one bus round trip,
  // and never fails for want of a daemon. nullptr, with the reason printed,
  // when an identifier is not valid.
  std::shared_ptr<NimbrelStore> openStore();

  // How messages name the store: "the store of APP" or "store NAME of APP".
  // Pure after openStore() succeeded.
  std::string storeLabel() const;

  // Hands the writes made on the store to the daemon and waits for it, then
  // re-reads the store file and checks that it holds expected (key -> the
  // value written, none for a removed key). kExitOk when it does; otherwise
  // prints what failed (daemon unreachable, refused, or keys it did not
  // keep) and returns kExitDaemon. Blocks for the daemon round trips.
  int commitWrites(const std::map<std::string, velmora::PropertyList, std::less<>>& expected);

  // Prints why the daemon did not do what (a noun phrase, "the change"): it
  // answers a status request, so it refused, or it could not be reached.
  // Returns kExitDaemon. Blocks for one round trip.
  int reportDaemonFailure(std::string_view what);

 private:
  const GlobalOptions options_;
  const Command& command_;
  const Arguments arguments_;
  std::shared_ptr<NimbrelStore> store_;  // main thread; made by openStore()
};

// Runs main-queue work on the calling thread until done() holds or timeout
// passes; returns done()'s last value. For replies and completions of
// asynchronous requests. Main thread; blocks up to timeout.
bool waitOnMainQueue(const std::function<bool()>& done, std::chrono::milliseconds timeout);

}  // namespace velmora::tool
