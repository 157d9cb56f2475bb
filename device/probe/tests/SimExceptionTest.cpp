// Faults and the floating-point context of the simulated cores, on programs of a few instructions.
// Expected fault status, handlers and frames follow the ARMv7-M and ARMv6-M exception rules. The
// ARMv7-M rows and the floating-point frames, FPCCR and FPCAR values were also recorded from
// qemu-system-arm 7.2 (-M mps2-an386 for the Cortex-M4, mps2-an385 for the Cortex-M3) running the same
// instructions, stopped by gdb-multiarch at the same addresses.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "device/probe/tests/SimTestSupport.h"

namespace {

// Handlers of the test programs: each fault has a BKPT of its own, so the halt address tells which
// one ran. SVC and IRQ 0 share the code at 0x300.
enum : U32 {
  kHardFault = 0x210,
  kMemManage = 0x220,
  kBusFault = 0x230,
  kUsageFault = 0x240,
  kThreadCode = 0x100,
  kHandlerCode = 0x300,
  kStackTop = 0x20040000,
};

enum : U32 {
  kCFSR = 0xE000ED28,
  kHFSR = 0xE000ED2C,
  kBFAR = 0xE000ED38,
  kICSR = 0xE000ED04,
  kSHCSR = 0xE000ED24,
  kCCR = 0xE000ED14,
  kCPACR = 0xE000ED88,
  kFPCCR = 0xE000EF34,
  kFPCAR = 0xE000EF38,
  kHFSR_FORCED = 0x40000000,
  kSHCSR_MEMFAULTENA = 1u << 16,
  kSHCSR_BUSFAULTENA = 1u << 17,
  kSHCSR_USGFAULTENA = 1u << 18,
  kCCR_UNALIGN_TRP = 0x208,  // with STKALIGN, which stays set
  kCCR_DIV_0_TRP = 0x210,
  kCPACR_FULL = 0x00F00000,
};

void _WriteU32(U32 Addr, U32 Value) {
  ASSERT_EQ(TARVIKARM_WriteMemEx(Addr, 4, &Value, 4), 4) << std::hex << Addr;
}

// Loads the program into flash, clears RAM and resets the core to it.
void _LoadProgram(const std::vector<U16>& aThread, const std::vector<U16>& aHandler) {
  std::vector<U8> aImage(0x400, 0);
  auto Put32 = [&aImage](U32 Addr, U32 v) {
    for (int i = 0; i < 4; i++) {
      aImage[Addr + U32(i)] = U8(v >> (8 * i));
    }
  };
  auto Put16 = [&aImage](U32 Addr, U16 v) {
    aImage[Addr] = U8(v);
    aImage[Addr + 1] = U8(v >> 8);
  };
  Put32(0x00, kStackTop);
  Put32(0x04, kThreadCode | 1);
  const U32 aFaults[][2] = {{2, 0x200}, {3, kHardFault}, {4, kMemManage}, {5, kBusFault}, {6, kUsageFault}};
  for (const auto& f : aFaults) {
    Put32(4 * f[0], f[1] | 1);
    Put16(f[1], U16(0xBE00 | (0xE0 + f[0])));  // bkpt #0xEn
  }
  Put32(4 * 11, kHandlerCode | 1);  // SVC
  Put32(4 * 16, kHandlerCode | 1);  // IRQ 0
  for (size_t i = 0; i < aThread.size(); i++) {
    Put16(kThreadCode + U32(2 * i), aThread[i]);
  }
  for (size_t i = 0; i < aHandler.size(); i++) {
    Put16(kHandlerCode + U32(2 * i), aHandler[i]);
  }
  std::vector<U8> aZero(0x40000, 0);
  ASSERT_EQ(TARVIKARM_WriteMemEx(0x20000000, U32(aZero.size()), aZero.data(), 0), int(aZero.size()));
  TARVIKARM_BeginDownload(0);
  ASSERT_EQ(TARVIKARM_WriteMemEx(0, U32(aImage.size()), aImage.data(), 0), int(aImage.size()));
  ASSERT_EQ(TARVIKARM_EndDownload(), 0);
  ASSERT_EQ(TARVIKARM_Reset(), 0);
}

// Resumes after the BKPT the target stopped on.
U32 _ContinuePastBkpt() {
  TARVIKARM_WriteReg(PROBE_REG_PC, TARVIKARM_ReadReg(PROBE_REG_PC) + 2);
  return CSimSession::RunToHalt();
}

std::vector<U32> _ReadWords(U32 Addr, U32 Count) {
  std::vector<U32> a(Count);
  EXPECT_EQ(TARVIKARM_ReadMemEx(Addr, 4 * Count, a.data(), 4), int(4 * Count));
  return a;
}

struct FAULT_CASE {
  const char* sName;
  const char* sDevice;
  std::vector<U16> aCode;  // thread code at 0x100; BKPT #1 (0xBE01) marks its end
  U32 R0, R1;
  U32 SHCSR, CCR, CPACR, PRIMASK;
  U32 HaltPC;  // the handler's BKPT, or the end of the code when nothing faults
  U32 CFSR, HFSR;
  U32 BFAR;       // checked when CFSR has BFARVALID
  U32 StackedPC;  // return address in the fault's frame, when a handler runs
};

const char* const kM4 = "Simulator Cortex-M4";
const char* const kM3 = "Simulator Cortex-M3";
const char* const kM0 = "Simulator Cortex-M0";
const U32 kCCRReset = 0x200;  // STKALIGN

// clang-format off
const FAULT_CASE kFaultCases[] = {
  // udf #0: UNDEFINSTR; disabled UsageFault escalates, enabled it is taken; masked by PRIMASK it can't
  // preempt and escalates as well.
  {"UndefinedEscalates", kM4, {0xDE00, 0xBE01}, 0, 0, 0, kCCRReset, 0, 0, kHardFault, 1u << 16, kHFSR_FORCED, 0, 0x100},
  {"UndefinedToUsageFault", kM4, {0xDE00, 0xBE01}, 0, 0, kSHCSR_USGFAULTENA, kCCRReset, 0, 0, kUsageFault, 1u << 16, 0, 0, 0x100},
  {"UsageFaultUnderPrimask", kM4, {0xDE00, 0xBE01}, 0, 0, kSHCSR_USGFAULTENA, kCCRReset, 0, 1, kHardFault, 1u << 16, kHFSR_FORCED, 0, 0x100},
  // bx r0 to an even address: INVSTATE at the target.
  {"BranchToArmState", kM4, {0x4700, 0xBE01, 0xBF00}, 0x104, 0, kSHCSR_USGFAULTENA, kCCRReset, 0, 0, kUsageFault, 1u << 17, 0, 0, 0x104},
  // ldr.w pc, [r0] loading 0x10C, and mov sp, r0; pop {pc} popping 0: INVSTATE at the even target.
  {"LoadToPcWithBitZeroClear", kM4, {0xF8D0, 0xF000, 0xBE01, 0xBF00, 0x010C, 0x0000, 0xBF00, 0xBF00}, 0x108, 0, kSHCSR_USGFAULTENA, kCCRReset, 0, 0, kUsageFault, 1u << 17, 0, 0, 0x10C},
  {"PopToPcWithBitZeroClear", kM4, {0x4685, 0xBD00, 0xBE01}, 0x20000100, 0, kSHCSR_USGFAULTENA, kCCRReset, 0, 0, kUsageFault, 1u << 17, 0, 0, 0},
  // udiv r0, r0, r1 by zero: a plain 0 without DIV_0_TRP, DIVBYZERO with it.
  {"DivideByZeroUntrapped", kM4, {0xFBB0, 0xF0F1, 0xBE01}, 5, 0, kSHCSR_USGFAULTENA, kCCRReset, 0, 0, 0x104, 0, 0, 0, 0},
  {"DivideByZeroTrapped", kM4, {0xFBB0, 0xF0F1, 0xBE01}, 5, 0, kSHCSR_USGFAULTENA, kCCR_DIV_0_TRP, 0, 0, kUsageFault, 1u << 25, 0, 0, 0x100},
  // ldrd, ldmia (16 and 32 bit) and push need word alignment whatever CCR says.
  {"UnalignedLdrd", kM4, {0xE9D0, 0x2300, 0xBE01}, 0x20000002, 0, kSHCSR_USGFAULTENA, kCCRReset, 0, 0, kUsageFault, 1u << 24, 0, 0, 0x100},
  {"UnalignedLdmNarrow", kM4, {0xC80C, 0xBE01}, 0x20000002, 0, 0, kCCRReset, 0, 0, kHardFault, 1u << 24, kHFSR_FORCED, 0, 0x100},
  {"UnalignedLdmWide", kM3, {0xE890, 0x000C, 0xBE01}, 0x20000006, 0, kSHCSR_USGFAULTENA, kCCRReset, 0, 0, kUsageFault, 1u << 24, 0, 0, 0x100},
  // cmp r1, #1; it eq; ldrdeq: with r1 = 0 the condition fails and the ldrd does nothing; with r1 = 1
  // it faults.
  {"LdrdSkippedInItBlock", kM4, {0x2901, 0xBF08, 0xE9D0, 0x2300, 0xBE01}, 0x20000002, 0, kSHCSR_USGFAULTENA, kCCRReset, 0, 0, 0x108, 0, 0, 0, 0},
  {"LdrdExecutedInItBlock", kM4, {0x2901, 0xBF08, 0xE9D0, 0x2300, 0xBE01}, 0x20000002, 1, kSHCSR_USGFAULTENA, kCCRReset, 0, 0, kUsageFault, 1u << 24, 0, 0, 0x104},
  // cmp r1, #1; it eq; ldreq r2, [r0] under UNALIGN_TRP: nothing with r1 = 0, a fault with r1 = 1.
  {"TrappedLdrSkippedInItBlock", kM4, {0x2901, 0xBF08, 0x6802, 0xBE01}, 0x20000001, 0, kSHCSR_USGFAULTENA, kCCR_UNALIGN_TRP, 0, 0, 0x106, 0, 0, 0, 0},
  {"TrappedLdrExecutedInItBlock", kM4, {0x2901, 0xBF08, 0x6802, 0xBE01}, 0x20000001, 1, kSHCSR_USGFAULTENA, kCCR_UNALIGN_TRP, 0, 0, kUsageFault, 1u << 24, 0, 0, 0x104},
  // ldr and ldrh at odd addresses: allowed, unless UNALIGN_TRP.
  {"UnalignedLdrUntrapped", kM4, {0x6802, 0xBE01}, 0x20000001, 0, kSHCSR_USGFAULTENA, kCCRReset, 0, 0, 0x102, 0, 0, 0, 0},
  {"UnalignedLdrTrapped", kM4, {0x6802, 0xBE01}, 0x20000001, 0, kSHCSR_USGFAULTENA, kCCR_UNALIGN_TRP, 0, 0, kUsageFault, 1u << 24, 0, 0, 0x100},
  {"UnalignedLdrhTrapped", kM3, {0x8802, 0xBE01}, 0x20000003, 0, kSHCSR_USGFAULTENA, kCCR_UNALIGN_TRP, 0, 0, kUsageFault, 1u << 24, 0, 0, 0x100},
  // ldr r2, [r0] from nothing: a precise BusFault with its address.
  {"PreciseBusFault", kM4, {0x6802, 0xBE01}, 0x30000000, 0, kSHCSR_BUSFAULTENA, kCCRReset, 0, 0, kBusFault, 0x8200, 0, 0x30000000, 0x100},
  {"PreciseBusFaultEscalates", kM4, {0x6802, 0xBE01}, 0x30000000, 0, kSHCSR_USGFAULTENA, kCCRReset, 0, 0, kHardFault, 0x8200, kHFSR_FORCED, 0x30000000, 0x100},
  // bx r0 to nothing: IBUSERR without an address, at the branch target.
  {"InstructionBusFault", kM4, {0x4700, 0xBE01}, 0x30000001, 0, kSHCSR_BUSFAULTENA, kCCRReset, 0, 0, kBusFault, 1u << 8, 0, 0, 0x30000000},
  // bx r0 into the system region, which never executes: IACCVIOL.
  {"ExecuteNeverRegion", kM4, {0x4700, 0xBE01}, 0xE0000001, 0, kSHCSR_MEMFAULTENA, kCCRReset, 0, 0, kMemManage, 1u << 0, 0, 0, 0xE0000000},
  // vadd.f32 s0, s0, s1: NOCP while CPACR gives no access, and always on the Cortex-M3.
  {"FpWithoutAccess", kM4, {0xEE30, 0x0A20, 0xBE01}, 0, 0, kSHCSR_USGFAULTENA, kCCRReset, 0, 0, kUsageFault, 1u << 19, 0, 0, 0x100},
  {"FpWithAccess", kM4, {0xEE30, 0x0A20, 0xBE01}, 0, 0, kSHCSR_USGFAULTENA, kCCRReset, kCPACR_FULL, 0, 0x104, 0, 0, 0, 0},
  {"FpOnCortexM3", kM3, {0xEE30, 0x0A20, 0xBE01}, 0, 0, 0, kCCRReset, kCPACR_FULL, 0, kHardFault, 1u << 19, kHFSR_FORCED, 0, 0x100},
  // ARMv6-M: every fault is a HardFault and there are no fault status registers; unaligned accesses
  // always fault.
  {"CortexM0Undefined", kM0, {0xDE00, 0xBE01}, 0, 0, kSHCSR_USGFAULTENA, kCCRReset, 0, 0, kHardFault, 0, 0, 0, 0x100},
  {"CortexM0UnalignedLdr", kM0, {0x6802, 0xBE01}, 0x20000001, 0, 0, kCCRReset, 0, 0, kHardFault, 0, 0, 0, 0x100},
};
// clang-format on

}  // namespace

TEST(SimFaultStatus, EachFaultKindSetsItsStatusAndRunsTheHandlerTheSettingsSelect) {
  for (const FAULT_CASE& c : kFaultCases) {
    SCOPED_TRACE(c.sName);
    CSimSession Session(c.sDevice);
    _LoadProgram(c.aCode, {});
    _WriteU32(kSHCSR, c.SHCSR);
    _WriteU32(kCCR, c.CCR);
    _WriteU32(kCPACR, c.CPACR);
    TARVIKARM_WriteReg(0, c.R0);
    TARVIKARM_WriteReg(1, c.R1);
    TARVIKARM_WriteReg(PROBE_REG_PRIMASK, c.PRIMASK);
    EXPECT_EQ(CSimSession::RunToHalt(), c.HaltPC);
    EXPECT_EQ(CSimSession::ReadU32(kCFSR), c.CFSR) << "CFSR";
    EXPECT_EQ(CSimSession::ReadU32(kHFSR), c.HFSR) << "HFSR";
    if (c.CFSR & (1u << 15)) {
      EXPECT_EQ(CSimSession::ReadU32(kBFAR), c.BFAR) << "BFAR";
    }
    if (std::string(c.sDevice) != kM0) {
      // The enables as written, and the active bit of the fault handler that runs.
      U32 Active = c.HaltPC == kUsageFault ? 1u << 3 : (c.HaltPC == kBusFault ? 1u << 1 : 0u);
      Active |= c.HaltPC == kMemManage ? 1u : 0u;
      EXPECT_EQ(CSimSession::ReadU32(kSHCSR), c.SHCSR | Active) << "SHCSR";
    }
    if (c.HaltPC >= kHardFault && c.HaltPC <= kUsageFault) {
      U32 SP = TARVIKARM_ReadReg(PROBE_REG_SP);
      EXPECT_EQ(CSimSession::ReadU32(SP + 24), c.StackedPC) << "return address in the frame";
      EXPECT_EQ(TARVIKARM_ReadReg(PROBE_REG_LR), 0xFFFFFFF9u) << "EXC_RETURN: thread, main stack";
      if (std::string(c.sDevice) != kM0) {
        EXPECT_NE(CSimSession::ReadU32(kICSR) & (1u << 11), 0u) << "ICSR.RETTOBASE: one active exception";
      }
    }
  }
}

TEST(SimFaultStatus, DivideByZeroWithoutTheTrapGivesZero) {
  CSimSession Session;
  _LoadProgram({0xFBB0, 0xF0F1, 0xBE01}, {});  // udiv r0, r0, r1
  TARVIKARM_WriteReg(0, 5);
  TARVIKARM_WriteReg(1, 0);
  EXPECT_EQ(CSimSession::RunToHalt(), 0x104u);
  EXPECT_EQ(TARVIKARM_ReadReg(0), 0u);
}

TEST(SimFaultStatus, ExceptionReturnToArmStateFaultsAtTheReturnAddress) {
  CSimSession Session;
  // Thread: nop, svc 0. Handler: clear the T bit of the stacked xPSR and return. (The return address is
  // word aligned: at a halfword QEMU 7.2 reports UNALIGNED instead, as its ARM-state fetch checks come
  // first.)
  _LoadProgram({0xBF00, 0xDF00, 0xBE01}, {0x9807, 0xF020, 0x7080, 0x9007, 0x4770});
  _WriteU32(kSHCSR, kSHCSR_USGFAULTENA);
  EXPECT_EQ(CSimSession::RunToHalt(), U32(kUsageFault));
  EXPECT_EQ(CSimSession::ReadU32(kCFSR), 1u << 17) << "INVSTATE";
  U32 SP = TARVIKARM_ReadReg(PROBE_REG_SP);
  EXPECT_EQ(CSimSession::ReadU32(SP + 24), 0x104u) << "the return address of the SVC";
  EXPECT_EQ(CSimSession::ReadU32(SP + 28) & (1u << 24), 0u) << "EPSR.T clear in the fault's frame";
  EXPECT_EQ(SP, kStackTop - 0x20) << "the SVC frame was unstacked before the fault";
}

TEST(SimFaultStatus, NestedHandlerSeesRetToBaseClear) {
  CSimSession Session;
  // Thread: svc 0. SVC handler: udf, which becomes a UsageFault on top of the active SVC.
  _LoadProgram({0xDF00, 0xBE01}, {0xDE00});
  _WriteU32(kSHCSR, kSHCSR_USGFAULTENA);
  _WriteU32(0xE000ED1C, 0x80000000);  // SHPR2: SVC priority 0x80, below the UsageFault's 0
  EXPECT_EQ(CSimSession::RunToHalt(), U32(kUsageFault));
  EXPECT_EQ(CSimSession::ReadU32(kICSR) & (1u << 11), 0u) << "ICSR.RETTOBASE";
  EXPECT_EQ(CSimSession::ReadU32(kSHCSR) & 0x89u, 0x88u) << "SHCSR: SVCALLACT and USGFAULTACT";
  EXPECT_EQ(TARVIKARM_ReadReg(PROBE_REG_LR), 0xFFFFFFF1u) << "EXC_RETURN: handler mode";
}

// ---- Floating-point context ----

namespace {

// Thread code: enable the FPU (CPACR), write FPCCR from r9, load S0 and S1 from r0 and r1, pend IRQ 0
// and, after the interrupt, copy S0 and S1 to r2 and r3. The interrupt handler overwrites S0 with r12.
const std::vector<U16> kFpThread = {
    0xF8CA, 0x9000,  // 0x100 str.w r9, [r10]     FPCCR
    0x6035,          // 0x104 str r5, [r6]        CPACR
    0xEE00, 0x0A10,  // 0x106 vmov s0, r0
    0xEE00, 0x1A90,  // 0x10A vmov s1, r1
    0x603C,          // 0x10E str r4, [r7]        NVIC_ISER0
    0x601C,          // 0x110 str r4, [r3]        NVIC_ISPR0: the interrupt comes before 0x112
    0xBF00,          // 0x112 nop
    0xEE10, 0x2A10,  // 0x114 vmov r2, s0
    0xEE10, 0x3A90,  // 0x118 vmov r3, s1
    0xBE02,          // 0x11C bkpt #2
};
const std::vector<U16> kFpHandler = {
    0xBE03,          // 0x300 bkpt #3
    0xEE00, 0xCA10,  // 0x302 vmov s0, r12
    0xBE04,          // 0x306 bkpt #4
    0x4770,          // 0x308 bx lr
};

void _SetUpFpRun(U32 FPCCR, bool UseFpInThread) {
  _LoadProgram(kFpThread, kFpHandler);
  const U32 aRegs[][2] = {{0, 0x3F800000}, {1, 0x40000000}, {3, 0xE000E200}, {4, 1},       {5, kCPACR_FULL},
                          {6, kCPACR},     {7, 0xE000E100}, {9, FPCCR},      {10, kFPCCR}, {12, 0x40400000}};
  for (const auto& r : aRegs) {
    TARVIKARM_WriteReg(r[0], r[1]);
  }
  if (!UseFpInThread) {
    // Skip the vmovs: CPACR is opened by the debugger instead.
    _WriteU32(kCPACR, kCPACR_FULL);
    TARVIKARM_WriteReg(PROBE_REG_PC, 0x10E);
  }
}

}  // namespace

TEST(SimFloatingPoint, AnInterruptUsingTheFpuLeavesTheThreadsRegistersAndSavesThemLazily) {
  CSimSession Session;
  _SetUpFpRun(0xC0000000, true);
  // Entry: extended frame with its floating-point part only reserved.
  ASSERT_EQ(CSimSession::RunToHalt(), 0x300u);
  EXPECT_EQ(TARVIKARM_ReadReg(PROBE_REG_LR), 0xFFFFFFE9u) << "EXC_RETURN: thread, main stack, FP frame";
  EXPECT_EQ(TARVIKARM_ReadReg(PROBE_REG_SP), 0x2003FF98u) << "0x68 bytes below the top";
  EXPECT_EQ(TARVIKARM_ReadReg(PROBE_REG_CONTROL), 0u) << "CONTROL.FPCA cleared on entry";
  EXPECT_EQ(CSimSession::ReadU32(kFPCCR), 0xC0000019u) << "ASPEN, LSPEN, HFRDY, THREAD, LSPACT";
  EXPECT_EQ(CSimSession::ReadU32(kFPCAR), 0x2003FFB8u);
  std::vector<U32> aFrame = _ReadWords(0x2003FF98, 26);
  EXPECT_EQ(aFrame[0], 0x3F800000u);
  EXPECT_EQ(aFrame[6], 0x112u) << "return address";
  EXPECT_EQ(aFrame[8], 0u) << "S0 not yet saved";
  EXPECT_EQ(TARVIKARM_ReadReg(PROBE_REG_S0), 0x3F800000u) << "the thread's S0 is still in place";

  // The handler's first FP instruction saves the thread's state at FPCAR.
  ASSERT_EQ(_ContinuePastBkpt(), 0x306u);
  EXPECT_EQ(CSimSession::ReadU32(kFPCCR), 0xC0000018u) << "LSPACT cleared";
  aFrame = _ReadWords(0x2003FF98, 26);
  EXPECT_EQ(aFrame[8], 0x3F800000u) << "S0";
  EXPECT_EQ(aFrame[9], 0x40000000u) << "S1";
  EXPECT_EQ(aFrame[24], 0u) << "FPSCR";
  EXPECT_EQ(TARVIKARM_ReadReg(PROBE_REG_S0), 0x40400000u) << "the handler's S0";
  EXPECT_EQ(TARVIKARM_ReadReg(PROBE_REG_CONTROL), 4u) << "CONTROL.FPCA set by the handler's FP use";

  // The return restores them.
  ASSERT_EQ(_ContinuePastBkpt(), 0x11Cu);
  EXPECT_EQ(TARVIKARM_ReadReg(2), 0x3F800000u) << "thread S0 survived";
  EXPECT_EQ(TARVIKARM_ReadReg(3), 0x40000000u) << "thread S1 survived";
  EXPECT_EQ(TARVIKARM_ReadReg(PROBE_REG_SP), kStackTop);
  EXPECT_EQ(TARVIKARM_ReadReg(PROBE_REG_CONTROL), 4u) << "CONTROL.FPCA back from EXC_RETURN";
}

TEST(SimFloatingPoint, WithoutLazyStackingTheFrameHoldsTheStateAtEntry) {
  CSimSession Session;
  _SetUpFpRun(0x80000000, true);  // ASPEN only
  ASSERT_EQ(CSimSession::RunToHalt(), 0x300u);
  EXPECT_EQ(TARVIKARM_ReadReg(PROBE_REG_LR), 0xFFFFFFE9u);
  EXPECT_EQ(CSimSession::ReadU32(kFPCCR), 0x80000000u);
  EXPECT_EQ(CSimSession::ReadU32(kFPCAR), 0u);
  std::vector<U32> aFrame = _ReadWords(0x2003FF98, 26);
  EXPECT_EQ(aFrame[8], 0x3F800000u) << "S0";
  EXPECT_EQ(aFrame[9], 0x40000000u) << "S1";
  ASSERT_EQ(_ContinuePastBkpt(), 0x306u);
  ASSERT_EQ(_ContinuePastBkpt(), 0x11Cu);
  EXPECT_EQ(TARVIKARM_ReadReg(2), 0x3F800000u);
  EXPECT_EQ(TARVIKARM_ReadReg(3), 0x40000000u);
  EXPECT_EQ(TARVIKARM_ReadReg(PROBE_REG_SP), kStackTop);
}

TEST(SimFloatingPoint, AHandlerThatNeverUsesTheFpuLeavesTheStateUnsaved) {
  CSimSession Session;
  _SetUpFpRun(0xC0000000, true);
  ASSERT_EQ(CSimSession::RunToHalt(), 0x300u);
  TARVIKARM_WriteReg(PROBE_REG_PC, 0x308);  // straight to the return
  ASSERT_EQ(CSimSession::RunToHalt(), 0x11Cu);
  EXPECT_EQ(CSimSession::ReadU32(kFPCCR), 0xC0000018u) << "LSPACT cleared by the return";
  EXPECT_EQ(_ReadWords(0x2003FFB8, 1)[0], 0u) << "nothing was written to the reserved space";
  EXPECT_EQ(TARVIKARM_ReadReg(2), 0x3F800000u);
}

TEST(SimFloatingPoint, ThreadWithoutFpContextGetsABasicFrame) {
  CSimSession Session;
  _SetUpFpRun(0xC0000000, false);
  // Without a barrier after the store that pends it, the interrupt may come some instructions later,
  // after the thread's vmovs have given it a floating-point context: a breakpoint right after the
  // store makes the point of entry exact.
  ASSERT_NE(TARVIKARM_SetBPEx(0x112, 0xFFFFFF00u), 0u);
  ASSERT_EQ(CSimSession::RunToHalt(), 0x112u);
  ASSERT_EQ(CSimSession::RunToHalt(), 0x300u);
  EXPECT_EQ(TARVIKARM_ReadReg(PROBE_REG_LR), 0xFFFFFFF9u);
  EXPECT_EQ(TARVIKARM_ReadReg(PROBE_REG_SP), kStackTop - 0x20);
  EXPECT_EQ(CSimSession::ReadU32(kFPCCR), 0xC0000000u) << "nothing to save lazily";
}

TEST(SimFloatingPoint, ControlAndFpuRegistersReadAsTheCoresHaveThem) {
  {
    CSimSession Session;
    _LoadProgram({0xEE30, 0x0A20, 0xF3EF, 0x8214, 0xBE01}, {});  // vadd.f32 s0, s0, s1; mrs r2, control
    EXPECT_EQ(CSimSession::ReadU32(kFPCCR), 0xC0000000u) << "reset: ASPEN, LSPEN";
    EXPECT_EQ(CSimSession::ReadU32(kCPACR), 0u) << "reset: no coprocessor access";
    _WriteU32(kCPACR, kCPACR_FULL);
    TARVIKARM_WriteReg(PROBE_REG_S0 + 1, 0x3F800000);  // S1 = 1.0
    EXPECT_EQ(CSimSession::RunToHalt(), 0x108u);
    EXPECT_EQ(TARVIKARM_ReadReg(PROBE_REG_CONTROL), 4u) << "FPCA only: CONTROL has bits 0..2";
    EXPECT_EQ(TARVIKARM_ReadReg(2), 4u) << "the same for the program's MRS";
    EXPECT_EQ(TARVIKARM_ReadReg(PROBE_REG_S0), 0x3F800000u) << "0.0 + 1.0";
    EXPECT_EQ(TARVIKARM_WriteReg(PROBE_REG_S31, 0x12345678), 0);
    EXPECT_EQ(TARVIKARM_ReadReg(PROBE_REG_S31), 0x12345678u);
    EXPECT_EQ(TARVIKARM_WriteReg(PROBE_REG_FPSCR, 0x00C00000), 0);
    EXPECT_EQ(TARVIKARM_ReadReg(PROBE_REG_FPSCR), 0x00C00000u);
  }
  for (const char* sDevice : {kM3, kM0}) {
    SCOPED_TRACE(sDevice);
    CSimSession Session(sDevice);
    _LoadProgram({0xBE01}, {});
    U32 Data = 0;
    U8 Status = 0;
    U32 Index = PROBE_REG_S0;
    EXPECT_NE(TARVIKARM_ReadRegs(&Index, &Data, &Status, 1), 0) << "no S0";
    EXPECT_EQ(Status, 1);
    EXPECT_NE(TARVIKARM_WriteReg(PROBE_REG_FPSCR, 0), 0) << "no FPSCR";
    EXPECT_EQ(CSimSession::ReadU32(kFPCCR), 0u);
    EXPECT_EQ(CSimSession::ReadU32(kCPACR), 0u);
  }
}

TEST(SimFloatingPoint, AValueTheDebuggerWritesBeforeTheLazySaveIsTheOneSaved) {
  CSimSession Session;
  _SetUpFpRun(0xC0000000, true);
  ASSERT_EQ(CSimSession::RunToHalt(), 0x300u);
  // The thread's S1 still lives in the register until the handler's first FP instruction saves it.
  EXPECT_EQ(TARVIKARM_WriteReg(PROBE_REG_S0 + 1, 0x41000000), 0);
  ASSERT_EQ(_ContinuePastBkpt(), 0x306u);
  EXPECT_EQ(_ReadWords(0x2003FFBC, 1)[0], 0x41000000u) << "S1 in the frame";
  ASSERT_EQ(_ContinuePastBkpt(), 0x11Cu);
  EXPECT_EQ(TARVIKARM_ReadReg(3), 0x41000000u) << "the thread gets the written value back";
}

// ---- Checks before an instruction while the target runs ----

namespace {

struct CHECKED_RUN_CASE {
  const char* sName;
  const char* sDevice;
  std::vector<U16> aLoad;  // the instruction at 0x106, after three that set r3 and r4
  U32 CCR;
};

// clang-format off
const CHECKED_RUN_CASE kCheckedRunCases[] = {
  {"LdrUnderTheTrap", kM4, {0x6802}, kCCR_UNALIGN_TRP},         // ldr r2, [r0]
  {"LdrhUnderTheTrap", kM3, {0x8802}, kCCR_UNALIGN_TRP},        // ldrh r2, [r0]
  {"LdrWideUnderTheTrap", kM4, {0xF8D0, 0x2000}, kCCR_UNALIGN_TRP},  // ldr.w r2, [r0]
  {"LdrdAlways", kM4, {0xE9D0, 0x2300}, kCCRReset},             // ldrd r2, r3, [r0]
  {"LdmWideAlways", kM3, {0xE890, 0x000C}, kCCRReset},          // ldmia.w r0, {r2, r3}
  {"LdrOnArmV6M", kM0, {0x6802}, kCCRReset},
};
// clang-format on

// movs r3, #1; movs r4, #2; adds r4, r4, r3; <the load from r0 = 0x20000001>; movs r5, #7; bkpt #1
std::vector<U16> _CheckedRunProgram(const std::vector<U16>& aLoad) {
  std::vector<U16> a = {0x2301, 0x2402, 0x18E4};
  a.insert(a.end(), aLoad.begin(), aLoad.end());
  a.insert(a.end(), {0x2507, 0xBE01});
  return a;
}

void _SetUpCheckedRun(const CHECKED_RUN_CASE& c) {
  _LoadProgram(_CheckedRunProgram(c.aLoad), {});
  if (std::string(c.sDevice) != kM0) {
    _WriteU32(kSHCSR, kSHCSR_USGFAULTENA);
    _WriteU32(kCCR, c.CCR);
  }
  TARVIKARM_WriteReg(0, 0x20000001);
}

}  // namespace

TEST(SimFaultChecks, AFaultingAccessInsideABlockFaultsThereAfterTheInstructionsBeforeIt) {
  for (const CHECKED_RUN_CASE& c : kCheckedRunCases) {
    SCOPED_TRACE(c.sName);
    CSimSession Session(c.sDevice);
    _SetUpCheckedRun(c);
    bool IsM0 = std::string(c.sDevice) == kM0;
    EXPECT_EQ(CSimSession::RunToHalt(), IsM0 ? U32(kHardFault) : U32(kUsageFault));
    EXPECT_EQ(CSimSession::ReadU32(TARVIKARM_ReadReg(PROBE_REG_SP) + 24), 0x106u) << "faulting instruction";
    EXPECT_EQ(TARVIKARM_ReadReg(4), 3u) << "the instructions before it ran";
    EXPECT_EQ(TARVIKARM_ReadReg(5), 0u) << "the one after it did not";
    if (!IsM0) {
      EXPECT_EQ(CSimSession::ReadU32(kCFSR), 1u << 24) << "UNALIGNED";
    }
  }
}

TEST(SimFaultChecks, ResumingFromABreakpointOnAFaultingAccessFaultsThere) {
  for (const CHECKED_RUN_CASE& c : kCheckedRunCases) {
    SCOPED_TRACE(c.sName);
    CSimSession Session(c.sDevice);
    _SetUpCheckedRun(c);
    ASSERT_NE(TARVIKARM_SetBPEx(0x106, 0xFFFFFF00u), 0u);
    ASSERT_EQ(CSimSession::RunToHalt(), 0x106u);
    bool IsM0 = std::string(c.sDevice) == kM0;
    EXPECT_EQ(CSimSession::RunToHalt(), IsM0 ? U32(kHardFault) : U32(kUsageFault));
    EXPECT_EQ(CSimSession::ReadU32(TARVIKARM_ReadReg(PROBE_REG_SP) + 24), 0x106u);
  }
}

TEST(SimFaultChecks, ALoopOfCheckedAccessesRunsToItsEnd) {
  // movs r3, #100; 1: ldmia r0!, {r1, r2}; subs r0, #8; subs r3, #1; bne 1b; bkpt #1
  const std::vector<U16> aLoop = {0x2364, 0xC806, 0x3808, 0x3B01, 0xD1FB, 0xBE01};
  for (const char* sDevice : {kM0, kM3, kM4}) {
    SCOPED_TRACE(sDevice);
    CSimSession Session(sDevice);
    _LoadProgram(aLoop, {});
    if (std::string(sDevice) != kM0) {
      _WriteU32(kCCR, kCCR_UNALIGN_TRP | kCCR_DIV_0_TRP);
    }
    _WriteU32(0x20000010, 0x11111111);
    _WriteU32(0x20000014, 0x22222222);
    TARVIKARM_WriteReg(0, 0x20000010);
    EXPECT_EQ(CSimSession::RunToHalt(), 0x10Au);
    EXPECT_EQ(TARVIKARM_ReadReg(3), 0u);
    EXPECT_EQ(TARVIKARM_ReadReg(1), 0x11111111u);
    EXPECT_EQ(TARVIKARM_ReadReg(2), 0x22222222u);
    EXPECT_EQ(TARVIKARM_ReadReg(0), 0x20000010u);
  }
}

TEST(SimFaultChecks, ALongCopyLoopRunsAtSpeedAndAnUnalignedLdmAfterItStillFaults) {
  // movs r3, #1; lsls r3, r3, #20; 1: ldmia r0!, {r1, r2}; subs r0, #8; subs r3, #1; bne 1b;
  // adds r0, #2; ldmia r0!, {r1, r2}; bkpt #1. No trap is set: LDM needs word alignment all the same.
  // Four million instructions one at a time would take far longer than the bound; the last LDM
  // faults at 0x10E.
  const std::vector<U16> aLoop = {0x2301, 0x051B, 0xC806, 0x3808, 0x3B01, 0xD1FB, 0x3002, 0xC806, 0xBE01};
  for (const char* sDevice : {kM3, kM4}) {
    SCOPED_TRACE(sDevice);
    CSimSession Session(sDevice);
    _LoadProgram(aLoop, {});
    _WriteU32(kSHCSR, kSHCSR_USGFAULTENA);
    TARVIKARM_WriteReg(0, 0x20000010);
    EXPECT_EQ(CSimSession::RunToHalt(), U32(kUsageFault));
    EXPECT_EQ(CSimSession::ReadU32(TARVIKARM_ReadReg(PROBE_REG_SP) + 24), 0x10Eu) << "faulting instruction";
    EXPECT_EQ(TARVIKARM_ReadReg(3), 0u) << "the loop ran to its end";
    EXPECT_EQ(CSimSession::ReadU32(kCFSR), 1u << 24) << "UNALIGNED";
  }
}

TEST(SimFaultChecks, AMillionTrappedLoadsAndStoresRunWellWithinTheBound) {
  // movs r3, #1; lsls r3, r3, #20; 1: ldr r1, [r0]; adds r1, #1; str r1, [r0]; subs r3, #1; bne 1b;
  // bkpt #1. Four million instructions: run one at a time they would take far longer than the bound.
  const std::vector<U16> aLoop = {0x2301, 0x051B, 0x6801, 0x3101, 0x6001, 0x3B01, 0xD1FA, 0xBE01};
  for (const char* sDevice : {kM0, kM3, kM4}) {
    SCOPED_TRACE(sDevice);
    CSimSession Session(sDevice);
    _LoadProgram(aLoop, {});
    if (std::string(sDevice) != kM0) {
      _WriteU32(kCCR, kCCR_UNALIGN_TRP);  // the M0 has the trap always
    }
    TARVIKARM_WriteReg(0, 0x20000010);
    EXPECT_EQ(CSimSession::RunToHalt(), 0x10Eu);
    EXPECT_EQ(CSimSession::ReadU32(0x20000010), 1u << 20);
  }
}
