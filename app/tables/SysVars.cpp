// The variable table (21 system variables, 26 preferences), its five value types, and the operations
// that read and write the rows.
#include <QSet>
#include <cstdio>
#include <cstring>
#include <limits>

#include "app/tables/SettingsStore.h"
#include "app/tables/SettingsTables.h"

namespace {

// Each text cell holds up to kSysVarTextSize characters and the terminating zero.
constexpr int kTextCell = kSysVarTextSize + 1;

int s_aValue[kNumSysVars];
int s_aStored[kNumSysVars];
char s_acTextValue[kTextCell];
char s_acTextStored[kTextCell];
const char s_acTextDefault[kTextCell] = "main";

// clang-format off
const int s_aDefault[kNumSysVars] = {
    0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1, 0, 1000, 0, 4, 0, 0, 0, 0, 1,  // VAR_*
    1, 1, 1, 1, 0, 0, 0, 1, 2, 1, 1, 1, 2, 1, 0, 1, 0, 1, 0, 0, 1, 0, 0, 1, 1, 1,  // PREF_*
};
// clang-format on

QSet<int> s_SetRows;
QString s_sError;

const QStringList s_PreferencePath = {QStringLiteral("AppData"), QStringLiteral("Preferences"),
                                      QStringLiteral("Preferences")};

int* _IntCell(void* p) {
  return static_cast<int*>(p);
}
const int* _IntCell(const void* p) {
  return static_cast<const int*>(p);
}

void _SetError(const QString& sError) {
  s_sError = sError;
}

void _WriteText(char* acText, int Size, const QByteArray& Text) {
  if (!acText || Size <= 0) {
    return;
  }
  const int n = qMin(int(Text.size()), Size - 1);
  memcpy(acText, Text.constData(), size_t(n));
  acText[n] = 0;
}

QString _Unquote(const QString& sText) {
  if (sText.size() >= 2 && sText.startsWith('"') && sText.endsWith('"')) {
    return sText.mid(1, sText.size() - 2);
  }
  return sText;
}

// The range of a row whose sValues reads "SysVarMin=<n>,SysVarMax=<n>".
bool _GetRange(const SYS_VAR* pVar, I64* pMin, I64* pMax) {
  if (!pVar || !pVar->sValues) {
    return false;
  }
  const QStringList Parts = QString::fromLatin1(pVar->sValues).split(',');
  if (Parts.size() != 2) {
    return false;
  }
  const QString sMin = Parts[0].trimmed(), sMax = Parts[1].trimmed();
  if (!sMin.startsWith(QLatin1String("SysVarMin=")) || !sMax.startsWith(QLatin1String("SysVarMax="))) {
    return false;
  }
  return TextToInt64(sMin.mid(10), pMin) && TextToInt64(sMax.mid(10), pMax);
}

QString _OutOfRangeText(const SYS_VAR* pVar, I64 Value, I64 Min, I64 Max) {
  char ac[128];
  if (pVar->pType == &g_SysVarTypeSigned) {
    snprintf(ac, sizeof(ac), "Value %d is out of range (Min: %d, Max: %d)", int(Value), int(Min), int(Max));
  } else {
    snprintf(ac, sizeof(ac), "Value %u is out of range (Min: %u, Max: %u)", unsigned(Value), unsigned(Min),
             unsigned(Max));
  }
  return QString::fromLatin1(ac);
}

// --- selection ---

int _SelectionToText(const SYS_VAR* pVar, I32 Value, char* acText, int Size) {
  const QStringList Labels = GetVarLabels(pVar);
  const QList<I32> Values = GetVarValues(pVar);
  for (int i = 0; i < Labels.size(); ++i) {
    if (Values[i] == Value) {
      _WriteText(acText, Size, Labels[i].toUtf8());
      return 0;
    }
  }
  _WriteText(acText, Size, QByteArray::number(Value));
  return -1;
}

int _SelectionFromText(SYS_VAR* pVar, bool Store, const char* sText) {
  const QString s = _Unquote(QString::fromUtf8(sText));
  const QStringList Labels = GetVarLabels(pVar);
  const QList<I32> Values = GetVarValues(pVar);
  for (int i = 0; i < Labels.size(); ++i) {
    if (Labels[i] == s) {
      return SetVar(pVar, Values[i], Store);
    }
  }
  bool Ok = false;
  const I32 Value = ConvertVarValue(pVar, s, &Ok);
  return Ok ? SetVar(pVar, Value, Store) : -1;
}

const char* _SelectionName() {
  return "string selection";
}

// --- unsigned, signed, frequency ---

int _NumberToText(const SYS_VAR* pVar, I32 Value, char* acText, int Size) {
  const bool Signed = pVar->pType == &g_SysVarTypeSigned;
  I64 Min = 0, Max = 0;
  char ac[128];
  if (!_GetRange(pVar, &Min, &Max)) {
    if (Signed) {
      snprintf(ac, sizeof(ac), "%d (Could not check range).", Value);
    } else {
      snprintf(ac, sizeof(ac), "%u (Could not check range).", U32(Value));
    }
    _WriteText(acText, Size, ac);
    return 0;
  }
  const I64 Wide = Signed ? I64(Value) : I64(U32(Value));
  if (Wide < Min || Wide > Max) {
    _WriteText(acText, Size, _OutOfRangeText(pVar, Wide, Min, Max).toLatin1());
    return -1;
  }
  if (Signed) {
    snprintf(ac, sizeof(ac), "%d", Value);
  } else {
    snprintf(ac, sizeof(ac), "%u", U32(Value));
  }
  _WriteText(acText, Size, ac);
  return 0;
}

// Checks Value against the row's limits (a row without readable limits takes any value that fits the
// cell) and writes it.
int _WriteNumber(SYS_VAR* pVar, bool Store, I64 Value) {
  I64 Min = 0, Max = 0;
  if (_GetRange(pVar, &Min, &Max) && (Value < Min || Value > Max)) {
    _SetError(_OutOfRangeText(pVar, Value, Min, Max));
    return -1;
  }
  if (Value < std::numeric_limits<I32>::min() || Value > std::numeric_limits<I32>::max()) {
    _SetError(QStringLiteral("Value %1 does not fit a 32-bit cell").arg(Value));
    return -1;
  }
  return SetVar(pVar, I32(Value), Store);
}

int _NumberFromText(SYS_VAR* pVar, bool Store, const char* sText) {
  const QString s = _Unquote(QString::fromUtf8(sText)).trimmed();
  I64 Value = 0;
  if (!TextToInt64(s, &Value)) {
    _SetError(QStringLiteral("invalid number \"%1\"").arg(s));
    return -1;
  }
  if (Value < 0 && pVar->pType != &g_SysVarTypeSigned) {
    _SetError(QStringLiteral("invalid number \"%1\": no sign allowed").arg(s));
    return -1;
  }
  return _WriteNumber(pVar, Store, Value);
}

const char* _UnsignedName() {
  return "unsigned int";
}
const char* _SignedName() {
  return "signed int";
}

int _FrequencyToText(const SYS_VAR* pVar, I32 Value, char* acText, int Size) {
  _WriteText(acText, Size, FrequencyToText(Value).toLatin1());
  return Value < 0 ? -1 : 0;
}

int _FrequencyFromText(SYS_VAR* pVar, bool Store, const char* sText) {
  const QString s = QString::fromUtf8(sText);
  const I32 Hz = TextToFrequency(s);
  if (Hz < 0) {
    _SetError(QStringLiteral("invalid frequency \"%1\"").arg(s.trimmed()));
    return -1;
  }
  return _WriteNumber(pVar, Store, Hz);
}

// --- text ---

int _TextToText(const SYS_VAR* pVar, I32 Value, char* acText, int Size) {
  _WriteText(acText, Size, QByteArray(static_cast<const char*>(pVar->pValue)));
  return 0;
}

int _TextFromText(SYS_VAR* pVar, bool Store, const char* sText) {
  const QByteArray Text(sText ? sText : "");
  if (Text.size() > kSysVarTextSize) {
    _SetError(QStringLiteral("text of %1 characters is longer than %2 for %3")
                  .arg(Text.size())
                  .arg(kSysVarTextSize)
                  .arg(QLatin1String(pVar->sName)));
    return -1;
  }
  _WriteText(static_cast<char*>(pVar->pValue), kTextCell, Text);
  if (Store) {
    _WriteText(static_cast<char*>(pVar->pStored), kTextCell, Text);
  }
  return 0;
}

const char* _TextName() {
  return "string";
}

constexpr const char* kNoYes = "no=0,yes=1";

}  // namespace

const SYS_VAR_TYPE g_SysVarTypeSelection = {_SelectionToText, _SelectionFromText, _SelectionName};
const SYS_VAR_TYPE g_SysVarTypeUnsigned = {_NumberToText, _NumberFromText, _UnsignedName};
const SYS_VAR_TYPE g_SysVarTypeSigned = {_NumberToText, _NumberFromText, _SignedName};
const SYS_VAR_TYPE g_SysVarTypeFrequency = {_FrequencyToText, _FrequencyFromText, _UnsignedName};
const SYS_VAR_TYPE g_SysVarTypeText = {_TextToText, _TextFromText, _TextName};

#define SEL &g_SysVarTypeSelection
#define UNS &g_SysVarTypeUnsigned
#define SGN &g_SysVarTypeSigned
#define FRQ &g_SysVarTypeFrequency
#define CELLS(i) &s_aValue[i], &s_aDefault[i], &s_aStored[i]

// clang-format off
SYS_VAR g_aSysVars[kNumSysVars] = {
  {"VAR_RESET_MODE", "Reset Mode", SEL, CELLS(0), "ResetMode", "Reset & Halt=0,Reset & Break At Symbol=1,Reset & Run=2"},
  {"VAR_CONNECT_MODE", "Connection Mode", SEL, CELLS(1), "ConnectMode", "Download & Reset Program=0,Attach to Running Program=1,Attach & Halt Program=2"},
  {"VAR_SEMIHOSTING_ENABLED", "Enable / Disable Semihosting IO", SEL, CELLS(2), "SemihostingEnabled", kNoYes},
  {"VAR_MCT_ENABLED", "Enable / Disable Memory Channel Terminal IO", SEL, CELLS(3), "MCTEnabled", kNoYes},
  {"VAR_TIF_SPEED", "Target Interface Speed", SEL, CELLS(4), "TIFSpeedHZ", "Auto Speed=0,Adaptive Speed=0xFFFF,1 kHz=1000,2 kHz=2000,5 kHz=5000,10 kHz=10000,20 kHz=20000,50 kHz=50000,100 kHz=100000,200 kHz=200000,500 kHz=500000,1 MHz=1000000,2 MHz=2000000,3 MHz=3000000,4 MHz=4000000,5 MHz=5000000,8 MHz=8000000,10 MHz=10000000,12 MHz=12000000,15 MHz=15000000,20 MHz=20000000,25 MHz=25000000,50 MHz=50000000"},
  {"VAR_TIF_SCAN_CHAIN_POS", "JTAG Scan-Chain Position", SEL, CELLS(5), "ScanChainPosition", "0=0,1=1,2=2,3=3,4=4,5=5,6=6,7=7"},
  {"VAR_TIF_SCAN_CHAIN_LEN", "JTAG Scan-Chain Length", UNS, CELLS(6), "ScanChainLength", "SysVarMin=0,SysVarMax=1000000000"},
  {"VAR_SWO_CPU_SPEED", "SWO CPU Frequency Parameter", FRQ, CELLS(7), "SWOCpuSpeed", "SysVarMin=0,SysVarMax=2000000000"},
  {"VAR_SWO_SPEED", "SWO Data Transmission Speed", FRQ, CELLS(8), "SWOSpeed", "SysVarMin=0,SysVarMax=2000000000"},
  {"VAR_ACCESS_WIDTH", "Memory Access Width", SEL, CELLS(9), "MemoryAccessWidth", "Auto Access=0,Byte=1,HalfWord=2,Word=4"},
  {"VAR_BREAKPOINT_TYPE", "Allowed Breakpoint Implementation Type", SEL, CELLS(10), "BreakpointType", "Any=0,Hardware=1,Software=2"},
  {"VAR_VERIFY_DOWNLOAD", "Verify Download of Program Images", SEL, CELLS(11), "VerifyDownload", kNoYes},
  {"VAR_BREAK_AT_THIS_SYMBOL", "Break at this Symbol on Debug Session Start", &g_SysVarTypeText, s_acTextValue, s_acTextDefault, s_acTextStored, "BreakAtThisSymbol", "SysVarMin=0,SysVarMax=0xFFFFFFFF"},
  {"VAR_HSS_SPEED", "High Speed Sampling Speed", SEL, CELLS(13), "HSSSpeed", "1 Hz=1,2 Hz=2,5 Hz=5,10 Hz=10,20 Hz=20,50 Hz=50,100 Hz=100,200 Hz=200,500 Hz=500,1 kHz=1000,2 kHz=2000,5 kHz=5000,10 kHz=10000,max=0"},
  {"VAR_TRACE_SOURCE", "Trace Source", SEL, CELLS(14), "TraceSource", "None=0,Trace Pins=1,Trace Buffer=2,SWO=3"},
  {"VAR_TRACE_PORT_WIDTH", "Trace Port Width", SEL, CELLS(15), "TracePortWidth", "1 bit=1,2 bit=2,4 bit=4"},
  {"VAR_TRACE_PORT_DELAY_0", "Trace Port Data Line 0 Delay [ps]", SGN, CELLS(16), "TracePortDelay0", "SysVarMin=-100000,SysVarMax=100000"},
  {"VAR_TRACE_PORT_DELAY_1", "Trace Port Data Line 1 Delay [ps]", SGN, CELLS(17), "TracePortDelay1", "SysVarMin=-100000,SysVarMax=100000"},
  {"VAR_TRACE_PORT_DELAY_2", "Trace Port Data Line 2 Delay [ps]", SGN, CELLS(18), "TracePortDelay2", "SysVarMin=-100000,SysVarMax=100000"},
  {"VAR_TRACE_PORT_DELAY_3", "Trace Port Data Line 3 Delay [ps]", SGN, CELLS(19), "TracePortDelay3", "SysVarMin=-100000,SysVarMax=100000"},
  {"VAR_TRACE_INIT_ON_ATTACH", "Explicitly initialize trace cache on program attach", SEL, CELLS(20), "TraceInitOnAttach", kNoYes},
  {"PREF_SHOW_LINE_NUMBERS", "Show Line Numbers in Source Viewer", SEL, CELLS(21), "Show Line Numbers", kNoYes},
  {"PREF_SHOW_EXPANSION_BAR", "Show Line Expansion Indicators", SEL, CELLS(22), "Show Line Expansion Bar", kNoYes},
  {"PREF_SHOW_SIDEBAR_SRC", "Show Sidebar in Source Viewer", SEL, CELLS(23), "Show Sidebar", kNoYes},
  {"PREF_SHOW_SIDEBAR_ASM", "Show Sidebar in Disassembly Window", SEL, CELLS(24), "Show Sidebar", kNoYes},
  {"PREF_SHOW_SRC_CODE_PROFILE", "Show Code Profile in Source Viewer", SEL, CELLS(25), "Show Code Profile", kNoYes},
  {"PREF_SHOW_ASM_CODE_PROFILE", "Show Code Profile in Disassembly Window", SEL, CELLS(26), "Show Code Profile", kNoYes},
  {"PREF_SHOW_SYMBOL_ICONS", "Show Symbol Icons", SEL, CELLS(27), "Show Symbol Icons", kNoYes},
  {"PREF_INDENT_INLINE_ASSEMBLY", "Indent inline assembly code", SEL, CELLS(28), "Indent inline assembly code", kNoYes},
  {"PREF_LINE_NUMBER_FREQ", "Line number frequency", SEL, CELLS(29), "Line number frequency", "Off=0,Current Line=1,All Lines=2,Every 5 Lines=3,Every 10 Lines=4"},
  {"PREF_LOCK_HEADER_BAR", "Lock Header Bar", SEL, CELLS(30), "Lock Header Bar", kNoYes},
  {"PREF_ASM_SHOW_SOURCE", "Show Source Code in Disassembly", SEL, CELLS(31), "Show Source", kNoYes},
  {"PREF_ASM_SHOW_LABELS", "Show Labels in Disassembly", SEL, CELLS(32), "Show Labels", kNoYes},
  {"PREF_TAB_SPACING", "Source Viewer Tab Spacing", SEL, CELLS(33), "Tab Spacing", "0=0,1=1,2=2,3=3,4=4,5=5,6=6,7=7,8=8"},
  {"PREF_TERMINAL_NO_CONTROL_CHARS", "Suppress control characters in terminal window", SEL, CELLS(34), "Suppress Control Characters", kNoYes},
  {"PREF_START_WITH_MOST_RECENT_PROJ", "Open the most recent poject on startup", SEL, CELLS(35), "Open the most recent project on startup", kNoYes},
  {"PREF_PREPEND_FUNC_CLASS_NAMES", "Prepend class names to function names", SEL, CELLS(36), "Prepend class names to function names", kNoYes},
  {"PREF_SHOW_PROGBAR_WHILE_RUNNING", "Show progress bar while running", SEL, CELLS(37), "Show progress bar while running", kNoYes},
  {"PREF_SHOW_CHAR_TEXT", "Show Text Value for (u)char", SEL, CELLS(38), "(unsigned) char", kNoYes},
  {"PREF_SHOW_SHORT_TEXT", "Show Text Value for (u)short", SEL, CELLS(39), "(unsigned) short", kNoYes},
  {"PREF_SHOW_INT_TEXT", "Show Text Value for (u)int", SEL, CELLS(40), "(unsigned) int", kNoYes},
  {"PREF_SHOW_CHAR_PTR_TEXT", "Show Text Value for (u)char*", SEL, CELLS(41), "(unsigned) char*", kNoYes},
  {"PREF_SHOW_SHORT_PTR_TEXT", "Show Text Value for (u)short*", SEL, CELLS(42), "(unsigned) short*", kNoYes},
  {"PREF_SHOW_INT_PTR_TEXT", "Show Text Value for (u)int*", SEL, CELLS(43), "(unsigned) int*", kNoYes},
  {"PREF_DIALOG_SHOW_DNSA", "Show dialog option \"Do not show again\"", SEL, CELLS(44), "Show dialog option \"Do not show again\"", kNoYes},
  {"PREF_SHOW_HEX_BLOCKS", "Divide big hexadecimal numbers into blocks", SEL, CELLS(45), "Divide big hexadecimal numbers into blocks", kNoYes},
  {"PREF_SHOW_TOOLTIPS", "Show symbol tooltips", SEL, CELLS(46), "Show symbol tooltips", kNoYes},
};
// clang-format on

#undef SEL
#undef UNS
#undef SGN
#undef FRQ
#undef CELLS

void InitVars(int* pDeviceSpeed, int* pDeviceDRPre, int* pDeviceIRPre) {
  g_aSysVars[VAR_TIF_SPEED].pValue = pDeviceSpeed ? pDeviceSpeed : &s_aValue[VAR_TIF_SPEED];
  g_aSysVars[VAR_TIF_SCAN_CHAIN_POS].pValue = pDeviceDRPre ? pDeviceDRPre : &s_aValue[VAR_TIF_SCAN_CHAIN_POS];
  g_aSysVars[VAR_TIF_SCAN_CHAIN_LEN].pValue = pDeviceIRPre ? pDeviceIRPre : &s_aValue[VAR_TIF_SCAN_CHAIN_LEN];
  for (int i = 0; i < kNumSysVars; ++i) {
    SYS_VAR* pVar = &g_aSysVars[i];
    if (IsTextVar(pVar)) {
      _WriteText(static_cast<char*>(pVar->pValue), kTextCell, static_cast<const char*>(pVar->pDefault));
      _WriteText(static_cast<char*>(pVar->pStored), kTextCell, static_cast<const char*>(pVar->pDefault));
    } else {
      *_IntCell(pVar->pValue) = *_IntCell(pVar->pDefault);
      *_IntCell(pVar->pStored) = *_IntCell(pVar->pDefault);
    }
  }
  s_SetRows.clear();
  s_sError.clear();
}

SYS_VAR* GetVar(int Index) {
  return Index >= 0 && Index < kNumSysVars ? &g_aSysVars[Index] : nullptr;
}

SYS_VAR* FindVar(const QString& sNameOrIndex) {
  const QString s = _Unquote(sNameOrIndex.trimmed());
  I64 Index = 0;
  if (TextToInt64(s, &Index)) {
    return Index >= 0 && Index < kNumSysVars ? &g_aSysVars[Index] : nullptr;
  }
  for (SYS_VAR& Var : g_aSysVars) {
    if (s.compare(QLatin1String(Var.sName), Qt::CaseInsensitive) == 0) {
      return &Var;
    }
  }
  return nullptr;
}

int GetVarIndex(const SYS_VAR* pVar) {
  if (!pVar || pVar < g_aSysVars || pVar >= g_aSysVars + kNumSysVars) {
    return -1;
  }
  return int(pVar - g_aSysVars);
}

I32 GetVarValue(const SYS_VAR* pVar) {
  return pVar && !IsTextVar(pVar) ? *_IntCell(pVar->pValue) : 0;
}

I32 GetVarStoredValue(const SYS_VAR* pVar) {
  return pVar && !IsTextVar(pVar) ? *_IntCell(pVar->pStored) : 0;
}

QString GetVarString(const SYS_VAR* pVar) {
  return pVar && IsTextVar(pVar) ? QString::fromUtf8(static_cast<const char*>(pVar->pValue)) : QString();
}

int SetVar(SYS_VAR* pVar, I32 Value, bool Store) {
  if (!pVar || IsTextVar(pVar)) {
    return -1;
  }
  *_IntCell(pVar->pValue) = Value;
  if (Store) {
    *_IntCell(pVar->pStored) = Value;
  }
  s_SetRows.insert(GetVarIndex(pVar));
  return 0;
}

int SetVarFromText(SYS_VAR* pVar, const QString& sText, bool Store) {
  if (!pVar) {
    return -1;
  }
  s_SetRows.insert(GetVarIndex(pVar));
  return pVar->pType->FromText(pVar, Store, sText.toUtf8().constData());
}

bool IsVarSet(const SYS_VAR* pVar) {
  return s_SetRows.contains(GetVarIndex(pVar));
}

QString GetVarText(const SYS_VAR* pVar, I32 Value) {
  if (!pVar) {
    return QString();
  }
  const I32 Shown = Value == -1 ? GetVarValue(pVar) : Value;
  char acText[256];
  if (pVar->pType->ToText(pVar, Shown, acText, int(sizeof(acText))) < 0) {
    return FrequencyToText(Shown);
  }
  return QString::fromUtf8(acText);
}

QString GetVarRangeText(const SYS_VAR* pVar) {
  I64 Min = 0, Max = 0;
  if (!_GetRange(pVar, &Min, &Max)) {
    return QString();
  }
  const QStringList Parts = QString::fromLatin1(pVar->sValues).split(',');
  return Parts[0].trimmed().mid(10) + QStringLiteral(" - ") + Parts[1].trimmed().mid(10);
}

QStringList GetVarLabels(const SYS_VAR* pVar) {
  QStringList Labels;
  if (!IsSelectionVar(pVar)) {
    return Labels;
  }
  const QStringList Entries = QString::fromUtf8(pVar->sValues).split(',');
  for (const QString& sEntry : Entries) {
    Labels.append(sEntry.section('=', 0, 0).left(kSysVarMaxLabel));
  }
  return Labels;
}

QList<I32> GetVarValues(const SYS_VAR* pVar) {
  QList<I32> Values;
  if (!IsSelectionVar(pVar)) {
    return Values;
  }
  const QStringList Entries = QString::fromUtf8(pVar->sValues).split(',');
  for (const QString& sEntry : Entries) {
    I64 Value = 0;
    if (!TextToInt64(sEntry.section('=', 1), &Value)) {
      Value = 0;  // an entry that doesn't convert counts 0
    }
    Values.append(I32(Value));
  }
  return Values;
}

bool IsSelectionVar(const SYS_VAR* pVar) {
  return pVar && strcmp(pVar->pType->TypeName(), "string selection") == 0;
}

bool IsBooleanVar(const SYS_VAR* pVar) {
  static const char* const s_apWords[] = {"true",  "on",  "1", "0x1", "enabled",  "active",   "yes",
                                          "false", "off", "0", "0x0", "disabled", "inactive", "no"};
  const QStringList Labels = GetVarLabels(pVar);
  if (Labels.size() != 2) {
    return false;
  }
  for (const QString& sLabel : Labels) {
    bool Known = false;
    for (const char* sWord : s_apWords) {
      Known = Known || sLabel.compare(QLatin1String(sWord), Qt::CaseInsensitive) == 0;
    }
    if (!Known) {
      return false;
    }
  }
  return true;
}

bool IsTextVar(const SYS_VAR* pVar) {
  return pVar && pVar->pType == &g_SysVarTypeText;
}

I32 ConvertVarValue(const SYS_VAR* pVar, const QString& sText, bool* pOk) {
  bool Dummy = false;
  bool& Ok = pOk ? *pOk : Dummy;
  Ok = false;
  if (!pVar) {
    return 0;
  }
  const QString s = _Unquote(sText.trimmed());
  if (IsTextVar(pVar)) {
    _SetError(QStringLiteral("%1 takes a text, not a number").arg(QLatin1String(pVar->sName)));
    return 0;
  }
  if (!IsSelectionVar(pVar)) {
    I64 Value = 0;
    if (!TextToInt64(s, &Value)) {
      Value = TextToFrequency(s);
      if (Value < 0) {
        _SetError(QStringLiteral("invalid number \"%1\"").arg(s));
        return 0;
      }
    }
    // Only a signed row takes a minus sign; the others read a negative value as a failure.
    if (Value < 0 && pVar->pType != &g_SysVarTypeSigned) {
      _SetError(QStringLiteral("invalid number \"%1\": no sign allowed").arg(s));
      return 0;
    }
    I64 Min = 0, Max = 0;
    if (_GetRange(pVar, &Min, &Max) && (Value < Min || Value > Max)) {
      _SetError(_OutOfRangeText(pVar, Value, Min, Max));
      return 0;
    }
    if (Value > std::numeric_limits<I32>::max() || Value < std::numeric_limits<I32>::min()) {
      _SetError(QStringLiteral("Value %1 does not fit a 32-bit cell").arg(Value));
      return 0;
    }
    Ok = true;
    return I32(Value);
  }
  const QStringList Labels = GetVarLabels(pVar);
  const QList<I32> Values = GetVarValues(pVar);
  for (int i = 0; i < Labels.size(); ++i) {
    if (Labels[i].compare(s, Qt::CaseInsensitive) == 0) {
      Ok = true;
      return Values[i];
    }
  }
  if (const SYS_CONSTANT* pConstant = FindConstantAmong(s, Values)) {
    Ok = true;
    return pConstant->Value;
  }
  I64 Value = 0;
  if (TextToInt64(s, &Value) && Value >= std::numeric_limits<I32>::min() &&
      Value <= std::numeric_limits<I32>::max() && Values.contains(I32(Value))) {
    Ok = true;
    return I32(Value);
  }
  _SetError(QStringLiteral("\"%1\" is not a value of %2").arg(s, QLatin1String(pVar->sName)));
  return 0;
}

QString SysVarError() {
  return s_sError;
}

void LoadPreferences() {
  for (int i = kFirstPreference; i <= kLastPreference; ++i) {
    SYS_VAR* pVar = &g_aSysVars[i];
    const I32 Default = *_IntCell(pVar->pDefault);
    bool Ok = false;
    I32 Value = LoadValue(s_PreferencePath, QLatin1String(pVar->sName), Default).toInt(&Ok);
    // The file is the user's to edit: a value the row can't take leaves the default.
    if (!Ok || !GetVarValues(pVar).contains(Value)) {
      Value = Default;
    }
    SetVar(pVar, Value, true);
  }
}

void SavePreferences() {
  for (int i = kFirstPreference; i <= kLastPreference; ++i) {
    const SYS_VAR* pVar = &g_aSysVars[i];
    StoreValue(s_PreferencePath, QLatin1String(pVar->sName), *_IntCell(pVar->pStored));
  }
}
