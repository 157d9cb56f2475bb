// The Cortex-M system peripherals of the simulated target, which the instruction emulator lacks: NVIC,
// system control block with the fault status registers, the floating-point control registers, SysTick,
// the debug registers (DHCSR, DEMCR), DWT cycle counter and ITM. A plain register model over the private
// peripheral bus; the simulator drives time, exceptions and faults with it.
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
  virtual void OnFaultControlChanged() {}  // CCR, CPACR or FPCCR written: the instruction checks change
};

enum : U32 {
  SIM_EXC_NMI = 2,
  SIM_EXC_HARDFAULT = 3,
  SIM_EXC_MEMMANAGE = 4,
  SIM_EXC_BUSFAULT = 5,
  SIM_EXC_USAGEFAULT = 6,
  SIM_EXC_SVCALL = 11,
  SIM_EXC_PENDSV = 14,
  SIM_EXC_SYSTICK = 15,
  SIM_EXC_IRQ0 = 16,
  SIM_NUM_IRQS = 32,
  SIM_NUM_EXCEPTIONS = SIM_EXC_IRQ0 + SIM_NUM_IRQS,
  SIM_PPB_BASE = 0xE0000000,
  SIM_PPB_SIZE = 0x00100000,
};

// Fault status bits of CFSR (MemManage, BusFault and UsageFault status in one word).
enum : U32 {
  SIM_CFSR_IACCVIOL = 1u << 0,
  SIM_CFSR_DACCVIOL = 1u << 1,
  SIM_CFSR_MMARVALID = 1u << 7,
  SIM_CFSR_IBUSERR = 1u << 8,
  SIM_CFSR_PRECISERR = 1u << 9,
  SIM_CFSR_IMPRECISERR = 1u << 10,
  SIM_CFSR_UNSTKERR = 1u << 11,
  SIM_CFSR_STKERR = 1u << 12,
  SIM_CFSR_LSPERR = 1u << 13,
  SIM_CFSR_BFARVALID = 1u << 15,
  SIM_CFSR_UNDEFINSTR = 1u << 16,
  SIM_CFSR_INVSTATE = 1u << 17,
  SIM_CFSR_INVPC = 1u << 18,
  SIM_CFSR_NOCP = 1u << 19,
  SIM_CFSR_UNALIGNED = 1u << 24,
  SIM_CFSR_DIVBYZERO = 1u << 25,
};

// Bits of CCR, SHCSR and FPCCR the simulator acts on.
enum : U32 {
  SIM_CCR_UNALIGN_TRP = 1u << 3,
  SIM_CCR_DIV_0_TRP = 1u << 4,
  SIM_CCR_STKALIGN = 1u << 9,
  SIM_SHCSR_MEMFAULTENA = 1u << 16,
  SIM_SHCSR_BUSFAULTENA = 1u << 17,
  SIM_SHCSR_USGFAULTENA = 1u << 18,
  SIM_FPCCR_LSPACT = 1u << 0,
  SIM_FPCCR_USER = 1u << 1,
  SIM_FPCCR_THREAD = 1u << 3,
  SIM_FPCCR_HFRDY = 1u << 4,
  SIM_FPCCR_MMRDY = 1u << 5,
  SIM_FPCCR_BFRDY = 1u << 6,
  SIM_FPCCR_LSPEN = 1u << 30,
  SIM_FPCCR_ASPEN = 1u << 31,
};

// What differs between the simulated cores in the system registers.
struct SIM_CORE_TRAITS {
  U32 CpuId;
  U32 NumPriorityBits;
  bool IsV6M;   // ARMv6-M: no configurable faults, no fault status registers, fixed CCR
  bool HasFPU;  // FPCCR, FPCAR, FPDSCR and CPACR's CP10/CP11 fields exist
};

class CSimSystem {
 public:
  static constexpr U64 kNever = std::numeric_limits<U64>::max();

  CSimSystem(ISimSystemHost* pHost, const SIM_CORE_TRAITS& Traits);

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

  // Faults. CfsrBits go to CFSR (ignored on ARMv6-M, which has none); a valid fault address goes to
  // BFAR or MMFAR with its valid bit.
  void RecordFaultStatus(U32 CfsrBits);
  void RecordBusFaultAddress(U32 Addr);
  void RecordForcedHardFault();
  U32 GetCCR() const { return _CCR; }
  U32 GetSHCSR() const { return _SHCSR; }
  bool IsV6M() const { return _Traits.IsV6M; }
  bool HasFPU() const { return _Traits.HasFPU; }

  // Floating-point context control (cores with an FPU).
  U32 GetFPCCR() const { return _FPCCR; }
  void SetFPCCR(U32 Value) { _FPCCR = Value; }
  U32 GetFPCAR() const { return _FPCAR; }
  void SetFPCAR(U32 Value) { _FPCAR = Value & ~7u; }
  U32 GetFPDSCR() const { return _FPDSCR; }
  U32 GetCPACR() const { return _CPACR; }
  bool IsHaltedForDebugger = false;  // mirrored into DHCSR.S_HALT
  bool DebuggerConnected = false;    // DHCSR.C_DEBUGEN

 private:
  U32 _ReadWord(U32 Offset, bool FromDebugger);
  void _WriteWord(U32 Offset, U32 Value, U32 Mask, bool FromDebugger);
  void _RestartSysTick(U32 StartValue);

  U32 _ReadSHCSR() const;

  ISimSystemHost* _pHost;
  SIM_CORE_TRAITS _Traits;
  U32 _PrioMask;
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
  // FPU
  U32 _CPACR = 0, _FPCCR = 0, _FPCAR = 0, _FPDSCR = 0;
  // Debug
  U32 _DEMCR = 0;
  U32 _DWTCtrl = 0;
  U64 _CycleBase = 0;
  U32 _StoppedCycCnt = 0;
  // ITM
  U32 _ITMTER = 0, _ITMTPR = 0, _ITMTCR = 0;
  bool _SWOEnabled = false;
};
