// Logical registers (R0..R12, SP, LR, PC, CPSR/xPSR, SPSR) and the probe's own register numbering, which
// on ARM cores gives each mode's banked registers indices of their own.
#pragma once

#include "app/base/Types.h"

constexpr U32 kCurrentCPUMode = 170;
constexpr U32 kFirstRawRegIdx = 83;  // logical numbers from here on are taken as probe indices already

// The probe's index of a logical register in a CPU mode (kCurrentCPUMode: the mode the target is in,
// passed as CurrentMode). On the Cortex-M group the index is the logical number. -1 when the register
// does not exist in that mode.
int GetTarvikRegIdx(U32 Logical, U32 Mode, bool CortexM, U32 CurrentMode);
// The logical register of a probe index in a mode, or -1.
int GetLogicalRegIdx(U32 TarvikIdx, U32 Mode, bool CortexM, U32 CurrentMode);
