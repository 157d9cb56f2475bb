// Debugging the simulated target through the probe operations: breakpoints, data breakpoints,
// stepping, exceptions, faults, reset, and the test commands that inject failures. Addresses are
// those of the committed programs as arm-none-eabi-objdump lists them (target/elf/*.elf).
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "device/probe/tests/SimTestSupport.h"

namespace {

// basic-O0: Square at 0x48 (called with 1..10, 1..11, 1..12), the loop branch "ble.n 76" at 0xA4,
// Record's "str r3, [r2, #0]" to g_Stats.Count at 0xC4, g_Stats at 0x20000000.
constexpr U32 kSquare = 0x48;
constexpr U32 kLoopBranch = 0xA4;
constexpr U32 kStoreCount = 0xC4;
constexpr U32 kStats = 0x20000000;

std::vector<std::string> g_asWarnings;
void _CollectWarning(const char* s) {
  g_asWarnings.push_back(s);
}

TEST(SimBreakpoints, HardwareBreakpointStopsBeforeTheInstructionEachTime) {
  CSimSession Session;
  Session.Load("basic-O0");
  U32 Handle = TARVIKARM_SetBPEx(kSquare, 0xFFFFFF00u | 2);
  ASSERT_NE(Handle, 0u);
  TARVIK_BP_INFO Info{};
  Info.SizeOfStruct = sizeof(Info);
  Info.Handle = Handle;
  EXPECT_EQ(TARVIKARM_GetBPInfoEx(-1, &Info), 1);
  EXPECT_EQ(Info.ImpFlags, 1u);  // a hardware unit
  for (U32 Arg = 1; Arg <= 3; Arg++) {
    EXPECT_EQ(CSimSession::RunToHalt(), kSquare);
    EXPECT_EQ(TARVIKARM_ReadReg(0), Arg);
  }
  // Resuming from the breakpoint steps over it; after clearing, the program runs to its exit.
  EXPECT_EQ(TARVIKARM_ClrBPEx(Handle), 0);
  EXPECT_EQ(TARVIKARM_GetBPInfoEx(-1, nullptr), 0);
  CSimSession::RunToHalt();
  U32 Reason;
  EXPECT_TRUE(IsAtSemihostingExit(&Reason));
}

TEST(SimBreakpoints, UnitsRunOutThenSoftwareBreakpointsTakeOver) {
  CSimSession Session;
  Session.Load("basic-O0");
  char acOut[256];
  ASSERT_EQ(TARVIKARM_ExecCommand("SimBPUnits=1", acOut, sizeof(acOut)), 0) << acOut;
  const U32 kHardOnly = 0xFFFFFF00u | 2, kAny = 0xFFFFFFF0u | 2;
  U32 h1 = TARVIKARM_SetBPEx(kSquare, kHardOnly);
  EXPECT_NE(h1, 0u);
  EXPECT_EQ(TARVIKARM_SetBPEx(kLoopBranch, kHardOnly), 0u) << "no unit left";
  U32 h2 = TARVIKARM_SetBPEx(kLoopBranch, kAny);
  U32 h3 = TARVIKARM_SetBPEx(0x20001000, kAny);
  struct {
    U32 Handle, Addr, ImpFlags;
  } aExpected[] = {{h1, kSquare, 0x01}, {h2, kLoopBranch, 0x10}, {h3, 0x20001000, 0x02}};
  ASSERT_EQ(TARVIKARM_GetBPInfoEx(-1, nullptr), 3);
  for (int i = 0; i < 3; i++) {
    TARVIK_BP_INFO Info{};
    Info.SizeOfStruct = sizeof(Info);
    EXPECT_EQ(TARVIKARM_GetBPInfoEx(i, &Info), 3);
    EXPECT_EQ(Info.Handle, aExpected[i].Handle);
    EXPECT_EQ(Info.Addr, aExpected[i].Addr);
    EXPECT_EQ(Info.ImpFlags, aExpected[i].ImpFlags) << i;
  }
  // The software breakpoint leaves the program's bytes as they are and still stops.
  EXPECT_EQ(CSimSession::ReadU16(kLoopBranch), 0xDDE7);
  TARVIKARM_ClrBPEx(h1);
  EXPECT_EQ(CSimSession::RunToHalt(), kLoopBranch);
  TARVIKARM_ExecCommand("SimBPUnits=6", acOut, sizeof(acOut));
}

TEST(SimStep, StepsOneInstructionAndIntoCalls) {
  CSimSession Session;
  Session.Load("basic-O0");
  TARVIKARM_SetBPEx(0x78, 0xFFFFFFF0u);  // "bl 48 <Square>"
  ASSERT_EQ(CSimSession::RunToHalt(), 0x78u);
  EXPECT_EQ(TARVIKARM_Step(), 0);
  EXPECT_EQ(TARVIKARM_ReadReg(15), kSquare);
  EXPECT_EQ(TARVIKARM_ReadReg(14), 0x7Du);  // return address with the Thumb bit
  EXPECT_EQ(TARVIKARM_Step(), 0);
  EXPECT_EQ(TARVIKARM_ReadReg(15), 0x4Au);
}

TEST(SimDataBreakpoints, StopRightAfterTheMatchingStore) {
  struct CASE {
    const char* sWhat;
    U32 DataMask;
    U32 Data;
    U32 ExpectedCount;
  } aCases[] = {{"any value", 0xFFFFFFFFu, 0, 1}, {"value 3 only", 0, 3, 3}};
  for (const CASE& C : aCases) {
    SCOPED_TRACE(C.sWhat);
    CSimSession Session;
    auto Syms = Session.Load("basic-O0");
    // Start-up copies g_Stats into RAM, which is a write too: watch from main on.
    TARVIKARM_SetBPEx(Syms["main"], 0xFFFFFFF0u);
    ASSERT_EQ(CSimSession::RunToHalt(), Syms["main"]);
    TARVIKARM_ClrBPEx(0xFFFFFFFFu);
    TARVIK_DATA_EVENT Ev{sizeof(Ev), 1, kStats, 0, C.Data, C.DataMask, 1 | 4, 0x10, {}};
    U32 Handle = 0;
    ASSERT_EQ(TARVIKARM_SetDataEvent(&Ev, &Handle), 0);
    EXPECT_EQ(CSimSession::RunToHalt(), kStoreCount + 2);
    EXPECT_EQ(CSimSession::ReadU32(kStats), C.ExpectedCount);
    EXPECT_EQ(TARVIKARM_ClrDataEvent(Handle), 0);
  }
}

TEST(SimDataBreakpoints, RefusedRequestsCarryTheirErrorBits) {
  CSimSession Session;
  struct CASE {
    const char* sWhat;
    U32 AddrMask, DataMask;
    U8 Access, AccessMask;
    U32 ExpectedBits;
  } aCases[] = {
      {"address mask not a run of low bits", 5, 0xFFFFFFFFu, 1, 0x10, 1u << 5},
      {"access mask without bit 4", 0, 0xFFFFFFFFu, 1, 0x00, 1u << 7},
      {"partial value mask", 0, 0x0000FF00u, 1 | 4, 0x10, 1u << 6},
  };
  for (const CASE& C : aCases) {
    TARVIK_DATA_EVENT Ev{sizeof(Ev), 1, kStats, C.AddrMask, 0, C.DataMask, C.Access, C.AccessMask, {}};
    U32 Handle = 0;
    EXPECT_EQ(U32(TARVIKARM_SetDataEvent(&Ev, &Handle)), 0x80000000u | C.ExpectedBits) << C.sWhat;
  }
  // Four comparators on the Cortex-M4, one of them able to compare values.
  U32 Handle;
  TARVIK_DATA_EVENT Value{sizeof(Value), 1, kStats, 0, 7, 0, 1 | 4, 0x10, {}};
  ASSERT_EQ(TARVIKARM_SetDataEvent(&Value, &Handle), 0);
  Value.Addr += 4;
  EXPECT_EQ(U32(TARVIKARM_SetDataEvent(&Value, &Handle)), 0x80000000u | (1u << 2));
  for (U32 i = 1; i < 4; i++) {
    TARVIK_DATA_EVENT Ev{sizeof(Ev), 1, kStats + 16 * i, 0, 0, 0xFFFFFFFFu, 1, 0x10, {}};
    ASSERT_EQ(TARVIKARM_SetDataEvent(&Ev, &Handle), 0) << i;
  }
  TARVIK_DATA_EVENT Fifth{sizeof(Fifth), 1, kStats + 0x100, 0, 0, 0xFFFFFFFFu, 1, 0x10, {}};
  EXPECT_EQ(U32(TARVIKARM_SetDataEvent(&Fifth, &Handle)), 0x80000000u | (1u << 1));
  EXPECT_EQ(TARVIKARM_GetWPInfoEx(-1, nullptr), 4);
}

TEST(SimExceptions, SysTickHandlerRunsInHandlerModeFromAThreadFrame) {
  CSimSession Session;
  auto Syms = Session.Load("systick-O0");
  TARVIKARM_SetBPEx(Syms["SysTick_Handler"], 0xFFFFFFF0u);
  ASSERT_EQ(CSimSession::RunToHalt(), Syms["SysTick_Handler"]);
  EXPECT_EQ(TARVIKARM_ReadReg(16) & 0x1FF, 15u) << "IPSR";
  EXPECT_EQ(CSimSession::ReadU32(0xE000ED04) & 0x1FF, 15u) << "ICSR.VECTACTIVE";
  EXPECT_EQ(TARVIKARM_ReadReg(14), 0xFFFFFFF9u) << "EXC_RETURN: thread mode, main stack";
  EXPECT_EQ(CSimSession::ReadU32(Syms["g_SvcCount"]), 1u) << "the SVC before SysTick was started";
  EXPECT_EQ(CSimSession::ReadU32(Syms["g_Ticks"]), 0u);
  EXPECT_EQ(CSimSession::RunToHalt(), Syms["SysTick_Handler"]);
  EXPECT_EQ(CSimSession::ReadU32(Syms["g_Ticks"]), 1u);
}

TEST(SimFaults, UnmappedReadEntersTheHardFaultHandlerWithFaultStatus) {
  CSimSession Session;
  auto Syms = Session.Load("fault-O0");
  EXPECT_EQ(CSimSession::RunToHalt(), 0x56u);  // "bkpt 0x0001" in HardFault_Handler
  EXPECT_EQ(CSimSession::ReadU32(Syms["g_FaultCount"]), 1u);
  EXPECT_EQ(CSimSession::ReadU32(0xE000ED38), 0x30000000u) << "BFAR";
  EXPECT_EQ(CSimSession::ReadU32(0xE000ED28) & 0x8200u, 0x8200u) << "CFSR.BFARVALID and PRECISERR";
  EXPECT_NE(CSimSession::ReadU32(0xE000ED2C) & (1u << 30), 0u) << "HFSR.FORCED";
}

TEST(SimFaults, WithoutAHandlerTheTargetHaltsWithAWarning) {
  CSimSession Session;
  Session.Load("fault-O0");
  U32 Zero = 0;
  ASSERT_EQ(TARVIKARM_WriteMemEx(0x0C, 4, &Zero, 4), 4);  // HardFault vector
  g_asWarnings.clear();
  TARVIKARM_SetWarnOutHandler(_CollectWarning);
  CSimSession::RunToHalt();
  TARVIKARM_IsHalted();  // messages of the target's thread arrive with the next operation
  ASSERT_EQ(g_asWarnings.size(), 1u);
  EXPECT_NE(g_asWarnings[0].find("no HardFault handler"), std::string::npos) << g_asWarnings[0];
  EXPECT_NE(g_asWarnings[0].find("0x30000000"), std::string::npos) << g_asWarnings[0];
}

TEST(SimMemory, HolesFailAndReadsStopAtTheEndOfMemory) {
  CSimSession Session;
  U8 ac[8];
  U32 v;
  U8 Status = 0xFF;
  EXPECT_EQ(TARVIKARM_ReadMemEx(0x10000000, 4, ac, 0), -1);
  EXPECT_EQ(TARVIKARM_ReadMemHW(0x40000000, 4, ac), -1);
  EXPECT_EQ(TARVIKARM_ReadMemU32(0x00100000, 1, &v, &Status), -1);
  EXPECT_EQ(Status, 1);
  EXPECT_EQ(TARVIKARM_ReadMemEx(0x2003FFFC, 8, ac, 0), 4);
  EXPECT_EQ(TARVIKARM_WriteU32(0x30000000, 1), -1);
  EXPECT_EQ(TARVIKARM_ReadMemEx(0x20000001, 4, ac, 4), -1) << "unaligned word access";
}

TEST(SimReset, HaltsAtTheResetVectorAndStateSurvivesCloseAndOpen) {
  CSimSession Session;
  auto Syms = Session.Load("basic-O0");
  EXPECT_EQ(TARVIKARM_ReadReg(15), Syms["Reset_Handler"]);
  EXPECT_EQ(TARVIKARM_ReadReg(13), 0x20040000u);
  EXPECT_EQ(TARVIKARM_ReadReg(16), 0x01000000u);
  TARVIKARM_SetBPEx(kSquare, 0xFFFFFFF0u);
  ASSERT_EQ(CSimSession::RunToHalt(), kSquare);
  TARVIKARM_Close();
  EXPECT_EQ(TARVIKARM_IsOpen(), 0);
  ASSERT_EQ(TARVIKARM_Open(), nullptr);
  ASSERT_EQ(TARVIKARM_Connect(), 0);
  EXPECT_EQ(TARVIKARM_IsHalted(), 1);
  EXPECT_EQ(TARVIKARM_ReadReg(15), kSquare);
}

TEST(SimFaultInjection, EachInjectedFaultShowsInItsOperation) {
  CSimSession Session;
  std::map<std::string, U32> Symbols = Session.Load("demo-O0");
  // The start-up code becomes a branch to itself, so a target that runs after a reset or a resume can't
  // reach the program's semihosting call and halt there while the test looks.
  ASSERT_NE(Symbols.count("Reset_Handler"), 0u);
  ASSERT_EQ(TARVIKARM_WriteU16(Symbols["Reset_Handler"] & ~1u, 0xE7FE), 0);
  char acOut[256];
  ASSERT_EQ(TARVIKARM_ExecCommand("SimFault=StepFail", acOut, sizeof(acOut)), 0);
  EXPECT_NE(TARVIKARM_Step(), 0);
  EXPECT_EQ(TARVIKARM_Step(), 0) << "faults are one-shot";

  ASSERT_EQ(TARVIKARM_ExecCommand("SimFault=HaltTimeout", acOut, sizeof(acOut)), 0);
  TARVIKARM_GoEx(0, 1);
  EXPECT_NE(TARVIKARM_Halt(), 0);
  EXPECT_EQ(TARVIKARM_Halt(), 0);

  ASSERT_EQ(TARVIKARM_ExecCommand("SimFault=ResetNoHalt", acOut, sizeof(acOut)), 0);
  EXPECT_EQ(TARVIKARM_Reset(), 0);
  EXPECT_EQ(TARVIKARM_IsHalted(), 0);
  TARVIKARM_Halt();

  for (const char* sFault : {"SimFault=VerifyError", "SimFault=EraseError"}) {
    ASSERT_EQ(TARVIKARM_ExecCommand(sFault, acOut, sizeof(acOut)), 0);
    TARVIKARM_BeginDownload(0);
    EXPECT_LT(TARVIKARM_EndDownload(), 0) << sFault;
  }

  ASSERT_EQ(TARVIKARM_ExecCommand("SimResume", acOut, sizeof(acOut)), 0);
  EXPECT_EQ(TARVIKARM_IsHalted(), 0);
  TARVIKARM_Halt();

  ASSERT_EQ(TARVIKARM_ExecCommand("SimFault=ConnLost", acOut, sizeof(acOut)), 0);
  EXPECT_LT(TARVIKARM_IsHalted(), 0);
  EXPECT_EQ(TARVIKARM_IsConnected(), 0);
  EXPECT_EQ(TARVIKARM_Connect(), 0);
  EXPECT_EQ(TARVIKARM_IsHalted(), 1);

  EXPECT_NE(TARVIKARM_ExecCommand("SimFault=Gremlins", acOut, sizeof(acOut)), 0);
  EXPECT_NE(std::string(acOut).find("Gremlins"), std::string::npos) << acOut;
}

}  // namespace
