// The device thread: job rings, scheduler, completion and the operations behind the job types.
#include "device/Device.h"

#include <QCoreApplication>
#include <atomic>
#include <chrono>
#include <cstring>
#include <mutex>

#include "app/base/Log.h"
#include "app/base/SymLoc.h"
#include "device/DeviceEventListener.h"
#include "device/DeviceEvents.h"
#include "device/probe/TarvikApi.h"

namespace {

std::atomic<CDevice*> _pInstance{nullptr};
// Serialises the release of a record (main thread) against the device thread's last touch of it after
// posting its completion, so a released slot is never written again by the thread that ran it.
// Recursive: a report posted under it may release a record of its own when the event queue is full.
std::recursive_mutex _ReleaseMutex;

std::atomic_ref<U32> _TypeOf(DEVICE_JOB* p) {
  return std::atomic_ref<U32>(p->Type);
}
std::atomic_ref<U32> _FlagsOf(DEVICE_JOB* p) {
  return std::atomic_ref<U32>(p->Flags);
}
std::atomic_ref<U64> _JobIdOf(DEVICE_JOB* p) {
  return std::atomic_ref<U64>(p->JobId);
}
U64 _LoadJobId(const DEVICE_JOB* p) {
  return std::atomic_ref<U64>(const_cast<DEVICE_JOB*>(p)->JobId).load(std::memory_order_acquire);
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
  for (auto& Reg : _aRegs) {
    Reg.store(-1);
  }
  _ResetHWCapabilityFlags();
  _sTarvikSettings = ConfigToXml(_Config);
  _pInstance.store(this);
  start();
}

CDevice::~CDevice() {
  RequestStop();
  while (!wait(10)) {
  }
  (void)_RunEnded.load(std::memory_order_acquire);  // orders the thread's last writes before the frees below
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
  SignalDeviceProgress();  // waiters give up when the device stops
}

void CDevice::_WakeUp() {
  {
    std::lock_guard<std::mutex> Lock(_WakeMutex);
    _WakePending = true;
  }
  _JobAvailable.notify_all();
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
    std::unique_lock<std::mutex> Lock(_SubmitMutex);
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
  Copy.JobId = _NextJobId.fetch_add(1);
  Copy.QueueIdx = U32(Queue);
  _Publish(pSlot, Copy, Type, Flags);
  memset(pJob->apData, 0, sizeof(pJob->apData));  // the ring's record owns the buffers now
  _LogDebug("Job scheduled: %s", JobTypeToName(Type));
  _WakeUp();
  return 0;
}

void CDevice::_Publish(DEVICE_JOB* pSlot, const DEVICE_JOB& Job, U32 Type, U32 Flags) {
  // The slot is free (type 0), so nobody but its finders looks at it, and they read only the three
  // atomic fields below. The id goes first: a finder that sees the type or the flags of this job sees
  // its id too, and one that read an older id finds it changed.
  pSlot->QueueIdx = Job.QueueIdx;
  pSlot->Status = Job.Status;
  memcpy(pSlot->aResult, Job.aResult, sizeof(Job.aResult));
  memcpy(pSlot->aParam, Job.aParam, sizeof(Job.aParam));
  memcpy(pSlot->apData, Job.apData, sizeof(Job.apData));
  memcpy(pSlot->aDataLen, Job.aDataLen, sizeof(Job.aDataLen));
  _JobIdOf(pSlot).store(Job.JobId, std::memory_order_release);
  _FlagsOf(pSlot).store(Flags, std::memory_order_release);
  // Type is the last thing the scheduler may see: a slot is visible only when complete.
  _TypeOf(pSlot).store(Type, std::memory_order_release);
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
  // The answer holds an error text, or what the command printed (a monitor command's output).
  constexpr U32 kAnswerSize = 16384;
  if (Len == 0 || AttachJobData(&Job, 0, Len, sCmd) < 0 || AttachJobData(&Job, 1, kAnswerSize, nullptr) < 0) {
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

int CDevice::ScheduleReadLoc(const ELF_SYM_LOC& Loc, U32 nBytes) {
  if (nBytes == 0 || nBytes > 8) {
    _LogDebug("%s", "ReadLoc: cannot read data locations of size > 8 bytes");
    return -1;
  }
  if (Loc.kind < ELF_LOC_ADDR || Loc.kind > ELF_LOC_REG_VALUE) {
    return -1;  // nothing on the target to read
  }
  DEVICE_JOB Job = _NewJob(JT_READ_LOCATION);
  Job.aParam[0] = nBytes;
  if (AttachJobData(&Job, 0, sizeof(ELF_SYM_LOC), &Loc) < 0) {
    return -1;
  }
  return ScheduleJob(&Job);
}

int CDevice::ScheduleReadLocs(U32 Cnt, const ELF_SYM_LOC* paLocs, U32 Flag) {
  if (Cnt == 0 || paLocs == nullptr || U64(Cnt) * sizeof(ELF_SYM_LOC) > kMaxJobDataLen) {
    return -1;
  }
  DEVICE_JOB Job = _NewJob(JT_READ_LOCS);
  Job.aParam[0] = Cnt;
  Job.aParam[1] = Flag;
  if (AttachJobData(&Job, 0, Cnt * U32(sizeof(ELF_SYM_LOC)), paLocs) < 0 ||
      AttachJobData(&Job, 1, Cnt * U32(sizeof(I64)), nullptr) < 0) {
    FreeJobData(&Job);
    return -1;
  }
  memset(Job.apData[1], 0xFF, Cnt * sizeof(I64));  // a value never read stays -1
  return ScheduleJob(&Job);
}

int CDevice::ScheduleWriteLoc(const ELF_SYM_LOC& Loc, U32 nBytes, const U8* pData) {
  if (nBytes == 0 || nBytes > 8 || pData == nullptr) {
    return -1;
  }
  DEVICE_JOB Job = _NewJob(JT_WRITE_LOCATION);
  Job.aParam[0] = nBytes;
  if (AttachJobData(&Job, 0, sizeof(ELF_SYM_LOC), &Loc) < 0 || AttachJobData(&Job, 1, nBytes, pData) < 0) {
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
  {
    std::lock_guard<std::recursive_mutex> Lock(_ReleaseMutex);
    if (_LoadType(pJob) == 0) {
      return;  // released meanwhile by the other thread
    }
    FreeJobData(pJob);
    pJob->QueueIdx = 0;
    pJob->Status = 0;
    memset(pJob->aResult, 0, sizeof(pJob->aResult));
    memset(pJob->aParam, 0, sizeof(pJob->aParam));
    // Waiters and finders read flags, id and type at any time, so these are only ever stored
    // atomically. The id goes to 0 before the type: a waiter that still reads its id sees a record
    // that has not been handed back yet.
    _FlagsOf(pJob).store(0, std::memory_order_release);
    _JobIdOf(pJob).store(0, std::memory_order_release);
    // Zeroing the type is what hands the slot back to the ring.
    _TypeOf(pJob).store(0, std::memory_order_release);
    _RecordsReleased.fetch_add(1);
  }
  SignalDeviceProgress();
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

DEVICE_JOB* CDevice::_FindPendingJob(U32 Type, int* pQueue, U64* pJobId, U32* pFoundType) {
  for (int q = 0; q < kNumQueueSlots; ++q) {
    RING& Ring = _paRing[q];
    // Start one behind the head: that is the job the scheduler is running, still pending until it ends.
    U64 Head = Ring.Head.load(std::memory_order_acquire);
    U64 Tail = Ring.Tail.load(std::memory_order_acquire);
    U64 First = Head > 0 ? Head - 1 : 0;
    for (U64 i = First; i < Tail; ++i) {
      DEVICE_JOB* p = &Ring.aJob[i % kJobRingSize];
      // Type and flags belong to the job of JobId only when the id reads the same before and after
      // them: ids are never reused, and a new job's id is published before its flags and type.
      U64 JobId = _LoadJobId(p);
      U32 t = _LoadType(p);
      U32 Flags = _LoadFlags(p);
      if (JobId == 0 || _LoadJobId(p) != JobId) {
        continue;
      }
      if (t != 0 && (Flags & JOB_FLAG_PENDING) && _TypeMatches(Type, t, q)) {
        if (pQueue) {
          *pQueue = q;
        }
        if (pJobId) {
          *pJobId = JobId;
        }
        if (pFoundType) {
          *pFoundType = t;
        }
        return p;
      }
    }
  }
  return nullptr;
}

DEVICE_JOB* CDevice::FindPendingJob(U32 Type, int* pQueue) {
  return _FindPendingJob(Type, pQueue, nullptr, nullptr);
}

bool CDevice::_IsStillPending(const DEVICE_JOB* pJob, U64 JobId) {
  // Flags first: flags of a later job in the slot are published after its id, so having seen them the
  // id read below is no longer JobId.
  U32 Flags = _LoadFlags(pJob);
  return (Flags & JOB_FLAG_PENDING) && _LoadJobId(pJob) == JobId;
}

bool CDevice::IsJobPending(U32 Type) {
  return FindPendingJob(Type, nullptr) != nullptr;
}

int CDevice::_CancelQueue(int Queue, U32 Type) {
  RING& Ring = _paRing[Queue];
  int nCancelled = 0;
  U64 Head = Ring.Head.load(std::memory_order_acquire);
  U64 Tail = Ring.Tail.load(std::memory_order_acquire);
  for (U64 i = Head; i < Tail; ++i) {
    DEVICE_JOB* p = &Ring.aJob[i % kJobRingSize];
    U32 t = _LoadType(p);
    if (t == 0 || !_TypeMatches(Type, t, Queue)) {
      continue;
    }
    U32 Flags = _LoadFlags(p);
    if ((Flags & JOB_FLAG_PENDING) && !(Flags & JOB_FLAG_KEEP)) {
      if (_FlagsOf(p).fetch_and(~JOB_FLAG_PENDING) & JOB_FLAG_PENDING) {
        _JobsCancelled.fetch_add(1);
        ++nCancelled;
      }
    }
  }
  if (nCancelled > 0) {
    SignalDeviceProgress();  // a waiter for a cancelled job is done
  }
  return nCancelled;
}

int CDevice::CancelPendingJobs(U32 Type, int Queue) {
  int nCancelled = 0;
  if (Queue == JOB_QUEUE_ALL) {
    for (int q = 0; q < kNumQueueSlots; ++q) {
      nCancelled += _CancelQueue(q, Type);
    }
  } else {
    if (Queue == JOB_QUEUE_OWN) {
      Queue = (Type == JT_ANY || Type == JT_ANY_STEP) ? JOB_QUEUE_CONTROL : JobTypeToQueue(Type);
    }
    if (Queue >= 0 && Queue < kNumQueueSlots) {
      nCancelled = _CancelQueue(Queue, Type);
    }
  }
  return nCancelled;
}

int CDevice::ReportJobDone(U32 Type, U32 Status, U64 Param0, I64 Result0, I64 Result1) {
  if (Type == 0 || Type >= JT_LAST || JobEventMuted[Type]) {
    return -1;
  }
  DEVICE_JOB* pSlot;
  {
    std::lock_guard<std::mutex> Lock(_CompletionMutex);
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
  _Publish(pSlot, Job, Type, 0);
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
  U64 JobId = 0;
  U32 JobType = 0;
  DEVICE_JOB* pJob = _FindPendingJob(Type, &Queue, &JobId, &JobType);
  if (pJob == nullptr) {
    return 1;
  }
  if (TimeoutMS < 0) {
    TimeoutMS = JobTypeToTimeoutMS(JobType);
  }
  bool Finished = false;
  // The device thread signals every completion, cancellation and release, so the wait sleeps until
  // then; with PumpEvents it wakes every few ms as well to keep the calling thread's events moving.
  WaitForDevice(
      [&] {
        Finished = !_IsStillPending(pJob, JobId);
        return Finished || !isRunning() || _StopFlag.load();
      },
      TimeoutMS > 0 ? TimeoutMS : -1, PumpEvents ? U32(WAIT_PROCESS_QT_EVENTS) : 0u);
  if (Finished) {
    return 0;
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
  _LibVersion = Api.TARVIKARM_GetDLLVersion();
  TARVIK_DEVICE_INFO Info;
  memset(&Info, 0, sizeof(Info));
  Info.SizeOfStruct = sizeof(Info);
  _SupportedDevCnt = Api.TARVIKARM_DEVICE_GetInfo(-1, nullptr);
  char ac[96];
  snprintf(ac, sizeof(ac), "Probe layer version %u, %d devices", unsigned(_LibVersion), _SupportedDevCnt);
  LogMessage(ac, MSG_INFO | MSG_TO_STDOUT | MSG_TO_LOGFILE);
  while (!_StopFlag.load()) {
    int Steps;
    {
      std::lock_guard<std::recursive_mutex> Lock(_DeviceMutex);
      Steps = _SchedulerPass();
    }
    // Waiters on device state (halted, running, connected) test again after every pass, ~20 times a
    // second when idle; a state change without an event of its own reaches them this way.
    SignalDeviceProgress();
    if (Steps < kMaxStepsPerPass && !_StopFlag.load()) {
      std::unique_lock<std::mutex> Lock(_WakeMutex);
      _JobAvailable.wait_for(Lock, std::chrono::milliseconds(kWakeUpMS), [this] { return _WakePending; });
      _WakePending = false;
    }
  }
  {
    std::lock_guard<std::recursive_mutex> Lock(_DeviceMutex);
    _Disconnect();  // clears breakpoints unless the connection was lost, and closes the probe
    const TARVIK_API& Probe = GetTarvikApi();
    if (Probe.TARVIKARM_IsOpen()) {
      Probe.TARVIKARM_Close();
    }
    _ResetState();
  }
  SignalDeviceProgress();  // waiters see that nobody will finish their jobs any more
  // The last touch of anything shared: the destructor's acquire load of this flag orders all of the
  // above before it frees what the thread used.
  _RunEnded.store(true, std::memory_order_release);
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

void CDevice::_PostDeferredHaltReport() {
  if (_HaltReportPending) {
    _HaltReportPending = false;
    ReportJobDone(JT_HALT, JOB_STATUS_DONE, _PendingHaltReason, _PendingHaltPC, 0);
  }
}

void CDevice::_Complete(DEVICE_JOB* pJob, int ReturnCode) {
  U32 Type = pJob->Type;
  pJob->Status =
      ReturnCode == -1 ? JOB_STATUS_FAILED : (ReturnCode < 0 ? JOB_STATUS_DROPPED : JOB_STATUS_DONE);
  if (pJob->Status == JOB_STATUS_DROPPED) {
    _PostDeferredHaltReport();
    ReleaseJob(pJob);
    return;
  }
  if (Type == JT_RESET || _IsStepJob(Type)) {
    I64 PC = _aRegs[REG_PC].load();
    pJob->aResult[0] = PC > 0 ? PC : 0;
  }
  if (Type == JT_HALT || Type == JT_RUN_TO) {
    _PostDeferredHaltReport();
    ReleaseJob(pJob);  // the halt sequence tells the outcome
    return;
  }
  if ((Type == JT_STEP_INTO || Type == JT_STEP_OVER || Type == JT_STEP_OUT) && ReturnCode == 1) {
    _PostDeferredHaltReport();
    ReleaseJob(pJob);  // the step goes on as a run to a hidden breakpoint
    return;
  }
  if (Type == JT_WRITE_REG && pJob->Status == JOB_STATUS_DONE) {
    _UpdateTargetExecState();
  }
  if (Type < 64 && JobEventMuted[Type]) {
    _PostDeferredHaltReport();
    ReleaseJob(pJob);
    return;
  }
  std::unique_lock<std::recursive_mutex> Lock(_ReleaseMutex);
  if (PostDeviceEvent(DEV_EVENT_JOB_DONE, U64(uintptr_t(pJob)), 0) < 0) {
    Lock.unlock();
    _PostDeferredHaltReport();
    ReleaseJob(pJob);
    return;
  }
  _RecordsPosted.fetch_add(1);
  // The halt that a connect found is told right after the connect itself, and before its waiter goes
  // on: whoever waited for the connect finds both reports queued.
  _PostDeferredHaltReport();
  // Clearing the pending bit releases a waiter; the release mutex keeps the main thread from zeroing
  // the record before this last write.
  _FlagsOf(pJob).fetch_and(~JOB_FLAG_PENDING, std::memory_order_acq_rel);
  Lock.unlock();
  SignalDeviceProgress();
}
