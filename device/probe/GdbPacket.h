// The framing of the GDB remote serial protocol ($payload#checksum, escapes, run-length encoding) and
// the hex helpers of its payloads. No sockets here: the client and our server both build on it.
#pragma once

#include <string>
#include <vector>

#include "app/base/Types.h"

// One packet framed for sending: "$" payload "#" two hex digits of the checksum. The payload is sent
// as it is; binary data must have been escaped with GDB_EscapeBinary first.
std::string GDB_Frame(const std::string& sPayload);

// Escapes the bytes that may not appear in a payload ($, #, } and *) as "}" followed by byte ^ 0x20.
std::string GDB_EscapeBinary(const U8* pData, size_t NumBytes);

// Hex text of bytes, two lower-case digits per byte.
std::string GDB_ToHex(const U8* pData, size_t NumBytes);
std::string GDB_ToHex(const std::string& s);

// Bytes of hex text; false when the text has an odd length or a character that is not a hex digit.
bool GDB_FromHex(const std::string& sHex, std::vector<U8>& aOut);

// A hex number without prefix, at most 8 digits; false for anything else.
bool GDB_ParseHexU32(const std::string& s, U32* pValue);

// A 32-bit value as the target's bytes in hex (little endian, as every Cortex-M register is sent).
std::string GDB_U32ToTargetHex(U32 Value);

// What the byte stream of the other side contained, one item at a time.
enum GDB_ITEM_KIND {
  GDB_ITEM_ACK,        // "+"
  GDB_ITEM_NACK,       // "-"
  GDB_ITEM_INTERRUPT,  // 0x03 outside a packet
  GDB_ITEM_PACKET,     // a whole packet with a good checksum, payload decoded
  GDB_ITEM_BAD_PACKET  // a whole packet whose checksum did not match or that was too long
};

struct GDB_ITEM {
  GDB_ITEM_KIND Kind;
  std::string sPayload;  // decoded (escapes and run-length encoding undone) for GDB_ITEM_PACKET
};

// Splits a byte stream into items. Bytes come in pieces as the socket gives them; a packet may be split
// anywhere. Garbage between packets is skipped. A packet that grows past the limit is dropped whole and
// reported as bad, so a server that never sends "#" can't make us hold unbounded memory.
class CGdbPacketReader {
 public:
  explicit CGdbPacketReader(size_t MaxPayload = 1u << 20) : _MaxPayload(MaxPayload) {}

  void Feed(const char* pData, size_t NumBytes);
  // Takes the next item; false when none is complete yet.
  bool Next(GDB_ITEM& Item);
  void Clear();

 private:
  enum STATE { IDLE, IN_PACKET, CHECKSUM_1, CHECKSUM_2 };
  void _FinishPacket();

  size_t _MaxPayload;
  STATE _State = IDLE;
  std::string _sRaw;  // payload as received, still escaped
  bool _TooLong = false;
  U8 _Sum = 0;
  int _ReceivedSum = 0;
  std::vector<GDB_ITEM> _aItems;
  size_t _NextItem = 0;
};

// Undoes escapes and run-length encoding of a received payload; false when the encoding is broken
// (a "}" or "*" at the end, a repeat count out of range, or a result past MaxPayload).
bool GDB_DecodePayload(const std::string& sRaw, std::string& sOut, size_t MaxPayload);
