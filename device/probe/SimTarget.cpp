// The simulated target. Threading: the emulator runs on the target's own thread in slices, each under
// the layer's mutex, so every probe operation sees the target between two slices. uc_emu_stop is only
// ever called from inside the emulation (from another thread it corrupts the emulator state in 2.0.1).
//
// How the emulator is driven. Per instruction hooks cost a fifth of the speed, so the emulator runs
// with one hook per translated block, which counts the block's instructions (a per-block cache) and
// takes time events, pending exceptions and stop requests before the block runs. Everything that must
// stop at an exact instruction uses the emulator's exits instead, which end a translation right before
// an address: breakpoints, the end of a single step, and instructions the core doesn't have. Exits are
// also the only stop that works inside an IT block: there the emulator ignores stop requests from
// hooks, and calls no code hook for an instruction whose condition fails, but it ends a block at an
// exit with the IT state written back to xPSR. A per-instruction hook exists only while trace or data
// breakpoints are on.
#include "device/probe/SimTarget.h"

#include <unicorn/unicorn.h>

#include "device/probe/SimIsa.h"

#include <algorithm>
#include <cctype>
#include <cstring>

namespace {

constexpr U64 kSliceInstructions = 100000;
constexpr U32 kPageSize = 1024;           // the emulator's smallest page on this target
constexpr U32 kTraceCapacity = 1u << 20;  // executed addresses kept, a power of two
constexpr U32 kTraceGapMarker = 0xFFFFFFF0u;
constexpr U32 kFlashHalfwords = SIM_FLASH_SIZE / 2;
constexpr U32 kCounterSlots = (SIM_FLASH_SIZE + SIM_RAM_SIZE) / 2;

// Emulator interrupt numbers (the instruction set's exception kinds).
enum : U32 {
  UC_INTR_UDEF = 1,
  UC_INTR_SWI = 2,
  UC_INTR_PREFETCH_ABORT = 3,
  UC_INTR_DATA_ABORT = 4,
  UC_INTR_BKPT = 7,
  UC_INTR_EXCEPTION_EXIT = 8,
  UC_INTR_NOCP = 17,
  UC_INTR_INVSTATE = 18,
  UC_INTR_UNALIGNED = 22,
};

const int kUcRegs[PROBE_NUM_REGS] = {
    UC_ARM_REG_R0,      UC_ARM_REG_R1,        UC_ARM_REG_R2,      UC_ARM_REG_R3,  UC_ARM_REG_R4,
    UC_ARM_REG_R5,      UC_ARM_REG_R6,        UC_ARM_REG_R7,      UC_ARM_REG_R8,  UC_ARM_REG_R9,
    UC_ARM_REG_R10,     UC_ARM_REG_R11,       UC_ARM_REG_R12,     UC_ARM_REG_SP,  UC_ARM_REG_LR,
    UC_ARM_REG_PC,      UC_ARM_REG_XPSR,      UC_ARM_REG_MSP,     UC_ARM_REG_PSP, UC_ARM_REG_PRIMASK,
    UC_ARM_REG_BASEPRI, UC_ARM_REG_FAULTMASK, UC_ARM_REG_CONTROL, UC_ARM_REG_S0,  UC_ARM_REG_S1,
    UC_ARM_REG_S2,      UC_ARM_REG_S3,        UC_ARM_REG_S4,      UC_ARM_REG_S5,  UC_ARM_REG_S6,
    UC_ARM_REG_S7,      UC_ARM_REG_S8,        UC_ARM_REG_S9,      UC_ARM_REG_S10, UC_ARM_REG_S11,
    UC_ARM_REG_S12,     UC_ARM_REG_S13,       UC_ARM_REG_S14,     UC_ARM_REG_S15, UC_ARM_REG_S16,
    UC_ARM_REG_S17,     UC_ARM_REG_S18,       UC_ARM_REG_S19,     UC_ARM_REG_S20, UC_ARM_REG_S21,
    UC_ARM_REG_S22,     UC_ARM_REG_S23,       UC_ARM_REG_S24,     UC_ARM_REG_S25, UC_ARM_REG_S26,
    UC_ARM_REG_S27,     UC_ARM_REG_S28,       UC_ARM_REG_S29,     UC_ARM_REG_S30, UC_ARM_REG_S31,
    UC_ARM_REG_FPSCR};

// Emulator register of core register n (0..14) of an instruction's encoding.
int _UcCoreReg(U32 n) {
  return n < 13 ? int(UC_ARM_REG_R0 + n) : (n == 13 ? int(UC_ARM_REG_SP) : int(UC_ARM_REG_LR));
}

// Slot of an address in the per-halfword tables: flash first, then RAM; -1 elsewhere.
I64 _CounterSlot(U32 Addr) {
  if (Addr < SIM_FLASH_ADDR + SIM_FLASH_SIZE) {
    return (Addr - SIM_FLASH_ADDR) >> 1;
  }
  if (Addr >= SIM_RAM_ADDR && Addr - SIM_RAM_ADDR < SIM_RAM_SIZE) {
    return kFlashHalfwords + ((Addr - SIM_RAM_ADDR) >> 1);
  }
  return -1;
}

// What the counters need to know of an instruction, cached per halfword: bits 0..3 the kind
// (1 plain, 2 IT, 3 conditional branch), bits 4..7 the condition, bits 8..11 the IT mask.
enum : U16 { KIND_PLAIN = 1, KIND_IT = 2, KIND_COND_BRANCH = 3 };

}  // namespace

// The emulator's callbacks.
struct SIM_HOOKS {
  // Runs before every translated block. The fast path only counts the block's instructions; anything
  // else (time events, pending exceptions, stop requests, one-block runs) waits for _NextCheck. A
  // stop asked for here takes effect before the block runs, so the block is not counted then.
  static void OnBlock(uc_engine* pUc, uint64_t Addr, uint32_t Size, void* pUser) {
    CSimTarget& S = *static_cast<CSimTarget*>(pUser);
    U32 a = U32(Addr);
    CSimTarget::BLOCK_ENTRY& E = S._aBlockCache[(a >> 1) & (CSimTarget::kBlockCacheSize - 1)];
    if (E.Addr != a || E.Size != Size) {
      S._InBlockHook = true;
      S._FillBlock(E, a, Size);
      S._InBlockHook = false;
    }
    if (S._Cycles >= S._NextCheck || (E.Flags & S._SlowBlockFlags)) {
      S._InBlockHook = true;
      bool Run = S._OnBlockSlow(E);
      S._InBlockHook = false;
      if (!Run) {
        return;
      }
    }
    S._Cycles += E.NumInsts;
    S._pLastBlock = &E;
  }

  // Only while trace or data breakpoints are on: the trace record of each instruction, and the stop
  // right after an instruction that hit a data breakpoint (before the next one runs).
  static void OnCode(uc_engine* pUc, uint64_t Addr, uint32_t Size, void* pUser) {
    CSimTarget& S = *static_cast<CSimTarget*>(pUser);
    if (S._StopAtCode) {
      uc_emu_stop(pUc);  // before this instruction: the first of the block that was to be stopped
      return;
    }
    if (S._WatchHit) {
      S._StopEmulation(CSimTarget::STOP_WATCH);
      return;
    }
    U32 a = U32(Addr);
    if (S._MayFaultInHook(a) && (S._InstructionFaultBits = S._InstructionFault(a)) != 0) {
      S._InstructionFaultPC = a;
      S._StopEmulation(CSimTarget::STOP_INSTRUCTION_FAULT);
      return;
    }
    if (S._TraceOn) {
      S._CountInstruction(a);
    }
  }

  static void OnInterrupt(uc_engine* pUc, uint32_t IntNo, void* pUser) {
    CSimTarget& S = *static_cast<CSimTarget*>(pUser);
    S._InterruptNo = IntNo;
    S._StopEmulation(CSimTarget::STOP_INTERRUPT);
  }

  static void OnMemAccess(uc_engine* pUc, uc_mem_type Type, uint64_t Addr, int Size, int64_t Value,
                          void* pUser) {
    CSimTarget& S = *static_cast<CSimTarget*>(pUser);
    bool IsWrite = Type == UC_MEM_WRITE;
    U32 a = U32(Addr);
    for (const PROBE_WATCH& W : S._aWatches) {
      U32 Lo = W.Addr & ~W.AddrMask;
      U32 Hi = Lo | W.AddrMask;  // inclusive
      if (a > Hi || a + U32(Size) - 1 < Lo) {
        continue;
      }
      if (!(W.AccessMask & 1) && (W.Access & 1) != (IsWrite ? 1 : 0)) {
        continue;
      }
      U32 WantedSize = (W.Access & 6) == 0 ? 1 : (W.Access & 6);
      if (!(W.AccessMask & 6) && U32(Size) != WantedSize) {
        continue;
      }
      if (W.DataMask != 0xFFFFFFFFu && ((U32(Value) ^ W.Data) & ~W.DataMask) != 0) {
        continue;
      }
      // The code hook of the next instruction (or the next block's hook) stops before it runs.
      S._WatchHit = true;
      S._NextCheck = 0;
    }
  }

  static bool OnInvalidMem(uc_engine* pUc, uc_mem_type Type, uint64_t Addr, int Size, int64_t Value,
                           void* pUser) {
    CSimTarget& S = *static_cast<CSimTarget*>(pUser);
    S._FaultAddr = U32(Addr);
    return false;
  }

  static uint64_t OnPPBRead(uc_engine* pUc, uint64_t Offset, unsigned Size, void* pUser) {
    return static_cast<CSimTarget*>(pUser)->_pSystem->Read(U32(Offset), Size, false);
  }

  static void OnPPBWrite(uc_engine* pUc, uint64_t Offset, unsigned Size, uint64_t Value, void* pUser) {
    static_cast<CSimTarget*>(pUser)->_pSystem->Write(U32(Offset), Size, U32(Value), false);
  }
};

// ---- Devices ----

namespace {

CProbeBackend* _GetSimTarget(const PROBE_DEVICE& Device) {
  static CSimTarget* apTargets[3] = {};
  int i = Device.Core == PROBE_CORE_CORTEX_M0 ? 0 : (Device.Core == PROBE_CORE_CORTEX_M3 ? 1 : 2);
  if (!apTargets[i]) {
    // Kept for the whole process: the target's state outlives Close, like a board on the bench.
    static const U32 aClock[3] = {48000000, 72000000, 168000000};
    apTargets[i] = new CSimTarget(Device.Core, aClock[i]);
  }
  return apTargets[i];
}

}  // namespace

void SIM_AddDevices() {
  const struct {
    const char* sName;
    U32 Core;
  } aDevices[] = {{"Simulator Cortex-M0", PROBE_CORE_CORTEX_M0},
                  {"Simulator Cortex-M3", PROBE_CORE_CORTEX_M3},
                  {"Simulator Cortex-M4", PROBE_CORE_CORTEX_M4}};
  for (const auto& D : aDevices) {
    PROBE_AddDevice(
        {D.sName, D.Core, SIM_FLASH_ADDR, SIM_FLASH_SIZE, SIM_RAM_ADDR, SIM_RAM_SIZE, _GetSimTarget});
  }
}

// ---- Life cycle ----

CSimTarget::CSimTarget(U32 Core, U32 ClockHz)
    : _Core(Core), _ClockHz(ClockHz), _HasFPU(Core == PROBE_CORE_CORTEX_M4) {
  bool IsM0 = Core == PROBE_CORE_CORTEX_M0;
  _NumBPUnits = IsM0 ? 4 : 6;
  _NumWPUnits = IsM0 ? 2 : 4;
  // CPUID as QEMU 7.2 reports it for the same cores (microbit, mps2-an385, mps2-an386), so that the
  // two can be compared register by register.
  U32 CpuId = IsM0 ? 0x410CC200u : (Core == PROBE_CORE_CORTEX_M3 ? 0x410FC231u : 0x410FC240u);
  _Isa = IsM0 ? SIM_ISA_V6M : (Core == PROBE_CORE_CORTEX_M3 ? SIM_ISA_V7M : SIM_ISA_V7EM_FPSP);
  _pSystem.reset(new CSimSystem(static_cast<ISimSystemHost*>(this), {CpuId, IsM0 ? 2u : 4u, IsM0, _HasFPU}));
  _aBlockCache.assign(kBlockCacheSize, BLOCK_ENTRY{kNoAddr, 0, 0, 0});
  _aTrace.assign(kTraceCapacity, 0);
  if (uc_open(UC_ARCH_ARM, uc_mode(UC_MODE_THUMB | UC_MODE_MCLASS), &_pUc) != UC_ERR_OK) {
    _pUc = nullptr;
    return;
  }
  // The emulator keeps its Cortex-M33 in M-profile mode whatever model is asked for (it answers OK),
  // which is why the instruction set of each core is checked here (SimIsa.h).
  uc_ctl_set_cpu_model(_pUc,
                       IsM0 ? UC_CPU_ARM_CORTEX_M0
                            : (Core == PROBE_CORE_CORTEX_M3 ? UC_CPU_ARM_CORTEX_M3 : UC_CPU_ARM_CORTEX_M4));
  uc_ctl_exits_enable(_pUc);
  // Memory the code hook can read directly, for its quick look at each instruction.
  _pFlash.reset(new U8[SIM_FLASH_SIZE]());
  _pRAM.reset(new U8[SIM_RAM_SIZE]());
  uc_mem_map_ptr(_pUc, SIM_FLASH_ADDR, SIM_FLASH_SIZE, UC_PROT_READ | UC_PROT_EXEC, _pFlash.get());
  uc_mem_map_ptr(_pUc, SIM_RAM_ADDR, SIM_RAM_SIZE, UC_PROT_ALL, _pRAM.get());
  uc_mmio_map(_pUc, SIM_PPB_BASE, SIM_PPB_SIZE, SIM_HOOKS::OnPPBRead, this, SIM_HOOKS::OnPPBWrite, this);
  uc_hook h;
  uc_hook_add(_pUc, &h, UC_HOOK_BLOCK, reinterpret_cast<void*>(SIM_HOOKS::OnBlock), this, 1, 0);
  uc_hook_add(_pUc, &h, UC_HOOK_INTR, reinterpret_cast<void*>(SIM_HOOKS::OnInterrupt), this, 1, 0);
  uc_hook_add(_pUc, &h, UC_HOOK_MEM_INVALID, reinterpret_cast<void*>(SIM_HOOKS::OnInvalidMem), this, 1, 0);
  _CoreReset();
  _SetHalted(PROBE_HALT_REQUEST);
  _Thread = std::thread([this] { _ThreadMain(); });
}

CSimTarget::~CSimTarget() {
  {
    std::lock_guard<std::recursive_mutex> Lock(PROBE_GetMutex());
    _Quit = true;
    _WakeUp.notify_all();
  }
  if (_Thread.joinable()) {
    _Thread.join();
  }
  if (_pUc) {
    uc_close(_pUc);
  }
}

int CSimTarget::Open(PROBE_STREAMS* pStreams, std::string& sError) {
  if (!_pUc) {
    sError = "the instruction emulator could not be started";
    return -1;
  }
  _pStreams = pStreams;
  return 0;
}

void CSimTarget::Close() {
  _Connected = false;
  _pSystem->DebuggerConnected = false;
  _pSystem->SetSWOEnabled(false, 0xFFFFFFFFu);
  _SWOEnabled = false;
  _HSSOn = false;
  _TraceOn = false;
}

int CSimTarget::Connect(std::string& sError) {
  _FaultConnLost = false;
  _Connected = true;
  _pSystem->DebuggerConnected = true;
  return 0;
}

bool CSimTarget::IsConnected() {
  return _Connected && !_FaultConnLost;
}

// ---- The emulation thread ----

void CSimTarget::_ThreadMain() {
  std::unique_lock<std::recursive_mutex> Lock(PROBE_GetMutex());
  while (!_Quit) {
    if (!_Running) {
      _WakeUp.wait(Lock);
      continue;
    }
    _Run(kSliceInstructions, false);
    if (_Running && _RealSpeed) {
      // Hold simulated time to the nominal clock: wait until the wall clock has caught up.
      auto Due = _RunStartTime + std::chrono::microseconds((_Cycles - _RunStartCycles) * 1000000 / _ClockHz);
      _WakeUp.wait_until(Lock, Due);
    }
    // Let callers waiting for the lock in before the next slice.
    Lock.unlock();
    auto Deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(2);
    while (PROBE_HasWaiters() && std::chrono::steady_clock::now() < Deadline) {
      std::this_thread::yield();
    }
    Lock.lock();
  }
}

void CSimTarget::_StopEmulation(STOP_REASON Reason) {
  if (_StopReason == STOP_NONE) {
    _StopReason = Reason;
  }
  _NextCheck = 0;
  if (_InBlockHook && _hCodeHook != 0) {
    // With code hooks in the block, a stop asked for by the block hook is not taken before the
    // block but somewhere inside it (2.0.1); the first code hook stops exactly instead.
    _StopAtCode = true;
    return;
  }
  uc_emu_stop(_pUc);
}

void CSimTarget::_UpdateNextEvent() {
  _NextEventCycle =
      std::min({_SliceEnd, _pSystem->GetNextSysTickEvent(), _HSSOn ? _NextHSSSample : CSimSystem::kNever});
  _UpdateNextCheck();
}

void CSimTarget::_UpdateNextCheck() {
  bool Now = _StopReason != STOP_NONE || _CheckPending || _ResetRequested || _HaltPending || _WatchHit ||
             _OneBlock || _CodeHookUpdatePending;
  _NextCheck = Now ? 0 : _NextEventCycle;
}

void CSimTarget::_OnTimeEvents() {
  if (_Cycles >= _pSystem->GetNextSysTickEvent()) {
    _pSystem->OnSysTickEvent();
  }
  if (_HSSOn && _Cycles >= _NextHSSSample) {
    _TakeHSSSample();
    _NextHSSSample += _HSSInterval;
  }
  _UpdateNextEvent();
}

bool CSimTarget::_OnBlockSlow(const BLOCK_ENTRY& Block) {
  bool Run = false;
  if (_StopReason != STOP_NONE) {
    // A stop is on its way (from a peripheral access or the block's own check).
  } else if (_WatchHit) {
    _StopEmulation(STOP_WATCH);
  } else if (_ResetRequested) {
    _StopEmulation(STOP_RESET_REQUEST);
  } else if (_HaltPending) {
    _HaltPending = false;
    _StopEmulation(STOP_HALT_REQUEST);
  } else if (_CodeHookUpdatePending) {
    _StopEmulation(STOP_RETRANSLATE);
  } else if (!_OneBlock && _Cycles >= _SliceEnd) {
    _StopEmulation(STOP_SLICE);
  } else {
    if (_Cycles >= _NextEventCycle) {
      _OnTimeEvents();
    }
    if (_CheckPending && _CanTakePending()) {
      _StopEmulation(STOP_EXCEPTION);
    } else if (_OneBlock && ++_BlocksRun > 1) {
      _StopEmulation(STOP_BLOCK_DONE);
    } else if ((!_OneBlock && (Block.Flags & _SlowBlockFlags)) ||
               (_OneBlockChecked && (Block.Flags & _SlowBlockFlags & ~BLOCK_IT_ACCESS))) {
      // Data breakpoints inside an IT block, or instructions to check before they run.
      _StepThroughForMultiAccess = (Block.Flags & _SlowBlockFlags & BLOCK_MULTI_ACCESS) != 0;
      _StepThroughLo = Block.Addr;
      _StepThroughHi = Block.Addr + Block.Size;
      _StopEmulation(STOP_STEP_THROUGH);
    } else {
      Run = true;
    }
  }
  if (!Run) {
    _pLastBlock = nullptr;  // the block before this one ran to its end
    return false;
  }
  _UpdateNextCheck();
  return true;
}

U32 CSimTarget::_CountInstructions(U32 Addr, U32 End) {
  U32 n = 0;
  while (Addr < End) {
    U16 H0 = 0;
    if (uc_mem_read(_pUc, Addr, &H0, 2) != UC_ERR_OK) {
      break;
    }
    Addr += SIM_InstSize(H0);
    n++;
  }
  return n;
}

void CSimTarget::_FillBlock(BLOCK_ENTRY& Block, U32 Addr, U32 Size) {
  // The block's bytes and a few beyond, for an IT block that reaches past the block's end.
  U8 ac[kMaxBlockBytes + 16] = {};
  U32 n = std::min<U32>(Size, kMaxBlockBytes);
  if (uc_mem_read(_pUc, Addr, ac, n + 16) != UC_ERR_OK) {
    uc_mem_read(_pUc, Addr, ac, n);
  }
  auto Half = [&](U32 Off) { return U16(ac[Off] | (ac[Off + 1] << 8)); };
  U32 NumInsts = 0;
  U8 Flags = 0;
  for (U32 Off = 0; Off < n; NumInsts++) {
    U16 H0 = Half(Off), H1 = Half(Off + 2);
    SIM_INST_CHECK Check = SIM_CheckInstruction(_Isa, H0, H1);
    Flags |= U8(SIM_RuntimeChecksOf(H0, H1) << BLOCK_CHECKS_SHIFT);
    if (Check != SIM_INST_OK && !_aFaultExits.count(Addr + Off)) {
      // The emulator would run it as a later core does. An exit there ends the block before it, so
      // the instructions before it run and the fault comes exactly at it.
      _aFaultExits[Addr + Off] = Check;
      _aNewFaultExits.push_back(Addr + Off);
      _StopEmulation(STOP_RETRANSLATE);
    }
    if (U32 IT = SIM_ITStateOf(H0)) {
      // A memory access inside an IT block that another instruction of the block follows: the emulator
      // can't stop there, so with data breakpoints set such blocks run one instruction at a time.
      U32 Num = (IT & 1) ? 4 : ((IT & 2) ? 3 : ((IT & 4) ? 2 : 1));
      U32 At = Off + 2;
      // Likewise an access or divide that the code hook checks: the hook can't stop before it.
      for (U32 k = 0; k < Num && At + 4 <= n + 16; k++) {
        U16 I0 = Half(At), I1 = Half(At + 2);
        if (k + 1 < Num && SIM_MayAccessMemory(I0, I1)) {
          Flags |= BLOCK_IT_ACCESS;
        }
        if (SIM_RuntimeChecksOf(I0, I1) &
            (SIM_CHECK_SINGLE_ACCESS | SIM_CHECK_DIVIDE | SIM_CHECK_MULTI_ACCESS)) {
          Flags |= BLOCK_IT_HOOK_CHECK;
        }
        At += SIM_InstSize(I0);
      }
    }
    Off += SIM_InstSize(H0);
  }
  Block = BLOCK_ENTRY{Addr, U16(Size), U16(NumInsts), Flags};
  _CodeLo = std::min(_CodeLo, Addr);
  _CodeHi = std::max(_CodeHi, Addr + Size + 16);
}

void CSimTarget::_UncountRestOfBlock(U32 PC) {
  // The entry is still the last block's: only the block hook refills entries.
  const BLOCK_ENTRY* pLast = _pLastBlock;
  if (pLast && PC >= pLast->Addr && PC < pLast->Addr + pLast->Size) {
    _Cycles -= _CountInstructions(PC, pLast->Addr + pLast->Size);
  }
  _pLastBlock = nullptr;
}

void CSimTarget::_ApplyExits(U32 Without, U32 With) {
  _aExits.clear();
  for (const auto& Bp : _aBreakpoints) {
    if (Bp.first != Without) {
      _aExits.push_back(Bp.first);
    }
  }
  for (const auto& F : _aFaultExits) {
    if (F.first != Without) {
      _aExits.push_back(F.first);
    }
  }
  if (With != kNoAddr) {
    _aExits.push_back(With);
  }
  uc_ctl_set_exits(_pUc, _aExits.data(), _aExits.size());
}

void CSimTarget::_InvalidateAround(U32 Addr) {
  // Exits take effect when code is translated: drop the translations that hold the address, and those
  // that end there (their last instruction starts at most 4 bytes before).
  // The emulator drops nothing for a range that starts outside mapped memory, so a range reaching
  // back across a page boundary is dropped in two parts.
  U64 Lo = Addr >= 4 ? Addr - 4 : 0;
  U64 Page = Addr & ~U64(kPageSize - 1);
  if (Lo < Page) {
    uc_ctl_remove_cache(_pUc, Lo, Page);
    Lo = Page;
  }
  uc_ctl_remove_cache(_pUc, Lo, U64(Addr) + 2);
}

void CSimTarget::_DropAllTranslations() {
  // Not the emulator's flush: in 2.0.1 that takes from a fifth of a second to seconds.
  uc_ctl_remove_cache(_pUc, U64(SIM_FLASH_ADDR), U64(SIM_FLASH_ADDR) + SIM_FLASH_SIZE);
  uc_ctl_remove_cache(_pUc, U64(SIM_RAM_ADDR), U64(SIM_RAM_ADDR) + SIM_RAM_SIZE);
}

bool CSimTarget::_IsExit(U32 Addr) const {
  return _IsBreakpoint(Addr) || _aFaultExits.count(Addr) != 0;
}

int CSimTarget::_Emulate(U32 PC) {
  _StopReason = STOP_NONE;
  _StopAtCode = false;
  _pLastBlock = nullptr;
  _BlocksRun = 0;
  _UpdateNextCheck();
  _InEmulation = true;
  // Bit 0 of the start address is the emulator's Thumb state: a branch to an even address leaves
  // EPSR.T clear, and the next instruction must fault (INVSTATE) even when it starts a new run.
  uc_err Err = uc_emu_start(_pUc, PC | ((_Reg(UC_ARM_REG_XPSR) >> 24) & 1), 0, 0, 0);
  _InEmulation = false;
  _UncountRestOfBlock(_Reg(UC_ARM_REG_PC));
  if (_CodeHookUpdatePending) {
    _CodeHookUpdatePending = false;
    _UpdateCodeHook();
  }
  if (!_aNewFaultExits.empty()) {
    _ApplyExits(kNoAddr, kNoAddr);
    for (U32 Addr : _aNewFaultExits) {
      _InvalidateAround(Addr);
    }
    _aNewFaultExits.clear();
  }
  return int(Err);
}

int CSimTarget::_EmulateOneBlock(U32 PC, U32 StopAt) {
  // Runs the block at PC even where PC is an exit (a breakpoint being stepped over), and no further;
  // StopAt, when given, ends it after the first instruction.
  bool Changed = _IsExit(PC) || StopAt != kNoAddr;
  if (Changed) {
    _ApplyExits(PC, StopAt);
    _InvalidateAround(PC);
    if (StopAt != kNoAddr) {
      _InvalidateAround(StopAt);
    }
  }
  _OneBlock = true;
  int Err = _Emulate(PC);
  _OneBlock = false;
  if (Changed) {
    _ApplyExits(kNoAddr, kNoAddr);
    _InvalidateAround(PC);
    if (StopAt != kNoAddr) {
      _InvalidateAround(StopAt);
    }
  }
  _UpdateNextCheck();
  return Err;
}

bool CSimTarget::_TakeFaultExit(U32 PC, SIM_INST_CHECK Check) {
  U32 XPSR = _Reg(UC_ARM_REG_XPSR);
  U32 IT = SIM_ITStateFromXPSR(XPSR);
  U16 aInst[2] = {};
  uc_mem_read(_pUc, PC, aInst, 4);
  if (IT != 0 && !SIM_ConditionPassed(IT >> 4, XPSR)) {
    // Inside an IT block with its condition failing the instruction doesn't run, whatever it is.
    _SetReg(UC_ARM_REG_XPSR, SIM_XPSRWithITState(XPSR, SIM_ITAdvance(IT)));
    _SetReg(UC_ARM_REG_PC, PC + SIM_InstSize(aInst[0]));
    _Cycles++;
    return true;
  }
  static const char* const asArch[] = {"ARMv6-M", "ARMv7-M", "ARMv7E-M with FPv4-SP"};
  char ac[160];
  if (SIM_InstSize(aInst[0]) == 4) {
    snprintf(ac, sizeof(ac), "instruction 0x%04X 0x%04X is %s on %s", aInst[0], aInst[1],
             Check == SIM_INST_NO_COPROCESSOR ? "for a coprocessor the core lacks" : "undefined",
             asArch[_Isa]);
  } else {
    snprintf(ac, sizeof(ac), "instruction 0x%04X is undefined on %s", aInst[0], asArch[_Isa]);
  }
  return _RaiseUsageFault(PC, Check == SIM_INST_NO_COPROCESSOR ? SIM_CFSR_NOCP : SIM_CFSR_UNDEFINSTR, ac);
}

CSimTarget::STOP_RESULT CSimTarget::_AfterStop(int ErrCode) {
  U32 PC = _Reg(UC_ARM_REG_PC);
  uc_err Err = uc_err(ErrCode);
  if (Err != UC_ERR_OK) {
    char ac[160];
    snprintf(ac, sizeof(ac), "%s at address 0x%08X", uc_strerror(Err), _FaultAddr);
    bool Ok;
    if (Err == UC_ERR_READ_UNMAPPED || Err == UC_ERR_WRITE_UNMAPPED || Err == UC_ERR_WRITE_PROT ||
        Err == UC_ERR_READ_PROT) {
      Ok = _RaiseBusFault(PC, SIM_CFSR_PRECISERR, true, _FaultAddr, ac);
    } else if (Err == UC_ERR_FETCH_UNMAPPED || Err == UC_ERR_FETCH_PROT) {
      snprintf(ac, sizeof(ac), "%s at address 0x%08X", uc_strerror(Err), PC);
      Ok = _RaiseFetchFault(PC, ac);
    } else if (Err == UC_ERR_INSN_INVALID && !(_Reg(UC_ARM_REG_XPSR) & (1u << 24))) {
      Ok = _RaiseUsageFault(PC, SIM_CFSR_INVSTATE, "execution in ARM state (EPSR.T clear)");
    } else if (Err == UC_ERR_INSN_INVALID) {
      Ok = _RaiseUsageFault(PC, SIM_CFSR_UNDEFINSTR, "undefined instruction");
    } else {
      Ok = _RaiseHardFault(PC, ac);
    }
    return Ok ? SR_EVENT : SR_HALTED;
  }
  switch (_StopReason) {
    case STOP_NONE:  // an exit: a breakpoint, an instruction the core lacks, or the end of a step
      return SR_AT_EXIT;
    case STOP_BLOCK_DONE:
      return SR_AT_EXIT;
    case STOP_SLICE:
      return SR_SLICE;
    case STOP_RETRANSLATE:
      return SR_AGAIN;
    case STOP_INSTRUCTION_FAULT: {
      U32 Bits = _InstructionFaultBits;
      const char* sWhy = Bits == SIM_CFSR_DIVBYZERO ? "division by zero" : "unaligned access";
      return _RaiseUsageFault(_InstructionFaultPC, Bits, sWhy) ? SR_EVENT : SR_HALTED;
    }
    case STOP_STEP_THROUGH:
      return SR_STEP_THROUGH;
    case STOP_WATCH:
      _SetHalted(PROBE_HALT_WATCHPOINT);
      return SR_HALTED;
    case STOP_HALT_REQUEST:
      _SetHalted(PROBE_HALT_REQUEST);
      return SR_HALTED;
    case STOP_RESET_REQUEST:
      _ResetRequested = false;
      _CoreReset();
      return SR_EVENT;
    case STOP_EXCEPTION:
      return _EnterException(_pSystem->GetHighestPending(), PC) ? SR_EVENT : SR_HALTED;
    case STOP_INTERRUPT:
      break;
  }
  switch (_InterruptNo) {
    case UC_INTR_BKPT:
      if (_CheckPending && _CanTakePending()) {
        // Pended earlier in the same block (a store to the NVIC, say): on the core it is taken long
        // before the BKPT is reached.
        return _EnterException(_pSystem->GetHighestPending(), PC) ? SR_EVENT : SR_HALTED;
      }
      _SetHalted(PROBE_HALT_BKPT_INST);
      return SR_HALTED;
    case UC_INTR_SWI:
      // SVC is synchronous: it must preempt at once, else it escalates to HardFault.
      _pSystem->SetPending(SIM_EXC_SVCALL);
      if (!_CanTakePending() || _pSystem->GetHighestPending() != SIM_EXC_SVCALL) {
        return _RaiseHardFault(PC - 2, "SVC while its priority was masked") ? SR_EVENT : SR_HALTED;
      }
      return _EnterException(SIM_EXC_SVCALL, PC) ? SR_EVENT : SR_HALTED;
    case UC_INTR_EXCEPTION_EXIT:
      return _ReturnFromException(PC | 1) ? SR_EVENT : SR_HALTED;
    case UC_INTR_UDEF:
      return _RaiseUsageFault(PC, SIM_CFSR_UNDEFINSTR, "undefined instruction") ? SR_EVENT : SR_HALTED;
    case UC_INTR_NOCP:
      return _RaiseUsageFault(PC, SIM_CFSR_NOCP, "coprocessor instruction") ? SR_EVENT : SR_HALTED;
    case UC_INTR_INVSTATE:
      return _RaiseUsageFault(PC, SIM_CFSR_INVSTATE, "execution in ARM state (EPSR.T clear)") ? SR_EVENT
                                                                                              : SR_HALTED;
    case UC_INTR_PREFETCH_ABORT:
      return _RaiseFetchFault(PC, "instruction fetch from the system region") ? SR_EVENT : SR_HALTED;
    case UC_INTR_DATA_ABORT:
    case UC_INTR_UNALIGNED:
      // The emulator's own alignment checks (exclusive accesses) end up here.
      return _RaiseUsageFault(PC, SIM_CFSR_UNALIGNED, "unaligned access") ? SR_EVENT : SR_HALTED;
    default: {
      char ac[80];
      snprintf(ac, sizeof(ac), "exception %u", _InterruptNo);
      return _RaiseHardFault(PC, ac) ? SR_EVENT : SR_HALTED;
    }
  }
}

CSimTarget::STEP_RESULT CSimTarget::_StepOnce() {
  for (int Attempt = 0; Attempt < 4; Attempt++) {
    U32 PC = _Reg(UC_ARM_REG_PC);
    auto Fault = _aFaultExits.find(PC);
    if (Fault != _aFaultExits.end()) {
      return _TakeFaultExit(PC, Fault->second) ? STEP_DONE : STEP_HALTED;
    }
    bool Faulted = false;
    if (!_CheckBeforeStep(PC, &Faulted)) {
      return STEP_HALTED;
    }
    if (Faulted) {
      return STEP_DONE;
    }
    U16 H0 = 0;
    uc_mem_read(_pUc, PC, &H0, 2);
    U64 CyclesBefore = _Cycles;
    int Err = _EmulateOneBlock(PC, PC + SIM_InstSize(H0));
    bool FetchFailed =
        Err == UC_ERR_FETCH_UNMAPPED || Err == UC_ERR_FETCH_PROT ||
        (Err == UC_ERR_OK && _StopReason == STOP_INTERRUPT && _InterruptNo == UC_INTR_PREFETCH_ABORT);
    if (FetchFailed && _Reg(UC_ARM_REG_PC) != PC) {
      // A branch to where nothing can be fetched: the branch is this step, the fault the next one's.
      return STEP_DONE;
    }
    if (_FPCAStaysClear) {
      _FPCAStaysClear = false;
      _SetReg(UC_ARM_REG_CONTROL, _Reg(UC_ARM_REG_CONTROL) & ~12u);
    }
    STOP_RESULT r = _AfterStop(Err);
    if (r == SR_HALTED) {
      return STEP_HALTED;
    }
    // Run again only when nothing ran: new exits can also turn up in the block a branch goes to, after
    // the branch itself.
    if (r != SR_AGAIN || _Cycles != CyclesBefore || _Reg(UC_ARM_REG_PC) != PC) {
      return STEP_DONE;  // one instruction ran, or an exception was entered or left
    }
  }
  return STEP_DONE;
}

bool CSimTarget::_StepThrough() {
  // One instruction at a time until the IT blocks of the block are behind: a data breakpoint hit
  // inside one then stops right after the access, as it does everywhere else.
  U32 Lo = _StepThroughLo, Hi = _StepThroughHi;
  for (int i = 0; i < 4096; i++) {
    U32 PC = _Reg(UC_ARM_REG_PC);
    if (i > 0) {
      if (SIM_ITStateFromXPSR(_Reg(UC_ARM_REG_XPSR)) == 0 && (PC < Lo || PC >= Hi)) {
        return true;
      }
      if (_IsBreakpoint(PC)) {
        _SetHalted(PROBE_HALT_BREAKPOINT);
        return false;
      }
    }
    if (_StepOnce() == STEP_HALTED) {
      return false;
    }
    if (_WatchHit) {
      _SetHalted(PROBE_HALT_WATCHPOINT);
      return false;
    }
    if (_StepThroughForMultiAccess && !_CheckMultiAccessByHook &&
        ++_NumMultiAccessSteps >= kMultiAccessHookAfter && SIM_ITStateFromXPSR(_Reg(UC_ARM_REG_XPSR)) == 0) {
      // A copy loop: from here on the code hook checks its accesses, at full speed.
      _CheckMultiAccessByHook = true;
      _UpdateCodeHook();
      return true;
    }
  }
  return true;
}

CSimTarget::RUN_RESULT CSimTarget::_Run(U64 MaxInsts, bool Step) {
  _SliceEnd = _Cycles + MaxInsts;
  _WatchHit = false;
  _UpdateNextEvent();
  if (Step) {
    _PassPC = kNoAddr;
    if (_StepOnce() != STEP_HALTED) {
      _SetHalted(_WatchHit ? PROBE_HALT_WATCHPOINT : PROBE_HALT_STEP);
    }
    return RUN_HALTED;
  }
  U32 LastStart = kNoAddr;
  for (;;) {
    if (_Cycles >= _SliceEnd) {
      return RUN_CONTINUE;
    }
    U32 PC = _Reg(UC_ARM_REG_PC);
    auto Fault = _aFaultExits.find(PC);
    if (Fault != _aFaultExits.end()) {
      if (!_TakeFaultExit(PC, Fault->second)) {
        return RUN_HALTED;
      }
      continue;
    }
    int Err;
    U64 CyclesBefore = _Cycles;
    if (_IsBreakpoint(PC)) {
      // Reached while running, the breakpoint has already stopped the target before this point; a
      // run that starts on one stops at once unless it was asked to step over it.
      if (_PassPC != PC) {
        _SetHalted(PROBE_HALT_BREAKPOINT);
        return RUN_HALTED;
      }
      _OneBlockChecked = true;
      Err = _EmulateOneBlock(PC, kNoAddr);
      _OneBlockChecked = false;
      if (_BlocksRun > 0) {
        _PassPC = kNoAddr;
      }
    } else {
      _PassPC = kNoAddr;
      Err = _Emulate(PC);
    }
    if (_FPCAStaysClear) {
      _FPCAStaysClear = false;
      _SetReg(UC_ARM_REG_CONTROL, _Reg(UC_ARM_REG_CONTROL) & ~12u);
    }
    STOP_RESULT r = _AfterStop(Err);
    if (r == SR_HALTED) {
      return RUN_HALTED;
    }
    if (r == SR_SLICE) {
      return RUN_CONTINUE;
    }
    if (r == SR_STEP_THROUGH && !_StepThrough()) {
      return RUN_HALTED;
    }
    if (r == SR_AT_EXIT && _Cycles == CyclesBefore && _Reg(UC_ARM_REG_PC) == PC && !_IsExit(PC)) {
      // Stopped where no exit is any more, before anything ran: a translation from before the exit
      // went away. Drop it; drop them all if that wasn't enough.
      if (LastStart == PC) {
        _DropAllTranslations();
      } else {
        _InvalidateAround(PC);
      }
      LastStart = PC;
    } else {
      LastStart = kNoAddr;
    }
  }
}

// ---- Exceptions ----

int CSimTarget::_ExecutionPriority() {
  int Exec = _pSystem->GetActivePriority();
  if (_Reg(UC_ARM_REG_PRIMASK) & 1) {
    Exec = std::min(Exec, 0);
  }
  if (_Core != PROBE_CORE_CORTEX_M0) {
    U32 BasePri = _Reg(UC_ARM_REG_BASEPRI) & _pSystem->GetPriorityMask();
    if (BasePri) {
      Exec = std::min(Exec, int(BasePri));
    }
    if (_Reg(UC_ARM_REG_FAULTMASK) & 1) {
      Exec = std::min(Exec, -1);
    }
  }
  return Exec;
}

bool CSimTarget::_CanTakePending() {
  U32 Exc = _pSystem->GetHighestPending();
  if (Exc == 0) {
    _CheckPending = false;
    return false;
  }
  // Stays set while an exception waits, so the hook re-checks after PRIMASK or BASEPRI change.
  return _pSystem->GetPriority(Exc) < _ExecutionPriority();
}

U32 CSimTarget::GetActiveException() {
  return _Reg(UC_ARM_REG_XPSR) & 0x1FF;
}

U32 CSimTarget::_ControlMask() const {
  // nPRIV and SPSEL, and FPCA where there is an FPU; the Cortex-M0 has no unprivileged mode.
  return _Core == PROBE_CORE_CORTEX_M0 ? 2u : (_HasFPU ? 7u : 3u);
}

void CSimTarget::_SaveLazyFP() {
  // The first floating-point instruction since the entry is about to run: the registers still hold
  // the preempted context's values.
  U32 aState[18] = {};
  for (U32 i = 0; i < 16; i++) {
    aState[i] = _Reg(UC_ARM_REG_S0 + int(i));
  }
  aState[16] = _Reg(UC_ARM_REG_FPSCR);
  uc_mem_write(_pUc, _pSystem->GetFPCAR(), aState, sizeof(aState));
  _pSystem->SetFPCCR(_pSystem->GetFPCCR() & ~SIM_FPCCR_LSPACT);
  _UpdateInstructionChecks();
}

bool CSimTarget::_EnterException(U32 Exception, U32 ReturnAddr) {
  U32 XPSR = _Reg(UC_ARM_REG_XPSR);
  U32 Control = _Reg(UC_ARM_REG_CONTROL);
  U32 MSP = _Reg(UC_ARM_REG_MSP), PSP = _Reg(UC_ARM_REG_PSP);
  bool Handler = (XPSR & 0x1FF) != 0;
  bool OnPSP = !Handler && (Control & 2);
  // With an active floating-point context the frame is the extended one: S0..S15, FPSCR and a
  // reserved word follow the basic eight words.
  bool FPFrame = _HasFPU && (Control & 4);
  U32 FrameSize = FPFrame ? 0x68 : 0x20;
  U32 SP = OnPSP ? PSP : MSP;
  U32 Align = SP & 4;
  SP = (SP - FrameSize) & ~7u;
  U32 aFrame[26] = {_Reg(UC_ARM_REG_R0), _Reg(UC_ARM_REG_R1),           _Reg(UC_ARM_REG_R2),
                    _Reg(UC_ARM_REG_R3), _Reg(UC_ARM_REG_R12),          _Reg(UC_ARM_REG_LR),
                    ReturnAddr & ~1u,    XPSR | (Align ? (1u << 9) : 0)};
  U32 FPCCR = _pSystem->GetFPCCR();
  bool Lazy = FPFrame && (FPCCR & SIM_FPCCR_LSPEN);
  if (FPFrame) {
    for (U32 i = 0; i < 16; i++) {
      aFrame[8 + i] = _Reg(UC_ARM_REG_S0 + int(i));
    }
    aFrame[24] = _Reg(UC_ARM_REG_FPSCR);
  }
  U32 Handler_ = 0;
  // A lazy frame only reserves the space of the floating-point state.
  if (uc_mem_write(_pUc, SP, aFrame, Lazy ? 32 : FrameSize) != UC_ERR_OK) {
    PROBE_PostWarning("Exception %u: stack frame at 0x%08X can't be written; target halted", Exception, SP);
    _SetHalted(PROBE_HALT_FAULT);
    return false;
  }
  if (uc_mem_read(_pUc, _pSystem->GetVTOR() + 4 * Exception, &Handler_, 4) != UC_ERR_OK || Handler_ == 0) {
    PROBE_PostWarning("Exception %u at 0x%08X: the program has no handler (vector 0x%08X); target halted",
                      Exception, ReturnAddr, Handler_);
    _SetHalted(PROBE_HALT_FAULT);
    return false;
  }
  if (FPFrame && !Lazy) {
    // Saved at once, the caller-saved FP registers start the handler cleared, as QEMU 7.2 has it.
    for (U32 i = 0; i < 16; i++) {
      _SetReg(UC_ARM_REG_S0 + int(i), 0);
    }
    _SetReg(UC_ARM_REG_FPSCR, 0);
  }
  if (Lazy) {
    // What the handler may later need in order to save the state: where, and which faults could be
    // taken if saving it failed, from the priority of the context that was preempted.
    int Exec = _ExecutionPriority();
    U32 SHCSR = _pSystem->GetSHCSR();
    FPCCR &= ~(SIM_FPCCR_USER | SIM_FPCCR_THREAD | SIM_FPCCR_HFRDY | SIM_FPCCR_MMRDY | SIM_FPCCR_BFRDY);
    FPCCR |= SIM_FPCCR_LSPACT;
    auto Bit = [](bool On, U32 Mask) { return On ? Mask : 0u; };
    FPCCR |= Bit(!Handler && (Control & 1), SIM_FPCCR_USER);
    FPCCR |= Bit(!Handler, SIM_FPCCR_THREAD);
    FPCCR |= Bit(Exec > -1, SIM_FPCCR_HFRDY);
    FPCCR |= Bit((SHCSR & SIM_SHCSR_MEMFAULTENA) && Exec > _pSystem->GetPriority(SIM_EXC_MEMMANAGE),
                 SIM_FPCCR_MMRDY);
    FPCCR |= Bit((SHCSR & SIM_SHCSR_BUSFAULTENA) && Exec > _pSystem->GetPriority(SIM_EXC_BUSFAULT),
                 SIM_FPCCR_BFRDY);
    _pSystem->SetFPCCR(FPCCR);
    _pSystem->SetFPCAR(SP + 0x20);
    _UpdateInstructionChecks();
  }
  (OnPSP ? PSP : MSP) = SP;
  U32 ExcReturn = Handler ? 0xFFFFFFF1u : (OnPSP ? 0xFFFFFFFDu : 0xFFFFFFF9u);
  if (FPFrame) {
    ExcReturn &= ~0x10u;
  }
  // Mode first, then both stack pointers: the emulator files SP by the mode in force. The handler
  // starts on the main stack without a floating-point context.
  _SetReg(UC_ARM_REG_CONTROL, Control & 1u);
  _SetReg(UC_ARM_REG_XPSR, (XPSR & 0xF0000000u) | (1u << 24) | Exception);
  _SetReg(UC_ARM_REG_MSP, MSP);
  _SetReg(UC_ARM_REG_PSP, PSP);
  _SetReg(UC_ARM_REG_LR, ExcReturn);
  _SetReg(UC_ARM_REG_PC, Handler_ & ~1u);
  _pSystem->SetActive(Exception, true);
  _CheckPending = _pSystem->AnyPending();
  return true;
}

bool CSimTarget::_ReturnFromException(U32 ExcReturn) {
  U32 XPSR = _Reg(UC_ARM_REG_XPSR);
  U32 Exception = XPSR & 0x1FF;
  U32 Low = ExcReturn & 0x1F;
  bool FPFrame = !(ExcReturn & 0x10);
  if (Exception == 0 || (Low & 0xF) == 0 || ((Low & 0xF) != 1 && (Low & 0xF) != 9 && (Low & 0xF) != 0xD) ||
      (FPFrame && !_HasFPU)) {
    return _RaiseUsageFault(ExcReturn, SIM_CFSR_INVPC, "invalid exception return");
  }
  _pSystem->SetActive(Exception, false);
  bool ToThread = (ExcReturn & 8) != 0;
  bool ToPSP = (ExcReturn & 4) != 0;
  U32 MSP = _Reg(UC_ARM_REG_MSP), PSP = _Reg(UC_ARM_REG_PSP);
  U32 SP = ToPSP ? PSP : MSP;
  U32 aFrame[26];
  U32 FPCCR = _pSystem->GetFPCCR();
  // A lazy frame whose state was never saved holds nothing: the registers still have the values.
  bool ReadFP = FPFrame && !(FPCCR & SIM_FPCCR_LSPACT);
  if (uc_mem_read(_pUc, SP, aFrame, ReadFP ? 0x68 : 0x20) != UC_ERR_OK) {
    return _RaiseBusFault(ExcReturn, SIM_CFSR_UNSTKERR, false, 0, "exception return frame can't be read");
  }
  if (FPFrame) {
    if (ReadFP) {
      for (U32 i = 0; i < 16; i++) {
        _SetReg(UC_ARM_REG_S0 + int(i), aFrame[8 + i]);
      }
      _SetReg(UC_ARM_REG_FPSCR, aFrame[24]);
    } else {
      _pSystem->SetFPCCR(FPCCR & ~SIM_FPCCR_LSPACT);
      _UpdateInstructionChecks();
    }
  }
  SP += (FPFrame ? 0x68 : 0x20) + ((aFrame[7] & (1u << 9)) ? 4 : 0);
  (ToPSP ? PSP : MSP) = SP;
  U32 NewXPSR = aFrame[7] & ~(1u << 9);
  if (!ToThread && (NewXPSR & 0x1FF) == 0) {
    NewXPSR |= 3;  // a return to handler mode with a thread frame: keep it in handler mode
  }
  if (ToThread) {
    NewXPSR &= ~0x1FFu;
  }
  bool ThumbState = (aFrame[7] & (1u << 24)) != 0;
  _SetReg(UC_ARM_REG_XPSR, NewXPSR | (1u << 24));
  U32 Control = _Reg(UC_ARM_REG_CONTROL) & 1u;
  Control |= ToThread && ToPSP ? 2u : 0u;
  Control |= FPFrame ? 4u : 0u;
  _SetReg(UC_ARM_REG_CONTROL, Control);
  _SetReg(UC_ARM_REG_MSP, MSP);
  _SetReg(UC_ARM_REG_PSP, PSP);
  _SetReg(UC_ARM_REG_R0, aFrame[0]);
  _SetReg(UC_ARM_REG_R1, aFrame[1]);
  _SetReg(UC_ARM_REG_R2, aFrame[2]);
  _SetReg(UC_ARM_REG_R3, aFrame[3]);
  _SetReg(UC_ARM_REG_R12, aFrame[4]);
  _SetReg(UC_ARM_REG_LR, aFrame[5]);
  _SetReg(UC_ARM_REG_PC, aFrame[6] & ~1u);
  _ClearITPending();
  _CheckPending = _pSystem->AnyPending();
  if (!ThumbState) {
    // The core only runs Thumb code: the first instruction after the return faults, with EPSR.T
    // clear in the fault's own frame.
    _SetReg(UC_ARM_REG_XPSR, _Reg(UC_ARM_REG_XPSR) & ~(1u << 24));
    return _RaiseUsageFault(aFrame[6] & ~1u, SIM_CFSR_INVSTATE, "exception return to ARM state");
  }
  return true;
}

bool CSimTarget::_RaiseHardFault(U32 PC, const char* sWhy) {
  if (_pSystem->IsActive(SIM_EXC_HARDFAULT)) {
    PROBE_PostWarning("HardFault at 0x%08X inside the HardFault handler (%s): target locked up and halted",
                      PC, sWhy);
    _SetHalted(PROBE_HALT_FAULT);
    return false;
  }
  U32 Handler = 0;
  uc_mem_read(_pUc, _pSystem->GetVTOR() + 4 * SIM_EXC_HARDFAULT, &Handler, 4);
  if (Handler == 0) {
    PROBE_PostWarning("HardFault at 0x%08X (%s): the program has no HardFault handler; target halted", PC,
                      sWhy);
    _SetHalted(PROBE_HALT_FAULT);
    return false;
  }
  _pSystem->RecordForcedHardFault();
  return _EnterException(SIM_EXC_HARDFAULT, PC);
}

bool CSimTarget::_RaiseUsageFault(U32 PC, U32 CfsrBits, const char* sWhy) {
  _pSystem->RecordFaultStatus(CfsrBits);
  return _TakeConfigurableFault(SIM_EXC_USAGEFAULT, SIM_SHCSR_USGFAULTENA, PC, sWhy);
}

bool CSimTarget::_RaiseBusFault(U32 PC, U32 CfsrBits, bool HasAddr, U32 Addr, const char* sWhy) {
  _pSystem->RecordFaultStatus(CfsrBits);
  if (HasAddr) {
    _pSystem->RecordBusFaultAddress(Addr);
  }
  return _TakeConfigurableFault(SIM_EXC_BUSFAULT, SIM_SHCSR_BUSFAULTENA, PC, sWhy);
}

bool CSimTarget::_RaiseMemManage(U32 PC, U32 CfsrBits, const char* sWhy) {
  _pSystem->RecordFaultStatus(CfsrBits);
  return _TakeConfigurableFault(SIM_EXC_MEMMANAGE, SIM_SHCSR_MEMFAULTENA, PC, sWhy);
}

bool CSimTarget::_RaiseFetchFault(U32 PC, const char* sWhy) {
  // The regions from 0xA0000000 up never execute (device and system space): a fetch there is a
  // MemManage fault. Elsewhere nothing answers the fetch, which is a BusFault; neither has an address
  // register, the stacked return address is the address fetched.
  return PC >= 0xA0000000u ? _RaiseMemManage(PC, SIM_CFSR_IACCVIOL, sWhy)
                           : _RaiseBusFault(PC, SIM_CFSR_IBUSERR, false, 0, sWhy);
}

bool CSimTarget::_TakeConfigurableFault(U32 Exception, U32 EnableBit, U32 PC, const char* sWhy) {
  // A synchronous fault that is disabled, or can't preempt what runs, escalates to HardFault.
  if (!_pSystem->IsV6M() && (_pSystem->GetSHCSR() & EnableBit) &&
      _pSystem->GetPriority(Exception) < _ExecutionPriority()) {
    return _EnterException(Exception, PC);
  }
  return _RaiseHardFault(PC, sWhy);
}

// ---- Instruction checks ----

void CSimTarget::_UpdateInstructionChecks() {
  U32 CCR = _pSystem->GetCCR();
  _CheckDivide = (CCR & SIM_CCR_DIV_0_TRP) != 0;
  _CheckUnaligned = (CCR & SIM_CCR_UNALIGN_TRP) != 0;
  // The emulator runs floating-point instructions regardless of CPACR, has no lazy state save, and
  // sets CONTROL.FPCA whatever FPCCR.ASPEN says. (On the cores without an FPU they are instructions
  // the core lacks, found with the others.)
  U32 FPCCR = _pSystem->GetFPCCR();
  _CheckFP = _HasFPU && (((_pSystem->GetCPACR() >> 20) & 3) != 3 || (FPCCR & SIM_FPCCR_LSPACT) ||
                         !(FPCCR & SIM_FPCCR_ASPEN));
  _UpdateSlowBlockFlags();
  if (_InEmulation) {
    // Written by the program: the hooks change once the emulator has returned, which the next block
    // asks for. (A stop asked for from a peripheral access would run the access again.)
    _CodeHookUpdatePending = true;
    _NextCheck = 0;
  } else {
    _UpdateCodeHook();
  }
}

void CSimTarget::_UpdateSlowBlockFlags() {
  // Multi-word accesses need word alignment whatever the state; the emulator's MRS of CONTROL shows a
  // bit the M4 doesn't have, which goes before the program reads it.
  // Loads, stores and divides under their traps are checked by the code hook instead, which costs far
  // less than running their blocks one instruction at a time (on ARMv6-M the alignment trap is always
  // on); only inside an IT block, where the hook can't stop, they go one at a time.
  // While the code hook is there anyway, it checks the multi-word accesses as well.
  bool Hook = _IsCodeHookWanted();
  U8 Flags = Hook ? BLOCK_IT_HOOK_CHECK : BLOCK_MULTI_ACCESS;
  Flags |= _aWatches.empty() ? 0 : BLOCK_IT_ACCESS;
  Flags |= _CheckFP ? BLOCK_FP : 0;
  Flags |= _HasFPU ? BLOCK_READS_CONTROL : 0;
  _SlowBlockFlags = Flags;
  // Which encodings the code hook looks at closer, by the high byte of their first halfword: loads and
  // stores of halfwords and words (and bytes, which the closer look lets pass), the divides, LDM, STM,
  // LDRD and STRD (and the rest of their encoding space, which it lets pass too).
  std::fill(std::begin(_aHookCheckByHighByte), std::end(_aHookCheckByHighByte), false);
  auto Mark = [this](U32 Lo, U32 Hi) {
    for (U32 b = Lo; b <= Hi; b++) {
      _aHookCheckByHighByte[b] = true;
    }
  };
  if (_CheckUnaligned) {
    Mark(0x50, 0x6F);
    Mark(0x80, 0x8F);
    Mark(0xF8, 0xF9);
  }
  if (_CheckDivide) {
    Mark(0xFB, 0xFB);
  }
  if (Hook) {
    Mark(0xC0, 0xCF);
    Mark(0xE8, 0xE9);
  }
}

bool CSimTarget::_IsCodeHookWanted() const {
  return _TraceOn || !_aWatches.empty() || _CheckUnaligned || _CheckDivide || _CheckMultiAccessByHook;
}

bool CSimTarget::_CheckBeforeStep(U32 PC, bool* pFaulted) {
  *pFaulted = false;
  U32 XPSR = _Reg(UC_ARM_REG_XPSR);
  U32 IT = SIM_ITStateFromXPSR(XPSR);
  if (IT != 0 && !SIM_ConditionPassed(IT >> 4, XPSR)) {
    return true;  // an IT block's instruction whose condition fails does nothing, and can't fault
  }
  U32 Bits = _InstructionFault(PC);
  if (Bits == 0) {
    return true;
  }
  *pFaulted = true;
  const char* sWhy = Bits == SIM_CFSR_NOCP        ? "floating-point instruction without access"
                     : Bits == SIM_CFSR_DIVBYZERO ? "division by zero"
                                                  : "unaligned access";
  return _RaiseUsageFault(PC, Bits, sWhy);
}

bool CSimTarget::_FPAccessAllowed() {
  if (!_HasFPU) {
    return false;
  }
  U32 CP10 = (_pSystem->GetCPACR() >> 20) & 3;
  if (CP10 == 3) {
    return true;
  }
  bool Privileged = (_Reg(UC_ARM_REG_XPSR) & 0x1FF) != 0 || !(_Reg(UC_ARM_REG_CONTROL) & 1);
  return CP10 == 1 && Privileged;
}

U32 CSimTarget::_InstructionFault(U32 PC) {
  U8 p[4] = {};
  if (uc_mem_read(_pUc, PC, p, 2) != UC_ERR_OK) {
    return 0;  // the fetch itself faults
  }
  if (SIM_InstSize(U16(p[0] | p[1] << 8)) == 4 && uc_mem_read(_pUc, PC + 2, p + 2, 2) != UC_ERR_OK) {
    return 0;
  }
  U32 H0 = U32(p[0]) | U32(p[1]) << 8;
  auto Reg = [this, PC](U32 n) { return n == 15 ? PC + 4 : _Reg(_UcCoreReg(n)); };
  U32 Fault = 0;
  if ((H0 >> 11) < 0x1D) {
    // 16-bit encodings.
    switch (H0 >> 12) {
      case 0xB:  // PUSH and POP: the stack pointer must be word aligned
        if ((H0 & 0x0600) == 0x0400 && (Reg(13) & 3)) {
          Fault = SIM_CFSR_UNALIGNED;
        }
        break;
      case 0xC:  // LDMIA, STMIA
        if (Reg((H0 >> 8) & 7) & 3) {
          Fault = SIM_CFSR_UNALIGNED;
        }
        break;
      case 0x5: {  // register offset: STR, STRH, STRB, LDRSB, LDR, LDRH, LDRB, LDRSH
        static const U8 aSize[8] = {4, 2, 1, 1, 4, 2, 1, 2};
        U32 Size = aSize[(H0 >> 9) & 7];
        if (_CheckUnaligned && Size > 1 && ((Reg((H0 >> 3) & 7) + Reg((H0 >> 6) & 7)) & (Size - 1))) {
          Fault = SIM_CFSR_UNALIGNED;
        }
        break;
      }
      case 0x6:  // STR, LDR with a word-scaled offset
      case 0x9:  // the same relative to SP
        if (_CheckUnaligned && (Reg((H0 >> 12) == 9 ? 13 : (H0 >> 3) & 7) & 3)) {
          Fault = SIM_CFSR_UNALIGNED;
        }
        break;
      case 0x8:  // STRH, LDRH with a halfword-scaled offset
        if (_CheckUnaligned && (Reg((H0 >> 3) & 7) & 1)) {
          Fault = SIM_CFSR_UNALIGNED;
        }
        break;
      default:
        break;
    }
  } else {
    U32 H1 = U32(p[2]) | U32(p[3]) << 8;
    if ((H0 & 0xFE40) == 0xE800) {
      // LDM, STM (increment after, decrement before)
      U32 Op = (H0 >> 7) & 3;
      if ((Op == 1 || Op == 2) && (Reg(H0 & 0xF) & 3)) {
        Fault = SIM_CFSR_UNALIGNED;
      }
    } else if ((H0 & 0xFE40) == 0xE840 && ((H0 & 0x0120) != 0)) {
      // LDRD, STRD (immediate, literal); P:W of zero are the exclusive and table branch forms.
      U32 Base = (H0 & 0xF) == 15 ? (PC + 4) & ~3u : Reg(H0 & 0xF);
      U32 Offset = (H1 & 0xFF) * 4;
      U32 Addr = (H0 & 0x100) ? ((H0 & 0x80) ? Base + Offset : Base - Offset) : Base;
      if (Addr & 3) {
        Fault = SIM_CFSR_UNALIGNED;
      }
    } else if ((H0 & 0xFE00) == 0xF800 && _CheckUnaligned) {
      // Single loads and stores.
      U32 Size = 1u << ((H0 >> 5) & 3);
      U32 Rn = H0 & 0xF, Rt = (H1 >> 12) & 0xF;
      bool Load = (H0 & 0x10) != 0;
      bool Hint = Load && Rt == 15 && Size < 4;  // PLD, PLI
      U32 Addr = 0;
      bool Known = true;
      if (Rn == 15 && Load) {
        U32 Base = (PC + 4) & ~3u;
        Addr = (H0 & 0x80) ? Base + (H1 & 0xFFF) : Base - (H1 & 0xFFF);
      } else if (H0 & 0x80) {
        Addr = Reg(Rn) + (H1 & 0xFFF);
      } else if ((H1 & 0x0FC0) == 0) {
        Addr = Reg(Rn) + (Reg(H1 & 0xF) << ((H1 >> 4) & 3));
      } else if (H1 & 0x0800) {
        U32 Imm = H1 & 0xFF;
        U32 Offset = (H1 & 0x200) ? Imm : U32(-I32(Imm));
        Addr = (H1 & 0x400) ? Reg(Rn) + Offset : Reg(Rn);
      } else {
        Known = false;
      }
      if (Known && !Hint && Size > 1 && Size <= 4 && (Addr & (Size - 1))) {
        Fault = SIM_CFSR_UNALIGNED;
      }
    } else if ((H0 & 0xFFD0) == 0xFB90 && (H1 & 0xF0F0) == 0xF0F0 && _CheckDivide) {
      // SDIV, UDIV
      if (Reg(H1 & 0xF) == 0) {
        Fault = SIM_CFSR_DIVBYZERO;
      }
    } else if (H0 == 0xF3EF && (H1 & 0xF0FF) == 0x8014) {
      // MRS Rd, CONTROL. The emulator sets a security-extension bit (SFPA, bit 3) along with FPCA, which
      // the core has not: it goes before the program can read it.
      U32 Control = _Reg(UC_ARM_REG_CONTROL);
      if (Control & 8) {
        _SetReg(UC_ARM_REG_CONTROL, Control & ~8u);
      }
    } else if ((H0 & 0xEC00) == 0xEC00 && ((H1 >> 9) & 7) == 5) {
      // Coprocessor space with coprocessor 10 or 11: the floating-point instructions.
      if (_CheckFP && !_FPAccessAllowed()) {
        if (_Core != PROBE_CORE_CORTEX_M0) {
          Fault = SIM_CFSR_NOCP;
        }
      } else if (_HasFPU) {
        if (_pSystem->GetFPCCR() & SIM_FPCCR_LSPACT) {
          _SaveLazyFP();
        }
        // Without ASPEN an FP instruction leaves CONTROL.FPCA as it is; the emulator sets it always.
        _FPCAStaysClear = !(_pSystem->GetFPCCR() & SIM_FPCCR_ASPEN) && !(_Reg(UC_ARM_REG_CONTROL) & 4);
      }
    }
  }
  return Fault;
}

void CSimTarget::_CoreReset() {
  _pSystem->Reset();
  U32 aVector[2] = {0, 0};
  uc_mem_read(_pUc, SIM_FLASH_ADDR, aVector, sizeof(aVector));
  _SetReg(UC_ARM_REG_APSR_NZCVQG, 0);  // an xPSR write leaves the GE flags of the DSP instructions alone
  _SetReg(UC_ARM_REG_XPSR, 1u << 24);
  _SetReg(UC_ARM_REG_CONTROL, 0);
  _SetReg(UC_ARM_REG_MSP, aVector[0] & ~3u);
  _SetReg(UC_ARM_REG_PSP, 0);
  for (int r = UC_ARM_REG_R0; r <= UC_ARM_REG_R12; r++) {
    _SetReg(r, 0);
  }
  _SetReg(UC_ARM_REG_LR, 0xFFFFFFFFu);
  _SetReg(UC_ARM_REG_PRIMASK, 0);
  if (_Core != PROBE_CORE_CORTEX_M0) {
    _SetReg(UC_ARM_REG_BASEPRI, 0);
    _SetReg(UC_ARM_REG_FAULTMASK, 0);
  }
  if (_HasFPU) {
    for (int r = 0; r < 32; r++) {
      _SetReg(UC_ARM_REG_S0 + r, 0);
    }
    _SetReg(UC_ARM_REG_FPSCR, 0);
  }
  _SetReg(UC_ARM_REG_PC, aVector[1] & ~1u);
  _ClearITPending();
  _CheckPending = false;
  _WatchHit = false;
  _HaltPending = false;
  _UpdateInstructionChecks();
  _UpdateNextEvent();
}

void CSimTarget::OnSystemResetRequest() {
  _ResetRequested = true;
  _NextCheck = 0;
}

void CSimTarget::OnDebugHaltRequest(bool HaltNow) {
  if (HaltNow) {
    // Written by the program itself: stop before the next block.
    _HaltPending = _InEmulation;
    _NextCheck = 0;
    Halt();
  } else if (!_Running) {
    Go(false);
  }
}

void CSimTarget::OnStimulusWrite(U32 Port, U32 Value, U32 Size) {
  if (!_pStreams || Port >= U32(PROBE_STREAMS::kNumStimulusPorts)) {
    return;
  }
  U8 ac[5] = {};
  Size = std::min<U32>(Size, 4);
  for (U32 i = 0; i < Size; i++) {
    ac[1 + i] = U8(Value >> (8 * i));
  }
  _pStreams->aStimulus[Port].Push(ac + 1, Size);
  // The same data as an ITM instrumentation packet: header with port and size code, then payload.
  ac[0] = U8((Port << 3) | (Size == 1 ? 1 : (Size == 2 ? 2 : 3)));
  _pStreams->RawSWO.Push(ac, Size + 1);
}

// ---- Run control ----

void CSimTarget::_SetHalted(PROBE_HALT_REASON Reason) {
  if (_TraceOn) {
    _FlushITPending(_Reg(UC_ARM_REG_PC));
  }
  _Running = false;
  _HaltReason = Reason;
  _pSystem->IsHaltedForDebugger = true;
}

void CSimTarget::_SetRunning() {
  if (_TraceOn && _TraceCount > 0) {
    _aTrace[_TraceHead++ & (kTraceCapacity - 1)] = kTraceGapMarker;
    _TraceCount = std::min<U64>(_TraceCount + 1, kTraceCapacity);
  }
  _Running = true;
  _RunStartCycles = _Cycles;
  _RunStartTime = std::chrono::steady_clock::now();
  _pSystem->IsHaltedForDebugger = false;
  _WakeUp.notify_all();
}

int CSimTarget::Halt() {
  if (_FaultHaltTimeout) {
    _FaultHaltTimeout = false;
    return -1;
  }
  if (_Running) {
    _SetHalted(PROBE_HALT_REQUEST);
  }
  return 0;
}

int CSimTarget::IsHalted() {
  if (_FaultConnLost) {
    return -1;
  }
  return _Running ? 0 : 1;
}

int CSimTarget::Go(bool StepOverBreakpoint) {
  if (_Running) {
    return 0;
  }
  _PassPC = StepOverBreakpoint ? _Reg(UC_ARM_REG_PC) : kNoAddr;
  _SetRunning();
  return 0;
}

int CSimTarget::Step() {
  if (_FaultStepFail) {
    _FaultStepFail = false;
    return -1;
  }
  if (_Running) {
    return -1;
  }
  // A step executes the instruction at the PC even when a breakpoint sits on it.
  _Run(1, true);
  if (_Running) {
    _SetHalted(PROBE_HALT_STEP);
  }
  return 0;
}

int CSimTarget::Reset(int Type) {
  if (Type != 0) {
    PROBE_Warn("Reset: reset type %d is not supported by the simulator, using type 0 (system reset)", Type);
  }
  _Running = false;
  _CoreReset();
  if (_FaultResetNoHalt) {
    _FaultResetNoHalt = false;
    _SetRunning();
    return 0;
  }
  _SetHalted(PROBE_HALT_REQUEST);
  return 0;
}

// ---- Registers and memory ----

U32 CSimTarget::_Reg(int UcReg) {
  U32 v = 0;
  uc_reg_read(_pUc, UcReg, &v);
  return v;
}

void CSimTarget::_SetReg(int UcReg, U32 Value) {
  if (UcReg == UC_ARM_REG_PC) {
    Value |= 1;  // the emulator takes the Thumb state (xPSR.T) from bit 0 of a PC write
  }
  uc_reg_write(_pUc, UcReg, &Value);
}

int CSimTarget::ReadReg(U32 Index, U32* pValue) {
  if (Index >= PROBE_NUM_REGS || !pValue) {
    return -1;
  }
  if (_Core == PROBE_CORE_CORTEX_M0 && (Index == PROBE_REG_BASEPRI || Index == PROBE_REG_FAULTMASK)) {
    return -1;
  }
  if (Index >= PROBE_REG_S0 && !_HasFPU) {
    return -1;
  }
  *pValue = _Reg(kUcRegs[Index]);
  if (Index == PROBE_REG_CONTROL) {
    *pValue &= _ControlMask();
  }
  return 0;
}

int CSimTarget::WriteReg(U32 Index, U32 Value) {
  if (Index >= PROBE_NUM_REGS) {
    return -1;
  }
  if (_Core == PROBE_CORE_CORTEX_M0 && (Index == PROBE_REG_BASEPRI || Index == PROBE_REG_FAULTMASK)) {
    return -1;
  }
  if (Index >= PROBE_REG_S0 && !_HasFPU) {
    return -1;
  }
  if (Index == PROBE_REG_PC) {
    Value &= ~1u;
  }
  if (Index == PROBE_REG_XPSR) {
    _SetReg(UC_ARM_REG_APSR_NZCVQG, Value);  // the emulator's xPSR write leaves the GE flags out
  }
  if (Index == PROBE_REG_CONTROL) {
    Value &= _ControlMask();
  }
  _SetReg(kUcRegs[Index], Value);
  if (Index == PROBE_REG_PRIMASK || Index == PROBE_REG_BASEPRI || Index == PROBE_REG_FAULTMASK ||
      Index == PROBE_REG_XPSR) {
    _CheckPending = _pSystem->AnyPending();
  }
  return 0;
}

int CSimTarget::ReadMem(U32 Addr, U32 NumBytes, U8* pData) {
  U32 Done = 0;
  while (Done < NumBytes) {
    U32 a = Addr + Done;
    if (a >= SIM_PPB_BASE && a - SIM_PPB_BASE < SIM_PPB_SIZE) {
      U32 Off = a - SIM_PPB_BASE;
      bool Word = (Off & 3) == 0 && NumBytes - Done >= 4;
      U32 Size = Word ? 4 : 1;
      U32 v = _pSystem->Read(Off, Size, true);
      for (U32 i = 0; i < Size; i++) {
        pData[Done + i] = U8(v >> (8 * i));
      }
      Done += Size;
      continue;
    }
    U64 End;
    if (a < SIM_FLASH_ADDR + SIM_FLASH_SIZE) {
      End = SIM_FLASH_ADDR + SIM_FLASH_SIZE;
    } else if (a >= SIM_RAM_ADDR && a - SIM_RAM_ADDR < SIM_RAM_SIZE) {
      End = U64(SIM_RAM_ADDR) + SIM_RAM_SIZE;
    } else {
      break;  // no memory here
    }
    U32 n = U32(std::min<U64>(End - a, NumBytes - Done));
    if (uc_mem_read(_pUc, a, pData + Done, n) != UC_ERR_OK) {
      break;
    }
    Done += n;
  }
  return Done ? int(Done) : -1;
}

int CSimTarget::WriteMem(U32 Addr, U32 NumBytes, const U8* pData) {
  U32 Done = 0;
  while (Done < NumBytes) {
    U32 a = Addr + Done;
    if (a >= SIM_PPB_BASE && a - SIM_PPB_BASE < SIM_PPB_SIZE) {
      U32 Off = a - SIM_PPB_BASE;
      bool Word = (Off & 3) == 0 && NumBytes - Done >= 4;
      U32 Size = Word ? 4 : 1;
      U32 v = 0;
      for (U32 i = 0; i < Size; i++) {
        v |= U32(pData[Done + i]) << (8 * i);
      }
      _pSystem->Write(Off, Size, v, true);
      Done += Size;
      continue;
    }
    U64 End;
    if (a < SIM_FLASH_ADDR + SIM_FLASH_SIZE) {
      End = SIM_FLASH_ADDR + SIM_FLASH_SIZE;
    } else if (a >= SIM_RAM_ADDR && a - SIM_RAM_ADDR < SIM_RAM_SIZE) {
      End = U64(SIM_RAM_ADDR) + SIM_RAM_SIZE;
    } else {
      break;
    }
    U32 n = U32(std::min<U64>(End - a, NumBytes - Done));
    if (uc_mem_write(_pUc, a, pData + Done, n) != UC_ERR_OK) {
      break;
    }
    // Translations of code that already ran must go, or a new download would run the old code: the
    // emulator drops them itself only for writable pages, and flash is mapped read-only.
    uc_ctl_remove_cache(_pUc, U64(a), U64(a) + n);
    _OnCodeWritten(a, n);
    if (!_aInstKind.empty()) {
      for (U32 i = 0; i < n; i += 2) {
        I64 Slot = _CounterSlot(a + i);
        if (Slot >= 0) {
          _aInstKind[size_t(Slot)] = 0;
        }
      }
    }
    Done += n;
  }
  return Done ? int(Done) : -1;
}

void CSimTarget::_OnCodeWritten(U32 Addr, U32 NumBytes) {
  // The block cache and the instructions known to be missing from the core describe the old bytes.
  if (Addr < _CodeHi && Addr + NumBytes > _CodeLo) {
    std::fill(_aBlockCache.begin(), _aBlockCache.end(), BLOCK_ENTRY{kNoAddr, 0, 0, 0});
    _CodeLo = kNoAddr;
    _CodeHi = 0;
  }
  auto It = _aFaultExits.lower_bound(Addr >= 4 ? Addr - 3 : 0);
  bool Changed = false;
  while (It != _aFaultExits.end() && It->first < Addr + NumBytes) {
    _InvalidateAround(It->first);
    It = _aFaultExits.erase(It);
    Changed = true;
  }
  if (Changed) {
    _ApplyExits(kNoAddr, kNoAddr);
  }
}

// ---- Breakpoints ----

bool CSimTarget::_IsBreakpoint(U32 Addr) const {
  for (const auto& Bp : _aBreakpoints) {
    if (Bp.first == Addr) {
      return true;
    }
  }
  return false;
}

int CSimTarget::SetBreakpoint(U32 Addr, bool Hardware) {
  // Software breakpoints are not patched into memory: both kinds are exits of the emulator, so reads
  // show the program's own bytes and flash needs no reprogramming.
  Addr &= ~1u;
  for (auto& Bp : _aBreakpoints) {
    if (Bp.first == Addr) {
      Bp.second++;
      return 0;
    }
  }
  _aBreakpoints.emplace_back(Addr, 1);
  _ApplyExits(kNoAddr, kNoAddr);
  _InvalidateAround(Addr);
  return 0;
}

int CSimTarget::ClearBreakpoint(U32 Addr, bool Hardware) {
  Addr &= ~1u;
  for (size_t i = 0; i < _aBreakpoints.size(); i++) {
    if (_aBreakpoints[i].first == Addr) {
      if (--_aBreakpoints[i].second == 0) {
        _aBreakpoints.erase(_aBreakpoints.begin() + long(i));
        _ApplyExits(kNoAddr, kNoAddr);
        _InvalidateAround(Addr);
      }
      return 0;
    }
  }
  return -1;
}

void CSimTarget::_UpdateCodeHook() {
  // The per-instruction hook costs a fifth of the speed: only trace and data breakpoints need it.
  _UpdateSlowBlockFlags();
  bool Wanted = _IsCodeHookWanted();
  if (Wanted && _hCodeHook == 0) {
    uc_hook h;
    if (uc_hook_add(_pUc, &h, UC_HOOK_CODE, reinterpret_cast<void*>(SIM_HOOKS::OnCode), this, 1, 0) ==
        UC_ERR_OK) {
      _hCodeHook = h;
      _DropAllTranslations();  // translations hold the hooks that existed when they were made
    }
  } else if (!Wanted && _hCodeHook != 0) {
    uc_hook_del(_pUc, _hCodeHook);
    _hCodeHook = 0;
    _DropAllTranslations();
  }
}

void CSimTarget::_UpdateMemHooks() {
  _UpdateCodeHook();
  _UpdateSlowBlockFlags();
  // The memory hooks slow every access down, so they exist only while a data breakpoint does.
  if (!_aWatches.empty() && _hMemHook == 0) {
    uc_hook h;
    if (uc_hook_add(_pUc, &h, UC_HOOK_MEM_WRITE | UC_HOOK_MEM_READ_AFTER,
                    reinterpret_cast<void*>(SIM_HOOKS::OnMemAccess), this, 1, 0) == UC_ERR_OK) {
      _hMemHook = h;
      _DropAllTranslations();
    }
  } else if (_aWatches.empty() && _hMemHook != 0) {
    uc_hook_del(_pUc, _hMemHook);
    _hMemHook = 0;
    _DropAllTranslations();
  }
}

int CSimTarget::SetWatchpoint(const PROBE_WATCH& Watch) {
  if (int(_aWatches.size()) >= _NumWPUnits) {
    return -1;
  }
  _aWatches.push_back(Watch);
  _UpdateMemHooks();
  return 0;
}

int CSimTarget::ClearWatchpoint(const PROBE_WATCH& Watch) {
  for (size_t i = 0; i < _aWatches.size(); i++) {
    const PROBE_WATCH& W = _aWatches[i];
    if (W.Addr == Watch.Addr && W.AddrMask == Watch.AddrMask && W.Data == Watch.Data &&
        W.DataMask == Watch.DataMask && W.Access == Watch.Access && W.AccessMask == Watch.AccessMask) {
      _aWatches.erase(_aWatches.begin() + long(i));
      _UpdateMemHooks();
      return 0;
    }
  }
  return -1;
}

// ---- Commands ----

int CSimTarget::ExecCommand(const std::string& sKey, const std::string& sValue, std::string& sOut) {
  std::string Key = sKey, Value = sValue;
  for (char& c : Key) {
    c = char(tolower(U8(c)));
  }
  for (char& c : Value) {
    c = char(tolower(U8(c)));
  }
  if (Key == "simfault") {
    if (Value == "connlost") {
      _FaultConnLost = true;
    } else if (Value == "halttimeout") {
      _FaultHaltTimeout = true;
    } else if (Value == "resetnohalt") {
      _FaultResetNoHalt = true;
    } else if (Value == "stepfail") {
      _FaultStepFail = true;
    } else if (Value == "verifyerror") {
      _FaultVerify = true;
    } else if (Value == "eraseerror") {
      _FaultErase = true;
    } else if (Value == "none") {
      _FaultConnLost = _FaultHaltTimeout = _FaultResetNoHalt = _FaultStepFail = _FaultVerify = _FaultErase =
          false;
    } else {
      sOut = "SimFault: unknown fault \"" + sValue +
             "\" (ConnLost, HaltTimeout, ResetNoHalt, StepFail, VerifyError, EraseError, None)";
      return -1;
    }
    return 0;
  }
  if (Key == "simresume") {
    return Go(true);
  }
  if (Key == "simbpunits" || Key == "simwpunits") {
    char* pEnd = nullptr;
    long n = strtol(sValue.c_str(), &pEnd, 10);
    int Max = Key == "simbpunits" ? 16 : 8;
    if (sValue.empty() || *pEnd || n < 0 || n > Max) {
      sOut = sKey + ": \"" + sValue + "\" is not a unit count from 0 to " + std::to_string(Max);
      return -1;
    }
    (Key == "simbpunits" ? _NumBPUnits : _NumWPUnits) = int(n);
    return 0;
  }
  if (Key == "simspeed") {
    if (Value != "max" && Value != "real") {
      sOut = "SimSpeed: \"" + sValue + "\" is neither max nor real";
      return -1;
    }
    _RealSpeed = Value == "real";
    _RunStartCycles = _Cycles;
    _RunStartTime = std::chrono::steady_clock::now();
    return 0;
  }
  return 1;
}

int CSimTarget::EndDownload(std::string& sError) {
  if (_FaultErase) {
    _FaultErase = false;
    sError = "erase error in flash sector at 0x00000000";
    return -1;
  }
  if (_FaultVerify) {
    _FaultVerify = false;
    sError = "verify error at 0x00000000";
    return -1;
  }
  return 0;
}

// ---- Streams ----

int CSimTarget::EnableSWO(U32 CpuHz, U32 SWOHz, U32 PortMask) {
  _SWOEnabled = true;
  _pSystem->SetSWOEnabled(true, PortMask);
  return 0;
}

int CSimTarget::DisableSWO(U32 PortMask) {
  _pSystem->SetSWOEnabled(false, PortMask);
  return 0;
}

int CSimTarget::StartTrace() {
  if (_aFetch.empty()) {
    _aFetch.assign(kCounterSlots, 0);
    _aSkip.assign(kCounterSlots, 0);
    _aInstKind.assign(kCounterSlots, 0);
  } else {
    std::fill(_aFetch.begin(), _aFetch.end(), 0);
    std::fill(_aSkip.begin(), _aSkip.end(), 0);
    std::fill(_aInstKind.begin(), _aInstKind.end(), 0);
  }
  _TotalFetch = _TotalSkip = 0;
  _TraceHead = _TraceCount = 0;
  _ClearITPending();
  _TraceOn = true;
  _UpdateCodeHook();
  return 0;
}

int CSimTarget::StopTrace() {
  _TraceOn = false;
  _UpdateCodeHook();
  return 0;
}

int CSimTarget::ReadTrace(U32* paItems, U32 Cnt) {
  // Newest first. What is read is gone, and with it everything older: the next read starts where the
  // program went on.
  U32 n = U32(std::min<U64>(Cnt, _TraceCount));
  for (U32 i = 0; i < n; i++) {
    paItems[i] = _aTrace[(_TraceHead - 1 - i) & (kTraceCapacity - 1)];
  }
  _TraceCount = 0;
  return int(n);
}

int CSimTarget::GetInstStats(U64* paOut, U32 Addr, U32 NumItems) {
  if (_aFetch.empty()) {
    std::fill(paOut, paOut + 2 * (size_t(NumItems) + 1), 0);
    return 0;
  }
  for (U32 i = 0; i < NumItems; i++) {
    I64 Slot = _CounterSlot(Addr + 2 * i);
    paOut[i] = Slot >= 0 ? _aFetch[size_t(Slot)] : 0;
    paOut[NumItems + 1 + i] = Slot >= 0 ? _aSkip[size_t(Slot)] : 0;
  }
  paOut[NumItems] = _TotalFetch;
  paOut[2 * NumItems + 1] = _TotalSkip;
  return 0;
}

void CSimTarget::_RecordInstruction(U32 Addr, bool Skipped, I64 Slot) {
  _aTrace[_TraceHead++ & (kTraceCapacity - 1)] = Addr;
  if (_TraceCount < kTraceCapacity) {
    _TraceCount++;
  }
  _TotalFetch++;
  _TotalSkip += Skipped ? 1 : 0;
  if (Slot >= 0) {
    _aFetch[size_t(Slot)]++;
    _aSkip[size_t(Slot)] += Skipped ? 1 : 0;
  }
}

void CSimTarget::_ClearITPending() {
  _aITPending.clear();
  _ITPendingHead = 0;
}

void CSimTarget::_FlushITPending(U32 PC) {
  // Halted inside an IT block: the instructions of the block before the PC that got no call were
  // passed over with their condition failing.
  while (_ITPendingHead < _aITPending.size() && _aITPending[_ITPendingHead] < PC &&
         PC - _aITPending[_ITPendingHead] < 16) {
    U32 Addr = _aITPending[_ITPendingHead++];
    _RecordInstruction(Addr, true, _CounterSlot(Addr));
  }
}

void CSimTarget::_CountInstruction(U32 Addr) {
  // The emulator calls no hook for an instruction of an IT block whose condition fails: the block's
  // instructions are known from its IT instruction, and those passed over count as skipped.
  bool InITBlock = false;
  if (!_aITPending.empty()) {
    while (_ITPendingHead < _aITPending.size()) {
      U32 Next = _aITPending[_ITPendingHead++];
      if (Next == Addr) {
        InITBlock = true;
        break;
      }
      _RecordInstruction(Next, true, _CounterSlot(Next));
    }
    if (_ITPendingHead >= _aITPending.size()) {
      _ClearITPending();
    }
  }
  I64 Slot = _CounterSlot(Addr);
  U8 Kind = KIND_PLAIN;
  if (Slot >= 0) {
    U8& CachedKind = _aInstKind[size_t(Slot)];
    if (CachedKind == 0) {
      U8 ac[4] = {};
      uc_mem_read(_pUc, Addr, ac, 4);
      U16 H0 = U16(ac[0] | ac[1] << 8), H1 = U16(ac[2] | ac[3] << 8);
      if (SIM_ITStateOf(H0) != 0) {
        CachedKind = KIND_IT;
      } else if ((H0 & 0xF000) == 0xD000 && ((H0 >> 8) & 0xF) < 0xE) {
        CachedKind = U8(KIND_COND_BRANCH | (((H0 >> 8) & 0xF) << 4));
      } else if ((H0 & 0xF800) == 0xF000 && (H1 & 0xD000) == 0x8000 && ((H0 >> 6) & 0xF) < 0xE) {
        CachedKind = U8(KIND_COND_BRANCH | (((H0 >> 6) & 0xF) << 4));
      } else {
        CachedKind = KIND_PLAIN;
      }
    }
    Kind = CachedKind;
  }
  bool Skipped = !InITBlock && (Kind & 0xF) == KIND_COND_BRANCH &&
                 !SIM_ConditionPassed(U32(Kind >> 4), _Reg(UC_ARM_REG_APSR));
  _RecordInstruction(Addr, Skipped, Slot);
  if ((Kind & 0xF) == KIND_IT) {
    U16 aBlock[9] = {};
    uc_mem_read(_pUc, Addr, aBlock, sizeof(aBlock));
    U32 IT = SIM_ITStateOf(aBlock[0]);
    U32 Num = (IT & 1) ? 4 : ((IT & 2) ? 3 : ((IT & 4) ? 2 : 1));
    _ClearITPending();
    U32 Off = 2;
    for (U32 k = 0; k < Num && Off < sizeof(aBlock); k++) {
      _aITPending.push_back(Addr + Off);
      Off += SIM_InstSize(aBlock[Off / 2]);
    }
  }
}

int CSimTarget::StartHSS(const std::vector<std::pair<U32, U32>>& aBlocks, int Interval_us) {
  std::vector<U8> aProbe;
  for (const auto& B : aBlocks) {
    aProbe.resize(B.second);
    if (ReadMem(B.first, B.second, aProbe.data()) != int(B.second)) {
      PROBE_Error("HSS_Start: block at 0x%08X, %u bytes, is not readable memory", B.first, B.second);
      return -1;
    }
  }
  _aHSSBlocks = aBlocks;
  _HSSInterval = std::max<U64>(1, U64(std::max(Interval_us, 1)) * _ClockHz / 1000000);
  _NextHSSSample = _Cycles + _HSSInterval;
  _HSSOn = true;
  _UpdateNextEvent();
  return 0;
}

int CSimTarget::StopHSS() {
  _HSSOn = false;
  _UpdateNextEvent();
  return 0;
}

void CSimTarget::_TakeHSSSample() {
  if (!_pStreams) {
    return;
  }
  U32 Stamp = U32(_Cycles * 1000000 / _ClockHz);  // microseconds of simulated time
  _aHSSSample.resize(4);
  memcpy(_aHSSSample.data(), &Stamp, 4);
  for (const auto& B : _aHSSBlocks) {
    size_t Pos = _aHSSSample.size();
    _aHSSSample.resize(Pos + B.second);
    if (ReadMem(B.first, B.second, &_aHSSSample[Pos]) != int(B.second)) {
      std::fill(_aHSSSample.begin() + long(Pos), _aHSSSample.end(), 0);
    }
  }
  _pStreams->HSS.Push(_aHSSSample.data(), _aHSSSample.size());
}
