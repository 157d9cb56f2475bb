// Waiting for the jobs of a command, and settling the device between batch lines.
#include "app/actions/CommandWait.h"

#include <QCoreApplication>
#include <QThread>
#include <chrono>

#include "app/actions/ActionTable.h"
#include "device/Device.h"
#include "device/DeviceEvents.h"

namespace {

using Clock = std::chrono::steady_clock;

bool _Elapsed(Clock::time_point Start, int TimeoutMS) {
  return Clock::now() - Start > std::chrono::milliseconds(TimeoutMS);
}

void _Pump() {
  QCoreApplication::processEvents();
  DispatchDeviceEvents(10);
  QThread::yieldCurrentThread();
}

int _RowByName(const char* sName) {
  for (int Id = 0; Id < kNumActions; ++Id) {
    if (GetFunctionName(Id) == QLatin1String(sName)) {
      return Id;
    }
  }
  return -1;
}

// Waits while a connect job is queued and the device thread runs, handling events.
int _WaitForConnect() {
  CDevice* pDevice = CDevice::Instance();
  Clock::time_point Start = Clock::now();
  while (pDevice->IsJobPending(JT_CONNECT) && pDevice->IsThreadRunning()) {
    if (_Elapsed(Start, 120000)) {
      return -1;
    }
    _Pump();
  }
  return 0;
}

int _WaitForHalted(int TimeoutMS) {
  CDevice* pDevice = CDevice::Instance();
  Clock::time_point Start = Clock::now();
  while (!pDevice->IsHalted() && pDevice->IsConnected() && !_Elapsed(Start, TimeoutMS)) {
    _Pump();
  }
  return 0;
}

}  // namespace

int WaitForCommandJobs(int Id) {
  static const int DebugStart = _RowByName("Debug.Start");
  static const int DebugReset = _RowByName("Debug.Reset");
  static const int DebugHalt = _RowByName("Debug.Halt");
  static const int ExecReset = _RowByName("Exec.Reset");
  if (Id < 0 || Id >= kNumActions) {
    return -1;
  }
  CDevice* pDevice = CDevice::Instance();
  if (Id == DebugStart) {
    return _WaitForConnect();
  }
  int Result = 0;
  for (U32 Type : g_aActions[Id].aWaitsFor) {
    if (Type != 0 && pDevice->WaitForJobThenPump(Type, true) < 0) {
      Result = -1;
    }
  }
  if (Id == DebugReset && pDevice->WaitForJobThenPump(JT_RESET, true) < 0) {
    Result = -1;
  }
  if (Id == DebugHalt || Id == ExecReset) {
    _WaitForHalted(100);
  }
  return Result;
}

bool SettleDevice(int TimeoutMS) {
  CDevice* pDevice = CDevice::Instance();
  Clock::time_point Start = Clock::now();
  for (;;) {
    QCoreApplication::processEvents();
    DispatchDeviceEvents(10);
    bool Busy = pDevice->IsJobPending(JT_ANY) || !IsDeviceEventQueueEmpty();
    if (!Busy) {
      return true;
    }
    if (_Elapsed(Start, TimeoutMS) || !pDevice->IsThreadRunning()) {
      return false;
    }
    QThread::yieldCurrentThread();
  }
}

int RunActionAndWait(int Id) {
  if (TriggerAction(Id) < 0) {
    return -1;
  }
  WaitForCommandJobs(Id);
  return GetResult(Id);
}
