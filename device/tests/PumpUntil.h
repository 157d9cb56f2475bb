// Waiting in tests: dispatches device events on the calling thread until a condition holds or a bound
// runs out, so no test depends on how long anything takes.
#pragma once

#include <QThread>
#include <chrono>
#include <functional>

#include "device/DeviceEvents.h"

inline bool PumpUntil(const std::function<bool()>& Done, int TimeoutMS = 10000) {
  auto End = std::chrono::steady_clock::now() + std::chrono::milliseconds(TimeoutMS);
  while (std::chrono::steady_clock::now() < End) {
    DispatchDeviceEvents(10);
    if (Done()) {
      return true;
    }
    QThread::yieldCurrentThread();
  }
  return Done();
}
