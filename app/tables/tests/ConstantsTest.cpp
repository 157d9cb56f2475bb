// The symbolic constants as the Console, scripts and the canonical command text look them up.
#include <gtest/gtest.h>

#include <QSet>

#include "app/tables/SettingsTables.h"

TEST(Constants, NamesAreUniqueIgnoringCase) {
  QSet<QString> Names;
  for (const SYS_CONSTANT& Row : g_aConstants) {
    EXPECT_FALSE(Names.contains(QString::fromLatin1(Row.sName).toLower())) << Row.sName;
    Names.insert(QString::fromLatin1(Row.sName).toLower());
  }
  EXPECT_EQ(Names.size(), 122);
}

TEST(Constants, FindByDisplayTextNameOrAlias) {
  const struct {
    const char* sText;
    const char* sName;  // null: not found
    I32 Value;
  } aCases[] = {
      {"Reset & Run", "RM_RESET_AND_RUN", 2},
      {"rm_reset_and_run", "RM_RESET_AND_RUN", 2},
      {"\"Attach & Halt Program\"", "CM_ATTACH_HALT", 2},
      {"RM_BREAK_AT_MAIN", "RM_BREAK_AT_SYMBOL", 1},
      {"Auto", "DISPLAY_FORMAT_AUTO", 0},  // the first of several rows with this display text
      {"Hexadecimal", "NUMBER_BASE_HEX", 16},
      {"4 MHz", "FREQ_4_MHZ", 4000000},
      {"FREQ_ADAPTIVE", "FREQ_ADAPTIVE", 65535},
      {"yes", "1", 1},
      {"no", "0", 0},
      {"Enabled", "ENABLED", 1},
      {"Cortex-M4", "DF_CORTEX_M4", 14},
      {"Supervisor Mode", "MODE_SVC", 19},
      {"Hidden", "BP_STATE_ON_HIDDEN", 2},
      {"SWD", "SWD", 1},
      {"nonsense", nullptr, 0},
      {"", nullptr, 0},
  };
  for (const auto& c : aCases) {
    const SYS_CONSTANT* pRow = FindConstant(QString::fromLatin1(c.sText));
    if (!c.sName) {
      EXPECT_EQ(pRow, nullptr) << c.sText;
      continue;
    }
    ASSERT_NE(pRow, nullptr) << c.sText;
    EXPECT_STREQ(pRow->sName, c.sName);
    EXPECT_EQ(pRow->Value, c.Value) << c.sText;
  }
}

TEST(Constants, ValueFallsBackToANumberThenMinusOne) {
  EXPECT_EQ(ConstantValue(QStringLiteral("CM_ATTACH")), 1);
  EXPECT_EQ(ConstantValue(QStringLiteral("ISR_SYS_TICK")), 15);
  EXPECT_EQ(ConstantValue(QStringLiteral("0x20")), 32);
  EXPECT_EQ(ConstantValue(QStringLiteral("xyz")), -1);
  EXPECT_EQ(ConstantDisplayText(QStringLiteral("TRACE_SOURCE_ETB")), QStringLiteral("Trace Buffer"));
  EXPECT_EQ(ConstantDisplayText(QStringLiteral("xyz")), QString());
}

TEST(Constants, ExceptionNumbersToNames) {
  const struct {
    U32 Number;
    const char* sName;
  } aCases[] = {
      {0, "ISR_THREAD"},         {1, "ISR_RESET"},         {3, "ISR_HARD_FAULT"}, {6, "ISR_USAGE_FAULT"},
      {7, "ISR_THREAD"},         {8, "ISR_THREAD"},        {11, "ISR_SV_CALL"},   {12, "ISR_DEBUG_MONITOR"},
      {13, "ISR_THREAD"},        {14, "ISR_PEND_SV_CALL"}, {15, "ISR_SYS_TICK"},  {16, "ISR_EXTERNAL_IRQ"},
      {240, "ISR_EXTERNAL_IRQ"},
  };
  for (const auto& c : aCases) {
    EXPECT_STREQ(ExceptionName(c.Number), c.sName) << c.Number;
  }
}

TEST(Constants, CoreFamilyNumbersToNames) {
  EXPECT_STREQ(CoreFamilyName(2), "DF_CORTEX_CF");
  EXPECT_STREQ(CoreFamilyName(14), "DF_CORTEX_M4");
  EXPECT_STREQ(CoreFamilyName(16), "DF_POWER_PC");
  EXPECT_STREQ(CoreFamilyName(0), "DF_UNKNOWN");
  EXPECT_STREQ(CoreFamilyName(17), "DF_UNKNOWN");
}

TEST(Constants, ComparatorErrorsByFirstListedBit) {
  const struct {
    U32 Code;
    const char* sText;
  } aCases[] = {
      {0x80000000u, "unknown error"},
      {0x80000001u, "no more events"},
      {0x80000006u, "no more address comparision units"},
      {0x80000004u, "no more data comparision units"},
      {0x80000020u, "address mask invalid or not supported by target device"},
      {0x80000040u, "value mask invalid or not supported by target device"},
      {0x800000C0u, "access mask invalid or not supported by target device"},  // bit 7 before bit 6
      {0x00000001u, ""},
  };
  for (const auto& c : aCases) {
    EXPECT_EQ(ComparatorErrorText(c.Code), QLatin1String(c.sText)) << std::hex << c.Code;
  }
}

TEST(Constants, AmongValuesSkipsRowsOfOtherFamilies) {
  // "DISABLED" is first the display text of a breakpoint state, then the name of a false constant.
  EXPECT_STREQ(FindConstant(QStringLiteral("DISABLED"))->sName, "BP_STATE_DISABLED");
  const SYS_CONSTANT* pRow = FindConstantAmong(QStringLiteral("DISABLED"), {0, 1});
  ASSERT_NE(pRow, nullptr);
  EXPECT_STREQ(pRow->sName, "DISABLED");
  EXPECT_EQ(pRow->Value, 0);
  EXPECT_EQ(FindConstantAmong(QStringLiteral("RM_BREAK_AT_MAIN"), {0, 1, 2})->Value, 1);
  EXPECT_EQ(FindConstantAmong(QStringLiteral("MODE_SVC"), {0, 1}), nullptr);
}
