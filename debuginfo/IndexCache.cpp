// The index cache file; see IndexCache.h.
//
// Layout: a header (magic, format version, program size and hash, payload size and hash), then the
// payload: a sequence of arrays, each a 64-bit element count followed by the elements in host byte
// order. Reading checks every count against the bytes left and every index against the array it
// points into, so a damaged file is refused, never half used.
#include "debuginfo/IndexCache.h"

#include <sys/mman.h>
#include <QByteArray>
#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSaveFile>

#include <cstring>
#include <mutex>
#include <type_traits>

#include "debuginfo/DwarfIndex.h"
#include "debuginfo/DwarfTree.h"
#include "debuginfo/DwarfTreeInternal.h"
#include "debuginfo/ElfFile.h"

namespace {

constexpr char kMagic[8] = {'Z', 'V', 'I', 'D', 'X', 0, 0x0D, 0x0A};
constexpr U32 kFormatVersion = 1;

struct CACHE_HEADER {
  char magic[8];
  U32 formatVersion;
  U32 byteOrder;  // 0x01020304 as written by the host
  U64 programSize;
  U64 programHash;
  U64 payloadSize;
  U64 payloadHash;
};

static_assert(sizeof(CACHE_HEADER) == kIndexCacheHeaderSize);

std::mutex g_DirMutex;
QString g_sDir;

// A fast 64-bit hash of a byte block, eight bytes at a time.
// Pages of a mapped file that were read are handed back at this granularity, so that a large cache
// is not resident twice (mapped and copied) while it is checked and read.
constexpr uintptr_t kReleaseStep = 1 << 23;

void _ReleasePages(const U8* pFrom, const U8* pTo) {
  const uintptr_t page = 4096;
  uintptr_t from = ((uintptr_t)pFrom + page - 1) & ~(page - 1);
  uintptr_t to = (uintptr_t)pTo & ~(page - 1);
  if (to > from)
    madvise((void*)from, to - from, MADV_DONTNEED);
}

// Release: the bytes are a mapped file whose pages may be handed back once hashed.
U64 _HashBytes(const U8* p, U64 n, bool Release = false) {
  U64 h = 0x9E3779B97F4A7C15ull ^ n;
  U64 i = 0, released = 0;
  for (; i + 8 <= n; i += 8) {
    U64 w;
    memcpy(&w, p + i, 8);
    h = (h ^ w) * 0xFF51AFD7ED558CCDull;
    h ^= h >> 32;
    if (Release && i - released >= kReleaseStep) {
      _ReleasePages(p + released, p + i);
      released = i;
    }
  }
  U64 tail = 0;
  memcpy(&tail, p + i, (size_t)(n - i));
  h = (h ^ tail) * 0xC4CEB9FE1A85EC53ull;
  return h ^ (h >> 29);
}

class CWriter {
 public:
  QByteArray bytes;
  void Raw(const void* p, size_t n) { bytes.append((const char*)p, (qsizetype)n); }
  template <typename T>
  void Value(const T& v) {
    static_assert(std::is_trivially_copyable_v<T>);
    Raw(&v, sizeof(T));
  }
  template <typename T>
  void Array(const T* p, U64 n) {
    static_assert(std::is_trivially_copyable_v<T>);
    Value(n);
    Raw(p, (size_t)(n * sizeof(T)));
  }
  template <typename T>
  void Vector(const std::vector<T>& v) {
    Array(v.data(), v.size());
  }
  void String(const char* s) { Array(s, s ? strlen(s) : 0); }
  template <typename K, typename V>
  void Map(const std::unordered_map<K, V>& m) {
    Value((U64)m.size());
    for (const auto& [k, v] : m) {
      Value(k);
      Value(v);
    }
  }
  void ScopeMap(const ELF_SCOPE_MAP& m) {
    Vector(m.keys);
    Vector(m.starts);
    Vector(m.values);
  }
};

class CReader {
 public:
  CReader(const U8* p, U64 n) : m_p(p), m_end(p + n) {}
  bool ok = true;
  bool AtEnd() const { return m_p == m_end; }
  template <typename T>
  bool Value(T* pv) {
    if (!ok || (U64)(m_end - m_p) < sizeof(T))
      return ok = false;
    memcpy(pv, m_p, sizeof(T));
    m_p += sizeof(T);
    return true;
  }
  // The count of an array whose elements take Size bytes each, checked against what is left.
  bool Count(U64* pn, size_t Size) {
    if (!Value(pn))
      return false;
    if (*pn > (U64)(m_end - m_p) / Size)
      return ok = false;
    return true;
  }
  template <typename T>
  bool Vector(std::vector<T>* pv) {
    U64 n = 0;
    if (!Count(&n, sizeof(T)))
      return false;
    pv->resize((size_t)n);
    // In steps, handing back each step's mapped pages, so the bytes are never resident twice.
    U8* pTo = (U8*)pv->data();
    for (U64 left = n * sizeof(T); left > 0;) {
      U64 step = left < kReleaseStep ? left : kReleaseStep;
      memcpy(pTo, m_p, (size_t)step);
      pTo += step;
      m_p += step;
      left -= step;
      _ReleaseRead();
    }
    return true;
  }
  // A string as a malloc'ed copy (the owners free with free()).
  char* String() {
    U64 n = 0;
    if (!Count(&n, 1))
      return nullptr;
    char* s = (char*)malloc((size_t)n + 1);
    if (!s) {
      ok = false;
      return nullptr;
    }
    memcpy(s, m_p, (size_t)n);
    s[n] = 0;
    m_p += n;
    return s;
  }
  template <typename K, typename V>
  bool Map(std::unordered_map<K, V>* pm) {
    U64 n = 0;
    if (!Count(&n, sizeof(K) + sizeof(V)))
      return false;
    pm->reserve((size_t)n);
    for (U64 i = 0; i < n; i++) {
      K k{};
      V v{};
      Value(&k);
      Value(&v);
      (*pm)[k] = v;
    }
    return ok;
  }
  bool ScopeMap(ELF_SCOPE_MAP* pm) {
    if (!Vector(&pm->keys) || !Vector(&pm->starts) || !Vector(&pm->values))
      return false;
    // Keys ascending, one start per key and a final end, starts rising within the values.
    if (pm->starts.size() != pm->keys.size() + 1 || pm->starts.back() != pm->values.size() ||
        pm->starts[0] != 0)
      return ok = false;
    for (size_t i = 1; i < pm->keys.size(); i++) {
      if (pm->keys[i] <= pm->keys[i - 1])
        return ok = false;
    }
    for (size_t i = 1; i < pm->starts.size(); i++) {
      if (pm->starts[i] < pm->starts[i - 1])
        return ok = false;
    }
    return true;
  }

 private:
  void _ReleaseRead() {
    if ((uintptr_t)(m_p - m_released) >= kReleaseStep) {
      _ReleasePages(m_released, m_p);
      m_released = m_p;
    }
  }
  const U8* m_p;
  const U8* m_end;
  const U8* m_released = m_p;
};

// Records ascending by offset, parents before their children and inside their unit, units covering
// the records in order.
bool _IsSoundScan(const DWS_SECTION_SCAN& Scan) {
  const std::vector<DWS_RECORD>& recs = Scan.records;
  for (size_t i = 1; i < recs.size(); i++) {
    if (recs[i].offset <= recs[i - 1].offset)
      return false;
  }
  U64 next = 0;
  for (const DWS_UNIT& u : Scan.units) {
    if (u.firstRecord != next || (U64)u.firstRecord + u.recordCount > recs.size())
      return false;
    next = (U64)u.firstRecord + u.recordCount;
    for (U32 i = u.firstRecord; i < u.firstRecord + u.recordCount; i++) {
      U32 parent = recs[i].parent;
      if (parent != kDwsNoParent && (parent >= i || parent < u.firstRecord))
        return false;
    }
  }
  return next == recs.size();
}

void _WritePayload(ELF_FILE* pFile, CWriter* w) {
  ELF_DWARF_STATE* s = &pFile->dwarf;
  const ELF_DIE_INDEX* d = s->pDies;
  w->Value(s->dwarfVersion);
  w->Value(s->mainSym);
  w->Value((U32)s->srcLanguage);
  w->Value(s->cuCount);
  w->Value(s->returnAddrReg);
  w->Value(s->cieCount);
  w->Value(s->fdeCount);
  for (const DWS_SECTION_SCAN* pScan : {&d->info, &d->types}) {
    w->Vector(pScan->records);
    w->Vector(pScan->units);
  }
  w->Map(d->defs);
  w->Map(d->typeUnits);
  w->ScopeMap(d->localVars);
  w->ScopeMap(d->members);
  w->ScopeMap(d->inheritance);
  for (U32 list = 0; list < kNumDieLists; list++)
    w->Array(_GetIdList(pFile, (ELF_DIE_LIST)list)->items, _GetIdList(pFile, (ELF_DIE_LIST)list)->n);
  w->Value((U64)s->srcFileNames.n);
  for (U32 i = 0; i < s->srcFileNames.n; i++) {
    w->String(s->srcFileNames.items[i]);
    auto it = d->srcFileUnits.find(ELF_Djb2Hash(s->srcFileNames.items[i]));
    w->Vector(it != d->srcFileUnits.end() ? it->second : std::vector<U64>());
  }
  w->Value((U64)s->lineFileNames.n);
  for (U32 i = 0; i < s->lineFileNames.n; i++)
    w->String(s->lineFileNames.items[i]);
  w->Array(s->lineRows.items, s->lineRows.n);
  w->Value((U64)s->cuInfos.n);
  for (U32 i = 0; i < s->cuInfos.n; i++) {
    const ELF_CU_INFO& cu = s->cuInfos.items[i];
    w->Value(cu.offset);
    w->Value(cu.unitVersion);
    w->Value(cu.lineVersion);
    w->Value((U64)cu.fileCount);
    for (U32 f = 0; f < cu.fileCount; f++)
      w->String(cu.fileNames[f]);
  }
}

// Allocates a list of n items of T with malloc, as the tree's own growing lists do.
template <typename T>
T* _AllocItems(U64 n) {
  return (T*)calloc(n ? (size_t)n : 1, sizeof(T));
}

bool _ReadStrings(CReader* r, ELF_STRING_LIST* pList) {
  U64 n = 0;
  if (!r->Count(&n, sizeof(U64)))
    return false;
  pList->items = _AllocItems<char*>(n);
  pList->capacity = (U32)(n ? n : 1);
  if (!pList->items)
    return r->ok = false;
  for (U64 i = 0; i < n && r->ok; i++) {
    char* s = r->String();
    if (s)
      pList->items[pList->n++] = s;
  }
  return r->ok;
}

// Reads the payload into the tree's state. On failure the caller releases what was filled.
bool _ReadPayload(ELF_FILE* pFile, CReader* r) {
  ELF_DWARF_STATE* s = &pFile->dwarf;
  ELF_DIE_INDEX* d = s->pDies;
  U32 language = 0;
  r->Value(&s->dwarfVersion);
  r->Value(&s->mainSym);
  r->Value(&language);
  s->srcLanguage = language == ELF_SRC_LANG_CPP ? ELF_SRC_LANG_CPP : ELF_SRC_LANG_C;
  r->Value(&s->cuCount);
  r->Value(&s->returnAddrReg);
  r->Value(&s->cieCount);
  r->Value(&s->fdeCount);
  for (DWS_SECTION_SCAN* pScan : {&d->info, &d->types}) {
    if (!r->Vector(&pScan->records) || !r->Vector(&pScan->units) || !_IsSoundScan(*pScan))
      return false;
  }
  if (!r->Map(&d->defs) || !r->Map(&d->typeUnits) || !r->ScopeMap(&d->localVars) ||
      !r->ScopeMap(&d->members) || !r->ScopeMap(&d->inheritance)) {
    return false;
  }
  for (U32 list = 0; list < kNumDieLists; list++) {
    ELF_ID_LIST* pList = _GetIdList(pFile, (ELF_DIE_LIST)list);
    U64 n = 0;
    if (!r->Count(&n, sizeof(U64)) || n > 0xFFFFFFF0ull)
      return false;
    pList->items = _AllocItems<U64>(n);
    if (!pList->items)
      return false;
    pList->n = (U32)n;
    pList->capacity = (U32)(n ? n : 1);
    for (U64 k = 0; k < n; k++)
      r->Value(&pList->items[k]);
  }
  U64 numSrcFiles = 0;
  if (!r->Count(&numSrcFiles, 2 * sizeof(U64)))
    return false;
  s->srcFileNames.items = _AllocItems<char*>(numSrcFiles);
  s->srcFileNames.capacity = (U32)(numSrcFiles ? numSrcFiles : 1);
  if (!s->srcFileNames.items)
    return false;
  for (U64 i = 0; i < numSrcFiles && r->ok; i++) {
    char* sName = r->String();
    if (!sName)
      return false;
    s->srcFileNames.items[s->srcFileNames.n++] = sName;
    r->Vector(&d->srcFileUnits[ELF_Djb2Hash(sName)]);
  }
  if (!_ReadStrings(r, &s->lineFileNames))
    return false;
  U64 numRows = 0;
  if (!r->Count(&numRows, sizeof(ELF_LINE_ROW)) || numRows > 0xFFFFFFF0ull)
    return false;
  s->lineRows.items = _AllocItems<ELF_LINE_ROW>(numRows);
  if (!s->lineRows.items)
    return false;
  s->lineRows.capacity = (U32)(numRows ? numRows : 1);
  for (U64 i = 0; i < numRows && r->ok; i++) {
    ELF_LINE_ROW& row = s->lineRows.items[i];
    r->Value(&row);
    if (row.fileNameIdx >= s->lineFileNames.n)
      return false;
    s->lineRows.n++;
  }
  U64 numUnits = 0;
  // Each unit takes its offset, two versions and the count of its file names at least.
  if (!r->Count(&numUnits, 2 * sizeof(U64) + 2 * sizeof(U16)))
    return false;
  s->cuInfos.items = _AllocItems<ELF_CU_INFO>(numUnits);
  if (!s->cuInfos.items)
    return false;
  s->cuInfos.capacity = (U32)(numUnits ? numUnits : 1);
  for (U64 i = 0; i < numUnits && r->ok; i++) {
    ELF_CU_INFO& cu = s->cuInfos.items[s->cuInfos.n++];
    U64 numFiles = 0;
    r->Value(&cu.offset);
    r->Value(&cu.unitVersion);
    r->Value(&cu.lineVersion);
    if (!r->Count(&numFiles, sizeof(U64)))
      return false;
    cu.fileNames = _AllocItems<char*>(numFiles);
    if (!cu.fileNames)
      return false;
    for (U64 f = 0; f < numFiles && r->ok; f++) {
      char* sName = r->String();
      if (sName)
        cu.fileNames[cu.fileCount++] = sName;
    }
  }
  return r->ok && r->AtEnd();
}

// Keeps the newest cache files of the folder (a read counts as new) and removes the others.
void _PruneCacheFolder(const QString& sDir) {
  QFileInfoList files = QDir(sDir).entryInfoList({"*.zvidx"}, QDir::Files, QDir::Time);
  for (qsizetype i = kMaxIndexCacheFiles; i < files.size(); i++)
    QFile::remove(files[i].absoluteFilePath());
}

bool _IsOurHeader(const CACHE_HEADER& h, const ELF_FILE* pFile) {
  return memcmp(h.magic, kMagic, sizeof(kMagic)) == 0 && h.formatVersion == kFormatVersion &&
         h.byteOrder == 0x01020304 && h.programSize == pFile->fileSize &&
         h.programHash == _HashBytes(pFile->data, pFile->fileSize);
}

}  // namespace

U64 ELF_IndexCacheHash(const U8* p, U64 Size) {
  return _HashBytes(p, Size);
}

void ELF_SetIndexCacheDir(const QString& sDir) {
  std::lock_guard<std::mutex> lock(g_DirMutex);
  g_sDir = sDir;
}

QString ELF_GetIndexCacheDir() {
  std::lock_guard<std::mutex> lock(g_DirMutex);
  return g_sDir;
}

QString ELF_GetIndexCachePath(const char* sProgramPath) {
  QString dir = ELF_GetIndexCacheDir();
  if (dir.isEmpty() || !sProgramPath || !*sProgramPath)
    return QString();
  QByteArray path = QFileInfo(QString::fromUtf8(sProgramPath)).absoluteFilePath().toUtf8();
  U64 h = _HashBytes((const U8*)path.constData(), (U64)path.size());
  return QDir(dir).filePath(QString("%1.zvidx").arg(h, 16, 16, QChar('0')));
}

int ELF_ReadIndexCache(ELF_FILE* pFile) {
  QString sCache = ELF_GetIndexCachePath(pFile->sPath);
  if (sCache.isEmpty() || !pFile->dwarf.pDies)
    return -1;
  QFile file(sCache);
  if (!file.open(QIODevice::ReadOnly))
    return -1;
  qint64 size = file.size();
  const U8* p = size >= (qint64)sizeof(CACHE_HEADER) ? file.map(0, size) : nullptr;
  if (!p) {
    ELF_Log(ELF_LOG_MESSAGE, "Index cache %s is not used: it cannot be read.", qPrintable(sCache));
    return -1;
  }
  CACHE_HEADER h;
  memcpy(&h, p, sizeof(h));
  const char* sWhy = nullptr;
  if (!_IsOurHeader(h, pFile))
    sWhy = "it belongs to another program, another version of it or another format";
  else if (h.payloadSize != (U64)size - sizeof(h) ||
           h.payloadHash != _HashBytes(p + sizeof(h), h.payloadSize, true))
    sWhy = "it is damaged";
  if (!sWhy) {
    CReader r(p + sizeof(h), h.payloadSize);
    if (!_ReadPayload(pFile, &r)) {
      sWhy = "its tables do not fit together";
      _ReleaseTreeTables(pFile);  // the walk starts from clean tables
    }
  }
  file.unmap(const_cast<U8*>(p));
  if (sWhy) {
    ELF_Log(ELF_LOG_MESSAGE, "Index cache %s is not used: %s.", qPrintable(sCache), sWhy);
    return -1;
  }
  pFile->dwarf.pDies->fromCache = true;
  // A cache in use is kept longest when the folder is pruned.
  file.close();
  if (file.open(QIODevice::ReadWrite))
    file.setFileTime(QDateTime::currentDateTime(), QFileDevice::FileModificationTime);
  return 0;
}

int ELF_WriteIndexCache(ELF_FILE* pFile) {
  if (!ELF_IsValidFile(pFile))
    return -1;
  // Without debug information there is no walk to keep.
  if (!pFile->dwarf.pDies || !pFile->dwarf.pDwarf || pFile->dwarf.pDies->fromCache)
    return 0;
  QString sCache = ELF_GetIndexCachePath(pFile->sPath);
  if (sCache.isEmpty())
    return -1;
  CWriter w;
  _WritePayload(pFile, &w);
  CACHE_HEADER h = {};
  memcpy(h.magic, kMagic, sizeof(kMagic));
  h.formatVersion = kFormatVersion;
  h.byteOrder = 0x01020304;
  h.programSize = pFile->fileSize;
  h.programHash = _HashBytes(pFile->data, pFile->fileSize);
  h.payloadSize = (U64)w.bytes.size();
  h.payloadHash = _HashBytes((const U8*)w.bytes.constData(), h.payloadSize);
  QDir().mkpath(QFileInfo(sCache).absolutePath());
  QSaveFile file(sCache);
  bool ok = file.open(QIODevice::WriteOnly) && file.write((const char*)&h, sizeof(h)) == (qint64)sizeof(h) &&
            file.write(w.bytes) == w.bytes.size() && file.commit();
  if (!ok) {
    ELF_Log(ELF_LOG_MESSAGE, "Index cache %s could not be written: %s", qPrintable(sCache),
            qPrintable(file.errorString()));
    return -1;
  }
  pFile->dwarf.pDies->fromCache = true;  // the file now matches what is loaded
  _PruneCacheFolder(QFileInfo(sCache).absolutePath());
  return 0;
}
