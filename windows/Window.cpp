// The window base: bracketed action connections and the shared PerformAction slots.
#include "windows/Window.h"

#include <QAction>
#include <cstring>

#include "app/actions/ActionTable.h"

namespace {

// QAction's signal is triggered(bool) in Qt 6; callers may name it with or without the argument.
bool _IsTriggeredSignal(const char* sSignal) {
  if (sSignal == nullptr) {
    return false;
  }
  const char* s = sSignal;
  if (*s >= '0' && *s <= '9') {
    ++s;  // the SIGNAL() code prefix
  }
  return strcmp(s, "triggered()") == 0 || strcmp(s, "triggered(bool)") == 0;
}

}  // namespace

CWindow::CWindow(QWidget* pParent, const QString& sObjectName) : QMainWindow(pParent) {
  if (!sObjectName.isEmpty()) {
    setObjectName(sObjectName);
  }
}

CWindow::~CWindow() = default;

bool CWindow::Connect(QObject* pSender, const char* sSignal, QObject* pReceiver, const char* sSlot) {
  if (qobject_cast<QAction*>(pSender) && _IsTriggeredSignal(sSignal)) {
    bool Ok = connect(pSender, SIGNAL(triggered(bool)), this, SLOT(OnActionTriggered()));
    Ok = connect(pSender, SIGNAL(triggered(bool)), pReceiver, sSlot) && Ok;
    return connect(pSender, SIGNAL(triggered(bool)), this, SLOT(OnActionPerformed())) && Ok;
  }
  return connect(pSender, sSignal, pReceiver, sSlot);
}

bool CWindow::Disconnect(QObject* pSender, const char* sSignal, QObject* pReceiver, const char* sSlot) {
  if (qobject_cast<QAction*>(pSender) && _IsTriggeredSignal(sSignal)) {
    disconnect(pSender, SIGNAL(triggered(bool)), this, SLOT(OnActionTriggered()));
    bool Ok = disconnect(pSender, SIGNAL(triggered(bool)), pReceiver, sSlot);
    disconnect(pSender, SIGNAL(triggered(bool)), this, SLOT(OnActionPerformed()));
    return Ok;
  }
  return disconnect(pSender, sSignal, pReceiver, sSlot);
}

void CWindow::OnActionTriggered() {
  if (QAction* pAction = qobject_cast<QAction*>(sender())) {
    emit ActionTriggered(pAction);
  }
}

void CWindow::OnActionPerformed() {
  if (QAction* pAction = qobject_cast<QAction*>(sender())) {
    emit ActionPerformed(pAction);
  }
}

int CWindow::PerformAction(int Id) {
  return ::PerformAction(Id);
}

int CWindow::PerformAction(int Id, const QVariant& v0) {
  return ::PerformAction(Id, v0);
}

int CWindow::PerformAction(int Id, const QVariant& v0, const QVariant& v1) {
  return ::PerformAction(Id, v0, v1);
}

int CWindow::PerformAction(int Id, const QVariant& v0, const QVariant& v1, const QVariant& v2) {
  return ::PerformAction(Id, v0, v1, v2);
}

int CWindow::PerformAction(int Id, const QVariant& v0, const QVariant& v1, const QVariant& v2,
                           const QVariant& v3) {
  return ::PerformAction(Id, v0, v1, v2, v3);
}
