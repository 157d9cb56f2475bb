// The command side of the Console: running a typed line through the action table, echoing every row
// that runs as its canonical command text, printing command errors, and the command table of "help".
// The Console window shows what this prints; batch mode uses it without any window.
#pragma once

#include <QList>
#include <QObject>
#include <QPointer>
#include <QString>
#include <QStringList>

class QAction;
class QColor;

// Results of CCommandConsole::RunLine.
enum : int {
  CONSOLE_LINE_RAN = 0,       // a row ran (it may still have reported an error)
  CONSOLE_LINE_EMPTY = 1,     // nothing to run
  CONSOLE_LINE_UNKNOWN = -1,  // no row of that name
  CONSOLE_LINE_REFUSED = -2,  // the row exists but could not run (disabled, or no action bound)
};

class CCommandConsole : public QObject {
  Q_OBJECT
 public:
  static constexpr int kHelpRowId = 269;  // actionConsoleHelp

  static CCommandConsole* Instance();

  // Listens to the ActionTriggered/ActionPerformed signals of a window; a list prevents double links.
  void LinkObject(QObject* pObject);
  void UnlinkObject(QObject* pObject);

  // Runs one typed line; sets *pRowId to the row that ran (-1 if none).
  int RunLine(const QString& sLine, int* pRowId = nullptr);

  // The command table of "help", one text line each, header first.
  static QStringList BuildCommandTable();

 public slots:
  void OnActionTriggered(QAction* pAction);
  void OnActionPerformed(QAction* pAction);
  void OnActionHelpTriggered();

 private:
  QList<QPointer<QObject>> _Linked;
};

// Console output in the colours of the colour table.
void ConsoleError(const QString& sText);
void ConsoleCommand(const QString& sText);
void ConsolePrintLines(const QStringList& Lines, const QColor& Color);
