// The interface between the shared probe core (ProbeCore.cpp) and one kind of target: the built-in
// simulator, a GDB remote server. The core owns handles, the device list, command parsing and the
// stream buffers; a back-end only moves the target.
#pragma once

#include <string>
#include <vector>

#include "app/base/Types.h"
#include "device/probe/StreamFifo.h"

// A data breakpoint as the core hands it to a back-end, already validated against the unit counts.
struct PROBE_WATCH {
  U32 Addr;
  U32 AddrMask;  // bits set are ignored
  U32 Data;
  U32 DataMask;   // bits set are ignored; all ones: no value comparison
  U8 Access;      // bit 0 write, bits 1..2 size (0 byte, 2 half word, 4 word)
  U8 AccessMask;  // bits of Access that do not matter
};

// What a back-end reports of a halt.
enum PROBE_HALT_REASON : int {
  PROBE_HALT_NONE = 0,
  PROBE_HALT_REQUEST = 1,     // Halt() or a reset that stops at the reset vector
  PROBE_HALT_BREAKPOINT = 2,  // breakpoint unit or software breakpoint
  PROBE_HALT_BKPT_INST = 3,   // a BKPT instruction in the program (semihosting among them)
  PROBE_HALT_WATCHPOINT = 4,  // data breakpoint, stopped after the access
  PROBE_HALT_FAULT = 5,       // a fault the program can't handle
  PROBE_HALT_STEP = 6,
};

// The streams a back-end may feed while the target runs. The core owns them and reads them out.
struct PROBE_STREAMS {
  static constexpr int kNumStimulusPorts = 32;
  CStreamFifo aStimulus[kNumStimulusPorts];  // ITM stimulus data per port
  CStreamFifo RawSWO;                        // the SWO byte stream with ITM packet headers
  CStreamFifo HSS;                           // samples: U32 stamp in microseconds, then the blocks
};

class CProbeBackend {
 public:
  virtual ~CProbeBackend() = default;

  // Session. Open is called when the layer opens with this back-end's device; the back-end keeps its
  // target state across Close and Open within the process.
  virtual int Open(PROBE_STREAMS* pStreams, std::string& sError) = 0;
  virtual void Close() = 0;
  virtual int Connect(std::string& sError) = 0;
  virtual bool IsConnected() = 0;

  // Run control: 0 on success, negative on failure. IsHalted: positive halted, 0 running, negative
  // connection lost.
  virtual int Halt() = 0;
  virtual int IsHalted() = 0;
  virtual PROBE_HALT_REASON GetHaltReason() = 0;
  virtual int Go(bool StepOverBreakpoint) = 0;
  virtual int Step() = 0;
  virtual int Reset(int Type) = 0;
  virtual U32 GetCoreClockHz() = 0;

  // Registers by the layer's index (0..15 R0..PC, 16 xPSR, see ProbeCore.h); 0 or negative.
  virtual int ReadReg(U32 Index, U32* pValue) = 0;
  virtual int WriteReg(U32 Index, U32 Value) = 0;

  // Memory: number of bytes transferred from Addr on (stops at the first byte that fails), negative
  // when nothing could be done at all.
  virtual int ReadMem(U32 Addr, U32 NumBytes, U8* pData) = 0;
  virtual int WriteMem(U32 Addr, U32 NumBytes, const U8* pData) = 0;
  virtual bool CanAccessMemWhileRunning() = 0;

  // Breakpoints: the core decides hardware or software; the back-end counts and arms them.
  virtual int GetNumBreakpointUnits() = 0;
  virtual int SetBreakpoint(U32 Addr, bool Hardware) = 0;
  virtual int ClearBreakpoint(U32 Addr, bool Hardware) = 0;
  virtual int GetNumWatchpointUnits() = 0;
  virtual int SetWatchpoint(const PROBE_WATCH& Watch) = 0;
  virtual int ClearWatchpoint(const PROBE_WATCH& Watch) = 0;

  // A command the core did not recognise. 1: not mine; 0: done, with the command's output in sOut
  // (empty when it printed nothing); negative: failed with the error in sOut.
  virtual int ExecCommand(const std::string& sKey, const std::string& sValue, std::string& sOut) { return 1; }

  // Called at the end of a download; a failure sets sError.
  virtual int EndDownload(std::string& sError) { return 0; }

  // Streams, each optional: the defaults say "not supported".
  virtual bool HasSWO() { return false; }
  virtual int EnableSWO(U32 CpuHz, U32 SWOHz, U32 PortMask) { return -1; }
  virtual int DisableSWO(U32 PortMask) { return -1; }
  virtual bool HasStreamingTrace() { return false; }
  virtual int StartTrace() { return -1; }
  virtual int StopTrace() { return -1; }
  virtual int ReadTrace(U32* paItems, U32 Cnt) { return -1; }
  // Fetch counts, then skip counts, per halfword from Addr, each followed by the running total.
  virtual int GetInstStats(U64* paOut, U32 Addr, U32 NumItems) { return -1; }
  // HSS: 0 ok or the negative codes of TARVIK_HSS_Start.
  virtual int StartHSS(const std::vector<std::pair<U32, U32>>& aBlocks, int Interval_us) { return -4; }
  virtual int StopHSS() { return -1; }
};
