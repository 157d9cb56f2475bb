// Target.* command handlers.
#include "app/TargetCommands.h"

#include <QFile>
#include <QFileInfo>
#include <QSaveFile>
#include <algorithm>
#include <cstring>
#include <vector>

#include "app/actions/ActionTable.h"
#include "app/actions/CommandConsole.h"
#include "app/tables/SettingsTables.h"
#include "device/Device.h"
#include "device/DeviceDataProvider.h"
#include "device/probe/ProbeCore.h"
#include "windows/Window.h"

namespace {

int _Row(const char* sName) {
  for (int Id = 0; Id < kNumActions; ++Id) {
    if (GetFunctionName(Id) == QLatin1String(sName)) {
      return Id;
    }
  }
  return -1;
}

// Unsigned numbers as every command and its echo read them.
bool _ParseU32(const QString& sText, U32* pValue) {
  return TextToCommandU32(sText, pValue);
}

QString _Hex(U32 v) {
  return "0x" + QString::number(v, 16).toUpper().rightJustified(8, '0');
}

constexpr U32 kMaxBlock = 10000000;  // a job's buffer limit

// The state checks every command that touches the target shares. Empty when the target can be used.
QString _CheckConnected() {
  CDevice* pDevice = CDevice::Instance();
  if (!pDevice->IsConnected()) {
    return "not connected";
  }
  if (pDevice->IsConnLost()) {
    return "connection lost";
  }
  return QString();
}

// True when the target can be used; otherwise the row's error says why.
bool _Ready(int Id) {
  QString sState = _CheckConnected();
  if (!sState.isEmpty()) {
    SetError(Id, sState);
    return false;
  }
  return true;
}

// Argument Index as an unsigned number; otherwise "invalid parameter" naming it.
bool _ArgU32(int Id, const QStringList& Args, int Index, U32* pValue) {
  if (Index < Args.size() && _ParseU32(Args[Index], pValue)) {
    return true;
  }
  SetError(Id, "invalid parameter", Args.value(Index));
  return false;
}

// Reads the target for a command as a JT_READ_MEM job, waiting for it with events pumped, so that the
// windows go on while a slow or silent target is read. True with every byte read; otherwise the row's
// error names the first byte that was not.
bool _ReadTarget(int Id, U32 Addr, U32 Size, U32 ChunkSize, U32 AccessWidth, U32 Flags, U8* pData,
                 U8* paStatus) {
  int r = CDeviceDataProvider::Instance()->ReadMemWait(Addr, Size, ChunkSize, AccessWidth, Flags, pData,
                                                       paStatus);
  if (r < 0) {
    SetError(Id, "could not read memory",
             QString("%1: no answer within %2 ms").arg(_Hex(Addr)).arg(JobTypeToTimeoutMS(JT_READ_MEM)));
    return false;
  }
  if (r > 0) {
    U32 First = U32(std::find(paStatus, paStatus + Size, U8(1)) - paStatus);
    SetError(Id, "could not read memory", _Hex(Addr + std::min(First, Size - 1)));
    return false;
  }
  return true;
}

}  // namespace

CTargetCommands::CTargetCommands(QObject* pParent) : QObject(pParent) {}

void CTargetCommands::ConnectTo(CWindow* pWindow) {
  struct HANDLER {
    const char* sRow;
    const char* sSlot;
  };
  static const HANDLER aHandler[] = {
      {"Target.ReadU32", SLOT(OnActionTargetReadU32Triggered())},
      {"Target.ReadU16", SLOT(OnActionTargetReadU16Triggered())},
      {"Target.ReadU8", SLOT(OnActionTargetReadU8Triggered())},
      {"Target.WriteU32", SLOT(OnActionTargetWriteU32Triggered())},
      {"Target.WriteU16", SLOT(OnActionTargetWriteU16Triggered())},
      {"Target.WriteU8", SLOT(OnActionTargetWriteU8Triggered())},
      {"Target.FillMemory", SLOT(OnActionTargetFillMemoryTriggered())},
      {"Target.SaveMemory", SLOT(OnActionTargetSaveMemoryTriggered())},
      {"Target.LoadMemory", SLOT(OnActionTargetLoadMemoryTriggered())},
      {"Target.GetReg", SLOT(OnActionTargetGetRegTriggered())},
      {"Target.SetReg", SLOT(OnActionTargetSetRegTriggered())},
  };
  for (const HANDLER& h : aHandler) {
    QAction* pAction = GetAction(_Row(h.sRow));
    if (pAction == nullptr) {
      continue;
    }
    pWindow->Disconnect(pAction, SIGNAL(triggered()), pWindow, SLOT(OnActionNotAvailableTriggered()));
    pWindow->Connect(pAction, SIGNAL(triggered()), this, h.sSlot);
  }
}

int CTargetCommands::RegisterIndexByName(const QString& sNameIn) {
  const QString sName = sNameIn.trimmed().toUpper();
  CDevice* pDevice = CDevice::Instance();
  const bool CortexM = !IsARMFamily(pDevice->GetCoreFamily());
  // The special registers of Cortex-M cores have probe indices of their own behind xPSR.
  static const struct {
    const char* sName;
    int Index;
  } aSpecial[] = {{"MSP", 17},     {"PSP", 18},       {"PRIMASK", 19},
                  {"BASEPRI", 20}, {"FAULTMASK", 21}, {"CONTROL", 22}};
  for (const auto& e : aSpecial) {
    if (sName == QLatin1String(e.sName)) {
      return CortexM ? e.Index : -1;
    }
  }
  // The floating-point registers follow them: S0..S31, then FPSCR. A core without an FPU refuses them
  // when they are read or written.
  if (sName == "FPSCR") {
    return CortexM ? int(PROBE_REG_FPSCR) : -1;
  }
  if (sName.startsWith('S') && sName.size() > 1 && sName[1].isDigit()) {
    bool Ok = false;
    int n = sName.mid(1).toInt(&Ok, 10);
    if (Ok && n >= 0 && n <= 31 && sName.mid(1) == QString::number(n)) {
      return CortexM ? int(PROBE_REG_S0) + n : -1;
    }
  }
  static const struct {
    const char* sName;
    U32 Logical;
  } aCore[] = {{"SP", REG_SP}, {"R13", REG_SP}, {"LR", REG_LR},     {"R14", REG_LR},
               {"PC", REG_PC}, {"R15", REG_PC}, {"XPSR", REG_CPSR}, {"CPSR", REG_CPSR}};
  for (const auto& e : aCore) {
    if (sName == QLatin1String(e.sName)) {
      return pDevice->GetTarvikRegIdx(e.Logical);
    }
  }
  if (sName == "SPSR") {
    return CortexM ? -1 : pDevice->GetTarvikRegIdx(REG_SPSR);
  }
  if (sName.startsWith('R')) {
    bool Ok = false;
    int n = sName.mid(1).toInt(&Ok, 10);
    if (Ok && n >= 0 && n <= 12) {
      return pDevice->GetTarvikRegIdx(U32(n));
    }
  }
  return -1;
}

void CTargetCommands::_Read(const char* sRow, U32 Size) {
  const int Id = _Row(sRow);
  if (!CheckParamCount(Id, -1)) {
    return;
  }
  QString sAddr = GetArguments(Id).value(0);
  U32 Addr = 0;
  if (!_ParseU32(sAddr, &Addr)) {
    SetError(Id, "invalid parameter", sAddr);
    return;
  }
  if (!_Ready(Id)) {
    return;
  }
  CDevice* pDevice = CDevice::Instance();
  if (!pDevice->CanAccessMemory()) {
    SetError(Id, "program is running");
    return;
  }
  U8 aData[4] = {0};
  U8 aStatus[4] = {1, 1, 1, 1};
  if (!_ReadTarget(Id, Addr, Size, 0, U32(Size), 0, aData, aStatus)) {
    return;
  }
  U32 Value = 0;
  memcpy(&Value, aData, Size);
  SetResult(Id, int(Value));
}

void CTargetCommands::_Write(const char* sRow, U32 Size) {
  const int Id = _Row(sRow);
  if (!CheckParamCount(Id, -1)) {
    return;
  }
  QStringList Args = GetArguments(Id);
  U32 Addr = 0;
  U32 Value = 0;
  if (!_ArgU32(Id, Args, 0, &Addr)) {
    return;
  }
  if (!_ParseU32(Args[1], &Value) || (Size < 4 && Value >> (8 * Size))) {
    SetError(Id, "invalid parameter", Args[1]);
    return;
  }
  if (!_Ready(Id)) {
    return;
  }
  U8 aData[4];
  memcpy(aData, &Value, 4);
  if (CDevice::Instance()->ScheduleWriteMem(Addr, Size, aData, 0, Size, CDevice::MEM_FLAG_DOWNLOAD) < 0) {
    SetError(Id, "job queue full");
  }
}

void CTargetCommands::OnActionTargetReadU32Triggered() {
  _Read("Target.ReadU32", 4);
}

void CTargetCommands::OnActionTargetReadU16Triggered() {
  _Read("Target.ReadU16", 2);
}

void CTargetCommands::OnActionTargetReadU8Triggered() {
  _Read("Target.ReadU8", 1);
}

void CTargetCommands::OnActionTargetWriteU32Triggered() {
  _Write("Target.WriteU32", 4);
}

void CTargetCommands::OnActionTargetWriteU16Triggered() {
  _Write("Target.WriteU16", 2);
}

void CTargetCommands::OnActionTargetWriteU8Triggered() {
  _Write("Target.WriteU8", 1);
}

void CTargetCommands::OnActionTargetFillMemoryTriggered() {
  static const int Id = _Row("Target.FillMemory");
  if (!CheckParamCount(Id, -1)) {
    return;
  }
  QStringList Args = GetArguments(Id);
  U32 Addr = 0, Size = 0, Value = 0;
  if (!_ArgU32(Id, Args, 0, &Addr)) {
    return;
  }
  if (!_ParseU32(Args[1], &Size) || Size == 0 || Size > kMaxBlock || U64(Addr) + Size > 0xFFFFFFFFull) {
    SetError(Id, "invalid parameter", Args[1]);
    return;
  }
  if (!_ParseU32(Args[2], &Value) || Value > 0xFF) {
    SetError(Id, "invalid parameter", Args[2]);
    return;
  }
  if (!_Ready(Id)) {
    return;
  }
  std::vector<U8> Data(Size, U8(Value));
  if (CDevice::Instance()->ScheduleWriteMem(Addr, Size, Data.data(), 0x1000, 0, CDevice::MEM_FLAG_DOWNLOAD) <
      0) {
    SetError(Id, "job queue full");
  }
}

void CTargetCommands::OnActionTargetSaveMemoryTriggered() {
  static const int Id = _Row("Target.SaveMemory");
  if (!CheckParamCount(Id, -1)) {
    return;
  }
  QStringList Args = GetArguments(Id);
  QString sFile = Args[0].trimmed();
  U32 Addr = 0, Size = 0;
  if (sFile.isEmpty()) {
    SetError(Id, "invalid filename");
    return;
  }
  if (!_ArgU32(Id, Args, 1, &Addr)) {
    return;
  }
  if (!_ParseU32(Args[2], &Size) || Size == 0 || Size > kMaxBlock || U64(Addr) + Size > 0xFFFFFFFFull) {
    SetError(Id, "invalid parameter", Args[2]);
    return;
  }
  if (!_Ready(Id)) {
    return;
  }
  CDevice* pDevice = CDevice::Instance();
  if (!pDevice->CanAccessMemory()) {
    SetError(Id, "program is running");
    return;
  }
  std::vector<U8> Data(Size), Status(Size, 1);
  if (!_ReadTarget(Id, Addr, Size, 0x1000, 0, CDevice::MEM_FLAG_ITEM_WISE_AFTER_SHORT, Data.data(),
                   Status.data())) {
    return;
  }
  // Written whole or not at all: an existing file stays as it was if anything goes wrong.
  QSaveFile File(sFile);
  if (!File.open(QIODevice::WriteOnly) ||
      File.write(reinterpret_cast<const char*>(Data.data()), Size) != Size || !File.commit()) {
    SetError(Id, "could not write file", sFile + ": " + File.errorString());
    return;
  }
  SetResult(Id, int(Size));
}

void CTargetCommands::OnActionTargetLoadMemoryTriggered() {
  static const int Id = _Row("Target.LoadMemory");
  if (!CheckParamCount(Id, -1)) {
    return;
  }
  QStringList Args = GetArguments(Id);
  QString sFile = Args[0].trimmed();
  U32 Addr = 0;
  if (sFile.isEmpty()) {
    SetError(Id, "invalid filename");
    return;
  }
  if (!_ArgU32(Id, Args, 1, &Addr)) {
    return;
  }
  QFile File(sFile);
  if (!QFileInfo(sFile).isFile()) {
    SetError(Id, "file not found", sFile);
    return;
  }
  if (File.size() == 0 || File.size() > kMaxBlock || U64(Addr) + U64(File.size()) > 0xFFFFFFFFull) {
    SetError(Id, "invalid file size", QString("%1: %2 bytes").arg(sFile).arg(File.size()));
    return;
  }
  if (!File.open(QIODevice::ReadOnly)) {
    SetError(Id, "could not read file", sFile + ": " + File.errorString());
    return;
  }
  QByteArray Data = File.readAll();
  if (!_Ready(Id)) {
    return;
  }
  if (CDevice::Instance()->ScheduleWriteMem(Addr, U32(Data.size()),
                                            reinterpret_cast<const U8*>(Data.constData()), 0x1000, 0,
                                            CDevice::MEM_FLAG_DOWNLOAD) < 0) {
    SetError(Id, "job queue full");
    return;
  }
  SetResult(Id, int(Data.size()));
}

void CTargetCommands::OnActionTargetGetRegTriggered() {
  static const int Id = _Row("Target.GetReg");
  if (!CheckParamCount(Id, -1)) {
    return;
  }
  QString sName = GetArguments(Id).value(0);
  if (!_Ready(Id)) {
    return;
  }
  int Idx = RegisterIndexByName(sName);
  if (Idx < 0) {
    SetError(Id, "unknown register", sName);
    return;
  }
  CDevice* pDevice = CDevice::Instance();
  if (!pDevice->IsTargetHalted()) {
    SetError(Id, "program is running");
    return;
  }
  I64 Value = -1;
  if (pDevice->ReadReg(U32(Idx), &Value) < 0 || Value < 0) {
    SetError(Id, "could not read register", sName);
    return;
  }
  SetResult(Id, int(U32(Value)));
}

void CTargetCommands::OnActionTargetSetRegTriggered() {
  static const int Id = _Row("Target.SetReg");
  if (!CheckParamCount(Id, -1)) {
    return;
  }
  QStringList Args = GetArguments(Id);
  U32 Value = 0;
  if (!_ArgU32(Id, Args, 1, &Value)) {
    return;
  }
  if (!_Ready(Id)) {
    return;
  }
  int Idx = RegisterIndexByName(Args[0]);
  if (Idx < 0) {
    SetError(Id, "unknown register", Args[0]);
    return;
  }
  if (!CDevice::Instance()->IsTargetHalted()) {
    SetError(Id, "program is running");
    return;
  }
  if (CDevice::Instance()->ScheduleWriteReg(U32(Idx), Value) < 0) {
    SetError(Id, "job queue full");
  }
}

void CTargetCommands::OnDeviceWriteMemFailed(U32 Addr, U32 nBytes, U8*) {
  ConsoleError(QString("WriteMem: could not write %1 bytes at %2").arg(nBytes).arg(_Hex(Addr)));
  NoteCommandError();
}

void CTargetCommands::OnDeviceWriteRegFailed(U32 RegIdx) {
  ConsoleError(QString("WriteReg: could not write register %1").arg(RegIdx));
  NoteCommandError();
}
