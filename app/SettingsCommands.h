// The command handlers of the rows whose work is reading or writing a setting: preferences, system
// variables, colours, fonts, and the project rows that set the device's configuration.
#pragma once

#include <QObject>
#include <QString>
#include <QStringList>

#include "app/base/Types.h"

class CWindow;

// One slot per row. Every handler checks its arguments completely before it writes anything, so a
// refused command leaves every setting as it was; the row's error names the bad argument. A command
// writes the current value only (pValue, the current colour or font): what a project or a console line
// sets lasts for the session, and only the dialogs write what persists.
//
// Before the Console echoes a row, its arguments are rewritten into their canonical form (variables
// and colours by name, frequencies in Hz), so the echo reads the same whichever spelling was typed.
// Arguments that don't resolve are echoed as typed, and the handler's error names them.
class CSettingsCommands : public QObject {
  Q_OBJECT
 public:
  explicit CSettingsCommands(QObject* pParent = nullptr);

  // What a change of system variable Index (0..20) sets off, after its cell has been written. Previous
  // is the value before the change (a change of trace source depends on where it came from). Returns
  // 0, or -1 if a device job it needed could not be filed.
  int OnSysVarChanged(int Index, I32 Value, I32 Previous);

 signals:
  // Raised once per changed setting after the change: Kind is one of SETTING_KIND_*, Id the variable,
  // colour or font index. Debug windows and anything else that shows settings follow it.
  void SettingChanged(int Kind, int Id, int Value);

 public slots:
  // Runs first on every handled row, ahead of the Console's echo: rewrites the row's arguments into
  // canonical text when they resolve.
  void OnActionArgumentsTriggered();

  void OnActionEditPreferenceTriggered();
  void OnActionEditSysVarTriggered();
  void OnActionEditColorTriggered();
  void OnActionEditFontTriggered();
  void OnActionDebugSetResetModeTriggered();
  void OnActionDebugSetConnectModeTriggered();
  void OnActionDebugSetSteppingModeTriggered();
  void OnActionProjectSetDeviceTriggered();
  void OnActionProjectSetTarvikScriptTriggered();
  void OnActionProjectSetTarvikLogFileTriggered();
  void OnActionProjectSetHostIFTriggered();
  void OnActionProjectSetTargetIFTriggered();
  void OnActionProjectSetTIFSpeedTriggered();
  void OnActionProjectSetTIFScanChainTriggered();
  void OnActionProjectConfigSWOTriggered();
  void OnActionProjectSetSemihostingTriggered();
  void OnActionProjectSetMCTTriggered();
  void OnActionProjectSetBPTypeTriggered();
  void OnActionProjectSetTraceSourceTriggered();
  void OnActionProjectSetTracePortWidthTriggered();
  void OnActionProjectSetTraceTimingTriggered();
  void OnActionTargetSetAccessWidthTriggered();
  void OnActionTargetSetEndianessTriggered();

 private:
  void _Run(int Handler);
  void _TellDebugWindows(int Kind, int Id, int Value);
  int _SendTraceTiming();

  bool _InCommand = false;  // a row is writing its variables; reactions wait for the last
  QString _sReactionError;  // what a reaction refused, for the row that made the change
  QString _sReactionDetail;
  bool _TraceTimingChanged = false;  // a trace port delay changed and has not gone to the probe
};

// Kinds of SettingChanged.
enum : int {
  SETTING_KIND_PREFERENCE = 0,
  SETTING_KIND_SYSVAR = 1,
  SETTING_KIND_COLOR = 2,
  SETTING_KIND_FONT = 3,
};

// The address a run to sSymbol stops at: the first address of the function of that name in the open
// program; kNoAddress without a program or such a function.
constexpr U32 kNoAddress = 0xFFFFFFFF;
U32 RunToAddressOf(const QString& sSymbol);

// The settings the session runs with, as the canonical commands that set them: Project.SetDevice,
// Project.SetHostIF, Project.SetTargetIF and Project.SetTIFSpeed, in this order. A new project is saved
// with these, so that it opens again on the same target. A setting without a value gives no command.
QStringList CurrentSettingsCommands();

// Replaces the main window's "not available" placeholder of every row above by its handler, bracketed
// so that the Console echoes the row and prints its error.
void ConnectSettingsCommands(CWindow* pWindow, CSettingsCommands* pHandlers);
