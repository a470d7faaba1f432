// The library's log channels. Each is one process-wide handle under the
// subsystem LoggingSubsystem, made on first use and never released.
#pragma once

#include "velmora/platform/Log.h"
#include "zkv/ZKVBase.h"

// The subsystem every libzkv channel logs under: "com.vantrel.velmora",
// zero-terminated, static.
extern "C" ZKV_EXPORT const char* const LoggingSubsystem;

// The general channel (category "Default"). Made on the first call from any
// thread, at most once; never fails, never null. The caller does not own it.
ZKV_EXPORT const velmora::LogHandle* ZKVGetDefaultLog();

// Scheduling of synchronisation and writes (category "Scheduler"). Same
// lifetime and threading as ZKVGetDefaultLog.
ZKV_EXPORT const velmora::LogHandle* ZKVGetSchedulerLog();

// Step-by-step tracing of individual operations (category "Trace"). Same
// lifetime and threading as ZKVGetDefaultLog.
ZKV_EXPORT const velmora::LogHandle* ZKVGetTraceLog();
