// The read cache for memory and registers: a mirror of the target kept on the main thread. Windows ask
// it and get the answer at once when the mirror holds the data, or later through their own listener
// operations, with requests for the same data merged into one job. It is the one listener that hears
// the completions of register and memory reads.
#pragma once

#include <functional>
#include <memory>
#include <vector>

#include "app/base/SymLoc.h"
#include "device/DeviceEventListener.h"

// Status of a mirrored byte, register or coprocessor register. The status of a range is that of its
// worst element, worst first: MS_UNKNOWN, MS_PENDING, MS_ERROR, MS_VALID.
enum MIRROR_STATUS : U8 {
  MS_VALID = 0,    // the data is current
  MS_ERROR = 1,    // the read failed; the data is 0
  MS_PENDING = 2,  // a read is under way
  MS_UNKNOWN = 3,  // never read, or stale
};

// All operations run on the main thread (or a thread that pumps device events in its place). Answers
// that come later arrive as the asking listener's OnDeviceReadMemDone (data and one status byte per
// data byte), OnDeviceReadRegDone / OnDeviceReadRegsDone and OnDeviceReadCPRDone; a register that
// could not be read is answered with the value -1. A listener that goes away while it waits should
// call CancelRequests; one that did not is no longer registered and is skipped.
//
// The mirror is emptied whenever the target may have changed: on connect, disconnect, resume, halt,
// reset, step, breakpoint condition, endianness change and any memory or register write.
class CDeviceDataProvider : public CDeviceEventListener {
 public:
  static constexpr U32 kPageSize = 0x10000;  // the 4 GiB space in 65,536 pages of 64 KiB
  static constexpr U32 kNumPages = 0x10000;
  static constexpr U32 kNumRegs = 256;  // register slots, by the probe's register index
  static constexpr int kSyncWaitMS = 150;
  // An access width of this value or above takes the default width (SetDefaultAccessWidth).
  static constexpr U32 kAccessWidthDefault = 255;
  // Request flag: read the target even when the mirror holds the range. It is not passed to the job.
  static constexpr U32 kFlagBypassMirror = 4;

  // Results of the asynchronous reads.
  enum : int {
    READ_ANSWERED = 0,  // the listener has been called before the return
    READ_BAD_ARGS = 1,
    READ_LATER = 2,  // the listener will be called when the data has come
  };

  // The provider: the first one constructed, or one made at first use.
  static CDeviceDataProvider* Instance();

  CDeviceDataProvider();
  ~CDeviceDataProvider() override;

  // The access width of requests that give kAccessWidthDefault; the application sets it from its
  // settings. 0 (automatic) until then.
  void SetDefaultAccessWidth(int AccessWidth);
  int GetDefaultAccessWidth() const { return _DefaultAccessWidth; }

  // Memory of [Addr, Addr + nBytes) for pListener. READ_BAD_ARGS for no listener, no bytes or more
  // than a job can carry; a range that runs past the end of the address space is answered at once as
  // unreadable. Only what the mirror does not hold is read, in small aligned pieces.
  int ReadMemAsync(CDeviceEventListener* pListener, U32 Addr, U32 nBytes, U32 ChunkSize = 0,
                   U32 AccessWidth = kAccessWidthDefault, U32 Flags = 0);
  // The same range into pData (and the status bytes into paStatus if given), waiting at most
  // kSyncWaitMS while pumping device events. 0 when every byte is good, 1 otherwise; a read that
  // times out is logged and may still land in the mirror later.
  int ReadMemSync(U32 Addr, U32 nBytes, U32 AccessWidth, U8* pData, U8* paStatus = nullptr);

  // The read of a command: exactly [Addr, Addr + nBytes), in one JT_READ_MEM job that no halt or flush
  // cancels, waited for as a script call waits for its job (pumping events) for at most the job's limit.
  // Data and one status byte per data byte (0 good) go to pData and paStatus. 0 when every byte is good,
  // 1 when some are not, -1 when the job did not end in time or could not be filed.
  int ReadMemWait(U32 Addr, U32 nBytes, U32 ChunkSize, U32 AccessWidth, U32 Flags, U8* pData, U8* paStatus);

  // A location's value, 1 to 8 bytes, for pListener: OnDeviceReadLocDone, or OnDeviceReadLocFailed when
  // it can't be read. A constant is answered at once; memory and register locations from the mirror when
  // it holds them, otherwise by a JT_READ_LOCATION job. READ_BAD_ARGS for no listener or location, or a
  // size outside 1 to 8.
  int ReadLocAsync(CDeviceEventListener* pListener, const ELF_SYM_LOC* pLoc, U32 nBytes);
  // The same into paData, at once: from the mirror when it holds the value, otherwise read on the calling
  // thread and kept in the mirror. 0 with the value, 1 when it could not be read.
  int ReadLocSync(const ELF_SYM_LOC* pLoc, U32 nBytes, U8* paData);

  // Registers by the probe's index (below kNumRegs, at most 63 at once).
  int ReadRegsAsync(CDeviceEventListener* pListener, U32 Cnt, const U32* paTarvikRegIdx);
  // 0 with the value, or 1 when the register could not be read in time.
  int ReadRegSync(U32 TarvikRegIdx, U32* pValue);

  // Coprocessor 15 registers; any other selector or a field out of range is answered as failed.
  int ReadCPRAsync(CDeviceEventListener* pListener, const ARM_CPR* pReg);
  int ReadCPRSync(const ARM_CPR* pReg, U32* pValue);

  // Drops the waiting memory requests of the listeners (their ranges become unknown again) and
  // cancels the memory reads still queued, for data that nobody looks at any more; a synchronous read
  // under way is filed again. Returns the number of jobs cancelled.
  int FlushRequests();
  // Forgets every waiting request of pListener.
  void CancelRequests(CDeviceEventListener* pListener);
  // Empties the mirror and the list of waiting requests.
  void Invalidate();

  // Looks into the mirror without reading the target. The status of the range (MS_ERROR for a range
  // past the end of the address space); the copies are made where the buffers are given.
  U8 PeekMem(U32 Addr, U32 nBytes, U8* paData = nullptr, U8* paStatus = nullptr) const;
  U8 PeekReg(U32 TarvikRegIdx, U32* pValue = nullptr) const;
  U8 PeekCPR(const ARM_CPR* pReg, U32* pValue = nullptr) const;
  int GetNumWaitingRequests() const { return int(_aRequest.size()); }

  // Read completions are taken here rather than in the read operations, so that a subclass that
  // overrides one of those (to count or trace) cannot cut the mirror off.
  void OnDeviceJobDone(DEVICE_JOB* pJob) override;

  void OnDeviceConnectDone(CONNECT_MODES) override;
  void OnDeviceDisconnectDone() override;
  void OnDeviceResumeDone(RESUME_MODES) override;
  void OnDeviceHaltDone(U32 NewPC, HALT_REASONS HaltReason) override;
  void OnDeviceResetDone(U32 NewPC, RESET_MODES ResetMode) override;
  void OnDeviceStepped(U32 NewPC) override;
  void OnDeviceResetTargetExecStateDone() override;
  void OnDeviceEvalBPCondition(U32 Addr) override;
  void OnDeviceEndianessChanged(int DataEndian, int InstEndian) override;
  void OnDeviceWriteAccess() override;
  // Fills the register slots from a target state that was set from outside (logical registers in
  // order; a negative value is a register that could not be set).
  void OnDeviceSetTargetExecStateDone(U32 Cnt, I64* paRegVals) override;

 private:
  struct PAGE;
  struct SLOT {
    U32 Value;
    U8 Status;
  };
  enum REQUEST_KIND : U32 { REQ_MEM = 0, REQ_REGS = 1, REQ_CPR = 2, REQ_LOC = 3 };
  struct REQUEST {
    REQUEST(REQUEST_KIND k, CDeviceEventListener* p) : Kind(k), pListener(p) {}
    REQUEST_KIND Kind;
    CDeviceEventListener* pListener;
    U32 Addr = 0;  // memory
    U32 nBytes = 0;
    std::vector<U32> aRegIdx;  // registers
    ARM_CPR CPR = {};          // coprocessor
    ELF_SYM_LOC Loc = {};      // location, nBytes long
    // How the memory was asked for; not part of what makes two requests the same.
    U32 ChunkSize = 0;
    U32 AccessWidth = 0;
    U32 Flags = 0;
    bool IsSameAs(const REQUEST& r) const;
  };
  struct ANSWER;

  // Memory mirror
  PAGE* _GetPage(U32 PageIdx) const { return _apPage[PageIdx].get(); }
  PAGE* _MakePage(U32 PageIdx);
  U8 _RangeStatus(U32 Addr, U32 nBytes) const;
  void _SetStatus(U32 Addr, U32 nBytes, U8 Status);
  void _Store(U32 Addr, U32 nBytes, const U8* paData, const U8* paStatus);
  // First address in [Addr, End) whose status is (or with Is false: is not) Status; End if none.
  U64 _Find(U64 Addr, U64 End, U8 Status, bool Is) const;
  void _StartMemReads(U32 Addr, U32 nBytes, U32 ChunkSize, U32 AccessWidth, U32 Flags);
  bool _ScheduleMemRead(U32 Addr, U32 nBytes, U32 ChunkSize, U32 AccessWidth, U32 Flags);

  // Register and coprocessor mirrors
  SLOT* _CPRSlot(const ARM_CPR* pReg);
  const SLOT* _CPRSlot(const ARM_CPR* pReg) const;
  U8 _RegsStatus(const std::vector<U32>& aIdx) const;
  void _StartRegReads(const std::vector<U32>& aIdx);
  void _StoreReg(U32 Idx, I64 Value);

  // Requests
  void _AddRequest(REQUEST&& Request);
  bool _IsComplete(const REQUEST& r) const;
  ANSWER _MakeAnswer(const REQUEST& r) const;
  static void _Deliver(const ANSWER& a);
  // Answers and removes every complete request of Kind (-1: all kinds); the provider's own requests
  // leave the list.
  void _ServeRequests(int Kind);
  // Pumps device events until Status() is MS_VALID or MS_ERROR; -1 and sWarning after kSyncWaitMS.
  int _WaitFor(const std::function<U8()>& Status, const char* sWarning);

  // Locations in the mirror: a memory range, or the register slots of a register or register pair.
  int _LocRegSlots(const ELF_SYM_LOC& Loc, U32 nBytes, U32* paIdx) const;
  U8 _LocStatus(const ELF_SYM_LOC& Loc, U32 nBytes) const;
  void _SetLocStatus(const ELF_SYM_LOC& Loc, U32 nBytes, U8 Status);
  void _StoreLoc(const ELF_SYM_LOC& Loc, U32 nBytes, const U8* paData, bool Good);
  bool _PeekLoc(const ELF_SYM_LOC& Loc, U32 nBytes, U8* paData) const;

  // A command read waiting for its job, found again by the token the job carries.
  struct WAITED_READ {
    U64 Token;
    U32 nBytes;
    U8* pData;
    U8* paStatus;
    bool Ended = false;
    bool Done = false;
  };

  void _OnReadMemResult(DEVICE_JOB* pJob);
  void _OnReadLocResult(DEVICE_JOB* pJob);
  void _OnReadRegResult(DEVICE_JOB* pJob);
  void _OnReadRegsResult(DEVICE_JOB* pJob);
  void _OnReadCPRResult(DEVICE_JOB* pJob);
  U32 _ResolveWidth(U32 AccessWidth) const;

  std::vector<std::unique_ptr<PAGE>> _apPage;  // kNumPages entries, filled on demand
  SLOT _aReg[kNumRegs];
  std::vector<SLOT> _aCPR;  // by CRm, CRn (0..15), Op1, Op2 (0..7)
  std::vector<REQUEST> _aRequest;
  // Memory jobs filed and not yet heard of, so that bytes of cancelled jobs do not stay pending.
  std::vector<std::pair<U32, U32>> _aMemJob;
  // Register values of a target state that was set from outside; the reset notice that follows the
  // state change must not throw them away.
  std::vector<I64> _aStateRegVals;
  int _DefaultAccessWidth = 0;
  std::vector<WAITED_READ*> _apWaitedRead;
  U64 _LastWaitToken = 0;
};
