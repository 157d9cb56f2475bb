// Waiting for the jobs of a command, and settling the device between batch lines.
#include "app/actions/CommandWait.h"

#include "app/actions/ActionTable.h"
#include "device/Device.h"
#include "device/DeviceEvents.h"

namespace {

// Qt events and device events keep flowing while a command waits; between them the thread sleeps
// until the device moves.
constexpr U32 kPumpAll = WAIT_PROCESS_QT_EVENTS | WAIT_DISPATCH_DEVICE_EVENTS;

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
  bool Done =
      WaitForDevice([pDevice] { return !pDevice->IsJobPending(JT_CONNECT) || !pDevice->IsThreadRunning(); },
                    120000, kPumpAll);
  return Done ? 0 : -1;
}

int _WaitForHalted(int TimeoutMS) {
  CDevice* pDevice = CDevice::Instance();
  WaitForDevice([pDevice] { return pDevice->IsHalted() || !pDevice->IsConnected(); }, TimeoutMS, kPumpAll);
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
  bool Ended = false;
  bool Settled = WaitForDevice(
      [&] {
        if (!pDevice->IsJobPending(JT_ANY) && IsDeviceEventQueueEmpty()) {
          return true;
        }
        Ended = !pDevice->IsThreadRunning();
        return Ended;
      },
      TimeoutMS, kPumpAll);
  return Settled && !Ended;
}

int RunActionAndWait(int Id) {
  if (TriggerAction(Id) < 0) {
    return -1;
  }
  WaitForCommandJobs(Id);
  return GetResult(Id);
}
