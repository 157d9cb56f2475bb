// Helpers and limits shared by the files of the DWARF symbol tree (DwarfTree.cpp, DwarfNames.cpp,
// IndexCache.cpp); not for use outside the tree.
#pragma once

#include <cstddef>

#include "debuginfo/DwarfTree.h"
#include "debuginfo/ElfFile.h"

const U8* ELF_GetSectionBytes(ELF_FILE* pFile, U32 i);

static constexpr int kMaxAttrDepth = 5;
static constexpr int kMaxNameDepth = 20;
static constexpr int kMaxTypeSteps = 25;
static constexpr size_t kTypeTextSize = 512;
static constexpr size_t kMaxKeptTypeText = 497;
// Bound on parent-link walks, so that a cycle in corrupt data ends.
static constexpr int kMaxAncestorSteps = 4096;

inline ELF_DWARF_STATE* _State(ELF_FILE* pFile) {
  return &pFile->dwarf;
}
inline DWA_CONTEXT* _Ctx(ELF_FILE* pFile) {
  return pFile->dwarf.pDwarf;
}

// The list of DIE identifiers of one kind, to fill or to read.
ELF_ID_LIST* _GetIdList(ELF_FILE* pFile, ELF_DIE_LIST List);
static constexpr U32 kNumDieLists = ELF_LIST_INLINE_FUNCS + 1;
// Empties every table a load fills, from the DWARF or from the index cache, and releases the DIEs
// that queries fetched. The libdwarf instance stays.
void _ReleaseTreeTables(ELF_FILE* pFile);

// True when the attribute is there, through the usual links, with a non-zero value: "has" in the
// sense of the walk's handlers.
bool _HasNonZero(ELF_FILE* pFile, ELF_DIE Die, U16 Attr);
