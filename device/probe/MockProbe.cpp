#include "device/probe/MockProbe.h"

#include <cstdio>
#include <cstring>
#include <optional>
#include <type_traits>

namespace {

const char* const kOpNames[] = {
#define MOCK_OP_NAME(Ret, Name, Params) #Name,
    TARVIK_API_LIST(MOCK_OP_NAME)
#undef MOCK_OP_NAME
};

template <int Op>
struct _MemberOf;
#define MOCK_MEMBER_OF(Ret, Name, Params)                               \
  template <>                                                           \
  struct _MemberOf<MOCK_OP_##Name> {                                    \
    [[maybe_unused]] static constexpr auto pMember = &TARVIK_API::Name; \
  };
TARVIK_API_LIST(MOCK_MEMBER_OF)
#undef MOCK_MEMBER_OF

template <typename T>
void _RecordArg(CMockProbe::CALL& Call, T Arg) {
  if constexpr (std::is_same_v<T, const char*> || std::is_same_v<T, char*>) {
    Call.aArgs.push_back(U64(reinterpret_cast<uintptr_t>(Arg)));
    if (Call.sText.empty() && Arg && std::is_same_v<T, const char*>) {
      Call.sText = Arg;
    }
  } else if constexpr (std::is_pointer_v<T>) {
    Call.aArgs.push_back(U64(reinterpret_cast<uintptr_t>(Arg)));
  } else {
    Call.aArgs.push_back(U64(Arg));
  }
}

template <typename R>
R _FromI64(I64 v) {
  if constexpr (std::is_pointer_v<R>) {
    return reinterpret_cast<R>(static_cast<uintptr_t>(v));
  } else {
    return R(v);
  }
}

// ---- The model behind the operations that carry data ----

int _ReadBytes(CMockProbe& M, U32 Addr, U32 NumBytes, U8* p) {
  if (!p) {
    return -1;
  }
  for (U32 i = 0; i < NumBytes; i++) {
    auto It = M.Memory.find(Addr + i);
    if (It == M.Memory.end()) {
      return i ? int(i) : -1;
    }
    p[i] = It->second;
  }
  return int(NumBytes);
}

int _WriteBytes(CMockProbe& M, U32 Addr, U32 NumBytes, const U8* p) {
  if (!p) {
    return -1;
  }
  for (U32 i = 0; i < NumBytes; i++) {
    auto It = M.Memory.find(Addr + i);
    if (It == M.Memory.end()) {
      return i ? int(i) : -1;
    }
    It->second = p[i];
  }
  return int(NumBytes);
}

template <typename T>
int _ReadItems(CMockProbe& M, U32 Addr, U32 Cnt, T* pData, U8* pStatus) {
  int Good = 0;
  for (U32 i = 0; i < Cnt; i++) {
    bool Ok =
        _ReadBytes(M, Addr + i * U32(sizeof(T)), sizeof(T), reinterpret_cast<U8*>(&pData[i])) == sizeof(T);
    Good += (Ok && Good == int(i)) ? 1 : 0;
    if (pStatus) {
      pStatus[i] = Ok ? 0 : 1;
    }
  }
  return Good ? Good : -1;
}

template <typename T>
int _WriteItem(CMockProbe& M, U32 Addr, T Value) {
  return _WriteBytes(M, Addr, sizeof(T), reinterpret_cast<const U8*>(&Value)) == sizeof(T) ? 0 : -1;
}

int _PopStream(CMockProbe& M, int Op, void* pData, U32 NumBytes) {
  std::deque<U8>& Q = M.Streams[Op];
  U32 n = 0;
  U8* p = static_cast<U8*>(pData);
  while (n < NumBytes && !Q.empty()) {
    p[n++] = Q.front();
    Q.pop_front();
  }
  return int(n);
}

// The answer of the model for an operation that nobody scripted. Unlisted operations succeed.
template <int Op, typename R, typename... A>
R _ModelAnswer(CMockProbe& M, A... a) {
  auto Args = std::make_tuple(a...);
  if constexpr (Op == MOCK_OP_TARVIKARM_Open) {
    if (!M.sOpenError) {
      M.Open = true;
    }
    return M.sOpenError;
  } else if constexpr (Op == MOCK_OP_TARVIKARM_Close) {
    M.Open = M.Connected = false;
  } else if constexpr (Op == MOCK_OP_TARVIKARM_IsOpen) {
    return M.Open ? 1 : 0;
  } else if constexpr (Op == MOCK_OP_TARVIKARM_Connect) {
    M.Connected = true;
    return 0;
  } else if constexpr (Op == MOCK_OP_TARVIKARM_IsConnected) {
    return M.Connected ? 1 : 0;
  } else if constexpr (Op == MOCK_OP_TARVIKARM_GetDLLVersion) {
    return 70001;
  } else if constexpr (Op == MOCK_OP_TARVIKARM_GetFirmwareString) {
    if (std::get<0>(Args) && std::get<1>(Args) > 0) {
      snprintf(std::get<0>(Args), size_t(std::get<1>(Args)), "Mock probe V1.00 compiled Jan  1 2024");
    }
  } else if constexpr (Op == MOCK_OP_TARVIKARM_ExecCommand) {
    const char* sCmd = std::get<0>(Args);
    char* sOut = std::get<1>(Args);
    int OutSize = std::get<2>(Args);
    auto It = M.CommandAnswers.find(sCmd ? sCmd : "");
    int Result = It == M.CommandAnswers.end() ? 0 : It->second.first;
    if (sOut && OutSize > 0) {
      snprintf(sOut, size_t(OutSize), "%s", It == M.CommandAnswers.end() ? "" : It->second.second.c_str());
    }
    return Result;
  } else if constexpr (Op == MOCK_OP_TARVIKARM_DEVICE_GetIndex) {
    return 1;
  } else if constexpr (Op == MOCK_OP_TARVIKARM_Halt) {
    M.Halted = true;
    return 0;
  } else if constexpr (Op == MOCK_OP_TARVIKARM_IsHalted) {
    return M.Halted ? 1 : 0;
  } else if constexpr (Op == MOCK_OP_TARVIKARM_GoEx) {
    M.Halted = false;
  } else if constexpr (Op == MOCK_OP_TARVIKARM_Step) {
    M.aRegs[15] += 2;
    return 0;
  } else if constexpr (Op == MOCK_OP_TARVIKARM_MeasureCPUSpeedEx) {
    return 100000000;
  } else if constexpr (Op == MOCK_OP_TARVIKARM_SetBPEx) {
    TARVIK_BP_INFO Bp{sizeof(TARVIK_BP_INFO), M.NextHandle++, std::get<0>(Args) & ~1u, 0, 1, {}};
    M.aBreakpoints.push_back(Bp);
    return Bp.Handle;
  } else if constexpr (Op == MOCK_OP_TARVIKARM_ClrBPEx) {
    U32 Handle = std::get<0>(Args);
    size_t Before = M.aBreakpoints.size();
    std::erase_if(M.aBreakpoints,
                  [&](const TARVIK_BP_INFO& b) { return Handle == 0xFFFFFFFFu || b.Handle == Handle; });
    return (Before != M.aBreakpoints.size() || Handle == 0xFFFFFFFFu) ? 0 : -1;
  } else if constexpr (Op == MOCK_OP_TARVIKARM_GetBPInfoEx) {
    int Index = std::get<0>(Args);
    TARVIK_BP_INFO* p = std::get<1>(Args);
    if (Index >= 0 && Index < int(M.aBreakpoints.size()) && p) {
      *p = M.aBreakpoints[size_t(Index)];
    } else if (Index == -1 && p && p->Handle) {
      for (const TARVIK_BP_INFO& b : M.aBreakpoints) {
        if (b.Handle == p->Handle) {
          *p = b;
        }
      }
    }
    return int(M.aBreakpoints.size());
  } else if constexpr (Op == MOCK_OP_TARVIKARM_SetDataEvent) {
    const TARVIK_DATA_EVENT* p = std::get<0>(Args);
    if (!p) {
      return int(0x80000000u);
    }
    TARVIK_WP_INFO W{sizeof(TARVIK_WP_INFO),
                     M.NextHandle++,
                     p->Addr,
                     p->AddrMask,
                     p->Data,
                     p->DataMask,
                     p->Access,
                     p->AccessMask,
                     {}};
    M.aWatchpoints.push_back(W);
    if (std::get<1>(Args)) {
      *std::get<1>(Args) = W.Handle;
    }
    return 0;
  } else if constexpr (Op == MOCK_OP_TARVIKARM_ClrDataEvent) {
    U32 Handle = std::get<0>(Args);
    size_t Before = M.aWatchpoints.size();
    std::erase_if(M.aWatchpoints,
                  [&](const TARVIK_WP_INFO& w) { return Handle == 0xFFFFFFFFu || w.Handle == Handle; });
    return (Before != M.aWatchpoints.size() || Handle == 0xFFFFFFFFu) ? 0 : -1;
  } else if constexpr (Op == MOCK_OP_TARVIKARM_GetWPInfoEx) {
    int Index = std::get<0>(Args);
    if (Index >= 0 && Index < int(M.aWatchpoints.size()) && std::get<1>(Args)) {
      *std::get<1>(Args) = M.aWatchpoints[size_t(Index)];
    }
    return int(M.aWatchpoints.size());
  } else if constexpr (Op == MOCK_OP_TARVIKARM_ReadReg) {
    U32 Index = std::get<0>(Args);
    return Index < 128 ? M.aRegs[Index] : 0;
  } else if constexpr (Op == MOCK_OP_TARVIKARM_ReadRegs) {
    const U32* paIndex = std::get<0>(Args);
    U32* paData = std::get<1>(Args);
    U8* paStatus = std::get<2>(Args);
    for (U32 i = 0; i < std::get<3>(Args); i++) {
      bool Ok = paIndex[i] < 128;
      paData[i] = Ok ? M.aRegs[paIndex[i]] : 0;
      if (paStatus) {
        paStatus[i] = Ok ? 0 : 1;
      }
    }
    return 0;
  } else if constexpr (Op == MOCK_OP_TARVIKARM_WriteReg) {
    U32 Index = std::get<0>(Args);
    if (Index >= 128) {
      return 1;
    }
    M.aRegs[Index] = std::get<1>(Args);
    return 0;
  } else if constexpr (Op == MOCK_OP_TARVIKARM_ReadMemEx) {
    return _ReadBytes(M, std::get<0>(Args), std::get<1>(Args), static_cast<U8*>(std::get<2>(Args)));
  } else if constexpr (Op == MOCK_OP_TARVIKARM_ReadMemHW || Op == MOCK_OP_TARVIKARM_ReadMem) {
    U32 n = std::get<1>(Args);
    return _ReadBytes(M, std::get<0>(Args), n, static_cast<U8*>(std::get<2>(Args))) == int(n) ? 0 : -1;
  } else if constexpr (Op == MOCK_OP_TARVIKARM_ReadMemU8 || Op == MOCK_OP_TARVIKARM_ReadMemU16 ||
                       Op == MOCK_OP_TARVIKARM_ReadMemU32 || Op == MOCK_OP_TARVIKARM_ReadMemU64) {
    return _ReadItems(M, std::get<0>(Args), std::get<1>(Args), std::get<2>(Args), std::get<3>(Args));
  } else if constexpr (Op == MOCK_OP_TARVIKARM_WriteMemEx || Op == MOCK_OP_TARVIKARM_WriteMem) {
    return _WriteBytes(M, std::get<0>(Args), std::get<1>(Args), static_cast<const U8*>(std::get<2>(Args)));
  } else if constexpr (Op == MOCK_OP_TARVIKARM_WriteU8 || Op == MOCK_OP_TARVIKARM_WriteU16 ||
                       Op == MOCK_OP_TARVIKARM_WriteU32 || Op == MOCK_OP_TARVIKARM_WriteU64) {
    return _WriteItem(M, std::get<0>(Args), std::get<1>(Args));
  } else if constexpr (Op == MOCK_OP_TARVIKARM_DisassembleInstEx) {
    char* sOut = std::get<0>(Args);
    if (sOut && std::get<1>(Args) > 0) {
      snprintf(sOut, std::get<1>(Args), "NOP");
    }
    return 2;
  } else if constexpr (Op == MOCK_OP_TARVIKARM_SWO_ReadStimulus) {
    return U32(_PopStream(M, Op, std::get<1>(Args), std::get<2>(Args)));
  } else if constexpr (Op == MOCK_OP_TARVIK_MCTERMINAL_Read) {
    return _PopStream(M, Op, std::get<1>(Args), std::get<2>(Args));
  } else if constexpr (Op == MOCK_OP_TARVIK_MCTERMINAL_Write) {
    return int(std::get<2>(Args));
  } else if constexpr (Op == MOCK_OP_TARVIK_HSS_Read) {
    return _PopStream(M, Op, std::get<0>(Args), std::get<1>(Args));
  } else if constexpr (Op == MOCK_OP_TARVIK_STRACE_GetInstStats) {
    return int(std::get<2>(Args));
  } else if constexpr (Op == MOCK_OP_TARVIKARM_SWO_GetCompatibleSpeeds) {
    U32* pa = std::get<2>(Args);
    U32 n = std::min<U32>(std::get<3>(Args), 4);
    for (U32 i = 0; i < n; i++) {
      pa[i] = std::get<0>(Args) / (i + 1);
    }
    return int(n);
  } else if constexpr (std::is_same_v<R, U8>) {
    return 0;
  } else if constexpr (!std::is_void_v<R>) {
    return R{};
  }
}

template <int Op, typename T>
struct _MockOp;
template <int Op, typename R, typename... A>
struct _MockOp<Op, R (*)(A...)> {
  static R Call(A... a) {
    CMockProbe& M = CMockProbe::Get();
    std::lock_guard<std::recursive_mutex> Lock(M.Mutex);
    CMockProbe::CALL Call{MOCK_OP(Op), {}, {}};
    (_RecordArg(Call, a), ...);
    M.aCalls.push_back(Call);
    CMockProbe::SCRIPT& S = M.aScripts[Op];
    std::optional<I64> Scripted;
    if (!S.Queue.empty()) {
      Scripted = S.Queue.front();
      S.Queue.pop_front();
    }
    if constexpr (std::is_void_v<R>) {
      if (!Scripted && !S.Fail) {
        _ModelAnswer<Op, R>(M, a...);
      }
    } else {
      if (Scripted) {
        return _FromI64<R>(*Scripted);
      }
      if (S.Fail) {
        if constexpr (Op == MOCK_OP_TARVIKARM_SetDataEvent) {
          return int(0x80000000u);
        } else if constexpr (Op == MOCK_OP_TARVIKARM_Open) {
          return "mock: open failed";
        } else {
          return (TARVIK_GetAbsentApi().*_MemberOf<Op>::pMember)(a...);
        }
      }
      if (S.HasResult) {
        return _FromI64<R>(S.Result);
      }
      return _ModelAnswer<Op, R>(M, a...);
    }
  }
};

TARVIK_API _MakeMockApi() {
  TARVIK_API Api{};
#define MOCK_FILL(Ret, Name, Params) Api.Name = &_MockOp<MOCK_OP_##Name, decltype(Api.Name)>::Call;
  TARVIK_API_LIST(MOCK_FILL)
#undef MOCK_FILL
  return Api;
}

const TARVIK_API _MockApi = _MakeMockApi();

}  // namespace

CMockProbe& CMockProbe::Get() {
  static CMockProbe Mock;
  return Mock;
}

const char* CMockProbe::GetOpName(MOCK_OP Op) {
  return (Op >= 0 && Op < MOCK_NUM_OPS) ? kOpNames[Op] : "?";
}

void CMockProbe::Install() {
  SetTarvikApi(&_MockApi);
}

void CMockProbe::Uninstall() {
  SetTarvikApi(nullptr);
}

void CMockProbe::Reset() {
  std::lock_guard<std::recursive_mutex> Lock(Mutex);
  for (SCRIPT& S : aScripts) {
    S = SCRIPT();
  }
  aCalls.clear();
  Memory.clear();
  std::fill(std::begin(aRegs), std::end(aRegs), 0);
  Halted = Open = Connected = true;
  sOpenError = nullptr;
  CommandAnswers.clear();
  Streams.clear();
  aBreakpoints.clear();
  aWatchpoints.clear();
  NextHandle = 1;
}

void CMockProbe::Fail(MOCK_OP Op, bool On) {
  std::lock_guard<std::recursive_mutex> Lock(Mutex);
  aScripts[Op].Fail = On;
}

void CMockProbe::SetResult(MOCK_OP Op, I64 Value) {
  std::lock_guard<std::recursive_mutex> Lock(Mutex);
  aScripts[Op].HasResult = true;
  aScripts[Op].Result = Value;
}

void CMockProbe::QueueResults(MOCK_OP Op, const std::vector<I64>& aValues) {
  std::lock_guard<std::recursive_mutex> Lock(Mutex);
  aScripts[Op].Queue.insert(aScripts[Op].Queue.end(), aValues.begin(), aValues.end());
}

void CMockProbe::SetOpenError(const char* sError) {
  std::lock_guard<std::recursive_mutex> Lock(Mutex);
  sOpenError = sError;
}

void CMockProbe::SetCommandAnswer(const std::string& sCmd, int Result, const std::string& sAnswer) {
  std::lock_guard<std::recursive_mutex> Lock(Mutex);
  CommandAnswers[sCmd] = {Result, sAnswer};
}

void CMockProbe::SetMemory(U32 Addr, const std::vector<U8>& aBytes) {
  std::lock_guard<std::recursive_mutex> Lock(Mutex);
  for (size_t i = 0; i < aBytes.size(); i++) {
    Memory[Addr + U32(i)] = aBytes[i];
  }
}

std::vector<U8> CMockProbe::GetMemory(U32 Addr, U32 NumBytes) {
  std::lock_guard<std::recursive_mutex> Lock(Mutex);
  std::vector<U8> a(NumBytes, 0);
  for (U32 i = 0; i < NumBytes; i++) {
    auto It = Memory.find(Addr + i);
    if (It != Memory.end()) {
      a[i] = It->second;
    }
  }
  return a;
}

void CMockProbe::SetRegister(U32 Index, U32 Value) {
  std::lock_guard<std::recursive_mutex> Lock(Mutex);
  if (Index < 128) {
    aRegs[Index] = Value;
  }
}

U32 CMockProbe::GetRegister(U32 Index) {
  std::lock_guard<std::recursive_mutex> Lock(Mutex);
  return Index < 128 ? aRegs[Index] : 0;
}

void CMockProbe::SetHalted(bool IsHalted) {
  std::lock_guard<std::recursive_mutex> Lock(Mutex);
  Halted = IsHalted;
}

bool CMockProbe::IsRunning() {
  std::lock_guard<std::recursive_mutex> Lock(Mutex);
  return !Halted;
}

void CMockProbe::AddStreamData(MOCK_OP Op, const std::vector<U8>& aBytes) {
  std::lock_guard<std::recursive_mutex> Lock(Mutex);
  Streams[Op].insert(Streams[Op].end(), aBytes.begin(), aBytes.end());
}

std::vector<CMockProbe::CALL> CMockProbe::GetCalls() {
  std::lock_guard<std::recursive_mutex> Lock(Mutex);
  return aCalls;
}

int CMockProbe::CountCalls(MOCK_OP Op) {
  std::lock_guard<std::recursive_mutex> Lock(Mutex);
  int n = 0;
  for (const CALL& c : aCalls) {
    n += c.Op == Op ? 1 : 0;
  }
  return n;
}

bool CMockProbe::GetLastCall(MOCK_OP Op, CALL* pCall) {
  std::lock_guard<std::recursive_mutex> Lock(Mutex);
  for (auto It = aCalls.rbegin(); It != aCalls.rend(); ++It) {
    if (It->Op == Op) {
      if (pCall) {
        *pCall = *It;
      }
      return true;
    }
  }
  return false;
}

void CMockProbe::ClearCalls() {
  std::lock_guard<std::recursive_mutex> Lock(Mutex);
  aCalls.clear();
}
