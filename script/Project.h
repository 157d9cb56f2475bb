// CProject: the open project, a script file whose OnProjectLoad configures the session and whose other
// functions are the session's event functions; beside it the user file with the window layout. There is
// always a project: after start-up and after closing, an unnamed new one.
#pragma once

#include <QDateTime>
#include <QObject>
#include <QString>
#include <QStringList>
#include <QTimer>
#include <functional>

class CProject : public QObject {
  Q_OBJECT
 public:
  static CProject* Instance();

  bool IsOpen() const { return _IsOpen; }
  bool IsModified() const { return _IsModified; }
  bool IsPending() const { return !_sPendingFile.isEmpty(); }

  // Loads the file as the script and emits Opened. A missing file logs "file not found" and leaves no
  // project open. Returns 0, or -1 (the script's own errors don't count: the project is then open with
  // its error, and runs nothing).
  int Open(const QString& sPath);
  // Opens as soon as no script function runs: a script may open another project.
  void OpenDeferred(const QString& sPath);
  void Close();
  // A new project whose text is made from the given commands (canonical command texts); loaded, marked
  // modified. OnProjectLoad is left to the caller, which runs it as for an opened project.
  int NewFromCommands(const QStringList& Commands);
  // Writes the project text to sPath, atomically. A new project gets its text generated first. 0, or -1
  // with *psError set.
  int Save(const QString& sPath, QString* psError);
  void SetModified(bool Modified);
  // Gives the canonical commands of the running connection settings, which a new project is saved with.
  void SetSettingsCommandSource(std::function<QStringList()> pfSource) {
    _pfSettingsCommands = std::move(pfSource);
  }

  QString GetFilePath() const;
  QString GetProjectDir() const;
  QString GetSettingsFilePath() const;
  static QString GetUserFilePath(const QString& sProjectPath);

  void SetProgramFile(const QString& sPath);
  QString GetProgramFile() const { return _sProgramFile; }
  QDateTime GetProgramFileTime() const { return _ProgramFileTime; }
  void AddSvdFile(const QString& sFile);
  void ClearSvdFiles();
  QStringList GetSvdFiles() const { return _SvdFiles; }
  QStringList GetWarnings() const;

  // The text of a generated project: the banner and template of every event function, OnProjectLoad
  // holding the settings commands and then, behind the user comment, the commands that open files.
  static QString GenerateText(const QStringList& Commands);
  // Replaces the trace lines in OnProjectLoad of a project file. 0, or -1 with *psError set.
  static int UpdateProjectFile(const QString& sPath, const QStringList& Lines, QString* psError);

  // The recent projects, most recent first, at most four, kept in the persistent store.
  static QStringList GetRecentProjects();
  static void AddRecentProject(const QString& sPath);
  static void ReplaceRecentProject(const QString& sOld, const QString& sNew);

  // One line of the user file: a dock window that was shown, where and how big.
  struct USER_WINDOW {
    QString sName;
    QString sArea;  // "LEFT", "RIGHT", "BOTTOM" or "FLOATING"
    int x = 0, y = 0, w = 0, h = 0;
  };
  static QList<USER_WINDOW> ReadUserFile(const QString& sPath);
  static int WriteUserFile(const QString& sPath, const QList<USER_WINDOW>& Windows, QString* psError);

 signals:
  void ModifiedChanged(bool Modified);
  void Opened(const QString& sPath);
  void Closed(const QString& sPath);

 private slots:
  void OnOpenTimeout();

 private:
  CProject();

  QTimer _OpenTimer;
  bool _IsOpen = false;
  bool _IsModified = false;
  QString _sPendingFile;
  QStringList _SvdFiles;
  QString _sProgramFile;
  QDateTime _ProgramFileTime;
  std::function<QStringList()> _pfSettingsCommands;
};
