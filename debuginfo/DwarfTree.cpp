// The DWARF symbol tree; see DwarfTree.h.
#include "debuginfo/DwarfTree.h"

#include <dwarf.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <new>
#include <string>

#include "debuginfo/DwarfIndex.h"
#include "debuginfo/DwarfTreeInternal.h"
#include "debuginfo/ElfFile.h"
#include "debuginfo/IndexCache.h"

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

static U64 _IdToOffset(U64 Id, bool* pIsInfo);
static ELF_DIE _FetchDie(ELF_FILE* pFile, U64 Offset, bool IsInfo);

bool _GetDwarfSymContext(ELF_SYM_HANDLE h, ELF_FILE** ppFile, ELF_DIE* pDie) {
  ELF_TRACE_HANDLE(h);
  *pDie = nullptr;
  ELF_FILE* pFile = nullptr;
  U64 id = 0;
  if (!_IsDwarfSymbolHandle(h) || !_GetFile(h, &pFile) || !_GetSymID(h, &id))
    return false;
  bool isInfo = false;
  U64 offset = _IdToOffset(id, &isInfo);
  ELF_DIE die = _FetchDie(pFile, offset, isInfo);
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

static ELF_DIE_INDEX* _Dies(ELF_FILE* pFile) {
  return _State(pFile)->pDies;
}

static const DWS_SECTION_SCAN& _ScanOf(const ELF_DIE_INDEX* d, bool IsInfo) {
  return IsInfo ? d->info : d->types;
}

static size_t _NumDies(const ELF_DIE_INDEX* d) {
  return d ? d->info.records.size() + d->types.records.size() : 0;
}

// The record of the DIE at an offset, or null when the walk did not see one there.
static const DWS_RECORD* _RecordIn(const DWS_SECTION_SCAN& Scan, U64 Offset) {
  I64 i = DWS_FindRecord(Scan, Offset);
  return i < 0 ? nullptr : &Scan.records[(size_t)i];
}

static const DWS_RECORD* _RecordAt(ELF_FILE* pFile, U64 Offset, bool IsInfo) {
  return _Dies(pFile) ? _RecordIn(_ScanOf(_Dies(pFile), IsInfo), Offset) : nullptr;
}

// The definition of a declaration (a member function defined out of line): its offset, or 0. A
// DIE that is no declaration and has a byte size is a definition itself.
static U64 _RecordDefinition(const ELF_DIE_INDEX* d, const DWS_RECORD& Rec, bool IsInfo) {
  if (!(Rec.flags & DWS_DECL_SET) && (Rec.flags & DWS_SIZE))
    return 0;
  auto it = d->defs.find(_MakeDieID(Rec.offset, IsInfo));
  return it == d->defs.end() ? 0 : it->second;
}

static const DWS_RECORD* _RecordOf(ELF_FILE* pFile, ELF_DIE Die) {
  return Die ? _RecordAt(pFile, _GetDieOffset(pFile, Die), DWA_IsInfo(Die)) : nullptr;
}

U16 _GetDieType(ELF_FILE* pFile, ELF_DIE Die) {
  if (!Die)
    return ELF_TAG_NONE;
  const DWS_RECORD* pRec = _RecordOf(pFile, Die);
  return pRec ? pRec->tag : DWA_GetTag(_Ctx(pFile), Die);
}

static bool _IsStored(ELF_FILE* pFile, ELF_DIE Die) {
  auto it = _Dies(pFile)->dieById.find(_GetDieID(pFile, Die));
  return it != _Dies(pFile)->dieById.end() && it->second == Die;
}

ELF_DIE _GetDieAtOffset(ELF_FILE* pFile, U64 Offset, bool IsInfo) {
  ELF_TRACE_DIE(Offset);
  return _FetchDie(pFile, Offset, IsInfo);
}

// The stored DIE at an offset, fetched from libdwarf and stored on first use.
static ELF_DIE _FetchDie(ELF_FILE* pFile, U64 Offset, bool IsInfo) {
  if (!pFile || !_Ctx(pFile))
    return nullptr;
  auto [it, fresh] = _Dies(pFile)->dieById.try_emplace(_MakeDieID(Offset, IsInfo), nullptr);
  if (!fresh)
    return it->second;
  ELF_DIE die = DWA_GetDieAtOffset(_Ctx(pFile), Offset, IsInfo);
  if (die && _GetDieOffset(pFile, die) != Offset) {
    DWA_ReleaseDie(_Ctx(pFile), die);
    die = nullptr;
  }
  // A miss is kept too, so that a bad offset is not asked of libdwarf again.
  it->second = die;
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
  return DWA_GetChild(_Ctx(pFile), Die);
}

ELF_DIE _CreateSibling(ELF_FILE* pFile, ELF_DIE Die) {
  if (!Die)
    return nullptr;
  ELF_DIE sibling = DWA_GetSibling(_Ctx(pFile), Die);
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
    ELF_DIE_INDEX* d = _Dies(pFile);
    auto it = d ? d->typeUnits.find(v.u) : std::unordered_map<U64, U64>::iterator();
    if (!d || it == d->typeUnits.end())
      return nullptr;
    U64 typeOffset = it->second;
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
  const DWS_RECORD* pRec = _RecordOf(pFile, Die);
  if (!pRec)
    return nullptr;
  ELF_DIE_INDEX* d = _Dies(pFile);
  bool isInfo = DWA_IsInfo(Die);
  // A declaration that names a type unit (DW_AT_signature) is defined by the unit's type DIE.
  DWA_VALUE v;
  if ((pRec->flags & DWS_DECL_SET) && _CreateDieAttr(pFile, Die, DW_AT_signature, &v) &&
      v.Kind == DWA_VALUE_SIGNATURE) {
    auto unit = d->typeUnits.find(v.u);
    bool isTypeInfo = false;
    U64 typeOffset = unit != d->typeUnits.end() ? _IdToOffset(unit->second, &isTypeInfo) : 0;
    ELF_DIE def = typeOffset ? _GetDieAtOffset(pFile, typeOffset, isTypeInfo) : nullptr;
    if (def && def != Die)
      return def;
  }
  U64 offset = _RecordDefinition(d, *pRec, isInfo);
  if (offset == 0)
    return nullptr;
  if (offset == pRec->offset)
    return Die;
  return _GetDieAtOffset(pFile, offset, isInfo);
}

U64 _GetDeclDieOff(ELF_FILE* pFile, ELF_DIE Die) {
  const DWS_RECORD* pRec = _RecordOf(pFile, Die);
  return pRec && (pRec->flags & DWS_COMPLETES) && !(pRec->flags & DWS_EXTENSION) ? pRec->completes : 0;
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
  ELF_DIE_INDEX* d = _Dies(pFile);
  if (!d)
    return 0;
  const DWS_SECTION_SCAN& scan = _ScanOf(d, IsInfo);
  I64 i = DWS_FindRecord(scan, Offset);
  // Parents always stand before their children, so the walk up ends.
  U32 parent = i < 0 ? kDwsNoParent : scan.records[(size_t)i].parent;
  while (parent != kDwsNoParent && parent < (U32)i) {
    const DWS_RECORD& rec = scan.records[parent];
    if (_TagIn(rec.tag, paTags, n))
      return rec.offset;
    i = parent;
    parent = rec.parent;
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
  const DWS_RECORD* pRec = _RecordOf(pFile, Die);
  if (!pRec || pRec->parent == kDwsNoParent)
    return nullptr;
  const DWS_SECTION_SCAN& scan = _ScanOf(_Dies(pFile), DWA_IsInfo(Die));
  return _GetDieAtOffset(pFile, scan.records[pRec->parent].offset, DWA_IsInfo(Die));
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
 *
 * The DIE scanner records every DIE; the classification below then files each one into the lists
 * and per-scope tables, by the same rules a DIE-by-DIE walk would apply.
 */

void ELF_SCOPE_MAP::Build(std::vector<std::pair<U64, U64>>* pPairs) {
  Clear();
  std::stable_sort(
      pPairs->begin(), pPairs->end(),
      [](const std::pair<U64, U64>& a, const std::pair<U64, U64>& b) { return a.first < b.first; });
  values.reserve(pPairs->size());
  for (const auto& [key, value] : *pPairs) {
    if (keys.empty() || keys.back() != key) {
      keys.push_back(key);
      starts.push_back((U32)values.size());
    }
    values.push_back(value);
  }
  starts.push_back((U32)values.size());
  pPairs->clear();
  pPairs->shrink_to_fit();
}

const U64* ELF_SCOPE_MAP::Get(U64 Key, U32* pn) const {
  *pn = 0;
  auto it = std::lower_bound(keys.begin(), keys.end(), Key);
  if (it == keys.end() || *it != Key)
    return nullptr;
  size_t i = (size_t)(it - keys.begin());
  *pn = starts[i + 1] - starts[i];
  return values.data() + starts[i];
}

namespace {

struct CLASSIFIER {
  ELF_FILE* pFile;
  ELF_DIE_INDEX* d;
  std::vector<std::pair<U64, U64>> locals, members, inheritance;
};

// Whether an attribute has a non-zero value on the DIE or, when the DIE lacks it, on its
// declaration, its abstract origin (followed further) or its definition.
bool _RecordHasNonZero(const ELF_DIE_INDEX* d, const DWS_SECTION_SCAN& Scan, bool IsInfo,
                       const DWS_RECORD& Rec, U16 Present, U16 Set, int Depth) {
  if (Depth > kMaxAttrDepth)
    return false;
  if (Rec.flags & Present)
    return (Rec.flags & Set) != 0;
  if (Rec.tag == ELF_TAG_NAMESPACE)
    return false;
  if ((Rec.flags & DWS_COMPLETES) && !(Rec.flags & DWS_EXTENSION) && Rec.completes) {
    const DWS_RECORD* pDecl = _RecordIn(Scan, Rec.completes);
    if (pDecl && pDecl != &Rec && (pDecl->flags & Present))
      return (pDecl->flags & Set) != 0;
  }
  if ((Rec.flags & DWS_ORIGIN) && Rec.origin) {
    const DWS_RECORD* pOrigin = _RecordIn(Scan, Rec.origin);
    if (pOrigin && pOrigin != &Rec)
      return _RecordHasNonZero(d, Scan, IsInfo, *pOrigin, Present, Set, Depth + 1);
  }
  U64 def = _RecordDefinition(d, Rec, IsInfo);
  const DWS_RECORD* pDef = def && def != Rec.offset ? _RecordIn(Scan, def) : nullptr;
  return pDef && (pDef->flags & Present) && (pDef->flags & Set);
}

bool _IsTypeParentTag(U16 Tag) {
  return Tag == ELF_TAG_CLASS || Tag == ELF_TAG_STRUCTURE || Tag == ELF_TAG_UNION ||
         Tag == ELF_TAG_ENUMERATION;
}

// Files the DIEs of one unit. Type units hold only types, their members and base classes.
void _ClassifyUnit(CLASSIFIER* c, const DWS_SECTION_SCAN& Scan, const DWS_UNIT& Unit, bool IsInfo) {
  ELF_DWARF_STATE* s = _State(c->pFile);
  const ELF_DIE_INDEX* d = c->d;
  std::vector<I64> enclosing(Unit.recordCount, -1);  // offset of the innermost enclosing function
  for (U32 k = 0; k < Unit.recordCount; k++) {
    const DWS_RECORD& rec = Scan.records[Unit.firstRecord + k];
    I64 enclosingFunc = -1;
    U64 parentOff = 0;
    U16 parentTag = ELF_TAG_NONE;
    if (rec.parent != kDwsNoParent) {
      const DWS_RECORD& parent = Scan.records[rec.parent];
      parentOff = parent.offset;
      parentTag = parent.tag;
      enclosingFunc = parent.tag == ELF_TAG_SUBPROGRAM || parent.tag == ELF_TAG_INLINED_SUBROUTINE
                          ? (I64)parent.offset
                          : enclosing[rec.parent - Unit.firstRecord];
    }
    enclosing[k] = enclosingFunc;
    U64 id = _MakeDieID(rec.offset, IsInfo);
    bool declared = rec.flags & DWS_DECL_SET;
    auto artificial = [&] {
      return _RecordHasNonZero(d, Scan, IsInfo, rec, DWS_ARTIFICIAL, DWS_ARTIFICIAL_SET, 0);
    };
    bool isMemberTag =
        rec.tag == ELF_TAG_MEMBER || rec.tag == ELF_TAG_SUBPROGRAM || rec.tag == ELF_TAG_ENUMERATOR;
    if (isMemberTag && parentOff && _IsTypeParentTag(parentTag) && !artificial()) {
      U64 def = _RecordDefinition(d, rec, IsInfo);
      c->members.push_back({_MakeDieID(parentOff, IsInfo), def ? _MakeDieID(def, IsInfo) : id});
    }
    if (rec.tag == ELF_TAG_INHERITANCE && parentOff && !artificial())
      c->inheritance.push_back({_MakeDieID(parentOff, IsInfo), id});
    switch (rec.tag) {
      case ELF_TAG_TYPEDEF:
        _ListAppend(&s->types, id);
        break;
      case ELF_TAG_CLASS:
      case ELF_TAG_ENUMERATION:
      case ELF_TAG_STRUCTURE:
      case ELF_TAG_UNION:
        if (!declared && !artificial() &&
            _RecordHasNonZero(d, Scan, IsInfo, rec, DWS_SIZE, DWS_SIZE_SET, 0)) {
          _ListAppend(&s->types, id);
        }
        break;
      default:
        break;
    }
    if (Unit.isTypeUnit)
      continue;
    switch (rec.tag) {
      case ELF_TAG_VARIABLE:
        if (enclosingFunc >= 0 && !declared)
          c->locals.push_back({_MakeDieID((U64)enclosingFunc, IsInfo), id});
        else if (enclosingFunc < 0 && !declared && !artificial())
          _ListAppend(&s->globalVars, id);
        break;
      case ELF_TAG_FORMAL_PARAMETER:
        if (enclosingFunc >= 0 && !declared)
          c->locals.push_back({_MakeDieID((U64)enclosingFunc, IsInfo), id});
        break;
      case ELF_TAG_SUBPROGRAM:
        if (!declared && !artificial())
          _ListAppend(&s->functions, id);
        break;
      case ELF_TAG_INLINED_SUBROUTINE:
        if (!declared && !artificial())
          _ListAppend(&s->inlineFuncs, id);
        break;
      case ELF_TAG_NAMESPACE:
        _ListAppend(&s->namespaces, id);
        if (rec.flags & DWS_EXTENSION)
          _ListAppend(&s->namespaceExts, id);
        break;
      default:
        break;
    }
  }
}

}  // namespace

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

static void _RecordSourceFiles(ELF_FILE* pFile, ELF_DIE CuDie, ELF_CU_INFO* pCu) {
  ELF_DWARF_STATE* s = _State(pFile);
  char** paNames = nullptr;
  U32 n = 0;
  if (!_HasAttribute(pFile, CuDie, DW_AT_stmt_list))
    return;
  if (DWA_GetSrcFiles(_Ctx(pFile), CuDie, &paNames, &n) != 0)
    return;
  U64 unitId = _GetDieID(pFile, CuDie);
  for (U32 i = 0; i < n; i++) {
    const char* sName = paNames[i];
    if (strstr(sName, "<built-in>") || strstr(sName, "<stdin>"))
      continue;
    auto [it, isNew] = s->pDies->srcFileUnits.try_emplace(ELF_Djb2Hash(sName));
    // A unit that names a file twice (DWARF 5 lists the primary file as 0 and 1) counts once.
    if (!it->second.empty() && it->second.back() == unitId)
      continue;
    it->second.push_back(unitId);
    if (isNew)
      _StringListAppend(&s->srcFileNames, sName);
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
    auto [it, fresh] = s->pDies->lineFileIdx.try_emplace(key, 0);
    if (fresh) {
      int added = _StringListAppend(&s->lineFileNames, pLine->sFile);
      if (added < 0) {
        s->pDies->lineFileIdx.erase(it);
        continue;
      }
      it->second = (U32)added;
    }
    U64 index = it->second + 1;
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
  s->pDies = new (std::nothrow) ELF_DIE_INDEX;
  return s->pDies ? 0 : -1;
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

// Scans one section into its records; problems are logged, the records found stay.
static void _ScanSection(ELF_FILE* pFile, const char* sSection, bool IsTypes, DWS_SECTION_SCAN* pScan) {
  int section = ELF_GetSectionIdx(pFile, sSection);
  int abbrev = ELF_GetSectionIdx(pFile, ".debug_abbrev");
  const U8* pData = section >= 0 ? ELF_GetSectionBytes(pFile, (U32)section) : nullptr;
  if (!pData)
    return;
  const U8* pAbbrev = abbrev >= 0 ? ELF_GetSectionBytes(pFile, (U32)abbrev) : nullptr;
  std::vector<std::string> problems;
  DWS_ScanSection(pData, pFile->shdrs[section].sh_size, pAbbrev, pAbbrev ? pFile->shdrs[abbrev].sh_size : 0,
                  pFile->data[5] == 2, IsTypes, pScan, &problems);
  for (const std::string& problem : problems)
    ELF_Log(ELF_LOG_MESSAGE, "%s: %s: %s", pFile->sPath, sSection, problem.c_str());
}

// Files the units of one section: type units, or compile units with their source files and lines.
static void _ParseUnits(ELF_FILE* pFile, CLASSIFIER* c, bool IsInfo, bool TypeUnitsOnly, long* pTypeMs,
                        long* pInfoMs, long* pFileMs, long* pLineMs) {
  ELF_DWARF_STATE* s = _State(pFile);
  const DWS_SECTION_SCAN& scan = _ScanOf(c->d, IsInfo);
  for (const DWS_UNIT& unit : scan.units) {
    if (TypeUnitsOnly != unit.isTypeUnit || unit.recordCount == 0)
      continue;
    clock_t start = clock();
    ELF_DIE root = _GetDieAtOffset(pFile, unit.rootOffset, IsInfo);
    if (!root) {
      ELF_Log(ELF_LOG_MESSAGE, "%s: no DIE at offset 0x%llX of unit 0x%llX.", pFile->sPath,
              (unsigned long long)unit.rootOffset, (unsigned long long)unit.headerOffset);
      continue;
    }
    s->cuCount++;
    _ClassifyUnit(c, scan, unit, IsInfo);
    if (unit.isTypeUnit) {
      c->d->typeUnits[unit.signature] = _MakeDieID(unit.typeOffset, IsInfo);
      *pTypeMs += _Ms(start, clock());
      continue;
    }
    if (unit.version > s->dwarfVersion)
      s->dwarfVersion = unit.version;
    _ListAppend(&s->compUnits, _GetDieID(pFile, root));
    if (unit.broken) {
      ELF_Log(ELF_LOG_MESSAGE, "Could not parse debug info for compilation unit.");
      ELF_Log(ELF_LOG_MESSAGE, "%s: unit at offset 0x%llX.", pFile->sPath,
              (unsigned long long)unit.headerOffset);
    }
    _UpdateLanguage(pFile, root);
    clock_t afterInfo = clock();
    *pInfoMs += _Ms(start, afterInfo);
    ELF_CU_INFO* pCu = _AddCuInfo(pFile, unit.rootOffset, unit.version);
    if (!pCu)
      continue;
    _RecordSourceFiles(pFile, root, pCu);
    clock_t afterFiles = clock();
    *pFileMs += _Ms(afterInfo, afterFiles);
    _RecordLineRows(pFile, root, pCu);
    *pLineMs += _Ms(afterFiles, clock());
  }
}

// Definitions by declaration: a DIE with DW_AT_specification defines the DIE it names.
static void _BuildDefinitions(ELF_DIE_INDEX* d) {
  for (bool isInfo : {false, true}) {
    for (const DWS_RECORD& rec : _ScanOf(d, isInfo).records) {
      if ((rec.flags & DWS_COMPLETES) && !(rec.flags & DWS_EXTENSION) && rec.completes)
        d->defs[_MakeDieID(rec.completes, isInfo)] = rec.offset;
    }
  }
}

static void _FindMainSym(ELF_FILE* pFile) {
  ELF_DWARF_STATE* s = _State(pFile);
  int index = ELF_GetFileIndex(pFile);
  for (U32 i = 0; i < s->functions.n && !s->mainSym; i++) {
    bool isInfo = false;
    U64 offset = _IdToOffset(s->functions.items[i], &isInfo);
    const DWS_RECORD* pRec = _RecordAt(pFile, offset, isInfo);
    if (pRec && (pRec->flags & DWS_MAIN))
      s->mainSym = ELF_MakeDwarfHandle(index, s->functions.items[i]);
  }
  // By name; the DIEs are looked at once and not kept.
  for (U32 i = 0; i < s->functions.n && !s->mainSym; i++) {
    bool isInfo = false;
    U64 offset = _IdToOffset(s->functions.items[i], &isInfo);
    ELF_DIE die = DWA_GetDieAtOffset(_Ctx(pFile), offset, isInfo);
    const char* sName = die ? DWA_GetName(_Ctx(pFile), die) : nullptr;
    if (sName && strcmp(sName, "main") == 0)
      s->mainSym = ELF_MakeDwarfHandle(index, s->functions.items[i]);
    _DeallocDie(pFile, die);
  }
}

static void _LogLoad(ELF_FILE* pFile, long TypeMs, long InfoMs, long FileMs, long LineMs, long FrameMs) {
  ELF_DWARF_STATE* s = _State(pFile);
  ELF_Log(ELF_LOG_MESSAGE, "parsed type unit tree in ms:   %ld", TypeMs);
  ELF_Log(ELF_LOG_MESSAGE, "parsed debug info tree in ms:  %ld", InfoMs);
  ELF_Log(ELF_LOG_MESSAGE, "parsed source file info in ms: %ld", FileMs);
  ELF_Log(ELF_LOG_MESSAGE, "parsed source line info in ms: %ld", LineMs);
  ELF_Log(ELF_LOG_MESSAGE, "parsed call frame info in ms:  %ld", FrameMs);
  ELF_Log(ELF_LOG_MESSAGE, "File Size: %d", (int)pFile->fileSize);
  // The file is not yet open for ELF_GetDwarfSymbolCount.
  ELF_Log(ELF_LOG_MESSAGE, "Dwarf Symbol Count: %lu", (unsigned long)_NumDies(s->pDies));
  ELF_Log(ELF_LOG_MESSAGE, "ELF Symbol Count: %d", (int)pFile->symCount);
  ELF_Log(ELF_LOG_MESSAGE, "Data Encoding: %s", ELF_GetDataEncodingText(ELF_GetDataEncoding(pFile)));
  ELF_Log(ELF_LOG_MESSAGE, "Source Language: %s", s->srcLanguage == ELF_SRC_LANG_CPP ? "C++" : "C");
  ELF_Log(ELF_LOG_MESSAGE, "total init time: %ld ms", TypeMs + InfoMs + FileMs + LineMs + FrameMs);
  ELF_Log(ELF_LOG_MESSAGE, "Dwarf Version: %d", (int)s->dwarfVersion);
}

int ELF_ParseDebugInfo(ELF_FILE* pFile) {
  ELF_DWARF_STATE* s = _State(pFile);
  s->srcLanguage = ELF_SRC_LANG_C;
  pFile->cfaOffsetFactor = 1;
  if (ELF_GetSectionIdx(pFile, ".note.iar") >= 0)
    pFile->cfaOffsetFactor = 4;
  if (_CreateTables(pFile) < 0)
    return -1;
  long typeMs = 0, infoMs = 0, fileMs = 0, lineMs = 0, frameMs = 0;
  int started = _StartLibdwarf(pFile);
  if (started < 0)
    return -1;
  if (started != 0) {
    _LogLoad(pFile, 0, 0, 0, 0, 0);
    return 0;
  }
  clock_t start = clock();
  if (ELF_ReadIndexCache(pFile) == 0) {
    ELF_Log(ELF_LOG_MESSAGE, "read the symbol tree from the index cache in ms: %ld", _Ms(start, clock()));
    _LogLoad(pFile, 0, 0, 0, 0, 0);
    return 0;
  }
  CLASSIFIER c{pFile, s->pDies, {}, {}, {}};
  _ScanSection(pFile, ".debug_types", true, &c.d->types);
  _ScanSection(pFile, ".debug_info", false, &c.d->info);
  _BuildDefinitions(c.d);
  infoMs += _Ms(start, clock());
  _ParseUnits(pFile, &c, false, true, &typeMs, &infoMs, &fileMs, &lineMs);
  _ParseUnits(pFile, &c, true, true, &typeMs, &infoMs, &fileMs, &lineMs);
  _ParseUnits(pFile, &c, true, false, &typeMs, &infoMs, &fileMs, &lineMs);
  start = clock();
  c.d->localVars.Build(&c.locals);
  c.d->members.Build(&c.members);
  c.d->inheritance.Build(&c.inheritance);
  _FindMainSym(pFile);
  infoMs += _Ms(start, clock());
  start = clock();
  DWA_FRAME_INFO frames;
  if (DWA_LoadFrames(_Ctx(pFile), &frames) == 0) {
    s->cieCount = frames.CieCount;
    s->fdeCount = frames.FdeCount;
    s->returnAddrReg = frames.ReturnAddrReg;
  }
  frameMs = _Ms(start, clock());
  _LogLoad(pFile, typeMs, infoMs, fileMs, lineMs, frameMs);
  return 0;
}

void _ReleaseTreeTables(ELF_FILE* pFile) {
  ELF_DWARF_STATE* s = _State(pFile);
  if (s->pDies) {
    for (const auto& [id, die] : s->pDies->dieById) {
      if (die)
        DWA_ReleaseDie(_Ctx(pFile), die);
    }
    *s->pDies = ELF_DIE_INDEX();
  }
  for (U32 list = 0; list < kNumDieLists; list++) {
    ELF_ID_LIST* pList = _GetIdList(pFile, (ELF_DIE_LIST)list);
    free(pList->items);
    *pList = {};
  }
  for (ELF_STRING_LIST* pList : {&s->srcFileNames, &s->lineFileNames}) {
    for (U32 i = 0; i < pList->n; i++)
      free(pList->items[i]);
    free(pList->items);
    *pList = {};
  }
  free(s->lineRows.items);
  s->lineRows = {};
  for (U32 i = 0; i < s->cuInfos.n; i++)
    DWA_FreeStrings(s->cuInfos.items[i].fileNames, s->cuInfos.items[i].fileCount);
  free(s->cuInfos.items);
  s->cuInfos = {};
  s->dwarfVersion = 0;
  s->mainSym = 0;
  s->srcLanguage = ELF_SRC_LANG_C;
  s->cuCount = s->returnAddrReg = s->cieCount = s->fdeCount = 0;
}

void ELF_FreeDebugInfo(ELF_FILE* pFile) {
  ELF_DWARF_STATE* s = _State(pFile);
  _ReleaseTreeTables(pFile);
  delete s->pDies;
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

ELF_ID_LIST* _GetIdList(ELF_FILE* pFile, ELF_DIE_LIST List) {
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
  const ELF_ID_LIST* p = _GetIdList(pFile, List);
  return p ? p->n : 0;
}

ELF_SYM_HANDLE ELF_GetDieListHandle(ELF_FILE* pFile, ELF_DIE_LIST List, U32 n) {
  if (!ELF_IsValidFile(pFile))
    return 0;
  const ELF_ID_LIST* p = _GetIdList(pFile, List);
  if (!p || n >= p->n)
    return 0;
  return ELF_MakeDwarfHandle(ELF_GetFileIndex(pFile), p->items[n]);
}

static const U64* _GetScopeList(ELF_FILE* pFile, ELF_SYM_HANDLE hScope, ELF_SCOPE_LIST List, U32* pn) {
  *pn = 0;
  U64 id = 0;
  if (!ELF_IsValidFile(pFile) || !_IsDwarfSymbolHandle(hScope) || !_GetSymID(hScope, &id) || !_Dies(pFile))
    return nullptr;
  const ELF_DIE_INDEX* d = _Dies(pFile);
  const ELF_SCOPE_MAP& map = List == ELF_SCOPE_LOCAL_VARS ? d->localVars
                             : List == ELF_SCOPE_MEMBERS  ? d->members
                                                          : d->inheritance;
  return map.Get(id, pn);
}

U32 ELF_GetScopeListCount(ELF_FILE* pFile, ELF_SYM_HANDLE hScope, ELF_SCOPE_LIST List) {
  U32 n = 0;
  _GetScopeList(pFile, hScope, List, &n);
  return n;
}

ELF_SYM_HANDLE ELF_GetScopeListHandle(ELF_FILE* pFile, ELF_SYM_HANDLE hScope, ELF_SCOPE_LIST List, U32 n) {
  U32 count = 0;
  const U64* paItems = _GetScopeList(pFile, hScope, List, &count);
  if (!paItems || n >= count)
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

static const std::vector<U64>* _GetSrcFileUnits(ELF_FILE* pFile, const char* sName) {
  if (!ELF_IsValidFile(pFile) || !sName || !_Dies(pFile))
    return nullptr;
  auto it = _Dies(pFile)->srcFileUnits.find(ELF_Djb2Hash(sName));
  return it == _Dies(pFile)->srcFileUnits.end() ? nullptr : &it->second;
}

U32 ELF_GetSrcFileCUCount(ELF_FILE* pFile, const char* sName) {
  const std::vector<U64>* pUnits = _GetSrcFileUnits(pFile, sName);
  return pUnits ? (U32)pUnits->size() : 0;
}

ELF_SYM_HANDLE ELF_GetSrcFileCU(ELF_FILE* pFile, const char* sName, U32 n) {
  const std::vector<U64>* pUnits = _GetSrcFileUnits(pFile, sName);
  if (!pUnits || n >= pUnits->size())
    return 0;
  return ELF_MakeDwarfHandle(ELF_GetFileIndex(pFile), (*pUnits)[n]);
}

U32 ELF_GetDwarfSymbolCount(ELF_FILE* pFile) {
  if (!ELF_IsValidFile(pFile) || !_Dies(pFile))
    return 0;
  return (U32)_NumDies(_Dies(pFile));
}
