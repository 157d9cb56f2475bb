// The device event ring, its string pool, the event worker and the dispatch to the listeners.
#include "device/DeviceEvents.h"

#include <QCoreApplication>
#include <QTimerEvent>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <mutex>

#include "app/base/Log.h"
#include "device/Device.h"
#include "device/DeviceDataProvider.h"
#include "device/DeviceEventListener.h"

namespace {

DEVICE_EVENT _aEvent[kEventRingSize];
U32 _EventHead = 0;
U32 _EventTail = 0;
// Standard mutexes throughout, so that a thread sanitizer sees every hand-over between the threads.
std::mutex _PostMutex;
std::mutex _TakeMutex;
char _aacStringPool[kEventStringPoolSize][kEventStringLen + 1];
U32 _StringIdx = 0;
std::mutex _StringMutex;

std::mutex _ProgressMutex;
std::condition_variable _ProgressChanged;
U64 _Progress = 0;  // guarded by _ProgressMutex

std::atomic_ref<U32> _TypeOf(DEVICE_EVENT& e) {
  return std::atomic_ref<U32>(e.Type);
}

bool _IsStepJobType(U32 Type) {
  return Type == JT_STEP_INST || Type == JT_STEP_INTO || Type == JT_STEP_OVER || Type == JT_STEP_OUT;
}

}  // namespace

int PostDeviceEvent(U32 Type, U64 Arg0, U64 Arg1) {
  DEVICE_EVENT* pEntry;
  {
    std::unique_lock<std::mutex> Lock(_PostMutex);
    pEntry = &_aEvent[_EventTail];
    if (_TypeOf(*pEntry).load(std::memory_order_acquire) != 0) {
      Lock.unlock();
      LogMessage("Target event queue full. job not inserted", MSG_WARNING | MSG_TO_STDOUT | MSG_TO_LOGFILE);
      return -1;
    }
    _EventTail = (_EventTail + 1) % kEventRingSize;
  }
  pEntry->aArg[0] = Arg0;
  pEntry->aArg[1] = Arg1;
  // The type goes in last so that an entry is never seen half written.
  _TypeOf(*pEntry).store(Type, std::memory_order_release);
  SignalDeviceProgress();
  return 0;
}

int PostDeviceStringEvent(U32 Type, const char* sText, U64 Arg1) {
  U32 Idx;
  {
    std::lock_guard<std::mutex> Lock(_StringMutex);
    Idx = _StringIdx;
    _StringIdx = (_StringIdx + 1) % kEventStringPoolSize;
    size_t n = sText ? strnlen(sText, kEventStringLen) : 0;
    memcpy(_aacStringPool[Idx], sText ? sText : "", n);
    _aacStringPool[Idx][n] = 0;
  }
  return PostDeviceEvent(Type, Idx, Arg1);
}

const char* GetDeviceEventString(U64 PoolIdx) {
  return PoolIdx < kEventStringPoolSize ? _aacStringPool[PoolIdx] : "";
}

bool TakeDeviceEvent(DEVICE_EVENT* pEvent) {
  std::lock_guard<std::mutex> Lock(_TakeMutex);
  DEVICE_EVENT& Entry = _aEvent[_EventHead];
  if (_TypeOf(Entry).load(std::memory_order_acquire) == 0) {
    return false;
  }
  pEvent->Type = Entry.Type;
  pEvent->aArg[0] = Entry.aArg[0];
  pEvent->aArg[1] = Entry.aArg[1];
  Entry.aArg[0] = 0;
  Entry.aArg[1] = 0;
  _TypeOf(Entry).store(0, std::memory_order_release);
  _EventHead = (_EventHead + 1) % kEventRingSize;
  return true;
}

bool IsStepJobEventQueued(U32 Count) {
  std::lock_guard<std::mutex> Lock(_TakeMutex);
  for (U32 i = 0; i < Count; ++i) {
    DEVICE_EVENT& Entry = _aEvent[(_EventHead + i) % kEventRingSize];
    if (_TypeOf(Entry).load(std::memory_order_acquire) != DEV_EVENT_JOB_DONE) {
      continue;
    }
    DEVICE_JOB* pJob = reinterpret_cast<DEVICE_JOB*>(uintptr_t(Entry.aArg[0]));
    if (pJob && _IsStepJobType(std::atomic_ref<U32>(pJob->Type).load(std::memory_order_acquire))) {
      return true;
    }
  }
  return false;
}

bool IsDeviceEventQueueEmpty() {
  std::lock_guard<std::mutex> Lock(_TakeMutex);
  return _TypeOf(_aEvent[_EventHead]).load(std::memory_order_acquire) == 0;
}

void ResetDeviceEventQueue() {
  std::lock_guard<std::mutex> PostLock(_PostMutex);
  std::lock_guard<std::mutex> TakeLock(_TakeMutex);
  for (U32 i = 0; i < kEventRingSize; ++i) {
    _TypeOf(_aEvent[i]).store(0);
  }
  _EventHead = 0;
  _EventTail = 0;
  std::lock_guard<std::mutex> StringLock(_StringMutex);
  _StringIdx = 0;
}

U64 GetDeviceProgress() {
  std::lock_guard<std::mutex> Lock(_ProgressMutex);
  return _Progress;
}

void SignalDeviceProgress() {
  {
    std::lock_guard<std::mutex> Lock(_ProgressMutex);
    ++_Progress;
  }
  _ProgressChanged.notify_all();
}

void WaitForDeviceProgress(U64 Seen, int TimeoutMS) {
  if (TimeoutMS <= 0) {
    return;
  }
  std::unique_lock<std::mutex> Lock(_ProgressMutex);
  _ProgressChanged.wait_for(Lock, std::chrono::milliseconds(TimeoutMS), [Seen] { return _Progress != Seen; });
}

bool WaitForDevice(const std::function<bool()>& Done, int TimeoutMS, U32 Flags) {
  using Clock = std::chrono::steady_clock;
  const Clock::time_point End = Clock::now() + std::chrono::milliseconds(TimeoutMS < 0 ? 0 : TimeoutMS);
  const bool ProcessQt = (Flags & WAIT_PROCESS_QT_EVENTS) && QCoreApplication::instance() != nullptr;
  for (;;) {
    // The count is read before the test: whatever changes after the test moves it, and the sleep below
    // returns at once.
    const U64 Seen = GetDeviceProgress();
    if (Done()) {
      return true;
    }
    const Clock::time_point Now = Clock::now();
    if (TimeoutMS >= 0 && Now >= End) {
      return false;
    }
    if (ProcessQt) {
      QCoreApplication::processEvents((Flags & WAIT_NO_USER_INPUT) ? QEventLoop::ExcludeUserInputEvents
                                                                   : QEventLoop::AllEvents);
      if (Done()) {
        return true;  // a timer of the calling thread (the event worker) may have got there
      }
    }
    if ((Flags & WAIT_DISPATCH_DEVICE_EVENTS) && DispatchDeviceEvents(10) > 0) {
      continue;  // a listener may have changed what Done() looks at
    }
    int SliceMS = ProcessQt ? kWaitPumpIntervalMS : 1000;
    if (TimeoutMS >= 0) {
      const auto LeftMS = std::chrono::ceil<std::chrono::milliseconds>(End - Now).count();
      SliceMS = int(std::min<I64>(SliceMS, LeftMS));
    }
    WaitForDeviceProgress(Seen, SliceMS);
  }
}

bool IsJobEventFiltered(const DEVICE_JOB* pJob) {
  CDevice* pDevice = CDevice::Instance();
  U32 Type = pJob->Type;
  bool Skip = false;
  if (Type >= JT_LAST) {
    Skip = true;
  } else if (Type == JT_CONNECT) {
    Skip = pJob->aParam[0] == 3 || pJob->aParam[0] == 4;
  } else if (Type == JT_RESET) {
    Skip = pJob->aParam[0] == 4;
  } else if (Type == JT_HALT) {
    Skip = !pDevice->IsHaltCertain() || U32(pJob->aResult[0]) != pDevice->GetPC();
  } else if (_IsStepJobType(Type)) {
    // Also drops intermediate reports while a step key is held down: only the last step repaints.
    Skip = !pDevice->IsHaltCertain() || U32(pJob->aResult[0]) != pDevice->GetPC() ||
           pDevice->IsSrcStepRunning() || IsStepJobEventQueued(10);
  }
  if (Skip && GetLogSink().IsDebugMode()) {
    char ac[128];
    snprintf(ac, sizeof(ac), "Skipping job event %s", JobTypeToName(Type));
    LogMessage(ac, MSG_INFO | MSG_TO_STDOUT);
  }
  return Skip;
}

static void _DispatchJobDone(DEVICE_JOB* pJob) {
  if (!CDevice::HasInstance()) {
    return;  // the record belonged to a device that is gone; asking for one would start a new thread
  }
  CDevice* pDevice = CDevice::Instance();
  if (!pDevice->IsValidJob(pJob)) {
    return;  // dropped without a word
  }
  if (!IsJobEventFiltered(pJob)) {
    U32 Type = pJob->Type;
    // Reads are answered by the read cache alone; windows take the data from there.
    if (Type == JT_READ_REG || Type == JT_READ_REGS || Type == JT_READ_MEM || Type == JT_READ_LOCATION ||
        Type == JT_READ_CP_REG) {
      CDeviceEventListener* pProvider = CDeviceDataProvider::Instance();
      if (pProvider) {
        pProvider->OnDeviceJobDone(pJob);
      }
    } else {
      CDeviceEventListener::ForEach([pJob](CDeviceEventListener* p) { p->OnDeviceJobDone(pJob); });
    }
  }
  pDevice->ReleaseJob(pJob);
}

void DispatchDeviceEvent(const DEVICE_EVENT& Event) {
  const U64 a0 = Event.aArg[0];
  const U64 a1 = Event.aArg[1];
  switch (Event.Type) {
    case DEV_EVENT_JOB_DONE:
      _DispatchJobDone(reinterpret_cast<DEVICE_JOB*>(uintptr_t(a0)));
      break;
    case DEV_EVENT_EVAL_BP_CONDITION:
      CDeviceEventListener::ForEach([=](CDeviceEventListener* p) { p->OnDeviceEvalBPCondition(U32(a0)); });
      break;
    case DEV_EVENT_CONFIG_PARAM_CHANGED:
      CDeviceEventListener::ForEach(
          [=](CDeviceEventListener* p) { p->OnDeviceConfigParamChanged(int(a0), int(a1)); });
      break;
    case DEV_EVENT_HW_CAP_CHANGED:
      CDeviceEventListener::ForEach(
          [=](CDeviceEventListener* p) { p->OnDeviceHWCapabilityChanged(int(a0), int(a1)); });
      break;
    case DEV_EVENT_CONNECTION_LOST:
      CDeviceEventListener::ForEach([](CDeviceEventListener* p) { p->OnDeviceConnectionLost(); });
      break;
    case DEV_EVENT_ABOUT_TO_DISCONNECT:
      CDeviceEventListener::ForEach([](CDeviceEventListener* p) { p->OnDeviceAboutToDisconnect(); });
      break;
    case DEV_EVENT_ABOUT_TO_RESUME:
      CDeviceEventListener::ForEach([](CDeviceEventListener* p) { p->OnDeviceAboutToResume(); });
      break;
    case DEV_EVENT_ABOUT_TO_STEP:
      CDeviceEventListener::ForEach([](CDeviceEventListener* p) { p->OnDeviceAboutToStep(); });
      break;
    case DEV_EVENT_CPU_MODE_CHANGED:
      CDeviceEventListener::ForEach(
          [=](CDeviceEventListener* p) { p->OnDeviceCPUModeChanged(ARM_CPU_MODES(a0)); });
      break;
    case DEV_EVENT_EXEC_MODE_CHANGED:
      CDeviceEventListener::ForEach(
          [=](CDeviceEventListener* p) { p->OnDeviceExecModeChanged(ARM_EXEC_MODES(a0)); });
      break;
    case DEV_EVENT_ENDIANESS_CHANGED:
      CDeviceEventListener::ForEach(
          [=](CDeviceEventListener* p) { p->OnDeviceEndianessChanged(int(a0), int(a1)); });
      break;
    case DEV_EVENT_LOG_MSG: {
      const char* s = GetDeviceEventString(a0);
      CDeviceEventListener::ForEach(
          [=](CDeviceEventListener* p) { p->OnDeviceLogMsg(s, MSG_INFO_FLAGS(a1)); });
      break;
    }
    case DEV_EVENT_STATUS_MSG: {
      const char* s = GetDeviceEventString(a0);
      CDeviceEventListener::ForEach([=](CDeviceEventListener* p) { p->OnDeviceSetStatusMsg(s); });
      break;
    }
    case DEV_EVENT_PROGRESS_MSG: {
      const char* s = GetDeviceEventString(a0);
      CDeviceEventListener::ForEach([=](CDeviceEventListener* p) { p->OnDeviceSetProgressMsg(s); });
      break;
    }
    case DEV_EVENT_PROGRESS_START:
      CDeviceEventListener::ForEach(
          [=](CDeviceEventListener* p) { p->OnDeviceStartProgress(int(a0), int(a1)); });
      break;
    case DEV_EVENT_PROGRESS_END:
      CDeviceEventListener::ForEach([](CDeviceEventListener* p) { p->OnDeviceEndProgress(); });
      break;
    case DEV_EVENT_PROGRESS_VALUE:
      CDeviceEventListener::ForEach([=](CDeviceEventListener* p) { p->OnDeviceSetProgressValue(int(a0)); });
      break;
    default:
      break;
  }
}

int DispatchDeviceEvents(int MaxCount) {
  int n = 0;
  DEVICE_EVENT Event;
  while (n < MaxCount && TakeDeviceEvent(&Event)) {
    DispatchDeviceEvent(Event);
    ++n;
  }
  return n;
}

CDeviceEventWorker::CDeviceEventWorker(QObject* pParent) : QTimer(pParent) {
  ResetDeviceEventQueue();
  setInterval(1);
}

void CDeviceEventWorker::timerEvent(QTimerEvent* pEvent) {
  if (pEvent->timerId() == timerId()) {
    DispatchDeviceEvents(10);
    return;
  }
  QTimer::timerEvent(pEvent);
}
