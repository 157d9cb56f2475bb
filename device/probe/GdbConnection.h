// One end of a GDB remote serial protocol connection over a stream socket: packets with acks and
// retransmission, the no-ack mode, the 0x03 interrupt, time-outs on every wait. Used by the client
// back-end and by zevra-simserver; it has no thread and no event loop of its own.
#pragma once

#include <chrono>
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

  // 0 or negative (time-out, retransmissions used up, connection lost). A packet whose acknowledgement
  // did not come in time may still have reached the server, so its reply counts as owed.
  int SendPacket(const std::string& sPayload, int TimeoutMs);
  // The 0x03 byte that asks a running target to stop.
  int SendInterrupt();
  // 1 with a packet's payload, 0 when nothing came within the time-out (0 ms only looks), negative
  // when the connection is lost. Interrupt bytes received meanwhile are counted (TakeInterrupt).
  int ReadPacket(std::string& sPayload, int TimeoutMs);
  // A request and its reply, both within the one time-out: 1 with the reply, negative on any failure
  // (sError). The protocol has no sequence numbers, but a server answers requests in order, so the
  // replies still owed to requests that timed out are read and dropped before this request's reply
  // is taken, and packets that came while nothing was asked are dropped: a late reply is never taken
  // for a later request's. A time-out while an earlier reply is still owed means the server stopped
  // answering: the connection is then lost. Console output packets ("O" hex) that come before the
  // reply are dropped unless TakeOutput asks for them as replies (qRcmd).
  int Transact(const std::string& sPayload, std::string& sReply, int TimeoutMs, std::string& sError,
               bool TakeOutput = false);
  // The next packet of a reply that comes in several (the output of qRcmd); a time-out leaves the
  // reply owed, as in Transact. 1, or negative with sError.
  int ReadReplyPart(std::string& sPacket, int TimeoutMs, std::string& sError);
  // Leaves the reply being read: its rest is dropped when it comes, as a late reply is.
  void AbandonReply() { _NoteReplyTimeOut(); }
  // Reads and drops the replies still owed, within the time-out: 0 when none is left, negative when
  // they don't come (the connection is then lost).
  int SettleOwedReplies(int TimeoutMs);
  // Takes in what has arrived, without waiting, so that a server that hung up or died is noticed
  // while nothing is asked of it; false when the connection is lost.
  bool CheckAlive();
  // True once for every 0x03 received.
  bool TakeInterrupt();
  // True when bytes are waiting, without blocking.
  bool HasInput();

 private:
  using TIME = std::chrono::steady_clock::time_point;
  int _WaitReadable(int TimeoutMs);  // 1 readable, 0 time-out, negative lost
  int _Fill(int TimeoutMs);          // reads what is there into the reader; same results
  int _WriteAll(const std::string& s, int TimeoutMs);
  void _SetLost(const std::string& sWhy);
  // The next packet by the deadline: 1, 0 at the deadline, negative lost. Tests the deadline on
  // every turn, so a peer that keeps sending bytes that make no packet can't hold it; at the deadline
  // it looks once more without waiting when LookAtDeadline is set, and otherwise only takes what is
  // queued.
  int _NextPacket(std::string& sPayload, TIME End, bool LookAtDeadline = true);
  // Settles owed replies from what is queued and drops the rest (nothing was asked).
  void _DropUnasked();
  // A reply did not come in time: one owed reply is borne, a second means the server is gone.
  void _NoteReplyTimeOut();

  int _Socket = -1;
  bool _AckMode = true;
  bool _Lost = false;
  std::string _sLostReason;
  CGdbPacketReader _Reader;
  int _NumAcks = 0, _NumNacks = 0, _NumInterrupts = 0;
  int _NumOwedReplies = 0;  // replies to requests that timed out, still to come
  int _NumTimeOutsInARow = 0;
  std::deque<std::string> _asPackets;  // received, not yet taken; may arrive before an awaited ack
};

// True for a console output packet: "O" and hex text ("OK" is not one).
bool GDB_IsOutputPacket(const std::string& sPacket);
