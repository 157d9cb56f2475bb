// Instruction set tables of the simulated cores, from the encoding tables of the ARMv6-M and ARMv7-M
// architecture manuals. Only what tells the sets apart is decoded; what no core of the three has, the
// emulator rejects on its own.
#include "device/probe/SimIsa.h"

namespace {

// The 32-bit instructions of ARMv6-M: BL, MSR, MRS and the three barriers.
bool _IsV6MWide(U16 H0, U16 H1) {
  if ((H0 & 0xF800) == 0xF000 && (H1 & 0xD000) == 0xD000) {
    return true;  // BL
  }
  if ((H0 & 0xFFE0) == 0xF380 && (H1 & 0xFF00) == 0x8800) {
    return true;  // MSR
  }
  if (H0 == 0xF3EF && (H1 & 0xF000) == 0x8000) {
    return true;  // MRS
  }
  U32 Op = (H1 >> 4) & 0xF;
  return H0 == 0xF3BF && (H1 & 0xFF00) == 0x8F00 && Op >= 4 && Op <= 6;  // DSB, DMB, ISB
}

// The DSP extension of ARMv7E-M, which ARMv7-M lacks.
bool _IsDsp(U16 H0, U16 H1) {
  U32 Rn = H0 & 0xF;
  if ((H0 & 0xFF00) == 0xFA00 && (H1 & 0xF000) == 0xF000) {  // data processing (register)
    U32 Op1 = (H0 >> 4) & 0xF, Op2 = (H1 >> 4) & 0xF;
    if (Op1 < 8 && (Op2 & 8)) {
      // Extends: the 16-bit pair forms and every accumulating form are DSP.
      return Op1 == 2 || Op1 == 3 || (Op1 <= 5 && Rn != 15);
    }
    if (Op1 >= 8 && (Op2 & 8) == 0) {
      return true;  // parallel additions and subtractions
    }
    if ((Op1 & 0xC) == 8 && (Op2 & 0xC) == 8) {
      return (Op1 & 3) == 0 || (Op1 & 3) == 2;  // saturating add/subtract, SEL
    }
    return false;
  }
  if ((H0 & 0xFF80) == 0xFB00) {  // multiply and accumulate: only MUL, MLA, MLS are ARMv7-M
    return ((H0 >> 4) & 7) != 0;
  }
  if ((H0 & 0xFF80) == 0xFB80) {  // long multiply and divide
    U32 Op1 = (H0 >> 4) & 7, Op2 = (H1 >> 4) & 0xF;
    bool V7M = (Op2 == 0 && (Op1 == 0 || Op1 == 2 || Op1 == 4 || Op1 == 6)) ||
               (Op2 == 0xF && (Op1 == 1 || Op1 == 3));
    return !V7M;
  }
  if (((H0 & 0xFFF0) == 0xF320 || (H0 & 0xFFF0) == 0xF3A0) && (H1 & 0xF0C0) == 0) {
    return true;  // SSAT16, USAT16
  }
  return (H0 & 0xFFE0) == 0xEAC0;  // PKHBT, PKHTB
}

// Floating point on FPv4-SP: single precision only, no ARMv8 additions.
SIM_INST_CHECK _CheckFPv4SP(U16 H0, U16 H1) {
  U32 Coproc = (H1 >> 8) & 0xF;
  if (H0 >= 0xF000) {
    return SIM_INST_UNDEFINED;  // the unconditional forms: VSEL, VMAXNM, VRINTA and the like
  }
  if ((H0 & 0xFF80) == 0xEC00) {  // extension register transfers without P and U
    return (H0 & 0xFFE0) == 0xEC40 ? SIM_INST_OK : SIM_INST_UNDEFINED;  // 64-bit VMOV; not VLSTM, VLLDM
  }
  if ((H0 & 0xFF00) == 0xEE00 && (H1 & 0x10) == 0) {  // data processing
    if (Coproc == 11) {
      return SIM_INST_UNDEFINED;  // double precision
    }
    if ((H0 & 0xFFBE) == 0xEEB6 && (H1 & 0x40)) {
      return SIM_INST_UNDEFINED;  // VRINTR, VRINTZ, VRINTX, and VCVT between single and double
    }
  }
  return SIM_INST_OK;
}

}  // namespace

SIM_INST_CHECK SIM_CheckInstruction(SIM_ISA Isa, U16 H0, U16 H1) {
  if (H0 < 0xE800) {
    if ((H0 & 0xFF07) == 0x4704) {
      return SIM_INST_UNDEFINED;  // BXNS, BLXNS: security extension
    }
    if (Isa == SIM_ISA_V6M && ((H0 & 0xF500) == 0xB100 || SIM_ITStateOf(H0) != 0)) {  // CBZ, CBNZ, IT
      return SIM_INST_UNDEFINED;
    }
    return SIM_INST_OK;
  }
  if (Isa == SIM_ISA_V6M) {
    return _IsV6MWide(H0, H1) ? SIM_INST_OK : SIM_INST_UNDEFINED;
  }
  if ((H0 & 0xEC00) == 0xEC00) {  // coprocessor space
    if ((H0 & 0x0300) == 0x0300) {
      return SIM_INST_UNDEFINED;  // unallocated (SIMD on other profiles)
    }
    U32 Coproc = (H1 >> 8) & 0xF;
    if (Isa != SIM_ISA_V7EM_FPSP || (Coproc != 10 && Coproc != 11)) {
      return SIM_INST_NO_COPROCESSOR;
    }
    return _CheckFPv4SP(H0, H1);
  }
  if (Isa == SIM_ISA_V7M && _IsDsp(H0, H1)) {
    return SIM_INST_UNDEFINED;
  }
  if ((H0 & 0xFFF0) == 0xE840 && (H1 & 0xF000) == 0xF000) {
    return SIM_INST_UNDEFINED;  // TT and its forms (a store exclusive of the PC before ARMv8-M)
  }
  if ((H0 & 0xFFE0) == 0xE8C0) {  // exclusives of bytes and halfwords, table branches
    U32 Op3 = (H1 >> 4) & 0xF;
    bool Load = (H0 & 0x10) != 0;
    bool V7 = Op3 == 4 || Op3 == 5 || (Load && Op3 <= 1);
    return V7 ? SIM_INST_OK : SIM_INST_UNDEFINED;  // not the doubleword or acquire/release forms
  }
  if (H0 == 0xE97F && H1 == 0xE97F) {
    return SIM_INST_UNDEFINED;  // SG
  }
  return SIM_INST_OK;
}

bool SIM_MayAccessMemory(U16 H0, U16 H1) {
  if (H0 < 0xE800) {
    U32 Top = H0 >> 12;
    return (H0 & 0xF800) == 0x4800 || Top == 5 || Top == 6 || Top == 7 || Top == 8 || Top == 9 ||
           Top == 0xC ||
           (H0 & 0xF600) == 0xB400;  // literal, register and immediate forms, SP-relative, LDM/STM, PUSH/POP
  }
  (void)H1;
  return (H0 & 0xFE00) == 0xE800 || (H0 & 0xFE00) == 0xF800 ||
         ((H0 & 0xEE00) == 0xEC00 && (H0 & 0xFFE0) != 0xEC40);
}

U32 SIM_RuntimeChecksOf(U16 H0, U16 H1) {
  if (H0 < 0xE800) {
    switch (H0 >> 12) {
      case 0x5: {  // register offset: STR, STRH, STRB, LDRSB, LDR, LDRH, LDRB, LDRSH
        U32 Op = (H0 >> 9) & 7;
        return (Op == 2 || Op == 3 || Op == 6) ? 0 : SIM_CHECK_SINGLE_ACCESS;
      }
      case 0x6:  // STR, LDR (immediate)
      case 0x8:  // STRH, LDRH (immediate)
        return SIM_CHECK_SINGLE_ACCESS;
      case 0xC:  // STMIA, LDMIA
        return SIM_CHECK_MULTI_ACCESS;
      default:  // the stack pointer and PC-relative forms are word aligned by construction
        return 0;
    }
  }
  U32 Rn = H0 & 0xF;
  if ((H0 & 0xFE40) == 0xE800) {  // LDM, STM; from SP they are POP and PUSH
    U32 Op = (H0 >> 7) & 3;
    return (Op == 1 || Op == 2) && Rn != 13 ? SIM_CHECK_MULTI_ACCESS : 0;
  }
  if ((H0 & 0xFE40) == 0xE840 && (H0 & 0x0120) != 0) {  // LDRD, STRD
    return Rn != 13 && Rn != 15 ? SIM_CHECK_MULTI_ACCESS : 0;
  }
  if ((H0 & 0xFE00) == 0xF800) {  // single loads and stores
    return ((H0 >> 5) & 3) == 1 || ((H0 >> 5) & 3) == 2 ? SIM_CHECK_SINGLE_ACCESS : 0;
  }
  if ((H0 & 0xFFD0) == 0xFB90 && (H1 & 0x00F0) == 0x00F0) {  // SDIV, UDIV
    return SIM_CHECK_DIVIDE;
  }
  if (H0 == 0xF3EF && (H1 & 0xF0FF) == 0x8014) {
    return SIM_CHECK_READ_CONTROL;
  }
  if ((H0 & 0xEC00) == 0xEC00 && ((H1 >> 9) & 7) == 5) {  // coprocessor space, coprocessors 10 and 11
    return SIM_CHECK_FP;
  }
  return 0;
}

bool SIM_ConditionPassed(U32 Cond, U32 APSR) {
  bool N = APSR & (1u << 31), Z = APSR & (1u << 30), C = APSR & (1u << 29), V = APSR & (1u << 28);
  bool Result;
  switch (Cond >> 1) {
    case 0:
      Result = Z;
      break;
    case 1:
      Result = C;
      break;
    case 2:
      Result = N;
      break;
    case 3:
      Result = V;
      break;
    case 4:
      Result = C && !Z;
      break;
    case 5:
      Result = N == V;
      break;
    case 6:
      Result = !Z && N == V;
      break;
    default:
      return true;  // AL, and 0b1111 which IT treats as always too
  }
  return (Cond & 1) ? !Result : Result;
}
