// The probe operations as one table of function pointers. Everything above the probe layer reaches the
// target only through this table (GetTarvikApi()); which back-end stands behind it (the built-in
// simulator, a GDB remote server, or a test's scripted mock) is invisible from here up.
#pragma once

#include <cstddef>

#include "app/base/Types.h"

// Records that cross the probe boundary. Each starts with its own size, set by the caller; the rest is
// zeroed by the caller before the call.

struct TARVIK_BP_INFO {
  U32 SizeOfStruct;  // 28
  U32 Handle;        // 0 for none
  U32 Addr;
  U32 Reserved0;
  U32 ImpFlags;  // bit 0 hardware unit, bit 1 software in RAM, bit 4 software in flash; 0 while pending
  U8 aReserved[8];
};
static_assert(sizeof(TARVIK_BP_INFO) == 28);
static_assert(offsetof(TARVIK_BP_INFO, ImpFlags) == 16);

struct TARVIK_DATA_EVENT {
  U32 SizeOfStruct;  // 28
  U32 Type;          // 1: data breakpoint
  U32 Addr;
  U32 AddrMask;  // bits set are ignored in the comparison
  U32 Data;
  U32 DataMask;   // bits set are ignored in the comparison
  U8 Access;      // bit 0: write; bits 1..2: size, 2 half word, 4 word, 0 byte
  U8 AccessMask;  // bits of Access that do not matter; bit 4 always set
  U8 aReserved[2];
};
static_assert(sizeof(TARVIK_DATA_EVENT) == 28);
static_assert(offsetof(TARVIK_DATA_EVENT, Access) == 24);
static_assert(offsetof(TARVIK_DATA_EVENT, AccessMask) == 25);

struct TARVIK_WP_INFO {
  U32 SizeOfStruct;  // 40
  U32 Handle;
  U32 Addr;
  U32 AddrMask;
  U32 Data;
  U32 DataMask;
  U32 Access;
  U32 AccessMask;
  U8 aReserved[8];
};
static_assert(sizeof(TARVIK_WP_INFO) == 40);
static_assert(offsetof(TARVIK_WP_INFO, AccessMask) == 28);

struct TARVIK_DEVICE_INFO {
  U32 SizeOfStruct;  // 1368
  U32 Reserved0;
  const char* sName;  // owned by the probe layer
  U8 aReserved1[8];
  U32 RAMAddr;
  U8 aReserved2[8];
  U32 RAMSize;
  U8 aReserved3[520];
  U32 Core;  // core identifier; family and core name follow from it
  U8 aReserved4[804];
};
static_assert(sizeof(TARVIK_DEVICE_INFO) == 1368);
static_assert(offsetof(TARVIK_DEVICE_INFO, sName) == 8);
static_assert(offsetof(TARVIK_DEVICE_INFO, RAMAddr) == 24);
static_assert(offsetof(TARVIK_DEVICE_INFO, RAMSize) == 36);
static_assert(offsetof(TARVIK_DEVICE_INFO, Core) == 560);

struct TARVIK_HSS_BLOCK {
  U32 Addr;
  U32 NumBytes;
  U32 Flags;  // 0
  U32 Reserved;
};
static_assert(sizeof(TARVIK_HSS_BLOCK) == 16);
constexpr int kTarvikMaxHSSBlocks = 511;

struct TARVIK_DISASS_INFO {
  U32 SizeOfStruct;  // 8
  U8 ExecMode;       // execution mode of the instruction
  U8 ITState;        // IT-block state
  U8 aReserved[2];
};
static_assert(sizeof(TARVIK_DISASS_INFO) == 8);

struct TARVIK_STRACE_INST_STAT {
  U64 aCnt[2];  // fetch count and skip count
};

typedef void (*TARVIK_LOG_FUNC)(const char* sText);

// Ids of TARVIK_GetpFunc.
enum : int {
  TARVIK_FUNC_ID_BMA_CAPABILITY = 10,  // int (void): non-zero when memory is readable while running
  TARVIK_FUNC_ID_ENDIANESS = 12,       // int (void): <0 failure; bit 0 data, bit 1 instruction endianness
  TARVIK_FUNC_ID_DISASSEMBLER = 23,    // int (U32 Core, void** ppOut)
};

// The operation list: return type, name, parameter list. Expanded into the table below, into the
// back-ends' definitions and into the mock.
//
// TARVIKARM_ExecCommand: 0 with sOut empty when the command worked; a positive result when it worked
// and printed something, which is in sOut (cut to OutSize - 1 bytes); otherwise sOut holds the error.
#define TARVIK_API_LIST(X)                                                                     \
  /* Session and configuration */                                                              \
  X(const char*, TARVIKARM_Open, (void))                                                       \
  X(void, TARVIKARM_Close, (void))                                                             \
  X(U8, TARVIKARM_IsOpen, (void))                                                              \
  X(int, TARVIKARM_Connect, (void))                                                            \
  X(U8, TARVIKARM_IsConnected, (void))                                                         \
  X(int, TARVIKARM_SelectUSB, (int Port))                                                      \
  X(int, TARVIKARM_EMU_SelectByUSBSN, (U32 SerialNo))                                          \
  X(U8, TARVIKARM_SelectIP, (const char* sHost, int Port))                                     \
  X(U32, TARVIKARM_GetSN, (void))                                                              \
  X(U32, TARVIKARM_GetDLLVersion, (void))                                                      \
  X(void, TARVIKARM_GetFirmwareString, (char* sBuffer, int BufferSize))                        \
  X(int, TARVIKARM_ExecCommand, (const char* sCmd, char* sOut, int OutSize))                   \
  X(void, TARVIKARM_EnableLog, (TARVIK_LOG_FUNC pfLog))                                        \
  X(void, TARVIKARM_SetWarnOutHandler, (TARVIK_LOG_FUNC pfWarn))                               \
  X(void, TARVIKARM_SetErrorOutHandler, (TARVIK_LOG_FUNC pfError))                             \
  X(void, TARVIKARM_SetLogFile, (const char* sPath))                                           \
  X(void*, TARVIK_GetpFunc, (int Id))                                                          \
  /* Target interface and device */                                                            \
  X(void, TARVIKARM_TIF_Select, (int Interface))                                               \
  X(void, TARVIKARM_SetSpeed, (U32 kHz))                                                       \
  X(U16, TARVIKARM_GetSpeed, (void))                                                           \
  X(void, TARVIKARM_SetEndian, (int BigEndian))                                                \
  X(void, TARVIKARM_SetCoreIndex, (int CoreIndex))                                             \
  X(void, TARVIKARM_ConfigJTAG, (int IRPre, int DRPre))                                        \
  X(int, TARVIKARM_DEVICE_GetIndex, (const char* sName))                                       \
  X(int, TARVIKARM_DEVICE_GetInfo, (int Index, TARVIK_DEVICE_INFO* pInfo))                     \
  X(void, TARVIKARM_Core2CoreName, (U32 Core, char* sOut, U32 Size))                           \
  X(void, TARVIKARM_GetDebugInfo, (U32 Index, U32 * pOut))                                     \
  X(int, TARVIKARM_EMU_HasCapEx, (int Cap))                                                    \
  X(void, TARVIKARM_RAWTRACE_Control, (U32 Cmd, U32 * pOut))                                   \
  /* Run control */                                                                            \
  X(U8, TARVIKARM_Halt, (void))                                                                \
  X(I8, TARVIKARM_IsHalted, (void))                                                            \
  X(void, TARVIKARM_GoEx, (U32 MaxEmulInsts, U32 Flags))                                       \
  X(U8, TARVIKARM_Step, (void))                                                                \
  X(int, TARVIKARM_Reset, (void))                                                              \
  X(void, TARVIKARM_SetResetType, (int Type))                                                  \
  X(void, TARVIKARM_SetResetDelay, (int DelayMS))                                              \
  X(void, TARVIKARM_SetInitRegsOnReset, (int On))                                              \
  X(int, TARVIKARM_MeasureCPUSpeedEx, (U32 RAMAddr, int PreserveMem, int AllowFail))           \
  /* Breakpoints */                                                                            \
  X(void, TARVIKARM_EnableSoftBPs, (int On))                                                   \
  X(U32, TARVIKARM_SetBPEx, (U32 Addr, U32 ImplFlags))                                         \
  X(int, TARVIKARM_ClrBPEx, (U32 Handle))                                                      \
  X(int, TARVIKARM_GetBPInfoEx, (int Index, TARVIK_BP_INFO* pInfo))                            \
  X(int, TARVIKARM_SetDataEvent, (TARVIK_DATA_EVENT * pEvent, U32 * pHandle))                  \
  X(int, TARVIKARM_ClrDataEvent, (U32 Handle))                                                 \
  X(int, TARVIKARM_GetWPInfoEx, (int Index, TARVIK_WP_INFO* pInfo))                            \
  /* Registers */                                                                              \
  X(U32, TARVIKARM_ReadReg, (U32 Index))                                                       \
  X(int, TARVIKARM_ReadRegs, (const U32* paIndex, U32* paData, U8* paStatus, U32 Cnt))         \
  X(U8, TARVIKARM_WriteReg, (U32 Index, U32 Value))                                            \
  X(int, TARVIKARM_CP15_ReadEx, (U8 CRn, U8 CRm, U8 Op1, U8 Op2, U32 * pOut))                  \
  X(int, TARVIKARM_CP15_WriteEx, (U8 CRn, U8 CRm, U8 Op1, U8 Op2, U32 Value))                  \
  /* Memory */                                                                                 \
  X(int, TARVIKARM_ReadMemEx, (U32 Addr, U32 NumBytes, void* pData, U32 AccessWidth))          \
  X(int, TARVIKARM_ReadMemHW, (U32 Addr, U32 NumBytes, void* pData))                           \
  X(int, TARVIKARM_ReadMem, (U32 Addr, U32 NumBytes, void* pData))                             \
  X(int, TARVIKARM_ReadMemU8, (U32 Addr, U32 Cnt, U8 * pData, U8 * pStatus))                   \
  X(int, TARVIKARM_ReadMemU16, (U32 Addr, U32 Cnt, U16 * pData, U8 * pStatus))                 \
  X(int, TARVIKARM_ReadMemU32, (U32 Addr, U32 Cnt, U32 * pData, U8 * pStatus))                 \
  X(int, TARVIKARM_ReadMemU64, (U32 Addr, U32 Cnt, U64 * pData, U8 * pStatus))                 \
  X(int, TARVIKARM_WriteMemEx, (U32 Addr, U32 NumBytes, const void* pData, U32 AccessWidth))   \
  X(int, TARVIKARM_WriteMem, (U32 Addr, U32 NumBytes, const void* pData))                      \
  X(int, TARVIKARM_WriteU8, (U32 Addr, U8 Data))                                               \
  X(int, TARVIKARM_WriteU16, (U32 Addr, U16 Data))                                             \
  X(int, TARVIKARM_WriteU32, (U32 Addr, U32 Data))                                             \
  X(int, TARVIKARM_WriteU64, (U32 Addr, U64 Data))                                             \
  X(void, TARVIKARM_BeginDownload, (U32 Flags))                                                \
  X(int, TARVIKARM_EndDownload, (void))                                                        \
  /* Disassembly */                                                                            \
  X(int, TARVIKARM_DisassembleInstEx,                                                          \
    (char* sOut, U32 BufferSize, U32 Addr, const TARVIK_DISASS_INFO* pInfo))                   \
  /* Target data streams */                                                                    \
  X(int, TARVIK_MCTERMINAL_Control, (U32 Cmd, void* p))                                        \
  X(int, TARVIK_MCTERMINAL_Read, (U32 BuffIdx, void* pData, U32 NumBytes))                     \
  X(int, TARVIK_MCTERMINAL_Write, (U32 BuffIdx, const void* pData, U32 NumBytes))              \
  X(int, TARVIK_HSS_Start, (TARVIK_HSS_BLOCK * paBlock, int Cnt, int Interval_us, int Flags))  \
  X(int, TARVIK_HSS_Stop, (void))                                                              \
  X(int, TARVIK_HSS_Read, (void* pData, U32 NumBytes))                                         \
  X(void, TARVIK_STRACE_Config, (const char* sConfig))                                         \
  X(int, TARVIK_STRACE_Start, (void))                                                          \
  X(int, TARVIK_STRACE_Stop, (void))                                                           \
  X(int, TARVIK_STRACE_Read, (U32 * paItems, U32 Cnt))                                         \
  X(int, TARVIK_STRACE_GetInstStats, (void* paBuf, U32 Addr, U32 Cnt, U32 ItemSize, U32 Type)) \
  X(int, TARVIKARM_SWO_EnableTarget, (U32 CpuHz, U32 SWOHz, int Mode, U32 PortMask))           \
  X(int, TARVIKARM_SWO_DisableTarget, (U32 PortMask))                                          \
  X(int, TARVIKARM_SWO_Control, (U32 Cmd, void* p))                                            \
  X(U32, TARVIKARM_SWO_ReadStimulus, (U32 Port, void* pData, U32 NumBytes))                    \
  X(int, TARVIKARM_SWO_GetCompatibleSpeeds, (U32 CpuHz, U32 MaxSWOHz, U32 * paSpeeds, U32 Cnt))

// The table. A member may be null only in a test's mock; the real layer fills every one.
struct TARVIK_API {
#define TARVIK_API_MEMBER(Ret, Name, Params) Ret(*Name) Params;
  TARVIK_API_LIST(TARVIK_API_MEMBER)
#undef TARVIK_API_MEMBER
};

// The table in force. Until something is installed, every operation fails in its own convention
// (see TARVIK_GetAbsentApi()).
const TARVIK_API& GetTarvikApi();
// Installs a table (the probe layer at start-up, a test's mock). Pass null to restore the absent table.
void SetTarvikApi(const TARVIK_API* pApi);
// A table whose every operation reports failure in that operation's own convention: no probe layer.
const TARVIK_API& TARVIK_GetAbsentApi();
