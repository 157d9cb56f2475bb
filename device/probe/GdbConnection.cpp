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

#include <cctype>
#include <cerrno>
#include <chrono>
#include <cstring>

namespace {

using CClock = std::chrono::steady_clock;

// Acknowledgements and the interrupt are a byte or two: a socket that takes no byte for this long is dead.
constexpr int kAckWriteTimeoutMs = 3000;

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
  _NumOwedReplies = 0;
  _NumTimeOutsInARow = 0;
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
        if (_AckMode && _WriteAll("-", kAckWriteTimeoutMs) != 0) {
          return -1;
        }
        break;
      case GDB_ITEM_PACKET:
        if (_AckMode && _WriteAll("+", kAckWriteTimeoutMs) != 0) {
          return -1;
        }
        _asPackets.push_back(std::move(Item.sPayload));
        break;
    }
  }
  return 1;
}

int CGdbConnection::_WriteAll(const std::string& s, int TimeoutMs) {
  if (_Socket < 0 || _Lost) {
    return -1;
  }
  size_t Done = 0;
  auto End = CClock::now() + std::chrono::milliseconds(TimeoutMs);
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
      if (_MsLeft(End) == 0 || poll(&Fd, 1, _MsLeft(End)) <= 0) {
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
  return _WriteAll(std::string(1, '\x03'), kAckWriteTimeoutMs);
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

bool CGdbConnection::CheckAlive() {
  if (_Socket < 0 || _Lost) {
    return false;
  }
  // What is waiting is read (a bounded amount, against a flooding peer); a closed or failed socket
  // shows here.
  for (int i = 0; i < 16 && _Fill(0) > 0; i++) {
  }
  return !_Lost;
}

int CGdbConnection::SendPacket(const std::string& sPayload, int TimeoutMs) {
  std::string sFrame = GDB_Frame(sPayload);
  if (!_AckMode) {
    return _WriteAll(sFrame, TimeoutMs);
  }
  auto End = CClock::now() + std::chrono::milliseconds(TimeoutMs);
  _NumAcks = _NumNacks = 0;
  for (int Try = 0; Try < 4; Try++) {
    if (_WriteAll(sFrame, std::max(_MsLeft(End), 1)) != 0) {
      return -1;
    }
    while (_NumAcks == 0 && _NumNacks == 0) {
      if (_MsLeft(End) == 0) {
        _NoteReplyTimeOut();  // the packet may have arrived and its reply may still come
        return -1;
      }
      if (_Fill(_MsLeft(End)) < 0) {
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

int CGdbConnection::_NextPacket(std::string& sPayload, TIME End, bool LookAtDeadline) {
  for (;;) {
    if (!_asPackets.empty()) {
      sPayload = std::move(_asPackets.front());
      _asPackets.pop_front();
      return 1;
    }
    if (_Lost) {
      return -1;
    }
    if (CClock::now() >= End) {
      // Time is up: one look at what has arrived (a 0 ms read looks once), then no more.
      if (!LookAtDeadline) {
        return 0;
      }
      LookAtDeadline = false;
      if (_Fill(0) < 0) {
        return -1;
      }
      continue;
    }
    if (_Fill(std::max(_MsLeft(End), 1)) < 0) {
      return -1;
    }
  }
}

int CGdbConnection::ReadPacket(std::string& sPayload, int TimeoutMs) {
  return _NextPacket(sPayload, CClock::now() + std::chrono::milliseconds(TimeoutMs));
}

void CGdbConnection::_DropUnasked() {
  while (!_asPackets.empty()) {
    const std::string& s = _asPackets.front();
    if (_NumOwedReplies > 0 && !GDB_IsOutputPacket(s)) {
      _NumOwedReplies--;
    }
    _asPackets.pop_front();
  }
}

void CGdbConnection::_NoteReplyTimeOut() {
  // One late reply is borne. A second time-out in a row, or one while a reply is still owed, means
  // the server no longer answers in step (it may have lost a request): replies can't be matched to
  // requests any more, so the connection is given up rather than trusted.
  if (_NumOwedReplies > 0 || ++_NumTimeOutsInARow >= 2) {
    _SetLost("the server stopped answering in time; its replies can't be matched to requests any more");
    return;
  }
  _NumOwedReplies = 1;
}

int CGdbConnection::SettleOwedReplies(int TimeoutMs) {
  auto End = CClock::now() + std::chrono::milliseconds(TimeoutMs);
  if (_Fill(0) < 0) {
    return -1;
  }
  _DropUnasked();
  for (bool Look = true; _NumOwedReplies > 0; Look = CClock::now() < End) {
    std::string s;
    int r = _NextPacket(s, End, Look);
    if (r < 0) {
      return -1;
    }
    if (r == 0) {
      _SetLost("the server stopped answering (a reply did not come within two time-outs)");
      return -1;
    }
    if (!GDB_IsOutputPacket(s)) {
      _NumOwedReplies--;
    }
  }
  return 0;
}

int CGdbConnection::Transact(const std::string& sPayload, std::string& sReply, int TimeoutMs,
                             std::string& sError, bool TakeOutput) {
  std::string sName = sPayload.substr(0, std::min<size_t>(sPayload.find_first_of(":,;"), 24));
  auto End = CClock::now() + std::chrono::milliseconds(TimeoutMs);
  // Whatever came since the last reply was taken: late replies, or packets nobody asked for.
  if (_Fill(0) >= 0) {
    _DropUnasked();
  }
  if (SendPacket(sPayload, std::max(_MsLeft(End), 1)) != 0) {
    sError = "packet \"" + sName + "\" not sent: " + (_Lost ? _sLostReason : "no acknowledgement");
    return -1;
  }
  // Past the deadline only what is queued is looked at, so a flood of output can't hold the wait.
  for (bool Look = true;; Look = CClock::now() < End) {
    int r = _NextPacket(sReply, End, Look);
    if (r < 0) {
      sError = "no reply to packet \"" + sName + "\": " + _sLostReason;
      return -1;
    }
    if (r == 0) {
      _NoteReplyTimeOut();
      sError = "no reply to packet \"" + sName + "\": " + (_Lost ? _sLostReason : "time-out");
      return -1;
    }
    if (GDB_IsOutputPacket(sReply)) {
      if (_NumOwedReplies == 0 && TakeOutput) {
        return 1;
      }
      continue;  // console output of the target, or the rest of an owed monitor reply
    }
    if (_NumOwedReplies > 0) {
      _NumOwedReplies--;  // the late reply to a request that timed out
      continue;
    }
    _NumTimeOutsInARow = 0;
    return 1;
  }
}

int CGdbConnection::ReadReplyPart(std::string& sPacket, int TimeoutMs, std::string& sError) {
  int r = _NextPacket(sPacket, CClock::now() + std::chrono::milliseconds(TimeoutMs));
  if (r > 0) {
    return 1;
  }
  if (r == 0) {
    _NoteReplyTimeOut();
  }
  sError = _Lost ? _sLostReason : "time-out";
  return -1;
}

bool GDB_IsOutputPacket(const std::string& sPacket) {
  if (sPacket.empty() || sPacket[0] != 'O' || sPacket.size() % 2 == 0) {
    return false;
  }
  for (size_t i = 1; i < sPacket.size(); i++) {
    if (!isxdigit(U8(sPacket[i]))) {
      return false;
    }
  }
  return true;
}
