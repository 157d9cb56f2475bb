// Register numbering of the probe on Cortex-M and ARM cores.
#include "device/RegisterIndex.h"

#include "device/RunControl.h"

int GetTarvikRegIdx(U32 Logical, U32 Mode, bool CortexM, U32 CurrentMode) {
  if (Logical >= kFirstRawRegIdx) {
    return int(Logical);
  }
  if (CortexM) {
    return Logical <= REG_CPSR ? int(Logical) : -1;
  }
  if (Mode == kCurrentCPUMode) {
    Mode = CurrentMode;
  }
  if (Logical <= 7) {
    return int(Logical);
  }
  if (Logical <= 12) {
    return int(Logical + (Mode == MODE_FIQ ? 10 : 2));
  }
  if (Logical <= 14) {
    switch (Mode) {
      case MODE_FIQ:
        return int(Logical + 10);
      case MODE_SVC:
        return int(Logical + 13);
      case MODE_ABT:
        return int(Logical + 16);
      case MODE_IRQ:
        return int(Logical + 19);
      case MODE_UND:
        return int(Logical + 22);
      default:
        return int(Logical + 2);  // user and system mode
    }
  }
  if (Logical == REG_PC) {
    return 9;
  }
  if (Logical == REG_CPSR) {
    return 8;
  }
  if (Logical == REG_SPSR) {
    switch (Mode) {
      case MODE_FIQ:
        return 17;
      case MODE_SVC:
        return 25;
      case MODE_ABT:
        return 28;
      case MODE_IRQ:
        return 31;
      case MODE_UND:
        return 34;
      default:
        return -1;  // user and system mode have no SPSR
    }
  }
  return -1;
}

int GetLogicalRegIdx(U32 TarvikIdx, U32 Mode, bool CortexM, U32 CurrentMode) {
  for (U32 Logical = 0; Logical <= REG_SPSR; ++Logical) {
    if (GetTarvikRegIdx(Logical, Mode, CortexM, CurrentMode) == int(TarvikIdx)) {
      return int(Logical);
    }
  }
  return -1;
}
