#include "device/probe/SimSystem.h"

#include <algorithm>
#include <iterator>

namespace {

// Register offsets from 0xE0000000.
enum : U32 {
  ITM_STIM_END = 0x80,
  ITM_TER = 0xE00,
  ITM_TPR = 0xE40,
  ITM_TCR = 0xE80,
  DWT_CTRL = 0x1000,
  DWT_CYCCNT = 0x1004,
  SYST_CSR = 0xE010,
  SYST_RVR = 0xE014,
  SYST_CVR = 0xE018,
  SYST_CALIB = 0xE01C,
  NVIC_ISER = 0xE100,
  NVIC_ICER = 0xE180,
  NVIC_ISPR = 0xE200,
  NVIC_ICPR = 0xE280,
  NVIC_IABR = 0xE300,
  NVIC_IPR = 0xE400,
  NVIC_IPR_END = 0xE400 + SIM_NUM_IRQS,
  SCB_CPUID = 0xED00,
  SCB_ICSR = 0xED04,
  SCB_VTOR = 0xED08,
  SCB_AIRCR = 0xED0C,
  SCB_SCR = 0xED10,
  SCB_CCR = 0xED14,
  SCB_SHPR1 = 0xED18,
  SCB_SHPR_END = 0xED24,
  SCB_SHCSR = 0xED24,
  SCB_CFSR = 0xED28,
  SCB_HFSR = 0xED2C,
  SCB_MMFAR = 0xED34,
  SCB_BFAR = 0xED38,
  SCB_CPACR = 0xED88,
  FP_FPCCR = 0xEF34,
  FP_FPCAR = 0xEF38,
  FP_FPDSCR = 0xEF3C,
  NVIC_STIR = 0xEF00,
  DCB_DHCSR = 0xEDF0,
  DCB_DEMCR = 0xEDFC,
};

}  // namespace

CSimSystem::CSimSystem(ISimSystemHost* pHost, const SIM_CORE_TRAITS& Traits)
    : _pHost(pHost), _Traits(Traits), _PrioMask(U32(0xFF00 >> Traits.NumPriorityBits) & 0xFF) {
  Reset();
}

void CSimSystem::Reset() {
  std::fill(std::begin(_aPending), std::end(_aPending), false);
  std::fill(std::begin(_aActive), std::end(_aActive), false);
  std::fill(std::begin(_aPriority), std::end(_aPriority), 0);
  _IrqEnabled = 0;
  _SysTickCSR = _SysTickRVR = _StoppedCVR = 0;
  _NextSysTickZero = kNever;
  _VTOR = _PriGroup = _SCR = _SHCSR = _CFSR = _HFSR = _MMFAR = _BFAR = 0;
  // ARMv6-M traps every unaligned access and always aligns the stack; the bits read as one.
  _CCR = _Traits.IsV6M ? (SIM_CCR_STKALIGN | SIM_CCR_UNALIGN_TRP) : SIM_CCR_STKALIGN;
  _CPACR = _FPCAR = _FPDSCR = 0;
  _FPCCR = _Traits.HasFPU ? (SIM_FPCCR_ASPEN | SIM_FPCCR_LSPEN) : 0;
  _DWTCtrl = 0;
  _StoppedCycCnt = 0;
  _ITMTCR = _ITMTPR = 0;
  // TER and the SWO enable belong to the debugger's trace set-up and survive a system reset, as DEMCR
  // does: they live in the debug power domain.
}

int CSimSystem::GetPriority(U32 Exception) const {
  if (Exception == SIM_EXC_NMI) {
    return -2;
  }
  if (Exception == SIM_EXC_HARDFAULT) {
    return -1;
  }
  return Exception < SIM_NUM_EXCEPTIONS ? int(_aPriority[Exception] & _PrioMask) : 256;
}

void CSimSystem::SetPending(U32 Exception) {
  if (Exception < SIM_NUM_EXCEPTIONS) {
    _aPending[Exception] = true;
    _pHost->OnExceptionStateChanged();
  }
}

void CSimSystem::SetActive(U32 Exception, bool Active) {
  if (Exception < SIM_NUM_EXCEPTIONS) {
    _aActive[Exception] = Active;
    if (Active) {
      _aPending[Exception] = false;
    }
  }
}

U32 CSimSystem::GetHighestPending() const {
  U32 Best = 0;
  int BestPrio = 1000;
  for (U32 e = 1; e < SIM_NUM_EXCEPTIONS; e++) {
    if (!_aPending[e]) {
      continue;
    }
    if (e >= SIM_EXC_IRQ0 && !(_IrqEnabled & (1u << (e - SIM_EXC_IRQ0)))) {
      continue;
    }
    int Prio = GetPriority(e);
    if (Prio < BestPrio) {
      Best = e;
      BestPrio = Prio;
    }
  }
  return Best;
}

int CSimSystem::GetActivePriority() const {
  int Prio = 256;
  for (U32 e = 1; e < SIM_NUM_EXCEPTIONS; e++) {
    if (_aActive[e]) {
      Prio = std::min(Prio, GetPriority(e));
    }
  }
  return Prio;
}

bool CSimSystem::AnyPending() const {
  return GetHighestPending() != 0;
}

void CSimSystem::_RestartSysTick(U32 StartValue) {
  // The counter reloads on the cycle after it reads 0 and raises the tick when it reaches 0 again.
  if ((_SysTickCSR & 1) && _SysTickRVR != 0) {
    U64 Now = _pHost->GetCycles();
    _NextSysTickZero = StartValue ? Now + StartValue : Now + 1 + _SysTickRVR;
  } else {
    _NextSysTickZero = kNever;
  }
  _pHost->OnTimerChanged();
}

void CSimSystem::OnSysTickEvent() {
  _SysTickCSR |= 1u << 16;  // COUNTFLAG
  if (_SysTickCSR & 2) {
    SetPending(SIM_EXC_SYSTICK);
  }
  _NextSysTickZero = _SysTickRVR ? _NextSysTickZero + _SysTickRVR + 1 : kNever;
  _pHost->OnTimerChanged();
}

void CSimSystem::SetSWOEnabled(bool On, U32 PortMask) {
  if (On) {
    _SWOEnabled = true;
    _ITMTER |= PortMask;
    _ITMTCR |= 1u | (1u << 3);  // ITMENA, SWOENA
    _DEMCR |= 1u << 24;         // TRCENA
  } else {
    _ITMTER &= ~PortMask;
    if (_ITMTER == 0) {
      _SWOEnabled = false;
    }
  }
}

void CSimSystem::RecordFaultStatus(U32 CfsrBits) {
  if (!_Traits.IsV6M) {
    _CFSR |= CfsrBits;
  }
}

void CSimSystem::RecordBusFaultAddress(U32 Addr) {
  if (!_Traits.IsV6M) {
    _BFAR = Addr;
    _CFSR |= SIM_CFSR_BFARVALID;
  }
}

void CSimSystem::RecordForcedHardFault() {
  if (!_Traits.IsV6M) {
    _HFSR |= 1u << 30;
  }
}

U32 CSimSystem::_ReadSHCSR() const {
  // The active and pending bits mirror the exception state; only the enables are stored.
  U32 v = _SHCSR & (SIM_SHCSR_MEMFAULTENA | SIM_SHCSR_BUSFAULTENA | SIM_SHCSR_USGFAULTENA);
  const struct {
    U32 Exception;
    int ActiveBit, PendingBit;
  } aBits[] = {{SIM_EXC_MEMMANAGE, 0, 13}, {SIM_EXC_BUSFAULT, 1, 14}, {SIM_EXC_USAGEFAULT, 3, 12},
               {SIM_EXC_SVCALL, 7, 15},    {SIM_EXC_PENDSV, 10, -1},  {SIM_EXC_SYSTICK, 11, -1}};
  for (const auto& b : aBits) {
    if (_Traits.IsV6M && b.Exception != SIM_EXC_SVCALL) {
      continue;
    }
    if (_aActive[b.Exception] && !_Traits.IsV6M) {
      v |= 1u << b.ActiveBit;
    }
    if (b.PendingBit >= 0 && _aPending[b.Exception]) {
      v |= 1u << b.PendingBit;
    }
  }
  return v;
}

U32 CSimSystem::Read(U32 Offset, U32 Size, bool FromDebugger) {
  if (Offset >= NVIC_IPR && Offset < NVIC_IPR_END) {
    U32 v = 0;
    for (U32 i = 0; i < Size && Offset + i < NVIC_IPR_END; i++) {
      v |= U32(_aPriority[SIM_EXC_IRQ0 + Offset + i - NVIC_IPR]) << (8 * i);
    }
    return v;
  }
  if (Offset >= SCB_SHPR1 && Offset < SCB_SHPR_END) {
    U32 v = 0;
    for (U32 i = 0; i < Size && Offset + i < SCB_SHPR_END; i++) {
      v |= U32(_aPriority[4 + Offset + i - SCB_SHPR1]) << (8 * i);
    }
    return v;
  }
  U32 Word = _ReadWord(Offset & ~3u, FromDebugger);
  U32 Shift = 8 * (Offset & 3);
  U32 Mask = Size >= 4 ? 0xFFFFFFFFu : ((1u << (8 * Size)) - 1);
  return (Word >> Shift) & Mask;
}

void CSimSystem::Write(U32 Offset, U32 Size, U32 Value, bool FromDebugger) {
  if (Offset >= NVIC_IPR && Offset < NVIC_IPR_END) {
    for (U32 i = 0; i < Size && Offset + i < NVIC_IPR_END; i++) {
      _aPriority[SIM_EXC_IRQ0 + Offset + i - NVIC_IPR] = U8((Value >> (8 * i)) & _PrioMask);
    }
    _pHost->OnExceptionStateChanged();
    return;
  }
  if (Offset >= SCB_SHPR1 && Offset < SCB_SHPR_END) {
    for (U32 i = 0; i < Size && Offset + i < SCB_SHPR_END; i++) {
      U32 Exc = 4 + Offset + i - SCB_SHPR1;
      if (Exc == SIM_EXC_SVCALL || Exc == SIM_EXC_PENDSV || Exc == SIM_EXC_SYSTICK ||
          (Exc >= 4 && Exc <= 6)) {
        _aPriority[Exc] = U8((Value >> (8 * i)) & _PrioMask);
      }
    }
    _pHost->OnExceptionStateChanged();
    return;
  }
  if (Offset < ITM_STIM_END) {
    // Output needs the trace enable chain: ITMENA, the port's TER bit, and an SWO receiver.
    U32 Port = Offset / 4;
    if ((_ITMTCR & 1) && (_ITMTER & (1u << Port)) && _SWOEnabled) {
      _pHost->OnStimulusWrite(Port, Value, Size);
    }
    return;
  }
  U32 Shift = 8 * (Offset & 3);
  U32 Mask = Size >= 4 ? 0xFFFFFFFFu : (((1u << (8 * Size)) - 1) << Shift);
  _WriteWord(Offset & ~3u, Value << Shift, Mask, FromDebugger);
}

U32 CSimSystem::_ReadWord(U32 Offset, bool FromDebugger) {
  U64 Now = _pHost->GetCycles();
  if (Offset < ITM_STIM_END) {
    return 1;  // FIFOREADY: the port never blocks the target
  }
  switch (Offset) {
    case ITM_TER:
      return _ITMTER;
    case ITM_TPR:
      return _ITMTPR;
    case ITM_TCR:
      return _ITMTCR;
    case DWT_CTRL:
      return _DWTCtrl;
    case DWT_CYCCNT:
      return (_DWTCtrl & 1) ? U32(Now - _CycleBase) : _StoppedCycCnt;
    case SYST_CSR: {
      U32 v = _SysTickCSR;
      if (!FromDebugger) {
        _SysTickCSR &= ~(1u << 16);  // COUNTFLAG clears on read
      }
      return v;
    }
    case SYST_RVR:
      return _SysTickRVR;
    case SYST_CVR:
      if (_NextSysTickZero == kNever) {
        return _StoppedCVR;
      }
      return _NextSysTickZero > Now ? U32(std::min<U64>(_NextSysTickZero - Now, 0xFFFFFF)) : 0;
    case SYST_CALIB:
      return 1u << 31;  // no reference clock
    case NVIC_ISER:
    case NVIC_ICER:
      return _IrqEnabled;
    case NVIC_ISPR:
    case NVIC_ICPR: {
      U32 v = 0;
      for (U32 i = 0; i < SIM_NUM_IRQS; i++) {
        v |= _aPending[SIM_EXC_IRQ0 + i] ? (1u << i) : 0;
      }
      return v;
    }
    case NVIC_IABR: {
      U32 v = 0;
      for (U32 i = 0; i < SIM_NUM_IRQS; i++) {
        v |= _aActive[SIM_EXC_IRQ0 + i] ? (1u << i) : 0;
      }
      return v;
    }
    case SCB_CPUID:
      return _Traits.CpuId;
    case SCB_ICSR: {
      U32 v = _pHost->GetActiveException() & 0x1FF;
      if (!_Traits.IsV6M) {
        // RETTOBASE: no active exception besides the one running (or none at all).
        int NumActive = int(std::count(std::begin(_aActive), std::end(_aActive), true));
        v |= NumActive <= 1 ? (1u << 11) : 0;
      }
      v |= (GetHighestPending() & 0x1FF) << 12;
      v |= _aPending[SIM_EXC_PENDSV] ? (1u << 28) : 0;
      v |= _aPending[SIM_EXC_SYSTICK] ? (1u << 26) : 0;
      v |= AnyPending() ? (1u << 22) : 0;
      return v;
    }
    case SCB_VTOR:
      return _VTOR;
    case SCB_AIRCR:
      return 0xFA050000u | (_PriGroup << 8);
    case SCB_SCR:
      return _SCR;
    case SCB_CCR:
      return _CCR;
    case SCB_SHCSR:
      return _ReadSHCSR();
    case SCB_CFSR:
      return _Traits.IsV6M ? 0 : _CFSR;
    case SCB_HFSR:
      return _Traits.IsV6M ? 0 : _HFSR;
    case SCB_MMFAR:
      return _Traits.IsV6M ? 0 : _MMFAR;
    case SCB_BFAR:
      return _Traits.IsV6M ? 0 : _BFAR;
    case SCB_CPACR:
      return _CPACR;
    case FP_FPCCR:
      return _FPCCR;
    case FP_FPCAR:
      return _FPCAR;
    case FP_FPDSCR:
      return _FPDSCR;
    case DCB_DHCSR: {
      U32 v = DebuggerConnected ? 1u : 0u;
      if (IsHaltedForDebugger) {
        v |= (1u << 1) | (1u << 16) | (1u << 17);  // C_HALT, S_REGRDY, S_HALT
      }
      return v;
    }
    case DCB_DEMCR:
      return _DEMCR;
    default:
      return 0;
  }
}

void CSimSystem::_WriteWord(U32 Offset, U32 Value, U32 Mask, bool FromDebugger) {
  U32 Set = Value & Mask;
  auto Merge = [&](U32 Old) { return (Old & ~Mask) | Set; };
  switch (Offset) {
    case ITM_TER:
      _ITMTER = Merge(_ITMTER);
      break;
    case ITM_TPR:
      _ITMTPR = Merge(_ITMTPR);
      break;
    case ITM_TCR:
      _ITMTCR = Merge(_ITMTCR);
      break;
    case DWT_CTRL: {
      U32 New = Merge(_DWTCtrl);
      if ((New & 1) && !(_DWTCtrl & 1)) {
        _CycleBase = _pHost->GetCycles() - _StoppedCycCnt;
      } else if (!(New & 1) && (_DWTCtrl & 1)) {
        _StoppedCycCnt = U32(_pHost->GetCycles() - _CycleBase);
      }
      _DWTCtrl = New;
      break;
    }
    case DWT_CYCCNT: {
      U32 v = Merge(_DWTCtrl & 1 ? U32(_pHost->GetCycles() - _CycleBase) : _StoppedCycCnt);
      _StoppedCycCnt = v;
      _CycleBase = _pHost->GetCycles() - v;
      break;
    }
    case SYST_CSR: {
      U32 Old = _SysTickCSR;
      _SysTickCSR = (Merge(Old) & 7) | (Old & (1u << 16));
      if ((_SysTickCSR & 1) != (Old & 1)) {
        if (_SysTickCSR & 1) {
          _RestartSysTick(_StoppedCVR);
        } else {
          _StoppedCVR = _ReadWord(SYST_CVR, true);
          _NextSysTickZero = kNever;
          _pHost->OnTimerChanged();
        }
      }
      break;
    }
    case SYST_RVR:
      _SysTickRVR = Merge(_SysTickRVR) & 0xFFFFFF;
      break;
    case SYST_CVR:
      // Any write clears the counter and COUNTFLAG.
      _SysTickCSR &= ~(1u << 16);
      _StoppedCVR = 0;
      if (_SysTickCSR & 1) {
        _RestartSysTick(0);
      }
      break;
    case NVIC_ISER:
      _IrqEnabled |= Set;
      _pHost->OnExceptionStateChanged();
      break;
    case NVIC_ICER:
      _IrqEnabled &= ~Set;
      break;
    case NVIC_ISPR:
      for (U32 i = 0; i < SIM_NUM_IRQS; i++) {
        if (Set & (1u << i)) {
          SetPending(SIM_EXC_IRQ0 + i);
        }
      }
      break;
    case NVIC_STIR:
      // Software trigger (ARMv7-M only): the interrupt whose number is written becomes pending.
      if (!_Traits.IsV6M && (Set & 0x1FF) < SIM_NUM_IRQS) {
        SetPending(SIM_EXC_IRQ0 + (Set & 0x1FF));
      }
      break;
    case NVIC_ICPR:
      for (U32 i = 0; i < SIM_NUM_IRQS; i++) {
        if (Set & (1u << i)) {
          _aPending[SIM_EXC_IRQ0 + i] = false;
        }
      }
      break;
    case SCB_ICSR:
      if (Set & (1u << 31)) {
        SetPending(SIM_EXC_NMI);
      }
      if (Set & (1u << 28)) {
        SetPending(SIM_EXC_PENDSV);
      }
      if (Set & (1u << 27)) {
        _aPending[SIM_EXC_PENDSV] = false;
      }
      if (Set & (1u << 26)) {
        SetPending(SIM_EXC_SYSTICK);
      }
      if (Set & (1u << 25)) {
        _aPending[SIM_EXC_SYSTICK] = false;
      }
      break;
    case SCB_VTOR:
      if (!_Traits.IsV6M) {
        _VTOR = Merge(_VTOR) & 0xFFFFFF80u;
      }
      break;
    case SCB_AIRCR:
      if (Mask == 0xFFFFFFFFu && (Value >> 16) == 0x05FA) {
        _PriGroup = (Value >> 8) & 7;
        if (Value & (1u << 2)) {
          _pHost->OnSystemResetRequest();
        }
      }
      break;
    case SCB_SCR:
      _SCR = Merge(_SCR);
      break;
    case SCB_CCR:
      if (!_Traits.IsV6M) {
        // Of the writable bits the simulator acts on UNALIGN_TRP and DIV_0_TRP; STKALIGN stays set.
        _CCR = (Merge(_CCR) & 0x31Bu) | SIM_CCR_STKALIGN;
        _pHost->OnFaultControlChanged();
      }
      break;
    case SCB_SHCSR:
      _SHCSR = _Traits.IsV6M ? 0 : Merge(_SHCSR);
      break;
    case SCB_CPACR:
      if (_Traits.HasFPU) {
        _CPACR = Merge(_CPACR) & 0x00F00000u;  // CP10 and CP11; no other coprocessor exists
        _pHost->OnFaultControlChanged();
      }
      break;
    case FP_FPCCR:
      if (_Traits.HasFPU) {
        // Every defined bit is read/write on ARMv7-M, the ready bits and USER and THREAD as well, though
        // the core also sets those at each entry with a lazy save (bit 8, MONRDY, stays as written).
        const U32 Writable = SIM_FPCCR_ASPEN | SIM_FPCCR_LSPEN | SIM_FPCCR_LSPACT | SIM_FPCCR_USER |
                             SIM_FPCCR_THREAD | SIM_FPCCR_HFRDY | SIM_FPCCR_MMRDY | SIM_FPCCR_BFRDY |
                             (1u << 8);
        _FPCCR = (_FPCCR & ~(Writable & Mask)) | (Set & Writable);
        _pHost->OnFaultControlChanged();
      }
      break;
    case FP_FPCAR:
      if (_Traits.HasFPU) {
        _FPCAR = Merge(_FPCAR) & ~7u;
      }
      break;
    case FP_FPDSCR:
      if (_Traits.HasFPU) {
        _FPDSCR = Merge(_FPDSCR) & 0x07C00000u;  // AHP, DN, FZ, RMode
      }
      break;
    case SCB_CFSR:
      _CFSR &= ~Set;  // write one to clear
      break;
    case SCB_HFSR:
      _HFSR &= ~Set;
      break;
    case SCB_MMFAR:
      _MMFAR = Merge(_MMFAR);
      break;
    case SCB_BFAR:
      _BFAR = Merge(_BFAR);
      break;
    case DCB_DHCSR:
      if (FromDebugger && Mask == 0xFFFFFFFFu && (Value >> 16) == 0xA05F) {
        _pHost->OnDebugHaltRequest((Value & 2) != 0);
      }
      break;
    case DCB_DEMCR:
      _DEMCR = Merge(_DEMCR);
      break;
    default:
      break;
  }
}
