// Decodes arbitrary bytes as a property list holding one request envelope,
// or an array of up to 16 of them, and has a fresh daemon answer them in
// order against one store file, as its store queue would (two senders take
// turns); dictionaries the bus could not carry are left out, as the bus
// would. Checks what every answer promises: a reply the bus can carry,
// holding either "userinfo" or "error"; and afterwards a store file that
// decodes to a dictionary whose change count is the last one a synchronize
// answered with (or one above it, for keys refused over a limit).
#include <stdlib.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <span>
#include <string>
#include <system_error>

#include "Daemon.h"
#include "FuzzSupport.h"
#include "velmora/platform/Ipc.h"
#include "velmora/platform/PlistCodec.h"
#include "zkv/ZKVClient.h"

using velmora::PropertyList;
namespace fs = std::filesystem;

namespace {

// A directory of this process's own; on a memory file system when there is
// one, so that the store's fsyncs cost nothing.
const fs::path& directory() {
  static const fs::path path = [] {
    std::error_code ec;
    std::string pattern = ((fs::is_directory("/dev/shm", ec) ? fs::path("/dev/shm") : fs::temp_directory_path()) /
                           "velmora-fuzz-request-XXXXXX").string();
    fuzz::check(::mkdtemp(pattern.data()) != nullptr && std::atexit([] { fs::remove_all(directory()); }) == 0);
    return fs::path(pattern);
  }();
  return path;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const PropertyList input = velmora::decodePlist(std::span(data, size));
  if (input.isNone()) return 0;
  std::error_code ec;
  for (const auto& item : fs::directory_iterator(directory(), ec)) fs::remove(item, ec);
  const fs::path store = directory() / "com.example.fuzz.plist";

  std::int64_t lastCount = -1;
  {
    velmorad::Daemon daemon("");
    const velmora::PlistArray* sequence = input.getArray();
    const std::size_t count = sequence != nullptr ? std::min<std::size_t>(sequence->size(), 16) : 1;
    for (std::size_t i = 0; i < count; ++i) {
      const PropertyList& request = sequence != nullptr ? (*sequence)[i] : input;
      // The bus carries no dictionary with NUL or invalid UTF-8 in a string
      // (sd-bus refuses them): the daemon never sees one.
      if (request.isDictionary() && !velmora::ipcObjectFromPropertyList(request)) continue;
      const PropertyList reply = daemon.answerStoreRequest(store, request, i % 2 == 0 ? ":1.1" : ":1.2");
      const PropertyList* userInfo = reply.find(kZKVReplyUserInfoKey);
      fuzz::check(velmora::ipcObjectFromPropertyList(reply) && reply.getDictionary()->size() == 1 &&
                  (userInfo != nullptr || reply.find(kZKVReplyErrorKey) != nullptr));
      const PropertyList* message = request.find(kZKVRequestMessageKey);
      const std::string* name = message != nullptr ? message->getString() : nullptr;
      if (userInfo == nullptr || name == nullptr || *name != kZKVMessageSynchronize) continue;
      // A successful synchronize answers with the store's change count.
      const PropertyList* answered = userInfo->find("changecount");
      fuzz::check(answered != nullptr && answered->getInt64(lastCount) && lastCount >= 0);
    }
  }
  if (!fs::exists(store, ec)) return 0;
  const PropertyList written = velmora::readPlistFile(store.string());
  const PropertyList* counted = written.find("changecount");
  std::int64_t fileCount = 0;
  fuzz::check(written.isDictionary() && counted != nullptr && counted->getInt64(fileCount));
  // Keys refused over a limit are journaled one above the answered count.
  fuzz::check(lastCount < 0 || (fileCount >= lastCount && fileCount <= lastCount + 1));
  return 0;
}
