// Internal to the program index (ProgramIndex.cpp, SymbolIndex.cpp): the tables built at load and
// the helpers both halves share. Not for use outside the index.
#pragma once

#include <QHash>
#include <QString>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "debuginfo/ProgramIndex.h"

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
  // Frame descriptions sorted by start (link addresses): for each start the widest one.
  std::vector<U32> cfiStarts, cfiEnds, cfiFdeIndex;
  bool fileFunctionsBuilt = false;
  std::unordered_map<U32, ELF_SYM_LIST> fileFunctions;
  bool debugSymsAtAddrBuilt = false;
  std::unordered_multimap<U32, ELF_SYM_HANDLE> debugSymsAtAddr;
  std::unordered_map<ELF_SYM_HANDLE, QString> nameCache, qualifiedNameCache;
};

// The one state of the index; created on first use, deleted by ELF_Deinit. Callers hold the mutex.
CIndexState& _IndexState();
U16 _GetSymTag(ELF_SYM_HANDLE h);
const ELF_SYM* _GetElfSymOf(ELF_SYM_HANDLE h);
// The file identifier of a DWARF file name, adding the file when it is new; -1 for no name.
U32 _AddDwarfFile(CIndexState& s, const char* sName);
