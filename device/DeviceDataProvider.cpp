// The read cache's place in the event flow; the cache itself grows with the memory and register access.
#include "device/DeviceDataProvider.h"

#include <atomic>

namespace {
std::atomic<CDeviceDataProvider*> _pProvider{nullptr};
}

CDeviceDataProvider* CDeviceDataProvider::Instance() {
  CDeviceDataProvider* p = _pProvider.load();
  if (p == nullptr) {
    static CDeviceDataProvider* pOwned = new CDeviceDataProvider();  // lives until the process ends
    p = pOwned;
  }
  return p;
}

CDeviceDataProvider::CDeviceDataProvider() {
  CDeviceDataProvider* pNone = nullptr;
  _pProvider.compare_exchange_strong(pNone, this);
}

CDeviceDataProvider::~CDeviceDataProvider() {
  CDeviceDataProvider* pSelf = this;
  _pProvider.compare_exchange_strong(pSelf, nullptr);
}
