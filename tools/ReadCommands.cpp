// get, list, dump: read the store file through the library; none of them
// needs the daemon.
#include <string>

#include "Command.h"
#include "ValueText.h"
#include "velmora/platform/PlistCodec.h"
#include "zkv/NimbrelStore.h"

namespace velmora::tool {

namespace {

int runGet(Invocation& invocation) {
  std::shared_ptr<NimbrelStore> store = invocation.openStore();
  if (!store) return kExitUsage;
  const std::string& key = invocation.positional(0);
  std::optional<velmora::PropertyList> value = store->getObject(key);
  if (!value) {
    printError("no key \"" + key + "\" in " + invocation.storeLabel());
    return kExitMissingKey;
  }
  return writeOut(formatJson(*value, true) + "\n") ? kExitOk : kExitUsage;
}

int runList(Invocation& invocation) {
  std::shared_ptr<NimbrelStore> store = invocation.openStore();
  if (!store) return kExitUsage;
  std::string text;
  for (const auto& [key, value] : store->dictionaryRepresentation()) text += key + "\n";
  return writeOut(text) ? kExitOk : kExitUsage;
}

int runDump(Invocation& invocation) {
  std::shared_ptr<NimbrelStore> store = invocation.openStore();
  if (!store) return kExitUsage;
  std::optional<std::string> xml =
      velmora::encodeXmlPlist(velmora::PropertyList::dictionary(store->dictionaryRepresentation()));
  if (!xml) {
    printError(invocation.storeLabel() +
               " holds a value an XML property list cannot carry (a string with control characters, "
               "or a date beyond the years XML dates spell)");
    return kExitUsage;
  }
  return writeOut(*xml) ? kExitOk : kExitUsage;
}

}  // namespace

extern const Command kGetCommand{
    "get",
    "KEY",
    "print the value of KEY as JSON",
    "Prints the value stored under KEY as JSON. Data prints as {\"data\": \"<base64>\"},\n"
    "dates as {\"date\": \"<ISO 8601 UTC>\"}, reals JSON cannot write as\n"
    "{\"real\": \"nan\" | \"inf\" | \"-inf\"}. Exits 1, with a message on stderr, when\n"
    "the store has no KEY. Reads the store file; the daemon is not asked.\n",
    {},
    {},
    1,
    1,
    runGet,
};

extern const Command kListCommand{
    "list",
    "",
    "print the store's keys, one a line",
    "Prints every key of the store, one a line, in byte order.\n",
    {},
    {},
    0,
    0,
    runList,
};

extern const Command kDumpCommand{
    "dump",
    "",
    "print the whole store as an XML property list",
    "Prints the store's values, key -> value, as one XML property list on stdout;\n"
    "`load` reads it back. Exits 2 when a value cannot be written as XML (a\n"
    "string holding control characters other than tab, newline and return).\n",
    {},
    {},
    0,
    0,
    runDump,
};

}  // namespace velmora::tool
