// CDevice: the one thread that talks to the probe. Any thread files DEVICE_JOB records into three
// prioritised rings; the device thread works them off in strict order, tests the target for halts and
// notifications between jobs, and reports every outcome back as a device event. Submitting never
// allocates a record: the rings live inside the object.
#pragma once

#include <QMutex>
#include <QRecursiveMutex>
#include <QThread>
#include <QWaitCondition>
#include <atomic>
#include <memory>

#include "app/base/Types.h"
#include "device/DeviceJob.h"
#include "device/RunControl.h"

class CDevice : public QThread {
  Q_OBJECT
 public:
  static constexpr int kNumQueueSlots = 5;  // queues 0..2 are used; 3 and 4 exist for the scan loops
  static constexpr int kNumQueues = 3;
  static constexpr int kMaxStepsPerPass = 100;
  static constexpr int kWakeUpMS = 50;

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
  int ScheduleMeasureCoreSpeed();
  // Device configuration: integer parameters 0..14 by number, text parameters 16..19 by text.
  int ScheduleSetConfigParam(int Param, int Value);
  int ScheduleSetConfigParam(int Param, const char* sValue);

  // Waits for the oldest pending job of Type. 1 when there is none, 0 when it finished, -1 on time-out
  // (the job goes on and its event still arrives). TimeoutMS -1 takes the type's default limit.
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
  bool IsHalted() const { return _Halted.load(); }
  bool IsHaltCertain() const { return _HaltCertain.load(); }
  bool IsStateValid() const { return _StateValid.load(); }
  bool IsSrcStepRunning() const { return _SrcStepRunning.load(); }
  U32 GetPC() const { return _PC.load(); }
  // The probe's register index of the PC in the current mode.
  U32 GetPCRegIndex() const { return REG_PC; }

  // Asks the thread to stop at the end of the current pass and wakes it.
  void RequestStop();
  bool IsStopRequested() const { return _StopFlag.load(); }
  bool IsThreadRunning() const { return isRunning() && !_StopFlag.load(); }

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
  void _CancelQueue(int Queue, U32 Type);
  bool _IsRingElement(const DEVICE_JOB* pJob) const;
  void _WakeUp();

  // The halt and notification tests between jobs.
  void _CheckHandleNotifications();
  void _CheckHandleHalt();
  void _CheckHandleResume();
  void _OnConnectionLost();
  void _UpdatePC();

  // The operations behind the job types.
  int _ConnectSimple();
  int _Connect(CONNECT_MODES Mode);
  int _Disconnect();
  int _Reset(RESET_MODES Mode);
  int _Halt();
  int _Continue(RESUME_MODES Mode);
  int _StepInstBasic();
  int _ExecTarvikCmd(DEVICE_JOB* pJob);
  int _SetBreakpoint(U32 Addr);
  int _ClearBreakpoint(U32 Addr);
  int _ClearAllBreakpoints();
  int _ReadReg(DEVICE_JOB* pJob);
  int _WriteReg(DEVICE_JOB* pJob);
  int _ReadRegs(DEVICE_JOB* pJob);
  int _ReadMem(DEVICE_JOB* pJob);
  int _WriteMem(DEVICE_JOB* pJob);
  int _MeasureCoreSpeed(DEVICE_JOB* pJob);
  int _NotAvailable(DEVICE_JOB* pJob);

  std::unique_ptr<RING[]> _paRing;  // kNumQueueSlots rings
  std::unique_ptr<DEVICE_JOB[]> _paCompletion;
  U32 _CompletionIdx = 0;
  QMutex _SubmitMutex;
  QMutex _CompletionMutex;
  QRecursiveMutex _DeviceMutex;
  QMutex _WakeMutex;
  QWaitCondition _JobAvailable;
  bool _WakePending = false;  // auto-reset: one wait consumes it

  std::atomic<bool> _StopFlag{false};
  std::atomic<bool> _Connected{false};
  std::atomic<bool> _Halted{false};
  std::atomic<bool> _HaltCertain{false};
  std::atomic<bool> _StateValid{false};
  std::atomic<bool> _SrcStepRunning{false};
  std::atomic<U32> _PC{0};
  std::atomic<U64> _NextJobId{1};
  std::atomic<U64> _JobsStarted{0};
  std::atomic<U64> _JobsCancelled{0};
  std::atomic<U64> _RecordsReleased{0};
  std::atomic<U64> _RecordsPosted{0};
  U64 _LastHaltPollMS = 0;
};
