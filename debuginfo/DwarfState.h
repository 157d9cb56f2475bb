// The part of an open program file that the DWARF symbol tree owns: the libdwarf instance, the hash
// tables keyed by DIE identifier, the lists of globals, functions, types and units, the source files
// and the rows of all line tables.
#pragma once

#include "app/base/Types.h"

struct ELF_DIE_INDEX;
struct DWA_CONTEXT;
struct DWA_SECTION;

// A growing array of 64-bit items (DIE identifiers or offsets). Capacity 4 at start, doubled.
struct ELF_ID_LIST {
  U64* items;
  U32 n;
  U32 capacity;
};

// A growing array of owned strings.
struct ELF_STRING_LIST {
  char** items;
  U32 n;
  U32 capacity;
};

// One row of a line table, tagged with the offset of its unit.
struct ELF_LINE_ROW {
  U32 addr;
  U32 line;
  U32 column;
  U32 fileNameIdx;  // index into lineFileNames
  U64 cuOffset;
  U8 endSequence;
  U8 isStmt;
};

struct ELF_LINE_ROWS {
  ELF_LINE_ROW* items;
  U32 n;
  U32 capacity;
};

// What a compile unit says about its line table: the version decides whether DW_AT_decl_file numbers
// start at 0 (version 5) or at 1.
struct ELF_CU_INFO {
  U64 offset;  // offset of the unit's root DIE
  U16 unitVersion;
  U16 lineVersion;
  U32 fileCount;
  char** fileNames;  // the unit's source file list as libdwarf gives it, owned
};

struct ELF_CU_INFOS {
  ELF_CU_INFO* items;
  U32 n;
  U32 capacity;
};

enum ELF_SRC_LANG : U32 {
  ELF_SRC_LANG_UNKNOWN = 0,
  ELF_SRC_LANG_C = 1,
  ELF_SRC_LANG_CPP = 2,
};

struct ELF_DWARF_STATE {
  DWA_CONTEXT* pDwarf;  // null when the file has no usable DWARF
  U16 dwarfVersion;
  U64 mainSym;
  ELF_SRC_LANG srcLanguage;
  U32 cuCount;
  U32 returnAddrReg;
  U32 cieCount;
  U32 fdeCount;
  ELF_DIE_INDEX* pDies;  // one record per DIE, per-scope lists, source files' units, query caches
  ELF_ID_LIST globalVars;
  ELF_ID_LIST namespaces;
  ELF_ID_LIST namespaceExts;
  ELF_ID_LIST types;
  ELF_ID_LIST compUnits;
  ELF_ID_LIST functions;
  ELF_ID_LIST inlineFuncs;
  ELF_STRING_LIST srcFileNames;
  ELF_STRING_LIST lineFileNames;
  ELF_LINE_ROWS lineRows;
  ELF_CU_INFOS cuInfos;
  DWA_SECTION* paSections;  // what libdwarf reads, pointing into the image
  char sLastLibdwarfError[600];
};
