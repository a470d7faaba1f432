// What the fuzz targets share: a broken promise traps (libFuzzer keeps the
// input), and log lines are formatted, so their code runs, then dropped.
#pragma once

#include <memory>
#include <string_view>

#include "velmora/platform/Log.h"

namespace fuzz {

inline void check(bool promiseKept) {
  if (!promiseKept) __builtin_trap();
}

// Installs a sink that accepts every level and keeps nothing; call at the top
// of each run (only the first call does anything).
inline void quietLogs() {
  struct Discarding : velmora::LogSink {
    void write(const velmora::LogHandle&, velmora::LogLevel, std::string_view) override {}
  };
  static const bool installed = (velmora::setLogSink(std::make_shared<Discarding>()), true);
  (void)installed;
}

}  // namespace fuzz
