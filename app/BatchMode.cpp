// Batch mode: reading the file, running its lines, the result lines and the watchdog.
#include "app/BatchMode.h"

#include <unistd.h>
#include <QCoreApplication>
#include <QFile>
#include <QStringList>
#include <QTextStream>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <thread>

#include "app/actions/ActionTable.h"
#include "app/actions/CommandConsole.h"
#include "app/actions/CommandWait.h"
#include "app/base/ConsoleCore.h"
#include "app/base/Log.h"
#include "script/ZvScript.h"

namespace {

// Ends the process with the time-out code if the run is not over in time, even when the main thread is
// stuck inside a command.
class CWatchdog {
 public:
  explicit CWatchdog(int Seconds) {
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
  ~CWatchdog() {
    {
      std::lock_guard<std::mutex> Lock(_Mutex);
      _Done = true;
    }
    _Cv.notify_all();
    if (_Thread.joinable()) {
      _Thread.join();
    }
  }

 private:
  std::thread _Thread;
  std::mutex _Mutex;
  std::condition_variable _Cv;
  bool _Done = false;
};

bool _IsSkipped(const QString& sLine) {
  QString s = sLine.trimmed();
  return s.isEmpty() || s.startsWith('#') || s.startsWith("//");
}

}  // namespace

BATCH_OPTIONS ParseBatchOptions(int argc, char** argv) {
  BATCH_OPTIONS Options;
  for (int i = 1; i < argc; ++i) {
    if (strcmp(argv[i], "--batch") == 0) {
      Options.Enabled = true;
      if (i + 1 < argc) {
        Options.sFile = QString::fromLocal8Bit(argv[++i]);
      } else {
        Options.sError = "--batch needs a file name (or - for standard input)";
      }
    } else if (strcmp(argv[i], "--script") == 0 && !Options.Enabled) {
      // A script file alone runs headless too, with no command lines before it.
      Options.Enabled = true;
      Options.sFile = QString();
    } else if (strcmp(argv[i], "--batch-timeout") == 0) {
      bool Ok = false;
      int Seconds = i + 1 < argc ? QString(argv[i + 1]).toInt(&Ok) : 0;
      if (!Ok || Seconds <= 0) {
        Options.sError = QString("--batch-timeout needs a positive number of seconds, not \"%1\"")
                             .arg(i + 1 < argc ? argv[i + 1] : "");
      } else {
        Options.TimeoutSeconds = Seconds;
      }
      ++i;
    }
  }
  return Options;
}

int RunBatchLines(const QStringList& Lines, int TimeoutSeconds) {
  using Clock = std::chrono::steady_clock;
  const Clock::time_point End = Clock::now() + std::chrono::seconds(TimeoutSeconds);
  auto RemainingMS = [&End] {
    auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(End - Clock::now()).count();
    return int(std::max<long long>(ms, 0));
  };
  int ExitCode = BATCH_EXIT_OK;
  CCommandConsole* pConsole = CCommandConsole::Instance();
  for (const QString& sLine : Lines) {
    if (_IsSkipped(sLine)) {
      continue;
    }
    U64 Errors = GetErrorSerial();
    U64 Results = GetResultSerial();
    int Id = -1;
    int r = pConsole->RunLine(sLine, &Id);
    bool Failed = r < 0;
    if (!Failed && Id >= 0 && GetErrorSerial() == Errors) {
      WaitForCommandJobs(Id);
    }
    if (!SettleDevice(RemainingMS())) {
      if (RemainingMS() == 0) {
        fprintf(stderr, "Batch time-out while running: %s\n", qPrintable(sLine.trimmed()));
        return BATCH_EXIT_TIMEOUT;
      }
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
      ExitCode = BATCH_EXIT_COMMAND_FAILED;
    }
  }
  return ExitCode;
}

int RunBatch(const BATCH_OPTIONS& Options) {
  QFile File;
  bool Open;
  if (Options.sFile.isEmpty()) {
    CWatchdog Watchdog(Options.TimeoutSeconds);
    return ZvScriptRunFromArguments(QCoreApplication::arguments()) < 0 ? BATCH_EXIT_SCRIPT_ERROR
                                                                       : BATCH_EXIT_OK;
  }
  if (Options.sFile == "-") {
    Open = File.open(stdin, QIODevice::ReadOnly | QIODevice::Text);
  } else {
    File.setFileName(Options.sFile);
    Open = File.open(QIODevice::ReadOnly | QIODevice::Text);
  }
  if (!Open) {
    fprintf(stderr, "Cannot read batch file \"%s\": %s\n", qPrintable(Options.sFile),
            qPrintable(File.errorString()));
    return BATCH_EXIT_NO_FILE;
  }
  QStringList Lines = QString::fromUtf8(File.readAll()).split('\n');
  CWatchdog Watchdog(Options.TimeoutSeconds);
  int Code = RunBatchLines(Lines, Options.TimeoutSeconds);
  // A script file given with --script runs after the lines; its failure is a script error.
  if (ZvScriptRunFromArguments(QCoreApplication::arguments()) < 0) {
    return BATCH_EXIT_SCRIPT_ERROR;
  }
  return Code;
}
