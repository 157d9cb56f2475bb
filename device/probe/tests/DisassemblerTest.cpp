// The disassembler entry against arm-none-eabi-objdump's reading of the committed programs, in the
// form the instruction cache expects: upper case with "0x" lower, branch and literal operands relative
// to Addr + 4, SVC and BKPT immediates without "#".
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "device/probe/Disassembler.h"
#include "device/probe/ProbeCore.h"
#include "device/probe/TarvikApi.h"

namespace {

struct TEXT_CASE {
  U32 Addr;
  std::vector<U8> aBytes;
  U8 ITState;
  const char* sExpected;
  const char* sObjdump;  // what objdump prints for the same bytes
};

TEST(Disassembler, TextsFollowObjdumpInTheCacheForm) {
  const TEXT_CASE aCases[] = {
      {0x4E, {0x78, 0x60}, 0, "STR R0, [R7, #4]", "str r0, [r7, #4]"},
      {0x74, {0x13, 0xE0}, 0, "B #0x26", "b.n 9e"},
      {0x78, {0xFF, 0xF7, 0xE6, 0xFF}, 0, "BL #-0x34", "bl 48"},
      {0x8E, {0x08, 0x4A}, 0, "LDR R2, [PC, #0x1E]", "ldr r2, [pc, #32] @ (b0)"},
      {0xA4, {0xE7, 0xDD}, 0, "BLE #-0x32", "ble.n 76"},
      {0xAE, {0x80, 0xBD}, 0, "POP {R7, PC}", "pop {r7, pc}"},
      {0xBA, {0x03, 0xDF}, 0, "SVC 3", "svc 3"},
      {0x1C2, {0xAB, 0xBE}, 0, "BKPT 0xAB", "bkpt 0x00ab"},
      {0xCA, {0x18, 0xBF}, 0, "IT NE", "it ne"},
      {0xCC, {0x01, 0x20}, (1 << 1) | 1, "MOVNE R0, #1", "movne r0, #1 (inside it ne)"},
      {0xCC, {0x01, 0x20}, 0, "MOVS R0, #1", "movs r0, #1"},
  };
  for (const TEXT_CASE& C : aCases) {
    char ac[1024];
    int Len =
        DISASM_DisassembleThumb(ac, sizeof(ac), C.Addr, C.aBytes.data(), U32(C.aBytes.size()), C.ITState);
    EXPECT_EQ(Len, int(C.aBytes.size())) << C.sObjdump;
    EXPECT_STREQ(ac, C.sExpected) << C.sObjdump;
  }
}

TEST(Disassembler, UndefinedAndTruncatedBytesFail) {
  char ac[1024];
  const U8 aUdf32[] = {0xF0, 0xF7, 0x00, 0xA0};  // permanently undefined 32-bit encoding
  EXPECT_EQ(DISASM_DisassembleThumb(ac, sizeof(ac), 0x100, aUdf32, 2, 0), -1) << "second halfword missing";
  EXPECT_NE(std::string(ac).find("0x00000100"), std::string::npos) << ac;
}

TEST(Disassembler, DecoderRecordsFlowConditionsAndITFields) {
  void* pDecoder = nullptr;
  auto pfGet = reinterpret_cast<int (*)(U32, void**)>(TARVIK_GetpFunc(TARVIK_FUNC_ID_DISASSEMBLER));
  ASSERT_NE(pfGet, nullptr);
  ASSERT_EQ(pfGet(PROBE_CORE_CORTEX_M4, &pDecoder), 0);
  auto pfDecode = reinterpret_cast<int (*)(DISASM_RECORD*, const U8*, U32, U32)>(pDecoder);
  struct CASE {
    std::vector<U8> aBytes;
    U32 Len;
    U8 Flow, Call, Return, Cond;
    U16 IT;
    const char* sObjdump;
  } aCases[] = {
      {{0x78, 0x60}, 2, 0, 0, 0, 0, 0, "str r0, [r7, #4]"},
      {{0xFF, 0xF7, 0xE6, 0xFF}, 4, 1, 1, 0, 0, 0, "bl 48"},
      {{0xE7, 0xDD}, 2, 1, 0, 0, 1, 0, "ble.n 76"},
      {{0x80, 0xBD}, 2, 1, 0, 1, 0, 0, "pop {r7, pc}"},
      {{0x70, 0x47}, 2, 1, 0, 1, 0, 0, "bx lr"},
      {{0x18, 0xBF}, 2, 0, 0, 0, 0, 0x18, "it ne"},
  };
  for (const CASE& C : aCases) {
    DISASM_RECORD R{};
    EXPECT_EQ(pfDecode(&R, C.aBytes.data(), 0x100, 2), int(C.Len)) << C.sObjdump;
    EXPECT_EQ(R.Len, C.Len) << C.sObjdump;
    EXPECT_EQ(R.aFlags[0], C.Flow) << C.sObjdump;
    EXPECT_EQ(R.aFlags[1], C.Call) << C.sObjdump;
    EXPECT_EQ(R.aFlags[2], C.Return) << C.sObjdump;
    EXPECT_EQ(R.Cond, C.Cond) << C.sObjdump;
    EXPECT_EQ(R.IT, C.IT) << C.sObjdump;
  }
}

}  // namespace
