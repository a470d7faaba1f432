// What the fuzz targets share: a broken promise traps (libFuzzer keeps the
// input), and log lines are formatted, so their code runs, then dropped.
// Include it from the target's one source file (it defines libFuzzer's
// start-up hook).
#pragma once

#include <memory>
#include <string_view>

#include "velmora/platform/Log.h"

namespace fuzz {

inline void check(bool promiseKept) { if (!promiseKept) __builtin_trap(); }

// Accepts every level (the default) and keeps nothing.
struct DiscardingSink : velmora::LogSink {
  void write(const velmora::LogHandle&, velmora::LogLevel, std::string_view) override {}
};

}  // namespace fuzz

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  velmora::setLogSink(std::make_shared<fuzz::DiscardingSink>());
  return 0;
}
