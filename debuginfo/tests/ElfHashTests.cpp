// The hash table of the debug layers, through its interface: one-value and multi-value semantics
// hold across growth, and the sizes follow the fixed prime steps.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "ReadelfRecord.h"
#include "debuginfo/DwarfTree.h"
#include "debuginfo/ElfFile.h"
#include "debuginfo/ElfHash.h"

namespace {

TEST(ElfHash, SizesFollowThePrimeSteps) {
  struct {
    I64 n;
    I32 size;
  } cases[] = {{0, 97},      {99, 97},       {100, 997},       {999, 997},
               {1000, 9967}, {99999, 99991}, {100000, 999983}, {999999, 999983}};
  for (const auto& c : cases)
    EXPECT_EQ(ELF_NextHashSize(c.n), c.size) << c.n;
}

TEST(ElfHash, PutReplacesAndAddCollectsAcrossGrowth) {
  // Small tables so that growth happens many times.
  ELF_HASH_TABLE* pOne = ELF_HashCreate(5, 2, ELF_HASH_PLAIN);
  ELF_HASH_TABLE* pMulti = ELF_HashCreate(5, 4, ELF_HASH_PLAIN);
  ASSERT_NE(pOne, nullptr);
  ASSERT_NE(pMulti, nullptr);
  const U64 kKeys = 5000;
  for (U64 key = 0; key < kKeys; key++) {
    ASSERT_EQ(ELF_HashPut(pOne, key * 7919, key), 0);
    ASSERT_EQ(ELF_HashPut(pOne, key * 7919, key + 1), 0) << "a second put replaces";
    for (U64 v = 0; v < key % 4 + 1; v++)
      ASSERT_EQ(ELF_HashAdd(pMulti, key, key * 10 + v), 0);
  }
  EXPECT_EQ(pOne->count, (I32)kKeys);
  for (U64 key = 0; key < kKeys; key++) {
    EXPECT_EQ(ELF_HashGet(pOne, key * 7919), key + 1);
    I32 n = 0;
    const U64* paValues = ELF_HashGetAll(pMulti, key, &n);
    ASSERT_EQ(n, (I32)(key % 4 + 1)) << key;
    for (I32 v = 0; v < n; v++)
      EXPECT_EQ(paValues[v], key * 10 + (U64)v) << "values keep their order";
    EXPECT_EQ(ELF_HashCount(pMulti, key), n);
  }
  EXPECT_FALSE(ELF_HashHas(pOne, 1));
  EXPECT_EQ(ELF_HashGet(pOne, 1), 0u);
  EXPECT_EQ(ELF_HashCount(pMulti, kKeys + 1), 0);
  EXPECT_TRUE(ELF_HashHas(pOne, 0)) << "key 0 is allowed";
  ELF_HashFree(pOne);
  ELF_HashFree(pMulti);
}

TEST(ElfHash, OwningTablesFreeTheirValues) {
  // Run under ASan or valgrind, a leak here shows as a failure of the whole binary.
  ELF_HASH_TABLE* pStrings = ELF_HashCreate(0, 0, ELF_HASH_STRINGS);
  ELF_HASH_TABLE* pRecords = ELF_HashCreate(3, 1, ELF_HASH_RECORDS);
  for (U64 i = 0; i < 50; i++) {
    ELF_HashPut(pStrings, i, (U64)(uintptr_t)strdup("text"));
    ELF_HASH_RECORD* pRecord = nullptr;
    for (U64 k = 0; k < 9; k++)
      ASSERT_EQ(ELF_RecordAppend(&pRecord, k), 0);
    EXPECT_EQ(pRecord->n, 9);
    ELF_HashPut(pRecords, i, (U64)(uintptr_t)pRecord);
  }
  EXPECT_EQ(pStrings->depth, 10) << "depth 0 means 10";
  ELF_HashFree(pStrings);
  ELF_HashFree(pRecords);
}

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
