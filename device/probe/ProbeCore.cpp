// The shared part of every probe operation. Each operation takes the layer's lock, checks its
// arguments and the session state, and hands the target work to the back-end of the opened device.
#include "device/probe/ProbeCore.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <vector>

#include "device/probe/Disassembler.h"
#include "device/probe/GdbRemote.h"
#include "device/probe/MctHost.h"
#include "device/probe/SimTarget.h"

namespace {

struct BREAKPOINT {
  U32 Handle;
  U32 Addr;
  U32 ImpFlags;  // 0 while pending (set while not connected)
  U32 ImplFlagsAsked;
};

struct DATA_EVENT {
  U32 Handle;
  PROBE_WATCH Watch;
};

struct CORE_STATE {
  std::vector<PROBE_DEVICE> aDevices;
  int DeviceIndex = -1;  // chosen by "device=", -1 none
  bool UseIP = false;    // SelectIP chose a gdbserver for the next Open
  std::string sIPHost;   // its "host[:port]"
  CProbeBackend* pBackend = nullptr;
  const PROBE_DEVICE* pDevice = nullptr;
  bool IsOpen = false;
  bool IsConnected = false;
  bool SoftBPsEnabled = false;
  bool HideDeviceSelection = false;
  bool Downloading = false;
  int ResetType = 0;
  int Interface = 1;
  U32 SpeedkHz = 4000;
  U32 NextHandle = 1;
  std::vector<BREAKPOINT> aBreakpoints;
  std::vector<DATA_EVENT> aDataEvents;
  TARVIK_LOG_FUNC pfLog = nullptr;
  TARVIK_LOG_FUNC pfWarn = nullptr;
  TARVIK_LOG_FUNC pfError = nullptr;
  FILE* pLogFile = nullptr;
  std::string sScriptFile;
  PROBE_STREAMS Streams;
  CMctHost Mct;
  bool HSSStarted = false;
  U32 HSSSampleSize = 0;  // stamp plus all blocks
  bool TraceStarted = false;
  bool SWOEnabled = false;
  char acOpenError[256] = {};
};

CORE_STATE& _State() {
  static CORE_STATE* pState = new CORE_STATE();  // never destroyed: back-end threads may outlive main
  return *pState;
}

std::atomic<int> _NumWaiters{0};

// Messages of a back-end's own thread, delivered to the callbacks on the next caller's thread.
std::mutex _PostedMutex;
std::vector<std::string> _asPosted;
std::atomic<bool> _HasPosted{false};

void _DeliverPosted() {
  std::vector<std::string> as;
  {
    std::lock_guard<std::mutex> Lock(_PostedMutex);
    as.swap(_asPosted);
    _HasPosted = false;
  }
  for (const std::string& s : as) {
    PROBE_Warn("%s", s.c_str());
  }
}

void _Emit(TARVIK_LOG_FUNC pf, const char* sPrefix, const char* sFormat, va_list Args) {
  char ac[1024];
  vsnprintf(ac, sizeof(ac), sFormat, Args);
  CORE_STATE& S = _State();
  if (pf) {
    pf(ac);
  }
  if (S.pLogFile) {
    fprintf(S.pLogFile, "%s%s\n", sPrefix, ac);
    fflush(S.pLogFile);
  }
}

bool _IsConnected() {
  CORE_STATE& S = _State();
  return S.IsOpen && S.IsConnected && S.pBackend && S.pBackend->IsConnected();
}

bool _IsHalted() {
  return _IsConnected() && _State().pBackend->IsHalted() > 0;
}

bool _CanAccessMemory() {
  CORE_STATE& S = _State();
  return _IsConnected() && (S.pBackend->CanAccessMemWhileRunning() || S.pBackend->IsHalted() > 0);
}

std::string _Lower(std::string s) {
  for (char& c : s) {
    c = char(tolower(U8(c)));
  }
  return s;
}

std::string _Trim(const std::string& s) {
  size_t b = s.find_first_not_of(" \t\r\n");
  size_t e = s.find_last_not_of(" \t\r\n");
  return b == std::string::npos ? std::string() : s.substr(b, e - b + 1);
}

bool _ParseU32(const std::string& s, U32* pValue) {
  if (s.empty()) {
    return false;
  }
  char* pEnd = nullptr;
  errno = 0;
  unsigned long long v = strtoull(s.c_str(), &pEnd, 0);
  if (errno || *pEnd || v > 0xFFFFFFFFull || s[0] == '-') {
    return false;
  }
  *pValue = U32(v);
  return true;
}

void _SetOut(char* sOut, int OutSize, const std::string& s) {
  if (sOut && OutSize > 0) {
    snprintf(sOut, size_t(OutSize), "%s", s.c_str());
  }
}

bool _IsInFlash(U32 Addr) {
  const PROBE_DEVICE* p = _State().pDevice;
  return p && Addr >= p->FlashAddr && U64(Addr) < U64(p->FlashAddr) + p->FlashSize;
}

// Arms a breakpoint in the back-end: a hardware unit when the flags allow one and a unit is free,
// else a software breakpoint when allowed. Gives the ImpFlags, 0 when neither worked.
U32 _ArmBreakpoint(U32 Addr, U32 ImplFlags) {
  CORE_STATE& S = _State();
  bool AllowHard = (ImplFlags & 0xFFFFFF00u) != 0;
  bool AllowSoft = (ImplFlags & 0xF0u) != 0 && S.SoftBPsEnabled;
  int NumHard = 0;
  for (const BREAKPOINT& Bp : S.aBreakpoints) {
    NumHard += (Bp.ImpFlags & 1) ? 1 : 0;
  }
  if (AllowHard && NumHard < S.pBackend->GetNumBreakpointUnits() &&
      S.pBackend->SetBreakpoint(Addr, true) == 0) {
    return 1;
  }
  if (AllowSoft && S.pBackend->SetBreakpoint(Addr, false) == 0) {
    return _IsInFlash(Addr) ? 0x10 : 0x02;
  }
  return 0;
}

int _MemRead(U32 Addr, U32 NumBytes, U8* pData) {
  if (!_CanAccessMemory()) {
    return -1;
  }
  return _State().pBackend->ReadMem(Addr, NumBytes, pData);
}

int _MemWrite(U32 Addr, U32 NumBytes, const U8* pData) {
  if (!_CanAccessMemory()) {
    return -1;
  }
  return _State().pBackend->WriteMem(Addr, NumBytes, pData);
}

int _MemReadAll(U32 Addr, U32 NumBytes, U8* pData) {
  return _MemRead(Addr, NumBytes, pData) == int(NumBytes) ? 0 : -1;
}

int _MemWriteAll(U32 Addr, U32 NumBytes, const U8* pData) {
  return _MemWrite(Addr, NumBytes, pData) == int(NumBytes) ? 0 : -1;
}

template <typename T>
int _ReadItems(U32 Addr, U32 Cnt, T* pData, U8* pStatus) {
  CProbeLock Lock;
  if (!pData || Cnt == 0 || U64(Cnt) * sizeof(T) > 0x7FFFFFFFu) {
    return -1;
  }
  int Good = 0;
  bool Failed = false;
  for (U32 i = 0; i < Cnt; i++) {
    U8 ac[sizeof(T)];
    bool Ok = !Failed && _MemReadAll(Addr + i * U32(sizeof(T)), sizeof(T), ac) == 0;
    if (Ok) {
      T v = 0;
      for (size_t b = 0; b < sizeof(T); b++) {
        v |= T(ac[b]) << (8 * b);
      }
      pData[i] = v;
      Good++;
    } else {
      Failed = true;
    }
    if (pStatus) {
      pStatus[i] = Ok ? 0 : 1;
    }
  }
  return Good ? Good : -1;
}

template <typename T>
int _WriteItem(U32 Addr, T Value) {
  CProbeLock Lock;
  U8 ac[sizeof(T)];
  for (size_t b = 0; b < sizeof(T); b++) {
    ac[b] = U8(Value >> (8 * b));
  }
  return _MemWriteAll(Addr, sizeof(T), ac);
}

// The list starts with its placeholder row and the simulator's devices, made on first use.
void _EnsureDevices() {
  static bool Ready = false;
  if (Ready) {
    return;
  }
  Ready = true;
  CORE_STATE& S = _State();
  S.aDevices.insert(S.aDevices.begin(), PROBE_DEVICE{"Unspecified", 0, 0, 0, 0, 0, nullptr});
  SIM_AddDevices();
}

}  // namespace

// ---- Locking and messages ----

std::recursive_mutex& PROBE_GetMutex() {
  static std::recursive_mutex* pMutex = new std::recursive_mutex();
  return *pMutex;
}

bool PROBE_HasWaiters() {
  return _NumWaiters.load(std::memory_order_relaxed) > 0;
}

CProbeLock::CProbeLock() {
  _NumWaiters.fetch_add(1);
  PROBE_GetMutex().lock();
  _NumWaiters.fetch_sub(1);
}

CProbeLock::~CProbeLock() {
  if (_HasPosted.load(std::memory_order_relaxed)) {
    _DeliverPosted();
  }
  PROBE_GetMutex().unlock();
}

void PROBE_PostWarning(const char* sFormat, ...) {
  char ac[1024];
  va_list Args;
  va_start(Args, sFormat);
  vsnprintf(ac, sizeof(ac), sFormat, Args);
  va_end(Args);
  std::lock_guard<std::mutex> Lock(_PostedMutex);
  _asPosted.emplace_back(ac);
  _HasPosted = true;
}

void PROBE_Log(const char* sFormat, ...) {
  va_list Args;
  va_start(Args, sFormat);
  _Emit(_State().pfLog, "", sFormat, Args);
  va_end(Args);
}

void PROBE_Warn(const char* sFormat, ...) {
  va_list Args;
  va_start(Args, sFormat);
  _Emit(_State().pfWarn, "WARNING: ", sFormat, Args);
  va_end(Args);
}

void PROBE_Error(const char* sFormat, ...) {
  va_list Args;
  va_start(Args, sFormat);
  _Emit(_State().pfError, "ERROR: ", sFormat, Args);
  va_end(Args);
}

// ---- Device list ----

int PROBE_AddDevice(const PROBE_DEVICE& Device) {
  CProbeLock Lock;
  _EnsureDevices();
  CORE_STATE& S = _State();
  S.aDevices.push_back(Device);
  return int(S.aDevices.size() - 1);
}

const PROBE_DEVICE* PROBE_GetDevice(int Index) {
  CProbeLock Lock;
  _EnsureDevices();
  CORE_STATE& S = _State();
  return (Index >= 1 && Index < int(S.aDevices.size())) ? &S.aDevices[size_t(Index)] : nullptr;
}

void PROBE_ResetLayer() {
  CProbeLock Lock;
  TARVIKARM_Close();
  CORE_STATE& S = _State();
  S.aBreakpoints.clear();
  S.aDataEvents.clear();
  S.DeviceIndex = -1;
  S.UseIP = false;
  S.pfLog = S.pfWarn = S.pfError = nullptr;
  S.SoftBPsEnabled = false;
  S.ResetType = 0;
  S.Mct.SetAddr(0);
  if (S.pLogFile) {
    fclose(S.pLogFile);
    S.pLogFile = nullptr;
  }
}

// ---- Session and configuration ----

namespace {

// "device=" may come before or after Open: the session opens the layer first and chooses the device
// while configuring. An open layer that is not yet connected is turned to the new device's back-end
// at once, so the connect that follows reaches the chosen core. A connected target keeps its device.
int _AimAtDevice(int Index, std::string& sError) {
  CORE_STATE& S = _State();
  const PROBE_DEVICE* pDevice = PROBE_GetDevice(Index);
  if (!S.IsOpen || !pDevice || pDevice == S.pDevice) {
    return 0;
  }
  if (S.IsConnected) {
    sError = "device \"" + pDevice->sName + "\" can't be chosen while connected to \"" + S.pDevice->sName +
             "\"; disconnect first";
    return -1;
  }
  if (S.UseIP) {
    S.pDevice = pDevice;  // the gdbserver stays; the device names the chip behind it
    return 0;
  }
  CProbeBackend* pBackend = pDevice->pfGetBackend ? pDevice->pfGetBackend(*pDevice) : nullptr;
  if (!pBackend) {
    sError = "device \"" + pDevice->sName + "\" has no target behind it";
    return -1;
  }
  if (pBackend != S.pBackend) {
    if (pBackend->Open(&S.Streams, sError) != 0) {
      sError = "device \"" + pDevice->sName + "\": " + (sError.empty() ? "back-end failed to open" : sError);
      return -1;
    }
    S.pBackend->Close();
    S.pBackend = pBackend;
  }
  S.pDevice = pDevice;
  PROBE_Log("Opened target \"%s\"", pDevice->sName.c_str());
  return 0;
}

}  // namespace

const char* TARVIKARM_Open(void) {
  CProbeLock Lock;
  _EnsureDevices();
  CORE_STATE& S = _State();
  if (S.IsOpen) {
    return nullptr;
  }
  int Index = S.DeviceIndex >= 1 ? S.DeviceIndex : TARVIKARM_DEVICE_GetIndex("");
  const PROBE_DEVICE* pDevice = PROBE_GetDevice(Index);
  if (!pDevice || !pDevice->pfGetBackend) {
    snprintf(S.acOpenError, sizeof(S.acOpenError), "no target device available (index %d)", Index);
    return S.acOpenError;
  }
  // Through IP the device still names the chip (memory, core); the gdbserver moves it.
  CProbeBackend* pBackend = S.UseIP ? GDB_GetRemoteBackend(S.sIPHost) : pDevice->pfGetBackend(*pDevice);
  std::string sError;
  if (!pBackend || pBackend->Open(&S.Streams, sError) != 0) {
    snprintf(S.acOpenError, sizeof(S.acOpenError), "%s",
             sError.empty() ? "back-end failed to open" : sError.c_str());
    return S.acOpenError;
  }
  S.pBackend = pBackend;
  S.pDevice = pDevice;
  S.IsOpen = true;
  S.IsConnected = false;
  if (S.UseIP) {
    PROBE_Log("Opened target \"%s\" through gdbserver %s", pDevice->sName.c_str(), S.sIPHost.c_str());
  } else {
    PROBE_Log("Opened target \"%s\"", pDevice->sName.c_str());
  }
  return nullptr;
}

void TARVIKARM_Close(void) {
  CProbeLock Lock;
  CORE_STATE& S = _State();
  if (!S.IsOpen) {
    return;
  }
  if (S.HSSStarted) {
    S.pBackend->StopHSS();
  }
  if (S.TraceStarted) {
    S.pBackend->StopTrace();
  }
  // A closing probe takes its breakpoints out of the target; Connect puts them back.
  for (BREAKPOINT& Bp : S.aBreakpoints) {
    if (Bp.ImpFlags) {
      S.pBackend->ClearBreakpoint(Bp.Addr, (Bp.ImpFlags & 1) != 0);
    }
    Bp.ImpFlags = 0;
  }
  if (S.IsConnected) {
    for (const DATA_EVENT& Ev : S.aDataEvents) {
      S.pBackend->ClearWatchpoint(Ev.Watch);
    }
  }
  S.pBackend->Close();
  S.HSSStarted = S.TraceStarted = S.SWOEnabled = false;
  S.Mct.Stop();
  S.IsOpen = S.IsConnected = false;
  S.pBackend = nullptr;
  S.pDevice = nullptr;
}

U8 TARVIKARM_IsOpen(void) {
  CProbeLock Lock;
  return _State().IsOpen ? 1 : 0;
}

int TARVIKARM_Connect(void) {
  CProbeLock Lock;
  CORE_STATE& S = _State();
  if (!S.IsOpen) {
    PROBE_Error("Connect: probe layer not open");
    return -1;
  }
  std::string sError;
  if (S.pBackend->Connect(sError) != 0) {
    PROBE_Error("Connect: %s", sError.c_str());
    return -1;
  }
  bool WasConnected = S.IsConnected;
  S.IsConnected = true;
  // Breakpoints set before the connection are armed now; data events likewise.
  for (BREAKPOINT& Bp : S.aBreakpoints) {
    if (Bp.ImpFlags == 0) {
      Bp.ImpFlags = _ArmBreakpoint(Bp.Addr, Bp.ImplFlagsAsked);
    }
  }
  for (const DATA_EVENT& Ev : S.aDataEvents) {
    if (!WasConnected) {
      S.pBackend->SetWatchpoint(Ev.Watch);
    }
  }
  return 0;
}

U8 TARVIKARM_IsConnected(void) {
  CProbeLock Lock;
  return _IsConnected() ? 1 : 0;
}

int TARVIKARM_SelectUSB(int Port) {
  CProbeLock Lock;
  if (Port != 0) {
    return -1;
  }
  _State().UseIP = false;
  return 0;
}

int TARVIKARM_EMU_SelectByUSBSN(U32 SerialNo) {
  CProbeLock Lock;
  _State().UseIP = false;
  return 0;
}

// "host[:port]" of a gdbserver; a non-zero Port overrides the one in the text.
U8 TARVIKARM_SelectIP(const char* sHost, int Port) {
  CProbeLock Lock;
  std::string sName, sError;
  U16 ParsedPort = 0;
  if (!sHost || !GDB_ParseHostPort(sHost, kGdbDefaultPort, sName, &ParsedPort, sError) || Port < 0 ||
      Port > 65535) {
    PROBE_Error("SelectIP: %s", sHost ? sError.c_str() : "no host given");
    return 1;
  }
  CORE_STATE& S = _State();
  S.UseIP = true;
  S.sIPHost = sName + ":" + std::to_string(Port ? Port : ParsedPort);
  return 0;
}

U32 TARVIKARM_GetSN(void) {
  return 100000001;
}

U32 TARVIKARM_GetDLLVersion(void) {
  return 70001;  // 7.00a
}

void TARVIKARM_GetFirmwareString(char* sBuffer, int BufferSize) {
  _SetOut(sBuffer, BufferSize, "Zevra built-in probe V7.00 compiled " __DATE__);
}

int TARVIKARM_ExecCommand(const char* sCmd, char* sOut, int OutSize) {
  CProbeLock Lock;
  CORE_STATE& S = _State();
  _SetOut(sOut, OutSize, "");
  if (!sCmd) {
    _SetOut(sOut, OutSize, "command text missing");
    return -1;
  }
  size_t Len = strnlen(sCmd, 1025);
  if (Len > 1024) {
    _SetOut(sOut, OutSize, "command text longer than 1024 bytes");
    return -1;
  }
  std::string sText = _Trim(std::string(sCmd, Len));
  // "Key=Value", "Key Value" or "Key".
  size_t Sep = sText.find_first_of("= \t");
  std::string sKey = _Trim(sText.substr(0, Sep));
  std::string sValue = Sep == std::string::npos ? std::string() : _Trim(sText.substr(Sep + 1));
  if (!sValue.empty() && sValue[0] == '=') {
    sValue = _Trim(sValue.substr(1));
  }
  std::string sLowKey = _Lower(sKey);
  auto Fail = [&](const std::string& sWhy) {
    _SetOut(sOut, OutSize, sWhy);
    PROBE_Error("%s", sWhy.c_str());
    return -1;
  };
  if (sKey.empty()) {
    return Fail("empty command");
  }
  if (sLowKey == "device") {
    _EnsureDevices();
    int Index = TARVIKARM_DEVICE_GetIndex(sValue.c_str());
    if (Index < 1) {
      return Fail("unknown device \"" + sValue + "\"");
    }
    std::string sError;
    if (_AimAtDevice(Index, sError) != 0) {
      return Fail(sError);
    }
    S.DeviceIndex = Index;
    return 0;
  }
  if (sLowKey == "scriptfile") {
    FILE* pFile = sValue.empty() ? nullptr : fopen(sValue.c_str(), "rb");
    if (!pFile) {
      return Fail("script file \"" + sValue + "\" can't be opened");
    }
    fclose(pFile);
    S.sScriptFile = sValue;
    return 0;
  }
  if (sLowKey == "hidedeviceselection") {
    if (sValue != "0" && sValue != "1") {
      return Fail("HideDeviceSelection expects 0 or 1, not \"" + sValue + "\"");
    }
    S.HideDeviceSelection = sValue == "1";
    return 0;
  }
  if (sLowKey == "setmctaddr") {
    U32 Addr;
    if (!_ParseU32(sValue, &Addr)) {
      return Fail("SetMCTAddr: invalid address \"" + sValue + "\"");
    }
    if (_CanAccessMemory()) {
      S.Mct.SetRAM(S.pDevice->RAMAddr, S.pDevice->RAMSize);
      std::string sError;
      if (S.Mct.Validate(Addr, _MemReadAll, sError) != 0) {
        return Fail("SetMCTAddr: " + sError);
      }
    }
    S.Mct.SetAddr(Addr);
    return 0;
  }
  if (sLowKey == "selecttracesource") {
    U32 Source;
    if (!_ParseU32(sValue, &Source) || Source > 1) {
      return Fail("SelectTraceSource expects 0 or 1, not \"" + sValue + "\"");
    }
    return 0;
  }
  if (sLowKey == "tracesampleadjust") {
    return 0;  // no trace pins to tune on these targets
  }
  if (S.pBackend) {
    std::string sAnswer;
    int r = S.pBackend->ExecCommand(sKey, sValue, sAnswer);
    if (r == 0) {
      // Output of the command (a gdbserver's monitor) goes back to whoever typed it.
      _SetOut(sOut, OutSize, sAnswer);
      return sAnswer.empty() ? 0 : 1;
    }
    if (r < 0) {
      return Fail(sAnswer);
    }
  }
  return Fail("unknown command \"" + sKey + "\"");
}

void TARVIKARM_EnableLog(TARVIK_LOG_FUNC pfLog) {
  CProbeLock Lock;
  _State().pfLog = pfLog;
}

void TARVIKARM_SetWarnOutHandler(TARVIK_LOG_FUNC pfWarn) {
  CProbeLock Lock;
  _State().pfWarn = pfWarn;
}

void TARVIKARM_SetErrorOutHandler(TARVIK_LOG_FUNC pfError) {
  CProbeLock Lock;
  _State().pfError = pfError;
}

void TARVIKARM_SetLogFile(const char* sPath) {
  CProbeLock Lock;
  CORE_STATE& S = _State();
  if (S.pLogFile) {
    fclose(S.pLogFile);
    S.pLogFile = nullptr;
  }
  if (sPath && *sPath) {
    S.pLogFile = fopen(sPath, "a");
    if (!S.pLogFile) {
      PROBE_Error("SetLogFile: can't open \"%s\"", sPath);
    }
  }
}

namespace {
int _HasBackgroundAccess() {
  CProbeLock Lock;
  CORE_STATE& S = _State();
  return S.pBackend ? (S.pBackend->CanAccessMemWhileRunning() ? 1 : 0) : 1;
}
int _GetEndianess() {
  return 0;  // little endian data and instructions
}
int _GetDisassembler(U32 Core, void** ppOut) {
  if (!ppOut) {
    return -1;
  }
  *ppOut = reinterpret_cast<void*>(&DISASM_Decode);
  return 0;
}
}  // namespace

void* TARVIK_GetpFunc(int Id) {
  switch (Id) {
    case TARVIK_FUNC_ID_BMA_CAPABILITY:
      return reinterpret_cast<void*>(&_HasBackgroundAccess);
    case TARVIK_FUNC_ID_ENDIANESS:
      return reinterpret_cast<void*>(&_GetEndianess);
    case TARVIK_FUNC_ID_DISASSEMBLER:
      return reinterpret_cast<void*>(&_GetDisassembler);
    default:
      return nullptr;
  }
}

// ---- Target interface and device ----

void TARVIKARM_TIF_Select(int Interface) {
  CProbeLock Lock;
  _State().Interface = Interface;
}

void TARVIKARM_SetSpeed(U32 kHz) {
  CProbeLock Lock;
  _State().SpeedkHz = kHz;
}

U16 TARVIKARM_GetSpeed(void) {
  CProbeLock Lock;
  return U16(std::min<U32>(_State().SpeedkHz, 0xFFFF));
}

void TARVIKARM_SetEndian(int BigEndian) {
  if (BigEndian) {
    PROBE_Warn("SetEndian: big endian is not supported by this target, staying little endian");
  }
}

void TARVIKARM_SetCoreIndex(int CoreIndex) {}

void TARVIKARM_ConfigJTAG(int IRPre, int DRPre) {}

int TARVIKARM_DEVICE_GetIndex(const char* sName) {
  CProbeLock Lock;
  _EnsureDevices();
  CORE_STATE& S = _State();
  std::string sWanted = _Lower(_Trim(sName ? sName : ""));
  if (sWanted.empty()) {
    sWanted = "simulator cortex-m4";
  }
  for (size_t i = 1; i < S.aDevices.size(); i++) {
    if (_Lower(S.aDevices[i].sName) == sWanted) {
      return int(i);
    }
  }
  return -1;
}

int TARVIKARM_DEVICE_GetInfo(int Index, TARVIK_DEVICE_INFO* pInfo) {
  CProbeLock Lock;
  _EnsureDevices();
  CORE_STATE& S = _State();
  if (Index == -1 && !pInfo) {
    return int(S.aDevices.size());
  }
  if (!pInfo || Index < 0 || Index >= int(S.aDevices.size()) ||
      pInfo->SizeOfStruct < sizeof(TARVIK_DEVICE_INFO)) {
    return -1;
  }
  const PROBE_DEVICE& D = S.aDevices[size_t(Index)];
  pInfo->sName = D.sName.c_str();
  pInfo->RAMAddr = D.RAMAddr;
  pInfo->RAMSize = D.RAMSize;
  pInfo->Core = D.Core;
  return 0;
}

void TARVIKARM_Core2CoreName(U32 Core, char* sOut, U32 Size) {
  const char* sName = "Unknown";
  switch (Core) {
    case PROBE_CORE_CORTEX_M0:
      sName = "Cortex-M0";
      break;
    case PROBE_CORE_CORTEX_M3:
      sName = "Cortex-M3";
      break;
    case PROBE_CORE_CORTEX_M4:
      sName = "Cortex-M4";
      break;
  }
  _SetOut(sOut, int(std::min<U32>(Size, 0x7FFFFFFF)), sName);
}

void TARVIKARM_GetDebugInfo(U32 Index, U32* pOut) {
  if (pOut) {
    *pOut = 0;  // 271, security extensions: none on these cores
  }
}

int TARVIKARM_EMU_HasCapEx(int Cap) {
  CProbeLock Lock;
  CORE_STATE& S = _State();
  if (Cap == 23) {
    return (S.pBackend && S.pBackend->HasSWO()) ? 1 : 0;
  }
  return 0;
}

void TARVIKARM_RAWTRACE_Control(U32 Cmd, U32* pOut) {
  CProbeLock Lock;
  CORE_STATE& S = _State();
  if (Cmd == 4 && pOut) {
    *pOut = (S.pBackend && S.pBackend->HasStreamingTrace()) ? (1u << 5) : 0;
  }
}

// ---- Run control ----

U8 TARVIKARM_Halt(void) {
  CProbeLock Lock;
  if (!_IsConnected()) {
    PROBE_Error("Halt: not connected");
    return 1;
  }
  return _State().pBackend->Halt() == 0 ? 0 : 1;
}

I8 TARVIKARM_IsHalted(void) {
  CProbeLock Lock;
  if (!_IsConnected()) {
    return -1;
  }
  int r = _State().pBackend->IsHalted();
  return r > 0 ? 1 : (r == 0 ? 0 : -1);
}

void TARVIKARM_GoEx(U32 MaxEmulInsts, U32 Flags) {
  CProbeLock Lock;
  if (!_IsConnected()) {
    PROBE_Error("GoEx: not connected");
    return;
  }
  _State().pBackend->Go((Flags & 1) != 0);
}

U8 TARVIKARM_Step(void) {
  CProbeLock Lock;
  if (!_IsHalted()) {
    PROBE_Error("Step: target not halted");
    return 1;
  }
  return _State().pBackend->Step() == 0 ? 0 : 1;
}

int TARVIKARM_Reset(void) {
  CProbeLock Lock;
  if (!_IsConnected()) {
    PROBE_Error("Reset: not connected");
    return -1;
  }
  return _State().pBackend->Reset(_State().ResetType) == 0 ? 0 : -1;
}

void TARVIKARM_SetResetType(int Type) {
  CProbeLock Lock;
  _State().ResetType = Type;
}

void TARVIKARM_SetResetDelay(int DelayMS) {}

void TARVIKARM_SetInitRegsOnReset(int On) {}

int TARVIKARM_MeasureCPUSpeedEx(U32 RAMAddr, int PreserveMem, int AllowFail) {
  CProbeLock Lock;
  if (!_IsConnected()) {
    return -1;
  }
  return int(_State().pBackend->GetCoreClockHz());
}

// ---- Breakpoints ----

void TARVIKARM_EnableSoftBPs(int On) {
  CProbeLock Lock;
  _State().SoftBPsEnabled = On != 0;
}

U32 TARVIKARM_SetBPEx(U32 Addr, U32 ImplFlags) {
  CProbeLock Lock;
  CORE_STATE& S = _State();
  Addr &= ~1u;
  for (const BREAKPOINT& Bp : S.aBreakpoints) {
    if (Bp.Addr == Addr) {
      return Bp.Handle;
    }
  }
  if ((ImplFlags & 0xFFFFFFF0u) == 0) {
    PROBE_Error("SetBPEx: implementation flags 0x%08X allow neither hardware nor software breakpoints",
                ImplFlags);
    return 0;
  }
  BREAKPOINT Bp{S.NextHandle, Addr, 0, ImplFlags};
  if (_IsConnected()) {
    Bp.ImpFlags = _ArmBreakpoint(Addr, ImplFlags);
    if (Bp.ImpFlags == 0) {
      PROBE_Error("SetBPEx: no breakpoint unit free for address 0x%08X", Addr);
      return 0;
    }
  }
  S.NextHandle++;
  S.aBreakpoints.push_back(Bp);
  return Bp.Handle;
}

int TARVIKARM_ClrBPEx(U32 Handle) {
  CProbeLock Lock;
  CORE_STATE& S = _State();
  bool Found = false;
  for (size_t i = 0; i < S.aBreakpoints.size();) {
    BREAKPOINT& Bp = S.aBreakpoints[i];
    if (Handle == 0xFFFFFFFFu || Bp.Handle == Handle) {
      if (Bp.ImpFlags && S.pBackend) {
        S.pBackend->ClearBreakpoint(Bp.Addr, (Bp.ImpFlags & 1) != 0);
      }
      S.aBreakpoints.erase(S.aBreakpoints.begin() + long(i));
      Found = true;
    } else {
      i++;
    }
  }
  if (!Found && Handle != 0xFFFFFFFFu) {
    PROBE_Error("ClrBPEx: no breakpoint with handle %u", Handle);
    return -1;
  }
  return 0;
}

int TARVIKARM_GetBPInfoEx(int Index, TARVIK_BP_INFO* pInfo) {
  CProbeLock Lock;
  CORE_STATE& S = _State();
  int Count = int(S.aBreakpoints.size());
  const BREAKPOINT* pBp = nullptr;
  if (Index >= 0 && Index < Count) {
    pBp = &S.aBreakpoints[size_t(Index)];
  } else if (Index == -1 && pInfo && pInfo->Handle != 0) {
    for (const BREAKPOINT& Bp : S.aBreakpoints) {
      if (Bp.Handle == pInfo->Handle) {
        pBp = &Bp;
      }
    }
    if (!pBp) {
      return -1;
    }
  } else if (Index != -1) {
    return -1;
  }
  if (pBp && pInfo) {
    pInfo->Handle = pBp->Handle;
    pInfo->Addr = pBp->Addr;
    pInfo->ImpFlags = pBp->ImpFlags;
  }
  return Count;
}

int TARVIKARM_SetDataEvent(TARVIK_DATA_EVENT* pEvent, U32* pHandle) {
  CProbeLock Lock;
  CORE_STATE& S = _State();
  const int kUnknown = int(0x80000000u);
  if (!pEvent || pEvent->SizeOfStruct != sizeof(TARVIK_DATA_EVENT) || pEvent->Type != 1) {
    return kUnknown;
  }
  PROBE_WATCH W{pEvent->Addr,     pEvent->AddrMask,          pEvent->Data,
                pEvent->DataMask, U8(pEvent->Access & 0x07), pEvent->AccessMask};
  for (const DATA_EVENT& Ev : S.aDataEvents) {
    const PROBE_WATCH& O = Ev.Watch;
    if (O.Addr == W.Addr && O.AddrMask == W.AddrMask && O.Data == W.Data && O.DataMask == W.DataMask &&
        O.Access == W.Access && O.AccessMask == W.AccessMask) {
      if (pHandle) {
        *pHandle = Ev.Handle;
      }
      return 0;
    }
  }
  U32 Bits = 0;
  // An address mask is a run of low bits: the comparator ignores the lowest n address bits.
  if ((W.AddrMask & (W.AddrMask + 1)) != 0) {
    Bits |= 1u << 5;
  }
  U32 Size = (W.Access >> 1) & 3;
  if (!(W.AccessMask & 0x10) || (W.AccessMask & 0xE8) || (pEvent->Access & 0xF8) || Size == 3) {
    Bits |= 1u << 7;
  }
  bool ValueCompare = W.DataMask != 0xFFFFFFFFu;
  if (ValueCompare && W.DataMask != 0) {
    Bits |= 1u << 6;  // the value comparator matches the whole value of the access size
  }
  int NumUnits = S.pBackend ? S.pBackend->GetNumWatchpointUnits() : 4;
  if (int(S.aDataEvents.size()) >= NumUnits) {
    Bits |= 1u << 1;
  }
  if (ValueCompare) {
    bool HasValueUnit = S.pDevice ? S.pDevice->Core != PROBE_CORE_CORTEX_M0 : true;
    for (const DATA_EVENT& Ev : S.aDataEvents) {
      HasValueUnit = HasValueUnit && Ev.Watch.DataMask == 0xFFFFFFFFu;
    }
    if (!HasValueUnit) {
      Bits |= 1u << 2;
    }
  }
  if (Bits) {
    return int(0x80000000u | Bits);
  }
  if (_IsConnected() && S.pBackend->SetWatchpoint(W) != 0) {
    return kUnknown;
  }
  DATA_EVENT Ev{S.NextHandle++, W};
  S.aDataEvents.push_back(Ev);
  if (pHandle) {
    *pHandle = Ev.Handle;
  }
  return 0;
}

int TARVIKARM_ClrDataEvent(U32 Handle) {
  CProbeLock Lock;
  CORE_STATE& S = _State();
  bool Found = false;
  for (size_t i = 0; i < S.aDataEvents.size();) {
    if (Handle == 0xFFFFFFFFu || S.aDataEvents[i].Handle == Handle) {
      if (_IsConnected()) {
        S.pBackend->ClearWatchpoint(S.aDataEvents[i].Watch);
      }
      S.aDataEvents.erase(S.aDataEvents.begin() + long(i));
      Found = true;
    } else {
      i++;
    }
  }
  if (!Found && Handle != 0xFFFFFFFFu) {
    PROBE_Error("ClrDataEvent: no data event with handle %u", Handle);
    return -1;
  }
  return 0;
}

int TARVIKARM_GetWPInfoEx(int Index, TARVIK_WP_INFO* pInfo) {
  CProbeLock Lock;
  CORE_STATE& S = _State();
  int Count = int(S.aDataEvents.size());
  if (Index == -1) {
    return Count;
  }
  if (Index < 0 || Index >= Count || !pInfo) {
    return -1;
  }
  const DATA_EVENT& Ev = S.aDataEvents[size_t(Index)];
  pInfo->Handle = Ev.Handle;
  pInfo->Addr = Ev.Watch.Addr;
  pInfo->AddrMask = Ev.Watch.AddrMask;
  pInfo->Data = Ev.Watch.Data;
  pInfo->DataMask = Ev.Watch.DataMask;
  pInfo->Access = Ev.Watch.Access;
  pInfo->AccessMask = Ev.Watch.AccessMask;
  return Count;
}

// ---- Registers ----

U32 TARVIKARM_ReadReg(U32 Index) {
  CProbeLock Lock;
  U32 Value = 0;
  if (!_IsHalted()) {
    PROBE_Error("ReadReg: target not halted");
    return 0;
  }
  if (_State().pBackend->ReadReg(Index, &Value) != 0) {
    PROBE_Error("ReadReg: no register with index %u", Index);
    return 0;
  }
  return Value;
}

int TARVIKARM_ReadRegs(const U32* paIndex, U32* paData, U8* paStatus, U32 Cnt) {
  CProbeLock Lock;
  if (!paIndex || !paData || Cnt == 0 || Cnt > 63) {
    PROBE_Error("ReadRegs: invalid request (count %u)", Cnt);
    return -1;
  }
  if (!_IsHalted()) {
    return -1;
  }
  int Result = 0;
  for (U32 i = 0; i < Cnt; i++) {
    bool Ok = _State().pBackend->ReadReg(paIndex[i], &paData[i]) == 0;
    if (!Ok) {
      paData[i] = 0;
      Result = -1;
    }
    if (paStatus) {
      paStatus[i] = Ok ? 0 : 1;
    }
  }
  return Result;
}

U8 TARVIKARM_WriteReg(U32 Index, U32 Value) {
  CProbeLock Lock;
  if (!_IsHalted()) {
    PROBE_Error("WriteReg: target not halted");
    return 1;
  }
  if (_State().pBackend->WriteReg(Index, Value) != 0) {
    PROBE_Error("WriteReg: no register with index %u", Index);
    return 1;
  }
  return 0;
}

int TARVIKARM_CP15_ReadEx(U8 CRn, U8 CRm, U8 Op1, U8 Op2, U32* pOut) {
  return -1;  // Cortex-M has no CP15
}

int TARVIKARM_CP15_WriteEx(U8 CRn, U8 CRm, U8 Op1, U8 Op2, U32 Value) {
  return -1;
}

// ---- Memory ----

int TARVIKARM_ReadMemEx(U32 Addr, U32 NumBytes, void* pData, U32 AccessWidth) {
  CProbeLock Lock;
  if (!pData || NumBytes > 0x7FFFFFFFu ||
      (AccessWidth != 0 && AccessWidth != 1 && AccessWidth != 2 && AccessWidth != 4)) {
    return -1;
  }
  if (AccessWidth > 1 && ((Addr | NumBytes) & (AccessWidth - 1))) {
    PROBE_Error("ReadMemEx: address 0x%08X or size %u not aligned to access width %u", Addr, NumBytes,
                AccessWidth);
    return -1;
  }
  if (NumBytes == 0) {
    return 0;
  }
  int n = _MemRead(Addr, NumBytes, static_cast<U8*>(pData));
  return n > 0 ? n : -1;
}

int TARVIKARM_ReadMemHW(U32 Addr, U32 NumBytes, void* pData) {
  CProbeLock Lock;
  return (pData && _MemReadAll(Addr, NumBytes, static_cast<U8*>(pData)) == 0) ? 0 : -1;
}

int TARVIKARM_ReadMem(U32 Addr, U32 NumBytes, void* pData) {
  return TARVIKARM_ReadMemHW(Addr, NumBytes, pData);
}

int TARVIKARM_ReadMemU8(U32 Addr, U32 Cnt, U8* pData, U8* pStatus) {
  return _ReadItems(Addr, Cnt, pData, pStatus);
}

int TARVIKARM_ReadMemU16(U32 Addr, U32 Cnt, U16* pData, U8* pStatus) {
  return _ReadItems(Addr, Cnt, pData, pStatus);
}

int TARVIKARM_ReadMemU32(U32 Addr, U32 Cnt, U32* pData, U8* pStatus) {
  return _ReadItems(Addr, Cnt, pData, pStatus);
}

int TARVIKARM_ReadMemU64(U32 Addr, U32 Cnt, U64* pData, U8* pStatus) {
  return _ReadItems(Addr, Cnt, pData, pStatus);
}

int TARVIKARM_WriteMemEx(U32 Addr, U32 NumBytes, const void* pData, U32 AccessWidth) {
  CProbeLock Lock;
  if (!pData || NumBytes > 0x7FFFFFFFu ||
      (AccessWidth != 0 && AccessWidth != 1 && AccessWidth != 2 && AccessWidth != 4)) {
    return -1;
  }
  if (AccessWidth > 1 && ((Addr | NumBytes) & (AccessWidth - 1))) {
    PROBE_Error("WriteMemEx: address 0x%08X or size %u not aligned to access width %u", Addr, NumBytes,
                AccessWidth);
    return -1;
  }
  if (NumBytes == 0) {
    return 0;
  }
  int n = _MemWrite(Addr, NumBytes, static_cast<const U8*>(pData));
  return n > 0 ? n : -1;
}

int TARVIKARM_WriteMem(U32 Addr, U32 NumBytes, const void* pData) {
  CProbeLock Lock;
  if (!pData || NumBytes > 0x7FFFFFFFu) {
    return -1;
  }
  return _MemWriteAll(Addr, NumBytes, static_cast<const U8*>(pData)) == 0 ? int(NumBytes) : -1;
}

int TARVIKARM_WriteU8(U32 Addr, U8 Data) {
  return _WriteItem(Addr, Data);
}

int TARVIKARM_WriteU16(U32 Addr, U16 Data) {
  return _WriteItem(Addr, Data);
}

int TARVIKARM_WriteU32(U32 Addr, U32 Data) {
  return _WriteItem(Addr, Data);
}

int TARVIKARM_WriteU64(U32 Addr, U64 Data) {
  return _WriteItem(Addr, Data);
}

void TARVIKARM_BeginDownload(U32 Flags) {
  CProbeLock Lock;
  _State().Downloading = true;
}

int TARVIKARM_EndDownload(void) {
  CProbeLock Lock;
  CORE_STATE& S = _State();
  if (!S.Downloading) {
    return 0;
  }
  S.Downloading = false;
  if (!_IsConnected()) {
    PROBE_Error("EndDownload: not connected");
    return -1;
  }
  std::string sError;
  if (S.pBackend->EndDownload(sError) != 0) {
    PROBE_Error("EndDownload: %s", sError.c_str());
    return -1;
  }
  return 0;
}

// ---- Disassembly ----

int TARVIKARM_DisassembleInstEx(char* sOut, U32 BufferSize, U32 Addr, const TARVIK_DISASS_INFO* pInfo) {
  CProbeLock Lock;
  if (!sOut || BufferSize == 0) {
    return -1;
  }
  sOut[0] = 0;
  U8 ac[4];
  int n = _MemRead(Addr, 4, ac);
  if (n < 2) {
    snprintf(sOut, BufferSize, "memory at 0x%08X can't be read", Addr);
    return -1;
  }
  return DISASM_DisassembleThumb(sOut, BufferSize, Addr, ac, U32(n), pInfo ? pInfo->ITState : 0);
}

// ---- Target data streams ----

int TARVIK_MCTERMINAL_Control(U32 Cmd, void* p) {
  CProbeLock Lock;
  CORE_STATE& S = _State();
  if (Cmd == 1) {
    S.Mct.Stop();
    return 0;
  }
  if (Cmd != 0) {
    PROBE_Error("MCTERMINAL_Control: unknown command %u", Cmd);
    return -1;
  }
  if (!_CanAccessMemory()) {
    PROBE_Error("MCTERMINAL_Control: not connected");
    return -1;
  }
  std::string sError;
  if (S.Mct.Start(S.pDevice->RAMAddr, S.pDevice->RAMSize, _MemReadAll, sError) != 0) {
    PROBE_Error("MCTERMINAL_Control: %s", sError.c_str());
    return -1;
  }
  PROBE_Log("Memory channel control block at 0x%08X", S.Mct.GetBlockAddr());
  return 0;
}

int TARVIK_MCTERMINAL_Read(U32 BuffIdx, void* pData, U32 NumBytes) {
  CProbeLock Lock;
  if (!pData || NumBytes == 0 || NumBytes > 0x7FFFFFFFu || !_CanAccessMemory()) {
    return -1;
  }
  std::string sError;
  int n = _State().Mct.Read(BuffIdx, static_cast<U8*>(pData), NumBytes, _MemReadAll, _MemWriteAll, sError);
  if (n < 0) {
    PROBE_Error("MCTERMINAL_Read: %s", sError.c_str());
  }
  return n;
}

int TARVIK_MCTERMINAL_Write(U32 BuffIdx, const void* pData, U32 NumBytes) {
  CProbeLock Lock;
  if (!pData || NumBytes == 0 || NumBytes > 0x7FFFFFFFu || !_CanAccessMemory()) {
    return -1;
  }
  std::string sError;
  int n =
      _State().Mct.Write(BuffIdx, static_cast<const U8*>(pData), NumBytes, _MemReadAll, _MemWriteAll, sError);
  if (n < 0) {
    PROBE_Error("MCTERMINAL_Write: %s", sError.c_str());
  }
  return n;
}

int TARVIK_HSS_Start(TARVIK_HSS_BLOCK* paBlock, int Cnt, int Interval_us, int Flags) {
  CProbeLock Lock;
  CORE_STATE& S = _State();
  if (Cnt > kTarvikMaxHSSBlocks) {
    return -3;
  }
  if (!paBlock || Cnt < 1 || !_IsConnected()) {
    return -1;
  }
  std::vector<std::pair<U32, U32>> aBlocks;
  U64 SampleSize = 4;
  for (int i = 0; i < Cnt; i++) {
    if (paBlock[i].NumBytes == 0 || paBlock[i].NumBytes > 0x10000) {
      PROBE_Error("HSS_Start: block %d at 0x%08X has size %u (1..65536)", i, paBlock[i].Addr,
                  paBlock[i].NumBytes);
      return -1;
    }
    aBlocks.emplace_back(paBlock[i].Addr, paBlock[i].NumBytes);
    SampleSize += paBlock[i].NumBytes;
  }
  if (SampleSize > 0x100000) {
    return -2;
  }
  if (S.HSSStarted) {
    S.pBackend->StopHSS();
  }
  S.Streams.HSS.Clear();
  int r = S.pBackend->StartHSS(aBlocks, std::max(Interval_us, 0));
  if (r < 0) {
    return r;
  }
  S.HSSStarted = true;
  S.HSSSampleSize = U32(SampleSize);
  return 0;
}

int TARVIK_HSS_Stop(void) {
  CProbeLock Lock;
  CORE_STATE& S = _State();
  if (!S.HSSStarted) {
    return -1;
  }
  S.HSSStarted = false;
  return S.pBackend->StopHSS();
}

int TARVIK_HSS_Read(void* pData, U32 NumBytes) {
  CProbeLock Lock;
  CORE_STATE& S = _State();
  if (!pData || !S.HSSStarted || S.HSSSampleSize == 0) {
    return -1;
  }
  // Whole samples only: a reader splits the data by the sample size.
  U32 Whole = NumBytes / S.HSSSampleSize * S.HSSSampleSize;
  return int(S.Streams.HSS.Pop(static_cast<U8*>(pData), Whole));
}

void TARVIK_STRACE_Config(const char* sConfig) {
  U32 Width;
  if (!sConfig || strncmp(sConfig, "PortWidth=", 10) != 0 || !_ParseU32(sConfig + 10, &Width) ||
      (Width != 1 && Width != 2 && Width != 4)) {
    PROBE_Warn("STRACE_Config: \"%s\" not understood (PortWidth=1, 2 or 4)", sConfig ? sConfig : "");
  }
}

int TARVIK_STRACE_Start(void) {
  CProbeLock Lock;
  CORE_STATE& S = _State();
  if (!_IsConnected() || !S.pBackend->HasStreamingTrace()) {
    return -1;
  }
  if (S.pBackend->StartTrace() != 0) {
    return -1;
  }
  S.TraceStarted = true;
  return 0;
}

int TARVIK_STRACE_Stop(void) {
  CProbeLock Lock;
  CORE_STATE& S = _State();
  if (!_IsConnected()) {
    return -1;
  }
  S.TraceStarted = false;
  return S.pBackend->StopTrace() == 0 ? 0 : -1;
}

int TARVIK_STRACE_Read(U32* paItems, U32 Cnt) {
  CProbeLock Lock;
  CORE_STATE& S = _State();
  if (!paItems || !_IsConnected() || !S.TraceStarted) {
    return -1;
  }
  return S.pBackend->ReadTrace(paItems, Cnt);
}

int TARVIK_STRACE_GetInstStats(void* paBuf, U32 Addr, U32 Cnt, U32 ItemSize, U32 Type) {
  CProbeLock Lock;
  CORE_STATE& S = _State();
  if (!paBuf || ItemSize != 8 || Type != 9 || Cnt < 4 || (Cnt & 1) || !_IsConnected() || !S.TraceStarted) {
    return -1;
  }
  int r = S.pBackend->GetInstStats(static_cast<U64*>(paBuf), Addr, Cnt / 2 - 1);
  return r < 0 ? -1 : int(Cnt);
}

int TARVIKARM_SWO_EnableTarget(U32 CpuHz, U32 SWOHz, int Mode, U32 PortMask) {
  CProbeLock Lock;
  CORE_STATE& S = _State();
  if (!_IsConnected() || !S.pBackend->HasSWO()) {
    return -1;
  }
  if (CpuHz == 0 || SWOHz == 0 || SWOHz > CpuHz || CpuHz % SWOHz != 0) {
    PROBE_Error("SWO_EnableTarget: SWO speed %u Hz does not divide the CPU clock %u Hz", SWOHz, CpuHz);
    return -1;
  }
  if (S.pBackend->EnableSWO(CpuHz, SWOHz, PortMask) != 0) {
    return -1;
  }
  S.SWOEnabled = true;
  return 0;
}

int TARVIKARM_SWO_DisableTarget(U32 PortMask) {
  CProbeLock Lock;
  CORE_STATE& S = _State();
  if (!_IsConnected() || !S.pBackend->HasSWO()) {
    return -1;
  }
  return S.pBackend->DisableSWO(PortMask) == 0 ? 0 : -1;
}

int TARVIKARM_SWO_Control(U32 Cmd, void* p) {
  CProbeLock Lock;
  CORE_STATE& S = _State();
  if (Cmd != 2) {
    return -1;
  }
  if (!p) {
    S.Streams.RawSWO.Clear();
    for (CStreamFifo& Port : S.Streams.aStimulus) {
      Port.Clear();
    }
    return 0;
  }
  S.Streams.RawSWO.Discard(*static_cast<U32*>(p));
  return 0;
}

U32 TARVIKARM_SWO_ReadStimulus(U32 Port, void* pData, U32 NumBytes) {
  CProbeLock Lock;
  CORE_STATE& S = _State();
  if (!pData || Port >= U32(PROBE_STREAMS::kNumStimulusPorts)) {
    return 0;
  }
  return U32(S.Streams.aStimulus[Port].Pop(static_cast<U8*>(pData), NumBytes));
}

int TARVIKARM_SWO_GetCompatibleSpeeds(U32 CpuHz, U32 MaxSWOHz, U32* paSpeeds, U32 Cnt) {
  if (CpuHz == 0 || !paSpeeds || Cnt == 0) {
    return -1;
  }
  // The SWO clock is the CPU clock divided by a whole number, at most 6 MHz here.
  U32 Limit = MaxSWOHz ? std::min<U32>(MaxSWOHz, 6000000) : 6000000;
  U32 n = 0;
  for (U32 Div = 1; Div <= 8192 && n < Cnt; Div++) {
    if (CpuHz % Div == 0 && CpuHz / Div <= Limit) {
      paSpeeds[n++] = CpuHz / Div;
    }
  }
  return n ? int(n) : -1;
}

// ---- The table ----

const TARVIK_API& TARVIK_GetProbeLayerApi() {
  static const TARVIK_API Api = [] {
    TARVIK_API a{};
#define PROBE_FILL_MEMBER(Ret, Name, Params) a.Name = &::Name;
    TARVIK_API_LIST(PROBE_FILL_MEMBER)
#undef PROBE_FILL_MEMBER
    return a;
  }();
  return Api;
}
