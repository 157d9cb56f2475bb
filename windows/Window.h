// CWindow: the base of the main window and of every debug window. It hears every device event (it is a
// listener), brackets every command handler it connects with the ActionTriggered/ActionPerformed
// signals that the Console echoes from, and lets windows run each other's rows.
#pragma once

#include <QMainWindow>
#include <QVariant>

#include "device/DeviceEventListener.h"

class QAction;

class CWindow : public QMainWindow, public CDeviceEventListener {
  Q_OBJECT
 public:
  explicit CWindow(QWidget* pParent = nullptr, const QString& sObjectName = QString());
  ~CWindow() override;

  // Connects like QObject::connect; for the triggered() signal of a QAction it makes three connections in
  // this order: the action to this window's OnActionTriggered(), to the handler, and to this window's
  // OnActionPerformed(). Qt calls slots in connection order, so every run of a handler is bracketed.
  bool Connect(QObject* pSender, const char* sSignal, QObject* pReceiver, const char* sSlot);
  bool Disconnect(QObject* pSender, const char* sSignal, QObject* pReceiver, const char* sSlot);

  // Sets the command permission and the menu state of the rows this window owns.
  virtual void UpdateActions() {}

 signals:
  void ActionTriggered(QAction* pAction);
  void ActionPerformed(QAction* pAction);

 public slots:
  void OnActionTriggered();
  void OnActionPerformed();
  int PerformAction(int Id);
  int PerformAction(int Id, const QVariant& v0);
  int PerformAction(int Id, const QVariant& v0, const QVariant& v1);
  int PerformAction(int Id, const QVariant& v0, const QVariant& v1, const QVariant& v2);
  int PerformAction(int Id, const QVariant& v0, const QVariant& v1, const QVariant& v2, const QVariant& v3);
};
