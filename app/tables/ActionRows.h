// The rows of the action table as plain static data: their order is their numbering (the row ID).
#pragma once

#include <QString>

#include "app/base/Types.h"

class QAction;

constexpr int kNumActions = 305;
constexpr int kSentinelActionId = 305;
constexpr int kMaxWaitJobs = 2;

// Script function registered for a row's prototype (filled by the script binding).
typedef int (*PF_ACTION_API)(void);

struct GUI_ACTION {
  U32 ID;        // row number 0..304
  U8 Echo;       // 1: the canonical command text is printed when the row runs
  U8 EchoAfter;  // 1: ... after the handler instead of before it
  PF_ACTION_API pfApi;
  QString sHotkey;     // key sequence given to the QAction
  QString sHotkey2;    // second key sequence, handled by the main window's key filter only
  QString sPrototype;  // "__api__ int File.Open (const char* sFileName);" or empty
  QString sParams;     // parameter names for the help table, comma separated
  QString sStatusTip;
  QString sToolTip;
  QString sObjectName;
  QAction* pAction;             // bound at start-up, null until then
  U32 aWaitsFor[kMaxWaitJobs];  // JT_* types a script call waits for; 0 for none
};

// The static rows, in ID order (defined in ActionRows.cpp), and the alias pairs.
extern GUI_ACTION g_aActions[kNumActions];
struct ACTION_ALIAS {
  const char* sName;
  const char* sAlias;
};
extern const ACTION_ALIAS g_aActionAliases[7];
