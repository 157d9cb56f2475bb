// Recorded gdb-multiarch answers; see GdbRecord.h.
#include "GdbRecord.h"

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>

#include "ReadelfRecord.h"

namespace gdbrecord {

namespace {

std::string _Quote(const std::string& s) {
  std::string q = "'";
  for (char c : s)
    q += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return q + "'";
}

std::optional<std::string> _Run(const std::string& sElf, const std::vector<std::string>& Commands) {
  if (system("gdb-multiarch --version > /dev/null 2>&1") != 0)
    return std::nullopt;
  std::string cmd = "gdb-multiarch -batch -nx";
  for (const std::string& c : Commands)
    cmd += " -ex " + _Quote(c);
  cmd += " " + _Quote(sElf) + " 2>&1";
  FILE* p = popen(cmd.c_str(), "r");
  if (!p)
    return std::nullopt;
  std::string out;
  char ac[4096];
  size_t n;
  while ((n = fread(ac, 1, sizeof(ac), p)) > 0)
    out.append(ac, n);
  pclose(p);
  return out;
}

// The first line of a record names its commands, one "-ex" each.
std::string _Header(const std::vector<std::string>& Commands) {
  std::string h = "# gdb-multiarch -batch -nx";
  for (const std::string& c : Commands)
    h += " -ex " + _Quote(c);
  return h;
}

}  // namespace

std::optional<std::string> Ask(const std::string& sFixture, const std::string& sKind,
                               const std::vector<std::string>& Commands) {
  std::string sRecord = readelf::FixturePath(sFixture + ".gdb-" + sKind + ".txt");
  std::string sElf = readelf::FixturePath(sFixture + ".elf");
  std::string header = _Header(Commands);
  const char* sRecordEnv = getenv("ZEVRA_RECORD_GDB");
  if (sRecordEnv && std::string(sRecordEnv) == "1") {
    std::optional<std::string> out = _Run(sElf, Commands);
    if (out) {
      std::ofstream f(sRecord, std::ios::binary | std::ios::trunc);
      f << header << "\n" << *out;
    }
    return out;
  }
  std::ifstream f(sRecord, std::ios::binary);
  if (f) {
    std::stringstream ss;
    ss << f.rdbuf();
    std::string text = ss.str();
    size_t eol = text.find('\n');
    if (eol != std::string::npos && text.compare(0, eol, header) == 0)
      return text.substr(eol + 1);
  }
  return _Run(sElf, Commands);
}

std::vector<std::string> Lines(const std::string& sText) {
  std::vector<std::string> lines;
  std::istringstream in(sText);
  std::string line;
  while (std::getline(in, line))
    lines.push_back(line);
  return lines;
}

}  // namespace gdbrecord
