// The module state of the project script, its load and close, the event functions and the
// stand-alone run of a script file.
#include "script/ZvScript.h"

#include <QFile>
#include <QFileInfo>
#include <QHash>
#include <cstring>
#include <memory>
#include <new>

#include "app/actions/CommandConsole.h"
#include "app/base/Log.h"
#include "script/ScriptBinding.h"
#include "script/ScriptCore.h"

const SCRIPT_EVENT g_aScriptEvents[kNumScriptEvents] = {
    {SF_PROJECT_LOAD, "SF_PROJECT_LOAD", "void OnProjectLoad (void);"},
    {SF_TARGET_RESET, "SF_TARGET_RESET", "void TargetReset (void);"},
    {SF_BEFORE_TARGET_RESET, "SF_BEFORE_TARGET_RESET", "void BeforeTargetReset (void);"},
    {SF_AFTER_TARGET_RESET, "SF_AFTER_TARGET_RESET", "void AfterTargetReset (void);"},
    {SF_DEBUG_START, "SF_DEBUG_START", "void DebugStart (void);"},
    {SF_TARGET_CONNECT, "SF_TARGET_CONNECT", "void TargetConnect (void);"},
    {SF_BEFORE_TARGET_CONNECT, "SF_BEFORE_TARGET_CONNECT", "void BeforeTargetConnect (void);"},
    {SF_AFTER_TARGET_CONNECT, "SF_AFTER_TARGET_CONNECT", "void AfterTargetConnect (void);"},
    {SF_TARGET_DOWNLOAD, "SF_TARGET_DOWNLOAD", "void TargetDownload (void);"},
    {SF_BEFORE_TARGET_DOWNLOAD, "SF_BEFORE_TARGET_DOWNLOAD", "void BeforeTargetDownload (void);"},
    {SF_AFTER_TARGET_DOWNLOAD, "SF_AFTER_TARGET_DOWNLOAD", "void AfterTargetDownload (void);"},
    {SF_BEFORE_TARGET_DISCONNECT, "SF_BEFORE_TARGET_DISCONNECT", "void BeforeTargetDisconnect (void);"},
    {SF_AFTER_TARGET_DISCONNECT, "SF_AFTER_TARGET_DISCONNECT", "void AfterTargetDisconnect (void);"},
    {SF_AFTER_TARGET_HALT, "SF_AFTER_TARGET_HALT", "void AfterTargetHalt (void);"},
    {SF_BEFORE_TARGET_RESUME, "SF_BEFORE_TARGET_RESUME", "void BeforeTargetResume (void);"},
};

namespace {

constexpr int kMaxErrorSource = 512;
constexpr int kMaxFunctionName = 50;

// Everything one loaded script needs. The project script is one instance; a stand-alone run of a
// script file has its own, so that it neither replaces nor disturbs the project's.
struct SCRIPT_STATE {
  std::unique_ptr<U8[]> pHeap;
  CTrans* pContext = nullptr;
  QByteArray ScriptText;  // the interpreter keeps pointers into it
  size_t TextHash = 0;
  QString FilePath;
  int ErrorFlag = 0;
  QString ErrorText;
  QString ErrorSource;
  int ErrorLine = -1;
  U64 ErrorSerial = 0;  // counts the errors, so that each is printed once
  int CallLevel = 0;
  int CurrentFunction = -1;
  int CloseRequested = 0;
};

// A load or close asked for while an event function ran.
struct PENDING_REQUEST {
  enum KIND { NONE, CLOSE, LOAD_TEXT, LOAD_FILE } Kind = NONE;
  QString sTextOrPath;
};

SCRIPT_STATE _Project;
PENDING_REQUEST _Pending;
U64 _PrintedErrorSerial = 0;
std::function<void()> _pfErrorShown;

void _LogDebug(const QString& sText) {
  LogMessage(sText, MSG_INFO | MSG_TO_LOGFILE);
}

void _LogWarning(const QString& sText) {
  LogMessage(sText, MSG_WARNING | MSG_TO_STDOUT | MSG_TO_LOGFILE);
}

void _SetError(SCRIPT_STATE& S, const QString& sText, const QString& sSource, int Line) {
  S.ErrorText = sText;
  S.ErrorSource = sSource;
  S.ErrorLine = Line;
  S.ErrorFlag = 1;
  ++S.ErrorSerial;
}

void _OnScriptError(CTrans* pContext) {
  auto* pState = static_cast<SCRIPT_STATE*>(pContext->pHostData);
  if (pState == nullptr) {
    return;
  }
  const char* sStart = pContext->pLineStart ? pContext->pLineStart : pContext->pSource;
  const char* sEnd = sStart;
  while (*sEnd != 0 && *sEnd != ';' && sEnd - sStart < kMaxErrorSource) {
    ++sEnd;
  }
  _SetError(*pState, QString::fromUtf8(pContext->sError ? pContext->sError : ""),
            QString::fromUtf8(sStart, int(sEnd - sStart)), pContext->Line);
}

// Frees the block and the text, and the context with them.
void _FreeBlock(SCRIPT_STATE& S) {
  S.pContext = nullptr;
  S.pHeap.reset();
  S.ScriptText.clear();
}

// Ends the old script and resets all state, except the file path. Only called when no function of
// this state runs: every caller defers while CallLevel is above zero. Waiting here for a running
// function to end could not help, since that function lies below us on the same thread's stack.
void _CloseOld(SCRIPT_STATE& S) {
  const QString FilePath = S.FilePath;
  if (S.pContext != nullptr) {
    _LogDebug("Script waiting to close.");
    S.CloseRequested = 1;
    ScriptRequestStop(S.pContext);
  }
  const bool HadScript = S.pHeap != nullptr;
  const U64 ErrorSerial = S.ErrorSerial;
  S = SCRIPT_STATE();
  S.ErrorSerial = ErrorSerial;
  if (HadScript) {
    _LogDebug("Script closed.");
  }
  S.FilePath = FilePath;
}

SCRIPT_FUNCTION* _FindScriptFunction(const SCRIPT_STATE& S, const QString& sName) {
  if (S.pContext == nullptr) {
    return nullptr;
  }
  const QByteArray Name = sName.toUtf8();
  for (SCRIPT_SYMBOL* pSym = S.pContext->pGlobals; pSym != nullptr; pSym = pSym->pNext) {
    if (strcmp(pSym->sName, Name.constData()) == 0) {  // the first of a name is the one that counts
      auto* pFunction = static_cast<SCRIPT_FUNCTION*>(pSym);
      return pSym->Kind == SCRIPT_KIND_FUNCTION && pFunction->pBody != nullptr ? pFunction : nullptr;
    }
  }
  return nullptr;
}

int _LoadText(SCRIPT_STATE& S, const QString& sText) {
  _CloseOld(S);
  if (sText.isEmpty()) {
    _SetError(S, "empty file", QString(), -1);
    _LogDebug("Script file not parsed. Empty script text");
    return -1;
  }
  S.pHeap.reset(new (std::nothrow) U8[SCRIPT_HEAP_SIZE]());
  S.ScriptText = sText.toUtf8();
  S.TextHash = qHash(S.ScriptText);
  S.pContext = S.pHeap ? ScriptInit(S.pHeap.get(), S.ScriptText.constData(), _OnScriptError) : nullptr;
  if (S.pContext == nullptr) {
    _LogWarning("Script file not parsed. could not allocate script heap");
    _FreeBlock(S);
    _SetError(S, "could not allocate script heap", QString(), -1);
    return -1;
  }
  S.pContext->pHostData = &S;
  if (ScriptAddConstants(S.pContext) < 0) {
    _LogWarning("Script constants incomplete: the script heap is full");
  }
  ScriptAddApi(S.pContext);
  if (ScriptParse(S.pContext) == 0) {
    S.CloseRequested = 0;
    S.ErrorFlag = 0;
    return 0;
  }
  _LogWarning("Script file not parsed. could not create globals");
  _FreeBlock(S);
  S.ErrorFlag = 1;
  return -1;
}

// Reads a file as the text of a script; false (with the error set) if it is missing or no file.
bool _ReadScriptFile(SCRIPT_STATE& S, const QString& sPath, QString* pText) {
  QFileInfo Info(sPath);
  QFile File(sPath);
  if (!Info.exists() || !Info.isFile() || !File.open(QIODevice::ReadOnly)) {
    _SetError(S, "file not found", QString(), -1);
    return false;
  }
  *pText = QString::fromUtf8(File.readAll());
  return true;
}

// The load of a project file: the file's text, which must define OnProjectLoad.
int _LoadFile(SCRIPT_STATE& S, const QString& sPath) {
  S.FilePath = sPath;
  S.CloseRequested = 0;
  QString sText;
  int r = -1;
  if (_ReadScriptFile(S, sPath, &sText)) {
    r = _LoadText(S, sText);
  } else {
    _CloseOld(S);
    _SetError(S, "file not found", QString(), -1);
  }
  if (r < 0) {
    _LogWarning("ZvScript::Load: could not load project file");
    return -1;
  }
  const char* sRequired = g_aScriptEvents[SF_PROJECT_LOAD - 1].sPrototype;
  if (_FindScriptFunction(S, ScriptGetFunctionName(SF_PROJECT_LOAD)) == nullptr) {
    _SetError(S, QString("Required user function missing: ") + sRequired, QString(), -1);
    return -1;
  }
  return 0;
}

QString _ErrorForDisplay(const SCRIPT_STATE& S) {
  if (!S.ErrorFlag) {
    return QString();
  }
  QString sText = S.ErrorText.simplified().remove('.');
  // Some messages name their line themselves ("missing "while" at line 3"); it is said once.
  const QString sAtLine = QString(" at line %1").arg(S.ErrorLine);
  if (S.ErrorLine >= 0 && !sText.endsWith(sAtLine)) {
    sText += sAtLine;
  }
  return sText;
}

// Remembers a load or close asked for while a function runs, and stops the running script.
int _Defer(PENDING_REQUEST::KIND Kind, const QString& sTextOrPath) {
  _Pending.Kind = Kind;
  _Pending.sTextOrPath = sTextOrPath;
  _Project.CloseRequested = 1;
  if (_Project.pContext != nullptr) {
    ScriptRequestStop(_Project.pContext);
  }
  _LogDebug("Script waiting to close.");
  return kScriptDeferred;
}

void _RunPending() {
  const PENDING_REQUEST Request = _Pending;
  _Pending = PENDING_REQUEST();
  switch (Request.Kind) {
    case PENDING_REQUEST::CLOSE:
      ScriptClose();
      break;
    case PENDING_REQUEST::LOAD_TEXT:
      ScriptLoadText(Request.sTextOrPath);
      break;
    case PENDING_REQUEST::LOAD_FILE:
      ScriptLoadFile(Request.sTextOrPath);
      break;
    case PENDING_REQUEST::NONE:
      break;
  }
}

const SCRIPT_EVENT* _FindEvent(int Id) {
  for (const SCRIPT_EVENT& Event : g_aScriptEvents) {
    if (Event.ID == Id) {
      return &Event;
    }
  }
  return nullptr;
}

}  // namespace

int ScriptLoadFile(const QString& sPath) {
  if (_Project.CallLevel > 0) {
    return _Defer(PENDING_REQUEST::LOAD_FILE, sPath);
  }
  return _LoadFile(_Project, sPath);
}

int ScriptLoadText(const QString& sText) {
  if (_Project.CallLevel > 0) {
    return _Defer(PENDING_REQUEST::LOAD_TEXT, sText);
  }
  return _LoadText(_Project, sText);
}

int ScriptReloadIfChanged() {
  const QString sPath = _Project.FilePath;
  if (sPath.isEmpty()) {
    return 0;  // a new project has no file that could have changed
  }
  QFileInfo Info(sPath);
  if (!sPath.isEmpty() && Info.exists() && Info.isFile()) {
    QFile File(sPath);
    if (File.open(QIODevice::ReadOnly) &&
        qHash(QString::fromUtf8(File.readAll()).toUtf8()) == _Project.TextHash) {
      return 0;
    }
  }
  _Project.CloseRequested = 0;
  ScriptLoadFile(sPath);
  return 1;
}

int ScriptSaveText(const QString& sPath) {
  QFile File(sPath);
  if (!File.open(QIODevice::WriteOnly | QIODevice::Truncate | QIODevice::Text) ||
      File.write(_Project.ScriptText) != _Project.ScriptText.size()) {
    return -1;
  }
  _Project.FilePath = sPath;
  _Project.TextHash = qHash(_Project.ScriptText);
  return 0;
}

int ScriptClose() {
  if (_Project.CallLevel > 0) {
    return _Defer(PENDING_REQUEST::CLOSE, QString());
  }
  _CloseOld(_Project);
  _Project.FilePath.clear();
  return 0;
}

bool ScriptExists(int Id) {
  if (_Project.pContext == nullptr || _Project.ErrorFlag || _Project.CloseRequested) {
    return false;
  }
  const QString sName = ScriptGetFunctionName(Id);
  return !sName.isEmpty() && _FindScriptFunction(_Project, sName) != nullptr;
}

int ScriptExec(int Id) {
  SCRIPT_STATE& S = _Project;
  if (S.pContext == nullptr) {
    _LogDebug("Cannot execute script function: pCTrans is NULL");
    return -1;
  }
  if (S.CloseRequested) {
    _LogDebug("Cannot execute script function: close was requested");
    return 0;
  }
  if (S.ErrorFlag) {
    _LogDebug("Cannot execute script function: script file has error");
    return -1;
  }
  if (Id > kNumScriptEvents) {
    _LogDebug("Cannot execute script function: invalid function ID");
    return 0;
  }
  if (S.CallLevel > kMaxScriptCallLevel) {
    const QString sText = QString("Error executing script function \"%1\": maximum call level reached.")
                              .arg(ScriptGetFunctionName(S.CurrentFunction));
    _LogWarning(sText);
    ConsoleError(sText);
    return -1;
  }
  const SCRIPT_EVENT* pEvent = _FindEvent(Id);
  if (pEvent == nullptr) {
    _LogWarning("Cannot execute unknown script function");
    return -1;
  }
  const QByteArray Name = ScriptGetFunctionName(Id).toUtf8();
  if (Name.isEmpty()) {
    _LogDebug("Cannot execute script function: invalid function prototype");
    return -1;
  }
  ++S.CallLevel;
  const int Previous = S.CurrentFunction;
  S.CurrentFunction = Id;
  int r = -1;
  // A division by zero is reported as the processor's fault would be: the function, not the line.
  bool Fault = false;
  try {
    r = ScriptRun(S.pContext, Name.constData());
    Fault = S.pContext != nullptr && S.pContext->ArithmeticFault;
  } catch (...) {
    Fault = true;
  }
  if (Fault) {
    _SetError(S, QString("Error in script function ") + pEvent->sPrototype, QString(), -1);
    r = -1;
  }
  S.CurrentFunction = Previous;
  if (--S.CallLevel == 0 && _Pending.Kind != PENDING_REQUEST::NONE) {
    _RunPending();
  }
  return r;
}

int RunEvent(int Id) {
  if (_Project.ErrorFlag || _Project.CloseRequested) {
    _LogWarning("Not executing script function: " + ScriptGetFunctionName(Id) +
                (_Project.ErrorFlag ? ". Project file contains errors" : ". Project is about to close"));
    return -1;
  }
  const int r = ScriptExec(Id);
  // A nested event prints its own error; the functions it ran within only fail with it.
  if (_Project.ErrorFlag && _Project.ErrorSerial != _PrintedErrorSerial) {
    _PrintedErrorSerial = _Project.ErrorSerial;
    if (_pfErrorShown) {
      _pfErrorShown();
    }
    ConsoleError("Error in project file: " + ScriptGetError());
  }
  return r;
}

bool HasEvent(int Id) {
  return ScriptExists(Id);
}

void ScriptSetErrorShownHook(std::function<void()> pfShown) {
  _pfErrorShown = std::move(pfShown);
}

int ScriptCallLevel() {
  return _Project.CallLevel;
}

int ScriptCurrentFunction() {
  return _Project.CurrentFunction;
}

bool ScriptIsLoaded() {
  return _Project.pContext != nullptr;
}

bool ScriptHasError() {
  return _Project.ErrorFlag != 0;
}

bool ScriptIsCloseRequested() {
  return _Project.CloseRequested != 0;
}

QString ScriptGetFilePath() {
  return _Project.FilePath;
}

QString ScriptGetText() {
  return QString::fromUtf8(_Project.ScriptText);
}

QString ScriptGetError() {
  return _ErrorForDisplay(_Project);
}

QString ScriptGetErrorSource() {
  return _Project.ErrorSource;
}

int ScriptGetErrorLine() {
  return _Project.ErrorLine;
}

QString ScriptGetFunctionName(int Id) {
  const SCRIPT_EVENT* pEvent = _FindEvent(Id);
  if (pEvent == nullptr) {
    return QString();
  }
  const QString sProto = QString::fromLatin1(pEvent->sPrototype);
  const int Open = sProto.indexOf('(');
  if (Open < 0) {
    return QString();
  }
  const QString sHead = sProto.left(Open).trimmed();
  return sHead.mid(sHead.lastIndexOf(' ') + 1).left(kMaxFunctionName);
}

int ZvScriptRunFile(const QString& sPath, const QString& sFunction) {
  const QString sName = sFunction.isEmpty() ? QString("main") : sFunction;
  auto Report = [&sPath](const QString& sError) {
    ConsoleError(QString("Error in script file \"%1\": %2").arg(sPath, sError));
    return -1;
  };
  SCRIPT_STATE S;
  QString sText;
  if (!_ReadScriptFile(S, sPath, &sText)) {
    return Report(_ErrorForDisplay(S));
  }
  if (_LoadText(S, sText) < 0) {
    return Report(_ErrorForDisplay(S));
  }
  if (_FindScriptFunction(S, sName) == nullptr) {
    return Report(QString("function \"%1\" not found").arg(sName));
  }
  const QByteArray Name = sName.toUtf8();
  ++S.CallLevel;
  int r = -1;
  bool Fault = false;
  try {
    r = ScriptRun(S.pContext, Name.constData());
    Fault = S.pContext->ArithmeticFault != 0;
  } catch (...) {
    Fault = true;
  }
  if (Fault) {
    _SetError(S, "Error in script function " + sName, QString(), -1);
  }
  --S.CallLevel;
  if (S.ErrorFlag) {
    return Report(_ErrorForDisplay(S));
  }
  return r == 0 ? 0 : -1;
}

SCRIPT_RUN_OPTIONS ParseScriptRunOptions(const QStringList& Args) {
  SCRIPT_RUN_OPTIONS Options;
  for (int i = 1; i < Args.size(); ++i) {
    const bool IsFile = Args[i] == "--script";
    if (!IsFile && Args[i] != "--script-function") {
      continue;
    }
    if (i + 1 >= Args.size() || Args[i + 1].startsWith("--")) {
      Options.sError = QString("%1 needs a %2").arg(Args[i], IsFile ? "file name" : "function name");
      continue;
    }
    (IsFile ? Options.sFile : Options.sFunction) = Args[++i];
  }
  if (Options.sError.isEmpty() && Options.sFile.isEmpty() && !Options.sFunction.isEmpty()) {
    Options.sError = "--script-function needs --script FILE";
  }
  return Options;
}

int ZvScriptRunFromArguments(const QStringList& Args) {
  const SCRIPT_RUN_OPTIONS Options = ParseScriptRunOptions(Args);
  if (!Options.sError.isEmpty()) {
    ConsoleError(Options.sError);
    return -1;
  }
  if (Options.sFile.isEmpty()) {
    return 1;
  }
  return ZvScriptRunFile(Options.sFile, Options.sFunction);
}
