// A scripted gdbserver for the client tests: listens on 127.0.0.1, acknowledges packets, answers each
// through the test's handler and records what it received. Runs on its own thread.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "device/probe/GdbPacket.h"

struct FAKE_REPLY {
  std::vector<std::string> asPackets;  // framed and sent in order
  std::string sRaw;                    // sent as it is, after the packets
  bool Close = false;                  // then the server hangs up
  bool Nack = false;                   // answer "-" instead of "+" and nothing else
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
  ~CFakeGdbServer() {
    _Quit = true;
    _Thread.join();
    close(_Listen);
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
    while (!_Quit && Socket >= 0) {
      pollfd Fd{Socket, POLLIN, 0};
      if (poll(&Fd, 1, 50) != 1) {
        continue;
      }
      char ac[8192];
      ssize_t n = recv(Socket, ac, sizeof(ac), 0);
      if (n <= 0) {
        break;
      }
      Reader.Feed(ac, size_t(n));
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
        std::string sOut = Item.Kind == GDB_ITEM_PACKET ? (R.Nack ? "-" : "+") : "";
        for (const std::string& s : R.asPackets) {
          sOut += GDB_Frame(s);
        }
        sOut += R.sRaw;
        send(Socket, sOut.data(), sOut.size(), MSG_NOSIGNAL);
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
  std::thread _Thread;
};
