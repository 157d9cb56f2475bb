// Socket and ack handling of a GDB remote serial protocol connection (POSIX sockets, poll).
#include "device/probe/GdbConnection.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>

namespace {

using CClock = std::chrono::steady_clock;

int _MsLeft(CClock::time_point End) {
  auto Left = std::chrono::duration_cast<std::chrono::milliseconds>(End - CClock::now()).count();
  return Left > 0 ? int(Left) : 0;
}

}  // namespace

bool GDB_ParseHostPort(const std::string& sText, U16 DefaultPort, std::string& sHost, U16* pPort,
                       std::string& sError) {
  std::string s = sText;
  while (!s.empty() && (s.back() == ' ' || s.back() == '\t')) {
    s.pop_back();
  }
  size_t b = s.find_first_not_of(" \t");
  s = b == std::string::npos ? std::string() : s.substr(b);
  size_t Colon = s.rfind(':');
  sHost = s.substr(0, Colon);
  *pPort = DefaultPort;
  if (Colon != std::string::npos) {
    std::string sPort = s.substr(Colon + 1);
    char* pEnd = nullptr;
    long Port = sPort.empty() ? -1 : strtol(sPort.c_str(), &pEnd, 10);
    if (sPort.empty() || *pEnd || Port < 1 || Port > 65535) {
      sError = "invalid port \"" + sPort + "\" in \"" + sText + "\" (1..65535)";
      return false;
    }
    *pPort = U16(Port);
  }
  if (sHost.empty() || sHost.find(':') != std::string::npos) {
    sError = "no host name in \"" + sText + "\" (host[:port])";
    return false;
  }
  return true;
}

CGdbConnection::~CGdbConnection() {
  Close();
}

void CGdbConnection::Close() {
  if (_Socket >= 0) {
    close(_Socket);
  }
  _Socket = -1;
  _Reader.Clear();
  _NumAcks = _NumNacks = _NumInterrupts = 0;
  _asPackets.clear();
  _AckMode = true;
}

void CGdbConnection::Attach(int Socket) {
  Close();
  _Socket = Socket;
  _Lost = false;
  _sLostReason.clear();
  int One = 1;
  setsockopt(_Socket, IPPROTO_TCP, TCP_NODELAY, &One, sizeof(One));  // fails harmlessly on a pair
}

void CGdbConnection::_SetLost(const std::string& sWhy) {
  if (!_Lost) {
    _Lost = true;
    _sLostReason = sWhy;
  }
}

int CGdbConnection::Connect(const std::string& sHost, U16 Port, int TimeoutMs, std::string& sError) {
  Close();
  _Lost = false;
  _sLostReason.clear();
  addrinfo Hints{};
  Hints.ai_family = AF_INET;
  Hints.ai_socktype = SOCK_STREAM;
  addrinfo* pList = nullptr;
  int r = getaddrinfo(sHost.c_str(), std::to_string(Port).c_str(), &Hints, &pList);
  if (r != 0 || !pList) {
    sError = "host \"" + sHost + "\" not found: " + gai_strerror(r);
    return -1;
  }
  int Socket = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (Socket < 0) {
    freeaddrinfo(pList);
    sError = std::string("socket: ") + strerror(errno);
    return -1;
  }
  r = connect(Socket, pList->ai_addr, pList->ai_addrlen);
  freeaddrinfo(pList);
  if (r != 0 && errno == EINPROGRESS) {
    pollfd Fd{Socket, POLLOUT, 0};
    r = poll(&Fd, 1, TimeoutMs);
    int Error = 0;
    socklen_t Len = sizeof(Error);
    if (r == 1 && getsockopt(Socket, SOL_SOCKET, SO_ERROR, &Error, &Len) == 0 && Error == 0) {
      r = 0;
    } else {
      errno = r == 0 ? ETIMEDOUT : (Error ? Error : errno);
      r = -1;
    }
  }
  if (r != 0) {
    sError = "connection to " + sHost + ":" + std::to_string(Port) + " failed: " + strerror(errno);
    close(Socket);
    return -1;
  }
  Attach(Socket);
  return 0;
}

int CGdbConnection::_WaitReadable(int TimeoutMs) {
  if (_Socket < 0 || _Lost) {
    return -1;
  }
  pollfd Fd{_Socket, POLLIN, 0};
  int r;
  do {
    r = poll(&Fd, 1, TimeoutMs);
  } while (r < 0 && errno == EINTR);
  if (r < 0) {
    _SetLost(std::string("poll: ") + strerror(errno));
    return -1;
  }
  return r > 0 ? 1 : 0;
}

int CGdbConnection::_Fill(int TimeoutMs) {
  int r = _WaitReadable(TimeoutMs);
  if (r <= 0) {
    return r;
  }
  char ac[16384];
  ssize_t n;
  do {
    n = recv(_Socket, ac, sizeof(ac), MSG_DONTWAIT);
  } while (n < 0 && errno == EINTR);
  if (n == 0) {
    _SetLost("connection closed by the server");
    return -1;
  }
  if (n < 0) {
    if (errno == EAGAIN || errno == EWOULDBLOCK) {
      return 0;
    }
    _SetLost(std::string("receive: ") + strerror(errno));
    return -1;
  }
  _Reader.Feed(ac, size_t(n));
  GDB_ITEM Item;
  while (_Reader.Next(Item)) {
    switch (Item.Kind) {
      case GDB_ITEM_ACK:
        _NumAcks++;
        break;
      case GDB_ITEM_NACK:
        _NumNacks++;
        break;
      case GDB_ITEM_INTERRUPT:
        _NumInterrupts++;
        break;
      case GDB_ITEM_BAD_PACKET:
        if (_AckMode && _WriteAll("-") != 0) {
          return -1;
        }
        break;
      case GDB_ITEM_PACKET:
        if (_AckMode && _WriteAll("+") != 0) {
          return -1;
        }
        _asPackets.push_back(std::move(Item.sPayload));
        break;
    }
  }
  return 1;
}

int CGdbConnection::_WriteAll(const std::string& s) {
  if (_Socket < 0 || _Lost) {
    return -1;
  }
  size_t Done = 0;
  auto End = CClock::now() + std::chrono::seconds(10);
  while (Done < s.size()) {
    ssize_t n = send(_Socket, s.data() + Done, s.size() - Done, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (n > 0) {
      Done += size_t(n);
      continue;
    }
    if (n < 0 && errno == EINTR) {
      continue;
    }
    if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
      pollfd Fd{_Socket, POLLOUT, 0};
      if (poll(&Fd, 1, _MsLeft(End)) <= 0) {
        _SetLost("send: the server takes no more data");
        return -1;
      }
      continue;
    }
    _SetLost(std::string("send: ") + strerror(errno));
    return -1;
  }
  return 0;
}

int CGdbConnection::SendInterrupt() {
  return _WriteAll(std::string(1, '\x03'));
}

bool CGdbConnection::TakeInterrupt() {
  if (_NumInterrupts > 0) {
    _NumInterrupts--;
    return true;
  }
  return false;
}

bool CGdbConnection::HasInput() {
  if (!_asPackets.empty() || _NumInterrupts > 0) {
    return true;
  }
  return _Fill(0) > 0 && (!_asPackets.empty() || _NumInterrupts > 0);
}

int CGdbConnection::SendPacket(const std::string& sPayload, int TimeoutMs) {
  std::string sFrame = GDB_Frame(sPayload);
  if (!_AckMode) {
    return _WriteAll(sFrame);
  }
  auto End = CClock::now() + std::chrono::milliseconds(TimeoutMs);
  _NumAcks = _NumNacks = 0;
  for (int Try = 0; Try < 4; Try++) {
    if (_WriteAll(sFrame) != 0) {
      return -1;
    }
    while (_NumAcks == 0 && _NumNacks == 0) {
      int r = _Fill(_MsLeft(End));
      if (r < 0) {
        return -1;
      }
      if (r == 0 && _MsLeft(End) == 0) {
        return -1;
      }
    }
    if (_NumAcks > 0) {
      _NumAcks = 0;
      _NumNacks = 0;
      return 0;
    }
    _NumNacks = 0;
  }
  return -1;
}

int CGdbConnection::ReadPacket(std::string& sPayload, int TimeoutMs) {
  auto End = CClock::now() + std::chrono::milliseconds(TimeoutMs);
  while (_asPackets.empty()) {
    int r = _Fill(_MsLeft(End));
    if (r < 0) {
      return -1;
    }
    if (r == 0 && _MsLeft(End) == 0 && _asPackets.empty()) {
      return 0;
    }
  }
  sPayload = std::move(_asPackets.front());
  _asPackets.pop_front();
  return 1;
}

int CGdbConnection::Transact(const std::string& sPayload, std::string& sReply, int TimeoutMs,
                             std::string& sError) {
  std::string sName = sPayload.substr(0, std::min<size_t>(sPayload.find_first_of(":,;"), 24));
  if (SendPacket(sPayload, TimeoutMs) != 0) {
    sError = "packet \"" + sName + "\" not sent: " + (_Lost ? _sLostReason : "no acknowledgement");
    return -1;
  }
  int r = ReadPacket(sReply, TimeoutMs);
  if (r <= 0) {
    sError = "no reply to packet \"" + sName + "\": " + (r < 0 ? _sLostReason : "time-out");
    return -1;
  }
  return 1;
}
