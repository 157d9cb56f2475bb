// Data streams out of the simulated target: ITM through SWO, the memory channel both ways, the
// instruction trace with its per-halfword counters, and high speed sampling.
#include <gtest/gtest.h>

#include <string>

#include "device/probe/tests/SimTestSupport.h"

namespace {

std::string _ReadPort(U32 Port) {
  char ac[256];
  U32 n = TARVIKARM_SWO_ReadStimulus(Port, ac, sizeof(ac));
  return std::string(ac, n);
}

TEST(SimITM, StimulusPortsReachSWOOnlyWhenEnabled) {
  for (bool Enable : {false, true}) {
    SCOPED_TRACE(Enable ? "SWO enabled" : "SWO off");
    CSimSession Session;
    Session.Load("itm-O0");
    TARVIKARM_SWO_Control(2, nullptr);
    if (Enable) {
      int CpuHz = TARVIKARM_MeasureCPUSpeedEx(0x20000000, 1, 1);
      ASSERT_GT(CpuHz, 0);
      U32 aSpeeds[4];
      ASSERT_GT(TARVIKARM_SWO_GetCompatibleSpeeds(U32(CpuHz), 0, aSpeeds, 4), 0);
      ASSERT_EQ(TARVIKARM_SWO_EnableTarget(U32(CpuHz), aSpeeds[0], 0, 0x3), 0);
    }
    CSimSession::RunToHalt();
    U32 Reason;
    ASSERT_TRUE(IsAtSemihostingExit(&Reason));
    EXPECT_EQ(_ReadPort(0), Enable ? "ITM port 0\n" : "");
    EXPECT_EQ(_ReadPort(1), Enable ? "port 1\n" : "");
    TARVIKARM_SWO_DisableTarget(0xFFFFFFFFu);
  }
}

TEST(SimMCT, EchoesBothWaysWithAndWithoutTheBlockAddress) {
  for (bool GiveAddr : {true, false}) {
    SCOPED_TRACE(GiveAddr ? "SetMCTAddr" : "RAM search");
    CSimSession Session;
    auto Syms = Session.Load("mct_echo-O0");
    TARVIKARM_GoEx(0, 1);
    char acOut[256];
    // The target sets its block up first; until then Start finds nothing and is retried.
    std::string sRead;
    auto End = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    bool Started = false;
    while (!Started && std::chrono::steady_clock::now() < End) {
      if (GiveAddr) {
        char acCmd[64];
        snprintf(acCmd, sizeof(acCmd), "SetMCTAddr 0x%x", Syms["_QUORIN_MCT"]);
        if (TARVIKARM_ExecCommand(acCmd, acOut, sizeof(acOut)) != 0) {
          continue;
        }
      }
      Started = TARVIK_MCTERMINAL_Control(0, nullptr) == 0;
    }
    ASSERT_TRUE(Started);
    auto ReadUntil = [&](const std::string& sWanted) {
      auto Deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
      while (sRead.find(sWanted) == std::string::npos && std::chrono::steady_clock::now() < Deadline) {
        char ac[64];
        int n = TARVIK_MCTERMINAL_Read(0, ac, sizeof(ac));
        ASSERT_GE(n, 0);
        sRead.append(ac, size_t(n));
      }
      EXPECT_NE(sRead.find(sWanted), std::string::npos) << sRead;
    };
    ReadUntil("MCT ready\n");
    EXPECT_EQ(TARVIK_MCTERMINAL_Write(0, "ping", 4), 4);
    ReadUntil("MCT ready\nping");
    EXPECT_EQ(TARVIK_MCTERMINAL_Write(0, "q", 1), 1);
    ReadUntil("MCT ready\npingbye\n");
    EXPECT_LT(TARVIK_MCTERMINAL_Read(2, acOut, 4), 0) << "the target has two channels";
    ASSERT_TRUE(CSimSession::WaitHalted());
    TARVIK_MCTERMINAL_Control(1, nullptr);
  }
}

TEST(SimTrace, NewestFirstAndCountersFollowTheSource) {
  CSimSession Session;
  Session.Load("basic-O0");
  ASSERT_EQ(TARVIK_STRACE_Start(), 0);
  TARVIKARM_SetBPEx(0x48, 0xFFFFFFF0u);  // Square
  ASSERT_EQ(CSimSession::RunToHalt(), 0x48u);
  // objdump of SumOfSquares: the call path into the first Square, newest first.
  const U32 aPath[] = {0x78, 0x76, 0xA4, 0xA2, 0xA0, 0x9E, 0x74, 0x72, 0x70};
  U32 aItems[16] = {};
  ASSERT_GE(TARVIK_STRACE_Read(aItems, 16), 9);
  for (size_t i = 0; i < COUNTOF(aPath); i++) {
    EXPECT_EQ(aItems[i], aPath[i]) << i;
  }
  TARVIKARM_ClrBPEx(0xFFFFFFFFu);
  CSimSession::RunToHalt();
  // The loop runs 10, 11 and 12 times: its closing "ble.n" at 0xA4 is fetched 11 + 12 + 13 times
  // and falls through (condition failed) once per call. Square's first instruction runs 33 times.
  U64 aStats[2 * (4 + 1)];
  ASSERT_EQ(TARVIK_STRACE_GetInstStats(aStats, 0xA0, 10, 8, 9), 10);
  EXPECT_EQ(aStats[2], 36u);  // 0xA4
  EXPECT_EQ(aStats[5 + 2], 3u);
  EXPECT_EQ(aStats[0], 36u);  // 0xA0 "ldr"
  EXPECT_EQ(aStats[5], 0u);
  ASSERT_EQ(TARVIK_STRACE_GetInstStats(aStats, 0x48, 4, 8, 9), 4);
  EXPECT_EQ(aStats[0], 33u);
  EXPECT_EQ(TARVIK_STRACE_Stop(), 0);
}

TEST(SimHSS, SamplesCarryAStampAndTheBlocks) {
  CSimSession Session;
  auto Syms = Session.Load("systick-O0");
  TARVIK_HSS_BLOCK aBlocks[2] = {{Syms["g_Ticks"], 4, 0, 0}, {Syms["g_SvcCount"], 4, 0, 0}};
  ASSERT_EQ(TARVIK_HSS_Start(aBlocks, 2, 1, 1), 0);  // 168 cycles: the program runs about 11,000
  CSimSession::RunToHalt();
  U8 ac[12 * 64];
  int n = TARVIK_HSS_Read(ac, sizeof(ac));
  ASSERT_GT(n, 0);
  EXPECT_EQ(n % 12, 0) << "whole samples: U32 stamp and two U32 blocks";
  U32 PrevStamp = 0, LastTicks = 0;
  for (int i = 0; i < n; i += 12) {
    U32 Stamp, Ticks;
    memcpy(&Stamp, ac + i, 4);
    memcpy(&Ticks, ac + i + 4, 4);
    EXPECT_GE(Stamp, PrevStamp);
    EXPECT_GE(Ticks, LastTicks);
    PrevStamp = Stamp;
    LastTicks = Ticks;
  }
  EXPECT_GT(LastTicks, 0u);
  EXPECT_EQ(TARVIK_HSS_Stop(), 0);
  TARVIK_HSS_BLOCK Many[512] = {};
  EXPECT_EQ(TARVIK_HSS_Start(Many, 512, 100, 1), -3);
}

}  // namespace
