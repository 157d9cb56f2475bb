// The settings rows: each works out from its arguments what it will write (a plan), and only a plan
// without fault is carried out. The same plan gives the canonical arguments that the Console echoes.
#include "app/SettingsCommands.h"

#include <QAction>
#include <QApplication>
#include <QColor>
#include <QFont>
#include <QList>
#include <QStringList>
#include <algorithm>
#include <cstring>

#include "app/MainWindow.h"
#include "app/actions/ActionTable.h"
#include "app/tables/SettingsTables.h"
#include "debuginfo/ProgramIndex.h"
#include "device/Device.h"
#include "device/DeviceConfig.h"
#include "device/DeviceDataProvider.h"
#include "windows/Window.h"

namespace {

// The device's configuration parameters that these rows write.
enum : int {
  kConfigUSBSerialNo = DCP_USB_SERIAL_NO,
  kConfigUseSerialNo = DCP_USE_SERIAL_NO,
  kConfigHostIF = DCP_HOST_IF,
  kConfigTargetIF = DCP_TARGET_IF,
  kConfigSpeed = DCP_SPEED,
  kConfigEndian = DCP_ENDIAN,
  kConfigDRPre = DCP_DR_PRE,
  kConfigIRPre = DCP_IR_PRE,
  kConfigSteppingMode = DCP_STEPPING_MODE,
  kConfigHostName = DCP_HOST_NAME,
  kConfigDeviceName = DCP_DEVICE_NAME,
  kConfigScriptFile = DCP_SCRIPT_FILE,
  kConfigLogFile = DCP_LOG_FILE,
};
// Sizes of the text fields, terminator included.
constexpr int kConfigNameSize = 256;
constexpr int kConfigPathSize = 2048;

// The symbol of the memory channel terminal's control block in a program that uses it.
constexpr const char* kMctControlBlock = "_QUORIN_MCT";

// The trace port delays are kept in steps of this many picoseconds.
constexpr int kTraceDelayStep = 50;

struct VAR_WRITE {
  SYS_VAR* pVar;
  I32 Value;
  QString sText;  // for the text row only
};

struct CONFIG_WRITE {
  int Param;
  I32 Value;
  QByteArray Text;
  bool IsText;
};

// What one run of a row will do, worked out before anything is written.
struct COMMAND_PLAN {
  QStringList Canonical;  // the arguments as the echo shows them
  QList<VAR_WRITE> Vars;
  QList<CONFIG_WRITE> Config;
  int ColorId = -1;
  QColor Color;
  int FontId = -1;
  QFont Font;
  QString sError;
  QString sDetail;

  bool Fail(const char* sErrorText, const QString& sBadInput) {
    sError = QString::fromLatin1(sErrorText);
    sDetail = sBadInput;
    return false;
  }
  void SetConfig(int Param, I32 Value) { Config.append({Param, Value, QByteArray(), false}); }
  void SetConfigText(int Param, const QByteArray& Text) { Config.append({Param, 0, Text, true}); }
};

typedef bool (*PF_PLAN)(const QStringList& Args, COMMAND_PLAN* pPlan);

// A named choice of a configuration field, as the device block numbers it.
struct CHOICE {
  const char* sName;
  I32 Value;
};
const CHOICE s_aHostInterfaces[] = {{"USB", 1}, {"IP", 2}};
const CHOICE s_aTargetInterfaces[] = {{"JTAG", 0}, {"SWD", 1}};

// ---------------------------------------------------------------------------------------------------
// Reading arguments

// The round toward zero of a trace port delay to its step; other rows keep their value.
I32 _NormalizedVarValue(int Index, I32 Value) {
  if (Index >= VAR_TRACE_PORT_DELAY_0 && Index <= VAR_TRACE_PORT_DELAY_3) {
    return Value / kTraceDelayStep * kTraceDelayStep;
  }
  return Value;
}

// The name of the constant of family Prefix ("RM_", "BP_TYPE_") with Value; the number if none.
QString _ConstantName(const char* sPrefix, I32 Value) {
  for (const SYS_CONSTANT& Row : g_aConstants) {
    if (Row.Value == Value && QLatin1String(Row.sName).startsWith(QLatin1String(sPrefix))) {
      return QString::fromLatin1(Row.sName);
    }
  }
  return QString::number(Value);
}

// The value of a variable row as the Edit.Preference and Edit.SysVar lines show it.
QString _VarValueText(const SYS_VAR* pVar, I32 Value) {
  return Value == -1 ? QString::number(Value) : GetVarText(pVar, Value);  // -1 asks for the current one
}

// Reads sText as a value of pVar and adds the write; *pValue gets the value (0 for the text row).
bool _PlanVarWrite(SYS_VAR* pVar, const QString& sText, COMMAND_PLAN* pPlan, I32* pValue = nullptr) {
  if (IsTextVar(pVar)) {
    if (sText.toUtf8().size() > kSysVarTextSize) {
      return pPlan->Fail("invalid parameter", sText);
    }
    pPlan->Vars.append({pVar, 0, sText});
    return true;
  }
  bool Ok = false;
  I32 Value = ConvertVarValue(pVar, sText, &Ok);
  if (!Ok) {
    return pPlan->Fail("invalid parameter", sText);
  }
  Value = _NormalizedVarValue(GetVarIndex(pVar), Value);
  pPlan->Vars.append({pVar, Value, QString()});
  if (pValue) {
    *pValue = Value;
  }
  return true;
}

// One choice by its name (ignoring case) or its number.
bool _ReadChoice(const QString& sText, const CHOICE* paChoice, int NumChoices, const CHOICE** ppChoice) {
  I64 Number = 0;
  const bool IsNumber = TextToInt64(sText, &Number);
  for (int i = 0; i < NumChoices; ++i) {
    if (sText.trimmed().compare(QLatin1String(paChoice[i].sName), Qt::CaseInsensitive) == 0 ||
        (IsNumber && Number == paChoice[i].Value)) {
      *ppChoice = &paChoice[i];
      return true;
    }
  }
  return false;
}

// A configuration text that must fit its field.
bool _PlanConfigText(int Param, int FieldSize, const QString& sText, COMMAND_PLAN* pPlan) {
  QByteArray Text = sText.trimmed().toUtf8();
  if (Text.size() >= FieldSize) {
    return pPlan->Fail("invalid parameter", sText);
  }
  pPlan->SetConfigText(Param, Text);
  pPlan->Canonical << QString::fromUtf8(Text);
  return true;
}

// A yes/no argument: the words of the true and false constants, or 0 and 1.
bool _ReadOnOff(const QString& sText, I32* pValue) {
  const SYS_CONSTANT* pConstant = FindConstantAmong(sText, {0, 1});
  if (pConstant == nullptr) {
    return false;
  }
  *pValue = pConstant->Value;
  return true;
}

// ---------------------------------------------------------------------------------------------------
// The plans of the rows

bool _PlanEditPreference(const QStringList& Args, COMMAND_PLAN* pPlan) {
  SYS_VAR* pVar = FindVar(Args[0]);
  const int Index = GetVarIndex(pVar);
  if (pVar == nullptr || Index < kFirstPreference || Index > kLastPreference) {
    return pPlan->Fail("unknown preference", Args[0]);
  }
  I32 Value = 0;
  if (!_PlanVarWrite(pVar, Args[1], pPlan, &Value)) {
    return false;
  }
  pPlan->Canonical << QString::fromLatin1(pVar->sName) << _VarValueText(pVar, Value);
  return true;
}

bool _PlanEditSysVar(const QStringList& Args, COMMAND_PLAN* pPlan) {
  SYS_VAR* pVar = FindVar(Args[0]);
  if (pVar == nullptr) {
    return pPlan->Fail("unknown system variable", Args[0]);
  }
  I32 Value = 0;
  if (!_PlanVarWrite(pVar, Args[1], pPlan, &Value)) {
    return false;
  }
  pPlan->Canonical << QString::fromLatin1(pVar->sName)
                   << (IsTextVar(pVar) ? Args[1] : _VarValueText(pVar, Value));
  return true;
}

// A table row by name, display text or number.
int _FindTableRow(const QString& sText, int NumRows, int (*pfFind)(const QString&)) {
  const int Id = pfFind(sText);
  if (Id >= 0) {
    return Id;
  }
  U32 Number = 0;
  return TextToU32(sText, &Number) && Number < U32(NumRows) ? int(Number) : -1;
}

bool _PlanEditColor(const QStringList& Args, COMMAND_PLAN* pPlan) {
  const int Id = _FindTableRow(Args[0], kNumColors, FindColor);
  if (Id < 0) {
    return pPlan->Fail("unknown color", Args[0]);
  }
  const QString sColor = Args[1].trimmed();
  QColor Color;
  U32 Argb = 0;
  if (QColor::isValidColorName(sColor)) {
    Color = QColor::fromString(sColor);
  } else if (TextToU32(sColor, &Argb)) {
    Color = QColor::fromRgba(Argb);
  } else {
    return pPlan->Fail("invalid parameter", Args[1]);
  }
  pPlan->ColorId = Id;
  pPlan->Color = Color;
  pPlan->Canonical << QString::fromLatin1(GetColorRow(Id)->sName)
                   << QString::asprintf("0x%08X", unsigned(Color.rgba()));
  return true;
}

bool _PlanEditFont(const QStringList& Args, COMMAND_PLAN* pPlan) {
  const int Id = _FindTableRow(Args[0], kNumFonts, FindFont);
  if (Id < 0) {
    return pPlan->Fail("unknown font", Args[0]);
  }
  bool Ok = false;
  QFont Font = TextToFont(Args[1], &Ok);
  if (!Ok) {
    return pPlan->Fail("invalid parameter", Args[1]);
  }
  pPlan->FontId = Id;
  pPlan->Font = Font;
  pPlan->Canonical << QString::fromLatin1(GetFontRow(Id)->sName) << FontToText(Font);
  return true;
}

// A selection variable set by a row of its own; the echo names the value by its constant.
bool _PlanModeVar(int Index, const char* sPrefix, const QString& sText, COMMAND_PLAN* pPlan) {
  I32 Value = 0;
  if (!_PlanVarWrite(GetVar(Index), sText, pPlan, &Value)) {
    return false;
  }
  pPlan->Canonical << _ConstantName(sPrefix, Value);
  return true;
}

// A variable set by a row of its own; the echo shows the number.
bool _PlanNumberVar(int Index, const QString& sText, COMMAND_PLAN* pPlan) {
  I32 Value = 0;
  if (!_PlanVarWrite(GetVar(Index), sText, pPlan, &Value)) {
    return false;
  }
  pPlan->Canonical << QString::number(Value);
  return true;
}

bool _PlanDebugSetResetMode(const QStringList& Args, COMMAND_PLAN* pPlan) {
  return _PlanModeVar(VAR_RESET_MODE, "RM_", Args[0], pPlan);
}

bool _PlanDebugSetConnectMode(const QStringList& Args, COMMAND_PLAN* pPlan) {
  return _PlanModeVar(VAR_CONNECT_MODE, "CM_", Args[0], pPlan);
}

bool _PlanDebugSetSteppingMode(const QStringList& Args, COMMAND_PLAN* pPlan) {
  I64 Mode = 0;
  if (!TextToInt64(Args[0], &Mode) || Mode < 0 || Mode > 0x7FFFFFFF) {
    return pPlan->Fail("invalid parameter", Args[0]);
  }
  pPlan->SetConfig(kConfigSteppingMode, I32(Mode));
  pPlan->Canonical << QString::number(Mode);
  return true;
}

bool _PlanProjectSetDevice(const QStringList& Args, COMMAND_PLAN* pPlan) {
  if (Args[0].trimmed().isEmpty()) {
    return pPlan->Fail("invalid parameter", ArgumentForError(Args[0]));
  }
  return _PlanConfigText(kConfigDeviceName, kConfigNameSize, Args[0], pPlan);
}

bool _PlanProjectSetTarvikScript(const QStringList& Args, COMMAND_PLAN* pPlan) {
  return _PlanConfigText(kConfigScriptFile, kConfigPathSize, Args[0], pPlan);
}

bool _PlanProjectSetTarvikLogFile(const QStringList& Args, COMMAND_PLAN* pPlan) {
  return _PlanConfigText(kConfigLogFile, kConfigPathSize, Args[0], pPlan);
}

// The identifier selects the probe: a serial number on USB, a host name on IP. Without one, USB takes
// the first probe found and IP the default host.
bool _PlanProjectSetHostIF(const QStringList& Args, COMMAND_PLAN* pPlan) {
  const CHOICE* pHostIF = nullptr;
  if (!_ReadChoice(Args[0], s_aHostInterfaces, 2, &pHostIF)) {
    return pPlan->Fail("invalid parameter", Args[0]);
  }
  pPlan->SetConfig(kConfigHostIF, pHostIF->Value);
  pPlan->Canonical << QString::fromLatin1(pHostIF->sName);
  const QString sIdent = Args.value(1).trimmed();
  if (pHostIF->Value == s_aHostInterfaces[0].Value) {
    U32 SerialNo = 0;
    if (!sIdent.isEmpty() && !TextToU32(sIdent, &SerialNo)) {
      return pPlan->Fail("invalid parameter", sIdent);
    }
    if (!sIdent.isEmpty()) {
      pPlan->SetConfig(kConfigUSBSerialNo, I32(SerialNo));
      pPlan->Canonical << sIdent;
    }
    pPlan->SetConfig(kConfigUseSerialNo, sIdent.isEmpty() ? 0 : 1);
    return true;
  }
  return sIdent.isEmpty() || _PlanConfigText(kConfigHostName, kConfigNameSize, sIdent, pPlan);
}

bool _PlanProjectSetTargetIF(const QStringList& Args, COMMAND_PLAN* pPlan) {
  const CHOICE* pTargetIF = nullptr;
  if (!_ReadChoice(Args[0], s_aTargetInterfaces, 2, &pTargetIF)) {
    return pPlan->Fail("invalid parameter", Args[0]);
  }
  pPlan->SetConfig(kConfigTargetIF, pTargetIF->Value);
  pPlan->Canonical << QString::fromLatin1(pTargetIF->sName);
  return true;
}

// Any frequency the device can be asked for, not only the entries of the variable's list.
bool _PlanProjectSetTIFSpeed(const QStringList& Args, COMMAND_PLAN* pPlan) {
  SYS_VAR* pVar = GetVar(VAR_TIF_SPEED);
  bool Ok = false;
  I32 Hz = ConvertVarValue(pVar, Args[0], &Ok);
  if (!Ok) {
    Hz = TextToFrequency(Args[0]);
  }
  if (Hz < 0) {
    return pPlan->Fail("invalid parameter", Args[0]);
  }
  pPlan->Vars.append({pVar, Hz, QString()});
  pPlan->Canonical << QString::number(Hz);
  return true;
}

bool _PlanProjectSetTIFScanChain(const QStringList& Args, COMMAND_PLAN* pPlan) {
  I32 DRPre = 0;
  I32 IRPre = 0;
  if (!_PlanVarWrite(GetVar(VAR_TIF_SCAN_CHAIN_POS), Args[0], pPlan, &DRPre) ||
      !_PlanVarWrite(GetVar(VAR_TIF_SCAN_CHAIN_LEN), Args[1], pPlan, &IRPre)) {
    return false;
  }
  pPlan->SetConfig(kConfigDRPre, DRPre);
  pPlan->SetConfig(kConfigIRPre, IRPre);
  pPlan->Canonical << QString::number(DRPre) << QString::number(IRPre);
  return true;
}

bool _PlanProjectConfigSWO(const QStringList& Args, COMMAND_PLAN* pPlan) {
  return _PlanNumberVar(VAR_SWO_SPEED, Args[0], pPlan) && _PlanNumberVar(VAR_SWO_CPU_SPEED, Args[1], pPlan);
}

bool _PlanProjectSetSemihosting(const QStringList& Args, COMMAND_PLAN* pPlan) {
  return _PlanNumberVar(VAR_SEMIHOSTING_ENABLED, Args[0], pPlan);
}

bool _PlanProjectSetMCT(const QStringList& Args, COMMAND_PLAN* pPlan) {
  return _PlanNumberVar(VAR_MCT_ENABLED, Args[0], pPlan);
}

bool _PlanProjectSetBPType(const QStringList& Args, COMMAND_PLAN* pPlan) {
  return _PlanModeVar(VAR_BREAKPOINT_TYPE, "BP_TYPE_", Args[0], pPlan);
}

bool _PlanProjectSetTraceSource(const QStringList& Args, COMMAND_PLAN* pPlan) {
  return _PlanModeVar(VAR_TRACE_SOURCE, "TRACE_SOURCE_", Args[0], pPlan);
}

bool _PlanProjectSetTracePortWidth(const QStringList& Args, COMMAND_PLAN* pPlan) {
  return _PlanNumberVar(VAR_TRACE_PORT_WIDTH, Args[0], pPlan);
}

bool _PlanProjectSetTraceTiming(const QStringList& Args, COMMAND_PLAN* pPlan) {
  for (int i = 0; i < 4; ++i) {
    if (!_PlanNumberVar(VAR_TRACE_PORT_DELAY_0 + i, Args[i], pPlan)) {
      return false;
    }
  }
  return true;
}

bool _PlanTargetSetAccessWidth(const QStringList& Args, COMMAND_PLAN* pPlan) {
  return _PlanModeVar(VAR_ACCESS_WIDTH, "AW_", Args[0], pPlan);
}

bool _PlanTargetSetEndianess(const QStringList& Args, COMMAND_PLAN* pPlan) {
  I32 BigEndian = 0;
  if (!_ReadOnOff(Args[0], &BigEndian)) {
    return pPlan->Fail("invalid parameter", Args[0]);
  }
  pPlan->SetConfig(kConfigEndian, BigEndian);
  pPlan->Canonical << QString::number(BigEndian);
  return true;
}

// ---------------------------------------------------------------------------------------------------
// The rows, in the order of the HANDLER_* numbers.

enum : int {
  HANDLER_EDIT_PREFERENCE,
  HANDLER_EDIT_SYSVAR,
  HANDLER_EDIT_COLOR,
  HANDLER_EDIT_FONT,
  HANDLER_DEBUG_SET_RESET_MODE,
  HANDLER_DEBUG_SET_CONNECT_MODE,
  HANDLER_DEBUG_SET_STEPPING_MODE,
  HANDLER_PROJECT_SET_DEVICE,
  HANDLER_PROJECT_SET_TARVIK_SCRIPT,
  HANDLER_PROJECT_SET_TARVIK_LOG_FILE,
  HANDLER_PROJECT_SET_HOST_IF,
  HANDLER_PROJECT_SET_TARGET_IF,
  HANDLER_PROJECT_SET_TIF_SPEED,
  HANDLER_PROJECT_SET_TIF_SCAN_CHAIN,
  HANDLER_PROJECT_CONFIG_SWO,
  HANDLER_PROJECT_SET_SEMIHOSTING,
  HANDLER_PROJECT_SET_MCT,
  HANDLER_PROJECT_SET_BP_TYPE,
  HANDLER_PROJECT_SET_TRACE_SOURCE,
  HANDLER_PROJECT_SET_TRACE_PORT_WIDTH,
  HANDLER_PROJECT_SET_TRACE_TIMING,
  HANDLER_TARGET_SET_ACCESS_WIDTH,
  HANDLER_TARGET_SET_ENDIANESS,
  NUM_HANDLERS,
};

struct SETTINGS_ROW {
  const char* sName;
  int MinCount;  // -1: all parameters of the prototype
  PF_PLAN pfPlan;
  const char* sSlot;
};

const SETTINGS_ROW s_aRows[NUM_HANDLERS] = {
    {"Edit.Preference", -1, _PlanEditPreference, SLOT(OnActionEditPreferenceTriggered())},
    {"Edit.SysVar", -1, _PlanEditSysVar, SLOT(OnActionEditSysVarTriggered())},
    {"Edit.Color", -1, _PlanEditColor, SLOT(OnActionEditColorTriggered())},
    {"Edit.Font", -1, _PlanEditFont, SLOT(OnActionEditFontTriggered())},
    {"Debug.SetResetMode", -1, _PlanDebugSetResetMode, SLOT(OnActionDebugSetResetModeTriggered())},
    {"Debug.SetConnectMode", -1, _PlanDebugSetConnectMode, SLOT(OnActionDebugSetConnectModeTriggered())},
    {"Debug.SetSteppingMode", -1, _PlanDebugSetSteppingMode, SLOT(OnActionDebugSetSteppingModeTriggered())},
    {"Project.SetDevice", -1, _PlanProjectSetDevice, SLOT(OnActionProjectSetDeviceTriggered())},
    {"Project.SetTarvikScript", -1, _PlanProjectSetTarvikScript,
     SLOT(OnActionProjectSetTarvikScriptTriggered())},
    {"Project.SetTarvikLogFile", -1, _PlanProjectSetTarvikLogFile,
     SLOT(OnActionProjectSetTarvikLogFileTriggered())},
    {"Project.SetHostIF", 1, _PlanProjectSetHostIF, SLOT(OnActionProjectSetHostIFTriggered())},
    {"Project.SetTargetIF", -1, _PlanProjectSetTargetIF, SLOT(OnActionProjectSetTargetIFTriggered())},
    {"Project.SetTIFSpeed", -1, _PlanProjectSetTIFSpeed, SLOT(OnActionProjectSetTIFSpeedTriggered())},
    {"Project.SetTIFScanChain", -1, _PlanProjectSetTIFScanChain,
     SLOT(OnActionProjectSetTIFScanChainTriggered())},
    {"Project.ConfigSWO", -1, _PlanProjectConfigSWO, SLOT(OnActionProjectConfigSWOTriggered())},
    {"Project.SetSemihosting", -1, _PlanProjectSetSemihosting,
     SLOT(OnActionProjectSetSemihostingTriggered())},
    {"Project.SetMCT", -1, _PlanProjectSetMCT, SLOT(OnActionProjectSetMCTTriggered())},
    {"Project.SetBPType", -1, _PlanProjectSetBPType, SLOT(OnActionProjectSetBPTypeTriggered())},
    {"Project.SetTraceSource", -1, _PlanProjectSetTraceSource,
     SLOT(OnActionProjectSetTraceSourceTriggered())},
    {"Project.SetTracePortWidth", -1, _PlanProjectSetTracePortWidth,
     SLOT(OnActionProjectSetTracePortWidthTriggered())},
    {"Project.SetTraceTiming", -1, _PlanProjectSetTraceTiming,
     SLOT(OnActionProjectSetTraceTimingTriggered())},
    {"Target.SetAccessWidth", -1, _PlanTargetSetAccessWidth, SLOT(OnActionTargetSetAccessWidthTriggered())},
    {"Target.SetEndianess", -1, _PlanTargetSetEndianess, SLOT(OnActionTargetSetEndianessTriggered())},
};

int _RowId(int Handler) {
  static int s_aId[NUM_HANDLERS];
  static bool s_Found = false;
  if (!s_Found) {
    for (int h = 0; h < NUM_HANDLERS; ++h) {
      s_aId[h] = -1;
      for (int Id = 0; Id < kNumActions && s_aId[h] < 0; ++Id) {
        if (GetFunctionName(Id) == QLatin1String(s_aRows[h].sName)) {
          s_aId[h] = Id;
        }
      }
    }
    s_Found = true;
  }
  return s_aId[Handler];
}

int _HandlerOfRow(int Id) {
  for (int h = 0; h < NUM_HANDLERS; ++h) {
    if (Id >= 0 && _RowId(h) == Id) {
      return h;
    }
  }
  return -1;
}

// The argument count check of CheckParamCount, without reporting.
bool _CountFits(int Handler, int Count) {
  const int Id = _RowId(Handler);
  const int Max = GetParamCount(Id);
  const int Min = s_aRows[Handler].MinCount < 0 ? Max : s_aRows[Handler].MinCount;
  return Count >= Min && Count <= Max;
}

// "TraceSampleAdjust" with one delay per used data line, or one for all when they are equal.
QString _TraceSampleAdjustText() {
  const int Width = GetVarValue(GetVar(VAR_TRACE_PORT_WIDTH));
  const I32 First = GetVarValue(GetVar(VAR_TRACE_PORT_DELAY_0));
  bool AllEqual = true;
  for (int i = 1; i < std::min(Width, 4); ++i) {
    AllEqual = AllEqual && GetVarValue(GetVar(VAR_TRACE_PORT_DELAY_0 + i)) == First;
  }
  if (AllEqual || Width < 1) {
    return QStringLiteral("TraceSampleAdjust TD = %1").arg(First);
  }
  QStringList Entries;
  for (int i = 0; i < std::min(Width, 4); ++i) {
    Entries << QStringLiteral("TD%1 = %2").arg(i).arg(GetVarValue(GetVar(VAR_TRACE_PORT_DELAY_0 + i)));
  }
  return QStringLiteral("TraceSampleAdjust ") + Entries.join(' ');
}

int _ScheduleDisableSimpleTrace() {
  DEVICE_JOB Job;
  memset(&Job, 0, sizeof(Job));
  Job.Type = JT_DISABLE_SIMPLE_TRACE;
  return CDevice::Instance()->ScheduleJob(&Job);
}

}  // namespace

CSettingsCommands::CSettingsCommands(QObject* pParent) : QObject(pParent) {}

void CSettingsCommands::_TellDebugWindows(int Kind, int Id, int Value) {
  // Every debug window takes a changed preference (SetPreference), colour (Repaint), font (SetFont)
  // or system variable here; the window framework gives CWindow those operations together with the
  // first debug window, and until then there is no window to tell.
  for (QWidget* pTop : QApplication::topLevelWidgets()) {
    for (CWindow* pWindow : pTop->findChildren<CWindow*>()) {
      Q_UNUSED(pWindow);
    }
  }
  emit SettingChanged(Kind, Id, Value);
}

int CSettingsCommands::OnSysVarChanged(int Index, I32 Value, I32 Previous) {
  int Result = 0;
  CDevice* pDevice = CDevice::Instance();
  switch (Index) {
    case VAR_SEMIHOSTING_ENABLED:
      pDevice->SetSemihostingEnabled(Value != 0);
      break;
    case VAR_MCT_ENABLED:
      // The channel needs the control block that the target's MCT library links in.
      if (Value != 0 && ELF_IsLoaded() && ELF_FindSym(kMctControlBlock, true, false, false) == 0) {
        _sReactionError =
            "Failed to activate Memory Channel Transfer. Please verify that the target application uses "
            "Quorin's MCT library.";
      }
      break;
    case VAR_BREAK_AT_THIS_SYMBOL: {
      // Without a program the symbol is resolved when one is opened.
      if (!ELF_IsLoaded()) {
        break;
      }
      const QString sSymbol = GetVarString(GetVar(Index));
      const U32 Addr = RunToAddressOf(sSymbol);
      if (Addr == kNoAddress) {
        _sReactionError = "unknown symbol";
        _sReactionDetail = ArgumentForError(sSymbol);
      } else {
        Result = pDevice->ScheduleSetConfigParam(DCP_RUN_TO_ADDR, int(Addr));
      }
      break;
    }
    case VAR_TIF_SPEED:
      Result = pDevice->ScheduleSetConfigParam(kConfigSpeed, Value);
      break;
    case VAR_ACCESS_WIDTH:
      CDeviceDataProvider::Instance()->SetDefaultAccessWidth(Value);
      break;
    case VAR_TRACE_SOURCE:
      // The trace unit is set up for one of the two; switching between them leaves it in the wrong one.
      if ((Previous == 1 && Value == 2) || (Previous == 2 && Value == 1)) {
        Result = _ScheduleDisableSimpleTrace();
      }
      if (CMainWindow::Instance()) {
        CMainWindow::Instance()->UpdateActions();
      }
      break;
    case VAR_TRACE_PORT_DELAY_0:
    case VAR_TRACE_PORT_DELAY_1:
    case VAR_TRACE_PORT_DELAY_2:
    case VAR_TRACE_PORT_DELAY_3: {
      SYS_VAR* pVar = GetVar(Index);
      const I32 Rounded = _NormalizedVarValue(Index, Value);
      if (Rounded != Value) {
        SetVar(pVar, Rounded, GetVarStoredValue(pVar) == Value);
        Value = Rounded;
      }
      _TraceTimingChanged = true;
      break;
    }
    default:
      // The modes, SWO clocks, breakpoint type and sampling speed are read where they are used; the
      // windows that show them hear of the change below. The trace port width is taken as it is:
      // libraries before 6.14b, which can't configure it, are only known on the device thread, which
      // reports the version.
      break;
  }
  _TellDebugWindows(SETTING_KIND_SYSVAR, Index, Value);
  if (!_InCommand) {
    Result = _SendTraceTiming() < 0 ? -1 : Result;
  }
  return Result;
}

int CSettingsCommands::_SendTraceTiming() {
  if (!_TraceTimingChanged) {
    return 0;
  }
  _TraceTimingChanged = false;
  CDevice* pDevice = CDevice::Instance();
  if (!pDevice->IsConnected()) {
    return 0;  // the delays go to the probe with the trace set-up of the next session
  }
  return pDevice->ScheduleExecTarvikCmd(_TraceSampleAdjustText().toLatin1().constData());
}

void CSettingsCommands::OnActionArgumentsTriggered() {
  const int Id = GetActionID(qobject_cast<QAction*>(sender()));
  const int Handler = _HandlerOfRow(Id);
  if (Handler < 0) {
    return;
  }
  const QStringList Args = GetArguments(Id);
  if (!_CountFits(Handler, int(Args.size()))) {
    return;
  }
  COMMAND_PLAN Plan;
  if (s_aRows[Handler].pfPlan(Args, &Plan)) {
    SetArgumentList(Id, Plan.Canonical);
  }
}

void CSettingsCommands::_Run(int Handler) {
  const int Id = _RowId(Handler);
  if (!CheckParamCount(Id, s_aRows[Handler].MinCount)) {
    return;
  }
  COMMAND_PLAN Plan;
  if (!s_aRows[Handler].pfPlan(GetArguments(Id), &Plan)) {
    SetError(Id, Plan.sError, Plan.sDetail);
    return;
  }
  SetArgumentList(Id, Plan.Canonical);
  // All variables of the row are written before any reacts, so that a reaction sees the whole change,
  // and the trace delays go to the probe once.
  QList<I32> Previous;
  for (const VAR_WRITE& Write : Plan.Vars) {
    Previous << GetVarValue(Write.pVar);
    if (IsTextVar(Write.pVar)) {
      SetVarFromText(Write.pVar, Write.sText, false);
    } else {
      SetVar(Write.pVar, Write.Value, false);
    }
  }
  bool QueueFull = false;
  _InCommand = true;
  for (int i = 0; i < Plan.Vars.size(); ++i) {
    const int Index = GetVarIndex(Plan.Vars[i].pVar);
    const I32 Value = GetVarValue(Plan.Vars[i].pVar);
    if (Index < kFirstPreference) {
      QueueFull = OnSysVarChanged(Index, Value, Previous[i]) < 0 || QueueFull;
    } else {
      _TellDebugWindows(SETTING_KIND_PREFERENCE, Index, Value);
    }
  }
  _InCommand = false;
  QueueFull = _SendTraceTiming() < 0 || QueueFull;
  if (!_sReactionError.isEmpty()) {
    SetError(Id, _sReactionError, _sReactionDetail);
    _sReactionError.clear();
    _sReactionDetail.clear();
  }
  CDevice* pDevice = CDevice::Instance();
  for (const CONFIG_WRITE& Write : Plan.Config) {
    const int r = Write.IsText ? pDevice->ScheduleSetConfigParam(Write.Param, Write.Text.constData())
                               : pDevice->ScheduleSetConfigParam(Write.Param, Write.Value);
    QueueFull = r < 0 || QueueFull;
  }
  if (Plan.ColorId >= 0) {
    SetColor(Plan.ColorId, Plan.Color, false);
    _TellDebugWindows(SETTING_KIND_COLOR, Plan.ColorId, int(Plan.Color.rgba()));
  }
  if (Plan.FontId >= 0) {
    SetFont(Plan.FontId, Plan.Font, false);
    // Fonts are built from each other, so every window takes all of them again.
    for (int Id = 0; Id < kNumFonts; ++Id) {
      _TellDebugWindows(SETTING_KIND_FONT, Id, 0);
    }
  }
  if (QueueFull) {
    SetError(Id, "job queue full");
  }
}

void CSettingsCommands::OnActionEditPreferenceTriggered() {
  _Run(HANDLER_EDIT_PREFERENCE);
}
void CSettingsCommands::OnActionEditSysVarTriggered() {
  _Run(HANDLER_EDIT_SYSVAR);
}
void CSettingsCommands::OnActionEditColorTriggered() {
  _Run(HANDLER_EDIT_COLOR);
}
void CSettingsCommands::OnActionEditFontTriggered() {
  _Run(HANDLER_EDIT_FONT);
}
void CSettingsCommands::OnActionDebugSetResetModeTriggered() {
  _Run(HANDLER_DEBUG_SET_RESET_MODE);
}
void CSettingsCommands::OnActionDebugSetConnectModeTriggered() {
  _Run(HANDLER_DEBUG_SET_CONNECT_MODE);
}
void CSettingsCommands::OnActionDebugSetSteppingModeTriggered() {
  _Run(HANDLER_DEBUG_SET_STEPPING_MODE);
}
void CSettingsCommands::OnActionProjectSetDeviceTriggered() {
  _Run(HANDLER_PROJECT_SET_DEVICE);
}
void CSettingsCommands::OnActionProjectSetTarvikScriptTriggered() {
  _Run(HANDLER_PROJECT_SET_TARVIK_SCRIPT);
}
void CSettingsCommands::OnActionProjectSetTarvikLogFileTriggered() {
  _Run(HANDLER_PROJECT_SET_TARVIK_LOG_FILE);
}
void CSettingsCommands::OnActionProjectSetHostIFTriggered() {
  _Run(HANDLER_PROJECT_SET_HOST_IF);
}
void CSettingsCommands::OnActionProjectSetTargetIFTriggered() {
  _Run(HANDLER_PROJECT_SET_TARGET_IF);
}
void CSettingsCommands::OnActionProjectSetTIFSpeedTriggered() {
  _Run(HANDLER_PROJECT_SET_TIF_SPEED);
}
void CSettingsCommands::OnActionProjectSetTIFScanChainTriggered() {
  _Run(HANDLER_PROJECT_SET_TIF_SCAN_CHAIN);
}
void CSettingsCommands::OnActionProjectConfigSWOTriggered() {
  _Run(HANDLER_PROJECT_CONFIG_SWO);
}
void CSettingsCommands::OnActionProjectSetSemihostingTriggered() {
  _Run(HANDLER_PROJECT_SET_SEMIHOSTING);
}
void CSettingsCommands::OnActionProjectSetMCTTriggered() {
  _Run(HANDLER_PROJECT_SET_MCT);
}
void CSettingsCommands::OnActionProjectSetBPTypeTriggered() {
  _Run(HANDLER_PROJECT_SET_BP_TYPE);
}
void CSettingsCommands::OnActionProjectSetTraceSourceTriggered() {
  _Run(HANDLER_PROJECT_SET_TRACE_SOURCE);
}
void CSettingsCommands::OnActionProjectSetTracePortWidthTriggered() {
  _Run(HANDLER_PROJECT_SET_TRACE_PORT_WIDTH);
}
void CSettingsCommands::OnActionProjectSetTraceTimingTriggered() {
  _Run(HANDLER_PROJECT_SET_TRACE_TIMING);
}
void CSettingsCommands::OnActionTargetSetAccessWidthTriggered() {
  _Run(HANDLER_TARGET_SET_ACCESS_WIDTH);
}
void CSettingsCommands::OnActionTargetSetEndianessTriggered() {
  _Run(HANDLER_TARGET_SET_ENDIANESS);
}

U32 RunToAddressOf(const QString& sSymbol) {
  std::lock_guard Lock(ELF_GetIndexMutex());
  const ELF_SYM_HANDLE h = ELF_FindSym(sSymbol.trimmed(), true, false, false);
  if (h == 0 || !ELF_IsFunction(h)) {
    return kNoAddress;
  }
  const CAddrRange Range = ELF_GetFuncRange(h);
  return Range.IsEmpty() ? kNoAddress : Range.start;
}

QStringList CurrentSettingsCommands() {
  const DEV_CONFIG Config = CDevice::Instance()->GetConfig();
  auto ChoiceName = [](const CHOICE* paChoice, int NumChoices, I32 Value) {
    for (int i = 0; i < NumChoices; ++i) {
      if (paChoice[i].Value == Value) {
        return QString::fromLatin1(paChoice[i].sName);
      }
    }
    return QString();
  };
  QStringList Commands;
  if (!Config.sDeviceName.isEmpty()) {
    Commands << GetCommandTextFor(_RowId(HANDLER_PROJECT_SET_DEVICE), {Config.sDeviceName});
  }
  const QString sHostIF = ChoiceName(s_aHostInterfaces, 2, Config.HostIF);
  if (!sHostIF.isEmpty()) {
    QStringList Args = {sHostIF};
    if (Config.HostIF == kHostIFIP && !Config.sHostName.isEmpty()) {
      Args << Config.sHostName;
    } else if (Config.HostIF == kHostIFUSB && Config.UseSerialNo) {
      Args << QString::number(Config.USBSerialNo);
    }
    Commands << GetCommandTextFor(_RowId(HANDLER_PROJECT_SET_HOST_IF), Args);
  }
  const QString sTargetIF = ChoiceName(s_aTargetInterfaces, 2, Config.TargetIF);
  if (!sTargetIF.isEmpty()) {
    Commands << GetCommandTextFor(_RowId(HANDLER_PROJECT_SET_TARGET_IF), {sTargetIF});
  }
  const QString sSpeed = FrequencyToText(GetVarValue(GetVar(VAR_TIF_SPEED)), false);
  if (!sSpeed.isEmpty()) {
    Commands << GetCommandTextFor(_RowId(HANDLER_PROJECT_SET_TIF_SPEED), {sSpeed});
  }
  return Commands;
}

void ConnectSettingsCommands(CWindow* pWindow, CSettingsCommands* pHandlers) {
  for (int h = 0; h < NUM_HANDLERS; ++h) {
    QAction* pAction = GetAction(_RowId(h));
    if (pAction == nullptr) {
      continue;
    }
    pWindow->Disconnect(pAction, SIGNAL(triggered()), pWindow, SLOT(OnActionNotAvailableTriggered()));
    pWindow->Disconnect(pAction, SIGNAL(triggered()), pHandlers, s_aRows[h].sSlot);
    // Ahead of the bracket, so that the echo already shows the canonical arguments.
    QObject::connect(pAction, SIGNAL(triggered(bool)), pHandlers, SLOT(OnActionArgumentsTriggered()),
                     Qt::UniqueConnection);
    pWindow->Connect(pAction, SIGNAL(triggered()), pHandlers, s_aRows[h].sSlot);
  }
}
