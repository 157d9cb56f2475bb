// The whole command path in one process: a console line finds its row, the handler files a device job,
// the device thread runs it on a scripted probe, and the completion comes back to a listener on the
// main thread; batch mode adds waits, result lines and exit codes.
#include <gtest/gtest.h>

#include <QAction>
#include <QApplication>
#include <QElapsedTimer>
#include <QFile>
#include <QKeyEvent>
#include <QTemporaryDir>
#include <QThread>

#include "app/BatchMode.h"
#include "app/MainWindow.h"
#include "app/actions/ActionTable.h"
#include "app/actions/CommandWait.h"
#include "app/base/ConsoleCore.h"
#include "app/base/tests/QtPrinters.h"
#include "app/tables/SettingsStore.h"
#include "app/tables/SettingsTables.h"
#include "device/Device.h"
#include "device/DeviceEventListener.h"
#include "device/tests/FakeProbe.h"
#include "script/Project.h"

namespace {

int RowOf(const char* sName) {
  for (int Id = 0; Id < kNumActions; ++Id) {
    if (GetFunctionName(Id) == QLatin1String(sName)) {
      return Id;
    }
  }
  return -1;
}

struct MAIN_THREAD_RECORDER : CDeviceEventListener {
  QStringList Calls;
  bool OffMainThread = false;
  void Note(const QString& s) {
    OffMainThread = OffMainThread || QThread::currentThread() != qApp->thread();
    Calls << s;
  }
  void OnDeviceExecCmdDone(const char* s) override { Note(QString("done %1").arg(s)); }
  void OnDeviceExecCmdFailed(const char* s, char* e) override { Note(QString("failed %1: %2").arg(s, e)); }
};

class CommandPath : public ::testing::Test {
 protected:
  void SetUp() override {
    ResetFake();
    SetTarvikApi(&FakeProbeApi());
    pWindow = new CMainWindow(true);
    ConsoleClearRing();
    ConsoleSetMirror([this](const QString& s) { Output << s; });
  }
  void TearDown() override {
    ConsoleSetMirror({});
    Fake().Release();
    delete pWindow;
    delete CDevice::Instance();  // the next test starts with a fresh device thread
    SetTarvikApi(nullptr);
  }
  CMainWindow* pWindow = nullptr;
  QStringList Output;
  MAIN_THREAD_RECORDER Recorder;
};

}  // namespace

TEST_F(CommandPath, ConsoleLineFilesAJobAndTheListenerHearsItOnTheMainThread) {
  int Code = RunBatchLines({"Exec.Command (\"SetSpeed 4000\")", "Exec.Command fail-now"}, 30);
  EXPECT_EQ(Code, BATCH_EXIT_COMMAND_FAILED);
  EXPECT_EQ(Recorder.Calls,
            QStringList({"done SetSpeed 4000", "failed fail-now: unknown command: fail-now"}));
  EXPECT_FALSE(Recorder.OffMainThread);
  EXPECT_EQ(Output, QStringList({"Exec.Command (\"SetSpeed 4000\");", "Exec.Command (\"fail-now\");",
                                 "Exec.Command (\"fail-now\"): unknown command: fail-now"}));
  EXPECT_EQ(Fake().nExec.load(), 2);
}

TEST_F(CommandPath, WhatACommandPrintsFollowsItsLineInTheConsole) {
  EXPECT_EQ(RunBatchLines({"Exec.Command (\"print-lines\")"}, 30), BATCH_EXIT_OK);
  EXPECT_EQ(Recorder.Calls, QStringList({"done print-lines"}));
  EXPECT_EQ(Output, QStringList({"Exec.Command (\"print-lines\");", "first line", "second line"}));
}

TEST_F(CommandPath, BatchSkipsCommentsAndReportsUnknownCommandsAndWrongCounts) {
  int Code = RunBatchLines({"# a comment", "// another", "", "   ", "Util.Log (\"first\")"}, 30);
  EXPECT_EQ(Code, BATCH_EXIT_OK);
  EXPECT_EQ(Output, QStringList({"Util.Log (\"first\");", "first"}));
  Output.clear();
  EXPECT_EQ(RunBatchLines({"NoSuchThing(1)"}, 30), BATCH_EXIT_COMMAND_FAILED);
  EXPECT_EQ(RunBatchLines({"Util.Log (a, b)"}, 30), BATCH_EXIT_COMMAND_FAILED);
  EXPECT_EQ(RunBatchLines({"Debug.SetNextPC (1)"}, 30), BATCH_EXIT_COMMAND_FAILED);  // no handler yet
  EXPECT_EQ(Output,
            QStringList({"NoSuchThing(1): unknown command. Type ? or help for a list of available commands.",
                         "Util.Log (\"a\", b);", "Util.Log (\"a\", b): wrong parameter count",
                         "Debug.SetNextPC (1);", "Debug.SetNextPC (1): not available"}));
}

TEST_F(CommandPath, ResultsStoredByARowArePrintedAfterIt) {
  int Sleep = RowOf("Util.Sleep");
  QObject::connect(GetAction(Sleep), &QAction::triggered, pWindow, [Sleep] { SetResult(Sleep, -2); });
  EXPECT_EQ(RunBatchLines({"Util.Sleep (1)", "Util.Log x"}, 30), BATCH_EXIT_OK);
  EXPECT_EQ(Output, QStringList({"Util.Sleep (1);", "= -2 (0xFFFFFFFE)", "Util.Log (\"x\");", "x"}));
}

TEST_F(CommandPath, RowsFollowTheSessionStateInMenusAndCommands) {
  EXPECT_EQ(RunBatchLines({"Break.ClearAll", "View.PC"}, 30), BATCH_EXIT_COMMAND_FAILED);
  EXPECT_EQ(Output, QStringList({"Break.ClearAll: Command disabled", "View.PC: Command disabled"}));
  QAction* pHalt = GetAction(RowOf("Debug.Halt"));
  QAction* pStop = GetAction(RowOf("Debug.Stop"));
  EXPECT_FALSE(pHalt->isEnabled());
  EXPECT_FALSE(pStop->isEnabled());
  EXPECT_FALSE(GetAction(RowOf("Debug.Continue"))->isVisible());  // nothing to continue without a target
  // Saving follows the project: a modified project may be saved, an unchanged one not.
  const int SaveAll = RowOf("File.SaveAll");
  EXPECT_FALSE(IsCommandPermitted(SaveAll));
  ASSERT_EQ(CProject::Instance()->NewFromCommands({"Project.SetTargetIF (\"SWD\");"}), 0);
  EXPECT_TRUE(IsCommandPermitted(SaveAll));
  EXPECT_TRUE(GetAction(SaveAll)->isEnabled());
  CProject::Instance()->Close();
  EXPECT_FALSE(IsCommandPermitted(SaveAll));
  CDevice* pDevice = CDevice::Instance();
  ASSERT_EQ(pDevice->ScheduleConnect(CM_ATTACH_HALT), 0);  // a bare connect is not reported to windows
  pDevice->WaitForJobThenPump(JT_CONNECT, true);
  // The first poll after the connect finds the target halted and reports it.
  QAction* pContinue = GetAction(RowOf("Debug.Continue"));
  QElapsedTimer Waited;
  Waited.start();
  while (!pContinue->isEnabled() && Waited.elapsed() < 5000) {
    SettleDevice(10);
  }
  EXPECT_TRUE(pStop->isEnabled());
  EXPECT_FALSE(pHalt->isEnabled());  // the scripted target starts halted
  EXPECT_TRUE(GetAction(RowOf("Debug.Continue"))->isEnabled());
  EXPECT_TRUE(GetAction(RowOf("Debug.Continue"))->isVisible());
  Output.clear();
  EXPECT_EQ(RunBatchLines({"View.PC"}, 30), BATCH_EXIT_COMMAND_FAILED);  // permitted now, not yet handled
  EXPECT_EQ(Output, QStringList({"View.PC();", "View.PC(): not available"}));
}

TEST_F(CommandPath, HelpPrintsTheCommandTable) {
  EXPECT_EQ(RunBatchLines({"?"}, 30), BATCH_EXIT_OK);
  ASSERT_GT(Output.size(), 100);
  EXPECT_TRUE(Output[0].startsWith("Command                      Arguments"));
  Output.clear();
  EXPECT_EQ(RunBatchLines({"HeLp"}, 30), BATCH_EXIT_OK);
  EXPECT_GT(Output.size(), 100);
}

TEST_F(CommandPath, SecondHotkeyRunsItsRow) {
  int Halt = RowOf("Debug.Halt");
  bool Ran = false;
  QObject::connect(GetAction(Halt), &QAction::triggered, pWindow, [&Ran] { Ran = true; });
  QKeyEvent Key(QEvent::KeyPress, Qt::Key_F6, Qt::NoModifier);
  QApplication::sendEvent(pWindow, &Key);
  EXPECT_TRUE(Ran);
}

TEST(StartUp, TheMostRecentProjectOpensOnlyWhenThePreferenceSaysSo) {
  QTemporaryDir Dir;
  const QString sProject = Dir.filePath("recent.zvproj");
  QFile File(sProject);
  ASSERT_TRUE(File.open(QIODevice::WriteOnly));
  File.write("void OnProjectLoad (void) {\n}\n");
  File.close();
  for (int Pref : {0, 1}) {
    ResetFake();
    SetTarvikApi(&FakeProbeApi());
    CProject::Instance()->Close();
    CMainWindow* pWindow = new CMainWindow(false);
    // After the window has loaded the stored settings, before its first paint starts the project.
    CProject::AddRecentProject(sProject);
    SetVar(GetVar(PREF_START_WITH_MOST_RECENT_PROJ), Pref, false);
    bool Started = false;
    QObject::connect(pWindow, &CMainWindow::StartupFinished, [&Started] { Started = true; });
    pWindow->show();
    QElapsedTimer Waited;
    Waited.start();
    while (!Started && Waited.elapsed() < 10000) {
      QCoreApplication::processEvents(QEventLoop::AllEvents, 20);
    }
    ASSERT_TRUE(Started);
    WaitForPendingProject();
    EXPECT_EQ(CProject::Instance()->GetFilePath() == sProject, Pref == 1) << "preference " << Pref;
    Fake().Release();
    delete pWindow;
    delete CDevice::Instance();
    SetTarvikApi(nullptr);
  }
  StoreClear();
}
