// The connection configuration, its text form, the core families and the register numbering.
#include <gtest/gtest.h>

#include "device/DeviceConfig.h"
#include "device/RegisterIndex.h"
#include "device/RunControl.h"

TEST(DeviceConfig, SpeedAndItsTwoFlagsStayConsistent) {
  DEV_CONFIG c;
  EXPECT_EQ(c.UseMaxSpeed, 1);
  SetConfigValue(&c, DCP_SPEED, 4000000);
  EXPECT_EQ(c.Speed, 4000000u);
  EXPECT_EQ(c.UseMaxSpeed, 0);
  EXPECT_EQ(c.UseAdaptive, 0);
  SetConfigValue(&c, DCP_USE_ADAPTIVE, 1);
  EXPECT_EQ(c.Speed, 65535u);
  EXPECT_EQ(c.UseMaxSpeed, 0);
  SetConfigValue(&c, DCP_USE_MAX_SPEED, 1);
  EXPECT_EQ(c.Speed, 0u);
  EXPECT_EQ(c.UseAdaptive, 0);
  SetConfigValue(&c, DCP_SPEED, 65535);
  EXPECT_EQ(c.UseAdaptive, 1);
  EXPECT_EQ(SetConfigValue(&c, 15, 1), -1);  // no such integer parameter
  EXPECT_EQ(SetConfigValue(&c, DCP_HOST_NAME, 1), -1);
  EXPECT_EQ(SetConfigText(&c, DCP_SPEED, "x"), -1);
  EXPECT_EQ(SetConfigText(&c, DCP_DEVICE_NAME, QString(256, 'n')), -1);
  EXPECT_EQ(SetConfigText(&c, DCP_DEVICE_NAME, QString(255, 'n')), 0);
  EXPECT_EQ(SetConfigText(&c, DCP_SCRIPT_FILE, QString(2048, 'n')), -1);
}

TEST(DeviceConfig, TextFormRoundTripsAndNamesBadInput) {
  DEV_CONFIG c;
  c.HostIF = kHostIFIP;
  c.sHostName = "127.0.0.1:3333";
  c.TargetIF = 1;
  c.CoreIndex = 2;
  c.DRPre = -1;  // written as an empty attribute
  SetConfigValue(&c, DCP_SPEED, 12000000);
  c.sDeviceName = "Simulator Cortex-M3";
  QString sXml = ConfigToXml(c);
  EXPECT_TRUE(sXml.contains("<DeviceName>\"Simulator Cortex-M3\"</DeviceName>")) << sXml.toStdString();
  EXPECT_TRUE(sXml.contains("Speed=\"12000 kHz\""));
  EXPECT_TRUE(sXml.contains("ConnectMode=\"0x2\""));
  EXPECT_TRUE(sXml.contains("DRPre=\"\""));
  DEV_CONFIG Back;
  QString sError;
  ASSERT_EQ(ConfigFromXml(sXml, &Back, &sError), 0) << sError.toStdString();
  EXPECT_EQ(Back.HostIF, kHostIFIP);
  EXPECT_EQ(Back.sHostName, "127.0.0.1:3333");
  EXPECT_EQ(Back.TargetIF, 1);
  EXPECT_EQ(Back.CoreIndex, 2);
  EXPECT_EQ(Back.DRPre, -1);
  EXPECT_EQ(Back.Speed, 12000000u);
  EXPECT_EQ(Back.UseMaxSpeed, 0);
  EXPECT_EQ(Back.sDeviceName, "Simulator Cortex-M3");

  struct CASE {
    const char* sXml;
    const char* sErrorPart;
  } aBad[] = {
      {"", "no TarvikSettings"},
      {"<TarvikSettings><HostInterface", "not XML"},
      {"<Other/>", "no TarvikSettings"},
      {"<TarvikSettings><TargetInterface Speed=\"fast\"/></TarvikSettings>", "\"fast\" of Speed"},
      {"<TarvikSettings><TargetInterface DRPre=\"0xZZ\"/></TarvikSettings>", "\"0xZZ\" of DRPre"},
  };
  for (const CASE& Bad : aBad) {
    DEV_CONFIG Same = Back;
    QString sWhy;
    EXPECT_EQ(ConfigFromXml(Bad.sXml, &Same, &sWhy), -1) << Bad.sXml;
    EXPECT_TRUE(sWhy.contains(Bad.sErrorPart)) << sWhy.toStdString();
    EXPECT_EQ(Same.sHostName, Back.sHostName);  // nothing changed
  }
  DEV_CONFIG Speeds;
  ASSERT_EQ(ConfigFromXml("<TarvikSettings><TargetInterface Speed=\"adaptive\"/></TarvikSettings>", &Speeds,
                          &sError),
            0);
  EXPECT_EQ(Speeds.Speed, 65535u);
  ASSERT_EQ(
      ConfigFromXml("<TarvikSettings><TargetInterface Speed=\"4 MHz\"/></TarvikSettings>", &Speeds, &sError),
      0);
  EXPECT_EQ(Speeds.Speed, 4000000u);
}

TEST(DeviceConfig, CoreIdsMapToFamiliesAndArchitectures) {
  struct CASE {
    U32 Id;
    int Family;
    const char* sArch;
  } aCase[] = {
      {0x010000FF, DF_CORTEX_M1, "ARMv6M"},
      {0x03000021, DF_CORTEX_M3, "ARMv7M"},
      {0x060100FF, DF_CORTEX_M0, "ARMv8M"},
      {0x0E0200FF, DF_CORTEX_M4, "ARMv8M"},
      {0x07FFFFFF, DF_ARM7, ""},
      {0x0D03FFFF, DF_CORTEX_R4, ""},
      {0x0D06FFFF, DF_UNKNOWN, ""},
      {0x0F0000FF, DF_CORTEX_A5, ""},
      {0x12345678, DF_UNKNOWN, ""},
  };
  for (const CASE& c : aCase) {
    EXPECT_EQ(CoreIdToFamily(c.Id), c.Family) << std::hex << c.Id;
    EXPECT_STREQ(CoreIdToArchName(c.Id), c.sArch) << std::hex << c.Id;
  }
  EXPECT_TRUE(IsCortexMFamily(DF_CORTEX_M0));
  EXPECT_FALSE(IsCortexMFamily(DF_ARM9));
  EXPECT_TRUE(IsARMFamily(DF_CORTEX_R4));
  EXPECT_FALSE(IsARMFamily(DF_SIMULATOR));
}

TEST(RegisterIndex, BankedRegistersOfARMModes) {
  struct CASE {
    U32 Logical;
    U32 Mode;
    int Index;
  } aCase[] = {
      {0, MODE_USR, 0},   {7, MODE_FIQ, 7},   {8, MODE_FIQ, 18},  {12, MODE_FIQ, 22}, {8, MODE_SVC, 10},
      {13, MODE_USR, 15}, {13, MODE_SYS, 15}, {14, MODE_FIQ, 24}, {13, MODE_SVC, 26}, {14, MODE_ABT, 30},
      {13, MODE_IRQ, 32}, {14, MODE_UND, 36}, {15, MODE_SVC, 9},  {16, MODE_IRQ, 8},  {17, MODE_FIQ, 17},
      {17, MODE_SVC, 25}, {17, MODE_ABT, 28}, {17, MODE_IRQ, 31}, {17, MODE_UND, 34}, {17, MODE_USR, -1},
      {90, MODE_USR, 90},
  };
  for (const CASE& c : aCase) {
    EXPECT_EQ(GetTarvikRegIdx(c.Logical, c.Mode, false, MODE_USR), c.Index)
        << c.Logical << " in mode " << c.Mode;
  }
  EXPECT_EQ(GetTarvikRegIdx(13, kCurrentCPUMode, false, MODE_SVC), 26);
  EXPECT_EQ(GetTarvikRegIdx(15, MODE_SVC, true, MODE_SVC), 15);  // Cortex-M: the logical number
  EXPECT_EQ(GetTarvikRegIdx(17, MODE_USR, true, MODE_USR), -1);
  EXPECT_EQ(GetLogicalRegIdx(26, MODE_SVC, false, MODE_USR), 13);
  EXPECT_EQ(GetLogicalRegIdx(99, MODE_SVC, false, MODE_USR), -1);
}
