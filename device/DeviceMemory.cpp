// Memory and register access on the probe: validation, widths and alignment, chunks with progress,
// item-wise reads behind a hole, the download path for flash, and the jobs that carry them.
#include <QString>
#include <chrono>
#include <cstring>
#include <functional>
#include <vector>

#include "device/Device.h"
#include "device/DeviceEvents.h"
#include "device/probe/TarvikApi.h"

namespace {

const TARVIK_API& _Api() {
  return GetTarvikApi();
}

constexpr U32 kProgressLimit = 4000;  // larger transfers show progress

U64 _NowMS() {
  using namespace std::chrono;
  return U64(duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count());
}

// A probe access that fails only after this long has timed out: the probe or its server gave up
// waiting for the target. An address that cannot be read fails at once. After a time-out every further
// part of the transfer would wait as long again, so the transfer ends there.
constexpr U64 kTimedOutAccessMS = 1000;

// The transfer under way on the calling thread (the device thread, or a thread that reads directly):
// the moment its job's limit runs out (0: no limit), and whether an access has timed out. Depth counts
// the nested transfer operations, so that only the outermost one starts afresh.
struct TRANSFER {
  int Depth = 0;
  U64 DeadlineMS = 0;
  bool TimedOut = false;
};
thread_local TRANSFER _Transfer;

// True when no further part of the transfer may start: an access timed out or the limit has run out.
bool _TransferMustEnd() {
  if (!_Transfer.TimedOut && _Transfer.DeadlineMS != 0 && _NowMS() >= _Transfer.DeadlineMS) {
    _Transfer.TimedOut = true;
  }
  return _Transfer.TimedOut;
}

// Runs one probe access that should move Wanted bytes, and notes when it failed by timing out.
template <typename F>
int _TimedAccess(U32 Wanted, F Access) {
  const U64 Start = _NowMS();
  int Moved = Access();
  if (Moved < int(Wanted) && _NowMS() - Start >= kTimedOutAccessMS) {
    _Transfer.TimedOut = true;
  }
  return Moved;
}

// Calls Access(Offset, Size, Width) for the pieces of [Addr, Addr + nBytes) that accesses of width AW
// can take: items of AW on multiples of AW, and before and behind them the narrower items the alignment
// allows (4 bytes at 0x1001 with AW 4: a byte, a half word, a byte). Stops at the first piece that comes
// short, and returns the bytes moved.
template <typename F>
int _ForEachAlignedPiece(U32 Addr, U32 nBytes, U32 AW, F Access) {
  int Total = 0;
  U32 Offset = 0;
  while (Offset < nBytes) {
    const U32 At = Addr + Offset;
    const U32 Rest = nBytes - Offset;
    U32 Width = AW;
    while (Width > 1 && (At % Width != 0 || Width > Rest)) {
      Width /= 2;
    }
    const U32 Size = Width == AW ? Rest - Rest % AW : Width;
    const int Moved = Access(Offset, Size, Width);
    Total += Moved;
    if (Moved < int(Size) || _TransferMustEnd()) {
      break;
    }
    Offset += Size;
  }
  return Total;
}

// True when an access of nBytes at Addr with width AW needs splitting: the probe refuses an address or
// a size that is not a multiple of the access width.
bool _NeedsSplit(U32 Addr, U32 nBytes, I8 AW) {
  return (AW == 2 || AW == 4) && ((Addr | nBytes) & U32(AW - 1)) != 0;
}

// Marks the outermost memory operation of a thread: it starts with no time-out noted and, for a job,
// with the job's limit as its deadline.
class CTransferScope {
 public:
  explicit CTransferScope(U64 LimitMS = 0) {
    if (_Transfer.Depth++ == 0) {
      _Transfer.TimedOut = false;
      _Transfer.DeadlineMS = LimitMS ? _NowMS() + LimitMS : 0;
    }
  }
  ~CTransferScope() { --_Transfer.Depth; }
  CTransferScope(const CTransferScope&) = delete;
  CTransferScope& operator=(const CTransferScope&) = delete;
};

// Runs Transfer(Offset, Size) over the chunks of a transfer, with the progress text and bar that
// transfers above the limit show. Returns the bytes the chunks moved; EndProgress decides at the end.
int _ForEachChunk(U32 nBytes, U32 ChunkSize, const char* sProgressText,
                  const std::function<int(U32 Offset, U32 Size)>& Transfer,
                  const std::function<bool()>& EndProgress) {
  if (ChunkSize == 0 || ChunkSize > nBytes) {
    ChunkSize = nBytes;
  }
  const U32 NumChunks = (nBytes + ChunkSize - 1) / ChunkSize;
  const bool Progress = nBytes > kProgressLimit;
  if (Progress) {
    PostDeviceStringEvent(DEV_EVENT_PROGRESS_MSG, sProgressText, 0);
    if (NumChunks > 1) {
      PostDeviceEvent(DEV_EVENT_PROGRESS_START, 0, NumChunks - 1);
    }
  }
  int Total = 0;
  for (U32 i = 0; i < NumChunks; ++i) {
    if (i > 0 && _TransferMustEnd()) {
      break;  // the rest stays unread (or unwritten)
    }
    U32 Offset = i * ChunkSize;
    Total += Transfer(Offset, std::min(ChunkSize, nBytes - Offset));
    if (Progress && NumChunks > 1) {
      PostDeviceEvent(DEV_EVENT_PROGRESS_VALUE, i, 0);
    }
  }
  if (Progress && EndProgress()) {
    PostDeviceEvent(DEV_EVENT_PROGRESS_END, 0, 0);
  }
  return Total;
}

}  // namespace

int CDevice::ValidateMemoryAccessParams(bool Read, U32 Addr, U32 nBytes, I8 AW, const U8* pData,
                                        const U8* pStatus) {
  QString sError;
  if (!_Connected.load()) {
    sError = "not connected to target";
  } else if (pData == nullptr) {
    sError = "invalid data buffer";
  } else if (Read && pStatus == nullptr) {
    sError = "invalid status buffer";
  } else if (nBytes == 0) {
    sError = "byte count is 0";
  } else if (U64(Addr) + nBytes >= 0xFFFFFFFFull) {
    sError = "outside address range";
  } else if (Addr == 0xFFFFFFFF) {
    sError = QString("attempting to access %1 bytes at invalid address %2").arg(nBytes).arg(Addr, 0, 16);
  }
  (void)AW;
  if (sError.isEmpty()) {
    return 0;
  }
  _LogWarnMsg((Read ? "ReadMem: " : "WriteMem: ") + sError);
  return -1;
}

int CDevice::ReadMemSimple(U32 Addr, U32 nBytes, I8 AW, U32 Flags, U8* paData, U8* paStatus) {
  CTransferScope Scope;
  if (ValidateMemoryAccessParams(true, Addr, nBytes, AW, paData, paStatus) < 0) {
    return 0;
  }
  memset(paData, 0, nBytes);
  if (_NeedsSplit(Addr, nBytes, AW)) {
    memset(paStatus, 1, nBytes);
    return _ForEachAlignedPiece(Addr, nBytes, U32(AW), [&](U32 Offset, U32 Size, U32 Width) {
      return ReadMemSimple(Addr + Offset, Size, I8(Width), Flags, paData + Offset, paStatus + Offset);
    });
  }
  int Read = _TimedAccess(nBytes, [&] { return _ReadMemOnce(Addr, nBytes, AW, Flags, paData); });
  if (Read < int(nBytes)) {
    memset(paData + Read, 0, nBytes - U32(Read));  // bytes that could not be read are zero
  }
  memset(paStatus, 0, U32(Read));
  memset(paStatus + Read, 1, nBytes - U32(Read));
  return Read;
}

// One probe access for the whole range: a single item where size and alignment allow, otherwise a block
// read. The bytes read, from the start.
int CDevice::_ReadMemOnce(U32 Addr, U32 nBytes, I8 AW, U32 Flags, U8* paData) {
  const TARVIK_API& Api = _Api();
  int Read = 0;
  U8 ItemStatus = 1;
  if (nBytes == 1) {
    Read = Api.TARVIKARM_ReadMemU8(Addr, 1, paData, &ItemStatus) == 1 && ItemStatus == 0 ? 1 : 0;
  } else if (nBytes == 2 && Addr % 2 == 0) {
    U16 v = 0;
    if (Api.TARVIKARM_ReadMemU16(Addr, 1, &v, &ItemStatus) == 1 && ItemStatus == 0) {
      memcpy(paData, &v, 2);
      Read = 2;
    }
  } else if (nBytes == 4 && Addr % 4 == 0) {
    U32 v = 0;
    if (Api.TARVIKARM_ReadMemU32(Addr, 1, &v, &ItemStatus) == 1 && ItemStatus == 0) {
      memcpy(paData, &v, 4);
      Read = 4;
    }
  } else if (nBytes == 8 && Addr % 8 == 0) {
    U64 v = 0;
    if (Api.TARVIKARM_ReadMemU64(Addr, 1, &v, &ItemStatus) == 1 && ItemStatus == 0) {
      memcpy(paData, &v, 8);
      Read = 8;
    }
  } else if (Flags & MEM_FLAG_READ_HW) {
    Read = Api.TARVIKARM_ReadMemHW(Addr, nBytes, paData) == 0 ? int(nBytes) : 0;
  } else {
    Read = Api.TARVIKARM_ReadMemEx(Addr, nBytes, paData, U32(AW > 0 ? AW : 0));
    if (Read < 0) {
      Read = 0;
    }
    if (Read > int(nBytes)) {
      Read = int(nBytes);
    }
  }
  return Read;
}

int CDevice::ReadMemItemWise(U32 Addr, U32 nBytes, I8 AW, U32 Flags, U8* paData, U8* paStatus) {
  CTransferScope Scope;
  if (paData == nullptr || paStatus == nullptr) {
    return 0;
  }
  memset(paData, 0, nBytes);
  memset(paStatus, 1, nBytes);  // items behind a time-out are not tried
  U32 Item = AW > 0 ? U32(AW) : 1;
  int Total = 0;
  for (U32 Offset = 0; Offset < nBytes && !_TransferMustEnd(); Offset += Item) {
    U32 n = std::min(Item, nBytes - Offset);
    Total += ReadMemSimple(Addr + Offset, n, AW, Flags, paData + Offset, paStatus + Offset);
  }
  return Total;
}

int CDevice::ReadMemChunkWise(U32 Addr, U32 nBytes, U32 ChunkSize, I8 AW, U32 Flags, U8* paData,
                              U8* paStatus) {
  CTransferScope Scope;
  if (paData == nullptr || paStatus == nullptr || nBytes == 0) {
    return 0;
  }
  memset(paData, 0, nBytes);
  memset(paStatus, 1, nBytes);  // chunks behind a time-out are not tried
  auto ReadChunk = [&](U32 Offset, U32 n) {
    int Read = ReadMemSimple(Addr + Offset, n, AW, Flags, paData + Offset, paStatus + Offset);
    if (Read < int(n) && (Flags & MEM_FLAG_ITEM_WISE_AFTER_SHORT) && !_TransferMustEnd()) {
      // Behind a hole the rest of the chunk may still be readable, one item at a time.
      Read += ReadMemItemWise(Addr + Offset + U32(Read), n - U32(Read), AW, Flags, paData + Offset + Read,
                              paStatus + Offset + Read);
    }
    return Read;
  };
  // A read that halted nothing leaves the progress to whoever shows the running target.
  return _ForEachChunk(nBytes, ChunkSize, "Reading Memory...", ReadChunk, [this] { return _Halted.load(); });
}

int CDevice::ReadMem(U32 Addr, U32 nBytes, U32 ChunkSize, I8 AW, U32 Flags, U8* paData, U8* paStatus) {
  CTransferScope Scope;
  if (ValidateMemoryAccessParams(true, Addr, nBytes, AW, paData, paStatus) < 0) {
    return 0;
  }
  bool ResumeOwed = false;
  if ((Flags & MEM_FLAG_HALT_FOR_ACCESS) && !IsTargetHalted()) {
    _Api().TARVIKARM_Halt();
    ResumeOwed = true;
  }
  Flags &= ~MEM_FLAG_HALT_FOR_ACCESS;
  int Read = ReadMemSimple(Addr, nBytes, AW, Flags, paData, paStatus);
  if (Read < int(nBytes) && (ChunkSize || (Flags & MEM_FLAG_ITEM_WISE_AFTER_SHORT)) && !_TransferMustEnd()) {
    U32 Rest = nBytes - U32(Read);
    Read += ReadMemChunkWise(Addr + U32(Read), Rest, ChunkSize, AW, Flags, paData + Read, paStatus + Read);
  }
  if (Read < int(nBytes)) {
    if (_Transfer.TimedOut) {
      _LogWarnMsg(QString("ReadMem: target did not answer in time, %1 of %2 bytes at 0x%3 read")
                      .arg(Read)
                      .arg(nBytes)
                      .arg(Addr, 8, 16, QChar('0')));
    }
    _TestConnectionLost();  // a read that fails may be the first sign of a lost probe
  }
  if (ResumeOwed && _Connected.load()) {
    _Api().TARVIKARM_GoEx(0, 1);
  }
  return Read;
}

int CDevice::WriteMemSimple(U32 Addr, U32 nBytes, I8 AW, const U8* paData) {
  CTransferScope Scope;
  if (_NeedsSplit(Addr, nBytes, AW)) {
    return _ForEachAlignedPiece(Addr, nBytes, U32(AW), [&](U32 Offset, U32 Size, U32 Width) {
      return WriteMemSimple(Addr + Offset, Size, I8(Width), paData + Offset);
    });
  }
  return _TimedAccess(nBytes, [&] { return _WriteMemOnce(Addr, nBytes, AW, paData); });
}

// One probe access for the whole range, as for reading. The bytes written.
int CDevice::_WriteMemOnce(U32 Addr, U32 nBytes, I8 AW, const U8* paData) {
  const TARVIK_API& Api = _Api();
  if (nBytes == 1) {
    return Api.TARVIKARM_WriteU8(Addr, paData[0]) == 0 ? 1 : 0;
  }
  if (nBytes == 2 && Addr % 2 == 0) {
    U16 v;
    memcpy(&v, paData, 2);
    return Api.TARVIKARM_WriteU16(Addr, v) == 0 ? 2 : 0;
  }
  if (nBytes == 4 && Addr % 4 == 0) {
    U32 v;
    memcpy(&v, paData, 4);
    return Api.TARVIKARM_WriteU32(Addr, v) == 0 ? 4 : 0;
  }
  if (nBytes == 8 && Addr % 8 == 0) {
    U64 v;
    memcpy(&v, paData, 8);
    return Api.TARVIKARM_WriteU64(Addr, v) == 0 ? 8 : 0;
  }
  int Written = Api.TARVIKARM_WriteMemEx(Addr, nBytes, paData, U32(AW > 0 ? AW : 0));
  return Written < 0 ? 0 : std::min(Written, int(nBytes));
}

int CDevice::WriteMemItemWise(U32 Addr, U32 nBytes, I8 AW, const U8* paData) {
  CTransferScope Scope;
  U32 Item = AW > 0 ? U32(AW) : 1;
  int Total = 0;
  for (U32 Offset = 0; Offset < nBytes && !_TransferMustEnd(); Offset += Item) {
    U32 n = std::min(Item, nBytes - Offset);
    if (ValidateMemoryAccessParams(false, Addr + Offset, n, AW, paData + Offset, nullptr) < 0) {
      break;
    }
    Total += WriteMemSimple(Addr + Offset, n, AW, paData + Offset);
  }
  return Total;
}

int CDevice::WriteMemChunkWise(U32 Addr, U32 nBytes, U32 ChunkSize, I8 AW, U32 Flags, const U8* paData) {
  CTransferScope Scope;
  auto WriteChunk = [&](U32 Offset, U32 n) {
    int Written = WriteMemSimple(Addr + Offset, n, AW, paData + Offset);
    if (Written < int(n) && (Flags & MEM_FLAG_ITEM_WISE_AFTER_SHORT) && !_TransferMustEnd()) {
      Written +=
          WriteMemItemWise(Addr + Offset + U32(Written), n - U32(Written), AW, paData + Offset + Written);
    }
    return Written;
  };
  return _ForEachChunk(nBytes, ChunkSize, "Writing Memory...", WriteChunk, [] { return true; });
}

int CDevice::WriteMem(U32 Addr, U32 nBytes, U32 ChunkSize, I8 AW, U32 Flags, const U8* paData) {
  CTransferScope Scope;
  if (ValidateMemoryAccessParams(false, Addr, nBytes, AW, paData, nullptr) < 0) {
    return 0;
  }
  bool ResumeOwed = false;
  if ((Flags & MEM_FLAG_HALT_FOR_ACCESS) && !IsTargetHalted()) {
    _Api().TARVIKARM_Halt();
    ResumeOwed = true;
  }
  bool Download = (Flags & MEM_FLAG_DOWNLOAD) != 0;
  if (Download) {
    BeginDownload();
  }
  int Written = WriteMemSimple(Addr, nBytes, AW, paData);
  if (Written < int(nBytes) && ChunkSize && !_TransferMustEnd()) {
    Written +=
        WriteMemChunkWise(Addr + U32(Written), nBytes - U32(Written), ChunkSize, AW, Flags, paData + Written);
  }
  if (Written < int(nBytes) && _Transfer.TimedOut) {
    _LogWarnMsg(QString("WriteMem: target did not answer in time, %1 of %2 bytes at 0x%3 written")
                    .arg(Written)
                    .arg(nBytes)
                    .arg(Addr, 8, 16, QChar('0')));
  }
  if (Download && EndDownload(false) < 0) {
    Written = 0;
  }
  if (ResumeOwed && _Connected.load()) {
    _Api().TARVIKARM_GoEx(0, 1);
  }
  return Written;
}

int CDevice::WriteMemMultiple(U32 Cnt, const U32* paAddrRanges, U32 NumBytes, const U8* paData, U32 ChunkSize,
                              I8 AW, U32 Flags) {
  CTransferScope Scope;
  if (!_Connected.load() || paAddrRanges == nullptr || paData == nullptr) {
    return 0;
  }
  bool ResumeOwed = false;
  if ((Flags & MEM_FLAG_HALT_FOR_ACCESS) && !IsTargetHalted()) {
    _Api().TARVIKARM_Halt();
    ResumeOwed = true;
  }
  Flags &= ~MEM_FLAG_HALT_FOR_ACCESS;
  bool Download = (Flags & MEM_FLAG_DOWNLOAD) != 0;
  if (Download) {
    BeginDownload();
  }
  U32 Offset = 0;
  int Total = 0;
  for (U32 i = 0; i < Cnt; ++i) {
    U32 Start = paAddrRanges[2 * i];
    U32 End = paAddrRanges[2 * i + 1];
    if (End <= Start) {
      continue;
    }
    U32 Len = End - Start;
    if (Len > NumBytes - Offset || _TransferMustEnd()) {
      break;  // the data would be overrun, or the target stopped answering
    }
    Total += WriteMem(Start, Len, ChunkSize, AW, Flags & ~MEM_FLAG_DOWNLOAD, paData + Offset);
    Offset += Len;
  }
  if (Download && EndDownload(false) < 0) {
    Total = 0;
  }
  if (ResumeOwed && _Connected.load()) {
    _Api().TARVIKARM_GoEx(0, 1);
  }
  return Total;
}

int CDevice::BeginDownload() {
  if (!_Connected.load()) {
    _LogWarnMsg("BeginDL: not connected");
    return -1;
  }
  _Api().TARVIKARM_BeginDownload(0);
  return 0;
}

int CDevice::EndDownload(bool DoHalt) {
  if (!_Connected.load()) {
    _LogWarnMsg("EndDL: not connected");
    return -1;
  }
  bool ResumeOwed = false;
  if (DoHalt && !IsTargetHalted()) {
    _Api().TARVIKARM_Halt();
    ResumeOwed = _Running.load();
  }
  PostDeviceStringEvent(DEV_EVENT_PROGRESS_MSG, "Writing Memory...", 0);
  PostDeviceEvent(DEV_EVENT_PROGRESS_START, 0, 0);
  int r = _Api().TARVIKARM_EndDownload();
  PostDeviceEvent(DEV_EVENT_PROGRESS_END, 0, 0);
  _TestConnectionLost();
  if (ResumeOwed && _Connected.load()) {
    _Api().TARVIKARM_GoEx(0, 1);
  }
  return r;
}

// A word or half word read with its own messages: the value is left as the fill pattern on failure.
template <typename T>
static int _ReadAligned(bool Connected, U32 Addr, T* pOut, T Fill, U32 LastAddr, const char* sWhat,
                        const char* sNotConnected, const std::function<void(const QString&)>& Debug,
                        const std::function<void(const QString&)>& Warn) {
  if (pOut == nullptr) {
    return -1;
  }
  *pOut = Fill;
  if (!Connected) {
    Debug(sNotConnected);
    return -1;
  }
  if (Addr == LastAddr) {
    Warn(QString("%1: Outside address range").arg(sWhat));
    return -1;
  }
  if (Addr % sizeof(T) != 0) {
    Warn(QString("Attempting to read %1 unaligned at %2")
             .arg(sizeof(T) == 4 ? "word" : "half word")
             .arg(Addr, 0, 16));
    return -1;
  }
  U8 Status = 1;
  T Value = 0;
  int Read;
  if constexpr (sizeof(T) == 4) {
    Read = _Api().TARVIKARM_ReadMemU32(Addr, 1, &Value, &Status);
  } else {
    Read = _Api().TARVIKARM_ReadMemU16(Addr, 1, &Value, &Status);
  }
  if (Read != 1 || Status != 0) {
    if (sizeof(T) == 2) {
      Warn("ReadHalfWord: Tarvik API call failed");
    }
    return -1;
  }
  *pOut = Value;
  return 0;
}

int CDevice::ReadWord(U32 Addr, U32* pOutWord) {
  return _ReadAligned<U32>(
      _Connected.load(), Addr, pOutWord, 0xEEEEEEEE, 0xFFFFFFFB, "ReadWord", "ReadWord: Not connected",
      [this](const QString& s) { _LogDebugMsg(s); }, [this](const QString& s) { _LogWarnMsg(s); });
}

int CDevice::ReadHalfWord(U32 Addr, U16* pOutHW) {
  return _ReadAligned<U16>(
      _Connected.load(), Addr, pOutHW, 0xEEEE, 0xFFFFFFFD, "ReadHalfWord", "ReadHalfWord: not connected",
      [this](const QString& s) { _LogDebugMsg(s); }, [this](const QString& s) { _LogWarnMsg(s); });
}

int CDevice::ReadReg(U32 Idx, I64* pOutRegVal) {
  if (pOutRegVal) {
    *pOutRegVal = -1;
  }
  if (Idx >= 82) {
    _LogWarnMsg("ReadReg: Index out of bounds");
    return -1;
  }
  if (!_Connected.load()) {
    _LogDebugMsg("ReadReg: not connected");
    return -1;
  }
  if (!IsTargetHalted()) {
    _LogDebugMsg("ReadReg: not halted");
    return -1;
  }
  U32 Value = _Api().TARVIKARM_ReadReg(Idx);
  if (Idx == GetPCRegIndex() && Value != 0) {
    Value &= ~1u;
  }
  if (pOutRegVal) {
    *pOutRegVal = Value;
  }
  return 0;
}

int CDevice::WriteReg(U32 Idx, I64 Value) {
  if (Idx >= 82) {
    _LogWarnMsg("WriteReg: Index out of bounds");
    return -1;
  }
  if (Value < 0) {
    _LogWarnMsg("WriteReg: invalid register value");
    return -1;
  }
  if (!_Connected.load()) {
    _LogDebugMsg("WriteReg: Not connected");
    return -1;
  }
  if (!IsTargetHalted()) {
    _LogDebugMsg("WriteReg: Not halted");
    return -1;
  }
  if (_Api().TARVIKARM_WriteReg(Idx, U32(Value)) != 0) {
    _LogWarnMsg("WriteReg: TARVIK API call failed");
    return -1;
  }
  return 0;
}

int CDevice::ReadRegs(U32 Cnt, const U32* paIdx, I64* paOut) {
  if (Cnt == 0 || Cnt >= 64 || paIdx == nullptr || paOut == nullptr) {
    return -1;
  }
  for (U32 i = 0; i < Cnt; ++i) {
    paOut[i] = -1;
    if (paIdx[i] == 0xFFFFFFFF) {
      _LogWarnMsg("ReadRegs: Invalid register index");
      return -1;
    }
  }
  if (!_Connected.load()) {
    _LogDebugMsg("ReadRegs: not connected");
    return -1;
  }
  I8 Halted = _Api().TARVIKARM_IsHalted();
  if (Halted < 0) {
    _LogWarnMsg("ReadRegs: invalid halt status");
    return -1;
  }
  if (Halted == 0) {
    _LogDebugMsg("ReadRegs: not halted");
    return -1;
  }
  U32 aData[64];
  U8 aStatus[64];
  if (_Api().TARVIKARM_ReadRegs(paIdx, aData, aStatus, Cnt) != 0) {
    _LogWarnMsg("ReadRegs: TARVIK API call failed");
    return -1;
  }
  U32 PCIdx = GetPCRegIndex();
  for (U32 i = 0; i < Cnt; ++i) {
    if (aStatus[i] != 0) {
      continue;
    }
    U32 v = aData[i];
    if (paIdx[i] == PCIdx && v != 0) {
      v &= ~1u;
    }
    paOut[i] = v;
  }
  return 0;
}

// The checks a coprocessor access shares: a register, a connected and halted target, coprocessor 15
// (the others are refused without a message). sWhat names the access in the messages.
bool CDevice::_CanAccessCPR(const ARM_CPR* pReg, const char* sWhat) {
  if (pReg == nullptr) {
    return false;
  }
  if (!_Connected.load()) {
    _LogDebugMsg(QString("%1: not connected").arg(sWhat));
    return false;
  }
  if (!IsTargetHalted()) {
    _LogDebugMsg(QString("%1: not halted").arg(sWhat));
    return false;
  }
  return pReg->CoProc == 15;
}

int CDevice::ReadCPR(const ARM_CPR* pReg, I64* pOutValue) {
  if (pOutValue) {
    *pOutValue = -1;
  }
  U32 Value = 0;
  if (!_CanAccessCPR(pReg, "ReadCPR") ||
      _Api().TARVIKARM_CP15_ReadEx(U8(pReg->CRn), U8(pReg->CRm), U8(pReg->Op1), U8(pReg->Op2), &Value) != 0) {
    return -1;
  }
  if (pOutValue) {
    *pOutValue = Value;
  }
  return 0;
}

int CDevice::WriteCPR(const ARM_CPR* pReg, U32 Value) {
  if (!_CanAccessCPR(pReg, "WriteCpReg")) {
    return -1;
  }
  return _Api().TARVIKARM_CP15_WriteEx(U8(pReg->CRn), U8(pReg->CRm), U8(pReg->Op1), U8(pReg->Op2), Value) == 0
             ? 0
             : -1;
}

int CDevice::_RunMemoryJob(DEVICE_JOB* pJob) {
  // The job's limit bounds its transfer: no part of it starts after the limit has run out.
  CTransferScope Scope(U64(JobTypeToTimeoutMS(pJob->Type)));
  const U64* a = pJob->aParam;
  switch (pJob->Type) {
    case JT_READ_REG: {
      I64 Value = -1;
      int r = ReadReg(U32(a[0]), &Value);
      pJob->aResult[0] = Value;
      return r;
    }
    case JT_WRITE_REG:
      return WriteReg(U32(a[0]), I64(a[1]));
    case JT_READ_REGS: {
      U32 Cnt = U32(a[0]);
      if (Cnt == 0 || Cnt > 63 || pJob->apData[1] == nullptr || pJob->aDataLen[0] < Cnt * sizeof(U32) ||
          pJob->aDataLen[1] < Cnt * sizeof(I64)) {
        return -1;
      }
      return ReadRegs(Cnt, reinterpret_cast<const U32*>(pJob->apData[0]),
                      reinterpret_cast<I64*>(pJob->apData[1]));
    }
    case JT_READ_CP_REG: {
      if (pJob->aDataLen[0] < sizeof(ARM_CPR)) {
        return -1;
      }
      I64 Value = -1;
      int r = ReadCPR(reinterpret_cast<const ARM_CPR*>(pJob->apData[0]), &Value);
      pJob->aResult[0] = Value;
      return r;
    }
    case JT_WRITE_CP_REG:
      if (pJob->aDataLen[0] < sizeof(ARM_CPR)) {
        return -1;
      }
      return WriteCPR(reinterpret_cast<const ARM_CPR*>(pJob->apData[0]), U32(a[0]));
    case JT_READ_MEM: {
      U32 nBytes = U32(a[1]);
      if (pJob->apData[0] == nullptr || pJob->apData[1] == nullptr || pJob->aDataLen[0] < nBytes ||
          pJob->aDataLen[1] < nBytes) {
        return -1;
      }
      if (ValidateMemoryAccessParams(true, U32(a[0]), nBytes, I8(a[3]), pJob->apData[0], pJob->apData[1]) <
          0) {
        return -1;
      }
      // Unreadable bytes are marked in the status bytes; the read as a whole succeeds.
      pJob->aResult[0] =
          ReadMem(U32(a[0]), nBytes, U32(a[2]), I8(a[3]), U32(a[4]), pJob->apData[0], pJob->apData[1]);
      return 0;
    }
    case JT_WRITE_MEM: {
      U32 nBytes = U32(a[1]);
      if (pJob->aDataLen[0] < nBytes) {
        return -1;
      }
      int Written = WriteMem(U32(a[0]), nBytes, U32(a[2]), I8(a[3]), U32(a[4]), pJob->apData[0]);
      pJob->aResult[0] = Written;
      return Written == int(nBytes) ? 0 : -1;
    }
    case JT_WRITE_MEM_MULTIPLE: {
      U32 Cnt = U32(a[0]);
      U32 nBytes = U32(a[1]);
      if (pJob->apData[1] == nullptr || pJob->aDataLen[0] < Cnt * 2 * sizeof(U32) ||
          pJob->aDataLen[1] < nBytes) {
        return -1;
      }
      int Written = WriteMemMultiple(Cnt, reinterpret_cast<const U32*>(pJob->apData[0]), nBytes,
                                     pJob->apData[1], U32(a[2]), I8(a[3]), U32(a[4]));
      pJob->aResult[0] = Written;
      return Written > 0 ? 0 : -1;
    }
    case JT_END_DOWNLOAD: {
      int r = EndDownload(a[0] != 0);
      pJob->aResult[0] = r;
      return r < 0 ? -1 : 0;
    }
    default:
      return -1;
  }
}
