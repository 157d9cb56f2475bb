// The settings rows through the Console path: the echo in canonical text, the errors that name the bad
// argument, the values they leave in the tables, and the device configuration jobs they file.
#include <gtest/gtest.h>

#include <QAction>
#include <QFile>
#include <QSettings>
#include <QTemporaryDir>

#include "app/BatchMode.h"
#include "app/MainWindow.h"
#include "app/SettingsCommands.h"
#include "app/actions/ActionTable.h"
#include "app/base/ConsoleCore.h"
#include "app/base/tests/QtPrinters.h"
#include "app/tables/SettingsStore.h"
#include "app/tables/SettingsTables.h"
#include "device/Device.h"
#include "device/DeviceEventListener.h"
#include "device/tests/FakeProbe.h"

namespace {

// Hears what reaches the device: configuration parameters as "param=value", trace commands as text.
struct DEVICE_RECORDER : CDeviceEventListener {
  QStringList Config;
  QStringList Commands;
  int DisableTrace = 0;
  void OnDeviceSetConfigValueDone(int Param, int Value) override {
    Config << QString("%1=%2").arg(Param).arg(Value);
  }
  void OnDeviceSetConfigValueFailed(int Param, int Value) override {
    OnDeviceSetConfigValueDone(Param, Value);
  }
  void OnDeviceSetConfigTextDone(int Param, const char* s) override {
    Config << QString("%1=\"%2\"").arg(Param).arg(s);
  }
  void OnDeviceSetConfigTextFailed(int Param, const char* s) override { OnDeviceSetConfigTextDone(Param, s); }
  void OnDeviceExecCmdDone(const char* s) override { Commands << s; }
  void OnDeviceDisableSimpleTraceDone() override { ++DisableTrace; }
  void OnDeviceDisableSimpleTraceFailed() override { ++DisableTrace; }
};

I32 VarValue(const char* sName) {
  return GetVarValue(FindVar(sName));
}

class SettingsCommands : public ::testing::Test {
 protected:
  void SetUp() override {
    // The window loads the store at start: it must not see the user's own settings.
    ASSERT_TRUE(ConfigDir.isValid());
    qputenv("XDG_CONFIG_HOME", ConfigDir.path().toUtf8());
    QSettings::setPath(QSettings::NativeFormat, QSettings::UserScope, ConfigDir.path());
    ResetFake();
    SetTarvikApi(&FakeProbeApi());
    pWindow = new CMainWindow(true);
    pHandlers = pWindow->GetSettingsCommands();
    ConsoleClearRing();
    ConsoleSetMirror([this](const QString& s) { Output << s; });
  }
  void TearDown() override {
    ConsoleSetMirror({});
    Fake().Release();
    delete pWindow;
    delete CDevice::Instance();
    SetTarvikApi(nullptr);
    // Commands change the session's values; the next test starts from the built-in ones.
    InitVars();
    for (int Id = 0; Id < kNumColors; ++Id) {
      ResetColor(Id);
    }
    ResetFonts();
    StoreClear();
  }
  QStringList Run(const QStringList& Lines) {
    Output.clear();
    RunBatchLines(Lines, 30);
    return Output;
  }

  QTemporaryDir ConfigDir;
  CMainWindow* pWindow = nullptr;
  CSettingsCommands* pHandlers = nullptr;
  QStringList Output;
  DEVICE_RECORDER Recorder;
};

struct ECHO_CASE {
  const char* sLine;
  QStringList Expected;  // the console lines
  const char* sVar;      // a variable the line sets, or null
  I32 Value;
};

}  // namespace

TEST_F(SettingsCommands, VariableRowsEchoCanonicalTextAndSetTheValue) {
  const ECHO_CASE aCase[] = {
      {"Edit.SysVar (VAR_CONNECT_MODE, CM_ATTACH)",
       {"Edit.SysVar (VAR_CONNECT_MODE, CM_ATTACH);"},
       "VAR_CONNECT_MODE",
       1},
      {"Edit.SysVar 1 \"Attach & Halt Program\"",
       {"Edit.SysVar (VAR_CONNECT_MODE, CM_ATTACH_HALT);"},
       "VAR_CONNECT_MODE",
       2},
      {"Edit.SysVar(\"VAR_RESET_MODE\", \"RM_BREAK_AT_MAIN\")",
       {"Edit.SysVar (VAR_RESET_MODE, RM_BREAK_AT_SYMBOL);"},
       "VAR_RESET_MODE",
       1},
      {"edit.sysvar (var_tif_speed, 4 MHz)",
       {"Edit.SysVar (VAR_TIF_SPEED, FREQ_4_MHZ);"},
       "VAR_TIF_SPEED",
       4000000},
      {"Edit.SysVar (VAR_TRACE_PORT_DELAY_0, 120)",
       {"Edit.SysVar (VAR_TRACE_PORT_DELAY_0, 100);"},
       "VAR_TRACE_PORT_DELAY_0",
       100},
      {"Edit.SysVar (VAR_TRACE_PORT_DELAY_1, -120)",
       {"Edit.SysVar (VAR_TRACE_PORT_DELAY_1, -100);"},
       "VAR_TRACE_PORT_DELAY_1",
       -100},
      {"Edit.SysVar (VAR_BREAK_AT_THIS_SYMBOL, start)",
       {"Edit.SysVar (VAR_BREAK_AT_THIS_SYMBOL, start);"},
       nullptr,
       0},
      {"Edit.Preference (PREF_SHOW_LINE_NUMBERS, no)",
       {"Edit.Preference (PREF_SHOW_LINE_NUMBERS, 0);"},
       "PREF_SHOW_LINE_NUMBERS",
       0},
      {"Edit.Preference (29, \"Every 5 Lines\")",
       {"Edit.Preference (PREF_LINE_NUMBER_FREQ, Every 5 Lines);"},
       "PREF_LINE_NUMBER_FREQ",
       3},
      {"Debug.SetResetMode (\"Reset & Run\")",
       {"Debug.SetResetMode (RM_RESET_AND_RUN);"},
       "VAR_RESET_MODE",
       2},
      {"Debug.SetConnectMode 2", {"Debug.SetConnectMode (CM_ATTACH_HALT);"}, "VAR_CONNECT_MODE", 2},
      {"Project.SetTIFSpeed (\"1,5 MHz\")", {"Project.SetTIFSpeed (\"1500000\");"}, "VAR_TIF_SPEED", 1500000},
      {"Project.SetTIFScanChain (2, 5)", {"Project.SetTIFScanChain (2, 5);"}, "VAR_TIF_SCAN_CHAIN_LEN", 5},
      {"Project.ConfigSWO (\"2 MHz\", \"72 MHz\")",
       {"Project.ConfigSWO (\"2000000\", \"72000000\");"},
       "VAR_SWO_CPU_SPEED",
       72000000},
      {"Project.SetSemihosting (yes)", {"Project.SetSemihosting (1);"}, "VAR_SEMIHOSTING_ENABLED", 1},
      {"Project.SetMCT (off)", {"Project.SetMCT (0);"}, "VAR_MCT_ENABLED", 0},
      {"Project.SetBPType (Software)", {"Project.SetBPType (BP_TYPE_SOFT);"}, "VAR_BREAKPOINT_TYPE", 2},
      {"Project.SetTraceSource (\"Trace Pins\")",
       {"Project.SetTraceSource (\"TRACE_SOURCE_ETM\");"},
       "VAR_TRACE_SOURCE",
       1},
      {"Project.SetTracePortWidth (2)", {"Project.SetTracePortWidth (2);"}, "VAR_TRACE_PORT_WIDTH", 2},
      {"Project.SetTraceTiming (120, -120, 0, 49)",
       {"Project.SetTraceTiming (100, -100, 0, 0);"},
       "VAR_TRACE_PORT_DELAY_0",
       100},
      {"Target.SetAccessWidth (Word)", {"Target.SetAccessWidth (AW_WORD);"}, "VAR_ACCESS_WIDTH", 4},
  };
  for (const ECHO_CASE& c : aCase) {
    EXPECT_EQ(Run({c.sLine}), c.Expected) << c.sLine;
    if (c.sVar) {
      EXPECT_EQ(VarValue(c.sVar), c.Value) << c.sLine;
    }
  }
  EXPECT_EQ(GetVarString(FindVar("VAR_BREAK_AT_THIS_SYMBOL")), QString("start"));
}

TEST_F(SettingsCommands, RefusedArgumentsAreNamedAndChangeNothing) {
  const QString sLong(101, 'x');
  const ECHO_CASE aCase[] = {
      {"Edit.Preference 5 1",
       {"Edit.Preference (5, 1);", "Edit.Preference (5, 1): unknown preference: 5"},
       nullptr,
       0},
      {"Edit.Preference (VAR_RESET_MODE, 1)",
       {"Edit.Preference (VAR_RESET_MODE, 1);",
        "Edit.Preference (VAR_RESET_MODE, 1): unknown preference: VAR_RESET_MODE"},
       "VAR_RESET_MODE",
       0},
      {"Edit.SysVar (VAR_NOTHING, 1)",
       {"Edit.SysVar (VAR_NOTHING, 1);",
        "Edit.SysVar (VAR_NOTHING, 1): unknown system variable: VAR_NOTHING"},
       nullptr,
       0},
      {"Edit.SysVar (VAR_CONNECT_MODE, CM_NOWHERE)",
       {"Edit.SysVar (VAR_CONNECT_MODE, CM_NOWHERE);",
        "Edit.SysVar (VAR_CONNECT_MODE, CM_NOWHERE): invalid parameter: CM_NOWHERE"},
       "VAR_CONNECT_MODE",
       0},
      {"Edit.SysVar (VAR_CONNECT_MODE)",
       {"Edit.SysVar (VAR_CONNECT_MODE);", "Edit.SysVar (VAR_CONNECT_MODE): wrong parameter count"},
       "VAR_CONNECT_MODE",
       0},
      {"Edit.Preference (PREF_TAB_SPACING, 9)",
       {"Edit.Preference (PREF_TAB_SPACING, 9);",
        "Edit.Preference (PREF_TAB_SPACING, 9): invalid parameter: 9"},
       "PREF_TAB_SPACING",
       2},
      {"Debug.SetResetMode (7)",
       {"Debug.SetResetMode (7);", "Debug.SetResetMode (7): invalid parameter: 7"},
       "VAR_RESET_MODE",
       0},
      {"Project.SetTIFSpeed (fast)",
       {"Project.SetTIFSpeed (\"fast\");", "Project.SetTIFSpeed (\"fast\"): invalid parameter: fast"},
       "VAR_TIF_SPEED",
       0},
      // The first argument is good, the second isn't: neither is written.
      {"Project.SetTIFScanChain (3, -1)",
       {"Project.SetTIFScanChain (3, -1);", "Project.SetTIFScanChain (3, -1): invalid parameter: -1"},
       "VAR_TIF_SCAN_CHAIN_POS",
       0},
      {"Project.SetTracePortWidth (3)",
       {"Project.SetTracePortWidth (3);", "Project.SetTracePortWidth (3): invalid parameter: 3"},
       "VAR_TRACE_PORT_WIDTH",
       4},
      {"Project.SetHostIF (USB, abc)",
       {"Project.SetHostIF (\"USB\", \"abc\");",
        "Project.SetHostIF (\"USB\", \"abc\"): invalid parameter: abc"},
       nullptr,
       0},
      {"Project.SetTargetIF (UART)",
       {"Project.SetTargetIF (\"UART\");", "Project.SetTargetIF (\"UART\"): invalid parameter: UART"},
       nullptr,
       0},
      {"Target.SetEndianess (maybe)",
       {"Target.SetEndianess (maybe);", "Target.SetEndianess (maybe): invalid parameter: maybe"},
       nullptr,
       0},
  };
  for (const ECHO_CASE& c : aCase) {
    EXPECT_EQ(Run({c.sLine}), c.Expected) << c.sLine;
    if (c.sVar) {
      EXPECT_EQ(VarValue(c.sVar), c.Value) << c.sLine;
    }
  }
  const QString sLine = "Edit.SysVar (VAR_BREAK_AT_THIS_SYMBOL, " + sLong + ")";
  EXPECT_EQ(Run({sLine}).value(1),
            "Edit.SysVar (VAR_BREAK_AT_THIS_SYMBOL, " + sLong + "): invalid parameter: " + sLong);
  EXPECT_EQ(GetVarString(FindVar("VAR_BREAK_AT_THIS_SYMBOL")), QString("main"));
  Recorder.Config.clear();
  Run({"Project.SetHostIF (USB, abc)", "Project.SetTargetIF (UART)"});
  EXPECT_TRUE(Recorder.Config.isEmpty()) << Recorder.Config.join(' ').toStdString();
}

TEST_F(SettingsCommands, EveryRowRefusesTooManyArguments) {
  const char* const aName[] = {"Edit.Preference",
                               "Edit.SysVar",
                               "Edit.Color",
                               "Edit.Font",
                               "Debug.SetResetMode",
                               "Debug.SetConnectMode",
                               "Debug.SetSteppingMode",
                               "Project.SetDevice",
                               "Project.SetTarvikScript",
                               "Project.SetTarvikLogFile",
                               "Project.SetHostIF",
                               "Project.SetTargetIF",
                               "Project.SetTIFSpeed",
                               "Project.SetTIFScanChain",
                               "Project.ConfigSWO",
                               "Project.SetSemihosting",
                               "Project.SetMCT",
                               "Project.SetBPType",
                               "Project.SetTraceSource",
                               "Project.SetTracePortWidth",
                               "Project.SetTraceTiming",
                               "Target.SetAccessWidth",
                               "Target.SetEndianess"};
  for (const char* sName : aName) {
    const QStringList Lines = Run({QString(sName) + " (1, 2, 3, 4, 5)"});
    ASSERT_EQ(Lines.size(), 2) << sName;
    EXPECT_TRUE(Lines[0].startsWith(QString(sName) + " (")) << sName;
    EXPECT_TRUE(Lines[1].endsWith("): wrong parameter count")) << Lines[1].toStdString();
  }
}

TEST_F(SettingsCommands, ColorAndFontRowsEchoTheirCanonicalForm) {
  const ECHO_CASE aCase[] = {
      {"Edit.Color (COLOR_PC_ACTIVE, \"#FF0000\")",
       {"Edit.Color (COLOR_PC_ACTIVE, \"0xFFFF0000\");"},
       nullptr,
       0},
      {"Edit.Color (\"Callsite Row Active\", 0x8000FF00)",
       {"Edit.Color (COLOR_CALL_SITE_ACTIVE, \"0x8000FF00\");"},
       nullptr,
       0},
      {"Edit.Color (COLOR_NOWHERE, red)",
       {"Edit.Color (COLOR_NOWHERE, \"red\");",
        "Edit.Color (COLOR_NOWHERE, \"red\"): unknown color: COLOR_NOWHERE"},
       nullptr,
       0},
      {"Edit.Color (COLOR_PC_ACTIVE, reddish)",
       {"Edit.Color (COLOR_PC_ACTIVE, \"reddish\");",
        "Edit.Color (COLOR_PC_ACTIVE, \"reddish\"): invalid parameter: reddish"},
       nullptr,
       0},
      {"Edit.Font (FONT_CONSOLE, \"Arial,  9pt,  Bold\")",
       {"Edit.Font (FONT_CONSOLE, \"Arial,  9pt,  Bold\");"},
       nullptr,
       0},
      {"Edit.Font (FONT_CONSOLE, \"Arial, 9\")",
       {"Edit.Font (FONT_CONSOLE, \"Arial, 9\");",
        "Edit.Font (FONT_CONSOLE, \"Arial, 9\"): invalid parameter: Arial, 9"},
       nullptr,
       0},
      {"Edit.Font (FONT_CONSOLE, \"Arial, 60pt, Bold\")",
       {"Edit.Font (FONT_CONSOLE, \"Arial, 60pt, Bold\");",
        "Edit.Font (FONT_CONSOLE, \"Arial, 60pt, Bold\"): invalid parameter: Arial, 60pt, Bold"},
       nullptr,
       0},
      {"Edit.Font (FONT_NOWHERE, \"Arial,  9pt,  Bold\")",
       {"Edit.Font (FONT_NOWHERE, \"Arial,  9pt,  Bold\");",
        "Edit.Font (FONT_NOWHERE, \"Arial,  9pt,  Bold\"): unknown font: FONT_NOWHERE"},
       nullptr,
       0},
  };
  for (const ECHO_CASE& c : aCase) {
    EXPECT_EQ(Run({c.sLine}), c.Expected) << c.sLine;
  }
  EXPECT_EQ(GetColor(COLOR_PC_ACTIVE), QColor(255, 0, 0));
  EXPECT_EQ(GetColor(COLOR_CALL_SITE_ACTIVE).rgba(), 0x8000FF00u);
  EXPECT_EQ(GetStoredColor(COLOR_PC_ACTIVE).rgba(), 0xFF77FF6Du);  // a command doesn't persist
  EXPECT_EQ(GetFont(FONT_CONSOLE).pointSize(), 9);
  EXPECT_TRUE(GetFont(FONT_CONSOLE).bold());
}

TEST_F(SettingsCommands, AnAliasFindsItsRowAndTheEchoShowsTheRowsName) {
  EXPECT_EQ(Run({"Window.SetNumberBase (Watch, DISPLAY_FORMAT_HEX)"}),
            QStringList({"Window.SetDisplayFormat (\"Watch\", DISPLAY_FORMAT_HEX);",
                         "Window.SetDisplayFormat (\"Watch\", DISPLAY_FORMAT_HEX): not available"}));
}

TEST_F(SettingsCommands, ProjectRowsFileTheDeviceConfiguration) {
  struct CONFIG_CASE {
    const char* sLine;
    QStringList Config;
  };
  const CONFIG_CASE aCase[] = {
      {"Project.SetDevice (\"STM32F407VG\")", {"17=\"STM32F407VG\""}},
      {"Project.SetTarvikScript (\"$(ProjectDir)/init.tarvik\")", {"18=\"$(ProjectDir)/init.tarvik\""}},
      {"Project.SetTarvikLogFile (\"\")", {"19=\"\""}},
      {"Project.SetHostIF (usb, 123)", {"4=1", "2=123", "3=1"}},
      {"Project.SetHostIF (USB)", {"4=1", "3=0"}},
      {"Project.SetHostIF (IP, \"10.0.0.2\")", {"4=2", "16=\"10.0.0.2\""}},
      {"Project.SetTargetIF (swd)", {"5=1"}},
      {"Project.SetTIFSpeed (\"4 MHz\")", {"6=4000000"}},
      {"Edit.SysVar (VAR_TIF_SPEED, adaptive)", {"6=65535"}},
      {"Project.SetTIFScanChain (2, 5)", {"10=2", "11=5"}},
      {"Target.SetEndianess (yes)", {"9=1"}},
      {"Debug.SetSteppingMode (3)", {"13=3"}},
  };
  for (const CONFIG_CASE& c : aCase) {
    Recorder.Config.clear();
    Run({c.sLine});
    EXPECT_EQ(Recorder.Config, c.Config) << c.sLine;
  }
  EXPECT_EQ(Run({"Project.SetHostIF (usb, 123)"}), QStringList({"Project.SetHostIF (\"USB\", \"123\");"}));
}

TEST_F(SettingsCommands, TraceChangesReachTheDevice) {
  Run({"Project.SetTraceSource (TRACE_SOURCE_ETM)", "Project.SetTraceSource (TRACE_SOURCE_SWO)"});
  EXPECT_EQ(Recorder.DisableTrace, 0);
  Run({"Project.SetTraceSource (TRACE_SOURCE_ETM)", "Project.SetTraceSource (\"Trace Buffer\")"});
  EXPECT_EQ(Recorder.DisableTrace, 1);  // only the change between pins and buffer
  CDevice* pDevice = CDevice::Instance();
  ASSERT_EQ(pDevice->ScheduleConnect(CM_ATTACH_HALT), 0);
  pDevice->WaitForJobThenPump(JT_CONNECT, true);
  ASSERT_TRUE(pDevice->IsConnected());
  Run({"Project.SetTraceTiming (120, -120, 0, 40)", "Project.SetTracePortWidth (1)",
       "Edit.SysVar (VAR_TRACE_PORT_DELAY_0, 0)"});
  // Each delay change sends the set; with a width of 1 only the first line counts.
  ASSERT_GE(Recorder.Commands.size(), 2);
  EXPECT_EQ(Recorder.Commands.first(), "TraceSampleAdjust TD0 = 100 TD1 = -100 TD2 = 0 TD3 = 0");
  EXPECT_EQ(Recorder.Commands.last(), "TraceSampleAdjust TD = 0");
}

TEST_F(SettingsCommands, CommandsLastForTheSessionAndAnnounceTheChange) {
  QList<QList<int>> Spy;
  QObject::connect(pHandlers, &CSettingsCommands::SettingChanged, pHandlers,
                   [&Spy](int Kind, int Id, int Value) {
                     Spy.append({Kind, Id, Value});
                   });
  Run({"Edit.Preference (PREF_SHOW_TOOLTIPS, no)", "Edit.Font (FONT_APP, \"Arial,  9pt,  Normal\")",
       "Edit.SysVar (VAR_HSS_SPEED, max)"});
  EXPECT_EQ(VarValue("PREF_SHOW_TOOLTIPS"), 0);
  EXPECT_EQ(GetVarStoredValue(FindVar("PREF_SHOW_TOOLTIPS")), 1);
  ASSERT_EQ(Spy.size(), 1 + kNumFonts + 1);
  EXPECT_EQ(Spy[0], QList<int>({SETTING_KIND_PREFERENCE, int(PREF_SHOW_TOOLTIPS), 0}));
  EXPECT_EQ(Spy[1], QList<int>({SETTING_KIND_FONT, int(FONT_APP), 0}));
  EXPECT_EQ(Spy.last(), QList<int>({SETTING_KIND_SYSVAR, int(VAR_HSS_SPEED), 0}));
}

TEST_F(SettingsCommands, AStoredPreferenceSurvivesARestart) {
  // The dialog's path: the tables with the store flag, then the exit sequence writes the store out.
  SYS_VAR* pVar = FindVar("PREF_TAB_SPACING");
  ASSERT_EQ(SetVar(pVar, 6, true), 0);
  SavePreferences();
  ASSERT_EQ(SaveStore(), 0);
  InitVars();
  StoreClear();
  ASSERT_EQ(GetVarValue(pVar), 2);
  ASSERT_EQ(LoadStore(), 0);
  LoadPreferences();
  EXPECT_EQ(GetVarValue(pVar), 6);
  EXPECT_EQ(GetVarStoredValue(pVar), 6);
  EXPECT_TRUE(QFile::exists(ConfigDir.filePath("Quorin/Zevra.conf")));
}
