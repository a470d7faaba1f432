#include "velmora/platform/PlistCodec.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <algorithm>
#include <cstring>
#include <limits>

namespace velmora {

PropertyList decodePlist(std::span<const std::uint8_t> bytes) {
  static constexpr char kBinaryMagic[] = "bplist00";
  constexpr std::size_t kMagicSize = sizeof kBinaryMagic - 1;
  if (bytes.size() >= kMagicSize && std::memcmp(bytes.data(), kBinaryMagic, kMagicSize) == 0)
    return decodeBinaryPlist(bytes);
  return decodeXmlPlist(bytes);
}

std::optional<Bytes> readFileContents(const std::string& path, std::size_t maxBytes, int* error) {
  int ignored = 0;
  if (error == nullptr) error = &ignored;
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    *error = errno;
    return std::nullopt;
  }
  Bytes bytes;
  struct stat st {};
  if (::fstat(fd, &st) == 0 && S_ISREG(st.st_mode) && st.st_size > 0)
    bytes.reserve(std::min(static_cast<std::size_t>(st.st_size), maxBytes));
  // Read to the end rather than trusting the size, which may change.
  constexpr std::size_t kChunk = 64 * 1024;
  *error = 0;
  for (;;) {
    const std::size_t used = bytes.size();
    if (used > maxBytes) {
      *error = EFBIG;
      break;
    }
    bytes.resize(used + kChunk);
    const ssize_t n = ::read(fd, bytes.data() + used, kChunk);
    if (n < 0 && errno == EINTR) {
      bytes.resize(used);
      continue;
    }
    if (n <= 0) {
      bytes.resize(used);
      if (n < 0) *error = errno;
      break;
    }
    bytes.resize(used + static_cast<std::size_t>(n));
  }
  ::close(fd);
  if (*error != 0) return std::nullopt;
  return bytes;
}

namespace {

std::optional<Bytes> readWholeFile(const std::string& path) {
  return readFileContents(path, std::numeric_limits<std::size_t>::max() / 2, nullptr);
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
