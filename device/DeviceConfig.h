// The configuration of the target connection (device, host and target interface, speed, scan chain),
// its text form for project files and dialogs, and the core families the probe reports.
#pragma once

#include <QString>

#include "app/base/Types.h"

enum DEV_CONFIG_PARAMS : int {
  DCP_DEVICE_IDX = 0,
  DCP_CORE_INDEX = 1,
  DCP_USB_SERIAL_NO = 2,
  DCP_USE_SERIAL_NO = 3,
  DCP_HOST_IF = 4,    // 1 USB, 2 IP
  DCP_TARGET_IF = 5,  // 0 JTAG, 1 SWD
  DCP_SPEED = 6,      // Hz; 0 automatic, 65535 adaptive
  DCP_USE_MAX_SPEED = 7,
  DCP_USE_ADAPTIVE = 8,
  DCP_ENDIAN = 9,  // 0 little, 1 big
  DCP_DR_PRE = 10,
  DCP_IR_PRE = 11,
  DCP_MULTIPLE_TARGETS = 12,
  DCP_STEPPING_MODE = 13,
  DCP_RUN_TO_ADDR = 14,
  DCP_HOST_NAME = 16,
  DCP_DEVICE_NAME = 17,
  DCP_SCRIPT_FILE = 18,
  DCP_LOG_FILE = 19,
};

constexpr int kHostIFUSB = 1;
constexpr int kHostIFIP = 2;
constexpr U32 kSpeedAuto = 0;
constexpr U32 kSpeedAdaptive = 65535;
// The host of the IP interface when none is given: a gdbserver or probe server on this machine.
constexpr const char* kDefaultHostName = "127.0.0.1";

struct DEV_CONFIG {
  int DeviceIdx = -1;
  int CoreIndex = 0;
  U32 USBSerialNo = 0;
  int UseSerialNo = 0;
  int HostIF = kHostIFUSB;
  int TargetIF = 0;
  U32 Speed = 0;
  int UseMaxSpeed = 1;
  int UseAdaptive = 0;
  int Endian = 0;
  int DRPre = 0;
  int IRPre = 0;
  int MultipleTargets = 0;
  int SteppingMode = 6;
  U32 RunToAddr = 0xFFFFFFFF;
  QString sHostName = kDefaultHostName;  // at most 255 characters
  QString sDeviceName;                   // at most 255
  QString sScriptFile;                   // at most 2,047
  QString sLogFile;                      // at most 2,047
};

// Sets an integer parameter (0..14) with the coupling of speed, maximum speed and adaptive clocking.
// -1 for another number. The caller runs the side effects (device info, endianness, live speed).
int SetConfigValue(DEV_CONFIG* pConfig, int Param, I64 Value);
// Sets a text parameter (16..19); -1 for another number or a text that is too long.
int SetConfigText(DEV_CONFIG* pConfig, int Param, const QString& sValue);

// The text form of the configuration, an XML document with root "TarvikSettings".
QString ConfigToXml(const DEV_CONFIG& Config);
// Reads such a text into *pConfig, attribute by attribute in a fixed order. 0, or -1 with *psError set
// (the configuration is then unchanged).
int ConfigFromXml(const QString& sXml, DEV_CONFIG* pConfig, QString* psError);

// Speed as text: "auto", "adaptive", or kHz with unit ("4000 kHz").
QString SpeedToText(U32 Hz);

// Core families of the probe's core identifiers.
enum : int {
  DF_UNKNOWN = 0,
  DF_CORTEX_M1 = 1,
  DF_CORTEX_CF = 2,
  DF_CORTEX_M3 = 3,
  DF_SIMULATOR = 4,
  DF_XSCALE = 5,
  DF_CORTEX_M0 = 6,
  DF_ARM7 = 7,
  DF_CORTEX_A8 = 8,
  DF_ARM9 = 9,
  DF_ARM10 = 10,
  DF_ARM11 = 11,
  DF_CORTEX_R4 = 12,
  DF_RX = 13,
  DF_CORTEX_M4 = 14,
  DF_CORTEX_A5 = 15,
  DF_POWER_PC = 16,
};
int CoreIdToFamily(U32 CoreId);
bool IsCortexMFamily(int Family);
bool IsARMFamily(int Family);
// "ARMv6M", "ARMv7M", "ARMv8M", or empty.
const char* CoreIdToArchName(U32 CoreId);
