// Framing and hex helpers of the GDB remote serial protocol.
#include "device/probe/GdbPacket.h"

#include <cstdio>

namespace {

int _HexDigit(char c) {
  if (c >= '0' && c <= '9') {
    return c - '0';
  }
  if (c >= 'a' && c <= 'f') {
    return c - 'a' + 10;
  }
  if (c >= 'A' && c <= 'F') {
    return c - 'A' + 10;
  }
  return -1;
}

const char kHexDigits[] = "0123456789abcdef";

}  // namespace

std::string GDB_Frame(const std::string& sPayload) {
  U8 Sum = 0;
  for (char c : sPayload) {
    Sum = U8(Sum + U8(c));
  }
  std::string s;
  s.reserve(sPayload.size() + 4);
  s += '$';
  s += sPayload;
  s += '#';
  s += kHexDigits[Sum >> 4];
  s += kHexDigits[Sum & 15];
  return s;
}

std::string GDB_EscapeBinary(const U8* pData, size_t NumBytes) {
  std::string s;
  s.reserve(NumBytes + NumBytes / 16);
  for (size_t i = 0; i < NumBytes; i++) {
    U8 b = pData[i];
    if (b == '$' || b == '#' || b == '}' || b == '*') {
      s += '}';
      s += char(b ^ 0x20);
    } else {
      s += char(b);
    }
  }
  return s;
}

std::string GDB_ToHex(const U8* pData, size_t NumBytes) {
  std::string s(NumBytes * 2, '0');
  for (size_t i = 0; i < NumBytes; i++) {
    s[2 * i] = kHexDigits[pData[i] >> 4];
    s[2 * i + 1] = kHexDigits[pData[i] & 15];
  }
  return s;
}

std::string GDB_ToHex(const std::string& s) {
  return GDB_ToHex(reinterpret_cast<const U8*>(s.data()), s.size());
}

bool GDB_FromHex(const std::string& sHex, std::vector<U8>& aOut) {
  aOut.clear();
  if (sHex.size() % 2) {
    return false;
  }
  aOut.reserve(sHex.size() / 2);
  for (size_t i = 0; i < sHex.size(); i += 2) {
    int Hi = _HexDigit(sHex[i]), Lo = _HexDigit(sHex[i + 1]);
    if (Hi < 0 || Lo < 0) {
      return false;
    }
    aOut.push_back(U8(Hi * 16 + Lo));
  }
  return true;
}

bool GDB_ParseHexU32(const std::string& s, U32* pValue) {
  if (s.empty() || s.size() > 8) {
    return false;
  }
  U32 v = 0;
  for (char c : s) {
    int d = _HexDigit(c);
    if (d < 0) {
      return false;
    }
    v = v * 16 + U32(d);
  }
  *pValue = v;
  return true;
}

std::string GDB_U32ToTargetHex(U32 Value) {
  U8 ab[4] = {U8(Value), U8(Value >> 8), U8(Value >> 16), U8(Value >> 24)};
  return GDB_ToHex(ab, 4);
}

bool GDB_DecodePayload(const std::string& sRaw, std::string& sOut, size_t MaxPayload) {
  sOut.clear();
  for (size_t i = 0; i < sRaw.size(); i++) {
    char c = sRaw[i];
    if (c == '}') {
      if (++i >= sRaw.size()) {
        return false;
      }
      sOut += char(sRaw[i] ^ 0x20);
    } else if (c == '*') {
      // Run-length encoding: the previous character repeats (count char - 29) more times.
      if (sOut.empty() || ++i >= sRaw.size()) {
        return false;
      }
      int Count = int(U8(sRaw[i])) - 29;
      if (Count < 3 || Count > 97) {
        return false;
      }
      sOut.append(size_t(Count), sOut.back());
    } else {
      sOut += c;
    }
    if (sOut.size() > MaxPayload) {
      return false;
    }
  }
  return true;
}

void CGdbPacketReader::Clear() {
  _State = IDLE;
  _sRaw.clear();
  _aItems.clear();
  _NextItem = 0;
}

void CGdbPacketReader::_FinishPacket() {
  GDB_ITEM Item{GDB_ITEM_BAD_PACKET, {}};
  if (!_TooLong && _ReceivedSum == _Sum && GDB_DecodePayload(_sRaw, Item.sPayload, _MaxPayload)) {
    Item.Kind = GDB_ITEM_PACKET;
  } else {
    Item.sPayload.clear();
  }
  _aItems.push_back(std::move(Item));
  _sRaw.clear();
  _State = IDLE;
}

void CGdbPacketReader::Feed(const char* pData, size_t NumBytes) {
  for (size_t i = 0; i < NumBytes; i++) {
    char c = pData[i];
    switch (_State) {
      case IDLE:
        if (c == '$') {
          _State = IN_PACKET;
          _sRaw.clear();
          _Sum = 0;
          _TooLong = false;
        } else if (c == '+') {
          _aItems.push_back({GDB_ITEM_ACK, {}});
        } else if (c == '-') {
          _aItems.push_back({GDB_ITEM_NACK, {}});
        } else if (c == 0x03) {
          _aItems.push_back({GDB_ITEM_INTERRUPT, {}});
        }
        break;
      case IN_PACKET:
        if (c == '#') {
          _State = CHECKSUM_1;
        } else if (c == '$') {
          // A new start inside a packet: the previous one was cut off; start over.
          _sRaw.clear();
          _Sum = 0;
          _TooLong = false;
        } else {
          _Sum = U8(_Sum + U8(c));
          if (_sRaw.size() < _MaxPayload) {
            _sRaw += c;
          } else {
            _TooLong = true;
          }
        }
        break;
      case CHECKSUM_1: {
        int d = _HexDigit(c);
        _ReceivedSum = d < 0 ? -4096 : d * 16;
        _State = CHECKSUM_2;
        break;
      }
      case CHECKSUM_2: {
        int d = _HexDigit(c);
        _ReceivedSum = d < 0 ? -1 : _ReceivedSum + d;
        _FinishPacket();
        break;
      }
    }
  }
}

bool CGdbPacketReader::Next(GDB_ITEM& Item) {
  if (_NextItem >= _aItems.size()) {
    _aItems.clear();
    _NextItem = 0;
    return false;
  }
  Item = std::move(_aItems[_NextItem++]);
  if (_NextItem == _aItems.size()) {
    _aItems.clear();
    _NextItem = 0;
  }
  return true;
}
