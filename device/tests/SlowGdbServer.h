// A gdbserver for the wait tests that answers as QEMU does but takes its time over chosen packets, as a
// slow probe does.
#pragma once

#include <atomic>
#include <chrono>
#include <string>
#include <thread>

#include "device/probe/GdbPacket.h"
#include "device/probe/tests/GdbFakeServer.h"

// The answers QEMU 7.2 gives for mps2-an385 (recorded from its gdb socket), its system registers left
// out: the registers r0..pc and xPSR. The answers to chosen packets come late, as from a slow probe.
inline const char kTargetXml[] =
    "<?xml version=\"1.0\"?><!DOCTYPE target SYSTEM "
    "\"gdb-target.dtd\"><target><architecture>arm</architecture>"
    "<xi:include href=\"arm-m-profile.xml\"/></target>";
inline const char kMProfileXml[] =
    "<feature name=\"org.gnu.gdb.arm.m-profile\">\n"
    "  <reg name=\"r0\" bitsize=\"32\"/>\n  <reg name=\"r1\" bitsize=\"32\"/>\n"
    "  <reg name=\"r2\" bitsize=\"32\"/>\n  <reg name=\"r3\" bitsize=\"32\"/>\n"
    "  <reg name=\"r4\" bitsize=\"32\"/>\n  <reg name=\"r5\" bitsize=\"32\"/>\n"
    "  <reg name=\"r6\" bitsize=\"32\"/>\n  <reg name=\"r7\" bitsize=\"32\"/>\n"
    "  <reg name=\"r8\" bitsize=\"32\"/>\n  <reg name=\"r9\" bitsize=\"32\"/>\n"
    "  <reg name=\"r10\" bitsize=\"32\"/>\n  <reg name=\"r11\" bitsize=\"32\"/>\n"
    "  <reg name=\"r12\" bitsize=\"32\"/>\n  <reg name=\"sp\" bitsize=\"32\" type=\"data_ptr\"/>\n"
    "  <reg name=\"lr\" bitsize=\"32\"/>\n  <reg name=\"pc\" bitsize=\"32\" type=\"code_ptr\"/>\n"
    "  <reg name=\"xpsr\" bitsize=\"32\" regnum=\"25\"/>\n</feature>\n";

inline constexpr int kServerDelayMS = 2000;
inline constexpr double kMaxCpuShare = 0.15;

struct SLOW_SERVER {
  std::atomic<char> SlowPacket{0};           // first letter of the packets answered late; 0: none
  std::atomic<bool> UnreadableBlock{false};  // "g" marks every register unreadable, so reads use "p"

  FAKE_REPLY Handle(const std::string& s) {
    if (!s.empty() && s[0] == SlowPacket.load()) {
      std::this_thread::sleep_for(std::chrono::milliseconds(kServerDelayMS));  // the slow probe itself
    }
    if (s.rfind("qSupported", 0) == 0) {
      return FakeReply("PacketSize=1000;qXfer:features:read+;vContSupported+;multiprocess+");
    }
    if (s.rfind("qXfer:features:read:target.xml:", 0) == 0) {
      return FakeReply(std::string("l") + kTargetXml);
    }
    if (s.rfind("qXfer:features:read:arm-m-profile.xml:", 0) == 0) {
      return FakeReply(std::string("l") + kMProfileXml);
    }
    if (s == "?") {
      return FakeReply("T05thread:p01.01;");
    }
    if (s == "g") {
      std::string sHex;
      for (U32 i = 0; i < 17; ++i) {
        sHex += UnreadableBlock.load() ? std::string("xxxxxxxx")
                                       : GDB_U32ToTargetHex(i == 15 ? 0x100 : 0x1000 + i);
      }
      return FakeReply(sHex);
    }
    if (s[0] == 'p') {
      return FakeReply(GDB_U32ToTargetHex(0x1000));
    }
    if (s[0] == 'm') {
      size_t Comma = s.find(',');
      U32 Len = 0;
      GDB_ParseHexU32(s.substr(Comma + 1), &Len);
      return FakeReply(std::string(size_t(Len) * 2, '0'));
    }
    if (s[0] == 'P' || s == "D") {
      return FakeReply("OK");
    }
    if (s == "\x03") {
      return FakeReply("T02thread:01;");
    }
    return FakeReply("");
  }
};
