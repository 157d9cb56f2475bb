// The instruction decoder and disassembler behind id 23 of TARVIK_GetpFunc and
// TARVIKARM_DisassembleInstEx, built on Capstone. Texts come out in the form the instruction cache
// expects: upper case with "0x" lower, branch targets and literal loads relative to Addr + 4.
#pragma once

#include "app/base/Types.h"

// What the decoder entry fills for one instruction.
struct DISASM_RECORD {
  U8 Len;        // 2 or 4; 0 lets the caller take the low byte of the result
  U8 aFlags[4];  // [0] changes the program flow, [1] call, [2] return, [3] accesses memory
  U8 Cond;       // 1: conditional by itself (B<cond>), outside any IT block
  U16 IT;        // IT instruction: low nibble the mask, bits 4..7 the first condition; else 0
};
static_assert(sizeof(DISASM_RECORD) == 8);

// The decoder entry: Mode 1 ARM, 2 Thumb. pBytes holds at least the whole instruction (a 32-bit
// Thumb instruction is recognised from its first halfword). Result: the length, or 0 when the bytes
// are no instruction.
int DISASM_Decode(DISASM_RECORD* pRecord, const U8* pBytes, U32 Addr, U32 Mode);

// Disassembles one Thumb instruction from NumBytes (2..4) bytes. ITState: 0 outside an IT block,
// else (condition * 2) | 1. Result: the length 2 or 4, or -1 with the reason in sOut.
int DISASM_DisassembleThumb(char* sOut, U32 BufferSize, U32 Addr, const U8* pBytes, U32 NumBytes, U8 ITState);
