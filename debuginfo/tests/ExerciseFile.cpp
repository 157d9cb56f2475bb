// See ExerciseFile.h.
#include "ExerciseFile.h"

#include <dwarf.h>

#include <cstdlib>
#include <cstring>

#include "debuginfo/DwarfTree.h"
#include "debuginfo/ElfFile.h"

static unsigned ExerciseDie(ELF_FILE* pFile, ELF_DIE Die) {
  unsigned sum = 0;
  if (!Die)
    return 0;
  const char* sName = _GetDieName(pFile, Die);
  const char* sType = _GetDieTypeStr(pFile, Die);
  const char* sDecl = _GetDieDeclFileName(pFile, Die);
  sum += sName ? (unsigned)strlen(sName) : 0;
  sum += sType ? (unsigned)strlen(sType) : 0;
  sum += sDecl ? (unsigned)strlen(sDecl) : 0;
  sum += (unsigned)_GetDieParentTypeOff(pFile, Die) + (unsigned)_GetDieParentFuncOff(pFile, Die);
  sum += (unsigned)_GetDieParentNamespaceOff(pFile, Die) + (unsigned)_GetAnyDieAncestorOff(pFile, Die);
  sum += (unsigned)_GetDieAncestorOff(pFile, Die);
  sum += _IsStaticDie(pFile, Die) ? 1 : 0;
  DWA_RANGE* paRanges = nullptr;
  unsigned n = 0;
  if (_GetDieRanges(pFile, Die, &paRanges, &n) == 0)
    sum += n;
  free(paRanges);
  DWA_LOC_ENTRY* paEntries = nullptr;
  if (_GetDieLocations(pFile, Die, DW_AT_location, &paEntries, &n) == 0)
    sum += n;
  DWA_FreeLocations(paEntries, n);
  ELF_DIE child = _CreateChild(pFile, Die);
  for (int i = 0; child && i < 64; i++) {
    sum += _GetDieType(pFile, child);
    child = _CreateSibling(pFile, child);
  }
  _DeallocDie(pFile, child);
  return sum;
}

unsigned ExerciseFile(ELF_FILE* pFile) {
  unsigned sum = 0;
  for (unsigned i = 0; i < ELF_GetSectionCount(pFile); i++)
    sum += (unsigned)strlen(ELF_GetSectionName(pFile, i));
  for (unsigned i = 0; i < ELF_GetProgramHeaderCount(pFile); i++) {
    sum += ELF_GetSegmentFirstSectionOff(pFile, i);
    U32 addr = ELF_GetSegmentVirtAddr(pFile, i);
    sum += (unsigned)ELF_ReadTargetMem(addr, 4) + (unsigned)ELF_ReadTargetMem(addr + 2, 2);
  }
  for (unsigned i = 0; i < ELF_GetSymCount(pFile); i++) {
    const ELF_SYM* pSym = ELF_GetSym(pFile, i);
    sum += (unsigned)strlen(ELF_GetSymDisplayName(pFile, i));
    sum += (unsigned)ELF_FindFuncSymbol(pFile, pSym->st_value) +
           ELF_FindMappingRange(pFile, pSym->st_value).type;
  }
  for (unsigned list = ELF_LIST_GLOBAL_VARS; list <= ELF_LIST_INLINE_FUNCS; list++) {
    for (unsigned i = 0; i < ELF_GetDieListCount(pFile, (ELF_DIE_LIST)list) && i < 2000; i++) {
      ELF_SYM_HANDLE h = ELF_GetDieListHandle(pFile, (ELF_DIE_LIST)list, i);
      ELF_DIE die = _GetDie(h);
      sum += ExerciseDie(pFile, die);
      for (unsigned scope = ELF_SCOPE_LOCAL_VARS; scope <= ELF_SCOPE_INHERITANCE; scope++) {
        for (unsigned k = 0; k < ELF_GetScopeListCount(pFile, h, (ELF_SCOPE_LIST)scope) && k < 200; k++) {
          sum += ExerciseDie(pFile, _GetDie(ELF_GetScopeListHandle(pFile, h, (ELF_SCOPE_LIST)scope, k)));
        }
      }
    }
  }
  for (unsigned i = 0; i < ELF_GetLineRowCount(pFile); i++) {
    const ELF_LINE_ROW* pRow = ELF_GetLineRow(pFile, i);
    sum += pRow->line +
           (unsigned)strlen(ELF_GetLineRowFileName(pFile, i) ? ELF_GetLineRowFileName(pFile, i) : "");
    if (i % 16 == 0) {
      DWA_REG_RULE aRules[DWA_NUM_FRAME_REGS], cfa;
      if (ELF_GetFrameRules(pFile, pRow->addr, aRules, &cfa) == 0)
        sum += cfa.Reg;
    }
  }
  for (unsigned i = 0; i < ELF_GetSrcFileCount(pFile); i++) {
    sum += ELF_GetSrcFileCUCount(pFile, ELF_GetSrcFileName(pFile, i));
  }
  return sum;
}
