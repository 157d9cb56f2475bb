// The layer's registers in a server's target description: the description and g-packet layout that
// qemu-system-arm 7.2 -M mps2-an386 gives (recorded with gdb-multiarch's "maint print xml-tdesc"), where
// the FPU appears as d0..d15 and fpscr, and one that names the single registers itself.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "device/probe/GdbRemote.h"
#include "device/probe/ProbeCore.h"

namespace {

std::string _QemuAn386Description() {
  std::string s =
      "<?xml version=\"1.0\"?><!DOCTYPE target SYSTEM \"gdb-target.dtd\"><target><architecture>arm"
      "</architecture><feature name=\"org.gnu.gdb.arm.m-profile\">";
  for (int i = 0; i < 13; i++) {
    s += "<reg name=\"r" + std::to_string(i) + "\" bitsize=\"32\" type=\"int\" regnum=\"" +
         std::to_string(i) + "\"/>";
  }
  s += "<reg name=\"sp\" bitsize=\"32\" type=\"data_ptr\" regnum=\"13\"/><reg name=\"lr\" bitsize=\"32\" "
       "type=\"int\" regnum=\"14\"/><reg name=\"pc\" bitsize=\"32\" type=\"code_ptr\" regnum=\"15\"/><reg "
       "name=\"xpsr\" bitsize=\"32\" type=\"int\" regnum=\"25\"/></feature><feature "
       "name=\"org.gnu.gdb.arm.vfp\">";
  for (int d = 0; d < 16; d++) {
    s += "<reg name=\"d" + std::to_string(d) + "\" bitsize=\"64\" type=\"float\" regnum=\"" +
         std::to_string(26 + d) + "\"/>";
  }
  return s +
         "<reg name=\"fpscr\" bitsize=\"32\" type=\"int\" regnum=\"42\" group=\"float\"/></feature><feature "
         "name=\"org.qemu.gdb.arm.sys.regs\"></feature></target>";
}

}  // namespace

TEST(GdbRegisterMap, SingleRegistersAreTheHalvesOfTheServersDoubleRegisters) {
  std::vector<GDB_REG_SLOT> aSlots;
  ASSERT_TRUE(GDB_MapRegisters(_QemuAn386Description(), aSlots));
  ASSERT_EQ(aSlots.size(), size_t(PROBE_NUM_REGS));
  // The g packet: r0..pc and xPSR (17 words), then d0..d15 (8 bytes each), then fpscr.
  const struct {
    U32 Index;
    int Number, Offset, NumBytes, Part;
  } aCases[] = {
      {PROBE_REG_XPSR, 25, 64, 4, 0},           {PROBE_REG_S0, 26, 68, 8, 0},
      {PROBE_REG_S0 + 1, 26, 72, 8, 4},         {PROBE_REG_S0 + 6, 29, 92, 8, 0},
      {PROBE_REG_S0 + 7, 29, 96, 8, 4},         {PROBE_REG_S31, 41, 68 + 15 * 8 + 4, 8, 4},
      {PROBE_REG_FPSCR, 42, 68 + 16 * 8, 4, 0},
  };
  for (const auto& c : aCases) {
    SCOPED_TRACE(c.Index);
    EXPECT_EQ(aSlots[c.Index].Number, c.Number);
    EXPECT_EQ(aSlots[c.Index].Offset, c.Offset);
    EXPECT_EQ(aSlots[c.Index].NumBytes, c.NumBytes);
    EXPECT_EQ(aSlots[c.Index].Part, c.Part);
  }
  EXPECT_LT(aSlots[PROBE_REG_CONTROL].Number, 0) << "QEMU 7.2 describes no CONTROL";
}

TEST(GdbRegisterMap, SingleRegistersByTheirOwnNamesAndNoFpuAtAll) {
  std::string sCore =
      "<feature name=\"org.gnu.gdb.arm.m-profile\"><reg name=\"r0\" bitsize=\"32\"/><reg name=\"r1\" "
      "bitsize=\"32\"/><reg name=\"r2\" bitsize=\"32\"/><reg name=\"r3\" bitsize=\"32\"/><reg name=\"r4\" "
      "bitsize=\"32\"/><reg name=\"r5\" bitsize=\"32\"/><reg name=\"r6\" bitsize=\"32\"/><reg name=\"r7\" "
      "bitsize=\"32\"/><reg name=\"r8\" bitsize=\"32\"/><reg name=\"r9\" bitsize=\"32\"/><reg name=\"r10\" "
      "bitsize=\"32\"/><reg name=\"r11\" bitsize=\"32\"/><reg name=\"r12\" bitsize=\"32\"/><reg name=\"sp\" "
      "bitsize=\"32\"/><reg name=\"lr\" bitsize=\"32\"/><reg name=\"pc\" bitsize=\"32\"/><reg name=\"xpsr\" "
      "bitsize=\"32\"/></feature>";
  std::vector<GDB_REG_SLOT> aSlots;
  ASSERT_TRUE(GDB_MapRegisters(sCore, aSlots));
  for (U32 i = PROBE_REG_S0; i <= PROBE_REG_FPSCR; i++) {
    EXPECT_LT(aSlots[i].Number, 0) << i;
  }
  // s0..s31 as registers of their own, numbered on from xPSR (16); "s32" and "s05" are nobody's.
  std::string sSingles = "<feature name=\"org.example.fpu\">";
  for (int i = 0; i < 32; i++) {
    sSingles += "<reg name=\"s" + std::to_string(i) + "\" bitsize=\"32\"/>";
  }
  sSingles +=
      "<reg name=\"s32\" bitsize=\"32\"/><reg name=\"s05\" bitsize=\"32\"/><reg name=\"fpscr\" "
      "bitsize=\"32\"/>";
  ASSERT_TRUE(GDB_MapRegisters(sCore + sSingles + "</feature>", aSlots));
  EXPECT_EQ(aSlots[PROBE_REG_S0].Number, 17);
  EXPECT_EQ(aSlots[PROBE_REG_S0].Offset, 68);
  EXPECT_EQ(aSlots[PROBE_REG_S31].Number, 48);
  EXPECT_EQ(aSlots[PROBE_REG_S31].Part, 0);
  EXPECT_EQ(aSlots[PROBE_REG_FPSCR].Number, 51);
  EXPECT_EQ(aSlots[PROBE_REG_FPSCR].Offset, 4 * 51);  // behind s32 and s05, which take their room
}
