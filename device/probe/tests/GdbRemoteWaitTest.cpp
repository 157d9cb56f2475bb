// The GDB remote back-end when the server is slow, silent, flooding or gone: replies that come late,
// waits against servers that never stop sending, a server that dies while the target is halted, and
// what monitor commands answer. The servers are scripted on loopback (GdbFakeServer.h).
#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <vector>

#include "device/probe/GdbPacket.h"
#include "device/probe/ProbeCore.h"
#include "device/probe/tests/GdbFakeServer.h"

namespace {

using CClock = std::chrono::steady_clock;

// The limits the back-end states: a reply, a halt after the interrupt, a whole monitor command.
constexpr auto kReplyLimit = std::chrono::milliseconds(3000);
constexpr auto kMonitorLimit = std::chrono::milliseconds(10000);
// What a loaded machine may add to a limit before the test calls it a hang.
constexpr auto kSlack = std::chrono::milliseconds(1500);

std::vector<std::string> g_asWarnings;
void _CollectWarning(const char* s) {
  g_asWarnings.push_back(s);
}

std::string _OutputPacket(const std::string& sText) {
  return "O" + GDB_ToHex(sText);
}

TEST(GdbRemoteReplies, LateReplyIsNeverTakenForTheNextRequest) {
  // The read of A times out; the server then answers A late (just before B's reply), or never. The
  // read of B must give B's bytes or fail with the connection lost: A's bytes never.
  const struct {
    const char* sWhat;
    bool Late;  // false: the server lost the request
  } aCases[] = {{"reply to A comes late", true}, {"reply to A never comes", false}};
  for (const auto& C : aCases) {
    SCOPED_TRACE(C.sWhat);
    FAKE_TARGET Target;
    const U8 aA[4] = {0x11, 0x22, 0x33, 0x44}, aB[4] = {0xAA, 0xBB, 0xCC, 0xDD};
    std::copy(aA, aA + 4, Target.aMem.begin());
    std::copy(aB, aB + 4, Target.aMem.begin() + 0x100);
    (C.Late ? Target.HoldNextRead : Target.DropNextRead) = true;
    CGdbSession Session(&Target);
    ASSERT_TRUE(Session.Start()) << CGdbSession::Errors();
    U8 ab[4] = {};
    auto Start = CClock::now();
    EXPECT_EQ(TARVIKARM_ReadMemEx(0x20000000, 4, ab, 0), -1);
    EXPECT_LT(CClock::now() - Start, kReplyLimit + kSlack);
    Start = CClock::now();
    int r = TARVIKARM_ReadMemEx(0x20000100, 4, ab, 0);
    EXPECT_LT(CClock::now() - Start, kReplyLimit + kSlack);
    if (C.Late) {
      ASSERT_EQ(r, 4);
      EXPECT_EQ(std::vector<U8>(ab, ab + 4), std::vector<U8>(aB, aB + 4));
      // And the session goes on in step.
      EXPECT_EQ(TARVIKARM_ReadMemEx(0x20000000, 4, ab, 0), 4);
      EXPECT_EQ(std::vector<U8>(ab, ab + 4), std::vector<U8>(aA, aA + 4));
      EXPECT_GT(TARVIKARM_IsHalted(), 0);
    } else {
      EXPECT_EQ(r, -1);
      EXPECT_NE(std::vector<U8>(ab, ab + 4), std::vector<U8>(aA, aA + 4));
      EXPECT_LT(TARVIKARM_IsHalted(), 0);  // lost: nothing it says can be matched any more
    }
  }
}

TEST(GdbRemoteWaits, EveryWaitEndsWithinItsLimitWhileBytesKeepComing) {
  enum WAIT { CONNECT, HALT, READ, MONITOR };
  const struct {
    const char* sWhat;
    WAIT Wait;
    std::string sStream;  // what the server keeps sending
    std::chrono::milliseconds Limit;
  } aCases[] = {
      {"connect to a port that sends text", CONNECT, "this is no gdbserver at all\r\n", kReplyLimit},
      {"connect to a port that sends a packet without end", CONNECT, "$O41424344", kReplyLimit},
      {"halt while the server streams console output", HALT, GDB_Frame(_OutputPacket("tick\n")), kReplyLimit},
      {"read while the server streams console output", READ, GDB_Frame(_OutputPacket("tick\n")), kReplyLimit},
      {"read whose reply never comes", READ, "", kReplyLimit},
      {"monitor command whose output never ends", MONITOR, GDB_Frame(_OutputPacket("more\n")), kMonitorLimit},
  };
  for (const auto& C : aCases) {
    SCOPED_TRACE(C.sWhat);
    FAKE_TARGET Target;
    FAKE_REPLY Stream;
    Stream.sStream = C.sStream;
    if (C.Wait == HALT) {
      Target.mOverride["\x03"] = Stream;
    } else if (C.Wait == READ) {
      Target.mOverride["m"] = Stream;
    } else if (C.Wait == MONITOR) {
      Target.mOverride["qRcmd,6d6f7265"] = Stream;  // "more"
    }
    CGdbSession Session(&Target);
    if (C.Wait == CONNECT) {
      // A port with something else behind it: it never answers a packet, only sends its own bytes.
      FAKE_REPLY Nothing;
      Nothing.Silent = true;
      Target.mOverride[""] = Nothing;
      Session.Server.StreamFromStart(C.sStream);
      auto Start = CClock::now();
      EXPECT_FALSE(Session.Start());
      EXPECT_LT(CClock::now() - Start, C.Limit + kSlack);
      continue;
    }
    ASSERT_TRUE(Session.Start()) << CGdbSession::Errors();
    char acOut[256] = {};
    U8 ab[4];
    if (C.Wait == HALT) {
      TARVIKARM_GoEx(0, 1);
    }
    auto Start = CClock::now();
    if (C.Wait == HALT) {
      EXPECT_NE(TARVIKARM_Halt(), 0);
    } else if (C.Wait == READ) {
      EXPECT_EQ(TARVIKARM_ReadMemEx(0x20000000, 4, ab, 0), -1);
    } else {
      EXPECT_LT(TARVIKARM_ExecCommand("more", acOut, sizeof(acOut)), 0);
    }
    EXPECT_LT(CClock::now() - Start, C.Limit + kSlack);
  }
}

TEST(GdbRemoteLoss, ServerDyingWhileTheTargetIsHaltedIsNoticedAtThePollOnce) {
  FAKE_TARGET Target;
  CGdbSession Session(&Target);
  ASSERT_TRUE(Session.Start()) << CGdbSession::Errors();
  g_asWarnings.clear();
  TARVIKARM_SetWarnOutHandler(&_CollectWarning);
  ASSERT_GT(TARVIKARM_IsHalted(), 0);
  int NumPackets = int(Session.Server.GetReceived().size());
  Session.Server.Kill();
  // Only polls from here on, as the device thread makes them between jobs.
  auto End = CClock::now() + kReplyLimit;
  while (TARVIKARM_IsHalted() > 0 && CClock::now() < End) {
    std::this_thread::yield();
  }
  EXPECT_LT(TARVIKARM_IsHalted(), 0);
  EXPECT_LT(TARVIKARM_IsHalted(), 0);
  EXPECT_EQ(int(Session.Server.GetReceived().size()), NumPackets);  // the poll asked nothing
  int NumLost = 0;
  for (const std::string& s : g_asWarnings) {
    NumLost +=
        s.find("Connection to gdbserver " + Session.Server.GetAddress() + " lost") != std::string::npos;
  }
  EXPECT_EQ(NumLost, 1);
}

TEST(GdbRemoteMonitor, CommandsFailClearlyAndTheirOutputComesBack) {
  // QEMU answers every command with OK and says "unknown command" in its output; other servers
  // refuse with E.. or have no monitor at all (empty reply).
  const struct {
    const char* sCommand;
    std::vector<std::string> asReply;
    int Result;  // of TARVIKARM_ExecCommand: <0 failed, 0 done, >0 done with output
    const char* sOut;
  } aCases[] = {
      {"frobnicate",
       {_OutputPacket("unknown command: 'frobnicate'\r\n"), "OK"},
       -1,
       "monitor command \"frobnicate\" is unknown to the gdbserver: unknown command: 'frobnicate'"},
      {"frobnicate",
       {""},
       -1,
       "monitor command \"frobnicate\": not supported by the gdbserver (it has no monitor commands)"},
      {"reset run", {"E01"}, -1, "monitor command \"reset run\" failed (gdbserver reply E01)"},
      {"reset run",
       {"E.target not examined"},
       -1,
       "monitor command \"reset run\" failed: target not examined"},
      {"info version", {_OutputPacket("7.2.0\r\n"), "OK"}, 1, "7.2.0"},
      {"info status",
       {_OutputPacket("VM status: "), _OutputPacket("paused\n"), "OK"},
       1,
       "VM status: paused"},
      {"halt", {"OK"}, 0, ""},
  };
  for (const auto& C : aCases) {
    SCOPED_TRACE(C.sCommand);
    FAKE_TARGET Target;
    FAKE_REPLY Reply;
    Reply.asPackets = C.asReply;
    Target.mOverride["qRcmd," + GDB_ToHex(std::string(C.sCommand))] = Reply;
    CGdbSession Session(&Target);
    ASSERT_TRUE(Session.Start()) << CGdbSession::Errors();
    char acOut[512] = {};
    int r = TARVIKARM_ExecCommand(C.sCommand, acOut, sizeof(acOut));
    EXPECT_EQ(r < 0 ? -1 : (r > 0 ? 1 : 0), C.Result);
    EXPECT_EQ(std::string(acOut), C.sOut);
    // The session is still in step afterwards.
    U8 b = 0xFF;
    EXPECT_EQ(TARVIKARM_ReadMemEx(0x20000000, 1, &b, 0), 1);
    EXPECT_EQ(b, 0);
  }
}

}  // namespace
