// Parsers for the readelf output recorded beside the fixture programs. The tests compare what our
// reader finds with what these records say, so the expected values never come from our own code.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace readelf {

std::string FixturePath(const std::string& sName);
std::vector<std::string> ReadLines(const std::string& sPath);
std::vector<uint8_t> ReadBytes(const std::string& sPath);
std::string BaseName(const std::string& sPath);

struct Section {
  unsigned Index;
  std::string Name;
  std::string Type;
  uint32_t Addr, Offset, Size, EntSize;
  std::string Flags;
};
std::vector<Section> ParseSections(const std::string& sFixture);

struct Segment {
  std::string Type;
  uint32_t Offset, VirtAddr, PhysAddr, FileSize, MemSize;
};
std::vector<Segment> ParseSegments(const std::string& sFixture);
uint32_t ParseEntryPoint(const std::string& sFixture);
// "little", "be8" or "be32", from the header's data and flags lines.
std::string ParseByteOrder(const std::string& sFixture);

struct Symbol {
  unsigned Index;
  uint32_t Value, Size;
  std::string Type, Bind, Ndx, Name;
};
std::vector<Symbol> ParseSymbols(const std::string& sFixture);

struct Die {
  uint64_t Offset;
  int Level;
  std::string Tag;
  uint64_t Parent;                           // offset of the parent DIE, 0 for a unit's root
  std::map<std::string, std::string> Attrs;  // attribute name -> value text as readelf prints it
  bool Has(const std::string& sAttr) const { return Attrs.count(sAttr) != 0; }
  std::string Name() const;  // DW_AT_name without the "(indirect string ...)" prefix
  uint64_t Number(
      const std::string& sAttr) const;  // leading number of a value ("0x1c", "<0x39>", "5 (signed)")
};
struct Unit {
  uint64_t Offset;
  int Version;
  std::string Section;  // ".debug_info" or ".debug_types"
  std::vector<Die> Dies;
};
std::vector<Unit> ParseInfo(const std::string& sFixture);

struct LineRow {
  std::string File;
  int Line;  // -1 for the end of a sequence
  uint32_t Addr;
};
std::vector<LineRow> ParseLines(const std::string& sFixture);

struct AddrRange {
  uint32_t Lo, Hi;
};
// The entries of the location list or range list at Offset in the loc or ranges record.
std::vector<AddrRange> ParseListAt(const std::string& sFixture, const std::string& sKind, uint64_t Offset);

struct FrameCounts {
  unsigned Cies, Fdes, ReturnColumn;
};
FrameCounts ParseFrames(const std::string& sFixture);

}  // namespace readelf
