// libFuzzer target over what a gdbserver sends: packet framing and payload decoding, hex data and
// numbers, console output packets, and the flash memory map. Build with -DZEVRA_FUZZ=ON and clang; run
// build/device/probe/zevra_gdb_reply_fuzz [corpus folder].
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "device/probe/GdbConnection.h"
#include "device/probe/GdbPacket.h"
#include "device/probe/GdbRemote.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pData, size_t Size) {
  const std::string sInput(reinterpret_cast<const char*>(pData), Size);
  std::string sPayload;
  GDB_DecodePayload(sInput, sPayload, 4096);
  std::vector<U8> aBytes;
  GDB_FromHex(sInput, aBytes);
  U32 Value = 0;
  GDB_ParseHexU32(sInput, &Value);
  GDB_IsOutputPacket(sInput);
  std::vector<GDB_MEM_REGION> aRegions;
  GDB_ParseMemoryMap(sInput, aRegions);
  return 0;
}
