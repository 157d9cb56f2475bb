// The GDB remote back-end against a scripted server: the replies are those QEMU 7.2 gave for
// mps2-an385 (recorded from its gdb socket), changed per test to refusals, damaged packets and
// hang-ups. Everything goes through the probe operations with the IP interface.
#include <gtest/gtest.h>

#include <chrono>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "device/probe/GdbPacket.h"
#include "device/probe/ProbeCore.h"
#include "device/probe/tests/GdbFakeServer.h"

namespace {

TEST(GdbRemote, RegistersFollowTheTargetDescription) {
  // QEMU numbers xPSR 25 and has no MSP/PSP/CONTROL; a server with the system registers numbers them
  // on from 26 and sends them after xPSR in "g".
  std::string sWithSystem = std::string(kQemuMProfile) +
                            "<feature name=\"org.gnu.gdb.arm.m-system\"><reg name=\"msp\" bitsize=\"32\" "
                            "regnum=\"26\"/><reg name=\"psp\" bitsize=\"32\"/></feature>";
  const struct {
    std::string sDescription;
    int NumRegs;
    bool HasMSP;
  } aCases[] = {{kQemuMProfile, 17, false}, {sWithSystem, 19, true}};
  for (const auto& C : aCases) {
    FAKE_TARGET Target;
    Target.sDescription = C.sDescription;
    Target.aRegs.resize(size_t(C.NumRegs));
    for (size_t i = 0; i < Target.aRegs.size(); i++) {
      Target.aRegs[i] = 0x1000 + U32(i);
    }
    CGdbSession Session(&Target);
    ASSERT_TRUE(Session.Start()) << CGdbSession::Errors();
    EXPECT_EQ(TARVIKARM_ReadReg(0), 0x1000u);
    EXPECT_EQ(TARVIKARM_ReadReg(PROBE_REG_PC), 0x100Fu);
    EXPECT_EQ(TARVIKARM_ReadReg(PROBE_REG_XPSR), 0x1010u);
    U32 aIndex[2] = {PROBE_REG_MSP, PROBE_REG_PSP}, aData[2];
    U8 aStatus[2];
    EXPECT_EQ(TARVIKARM_ReadRegs(aIndex, aData, aStatus, 2) == 0, C.HasMSP);
    if (C.HasMSP) {
      EXPECT_EQ(aData[0], 0x1011u);
      EXPECT_EQ(aData[1], 0x1012u);
    }
    EXPECT_EQ(TARVIKARM_WriteReg(PROBE_REG_XPSR, 0x01000000), 0);
    EXPECT_EQ(Target.aRegs[16], 0x01000000u);
    EXPECT_EQ(Session.Server.CountReceived("P19=00000001"), 1);  // xPSR written by its number, 25
  }
}

TEST(GdbRemote, RefusedPacketsFallBackToTheirAlternatives) {
  // A server without P and X (empty replies): registers go back with G, memory with M.
  FAKE_TARGET Target;
  Target.mOverride["P"] = FakeReply("");
  Target.mOverride["X"] = FakeReply("");
  Target.mOverride["G"] = FakeReply("OK");
  CGdbSession Session(&Target);
  ASSERT_TRUE(Session.Start());
  EXPECT_EQ(TARVIKARM_WriteReg(2, 0xCAFEF00D), 0);
  std::string sG;
  for (const std::string& s : Session.Server.GetReceived()) {
    if (s[0] == 'G') {
      sG = s;
    }
  }
  ASSERT_EQ(sG.size(), 1u + 17 * 8);
  EXPECT_EQ(sG.substr(1 + 2 * 8, 8), "0df0feca");
  U8 aData[300];
  for (size_t i = 0; i < sizeof(aData); i++) {
    aData[i] = U8(i * 7);  // includes '#', '$', '}' and '*'
  }
  EXPECT_EQ(TARVIKARM_WriteMemEx(0x20000100, sizeof(aData), aData, 0), int(sizeof(aData)));
  EXPECT_TRUE(std::equal(aData, aData + sizeof(aData), Target.aMem.begin() + 0x100));
  EXPECT_GE(Session.Server.CountReceived("M20000100,"), 1);
}

TEST(GdbRemote, ChunksStayWithinPacketSizeAndBinaryDataSurvives) {
  FAKE_TARGET Target;
  CGdbSession Session(&Target);
  ASSERT_TRUE(Session.Start());
  std::vector<U8> aData(10000);
  for (size_t i = 0; i < aData.size(); i++) {
    aData[i] = U8(i * 13 + (i >> 8));
  }
  EXPECT_EQ(TARVIKARM_WriteMemEx(0x20001000, U32(aData.size()), aData.data(), 0), int(aData.size()));
  std::vector<U8> aBack(aData.size());
  EXPECT_EQ(TARVIKARM_ReadMemEx(0x20001000, U32(aBack.size()), aBack.data(), 0), int(aBack.size()));
  EXPECT_EQ(aBack, aData);
  for (const std::string& s : Session.Server.GetReceived()) {
    EXPECT_LE(GDB_Frame(GDB_EscapeBinary(reinterpret_cast<const U8*>(s.data()), s.size())).size(), 0x1000u)
        << s.substr(0, 20);
  }
  // A read that runs into memory the server refuses gives the bytes up to there.
  std::vector<U8> aTail(0x30);
  EXPECT_EQ(TARVIKARM_ReadMemEx(0x2000FFF0, U32(aTail.size()), aTail.data(), 0), -1);
}

TEST(GdbRemote, MalformedRepliesFailTheOperationAndNameThePacket) {
  const struct {
    const char* sPrefix;
    const char* sReply;
    const char* sNamed;
  } aCases[] = {{"m", "0g", "m20000000"}, {"m", "00112233445566778899", "m20000000"}, {"g", "123", "\"g\""}};
  for (const auto& C : aCases) {
    FAKE_TARGET Target;
    Target.mOverride[C.sPrefix] = FakeReply(C.sReply);
    Target.mOverride["p"] = FakeReply("E14");
    CGdbSession Session(&Target);
    ASSERT_TRUE(Session.Start());
    U8 ac[4];
    U32 Index = 0, Value;
    U8 Status;
    if (C.sPrefix[0] == 'm') {
      EXPECT_EQ(TARVIKARM_ReadMemEx(0x20000000, 4, ac, 0), -1) << C.sReply;
    } else {
      EXPECT_NE(TARVIKARM_ReadRegs(&Index, &Value, &Status, 1), 0);
    }
    EXPECT_NE(CGdbSession::Errors().find(C.sNamed), std::string::npos) << CGdbSession::Errors();
  }
}

TEST(GdbRemote, NackedPacketIsSentAgainUpToThreeTimes) {
  const struct {
    int NumNacks;
    bool ReadWorks;
  } aCases[] = {{1, true}, {3, true}, {4, false}};
  for (const auto& C : aCases) {
    FAKE_TARGET Target;
    Target.aMem[0] = 0x5A;
    Target.NacksLeft = C.NumNacks;
    CGdbSession Session(&Target);
    ASSERT_TRUE(Session.Start());
    U8 b = 0;
    EXPECT_EQ(TARVIKARM_ReadMemEx(0x20000000, 1, &b, 0) == 1, C.ReadWorks) << C.NumNacks;
    EXPECT_EQ(b, C.ReadWorks ? 0x5A : 0);
    EXPECT_EQ(Session.Server.CountReceived("m20000000,1"), std::min(C.NumNacks + 1, 4));
  }
}

TEST(GdbRemote, ServerThatStopsAnsweringTimesOut) {
  FAKE_TARGET Target;
  Target.mOverride["m"] = FAKE_REPLY{};
  CGdbSession Session(&Target);
  ASSERT_TRUE(Session.Start());
  U8 ac[4];
  auto Start = std::chrono::steady_clock::now();
  EXPECT_EQ(TARVIKARM_ReadMemEx(0x20000000, 4, ac, 0), -1);
  EXPECT_LT(std::chrono::steady_clock::now() - Start, std::chrono::seconds(10));
  EXPECT_NE(CGdbSession::Errors().find("time-out"), std::string::npos) << CGdbSession::Errors();
}

TEST(GdbRemote, HangUpMarksTheTargetLostWithoutKillingTheProcess) {
  // The server hangs up on "c" (while the target runs) or on a memory write; either way the target
  // counts as lost and later calls fail instead of raising SIGPIPE.
  for (const char* sPrefix : {"c", "X"}) {
    FAKE_TARGET Target;
    Target.mOverride[sPrefix] = FakeHangUp();
    CGdbSession Session(&Target);
    ASSERT_TRUE(Session.Start());
    U8 aData[64] = {};
    if (sPrefix[0] == 'c') {
      TARVIKARM_GoEx(0, 1);
    } else {
      EXPECT_EQ(TARVIKARM_WriteMemEx(0x20000000, sizeof(aData), aData, 0), -1);
    }
    auto End = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (TARVIKARM_IsHalted() >= 0 && std::chrono::steady_clock::now() < End) {
      std::this_thread::yield();
    }
    EXPECT_LT(TARVIKARM_IsHalted(), 0) << sPrefix;
    EXPECT_EQ(TARVIKARM_IsConnected(), 0);
    EXPECT_EQ(TARVIKARM_WriteMemEx(0x20000000, sizeof(aData), aData, 0), -1);
    EXPECT_NE(TARVIKARM_Halt(), 0);
  }
}

TEST(GdbRemote, InterruptStopsARunningTarget) {
  FAKE_TARGET Target;
  CGdbSession Session(&Target);
  ASSERT_TRUE(Session.Start());
  TARVIKARM_GoEx(0, 1);
  EXPECT_EQ(TARVIKARM_IsHalted(), 0);
  EXPECT_EQ(TARVIKARM_Halt(), 0);
  EXPECT_GT(TARVIKARM_IsHalted(), 0);
  EXPECT_EQ(Session.Server.CountReceived("\x03"), 1);
}

}  // namespace
