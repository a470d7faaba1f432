// The tool's commands. Each command's source file defines its Command
// constant; the list below names it once, which both declares it and puts it
// in the table. A new command is one more source file and one more line.
#include "Command.h"

// In the order --help lists them.
#define VELMORA_TOOL_COMMANDS(X) \
  X(kGetCommand)                 \
  X(kSetCommand)                 \
  X(kRmCommand)                  \
  X(kListCommand)                \
  X(kDumpCommand)                \
  X(kLoadCommand)                \
  X(kWatchCommand)               \
  X(kSyncCommand)                \
  X(kStatusCommand)              \
  X(kAccountCommand)             \
  X(kResetAllCommand)            \
  X(kNotifyCommand)

namespace velmora::tool {

#define VELMORA_TOOL_DECLARE(name) extern const Command name;
VELMORA_TOOL_COMMANDS(VELMORA_TOOL_DECLARE)
#undef VELMORA_TOOL_DECLARE

namespace {

#define VELMORA_TOOL_ENTRY(name) &name,
constexpr const Command* kCommands[] = {VELMORA_TOOL_COMMANDS(VELMORA_TOOL_ENTRY)};
#undef VELMORA_TOOL_ENTRY

}  // namespace

std::span<const Command* const> commandTable() { return kCommands; }

}  // namespace velmora::tool
