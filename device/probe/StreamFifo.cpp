#include "device/probe/StreamFifo.h"

#include <algorithm>

void CStreamFifo::Push(const U8* pData, size_t NumBytes) {
  std::lock_guard<std::mutex> Lock(_Mutex);
  _Bytes.insert(_Bytes.end(), pData, pData + NumBytes);
  if (_Bytes.size() > _Capacity) {
    size_t Excess = _Bytes.size() - _Capacity;
    _Bytes.erase(_Bytes.begin(), _Bytes.begin() + Excess);
    _NumDropped += Excess;
  }
}

size_t CStreamFifo::Pop(U8* pData, size_t NumBytes) {
  std::lock_guard<std::mutex> Lock(_Mutex);
  size_t n = std::min(NumBytes, _Bytes.size());
  std::copy(_Bytes.begin(), _Bytes.begin() + n, pData);
  _Bytes.erase(_Bytes.begin(), _Bytes.begin() + n);
  return n;
}

size_t CStreamFifo::Discard(size_t NumBytes) {
  std::lock_guard<std::mutex> Lock(_Mutex);
  size_t n = std::min(NumBytes, _Bytes.size());
  _Bytes.erase(_Bytes.begin(), _Bytes.begin() + n);
  return n;
}

void CStreamFifo::Clear() {
  std::lock_guard<std::mutex> Lock(_Mutex);
  _Bytes.clear();
}

size_t CStreamFifo::Size() const {
  std::lock_guard<std::mutex> Lock(_Mutex);
  return _Bytes.size();
}

U64 CStreamFifo::GetNumDropped() const {
  std::lock_guard<std::mutex> Lock(_Mutex);
  return _NumDropped;
}
