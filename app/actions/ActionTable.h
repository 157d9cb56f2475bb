// The action table: one row per thing a user can do (menu, hotkey, Console line, script call), and the
// operations by which anything runs a row or reports from one. All operations run on the main thread.
//
// A row's QAction carries the state of a running command: data() holds the argument texts (a
// QStringList), nothing (a click), or int 0 (the handler's dialog was cancelled); whatsThis() holds the
// error text of the last run. Whether a row may run from a command or a script is kept here, apart from
// the menu's enabled state, so that a row grey in the menu still runs from the Console.
#pragma once

#include <QList>
#include <QString>
#include <QStringList>
#include <QVariant>
#include <functional>

#include "app/base/Types.h"
#include "app/tables/ActionRows.h"

class QAction;
class QObject;
class QWidget;

// Row look-ups. Valid IDs are 0..304; every failed look-up gives the sentinel row (ID 305).
QAction* GetAction(int Id);
GUI_ACTION GetRow(int Id);
GUI_ACTION GetRowByHotkey2(const QString& sKey);
int GetActionID(const QAction* pAction);

// Binds every QAction child of Owner whose object name matches a row (ignoring case): shortcut, tips,
// and the command permission copied from the enabled state. Names without a row are remembered.
void LinkActions(QWidget* pOwner);
// Rebinds the rows whose object names occur in Owner to its actions (windows that re-create them).
void LinkActionsToPluginWindow(QWidget* pOwner);
// Warns once per name that could not be linked: "Unknown GUI action could not be linked: " and the name.
void ReportUnlinkedActions();
QStringList GetUnlinkedActionNames();
// Forgets every binding (tests, and a main window that is rebuilt).
void UnlinkAllActions();

// Whether a row may run from a command or a script, separate from the menu's enabled state.
void SetCommandPermitted(int Id, bool Permitted);
bool IsCommandPermitted(int Id);

// Names and prototypes.
QString GetFunctionName(int Id);
QString GetAliasName(int Id);
QString GetAliasPrototype(int Id);
int GetParamCount(int Id);
bool IsStringParam(int Id, int Index);
// The row whose name or alias equals Name (ignoring case) and whose parameter count equals Count; if none
// has that count, the last row of that name, so its handler reports "wrong parameter count". -1 if no row.
int FindRowForCommand(const QString& sName, int Count);

// Arguments, errors and results.
void SetArguments(int Id, const QVariant& v0 = QVariant(), const QVariant& v1 = QVariant(),
                  const QVariant& v2 = QVariant(), const QVariant& v3 = QVariant(),
                  const QVariant& v4 = QVariant(), const QVariant& v5 = QVariant(),
                  const QVariant& v6 = QVariant());
void SetArgumentList(int Id, const QStringList& Args);  // as given, no quote handling
void ClearArguments(int Id);
void MarkCancelled(int Id);
bool IsCancelled(int Id);
QStringList GetArguments(int Id);
bool CheckParamCount(int Id, int MinCount);
QString GetFirstArgument(int Id);
void SetError(int Id, const QString& sError, const QString& sDetail = QString());
// An argument as an error's detail names it: as typed, in double quotes when it is empty or holds blanks.
QString ArgumentForError(const QString& sArg);
QString GetError(int Id);
void SetResult(int Id, int Value);
int GetResult(int Id);
// Counts every SetResult and every non-empty SetError, so a caller can tell whether a run stored one.
U64 GetResultSerial();
U64 GetErrorSerial();
// Counts a failure that a command's job reported later, after its row had finished.
void NoteCommandError();

// Running a row.
int TriggerAction(int Id);
int PerformAction(int Id, const QVariant& v0 = QVariant(), const QVariant& v1 = QVariant(),
                  const QVariant& v2 = QVariant(), const QVariant& v3 = QVariant(),
                  const QVariant& v4 = QVariant(), const QVariant& v5 = QVariant(),
                  const QVariant& v6 = QVariant());

// The canonical command text for the row with its current arguments, or with the given ones.
QString GetCommandText(int Id);
QString GetCommandTextFor(int Id, const QStringList& Args);
// A hook that turns a text that reads as a source location into its normal form, or returns an empty
// string. Installed once the program index exists.
void SetSourceLocationNormalizer(std::function<QString(const QString&)> Normalize);

// A console line taken apart into a command name and its arguments.
struct CONSOLE_LINE {
  QString sName;
  QStringList Args;
};
CONSOLE_LINE ParseConsoleLine(const QString& sLine);
