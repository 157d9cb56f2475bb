// Runs target/elf/bench-O2 (a sieve ending with a semihosting exit) on the simulated Cortex-M4, once
// plain and once with the streaming trace and its per-halfword counters on, and prints the
// instruction rate of each. Then times qemu-system-arm -M mps2-an385 on the same ELF to its exit.
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

#include "device/probe/ProbeCore.h"

namespace {

const std::string kElf = std::string(ZEVRA_SOURCE_DIR) + "/target/elf/bench-O2.elf";
const std::string kBin = std::string(ZEVRA_SOURCE_DIR) + "/target/elf/bench-O2.bin";

double _Seconds(std::chrono::steady_clock::time_point Start) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - Start).count();
}

// One run from reset to the exit; gives seconds and the instruction count (DWT.CYCCNT: the simulator
// counts one cycle per instruction). Negative seconds on failure.
double _RunOnce(bool Trace, U32* pInstructions) {
  std::ifstream f(kBin, std::ios::binary);
  std::vector<U8> aImage((std::istreambuf_iterator<char>(f)), std::istreambuf_iterator<char>());
  if (aImage.empty()) {
    fprintf(stderr, "cannot read %s\n", kBin.c_str());
    return -1;
  }
  TARVIKARM_Halt();
  TARVIKARM_WriteMemEx(0, U32(aImage.size()), aImage.data(), 0);
  TARVIKARM_Reset();
  TARVIKARM_WriteU32(0xE0001004, 0);  // CYCCNT
  TARVIKARM_WriteU32(0xE0001000, 1);  // CYCCNTENA
  if (Trace) {
    TARVIK_STRACE_Start();
  }
  auto Start = std::chrono::steady_clock::now();
  TARVIKARM_GoEx(0, 1);
  while (TARVIKARM_IsHalted() == 0) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
    if (_Seconds(Start) > 120) {
      fprintf(stderr, "no exit within 120 s\n");
      return -1;
    }
  }
  double Secs = _Seconds(Start);
  if (Trace) {
    TARVIK_STRACE_Stop();
  }
  U32 Count = 0;
  TARVIKARM_ReadMemEx(0xE0001004, 4, &Count, 4);
  *pInstructions = Count;
  return TARVIKARM_ReadReg(0) == 0x18 ? Secs : -1;
}

}  // namespace

int main() {
  char acOut[256];
  TARVIKARM_ExecCommand("device=Simulator Cortex-M4", acOut, sizeof(acOut));
  if (const char* sError = TARVIKARM_Open()) {
    fprintf(stderr, "open failed: %s\n", sError);
    return 1;
  }
  TARVIKARM_Connect();
  for (bool Trace : {false, true}) {
    U32 n = 0;
    double Secs = _RunOnce(Trace, &n);
    if (Secs <= 0) {
      fprintf(stderr, "simulator run failed\n");
      return 1;
    }
    printf("simulator, trace and counters %-3s: %u instructions in %.3f s = %.1f MIPS\n",
           Trace ? "on" : "off", n, Secs, n / Secs / 1e6);
  }
  TARVIKARM_Close();

  std::string sCmd =
      "qemu-system-arm -M mps2-an385 -nographic -semihosting -monitor none -serial none -kernel " + kElf +
      " > /dev/null 2>&1";
  if (system("command -v qemu-system-arm > /dev/null 2>&1") != 0) {
    printf("qemu-system-arm not found: no comparison\n");
    return 0;
  }
  auto Start = std::chrono::steady_clock::now();
  int Rc = system(sCmd.c_str());
  printf(
      "qemu-system-arm -M mps2-an385, same program to its semihosting exit: %.3f s (exit status %d, "
      "includes QEMU start-up)\n",
      _Seconds(Start), Rc);
  return 0;
}
