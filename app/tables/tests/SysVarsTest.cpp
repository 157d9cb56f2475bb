// The variable table through its operations: what the Console's Edit.SysVar and Edit.Preference, the
// project loader and the preferences dialog rely on.
#include <gtest/gtest.h>

#include <QSet>

#include "app/tables/SettingsStore.h"
#include "app/tables/SettingsTables.h"

namespace {

class SysVars : public ::testing::Test {
 protected:
  void SetUp() override { InitVars(); }
  void TearDown() override { InitVars(); }
};

SYS_VAR* Var(int Index) {
  return GetVar(Index);
}

}  // namespace

TEST_F(SysVars, DefaultsReadAsTheirTexts) {
  const struct {
    int Index;
    const char* sText;
  } aCases[] = {
      {VAR_RESET_MODE, "Reset & Halt"},
      {VAR_CONNECT_MODE, "Download & Reset Program"},
      {VAR_TIF_SPEED, "Auto Speed"},
      {VAR_TIF_SCAN_CHAIN_LEN, "0"},
      {VAR_SWO_SPEED, "auto"},
      {VAR_VERIFY_DOWNLOAD, "yes"},
      {VAR_BREAK_AT_THIS_SYMBOL, "main"},
      {VAR_HSS_SPEED, "1 kHz"},
      {VAR_TRACE_PORT_WIDTH, "4 bit"},
      {VAR_TRACE_PORT_DELAY_3, "0"},
      {VAR_TRACE_INIT_ON_ATTACH, "yes"},
      {PREF_SHOW_SYMBOL_ICONS, "no"},
      {PREF_LINE_NUMBER_FREQ, "All Lines"},
      {PREF_TAB_SPACING, "2"},
      {PREF_SHOW_TOOLTIPS, "yes"},
  };
  for (const auto& c : aCases) {
    EXPECT_EQ(GetVarText(Var(c.Index)), QLatin1String(c.sText)) << Var(c.Index)->sName;
  }
}

TEST_F(SysVars, TypeNames) {
  const struct {
    int Index;
    const char* sTypeName;
  } aCases[] = {
      {VAR_RESET_MODE, "string selection"}, {VAR_TIF_SCAN_CHAIN_LEN, "unsigned int"},
      {VAR_SWO_CPU_SPEED, "unsigned int"},  {VAR_TRACE_PORT_DELAY_0, "signed int"},
      {VAR_BREAK_AT_THIS_SYMBOL, "string"}, {PREF_SHOW_HEX_BLOCKS, "string selection"},
  };
  for (const auto& c : aCases) {
    EXPECT_STREQ(Var(c.Index)->pType->TypeName(), c.sTypeName) << Var(c.Index)->sName;
  }
}

TEST_F(SysVars, FindByNameOrNumber) {
  const struct {
    const char* sText;
    int Index;
  } aCases[] = {
      {"vAr_reset_mode", VAR_RESET_MODE},
      {"PREF_SHOW_TOOLTIPS", PREF_SHOW_TOOLTIPS},
      {"21", 21},
      {"0x15", 21},
      {"46", 46},
      {"47", -1},
      {"-1", -1},
      {"PREF_NOTHING", -1},
      {"", -1},
  };
  for (const auto& c : aCases) {
    EXPECT_EQ(GetVarIndex(FindVar(QString::fromLatin1(c.sText))), c.Index) << c.sText;
  }
}

TEST_F(SysVars, ConvertTextToValue) {
  const struct {
    int Index;
    const char* sText;
    bool Ok;
    I32 Value;
  } aCases[] = {
      {VAR_RESET_MODE, "RM_BREAK_AT_MAIN", true, 1},
      {VAR_RESET_MODE, "reset & run", true, 2},
      {VAR_RESET_MODE, "2", true, 2},
      {VAR_RESET_MODE, "3", false, 0},
      {VAR_RESET_MODE, "bogus", false, 0},
      {VAR_CONNECT_MODE, "CM_ATTACH", true, 1},
      {VAR_TIF_SPEED, "Adaptive Speed", true, 65535},
      {VAR_TIF_SPEED, "FREQ_4_MHZ", true, 4000000},
      {VAR_TIF_SPEED, "4 MHz", true, 4000000},
      {VAR_TIF_SPEED, "1234", false, 0},
      {VAR_ACCESS_WIDTH, "AW_WORD", true, 4},
      {VAR_ACCESS_WIDTH, "halfword", true, 2},
      {VAR_ACCESS_WIDTH, "3", false, 0},
      {VAR_TRACE_SOURCE, "SWO", true, 3},
      {VAR_TRACE_SOURCE, "TRACE_SOURCE_ETB", true, 2},
      {VAR_HSS_SPEED, "max", true, 0},
      {PREF_SHOW_TOOLTIPS, "yes", true, 1},
      {PREF_SHOW_TOOLTIPS, "NO", true, 0},
      {PREF_SHOW_TOOLTIPS, "ON", true, 1},
      {PREF_SHOW_TOOLTIPS, "true", true, 1},
      {PREF_SHOW_TOOLTIPS, "DISABLED", true, 0},
      {PREF_SHOW_TOOLTIPS, "maybe", false, 0},
      {PREF_SHOW_TOOLTIPS, "2", false, 0},
      {VAR_TIF_SCAN_CHAIN_LEN, "0x20", true, 32},
      {VAR_TIF_SCAN_CHAIN_LEN, "1000000001", false, 0},
      {VAR_TIF_SCAN_CHAIN_LEN, "-1", false, 0},
      {VAR_SWO_SPEED, "1.5 MHz", true, 1500000},
      {VAR_SWO_SPEED, "adaptive", true, 65535},
      {VAR_TRACE_PORT_DELAY_0, "-120", true, -120},
      {VAR_TRACE_PORT_DELAY_0, "-100001", false, 0},
      {VAR_BREAK_AT_THIS_SYMBOL, "main", false, 0},
  };
  for (const auto& c : aCases) {
    bool Ok = !c.Ok;
    const I32 Value = ConvertVarValue(Var(c.Index), QString::fromLatin1(c.sText), &Ok);
    EXPECT_EQ(Ok, c.Ok) << Var(c.Index)->sName << " " << c.sText;
    if (c.Ok) {
      EXPECT_EQ(Value, c.Value) << Var(c.Index)->sName << " " << c.sText;
    }
  }
}

TEST_F(SysVars, NumbersFromTextAreRangeCheckedBeforeTheyAreWritten) {
  const struct {
    int Index;
    const char* sText;
    int Result;
    I32 Value;           // the value afterwards
    const char* sError;  // null: not checked; the error text otherwise
  } aCases[] = {
      {VAR_TIF_SCAN_CHAIN_LEN, "42", 0, 42, nullptr},
      {VAR_TIF_SCAN_CHAIN_LEN, "0x10", 0, 16, nullptr},
      {VAR_TIF_SCAN_CHAIN_LEN, "1000000000", 0, 1000000000, nullptr},
      {VAR_TIF_SCAN_CHAIN_LEN, "1000000001", -1, 0,
       "Value 1000000001 is out of range (Min: 0, Max: 1000000000)"},
      {VAR_TIF_SCAN_CHAIN_LEN, "-1", -1, 0, nullptr},
      {VAR_TIF_SCAN_CHAIN_LEN, "abc", -1, 0, "invalid number \"abc\""},
      {VAR_TRACE_PORT_DELAY_1, "-100000", 0, -100000, nullptr},
      {VAR_TRACE_PORT_DELAY_1, "-0x10", 0, -16, nullptr},
      {VAR_TRACE_PORT_DELAY_1, "100001", -1, 0, "Value 100001 is out of range (Min: -100000, Max: 100000)"},
      {VAR_TRACE_PORT_DELAY_1, "-100001", -1, 0, "Value -100001 is out of range (Min: -100000, Max: 100000)"},
      {VAR_SWO_SPEED, "4 MHz", 0, 4000000, nullptr},
      {VAR_SWO_SPEED, "2000 MHz", 0, 2000000000, nullptr},
      {VAR_SWO_SPEED, "2001 MHz", -1, 0, "Value 2001000000 is out of range (Min: 0, Max: 2000000000)"},
      {VAR_SWO_SPEED, "3 GHz", -1, 0, "invalid frequency \"3 GHz\""},
  };
  for (const auto& c : aCases) {
    InitVars();
    EXPECT_EQ(SetVarFromText(Var(c.Index), QString::fromLatin1(c.sText), false), c.Result) << c.sText;
    EXPECT_EQ(GetVarValue(Var(c.Index)), c.Value) << c.sText;
    if (c.sError) {
      EXPECT_EQ(SysVarError(), QLatin1String(c.sError)) << c.sText;
    }
  }
}

TEST_F(SysVars, OutOfRangeValuesShowTheirMessage) {
  const struct {
    int Index;
    I32 Value;
    int Result;
    const char* sText;
  } aCases[] = {
      {VAR_TIF_SCAN_CHAIN_LEN, 7, 0, "7"},
      {VAR_TIF_SCAN_CHAIN_LEN, 1000000001, -1, "Value 1000000001 is out of range (Min: 0, Max: 1000000000)"},
      {VAR_TIF_SCAN_CHAIN_LEN, -1, -1, "Value 4294967295 is out of range (Min: 0, Max: 1000000000)"},
      {VAR_TRACE_PORT_DELAY_2, -50, 0, "-50"},
      {VAR_TRACE_PORT_DELAY_2, 100050, -1, "Value 100050 is out of range (Min: -100000, Max: 100000)"},
      {VAR_RESET_MODE, 1, 0, "Reset & Break At Symbol"},
  };
  for (const auto& c : aCases) {
    const SYS_VAR* pVar = Var(c.Index);
    char acText[128];
    EXPECT_EQ(pVar->pType->ToText(pVar, c.Value, acText, int(sizeof(acText))), c.Result) << c.Value;
    EXPECT_STREQ(acText, c.sText);
  }
  // A value outside a selection's list is shown as a frequency.
  EXPECT_EQ(GetVarText(Var(VAR_TIF_SPEED), 4000), QStringLiteral("4 kHz"));
  EXPECT_EQ(GetVarText(Var(VAR_TIF_SPEED), 65535), QStringLiteral("Adaptive Speed"));
}

TEST_F(SysVars, SelectionFromTextTakesLabelsThenTheGeneralRule) {
  SYS_VAR* pVar = Var(VAR_RESET_MODE);
  EXPECT_EQ(SetVarFromText(pVar, QStringLiteral("\"Reset & Run\""), true), 0);
  EXPECT_EQ(GetVarValue(pVar), 2);
  EXPECT_EQ(GetVarStoredValue(pVar), 2);
  EXPECT_EQ(SetVarFromText(pVar, QStringLiteral("RM_BREAK_AT_SYMBOL"), false), 0);
  EXPECT_EQ(GetVarValue(pVar), 1);
  EXPECT_EQ(GetVarStoredValue(pVar), 2);  // not stored: a change for this session only
  EXPECT_EQ(SetVarFromText(pVar, QStringLiteral("Reset & Sleep"), true), -1);
  EXPECT_EQ(GetVarValue(pVar), 1);
  EXPECT_TRUE(SysVarError().contains(QStringLiteral("Reset & Sleep")));
}

TEST_F(SysVars, TextRowTakesAtMostOneHundredCharacters) {
  SYS_VAR* pVar = Var(VAR_BREAK_AT_THIS_SYMBOL);
  ASSERT_TRUE(IsTextVar(pVar));
  const QString s100(100, QChar('a'));
  EXPECT_EQ(SetVarFromText(pVar, s100, true), 0);
  EXPECT_EQ(GetVarString(pVar), s100);
  EXPECT_EQ(SetVarFromText(pVar, QString(101, QChar('b')), true), -1);
  EXPECT_EQ(GetVarString(pVar), s100);
  EXPECT_EQ(SetVarFromText(pVar, QStringLiteral("Reset_Handler"), false), 0);
  EXPECT_EQ(GetVarText(pVar), QStringLiteral("Reset_Handler"));
  EXPECT_EQ(SetVar(pVar, 5, true), -1);
  InitVars();
  EXPECT_EQ(GetVarString(pVar), QStringLiteral("main"));
}

TEST_F(SysVars, BooleanRowsAreTheNoYesRows) {
  // The rows whose list is "no=0,yes=1".
  const QSet<int> NoYes = {2,  3,  11, 20, 21, 22, 23, 24, 25, 26, 27, 28, 30, 31,
                           32, 34, 35, 36, 37, 38, 39, 40, 41, 42, 43, 44, 45, 46};
  for (int i = 0; i < kNumSysVars; ++i) {
    EXPECT_EQ(IsBooleanVar(Var(i)), NoYes.contains(i)) << Var(i)->sName;
    if (NoYes.contains(i)) {
      EXPECT_EQ(GetVarLabels(Var(i)), QStringList({QStringLiteral("no"), QStringLiteral("yes")}));
      EXPECT_EQ(GetVarValues(Var(i)), QList<I32>({0, 1}));
    }
  }
}

TEST_F(SysVars, SelectionListsOfOtherShapes) {
  const struct {
    const char* sValues;
    bool Boolean;
    QList<I32> Values;
  } aCases[] = {
      {"Off=0,On=1", true, {0, 1}},
      {"disabled=0,ENABLED=1", true, {0, 1}},
      {"inactive=0x0,active=0x1", true, {0, 1}},
      {"enabled=1,maybe=0", false, {1, 0}},
      {"no=0,yes=1,ask=2", false, {0, 1, 2}},
      {"a= \t-3,b=0X10,c=junk", false, {-3, 16, 0}},  // an entry that doesn't convert counts 0
  };
  for (const auto& c : aCases) {
    SYS_VAR Row = *Var(PREF_SHOW_TOOLTIPS);
    Row.sValues = c.sValues;
    EXPECT_EQ(IsBooleanVar(&Row), c.Boolean) << c.sValues;
    EXPECT_EQ(GetVarValues(&Row), c.Values) << c.sValues;
  }
  SYS_VAR Row = *Var(PREF_SHOW_TOOLTIPS);
  const QByteArray Long = QByteArray(70, 'x') + "=1,y=2";
  Row.sValues = Long.constData();
  EXPECT_EQ(GetVarLabels(&Row).first().size(), kSysVarMaxLabel);
}

TEST_F(SysVars, RangesAndLabels) {
  EXPECT_EQ(GetVarRangeText(Var(VAR_TRACE_PORT_DELAY_0)), QStringLiteral("-100000 - 100000"));
  EXPECT_EQ(GetVarRangeText(Var(VAR_SWO_CPU_SPEED)), QStringLiteral("0 - 2000000000"));
  EXPECT_EQ(GetVarRangeText(Var(VAR_RESET_MODE)), QString());
  const QStringList Labels = GetVarLabels(Var(VAR_TIF_SPEED));
  const QList<I32> Values = GetVarValues(Var(VAR_TIF_SPEED));
  ASSERT_EQ(Labels.size(), 23);
  EXPECT_EQ(Labels[1], QStringLiteral("Adaptive Speed"));
  EXPECT_EQ(Values[1], 65535);
  EXPECT_EQ(Labels.last(), QStringLiteral("50 MHz"));
  EXPECT_EQ(Values.last(), 50000000);
}

TEST_F(SysVars, SetRowsAreRememberedUntilInit) {
  EXPECT_FALSE(IsVarSet(Var(VAR_MCT_ENABLED)));
  EXPECT_EQ(SetVar(Var(VAR_MCT_ENABLED), 1, false), 0);
  EXPECT_TRUE(IsVarSet(Var(VAR_MCT_ENABLED)));
  EXPECT_FALSE(IsVarSet(Var(VAR_SEMIHOSTING_ENABLED)));
  InitVars();
  EXPECT_FALSE(IsVarSet(Var(VAR_MCT_ENABLED)));
}

TEST_F(SysVars, DeviceFieldsShareTheirCells) {
  int Speed = 123, DRPre = 5, IRPre = 9;
  InitVars(&Speed, &DRPre, &IRPre);
  EXPECT_EQ(Speed, 0);  // defaults copied in
  EXPECT_EQ(SetVarFromText(Var(VAR_TIF_SPEED), QStringLiteral("4 MHz"), false), 0);
  EXPECT_EQ(Speed, 4000000);
  EXPECT_EQ(SetVar(Var(VAR_TIF_SCAN_CHAIN_POS), 3, false), 0);
  EXPECT_EQ(DRPre, 3);
  IRPre = 12;  // the device changes its field
  EXPECT_EQ(GetVarValue(Var(VAR_TIF_SCAN_CHAIN_LEN)), 12);
  InitVars();
}

TEST_F(SysVars, PreferencesLiveInTheStoreUnderTheirNames) {
  StoreClear();
  const QStringList Path = {QStringLiteral("AppData"), QStringLiteral("Preferences"),
                            QStringLiteral("Preferences")};
  EXPECT_EQ(SetVarFromText(Var(PREF_TAB_SPACING), QStringLiteral("4"), true), 0);
  EXPECT_EQ(SetVar(Var(PREF_SHOW_TOOLTIPS), 0, false), 0);  // a session value doesn't persist
  SavePreferences();
  EXPECT_EQ(LoadValue({}, QStringLiteral("AppData/Preferences/Preferences/PREF_TAB_SPACING")).toInt(), 4);
  EXPECT_EQ(LoadValue(Path, QStringLiteral("PREF_SHOW_TOOLTIPS")).toInt(), 1);
  EXPECT_FALSE(StoreContains(Path, QStringLiteral("VAR_RESET_MODE")));  // system variables belong to projects

  // Values the rows can't take leave the default.
  StoreValue(Path, QStringLiteral("PREF_LINE_NUMBER_FREQ"), QStringLiteral("abc"));
  StoreValue(Path, QStringLiteral("PREF_SHOW_SYMBOL_ICONS"), 9);
  InitVars();
  LoadPreferences();
  EXPECT_EQ(GetVarValue(Var(PREF_TAB_SPACING)), 4);
  EXPECT_EQ(GetVarStoredValue(Var(PREF_TAB_SPACING)), 4);
  EXPECT_EQ(GetVarValue(Var(PREF_LINE_NUMBER_FREQ)), 2);
  EXPECT_EQ(GetVarValue(Var(PREF_SHOW_SYMBOL_ICONS)), 0);
  StoreClear();
}
