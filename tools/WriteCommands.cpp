// set, rm, load: change the store through the library, then have the daemon
// take the change before exiting (Invocation::commitWrites). A refused value
// changes nothing: the writes made so far are dropped with the store.
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <map>
#include <string>

#include "Command.h"
#include "ValueText.h"
#include "velmora/platform/PlistCodec.h"
#include "zkv/NimbrelStore.h"

namespace velmora::tool {

namespace {

using Expected = std::map<std::string, velmora::PropertyList, std::less<>>;

// The library's messages start with the class name, which means nothing to
// the tool's user.
std::string refusal(const NimbrelResult& result) {
  std::string message = result.error().message;
  constexpr std::string_view kPrefix = "NimbrelStore: ";
  if (message.rfind(kPrefix, 0) == 0) message.erase(0, kPrefix.size());
  return "refused: " + message;
}

int runSet(Invocation& invocation) {
  const std::string& key = invocation.positional(0);
  const std::string& text = invocation.positional(1);
  ParsedValue parsed;
  if (std::optional<std::string> typeName = invocation.value("--type")) {
    std::optional<ValueType> type = parseValueType(*typeName);
    if (!type) {
      return usageError(invocation.command(),
                        "unknown type \"" + *typeName + "\" (string, integer, real, boolean, data or date)");
    }
    parsed = parseTypedValue(*type, text);
  } else {
    parsed = parseJsonValue(text);
  }
  if (!parsed.ok()) {
    printError("value for \"" + key + "\": " + parsed.error);
    return kExitUsage;
  }
  std::shared_ptr<NimbrelStore> store = invocation.openStore();
  if (!store) return kExitUsage;
  if (NimbrelResult result = store->setObject(key, parsed.value); !result) {
    printError(refusal(result));
    return kExitUsage;
  }
  return invocation.commitWrites(Expected{{key, parsed.value}});
}

int runRm(Invocation& invocation) {
  const std::string& key = invocation.positional(0);
  std::shared_ptr<NimbrelStore> store = invocation.openStore();
  if (!store) return kExitUsage;
  if (!store->getObject(key)) {
    printError("no key \"" + key + "\" in " + invocation.storeLabel());
    return kExitMissingKey;
  }
  if (NimbrelResult result = store->removeObject(key); !result) {
    printError(refusal(result));
    return kExitUsage;
  }
  return invocation.commitWrites(Expected{{key, velmora::PropertyList()}});
}

// The whole of standard input, or nullopt after a read error.
std::optional<velmora::Bytes> readStandardInput() {
  velmora::Bytes bytes;
  std::uint8_t buffer[65536];
  for (;;) {
    const ssize_t n = ::read(STDIN_FILENO, buffer, sizeof buffer);
    if (n == 0) return bytes;
    if (n < 0) {
      if (errno == EINTR) continue;
      return std::nullopt;
    }
    bytes.insert(bytes.end(), buffer, buffer + n);
  }
}

int runLoad(Invocation& invocation) {
  const std::string& file = invocation.positional(0);
  velmora::PropertyList contents;
  if (file == "-") {
    std::optional<velmora::Bytes> bytes = readStandardInput();
    if (!bytes) {
      printError(std::string("cannot read standard input: ") + std::strerror(errno));
      return kExitUsage;
    }
    contents = velmora::decodePlist(*bytes);
  } else {
    if (::access(file.c_str(), R_OK) != 0) {
      printError("cannot read " + file + ": " + std::strerror(errno));
      return kExitUsage;
    }
    contents = velmora::readPlistFile(file);
  }
  const velmora::PlistDictionary* values = contents.getDictionary();
  if (values == nullptr) {
    const std::string name = file == "-" ? std::string("standard input") : file;
    printError(name + (contents.isNone() ? " is not a property list (binary or XML)"
                                         : " holds no dictionary at the top (a store takes keys to values)"));
    return kExitUsage;
  }
  std::shared_ptr<NimbrelStore> store = invocation.openStore();
  if (!store) return kExitUsage;
  Expected expected;
  for (const auto& [key, value] : *values) {
    if (NimbrelResult result = store->setObject(key, value); !result) {
      printError(refusal(result) + "; nothing was loaded");
      return kExitUsage;
    }
    expected.emplace(key, value);
  }
  if (expected.empty()) return kExitOk;
  return invocation.commitWrites(expected);
}

constexpr std::string_view kSetValueOptions[] = {"--type"};

}  // namespace

extern const Command kSetCommand{
    "set",
    "KEY VALUE [--type TYPE]",
    "store VALUE (JSON) under KEY",
    "Stores VALUE under KEY and waits until the daemon has written it.\n"
    "VALUE is JSON: 42, 1.5, true, '\"text\"', '[1, 2]', '{\"a\": 1}'; data as\n"
    "'{\"data\": \"<base64>\"}', a date as '{\"date\": \"2024-05-01T12:00:00Z\"}'.\n"
    "\n"
    "  --type TYPE  read VALUE as TYPE instead of JSON: string (as it stands),\n"
    "               integer, real, boolean (true/false), data (base64) or date\n"
    "               (ISO 8601 UTC)\n"
    "\n"
    "Exits 2 when VALUE does not read as asked or the store refuses it (a key\n"
    "longer than 64 bytes, too many keys, a value over the size limits), and 3\n"
    "when the daemon cannot be reached or does not keep the value.\n",
    kSetValueOptions,
    {},
    2,
    2,
    runSet,
};

extern const Command kRmCommand{
    "rm",
    "KEY",
    "remove KEY",
    "Removes KEY and waits until the daemon has written the store. Exits 1 when\n"
    "the store has no KEY, 3 when the daemon cannot be reached.\n",
    {},
    {},
    1,
    1,
    runRm,
};

extern const Command kLoadCommand{
    "load",
    "FILE",
    "set every key of a property-list file",
    "Reads FILE (binary or XML property list, - for standard input), which must\n"
    "hold a dictionary, sets each of its keys in the store, and waits until the\n"
    "daemon has written them all. Keys of the store that FILE lacks stay. When\n"
    "any value is refused nothing is written (exit 2).\n",
    {},
    {},
    1,
    1,
    runLoad,
};

}  // namespace velmora::tool
