// A host for the interpreter tests: owns one script block and its text, registers a few native
// functions in the way the application's binding does, and records what the script handed them.
#pragma once

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "script/ScriptCore.h"

class CScriptTestHost {
 public:
  CScriptTestHost();
  ~CScriptTestHost();

  // Loads a text: ScriptInit, the test constants and natives, then the first pass. Returns the
  // result of ScriptParse, or -1 if a registration was refused.
  int Load(const std::string& sText);
  // Runs a function by name; returns ScriptRun's status and the function's value in *pResult.
  int Run(const char* sName, I64* pResult = nullptr);
  CTrans* Context() const { return m_pContext; }

  // What the natives saw and what the error callback reported.
  std::vector<std::string> Log;  // texts given to Util.Log; "<invalid>" for a bad pointer
  std::map<U32, U32> Memory;     // read by Target.ReadU32, written by Target.WriteU32
  int NumCounted = 0;            // calls of Test.Count
  int NumSum9Calls = 0;          // calls of Test.Sum9, which must never be called
  int NumErrorCallbacks = 0;
  std::string ErrorText;
  int ErrorLine = -1;

 private:
  static void _OnError(CTrans* pContext);
  static I32 _UtilLog(const SCRIPT_API_CALL* pCall);
  static I32 _ReadU32(const SCRIPT_API_CALL* pCall);
  static I32 _WriteU32(const SCRIPT_API_CALL* pCall);
  static I32 _Echo(const SCRIPT_API_CALL* pCall);
  static I32 _Sum(const SCRIPT_API_CALL* pCall);
  static I32 _Sum9(const SCRIPT_API_CALL* pCall);
  static I32 _Count(const SCRIPT_API_CALL* pCall);
  static I32 _RunNested(const SCRIPT_API_CALL* pCall);
  static I32 _Stop(const SCRIPT_API_CALL* pCall);
  static I32 _IsRunning(const SCRIPT_API_CALL* pCall);

  std::unique_ptr<U8[]> m_pHeap;
  std::string m_Text;
  CTrans* m_pContext = nullptr;
};
