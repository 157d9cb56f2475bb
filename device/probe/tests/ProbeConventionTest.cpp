// Each operation's failure convention (0 ok, signed, U8 non-zero, null) as the layers above rely on
// it: on the real layer with no target connected, and on the scripted mock when told to fail.
#include <gtest/gtest.h>

#include <functional>
#include <string>

#include "device/probe/MockProbe.h"
#include "device/probe/ProbeCore.h"

namespace {

enum CONVENTION { ZERO_OK, NEGATIVE_FAILS, NONZERO_FAILS, ZERO_FAILS };

struct OP_CASE {
  MOCK_OP Op;
  CONVENTION Convention;
  std::function<I64(const TARVIK_API&)> pfCall;
};

bool _Failed(CONVENTION C, I64 v) {
  switch (C) {
    case ZERO_OK:
      return v != 0;
    case NEGATIVE_FAILS:
      return v < 0;
    case NONZERO_FAILS:
      return v != 0;
    case ZERO_FAILS:
      return v == 0;
  }
  return false;
}

// The conventions of the operation list, one row per operation that can fail.
std::vector<OP_CASE> _Cases() {
  static U8 ac[64];
  static U32 Handle;
  static U32 aIndex[1] = {0}, aData[1];
  static U8 aStatus[1];
  static TARVIK_DATA_EVENT Ev{sizeof(Ev), 1, 0x20000000, 0, 0, 0xFFFFFFFFu, 1, 0x10, {}};
  return {
      {MOCK_OP_TARVIKARM_Connect, ZERO_OK, [](const TARVIK_API& A) { return A.TARVIKARM_Connect(); }},
      {MOCK_OP_TARVIKARM_Halt, NONZERO_FAILS, [](const TARVIK_API& A) { return A.TARVIKARM_Halt(); }},
      {MOCK_OP_TARVIKARM_IsHalted, NEGATIVE_FAILS,
       [](const TARVIK_API& A) { return A.TARVIKARM_IsHalted(); }},
      {MOCK_OP_TARVIKARM_Step, NONZERO_FAILS, [](const TARVIK_API& A) { return A.TARVIKARM_Step(); }},
      {MOCK_OP_TARVIKARM_Reset, ZERO_OK, [](const TARVIK_API& A) { return A.TARVIKARM_Reset(); }},
      {MOCK_OP_TARVIKARM_MeasureCPUSpeedEx, NEGATIVE_FAILS,
       [](const TARVIK_API& A) { return A.TARVIKARM_MeasureCPUSpeedEx(0x20000000, 1, 1); }},
      {MOCK_OP_TARVIKARM_ClrBPEx, ZERO_OK, [](const TARVIK_API& A) { return A.TARVIKARM_ClrBPEx(12345); }},
      {MOCK_OP_TARVIKARM_SetDataEvent, NEGATIVE_FAILS,
       [](const TARVIK_API& A) { return A.TARVIKARM_SetDataEvent(nullptr, &Handle); }},
      {MOCK_OP_TARVIKARM_ReadRegs, ZERO_OK,
       [](const TARVIK_API& A) { return A.TARVIKARM_ReadRegs(aIndex, aData, aStatus, 1); }},
      {MOCK_OP_TARVIKARM_WriteReg, NONZERO_FAILS,
       [](const TARVIK_API& A) { return A.TARVIKARM_WriteReg(0, 1); }},
      {MOCK_OP_TARVIKARM_ReadMemEx, NEGATIVE_FAILS,
       [](const TARVIK_API& A) { return A.TARVIKARM_ReadMemEx(0x20000000, 4, ac, 0); }},
      {MOCK_OP_TARVIKARM_ReadMemHW, ZERO_OK,
       [](const TARVIK_API& A) { return A.TARVIKARM_ReadMemHW(0x20000000, 4, ac); }},
      {MOCK_OP_TARVIKARM_ReadMemU32, NEGATIVE_FAILS,
       [](const TARVIK_API& A) { return A.TARVIKARM_ReadMemU32(0x20000000, 1, aData, aStatus); }},
      {MOCK_OP_TARVIKARM_WriteMemEx, NEGATIVE_FAILS,
       [](const TARVIK_API& A) { return A.TARVIKARM_WriteMemEx(0x20000000, 4, ac, 0); }},
      {MOCK_OP_TARVIKARM_WriteU32, ZERO_OK,
       [](const TARVIK_API& A) { return A.TARVIKARM_WriteU32(0x20000000, 1); }},
      {MOCK_OP_TARVIK_MCTERMINAL_Control, ZERO_OK,
       [](const TARVIK_API& A) { return A.TARVIK_MCTERMINAL_Control(0, nullptr); }},
      {MOCK_OP_TARVIK_MCTERMINAL_Read, NEGATIVE_FAILS,
       [](const TARVIK_API& A) { return A.TARVIK_MCTERMINAL_Read(0, ac, 4); }},
      {MOCK_OP_TARVIK_HSS_Stop, NEGATIVE_FAILS, [](const TARVIK_API& A) { return A.TARVIK_HSS_Stop(); }},
      {MOCK_OP_TARVIK_STRACE_Start, NEGATIVE_FAILS,
       [](const TARVIK_API& A) { return A.TARVIK_STRACE_Start(); }},
      {MOCK_OP_TARVIKARM_SWO_EnableTarget, NEGATIVE_FAILS,
       [](const TARVIK_API& A) { return A.TARVIKARM_SWO_EnableTarget(48000000, 6000000, 0, 1); }},
      {MOCK_OP_TARVIKARM_SWO_ReadStimulus, ZERO_FAILS,
       [](const TARVIK_API& A) { return A.TARVIKARM_SWO_ReadStimulus(0, ac, 4); }},
      {MOCK_OP_TARVIKARM_IsConnected, ZERO_FAILS,
       [](const TARVIK_API& A) { return A.TARVIKARM_IsConnected(); }},
  };
}

TEST(ProbeConventions, RealLayerFailsEachOperationInItsOwnWayWhenNotConnected) {
  PROBE_ResetLayer();
  const TARVIK_API& Api = TARVIK_GetProbeLayerApi();
  for (const OP_CASE& C : _Cases()) {
    if (C.Op == MOCK_OP_TARVIKARM_Connect || C.Op == MOCK_OP_TARVIKARM_SWO_ReadStimulus) {
      continue;  // Connect opens nothing here; an empty port is not a failure of the layer
    }
    EXPECT_TRUE(_Failed(C.Convention, C.pfCall(Api))) << CMockProbe::GetOpName(C.Op);
  }
  EXPECT_NE(Api.TARVIKARM_Open, nullptr);
}

TEST(ProbeConventions, MockFailsAndSucceedsInEachOperationsConvention) {
  CMockProbe& M = CMockProbe::Get();
  M.Reset();
  M.SetMemory(0x20000000, {1, 2, 3, 4});
  M.AddStreamData(MOCK_OP_TARVIKARM_SWO_ReadStimulus, {'a', 'b', 'c', 'd'});
  M.AddStreamData(MOCK_OP_TARVIK_MCTERMINAL_Read, {'x'});
  M.Install();
  const TARVIK_API& Api = GetTarvikApi();
  for (const OP_CASE& C : _Cases()) {
    if (C.Op == MOCK_OP_TARVIKARM_SetDataEvent || C.Op == MOCK_OP_TARVIKARM_ClrBPEx) {
      continue;  // a null record and an unknown handle are refused even by the model
    }
    EXPECT_FALSE(_Failed(C.Convention, C.pfCall(Api))) << "model answer of " << CMockProbe::GetOpName(C.Op);
  }
  for (const OP_CASE& C : _Cases()) {
    M.Fail(C.Op);
    EXPECT_TRUE(_Failed(C.Convention, C.pfCall(Api))) << "forced failure of " << CMockProbe::GetOpName(C.Op);
  }
  EXPECT_EQ(M.CountCalls(MOCK_OP_TARVIKARM_Halt), 2);
  CMockProbe::CALL Call;
  ASSERT_TRUE(M.GetLastCall(MOCK_OP_TARVIKARM_WriteU32, &Call));
  EXPECT_EQ(Call.aArgs, (std::vector<U64>{0x20000000, 1}));
  M.Reset();
  M.QueueResults(MOCK_OP_TARVIKARM_IsHalted, {0, 0, 1});
  EXPECT_EQ(Api.TARVIKARM_IsHalted(), 0);
  EXPECT_EQ(Api.TARVIKARM_IsHalted(), 0);
  EXPECT_EQ(Api.TARVIKARM_IsHalted(), 1);
  M.SetOpenError("probe unplugged");
  EXPECT_STREQ(Api.TARVIKARM_Open(), "probe unplugged");
  M.Uninstall();
  M.Reset();
}

TEST(ProbeCommands, TheLayerAnswersItsCommandsAndNamesBadInput) {
  PROBE_ResetLayer();
  struct CASE {
    const char* sCmd;
    int Result;
    const char* sAnswerPart;  // empty: the answer must be empty
  } aCases[] = {
      {"device=Simulator Cortex-M0", 0, ""},
      {"Device = simulator cortex-m3", 0, ""},
      {"device=Nonexistent MCU", -1, "Nonexistent MCU"},
      {"HideDeviceSelection=1", 0, ""},
      {"HideDeviceSelection=2", -1, "\"2\""},
      {"ScriptFile=/nonexistent/setup.tarvikscript", -1, "/nonexistent/setup.tarvikscript"},
      {"SetMCTAddr 0x20000100", 0, ""},
      {"SetMCTAddr 0xZZ", -1, "0xZZ"},
      {"SelectTraceSource=1", 0, ""},
      {"TraceSampleAdjust TD = 0", 0, ""},
      {"FlyToTheMoon", -1, "FlyToTheMoon"},
      {"", -1, "empty"},
  };
  for (const CASE& C : aCases) {
    char ac[256] = "junk";
    EXPECT_EQ(TARVIKARM_ExecCommand(C.sCmd, ac, sizeof(ac)), C.Result) << C.sCmd;
    if (*C.sAnswerPart) {
      EXPECT_NE(std::string(ac).find(C.sAnswerPart), std::string::npos) << C.sCmd << ": " << ac;
    } else {
      EXPECT_STREQ(ac, "") << C.sCmd;
    }
  }
  std::string sLong(1025, 'x');
  char ac[256];
  EXPECT_EQ(TARVIKARM_ExecCommand(sLong.c_str(), ac, sizeof(ac)), -1);
}

TEST(ProbeDevices, ListHasAPlaceholderAndThreeSimulators) {
  PROBE_ResetLayer();
  EXPECT_EQ(TARVIKARM_DEVICE_GetInfo(-1, nullptr), 4);
  struct {
    const char* sName;
    U32 Core;
    const char* sCoreName;
  } aExpected[] = {{"Simulator Cortex-M0", 0x060000FF, "Cortex-M0"},
                   {"Simulator Cortex-M3", 0x030000FF, "Cortex-M3"},
                   {"Simulator Cortex-M4", 0x0E0000FF, "Cortex-M4"}};
  for (const auto& E : aExpected) {
    int Index = TARVIKARM_DEVICE_GetIndex(E.sName);
    ASSERT_GE(Index, 1) << E.sName;
    TARVIK_DEVICE_INFO Info{};
    Info.SizeOfStruct = sizeof(Info);
    ASSERT_EQ(TARVIKARM_DEVICE_GetInfo(Index, &Info), 0);
    EXPECT_STREQ(Info.sName, E.sName);
    EXPECT_EQ(Info.Core, E.Core);
    EXPECT_EQ(Info.RAMAddr, 0x20000000u);
    EXPECT_EQ(Info.RAMSize, 0x40000u);
    char acCore[64];
    TARVIKARM_Core2CoreName(Info.Core, acCore, sizeof(acCore));
    EXPECT_STREQ(acCore, E.sCoreName);
  }
  EXPECT_EQ(TARVIKARM_DEVICE_GetIndex(""), TARVIKARM_DEVICE_GetIndex("Simulator Cortex-M4"));
  EXPECT_LT(TARVIKARM_DEVICE_GetIndex("Simulator Cortex-M7"), 0);
}

}  // namespace
