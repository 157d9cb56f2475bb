// Batch mode: the headless face of the Console. Each line of a file runs as a Console line, with the
// waits a script call of that row gets; the console output goes to stdout.
#pragma once

#include <QString>

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
};

// Finds "--batch FILE" and "--batch-timeout SECONDS" in the raw arguments.
BATCH_OPTIONS ParseBatchOptions(int argc, char** argv);

// Runs the lines of the batch file; the main window must exist. Returns the exit code.
int RunBatch(const BATCH_OPTIONS& Options);

// Runs batch lines already read (tests, and RunBatch itself). Returns the exit code.
int RunBatchLines(const QStringList& Lines, int TimeoutSeconds);
