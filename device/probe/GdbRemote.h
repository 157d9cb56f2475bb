// The probe back-end that drives a target through a GDB remote serial protocol server: QEMU, OpenOCD,
// pyOCD, zevra-simserver. The host interface "IP" with "host[:port]" selects it (see ProbeCore.cpp).
//
// Help text of the IP interface: give the address of a running gdbserver, "localhost:1234" for
// "qemu-system-arm ... -S -gdb tcp::1234". Semihosting output of the program reaches the log only when
// QEMU runs with "-semihosting-config enable=on,target=gdb"; without it QEMU takes a HardFault on
// BKPT 0xAB. Target memory can't be read while the target runs: the debugger halts for reads. SWO,
// streaming trace and high speed sampling are not available through a gdbserver. A command that the
// probe layer does not know (Exec.Command "info registers") goes to the server's monitor; what it
// prints appears in the Console, and a command the server does not know fails with its message.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "device/probe/GdbConnection.h"
#include "device/probe/ProbeBackend.h"

constexpr U16 kGdbDefaultPort = 3333;

// The back-end for the server at "host[:port]"; one object per process, re-aimed by each call.
CProbeBackend* GDB_GetRemoteBackend(const std::string& sHostPort);

// Where a register of the layer lives on the server; Number -1 when the server does not have it.
// A layer register may be part of a wider server register: S2n and S2n+1 are the low and high words of
// the server's Dn.
struct GDB_REG_SLOT {
  int Number = -1;   // the server's register number (p/P)
  int Offset = -1;   // byte offset of the layer register's value in the g packet, -1 when not known
  int NumBytes = 4;  // size of the server's register
  int Part = 0;      // byte offset of the layer register's value inside the server's register
};

// Builds the layer's register map from a target description (all its documents joined); false when
// no r0..pc were found. Registers get their number by "regnum" or by counting on from the previous
// one, and their g offset by the order of the numbers, as the protocol lays out g.
bool GDB_MapRegisters(const std::string& sXml, std::vector<GDB_REG_SLOT>& aSlots);

// One region of the server's memory map.
struct GDB_MEM_REGION {
  U32 Addr = 0;
  U64 Size = 0;
  bool IsFlash = false;
  U32 BlockSize = 0;  // erase unit of flash
};

// Reads the memory map document; false when it has no region.
bool GDB_ParseMemoryMap(const std::string& sXml, std::vector<GDB_MEM_REGION>& aRegions);

class CGdbRemote : public CProbeBackend {
 public:
  void SetAddress(const std::string& sHost, U16 Port) {
    _sHost = sHost;
    _Port = Port;
  }

  int Open(PROBE_STREAMS* pStreams, std::string& sError) override;
  void Close() override;
  int Connect(std::string& sError) override;
  bool IsConnected() override;
  int Halt() override;
  int IsHalted() override;
  PROBE_HALT_REASON GetHaltReason() override { return _HaltReason; }
  int Go(bool StepOverBreakpoint) override;
  int Step() override;
  int Reset(int Type) override;
  U32 GetCoreClockHz() override { return 0; }  // a gdbserver has no way to tell
  int ReadReg(U32 Index, U32* pValue) override;
  int WriteReg(U32 Index, U32 Value) override;
  int ReadMem(U32 Addr, U32 NumBytes, U8* pData) override;
  int WriteMem(U32 Addr, U32 NumBytes, const U8* pData) override;
  // Any byte sent to a running QEMU stops it, and OpenOCD in all-stop mode does not serve memory while
  // the target runs; the upper layers halt for reads.
  bool CanAccessMemWhileRunning() override { return false; }
  int GetNumBreakpointUnits() override { return _NumBPUnits; }
  int SetBreakpoint(U32 Addr, bool Hardware) override;
  int ClearBreakpoint(U32 Addr, bool Hardware) override;
  int GetNumWatchpointUnits() override { return _NumWPUnits; }
  int SetWatchpoint(const PROBE_WATCH& Watch) override;
  int ClearWatchpoint(const PROBE_WATCH& Watch) override;
  int ExecCommand(const std::string& sKey, const std::string& sValue, std::string& sOut) override;
  int EndDownload(std::string& sError) override;

 private:
  enum RUN_STATE { STATE_HALTED, STATE_RUNNING, STATE_LOST };
  enum SERVER_KIND { SERVER_UNKNOWN, SERVER_QEMU, SERVER_OTHER };

  int _Transact(const std::string& sPayload, std::string& sReply, int TimeoutMs = kReplyTimeoutMs);
  // Sends a resume packet (c, s) and, for s, waits for the stop; F and O packets are served meanwhile.
  int _Resume(const std::string& sPacket);
  // Waits for a stop reply; 1 stopped, 0 time-out, negative lost.
  int _WaitStop(int TimeoutMs);
  // Handles one packet that came while running: 1 it was a stop, 0 something else, negative error.
  int _OnRunningPacket(const std::string& sPacket);
  void _OnStop(const std::string& sReply);
  void _ServeFileIO(const std::string& sRequest);
  enum MONITOR_RESULT { MONITOR_DONE, MONITOR_NOT_SUPPORTED, MONITOR_ERROR, MONITOR_UNKNOWN, MONITOR_FAILED };
  // Runs a command of the server's monitor (qRcmd). Done: sOutput holds its output without the final
  // line end. Otherwise sError says why, naming the command and quoting the server's output.
  MONITOR_RESULT _Monitor(const std::string& sCommand, std::string& sOutput, std::string& sError);
  int _ReadDescription(std::string& sError);
  int _ReadXfer(const std::string& sObject, const std::string& sAnnex, std::string& sOut);
  int _FetchRegisters();
  int _WriteMemChunkWise(U32 Addr, U32 NumBytes, const U8* pData);
  int _FlushFlash(std::string& sError);
  bool _IsFlash(U32 Addr, U32* pBlockSize = nullptr) const;
  int _SetWatchpoints(bool Insert);
  std::string _WatchPacket(char Op, const PROBE_WATCH& Watch) const;
  void _Lose(const std::string& sWhy);

  static constexpr int kReplyTimeoutMs = 3000;
  static constexpr int kStepTimeoutMs = 5000;
  static constexpr int kFlashTimeoutMs = 60000;
  static constexpr int kMonitorTimeoutMs = 10000;     // the whole output of one monitor command
  static constexpr size_t kMaxMonitorOutput = 65536;  // kept of it; the rest is read and dropped

  std::string _sHost = "127.0.0.1";
  U16 _Port = kGdbDefaultPort;
  CGdbConnection _Conn;
  bool _Connected = false;
  RUN_STATE _RunState = STATE_HALTED;
  PROBE_HALT_REASON _HaltReason = PROBE_HALT_REQUEST;
  bool _InterruptSent = false;
  bool _StopBeforeAccess = false;  // the last halt was a watchpoint that stopped before its access
  SERVER_KIND _Server = SERVER_UNKNOWN;
  std::string _sResetCommand;  // the monitor command that reset worked with
  size_t _PacketSize = 400;
  bool _HasXferFeatures = false, _HasXferMemoryMap = false;
  bool _UseX = true, _UseP = true, _UsePWrite = true;
  std::vector<GDB_REG_SLOT> _aRegs;
  std::vector<U8> _aRegBlock;  // the g packet's bytes; empty when not read since the last halt
  std::vector<GDB_MEM_REGION> _aMemMap;
  std::map<U32, std::vector<U8>> _mPendingFlash;  // erase blocks written since the last flush
  std::vector<U32> _aBreakpoints;                 // software and hardware, for the step-over at Go
  std::vector<PROBE_WATCH> _aWatches;
  std::string _sConsoleLine;  // semihosting output up to the next line end
  int _NumBPUnits = 6, _NumWPUnits = 4;
};
