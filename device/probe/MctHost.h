// Host side of the memory channel terminal: finds and checks the control block _QUORIN_MCT in target
// RAM and moves bytes through its rings. Layout as in target/mct/quorin_mct.h.
#pragma once

#include <functional>
#include <string>

#include "app/base/Types.h"

enum : U32 {
  MCT_MAGIC0 = 0x54434D51,
  MCT_MAGIC1 = 0x314E4843,
  MCT_VERSION = 1,
  MCT_MAX_CHANNELS = 8,
  MCT_HEADER_SIZE = 16,
  MCT_RING_SIZE = 16,
};

// Target memory access as the terminal needs it: 0 when all bytes moved, negative otherwise.
typedef std::function<int(U32 Addr, U32 NumBytes, U8* pData)> MCT_READ_FUNC;
typedef std::function<int(U32 Addr, U32 NumBytes, const U8* pData)> MCT_WRITE_FUNC;

// Everything read from the target is checked before use: a ring must lie inside the RAM range given
// at Start, and head and tail inside the ring. A block that fails a check is refused with a text that
// names the address and the field.
class CMctHost {
 public:
  // An address from "SetMCTAddr"; 0 forgets it, so Start searches the RAM.
  void SetAddr(U32 Addr) { _UserAddr = Addr; }
  U32 GetAddr() const { return _UserAddr; }
  // The RAM range in which rings must lie; Start sets it too.
  void SetRAM(U32 RAMAddr, U32 RAMSize) {
    _RAMAddr = RAMAddr;
    _RAMSize = RAMSize;
  }
  // Checks the block at Addr: 0, or -1 with sError naming the problem.
  int Validate(U32 Addr, const MCT_READ_FUNC& pfRead, std::string& sError) const;
  int Start(U32 RAMAddr, U32 RAMSize, const MCT_READ_FUNC& pfRead, std::string& sError);
  void Stop() { _Started = false; }
  bool IsStarted() const { return _Started; }
  U32 GetBlockAddr() const { return _BlockAddr; }
  // Bytes moved, or -1 with sError set.
  int Read(U32 Channel, U8* pData, U32 NumBytes, const MCT_READ_FUNC& pfRead, const MCT_WRITE_FUNC& pfWrite,
           std::string& sError);
  int Write(U32 Channel, const U8* pData, U32 NumBytes, const MCT_READ_FUNC& pfRead,
            const MCT_WRITE_FUNC& pfWrite, std::string& sError);

 private:
  struct RING {
    U32 Addr, Size, Head, Tail;
  };
  int _ReadRing(U32 RingAddr, RING& Ring, const MCT_READ_FUNC& pfRead, std::string& sError) const;

  U32 _UserAddr = 0;
  U32 _BlockAddr = 0;
  U32 _NumChannels = 0;
  U32 _RAMAddr = 0, _RAMSize = 0;
  bool _Started = false;
};
