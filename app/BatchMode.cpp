// Batch mode: reading the file, running its lines, the result lines and the watchdog.
#include "app/BatchMode.h"

#include <unistd.h>
#include <QCoreApplication>
#include <QFile>
#include <QStringList>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "app/MainWindow.h"
#include "app/actions/ActionTable.h"
#include "app/actions/CommandConsole.h"
#include "app/actions/CommandWait.h"
#include "app/base/ConsoleCore.h"
#include "app/base/Log.h"
#include "device/DeviceEvents.h"
#include "script/Project.h"
#include "script/ZvScript.h"

namespace {

using Clock = std::chrono::steady_clock;

bool _IsSkipped(const QString& sLine) {
  QString s = sLine.trimmed();
  return s.isEmpty() || s.startsWith('#') || s.startsWith("//");
}

// The state of one batch run across its lines.
struct BATCH_RUN {
  Clock::time_point End;
  int ExitCode = BATCH_EXIT_OK;

  int RemainingMS() const {
    auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(End - Clock::now()).count();
    return int(std::max<long long>(ms, 0));
  }
};

// Runs one line and what it started: its jobs, a project it opened, the device's events. False when
// the batch ends with this line: the time ran out (the exit code says so) or the line closed the
// application.
bool _RunLine(const QString& sLine, BATCH_RUN* pRun) {
  if (_IsSkipped(sLine)) {
    return true;
  }
  U64 Errors = GetErrorSerial();
  U64 Results = GetResultSerial();
  int Id = -1;
  int r = CCommandConsole::Instance()->RunLine(sLine, &Id);
  bool Failed = r < 0;
  if (!Failed && Id >= 0 && GetErrorSerial() == Errors) {
    WaitForCommandJobs(Id);
  }
  WaitForPendingProject();
  if (!SettleDevice(pRun->RemainingMS()) && pRun->RemainingMS() == 0) {
    fprintf(stderr, "Batch time-out while running: %s\n", qPrintable(sLine.trimmed()));
    pRun->ExitCode = BATCH_EXIT_TIMEOUT;
    return false;
  }
  if (GetErrorSerial() != Errors) {
    Failed = true;
  }
  if (!Failed && Id >= 0 && GetResultSerial() != Results) {
    int Value = GetResult(Id);
    QString sHex = QString::number(U32(Value), 16).toUpper().rightJustified(8, '0');
    ConsolePrint(QString("= %1 (0x%2)").arg(Value).arg(sHex));
  }
  if (Failed) {
    pRun->ExitCode = BATCH_EXIT_COMMAND_FAILED;
  }
  const CMainWindow* pMainWindow = CMainWindow::Instance();
  return pMainWindow == nullptr || !pMainWindow->IsClosing();
}

QString _OptionValue(int argc, char** argv, int i) {
  return i < argc ? QString::fromLocal8Bit(argv[i]) : QString();
}

}  // namespace

CBatchWatchdog::CBatchWatchdog(int Seconds) {
  if (Seconds <= 0) {
    return;
  }
  _Thread = std::thread([this, Seconds] {
    std::unique_lock<std::mutex> Lock(_Mutex);
    if (!_Cv.wait_for(Lock, std::chrono::seconds(Seconds), [this] { return _Done; })) {
      fprintf(stderr, "Batch time-out: the run took longer than %d s\n", Seconds);
      fflush(stdout);
      fflush(stderr);
      GetLogSink().Flush();
      _exit(BATCH_EXIT_TIMEOUT);
    }
  });
}

CBatchWatchdog::~CBatchWatchdog() {
  {
    std::lock_guard<std::mutex> Lock(_Mutex);
    _Done = true;
  }
  _Cv.notify_all();
  if (_Thread.joinable()) {
    _Thread.join();
  }
}

void WaitForPendingProject() {
  // The thread sleeps between rounds of events instead of spinning through them.
  WaitForDevice([] { return !CProject::Instance()->IsPending(); }, -1,
                WAIT_PROCESS_QT_EVENTS | WAIT_DISPATCH_DEVICE_EVENTS);
}

BATCH_OPTIONS ParseBatchOptions(int argc, char** argv) {
  BATCH_OPTIONS Options;
  bool Script = false;
  QStringList Args;
  for (int i = 0; i < argc; ++i) {
    Args << QString::fromLocal8Bit(argv[i]);
  }
  for (int i = 1; i < argc; ++i) {
    if (strcmp(argv[i], "--batch") == 0) {
      Options.Enabled = true;
      if (i + 1 < argc) {
        Options.sFile = _OptionValue(argc, argv, ++i);
      } else {
        Options.sError = "--batch needs a file name (or - for standard input)";
      }
    } else if (strcmp(argv[i], "--script") == 0 || strcmp(argv[i], "--script-function") == 0) {
      // A script file runs headless too, after the batch lines if there are any.
      Script = true;
    } else if (strcmp(argv[i], "--batch-timeout") == 0) {
      const QString sValue = _OptionValue(argc, argv, ++i);
      bool Ok = false;
      int Seconds = sValue.toInt(&Ok, 10);
      if (!Ok || Seconds <= 0) {
        Options.sError =
            QString("--batch-timeout needs a positive whole number of seconds, not \"%1\"").arg(sValue);
      } else {
        Options.TimeoutSeconds = Seconds;
      }
    }
  }
  if (Script) {
    Options.Enabled = true;
    const SCRIPT_RUN_OPTIONS ScriptOptions = ParseScriptRunOptions(Args);
    if (Options.sError.isEmpty() && !ScriptOptions.sError.isEmpty()) {
      Options.sError = ScriptOptions.sError;
    }
  }
  return Options;
}

int RunBatchLines(const QStringList& Lines, int TimeoutSeconds) {
  BATCH_RUN Run;
  Run.End = Clock::now() + std::chrono::seconds(TimeoutSeconds);
  for (const QString& sLine : Lines) {
    if (!_RunLine(sLine, &Run)) {
      break;
    }
  }
  return Run.ExitCode;
}

int RunBatch(const BATCH_OPTIONS& Options) {
  if (Options.sFile.isEmpty()) {
    return ZvScriptRunFromArguments(QCoreApplication::arguments()) < 0 ? BATCH_EXIT_SCRIPT_ERROR
                                                                       : BATCH_EXIT_OK;
  }
  FILE* pFile = Options.sFile == "-" ? stdin : fopen(QFile::encodeName(Options.sFile).constData(), "r");
  if (pFile == nullptr) {
    fprintf(stderr, "Cannot read batch file \"%s\": %s\n", qPrintable(Options.sFile), strerror(errno));
    return BATCH_EXIT_NO_FILE;
  }
  BATCH_RUN Run;
  Run.End = Clock::now() + std::chrono::seconds(Options.TimeoutSeconds);
  // One line at a time, each run before the next is read: stdio hands over a line as soon as it is
  // complete, so a program on the other end of a pipe sees each answer before it sends the next line.
  char* pLine = nullptr;
  size_t Capacity = 0;
  bool GoOn = true;
  for (ssize_t n; GoOn && (n = getline(&pLine, &Capacity, pFile)) >= 0;) {
    QString sLine = QString::fromUtf8(pLine, qsizetype(n));
    while (sLine.endsWith('\n') || sLine.endsWith('\r')) {
      sLine.chop(1);
    }
    GoOn = _RunLine(sLine, &Run);
  }
  free(pLine);
  if (pFile != stdin) {
    fclose(pFile);
  }
  if (!GoOn) {
    return Run.ExitCode;  // the time ran out, or a line ended the application
  }
  // A script file given with --script runs after the lines; its failure is a script error.
  if (ZvScriptRunFromArguments(QCoreApplication::arguments()) < 0) {
    return BATCH_EXIT_SCRIPT_ERROR;
  }
  return Run.ExitCode;
}
