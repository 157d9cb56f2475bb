// The device thread: job rings, scheduler, completion and the operations behind the job types.
#include "device/Device.h"

#include <QCoreApplication>
#include <atomic>
#include <chrono>
#include <cstring>

#include "app/base/Log.h"
#include "device/DeviceEventListener.h"
#include "device/DeviceEvents.h"
#include "device/probe/TarvikApi.h"

namespace {

std::atomic<CDevice*> _pInstance{nullptr};
// Serialises the release of a record (main thread) against the device thread's last touch of it after
// posting its completion, so a released slot is never written again by the thread that ran it.
QMutex _ReleaseMutex;

U64 _NowMS() {
  using namespace std::chrono;
  return U64(duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count());
}

std::atomic_ref<U32> _TypeOf(DEVICE_JOB* p) {
  return std::atomic_ref<U32>(p->Type);
}
std::atomic_ref<U32> _FlagsOf(DEVICE_JOB* p) {
  return std::atomic_ref<U32>(p->Flags);
}
U32 _LoadType(const DEVICE_JOB* p) {
  return std::atomic_ref<U32>(const_cast<DEVICE_JOB*>(p)->Type).load(std::memory_order_acquire);
}
U32 _LoadFlags(const DEVICE_JOB* p) {
  return std::atomic_ref<U32>(const_cast<DEVICE_JOB*>(p)->Flags).load(std::memory_order_acquire);
}

bool _IsStepJob(U32 Type) {
  return Type == JT_STEP_INST || Type == JT_STEP_INTO || Type == JT_STEP_OVER || Type == JT_STEP_OUT;
}

bool _IsMainThread() {
  QCoreApplication* pApp = QCoreApplication::instance();
  return pApp && QThread::currentThread() == pApp->thread();
}

void _LogDebug(const char* sFormat, const char* sName) {
  if (!GetLogSink().IsDebugMode()) {
    return;  // formatting is skipped when nobody would see it
  }
  char ac[256];
  snprintf(ac, sizeof(ac), sFormat, sName);
  LogMessage(ac, MSG_INFO | MSG_TO_STDOUT);
}

void _LogWarning(const char* sText) {
  LogMessage(sText, MSG_WARNING | MSG_TO_STDOUT | MSG_TO_LOGFILE);
}

// The about-to hooks call the listeners directly on the main thread and post from any other.
void _AboutTo(U32 EventType) {
  if (_IsMainThread()) {
    DEVICE_EVENT Event{EventType, {0, 0}};
    DispatchDeviceEvent(Event);
  } else {
    PostDeviceEvent(EventType, 0, 0);
  }
}

}  // namespace

CDevice* CDevice::Instance() {
  CDevice* p = _pInstance.load();
  if (p == nullptr) {
    p = new CDevice();  // lives until the process ends, like every singleton; its constructor registers it
  }
  return p;
}

bool CDevice::HasInstance() {
  return _pInstance.load() != nullptr;
}

CDevice::CDevice()
    : _paRing(std::make_unique<RING[]>(kNumQueueSlots)),
      _paCompletion(std::make_unique<DEVICE_JOB[]>(kJobRingSize)) {
  memset(_paCompletion.get(), 0, sizeof(DEVICE_JOB) * kJobRingSize);
  for (int q = 0; q < kNumQueueSlots; ++q) {
    memset(_paRing[q].aJob, 0, sizeof(_paRing[q].aJob));
  }
  _pInstance.store(this);
  start();
}

CDevice::~CDevice() {
  RequestStop();
  while (!wait(10)) {
  }
  // Free whatever buffers are still attached to records nobody will release any more.
  for (int q = 0; q < kNumQueueSlots; ++q) {
    for (U32 i = 0; i < kJobRingSize; ++i) {
      FreeJobData(&_paRing[q].aJob[i]);
    }
  }
  for (U32 i = 0; i < kJobRingSize; ++i) {
    FreeJobData(&_paCompletion[i]);
  }
  CDevice* pSelf = this;
  _pInstance.compare_exchange_strong(pSelf, nullptr);
}

void CDevice::RequestStop() {
  _StopFlag.store(true);
  _WakeUp();
}

void CDevice::_WakeUp() {
  QMutexLocker Lock(&_WakeMutex);
  _WakePending = true;
  _JobAvailable.wakeAll();
}

CDevice::STATS CDevice::GetStats() const {
  return STATS{_NextJobId.load(), _JobsStarted.load(), _JobsCancelled.load(), _RecordsReleased.load(),
               _RecordsPosted.load()};
}

// ---------------------------------------------------------------------------------------------------
// Submission

int CDevice::ScheduleJob(DEVICE_JOB* pJob) {
  if (pJob == nullptr) {
    return -1;
  }
  if (pJob->Type == 0 || pJob->Type >= JT_LAST) {
    FreeJobData(pJob);
    return -1;
  }
  int Queue = JobTypeToQueue(pJob->Type);
  RING& Ring = _paRing[Queue];
  DEVICE_JOB* pSlot;
  {
    QMutexLocker Lock(&_SubmitMutex);
    pSlot = &Ring.aJob[Ring.Tail % kJobRingSize];
    if (_LoadType(pSlot) != 0) {
      Lock.unlock();
      char ac[128];
      snprintf(ac, sizeof(ac), "Job %s not scheduled. Queue is full.", JobTypeToName(pJob->Type));
      _LogWarning(ac);
      FreeJobData(pJob);
      return -1;
    }
    Ring.Tail++;
  }
  U32 Type = pJob->Type;
  U32 Flags = pJob->Flags | JOB_FLAG_PENDING;
  DEVICE_JOB Copy = *pJob;
  Copy.Type = 0;
  Copy.Flags = 0;
  Copy.JobId = _NextJobId.fetch_add(1);
  Copy.QueueIdx = U32(Queue);
  *pSlot = Copy;
  // Pending bit and type are the last things the scheduler may see: a slot is visible only when complete.
  _FlagsOf(pSlot).store(Flags, std::memory_order_release);
  _TypeOf(pSlot).store(Type, std::memory_order_release);
  memset(pJob->apData, 0, sizeof(pJob->apData));  // the ring's record owns the buffers now
  _LogDebug("Job scheduled: %s", JobTypeToName(Type));
  _WakeUp();
  return 0;
}

static DEVICE_JOB _NewJob(U32 Type) {
  DEVICE_JOB Job;
  memset(&Job, 0, sizeof(Job));
  Job.Type = Type;
  return Job;
}

int CDevice::ScheduleConnect(CONNECT_MODES Mode) {
  DEVICE_JOB Job = _NewJob(JT_CONNECT);
  Job.aParam[0] = Mode;
  return ScheduleJob(&Job);
}

int CDevice::ScheduleDisconnect() {
  DEVICE_JOB Job = _NewJob(JT_DISCONNECT);
  return ScheduleJob(&Job);
}

int CDevice::ScheduleReset(RESET_MODES Mode) {
  DEVICE_JOB Job = _NewJob(JT_RESET);
  Job.aParam[0] = Mode;
  return ScheduleJob(&Job);
}

int CDevice::ScheduleHalt() {
  DEVICE_JOB Job = _NewJob(JT_HALT);
  return ScheduleJob(&Job);
}

int CDevice::ScheduleContinue(RESUME_MODES Mode) {
  _AboutTo(DEV_EVENT_ABOUT_TO_RESUME);
  DEVICE_JOB Job = _NewJob(JT_CONTINUE);
  Job.aParam[0] = Mode;
  return ScheduleJob(&Job);
}

int CDevice::ScheduleStepInst() {
  _AboutTo(DEV_EVENT_ABOUT_TO_STEP);
  DEVICE_JOB Job = _NewJob(JT_STEP_INST);
  return ScheduleJob(&Job);
}

int CDevice::ScheduleStepInto() {
  _AboutTo(DEV_EVENT_ABOUT_TO_STEP);
  DEVICE_JOB Job = _NewJob(JT_STEP_INTO);
  return ScheduleJob(&Job);
}

int CDevice::ScheduleStepOver() {
  _AboutTo(DEV_EVENT_ABOUT_TO_STEP);
  DEVICE_JOB Job = _NewJob(JT_STEP_OVER);
  return ScheduleJob(&Job);
}

int CDevice::ScheduleStepOut() {
  _AboutTo(DEV_EVENT_ABOUT_TO_STEP);
  DEVICE_JOB Job = _NewJob(JT_STEP_OUT);
  return ScheduleJob(&Job);
}

int CDevice::ScheduleRunTo(U32 Addr) {
  DEVICE_JOB Job = _NewJob(JT_RUN_TO);
  Job.aParam[0] = Addr;
  return ScheduleJob(&Job);
}

int CDevice::ScheduleExecTarvikCmd(const char* sCmd) {
  DEVICE_JOB Job = _NewJob(JT_EXEC_TARVIK_CMD);
  U32 Len = sCmd ? U32(strlen(sCmd)) : 0;
  if (Len == 0 || AttachJobData(&Job, 0, Len, sCmd) < 0 || AttachJobData(&Job, 1, 512, nullptr) < 0) {
    FreeJobData(&Job);
    return -1;
  }
  return ScheduleJob(&Job);
}

int CDevice::ScheduleSetBP(U32 Addr, U32 State, U32 Type) {
  DEVICE_JOB Job = _NewJob(JT_SET_BP);
  Job.aParam[0] = Addr;
  Job.aParam[1] = State;
  Job.aParam[2] = Type;
  return ScheduleJob(&Job);
}

int CDevice::ScheduleClearBP(U32 Addr) {
  DEVICE_JOB Job = _NewJob(JT_CLEAR_BP);
  Job.aParam[0] = Addr;
  return ScheduleJob(&Job);
}

int CDevice::ScheduleClearAllBPs() {
  DEVICE_JOB Job = _NewJob(JT_CLEAR_ALL_BPS);
  return ScheduleJob(&Job);
}

int CDevice::ScheduleReadReg(U32 RegIdx) {
  DEVICE_JOB Job = _NewJob(JT_READ_REG);
  Job.aParam[0] = RegIdx;
  return ScheduleJob(&Job);
}

int CDevice::ScheduleWriteReg(U32 RegIdx, U32 Value) {
  DEVICE_JOB Job = _NewJob(JT_WRITE_REG);
  Job.aParam[0] = RegIdx;
  Job.aParam[1] = Value;
  return ScheduleJob(&Job);
}

int CDevice::ScheduleReadRegs(U32 Cnt, const U32* paRegIdx) {
  if (Cnt == 0 || Cnt > 63 || paRegIdx == nullptr) {
    return -1;
  }
  DEVICE_JOB Job = _NewJob(JT_READ_REGS);
  Job.aParam[0] = Cnt;
  if (AttachJobData(&Job, 0, Cnt * sizeof(U32), paRegIdx) < 0 ||
      AttachJobData(&Job, 1, Cnt * sizeof(I64), nullptr) < 0) {
    FreeJobData(&Job);
    return -1;
  }
  return ScheduleJob(&Job);
}

int CDevice::ScheduleReadCPReg(const ARM_CPR& Reg) {
  DEVICE_JOB Job = _NewJob(JT_READ_CP_REG);
  if (AttachJobData(&Job, 0, sizeof(ARM_CPR), &Reg) < 0) {
    return -1;
  }
  return ScheduleJob(&Job);
}

int CDevice::ScheduleWriteCPReg(const ARM_CPR& Reg, U32 Value) {
  DEVICE_JOB Job = _NewJob(JT_WRITE_CP_REG);
  Job.aParam[0] = Value;
  if (AttachJobData(&Job, 0, sizeof(ARM_CPR), &Reg) < 0) {
    return -1;
  }
  return ScheduleJob(&Job);
}

int CDevice::ScheduleReadMem(U32 Addr, U32 nBytes, U32 ChunkSize, U32 AccessWidth, U32 Flags) {
  DEVICE_JOB Job = _NewJob(JT_READ_MEM);
  Job.aParam[0] = Addr;
  Job.aParam[1] = nBytes;
  Job.aParam[2] = ChunkSize;
  Job.aParam[3] = AccessWidth;
  Job.aParam[4] = Flags;
  if (AttachJobData(&Job, 0, nBytes, nullptr) < 0 || AttachJobData(&Job, 1, nBytes, nullptr) < 0) {
    FreeJobData(&Job);
    return -1;
  }
  return ScheduleJob(&Job);
}

int CDevice::ScheduleWriteMem(U32 Addr, U32 nBytes, const U8* pData, U32 ChunkSize, U32 AccessWidth,
                              U32 Flags) {
  DEVICE_JOB Job = _NewJob(JT_WRITE_MEM);
  Job.aParam[0] = Addr;
  Job.aParam[1] = nBytes;
  Job.aParam[2] = ChunkSize;
  Job.aParam[3] = AccessWidth;
  Job.aParam[4] = Flags;
  if (pData == nullptr || AttachJobData(&Job, 0, nBytes, pData) < 0) {
    FreeJobData(&Job);
    return -1;
  }
  return ScheduleJob(&Job);
}

int CDevice::ScheduleMeasureCoreSpeed() {
  DEVICE_JOB Job = _NewJob(JT_MEASURE_CORE_SPEED);
  return ScheduleJob(&Job);
}

int CDevice::ScheduleSetConfigParam(int Param, int Value) {
  DEVICE_JOB Job = _NewJob(JT_SET_CONFIG_PARAM);
  Job.aParam[0] = U64(I64(Param));
  Job.aParam[1] = U64(I64(Value));
  return ScheduleJob(&Job);
}

int CDevice::ScheduleSetConfigParam(int Param, const char* sValue) {
  DEVICE_JOB Job = _NewJob(JT_SET_CONFIG_PARAM);
  Job.aParam[0] = U64(I64(Param));
  U32 Len = sValue ? U32(strlen(sValue)) : 0;
  // The text travels in apData[0]; an empty text still needs its terminator.
  if (AttachJobData(&Job, 0, Len ? Len : 1, Len ? sValue : "") < 0) {
    FreeJobData(&Job);
    return -1;
  }
  return ScheduleJob(&Job);
}

// ---------------------------------------------------------------------------------------------------
// Queue inspection, cancellation, validity and release

bool CDevice::_IsRingElement(const DEVICE_JOB* pJob) const {
  auto IsIn = [pJob](const DEVICE_JOB* pFirst) {
    uintptr_t p = uintptr_t(pJob);
    uintptr_t b = uintptr_t(pFirst);
    uintptr_t e = b + sizeof(DEVICE_JOB) * kJobRingSize;
    return p >= b && p < e && (p - b) % sizeof(DEVICE_JOB) == 0;
  };
  for (int q = 0; q < kNumQueueSlots; ++q) {
    if (IsIn(_paRing[q].aJob)) {
      return true;
    }
  }
  return IsIn(_paCompletion.get());
}

bool CDevice::IsValidJob(const DEVICE_JOB* pJob) const {
  if (pJob == nullptr || !_IsRingElement(pJob)) {
    return false;
  }
  U32 Type = _LoadType(pJob);
  if (Type == 0) {
    return false;
  }
  return !JobTypeNeedsData(Type) || pJob->apData[0] != nullptr;
}

void CDevice::ReleaseJob(DEVICE_JOB* pJob) {
  // Records without their required buffer are released too, so they are checked by position only.
  if (pJob == nullptr || !_IsRingElement(pJob) || _LoadType(pJob) == 0) {
    return;
  }
  QMutexLocker Lock(&_ReleaseMutex);
  FreeJobData(pJob);
  U32 Type = _LoadType(pJob);
  DEVICE_JOB Zero;
  memset(&Zero, 0, sizeof(Zero));
  _FlagsOf(pJob).store(0, std::memory_order_relaxed);
  *pJob = Zero;
  // Zeroing the type is what hands the slot back to the ring.
  _TypeOf(pJob).store(0, std::memory_order_release);
  if (Type != 0) {
    _RecordsReleased.fetch_add(1);
  }
}

static bool _TypeMatches(U32 Wanted, U32 Type, int Queue) {
  if (Wanted == JT_ANY) {
    return true;
  }
  if (Wanted == JT_ANY_STEP) {
    return Queue == JOB_QUEUE_CONTROL && _IsStepJob(Type);
  }
  return Wanted == Type;
}

DEVICE_JOB* CDevice::FindPendingJob(U32 Type, int* pQueue) {
  for (int q = 0; q < kNumQueueSlots; ++q) {
    RING& Ring = _paRing[q];
    U64 Tail = Ring.Tail;
    // Start one behind the head: that is the job the scheduler is running, still pending until it ends.
    U64 Head = Ring.Head;
    U64 First = Head > 0 ? Head - 1 : 0;
    for (U64 i = First; i < Tail; ++i) {
      DEVICE_JOB* p = &Ring.aJob[i % kJobRingSize];
      U32 t = _LoadType(p);
      if (t != 0 && (_LoadFlags(p) & JOB_FLAG_PENDING) && _TypeMatches(Type, t, q)) {
        if (pQueue) {
          *pQueue = q;
        }
        return p;
      }
    }
  }
  return nullptr;
}

bool CDevice::IsJobPending(U32 Type) {
  return FindPendingJob(Type, nullptr) != nullptr;
}

void CDevice::_CancelQueue(int Queue, U32 Type) {
  RING& Ring = _paRing[Queue];
  U64 Tail = Ring.Tail;
  for (U64 i = Ring.Head; i < Tail; ++i) {
    DEVICE_JOB* p = &Ring.aJob[i % kJobRingSize];
    U32 t = _LoadType(p);
    if (t == 0 || !_TypeMatches(Type, t, Queue)) {
      continue;
    }
    U32 Flags = _LoadFlags(p);
    if ((Flags & JOB_FLAG_PENDING) && !(Flags & JOB_FLAG_KEEP)) {
      if (_FlagsOf(p).fetch_and(~JOB_FLAG_PENDING) & JOB_FLAG_PENDING) {
        _JobsCancelled.fetch_add(1);
      }
    }
  }
}

int CDevice::CancelPendingJobs(U32 Type, int Queue) {
  U64 Before = _JobsCancelled.load();
  if (Queue == JOB_QUEUE_ALL) {
    for (int q = 0; q < kNumQueueSlots; ++q) {
      _CancelQueue(q, Type);
    }
  } else {
    if (Queue == JOB_QUEUE_OWN) {
      Queue = (Type == JT_ANY || Type == JT_ANY_STEP) ? JOB_QUEUE_CONTROL : JobTypeToQueue(Type);
    }
    if (Queue >= 0 && Queue < kNumQueueSlots) {
      _CancelQueue(Queue, Type);
    }
  }
  return int(_JobsCancelled.load() - Before);
}

int CDevice::ReportJobDone(U32 Type, U32 Status, U64 Param0, I64 Result0, I64 Result1) {
  if (Type == 0 || Type >= JT_LAST || JobEventMuted[Type]) {
    return -1;
  }
  DEVICE_JOB* pSlot;
  {
    QMutexLocker Lock(&_CompletionMutex);
    pSlot = &_paCompletion[_CompletionIdx];
    _CompletionIdx = (_CompletionIdx + 1) % kJobRingSize;
  }
  if (_LoadType(pSlot) != 0) {
    _LogWarning("Target event queue full. job not inserted");
    return -1;
  }
  DEVICE_JOB Job = _NewJob(0);
  Job.Status = Status;
  Job.aParam[0] = Param0;
  Job.aResult[0] = Result0;
  Job.aResult[1] = Result1;
  Job.JobId = _NextJobId.fetch_add(1);
  Job.QueueIdx = JOB_QUEUE_OWN;
  *pSlot = Job;
  _TypeOf(pSlot).store(Type, std::memory_order_release);
  if (PostDeviceEvent(DEV_EVENT_JOB_DONE, U64(uintptr_t(pSlot)), 0) < 0) {
    ReleaseJob(pSlot);
    return -1;
  }
  _RecordsPosted.fetch_add(1);
  return 0;
}

// ---------------------------------------------------------------------------------------------------
// Waiting

int CDevice::WaitForJob(U32 Type, bool PumpEvents, int TimeoutMS) {
  int Queue = 0;
  DEVICE_JOB* pJob = FindPendingJob(Type, &Queue);
  if (pJob == nullptr) {
    return 1;
  }
  U32 JobType = _LoadType(pJob);
  U64 JobId = pJob->JobId;
  if (TimeoutMS < 0) {
    TimeoutMS = JobTypeToTimeoutMS(JobType);
  }
  U64 Start = _NowMS();
  for (;;) {
    if (!(_LoadFlags(pJob) & JOB_FLAG_PENDING) || _LoadType(pJob) != JobType || pJob->JobId != JobId) {
      return 0;
    }
    if (!isRunning() || _StopFlag.load()) {
      break;
    }
    if (TimeoutMS > 0 && _NowMS() - Start > U64(TimeoutMS)) {
      break;
    }
    if (PumpEvents && QCoreApplication::instance()) {
      QCoreApplication::processEvents();
    }
    QThread::yieldCurrentThread();
  }
  char ac[128];
  snprintf(ac, sizeof(ac), "Timeout while waiting for Job %s", JobTypeToName(JobType));
  _LogWarning(ac);
  return -1;
}

int CDevice::WaitForJobThenPump(U32 Type, bool PumpEvents) {
  int r = WaitForJob(Type, PumpEvents, -1);
  DispatchDeviceEvents(10);
  return r;
}

// ---------------------------------------------------------------------------------------------------
// The thread

void CDevice::run() {
  setPriority(QThread::LowestPriority);
  const TARVIK_API& Api = GetTarvikApi();
  char ac[64];
  snprintf(ac, sizeof(ac), "Probe layer version %u", unsigned(Api.TARVIKARM_GetDLLVersion()));
  LogMessage(ac, MSG_INFO | MSG_TO_STDOUT | MSG_TO_LOGFILE);
  while (!_StopFlag.load()) {
    int Steps;
    {
      QMutexLocker Lock(&_DeviceMutex);
      Steps = _SchedulerPass();
    }
    if (Steps < kMaxStepsPerPass && !_StopFlag.load()) {
      QMutexLocker Lock(&_WakeMutex);
      if (!_WakePending) {
        _JobAvailable.wait(&_WakeMutex, kWakeUpMS);
      }
      _WakePending = false;
    }
  }
  QMutexLocker Lock(&_DeviceMutex);
  const TARVIK_API& Probe = GetTarvikApi();
  if (_Connected.load()) {
    // A lost connection skips this: the target can no longer be told anything.
    Probe.TARVIKARM_ClrBPEx(0xFFFFFFFF);
    Probe.TARVIKARM_ClrDataEvent(0xFFFFFFFF);
  }
  if (Probe.TARVIKARM_IsOpen()) {
    Probe.TARVIKARM_Close();
  }
  _Connected = false;
  _Halted = false;
  _HaltCertain = false;
  _StateValid = false;
}

int CDevice::_SchedulerPass() {
  int Steps = 0;
  while (Steps < kMaxStepsPerPass && !_StopFlag.load()) {
    _CheckHandleNotifications();
    _CheckHandleHalt();
    _CheckHandleResume();
    DEVICE_JOB* pJob = _TakeNextJob();
    if (pJob == nullptr) {
      break;
    }
    _RunJob(pJob);
    ++Steps;
  }
  return Steps;
}

DEVICE_JOB* CDevice::_TakeNextJob() {
  for (int q = 0; q < kNumQueueSlots; ++q) {
    RING& Ring = _paRing[q];
    if (Ring.Head == Ring.Tail) {
      continue;
    }
    DEVICE_JOB* p = &Ring.aJob[Ring.Head % kJobRingSize];
    U32 Type = _LoadType(p);
    if (Type == 0) {
      continue;  // empty, or a slot still being written: look again next pass
    }
    if (!IsValidJob(p)) {
      // A published record without its required buffer can never run. Dropping it keeps the queue
      // moving; leaving it at the head would stall every job behind it.
      char ac[128];
      snprintf(ac, sizeof(ac), "Job %s dropped: required data missing", JobTypeToName(Type));
      _LogWarning(ac);
      Ring.Head++;
      ReleaseJob(p);
      continue;
    }
    Ring.Head++;
    return p;
  }
  return nullptr;
}

void CDevice::_RunJob(DEVICE_JOB* pJob) {
  if (!(_LoadFlags(pJob) & JOB_FLAG_PENDING)) {
    ReleaseJob(pJob);  // cancelled while queued
    return;
  }
  _JobsStarted.fetch_add(1);
  U32 Type = pJob->Type;
  int ReturnCode;
  if (Type == JT_HALT && _Halted.load()) {
    ReturnCode = 0;  // already halted: done without calling the probe
  } else {
    if (Type == JT_RESET || Type == JT_HALT || Type == JT_CONTINUE || _IsStepJob(Type)) {
      // Answers of queued reads would no longer mean anything.
      _CancelQueue(JOB_QUEUE_SLOW, JT_ANY);
      _CancelQueue(JOB_QUEUE_READ, JT_ANY);
    } else if (Type == JT_START_HSS) {
      _CancelQueue(JOB_QUEUE_READ, JT_READ_HSS);
    }
    ReturnCode = _Execute(pJob);
  }
  _Complete(pJob, ReturnCode);
}

void CDevice::_Complete(DEVICE_JOB* pJob, int ReturnCode) {
  U32 Type = pJob->Type;
  pJob->Status =
      ReturnCode == -1 ? JOB_STATUS_FAILED : (ReturnCode < 0 ? JOB_STATUS_DROPPED : JOB_STATUS_DONE);
  if (pJob->Status == JOB_STATUS_DROPPED) {
    ReleaseJob(pJob);
    return;
  }
  if (Type == JT_RESET || _IsStepJob(Type)) {
    pJob->aResult[0] = _StateValid.load() ? I64(_PC.load()) : 0;
  }
  if (Type == JT_HALT || Type == JT_RUN_TO) {
    ReleaseJob(pJob);  // the halt sequence tells the outcome
    return;
  }
  if ((Type == JT_STEP_INTO || Type == JT_STEP_OVER || Type == JT_STEP_OUT) && ReturnCode == 1) {
    ReleaseJob(pJob);  // the step goes on as a run to a hidden breakpoint
    return;
  }
  if (Type == JT_WRITE_REG) {
    _UpdatePC();
  }
  if (Type < 64 && JobEventMuted[Type]) {
    ReleaseJob(pJob);
    return;
  }
  QMutexLocker Lock(&_ReleaseMutex);
  if (PostDeviceEvent(DEV_EVENT_JOB_DONE, U64(uintptr_t(pJob)), 0) < 0) {
    Lock.unlock();
    ReleaseJob(pJob);
    return;
  }
  _RecordsPosted.fetch_add(1);
  // Clearing the pending bit releases a waiter; the release mutex keeps the main thread from zeroing
  // the record before this last write.
  _FlagsOf(pJob).fetch_and(~JOB_FLAG_PENDING);
}

// ---------------------------------------------------------------------------------------------------
// Halt and notification tests between jobs

void CDevice::_CheckHandleNotifications() {}

void CDevice::_UpdatePC() {
  if (!_Connected.load()) {
    _StateValid = false;
    return;
  }
  _PC = GetTarvikApi().TARVIKARM_ReadReg(GetPCRegIndex());
  _StateValid = true;
}

void CDevice::_OnConnectionLost() {
  LogMessage("Connection to target lost", MSG_ERROR | MSG_TO_ALL);
  _Connected = false;
  _Halted = false;
  _HaltCertain = false;
  _StateValid = false;
  CancelPendingJobs(JT_ANY, JOB_QUEUE_ALL);
  PostDeviceEvent(DEV_EVENT_CONNECTION_LOST, 0, 0);
}

void CDevice::_CheckHandleHalt() {
  if (!_Connected.load() || _Halted.load()) {
    return;
  }
  U64 Now = _NowMS();
  if (Now - _LastHaltPollMS < 5) {
    return;
  }
  _LastHaltPollMS = Now;
  I8 r = GetTarvikApi().TARVIKARM_IsHalted();
  if (r < 0) {
    _OnConnectionLost();
  } else if (r > 0) {
    _Halted = true;
    _HaltCertain = true;
    _UpdatePC();
    ReportJobDone(JT_HALT, JOB_STATUS_DONE, HR_HALT, I64(_PC.load()), 0);
  }
}

void CDevice::_CheckHandleResume() {
  if (!_Connected.load() || !_Halted.load()) {
    return;
  }
  U64 Now = _NowMS();
  if (Now - _LastHaltPollMS < 20) {
    return;
  }
  _LastHaltPollMS = Now;
  I8 r = GetTarvikApi().TARVIKARM_IsHalted();
  if (r < 0) {
    _OnConnectionLost();
  } else if (r == 0) {
    // Resumed from outside (another debugger, a script of the probe): tell the session.
    _Halted = false;
    _HaltCertain = false;
    ReportJobDone(JT_CONTINUE, JOB_STATUS_DONE, GO_USER, 0, 0);
  }
}

// ---------------------------------------------------------------------------------------------------
// The operations behind the job types

int CDevice::_Execute(DEVICE_JOB* pJob) {
  switch (pJob->Type) {
    case JT_CONNECT:
      return _Connect(CONNECT_MODES(pJob->aParam[0]));
    case JT_DISCONNECT:
      return _Disconnect();
    case JT_RESET:
      return _Reset(RESET_MODES(pJob->aParam[0]));
    case JT_HALT:
      return _Halt();
    case JT_CONTINUE:
      return _Continue(RESUME_MODES(pJob->aParam[0]));
    case JT_STEP_INST:
      return _StepInstBasic();
    case JT_EXEC_TARVIK_CMD:
      return _ExecTarvikCmd(pJob);
    case JT_SET_BP:
      return _SetBreakpoint(U32(pJob->aParam[0]));
    case JT_CLEAR_BP:
      return _ClearBreakpoint(U32(pJob->aParam[0]));
    case JT_CLEAR_ALL_BPS:
      return _ClearAllBreakpoints();
    case JT_READ_REG:
      return _ReadReg(pJob);
    case JT_WRITE_REG:
      return _WriteReg(pJob);
    case JT_READ_REGS:
      return _ReadRegs(pJob);
    case JT_READ_MEM:
      return _ReadMem(pJob);
    case JT_WRITE_MEM:
      return _WriteMem(pJob);
    case JT_MEASURE_CORE_SPEED:
      return _MeasureCoreSpeed(pJob);
    case JT_STEP_INTO:
    case JT_STEP_OVER:
    case JT_STEP_OUT:
    case JT_RUN_TO:
    case JT_SET_BPS:
    case JT_CLEAR_BPS:
    case JT_RESET_BPS:
    case JT_SET_WPS:
    case JT_CLEAR_WPS:
    case JT_CLEAR_ALL_WPS:
    case JT_READ_CP_REG:
    case JT_WRITE_CP_REG:
    case JT_END_DOWNLOAD:
    case JT_WRITE_MEM_MULTIPLE:
    case JT_RESET_TARGET_EXEC_STATE:
    case JT_SET_TARGET_EXEC_STATE:
    case JT_READ_LOCATION:
    case JT_READ_LOCS:
    case JT_WRITE_LOCATION:
    case JT_SET_SH_INPUT_TEXT:
    case JT_DISASS_INSTS:
    case JT_DISASS_INSTRS_EX:
    case JT_DISASS_ARANGES:
    case JT_ENABLE_SIMPLE_TRACE:
    case JT_DISABLE_SIMPLE_TRACE:
    case JT_START_SIMPLE_TRACE:
    case JT_STOP_SIMPLE_TRACE:
    case JT_READ_SIMPLE_TRACE:
    case JT_READ_INST_STATS:
    case JT_FLUSH_STRACE_BUFFER:
    case JT_START_SWO_TRACE:
    case JT_STOP_SWO_TRACE:
    case JT_READ_SWO_TRACE:
    case JT_SWO_GET_COMPAT_SPEEDS:
    case JT_START_MCT:
    case JT_STOP_MCT:
    case JT_FLUSH_MCT:
    case JT_READ_MCT:
    case JT_WRITE_MCT:
    case JT_START_HSS:
    case JT_STOP_HSS:
    case JT_READ_HSS:
    case JT_CONFIGURE:
    case JT_SET_CONFIG_PARAM:
    case JT_GET_DEVICE_INFO:
      return _NotAvailable(pJob);
    default: {
      char ac[96];
      snprintf(ac, sizeof(ac), "Scheduler encountered unknown job type %d", int(pJob->Type));
      _LogWarning(ac);
      return -1;
    }
  }
}

int CDevice::_NotAvailable(DEVICE_JOB* pJob) {
  char ac[128];
  snprintf(ac, sizeof(ac), "%s: not available", JobTypeToName(pJob->Type));
  _LogWarning(ac);
  return -1;
}

int CDevice::_ConnectSimple() {
  const TARVIK_API& Api = GetTarvikApi();
  const char* sError = Api.TARVIKARM_Open();
  if (sError != nullptr) {
    char ac[600];
    snprintf(ac, sizeof(ac), "Open: TARVIK API call failed with error message: %s", sError);
    LogMessage(ac, MSG_ERROR | MSG_TO_ALL);
    return -1;
  }
  if (Api.TARVIKARM_Connect() != 0) {
    return -1;
  }
  _Connected = true;
  I8 Halted = Api.TARVIKARM_IsHalted();
  _Halted = Halted > 0;
  _HaltCertain = Halted > 0;
  _UpdatePC();
  return 0;
}

int CDevice::_Connect(CONNECT_MODES Mode) {
  if (Mode == CM_BARE) {
    return _ConnectSimple();
  }
  _Disconnect();
  return _ConnectSimple();
}

int CDevice::_Disconnect() {
  if (!_Connected.load()) {
    return 0;
  }
  _AboutTo(DEV_EVENT_ABOUT_TO_DISCONNECT);
  GetTarvikApi().TARVIKARM_Close();
  _Connected = false;
  _Halted = false;
  _HaltCertain = false;
  _StateValid = false;
  return 0;
}

int CDevice::_Reset(RESET_MODES Mode) {
  if (!_Connected.load()) {
    return -1;
  }
  const TARVIK_API& Api = GetTarvikApi();
  if (Api.TARVIKARM_Reset() != 0) {
    return -1;
  }
  I8 Halted = Api.TARVIKARM_IsHalted();
  _Halted = Halted > 0;
  _HaltCertain = Halted > 0;
  _UpdatePC();
  return 0;
}

int CDevice::_Halt() {
  if (!_Connected.load()) {
    return -1;
  }
  if (GetTarvikApi().TARVIKARM_Halt() != 0) {
    return -1;
  }
  _Halted = true;
  _HaltCertain = true;
  _UpdatePC();
  ReportJobDone(JT_HALT, JOB_STATUS_DONE, HR_HALT, I64(_PC.load()), 0);
  return 0;
}

int CDevice::_Continue(RESUME_MODES Mode) {
  if (!_Connected.load()) {
    return -1;
  }
  GetTarvikApi().TARVIKARM_GoEx(0, 1);
  _Halted = false;
  _HaltCertain = false;
  return 0;
}

int CDevice::_StepInstBasic() {
  if (!_Connected.load() || !_Halted.load()) {
    return -1;
  }
  if (GetTarvikApi().TARVIKARM_Step() != 0) {
    return -1;
  }
  _UpdatePC();
  return 0;
}

int CDevice::_ExecTarvikCmd(DEVICE_JOB* pJob) {
  if (pJob->apData[1] == nullptr || pJob->aDataLen[1] < 2) {
    return -1;
  }
  char* sOut = reinterpret_cast<char*>(pJob->apData[1]);
  int OutSize = int(pJob->aDataLen[1] - 1);
  sOut[0] = 0;
  int r = GetTarvikApi().TARVIKARM_ExecCommand(reinterpret_cast<const char*>(pJob->apData[0]), sOut, OutSize);
  sOut[OutSize] = 0;
  pJob->aResult[0] = r;
  return (r < 0 || sOut[0] != 0) ? -1 : 0;
}

int CDevice::_SetBreakpoint(U32 Addr) {
  if (!_Connected.load()) {
    return -1;
  }
  return GetTarvikApi().TARVIKARM_SetBPEx(Addr, 0) != 0 ? 0 : -1;
}

int CDevice::_ClearBreakpoint(U32 Addr) {
  if (!_Connected.load()) {
    return -1;
  }
  const TARVIK_API& Api = GetTarvikApi();
  int Count = Api.TARVIKARM_GetBPInfoEx(-1, nullptr);
  for (int i = 0; i < Count; ++i) {
    TARVIK_BP_INFO Info;
    memset(&Info, 0, sizeof(Info));
    Info.SizeOfStruct = sizeof(Info);
    if (Api.TARVIKARM_GetBPInfoEx(i, &Info) >= 0 && Info.Addr == Addr && Info.Handle != 0) {
      return Api.TARVIKARM_ClrBPEx(Info.Handle) == 0 ? 0 : -1;
    }
  }
  return -1;
}

int CDevice::_ClearAllBreakpoints() {
  if (!_Connected.load()) {
    return -1;
  }
  return GetTarvikApi().TARVIKARM_ClrBPEx(0xFFFFFFFF) == 0 ? 0 : -1;
}

int CDevice::_ReadReg(DEVICE_JOB* pJob) {
  if (!_Connected.load()) {
    return -1;
  }
  pJob->aResult[0] = I64(GetTarvikApi().TARVIKARM_ReadReg(U32(pJob->aParam[0])));
  return 0;
}

int CDevice::_WriteReg(DEVICE_JOB* pJob) {
  if (!_Connected.load()) {
    return -1;
  }
  return GetTarvikApi().TARVIKARM_WriteReg(U32(pJob->aParam[0]), U32(pJob->aParam[1])) == 0 ? 0 : -1;
}

int CDevice::_ReadRegs(DEVICE_JOB* pJob) {
  U32 Cnt = U32(pJob->aParam[0]);
  if (!_Connected.load() || Cnt == 0 || Cnt > 63 || pJob->apData[1] == nullptr ||
      pJob->aDataLen[0] < Cnt * sizeof(U32) || pJob->aDataLen[1] < Cnt * sizeof(I64)) {
    return -1;
  }
  U32 aData[63];
  U8 aStatus[63];
  const U32* paIdx = reinterpret_cast<const U32*>(pJob->apData[0]);
  I64* paOut = reinterpret_cast<I64*>(pJob->apData[1]);
  if (GetTarvikApi().TARVIKARM_ReadRegs(paIdx, aData, aStatus, Cnt) != 0) {
    return -1;
  }
  for (U32 i = 0; i < Cnt; ++i) {
    paOut[i] = aStatus[i] == 0 ? I64(aData[i]) : -1;
  }
  return 0;
}

int CDevice::_ReadMem(DEVICE_JOB* pJob) {
  U32 Addr = U32(pJob->aParam[0]);
  U32 nBytes = U32(pJob->aParam[1]);
  if (!_Connected.load() || pJob->apData[0] == nullptr || pJob->apData[1] == nullptr ||
      pJob->aDataLen[0] < nBytes || pJob->aDataLen[1] < nBytes) {
    return -1;
  }
  int r = GetTarvikApi().TARVIKARM_ReadMemEx(Addr, nBytes, pJob->apData[0], U32(pJob->aParam[3]));
  U8 Status = (r == int(nBytes)) ? 0 : 1;
  memset(pJob->apData[1], Status, nBytes);
  return r < 0 ? -1 : 0;
}

int CDevice::_WriteMem(DEVICE_JOB* pJob) {
  U32 nBytes = U32(pJob->aParam[1]);
  if (!_Connected.load() || pJob->aDataLen[0] < nBytes) {
    return -1;
  }
  int r = GetTarvikApi().TARVIKARM_WriteMemEx(U32(pJob->aParam[0]), nBytes, pJob->apData[0],
                                              U32(pJob->aParam[3]));
  return r == int(nBytes) ? 0 : -1;
}

int CDevice::_MeasureCoreSpeed(DEVICE_JOB* pJob) {
  if (!_Connected.load()) {
    return -1;
  }
  // The measurement works in the device's RAM; which RAM comes with the device information.
  const U32 RAMAddr = 0x20000000;
  int r = GetTarvikApi().TARVIKARM_MeasureCPUSpeedEx(RAMAddr, 1, 1);
  pJob->aResult[0] = r;
  return r > 0 ? 0 : -1;
}
