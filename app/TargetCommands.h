// The commands that read and write the target directly: memory words, blocks and files, and core
// registers by name. Memory reads are jobs that the command waits for with events pumped, bounded by the
// job's limit; writes go through the device queue so that they are ordered with everything else.
#pragma once

#include <QObject>
#include <QString>

#include "device/DeviceEventListener.h"

class CWindow;

class CTargetCommands : public QObject, public CDeviceEventListener {
  Q_OBJECT
 public:
  explicit CTargetCommands(QObject* pParent = nullptr);

  // Connects the Target.* rows of the window's actions to these handlers.
  void ConnectTo(CWindow* pWindow);

  // The probe's index of a core register named as in the register window ("R0".."R12", "SP", "LR", "PC",
  // "xPSR", "CPSR", "SPSR", "MSP", "PSP", "PRIMASK", "BASEPRI", "FAULTMASK", "CONTROL"), or -1.
  static int RegisterIndexByName(const QString& sName);

  void OnDeviceWriteMemFailed(U32 Addr, U32 nBytes, U8* paData) override;
  void OnDeviceWriteRegFailed(U32 RegIdx) override;

 public slots:
  void OnActionTargetReadU32Triggered();
  void OnActionTargetReadU16Triggered();
  void OnActionTargetReadU8Triggered();
  void OnActionTargetWriteU32Triggered();
  void OnActionTargetWriteU16Triggered();
  void OnActionTargetWriteU8Triggered();
  void OnActionTargetFillMemoryTriggered();
  void OnActionTargetSaveMemoryTriggered();
  void OnActionTargetLoadMemoryTriggered();
  void OnActionTargetGetRegTriggered();
  void OnActionTargetSetRegTriggered();

 private:
  void _Read(const char* sRow, U32 Size);
  void _Write(const char* sRow, U32 Size);
};
