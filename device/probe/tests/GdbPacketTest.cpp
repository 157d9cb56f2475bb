// The framing of the GDB remote protocol: frames and checksums as they appeared on QEMU's gdb socket
// (the other checksums worked out by hand: the payload's byte sum modulo 256), the decoding rules of
// the protocol's manual (escapes, run-length encoding) and how damaged input is rejected.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "device/probe/GdbConnection.h"
#include "device/probe/GdbPacket.h"

namespace {

TEST(GdbPacket, FramesCarryTheChecksumGdbSends) {
  const struct {
    const char* sPayload;
    const char* sFrame;
  } aCases[] = {{"g", "$g#67"},   {"?", "$?#3f"}, {"c", "$c#63"},
                {"OK", "$OK#9a"}, {"", "$#00"},   {"m0,10", "$m0,10#2a"}};
  for (const auto& C : aCases) {
    EXPECT_EQ(GDB_Frame(C.sPayload), C.sFrame) << C.sPayload;
  }
}

TEST(GdbPacket, ReaderDecodesPacketsSplitAnywhere) {
  // Run-length: "0* " is "0" and 3 more (' ' is 32, minus 29); "}]" is "}" escaped; "}\x03" is "#".
  const struct {
    std::string sWire;
    std::vector<std::pair<GDB_ITEM_KIND, std::string>> aItems;
  } aCases[] = {
      {"+$OK#9a", {{GDB_ITEM_ACK, ""}, {GDB_ITEM_PACKET, "OK"}}},
      {"$0* #7a", {{GDB_ITEM_PACKET, "0000"}}},
      {"$a}]b#9d", {{GDB_ITEM_PACKET, "a}b"}}},
      {"$}\x03#80", {{GDB_ITEM_PACKET, "#"}}},
      {"noise$OK#9a-", {{GDB_ITEM_PACKET, "OK"}, {GDB_ITEM_NACK, ""}}},
      {"\x03", {{GDB_ITEM_INTERRUPT, ""}}},
      {"$OK#9b", {{GDB_ITEM_BAD_PACKET, ""}}},  // wrong checksum
      {"$OK#zz", {{GDB_ITEM_BAD_PACKET, ""}}},  // checksum not hex
      {"$a}#de", {{GDB_ITEM_BAD_PACKET, ""}}},  // escape at the end
      {"$*!#4b", {{GDB_ITEM_BAD_PACKET, ""}}},  // repeat with nothing to repeat
      {"$$OK#9a", {{GDB_ITEM_PACKET, "OK"}}},   // a cut-off start is dropped
  };
  for (const auto& C : aCases) {
    for (size_t Split = 0; Split <= C.sWire.size(); Split++) {
      CGdbPacketReader Reader;
      Reader.Feed(C.sWire.data(), Split);
      Reader.Feed(C.sWire.data() + Split, C.sWire.size() - Split);
      std::vector<std::pair<GDB_ITEM_KIND, std::string>> aGot;
      GDB_ITEM Item;
      while (Reader.Next(Item)) {
        aGot.emplace_back(Item.Kind, Item.sPayload);
      }
      EXPECT_EQ(aGot, C.aItems) << C.sWire << " split at " << Split;
    }
  }
}

TEST(GdbPacket, OverlongPacketIsDroppedNotKept) {
  CGdbPacketReader Reader(16);
  std::string sWire = "$" + std::string(1000, 'a') + "#00$OK#9a";
  Reader.Feed(sWire.data(), sWire.size());
  GDB_ITEM Item;
  ASSERT_TRUE(Reader.Next(Item));
  EXPECT_EQ(Item.Kind, GDB_ITEM_BAD_PACKET);
  ASSERT_TRUE(Reader.Next(Item));
  EXPECT_EQ(Item.Kind, GDB_ITEM_PACKET);
  EXPECT_EQ(Item.sPayload, "OK");
}

TEST(GdbPacket, BinaryEscapesRoundTripThroughTheReader) {
  std::vector<U8> aAll(256);
  for (int i = 0; i < 256; i++) {
    aAll[size_t(i)] = U8(i);
  }
  std::string sWire = GDB_Frame(GDB_EscapeBinary(aAll.data(), aAll.size()));
  CGdbPacketReader Reader;
  Reader.Feed(sWire.data(), sWire.size());
  GDB_ITEM Item;
  ASSERT_TRUE(Reader.Next(Item));
  ASSERT_EQ(Item.Kind, GDB_ITEM_PACKET);
  EXPECT_EQ(std::vector<U8>(Item.sPayload.begin(), Item.sPayload.end()), aAll);
}

TEST(GdbPacket, HexAndNumbersRejectWhatIsNotHex) {
  std::vector<U8> a;
  EXPECT_TRUE(GDB_FromHex("00ff7F", a));
  EXPECT_EQ(a, (std::vector<U8>{0x00, 0xFF, 0x7F}));
  for (const char* sBad : {"0", "0g", "xx", " 1"}) {
    EXPECT_FALSE(GDB_FromHex(sBad, a)) << sBad;
  }
  U32 v = 0;
  EXPECT_TRUE(GDB_ParseHexU32("20000000", &v));
  EXPECT_EQ(v, 0x20000000u);
  for (const char* sBad : {"", "123456789", "-1", "0x10"}) {
    EXPECT_FALSE(GDB_ParseHexU32(sBad, &v)) << sBad;
  }
  EXPECT_EQ(GDB_U32ToTargetHex(0x41000000), "00000041");  // xPSR as QEMU's "p19" answers it
}

TEST(GdbPacket, HostAndPortOfTheIPInterface) {
  const struct {
    const char* sText;
    bool Ok;
    const char* sHost;
    U16 Port;
  } aCases[] = {{"127.0.0.1", true, "127.0.0.1", 3333},
                {"localhost:1234", true, "localhost", 1234},
                {" board:65535 ", true, "board", 65535},
                {"host:0", false, "", 0},
                {"host:70000", false, "", 0},
                {"host:", false, "", 0},
                {":3333", false, "", 0},
                {"host:12ab", false, "", 0}};
  for (const auto& C : aCases) {
    std::string sHost, sError;
    U16 Port = 0;
    EXPECT_EQ(GDB_ParseHostPort(C.sText, 3333, sHost, &Port, sError), C.Ok) << C.sText;
    if (C.Ok) {
      EXPECT_EQ(sHost, C.sHost);
      EXPECT_EQ(Port, C.Port);
    } else {
      EXPECT_NE(sError.find(C.sText), std::string::npos) << sError;
    }
  }
}

}  // namespace
