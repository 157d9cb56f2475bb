// A GDB remote protocol server in front of the probe layer's simulator devices: it lets gdb-multiarch
// and other clients debug the simulated target, and gives our own client a server with flash, a memory
// map and limited breakpoint units, which QEMU lacks.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "device/probe/GdbConnection.h"

struct SIM_SERVER_OPTIONS {
  std::string sDevice = "Simulator Cortex-M4";
  int DropAfter = 0;         // hang up after this many packets of a connection, 0 never
  bool IgnoreBreak = false;  // let the 0x03 interrupt go unanswered
};

class CGdbSimServer {
 public:
  explicit CGdbSimServer(const SIM_SERVER_OPTIONS& Options) : _Options(Options) {}

  // Serves one client on a connected socket until it detaches, hangs up or DropAfter strikes.
  void Serve(int Socket);

 private:
  // The reply to one packet; bReply false when the packet gets none now (c, or a hang-up).
  std::string _Handle(const std::string& sPacket, bool& bReply, bool& bEnd);
  std::string _StopReply();
  std::string _Registers();
  // One register by its number in the target description (p and P).
  std::string _ReadRegister(U32 Number);
  std::string _WriteRegister(U32 Number, const std::vector<U8>& aValue);
  bool _HasFPU();
  std::string _Xfer(const std::string& sDocument, const std::string& sRange);
  std::string _Monitor(const std::string& sCommand, std::string& sOutput);
  std::string _SetPoint(const std::string& sPacket);

  SIM_SERVER_OPTIONS _Options;
  CGdbConnection _Conn;
  bool _Running = false;
  bool _Downloading = false;
  bool _ReportSwBreak = false;
  std::map<U32, U32> _mBreakpoints;          // address to handle
  std::map<std::string, U32> _mWatchpoints;  // "type,addr,len" to handle
  std::map<U32, U32> _mWatchAddrByHandle;
};
