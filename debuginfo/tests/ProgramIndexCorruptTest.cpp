// The program index over corrupt programs: flipped bytes in the DWARF sections and the symbol
// table must give a load that fails cleanly or an index whose every query answers, never a crash.
#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

#include "ReadelfRecord.h"
#include "debuginfo/ProgramIndex.h"
#include "debuginfo/SymbolQueries.h"

namespace {

// Asks every kind of question of the loaded index; returns a number made of the answers so that
// nothing is optimised away.
unsigned ExerciseIndex() {
  unsigned sum = 0;
  CAddrRange program = ELF_GetProgramRange();
  U64 end = std::min<U64>(program.End(), (U64)program.start + 0x2000);
  for (U64 a = program.start; a < end; a += 2) {
    U32 addr = (U32)a;
    sum += (unsigned)ELF_GetSrcLocs(addr).size();
    sum += (unsigned)ELF_GetFuncAt(addr, false) + (unsigned)ELF_GetFuncAt(addr, true);
    sum += ELF_GetFileAt(addr) + ELF_GetCodeType(addr) + ELF_GetPrevAddr(addr) + ELF_GetNextAddr(addr);
    sum += ELF_IsFirstAddrOfStatement(addr);
  }
  for (U32 id : ELF_GetFileIds()) {
    for (U32 line = 1; line < 120; line++) {
      CSrcLoc loc{id, line, 0};
      sum += (unsigned)ELF_GetAddrs(loc).size() + ELF_GetNextCodeLine(loc).line + ELF_IsUniqueCodeLine(loc);
    }
    sum += (unsigned)ELF_NormaliseSrcLocText(ELF_GetSrcLocText(CSrcLoc{id, 10, 0})).size();
  }
  for (ELF_SYM_HANDLE h : ELF_GetAllFunctions()) {
    CAddrRange r = ELF_GetFuncRange(h);
    sum += r.start + ELF_GetSymSize(h) + ELF_GetSymDeclLoc(h).line + (unsigned)ELF_GetSymName(h).size();
    ELF_SetContextPC(r.start);
    for (ELF_SYM_HANDLE local : ELF_GetLocalVars(false))
      sum += ELF_GetSymLoc(local, r.start).kind + ELF_IsInScope(local, r.start);
    ELF_SYM_LOC rows[ELF_FRAME_ROWS];
    sum += (unsigned)ELF_GetFrameRows(r.start, rows);
    sum += (unsigned)ELF_GetFuncStackSize(r.start) + ELF_GetCfiRange(r.start).size;
  }
  for (ELF_SYM_HANDLE h : ELF_GetGlobals()) {
    QString name = ELF_GetSymName(h);
    sum += (unsigned)ELF_FindSyms(name, true, true, true).size();
    sum += ELF_GetSymAddr(h) + ELF_GetSymSize(h) + ELF_GetSymArrayInfo(h).dimCount;
    sum +=
        (unsigned)ELF_GetSymDataTypeName(h).size() + (unsigned)ELF_GetSymLocText(ELF_GetSymLoc(h, 0)).size();
    ELF_SYM_HANDLE type = ELF_GetSymDataType(h);
    for (U32 i = 0; i < ELF_GetSymMemberCount(type) && i < 64; i++) {
      ELF_SYM_HANDLE m = ELF_GetSymMember(type, i);
      sum += (unsigned)ELF_GetSymMemberOffset(m) + ELF_GetSymBitOffset(m) + ELF_GetSymBitWidth(m);
    }
  }
  return sum;
}

std::string WriteTemp(const std::vector<uint8_t>& Bytes) {
  std::string path = std::string(ZEVRA_BINARY_DIR) + "/program-index-corrupt.elf";
  FILE* f = fopen(path.c_str(), "wb");
  if (f) {
    fwrite(Bytes.data(), 1, Bytes.size(), f);
    fclose(f);
  }
  return path;
}

class ProgramIndexCorrupt : public ::testing::TestWithParam<const char*> {};

TEST_P(ProgramIndexCorrupt, FlippedBytesLoadCleanlyAndEveryQueryAnswers) {
  const auto good = readelf::ReadBytes(readelf::FixturePath(std::string(GetParam()) + ".elf"));
  ASSERT_FALSE(good.empty());
  std::vector<size_t> offsets;
  for (const auto& s : readelf::ParseSections(GetParam())) {
    if (s.Name.rfind(".debug_", 0) != 0 && s.Name != ".symtab")
      continue;
    size_t step = s.Size / 24 + 1;
    for (size_t i = 0; i < s.Size; i += step)
      offsets.push_back(s.Offset + i);
    for (size_t i = 0; i < 12 && i < s.Size; i++)
      offsets.push_back(s.Offset + i);  // unit and table headers
  }
  int loaded = 0;
  for (size_t offset : offsets) {
    for (uint8_t pattern : {(uint8_t)0xFF, (uint8_t)0x80}) {
      SCOPED_TRACE(std::to_string(offset) + " ^ " + std::to_string(pattern));
      auto bytes = good;
      bytes[offset] ^= pattern;
      if (ELF_Init(WriteTemp(bytes).c_str()) == 0) {
        loaded++;
        ExerciseIndex();
      }
      ELF_Deinit();
      EXPECT_FALSE(ELF_IsLoaded());
    }
  }
  EXPECT_GT(loaded, 0);
}

INSTANTIATE_TEST_SUITE_P(Fixtures, ProgramIndexCorrupt, ::testing::Values("c_O2", "cpp_O0", "c_O0_dw5"));

}  // namespace
