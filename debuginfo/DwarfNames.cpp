// Names of DIEs and the C declaration text of their types, built by walking DW_AT_type; see
// DwarfTree.h.
#include <dwarf.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "debuginfo/DwarfIndex.h"
#include "debuginfo/DwarfTreeInternal.h"

/*********************************************************************
 * Names
 */

void ELF_NormaliseBaseTypeName(char* s, size_t Size) {
  static const char* const aaRules[][2] = {
      {"unsigned char", "uchar"},
      {"short unsigned int", "ushort"},
      {"unsigned short int", "ushort"},
      {"unsigned short", "ushort"},
      {"unsigned int", "uint"},
      {"long unsigned int", "ulong"},
      {"long uint", "ulong"},
      {"unsigned long int", "ulong"},
      {"unsigned long", "ulong"},
      {"long long unsigned int", "long long uint"},
      {"unsigned long long int", "long long uint"},
      {"unsigned long long", "long long uint"},
      {"signed char", "char"},
      {"short signed int", "short"},
      {"signed short int", "short"},
      {"signed short", "short"},
      {"short int", "short"},
      {"signed int", "int"},
      {"long signed int", "long"},
      {"signed long int", "long"},
      {"signed long", "long"},
      {"long int", "long"},
      {"long long signed int", "long long"},
      {"signed long long int", "long long"},
      {"signed long long", "long long"},
      {"long long int", "long long"},
  };
  // One pass from left to right, the longest spelling first at each place, and replaced text is
  // not matched again: applied one after another, "unsigned int" would turn "long long unsigned
  // int" into "long long uint" and then "long uint" into "long ulong".
  char acOut[kTypeTextSize];
  size_t nOut = 0;
  const char* p = s;
  while (*p && nOut + 1 < sizeof(acOut)) {
    const char* sBest = nullptr;
    size_t nBest = 0;
    bool wordStart = p == s || p[-1] == ' ' || p[-1] == '*' || p[-1] == '(';
    for (const auto& rule : aaRules) {
      size_t n = strlen(rule[0]);
      if (wordStart && n > nBest && strncmp(p, rule[0], n) == 0 &&
          (p[n] == 0 || p[n] == ' ' || p[n] == '*')) {
        sBest = rule[1];
        nBest = n;
      }
    }
    if (sBest) {
      size_t n = strlen(sBest);
      if (nOut + n + 1 >= sizeof(acOut))
        break;
      memcpy(acOut + nOut, sBest, n);
      nOut += n;
      p += nBest;
    } else {
      acOut[nOut++] = *p++;
    }
  }
  acOut[nOut] = 0;
  if (*p == 0 && nOut < Size)
    memcpy(s, acOut, nOut + 1);
}

static const char* _GetOwnName(ELF_FILE* pFile, ELF_DIE Die) {
  const char* sName = DWA_GetName(_Ctx(pFile), Die);
  if (!sName || _GetDieType(pFile, Die) != ELF_TAG_BASE_TYPE)
    return sName;
  ELF_DWARF_STATE* s = _State(pFile);
  U64 id = _GetDieID(pFile, Die);
  auto it = s->pDies->dieNames.find(id);
  if (it != s->pDies->dieNames.end())
    return it->second.c_str();
  char acName[kTypeTextSize];
  snprintf(acName, sizeof(acName), "%s", sName);
  ELF_NormaliseBaseTypeName(acName, sizeof(acName));
  return s->pDies->dieNames.emplace(id, acName).first->second.c_str();
}

const char* _GetDieName(ELF_FILE* pFile, ELF_DIE Die, int Depth) {
  if (!Die || Depth > kMaxNameDepth)
    return nullptr;
  const char* sName = _GetOwnName(pFile, Die);
  if (sName)
    return sName;
  ELF_DIE links[3] = {_GetReferenceDie(pFile, Die, DW_AT_abstract_origin),
                      _GetReferenceDie(pFile, Die, DW_AT_specification), _GetDefinitionDie(pFile, Die)};
  for (ELF_DIE link : links) {
    if (!link || link == Die)
      continue;
    sName = _GetDieName(pFile, link, Depth + 1);
    if (sName)
      return sName;
  }
  return nullptr;
}

// Puts text in front of a buffer of kTypeTextSize characters; dropped if it would not fit.
static void _Prepend(char* sOut, const char* sText) {
  size_t nOut = strlen(sOut), nText = strlen(sText);
  if (nOut + nText >= kTypeTextSize)
    return;
  memmove(sOut + nText, sOut, nOut + 1);
  memcpy(sOut, sText, nText);
}

static void _BuildDieDataTypeName(ELF_FILE* pFile, ELF_DIE StartDie, char* sOut, int Depth);

// "(type, type)" of the parameters of a function or function type.
static void _BuildParameterList(ELF_FILE* pFile, ELF_DIE Die, char* sList, int Depth) {
  snprintf(sList, kTypeTextSize, "(");
  ELF_DIE child = _CreateChild(pFile, Die);
  bool first = true;
  for (int n = 0; child && n < 256; n++) {
    if (_GetDieType(pFile, child) == ELF_TAG_FORMAL_PARAMETER &&
        !_HasNonZero(pFile, child, DW_AT_artificial)) {
      char acParam[kTypeTextSize] = "";
      _BuildDieDataTypeName(pFile, child, acParam, Depth + 1);
      size_t len = strlen(sList);
      snprintf(sList + len, kTypeTextSize - len, "%s%s", first ? "" : ", ", acParam);
      first = false;
    }
    child = _CreateSibling(pFile, child);
  }
  _DeallocDie(pFile, child);
  size_t len = strlen(sList);
  snprintf(sList + len, kTypeTextSize - len, ")");
}

static void _BuildDieDataTypeName(ELF_FILE* pFile, ELF_DIE StartDie, char* sOut, int Depth) {
  sOut[0] = 0;
  if (Depth > 4)
    return;  // parameters of parameters of ...: enough for any real declaration
  char acTypedefName[kTypeTextSize] = "";
  size_t typedefOutLen = 0;  // length of the text when the last typedef was passed
  char acQualifier[32] = "";
  ELF_DIE die = StartDie;
  for (int step = 0; step < kMaxTypeSteps && die; step++) {
    U16 tag = _GetDieType(pFile, die);
    bool stop = false;
    switch (tag) {
      case ELF_TAG_ARRAY: {
        char acDims[kTypeTextSize] = "[";
        ELF_DIE child = _CreateChild(pFile, die);
        bool first = true;
        for (int n = 0; child && n < 64; n++) {
          if (_GetDieType(pFile, child) == ELF_TAG_SUBRANGE) {
            size_t len = strlen(acDims);
            snprintf(acDims + len, sizeof(acDims) - len, "%s%u", first ? "" : ",",
                     _GetSubrangeElemCnt(pFile, child));
            first = false;
          }
          child = _CreateSibling(pFile, child);
        }
        _DeallocDie(pFile, child);
        size_t len = strlen(acDims);
        snprintf(acDims + len, sizeof(acDims) - len, "]");
        _Prepend(sOut, acDims);
        break;
      }
      case ELF_TAG_CLASS:
      case ELF_TAG_STRUCTURE:
      case ELF_TAG_UNION:
      case ELF_TAG_ENUMERATION: {
        const char* sName = _GetDieName(pFile, die);
        _Prepend(sOut, sName ? sName : acTypedefName);
        const char* sKeyword = tag == ELF_TAG_CLASS       ? "class"
                               : tag == ELF_TAG_STRUCTURE ? "struct"
                               : tag == ELF_TAG_UNION     ? "union"
                                                          : "enum";
        if (sOut[0])
          _Prepend(sOut, " ");
        _Prepend(sOut, sKeyword);
        stop = tag == ELF_TAG_ENUMERATION;
        break;
      }
      case ELF_TAG_POINTER:
        _Prepend(sOut, "*");
        break;
      case ELF_TAG_REFERENCE:
        _Prepend(sOut, "&");
        break;
      case ELF_TAG_SUBROUTINE_TYPE:
      case ELF_TAG_INLINED_SUBROUTINE:
      case ELF_TAG_SUBPROGRAM: {
        char acList[kTypeTextSize];
        _BuildParameterList(pFile, die, acList, Depth);
        _Prepend(sOut, acList);
        DWA_VALUE v;
        if (!_CreateDieAttrEx(pFile, die, DW_AT_type, &v, 0))
          _Prepend(sOut, "void");
        break;
      }
      case ELF_TAG_TYPEDEF: {
        const char* sName = _GetDieName(pFile, die);
        snprintf(acTypedefName, sizeof(acTypedefName), "%s", sName ? sName : "");
        typedefOutLen = strlen(sOut);
        break;
      }
      case ELF_TAG_BASE_TYPE: {
        const char* sName = _GetDieName(pFile, die);
        if (sName)
          _Prepend(sOut, sName);
        break;
      }
      case ELF_TAG_CONST:
        snprintf(acQualifier, sizeof(acQualifier), "const ");
        break;
      case ELF_TAG_VOLATILE:
        snprintf(acQualifier, sizeof(acQualifier), "volatile ");
        break;
      default:
        break;
    }
    if (stop)
      break;
    die = _GetReferenceDie(pFile, die, DW_AT_type);
  }
  // A walk that ends on a pointer to nothing is a pointer to void, or to the typedef that named it.
  if (strspn(sOut, "*") == strlen(sOut)) {
    if (acTypedefName[0] == 0) {
      if (sOut[0] == 0)
        snprintf(sOut, kTypeTextSize, "*");
      _Prepend(sOut, "void");
    } else {
      // The typedef names everything behind it ("typedef void* handle_t"): what the walk added
      // after it is dropped.
      size_t len = strlen(sOut);
      if (typedefOutLen < len)
        memmove(sOut, sOut + len - typedefOutLen, typedefOutLen + 1);
      _Prepend(sOut, acTypedefName);
    }
  }
  _Prepend(sOut, acQualifier);
  if (_IsStaticDie(pFile, StartDie))
    _Prepend(sOut, "static ");
  if (_HasNonZero(pFile, StartDie, DW_AT_virtuality))
    _Prepend(sOut, "virtual ");
}

const char* _GetDieTypeStr(ELF_FILE* pFile, ELF_DIE Die) {
  if (!Die || !pFile || !_Ctx(pFile))
    return nullptr;
  ELF_TRACE_DIE(_GetDieOffset(pFile, Die));
  ELF_DWARF_STATE* s = _State(pFile);
  U64 id = _GetDieID(pFile, Die);
  auto it = s->pDies->dieTypeNames.find(id);
  if (it != s->pDies->dieTypeNames.end())
    return it->second.c_str();
  char acText[kTypeTextSize] = "";
  _BuildDieDataTypeName(pFile, Die, acText, 0);
  size_t len = strlen(acText);
  if (len == 0 || len > kMaxKeptTypeText)
    return nullptr;
  return s->pDies->dieTypeNames.emplace(id, acText).first->second.c_str();
}

static const ELF_CU_INFO* _FindCuInfo(ELF_FILE* pFile, U64 CuOffset) {
  const ELF_CU_INFOS* p = &_State(pFile)->cuInfos;
  for (U32 i = 0; i < p->n; i++) {
    if (p->items[i].offset == CuOffset)
      return &p->items[i];
  }
  return nullptr;
}

const char* _GetDieDeclFileName(ELF_FILE* pFile, ELF_DIE Die) {
  bool found = false;
  U64 number = _GetAttributeAsU64(pFile, Die, DW_AT_decl_file, &found);
  if (!found)
    return nullptr;
  const ELF_CU_INFO* pCu = _FindCuInfo(pFile, _GetDieAncestorOff(pFile, Die));
  if (!pCu)
    return nullptr;
  // Version 5 line tables number files from 0; earlier ones from 1, with 0 meaning none.
  U64 index = pCu->lineVersion >= 5 ? number : number - 1;
  if (pCu->lineVersion < 5 && number == 0)
    return nullptr;
  return index < pCu->fileCount ? pCu->fileNames[index] : nullptr;
}
