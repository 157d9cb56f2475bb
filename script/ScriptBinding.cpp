// Constants and API of a script context, and the path of a script call into the action table.
#include "script/ScriptBinding.h"

#include <QRegularExpression>
#include <QStringList>
#include <QVariant>
#include <cstdint>
#include <cstring>

#include "app/actions/ActionTable.h"
#include "app/actions/CommandConsole.h"
#include "app/actions/CommandWait.h"
#include "app/base/Log.h"
#include "app/tables/ActionRows.h"
#include "app/tables/SettingsTables.h"
#include "device/Device.h"
#include "device/DeviceDataProvider.h"

namespace {

QList<SCRIPT_API_ENTRY> _Registered;
std::function<int(const QString&)> _ResolveRegister;

int _RowByName(const char* sName) {
  for (int Id = 0; Id < kNumActions; ++Id) {
    if (GetFunctionName(Id) == QLatin1String(sName)) {
      return Id;
    }
  }
  return -1;
}

// The rows whose script call differs from the common path.
struct OWN_PATH_ROWS {
  int GetReg = _RowByName("Target.GetReg");
  int ReadU8 = _RowByName("Target.ReadU8");
  int ReadU16 = _RowByName("Target.ReadU16");
  int ReadU32 = _RowByName("Target.ReadU32");
  int EditSysVar = _RowByName("Edit.SysVar");
  int SetResetMode = _RowByName("Debug.SetResetMode");
  int SetConnectMode = _RowByName("Debug.SetConnectMode");
};

const OWN_PATH_ROWS& _OwnPathRows() {
  static const OWN_PATH_ROWS Rows;
  return Rows;
}

// One parameter of a row's prototype, as the argument conversion needs it.
struct PARAM_INFO {
  bool IsString = false;
  bool IsUnsigned = false;
  bool IsAddress = false;  // named "Addr", "Address" or "AddrMask"
};

QList<PARAM_INFO> _ParamsOf(int Id) {
  static QList<PARAM_INFO> _aCache[kNumActions];
  static bool _aKnown[kNumActions] = {};
  if (_aKnown[Id]) {
    return _aCache[Id];
  }
  QList<PARAM_INFO> Params;
  const QString sProto = g_aActions[Id].sPrototype;
  const int Open = sProto.indexOf('(');
  const int Close = sProto.lastIndexOf(')');
  if (Open >= 0 && Close > Open) {
    const QStringList Parts = sProto.mid(Open + 1, Close - Open - 1).split(',');
    for (int i = 0; i < Parts.size(); ++i) {
      QString sPart = Parts[i].trimmed();
      if (sPart.isEmpty() || sPart == "void") {
        continue;
      }
      PARAM_INFO Info;
      Info.IsString = IsStringParam(Id, i);
      QStringList Words = sPart.split(QRegularExpression("[\\s*]+"), Qt::SkipEmptyParts);
      Info.IsUnsigned = Words.contains("unsigned");
      Info.IsAddress = !Words.isEmpty() && Words.last().startsWith("Addr");
      Params.append(Info);
    }
  }
  _aCache[Id] = Params;
  _aKnown[Id] = true;
  return Params;
}

// The name of the first constant of a family (such as "RM_") with that value; the number if none.
QString _ModeName(const char* sPrefix, I64 Value) {
  for (const SYS_CONSTANT& Row : g_aConstants) {
    if (Row.Value == Value && QLatin1String(Row.sName).startsWith(QLatin1String(sPrefix))) {
      return QString::fromLatin1(Row.sName);
    }
  }
  return QString::number(Value);
}

// Edit.SysVar (Index, Value): the variable by name, a selection value by its label, and for the text
// variable the script's string. False for an invalid string.
bool _SysVarArguments(const SCRIPT_API_CALL* pCall, QStringList* pArgs) {
  const I64 Index = pCall->paArg[0];
  const I64 Value = pCall->paArg[1];
  const SYS_VAR* pVar = Index >= 0 && Index < kNumSysVars ? GetVar(int(Index)) : nullptr;
  if (pVar == nullptr) {
    *pArgs << QString::number(I32(Index)) << QString::number(I32(Value));
    return true;
  }
  *pArgs << QString::fromLatin1(pVar->sName);
  if (IsTextVar(pVar)) {
    const char* sText = ScriptCheckString(pCall->pContext, Value);
    if (sText == nullptr) {
      return false;
    }
    *pArgs << QString::fromUtf8(sText);
    return true;
  }
  if (IsSelectionVar(pVar)) {
    const int At = GetVarValues(pVar).indexOf(I32(Value));
    if (At >= 0) {
      *pArgs << GetVarLabels(pVar).value(At);
      return true;
    }
  }
  *pArgs << QString::number(I32(Value));
  return true;
}

bool _ConvertArguments(int Id, const SCRIPT_API_CALL* pCall, QStringList* pArgs) {
  const OWN_PATH_ROWS& Rows = _OwnPathRows();
  if (Id == Rows.EditSysVar && pCall->NumArgs == 2) {
    return _SysVarArguments(pCall, pArgs);
  }
  const QList<PARAM_INFO> Params = _ParamsOf(Id);
  for (int i = 0; i < pCall->NumArgs; ++i) {
    const I64 Arg = pCall->paArg[i];
    const PARAM_INFO Info = Params.value(i);
    if (Info.IsString) {
      const char* sText = ScriptCheckString(pCall->pContext, Arg);
      if (sText == nullptr) {
        return false;
      }
      *pArgs << QString::fromUtf8(sText);
    } else if (Id == Rows.SetResetMode) {
      *pArgs << _ModeName("RM_", Arg);
    } else if (Id == Rows.SetConnectMode) {
      *pArgs << _ModeName("CM_", Arg);
    } else if (Info.IsAddress) {
      *pArgs << QString::asprintf("0x%08X", unsigned(U32(Arg)));
    } else if (Info.IsUnsigned) {
      *pArgs << QString::number(U32(Arg));
    } else {
      *pArgs << QString::number(I32(Arg));
    }
  }
  return true;
}

// The device, if its thread runs and the target can be read now; null otherwise.
CDevice* _ReadableDevice() {
  if (!CDevice::HasInstance()) {
    return nullptr;
  }
  CDevice* pDevice = CDevice::Instance();
  return pDevice->IsThreadRunning() && pDevice->CanAccessMemory() ? pDevice : nullptr;
}

I32 _ReadMemForScript(U32 Addr, U32 Size) {
  CDevice* pDevice = _ReadableDevice();
  if (pDevice == nullptr) {
    return 0;
  }
  U8 aData[4] = {};
  U8 aStatus[4] = {};
  // A job like the row's own, waited for with events pumped: a silent target does not stop the program.
  if (CDeviceDataProvider::Instance()->ReadMemWait(Addr, Size, 0, Size, 0, aData, aStatus) != 0) {
    return 0;
  }
  U32 Value = 0;
  memcpy(&Value, aData, Size);  // the target's bytes as the Target.Read rows give them
  return I32(Value);
}

I32 _ReadRegDirect(const char* sName) {
  const int Idx = _ResolveRegister(QString::fromUtf8(sName));
  CDevice* pDevice = _ReadableDevice();
  if (Idx < 0 || pDevice == nullptr || !pDevice->IsTargetHalted()) {
    return 0;
  }
  I64 Value = -1;
  if (pDevice->ReadReg(U32(Idx), &Value) < 0 || Value < 0) {
    return 0;
  }
  return I32(U32(Value));
}

// Target.GetReg and Target.ReadU8/U16/U32 read without their action. True when the call was one of them.
bool _TryDirectRead(int Id, const SCRIPT_API_CALL* pCall, I32* pResult) {
  const OWN_PATH_ROWS& Rows = _OwnPathRows();
  if (pCall->NumArgs != 1) {
    return false;
  }
  const U32 Addr = U32(pCall->paArg[0]);
  if (Id == Rows.ReadU32) {
    *pResult = _ReadMemForScript(Addr, 4);
  } else if (Id == Rows.ReadU16) {
    *pResult = _ReadMemForScript(Addr, 2);
  } else if (Id == Rows.ReadU8) {
    *pResult = _ReadMemForScript(Addr, 1);
  } else if (Id == Rows.GetReg && _ResolveRegister) {
    const char* sName = ScriptCheckString(pCall->pContext, pCall->paArg[0]);
    *pResult = sName ? _ReadRegDirect(sName) : -1;
  } else {
    return false;
  }
  return true;
}

}  // namespace

int ScriptAddConstants(CTrans* pContext) {
  int r = 0;
  for (const SYS_CONSTANT& Row : g_aConstants) {
    r |= ScriptAddConstant(pContext, Row.sName, Row.Value);
    if (strcmp(Row.sName, "RM_BREAK_AT_SYMBOL") == 0) {
      r |= ScriptAddConstant(pContext, "RM_BREAK_AT_MAIN", Row.Value);
    }
  }
  for (int i = 0; i < kNumSysVars; ++i) {
    r |= ScriptAddConstant(pContext, g_aSysVars[i].sName, i);
  }
  for (const SYS_COLOR& Row : g_aBuiltinColors) {
    r |= ScriptAddConstant(pContext, Row.sName, I32(Row.ID));
  }
  for (const SYS_FONT& Row : g_aFonts) {
    r |= ScriptAddConstant(pContext, Row.sName, I32(Row.ID));
  }
  return r < 0 ? -1 : 0;
}

int ScriptAddApi(CTrans* pContext) {
  _Registered.clear();
  int NumRefused = 0;
  for (int Id = 0; Id < kNumActions; ++Id) {
    const QString sPrototype = g_aActions[Id].sPrototype;
    if (sPrototype.isEmpty()) {
      continue;
    }
    void* pUser = reinterpret_cast<void*>(intptr_t(Id));
    const QString aPrototypes[2] = {sPrototype, GetAliasPrototype(Id)};
    const QString aNames[2] = {GetFunctionName(Id), GetAliasName(Id)};
    for (int k = 0; k < 2; ++k) {
      if (aPrototypes[k].isEmpty()) {
        continue;
      }
      const QByteArray Text = aPrototypes[k].toUtf8();
      if (ScriptAddApiFunction(pContext, Text.constData(), ScriptCallAction, pUser) < 0) {
        LogMessage("Error registering API function for " + g_aActions[Id].sObjectName,
                   MSG_WARNING | MSG_TO_STDOUT | MSG_TO_LOGFILE);
        ++NumRefused;
      } else {
        _Registered.append({Id, aNames[k]});
      }
    }
  }
  return NumRefused;
}

QList<SCRIPT_API_ENTRY> ScriptGetRegisteredApi() {
  return _Registered;
}

const char* ScriptCheckString(const CTrans* pContext, I64 Arg) {
  const char* sText = ScriptGetString(pContext, Arg);
  if (sText == nullptr) {
    ConsoleError(QString("Invalid user function parameter: 0x%1 (%2)")
                     .arg(QString::number(U64(Arg), 16).toUpper())
                     .arg(Arg));
  }
  return sText;
}

void ScriptSetRegisterResolver(std::function<int(const QString&)> pfResolve) {
  _ResolveRegister = std::move(pfResolve);
}

I32 ScriptCallAction(const SCRIPT_API_CALL* pCall) {
  const intptr_t Id = reinterpret_cast<intptr_t>(pCall->pUser);
  if (Id < 0 || Id >= kNumActions) {
    return -1;
  }
  I32 Result = 0;
  if (_TryDirectRead(int(Id), pCall, &Result)) {
    return Result;
  }
  QStringList Args;
  if (!_ConvertArguments(int(Id), pCall, &Args)) {
    return -1;
  }
  QVariant av[7];
  for (int i = 0; i < Args.size() && i < 7; ++i) {
    av[i] = Args[i];
  }
  const U64 Errors = GetErrorSerial();
  Result = PerformAction(int(Id), av[0], av[1], av[2], av[3], av[4], av[5], av[6]);
  if (Result < 0) {
    return Result;
  }
  // A row that reported an error filed no job to wait for, and the script is told by -1.
  if (GetErrorSerial() != Errors) {
    return -1;
  }
  return WaitForCommandJobs(int(Id)) < 0 ? -1 : Result;
}
