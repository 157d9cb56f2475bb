#include "device/probe/MctHost.h"

#include <algorithm>
#include <cstdio>
#include <vector>

namespace {

std::string _Format(const char* sFormat, U32 a, U32 b = 0, U32 c = 0) {
  char ac[256];
  snprintf(ac, sizeof(ac), sFormat, a, b, c);
  return ac;
}

U32 _GetU32(const U8* p) {
  return U32(p[0]) | U32(p[1]) << 8 | U32(p[2]) << 16 | U32(p[3]) << 24;
}

void _PutU32(U8* p, U32 v) {
  p[0] = U8(v);
  p[1] = U8(v >> 8);
  p[2] = U8(v >> 16);
  p[3] = U8(v >> 24);
}

}  // namespace

int CMctHost::_ReadRing(U32 RingAddr, RING& Ring, const MCT_READ_FUNC& pfRead, std::string& sError) const {
  U8 ac[MCT_RING_SIZE];
  if (pfRead(RingAddr, sizeof(ac), ac) != 0) {
    sError = _Format("memory channel ring at 0x%08X can't be read", RingAddr);
    return -1;
  }
  Ring = {_GetU32(ac), _GetU32(ac + 4), _GetU32(ac + 8), _GetU32(ac + 12)};
  U64 End = U64(Ring.Addr) + Ring.Size;
  if (Ring.Size < 2 || Ring.Addr < _RAMAddr || End > U64(_RAMAddr) + _RAMSize) {
    sError = _Format("memory channel ring at 0x%08X: buffer 0x%08X size %u lies outside RAM", RingAddr,
                     Ring.Addr, Ring.Size);
    return -1;
  }
  if (Ring.Head >= Ring.Size || Ring.Tail >= Ring.Size) {
    sError = _Format("memory channel ring at 0x%08X: head %u or tail %u outside size", RingAddr, Ring.Head,
                     Ring.Tail);
    sError += _Format(" %u", Ring.Size);
    return -1;
  }
  return 0;
}

int CMctHost::Validate(U32 Addr, const MCT_READ_FUNC& pfRead, std::string& sError) const {
  U8 ac[MCT_HEADER_SIZE];
  if (Addr & 3) {
    sError = _Format("memory channel control block at 0x%08X is not word aligned", Addr);
    return -1;
  }
  if (pfRead(Addr, sizeof(ac), ac) != 0) {
    sError = _Format("memory channel control block at 0x%08X can't be read", Addr);
    return -1;
  }
  if (_GetU32(ac) != MCT_MAGIC0 || _GetU32(ac + 4) != MCT_MAGIC1) {
    sError = _Format("no memory channel control block at 0x%08X (magic words 0x%08X 0x%08X)", Addr,
                     _GetU32(ac), _GetU32(ac + 4));
    return -1;
  }
  if (_GetU32(ac + 8) != MCT_VERSION) {
    sError =
        _Format("memory channel control block at 0x%08X has version %u, expected 1", Addr, _GetU32(ac + 8));
    return -1;
  }
  U32 NumChannels = _GetU32(ac + 12);
  if (NumChannels < 1 || NumChannels > MCT_MAX_CHANNELS) {
    sError =
        _Format("memory channel control block at 0x%08X: channel count %u not in 1..8", Addr, NumChannels);
    return -1;
  }
  for (U32 i = 0; i < 2 * NumChannels; i++) {
    RING Ring;
    if (_ReadRing(Addr + MCT_HEADER_SIZE + i * MCT_RING_SIZE, Ring, pfRead, sError) != 0) {
      return -1;
    }
  }
  return 0;
}

int CMctHost::Start(U32 RAMAddr, U32 RAMSize, const MCT_READ_FUNC& pfRead, std::string& sError) {
  _RAMAddr = RAMAddr;
  _RAMSize = RAMSize;
  _Started = false;
  U32 Found = 0;
  if (_UserAddr != 0) {
    if (Validate(_UserAddr, pfRead, sError) != 0) {
      return -1;
    }
    Found = _UserAddr;
  } else {
    // Search the RAM for the magic pair, in chunks, word aligned.
    const U32 kChunk = 4096;
    std::vector<U8> aBuf(kChunk + 4);
    for (U32 Off = 0; Off < RAMSize && !Found; Off += kChunk) {
      U32 n = std::min<U32>(kChunk + 4, RAMSize - Off);
      if (n < 8 || pfRead(RAMAddr + Off, n, aBuf.data()) != 0) {
        continue;
      }
      for (U32 i = 0; i + 8 <= n && !Found; i += 4) {
        if (_GetU32(&aBuf[i]) == MCT_MAGIC0 && _GetU32(&aBuf[i + 4]) == MCT_MAGIC1) {
          std::string sIgnored;
          if (Validate(RAMAddr + Off + i, pfRead, sIgnored) == 0) {
            Found = RAMAddr + Off + i;
          }
        }
      }
    }
    if (!Found) {
      sError =
          _Format("no memory channel control block found in RAM 0x%08X..0x%08X", RAMAddr, RAMAddr + RAMSize);
      return -1;
    }
  }
  U8 ac[4];
  pfRead(Found + 12, 4, ac);
  _NumChannels = _GetU32(ac);
  _BlockAddr = Found;
  _Started = true;
  return 0;
}

int CMctHost::Read(U32 Channel, U8* pData, U32 NumBytes, const MCT_READ_FUNC& pfRead,
                   const MCT_WRITE_FUNC& pfWrite, std::string& sError) {
  if (!_Started) {
    sError = "memory channel not started";
    return -1;
  }
  if (Channel >= _NumChannels) {
    sError = _Format("memory channel buffer %u does not exist (the target has %u)", Channel, _NumChannels);
    return -1;
  }
  U32 RingAddr = _BlockAddr + MCT_HEADER_SIZE + 2 * Channel * MCT_RING_SIZE;
  RING Ring;
  if (_ReadRing(RingAddr, Ring, pfRead, sError) != 0) {
    return -1;
  }
  U32 Avail = (Ring.Head + Ring.Size - Ring.Tail) % Ring.Size;
  U32 n = std::min(Avail, NumBytes);
  U32 First = std::min(n, Ring.Size - Ring.Tail);
  if (First && pfRead(Ring.Addr + Ring.Tail, First, pData) != 0) {
    sError = _Format("memory channel buffer at 0x%08X can't be read", Ring.Addr);
    return -1;
  }
  if (n > First && pfRead(Ring.Addr, n - First, pData + First) != 0) {
    sError = _Format("memory channel buffer at 0x%08X can't be read", Ring.Addr);
    return -1;
  }
  if (n) {
    U8 ac[4];
    _PutU32(ac, (Ring.Tail + n) % Ring.Size);
    if (pfWrite(RingAddr + 12, 4, ac) != 0) {
      sError = _Format("memory channel ring at 0x%08X: tail can't be written", RingAddr);
      return -1;
    }
  }
  return int(n);
}

int CMctHost::Write(U32 Channel, const U8* pData, U32 NumBytes, const MCT_READ_FUNC& pfRead,
                    const MCT_WRITE_FUNC& pfWrite, std::string& sError) {
  if (!_Started) {
    sError = "memory channel not started";
    return -1;
  }
  if (Channel >= _NumChannels) {
    sError = _Format("memory channel buffer %u does not exist (the target has %u)", Channel, _NumChannels);
    return -1;
  }
  U32 RingAddr = _BlockAddr + MCT_HEADER_SIZE + (2 * Channel + 1) * MCT_RING_SIZE;
  RING Ring;
  if (_ReadRing(RingAddr, Ring, pfRead, sError) != 0) {
    return -1;
  }
  U32 Free = (Ring.Tail + Ring.Size - Ring.Head - 1) % Ring.Size;
  U32 n = std::min(Free, NumBytes);
  U32 First = std::min(n, Ring.Size - Ring.Head);
  if ((First && pfWrite(Ring.Addr + Ring.Head, First, pData) != 0) ||
      (n > First && pfWrite(Ring.Addr, n - First, pData + First) != 0)) {
    sError = _Format("memory channel buffer at 0x%08X can't be written", Ring.Addr);
    return -1;
  }
  if (n) {
    U8 ac[4];
    _PutU32(ac, (Ring.Head + n) % Ring.Size);
    if (pfWrite(RingAddr + 8, 4, ac) != 0) {
      sError = _Format("memory channel ring at 0x%08X: head can't be written", RingAddr);
      return -1;
    }
  }
  return int(n);
}
