// The listener registry and the decoding of a finished job into the specific listener operations.
#include "device/DeviceEventListener.h"

#include <cstring>

#include "device/Device.h"

// The list always ends in a spare empty node. The head node is static: when its listener goes away the
// node stays in place, empty, and the next registration fills it.
CDeviceEventListener::NODE CDeviceEventListener::_Head = {nullptr, nullptr};

CDeviceEventListener::CDeviceEventListener() {
  if (_Head.pListener == nullptr) {
    _Head.pListener = this;
    if (_Head.pNext == nullptr) {
      _Head.pNext = new NODE{nullptr, nullptr};
    }
    return;
  }
  NODE* p = &_Head;
  while (p->pNext != nullptr) {
    p = p->pNext;
  }
  // p is the spare node: it takes this listener and a new spare goes behind it.
  p->pListener = this;
  p->pNext = new NODE{nullptr, nullptr};
}

CDeviceEventListener::~CDeviceEventListener() {
  if (_Head.pListener == this) {
    _Head.pListener = nullptr;
    return;
  }
  for (NODE* pPrev = &_Head; pPrev->pNext != nullptr; pPrev = pPrev->pNext) {
    NODE* p = pPrev->pNext;
    if (p->pListener == this) {
      pPrev->pNext = p->pNext;
      delete p;
      return;
    }
  }
}

int CDeviceEventListener::CountListeners() {
  int n = 0;
  ForEach([&n](CDeviceEventListener*) { ++n; });
  return n;
}

void CDeviceEventListener::OnDeviceJobDone(DEVICE_JOB* pJob) {
  const U32 Type = pJob->Type;
  const bool Done = pJob->Status == JOB_STATUS_DONE;
  const U32 P0 = U32(pJob->aParam[0]);
  const U32 P1 = U32(pJob->aParam[1]);
  const U32 P2 = U32(pJob->aParam[2]);
  const I64 R0 = pJob->aResult[0];
  U8* const pD0 = pJob->apData[0];
  U8* const pD1 = pJob->apData[1];
  U8* const pD2 = pJob->apData[2];
  CDevice* pDevice = CDevice::Instance();

  // 1. Write notice, ahead of the completion of anything that wrote memory or registers.
  switch (Type) {
    case JT_WRITE_REG:
    case JT_WRITE_CP_REG:
    case JT_WRITE_MEM:
    case JT_WRITE_MEM_MULTIPLE:
    case JT_WRITE_BYTE:
    case JT_WRITE_LOCATION:
      if (pDevice->IsStateValid()) {
        OnDeviceWriteAccess();
      }
      break;
    default:
      break;
  }

  // 2. Main dispatch.
  switch (Type) {
    case JT_CONNECT:
      Done ? OnDeviceConnectDone(CONNECT_MODES(P0)) : OnDeviceConnectFailed(CONNECT_MODES(P0));
      break;
    case JT_DISCONNECT:
      Done ? OnDeviceDisconnectDone() : OnDeviceDisconnectFailed();
      break;
    case JT_CONTINUE:
      Done ? OnDeviceResumeDone(RESUME_MODES(P0)) : OnDeviceResumeFailed(RESUME_MODES(P0));
      break;
    case JT_HALT:
      Done ? OnDeviceHaltDone(U32(R0), HALT_REASONS(P0)) : OnDeviceHaltFailed();
      break;
    case JT_RESET:
      Done ? OnDeviceResetDone(U32(R0), RESET_MODES(P0)) : OnDeviceResetFailed(U32(R0), RESET_MODES(P0));
      break;
    case JT_RUN_TO:
      Done ? OnDeviceRunToSymbolDone(U32(R0)) : OnDeviceRunToSymbolFailed(U32(R0));
      break;
    case JT_STEP_INST:
      Done ? OnDeviceStepInstDone(U32(R0)) : OnDeviceStepInstFailed(U32(R0));
      break;
    case JT_STEP_INTO:
      Done ? OnDeviceStepIntoDone(U32(R0)) : OnDeviceStepIntoFailed(U32(R0));
      break;
    case JT_STEP_OVER:
      Done ? OnDeviceStepOverDone(U32(R0)) : OnDeviceStepOverFailed(U32(R0));
      break;
    case JT_STEP_OUT:
      Done ? OnDeviceStepOutDone(U32(R0)) : OnDeviceStepOutFailed(U32(R0));
      break;
    case JT_END_DOWNLOAD:
      Done ? OnDeviceEndDownloadDone(reinterpret_cast<const char*>(pD0))
           : OnDeviceEndDownloadFailed(reinterpret_cast<const char*>(pD0), int(R0));
      break;
    case JT_READ_MEM:
      Done ? OnDeviceReadMemDone(P0, P1, pD0, pD1) : OnDeviceReadMemFailed(P0, P1);
      break;
    case JT_WRITE_MEM:
      Done ? OnDeviceWriteMemDone(P0, P1, pD0) : OnDeviceWriteMemFailed(P0, P1, pD0);
      break;
    case JT_WRITE_MEM_MULTIPLE:
      Done ? OnDeviceWriteMemMultipleDone(P0, reinterpret_cast<U32*>(pD0), pD1, pD2)
           : OnDeviceWriteMemMultipleFailed(P0, reinterpret_cast<U32*>(pD0), pD1, pD2);
      break;
    case JT_READ_REG:
      Done ? OnDeviceReadRegDone(P0, R0) : OnDeviceReadRegFailed(P0, R0);
      break;
    case JT_READ_CP_REG:
      Done ? OnDeviceReadCPRDone(reinterpret_cast<ARM_CPR*>(pD0), R0)
           : OnDeviceReadCPRFailed(reinterpret_cast<ARM_CPR*>(pD0));
      break;
    case JT_WRITE_REG:
      Done ? OnDeviceWriteRegDone(P0, I64(pJob->aParam[1])) : OnDeviceWriteRegFailed(P0);
      break;
    case JT_WRITE_CP_REG:
      Done ? OnDeviceWriteCPRDone(reinterpret_cast<ARM_CPR*>(pD0), I64(pJob->aParam[0]))
           : OnDeviceWriteCPRFailed(reinterpret_cast<ARM_CPR*>(pD0));
      break;
    case JT_READ_REGS:
      Done ? OnDeviceReadRegsDone(P0, reinterpret_cast<U32*>(pD0), reinterpret_cast<I64*>(pD1))
           : OnDeviceReadRegsFailed(P0, reinterpret_cast<U32*>(pD0));
      break;
    case JT_READ_LOCATION:
      if (pD0) {
        const ELF_SYM_LOC& Loc = *reinterpret_cast<const ELF_SYM_LOC*>(pD0);
        Done ? OnDeviceReadLocDone(Loc, P0, reinterpret_cast<U8*>(&pJob->aResult[0]))
             : OnDeviceReadLocFailed(Loc, P0);
      }
      break;
    case JT_READ_LOCS:
      Done ? OnDeviceReadLocsDone(P0, reinterpret_cast<ELF_SYM_LOC*>(pD0), reinterpret_cast<I64*>(pD1), P1)
           : OnDeviceReadLocsFailed(P0, reinterpret_cast<ELF_SYM_LOC*>(pD0), P1);
      break;
    case JT_WRITE_LOCATION:
      if (pD0) {
        const ELF_SYM_LOC& Loc = *reinterpret_cast<const ELF_SYM_LOC*>(pD0);
        U64 Value = 0;
        if (pD1) {
          memcpy(&Value, pD1, P0 < 8 ? P0 : 8);
        }
        Done ? OnDeviceWriteLocDone(Loc, P0, Value) : OnDeviceWriteLocFailed(Loc, P0, Value);
      }
      break;
    case JT_ENABLE_SIMPLE_TRACE:
      Done ? OnDeviceEnableSimpleTraceDone() : OnDeviceEnableSimpleTraceFailed();
      break;
    case JT_DISABLE_SIMPLE_TRACE:
      Done ? OnDeviceDisableSimpleTraceDone() : OnDeviceDisableSimpleTraceFailed();
      break;
    case JT_START_SIMPLE_TRACE:
      Done ? OnDeviceStartSimpleTraceDone() : OnDeviceStartSimpleTraceFailed();
      break;
    case JT_STOP_SIMPLE_TRACE:
      Done ? OnDeviceStopSimpleTraceDone() : OnDeviceStopSimpleTraceFailed();
      break;
    case JT_FLUSH_STRACE_BUFFER:
      Done ? OnDeviceFlushSimpleTraceDone() : OnDeviceFlushSimpleTraceFailed();
      break;
    case JT_READ_INST_STATS:
      Done ? OnDeviceReadInstStatsDone(P0, P1, pD0, pD1) : OnDeviceReadInstStatsFailed(P0, P1, pD0);
      break;
    case JT_READ_SIMPLE_TRACE:
      Done ? OnDeviceReadSimpleTraceDone(P0, U32(R0), U32(pJob->aResult[1]), U32(pJob->aResult[2]),
                                         reinterpret_cast<U32*>(pD0))
           : OnDeviceReadSimpleTraceFailed(P0);
      break;
    case JT_START_SWO_TRACE:
      Done ? OnDeviceStartSWODone(P0, P1, P2) : OnDeviceStartSWOFailed(P0, P1, P2);
      break;
    case JT_STOP_SWO_TRACE:
      Done ? OnDeviceStopSWODone(P0) : OnDeviceStopSWOFailed(P0);
      break;
    case JT_READ_SWO_TRACE:
      Done ? OnDeviceReadSWODone(P0, P1, R0, pD0) : OnDeviceReadSWOFailed(P0, P1);
      break;
    case JT_SWO_GET_COMPAT_SPEEDS:
      Done ? OnDeviceGetSWOSpeedsDone(P0, P1, reinterpret_cast<U32*>(pD0))
           : OnDeviceGetSWOSpeedsFailed(P0, P1, reinterpret_cast<U32*>(pD0));
      break;
    case JT_START_HSS:
      Done ? OnDeviceStartHSSDone(P0, reinterpret_cast<U32*>(pD0), int(P1), int(P2))
           : OnDeviceStartHSSFailed(P0, reinterpret_cast<U32*>(pD0), int(P1), int(P2));
      break;
    case JT_STOP_HSS:
      Done ? OnDeviceStopHSSDone() : OnDeviceStopHSSFailed();
      break;
    case JT_READ_HSS:
      Done ? OnDeviceReadHSSDone(P0, R0, pD0) : OnDeviceReadHSSFailed(P0);
      break;
    case JT_START_MCT:
      Done ? OnDeviceStartMCTDone() : OnDeviceStartMCTFailed();
      break;
    case JT_STOP_MCT:
      Done ? OnDeviceStopMCTDone() : OnDeviceStopMCTFailed();
      break;
    case JT_FLUSH_MCT:
      Done ? OnDeviceFlushMCTDone() : OnDeviceFlushMCTFailed();
      break;
    case JT_WRITE_MCT:
      Done ? OnDeviceWriteMCTDone(P0, P1, pD0) : OnDeviceWriteMCTFailed(P0, P1, pD0);
      break;
    case JT_READ_MCT:
      Done ? OnDeviceReadMCTDone(P0, P1, R0, pD0) : OnDeviceReadMCTFailed(P0, P1);
      break;
    case JT_SET_SH_INPUT_TEXT:
      Done ? OnDeviceSetSHInputDone(P0, reinterpret_cast<const char*>(pD0))
           : OnDeviceSetSHInputFailed(P0, reinterpret_cast<const char*>(pD0));
      break;
    case JT_SET_BP:
      Done ? OnDeviceSetBPDone(P0) : OnDeviceSetBPFailed(P0);
      break;
    case JT_SET_BPS:
      Done ? OnDeviceSetBPsDone(P0, reinterpret_cast<U32*>(pD0))
           : OnDeviceSetBPsFailed(P0, reinterpret_cast<U32*>(pD0));
      break;
    case JT_CLEAR_BP:
      Done ? OnDeviceClearBPDone(P0) : OnDeviceClearBPFailed(P0);
      break;
    case JT_CLEAR_BPS:
      Done ? OnDeviceClearBPsDone(P0, reinterpret_cast<U32*>(pD0))
           : OnDeviceClearBPsFailed(P0, reinterpret_cast<U32*>(pD0));
      break;
    case JT_CLEAR_ALL_BPS:
      Done ? OnDeviceClearAllBPsDone() : OnDeviceClearAllBPsFailed();
      break;
    case JT_RESET_BPS:
      Done ? OnDeviceResetBPsDone() : OnDeviceResetBPsFailed();
      break;
    case JT_SET_WPS:
      Done ? OnDeviceSetWPsDone(P0, reinterpret_cast<WP*>(pD0))
           : OnDeviceSetWPsFailed(P0, reinterpret_cast<WP*>(pD0));
      break;
    case JT_CLEAR_WPS:
      Done ? OnDeviceClearWPsDone(P0, reinterpret_cast<WP*>(pD0))
           : OnDeviceClearWPsFailed(P0, reinterpret_cast<WP*>(pD0));
      break;
    case JT_CLEAR_ALL_WPS:
      Done ? OnDeviceClearAllWPsDone() : OnDeviceClearAllWPsFailed();
      break;
    case JT_CONFIGURE:
      Done ? OnDeviceConfigureDone(reinterpret_cast<const char*>(pD0))
           : OnDeviceConfigureFailed(reinterpret_cast<const char*>(pD0));
      break;
    case JT_SET_CONFIG_PARAM:
      if (pD0) {
        Done ? OnDeviceSetConfigTextDone(int(P0), reinterpret_cast<const char*>(pD0))
             : OnDeviceSetConfigTextFailed(int(P0), reinterpret_cast<const char*>(pD0));
      } else {
        Done ? OnDeviceSetConfigValueDone(int(P0), int(P1)) : OnDeviceSetConfigValueFailed(int(P0), int(P1));
      }
      break;
    case JT_EXEC_TARVIK_CMD:
      Done ? OnDeviceExecCmdDone(reinterpret_cast<const char*>(pD0))
           : OnDeviceExecCmdFailed(reinterpret_cast<const char*>(pD0), reinterpret_cast<char*>(pD1));
      break;
    case JT_SET_TARGET_EXEC_STATE:
      Done ? OnDeviceSetTargetExecStateDone(P0, reinterpret_cast<I64*>(pD0))
           : OnDeviceSetTargetExecStateFailed(P0, reinterpret_cast<I64*>(pD0));
      break;
    case JT_RESET_TARGET_EXEC_STATE:
      Done ? OnDeviceResetTargetExecStateDone() : OnDeviceResetTargetExecStateFailed();
      break;
    case JT_DISASS_INSTRS_EX:
      OnDeviceDisassInstsExDone(P0, P1, P2, reinterpret_cast<U32*>(pD0));
      break;
    case JT_DISASS_INSTS:
      Done ? OnDeviceDisassInstsDone(P0, reinterpret_cast<U32*>(pD0))
           : OnDeviceDisassInstsFailed(P0, reinterpret_cast<U32*>(pD0));
      break;
    case JT_DISASS_ARANGES:
      Done ? OnDeviceDisassArangesDone(P0, reinterpret_cast<U32*>(pD0))
           : OnDeviceDisassArangesFailed(P0, reinterpret_cast<U32*>(pD0));
      break;
    case JT_GET_DEVICE_INFO:
      Done ? OnDeviceGetInfoDone(reinterpret_cast<const char*>(pD0), reinterpret_cast<char*>(pD1))
           : OnDeviceGetInfoFailed(reinterpret_cast<const char*>(pD0));
      break;
    case JT_MEASURE_CORE_SPEED:
      Done ? OnDeviceMeasureSpeedDone(R0) : OnDeviceMeasureSpeedFailed();
      break;
    default:
      break;
  }

  // 3. Follow-ups.
  switch (Type) {
    case JT_RESET:
      if (Done) {
        OnDeviceHaltDone(U32(R0), HR_HALT);  // a finished reset is also a halt
      }
      break;
    case JT_STEP_INST:
    case JT_STEP_INTO:
    case JT_STEP_OVER:
    case JT_STEP_OUT:
      OnDeviceStepped(U32(R0));
      break;
    case JT_SET_BP:
    case JT_SET_BPS:
    case JT_CLEAR_BP:
    case JT_CLEAR_BPS:
    case JT_CLEAR_ALL_BPS:
      OnDeviceBPStateChanged();
      break;
    case JT_SET_WPS:
    case JT_CLEAR_WPS:
    case JT_CLEAR_ALL_WPS:
      OnDeviceWPStateChanged();
      break;
    case JT_WRITE_REG:
      if (Done && P0 == pDevice->GetPCRegIndex()) {
        OnDeviceHaltDone(U32(pJob->aParam[1]), HR_PC_SET);  // a moved PC looks like a new halt
      }
      break;
    case JT_SET_TARGET_EXEC_STATE:
      if (Done) {
        OnDeviceResetDone(pDevice->GetPC(), RM_STATE_SET);
      }
      break;
    default:
      break;
  }
}
