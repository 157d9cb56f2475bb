// The simulator runs the committed target programs: to their semihosting exit, through SysTick,
// SVC and PendSV, into a HardFault, and out through ITM and the memory channel.
#include <gtest/gtest.h>

#include "device/probe/tests/SimTestSupport.h"

namespace {

// Each program's expected end, from running the same image on QEMU (qemu-system-arm -M mps2-an385
// -semihosting): all of them exit with status 0.
struct RUN_CASE {
  const char* sDevice;
  const char* sProgram;
};

class SimRunsToExit : public testing::TestWithParam<RUN_CASE> {};

TEST_P(SimRunsToExit, EndsAtSemihostingExitWithSuccess) {
  CSimSession Session(GetParam().sDevice);
  Session.Load(GetParam().sProgram);
  U32 Reason = 0;
  for (int i = 0; i < 10; i++) {  // semihosting writes stop on the way; only SYS_EXIT ends the loop
    CSimSession::RunToHalt();
    if (IsAtSemihostingExit(&Reason)) {
      break;
    }
    TARVIKARM_WriteReg(15, TARVIKARM_ReadReg(15) + 2);
  }
  ASSERT_TRUE(IsAtSemihostingExit(&Reason)) << "PC " << std::hex << TARVIKARM_ReadReg(15);
  EXPECT_EQ(Reason, 0x20026u);
}

INSTANTIATE_TEST_SUITE_P(Programs, SimRunsToExit,
                         testing::Values(RUN_CASE{"Simulator Cortex-M4", "basic-O0"},
                                         RUN_CASE{"Simulator Cortex-M4", "basic-O2"},
                                         RUN_CASE{"Simulator Cortex-M3", "basic-O0-dwarf4"},
                                         RUN_CASE{"Simulator Cortex-M0", "basic-m0-O0"},
                                         RUN_CASE{"Simulator Cortex-M4", "semihosting-O0"},
                                         RUN_CASE{"Simulator Cortex-M4", "itm-O2"},
                                         RUN_CASE{"Simulator Cortex-M4", "systick-O0"},
                                         RUN_CASE{"Simulator Cortex-M4", "systick-O2"},
                                         RUN_CASE{"Simulator Cortex-M0", "systick-m0-O2"}));

}  // namespace
