// The built-in simulated Cortex-M target: an instruction emulator (Unicorn) on its own thread, with
// the system peripherals of SimSystem.h, breakpoints, data breakpoints, trace and sampling. It is the
// default target, so a new user can debug with no hardware.
#pragma once

#include <chrono>
#include <condition_variable>
#include <map>
#include <memory>
#include <thread>
#include <vector>

#include "device/probe/ProbeBackend.h"
#include "device/probe/ProbeCore.h"
#include "device/probe/SimIsa.h"
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

  // Instructions executed since the target was made: the simulated time in cycles. While the target
  // runs it advances a block of instructions at a time.
  U64 GetCycles() override { return _Cycles; }

 private:
  // Why the emulator returned, as the hooks saw it; STOP_NONE: it reached an exit.
  enum STOP_REASON {
    STOP_NONE,
    STOP_SLICE,
    STOP_WATCH,
    STOP_EXCEPTION,
    STOP_INTERRUPT,
    STOP_RESET_REQUEST,
    STOP_HALT_REQUEST,
    STOP_BLOCK_DONE,         // a one-block run reached its second block
    STOP_RETRANSLATE,        // new exits were found; run again from the same PC
    STOP_STEP_THROUGH,       // a block to run one instruction at a time
    STOP_INSTRUCTION_FAULT,  // the code hook found a fault before an instruction
  };
  enum STOP_RESULT { SR_HALTED, SR_SLICE, SR_AT_EXIT, SR_AGAIN, SR_EVENT, SR_STEP_THROUGH };
  enum STEP_RESULT { STEP_DONE, STEP_HALTED };
  enum RUN_RESULT { RUN_CONTINUE, RUN_HALTED };

  // What the block hook keeps of a translated block, in a direct-mapped cache.
  struct BLOCK_ENTRY {
    U32 Addr;
    U16 Size;
    U16 NumInsts;
    U8 Flags;
  };
  enum : U8 {
    BLOCK_IT_ACCESS = 1,  // an IT block with a memory access that isn't its last instruction
    // Instructions whose faults the simulator checks itself (the SIM_CHECK_ classes, shifted by one):
    // the block runs one instruction at a time while the state makes their check necessary.
    BLOCK_CHECKS_SHIFT = 1,
    BLOCK_MULTI_ACCESS = SIM_CHECK_MULTI_ACCESS << BLOCK_CHECKS_SHIFT,
    BLOCK_SINGLE_ACCESS = SIM_CHECK_SINGLE_ACCESS << BLOCK_CHECKS_SHIFT,
    BLOCK_DIVIDE = SIM_CHECK_DIVIDE << BLOCK_CHECKS_SHIFT,
    BLOCK_FP = SIM_CHECK_FP << BLOCK_CHECKS_SHIFT,
    BLOCK_READS_CONTROL = SIM_CHECK_READ_CONTROL << BLOCK_CHECKS_SHIFT,
    BLOCK_IT_HOOK_CHECK = 1u << 6,  // an IT block with an access or divide that the code hook checks
  };
  static constexpr U32 kBlockCacheSize = 1u << 16;
  static constexpr U32 kMaxBlockBytes = 4096;
  static constexpr U32 kMultiAccessHookAfter = 4096;  // instructions
  static constexpr U32 kNoAddr = 0xFFFFFFFFu;

  friend struct SIM_HOOKS;  // the emulator's callbacks, with its exact signatures

  void _ThreadMain();
  // Runs at most MaxInsts instructions (or one with Step); tells whether the target halted.
  RUN_RESULT _Run(U64 MaxInsts, bool Step);
  // One call of the emulator from PC; afterwards the cycle count holds what ran.
  int _Emulate(U32 PC);  // the emulator's error code
  // The block at PC only, run even where PC is an exit; StopAt, when given, is an exit for this run.
  int _EmulateOneBlock(U32 PC, U32 StopAt);
  STOP_RESULT _AfterStop(int Err);
  STEP_RESULT _StepOnce();
  bool _StepThrough();
  bool _TakeFaultExit(U32 PC, SIM_INST_CHECK Check);
  void _StopEmulation(STOP_REASON Reason);
  void _UpdateNextEvent();
  void _UpdateNextCheck();
  void _OnTimeEvents();
  bool _OnBlockSlow(const BLOCK_ENTRY& Block);
  void _FillBlock(BLOCK_ENTRY& Block, U32 Addr, U32 Size);
  U32 _CountInstructions(U32 Addr, U32 End);
  void _UncountRestOfBlock(U32 PC);
  // The emulator's exits: breakpoints and instructions the core lacks, without Without, with With.
  void _ApplyExits(U32 Without, U32 With);
  void _InvalidateAround(U32 Addr);
  void _DropAllTranslations();
  bool _IsExit(U32 Addr) const;
  void _OnCodeWritten(U32 Addr, U32 NumBytes);
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
  // bits, 0 when it may run. It also does what must happen right before a floating-point instruction.
  U32 _InstructionFault(U32 PC);
  // The same check before one instruction is stepped, with the fault taken: false when halted.
  bool _CheckBeforeStep(U32 PC, bool* pFaulted);
  // The code hook's quick look: whether the instruction at PC may need the check.
  bool _MayFaultInHook(U32 PC) const {
    if (PC - SIM_FLASH_ADDR <= SIM_FLASH_SIZE - 4) {
      return _aHookCheckByHighByte[_pFlash[PC - SIM_FLASH_ADDR + 1]];
    }
    if (PC - SIM_RAM_ADDR <= SIM_RAM_SIZE - 4) {
      return _aHookCheckByHighByte[_pRAM[PC - SIM_RAM_ADDR + 1]];
    }
    return false;
  }
  // Works out which instruction classes need their check from CCR, CPACR and FPCCR.
  void _UpdateInstructionChecks();
  void _UpdateSlowBlockFlags();
  bool _IsCodeHookWanted() const;
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
  void _RecordInstruction(U32 Addr, bool Skipped, I64 CounterSlot);
  void _ClearITPending();
  void _FlushITPending(U32 PC);
  void _UpdateCodeHook();
  void _UpdateMemHooks();

  // ISimSystemHost
  U32 GetActiveException() override;
  void OnExceptionStateChanged() override {
    _CheckPending = true;
    _NextCheck = 0;
  }
  void OnTimerChanged() override { _UpdateNextEvent(); }
  void OnSystemResetRequest() override;
  void OnDebugHaltRequest(bool Halt) override;
  void OnStimulusWrite(U32 Port, U32 Value, U32 Size) override;
  void OnFaultControlChanged() override { _UpdateInstructionChecks(); }

  U32 _Core;
  SIM_ISA _Isa;
  U32 _ClockHz;
  bool _HasFPU;
  uc_struct* _pUc = nullptr;
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

  // State of the hooks.
  U64 _Cycles = 0;
  U64 _NextEventCycle = 0;
  U64 _NextCheck = 0;  // the block hook leaves its fast path from this cycle on; 0: at once
  U64 _SliceEnd = 0;
  STOP_REASON _StopReason = STOP_NONE;
  U32 _InterruptNo = 0;
  U32 _FaultAddr = 0;  // address of the last access to no memory
  bool _InEmulation = false;
  bool _InBlockHook = false;
  bool _StopAtCode = false;  // the next code hook stops the emulator
  bool _OneBlock = false;
  bool _OneBlockChecked = false;             // a one-block run whose block gets the instruction checks
  int _BlocksRun = 0;                        // blocks begun in a one-block run
  const BLOCK_ENTRY* _pLastBlock = nullptr;  // the block counted last, for a stop inside it
  U32 _PassPC = kNoAddr;                     // a breakpoint that the next run steps over
  U32 _StepThroughLo = 0, _StepThroughHi = 0;
  bool _CheckPending = false;
  bool _WatchHit = false;
  bool _ResetRequested = false;
  bool _HaltPending = false;
  std::vector<BLOCK_ENTRY> _aBlockCache;
  U8 _SlowBlockFlags = 0;                      // blocks with these flags take the block hook's slow path
  U32 _CodeLo = kNoAddr, _CodeHi = 0;          // the addresses the cache has seen
  std::map<U32, SIM_INST_CHECK> _aFaultExits;  // instructions the core lacks, found so far
  std::vector<U32> _aNewFaultExits;
  std::vector<uint64_t> _aExits;
  // Which instruction faults the emulator doesn't raise itself must be checked before an instruction
  // runs, from CCR's traps, CPACR and a pending lazy floating-point save.
  bool _CheckDivide = false, _CheckUnaligned = false, _CheckFP = false;
  // Blocks with a multi-word access run one instruction at a time until many have run that way
  // (a copy loop); from then on the code hook checks them, which costs far less per instruction.
  U32 _NumMultiAccessSteps = 0;
  bool _StepThroughForMultiAccess = false;
  bool _CheckMultiAccessByHook = false;
  bool _FPCAStaysClear = false;  // the instruction being stepped must not set CONTROL.FPCA
  bool _CodeHookUpdatePending = false;
  bool _aHookCheckByHighByte[256] = {};  // encodings the code hook checks, by their first high byte
  U32 _InstructionFaultBits = 0, _InstructionFaultPC = 0;
  // Flash and RAM as the emulator sees them, for the code hook's look at an instruction.
  std::unique_ptr<U8[]> _pFlash, _pRAM;
  std::vector<std::pair<U32, int>> _aBreakpoints;  // address, count of users
  std::vector<PROBE_WATCH> _aWatches;
  size_t _hMemHook = 0;   // 0 while no data breakpoint needs the memory hooks
  size_t _hCodeHook = 0;  // 0 while neither trace nor data breakpoints need the code hook
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
  std::vector<U32> _aITPending;  // instructions of the IT block being traced, not yet seen
  size_t _ITPendingHead = 0;

  // High speed sampling.
  bool _HSSOn = false;
  std::vector<std::pair<U32, U32>> _aHSSBlocks;
  U64 _HSSInterval = 0, _NextHSSSample = CSimSystem::kNever;
  std::vector<U8> _aHSSSample;

  // Injected faults for tests ("SimFault=...").
  bool _FaultConnLost = false, _FaultHaltTimeout = false, _FaultResetNoHalt = false, _FaultStepFail = false;
  bool _FaultVerify = false, _FaultErase = false;
};
