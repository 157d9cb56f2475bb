// Parsers for the recorded readelf output; see ReadelfRecord.h.
#include "ReadelfRecord.h"

#include <fstream>
#include <regex>
#include <sstream>

namespace readelf {

std::string FixturePath(const std::string& sName) {
  return std::string(ZEVRA_SOURCE_DIR) + "/debuginfo/tests/fixtures/" + sName;
}

std::vector<std::string> ReadLines(const std::string& sPath) {
  std::vector<std::string> lines;
  std::ifstream in(sPath);
  std::string line;
  while (std::getline(in, line))
    lines.push_back(line);
  return lines;
}

std::vector<uint8_t> ReadBytes(const std::string& sPath) {
  std::ifstream in(sPath, std::ios::binary);
  return std::vector<uint8_t>((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

std::string BaseName(const std::string& sPath) {
  size_t slash = sPath.find_last_of('/');
  return slash == std::string::npos ? sPath : sPath.substr(slash + 1);
}

static uint32_t Hex(const std::string& s) {
  return (uint32_t)std::stoul(s, nullptr, 16);
}

std::vector<Section> ParseSections(const std::string& sFixture) {
  std::vector<Section> sections;
  // "  [ 2] .text             PROGBITS        08000040 001040 000260 00  AX  0   0  4"
  std::regex re(
      R"(^\s*\[\s*(\d+)\]\s(\S*)\s+(\S+)\s+([0-9a-f]{8}) ([0-9a-f]{6}) ([0-9a-f]{6}) ([0-9a-f]{2})\s(.{3}).*$)");
  for (const std::string& line : ReadLines(FixturePath(sFixture + ".sections.txt"))) {
    std::smatch m;
    if (!std::regex_match(line, m, re))
      continue;
    Section s;
    s.Index = (unsigned)std::stoul(m[1]);
    s.Name = m[2];
    s.Type = m[3];
    s.Addr = Hex(m[4]);
    s.Offset = Hex(m[5]);
    s.Size = Hex(m[6]);
    s.EntSize = Hex(m[7]);
    s.Flags = m[8];
    if (s.Type.empty() || s.Name == "NULL") {  // the null section has no name column
      s.Type = "NULL";
      s.Name = "";
    }
    sections.push_back(s);
  }
  return sections;
}

std::vector<Segment> ParseSegments(const std::string& sFixture) {
  std::vector<Segment> segments;
  std::regex re(R"(^\s+(\S+)\s+0x([0-9a-f]+) 0x([0-9a-f]+) 0x([0-9a-f]+) 0x([0-9a-f]+) 0x([0-9a-f]+) .*$)");
  for (const std::string& line : ReadLines(FixturePath(sFixture + ".segments.txt"))) {
    std::smatch m;
    if (!std::regex_match(line, m, re))
      continue;
    segments.push_back({m[1], Hex(m[2]), Hex(m[3]), Hex(m[4]), Hex(m[5]), Hex(m[6])});
  }
  return segments;
}

uint32_t ParseEntryPoint(const std::string& sFixture) {
  std::regex re(R"(^\s+Entry point address:\s+0x([0-9a-f]+)$)");
  for (const std::string& line : ReadLines(FixturePath(sFixture + ".header.txt"))) {
    std::smatch m;
    if (std::regex_match(line, m, re))
      return Hex(m[1]);
  }
  return 0;
}

std::string ParseByteOrder(const std::string& sFixture) {
  bool big = false, be8 = false;
  for (const std::string& line : ReadLines(FixturePath(sFixture + ".header.txt"))) {
    if (line.find("Data:") != std::string::npos && line.find("big endian") != std::string::npos)
      big = true;
    if (line.find("Flags:") != std::string::npos && line.find("BE8") != std::string::npos)
      be8 = true;
  }
  return !big ? "little" : be8 ? "be8" : "be32";
}

std::vector<Symbol> ParseSymbols(const std::string& sFixture) {
  std::vector<Symbol> symbols;
  std::regex re(R"(^\s*(\d+): ([0-9a-f]{8})\s+(\d+) (\S+)\s+(\S+)\s+\S+\s+(\S+) ?(.*)$)");
  for (const std::string& line : ReadLines(FixturePath(sFixture + ".symbols.txt"))) {
    std::smatch m;
    if (!std::regex_match(line, m, re))
      continue;
    symbols.push_back(
        {(unsigned)std::stoul(m[1]), Hex(m[2]), (uint32_t)std::stoul(m[3]), m[4], m[5], m[6], m[7]});
  }
  return symbols;
}

std::string Die::Name() const {
  auto it = Attrs.find("DW_AT_name");
  if (it == Attrs.end())
    return "";
  std::string v = it->second;
  size_t p = v.rfind("): ");
  if (v.rfind("(indirect", 0) == 0 && p != std::string::npos)
    return v.substr(p + 3);
  return v;
}

uint64_t Die::Number(const std::string& sAttr) const {
  auto it = Attrs.find(sAttr);
  if (it == Attrs.end())
    return 0;
  std::string v = it->second;
  if (!v.empty() && v[0] == '<')
    v = v.substr(1);
  return std::stoull(v, nullptr, 0);
}

std::vector<Unit> ParseInfo(const std::string& sFixture) {
  std::vector<Unit> units;
  std::regex reUnit(R"(^\s+Compilation Unit @ offset (0x[0-9a-f]+|0):$)");
  std::regex reVersion(R"(^\s+Version:\s+(\d+)$)");
  std::regex reDie(R"(^ <(\d+)><([0-9a-f]+)>: Abbrev Number: \d+ \((\S+)\)$)");
  std::regex reAttr(R"(^\s+<[0-9a-f]+>\s+(DW_AT_\w+)\s*:\s?(.*)$)");
  std::regex reSection(R"(^Contents of the (\S+) section:$)");
  std::vector<uint64_t> stack;
  std::string section;
  for (const std::string& line : ReadLines(FixturePath(sFixture + ".info.txt"))) {
    std::smatch m;
    if (std::regex_match(line, m, reSection)) {
      section = m[1];
    } else if (std::regex_match(line, m, reUnit)) {
      units.push_back({std::stoull(m[1], nullptr, 0), 0, section, {}});
      stack.clear();
    } else if (std::regex_match(line, m, reVersion) && !units.empty()) {
      units.back().Version = std::stoi(m[1]);
    } else if (std::regex_match(line, m, reDie) && !units.empty()) {
      Die die;
      die.Level = std::stoi(m[1]);
      die.Offset = Hex(m[2]);
      die.Tag = m[3];
      stack.resize((size_t)die.Level);
      die.Parent = die.Level > 0 ? stack.back() : 0;
      stack.push_back(die.Offset);
      units.back().Dies.push_back(die);
    } else if (std::regex_match(line, m, reAttr) && !units.empty() && !units.back().Dies.empty()) {
      std::string value = m[2];
      while (!value.empty() && (value.back() == ' ' || value.back() == '\t'))
        value.pop_back();
      units.back().Dies.back().Attrs[m[1]] = value;
    }
  }
  return units;
}

std::vector<LineRow> ParseLines(const std::string& sFixture) {
  std::vector<LineRow> rows;
  std::regex reRow(R"(^(\S+)\s+(\d+|-)\s+0x([0-9a-f]+).*$)");
  for (const std::string& line : ReadLines(FixturePath(sFixture + ".lines.txt"))) {
    std::smatch m;
    if (!std::regex_match(line, m, reRow) || m[1] == "File")
      continue;
    rows.push_back({m[1], m[2] == "-" ? -1 : std::stoi(m[2]), Hex(m[3])});
  }
  return rows;
}

// The ranges record holds llvm-dwarfdump's resolved lists: "DW_AT_ranges\t(0x0000006c" and then
// "[0x080000c8, 0x080000fc)" lines, the last one closed by "))".
static std::vector<AddrRange> ParseRangesAt(const std::string& sFixture, uint64_t Offset) {
  std::vector<AddrRange> entries;
  char acStart[40];
  snprintf(acStart, sizeof(acStart), "DW_AT_ranges\t(0x%08llx", (unsigned long long)Offset);
  std::regex reRange(R"(^\s+\[0x([0-9a-f]+), 0x([0-9a-f]+)\)\)?$)");
  bool inList = false;
  for (const std::string& line : ReadLines(FixturePath(sFixture + ".ranges.txt"))) {
    if (!inList) {
      inList = line.find(acStart) != std::string::npos;
      continue;
    }
    std::smatch m;
    if (!std::regex_match(line, m, reRange))
      break;
    entries.push_back({Hex(m[1]), Hex(m[2])});
    if (line.size() >= 2 && line.compare(line.size() - 2, 2, "))") == 0)
      break;
  }
  return entries;
}

std::vector<AddrRange> ParseListAt(const std::string& sFixture, const std::string& sKind, uint64_t Offset) {
  if (sKind == "ranges")
    return ParseRangesAt(sFixture, Offset);
  std::vector<AddrRange> entries;
  char acStart[16];
  snprintf(acStart, sizeof(acStart), "%08llx", (unsigned long long)Offset);
  std::regex reLoc(R"(^\s+([0-9a-f]{8}) ([0-9a-f]{8}) \(.*\)$)");
  bool inList = false;
  for (const std::string& line : ReadLines(FixturePath(sFixture + ".loc.txt"))) {
    size_t first = line.find_first_not_of(' ');
    if (!inList) {
      if (first == std::string::npos || line.compare(first, 8, acStart) != 0)
        continue;
      inList = true;
    }
    if (line.find("<End of list>") != std::string::npos)
      break;
    std::smatch m;
    if (line.find("(base address)") == std::string::npos && std::regex_match(line, m, reLoc)) {
      entries.push_back({Hex(m[1]), Hex(m[2])});
    }
  }
  return entries;
}

FrameCounts ParseFrames(const std::string& sFixture) {
  FrameCounts counts = {0, 0, 0};
  std::regex reReturn(R"(^\s+Return address column:\s+(\d+)$)");
  for (const std::string& line : ReadLines(FixturePath(sFixture + ".frames.txt"))) {
    std::smatch m;
    if (line.size() > 27 && line.find(" CIE") != std::string::npos && line[0] != ' ')
      counts.Cies++;
    if (line.size() > 27 && line.find(" FDE ") != std::string::npos && line[0] != ' ')
      counts.Fdes++;
    if (counts.Cies == 1 && std::regex_match(line, m, reReturn))
      counts.ReturnColumn = (unsigned)std::stoul(m[1]);
  }
  return counts;
}

}  // namespace readelf
