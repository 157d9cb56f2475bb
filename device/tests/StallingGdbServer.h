// A gdbserver on loopback that answers like a small halted Cortex-M target (registers, 64 KiB of RAM at
// 0x20000000) until it is told to stall: from then on it takes every packet and answers none, as a
// server does whose target or probe has hung.
#pragma once

#include <atomic>
#include <mutex>
#include <string>
#include <vector>

#include "device/probe/GdbPacket.h"
#include "device/probe/tests/GdbFakeServer.h"

class CStallingGdbServer {
 public:
  static constexpr U32 kRamAddr = 0x20000000;
  static constexpr U32 kRamSize = 0x10000;

  CStallingGdbServer() : _Server([this](const std::string& s) { return _Handle(s); }) {}

  std::string GetAddress() const { return _Server.GetAddress(); }
  void Stall() {
    std::lock_guard<std::mutex> Lock(_Mutex);
    _Stalled = true;
    _asSinceStall.clear();
  }
  // The packets taken since the stall began, and how many of them start with one of the letters.
  int CountSinceStall(const std::string& sFirstLetters) {
    std::lock_guard<std::mutex> Lock(_Mutex);
    int n = 0;
    for (const std::string& s : _asSinceStall) {
      n += !s.empty() && sFirstLetters.find(s[0]) != std::string::npos ? 1 : 0;
    }
    return n;
  }

 private:
  FAKE_REPLY _Handle(const std::string& s) {
    std::lock_guard<std::mutex> Lock(_Mutex);
    if (_Stalled) {
      _asSinceStall.push_back(s);
      return {};  // acknowledged, never answered
    }
    if (s.rfind("qSupported", 0) == 0) {
      return FakeReply("PacketSize=1000");
    }
    if (s == "?") {
      return FakeReply("T05");
    }
    if (s == "g") {
      // The classic layout without a target description: r0..r15, eight FPA registers, fps, cpsr.
      std::string sHex;
      for (int i = 0; i < 16; i++) {
        sHex += GDB_U32ToTargetHex(i == 13 ? kRamAddr + kRamSize : (i == 15 ? 0x100u : 0u));
      }
      sHex += std::string(8 * 24 + 8, '0') + GDB_U32ToTargetHex(0x01000000);
      return FakeReply(sHex);
    }
    if (s[0] == 'm' || s[0] == 'M' || s[0] == 'X') {
      size_t Comma = s.find(','), Colon = s.find(':');
      U32 Addr = 0, Len = 0;
      GDB_ParseHexU32(s.substr(1, Comma - 1), &Addr);
      GDB_ParseHexU32(s.substr(Comma + 1, Colon == std::string::npos ? std::string::npos : Colon - Comma - 1),
                      &Len);
      if (Addr < kRamAddr || Addr - kRamAddr + Len > kRamSize) {
        return FakeReply("E14");
      }
      return s[0] == 'm' ? FakeReply(std::string(Len * 2, '0')) : FakeReply("OK");
    }
    if (s == "D") {
      return FakeReply("OK");
    }
    return FakeReply("");  // not supported
  }

  std::mutex _Mutex;
  bool _Stalled = false;
  std::vector<std::string> _asSinceStall;
  CFakeGdbServer _Server;  // last: its thread stops before the state above goes
};
