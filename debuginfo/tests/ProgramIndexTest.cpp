// The program index against the committed fixtures: address to line and line to addresses against
// the recorded readelf line tables, functions against the recorded symbol tables, and address to
// line, locals, globals and members against gdb-multiarch's answers recorded for the same files.
#include <gtest/gtest.h>

#include <dwarf.h>

#include <QFileInfo>
#include <atomic>
#include <cstdio>
#include <map>
#include <optional>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "GdbRecord.h"
#include "ReadelfRecord.h"
#include "debuginfo/ProgramIndex.h"
#include "debuginfo/SymbolQueries.h"

namespace {

const char* const kFixtures[] = {"c_O0",  "c_O0_dw5", "c_O2",    "c_O2_dw4", "cpp_O0",
                                 "c_be8", "c_be32",   "cpp_tu4", "cpp_tu5",  "gc_O0"};

typedef std::pair<std::string, int> FileLine;

std::string BaseNameOf(U32 FileId) {
  return QFileInfo(ELF_GetFilePath(FileId)).fileName().toStdString();
}

std::set<FileLine> LinesAt(U32 Addr) {
  std::set<FileLine> lines;
  for (const CSrcLoc& loc : ELF_GetSrcLocs(Addr))
    lines.insert({BaseNameOf(loc.file), (int)loc.line});
  return lines;
}

// The line rows of a recorded readelf table, end-of-sequence rows included (line -1). Unlike the
// shared parser this also reads the address "0" that readelf prints without a prefix.
std::vector<readelf::LineRow> RecordedRows(const std::string& sFixture) {
  std::vector<readelf::LineRow> rows;
  std::regex re(R"(^(\S+)\s+(\d+|-)\s+(0x[0-9a-f]+|0)(\s.*)?$)");
  for (const std::string& line : readelf::ReadLines(readelf::FixturePath(sFixture + ".lines.txt"))) {
    std::smatch m;
    if (std::regex_match(line, m, re) && m[1] != "File")
      rows.push_back({m[1], m[2] == "-" ? -1 : std::stoi(m[2]), (uint32_t)std::stoul(m[3], nullptr, 16)});
  }
  return rows;
}

// Rows of sequences the linker kept: readelf shows the dropped ones starting at address 0.
std::vector<readelf::LineRow> KeptRows(const std::string& sFixture) {
  std::vector<readelf::LineRow> kept;
  bool keep = true, start = true;
  for (const auto& row : RecordedRows(sFixture)) {
    if (start)
      keep = row.Addr != 0;
    start = row.Line < 0;
    if (keep)
      kept.push_back(row);
  }
  return kept;
}

class ProgramIndexFixture : public ::testing::TestWithParam<const char*> {
 protected:
  void SetUp() override {
    ASSERT_EQ(ELF_Init(readelf::FixturePath(std::string(GetParam()) + ".elf").c_str()), 0);
  }
  void TearDown() override { ELF_Deinit(); }
};

TEST_P(ProgramIndexFixture, AddressToLineMatchesReadelf) {
  std::map<uint32_t, std::set<FileLine>> expected;
  std::set<uint32_t> endsOnly;
  for (const auto& row : KeptRows(GetParam())) {
    if (row.Line < 0)
      endsOnly.insert(row.Addr);
    else
      expected[row.Addr].insert({row.File, row.Line});
  }
  ASSERT_FALSE(expected.empty());
  for (const auto& [addr, lines] : expected) {
    SCOPED_TRACE(addr);
    EXPECT_EQ(LinesAt(addr), lines);
    EXPECT_TRUE(ELF_GetExactSrcLoc(addr).IsValid());
  }
  // End-of-sequence rows close a sequence; the address behind it is no line of that sequence.
  for (uint32_t addr : endsOnly) {
    if (!expected.count(addr)) {
      EXPECT_FALSE(ELF_GetExactSrcLoc(addr).IsValid()) << addr;
    }
  }
}

TEST_P(ProgramIndexFixture, LineToAddressesMatchesReadelf) {
  std::map<FileLine, std::set<uint32_t>> expected;
  for (const auto& row : KeptRows(GetParam())) {
    if (row.Line >= 0)
      expected[{row.File, row.Line}].insert(row.Addr);
  }
  for (const auto& [fileLine, addrs] : expected) {
    std::string text = fileLine.first + ":" + std::to_string(fileLine.second);
    SCOPED_TRACE(text);
    CSrcLoc loc;
    ASSERT_TRUE(ELF_ParseSrcLoc(QString::fromStdString(text), &loc));
    ELF_ADDR_LIST got = ELF_GetAddrs(loc);
    EXPECT_EQ(std::set<uint32_t>(got.begin(), got.end()), addrs);
    EXPECT_TRUE(std::is_sorted(got.begin(), got.end()));
    EXPECT_EQ(ELF_GetFirstAddr(loc), *addrs.begin());
  }
}

TEST_P(ProgramIndexFixture, FileListHoldsEveryFileOfTheLineTables) {
  std::set<std::string> expected, got;
  for (const auto& row : KeptRows(GetParam()))
    expected.insert(row.File);
  for (U32 id : ELF_GetFileIds())
    got.insert(BaseNameOf(id));
  for (const auto& name : expected)
    EXPECT_TRUE(got.count(name)) << name;
}

// Every address inside a function of the symbol table is in that function; inline copies do not
// change the outermost answer. C++ symbols carry mangled names, so the range decides.
TEST_P(ProgramIndexFixture, FunctionAtAddressMatchesSymbolTable) {
  int checked = 0;
  for (const auto& sym : readelf::ParseSymbols(GetParam())) {
    if (sym.Type != "FUNC" || sym.Size == 0)
      continue;
    uint32_t start = sym.Value & ~1u;
    for (uint32_t a = start; a < start + sym.Size; a += 2) {
      ELF_SYM_HANDLE h = ELF_GetFuncAt(a, true);
      ASSERT_NE(h, 0u) << sym.Name << " +" << a - start;
      CAddrRange r = ELF_GetFuncRange(h);
      EXPECT_EQ(r.start, start) << sym.Name << " +" << a - start;
      EXPECT_EQ(r.size, sym.Size) << sym.Name;
      if (sym.Name.rfind("_Z", 0) != 0) {
        EXPECT_EQ(ELF_GetSymName(h).toStdString(), sym.Name);
      }
      checked++;
    }
  }
  EXPECT_GT(checked, 0);
}

INSTANTIATE_TEST_SUITE_P(Fixtures, ProgramIndexFixture, ::testing::ValuesIn(kFixtures));

/*********************************************************************
 * gdb-multiarch's answers, recorded beside the fixture
 */

// gdb's "info line *ADDR" for each address: file name and line, or an empty name for "no line".
std::optional<std::vector<FileLine>> GdbInfoLine(const std::string& sFixture,
                                                 const std::vector<uint32_t>& Addrs) {
  std::vector<std::string> commands;
  char ac[64];
  for (uint32_t a : Addrs) {
    snprintf(ac, sizeof(ac), "info line *0x%x", a);
    commands.push_back(ac);
  }
  std::optional<std::string> text = gdbrecord::Ask(sFixture, "lines", commands);
  if (!text)
    return std::nullopt;
  std::vector<FileLine> answers;
  std::regex reLine(R"re(^Line (\d+) of "([^"]+)".*)re");
  for (const std::string& line : gdbrecord::Lines(*text)) {
    std::smatch m;
    if (std::regex_search(line, m, reLine))
      answers.push_back({QFileInfo(QString::fromStdString(m[2])).fileName().toStdString(), std::stoi(m[1])});
    else if (line.rfind("No line number", 0) == 0)
      answers.push_back({"", 0});
  }
  return answers;
}

TEST_P(ProgramIndexFixture, AddressToLineMatchesGdb) {
  // Each row's address and the halfword behind it, as long as a function of the symbol table holds
  // it: padding between functions belongs to no line here, where gdb gives it the line before.
  std::vector<std::pair<uint32_t, uint32_t>> funcs;
  for (const auto& sym : readelf::ParseSymbols(GetParam())) {
    if (sym.Type == "FUNC" && sym.Size)
      funcs.push_back({sym.Value & ~1u, (sym.Value & ~1u) + sym.Size});
  }
  auto inFunction = [&](uint32_t a) {
    for (const auto& [lo, hi] : funcs) {
      if (a >= lo && a < hi)
        return true;
    }
    return false;
  };
  std::set<uint32_t> probe;
  for (const auto& row : KeptRows(GetParam())) {
    for (uint32_t a : {row.Addr, row.Addr + 2}) {
      if (row.Line >= 0 && inFunction(a))
        probe.insert(a);
    }
  }
  std::vector<uint32_t> addrs(probe.begin(), probe.end());
  auto recorded = GdbInfoLine(GetParam(), addrs);
  if (!recorded)
    GTEST_SKIP() << "no recorded answers and no gdb-multiarch";
  const std::vector<FileLine>& answers = *recorded;
  ASSERT_EQ(answers.size(), addrs.size());
  for (size_t i = 0; i < addrs.size(); i++) {
    SCOPED_TRACE(addrs[i]);
    std::set<FileLine> ours = LinesAt(addrs[i]);
    if (answers[i].first.empty())
      EXPECT_TRUE(ours.empty());
    else
      EXPECT_TRUE(ours.count(answers[i])) << answers[i].first << ":" << answers[i].second;
  }
}

/*********************************************************************
 * Code the linker dropped, location texts
 */

// gc_O0 is linked with --gc-sections: unused_square and unused_twice stay in DWARF at address 0.
TEST(ProgramIndex, FunctionsTheLinkerDroppedLeaveNoCodeBehind) {
  ASSERT_EQ(ELF_Init(readelf::FixturePath("gc_O0.elf").c_str()), 0);
  std::set<FileLine> kept, all;
  for (const auto& row : KeptRows("gc_O0"))
    kept.insert({row.File, row.Line});
  for (const auto& row : RecordedRows("gc_O0")) {
    if (row.Line >= 0)
      all.insert({row.File, row.Line});
  }
  ASSERT_GT(all.size(), kept.size());
  for (const auto& [file, line] : all) {
    CSrcLoc loc;
    ASSERT_TRUE(ELF_ParseSrcLoc(QString::fromStdString(file + ":" + std::to_string(line)), &loc));
    EXPECT_EQ(ELF_GetAddrs(loc).empty(), !kept.count({file, line})) << file << ":" << line;
  }
  EXPECT_EQ(ELF_GetFuncAt(0, true), 0u);
  EXPECT_EQ(ELF_GetFuncAt(8, false), 0u);
  EXPECT_TRUE(ELF_GetSrcLocs(0).empty());
  std::set<std::string> droppedNames;
  for (const auto& unit : readelf::ParseInfo("gc_O0")) {
    for (const auto& d : unit.Dies) {
      if (d.Tag == "DW_TAG_subprogram" && d.Has("DW_AT_low_pc") && d.Number("DW_AT_low_pc") == 0)
        droppedNames.insert(d.Name());
    }
  }
  ASSERT_TRUE(droppedNames.count("unused_twice"));
  for (ELF_SYM_HANDLE h : ELF_GetAllFunctions())
    EXPECT_FALSE(droppedNames.count(ELF_GetSymName(h).toStdString())) << ELF_GetSymName(h).toStdString();
  EXPECT_EQ(ELF_GetIndexCounts().droppedFunctions, droppedNames.size());
  ELF_Deinit();
}

TEST(ProgramIndex, LocationTextsHaveOneNormalForm) {
  ASSERT_EQ(ELF_Init(readelf::FixturePath("c_O0.elf").c_str()), 0);
  std::string fullPath = ELF_GetFilePath(ELF_GetFileId("prog.c")).toStdString();
  const struct {
    std::string text;
    const char* normal;  // "" when the text is no location
  } cases[] = {
      {"prog.c:45", "prog.c:45"},
      {"  PROG.C : 45 ", "prog.c:45"},
      {"\"prog.c:45\"", "prog.c:45"},
      {"prog.c:45:7", "prog.c:45:7"},
      {fullPath + ":60", "prog.c:60"},
      {"startup.c:8", "startup.c:8"},
      {"prog.c:0", ""},
      {"prog.c:-3", ""},
      {"prog.c:x", ""},
      {"prog.c", ""},
      {"other.c:45", ""},
      {"", ""},
      {"main", ""},
  };
  for (const auto& c : cases)
    EXPECT_EQ(ELF_NormaliseSrcLocText(QString::fromStdString(c.text)).toStdString(), c.normal) << c.text;
  ELF_Deinit();
}

TEST(ProgramIndex, QueriesBeforeLoadAndAfterAFailedLoadAreEmpty) {
  ELF_Deinit();
  EXPECT_FALSE(ELF_IsLoaded());
  EXPECT_TRUE(ELF_GetSrcLocs(0x8000114).empty());
  EXPECT_EQ(ELF_GetFuncAt(0x8000114, false), 0u);
  EXPECT_EQ(ELF_GetPrevAddr(0x8000114), 0xFFFFFFFFu);
  EXPECT_EQ(ELF_Init("/nonexistent/file.elf"), -1);
  EXPECT_FALSE(ELF_IsLoaded());
  EXPECT_TRUE(ELF_GetFileIds().empty());
  EXPECT_EQ(ELF_GetFileId("prog.c"), 0xFFFFFFFFu);
}

}  // namespace

namespace {

/*********************************************************************
 * Global symbols by name, against gdb-multiarch
 */

struct GdbGlobal {
  std::string name;
  long long addr = -1;  // "static storage at address", -1 for anything else
  long long size = -1;
  std::string type;
};

// Runs "info address", "print sizeof" and "whatis" for each name; answers in order of the names.
std::optional<std::vector<GdbGlobal>> GdbGlobals(const std::string& sFixture,
                                                 const std::vector<std::string>& Names,
                                                 const std::string& sKind = "globals") {
  std::vector<std::string> commands;
  for (const auto& n : Names) {
    for (const std::string& c :
         {"echo @@" + n + "\\n", "info address " + n, "print sizeof(" + n + ")", "whatis " + n})
      commands.push_back(c);
  }
  std::optional<std::string> text = gdbrecord::Ask(sFixture, sKind, commands);
  if (!text)
    return std::nullopt;
  std::vector<GdbGlobal> out;
  std::regex reAddr(R"re(is static storage at address 0x([0-9a-f]+)\.)re");
  std::regex reSize(R"(^\$\d+ = (\d+))");
  std::regex reType(R"(^type = (.*)$)");
  for (const std::string& line : gdbrecord::Lines(*text)) {
    std::smatch m;
    if (line.rfind("@@", 0) == 0)
      out.push_back(GdbGlobal{line.substr(2), -1, -1, ""});
    else if (out.empty())
      continue;
    else if (std::regex_search(line, m, reAddr))
      out.back().addr = std::stoll(m[1], nullptr, 16);
    else if (std::regex_search(line, m, reSize))
      out.back().size = std::stoll(m[1]);
    else if (std::regex_search(line, m, reType))
      out.back().type = m[1];
  }
  return out;
}

// The name of a type as gdb's "whatis" writes it, for types that a name alone describes; empty for
// the others (pointers, arrays, qualifiers), which the comparison leaves out.
std::string NamedTypeText(ELF_SYM_HANDLE hType) {
  std::string name = ELF_GetSymName(hType).toStdString();
  ELF_DIE die = _GetDie(hType);
  ELF_FILE* pFile = ELF_GetIndexedFile();
  if (!die || name.empty())
    return "";
  switch (_GetDieType(pFile, die)) {
    case ELF_TAG_STRUCTURE:
      return "struct " + name;
    case ELF_TAG_UNION:
      return "union " + name;
    case ELF_TAG_ENUMERATION:
      return "enum " + name;
    case ELF_TAG_TYPEDEF:
    case ELF_TAG_CLASS:
      return name;
    default:
      return "";
  }
}

TEST_P(ProgramIndexFixture, GlobalsByNameMatchGdb) {
  // The variables with a location at unit level, as readelf records them, with their type's DIE.
  std::map<std::string, std::pair<uint64_t, uint64_t>> vars;
  for (const auto& unit : readelf::ParseInfo(GetParam())) {
    for (const auto& d : unit.Dies) {
      if (d.Tag == "DW_TAG_variable" && d.Level == 1 && d.Has("DW_AT_location") && !d.Name().empty()) {
        bool local = d.Has("DW_AT_type") && d.Attrs.at("DW_AT_type").rfind("<0x", 0) == 0;
        vars[d.Name()] = {d.Offset, local ? d.Number("DW_AT_type") : 0};
      }
    }
  }
  ASSERT_FALSE(vars.empty());
  std::vector<std::string> list;
  for (const auto& [name, offsets] : vars)
    list.push_back(name);
  auto recorded = GdbGlobals(GetParam(), list);
  if (!recorded)
    GTEST_SKIP() << "no recorded answers and no gdb-multiarch";
  const std::vector<GdbGlobal>& answers = *recorded;
  ASSERT_EQ(answers.size(), list.size());
  ELF_FILE* pFile = ELF_GetIndexedFile();
  for (const auto& g : answers) {
    SCOPED_TRACE(g.name);
    ELF_SYM_HANDLE h = ELF_FindSym(QString::fromStdString(g.name), true, false, false);
    ASSERT_NE(h, 0u);
    ASSERT_FALSE(_IsElfSymbolHandle(h));
    EXPECT_EQ(ELF_GetSymName(h).toStdString(), g.name);
    EXPECT_EQ(_GetDieOffset(pFile, _GetDie(h)), vars[g.name].first);
    ASSERT_NE(g.addr, -1);
    EXPECT_EQ((long long)ELF_GetSymAddr(h), g.addr);
    EXPECT_EQ(ELF_GetSymLoc(h, 0).kind, ELF_LOC_ADDR);
    EXPECT_EQ((long long)ELF_GetSymSize(h), g.size);
    EXPECT_FALSE(ELF_GetSymDataTypeName(h).isEmpty());
    ELF_SYM_HANDLE hType = ELF_GetSymDataType(h);
    ASSERT_NE(hType, 0u);
    if (vars[g.name].second) {
      EXPECT_EQ(_GetDieOffset(pFile, _GetDie(hType)), vars[g.name].second);
    }
    std::string named = NamedTypeText(hType);
    if (!named.empty()) {
      EXPECT_EQ(named, g.type);
    }
  }
}

}  // namespace

namespace {

// Scoped names in the C++ fixtures: each name is searched, and what it finds is checked against the
// recorded DIEs (tag, name, enclosing scope) or, for functions, against the recorded symbol table.
TEST(ProgramIndex, ScopedNamesFindTheirScopeOnly) {
  for (const char* sFixture : {"cpp_O0", "cpp_tu4", "cpp_tu5"}) {
    SCOPED_TRACE(sFixture);
    ASSERT_EQ(ELF_Init(readelf::FixturePath(std::string(sFixture) + ".elf").c_str()), 0);
    ELF_FILE* pFile = ELF_GetIndexedFile();
    // Readelf's DIEs by offset, to name each DIE's scope.
    std::map<uint64_t, readelf::Die> dies;
    for (const auto& unit : readelf::ParseInfo(sFixture)) {
      for (const auto& d : unit.Dies)
        dies[d.Offset] = d;
    }
    // A definition outside its namespace names its declaration, which sits in the namespace.
    auto scopeOf = [&](uint64_t Offset) {
      const readelf::Die* p = &dies[Offset];
      if (p->Has("DW_AT_specification") && dies.count(p->Number("DW_AT_specification")))
        p = &dies[p->Number("DW_AT_specification")];
      const readelf::Die& d = *p;
      return d.Parent && dies.count(d.Parent) ? dies[d.Parent].Name() : std::string();
    };
    const struct {
      const char* name;
      bool types;
      const char* tag;    // of the hit, "" for no hit
      const char* scope;  // name of the hit's parent DIE, "" for the unit
    } cases[] = {
        {"shapes::Rect", true, "DW_TAG_class_type", "shapes"},
        {"Rect", true, "DW_TAG_class_type", "shapes"},
        {"shapes::Shape", true, "DW_TAG_class_type", "shapes"},
        {"other::Rect", true, "", ""},
        {"shapes::g_total", false, "", ""},
        {"g_total", false, "DW_TAG_variable", ""},
    };
    for (const auto& c : cases) {
      SCOPED_TRACE(c.name);
      ELF_SYM_HANDLE h = ELF_FindSym(c.name, !c.types, c.types, false);
      if (!*c.tag) {
        EXPECT_EQ(h, 0u);
        continue;
      }
      ASSERT_NE(h, 0u);
      uint64_t offset = _GetDieOffset(pFile, _GetDie(h));
      // A class in a .debug_types unit has no DIE in the .debug_info record to compare with.
      bool inInfo = _GetDieID(pFile, _GetDie(h)) < ELF_TYPES_ID_BASE;
      ASSERT_TRUE(!inInfo || dies.count(offset));
      if (inInfo) {
        EXPECT_EQ(dies[offset].Tag, c.tag);
        if (*c.scope) {
          EXPECT_EQ(scopeOf(offset), c.scope);
        } else {
          EXPECT_EQ(dies[offset].Level, 1);  // directly in its unit
        }
      }
      EXPECT_EQ(ELF_GetSymName(h).toStdString(),
                std::string(c.name).substr(std::string(c.name).rfind(':') + 1));
    }
    ELF_SYM_LIST spaces = ELF_FindNamespacesByName("shapes");
    ASSERT_FALSE(spaces.empty());
    EXPECT_EQ(ELF_GetSymName(spaces.front()).toStdString(), "shapes");
    // A method by its qualified name covers the code of its mangled symbol.
    for (const auto& sym : readelf::ParseSymbols(sFixture)) {
      if (sym.Name != "_ZNK6shapes4Rect4AreaEv")
        continue;
      ELF_SYM_HANDLE h = ELF_FindSym("shapes::Rect::Area", true, false, false);
      ASSERT_NE(h, 0u);
      CAddrRange r = ELF_GetFuncRange(h);
      EXPECT_EQ(r.start, sym.Value & ~1u);
      EXPECT_EQ(r.size, sym.Size);
    }
    ELF_Deinit();
  }
}

}  // namespace

namespace {

/*********************************************************************
 * Call frame rules against readelf --debug-dump=frames-interp
 */

TEST_P(ProgramIndexFixture, FrameRulesMatchReadelf) {
  std::regex reFde(R"(FDE cie=\S+ pc=([0-9a-f]+)\.\.([0-9a-f]+))");
  std::regex reCie(R"(CIE .* ra=(\d+))");
  std::regex reRow(R"(^([0-9a-f]{8}) +r(\d+)\+(\d+) *(.*)$)");
  std::vector<std::string> columns;
  unsigned returnColumn = 14;
  uint32_t fdeLo = 0;
  int rowsChecked = 0;
  for (const std::string& line :
       readelf::ReadLines(readelf::FixturePath(std::string(GetParam()) + ".framesinterp.txt"))) {
    std::smatch m;
    if (std::regex_search(line, m, reCie)) {
      returnColumn = (unsigned)std::stoul(m[1]);
      fdeLo = 0;  // the CIE's initial row describes no code
      continue;
    }
    if (std::regex_search(line, m, reFde)) {
      fdeLo = (uint32_t)std::stoul(m[1], nullptr, 16);
      columns.clear();
      continue;
    }
    if (line.find("   LOC   CFA") == 0) {
      std::istringstream in(line.substr(12));
      std::string col;
      while (in >> col)
        columns.push_back(col);
      continue;
    }
    // Frames of code the linker dropped sit at 0 and describe nothing in the program either.
    if (!std::regex_match(line, m, reRow) || fdeLo == 0)
      continue;
    uint32_t pc = (uint32_t)std::stoul(m[1], nullptr, 16);
    SCOPED_TRACE(line);
    ELF_SYM_LOC rows[ELF_FRAME_ROWS];
    ASSERT_EQ(ELF_GetFrameRows(pc, rows), ELF_FRAME_ROWS);
    EXPECT_EQ(rows[13].kind, ELF_LOC_REG_VALUE);
    EXPECT_EQ(rows[13].reg, std::stoul(m[2]));
    EXPECT_EQ(rows[13].offset, std::stoi(m[3]));
    std::istringstream in(m[4].str());
    std::string value;
    for (size_t c = 0; c < columns.size() && in >> value; c++) {
      unsigned reg = columns[c] == "ra" ? returnColumn : (unsigned)std::stoul(columns[c].substr(1));
      ASSERT_LT(reg, (unsigned)ELF_FRAME_ROWS);
      const ELF_SYM_LOC& r = rows[reg];
      if (value == "u") {
        // Not saved yet: the caller's value is still in the register.
        EXPECT_EQ(r.kind, ELF_LOC_REG) << columns[c];
        EXPECT_TRUE(r.reg == 1034 || r.reg == reg) << columns[c];
      } else {
        ASSERT_EQ(value[0], 'c') << value;
        EXPECT_EQ(r.kind, ELF_LOC_AT_CFA) << columns[c];
        EXPECT_EQ(r.offset, std::stoi(value.substr(1))) << columns[c];
      }
    }
    rowsChecked++;
  }
  EXPECT_GT(rowsChecked, 0);
  ELF_SYM_LOC rows[ELF_FRAME_ROWS];
  EXPECT_EQ(ELF_GetFrameRows(0xFFFFFF00, rows), 0);
}

}  // namespace

namespace {

/*********************************************************************
 * Members and arrays against gdb-multiarch's "ptype/o" and "whatis"
 */

struct GdbMember {
  std::string name;
  long long bitPos;  // offset * 8 + bit
  long long size;
  long long bitWidth;
  unsigned access;  // 1 public, 2 protected, 3 private: the label above, or the default of the type
};

// The data members of "ptype/o TYPE" (methods, access labels and padding notes left out).
std::optional<std::vector<GdbMember>> GdbPtypeOffsets(const std::string& sFixture, const std::string& sType) {
  std::string kind = "ptype-" + sType;
  for (char& c : kind) {
    if (!isalnum((unsigned char)c))
      c = '-';
  }
  std::optional<std::string> text = gdbrecord::Ask(sFixture, kind, {"ptype/o " + sType});
  if (!text)
    return std::nullopt;
  std::vector<GdbMember> members;
  std::regex reStruct(R"(^/\*\s+(\d+)(?::\s*(\d+))?\s+\|\s+(\d+) \*/\s+(.*);$)");
  std::regex reUnion(R"(^/\*\s+(\d+) \*/\s+(.*);$)");
  std::regex reDecl(R"(([A-Za-z_]\w*)(\[\d+\])*(?: : (\d+))?$)");
  std::regex reLabel(R"(^\s+(public|protected|private):$)");
  unsigned access = 1;
  for (const std::string& line : gdbrecord::Lines(*text)) {
    std::smatch m, d;
    long long bitPos = 0, size = 0;
    std::string decl;
    if (line.find("type = class ") != std::string::npos)
      access = 3;
    if (std::regex_match(line, m, reLabel)) {
      access = m[1] == "public" ? 1 : m[1] == "protected" ? 2 : 3;
      continue;
    }
    if (std::regex_match(line, m, reStruct)) {
      bitPos = std::stoll(m[1]) * 8 + (m[2].matched ? std::stoll(m[2]) : 0);
      size = std::stoll(m[3]);
      decl = m[4];
    } else if (std::regex_match(line, m, reUnion)) {
      size = std::stoll(m[1]);
      decl = m[2];
    } else {
      continue;
    }
    if (decl.find('(') != std::string::npos || !std::regex_search(decl, d, reDecl))
      continue;
    members.push_back({d[1], bitPos, size, d[3].matched ? std::stoll(d[3]) : 0, access});
  }
  return members;
}

TEST_P(ProgramIndexFixture, MemberOffsetsMatchGdb) {
  bool cpp = std::string(GetParam()).rfind("cpp", 0) == 0;
  if (std::string(GetParam()) == "gc_O0")
    GTEST_SKIP() << "no aggregate types";
  // Type name for gdb, and how our index finds it: a type by name, or the type a typedef names.
  const std::vector<std::pair<std::string, std::string>> types =
      cpp ? std::vector<std::pair<std::string, std::string>>{{"shapes::Rect", "shapes::Rect"},
                                                             {"shapes::Shape", "shapes::Shape"}}
          : std::vector<std::pair<std::string, std::string>>{{"struct point", "point"},
                                                             {"struct flags", "flags"},
                                                             {"union word", "word"},
                                                             {"foo_t", "foo_t"}};
  for (const auto& [gdbName, ourName] : types) {
    SCOPED_TRACE(gdbName);
    auto recorded = GdbPtypeOffsets(GetParam(), gdbName);
    if (!recorded)
      GTEST_SKIP() << "no recorded answers and no gdb-multiarch";
    const std::vector<GdbMember>& expected = *recorded;
    ASSERT_FALSE(expected.empty());
    ELF_SYM_HANDLE h = ELF_FindSym(QString::fromStdString(ourName), false, true, false);
    ASSERT_NE(h, 0u);
    if (ELF_GetSymMemberCount(h) == 0)
      h = ELF_GetSymDataType(h);  // a typedef of an unnamed struct
    std::vector<ELF_SYM_HANDLE> data;
    for (U32 i = 0; i < ELF_GetSymMemberCount(h); i++) {
      ELF_SYM_HANDLE m = ELF_GetSymMember(h, i);
      if (ELF_GetSymMemberOffset(m) >= 0)
        data.push_back(m);
    }
    ASSERT_EQ(data.size(), expected.size());
    for (size_t i = 0; i < data.size(); i++) {
      SCOPED_TRACE(expected[i].name);
      EXPECT_EQ(ELF_GetSymName(data[i]).toStdString(), expected[i].name);
      EXPECT_EQ(ELF_GetSymMemberOffset(data[i]) * 8LL + ELF_GetSymBitOffset(data[i]), expected[i].bitPos);
      EXPECT_EQ((long long)ELF_GetSymSize(data[i]), expected[i].size);
      EXPECT_EQ((long long)ELF_GetSymBitWidth(data[i]), expected[i].bitWidth);
      EXPECT_EQ(ELF_GetSymAccessibility(data[i]), expected[i].access);
      EXPECT_EQ(ELF_GetSymParentType(data[i]), h);
      EXPECT_EQ(ELF_GetSymMemberIdx(h, expected[i].name.c_str()) >= 0, true);
    }
    EXPECT_EQ(ELF_GetSymMemberIdx(h, "no_such_member"), -1);
  }
  if (!cpp) {
    // "int [3][4]" from gdb: the dimensions, outermost first.
    ELF_SYM_HANDLE h = ELF_FindSym("g_matrix", true, false, false);
    ELF_ARRAY_INFO info = ELF_GetSymArrayInfo(h);
    auto recorded = GdbGlobals(GetParam(), {"g_matrix"}, "matrix");
    ASSERT_TRUE(recorded);
    const std::vector<GdbGlobal>& g = *recorded;
    ASSERT_EQ(g.size(), 1u);
    std::vector<U32> dims;
    std::regex reDim(R"(\[(\d+)\])");
    for (auto it = std::sregex_iterator(g[0].type.begin(), g[0].type.end(), reDim);
         it != std::sregex_iterator(); ++it)
      dims.push_back((U32)std::stoul((*it)[1]));
    ASSERT_EQ(info.dimCount, dims.size());
    EXPECT_TRUE(std::equal(dims.begin(), dims.end(), info.dims));
    EXPECT_EQ((long long)info.totalSize, g[0].size);
    EXPECT_EQ((long long)(info.elemSize * info.elemCount), g[0].size);
    EXPECT_EQ(ELF_GetSymArrayInfo(ELF_FindSym("g_origin", true, false, false)).dimCount, 0u);
  }
}

}  // namespace

namespace {

/*********************************************************************
 * Locations
 */

// One-operation expressions have a place; a final DW_OP_stack_value makes the place the value;
// anything longer (pieces, arithmetic) is unavailable rather than a guess.
TEST(SymbolLocation, ExpressionsTranslateOrAreUnavailable) {
  const I64 minus4 = -4;
  const struct {
    std::vector<DWA_LOC_OP> ops;
    bool frameBase;
    U32 kind;
    const char* text;
  } cases[] = {
      {{{DW_OP_fbreg, (U64)minus4, 0, 0, 0}}, false, ELF_LOC_AT_BP, "[BP - 4]"},
      {{{DW_OP_fbreg, 8, 0, 0, 0}}, false, ELF_LOC_AT_BP, "[BP + 8]"},
      {{{DW_OP_fbreg, 0, 0, 0, 0}}, false, ELF_LOC_AT_BP, "[BP]"},
      {{{DW_OP_addr, 0x20000010, 0, 0, 0}}, false, ELF_LOC_ADDR, "[20000010]"},
      {{{DW_OP_reg3, 0, 0, 0, 0}}, false, ELF_LOC_REG, "R3"},
      {{{DW_OP_regx, 12, 0, 0, 0}}, false, ELF_LOC_REG, "R12"},
      {{{DW_OP_breg7, 8, 0, 0, 0}}, false, ELF_LOC_AT_REG, "[R7] + 8"},
      {{{DW_OP_breg7, 8, 0, 0, 0}}, true, ELF_LOC_REG_VALUE, "R7 + 8"},
      {{{DW_OP_bregx, 13, 0, 0, 0}}, true, ELF_LOC_REG_VALUE, "R13"},
      {{{DW_OP_const1u, 5, 0, 0, 0}}, false, ELF_LOC_CONST, "const"},
      {{{DW_OP_lit7, 0, 0, 0, 0}, {DW_OP_stack_value, 0, 0, 0, 1}}, false, ELF_LOC_STACK_VALUE, "N/A"},
      {{{DW_OP_breg3, 4, 0, 0, 0}, {DW_OP_stack_value, 0, 0, 0, 2}}, false, ELF_LOC_STACK_VALUE, "N/A"},
      {{{DW_OP_call_frame_cfa, 0, 0, 0, 0}}, true, ELF_LOC_CFA_VALUE, "CFA"},
      // Several operations: the first alone would name a wrong place.
      {{{DW_OP_addr, 0x20000010, 0, 0, 0}, {DW_OP_plus_uconst, 4, 0, 0, 5}}, false, ELF_LOC_NONE, "N/A"},
      {{{DW_OP_reg0, 0, 0, 0, 0},
        {DW_OP_piece, 4, 0, 0, 1},
        {DW_OP_reg1, 0, 0, 0, 3},
        {DW_OP_piece, 4, 0, 0, 4}},
       false,
       ELF_LOC_NONE,
       "N/A"},
      {{{DW_OP_breg13, 0, 0, 0, 0}, {DW_OP_lit2, 0, 0, 0, 2}, {DW_OP_mul, 0, 0, 0, 3}},
       false,
       ELF_LOC_NONE,
       "N/A"},
      {{{DW_OP_entry_value, 1, 0, 0, 0}, {DW_OP_stack_value, 0, 0, 0, 3}}, false, ELF_LOC_NONE, "N/A"},
      {{{DW_OP_deref, 0, 0, 0, 0}}, false, ELF_LOC_NONE, "N/A"},
      {{}, false, ELF_LOC_NONE, "N/A"},
  };
  for (const auto& c : cases) {
    ELF_SYM_LOC loc = ELF_TranslateLocExpr(c.ops.data(), (U32)c.ops.size(), c.frameBase);
    SCOPED_TRACE(c.text);
    EXPECT_EQ(loc.kind, c.kind);
    if (c.kind != ELF_LOC_STACK_VALUE) {
      EXPECT_EQ(ELF_GetSymLocText(loc).toStdString(), c.text);
    }
  }
}

// Operations that carry bytes: an entry value names the register whose value on entry it is, an
// implicit value is a constant in the target's byte order.
TEST(SymbolLocation, EntryAndImplicitValues) {
  auto withBlock = [](U8 Op, std::vector<U8> Bytes) {
    DWA_LOC_OP op = {Op, Bytes.size(), 0, 0, 0, {}, (U8)Bytes.size()};
    std::copy(Bytes.begin(), Bytes.end(), op.Block);
    return op;
  };
  const DWA_LOC_OP stackValue = {DW_OP_stack_value, 0, 0, 0, 3, {}, 0};
  const DWA_LOC_OP lit1 = {DW_OP_lit1, 0, 0, 0, 3, {}, 0};
  const struct {
    std::vector<DWA_LOC_OP> ops;
    U32 kind;
    const char* text;
  } cases[] = {
      {{withBlock(DW_OP_entry_value, {DW_OP_reg1}), stackValue}, ELF_LOC_ENTRY_VALUE, "R1 (on entry)"},
      {{withBlock(DW_OP_GNU_entry_value, {DW_OP_regx, 12}), stackValue},
       ELF_LOC_ENTRY_VALUE,
       "R12 (on entry)"},
      {{withBlock(DW_OP_entry_value, {DW_OP_reg1})}, ELF_LOC_NONE, "N/A"},  // an address, not a value
      {{withBlock(DW_OP_entry_value, {DW_OP_reg2}), lit1, stackValue}, ELF_LOC_NONE, "N/A"},
      {{withBlock(DW_OP_entry_value, {DW_OP_breg13, 0}), stackValue}, ELF_LOC_NONE, "N/A"},
      {{withBlock(DW_OP_implicit_value, {0x78, 0x56, 0x34, 0x12})}, ELF_LOC_CONST, "const"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.text);
    ELF_SYM_LOC loc = ELF_TranslateLocExpr(c.ops.data(), (U32)c.ops.size(), false);
    EXPECT_EQ(loc.kind, c.kind);
    EXPECT_EQ(ELF_GetSymLocText(loc).toStdString(), c.text);
  }
  DWA_LOC_OP implicit = withBlock(DW_OP_implicit_value, {0x78, 0x56, 0x34, 0x12});
  EXPECT_EQ(ELF_TranslateLocExpr(&implicit, 1, false, false).value, 0x12345678u);
  EXPECT_EQ(ELF_TranslateLocExpr(&implicit, 1, false, true).value, 0x78563412u);
}

// Expected kind of one expression as readelf prints it ("DW_OP_breg3 (r3): 4; DW_OP_stack_value").
U32 KindOfReadelfExpression(const std::string& sText) {
  std::vector<std::string> ops;
  std::regex reOp(R"((DW_OP_\w+))");
  for (auto it = std::sregex_iterator(sText.begin(), sText.end(), reOp); it != std::sregex_iterator(); ++it)
    ops.push_back((*it)[1]);
  bool stackValue = ops.size() == 2 && ops[1] == "DW_OP_stack_value";
  // An entry value of one register, as a value: "DW_OP_entry_value: (DW_OP_reg1 (r1)); DW_OP_stack_value".
  if (std::regex_match(
          sText, std::regex(R"(DW_OP_(GNU_)?entry_value: \(DW_OP_reg\d+ \(r\d+\)\); DW_OP_stack_value)")))
    return ELF_LOC_ENTRY_VALUE;
  if (ops.empty() || (ops.size() > 1 && !stackValue) || sText.find("entry_value") != std::string::npos)
    return ELF_LOC_NONE;
  const std::string& op = ops[0];
  U32 kind = ELF_LOC_NONE;
  if (op.rfind("DW_OP_reg", 0) == 0)
    kind = ELF_LOC_REG;
  else if (op.rfind("DW_OP_breg", 0) == 0)
    kind = ELF_LOC_AT_REG;
  else if (op == "DW_OP_fbreg")
    kind = ELF_LOC_AT_BP;
  else if (op == "DW_OP_addr")
    kind = ELF_LOC_ADDR;
  else if (op.rfind("DW_OP_lit", 0) == 0 || op.rfind("DW_OP_const", 0) == 0)
    kind = ELF_LOC_CONST;
  if (kind != ELF_LOC_NONE && stackValue)
    kind = ELF_LOC_STACK_VALUE;
  return kind;
}

struct LocEntry {
  uint32_t lo, hi;
  std::string expression;
};

std::vector<LocEntry> RecordedLocList(const std::string& sFixture, uint64_t Offset) {
  std::vector<LocEntry> entries;
  char acStart[16];
  snprintf(acStart, sizeof(acStart), "%08llx", (unsigned long long)Offset);
  std::regex reLoc(R"(^\s+([0-9a-f]{8}) ([0-9a-f]{8}) \((.*)\)$)");
  bool inList = false;
  for (const std::string& line : readelf::ReadLines(readelf::FixturePath(sFixture + ".loc.txt"))) {
    size_t first = line.find_first_not_of(' ');
    if (!inList) {
      if (first == std::string::npos || line.compare(first, 8, acStart) != 0)
        continue;
      inList = true;
    }
    if (line.find("<End of list>") != std::string::npos)
      break;
    std::smatch m;
    if (line.find("(base address)") == std::string::npos && std::regex_match(line, m, reLoc))
      entries.push_back(
          {(uint32_t)std::stoul(m[1], nullptr, 16), (uint32_t)std::stoul(m[2], nullptr, 16), m[3]});
  }
  return entries;
}

// The optimised fixtures keep variables in location lists, many of them with multi-operation
// expressions: at the start of each entry the location is the entry's, or unavailable.
TEST_P(ProgramIndexFixture, LocationListsGiveTheEntryAtThePc) {
  ELF_FILE* pFile = ELF_GetIndexedFile();
  int entriesChecked = 0;
  for (const auto& unit : readelf::ParseInfo(GetParam())) {
    for (const auto& d : unit.Dies) {
      auto attr = d.Attrs.find("DW_AT_location");
      if (attr == d.Attrs.end() || attr->second.find("(location list)") == std::string::npos)
        continue;
      ELF_SYM_HANDLE h = ELF_MakeDwarfHandle(ELF_GetFileIndex(pFile), _MakeDieID(d.Offset, true));
      auto entries = RecordedLocList(GetParam(), d.Number("DW_AT_location"));
      for (const auto& e : entries) {
        if (e.hi <= e.lo)
          continue;
        // The first entry that holds the pc wins; an empty entry holds only its own address.
        const LocEntry* pWinner = nullptr;
        for (const auto& w : entries) {
          if ((w.lo <= e.lo && e.lo < w.hi) || (w.lo == w.hi && w.lo == e.lo)) {
            pWinner = &w;
            break;
          }
        }
        ASSERT_NE(pWinner, nullptr);
        SCOPED_TRACE(d.Name() + " at " + std::to_string(e.lo) + ": " + pWinner->expression);
        EXPECT_EQ(ELF_GetSymLoc(h, e.lo).kind, KindOfReadelfExpression(pWinner->expression));
        entriesChecked++;
      }
      // Behind the last entry the variable has no location.
      if (!entries.empty()) {
        uint32_t end = 0;
        for (const auto& e : entries)
          end = std::max(end, e.hi);
        EXPECT_EQ(ELF_GetSymLoc(h, end + 0x1000).kind, ELF_LOC_NONE);
      }
    }
  }
  if (std::string(GetParam()).find("O2") != std::string::npos) {
    EXPECT_GT(entriesChecked, 0);
  }
}

}  // namespace

namespace {

/*********************************************************************
 * Context PC and locals
 */

// At the first instruction of each function, the locals are the parameters and variables of all
// its blocks (readelf's DIEs whose nearest enclosing function is that one), each in scope there
// and out of scope in any other function.
TEST_P(ProgramIndexFixture, LocalsFollowTheContextPc) {
  // Compile units only: .debug_types units reuse the offsets of .debug_info and hold no code.
  std::map<uint64_t, readelf::Die> dies;
  std::set<uint32_t> inlineStarts;
  for (const auto& unit : readelf::ParseInfo(GetParam())) {
    if (unit.Dies.empty() || unit.Dies.front().Tag != "DW_TAG_compile_unit")
      continue;
    for (const auto& d : unit.Dies) {
      dies[d.Offset] = d;
      if (d.Tag == "DW_TAG_inlined_subroutine")
        inlineStarts.insert((uint32_t)d.Number(d.Has("DW_AT_entry_pc") ? "DW_AT_entry_pc" : "DW_AT_low_pc"));
    }
  }
  auto enclosingFunction = [&](const readelf::Die& d) -> uint64_t {
    for (uint64_t p = d.Parent; p; p = dies[p].Parent) {
      if (dies[p].Tag == "DW_TAG_subprogram" || dies[p].Tag == "DW_TAG_inlined_subroutine")
        return p;
    }
    return 0;
  };
  std::map<std::string, uint32_t> starts;  // plain function names of the symbol table
  for (const auto& sym : readelf::ParseSymbols(GetParam())) {
    if (sym.Type == "FUNC" && sym.Size && sym.Name.rfind("_Z", 0) != 0)
      starts[sym.Name] = sym.Value & ~1u;
  }
  int functionsChecked = 0;
  for (const auto& [offset, f] : dies) {
    if (f.Tag != "DW_TAG_subprogram" || !f.Has("DW_AT_low_pc") || !starts.count(f.Name()) ||
        starts[f.Name()] != (uint32_t)f.Number("DW_AT_low_pc"))
      continue;
    // A function that begins with inlined code has the inline copy's locals at its first address.
    if (inlineStarts.count(starts[f.Name()]))
      continue;
    SCOPED_TRACE(f.Name());
    std::multiset<std::string> expected, got;
    for (const auto& [o, d] : dies) {
      if ((d.Tag == "DW_TAG_variable" || d.Tag == "DW_TAG_formal_parameter") && !d.Has("DW_AT_declaration") &&
          enclosingFunction(d) == offset)
        expected.insert(d.Name());
    }
    uint32_t start = starts[f.Name()];
    ELF_SetContextPC(start);
    ASSERT_NE(ELF_GetContextFunc(), 0u);
    EXPECT_EQ(ELF_GetSymName(ELF_GetContextFunc()).toStdString(), f.Name());
    for (ELF_SYM_HANDLE h : ELF_GetLocalVars(true))
      got.insert(ELF_GetSymName(h).toStdString());
    EXPECT_EQ(got, expected);
    uint32_t elsewhere = start == starts.begin()->second ? starts.rbegin()->second : starts.begin()->second;
    for (const auto& name : expected) {
      if (name.empty())
        continue;
      ELF_SYM_LIST hits = ELF_FindLocalsByName(QString::fromStdString(name));
      ASSERT_FALSE(hits.empty()) << name;
      EXPECT_EQ(ELF_IsInScope(hits.front(), 0xFFFFFFFF), 1) << name;
      EXPECT_EQ(ELF_IsInScope(hits.front(), elsewhere), 0) << name;
      EXPECT_EQ(ELF_FindSymInContext(QString::fromStdString(name)), hits.back()) << name;
      EXPECT_EQ(ELF_GetSymParentFunc(hits.front()), ELF_GetContextFunc()) << name;
    }
    functionsChecked++;
  }
  EXPECT_GT(functionsChecked, 0);
  EXPECT_EQ(ELF_IsInScope(ELF_FindSym("main", true, false, false), 0xFFFFFFFF), 255);
  ELF_SetContextPC(0);
  EXPECT_EQ(ELF_GetContextFunc(), 0u);
  EXPECT_TRUE(ELF_GetLocalVars(true).empty());
}

}  // namespace

namespace {

// Inlined code: the innermost function at an inline copy's entry is the copy (named after its
// abstract origin), the outermost the function it was inlined into.
TEST_P(ProgramIndexFixture, InlineCopiesAreInnermostAtTheirEntry) {
  std::map<uint64_t, readelf::Die> dies;
  for (const auto& unit : readelf::ParseInfo(GetParam())) {
    if (!unit.Dies.empty() && unit.Dies.front().Tag == "DW_TAG_compile_unit") {
      for (const auto& d : unit.Dies)
        dies[d.Offset] = d;
    }
  }
  int checked = 0;
  for (const auto& [offset, d] : dies) {
    if (d.Tag != "DW_TAG_inlined_subroutine" || !d.Has("DW_AT_abstract_origin"))
      continue;
    uint32_t entry = (uint32_t)d.Number(d.Has("DW_AT_entry_pc") ? "DW_AT_entry_pc" : "DW_AT_low_pc");
    if (!entry)
      continue;
    uint64_t outer = d.Parent;
    while (outer && dies[outer].Tag != "DW_TAG_subprogram")
      outer = dies[outer].Parent;
    SCOPED_TRACE(d.Name() + " in " + dies[outer].Name());
    ELF_SYM_HANDLE inner = ELF_GetFuncAt(entry, false);
    ASSERT_NE(inner, 0u);
    EXPECT_EQ(ELF_GetSymName(inner).toStdString(), dies[d.Number("DW_AT_abstract_origin")].Name());
    EXPECT_EQ(ELF_GetSymName(ELF_GetFuncAt(entry, true)).toStdString(), dies[outer].Name());
    checked++;
  }
  if (std::string(GetParam()).find("O2") != std::string::npos) {
    EXPECT_GT(checked, 0);
  }
}

}  // namespace

namespace {

// Declarations: the line readelf records for each global and function, in the file of its unit
// (the fixtures declare everything in the unit's own source file).
TEST_P(ProgramIndexFixture, DeclarationLocationsMatchReadelf) {
  int checked = 0;
  for (const auto& unit : readelf::ParseInfo(GetParam())) {
    if (unit.Dies.empty() || unit.Dies.front().Tag != "DW_TAG_compile_unit")
      continue;
    std::string unitFile =
        QFileInfo(QString::fromStdString(unit.Dies.front().Name())).fileName().toStdString();
    for (const auto& d : unit.Dies) {
      bool global = d.Tag == "DW_TAG_variable" && d.Level == 1 && d.Has("DW_AT_location");
      bool function = d.Tag == "DW_TAG_subprogram" && d.Has("DW_AT_low_pc") && d.Number("DW_AT_low_pc") != 0;
      if ((!global && !function) || !d.Has("DW_AT_decl_line"))
        continue;
      SCOPED_TRACE(d.Name());
      ELF_FILE* pFile = ELF_GetIndexedFile();
      CSrcLoc loc =
          ELF_GetSymDeclLoc(ELF_MakeDwarfHandle(ELF_GetFileIndex(pFile), _MakeDieID(d.Offset, true)));
      ASSERT_TRUE(loc.IsValid());
      EXPECT_EQ(loc.line, d.Number("DW_AT_decl_line"));
      EXPECT_EQ(BaseNameOf(loc.file), unitFile);
      checked++;
    }
  }
  EXPECT_GT(checked, 0);
  EXPECT_FALSE(ELF_GetSymDeclLoc(0).IsValid());
}

// Without DWARF the symbol table still names functions and data: by address and by name, with
// the symbol's own range; no address has a line.
TEST(ProgramIndex, ProgramWithoutDebugInformationAnswersFromSymbols) {
  ASSERT_EQ(ELF_Init(readelf::FixturePath("nodebug_O0.elf").c_str()), 0);
  EXPECT_TRUE(ELF_GetFileIds().empty());
  int checked = 0;
  for (const auto& sym : readelf::ParseSymbols("nodebug_O0")) {
    if ((sym.Type != "FUNC" && sym.Type != "OBJECT") || sym.Size == 0)
      continue;
    SCOPED_TRACE(sym.Name);
    ELF_SYM_HANDLE h = ELF_FindSym(QString::fromStdString(sym.Name), true, false, false);
    ASSERT_NE(h, 0u);
    EXPECT_TRUE(_IsElfSymbolHandle(h));
    EXPECT_EQ(ELF_GetSymSize(h), sym.Size);
    if (sym.Type == "FUNC") {
      uint32_t start = sym.Value & ~1u;
      EXPECT_EQ(ELF_GetFuncAt(start + sym.Size - 2, true), h);
      EXPECT_EQ(ELF_GetSymAddr(h), start);
      EXPECT_TRUE(ELF_GetSrcLocs(start).empty());
    } else {
      EXPECT_EQ(ELF_GetSymLoc(h, 0).kind, ELF_LOC_ADDR);
      EXPECT_EQ(ELF_GetSymAddr(h), sym.Value);
    }
    checked++;
  }
  EXPECT_GT(checked, 0);
  ELF_Deinit();
}

}  // namespace

namespace {

// Every function and data object of the symbol table is found at its address, a DWARF symbol of
// the same name first; and the program facts match the recorded headers.
TEST_P(ProgramIndexFixture, SymbolsAtAnAddressAndProgramFactsMatchReadelf) {
  int checked = 0;
  for (const auto& sym : readelf::ParseSymbols(GetParam())) {
    if ((sym.Type != "FUNC" && sym.Type != "OBJECT") || sym.Size == 0)
      continue;
    SCOPED_TRACE(sym.Name);
    uint32_t addr = sym.Type == "FUNC" ? sym.Value & ~1u : sym.Value;
    ELF_SYM_LIST hits = ELF_GetSymsAtAddr(addr);
    ASSERT_FALSE(hits.empty());
    bool named = false, dwarfFirst = !_IsElfSymbolHandle(hits.front());
    for (ELF_SYM_HANDLE h : hits)
      named |= ELF_GetSymName(h).toStdString() == sym.Name;
    EXPECT_TRUE(named);
    if (!ELF_FindDebugSymsByName(QString::fromStdString(sym.Name)).empty() &&
        !_IsElfSymbolHandle(ELF_FindDebugSymsByName(QString::fromStdString(sym.Name)).front())) {
      EXPECT_TRUE(dwarfFirst);
    }
    checked++;
  }
  EXPECT_GT(checked, 0);
  EXPECT_EQ(ELF_GetEntryPointPC(), readelf::ParseEntryPoint(GetParam()) & ~1u);
  EXPECT_EQ(ELF_GetBigEndian(), readelf::ParseByteOrder(GetParam()) != "little");
  EXPECT_EQ(ELF_GetSrcLanguage(),
            std::string(GetParam()).rfind("cpp", 0) == 0 ? ELF_SRC_LANG_CPP : ELF_SRC_LANG_C);
  EXPECT_TRUE(ELF_GetFileName().endsWith(QString(GetParam()) + ".elf"));
}

}  // namespace

namespace {

// Stepping walks the line table by neighbours: previous and next line address, the next and
// previous line with code, and the first address of a statement, all against the recorded rows.
TEST_P(ProgramIndexFixture, NeighboursInTheLineTableMatchReadelf) {
  std::set<uint32_t> addrSet;
  std::map<std::string, std::set<int>> codeLines;
  std::map<uint32_t, std::set<FileLine>> linesAt;
  for (const auto& row : KeptRows(GetParam())) {
    if (row.Line < 0)
      continue;
    addrSet.insert(row.Addr);
    codeLines[row.File].insert(row.Line);
    linesAt[row.Addr].insert({row.File, row.Line});
  }
  std::vector<uint32_t> addrs(addrSet.begin(), addrSet.end());
  ASSERT_GE(addrs.size(), 2u);
  EXPECT_EQ(ELF_GetPrevAddr(addrs.front()), 0xFFFFFFFFu);
  EXPECT_EQ(ELF_GetNextAddr(addrs.back()), 0xFFFFFFFFu);
  EXPECT_EQ(ELF_GetPrevAddr(addrs.back() + 0x100), addrs.back());
  EXPECT_EQ(ELF_GetNextAddr(addrs.front() - 2), addrs.front());
  for (size_t i = 0; i < addrs.size(); i++) {
    SCOPED_TRACE(addrs[i]);
    if (i > 0) {
      EXPECT_EQ(ELF_GetPrevAddr(addrs[i]), addrs[i - 1]);
      EXPECT_EQ(ELF_GetPrevAddr(addrs[i] + 1), addrs[i]);
      // A row whose line the row before does not have starts a statement.
      bool fresh = true;
      for (const auto& fl : linesAt[addrs[i]])
        fresh &= !linesAt[addrs[i - 1]].count(fl);
      if (fresh && linesAt[addrs[i]].size() == 1) {
        EXPECT_TRUE(ELF_IsFirstAddrOfStatement(addrs[i]));
      }
    }
    if (i + 1 < addrs.size()) {
      EXPECT_EQ(ELF_GetNextAddr(addrs[i]), addrs[i + 1]);
    }
  }
  for (const auto& [file, lines] : codeLines) {
    CSrcLoc loc;
    ASSERT_TRUE(ELF_ParseSrcLoc(QString::fromStdString(file + ":1"), &loc));
    std::vector<int> sorted(lines.begin(), lines.end());
    for (size_t i = 0; i < sorted.size(); i++) {
      SCOPED_TRACE(file + ":" + std::to_string(sorted[i]));
      CSrcLoc here{loc.file, (U32)sorted[i], 0};
      CSrcLoc next = ELF_GetNextCodeLine(here), prev = ELF_GetPrevCodeLine(here);
      EXPECT_EQ((int)next.line, i + 1 < sorted.size() ? sorted[i + 1] : 0);
      EXPECT_EQ((int)prev.line, i > 0 ? sorted[i - 1] : 0);
      if (next.IsValid()) {
        EXPECT_EQ(next.file, loc.file);
      }
    }
  }
}

// The functions of a file are those whose code lies in the file's units.
TEST_P(ProgramIndexFixture, FileFunctionsHoldTheFunctionsOfTheirUnit) {
  std::map<std::string, std::set<std::string>> expected;  // unit file -> functions with code
  std::map<uint64_t, readelf::Die> dies;
  for (const auto& unit : readelf::ParseInfo(GetParam())) {
    if (unit.Dies.empty() || unit.Dies.front().Tag != "DW_TAG_compile_unit")
      continue;
    std::string file = QFileInfo(QString::fromStdString(unit.Dies.front().Name())).fileName().toStdString();
    for (const auto& d : unit.Dies) {
      if (d.Tag == "DW_TAG_subprogram" && d.Has("DW_AT_low_pc") && d.Number("DW_AT_low_pc") != 0 &&
          !d.Has("DW_AT_specification") && !d.Has("DW_AT_abstract_origin"))
        expected[file].insert(d.Name());
    }
  }
  ASSERT_FALSE(expected.empty());
  for (const auto& [file, names] : expected) {
    SCOPED_TRACE(file);
    std::set<std::string> got;
    ELF_SYM_LIST list = ELF_GetFileFunctions(ELF_GetFileId(QString::fromStdString(file)));
    for (ELF_SYM_HANDLE h : list)
      got.insert(ELF_GetSymName(h).toStdString());
    for (const auto& name : names)
      EXPECT_TRUE(got.count(name)) << name;
    for (size_t i = 1; i < list.size(); i++)
      EXPECT_LE(ELF_GetFuncRange(list[i - 1]).start, ELF_GetFuncRange(list[i]).start);
  }
  EXPECT_TRUE(ELF_GetFileFunctions(0xFFFFFFFF).empty());
}

}  // namespace

namespace {

// The device thread asks about lines while the main thread loads programs: every query takes the
// one lock, so the asking side sees either the old or the new program, never half of one.
TEST(ProgramIndex, QueriesFromAnotherThreadDuringReloadsStayWhole) {
  const std::string first = readelf::FixturePath("c_O0.elf"), second = readelf::FixturePath("cpp_O0.elf");
  ASSERT_EQ(ELF_Init(first.c_str()), 0);
  std::atomic<bool> done{false};
  std::atomic<int> answers{0};
  std::thread asker([&] {
    while (!done) {
      std::lock_guard lock(ELF_GetIndexMutex());
      ELF_SYM_HANDLE main = ELF_FindSym("main", true, false, false);
      CAddrRange r = ELF_GetFuncRange(main);
      if (ELF_IsLoaded()) {
        // Inside one lock the program cannot change: main's code has main's lines.
        EXPECT_NE(main, 0u);
        EXPECT_FALSE(r.IsEmpty());
        EXPECT_FALSE(ELF_GetSrcLocs(r.start).empty());
        EXPECT_EQ(ELF_GetFuncAt(r.start, true), main);
      }
      answers++;
    }
  });
  for (int i = 0; i < 40; i++)
    ASSERT_EQ(ELF_Init((i % 2 ? first : second).c_str()), 0);
  // Let the asker answer at least once after the last load before stopping it.
  for (int seen = answers; answers == seen;)
    std::this_thread::yield();
  done = true;
  asker.join();
  EXPECT_GT(answers.load(), 0);
  ELF_Deinit();
}

}  // namespace

namespace {

// Each inline copy knows the line it was called from, as readelf records it, in its unit's file.
TEST_P(ProgramIndexFixture, InlineCallLocationsMatchReadelf) {
  ELF_FILE* pFile = ELF_GetIndexedFile();
  int checked = 0;
  for (const auto& unit : readelf::ParseInfo(GetParam())) {
    if (unit.Dies.empty() || unit.Dies.front().Tag != "DW_TAG_compile_unit")
      continue;
    std::string unitFile =
        QFileInfo(QString::fromStdString(unit.Dies.front().Name())).fileName().toStdString();
    for (const auto& d : unit.Dies) {
      if (d.Tag != "DW_TAG_inlined_subroutine" || !d.Has("DW_AT_call_line"))
        continue;
      SCOPED_TRACE(d.Offset);
      CSrcLoc loc =
          ELF_GetSymCallLoc(ELF_MakeDwarfHandle(ELF_GetFileIndex(pFile), _MakeDieID(d.Offset, true)));
      ASSERT_TRUE(loc.IsValid());
      EXPECT_EQ(loc.line, d.Number("DW_AT_call_line"));
      EXPECT_EQ(BaseNameOf(loc.file), unitFile);
      checked++;
    }
  }
  if (std::string(GetParam()).find("O2") != std::string::npos) {
    EXPECT_GT(checked, 0);
  }
  EXPECT_FALSE(ELF_GetSymCallLoc(ELF_FindSym("main", true, false, false)).IsValid());
}

}  // namespace

namespace {

// Each frame description of the recorded .debug_frame dump: its range, and the largest CFA offset
// its instructions set up (the function's stack use).
TEST_P(ProgramIndexFixture, FrameDescriptionsAndStackSizesMatchReadelf) {
  std::regex reFde(R"(FDE cie=\S+ pc=([0-9a-f]+)\.\.([0-9a-f]+))");
  std::regex reOffset(R"(DW_CFA_def_cfa(?:_offset)?: (?:r\d+ ofs )?(\d+)$)");
  struct Fde {
    uint32_t lo, hi;
    int stack;
  };
  std::vector<Fde> fdes;
  for (const std::string& line :
       readelf::ReadLines(readelf::FixturePath(std::string(GetParam()) + ".frames.txt"))) {
    std::smatch m;
    if (std::regex_search(line, m, reFde))
      fdes.push_back({(uint32_t)std::stoul(m[1], nullptr, 16), (uint32_t)std::stoul(m[2], nullptr, 16), 0});
    else if (!fdes.empty() && std::regex_search(line, m, reOffset))
      fdes.back().stack = std::max(fdes.back().stack, std::stoi(m[1]));
  }
  if (std::string(GetParam()) == "gc_O0")
    GTEST_SKIP() << "no recorded .debug_frame dump";
  ASSERT_FALSE(fdes.empty());
  for (const auto& f : fdes) {
    SCOPED_TRACE(f.lo);
    if (f.lo == 0 || f.hi <= f.lo)
      continue;
    CAddrRange r = ELF_GetCfiRange(f.lo);
    EXPECT_EQ(r.start, f.lo);
    EXPECT_EQ(r.End(), f.hi);
    EXPECT_EQ(ELF_GetCfiRange(f.hi - 2).start, f.lo);
    EXPECT_EQ(ELF_GetFuncStackSize(f.lo), f.stack);
  }
  EXPECT_TRUE(ELF_GetCfiRange(0xFFFFFF00).IsEmpty());
  EXPECT_EQ(ELF_GetFuncStackSize(0xFFFFFF00), 0);
}

}  // namespace

namespace {

// An address inside a function takes the line of the entry before it for 256 bytes; further
// behind it has no line (pad_O0: one line of padded() runs 400 bytes). The next line's address
// is found across that gap.
TEST(ProgramIndex, AddressesFarBehindTheirLineEntryHaveNoLine) {
  ASSERT_EQ(ELF_Init(readelf::FixturePath("pad_O0.elf").c_str()), 0);
  auto rows = KeptRows("pad_O0");
  const readelf::LineRow* pLong = nullptr;
  uint32_t nextAddr = 0;
  for (size_t i = 0; i + 1 < rows.size(); i++) {
    if (rows[i].Line >= 0 && rows[i + 1].Line >= 0 && rows[i + 1].Addr - rows[i].Addr > 300) {
      pLong = &rows[i];
      nextAddr = rows[i + 1].Addr;
    }
  }
  ASSERT_NE(pLong, nullptr);
  const struct {
    uint32_t behind;
    bool hasLine;
  } cases[] = {{2, true},    {100, true},  {256, true},
               {258, false}, {300, false}, {nextAddr - pLong->Addr - 2, false}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.behind);
    std::set<FileLine> lines = LinesAt(pLong->Addr + c.behind);
    if (c.hasLine) {
      EXPECT_EQ(lines, (std::set<FileLine>{{pLong->File, pLong->Line}}));
    } else {
      EXPECT_TRUE(lines.empty());
    }
    EXPECT_NE(ELF_GetFuncAt(pLong->Addr + c.behind, false), 0u);
  }
  EXPECT_EQ(ELF_GetNextLineAddr(pLong->Addr), nextAddr);
  ELF_Deinit();
}

}  // namespace

namespace {

// One gdb expression per line, answers as text in order; "" where gdb reports an error.
std::optional<std::vector<std::string>> GdbPrint(const std::string& sFixture,
                                                 const std::vector<std::string>& Exprs) {
  std::vector<std::string> commands;
  for (const auto& e : Exprs) {
    commands.push_back("echo @@\\n");
    commands.push_back("print " + e);
  }
  std::optional<std::string> text = gdbrecord::Ask(sFixture, "print", commands);
  if (!text)
    return std::nullopt;
  std::vector<std::string> answers;
  std::regex reValue(R"(^\$\d+ = (.*)$)");
  for (const std::string& line : gdbrecord::Lines(*text)) {
    std::smatch m;
    if (line == "@@")
      answers.push_back("");
    else if (!answers.empty() && std::regex_match(line, m, reValue))
      answers.back() = m[1];
  }
  return answers;
}

// Enumerator values and the signedness of globals, as gdb evaluates them on the C fixtures.
TEST_P(ProgramIndexFixture, EnumeratorValuesAndSignednessMatchGdb) {
  if (std::string(GetParam()).rfind("c_", 0) != 0)
    GTEST_SKIP() << "the enumeration and the globals of interest are in the C fixtures";
  ELF_SYM_HANDLE color = ELF_FindSym("color", false, true, false);
  ASSERT_NE(color, 0u);
  std::vector<std::string> exprs;
  std::vector<ELF_SYM_HANDLE> enumerators;
  for (U32 i = 0; i < ELF_GetSymMemberCount(color); i++) {
    enumerators.push_back(ELF_GetSymMember(color, i));
    exprs.push_back("(long long)" + ELF_GetSymName(enumerators.back()).toStdString());
  }
  ASSERT_EQ(enumerators.size(), 3u);
  const char* const kGlobals[] = {"g_myint", "g_ticks", "g_color", "g_name", "g_matrix[0][0]", "g_fn"};
  for (const char* g : kGlobals)
    exprs.push_back(std::string("(typeof(") + g + "))-1 < 0");
  auto recorded = GdbPrint(GetParam(), exprs);
  if (!recorded)
    GTEST_SKIP() << "no recorded answers and no gdb-multiarch";
  const std::vector<std::string>& answers = *recorded;
  ASSERT_EQ(answers.size(), exprs.size());
  for (size_t i = 0; i < enumerators.size(); i++) {
    SCOPED_TRACE(exprs[i]);
    I64 value = -1;
    ASSERT_TRUE(ELF_GetSymConstValue(enumerators[i], &value));
    EXPECT_EQ(std::to_string(value), answers[i]);
  }
  for (size_t i = 0; i < std::size(kGlobals); i++) {
    SCOPED_TRACE(exprs[enumerators.size() + i]);
    std::string name = kGlobals[i];
    ELF_SYM_HANDLE h =
        ELF_FindSym(QString::fromStdString(name.substr(0, name.find('['))), true, false, false);
    ASSERT_NE(h, 0u);
    if (name.find('[') != std::string::npos)
      h = ELF_GetSymDataType(h);  // the element type of the array decides
    EXPECT_EQ(ELF_GetSymSign(h) ? "1" : "0", answers[enumerators.size() + i]);
  }
  EXPECT_FALSE(ELF_GetSymConstValue(ELF_FindSym("main", true, false, false), nullptr));
}

}  // namespace

namespace {

// gdb's "info scope FUNC" for each function: the symbols it lists and the length it gives each
// (-1 where it gives none, as for "optimized out"). Functions it lists are left out.
std::optional<std::map<std::string, std::vector<std::multimap<std::string, long long>>>> GdbScopes(
    const std::string& sFixture, const std::vector<std::string>& Funcs) {
  std::vector<std::string> commands;
  for (const std::string& f : Funcs) {
    commands.push_back("echo @@" + f + "\\n");
    commands.push_back("info scope " + f);
  }
  std::optional<std::string> text = gdbrecord::Ask(sFixture, "scope", commands);
  if (!text)
    return std::nullopt;
  std::map<std::string, std::vector<std::multimap<std::string, long long>>> scopes;
  std::regex reSymbol(R"(^Symbol (\S+) is (.*)$)");
  std::regex reLength(R"(length (\d+)\.$)");
  std::string func, symbol;
  bool isFunction = false;
  for (const std::string& line : gdbrecord::Lines(*text)) {
    std::smatch m;
    if (line.rfind("@@", 0) == 0) {
      func = line.substr(2);
      scopes[func].emplace_back();
      symbol.clear();
    } else if (func.empty()) {
      continue;
    } else if (std::regex_match(line, m, reSymbol)) {
      symbol = m[1];
      isFunction = std::string(m[2]).rfind("a function", 0) == 0;
      if (!isFunction)
        scopes[func].back().insert({symbol, -1});
    }
    if (!symbol.empty() && !isFunction && std::regex_search(line, m, reLength)) {
      auto range = scopes[func].back().equal_range(symbol);
      for (auto it = range.first; it != range.second; ++it) {
        if (it->second < 0) {
          it->second = std::stoll(m[1]);
          break;
        }
      }
    }
  }
  return scopes;
}

// Every local variable and parameter that gdb lists for a function, its inline copies included,
// is a local of ours somewhere in the function's code, with the length gdb gives it.
TEST_P(ProgramIndexFixture, LocalsMatchGdbInfoScope) {
  std::vector<std::string> funcs;
  std::map<std::string, CAddrRange> ranges;
  for (ELF_SYM_HANDLE h : ELF_GetAllFunctions()) {
    std::string name = ELF_GetSymName(h).toStdString();
    CAddrRange r = ELF_GetFuncRange(h);
    if (_IsDwarfSymbolHandle(h) && !name.empty() && name.find(':') == std::string::npos && !r.IsEmpty() &&
        !ranges.count(name)) {
      funcs.push_back(name);
      ranges[name] = r;
    }
  }
  ASSERT_FALSE(funcs.empty());
  auto recorded = GdbScopes(GetParam(), funcs);
  if (!recorded)
    GTEST_SKIP() << "no recorded answers and no gdb-multiarch";
  size_t compared = 0;
  for (const std::string& f : funcs) {
    SCOPED_TRACE(f);
    ASSERT_EQ(recorded->count(f), 1u);
    std::map<std::string, std::set<long long>> ours;
    CAddrRange r = ranges[f];
    for (U32 pc = r.start; pc < r.End(); pc += 2) {
      ELF_SetContextPC(pc);
      for (ELF_SYM_HANDLE local : ELF_GetLocalVars(true))
        ours[ELF_GetSymName(local).toStdString()].insert((long long)ELF_GetSymSize(local));
    }
    for (const auto& [name, length] : recorded->at(f).front()) {
      SCOPED_TRACE(name);
      ASSERT_EQ(ours.count(name), 1u);
      if (length >= 0) {
        EXPECT_EQ(ours[name].count(length), 1u) << "ours: " << *ours[name].begin();
      }
      compared++;
    }
  }
  EXPECT_GT(compared, 0u);
}

}  // namespace

namespace {

// The code blocks of every line: each starts at one of the line's rows in readelf's table, runs
// through instructions of the line in steps of 2 or 4 bytes, and every row of the line lies in a
// block or within 5 bytes behind the line's previous row.
TEST_P(ProgramIndexFixture, LineBlocksCoverTheRowsOfTheirLine) {
  std::map<CSrcLoc, std::set<uint32_t>> rowsOfLine;
  for (const auto& row : KeptRows(GetParam())) {
    if (row.Line < 0)
      continue;
    for (const CSrcLoc& loc : ELF_GetSrcLocs(row.Addr)) {
      if ((int)loc.line == row.Line &&
          BaseNameOf(loc.file) == QFileInfo(QString::fromStdString(row.File)).fileName().toStdString())
        rowsOfLine[CSrcLoc{loc.file, loc.line, 0}].insert(row.Addr);
    }
  }
  ASSERT_FALSE(rowsOfLine.empty());
  int scattered = 0, longBlocks = 0;
  for (const auto& [loc, rows] : rowsOfLine) {
    SCOPED_TRACE(BaseNameOf(loc.file) + ":" + std::to_string(loc.line));
    std::vector<ELF_ADDR_LIST> blocks = ELF_GetLineAddrBlocks(loc);
    ASSERT_FALSE(blocks.empty());
    scattered += blocks.size() > 1;
    std::set<uint32_t> covered;
    for (const ELF_ADDR_LIST& block : blocks) {
      ASSERT_FALSE(block.empty());
      longBlocks += block.size() > 1;
      EXPECT_TRUE(rows.count(block.front())) << std::hex << block.front();
      for (size_t i = 0; i < block.size(); i++) {
        if (i > 0) {
          U32 step = block[i] - block[i - 1];
          EXPECT_TRUE(step == 2 || step == 4) << std::hex << block[i];
        }
        EXPECT_LT(block[i] - block.front(), 256u);
        covered.insert(block[i]);
      }
    }
    uint32_t previous = 0;
    for (uint32_t a : rows) {
      EXPECT_TRUE(covered.count(a) || (previous && a - previous < 5)) << std::hex << a;
      previous = a;
    }
  }
  EXPECT_GT(longBlocks, 0);
  // Instruction sizes from elsewhere: a size nobody knows ends every block at its start.
  ELF_SetInstructionSizeFunc([](U32) { return 3; });
  for (const auto& [loc, rows] : rowsOfLine) {
    for (const ELF_ADDR_LIST& block : ELF_GetLineAddrBlocks(loc))
      EXPECT_EQ(block.size(), 1u);
  }
  ELF_SetInstructionSizeFunc(nullptr);
  RecordProperty("scattered lines", scattered);
}

}  // namespace

namespace {

// gdb's "info line FILE:LINE" for every line of the line table: the address it names, the end of
// the code it gives the line (0 for a line it says "contains no code"), and its file and line.
struct GdbLine {
  std::string file;
  int line = 0;
  uint32_t start = 0, end = 0;
};

std::optional<std::vector<GdbLine>> GdbInfoLines(const std::string& sFixture,
                                                 const std::vector<FileLine>& Lines) {
  std::vector<std::string> commands;
  for (const auto& [file, line] : Lines) {
    commands.push_back("echo @@\\n");
    commands.push_back("info line " + file + ":" + std::to_string(line));
  }
  std::optional<std::string> text = gdbrecord::Ask(sFixture, "line-addresses", commands);
  if (!text)
    return std::nullopt;
  std::vector<GdbLine> answers;
  std::regex reCode(
      R"re(^Line (\d+) of "([^"]+)" starts at address 0x([0-9a-f]+) .* and ends at 0x([0-9a-f]+))re");
  std::regex reNoCode(R"re(^Line (\d+) of "([^"]+)" is at address 0x([0-9a-f]+) .* but contains no code)re");
  // One answer per "@@"; where gdb gives several (a line in several functions) the first counts.
  bool answered = true;
  for (const std::string& line : gdbrecord::Lines(*text)) {
    std::smatch m;
    if (line == "@@") {
      answers.push_back({});
      answered = false;
    } else if (answered || answers.empty()) {
      continue;
    } else if (std::regex_search(line, m, reCode)) {
      answers.back() = {QFileInfo(QString::fromStdString(m[2])).fileName().toStdString(), std::stoi(m[1]),
                        (uint32_t)std::stoul(m[3], nullptr, 16), (uint32_t)std::stoul(m[4], nullptr, 16)};
      answered = true;
    } else if (std::regex_search(line, m, reNoCode)) {
      answers.back() = {QFileInfo(QString::fromStdString(m[2])).fileName().toStdString(), std::stoi(m[1]),
                        (uint32_t)std::stoul(m[3], nullptr, 16), 0};
      answered = true;
    }
  }
  return answers;
}

// Every line with code: the address gdb starts it at is one of ours, and the code gdb gives it
// belongs to the line here too.
TEST_P(ProgramIndexFixture, LineToAddressesMatchesGdb) {
  std::set<FileLine> lines;
  for (const auto& row : KeptRows(GetParam())) {
    if (row.Line > 0)
      lines.insert({QFileInfo(QString::fromStdString(row.File)).fileName().toStdString(), row.Line});
  }
  std::vector<FileLine> list(lines.begin(), lines.end());
  auto recorded = GdbInfoLines(GetParam(), list);
  if (!recorded)
    GTEST_SKIP() << "no recorded answers and no gdb-multiarch";
  ASSERT_EQ(recorded->size(), list.size());
  int withCode = 0;
  for (size_t i = 0; i < list.size(); i++) {
    const GdbLine& g = (*recorded)[i];
    SCOPED_TRACE(list[i].first + ":" + std::to_string(list[i].second));
    if (g.end == 0 || g.file != list[i].first || g.line != list[i].second)
      continue;  // no code of its own in gdb's view
    withCode++;
    CSrcLoc loc = {};
    ASSERT_TRUE(
        ELF_ParseSrcLoc(QString::fromStdString(list[i].first + ":" + std::to_string(list[i].second)), &loc));
    ELF_ADDR_LIST ours = ELF_GetAddrs(loc);
    EXPECT_NE(std::find(ours.begin(), ours.end(), g.start), ours.end()) << std::hex << g.start;
    // Padding behind a function belongs to no line here, where gdb gives it the line before.
    for (uint32_t a = g.start; a < g.end; a += 2) {
      if (ELF_GetFuncAt(a, false)) {
        EXPECT_TRUE(LinesAt(a).count(list[i])) << std::hex << a;
      }
    }
  }
  EXPECT_GT(withCode, 0);
}

// The range of every function as gdb's outermost block of the function has it.
TEST_P(ProgramIndexFixture, FunctionRangesMatchGdb) {
  std::vector<std::pair<ELF_SYM_HANDLE, CAddrRange>> funcs;
  std::vector<std::string> commands;
  for (ELF_SYM_HANDLE h : ELF_GetAllFunctions()) {
    CAddrRange r = ELF_GetFuncRange(h);
    if (!_IsDwarfSymbolHandle(h) || r.IsEmpty())
      continue;
    funcs.push_back({h, r});
    char ac[256];
    snprintf(ac, sizeof(ac),
             "python exec(\"b=gdb.block_for_pc(0x%x)\\nwhile b.superblock and not b.superblock.is_static: "
             "b=b.superblock\\nprint('@@', b.function, hex(b.start), hex(b.end))\")",
             r.start);
    commands.push_back(ac);
  }
  ASSERT_FALSE(funcs.empty());
  auto text = gdbrecord::Ask(GetParam(), "function-ranges", commands);
  if (!text)
    GTEST_SKIP() << "no recorded answers and no gdb-multiarch";
  std::vector<std::string> answers;
  for (const std::string& line : gdbrecord::Lines(*text)) {
    if (line.rfind("@@ ", 0) == 0)
      answers.push_back(line.substr(3));
  }
  ASSERT_EQ(answers.size(), funcs.size());
  for (size_t i = 0; i < funcs.size(); i++) {
    const auto& [h, r] = funcs[i];
    // gdb names C++ functions with their scope and parameters: "shapes::Rect::Area() const".
    std::string name = answers[i].substr(0, answers[i].find(' '));
    name = name.substr(0, name.find('('));
    if (name.rfind("::") != std::string::npos)
      name = name.substr(name.rfind("::") + 2);
    char ac[64];
    snprintf(ac, sizeof(ac), "0x%x 0x%x", r.start, (U32)r.End());
    EXPECT_EQ(name, ELF_GetSymName(h).toStdString());
    EXPECT_EQ(answers[i].substr(answers[i].find(" 0x") + 1), ac);
  }
}

}  // namespace
