// The probe layer's own implementation of every probe operation (the free functions TARVIKARM_* and
// TARVIK_*), shared by all back-ends: handles, the device list, commands, streams, callbacks, locking.
#pragma once

#include <atomic>
#include <mutex>
#include <string>

#include "device/probe/ProbeBackend.h"
#include "device/probe/TarvikApi.h"

// Register indices of the layer on Cortex-M: the logical numbers 0..16, then the special registers,
// then the floating-point registers of cores with an FPU (S0..S31 as 32-bit values, and FPSCR).
enum : U32 {
  PROBE_REG_SP = 13,
  PROBE_REG_LR = 14,
  PROBE_REG_PC = 15,
  PROBE_REG_XPSR = 16,
  PROBE_REG_MSP = 17,
  PROBE_REG_PSP = 18,
  PROBE_REG_PRIMASK = 19,
  PROBE_REG_BASEPRI = 20,
  PROBE_REG_FAULTMASK = 21,
  PROBE_REG_CONTROL = 22,
  PROBE_REG_S0 = 23,
  PROBE_REG_S31 = PROBE_REG_S0 + 31,
  PROBE_REG_FPSCR = 55,
  PROBE_NUM_REGS = 56,
};

// Core identifiers of the devices the layer offers.
enum : U32 {
  PROBE_CORE_CORTEX_M0 = 0x060000FF,
  PROBE_CORE_CORTEX_M3 = 0x030000FF,
  PROBE_CORE_CORTEX_M4 = 0x0E0000FF,
};

// The operations, declared once from the list so their signatures can't drift from the table.
#define PROBE_DECLARE_OPERATION(Ret, Name, Params) Ret Name Params;
TARVIK_API_LIST(PROBE_DECLARE_OPERATION)
#undef PROBE_DECLARE_OPERATION

// The table of the real layer, every member filled. Install it with SetTarvikApi().
const TARVIK_API& TARVIK_GetProbeLayerApi();

// One row of the device list. Index 0 of the list is a placeholder: indices below 1 mean no device.
struct PROBE_DEVICE {
  std::string sName;
  U32 Core;
  U32 FlashAddr, FlashSize;
  U32 RAMAddr, RAMSize;
  CProbeBackend* (*pfGetBackend)(const PROBE_DEVICE& Device);  // the back-end serving this device
};

// Adds a device (a back-end registers its devices at start-up); gives its index.
int PROBE_AddDevice(const PROBE_DEVICE& Device);
const PROBE_DEVICE* PROBE_GetDevice(int Index);

// The layer's one recursive mutex. Every operation holds it; so does a back-end's own thread while it
// moves the target. CProbeLock counts waiters so that such a thread can step aside between slices.
std::recursive_mutex& PROBE_GetMutex();
bool PROBE_HasWaiters();

class CProbeLock {
 public:
  CProbeLock();
  ~CProbeLock();
  CProbeLock(const CProbeLock&) = delete;
  CProbeLock& operator=(const CProbeLock&) = delete;
};

// Messages to the callbacks given by TARVIKARM_EnableLog, SetWarnOutHandler, SetErrorOutHandler
// (and the log file). printf-style.
void PROBE_Log(const char* sFormat, ...) __attribute__((format(printf, 1, 2)));
void PROBE_Warn(const char* sFormat, ...) __attribute__((format(printf, 1, 2)));
void PROBE_Error(const char* sFormat, ...) __attribute__((format(printf, 1, 2)));

// A warning from a back-end's own thread: kept and passed to the warning callback on the thread of the
// next operation, since the callbacks expect the caller's threads.
void PROBE_PostWarning(const char* sFormat, ...) __attribute__((format(printf, 1, 2)));

// Closes the layer and forgets breakpoints, data events, callbacks and the device choice. Back-ends
// keep their target state. For tests and for process end.
void PROBE_ResetLayer();
