// CDevice: the one thread that talks to the probe. Any thread files DEVICE_JOB records into three
// prioritised rings; the device thread works them off in strict order, tests the target for halts and
// notifications between jobs, and reports every outcome back as a device event. Submitting never
// allocates a record: the rings live inside the object.
#pragma once

#include <QMutex>
#include <QThread>
#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>

#include "app/base/Types.h"
#include "device/DeviceConfig.h"
#include "device/DeviceJob.h"
#include "device/RunControl.h"

struct ELF_SYM_LOC;

class CDevice : public QThread {
  Q_OBJECT
 public:
  static constexpr int kNumQueueSlots = 5;  // queues 0..2 are used; 3 and 4 exist for the scan loops
  static constexpr int kNumQueues = 3;
  static constexpr int kMaxStepsPerPass = 100;
  static constexpr int kWakeUpMS = 50;
  static constexpr U32 kNumCachedRegs = 30;
  static constexpr int kNumHWCaps = 7;
  // Areas of the stored error texts.
  enum : int { ERR_AREA_GENERAL = 0, ERR_AREA_TRACE = 1, ERR_AREA_MEMORY = 2, ERR_AREA_COUNT = 3 };
  // Flags of a memory request.
  enum : U32 {
    MEM_FLAG_READ_HW = 2,
    MEM_FLAG_NO_CACHE = 4,
    MEM_FLAG_ITEM_WISE_AFTER_SHORT = 8,
    MEM_FLAG_HALT_FOR_ACCESS = 16,
    MEM_FLAG_DOWNLOAD = 32,
  };

  // The device, created and started on first use.
  static CDevice* Instance();
  // True once a device exists (so shutdown code does not create one just to stop it).
  static bool HasInstance();

  // Constructing starts the thread. Only one device exists at a time; it becomes Instance().
  CDevice();
  // Sets the stop flag and waits for the thread to end.
  ~CDevice() override;

  // Copies a filled record into its queue. 0, or -1 when the type is 0 or not below JT_LAST or the
  // queue is full (then the record's buffers are freed).
  int ScheduleJob(DEVICE_JOB* pJob);

  int ScheduleConnect(CONNECT_MODES Mode);
  int ScheduleDisconnect();
  int ScheduleReset(RESET_MODES Mode);
  int ScheduleHalt();
  int ScheduleContinue(RESUME_MODES Mode);
  int ScheduleStepInst();
  int ScheduleStepInto();
  int ScheduleStepOver();
  int ScheduleStepOut();
  int ScheduleRunTo(U32 Addr);
  int ScheduleExecTarvikCmd(const char* sCmd);
  int ScheduleSetBP(U32 Addr, U32 State, U32 Type);
  int ScheduleClearBP(U32 Addr);
  int ScheduleClearAllBPs();
  int ScheduleReadReg(U32 RegIdx);
  int ScheduleWriteReg(U32 RegIdx, U32 Value);
  int ScheduleReadRegs(U32 Cnt, const U32* paRegIdx);
  int ScheduleReadCPReg(const ARM_CPR& Reg);
  int ScheduleWriteCPReg(const ARM_CPR& Reg, U32 Value);
  int ScheduleReadMem(U32 Addr, U32 nBytes, U32 ChunkSize = 0, U32 AccessWidth = 0, U32 Flags = 0);
  int ScheduleWriteMem(U32 Addr, U32 nBytes, const U8* pData, U32 ChunkSize = 0, U32 AccessWidth = 0,
                       U32 Flags = 0);
  // Locations: at most 8 bytes of one location (memory or register kinds only), 4 bytes of each of Cnt
  // locations (Flag comes back with the answer), or 1 to 8 bytes written to one. -1 for anything else.
  int ScheduleReadLoc(const ELF_SYM_LOC& Loc, U32 nBytes);
  int ScheduleReadLocs(U32 Cnt, const ELF_SYM_LOC* paLocs, U32 Flag);
  int ScheduleWriteLoc(const ELF_SYM_LOC& Loc, U32 nBytes, const U8* pData);
  int ScheduleMeasureCoreSpeed();
  // Device configuration: integer parameters 0..14 by number, text parameters 16..19 by text.
  int ScheduleSetConfigParam(int Param, int Value);
  int ScheduleSetConfigParam(int Param, const char* sValue);

  // Waits for the oldest pending job of Type. 1 when there is none, 0 when it finished, -1 on time-out
  // (the job goes on and its event still arrives). TimeoutMS -1 takes the type's default limit. The
  // thread sleeps while it waits: it wakes when the job ends, and with PumpEvents every few ms to
  // process its Qt events.
  int WaitForJob(U32 Type, bool PumpEvents, int TimeoutMS = -1);
  // WaitForJob with the default limit, then up to ten device events dispatched on the calling thread.
  int WaitForJobThenPump(U32 Type, bool PumpEvents);

  // Queue inspection, any thread. Type JT_ANY_STEP means any of the four step jobs in queue 0.
  bool IsJobPending(U32 Type);
  DEVICE_JOB* FindPendingJob(U32 Type, int* pQueue);
  // Cancels pending jobs (except those with the keep bit). Type JT_ANY: all types. Queue
  // JOB_QUEUE_OWN: the type's own queue; JOB_QUEUE_ALL: all queues. Returns the number cancelled.
  int CancelPendingJobs(U32 Type, int Queue);

  // Reports an outcome that no queued record stands for (a halt the target made itself, a resume
  // seen from outside, the end of a hidden-breakpoint step).
  int ReportJobDone(U32 Type, U32 Status, U64 Param0, I64 Result0, I64 Result1);

  // True when the record is an element of the rings or the completion ring and may be run or reported.
  bool IsValidJob(const DEVICE_JOB* pJob) const;
  // Frees the buffers of a valid record and zeroes it, which returns the slot to its ring.
  void ReleaseJob(DEVICE_JOB* pJob);

  // Per job type: 1 = a finished job of that type is not reported and no synthetic completion is made.
  U8 JobEventMuted[64] = {};

  // Target state, written only by the device thread, read without a lock elsewhere.
  bool IsConnected() const { return _Connected.load(); }
  bool IsConnLost() const { return _ConnLost.load(); }
  bool IsHalted() const { return _Halted.load(); }
  bool IsRunning() const { return _Running.load(); }
  // The halt is certain when it has been seen and evaluated and nothing has moved the target since.
  bool IsHaltCertain() const { return _Halted.load() && _StateValid.load(); }
  bool IsStateValid() const { return _StateValid.load(); }
  bool IsSessionReady() const { return _SessionReady.load(); }
  bool IsResetDone() const { return _ResetDone.load(); }
  bool IsSrcStepRunning() const { return _SrcStepActive.load(); }
  U32 GetPC() const { return U32(_aRegs[REG_PC].load()); }
  // A logical register from the cache; -1 when unknown.
  I64 GetRegVal(U32 Logical) const { return Logical < kNumCachedRegs ? _aRegs[Logical].load() : -1; }
  U32 GetCPUMode() const { return _CPUMode.load(); }
  U32 GetExecMode() const { return _ExecMode.load(); }
  int GetCoreFamily() const { return _CoreFamily.load(); }
  U32 GetCoreId() const { return _CoreId.load(); }
  U32 GetTIFSpeed() const { return _TIFSpeed.load(); }
  U32 GetCoreClock() const { return _CoreClock.load(); }
  bool GetHWCap(int Index) const { return Index >= 0 && Index < kNumHWCaps && _aHWCap[Index].load(); }
  QString GetCoreName() const;
  QString GetErrorMsg(int Area) const;
  DEV_CONFIG GetConfig() const;
  // The configuration as the XML text of the settings dialogs and project files.
  QString GetTarvikSettings() const;
  // The probe's register index of the PC in the current mode: 15 on Cortex-M, 9 on ARM cores.
  U32 GetPCRegIndex() const { return IsARMFamily(_CoreFamily.load()) ? 9u : U32(REG_PC); }
  // The probe's index of a logical register in a mode (kCurrentCPUMode for the current one), or -1.
  int GetTarvikRegIdx(U32 Logical, U32 Mode = 170) const;

  // Halted as far as can be told without waiting: the flag, or a fresh probe query at most every 50 ms.
  bool IsTargetHalted();
  // Memory can be read now: connected, and halted or with background memory access.
  bool CanAccessMemory();
  // Semihosting calls are served (on) or passed over (off).
  void SetSemihostingEnabled(bool On) { _SemihostingEnabled = On; }
  bool IsSemihostingEnabled() const { return _SemihostingEnabled.load(); }

  // Memory and registers. They run as jobs on the device thread, and are also called directly by other
  // threads while the target is halted or has background access (the probe layer serialises the calls).
  int ValidateMemoryAccessParams(bool Read, U32 Addr, U32 nBytes, I8 AW, const U8* pData, const U8* pStatus);
  int ReadMem(U32 Addr, U32 nBytes, U32 ChunkSize, I8 AW, U32 Flags, U8* paData, U8* paStatus);
  int ReadMemSimple(U32 Addr, U32 nBytes, I8 AW, U32 Flags, U8* paData, U8* paStatus);
  int ReadMemItemWise(U32 Addr, U32 nBytes, I8 AW, U32 Flags, U8* paData, U8* paStatus);
  int ReadMemChunkWise(U32 Addr, U32 nBytes, U32 ChunkSize, I8 AW, U32 Flags, U8* paData, U8* paStatus);
  int WriteMem(U32 Addr, U32 nBytes, U32 ChunkSize, I8 AW, U32 Flags, const U8* paData);
  int WriteMemSimple(U32 Addr, U32 nBytes, I8 AW, const U8* paData);
  int WriteMemItemWise(U32 Addr, U32 nBytes, I8 AW, const U8* paData);
  int WriteMemChunkWise(U32 Addr, U32 nBytes, U32 ChunkSize, I8 AW, U32 Flags, const U8* paData);
  int WriteMemMultiple(U32 Cnt, const U32* paAddrRanges, U32 NumBytes, const U8* paData, U32 ChunkSize, I8 AW,
                       U32 Flags);
  int ReadReg(U32 TarvikRegIdx, I64* pOutRegVal);
  int WriteReg(U32 TarvikRegIdx, I64 RegValue);
  int ReadRegs(U32 Cnt, const U32* paTarvikRegIdxs, I64* paOutRegVals);
  int ReadCPR(const ARM_CPR* pReg, I64* pOutValue);
  int WriteCPR(const ARM_CPR* pReg, U32 Value);
  int ReadWord(U32 Addr, U32* pOutWord);
  int ReadHalfWord(U32 Addr, U16* pOutHW);
  void SetRegVal(int LogicalRegIdx, I64 RegVal);
  // Values by location, 1 to 8 bytes, 0 or -1 (the output is zero on failure). A constant, or a value
  // that is the location's own address or constant, comes without the target; memory is read at addr;
  // a register location of more than 4 bytes is the pair Rn (low word), Rn+1. The offset of kinds 3 and
  // 5 is the caller's to add. Other kinds are refused.
  int ReadLoc(const ELF_SYM_LOC& Loc, U32 nBytes, U8* paOutData);
  // Memory through the download path, registers (and pairs) zero-extended. Constants can't be written.
  int WriteLoc(const ELF_SYM_LOC& Loc, U32 nBytes, const U8* paData);
  // 4 bytes of each location into paOutVals, -1 where it could not be read. The number read.
  int ReadLocs(U32 Cnt, const ELF_SYM_LOC* paDataLocs, I64* paOutVals);
  // The logical registers a register location of nBytes covers: one up to 4 bytes, above that the pair
  // Rn, Rn+1 with the low word in Rn, as 64-bit values are kept in core registers. The count, or one of
  // the LOC_REGS_ codes.
  enum : int { LOC_REGS_NONE = -1, LOC_REGS_NO_VALUE = -2, LOC_REGS_NO_PAIR = -3 };
  int GetLocRegisters(const ELF_SYM_LOC& Loc, U32 nBytes, U32* paLogical) const;
  int BeginDownload();
  int EndDownload(bool DoHalt = false);

  // Asks the session logic's follow-ups to run between jobs (all ones: none).
  void SetPendingConnectMode(U32 Mode) { _PendingConnectMode = Mode; }
  void SetPendingResetMode(U32 Mode) { _PendingResetMode = Mode; }
  void SetPendingInitPC() { _PendingInitPC = true; }

  // Asks the thread to stop at the end of the current pass and wakes it.
  void RequestStop();
  bool IsStopRequested() const { return _StopFlag.load(); }
  bool IsThreadRunning() const { return isRunning() && !_StopFlag.load(); }
  // True once run() has returned; everything the thread did happens before a true answer.
  bool HasThreadEnded() const { return _RunEnded.load(std::memory_order_acquire); }

  struct STATS {
    U64 NextJobId;
    U64 JobsStarted;
    U64 JobsCancelled;
    U64 RecordsReleased;
    U64 RecordsPosted;
  };
  STATS GetStats() const;

 protected:
  void run() override;

 private:
  struct RING {
    DEVICE_JOB aJob[kJobRingSize];
    // Running counts, not indices (index = count % kJobRingSize): Head == Tail means empty even when
    // the ring has gone round, and a slot between Head and Tail is always a submitted record, never a
    // finished one still waiting for its release.
    std::atomic<U64> Head{0};  // next to run
    std::atomic<U64> Tail{0};  // next free
  };

  int _SchedulerPass();
  DEVICE_JOB* _TakeNextJob();
  void _RunJob(DEVICE_JOB* pJob);
  int _Execute(DEVICE_JOB* pJob);
  void _Complete(DEVICE_JOB* pJob, int ReturnCode);
  // Posts the halt that a connect found (see _EstablishRunState), once the connect has been reported.
  void _PostDeferredHaltReport();
  int _CancelQueue(int Queue, U32 Type);
  bool _IsRingElement(const DEVICE_JOB* pJob) const;
  // The oldest pending job of Type, with the id it had when it was seen pending: a slot that is
  // released and filed again meanwhile carries another id, so a waiter never takes it for its own.
  DEVICE_JOB* _FindPendingJob(U32 Type, int* pQueue, U64* pJobId, U32* pFoundType);
  // True while the record still holds the job of JobId and that job has not finished.
  static bool _IsStillPending(const DEVICE_JOB* pJob, U64 JobId);
  // Stores a filled record into a free slot: the body first, then id, flags and type, each published
  // with release order, so that whoever sees the type sees the whole record.
  void _Publish(DEVICE_JOB* pSlot, const DEVICE_JOB& Job, U32 Type, U32 Flags);
  void _WakeUp();

  // The halt and notification tests between jobs, and the halt sequence.
  int _PollTargetHaltStatus(U32 MinQueryIntervalMS);
  void _CheckHandleNotifications();
  void _CheckHandleHalt();
  void _CheckHandleResume();
  void _OnHalted();
  // Finds out at once whether a target that was just connected runs or is halted, and for a halted one
  // runs the halt sequence; a connect is complete only when the target state is known.
  void _EstablishRunState();
  void _OnInvalidHaltStatus();
  bool _TestConnectionLost();
  bool _ResumeWhenSHIRQIsDiscarded(U32 Addr);
  void _EvalBPCondAndContinueHaltSeq(U32 Addr);
  bool _IsUserBreakpointAt(U32 Addr);
  bool _IsSemihostingCall(U32 Addr);
  int _WaitForHaltedOrTimeout(U64 TimeoutMS);
  void _ResetState();

  // The operations behind the job types.
  int _Configure(const char* sXml);
  int _SetConfigParam(int Param, I64 Value);
  int _SetConfigParam(int Param, const char* sValue);
  void _AfterConfigChange(int Param, I64 Value);
  int _Connect(CONNECT_MODES Mode);
  int _ConnectSimple();
  int _SelectHostIF();
  void _FinishConnect(CONNECT_MODES Mode);
  int _Disconnect();
  int _ResetHardware();
  int _Reset(RESET_MODES Mode);
  int _FinishReset(RESET_MODES Mode);
  int _Halt();
  int _Continue();
  int _StepInstBasic();
  int _ExecTarvikCmd(const char* sCmd, U32 Len, char* acOut);
  int _ExecTarvikScript(const char* sFilePath);
  int _SetSuppressDeviceSelectionDialog(bool Suppress);
  int _GetDeviceInfo(const char* sDevice, U32 OutSize, char* acCoreName);
  int _MeasureCoreSpeed();
  int _ResetTargetExecState();
  int _SetTargetExecState(U32 Cnt, const I64* paRegVals);
  int _UpdateTargetExecState() { return _SetTargetExecState(0, nullptr); }
  void _UpdateRegs(U32 Cnt, const I64* paRegVals);
  void _UpdateCPUMode(I64 CPSR);
  void _UpdateExecMode(I64 CPSR);
  int _UpdateDeviceInfo();
  void _UpdateTarvikFuncPtrs();
  void _UpdateHWCapabilityFlags();
  void _ResetHWCapabilityFlags();
  bool _ReadSWOTraceCapability();
  bool _ReadStreamingTraceCapability();
  void _UpdateEndianess();
  void _ApplyDataEndianess(int Endian);
  void _UpdateTIFSpeed();
  void _SetErrorMsg(int Area, const QString& sText);
  int _NotAvailable(DEVICE_JOB* pJob);
  int _RunMemoryJob(DEVICE_JOB* pJob);
  int _RunLocationJob(DEVICE_JOB* pJob);
  int _LocRegisters(const char* sWhat, const ELF_SYM_LOC& Loc, U32 nBytes, U32* paLogical);
  int _ReadMemOnce(U32 Addr, U32 nBytes, I8 AW, U32 Flags, U8* paData);
  int _WriteMemOnce(U32 Addr, U32 nBytes, I8 AW, const U8* paData);
  bool _CanAccessCPR(const ARM_CPR* pReg, const char* sWhat);

  // Device log messages, posted to the main thread as events.
  void _LogDebugMsg(const QString& sText);
  void _LogInfoMsg(const QString& sText);
  void _LogWarnMsg(const QString& sText);
  void _LogErrorMsg(const QString& sText);

  std::unique_ptr<RING[]> _paRing;  // kNumQueueSlots rings
  std::unique_ptr<DEVICE_JOB[]> _paCompletion;
  // Standard mutexes and condition variables (not Qt's), so that a thread sanitizer sees every
  // hand-over between the device thread and the others.
  U32 _CompletionIdx = 0;  // guarded by _CompletionMutex
  std::mutex _SubmitMutex;
  std::mutex _CompletionMutex;
  std::recursive_mutex _DeviceMutex;
  std::mutex _WakeMutex;
  std::condition_variable _JobAvailable;
  bool _WakePending = false;  // guarded by _WakeMutex; auto-reset: one wait consumes it

  std::atomic<bool> _StopFlag{false};
  // Set with release order as the last step of run(): the destructor's acquire load orders everything
  // the thread did before the rings are freed (QThread::wait alone is invisible to a sanitizer).
  std::atomic<bool> _RunEnded{false};
  // The halt that the connect job found, told to the listeners after the connect's own completion.
  bool _HaltReportPending = false;
  U64 _PendingHaltReason = 0;
  I64 _PendingHaltPC = 0;
  bool _InConnect = false;

  // Session state.
  std::atomic<bool> _Connected{false};
  std::atomic<bool> _ConnLost{false};
  std::atomic<bool> _Halted{false};
  std::atomic<bool> _StateValid{false};
  std::atomic<bool> _Running{true};
  std::atomic<bool> _ResetDone{false};
  std::atomic<bool> _HaltSeqActive{false};
  std::atomic<bool> _SessionReady{false};
  std::atomic<bool> _SrcStepActive{false};
  std::atomic<bool> _HaltRequested{false};
  std::atomic<bool> _SemihostingEnabled{false};
  U64 _HiddenBPAddr = ~U64(0);
  U32 _HiddenBPPurpose = 0;
  U32 _LastResetMode = ~0u;
  std::atomic<U32> _PendingConnectMode{~0u};
  std::atomic<U32> _PendingResetMode{~0u};
  std::atomic<bool> _PendingInitPC{false};
  std::atomic<I64> _aRegs[kNumCachedRegs];
  std::atomic<U32> _CPUMode{MODE_UND};
  std::atomic<U32> _ExecMode{EXEC_MODE_UNKNOWN};
  U64 _LastPollMS = 0;
  std::atomic<U64> _LastHaltQueryMS{0};  // IsTargetHalted runs on any thread

  // Configuration and what the probe told about the device.
  mutable QMutex _ConfigMutex;
  DEV_CONFIG _Config;
  QString _sTarvikSettings;
  QString _sCoreName;
  QString _asErrorMsg[ERR_AREA_COUNT];
  std::atomic<int> _CoreFamily{DF_UNKNOWN};
  std::atomic<U32> _CoreId{0};
  std::atomic<U32> _DeviceRAMAddr{0};
  std::atomic<U32> _DeviceRAMSize{0};
  std::atomic<U32> _TIFSpeed{0};
  std::atomic<U32> _CoreClock{0};
  std::atomic<bool> _aHWCap[kNumHWCaps];
  U32 _LibVersion = 0;
  U32 _SerialNo = 0;
  int _SupportedDevCnt = 0;
  int _DataEndian = 0;
  int _InstEndian = 0;
  int (*_pfBMACapability)() = nullptr;
  int (*_pfEndianess)() = nullptr;
  std::atomic<U64> _NextJobId{1};
  std::atomic<U64> _JobsStarted{0};
  std::atomic<U64> _JobsCancelled{0};
  std::atomic<U64> _RecordsReleased{0};
  std::atomic<U64> _RecordsPosted{0};
};
