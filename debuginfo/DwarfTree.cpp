// The DWARF symbol tree; see DwarfTree.h.
#include "debuginfo/DwarfTree.h"

#include <dwarf.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "debuginfo/DwarfTreeInternal.h"
#include "debuginfo/ElfFile.h"
#include "debuginfo/ElfHash.h"

/*********************************************************************
 * Growing lists
 */

static void _ListAppend(ELF_ID_LIST* pList, U64 Item) {
  if (pList->n == pList->capacity) {
    U32 capacity = pList->capacity ? pList->capacity * 2 : 4;
    U64* p = (U64*)realloc(pList->items, sizeof(U64) * capacity);
    if (!p)
      return;  // the entry is dropped, the list keeps its old capacity
    pList->items = p;
    pList->capacity = capacity;
  }
  pList->items[pList->n++] = Item;
}

static int _StringListAppend(ELF_STRING_LIST* pList, const char* s) {
  if (pList->n == pList->capacity) {
    U32 capacity = pList->capacity ? pList->capacity * 2 : 4;
    char** p = (char**)realloc(pList->items, sizeof(char*) * capacity);
    if (!p)
      return -1;
    pList->items = p;
    pList->capacity = capacity;
  }
  char* sCopy = strdup(s);
  if (!sCopy)
    return -1;
  pList->items[pList->n++] = sCopy;
  return (int)pList->n - 1;
}

static void _LineRowAppend(ELF_LINE_ROWS* pRows, const ELF_LINE_ROW& Row) {
  if (pRows->n == pRows->capacity) {
    U32 capacity = pRows->capacity ? pRows->capacity * 2 : 64;
    ELF_LINE_ROW* p = (ELF_LINE_ROW*)realloc(pRows->items, sizeof(ELF_LINE_ROW) * capacity);
    if (!p)
      return;
    pRows->items = p;
    pRows->capacity = capacity;
  }
  pRows->items[pRows->n++] = Row;
}

U32 ELF_Djb2Hash(const char* s) {
  U32 hash = 5381;
  for (; *s; s++)
    hash = hash * 33 + (U32)(I32)(signed char)*s;
  return hash;
}

/*********************************************************************
 * Handles
 */

ELF_SYM_HANDLE ELF_MakeElfHandle(int FileIndex, U32 Index) {
  if (FileIndex < 0 || FileIndex >= ELF_MAX_FILES)
    return 0;
  return ELF_HANDLE_MAGIC | ((U64)ELF_HANDLE_ELF << 45) | ((U64)FileIndex << 42) | Index;
}

ELF_SYM_HANDLE ELF_MakeDwarfHandle(int FileIndex, U64 Id) {
  if (FileIndex < 0 || FileIndex >= ELF_MAX_FILES || Id == 0 || Id > ELF_HANDLE_ID_MASK)
    return 0;
  return ELF_HANDLE_MAGIC | ((U64)ELF_HANDLE_DWARF << 45) | ((U64)FileIndex << 42) | Id;
}

bool _IsValidSymbolHandle(ELF_SYM_HANDLE h) {
  if ((h & ELF_HANDLE_MAGIC_MASK) != ELF_HANDLE_MAGIC)
    return false;
  U32 type = (U32)(h >> 45) & 7;
  U32 fileIndex = (U32)(h >> 42) & 7;
  return (type == ELF_HANDLE_DWARF || type == ELF_HANDLE_ELF) && fileIndex < (U32)ELF_MAX_FILES;
}

U32 _GetSymbolHandleType(ELF_SYM_HANDLE h) {
  return _IsValidSymbolHandle(h) ? (U32)(h >> 45) & 7 : 0;
}

bool _GetFile(ELF_SYM_HANDLE h, ELF_FILE** ppFile) {
  *ppFile = nullptr;
  if (!_IsValidSymbolHandle(h))
    return false;
  ELF_FILE* pFile = ELF_GetFileByIndex((int)((h >> 42) & 7));
  if (!ELF_IsValidFile(pFile))
    return false;
  *ppFile = pFile;
  return true;
}

bool _GetSymID(ELF_SYM_HANDLE h, U64* pId) {
  *pId = 0;
  if (!_IsValidSymbolHandle(h))
    return false;
  *pId = h & ELF_HANDLE_ID_MASK;
  return true;
}

bool _IsElfSymbolHandle(ELF_SYM_HANDLE h) {
  return _GetSymbolHandleType(h) == ELF_HANDLE_ELF;
}
bool _IsDwarfSymbolHandle(ELF_SYM_HANDLE h) {
  return _GetSymbolHandleType(h) == ELF_HANDLE_DWARF;
}

bool _GetDwarfSymContext(ELF_SYM_HANDLE h, ELF_FILE** ppFile, ELF_DIE* pDie) {
  ELF_TRACE_HANDLE(h);
  *pDie = nullptr;
  ELF_FILE* pFile = nullptr;
  U64 id = 0;
  if (!_IsDwarfSymbolHandle(h) || !_GetFile(h, &pFile) || !_GetSymID(h, &id))
    return false;
  ELF_DIE die = (ELF_DIE)(uintptr_t)ELF_HashGet(pFile->dwarf.dieById, id);
  if (!die)
    return false;
  if (ppFile)
    *ppFile = pFile;
  *pDie = die;
  return true;
}

bool _GetElfSymContext(ELF_SYM_HANDLE h, ELF_FILE** ppFile, U32* pIndex) {
  ELF_TRACE_HANDLE(h);
  ELF_FILE* pFile = nullptr;
  U64 id = 0;
  if (!_IsElfSymbolHandle(h) || !_GetFile(h, &pFile) || !_GetSymID(h, &id))
    return false;
  if (id >= pFile->symCount)
    return false;
  if (ppFile)
    *ppFile = pFile;
  *pIndex = (U32)id;
  return true;
}

ELF_DIE _GetDie(ELF_SYM_HANDLE h) {
  ELF_DIE die = nullptr;
  _GetDwarfSymContext(h, nullptr, &die);
  return die;
}

ELF_SYM_HANDLE _GetDwarfSymHandle(ELF_FILE* pFile, ELF_DIE Die) {
  if (!Die || !pFile || !_Ctx(pFile))
    return 0;
  int index = ELF_GetFileIndex(pFile);
  if (index < 0)
    return 0;
  return ELF_MakeDwarfHandle(index, _GetDieID(pFile, Die));
}

/*********************************************************************
 * The DIE store
 */

U64 _MakeDieID(U64 Offset, bool IsInfo) {
  return Offset + (IsInfo ? 1 : ELF_TYPES_ID_BASE);
}

static U64 _IdToOffset(U64 Id, bool* pIsInfo) {
  *pIsInfo = Id < ELF_TYPES_ID_BASE;
  return *pIsInfo ? Id - 1 : Id - ELF_TYPES_ID_BASE;
}

U64 _GetDieOffset(ELF_FILE* pFile, ELF_DIE Die) {
  return Die ? DWA_GetOffset(_Ctx(pFile), Die) : 0;
}
U64 _GetDieID(ELF_FILE* pFile, ELF_DIE Die) {
  return Die ? _MakeDieID(DWA_GetOffset(_Ctx(pFile), Die), DWA_IsInfo(Die)) : 0;
}
bool _IsTypeUnitDie(ELF_FILE*, ELF_DIE Die) {
  return Die && !DWA_IsInfo(Die);
}

static void _HashDieTag(ELF_FILE* pFile, U64 Id, U16 Tag) {
  ELF_HashPut(_State(pFile)->dieTags, Id, Tag);
}

U16 _GetDieType(ELF_FILE* pFile, ELF_DIE Die) {
  if (!Die)
    return ELF_TAG_NONE;
  U64 id = _GetDieID(pFile, Die);
  if (ELF_HashHas(_State(pFile)->dieTags, id))
    return (U16)ELF_HashGet(_State(pFile)->dieTags, id);
  U16 tag = DWA_GetTag(_Ctx(pFile), Die);
  _HashDieTag(pFile, id, tag);
  return tag;
}

// The tag of the DIE at an offset, from the table when it is known there.
static U16 _GetTagAtOffset(ELF_FILE* pFile, U64 Offset, bool IsInfo) {
  U64 id = _MakeDieID(Offset, IsInfo);
  if (ELF_HashHas(_State(pFile)->dieTags, id))
    return (U16)ELF_HashGet(_State(pFile)->dieTags, id);
  ELF_DIE die = _GetDieAtOffset(pFile, Offset, IsInfo);
  return die ? _GetDieType(pFile, die) : (U16)ELF_TAG_NONE;
}

static bool _IsStored(ELF_FILE* pFile, ELF_DIE Die) {
  U64 id = _GetDieID(pFile, Die);
  return (ELF_DIE)(uintptr_t)ELF_HashGet(_State(pFile)->dieById, id) == Die;
}

// Stores a DIE under its identifier. 1 stored, 0 the identifier was already there.
static int _HashDie(ELF_FILE* pFile, ELF_DIE Die) {
  ELF_DWARF_STATE* s = _State(pFile);
  U64 offset = _GetDieOffset(pFile, Die);
  bool isInfo = DWA_IsInfo(Die);
  U64 id = _MakeDieID(offset, isInfo);
  if (ELF_HashHas(s->dieById, id))
    return 0;
  if (ELF_HashPut(s->dieById, id, (U64)(uintptr_t)Die) < 0)
    return 0;
  _GetDieType(pFile, Die);
  DWA_VALUE Declaration;
  if (DWA_GetAttr(_Ctx(pFile), Die, DW_AT_specification, &Declaration) == 1 && Declaration.Kind == DWA_VALUE_REFERENCE) {
    ELF_HashPut(s->dieDefs, _MakeDieID(Declaration.u, isInfo), offset);
    ELF_HashPut(s->dieDecls, id, Declaration.u);
  }
  return 1;
}

ELF_DIE _GetDieAtOffset(ELF_FILE* pFile, U64 Offset, bool IsInfo) {
  ELF_TRACE_DIE(Offset);
  if (!pFile || !_Ctx(pFile))
    return nullptr;
  U64 id = _MakeDieID(Offset, IsInfo);
  ELF_DIE die = (ELF_DIE)(uintptr_t)ELF_HashGet(_State(pFile)->dieById, id);
  if (die)
    return die;
  die = DWA_GetDieAtOffset(_Ctx(pFile), Offset, IsInfo);
  if (!die)
    return nullptr;
  if (_GetDieOffset(pFile, die) != Offset || _HashDie(pFile, die) != 1) {
    DWA_ReleaseDie(_Ctx(pFile), die);
    return nullptr;
  }
  return die;
}

ELF_DIE _CopyDie(ELF_FILE* pFile, ELF_DIE Die) {
  if (!Die)
    return nullptr;
  return DWA_GetDieAtOffset(_Ctx(pFile), _GetDieOffset(pFile, Die), DWA_IsInfo(Die));
}

void _DeallocDie(ELF_FILE* pFile, ELF_DIE Die) {
  if (Die && !_IsStored(pFile, Die))
    DWA_ReleaseDie(_Ctx(pFile), Die);
}

ELF_DIE _CreateChild(ELF_FILE* pFile, ELF_DIE Die) {
  if (!Die || !DWA_HasChildren(_Ctx(pFile), Die))
    return nullptr;
  ELF_DIE child = DWA_GetChild(_Ctx(pFile), Die);
  if (child)
    ELF_HashPut(_State(pFile)->dieParents, _GetDieID(pFile, child), _GetDieOffset(pFile, Die));
  return child;
}

ELF_DIE _CreateSibling(ELF_FILE* pFile, ELF_DIE Die) {
  if (!Die)
    return nullptr;
  ELF_DIE sibling = DWA_GetSibling(_Ctx(pFile), Die);
  if (sibling) {
    U64 parent = ELF_HashGet(_State(pFile)->dieParents, _GetDieID(pFile, Die));
    if (parent)
      ELF_HashPut(_State(pFile)->dieParents, _GetDieID(pFile, sibling), parent);
  }
  _DeallocDie(pFile, Die);
  return sibling;
}

bool _HasChildren(ELF_FILE* pFile, ELF_DIE Die) {
  return Die && DWA_HasChildren(_Ctx(pFile), Die);
}

bool _HasAttribute(ELF_FILE* pFile, ELF_DIE Die, U16 Attr) {
  return Die && DWA_HasAttr(_Ctx(pFile), Die, Attr);
}

/*********************************************************************
 * Attributes
 */

bool _CreateDieAttr(ELF_FILE* pFile, ELF_DIE Die, U16 Attr, DWA_VALUE* pValue) {
  if (!Die)
    return false;
  return DWA_GetAttr(_Ctx(pFile), Die, Attr, pValue) == 1 && pValue->Kind != DWA_VALUE_NONE;
}

ELF_DIE _GetReferenceDie(ELF_FILE* pFile, ELF_DIE Die, U16 Attr) {
  DWA_VALUE v;
  // Links themselves are never inherited (_CreateDieAttrEx knows), other references are: the type
  // of an out-of-line instance lives on its abstract origin or its declaration.
  if (!_CreateDieAttrEx(pFile, Die, Attr, &v, 0))
    return nullptr;
  if (v.Kind == DWA_VALUE_SIGNATURE) {
    U64 typeOffset = ELF_HashGet(_State(pFile)->typeUnits, v.u);
    if (!typeOffset)
      return nullptr;
    bool isInfo = false;
    U64 offset = _IdToOffset(typeOffset, &isInfo);
    return _GetDieAtOffset(pFile, offset, isInfo);
  }
  if (v.Kind != DWA_VALUE_REFERENCE)
    return nullptr;
  return _GetDieAtOffset(pFile, v.u, v.RefIsInfo);
}

// The DIE a namespace extends (DW_AT_extension), for attribute lookups on namespaces.
static ELF_DIE _GetNamespaceExtDie(ELF_FILE* pFile, ELF_DIE Die) {
  ELF_DWARF_STATE* s = _State(pFile);
  U64 offset = _GetDieOffset(pFile, Die);
  for (U32 i = 0; i < s->namespaceExts.n; i++) {
    bool isInfo = false;
    U64 extOffset = _IdToOffset(s->namespaceExts.items[i], &isInfo);
    ELF_DIE ext = _GetDieAtOffset(pFile, extOffset, isInfo);
    DWA_VALUE v;
    if (ext && _CreateDieAttr(pFile, ext, DW_AT_extension, &v) && v.Kind == DWA_VALUE_REFERENCE &&
        v.u == offset) {
      return ext;
    }
  }
  return nullptr;
}

bool _CreateDieAttrEx(ELF_FILE* pFile, ELF_DIE Die, U16 Attr, DWA_VALUE* pValue, int Depth) {
  if (!Die || Depth > kMaxAttrDepth)
    return false;
  if (_CreateDieAttr(pFile, Die, Attr, pValue))
    return true;
  if (Attr == DW_AT_specification || Attr == DW_AT_abstract_origin || Attr == DW_AT_declaration ||
      Attr == DW_AT_extension) {
    return false;
  }
  if (_GetDieType(pFile, Die) == ELF_TAG_NAMESPACE) {
    ELF_DIE ext = _GetNamespaceExtDie(pFile, Die);
    return ext && ext != Die && _CreateDieAttr(pFile, ext, Attr, pValue);
  }
  ELF_DIE Declaration = _GetReferenceDie(pFile, Die, DW_AT_specification);
  if (Declaration && Declaration != Die && _CreateDieAttr(pFile, Declaration, Attr, pValue))
    return true;
  ELF_DIE origin = _GetReferenceDie(pFile, Die, DW_AT_abstract_origin);
  if (origin && origin != Die)
    return _CreateDieAttrEx(pFile, origin, Attr, pValue, Depth + 1);
  ELF_DIE def = _GetDefinitionDie(pFile, Die);
  return def && def != Die && _CreateDieAttr(pFile, def, Attr, pValue);
}

U64 _GetAttributeAsU64(ELF_FILE* pFile, ELF_DIE Die, U16 Attr, bool* pFound) {
  DWA_VALUE v;
  bool found = _CreateDieAttrEx(pFile, Die, Attr, &v, 0);
  if (pFound)
    *pFound = found;
  if (!found)
    return 0;
  switch (v.Kind) {
    case DWA_VALUE_ADDRESS:
    case DWA_VALUE_UNSIGNED:
    case DWA_VALUE_SIGNED:
    case DWA_VALUE_FLAG:
    case DWA_VALUE_REFERENCE:
    case DWA_VALUE_SIGNATURE:
      return v.u;
    default:
      if (pFound)
        *pFound = false;
      return 0;
  }
}

bool _HasNonZero(ELF_FILE* pFile, ELF_DIE Die, U16 Attr) {
  bool found = false;
  return _GetAttributeAsU64(pFile, Die, Attr, &found) != 0 && found;
}

bool _IsDeclarationDie(ELF_FILE* pFile, ELF_DIE Die) {
  return Die && _HasNonZero(pFile, Die, DW_AT_declaration);
}

ELF_DIE _GetDefinitionDie(ELF_FILE* pFile, ELF_DIE Die) {
  if (!Die)
    return nullptr;
  DWA_VALUE v;
  bool isDecl = DWA_GetAttr(_Ctx(pFile), Die, DW_AT_declaration, &v) == 1 && v.u != 0;
  bool hasSize = DWA_GetAttr(_Ctx(pFile), Die, DW_AT_byte_size, &v) == 1;
  if (!isDecl && hasSize)
    return nullptr;
  U64 id = _GetDieID(pFile, Die);
  U64 offset = ELF_HashGet(_State(pFile)->dieDefs, id);
  if (offset == 0)
    return nullptr;
  if (offset == _GetDieOffset(pFile, Die))
    return Die;
  return _GetDieAtOffset(pFile, offset, DWA_IsInfo(Die));
}

U64 _GetDeclDieOff(ELF_FILE* pFile, ELF_DIE Die) {
  return Die ? ELF_HashGet(_State(pFile)->dieDecls, _GetDieID(pFile, Die)) : 0;
}

ELF_DIE _GetAbstractInstanceOf(ELF_FILE* pFile, ELF_DIE Die) {
  return _GetReferenceDie(pFile, Die, DW_AT_abstract_origin);
}

bool _IsDataTypeDie(ELF_FILE* pFile, ELF_DIE Die) {
  switch (_GetDieType(pFile, Die)) {
    case ELF_TAG_ARRAY:
    case ELF_TAG_CLASS:
    case ELF_TAG_ENUMERATION:
    case ELF_TAG_POINTER:
    case ELF_TAG_REFERENCE:
    case ELF_TAG_STRUCTURE:
    case ELF_TAG_SUBROUTINE_TYPE:
    case ELF_TAG_TYPEDEF:
    case ELF_TAG_UNION:
    case ELF_TAG_PTR_TO_MEMBER:
    case ELF_TAG_BASE_TYPE:
    case ELF_TAG_CONST:
    case ELF_TAG_VOLATILE:
    case ELF_TAG_RESTRICT:
      return true;
    default:
      return false;
  }
}

ELF_DIE _GetDataTypeDie(ELF_FILE* pFile, ELF_DIE Die, bool IncludeSelf) {
  if (!Die)
    return nullptr;
  if (IncludeSelf && _IsDataTypeDie(pFile, Die))
    return Die;
  return _GetReferenceDie(pFile, Die, DW_AT_type);
}

ELF_DIE _GetTypeDie(ELF_FILE* pFile, ELF_DIE Die, U16 Tag) {
  ELF_DIE t = _GetReferenceDie(pFile, Die, DW_AT_type);
  for (int step = 0; t && step < kMaxTypeSteps; step++) {
    if (_GetDieType(pFile, t) == Tag)
      return t;
    t = _GetReferenceDie(pFile, t, DW_AT_type);
  }
  return nullptr;
}

U32 _GetSubrangeElemCnt(ELF_FILE* pFile, ELF_DIE Die) {
  DWA_VALUE v;
  if (_CreateDieAttr(pFile, Die, DW_AT_count, &v))
    return (U32)v.u;
  I64 lower = _CreateDieAttr(pFile, Die, DW_AT_lower_bound, &v) ? v.s : 0;
  if (_CreateDieAttr(pFile, Die, DW_AT_upper_bound, &v))
    return (U32)(v.s - lower + 1);
  return (U32)(1 - lower);
}

/*********************************************************************
 * Ancestors
 */

static bool _TagIn(U16 Tag, const U16* paTags, int n) {
  for (int i = 0; i < n; i++) {
    if (paTags[i] == Tag)
      return true;
  }
  return false;
}

// The nearest ancestor (by the parent table) whose tag is in the set, as an offset; 0 if none.
static U64 _FindAncestorOff(ELF_FILE* pFile, U64 Offset, bool IsInfo, const U16* paTags, int n) {
  U64 parent = ELF_HashGet(_State(pFile)->dieParents, _MakeDieID(Offset, IsInfo));
  for (int step = 0; parent && step < kMaxAncestorSteps; step++) {
    if (_TagIn(_GetTagAtOffset(pFile, parent, IsInfo), paTags, n))
      return parent;
    U64 next = ELF_HashGet(_State(pFile)->dieParents, _MakeDieID(parent, IsInfo));
    if (next == parent)
      break;
    parent = next;
  }
  return 0;
}

static const U16 _aCompUnitTags[] = {ELF_TAG_COMPILE_UNIT};
static const U16 _aTypeParentTags[] = {ELF_TAG_STRUCTURE, ELF_TAG_CLASS, ELF_TAG_ENUMERATION, ELF_TAG_UNION};
static const U16 _aFuncParentTags[] = {ELF_TAG_SUBPROGRAM, ELF_TAG_INLINED_SUBROUTINE};
static const U16 _aScopeTags[] = {ELF_TAG_SUBPROGRAM, ELF_TAG_INLINED_SUBROUTINE, ELF_TAG_SUBROUTINE_TYPE,
                                  ELF_TAG_LEXICAL_BLOCK};
static const U16 _aNamespaceTags[] = {ELF_TAG_NAMESPACE};

ELF_DIE _GetParentDie(ELF_FILE* pFile, ELF_DIE Die) {
  if (!Die)
    return nullptr;
  U64 parent = ELF_HashGet(_State(pFile)->dieParents, _GetDieID(pFile, Die));
  return parent ? _GetDieAtOffset(pFile, parent, DWA_IsInfo(Die)) : nullptr;
}

U64 _GetDieAncestorOff(ELF_FILE* pFile, ELF_DIE Die) {
  if (!Die)
    return 0;
  return _FindAncestorOff(pFile, _GetDieOffset(pFile, Die), DWA_IsInfo(Die), _aCompUnitTags, 1);
}

ELF_DIE _GetDieAncestor(ELF_FILE* pFile, ELF_DIE Die) {
  U64 offset = _GetDieAncestorOff(pFile, Die);
  return offset ? _GetDieAtOffset(pFile, offset, DWA_IsInfo(Die)) : nullptr;
}

U64 _GetAnyDieAncestorOff(ELF_FILE* pFile, ELF_DIE Die) {
  if (!Die)
    return 0;
  return _FindAncestorOff(pFile, _GetDieOffset(pFile, Die), DWA_IsInfo(Die), _aScopeTags, 4);
}

// From the DIE, then from its declaration, then through its abstract origin (to MaxDepth levels).
static U64 _FindParentOff(ELF_FILE* pFile, ELF_DIE Die, const U16* paTags, int n, int Depth, int MaxDepth) {
  if (!Die || Depth > MaxDepth)
    return 0;
  bool isInfo = DWA_IsInfo(Die);
  U64 off = _FindAncestorOff(pFile, _GetDieOffset(pFile, Die), isInfo, paTags, n);
  if (off)
    return off;
  U64 decl = _GetDeclDieOff(pFile, Die);
  if (decl) {
    off = _FindAncestorOff(pFile, decl, isInfo, paTags, n);
    if (off)
      return off;
  }
  ELF_DIE origin = _GetAbstractInstanceOf(pFile, Die);
  if (!origin || origin == Die)
    return 0;
  return _FindParentOff(pFile, origin, paTags, n, Depth + 1, MaxDepth);
}

U64 _GetDieParentTypeOff(ELF_FILE* pFile, ELF_DIE Die) {
  return _FindParentOff(pFile, Die, _aTypeParentTags, 4, 0, 5);
}

ELF_DIE _GetDieParentType(ELF_FILE* pFile, ELF_DIE Die) {
  U64 offset = _GetDieParentTypeOff(pFile, Die);
  return offset ? _GetDieAtOffset(pFile, offset, DWA_IsInfo(Die)) : nullptr;
}

U64 _GetDieParentFuncOff(ELF_FILE* pFile, ELF_DIE Die) {
  // No depth limit in principle; the ancestor bound stops a cycle of origins.
  return _FindParentOff(pFile, Die, _aFuncParentTags, 2, 0, kMaxAncestorSteps);
}

ELF_DIE _GetDieParentFunc(ELF_FILE* pFile, ELF_DIE Die) {
  U64 offset = _GetDieParentFuncOff(pFile, Die);
  return offset ? _GetDieAtOffset(pFile, offset, DWA_IsInfo(Die)) : nullptr;
}

U64 _GetDieParentNamespaceOff(ELF_FILE* pFile, ELF_DIE Die) {
  if (!Die)
    return 0;
  bool isInfo = DWA_IsInfo(Die);
  U64 off = _FindAncestorOff(pFile, _GetDieOffset(pFile, Die), isInfo, _aNamespaceTags, 1);
  if (off)
    return off;
  U64 decl = _GetDeclDieOff(pFile, Die);
  return decl ? _FindAncestorOff(pFile, decl, isInfo, _aNamespaceTags, 1) : 0;
}

ELF_DIE _GetDieParentNamespace(ELF_FILE* pFile, ELF_DIE Die) {
  U64 offset = _GetDieParentNamespaceOff(pFile, Die);
  return offset ? _GetDieAtOffset(pFile, offset, DWA_IsInfo(Die)) : nullptr;
}

bool _IsStaticDie(ELF_FILE* pFile, ELF_DIE Die) {
  if (!Die)
    return false;
  if (_GetDieParentFuncOff(pFile, Die)) {
    // A local is static when its location is a fixed address (DW_OP_addr alone).
    DWA_LOC_ENTRY* paEntries = nullptr;
    U32 n = 0;
    bool isStatic = false;
    if (DWA_GetLocations(_Ctx(pFile), Die, DW_AT_location, &paEntries, &n) == 0 && n == 1 &&
        paEntries[0].AllAddresses && paEntries[0].NumOps == 1 && paEntries[0].paOps[0].Op == DW_OP_addr) {
      isStatic = true;
    }
    DWA_FreeLocations(paEntries, n);
    return isStatic;
  }
  U16 tag = _GetDieType(pFile, Die);
  if (tag != ELF_TAG_SUBPROGRAM && tag != ELF_TAG_INLINED_SUBROUTINE && tag != ELF_TAG_SUBROUTINE_TYPE)
    return false;
  return !_HasAttribute(pFile, Die, DW_AT_object_pointer);
}

/*********************************************************************
 * The walk
 */

typedef int (*ELF_DIE_HANDLER)(ELF_FILE* pFile, ELF_DIE Die, U16 Tag, bool IsInfo, U64 ParentOff,
                               I64 EnclosingFunc, int Level);

static int _InsertGlobalVar(ELF_FILE* pFile, ELF_DIE Die, U16 Tag, bool IsInfo, U64, I64 EnclosingFunc, int) {
  if (Tag != ELF_TAG_VARIABLE || EnclosingFunc >= 0)
    return 0;
  if (_HasNonZero(pFile, Die, DW_AT_declaration) || _HasNonZero(pFile, Die, DW_AT_artificial))
    return 0;
  _ListAppend(&_State(pFile)->globalVars, _GetDieID(pFile, Die));
  return 1;
}

static int _InsertFunc(ELF_FILE* pFile, ELF_DIE Die, U16 Tag, bool, U64, I64, int) {
  if (Tag != ELF_TAG_SUBPROGRAM)
    return 0;
  if (_HasNonZero(pFile, Die, DW_AT_declaration) || _HasNonZero(pFile, Die, DW_AT_artificial))
    return 0;
  _ListAppend(&_State(pFile)->functions, _GetDieID(pFile, Die));
  return 1;
}

static int _InsertInlineFunc(ELF_FILE* pFile, ELF_DIE Die, U16 Tag, bool, U64, I64, int) {
  if (Tag != ELF_TAG_INLINED_SUBROUTINE)
    return 0;
  if (_HasNonZero(pFile, Die, DW_AT_declaration) || _HasNonZero(pFile, Die, DW_AT_artificial))
    return 0;
  _ListAppend(&_State(pFile)->inlineFuncs, _GetDieID(pFile, Die));
  return 1;
}

static int _InsertType(ELF_FILE* pFile, ELF_DIE Die, U16 Tag, bool, U64, I64, int) {
  if (Tag != ELF_TAG_TYPEDEF) {
    if (Tag != ELF_TAG_CLASS && Tag != ELF_TAG_ENUMERATION && Tag != ELF_TAG_STRUCTURE &&
        Tag != ELF_TAG_UNION) {
      return 0;
    }
    if (_HasNonZero(pFile, Die, DW_AT_declaration) || _HasNonZero(pFile, Die, DW_AT_artificial))
      return 0;
    if (!_HasNonZero(pFile, Die, DW_AT_byte_size))
      return 0;
  }
  _ListAppend(&_State(pFile)->types, _GetDieID(pFile, Die));
  return 1;
}

static int _InsertNamespace(ELF_FILE* pFile, ELF_DIE Die, U16 Tag, bool, U64, I64, int) {
  if (Tag != ELF_TAG_NAMESPACE)
    return 0;
  _ListAppend(&_State(pFile)->namespaces, _GetDieID(pFile, Die));
  return 1;
}

static int _InsertNamespaceExt(ELF_FILE* pFile, ELF_DIE Die, U16 Tag, bool, U64, I64, int) {
  if (Tag != ELF_TAG_NAMESPACE || !_HasNonZero(pFile, Die, DW_AT_extension))
    return 0;
  _ListAppend(&_State(pFile)->namespaceExts, _GetDieID(pFile, Die));
  return 1;
}

static int _InsertMember(ELF_FILE* pFile, ELF_DIE Die, U16 Tag, bool IsInfo, U64 ParentOff, I64, int) {
  if (Tag != ELF_TAG_MEMBER && Tag != ELF_TAG_SUBPROGRAM && Tag != ELF_TAG_ENUMERATOR)
    return 0;
  if (ParentOff < 1)
    return 0;
  U16 parentTag = _GetTagAtOffset(pFile, ParentOff, IsInfo);
  if (parentTag != ELF_TAG_CLASS && parentTag != ELF_TAG_STRUCTURE && parentTag != ELF_TAG_UNION &&
      parentTag != ELF_TAG_ENUMERATION) {
    return 0;
  }
  if (_HasNonZero(pFile, Die, DW_AT_artificial))
    return 0;
  ELF_DIE def = _GetDefinitionDie(pFile, Die);
  U64 parentId = _MakeDieID(ParentOff, IsInfo);
  ELF_HashAdd(_State(pFile)->members, parentId, def ? _GetDieID(pFile, def) : _GetDieID(pFile, Die));
  return def && def != Die ? 0 : 1;
}

static int _InsertLocalVar(ELF_FILE* pFile, ELF_DIE Die, U16 Tag, bool IsInfo, U64, I64 EnclosingFunc, int) {
  if ((Tag != ELF_TAG_VARIABLE && Tag != ELF_TAG_FORMAL_PARAMETER) || EnclosingFunc < 0)
    return 0;
  if (_HasNonZero(pFile, Die, DW_AT_declaration))
    return 0;
  ELF_HashAdd(_State(pFile)->localVars, _MakeDieID((U64)EnclosingFunc, IsInfo), _GetDieID(pFile, Die));
  return 1;
}

static int _InsertInheritance(ELF_FILE* pFile, ELF_DIE Die, U16 Tag, bool IsInfo, U64 ParentOff, I64, int) {
  if (Tag != ELF_TAG_INHERITANCE || ParentOff < 1 || _HasNonZero(pFile, Die, DW_AT_artificial))
    return 0;
  ELF_HashAdd(_State(pFile)->inheritance, _MakeDieID(ParentOff, IsInfo), _GetDieID(pFile, Die));
  return 1;
}

static const ELF_DIE_HANDLER _apTypeUnitHandlers[] = {_InsertType, _InsertMember, _InsertInheritance};
static const ELF_DIE_HANDLER _apCompUnitHandlers[] = {
    _InsertGlobalVar,    _InsertFunc,   _InsertInlineFunc, _InsertType,        _InsertNamespace,
    _InsertNamespaceExt, _InsertMember, _InsertLocalVar,   _InsertInheritance,
};

struct WALK_FRAME {
  ELF_DIE die;
  U64 offset;
  U16 tag;
  bool owned;  // the walker must release the DIE when it leaves it
};

// Visits every DIE of a unit in DIE order (depth first), calls the handlers once per DIE, records
// parent links and keeps what a handler asked for. Returns the number of DIEs, or -1 when the unit's
// tree is broken (what was visited so far stays recorded).
static I64 _WalkCUDieTree(ELF_FILE* pFile, ELF_DIE Root, const ELF_DIE_HANDLER* paHandlers, int NumHandlers,
                          U64 UnitEnd) {
  ELF_DWARF_STATE* s = _State(pFile);
  bool isInfo = DWA_IsInfo(Root);
  U32 capacity = 4, depth = 0;
  WALK_FRAME* paStack = (WALK_FRAME*)malloc(sizeof(WALK_FRAME) * capacity);
  if (!paStack)
    return -1;
  I64 count = 0;
  bool broken = false;
  ELF_DIE die = Root;
  U64 lastOffset = 0;
  while (die) {
    U64 offset = _GetDieOffset(pFile, die);
    // Each DIE takes at least one byte, so offsets only grow; anything else is corrupt data that
    // must not make the walk go round.
    if ((count > 0 && offset <= lastOffset) || offset >= UnitEnd) {
      if (die != Root)
        _DeallocDie(pFile, die);
      broken = true;
      break;
    }
    lastOffset = offset;
    count++;
    U64 id = _MakeDieID(offset, isInfo);
    U16 tag = _GetDieType(pFile, die);
    U64 parentOff = depth ? paStack[depth - 1].offset : 0;
    I64 enclosingFunc = -1;
    for (U32 i = depth; i-- > 0;) {
      if (paStack[i].tag == ELF_TAG_SUBPROGRAM || paStack[i].tag == ELF_TAG_INLINED_SUBROUTINE) {
        enclosingFunc = (I64)paStack[i].offset;
        break;
      }
    }
    bool keep = false;
    if (!ELF_HashHas(s->dieVisited, id)) {
      for (int h = 0; h < NumHandlers; h++) {
        if (paHandlers[h](pFile, die, tag, isInfo, parentOff, enclosingFunc, (int)depth))
          keep = true;
      }
      ELF_HashPut(s->dieVisited, id, 1);
    }
    if (parentOff)
      ELF_HashPut(s->dieParents, id, parentOff);
    bool owned = false;
    if (die != Root)
      owned = !(keep && _HashDie(pFile, die) == 1);

    ELF_DIE child = DWA_HasChildren(_Ctx(pFile), die) ? DWA_GetChild(_Ctx(pFile), die) : nullptr;
    if (child) {
      if (depth == capacity) {
        WALK_FRAME* p = (WALK_FRAME*)realloc(paStack, sizeof(WALK_FRAME) * capacity * 2);
        if (!p) {
          DWA_ReleaseDie(_Ctx(pFile), child);
          if (owned)
            DWA_ReleaseDie(_Ctx(pFile), die);
          broken = true;
          break;
        }
        paStack = p;
        capacity *= 2;
      }
      paStack[depth++] = {die, offset, tag, owned};
      die = child;
      continue;
    }
    ELF_DIE next = die != Root ? DWA_GetSibling(_Ctx(pFile), die) : nullptr;
    if (owned)
      DWA_ReleaseDie(_Ctx(pFile), die);
    while (!next && depth > 0) {
      WALK_FRAME frame = paStack[--depth];
      if (frame.die != Root)
        next = DWA_GetSibling(_Ctx(pFile), frame.die);
      if (frame.owned)
        DWA_ReleaseDie(_Ctx(pFile), frame.die);
      if (frame.die == Root)
        break;
    }
    die = next;
  }
  // A broken walk may leave frames behind.
  while (depth > 0) {
    WALK_FRAME frame = paStack[--depth];
    if (frame.owned)
      DWA_ReleaseDie(_Ctx(pFile), frame.die);
  }
  free(paStack);
  return broken ? -1 : count;
}

static void _UpdateLanguage(ELF_FILE* pFile, ELF_DIE CuDie) {
  DWA_VALUE v;
  ELF_SRC_LANG lang = ELF_SRC_LANG_UNKNOWN;
  if (_CreateDieAttr(pFile, CuDie, DW_AT_language, &v)) {
    switch (v.u) {
      case DW_LANG_C89:
      case DW_LANG_C:
      case DW_LANG_C99:
      case DW_LANG_C11:
        lang = ELF_SRC_LANG_C;
        break;
      case DW_LANG_C_plus_plus:
      case DW_LANG_C_plus_plus_03:
      case DW_LANG_C_plus_plus_11:
      case DW_LANG_C_plus_plus_14:
        lang = ELF_SRC_LANG_CPP;
        break;
      default:
        break;
    }
  } else {
    const char* sName = DWA_GetName(_Ctx(pFile), CuDie);
    if (sName && strstr(sName, ".cpp")) {
      lang = ELF_SRC_LANG_CPP;
    } else if (sName && strstr(sName, ".c")) {
      lang = ELF_SRC_LANG_C;
    }
  }
  if (lang == ELF_SRC_LANG_CPP)
    _State(pFile)->srcLanguage = ELF_SRC_LANG_CPP;
}

static int _ParseDebugInfoForCU(ELF_FILE* pFile, ELF_DIE CuDie, bool IsTypeUnit, U64 UnitEnd) {
  I64 n = IsTypeUnit ? _WalkCUDieTree(pFile, CuDie, _apTypeUnitHandlers, 3, UnitEnd)
                     : _WalkCUDieTree(pFile, CuDie, _apCompUnitHandlers, 9, UnitEnd);
  if (!IsTypeUnit)
    _UpdateLanguage(pFile, CuDie);
  return n < 0 ? -1 : 0;
}

static void _RecordSourceFiles(ELF_FILE* pFile, ELF_DIE CuDie, ELF_CU_INFO* pCu) {
  ELF_DWARF_STATE* s = _State(pFile);
  char** paNames = nullptr;
  U32 n = 0;
  if (!_HasAttribute(pFile, CuDie, DW_AT_stmt_list))
    return;
  if (DWA_GetSrcFiles(_Ctx(pFile), CuDie, &paNames, &n) != 0)
    return;
  for (U32 i = 0; i < n; i++) {
    const char* sName = paNames[i];
    if (strstr(sName, "<built-in>") || strstr(sName, "<stdin>"))
      continue;
    U32 key = ELF_Djb2Hash(sName);
    ELF_HASH_RECORD* pRecord = (ELF_HASH_RECORD*)(uintptr_t)ELF_HashGet(s->srcFiles, key);
    bool isNew = pRecord == nullptr;
    // A unit that names a file twice (DWARF 5 lists the primary file as 0 and 1) counts once.
    if (!isNew && pRecord->n > 0 && pRecord->items[pRecord->n - 1] == _GetDieID(pFile, CuDie))
      continue;
    if (ELF_RecordAppend(&pRecord, _GetDieID(pFile, CuDie)) < 0)
      continue;
    if (isNew) {
      ELF_HashPut(s->srcFiles, key, (U64)(uintptr_t)pRecord);
      _StringListAppend(&s->srcFileNames, sName);
    }
  }
  pCu->fileNames = paNames;
  pCu->fileCount = n;
}

static void _RecordLineRows(ELF_FILE* pFile, ELF_DIE CuDie, ELF_CU_INFO* pCu) {
  ELF_DWARF_STATE* s = _State(pFile);
  DWA_LINE* paLines = nullptr;
  U32 n = 0;
  U16 version = 0;
  if (DWA_GetLines(_Ctx(pFile), CuDie, &paLines, &n, &version) != 0)
    return;
  pCu->lineVersion = version;
  U64 cuOffset = _GetDieOffset(pFile, CuDie);
  for (U32 i = 0; i < n; i++) {
    const DWA_LINE* pLine = &paLines[i];
    U32 key = ELF_Djb2Hash(pLine->sFile);
    U64 index = ELF_HashGet(s->lineFileIdx, key);
    if (index == 0) {
      int added = _StringListAppend(&s->lineFileNames, pLine->sFile);
      if (added < 0)
        continue;
      index = (U64)added + 1;
      ELF_HashPut(s->lineFileIdx, key, index);
    }
    ELF_LINE_ROW row;
    memset(&row, 0, sizeof(row));
    row.addr = (U32)pLine->Addr;
    row.line = pLine->Line;
    row.column = pLine->Column;
    row.fileNameIdx = (U32)(index - 1);
    row.cuOffset = cuOffset;
    row.endSequence = pLine->EndSequence;
    row.isStmt = pLine->IsStmt;
    _LineRowAppend(&s->lineRows, row);
  }
  DWA_FreeLines(paLines, n);
}

static ELF_CU_INFO* _AddCuInfo(ELF_FILE* pFile, U64 Offset, U16 UnitVersion) {
  ELF_CU_INFOS* p = &_State(pFile)->cuInfos;
  if (p->n == p->capacity) {
    U32 capacity = p->capacity ? p->capacity * 2 : 4;
    ELF_CU_INFO* pNew = (ELF_CU_INFO*)realloc(p->items, sizeof(ELF_CU_INFO) * capacity);
    if (!pNew)
      return nullptr;
    p->items = pNew;
    p->capacity = capacity;
  }
  ELF_CU_INFO* pCu = &p->items[p->n++];
  memset(pCu, 0, sizeof(*pCu));
  pCu->offset = Offset;
  pCu->unitVersion = UnitVersion;
  return pCu;
}

// libdwarf errors: one line each, the same line not twice in a row.
static void _OnLibdwarfError(void* pUser, const char* sText) {
  ELF_FILE* pFile = (ELF_FILE*)pUser;
  ELF_DWARF_STATE* s = _State(pFile);
  if (strcmp(s->sLastLibdwarfError, sText) == 0)
    return;
  snprintf(s->sLastLibdwarfError, sizeof(s->sLastLibdwarfError), "%s", sText);
  ELF_Log(ELF_LOG_LIBDWARF, "%s", sText);
}

static long _Ms(clock_t Start, clock_t End) {
  return (long)((End - Start) * 1000 / CLOCKS_PER_SEC);
}

static int _CreateTables(ELF_FILE* pFile) {
  ELF_DWARF_STATE* s = _State(pFile);
  I64 debugBytes = 0;
  int info = ELF_GetSectionIdx(pFile, ".debug_info");
  int types = ELF_GetSectionIdx(pFile, ".debug_types");
  // Only sections whose bytes are in the file count: a corrupt size must not size the tables.
  if (info >= 0 && ELF_GetSectionBytes(pFile, (U32)info))
    debugBytes += pFile->shdrs[info].sh_size;
  if (types >= 0 && ELF_GetSectionBytes(pFile, (U32)types))
    debugBytes += pFile->shdrs[types].sh_size;
  I32 size = ELF_NextHashSize(debugBytes ? debugBytes : 16384) / 16;
  if (size == 0)
    size = 1021;
  s->dieById = ELF_HashCreate(size, 8, ELF_HASH_DIES);
  s->dieTags = ELF_HashCreate(size, 8, ELF_HASH_PLAIN);
  s->dieParents = ELF_HashCreate(size, 8, ELF_HASH_PLAIN);
  s->dieVisited = ELF_HashCreate(size, 8, ELF_HASH_PLAIN);
  s->dieDecls = ELF_HashCreate(size, 8, ELF_HASH_PLAIN);
  s->dieDefs = ELF_HashCreate(size, 8, ELF_HASH_PLAIN);
  s->dieTypeNames = ELF_HashCreate(size, 8, ELF_HASH_STRINGS);
  s->dieNames = ELF_HashCreate(97, 8, ELF_HASH_STRINGS);
  s->localVars = ELF_HashCreate(size, 1024, ELF_HASH_PLAIN);
  s->members = ELF_HashCreate(size, 1024, ELF_HASH_PLAIN);
  s->inheritance = ELF_HashCreate(size, 1024, ELF_HASH_PLAIN);
  s->srcFiles = ELF_HashCreate(20000, 1, ELF_HASH_RECORDS);
  s->typeUnits = ELF_HashCreate(97, 8, ELF_HASH_PLAIN);
  s->lineFileIdx = ELF_HashCreate(997, 8, ELF_HASH_PLAIN);
  return s->dieById && s->dieTags && s->dieParents && s->dieVisited && s->dieDecls && s->dieDefs &&
                 s->dieTypeNames && s->dieNames && s->localVars && s->members && s->inheritance &&
                 s->srcFiles && s->typeUnits && s->lineFileIdx
             ? 0
             : -1;
}

// The table headers of a DWARF 5 .debug_rnglists or .debug_loclists section. libdwarf 20210528
// frees a table twice when one of these headers is bad, so a section with a bad header is not
// handed to it at all: its lists are then missing, and the load goes on.
static bool _AreListTablesSound(ELF_FILE* pFile, U32 Section) {
  const U8* p = ELF_GetSectionBytes(pFile, Section);
  U64 size = pFile->shdrs[Section].sh_size;
  if (!p)
    return true;
  bool bigEndian = pFile->data[5] == 2;
  auto read32 = [&](U64 at) {
    U32 v;
    memcpy(&v, p + at, 4);
    return bigEndian ? (v >> 24) | ((v >> 8) & 0xFF00) | ((v << 8) & 0xFF0000) | (v << 24) : v;
  };
  auto read16 = [&](U64 at) {
    return bigEndian ? (U16)(p[at] << 8 | p[at + 1]) : (U16)(p[at] | p[at + 1] << 8);
  };
  for (U64 at = 0; at < size;) {
    const char* sProblem = nullptr;
    U64 length = 0;
    if (size - at < 12) {
      sProblem = "table header cut short";
    } else if ((length = read32(at)) >= 0xFFFFFFF0) {
      sProblem = "64-bit or reserved table length";
    } else if (length < 8 || length > size - at - 4) {
      sProblem = "table length outside the section";
    } else if (read16(at + 4) != 5) {
      sProblem = "table version is not 5";
    } else if (p[at + 6] != 4 || p[at + 7] != 0) {
      sProblem = "address or segment size is not 4 and 0";
    } else if ((U64)read32(at + 8) * 4 > length - 8) {
      sProblem = "offset table larger than the table";
    }
    if (sProblem) {
      ELF_Log(ELF_LOG_MESSAGE, "%s: %s at offset 0x%llX: %s; its lists are ignored.", pFile->sPath,
              ELF_GetSectionName(pFile, Section), (unsigned long long)at, sProblem);
      return false;
    }
    at += 4 + length;
  }
  return true;
}

// Hands libdwarf every section whose bytes lie inside the image; others look empty to it.
static int _StartLibdwarf(ELF_FILE* pFile) {
  ELF_DWARF_STATE* s = _State(pFile);
  U32 n = pFile->ehdr.e_shnum;
  s->paSections = (DWA_SECTION*)calloc(n ? n : 1, sizeof(DWA_SECTION));
  if (!s->paSections)
    return -1;
  for (U32 i = 0; i < n; i++) {
    const ELF_SHDR* sh = &pFile->shdrs[i];
    DWA_SECTION* d = &s->paSections[i];
    d->sName = ELF_GetSectionName(pFile, i);
    d->Addr = sh->sh_addr;
    d->Type = sh->sh_type;
    d->Link = sh->sh_link;
    d->Info = sh->sh_info;
    d->EntSize = sh->sh_entsize;
    d->pData = const_cast<U8*>(ELF_GetSectionBytes(pFile, i));
    if ((strcmp(d->sName, ".debug_rnglists") == 0 || strcmp(d->sName, ".debug_loclists") == 0) &&
        !_AreListTablesSound(pFile, i)) {
      d->pData = nullptr;
    }
    d->Size = d->pData ? sh->sh_size : 0;
  }
  bool bigEndian = pFile->data[5] == 2;
  return DWA_Init(s->paSections, n, bigEndian, _OnLibdwarfError, pFile, &s->pDwarf);
}

static void _ParseUnits(ELF_FILE* pFile, bool IsInfo, bool TypeUnitsOnly, long* pTypeMs, long* pInfoMs,
                        long* pFileMs, long* pLineMs) {
  ELF_DWARF_STATE* s = _State(pFile);
  DWA_UNIT unit;
  U64 lastHeader = 0;
  bool first = true;
  for (;;) {
    int r = DWA_NextUnit(_Ctx(pFile), IsInfo, &unit);
    if (r <= 0)
      break;
    if (!first && unit.HeaderOffset <= lastHeader)
      break;  // libdwarf wrapped round
    first = false;
    lastHeader = unit.HeaderOffset;
    if (TypeUnitsOnly != unit.IsTypeUnit)
      continue;
    clock_t start = clock();
    ELF_DIE root = _GetDieAtOffset(pFile, unit.RootOffset, IsInfo);
    if (!root) {
      ELF_Log(ELF_LOG_MESSAGE, "%s: no DIE at offset 0x%llX of unit 0x%llX.", pFile->sPath,
              (unsigned long long)unit.RootOffset, (unsigned long long)unit.HeaderOffset);
      continue;
    }
    s->cuCount++;
    if (unit.IsTypeUnit) {
      ELF_HashPut(s->typeUnits, unit.Signature, _MakeDieID(unit.TypeOffset, IsInfo));
      _ParseDebugInfoForCU(pFile, root, true, unit.NextHeaderOffset);
      *pTypeMs += _Ms(start, clock());
      continue;
    }
    if (unit.Version > s->dwarfVersion)
      s->dwarfVersion = unit.Version;
    _ListAppend(&s->compUnits, _GetDieID(pFile, root));
    if (_ParseDebugInfoForCU(pFile, root, false, unit.NextHeaderOffset) < 0) {
      ELF_Log(ELF_LOG_MESSAGE, "Could not parse debug info for compilation unit.");
      ELF_Log(ELF_LOG_MESSAGE, "%s: unit at offset 0x%llX.", pFile->sPath,
              (unsigned long long)unit.HeaderOffset);
    }
    clock_t afterInfo = clock();
    *pInfoMs += _Ms(start, afterInfo);
    ELF_CU_INFO* pCu = _AddCuInfo(pFile, unit.RootOffset, unit.Version);
    if (!pCu)
      continue;
    _RecordSourceFiles(pFile, root, pCu);
    clock_t afterFiles = clock();
    *pFileMs += _Ms(afterInfo, afterFiles);
    _RecordLineRows(pFile, root, pCu);
    *pLineMs += _Ms(afterFiles, clock());
  }
}

static void _FindMainSym(ELF_FILE* pFile) {
  ELF_DWARF_STATE* s = _State(pFile);
  int index = ELF_GetFileIndex(pFile);
  for (int pass = 0; pass < 2 && !s->mainSym; pass++) {
    for (U32 i = 0; i < s->functions.n; i++) {
      bool isInfo = false;
      U64 offset = _IdToOffset(s->functions.items[i], &isInfo);
      ELF_DIE die = _GetDieAtOffset(pFile, offset, isInfo);
      if (!die)
        continue;
      bool match = pass == 0 ? _HasNonZero(pFile, die, DW_AT_main_subprogram)
                             : (_GetDieName(pFile, die) && strcmp(_GetDieName(pFile, die), "main") == 0);
      if (match) {
        s->mainSym = ELF_MakeDwarfHandle(index, s->functions.items[i]);
        break;
      }
    }
  }
}

int ELF_ParseDebugInfo(ELF_FILE* pFile) {
  ELF_DWARF_STATE* s = _State(pFile);
  s->srcLanguage = ELF_SRC_LANG_C;
  pFile->cfaOffsetFactor = 1;
  if (_CreateTables(pFile) < 0)
    return -1;
  long typeMs = 0, infoMs = 0, fileMs = 0, lineMs = 0, frameMs = 0;
  int started = _StartLibdwarf(pFile);
  if (started < 0)
    return -1;
  if (started == 0) {
    _ParseUnits(pFile, false, true, &typeMs, &infoMs, &fileMs, &lineMs);
    _ParseUnits(pFile, true, true, &typeMs, &infoMs, &fileMs, &lineMs);
    _ParseUnits(pFile, true, false, &typeMs, &infoMs, &fileMs, &lineMs);
    _FindMainSym(pFile);
    clock_t start = clock();
    if (ELF_GetSectionIdx(pFile, ".note.iar") >= 0)
      pFile->cfaOffsetFactor = 4;
    DWA_FRAME_INFO frames;
    if (DWA_LoadFrames(_Ctx(pFile), &frames) == 0) {
      s->cieCount = frames.CieCount;
      s->fdeCount = frames.FdeCount;
      s->returnAddrReg = frames.ReturnAddrReg;
    }
    frameMs = _Ms(start, clock());
  }
  ELF_Log(ELF_LOG_MESSAGE, "parsed type unit tree in ms:   %ld", typeMs);
  ELF_Log(ELF_LOG_MESSAGE, "parsed debug info tree in ms:  %ld", infoMs);
  ELF_Log(ELF_LOG_MESSAGE, "parsed source file info in ms: %ld", fileMs);
  ELF_Log(ELF_LOG_MESSAGE, "parsed source line info in ms: %ld", lineMs);
  ELF_Log(ELF_LOG_MESSAGE, "parsed call frame info in ms:  %ld", frameMs);
  ELF_Log(ELF_LOG_MESSAGE, "File Size: %d", (int)pFile->fileSize);
  ELF_Log(ELF_LOG_MESSAGE, "Dwarf Symbol Count: %ld", (long)s->dieById->count);
  ELF_Log(ELF_LOG_MESSAGE, "ELF Symbol Count: %d", (int)pFile->symCount);
  ELF_Log(ELF_LOG_MESSAGE, "Data Encoding: %s", ELF_GetDataEncodingText(ELF_GetDataEncoding(pFile)));
  ELF_Log(ELF_LOG_MESSAGE, "Source Language: %s", s->srcLanguage == ELF_SRC_LANG_CPP ? "C++" : "C");
  ELF_Log(ELF_LOG_MESSAGE, "total init time: %ld ms", typeMs + infoMs + fileMs + lineMs + frameMs);
  ELF_Log(ELF_LOG_MESSAGE, "Dwarf Version: %d", (int)s->dwarfVersion);
  return 0;
}

static void _ReleaseStoredDie(void* pContext, U64 Value) {
  DWA_ReleaseDie((DWA_CONTEXT*)pContext, (DWA_DIE)(uintptr_t)Value);
}

void ELF_FreeDebugInfo(ELF_FILE* pFile) {
  ELF_DWARF_STATE* s = _State(pFile);
  ELF_HashFree(s->dieById, _ReleaseStoredDie, s->pDwarf);
  ELF_HASH_TABLE* apTables[] = {s->dieTags,      s->dieParents, s->dieVisited, s->dieDecls, s->dieDefs,
                                s->dieTypeNames, s->dieNames,   s->localVars,  s->members,  s->inheritance,
                                s->srcFiles,     s->typeUnits,  s->lineFileIdx};
  for (ELF_HASH_TABLE* pTable : apTables)
    ELF_HashFree(pTable);
  ELF_ID_LIST* apLists[] = {&s->globalVars, &s->namespaces, &s->namespaceExts, &s->types,
                            &s->compUnits,  &s->functions,  &s->inlineFuncs};
  for (ELF_ID_LIST* pList : apLists)
    free(pList->items);
  for (U32 i = 0; i < s->srcFileNames.n; i++)
    free(s->srcFileNames.items[i]);
  free(s->srcFileNames.items);
  for (U32 i = 0; i < s->lineFileNames.n; i++)
    free(s->lineFileNames.items[i]);
  free(s->lineFileNames.items);
  free(s->lineRows.items);
  for (U32 i = 0; i < s->cuInfos.n; i++)
    DWA_FreeStrings(s->cuInfos.items[i].fileNames, s->cuInfos.items[i].fileCount);
  free(s->cuInfos.items);
  DWA_Finish(s->pDwarf);
  free(s->paSections);
  memset(s, 0, sizeof(*s));
}

/*********************************************************************
 * Ranges, locations, frames
 */

int _GetDieRanges(ELF_FILE* pFile, ELF_DIE Die, DWA_RANGE** ppaRanges, U32* pNum) {
  *ppaRanges = nullptr;
  *pNum = 0;
  if (!Die || !_Ctx(pFile))
    return 1;
  return DWA_GetRanges(_Ctx(pFile), Die, ppaRanges, pNum);
}

int _GetDieLocations(ELF_FILE* pFile, ELF_DIE Die, U16 Attr, DWA_LOC_ENTRY** ppaEntries, U32* pNum) {
  *ppaEntries = nullptr;
  *pNum = 0;
  if (!Die || !_Ctx(pFile))
    return 1;
  return DWA_GetLocations(_Ctx(pFile), Die, Attr, ppaEntries, pNum);
}

int ELF_GetFrameRules(ELF_FILE* pFile, U32 Pc, DWA_REG_RULE* paRules, DWA_REG_RULE* pCfa) {
  if (!ELF_IsValidFile(pFile) || !_Ctx(pFile))
    return -1;
  return DWA_GetFrameRules(_Ctx(pFile), ELF_UndoRelocation(Pc, false), paRules, pCfa, nullptr);
}

/*********************************************************************
 * Lists
 */

static const ELF_ID_LIST* _GetList(ELF_FILE* pFile, ELF_DIE_LIST List) {
  ELF_DWARF_STATE* s = _State(pFile);
  switch (List) {
    case ELF_LIST_GLOBAL_VARS:
      return &s->globalVars;
    case ELF_LIST_NAMESPACES:
      return &s->namespaces;
    case ELF_LIST_NAMESPACE_EXTS:
      return &s->namespaceExts;
    case ELF_LIST_TYPES:
      return &s->types;
    case ELF_LIST_COMP_UNITS:
      return &s->compUnits;
    case ELF_LIST_FUNCTIONS:
      return &s->functions;
    case ELF_LIST_INLINE_FUNCS:
      return &s->inlineFuncs;
  }
  return nullptr;
}

U32 ELF_GetDieListCount(ELF_FILE* pFile, ELF_DIE_LIST List) {
  if (!ELF_IsValidFile(pFile))
    return 0;
  const ELF_ID_LIST* p = _GetList(pFile, List);
  return p ? p->n : 0;
}

ELF_SYM_HANDLE ELF_GetDieListHandle(ELF_FILE* pFile, ELF_DIE_LIST List, U32 n) {
  if (!ELF_IsValidFile(pFile))
    return 0;
  const ELF_ID_LIST* p = _GetList(pFile, List);
  if (!p || n >= p->n)
    return 0;
  return ELF_MakeDwarfHandle(ELF_GetFileIndex(pFile), p->items[n]);
}

static const U64* _GetScopeList(ELF_FILE* pFile, ELF_SYM_HANDLE hScope, ELF_SCOPE_LIST List, I32* pn) {
  *pn = 0;
  U64 id = 0;
  if (!ELF_IsValidFile(pFile) || !_IsDwarfSymbolHandle(hScope) || !_GetSymID(hScope, &id))
    return nullptr;
  ELF_DWARF_STATE* s = _State(pFile);
  ELF_HASH_TABLE* pTable = List == ELF_SCOPE_LOCAL_VARS ? s->localVars
                           : List == ELF_SCOPE_MEMBERS  ? s->members
                                                        : s->inheritance;
  return ELF_HashGetAll(pTable, id, pn);
}

U32 ELF_GetScopeListCount(ELF_FILE* pFile, ELF_SYM_HANDLE hScope, ELF_SCOPE_LIST List) {
  I32 n = 0;
  _GetScopeList(pFile, hScope, List, &n);
  return (U32)n;
}

ELF_SYM_HANDLE ELF_GetScopeListHandle(ELF_FILE* pFile, ELF_SYM_HANDLE hScope, ELF_SCOPE_LIST List, U32 n) {
  I32 count = 0;
  const U64* paItems = _GetScopeList(pFile, hScope, List, &count);
  if (!paItems || n >= (U32)count)
    return 0;
  return ELF_MakeDwarfHandle(ELF_GetFileIndex(pFile), paItems[n]);
}

U32 ELF_GetLineRowCount(ELF_FILE* pFile) {
  return ELF_IsValidFile(pFile) ? _State(pFile)->lineRows.n : 0;
}

const ELF_LINE_ROW* ELF_GetLineRow(ELF_FILE* pFile, U32 n) {
  if (!ELF_IsValidFile(pFile) || n >= _State(pFile)->lineRows.n)
    return nullptr;
  return &_State(pFile)->lineRows.items[n];
}

const char* ELF_GetLineRowFileName(ELF_FILE* pFile, U32 n) {
  const ELF_LINE_ROW* pRow = ELF_GetLineRow(pFile, n);
  if (!pRow || pRow->fileNameIdx >= _State(pFile)->lineFileNames.n)
    return nullptr;
  return _State(pFile)->lineFileNames.items[pRow->fileNameIdx];
}

U32 ELF_GetSrcFileCount(ELF_FILE* pFile) {
  return ELF_IsValidFile(pFile) ? _State(pFile)->srcFileNames.n : 0;
}

const char* ELF_GetSrcFileName(ELF_FILE* pFile, U32 n) {
  if (!ELF_IsValidFile(pFile) || n >= _State(pFile)->srcFileNames.n)
    return nullptr;
  return _State(pFile)->srcFileNames.items[n];
}

static const ELF_HASH_RECORD* _GetSrcFileRecord(ELF_FILE* pFile, const char* sName) {
  if (!ELF_IsValidFile(pFile) || !sName || !_State(pFile)->srcFiles)
    return nullptr;
  return (const ELF_HASH_RECORD*)(uintptr_t)ELF_HashGet(_State(pFile)->srcFiles, ELF_Djb2Hash(sName));
}

U32 ELF_GetSrcFileCUCount(ELF_FILE* pFile, const char* sName) {
  const ELF_HASH_RECORD* pRecord = _GetSrcFileRecord(pFile, sName);
  return pRecord ? (U32)pRecord->n : 0;
}

ELF_SYM_HANDLE ELF_GetSrcFileCU(ELF_FILE* pFile, const char* sName, U32 n) {
  const ELF_HASH_RECORD* pRecord = _GetSrcFileRecord(pFile, sName);
  if (!pRecord || n >= (U32)pRecord->n)
    return 0;
  return ELF_MakeDwarfHandle(ELF_GetFileIndex(pFile), pRecord->items[n]);
}

U32 ELF_GetDwarfSymbolCount(ELF_FILE* pFile) {
  return ELF_IsValidFile(pFile) && _State(pFile)->dieById ? (U32)_State(pFile)->dieById->count : 0;
}
