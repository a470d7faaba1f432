// The store's one diagnostic: the daemon's own description of the store,
// printed to the console for a developer (never to the log channels).
#include "velmora/platform/Log.h"
#include "zkv/NimbrelStore.h"
#include "zkv/ZKVRemotePreferencesSource.h"

void NimbrelStore::printDebugDescription() {
  // The callback keeps the store alive while the daemon answers.
  useSourceSyncWithBlock([self = shared_from_this()](ZKVRemotePreferencesSource& source) {
    if (std::optional<std::string> description = source.serverSideDebugDescription()) {
      velmora::consoleLog(self->description() + ": " + *description);
    } else {
      velmora::consoleLog("Can't get information on " + self->description());
    }
  });
}
