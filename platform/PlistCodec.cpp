#include "velmora/platform/PlistCodec.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace velmora {

PropertyList decodePlist(std::span<const std::uint8_t> bytes) {
  static constexpr char kBinaryMagic[] = "bplist00";
  constexpr std::size_t kMagicSize = sizeof kBinaryMagic - 1;
  if (bytes.size() >= kMagicSize && std::memcmp(bytes.data(), kBinaryMagic, kMagicSize) == 0)
    return decodeBinaryPlist(bytes);
  return decodeXmlPlist(bytes);
}

namespace {

// The whole file, read to its end rather than trusting the size, which may
// change; nullopt when it cannot be opened or read.
std::optional<Bytes> readWholeFile(const std::string& path) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return std::nullopt;
  Bytes bytes;
  struct stat st {};
  if (::fstat(fd, &st) == 0 && S_ISREG(st.st_mode) && st.st_size > 0)
    bytes.reserve(static_cast<std::size_t>(st.st_size));
  constexpr std::size_t kChunk = 64 * 1024;
  bool ok = true;
  for (;;) {
    const std::size_t used = bytes.size();
    bytes.resize(used + kChunk);
    const ssize_t n = ::read(fd, bytes.data() + used, kChunk);
    if (n < 0 && errno == EINTR) {
      bytes.resize(used);
      continue;
    }
    if (n <= 0) {
      bytes.resize(used);
      ok = n == 0;
      break;
    }
    bytes.resize(used + static_cast<std::size_t>(n));
  }
  ::close(fd);
  if (!ok) return std::nullopt;
  return bytes;
}

}  // namespace

PropertyList readPlistFile(const std::string& path) {
  std::optional<Bytes> bytes = readWholeFile(path);
  return bytes ? decodePlist(*bytes) : PropertyList();
}

PropertyList readPlistFileEntry(const std::string& path, std::string_view key) {
  std::optional<Bytes> bytes = readWholeFile(path);
  return bytes ? decodeBinaryPlistEntry(*bytes, key) : PropertyList();
}

}  // namespace velmora
