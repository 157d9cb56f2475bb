// Helpers and limits shared by the files of the DWARF symbol tree (DwarfTree.cpp, DwarfNames.cpp);
// not for use outside the tree.
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

// True when the attribute is there, through the usual links, with a non-zero value: "has" in the
// sense of the walk's handlers.
bool _HasNonZero(ELF_FILE* pFile, ELF_DIE Die, U16 Attr);
