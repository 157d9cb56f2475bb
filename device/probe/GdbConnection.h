// One end of a GDB remote serial protocol connection over a stream socket: packets with acks and
// retransmission, the no-ack mode, the 0x03 interrupt, time-outs on every wait. Used by the client
// back-end and by zevra-simserver; it has no thread and no event loop of its own.
#pragma once

#include <deque>
#include <string>

#include "device/probe/GdbPacket.h"

// Splits "host[:port]" (port defaults to DefaultPort); false with sError set for a bad port or an
// empty host. "[::1]:3333" style is not supported; targets are reached by IPv4 name or address.
bool GDB_ParseHostPort(const std::string& sText, U16 DefaultPort, std::string& sHost, U16* pPort,
                       std::string& sError);

// The connection. Once the peer closed or a socket call failed it is lost for good: every call then
// fails at once and IsLost() tells why. Writes never raise SIGPIPE.
class CGdbConnection {
 public:
  CGdbConnection() = default;
  ~CGdbConnection();
  CGdbConnection(const CGdbConnection&) = delete;
  CGdbConnection& operator=(const CGdbConnection&) = delete;

  // Connects to a server within the time-out; 0 or negative with sError.
  int Connect(const std::string& sHost, U16 Port, int TimeoutMs, std::string& sError);
  // Takes over a connected socket (the server side, or a test's socket pair).
  void Attach(int Socket);
  void Close();
  bool IsOpen() const { return _Socket >= 0; }
  bool IsLost() const { return _Lost; }
  const std::string& GetLostReason() const { return _sLostReason; }

  // In ack mode every packet sent waits for "+" and is sent again on "-" (at most 3 times); every
  // packet received is answered with "+" or, on a bad checksum, "-".
  void SetAckMode(bool On) { _AckMode = On; }
  bool GetAckMode() const { return _AckMode; }

  // 0 or negative (time-out, retransmissions used up, connection lost).
  int SendPacket(const std::string& sPayload, int TimeoutMs);
  // The 0x03 byte that asks a running target to stop.
  int SendInterrupt();
  // 1 with a packet's payload, 0 when nothing came within the time-out (0 ms only looks), negative
  // when the connection is lost. Interrupt bytes received meanwhile are counted (TakeInterrupt).
  int ReadPacket(std::string& sPayload, int TimeoutMs);
  // SendPacket then ReadPacket: 1 with the reply, negative on any failure or time-out (sError).
  int Transact(const std::string& sPayload, std::string& sReply, int TimeoutMs, std::string& sError);
  // True once for every 0x03 received.
  bool TakeInterrupt();
  // True when bytes are waiting, without blocking.
  bool HasInput();

 private:
  int _WaitReadable(int TimeoutMs);  // 1 readable, 0 time-out, negative lost
  int _Fill(int TimeoutMs);          // reads what is there into the reader; same results
  int _WriteAll(const std::string& s);
  void _SetLost(const std::string& sWhy);

  int _Socket = -1;
  bool _AckMode = true;
  bool _Lost = false;
  std::string _sLostReason;
  CGdbPacketReader _Reader;
  int _NumAcks = 0, _NumNacks = 0, _NumInterrupts = 0;
  std::deque<std::string> _asPackets;  // received, not yet taken; may arrive before an awaited ack
};
