// The built-in simulated Cortex-M target: an instruction emulator (Unicorn) on its own thread, with
// the system peripherals of SimSystem.h, breakpoints, data breakpoints, trace and sampling. It is the
// default target, so a new user can debug with no hardware.
#pragma once

#include <chrono>
#include <condition_variable>
#include <memory>
#include <thread>
#include <vector>

#include "device/probe/ProbeBackend.h"
#include "device/probe/ProbeCore.h"
#include "device/probe/SimSystem.h"

struct uc_struct;

// Registers "Simulator Cortex-M0", "Simulator Cortex-M3" and "Simulator Cortex-M4" in the device list.
// One target per core lives for the whole process, so that its state survives Close and Open.
void SIM_AddDevices();

// Memory of every simulated device.
enum : U32 {
  SIM_FLASH_ADDR = 0x00000000,
  SIM_FLASH_SIZE = 0x00100000,
  SIM_RAM_ADDR = 0x20000000,
  SIM_RAM_SIZE = 0x00040000,
};

class CSimTarget : public CProbeBackend, private ISimSystemHost {
 public:
  CSimTarget(U32 Core, U32 ClockHz);
  ~CSimTarget() override;

  int Open(PROBE_STREAMS* pStreams, std::string& sError) override;
  void Close() override;
  int Connect(std::string& sError) override;
  bool IsConnected() override;
  int Halt() override;
  int IsHalted() override;
  PROBE_HALT_REASON GetHaltReason() override { return _HaltReason; }
  int Go(bool StepOverBreakpoint) override;
  int Step() override;
  int Reset(int Type) override;
  U32 GetCoreClockHz() override { return _ClockHz; }
  int ReadReg(U32 Index, U32* pValue) override;
  int WriteReg(U32 Index, U32 Value) override;
  int ReadMem(U32 Addr, U32 NumBytes, U8* pData) override;
  int WriteMem(U32 Addr, U32 NumBytes, const U8* pData) override;
  bool CanAccessMemWhileRunning() override { return true; }
  int GetNumBreakpointUnits() override { return _NumBPUnits; }
  int SetBreakpoint(U32 Addr, bool Hardware) override;
  int ClearBreakpoint(U32 Addr, bool Hardware) override;
  int GetNumWatchpointUnits() override { return _NumWPUnits; }
  int SetWatchpoint(const PROBE_WATCH& Watch) override;
  int ClearWatchpoint(const PROBE_WATCH& Watch) override;
  int ExecCommand(const std::string& sKey, const std::string& sValue, std::string& sOut) override;
  int EndDownload(std::string& sError) override;
  bool HasSWO() override { return true; }
  int EnableSWO(U32 CpuHz, U32 SWOHz, U32 PortMask) override;
  int DisableSWO(U32 PortMask) override;
  bool HasStreamingTrace() override { return true; }
  int StartTrace() override;
  int StopTrace() override;
  int ReadTrace(U32* paItems, U32 Cnt) override;
  int GetInstStats(U64* paOut, U32 Addr, U32 NumItems) override;
  int StartHSS(const std::vector<std::pair<U32, U32>>& aBlocks, int Interval_us) override;
  int StopHSS() override;

  // Instructions executed since the target was made: the simulated time in cycles.
  U64 GetCycles() override { return _Cycles; }

 private:
  enum STOP_REASON {
    STOP_NONE,
    STOP_SLICE,
    STOP_BREAKPOINT,
    STOP_WATCH,
    STOP_EXCEPTION,
    STOP_INTERRUPT,
    STOP_RESET_REQUEST,
    STOP_STEP_DONE,
    STOP_HALT_REQUEST,
    STOP_INSTRUCTION_FAULT
  };
  enum RUN_RESULT { RUN_CONTINUE, RUN_HALTED };

  friend struct SIM_HOOKS;  // the emulator's callbacks, with its exact signatures

  void _ThreadMain();
  // Runs at most MaxInsts instructions (or one with Step); tells whether the target halted.
  RUN_RESULT _Run(U64 MaxInsts, bool Step);
  void _StopEmulation(STOP_REASON Reason);
  void _UpdateNextEvent();
  void _OnTimeEvents();
  void _TakeHSSSample();
  bool _CanTakePending();
  // The priority the core runs at: the most urgent active exception, lowered by PRIMASK, BASEPRI and
  // FAULTMASK.
  int _ExecutionPriority();
  // Exception entry and return; false when the target can't continue (halted with a log line).
  bool _EnterException(U32 Exception, U32 ReturnAddr);
  bool _ReturnFromException(U32 ExcReturn);
  bool _RaiseHardFault(U32 PC, const char* sWhy);
  // A UsageFault with its CFSR bits, taken as UsageFault when SHCSR enables it and its priority lets it
  // preempt, else escalated to HardFault (HFSR.FORCED). On ARMv6-M every fault is a HardFault.
  bool _RaiseUsageFault(U32 PC, U32 CfsrBits, const char* sWhy);
  // The same for BusFault (HasAddr: BFAR holds Addr) and MemManage.
  bool _RaiseBusFault(U32 PC, U32 CfsrBits, bool HasAddr, U32 Addr, const char* sWhy);
  bool _RaiseMemManage(U32 PC, U32 CfsrBits, const char* sWhy);
  bool _RaiseFetchFault(U32 PC, const char* sWhy);
  bool _TakeConfigurableFault(U32 Exception, U32 EnableBit, U32 PC, const char* sWhy);
  // Faults the emulator does not raise itself, decided before the instruction at PC executes: CFSR
  // bits, 0 when it may run.
  U32 _InstructionFault(U32 PC);
  // A quick look at the encoding, before every instruction: false when no check applies.
  bool _MayFault(U32 PC) const {
    if (PC - SIM_FLASH_ADDR <= SIM_FLASH_SIZE - 4) {
      return _aCheckByHighByte[_pFlash[PC - SIM_FLASH_ADDR + 1]];
    }
    if (PC - SIM_RAM_ADDR <= SIM_RAM_SIZE - 4) {
      return _aCheckByHighByte[_pRAM[PC - SIM_RAM_ADDR + 1]];
    }
    return false;
  }
  void _UpdateInstructionChecks();
  bool _FPAccessAllowed();
  // Lazy floating-point state preservation: writes the preempted context's S0..S15 and FPSCR to the
  // space reserved at FPCAR, before the first floating-point instruction since the entry runs.
  void _SaveLazyFP();
  U32 _ControlMask() const;
  void _CoreReset();
  void _SetHalted(PROBE_HALT_REASON Reason);
  void _SetRunning();
  U32 _Reg(int UcReg);
  void _SetReg(int UcReg, U32 Value);
  bool _IsBreakpoint(U32 Addr) const;
  void _CountInstruction(U32 Addr);
  void _UpdateMemHooks();

  // ISimSystemHost
  U32 GetActiveException() override;
  void OnExceptionStateChanged() override { _CheckPending = true; }
  void OnTimerChanged() override { _UpdateNextEvent(); }
  void OnSystemResetRequest() override;
  void OnDebugHaltRequest(bool Halt) override;
  void OnStimulusWrite(U32 Port, U32 Value, U32 Size) override;
  void OnFaultControlChanged() override { _UpdateInstructionChecks(); }

  U32 _Core;
  U32 _ClockHz;
  bool _HasFPU;
  uc_struct* _pUc = nullptr;
  // Flash and RAM as the emulator sees them, so that the instruction checks read code directly.
  std::unique_ptr<U8[]> _pFlash, _pRAM;
  std::unique_ptr<CSimSystem> _pSystem;
  PROBE_STREAMS* _pStreams = nullptr;
  std::thread _Thread;
  std::condition_variable_any _WakeUp;
  bool _Running = false;
  bool _Connected = false;
  bool _Quit = false;
  bool _RealSpeed = false;
  PROBE_HALT_REASON _HaltReason = PROBE_HALT_REQUEST;
  U64 _RunStartCycles = 0;
  std::chrono::steady_clock::time_point _RunStartTime;

  // Per instruction state, touched by the code hook.
  U64 _Cycles = 0;
  U64 _NextEventCycle = 0;
  U64 _SliceEnd = 0;
  STOP_REASON _StopReason = STOP_NONE;
  U32 _InterruptNo = 0;
  U32 _FaultAddr = 0;  // address of the last access to no memory
  bool _FirstInstruction = false;
  bool _SkipBreakpointAt = false;
  U32 _SkipAddr = 0;
  bool _StepMode = false;
  bool _CheckPending = false;
  bool _WatchHit = false;
  bool _ResetRequested = false;
  bool _CheckInstructions = false;  // some instruction fault needs the check before each instruction
  bool _CheckDivide = false, _CheckUnaligned = false, _CheckFP = false;
  bool _aCheckByHighByte[256] = {};  // encodings checked, by the high byte of their first halfword
  U32 _InstructionFaultBits = 0, _InstructionFaultPC = 0;
  std::vector<U8> _aBreakpointMap;  // one bit per halfword of (Addr >> 1) & 0xFFFF: quick reject
  std::vector<std::pair<U32, int>> _aBreakpoints;  // address, count of users
  std::vector<PROBE_WATCH> _aWatches;
  size_t _hMemHook = 0;  // 0 while no data breakpoint needs the memory hooks
  int _NumBPUnits, _NumWPUnits;
  bool _SWOEnabled = false;

  // Trace and counters.
  bool _TraceOn = false;
  std::vector<U32> _aTrace;  // ring of executed addresses
  U64 _TraceHead = 0, _TraceCount = 0;
  bool _TraceGap = false;
  std::vector<U64> _aFetch, _aSkip;  // per halfword of flash, then of RAM
  std::vector<U8> _aInstKind;        // cached classification per halfword, 0 unknown
  U64 _TotalFetch = 0, _TotalSkip = 0;
  U32 _ITConds = 0, _ITLeft = 0;

  // High speed sampling.
  bool _HSSOn = false;
  std::vector<std::pair<U32, U32>> _aHSSBlocks;
  U64 _HSSInterval = 0, _NextHSSSample = CSimSystem::kNever;
  std::vector<U8> _aHSSSample;

  // Injected faults for tests ("SimFault=...").
  bool _FaultConnLost = false, _FaultHaltTimeout = false, _FaultResetNoHalt = false, _FaultStepFail = false;
  bool _FaultVerify = false, _FaultErase = false;
};
