// The action table mechanism: linking, look-ups, arguments, errors, results, dispatch and the
// canonical command text.
#include "app/actions/ActionTable.h"

#include <QAction>
#include <QHash>
#include <QKeySequence>
#include <QMetaObject>
#include <QSet>
#include <QWidget>
#include <algorithm>

#include "app/base/ConsoleCore.h"
#include "app/base/Log.h"
#include "app/tables/SettingsTables.h"

namespace {

const GUI_ACTION _Sentinel = {kSentinelActionId, 0, 0, nullptr, {}, {}, {}, {}, {}, {}, {}, nullptr, {0, 0}};

// Keyed by the action as a QObject: a destroyed action is only a QObject by the time it is forgotten.
QHash<const QObject*, int> _ActionToId;
QHash<int, int> _Results;
QStringList _UnlinkedNames;
bool _aPermitted[kNumActions];
U64 _ResultSerial = 0;
U64 _ErrorSerial = 0;
std::function<QString(const QString&)> _NormalizeSourceLocation;

bool _IsValidId(int Id) {
  return Id >= 0 && Id < kNumActions;
}

QString _ParamListText(int Id) {
  const QString& sProto = g_aActions[Id].sPrototype;
  int Open = sProto.indexOf('(');
  int Close = sProto.lastIndexOf(')');
  if (Open < 0 || Close < Open) {
    return QString();
  }
  return sProto.mid(Open + 1, Close - Open - 1).trimmed();
}

QStringList _Params(int Id) {
  QString sList = _ParamListText(Id);
  if (sList.isEmpty() || sList.compare("void", Qt::CaseInsensitive) == 0) {
    return {};
  }
  QStringList Params = sList.split(',');
  for (QString& s : Params) {
    s = s.trimmed();
  }
  return Params;
}

QString _StripOneQuotePair(QString s) {
  if (s.startsWith('"')) {
    s.remove(0, 1);
  }
  if (s.endsWith('"')) {
    s.chop(1);
  }
  return s;
}

QString _VariantText(const QVariant& v) {
  return v.toString();
}

QStringList _VariantsToList(std::initializer_list<const QVariant*> Values, bool StripQuotes) {
  QStringList List;
  for (const QVariant* p : Values) {
    if (!p->isValid()) {
      continue;
    }
    QString s = _VariantText(*p);
    if (StripQuotes) {
      s.remove(QChar(0x2008));
      s = _StripOneQuotePair(s);
    }
    List << s;
  }
  return List;
}

// Splits at Separator, but not inside double quotes.
// Splits at Separator outside double quotes; a blank separator also splits at tabs.
QStringList _SplitOutsideQuotes(const QString& sText, QChar Separator, bool SkipEmpty) {
  QStringList Parts;
  QString sCurrent;
  bool InQuotes = false;
  for (QChar c : sText) {
    if (c == '"') {
      InQuotes = !InQuotes;
    }
    const bool IsSeparator = c == Separator || (Separator == ' ' && c == '\t');
    if (IsSeparator && !InQuotes) {
      if (!(SkipEmpty && sCurrent.trimmed().isEmpty())) {
        Parts << sCurrent;
      }
      sCurrent.clear();
    } else {
      sCurrent += c;
    }
  }
  if (!(SkipEmpty && sCurrent.trimmed().isEmpty())) {
    Parts << sCurrent;
  }
  return Parts;
}

void _Forget(QObject* pObject) {
  auto It = _ActionToId.find(pObject);
  if (It == _ActionToId.end()) {
    return;
  }
  int Id = It.value();
  _ActionToId.erase(It);
  if (_IsValidId(Id) && static_cast<QObject*>(g_aActions[Id].pAction) == pObject) {
    g_aActions[Id].pAction = nullptr;
  }
}

void _Bind(int Id, QAction* pAction) {
  GUI_ACTION& Row = g_aActions[Id];
  if (Row.pAction && Row.pAction != pAction) {
    _ActionToId.remove(Row.pAction);
  }
  pAction->setShortcut(QKeySequence(Row.sHotkey));
  pAction->setStatusTip(Row.sStatusTip);
  QString sToolTip = Row.sToolTip;
  if (!pAction->shortcut().isEmpty()) {
    sToolTip += " (" + pAction->shortcut().toString(QKeySequence::PortableText) + ")";
  }
  pAction->setToolTip(sToolTip);
  _aPermitted[Id] = pAction->isEnabled();
  Row.pAction = pAction;
  _ActionToId.insert(pAction, Id);
  static QObject Watcher;  // outlives every action; receives their destruction
  static QSet<const QObject*> Watched;
  if (!Watched.contains(pAction)) {
    Watched.insert(pAction);
    QObject::connect(pAction, &QObject::destroyed, &Watcher, [](QObject* p) {
      Watched.remove(p);
      _Forget(p);
    });
  }
}

int _FindRowByObjectName(const QString& sName) {
  for (int Id = 0; Id < kNumActions; ++Id) {
    if (g_aActions[Id].sObjectName.compare(sName, Qt::CaseInsensitive) == 0) {
      return Id;
    }
  }
  return -1;
}

}  // namespace

QAction* GetAction(int Id) {
  return _IsValidId(Id) ? g_aActions[Id].pAction : nullptr;
}

GUI_ACTION GetRow(int Id) {
  return _IsValidId(Id) ? g_aActions[Id] : _Sentinel;
}

GUI_ACTION GetRowByHotkey2(const QString& sKey) {
  if (sKey.isEmpty()) {
    return _Sentinel;
  }
  for (int Id = 0; Id < kNumActions; ++Id) {
    if (!g_aActions[Id].sHotkey2.isEmpty() && g_aActions[Id].sHotkey2 == sKey) {
      return g_aActions[Id];
    }
  }
  return _Sentinel;
}

int GetActionID(const QAction* pAction) {
  return _ActionToId.value(pAction, -1);
}

void LinkActions(QWidget* pOwner) {
  if (pOwner == nullptr) {
    return;
  }
  for (QAction* pAction : pOwner->findChildren<QAction*>()) {
    QString sName = pAction->objectName();
    int Id = sName.isEmpty() ? -1 : _FindRowByObjectName(sName);
    if (Id >= 0) {
      _Bind(Id, pAction);
    } else if (!sName.isEmpty() && !_UnlinkedNames.contains(sName)) {
      _UnlinkedNames << sName;
    }
  }
}

void LinkActionsToPluginWindow(QWidget* pOwner) {
  if (pOwner == nullptr) {
    return;
  }
  for (QAction* pAction : pOwner->findChildren<QAction*>()) {
    int Id = _FindRowByObjectName(pAction->objectName());
    if (Id >= 0) {
      _Bind(Id, pAction);
    }
  }
}

void ReportUnlinkedActions() {
  for (const QString& sName : _UnlinkedNames) {
    LogMessage("Unknown GUI action could not be linked: " + sName, MSG_WARNING | MSG_TO_ALL);
  }
  _UnlinkedNames.clear();
}

QStringList GetUnlinkedActionNames() {
  return _UnlinkedNames;
}

void UnlinkAllActions() {
  for (int Id = 0; Id < kNumActions; ++Id) {
    g_aActions[Id].pAction = nullptr;
    _aPermitted[Id] = false;
  }
  _ActionToId.clear();
  _UnlinkedNames.clear();
  _Results.clear();
}

void SetCommandPermitted(int Id, bool Permitted) {
  if (_IsValidId(Id)) {
    _aPermitted[Id] = Permitted;
  }
}

bool IsCommandPermitted(int Id) {
  return _IsValidId(Id) && _aPermitted[Id];
}

QString GetFunctionName(int Id) {
  if (!_IsValidId(Id)) {
    return QString();
  }
  QString sProto = g_aActions[Id].sPrototype;
  int Open = sProto.indexOf('(');
  if (Open < 0) {
    return QString();
  }
  QString sHead = sProto.left(Open).trimmed();
  int Blank = sHead.lastIndexOf(' ');
  return Blank >= 0 ? sHead.mid(Blank + 1) : sHead;
}

QString GetAliasName(int Id) {
  QString sName = GetFunctionName(Id);
  if (sName.isEmpty()) {
    return QString();
  }
  for (const ACTION_ALIAS& Alias : g_aActionAliases) {
    if (sName.compare(Alias.sName, Qt::CaseInsensitive) == 0) {
      return Alias.sAlias;
    }
    if (sName.compare(Alias.sAlias, Qt::CaseInsensitive) == 0) {
      return Alias.sName;
    }
  }
  return QString();
}

QString GetAliasPrototype(int Id) {
  QString sAlias = GetAliasName(Id);
  if (sAlias.isEmpty()) {
    return QString();
  }
  QString sProto = g_aActions[Id].sPrototype;
  QString sName = GetFunctionName(Id);
  int At = sProto.indexOf(sName);
  return At < 0 ? QString() : sProto.replace(At, sName.size(), sAlias);
}

int GetParamCount(int Id) {
  return _IsValidId(Id) ? int(_Params(Id).size()) : 0;
}

bool IsStringParam(int Id, int Index) {
  if (!_IsValidId(Id)) {
    return false;
  }
  QStringList Params = _Params(Id);
  if (Index < 0 || Index >= Params.size()) {
    return false;
  }
  QString sParam = Params[Index];
  sParam.remove(' ');
  return sParam.contains("char*");
}

int FindRowForCommand(const QString& sName, int Count) {
  if (sName.isEmpty()) {
    return -1;
  }
  int Last = -1;
  int Exact = -1;
  for (int Id = 0; Id < kNumActions; ++Id) {
    QString sRowName = GetFunctionName(Id);
    if (sRowName.isEmpty()) {
      continue;
    }
    if (sRowName.compare(sName, Qt::CaseInsensitive) != 0 &&
        GetAliasName(Id).compare(sName, Qt::CaseInsensitive) != 0) {
      continue;
    }
    Last = Id;
    if (Exact < 0 && GetParamCount(Id) == Count) {
      Exact = Id;
    }
  }
  return Exact >= 0 ? Exact : Last;
}

void SetArguments(int Id, const QVariant& v0, const QVariant& v1, const QVariant& v2, const QVariant& v3,
                  const QVariant& v4, const QVariant& v5, const QVariant& v6) {
  SetArgumentList(Id, _VariantsToList({&v0, &v1, &v2, &v3, &v4, &v5, &v6}, true));
}

void SetArgumentList(int Id, const QStringList& Args) {
  if (QAction* pAction = GetAction(Id)) {
    pAction->setData(Args);
  }
}

void ClearArguments(int Id) {
  if (QAction* pAction = GetAction(Id)) {
    pAction->setData(QVariant());
    pAction->setWhatsThis(QString());
  }
}

void MarkCancelled(int Id) {
  if (QAction* pAction = GetAction(Id)) {
    pAction->setData(int(0));
  }
}

bool IsCancelled(int Id) {
  QAction* pAction = GetAction(Id);
  return pAction && pAction->data().typeId() == QMetaType::Int && pAction->data().toInt() == 0;
}

QStringList GetArguments(int Id) {
  QAction* pAction = GetAction(Id);
  if (pAction == nullptr || pAction->data().typeId() != QMetaType::QStringList) {
    return {};
  }
  QStringList Args = pAction->data().toStringList();
  for (QString& s : Args) {
    s.remove('"');
  }
  return Args;
}

bool CheckParamCount(int Id, int MinCount) {
  int Max = GetParamCount(Id);
  if (MinCount < 0) {
    MinCount = Max;
  }
  int Count = int(GetArguments(Id).size());
  if (Count < MinCount || Count > Max) {
    SetError(Id, "wrong parameter count");
    return false;
  }
  return true;
}

QString GetFirstArgument(int Id) {
  QAction* pAction = GetAction(Id);
  if (pAction == nullptr || pAction->data().typeId() != QMetaType::QStringList) {
    return QString();
  }
  QStringList Args = GetArguments(Id);
  if (Args.size() != 1) {
    SetError(Id, "wrong parameter count");
    return QString();
  }
  return Args[0];
}

QString ArgumentForError(const QString& sArg) {
  if (sArg.isEmpty() || sArg.contains(' ') || sArg.contains('\t')) {
    return "\"" + sArg + "\"";
  }
  return sArg;
}

void SetError(int Id, const QString& sError, const QString& sDetail) {
  QAction* pAction = GetAction(Id);
  if (pAction == nullptr) {
    return;
  }
  pAction->setWhatsThis(sDetail.isEmpty() ? sError : sError + ": " + sDetail);
  if (!sError.isEmpty()) {
    ++_ErrorSerial;
  }
}

QString GetError(int Id) {
  QAction* pAction = GetAction(Id);
  return pAction ? pAction->whatsThis() : QString();
}

void SetResult(int Id, int Value) {
  if (_IsValidId(Id)) {
    _Results.insert(Id, Value);
    ++_ResultSerial;
  }
}

int GetResult(int Id) {
  return _Results.value(Id, 0);
}

U64 GetResultSerial() {
  return _ResultSerial;
}

U64 GetErrorSerial() {
  return _ErrorSerial;
}

void NoteCommandError() {
  ++_ErrorSerial;
}

int TriggerAction(int Id) {
  if (!_IsValidId(Id)) {
    return -1;
  }
  QAction* pAction = GetAction(Id);
  if (pAction == nullptr) {
    return -1;  // checked first: a row without action must not reach the permission report
  }
  if (!_aPermitted[Id]) {
    QString sName = GetFunctionName(Id);
    ConsolePrint((sName.isEmpty() ? g_aActions[Id].sObjectName : sName) + ": Command disabled",
                 QColor::fromRgba(kConsoleColorError));
    return -1;
  }
  if (pAction->isEnabled()) {
    pAction->trigger();
  } else {
    // A disabled QAction ignores trigger(); a row grey in the menu still runs from a command, so its
    // signal is raised directly. The slots connected to it run in order, inside this call.
    QMetaObject::invokeMethod(pAction, "triggered", Qt::DirectConnection, Q_ARG(bool, pAction->isChecked()));
  }
  return 0;
}

int PerformAction(int Id, const QVariant& v0, const QVariant& v1, const QVariant& v2, const QVariant& v3,
                  const QVariant& v4, const QVariant& v5, const QVariant& v6) {
  if (!_IsValidId(Id)) {
    return -1;
  }
  QStringList Args = _VariantsToList({&v0, &v1, &v2, &v3, &v4, &v5, &v6}, false);
  if (!Args.isEmpty()) {
    SetArgumentList(Id, Args);
  }
  if (TriggerAction(Id) < 0) {
    return -1;
  }
  return GetResult(Id);
}

void SetSourceLocationNormalizer(std::function<QString(const QString&)> Normalize) {
  _NormalizeSourceLocation = std::move(Normalize);
}

QString GetCommandTextFor(int Id, const QStringList& Args) {
  QString sName = GetFunctionName(Id);
  if (sName.isEmpty()) {
    return QString();
  }
  QStringList Texts;
  for (int i = 0; i < Args.size(); ++i) {
    QString s = Args[i];
    if (IsStringParam(Id, i)) {
      if (_NormalizeSourceLocation) {
        QString sNormal = _NormalizeSourceLocation(s);
        if (!sNormal.isEmpty()) {
          s = sNormal;
        }
      }
      s.remove('"');
      Texts << "\"" + s + "\"";
      continue;
    }
    QString sTrimmed = s.trimmed();
    if (const SYS_CONSTANT* pConstant = FindConstant(sTrimmed)) {
      Texts << QString::fromLatin1(pConstant->sName);
      continue;
    }
    // Read as the handlers read numbers: the echo shows the value the handler takes, or the text as
    // typed when the handler will refuse it.
    I64 Value = 0;
    if (TextToInt64(sTrimmed, nullptr) || !TextToCommandNumber(sTrimmed, &Value)) {
      Texts << s;
    } else {
      Texts << QString::number(Value);
    }
  }
  // More arguments than parameters can only end in "wrong parameter count"; they are still shown, so
  // the error line names what was typed.
  QString sJoined = Texts.join(", ");
  if (Texts.isEmpty()) {
    return sName + "();";
  }
  return sName + " (" + sJoined + ");";
}

QString GetCommandText(int Id) {
  QAction* pAction = GetAction(Id);
  QStringList Args;
  if (pAction && pAction->data().typeId() == QMetaType::QStringList) {
    Args = pAction->data().toStringList();
  }
  return GetCommandTextFor(Id, Args);
}

CONSOLE_LINE ParseConsoleLine(const QString& sLineIn) {
  CONSOLE_LINE Line;
  QString sLine = sLineIn.trimmed();
  int Open = sLine.indexOf('(');
  QString sArgs;
  bool HasArgs = false;
  if (Open >= 0) {
    QString sHead = sLine.left(Open);
    while (sHead.endsWith(' ') || sHead.endsWith('\t')) {
      sHead.chop(1);
    }
    int Blank = std::max(sHead.lastIndexOf(' '), sHead.lastIndexOf('\t'));
    Line.sName = Blank >= 0 ? sHead.mid(Blank + 1) : sHead;
    int Close = sLine.lastIndexOf(')');
    if (Close > Open + 1) {
      sArgs = sLine.mid(Open + 1, Close - Open - 1);
      HasArgs = !sArgs.trimmed().isEmpty();
    }
    if (HasArgs) {
      Line.Args = _SplitOutsideQuotes(sArgs, ',', false);
    }
  } else {
    const int Space = sLine.indexOf(' ');
    const int Tab = sLine.indexOf('\t');
    const int Blank = Space < 0 ? Tab : (Tab < 0 ? Space : std::min(Space, Tab));
    Line.sName = Blank >= 0 ? sLine.left(Blank) : sLine;
    if (Blank >= 0) {
      Line.Args = _SplitOutsideQuotes(sLine.mid(Blank + 1), ' ', true);
    }
  }
  for (QString& s : Line.Args) {
    s = _StripOneQuotePair(s.trimmed());
  }
  if (Line.Args.size() == 1 && Line.Args[0].compare("void", Qt::CaseInsensitive) == 0) {
    Line.Args.clear();
  }
  return Line;
}
