// Values by location: a constant, memory, a register or a register pair, read and written on the
// probe for whoever holds a location from debug information (expressions, call stack, watches).
#include <QString>
#include <cstring>

#include "app/base/SymLoc.h"
#include "device/Device.h"

namespace {

constexpr U32 kMaxLocBytes = 8;
constexpr U32 kNumCoreRegs = 17;  // R0..R15 and xPSR: the logical registers the register cache holds

// How a location names itself in messages.
QString _RegText(U32 Reg) {
  if (Reg == ELF_REG_SAME_AS_CALLER) {
    return "same as caller";
  }
  if (Reg == ELF_REG_UNSPECIFIED) {
    return "unspecified";
  }
  return QString("R%1").arg(Reg);
}

}  // namespace

int CDevice::GetLocRegisters(const ELF_SYM_LOC& Loc, U32 nBytes, U32* paLogical) const {
  if (!IsRegisterLoc(Loc)) {
    return LOC_REGS_NONE;
  }
  if (Loc.reg == ELF_REG_SAME_AS_CALLER || Loc.reg == ELF_REG_UNSPECIFIED) {
    return LOC_REGS_NO_VALUE;
  }
  const int NumRegs = nBytes > 4 ? 2 : 1;
  if (NumRegs == 2 && Loc.reg + 1 >= U32(REG_PC)) {
    return LOC_REGS_NO_PAIR;
  }
  for (int i = 0; i < NumRegs; ++i) {
    paLogical[i] = Loc.reg + U32(i);
    if (GetTarvikRegIdx(paLogical[i]) < 0) {
      return LOC_REGS_NONE;
    }
  }
  return NumRegs;
}

// GetLocRegisters with a message naming what is wrong with the location.
int CDevice::_LocRegisters(const char* sWhat, const ELF_SYM_LOC& Loc, U32 nBytes, U32* paLogical) {
  const int NumRegs = GetLocRegisters(Loc, nBytes, paLogical);
  if (NumRegs == LOC_REGS_NO_VALUE) {
    _LogDebugMsg(QString("%1: register %2 has no value of its own").arg(sWhat, _RegText(Loc.reg)));
  } else if (NumRegs == LOC_REGS_NO_PAIR) {
    _LogWarnMsg(QString("%1: %2 bytes do not fit the register pair R%3, R%4")
                    .arg(sWhat)
                    .arg(nBytes)
                    .arg(Loc.reg)
                    .arg(Loc.reg + 1));
  } else if (NumRegs < 0) {
    _LogWarnMsg(QString("%1: no register R%2 on this core").arg(sWhat).arg(Loc.reg));
  }
  return NumRegs;
}

int CDevice::ReadLoc(const ELF_SYM_LOC& Loc, U32 nBytes, U8* paOutData) {
  if (paOutData == nullptr) {
    return -1;
  }
  if (nBytes == 0 || nBytes > kMaxLocBytes) {
    _LogWarnMsg(QString("ReadLoc: cannot read %1 bytes of a location (1 to 8)").arg(nBytes));
    return -1;
  }
  memset(paOutData, 0, nBytes);
  U64 Value = 0;
  if (GetImplicitLocValue(Loc, &Value)) {
    memcpy(paOutData, &Value, nBytes);  // the value's bytes in the target's (little-endian) order
    return 0;
  }
  if (IsMemoryLoc(Loc)) {
    U8 aStatus[kMaxLocBytes];
    if (ReadMem(Loc.addr, nBytes, 0, 0, 0, paOutData, aStatus) != int(nBytes)) {
      memset(paOutData, 0, nBytes);
      return -1;
    }
    return 0;
  }
  if (!IsRegisterLoc(Loc)) {
    _LogDebugMsg(QString("ReadLoc: a location of kind %1 is not read from the target").arg(Loc.kind));
    return -1;
  }
  U32 aLogical[2];
  const int NumRegs = _LocRegisters("ReadLoc", Loc, nBytes, aLogical);
  if (NumRegs < 0) {
    return -1;
  }
  for (int i = 0; i < NumRegs; ++i) {
    // The register cache holds the core registers of the halt that is in force; others are read.
    I64 RegValue = aLogical[i] < kNumCoreRegs && _StateValid.load() ? GetRegVal(aLogical[i]) : -1;
    if (RegValue < 0 && ReadReg(U32(GetTarvikRegIdx(aLogical[i])), &RegValue) < 0) {
      memset(paOutData, 0, nBytes);
      return -1;
    }
    const U32 Word = U32(RegValue);
    const U32 Offset = U32(i) * 4;
    memcpy(paOutData + Offset, &Word, std::min<U32>(4, nBytes - Offset));
  }
  return 0;
}

int CDevice::WriteLoc(const ELF_SYM_LOC& Loc, U32 nBytes, const U8* paData) {
  if (paData == nullptr) {
    return -1;
  }
  if (nBytes == 0 || nBytes > kMaxLocBytes) {
    _LogWarnMsg(QString("WriteLoc: cannot write %1 bytes to a location (1 to 8)").arg(nBytes));
    return -1;
  }
  if (IsMemoryLoc(Loc)) {
    return WriteMem(Loc.addr, nBytes, 0, 0, MEM_FLAG_DOWNLOAD, paData) == int(nBytes) ? 0 : -1;
  }
  if (!IsRegisterLoc(Loc)) {
    _LogWarnMsg(QString("WriteLoc: a location of kind %1 cannot be written").arg(Loc.kind));
    return -1;
  }
  U32 aLogical[2];
  const int NumRegs = _LocRegisters("WriteLoc", Loc, nBytes, aLogical);
  if (NumRegs < 0) {
    return -1;
  }
  for (int i = 0; i < NumRegs; ++i) {
    U32 Word = 0;
    const U32 Offset = U32(i) * 4;
    memcpy(&Word, paData + Offset, std::min<U32>(4, nBytes - Offset));
    if (WriteReg(U32(GetTarvikRegIdx(aLogical[i])), Word) < 0) {
      return -1;
    }
    SetRegVal(int(aLogical[i]), Word);  // the cache answers the next read of this halt
  }
  return 0;
}

int CDevice::ReadLocs(U32 Cnt, const ELF_SYM_LOC* paDataLocs, I64* paOutVals) {
  if (paDataLocs == nullptr || paOutVals == nullptr) {
    return 0;
  }
  int NumRead = 0;
  for (U32 i = 0; i < Cnt; ++i) {
    U32 Word = 0;
    if (ReadLoc(paDataLocs[i], 4, reinterpret_cast<U8*>(&Word)) == 0) {
      paOutVals[i] = Word;
      ++NumRead;
    } else {
      paOutVals[i] = -1;
    }
  }
  return NumRead;
}

int CDevice::_RunLocationJob(DEVICE_JOB* pJob) {
  const U64* a = pJob->aParam;
  const ELF_SYM_LOC* paLoc = reinterpret_cast<const ELF_SYM_LOC*>(pJob->apData[0]);
  switch (pJob->Type) {
    case JT_READ_LOCATION: {
      if (pJob->aDataLen[0] < sizeof(ELF_SYM_LOC)) {
        return -1;
      }
      U8 aData[kMaxLocBytes] = {};
      int r = ReadLoc(*paLoc, U32(a[0]), aData);
      memcpy(&pJob->aResult[0], aData, sizeof(aData));
      return r;
    }
    case JT_READ_LOCS: {
      const U32 Cnt = U32(a[0]);
      if (pJob->apData[1] == nullptr || pJob->aDataLen[0] < Cnt * sizeof(ELF_SYM_LOC) ||
          pJob->aDataLen[1] < Cnt * sizeof(I64)) {
        return -1;
      }
      const int NumRead = ReadLocs(Cnt, paLoc, reinterpret_cast<I64*>(pJob->apData[1]));
      pJob->aResult[0] = NumRead;
      return Cnt > 0 && NumRead == 0 ? -1 : 0;
    }
    case JT_WRITE_LOCATION: {
      const U32 nBytes = U32(a[0]);
      if (pJob->aDataLen[0] < sizeof(ELF_SYM_LOC) || pJob->apData[1] == nullptr ||
          pJob->aDataLen[1] < nBytes) {
        return -1;
      }
      return WriteLoc(*paLoc, nBytes, pJob->apData[1]);
    }
    default:
      return -1;
  }
}
