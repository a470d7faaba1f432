// What a test or a benchmark changes around the code it runs, and puts back:
// a scratch directory, an environment whose home directory is in it, files
// written there whole, and the process-wide services swapped for its own.
//
// Header-only, so that the benchmarks use it without the test library.
// Nothing here is thread-safe unless its comment says so.
#pragma once

#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <iterator>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#include "velmora/platform/Environment.h"
#include "velmora/platform/Log.h"
#include "velmora/platform/MemoryPressure.h"
#include "velmora/platform/PlistCodec.h"
#include "velmora/platform/SystemNotifications.h"

namespace velmora::testing {

// When VELMORA_FUZZ_SEED_DIR names a directory (scripts/fuzz-seeds sets it),
// copies the regular files under directory, up to 1 MiB each, into a new
// subdirectory of it, keeping their relative paths: the store files, journals
// and recorded requests the tests made become fuzzing seeds. Otherwise does
// nothing. Any thread; blocks on file I/O; never throws.
inline void keepFilesForFuzzSeeds(const std::filesystem::path& directory) {
  const char* seeds = std::getenv("VELMORA_FUZZ_SEED_DIR");
  if (seeds == nullptr || *seeds == '\0') return;
  static std::atomic<int> counter{0};
  const std::filesystem::path into = std::filesystem::path(seeds) / (std::to_string(::getpid()) + "-" +
                                                                     std::to_string(counter.fetch_add(1)));
  std::error_code ec;
  for (auto it = std::filesystem::recursive_directory_iterator(directory, ec);
       !ec && it != std::filesystem::recursive_directory_iterator(); it.increment(ec)) {
    std::error_code fileError;
    if (!it->is_regular_file(fileError) || it->file_size(fileError) > (1u << 20) || fileError) continue;
    const std::filesystem::path target = into / std::filesystem::relative(it->path(), directory, fileError);
    std::filesystem::create_directories(target.parent_path(), fileError);
    std::filesystem::copy_file(it->path(), target, std::filesystem::copy_options::overwrite_existing, fileError);
  }
}

// A fresh directory under the system's temporary directory, its name
// starting with prefix, removed with everything in it on destruction (after
// keepFilesForFuzzSeeds()). Throws std::runtime_error when it cannot be
// made. Blocks on file I/O.
class ScratchDirectory {
 public:
  explicit ScratchDirectory(std::string_view prefix) {
    std::string pattern = (std::filesystem::temp_directory_path() / (std::string(prefix) + "-XXXXXX")).string();
    if (::mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("cannot make a directory like " + pattern);
    path_ = pattern;
  }
  ~ScratchDirectory() {
    keepFilesForFuzzSeeds(path_);
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  ScratchDirectory(const ScratchDirectory&) = delete;
  ScratchDirectory& operator=(const ScratchDirectory&) = delete;

  const std::filesystem::path& path() const noexcept { return path_; }
  // The path of name inside the directory.
  std::string file(const std::string& name) const { return (path_ / name).string(); }

 private:
  std::filesystem::path path_;
};

// The process's real variables and clock, with a home directory and an
// application identity of the caller's choosing; never sandboxed. Any thread.
class ScratchHomeEnvironment final : public velmora::Environment {
 public:
  explicit ScratchHomeEnvironment(std::string home, std::optional<std::string> application = "com.example.tests")
      : home_(std::move(home)), application_(std::move(application)) {}

  std::optional<std::string> getVariable(std::string_view name) const override { return system_.getVariable(name); }
  std::optional<std::string> homeDirectory() const override { return home_; }
  double absoluteTime() const override { return system_.absoluteTime(); }
  std::optional<std::string> hostApplicationIdentifier() const override { return application_; }
  bool isSandboxed() const override { return false; }

 private:
  velmora::SystemEnvironment system_;
  const std::string home_;
  const std::optional<std::string> application_;
};

// Takes observers and posts without a bus, and never calls an observer: for
// code whose system notifications play no part in what is checked. Any thread.
class SilentSystemNotificationCenter final : public velmora::SystemNotificationCenter {
 public:
  velmora::SystemObserverToken addObserver(std::string, std::shared_ptr<velmora::DispatchQueue>,
                                           std::function<void()>, const void*) override { return 1; }
  void removeObserver(velmora::SystemObserverToken) override {}
  void removeObservers(const void*) override {}
  bool post(std::string_view) override { return true; }
};

// Whether sink holds a line of the library's default channel (subsystem
// "com.vantrel.velmora", category "Default") with level and message. Any thread.
inline bool loggedOnDefaultChannel(const velmora::CapturingLogSink& sink, velmora::LogLevel level,
                                   std::string_view message) {
  const velmora::CapturedLogLine wanted{"com.vantrel.velmora", "Default", level, std::string(message)};
  return std::ranges::count(sink.lines(), wanted) > 0;
}

// Installs process-wide services and, on destruction, puts back the ones
// they replaced, the last first. Use from one thread.
class ScopedServices {
 public:
  ScopedServices() = default;
  ~ScopedServices() { restore(); }
  ScopedServices(const ScopedServices&) = delete;
  ScopedServices& operator=(const ScopedServices&) = delete;

  // Installs service with its setter (velmora::setLogSink, setIpcService, ...)
  // and remembers the one it replaced.
  template <class Service>
  void install(std::shared_ptr<Service> (*setter)(std::shared_ptr<Service>),
               std::type_identity_t<std::shared_ptr<Service>> service) {
    std::shared_ptr<Service> previous = setter(std::move(service));
    restores_.push_back([setter, previous = std::move(previous)] { setter(previous); });
  }

  // Installs a log sink that keeps every line, and returns it.
  std::shared_ptr<velmora::CapturingLogSink> captureLog() {
    auto sink = std::make_shared<velmora::CapturingLogSink>();
    install(velmora::setLogSink, sink);
    return sink;
  }

  // Installs a memory-pressure monitor that does not watch the system:
  // warnings come from raiseMemoryWarning() only.
  void quietMemoryPressure() {
    velmora::LinuxMemoryPressureOptions quiet;
    quiet.watchSystem = false;
    install(velmora::setMemoryPressureMonitor, std::make_shared<velmora::LinuxMemoryPressureMonitor>(std::move(quiet)));
  }

  // Puts back every service replaced so far, the last first. Idempotent.
  void restore() {
    for (; !restores_.empty(); restores_.pop_back()) restores_.back()();
  }

 private:
  std::vector<std::function<void()>> restores_;  // one per install, oldest first
};

// The whole content of a file, or nullopt when it cannot be read. Blocks on
// file I/O.
inline std::optional<std::string> readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return std::nullopt;
  return std::string(std::istreambuf_iterator<char>(in), {});
}

// Writes value to path as a binary property list, making the directories
// above it, through a temporary file renamed into place so that a reader
// never sees half a file. False when the value cannot be encoded or the file
// cannot be written. Blocks on file I/O.
inline bool writePlistFile(const std::string& path, const velmora::PropertyList& value) {
  std::optional<velmora::Bytes> bytes = velmora::encodeBinaryPlist(value);
  if (!bytes) return false;
  std::error_code ignored;
  std::filesystem::create_directories(std::filesystem::path(path).parent_path(), ignored);
  const std::string temporary = path + ".tmp" + std::to_string(::getpid());
  std::ofstream out(temporary, std::ios::binary | std::ios::trunc);
  if (!out.write(reinterpret_cast<const char*>(bytes->data()), static_cast<std::streamsize>(bytes->size())).flush()) {
    return false;
  }
  return std::rename(temporary.c_str(), path.c_str()) == 0;
}

}  // namespace velmora::testing
