// Connection and run control on the device thread: the configuration, connect and disconnect, reset,
// halt and resume, the halt sequence that turns a stopped target into a reported halt, and the target
// state (registers, modes, capabilities) kept for everybody else.
#include <QCoreApplication>
#include <QThread>
#include <chrono>
#include <cstring>

#include "app/base/Log.h"
#include "device/Device.h"
#include "device/DeviceEvents.h"
#include "device/RegisterIndex.h"
#include "device/probe/TarvikApi.h"

namespace {

U64 _NowMS() {
  using namespace std::chrono;
  return U64(duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count());
}

bool _IsLogActive() {
  return GetLogSink().IsDebugMode() || GetLogSink().HasLogFile();
}

// The probe's own messages arrive on whatever thread called it; they become device log events.
void _ProbeLog(const char* sText) {
  if (sText && *sText && _IsLogActive()) {
    PostDeviceStringEvent(DEV_EVENT_LOG_MSG, sText,
                          MSG_INFO | MSG_TO_STDOUT | MSG_TO_LOGFILE | MSG_FROM_PROBE);
  }
}
void _ProbeWarn(const char* sText) {
  if (sText && *sText) {
    PostDeviceStringEvent(DEV_EVENT_LOG_MSG, sText,
                          MSG_WARNING | MSG_TO_STDOUT | MSG_TO_LOGFILE | MSG_FROM_PROBE);
  }
}
void _ProbeError(const char* sText) {
  if (sText && *sText) {
    PostDeviceStringEvent(DEV_EVENT_LOG_MSG, sText, MSG_ERROR | MSG_TO_ALL | MSG_FROM_PROBE);
  }
}

const TARVIK_API& _Api() {
  return GetTarvikApi();
}

// The probe's record of a device in its list, and the name of its core. -1 for an index below 1 or one
// the probe does not know.
int _ReadDeviceInfo(int Index, TARVIK_DEVICE_INFO* pInfo, char (&acCore)[64]) {
  if (Index < 1) {
    return -1;
  }
  memset(pInfo, 0, sizeof(*pInfo));
  pInfo->SizeOfStruct = sizeof(*pInfo);
  if (_Api().TARVIKARM_DEVICE_GetInfo(Index, pInfo) < 0) {
    return -1;
  }
  memset(acCore, 0, sizeof(acCore));
  _Api().TARVIKARM_Core2CoreName(pInfo->Core, acCore, sizeof(acCore));
  return 0;
}

// The handle of the probe's breakpoint at Addr, or 0.
U32 _FindProbeBreakpoint(U32 Addr) {
  TARVIK_BP_INFO Info;
  memset(&Info, 0, sizeof(Info));
  Info.SizeOfStruct = sizeof(Info);
  int Count = _Api().TARVIKARM_GetBPInfoEx(-1, &Info);
  for (int i = 0; i < Count; ++i) {
    memset(&Info, 0, sizeof(Info));
    Info.SizeOfStruct = sizeof(Info);
    if (_Api().TARVIKARM_GetBPInfoEx(i, &Info) >= 0 && Info.Handle != 0 && Info.Addr == Addr) {
      return Info.Handle;
    }
  }
  return 0;
}

}  // namespace

// ---------------------------------------------------------------------------------------------------
// Logging and state accessors

void CDevice::_LogDebugMsg(const QString& sText) {
  if (_IsLogActive()) {
    PostDeviceStringEvent(DEV_EVENT_LOG_MSG, sText.toUtf8().constData(),
                          MSG_INFO | MSG_TO_STDOUT | MSG_TO_LOGFILE);
  }
}

void CDevice::_LogInfoMsg(const QString& sText) {
  PostDeviceStringEvent(DEV_EVENT_LOG_MSG, sText.toUtf8().constData(), MSG_INFO | MSG_TO_ALL);
}

void CDevice::_LogWarnMsg(const QString& sText) {
  if (_IsLogActive()) {
    PostDeviceStringEvent(DEV_EVENT_LOG_MSG, sText.toUtf8().constData(),
                          MSG_WARNING | MSG_TO_STDOUT | MSG_TO_LOGFILE);
  }
}

void CDevice::_LogErrorMsg(const QString& sText) {
  PostDeviceStringEvent(DEV_EVENT_LOG_MSG, sText.toUtf8().constData(), MSG_ERROR | MSG_TO_ALL);
}

void CDevice::_SetErrorMsg(int Area, const QString& sText) {
  if (Area < 0 || Area >= ERR_AREA_COUNT) {
    return;
  }
  {
    QMutexLocker Lock(&_ConfigMutex);
    _asErrorMsg[Area] = sText;
  }
  if (!sText.isEmpty()) {
    _LogWarnMsg(sText);
  }
}

QString CDevice::GetErrorMsg(int Area) const {
  QMutexLocker Lock(&_ConfigMutex);
  return (Area >= 0 && Area < ERR_AREA_COUNT) ? _asErrorMsg[Area] : QString();
}

QString CDevice::GetCoreName() const {
  QMutexLocker Lock(&_ConfigMutex);
  return _sCoreName;
}

DEV_CONFIG CDevice::GetConfig() const {
  QMutexLocker Lock(&_ConfigMutex);
  return _Config;
}

QString CDevice::GetTarvikSettings() const {
  QMutexLocker Lock(&_ConfigMutex);
  return _sTarvikSettings;
}

int CDevice::GetTarvikRegIdx(U32 Logical, U32 Mode) const {
  return ::GetTarvikRegIdx(Logical, Mode, !IsARMFamily(_CoreFamily.load()), _CPUMode.load());
}

bool CDevice::IsTargetHalted() {
  if (!_Connected.load()) {
    return false;
  }
  if (_Halted.load()) {
    return true;
  }
  U64 Now = _NowMS();
  if (Now - _LastHaltQueryMS <= 50) {
    return false;
  }
  _LastHaltQueryMS = Now;
  return _Api().TARVIKARM_IsHalted() > 0;
}

bool CDevice::CanAccessMemory() {
  if (!_Connected.load()) {
    return false;
  }
  if (_aHWCap[0].load()) {
    return true;
  }
  return QThread::currentThread() == this ? IsTargetHalted() : _StateValid.load();
}

void CDevice::_ResetState() {
  _Connected = false;
  _ConnLost = false;
  _Halted = false;
  _StateValid = false;
  _Running = true;
  _ResetDone = false;
  _HaltSeqActive = false;
  _SessionReady = false;
  _SrcStepActive = false;
  _HaltRequested = false;
  _HiddenBPAddr = ~U64(0);
  _HiddenBPPurpose = 0;
  for (auto& Reg : _aRegs) {
    Reg.store(-1);
  }
  _CPUMode = MODE_UND;
  _ExecMode = EXEC_MODE_UNKNOWN;
}

// ---------------------------------------------------------------------------------------------------
// The job table

int CDevice::_NotAvailable(DEVICE_JOB* pJob) {
  _LogWarnMsg(QString("%1: not available").arg(JobTypeToName(pJob->Type)));
  return -1;
}

int CDevice::_Execute(DEVICE_JOB* pJob) {
  const U64* a = pJob->aParam;
  switch (pJob->Type) {
    case JT_CONNECT: {
      CONNECT_MODES Mode = CONNECT_MODES(a[0]);
      int r;
      if (Mode == CM_BARE) {
        r = _ConnectSimple();
      } else {
        _Disconnect();
        r = _ConnectSimple();
        if (r >= 0) {
          _FinishConnect(Mode);
        }
      }
      if (r >= 0) {
        _EstablishRunState();
      }
      return r;
    }
    case JT_DISCONNECT:
      return _Disconnect();
    case JT_RESET:
      return _Reset(RESET_MODES(a[0]));
    case JT_HALT:
      return _Halt();
    case JT_CONTINUE:
      return _Continue();
    case JT_STEP_INST:
      return _StepInstBasic();
    case JT_EXEC_TARVIK_CMD:
      if (pJob->apData[1] == nullptr || pJob->aDataLen[1] < 2) {
        return -1;
      }
      {
        int r = _ExecTarvikCmd(reinterpret_cast<const char*>(pJob->apData[0]), pJob->aDataLen[1] - 1,
                               reinterpret_cast<char*>(pJob->apData[1]));
        pJob->aResult[0] = r;
        return r < 0 || pJob->apData[1][0] != 0 ? -1 : 0;
      }
    case JT_CONFIGURE:
      return _Configure(reinterpret_cast<const char*>(pJob->apData[0]));
    case JT_SET_CONFIG_PARAM:
      if (pJob->apData[0]) {
        return _SetConfigParam(int(I64(a[0])), reinterpret_cast<const char*>(pJob->apData[0]));
      }
      if (I64(a[0]) >= 15) {
        return -1;  // the integer form exists only for the parameters below 15
      }
      return _SetConfigParam(int(I64(a[0])), I64(a[1]));
    case JT_GET_DEVICE_INFO:
      if (pJob->apData[1] == nullptr) {
        return -1;
      }
      return _GetDeviceInfo(reinterpret_cast<const char*>(pJob->apData[0]), pJob->aDataLen[1],
                            reinterpret_cast<char*>(pJob->apData[1]));
    case JT_MEASURE_CORE_SPEED: {
      int r = _MeasureCoreSpeed();
      pJob->aResult[0] = r;
      return r > 0 ? 0 : -1;
    }
    case JT_RESET_TARGET_EXEC_STATE:
      return _ResetTargetExecState();
    case JT_SET_TARGET_EXEC_STATE: {
      U32 Cnt = U32(a[0]);
      if (Cnt > kNumCachedRegs || pJob->aDataLen[0] < Cnt * sizeof(I64)) {
        return -1;
      }
      return _SetTargetExecState(Cnt, reinterpret_cast<const I64*>(pJob->apData[0]));
    }
    case JT_SET_BP: {
      if (!_Connected.load()) {
        return -1;
      }
      // The permitted implementation: any, hardware only, or software only; code here is Thumb.
      static const U32 aBase[] = {0xFFFFFFF0u, 0xFFFFFF00u, 0xF0u};
      U32 Flags = aBase[a[2] < 3 ? a[2] : 0] | (IsARMFamily(_CoreFamily.load()) ? 1u : 2u);
      return _Api().TARVIKARM_SetBPEx(U32(a[0]), Flags) != 0 ? 0 : -1;
    }
    case JT_CLEAR_BP: {
      if (!_Connected.load()) {
        return -1;
      }
      U32 Handle = _FindProbeBreakpoint(U32(a[0]));
      return Handle != 0 && _Api().TARVIKARM_ClrBPEx(Handle) == 0 ? 0 : -1;
    }
    case JT_CLEAR_ALL_BPS:
      if (!_Connected.load()) {
        return -1;
      }
      return _Api().TARVIKARM_ClrBPEx(0xFFFFFFFF) == 0 ? 0 : -1;
    case JT_READ_REG:
    case JT_WRITE_REG:
    case JT_READ_REGS:
    case JT_READ_CP_REG:
    case JT_WRITE_CP_REG:
    case JT_READ_MEM:
    case JT_WRITE_MEM:
    case JT_WRITE_MEM_MULTIPLE:
    case JT_END_DOWNLOAD:
      return _RunMemoryJob(pJob);
    case JT_READ_LOCATION:
    case JT_READ_LOCS:
    case JT_WRITE_LOCATION:
      return _RunLocationJob(pJob);
    case JT_STEP_INTO:
    case JT_STEP_OVER:
    case JT_STEP_OUT:
    case JT_RUN_TO:
    case JT_SET_BPS:
    case JT_CLEAR_BPS:
    case JT_RESET_BPS:
    case JT_SET_WPS:
    case JT_CLEAR_WPS:
    case JT_CLEAR_ALL_WPS:
    case JT_SET_SH_INPUT_TEXT:
    case JT_DISASS_INSTS:
    case JT_DISASS_INSTRS_EX:
    case JT_DISASS_ARANGES:
    case JT_ENABLE_SIMPLE_TRACE:
    case JT_DISABLE_SIMPLE_TRACE:
    case JT_START_SIMPLE_TRACE:
    case JT_STOP_SIMPLE_TRACE:
    case JT_READ_SIMPLE_TRACE:
    case JT_READ_INST_STATS:
    case JT_FLUSH_STRACE_BUFFER:
    case JT_START_SWO_TRACE:
    case JT_STOP_SWO_TRACE:
    case JT_READ_SWO_TRACE:
    case JT_SWO_GET_COMPAT_SPEEDS:
    case JT_START_MCT:
    case JT_STOP_MCT:
    case JT_FLUSH_MCT:
    case JT_READ_MCT:
    case JT_WRITE_MCT:
    case JT_START_HSS:
    case JT_STOP_HSS:
    case JT_READ_HSS:
      return _NotAvailable(pJob);
    default: {
      char ac[96];
      snprintf(ac, sizeof(ac), "Scheduler encountered unknown job type %d", int(pJob->Type));
      LogMessage(ac, MSG_WARNING | MSG_TO_STDOUT | MSG_TO_LOGFILE);
      return -1;
    }
  }
}

// ---------------------------------------------------------------------------------------------------
// Configuration

int CDevice::_SetConfigParam(int Param, I64 Value) {
  {
    QMutexLocker Lock(&_ConfigMutex);
    if (SetConfigValue(&_Config, Param, Value) < 0) {
      return -1;
    }
  }
  _AfterConfigChange(Param, Value);
  return 0;
}

int CDevice::_SetConfigParam(int Param, const char* sValue) {
  QString sText = QString::fromUtf8(sValue ? sValue : "");
  {
    QMutexLocker Lock(&_ConfigMutex);
    if (SetConfigText(&_Config, Param, sText) < 0) {
      return -1;
    }
  }
  if (Param == DCP_DEVICE_NAME) {
    // The name chooses the device; an unknown name leaves no device chosen (the connect reports it).
    QByteArray Name = sText.toUtf8();
    int Index = _Api().TARVIKARM_DEVICE_GetIndex(Name.constData());
    {
      QMutexLocker Lock(&_ConfigMutex);
      _Config.DeviceIdx = Index >= 1 ? Index : -1;
    }
    _UpdateDeviceInfo();
    _UpdateTarvikFuncPtrs();
  } else if (Param == DCP_LOG_FILE) {
    _Api().TARVIKARM_SetLogFile(sValue ? sValue : "");
  }
  _AfterConfigChange(Param, 0);
  return 0;
}

void CDevice::_AfterConfigChange(int Param, I64 Value) {
  if (Param == DCP_DEVICE_IDX) {
    _UpdateDeviceInfo();
    _UpdateTarvikFuncPtrs();
  } else if (Param == DCP_ENDIAN) {
    _ApplyDataEndianess(int(Value));
  } else if ((Param == DCP_SPEED || Param == DCP_USE_MAX_SPEED || Param == DCP_USE_ADAPTIVE) &&
             _Connected.load()) {
    U32 Speed = GetConfig().Speed;
    _Api().TARVIKARM_SetSpeed(Speed == kSpeedAuto || Speed == kSpeedAdaptive ? Speed : Speed / 1000);
    _UpdateTIFSpeed();
  }
  {
    QMutexLocker Lock(&_ConfigMutex);
    _sTarvikSettings = ConfigToXml(_Config);
  }
  I64 Posted = Value;
  if (Param >= 16) {
    Posted = 0;
  }
  PostDeviceEvent(DEV_EVENT_CONFIG_PARAM_CHANGED, U64(I64(Param)), U64(Posted));
}

int CDevice::_Configure(const char* sXml) {
  DEV_CONFIG Config = GetConfig();
  QString sError;
  if (ConfigFromXml(QString::fromUtf8(sXml ? sXml : ""), &Config, &sError) < 0) {
    _SetErrorMsg(ERR_AREA_GENERAL, "Configure: " + sError);
    return -1;
  }
  DEV_CONFIG Old = GetConfig();
  {
    QMutexLocker Lock(&_ConfigMutex);
    _Config = Config;
  }
  if (Config.sDeviceName != Old.sDeviceName) {
    _SetConfigParam(DCP_DEVICE_NAME, Config.sDeviceName.toUtf8().constData());
  }
  _AfterConfigChange(DCP_SPEED, Config.Speed);
  if (Config.Endian != Old.Endian) {
    _AfterConfigChange(DCP_ENDIAN, Config.Endian);
  }
  return 0;
}

// ---------------------------------------------------------------------------------------------------
// Connection

int CDevice::_SelectHostIF() {
  DEV_CONFIG c = GetConfig();
  if (c.HostIF == kHostIFIP) {
    if (_Api().TARVIKARM_SelectIP(c.sHostName.toUtf8().constData(), 0) != 0) {
      _LogWarnMsg("Connect: error during configuration of IP interface");
      return -1;
    }
    return 0;
  }
  if (c.HostIF == kHostIFUSB) {
    int r = (c.UseSerialNo && c.USBSerialNo > 0) ? _Api().TARVIKARM_EMU_SelectByUSBSN(c.USBSerialNo)
                                                 : _Api().TARVIKARM_SelectUSB(0);
    if (r < 0) {
      _LogWarnMsg("Connect: serial number not found on usb");
      return -1;
    }
    return 0;
  }
  _LogWarnMsg("Connect: unknown host interface");
  return -1;
}

int CDevice::_ConnectSimple() {
  _ResetState();
  if (_SelectHostIF() < 0) {
    _LogErrorMsg("Connect: could not select the host interface");
    return -1;
  }
  const TARVIK_API& Api = _Api();
  Api.TARVIKARM_EnableLog(_ProbeLog);
  Api.TARVIKARM_SetErrorOutHandler(_ProbeError);
  Api.TARVIKARM_SetWarnOutHandler(_ProbeWarn);
  _LogDebugMsg("Opening connection to Tarvik...");
  if (const char* sError = Api.TARVIKARM_Open()) {
    _LogErrorMsg(QString("Open: TARVIK API call failed with error message: %1").arg(sError));
    return -1;
  }
  DEV_CONFIG c = GetConfig();
  if (c.DeviceIdx == -1) {
    _SetSuppressDeviceSelectionDialog(true);
  }
  _SerialNo = Api.TARVIKARM_GetSN();
  _SupportedDevCnt = Api.TARVIKARM_DEVICE_GetInfo(-1, nullptr);
  _UpdateTarvikFuncPtrs();
  if (!c.sScriptFile.isEmpty()) {
    _ExecTarvikScript(c.sScriptFile.toUtf8().constData());
  }
  _LogDebugMsg("Configuring hardware...");
  char acOut[513] = {0};
  QByteArray Cmd = ("device=" + c.sDeviceName).toUtf8();
  Api.TARVIKARM_ExecCommand(Cmd.constData(), acOut, 512);
  if (acOut[0] != 0) {
    _LogWarnMsg(QString("Connect: could not configure Tarvik: %1").arg(acOut));
    _LogErrorMsg(QString("Connect: %1").arg(acOut));
    Api.TARVIKARM_Close();
    return -1;
  }
  Api.TARVIKARM_SetEndian(c.Endian);
  Api.TARVIKARM_SetCoreIndex(c.CoreIndex);
  Api.TARVIKARM_TIF_Select(c.TargetIF);
  if (c.MultipleTargets) {
    Api.TARVIKARM_ConfigJTAG(c.IRPre, c.DRPre);
  }
  Api.TARVIKARM_SetSpeed(c.UseMaxSpeed ? 0 : (!c.UseAdaptive ? c.Speed / 1000 : 65535));
  bool Connected = Api.TARVIKARM_Connect() == 0 && Api.TARVIKARM_IsConnected();
  if (!Connected) {
    // A target that needs a moment after power-up gets one more attempt.
    _LogDebugMsg("Connecting to target...");
    Connected = Api.TARVIKARM_Connect() == 0 && Api.TARVIKARM_IsConnected();
  }
  if (!Connected) {
    _LogWarnMsg("Connect: TARVIK API call failed");
    _LogErrorMsg("Connect: could not connect to target");
    Api.TARVIKARM_Close();
    return -1;
  }
  _Connected = true;
  _UpdateDeviceInfo();
  _UpdateTIFSpeed();
  _UpdateHWCapabilityFlags();
  _UpdateEndianess();
  _Running = true;  // until the run state is established, the target counts as running
  return 0;
}

void CDevice::_EstablishRunState() {
  if (!_Connected.load()) {
    return;
  }
  // The target is asked now rather than at the next poll: until then nobody could tell whether it runs,
  // and a command right after the connect would find it "running" though it is halted.
  _Running = true;
  _Halted = false;
  _StateValid = false;
  _HaltSeqActive = false;
  _HaltRequested = false;
  _LastPollMS = 0;
  _InConnect = true;
  _CheckHandleHalt();
  _InConnect = false;
  if (_Running.load()) {
    _LogDebugMsg("Connect: target is running");
  }
}

void CDevice::_FinishConnect(CONNECT_MODES Mode) {
  bool WasConnected = _Connected.load();
  _Connected = false;
  _ConnLost = false;
  _SrcStepActive = false;
  const TARVIK_API& Api = _Api();
  if (!Api.TARVIKARM_IsOpen()) {
    return;
  }
  _Connected = WasConnected && Api.TARVIKARM_IsConnected();
  _SessionReady = Mode == CM_ATTACH || Mode == CM_ATTACH_HALT;
  Api.TARVIKARM_EnableSoftBPs(1);
  // Breakpoints of the session are set again here once the breakpoint list exists.
}

int CDevice::_Disconnect() {
  if (!_Connected.load()) {
    return 0;
  }
  PostDeviceEvent(DEV_EVENT_ABOUT_TO_DISCONNECT, 0, 0);
  const TARVIK_API& Api = _Api();
  if (!_ConnLost.load()) {
    Api.TARVIKARM_ClrBPEx(0xFFFFFFFF);
    Api.TARVIKARM_ClrDataEvent(0xFFFFFFFF);
  }
  _HiddenBPAddr = ~U64(0);
  _ResetState();
  Api.TARVIKARM_Close();
  return 0;
}

int CDevice::_ExecTarvikCmd(const char* sCmd, U32 Len, char* acOut) {
  if (acOut == nullptr || Len == 0 || sCmd == nullptr) {
    return -1;
  }
  acOut[0] = 0;
  int r = _Api().TARVIKARM_ExecCommand(sCmd, acOut, int(Len));
  acOut[Len - 1] = 0;
  if (r > 0 && acOut[0] != 0) {
    // The command worked and printed something (a gdbserver's monitor): it goes to the Console, where
    // the command was typed, line by line.
    for (const QString& sLine : QString::fromUtf8(acOut).split('\n')) {
      QString sText = sLine;
      sText.remove('\r');
      if (!sText.isEmpty()) {
        _LogInfoMsg(sText);
      }
    }
    acOut[0] = 0;
  }
  if (acOut[0] == 0) {
    _LogDebugMsg(QString("Executed Tarvik command \"%1\"").arg(sCmd));
    return 0;
  }
  _LogWarnMsg(QString("Error executing Tarvik command \"%1\": %2").arg(sCmd, acOut));
  return r;
}

int CDevice::_ExecTarvikScript(const char* sFilePath) {
  _LogDebugMsg("Executing Tarvik Script");
  char acOut[513];
  QByteArray Cmd = QByteArray("ScriptFile=") + sFilePath;
  return _ExecTarvikCmd(Cmd.constData(), sizeof(acOut), acOut);
}

int CDevice::_SetSuppressDeviceSelectionDialog(bool Suppress) {
  char acOut[513];
  return _ExecTarvikCmd(Suppress ? "HideDeviceSelection=1" : "HideDeviceSelection=0", sizeof(acOut), acOut);
}

int CDevice::_GetDeviceInfo(const char* sDevice, U32 OutSize, char* acCoreName) {
  if (acCoreName == nullptr || OutSize == 0) {
    return -1;
  }
  acCoreName[0] = 0;
  TARVIK_DEVICE_INFO Info;
  char acName[64];
  if (_ReadDeviceInfo(_Api().TARVIKARM_DEVICE_GetIndex(sDevice ? sDevice : ""), &Info, acName) < 0) {
    return -1;
  }
  snprintf(acCoreName, OutSize, "%s", acName);
  return 0;
}

int CDevice::_UpdateDeviceInfo() {
  {
    QMutexLocker Lock(&_ConfigMutex);
    _sCoreName.clear();
  }
  _CoreFamily = DF_UNKNOWN;
  DEV_CONFIG c = GetConfig();
  int Index = c.DeviceIdx;
  if (Index < 1) {
    Index = _Api().TARVIKARM_DEVICE_GetIndex(c.sDeviceName.toUtf8().constData());
  }
  TARVIK_DEVICE_INFO Info;
  char acCore[64];
  if (_ReadDeviceInfo(Index, &Info, acCore) < 0) {
    return -1;
  }
  QMutexLocker Lock(&_ConfigMutex);
  _Config.sDeviceName = Info.sName ? QString::fromUtf8(Info.sName) : QString("Unspecified");
  _CoreId = Info.Core;
  _CoreFamily = CoreIdToFamily(Info.Core);
  _DeviceRAMAddr = Info.RAMAddr;
  _DeviceRAMSize = Info.RAMSize;
  _sCoreName = QString::fromUtf8(acCore);
  return 0;
}

void CDevice::_UpdateTarvikFuncPtrs() {
  _pfBMACapability = nullptr;
  _pfEndianess = nullptr;
  _pfBMACapability = reinterpret_cast<int (*)()>(_Api().TARVIK_GetpFunc(TARVIK_FUNC_ID_BMA_CAPABILITY));
  _pfEndianess = reinterpret_cast<int (*)()>(_Api().TARVIK_GetpFunc(TARVIK_FUNC_ID_ENDIANESS));
}

void CDevice::_ResetHWCapabilityFlags() {
  for (int i = 0; i < kNumHWCaps; ++i) {
    _aHWCap[i] = i < 6;
  }
}

void CDevice::_UpdateHWCapabilityFlags() {
  if (!_Connected.load()) {
    return;
  }
  bool aNew[kNumHWCaps];
  aNew[0] = _pfBMACapability ? _pfBMACapability() != 0 : true;
  aNew[1] = _ReadSWOTraceCapability();
  aNew[2] = _ReadStreamingTraceCapability();
  aNew[3] = aNew[4] = aNew[5] = true;
  U32 Security = 0;
  _Api().TARVIKARM_GetDebugInfo(271, &Security);
  aNew[6] = Security > 0;
  for (int i = 0; i < kNumHWCaps; ++i) {
    if (_aHWCap[i].exchange(aNew[i]) != aNew[i]) {
      PostDeviceEvent(DEV_EVENT_HW_CAP_CHANGED, U64(i), aNew[i] ? 1 : 0);
    }
  }
}

bool CDevice::_ReadSWOTraceCapability() {
  _SetErrorMsg(ERR_AREA_GENERAL, QString());
  if (!_Connected.load()) {
    return true;
  }
  if (!IsCortexMFamily(_CoreFamily.load())) {
    _SetErrorMsg(ERR_AREA_GENERAL, "SWO trace: not a Cortex-M target device");
    return false;
  }
  if (GetConfig().TargetIF != 1) {
    _SetErrorMsg(ERR_AREA_GENERAL, "SWO trace: target interface not set to SWD");
    return false;
  }
  if (!_Api().TARVIKARM_EMU_HasCapEx(23)) {
    _SetErrorMsg(ERR_AREA_GENERAL, "Tarvik emulator does not support SWO.");
    return false;
  }
  return true;
}

bool CDevice::_ReadStreamingTraceCapability() {
  if (!_Connected.load()) {
    return true;
  }
  if (_LibVersion < 61000) {
    return false;
  }
  U32 Caps = 0;
  _Api().TARVIKARM_RAWTRACE_Control(4, &Caps);
  return (Caps & (1u << 5)) != 0;
}

void CDevice::_UpdateEndianess() {
  int Endian = GetConfig().Endian;
  int Data = Endian;
  int Inst = Endian;
  if (_Connected.load() && _pfEndianess) {
    int r = _pfEndianess();
    if (r >= 0) {
      Data = r & 1;
      Inst = (r >> 1) & 1;
    } else if (_CoreFamily == DF_CORTEX_A5 || _CoreFamily == DF_CORTEX_A8) {
      Inst = 0;
    }
  }
  if (Data != _DataEndian || Inst != _InstEndian) {
    _DataEndian = Data;
    _InstEndian = Inst;
    PostDeviceEvent(DEV_EVENT_ENDIANESS_CHANGED, U64(Data), U64(Inst));
  }
}

void CDevice::_ApplyDataEndianess(int Endian) {
  if (_Connected.load()) {
    _Api().TARVIKARM_SetEndian(Endian);
    int Family = _CoreFamily.load();
    if (Family == DF_CORTEX_A5 || Family == DF_CORTEX_A8 || Family == DF_CORTEX_R4) {
      int Idx = GetTarvikRegIdx(REG_CPSR);
      if (Idx >= 0) {
        U32 CPSR = _Api().TARVIKARM_ReadReg(U32(Idx));
        CPSR = Endian ? (CPSR | 0x200) : (CPSR & ~0x200u);
        _Api().TARVIKARM_WriteReg(U32(Idx), CPSR);
        ScheduleReadReg(U32(Idx));
      }
    }
  }
  _UpdateEndianess();
}

void CDevice::_UpdateTIFSpeed() {
  U16 kHz = _Api().TARVIKARM_GetSpeed();
  _TIFSpeed = (kHz == 0 || kHz == 65535) ? U32(kHz) : U32(kHz) * 1000;
}

// ---------------------------------------------------------------------------------------------------
// Reset, halt, resume

int CDevice::_WaitForHaltedOrTimeout(U64 TimeoutMS) {
  U64 Start = _NowMS();
  while (_NowMS() - Start < TimeoutMS) {
    if (IsTargetHalted()) {
      return 0;
    }
    QThread::msleep(1);
  }
  return -1;
}

int CDevice::_ResetHardware() {
  if (!_Connected.load()) {
    _LogWarnMsg("Reset: not connected");
    return -1;
  }
  const TARVIK_API& Api = _Api();
  int Endian = GetConfig().Endian;
  Api.TARVIKARM_SetResetType(0);
  Api.TARVIKARM_SetResetDelay(0);
  Api.TARVIKARM_SetInitRegsOnReset(1);
  Api.TARVIKARM_Halt();
  Api.TARVIKARM_SetEndian(Endian);
  int r = Api.TARVIKARM_Reset();
  Api.TARVIKARM_Halt();
  _ApplyDataEndianess(Endian);
  if (r != 0) {
    _LogWarnMsg("Reset: TARVIK API call failed");
    return -1;
  }
  return 0;
}

int CDevice::_Reset(RESET_MODES Mode) {
  if (!_Connected.load()) {
    _LogWarnMsg("Reset: not connected");
    return -1;
  }
  if (Mode == RM_BARE) {
    int r = _ResetHardware();
    if (r == 0 && _WaitForHaltedOrTimeout(2000) == 0) {
      // The halt after a bare reset is known, so it is not reported again by the poll.
      _Halted = true;
      _Running = false;
      _UpdateTargetExecState();
      _StateValid = true;
    }
    return r;
  }
  _LastResetMode = Mode;
  _ResetDone = false;
  _LogDebugMsg("Resetting target...");
  if (_ResetHardware() < 0) {
    return -1;
  }
  // Hidden breakpoints are cleared here once breakpoints are kept by the session.
  return _FinishReset(Mode);
}

int CDevice::_FinishReset(RESET_MODES Mode) {
  _ResetDone = Mode == RM_RESET_HALT;
  if (_WaitForHaltedOrTimeout(2000) < 0) {
    _LogErrorMsg("Target did not halt following reset");
    return -1;
  }
  _Halted = true;
  _Running = false;
  _HaltSeqActive = false;
  _UpdateTargetExecState();
  _StateValid = true;
  return 0;
}

int CDevice::_Halt() {
  if (!_Connected.load()) {
    _LogWarnMsg("Halt: not connected");
    return -1;
  }
  if (_Api().TARVIKARM_Halt() != 0) {
    _LogWarnMsg("Halt: TARVIK API call failed");
    _TestConnectionLost();
    return -1;
  }
  _HaltRequested = true;
  return 0;
}

int CDevice::_Continue() {
  if (!_Connected.load()) {
    _LogDebugMsg("Continue: not connected");
    return -1;
  }
  if (_ConnLost.load()) {
    _LogWarnMsg("Continue: connection lost");
    return -1;
  }
  if (!_Halted.load()) {
    _LogDebugMsg("Continue: not halted");
    return 0;
  }
  _LogDebugMsg("Resuming target...");
  const TARVIK_API& Api = _Api();
  I64 PC = _aRegs[REG_PC].load();
  if (PC > 0) {
    // A breakpoint instruction compiled into the program would stop the target again at once.
    U16 Half = 0;
    U32 Word = 0;
    U8 Status = 1;
    if (Api.TARVIKARM_ReadMemU16(U32(PC), 1, &Half, &Status) == 1 && Status == 0 &&
        (Half & 0xFF00) == 0xBE00) {
      Api.TARVIKARM_WriteReg(GetPCRegIndex(), U32(PC) + 2);
    } else if (IsARMFamily(_CoreFamily.load()) && Api.TARVIKARM_ReadMemU32(U32(PC), 1, &Word, &Status) == 1 &&
               Status == 0 && (Word >> 24) == 0xE1) {
      Api.TARVIKARM_WriteReg(GetPCRegIndex(), U32(PC) + 2);
    }
  }
  if (PC == 0) {
    Api.TARVIKARM_Step();
  }
  Api.TARVIKARM_GoEx(0, 1);
  _Running = true;
  _Halted = false;
  _StateValid = false;
  _HaltRequested = false;
  if (_LastResetMode == RM_RESET_AND_RUN) {
    _ResetDone = true;
  }
  return 0;
}

int CDevice::_StepInstBasic() {
  if (!_Connected.load()) {
    _LogDebugMsg("Step: not connected");
    return -1;
  }
  if (!_Halted.load()) {
    _LogDebugMsg("Step: not halted");
    return -1;
  }
  if (_Api().TARVIKARM_Step() != 0) {
    _LogWarnMsg("Step: TARVIK API call failed");
    _TestConnectionLost();
    return -1;
  }
  _UpdateTargetExecState();
  _StateValid = true;
  return 0;
}

int CDevice::_MeasureCoreSpeed() {
  if (_DeviceRAMAddr.load() == 0 && _DeviceRAMSize.load() == 0) {
    _SetErrorMsg(ERR_AREA_GENERAL, "MeasureCoreSpeed: invalid RAM address");
    return -1;
  }
  if (!_Connected.load()) {
    _SetErrorMsg(ERR_AREA_GENERAL, "MeasureCoreSpeed: not connected");
    return -1;
  }
  if (!IsTargetHalted()) {
    _SetErrorMsg(ERR_AREA_GENERAL, "MeasureCoreSpeed: not halted");
    return -1;
  }
  int Hz = _Api().TARVIKARM_MeasureCPUSpeedEx(_DeviceRAMAddr.load(), 1, 1);
  if (Hz <= 0) {
    _SetErrorMsg(ERR_AREA_GENERAL, "could not determine core frequency");
    return -1;
  }
  _LogDebugMsg(QString("Core speed measured at %1 Hz").arg(Hz));
  _CoreClock = U32(Hz);
  return Hz;
}

// ---------------------------------------------------------------------------------------------------
// The halt and notification tests

int CDevice::_PollTargetHaltStatus(U32 MinQueryIntervalMS) {
  if (!_Connected.load()) {
    return 0;
  }
  U64 Now = _NowMS();
  if (Now - _LastPollMS < MinQueryIntervalMS) {
    return -2;
  }
  _LastPollMS = Now;
  I8 r = _Api().TARVIKARM_IsHalted();
  return r > 0 ? 1 : (r == 0 ? 0 : -1);
}

void CDevice::_CheckHandleNotifications() {
  U32 ConnectMode = _PendingConnectMode.exchange(~0u);
  if (ConnectMode != ~0u) {
    _FinishConnect(CONNECT_MODES(ConnectMode));
    _EstablishRunState();
    ReportJobDone(JT_CONNECT, _Connected.load() ? JOB_STATUS_DONE : JOB_STATUS_FAILED, ConnectMode, 0, 0);
    _PostDeferredHaltReport();
  }
  U32 ResetMode = _PendingResetMode.exchange(~0u);
  if (ResetMode != ~0u) {
    int r = _FinishReset(RESET_MODES(ResetMode));
    ReportJobDone(JT_RESET, r < 0 ? JOB_STATUS_FAILED : JOB_STATUS_DONE, ResetMode,
                  std::max<I64>(_aRegs[REG_PC].load(), 0), 0);
  }
  if (_PendingInitPC.exchange(false)) {
    // The entry point comes from the program index; until a program is loaded the PC stays.
    ReportJobDone(JT_HALT, JOB_STATUS_DONE, HR_PC_SET, std::max<I64>(_aRegs[REG_PC].load(), 0), 0);
  }
}

void CDevice::_CheckHandleHalt() {
  if (!_Running.load() || !_Connected.load()) {
    return;
  }
  if (_HaltSeqActive.load() && !_HaltRequested.load()) {
    return;
  }
  int Status = _PollTargetHaltStatus(_HaltRequested.load() ? 0 : 50);
  if (Status == -1) {
    _OnInvalidHaltStatus();
    _HaltSeqActive = false;
    return;
  }
  if (Status != 1) {
    return;
  }
  bool WasRequested = _HaltRequested.load();
  _HaltSeqActive = true;
  _Halted = true;
  _HaltRequested = false;
  _Running = false;
  _LogDebugMsg("Target has halted. Evaluating halt conditions...");
  if (WasRequested) {
    // A halt that was asked for is not tested for semihosting or breakpoint conditions.
    _UpdateTargetExecState();
    _OnHalted();
    return;
  }
  I64 PC = I64(_Api().TARVIKARM_ReadReg(GetPCRegIndex()));
  if (PC > 0) {
    PC &= ~I64(1);
  }
  _aRegs[REG_PC] = PC;
  if (_ResumeWhenSHIRQIsDiscarded(U32(PC))) {
    _HaltSeqActive = false;
    return;
  }
  _UpdateTargetExecState();
  _EvalBPCondAndContinueHaltSeq(U32(PC));
}

bool CDevice::_IsSemihostingCall(U32 Addr) {
  U16 Half = 0;
  U8 Status = 1;
  return _Api().TARVIKARM_ReadMemU16(Addr, 1, &Half, &Status) == 1 && Status == 0 && Half == 0xBEAB;
}

bool CDevice::_IsUserBreakpointAt(U32 Addr) {
  // The probe's own list tells which breakpoints are set; the session's list takes over when it exists.
  return U64(Addr) != _HiddenBPAddr && _FindProbeBreakpoint(Addr) != 0;
}

bool CDevice::_ResumeWhenSHIRQIsDiscarded(U32 Addr) {
  if (_SemihostingEnabled.load() || !_IsSemihostingCall(Addr) || U64(Addr) == _HiddenBPAddr ||
      _IsUserBreakpointAt(Addr)) {
    return false;
  }
  // Semihosting is off: the call is passed over and nobody hears of it.
  _Halted = true;
  _Continue();
  return true;
}

void CDevice::_EvalBPCondAndContinueHaltSeq(U32 Addr) {
  // Breakpoint conditions and hidden breakpoints of source-level steps join here with the breakpoint
  // list; until then every halt ends the sequence.
  (void)Addr;
  _OnHalted();
}

void CDevice::_OnHalted() {
  I64 PC = _aRegs[REG_PC].load();
  bool OnBreakpoint = PC >= 0 && _IsUserBreakpointAt(U32(PC));
  _Halted = true;
  _StateValid = true;
  _LogDebugMsg("Target has halted and all halt conditions were passed");
  _HiddenBPAddr = ~U64(0);
  if (_SessionReady.load()) {
    U64 Reason = OnBreakpoint ? HR_BREAKPOINT : HR_HALT;
    if (_InConnect) {
      // Told once the connect's own completion has been posted.
      _HaltReportPending = true;
      _PendingHaltReason = Reason;
      _PendingHaltPC = PC >= 0 ? PC : 0;
    } else {
      ReportJobDone(JT_HALT, JOB_STATUS_DONE, Reason, PC >= 0 ? PC : 0, 0);
    }
  }
  _HiddenBPPurpose = 0;
  _HaltSeqActive = false;
  _SrcStepActive = false;
}

void CDevice::_CheckHandleResume() {
  if (_Running.load() || !_Connected.load() || _HaltSeqActive.load()) {
    return;
  }
  int Status = _PollTargetHaltStatus(5000);
  if (Status == -1) {
    _OnInvalidHaltStatus();
  } else if (Status == 0) {
    // Something else resumed the target: the device thought it halted.
    _Running = true;
    _Halted = false;
    _StateValid = false;
    ReportJobDone(JT_CONTINUE, JOB_STATUS_DONE, GO_USER, 0, 0);
  }
}

void CDevice::_OnInvalidHaltStatus() {
  if (!_Connected.load()) {
    return;
  }
  _LogWarnMsg("Invalid connection status received");
  if (!_ConnLost.exchange(true)) {
    _StateValid = false;
    CancelPendingJobs(JT_ANY, JOB_QUEUE_ALL);
    PostDeviceEvent(DEV_EVENT_CONNECTION_LOST, 0, 0);
  }
}

bool CDevice::_TestConnectionLost() {
  if (_Connected.load() && _Api().TARVIKARM_IsHalted() < 0) {
    _OnInvalidHaltStatus();
    return true;
  }
  return false;
}

// ---------------------------------------------------------------------------------------------------
// The target's execution state

int CDevice::_ResetTargetExecState() {
  for (auto& Reg : _aRegs) {
    Reg.store(-1);
  }
  _CPUMode = MODE_UND;
  return 0;
}

int CDevice::_SetTargetExecState(U32 Cnt, const I64* paRegVals) {
  if (!_Connected.load()) {
    _LogDebugMsg("SetTargetExecState: not connected");
    return -1;
  }
  for (auto& Reg : _aRegs) {
    Reg.store(0);
  }
  I64 CPSR;
  if (paRegVals && Cnt > REG_CPSR) {
    CPSR = paRegVals[REG_CPSR];
  } else {
    int Idx = GetTarvikRegIdx(REG_CPSR);
    CPSR = Idx >= 0 ? I64(_Api().TARVIKARM_ReadReg(U32(Idx))) : -1;
  }
  _UpdateCPUMode(CPSR);
  _UpdateExecMode(CPSR);
  _UpdateRegs(Cnt, paRegVals);
  return 0;
}

void CDevice::_UpdateRegs(U32 Cnt, const I64* paRegVals) {
  if (paRegVals && Cnt > 0) {
    for (U32 i = 0; i < Cnt && i < kNumCachedRegs; ++i) {
      _aRegs[i] = paRegVals[i];
    }
    // Registers written from outside go to the target too.
    for (U32 i = 0; i < Cnt && i <= REG_CPSR; ++i) {
      int Idx = GetTarvikRegIdx(i);
      if (Idx >= 0 && paRegVals[i] >= 0) {
        _Api().TARVIKARM_WriteReg(U32(Idx), U32(paRegVals[i]));
      }
    }
  } else {
    U32 aIdx[REG_CPSR + 1];
    U32 aData[REG_CPSR + 1];
    U8 aStatus[REG_CPSR + 1];
    for (U32 i = 0; i <= REG_CPSR; ++i) {
      int Idx = GetTarvikRegIdx(i);
      aIdx[i] = Idx >= 0 ? U32(Idx) : 0;
    }
    if (_Api().TARVIKARM_ReadRegs(aIdx, aData, aStatus, REG_CPSR + 1) == 0) {
      for (U32 i = 0; i <= REG_CPSR; ++i) {
        _aRegs[i] = aStatus[i] == 0 ? I64(aData[i]) : -1;
      }
    }
  }
  I64 PC = _aRegs[REG_PC].load();
  if (PC > 0) {
    _aRegs[REG_PC] = PC & ~I64(1);
  }
}

void CDevice::_UpdateCPUMode(I64 CPSR) {
  U32 Mode = MODE_UND;
  if (CPSR >= 0 && _Connected.load() && IsTargetHalted()) {
    U32 Low = U32(CPSR) & 0x1F;
    switch (Low) {
      case MODE_UND:
      case MODE_FIQ:
      case MODE_SVC:
      case MODE_ABT:
      case MODE_SYS:
      case MODE_IRQ:
        Mode = Low;
        break;
      default:
        Mode = MODE_USR;
        break;
    }
  }
  if (_CPUMode.exchange(Mode) != Mode) {
    PostDeviceEvent(DEV_EVENT_CPU_MODE_CHANGED, Mode, 0);
  }
}

void CDevice::_UpdateExecMode(I64 CPSR) {
  U32 Mode = EXEC_MODE_THUMB;
  if (IsARMFamily(_CoreFamily.load()) && CPSR >= 0 && IsTargetHalted()) {
    Mode = (CPSR & 0x20) ? EXEC_MODE_THUMB : EXEC_MODE_ARM;
  }
  if (_ExecMode.exchange(Mode) != Mode) {
    PostDeviceEvent(DEV_EVENT_EXEC_MODE_CHANGED, Mode, 0);
  }
}

void CDevice::SetRegVal(int LogicalRegIdx, I64 RegVal) {
  if (LogicalRegIdx >= 0 && U32(LogicalRegIdx) < kNumCachedRegs) {
    _aRegs[LogicalRegIdx] = RegVal;
  }
}
