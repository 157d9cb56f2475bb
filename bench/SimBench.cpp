// Runs target/elf/bench-O2 (a sieve ending with a semihosting exit, 97.6 M instructions) to its exit
// and prints, start-up excluded, the instruction rate of:
//   - the simulated Cortex-M4 with trace and counters off, and on;
//   - the instruction emulator library alone, no hook at all, same memory map and program: the ceiling;
//   - qemu-system-arm -M mps2-an386, from which the time of a program that exits at once is taken off.
// Rates are per second of CPU time (the machine is shared); wall time is printed beside. The
// instruction counts of the simulator's runs come from DWT.CYCCNT (one per instruction), the library's
// from a separate counting run with a block hook; they must be equal. QEMU's count isn't measured (this
// QEMU has no instruction counting plug-in); it runs the same program to the same exit.
#include <sys/resource.h>
#include <unicorn/unicorn.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

#include "device/probe/ProbeCore.h"

namespace {

const std::string kElf = std::string(ZEVRA_SOURCE_DIR) + "/target/elf/bench-O2.elf";
const std::string kBin = std::string(ZEVRA_SOURCE_DIR) + "/target/elf/bench-O2.bin";
const std::string kQuickElf = std::string(ZEVRA_SOURCE_DIR) + "/target/elf/basic-O0.elf";

struct TIMES {
  double Cpu = 0, Wall = 0;
};

double _ProcessCpu() {
  timespec t;
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &t);
  return double(t.tv_sec) + double(t.tv_nsec) * 1e-9;
}

double _ChildrenCpu() {
  rusage r;
  getrusage(RUSAGE_CHILDREN, &r);
  return double(r.ru_utime.tv_sec + r.ru_stime.tv_sec) +
         double(r.ru_utime.tv_usec + r.ru_stime.tv_usec) * 1e-6;
}

double _Wall() {
  return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

std::vector<U8> _Image() {
  std::ifstream f(kBin, std::ios::binary);
  return std::vector<U8>((std::istreambuf_iterator<char>(f)), std::istreambuf_iterator<char>());
}

void _Print(const char* sWhat, U64 Insts, TIMES t) {
  printf("%-44s %10llu instructions  %7.3f s CPU  %7.3f s wall  %6.1f MIPS\n", sWhat,
         (unsigned long long)Insts, t.Cpu, t.Wall, double(Insts) / t.Cpu / 1e6);
}

// One run of the simulator from reset to the exit. Negative CPU time on failure.
TIMES _RunSimulator(const std::vector<U8>& aImage, bool Trace, U32* pInstructions) {
  TARVIKARM_Halt();
  TARVIKARM_WriteMemEx(0, U32(aImage.size()), aImage.data(), 0);
  TARVIKARM_Reset();
  TARVIKARM_WriteU32(0xE0001004, 0);  // CYCCNT
  TARVIKARM_WriteU32(0xE0001000, 1);  // CYCCNTENA
  if (Trace) {
    TARVIK_STRACE_Start();
  }
  TIMES t;
  double Cpu = _ProcessCpu(), Wall = _Wall();
  TARVIKARM_GoEx(0, 1);
  while (TARVIKARM_IsHalted() == 0) {
    std::this_thread::sleep_for(
        std::chrono::milliseconds(20));  // polls as the device thread does, if more often
    if (_Wall() - Wall > 120) {
      fprintf(stderr, "no exit within 120 s\n");
      t.Cpu = -1;
      return t;
    }
  }
  t.Cpu = _ProcessCpu() - Cpu;
  t.Wall = _Wall() - Wall;
  if (Trace) {
    TARVIK_STRACE_Stop();
  }
  TARVIKARM_ReadMemEx(0xE0001004, 4, pInstructions, 4);
  if (TARVIKARM_ReadReg(0) != 0x18) {
    t.Cpu = -1;
  }
  return t;
}

U64 g_LibraryCount = 0;
const std::vector<U8>* g_pImage = nullptr;
// Counts the instructions of each block the library runs, from the image (the program runs from
// flash). A block hook rather than a code hook: the library calls no code hook for an instruction of
// an IT block whose condition fails, though it runs through it.
void _OnLibraryBlock(uc_engine*, uint64_t Addr, uint32_t Size, void*) {
  for (uint64_t a = Addr; a < Addr + Size && a + 1 < g_pImage->size(); g_LibraryCount++) {
    U16 H0 = U16((*g_pImage)[a] | ((*g_pImage)[a + 1] << 8));
    a += H0 >= 0xE800 ? 4 : 2;
  }
}
void _OnLibraryInterrupt(uc_engine* pUc, uint32_t, void*) {
  uc_emu_stop(pUc);  // the semihosting BKPT at the exit
}

// The library alone on the same program; with Count, a code hook counts the instructions.
TIMES _RunLibrary(const std::vector<U8>& aImage, bool Count) {
  TIMES t;
  t.Cpu = -1;
  uc_engine* pUc = nullptr;
  if (uc_open(UC_ARCH_ARM, uc_mode(UC_MODE_THUMB | UC_MODE_MCLASS), &pUc) != UC_ERR_OK) {
    return t;
  }
  uc_mem_map(pUc, 0, 0x100000, UC_PROT_READ | UC_PROT_EXEC);
  uc_mem_map(pUc, 0x20000000, 0x40000, UC_PROT_ALL);
  uc_mem_write(pUc, 0, aImage.data(), aImage.size());
  U32 aVector[2];
  memcpy(aVector, aImage.data(), sizeof(aVector));
  uc_reg_write(pUc, UC_ARM_REG_SP, &aVector[0]);
  uc_hook h;
  uc_hook_add(pUc, &h, UC_HOOK_INTR, reinterpret_cast<void*>(_OnLibraryInterrupt), nullptr, 1, 0);
  if (Count) {
    g_pImage = &aImage;
    uc_hook_add(pUc, &h, UC_HOOK_BLOCK, reinterpret_cast<void*>(_OnLibraryBlock), nullptr, 1, 0);
  }
  g_LibraryCount = 0;
  double Cpu = _ProcessCpu(), Wall = _Wall();
  uc_err Err = uc_emu_start(pUc, aVector[1] | 1, 0xFFFFFFFFu, 0, 0);
  t.Cpu = _ProcessCpu() - Cpu;
  t.Wall = _Wall() - Wall;
  U32 R0 = 0;
  uc_reg_read(pUc, UC_ARM_REG_R0, &R0);
  uc_close(pUc);
  if (Err != UC_ERR_OK || R0 != 0x18) {
    t.Cpu = -1;
  }
  // The last block ends with the exit's BKPT, which halts before it completes: not run.
  g_LibraryCount -= Count ? 1 : 0;
  return t;
}

TIMES _RunQemu(const std::string& sElf) {
  std::string sCmd =
      "qemu-system-arm -M mps2-an386 -nographic -semihosting -monitor none -serial none -kernel " + sElf +
      " > /dev/null 2>&1";
  TIMES t;
  double Cpu = _ChildrenCpu(), Wall = _Wall();
  int Rc = system(sCmd.c_str());
  t.Cpu = _ChildrenCpu() - Cpu;
  t.Wall = _Wall() - Wall;
  if (Rc != 0) {
    t.Cpu = -1;
  }
  return t;
}

}  // namespace

int main() {
  std::vector<U8> aImage = _Image();
  if (aImage.size() < 8) {
    fprintf(stderr, "cannot read %s\n", kBin.c_str());
    return 1;
  }
  char acOut[256];
  TARVIKARM_ExecCommand("device=Simulator Cortex-M4", acOut, sizeof(acOut));
  if (const char* sError = TARVIKARM_Open()) {
    fprintf(stderr, "open failed: %s\n", sError);
    return 1;
  }
  TARVIKARM_Connect();
  U32 aCount[2] = {};
  TIMES aSim[2];
  for (int Trace = 0; Trace < 2; Trace++) {
    aSim[Trace] = _RunSimulator(aImage, Trace != 0, &aCount[Trace]);
    if (aSim[Trace].Cpu <= 0) {
      fprintf(stderr, "simulator run failed\n");
      return 1;
    }
  }
  TARVIKARM_Close();
  TIMES Library = _RunLibrary(aImage, false);
  TIMES Counted = _RunLibrary(aImage, true);
  if (Library.Cpu <= 0 || Counted.Cpu <= 0) {
    fprintf(stderr, "library run failed\n");
    return 1;
  }
  _Print("simulator Cortex-M4, trace and counters off", aCount[0], aSim[0]);
  _Print("simulator Cortex-M4, trace and counters on", aCount[1], aSim[1]);
  _Print("emulator library alone, no hook", g_LibraryCount, Library);
  printf("simulator, trace off, against the library alone: %.1f %%\n", 100.0 * Library.Cpu / aSim[0].Cpu);
  bool Equal = aCount[0] == aCount[1] && aCount[0] == g_LibraryCount;
  printf("instruction counts %s\n", Equal ? "equal" : "DIFFER");
  if (system("command -v qemu-system-arm > /dev/null 2>&1") != 0) {
    printf("qemu-system-arm not found: no comparison\n");
    return Equal ? 0 : 1;
  }
  TIMES Full = _RunQemu(kElf), StartUp = _RunQemu(kQuickElf);
  if (Full.Cpu <= 0 || StartUp.Cpu < 0) {
    printf("qemu-system-arm failed on %s\n", kElf.c_str());
    return 1;
  }
  TIMES Qemu{Full.Cpu - StartUp.Cpu, Full.Wall - StartUp.Wall};
  printf("qemu-system-arm start-up (a program that exits at once): %.3f s CPU, %.3f s wall\n", StartUp.Cpu,
         StartUp.Wall);
  _Print("qemu-system-arm -M mps2-an386, start-up taken off", aCount[0], Qemu);
  return Equal ? 0 : 1;
}
