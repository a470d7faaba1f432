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
#include <fstream>
#include <iterator>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

#include "Daemon.h"
#include "velmora/platform/Ipc.h"
#include "velmora/platform/Log.h"
#include "velmora/platform/PlistCodec.h"
#include "zkv/ZKVClient.h"

using velmora::PropertyList;

namespace {

constexpr std::size_t kMaxRequests = 16;

class DiscardingSink : public velmora::LogSink {
 public:
  void write(const velmora::LogHandle&, velmora::LogLevel, std::string_view) override {}
  bool accepts(velmora::LogLevel) const override { return true; }
};

// A directory of this process's own; on a memory file system when there is
// one, so that the store's fsyncs cost nothing.
const std::filesystem::path& directory() {
  static const std::filesystem::path path = [] {
    std::error_code ec;
    std::filesystem::path base = std::filesystem::is_directory("/dev/shm", ec) ? std::filesystem::path("/dev/shm")
                                                                                : std::filesystem::temp_directory_path();
    std::string pattern = (base / "velmora-fuzz-request-XXXXXX").string();
    if (::mkdtemp(pattern.data()) == nullptr) __builtin_trap();
    std::atexit([] { std::filesystem::remove_all(directory()); });
    return std::filesystem::path(pattern);
  }();
  return path;
}

// Checks one reply; returns the change count a successful synchronize
// answered with, else -1.
std::int64_t check(const PropertyList& request, const PropertyList& reply) {
  if (!velmora::ipcObjectFromPropertyList(reply)) __builtin_trap();
  const PropertyList* userInfo = reply.find(kZKVReplyUserInfoKey);
  const PropertyList* error = reply.find(kZKVReplyErrorKey);
  if ((userInfo == nullptr) == (error == nullptr) || reply.getDictionary()->size() != 1) __builtin_trap();
  const PropertyList* message = request.find(kZKVRequestMessageKey);
  std::int64_t count = -1;
  if (userInfo != nullptr && message != nullptr && message->isString() &&
      *message->getString() == kZKVMessageSynchronize) {
    const PropertyList* answered = userInfo->find("changecount");
    if (answered == nullptr || !answered->getInt64(count) || count < 0) __builtin_trap();
  }
  return count;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const bool quiet = (velmora::setLogSink(std::make_shared<DiscardingSink>()), true);
  (void)quiet;
  const PropertyList input = velmora::decodePlist(std::span(data, size));
  if (input.isNone()) return 0;

  std::error_code ec;
  for (const auto& item : std::filesystem::directory_iterator(directory(), ec)) std::filesystem::remove(item, ec);
  const std::filesystem::path store = directory() / "com.example.fuzz.plist";

  std::int64_t lastCount = -1;
  {
    velmorad::Daemon daemon("");
    const velmora::PlistArray* sequence = input.getArray();
    const std::size_t count = sequence != nullptr ? std::min(sequence->size(), kMaxRequests) : 1;
    for (std::size_t i = 0; i < count; ++i) {
      const PropertyList& request = sequence != nullptr ? (*sequence)[i] : input;
      // The bus carries no dictionary with NUL or invalid UTF-8 in a string
      // (sd-bus refuses them): the daemon never sees one.
      if (request.isDictionary() && !velmora::ipcObjectFromPropertyList(request)) continue;
      const std::int64_t answered =
          check(request, daemon.answerStoreRequest(store, request, i % 2 == 0 ? ":1.1" : ":1.2"));
      if (answered >= 0) lastCount = answered;
    }
  }

  if (std::filesystem::exists(store, ec)) {
    std::ifstream in(store, std::ios::binary);
    const std::vector<std::uint8_t> bytes{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
    const PropertyList written = velmora::decodePlist(bytes);
    std::int64_t fileCount = 0;
    const PropertyList* counted = written.find("changecount");
    if (!written.isDictionary() || counted == nullptr || !counted->getInt64(fileCount)) __builtin_trap();
    // Keys refused over a limit are journaled one above the answered count.
    if (lastCount >= 0 && (fileCount < lastCount || fileCount > lastCount + 1)) __builtin_trap();
  }
  return 0;
}
