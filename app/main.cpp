// Entry point of the zevra executable: the start sequence, the event loop (or a batch run), and the
// orderly end.
#include <QApplication>
#include <QDir>
#include <QFont>
#include <QStyleHints>
#include <cstdio>
#include <cstdlib>
#include <memory>

#include "app/AppInfo.h"
#include "app/BatchMode.h"
#include "app/MainWindow.h"
#include "app/base/AppMode.h"
#include "app/base/ConsoleCore.h"
#include "app/base/Log.h"
#include "app/tables/SettingsStore.h"
#include "app/tables/SettingsTables.h"
#include "device/DeviceDataProvider.h"
#include "device/DeviceEvents.h"
#include "device/probe/ProbeCore.h"
#include "device/probe/TarvikApi.h"
#include "script/Project.h"
#include "script/ZvScript.h"

int main(int argc, char** argv) {
  const bool DebugMode = ScanDebugSwitch(argc, argv);
  const BATCH_OPTIONS Batch = ParseBatchOptions(argc, argv);
  if (Batch.Enabled && !Batch.sError.isEmpty()) {
    fprintf(stderr, "%s\n", qPrintable(Batch.sError));
    return BATCH_EXIT_BAD_OPTIONS;
  }
  // A headless run is bounded as a whole, from before its project opens to its last line.
  std::unique_ptr<CBatchWatchdog> pWatchdog;
  if (Batch.Enabled) {
    pWatchdog = std::make_unique<CBatchWatchdog>(Batch.TimeoutSeconds);
    if (qgetenv("QT_QPA_PLATFORM").isEmpty()) {
      qputenv("QT_QPA_PLATFORM", "offscreen");
    }
  }
  SetBatchMode(Batch.Enabled);
  // Qt's own notes (such as a missing runtime folder) go to the log from the start, not to stderr: a
  // batch run's streams carry the session and its real faults only.
  GetLogSink().SetDebugMode(DebugMode);
  InstallQtLogHandler();

  QApplication App(argc, argv);
  QApplication::setOrganizationName(kOrganisationName);
  QApplication::setApplicationName(kApplicationName);
  QApplication::styleHints()->setStartDragDistance(30);
  // No Qt plug-in folder is searched from here on; the platform plug-in is already loaded.
  QApplication::setLibraryPaths({});
  RememberMainThread();

  QFont DefaultFont = QApplication::font();
  DefaultFont.setPointSize(8);
  DefaultFont.setStyleName("Normal");
  SetFont(0, DefaultFont, false);
  QApplication::setFont(DefaultFont);

  CLogSink& Log = GetLogSink();
  Log.SetInterval(GetLogInterval());
  if (const char* sLogFile = GetLogFileName()) {
    Log.OpenFile(QString::fromLocal8Bit(sLogFile));
  }
  Log.SetDebugMode(DebugMode);
  if (Batch.Enabled) {
    // The console goes to stdout, one line per message, in order.
    ConsoleSetMirror([](const QString& sText) {
      QByteArray Line = sText.toUtf8();
      Line.append('\n');
      fwrite(Line.constData(), 1, size_t(Line.size()), stdout);
      fflush(stdout);
    });
  }

  // The built-in probe layer: the simulated target, or a GDB remote server chosen by the project.
  SetTarvikApi(&TARVIK_GetProbeLayerApi());
  CDeviceDataProvider::Instance();
  int Result = 0;
  {
    CMainWindow* pMainWindow = new CMainWindow(Batch.Enabled);
    InstallQtLogHandler();
    if (Batch.Enabled) {
      // A project named first on the command line, or made from its dash words, is open, and its
      // OnProjectLoad has run, before the first batch line.
      if (!pMainWindow->OpenCommandLineProject()) {
        CProject::Instance()->Close();  // a new project stands, as after the window's start
      }
      WaitForPendingProject();
      Result = RunBatch(Batch);
      if (Result == BATCH_EXIT_OK && ScriptHasError()) {
        Result = BATCH_EXIT_SCRIPT_ERROR;
      }
    } else {
      pMainWindow->show();
      Result = App.exec();
    }
    delete pMainWindow;
  }
  SaveStore();
  ConsoleSetMirror({});
  Log.Flush();
  pWatchdog.reset();
  return Result;
}
