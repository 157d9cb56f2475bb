// A listener that records the answers of location reads and writes, for the location tests.
#pragma once

#include <vector>

#include "app/base/SymLoc.h"
#include "device/DeviceDataProvider.h"
#include "device/DeviceEventListener.h"

struct LOC_ANSWER {
  bool Done;
  U32 nBytes;
  std::vector<U8> aData;  // nBytes of the value when done
};

struct LOC_RECORDER : CDeviceEventListener {
  std::vector<LOC_ANSWER> aRead;
  std::vector<std::vector<I64>> aReadLocs;  // values of each JT_READ_LOCS answer; empty when it failed
  std::vector<U32> aReadLocsFlag;
  std::vector<bool> aWrite;  // done or failed, per write

  ~LOC_RECORDER() override { CDeviceDataProvider::Instance()->CancelRequests(this); }
  void OnDeviceReadLocDone(const ELF_SYM_LOC&, U32 n, U8* p) override {
    aRead.push_back({true, n, std::vector<U8>(p, p + n)});
  }
  void OnDeviceReadLocFailed(const ELF_SYM_LOC&, U32 n) override { aRead.push_back({false, n, {}}); }
  void OnDeviceReadLocsDone(U32 Cnt, ELF_SYM_LOC*, I64* paVals, U32 Flag) override {
    aReadLocs.emplace_back(paVals, paVals + Cnt);
    aReadLocsFlag.push_back(Flag);
  }
  void OnDeviceReadLocsFailed(U32, ELF_SYM_LOC*, U32 Flag) override {
    aReadLocs.emplace_back();
    aReadLocsFlag.push_back(Flag);
  }
  void OnDeviceWriteLocDone(const ELF_SYM_LOC&, U32, U64) override { aWrite.push_back(true); }
  void OnDeviceWriteLocFailed(const ELF_SYM_LOC&, U32, U64) override { aWrite.push_back(false); }
};

inline ELF_SYM_LOC MemLoc(U32 Addr, U32 Kind = ELF_LOC_ADDR, I32 Offset = 0) {
  ELF_SYM_LOC Loc = {};
  Loc.kind = Kind;
  Loc.addr = Addr;
  Loc.offset = Offset;
  return Loc;
}

inline ELF_SYM_LOC RegLoc(U32 Reg, U32 Kind = ELF_LOC_REG, I32 Offset = 0) {
  ELF_SYM_LOC Loc = {};
  Loc.kind = Kind;
  Loc.reg = Reg;
  Loc.offset = Offset;
  return Loc;
}

inline ELF_SYM_LOC ConstLoc(U64 Value) {
  ELF_SYM_LOC Loc = {};
  Loc.kind = ELF_LOC_CONST;
  Loc.value = Value;
  return Loc;
}
