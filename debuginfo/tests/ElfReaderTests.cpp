// The ELF layer against the committed fixtures: headers, sections, segments, symbols, mapping
// symbols and program bytes, each compared with the recorded readelf output.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "ReadelfRecord.h"
#include "debuginfo/DwarfTree.h"
#include "debuginfo/ElfFile.h"

namespace {

const char* const kFixtures[] = {"c_O0",  "c_O0_dw5", "c_O2",    "c_O2_dw4", "cpp_O0",
                                 "c_be8", "c_be32",   "cpp_tu5", "cpp_tu4"};

class ElfFixture : public ::testing::TestWithParam<const char*> {
 protected:
  void SetUp() override {
    ELF_SetLogCallback(nullptr);
    m_pFile = ELF_Open(readelf::FixturePath(std::string(GetParam()) + ".elf").c_str());
    ASSERT_NE(m_pFile, nullptr);
  }
  void TearDown() override { ELF_Close(m_pFile); }
  ELF_FILE* m_pFile = nullptr;
};

U32 TypeCode(const std::string& sType) {
  if (sType == "NULL")
    return 0;
  if (sType == "PROGBITS")
    return 1;
  if (sType == "SYMTAB")
    return 2;
  if (sType == "STRTAB")
    return 3;
  if (sType == "NOBITS")
    return 8;
  if (sType == "ARM_ATTRIBUTES")
    return 0x70000003;
  if (sType == "LOAD")
    return 1;
  return 0xFFFFFFFF;
}

U32 FlagBits(const std::string& sFlags) {
  U32 bits = 0;
  if (sFlags.find('W') != std::string::npos)
    bits |= 1;
  if (sFlags.find('A') != std::string::npos)
    bits |= 2;
  if (sFlags.find('X') != std::string::npos)
    bits |= 4;
  if (sFlags.find('M') != std::string::npos)
    bits |= 0x10;
  if (sFlags.find('S') != std::string::npos)
    bits |= 0x20;
  return bits;
}

U32 SymTypeCode(const std::string& sType) {
  if (sType == "NOTYPE")
    return 0;
  if (sType == "OBJECT")
    return 1;
  if (sType == "FUNC")
    return 2;
  if (sType == "SECTION")
    return 3;
  if (sType == "FILE")
    return 4;
  return 0xFF;
}

TEST_P(ElfFixture, SectionsMatchReadelf) {
  auto sections = readelf::ParseSections(GetParam());
  ASSERT_FALSE(sections.empty());
  ASSERT_EQ(ELF_GetSectionCount(m_pFile), sections.size());
  for (const auto& s : sections) {
    SCOPED_TRACE(s.Name);
    EXPECT_STREQ(ELF_GetSectionName(m_pFile, s.Index), s.Name.c_str());
    EXPECT_EQ(ELF_GetSectionType(m_pFile, s.Index), TypeCode(s.Type));
    EXPECT_EQ(ELF_GetSectionAddr(m_pFile, s.Index), s.Addr);
    EXPECT_EQ(ELF_GetSectionOffset(m_pFile, s.Index), s.Offset);
    EXPECT_EQ(ELF_GetSectionSize(m_pFile, s.Index), s.Size);
    EXPECT_EQ(ELF_GetSectionEntSize(m_pFile, s.Index), s.EntSize);
    EXPECT_EQ(ELF_GetSectionFlags(m_pFile, s.Index) & 0x37, FlagBits(s.Flags));
    if (!s.Name.empty()) {
      EXPECT_EQ(ELF_GetSectionIdx(m_pFile, s.Name.c_str()), (int)s.Index);
    }
    EXPECT_EQ(ELF_GetSectionData(m_pFile, s.Index) == nullptr, s.Type == "NOBITS" || s.Size == 0);
  }
  EXPECT_EQ(ELF_GetSectionIdx(m_pFile, ".no_such_section"), -1);
  EXPECT_EQ(ELF_GetSectionIdx(m_pFile, ""), -1);
  EXPECT_STREQ(ELF_GetSectionName(m_pFile, (U32)sections.size()), "");
  EXPECT_EQ(ELF_GetSectionSize(m_pFile, (U32)sections.size()), 0u);
}

TEST_P(ElfFixture, SegmentsAndEntryPointMatchReadelf) {
  auto segments = readelf::ParseSegments(GetParam());
  ASSERT_EQ(ELF_GetProgramHeaderCount(m_pFile), segments.size());
  auto bytes = readelf::ReadBytes(readelf::FixturePath(std::string(GetParam()) + ".elf"));
  // Word-invariant big-endian programs are read as big-endian words; byte-invariant ones keep their
  // code little-endian, so their bytes are read as they lie, like those of little-endian programs.
  std::string order = readelf::ParseByteOrder(GetParam());
  bool swapped = order == "be32";
  for (U32 i = 0; i < segments.size(); i++) {
    const auto& s = segments[i];
    EXPECT_EQ(ELF_GetSegmentType(m_pFile, i), TypeCode(s.Type));
    EXPECT_EQ(ELF_GetSegmentVirtAddr(m_pFile, i), s.VirtAddr);
    EXPECT_EQ(ELF_GetSegmentPhysAddr(m_pFile, i), s.PhysAddr);
    EXPECT_EQ(ELF_GetSegmentFileSize(m_pFile, i), s.FileSize);
    EXPECT_EQ(ELF_GetSegmentMemSize(m_pFile, i), s.MemSize);
    const U8* pData = ELF_GetSegmentData(m_pFile, i);
    ASSERT_NE(pData, nullptr);
    EXPECT_EQ(memcmp(pData, bytes.data() + s.Offset, s.FileSize), 0);
    // Program bytes as a download or the disassembler reads them: little-endian words from the file.
    for (U32 off = 0; off + 4 <= s.FileSize; off += 0x10) {
      const U8* p = bytes.data() + s.Offset + off;
      I64 little = p[0] | (p[1] << 8) | (p[2] << 16) | ((I64)p[3] << 24);
      I64 big = ((I64)p[0] << 24) | (p[1] << 16) | (p[2] << 8) | p[3];
      EXPECT_EQ(ELF_ReadTargetMem(s.VirtAddr + off, 4), swapped ? big : little)
          << std::hex << s.VirtAddr + off;
      EXPECT_EQ(ELF_ReadTargetMem(s.VirtAddr + off, 2), swapped ? (big >> 16) : (little & 0xFFFF));
    }
    EXPECT_EQ(ELF_ReadTargetMem(s.VirtAddr + s.FileSize - 2, 4), -1) << "a read across the segment end";
    EXPECT_EQ(ELF_GetTargetMemPtr(s.VirtAddr, s.VirtAddr + s.FileSize), pData);
  }
  EXPECT_EQ(ELF_GetEntryPoint(m_pFile), readelf::ParseEntryPoint(GetParam()) & ~1u);
  EXPECT_EQ(ELF_GetDataEncoding(m_pFile), order == "little" ? ELF_ENC_LITTLE
                                          : order == "be8"  ? ELF_ENC_ARM_BE8
                                                            : ELF_ENC_ARM_BE32);
  EXPECT_EQ(ELF_ReadTargetMem(0x10000000, 4), -1);
  EXPECT_EQ(ELF_ReadTargetMem(0xFFFFFFFE, 4), -1);
  EXPECT_EQ(ELF_GetSegmentVirtAddr(m_pFile, 99), 0u);
}

TEST_P(ElfFixture, SymbolsMatchReadelf) {
  auto symbols = readelf::ParseSymbols(GetParam());
  auto sections = readelf::ParseSections(GetParam());
  ASSERT_EQ(ELF_GetSymCount(m_pFile), symbols.size());
  U32 numMapping = 0;
  for (const auto& s : symbols) {
    SCOPED_TRACE(s.Name);
    const ELF_SYM* pSym = ELF_GetSym(m_pFile, s.Index);
    ASSERT_NE(pSym, nullptr);
    // readelf shows the section name for section symbols; the symbol itself has none.
    EXPECT_STREQ(ELF_GetSymName(m_pFile, s.Index), s.Type == "SECTION" ? "" : s.Name.c_str());
    EXPECT_EQ(pSym->st_value, s.Value);
    EXPECT_EQ(pSym->st_info & 0xF, SymTypeCode(s.Type));
    EXPECT_EQ(pSym->st_info >> 4, s.Bind == "LOCAL" ? 0u : s.Bind == "GLOBAL" ? 1u : 2u);
    // Sizes the linker gave are kept; zero sizes of code and data symbols are filled in.
    if (s.Size != 0) {
      EXPECT_EQ(pSym->st_size, s.Size);
    }
    bool executable = false;
    if (s.Ndx != "UND" && s.Ndx != "ABS") {
      executable = sections[std::stoul(s.Ndx)].Flags.find('X') != std::string::npos;
    }
    bool mappingName = s.Name.size() >= 2 && s.Name[0] == '$' && strchr("atd", s.Name[1]) &&
                       (s.Name.size() == 2 || s.Name[2] == '.');
    if (s.Type == "NOTYPE" && s.Bind == "LOCAL" && executable && mappingName) {
      numMapping++;
      ELF_MAPPING_RANGE range = ELF_FindMappingRange(m_pFile, s.Value);
      EXPECT_EQ(range.start, s.Value);
      EXPECT_EQ(range.type, s.Name[1] == 't'   ? ELF_CODE_THUMB
                            : s.Name[1] == 'd' ? ELF_CODE_DATA
                                               : ELF_CODE_ARM);
      EXPECT_STREQ(ELF_GetSymDisplayName(m_pFile, s.Index), s.Name[1] == 't'   ? "$Thumb"
                                                            : s.Name[1] == 'd' ? "$Data"
                                                                               : "$ARM");
    }
    if (s.Type == "FUNC" && s.Size > 0) {
      int found = ELF_FindFuncSymbol(m_pFile, s.Value & ~1u);
      ASSERT_GE(found, 0);
      EXPECT_EQ(ELF_GetSym(m_pFile, (U32)found)->st_value, s.Value);
      EXPECT_GE(ELF_FindFuncSymbol(m_pFile, (s.Value & ~1u) + s.Size - 2), 0);
      EXPECT_EQ(ELF_GetSymIdxByName(s.Name.c_str()) >= 0, true);
    }
  }
  EXPECT_EQ(ELF_GetMappingSymCount(m_pFile), numMapping);
  EXPECT_EQ(ELF_FindMappingRange(m_pFile, 0x100).type, ELF_CODE_NONE) << "below the first mapping symbol";
  EXPECT_EQ(ELF_FindFuncSymbol(m_pFile, 0x100), -1);
  EXPECT_EQ(ELF_GetSym(m_pFile, (U32)symbols.size()), nullptr);
  EXPECT_EQ(ELF_GetSymIdxByName("no_such_symbol"), -1);
}

TEST_P(ElfFixture, FunctionSymbolListHoldsEachNamedFunctionOnce) {
  auto symbols = readelf::ParseSymbols(GetParam());
  std::map<U32, std::string> expected;  // address -> a function there
  for (const auto& s : symbols) {
    if (s.Type == "FUNC" && s.Value >= 2 && !s.Name.empty() && s.Name[0] != '$')
      expected[s.Value] = s.Name;
  }
  ASSERT_EQ(ELF_GetFuncSymCount(m_pFile), expected.size());
  U32 last = 0;
  for (U32 n = 0; n < ELF_GetFuncSymCount(m_pFile); n++) {
    int index = ELF_GetFuncSymIdx(m_pFile, n);
    ASSERT_GE(index, 0);
    U32 value = ELF_GetSym(m_pFile, (U32)index)->st_value;
    EXPECT_TRUE(expected.count(value));
    EXPECT_GT(value, last);
    last = value;
  }
}

TEST_P(ElfFixture, HandlesNameTheirFileAndSymbol) {
  ELF_SYM_HANDLE h = ELF_GetSymHandle(m_pFile, 5);
  ASSERT_NE(h, 0u);
  EXPECT_TRUE(_IsElfSymbolHandle(h));
  EXPECT_FALSE(_IsDwarfSymbolHandle(h));
  ELF_FILE* pFile = nullptr;
  U32 index = 0;
  EXPECT_TRUE(_GetElfSymContext(h, &pFile, &index));
  EXPECT_EQ(pFile, m_pFile);
  EXPECT_EQ(index, 5u);
  // A handle whose high bits are wrong is invalid even if its low bits name a real symbol.
  EXPECT_FALSE(_GetElfSymContext(h ^ (1ull << 60), &pFile, &index));
  EXPECT_FALSE(_IsValidSymbolHandle(0));
  EXPECT_FALSE(_GetElfSymContext(ELF_MakeElfHandle(0, ELF_GetSymCount(m_pFile)), &pFile, &index));
  EXPECT_EQ(ELF_GetSymHandle(m_pFile, ELF_GetSymCount(m_pFile)), 0u);
}

INSTANTIATE_TEST_SUITE_P(Fixtures, ElfFixture, ::testing::ValuesIn(kFixtures));

TEST(ElfRelocation, RowMovesAddressesBothWays) {
  ELF_FILE* pFile = ELF_Open(readelf::FixturePath("c_O0.elf").c_str());
  ASSERT_NE(pFile, nullptr);
  I64 atLink = ELF_ReadTargetMem(0x08000040, 4);
  ELF_RELOC_ROW row = {0x08000000, 0x08010000, 0x1000, ""};
  ASSERT_EQ(ELF_AddRelocation(row), 0);
  struct {
    U32 Link, Run;
  } cases[] = {{0x08000040, 0x08001040}, {0x08000000, 0x08001000}, {0x20000000, 0x20000000}};
  for (const auto& c : cases) {
    EXPECT_EQ(ELF_ApplyRelocation(c.Link, false), c.Run);
    EXPECT_EQ(ELF_UndoRelocation(c.Run, false), c.Link);
  }
  EXPECT_EQ(ELF_ReadTargetMem(0x08001040, 4), atLink) << "reads undo the relocation";
  ELF_Close(pFile);
  EXPECT_EQ(ELF_GetRelocationCount(), 0u) << "closing ends the relocation table";
}

// The texts of Project.RelocateSymbols, against the section and symbol tables readelf recorded.
TEST(ElfRelocation, TextsSelectRangesOrSayWhatIsWrong) {
  uint32_t mainAddr = 0, mainSize = 0, textAddr = 0, textSize = 0;
  for (const auto& sym : readelf::ParseSymbols("c_O0")) {
    if (sym.Name == "main")
      mainAddr = sym.Value & ~1u, mainSize = sym.Size;
  }
  for (const auto& sec : readelf::ParseSections("c_O0")) {
    if (sec.Name == ".text")
      textAddr = sec.Addr, textSize = sec.Size;
  }
  ASSERT_NE(mainSize, 0u);
  ASSERT_NE(textSize, 0u);
  const char* sError = nullptr;
  // Without a program a name cannot be checked; it waits for the next open.
  ASSERT_EQ(ELF_AddRelocationText("main", 0x1000, &sError), 0);
  ELF_FILE* pFile = ELF_Open(readelf::FixturePath("c_O0.elf").c_str());
  ASSERT_NE(pFile, nullptr);
  EXPECT_EQ(ELF_ApplyRelocation(mainAddr, false), mainAddr + 0x1000);
  EXPECT_EQ(ELF_ApplyRelocation(mainAddr + mainSize, true), mainAddr + mainSize + 0x1000);
  EXPECT_EQ(ELF_ApplyRelocation(mainAddr + mainSize, false), mainAddr + mainSize);
  ELF_ClearRelocations();

  struct {
    const char* sText;
    U32 inside, outside;  // an address the row moves and one it leaves
  } good[] = {
      {".text", textAddr, textAddr + textSize},
      {"0x20000000 - 0x20000100", 0x200000FF, 0x20000100},
      {"*", 0, 0xFFFFFFFF},
  };
  for (const auto& c : good) {
    SCOPED_TRACE(c.sText);
    ASSERT_EQ(ELF_AddRelocationText(c.sText, -0x10, &sError), 0) << sError;
    EXPECT_EQ(ELF_ApplyRelocation(c.inside, false), c.inside - 0x10 + (c.inside < 0x10 ? 0x10 : 0));
    EXPECT_EQ(ELF_ApplyRelocation(c.outside, false), c.outside);
    ELF_ClearRelocations();
  }
  struct {
    const char* sText;
    const char* sError;
  } bad[] = {
      {"", "no symbols given"},
      {"0-0", "both ends of the address range are 0"},
      {"0x100-", "an address range is two numbers, such as 0x8000-0x9000"},
      {"low-high", "an address range is two numbers, such as 0x8000-0x9000"},
      {"0x100-0x1FFFFFFFF", "an address range is two numbers, such as 0x8000-0x9000"},
      {"no_such_symbol", "the program has no section or symbol of that name"},
      {"a_name_of_sixty_four_characters_is_one_too_long_for_the_table___",
       "the name is longer than 63 characters"},
  };
  for (const auto& c : bad) {
    SCOPED_TRACE(c.sText);
    EXPECT_EQ(ELF_AddRelocationText(c.sText, 0x10, &sError), -1);
    EXPECT_STREQ(sError, c.sError);
    EXPECT_EQ(ELF_GetRelocationCount(), 0u);
  }
  int added = 0;
  while (ELF_AddRelocationText("main", 4, &sError) == 0)
    added++;
  EXPECT_STREQ(sError, "the relocation table is full");
  EXPECT_GT(added, 0);
  ELF_Close(pFile);
}

}  // namespace
