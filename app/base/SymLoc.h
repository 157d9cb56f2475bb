// Where a value lives: the location record that debug information produces and the device reads and
// writes. It is shared by both layers, neither of which knows the other.
#pragma once

#include "app/base/Types.h"

// Kinds: 0 none (shown as unavailable), 1 constant, 2 at addr, 3 at addr + offset, 4 in reg, 5 value
// reg + offset, 6 at [base] + offset, 7..9 value SP/BP/CFA + offset, 10..12 at SP/BP/CFA + offset, 13
// parent value + offset, 14 at parent location + offset, 15 the base location's value on function
// entry, 16 the base location's result is the value itself.
struct ELF_SYM_LOC {
  U32 kind;
  U32 addr;
  U32 reg;
  I32 offset;
  U32 baseKind;
  U32 baseAddr;
  U32 baseReg;
  I32 baseOffset;
  U64 value;
};
enum : U32 {
  ELF_LOC_NONE = 0,
  ELF_LOC_CONST = 1,
  ELF_LOC_ADDR = 2,
  ELF_LOC_ADDR_OFFSET = 3,
  ELF_LOC_REG = 4,
  ELF_LOC_REG_VALUE = 5,
  ELF_LOC_AT_REG = 6,
  ELF_LOC_SP_VALUE = 7,
  ELF_LOC_BP_VALUE = 8,
  ELF_LOC_CFA_VALUE = 9,
  ELF_LOC_AT_SP = 10,
  ELF_LOC_AT_BP = 11,
  ELF_LOC_AT_CFA = 12,
  ELF_LOC_PARENT_VALUE = 13,
  ELF_LOC_PARENT_LOC = 14,
  ELF_LOC_ENTRY_VALUE = 15,
  ELF_LOC_STACK_VALUE = 16,
};
// Register numbers of a call frame rule that name no register: the caller's value is unknown, or it is
// the same as in the callee.
enum : U32 {
  ELF_REG_UNSPECIFIED = 1034,
  ELF_REG_SAME_AS_CALLER = 1035,
};

// Kinds whose value lies in memory at addr (the offset of kind 3 is the reader's to apply).
inline bool IsMemoryLoc(const ELF_SYM_LOC& Loc) {
  return Loc.kind == ELF_LOC_ADDR || Loc.kind == ELF_LOC_ADDR_OFFSET;
}

// Kinds whose value lies in register reg (the offset of kind 5 is the reader's to apply).
inline bool IsRegisterLoc(const ELF_SYM_LOC& Loc) {
  return Loc.kind == ELF_LOC_REG || Loc.kind == ELF_LOC_REG_VALUE;
}

// The value of a location that needs no target: a constant (also as the result of the location), or
// an address that is itself the value. False for every other location.
inline bool GetImplicitLocValue(const ELF_SYM_LOC& Loc, U64* pValue) {
  if (Loc.kind == ELF_LOC_CONST || (Loc.kind == ELF_LOC_STACK_VALUE && Loc.baseKind == ELF_LOC_CONST)) {
    *pValue = Loc.value;
    return true;
  }
  if (Loc.kind == ELF_LOC_STACK_VALUE && Loc.baseKind == ELF_LOC_ADDR) {
    *pValue = Loc.baseAddr;
    return true;
  }
  return false;
}
