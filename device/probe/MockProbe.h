// A scripted stand-in for the probe layer, for unit tests of the layers above it: a full operation
// table whose operations record every call and answer from a small target model (memory, registers,
// run state, breakpoint handles) unless a test scripted another answer.
#pragma once

#include <deque>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "device/probe/TarvikApi.h"

// One id per operation of the list, for scripting and for looking at recorded calls.
enum MOCK_OP : int {
#define MOCK_OP_ENUM(Ret, Name, Params) MOCK_OP_##Name,
  TARVIK_API_LIST(MOCK_OP_ENUM)
#undef MOCK_OP_ENUM
      MOCK_NUM_OPS
};

// The process has one mock (the table holds plain function pointers). Install() puts it in force;
// Uninstall() restores the absent table. All members are safe to call from any thread.
//
// Answers, in this order: a queued result (QueueResults), a forced failure (Fail: the operation's
// own failure value, the one the absent table gives), a fixed result (SetResult), the model.
// The model: memory is what SetMemory put there (other bytes fail to read and take writes silently
// only where mapped by SetMemory); registers start at 0; the target starts open, connected, halted.
class CMockProbe {
 public:
  struct CALL {
    MOCK_OP Op;
    std::vector<U64> aArgs;  // integers as they are, pointers as addresses
    std::string sText;       // the first text argument, if any
  };

  static CMockProbe& Get();
  static const char* GetOpName(MOCK_OP Op);

  void Install();
  void Uninstall();
  // Back to the initial state: no scripts, no calls, empty memory, zero registers.
  void Reset();

  void Fail(MOCK_OP Op, bool On = true);
  void SetResult(MOCK_OP Op, I64 Value);
  void QueueResults(MOCK_OP Op, const std::vector<I64>& aValues);
  // The text TARVIKARM_Open gives when it fails (null for success).
  void SetOpenError(const char* sError);
  // The answer text of TARVIKARM_ExecCommand for a command, and its result.
  void SetCommandAnswer(const std::string& sCmd, int Result, const std::string& sAnswer);

  void SetMemory(U32 Addr, const std::vector<U8>& aBytes);
  std::vector<U8> GetMemory(U32 Addr, U32 NumBytes);  // unmapped bytes read as 0
  void SetRegister(U32 Index, U32 Value);
  U32 GetRegister(U32 Index);
  void SetHalted(bool Halted);
  bool IsRunning();
  // Bytes that TARVIKARM_SWO_ReadStimulus, TARVIK_MCTERMINAL_Read and TARVIK_HSS_Read will give.
  void AddStreamData(MOCK_OP Op, const std::vector<U8>& aBytes);

  std::vector<CALL> GetCalls();
  int CountCalls(MOCK_OP Op);
  bool GetLastCall(MOCK_OP Op, CALL* pCall);
  void ClearCalls();

  // Used by the operations.
  struct SCRIPT {
    bool Fail = false;
    bool HasResult = false;
    I64 Result = 0;
    std::deque<I64> Queue;
  };
  std::recursive_mutex Mutex;
  SCRIPT aScripts[MOCK_NUM_OPS];
  std::vector<CALL> aCalls;
  std::map<U32, U8> Memory;
  U32 aRegs[128] = {};
  bool Halted = true;
  bool Open = true;
  bool Connected = true;
  const char* sOpenError = nullptr;
  std::map<std::string, std::pair<int, std::string>> CommandAnswers;
  std::map<int, std::deque<U8>> Streams;
  std::vector<TARVIK_BP_INFO> aBreakpoints;
  std::vector<TARVIK_WP_INFO> aWatchpoints;
  U32 NextHandle = 1;

 private:
  CMockProbe() = default;
};
