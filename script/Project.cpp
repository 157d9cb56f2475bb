// The open project: opening (deferred while a script runs), closing, generating and saving the project
// text, the user file, and the recent project list.
#include "script/Project.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QHash>

#include "app/base/Log.h"
#include "app/tables/SettingsStore.h"
#include "script/AtomicFile.h"
#include "script/FileFinder.h"
#include "script/ZvScript.h"

namespace {

constexpr int kBannerWidth = 70;
constexpr int kMaxRecent = 4;

struct EVENT_TEXT {
  int Id;
  const char* sDescription;
};

// The event functions of a generated project, in file order, with the description of their banner.
const EVENT_TEXT _aEventText[] = {
    {SF_PROJECT_LOAD, "Project load routine. Required."},
    {SF_TARGET_RESET, "Replaces the default target device reset routine. Optional."},
    {SF_BEFORE_TARGET_RESET, "Event handler routine. Optional."},
    {SF_AFTER_TARGET_RESET, "Event handler routine. Optional."},
    {SF_DEBUG_START, "Replaces the default debug session startup routine. Optional."},
    {SF_TARGET_CONNECT, "Replaces the default target IF connection routine. Optional."},
    {SF_BEFORE_TARGET_CONNECT, "Event handler routine. Optional."},
    {SF_AFTER_TARGET_CONNECT, "Event handler routine. Optional."},
    {SF_TARGET_DOWNLOAD, "Replaces the default program download routine. Optional."},
    {SF_BEFORE_TARGET_DOWNLOAD, "Event handler routine. Optional."},
    {SF_AFTER_TARGET_DOWNLOAD, "Event handler routine."},
    {SF_BEFORE_TARGET_DISCONNECT, "Event handler routine. Optional."},
    {SF_AFTER_TARGET_DISCONNECT, "Event handler routine. Optional."},
    {SF_AFTER_TARGET_HALT, "Event handler routine. Optional."},
};

QString _Pad(const QString& s) {
  return s.size() >= kBannerWidth ? s : s + QString(kBannerWidth - s.size(), ' ');
}

QStringList _Banner(const QString& sName, const QString& sDescription, const QStringList& Notes) {
  QStringList Lines;
  Lines << "/*" + QString(68, '*') << "*";
  // The two longest names are indented one blank less, so every name line has the same width.
  bool Long = sName == "TargetReset" || sName == "AfterTargetDownload";
  Lines << "*" + QString(Long ? 6 : 7, ' ') + sName << "*"
        << "* Function description"
        << "*   " + sDescription << "*";
  Lines << Notes;
  Lines << QString(kBannerWidth, '*') << "*/";
  return Lines;
}

QStringList _ResetSample(bool WithReset, const char* sLogText) {
  QStringList Body = {"  unsigned int SP;", "  unsigned int PC;", "  unsigned int VectorTableAddr;", ""};
  if (WithReset) {
    Body << "  Exec.Reset();";
  }
  Body << "  VectorTableAddr = Elf.GetBaseAddr();"
       << ""
       << "  if (VectorTableAddr != 0xFFFFFFFF) {" << QString("    Util.Log(\"%1\");").arg(sLogText)
       << "    SP = Target.ReadU32(VectorTableAddr);"
       << "    Target.SetReg(\"SP\", SP);"
       << "    PC = Target.ReadU32(VectorTableAddr + 4);"
       << "    Target.SetReg(\"PC\", PC);"
       << "  }"
       << "}";
  return Body;
}

QStringList _Template(int Id, const QString& sName, const QStringList& Settings, const QStringList& User) {
  if (Id == SF_PROJECT_LOAD) {
    QStringList Lines = {"void OnProjectLoad (void) {", "  //", "  // Dialog-generated settings", "  //"};
    for (const QString& s : Settings) {
      Lines << "  " + s;
    }
    Lines << "  //"
          << "  // User settings"
          << "  //";
    for (const QString& s : User) {
      Lines << "  " + s;
    }
    Lines << "}";
    return Lines;
  }
  if (Id == SF_TARGET_RESET || Id == SF_AFTER_TARGET_DOWNLOAD) {
    QStringList Sample = {"void " + sName + " (void) {", ""};
    Sample << _ResetSample(Id == SF_TARGET_RESET,
                           Id == SF_TARGET_RESET ? "Resetting Program." : "Initializing PC and SP.");
    QStringList Lines;
    for (const QString& s : Sample) {
      Lines << "//" + s;
    }
    return Lines;
  }
  return {"//void " + sName + " (void) {", "//}"};
}

QStringList _Notes(int Id) {
  if (Id == SF_TARGET_RESET) {
    return {"* Notes", "*   This example demonstrates the usage when",
            "*   debugging a RAM program on a Cortex-M target device", "*"};
  }
  if (Id == SF_AFTER_TARGET_DOWNLOAD) {
    return {"* Notes", "*   This sample implementation demonstrates the application",
            "*   initialization on a Cortex-M target.",
            "*   If no initialization can be done, Target.Reset() may be called."};
  }
  return {};
}

bool _WriteAtomically(const QString& sPath, const QByteArray& Bytes, QString* psError) {
  return WriteFileAtomically(sPath, Bytes, psError) == 0;
}

}  // namespace

CProject* CProject::Instance() {
  static CProject* pProject = new CProject();  // lives until the process ends
  return pProject;
}

CProject::CProject() {
  _OpenTimer.setInterval(10);
  connect(&_OpenTimer, &QTimer::timeout, this, &CProject::OnOpenTimeout);
}

QString CProject::GetFilePath() const {
  return ScriptGetFilePath();
}

QString CProject::GetProjectDir() const {
  static QHash<QString, QString> Cache;  // keyed by the lower-cased path
  QString sPath = GetFilePath();
  if (sPath.isEmpty()) {
    return QString();
  }
  QString sKey = sPath.toLower();
  auto It = Cache.find(sKey);
  if (It == Cache.end()) {
    It = Cache.insert(sKey, QFileInfo(sPath).canonicalPath());
  }
  return It.value();
}

QString CProject::GetUserFilePath(const QString& sProjectPath) {
  int Dot = sProjectPath.lastIndexOf('.');
  if (Dot < 0 || sProjectPath.indexOf('/', Dot) >= 0) {
    return QString();  // a path without a suffix has no user file
  }
  return sProjectPath.left(Dot + 1) + "zvproj.user";
}

QString CProject::GetSettingsFilePath() const {
  QString sPath = GetFilePath();
  if (!sPath.endsWith("zvproj")) {
    return QString();
  }
  sPath.chop(6);
  sPath += "tarvik";
  return QFileInfo(sPath).isFile() ? sPath : QString();
}

void CProject::SetModified(bool Modified) {
  _IsModified = Modified;
  if (!signalsBlocked()) {
    emit ModifiedChanged(Modified);
  }
}

int CProject::Open(const QString& sPath) {
  if (!QFileInfo(sPath).isFile()) {
    LogMessage("file not found: " + sPath, MSG_WARNING | MSG_TO_ALL);
    _IsOpen = false;
    SetModified(false);
    emit Opened(sPath);
    return -1;
  }
  Close();
  QString sAbsolute = QFileInfo(sPath).absoluteFilePath();
  GetFileFinder().SetProjectFile(sAbsolute);
  ScriptLoadFile(sAbsolute);
  _IsOpen = true;
  SetModified(false);
  emit Opened(sPath);
  return 0;
}

void CProject::OpenDeferred(const QString& sPath) {
  _sPendingFile = sPath;
  _OpenTimer.start();
}

void CProject::OnOpenTimeout() {
  if (ScriptCurrentFunction() != -1 || ScriptCallLevel() != 0) {
    return;  // a script function still runs; it may be the one that asked for this
  }
  _OpenTimer.stop();
  QString sPath = _sPendingFile;
  _sPendingFile.clear();
  Open(sPath);
}

void CProject::Close() {
  QString sPath = GetFilePath();
  ScriptClose();
  GetFileFinder().Reset();
  _sProgramFile.clear();
  _ProgramFileTime = QDateTime();
  _SvdFiles.clear();
  _IsOpen = true;  // after closing, an unnamed new project stands; those who hear of it see it so
  SetModified(false);
  emit Closed(sPath);
}

int CProject::NewFromCommands(const QStringList& Commands) {
  Close();
  if (ScriptLoadText(GenerateText(Commands)) < 0) {
    return -1;
  }
  SetModified(true);
  return 0;
}

QString CProject::GenerateText(const QStringList& Commands) {
  // A command that opens a file is the user's own: it goes behind the second comment.
  QStringList Settings, User;
  for (const QString& s : Commands) {
    if (s.trimmed().isEmpty()) {
      continue;
    }
    (s.contains("File.Open") ? User : Settings) << s.trimmed();
  }
  QStringList Sections;
  for (const EVENT_TEXT& e : _aEventText) {
    QString sName = ScriptGetFunctionName(e.Id);
    QStringList Lines = _Banner(sName, e.sDescription, _Notes(e.Id));
    Lines << _Template(e.Id, sName, Settings, User);
    QStringList Padded;
    for (const QString& s : Lines) {
      Padded << _Pad(s);
    }
    Sections << Padded.join('\n') + "\n";
  }
  return Sections.join('\n');
}

int CProject::Save(const QString& sPath, QString* psError) {
  if (ScriptGetText().isEmpty()) {
    // A new project: its text is made from what the session runs with.
    QStringList Commands;
    if (_pfSettingsCommands) {
      Commands << _pfSettingsCommands();
    }
    for (const QString& sSvd : _SvdFiles) {
      Commands << QString("Project.AddSvdFile (\"%1\");").arg(sSvd);
    }
    if (!_sProgramFile.isEmpty()) {
      Commands << QString("File.Open (\"%1\");").arg(_sProgramFile);
    }
    ScriptLoadText(GenerateText(Commands));
  }
  if (!_WriteAtomically(sPath, ScriptGetText().toUtf8(), psError)) {
    return -1;
  }
  // Path and text are remembered as the loaded file, so a later change on disk is noticed.
  ScriptSaveText(sPath);
  GetFileFinder().SetProjectFile(QFileInfo(sPath).absoluteFilePath());
  SetModified(false);
  return 0;
}

void CProject::SetProgramFile(const QString& sPath) {
  _sProgramFile = sPath;
  _ProgramFileTime = sPath.isEmpty() ? QDateTime() : QFileInfo(sPath).lastModified();
  GetFileFinder().SetProgramFile(sPath);
}

void CProject::AddSvdFile(const QString& sFile) {
  if (!_SvdFiles.contains(sFile)) {
    _SvdFiles << sFile;
  }
}

void CProject::ClearSvdFiles() {
  _SvdFiles.clear();
}

QStringList CProject::GetWarnings() const {
  QStringList Warnings;
  if (_SvdFiles.isEmpty()) {
    Warnings
        << "CPU register set description file not found (specify with 'Project.AddSvdFile') - debugging w/o "
           "core registers.";
  }
  for (const QString& s : _SvdFiles) {
    if (!QFileInfo(s).isFile()) {
      Warnings << "file not found: " + s;
    }
  }
  if (!_sProgramFile.isEmpty() && !QFileInfo(_sProgramFile).isFile()) {
    Warnings << "file not found: " + _sProgramFile;
  }
  return Warnings;
}

int CProject::UpdateProjectFile(const QString& sPath, const QStringList& NewLines, QString* psError) {
  QFile File(sPath);
  if (!File.open(QIODevice::ReadOnly)) {
    if (psError) {
      *psError = sPath + ": " + File.errorString();
    }
    return -1;
  }
  QStringList Lines = QString::fromUtf8(File.readAll()).split('\n');
  File.close();
  int Head = -1;
  for (int i = 0; i < Lines.size() && Head < 0; ++i) {
    if (Lines[i].contains("OnProjectLoad")) {
      Head = i;
    }
  }
  int Open = -1;
  for (int i = std::max(Head, 0); Head >= 0 && i < Lines.size(); ++i) {
    if (Lines[i].contains('{')) {
      Open = i;
      break;
    }
  }
  if (Open < 0) {
    if (psError) {
      *psError = "Could not determine text position of function body start";
    }
    return -1;
  }
  int Depth = 0;
  int Close = -1;
  for (int i = Open; i < Lines.size() && Close < 0; ++i) {
    Depth += int(Lines[i].count('{')) - int(Lines[i].count('}'));
    if (Depth <= 0) {
      Close = i;
    }
  }
  if (Close < 0) {
    if (psError) {
      *psError = "Could not determine text position of function body end";
    }
    return -1;
  }
  static const char* const aTraceRows[] = {"Project.SetTraceSource", "Project.SetTraceTiming",
                                           "Project.SetTracePortWidth", "Project.ConfigSWO"};
  for (int i = Close - 1; i > Open; --i) {
    for (const char* s : aTraceRows) {
      if (Lines[i].contains(s)) {
        Lines.removeAt(i);
        --Close;
        break;
      }
    }
  }
  int Insert = Close;
  for (int i = Open + 1; i < Close; ++i) {
    if (Lines[i].contains("Project.SetTIFSpeed")) {
      Insert = i + 1;
    }
  }
  for (int i = NewLines.size() - 1; i >= 0; --i) {
    Lines.insert(Insert, "  " + NewLines[i]);
  }
  return _WriteAtomically(sPath, Lines.join('\n').toUtf8(), psError) ? 0 : -1;
}

QStringList CProject::GetRecentProjects() {
  return LoadValue({"AppData"}, "RecentProjects").toStringList();
}

void CProject::AddRecentProject(const QString& sPath) {
  QStringList List = GetRecentProjects();
  List.removeAll(sPath);
  List.prepend(sPath);
  while (List.size() > kMaxRecent) {
    List.removeLast();
  }
  StoreValue({"AppData"}, "RecentProjects", List);
}

void CProject::ReplaceRecentProject(const QString& sOld, const QString& sNew) {
  QStringList List = GetRecentProjects();
  int i = int(List.indexOf(sOld));
  if (i >= 0) {
    List[i] = sNew;
    List.removeDuplicates();
    StoreValue({"AppData"}, "RecentProjects", List);
  } else {
    AddRecentProject(sNew);
  }
}

QList<CProject::USER_WINDOW> CProject::ReadUserFile(const QString& sPath) {
  QList<USER_WINDOW> Windows;
  QFile File(sPath);
  if (!File.open(QIODevice::ReadOnly)) {
    return Windows;
  }
  for (QString sLine : QString::fromUtf8(File.readAll()).split('\n')) {
    int Comment = sLine.indexOf("//");
    int Hash = sLine.indexOf('#');
    if (Hash >= 0 && (Comment < 0 || Hash < Comment)) {
      Comment = Hash;
    }
    if (Comment >= 0) {
      sLine.truncate(Comment);
    }
    QStringList Pieces = sLine.split(',');
    USER_WINDOW Window;
    bool First = true;
    bool Valid = false;
    for (const QString& sPiece : Pieces) {
      QString sKey = sPiece.section('=', 0, 0).trimmed();
      QString sValue = sPiece.section('=', 1).trimmed();
      if (First) {
        First = false;
        Valid = sKey == "OpenWindow" && !sValue.isEmpty();
        sValue.remove('"');
        Window.sName = sValue;
        continue;
      }
      bool Ok = false;
      int n = sValue.toInt(&Ok);
      if (sKey == "DockArea") {
        Window.sArea = sValue;
      } else if (sKey == "x" && Ok) {
        Window.x = n;
      } else if (sKey == "y" && Ok) {
        Window.y = n;
      } else if (sKey == "w" && Ok) {
        Window.w = n;
      } else if (sKey == "h" && Ok) {
        Window.h = n;
      }
    }
    if (Valid) {
      Windows << Window;
    }
  }
  return Windows;
}

int CProject::WriteUserFile(const QString& sPath, const QList<USER_WINDOW>& Windows, QString* psError) {
  if (sPath.isEmpty()) {
    return 0;  // a new project that was never saved has no user file
  }
  QByteArray Text;
  for (const USER_WINDOW& w : Windows) {
    Text += QString("OpenWindow=\"%1\", DockArea=%2, x=%3, y=%4, w=%5, h=%6\n")
                .arg(w.sName, w.sArea)
                .arg(w.x)
                .arg(w.y)
                .arg(w.w)
                .arg(w.h)
                .toUtf8();
  }
  return _WriteAtomically(sPath, Text, psError) ? 0 : -1;
}
