// The program index; see ProgramIndex.h.
#include "debuginfo/ProgramIndex.h"

#include <dwarf.h>

#include <QDir>
#include <QElapsedTimer>
#include <QFileInfo>
#include <algorithm>
#include <unordered_map>
#include <unordered_set>

#include "debuginfo/DwarfScan.h"
#include "debuginfo/IndexCache.h"
#include "debuginfo/ProgramIndexState.h"
#include "debuginfo/SymbolQueries.h"

namespace {

CIndexState* g_pState = nullptr;
ELF_FILE_RESOLVER g_pfResolve = nullptr;

// A stable hash (FNV-1a over UTF-8): file identifiers never leave the session, but tests and logs
// read better when they do not change from run to run.
U32 _HashText(const QString& s) {
  QByteArray bytes = s.toLower().toUtf8();
  U32 h = 2166136261u;
  for (char c : bytes) {
    h ^= (U8)c;
    h *= 16777619u;
  }
  return h == kNone ? kNone - 1 : h;
}

QString _CleanName(const char* sName) {
  return QDir::cleanPath(QString::fromUtf8(sName));
}

}  // namespace

CIndexState& _IndexState() {
  if (!g_pState)
    g_pState = new CIndexState;
  return *g_pState;
}

U16 _GetSymTag(ELF_SYM_HANDLE h) {
  ELF_FILE* pFile = nullptr;
  ELF_DIE die = nullptr;
  if (!_GetDwarfSymContext(h, &pFile, &die))
    return ELF_TAG_NONE;
  return _GetDieType(pFile, die);
}

const ELF_SYM* _GetElfSymOf(ELF_SYM_HANDLE h) {
  ELF_FILE* pFile = nullptr;
  U32 index = 0;
  if (!_GetElfSymContext(h, &pFile, &index))
    return nullptr;
  return ELF_GetSym(pFile, index);
}

U32 _AddDwarfFile(CIndexState& s, const char* sName) {
  if (!sName || !*sName)
    return kNone;
  QString name = _CleanName(sName);
  U32 dwarfHash = _HashText(name);
  auto it = s.fileIdByDwarfHash.find(dwarfHash);
  if (it != s.fileIdByDwarfHash.end())
    return it->second;
  QString path = g_pfResolve ? g_pfResolve(name) : QString();
  if (path.isEmpty())
    path = name;
  U32 id = _HashText(path);
  s.fileIdByDwarfHash[dwarfHash] = id;
  if (!s.filePaths.count(id)) {
    s.filePaths[id] = path;
    s.fileExists[id] = QFileInfo::exists(path);
    s.fileIds.push_back(id);
  }
  return id;
}

namespace {

// Lowest start and highest end of a DWARF symbol's ranges, relocated; empty if it has none.
CAddrRange _ComputeDwarfRange(ELF_SYM_HANDLE h, bool* pAtZero) {
  CAddrRange r;
  ELF_FILE* pFile = nullptr;
  ELF_DIE die = nullptr;
  if (pAtZero)
    *pAtZero = false;
  if (!_GetDwarfSymContext(h, &pFile, &die))
    return r;
  DWA_RANGE* paRanges = nullptr;
  U32 n = 0;
  if (_GetDieRanges(pFile, die, &paRanges, &n) != 0 || !paRanges)
    return r;
  U64 lo = ~0ull, hi = 0;
  for (U32 i = 0; i < n; i++) {
    if (paRanges[i].Hi <= paRanges[i].Lo || paRanges[i].Hi > 0xFFFFFFFFull)
      continue;
    lo = std::min(lo, paRanges[i].Lo);
    hi = std::max(hi, paRanges[i].Hi);
  }
  free(paRanges);
  if (hi == 0 || hi - lo >= kMaxRangeSize)
    return r;
  if (pAtZero)
    *pAtZero = lo == 0;
  U32 start = ELF_ApplyRelocation((U32)lo, false);
  U32 end = ELF_ApplyRelocation((U32)hi, true) & ~1u;
  if (end <= start)
    return r;
  r.start = start;
  r.size = end - start;
  return r;
}

CAddrRange _GetFuncRangeLocked(ELF_SYM_HANDLE h) {
  CIndexState& s = _IndexState();
  auto it = s.funcRangeCache.find(h);
  if (it != s.funcRangeCache.end())
    return it->second;
  CAddrRange r;
  if (const ELF_SYM* pSym = _GetElfSymOf(h)) {
    U32 start = ELF_ApplyRelocation(pSym->st_value & ~1u, false);
    if (pSym->st_size && pSym->st_size < kMaxRangeSize && (U64)start + pSym->st_size <= 0xFFFFFFFFull)
      r = CAddrRange{start, pSym->st_size};
  } else {
    r = _ComputeDwarfRange(h, nullptr);
  }
  s.funcRangeCache[h] = r;
  return r;
}

void _AddLineRow(CIndexState& s, U32 Addr, const CSrcLoc& Loc) {
  auto& addrs = s.srcLocToAddrs[Loc];
  for (U32 a : addrs) {
    if (a == Addr) {
      // The same line at the same address again (another column): the line keeps one entry.
      for (const CSrcLoc& l : s.addrToSrcLocs[Addr]) {
        if (l == Loc)
          return;
      }
    }
  }
  auto& locs = s.addrToSrcLocs[Addr];
  if (locs.empty())
    s.addrList.push_back(Addr);
  locs.push_back(Loc);
  if (std::find(addrs.begin(), addrs.end(), Addr) == addrs.end())
    addrs.push_back(Addr);
  auto [it, fresh] = s.fileLowHigh.try_emplace(Loc.file, Addr, Addr);
  if (!fresh) {
    it->second.first = std::min(it->second.first, Addr);
    it->second.second = std::max(it->second.second, Addr);
  }
  s.programLow = std::min(s.programLow, Addr);
  s.programHigh = std::max(s.programHigh, Addr);
}

// Functions. A DWARF function that the linker dropped keeps address 0 in its unit; it counts only
// if the symbol table has a function of that name at 0, so such leftovers never hide real code at
// address 0.
std::unordered_set<QString> _ElfFunctionNamesAtZero(ELF_FILE* pFile) {
  std::unordered_set<QString> names;
  for (U32 n = 0; n < ELF_GetFuncSymCount(pFile); n++) {
    int i = ELF_GetFuncSymIdx(pFile, n);
    const ELF_SYM* pSym = ELF_GetSym(pFile, (U32)i);
    if (pSym && (pSym->st_value & ~1u) == 0)
      names.insert(QString::fromUtf8(ELF_GetSymName(pFile, (U32)i)));
  }
  return names;
}

void _BuildFunctions(CIndexState& s, std::unordered_set<U64>* pUnitsAtZero) {
  ELF_FILE* pFile = s.pFile;
  std::unordered_map<U32, std::pair<ELF_SYM_HANDLE, U32>> byStart;  // start -> function, size
  std::vector<U32> starts;
  std::unordered_set<QString> namesAtZero = _ElfFunctionNamesAtZero(pFile);
  auto consider = [&](ELF_SYM_HANDLE h, CAddrRange r) {
    auto [it, fresh] = byStart.try_emplace(r.start, h, r.size);
    if (fresh)
      starts.push_back(r.start);
    else if (r.size > it->second.second)
      it->second = {h, r.size};
  };
  for (ELF_SYM_HANDLE h : s.functions) {
    bool atZero = false;
    CAddrRange r = _ComputeDwarfRange(h, &atZero);
    if (atZero && !namesAtZero.count(ELF_GetSymName(h)))
      r = CAddrRange{};
    s.funcRangeCache[h] = r;
    bool hasInlineCode = false;
    auto range = s.inlineExpansions.equal_range(h);
    for (auto it = range.first; it != range.second; ++it)
      hasInlineCode |= !_GetFuncRangeLocked(it->second).IsEmpty();
    if (!r.IsEmpty()) {
      consider(h, r);
      if (atZero)
        pUnitsAtZero->insert(_GetDieAncestorOff(pFile, _GetDie(h)));
    } else if (hasInlineCode) {
      s.allFunctions.push_back(h);  // only inline copies; no range of its own
    } else {
      s.counts.droppedFunctions++;
    }
  }
  for (U32 n = 0; n < ELF_GetFuncSymCount(pFile); n++) {
    ELF_SYM_HANDLE h = ELF_GetSymHandle(pFile, (U32)ELF_GetFuncSymIdx(pFile, n));
    CAddrRange r = _GetFuncRangeLocked(h);
    if (!r.IsEmpty() && !byStart.count(r.start))
      consider(h, r);
  }
  std::sort(starts.begin(), starts.end());
  for (U32 start : starts)
    s.allFunctions.push_back(byStart[start].first);

  std::vector<Interval> intervals;
  auto addInterval = [&](ELF_SYM_HANDLE h) {
    CAddrRange r = _GetFuncRangeLocked(h);
    if (!r.IsEmpty())
      intervals.push_back({r.start, r.End() - 2, h});
  };
  for (ELF_SYM_HANDLE h : s.allFunctions) {
    addInterval(h);
    auto range = s.inlineExpansions.equal_range(h);
    for (auto it = range.first; it != range.second; ++it)
      addInterval(it->second);
  }
  s.funcTree.Build(std::move(intervals));
}

// Line rows. End-of-sequence rows only close a sequence; they are no line. A sequence that starts
// below the lowest function symbol is code the linker dropped (it starts at 0), unless its unit
// holds a real function at 0.
void _BuildLines(CIndexState& s, const std::unordered_set<U64>& UnitsAtZero) {
  ELF_FILE* pFile = s.pFile;
  U32 lowestFuncAddr = kNone;
  for (U32 n = 0; n < ELF_GetFuncSymCount(pFile); n++) {
    const ELF_SYM* pSym = ELF_GetSym(pFile, (U32)ELF_GetFuncSymIdx(pFile, n));
    if (!pSym || !pSym->st_size)
      continue;
    U32 a = ELF_ApplyRelocation(pSym->st_value & ~1u, false);
    if (a != 0 || !UnitsAtZero.empty())
      lowestFuncAddr = std::min(lowestFuncAddr, a);
  }
  if (lowestFuncAddr == kNone)
    lowestFuncAddr = 0;
  U32 numRows = ELF_GetLineRowCount(pFile);
  bool dropSequence = false, sequenceStart = true;
  std::vector<U32> fileIdByNameIdx;
  std::vector<bool> fileResolved;
  s.addrToSrcLocs.reserve(numRows);
  s.srcLocToAddrs.reserve(numRows);
  for (U32 i = 0; i < numRows; i++) {
    const ELF_LINE_ROW* pRow = ELF_GetLineRow(pFile, i);
    if (!pRow)
      break;
    U32 addr = ELF_ApplyRelocation(pRow->addr, false);
    if (sequenceStart) {
      U64 unit = pRow->cuOffset;
      dropSequence = addr < lowestFuncAddr || (pRow->addr == 0 && !UnitsAtZero.count(unit));
      sequenceStart = false;
    }
    if (pRow->endSequence) {
      sequenceStart = true;
      continue;
    }
    if (dropSequence || addr < lowestFuncAddr) {
      s.counts.droppedLines++;
      continue;
    }
    // Rows name few files: resolve each name once.
    if (pRow->fileNameIdx >= fileIdByNameIdx.size()) {
      fileIdByNameIdx.resize(pRow->fileNameIdx + 1);
      fileResolved.resize(pRow->fileNameIdx + 1);
    }
    if (!fileResolved[pRow->fileNameIdx]) {
      fileIdByNameIdx[pRow->fileNameIdx] = _AddDwarfFile(s, ELF_GetLineRowFileName(pFile, i));
      fileResolved[pRow->fileNameIdx] = true;
    }
    U32 file = fileIdByNameIdx[pRow->fileNameIdx];
    if (file == kNone || pRow->line == 0)
      continue;
    _AddLineRow(s, addr, CSrcLoc{file, pRow->line, pRow->column});
  }
  std::sort(s.addrList.begin(), s.addrList.end());
  for (auto& [loc, addrs] : s.srcLocToAddrs)
    std::sort(addrs.begin(), addrs.end());
}

// Per file, the ranges of its units that overlap its line addresses; an address of the file's
// lines outside them is a line row of a stray sequence and is removed.
void _BuildFileRanges(CIndexState& s) {
  ELF_FILE* pFile = s.pFile;
  for (U32 n = 0; n < ELF_GetSrcFileCount(pFile); n++) {
    const char* sName = ELF_GetSrcFileName(pFile, n);
    U32 id = _AddDwarfFile(s, sName);
    auto lh = s.fileLowHigh.find(id);
    if (id == kNone || lh == s.fileLowHigh.end())
      continue;
    std::vector<CAddrRange> kept;
    for (U32 c = 0; c < ELF_GetSrcFileCUCount(pFile, sName); c++) {
      ELF_DIE cu = _GetDie(ELF_GetSrcFileCU(pFile, sName, c));
      DWA_RANGE* paRanges = nullptr;
      U32 num = 0;
      if (_GetDieRanges(pFile, cu, &paRanges, &num) != 0 || !paRanges)
        continue;
      for (U32 r = 0; r < num; r++) {
        U64 lo = paRanges[r].Lo, hi = paRanges[r].Hi;
        if (hi <= lo || hi > 0xFFFFFFFFull || hi - lo >= kMaxRangeSize)
          continue;
        U32 start = ELF_ApplyRelocation((U32)lo, false);
        U32 end = ELF_ApplyRelocation((U32)hi, true);
        if (end > start && start <= lh->second.second && end > lh->second.first)
          kept.push_back(CAddrRange{start, end - start});
      }
      free(paRanges);
    }
    if (kept.empty())
      continue;
    std::sort(kept.begin(), kept.end(),
              [](const CAddrRange& a, const CAddrRange& b) { return a.start < b.start; });
    U64 end = 0;
    for (const CAddrRange& r : kept)
      end = std::max(end, r.End());
    s.fileRange[id] = CAddrRange{kept.front().start, (U32)std::min<U64>(end - kept.front().start, kNone)};
    s.fileRanges[id] = kept;
  }
  std::vector<Interval> intervals;
  for (auto& [id, r] : s.fileRange)
    intervals.push_back({r.start, r.End() - 1, id});
  s.fileTree.Build(std::move(intervals));
  // Clean-up: an address outside the ranges of its file's units loses that pairing.
  ELF_ADDR_LIST keptAddrs;
  for (U32 addr : s.addrList) {
    CSrcLocs& locs = s.addrToSrcLocs[addr];
    for (size_t i = 0; i < locs.size();) {
      auto fr = s.fileRanges.find(locs[i].file);
      bool inside = fr == s.fileRanges.end();
      if (!inside) {
        for (const CAddrRange& r : fr->second)
          inside |= addr >= r.start && addr < r.End();
      }
      if (inside) {
        i++;
        continue;
      }
      ELF_ADDR_LIST& addrs = s.srcLocToAddrs[locs[i]];
      addrs.erase(std::remove(addrs.begin(), addrs.end(), addr), addrs.end());
      locs.erase(locs.begin() + (long)i);
    }
    if (locs.empty())
      s.addrToSrcLocs.erase(addr);
    else
      keptAddrs.push_back(addr);
  }
  s.addrList.swap(keptAddrs);
}

void _BuildSymbolLists(CIndexState& s) {
  ELF_FILE* pFile = s.pFile;
  auto fill = [&](ELF_DIE_LIST List, ELF_SYM_LIST* pOut) {
    U32 n = ELF_GetDieListCount(pFile, List);
    pOut->reserve(n);
    for (U32 i = 0; i < n; i++) {
      ELF_SYM_HANDLE h = ELF_GetDieListHandle(pFile, List, i);
      if (h)
        pOut->push_back(h);
    }
  };
  fill(ELF_LIST_INLINE_FUNCS, &s.inlineFuncs);
  fill(ELF_LIST_FUNCTIONS, &s.functions);
  fill(ELF_LIST_GLOBAL_VARS, &s.globalVars);
  fill(ELF_LIST_NAMESPACES, &s.namespaces);
  fill(ELF_LIST_TYPES, &s.types);
  for (const ELF_SYM_LIST* p : {&s.inlineFuncs, &s.functions, &s.globalVars, &s.namespaces})
    s.debugSymbols.insert(s.debugSymbols.end(), p->begin(), p->end());
  for (ELF_SYM_HANDLE h : s.inlineFuncs) {
    ELF_DIE abstract = _GetAbstractInstanceOf(pFile, _GetDie(h));
    if (abstract)
      s.inlineExpansions.emplace(_GetDwarfSymHandle(pFile, abstract), h);
  }
}

void _BuildElfTables(CIndexState& s) {
  ELF_FILE* pFile = s.pFile;
  for (U32 i = 0; i < ELF_GetSectionCount(pFile); i++) {
    U32 size = ELF_GetSectionSize(pFile, i), addr = ELF_GetSectionAddr(pFile, i);
    if ((ELF_GetSectionFlags(pFile, i) & ELF_SHF_EXECINSTR) && size)
      s.execSections.push_back({addr, (U32)std::min<U64>((U64)addr + size, kNone)});
  }
  for (U32 i = 0; i < ELF_GetSymCount(pFile); i++) {
    const ELF_SYM* pSym = ELF_GetSym(pFile, i);
    if (!pSym || pSym->st_shndx == 0 || pSym->st_shndx >= ELF_GetSectionCount(pFile))
      continue;
    if (!(ELF_GetSectionFlags(pFile, pSym->st_shndx) & ELF_SHF_EXECINSTR))
      continue;
    U32 addr = ELF_ApplyRelocation(pSym->st_value, false);
    if (addr < 2)
      continue;
    s.elfSymbolAtAddr.try_emplace(addr & ~1u, i);
  }
}

void _BuildCfi(CIndexState& s) {
  DWA_CONTEXT* pDwarf = s.pFile->dwarf.pDwarf;
  if (!pDwarf)
    return;
  std::vector<std::pair<U32, std::pair<U32, U32>>> fdes;  // start -> end, index
  for (U32 i = 0; i < s.pFile->dwarf.fdeCount; i++) {
    DWA_FDE fde;
    if (DWA_GetFde(pDwarf, i, &fde) != 0 || fde.Lo > fde.Hi || fde.Hi > 0xFFFFFFFFull)
      continue;
    fdes.push_back({(U32)fde.Lo, {(U32)fde.Hi, i}});
  }
  std::sort(fdes.begin(), fdes.end());
  for (const auto& [start, endIndex] : fdes) {
    if (!s.cfiStarts.empty() && s.cfiStarts.back() == start) {
      s.cfiEnds.back() = endIndex.first;  // sorted: the widest one comes last
      s.cfiFdeIndex.back() = endIndex.second;
      continue;
    }
    s.cfiStarts.push_back(start);
    s.cfiEnds.push_back(endIndex.first);
    s.cfiFdeIndex.push_back(endIndex.second);
  }
}

// The position in the CFI table of the description that covers a link address, -1 if none.
int _FindCfi(const CIndexState& s, U32 LinkAddr) {
  auto it = std::upper_bound(s.cfiStarts.begin(), s.cfiStarts.end(), LinkAddr);
  if (it == s.cfiStarts.begin())
    return -1;
  size_t i = (size_t)(it - s.cfiStarts.begin()) - 1;
  return LinkAddr < s.cfiEnds[i] ? (int)i : -1;
}

// Walks the CFA instructions of one description and keeps the largest absolute CFA offset.
// Returns -1 for instructions that run past their end or that this walk does not know.
int _StackSizeFromInstructions(const U8* p, const U8* pEnd, I64 DataAlign) {
  I64 current = 0, highest = 0, lowest = 0;
  auto skip = [&](int Ulebs, int Slebs, int Bytes, bool Block) {
    U64 u = 0;
    I64 sv = 0;
    for (int i = 0; i < Ulebs; i++) {
      if (!DWS_ReadUleb(p, pEnd, &u))
        return false;
    }
    for (int i = 0; i < Slebs; i++) {
      if (!DWS_ReadSleb(p, pEnd, &sv))
        return false;
    }
    if (Block && (!DWS_ReadUleb(p, pEnd, &u) || u > (U64)(pEnd - p)))
      return false;
    U64 n = Block ? u : (U64)Bytes;
    if (n > (U64)(pEnd - p))
      return false;
    p += n;
    return true;
  };
  while (p < pEnd) {
    U8 op = *p++;
    U8 primary = op >> 6;
    bool ok = true;
    if (primary == 1 || primary == 3) {
      // advance_loc, restore: operand in the opcode
    } else if (primary == 2) {
      ok = skip(1, 0, 0, false);  // offset
    } else {
      U64 u = 0;
      I64 sv = 0;
      switch (op) {
        case 0x00:  // nop
        case 0x0a:  // remember_state
        case 0x0b:  // restore_state
          break;
        case 0x01:  // set_loc: a 32-bit address
        case 0x04:  // advance_loc4
          ok = skip(0, 0, 4, false);
          break;
        case 0x02:
          ok = skip(0, 0, 1, false);
          break;
        case 0x03:
          ok = skip(0, 0, 2, false);
          break;
        case 0x05:  // offset_extended
        case 0x09:  // register
        case 0x14:  // val_offset
        case 0x2f:  // GNU_negative_offset_extended
          ok = skip(2, 0, 0, false);
          break;
        case 0x06:  // restore_extended
        case 0x07:  // undefined
        case 0x08:  // same_value
        case 0x0d:  // def_cfa_register
        case 0x2e:  // GNU_args_size
          ok = skip(1, 0, 0, false);
          break;
        case 0x0c:  // def_cfa: register, unsigned offset
          ok = skip(1, 0, 0, false) && DWS_ReadUleb(p, pEnd, &u);
          current = (I64)u;
          break;
        case 0x0e:  // def_cfa_offset
          ok = DWS_ReadUleb(p, pEnd, &u);
          current = (I64)u;
          break;
        case 0x12:  // def_cfa_sf: register, signed factored offset
          ok = skip(1, 0, 0, false) && DWS_ReadSleb(p, pEnd, &sv);
          current = sv * DataAlign;
          break;
        case 0x13:  // def_cfa_offset_sf
          ok = DWS_ReadSleb(p, pEnd, &sv);
          current = sv * DataAlign;
          break;
        case 0x0f:  // def_cfa_expression
          ok = skip(0, 0, 0, true);
          break;
        case 0x10:  // expression
        case 0x16:  // val_expression
          ok = skip(1, 0, 0, true);
          break;
        case 0x11:  // offset_extended_sf
        case 0x15:  // val_offset_sf
          ok = skip(1, 1, 0, false);
          break;
        default:
          ok = false;
          break;
      }
    }
    if (!ok)
      return -1;
    highest = std::max(highest, current);
    lowest = std::min(lowest, current);
  }
  I64 size = std::max(highest, -lowest);
  return size > 0x7FFFFFFF ? -1 : (int)size;
}

void _Log(const char* sStep, const QElapsedTimer& Timer) {
  ELF_Log(ELF_LOG_TRACE, "%s%lld ms", sStep, (long long)Timer.elapsed());
}

}  // namespace

/*********************************************************************
 * Load and unload
 */

void ELF_SetFileResolver(ELF_FILE_RESOLVER pfResolve) {
  std::lock_guard lock(ELF_GetIndexMutex());
  g_pfResolve = pfResolve;
}

std::recursive_mutex& ELF_GetIndexMutex() {
  static std::recursive_mutex s_Mutex;
  return s_Mutex;
}

int ELF_SaveIndexCache() {
  std::lock_guard lock(ELF_GetIndexMutex());
  CIndexState& s = _IndexState();
  return s.loaded && s.pFile ? ELF_WriteIndexCache(s.pFile) : -1;
}

void ELF_Deinit() {
  std::lock_guard lock(ELF_GetIndexMutex());
  CIndexState& s = _IndexState();
  s.busy = true;
  if (s.pFile)
    ELF_Close(s.pFile);
  delete g_pState;
  g_pState = nullptr;
}

int ELF_Init(const char* sPath) {
  std::lock_guard lock(ELF_GetIndexMutex());
  ELF_Deinit();
  CIndexState& s = _IndexState();
  s.busy = true;
  s.pFile = ELF_Open(sPath);
  if (!s.pFile) {
    s.busy = false;
    return -1;
  }
  s.sPath = QString::fromUtf8(sPath);
  QElapsedTimer timer;
  timer.start();
  for (U32 i = 0; i < ELF_GetProgramHeaderCount(s.pFile); i++) {
    U32 size = ELF_GetSegmentMemSize(s.pFile, i);
    if (ELF_GetSegmentType(s.pFile, i) != 1 || size == 0)
      continue;
    U32 start = ELF_ApplyRelocation(ELF_GetSegmentPhysAddr(s.pFile, i), false);
    s.programLow = std::min(s.programLow, start);
    s.programHigh = (U32)std::max<U64>(s.programHigh, std::min<U64>((U64)start + size, kNone));
  }
  _Log("Program data segments loaded in: ", timer);
  _BuildSymbolLists(s);
  _Log("Build debug symbol lists: ", timer);
  std::unordered_set<U64> unitsAtZero;
  _BuildFunctions(s, &unitsAtZero);
  _Log("Build functions list: ", timer);
  _BuildLines(s, unitsAtZero);
  _Log("Parsed source to address mapping table: ", timer);
  _BuildFileRanges(s);
  _Log("parsed file address ranges: ", timer);
  _BuildElfTables(s);
  _Log("Build symbol table: ", timer);
  _BuildCfi(s);
  _Log("parsed call frame information: ", timer);
  s.counts.files = (U32)s.fileIds.size();
  s.counts.lineAddrs = (U32)s.addrList.size();
  s.counts.functions = (U32)s.allFunctions.size();
  s.counts.globals = (U32)s.globalVars.size();
  s.counts.types = (U32)s.types.size();
  s.counts.loadMs = (U32)timer.elapsed();
  ELF_Log(ELF_LOG_MESSAGE, "ELF-API wrapper initialized in %u ms", s.counts.loadMs);
  ELF_Log(ELF_LOG_MESSAGE, "Function count: %u", s.counts.functions);
  ELF_Log(ELF_LOG_MESSAGE, "Global variable count: %u", s.counts.globals);
  s.loaded = true;
  s.busy = false;
  return 0;
}

bool ELF_IsLoaded() {
  std::lock_guard lock(ELF_GetIndexMutex());
  return _IndexState().loaded;
}

ELF_FILE* ELF_GetIndexedFile() {
  std::lock_guard lock(ELF_GetIndexMutex());
  return _IndexState().loaded ? _IndexState().pFile : nullptr;
}

ELF_INDEX_COUNTS ELF_GetIndexCounts() {
  std::lock_guard lock(ELF_GetIndexMutex());
  return _IndexState().counts;
}

/*********************************************************************
 * Address to line
 */

CSrcLocs ELF_GetSrcLocs(U32 Addr) {
  std::lock_guard lock(ELF_GetIndexMutex());
  CIndexState& s = _IndexState();
  auto it = s.addrToSrcLocs.find(Addr);
  if (it != s.addrToSrcLocs.end()) {
    CSrcLocs locs = it->second;
    std::sort(locs.begin(), locs.end());
    return locs;
  }
  if (Addr == 0 || Addr == kNone)
    return {};
  ELF_SYM_HANDLE f = ELF_GetFuncAt(Addr, false);
  if (!f)
    return {};
  U32 prev = ELF_GetPrevAddr(Addr);
  if (prev == kNone || Addr - prev > kMaxLineFallback || ELF_GetFuncAt(prev, false) != f)
    return {};
  return ELF_GetSrcLocs(prev);
}

CSrcLoc ELF_GetFirstSrcLoc(U32 Addr) {
  CSrcLocs locs = ELF_GetSrcLocs(Addr);
  return locs.empty() ? CSrcLoc{} : locs.front();
}

CSrcLoc ELF_GetLastSrcLoc(U32 Addr) {
  CSrcLocs locs = ELF_GetSrcLocs(Addr);
  return locs.empty() ? CSrcLoc{} : locs.back();
}

CSrcLoc ELF_GetExactSrcLoc(U32 Addr) {
  std::lock_guard lock(ELF_GetIndexMutex());
  CIndexState& s = _IndexState();
  auto it = s.addrToSrcLocs.find(Addr);
  return it == s.addrToSrcLocs.end() || it->second.empty() ? CSrcLoc{} : it->second.back();
}

bool ELF_HasSrcLoc(U32 Addr) {
  return !ELF_GetSrcLocs(Addr).empty();
}

bool ELF_RangeHasSrcLoc(CAddrRange Range) {
  std::lock_guard lock(ELF_GetIndexMutex());
  if (ELF_HasSrcLoc(Range.start))
    return true;
  const ELF_ADDR_LIST& list = _IndexState().addrList;
  auto it = std::upper_bound(list.begin(), list.end(), Range.start);
  return it != list.end() && *it < Range.End();
}

U32 ELF_GetPrevAddr(U32 Addr) {
  std::lock_guard lock(ELF_GetIndexMutex());
  const ELF_ADDR_LIST& list = _IndexState().addrList;
  auto it = std::lower_bound(list.begin(), list.end(), Addr);
  return it == list.begin() ? kNone : *(it - 1);
}

U32 ELF_GetNextAddr(U32 Addr) {
  std::lock_guard lock(ELF_GetIndexMutex());
  const ELF_ADDR_LIST& list = _IndexState().addrList;
  auto it = std::upper_bound(list.begin(), list.end(), Addr);
  return it == list.end() ? kNone : *it;
}

U32 ELF_GetNextLineAddr(U32 Addr) {
  std::lock_guard lock(ELF_GetIndexMutex());
  CSrcLoc first = ELF_GetFirstSrcLoc(Addr);
  U64 limit = std::min<U64>((U64)Addr + kMaxCodeLineGap, _IndexState().programHigh);
  for (U64 a = (U64)Addr + 2; a < limit; a += 2) {
    CSrcLoc loc = ELF_GetFirstSrcLoc((U32)a);
    if (loc.IsValid() && loc != first)
      return (U32)a;
  }
  return kNone;
}

bool ELF_IsFirstAddrOfStatement(U32 Addr) {
  std::lock_guard lock(ELF_GetIndexMutex());
  CSrcLoc loc = ELF_GetExactSrcLoc(Addr);
  if (!loc.IsValid())
    return false;
  if (ELF_GetAddrs(loc).size() == 1)
    return true;
  U32 prev = ELF_GetPrevAddr(Addr);
  if (prev == kNone)
    return true;
  CSrcLocs prevLocs = ELF_GetSrcLocs(prev);
  return std::find(prevLocs.begin(), prevLocs.end(), loc) == prevLocs.end();
}

/*********************************************************************
 * Line to addresses
 */

ELF_ADDR_LIST ELF_GetAddrs(CSrcLoc Loc) {
  std::lock_guard lock(ELF_GetIndexMutex());
  CIndexState& s = _IndexState();
  auto it = s.srcLocToAddrs.find(Loc);
  return it == s.srcLocToAddrs.end() ? ELF_ADDR_LIST{} : it->second;
}

U32 ELF_GetFirstAddr(CSrcLoc Loc) {
  ELF_ADDR_LIST addrs = ELF_GetAddrs(Loc);
  return addrs.empty() ? kNone : addrs.front();
}

static CSrcLoc _FindCodeLine(CSrcLoc Loc, int Step) {
  std::lock_guard lock(ELF_GetIndexMutex());
  CIndexState& s = _IndexState();
  for (U32 i = 1; i <= kMaxCodeLineGap; i++) {
    I64 line = (I64)Loc.line + Step * (I64)i;
    if (line < 0 || line > 0xFFFFFFFFll)
      break;
    CSrcLoc candidate{Loc.file, (U32)line, 0};
    auto it = s.srcLocToAddrs.find(candidate);
    if (it != s.srcLocToAddrs.end() && !it->second.empty())
      return candidate;
  }
  return CSrcLoc{};
}

CSrcLoc ELF_GetNextCodeLine(CSrcLoc Loc) {
  return _FindCodeLine(Loc, 1);
}

CSrcLoc ELF_GetPrevCodeLine(CSrcLoc Loc) {
  return _FindCodeLine(Loc, -1);
}

bool ELF_IsUniqueCodeLine(CSrcLoc Loc) {
  std::lock_guard lock(ELF_GetIndexMutex());
  ELF_ADDR_LIST addrs = ELF_GetAddrs(Loc);
  if (addrs.empty())
    return false;
  CSrcLoc next = ELF_GetNextCodeLine(Loc);
  if (!next.IsValid())
    return true;
  for (U32 a : ELF_GetAddrs(next)) {
    if (std::binary_search(addrs.begin(), addrs.end(), a))
      return false;
  }
  return true;
}

/*********************************************************************
 * Functions
 */

bool ELF_IsFunction(ELF_SYM_HANDLE h) {
  std::lock_guard lock(ELF_GetIndexMutex());
  if (const ELF_SYM* pSym = _GetElfSymOf(h)) {
    U32 type = pSym->st_info & 15;
    return type == ELF_STT_FUNC || type == ELF_STT_ARM_TFUNC;
  }
  U16 tag = _GetSymTag(h);
  return tag == ELF_TAG_SUBPROGRAM || tag == ELF_TAG_INLINED_SUBROUTINE || tag == ELF_TAG_SUBROUTINE_TYPE;
}

ELF_SYM_HANDLE ELF_GetFuncAt(U32 Addr, bool Outermost) {
  std::lock_guard lock(ELF_GetIndexMutex());
  CIndexState& s = _IndexState();
  auto it = s.funcsAtAddrCache.find(Addr);
  if (it == s.funcsAtAddrCache.end()) {
    std::vector<U64> hits;
    s.funcTree.Query(Addr, &hits);
    it = s.funcsAtAddrCache.emplace(Addr, std::move(hits)).first;
  }
  ELF_SYM_HANDLE first = 0, firstFunc = 0, lastInline = 0;
  for (U64 h : it->second) {
    if (!ELF_IsFunction(h))
      continue;
    if (!first)
      first = h;
    U16 tag = _GetSymTag(h);
    if (tag == ELF_TAG_INLINED_SUBROUTINE)
      lastInline = h;
    else if (tag == ELF_TAG_SUBPROGRAM && !firstFunc)
      firstFunc = h;
  }
  if (!Outermost && lastInline)
    return lastInline;
  return firstFunc ? firstFunc : first;
}

CAddrRange ELF_GetFuncRange(ELF_SYM_HANDLE h) {
  std::lock_guard lock(ELF_GetIndexMutex());
  if (!_IsValidSymbolHandle(h))
    return CAddrRange{};
  return _GetFuncRangeLocked(h);
}

ELF_SYM_LIST ELF_GetAllFunctions() {
  std::lock_guard lock(ELF_GetIndexMutex());
  return _IndexState().allFunctions;
}

/*********************************************************************
 * Files
 */

U32 ELF_GetFileId(const QString& sPath) {
  std::lock_guard lock(ELF_GetIndexMutex());
  CIndexState& s = _IndexState();
  if (sPath.isEmpty())
    return kNone;
  QString clean = QDir::cleanPath(sPath);
  U32 h = _HashText(clean);
  if (s.filePaths.count(h))
    return h;
  auto it = s.fileIdByDwarfHash.find(h);
  if (it != s.fileIdByDwarfHash.end())
    return it->second;
  for (U32 id : s.fileIds) {
    if (QFileInfo(s.filePaths[id]).fileName().compare(clean, Qt::CaseInsensitive) == 0)
      return id;
  }
  return kNone;
}

QString ELF_GetFilePath(U32 FileId) {
  std::lock_guard lock(ELF_GetIndexMutex());
  auto it = _IndexState().filePaths.find(FileId);
  return it == _IndexState().filePaths.end() ? QString() : it->second;
}

std::vector<U32> ELF_GetFileIds() {
  std::lock_guard lock(ELF_GetIndexMutex());
  return _IndexState().fileIds;
}

bool ELF_FileExists(U32 Addr) {
  std::lock_guard lock(ELF_GetIndexMutex());
  CSrcLoc loc = ELF_GetFirstSrcLoc(Addr);
  auto it = _IndexState().fileExists.find(loc.file);
  return loc.IsValid() && it != _IndexState().fileExists.end() && it->second;
}

ELF_SYM_LIST ELF_GetFileFunctions(U32 FileId) {
  std::lock_guard lock(ELF_GetIndexMutex());
  CIndexState& s = _IndexState();
  if (!s.fileFunctionsBuilt) {
    s.fileFunctionsBuilt = true;
    std::vector<std::pair<U32, ELF_SYM_HANDLE>> byStart;
    for (ELF_SYM_HANDLE h : s.allFunctions) {
      byStart.push_back({_GetFuncRangeLocked(h).start, h});
      auto range = s.inlineExpansions.equal_range(h);
      for (auto it = range.first; it != range.second; ++it)
        byStart.push_back({_GetFuncRangeLocked(it->second).start, it->second});
    }
    std::sort(byStart.begin(), byStart.end());
    for (const auto& [start, h] : byStart) {
      U32 file = start ? ELF_GetFileAt(start) : kNone;
      if (file != kNone)
        s.fileFunctions[file].push_back(h);
    }
  }
  auto it = s.fileFunctions.find(FileId);
  return it == s.fileFunctions.end() ? ELF_SYM_LIST{} : it->second;
}

U32 ELF_GetFileAt(U32 Addr) {
  std::lock_guard lock(ELF_GetIndexMutex());
  if (Addr == 0 || Addr == kNone)
    return kNone;
  std::vector<U64> hits;
  _IndexState().fileTree.Query(Addr, &hits);
  return hits.empty() ? kNone : (U32)hits.back();
}

CAddrRange ELF_GetProgramRange() {
  std::lock_guard lock(ELF_GetIndexMutex());
  CIndexState& s = _IndexState();
  if (s.programLow > s.programHigh)
    return CAddrRange{};
  return CAddrRange{s.programLow, s.programHigh - s.programLow};
}

/*********************************************************************
 * Call frame descriptions
 */

CAddrRange ELF_GetCfiRange(U32 Addr) {
  std::lock_guard lock(ELF_GetIndexMutex());
  const CIndexState& s = _IndexState();
  int i = _FindCfi(s, ELF_UndoRelocation(Addr, false));
  if (i < 0)
    return CAddrRange{};
  U32 start = ELF_ApplyRelocation(s.cfiStarts[(size_t)i], false);
  U32 end = ELF_ApplyRelocation(s.cfiEnds[(size_t)i], true);
  return end > start ? CAddrRange{start, end - start} : CAddrRange{};
}

int ELF_GetFuncStackSize(U32 Addr) {
  std::lock_guard lock(ELF_GetIndexMutex());
  const CIndexState& s = _IndexState();
  int i = _FindCfi(s, ELF_UndoRelocation(Addr, false));
  if (i < 0)
    return 0;
  DWA_FDE fde;
  if (DWA_GetFde(s.pFile->dwarf.pDwarf, s.cfiFdeIndex[(size_t)i], &fde) != 0 || !fde.pInstr)
    return -1;
  return _StackSizeFromInstructions(fde.pInstr, fde.pInstr + fde.InstrLength,
                                    fde.DataAlign ? fde.DataAlign : 1);
}

/*********************************************************************
 * Location texts
 */

QString ELF_GetSrcLocText(CSrcLoc Loc) {
  std::lock_guard lock(ELF_GetIndexMutex());
  if (!Loc.IsValid() || Loc.line == 0)
    return QString();
  QString path = ELF_GetFilePath(Loc.file);
  if (path.isEmpty())
    return QString();
  QString text = QFileInfo(path).fileName() + ":" + QString::number(Loc.line);
  if (Loc.col)
    text += ":" + QString::number(Loc.col);
  return text;
}

bool ELF_ParseSrcLoc(const QString& sText, CSrcLoc* pLoc) {
  QString text = sText.trimmed();
  if (text.size() >= 2 && text.startsWith('"') && text.endsWith('"'))
    text = text.mid(1, text.size() - 2).trimmed();
  // The file part may hold a drive letter ("C:/src/a.c:12"), so the numbers are taken from the end.
  QStringList parts = text.split(':');
  if (parts.size() < 2)
    return false;
  auto number = [](const QString& s, U32* pValue) {
    bool ok = false;
    uint v = s.trimmed().toUInt(&ok, 10);
    *pValue = v;
    return ok;
  };
  U32 line = 0, col = 0, tail = 0;
  int numbers = 0;
  if (parts.size() >= 3 && number(parts[parts.size() - 1], &tail) && number(parts[parts.size() - 2], &line)) {
    col = tail;
    numbers = 2;
  } else if (number(parts.back(), &line)) {
    numbers = 1;
  } else {
    return false;
  }
  if (line == 0)
    return false;
  U32 id = ELF_GetFileId(parts.mid(0, parts.size() - numbers).join(':').trimmed());
  if (id == kNone)
    return false;
  if (pLoc)
    *pLoc = CSrcLoc{id, line, col};
  return true;
}

QString ELF_NormaliseSrcLocText(const QString& sText) {
  CSrcLoc loc;
  return ELF_ParseSrcLoc(sText, &loc) ? ELF_GetSrcLocText(loc) : QString();
}

/*********************************************************************
 * Embedded data
 */

ELF_CODE_TYPE ELF_GetMemBlockType(U32 Addr) {
  std::lock_guard lock(ELF_GetIndexMutex());
  CIndexState& s = _IndexState();
  if (!s.pFile || ELF_GetMappingSymCount(s.pFile) == 0)
    return ELF_CODE_NONE;
  auto it = s.memBlockTypes.find(Addr);
  if (it != s.memBlockTypes.end())
    return it->second;
  ELF_CODE_TYPE type = ELF_CODE_NONE;
  ELF_MAPPING_RANGE r = ELF_FindMappingRange(s.pFile, Addr);
  U32 link = ELF_UndoRelocation(Addr, false);
  // The last mapping symbol reaches to the end of its section, not to the end of memory.
  for (const auto& [start, end] : s.execSections) {
    if (link >= start && link < end && (r.start & ~1u) >= start && (r.start & ~1u) < end && link < r.end)
      type = r.type;
  }
  s.memBlockTypes[Addr] = type;
  return type;
}

namespace {

ELF_INSTRUCTION_SIZE g_pfInstructionSize = nullptr;

// The size of the instruction at an address from the program's bytes: 4 in ARM code, 2 or 4 in
// Thumb code by its first halfword, 0 in data or where the program has no bytes.
int _InstructionSizeFromProgram(U32 Addr) {
  ELF_CODE_TYPE type = ELF_GetMemBlockType(Addr);
  if (type == ELF_CODE_DATA)
    return 0;
  if (type == ELF_CODE_ARM)
    return ELF_GetTargetMemPtr(Addr, Addr + 4) ? 4 : 0;
  const U8* p = ELF_GetTargetMemPtr(Addr, Addr + 2);
  if (!p)
    return 0;
  // Instructions are little-endian except in BE32 images.
  bool big = ELF_GetDataEncoding(ELF_GetIndexedFile()) == ELF_ENC_ARM_BE32;
  U16 halfword = big ? (U16)(p[0] << 8 | p[1]) : (U16)(p[1] << 8 | p[0]);
  U16 top = halfword >> 11;
  return top == 0x1D || top == 0x1E || top == 0x1F ? 4 : 2;
}

}  // namespace

void ELF_SetInstructionSizeFunc(ELF_INSTRUCTION_SIZE pfSize) {
  std::lock_guard lock(ELF_GetIndexMutex());
  g_pfInstructionSize = pfSize;
}

std::vector<ELF_ADDR_LIST> ELF_GetLineAddrBlocks(CSrcLoc Loc) {
  std::lock_guard lock(ELF_GetIndexMutex());
  std::vector<ELF_ADDR_LIST> blocks;
  ELF_ADDR_LIST addrs = ELF_GetAddrs(Loc);
  auto sizeAt = [](U32 a) {
    return g_pfInstructionSize ? g_pfInstructionSize(a) : _InstructionSizeFromProgram(a);
  };
  auto inBlock = [&](U32 a) {
    for (const ELF_ADDR_LIST& b : blocks) {
      if (std::find(b.begin(), b.end(), a) != b.end())
        return true;
    }
    return false;
  };
  auto belongs = [&](U32 a) {
    for (const CSrcLoc& l : ELF_GetSrcLocs(a)) {
      if (l == Loc)
        return true;
    }
    return false;
  };
  for (size_t i = 0; i < addrs.size(); i++) {
    U32 start = addrs[i];
    if ((i > 0 && start - addrs[i - 1] < 5) || inBlock(start))
      continue;
    ELF_ADDR_LIST block = {start};
    for (U32 a = start;;) {
      int size = sizeAt(a);
      if (size != 2 && size != 4)
        break;
      U32 next = a + (U32)size;
      if (next < a || next - start >= kMaxLineFallback || !belongs(next))
        break;
      block.push_back(next);
      a = next;
    }
    // A tail of data (a literal pool the line's code reads) is no code of the line.
    size_t end = block.size();
    while (end > 1) {
      ELF_CODE_TYPE type = ELF_GetCodeType(block[end - 1]);
      if (type != ELF_CODE_DATA && type != ELF_CODE_NONE)
        break;
      end--;
    }
    size_t keep = block.size();
    for (size_t k = end; k < block.size(); k++) {
      if (ELF_GetCodeType(block[k]) == ELF_CODE_DATA) {
        keep = k;
        break;
      }
    }
    block.resize(std::max<size_t>(keep, 1));
    blocks.push_back(std::move(block));
  }
  return blocks;
}

ELF_CODE_TYPE ELF_GetCodeType(U32 Addr) {
  std::lock_guard lock(ELF_GetIndexMutex());
  CIndexState& s = _IndexState();
  ELF_CODE_TYPE type = ELF_GetMemBlockType(Addr);
  if (type != ELF_CODE_NONE)
    return type;
  auto it = s.elfSymbolAtAddr.find(Addr);
  if (it != s.elfSymbolAtAddr.end()) {
    const ELF_SYM* pSym = ELF_GetSym(s.pFile, it->second);
    if (pSym && (pSym->st_info & 15) == ELF_STT_OBJECT)
      return ELF_CODE_DATA;
  }
  CSrcLoc loc = ELF_GetExactSrcLoc(Addr);
  if (loc.IsValid() && ELF_GetFirstAddr(loc) == Addr)
    return ELF_CODE_UNDEFINED;
  return ELF_CODE_NONE;
}
