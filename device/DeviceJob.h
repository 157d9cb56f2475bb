// The job record that carries every piece of work for the target from any thread to the device thread,
// the job types with their queue and default wait limit, and the enumerations of run control that
// travel in job arguments.
#pragma once

#include "app/base/Types.h"

enum JOB_TYPES : U32 {
  JT_NONE = 0,
  JT_CONNECT = 1,
  JT_DISCONNECT = 2,
  JT_RESET = 3,
  JT_HALT = 4,
  JT_CONTINUE = 5,
  JT_STEP_INST = 6,
  JT_STEP_INTO = 7,
  JT_STEP_OVER = 8,
  JT_STEP_OUT = 9,
  JT_ANY_STEP = 10,  // query value: any of the four step jobs
  JT_RUN_TO = 11,
  JT_EXEC_TARVIK_CMD = 12,
  JT_EDIT_BP = 13,
  JT_SET_BP = 14,
  JT_SET_BPS = 15,
  JT_CLEAR_BP = 16,
  JT_CLEAR_BPS = 17,
  JT_CLEAR_ALL_BPS = 18,
  JT_RESET_BPS = 19,
  JT_SET_WPS = 20,
  JT_CLEAR_WPS = 21,
  JT_CLEAR_ALL_WPS = 22,
  JT_READ_REG = 23,
  JT_WRITE_REG = 24,
  JT_READ_CP_REG = 25,
  JT_WRITE_CP_REG = 26,
  JT_READ_REGS = 27,
  JT_END_DOWNLOAD = 28,
  JT_READ_MEM = 29,
  JT_WRITE_MEM = 30,
  JT_WRITE_MEM_MULTIPLE = 31,
  JT_READ_BYTE = 32,
  JT_WRITE_BYTE = 33,
  JT_RESET_TARGET_EXEC_STATE = 34,
  JT_SET_TARGET_EXEC_STATE = 35,
  JT_READ_LOCATION = 36,
  JT_READ_LOCS = 37,
  JT_WRITE_LOCATION = 38,
  JT_SET_SH_INPUT_TEXT = 39,
  JT_DISASS_INSTS = 40,
  JT_DISASS_INSTRS_EX = 41,
  JT_DISASS_ARANGES = 42,
  JT_ENABLE_SIMPLE_TRACE = 43,
  JT_DISABLE_SIMPLE_TRACE = 44,
  JT_START_SIMPLE_TRACE = 45,
  JT_STOP_SIMPLE_TRACE = 46,
  JT_READ_SIMPLE_TRACE = 47,
  JT_READ_INST_STATS = 48,
  JT_FLUSH_STRACE_BUFFER = 49,
  JT_START_SWO_TRACE = 50,
  JT_STOP_SWO_TRACE = 51,
  JT_READ_SWO_TRACE = 52,
  JT_SWO_GET_COMPAT_SPEEDS = 53,
  JT_START_MCT = 54,
  JT_STOP_MCT = 55,
  JT_FLUSH_MCT = 56,
  JT_READ_MCT = 57,
  JT_WRITE_MCT = 58,
  JT_START_HSS = 59,
  JT_STOP_HSS = 60,
  JT_READ_HSS = 61,
  JT_CONFIGURE = 62,
  JT_SET_CONFIG_PARAM = 63,
  JT_GET_DEVICE_INFO = 64,
  JT_MEASURE_CORE_SPEED = 65,
  JT_ANY = 66,  // query value: any job
  JT_LAST = 67,
};

// Job outcome in DEVICE_JOB::Status.
enum : U32 {
  JOB_STATUS_DONE = 0,
  JOB_STATUS_FAILED = 1,
  JOB_STATUS_DROPPED = 2,
};

// Bits of DEVICE_JOB::Flags.
enum : U32 {
  JOB_FLAG_PENDING = 1u << 0,
  JOB_FLAG_KEEP = 1u << 1,  // a pending job with this bit survives the cancel operations
};

struct DEVICE_JOB {
  U32 Type;        // a JT_* value; 0 marks a free record
  U32 QueueIdx;    // 0, 1 or 2, set on submission
  U64 JobId;       // running number, set on submission
  U32 Status;      // JOB_STATUS_*
  U32 Flags;       // JOB_FLAG_*
  I64 aResult[3];  // meaning per type; [0] is signed, [1] and [2] hold unsigned values
  U64 aParam[5];
  U8* apData[3];  // heap buffers owned by the record
  U32 aDataLen[3];
};

// Queue numbers and the two pseudo-queues of the find and cancel operations.
enum : int {
  JOB_QUEUE_CONTROL = 0,  // everything that changes the target or the session
  JOB_QUEUE_READ = 1,     // reads and queries
  JOB_QUEUE_SLOW = 2,     // only the core speed measurement
  JOB_QUEUE_OWN = 3,      // "the queue of that job type"
  JOB_QUEUE_ALL = 4,
};

constexpr U32 kJobRingSize = 10000;
constexpr U32 kMaxJobDataLen = 10000000;

// The queue a job type goes to, its default wait limit in ms, and its name ("Unknown" outside the table).
int JobTypeToQueue(U32 Type);
int JobTypeToTimeoutMS(U32 Type);
const char* JobTypeToName(U32 Type);
// True for the types that must carry apData[0] to be valid.
bool JobTypeNeedsData(U32 Type);
// Attaches a zeroed heap buffer of nBytes + 1 to slot Idx, copying nBytes from pSource if given.
// -1 when the type is 0 or not below JT_LAST, Idx is not below 3, the slot is taken, or nBytes is 0 or
// above 10,000,000.
int AttachJobData(DEVICE_JOB* pJob, U32 Idx, U32 nBytes, const void* pSource);
// Frees the buffers of a record (not the record).
void FreeJobData(DEVICE_JOB* pJob);
