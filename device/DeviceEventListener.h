// The interface of everyone who hears the device. Every object derived from it is registered at
// construction and hears every event on the main thread, in registration order. OnDeviceJobDone decodes
// a finished job into the specific Done/Failed operations; all other operations are empty here.
#pragma once

#include "app/base/Log.h"
#include "app/base/Types.h"
#include "device/DeviceJob.h"
#include "device/RunControl.h"

struct ELF_SYM_LOC;
struct WP;

class CDeviceEventListener {
 public:
  CDeviceEventListener();
  virtual ~CDeviceEventListener();
  CDeviceEventListener(const CDeviceEventListener&) = delete;
  CDeviceEventListener& operator=(const CDeviceEventListener&) = delete;

  // Decodes a finished job: the write notice, the Done or Failed operation, then the follow-ups.
  virtual void OnDeviceJobDone(DEVICE_JOB* pJob);

  virtual void OnDeviceConnectDone(CONNECT_MODES) {}
  virtual void OnDeviceConnectFailed(CONNECT_MODES) {}
  virtual void OnDeviceDisconnectDone() {}
  virtual void OnDeviceDisconnectFailed() {}
  virtual void OnDeviceResumeDone(RESUME_MODES) {}
  virtual void OnDeviceResumeFailed(RESUME_MODES) {}
  virtual void OnDeviceHaltDone(U32 NewPC, HALT_REASONS HaltReason) {}
  virtual void OnDeviceHaltFailed() {}
  virtual void OnDeviceResetDone(U32 NewPC, RESET_MODES ResetMode) {}
  virtual void OnDeviceResetFailed(U32, RESET_MODES) {}
  virtual void OnDeviceRunToSymbolDone(U32 NewPC) {}
  virtual void OnDeviceRunToSymbolFailed(U32) {}
  virtual void OnDeviceStepInstDone(U32) {}
  virtual void OnDeviceStepInstFailed(U32) {}
  virtual void OnDeviceStepIntoDone(U32) {}
  virtual void OnDeviceStepIntoFailed(U32) {}
  virtual void OnDeviceStepOverDone(U32) {}
  virtual void OnDeviceStepOverFailed(U32) {}
  virtual void OnDeviceStepOutDone(U32) {}
  virtual void OnDeviceStepOutFailed(U32) {}
  virtual void OnDeviceStepped(U32 NewPC) {}
  virtual void OnDeviceEndDownloadDone(const char* sFilePath) {}
  virtual void OnDeviceEndDownloadFailed(const char* sFilePath, int TarvikErrCode) {}
  virtual void OnDeviceReadMemDone(U32 Addr, U32 nBytes, U8* paData, U8* paStatus) {}
  virtual void OnDeviceReadMemFailed(U32, U32) {}
  virtual void OnDeviceWriteMemDone(U32, U32, U8*) {}
  virtual void OnDeviceWriteMemFailed(U32, U32, U8*) {}
  virtual void OnDeviceWriteMemMultipleDone(U32, U32*, U8*, U8*) {}
  virtual void OnDeviceWriteMemMultipleFailed(U32, U32*, U8*, U8*) {}
  virtual void OnDeviceReadRegDone(U32 RegIdx, I64 RegValue) {}
  virtual void OnDeviceReadRegFailed(U32 RegIdx, I64 Value) {}
  virtual void OnDeviceReadCPRDone(ARM_CPR* pReg, I64 Value) {}
  virtual void OnDeviceReadCPRFailed(ARM_CPR* pReg) {}
  virtual void OnDeviceWriteRegDone(U32, I64) {}
  virtual void OnDeviceWriteRegFailed(U32) {}
  virtual void OnDeviceWriteCPRDone(ARM_CPR*, I64) {}
  virtual void OnDeviceWriteCPRFailed(ARM_CPR*) {}
  virtual void OnDeviceReadRegsDone(U32 Cnt, U32* paTarvikRegIdxs, I64* paRegVals) {}
  virtual void OnDeviceReadRegsFailed(U32 Cnt, U32* paTarvikRegIdxs) {}
  virtual void OnDeviceReadLocDone(const ELF_SYM_LOC& Loc, U32 nBytes, U8* paData) {}
  virtual void OnDeviceReadLocFailed(const ELF_SYM_LOC&, U32) {}
  virtual void OnDeviceReadLocsDone(U32, ELF_SYM_LOC*, I64*, U32) {}
  virtual void OnDeviceReadLocsFailed(U32, ELF_SYM_LOC*, U32) {}
  virtual void OnDeviceWriteLocDone(const ELF_SYM_LOC&, U32, U64) {}
  virtual void OnDeviceWriteLocFailed(const ELF_SYM_LOC&, U32, U64) {}
  virtual void OnDeviceEnableSimpleTraceDone() {}
  virtual void OnDeviceEnableSimpleTraceFailed() {}
  virtual void OnDeviceDisableSimpleTraceDone() {}
  virtual void OnDeviceDisableSimpleTraceFailed() {}
  virtual void OnDeviceStartSimpleTraceDone() {}
  virtual void OnDeviceStartSimpleTraceFailed() {}
  virtual void OnDeviceStopSimpleTraceDone() {}
  virtual void OnDeviceStopSimpleTraceFailed() {}
  virtual void OnDeviceFlushSimpleTraceDone() {}
  virtual void OnDeviceFlushSimpleTraceFailed() {}
  virtual void OnDeviceReadInstStatsDone(U32 NumRanges, U32 BufferSize, U8* paRanges, U8* paStats) {}
  virtual void OnDeviceReadInstStatsFailed(U32 NumRanges, U32 BufferSize, U8* paRanges) {}
  virtual void OnDeviceReadSimpleTraceDone(U32 NumAsked, U32 NumRead, U32 NotAll, U32 Interrupted,
                                           U32* paInsts) {}
  virtual void OnDeviceReadSimpleTraceFailed(U32) {}
  virtual void OnDeviceStartSWODone(U32 CpuHz, U32 SWOHz, U32 PortMask) {}
  virtual void OnDeviceStartSWOFailed(U32 CpuHz, U32 SWOHz, U32 PortMask) {}
  virtual void OnDeviceStopSWODone(U32 PortMask) {}
  virtual void OnDeviceStopSWOFailed(U32) {}
  virtual void OnDeviceReadSWODone(U32 Port, U32 NumBytes, I64 Read, U8* paData) {}
  virtual void OnDeviceReadSWOFailed(U32, U32) {}
  virtual void OnDeviceGetSWOSpeedsDone(U32, U32, U32*) {}
  virtual void OnDeviceGetSWOSpeedsFailed(U32, U32, U32*) {}
  virtual void OnDeviceStartHSSDone(U32, U32*, int, int) {}
  virtual void OnDeviceStartHSSFailed(U32, U32*, int, int) {}
  virtual void OnDeviceStopHSSDone() {}
  virtual void OnDeviceStopHSSFailed() {}
  virtual void OnDeviceReadHSSDone(U32 Cnt, I64 Read, U8* paData) {}
  virtual void OnDeviceReadHSSFailed(U32) {}
  virtual void OnDeviceStartMCTDone() {}
  virtual void OnDeviceStartMCTFailed() {}
  virtual void OnDeviceStopMCTDone() {}
  virtual void OnDeviceStopMCTFailed() {}
  virtual void OnDeviceFlushMCTDone() {}
  virtual void OnDeviceFlushMCTFailed() {}
  virtual void OnDeviceWriteMCTDone(U32, U32, U8*) {}
  virtual void OnDeviceWriteMCTFailed(U32, U32, U8*) {}
  virtual void OnDeviceReadMCTDone(U32 BuffIdx, U32 NumBytes, I64 Read, U8* paData) {}
  virtual void OnDeviceReadMCTFailed(U32, U32) {}
  virtual void OnDeviceSetSHInputDone(U32, const char*) {}
  virtual void OnDeviceSetSHInputFailed(U32, const char*) {}
  virtual void OnDeviceSetBPDone(U32 Addr) {}
  virtual void OnDeviceSetBPFailed(U32) {}
  virtual void OnDeviceSetBPsDone(U32, U32*) {}
  virtual void OnDeviceSetBPsFailed(U32, U32*) {}
  virtual void OnDeviceClearBPDone(U32) {}
  virtual void OnDeviceClearBPFailed(U32) {}
  virtual void OnDeviceClearBPsDone(U32, U32*) {}
  virtual void OnDeviceClearBPsFailed(U32, U32*) {}
  virtual void OnDeviceClearAllBPsDone() {}
  virtual void OnDeviceClearAllBPsFailed() {}
  virtual void OnDeviceResetBPsDone() {}
  virtual void OnDeviceResetBPsFailed() {}
  virtual void OnDeviceSetWPsDone(U32 Cnt, WP* paWatchpoints) {}
  virtual void OnDeviceSetWPsFailed(U32 Cnt, WP* paWatchpoints) {}
  virtual void OnDeviceClearWPsDone(U32 Cnt, WP* paWatchpoints) {}
  virtual void OnDeviceClearWPsFailed(U32 Cnt, WP* paWatchpoints) {}
  virtual void OnDeviceClearAllWPsDone() {}
  virtual void OnDeviceClearAllWPsFailed() {}
  virtual void OnDeviceConfigureDone(const char*) {}
  virtual void OnDeviceConfigureFailed(const char*) {}
  virtual void OnDeviceSetConfigTextDone(int, const char*) {}
  virtual void OnDeviceSetConfigValueDone(int, int) {}
  virtual void OnDeviceSetConfigTextFailed(int, const char*) {}
  virtual void OnDeviceSetConfigValueFailed(int, int) {}
  virtual void OnDeviceExecCmdDone(const char* sCmd) {}
  virtual void OnDeviceExecCmdFailed(const char* sCmd, char* sError) {}
  virtual void OnDeviceSetTargetExecStateDone(U32 Cnt, I64* paRegVals) {}
  virtual void OnDeviceSetTargetExecStateFailed(U32, I64*) {}
  virtual void OnDeviceResetTargetExecStateDone() {}
  virtual void OnDeviceResetTargetExecStateFailed() {}
  virtual void OnDeviceDisassInstsExDone(U32, U32, U32, U32*) {}
  virtual void OnDeviceDisassInstsDone(U32, U32*) {}
  virtual void OnDeviceDisassInstsExFailed(U32, U32, U32, U32*) {}
  virtual void OnDeviceDisassInstsFailed(U32, U32*) {}
  virtual void OnDeviceDisassArangesDone(U32, U32*) {}
  virtual void OnDeviceDisassArangesFailed(U32, U32*) {}
  virtual void OnDeviceGetInfoDone(const char*, char*) {}
  virtual void OnDeviceGetInfoFailed(const char*) {}
  virtual void OnDeviceMeasureSpeedDone(I64) {}
  virtual void OnDeviceMeasureSpeedFailed() {}
  virtual void OnDeviceEvalBPCondition(U32 Addr) {}
  virtual void OnDeviceConfigParamChanged(int ParamID, int Value) {}
  virtual void OnDeviceHWCapabilityChanged(int, int) {}
  virtual void OnDeviceConnectionLost() {}
  virtual void OnDeviceAboutToDisconnect() {}
  virtual void OnDeviceAboutToStep() {}
  virtual void OnDeviceAboutToResume() {}
  virtual void OnDeviceCPUModeChanged(ARM_CPU_MODES NewMode) {}
  virtual void OnDeviceExecModeChanged(ARM_EXEC_MODES) {}
  virtual void OnDeviceEndianessChanged(int DataEndian, int InstEndian) {}
  virtual void OnDeviceLogMsg(const char* sMsg, MSG_INFO_FLAGS Flags) {}
  virtual void OnDeviceSetStatusMsg(const char* sMsg) {}
  virtual void OnDeviceSetProgressMsg(const char* sMsg) {}
  virtual void OnDeviceStartProgress(int Min, int Max) {}
  virtual void OnDeviceEndProgress() {}
  virtual void OnDeviceSetProgressValue(int Value) {}
  virtual void OnDeviceWPStateChanged() {}
  virtual void OnDeviceBPStateChanged() {}
  virtual void OnDeviceWriteAccess() {}

  // Calls Fn on every registered listener, in list order. A listener removed during the walk is skipped.
  template <typename F>
  static void ForEach(F Fn);
  static int CountListeners();

 private:
  struct NODE {
    CDeviceEventListener* pListener;
    NODE* pNext;
  };
  static NODE _Head;
  static NODE* _Next(NODE* p) { return p->pNext; }
  friend class CDeviceEventDispatch;
};

template <typename F>
void CDeviceEventListener::ForEach(F Fn) {
  for (NODE* p = &_Head; p != nullptr; p = p->pNext) {
    if (p->pListener) {
      Fn(p->pListener);
    }
  }
}
