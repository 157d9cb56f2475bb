// The enumerations of run control that travel in jobs and listener events.
#pragma once

#include "app/base/Types.h"

enum CONNECT_MODES : U32 {
  CM_DOWNLOAD_RESET = 0,  // download the program and reset
  CM_ATTACH = 1,          // attach to the running program
  CM_ATTACH_HALT = 2,     // attach and halt
  CM_BARE = 3,            // connect only, no restoring of breakpoints
};

enum RESET_MODES : U32 {
  RM_RESET_HALT = 0,       // stay halted at the reset vector
  RM_BREAK_AT_SYMBOL = 1,  // run to the run-to symbol
  RM_RESET_AND_RUN = 2,    // let the program run
  RM_CONNECT = 3,          // reset that belongs to a connect sequence
  RM_BARE = 4,             // hardware reset only
  RM_STATE_SET = 5,        // not a reset: a target state was set from outside
};

enum RESUME_MODES : U32 {
  GO_USER = 0,
  GO_RUN_TO = 1,
};

enum HALT_REASONS : U32 {
  HR_HALT = 0,        // halted, no breakpoint at the PC
  HR_PC_SET = 1,      // the PC was set by hand or by the start-up logic
  HR_BREAKPOINT = 2,  // user breakpoint at the PC
  HR_RUN_TO = 3,      // a run to a hidden breakpoint ended
};

// The low five bits of CPSR. 27 also stands for unknown; any other value counts as user mode.
enum ARM_CPU_MODES : U32 {
  MODE_USR = 16,
  MODE_FIQ = 17,
  MODE_IRQ = 18,
  MODE_SVC = 19,
  MODE_ABT = 23,
  MODE_UND = 27,
  MODE_SYS = 31,
};

enum ARM_EXEC_MODES : U32 {
  EXEC_MODE_UNKNOWN = 0,
  EXEC_MODE_ARM = 1,
  EXEC_MODE_THUMB = 2,
};

// A coprocessor register selector; only coprocessor 15 is accepted.
struct ARM_CPR {
  U32 CoProc;
  U32 CRn;
  U32 CRm;
  U32 Op1;
  U32 Op2;
};

// Logical register numbers shared by all layers.
enum : U32 {
  REG_SP = 13,
  REG_LR = 14,
  REG_PC = 15,
  REG_CPSR = 16,
  REG_SPSR = 17,
};
