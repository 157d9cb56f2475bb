// The instruction sets of the simulated cores. The emulator underneath runs one wide instruction set
// for every core, so the simulator checks each instruction it is about to run against the core's own
// set and raises what that core raises for the rest.
#pragma once

#include "app/base/Types.h"

enum SIM_ISA {
  SIM_ISA_V6M,        // Cortex-M0: ARMv6-M
  SIM_ISA_V7M,        // Cortex-M3: ARMv7-M, no coprocessors
  SIM_ISA_V7EM_FPSP,  // Cortex-M4: ARMv7E-M (DSP) with the single precision floating point unit FPv4-SP
};

enum SIM_INST_CHECK {
  SIM_INST_OK,
  SIM_INST_UNDEFINED,       // UNDEFINED on this core: UsageFault UNDEFINSTR (HardFault on ARMv6-M)
  SIM_INST_NO_COPROCESSOR,  // a coprocessor the core doesn't have: UsageFault NOCP
};

// Length in bytes of the Thumb instruction whose first halfword is H0.
inline U32 SIM_InstSize(U16 H0) {
  return H0 >= 0xE800 ? 4 : 2;
}

// Whether the core runs the instruction H0 (and H1 for a 32-bit one); H1 is ignored for 16 bits.
SIM_INST_CHECK SIM_CheckInstruction(SIM_ISA Isa, U16 H0, U16 H1);

// Whether the instruction may read or write data memory (loads, stores, stack and exclusive
// accesses, floating point transfers). Errs on the side of yes.
bool SIM_MayAccessMemory(U16 H0, U16 H1);

// Instructions whose faults depend on the state they run in, which the emulator doesn't check itself:
// LDM, STM, LDRD and STRD not based on SP need word alignment always; halfword and word loads and
// stores need alignment with CCR.UNALIGN_TRP; SDIV and UDIV fault on zero with CCR.DIV_0_TRP;
// floating-point instructions need CPACR's access and may first trigger a lazy state save; the MRS of
// CONTROL must not show what the emulator keeps beyond the core's bits.
constexpr U32 SIM_CHECK_MULTI_ACCESS = 1u << 0;
constexpr U32 SIM_CHECK_SINGLE_ACCESS = 1u << 1;
constexpr U32 SIM_CHECK_DIVIDE = 1u << 2;
constexpr U32 SIM_CHECK_FP = 1u << 3;
constexpr U32 SIM_CHECK_READ_CONTROL = 1u << 4;

// The SIM_CHECK_ classes of the instruction H0 (and H1 for a 32-bit one); 0 for none.
U32 SIM_RuntimeChecksOf(U16 H0, U16 H1);

// The IT instruction: its ITSTATE for the first instruction of the block, 0 when H0 is no IT.
inline U32 SIM_ITStateOf(U16 H0) {
  return ((H0 & 0xFF00) == 0xBF00 && (H0 & 0xF)) ? (H0 & 0xFF) : 0;
}

// ITSTATE after one instruction of an IT block has run (ARM architecture ITAdvance).
inline U32 SIM_ITAdvance(U32 ITState) {
  return (ITState & 7) == 0 ? 0 : ((ITState & 0xE0) | ((ITState << 1) & 0x1F));
}

// ITSTATE as xPSR holds it: IT[1:0] in bits 26:25, IT[7:2] in bits 15:10.
inline U32 SIM_ITStateFromXPSR(U32 XPSR) {
  return ((XPSR >> 25) & 3) | ((XPSR >> 8) & 0xFC);
}
inline U32 SIM_XPSRWithITState(U32 XPSR, U32 ITState) {
  return (XPSR & ~0x0600FC00u) | ((ITState & 3) << 25) | ((ITState & 0xFC) << 8);
}

// Whether condition Cond (0..15) passes with the flags N, Z, C, V of APSR.
bool SIM_ConditionPassed(U32 Cond, U32 APSR);
