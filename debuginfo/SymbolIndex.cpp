// The symbol half of the program index: look-ups by name, facts about one symbol cached by handle,
// and the context PC with its local variables. See ProgramIndex.h.
#include <dwarf.h>

#include <algorithm>

#include "debuginfo/ProgramIndex.h"
#include "debuginfo/ProgramIndexState.h"
#include "debuginfo/SymbolQueries.h"

/*********************************************************************
 * Symbols by name
 */

namespace {

QString _GetQualifiedNameLocked(ELF_SYM_HANDLE h, int Depth);

// The text of the scope a symbol sits in: its parent type, else its parent namespace, qualified.
QString _GetParentTextLocked(ELF_SYM_HANDLE h, int Depth) {
  ELF_FILE* pFile = nullptr;
  ELF_DIE die = nullptr;
  if (Depth > 20 || !_GetDwarfSymContext(h, &pFile, &die))
    return QString();
  ELF_DIE parent = _GetDieParentType(pFile, die);
  if (!parent)
    parent = _GetDieParentNamespace(pFile, die);
  return parent ? _GetQualifiedNameLocked(_GetDwarfSymHandle(pFile, parent), Depth + 1) : QString();
}

QString _GetQualifiedNameLocked(ELF_SYM_HANDLE h, int Depth) {
  CIndexState& s = _IndexState();
  auto it = s.qualifiedNameCache.find(h);
  if (it != s.qualifiedNameCache.end())
    return it->second;
  QString name = ELF_GetSymName(h);
  QString parent = _GetParentTextLocked(h, Depth);
  QString qualified = parent.isEmpty() ? name : parent + "::" + name;
  s.qualifiedNameCache[h] = qualified;
  return qualified;
}

void _BuildNameIndex(CNameIndex& Index, const ELF_SYM_LIST& List, bool Qualified, bool WithElf) {
  if (Index.built)
    return;
  Index.built = true;
  for (ELF_SYM_HANDLE h : List) {
    QString name = Qualified ? _GetQualifiedNameLocked(h, 0) : ELF_GetSymName(h);
    if (!name.isEmpty())
      Index.byName.emplace(name, h);
  }
  ELF_FILE* pFile = _IndexState().pFile;
  if (!WithElf || !pFile)
    return;
  // Functions and data objects of the symbol table, so that a program without DWARF (or an
  // assembler routine) is still found by name; they sort behind the DWARF hits.
  for (U32 i = 0; i < ELF_GetSymCount(pFile); i++) {
    const ELF_SYM* pSym = ELF_GetSym(pFile, i);
    U32 type = pSym ? pSym->st_info & 15 : 0;
    if (!pSym || pSym->st_shndx == 0 ||
        (type != ELF_STT_FUNC && type != ELF_STT_ARM_TFUNC && type != ELF_STT_OBJECT))
      continue;
    const char* sName = ELF_GetSymName(pFile, i);
    if (sName && *sName && *sName != '$' && *sName != '?')
      Index.byName.emplace(QString::fromUtf8(sName), ELF_GetSymHandle(pFile, i));
  }
}

ELF_SYM_LIST _Lookup(CNameIndex& Index, const QString& sName) {
  ELF_SYM_LIST hits;
  auto collect = [&](const QString& sKey, const QString& sScope) {
    auto range = Index.byName.equal_range(sKey);
    for (auto it = range.first; it != range.second; ++it) {
      if (sScope.isNull() || _GetParentTextLocked(it->second, 0) == sScope)
        hits.push_back(it->second);
    }
  };
  collect(sName, QString());
  int split = sName.lastIndexOf("::");
  if (hits.empty() && split > 0)
    collect(sName.mid(split + 2), sName.left(split));
  // unordered_multimap gives equal keys in no defined order: sort by handle for stable answers.
  std::sort(hits.begin(), hits.end());
  return hits;
}

// Inline instances first (the last found first), then the other DWARF symbols, then ELF symbols.
ELF_SYM_LIST _Reorder(const ELF_SYM_LIST& Hits) {
  ELF_SYM_LIST inlines, dwarf, elf;
  for (ELF_SYM_HANDLE h : Hits) {
    if (_IsElfSymbolHandle(h))
      elf.push_back(h);
    else if (_GetSymTag(h) == ELF_TAG_INLINED_SUBROUTINE)
      inlines.insert(inlines.begin(), h);
    else
      dwarf.push_back(h);
  }
  inlines.insert(inlines.end(), dwarf.begin(), dwarf.end());
  inlines.insert(inlines.end(), elf.begin(), elf.end());
  return inlines;
}

}  // namespace

ELF_SYM_LIST ELF_FindDebugSymsByName(const QString& sName) {
  std::lock_guard lock(ELF_GetIndexMutex());
  CIndexState& s = _IndexState();
  if (sName.isEmpty() || !s.loaded)
    return {};
  _BuildNameIndex(s.debugSymsByName, s.debugSymbols, false, true);
  return _Reorder(_Lookup(s.debugSymsByName, sName));
}

ELF_SYM_LIST ELF_FindTypesByName(const QString& sName) {
  std::lock_guard lock(ELF_GetIndexMutex());
  CIndexState& s = _IndexState();
  if (sName.isEmpty() || !s.loaded)
    return {};
  _BuildNameIndex(s.typesByName, s.types, false, false);
  return _Lookup(s.typesByName, sName);
}

ELF_SYM_LIST ELF_FindNamespacesByName(const QString& sName) {
  std::lock_guard lock(ELF_GetIndexMutex());
  CIndexState& s = _IndexState();
  if (sName.isEmpty() || !s.loaded)
    return {};
  _BuildNameIndex(s.namespacesByName, s.namespaces, true, false);
  return _Lookup(s.namespacesByName, sName);
}

ELF_SYM_LIST ELF_FindSyms(const QString& sName, bool DebugSyms, bool Types, bool Namespaces) {
  std::lock_guard lock(ELF_GetIndexMutex());
  ELF_SYM_LIST hits;
  auto append = [&](const ELF_SYM_LIST& l) { hits.insert(hits.end(), l.begin(), l.end()); };
  if (DebugSyms)
    append(ELF_FindDebugSymsByName(sName));
  if (Types)
    append(ELF_FindTypesByName(sName));
  if (Namespaces)
    append(ELF_FindNamespacesByName(sName));
  return _Reorder(hits);
}

ELF_SYM_HANDLE ELF_FindSym(const QString& sName, bool DebugSyms, bool Types, bool Namespaces) {
  ELF_SYM_LIST hits = ELF_FindSyms(sName, DebugSyms, Types, Namespaces);
  return hits.empty() ? 0 : hits.front();
}

ELF_SYM_LIST ELF_GetGlobals() {
  std::lock_guard lock(ELF_GetIndexMutex());
  return _IndexState().globalVars;
}

/*********************************************************************
 * Facts about one symbol
 */

QString ELF_GetSymName(ELF_SYM_HANDLE h) {
  std::lock_guard lock(ELF_GetIndexMutex());
  CIndexState& s = _IndexState();
  auto it = s.nameCache.find(h);
  if (it != s.nameCache.end())
    return it->second;
  QString name;
  ELF_FILE* pFile = nullptr;
  ELF_DIE die = nullptr;
  U32 index = 0;
  if (_GetDwarfSymContext(h, &pFile, &die))
    name = QString::fromUtf8(_GetDieName(pFile, die));
  else if (_GetElfSymContext(h, &pFile, &index))
    name = QString::fromUtf8(ELF_GetSymName(pFile, index));
  else
    return QString();
  s.nameCache[h] = name;
  return name;
}

ELF_SYM_HANDLE ELF_GetSymDataType(ELF_SYM_HANDLE h) {
  std::lock_guard lock(ELF_GetIndexMutex());
  ELF_FILE* pFile = nullptr;
  ELF_DIE die = nullptr;
  if (!_GetDwarfSymContext(h, &pFile, &die))
    return 0;
  return _GetDwarfSymHandle(pFile, _GetDataTypeDie(pFile, die, false));
}

QString ELF_GetSymDataTypeName(ELF_SYM_HANDLE h) {
  std::lock_guard lock(ELF_GetIndexMutex());
  ELF_FILE* pFile = nullptr;
  ELF_DIE die = nullptr;
  if (!_GetDwarfSymContext(h, &pFile, &die))
    return QString();
  return QString::fromUtf8(_GetDieTypeStr(pFile, die));
}

ELF_SYM_LOC ELF_GetSymLoc(ELF_SYM_HANDLE h, U32 Pc) {
  std::lock_guard lock(ELF_GetIndexMutex());
  ELF_SYM_LOC loc = {};
  ELF_FILE* pFile = nullptr;
  ELF_DIE die = nullptr;
  if (const ELF_SYM* pSym = _GetElfSymOf(h)) {
    if (!ELF_IsFunction(h)) {
      loc.kind = ELF_LOC_ADDR;
      loc.addr = ELF_ApplyRelocation(pSym->st_value, false);
    }
    return loc;
  }
  if (!_GetDwarfSymContext(h, &pFile, &die))
    return loc;
  return ELF_GetDieLoc(pFile, die, Pc);
}

U32 ELF_GetSymAddr(ELF_SYM_HANDLE h) {
  std::lock_guard lock(ELF_GetIndexMutex());
  if (ELF_IsFunction(h)) {
    CAddrRange r = ELF_GetFuncRange(h);
    return r.IsEmpty() ? kNone : r.start;
  }
  ELF_SYM_LOC loc = ELF_GetSymLoc(h, 0);
  if (loc.kind == ELF_LOC_ADDR)
    return loc.addr;
  if (loc.kind == ELF_LOC_ADDR_OFFSET)
    return loc.addr + (U32)loc.offset;
  return kNone;
}

U32 ELF_GetSymSize(ELF_SYM_HANDLE h) {
  std::lock_guard lock(ELF_GetIndexMutex());
  if (const ELF_SYM* pSym = _GetElfSymOf(h))
    return pSym->st_size;
  ELF_FILE* pFile = nullptr;
  ELF_DIE die = nullptr;
  if (!_GetDwarfSymContext(h, &pFile, &die))
    return 0;
  // A function's size is its code, not its return type.
  if (ELF_IsFunction(h))
    return ELF_GetFuncRange(h).size;
  return ELF_GetDieSizeRecursive(pFile, die);
}

CSrcLoc ELF_GetSymDeclLoc(ELF_SYM_HANDLE h) {
  std::lock_guard lock(ELF_GetIndexMutex());
  ELF_FILE* pFile = nullptr;
  ELF_DIE die = nullptr;
  if (!_GetDwarfSymContext(h, &pFile, &die))
    return CSrcLoc{};
  // Declaration facts live on the declaration or the abstract origin as often as on the DIE.
  DWA_VALUE v;
  I64 line = _CreateDieAttrEx(pFile, die, DW_AT_decl_line, &v, 0) ? (I64)v.u : -1;
  QString file = QString::fromUtf8(_GetDieDeclFileName(pFile, die));
  for (int depth = 0; file.isEmpty() && depth < 5; depth++) {
    ELF_DIE next = _GetReferenceDie(pFile, die, DW_AT_abstract_origin);
    if (!next)
      next = _GetReferenceDie(pFile, die, DW_AT_specification);
    if (!next || next == die)
      break;
    die = next;
    file = QString::fromUtf8(_GetDieDeclFileName(pFile, die));
  }
  U32 addr = ELF_GetSymAddr(h);
  CSrcLoc atAddr = addr != kNone ? ELF_GetFirstSrcLoc(addr) : CSrcLoc{};
  if (line < 0 || line > 0xFFFFFFFFll) {
    if (!atAddr.IsValid() || atAddr.line == 0)
      return CSrcLoc{};
    line = atAddr.line - 1;
  }
  // A header named only by declarations gets its identifier here, the first time it is asked for.
  U32 id = !file.isEmpty()    ? _AddDwarfFile(_IndexState(), file.toUtf8().constData())
           : atAddr.IsValid() ? atAddr.file
                              : kNone;
  if (id == kNone)
    return CSrcLoc{};
  return CSrcLoc{id, (U32)line, 0};
}

// The name of entry Number of a unit's file list (DW_AT_decl_file and DW_AT_call_file numbering);
// null if the number names no entry.
static const char* _UnitFileName(ELF_FILE* pFile, ELF_DIE Die, U64 Number) {
  U64 unit = _GetDieAncestorOff(pFile, Die);
  const ELF_CU_INFOS& infos = pFile->dwarf.cuInfos;
  for (U32 i = 0; i < infos.n; i++) {
    const ELF_CU_INFO& cu = infos.items[i];
    if (cu.offset != unit)
      continue;
    // Version 5 line tables number files from 0; earlier ones from 1, with 0 meaning none.
    if (cu.lineVersion < 5 && Number == 0)
      return nullptr;
    U64 index = cu.lineVersion >= 5 ? Number : Number - 1;
    return index < cu.fileCount ? cu.fileNames[index] : nullptr;
  }
  return nullptr;
}

CSrcLoc ELF_GetSymCallLoc(ELF_SYM_HANDLE h) {
  std::lock_guard lock(ELF_GetIndexMutex());
  ELF_FILE* pFile = nullptr;
  ELF_DIE die = nullptr;
  if (!_GetDwarfSymContext(h, &pFile, &die))
    return CSrcLoc{};
  bool haveLine = false, haveFile = false;
  U64 line = _GetAttributeAsU64(pFile, die, DW_AT_call_line, &haveLine);
  U64 fileNumber = _GetAttributeAsU64(pFile, die, DW_AT_call_file, &haveFile);
  const char* sFile = haveFile ? _UnitFileName(pFile, die, fileNumber) : nullptr;
  U32 file = sFile ? _AddDwarfFile(_IndexState(), sFile) : kNone;
  if (haveLine && line > 0 && line <= 0xFFFFFFFFull && file != kNone)
    return CSrcLoc{file, (U32)line, 0};
  // No call line: the caller's lines at the copy's start, the last of them in the caller's file.
  ELF_DIE caller = _GetDieParentFunc(pFile, die);
  CAddrRange r = ELF_GetFuncRange(h);
  if (!caller || r.IsEmpty())
    return CSrcLoc{};
  CSrcLoc callerDecl = ELF_GetSymDeclLoc(_GetDwarfSymHandle(pFile, caller));
  CSrcLoc found;
  for (const CSrcLoc& loc : ELF_GetSrcLocs(r.start)) {
    if (loc.file == callerDecl.file)
      found = loc;
  }
  return found;
}

QString ELF_GetSymLocText(const ELF_SYM_LOC& Loc) {
  auto regText = [](U32 Reg) {
    if (Reg == 1035)
      return QString("same as caller");
    if (Reg == 1034)
      return QString("unspecified");
    return QString("R%1").arg(Reg);
  };
  auto signedPart = [](I32 Offset) {
    return QString(" %1 %2").arg(Offset < 0 ? "-" : "+").arg(Offset < 0 ? -(I64)Offset : (I64)Offset);
  };
  QString off = Loc.offset ? signedPart(Loc.offset) : QString();
  QString hex = QString::number(Loc.addr, 16).toUpper();
  switch (Loc.kind) {
    case ELF_LOC_CONST:
      return "const";
    case ELF_LOC_ADDR:
      return "[" + hex + "]";
    case ELF_LOC_ADDR_OFFSET:
      return "[" + hex + "]" + off;
    case ELF_LOC_REG:
      return regText(Loc.reg);
    case ELF_LOC_REG_VALUE:
      return regText(Loc.reg) + off;
    case ELF_LOC_AT_REG:
      return Loc.offset ? QString("[R%1]").arg(Loc.reg) + off : "[" + regText(Loc.reg) + "]";
    case ELF_LOC_SP_VALUE:
      return "SP" + off;
    case ELF_LOC_BP_VALUE:
      return "BP" + off;
    case ELF_LOC_CFA_VALUE:
      return "CFA" + off;
    case ELF_LOC_AT_SP:
      return "[SP" + off + "]";
    case ELF_LOC_AT_BP:
      return "[BP" + off + "]";
    case ELF_LOC_AT_CFA:
      return "[CFA" + off + "]";
    case ELF_LOC_PARENT_VALUE:
      return "Parent value" + off;
    case ELF_LOC_PARENT_LOC:
      return "Parent loc" + off;
    case ELF_LOC_ENTRY_VALUE: {
      ELF_SYM_LOC base = {};
      base.kind = Loc.baseKind;
      base.addr = Loc.baseAddr;
      base.reg = Loc.baseReg;
      base.offset = Loc.baseOffset;
      return ELF_GetSymLocText(base) + " (on entry)";
    }
    default:
      return "N/A";
  }
}

/*********************************************************************
 * Context PC and locals
 */

void ELF_SetContextPC(U32 Pc) {
  std::lock_guard lock(ELF_GetIndexMutex());
  CIndexState& s = _IndexState();
  s.contextPc = Pc;
  ELF_SYM_HANDLE func = ELF_GetFuncAt(Pc, false);
  if (func == s.contextFunc)
    return;
  s.contextFunc = func;
  s.localVars.clear();
  ELF_FILE* pFile = nullptr;
  if (!func || !_IsDwarfSymbolHandle(func) || !_GetFile(func, &pFile))
    return;
  U32 n = ELF_GetScopeListCount(pFile, func, ELF_SCOPE_LOCAL_VARS);
  for (U32 i = 0; i < n; i++) {
    ELF_SYM_HANDLE h = ELF_GetScopeListHandle(pFile, func, ELF_SCOPE_LOCAL_VARS, i);
    if (h)
      s.localVars.push_back(h);
  }
}

U32 ELF_GetContextPC() {
  std::lock_guard lock(ELF_GetIndexMutex());
  return _IndexState().contextPc;
}

ELF_SYM_HANDLE ELF_GetContextFunc() {
  std::lock_guard lock(ELF_GetIndexMutex());
  return _IndexState().contextFunc;
}

ELF_SYM_LIST ELF_GetLocalVars(bool All) {
  std::lock_guard lock(ELF_GetIndexMutex());
  CIndexState& s = _IndexState();
  if (All)
    return s.localVars;
  ELF_SYM_LIST present;
  for (ELF_SYM_HANDLE h : s.localVars) {
    if (ELF_GetSymLoc(h, s.contextPc).kind != ELF_LOC_NONE)
      present.push_back(h);
  }
  return present;
}

ELF_SYM_LIST ELF_FindLocalsByName(const QString& sName) {
  std::lock_guard lock(ELF_GetIndexMutex());
  CIndexState& s = _IndexState();
  ELF_SYM_LIST hits;
  if (sName == "this") {
    ELF_FILE* pFile = nullptr;
    ELF_DIE die = nullptr;
    if (_GetDwarfSymContext(s.contextFunc, &pFile, &die)) {
      ELF_DIE object = _GetReferenceDie(pFile, die, DW_AT_object_pointer);
      if (object)
        hits.push_back(_GetDwarfSymHandle(pFile, object));
    }
    return hits;
  }
  for (ELF_SYM_HANDLE h : s.localVars) {
    if (ELF_GetSymName(h) == sName)
      hits.push_back(h);
  }
  return hits;
}

U8 ELF_IsInScope(ELF_SYM_HANDLE h, U32 Pc) {
  std::lock_guard lock(ELF_GetIndexMutex());
  ELF_FILE* pFile = nullptr;
  ELF_DIE die = nullptr;
  if (!_GetDwarfSymContext(h, &pFile, &die))
    return 255;
  ELF_DIE func = _GetDieParentFunc(pFile, die);
  if (!func)
    return 255;
  CAddrRange r = ELF_GetFuncRange(_GetDwarfSymHandle(pFile, func));
  if (r.IsEmpty())
    return 255;
  U32 pc = Pc == kNone ? _IndexState().contextPc : Pc;
  return pc >= r.start && pc < r.End() ? 1 : 0;
}

ELF_SYM_HANDLE ELF_FindSymInContext(const QString& sName) {
  std::lock_guard lock(ELF_GetIndexMutex());
  ELF_SYM_LIST locals = ELF_FindLocalsByName(sName);
  ELF_SYM_HANDLE outOfScope = 0;
  for (auto it = locals.rbegin(); it != locals.rend(); ++it) {
    if (ELF_IsInScope(*it, kNone) != 0)
      return *it;
    outOfScope = outOfScope ? outOfScope : *it;
  }
  ELF_SYM_HANDLE h = ELF_FindSym(sName, true, true, true);
  return h ? h : outOfScope;
}

/*********************************************************************
 * Symbols at an address, members, parents
 */

ELF_SYM_LIST ELF_GetSymsAtAddr(U32 Addr) {
  std::lock_guard lock(ELF_GetIndexMutex());
  CIndexState& s = _IndexState();
  if (!s.loaded || Addr == kNone)
    return {};
  if (!s.debugSymsAtAddrBuilt) {
    s.debugSymsAtAddrBuilt = true;
    for (const ELF_SYM_LIST* pList : {&s.functions, &s.globalVars}) {
      for (ELF_SYM_HANDLE h : *pList) {
        U32 a = ELF_GetSymAddr(h);
        if (a != kNone)
          s.debugSymsAtAddr.emplace(a, h);
      }
    }
  }
  ELF_SYM_LIST hits;
  for (ELF_SYM_HANDLE h : s.localVars) {
    ELF_SYM_LOC loc = ELF_GetSymLoc(h, s.contextPc);
    if ((loc.kind == ELF_LOC_ADDR && loc.addr == Addr) ||
        (loc.kind == ELF_LOC_ADDR_OFFSET && loc.addr + (U32)loc.offset == Addr))
      hits.push_back(h);
  }
  auto range = s.debugSymsAtAddr.equal_range(Addr);
  ELF_SYM_LIST debug;
  for (auto it = range.first; it != range.second; ++it)
    debug.push_back(it->second);
  std::sort(debug.begin(), debug.end());
  hits.insert(hits.end(), debug.begin(), debug.end());
  for (U32 i = 0; i < ELF_GetSymCount(s.pFile); i++) {
    const ELF_SYM* pSym = ELF_GetSym(s.pFile, i);
    U32 type = pSym ? pSym->st_info & 15 : 0;
    if (!pSym || pSym->st_shndx == 0 ||
        (type != ELF_STT_FUNC && type != ELF_STT_ARM_TFUNC && type != ELF_STT_OBJECT))
      continue;
    U32 value = type == ELF_STT_OBJECT ? pSym->st_value : pSym->st_value & ~1u;
    if (ELF_ApplyRelocation(value, false) == Addr)
      hits.push_back(ELF_GetSymHandle(s.pFile, i));
  }
  return _Reorder(hits);
}

U32 ELF_GetSymAccessibility(ELF_SYM_HANDLE h) {
  std::lock_guard lock(ELF_GetIndexMutex());
  ELF_FILE* pFile = nullptr;
  ELF_DIE die = nullptr;
  if (!_GetDwarfSymContext(h, &pFile, &die))
    return 0;
  DWA_VALUE v;
  if (_CreateDieAttrEx(pFile, die, DW_AT_accessibility, &v, 0) && v.u >= 1 && v.u <= 3)
    return (U32)v.u;
  // Without the attribute the default of the enclosing type applies.
  ELF_DIE parent = _GetParentDie(pFile, die);
  U16 tag = parent ? _GetDieType(pFile, parent) : (U16)ELF_TAG_NONE;
  if (tag == ELF_TAG_STRUCTURE || tag == ELF_TAG_UNION)
    return 1;
  return tag == ELF_TAG_CLASS ? 3 : 0;
}

bool ELF_GetSymSign(ELF_SYM_HANDLE h) {
  std::lock_guard lock(ELF_GetIndexMutex());
  ELF_FILE* pFile = nullptr;
  ELF_DIE die = nullptr;
  if (!_GetDwarfSymContext(h, &pFile, &die))
    return false;
  ELF_DIE t = die;
  for (int step = 0; t && step < 25; step++) {
    switch (_GetDieType(pFile, t)) {
      case ELF_TAG_POINTER:
      case ELF_TAG_REFERENCE:
        return false;
      case ELF_TAG_BASE_TYPE: {
        bool found = false;
        U64 encoding = _GetAttributeAsU64(pFile, t, DW_AT_encoding, &found);
        return found && (encoding == DW_ATE_signed || encoding == DW_ATE_signed_char ||
                         encoding == DW_ATE_signed_fixed);
      }
      default:
        break;
    }
    t = _GetReferenceDie(pFile, t, DW_AT_type);
  }
  return false;
}

bool ELF_GetSymConstValue(ELF_SYM_HANDLE h, I64* pValue) {
  std::lock_guard lock(ELF_GetIndexMutex());
  ELF_FILE* pFile = nullptr;
  ELF_DIE die = nullptr;
  DWA_VALUE v;
  if (!_GetDwarfSymContext(h, &pFile, &die) || !_CreateDieAttr(pFile, die, DW_AT_const_value, &v))
    return false;
  if (v.Kind != DWA_VALUE_UNSIGNED && v.Kind != DWA_VALUE_SIGNED)
    return false;
  if (pValue)
    *pValue = v.s;
  return true;
}

static ELF_SYM_HANDLE _ParentHandle(ELF_SYM_HANDLE h, ELF_DIE (*pfParent)(ELF_FILE*, ELF_DIE)) {
  std::lock_guard lock(ELF_GetIndexMutex());
  ELF_FILE* pFile = nullptr;
  ELF_DIE die = nullptr;
  if (!_GetDwarfSymContext(h, &pFile, &die))
    return 0;
  return _GetDwarfSymHandle(pFile, pfParent(pFile, die));
}

ELF_SYM_HANDLE ELF_GetSymParentFunc(ELF_SYM_HANDLE h) {
  return _ParentHandle(h, _GetDieParentFunc);
}

ELF_SYM_HANDLE ELF_GetSymParentType(ELF_SYM_HANDLE h) {
  return _ParentHandle(h, _GetDieParentType);
}

ELF_SYM_HANDLE ELF_GetSymParentNamespace(ELF_SYM_HANDLE h) {
  return _ParentHandle(h, _GetDieParentNamespace);
}

U32 ELF_GetEntryPointPC() {
  std::lock_guard lock(ELF_GetIndexMutex());
  ELF_FILE* pFile = ELF_GetIndexedFile();
  return pFile ? ELF_GetEntryPoint(pFile) : kNone;  // the ELF layer relocates it
}

U32 ELF_GetBaseAddr() {
  std::lock_guard lock(ELF_GetIndexMutex());
  ELF_FILE* pFile = ELF_GetIndexedFile();
  U32 base = kNone;
  for (U32 i = 0; pFile && i < ELF_GetProgramHeaderCount(pFile); i++) {
    if (ELF_GetSegmentType(pFile, i) != 1 || ELF_GetSegmentFileSize(pFile, i) == 0)
      continue;  // only loadable segments with bytes in the file are downloaded
    base = std::min(base, ELF_ApplyRelocation(ELF_GetSegmentPhysAddr(pFile, i), false));
  }
  return base;
}

U32 ELF_GetEntryFuncPC() {
  std::lock_guard lock(ELF_GetIndexMutex());
  ELF_FILE* pFile = ELF_GetIndexedFile();
  if (!pFile || !pFile->dwarf.mainSym)
    return kNone;
  CAddrRange range = ELF_GetFuncRange(pFile->dwarf.mainSym);
  return range.IsEmpty() ? kNone : range.start;
}

bool ELF_GetBigEndian() {
  std::lock_guard lock(ELF_GetIndexMutex());
  ELF_FILE* pFile = ELF_GetIndexedFile();
  ELF_DATA_ENCODING e = pFile ? ELF_GetDataEncoding(pFile) : ELF_ENC_LITTLE;
  return e == ELF_ENC_BIG || e == ELF_ENC_ARM_BE8 || e == ELF_ENC_ARM_BE32;
}

ELF_SRC_LANG ELF_GetSrcLanguage() {
  std::lock_guard lock(ELF_GetIndexMutex());
  ELF_FILE* pFile = ELF_GetIndexedFile();
  return pFile ? pFile->dwarf.srcLanguage : ELF_SRC_LANG_UNKNOWN;
}

QString ELF_GetFileName() {
  std::lock_guard lock(ELF_GetIndexMutex());
  return _IndexState().loaded ? _IndexState().sPath : QString();
}
