// The test host: natives named like the application's rows, with recorded side effects.
#include "script/tests/ScriptTestHost.h"

CScriptTestHost::CScriptTestHost() : m_pHeap(new U8[SCRIPT_HEAP_SIZE]) {}

CScriptTestHost::~CScriptTestHost() = default;

int CScriptTestHost::Load(const std::string& sText) {
  m_Text = sText;
  m_pContext = ScriptInit(m_pHeap.get(), m_Text.c_str(), _OnError);
  if (!m_pContext) {
    return -1;
  }
  m_pContext->pHostData = this;
  static const struct {
    const char* sPrototype;
    SCRIPT_API_FUNCTION pfFunction;
  } _aNatives[] = {
      {"__api__ int Util.Log (const char* sText);", _UtilLog},
      {"__api__ int Target.ReadU32 (unsigned int Address);", _ReadU32},
      {"__api__ int Target.WriteU32 (unsigned int Address, unsigned int Value);", _WriteU32},
      {"__api__ int Test.Echo (int Value);", _Echo},
      {"__api__ int Test.Sum8 (int a, int b, int c, int d, int e, int f, int g, int h);", _Sum},
      {"__api__ int Test.Sum9 (int a, int b, int c, int d, int e, int f, int g, int h, int i);", _Sum9},
      {"__api__ int Test.Count (const char* sText);", _Count},
      {"__api__ int Test.Run (const char* sFunction);", _RunNested},
      {"__api__ int Test.Stop (void);", _Stop},
      {"__api__ int Test.IsRunning (void);", _IsRunning},
  };
  for (const auto& Native : _aNatives) {
    if (ScriptAddApiFunction(m_pContext, Native.sPrototype, Native.pfFunction, this) < 0) {
      return -1;
    }
  }
  if (ScriptAddConstant(m_pContext, "TEST_SEVEN", 7) < 0 ||
      ScriptAddConstant(m_pContext, "TEST_MINUS_ONE", -1) < 0) {
    return -1;
  }
  return ScriptParse(m_pContext);
}

int CScriptTestHost::Run(const char* sName, I64* pResult) {
  return ScriptRun(m_pContext, sName, pResult);
}

void CScriptTestHost::_OnError(CTrans* pContext) {
  auto* pHost = static_cast<CScriptTestHost*>(pContext->pHostData);
  if (!pHost) {
    return;  // the first pass may report before Load() has stored the host
  }
  ++pHost->NumErrorCallbacks;
  pHost->ErrorText = pContext->sError;
  pHost->ErrorLine = pContext->Line;
}

static CScriptTestHost* _Host(const SCRIPT_API_CALL* pCall) {
  return static_cast<CScriptTestHost*>(pCall->pUser);
}

I32 CScriptTestHost::_UtilLog(const SCRIPT_API_CALL* pCall) {
  const char* sText = ScriptGetString(pCall->pContext, pCall->paArg[0]);
  _Host(pCall)->Log.push_back(sText ? sText : "<invalid>");
  return sText ? 0 : -1;
}

I32 CScriptTestHost::_ReadU32(const SCRIPT_API_CALL* pCall) {
  return static_cast<I32>(_Host(pCall)->Memory[static_cast<U32>(pCall->paArg[0])]);
}

I32 CScriptTestHost::_WriteU32(const SCRIPT_API_CALL* pCall) {
  _Host(pCall)->Memory[static_cast<U32>(pCall->paArg[0])] = static_cast<U32>(pCall->paArg[1]);
  return 0;
}

I32 CScriptTestHost::_Echo(const SCRIPT_API_CALL* pCall) {
  return static_cast<I32>(pCall->paArg[0]);
}

I32 CScriptTestHost::_Sum(const SCRIPT_API_CALL* pCall) {
  I64 Sum = 0;
  for (int i = 0; i < pCall->NumArgs; ++i) {
    Sum += pCall->paArg[i];
  }
  return static_cast<I32>(Sum);
}

I32 CScriptTestHost::_Sum9(const SCRIPT_API_CALL* pCall) {
  ++_Host(pCall)->NumSum9Calls;
  return _Sum(pCall);
}

I32 CScriptTestHost::_Count(const SCRIPT_API_CALL* pCall) {
  return ++_Host(pCall)->NumCounted;
}

// Runs another function of the same script while this one waits, as an event function raised by a
// listener does while a script pumps events. Returns the value, or the failed status.
I32 CScriptTestHost::_RunNested(const SCRIPT_API_CALL* pCall) {
  const char* sName = ScriptGetString(pCall->pContext, pCall->paArg[0]);
  if (!sName) {
    return -1000;
  }
  I64 Value = 0;
  int r = ScriptRun(pCall->pContext, sName, &Value);
  return r == 0 ? static_cast<I32>(Value) : r;
}

I32 CScriptTestHost::_Stop(const SCRIPT_API_CALL* pCall) {
  ScriptRequestStop(pCall->pContext);
  return 0;
}

I32 CScriptTestHost::_IsRunning(const SCRIPT_API_CALL* pCall) {
  return ScriptIsRunning(pCall->pContext) ? 1 : 0;
}
