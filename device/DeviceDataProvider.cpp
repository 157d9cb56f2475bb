// The read cache: the memory, register and coprocessor mirrors, the list of waiting requests, the
// reads that fill them and the events that empty them.
#include "device/DeviceDataProvider.h"

#include <QCoreApplication>
#include <QThread>
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>

#include "app/base/Log.h"
#include "device/Device.h"
#include "device/DeviceEvents.h"

namespace {

std::atomic<CDeviceDataProvider*> _pProvider{nullptr};

constexpr U64 kAddressSpaceEnd = U64(1) << 32;
constexpr U32 kMaxRegsPerJob = 63;
constexpr U32 kNumCPRSlots = 16 * 16 * 8 * 8;

// The provider never creates the device: between sessions of a test, or at shutdown, there is none.
CDevice* _Device() {
  return CDevice::HasInstance() ? CDevice::Instance() : nullptr;
}

bool _IsConnected() {
  CDevice* p = _Device();
  return p && p->IsConnected();
}

bool _IsStateValid() {
  CDevice* p = _Device();
  return p && p->IsStateValid();
}

bool _Wraps(U32 Addr, U32 nBytes) {
  return U64(Addr) + nBytes > kAddressSpaceEnd;
}

bool _IsListenerRegistered(const CDeviceEventListener* pListener) {
  bool Found = false;
  CDeviceEventListener::ForEach([&](CDeviceEventListener* p) { Found = Found || p == pListener; });
  return Found;
}

}  // namespace

struct CDeviceDataProvider::PAGE {
  U8 aData[kPageSize];
  U8 aStatus[kPageSize];
};

// What a listener is told, copied out of the mirror when the request is found complete: a listener
// that pumps events in its answer may see the mirror emptied under it, and the next answer must not.
struct CDeviceDataProvider::ANSWER {
  REQUEST_KIND Kind;
  CDeviceEventListener* pListener;
  U32 Addr = 0;
  U32 nBytes = 0;
  std::vector<U8> aData;
  std::vector<U8> aStatus;
  std::vector<U32> aRegIdx;
  std::vector<I64> aRegVal;  // -1 for a register that could not be read
  ARM_CPR CPR = {};
  I64 CPRValue = -1;
  ELF_SYM_LOC Loc = {};
  U8 aLocData[8] = {};
  bool LocGood = false;
};

namespace {

// Calls Fn(PageIdx, Offset, Len, Pos) for each piece of [Addr, End) that lies within one page, Pos
// counting from Addr; Fn returns false to stop.
template <typename F>
void _ForEachPiece(U64 Addr, U64 End, F Fn) {
  U64 Pos = 0;
  while (Addr < End) {
    const U32 Offset = U32(Addr % CDeviceDataProvider::kPageSize);
    const U32 Len = U32(std::min<U64>(End - Addr, CDeviceDataProvider::kPageSize - Offset));
    if (!Fn(U32(Addr / CDeviceDataProvider::kPageSize), Offset, Len, U32(Pos))) {
      return;
    }
    Addr += Len;
    Pos += Len;
  }
}

}  // namespace

// ---------------------------------------------------------------------------------------------------
// Life

CDeviceDataProvider* CDeviceDataProvider::Instance() {
  CDeviceDataProvider* p = _pProvider.load();
  if (p == nullptr) {
    static CDeviceDataProvider* pOwned = new CDeviceDataProvider();  // lives until the process ends
    p = pOwned;
  }
  return p;
}

CDeviceDataProvider::CDeviceDataProvider() : _apPage(kNumPages), _aCPR(kNumCPRSlots) {
  for (SLOT& s : _aReg) {
    s = {0, MS_UNKNOWN};
  }
  for (SLOT& s : _aCPR) {
    s = {0, MS_UNKNOWN};
  }
  CDeviceDataProvider* pNone = nullptr;
  _pProvider.compare_exchange_strong(pNone, this);
}

CDeviceDataProvider::~CDeviceDataProvider() {
  CDeviceDataProvider* pSelf = this;
  _pProvider.compare_exchange_strong(pSelf, nullptr);
}

void CDeviceDataProvider::SetDefaultAccessWidth(int AccessWidth) {
  _DefaultAccessWidth = AccessWidth;
}

U32 CDeviceDataProvider::_ResolveWidth(U32 AccessWidth) const {
  return AccessWidth >= kAccessWidthDefault ? U32(_DefaultAccessWidth) : AccessWidth;
}

// ---------------------------------------------------------------------------------------------------
// The memory mirror

CDeviceDataProvider::PAGE* CDeviceDataProvider::_MakePage(U32 PageIdx) {
  std::unique_ptr<PAGE>& p = _apPage[PageIdx];
  if (!p) {
    p = std::make_unique<PAGE>();  // zero data
    memset(p->aStatus, MS_UNKNOWN, kPageSize);
  }
  return p.get();
}

U8 CDeviceDataProvider::_RangeStatus(U32 Addr, U32 nBytes) const {
  if (_Wraps(Addr, nBytes)) {
    return MS_ERROR;
  }
  U8 Worst = MS_VALID;
  _ForEachPiece(Addr, U64(Addr) + nBytes, [&](U32 PageIdx, U32 Offset, U32 Len, U32) {
    const PAGE* p = _GetPage(PageIdx);
    if (p == nullptr) {
      Worst = MS_UNKNOWN;
      return false;
    }
    for (U32 i = 0; i < Len; ++i) {
      Worst = std::max(Worst, p->aStatus[Offset + i]);
    }
    return Worst != MS_UNKNOWN;
  });
  return Worst;
}

void CDeviceDataProvider::_SetStatus(U32 Addr, U32 nBytes, U8 Status) {
  if (_Wraps(Addr, nBytes)) {
    return;
  }
  _ForEachPiece(Addr, U64(Addr) + nBytes, [&](U32 PageIdx, U32 Offset, U32 Len, U32) {
    if (Status == MS_UNKNOWN && _GetPage(PageIdx) == nullptr) {
      return true;  // a page that does not exist is unknown throughout
    }
    PAGE* p = _MakePage(PageIdx);
    memset(p->aStatus + Offset, Status, Len);
    if (Status == MS_ERROR) {
      memset(p->aData + Offset, 0, Len);
    }
    return true;
  });
}

void CDeviceDataProvider::_Store(U32 Addr, U32 nBytes, const U8* paData, const U8* paStatus) {
  if (_Wraps(Addr, nBytes)) {
    return;
  }
  _ForEachPiece(Addr, U64(Addr) + nBytes, [&](U32 PageIdx, U32 Offset, U32 Len, U32 Pos) {
    PAGE* p = _MakePage(PageIdx);
    for (U32 i = 0; i < Len; ++i) {
      const bool Good = paStatus[Pos + i] == 0;
      p->aStatus[Offset + i] = Good ? MS_VALID : MS_ERROR;
      p->aData[Offset + i] = Good ? paData[Pos + i] : 0;
    }
    return true;
  });
}

U64 CDeviceDataProvider::_Find(U64 Addr, U64 End, U8 Status, bool Is) const {
  U64 Found = End;
  _ForEachPiece(Addr, End, [&](U32 PageIdx, U32 Offset, U32 Len, U32 Pos) {
    const PAGE* p = _GetPage(PageIdx);
    if (p == nullptr) {
      if ((Status == MS_UNKNOWN) == Is) {
        Found = Addr + Pos;
        return false;
      }
      return true;
    }
    for (U32 i = 0; i < Len; ++i) {
      if ((p->aStatus[Offset + i] == Status) == Is) {
        Found = Addr + Pos + i;
        return false;
      }
    }
    return true;
  });
  return Found;
}

U8 CDeviceDataProvider::PeekMem(U32 Addr, U32 nBytes, U8* paData, U8* paStatus) const {
  if (nBytes == 0) {
    return MS_VALID;
  }
  if (_Wraps(Addr, nBytes)) {
    if (paData) {
      memset(paData, 0, nBytes);
    }
    if (paStatus) {
      memset(paStatus, MS_ERROR, nBytes);
    }
    return MS_ERROR;
  }
  if (paData == nullptr && paStatus == nullptr) {
    return _RangeStatus(Addr, nBytes);
  }
  U8 Worst = MS_VALID;
  _ForEachPiece(Addr, U64(Addr) + nBytes, [&](U32 PageIdx, U32 Offset, U32 Len, U32 Pos) {
    const PAGE* p = _GetPage(PageIdx);
    if (p == nullptr) {
      Worst = MS_UNKNOWN;
      if (paData) {
        memset(paData + Pos, 0, Len);
      }
      if (paStatus) {
        memset(paStatus + Pos, MS_UNKNOWN, Len);
      }
      return true;
    }
    if (paData) {
      memcpy(paData + Pos, p->aData + Offset, Len);
    }
    if (paStatus) {
      memcpy(paStatus + Pos, p->aStatus + Offset, Len);
    }
    for (U32 i = 0; i < Len; ++i) {
      Worst = std::max(Worst, p->aStatus[Offset + i]);
    }
    return true;
  });
  return Worst;
}

// Reads only what is unknown. Each run of unknown bytes becomes one job; a short run (2 to 8 bytes)
// starts on a multiple of its length and has an even length, so that small reads are aligned. A range
// with more than five runs is too fragmented to be worth the jobs: it is read whole, in one.
void CDeviceDataProvider::_StartMemReads(U32 Addr, U32 nBytes, U32 ChunkSize, U32 AccessWidth, U32 Flags) {
  constexpr int kMaxRuns = 5;
  const U64 End = U64(Addr) + nBytes;
  std::vector<std::pair<U64, U64>> aRun;
  U64 Pos = Addr;
  bool Fragmented = false;
  for (;;) {
    U64 Start = _Find(Pos, End, MS_UNKNOWN, true);
    if (Start >= End) {
      break;
    }
    if (int(aRun.size()) == kMaxRuns) {
      Fragmented = true;
      break;
    }
    U64 RunEnd = _Find(Start, End, MS_UNKNOWN, false);
    const U64 Len = RunEnd - Start;
    if (Len >= 2 && Len <= 8) {
      Start -= Start % Len;
      if ((RunEnd - Start) % 2 != 0 && RunEnd < kAddressSpaceEnd) {
        RunEnd++;
      }
    }
    aRun.emplace_back(Start, RunEnd);
    Pos = RunEnd;
  }
  if (Fragmented) {
    aRun.assign(1, {U64(Addr), End});
  }
  for (const auto& [Start, RunEnd] : aRun) {
    const U32 RunBytes = U32(RunEnd - Start);
    _SetStatus(U32(Start), RunBytes, MS_PENDING);
    if (!_ScheduleMemRead(U32(Start), RunBytes, ChunkSize, AccessWidth, Flags)) {
      _SetStatus(U32(Start), RunBytes, MS_ERROR);
    }
  }
}

bool CDeviceDataProvider::_ScheduleMemRead(U32 Addr, U32 nBytes, U32 ChunkSize, U32 AccessWidth, U32 Flags) {
  CDevice* pDevice = _Device();
  if (pDevice == nullptr || nBytes > kMaxJobDataLen) {
    return false;
  }
  if (pDevice->ScheduleReadMem(Addr, nBytes, ChunkSize, _ResolveWidth(AccessWidth),
                               Flags & ~kFlagBypassMirror) < 0) {
    return false;
  }
  _aMemJob.emplace_back(Addr, nBytes);
  return true;
}

// ---------------------------------------------------------------------------------------------------
// The register and coprocessor mirrors

const CDeviceDataProvider::SLOT* CDeviceDataProvider::_CPRSlot(const ARM_CPR* pReg) const {
  if (pReg == nullptr || pReg->CoProc != 15 || pReg->CRm > 15 || pReg->CRn > 15 || pReg->Op1 > 7 ||
      pReg->Op2 > 7) {
    return nullptr;
  }
  return &_aCPR[((pReg->CRm * 16 + pReg->CRn) * 8 + pReg->Op1) * 8 + pReg->Op2];
}

CDeviceDataProvider::SLOT* CDeviceDataProvider::_CPRSlot(const ARM_CPR* pReg) {
  return const_cast<SLOT*>(static_cast<const CDeviceDataProvider*>(this)->_CPRSlot(pReg));
}

U8 CDeviceDataProvider::_RegsStatus(const std::vector<U32>& aIdx) const {
  U8 Worst = MS_VALID;
  for (U32 Idx : aIdx) {
    Worst = std::max(Worst, Idx < kNumRegs ? _aReg[Idx].Status : U8(MS_ERROR));
  }
  return Worst;
}

void CDeviceDataProvider::_StoreReg(U32 Idx, I64 Value) {
  if (Idx < kNumRegs) {
    _aReg[Idx] = Value < 0 ? SLOT{0, MS_ERROR} : SLOT{U32(Value), MS_VALID};
  }
}

void CDeviceDataProvider::_StartRegReads(const std::vector<U32>& aIdx) {
  std::vector<U32> aToRead;
  for (U32 Idx : aIdx) {
    if (_aReg[Idx].Status == MS_UNKNOWN) {
      _aReg[Idx].Status = MS_PENDING;  // also keeps a register named twice from being read twice
      aToRead.push_back(Idx);
    }
  }
  if (aToRead.empty()) {
    return;
  }
  CDevice* pDevice = _Device();
  int r = -1;
  if (pDevice) {
    r = aToRead.size() == 1 ? pDevice->ScheduleReadReg(aToRead[0])
                            : pDevice->ScheduleReadRegs(U32(aToRead.size()), aToRead.data());
  }
  if (r < 0) {
    for (U32 Idx : aToRead) {
      _aReg[Idx] = {0, MS_ERROR};
    }
  }
}

U8 CDeviceDataProvider::PeekReg(U32 TarvikRegIdx, U32* pValue) const {
  if (TarvikRegIdx >= kNumRegs) {
    return MS_ERROR;
  }
  if (pValue) {
    *pValue = _aReg[TarvikRegIdx].Value;
  }
  return _aReg[TarvikRegIdx].Status;
}

U8 CDeviceDataProvider::PeekCPR(const ARM_CPR* pReg, U32* pValue) const {
  const SLOT* pSlot = _CPRSlot(pReg);
  if (pSlot == nullptr) {
    return MS_ERROR;
  }
  if (pValue) {
    *pValue = pSlot->Value;
  }
  return pSlot->Status;
}

// ---------------------------------------------------------------------------------------------------
// Requests

bool CDeviceDataProvider::REQUEST::IsSameAs(const REQUEST& r) const {
  if (Kind != r.Kind || pListener != r.pListener) {
    return false;
  }
  switch (Kind) {
    case REQ_MEM:
      return Addr == r.Addr && nBytes == r.nBytes;
    case REQ_REGS:
      return aRegIdx == r.aRegIdx;
    case REQ_CPR:
      return memcmp(&CPR, &r.CPR, sizeof(CPR)) == 0;
    case REQ_LOC:
      return nBytes == r.nBytes && memcmp(&Loc, &r.Loc, sizeof(Loc)) == 0;
  }
  return false;
}

void CDeviceDataProvider::_AddRequest(REQUEST&& Request) {
  for (const REQUEST& r : _aRequest) {
    if (r.IsSameAs(Request)) {
      return;
    }
  }
  _aRequest.push_back(std::move(Request));
}

bool CDeviceDataProvider::_IsComplete(const REQUEST& r) const {
  switch (r.Kind) {
    case REQ_MEM:
      return _RangeStatus(r.Addr, r.nBytes) <= MS_ERROR;
    case REQ_REGS:
      return _RegsStatus(r.aRegIdx) <= MS_ERROR;
    case REQ_CPR:
      return PeekCPR(&r.CPR) <= MS_ERROR;
    case REQ_LOC:
      return _LocStatus(r.Loc, r.nBytes) <= MS_ERROR;
  }
  return true;
}

CDeviceDataProvider::ANSWER CDeviceDataProvider::_MakeAnswer(const REQUEST& r) const {
  ANSWER a;
  a.Kind = r.Kind;
  a.pListener = r.pListener;
  switch (r.Kind) {
    case REQ_MEM:
      a.Addr = r.Addr;
      a.nBytes = r.nBytes;
      a.aData.resize(r.nBytes);
      a.aStatus.resize(r.nBytes);
      PeekMem(r.Addr, r.nBytes, a.aData.data(), a.aStatus.data());
      break;
    case REQ_REGS:
      a.aRegIdx = r.aRegIdx;
      for (U32 Idx : r.aRegIdx) {
        U32 Value = 0;
        a.aRegVal.push_back(PeekReg(Idx, &Value) == MS_VALID ? I64(Value) : -1);
      }
      break;
    case REQ_CPR: {
      a.CPR = r.CPR;
      U32 Value = 0;
      a.CPRValue = PeekCPR(&r.CPR, &Value) == MS_VALID ? I64(Value) : -1;
      break;
    }
    case REQ_LOC:
      a.Loc = r.Loc;
      a.nBytes = r.nBytes;
      a.LocGood = _PeekLoc(r.Loc, r.nBytes, a.aLocData);
      break;
  }
  return a;
}

void CDeviceDataProvider::_Deliver(const ANSWER& a) {
  // A window that went away without cancelling its requests is not called.
  if (!_IsListenerRegistered(a.pListener)) {
    return;
  }
  switch (a.Kind) {
    case REQ_MEM:
      a.pListener->OnDeviceReadMemDone(a.Addr, a.nBytes, const_cast<U8*>(a.aData.data()),
                                       const_cast<U8*>(a.aStatus.data()));
      break;
    case REQ_REGS:
      if (a.aRegIdx.size() == 1) {
        a.pListener->OnDeviceReadRegDone(a.aRegIdx[0], a.aRegVal[0]);
      } else {
        a.pListener->OnDeviceReadRegsDone(U32(a.aRegIdx.size()), const_cast<U32*>(a.aRegIdx.data()),
                                          const_cast<I64*>(a.aRegVal.data()));
      }
      break;
    case REQ_CPR: {
      ARM_CPR CPR = a.CPR;
      a.pListener->OnDeviceReadCPRDone(&CPR, a.CPRValue);
      break;
    }
    case REQ_LOC: {
      U8 aData[8];
      memcpy(aData, a.aLocData, sizeof(aData));
      if (a.LocGood) {
        a.pListener->OnDeviceReadLocDone(a.Loc, a.nBytes, aData);
      } else {
        a.pListener->OnDeviceReadLocFailed(a.Loc, a.nBytes);
      }
      break;
    }
  }
}

void CDeviceDataProvider::_ServeRequests(int Kind) {
  // Complete requests leave the list before anyone is called, so that a listener may ask again, or
  // pump events, from inside its answer.
  std::vector<ANSWER> aReady;
  size_t nKept = 0;
  for (size_t i = 0; i < _aRequest.size(); ++i) {
    REQUEST& r = _aRequest[i];
    bool Leaves = false;
    // A location lies in the memory or the register mirror, so any result may complete it.
    if (Kind < 0 || r.Kind == REQUEST_KIND(Kind) || r.Kind == REQ_LOC) {
      if (r.pListener == this) {
        Leaves = true;  // a synchronous read watches the mirror itself
      } else if (_IsComplete(r)) {
        aReady.push_back(_MakeAnswer(r));
        Leaves = true;
      }
    }
    if (!Leaves) {
      if (nKept != i) {
        _aRequest[nKept] = std::move(r);
      }
      ++nKept;
    }
  }
  _aRequest.erase(_aRequest.begin() + std::ptrdiff_t(nKept), _aRequest.end());
  for (const ANSWER& a : aReady) {
    _Deliver(a);
  }
}

void CDeviceDataProvider::CancelRequests(CDeviceEventListener* pListener) {
  std::erase_if(_aRequest, [pListener](const REQUEST& r) { return r.pListener == pListener; });
}

int CDeviceDataProvider::_WaitFor(const std::function<U8()>& Status, const char* sWarning) {
  // The answer comes as a device event: the wait sleeps until one is posted and dispatches it here.
  if (!WaitForDevice([&] { return Status() <= MS_ERROR; }, kSyncWaitMS, WAIT_DISPATCH_DEVICE_EVENTS)) {
    LogMessage(sWarning, MSG_WARNING | MSG_TO_STDOUT | MSG_TO_LOGFILE);
    return -1;
  }
  return 0;
}

// ---------------------------------------------------------------------------------------------------
// Memory reads

int CDeviceDataProvider::ReadMemAsync(CDeviceEventListener* pListener, U32 Addr, U32 nBytes, U32 ChunkSize,
                                      U32 AccessWidth, U32 Flags) {
  if (pListener == nullptr || nBytes == 0 || nBytes > kMaxJobDataLen) {
    return READ_BAD_ARGS;
  }
  REQUEST r(REQ_MEM, pListener);
  r.Addr = Addr;
  r.nBytes = nBytes;
  r.ChunkSize = ChunkSize;
  r.AccessWidth = AccessWidth;
  r.Flags = Flags;
  if (_Wraps(Addr, nBytes)) {
    _Deliver(_MakeAnswer(r));  // unreadable throughout
    return READ_ANSWERED;
  }
  if (_IsStateValid() && !(Flags & kFlagBypassMirror)) {
    const U8 Status = _RangeStatus(Addr, nBytes);
    if (Status <= MS_ERROR) {
      _Deliver(_MakeAnswer(r));
      return READ_ANSWERED;
    }
    if (Status == MS_PENDING) {
      _AddRequest(std::move(r));
      return READ_LATER;
    }
  } else {
    _SetStatus(Addr, nBytes, MS_UNKNOWN);
  }
  _AddRequest(std::move(r));
  _StartMemReads(Addr, nBytes, ChunkSize, AccessWidth, Flags);
  if (_RangeStatus(Addr, nBytes) <= MS_ERROR) {
    _ServeRequests(REQ_MEM);  // nothing could be filed: the bytes are failed already
    return READ_ANSWERED;
  }
  return READ_LATER;
}

int CDeviceDataProvider::ReadMemSync(U32 Addr, U32 nBytes, U32 AccessWidth, U8* pData, U8* paStatus) {
  if (nBytes == 0 || pData == nullptr || nBytes > kMaxJobDataLen) {
    return 1;
  }
  auto Result = [&] { return PeekMem(Addr, nBytes, pData, paStatus) == MS_VALID ? 0 : 1; };
  auto Status = [&] { return _RangeStatus(Addr, nBytes); };
  const char* sWarning = "Timeout while waiting for memory data arrival";
  if (_Wraps(Addr, nBytes)) {
    return Result();
  }
  if (_IsStateValid()) {
    const U8 s = Status();
    if (s <= MS_ERROR) {
      return Result();
    }
    if (s == MS_PENDING) {
      _WaitFor(Status, sWarning);
      return Result();
    }
  } else {
    _SetStatus(Addr, nBytes, MS_UNKNOWN);
  }
  REQUEST r(REQ_MEM, this);
  r.Addr = Addr;
  r.nBytes = nBytes;
  r.AccessWidth = AccessWidth;
  _AddRequest(std::move(r));
  _StartMemReads(Addr, nBytes, 0, AccessWidth, 0);
  _WaitFor(Status, sWarning);
  return Result();
}

int CDeviceDataProvider::ReadMemWait(U32 Addr, U32 nBytes, U32 ChunkSize, U32 AccessWidth, U32 Flags,
                                     U8* pData, U8* paStatus) {
  CDevice* pDevice = _Device();
  if (pDevice == nullptr || nBytes == 0 || nBytes > kMaxJobDataLen || pData == nullptr ||
      paStatus == nullptr) {
    return -1;
  }
  memset(pData, 0, nBytes);
  memset(paStatus, 1, nBytes);
  WAITED_READ Waited{++_LastWaitToken, nBytes, pData, paStatus};
  DEVICE_JOB Job;
  memset(&Job, 0, sizeof(Job));
  Job.Type = JT_READ_MEM;
  Job.Flags = JOB_FLAG_KEEP;  // what a command asked for is read even if the target halts meanwhile
  Job.aParam[0] = Addr;
  Job.aParam[1] = nBytes;
  Job.aParam[2] = ChunkSize;
  Job.aParam[3] = _ResolveWidth(AccessWidth);
  Job.aParam[4] = Flags & ~kFlagBypassMirror;
  Job.aResult[2] = I64(Waited.Token);  // the job does not touch it; its completion is known by it
  if (AttachJobData(&Job, 0, nBytes, nullptr) < 0 || AttachJobData(&Job, 1, nBytes, nullptr) < 0) {
    FreeJobData(&Job);
    return -1;
  }
  if (pDevice->ScheduleJob(&Job) < 0) {
    return -1;
  }
  _apWaitedRead.push_back(&Waited);
  // The answer arrives as a device event: the wait hands events to the listeners and sleeps between them.
  if (!WaitForDevice([&] { return Waited.Ended || !pDevice->IsThreadRunning(); },
                     JobTypeToTimeoutMS(JT_READ_MEM), WAIT_PROCESS_QT_EVENTS | WAIT_DISPATCH_DEVICE_EVENTS)) {
    LogMessage("Timeout while waiting for Job JT_READ_MEM", MSG_WARNING | MSG_TO_STDOUT | MSG_TO_LOGFILE);
  }
  std::erase(_apWaitedRead, &Waited);  // a completion after the time-out must not write here
  if (!Waited.Ended) {
    memset(pData, 0, nBytes);
    memset(paStatus, 1, nBytes);
    return -1;
  }
  if (!Waited.Done) {
    return 1;
  }
  return std::all_of(paStatus, paStatus + nBytes, [](U8 b) { return b == 0; }) ? 0 : 1;
}

// ---------------------------------------------------------------------------------------------------
// Locations

int CDeviceDataProvider::_LocRegSlots(const ELF_SYM_LOC& Loc, U32 nBytes, U32* paIdx) const {
  CDevice* pDevice = _Device();
  U32 aLogical[2];
  const int NumRegs = pDevice ? pDevice->GetLocRegisters(Loc, nBytes, aLogical) : 0;
  for (int i = 0; i < NumRegs; ++i) {
    const int Idx = pDevice->GetTarvikRegIdx(aLogical[i]);
    if (Idx < 0 || U32(Idx) >= kNumRegs) {
      return 0;
    }
    paIdx[i] = U32(Idx);
  }
  return std::max(NumRegs, 0);
}

U8 CDeviceDataProvider::_LocStatus(const ELF_SYM_LOC& Loc, U32 nBytes) const {
  U64 Value = 0;
  if (GetImplicitLocValue(Loc, &Value)) {
    return MS_VALID;
  }
  if (IsMemoryLoc(Loc)) {
    return _RangeStatus(Loc.addr, nBytes);
  }
  U32 aIdx[2];
  const int NumRegs = _LocRegSlots(Loc, nBytes, aIdx);
  if (NumRegs == 0) {
    return MS_ERROR;
  }
  return _RegsStatus(std::vector<U32>(aIdx, aIdx + NumRegs));
}

void CDeviceDataProvider::_SetLocStatus(const ELF_SYM_LOC& Loc, U32 nBytes, U8 Status) {
  if (IsMemoryLoc(Loc)) {
    _SetStatus(Loc.addr, nBytes, Status);
    return;
  }
  U32 aIdx[2];
  const int NumRegs = _LocRegSlots(Loc, nBytes, aIdx);
  for (int i = 0; i < NumRegs; ++i) {
    _aReg[aIdx[i]].Status = Status;
    if (Status == MS_ERROR) {
      _aReg[aIdx[i]].Value = 0;
    }
  }
}

void CDeviceDataProvider::_StoreLoc(const ELF_SYM_LOC& Loc, U32 nBytes, const U8* paData, bool Good) {
  if (!Good) {
    _SetLocStatus(Loc, nBytes, MS_ERROR);
    return;
  }
  if (IsMemoryLoc(Loc)) {
    const std::vector<U8> aStatus(nBytes, 0);
    _Store(Loc.addr, nBytes, paData, aStatus.data());
    return;
  }
  U32 aIdx[2];
  const int NumRegs = _LocRegSlots(Loc, nBytes, aIdx);
  for (int i = 0; i < NumRegs; ++i) {
    U32 Word = 0;
    memcpy(&Word, paData + 4 * i, std::min<U32>(4, nBytes - 4 * U32(i)));
    if (nBytes >= 4 * U32(i) + 4) {
      _StoreReg(aIdx[i], Word);  // a register is only known whole
    }
  }
}

bool CDeviceDataProvider::_PeekLoc(const ELF_SYM_LOC& Loc, U32 nBytes, U8* paData) const {
  memset(paData, 0, nBytes);
  U64 Value = 0;
  if (GetImplicitLocValue(Loc, &Value)) {
    memcpy(paData, &Value, nBytes);
    return true;
  }
  if (IsMemoryLoc(Loc)) {
    return PeekMem(Loc.addr, nBytes, paData) == MS_VALID;
  }
  U32 aIdx[2];
  const int NumRegs = _LocRegSlots(Loc, nBytes, aIdx);
  for (int i = 0; i < NumRegs; ++i) {
    U32 Word = 0;
    if (PeekReg(aIdx[i], &Word) != MS_VALID) {
      memset(paData, 0, nBytes);
      return false;
    }
    memcpy(paData + 4 * i, &Word, std::min<U32>(4, nBytes - 4 * U32(i)));
  }
  return NumRegs > 0;
}

int CDeviceDataProvider::ReadLocAsync(CDeviceEventListener* pListener, const ELF_SYM_LOC* pLoc, U32 nBytes) {
  if (pListener == nullptr || pLoc == nullptr || nBytes == 0 || nBytes > 8) {
    return READ_BAD_ARGS;
  }
  REQUEST r(REQ_LOC, pListener);
  r.Loc = *pLoc;
  r.nBytes = nBytes;
  const bool OnTarget = IsMemoryLoc(*pLoc) || IsRegisterLoc(*pLoc);
  if (!OnTarget) {
    _Deliver(_MakeAnswer(r));  // a constant, or nothing that can be read: answered now
    return READ_ANSWERED;
  }
  if (_IsStateValid()) {
    const U8 Status = _LocStatus(*pLoc, nBytes);
    if (Status <= MS_ERROR) {
      _Deliver(_MakeAnswer(r));
      return READ_ANSWERED;
    }
    if (Status == MS_PENDING) {
      _AddRequest(std::move(r));
      return READ_LATER;
    }
  } else {
    _SetLocStatus(*pLoc, nBytes, MS_UNKNOWN);
  }
  _AddRequest(std::move(r));
  _SetLocStatus(*pLoc, nBytes, MS_PENDING);
  CDevice* pDevice = _Device();
  // A register is kept in the mirror only whole, so a register location is read in whole registers.
  const U32 JobBytes = IsRegisterLoc(*pLoc) ? (nBytes > 4 ? 8 : 4) : nBytes;
  if (pDevice == nullptr || pDevice->ScheduleReadLoc(*pLoc, JobBytes) < 0) {
    _SetLocStatus(*pLoc, nBytes, MS_ERROR);
    _ServeRequests(REQ_LOC);
    return READ_ANSWERED;
  }
  return READ_LATER;
}

int CDeviceDataProvider::ReadLocSync(const ELF_SYM_LOC* pLoc, U32 nBytes, U8* paData) {
  if (pLoc == nullptr || paData == nullptr || nBytes == 0 || nBytes > 8) {
    return 1;
  }
  U64 Value = 0;
  if (GetImplicitLocValue(*pLoc, &Value)) {
    return _PeekLoc(*pLoc, nBytes, paData) ? 0 : 1;
  }
  if (_IsStateValid()) {
    if (_LocStatus(*pLoc, nBytes) <= MS_ERROR) {
      return _PeekLoc(*pLoc, nBytes, paData) ? 0 : 1;
    }
  } else if (IsMemoryLoc(*pLoc)) {
    _SetStatus(pLoc->addr, nBytes, MS_UNKNOWN);
  }
  CDevice* pDevice = _Device();
  U8 aData[8] = {};
  const bool Good = pDevice != nullptr && pDevice->ReadLoc(*pLoc, nBytes, aData) == 0;
  _StoreLoc(*pLoc, nBytes, aData, Good);
  memcpy(paData, aData, nBytes);
  return Good ? 0 : 1;
}

void CDeviceDataProvider::_OnReadLocResult(DEVICE_JOB* pJob) {
  if (!_IsConnected() || pJob->apData[0] == nullptr || pJob->aDataLen[0] < sizeof(ELF_SYM_LOC)) {
    return;
  }
  ELF_SYM_LOC Loc;
  memcpy(&Loc, pJob->apData[0], sizeof(Loc));
  const U32 nBytes = U32(pJob->aParam[0]);
  if (nBytes == 0 || nBytes > 8) {
    return;
  }
  U8 aData[8];
  memcpy(aData, &pJob->aResult[0], sizeof(aData));
  // Registers are kept only for the halt in force, like the register reads.
  const bool Good = pJob->Status == JOB_STATUS_DONE && (IsMemoryLoc(Loc) || _IsStateValid());
  _StoreLoc(Loc, nBytes, aData, Good);
  _ServeRequests(-1);
}

// ---------------------------------------------------------------------------------------------------
// Register reads

int CDeviceDataProvider::ReadRegsAsync(CDeviceEventListener* pListener, U32 Cnt, const U32* paTarvikRegIdx) {
  if (pListener == nullptr || Cnt == 0 || Cnt > kMaxRegsPerJob || paTarvikRegIdx == nullptr) {
    return READ_BAD_ARGS;
  }
  REQUEST r(REQ_REGS, pListener);
  r.aRegIdx.assign(paTarvikRegIdx, paTarvikRegIdx + Cnt);
  for (U32 Idx : r.aRegIdx) {
    if (Idx >= kNumRegs) {
      return READ_BAD_ARGS;
    }
  }
  if (_IsStateValid()) {
    const U8 Status = _RegsStatus(r.aRegIdx);
    if (Status <= MS_ERROR) {
      _Deliver(_MakeAnswer(r));
      return READ_ANSWERED;
    }
    if (Status == MS_PENDING) {
      _AddRequest(std::move(r));
      return READ_LATER;
    }
  } else {
    for (U32 Idx : r.aRegIdx) {
      _aReg[Idx].Status = MS_UNKNOWN;
    }
  }
  std::vector<U32> aIdx = r.aRegIdx;
  _AddRequest(std::move(r));
  _StartRegReads(aIdx);
  if (_RegsStatus(aIdx) <= MS_ERROR) {
    _ServeRequests(REQ_REGS);
    return READ_ANSWERED;
  }
  return READ_LATER;
}

int CDeviceDataProvider::ReadRegSync(U32 TarvikRegIdx, U32* pValue) {
  if (TarvikRegIdx >= kNumRegs || pValue == nullptr) {
    return 1;
  }
  SLOT& Slot = _aReg[TarvikRegIdx];
  auto Result = [&] {
    if (Slot.Status != MS_VALID) {
      return 1;
    }
    *pValue = Slot.Value;
    return 0;
  };
  auto Status = [&] { return Slot.Status; };
  const char* sWarning = "Timeout while waiting for register data arrival";
  if (_IsStateValid()) {
    if (Slot.Status <= MS_ERROR) {
      return Result();
    }
    if (Slot.Status == MS_PENDING) {
      _WaitFor(Status, sWarning);
      return Result();
    }
  } else {
    Slot.Status = MS_UNKNOWN;
  }
  REQUEST r(REQ_REGS, this);
  r.aRegIdx.assign(1, TarvikRegIdx);
  _AddRequest(std::move(r));
  _StartRegReads({TarvikRegIdx});
  _WaitFor(Status, sWarning);
  return Result();
}

// ---------------------------------------------------------------------------------------------------
// Coprocessor reads

int CDeviceDataProvider::ReadCPRAsync(CDeviceEventListener* pListener, const ARM_CPR* pReg) {
  if (pListener == nullptr || pReg == nullptr) {
    return READ_BAD_ARGS;
  }
  REQUEST r(REQ_CPR, pListener);
  r.CPR = *pReg;
  SLOT* pSlot = _CPRSlot(pReg);
  if (pSlot == nullptr) {
    _Deliver(_MakeAnswer(r));  // outside the table: failed
    return READ_ANSWERED;
  }
  if (_IsStateValid()) {
    if (pSlot->Status <= MS_ERROR) {
      _Deliver(_MakeAnswer(r));
      return READ_ANSWERED;
    }
    if (pSlot->Status == MS_PENDING) {
      _AddRequest(std::move(r));
      return READ_LATER;
    }
  } else {
    pSlot->Status = MS_UNKNOWN;
  }
  _AddRequest(std::move(r));
  pSlot->Status = MS_PENDING;
  CDevice* pDevice = _Device();
  if (pDevice == nullptr || pDevice->ScheduleReadCPReg(*pReg) < 0) {
    *pSlot = {0, MS_ERROR};
    _ServeRequests(REQ_CPR);
    return READ_ANSWERED;
  }
  return READ_LATER;
}

int CDeviceDataProvider::ReadCPRSync(const ARM_CPR* pReg, U32* pValue) {
  SLOT* pSlot = _CPRSlot(pReg);
  if (pSlot == nullptr || pValue == nullptr) {
    return 1;
  }
  auto Result = [&] {
    if (pSlot->Status != MS_VALID) {
      return 1;
    }
    *pValue = pSlot->Value;
    return 0;
  };
  auto Status = [&] { return pSlot->Status; };
  const char* sWarning = "Timeout while waiting for coprocessor register data arrival";
  if (_IsStateValid()) {
    if (pSlot->Status <= MS_ERROR) {
      return Result();
    }
    if (pSlot->Status == MS_PENDING) {
      _WaitFor(Status, sWarning);
      return Result();
    }
  }
  REQUEST r(REQ_CPR, this);
  r.CPR = *pReg;
  _AddRequest(std::move(r));
  pSlot->Status = MS_PENDING;
  CDevice* pDevice = _Device();
  if (pDevice == nullptr || pDevice->ScheduleReadCPReg(*pReg) < 0) {
    *pSlot = {0, MS_ERROR};
    return 1;
  }
  _WaitFor(Status, sWarning);
  return Result();
}

// ---------------------------------------------------------------------------------------------------
// Flushing and invalidation

int CDeviceDataProvider::FlushRequests() {
  std::erase_if(_aRequest, [this](const REQUEST& r) {
    if (r.Kind != REQ_MEM || r.pListener == this) {
      return false;
    }
    _SetStatus(r.Addr, r.nBytes, MS_UNKNOWN);
    return true;
  });
  CDevice* pDevice = _Device();
  const int nCancelled = pDevice ? pDevice->CancelPendingJobs(JT_READ_MEM, JOB_QUEUE_OWN) : 0;
  // No job stands behind the bytes of the cancelled reads any more (the one running, if any, still
  // lands); pending bytes left behind would make the next request wait for nothing.
  for (const auto& [Addr, nBytes] : _aMemJob) {
    _SetStatus(Addr, nBytes, MS_UNKNOWN);
  }
  _aMemJob.clear();
  // What is still waiting is a synchronous read of the provider's own: it is read again.
  for (const REQUEST& r : _aRequest) {
    if (r.Kind == REQ_MEM) {
      _StartMemReads(r.Addr, r.nBytes, r.ChunkSize, r.AccessWidth, r.Flags);
    }
  }
  return nCancelled;
}

void CDeviceDataProvider::Invalidate() {
  for (std::unique_ptr<PAGE>& p : _apPage) {
    if (p) {
      memset(p->aData, 0, kPageSize);
      memset(p->aStatus, MS_UNKNOWN, kPageSize);
    }
  }
  for (SLOT& s : _aReg) {
    s = {0, MS_UNKNOWN};
  }
  for (SLOT& s : _aCPR) {
    s = {0, MS_UNKNOWN};
  }
  _aRequest.clear();
  _aMemJob.clear();
  _aStateRegVals.clear();
}

void CDeviceDataProvider::OnDeviceConnectDone(CONNECT_MODES) {
  Invalidate();
}

void CDeviceDataProvider::OnDeviceDisconnectDone() {
  Invalidate();
}

void CDeviceDataProvider::OnDeviceResumeDone(RESUME_MODES) {
  Invalidate();
}

void CDeviceDataProvider::OnDeviceHaltDone(U32, HALT_REASONS) {
  Invalidate();
}

void CDeviceDataProvider::OnDeviceResetDone(U32, RESET_MODES ResetMode) {
  // A target state set from outside is told as its register values first and then as this reset;
  // those values are the new state and stay.
  std::vector<I64> aStateRegVals;
  aStateRegVals.swap(_aStateRegVals);
  Invalidate();
  if (ResetMode == RM_STATE_SET) {
    for (size_t i = 0; i < aStateRegVals.size(); ++i) {
      _StoreReg(U32(i), aStateRegVals[i]);
    }
  }
}

void CDeviceDataProvider::OnDeviceStepped(U32) {
  Invalidate();
}

void CDeviceDataProvider::OnDeviceResetTargetExecStateDone() {
  Invalidate();
}

void CDeviceDataProvider::OnDeviceEvalBPCondition(U32) {
  Invalidate();
}

void CDeviceDataProvider::OnDeviceEndianessChanged(int, int) {
  Invalidate();
}

void CDeviceDataProvider::OnDeviceWriteAccess() {
  Invalidate();
}

void CDeviceDataProvider::OnDeviceSetTargetExecStateDone(U32 Cnt, I64* paRegVals) {
  if (paRegVals == nullptr) {
    return;
  }
  // Logical registers in order. On the Cortex-M group the logical number is the probe's index.
  _aStateRegVals.assign(paRegVals, paRegVals + std::min(Cnt, kNumRegs));
  for (size_t i = 0; i < _aStateRegVals.size(); ++i) {
    _StoreReg(U32(i), _aStateRegVals[i]);
  }
}

// ---------------------------------------------------------------------------------------------------
// Job results

void CDeviceDataProvider::OnDeviceJobDone(DEVICE_JOB* pJob) {
  switch (pJob->Type) {
    case JT_READ_MEM:
      _OnReadMemResult(pJob);
      break;
    case JT_READ_REG:
      _OnReadRegResult(pJob);
      break;
    case JT_READ_REGS:
      _OnReadRegsResult(pJob);
      break;
    case JT_READ_CP_REG:
      _OnReadCPRResult(pJob);
      break;
    case JT_READ_LOCATION:
      _OnReadLocResult(pJob);
      break;
    default:
      break;
  }
  CDeviceEventListener::OnDeviceJobDone(pJob);
}

void CDeviceDataProvider::_OnReadMemResult(DEVICE_JOB* pJob) {
  const U32 Addr = U32(pJob->aParam[0]);
  const U32 nBytes = U32(pJob->aParam[1]);
  const bool HasData =
      pJob->apData[0] && pJob->apData[1] && pJob->aDataLen[0] >= nBytes && pJob->aDataLen[1] >= nBytes;
  for (WAITED_READ* pWaited : _apWaitedRead) {
    if (pJob->aResult[2] == I64(pWaited->Token) && !pWaited->Ended && pWaited->nBytes == nBytes) {
      pWaited->Ended = true;
      pWaited->Done = pJob->Status == JOB_STATUS_DONE && HasData;
      if (pWaited->Done) {
        memcpy(pWaited->pData, pJob->apData[0], nBytes);
        memcpy(pWaited->paStatus, pJob->apData[1], nBytes);
      }
    }
  }
  auto It = std::find(_aMemJob.begin(), _aMemJob.end(), std::make_pair(Addr, nBytes));
  if (It != _aMemJob.end()) {
    _aMemJob.erase(It);
  }
  if (!_IsConnected() || nBytes == 0 || _Wraps(Addr, nBytes)) {
    return;
  }
  if (pJob->Status == JOB_STATUS_DONE && HasData) {
    _Store(Addr, nBytes, pJob->apData[0], pJob->apData[1]);
    _ServeRequests(REQ_MEM);
  } else {
    _SetStatus(Addr, nBytes, MS_ERROR);
    _ServeRequests(-1);
  }
}

void CDeviceDataProvider::_OnReadRegResult(DEVICE_JOB* pJob) {
  if (!_IsConnected() || !_IsStateValid()) {
    return;
  }
  const bool Done = pJob->Status == JOB_STATUS_DONE && pJob->aResult[0] >= 0;
  _StoreReg(U32(pJob->aParam[0]), Done ? pJob->aResult[0] : -1);
  _ServeRequests(Done ? int(REQ_REGS) : -1);
}

void CDeviceDataProvider::_OnReadRegsResult(DEVICE_JOB* pJob) {
  if (!_IsConnected() || !_IsStateValid()) {
    return;
  }
  const U32 Cnt = U32(pJob->aParam[0]);
  if (pJob->apData[0] == nullptr || pJob->aDataLen[0] < Cnt * sizeof(U32)) {
    return;
  }
  const U32* paIdx = reinterpret_cast<const U32*>(pJob->apData[0]);
  const bool Done =
      pJob->Status == JOB_STATUS_DONE && pJob->apData[1] && pJob->aDataLen[1] >= Cnt * sizeof(I64);
  for (U32 i = 0; i < Cnt; ++i) {
    I64 Value = -1;
    if (Done) {
      memcpy(&Value, pJob->apData[1] + i * sizeof(I64), sizeof(I64));
    }
    _StoreReg(paIdx[i], Value);
  }
  _ServeRequests(Done ? int(REQ_REGS) : -1);
}

void CDeviceDataProvider::_OnReadCPRResult(DEVICE_JOB* pJob) {
  if (!_IsConnected() || !_IsStateValid() || pJob->apData[0] == nullptr ||
      pJob->aDataLen[0] < sizeof(ARM_CPR)) {
    return;
  }
  ARM_CPR CPR;
  memcpy(&CPR, pJob->apData[0], sizeof(CPR));
  SLOT* pSlot = _CPRSlot(&CPR);
  if (pSlot == nullptr) {
    return;
  }
  const bool Done = pJob->Status == JOB_STATUS_DONE && pJob->aResult[0] >= 0;
  *pSlot = Done ? SLOT{U32(pJob->aResult[0]), MS_VALID} : SLOT{0, MS_ERROR};
  _ServeRequests(Done ? int(REQ_CPR) : -1);
}
