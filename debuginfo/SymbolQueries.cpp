// Symbol queries below the program index; see SymbolQueries.h.
#include "debuginfo/SymbolQueries.h"

#include <dwarf.h>

#include <cstdlib>
#include <cstring>

#include "debuginfo/DwarfScan.h"
#include "debuginfo/ElfFile.h"
#include "debuginfo/ProgramIndex.h"

// Sizes above this are corrupt data, not real objects.
static constexpr U64 kMaxPlausibleSize = 10000000;

// The register that an entry value's expression names (DW_OP_reg0..31 or DW_OP_regx), or -1.
static I64 _EntryValueRegister(const DWA_LOC_OP& Op) {
  if (Op.BlockSize != Op.Operand1 || Op.BlockSize == 0)
    return -1;
  U8 code = Op.Block[0];
  if (code >= DW_OP_reg0 && code <= DW_OP_reg31 && Op.BlockSize == 1)
    return code - DW_OP_reg0;
  if (code != DW_OP_regx)
    return -1;
  U64 reg = 0;
  const U8* p = Op.Block + 1;
  const U8* pEnd = Op.Block + Op.BlockSize;
  return DWS_ReadUleb(p, pEnd, &reg) && p == pEnd && reg < 0xFFFFFFFFu ? (I64)reg : -1;
}

ELF_SYM_LOC ELF_TranslateLocExpr(const DWA_LOC_OP* paOps, U32 NumOps, bool FrameBase, bool BigEndian) {
  ELF_SYM_LOC loc = {};
  if (!paOps || NumOps == 0)
    return loc;
  bool stackValue = NumOps == 2 && paOps[1].Op == DW_OP_stack_value;
  if (NumOps > 1 && !stackValue)
    return loc;  // pieces or arithmetic: unavailable rather than a wrong place
  const DWA_LOC_OP& op = paOps[0];
  U8 code = op.Op;
  if (code == DW_OP_entry_value || code == DW_OP_GNU_entry_value) {
    // The value a register had when the function was entered; only as the value itself.
    I64 reg = stackValue ? _EntryValueRegister(op) : -1;
    if (reg < 0)
      return loc;
    loc.kind = ELF_LOC_ENTRY_VALUE;
    loc.baseKind = ELF_LOC_REG;
    loc.baseReg = (U32)reg;
    return loc;
  }
  if (code == DW_OP_implicit_value) {
    // The value's bytes, in the target's order.
    if (NumOps != 1 || op.BlockSize == 0 || op.BlockSize != op.Operand1)
      return loc;
    loc.kind = ELF_LOC_CONST;
    for (U32 i = 0; i < op.BlockSize; i++) {
      U32 at = BigEndian ? i : op.BlockSize - 1 - i;
      loc.value = (loc.value << 8) | op.Block[at];
    }
    return loc;
  }
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
    loc = ELF_TranslateLocExpr(e.paOps, e.NumOps, frameBase, ELF_GetBigEndian() != 0);
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

/*********************************************************************
 * Members, bit fields, arrays
 */

// The DIE whose member list answers for h: h itself, else its definition, else what its
// DW_AT_specification names.
static ELF_SYM_HANDLE _MemberScope(ELF_SYM_HANDLE h) {
  ELF_FILE* pFile = nullptr;
  ELF_DIE die = nullptr;
  for (int depth = 0; depth < 20 && _GetDwarfSymContext(h, &pFile, &die); depth++) {
    if (ELF_GetScopeListCount(pFile, h, ELF_SCOPE_MEMBERS))
      return h;
    ELF_DIE next = _GetDefinitionDie(pFile, die);
    if (!next || next == die)
      next = _GetReferenceDie(pFile, die, DW_AT_specification);
    if (!next || next == die)
      break;
    h = _GetDwarfSymHandle(pFile, next);
  }
  return 0;
}

U32 ELF_GetSymMemberCount(ELF_SYM_HANDLE h) {
  std::lock_guard lock(ELF_GetIndexMutex());
  ELF_SYM_HANDLE scope = _MemberScope(h);
  ELF_FILE* pFile = nullptr;
  return scope && _GetFile(scope, &pFile) ? ELF_GetScopeListCount(pFile, scope, ELF_SCOPE_MEMBERS) : 0;
}

ELF_SYM_HANDLE ELF_GetSymMember(ELF_SYM_HANDLE h, U32 Index) {
  std::lock_guard lock(ELF_GetIndexMutex());
  ELF_SYM_HANDLE scope = _MemberScope(h);
  ELF_FILE* pFile = nullptr;
  return scope && _GetFile(scope, &pFile) ? ELF_GetScopeListHandle(pFile, scope, ELF_SCOPE_MEMBERS, Index)
                                          : 0;
}

int ELF_GetSymMemberIdx(ELF_SYM_HANDLE h, const char* sName) {
  std::lock_guard lock(ELF_GetIndexMutex());
  if (!sName)
    return -1;
  U32 n = ELF_GetSymMemberCount(h);
  for (U32 i = 0; i < n; i++) {
    if (ELF_GetSymName(ELF_GetSymMember(h, i)) == QString::fromUtf8(sName))
      return (int)i;
  }
  return -1;
}

int ELF_GetSymMemberOffset(ELF_SYM_HANDLE h) {
  std::lock_guard lock(ELF_GetIndexMutex());
  ELF_FILE* pFile = nullptr;
  ELF_DIE die = nullptr;
  if (!_GetDwarfSymContext(h, &pFile, &die))
    return -1;
  U16 tag = _GetDieType(pFile, die);
  if (tag != ELF_TAG_MEMBER && tag != ELF_TAG_INHERITANCE)
    return -1;
  ELF_SYM_LOC loc = ELF_GetDieLoc(pFile, die, 0);
  return loc.kind == ELF_LOC_PARENT_LOC ? loc.offset : -1;
}

U32 ELF_GetSymBitWidth(ELF_SYM_HANDLE h) {
  std::lock_guard lock(ELF_GetIndexMutex());
  ELF_FILE* pFile = nullptr;
  ELF_DIE die = nullptr;
  if (!_GetDwarfSymContext(h, &pFile, &die))
    return 0;
  bool found = false;
  U64 width = _GetAttributeAsU64(pFile, die, DW_AT_bit_size, &found);
  return found && width <= 64 ? (U32)width : 0;
}

U32 ELF_GetSymBitOffset(ELF_SYM_HANDLE h) {
  std::lock_guard lock(ELF_GetIndexMutex());
  ELF_FILE* pFile = nullptr;
  ELF_DIE die = nullptr;
  if (!_GetDwarfSymContext(h, &pFile, &die))
    return 0;
  bool found = false;
  U64 dataBitOffset = _GetAttributeAsU64(pFile, die, DW_AT_data_bit_offset, &found);
  if (found)
    return (U32)dataBitOffset;
  U64 o = _GetAttributeAsU64(pFile, die, DW_AT_bit_offset, &found);
  U32 w = ELF_GetSymBitWidth(h);
  if (!found || w == 0)
    return 0;
  // DW_AT_bit_offset counts from the high bit of the storage unit (the member's type size).
  U64 s = 0;
  bool haveSize = false;
  s = _GetAttributeAsU64(pFile, die, DW_AT_byte_size, &haveSize);
  if (!haveSize)
    s = ELF_GetDieSizeRecursive(pFile, die);
  if (s * 8 < w + o)
    return (U32)(32 - w - o);
  return (U32)(s * 8 - w - o);
}

ELF_ARRAY_INFO ELF_GetSymArrayInfo(ELF_SYM_HANDLE h) {
  std::lock_guard lock(ELF_GetIndexMutex());
  ELF_FILE* pFile = nullptr;
  ELF_DIE die = nullptr;
  if (!_GetDwarfSymContext(h, &pFile, &die))
    return ELF_ARRAY_INFO{};
  if (_GetDieType(pFile, die) != ELF_TAG_ARRAY) {
    // Through typedefs and qualifiers only: a pointer to an array is no array.
    ELF_DIE t = _GetReferenceDie(pFile, die, DW_AT_type);
    for (int step = 0; t && step < 25; step++) {
      U16 tag = _GetDieType(pFile, t);
      if (tag == ELF_TAG_ARRAY)
        break;
      if (tag != ELF_TAG_TYPEDEF && tag != ELF_TAG_CONST && tag != ELF_TAG_VOLATILE &&
          tag != ELF_TAG_RESTRICT)
        return ELF_ARRAY_INFO{};
      t = _GetReferenceDie(pFile, t, DW_AT_type);
    }
    die = t;
  }
  return ELF_ParseDieArrayInfo(pFile, die);
}

/*********************************************************************
 * Call frame rules
 */

static ELF_SYM_LOC _RuleToLoc(const DWA_REG_RULE& Rule, U32 Row) {
  ELF_SYM_LOC loc = {};
  switch (Rule.Kind) {
    case DWA_RULE_UNDEFINED:
      loc.kind = ELF_LOC_REG;
      loc.reg = 1034;
      break;
    case DWA_RULE_SAME_VALUE:
      loc.kind = ELF_LOC_REG;
      loc.reg = Row;
      break;
    case DWA_RULE_OFFSET:
      loc.kind = ELF_LOC_AT_CFA;
      loc.offset = (I32)Rule.Offset;
      break;
    case DWA_RULE_VAL_OFFSET:
      loc.kind = ELF_LOC_CFA_VALUE;
      loc.offset = (I32)Rule.Offset;
      break;
    case DWA_RULE_REGISTER:
      loc.kind = ELF_LOC_REG;
      loc.reg = Rule.Reg;
      break;
    case DWA_RULE_CFA:
      loc.kind = ELF_LOC_REG_VALUE;
      loc.reg = Rule.Reg;
      loc.offset = (I32)Rule.Offset;
      break;
    default:
      ELF_Log(ELF_LOG_LIBDWARF, "LibDwarf: evaluation of 'DW_EXPR_EXPRESSION' not implemented");
      break;
  }
  return loc;
}

int ELF_GetFrameRows(U32 Pc, ELF_SYM_LOC* paRows) {
  std::lock_guard lock(ELF_GetIndexMutex());
  ELF_FILE* pFile = ELF_GetIndexedFile();
  if (!pFile || !paRows)
    return 0;
  DWA_REG_RULE rules[DWA_NUM_FRAME_REGS] = {};
  DWA_REG_RULE cfa = {};
  if (ELF_GetFrameRules(pFile, Pc, rules, &cfa) != 0)
    return 0;
  for (int r = 0; r < ELF_FRAME_ROWS; r++)
    paRows[r] = _RuleToLoc(rules[r], (U32)r);
  cfa.Offset *= pFile->cfaOffsetFactor ? pFile->cfaOffsetFactor : 1;
  paRows[13] = _RuleToLoc(cfa, 13);
  return ELF_FRAME_ROWS;
}
