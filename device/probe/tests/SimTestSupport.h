// Helpers of the simulator tests: the committed target programs (flat images and symbol lists made
// by target/build.sh with arm-none-eabi-objcopy and -nm), a session on a simulated device, and waits
// with a bound.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "device/probe/ProbeCore.h"

inline std::string FixturePath(const std::string& sName, const char* sSuffix) {
  return std::string(ZEVRA_SOURCE_DIR) + "/target/elf/" + sName + sSuffix;
}

inline std::vector<U8> LoadFile(const std::string& sPath) {
  std::ifstream f(sPath, std::ios::binary);
  return std::vector<U8>((std::istreambuf_iterator<char>(f)), std::istreambuf_iterator<char>());
}

// Symbol name to address, from the nm listing beside the image.
inline std::map<std::string, U32> LoadSymbols(const std::string& sName) {
  std::map<std::string, U32> Map;
  std::ifstream f(FixturePath(sName, ".nm"));
  std::string sLine;
  while (std::getline(f, sLine)) {
    std::istringstream Line(sLine);
    std::string sAddr, sType, sSym;
    if (Line >> sAddr >> sType >> sSym) {
      Map[sSym] = U32(std::stoul(sAddr, nullptr, 16));
    }
  }
  return Map;
}

// A session on one simulated device with a program loaded and the core reset to its vector.
class CSimSession {
 public:
  explicit CSimSession(const char* sDevice = "Simulator Cortex-M4") {
    PROBE_ResetLayer();
    char acOut[256];
    std::string sCmd = std::string("device=") + sDevice;
    EXPECT_EQ(TARVIKARM_ExecCommand(sCmd.c_str(), acOut, sizeof(acOut)), 0) << acOut;
    EXPECT_EQ(TARVIKARM_Open(), nullptr);
    EXPECT_EQ(TARVIKARM_Connect(), 0);
    TARVIKARM_ExecCommand("SimFault=None", acOut, sizeof(acOut));
    TARVIKARM_ExecCommand("SimSpeed=max", acOut, sizeof(acOut));
    TARVIKARM_EnableSoftBPs(1);
    TARVIKARM_Halt();
  }
  ~CSimSession() {
    TARVIKARM_Halt();
    TARVIKARM_ClrBPEx(0xFFFFFFFFu);
    TARVIKARM_ClrDataEvent(0xFFFFFFFFu);
    PROBE_ResetLayer();
  }

  // Writes the flat image at 0, clears RAM and resets; gives the symbols.
  std::map<std::string, U32> Load(const std::string& sName) {
    std::vector<U8> aImage = LoadFile(FixturePath(sName, ".bin"));
    EXPECT_FALSE(aImage.empty()) << sName;
    std::vector<U8> aZero(0x40000, 0);
    EXPECT_EQ(TARVIKARM_WriteMemEx(0x20000000, U32(aZero.size()), aZero.data(), 0), int(aZero.size()));
    TARVIKARM_BeginDownload(0);
    EXPECT_EQ(TARVIKARM_WriteMemEx(0, U32(aImage.size()), aImage.data(), 0), int(aImage.size()));
    EXPECT_EQ(TARVIKARM_EndDownload(), 0);
    EXPECT_EQ(TARVIKARM_Reset(), 0);
    return LoadSymbols(sName);
  }

  // Polls until the target halts; false after the bound.
  static bool WaitHalted(int TimeoutMs = 10000) {
    auto End = std::chrono::steady_clock::now() + std::chrono::milliseconds(TimeoutMs);
    while (std::chrono::steady_clock::now() < End) {
      if (TARVIKARM_IsHalted() > 0) {
        return true;
      }
      std::this_thread::yield();
    }
    return false;
  }

  // Resumes and waits for the next halt; gives the PC there (0 on timeout).
  static U32 RunToHalt(int TimeoutMs = 10000) {
    TARVIKARM_GoEx(0, 1);
    if (!WaitHalted(TimeoutMs)) {
      ADD_FAILURE() << "target did not halt within " << TimeoutMs << " ms";
      TARVIKARM_Halt();
      return 0;
    }
    return TARVIKARM_ReadReg(15);
  }

  static U32 ReadU32(U32 Addr) {
    U32 v = 0;
    EXPECT_EQ(TARVIKARM_ReadMemEx(Addr, 4, &v, 4), 4) << std::hex << Addr;
    return v;
  }

  static U16 ReadU16(U32 Addr) {
    U16 v = 0;
    EXPECT_EQ(TARVIKARM_ReadMemEx(Addr, 2, &v, 2), 2) << std::hex << Addr;
    return v;
  }
};

// The semihosting exit of the target programs: BKPT 0xAB with SYS_EXIT (0x18) in R0 and the reason in
// R1 (0x20026 application exit, 0x20023 run-time error).
inline bool IsAtSemihostingExit(U32* pReason) {
  U32 PC = TARVIKARM_ReadReg(15);
  U16 Op = 0;
  TARVIKARM_ReadMemEx(PC, 2, &Op, 2);
  *pReason = TARVIKARM_ReadReg(1);
  return Op == 0xBEAB && TARVIKARM_ReadReg(0) == 0x18;
}
