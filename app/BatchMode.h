// Batch mode: the headless face of the Console. Each line of a file runs as a Console line, with the
// waits a script call of that row gets; the console output goes to stdout.
#pragma once

#include <QString>
#include <QStringList>
#include <condition_variable>
#include <mutex>
#include <thread>

struct BATCH_OPTIONS {
  bool Enabled = false;
  QString sFile;             // "-" reads standard input
  int TimeoutSeconds = 600;  // the whole run; a watchdog ends the process when it passes
  QString sError;            // set when the options themselves are wrong
};

// Exit codes of a batch run.
enum : int {
  BATCH_EXIT_OK = 0,
  BATCH_EXIT_COMMAND_FAILED = 1,
  BATCH_EXIT_SCRIPT_ERROR = 2,
  BATCH_EXIT_TIMEOUT = 3,
  BATCH_EXIT_NO_FILE = 4,
  BATCH_EXIT_BAD_OPTIONS = 5,
};

// Finds "--batch FILE", "--batch-timeout SECONDS" and the stand-alone script options ("--script FILE",
// "--script-function NAME") in the raw arguments. Any of them makes the run headless; sError names a
// wrong option and its value.
BATCH_OPTIONS ParseBatchOptions(int argc, char** argv);

// Ends the process with the time-out code if it is still running when the time has passed, even when
// the main thread is stuck inside a command or a project's OnProjectLoad. Started before the project
// opens, so the whole run is covered.
class CBatchWatchdog {
 public:
  explicit CBatchWatchdog(int Seconds);
  ~CBatchWatchdog();

 private:
  std::thread _Thread;
  std::mutex _Mutex;
  std::condition_variable _Cv;
  bool _Done = false;
};

// Runs the lines of the batch file one by one as they can be read (standard input is not read ahead,
// so a program can send a line, read its answer and send the next); the main window must exist. Returns
// the exit code.
int RunBatch(const BATCH_OPTIONS& Options);

// Runs batch lines already read (tests, and RunBatch itself). Returns the exit code.
int RunBatchLines(const QStringList& Lines, int TimeoutSeconds);

// Pumps events until no project waits to be opened, so that a project asked for has opened and run
// its OnProjectLoad.
void WaitForPendingProject();
