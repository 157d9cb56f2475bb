#include "device/probe/Disassembler.h"

#include <capstone/capstone.h>

#include <cctype>
#include <cstdio>
#include <cstring>
#include <string>

namespace {

// Capstone handles are not shared between threads; the static pass runs on the GUI thread and the
// text requests on the device thread.
struct CAPSTONE_HANDLES {
  csh Thumb = 0, Arm = 0;
  bool Ok = false;
  CAPSTONE_HANDLES() {
    Ok = cs_open(CS_ARCH_ARM, cs_mode(CS_MODE_THUMB | CS_MODE_MCLASS), &Thumb) == CS_ERR_OK &&
         cs_open(CS_ARCH_ARM, CS_MODE_ARM, &Arm) == CS_ERR_OK;
    if (Ok) {
      cs_option(Thumb, CS_OPT_DETAIL, CS_OPT_ON);
      cs_option(Arm, CS_OPT_DETAIL, CS_OPT_ON);
    }
  }
  ~CAPSTONE_HANDLES() {
    if (Thumb) {
      cs_close(&Thumb);
    }
    if (Arm) {
      cs_close(&Arm);
    }
  }
};

CAPSTONE_HANDLES& _Handles() {
  thread_local CAPSTONE_HANDLES Handles;
  return Handles;
}

U32 _ThumbLen(const U8* p) {
  U16 H = U16(p[0] | p[1] << 8);
  return ((H & 0xE000) == 0xE000 && (H & 0x1800) != 0) ? 4 : 2;
}

bool _IsBranchWithTarget(unsigned Id) {
  return Id == ARM_INS_B || Id == ARM_INS_BL || Id == ARM_INS_BLX;
}

std::string _Hex(I64 v) {
  char ac[32];
  if (v < 0) {
    snprintf(ac, sizeof(ac), "-0x%llX", (unsigned long long)(-v));
  } else {
    snprintf(ac, sizeof(ac), "0x%llX", (unsigned long long)v);
  }
  return ac;
}

// Upper case, with the "0x" of numbers kept lower.
std::string _Normalise(std::string s) {
  for (size_t i = 0; i < s.size(); i++) {
    s[i] = char(toupper(U8(s[i])));
    if (s[i] == 'X' && i > 0 && s[i - 1] == '0' && (i < 2 || !isalnum(U8(s[i - 2])))) {
      s[i] = 'x';
    }
  }
  return s;
}

}  // namespace

int DISASM_Decode(DISASM_RECORD* pRecord, const U8* pBytes, U32 Addr, U32 Mode) {
  if (!pRecord || !pBytes || (Mode != 1 && Mode != 2)) {
    return 0;
  }
  CAPSTONE_HANDLES& H = _Handles();
  if (!H.Ok) {
    return 0;
  }
  *pRecord = DISASM_RECORD{};
  U32 Len = Mode == 2 ? _ThumbLen(pBytes) : 4;
  cs_insn* pInsn = nullptr;
  size_t n = cs_disasm(Mode == 2 ? H.Thumb : H.Arm, pBytes, Len, Addr, 1, &pInsn);
  if (n != 1 || pInsn->size != Len) {
    if (n) {
      cs_free(pInsn, n);
    }
    return 0;
  }
  const cs_detail* pD = pInsn->detail;
  unsigned Id = pInsn->id;
  bool Flow = false, Call = false, Return = false, Mem = false;
  for (U8 i = 0; i < pD->groups_count; i++) {
    Flow =
        Flow || pD->groups[i] == CS_GRP_JUMP || pD->groups[i] == CS_GRP_CALL || pD->groups[i] == CS_GRP_RET;
    Call = Call || pD->groups[i] == CS_GRP_CALL;
    Return = Return || pD->groups[i] == CS_GRP_RET;
  }
  if (Id == ARM_INS_BL || Id == ARM_INS_BLX) {
    Call = Flow = true;
  }
  for (U8 i = 0; i < pD->regs_write_count; i++) {
    if (pD->regs_write[i] == ARM_REG_PC) {
      Flow = true;
    }
  }
  if (Id == ARM_INS_POP || Id == ARM_INS_LDM) {
    for (U8 i = 0; i < pD->arm.op_count; i++) {
      if (pD->arm.operands[i].type == ARM_OP_REG && pD->arm.operands[i].reg == ARM_REG_PC) {
        Return = Flow = true;
      }
    }
  }
  if (Id == ARM_INS_BX && pD->arm.op_count == 1 && pD->arm.operands[0].reg == ARM_REG_LR) {
    Return = Flow = true;
  }
  for (U8 i = 0; i < pD->arm.op_count; i++) {
    Mem = Mem || pD->arm.operands[i].type == ARM_OP_MEM;
  }
  Mem = Mem || Id == ARM_INS_PUSH || Id == ARM_INS_POP || Id == ARM_INS_LDM || Id == ARM_INS_STM;
  pRecord->Len = U8(Len);
  pRecord->aFlags[0] = Flow;
  pRecord->aFlags[1] = Call;
  pRecord->aFlags[2] = Return;
  pRecord->aFlags[3] = Mem;
  if (Mode == 2) {
    U16 H0 = U16(pBytes[0] | pBytes[1] << 8);
    if ((H0 & 0xFF00) == 0xBF00 && (H0 & 0xF) != 0) {
      pRecord->IT = U16(H0 & 0xFF);  // mask in bits 0..3, first condition in bits 4..7
    }
    bool CondBranch16 = (H0 & 0xF000) == 0xD000 && ((H0 >> 8) & 0xF) < 0xE;
    U16 H1 = Len == 4 ? U16(pBytes[2] | pBytes[3] << 8) : 0;
    bool CondBranch32 =
        Len == 4 && (H0 & 0xF800) == 0xF000 && (H1 & 0xD000) == 0x8000 && ((H0 >> 6) & 0xF) < 0xE;
    pRecord->Cond = (CondBranch16 || CondBranch32) ? 1 : 0;
  } else {
    pRecord->Cond = pD->arm.cc != ARM_CC_AL && pD->arm.cc != ARM_CC_INVALID;
  }
  cs_free(pInsn, n);
  return int(Len);
}

int DISASM_DisassembleThumb(char* sOut, U32 BufferSize, U32 Addr, const U8* pBytes, U32 NumBytes,
                            U8 ITState) {
  if (!sOut || BufferSize == 0 || !pBytes || NumBytes < 2) {
    return -1;
  }
  CAPSTONE_HANDLES& H = _Handles();
  if (!H.Ok) {
    snprintf(sOut, BufferSize, "disassembler not available");
    return -1;
  }
  U32 Len = _ThumbLen(pBytes);
  if (Len > NumBytes) {
    snprintf(sOut, BufferSize, "instruction at 0x%08X runs past readable memory", Addr);
    return -1;
  }
  // Capstone keeps no IT state between calls: an instruction inside a block is decoded behind an
  // IT of its own condition, so that it gets its suffix and its flag-setting form right.
  U8 aBuf[6];
  U32 Offset = 0;
  if (ITState & 1) {
    U8 Cond = (ITState >> 1) & 0xF;
    if (Cond < 0xE) {
      aBuf[0] = U8((Cond << 4) | 0x8);
      aBuf[1] = 0xBF;
      Offset = 2;
    }
  }
  memcpy(aBuf + Offset, pBytes, Len);
  cs_insn* pInsn = nullptr;
  size_t n = cs_disasm(H.Thumb, aBuf, Offset + Len, Addr - Offset, 0, &pInsn);
  if (n != (Offset ? 2u : 1u) || pInsn[n - 1].size != Len) {
    if (n) {
      cs_free(pInsn, n);
    }
    snprintf(sOut, BufferSize, "undefined instruction at 0x%08X", Addr);
    return -1;
  }
  const cs_insn& I = pInsn[n - 1];
  std::string sMnemonic = I.mnemonic;
  std::string sOps = I.op_str;
  const cs_arm& Arm = I.detail->arm;
  if (_IsBranchWithTarget(I.id) && Arm.op_count == 1 && Arm.operands[0].type == ARM_OP_IMM) {
    // Targets relative to Addr + 4, which is what the reader adds back.
    I64 Target = I64(U32(Arm.operands[0].imm));
    sOps = "#" + _Hex(Target - I64(Addr) - 4);
  } else if (I.id == ARM_INS_SVC || I.id == ARM_INS_BKPT || I.id == ARM_INS_UDF) {
    if (!sOps.empty() && sOps[0] == '#') {
      sOps.erase(0, 1);
    }
  } else {
    // Literal loads: the base is Addr + 4 rounded down to a word, the reader adds Addr + 4.
    for (U8 i = 0; i < Arm.op_count; i++) {
      const cs_arm_op& Op = Arm.operands[i];
      if (Op.type == ARM_OP_MEM && Op.mem.base == ARM_REG_PC && Op.mem.index == ARM_REG_INVALID) {
        I64 Target = I64((Addr + 4) & ~3u) + Op.mem.disp;
        size_t Pos = sOps.find("[pc");
        if (Pos != std::string::npos) {
          size_t End = sOps.find(']', Pos);
          if (End != std::string::npos) {
            sOps.replace(Pos, End - Pos + 1, "[pc, #" + _Hex(Target - I64(Addr) - 4) + "]");
          }
        }
      }
    }
  }
  std::string sText = sMnemonic + (sOps.empty() ? "" : " " + sOps);
  snprintf(sOut, BufferSize, "%s", _Normalise(sText).c_str());
  cs_free(pInsn, n);
  return int(Len);
}
