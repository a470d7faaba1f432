// velmora: the command-line tool. Reads the global options, then runs the
// command named (see Command.h for the table and the threading).
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "Command.h"
#include "velmora/platform/Dispatch.h"
#include "velmora/platform/Log.h"

using velmora::tool::Command;
using velmora::tool::GlobalOptions;

namespace {

bool isHelp(const std::string& arg) { return arg == "--help" || arg == "-h"; }

// Reads "--name VALUE" or "--name=VALUE" at args[*i] into *out. False when
// args[*i] is not that option; a missing value is reported and sets *bad.
bool takeOption(const std::vector<std::string>& args, std::size_t* i, const std::string& name,
                std::optional<std::string>* out, bool* bad) {
  const std::string& arg = args[*i];
  if (arg.rfind(name + "=", 0) == 0) {
    *out = arg.substr(name.size() + 1);
    return true;
  }
  if (arg != name) return false;
  if (*i + 1 >= args.size()) {
    velmora::tool::printError(name + " needs a value");
    *bad = true;
    return true;
  }
  *out = args[++*i];
  return true;
}

int printToolHelp(std::FILE* out) {
  const std::string text = velmora::tool::toolHelp();
  std::fputs(text.c_str(), out);
  return out == stdout ? velmora::tool::kExitOk : velmora::tool::kExitUsage;
}

}  // namespace

int main(int argc, char** argv) {
  // Before anything touches the library: replies and observer calls run on
  // this thread, inside the commands' waits, never on a thread of their own.
  velmora::DispatchQueue::setMainQueueDrivenByApplication(true);
  // Without a journal the library's lines would go to stderr, repeating in
  // log form what the tool says itself: there they show only when asked for.
  if (std::getenv("ZKV_LOG_LEVEL") == nullptr && !velmora::journalAvailable()) {
    velmora::SystemLogSink::Options quiet;
    quiet.threshold = velmora::LogLevel::Fault;
    velmora::setLogSink(std::make_shared<velmora::SystemLogSink>(quiet));
  }

  const std::vector<std::string> args(argv + 1, argv + argc);
  GlobalOptions options;
  std::size_t i = 0;
  for (; i < args.size(); ++i) {
    bool bad = false;
    if (isHelp(args[i])) return printToolHelp(stdout);
    if (takeOption(args, &i, "--app", &options.application, &bad) ||
        takeOption(args, &i, "--store", &options.store, &bad)) {
      if (bad) return velmora::tool::kExitUsage;
      continue;
    }
    if (args[i].rfind("-", 0) == 0) {
      velmora::tool::printError("unknown option " + args[i] + " (options before the command: --app, --store)");
      return velmora::tool::kExitUsage;
    }
    break;
  }
  if (i == args.size()) {
    velmora::tool::printError("no command given");
    return printToolHelp(stderr);
  }

  std::string name = args[i];
  std::vector<std::string> rest(args.begin() + static_cast<std::ptrdiff_t>(i) + 1, args.end());
  if (name == "help") {
    if (rest.empty()) return printToolHelp(stdout);
    name = rest.front();
    rest = {"--help"};
  }
  const Command* command = velmora::tool::findCommand(name);
  if (command == nullptr) {
    velmora::tool::printError("unknown command \"" + name + "\"; 'velmora --help' lists them");
    return velmora::tool::kExitUsage;
  }
  for (const std::string& arg : rest) {
    if (arg == "--") break;
    if (isHelp(arg)) {
      std::fputs(velmora::tool::commandHelp(*command).c_str(), stdout);
      return velmora::tool::kExitOk;
    }
  }
  std::string error;
  std::optional<velmora::tool::Arguments> arguments = velmora::tool::parseArguments(*command, rest, &error);
  if (!arguments) return velmora::tool::usageError(*command, error);

  velmora::tool::Invocation invocation(std::move(options), *command, std::move(*arguments));
  return command->run(invocation);
}
