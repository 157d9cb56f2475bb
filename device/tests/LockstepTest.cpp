// The simulator against QEMU, one instruction at a time: each firmware fixture is single-stepped on
// the built-in simulator and on QEMU (microbit for the Cortex-M0, mps2-an385 for the M3, mps2-an386
// for the M4), both driven through their probe back-ends, and after every step the core registers,
// the program's static data and its stack must be equal. QEMU is the reference; a failure names the
// first step where the two part. QEMU 7.2's gdbstub offers no M-profile system registers (MSP, PSP,
// PRIMASK, BASEPRI, FAULTMASK, CONTROL): a register is compared where both sides read it, and each
// run prints what it could not compare.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <map>
#include <string>
#include <vector>

#include "device/probe/GdbConnection.h"
#include "device/probe/GdbRemote.h"
#include "device/probe/ProbeCore.h"
#include "device/probe/SimTarget.h"
#include "device/probe/tests/QemuProcess.h"
#include "device/probe/tests/SimTestSupport.h"

namespace {

// ---- What is compared ----

struct LOCKSTEP_REG {
  U32 Index;
  std::string sName;
};

// The FP registers come with the probe layer's indices PROBE_REG_S0 (S0..S31 in a row) and
// PROBE_REG_FPSCR, in the enumeration of the core registers. Until the layer has them, only the core
// registers are compared; these look-ups find them as soon as they are there.
template <class E>
constexpr auto _FirstFpIndex(int) -> decltype(U32(E::PROBE_REG_S0)) {
  return U32(E::PROBE_REG_S0);
}
template <class E>
constexpr U32 _FirstFpIndex(...) {
  return ~0u;
}
template <class E>
constexpr auto _FpscrIndex(int) -> decltype(U32(E::PROBE_REG_FPSCR)) {
  return U32(E::PROBE_REG_FPSCR);
}
template <class E>
constexpr U32 _FpscrIndex(...) {
  return ~0u;
}
using PROBE_REG_ENUM = decltype(PROBE_NUM_REGS);
constexpr U32 kFirstFpIndex = _FirstFpIndex<PROBE_REG_ENUM>(0);
constexpr U32 kFpscrIndex = _FpscrIndex<PROBE_REG_ENUM>(0);

std::vector<LOCKSTEP_REG> _RegistersOf(U32 Core) {
  std::vector<LOCKSTEP_REG> aRegs;
  for (U32 i = 0; i <= 12; i++) {
    aRegs.push_back({i, "R" + std::to_string(i)});
  }
  const char* const asSpecial[] = {"SP",  "LR",      "PC",      "xPSR",      "MSP",
                                   "PSP", "PRIMASK", "BASEPRI", "FAULTMASK", "CONTROL"};
  for (U32 i = PROBE_REG_SP; i <= PROBE_REG_CONTROL; i++) {
    aRegs.push_back({i, asSpecial[i - PROBE_REG_SP]});
  }
  if (Core == PROBE_CORE_CORTEX_M4 && kFirstFpIndex != ~0u) {
    for (U32 i = 0; i < 32; i++) {
      aRegs.push_back({kFirstFpIndex + i, "S" + std::to_string(i)});
    }
  }
  if (Core == PROBE_CORE_CORTEX_M4 && kFpscrIndex != ~0u) {
    aRegs.push_back({kFpscrIndex, "FPSCR"});
  }
  return aRegs;
}

// ---- QEMU ----

// A QEMU for one fixture, stopped at reset. QEMU steps with interrupts and timers held off unless told
// otherwise; the test lets interrupts in during a step ("Qqemu.sstep=1"), as a core does whose debugger
// leaves DHCSR.C_MASKINTS clear and as the simulator steps, so that a pended interrupt is taken where
// the program pends it. The setting is made on a connection of its own, which QEMU keeps after that
// connection closes.
class CLockstepQemu : public CQemu {
 public:
  CLockstepQemu(const char* sMachine, const std::string& sFixture) : CQemu(sFixture, false, sMachine) {}

  // Lets interrupts be taken during single steps; 0 or negative with sError.
  int AllowInterruptsInSteps(std::string& sError) {
    CGdbConnection Conn;
    if (Conn.Connect("127.0.0.1", Port, 5000, sError) != 0) {
      return -1;
    }
    std::string sReply;
    if (Conn.Transact("Qqemu.sstep=1", sReply, 5000, sError) < 0) {
      return -1;
    }
    if (sReply != "OK") {
      sError = "QEMU refused \"Qqemu.sstep=1\": \"" + sReply + "\"";
      return -1;
    }
    return 0;
  }
};

// ---- One fixture in lockstep ----

struct LOCKSTEP_CASE {
  const char* sFixture;
  U32 Core;
  U32 MaxSteps;
  // SysTick counts in QEMU's virtual time and in the simulator's instructions, so the two can't agree
  // on its counter or on when its interrupt comes: for a program that starts SysTick the comparison
  // ends at the step that enables it.
  bool EndWhenSysTickRuns = false;
};

void PrintTo(const LOCKSTEP_CASE& c, std::ostream* pOut) {
  *pOut << c.sFixture;
}

const char* _MachineOf(U32 Core) {
  return Core == PROBE_CORE_CORTEX_M0 ? "microbit"
                                      : (Core == PROBE_CORE_CORTEX_M3 ? "mps2-an385" : "mps2-an386");
}

struct LOCKSTEP_SIDE {
  CProbeBackend* p;
  const char* sName;
};

struct LOCKSTEP_RESULT {
  std::string sDivergence;  // empty when the two ran alike
  std::string sEnd;         // how the comparison ended
  U32 NumSteps = 0;
  std::vector<std::string> asNotCompared;  // registers one side can't read
};

constexpr U32 kSysTickCSR = 0xE000E010u;
constexpr U32 kMaxStackBytes = 4096;
constexpr U32 kMemoryCheckInterval = 32;

std::string _Hex(U32 v) {
  char ac[16];
  snprintf(ac, sizeof(ac), "0x%08X", v);
  return ac;
}

U32 _ReadU32(CProbeBackend* p, U32 Addr, bool* pOk) {
  U8 ab[4] = {};
  *pOk = p->ReadMem(Addr, 4, ab) == 4;
  return U32(ab[0]) | U32(ab[1]) << 8 | U32(ab[2]) << 16 | U32(ab[3]) << 24;
}

class CLockstep {
 public:
  CLockstep(const LOCKSTEP_CASE& Case, CProbeBackend* pSim, CProbeBackend* pQemu)
      : _Case(Case), _aSide{{pSim, "simulator"}, {pQemu, "QEMU"}}, _aRegs(_RegistersOf(Case.Core)) {
    std::map<std::string, U32> Symbols = LoadSymbols(Case.sFixture);
    _DataLo = Symbols["__data_start__"];
    _DataHi = Symbols["__bss_end__"];
    _StackTop = Symbols["__StackTop"];
  }

  LOCKSTEP_RESULT Run() {
    LOCKSTEP_RESULT R;
    if (!_SetUnknownResetState(R)) {
      return R;
    }
    for (U32 Step = 0;; Step++) {
      R.NumSteps = Step;
      if (!_Compare(Step, R)) {
        return R;
      }
      if (Step == _Case.MaxSteps) {
        R.sEnd = "step limit";
        _Compare(Step, R, true);
        return R;
      }
      if (_AtEnd(R)) {
        _Compare(Step, R, true);
        return R;
      }
      U32 PC = _aValues[0][PROBE_REG_PC];
      for (const LOCKSTEP_SIDE& S : _aSide) {
        if (S.p->Step() != 0) {
          R.sDivergence = _Where(Step + 1) + ": the " + S.sName + " failed to step at " + _Hex(PC);
          return R;
        }
      }
      _PrevPC = PC;
    }
  }

 private:
  // Registers the architecture leaves UNKNOWN at reset (R0..R12, the APSR flags, the FP registers) get the
  // same values on both sides, so that what the two happen to choose isn't taken for a divergence.
  bool _SetUnknownResetState(LOCKSTEP_RESULT& R) {
    for (const LOCKSTEP_SIDE& S : _aSide) {
      U32 xPSR = 0;
      bool Ok = S.p->ReadReg(PROBE_REG_XPSR, &xPSR) == 0;
      for (U32 i = 0; i <= 12 && Ok; i++) {
        Ok = S.p->WriteReg(i, 0) == 0;
      }
      if (!Ok || S.p->WriteReg(PROBE_REG_XPSR, xPSR & 0x01FFFFFFu) != 0) {
        R.sDivergence = std::string("the ") + S.sName + " refused the registers at reset";
        return false;
      }
      for (const LOCKSTEP_REG& Reg : _aRegs) {
        if ((Reg.Index >= kFirstFpIndex && Reg.Index < kFirstFpIndex + 32) || Reg.Index == kFpscrIndex) {
          S.p->WriteReg(Reg.Index, 0);  // a side without FP registers refuses, and they aren't compared
        }
      }
    }
    return true;
  }

  std::string _Where(U32 Step) const {
    return std::string(_Case.sFixture) + ": step " + std::to_string(Step);
  }

  std::string _PCs() const {
    return "; PC simulator " + _Hex(_aValues[0].at(PROBE_REG_PC)) + ", QEMU " +
           _Hex(_aValues[1].at(PROBE_REG_PC)) + "; previous PC " + _Hex(_PrevPC);
  }

  // Whether the instruction at Addr may store: the Thumb store, push and store-multiple encodings,
  // the load/store multiple and dual group, and the coprocessor space with its FP stores.
  bool _MayWriteMemory(U32 Addr) {
    U8 ab[2] = {};
    if (_aSide[0].p->ReadMem(Addr, 2, ab) != 2) {
      return true;
    }
    U32 Op = U32(ab[0]) | U32(ab[1]) << 8;
    U32 Top5 = Op & 0xF800, Top7 = Op & 0xFE00;
    if (Op < 0xE800) {
      return Top7 == 0x5000 || Top7 == 0x5200 || Top7 == 0x5400 || Top5 == 0x6000 || Top5 == 0x7000 ||
             Top5 == 0x8000 || Top5 == 0x9000 || Top7 == 0xB400 || Top5 == 0xC000;
    }
    return Top7 == 0xE800 || (Op & 0xFF10) == 0xF800 || (Op & 0xEC00) == 0xEC00;
  }

  bool _Compare(U32 Step, LOCKSTEP_RESULT& R, bool Last = false) {
    std::string sFirst;
    for (int s = 0; s < 2; s++) {
      _aValues[s].clear();
      _aOk[s].clear();
      for (const LOCKSTEP_REG& Reg : _aRegs) {
        U32 v = 0;
        _aOk[s][Reg.Index] = _aSide[s].p->ReadReg(Reg.Index, &v) == 0;
        _aValues[s][Reg.Index] = v;
      }
    }
    for (const LOCKSTEP_REG& Reg : _aRegs) {
      bool Sim = _aOk[0][Reg.Index], Qemu = _aOk[1][Reg.Index];
      if (Sim != Qemu) {
        // One side has no such register (QEMU 7.2's gdbstub lists no M-profile system registers):
        // nothing to compare, and said once in the result.
        std::string sNote =
            Reg.sName + " (" + (Sim ? "QEMU" : "simulator") + " can't read it" +
            (Reg.Index == PROBE_REG_MSP || Reg.Index == PROBE_REG_PSP ? "; compared while in use as SP)"
                                                                      : ")");
        if (std::find(R.asNotCompared.begin(), R.asNotCompared.end(), sNote) == R.asNotCompared.end()) {
          R.asNotCompared.push_back(sNote);
        }
        continue;
      }
      if (Sim && sFirst.empty() && _aValues[0][Reg.Index] != _aValues[1][Reg.Index]) {
        sFirst = _Where(Step) + ": " + Reg.sName + " differs: simulator " + _Hex(_aValues[0][Reg.Index]) +
                 ", QEMU " + _Hex(_aValues[1][Reg.Index]);
        sFirst += Reg.Index == PROBE_REG_PC ? "; previous PC " + _Hex(_PrevPC) : _PCs();
      }
    }
    // Where QEMU can't give MSP and PSP, the banked one in use is still its SP: handler mode and
    // CONTROL.SPSEL 0 mean MSP, else PSP.
    if (sFirst.empty() && _aOk[0][PROBE_REG_MSP] && !_aOk[1][PROBE_REG_MSP] && _aOk[0][PROBE_REG_CONTROL]) {
      bool Process = (_aValues[0][PROBE_REG_XPSR] & 0x1FF) == 0 && (_aValues[0][PROBE_REG_CONTROL] & 2);
      U32 Banked = _aValues[0][Process ? PROBE_REG_PSP : PROBE_REG_MSP];
      if (Banked != _aValues[1][PROBE_REG_SP]) {
        sFirst = _Where(Step) + ": " + (Process ? "PSP" : "MSP") + " (the SP in use) differs: simulator " +
                 _Hex(Banked) + ", QEMU's SP " + _Hex(_aValues[1][PROBE_REG_SP]) + _PCs();
      }
    }
    if (!sFirst.empty()) {
      R.sDivergence = sFirst;
      return false;
    }
    // The program's static data, then its stack from the SP up: after every step that may have
    // written memory, and every so often besides.
    bool Entered = Step > 0 && (_aValues[1][PROBE_REG_SP] != _PrevSP ||
                                ((_aValues[1][PROBE_REG_XPSR] ^ _PrevPSR) & 0x1FF));
    _PrevSP = _aValues[1][PROBE_REG_SP];
    _PrevPSR = _aValues[1][PROBE_REG_XPSR];
    if (!Entered && !_MayWriteMemory(_PrevPC) && Step % kMemoryCheckInterval != 0 && !Last) {
      return true;
    }
    if (!_CompareMemory(Step, _DataLo, _DataHi, "static data", R)) {
      return false;
    }
    U32 SP = _aValues[1][PROBE_REG_SP];
    if (SP < _StackTop && _StackTop - SP <= kMaxStackBytes) {
      return _CompareMemory(Step, SP, _StackTop, "stack", R);
    }
    return true;
  }

  bool _CompareMemory(U32 Step, U32 Lo, U32 Hi, const char* sWhat, LOCKSTEP_RESULT& R) {
    if (Hi <= Lo) {
      return true;
    }
    std::vector<U8> a[2];
    for (int s = 0; s < 2; s++) {
      a[s].assign(Hi - Lo, 0);
      if (_aSide[s].p->ReadMem(Lo, Hi - Lo, a[s].data()) != int(Hi - Lo)) {
        R.sDivergence = _Where(Step) + ": the " + _aSide[s].sName + " can't read its " + sWhat + " at " +
                        _Hex(Lo) + _PCs();
        return false;
      }
    }
    for (U32 i = 0; i < Hi - Lo; i += 4) {
      U32 v[2] = {};
      for (int s = 0; s < 2; s++) {
        for (U32 b = 0; b < 4 && i + b < Hi - Lo; b++) {
          v[s] |= U32(a[s][i + b]) << (8 * b);
        }
      }
      if (v[0] != v[1]) {
        R.sDivergence = _Where(Step) + ": " + sWhat + " word at " + _Hex(Lo + i) + " differs: simulator " +
                        _Hex(v[0]) + ", QEMU " + _Hex(v[1]) + _PCs();
        return false;
      }
    }
    return true;
  }

  // The comparison ends before a BKPT: what a core does there depends on its debugger. Semihosting
  // calls other than the exit are served alike on both sides (the call's output is of no interest
  // here): the PC moves past the BKPT and the program goes on.
  bool _AtEnd(LOCKSTEP_RESULT& R) {
    U32 PC = _aValues[1][PROBE_REG_PC];
    U8 ab[2] = {};
    if (_aSide[0].p->ReadMem(PC, 2, ab) == 2 && ab[1] == 0xBE) {
      if (ab[0] == 0xAB && _aValues[1][0] != 0x18) {
        for (int s = 0; s < 2; s++) {
          _aSide[s].p->WriteReg(PROBE_REG_PC, PC + 2);
          _aValues[s][PROBE_REG_PC] = PC + 2;
        }
        return false;
      }
      R.sEnd = ab[0] == 0xAB ? "semihosting exit" : "BKPT #" + std::to_string(ab[0]);
      return true;
    }
    if (_Case.EndWhenSysTickRuns) {
      for (const LOCKSTEP_SIDE& S : _aSide) {
        bool Ok = false;
        if ((_ReadU32(S.p, kSysTickCSR, &Ok) & 1) && Ok) {
          R.sEnd = "SysTick started";
          return true;
        }
      }
    }
    return false;
  }

  const LOCKSTEP_CASE& _Case;
  LOCKSTEP_SIDE _aSide[2];
  std::vector<LOCKSTEP_REG> _aRegs;
  std::map<U32, U32> _aValues[2];
  std::map<U32, bool> _aOk[2];
  U32 _DataLo = 0, _DataHi = 0, _StackTop = 0;
  U32 _PrevPC = 0, _PrevSP = 0, _PrevPSR = 0;
};

// ---- The table ----

constexpr U32 M0 = PROBE_CORE_CORTEX_M0, M3 = PROBE_CORE_CORTEX_M3, M4 = PROBE_CORE_CORTEX_M4;

// Fixture, core, step limit. The existing programs run for their first few thousand instructions, the
// ones written for this comparison to their end. Not here: mpu-m3 and mpu-m4, since the simulated cores
// have no MPU (a configuration the architecture allows) while QEMU's boards have one.
const LOCKSTEP_CASE kCases[] = {
    // clang-format off
    {"basic-O0", M4, 2000},
    {"basic-O2", M4, 3000},
    {"semihosting-O0", M4, 3000},
    {"semihosting-O2", M4, 3000},
    {"itm-O0", M4, 3000},
    {"itm-O2", M4, 3000},
    {"fault-O0", M4, 3000},
    {"fault-O2", M4, 3000},
    {"systick-O0", M4, 3000, true},  // ends where SysTick starts: its timing is the board's
    {"systick-O2", M4, 3000, true},  // likewise
    {"bench-O0", M4, 2000},
    {"bench-O2", M4, 2000},
    {"mct_echo-O0", M4, 2000},
    {"mct_echo-O2", M4, 2000},
    {"demo-O0", M4, 3000, true},     // likewise
    {"demo-O2", M4, 3000, true},     // likewise
    {"basic-m0-16k-O0", M0, 2000},
    {"isa-m0-O2", M0, 20000},
    {"isa-m3-O2", M3, 20000},
    {"isa-m4-O2", M4, 20000},
    {"itblocks-m3-O2", M3, 20000},
    {"itblocks-m4-O2", M4, 20000},
    {"faults-m3-O2", M3, 20000},
    {"faults-m4-O2", M4, 20000},
    {"fpirq-m4-O2", M4, 20000},
    // clang-format on
};

class Lockstep : public ::testing::TestWithParam<LOCKSTEP_CASE> {};

}  // namespace

TEST_P(Lockstep, SimulatorStepsLikeQemu) {
  if (!_HasProgram("qemu-system-arm")) {
    GTEST_SKIP() << "qemu-system-arm is not installed";
  }
  const LOCKSTEP_CASE& Case = GetParam();
  std::vector<U8> aImage = LoadFile(FixturePath(Case.sFixture, ".bin"));
  ASSERT_FALSE(aImage.empty()) << Case.sFixture;

  CLockstepQemu Qemu(_MachineOf(Case.Core), Case.sFixture);
  std::string sError;
  ASSERT_EQ(Qemu.AllowInterruptsInSteps(sError), 0) << sError;
  PROBE_STREAMS QemuStreams, SimStreams;
  CGdbRemote Gdb;
  Gdb.SetAddress("127.0.0.1", Qemu.Port);
  ASSERT_EQ(Gdb.Open(&QemuStreams, sError), 0) << sError;
  ASSERT_EQ(Gdb.Connect(sError), 0) << sError;

  CSimTarget Sim(Case.Core, Case.Core == M0 ? 16000000 : 25000000);
  LOCKSTEP_RESULT Result;
  {
    CProbeLock Lock;
    ASSERT_EQ(Sim.Open(&SimStreams, sError), 0) << sError;
    ASSERT_EQ(Sim.Connect(sError), 0) << sError;
    ASSERT_EQ(Sim.WriteMem(0, U32(aImage.size()), aImage.data()), int(aImage.size()));
    ASSERT_EQ(Sim.Reset(0), 0);
    Result = CLockstep(Case, &Sim, &Gdb).Run();
    Sim.Close();
  }
  Gdb.Close();
  std::string sNotCompared;
  for (const std::string& s : Result.asNotCompared) {
    sNotCompared += (sNotCompared.empty() ? "" : ", ") + s;
  }
  RecordProperty("steps", int(Result.NumSteps));
  if (Case.Core == M4 && kFirstFpIndex == ~0u) {
    sNotCompared +=
        std::string(sNotCompared.empty() ? "" : ", ") + "S0-S31 and FPSCR (no FP register indices)";
  }
  printf("%s: %u steps compared, ended by %s; not compared: %s\n", Case.sFixture, Result.NumSteps,
         Result.sDivergence.empty() ? Result.sEnd.c_str() : "a divergence",
         sNotCompared.empty() ? "none" : sNotCompared.c_str());
  EXPECT_EQ(Result.sDivergence, "");
}

INSTANTIATE_TEST_SUITE_P(Fixtures, Lockstep, ::testing::ValuesIn(kCases),
                         [](const ::testing::TestParamInfo<LOCKSTEP_CASE>& Info) {
                           std::string s = Info.param.sFixture;
                           for (char& c : s) {
                             c = isalnum(U8(c)) ? c : '_';
                           }
                           return s;
                         });
