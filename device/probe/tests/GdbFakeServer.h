// A scripted gdbserver for the client tests: listens on 127.0.0.1, acknowledges packets, answers each
// through the test's handler and records what it received. Runs on its own thread; destroying it is a
// server that dies. FAKE_TARGET below answers as QEMU does.
#pragma once

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "device/probe/GdbPacket.h"
#include "device/probe/ProbeCore.h"

struct FAKE_REPLY {
  std::vector<std::string> asPackets;  // framed and sent in order
  std::string sRaw;                    // sent as it is, after the packets
  bool Close = false;                  // then the server hangs up
  bool Nack = false;                   // answer "-" instead of "+" and nothing else
  std::string sStream;                 // then sent again and again, as fast as the client takes it
  bool Silent = false;                 // nothing at all, not even the acknowledgement
};

inline FAKE_REPLY FakeReply(std::string sPacket) {
  FAKE_REPLY R;
  R.asPackets.push_back(std::move(sPacket));
  return R;
}
inline FAKE_REPLY FakeHangUp() {
  FAKE_REPLY R;
  R.Close = true;
  return R;
}
inline FAKE_REPLY FakeNack() {
  FAKE_REPLY R;
  R.Nack = true;
  return R;
}

class CFakeGdbServer {
 public:
  using HANDLER = std::function<FAKE_REPLY(const std::string& sPacket)>;

  explicit CFakeGdbServer(HANDLER pfHandler) : _pfHandler(std::move(pfHandler)) {
    _Listen = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in Addr{};
    Addr.sin_family = AF_INET;
    Addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    bind(_Listen, reinterpret_cast<sockaddr*>(&Addr), sizeof(Addr));
    socklen_t Len = sizeof(Addr);
    getsockname(_Listen, reinterpret_cast<sockaddr*>(&Addr), &Len);
    _Port = ntohs(Addr.sin_port);
    listen(_Listen, 1);
    _Thread = std::thread([this] { _Serve(); });
  }
  ~CFakeGdbServer() { Kill(); }

  // The server dies: its connection and its port close at once.
  void Kill() {
    _Quit = true;
    if (_Thread.joinable()) {
      _Thread.join();
    }
    if (_Listen >= 0) {
      close(_Listen);
      _Listen = -1;
    }
  }

  // Bytes sent again and again from the moment the client connects (a port that is no gdbserver).
  void StreamFromStart(std::string sBytes) {
    std::lock_guard<std::mutex> Lock(_Mutex);
    _sStream = std::move(sBytes);
  }
  U16 GetPort() const { return _Port; }
  std::string GetAddress() const { return "127.0.0.1:" + std::to_string(_Port); }
  std::vector<std::string> GetReceived() {
    std::lock_guard<std::mutex> Lock(_Mutex);
    return _asReceived;
  }
  int CountReceived(const std::string& sPrefix) {
    int n = 0;
    for (const std::string& s : GetReceived()) {
      n += s.rfind(sPrefix, 0) == 0 ? 1 : 0;
    }
    return n;
  }

 private:
  void _Serve() {
    int Socket = -1;
    while (!_Quit && Socket < 0) {
      pollfd Fd{_Listen, POLLIN, 0};
      if (poll(&Fd, 1, 50) == 1) {
        Socket = accept4(_Listen, nullptr, nullptr, SOCK_CLOEXEC);
      }
    }
    CGdbPacketReader Reader;
    std::string sBlock;  // the stream repeated, and how far it went out
    size_t Offset = 0;
    while (!_Quit && Socket >= 0) {
      std::string sStream;
      {
        std::lock_guard<std::mutex> Lock(_Mutex);
        sStream = _sStream;
      }
      pollfd Fd{Socket, short(POLLIN | (sStream.empty() ? 0 : POLLOUT)), 0};
      if (poll(&Fd, 1, 50) < 1) {
        continue;
      }
      if (Fd.revents & POLLOUT) {
        // Large blocks, so that the client never finds its socket empty while the stream lasts.
        if (sBlock.empty() || sBlock.compare(0, sStream.size(), sStream) != 0) {
          sBlock.clear();
          while (sBlock.size() < 65536) {
            sBlock += sStream;
          }
          Offset = 0;
        }
        ssize_t n = send(Socket, sBlock.data() + Offset, sBlock.size() - Offset, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (n < 0 && errno != EAGAIN) {
          break;
        }
        Offset = (Offset + size_t(std::max<ssize_t>(n, 0))) % sBlock.size();
      }
      if (!(Fd.revents & (POLLIN | POLLHUP | POLLERR))) {
        continue;
      }
      char ac[8192];
      ssize_t n = recv(Socket, ac, sizeof(ac), MSG_DONTWAIT);
      if (n == 0 || (n < 0 && errno != EAGAIN)) {
        break;
      }
      Reader.Feed(ac, size_t(std::max<ssize_t>(n, 0)));
      GDB_ITEM Item;
      bool Closed = false;
      while (!Closed && Reader.Next(Item)) {
        std::string sPacket = Item.Kind == GDB_ITEM_INTERRUPT ? std::string("\x03") : Item.sPayload;
        if (Item.Kind != GDB_ITEM_PACKET && Item.Kind != GDB_ITEM_INTERRUPT) {
          continue;
        }
        {
          std::lock_guard<std::mutex> Lock(_Mutex);
          _asReceived.push_back(sPacket);
        }
        FAKE_REPLY R = _pfHandler(sPacket);
        std::string sOut = Item.Kind == GDB_ITEM_PACKET && !R.Silent ? (R.Nack ? "-" : "+") : "";
        for (const std::string& s : R.asPackets) {
          sOut += GDB_Frame(s);
        }
        sOut += R.sRaw;
        send(Socket, sOut.data(), sOut.size(), MSG_NOSIGNAL);
        if (!R.sStream.empty()) {
          std::lock_guard<std::mutex> Lock(_Mutex);
          _sStream = R.sStream;
        }
        if (R.Close) {
          close(Socket);
          Socket = -1;
          Closed = true;
        }
      }
    }
    if (Socket >= 0) {
      close(Socket);
    }
  }

  HANDLER _pfHandler;
  int _Listen = -1;
  U16 _Port = 0;
  std::atomic<bool> _Quit{false};
  std::mutex _Mutex;
  std::vector<std::string> _asReceived;
  std::string _sStream;
  std::thread _Thread;
};

// What QEMU 7.2 gave for mps2-an385 (recorded from its gdb socket).
inline constexpr char kQemuTarget[] =
    "<?xml version=\"1.0\"?><!DOCTYPE target SYSTEM "
    "\"gdb-target.dtd\"><target><architecture>arm</architecture>"
    "<xi:include href=\"arm-m-profile.xml\"/><xi:include href=\"system-registers.xml\"/></target>";
inline constexpr char kQemuMProfile[] =
    "<feature name=\"org.gnu.gdb.arm.m-profile\">\n"
    "  <reg name=\"r0\" bitsize=\"32\"/>\n  <reg name=\"r1\" bitsize=\"32\"/>\n  <reg name=\"r2\" "
    "bitsize=\"32\"/>\n"
    "  <reg name=\"r3\" bitsize=\"32\"/>\n  <reg name=\"r4\" bitsize=\"32\"/>\n  <reg name=\"r5\" "
    "bitsize=\"32\"/>\n"
    "  <reg name=\"r6\" bitsize=\"32\"/>\n  <reg name=\"r7\" bitsize=\"32\"/>\n  <reg name=\"r8\" "
    "bitsize=\"32\"/>\n"
    "  <reg name=\"r9\" bitsize=\"32\"/>\n  <reg name=\"r10\" bitsize=\"32\"/>\n  <reg name=\"r11\" "
    "bitsize=\"32\"/>\n"
    "  <reg name=\"r12\" bitsize=\"32\"/>\n  <reg name=\"sp\" bitsize=\"32\" type=\"data_ptr\"/>\n"
    "  <reg name=\"lr\" bitsize=\"32\"/>\n  <reg name=\"pc\" bitsize=\"32\" type=\"code_ptr\"/>\n"
    "  <reg name=\"xpsr\" bitsize=\"32\" regnum=\"25\"/>\n</feature>\n";
inline constexpr char kQemuSystem[] =
    "<?xml version=\"1.0\"?><!DOCTYPE target SYSTEM \"gdb-target.dtd\"><feature "
    "name=\"org.qemu.gdb.arm.sys.regs\">"
    "</feature>";

// A server that behaves like QEMU: 64 KiB of memory at 0x20000000, the registers r0..pc, xpsr.
struct FAKE_TARGET {
  std::vector<U8> aMem = std::vector<U8>(0x10000, 0);
  std::vector<U32> aRegs = std::vector<U32>(17, 0);
  std::map<std::string, FAKE_REPLY> mOverride;  // by packet prefix, tested first
  std::string sDescription = kQemuMProfile;
  int NacksLeft = 0;  // memory reads answered with "-" before one is taken
  // The next memory read is answered late, just before the reply to the packet after it (a server
  // that was slow), or never (a server that lost the request).
  bool HoldNextRead = false, DropNextRead = false;
  std::string sHeld;

  FAKE_REPLY Handle(const std::string& s) {
    FAKE_REPLY R = Answer(s);
    if (s[0] == 'm' && (HoldNextRead || DropNextRead)) {
      if (HoldNextRead && !R.asPackets.empty()) {
        sHeld = R.asPackets[0];
      }
      HoldNextRead = DropNextRead = false;
      return FAKE_REPLY{};
    }
    if (!sHeld.empty()) {
      R.asPackets.insert(R.asPackets.begin(), sHeld);
      sHeld.clear();
    }
    return R;
  }

  FAKE_REPLY Answer(const std::string& s) {
    for (auto& [sPrefix, Reply] : mOverride) {
      if (s.rfind(sPrefix, 0) == 0) {
        return Reply;
      }
    }
    auto Ok = [](std::string sReply) { return FakeReply(std::move(sReply)); };
    if (s.rfind("qSupported", 0) == 0) {
      return Ok("PacketSize=1000;qXfer:features:read+;vContSupported+;multiprocess+");
    }
    if (s.rfind("qXfer:features:read:target.xml:", 0) == 0) {
      return Ok(std::string("l") + kQemuTarget);
    }
    if (s.rfind("qXfer:features:read:arm-m-profile.xml:", 0) == 0) {
      return Ok("l" + sDescription);
    }
    if (s.rfind("qXfer:features:read:system-registers.xml:", 0) == 0) {
      return Ok(std::string("l") + kQemuSystem);
    }
    if (s == "?") {
      return Ok("T05thread:p01.01;");
    }
    if (s == "g") {
      std::string sHex;
      for (U32 v : aRegs) {
        sHex += GDB_U32ToTargetHex(v);
      }
      return Ok(sHex);
    }
    if (s.rfind("P", 0) == 0) {
      U32 Number = 0;
      std::vector<U8> a;
      size_t Eq = s.find('=');
      if (GDB_ParseHexU32(s.substr(1, Eq - 1), &Number) && GDB_FromHex(s.substr(Eq + 1), a) &&
          a.size() == 4) {
        U32 Index = Number == 25 ? 16 : Number;
        if (Index < 17) {
          aRegs[Index] = U32(a[0]) | U32(a[1]) << 8 | U32(a[2]) << 16 | U32(a[3]) << 24;
          return Ok("OK");
        }
      }
      return Ok("E14");
    }
    if (s[0] == 'm' && NacksLeft > 0) {
      NacksLeft--;
      return FakeNack();
    }
    if (s[0] == 'm' || s[0] == 'M' || s[0] == 'X') {
      size_t Comma = s.find(','), Colon = s.find(':');
      U32 Addr = 0, Len = 0;
      GDB_ParseHexU32(s.substr(1, Comma - 1), &Addr);
      GDB_ParseHexU32(s.substr(Comma + 1, Colon == std::string::npos ? std::string::npos : Colon - Comma - 1),
                      &Len);
      if (Addr < 0x20000000 || Addr - 0x20000000 + Len > aMem.size()) {
        return Ok("E14");
      }
      U8* p = &aMem[Addr - 0x20000000];
      if (s[0] == 'm') {
        return Ok(GDB_ToHex(p, Len));
      }
      std::vector<U8> a;
      if (s[0] == 'M') {
        GDB_FromHex(s.substr(Colon + 1), a);
      } else {
        a.assign(s.begin() + long(Colon) + 1, s.end());
      }
      std::copy(a.begin(), a.end(), p);
      return Ok("OK");
    }
    if (s == "c") {
      return {};  // runs until interrupted
    }
    if (s == "\x03") {
      return Ok("T02thread:01;");
    }
    if (s == "s") {
      aRegs[15] += 2;
      return Ok("T05thread:01;");
    }
    if (s == "D") {
      return Ok("OK");
    }
    return Ok("");
  }
};

// A session through the IP interface with the fake server; the layer is reset afterwards.
class CGdbSession {
 public:
  explicit CGdbSession(FAKE_TARGET* pTarget)
      : Server([pTarget](const std::string& s) { return pTarget->Handle(s); }) {
    PROBE_ResetLayer();
    TARVIKARM_SetErrorOutHandler(&_CollectError);
    _asErrors().clear();
    EXPECT_EQ(TARVIKARM_SelectIP(Server.GetAddress().c_str(), 0), 0);
  }
  ~CGdbSession() { PROBE_ResetLayer(); }
  bool Start() { return TARVIKARM_Open() == nullptr && TARVIKARM_Connect() == 0; }
  static std::string Errors() {
    std::string s;
    for (const std::string& e : _asErrors()) {
      s += e + "\n";
    }
    return s;
  }

  CFakeGdbServer Server;

 private:
  static std::vector<std::string>& _asErrors() {
    static std::vector<std::string> as;
    return as;
  }
  static void _CollectError(const char* s) { _asErrors().push_back(s); }
};
