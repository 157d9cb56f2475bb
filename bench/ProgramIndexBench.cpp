// Program-load benchmark: the time from opening a program to a ready program index and the peak
// memory of that load, beside `gdb-multiarch -batch -readnow -ex 'info line main'` on the same file,
// with the ELF layer's own timing lines. The file is read once before either run so that both find
// it in the page cache; gdb runs first. Make a large program with bench/gen_large_program.py.
// Run: build/bench/zevra_index_bench FILE.elf
#include <fcntl.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include <QFile>
#include <QFileInfo>

#include "debuginfo/IndexCache.h"
#include "debuginfo/ProgramIndex.h"

extern char** environ;

namespace {

using CClock = std::chrono::steady_clock;

double _Seconds(CClock::time_point Start) {
  return std::chrono::duration<double>(CClock::now() - Start).count();
}

// One line of the ELF layer's log and when it arrived, in seconds since the open began.
struct LOG_LINE {
  double at;
  U32 severity;
  std::string sText;
};
std::vector<LOG_LINE> _aLog;
CClock::time_point _LogStart;

int _OnLog(const char* sText, U32 Severity) {
  _aLog.push_back({_Seconds(_LogStart), Severity, sText ? sText : ""});
  return 0;
}

// A field of /proc/self/status in kB ("VmHWM", "VmRSS"); -1 if it cannot be read.
long _StatusKiB(const char* sField) {
  std::ifstream Status("/proc/self/status");
  std::string sLine;
  size_t Len = strlen(sField);
  while (std::getline(Status, sLine)) {
    if (sLine.compare(0, Len, sField) == 0 && sLine.size() > Len && sLine[Len] == ':')
      return std::stol(sLine.substr(Len + 1));
  }
  return -1;
}

// Reads the whole file so that the first run does not pay for the disk; its size, or -1.
long _WarmPageCache(const char* sPath) {
  FILE* pFile = fopen(sPath, "rb");
  if (!pFile)
    return -1;
  std::vector<char> aBuffer(1 << 20);
  long Total = 0;
  size_t Got;
  while ((Got = fread(aBuffer.data(), 1, aBuffer.size(), pFile)) > 0) {
    Total += (long)Got;
  }
  fclose(pFile);
  return Total;
}

struct ZEVRA_RESULT {
  int rc = -1;
  double seconds = 0;
  double unloadSeconds = 0;
  long hwmBeforeKiB = -1;
  long hwmAfterKiB = -1;
  long rssBeforeKiB = -1;
  double saveSeconds = 0;
  ELF_INDEX_COUNTS counts{};
};

// Starts a new high-water mark of the resident set, so that a second open shows its own peak.
void _ResetPeakMemory() {
  if (FILE* p = fopen("/proc/self/clear_refs", "w")) {
    fputs("5", p);
    fclose(p);
  }
}

ZEVRA_RESULT _ZevraOpen(const char* sPath, bool SaveCache) {
  ZEVRA_RESULT r;
  _ResetPeakMemory();
  r.rssBeforeKiB = _StatusKiB("VmRSS");
  r.hwmBeforeKiB = _StatusKiB("VmHWM");
  ELF_SetLogCallback(_OnLog);
  _LogStart = CClock::now();
  r.rc = ELF_Init(sPath);
  r.seconds = _Seconds(_LogStart);
  r.hwmAfterKiB = _StatusKiB("VmHWM");
  ELF_SetLogCallback(nullptr);
  r.counts = ELF_GetIndexCounts();
  auto Start = CClock::now();
  if (SaveCache) {
    ELF_SaveIndexCache();
    r.saveSeconds = _Seconds(Start);
    Start = CClock::now();
  }
  ELF_Deinit();
  r.unloadSeconds = _Seconds(Start);
  return r;
}

struct GDB_RESULT {
  bool ok = false;
  double seconds = 0;
  long maxRssKiB = -1;
  std::string sOutput;
};

// gdb-multiarch as a child process, timed from spawn to exit; its peak memory from wait4.
GDB_RESULT _GdbOpen(const char* sPath) {
  GDB_RESULT r;
  int aPipe[2];
  if (pipe(aPipe) != 0)
    return r;
  std::vector<std::string> as = {"gdb-multiarch",  "-nx", "-batch", "-readnow", "-ex",
                                 "info line main", sPath};
  std::vector<char*> ap;
  for (std::string& s : as) {
    ap.push_back(s.data());
  }
  ap.push_back(nullptr);
  posix_spawn_file_actions_t Actions;
  posix_spawn_file_actions_init(&Actions);
  posix_spawn_file_actions_addopen(&Actions, 0, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_adddup2(&Actions, aPipe[1], 1);
  posix_spawn_file_actions_adddup2(&Actions, aPipe[1], 2);
  posix_spawn_file_actions_addclose(&Actions, aPipe[0]);
  auto Start = CClock::now();
  pid_t Pid = -1;
  int SpawnRc = posix_spawnp(&Pid, ap[0], &Actions, nullptr, ap.data(), environ);
  posix_spawn_file_actions_destroy(&Actions);
  close(aPipe[1]);
  if (SpawnRc != 0) {
    close(aPipe[0]);
    r.sOutput = std::string("could not start gdb-multiarch: ") + strerror(SpawnRc);
    return r;
  }
  char acBuffer[4096];
  ssize_t Got;
  while ((Got = read(aPipe[0], acBuffer, sizeof(acBuffer))) > 0) {
    r.sOutput.append(acBuffer, (size_t)Got);
  }
  close(aPipe[0]);
  int Status = 0;
  rusage Usage{};
  if (wait4(Pid, &Status, 0, &Usage) != Pid)
    return r;
  r.seconds = _Seconds(Start);
  r.maxRssKiB = Usage.ru_maxrss;
  r.ok = WIFEXITED(Status) && WEXITSTATUS(Status) == 0;
  return r;
}

double _MiB(long KiB) {
  return KiB / 1024.0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    fprintf(stderr, "usage: %s FILE.elf\n", argv[0]);
    return 2;
  }
  const char* sPath = argv[1];
  long Size = _WarmPageCache(sPath);
  if (Size < 0) {
    fprintf(stderr, "%s: cannot read: %s\n", sPath, strerror(errno));
    return 1;
  }
  printf("Program: %s (%.1f MB)\n\n", sPath, Size / 1e6);

  // gdb first: a child's ru_maxrss starts from the parent's high-water mark at the spawn, so the
  // parent must not hold a loaded index yet.
  GDB_RESULT G = _GdbOpen(sPath);
  // The index cache lives in a folder of its own for this run, so the first open walks the DWARF.
  char acCacheDir[] = "/tmp/zevra-index-bench-XXXXXX";
  if (!mkdtemp(acCacheDir)) {
    fprintf(stderr, "cannot create a cache folder: %s\n", strerror(errno));
    return 1;
  }
  ELF_SetIndexCacheDir(QString::fromUtf8(acCacheDir));
  ZEVRA_RESULT Z = _ZevraOpen(sPath, true);
  std::vector<LOG_LINE> aFirstLog = _aLog;
  _aLog.clear();
  ZEVRA_RESULT C = _ZevraOpen(sPath, false);
  QString sCacheFile = ELF_GetIndexCachePath(sPath);
  long CacheBytes = (long)QFileInfo(sCacheFile).size();
  QFile::remove(sCacheFile);
  rmdir(acCacheDir);
  std::vector<LOG_LINE> aCachedLog = _aLog;
  _aLog = aFirstLog;
  bool UsedCache = false;
  for (const LOG_LINE& Line : aCachedLog)
    UsedCache |= Line.sText.find("from the index cache") != std::string::npos;
  if (Z.rc != 0) {
    fprintf(stderr, "%s: Zevra could not load the program (ELF_Init returned %d)\n", sPath, Z.rc);
    for (const LOG_LINE& Line : _aLog) {
      fprintf(stderr, "  %s\n", Line.sText.c_str());
    }
    return 1;
  }
  printf("ELF layer log of the open (seconds since the open began):\n");
  for (const LOG_LINE& Line : _aLog) {
    if (Line.severity != ELF_LOG_LIBDWARF)
      printf("  %7.3f  %s\n", Line.at, Line.sText.c_str());
  }
  printf("Index: %u files, %u line addresses, %u functions, %u globals, %u types\n\n", Z.counts.files,
         Z.counts.lineAddrs, Z.counts.functions, Z.counts.globals, Z.counts.types);

  auto memText = [](const ZEVRA_RESULT& R) {
    char ac[64] = "unknown";
    if (R.hwmAfterKiB >= 0 && R.rssBeforeKiB >= 0)
      snprintf(ac, sizeof(ac), "%8.0f MB (+%.0f MB by the open)", _MiB(R.hwmAfterKiB),
               _MiB(R.hwmAfterKiB - R.rssBeforeKiB));
    return std::string(ac);
  };
  char acGdbTime[32] = "failed", acGdbMem[64] = "unknown";
  if (G.ok)
    snprintf(acGdbTime, sizeof(acGdbTime), "%8.2f s", G.seconds);
  if (G.maxRssKiB >= 0)
    snprintf(acGdbMem, sizeof(acGdbMem), "%8.0f MB", _MiB(G.maxRssKiB));

  printf("%-44s %12s   %s\n", "Open to index ready", "time", "peak memory (VmHWM / ru_maxrss)");
  printf("%-44s %8.2f s    %s\n", "Zevra ELF_Init", Z.seconds, memText(Z).c_str());
  printf("%-44s %12s   %s\n", "gdb-multiarch -batch -readnow 'info line main'", acGdbTime, acGdbMem);
  if (C.rc == 0 && UsedCache)
    printf("%-44s %8.2f s    %s\n", "Zevra ELF_Init with the index cache", C.seconds, memText(C).c_str());
  else
    printf("%-44s %s\n", "Zevra ELF_Init with the index cache",
           "failed: the second open did not use the cache");
  printf("\n(index cache: %.1f MB, written at shutdown in %.2f s)", CacheBytes / 1e6, Z.saveSeconds);
  printf("\n(Zevra's own load counter, without reading the file and parsing DWARF: %u ms; unload: %.2f s)\n",
         Z.counts.loadMs, Z.unloadSeconds);
  std::string sAnswer = G.sOutput;
  while (!sAnswer.empty() && (sAnswer.back() == '\n' || sAnswer.back() == '\r')) {
    sAnswer.pop_back();
  }
  printf("gdb-multiarch answered: %s\n", sAnswer.c_str());
  return G.ok && C.rc == 0 && UsedCache ? 0 : 1;
}
