// zevra-simserver as gdb-multiarch sees it, and our client on what QEMU lacks: a memory map with
// flash programmed through vFlash, a limited number of breakpoint units, a server that hangs up.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <vector>

#include "device/probe/tests/SimTestSupport.h"

extern char** environ;

namespace {

const std::string kServerPath = std::string(ZEVRA_BINARY_DIR) + "/tools/simserver/zevra-simserver";

// Runs a program with its standard output (and error) on a pipe; the output is read with a bound.
class CProcess {
 public:
  explicit CProcess(std::vector<std::string> asArgs) {
    int aPipe[2];
    if (pipe2(aPipe, O_CLOEXEC) != 0) {
      return;
    }
    std::vector<char*> apArgs;
    for (std::string& s : asArgs) {
      apArgs.push_back(s.data());
    }
    apArgs.push_back(nullptr);
    posix_spawn_file_actions_t Actions;
    posix_spawn_file_actions_init(&Actions);
    posix_spawn_file_actions_adddup2(&Actions, aPipe[1], 1);
    posix_spawn_file_actions_adddup2(&Actions, aPipe[1], 2);
    if (posix_spawnp(&_Pid, apArgs[0], &Actions, nullptr, apArgs.data(), environ) != 0) {
      _Pid = -1;
    }
    posix_spawn_file_actions_destroy(&Actions);
    close(aPipe[1]);
    _Out = aPipe[0];
  }
  ~CProcess() {
    if (_Pid > 0) {
      kill(_Pid, SIGKILL);
      waitpid(_Pid, nullptr, 0);
    }
    if (_Out >= 0) {
      close(_Out);
    }
  }
  // Output until it contains sUntil (or ends, or the bound passes).
  std::string ReadUntil(const std::string& sUntil, int TimeoutMs) {
    auto End = std::chrono::steady_clock::now() + std::chrono::milliseconds(TimeoutMs);
    while (_sOut.find(sUntil) == std::string::npos) {
      auto Left =
          std::chrono::duration_cast<std::chrono::milliseconds>(End - std::chrono::steady_clock::now());
      pollfd Fd{_Out, POLLIN, 0};
      if (Left.count() <= 0 || poll(&Fd, 1, int(Left.count())) != 1) {
        break;
      }
      char ac[4096];
      ssize_t n = read(_Out, ac, sizeof(ac));
      if (n <= 0) {
        break;
      }
      _sOut.append(ac, size_t(n));
    }
    return _sOut;
  }

 private:
  pid_t _Pid = -1;
  int _Out = -1;
  std::string _sOut;
};

// The server on a free port with basic-O0 in flash; gives its "127.0.0.1:PORT".
std::string _StartServer(CProcess& Server) {
  std::string sOut = Server.ReadUntil("\n", 10000);
  size_t p = sOut.find("Listening on ");
  return p == std::string::npos ? std::string() : sOut.substr(p + 13, sOut.find('\n', p) - p - 13);
}

#define SKIP_WITHOUT(sPath)                     \
  if (access((sPath), X_OK) != 0) {             \
    GTEST_SKIP() << (sPath) << " is not there"; \
  }

TEST(GdbSimServer, GdbMultiarchDebugsTheSimulatedProgram) {
  SKIP_WITHOUT(kServerPath.c_str());
  SKIP_WITHOUT("/usr/bin/gdb-multiarch");
  CProcess Server({kServerPath, "--port", "0", "--once", "--image", FixturePath("basic-O0", ".bin")});
  std::string sAddress = _StartServer(Server);
  ASSERT_FALSE(sAddress.empty());
  CProcess Gdb({"gdb-multiarch",
                "-batch",
                "-nx",
                "-ex",
                "target remote " + sAddress,
                "-ex",
                "break main",
                "-ex",
                "break Square",
                "-ex",
                "continue",
                "-ex",
                "info locals",
                "-ex",
                "continue",
                "-ex",
                "bt",
                "-ex",
                "info args",
                "-ex",
                "x/4xw 0",
                "-ex",
                "detach",
                FixturePath("basic-O0", ".elf")});
  std::string sOut = Gdb.ReadUntil("detached", 20000);
  // main's one local: its value before the loop starts is whatever the stack held.
  EXPECT_NE(sOut.find("Breakpoint 1, main ()"), std::string::npos) << sOut;
  EXPECT_NE(sOut.find("Round = "), std::string::npos) << sOut;
  // main calls SumOfSquares(10), which calls Square(1) first (fixtures/basic.c).
  EXPECT_NE(sOut.find("Breakpoint 2, Square (x=1)"), std::string::npos) << sOut;
  EXPECT_NE(sOut.find("#1  0x"), std::string::npos) << sOut;
  EXPECT_NE(sOut.find("in SumOfSquares (n=10)"), std::string::npos) << sOut;
  EXPECT_NE(sOut.find("#2  0x"), std::string::npos) << sOut;
  EXPECT_NE(sOut.find("in main ()"), std::string::npos) << sOut;
  EXPECT_NE(sOut.find("x = 1"), std::string::npos) << sOut;
  std::vector<U8> aImage = LoadFile(FixturePath("basic-O0", ".bin"));
  ASSERT_GE(aImage.size(), 16u);
  char acWords[128];
  auto Word = [&](int i) {
    return U32(aImage[size_t(4 * i)]) | U32(aImage[size_t(4 * i + 1)]) << 8 |
           U32(aImage[size_t(4 * i + 2)]) << 16 | U32(aImage[size_t(4 * i + 3)]) << 24;
  };
  snprintf(acWords, sizeof(acWords), "0x%08x\t0x%08x\t0x%08x\t0x%08x", Word(0), Word(1), Word(2), Word(3));
  EXPECT_NE(sOut.find(acWords), std::string::npos) << sOut;
}

TEST(GdbSimServer, GdbMultiarchStepsIntoTheSvcHandlerAndReadsTheSystemRegion) {
  SKIP_WITHOUT(kServerPath.c_str());
  SKIP_WITHOUT("/usr/bin/gdb-multiarch");
  // systick's SVC #3: Thumb encoding 0xDF03 (SVC T1: 1101 1111 imm8), once in the image.
  std::vector<U8> aImage = LoadFile(FixturePath("systick-O0", ".bin"));
  std::vector<U32> aSvc;
  for (size_t i = 0; i + 1 < aImage.size(); i += 2) {
    if (aImage[i] == 0x03 && aImage[i + 1] == 0xDF) {
      aSvc.push_back(U32(i));
    }
  }
  ASSERT_EQ(aSvc.size(), 1u);
  U32 Handler = LoadSymbols("systick-O0")["SVC_Handler"];
  ASSERT_NE(Handler, 0u);
  CProcess Server({kServerPath, "--port", "0", "--once", "--image", FixturePath("systick-O0", ".bin")});
  std::string sAddress = _StartServer(Server);
  ASSERT_FALSE(sAddress.empty());
  char acBreak[64];
  snprintf(acBreak, sizeof(acBreak), "break *0x%x", aSvc[0]);
  CProcess Gdb({"gdb-multiarch", "-batch", "-nx", "-ex", "target remote " + sAddress, "-ex", acBreak, "-ex",
                "continue", "-ex", "stepi", "-ex", "p/x $pc", "-ex", "x/wx 0xE000ED00", "-ex", "detach",
                FixturePath("systick-O0", ".elf")});
  std::string sOut = Gdb.ReadUntil("detached", 20000);
  // The target's own step takes the exception: the stop is at the handler's first instruction.
  char acPC[32];
  snprintf(acPC, sizeof(acPC), "$1 = 0x%x\n", Handler);
  EXPECT_NE(sOut.find(acPC), std::string::npos) << sOut;
  // CPUID of the simulated Cortex-M4 (r0p0), as QEMU 7.2's mps2-an386 reports it for the same core.
  EXPECT_NE(sOut.find("0xe000ed00:\t0x410fc240"), std::string::npos) << sOut;
}

// A probe session on the server through the IP interface.
class CServerSession {
 public:
  explicit CServerSession(std::vector<std::string> asExtra) : Server(_Args(asExtra)) {
    PROBE_ResetLayer();
    sAddress = _StartServer(Server);
    EXPECT_EQ(TARVIKARM_SelectIP(sAddress.c_str(), 0), 0);
    EXPECT_EQ(TARVIKARM_Open(), nullptr);
    EXPECT_EQ(TARVIKARM_Connect(), 0);
    TARVIKARM_EnableSoftBPs(1);
  }
  ~CServerSession() { PROBE_ResetLayer(); }

  CProcess Server;
  std::string sAddress;

 private:
  static std::vector<std::string> _Args(std::vector<std::string> asExtra) {
    std::vector<std::string> as = {kServerPath, "--port",  "0",
                                   "--once",    "--image", FixturePath("basic-O0", ".bin")};
    as.insert(as.end(), asExtra.begin(), asExtra.end());
    return as;
  }
};

TEST(GdbSimServer, DownloadToFlashGoesThroughVFlash) {
  SKIP_WITHOUT(kServerPath.c_str());
  CServerSession Session({});
  // A pattern written across two erase blocks, in the middle of each: the bytes around it stay.
  std::vector<U8> aImage = LoadFile(FixturePath("basic-O0", ".bin"));
  std::vector<U8> aPattern(0x1800);
  for (size_t i = 0; i < aPattern.size(); i++) {
    aPattern[i] = U8(i ^ (i >> 8) ^ 0x23);
  }
  U32 Addr = 0x10800;
  TARVIKARM_BeginDownload(0);
  EXPECT_EQ(TARVIKARM_WriteMemEx(Addr, U32(aPattern.size()), aPattern.data(), 0), int(aPattern.size()));
  EXPECT_EQ(TARVIKARM_EndDownload(), 0);
  std::vector<U8> aBack(aPattern.size());
  EXPECT_EQ(TARVIKARM_ReadMemEx(Addr, U32(aBack.size()), aBack.data(), 0), int(aBack.size()));
  EXPECT_EQ(aBack, aPattern);
  // The image at 0 was not touched by erasing those blocks.
  std::vector<U8> aHead(0x100);
  EXPECT_EQ(TARVIKARM_ReadMemEx(0, 0x100, aHead.data(), 0), 0x100);
  EXPECT_EQ(aHead, std::vector<U8>(aImage.begin(), aImage.begin() + 0x100));
}

TEST(GdbSimServer, HardwareBreakpointsEndWhenTheServerRunsOutOfUnits) {
  SKIP_WITHOUT(kServerPath.c_str());
  CServerSession Session({"--bp-units", "2"});
  // Hardware only: the server refuses the third; with software allowed the third goes to software.
  EXPECT_NE(TARVIKARM_SetBPEx(0x48, 0xFFFFFF00u), 0u);
  EXPECT_NE(TARVIKARM_SetBPEx(0x64, 0xFFFFFF00u), 0u);
  EXPECT_EQ(TARVIKARM_SetBPEx(0xB4, 0xFFFFFF00u), 0u);
  U32 Handle = TARVIKARM_SetBPEx(0xB4, 0xFFFFFFF0u);
  ASSERT_NE(Handle, 0u);
  TARVIK_BP_INFO Info{};
  Info.SizeOfStruct = sizeof(Info);
  Info.Handle = Handle;
  TARVIKARM_GetBPInfoEx(-1, &Info);
  EXPECT_EQ(Info.ImpFlags, 0x10u);  // software, in flash
  // main calls SumOfSquares (0x64) before it calls Square (0x48).
  EXPECT_EQ(CSimSession::RunToHalt(), 0x64u);
  EXPECT_EQ(CSimSession::RunToHalt(), 0x48u);
}

TEST(GdbSimServer, ServerHangingUpMidSessionMarksTheTargetLost) {
  SKIP_WITHOUT(kServerPath.c_str());
  // The handshake takes a handful of packets; the server hangs up a little later.
  CServerSession Session({"--drop-after", "12"});
  U8 ac[4];
  int i = 0;
  while (TARVIKARM_IsHalted() > 0 && i++ < 100) {
    TARVIKARM_ReadMemEx(0x20000000, 4, ac, 0);
  }
  EXPECT_LT(TARVIKARM_IsHalted(), 0);
  EXPECT_LT(i, 100);
}

}  // namespace

namespace {

TEST(GdbSimServer, GdbMultiarchSeesTheFpuRegistersOfTheCortexM4) {
  SKIP_WITHOUT(kServerPath.c_str());
  SKIP_WITHOUT("/usr/bin/gdb-multiarch");
  CProcess Server({kServerPath, "--port", "0", "--once", "--image", FixturePath("basic-O0", ".bin")});
  std::string sAddress = _StartServer(Server);
  ASSERT_FALSE(sAddress.empty());
  // s2 and s3 are the halves of d1: 2.5f in s3 and 0 in s2 make the double 0x4020000000000000, 8.0.
  CProcess Gdb({"gdb-multiarch",
                "-batch",
                "-nx",
                "-ex",
                "target remote " + sAddress,
                "-ex",
                "set $s2 = 0",
                "-ex",
                "set $s3 = 2.5",
                "-ex",
                "info registers s3",
                "-ex",
                "info registers d1",
                "-ex",
                "set $fpscr = 0x00c00000",
                "-ex",
                "info registers fpscr",
                "-ex",
                "info registers s0",
                "-ex",
                "detach",
                FixturePath("basic-O0", ".elf")});
  std::string sOut = Gdb.ReadUntil("detached", 20000);
  EXPECT_NE(sOut.find("(raw 0x40200000)"), std::string::npos) << sOut;
  EXPECT_NE(sOut.find("(raw 0x4020000000000000)"), std::string::npos) << sOut;
  EXPECT_NE(sOut.find("0xc00000"), std::string::npos) << sOut;
  EXPECT_NE(sOut.find("s0 "), std::string::npos) << sOut;
  EXPECT_EQ(sOut.find("Invalid register"), std::string::npos) << sOut;
}

TEST(GdbSimServer, OurClientReadsAndWritesSingleRegistersThroughDoubleRegisters) {
  SKIP_WITHOUT(kServerPath.c_str());
  CServerSession Session({});
  EXPECT_EQ(TARVIKARM_WriteReg(PROBE_REG_S0 + 4, 0x3F800000), 0);  // s4: the low half of d2
  EXPECT_EQ(TARVIKARM_WriteReg(PROBE_REG_S0 + 5, 0x40000000), 0);  // s5: the high half
  EXPECT_EQ(TARVIKARM_WriteReg(PROBE_REG_FPSCR, 0x00400000), 0);
  EXPECT_EQ(TARVIKARM_ReadReg(PROBE_REG_S0 + 4), 0x3F800000u);
  EXPECT_EQ(TARVIKARM_ReadReg(PROBE_REG_S0 + 5), 0x40000000u);
  EXPECT_EQ(TARVIKARM_ReadReg(PROBE_REG_FPSCR), 0x00400000u);
  EXPECT_EQ(TARVIKARM_ReadReg(PROBE_REG_S0 + 6), 0u) << "d3 untouched";
}

}  // namespace
