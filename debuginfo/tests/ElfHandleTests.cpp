// Symbol handles and the trace of the calls that resolve them.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "ReadelfRecord.h"
#include "debuginfo/DwarfTree.h"
#include "debuginfo/ElfFile.h"

namespace {

std::vector<std::string> g_Trace;
int CaptureTrace(const char* sText, U32 Severity) {
  if (Severity == ELF_LOG_TRACE)
    g_Trace.push_back(sText);
  return 0;
}

TEST(ElfTrace, OneLinePerCallSiteRun) {
  ELF_SetLogCallback(nullptr);
  ELF_FILE* pFile = ELF_Open(readelf::FixturePath("c_O0.elf").c_str());
  ASSERT_NE(pFile, nullptr);
  ELF_SYM_HANDLE h = ELF_GetDieListHandle(pFile, ELF_LIST_FUNCTIONS, 0);
  g_Trace.clear();
  ELF_SetLogCallback(CaptureTrace);
  ELF_SetTrace(true);
  for (int i = 0; i < 100; i++)
    _GetDie(h);
  ELF_SYM_HANDLE hElf = ELF_GetSymHandle(pFile, 1);
  U32 index = 0;
  _GetElfSymContext(hElf, nullptr, &index);
  ELF_SetTrace(false);
  _GetDie(h);
  ELF_SetLogCallback(nullptr);
  ASSERT_EQ(g_Trace.size(), 2u);
  char acExpected[64];
  snprintf(acExpected, sizeof(acExpected), "_GetDwarfSymContext, hSym: 0x%X", (unsigned)(h & 0xFFFFFFFF));
  EXPECT_EQ(g_Trace[0], acExpected);
  snprintf(acExpected, sizeof(acExpected), "_GetElfSymContext, hSym: 0x%X", (unsigned)(hElf & 0xFFFFFFFF));
  EXPECT_EQ(g_Trace[1], acExpected);
  ELF_Close(pFile);
}

TEST(ElfHandles, DwarfHandlesCarryWideIdentifiers) {
  // The identifier field holds DIE offsets beyond 4 GiB of .debug_info, and type-unit identifiers.
  struct {
    int FileIndex;
    U64 Id;
    bool Valid;
  } cases[] = {{0, 1, true},  {2, (1ull << 32) + 5, true},       {1, ELF_HANDLE_ID_MASK, true}, {3, 1, false},
               {0, 0, false}, {0, ELF_HANDLE_ID_MASK + 1, false}};
  for (const auto& c : cases) {
    ELF_SYM_HANDLE h = ELF_MakeDwarfHandle(c.FileIndex, c.Id);
    EXPECT_EQ(h != 0, c.Valid) << c.Id;
    if (!c.Valid)
      continue;
    U64 id = 0;
    EXPECT_TRUE(_IsDwarfSymbolHandle(h));
    EXPECT_TRUE(_GetSymID(h, &id));
    EXPECT_EQ(id, c.Id);
    EXPECT_EQ(h >> 48, 0xE0FEu);
  }
  EXPECT_FALSE(_IsValidSymbolHandle(0xE0FE0F0020000001ull & ~(7ull << 45)));
  EXPECT_EQ(_MakeDieID(0x10, true), 0x11u);
  EXPECT_NE(_MakeDieID(0x10, false), _MakeDieID(0x10, true));
}

}  // namespace
