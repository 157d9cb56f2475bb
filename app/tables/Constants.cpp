// The symbolic constants: every enumeration of the program with its script name and display text, and
// the value-to-name functions of single families.
#include <limits>

#include "app/tables/SettingsTables.h"

// clang-format off
const SYS_CONSTANT g_aConstants[kNumConstants] = {
    // reset modes
    {0, "RM_RESET_HALT", "Reset & Halt"},
    {1, "RM_BREAK_AT_SYMBOL", "Reset & Break at Symbol"},
    {2, "RM_RESET_AND_RUN", "Reset & Run"},
    // connect modes
    {0, "CM_DOWNLOAD_RESET", "Download & Reset Program"},
    {1, "CM_ATTACH", "Attach to Running Program"},
    {2, "CM_ATTACH_HALT", "Attach & Halt Program"},
    // resume modes
    {0, "GO_USER", "User"},
    {1, "GO_RUN_TO", "Run To"},
    // number bases
    {2, "NUMBER_BASE_BINARY", "Binary"},
    {10, "NUMBER_BASE_DEC", "Decimal"},
    {16, "NUMBER_BASE_HEX", "Hexadecimal"},
    // display formats
    {0, "DISPLAY_FORMAT_AUTO", "Auto"},
    {2, "DISPLAY_FORMAT_BINARY", "Binary"},
    {8, "DISPLAY_FORMAT_CHAR", "Character"},
    {10, "DISPLAY_FORMAT_DEC", "Decimal"},
    {16, "DISPLAY_FORMAT_HEX", "Hexadecimal"},
    // access widths
    {0, "AW_AUTO", "Auto Access"},
    {1, "AW_BYTE", "Byte"},
    {2, "AW_HALF_WORD", "HalfWord"},
    {4, "AW_WORD", "Word"},
    // access types
    {0, "AT_READ_ONLY", "Read Only"},
    {1, "AT_WRITE_ONLY", "Write Only"},
    {2, "AT_READ_WRITE", "Read/Write"},
    {3, "AT_NO_ACCESS", "No Access"},
    // breakpoint states
    {0, "BP_STATE_OFF", "Off"},
    {1, "BP_STATE_ON", "On"},
    {3, "BP_STATE_DISABLED", "Disabled"},
    {2, "BP_STATE_ON_HIDDEN", "Hidden"},
    {4, "BP_STATE_UNKNOWN", "Unknown"},
    // breakpoint types
    {0, "BP_TYPE_ANY", "Any"},
    {1, "BP_TYPE_HARD", "Hard"},
    {2, "BP_TYPE_SOFT", "Soft"},
    // CPU modes
    {16, "MODE_USR", "User Mode"},
    {31, "MODE_SYS", "System Mode"},
    {19, "MODE_SVC", "Supervisor Mode"},
    {27, "MODE_UND", "Undefined Mode"},
    {17, "MODE_FIQ", "Fast Interrupt Mode"},
    {18, "MODE_IRQ", "Interrupt Mode"},
    {23, "MODE_ABT", "Abort Mode"},
    // frequencies
    {0, "FREQ_AUTO", "Auto"},
    {65535, "FREQ_ADAPTIVE", "Adaptive"},
    {1, "FREQ_1_HZ", "1 Hz"},
    {2, "FREQ_2_HZ", "2 Hz"},
    {5, "FREQ_5_HZ", "5 Hz"},
    {10, "FREQ_10_HZ", "10 Hz"},
    {20, "FREQ_20_HZ", "20 Hz"},
    {50, "FREQ_50_HZ", "50 Hz"},
    {100, "FREQ_100_HZ", "100 Hz"},
    {200, "FREQ_200_HZ", "200 Hz"},
    {500, "FREQ_500_HZ", "500 Hz"},
    {1000, "FREQ_1_KHZ", "1 kHz"},
    {2000, "FREQ_2_KHZ", "2 kHz"},
    {5000, "FREQ_5_KHZ", "5 kHz"},
    {10000, "FREQ_10_KHZ", "10 kHz"},
    {20000, "FREQ_20_KHZ", "20 kHz"},
    {50000, "FREQ_50_KHZ", "50 kHz"},
    {100000, "FREQ_100_KHZ", "100 kHz"},
    {200000, "FREQ_200_KHZ", "200 kHz"},
    {500000, "FREQ_500_KHZ", "500 kHz"},
    {1000000, "FREQ_1_MHZ", "1 MHz"},
    {2000000, "FREQ_2_MHZ", "2 MHz"},
    {3000000, "FREQ_3_MHZ", "3 MHz"},
    {4000000, "FREQ_4_MHZ", "4 MHz"},
    {5000000, "FREQ_5_MHZ", "5 MHz"},
    {8000000, "FREQ_8_MHZ", "8 MHz"},
    {10000000, "FREQ_10_MHZ", "10 MHz"},
    {12000000, "FREQ_12_MHZ", "12 MHz"},
    {15000000, "FREQ_15_MHZ", "15 MHz"},
    {20000000, "FREQ_20_MHZ", "20 MHz"},
    {25000000, "FREQ_25_MHZ", "25 MHz"},
    {50000000, "FREQ_50_MHZ", "50 MHz"},
    // true
    {1, "1", "yes"},
    {1, "YES", "yes"},
    {1, "ON", "yes"},
    {1, "TRUE", "yes"},
    {1, "0x1", "yes"},
    {1, "ACTIVE", "yes"},
    {1, "ENABLED", "yes"},
    // false
    {0, "0", "no"},
    {0, "NO", "no"},
    {0, "OFF", "no"},
    {0, "FALSE", "no"},
    {0, "0x0", "no"},
    {0, "INACTIVE", "no"},
    {0, "DISABLED", "no"},
    // host interfaces
    {1, "USB", "USB"},
    {2, "IP", "IP"},
    // target interfaces
    {0, "JTAG", "JTAG"},
    {1, "SWD", "SWD"},
    // trace sources
    {0, "TRACE_SOURCE_NONE", "None"},
    {1, "TRACE_SOURCE_ETM", "Trace Pins"},
    {2, "TRACE_SOURCE_ETB", "Trace Buffer"},
    {3, "TRACE_SOURCE_SWO", "SWO"},
    // exception contexts
    {0, "ISR_THREAD", "Thread"},
    {1, "ISR_RESET", "Reset"},
    {2, "ISR_NMI", "NMI"},
    {3, "ISR_HARD_FAULT", "HardFault"},
    {4, "ISR_MEM_MANAGE", "MemManage"},
    {5, "ISR_BUS_FAULT", "BusFault"},
    {6, "ISR_USAGE_FAULT", "UsageFault"},
    {7, "ISR_SECURE_FAULT", "SecureFault"},
    {11, "ISR_SV_CALL", "SVCall"},
    {12, "ISR_DEBUG_MONITOR", "DebugMonitor"},
    {14, "ISR_PEND_SV_CALL", "PendSVCall"},
    {15, "ISR_SYS_TICK", "SysTick"},
    {16, "ISR_EXTERNAL_IRQ", "ExternalIRQ"},
    // core families
    {1, "DF_CORTEX_M1", "Cortex-M1"},
    {2, "DF_COLDFIRE", "Coldfire"},
    {3, "DF_CORTEX_M3", "Cortex-M3"},
    {4, "DF_SIMULATOR", "Simulator"},
    {5, "DF_XSCALE", "XScale"},
    {6, "DF_CORTEX_M0", "Cortex-M0"},
    {7, "DF_ARM7", "ARM7"},
    {8, "DF_CORTEX_A8", "Cortex-A8"},
    {9, "DF_ARM9", "ARM9"},
    {10, "DF_ARM10", "ARM10"},
    {11, "DF_ARM11", "ARM11"},
    {12, "DF_CORTEX_R4", "Cortex-R4"},
    {13, "DF_RX", "RX"},
    {14, "DF_CORTEX_M4", "Cortex-M4"},
    {15, "DF_CORTEX_A5", "Cortex-A5"},
    {16, "DF_POWER_PC", "Power-PC"},
};
// clang-format on

namespace {

// The one name outside the table: a second name of the reset mode that breaks at the start symbol.
constexpr const char* kAliasName = "RM_BREAK_AT_MAIN";
constexpr const char* kAliasTarget = "RM_BREAK_AT_SYMBOL";

QString _Unquote(const QString& sText) {
  const QString s = sText.trimmed();
  if (s.size() >= 2 && s.startsWith('"') && s.endsWith('"')) {
    return s.mid(1, s.size() - 2);
  }
  return s;
}

const SYS_CONSTANT* _FindByName(const QString& sName) {
  for (const SYS_CONSTANT& Row : g_aConstants) {
    if (sName.compare(QLatin1String(Row.sName), Qt::CaseInsensitive) == 0) {
      return &Row;
    }
  }
  return nullptr;
}

}  // namespace

const SYS_CONSTANT* FindConstant(const QString& sText) {
  const QString s = _Unquote(sText);
  if (s.isEmpty()) {
    return nullptr;
  }
  for (const SYS_CONSTANT& Row : g_aConstants) {
    if (s.compare(QLatin1String(Row.sDisplay), Qt::CaseInsensitive) == 0 ||
        s.compare(QLatin1String(Row.sName), Qt::CaseInsensitive) == 0) {
      return &Row;
    }
  }
  if (s.compare(QLatin1String(kAliasName), Qt::CaseInsensitive) == 0) {
    return _FindByName(QLatin1String(kAliasTarget));
  }
  return nullptr;
}

const SYS_CONSTANT* FindConstantAmong(const QString& sText, const QList<I32>& Values) {
  const QString s = _Unquote(sText);
  if (s.isEmpty()) {
    return nullptr;
  }
  for (const SYS_CONSTANT& Row : g_aConstants) {
    if ((s.compare(QLatin1String(Row.sDisplay), Qt::CaseInsensitive) == 0 ||
         s.compare(QLatin1String(Row.sName), Qt::CaseInsensitive) == 0) &&
        Values.contains(Row.Value)) {
      return &Row;
    }
  }
  const SYS_CONSTANT* pAlias = FindConstant(s);
  return pAlias && Values.contains(pAlias->Value) ? pAlias : nullptr;
}

I32 ConstantValue(const QString& sText) {
  if (const SYS_CONSTANT* pRow = FindConstant(sText)) {
    return pRow->Value;
  }
  I64 Value = 0;
  if (TextToInt64(_Unquote(sText), &Value) && Value >= std::numeric_limits<I32>::min() &&
      Value <= std::numeric_limits<I32>::max()) {
    return I32(Value);
  }
  return -1;
}

QString ConstantDisplayText(const QString& sText) {
  const SYS_CONSTANT* pRow = FindConstant(sText);
  return pRow ? QString::fromLatin1(pRow->sDisplay) : QString();
}

const char* ExceptionName(U32 Number) {
  switch (Number) {
    case 0:
      return "ISR_THREAD";
    case 1:
      return "ISR_RESET";
    case 2:
      return "ISR_NMI";
    case 3:
      return "ISR_HARD_FAULT";
    case 4:
      return "ISR_MEM_MANAGE";
    case 5:
      return "ISR_BUS_FAULT";
    case 6:
      return "ISR_USAGE_FAULT";
    case 11:
      return "ISR_SV_CALL";
    case 12:
      return "ISR_DEBUG_MONITOR";
    case 14:
      return "ISR_PEND_SV_CALL";
    case 15:
      return "ISR_SYS_TICK";
    default:
      return Number < 16 ? "ISR_THREAD" : "ISR_EXTERNAL_IRQ";
  }
}

const char* CoreFamilyName(U32 Number) {
  if (Number == 2) {
    return "DF_CORTEX_CF";
  }
  for (const SYS_CONSTANT& Row : g_aConstants) {
    if (Row.Value == I32(Number) && QLatin1String(Row.sName).startsWith(QLatin1String("DF_"))) {
      return Row.sName;
    }
  }
  return "DF_UNKNOWN";
}

QString ComparatorErrorText(U32 Code) {
  if (!(Code & 0x80000000u)) {
    return QString();
  }
  if (Code == 0x80000000u) {
    return QStringLiteral("unknown error");
  }
  // The bits are tested in this order; the first one set gives the text.
  static const struct {
    U32 Bit;
    const char* sText;
  } s_aTexts[] = {
      {0, "no more events"},
      {1, "no more address comparision units"},
      {2, "no more data comparision units"},
      {5, "address mask invalid or not supported by target device"},
      {7, "access mask invalid or not supported by target device"},
      {6, "value mask invalid or not supported by target device"},
  };
  for (const auto& Entry : s_aTexts) {
    if (Code & (1u << Entry.Bit)) {
      return QString::fromLatin1(Entry.sText);
    }
  }
  return QStringLiteral("unknown error");
}
