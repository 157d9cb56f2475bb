// The DWARF symbol tree against the committed fixtures: units, functions, variables, types,
// members, locals, parent links, line rows, ranges, location lists and frames, each compared with
// the recorded readelf output; and the type texts and log lines the system promises.
#include <gtest/gtest.h>

#include <dwarf.h>

#include <algorithm>
#include <set>
#include <string>
#include <vector>

#include "ReadelfRecord.h"
#include "debuginfo/DwarfTree.h"
#include "debuginfo/ElfFile.h"

namespace {

const char* const kFixtures[] = {"c_O0", "c_O0_dw5", "c_O2", "c_O2_dw4", "cpp_O0", "c_be8", "c_be32"};

std::vector<std::string> g_LogLines;

// Opens a fixture and closes it at the end of the scope, so that a failed assertion does not leave
// the file table full for the next test.
struct OpenFixture {
  explicit OpenFixture(const char* sName) {
    ELF_SetLogCallback(nullptr);
    pFile = ELF_Open(readelf::FixturePath(std::string(sName) + ".elf").c_str());
  }
  ~OpenFixture() { ELF_Close(pFile); }
  ELF_FILE* pFile;
};
int CaptureLog(const char* sText, U32 Severity) {
  g_LogLines.push_back(std::to_string(Severity) + " " + sText);
  return 0;
}

class DwarfFixture : public ::testing::TestWithParam<const char*> {
 protected:
  void SetUp() override {
    g_LogLines.clear();
    ELF_SetLogCallback(CaptureLog);
    m_pFile = ELF_Open(readelf::FixturePath(std::string(GetParam()) + ".elf").c_str());
    ASSERT_NE(m_pFile, nullptr);
    m_Units = readelf::ParseInfo(GetParam());
    ASSERT_FALSE(m_Units.empty());
    for (const auto& u : m_Units) {
      for (const auto& d : u.Dies)
        m_Dies[d.Offset] = d;
    }
  }
  void TearDown() override {
    ELF_Close(m_pFile);
    ELF_SetLogCallback(nullptr);
  }

  // Offsets of the DIEs of one of our lists.
  std::set<U64> ListOffsets(ELF_DIE_LIST List) {
    std::set<U64> offsets;
    for (U32 i = 0; i < ELF_GetDieListCount(m_pFile, List); i++) {
      ELF_DIE die = _GetDie(ELF_GetDieListHandle(m_pFile, List, i));
      EXPECT_NE(die, nullptr);
      if (die)
        offsets.insert(_GetDieOffset(m_pFile, die));
    }
    return offsets;
  }
  bool HasFlag(const readelf::Die& d, const char* sAttr) { return d.Has(sAttr) && d.Attrs.at(sAttr) != "0"; }
  bool InsideFunction(const readelf::Die& d) {
    for (U64 p = d.Parent; p; p = m_Dies[p].Parent) {
      if (m_Dies[p].Tag == "DW_TAG_subprogram" || m_Dies[p].Tag == "DW_TAG_inlined_subroutine")
        return true;
    }
    return false;
  }
  U64 EnclosingFunction(const readelf::Die& d) {
    for (U64 p = d.Parent; p; p = m_Dies[p].Parent) {
      if (m_Dies[p].Tag == "DW_TAG_subprogram" || m_Dies[p].Tag == "DW_TAG_inlined_subroutine")
        return p;
    }
    return 0;
  }
  ELF_DIE DieAt(U64 Offset) { return _GetDieAtOffset(m_pFile, Offset, true); }
  const readelf::Die* FindGlobal(const std::string& sName) {
    for (auto& [offset, d] : m_Dies) {
      if (d.Tag == "DW_TAG_variable" && d.Name() == sName && !InsideFunction(d) &&
          !d.Has("DW_AT_declaration")) {
        return &d;
      }
    }
    return nullptr;
  }

  ELF_FILE* m_pFile = nullptr;
  std::vector<readelf::Unit> m_Units;
  std::map<U64, readelf::Die> m_Dies;
};

TEST_P(DwarfFixture, UnitsAndVersionMatchReadelf) {
  std::set<U64> expected;
  int maxVersion = 0;
  for (const auto& u : m_Units) {
    expected.insert(u.Dies.front().Offset);
    maxVersion = std::max(maxVersion, u.Version);
  }
  EXPECT_EQ(ListOffsets(ELF_LIST_COMP_UNITS), expected);
  EXPECT_EQ(m_pFile->dwarf.dwarfVersion, maxVersion);
  EXPECT_EQ(m_pFile->dwarf.cuCount, m_Units.size());
  // Line table versions per unit, as the raw line dump reports them (3, 4 or 5 in the fixtures).
  std::vector<int> lineVersions;
  for (const auto& line :
       readelf::ReadLines(readelf::FixturePath(std::string(GetParam()) + ".lineversions.txt"))) {
    lineVersions.push_back(std::stoi(line.substr(line.find(':') + 1)));
  }
  ASSERT_EQ(m_pFile->dwarf.cuInfos.n, lineVersions.size());
  for (U32 i = 0; i < lineVersions.size(); i++)
    EXPECT_EQ(m_pFile->dwarf.cuInfos.items[i].lineVersion, lineVersions[i]);
  for (U64 offset : expected) {
    EXPECT_STREQ(_GetDieName(m_pFile, DieAt(offset)), m_Dies[offset].Name().c_str());
  }
}

TEST_P(DwarfFixture, FunctionsGlobalsTypesAndNamespacesMatchReadelf) {
  std::set<U64> functions, globals, types, namespaces, inlines;
  for (const auto& [offset, d] : m_Dies) {
    bool declOrArtificial = HasFlag(d, "DW_AT_declaration") || HasFlag(d, "DW_AT_artificial");
    if (d.Tag == "DW_TAG_subprogram" && !declOrArtificial)
      functions.insert(offset);
    if (d.Tag == "DW_TAG_inlined_subroutine" && !declOrArtificial)
      inlines.insert(offset);
    if (d.Tag == "DW_TAG_variable" && !declOrArtificial && !InsideFunction(d))
      globals.insert(offset);
    if (d.Tag == "DW_TAG_typedef")
      types.insert(offset);
    if ((d.Tag == "DW_TAG_structure_type" || d.Tag == "DW_TAG_class_type" || d.Tag == "DW_TAG_union_type" ||
         d.Tag == "DW_TAG_enumeration_type") &&
        !declOrArtificial && d.Number("DW_AT_byte_size") != 0) {
      types.insert(offset);
    }
    if (d.Tag == "DW_TAG_namespace")
      namespaces.insert(offset);
  }
  EXPECT_EQ(ListOffsets(ELF_LIST_FUNCTIONS), functions);
  EXPECT_EQ(ListOffsets(ELF_LIST_INLINE_FUNCS), inlines);
  EXPECT_EQ(ListOffsets(ELF_LIST_GLOBAL_VARS), globals);
  EXPECT_EQ(ListOffsets(ELF_LIST_TYPES), types);
  EXPECT_EQ(ListOffsets(ELF_LIST_NAMESPACES), namespaces);
  // Names as readelf shows them, through DW_AT_abstract_origin and DW_AT_specification where the DIE has
  // none.
  for (U64 offset : functions) {
    const readelf::Die& d = m_Dies[offset];
    std::string expected = d.Name();
    for (U64 link = offset; expected.empty() && link;) {
      const readelf::Die& l = m_Dies[link];
      link = l.Has("DW_AT_abstract_origin") ? l.Number("DW_AT_abstract_origin")
             : l.Has("DW_AT_specification") ? l.Number("DW_AT_specification")
                                            : 0;
      if (link)
        expected = m_Dies[link].Name();
    }
    const char* sName = _GetDieName(m_pFile, DieAt(offset));
    EXPECT_STREQ(sName ? sName : "", expected.c_str()) << std::hex << offset;
  }
}

TEST_P(DwarfFixture, ParentsLocalsMembersAndTagsMatchReadelf) {
  std::map<U64, std::set<U64>> locals, members, inheritance;
  for (const auto& [offset, d] : m_Dies) {
    if ((d.Tag == "DW_TAG_variable" || d.Tag == "DW_TAG_formal_parameter") &&
        !HasFlag(d, "DW_AT_declaration")) {
      if (U64 f = EnclosingFunction(d))
        locals[f].insert(offset);
    }
    const std::string& parentTag = d.Parent ? m_Dies[d.Parent].Tag : "";
    bool inType = parentTag == "DW_TAG_structure_type" || parentTag == "DW_TAG_class_type" ||
                  parentTag == "DW_TAG_union_type" || parentTag == "DW_TAG_enumeration_type";
    if (inType && !HasFlag(d, "DW_AT_artificial") &&
        (d.Tag == "DW_TAG_member" || d.Tag == "DW_TAG_subprogram" || d.Tag == "DW_TAG_enumerator")) {
      members[d.Parent].insert(offset);
    }
    if (d.Tag == "DW_TAG_inheritance")
      inheritance[d.Parent].insert(offset);
  }
  ASSERT_FALSE(locals.empty());
  ASSERT_FALSE(members.empty());
  struct {
    ELF_SCOPE_LIST List;
    std::map<U64, std::set<U64>>* pExpected;
  } cases[] = {
      {ELF_SCOPE_LOCAL_VARS, &locals}, {ELF_SCOPE_MEMBERS, &members}, {ELF_SCOPE_INHERITANCE, &inheritance}};
  for (const auto& c : cases) {
    for (const auto& [scope, expected] : *c.pExpected) {
      ELF_SYM_HANDLE h = _GetDwarfSymHandle(m_pFile, DieAt(scope));
      std::set<U64> found;
      for (U32 i = 0; i < ELF_GetScopeListCount(m_pFile, h, c.List); i++) {
        found.insert(_GetDieOffset(m_pFile, _GetDie(ELF_GetScopeListHandle(m_pFile, h, c.List, i))));
      }
      // A member declaration may be listed as its out-of-line definition, when the walk met the
      // definition first.
      for (U64 offset : expected) {
        ELF_DIE def = _GetDefinitionDie(m_pFile, DieAt(offset));
        EXPECT_TRUE(found.count(offset) || (def && found.count(_GetDieOffset(m_pFile, def))))
            << std::hex << offset;
      }
      EXPECT_EQ(found.size(), expected.size()) << std::hex << scope;
    }
  }
  // Parent links and tags of every DIE below a unit's root.
  for (const auto& [offset, d] : m_Dies) {
    ELF_DIE die = DieAt(offset);
    ASSERT_NE(die, nullptr);
    if (d.Parent) {
      EXPECT_EQ(_GetDieOffset(m_pFile, _GetParentDie(m_pFile, die)), d.Parent) << std::hex << offset;
    }
    if (d.Tag == "DW_TAG_variable") {
      EXPECT_EQ(_GetDieType(m_pFile, die), ELF_TAG_VARIABLE);
    }
  }
}

TEST_P(DwarfFixture, LineRowsMatchReadelf) {
  auto expected = readelf::ParseLines(GetParam());
  ASSERT_FALSE(expected.empty());
  ASSERT_EQ(ELF_GetLineRowCount(m_pFile), expected.size());
  for (U32 i = 0; i < expected.size(); i++) {
    const ELF_LINE_ROW* pRow = ELF_GetLineRow(m_pFile, i);
    ASSERT_NE(pRow, nullptr);
    SCOPED_TRACE(i);
    EXPECT_EQ(pRow->addr, expected[i].Addr);
    EXPECT_EQ(pRow->endSequence != 0, expected[i].Line < 0);
    if (expected[i].Line >= 0) {
      EXPECT_EQ((int)pRow->line, expected[i].Line);
      EXPECT_EQ(readelf::BaseName(ELF_GetLineRowFileName(m_pFile, i)), expected[i].File);
    }
  }
  EXPECT_EQ(ELF_GetLineRow(m_pFile, (U32)expected.size()), nullptr);
}

TEST_P(DwarfFixture, SourceFilesHoldEachNameOnceWithItsUnits) {
  std::set<std::string> names;
  for (U32 i = 0; i < ELF_GetSrcFileCount(m_pFile); i++) {
    std::string name = ELF_GetSrcFileName(m_pFile, i);
    EXPECT_TRUE(names.insert(name).second) << name;
    EXPECT_GE(ELF_GetSrcFileCUCount(m_pFile, name.c_str()), 1u);
  }
  std::set<std::string> bases;
  for (const auto& n : names)
    bases.insert(readelf::BaseName(n));
  for (const auto& u : m_Units)
    EXPECT_TRUE(bases.count(u.Dies.front().Name())) << u.Dies.front().Name();
}

TEST_P(DwarfFixture, RangesAndLocationListsMatchReadelf) {
  int numLists = 0;
  for (const auto& [offset, d] : m_Dies) {
    SCOPED_TRACE(d.Name() + " at " + std::to_string(offset));
    ELF_DIE die = DieAt(offset);
    if (d.Has("DW_AT_low_pc") && d.Has("DW_AT_high_pc") && d.Tag == "DW_TAG_subprogram") {
      DWA_RANGE* paRanges = nullptr;
      U32 n = 0;
      ASSERT_EQ(_GetDieRanges(m_pFile, die, &paRanges, &n), 0);
      ASSERT_EQ(n, 1u);
      U64 lo = d.Number("DW_AT_low_pc"), high = d.Number("DW_AT_high_pc");
      EXPECT_EQ(paRanges[0].Lo, lo);
      EXPECT_EQ(paRanges[0].Hi, high > lo ? high : lo + high);
      free(paRanges);
    }
    if (d.Has("DW_AT_ranges")) {
      // Empty ranges cover no address and are not reported.
      auto expected = readelf::ParseListAt(GetParam(), "ranges", d.Number("DW_AT_ranges"));
      expected.erase(std::remove_if(expected.begin(), expected.end(),
                                    [](const readelf::AddrRange& r) { return r.Hi <= r.Lo; }),
                     expected.end());
      DWA_RANGE* paRanges = nullptr;
      U32 n = 0;
      ASSERT_EQ(_GetDieRanges(m_pFile, die, &paRanges, &n), 0);
      ASSERT_EQ(n, expected.size());
      for (U32 i = 0; i < n; i++) {
        EXPECT_EQ(paRanges[i].Lo, expected[i].Lo);
        EXPECT_EQ(paRanges[i].Hi, expected[i].Hi);
      }
      free(paRanges);
      numLists++;
    }
    auto loc = d.Attrs.find("DW_AT_location");
    if (loc != d.Attrs.end() && loc->second.find("(location list)") != std::string::npos) {
      auto expected = readelf::ParseListAt(GetParam(), "loc", d.Number("DW_AT_location"));
      DWA_LOC_ENTRY* paEntries = nullptr;
      U32 n = 0;
      ASSERT_EQ(_GetDieLocations(m_pFile, die, DW_AT_location, &paEntries, &n), 0);
      ASSERT_EQ(n, expected.size());
      for (U32 i = 0; i < n; i++) {
        EXPECT_EQ(paEntries[i].Lo, expected[i].Lo);
        EXPECT_EQ(paEntries[i].Hi, expected[i].Hi);
        EXPECT_FALSE(paEntries[i].AllAddresses);
        EXPECT_GE(paEntries[i].NumOps, 1u);
      }
      DWA_FreeLocations(paEntries, n);
      numLists++;
    } else if (loc != d.Attrs.end() && loc->second.find("DW_OP_addr: ") != std::string::npos) {
      DWA_LOC_ENTRY* paEntries = nullptr;
      U32 n = 0;
      ASSERT_EQ(_GetDieLocations(m_pFile, die, DW_AT_location, &paEntries, &n), 0);
      ASSERT_EQ(n, 1u);
      EXPECT_TRUE(paEntries[0].AllAddresses);
      ASSERT_EQ(paEntries[0].NumOps, 1u);
      EXPECT_EQ(paEntries[0].paOps[0].Op, DW_OP_addr);
      std::string text = loc->second.substr(loc->second.find("DW_OP_addr: ") + 12);
      EXPECT_EQ(paEntries[0].paOps[0].Operand1, std::stoull(text, nullptr, 16));
      DWA_FreeLocations(paEntries, n);
    }
  }
  if (std::string(GetParam()).find("O2") != std::string::npos) {
    EXPECT_GT(numLists, 0) << "the optimised fixtures have range and location lists";
  }
}

TEST_P(DwarfFixture, FrameCountsMatchReadelf) {
  auto expected = readelf::ParseFrames(GetParam());
  EXPECT_EQ(m_pFile->dwarf.cieCount, expected.Cies);
  EXPECT_EQ(m_pFile->dwarf.fdeCount, expected.Fdes);
  EXPECT_EQ(m_pFile->dwarf.returnAddrReg, expected.ReturnColumn);
  // At a function's first instruction the CFA is the stack pointer (r13) itself.
  int main = ELF_GetSymIdxByName("main");
  ASSERT_GE(main, 0);
  DWA_REG_RULE aRules[DWA_NUM_FRAME_REGS], cfa;
  ASSERT_EQ(ELF_GetFrameRules(m_pFile, ELF_GetSym(m_pFile, (U32)main)->st_value & ~1u, aRules, &cfa), 0);
  EXPECT_EQ(cfa.Kind, DWA_RULE_CFA);
  EXPECT_EQ(cfa.Reg, 13u);
  EXPECT_EQ(cfa.Offset, 0);
}

TEST_P(DwarfFixture, OpenLogsTheTimingLinesInOrder) {
  const char* const kPrefixes[] = {
      "25 parsed type unit tree in ms:   ",
      "25 parsed debug info tree in ms:  ",
      "25 parsed source file info in ms: ",
      "25 parsed source line info in ms: ",
      "25 parsed call frame info in ms:  ",
      "25 File Size: ",
      "25 Dwarf Symbol Count: ",
      "25 ELF Symbol Count: ",
      "25 Data Encoding: ",
      "25 Source Language: ",
      "25 total init time: ",
      "25 Dwarf Version: ",
  };
  ASSERT_EQ(g_LogLines.size(), COUNTOF(kPrefixes)) << (g_LogLines.empty() ? "" : g_LogLines[0]);
  for (size_t i = 0; i < COUNTOF(kPrefixes); i++) {
    EXPECT_EQ(g_LogLines[i].rfind(kPrefixes[i], 0), 0u) << g_LogLines[i];
  }
  bool cpp = std::string(GetParam()).rfind("cpp", 0) == 0;
  EXPECT_EQ(g_LogLines[9], cpp ? "25 Source Language: C++" : "25 Source Language: C");
  EXPECT_EQ(g_LogLines[5], "25 File Size: " + std::to_string(m_pFile->fileSize));
  std::string order = readelf::ParseByteOrder(GetParam());
  EXPECT_EQ(g_LogLines[8], order == "little" ? "25 Data Encoding: Little Endian"
                           : order == "be8"  ? "25 Data Encoding: ARM BE8 (Big Endian byte invariant)"
                                             : "25 Data Encoding: ARM BE32 (Big Endian word invariant)");
}

INSTANTIATE_TEST_SUITE_P(Fixtures, DwarfFixture, ::testing::ValuesIn(kFixtures));

// Type texts of the C fixture's globals, as the declaration builder promises them.
class DwarfTypeText : public ::testing::TestWithParam<const char*> {};

TEST_P(DwarfTypeText, GlobalsReadAsTheirDeclarations) {
  struct {
    const char* sVar;
    const char* sText;
  } cases[] = {
      {"g_origin", "struct point"}, {"g_matrix", "int[3,4]"},           {"g_ticks", "volatile uint"},
      {"g_name", "const char*"},    {"g_color", "enum color"},          {"g_flags", "struct flags"},
      {"g_word", "union word"},     {"g_foo", "struct foo_t"},          {"g_myint", "int"},
      {"g_fn", "int(char, long)*"}, {"g_vectors", "const void()*[16]"}, {"g_handle_ptr", "handle_t*"},
  };
  OpenFixture fixture(GetParam());
  ELF_FILE* pFile = fixture.pFile;
  ASSERT_NE(pFile, nullptr);
  for (const auto& c : cases) {
    ELF_DIE found = nullptr;
    for (U32 i = 0; i < ELF_GetDieListCount(pFile, ELF_LIST_GLOBAL_VARS); i++) {
      ELF_DIE die = _GetDie(ELF_GetDieListHandle(pFile, ELF_LIST_GLOBAL_VARS, i));
      if (_GetDieName(pFile, die) && strcmp(_GetDieName(pFile, die), c.sVar) == 0)
        found = die;
    }
    ASSERT_NE(found, nullptr) << c.sVar;
    const char* sText = _GetDieTypeStr(pFile, found);
    EXPECT_STREQ(sText ? sText : "(none)", c.sText) << c.sVar;
    EXPECT_EQ(readelf::BaseName(_GetDieDeclFileName(pFile, found) ? _GetDieDeclFileName(pFile, found) : ""),
              strcmp(c.sVar, "g_vectors") == 0 ? "startup.c" : "prog.c")
        << c.sVar;
  }
}

INSTANTIATE_TEST_SUITE_P(CFixtures, DwarfTypeText,
                         ::testing::Values("c_O0", "c_O0_dw5", "c_O2", "c_O2_dw4", "c_be8", "c_be32"));

TEST(DwarfBitField, MemberOffsetsComeFromDataBitOffset) {
  OpenFixture fixture("c_O0");
  ELF_FILE* pFile = fixture.pFile;
  ASSERT_NE(pFile, nullptr);
  int checked = 0;
  for (const auto& u : readelf::ParseInfo("c_O0")) {
    for (const auto& d : u.Dies) {
      if (d.Tag != "DW_TAG_member" || !d.Has("DW_AT_data_bit_offset"))
        continue;
      ELF_DIE die = _GetDieAtOffset(pFile, d.Offset, true);
      bool found = false;
      EXPECT_EQ(_GetAttributeAsU64(pFile, die, DW_AT_data_bit_offset, &found),
                d.Number("DW_AT_data_bit_offset"));
      EXPECT_TRUE(found);
      EXPECT_EQ(_GetAttributeAsU64(pFile, die, DW_AT_bit_size, &found), d.Number("DW_AT_bit_size"));
      EXPECT_STREQ(_GetDieTypeStr(pFile, die), "uint");
      checked++;
    }
  }
  EXPECT_EQ(checked, 3) << "ready, mode and count";
}

TEST(DwarfBaseTypeNames, NormalisedAsTheTableSays) {
  struct {
    const char* sIn;
    const char* sOut;
  } cases[] = {
      {"unsigned char", "uchar"},
      {"short unsigned int", "ushort"},
      {"unsigned int", "uint"},
      {"long unsigned int", "ulong"},
      {"long long unsigned int", "long long uint"},
      {"signed char", "char"},
      {"short int", "short"},
      {"long int", "long"},
      {"long long int", "long long"},
      {"int", "int"},
      {"char", "char"},
      {"_Bool", "_Bool"},
  };
  for (const auto& c : cases) {
    char acName[512];
    snprintf(acName, sizeof(acName), "%s", c.sIn);
    ELF_NormaliseBaseTypeName(acName, sizeof(acName));
    EXPECT_STREQ(acName, c.sOut) << c.sIn;
  }
}

TEST(DwarfCpp, ClassesNamespaceAndLanguage) {
  OpenFixture fixture("cpp_O0");
  ELF_FILE* pFile = fixture.pFile;
  ASSERT_NE(pFile, nullptr);
  EXPECT_EQ(pFile->dwarf.srcLanguage, ELF_SRC_LANG_CPP) << "language code 33 counts as C++";
  ASSERT_EQ(ELF_GetDieListCount(pFile, ELF_LIST_NAMESPACES), 1u);
  EXPECT_STREQ(_GetDieName(pFile, _GetDie(ELF_GetDieListHandle(pFile, ELF_LIST_NAMESPACES, 0))), "shapes");
  ELF_DIE mainDie = _GetDie(pFile->dwarf.mainSym);
  ASSERT_NE(mainDie, nullptr);
  EXPECT_STREQ(_GetDieName(pFile, mainDie), "main");
  // Measure(const shapes::Shape &s)
  for (U32 i = 0; i < ELF_GetDieListCount(pFile, ELF_LIST_FUNCTIONS); i++) {
    ELF_DIE f = _GetDie(ELF_GetDieListHandle(pFile, ELF_LIST_FUNCTIONS, i));
    if (strcmp(_GetDieName(pFile, f), "Measure") == 0) {
      EXPECT_STREQ(_GetDieTypeStr(pFile, f), "static int(const class Shape&)");
    }
    // Out-of-line method definitions find their class through the declaration.
    if (strcmp(_GetDieName(pFile, f), "Area") == 0) {
      ELF_DIE type = _GetDieParentType(pFile, f);
      ASSERT_NE(type, nullptr);
      EXPECT_TRUE(strcmp(_GetDieName(pFile, type), "Rect") == 0 ||
                  strcmp(_GetDieName(pFile, type), "Shape") == 0);
      EXPECT_NE(_GetDieParentNamespaceOff(pFile, type), 0u);
    }
  }
}

}  // namespace

namespace {

// Type units, in .debug_info (DWARF 5) and in .debug_types (DWARF 4): every unit counts, their
// classes are in the type list, and a variable whose type is named by signature reads as that type.
class DwarfTypeUnits : public ::testing::TestWithParam<const char*> {};

TEST_P(DwarfTypeUnits, TypesComeFromTheirUnitsBySignature) {
  int numUnits = 0;
  for (const auto& line : readelf::ReadLines(readelf::FixturePath(std::string(GetParam()) + ".info.txt"))) {
    if (line.find("Compilation Unit @ offset") != std::string::npos)
      numUnits++;
  }
  OpenFixture fixture(GetParam());
  ELF_FILE* pFile = fixture.pFile;
  ASSERT_NE(pFile, nullptr);
  EXPECT_EQ(pFile->dwarf.cuCount, (U32)numUnits);
  EXPECT_EQ(ELF_GetDieListCount(pFile, ELF_LIST_COMP_UNITS), 2u);
  std::set<std::string> typeNames;
  for (U32 i = 0; i < ELF_GetDieListCount(pFile, ELF_LIST_TYPES); i++) {
    const char* sName = _GetDieName(pFile, _GetDie(ELF_GetDieListHandle(pFile, ELF_LIST_TYPES, i)));
    if (sName)
      typeNames.insert(sName);
  }
  EXPECT_TRUE(typeNames.count("Shape"));
  EXPECT_TRUE(typeNames.count("Rect"));
  // main's local "shapes::Rect r".
  ELF_SYM_HANDLE hMain = pFile->dwarf.mainSym;
  ASSERT_NE(hMain, 0u);
  bool found = false;
  for (U32 i = 0; i < ELF_GetScopeListCount(pFile, hMain, ELF_SCOPE_LOCAL_VARS); i++) {
    ELF_DIE die = _GetDie(ELF_GetScopeListHandle(pFile, hMain, ELF_SCOPE_LOCAL_VARS, i));
    if (strcmp(_GetDieName(pFile, die), "r") != 0)
      continue;
    found = true;
    EXPECT_STREQ(_GetDieTypeStr(pFile, die), "class Rect");
    ELF_DIE type = _GetDataTypeDie(pFile, die, false);
    ASSERT_NE(type, nullptr);
    EXPECT_EQ(_GetDieType(pFile, type), ELF_TAG_CLASS);
    EXPECT_GE(ELF_GetScopeListCount(pFile, _GetDwarfSymHandle(pFile, type), ELF_SCOPE_MEMBERS), 2u);
  }
  EXPECT_TRUE(found);
}

INSTANTIATE_TEST_SUITE_P(Fixtures, DwarfTypeUnits, ::testing::Values("cpp_tu5", "cpp_tu4"));

}  // namespace
