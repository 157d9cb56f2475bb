// The job type table (queue, default wait limit, name) and the buffer operations of a job record.
#include "device/DeviceJob.h"

#include <cstdlib>
#include <cstring>

namespace {

struct JOB_TYPE_INFO {
  const char* sName;
  U8 Queue;
  U8 NeedsData;  // apData[0] must be set for the record to be valid
  int TimeoutMS;
};

// Indexed by job type. Types 10 and 66 are query values, not jobs.
const JOB_TYPE_INFO _aJobTypes[JT_LAST] = {
    {"JT_NONE", 1, 0, 5000},
    {"JT_CONNECT", 0, 0, 120000},
    {"JT_DISCONNECT", 0, 0, 5000},
    {"JT_RESET", 0, 0, 60000},
    {"JT_HALT", 0, 0, 5000},
    {"JT_CONTINUE", 0, 0, 5000},
    {"JT_STEP_INST", 0, 0, 5000},
    {"JT_STEP_INTO", 0, 0, 5000},
    {"JT_STEP_OVER", 0, 0, 5000},
    {"JT_STEP_OUT", 0, 0, 5000},
    {nullptr, 1, 0, 5000},
    {"JT_RUN_TO", 0, 0, 5000},
    {"JT_EXEC_TARVIK_CMD", 0, 1, 60000},
    {"JT_EDIT_BP", 0, 0, 5000},
    {"JT_SET_BP", 0, 0, 5000},
    {"JT_SET_BPS", 0, 1, 5000},
    {"JT_CLEAR_BP", 0, 0, 5000},
    {"JT_CLEAR_BPS", 0, 1, 5000},
    {"JT_CLEAR_ALL_BPS", 0, 0, 5000},
    {"JT_RESET_BPS", 0, 0, 5000},
    {"JT_SET_WPS", 0, 1, 5000},
    {"JT_CLEAR_WPS", 0, 1, 5000},
    {"JT_CLEAR_ALL_WPS", 0, 0, 5000},
    {"JT_READ_REG", 1, 0, 5000},
    {"JT_WRITE_REG", 0, 0, 5000},
    {"JT_READ_CP_REG", 1, 1, 5000},
    {"JT_WRITE_CP_REG", 0, 1, 5000},
    {"JT_READ_REGS", 1, 1, 5000},
    {"JT_END_DOWNLOAD", 0, 0, 120000},
    {"JT_READ_MEM", 1, 0, 10000},
    {"JT_WRITE_MEM", 0, 1, 120000},
    {"JT_WRITE_MEM_MULTIPLE", 0, 1, 5000},
    {"JT_READ_BYTE", 0, 0, 5000},
    {"JT_WRITE_BYTE", 0, 0, 5000},
    {"JT_RESET_TARGET_EXEC_STATE", 0, 0, 5000},
    {"JT_SET_TARGET_EXEC_STATE", 0, 1, 5000},
    {"JT_READ_LOCATION", 1, 1, 5000},
    {"JT_READ_LOCS", 1, 1, 5000},
    {"JT_WRITE_LOCATION", 0, 1, 5000},
    {"JT_SET_SH_INPUT_TEXT", 1, 1, 5000},
    {"JT_DISASS_INSTS", 1, 1, 5000},
    {"JT_DISASS_INSTRS_EX", 1, 1, 5000},
    {"JT_DISASS_ARANGES", 1, 1, 5000},
    {"JT_ENABLE_SIMPLE_TRACE", 0, 0, 5000},
    {"JT_DISABLE_SIMPLE_TRACE", 0, 0, 5000},
    {"JT_START_SIMPLE_TRACE", 0, 0, 5000},
    {"JT_STOP_SIMPLE_TRACE", 0, 0, 5000},
    {"JT_READ_SIMPLE_TRACE", 1, 1, 5000},
    {"JT_READ_INST_STATS", 1, 1, 5000},
    {"JT_FLUSH_STRACE_BUFFER", 0, 0, 5000},
    {"JT_START_SWO_TRACE", 0, 0, 10000},
    {"JT_STOP_SWO_TRACE", 0, 0, 10000},
    {"JT_READ_SWO_TRACE", 1, 1, 5000},
    {"JT_SWO_GET_COMPAT_SPEEDS", 0, 1, 5000},
    {"JT_START_MCT", 0, 0, 10000},
    {"JT_STOP_MCT", 0, 0, 10000},
    {"JT_FLUSH_MCT", 1, 0, 10000},
    {"JT_READ_MCT", 1, 1, 5000},
    {"JT_WRITE_MCT", 1, 0, 5000},
    {"JT_START_HSS", 0, 0, 10000},
    {"JT_STOP_HSS", 0, 0, 10000},
    {"JT_READ_HSS", 1, 1, 5000},
    {"JT_CONFIGURE", 0, 1, 60000},
    {"JT_SET_CONFIG_PARAM", 0, 0, 5000},
    {"JT_GET_DEVICE_INFO", 1, 1, 5000},
    {"JT_MEASURE_CORE_SPEED", 2, 0, 5000},
    {nullptr, 1, 0, 5000},
};

}  // namespace

int JobTypeToQueue(U32 Type) {
  return Type < JT_LAST ? int(_aJobTypes[Type].Queue) : int(JOB_QUEUE_READ);
}

int JobTypeToTimeoutMS(U32 Type) {
  return Type < JT_LAST ? _aJobTypes[Type].TimeoutMS : 5000;
}

const char* JobTypeToName(U32 Type) {
  if (Type == 0 || Type >= JT_LAST || _aJobTypes[Type].sName == nullptr) {
    return "Unknown";
  }
  return _aJobTypes[Type].sName;
}

bool JobTypeNeedsData(U32 Type) {
  return Type < JT_LAST && _aJobTypes[Type].NeedsData;
}

int AttachJobData(DEVICE_JOB* pJob, U32 Idx, U32 nBytes, const void* pSource) {
  if (pJob == nullptr || pJob->Type == 0 || pJob->Type >= JT_LAST || Idx >= 3 ||
      pJob->apData[Idx] != nullptr || nBytes == 0 || nBytes > kMaxJobDataLen) {
    return -1;
  }
  U8* p = static_cast<U8*>(calloc(size_t(nBytes) + 1, 1));
  if (p == nullptr) {
    return -1;
  }
  if (pSource) {
    memcpy(p, pSource, nBytes);
  }
  pJob->apData[Idx] = p;
  pJob->aDataLen[Idx] = nBytes + 1;
  return 0;
}

void FreeJobData(DEVICE_JOB* pJob) {
  for (int i = 0; i < 3; ++i) {
    free(pJob->apData[i]);
    pJob->apData[i] = nullptr;
    pJob->aDataLen[i] = 0;
  }
}
