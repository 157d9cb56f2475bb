// The GDB remote back-end: run control, registers, memory, breakpoints and flash over the protocol.
#include "device/probe/GdbRemote.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "device/probe/ProbeCore.h"

namespace {

// Names a server may give each register of the layer, by layer index; the floating-point registers
// come from the table below.
const char* const kCoreRegNames[PROBE_REG_S0][2] = {
    {"r0", nullptr},      {"r1", nullptr},        {"r2", nullptr},     {"r3", nullptr},  {"r4", nullptr},
    {"r5", nullptr},      {"r6", nullptr},        {"r7", nullptr},     {"r8", nullptr},  {"r9", nullptr},
    {"r10", nullptr},     {"r11", nullptr},       {"r12", nullptr},    {"sp", "r13"},    {"lr", "r14"},
    {"pc", "r15"},        {"xpsr", "cpsr"},       {"msp", nullptr},    {"psp", nullptr}, {"primask", nullptr},
    {"basepri", nullptr}, {"faultmask", nullptr}, {"control", nullptr}};

// The layer index a server's register name stands for, -1 for none: the names above, "s0".."s31" and
// "fpscr".
int _LayerRegByName(const std::string& sName) {
  for (U32 i = 0; i < PROBE_REG_S0; i++) {
    if (sName == kCoreRegNames[i][0] || (kCoreRegNames[i][1] && sName == kCoreRegNames[i][1])) {
      return int(i);
    }
  }
  if (sName == "fpscr") {
    return int(PROBE_REG_FPSCR);
  }
  if (sName.size() >= 2 && sName.size() <= 3 && sName[0] == 's' && isdigit(U8(sName[1])) &&
      (sName.size() == 2 || (sName[1] != '0' && isdigit(U8(sName[2]))))) {
    int n = atoi(sName.c_str() + 1);
    return n <= 31 ? int(PROBE_REG_S0) + n : -1;
  }
  return -1;
}

// The number n of a server's "dn" register, n below 16 (the ones holding S0..S31), or -1.
int _DoubleRegNumber(const std::string& sName) {
  if (sName.size() < 2 || sName.size() > 3 || sName[0] != 'd' || !isdigit(U8(sName[1])) ||
      (sName.size() == 3 && (sName[1] == '0' || !isdigit(U8(sName[2]))))) {
    return -1;
  }
  int n = atoi(sName.c_str() + 1);
  return n < 16 ? n : -1;
}

// The value of attribute sName inside one XML tag; empty when absent.
std::string _Attribute(const std::string& sTag, const char* sName) {
  std::string sKey = std::string(" ") + sName + "=\"";
  size_t p = sTag.find(sKey);
  if (p == std::string::npos) {
    return {};
  }
  p += sKey.size();
  size_t e = sTag.find('"', p);
  return e == std::string::npos ? std::string() : sTag.substr(p, e - p);
}

bool _ParseNumber(const std::string& s, U64 Max, U64* pValue) {
  if (s.empty() || s[0] == '-') {
    return false;
  }
  char* pEnd = nullptr;
  unsigned long long v = strtoull(s.c_str(), &pEnd, 0);
  if (*pEnd || v > Max) {
    return false;
  }
  *pValue = v;
  return true;
}

bool _IsErrorReply(const std::string& s) {
  return s.size() == 3 && s[0] == 'E';
}

std::string _Hex(U32 v) {
  char ac[16];
  snprintf(ac, sizeof(ac), "%x", v);
  return ac;
}

}  // namespace

// ---- Target description and memory map ----

bool GDB_MapRegisters(const std::string& sXml, std::vector<GDB_REG_SLOT>& aSlots) {
  struct REG {
    std::string sName;
    int Number, NumBytes;
  };
  std::vector<REG> aRegs;
  int Next = 0;
  for (size_t p = sXml.find("<reg "); p != std::string::npos; p = sXml.find("<reg ", p + 1)) {
    size_t e = sXml.find('>', p);
    if (e == std::string::npos) {
      return false;
    }
    std::string sTag = sXml.substr(p, e - p);
    U64 Bits = 0, Number = U64(Next);
    std::string sRegNum = _Attribute(sTag, "regnum");
    if (!_ParseNumber(_Attribute(sTag, "bitsize"), 1024, &Bits) || Bits == 0 || Bits % 8 ||
        (!sRegNum.empty() && !_ParseNumber(sRegNum, 4095, &Number))) {
      return false;
    }
    std::string sName = _Attribute(sTag, "name");
    for (char& c : sName) {
      c = char(tolower(U8(c)));
    }
    aRegs.push_back({sName, int(Number), int(Bits / 8)});
    Next = int(Number) + 1;
  }
  // The g packet holds the registers in the order of their numbers.
  std::vector<REG> aByNumber = aRegs;
  std::stable_sort(aByNumber.begin(), aByNumber.end(),
                   [](const REG& a, const REG& b) { return a.Number < b.Number; });
  aSlots.assign(PROBE_NUM_REGS, GDB_REG_SLOT{});
  int Offset = 0;
  for (const REG& R : aByNumber) {
    int i = _LayerRegByName(R.sName);
    if (i >= 0 && aSlots[size_t(i)].Number < 0) {
      aSlots[size_t(i)] = {R.Number, Offset, R.NumBytes, 0};
    }
    // A server that describes the FPU by its double registers (the "org.gnu.gdb.arm.vfp" feature)
    // holds two single registers in each, the lower-numbered one in the low word.
    int d = _DoubleRegNumber(R.sName);
    if (d >= 0 && R.NumBytes == 8) {
      for (int Half = 0; Half < 2; Half++) {
        GDB_REG_SLOT& Slot = aSlots[size_t(PROBE_REG_S0) + size_t(2 * d + Half)];
        if (Slot.Number < 0) {
          Slot = {R.Number, Offset + 4 * Half, 8, 4 * Half};
        }
      }
    }
    Offset += R.NumBytes;
  }
  for (U32 i = 0; i <= PROBE_REG_PC; i++) {
    if (aSlots[i].Number < 0 || aSlots[i].NumBytes != 4) {
      return false;
    }
  }
  return true;
}

bool GDB_ParseMemoryMap(const std::string& sXml, std::vector<GDB_MEM_REGION>& aRegions) {
  aRegions.clear();
  for (size_t p = sXml.find("<memory "); p != std::string::npos; p = sXml.find("<memory ", p + 1)) {
    size_t e = sXml.find('>', p);
    if (e == std::string::npos) {
      return false;
    }
    std::string sTag = sXml.substr(p, e - p);
    GDB_MEM_REGION R;
    U64 Start = 0, Length = 0;
    if (!_ParseNumber(_Attribute(sTag, "start"), 0xFFFFFFFFu, &Start) ||
        !_ParseNumber(_Attribute(sTag, "length"), 0x100000000ull, &Length) ||
        Start + Length > 0x100000000ull) {
      return false;
    }
    R.Addr = U32(Start);
    R.Size = Length;
    R.IsFlash = _Attribute(sTag, "type") == "flash";
    if (R.IsFlash) {
      size_t End = sXml.find("</memory>", e);
      std::string sBody = sXml.substr(e, End == std::string::npos ? std::string::npos : End - e);
      size_t q = sBody.find("\"blocksize\">");
      U64 Block = 0x1000;
      if (q != std::string::npos) {
        size_t v = q + 12, ve = sBody.find('<', v);
        if (ve == std::string::npos || !_ParseNumber(sBody.substr(v, ve - v), 0x1000000, &Block) ||
            Block == 0) {
          return false;
        }
      }
      R.BlockSize = U32(Block);
    }
    aRegions.push_back(R);
  }
  return !aRegions.empty();
}

CProbeBackend* GDB_GetRemoteBackend(const std::string& sHostPort) {
  static CGdbRemote* pRemote = new CGdbRemote();  // lives with the process like the simulator targets
  std::string sHost, sError;
  U16 Port = kGdbDefaultPort;
  if (!GDB_ParseHostPort(sHostPort, kGdbDefaultPort, sHost, &Port, sError)) {
    return nullptr;
  }
  pRemote->SetAddress(sHost, Port);
  return pRemote;
}

// ---- Session ----

void CGdbRemote::_Lose(const std::string& sWhy) {
  if (_RunState != STATE_LOST) {
    PROBE_PostWarning("Connection to gdbserver %s:%u lost: %s", _sHost.c_str(), _Port, sWhy.c_str());
  }
  _RunState = STATE_LOST;
  _aRegBlock.clear();
}

int CGdbRemote::_Transact(const std::string& sPayload, std::string& sReply, int TimeoutMs) {
  if (_RunState == STATE_LOST) {
    return -1;
  }
  std::string sError;
  if (_Conn.Transact(sPayload, sReply, TimeoutMs, sError) < 0) {
    if (_Conn.IsLost()) {
      _Lose(_Conn.GetLostReason());
    } else {
      PROBE_Error("gdbserver: %s", sError.c_str());
    }
    return -1;
  }
  return 0;
}

int CGdbRemote::Open(PROBE_STREAMS* pStreams, std::string& sError) {
  _Connected = false;
  _RunState = STATE_HALTED;
  if (_Conn.Connect(_sHost, _Port, kReplyTimeoutMs, sError) != 0) {
    return -1;
  }
  return 0;
}

void CGdbRemote::Close() {
  if (_Conn.IsOpen() && !_Conn.IsLost() && _RunState != STATE_LOST) {
    if (_RunState == STATE_RUNNING) {
      Halt();
    }
    std::string sReply;
    std::string sError;
    _Conn.Transact("D", sReply, 1000, sError);  // the server lets the target run on
  }
  _Conn.Close();
  _Connected = false;
  _aRegBlock.clear();
  _mPendingFlash.clear();
  _aBreakpoints.clear();
  _aWatches.clear();
}

bool CGdbRemote::IsConnected() {
  return _Connected && _RunState != STATE_LOST && !_Conn.IsLost();
}

int CGdbRemote::Connect(std::string& sError) {
  if (!_Conn.IsOpen() || _Conn.IsLost() || _RunState == STATE_LOST) {
    if (_Conn.Connect(_sHost, _Port, kReplyTimeoutMs, sError) != 0) {
      return -1;
    }
    _RunState = STATE_HALTED;
    _Connected = false;
  }
  if (_Connected) {
    return 0;
  }
  std::string sReply;
  auto Fail = [&](const std::string& sWhy) {
    sError = "gdbserver " + _sHost + ":" + std::to_string(_Port) + ": " + sWhy;
    _Conn.Close();
    return -1;
  };
  if (_Conn.Transact("qSupported:swbreak+;hwbreak+;xmlRegisters=arm;vContSupported+", sReply, kReplyTimeoutMs,
                     sError) < 0) {
    return Fail(sError);
  }
  _PacketSize = 400;
  _HasXferFeatures = _HasXferMemoryMap = false;
  _UseX = _UseP = _UsePWrite = true;  // the last server's refusals say nothing about this one
  bool NoAck = false;
  for (size_t p = 0; p <= sReply.size();) {
    size_t e = sReply.find(';', p);
    std::string sFeature = sReply.substr(p, e == std::string::npos ? std::string::npos : e - p);
    U32 Size = 0;
    if (sFeature.rfind("PacketSize=", 0) == 0) {
      if (!GDB_ParseHexU32(sFeature.substr(11), &Size) || Size < 64) {
        return Fail("qSupported reply has an invalid PacketSize \"" + sFeature.substr(11) + "\"");
      }
      _PacketSize = std::min<size_t>(Size, 0x20000);
    }
    _HasXferFeatures |= sFeature == "qXfer:features:read+";
    _HasXferMemoryMap |= sFeature == "qXfer:memory-map:read+";
    NoAck |= sFeature == "QStartNoAckMode+";
    if (e == std::string::npos) {
      break;
    }
    p = e + 1;
  }
  if (NoAck && _Conn.Transact("QStartNoAckMode", sReply, kReplyTimeoutMs, sError) > 0 && sReply == "OK") {
    _Conn.SetAckMode(false);
  }
  if (_ReadDescription(sError) != 0) {
    return Fail(sError);
  }
  _aMemMap.clear();
  std::string sMap;
  if (_HasXferMemoryMap && _ReadXfer("memory-map", "", sMap) == 0 && !GDB_ParseMemoryMap(sMap, _aMemMap)) {
    PROBE_Warn("gdbserver: memory map not understood; flash programming is not available");
    _aMemMap.clear();
  }
  if (_Conn.Transact("?", sReply, kReplyTimeoutMs, sError) < 0) {
    return Fail(sError);
  }
  if (sReply.empty() || (sReply[0] != 'T' && sReply[0] != 'S')) {
    return Fail("no halted target (reply to \"?\": \"" + sReply.substr(0, 32) + "\")");
  }
  _Connected = true;
  _RunState = STATE_HALTED;
  _OnStop(sReply);
  _HaltReason = PROBE_HALT_REQUEST;
  // QEMU's monitor answers "info version" with its version number; other servers don't know it.
  std::string sVersion, sNoVersion;
  _Server = (_Monitor("info version", sVersion, sNoVersion) == MONITOR_DONE && !sVersion.empty() &&
             isdigit(U8(sVersion[0])))
                ? SERVER_QEMU
                : SERVER_OTHER;
  _sResetCommand.clear();
  PROBE_Log("Connected to gdbserver %s:%u (%s, packet size %zu)", _sHost.c_str(), _Port,
            _Server == SERVER_QEMU ? "QEMU" : "gdbserver", _PacketSize);
  return 0;
}

int CGdbRemote::_ReadXfer(const std::string& sObject, const std::string& sAnnex, std::string& sOut) {
  sOut.clear();
  size_t Chunk = std::max<size_t>(_PacketSize, 64) - 8;
  for (int i = 0; i < 256; i++) {
    std::string sReply;
    std::string sPacket =
        "qXfer:" + sObject + ":read:" + sAnnex + ":" + _Hex(U32(sOut.size())) + "," + _Hex(U32(Chunk));
    if (_Transact(sPacket, sReply) != 0) {
      return -1;
    }
    if (sReply.empty() || (sReply[0] != 'l' && sReply[0] != 'm')) {
      return -1;
    }
    sOut.append(sReply, 1, std::string::npos);
    if (sReply[0] == 'l') {
      return 0;
    }
    if (sReply.size() == 1) {
      return -1;  // "m" without data would never end
    }
  }
  return -1;
}

int CGdbRemote::_ReadDescription(std::string& sError) {
  std::string sXml;
  if (_HasXferFeatures && _ReadXfer("features", "target.xml", sXml) == 0) {
    // Follow the includes of the description, each document once.
    std::vector<std::string> asDone{"target.xml"};
    std::string sAll = sXml;
    for (size_t p = 0; (p = sAll.find("<xi:include ", p)) != std::string::npos && asDone.size() < 32; p++) {
      size_t e = sAll.find('>', p);
      std::string sHref =
          _Attribute(sAll.substr(p, e == std::string::npos ? std::string::npos : e - p), "href");
      if (sHref.empty() || std::find(asDone.begin(), asDone.end(), sHref) != asDone.end()) {
        continue;
      }
      asDone.push_back(sHref);
      std::string sPart;
      if (_ReadXfer("features", sHref, sPart) != 0) {
        sError = "target description part \"" + sHref + "\" can't be read";
        return -1;
      }
      sAll += sPart;
    }
    if (!GDB_MapRegisters(sAll, _aRegs)) {
      sError = "target description (qXfer:features:read) has no usable Cortex-M registers r0..pc";
      return -1;
    }
    return 0;
  }
  // No description: the classic ARM layout, r0..r15, eight FPA registers of 12 bytes, fps, cpsr as 25.
  _aRegs.assign(PROBE_NUM_REGS, GDB_REG_SLOT{});
  for (int i = 0; i < 16; i++) {
    _aRegs[size_t(i)] = {i, i * 4, 4};
  }
  _aRegs[PROBE_REG_XPSR] = {25, 16 * 4 + 8 * 12 + 4, 4};
  return 0;
}

// ---- Run control ----

void CGdbRemote::_OnStop(const std::string& sReply) {
  _RunState = STATE_HALTED;
  _aRegBlock.clear();
  _StopBeforeAccess = false;
  U32 Signal = 0;
  if (sReply.size() < 3 || !GDB_ParseHexU32(sReply.substr(1, 2), &Signal)) {
    PROBE_Error("gdbserver: malformed stop reply \"%s\"", sReply.substr(0, 32).c_str());
    _HaltReason = PROBE_HALT_REQUEST;
    return;
  }
  bool Watch = false, Break = false;
  for (size_t p = 3; p < sReply.size();) {
    size_t e = sReply.find(';', p);
    std::string sPair = sReply.substr(p, e == std::string::npos ? std::string::npos : e - p);
    std::string sKey = sPair.substr(0, sPair.find(':'));
    Watch |= sKey == "watch" || sKey == "rwatch" || sKey == "awatch";
    Break |= sKey == "swbreak" || sKey == "hwbreak";
    if (e == std::string::npos) {
      break;
    }
    p = e + 1;
  }
  if (Watch) {
    _HaltReason = PROBE_HALT_WATCHPOINT;
    _StopBeforeAccess = _Server == SERVER_QEMU;
  } else if (Break) {
    _HaltReason = PROBE_HALT_BREAKPOINT;
  } else if (_InterruptSent || Signal == 2) {
    _HaltReason = PROBE_HALT_REQUEST;
  } else if (Signal == 4 || Signal == 7 || Signal == 10 || Signal == 11) {
    _HaltReason = PROBE_HALT_FAULT;
  } else {
    _HaltReason = PROBE_HALT_REQUEST;
    U32 PC = 0;
    if (!_aBreakpoints.empty() && ReadReg(PROBE_REG_PC, &PC) == 0 &&
        std::find(_aBreakpoints.begin(), _aBreakpoints.end(), PC) != _aBreakpoints.end()) {
      _HaltReason = PROBE_HALT_BREAKPOINT;
    }
  }
  _InterruptSent = false;
}

void CGdbRemote::_ServeFileIO(const std::string& sRequest) {
  // "Fcall,arg,arg...": only the console output of semihosting is served; the rest fails with EUNKNOWN.
  std::vector<std::string> asParts;
  for (size_t p = 1;;) {
    size_t e = sRequest.find(',', p);
    asParts.push_back(sRequest.substr(p, e == std::string::npos ? std::string::npos : e - p));
    if (e == std::string::npos) {
      break;
    }
    p = e + 1;
  }
  std::string sAnswer = "F-1,270f";
  U32 Fd = 0, Addr = 0, Len = 0;
  if (asParts[0] == "write" && asParts.size() == 4 && GDB_ParseHexU32(asParts[1], &Fd) &&
      GDB_ParseHexU32(asParts[2], &Addr) && GDB_ParseHexU32(asParts[3], &Len) && (Fd == 1 || Fd == 2)) {
    std::vector<U8> aText(std::min<U32>(Len, 0x10000));
    int n = aText.empty() ? 0 : ReadMem(Addr, U32(aText.size()), aText.data());
    if (n >= 0) {
      for (int i = 0; i < n; i++) {
        char c = char(aText[size_t(i)]);
        if (c == '\n') {
          PROBE_Log("%s", _sConsoleLine.c_str());
          _sConsoleLine.clear();
        } else if (c != '\r' && _sConsoleLine.size() < 4096) {
          _sConsoleLine += c;
        }
      }
      sAnswer = "F" + _Hex(U32(n));
    }
  } else if (asParts[0] == "isatty" && asParts.size() == 2 && GDB_ParseHexU32(asParts[1], &Fd)) {
    sAnswer = Fd <= 2 ? "F1" : "F0";
  }
  if (_Conn.SendPacket(sAnswer, kReplyTimeoutMs) != 0 && _Conn.IsLost()) {
    _Lose(_Conn.GetLostReason());
  }
}

int CGdbRemote::_OnRunningPacket(const std::string& sPacket) {
  if (sPacket.empty()) {
    return 0;
  }
  switch (sPacket[0]) {
    case 'T':
    case 'S':
      _OnStop(sPacket);
      return 1;
    case 'W':
    case 'X':
      _Lose("the program on the server ended (\"" + sPacket.substr(0, 16) + "\")");
      return -1;
    case 'F':
      _RunState = STATE_HALTED;  // the target waits for the answer; memory may be read meanwhile
      _ServeFileIO(sPacket);
      if (_RunState != STATE_LOST) {
        _RunState = STATE_RUNNING;
      }
      return 0;
    case 'O': {
      std::vector<U8> aText;
      if (sPacket != "OK" && GDB_FromHex(sPacket.substr(1), aText)) {
        PROBE_Log("%.*s", int(aText.size()), reinterpret_cast<const char*>(aText.data()));
      }
      return 0;
    }
    default:
      PROBE_Error("gdbserver: unexpected packet \"%s\" while the target runs", sPacket.substr(0, 32).c_str());
      return 0;
  }
}

int CGdbRemote::_WaitStop(int TimeoutMs) {
  auto End = std::chrono::steady_clock::now() + std::chrono::milliseconds(TimeoutMs);
  // The deadline is tested on every turn: a server that streams console output never stops the wait.
  while (_RunState == STATE_RUNNING && std::chrono::steady_clock::now() < End) {
    auto Left = std::chrono::duration_cast<std::chrono::milliseconds>(End - std::chrono::steady_clock::now());
    std::string sPacket;
    int r = _Conn.ReadPacket(sPacket, int(std::max<long>(1, long(Left.count()))));
    if (r < 0) {
      _Lose(_Conn.GetLostReason());
      return -1;
    }
    if (r == 0) {
      return 0;
    }
    if (_OnRunningPacket(sPacket) < 0) {
      return -1;
    }
  }
  if (_RunState == STATE_RUNNING) {
    return 0;
  }
  return _RunState == STATE_HALTED ? 1 : -1;
}

int CGdbRemote::_Resume(const std::string& sPacket) {
  _aRegBlock.clear();
  // A late reply still to come would be read as the running target's output; it is taken first.
  if (_Conn.SettleOwedReplies(kReplyTimeoutMs) != 0) {
    _Lose(_Conn.GetLostReason());
    return -1;
  }
  if (_Conn.SendPacket(sPacket, kReplyTimeoutMs) != 0) {
    if (_Conn.IsLost()) {
      _Lose(_Conn.GetLostReason());
    }
    return -1;
  }
  _RunState = STATE_RUNNING;
  if (sPacket != "s") {
    return 0;
  }
  int r = _WaitStop(kStepTimeoutMs);
  if (r == 0) {
    PROBE_Error("gdbserver: no stop reply to a single step within %d ms", kStepTimeoutMs);
    Halt();
    return -1;
  }
  return r > 0 ? 0 : -1;
}

int CGdbRemote::Halt() {
  if (_RunState == STATE_LOST) {
    return -1;
  }
  if (_RunState == STATE_HALTED) {
    return 0;
  }
  if (_Conn.SendInterrupt() != 0) {
    _Lose(_Conn.GetLostReason());
    return -1;
  }
  _InterruptSent = true;
  int r = _WaitStop(kReplyTimeoutMs);
  if (r == 0) {
    PROBE_Error("gdbserver: target did not stop within %d ms of the interrupt", kReplyTimeoutMs);
  }
  return r > 0 ? 0 : -1;
}

int CGdbRemote::IsHalted() {
  if (_RunState == STATE_LOST || _Conn.IsLost() || !_Conn.IsOpen()) {
    return -1;
  }
  if (_RunState == STATE_HALTED) {
    // Nothing is asked of a halted target, so a server that died shows only here, at the poll.
    if (!_Conn.CheckAlive()) {
      _Lose(_Conn.GetLostReason());
      return -1;
    }
    return 1;
  }
  // A bounded number of packets per call, so that a server flooding console output can't hold us.
  for (int i = 0; i < 64 && _RunState == STATE_RUNNING; i++) {
    std::string sPacket;
    int r = _Conn.ReadPacket(sPacket, 0);
    if (r < 0) {
      _Lose(_Conn.GetLostReason());
      return -1;
    }
    if (r == 0) {
      return 0;
    }
    if (_OnRunningPacket(sPacket) < 0) {
      return -1;
    }
  }
  return _RunState == STATE_HALTED ? 1 : (_RunState == STATE_RUNNING ? 0 : -1);
}

int CGdbRemote::Go(bool StepOverBreakpoint) {
  if (_RunState != STATE_HALTED) {
    return _RunState == STATE_RUNNING ? 0 : -1;
  }
  std::string sError;
  if (_FlushFlash(sError) != 0) {
    PROBE_Error("gdbserver: %s", sError.c_str());
  }
  // QEMU stops before the watched access: step over it with the watchpoints out, or it re-triggers.
  if (_StopBeforeAccess) {
    _SetWatchpoints(false);
    int r = _Resume("s");
    _SetWatchpoints(true);
    if (r != 0) {
      return -1;
    }
  }
  U32 PC = 0;
  if (StepOverBreakpoint && !_aBreakpoints.empty() && ReadReg(PROBE_REG_PC, &PC) == 0 &&
      std::find(_aBreakpoints.begin(), _aBreakpoints.end(), PC) != _aBreakpoints.end()) {
    if (Step() != 0) {
      return -1;
    }
    if (_HaltReason != PROBE_HALT_STEP) {
      return 0;  // the step itself stopped for another reason; stay halted
    }
  }
  return _Resume("c");
}

int CGdbRemote::Step() {
  if (_RunState != STATE_HALTED) {
    return -1;
  }
  std::string sError;
  if (_FlushFlash(sError) != 0) {
    PROBE_Error("gdbserver: %s", sError.c_str());
  }
  // A breakpoint at the PC comes out for the step, so that the instruction under it executes.
  U32 PC = 0;
  std::string sRemove, sReply;
  if (!_aBreakpoints.empty() && ReadReg(PROBE_REG_PC, &PC) == 0 &&
      std::find(_aBreakpoints.begin(), _aBreakpoints.end(), PC) != _aBreakpoints.end()) {
    for (const char* sType : {"0", "1"}) {
      std::string sPacket = std::string("z") + sType + "," + _Hex(PC) + ",2";
      if (_Transact(sPacket, sReply) == 0 && sReply == "OK") {
        sRemove = std::string("Z") + sType + "," + _Hex(PC) + ",2";
        break;
      }
    }
  }
  bool WasStopBeforeAccess = _StopBeforeAccess;
  if (WasStopBeforeAccess) {
    _SetWatchpoints(false);
  }
  int r = _Resume("s");
  if (WasStopBeforeAccess) {
    _SetWatchpoints(true);
  }
  if (!sRemove.empty() && _RunState == STATE_HALTED) {
    _Transact(sRemove, sReply);
  }
  if (r == 0 && _HaltReason != PROBE_HALT_WATCHPOINT) {
    _HaltReason = PROBE_HALT_STEP;
  }
  return r;
}

CGdbRemote::MONITOR_RESULT CGdbRemote::_Monitor(const std::string& sCommand, std::string& sOutput,
                                                std::string& sError) {
  sOutput.clear();
  sError.clear();
  auto End = std::chrono::steady_clock::now() + std::chrono::milliseconds(kMonitorTimeoutMs);
  std::string sQuoted = "monitor command \"" + sCommand + "\"";
  auto Failed = [&](const std::string& sWhy) {
    if (_Conn.IsLost()) {
      _Lose(_Conn.GetLostReason());
    }
    sError = sQuoted + ": " + sWhy;
    return MONITOR_FAILED;
  };
  if (_RunState == STATE_LOST) {
    return Failed("connection to the gdbserver lost");
  }
  std::string sReply, sWhy;
  if (_Conn.Transact("qRcmd," + GDB_ToHex(sCommand), sReply, kReplyTimeoutMs, sWhy, true) < 0) {
    return Failed(sWhy);
  }
  std::vector<U8> aText;
  // The output comes as "O" packets before the final reply.
  while (GDB_IsOutputPacket(sReply)) {
    GDB_FromHex(sReply.substr(1), aText);
    if (sOutput.size() < kMaxMonitorOutput) {
      sOutput.append(aText.begin(), aText.end());
    }
    auto Left = std::chrono::duration_cast<std::chrono::milliseconds>(End - std::chrono::steady_clock::now());
    if (Left.count() <= 0) {
      _Conn.AbandonReply();
      return Failed("the output did not end within " + std::to_string(kMonitorTimeoutMs / 1000) + " s");
    }
    if (_Conn.ReadReplyPart(sReply, int(std::min<long>(Left.count(), kReplyTimeoutMs)), sWhy) < 0) {
      return Failed("no reply: " + sWhy);
    }
  }
  std::string sShown = sOutput;
  while (!sShown.empty() && (sShown.back() == '\n' || sShown.back() == '\r')) {
    sShown.pop_back();
  }
  if (sReply.empty()) {
    sError = sQuoted + ": not supported by the gdbserver (it has no monitor commands)";
    return MONITOR_NOT_SUPPORTED;
  }
  if (sReply[0] == 'E' && (_IsErrorReply(sReply) || sReply[1] == '.')) {
    if (sReply[1] == '.') {
      sError = sQuoted + " failed: " + sReply.substr(2);
    } else {
      sError = sQuoted + " failed (gdbserver reply " + sReply + ")" + (sShown.empty() ? "" : ": " + sShown);
    }
    return MONITOR_ERROR;
  }
  if (sReply != "OK") {
    // The output as one hex reply, the form older servers use.
    if (!GDB_FromHex(sReply, aText)) {
      sError = sQuoted + ": malformed reply \"" + sReply.substr(0, 16) + "\"";
      return MONITOR_FAILED;
    }
    sOutput.append(aText.begin(), aText.end());
    sShown = sOutput;
    while (!sShown.empty() && (sShown.back() == '\n' || sShown.back() == '\r')) {
      sShown.pop_back();
    }
  }
  // Servers answer OK even to a command they don't have; only their output tells.
  std::string sLow = sShown;
  for (char& c : sLow) {
    c = char(tolower(U8(c)));
  }
  for (const char* sMark : {"unknown command", "invalid command", "unrecognized command"}) {
    if (sLow.find(sMark) != std::string::npos) {
      sError = sQuoted + " is unknown to the gdbserver: " + sShown;
      return MONITOR_UNKNOWN;
    }
  }
  sOutput = sShown;
  return MONITOR_DONE;
}

int CGdbRemote::Reset(int Type) {
  if (Halt() != 0) {
    return -1;
  }
  std::string sError;
  if (_FlushFlash(sError) != 0) {
    PROBE_Error("gdbserver: %s", sError.c_str());
  }
  std::vector<std::string> asTry;
  if (!_sResetCommand.empty()) {
    asTry.push_back(_sResetCommand);
  } else if (_Server == SERVER_QEMU) {
    asTry = {"system_reset"};
  } else {
    asTry = {"reset halt", "system_reset"};
  }
  std::string sLastError;
  for (const std::string& sCommand : asTry) {
    std::string sOutput;
    if (_Monitor(sCommand, sOutput, sLastError) == MONITOR_DONE) {
      _sResetCommand = sCommand;
      _aRegBlock.clear();
      _StopBeforeAccess = false;
      _HaltReason = PROBE_HALT_REQUEST;
      return 0;
    }
    if (_RunState == STATE_LOST) {
      return -1;
    }
  }
  PROBE_Error("gdbserver: reset failed (%s)", sLastError.c_str());
  return -1;
}

// ---- Registers ----

int CGdbRemote::_FetchRegisters() {
  std::string sReply;
  std::vector<U8> aBlock;
  if (_Transact("g", sReply) != 0) {
    return -1;
  }
  if (_IsErrorReply(sReply) || !GDB_FromHex(sReply, aBlock)) {
    // "xx" marks a register the server can't read; such a block is read register by register.
    if (sReply.find('x') == std::string::npos) {
      PROBE_Error("gdbserver: malformed reply to \"g\" (%zu characters)", sReply.size());
    }
    return -1;
  }
  _aRegBlock = std::move(aBlock);
  return 0;
}

int CGdbRemote::ReadReg(U32 Index, U32* pValue) {
  if (Index >= PROBE_NUM_REGS || Index >= _aRegs.size() || _aRegs[Index].Number < 0 ||
      _RunState != STATE_HALTED) {
    return -1;
  }
  const GDB_REG_SLOT& Slot = _aRegs[Index];
  if (_aRegBlock.empty()) {
    _FetchRegisters();
  }
  if (Slot.Offset >= 0 && size_t(Slot.Offset) + 4 <= _aRegBlock.size()) {
    const U8* p = &_aRegBlock[size_t(Slot.Offset)];
    *pValue = U32(p[0]) | U32(p[1]) << 8 | U32(p[2]) << 16 | U32(p[3]) << 24;
    return 0;
  }
  if (!_UseP) {
    return -1;
  }
  std::string sReply;
  if (_Transact("p" + _Hex(U32(Slot.Number)), sReply) != 0) {
    return -1;
  }
  if (sReply.empty()) {
    _UseP = false;
    return -1;
  }
  std::vector<U8> aValue;
  if (!GDB_FromHex(sReply, aValue) || aValue.size() < size_t(Slot.Part) + 4) {
    if (!_IsErrorReply(sReply)) {
      PROBE_Error("gdbserver: malformed reply to \"p%x\"", Slot.Number);
    }
    return -1;
  }
  const U8* p = &aValue[size_t(Slot.Part)];
  *pValue = U32(p[0]) | U32(p[1]) << 8 | U32(p[2]) << 16 | U32(p[3]) << 24;
  return 0;
}

int CGdbRemote::WriteReg(U32 Index, U32 Value) {
  if (Index >= PROBE_NUM_REGS || Index >= _aRegs.size() || _aRegs[Index].Number < 0 ||
      _RunState != STATE_HALTED) {
    return -1;
  }
  const GDB_REG_SLOT& Slot = _aRegs[Index];
  std::string sReply;
  if (_UsePWrite) {
    std::string sValue = GDB_U32ToTargetHex(Value);
    if (Slot.NumBytes == 8) {
      // Half of a double register: the other half goes back as it is.
      U32 Other = 0;
      U32 OtherIndex = Slot.Part ? Index - 1 : Index + 1;
      if (ReadReg(OtherIndex, &Other) != 0) {
        return -1;
      }
      sValue = Slot.Part ? GDB_U32ToTargetHex(Other) + sValue : sValue + GDB_U32ToTargetHex(Other);
    }
    if (_Transact("P" + _Hex(U32(Slot.Number)) + "=" + sValue, sReply) != 0) {
      return -1;
    }
    if (sReply == "OK") {
      _aRegBlock.clear();
      return 0;
    }
    if (!sReply.empty()) {
      return -1;
    }
    _UsePWrite = false;
  }
  // No P: the whole block goes back with G.
  if (_aRegBlock.empty() && _FetchRegisters() != 0) {
    return -1;
  }
  if (Slot.Offset < 0 || size_t(Slot.Offset) + 4 > _aRegBlock.size()) {
    return -1;
  }
  for (int i = 0; i < 4; i++) {
    _aRegBlock[size_t(Slot.Offset + i)] = U8(Value >> (8 * i));
  }
  int r = (_Transact("G" + GDB_ToHex(_aRegBlock.data(), _aRegBlock.size()), sReply) == 0 && sReply == "OK")
              ? 0
              : -1;
  _aRegBlock.clear();
  return r;
}

// ---- Memory ----

bool CGdbRemote::_IsFlash(U32 Addr, U32* pBlockSize) const {
  for (const GDB_MEM_REGION& R : _aMemMap) {
    if (R.IsFlash && Addr >= R.Addr && U64(Addr) < U64(R.Addr) + R.Size) {
      if (pBlockSize) {
        *pBlockSize = R.BlockSize;
      }
      return true;
    }
  }
  return false;
}

int CGdbRemote::ReadMem(U32 Addr, U32 NumBytes, U8* pData) {
  if (_RunState != STATE_HALTED) {
    return -1;
  }
  U32 Chunk = U32(std::max<size_t>((_PacketSize - 8) / 2, 16));
  U32 Done = 0;
  while (Done < NumBytes) {
    U32 n = std::min(Chunk, NumBytes - Done);
    std::string sReply;
    std::string sPacket = "m" + _Hex(Addr + Done) + "," + _Hex(n);
    if (_Transact(sPacket, sReply) != 0) {
      break;
    }
    std::vector<U8> aBytes;
    if (_IsErrorReply(sReply) || sReply.empty()) {
      break;
    }
    if (!GDB_FromHex(sReply, aBytes) || aBytes.size() > n) {
      PROBE_Error("gdbserver: malformed reply to \"%s\"", sPacket.c_str());
      break;
    }
    memcpy(pData + Done, aBytes.data(), aBytes.size());
    Done += U32(aBytes.size());
    if (aBytes.size() < n) {
      break;
    }
  }
  // Flash bytes written but not yet programmed read as written.
  for (auto& [BlockAddr, aBlock] : _mPendingFlash) {
    for (U32 i = 0; i < aBlock.size(); i++) {
      U32 a = BlockAddr + i;
      if (a >= Addr && a - Addr < Done) {
        pData[a - Addr] = aBlock[i];
      }
    }
  }
  return Done > 0 ? int(Done) : (NumBytes == 0 ? 0 : -1);
}

int CGdbRemote::_WriteMemChunkWise(U32 Addr, U32 NumBytes, const U8* pData) {
  U32 Done = 0;
  std::string sReply;
  while (Done < NumBytes) {
    U32 n;
    std::string sPacket;
    if (_UseX) {
      // As many bytes as fit the packet once escaped.
      size_t Room = _PacketSize - 32;
      std::string sData;
      for (n = 0; Done + n < NumBytes; n++) {
        U8 b = pData[Done + n];
        size_t Add = (b == '$' || b == '#' || b == '}' || b == '*') ? 2 : 1;
        if (sData.size() + Add > Room) {
          break;
        }
        sData += GDB_EscapeBinary(&b, 1);
      }
      sPacket = "X" + _Hex(Addr + Done) + "," + _Hex(n) + ":" + sData;
    } else {
      n = std::min<U32>(U32((_PacketSize - 32) / 2), NumBytes - Done);
      sPacket = "M" + _Hex(Addr + Done) + "," + _Hex(n) + ":" + GDB_ToHex(pData + Done, n);
    }
    if (_Transact(sPacket, sReply) != 0) {
      break;
    }
    if (sReply.empty() && _UseX) {
      _UseX = false;  // the server has no X: the same bytes again as hex
      continue;
    }
    if (sReply != "OK") {
      break;
    }
    Done += n;
  }
  return Done;
}

int CGdbRemote::WriteMem(U32 Addr, U32 NumBytes, const U8* pData) {
  if (_RunState != STATE_HALTED) {
    return -1;
  }
  U32 Done = 0;
  while (Done < NumBytes) {
    U32 a = Addr + Done;
    U32 BlockSize = 0;
    if (_IsFlash(a, &BlockSize)) {
      // Flash is collected per erase block, the rest of each block read first, and programmed
      // with vFlash at the end of the download or before the target moves.
      U32 BlockAddr = a - a % BlockSize;
      auto It = _mPendingFlash.find(BlockAddr);
      if (It == _mPendingFlash.end()) {
        std::vector<U8> aBlock(BlockSize, 0xFF);
        ReadMem(BlockAddr, BlockSize, aBlock.data());
        It = _mPendingFlash.emplace(BlockAddr, std::move(aBlock)).first;
      }
      U32 n = std::min(NumBytes - Done, BlockAddr + BlockSize - a);
      memcpy(It->second.data() + (a - BlockAddr), pData + Done, n);
      Done += n;
      continue;
    }
    // Up to the next flash region, or everything.
    U32 n = NumBytes - Done;
    for (const GDB_MEM_REGION& R : _aMemMap) {
      if (R.IsFlash && R.Addr > a && R.Addr - a < n) {
        n = R.Addr - a;
      }
    }
    U32 w = U32(_WriteMemChunkWise(a, n, pData + Done));
    Done += w;
    if (w < n) {
      break;
    }
  }
  return Done > 0 ? int(Done) : (NumBytes == 0 ? 0 : -1);
}

int CGdbRemote::_FlushFlash(std::string& sError) {
  if (_mPendingFlash.empty()) {
    return 0;
  }
  std::map<U32, std::vector<U8>> mBlocks;
  mBlocks.swap(_mPendingFlash);
  std::string sReply;
  for (auto& [BlockAddr, aBlock] : mBlocks) {
    std::string sPacket = "vFlashErase:" + _Hex(BlockAddr) + "," + _Hex(U32(aBlock.size()));
    if (_Transact(sPacket, sReply, kFlashTimeoutMs) != 0 || sReply != "OK") {
      sError = "flash erase at 0x" + _Hex(BlockAddr) + " failed (reply \"" + sReply.substr(0, 16) + "\")";
      return -1;
    }
  }
  for (auto& [BlockAddr, aBlock] : mBlocks) {
    for (size_t Done = 0; Done < aBlock.size();) {
      std::string sHead = "vFlashWrite:" + _Hex(BlockAddr + U32(Done)) + ":";
      std::string sData;
      size_t n = 0;
      while (Done + n < aBlock.size() && sData.size() + 2 <= _PacketSize - sHead.size() - 8) {
        sData += GDB_EscapeBinary(&aBlock[Done + n], 1);
        n++;
      }
      if (_Transact(sHead + sData, sReply, kFlashTimeoutMs) != 0 || sReply != "OK") {
        sError = "flash write at 0x" + _Hex(BlockAddr + U32(Done)) + " failed (reply \"" +
                 sReply.substr(0, 16) + "\")";
        return -1;
      }
      Done += n;
    }
  }
  if (_Transact("vFlashDone", sReply, kFlashTimeoutMs) != 0 || sReply != "OK") {
    sError = "flash programming failed at vFlashDone (reply \"" + sReply.substr(0, 16) + "\")";
    return -1;
  }
  return 0;
}

int CGdbRemote::EndDownload(std::string& sError) {
  if (_RunState != STATE_HALTED) {
    sError = "target not halted";
    return -1;
  }
  return _FlushFlash(sError);
}

// ---- Breakpoints ----

int CGdbRemote::SetBreakpoint(U32 Addr, bool Hardware) {
  std::string sReply;
  if (_RunState != STATE_HALTED ||
      _Transact(std::string(Hardware ? "Z1," : "Z0,") + _Hex(Addr) + ",2", sReply) != 0 || sReply != "OK") {
    return -1;
  }
  _aBreakpoints.push_back(Addr);
  return 0;
}

int CGdbRemote::ClearBreakpoint(U32 Addr, bool Hardware) {
  auto It = std::find(_aBreakpoints.begin(), _aBreakpoints.end(), Addr);
  if (It != _aBreakpoints.end()) {
    _aBreakpoints.erase(It);
  }
  std::string sReply;
  if (_RunState != STATE_HALTED ||
      _Transact(std::string(Hardware ? "z1," : "z0,") + _Hex(Addr) + ",2", sReply) != 0) {
    return -1;
  }
  return sReply == "OK" ? 0 : -1;
}

std::string CGdbRemote::_WatchPacket(char Op, const PROBE_WATCH& W) const {
  // Z2 write, Z3 read, Z4 either; a masked address watches the whole aligned range.
  char Type = (W.AccessMask & 1) ? '4' : ((W.Access & 1) ? '2' : '3');
  U32 Len;
  if (W.AddrMask) {
    Len = W.AddrMask + 1;
  } else if (W.AccessMask & 0x06) {
    Len = 1;
  } else {
    U32 Size = (W.Access >> 1) & 3;
    Len = Size == 0 ? 1 : (Size == 1 ? 2 : 4);
  }
  return std::string(1, Op) + Type + "," + _Hex(W.Addr & ~W.AddrMask) + "," + _Hex(Len);
}

int CGdbRemote::SetWatchpoint(const PROBE_WATCH& Watch) {
  if (Watch.DataMask != 0xFFFFFFFFu) {
    PROBE_Error("gdbserver: data breakpoints with a value comparison are not supported");
    return -1;
  }
  std::string sReply;
  if (_RunState != STATE_HALTED || _Transact(_WatchPacket('Z', Watch), sReply) != 0 || sReply != "OK") {
    return -1;
  }
  _aWatches.push_back(Watch);
  return 0;
}

int CGdbRemote::ClearWatchpoint(const PROBE_WATCH& Watch) {
  for (size_t i = 0; i < _aWatches.size(); i++) {
    if (memcmp(&_aWatches[i], &Watch, sizeof(Watch)) == 0) {
      _aWatches.erase(_aWatches.begin() + long(i));
      break;
    }
  }
  std::string sReply;
  if (_RunState != STATE_HALTED || _Transact(_WatchPacket('z', Watch), sReply) != 0) {
    return -1;
  }
  return sReply == "OK" ? 0 : -1;
}

int CGdbRemote::_SetWatchpoints(bool Insert) {
  int Result = 0;
  for (const PROBE_WATCH& W : _aWatches) {
    std::string sReply;
    if (_Transact(_WatchPacket(Insert ? 'Z' : 'z', W), sReply) != 0 || sReply != "OK") {
      Result = -1;
    }
  }
  return Result;
}

// ---- Commands ----

int CGdbRemote::ExecCommand(const std::string& sKey, const std::string& sValue, std::string& sOut) {
  std::string sLowKey = sKey;
  for (char& c : sLowKey) {
    c = char(tolower(U8(c)));
  }
  if (sLowKey == "gdbbreakpointunits" || sLowKey == "gdbwatchpointunits") {
    char* pEnd = nullptr;
    long n = strtol(sValue.c_str(), &pEnd, 10);
    if (sValue.empty() || *pEnd || n < 0 || n > 64) {
      sOut = sKey + ": \"" + sValue + "\" is not a unit count from 0 to 64";
      return -1;
    }
    (sLowKey == "gdbbreakpointunits" ? _NumBPUnits : _NumWPUnits) = int(n);
    return 0;
  }
  if (!IsConnected()) {
    return 1;
  }
  // Everything else goes to the server's monitor as typed.
  if (_RunState != STATE_HALTED) {
    sOut = "monitor command \"" + sKey + "\" needs a halted target";
    return -1;
  }
  std::string sCommand = sValue.empty() ? sKey : sKey + " " + sValue;
  std::string sOutput, sError;
  if (_Monitor(sCommand, sOutput, sError) != MONITOR_DONE) {
    sOut = sError;
    return -1;
  }
  sOut = sOutput;  // the user who typed the command sees it
  return 0;
}
