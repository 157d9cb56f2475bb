// Running console lines, the echo of every command, and the command table.
#include "app/actions/CommandConsole.h"

#include <QAction>
#include <QColor>
#include <QMap>

#include "app/actions/ActionTable.h"
#include "app/base/ConsoleCore.h"
#include "app/tables/SettingsTables.h"

void ConsoleError(const QString& sText) {
  ConsolePrint(sText, GetColor(COLOR_LOGGING_ERROR));
}

void ConsoleCommand(const QString& sText) {
  ConsolePrint(sText, GetColor(COLOR_LOGGING_USER));
}

void ConsolePrintLines(const QStringList& Lines, const QColor& Color) {
  for (const QString& s : Lines) {
    ConsolePrint(s, Color, true);
  }
}

CCommandConsole* CCommandConsole::Instance() {
  static CCommandConsole* pConsole = new CCommandConsole();  // lives until the process ends
  return pConsole;
}

void CCommandConsole::LinkObject(QObject* pObject) {
  if (pObject == nullptr || _Linked.contains(pObject)) {
    return;
  }
  _Linked << pObject;
  connect(pObject, SIGNAL(ActionTriggered(QAction*)), this, SLOT(OnActionTriggered(QAction*)));
  connect(pObject, SIGNAL(ActionPerformed(QAction*)), this, SLOT(OnActionPerformed(QAction*)));
}

void CCommandConsole::UnlinkObject(QObject* pObject) {
  if (pObject == nullptr || !_Linked.removeAll(pObject)) {
    return;
  }
  disconnect(pObject, SIGNAL(ActionTriggered(QAction*)), this, SLOT(OnActionTriggered(QAction*)));
  disconnect(pObject, SIGNAL(ActionPerformed(QAction*)), this, SLOT(OnActionPerformed(QAction*)));
}

int CCommandConsole::RunLine(const QString& sLineIn, int* pRowId) {
  if (pRowId) {
    *pRowId = -1;
  }
  QString sLine = sLineIn.trimmed();
  if (sLine.isEmpty()) {
    ConsolePrint(" ");  // an empty line prints an empty line
    return CONSOLE_LINE_EMPTY;
  }
  if (sLine == "?" || sLine.compare("help", Qt::CaseInsensitive) == 0) {
    if (pRowId) {
      *pRowId = kHelpRowId;
    }
    ClearArguments(kHelpRowId);
    return TriggerAction(kHelpRowId) < 0 ? CONSOLE_LINE_REFUSED : CONSOLE_LINE_RAN;
  }
  CONSOLE_LINE Parsed = ParseConsoleLine(sLine);
  int Id = FindRowForCommand(Parsed.sName, int(Parsed.Args.size()));
  if (Id < 0) {
    ConsoleError(sLine + ": unknown command. Type ? or help for a list of available commands.");
    return CONSOLE_LINE_UNKNOWN;
  }
  if (pRowId) {
    *pRowId = Id;
  }
  if (GetAction(Id) == nullptr) {
    ConsoleError(GetFunctionName(Id) + ": not available");
    return CONSOLE_LINE_REFUSED;
  }
  if (Parsed.Args.isEmpty()) {
    ClearArguments(Id);
  } else {
    SetArgumentList(Id, Parsed.Args);
  }
  return TriggerAction(Id) < 0 ? CONSOLE_LINE_REFUSED : CONSOLE_LINE_RAN;
}

void CCommandConsole::OnActionTriggered(QAction* pAction) {
  int Id = GetActionID(pAction);
  if (Id < 0) {
    return;
  }
  const GUI_ACTION& Row = g_aActions[Id];
  if (Row.EchoAfter) {
    return;
  }
  QString sText = GetCommandText(Id);
  if (sText.isEmpty()) {
    ClearArguments(Id);
    return;
  }
  if (Row.Echo) {
    ConsoleCommand(sText);
  }
}

void CCommandConsole::OnActionPerformed(QAction* pAction) {
  int Id = GetActionID(pAction);
  if (Id < 0) {
    return;
  }
  if (IsCancelled(Id)) {
    ClearArguments(Id);
    return;
  }
  QString sText = GetCommandText(Id);
  if (sText.isEmpty()) {
    ClearArguments(Id);
    return;
  }
  const GUI_ACTION& Row = g_aActions[Id];
  if (Row.EchoAfter && Row.Echo) {
    ConsoleCommand(sText);
  }
  QString sError = GetError(Id);
  if (!sError.isEmpty()) {
    if (sText.endsWith(';')) {
      sText.chop(1);
    }
    ConsoleError(sText + ": " + sError);
  }
  ClearArguments(Id);
}

static QString _PadTo(QString s, int Column) {
  // Padding is only added up to the column; a longer field pushes the next one to the right.
  if (s.size() < Column) {
    s += QString(Column - s.size(), ' ');
  }
  return s;
}

static QString _TableLine(const QString& a, const QString& b, const QString& c, const QString& d) {
  QString s = _PadTo(a, 29);
  s = _PadTo(s + b, 52);
  s = _PadTo(s + c, 68);
  return s + d;
}

QStringList CCommandConsole::BuildCommandTable() {
  QMap<QString, QString> Lines;  // sorted by name; a later row of the same name replaces the earlier
  for (int Id = 0; Id < kNumActions; ++Id) {
    const GUI_ACTION& Row = g_aActions[Id];
    QString sName = GetFunctionName(Id);
    if (Row.pAction == nullptr || !Row.Echo || sName.isEmpty()) {
      continue;
    }
    Lines.insert(sName, _TableLine(sName, Row.sParams, Row.sHotkey.trimmed(), Row.sStatusTip.trimmed()));
    // An alias runs the same row, so it is listed under its own name too.
    QString sAlias = GetAliasName(Id);
    if (!sAlias.isEmpty()) {
      Lines.insert(sAlias, _TableLine(sAlias, Row.sParams, Row.sHotkey.trimmed(), Row.sStatusTip.trimmed()));
    }
  }
  QStringList Table;
  Table << _TableLine("Command", "Arguments", "Hotkey", "Description");
  Table << Lines.values();
  return Table;
}

void CCommandConsole::OnActionHelpTriggered() {
  ConsolePrintLines(BuildCommandTable(), GetColor(COLOR_LOGGING_USER));
}
