// Symbol queries below the program index; see SymbolQueries.h.
#include "debuginfo/SymbolQueries.h"

#include <dwarf.h>

#include <cstdlib>
#include <cstring>

#include "debuginfo/ElfFile.h"
#include "debuginfo/ProgramIndex.h"

// Sizes above this are corrupt data, not real objects.
static constexpr U64 kMaxPlausibleSize = 10000000;

ELF_SYM_LOC ELF_TranslateLocExpr(const DWA_LOC_OP* paOps, U32 NumOps, bool FrameBase) {
  ELF_SYM_LOC loc = {};
  if (!paOps || NumOps == 0)
    return loc;
  bool stackValue = NumOps == 2 && paOps[1].Op == DW_OP_stack_value;
  if (NumOps > 1 && !stackValue)
    return loc;  // pieces or arithmetic: unavailable rather than a wrong place
  const DWA_LOC_OP& op = paOps[0];
  U8 code = op.Op;
  if (code == DW_OP_addr) {
    loc.kind = ELF_LOC_ADDR;
    loc.addr = (U32)op.Operand1;
  } else if (code >= DW_OP_const1u && code <= DW_OP_consts) {
    loc.kind = ELF_LOC_CONST;
    loc.value = op.Operand1;
  } else if (code >= DW_OP_lit0 && code <= DW_OP_lit31) {
    loc.kind = ELF_LOC_CONST;
    loc.value = (U64)(code - DW_OP_lit0);
  } else if (code >= DW_OP_reg0 && code <= DW_OP_reg31) {
    loc.kind = ELF_LOC_REG;
    loc.reg = code - DW_OP_reg0;
  } else if (code == DW_OP_regx) {
    loc.kind = ELF_LOC_REG;
    loc.reg = (U32)op.Operand1;
  } else if ((code >= DW_OP_breg0 && code <= DW_OP_breg31) || code == DW_OP_bregx) {
    U32 reg = code == DW_OP_bregx ? (U32)op.Operand1 : (U32)(code - DW_OP_breg0);
    I32 offset = (I32)(I64)(code == DW_OP_bregx ? op.Operand2 : op.Operand1);
    if (FrameBase) {
      loc.kind = ELF_LOC_REG_VALUE;
      loc.reg = reg;
      loc.offset = offset;
    } else {
      loc.kind = ELF_LOC_AT_REG;
      loc.baseKind = ELF_LOC_REG_VALUE;
      loc.baseReg = reg;
      loc.baseOffset = offset;
      loc.reg = reg;
      loc.offset = offset;
    }
  } else if (code == DW_OP_fbreg) {
    loc.kind = ELF_LOC_AT_BP;
    loc.offset = (I32)(I64)op.Operand1;
  } else if (code == DW_OP_plus_uconst) {
    loc.kind = ELF_LOC_PARENT_LOC;
    loc.offset = (I32)op.Operand1;
  } else if (code == DW_OP_call_frame_cfa) {
    // The CFA itself: the frame base of most GCC functions. The unwinder resolves it per PC.
    loc.kind = ELF_LOC_CFA_VALUE;
  } else {
    return loc;
  }
  if (stackValue) {
    loc.baseKind = loc.kind;
    loc.baseAddr = loc.addr;
    loc.baseReg = loc.reg;
    loc.baseOffset = loc.offset;
    loc.kind = ELF_LOC_STACK_VALUE;
  }
  return loc;
}

static bool _IsUnionParent(ELF_FILE* pFile, ELF_DIE Die) {
  ELF_DIE parent = _GetParentDie(pFile, Die);
  return parent && _GetDieType(pFile, parent) == ELF_TAG_UNION;
}

ELF_SYM_LOC ELF_GetDieLoc(ELF_FILE* pFile, ELF_DIE Die, U32 Pc) {
  ELF_SYM_LOC loc = {};
  if (!pFile || !Die)
    return loc;
  U16 tag = _GetDieType(pFile, Die);
  bool member = tag == ELF_TAG_MEMBER || tag == ELF_TAG_INHERITANCE;
  bool frameBase = tag == ELF_TAG_SUBPROGRAM || tag == ELF_TAG_INLINED_SUBROUTINE;
  U16 attr = member ? DW_AT_data_member_location : frameBase ? DW_AT_frame_base : DW_AT_location;
  if (member) {
    // DWARF 3 and later write plain member offsets as constants, not as expressions.
    DWA_VALUE v;
    if (_IsUnionParent(pFile, Die)) {
      loc.kind = ELF_LOC_PARENT_LOC;
      return loc;
    }
    if (_CreateDieAttr(pFile, Die, attr, &v) &&
        (v.Kind == DWA_VALUE_UNSIGNED || v.Kind == DWA_VALUE_SIGNED)) {
      loc.kind = ELF_LOC_PARENT_LOC;
      loc.offset = (I32)v.s;
      return loc;
    }
    if (!_HasAttribute(pFile, Die, attr) && _HasAttribute(pFile, Die, DW_AT_data_bit_offset)) {
      loc.kind = ELF_LOC_PARENT_LOC;
      return loc;
    }
  }
  DWA_LOC_ENTRY* paEntries = nullptr;
  U32 n = 0;
  if (_GetDieLocations(pFile, Die, attr, &paEntries, &n) != 0 || !paEntries)
    return loc;
  U32 pcLink = Pc ? ELF_UndoRelocation(Pc, false) : 0;
  for (U32 i = 0; i < n; i++) {
    const DWA_LOC_ENTRY& e = paEntries[i];
    if (e.NumOps == 0)
      continue;
    if (Pc != 0 && !e.AllAddresses) {
      if (Pc == 0xFFFFFFFF)
        break;
      bool inside = e.Lo == e.Hi ? pcLink == e.Lo : (pcLink >= e.Lo && pcLink < e.Hi);
      if (!inside)
        continue;
    }
    loc = ELF_TranslateLocExpr(e.paOps, e.NumOps, frameBase);
    break;
  }
  DWA_FreeLocations(paEntries, n);
  if (loc.kind == ELF_LOC_ADDR || loc.kind == ELF_LOC_ADDR_OFFSET)
    loc.addr = ELF_ApplyRelocation(loc.addr, false);
  return loc;
}

static U32 _GetDieSize(ELF_FILE* pFile, ELF_DIE Die) {
  U16 tag = _GetDieType(pFile, Die);
  if (tag == ELF_TAG_POINTER || tag == ELF_TAG_REFERENCE)
    return 4;
  if (tag == ELF_TAG_ARRAY)
    return ELF_ParseDieArrayInfo(pFile, Die).totalSize;
  bool found = false;
  U64 size = _GetAttributeAsU64(pFile, Die, DW_AT_byte_size, &found);
  return found && size <= kMaxPlausibleSize ? (U32)size : 0;
}

U32 ELF_GetDieSizeRecursive(ELF_FILE* pFile, ELF_DIE Die) {
  if (!pFile || !Die)
    return 0;
  ELF_DIE d = Die;
  for (int step = 0; d && step < 25; step++) {
    U32 size = _GetDieSize(pFile, d);
    if (size)
      return size;
    d = _GetReferenceDie(pFile, d, DW_AT_type);
  }
  return 0;
}

ELF_ARRAY_INFO ELF_ParseDieArrayInfo(ELF_FILE* pFile, ELF_DIE Die) {
  ELF_ARRAY_INFO info = {};
  if (!pFile || !Die || _GetDieType(pFile, Die) != ELF_TAG_ARRAY)
    return info;
  U64 count = 0;
  ELF_DIE child = _CreateChild(pFile, Die);
  while (child) {
    if (_GetDieType(pFile, child) == ELF_TAG_SUBRANGE) {
      if (info.dimCount == ELF_MAX_ARRAY_DIMS) {
        ELF_Log(ELF_LOG_MESSAGE, "Array at DIE offset 0x%llx has more than %u dimensions, not shown",
                (unsigned long long)_GetDieOffset(pFile, Die), ELF_MAX_ARRAY_DIMS);
        _DeallocDie(pFile, child);
        return ELF_ARRAY_INFO{};
      }
      U32 dim = _GetSubrangeElemCnt(pFile, child);
      info.dims[info.dimCount++] = dim;
      count = info.dimCount == 1 ? dim : count * dim;
      if (count > kMaxPlausibleSize)
        count = 0;
    }
    child = _CreateSibling(pFile, child);
  }
  info.elemCount = (U32)count;
  ELF_DIE elem = _GetReferenceDie(pFile, Die, DW_AT_type);
  info.elemSize = elem ? ELF_GetDieSizeRecursive(pFile, elem) : 0;
  U64 total = (U64)info.elemSize * count;
  info.totalSize = total <= kMaxPlausibleSize ? (U32)total : 0;
  return info;
}
