// The bulk walk over the DIEs of a program: one pass over the bytes of .debug_info (or .debug_types)
// driven by the abbreviation tables, without building a DIE object per entry. It records for every
// DIE its offset, tag, parent and the few attributes the symbol tree classifies by; everything else
// is read later, DIE by DIE, through the libdwarf adapter.
#pragma once

#include <string>
#include <vector>

#include "app/base/Types.h"

// One DIE. Offsets are section offsets; 0 means none (offset 0 is always a unit header).
struct DWS_RECORD {
  U32 offset;
  U32 parent;     // index of the parent record, kDwsNoParent for a unit's root
  U32 completes;  // the declaration this DIE completes (DW_AT_specification), or the namespace it extends
  U32 origin;     // DW_AT_abstract_origin target
  U16 tag;
  U16 flags;  // DWS_* below
};
static_assert(sizeof(DWS_RECORD) == 20);

constexpr U32 kDwsNoParent = 0xFFFFFFFF;

enum : U16 {
  DWS_DECL = 1 << 0,      // DW_AT_declaration present
  DWS_DECL_SET = 1 << 1,  // ... and non-zero
  DWS_ARTIFICIAL = 1 << 2,
  DWS_ARTIFICIAL_SET = 1 << 3,
  DWS_SIZE = 1 << 4,       // DW_AT_byte_size present
  DWS_SIZE_SET = 1 << 5,   // ... as a non-zero constant
  DWS_COMPLETES = 1 << 6,  // DW_AT_specification present (its target may be unresolvable: completes 0)
  DWS_ORIGIN = 1 << 7,
  DWS_EXTENSION = 1 << 8,  // completes holds the DW_AT_extension target
  DWS_MAIN = 1 << 9,       // DW_AT_main_subprogram non-zero
  DWS_CHILDREN = 1 << 10,
};

struct DWS_UNIT {
  U64 headerOffset;
  U64 nextHeaderOffset;
  U64 rootOffset;
  U64 signature;   // type units
  U64 typeOffset;  // section offset of a type unit's type DIE, else 0
  U32 firstRecord;
  U32 recordCount;
  U16 version;
  U8 addrSize;
  bool isTypeUnit;
  bool broken;  // the walk stopped early; what came before stays recorded
};

struct DWS_SECTION_SCAN {
  std::vector<DWS_RECORD> records;  // ascending offsets
  std::vector<DWS_UNIT> units;
};

// Scans every unit of one section. Returns 0, or -1 when the section cannot be scanned at all (the
// result is then empty). A unit whose header or DIEs are corrupt is marked broken and logged in
// *pProblems; the scan goes on with the next unit when the broken unit's length is sound.
int DWS_ScanSection(const U8* pData, U64 Size, const U8* pAbbrev, U64 AbbrevSize, bool BigEndian,
                    bool IsTypesSection, DWS_SECTION_SCAN* pOut, std::vector<std::string>* pProblems);

// LEB128 numbers: read one at p and move p behind it. False when the number runs past pEnd.
bool DWS_ReadUleb(const U8*& p, const U8* pEnd, U64* pValue);
bool DWS_ReadSleb(const U8*& p, const U8* pEnd, I64* pValue);

// The index of the record at exactly Offset, or -1.
I64 DWS_FindRecord(const DWS_SECTION_SCAN& Scan, U64 Offset);
