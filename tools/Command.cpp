// What every command shares: argument splitting, help texts, messages, the
// store an invocation addresses, and the hand-over of its writes.
#include "Command.h"

#include <poll.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "velmora/platform/Dispatch.h"
#include "zkv/NimbrelStore.h"
#include "zkv/ZKVRemotePreferencesSource.h"

namespace velmora::tool {

namespace {

constexpr std::string_view kProgram = "velmora";
constexpr std::string_view kGlobalSynopsis = "[--app ID] [--store NAME]";
constexpr std::string_view kDaemonName = "velmorad";

bool contains(std::span<const std::string_view> list, std::string_view item) {
  for (std::string_view entry : list) {
    if (entry == item) return true;
  }
  return false;
}

std::string usageLine(const Command& command) {
  std::string line = "usage: " + std::string(kProgram) + " " + std::string(kGlobalSynopsis) + " " +
                     std::string(command.name);
  if (!command.synopsis.empty()) line += " " + std::string(command.synopsis);
  return line;
}

}  // namespace

const Command* findCommand(std::string_view name) {
  for (const Command* command : commandTable()) {
    if (command->name == name) return command;
  }
  return nullptr;
}

std::optional<Arguments> parseArguments(const Command& command, const std::vector<std::string>& args,
                                        std::string* error) {
  Arguments parsed;
  bool optionsEnded = false;
  for (std::size_t i = 0; i < args.size(); ++i) {
    const std::string& arg = args[i];
    if (optionsEnded || arg.size() < 3 || arg.compare(0, 2, "--") != 0) {
      if (arg == "--") {
        optionsEnded = true;
        continue;
      }
      parsed.positional.push_back(arg);
      continue;
    }
    const std::size_t equals = arg.find('=');
    const std::string name = arg.substr(0, equals);
    if (contains(command.valueOptions, name)) {
      if (equals != std::string::npos) {
        parsed.values.insert_or_assign(name, arg.substr(equals + 1));
      } else if (i + 1 < args.size()) {
        parsed.values.insert_or_assign(name, args[++i]);
      } else {
        *error = name + " needs a value";
        return std::nullopt;
      }
    } else if (equals == std::string::npos && contains(command.flagOptions, name)) {
      parsed.flags.insert(name);
    } else {
      *error = "unknown option " + arg + " for " + std::string(command.name);
      return std::nullopt;
    }
  }
  const std::size_t count = parsed.positional.size();
  if (count < command.minArguments || count > command.maxArguments) {
    *error = std::string(command.name) + " takes " +
             (command.minArguments == command.maxArguments
                  ? std::to_string(command.minArguments)
                  : std::to_string(command.minArguments) + " to " + std::to_string(command.maxArguments)) +
             (command.maxArguments == 1 ? " argument" : " arguments") + ", not " + std::to_string(count);
    return std::nullopt;
  }
  return parsed;
}

std::string toolHelp() {
  std::string text = "usage: " + std::string(kProgram) + " " + std::string(kGlobalSynopsis) +
                     " COMMAND [ARGUMENTS]\n"
                     "\n"
                     "Reads and changes a Velmora store through the library, as an application does;\n"
                     "velmorad, the per-user daemon, writes the store file.\n"
                     "\n"
                     "Options before the command:\n"
                     "  --app ID      the store of application ID, shared with it (default: the\n"
                     "                tool's own store, application \"velmora\" or $ZKV_APPLICATION_ID)\n"
                     "  --store NAME  the application's additional store NAME instead of its main one\n"
                     "  --help        this text; COMMAND --help for one command's\n"
                     "\n"
                     "Commands:\n";
  for (const Command* command : commandTable()) {
    std::string left = "  " + std::string(command->name);
    if (!command->synopsis.empty()) left += " " + std::string(command->synopsis);
    if (left.size() < 22) left.resize(22, ' ');
    else left += "  ";
    text += left + std::string(command->summary) + "\n";
  }
  text +=
      "\n"
      "Values are JSON; data prints as {\"data\": \"<base64>\"}, dates as\n"
      "{\"date\": \"<ISO 8601 UTC>\"}, and set reads those forms back.\n"
      "\n"
      "Exit status:\n"
      "  0  success\n"
      "  1  the key is not in the store (get, rm)\n"
      "  2  bad usage, or input refused (bad JSON, wrong type, over a store limit)\n"
      "  3  the daemon or the session bus could not be reached, or the daemon refused\n";
  return text;
}

std::string commandHelp(const Command& command) {
  return usageLine(command) + "\n\n" + std::string(command.summary) + ".\n\n" + std::string(command.details);
}

void printError(std::string_view message) {
  std::fprintf(stderr, "%.*s: %.*s\n", static_cast<int>(kProgram.size()), kProgram.data(),
               static_cast<int>(message.size()), message.data());
}

void printNote(std::string_view message) { printError(message); }

int usageError(const Command& command, std::string_view message) {
  printError(message);
  std::fprintf(stderr, "%s\nTry '%.*s %.*s --help'.\n", usageLine(command).c_str(), static_cast<int>(kProgram.size()),
               kProgram.data(), static_cast<int>(command.name.size()), command.name.data());
  return kExitUsage;
}

bool writeOut(std::string_view text) {
  if (std::fwrite(text.data(), 1, text.size(), stdout) != text.size() || std::fflush(stdout) != 0) {
    printError(std::string("cannot write the output: ") + std::strerror(errno));
    return false;
  }
  return true;
}

Invocation::Invocation(GlobalOptions options, const Command& command, Arguments arguments)
    : options_(std::move(options)), command_(command), arguments_(std::move(arguments)) {}

Invocation::~Invocation() = default;

std::optional<std::string> Invocation::value(std::string_view option) const {
  auto found = arguments_.values.find(option);
  if (found == arguments_.values.end()) return std::nullopt;
  return found->second;
}

std::shared_ptr<NimbrelStore> Invocation::openStore() {
  if (store_) return store_;
  if (options_.application) {
    store_ = NimbrelStore::storeForApplication(*options_.application, options_.store);
    if (!store_) {
      printError("\"" + *options_.application + "\"" +
                 (options_.store ? " with store \"" + *options_.store + "\"" : std::string()) +
                 " does not name a store (no empty names, '/', NUL, \".\" or \"..\")");
    }
  } else if (options_.store) {
    store_ = NimbrelStore::storeWithIdentifier(*options_.store);
    if (!store_) printError("\"" + *options_.store + "\" does not name a store (no '/', NUL, \".\" or \"..\")");
  } else {
    store_ = NimbrelStore::defaultStore();
  }
  return store_;
}

std::string Invocation::storeLabel() const {
  const std::string application =
      store_ && store_->applicationIdentifier() ? *store_->applicationIdentifier() : std::string("(none)");
  if (options_.store && !options_.store->empty()) return "store " + *options_.store + " of " + application;
  return "the store of " + application;
}

int Invocation::reportDaemonFailure(std::string_view what) {
  std::optional<std::string> status;
  if (store_) {
    store_->useSourceSyncWithBlock(
        [&](ZKVRemotePreferencesSource& source) { status = source.serverSideDebugDescription(); });
  }
  if (status) {
    printError(std::string(kDaemonName) + " refused " + std::string(what));
  } else {
    printError(std::string(kDaemonName) + " could not be reached for " + std::string(what) +
               "; is a session bus running, with velmorad activatable on it?");
  }
  return kExitDaemon;
}

int Invocation::commitWrites(const std::map<std::string, velmora::PropertyList, std::less<>>& expected) {
  if (!store_->synchronize()) return reportDaemonFailure("the change (nothing was written)");
  // Re-read the store file: the daemon answers a hand-over even when it left
  // a key out (over one of its own limits), and only the file tells.
  store_->useSourceSyncWithBlock([](ZKVRemotePreferencesSource& source) { source.synchronizeForced(true); });
  std::string missed;
  for (const auto& [key, value] : expected) {
    const std::optional<velmora::PropertyList> stored = store_->getObject(key);
    const bool kept = value.isNone() ? !stored.has_value() : stored.has_value() && *stored == value;
    if (!kept) missed += (missed.empty() ? "\"" : ", \"") + key + "\"";
  }
  if (!missed.empty()) {
    printError(std::string(kDaemonName) + " did not keep " + missed + " in " + storeLabel() +
               " (over one of its limits, or changed elsewhere meanwhile)");
    return kExitDaemon;
  }
  return kExitOk;
}

bool waitOnMainQueue(const std::function<bool()>& done, std::chrono::milliseconds timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  const int fd = velmora::DispatchQueue::mainQueueFileDescriptor();
  while (!done()) {
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) return done();
    pollfd wake{fd, POLLIN, 0};
    const int ready = ::poll(&wake, 1, static_cast<int>(left.count()));
    if (ready < 0 && errno != EINTR) return done();
    velmora::DispatchQueue::drainMainQueue();
  }
  return true;
}

}  // namespace velmora::tool
