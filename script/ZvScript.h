// The one script of the process: the project file's text, loaded into the interpreter with the
// constants and the API of the action table, and its event functions run by ID. All of it runs on the
// main thread. A script file can also run on its own, without a project (batch mode and tests).
#pragma once

#include <QString>
#include <QStringList>
#include <functional>

#include "app/base/Types.h"

// The event functions a project may define. The IDs are what the rest of the system uses; the table is
// looked up by ID, never by position.
enum SCRIPT_EVENT_ID : int {
  SF_PROJECT_LOAD = 1,
  SF_TARGET_RESET = 2,
  SF_BEFORE_TARGET_RESET = 3,
  SF_AFTER_TARGET_RESET = 4,
  SF_DEBUG_START = 5,
  SF_TARGET_CONNECT = 6,
  SF_BEFORE_TARGET_CONNECT = 7,
  SF_AFTER_TARGET_CONNECT = 8,
  SF_TARGET_DOWNLOAD = 9,
  SF_BEFORE_TARGET_DOWNLOAD = 10,
  SF_AFTER_TARGET_DOWNLOAD = 11,
  SF_BEFORE_TARGET_DISCONNECT = 12,
  SF_AFTER_TARGET_DISCONNECT = 13,
  SF_AFTER_TARGET_HALT = 14,
  SF_BEFORE_TARGET_RESUME = 15,
};
constexpr int kNumScriptEvents = 15;
// Event functions nest at most this deep plus one (an API call that raises another event).
constexpr int kMaxScriptCallLevel = 10;
// A load or close asked for while a script runs; it happens when the outermost event function returns.
constexpr int kScriptDeferred = 1;

struct SCRIPT_EVENT {
  int ID;
  const char* sIdName;     // "SF_PROJECT_LOAD"
  const char* sPrototype;  // "void OnProjectLoad (void);"
};
extern const SCRIPT_EVENT g_aScriptEvents[kNumScriptEvents];

// Loading and closing. Each returns 0, -1 on failure (the reason in ScriptGetError()), or
// kScriptDeferred when an event function is running: the interpreter is then asked to stop, nothing new
// starts, and the load or close is carried out once the outermost event function has returned, so that
// the block is never freed under a running interpreter.
//
// ScriptLoadFile remembers the path and requires the function OnProjectLoad ("Required user function
// missing" otherwise); ScriptLoadText takes a text the program made itself and requires nothing.
int ScriptLoadFile(const QString& sPath);
int ScriptLoadText(const QString& sText);
// Loads the file anew if its text differs from the loaded one. 1 if it reloaded (also when that load
// failed), 0 otherwise.
int ScriptReloadIfChanged();
// Writes the loaded text to sPath and remembers path and text as the loaded file. 0 or -1.
int ScriptSaveText(const QString& sPath);
int ScriptClose();

// Event functions. ScriptExists: a script is loaded without error, no close is under way, and it
// defines the function of that ID. ScriptExec runs it: 0, -1 (error, no script, close under way...),
// -2 (not defined); the function's own return value isn't passed on.
bool ScriptExists(int Id);
int ScriptExec(int Id);
// ScriptExec for the session: refuses with a warning while the script has an error or is closing, and
// afterwards prints a new error as "Error in project file: " and ScriptGetError() in the Console.
int RunEvent(int Id);
bool HasEvent(int Id);
// Called when RunEvent prints an error, so that the application can bring up its Console window.
void ScriptSetErrorShownHook(std::function<void()> pfShown);

// State for display and for those who must wait until no script runs.
int ScriptCallLevel();        // event functions running now
int ScriptCurrentFunction();  // ID of the running event function, -1 if none
bool ScriptIsLoaded();        // a context exists
bool ScriptHasError();
bool ScriptIsCloseRequested();
QString ScriptGetFilePath();
QString ScriptGetText();
// The last error for display: the message with inner white space simplified and every "." removed,
// then " at line " and the line number when the error has one. Empty without error.
QString ScriptGetError();
QString ScriptGetErrorSource();  // the failing line up to its first ";", at most 512 bytes
int ScriptGetErrorLine();        // -1 if none
// The function name in an event prototype ("OnProjectLoad"); empty for an unknown ID.
QString ScriptGetFunctionName(int Id);

// Runs one function of a script file in a context of its own, beside any project script: loads and
// parses the file, runs sFunction ("main" when empty), and prints any error in the Console with its
// line number. Returns 0, or -1 if the file can't be read, doesn't parse, lacks the function or the
// run fails.
int ZvScriptRunFile(const QString& sPath, const QString& sFunction);

// The options of a stand-alone run on the command line: "--script FILE" and "--script-function NAME".
struct SCRIPT_RUN_OPTIONS {
  QString sFile;      // empty: no script to run
  QString sFunction;  // empty: "main"
  QString sError;     // set when the options themselves are wrong
};
SCRIPT_RUN_OPTIONS ParseScriptRunOptions(const QStringList& Args);
// Runs the script the arguments name, if any. 1 when they name none, 0 when it ran, -1 when the options
// are wrong (printed in the Console) or the run failed.
int ZvScriptRunFromArguments(const QStringList& Args);
