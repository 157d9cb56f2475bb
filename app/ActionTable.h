// The action table: one row per thing a user can do (menu, hotkey, Console line, script call), and the
// operations by which anything runs a row or reports from one. All operations run on the main thread.
#pragma once

#include <QList>
#include <QString>
#include <QStringList>
#include <QVariant>

#include "app/base/Types.h"
#include "app/tables/ActionRows.h"

class QAction;
class QObject;
class QWidget;

