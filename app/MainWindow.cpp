// The main window: construction order, menus from the action rows, the command slots it owns, the key
// filter for second hotkeys, and the shut-down sequence.
#include "app/MainWindow.h"

#include <QAction>
#include <QApplication>
#include <QCloseEvent>
#include <QDir>
#include <QDockWidget>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QFile>
#include <QFileDialog>
#include <QFileInfo>
#include <QKeyEvent>
#include <QLabel>
#include <QLineEdit>
#include <QMap>
#include <QMenuBar>
#include <QMessageBox>
#include <QPlainTextEdit>
#include <QStandardPaths>
#include <QStatusBar>
#include <QTimer>
#include <QToolBar>
#include <QVBoxLayout>

#include "app/AppInfo.h"
#include "app/ElfCommands.h"
#include "app/SettingsCommands.h"
#include "app/TargetCommands.h"
#include "app/actions/ActionTable.h"
#include "app/actions/CommandConsole.h"
#include "app/base/AppMode.h"
#include "app/base/ConsoleCore.h"
#include "app/base/Log.h"
#include "app/tables/SettingsStore.h"
#include "app/tables/SettingsTables.h"
#include "debuginfo/ElfFile.h"
#include "debuginfo/IndexCache.h"
#include "debuginfo/ProgramIndex.h"
#include "device/Device.h"
#include "device/DeviceDataProvider.h"
#include "device/DeviceEvents.h"
#include "script/FileFinder.h"
#include "script/Project.h"
#include "script/ScriptBinding.h"
#include "script/ZvScript.h"

namespace {

CMainWindow* _pInstance = nullptr;

// The family of a row: the part of its function name before the dot, or for rows without a
// prototype the capitalised word behind "action" in the object name.
QString _RowFamily(int Id) {
  QString sName = GetFunctionName(Id);
  if (!sName.isEmpty()) {
    return sName.section('.', 0, 0);
  }
  QString sObject = g_aActions[Id].sObjectName;
  if (!sObject.startsWith("action")) {
    return QString();
  }
  QString sFamily;
  for (int i = 6; i < sObject.size(); ++i) {
    if (i > 6 && sObject[i].isUpper()) {
      break;
    }
    sFamily += sObject[i];
  }
  return sFamily;
}

// Rows without a prototype that belong to the main window's own menus rather than to a debug window.
bool _IsMainMenuRow(int Id) {
  if (!g_aActions[Id].sPrototype.isEmpty()) {
    return true;
  }
  static const char* const aFamilies[] = {"Window", "Toolbar", "Help", "View", "File", "Edit"};
  QString sFamily = _RowFamily(Id);
  for (const char* s : aFamilies) {
    if (sFamily == QLatin1String(s)) {
      return true;
    }
  }
  return false;
}

int _RowByName(const char* sName) {
  for (int Id = 0; Id < kNumActions; ++Id) {
    if (GetFunctionName(Id) == QLatin1String(sName)) {
      return Id;
    }
  }
  return -1;
}

}  // namespace

CMainWindow* CMainWindow::Instance() {
  return _pInstance;
}

CMainWindow::CMainWindow(bool BatchMode) : CWindow(nullptr, "MainWindow"), _BatchMode(BatchMode) {
  _pInstance = this;
  _PerspectiveState = 2;
  _pEventWorker = new CDeviceEventWorker(this);
  _pEventWorker->start();
  setFocusPolicy(Qt::TabFocus);
  InstallQtLogHandler();
  LoadStore();
  _BuildInterface();
  InitVars();
  LoadPreferences();
  LoadColorsAndFonts();
  CDeviceDataProvider::Instance()->SetDefaultAccessWidth(GetVarValue(GetVar(VAR_ACCESS_WIDTH)));
  _ConnectActions();
  _pSettingsCommands = new CSettingsCommands(this);
  ConnectSettingsCommands(this, _pSettingsCommands);
  _PerspectiveState = 1;
  GetFileFinder().SetFolders(MakeDefaultFinderFolders(GetAppFolder()));
  // Source files named by the debug information are found where this machine has them, and source
  // locations typed in commands are echoed in their normal form once a program is loaded.
  ELF_SetFileResolver([](const QString& sDwarfName) {
    QString sPath = GetFileFinder().Resolve(sDwarfName);
    return QFileInfo(sPath).isFile() ? sPath : QString();
  });
  // What a program's load computed is kept here, so that the next open of the same program is quick.
  ELF_SetIndexCacheDir(
      QDir(QStandardPaths::writableLocation(QStandardPaths::CacheLocation)).filePath("index"));
  SetSourceLocationNormalizer(
      [](const QString& sText) { return ELF_IsLoaded() ? ELF_NormaliseSrcLocText(sText) : QString(); });
  CProject* pProject = CProject::Instance();
  connect(pProject, &CProject::Opened, this, &CMainWindow::OnProjectFileOpened);
  connect(pProject, &CProject::Closed, this, &CMainWindow::OnProjectFileClosed);
  connect(pProject, &CProject::ModifiedChanged, this, [this](bool) {
    _UpdateTitle();
    UpdateActions();
  });
  // A new project is saved with the settings the session runs with.
  pProject->SetSettingsCommandSource(&CurrentSettingsCommands);
  _UpdateTitle();
  UpdateActions();
  qApp->installEventFilter(this);
}

CMainWindow::~CMainWindow() {
  qApp->removeEventFilter(this);
  _WindowClosed();
  if (_pInstance == this) {
    _pInstance = nullptr;
  }
}

void CMainWindow::_BuildInterface() {
  // Menus and the debug tool bar are made from the rows; the object names link them to their rows.
  static const char* const aMenuOrder[] = {"File",   "Edit",  "View", "Project", "Debug",   "Break", "Exec",
                                           "Target", "Trace", "Util", "Window",  "Toolbar", "Help"};
  QMap<QString, QList<QAction*>> Families;
  for (int Id = 0; Id < kNumActions; ++Id) {
    const GUI_ACTION& Row = g_aActions[Id];
    if (Row.sObjectName.isEmpty() || !_IsMainMenuRow(Id)) {
      continue;
    }
    QString sText = Row.sToolTip.isEmpty() ? GetFunctionName(Id) : Row.sToolTip;
    QAction* pAction = new QAction(sText, this);
    pAction->setObjectName(Row.sObjectName);
    Families[_RowFamily(Id)] << pAction;
  }
  QStringList Order;
  for (const char* s : aMenuOrder) {
    Order << s;
  }
  for (const QString& sFamily : Families.keys()) {
    if (!Order.contains(sFamily)) {
      Order.insert(Order.size() - 1, sFamily);
    }
  }
  for (const QString& sFamily : Order) {
    if (!Families.contains(sFamily)) {
      continue;
    }
    QMenu* pMenu = menuBar()->addMenu(sFamily == "Toolbar" ? "Tool Bars" : sFamily);
    pMenu->addActions(Families[sFamily]);
  }
  QToolBar* pDebugBar = addToolBar("Debug");
  pDebugBar->setObjectName("toolBarDebug");
  for (const char* sName : {"Debug.Start", "Debug.Stop", "Debug.Reset", "Debug.Continue", "Debug.Halt",
                            "Debug.StepInto", "Debug.StepOver", "Debug.StepOut"}) {
    int Id = _RowByName(sName);
    if (Id >= 0) {
      for (QAction* pAction : findChildren<QAction*>(g_aActions[Id].sObjectName)) {
        pDebugBar->addAction(pAction);
      }
    }
  }
  // Until the Console window exists, the centre shows the console output and takes command lines.
  QWidget* pCentre = new QWidget(this);
  QVBoxLayout* pLayout = new QVBoxLayout(pCentre);
  pLayout->setContentsMargins(2, 2, 2, 2);
  _pConsoleView = new QPlainTextEdit(pCentre);
  _pConsoleView->setObjectName("textEditor");
  _pConsoleView->setReadOnly(true);
  _pConsoleView->setLineWrapMode(QPlainTextEdit::NoWrap);
  _pConsoleInput = new QLineEdit(pCentre);
  _pConsoleInput->setObjectName("lineEdit");
  _pConsoleInput->setPlaceholderText("Type a command, or ? for a list of commands");
  pLayout->addWidget(_pConsoleView);
  pLayout->addWidget(_pConsoleInput);
  setCentralWidget(pCentre);
  connect(_pConsoleInput, &QLineEdit::returnPressed, this, &CMainWindow::OnConsoleLineEntered);
  statusBar()->showMessage("Ready");
  QLocale::setDefault(QLocale(QLocale::English, QLocale::AnyTerritory));
  setLocale(QLocale(QLocale::English, QLocale::AnyTerritory));
  LinkActions(this);
  _pConsoleTimer = new QTimer(this);
  _pConsoleTimer->setInterval(100);
  connect(_pConsoleTimer, &QTimer::timeout, this, &CMainWindow::OnConsoleTimer);
  if (!_BatchMode) {
    _pConsoleTimer->start();
  }
  resize(1200, 800);
}

void CMainWindow::_ConnectActions() {
  struct HANDLER {
    const char* sName;
    const char* sSlot;
  };
  static const HANDLER aHandler[] = {
      {"Util.Log", SLOT(OnActionUtilLogTriggered())},
      {"Util.Sleep", SLOT(OnActionUtilSleepTriggered())},
      {"Exec.Command", SLOT(OnActionExecCmdTriggered())},
      {"Exec.Connect", SLOT(OnActionExecConnectTriggered())},
      {"Exec.Reset", SLOT(OnActionExecResetTriggered())},
      {"File.Exit", SLOT(OnActionFileExitTriggered())},
      {"File.Open", SLOT(OnActionFileOpenTriggered())},
      {"File.NewProject", SLOT(OnActionFileNewProjectTriggered())},
      {"File.SaveProjectAs", SLOT(OnActionFileSaveProjectAsTriggered())},
      {"File.SaveAll", SLOT(OnActionFileSaveAllTriggered())},
      {"Project.AddSvdFile", SLOT(OnActionProjectAddSvdFileTriggered())},
      {"Project.RelocateSymbols", SLOT(OnActionProjectRelocateSymbolsTriggered())},
      {"Project.AddRootPath", SLOT(OnActionProjectAddRootPathTriggered())},
      {"Project.AddSearchPath", SLOT(OnActionProjectAddSearchPathTriggered())},
      {"Project.AddFileAlias", SLOT(OnActionProjectAddFileAliasTriggered())},
      {"Project.AddPathSubstitute", SLOT(OnActionProjectAddPathSubstituteTriggered())},
  };
  for (int Id = 0; Id < kNumActions; ++Id) {
    QAction* pAction = GetAction(Id);
    if (pAction == nullptr || pAction->parent() != this) {
      continue;
    }
    const char* sSlot = SLOT(OnActionNotAvailableTriggered());
    for (const HANDLER& h : aHandler) {
      if (GetFunctionName(Id) == QLatin1String(h.sName)) {
        sSlot = h.sSlot;
      }
    }
    Connect(pAction, SIGNAL(triggered()), this, sSlot);
  }
  _pTargetCommands = new CTargetCommands(this);
  _pTargetCommands->ConnectTo(this);
  (new CElfCommands(this))->ConnectTo(this);
  // Scripts read registers by name without going through the row, as the register window does.
  ScriptSetRegisterResolver(&CTargetCommands::RegisterIndexByName);
  CCommandConsole* pConsole = CCommandConsole::Instance();
  pConsole->LinkObject(this);
  QAction* pHelp = new QAction("List Co&mmands", this);
  pHelp->setObjectName("actionConsoleHelp");
  pHelp->setStatusTip("Display Command List");
  LinkActions(this);
  Connect(pHelp, SIGNAL(triggered()), pConsole, SLOT(OnActionHelpTriggered()));
}

void CMainWindow::UpdateActions() {
  CDevice* pDevice = CDevice::HasInstance() ? CDevice::Instance() : nullptr;
  const bool Connected = pDevice && pDevice->IsConnected();
  const bool Halted = Connected && pDevice->IsHalted();
  const CProject* pProject = CProject::Instance();
  const bool ProjectOpen = pProject->IsOpen();
  const bool ProjectModified = ProjectOpen && pProject->IsModified();
  // Breakpoints are only known to the probe until the session keeps its own list; until then none
  // counts, and the clearing rows stay off.
  const int NumBreakpoints = 0;
  const int NumDataBreakpoints = 0;
  const bool PCLocationValid = Halted && ELF_IsLoaded() && ELF_GetFirstSrcLoc(pDevice->GetPC()).IsValid();
  auto HasContext = [](QAction* pAction) {
    QVariant Data = pAction->data();
    return Data.isValid() && Data.typeId() != QMetaType::QStringList && Data.typeId() != QMetaType::Int;
  };
  // Rows not named here may always run from commands and are always enabled.
  for (int Id = 0; Id < kNumActions; ++Id) {
    QAction* pAction = GetAction(Id);
    if (pAction == nullptr) {
      continue;
    }
    const QString sName = GetFunctionName(Id);
    bool Permitted = true;
    bool Enabled = true;
    bool Visible = true;
    if (sName == "File.SaveProjectAs") {
      Permitted = Enabled = ProjectOpen;
    } else if (sName == "File.SaveAll") {
      Permitted = Enabled = ProjectOpen && ProjectModified;
    } else if (sName == "Debug.Start") {
      Visible = !Connected;
    } else if (sName == "Debug.Stop") {
      Enabled = Visible = Connected;
    } else if (sName == "Debug.Continue") {
      Enabled = Visible = Halted;
    } else if (sName == "Debug.Halt") {
      Enabled = Connected && !Halted;
      Visible = !Halted;
    } else if (sName == "Debug.StepInto" || sName == "Debug.StepOver" || sName == "Debug.StepOut") {
      Enabled = Halted;
    } else if (sName == "Debug.SetNextPC" || sName == "Debug.SetNextStatement" || sName == "Debug.RunTo" ||
               sName == "View.Data" || sName == "View.Source" || sName == "Watch.Add") {
      Enabled = HasContext(pAction);
    } else if (sName == "View.CallGraph") {
      Enabled = Visible = HasContext(pAction);
    } else if (sName == "View.Disassembly") {
      Permitted = Connected;
      Enabled = Connected && HasContext(pAction);
    } else if (sName == "View.PC" || sName == "View.InstrTrace" || sName == "View.Memory") {
      Permitted = Enabled = Visible = Connected;
    } else if (sName == "View.PCLine") {
      Permitted = Enabled = Connected;
      Visible = Connected && PCLocationValid;
    } else if (sName == "Break.ClearAll") {
      Permitted = Enabled = NumBreakpoints > 0;
    } else if (sName == "Break.ClearAllOnData") {
      Permitted = Enabled = NumDataBreakpoints > 0;
    }
    SetCommandPermitted(Id, Permitted);
    pAction->setEnabled(Enabled);
    pAction->setVisible(Visible);
  }
}

void CMainWindow::OnDeviceConnectDone(CONNECT_MODES) {
  UpdateActions();
}

void CMainWindow::OnDeviceDisconnectDone() {
  UpdateActions();
}

void CMainWindow::OnDeviceHaltDone(U32, HALT_REASONS) {
  UpdateActions();
}

void CMainWindow::OnDeviceResumeDone(RESUME_MODES) {
  UpdateActions();
}

bool CMainWindow::eventFilter(QObject* pObject, QEvent* pEvent) {
  if (pEvent->type() == QEvent::ApplicationActivate && pObject == qApp) {
    // A project file changed on disk while the user was elsewhere is loaded anew; its OnProjectLoad
    // does not run again, the new event functions take effect.
    if (ScriptReloadIfChanged() && ScriptHasError()) {
      ConsoleError("Error in project file: " + ScriptGetError());
    }
  }
  if (pEvent->type() == QEvent::KeyPress && _OnKeyPressed(pObject, static_cast<QKeyEvent*>(pEvent))) {
    return true;
  }
  return CWindow::eventFilter(pObject, pEvent);
}

bool CMainWindow::_OnKeyPressed(QObject* pObject, QKeyEvent* pEvent) {
  if (pEvent->key() == Qt::Key_Return || pEvent->key() == Qt::Key_Enter) {
    return false;
  }
  int Key = pEvent->key();
  if (Key == Qt::Key_Shift || Key == Qt::Key_Control || Key == Qt::Key_Alt || Key == Qt::Key_Meta) {
    return false;
  }
  QString sKey = QKeySequence(pEvent->keyCombination()).toString(QKeySequence::PortableText);
  GUI_ACTION Row = GetRowByHotkey2(sKey);
  if (Row.ID < U32(kNumActions)) {
    TriggerAction(int(Row.ID));
    return true;
  }
  return false;
}

void CMainWindow::paintEvent(QPaintEvent* pEvent) {
  CWindow::paintEvent(pEvent);
  if (!_ShownOnce) {
    _ShownOnce = true;
    QTimer::singleShot(10, this, &CMainWindow::OnWindowShown);
  }
}

void CMainWindow::OnWindowShown() {
  LogMessage("Tarvik software found at: built-in probe layer", MSG_INFO | MSG_TO_ALL);
  // What to open: a project named on the command line, else the most recent one if the user wants
  // that, else a new project.
  QStringList Recent = CProject::GetRecentProjects();
  static const int Open = _RowByName("File.Open");
  if (OpenCommandLineProject()) {
    // the command line decided
  } else if (!Recent.isEmpty() && GetVarValue(GetVar(PREF_START_WITH_MOST_RECENT_PROJ)) != 0 &&
             QFileInfo(Recent.first()).isFile()) {
    PerformAction(Open, Recent.first());
  } else {
    CProject::Instance()->Close();
    _UpdateTitle();
  }
  ReportUnlinkedActions();
  emit StartupFinished();
}

void CMainWindow::OnConsoleTimer() {
  // Connects and resets that scripts and console commands make are not all reported as events; the
  // menus follow the device's state whatever changed it.
  if (CDevice::HasInstance()) {
    CDevice* pDevice = CDevice::Instance();
    int State = (pDevice->IsConnected() ? 1 : 0) | (pDevice->IsHalted() ? 2 : 0);
    if (State != _LastDeviceState) {
      _LastDeviceState = State;
      UpdateActions();
    }
  }
  CONSOLE_MSG Msg;
  int n = 0;
  bool Printed = false;
  while (n < 100 && ConsoleTakeMessage(&Msg)) {
    QColor Color = Msg.ColorID >= 0 ? GetColor(Msg.ColorID) : QColor::fromRgba(Msg.Color);
    QString sStyle = "white-space:pre;";
    if (Color.alpha() != 0) {
      sStyle += " color:" + Color.name() + ";";
    }
    if (Msg.Mono) {
      sStyle += " font-family:monospace;";
    }
    QString sText = QString::fromUtf8(Msg.acText).toHtmlEscaped();
    _pConsoleView->appendHtml("<span style=\"" + sStyle + "\">" + sText + "</span>");
    Printed = true;
    ++n;
  }
  if (Printed) {
    _pConsoleView->moveCursor(QTextCursor::End);
  }
}

void CMainWindow::OnConsoleLineEntered() {
  QString sLine = _pConsoleInput->text();
  _pConsoleInput->clear();
  CCommandConsole::Instance()->RunLine(sLine);
}

void CMainWindow::OnActionNotAvailableTriggered() {
  QAction* pAction = qobject_cast<QAction*>(sender());
  int Id = GetActionID(pAction);
  if (Id >= 0) {
    SetError(Id, "not available");
    if (GetFunctionName(Id).isEmpty()) {
      statusBar()->showMessage(g_aActions[Id].sToolTip + ": not available", 3000);
    }
  }
}

void CMainWindow::OnActionUtilLogTriggered() {
  static const int Id = _RowByName("Util.Log");
  if (!CheckParamCount(Id, -1)) {
    return;
  }
  ConsolePrint(GetArguments(Id).value(0));
}

void CMainWindow::OnActionUtilSleepTriggered() {
  static const int Id = _RowByName("Util.Sleep");
  if (!CheckParamCount(Id, -1)) {
    return;
  }
  QString sMs = GetArguments(Id).value(0).trimmed();
  I64 Ms = 0;
  if (!TextToCommandNumber(sMs, &Ms) || Ms < 0 || Ms > INT32_MAX) {
    SetError(Id, "invalid number", ArgumentForError(sMs));
    return;
  }
  // Events keep flowing while the command waits (device events included); user input does not. The
  // thread sleeps in between.
  WaitForDevice([] { return false; }, Ms,
                WAIT_PROCESS_QT_EVENTS | WAIT_DISPATCH_DEVICE_EVENTS | WAIT_NO_USER_INPUT);
}

void CMainWindow::OnActionExecCmdTriggered() {
  static const int Id = _RowByName("Exec.Command");
  if (!CheckParamCount(Id, -1)) {
    return;
  }
  QByteArray Cmd = GetArguments(Id).value(0).toUtf8();
  if (Cmd.isEmpty()) {
    SetError(Id, "invalid parameter", ArgumentForError(GetArguments(Id).value(0)));
    return;
  }
  if (Cmd.size() > 1024) {
    SetError(Id, "invalid parameter", ArgumentForError(GetArguments(Id).value(0)));
    return;
  }
  if (CDevice::Instance()->ScheduleExecTarvikCmd(Cmd.constData()) < 0) {
    SetError(Id, "job queue full");
  }
}

int CMainWindow::AskUser(const QString& sTitle, const QString& sText, int Buttons, int BatchAnswer) {
  if (IsBatchMode()) {
    // Headless: a fixed answer, printed so that the log shows what was decided.
    static const struct {
      int Button;
      const char* sName;
    } aName[] = {{QMessageBox::Yes, "Yes"}, {QMessageBox::No, "No"}, {QMessageBox::Cancel, "Cancel"}};
    QString sAnswer;
    for (const auto& n : aName) {
      if (n.Button == BatchAnswer) {
        sAnswer = n.sName;
      }
    }
    ConsolePrint(sTitle + ": " + sText + " " + sAnswer);
    return BatchAnswer;
  }
  return QMessageBox::question(this, sTitle, sText, QMessageBox::StandardButtons(Buttons));
}

bool CMainWindow::_AskSaveModifiedProject() {
  CProject* pProject = CProject::Instance();
  if (!pProject->IsModified()) {
    return true;
  }
  int Answer = AskUser("Save Project Changes?", "The current project was modified. Save changes?",
                       QMessageBox::Yes | QMessageBox::No | QMessageBox::Cancel, QMessageBox::No);
  if (Answer == QMessageBox::Cancel) {
    return false;
  }
  if (Answer == QMessageBox::Yes) {
    static const int SaveAs = _RowByName("File.SaveProjectAs");
    if (pProject->GetFilePath().isEmpty()) {
      ClearArguments(SaveAs);
      return PerformAction(SaveAs) == 1;
    }
    QString sError;
    return pProject->Save(pProject->GetFilePath(), &sError) == 0;
  }
  return true;
}

bool CMainWindow::_AskStopSession() {
  CDevice* pDevice = CDevice::Instance();
  if (!pDevice->IsConnected()) {
    return true;
  }
  if (AskUser("Stop Debugging", "Close this Session?", QMessageBox::Yes | QMessageBox::No,
              QMessageBox::Yes) != QMessageBox::Yes) {
    return false;
  }
  pDevice->ScheduleDisconnect();
  pDevice->WaitForJobThenPump(JT_DISCONNECT, true);
  return true;
}

void CMainWindow::_CloseProgramFile() {
  if (_pProgramFile) {
    ELF_Deinit();  // the program index owns the file
    _pProgramFile = nullptr;
  }
  _sProgramPath.clear();
  CProject::Instance()->SetProgramFile(QString());
}

int CMainWindow::OpenProject(const QString& sPath) {
  if (!_AskSaveModifiedProject() || !_AskStopSession()) {
    return -1;
  }
  CProject* pProject = CProject::Instance();
  pProject->Close();
  QString sSettings = pProject->GetSettingsFilePath();
  if (!sSettings.isEmpty()) {
    CDevice::Instance()->ScheduleSetConfigParam(DCP_SCRIPT_FILE, sSettings.toUtf8().constData());
  }
  _CloseProgramFile();
  pProject->OpenDeferred(sPath);
  return 0;
}

bool CMainWindow::OpenCommandLineProject() {
  const QStringList Args = QCoreApplication::arguments();
  const QString sCandidate = Args.value(1);
  if (IsProjectFileName(sCandidate)) {
    if (_BatchMode) {
      OpenProject(sCandidate);  // quietly, as if it had been open before the first line
    } else {
      static const int Open = _RowByName("File.Open");
      PerformAction(Open, sCandidate);
    }
    return true;
  }
  const QStringList Commands = BuildCommandListFromArgs(Args.mid(1));
  if (Commands.isEmpty()) {
    return false;
  }
  OnProjectWizardFinished(Commands);
  return true;
}

void CMainWindow::OnProjectWizardFinished(const QStringList& Commands) {
  if (!_AskStopSession()) {
    return;
  }
  SetVarFromText(GetVar(VAR_BREAK_AT_THIS_SYMBOL), "main", false);
  _CloseProgramFile();
  // NewFromCommands closes the old project first.
  if (CProject::Instance()->NewFromCommands(Commands) == 0) {
    RunEvent(SF_PROJECT_LOAD);
  }
  _UpdateTitle();
  UpdateActions();
}

void CMainWindow::OnProjectFileOpened(const QString& sPath) {
  CProject* pProject = CProject::Instance();
  CProject::AddRecentProject(QFileInfo(sPath).absoluteFilePath());
  _UpdateTitle();
  if (!pProject->IsOpen()) {
    return;
  }
  if (ScriptHasError()) {
    // The project opens with its error shown; nothing of it runs, and its text stays as it is.
    LogMessage("Project file is not valid", MSG_WARNING | MSG_TO_STDOUT | MSG_TO_LOGFILE);
    ConsoleError("Error in project file: " + ScriptGetError());
    return;
  }
  SetVarFromText(GetVar(VAR_BREAK_AT_THIS_SYMBOL), "main", false);
  RunEvent(SF_PROJECT_LOAD);
  // The window layout of the user file is applied once dock windows exist.
  CProject::ReadUserFile(CProject::GetUserFilePath(sPath));
  _UpdateTitle();
}

QList<CProject::USER_WINDOW> CMainWindow::_ShownDockWindows() const {
  QList<CProject::USER_WINDOW> Windows;
  for (QDockWidget* pDock : findChildren<QDockWidget*>()) {
    if (pDock->isHidden()) {
      continue;
    }
    CProject::USER_WINDOW Window;
    Window.sName = pDock->objectName();
    switch (dockWidgetArea(pDock)) {
      case Qt::LeftDockWidgetArea:
        Window.sArea = "LEFT";
        break;
      case Qt::RightDockWidgetArea:
        Window.sArea = "RIGHT";
        break;
      default:
        Window.sArea = "BOTTOM";
        break;
    }
    if (pDock->isFloating()) {
      Window.sArea = "FLOATING";
    }
    const QRect Rect = pDock->geometry();
    Window.x = Rect.x();
    Window.y = Rect.y();
    Window.w = Rect.width();
    Window.h = Rect.height();
    Windows << Window;
  }
  return Windows;
}

void CMainWindow::OnProjectFileClosed(const QString& sPath) {
  // Without dock windows there is no layout to keep: the user file of an earlier session stays as it is.
  if (sPath.isEmpty() || findChildren<QDockWidget*>().isEmpty()) {
    return;
  }
  QString sError;
  if (CProject::WriteUserFile(CProject::GetUserFilePath(sPath), _ShownDockWindows(), &sError) < 0) {
    LogMessage("Could not write the user file: " + sError, MSG_WARNING | MSG_TO_ALL);
  }
}

void CMainWindow::_UpdateTitle() {
  CProject* pProject = CProject::Instance();
  QString sTitle = GetAppTitle(true, true);
  QString sName;
  if (pProject->IsOpen()) {
    QString sPath = pProject->GetFilePath();
    bool Session = CDevice::HasInstance() && CDevice::Instance()->IsConnected();
    if (Session && !_sProgramPath.isEmpty()) {
      sName = _sProgramPath;
    } else if (sPath.isEmpty()) {
      sName = "New Project";
    } else {
      sName = Session ? QFileInfo(sPath).completeBaseName() : sPath;
    }
  }
  if (!sName.isEmpty()) {
    sTitle += (pProject->IsModified() ? " - *" : " - ") + sName;
  }
  setWindowTitle(sTitle);
}

int CMainWindow::_OpenDataFile(int Id, const QString& sPath) {
  QFile File(sPath);
  QByteArray Magic;
  if (File.open(QIODevice::ReadOnly)) {
    Magic = File.read(4);
  }
  if (Magic != QByteArray("\x7F"
                          "ELF",
                          4)) {
    // Hex, S-record and binary images come with the data file readers.
    SetError(Id, "not available", "only ELF program files can be opened: " + sPath);
    return -1;
  }
  // The program's debug information is read at once; the ELF layer logs how long each part took. A new
  // program replaces the one before, which the reader's file table needs closed first.
  ELF_SetLogCallback(LogElfMessage);
  _CloseProgramFile();
  if (ELF_Init(QFile::encodeName(sPath).constData()) < 0 || ELF_GetIndexedFile() == nullptr) {
    SetError(Id, "invalid program file", sPath);
    return -1;
  }
  _pProgramFile = ELF_GetIndexedFile();
  ELF_INDEX_COUNTS Counts = ELF_GetIndexCounts();
  LogMessage(
      QString("Program index: %1 files, %2 line addresses, %3 functions, %4 globals, %5 types in %6 ms")
          .arg(Counts.files)
          .arg(Counts.lineAddrs)
          .arg(Counts.functions)
          .arg(Counts.globals)
          .arg(Counts.types)
          .arg(Counts.loadMs),
      MSG_INFO | MSG_TO_STDOUT | MSG_TO_LOGFILE);
  _sProgramPath = sPath;
  CProject::Instance()->SetProgramFile(sPath);
  // A run to the break symbol stops at its address in this program.
  const U32 RunTo = RunToAddressOf(GetVarString(GetVar(VAR_BREAK_AT_THIS_SYMBOL)));
  if (RunTo != kNoAddress) {
    CDevice::Instance()->ScheduleSetConfigParam(DCP_RUN_TO_ADDR, int(RunTo));
  }
  _UpdateTitle();
  return 0;
}

void CMainWindow::OnActionFileOpenTriggered() {
  static const int Id = _RowByName("File.Open");
  if (!CheckParamCount(Id, IsBatchMode() ? -1 : 0)) {
    return;
  }
  QString sPath = GetArguments(Id).value(0).trimmed();
  if (sPath.isEmpty() && !IsBatchMode()) {
    sPath = QFileDialog::getOpenFileName(this, "Open File", _sLastDialogFolder);
    if (sPath.isEmpty()) {
      MarkCancelled(Id);
      return;
    }
    _sLastDialogFolder = QFileInfo(sPath).absolutePath();
  }
  if (sPath.isEmpty()) {
    SetError(Id, "invalid filename", ArgumentForError(sPath));
    return;
  }
  QElapsedTimer Timer;
  Timer.start();
  if (!QFileInfo(sPath).isFile()) {
    // A name the finder can't resolve stays as typed, so that the error names it.
    const QString sResolved = GetFileFinder().Resolve(sPath);
    if (!sResolved.isEmpty()) {
      sPath = sResolved;
    }
  }
  QFileInfo Info(sPath);
  if (!Info.isFile()) {
    SetError(Id, "file not found", ArgumentForError(sPath));
    return;
  }
  sPath = Info.absoluteFilePath();
  const QString sSuffix = Info.suffix().toLower();
  if (MatchesFileFilter(sPath, FILE_FILTER_PROJECT)) {
    OpenProject(sPath);
  } else if (sSuffix.isEmpty() || MatchesFileFilter(sPath, FILE_FILTER_DATA)) {
    if (_OpenDataFile(Id, sPath) < 0) {
      return;
    }
  } else {
    SetError(Id, "not available", "source files are shown once the source viewer exists: " + sPath);
    return;
  }
  LogMessage(QString("File.Open: completed in %1 ms").arg(Timer.elapsed()), MSG_INFO | MSG_TO_ALL);
  GetFileFinder().LogSourceCounts();
}

void CMainWindow::OnActionFileNewProjectTriggered() {
  static const int Id = _RowByName("File.NewProject");
  if (!CheckParamCount(Id, 0)) {
    return;
  }
  if (!_AskSaveModifiedProject() || !_AskStopSession()) {
    MarkCancelled(Id);
    return;
  }
  CProject::Instance()->Close();
  _CloseProgramFile();
  _UpdateTitle();
}

void CMainWindow::OnActionFileSaveProjectAsTriggered() {
  static const int Id = _RowByName("File.SaveProjectAs");
  if (!CheckParamCount(Id, 0)) {
    return;
  }
  CProject* pProject = CProject::Instance();
  QString sPath = GetArguments(Id).value(0).trimmed();
  if (sPath.isEmpty()) {
    if (IsBatchMode()) {
      SetError(Id, "invalid project filename", ArgumentForError(sPath));
      SetResult(Id, 2);
      return;
    }
    QString sStart = pProject->GetFilePath().isEmpty() ? QDir::homePath() : pProject->GetProjectDir();
    sPath = QFileDialog::getSaveFileName(this, "Save Project as...", sStart, "Project files (*.zvproj)");
    if (sPath.isEmpty()) {
      SetResult(Id, 2);
      MarkCancelled(Id);
      return;
    }
    SetArguments(Id, sPath);
  }
  if (QFileInfo(sPath).suffix().isEmpty()) {
    sPath += ".zvproj";
  }
  QString sError;
  if (!MatchesFileFilter(sPath, FILE_FILTER_PROJECT) || pProject->Save(sPath, &sError) < 0) {
    SetError(Id, "invalid project filename", sError.isEmpty() ? sPath : sError);
    SetResult(Id, 2);
    return;
  }
  QString sOld = pProject->GetFilePath();
  CProject::ReplaceRecentProject(sOld, QFileInfo(sPath).absoluteFilePath());
  SetResult(Id, 1);
  _UpdateTitle();
}

void CMainWindow::OnActionFileSaveAllTriggered() {
  static const int Id = _RowByName("File.SaveAll");
  static const int SaveAs = _RowByName("File.SaveProjectAs");
  if (!CheckParamCount(Id, 0)) {
    return;
  }
  CProject* pProject = CProject::Instance();
  if (pProject->GetFilePath().isEmpty()) {
    ClearArguments(SaveAs);
    if (PerformAction(SaveAs) != 1) {
      SetError(Id, "project not saved");
    }
    return;
  }
  QString sError;
  if (pProject->Save(pProject->GetFilePath(), &sError) < 0) {
    SetError(Id, "could not save project", sError);
  }
  _UpdateTitle();
}

// The project's file paths: each row takes one or two texts and hands them to the file finder.
void CMainWindow::_RunPathRow(const char* sRow, int Count,
                              const std::function<void(const QStringList&)>& Apply) {
  const int Id = _RowByName(sRow);
  if (!CheckParamCount(Id, -1)) {
    return;
  }
  QStringList Args = GetArguments(Id);
  for (int i = 0; i < Count; ++i) {
    if (Args.value(i).trimmed().isEmpty()) {
      SetError(Id, "invalid parameter", ArgumentForError(Args.value(i)));
      return;
    }
  }
  Apply(Args);
}

void CMainWindow::OnActionProjectAddSvdFileTriggered() {
  _RunPathRow("Project.AddSvdFile", 1,
              [](const QStringList& Args) { CProject::Instance()->AddSvdFile(Args[0]); });
}

// A row of the symbol relocation table. It moves the addresses of a program loaded after it; the
// table ends when that program is closed.
void CMainWindow::OnActionProjectRelocateSymbolsTriggered() {
  static const int Id = _RowByName("Project.RelocateSymbols");
  if (!CheckParamCount(Id, 2)) {
    return;
  }
  QStringList Args = GetArguments(Id);
  QString sOffset = Args.value(1).trimmed();
  I64 Offset = 0;
  if (!TextToCommandNumber(sOffset, &Offset) || Offset < INT32_MIN || Offset > INT32_MAX) {
    SetError(Id, "invalid number", ArgumentForError(sOffset));
    return;
  }
  const char* sError = nullptr;
  std::lock_guard Lock(ELF_GetIndexMutex());
  const QString sSymbols = Args.value(0).trimmed();
  if (ELF_AddRelocationText(sSymbols.toUtf8().constData(), I32(Offset), &sError) < 0) {
    LogMessage(QString("Project.RelocateSymbols: %1").arg(sError),
               MSG_WARNING | MSG_TO_STDOUT | MSG_TO_LOGFILE);
    SetError(Id, "invalid parameter", ArgumentForError(sSymbols));
  }
}

void CMainWindow::OnActionProjectAddRootPathTriggered() {
  _RunPathRow("Project.AddRootPath", 1,
              [](const QStringList& Args) { GetFileFinder().AddRootPath(Args[0]); });
}

void CMainWindow::OnActionProjectAddSearchPathTriggered() {
  _RunPathRow("Project.AddSearchPath", 1,
              [](const QStringList& Args) { GetFileFinder().AddSearchPath(Args[0]); });
}

void CMainWindow::OnActionProjectAddFileAliasTriggered() {
  _RunPathRow("Project.AddFileAlias", 2,
              [](const QStringList& Args) { GetFileFinder().AddFileAlias(Args[0], Args[1]); });
}

void CMainWindow::OnActionProjectAddPathSubstituteTriggered() {
  _RunPathRow("Project.AddPathSubstitute", 2,
              [](const QStringList& Args) { GetFileFinder().AddPathSubstitute(Args[0], Args[1]); });
}

void CMainWindow::OnActionExecConnectTriggered() {
  static const int Id = _RowByName("Exec.Connect");
  if (!CheckParamCount(Id, 0)) {
    return;
  }
  CDevice* pDevice = CDevice::Instance();
  if (pDevice->IsConnected()) {
    SetError(Id, "already connected");
    return;
  }
  if (pDevice->ScheduleConnect(CM_BARE) < 0) {
    SetError(Id, "job queue full");
  }
}

void CMainWindow::OnActionExecResetTriggered() {
  static const int Id = _RowByName("Exec.Reset");
  if (!CheckParamCount(Id, 0)) {
    return;
  }
  CDevice* pDevice = CDevice::Instance();
  if (!pDevice->IsConnected()) {
    SetError(Id, "not connected");
    return;
  }
  if (pDevice->ScheduleReset(RM_BARE) < 0) {
    SetError(Id, "job queue full");
  }
}

void CMainWindow::OnActionFileExitTriggered() {
  close();
}

void CMainWindow::OnDeviceLogMsg(const char* sMsg, MSG_INFO_FLAGS Flags) {
  if (Flags & MSG_ERROR) {
    NoteCommandError();  // an error of the device fails the command that caused it
  }
  if (!GetLogSink().WouldReach(Flags)) {
    return;  // not formatted in vain
  }
  LogMessage(sMsg, Flags);
}

void CMainWindow::OnDeviceExecCmdDone(const char* sCmd) {
  LogMessage(QString("Tarvik command done: ") + sCmd, MSG_INFO | MSG_TO_LOGFILE | MSG_TO_STDOUT);
}

void CMainWindow::OnDeviceExecCmdFailed(const char* sCmd, char* sError) {
  QString sText = QString("Exec.Command (\"%1\"): %2").arg(sCmd, sError && *sError ? sError : "failed");
  ConsoleError(sText);
  NoteCommandError();
}

void CMainWindow::OnDeviceConnectionLost() {
  ConsolePrint("Tarvik: connection to target device lost.");
  statusBar()->showMessage("Tarvik: connection to target device lost.");
  NoteCommandError();
  CDevice* pDevice = CDevice::Instance();
  if (pDevice->IsConnected()) {
    const QString sTitle = "Target Connection Lost";
    const QString sText = "Failed to read target status. Abort Debug Session?";
    bool Abort = true;
    if (IsBatchMode()) {
      ConsolePrint(sTitle + ": " + sText + " Yes");
    } else {
      Abort = QMessageBox::question(this, sTitle, sText) == QMessageBox::Yes;
    }
    if (Abort) {
      pDevice->ScheduleDisconnect();
    }
  }
  UpdateActions();
}

void CMainWindow::closeEvent(QCloseEvent* pEvent) {
  if (!_WindowClosed()) {
    pEvent->ignore();  // the user kept the project
    return;
  }
  CWindow::closeEvent(pEvent);
  pEvent->accept();
}

bool CMainWindow::_WindowClosed() {
  if (_ShutDown) {
    return true;
  }
  if (!_AskSaveModifiedProject()) {
    return false;
  }
  _ShutDown = true;
  _Closing = true;
  if (_pConsoleTimer) {
    _pConsoleTimer->stop();
  }
  // The script is told to close and the project closes (which writes its user file) before the device
  // goes: an event function that still ran could otherwise wait for a device that no longer answers.
  CProject::Instance()->Close();
  // Queued jobs are cancelled, the device thread is told to stop and waited for while events flow.
  if (CDevice::HasInstance()) {
    CDevice* pDevice = CDevice::Instance();
    pDevice->CancelPendingJobs(JT_ANY, JOB_QUEUE_ALL);
    pDevice->RequestStop();
    WaitForDevice([pDevice] { return pDevice->HasThreadEnded() || !pDevice->isRunning(); }, -1,
                  WAIT_PROCESS_QT_EVENTS | WAIT_DISPATCH_DEVICE_EVENTS);
    pDevice->wait();
    // Read after the thread's end so that its last writes are ordered before the process's exit,
    // where the statics it used are destroyed.
    (void)pDevice->HasThreadEnded();
  }
  ELF_SaveIndexCache();
  SaveColorsAndFonts();
  SavePreferences();
  _CloseProgramFile();
  return true;
}
