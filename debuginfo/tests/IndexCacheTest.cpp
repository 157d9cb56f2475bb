// The index cache: an open that reads it answers every question as the open that walked the DWARF;
// a cache of another program, a damaged or foreign file is passed over; a cache that cannot be
// written leaves the loaded index alone.
#include <gtest/gtest.h>

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTemporaryDir>
#include <sstream>
#include <string>
#include <vector>

#include "ReadelfRecord.h"
#include "debuginfo/ElfFile.h"
#include "debuginfo/IndexCache.h"
#include "debuginfo/ProgramIndex.h"
#include "debuginfo/SymbolQueries.h"

namespace {

std::vector<std::string> g_Log;

int _CaptureLog(const char* sText, U32) {
  g_Log.push_back(sText);
  return 0;
}

bool _Logged(const std::string& sPart) {
  for (const std::string& line : g_Log) {
    if (line.find(sPart) != std::string::npos)
      return true;
  }
  return false;
}

std::string _Hex(U32 v) {
  char ac[16];
  snprintf(ac, sizeof(ac), "%X", v);
  return ac;
}

std::string _Loc(const CSrcLoc& Loc) {
  return QFileInfo(ELF_GetFilePath(Loc.file)).fileName().toStdString() + ":" + std::to_string(Loc.line) +
         ":" + std::to_string(Loc.col);
}

// What the loaded index answers, as text: counts, functions with their ranges, locals and frame
// sizes, globals with types and addresses, types with their members, every line address.
std::string _Describe() {
  std::ostringstream out;
  ELF_INDEX_COUNTS c = ELF_GetIndexCounts();
  out << "counts " << c.files << " " << c.lineAddrs << " " << c.functions << " " << c.globals << " "
      << c.types << " " << c.droppedLines << " " << c.droppedFunctions << "\n";
  for (ELF_SYM_HANDLE h : ELF_GetAllFunctions()) {
    CAddrRange r = ELF_GetFuncRange(h);
    out << "function " << ELF_GetSymName(h).toStdString() << " " << _Hex(r.start) << "+" << r.size << " "
        << _Loc(ELF_GetSymDeclLoc(h)) << " stack " << ELF_GetFuncStackSize(r.start) << "\n";
    ELF_SetContextPC(r.start);
    for (ELF_SYM_HANDLE local : ELF_GetLocalVars(true))
      out << "  local " << ELF_GetSymName(local).toStdString() << " "
          << ELF_GetSymDataTypeName(local).toStdString() << "\n";
  }
  for (ELF_SYM_HANDLE h : ELF_GetGlobals()) {
    out << "global " << ELF_GetSymName(h).toStdString() << " " << ELF_GetSymDataTypeName(h).toStdString()
        << " " << _Hex(ELF_GetSymAddr(h)) << "\n";
    ELF_SYM_HANDLE type = ELF_GetSymDataType(h);
    for (U32 i = 0; i < ELF_GetSymMemberCount(type); i++) {
      ELF_SYM_HANDLE m = ELF_GetSymMember(type, i);
      out << "  member " << ELF_GetSymName(m).toStdString() << " @" << ELF_GetSymMemberOffset(m) << "\n";
    }
  }
  for (U32 id : ELF_GetFileIds())
    out << "file " << QFileInfo(ELF_GetFilePath(id)).fileName().toStdString() << " "
        << ELF_GetFileFunctions(id).size() << "\n";
  CAddrRange program = ELF_GetProgramRange();
  for (U32 a = program.start; a < program.start + program.size; a += 2) {
    for (const CSrcLoc& loc : ELF_GetSrcLocs(a))
      out << _Hex(a) << " " << _Loc(loc) << "\n";
  }
  return out.str();
}

struct OPEN_RESULT {
  int rc;
  bool fromCache;
  std::string description;
};

OPEN_RESULT _Open(const std::string& sPath) {
  g_Log.clear();
  ELF_SetLogCallback(_CaptureLog);
  OPEN_RESULT r;
  r.rc = ELF_Init(sPath.c_str());
  ELF_SetLogCallback(nullptr);
  r.fromCache = _Logged("from the index cache");
  r.description = r.rc == 0 ? _Describe() : std::string();
  return r;
}

class IndexCacheTest : public ::testing::TestWithParam<const char*> {
 protected:
  void SetUp() override {
    ASSERT_TRUE(m_Dir.isValid());
    ELF_SetIndexCacheDir(m_Dir.filePath("cache"));
  }
  void TearDown() override {
    ELF_Deinit();
    ELF_SetIndexCacheDir(QString());
  }
  // A copy of a fixture at a path of this test, so that the cache file is this test's own.
  std::string CopyFixture(const std::string& sFixture, const QString& sName = "program.elf") {
    QString path = m_Dir.filePath(sName);
    QFile::remove(path);
    EXPECT_TRUE(QFile::copy(QString::fromStdString(readelf::FixturePath(sFixture + ".elf")), path));
    return path.toStdString();
  }
  QTemporaryDir m_Dir;
};

TEST_P(IndexCacheTest, CachedOpenAnswersAsTheWalk) {
  std::string path = CopyFixture(GetParam());
  OPEN_RESULT walked = _Open(path);
  ASSERT_EQ(walked.rc, 0);
  EXPECT_FALSE(walked.fromCache);
  EXPECT_NE(walked.description.find("function main "), std::string::npos);
  EXPECT_NE(walked.description.find("  local "), std::string::npos);
  ASSERT_EQ(ELF_SaveIndexCache(), 0);
  QString cacheFile = ELF_GetIndexCachePath(path.c_str());
  ASSERT_TRUE(QFileInfo::exists(cacheFile));
  ELF_Deinit();

  OPEN_RESULT cached = _Open(path);
  ASSERT_EQ(cached.rc, 0);
  EXPECT_TRUE(cached.fromCache);
  EXPECT_EQ(cached.description, walked.description);
  // Saving again after a cached open leaves the file as it is.
  QFile before(cacheFile);
  ASSERT_TRUE(before.open(QIODevice::ReadOnly));
  QByteArray bytes = before.readAll();
  before.close();
  EXPECT_EQ(ELF_SaveIndexCache(), 0);
  QFile after(cacheFile);
  ASSERT_TRUE(after.open(QIODevice::ReadOnly));
  EXPECT_EQ(after.readAll(), bytes);
}

INSTANTIATE_TEST_SUITE_P(Fixtures, IndexCacheTest,
                         ::testing::Values("c_O0", "c_O2_dw4", "c_be32", "cpp_O0", "cpp_tu4", "cpp_tu5",
                                           "gc_O0"));

class IndexCacheDamage : public IndexCacheTest {};

TEST_F(IndexCacheDamage, ForeignStaleOrDamagedCachesArePassedOver) {
  std::string path = CopyFixture("c_O0");
  ASSERT_EQ(_Open(path).rc, 0);
  ASSERT_EQ(ELF_SaveIndexCache(), 0);
  ELF_Deinit();
  QString cacheFile = ELF_GetIndexCachePath(path.c_str());
  QFile file(cacheFile);
  ASSERT_TRUE(file.open(QIODevice::ReadOnly));
  const QByteArray good = file.readAll();
  file.close();
  std::string fresh = _Open(path).description;
  ELF_Deinit();

  auto writeCache = [&](const QByteArray& Bytes) {
    QFile f(cacheFile);
    ASSERT_TRUE(f.open(QIODevice::WriteOnly | QIODevice::Truncate));
    f.write(Bytes);
  };
  struct {
    const char* sCase;
    QByteArray bytes;
    const char* sWhy;
  } cases[] = {
      {"a byte of the tables flipped",
       QByteArray(good).replace(good.size() / 2, 1, QByteArray(1, ~good[good.size() / 2])), "it is damaged"},
      {"cut short", good.left(good.size() - 9), "it is damaged"},
      {"only half a header", good.left(20), "it cannot be read"},
      {"another format version", QByteArray(good).replace(8, 1, QByteArray(1, 99)),
       "it belongs to another program, another version of it or another format"},
      {"not a cache at all", QByteArray(4096, 'x'),
       "it belongs to another program, another version of it or another format"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.sCase);
    writeCache(c.bytes);
    OPEN_RESULT r = _Open(path);
    ASSERT_EQ(r.rc, 0);
    EXPECT_FALSE(r.fromCache);
    EXPECT_TRUE(_Logged("Index cache " + cacheFile.toStdString() + " is not used: " + c.sWhy));
    EXPECT_EQ(r.description, fresh);
    ELF_Deinit();
  }

  // Damage that keeps the hash right: tables that contradict each other are refused as a whole.
  // The payload opens with 30 bytes of scalars, then the count and the 20-byte DIE records; the
  // second record's parent (at 4 within the record) is made to point behind it.
  auto rehashed = [&](QByteArray Bytes) {
    U64 hash = ELF_IndexCacheHash((const U8*)Bytes.constData() + kIndexCacheHeaderSize,
                                  (U64)Bytes.size() - kIndexCacheHeaderSize);
    Bytes.replace(40, 8, QByteArray((const char*)&hash, 8));
    return Bytes;
  };
  const qsizetype parentAt = kIndexCacheHeaderSize + 30 + 8 + 20 + 4;
  U32 forward = 7;
  const QByteArray tangled =
      rehashed(QByteArray(good).replace(parentAt, 4, QByteArray((const char*)&forward, 4)));
  U64 huge = ~0ull;
  const QByteArray overlong =
      rehashed(QByteArray(good).replace(kIndexCacheHeaderSize + 30, 8, QByteArray((const char*)&huge, 8)));
  for (const QByteArray& bytes : {tangled, overlong}) {
    writeCache(bytes);
    OPEN_RESULT r = _Open(path);
    EXPECT_FALSE(r.fromCache);
    EXPECT_TRUE(_Logged("is not used: its tables do not fit together"));
    EXPECT_EQ(r.description, fresh);
    ELF_Deinit();
  }

  // The program changed under the same path: the old cache belongs to the old bytes.
  writeCache(good);
  CopyFixture("c_O2");
  OPEN_RESULT changed = _Open(path);
  EXPECT_FALSE(changed.fromCache);
  EXPECT_TRUE(_Logged("belongs to another program"));
  ELF_Deinit();
  ELF_SetIndexCacheDir(QString());
  EXPECT_EQ(changed.description, _Open(path).description);
}

// The folder keeps the caches written or read last; the oldest go.
TEST_F(IndexCacheDamage, TheFolderKeepsTheNewestCaches) {
  std::vector<std::string> paths;
  for (int i = 0; i < kMaxIndexCacheFiles + 2; i++) {
    paths.push_back(CopyFixture("c_O0", QString("p%1.elf").arg(i)));
    ASSERT_EQ(_Open(paths.back()).rc, 0);
    ASSERT_EQ(ELF_SaveIndexCache(), 0);
    ELF_Deinit();
    // File times have a resolution; a read of the first program makes it the newest.
    QFile cache(ELF_GetIndexCachePath(paths.back().c_str()));
    ASSERT_TRUE(cache.open(QIODevice::ReadWrite));
    cache.setFileTime(QDateTime::currentDateTime().addSecs(i - 100), QFileDevice::FileModificationTime);
    if (i == kMaxIndexCacheFiles - 1) {
      EXPECT_TRUE(_Open(paths.front()).fromCache);
      ELF_Deinit();
    }
  }
  EXPECT_EQ(QDir(m_Dir.filePath("cache")).entryList({"*.zvidx"}, QDir::Files).size(), kMaxIndexCacheFiles);
  EXPECT_TRUE(QFileInfo::exists(ELF_GetIndexCachePath(paths[0].c_str())));
  EXPECT_FALSE(QFileInfo::exists(ELF_GetIndexCachePath(paths[1].c_str())));
  EXPECT_FALSE(QFileInfo::exists(ELF_GetIndexCachePath(paths[2].c_str())));
  EXPECT_TRUE(QFileInfo::exists(ELF_GetIndexCachePath(paths.back().c_str())));
}

TEST_F(IndexCacheDamage, SavingNeedsAFolderAndALoadedProgram) {
  EXPECT_EQ(ELF_SaveIndexCache(), -1);  // nothing loaded
  std::string path = CopyFixture("c_O0");
  // A file where the cache folder should be: the save fails and says where.
  QFile blocker(m_Dir.filePath("cache"));
  ASSERT_TRUE(blocker.open(QIODevice::WriteOnly));
  blocker.close();
  OPEN_RESULT r = _Open(path);
  ASSERT_EQ(r.rc, 0);
  g_Log.clear();
  ELF_SetLogCallback(_CaptureLog);
  EXPECT_EQ(ELF_SaveIndexCache(), -1);
  ELF_SetLogCallback(nullptr);
  EXPECT_TRUE(
      _Logged("Index cache " + ELF_GetIndexCachePath(path.c_str()).toStdString() + " could not be written"));
  EXPECT_EQ(_Describe(), r.description);
  // Without a folder there is no cache at all.
  ELF_SetIndexCacheDir(QString());
  EXPECT_TRUE(ELF_GetIndexCachePath(path.c_str()).isEmpty());
  EXPECT_EQ(ELF_SaveIndexCache(), -1);
  // A program without debug information has nothing to keep.
  ELF_SetIndexCacheDir(m_Dir.filePath("other"));
  std::string bare = CopyFixture("nodebug_O0", "bare.elf");
  ASSERT_EQ(_Open(bare).rc, 0);
  EXPECT_EQ(ELF_SaveIndexCache(), 0);
  EXPECT_FALSE(QFileInfo::exists(ELF_GetIndexCachePath(bare.c_str())));
}

}  // namespace
