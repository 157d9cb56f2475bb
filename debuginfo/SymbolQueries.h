// Symbol queries below the program index: where a DWARF variable lives (location expressions and
// lists), how large a symbol is, and the text form of a location. The program index holds the
// mutex while these run.
#pragma once

#include "app/base/Types.h"
#include "debuginfo/DwarfTree.h"

struct ELF_SYM_LOC;

// One expression of a location list translated into a location. Only expressions whose meaning
// is fully captured are translated: one operation, or one operation followed by DW_OP_stack_value.
// Anything longer (pieces, arithmetic, common at -O2) is kind 0, "unavailable", never a guess.
// FrameBase: the expression is a function's DW_AT_frame_base.
ELF_SYM_LOC ELF_TranslateLocExpr(const DWA_LOC_OP* paOps, U32 NumOps, bool FrameBase, bool BigEndian = false);

// The location of a DIE at a link address Pc (0: the first entry of a list). Member locations of
// union members and constant member offsets give kind 14 (at parent location + offset).
ELF_SYM_LOC ELF_GetDieLoc(ELF_FILE* pFile, ELF_DIE Die, U32 Pc);

// Size in bytes: the first non-zero size along the DW_AT_type chain (pointers 4, arrays their total
// size); 0 if none.
U32 ELF_GetDieSizeRecursive(ELF_FILE* pFile, ELF_DIE Die);

// Array dimensions of an array type DIE (tag 1), outermost first. The record has room for
// ELF_MAX_ARRAY_DIMS dimensions; an array with more is reported and gives an all-zero record, so
// that no caller ever works with a silently shortened shape.
static constexpr U32 ELF_MAX_ARRAY_DIMS = 16;
struct ELF_ARRAY_INFO {
  U32 totalSize;
  U32 elemSize;
  U32 elemCount;
  U32 dimCount;
  U32 dims[ELF_MAX_ARRAY_DIMS];
};
ELF_ARRAY_INFO ELF_ParseDieArrayInfo(ELF_FILE* pFile, ELF_DIE Die);

// Members of a struct, union or class (data members, methods and enumerators, never artificial
// ones), in declaration order. A declaration answers with the members of its definition.
U32 ELF_GetSymMemberCount(ELF_SYM_HANDLE h);
ELF_SYM_HANDLE ELF_GetSymMember(ELF_SYM_HANDLE h, U32 Index);
int ELF_GetSymMemberIdx(ELF_SYM_HANDLE h, const char* sName);
// Byte offset of a data member or base class in its parent, -1 if it has none (methods, locals).
int ELF_GetSymMemberOffset(ELF_SYM_HANDLE h);
// Bit fields: width in bits (0 for no bit field) and the offset of the lowest bit from the low bit
// of the storage that starts at the member offset.
U32 ELF_GetSymBitWidth(ELF_SYM_HANDLE h);
U32 ELF_GetSymBitOffset(ELF_SYM_HANDLE h);
// The array shape of a symbol or type, through typedefs and qualifiers; all zero for no array.
ELF_ARRAY_INFO ELF_GetSymArrayInfo(ELF_SYM_HANDLE h);

// Call frame rules at a run address: how to recover each of the 30 DWARF registers of the caller.
// Row 13 (SP) is the CFA rule: kind 5, register and offset. Other rows: kind 12 (saved at CFA +
// offset), kind 9 (value is CFA + offset), kind 4 with the register holding the value (the row's
// own number for "same value", 1034 for "undefined"), kind 0 for rules given as expressions.
// Returns 30, or 0 when no frame description covers the address.
static constexpr int ELF_FRAME_ROWS = 30;
int ELF_GetFrameRows(U32 Pc, ELF_SYM_LOC* paRows);
