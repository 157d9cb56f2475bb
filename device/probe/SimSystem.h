// The Cortex-M system peripherals of the simulated target, which the instruction emulator lacks: NVIC,
// system control block, SysTick, the debug registers (DHCSR, DEMCR), DWT cycle counter and ITM. A plain
// register model over the private peripheral bus; the simulator drives time and exceptions with it.
#pragma once

#include <limits>

#include "app/base/Types.h"

// What the register model needs from the emulator around it.
class ISimSystemHost {
 public:
  virtual ~ISimSystemHost() = default;
  virtual U64 GetCycles() = 0;
  virtual U32 GetActiveException() = 0;            // IPSR
  virtual void OnExceptionStateChanged() = 0;      // something was pended or enabled
  virtual void OnTimerChanged() = 0;               // SysTick reprogrammed
  virtual void OnSystemResetRequest() = 0;         // AIRCR.SYSRESETREQ
  virtual void OnDebugHaltRequest(bool Halt) = 0;  // DHCSR.C_HALT written by the debugger
  virtual void OnStimulusWrite(U32 Port, U32 Value, U32 Size) = 0;
};

enum : U32 {
  SIM_EXC_NMI = 2,
  SIM_EXC_HARDFAULT = 3,
  SIM_EXC_SVCALL = 11,
  SIM_EXC_PENDSV = 14,
  SIM_EXC_SYSTICK = 15,
  SIM_EXC_IRQ0 = 16,
  SIM_NUM_IRQS = 32,
  SIM_NUM_EXCEPTIONS = SIM_EXC_IRQ0 + SIM_NUM_IRQS,
  SIM_PPB_BASE = 0xE0000000,
  SIM_PPB_SIZE = 0x00100000,
};

class CSimSystem {
 public:
  static constexpr U64 kNever = std::numeric_limits<U64>::max();

  CSimSystem(ISimSystemHost* pHost, U32 CpuId, U32 NumPriorityBits, bool HasVTOR);

  // Power-on and system reset state.
  void Reset();
  // Private peripheral bus access; Offset from 0xE0000000, Size 1, 2 or 4.
  U32 Read(U32 Offset, U32 Size, bool FromDebugger);
  void Write(U32 Offset, U32 Size, U32 Value, bool FromDebugger);

  // Exceptions. Priorities are the register values (lower is more urgent); NMI and HardFault are
  // fixed at -2 and -1.
  int GetPriority(U32 Exception) const;
  void SetPending(U32 Exception);
  bool IsPending(U32 Exception) const { return _aPending[Exception]; }
  bool IsActive(U32 Exception) const { return _aActive[Exception]; }
  void SetActive(U32 Exception, bool Active);
  // The most urgent enabled pending exception, 0 for none.
  U32 GetHighestPending() const;
  // The priority of the most urgent active exception, 256 when none is active.
  int GetActivePriority() const;
  bool AnyPending() const;

  // SysTick, counting processor cycles.
  U64 GetNextSysTickEvent() const { return _NextSysTickZero; }
  void OnSysTickEvent();

  U32 GetVTOR() const { return _VTOR; }
  U32 GetPriorityMask() const { return _PrioMask; }
  void SetSWOEnabled(bool On, U32 PortMask);
  void RecordBusFault(U32 Addr, bool Precise);
  void RecordForcedHardFault() { _HFSR |= 1u << 30; }
  void RecordUsageFault(U32 CfsrBits) { _CFSR |= CfsrBits; }
  bool IsHaltedForDebugger = false;  // mirrored into DHCSR.S_HALT
  bool DebuggerConnected = false;    // DHCSR.C_DEBUGEN

 private:
  U32 _ReadWord(U32 Offset, bool FromDebugger);
  void _WriteWord(U32 Offset, U32 Value, U32 Mask, bool FromDebugger);
  void _RestartSysTick(U32 StartValue);

  ISimSystemHost* _pHost;
  U32 _CpuId;
  U32 _PrioMask;
  bool _HasVTOR;
  bool _aPending[SIM_NUM_EXCEPTIONS] = {};
  bool _aActive[SIM_NUM_EXCEPTIONS] = {};
  U8 _aPriority[SIM_NUM_EXCEPTIONS] = {};
  U32 _IrqEnabled = 0;
  // SysTick
  U32 _SysTickCSR = 0, _SysTickRVR = 0;
  U64 _NextSysTickZero = kNever;
  U32 _StoppedCVR = 0;
  // SCB
  U32 _VTOR = 0, _PriGroup = 0, _SCR = 0, _CCR = 0x200, _SHCSR = 0, _CFSR = 0, _HFSR = 0, _MMFAR = 0,
      _BFAR = 0;
  // Debug
  U32 _DEMCR = 0;
  U32 _DWTCtrl = 0;
  U64 _CycleBase = 0;
  U32 _StoppedCycCnt = 0;
  // ITM
  U32 _ITMTER = 0, _ITMTPR = 0, _ITMTCR = 0;
  bool _SWOEnabled = false;
};
