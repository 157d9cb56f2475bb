// The simulator's gdbserver: packets in, probe operations out.
#include "tools/simserver/GdbSimServer.h"

#include <cstdio>
#include <vector>

#include "device/probe/ProbeCore.h"
#include "device/probe/SimTarget.h"

namespace {

// Register numbers of the FPU registers in the target description.
constexpr U32 kFirstDoubleRegNum = PROBE_REG_S0;
constexpr U32 kFpscrRegNum = kFirstDoubleRegNum + 16;

// r0..pc as 0..15, xPSR as 16, then the system registers: the layer's own order, so that the g packet
// is the layer's registers 0..22. A core with an FPU adds its registers as a debugger expects them:
// d0..d15 (regnums 23..38, each the pair S2n, S2n+1) and fpscr (39), which in the g packet are the
// layer's S0..S31 and FPSCR.
std::string _TargetDescription(bool HasFPU) {
  std::string s =
      "<?xml version=\"1.0\"?>\n<!DOCTYPE target SYSTEM \"gdb-target.dtd\">\n<target>\n"
      "<architecture>arm</architecture>\n<feature name=\"org.gnu.gdb.arm.m-profile\">\n";
  for (int i = 0; i < 13; i++) {
    s += "<reg name=\"r" + std::to_string(i) + "\" bitsize=\"32\" regnum=\"" + std::to_string(i) + "\"/>\n";
  }
  s +=
      "<reg name=\"sp\" bitsize=\"32\" type=\"data_ptr\"/>\n<reg name=\"lr\" bitsize=\"32\"/>\n"
      "<reg name=\"pc\" bitsize=\"32\" type=\"code_ptr\"/>\n<reg name=\"xpsr\" bitsize=\"32\"/>\n</feature>\n"
      "<feature name=\"org.gnu.gdb.arm.m-system\">\n<reg name=\"msp\" bitsize=\"32\" type=\"data_ptr\"/>\n"
      "<reg name=\"psp\" bitsize=\"32\" type=\"data_ptr\"/>\n</feature>\n"
      "<feature name=\"org.zevra.arm.m-special\">\n<reg name=\"primask\" bitsize=\"32\"/>\n"
      "<reg name=\"basepri\" bitsize=\"32\"/>\n<reg name=\"faultmask\" bitsize=\"32\"/>\n"
      "<reg name=\"control\" bitsize=\"32\"/>\n</feature>\n";
  if (HasFPU) {
    s += "<feature name=\"org.gnu.gdb.arm.vfp\">\n";
    for (U32 d = 0; d < 16; d++) {
      s += "<reg name=\"d" + std::to_string(d) + "\" bitsize=\"64\" type=\"ieee_double\" regnum=\"" +
           std::to_string(kFirstDoubleRegNum + d) + "\"/>\n";
    }
    s += "<reg name=\"fpscr\" bitsize=\"32\" type=\"int\" group=\"float\" regnum=\"" +
         std::to_string(kFpscrRegNum) + "\"/>\n</feature>\n";
  }
  return s + "</target>\n";
}

// The system region (private peripheral bus with the SCS, then the vendor area): a client that follows
// the memory map, as gdb does, reads the core's own registers only when it is listed.
constexpr U32 kSystemAddr = 0xE0000000u, kSystemSize = 0x20000000u;

std::string _MemoryMap() {
  char ac[512];
  snprintf(
      ac, sizeof(ac),
      "<?xml version=\"1.0\"?>\n<!DOCTYPE memory-map PUBLIC \"+//IDN gnu.org//DTD GDB Memory Map V1.0//EN\" "
      "\"http://sourceware.org/gdb/gdb-memory-map.dtd\">\n<memory-map>\n"
      "<memory type=\"flash\" start=\"0x%x\" length=\"0x%x\"><property name=\"blocksize\">0x1000</property>"
      "</memory>\n<memory type=\"ram\" start=\"0x%x\" length=\"0x%x\"/>\n"
      "<memory type=\"ram\" start=\"0x%x\" length=\"0x%x\"/>\n</memory-map>\n",
      SIM_FLASH_ADDR, SIM_FLASH_SIZE, SIM_RAM_ADDR, SIM_RAM_SIZE, kSystemAddr, kSystemSize);
  return ac;
}

std::string _Hex(U32 v) {
  char ac[16];
  snprintf(ac, sizeof(ac), "%x", v);
  return ac;
}

// "addr,len" or "addr,len:..." of m, M, X, Z; false when malformed.
bool _ParseAddrLen(const std::string& s, U32* pAddr, U32* pLen) {
  size_t Comma = s.find(',');
  size_t End = s.find(':');
  return Comma != std::string::npos && GDB_ParseHexU32(s.substr(0, Comma), pAddr) &&
         GDB_ParseHexU32(s.substr(Comma + 1, End == std::string::npos ? std::string::npos : End - Comma - 1),
                         pLen);
}

CProbeBackend* _Backend(const std::string& sDevice) {
  const PROBE_DEVICE* p = PROBE_GetDevice(TARVIKARM_DEVICE_GetIndex(sDevice.c_str()));
  return p && p->pfGetBackend ? p->pfGetBackend(*p) : nullptr;
}

}  // namespace

bool CGdbSimServer::_HasFPU() {
  const PROBE_DEVICE* p = PROBE_GetDevice(TARVIKARM_DEVICE_GetIndex(_Options.sDevice.c_str()));
  return p && p->Core == PROBE_CORE_CORTEX_M4;
}

std::string CGdbSimServer::_Registers() {
  std::string s;
  U32 Num = _HasFPU() ? PROBE_NUM_REGS : PROBE_REG_S0;
  for (U32 i = 0; i < Num; i++) {
    s += GDB_U32ToTargetHex(TARVIKARM_ReadReg(i));
  }
  return s;
}

std::string CGdbSimServer::_ReadRegister(U32 Number) {
  if (Number < PROBE_REG_S0) {
    return GDB_U32ToTargetHex(TARVIKARM_ReadReg(Number));
  }
  if (!_HasFPU() || Number > kFpscrRegNum) {
    return "E16";
  }
  if (Number == kFpscrRegNum) {
    return GDB_U32ToTargetHex(TARVIKARM_ReadReg(PROBE_REG_FPSCR));
  }
  U32 S = PROBE_REG_S0 + 2 * (Number - kFirstDoubleRegNum);
  return GDB_U32ToTargetHex(TARVIKARM_ReadReg(S)) + GDB_U32ToTargetHex(TARVIKARM_ReadReg(S + 1));
}

std::string CGdbSimServer::_WriteRegister(U32 Number, const std::vector<U8>& aValue) {
  auto Word = [&aValue](size_t i) {
    return U32(aValue[i]) | U32(aValue[i + 1]) << 8 | U32(aValue[i + 2]) << 16 | U32(aValue[i + 3]) << 24;
  };
  bool IsDouble = _HasFPU() && Number >= kFirstDoubleRegNum && Number < kFpscrRegNum;
  if (aValue.size() != (IsDouble ? 8u : 4u) ||
      (Number >= PROBE_REG_S0 && (!_HasFPU() || Number > kFpscrRegNum))) {
    return "E16";
  }
  if (IsDouble) {
    U32 S = PROBE_REG_S0 + 2 * (Number - kFirstDoubleRegNum);
    return TARVIKARM_WriteReg(S, Word(0)) == 0 && TARVIKARM_WriteReg(S + 1, Word(4)) == 0 ? "OK" : "E01";
  }
  U32 Index = Number == kFpscrRegNum ? PROBE_REG_FPSCR : Number;
  return TARVIKARM_WriteReg(Index, Word(0)) == 0 ? "OK" : "E01";
}

std::string CGdbSimServer::_StopReply() {
  CProbeBackend* pBackend = _Backend(_Options.sDevice);
  PROBE_HALT_REASON Reason = pBackend ? pBackend->GetHaltReason() : PROBE_HALT_REQUEST;
  switch (Reason) {
    case PROBE_HALT_REQUEST:
      return "T02thread:01;";
    case PROBE_HALT_WATCHPOINT:
      if (!_mWatchAddrByHandle.empty()) {
        return "T05watch:" + _Hex(_mWatchAddrByHandle.begin()->second) + ";thread:01;";
      }
      return "T05thread:01;";
    case PROBE_HALT_BREAKPOINT:
      return _ReportSwBreak ? "T05swbreak:;thread:01;" : "T05thread:01;";
    case PROBE_HALT_FAULT:
      return "T0bthread:01;";
    default:
      return "T05thread:01;";
  }
}

std::string CGdbSimServer::_Xfer(const std::string& sDocument, const std::string& sRange) {
  U32 Offset = 0, Len = 0;
  if (!_ParseAddrLen(sRange, &Offset, &Len)) {
    return "E01";
  }
  if (Offset >= sDocument.size()) {
    return "l";
  }
  std::string sPart = sDocument.substr(Offset, Len);
  return (Offset + sPart.size() >= sDocument.size() ? "l" : "m") +
         GDB_EscapeBinary(reinterpret_cast<const U8*>(sPart.data()), sPart.size());
}

std::string CGdbSimServer::_Monitor(const std::string& sCommand, std::string& sOutput) {
  if (sCommand == "reset halt" || sCommand == "reset") {
    return TARVIKARM_Reset() == 0 ? "OK" : "E01";
  }
  char acOut[4096];
  int r = TARVIKARM_ExecCommand(sCommand.c_str(), acOut, sizeof(acOut));
  if (r > 0) {
    sOutput = std::string(acOut) + "\n";
    return "OK";
  }
  if (r != 0) {
    sOutput = std::string(acOut) + "\n";
    return "E01";
  }
  return "OK";
}

std::string CGdbSimServer::_SetPoint(const std::string& s) {
  bool Insert = s[0] == 'Z';
  char Type = s.size() > 2 ? s[1] : 0;
  U32 Addr = 0, Len = 0;
  if (s.size() < 4 || s[2] != ',' || !_ParseAddrLen(s.substr(3), &Addr, &Len)) {
    return "E01";
  }
  if (Type == '0' || Type == '1') {
    auto It = _mBreakpoints.find(Addr);
    if (!Insert) {
      if (It != _mBreakpoints.end()) {
        TARVIKARM_ClrBPEx(It->second);
        _mBreakpoints.erase(It);
      }
      return "OK";
    }
    if (It != _mBreakpoints.end()) {
      return "OK";
    }
    U32 Handle = TARVIKARM_SetBPEx(Addr, Type == '1' ? 0xFFFFFF00u : 0xF0u);
    if (!Handle) {
      return "E0e";
    }
    _mBreakpoints[Addr] = Handle;
    return "OK";
  }
  if (Type < '2' || Type > '4') {
    return "";
  }
  std::string sKey = s.substr(1);
  auto It = _mWatchpoints.find(sKey);
  if (!Insert) {
    if (It != _mWatchpoints.end()) {
      TARVIKARM_ClrDataEvent(It->second);
      _mWatchAddrByHandle.erase(It->second);
      _mWatchpoints.erase(It);
    }
    return "OK";
  }
  TARVIK_DATA_EVENT Ev{};
  Ev.SizeOfStruct = sizeof(Ev);
  Ev.Type = 1;
  Ev.Addr = Addr;
  Ev.DataMask = 0xFFFFFFFFu;
  Ev.AccessMask = 0x10 | (Type == '4' ? 1 : 0);
  Ev.Access = Type == '2' ? 1 : 0;
  if (Len == 1 || Len == 2 || Len == 4) {
    Ev.Access |= U8(Len == 1 ? 0 : Len);
  } else if (Len && (Len & (Len - 1)) == 0 && (Addr & (Len - 1)) == 0) {
    Ev.AddrMask = Len - 1;
    Ev.AccessMask |= 0x06;
  } else {
    return "E16";
  }
  U32 Handle = 0;
  if (TARVIKARM_SetDataEvent(&Ev, &Handle) != 0) {
    return "E0e";
  }
  _mWatchpoints[sKey] = Handle;
  _mWatchAddrByHandle[Handle] = Addr;
  return "OK";
}

std::string CGdbSimServer::_Handle(const std::string& s, bool& bReply, bool& bEnd) {
  bReply = true;
  if (s.empty()) {
    return "";
  }
  U32 Addr = 0, Len = 0;
  switch (s[0]) {
    case '?':
      return _StopReply();
    case 'g':
      return _Registers();
    case 'G': {
      std::vector<U8> a;
      if (!GDB_FromHex(s.substr(1), a) || a.size() < 4 * 17) {
        return "E16";
      }
      for (size_t i = 0; i + 4 <= a.size() && i / 4 < PROBE_NUM_REGS; i += 4) {
        TARVIKARM_WriteReg(U32(i / 4),
                           U32(a[i]) | U32(a[i + 1]) << 8 | U32(a[i + 2]) << 16 | U32(a[i + 3]) << 24);
      }
      return "OK";
    }
    case 'p': {
      U32 n = 0;
      if (!GDB_ParseHexU32(s.substr(1), &n)) {
        return "E16";
      }
      return _ReadRegister(n);
    }
    case 'P': {
      U32 n = 0;
      std::vector<U8> a;
      size_t Eq = s.find('=');
      if (Eq == std::string::npos || !GDB_ParseHexU32(s.substr(1, Eq - 1), &n) ||
          !GDB_FromHex(s.substr(Eq + 1), a)) {
        return "E16";
      }
      return _WriteRegister(n, a);
    }
    case 'm': {
      if (!_ParseAddrLen(s.substr(1), &Addr, &Len) || Len > 0x8000) {
        return "E16";
      }
      std::vector<U8> a(Len);
      int n = Len ? TARVIKARM_ReadMemEx(Addr, Len, a.data(), 0) : 0;
      return n <= 0 && Len ? "E01" : GDB_ToHex(a.data(), size_t(std::max(n, 0)));
    }
    case 'M':
    case 'X': {
      size_t Colon = s.find(':');
      if (Colon == std::string::npos || !_ParseAddrLen(s.substr(1), &Addr, &Len)) {
        return "E16";
      }
      std::vector<U8> a;
      if (s[0] == 'M') {
        if (!GDB_FromHex(s.substr(Colon + 1), a)) {
          return "E16";
        }
      } else {
        a.assign(s.begin() + long(Colon) + 1, s.end());
      }
      if (a.size() != Len) {
        return "E16";
      }
      return Len == 0 || TARVIKARM_WriteMemEx(Addr, Len, a.data(), 0) == int(Len) ? "OK" : "E01";
    }
    case 'Z':
    case 'z':
      return _SetPoint(s);
    case 'c':
      TARVIKARM_GoEx(0, 1);
      _Running = true;
      bReply = false;
      return "";
    case 's':
      return TARVIKARM_Step() == 0 ? _StopReply() : "E01";
    case 'D':
      TARVIKARM_GoEx(0, 1);
      bEnd = true;
      return "OK";
    case 'k':
      bEnd = true;
      bReply = false;
      return "";
    case 'H':
    case 'T':
      return "OK";
    default:
      break;
  }
  if (s.rfind("qSupported", 0) == 0) {
    _ReportSwBreak = s.find("swbreak+") != std::string::npos;
    // vContSupported+: the vCont? reply lists s and S, so a client steps with the target's own step
    // (an SVC steps into its handler) instead of setting breakpoints after the instruction.
    return "PacketSize=4000;qXfer:features:read+;qXfer:memory-map:read+;QStartNoAckMode+;swbreak+;hwbreak+;"
           "vContSupported+";
  }
  if (s == "QStartNoAckMode") {
    return "OK";
  }
  if (s.rfind("qXfer:features:read:target.xml:", 0) == 0) {
    return _Xfer(_TargetDescription(_HasFPU()), s.substr(31));
  }
  if (s.rfind("qXfer:memory-map:read::", 0) == 0) {
    return _Xfer(_MemoryMap(), s.substr(23));
  }
  if (s == "qAttached") {
    return "1";
  }
  if (s == "qC") {
    return "QC1";
  }
  if (s == "qfThreadInfo") {
    return "m1";
  }
  if (s == "qsThreadInfo") {
    return "l";
  }
  if (s.rfind("qSymbol", 0) == 0) {
    return "OK";
  }
  if (s == "vCont?") {
    return "vCont;c;C;s;S";
  }
  if (s.rfind("vCont;", 0) == 0) {
    // One thread: the first action is the one for it ("vCont;s:1;c" steps). A signal to deliver is
    // not simulated, so S and C act as s and c.
    char Action = s.size() > 6 ? s[6] : 0;
    if (Action == 's' || Action == 'S') {
      return _Handle("s", bReply, bEnd);
    }
    if (Action == 'c' || Action == 'C') {
      return _Handle("c", bReply, bEnd);
    }
    return "E16";
  }
  if (s.rfind("qRcmd,", 0) == 0) {
    std::vector<U8> a;
    if (!GDB_FromHex(s.substr(6), a)) {
      return "E16";
    }
    std::string sOutput;
    std::string sResult = _Monitor(std::string(a.begin(), a.end()), sOutput);
    if (!sOutput.empty()) {
      _Conn.SendPacket("O" + GDB_ToHex(sOutput), 3000);
    }
    return sResult;
  }
  if (s.rfind("vFlashErase:", 0) == 0) {
    if (!_ParseAddrLen(s.substr(12), &Addr, &Len)) {
      return "E16";
    }
    if (!_Downloading) {
      TARVIKARM_BeginDownload(0);
      _Downloading = true;
    }
    return "OK";
  }
  if (s.rfind("vFlashWrite:", 0) == 0) {
    size_t Colon = s.find(':', 12);
    if (Colon == std::string::npos || !GDB_ParseHexU32(s.substr(12, Colon - 12), &Addr)) {
      return "E16";
    }
    U32 n = U32(s.size() - Colon - 1);
    return n == 0 || TARVIKARM_WriteMemEx(Addr, n, s.data() + Colon + 1, 0) == int(n) ? "OK" : "E01";
  }
  if (s == "vFlashDone") {
    _Downloading = false;
    return TARVIKARM_EndDownload() == 0 ? "OK" : "E01";
  }
  return "";
}

void CGdbSimServer::Serve(int Socket) {
  _Conn.Attach(Socket);
  _Running = false;
  int NumPackets = 0;
  for (;;) {
    if (_Running) {
      if (_Conn.TakeInterrupt() && !_Options.IgnoreBreak) {
        TARVIKARM_Halt();
      }
      if (TARVIKARM_IsHalted() != 0) {
        _Running = false;
        if (_Conn.SendPacket(_StopReply(), 3000) != 0) {
          break;
        }
      }
    }
    std::string sPacket;
    int r = _Conn.ReadPacket(sPacket, _Running ? 5 : 1000);
    if (r < 0) {
      break;
    }
    if (r == 0) {
      continue;
    }
    if (_Options.DropAfter > 0 && ++NumPackets > _Options.DropAfter) {
      break;  // a hang-up in the middle, as a crashing server would do it
    }
    if (_Running) {
      continue;  // all-stop: nothing but the interrupt is served while the target runs
    }
    bool bReply = true, bEnd = false;
    std::string sReply = _Handle(sPacket, bReply, bEnd);
    if (bReply && _Conn.SendPacket(sReply, 3000) != 0) {
      break;
    }
    if (sPacket == "QStartNoAckMode") {
      _Conn.SetAckMode(false);
    }
    if (bEnd) {
      break;
    }
  }
  _Conn.Close();
  if (_Running) {
    _Running = false;
  }
}
