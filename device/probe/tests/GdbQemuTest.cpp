// The GDB remote back-end against the real QEMU (qemu-system-arm -M mps2-an385), one QEMU per test on
// its own port. Expected values come from the fixture programs: the flat images and nm listings made
// by target/build.sh, and the addresses arm-none-eabi-objdump lists for basic-O0.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <arpa/inet.h>
#include <netinet/in.h>

#include <chrono>
#include <mutex>
#include <string>
#include <vector>

#include "device/probe/tests/QemuProcess.h"
#include "device/probe/tests/SimTestSupport.h"

extern char** environ;

namespace {

// basic-O0: Square at 0x48 is called with 1, 2, 3, ...; Record stores g_Stats.Count (0x20000000) with
// "str r3, [r2, #0]" at 0xC4.
constexpr U32 kSquare = 0x48;
constexpr U32 kStats = 0x20000000;
constexpr U32 kRecord = 0xB4;
constexpr U32 kStoreCount = 0xC4;

std::mutex g_LogMutex;
std::string g_sLog;
void _CollectLog(const char* s) {
  std::lock_guard<std::mutex> Lock(g_LogMutex);
  g_sLog += s;
  g_sLog += '\n';
}

// A probe session on QEMU through the IP interface.
class CQemuSession {
 public:
  explicit CQemuSession(const std::string& sProgram, bool Semihosting = false) : Qemu(sProgram, Semihosting) {
    PROBE_ResetLayer();
    g_sLog.clear();
    TARVIKARM_EnableLog(&_CollectLog);
    TARVIKARM_SetErrorOutHandler(&_CollectLog);
    TARVIKARM_SetWarnOutHandler(&_CollectLog);
    EXPECT_EQ(TARVIKARM_SelectIP(Qemu.GetAddress().c_str(), 0), 0);
    const char* sError = TARVIKARM_Open();
    EXPECT_EQ(sError, nullptr) << sError;
    EXPECT_EQ(TARVIKARM_Connect(), 0) << g_sLog;
    TARVIKARM_EnableSoftBPs(1);
  }
  ~CQemuSession() { PROBE_ResetLayer(); }

  CQemu Qemu;
};

#define SKIP_WITHOUT_QEMU()                             \
  if (!_HasProgram("qemu-system-arm")) {                \
    GTEST_SKIP() << "qemu-system-arm is not installed"; \
  }

TEST(GdbQemu, VectorTableReadsAsTheImageBytes) {
  SKIP_WITHOUT_QEMU();
  CQemuSession Session("basic-O0");
  std::vector<U8> aImage = LoadFile(FixturePath("basic-O0", ".bin"));
  ASSERT_GE(aImage.size(), 0x40u);
  std::vector<U8> aRead(0x40);
  EXPECT_EQ(TARVIKARM_ReadMemEx(0, 0x40, aRead.data(), 0), 0x40);
  EXPECT_EQ(aRead, std::vector<U8>(aImage.begin(), aImage.begin() + 0x40));
  // Stopped at reset: the core took SP and PC from the vector table.
  U32 SP = U32(aImage[0]) | U32(aImage[1]) << 8 | U32(aImage[2]) << 16 | U32(aImage[3]) << 24;
  U32 PC = U32(aImage[4]) | U32(aImage[5]) << 8 | U32(aImage[6]) << 16 | U32(aImage[7]) << 24;
  EXPECT_EQ(TARVIKARM_ReadReg(PROBE_REG_SP), SP);
  EXPECT_EQ(TARVIKARM_ReadReg(PROBE_REG_PC), PC & ~1u);
  EXPECT_EQ(TARVIKARM_ReadReg(PROBE_REG_XPSR), 0x41000000u);  // Z and Thumb, as QEMU's "p19" gives it
}

TEST(GdbQemu, BreakpointContinueStepHaltAndReset) {
  SKIP_WITHOUT_QEMU();
  CQemuSession Session("basic-O0");
  std::vector<U8> aImage = LoadFile(FixturePath("basic-O0", ".bin"));
  U32 Handle = TARVIKARM_SetBPEx(kSquare, 0xFFFFFF00u | 2);
  ASSERT_NE(Handle, 0u);
  for (U32 Arg = 1; Arg <= 2; Arg++) {
    EXPECT_EQ(CSimSession::RunToHalt(), kSquare) << g_sLog;
    EXPECT_EQ(TARVIKARM_ReadReg(0), Arg);
  }
  // Square begins "push {r7}" (b480), so one step lands 2 bytes on, with SP 4 lower.
  U32 SP = TARVIKARM_ReadReg(PROBE_REG_SP);
  EXPECT_EQ(TARVIKARM_Step(), 0);
  EXPECT_EQ(TARVIKARM_ReadReg(PROBE_REG_PC), kSquare + 2);
  EXPECT_EQ(TARVIKARM_ReadReg(PROBE_REG_SP), SP - 4);
  // A running target stops on the interrupt.
  EXPECT_EQ(TARVIKARM_ClrBPEx(Handle), 0);
  TARVIKARM_GoEx(0, 1);
  EXPECT_EQ(TARVIKARM_IsHalted(), 0);
  EXPECT_EQ(TARVIKARM_Halt(), 0);
  EXPECT_GT(TARVIKARM_IsHalted(), 0);
  // Reset goes back to the reset vector.
  EXPECT_EQ(TARVIKARM_Reset(), 0) << g_sLog;
  U32 Vector = U32(aImage[4]) | U32(aImage[5]) << 8 | U32(aImage[6]) << 16 | U32(aImage[7]) << 24;
  EXPECT_EQ(TARVIKARM_ReadReg(PROBE_REG_PC), Vector & ~1u);
}

TEST(GdbQemu, WatchpointHaltsOncePerWrite) {
  SKIP_WITHOUT_QEMU();
  CQemuSession Session("basic-O0");
  // Past the start-up code, which writes g_Stats too while it copies the initialised data.
  U32 Handle = TARVIKARM_SetBPEx(kRecord, 0xFFFFFF00u | 2);
  EXPECT_EQ(CSimSession::RunToHalt(), kRecord);
  TARVIKARM_ClrBPEx(Handle);
  TARVIK_DATA_EVENT Ev{sizeof(Ev), 1, kStats, 0, 0, 0xFFFFFFFFu, 1 | 4, 0x10, {}};
  ASSERT_EQ(TARVIKARM_SetDataEvent(&Ev, &Handle), 0) << g_sLog;
  // QEMU halts at the storing instruction, before the access; each further halt is for the next
  // write: the target moves on instead of triggering again on the same access.
  U32 Count = CSimSession::ReadU32(kStats);
  for (int i = 0; i < 3; i++) {
    EXPECT_EQ(CSimSession::RunToHalt(), kStoreCount) << i;
    EXPECT_EQ(CSimSession::ReadU32(kStats), Count + U32(i)) << i;
  }
}

TEST(GdbQemu, KilledQemuMarksTheTargetLost) {
  SKIP_WITHOUT_QEMU();
  // Killed while the target runs, and while a download is under way.
  for (bool WhileRunning : {true, false}) {
    CQemuSession Session("basic-O0");
    if (WhileRunning) {
      TARVIKARM_GoEx(0, 1);
      EXPECT_EQ(TARVIKARM_IsHalted(), 0);
      Session.Qemu.Kill();
    } else {
      std::vector<U8> aData(0x10000, 0x55);
      std::thread Killer([&] { Session.Qemu.Kill(); });
      TARVIKARM_BeginDownload(0);
      for (int i = 0; i < 64 && TARVIKARM_IsHalted() > 0; i++) {
        TARVIKARM_WriteMemEx(0x20000000, U32(aData.size()), aData.data(), 0);
      }
      Killer.join();
      TARVIKARM_WriteMemEx(0x20000000, U32(aData.size()), aData.data(), 0);
      EXPECT_NE(TARVIKARM_EndDownload(), 0);
    }
    auto End = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (TARVIKARM_IsHalted() >= 0 && std::chrono::steady_clock::now() < End) {
      std::this_thread::yield();
    }
    EXPECT_LT(TARVIKARM_IsHalted(), 0) << WhileRunning;
    EXPECT_NE(TARVIKARM_Halt(), 0);
  }
}

TEST(GdbQemu, SemihostingOutputReachesTheLog) {
  SKIP_WITHOUT_QEMU();
  CQemuSession Session("semihosting-O0", true);
  TARVIKARM_GoEx(0, 1);
  // The program prints two lines and exits; QEMU ends with it, so the run ends as a lost target.
  auto End = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (TARVIKARM_IsHalted() == 0 && std::chrono::steady_clock::now() < End) {
    std::this_thread::yield();
  }
  EXPECT_NE(g_sLog.find("Hello from the target\nSecond line\n"), std::string::npos) << g_sLog;
}

}  // namespace
