// The one file that speaks to libdwarf. Everything above it works with these types, so that the
// symbol tree does not depend on which libdwarf the distribution ships. Every libdwarf call here is
// given an error pointer (libdwarf aborts the process otherwise), and every error is turned into one
// text for the caller's sink.
#pragma once

#include "app/base/Types.h"

struct DWA_CONTEXT;
typedef struct DWA_DIE_OPAQUE* DWA_DIE;

// One section of the program file as the symbol tree hands it over. pData is null, and Size 0,
// for a section whose bytes are not in the file.
struct DWA_SECTION {
  const char* sName;
  U64 Addr;
  U64 Size;
  U8* pData;
  U32 Type;
  U32 Link;
  U32 Info;
  U32 EntSize;
};

typedef void (*DWA_ERROR_SINK)(void* pUser, const char* sText);

// Starts libdwarf over sections already in memory. The section array must live until DWA_Finish.
// Returns 0, 1 when the file has no DWARF sections, -1 on failure (reported to the sink).
int DWA_Init(const DWA_SECTION* paSections, U32 NumSections, bool BigEndian, DWA_ERROR_SINK pfSink,
             void* pUser, DWA_CONTEXT** ppContext);
void DWA_Finish(DWA_CONTEXT* pContext);

// A unit header. Type units (DWARF 4 .debug_types, or DWARF 5 units of type DW_UT_type in
// .debug_info) carry their signature and the offset of their type DIE.
struct DWA_UNIT {
  U64 HeaderOffset;
  U64 NextHeaderOffset;
  U64 RootOffset;  // section offset of the unit's first DIE
  U64 Signature;
  U64 TypeOffset;  // section offset of the type DIE of a type unit, else 0
  U16 Version;
  U16 UnitType;  // DW_UT_* (1 compile, 2 type, ...); DWARF 4 units report 1, or 2 in .debug_types
  U16 AddressSize;
  bool IsInfo;
  bool IsTypeUnit;
};

// Steps to the next unit header of a section: 1 found, 0 end of section, -1 error. After 0 or -1 the
// next call starts again at the section's first unit.
int DWA_NextUnit(DWA_CONTEXT* pContext, bool IsInfo, DWA_UNIT* pUnit);

// DIEs. Every DIE returned must be released with DWA_ReleaseDie. Null means none (or an error that
// went to the sink).
DWA_DIE DWA_GetDieAtOffset(DWA_CONTEXT* pContext, U64 Offset, bool IsInfo);
DWA_DIE DWA_GetChild(DWA_CONTEXT* pContext, DWA_DIE Die);
DWA_DIE DWA_GetSibling(DWA_CONTEXT* pContext, DWA_DIE Die);
void DWA_ReleaseDie(DWA_CONTEXT* pContext, DWA_DIE Die);
U64 DWA_GetOffset(DWA_CONTEXT* pContext, DWA_DIE Die);
bool DWA_IsInfo(DWA_DIE Die);
U16 DWA_GetTag(DWA_CONTEXT* pContext, DWA_DIE Die);
bool DWA_HasChildren(DWA_CONTEXT* pContext, DWA_DIE Die);
// Header offset and total length of the unit that holds the DIE; 0 on success.
int DWA_GetUnitRange(DWA_CONTEXT* pContext, DWA_DIE Die, U64* pHeaderOffset, U64* pLength);
U16 DWA_GetUnitVersion(DWA_CONTEXT* pContext, DWA_DIE Die);
// DW_AT_name, valid until DWA_Finish; null if absent.
const char* DWA_GetName(DWA_CONTEXT* pContext, DWA_DIE Die);

enum DWA_VALUE_KIND : U8 {
  DWA_VALUE_NONE = 0,
  DWA_VALUE_ADDRESS,
  DWA_VALUE_UNSIGNED,  // data forms, udata, sec_offset, implicit_const read as unsigned
  DWA_VALUE_SIGNED,    // sdata, and implicit_const
  DWA_VALUE_FLAG,
  DWA_VALUE_REFERENCE,  // a section offset in the section of RefIsInfo
  DWA_VALUE_SIGNATURE,  // DW_FORM_ref_sig8: u holds the signature
  DWA_VALUE_STRING,
  DWA_VALUE_BLOCK,  // block forms and exprloc: pBlock, BlockLength
};

struct DWA_VALUE {
  U16 Attr;
  U16 Form;
  DWA_VALUE_KIND Kind;
  bool RefIsInfo;
  U64 u;  // address, unsigned or flag value, reference offset or signature; signed values as U64 too
  I64 s;  // signed view of the value
  const char* sText;
  const U8* pBlock;
  U64 BlockLength;
};

// 1 present (value filled), 0 absent, -1 present but unreadable (reported).
int DWA_GetAttr(DWA_CONTEXT* pContext, DWA_DIE Die, U16 Attr, DWA_VALUE* pValue);
bool DWA_HasAttr(DWA_CONTEXT* pContext, DWA_DIE Die, U16 Attr);
// The attribute codes of a DIE, at most Max of them; returns the count (0 on error).
int DWA_GetAttrList(DWA_CONTEXT* pContext, DWA_DIE Die, U16* paAttrs, int Max);

// Line table of a unit. sFile is a malloc'ed copy of the row's file name as libdwarf joins it.
struct DWA_LINE {
  U64 Addr;
  U32 Line;
  U32 Column;
  U32 FileNumber;  // as stored in the row: 0-based in version 5 tables, 1-based before
  bool EndSequence;
  bool IsStmt;
  char* sFile;
};

// Returns 0 with the rows (possibly none), 1 when the unit has no line table, -1 on error.
int DWA_GetLines(DWA_CONTEXT* pContext, DWA_DIE CuDie, DWA_LINE** ppaLines, U32* pNumLines,
                 U16* pLineVersion);
void DWA_FreeLines(DWA_LINE* paLines, U32 NumLines);
// The unit's source file names (malloc'ed copies). 0, 1 none, -1 error.
int DWA_GetSrcFiles(DWA_CONTEXT* pContext, DWA_DIE CuDie, char*** ppaNames, U32* pNumNames);
void DWA_FreeStrings(char** paStrings, U32 Num);

// Address ranges [Lo, Hi) of a DIE: low_pc/high_pc (address or offset form) or DW_AT_ranges in
// .debug_ranges (DWARF 4) or .debug_rnglists (DWARF 5). 0 with the ranges, 1 none, -1 error.
struct DWA_RANGE {
  U64 Lo;
  U64 Hi;
};
int DWA_GetRanges(DWA_CONTEXT* pContext, DWA_DIE Die, DWA_RANGE** ppaRanges, U32* pNumRanges);

// A location: a single expression valid at all addresses, or the entries of a location list
// (DWARF 4 .debug_loc or DWARF 5 .debug_loclists) with their [Lo, Hi) ranges.
struct DWA_LOC_OP {
  U8 Op;
  U64 Operand1;
  U64 Operand2;
  U64 Operand3;
  U64 Offset;  // of the operation inside its expression, for branches
  // The bytes of DW_OP_implicit_value and the expression of DW_OP_entry_value, when they fit here
  // (Operand1 is their length then); BlockSize 0 otherwise.
  U8 Block[8] = {};
  U8 BlockSize = 0;
};
struct DWA_LOC_ENTRY {
  U64 Lo;
  U64 Hi;
  bool AllAddresses;
  U32 NumOps;
  DWA_LOC_OP* paOps;
};
int DWA_GetLocations(DWA_CONTEXT* pContext, DWA_DIE Die, U16 Attr, DWA_LOC_ENTRY** ppaEntries,
                     U32* pNumEntries);
void DWA_FreeLocations(DWA_LOC_ENTRY* paEntries, U32 NumEntries);

// Call frame information of .debug_frame: counts and the return-address register of the first CIE.
struct DWA_FRAME_INFO {
  U32 CieCount;
  U32 FdeCount;
  U32 ReturnAddrReg;
};
// 0 loaded, 1 no frame section, -1 error.
int DWA_LoadFrames(DWA_CONTEXT* pContext, DWA_FRAME_INFO* pInfo);

// The recovery rule of one register at an address.
enum DWA_RULE_KIND : U8 {
  DWA_RULE_UNDEFINED = 0,
  DWA_RULE_SAME_VALUE,
  DWA_RULE_OFFSET,      // saved at CFA + Offset
  DWA_RULE_VAL_OFFSET,  // value is CFA + Offset
  DWA_RULE_REGISTER,    // value is in register Reg
  DWA_RULE_CFA,         // the CFA rule itself: Reg + Offset
  DWA_RULE_EXPRESSION,  // not evaluated here
};
struct DWA_REG_RULE {
  DWA_RULE_KIND Kind;
  U32 Reg;
  I64 Offset;
};
static constexpr int DWA_NUM_FRAME_REGS = 30;
// Rules for all 30 registers and the CFA at Pc. 0 found, 1 no FDE covers Pc, -1 error.
int DWA_GetFrameRules(DWA_CONTEXT* pContext, U64 Pc, DWA_REG_RULE* paRules, DWA_REG_RULE* pCfa, U64* pRowPc);

// One frame description: its code range [Lo, Hi), its instruction bytes (valid until DWA_Finish)
// and the data alignment factor of its CIE. 0 on success, -1 for a bad index or an error.
struct DWA_FDE {
  U64 Lo;
  U64 Hi;
  const U8* pInstr;
  U64 InstrLength;
  I64 DataAlign;
};
int DWA_GetFde(DWA_CONTEXT* pContext, U32 Index, DWA_FDE* pFde);
