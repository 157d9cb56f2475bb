// Fuzzes the script interpreter: loads arbitrary text with a few natives, then runs each function
// of it under a step budget so that an endless loop ends. Any crash, sanitizer report or hang is a
// fault; script errors are expected.
#include <cstddef>
#include <cstdint>
#include <string>

#include "script/ScriptCore.h"

namespace {

I32 _Log(const SCRIPT_API_CALL* pCall) {
  return ScriptGetString(pCall->pContext, pCall->paArg[0]) ? 0 : -1;
}

// Arguments are raw 64-bit values: a native converts them to its parameter's width before it computes.
I32 _Read(const SCRIPT_API_CALL* pCall) {
  return static_cast<I32>(static_cast<U32>(pCall->paArg[0]) * 3u);
}

I32 _Sum(const SCRIPT_API_CALL* pCall) {
  U64 Sum = 0;
  for (int i = 0; i < pCall->NumArgs; ++i) {
    Sum += static_cast<U64>(pCall->paArg[i]);
  }
  return static_cast<I32>(Sum);
}

// Runs another function of the same script from inside a call, as a raised event function does.
I32 _RunNested(const SCRIPT_API_CALL* pCall) {
  const char* sName = ScriptGetString(pCall->pContext, pCall->paArg[0]);
  I64 Value = 0;
  return sName && ScriptRun(pCall->pContext, sName, &Value) == 0 ? static_cast<I32>(Value) : -1;
}

I32 _Stop(const SCRIPT_API_CALL* pCall) {
  ScriptRequestStop(pCall->pContext);
  return 0;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pData, size_t Size) {
  static U8* pHeap = new U8[SCRIPT_HEAP_SIZE];
  std::string Text(reinterpret_cast<const char*>(pData), Size);
  CTrans* p = ScriptInit(pHeap, Text.c_str());
  ScriptAddApiFunction(p, "__api__ int Util.Log (const char* sText);", _Log, nullptr);
  ScriptAddApiFunction(p, "__api__ int Target.ReadU32 (unsigned int Address);", _Read, nullptr);
  ScriptAddApiFunction(p, "__api__ int Test.Sum (int a, int b, int c);", _Sum, nullptr);
  ScriptAddApiFunction(p, "__api__ int Test.Sum9 (int a int b int c int d int e int f int g int h int i);",
                       _Sum, nullptr);
  ScriptAddApiFunction(p, "__api__ int Test.Run (const char* sName);", _RunNested, nullptr);
  ScriptAddApiFunction(p, "__api__ int Test.Stop (void);", _Stop, nullptr);
  ScriptAddConstant(p, "SEVEN", 7);
  ScriptSetStepLimit(p, 20000);
  if (ScriptParse(p) != 0) {
    return 0;
  }
  int NumRuns = 0;
  for (SCRIPT_SYMBOL* pSym = p->pGlobals; pSym && NumRuns < 8; pSym = pSym->pNext) {
    if (pSym->Kind == SCRIPT_KIND_FUNCTION && static_cast<SCRIPT_FUNCTION*>(pSym)->pBody) {
      ScriptRun(p, pSym->sName);
      ++NumRuns;
    }
  }
  return 0;
}
