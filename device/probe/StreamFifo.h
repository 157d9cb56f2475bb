// A bounded byte FIFO between a producer (the simulated target's thread) and the probe layer's readers.
#pragma once

#include <deque>
#include <mutex>

#include "app/base/Types.h"

// When full, the oldest bytes are dropped, the way a probe's trace buffer overruns: the target never
// waits for the host. Takes its own lock, so producers need not hold the layer's mutex.
class CStreamFifo {
 public:
  explicit CStreamFifo(size_t Capacity = 1 << 20) : _Capacity(Capacity) {}

  void Push(const U8* pData, size_t NumBytes);
  // Moves at most NumBytes out; gives the count moved.
  size_t Pop(U8* pData, size_t NumBytes);
  // Drops at most NumBytes from the front; gives the count dropped.
  size_t Discard(size_t NumBytes);
  void Clear();
  size_t Size() const;
  U64 GetNumDropped() const;

 private:
  mutable std::mutex _Mutex;
  std::deque<U8> _Bytes;
  size_t _Capacity;
  U64 _NumDropped = 0;
};
