// The bulk DIE scanner against readelf's dump of every fixture, and against hand-made broken units.
#include <dwarf.h>
#include <gtest/gtest.h>
#include <libdwarf.h>

#include <cstring>
#include <string>
#include <vector>

#include "debuginfo/DwarfScan.h"
#include "debuginfo/tests/ReadelfRecord.h"

namespace {

struct SECTION_BYTES {
  std::vector<uint8_t> bytes;
  bool present = false;
};

SECTION_BYTES _Section(const std::string& sFixture, const std::vector<uint8_t>& Image,
                       const std::string& sName) {
  SECTION_BYTES r;
  for (const readelf::Section& s : readelf::ParseSections(sFixture)) {
    if (s.Name == sName && (uint64_t)s.Offset + s.Size <= Image.size()) {
      r.bytes.assign(Image.begin() + s.Offset, Image.begin() + s.Offset + s.Size);
      r.present = true;
    }
  }
  return r;
}

std::string _TagName(U16 Tag) {
  const char* s = nullptr;
  return dwarf_get_TAG_name(Tag, &s) == DW_DLV_OK ? s : "unknown";
}

class DwarfScanFixture : public ::testing::TestWithParam<const char*> {};

// Every DIE readelf shows is recorded once, at its offset, with its tag, its parent and the
// attributes the symbol tree files DIEs by.
TEST_P(DwarfScanFixture, RecordsMatchReadelf) {
  std::string fixture = GetParam();
  std::vector<uint8_t> image = readelf::ReadBytes(readelf::FixturePath(fixture + ".elf"));
  std::string order = readelf::ParseByteOrder(fixture);
  SECTION_BYTES abbrev = _Section(fixture, image, ".debug_abbrev");
  std::vector<readelf::Unit> units = readelf::ParseInfo(fixture);
  for (const char* sSection : {".debug_info", ".debug_types"}) {
    SCOPED_TRACE(sSection);
    SECTION_BYTES data = _Section(fixture, image, sSection);
    if (!data.present)
      continue;
    DWS_SECTION_SCAN scan;
    std::vector<std::string> problems;
    ASSERT_EQ(DWS_ScanSection(data.bytes.data(), data.bytes.size(), abbrev.bytes.data(), abbrev.bytes.size(),
                              order != "little", std::string(sSection) == ".debug_types", &scan, &problems),
              0);
    EXPECT_TRUE(problems.empty()) << problems.front();
    std::vector<readelf::Die> expected;
    size_t numUnits = 0;
    for (const readelf::Unit& u : units) {
      if (u.Section != sSection)
        continue;
      ASSERT_LT(numUnits, scan.units.size());
      EXPECT_EQ(scan.units[numUnits].headerOffset, u.Offset);
      EXPECT_EQ(scan.units[numUnits].version, u.Version);
      numUnits++;
      expected.insert(expected.end(), u.Dies.begin(), u.Dies.end());
    }
    EXPECT_EQ(scan.units.size(), numUnits);
    ASSERT_EQ(scan.records.size(), expected.size());
    for (size_t i = 0; i < expected.size(); i++) {
      const readelf::Die& want = expected[i];
      const DWS_RECORD& got = scan.records[i];
      SCOPED_TRACE("DIE at 0x" + std::to_string(want.Offset));
      ASSERT_EQ(got.offset, want.Offset);
      EXPECT_EQ(_TagName(got.tag), want.Tag);
      EXPECT_EQ(got.parent == kDwsNoParent ? 0 : scan.records[got.parent].offset, want.Parent);
      EXPECT_EQ((got.flags & DWS_DECL) != 0, want.Has("DW_AT_declaration"));
      EXPECT_EQ((got.flags & DWS_ARTIFICIAL) != 0, want.Has("DW_AT_artificial"));
      EXPECT_EQ((got.flags & DWS_SIZE) != 0, want.Has("DW_AT_byte_size"));
      if (want.Has("DW_AT_byte_size") &&
          want.Attrs.at("DW_AT_byte_size").find("byte block") == std::string::npos) {
        EXPECT_EQ((got.flags & DWS_SIZE_SET) != 0, want.Number("DW_AT_byte_size") != 0);
      }
      EXPECT_EQ((got.flags & DWS_COMPLETES) != 0, want.Has("DW_AT_specification"));
      if (want.Has("DW_AT_specification")) {
        EXPECT_EQ(got.completes, want.Number("DW_AT_specification"));
      }
      EXPECT_EQ((got.flags & DWS_ORIGIN) != 0, want.Has("DW_AT_abstract_origin"));
      if (want.Has("DW_AT_abstract_origin")) {
        EXPECT_EQ(got.origin, want.Number("DW_AT_abstract_origin"));
      }
      EXPECT_EQ(DWS_FindRecord(scan, want.Offset), (I64)i);
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Fixtures, DwarfScanFixture,
                         ::testing::Values("c_O0", "c_O0_dw5", "c_O2", "c_O2_dw4", "c_be8", "c_be32",
                                           "cpp_O0", "cpp_tu4", "cpp_tu5", "gc_O0", "pad_O0"));

// Hand-made sections: a DWARF 4 unit is its header, then DIEs by these abbreviations.
//   1: compile unit, children, DW_AT_name string
//   2: variable, no children, DW_AT_declaration flag_present, DW_AT_byte_size data1
//   3: subprogram, children, DW_AT_specification ref4
//   4: base type, no children, DW_AT_byte_size with a form no one knows (0x7F)
const std::vector<uint8_t> kAbbrev = {
    1,
    DW_TAG_compile_unit,
    1,
    DW_AT_name,
    DW_FORM_string,
    0,
    0,
    2,
    DW_TAG_variable,
    0,
    DW_AT_declaration,
    DW_FORM_flag_present,
    DW_AT_byte_size,
    DW_FORM_data1,
    0,
    0,
    3,
    DW_TAG_subprogram,
    1,
    DW_AT_specification,
    DW_FORM_ref4,
    0,
    0,
    4,
    DW_TAG_base_type,
    0,
    DW_AT_byte_size,
    0x7F,
    0,
    0,
    0,
};

std::vector<uint8_t> _Unit(const std::vector<uint8_t>& Dies, U16 Version = 4, U32 AbbrevOffset = 0) {
  std::vector<uint8_t> u = {0, 0, 0, 0, (uint8_t)Version, (uint8_t)(Version >> 8)};
  for (int i = 0; i < 4; i++)
    u.push_back((uint8_t)(AbbrevOffset >> (8 * i)));
  u.push_back(4);  // address size
  u.insert(u.end(), Dies.begin(), Dies.end());
  U32 length = (U32)u.size() - 4;
  memcpy(u.data(), &length, 4);
  return u;
}

struct SCAN_RESULT {
  DWS_SECTION_SCAN scan;
  std::vector<std::string> problems;
};

SCAN_RESULT _Scan(const std::vector<uint8_t>& Info, const std::vector<uint8_t>& Abbrev = kAbbrev) {
  SCAN_RESULT r;
  DWS_ScanSection(Info.data(), Info.size(), Abbrev.data(), Abbrev.size(), false, false, &r.scan, &r.problems);
  return r;
}

std::vector<uint8_t> operator+(std::vector<uint8_t> a, const std::vector<uint8_t>& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

// A sound unit: "cu" with a declared variable of size 4, and a subprogram whose DW_AT_specification
// names the variable, holding a second variable.
const std::vector<uint8_t> kSoundDies = {1, 'c', 'u', 0, 2, 4, 3, 0x0F, 0, 0, 0, 2, 0, 0, 0, 0};

TEST(DwarfScan, HandMadeUnitsAreRecordedAndBrokenOnesNamed) {
  {
    SCAN_RESULT r = _Scan(_Unit(kSoundDies));
    EXPECT_TRUE(r.problems.empty());
    ASSERT_EQ(r.scan.records.size(), 4u);
    EXPECT_EQ(r.scan.records[0].offset, 11u);
    EXPECT_EQ(r.scan.records[1].flags, DWS_DECL | DWS_DECL_SET | DWS_SIZE | DWS_SIZE_SET);
    EXPECT_EQ(r.scan.records[2].completes, 0x0Fu);
    EXPECT_EQ(r.scan.records[2].completes, r.scan.records[1].offset);
    EXPECT_EQ(r.scan.records[3].parent, 2u);
    EXPECT_EQ(r.scan.records[3].flags & DWS_SIZE_SET, 0);  // byte size 0
  }
  struct {
    const char* sCase;
    std::vector<uint8_t> info;
    std::vector<uint8_t> abbrev;
    size_t records;  // recorded before the scan gave up on the bad unit, plus the sound unit behind
    const char* sProblem;
  } cases[] = {
      {"unknown abbreviation code", _Unit({1, 'c', 0, 9, 0}) + _Unit(kSoundDies), kAbbrev, 1 + 4,
       "unit at offset 0x0: unknown abbreviation code 9 at offset 0xE"},
      {"form nobody knows", _Unit({1, 'c', 0, 4, 0}) + _Unit(kSoundDies), kAbbrev, 1 + 4,
       "unit at offset 0x0: attribute form 0x7F of the DIE at offset 0xE cannot be read"},
      {"string running past the unit", _Unit({1, 'c', 'u'}) + _Unit(kSoundDies), kAbbrev, 0 + 4,
       "unit at offset 0x0: attribute form 0x8 of the DIE at offset 0xB cannot be read"},
      {"unsupported version", _Unit(kSoundDies, 7) + _Unit(kSoundDies), kAbbrev, 0 + 4,
       "unit at offset 0x0: unsupported version"},
      {"abbreviations outside their section", _Unit(kSoundDies, 4, 500) + _Unit(kSoundDies), kAbbrev, 0 + 4,
       "unit at offset 0x0: abbreviation table corrupt or outside its section"},
      {"abbreviation table cut short",
       _Unit(kSoundDies),
       {1, DW_TAG_compile_unit, 1, DW_AT_name},
       0,
       "unit at offset 0x0: abbreviation table corrupt or outside its section"},
      {"length past the section", _Unit(kSoundDies) + std::vector<uint8_t>{0xFF, 0, 0, 0, 4, 0}, kAbbrev, 4,
       "unit at offset 0x1B: length outside the section"},
      {"indirect form to an implicit constant",
       _Unit({1, 'c', 0, 5, DW_FORM_implicit_const, 0}) + _Unit(kSoundDies),
       std::vector<uint8_t>(kAbbrev.begin(), kAbbrev.end() - 1) +
           std::vector<uint8_t>{5, DW_TAG_variable, 0, DW_AT_byte_size, DW_FORM_indirect, 0, 0, 0},
       1 + 4, "unit at offset 0x0: attribute form 0x16 of the DIE at offset 0xE cannot be read"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.sCase);
    SCAN_RESULT r = _Scan(c.info, c.abbrev);
    ASSERT_FALSE(r.problems.empty());
    EXPECT_EQ(r.problems.front(), c.sProblem);
    EXPECT_EQ(r.scan.records.size(), c.records);
    ASSERT_FALSE(r.scan.units.empty());
    EXPECT_EQ(r.scan.units.front().broken, r.problems.front().rfind("unit at offset 0x0:", 0) == 0);
  }
}

TEST(DwarfScan, OffsetsBeyondFourGigabytesAreRefused) {
  std::vector<uint8_t> info = _Unit(kSoundDies);
  DWS_SECTION_SCAN scan;
  std::vector<std::string> problems;
  EXPECT_EQ(DWS_ScanSection(info.data(), 0x100000000ull, kAbbrev.data(), kAbbrev.size(), false, false, &scan,
                            &problems),
            -1);
  EXPECT_TRUE(scan.records.empty());
  EXPECT_EQ(DWS_FindRecord(scan, 11), -1);
}

}  // namespace
