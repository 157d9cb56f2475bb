// The way back from the device thread to the main thread: a ring of 10,000 events with a pool of 1,000
// strings, the worker timer that drains it on the main thread, and the dispatch of each event to the
// listeners (with the filter that drops outdated job reports).
#pragma once

#include <QTimer>
#include <functional>

#include "app/base/Types.h"
#include "device/DeviceJob.h"

enum DEVICE_EVENT_TYPES : U32 {
  DEV_EVENT_NONE = 0,
  DEV_EVENT_JOB_DONE = 1,
  DEV_EVENT_EVAL_BP_CONDITION = 2,
  DEV_EVENT_CONFIG_PARAM_CHANGED = 3,
  DEV_EVENT_HW_CAP_CHANGED = 4,
  DEV_EVENT_CONNECTION_LOST = 5,
  DEV_EVENT_ABOUT_TO_DISCONNECT = 6,
  DEV_EVENT_ABOUT_TO_RESUME = 7,
  DEV_EVENT_ABOUT_TO_STEP = 8,
  DEV_EVENT_CPU_MODE_CHANGED = 9,
  DEV_EVENT_EXEC_MODE_CHANGED = 10,
  DEV_EVENT_ENDIANESS_CHANGED = 11,
  DEV_EVENT_LOG_MSG = 13,
  DEV_EVENT_STATUS_MSG = 14,
  DEV_EVENT_PROGRESS_MSG = 15,
  DEV_EVENT_PROGRESS_START = 16,
  DEV_EVENT_PROGRESS_END = 17,
  DEV_EVENT_PROGRESS_VALUE = 18,
  DEV_EVENT_LAST = 19,
};

struct DEVICE_EVENT {
  U32 Type;  // 0 marks a free entry
  U64 aArg[2];
};

constexpr U32 kEventRingSize = 10000;
constexpr U32 kEventStringPoolSize = 1000;
constexpr U32 kEventStringLen = 1000;

// Posting, from any thread. -1 when the ring is full ("Target event queue full. job not inserted").
int PostDeviceEvent(U32 Type, U64 Arg0, U64 Arg1);
// Copies the text into the string pool and posts its pool index as the first argument.
int PostDeviceStringEvent(U32 Type, const char* sText, U64 Arg1);
// The text of a string event; valid until the pool wraps, 1,000 string events later.
const char* GetDeviceEventString(U64 PoolIdx);
// Takes the oldest event; false when the ring is empty. Only one thread takes at a time.
bool TakeDeviceEvent(DEVICE_EVENT* pEvent);
// True when one of the next Count entries after the head is a finished step job.
bool IsStepJobEventQueued(U32 Count);
// True when no event waits in the ring.
bool IsDeviceEventQueueEmpty();
// Empties the ring and the string pool index.
void ResetDeviceEventQueue();
// Dispatches one event to the listeners on the calling thread (the main thread, or a pumping waiter).
void DispatchDeviceEvent(const DEVICE_EVENT& Event);
// Takes and dispatches up to MaxCount events; returns how many were dispatched.
int DispatchDeviceEvents(int MaxCount);

// Waiting for the device without spinning. The progress count moves whenever an event is posted, a job
// finishes or is cancelled or released, and when the device thread stops. A waiter reads the count,
// tests its condition, and sleeps until the count moves or its slice of time runs out, so it cannot
// miss a change that came between its test and its sleep.
U64 GetDeviceProgress();
void SignalDeviceProgress();
// Returns when the count differs from Seen, or after TimeoutMS.
void WaitForDeviceProgress(U64 Seen, int TimeoutMS);

// What WaitForDevice does while it waits.
enum : U32 {
  WAIT_PROCESS_QT_EVENTS = 1u << 0,       // the calling thread's Qt events (timers, painting)
  WAIT_DISPATCH_DEVICE_EVENTS = 1u << 1,  // device events, to the listeners on the calling thread
  WAIT_NO_USER_INPUT = 1u << 2,           // with WAIT_PROCESS_QT_EVENTS: keystrokes and clicks wait
};
// Qt events are processed at least this often while a waiter sleeps; device events wake it at once.
constexpr int kWaitPumpIntervalMS = 10;
// Waits until Done() holds (true) or TimeoutMS has passed (false; a negative TimeoutMS has no limit).
// Between tests the thread sleeps; it wakes on device progress, and every kWaitPumpIntervalMS when it
// processes Qt events.
bool WaitForDevice(const std::function<bool()>& Done, int TimeoutMS, U32 Flags);

// The job-event filter: true when a finished job must not be told to anyone.
bool IsJobEventFiltered(const DEVICE_JOB* pJob);

// A 1 ms timer on the main thread that hands up to ten device events per tick to the listeners.
class CDeviceEventWorker : public QTimer {
  Q_OBJECT
 public:
  explicit CDeviceEventWorker(QObject* pParent = nullptr);

 protected:
  void timerEvent(QTimerEvent* pEvent) override;
};
