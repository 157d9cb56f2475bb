// The read cache for memory and registers. It is the one listener that hears the completions of
// register, memory and location reads; windows take those results from it, never from the job.
#pragma once

#include "device/DeviceEventListener.h"

class CDeviceDataProvider : public CDeviceEventListener {
 public:
  // The provider, created at first use.
  static CDeviceDataProvider* Instance();

  CDeviceDataProvider();
  ~CDeviceDataProvider() override;
};
