// CMainWindow: the one top-level window. It owns the device event worker, builds the menus and tool bar
// from the action rows, links the rows to their actions, hosts the command slots of the session rows,
// and runs the start-up and shut-down sequences around the event loop.
#pragma once

#include <QPointer>
#include <functional>

#include "script/Project.h"
#include "windows/Window.h"

class QLineEdit;
class QPlainTextEdit;
class QTimer;
class CDeviceEventWorker;
class CTargetCommands;
class CSettingsCommands;
struct ELF_FILE;

class CMainWindow : public CWindow {
  Q_OBJECT
 public:
  // The main window, or null before main() has made it.
  static CMainWindow* Instance();

  // Batch mode builds the same window but never shows it and asks no questions.
  explicit CMainWindow(bool BatchMode = false);
  ~CMainWindow() override;

  void UpdateActions() override;
  // Asks a question, or in batch mode prints it with the given fixed answer. Returns the button.
  int AskUser(const QString& sTitle, const QString& sText, int Buttons, int BatchAnswer);
  // Opens a project once no script function runs, after the questions about changes and the session.
  int OpenProject(const QString& sPath);
  // Opens what the command line names: a project file as its first argument (in batch mode without the
  // echo of File.Open), or the new project its dash words describe. False if it names neither.
  bool OpenCommandLineProject();
  // A new project made from commands (the dash words or the wizard): the session is stopped after the
  // question, the project closed, and the new one generated, loaded and its OnProjectLoad run.
  void OnProjectWizardFinished(const QStringList& Commands);
  bool IsClosing() const { return _Closing; }
  // The handlers of the settings rows.
  CSettingsCommands* GetSettingsCommands() const { return _pSettingsCommands; }
  // The program file opened last, or empty.
  QString GetProgramPath() const { return _sProgramPath; }
  // 2 while the constructor runs, 1 afterwards.
  int GetPerspectiveState() const { return _PerspectiveState; }

  // Device events the main window handles.
  void OnDeviceLogMsg(const char* sMsg, MSG_INFO_FLAGS Flags) override;
  void OnDeviceExecCmdDone(const char* sCmd) override;
  void OnDeviceExecCmdFailed(const char* sCmd, char* sError) override;
  void OnDeviceConnectionLost() override;
  void OnDeviceConnectDone(CONNECT_MODES Mode) override;
  void OnDeviceDisconnectDone() override;
  void OnDeviceHaltDone(U32 NewPC, HALT_REASONS HaltReason) override;
  void OnDeviceResumeDone(RESUME_MODES Mode) override;

 signals:
  // The second half of the start has run: the project the start chose is open or asked for.
  void StartupFinished();

 protected:
  bool eventFilter(QObject* pObject, QEvent* pEvent) override;
  void paintEvent(QPaintEvent* pEvent) override;
  void closeEvent(QCloseEvent* pEvent) override;

 private slots:
  void OnWindowShown();
  void OnProjectFileOpened(const QString& sPath);
  void OnProjectFileClosed(const QString& sPath);
  void OnActionFileNewProjectTriggered();
  void OnActionFileSaveProjectAsTriggered();
  void OnActionFileSaveAllTriggered();
  void OnActionProjectAddSvdFileTriggered();
  void OnActionProjectRelocateSymbolsTriggered();
  void OnActionProjectAddRootPathTriggered();
  void OnActionProjectAddSearchPathTriggered();
  void OnActionProjectAddFileAliasTriggered();
  void OnActionProjectAddPathSubstituteTriggered();
  void OnConsoleTimer();
  void OnConsoleLineEntered();
  void OnActionNotAvailableTriggered();
  void OnActionUtilLogTriggered();
  void OnActionUtilSleepTriggered();
  void OnActionExecCmdTriggered();
  void OnActionFileExitTriggered();
  void OnActionExecConnectTriggered();
  void OnActionFileOpenTriggered();
  void OnActionExecResetTriggered();

 private:
  void _BuildInterface();
  bool _AskSaveModifiedProject();
  bool _AskStopSession();
  void _CloseProgramFile();
  int _OpenDataFile(int Id, const QString& sPath);
  void _UpdateTitle();
  void _RunPathRow(const char* sRow, int Count, const std::function<void(const QStringList&)>& Apply);
  void _ConnectActions();
  // The shut-down sequence; false when the user kept a modified project (nothing was done then).
  bool _WindowClosed();
  QList<CProject::USER_WINDOW> _ShownDockWindows() const;
  bool _OnKeyPressed(QObject* pObject, QKeyEvent* pEvent);

  CDeviceEventWorker* _pEventWorker = nullptr;
  CTargetCommands* _pTargetCommands = nullptr;
  CSettingsCommands* _pSettingsCommands = nullptr;
  ELF_FILE* _pProgramFile = nullptr;  // the open program, until the program index takes it over
  QString _sProgramPath;
  QString _sLastDialogFolder;
  QPlainTextEdit* _pConsoleView = nullptr;
  QLineEdit* _pConsoleInput = nullptr;
  QTimer* _pConsoleTimer = nullptr;
  bool _BatchMode = false;
  bool _Closing = false;
  bool _ShownOnce = false;
  bool _ShutDown = false;
  int _PerspectiveState = 2;
  int _LastDeviceState = 0;  // bit 0 connected, bit 1 halted, as the menus last showed it
};
