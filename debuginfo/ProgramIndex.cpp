// The program index; see ProgramIndex.h.
#include "debuginfo/ProgramIndex.h"

#include <dwarf.h>

#include <QDir>
#include <QElapsedTimer>
#include <QFileInfo>
#include <algorithm>
#include <unordered_map>
#include <unordered_set>

#include "debuginfo/SymbolQueries.h"

namespace {

constexpr U32 kNone = 0xFFFFFFFF;
// A range this large is corrupt data, not a function or a unit.
constexpr U32 kMaxRangeSize = 1000000;
// An address behind the last line entry of its function still belongs to that line this far.
constexpr U32 kMaxLineFallback = 256;
constexpr U32 kMaxCodeLineGap = 1000;

// A static interval tree: build once, then ask which intervals hold a point. Hits of deeper nodes
// come later, so the last hit is the innermost interval.
struct Interval {
  U64 start, stop, payload;
};
class CIntervalTree {
 public:
  void Build(std::vector<Interval> Intervals) {
    m_Nodes.clear();
    if (Intervals.empty())
      return;
    std::sort(Intervals.begin(), Intervals.end(),
              [](const Interval& a, const Interval& b) { return a.start < b.start; });
    _Build(std::move(Intervals), 16, 64);
  }
  void Query(U64 Point, std::vector<U64>* pHits) const {
    if (!m_Nodes.empty())
      _Query(0, Point, pHits);
  }

 private:
  struct Node {
    std::vector<Interval> list;
    U64 center = 0;
    int left = -1, right = -1;
  };
  int _Build(std::vector<Interval> Intervals, int Depth, size_t MinBucket) {
    int index = (int)m_Nodes.size();
    m_Nodes.emplace_back();
    if (Depth == 1 || (Intervals.size() < MinBucket && Intervals.size() < 512)) {
      m_Nodes[index].list = std::move(Intervals);
      return index;
    }
    U64 center = Intervals[Intervals.size() / 2].start;
    std::vector<Interval> left, right, here;
    for (const Interval& i : Intervals) {
      if (i.stop < center)
        left.push_back(i);
      else if (i.start > center)
        right.push_back(i);
      else
        here.push_back(i);
    }
    m_Nodes[index].center = center;
    m_Nodes[index].list = std::move(here);
    if (!left.empty()) {
      int l = _Build(std::move(left), Depth - 1, MinBucket);
      m_Nodes[index].left = l;
    }
    if (!right.empty()) {
      int r = _Build(std::move(right), Depth - 1, MinBucket);
      m_Nodes[index].right = r;
    }
    return index;
  }
  void _Query(int Index, U64 Point, std::vector<U64>* pHits) const {
    const Node& n = m_Nodes[Index];
    if (!n.list.empty() && Point >= n.list.front().start) {
      for (const Interval& i : n.list) {
        if (i.start <= Point && Point <= i.stop)
          pHits->push_back(i.payload);
      }
    }
    if (n.left >= 0 && Point <= n.center)
      _Query(n.left, Point, pHits);
    if (n.right >= 0 && Point >= n.center)
      _Query(n.right, Point, pHits);
  }
  std::vector<Node> m_Nodes;
};

struct CNameIndex {
  bool built = false;
  std::unordered_multimap<QString, ELF_SYM_HANDLE> byName;
};

struct CIndexState {
  ELF_FILE* pFile = nullptr;
  bool loaded = false;
  bool busy = false;
  QString sPath;
  ELF_INDEX_COUNTS counts = {};

  std::unordered_map<U32, CSrcLocs> addrToSrcLocs;  // in insertion order
  std::unordered_map<CSrcLoc, ELF_ADDR_LIST, CSrcLocHash> srcLocToAddrs;
  ELF_ADDR_LIST addrList;
  std::unordered_map<U32, std::pair<U32, U32>> fileLowHigh;
  U32 programLow = kNone, programHigh = 0;

  std::unordered_map<U32, QString> filePaths;
  std::unordered_map<U32, U32> fileIdByDwarfHash;
  std::unordered_map<U32, bool> fileExists;
  std::vector<U32> fileIds;  // in order of their DWARF names
  std::unordered_map<U32, CAddrRange> fileRange;
  std::unordered_map<U32, std::vector<CAddrRange>> fileRanges;

  ELF_SYM_LIST functions, inlineFuncs, globalVars, namespaces, types, debugSymbols, allFunctions;
  std::unordered_multimap<ELF_SYM_HANDLE, ELF_SYM_HANDLE> inlineExpansions;
  std::unordered_map<U32, U32> elfSymbolAtAddr;  // even address -> first symbol index there
  CIntervalTree funcTree, fileTree;
  std::unordered_map<U32, std::vector<U64>> funcsAtAddrCache;
  std::unordered_map<ELF_SYM_HANDLE, CAddrRange> funcRangeCache;
  std::unordered_map<U32, ELF_CODE_TYPE> memBlockTypes;
  std::vector<std::pair<U32, U32>> execSections;  // [start, end) of executable sections

  CNameIndex debugSymsByName, typesByName, namespacesByName;
  U32 contextPc = 0;
  ELF_SYM_HANDLE contextFunc = 0;
  ELF_SYM_LIST localVars;
  std::unordered_map<ELF_SYM_HANDLE, QString> nameCache, qualifiedNameCache;
};

CIndexState* g_pState = nullptr;
ELF_FILE_RESOLVER g_pfResolve = nullptr;

CIndexState& _S() {
  if (!g_pState)
    g_pState = new CIndexState;
  return *g_pState;
}

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

U16 _GetTag(ELF_SYM_HANDLE h) {
  ELF_FILE* pFile = nullptr;
  ELF_DIE die = nullptr;
  if (!_GetDwarfSymContext(h, &pFile, &die))
    return ELF_TAG_NONE;
  return _GetDieType(pFile, die);
}

const ELF_SYM* _GetElfSym(ELF_SYM_HANDLE h) {
  ELF_FILE* pFile = nullptr;
  U32 index = 0;
  if (!_GetElfSymContext(h, &pFile, &index))
    return nullptr;
  return ELF_GetSym(pFile, index);
}

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
  CIndexState& s = _S();
  auto it = s.funcRangeCache.find(h);
  if (it != s.funcRangeCache.end())
    return it->second;
  CAddrRange r;
  if (const ELF_SYM* pSym = _GetElfSym(h)) {
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

QString _CleanName(const char* sName) {
  return QDir::cleanPath(QString::fromUtf8(sName));
}

// The file identifier of a DWARF name, adding the file when it is new.
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
    U32 file = _AddDwarfFile(s, ELF_GetLineRowFileName(pFile, i));
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

void ELF_Deinit() {
  std::lock_guard lock(ELF_GetIndexMutex());
  CIndexState& s = _S();
  s.busy = true;
  if (s.pFile)
    ELF_Close(s.pFile);
  delete g_pState;
  g_pState = nullptr;
}

int ELF_Init(const char* sPath) {
  std::lock_guard lock(ELF_GetIndexMutex());
  ELF_Deinit();
  CIndexState& s = _S();
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
  return _S().loaded;
}

ELF_FILE* ELF_GetIndexedFile() {
  std::lock_guard lock(ELF_GetIndexMutex());
  return _S().loaded ? _S().pFile : nullptr;
}

ELF_INDEX_COUNTS ELF_GetIndexCounts() {
  std::lock_guard lock(ELF_GetIndexMutex());
  return _S().counts;
}

/*********************************************************************
 * Address to line
 */

CSrcLocs ELF_GetSrcLocs(U32 Addr) {
  std::lock_guard lock(ELF_GetIndexMutex());
  CIndexState& s = _S();
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
  CIndexState& s = _S();
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
  const ELF_ADDR_LIST& list = _S().addrList;
  auto it = std::upper_bound(list.begin(), list.end(), Range.start);
  return it != list.end() && *it < Range.End();
}

U32 ELF_GetPrevAddr(U32 Addr) {
  std::lock_guard lock(ELF_GetIndexMutex());
  const ELF_ADDR_LIST& list = _S().addrList;
  auto it = std::lower_bound(list.begin(), list.end(), Addr);
  return it == list.begin() ? kNone : *(it - 1);
}

U32 ELF_GetNextAddr(U32 Addr) {
  std::lock_guard lock(ELF_GetIndexMutex());
  const ELF_ADDR_LIST& list = _S().addrList;
  auto it = std::upper_bound(list.begin(), list.end(), Addr);
  return it == list.end() ? kNone : *it;
}

U32 ELF_GetNextLineAddr(U32 Addr) {
  std::lock_guard lock(ELF_GetIndexMutex());
  CSrcLoc first = ELF_GetFirstSrcLoc(Addr);
  U64 limit = std::min<U64>((U64)Addr + kMaxCodeLineGap, _S().programHigh);
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
  CIndexState& s = _S();
  auto it = s.srcLocToAddrs.find(Loc);
  return it == s.srcLocToAddrs.end() ? ELF_ADDR_LIST{} : it->second;
}

U32 ELF_GetFirstAddr(CSrcLoc Loc) {
  ELF_ADDR_LIST addrs = ELF_GetAddrs(Loc);
  return addrs.empty() ? kNone : addrs.front();
}

static CSrcLoc _FindCodeLine(CSrcLoc Loc, int Step) {
  std::lock_guard lock(ELF_GetIndexMutex());
  CIndexState& s = _S();
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
  if (const ELF_SYM* pSym = _GetElfSym(h)) {
    U32 type = pSym->st_info & 15;
    return type == ELF_STT_FUNC || type == ELF_STT_ARM_TFUNC;
  }
  U16 tag = _GetTag(h);
  return tag == ELF_TAG_SUBPROGRAM || tag == ELF_TAG_INLINED_SUBROUTINE || tag == ELF_TAG_SUBROUTINE_TYPE;
}

ELF_SYM_HANDLE ELF_GetFuncAt(U32 Addr, bool Outermost) {
  std::lock_guard lock(ELF_GetIndexMutex());
  CIndexState& s = _S();
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
    U16 tag = _GetTag(h);
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
  return _S().allFunctions;
}

/*********************************************************************
 * Files
 */

U32 ELF_GetFileId(const QString& sPath) {
  std::lock_guard lock(ELF_GetIndexMutex());
  CIndexState& s = _S();
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
  auto it = _S().filePaths.find(FileId);
  return it == _S().filePaths.end() ? QString() : it->second;
}

std::vector<U32> ELF_GetFileIds() {
  std::lock_guard lock(ELF_GetIndexMutex());
  return _S().fileIds;
}

bool ELF_FileExists(U32 Addr) {
  std::lock_guard lock(ELF_GetIndexMutex());
  CSrcLoc loc = ELF_GetFirstSrcLoc(Addr);
  auto it = _S().fileExists.find(loc.file);
  return loc.IsValid() && it != _S().fileExists.end() && it->second;
}

U32 ELF_GetFileAt(U32 Addr) {
  std::lock_guard lock(ELF_GetIndexMutex());
  if (Addr == 0 || Addr == kNone)
    return kNone;
  std::vector<U64> hits;
  _S().fileTree.Query(Addr, &hits);
  return hits.empty() ? kNone : (U32)hits.back();
}

CAddrRange ELF_GetProgramRange() {
  std::lock_guard lock(ELF_GetIndexMutex());
  CIndexState& s = _S();
  if (s.programLow > s.programHigh)
    return CAddrRange{};
  return CAddrRange{s.programLow, s.programHigh - s.programLow};
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
  QString file = parts.mid(0, parts.size() - numbers).join(':').trimmed();
  U32 id = ELF_GetFileId(file);
  if (id == kNone && numbers == 2) {
    // "a.c:12:" style texts never get here; "C:12:5"-like names are files with a colon.
    return false;
  }
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
  CIndexState& s = _S();
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

ELF_CODE_TYPE ELF_GetCodeType(U32 Addr) {
  std::lock_guard lock(ELF_GetIndexMutex());
  CIndexState& s = _S();
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
  CIndexState& s = _S();
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
  ELF_FILE* pFile = _S().pFile;
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
    else if (_GetTag(h) == ELF_TAG_INLINED_SUBROUTINE)
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
  CIndexState& s = _S();
  if (sName.isEmpty() || !s.loaded)
    return {};
  _BuildNameIndex(s.debugSymsByName, s.debugSymbols, false, true);
  return _Reorder(_Lookup(s.debugSymsByName, sName));
}

ELF_SYM_LIST ELF_FindTypesByName(const QString& sName) {
  std::lock_guard lock(ELF_GetIndexMutex());
  CIndexState& s = _S();
  if (sName.isEmpty() || !s.loaded)
    return {};
  _BuildNameIndex(s.typesByName, s.types, false, false);
  return _Lookup(s.typesByName, sName);
}

ELF_SYM_LIST ELF_FindNamespacesByName(const QString& sName) {
  std::lock_guard lock(ELF_GetIndexMutex());
  CIndexState& s = _S();
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

const ELF_SYM_LIST& ELF_GetGlobals() {
  std::lock_guard lock(ELF_GetIndexMutex());
  return _S().globalVars;
}

/*********************************************************************
 * Facts about one symbol
 */

QString ELF_GetSymName(ELF_SYM_HANDLE h) {
  std::lock_guard lock(ELF_GetIndexMutex());
  CIndexState& s = _S();
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
  if (const ELF_SYM* pSym = _GetElfSym(h)) {
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
  if (const ELF_SYM* pSym = _GetElfSym(h))
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
  U32 id = !file.isEmpty()    ? _AddDwarfFile(_S(), file.toUtf8().constData())
           : atAddr.IsValid() ? atAddr.file
                              : kNone;
  if (id == kNone)
    return CSrcLoc{};
  return CSrcLoc{id, (U32)line, 0};
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
  CIndexState& s = _S();
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
  return _S().contextPc;
}

ELF_SYM_HANDLE ELF_GetContextFunc() {
  std::lock_guard lock(ELF_GetIndexMutex());
  return _S().contextFunc;
}

ELF_SYM_LIST ELF_GetLocalVars(bool All) {
  std::lock_guard lock(ELF_GetIndexMutex());
  CIndexState& s = _S();
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
  CIndexState& s = _S();
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
  U32 pc = Pc == kNone ? _S().contextPc : Pc;
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
