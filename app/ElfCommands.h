// The Elf.* commands that answer facts of the open program file: where its data loads, where it starts
// and its byte order. Each stores its answer as the row's result.
#pragma once

#include <QObject>

#include "app/base/Types.h"

class CWindow;

class CElfCommands : public QObject {
  Q_OBJECT
 public:
  explicit CElfCommands(QObject* pParent = nullptr);

  // Connects the rows to these handlers in place of the window's "not available" placeholder.
  void ConnectTo(CWindow* pWindow);

 public slots:
  void OnActionElfGetBaseAddrTriggered();
  void OnActionElfGetEntryPointPCTriggered();
  void OnActionElfGetEntryFuncPCTriggered();
  void OnActionElfGetEndianessTriggered();

 private:
  // Runs the row: without a program the row reports it; an address query that finds nothing (all
  // ones) reports that the program lacks it.
  void _Answer(const char* sRow, U32 (*pfQuery)(), bool IsAddress);
};
