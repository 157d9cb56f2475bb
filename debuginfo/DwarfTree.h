// The DWARF symbol tree: one walk over every unit at load records parent links, tags, declaration
// links, members and locals of each scope, and the lists of globals, functions, types and
// namespaces, in hash tables keyed by DIE identifier. DIEs stay in the file image; only those a
// table holds stay allocated. Also the symbol handle, the type-name builder and the line rows.
#pragma once

#include <cstddef>

#include "app/base/Types.h"
#include "debuginfo/DwarfAdapter.h"
#include "debuginfo/DwarfState.h"

struct ELF_FILE;

// The opaque handle by which the program refers to a symbol; 0 means none.
//   bits 63..48  0xE0FE in every valid handle
//   bits 47..45  type: 1 DWARF symbol, 2 ELF symbol
//   bits 44..42  index of the file in the file table (above 2 is invalid)
//   bits 41..0   the ELF symbol index, or the DIE identifier
// The identifier field is 42 bits wide so that programs with gigabytes of DWARF stay addressable.
typedef U64 ELF_SYM_HANDLE;
typedef DWA_DIE ELF_DIE;

enum : U32 {
  ELF_HANDLE_DWARF = 1,
  ELF_HANDLE_ELF = 2,
};
static constexpr U64 ELF_HANDLE_MAGIC = 0xE0FE000000000000ull;
static constexpr U64 ELF_HANDLE_MAGIC_MASK = 0xFFFF000000000000ull;
static constexpr U64 ELF_HANDLE_ID_MASK = (1ull << 42) - 1;
// DIE identifiers: offset + 1 in .debug_info, offset + 1 + 2^32 in .debug_types. 0 names no DIE.
static constexpr U64 ELF_TYPES_ID_BASE = (1ull << 32) + 1;

// DWARF tags and attributes the tree tests.
enum : U16 {
  ELF_TAG_ARRAY = 1,
  ELF_TAG_CLASS = 2,
  ELF_TAG_ENUMERATION = 4,
  ELF_TAG_FORMAL_PARAMETER = 5,
  ELF_TAG_LEXICAL_BLOCK = 11,
  ELF_TAG_MEMBER = 13,
  ELF_TAG_POINTER = 15,
  ELF_TAG_REFERENCE = 16,
  ELF_TAG_COMPILE_UNIT = 17,
  ELF_TAG_STRUCTURE = 19,
  ELF_TAG_SUBROUTINE_TYPE = 21,
  ELF_TAG_TYPEDEF = 22,
  ELF_TAG_UNION = 23,
  ELF_TAG_INHERITANCE = 28,
  ELF_TAG_INLINED_SUBROUTINE = 29,
  ELF_TAG_PTR_TO_MEMBER = 31,
  ELF_TAG_SUBRANGE = 33,
  ELF_TAG_BASE_TYPE = 36,
  ELF_TAG_CONST = 38,
  ELF_TAG_ENUMERATOR = 40,
  ELF_TAG_SUBPROGRAM = 46,
  ELF_TAG_VARIABLE = 52,
  ELF_TAG_VOLATILE = 53,
  ELF_TAG_RESTRICT = 55,
  ELF_TAG_NAMESPACE = 57,
  ELF_TAG_NONE = 0xFFFF,
};

// Handles.
ELF_SYM_HANDLE ELF_MakeElfHandle(int FileIndex, U32 Index);
ELF_SYM_HANDLE ELF_MakeDwarfHandle(int FileIndex, U64 Id);
bool _IsValidSymbolHandle(ELF_SYM_HANDLE h);
U32 _GetSymbolHandleType(ELF_SYM_HANDLE h);
bool _GetFile(ELF_SYM_HANDLE h, ELF_FILE** ppFile);
bool _GetSymID(ELF_SYM_HANDLE h, U64* pId);
bool _IsElfSymbolHandle(ELF_SYM_HANDLE h);
bool _IsDwarfSymbolHandle(ELF_SYM_HANDLE h);
bool _GetDwarfSymContext(ELF_SYM_HANDLE h, ELF_FILE** ppFile, ELF_DIE* pDie);
bool _GetElfSymContext(ELF_SYM_HANDLE h, ELF_FILE** ppFile, U32* pIndex);
ELF_DIE _GetDie(ELF_SYM_HANDLE h);
ELF_SYM_HANDLE _GetDwarfSymHandle(ELF_FILE* pFile, ELF_DIE Die);

// Load and release, called by the ELF layer. ELF_ParseDebugInfo returns 0, or -1 when libdwarf could
// not be started on the file (the tables are then empty and queries answer from ELF symbols).
int ELF_ParseDebugInfo(ELF_FILE* pFile);
void ELF_FreeDebugInfo(ELF_FILE* pFile);

// The DIE store. DIEs from _GetDieAtOffset, _GetParentDie, _GetReferenceDie and the other lookups
// belong to the store. DIEs from _CopyDie, _CreateChild and _CreateSibling belong to the caller, who
// releases them with _DeallocDie (which leaves stored DIEs alone).
U64 _MakeDieID(U64 Offset, bool IsInfo);
U64 _GetDieOffset(ELF_FILE* pFile, ELF_DIE Die);
U64 _GetDieID(ELF_FILE* pFile, ELF_DIE Die);
bool _IsTypeUnitDie(ELF_FILE* pFile, ELF_DIE Die);
U16 _GetDieType(ELF_FILE* pFile, ELF_DIE Die);
ELF_DIE _GetDieAtOffset(ELF_FILE* pFile, U64 Offset, bool IsInfo);
ELF_DIE _CopyDie(ELF_FILE* pFile, ELF_DIE Die);
void _DeallocDie(ELF_FILE* pFile, ELF_DIE Die);
ELF_DIE _CreateChild(ELF_FILE* pFile, ELF_DIE Die);
// The next sibling; Die is released (callers walk by reassignment).
ELF_DIE _CreateSibling(ELF_FILE* pFile, ELF_DIE Die);
ELF_DIE _GetParentDie(ELF_FILE* pFile, ELF_DIE Die);
U64 _GetDieAncestorOff(ELF_FILE* pFile, ELF_DIE Die);
ELF_DIE _GetDieAncestor(ELF_FILE* pFile, ELF_DIE Die);
U64 _GetAnyDieAncestorOff(ELF_FILE* pFile, ELF_DIE Die);
U64 _GetDieParentTypeOff(ELF_FILE* pFile, ELF_DIE Die);
ELF_DIE _GetDieParentType(ELF_FILE* pFile, ELF_DIE Die);
U64 _GetDieParentFuncOff(ELF_FILE* pFile, ELF_DIE Die);
ELF_DIE _GetDieParentFunc(ELF_FILE* pFile, ELF_DIE Die);
U64 _GetDieParentNamespaceOff(ELF_FILE* pFile, ELF_DIE Die);
ELF_DIE _GetDieParentNamespace(ELF_FILE* pFile, ELF_DIE Die);
ELF_DIE _GetAbstractInstanceOf(ELF_FILE* pFile, ELF_DIE Die);
ELF_DIE _GetDefinitionDie(ELF_FILE* pFile, ELF_DIE Die);
U64 _GetDeclDieOff(ELF_FILE* pFile, ELF_DIE Die);
bool _IsDeclarationDie(ELF_FILE* pFile, ELF_DIE Die);
bool _IsDataTypeDie(ELF_FILE* pFile, ELF_DIE Die);
bool _HasChildren(ELF_FILE* pFile, ELF_DIE Die);
bool _HasAttribute(ELF_FILE* pFile, ELF_DIE Die, U16 Attr);

// Attributes. The Ex form follows DW_AT_specification, DW_AT_abstract_origin and definition links (depth 5).
bool _CreateDieAttr(ELF_FILE* pFile, ELF_DIE Die, U16 Attr, DWA_VALUE* pValue);
bool _CreateDieAttrEx(ELF_FILE* pFile, ELF_DIE Die, U16 Attr, DWA_VALUE* pValue, int Depth);
U64 _GetAttributeAsU64(ELF_FILE* pFile, ELF_DIE Die, U16 Attr, bool* pFound);
ELF_DIE _GetReferenceDie(ELF_FILE* pFile, ELF_DIE Die, U16 Attr);
ELF_DIE _GetTypeDie(ELF_FILE* pFile, ELF_DIE Die, U16 Tag);
ELF_DIE _GetDataTypeDie(ELF_FILE* pFile, ELF_DIE Die, bool IncludeSelf);
U32 _GetSubrangeElemCnt(ELF_FILE* pFile, ELF_DIE Die);
bool _IsStaticDie(ELF_FILE* pFile, ELF_DIE Die);

// Names. Base type names come normalised ("unsigned int" is "uint"). Null when there is none.
const char* _GetDieName(ELF_FILE* pFile, ELF_DIE Die, int Depth = 0);
void ELF_NormaliseBaseTypeName(char* sName, size_t Size);
// The C declaration text of a DIE's type, cached; null when there is none.
const char* _GetDieTypeStr(ELF_FILE* pFile, ELF_DIE Die);
// The source file a DIE was declared in (DW_AT_decl_file through its unit's file list), or null.
const char* _GetDieDeclFileName(ELF_FILE* pFile, ELF_DIE Die);

// Ranges and locations of a DIE, in our own types (see DwarfAdapter.h).
int _GetDieRanges(ELF_FILE* pFile, ELF_DIE Die, DWA_RANGE** ppaRanges, U32* pNum);
int _GetDieLocations(ELF_FILE* pFile, ELF_DIE Die, U16 Attr, DWA_LOC_ENTRY** ppaEntries, U32* pNum);
int ELF_GetFrameRules(ELF_FILE* pFile, U32 Pc, DWA_REG_RULE* paRules, DWA_REG_RULE* pCfa);

// Lists for the program index.
enum ELF_DIE_LIST : U32 {
  ELF_LIST_GLOBAL_VARS,
  ELF_LIST_NAMESPACES,
  ELF_LIST_NAMESPACE_EXTS,
  ELF_LIST_TYPES,
  ELF_LIST_COMP_UNITS,
  ELF_LIST_FUNCTIONS,
  ELF_LIST_INLINE_FUNCS,
};
U32 ELF_GetDieListCount(ELF_FILE* pFile, ELF_DIE_LIST List);
ELF_SYM_HANDLE ELF_GetDieListHandle(ELF_FILE* pFile, ELF_DIE_LIST List, U32 n);
// Per-scope lists: locals of a function, members of a type, inheritance of a class.
enum ELF_SCOPE_LIST : U32 {
  ELF_SCOPE_LOCAL_VARS,
  ELF_SCOPE_MEMBERS,
  ELF_SCOPE_INHERITANCE,
};
U32 ELF_GetScopeListCount(ELF_FILE* pFile, ELF_SYM_HANDLE hScope, ELF_SCOPE_LIST List);
ELF_SYM_HANDLE ELF_GetScopeListHandle(ELF_FILE* pFile, ELF_SYM_HANDLE hScope, ELF_SCOPE_LIST List, U32 n);
U32 ELF_GetLineRowCount(ELF_FILE* pFile);
const ELF_LINE_ROW* ELF_GetLineRow(ELF_FILE* pFile, U32 n);
const char* ELF_GetLineRowFileName(ELF_FILE* pFile, U32 n);
U32 ELF_GetSrcFileCount(ELF_FILE* pFile);
const char* ELF_GetSrcFileName(ELF_FILE* pFile, U32 n);
U32 ELF_GetSrcFileCUCount(ELF_FILE* pFile, const char* sName);
ELF_SYM_HANDLE ELF_GetSrcFileCU(ELF_FILE* pFile, const char* sName, U32 n);
U32 ELF_GetDwarfSymbolCount(ELF_FILE* pFile);
U32 ELF_Djb2Hash(const char* s);
