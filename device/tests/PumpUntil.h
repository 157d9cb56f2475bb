// Waiting in tests: dispatches device events on the calling thread until a condition holds or a bound
// runs out, so no test depends on how long anything takes. The thread sleeps between tests and wakes
// when the device moves.
#pragma once

#include <functional>

#include "device/DeviceEvents.h"

inline bool PumpUntil(const std::function<bool()>& Done, int TimeoutMS = 10000) {
  return WaitForDevice(Done, TimeoutMS, WAIT_DISPATCH_DEVICE_EVENTS);
}
