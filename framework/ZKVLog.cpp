#include "zkv/ZKVLog.h"

#include <mutex>

// Exported by the header's declaration; a namespace-scope const would
// otherwise be private to this file.
extern "C" {
const char* const LoggingSubsystem = "com.vantrel.velmora";
}

namespace {

// One slot and one guard per channel, so making one never waits on another.
// Handles are never deleted: callers keep the pointer for the process's life.
std::once_flag defaultLogOnce;
const velmora::LogHandle* defaultLog = nullptr;  // written once under defaultLogOnce

std::once_flag schedulerLogOnce;
const velmora::LogHandle* schedulerLog = nullptr;  // written once under schedulerLogOnce

std::once_flag traceLogOnce;
const velmora::LogHandle* traceLog = nullptr;  // written once under traceLogOnce

const velmora::LogHandle* channel(std::once_flag& once, const velmora::LogHandle*& slot, const char* category) {
  std::call_once(once, [&] { slot = new velmora::LogHandle(LoggingSubsystem, category); });
  return slot;
}

}  // namespace

const velmora::LogHandle* ZKVGetDefaultLog() { return channel(defaultLogOnce, defaultLog, "Default"); }

const velmora::LogHandle* ZKVGetSchedulerLog() { return channel(schedulerLogOnce, schedulerLog, "Scheduler"); }

const velmora::LogHandle* ZKVGetTraceLog() { return channel(traceLogOnce, traceLog, "Trace"); }
