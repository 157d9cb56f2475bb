// The project script inside the application: loading and its errors, event functions by ID, the API of
// the action table as a script sees it, stand-alone script files, and a script that drives the
// built-in simulated target through the device queue.
#include <gtest/gtest.h>

#include <QAction>
#include <QFile>
#include <QTemporaryDir>
#include <functional>

#include "app/MainWindow.h"
#include "app/actions/ActionTable.h"
#include "app/base/ConsoleCore.h"
#include "app/base/tests/QtPrinters.h"
#include "app/tables/SettingsTables.h"
#include "device/Device.h"
#include "device/DeviceEvents.h"
#include "device/probe/ProbeCore.h"
#include "device/probe/TarvikApi.h"
#include "script/ScriptBinding.h"
#include "script/ZvScript.h"

namespace {

int RowOf(const char* sName) {
  for (int Id = 0; Id < kNumActions; ++Id) {
    if (GetFunctionName(Id) == QLatin1String(sName)) {
      return Id;
    }
  }
  return -1;
}

// The application as batch mode has it: the main window without showing it, the built-in probe layer
// (the simulated target), and the Console captured line by line.
class ZvScriptApp : public ::testing::Test {
 protected:
  void SetUp() override {
    PROBE_ResetLayer();
    SetTarvikApi(&TARVIK_GetProbeLayerApi());
    pWindow = new CMainWindow(true);
    ConsoleClearRing();
    ConsoleSetMirror([this](const QString& s) { Output << s; });
  }
  void TearDown() override {
    ScriptClose();
    ConsoleSetMirror({});
    delete pWindow;
    delete CDevice::Instance();  // the next test starts with a fresh device thread
    DispatchDeviceEvents(int(kEventRingSize));
    PROBE_ResetLayer();
    SetTarvikApi(nullptr);
  }

  QString WriteFile(const QString& sName, const QString& sText) {
    QString sPath = Dir.filePath(sName);
    QFile File(sPath);
    EXPECT_TRUE(File.open(QIODevice::WriteOnly));
    File.write(sText.toUtf8());
    return sPath;
  }
  // The lines of the Console that aren't the echo of a command.
  QStringList Printed() const {
    QStringList Lines;
    for (const QString& s : Output) {
      if (!s.endsWith(");")) {
        Lines << s;
      }
    }
    return Lines;
  }
  // Runs Hook inside the handler of Util.Sleep, in the middle of a script's call.
  void HookUtilSleep(std::function<void()> Hook) {
    QObject::connect(GetAction(RowOf("Util.Sleep")), &QAction::triggered, pWindow, std::move(Hook));
  }

  CMainWindow* pWindow = nullptr;
  QStringList Output;
  QTemporaryDir Dir;
};

}  // namespace

// ---------------------------------------------------------------------------------------------------
// Loading

TEST_F(ZvScriptApp, ProjectFilesThatCannotRunReportWhyWithTheirLine) {
  struct CASE {
    const char* sWhat;
    const char* sText;  // null: no file at all
    QString sError;
    QString sSource;
  } aCase[] = {
      {"missing file", nullptr, "file not found", ""},
      {"comment only", "// nothing here yet\n", "Required user function missing: void OnProjectLoad (void);",
       ""},
      {"empty file", "", "empty file", ""},
      {"unknown word at top level", "void OnProjectLoad (void) {\n}\n\nfoo bar;\n", "Syntax error at line 4",
       "foo bar"},
      {"body never closed", "void OnProjectLoad (void) {\n  Util.Log(\"x\");\n",
       "Unexpected end of file looking for '}' at line 3", ""},
  };
  for (const CASE& c : aCase) {
    QString sPath = c.sText ? WriteFile("project.zvproj", c.sText) : Dir.filePath("absent.zvproj");
    EXPECT_EQ(ScriptLoadFile(sPath), -1) << c.sWhat;
    EXPECT_TRUE(ScriptHasError()) << c.sWhat;
    EXPECT_EQ(ScriptGetError(), c.sError) << c.sWhat;
    EXPECT_EQ(ScriptGetErrorSource(), c.sSource) << c.sWhat;
    EXPECT_FALSE(HasEvent(SF_PROJECT_LOAD)) << c.sWhat;
    EXPECT_EQ(ScriptExec(SF_PROJECT_LOAD), -1) << c.sWhat;
  }
}

TEST_F(ZvScriptApp, ConstantsAndSettingNamesCarryTheirTableValues) {
  ASSERT_EQ(ScriptLoadText(
                "void OnProjectLoad (void) {\n"
                "  if (RM_BREAK_AT_MAIN == RM_BREAK_AT_SYMBOL && RM_BREAK_AT_MAIN == 1) {\n"
                "    Util.Log(\"alias\"); }\n"
                "  if (CM_ATTACH_HALT == 2 && FREQ_1_MHZ == 1000000 && FREQ_ADAPTIVE == 65535) {\n"
                "    Util.Log(\"constants\"); }\n"
                "  if (ISR_EXTERNAL_IRQ == 16 && DF_POWER_PC == 16 && MODE_ABT == 23) {\n"
                "    Util.Log(\"families\"); }\n"
                "  if (VAR_RESET_MODE == 0 && VAR_BREAK_AT_THIS_SYMBOL == 12 && PREF_SHOW_TOOLTIPS == 46) {\n"
                "    Util.Log(\"variables\"); }\n"
                "  if (COLOR_LOGGING_ERROR == 28 && COLOR_INLINE_ASM_BACKG_ALTERNATE == 44) {\n"
                "    Util.Log(\"colours\"); }\n"
                "  if (FONT_APP == 0 && FONT_CONSOLE == 8 && FONT_EXEC_COUNTERS == 10) {\n"
                "    Util.Log(\"fonts\"); }\n"
                "}\n"),
            0);
  EXPECT_EQ(ScriptExec(SF_PROJECT_LOAD), 0);
  EXPECT_EQ(Printed(), QStringList({"alias", "constants", "families", "variables", "colours", "fonts"}));
}

TEST_F(ZvScriptApp, EveryPrototypeOfTheActionTableAndEveryAliasIsCallable) {
  ASSERT_EQ(ScriptLoadText("void OnProjectLoad (void) { }\n"), 0);
  QMap<QString, int> Registered;
  for (const SCRIPT_API_ENTRY& e : ScriptGetRegisteredApi()) {
    Registered.insert(e.sName, e.RowId);
  }
  for (int Id = 0; Id < kNumActions; ++Id) {
    if (!g_aActions[Id].sPrototype.isEmpty()) {
      EXPECT_EQ(Registered.value(GetFunctionName(Id), -1), Id) << g_aActions[Id].sPrototype.toStdString();
    }
  }
  // Both names of each alias pair reach the same row.
  for (const ACTION_ALIAS& Pair : g_aActionAliases) {
    EXPECT_TRUE(Registered.contains(Pair.sName)) << Pair.sName;
    EXPECT_EQ(Registered.value(Pair.sName), Registered.value(Pair.sAlias)) << Pair.sName;
  }
}

// ---------------------------------------------------------------------------------------------------
// Event functions

TEST_F(ZvScriptApp, EventFunctionsRunByIdAndTheLookupRefusesWhatHasNoRow) {
  ASSERT_EQ(ScriptLoadText("void OnProjectLoad (void) { Util.Log(\"load\"); }\n"
                           "void AfterTargetHalt (void) { Util.Log(\"halt\"); }\n"),
            0);
  struct CASE {
    int Id;
    bool Exists;
    int Result;
    QStringList Printed;
  } aCase[] = {
      {SF_PROJECT_LOAD, true, 0, {"load"}},
      {SF_AFTER_TARGET_HALT, true, 0, {"halt"}},
      {SF_TARGET_CONNECT, false, -2, {}},  // a known event that the script doesn't define
      {0, false, -1, {}},                  // no row of that ID
      {16, false, 0, {}},                  // beyond the table
  };
  for (const CASE& c : aCase) {
    Output.clear();
    EXPECT_EQ(HasEvent(c.Id), c.Exists) << c.Id;
    EXPECT_EQ(ScriptExec(c.Id), c.Result) << c.Id;
    EXPECT_EQ(Printed(), c.Printed) << c.Id;
  }
  EXPECT_EQ(ScriptGetFunctionName(SF_BEFORE_TARGET_RESUME), "BeforeTargetResume");
  EXPECT_EQ(ScriptCallLevel(), 0);
  EXPECT_EQ(ScriptCurrentFunction(), -1);
}

TEST_F(ZvScriptApp, ARunTimeErrorIsPrintedOnceAndStopsLaterEvents) {
  ASSERT_EQ(ScriptLoadText("void OnProjectLoad (void) {\n"
                           "  int a[2];\n"
                           "  a[2] = 1;\n"
                           "  Util.Log(\"not reached\");\n"
                           "}\n"
                           "void AfterTargetHalt (void) { Util.Log(\"halt\"); }\n"),
            0);
  EXPECT_EQ(RunEvent(SF_PROJECT_LOAD), -1);
  EXPECT_EQ(Output, QStringList({"Error in project file: Array index out of range at line 3"}));
  EXPECT_EQ(ScriptGetErrorSource(), "  a[2] = 1");
  Output.clear();
  EXPECT_FALSE(HasEvent(SF_AFTER_TARGET_HALT));
  EXPECT_EQ(RunEvent(SF_AFTER_TARGET_HALT), -1);
  EXPECT_TRUE(Output.isEmpty());
  // A new load clears the error.
  ASSERT_EQ(ScriptLoadText("void AfterTargetHalt (void) { Util.Log(\"halt\"); }\n"), 0);
  EXPECT_EQ(RunEvent(SF_AFTER_TARGET_HALT), 0);
  EXPECT_EQ(Printed(), QStringList({"halt"}));
  // A division by zero names the event function by its prototype, not a line.
  ASSERT_EQ(ScriptLoadText("void AfterTargetHalt (void) {\n  int x;\n  x = 0;\n  x = 5 / x;\n}\n"), 0);
  Output.clear();
  EXPECT_EQ(RunEvent(SF_AFTER_TARGET_HALT), -1);
  EXPECT_EQ(Output,
            QStringList({"Error in project file: Error in script function void AfterTargetHalt (void);"}));
  EXPECT_EQ(ScriptGetErrorLine(), -1);
}

TEST_F(ZvScriptApp, ANewProjectHasNoFileToReload) {
  ASSERT_EQ(ScriptLoadText("void OnProjectLoad (void) { }\n"), 0);
  EXPECT_EQ(ScriptReloadIfChanged(), 0);
  EXPECT_FALSE(ScriptHasError()) << ScriptGetError().toStdString();
  EXPECT_TRUE(HasEvent(SF_PROJECT_LOAD));
  // A saved project that changes on disk is loaded anew.
  const QString sPath = WriteFile("saved.zvproj", "void OnProjectLoad (void) { }\n");
  ASSERT_EQ(ScriptLoadFile(sPath), 0);
  EXPECT_EQ(ScriptReloadIfChanged(), 0);
  WriteFile("saved.zvproj", "void OnProjectLoad (void) { }\nvoid AfterTargetHalt (void) { }\n");
  EXPECT_EQ(ScriptReloadIfChanged(), 1);
  EXPECT_TRUE(HasEvent(SF_AFTER_TARGET_HALT));
}

TEST_F(ZvScriptApp, AnEventRaisedInsideAScriptCallNestsAndTheNestingIsBounded) {
  ASSERT_EQ(ScriptLoadText("void OnProjectLoad (void) { Util.Sleep(0); Util.Log(\"outer done\"); }\n"
                           "void AfterTargetHalt (void) { Util.Log(\"inner\"); }\n"
                           "void BeforeTargetResume (void) { Util.Sleep(0); }\n"),
            0);
  int Level = -1;
  int Current = -1;
  int Raise = SF_AFTER_TARGET_HALT;
  HookUtilSleep([&] {
    Level = ScriptCallLevel();
    Current = ScriptCurrentFunction();
    RunEvent(Raise);
  });
  EXPECT_EQ(RunEvent(SF_PROJECT_LOAD), 0);
  EXPECT_EQ(Level, 1);
  EXPECT_EQ(Current, SF_PROJECT_LOAD);
  EXPECT_EQ(Printed(), QStringList({"inner", "outer done"}));
  EXPECT_EQ(ScriptCurrentFunction(), -1);

  // An event function whose API call raises itself: eleven levels run, the twelfth is refused.
  Output.clear();
  Raise = SF_BEFORE_TARGET_RESUME;
  EXPECT_EQ(RunEvent(SF_BEFORE_TARGET_RESUME), 0);
  EXPECT_EQ(Output.filter("maximum call level").size(), 1);
  EXPECT_TRUE(
      Output.contains("Error executing script function \"BeforeTargetResume\": maximum call level reached."));
  EXPECT_EQ(ScriptCallLevel(), 0);
}

TEST_F(ZvScriptApp, ALoadOrCloseDuringARunWaitsUntilTheRunHasEnded) {
  ASSERT_EQ(ScriptLoadText("void OnProjectLoad (void) {\n"
                           "  Util.Sleep(0);\n"
                           "  Util.Log(\"after the request\");\n"
                           "}\n"),
            0);
  int Deferred = 0;
  bool StillLoaded = false;
  QString sNext = "void AfterTargetHalt (void) { Util.Log(\"new script\"); }\n";
  HookUtilSleep([&] {
    Deferred = ScriptLoadText(sNext);
    StillLoaded = ScriptIsLoaded();
  });
  EXPECT_EQ(ScriptExec(SF_PROJECT_LOAD), -1);  // stopped at its next statement
  EXPECT_EQ(Deferred, kScriptDeferred);
  EXPECT_TRUE(StillLoaded);
  EXPECT_TRUE(Printed().isEmpty());
  EXPECT_TRUE(HasEvent(SF_AFTER_TARGET_HALT));  // the new text is in place once the run is over
  EXPECT_FALSE(HasEvent(SF_PROJECT_LOAD));
  EXPECT_EQ(RunEvent(SF_AFTER_TARGET_HALT), 0);
  EXPECT_EQ(Printed(), QStringList({"new script"}));

  // A close asked for from inside: refused events meanwhile, nothing loaded afterwards.
  ASSERT_EQ(ScriptLoadText("void OnProjectLoad (void) { Util.Sleep(0); }\n"
                           "void AfterTargetHalt (void) { Util.Log(\"halt\"); }\n"),
            0);
  int InnerResult = 0;
  HookUtilSleep([&] {
    ScriptClose();
    InnerResult = RunEvent(SF_AFTER_TARGET_HALT);
  });
  ScriptExec(SF_PROJECT_LOAD);
  EXPECT_EQ(InnerResult, -1);
  EXPECT_FALSE(ScriptIsLoaded());
  EXPECT_FALSE(ScriptIsCloseRequested());
}

// ---------------------------------------------------------------------------------------------------
// Script calls into the action table

TEST_F(ZvScriptApp, ScriptCallsConvertTheirArgumentsAsTheCommandLineShowsThem) {
  ASSERT_EQ(ScriptLoadText("void OnProjectLoad (void) {\n"
                           "  Debug.SetResetMode(RM_RESET_AND_RUN);\n"
                           "  Debug.SetConnectMode(CM_ATTACH);\n"
                           "  Debug.SetNextPC(0x1234);\n"
                           "  if (Util.Log(1234) == -1) { Util.Log(\"refused\"); }\n"
                           "}\n"),
            0);
  EXPECT_EQ(ScriptExec(SF_PROJECT_LOAD), 0);
  ASSERT_GE(Output.size(), 6);
  EXPECT_EQ(Output[0], "Debug.SetResetMode (RM_RESET_AND_RUN);");
  EXPECT_EQ(Output[1], "Debug.SetConnectMode (CM_ATTACH);");
  EXPECT_EQ(Output[2], "Debug.SetNextPC (0x00001234);");
  EXPECT_EQ(Output.filter("Invalid user function parameter: 0x4D2 (1234)").size(), 1);
  EXPECT_EQ(Output.last(), "refused");
  EXPECT_FALSE(ScriptHasError());  // an invalid pointer doesn't stop the script
  EXPECT_EQ(GetVarValue(GetVar(VAR_RESET_MODE)), RM_RESET_AND_RUN);
  EXPECT_EQ(GetVarValue(GetVar(VAR_CONNECT_MODE)), CM_ATTACH);
}

// ---------------------------------------------------------------------------------------------------
// Script files without a project

TEST_F(ZvScriptApp, AScriptFileRunsWithoutAProject) {
  QString sPath = WriteFile(
      "program.zvs",
      R"(// Recursion, arrays in loops, string literals handed to the API as pointers into the script.
int Fib(int n) {
  if (n < 2) { return n; }
  return Fib(n - 1) + Fib(n - 2);
}
int main(void) {
  int a[10];
  int i;
  int Sum;
  i = 0;
  while (i < 10) { a[i] = i * i; i += 1; }
  Sum = 0;
  i = 0;
  do { Sum += a[i]; i += 1; } while (i < 10);
  if (Sum == 285) { Util.Log("squares ok"); } else { Util.Log("squares wrong"); }
  if (Fib(15) == 610) { Util.Log("fib ok"); }
  if (10 - 3 - 2 == 9) { Util.Log("grouping ok"); }
  if ((6 * 7 == 42) && (7 / 2 == 3) && ((1 << 4 | 3) == 19) && ((12 & 10) == 8) && ((12 ^ 10) == 6)
      && (-16 >> 2 == -4) && (3 >= 3) && (2 <= 1 || 1 != 2) && (5 > 4) && (4 < 5)) {
    Util.Log("operators ok");
  }
  if (Target.ReadU32(0x20000000) == 0) { Util.Log("not connected reads 0"); }
  Edit.SysVar(VAR_RESET_MODE, RM_RESET_AND_RUN);
  Edit.SysVar(VAR_TIF_SCAN_CHAIN_LEN, Fib(10));
  Edit.SysVar(VAR_BREAK_AT_THIS_SYMBOL, "Reset_Handler");
  return 0;
}
)");
  EXPECT_EQ(ZvScriptRunFile(sPath, "main"), 0);
  EXPECT_EQ(Printed(),
            QStringList({"squares ok", "fib ok", "grouping ok", "operators ok", "not connected reads 0"}));
  EXPECT_EQ(GetVarValue(GetVar(VAR_RESET_MODE)), RM_RESET_AND_RUN);
  EXPECT_EQ(GetVarValue(GetVar(VAR_TIF_SCAN_CHAIN_LEN)), 55);
  EXPECT_EQ(GetVarString(GetVar(VAR_BREAK_AT_THIS_SYMBOL)), "Reset_Handler");
  EXPECT_FALSE(ScriptIsLoaded());  // the project's script stays as it was
}

TEST_F(ZvScriptApp, AScriptFileThatFailsNamesTheFileTheErrorAndTheLine) {
  struct CASE {
    const char* sText;  // null: no file
    QString sError;
  } aCase[] = {
      {nullptr, "file not found"},
      {"int main(void) {\n  int x = 5;\n  return 0;\n}\n", "Expected a ';' at line 2"},
      {"int main(void) {\n  int a[2];\n\n  a[2] = 1;\n  return 0;\n}\n",
       "Array index out of range at line 4"},
      {"int main(void) {\n  Util.Log(\"open);\n  return 0;\n}\n", "Illegal character in string at line 2"},
      // A division by zero is the function's fault, as the processor would report it, without a line.
      {"int main(void) {\n  return 1 / 0;\n}\n", "Error in script function main"},
      {"int main(void) {\n  do { } (1);\n}\n", "Syntax error missing \"while\" at line 2"},
      {"int main(void) {\n  for (;;) { }\n}\n", "Keyword \"for\" is not yet supported at line 2"},
      {"int main(void) {\n  break;\n}\n", "Syntax error at line 2"},
      {"int other(void) { return 0; }\n", "function \"main\" not found"},
  };
  for (const CASE& c : aCase) {
    Output.clear();
    QString sPath = c.sText ? WriteFile("failing.zvs", c.sText) : Dir.filePath("absent.zvs");
    EXPECT_EQ(ZvScriptRunFile(sPath, QString()), -1) << c.sError.toStdString();
    EXPECT_EQ(Output.value(Output.size() - 1),
              QString("Error in script file \"%1\": %2").arg(sPath, c.sError));
  }
}

TEST_F(ZvScriptApp, TheCommandLineNamesTheScriptFileAndItsFunction) {
  struct CASE {
    QStringList Args;
    QString sFile, sFunction, sError;
  } aCase[] = {
      {{"zevra", "--batch", "x"}, "", "", ""},
      {{"zevra", "--script", "a.zvs"}, "a.zvs", "", ""},
      {{"zevra", "--script-function", "Setup", "--script", "a.zvs"}, "a.zvs", "Setup", ""},
      {{"zevra", "--script"}, "", "", "--script needs a file name"},
      {{"zevra", "--script", "--batch", "x"}, "", "", "--script needs a file name"},
      {{"zevra", "--script-function", "Setup"}, "", "Setup", "--script-function needs --script FILE"},
  };
  for (const CASE& c : aCase) {
    SCRIPT_RUN_OPTIONS Options = ParseScriptRunOptions(c.Args);
    EXPECT_EQ(Options.sFile, c.sFile) << c.Args.join(' ').toStdString();
    EXPECT_EQ(Options.sFunction, c.sFunction) << c.Args.join(' ').toStdString();
    EXPECT_EQ(Options.sError, c.sError) << c.Args.join(' ').toStdString();
  }
  QString sPath = WriteFile("setup.zvs", "int Setup(void) { Util.Log(\"setup ran\"); return 0; }\n");
  EXPECT_EQ(ZvScriptRunFromArguments({"zevra", "--script", sPath, "--script-function", "Setup"}), 0);
  EXPECT_EQ(ZvScriptRunFromArguments({"zevra", "--batch", "x"}), 1);
  EXPECT_EQ(ZvScriptRunFromArguments({"zevra", "--script", sPath}), -1);  // no main
  EXPECT_EQ(Printed(),
            QStringList({"setup ran",
                         QString("Error in script file \"%1\": function \"main\" not found").arg(sPath)}));
}

// ---------------------------------------------------------------------------------------------------
// The simulated target

TEST_F(ZvScriptApp, AScriptConnectsWritesAndReadsBackOnTheSimulatedTarget) {
  QString sPath = WriteFile("target.zvs", R"(int main(void) {
  int v;
  Exec.Connect();
  Target.WriteU32(0x20000100, 0x12345678);
  v = Target.ReadU32(0x20000100);
  if (v == 0x12345678) { Util.Log("word read back"); }
  if (Target.ReadU16(0x20000102) == 0x1234) { Util.Log("upper half read back"); }
  if (Target.ReadU8(0x20000100) == 0x78) { Util.Log("low byte read back"); }
  return 0;
}
)");
  EXPECT_EQ(ZvScriptRunFile(sPath, "main"), 0);
  // The reads take no detour through their rows, so they print nothing of their own.
  EXPECT_EQ(Output, QStringList({"Exec.Connect();", "Target.WriteU32 (0x20000100, 305419896);",
                                 "Util.Log (\"word read back\");", "word read back",
                                 "Util.Log (\"upper half read back\");", "upper half read back",
                                 "Util.Log (\"low byte read back\");", "low byte read back"}));
  EXPECT_TRUE(CDevice::Instance()->IsConnected());
}

TEST_F(ZvScriptApp, RegistersAreReadDirectlyOnceTheApplicationNamesThem) {
  QString sPath = WriteFile("regs.zvs", R"(int main(void) {
  Exec.Connect();
  Exec.Reset();
  Target.GetReg("PC");
  if (Target.GetReg("NOPE") == 0) { Util.Log("unknown reads 0"); }
  return 0;
}
)");
  // Without a resolver the call runs through its row, and the Console shows it. (The main window
  // installs one; it is taken away here.)
  ScriptSetRegisterResolver({});
  EXPECT_EQ(ZvScriptRunFile(sPath, "main"), 0);
  EXPECT_EQ(Output.filter("Target.GetReg (\"PC\");").size(), 1);

  QStringList Asked;
  ScriptSetRegisterResolver([&Asked](const QString& sName) {
    Asked << sName;
    return sName == "PC" ? CDevice::Instance()->GetTarvikRegIdx(REG_PC) : -1;
  });
  Output.clear();
  sPath = WriteFile("regs-again.zvs", R"(int main(void) {
  Target.GetReg("PC");
  if (Target.GetReg("NOPE") == 0) { Util.Log("unknown reads 0"); }
  return 0;
}
)");
  EXPECT_EQ(ZvScriptRunFile(sPath, "main"), 0);
  ScriptSetRegisterResolver({});
  EXPECT_EQ(Asked, QStringList({"PC", "NOPE"}));
  EXPECT_TRUE(Output.filter("Target.GetReg").isEmpty());
  EXPECT_TRUE(Output.contains("unknown reads 0"));
}
